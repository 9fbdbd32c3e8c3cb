// Example: reading the arm's state. Joints, velocities, torques, tool pose and gripper from the
// latest feedback; what the control loop commanded in its latest cycle; the loop's timing.
//   usage: reading_state [INTERFACE]
#include <chrono>
#include <cstdio>
#include <thread>

#include "kestrel/controller/interfaces.hpp"

namespace {
void print(const char* name, const std::vector<double>& values) {
  std::printf("%-22s", name);
  for (double v : values) {
    std::printf(" %+8.4f", v);
  }
  std::printf("\n");
}
}  // namespace

int main(int argc, char** argv) {
  ArmController arm(true, argc > 1 ? argv[1] : "can0", false, MIT_MODE, false);
  while (arm.get_joint().empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  print("joints rad", arm.get_joint());
  print("velocities rad/s", arm.get_joint_velocities());
  print("torques N·m", arm.get_joint_torques());
  print("tool x y z qx qy qz qw", arm.get_end_effector_pose());
  std::printf("%-22s  %.4f m (position %.2f)\n", "gripper", arm.get_gripper_distance(),
              arm.get_gripper_position());

  const auto cycle = arm.get_control_cycle_sample();
  print("commanded rad",
        std::vector<double>(cycle.commanded_position.begin(), cycle.commanded_position.end()));
  print("feed-forward N·m",
        std::vector<double>(cycle.feedforward_torque.begin(), cycle.feedforward_torque.end()));

  const auto timing = arm.control_loop_statistics();
  std::printf(
      "control loop: %llu cycles, compute median %.0f us (p99 %.0f), bus I/O median %.0f us "
      "(p99 %.0f), %llu missed\n",
      static_cast<unsigned long long>(timing.cycles), timing.compute_median_us,
      timing.compute_p99_us, timing.io_median_us, timing.io_p99_us,
      static_cast<unsigned long long>(timing.missed_deadlines));
  return 0;
}
