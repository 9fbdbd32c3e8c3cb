// The controller's own sections of "robot_kinematics.yaml": MIT and position-velocity motor
// settings, trajectory limits, motor signs, run-time torque limits, the gripper watchdog, the
// gripper's default gains and the threads' real-time set-up. Read once, while the controller is
// constructed.
//
// A configuration error ends the process: the loader prints one line to standard error and exits
// with status 1 (a controller must never run on half-read tuning). The one exception is a motor
// sign that is not +1 or -1, which throws std::invalid_argument from the constructor.
#pragma once

#include <array>
#include <string>

namespace YAML {
class Node;
}

namespace kestrel::controller {

using JointArray = std::array<double, 6>;

struct MitModeConfig {
  JointArray kp{};
  JointArray kd{};
  JointArray feedforward_tau_limits{};  // symmetric clip of the feed-forward torque, N·m
  double gravity_comp_scale = 1.0;
  bool enable_gravity_compensation = true;
  bool enable_coriolis_compensation = true;
  bool enable_inertia_compensation = true;
};

// Written to each arm motor's ACC, DEC and KP_APR registers at start-up in POS_VEL_MODE.
struct PosVelModeConfig {
  JointArray max_acc_limits{};
  JointArray max_dec_limits{};
  JointArray kp_apr_limits{};
};

struct JointTrajectoryConfig {
  JointArray max_vel_limits{};   // rad/s
  JointArray max_acc_limits{};   // rad/s²
  JointArray max_jerk_limits{};  // rad/s³
  double default_speed_percent = 0.1;
  bool enforce_time_mode_acc_limit = true;
  bool enforce_time_mode_jerk_limit = true;
  // Longest motion any planner may produce, seconds: a longer plan is refused before its samples
  // are allocated ("max_motion_duration_sec", > 0).
  double max_motion_duration_sec = 600.0;
  // set_joint refuses a move whose peak speed (2.1875 x distance / time for its 7th-order
  // profile) would exceed this factor times max_vel_limits on any joint; 0 turns the check off
  // ("set_joint_speed_factor", >= 0). The default stays below the run-time velocity stop (1.3).
  double set_joint_speed_factor = 1.25;
  // false: interior waypoint velocities per unit of normalised segment time, as planned by
  // default (the real velocity steps where neighbouring segments differ in duration); true: the
  // same tangents made continuous in real time ("continuous_waypoint_velocity").
  bool continuous_waypoint_velocity = false;
  // false: a set_joint move, waypoint or Cartesian motion that arrives while another motion runs
  // starts from the measured joints at rest, as it does from standstill (the commanded velocity
  // steps to zero); true: it starts from the running command's position, velocity and
  // acceleration through the online splice, like a chunk update ("smooth_takeover").
  bool smooth_takeover = false;
};

struct RuntimeJointSafetyConfig {
  bool enabled = true;
  JointArray torque_warn_limits{16.0, 16.0, 16.0, 6.0, 5.0, 5.0};  // N·m of measured torque
  JointArray torque_stop_limits{20.0, 20.0, 20.0, 8.0, 6.0, 6.0};
};

struct GripperWatchdogConfig {
  bool enabled = true;
  double command_period_ms = 5.0;
  double state_timeout_ms = 100.0;
  double position_error_warn_m = 0.015;
  double position_error_stop_m = 0.035;
  double position_error_stop_ms = 500.0;
};

// Motors that report a fault (status 8-14) or stop answering. An arm motor stops the arm at once,
// naming the joint and its fault; the gripper's motor is reported and the arm goes on.
struct MotorSupervisionConfig {
  bool enabled = true;
  double silent_timeout_ms = 50.0;  // no feedback this long (and three asks in a row): silent
};

struct GripperControlConfig {
  double default_kp = 8.0;  // allowed 0.1 .. 20.0
  double default_kd = 0.1;  // allowed 0.1 .. 1.0
};

// Real-time scheduling of the controller's threads (realtime_setup.hpp applies it). Off unless
// enabled: it needs privileges, and it changes the whole process (locked memory).
struct RealtimeConfig {
  bool enabled = false;
  int control_priority = 80;  // SCHED_FIFO priority of the control thread, 1 .. 99
  int monitor_priority = 70;  // SCHED_FIFO priority of the torque monitor, 1 .. 99
  bool lock_memory = true;    // mlockall(MCL_CURRENT | MCL_FUTURE): no page faults in the loop
  // CPU the control thread is pinned to, -1 for none. Whether the machine has that CPU is
  // checked when the thread starts, not here: the file may travel between machines.
  int control_cpu = -1;
};

// Readers shared by every section.
// Six numbers from a sequence; `key` is the dotted field name used in the messages.
void parse_joint_array(JointArray& out, const YAML::Node& node, const std::string& key,
                       const std::string& path);
// `fallback` when the section or the key is absent; yaml-cpp's conversion error otherwise.
double read_yaml_double_or(const YAML::Node& node, const std::string& key, double fallback);
// The same for booleans, fallback true; a non-boolean throws "Invalid boolean config field ...".
bool read_bool_or(const YAML::Node& node, const std::string& key);
// The same with a fallback of the caller's choice.
bool read_bool_or(const YAML::Node& node, const std::string& key, bool fallback);

// Readers of one section of a parsed file: throw std::runtime_error (or a yaml-cpp exception)
// on a bad value, with the same wording as the loaders print.
PosVelModeConfig read_pos_vel_mode_config(const YAML::Node& root, const std::string& path);
MitModeConfig read_mit_mode_config(const YAML::Node& root, const std::string& path);
JointTrajectoryConfig read_joint_trajectory_config(const YAML::Node& root, const std::string& path);
RuntimeJointSafetyConfig read_runtime_joint_safety_config(const YAML::Node& root,
                                                          const std::string& path);
GripperWatchdogConfig read_gripper_watchdog_config(const YAML::Node& root, const std::string& path);
MotorSupervisionConfig read_motor_supervision_config(const YAML::Node& root,
                                                     const std::string& path);
GripperControlConfig read_gripper_control_config(const YAML::Node& root, const std::string& path);
RealtimeConfig read_realtime_config(const YAML::Node& root, const std::string& path);
JointArray read_motor_signs_config(const YAML::Node& root, const std::string& path);

// Every controller section of one file, read and validated; throws where the loaders would end
// the process (a tool checking a file, a fuzzer).
struct ControllerConfigFile {
  PosVelModeConfig pos_vel_mode;
  MitModeConfig mit_mode;
  JointTrajectoryConfig joint_trajectory;
  RuntimeJointSafetyConfig runtime_joint_safety;
  GripperWatchdogConfig gripper_watchdog;
  MotorSupervisionConfig motor_supervision;
  GripperControlConfig gripper_control;
  RealtimeConfig realtime;
  JointArray motor_signs{};
};
ControllerConfigFile read_controller_config_file(const std::string& path);

// Loaders: each resolves and parses the file by itself and exits the process on an error.
PosVelModeConfig load_pos_vel_mode_config();
MitModeConfig load_mit_mode_config();
JointTrajectoryConfig load_joint_trajectory_config();
RuntimeJointSafetyConfig load_runtime_joint_safety_config();
GripperWatchdogConfig load_gripper_watchdog_config();
MotorSupervisionConfig load_motor_supervision_config();
GripperControlConfig load_gripper_control_config();
RealtimeConfig load_realtime_config();
// The six signs as read; check_motor_signs() validates them (throws std::invalid_argument).
JointArray load_motor_signs_config();
void check_motor_signs(const JointArray& signs);

}  // namespace kestrel::controller
