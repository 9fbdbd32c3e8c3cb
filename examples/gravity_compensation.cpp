// Example: gravity compensation. The motors give only the torque that holds the arm against
// gravity, so that it can be guided by hand (teaching); stop() then holds it where it was left.
//   usage: gravity_compensation [INTERFACE] [SECONDS]
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <thread>

#include "kestrel/controller/interfaces.hpp"

int main(int argc, char** argv) {
  ArmController arm(true, argc > 1 ? argv[1] : "can0", false, MIT_MODE, false);
  while (arm.get_joint().empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  arm.move_joint_waypoints({{0.0, 0.4, -0.9, 0.0, -0.6, 0.0}}, 2.0, 0.0);
  const double seconds = argc > 2 ? std::atof(argv[2]) : 3.0;

  arm.identify_gravity_compensation_kdl();  // floating from here on
  for (double t = 0.0; t < seconds; t += 0.5) {
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const auto q = arm.get_joint();
    const auto tau = arm.get_joint_torques();
    std::printf("t %.1f s  q2 %+.3f rad  tau2 %+.2f N·m\n", t + 0.5, q[1], tau[1]);
  }
  arm.stop();  // hold the posture the arm was left in
  std::printf("holding\n");
  return 0;
}
