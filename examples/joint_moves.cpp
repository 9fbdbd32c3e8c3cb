// Example: joint moves. A rest-to-rest move that takes a given time (set_joint returns at once;
// the control thread carries it out), then a move at a fraction of the joint speed limits that
// waits until the arm has arrived.
//   usage: joint_moves [INTERFACE]   (default can0; simcan0 for the simulated arm)
#include <chrono>
#include <cstdio>
#include <thread>

#include "kestrel/controller/interfaces.hpp"

int main(int argc, char** argv) {
  ArmController arm(/*enable_gripper=*/true, argc > 1 ? argv[1] : "can0", /*use_canfd=*/false,
                    MIT_MODE, /*skip_hardware_init=*/false);
  while (arm.get_joint().empty()) {  // the first feedback arrives within a few milliseconds
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }

  arm.set_joint({0.0, 0.4, -0.9, 0.0, -0.6, 0.0}, 2.0);  // 2 s, 7th-order profile
  std::this_thread::sleep_for(std::chrono::milliseconds(2300));

  const double duration = arm.move_joint_waypoints({{0.5, 0.5, -1.0, 0.3, -0.7, 0.4}},
                                                   /*time_sec=*/0.0, /*speed_percent=*/0.5);
  const auto q = arm.get_joint();
  std::printf("moved in %.2f s; joints now %.3f %.3f %.3f %.3f %.3f %.3f rad\n", duration, q[0],
              q[1], q[2], q[3], q[4], q[5]);
  return 0;  // the destructor stops the threads and disables the motors
}
