// One control cycle as the loop saw it: what it commanded the six joints (position, velocity
// and the feed-forward torque of the MIT frame) beside what the motors last reported. Recorders
// and plots read it at the control rate through ArmController::get_control_cycle_sample().
#pragma once

#include <array>
#include <cstdint>

namespace kestrel::controller {

struct ControlCycleSample {
  uint64_t cycle = 0;     // cycles that commanded the arm so far; 0: none yet
  double time_sec = 0.0;  // cycle start, steady-clock seconds
  int command_kind = 0;   // 1 raw, 2 joint move, 3 waypoints, 4/5 gravity compensation
  std::array<double, 6> commanded_position{};  // rad (gravity modes: the measured posture)
  std::array<double, 6> commanded_velocity{};  // rad/s
  std::array<double, 6> feedforward_torque{};  // N·m, after clipping; 0 in POS_VEL_MODE
  std::array<double, 6> measured_position{};   // rad
  std::array<double, 6> measured_velocity{};   // rad/s
  std::array<double, 6> measured_torque{};     // N·m
  double commanded_gripper_m = -1.0;           // opening, m; -1 without gripper or before a command
  double measured_gripper_m = -1.0;            // opening, m; -1 without gripper
};

}  // namespace kestrel::controller
