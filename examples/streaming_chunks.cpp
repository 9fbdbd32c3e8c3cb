// Example: streaming. A planner or a learned policy sends short chunks of waypoints while the
// arm moves; each chunk takes over from the running one a little later (switch delay) without
// a jump in position or velocity. update_joint_waypoint_chunk returns at once.
//   usage: streaming_chunks [INTERFACE]
#include <chrono>
#include <cmath>
#include <cstdio>
#include <thread>

#include "kestrel/controller/interfaces.hpp"

int main(int argc, char** argv) {
  ArmController arm(true, argc > 1 ? argv[1] : "can0", false, MIT_MODE, false);
  while (arm.get_joint().empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  arm.move_joint_waypoints({{0.0, 0.4, -0.9, 0.0, -0.6, 0.0}}, 2.0, 0.0);

  // Ten chunks, one every 0.3 s, each 0.6 s long toward a point further along a slow sweep.
  for (int k = 1; k <= 10; ++k) {
    const double phase = 0.3 * k;
    const std::vector<double> next = {
        0.5 * std::sin(phase), 0.4 + 0.1 * std::sin(phase), -0.9, 0.0, -0.6, 0.3 * std::sin(phase)};
    const double duration =
        arm.update_joint_waypoint_chunk({next}, /*time_sec=*/0.6, 0.0, /*switch_delay_sec=*/0.05);
    std::printf("chunk %2d: %.2f s toward joint 1 = %+.3f rad\n", k, duration, next[0]);
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(800));  // let the last chunk finish
  std::printf("joint 1 ends at %+.3f rad\n", arm.get_joint()[0]);
  return 0;
}
