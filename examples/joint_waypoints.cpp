// Example: a joint waypoint motion. The arm passes through every waypoint without stopping
// (velocities are blended), first at half speed, then in a given total time; the planned
// samples of the last motion can be read back.
//   usage: joint_waypoints [INTERFACE]
#include <chrono>
#include <cstdio>
#include <thread>

#include "kestrel/controller/interfaces.hpp"

int main(int argc, char** argv) {
  ArmController arm(true, argc > 1 ? argv[1] : "can0", false, MIT_MODE, false);
  while (arm.get_joint().empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  const std::vector<std::vector<double>> waypoints = {
      {0.0, 0.4, -0.9, 0.0, -0.6, 0.0},
      {0.4, 0.5, -1.1, 0.2, -0.5, 0.3},
      {-0.3, 0.6, -1.2, -0.2, -0.7, -0.3},
      {0.0, 0.4, -0.9, 0.0, -0.6, 0.0},
  };
  const double by_speed = arm.move_joint_waypoints(waypoints, 0.0, 0.5);
  const double by_time = arm.move_joint_waypoints(waypoints, 6.0, 0.0);
  const auto samples = arm.get_last_waypoint_command_samples();
  std::printf("half speed: %.2f s; timed: %.2f s (%zu samples at 400 Hz)\n", by_speed, by_time,
              samples.size());
  // Each sample: six joints, then the tool point x, y, z and its orientation quaternion.
  std::printf("tool at the end: x %.3f y %.3f z %.3f m\n", samples.back()[6], samples.back()[7],
              samples.back()[8]);
  return 0;
}
