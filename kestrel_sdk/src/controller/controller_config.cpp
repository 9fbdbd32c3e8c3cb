#include "kestrel/controller/controller_config.hpp"

#include <yaml-cpp/yaml.h>

#include <cmath>
#include <cstdlib>
#include <functional>
#include <iostream>
#include <limits>
#include <sstream>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"

namespace kestrel::controller {

namespace {

[[noreturn]] void exit_with(const std::string& line) {
  std::cerr << line << std::endl;
  std::exit(1);
}

// A required section: its own wording for an unopenable and an unparsable file; any other error
// (missing map, bad array, failed validation) is printed as it stands.
template <typename Config>
Config load_required(const char* label,
                     const std::function<Config(const YAML::Node&, const std::string&)>& read) {
  std::string path;
  try {
    path = algorithms::resolve_robot_kinematics_config_path();
    const YAML::Node root = YAML::LoadFile(path);
    return read(root, path);
  } catch (const YAML::BadFile& e) {
    exit_with(std::string("Failed to open ") + label + " config at " + path + ": " + e.what());
  } catch (const YAML::ParserException& e) {
    exit_with(std::string("Failed to parse ") + label + " config at " + path + ": " + e.what());
  } catch (const std::exception& e) {
    exit_with(e.what());
  }
}

// An optional section: one wording for every error; defaults are validated like read values.
template <typename Config>
Config load_optional(const char* label,
                     const std::function<Config(const YAML::Node&, const std::string&)>& read) {
  std::string path;
  try {
    path = algorithms::resolve_robot_kinematics_config_path();
    const YAML::Node root = YAML::LoadFile(path);
    return read(root, path);
  } catch (const std::exception& e) {
    exit_with(std::string("Failed to load ") + label + " config at " + path + ": " + e.what());
  }
}

YAML::Node required_map(const YAML::Node& root, const char* section, const std::string& message) {
  const YAML::Node node = root[section];
  if (!node.IsDefined() || !node.IsMap()) {
    throw std::runtime_error(message);
  }
  return node;
}

// Reads an optional array: an absent or undefined key keeps the default.
void parse_optional_array(JointArray& out, const YAML::Node& section, const char* key,
                          const std::string& dotted, const std::string& path) {
  const YAML::Node node = section[key];
  if (node.IsDefined()) {
    parse_joint_array(out, node, dotted, path);
  }
}

// Every entry of a joint array must pass `ok`; the first that does not is named with its joint.
template <typename Ok>
void check_each(const JointArray& values, Ok ok, const std::string& invalid, const std::string& key,
                const char* rule) {
  for (size_t j = 0; j < values.size(); ++j) {
    if (!ok(values[j])) {
      std::ostringstream line;
      line << invalid << key << " must be " << rule << " (joint " << j + 1 << ": " << values[j]
           << ")";
      throw std::runtime_error(line.str());
    }
  }
}

bool finite(double v) {
  return std::isfinite(v);
}

bool finite_positive(double v) {
  return std::isfinite(v) && v > 0.0;
}

// MIT gains and feed-forward limits: a non-finite entry would spoil every command of its joint,
// and a negative limit turns the symmetric feed-forward clip inside out.
void check_finite_non_negative(const JointArray& values, const std::string& key,
                               const std::string& path) {
  check_each(
      values, [](double v) { return std::isfinite(v) && v >= 0.0; },
      "Invalid MIT_MODE config at " + path + ": ", key, "finite and >= 0");
}

// A whole number in [low, high], read as a number so that 80.5 or .nan get the section's own
// message; text that is no number at all fails with yaml-cpp's conversion error.
int read_whole_number(const YAML::Node& section, const char* key, int fallback, double low,
                      double high, const std::string& message) {
  const double value = read_yaml_double_or(section, key, fallback);
  if (!(value >= low && value <= high && std::floor(value) == value)) {
    throw std::runtime_error(message);
  }
  return static_cast<int>(value);
}

}  // namespace

void parse_joint_array(JointArray& out, const YAML::Node& node, const std::string& key,
                       const std::string& path) {
  const std::string prefix = "Invalid joint array config at " + path + ": field '" + key + "'";
  if (!node.IsDefined() || !node.IsSequence() || node.size() != out.size()) {
    throw std::runtime_error(prefix + " must be a sequence of 6 numbers");
  }
  for (size_t i = 0; i < out.size(); ++i) {
    try {
      out[i] = node[i].as<double>();
    } catch (const YAML::Exception& e) {
      throw std::runtime_error(prefix + " contains a non-numeric value: " + e.what());
    }
  }
}

double read_yaml_double_or(const YAML::Node& node, const std::string& key, double fallback) {
  if (!node.IsDefined() || node.IsNull()) {
    return fallback;
  }
  const YAML::Node value = node[key];
  if (!value.IsDefined()) {
    return fallback;
  }
  return value.as<double>();  // a YAML null is present and fails here
}

bool read_bool_or(const YAML::Node& node, const std::string& key) {
  return read_bool_or(node, key, true);
}

bool read_bool_or(const YAML::Node& node, const std::string& key, bool fallback) {
  if (!node.IsDefined() || node.IsNull()) {
    return fallback;
  }
  const YAML::Node value = node[key];
  if (!value.IsDefined()) {
    return fallback;
  }
  try {
    return value.as<bool>();
  } catch (const YAML::Exception& e) {
    throw std::runtime_error("Invalid boolean config field '" + key + "': expected true/false. " +
                             e.what());
  }
}

PosVelModeConfig read_pos_vel_mode_config(const YAML::Node& root, const std::string& path) {
  const YAML::Node s =
      required_map(root, "pos_vel_mode",
                   "Invalid POS_VEL_MODE config at " + path + ": missing 'pos_vel_mode' map");
  PosVelModeConfig c;
  parse_joint_array(c.max_acc_limits, s["max_acc_limits"], "pos_vel_mode.max_acc_limits", path);
  parse_joint_array(c.max_dec_limits, s["max_dec_limits"], "pos_vel_mode.max_dec_limits", path);
  parse_joint_array(c.kp_apr_limits, s["kp_apr_limits"], "pos_vel_mode.kp_apr_limits", path);
  // Written to the motors' registers as they stand.
  const std::string invalid = "Invalid POS_VEL_MODE config at " + path + ": ";
  check_each(c.max_acc_limits, finite, invalid, "pos_vel_mode.max_acc_limits", "finite");
  check_each(c.max_dec_limits, finite, invalid, "pos_vel_mode.max_dec_limits", "finite");
  check_each(c.kp_apr_limits, finite, invalid, "pos_vel_mode.kp_apr_limits", "finite");
  return c;
}

PosVelModeConfig load_pos_vel_mode_config() {
  return load_required<PosVelModeConfig>("POS_VEL_MODE", read_pos_vel_mode_config);
}

MitModeConfig read_mit_mode_config(const YAML::Node& root, const std::string& path) {
  const YAML::Node s = required_map(
      root, "mit_mode", "Invalid MIT_MODE config at " + path + ": missing 'mit_mode' map");
  // "gravity_tau_limits" is the older spelling, consulted only without the new key.
  // Chosen at construction: yaml-cpp cannot rebind a node fetched for a missing key.
  const YAML::Node current = s["feedforward_tau_limits"];
  const YAML::Node older = s["gravity_tau_limits"];
  const YAML::Node limits = current.IsDefined() ? current : older;
  if (!limits.IsDefined()) {
    throw std::runtime_error("Invalid MIT_MODE config at " + path +
                             ": missing mit_mode.feedforward_tau_limits");
  }
  MitModeConfig c;
  parse_joint_array(c.kp, s["kp"], "mit_mode.kp", path);
  parse_joint_array(c.kd, s["kd"], "mit_mode.kd", path);
  parse_joint_array(c.feedforward_tau_limits, limits, "mit_mode.feedforward_tau_limits", path);
  c.gravity_comp_scale = read_yaml_double_or(s, "gravity_comp_scale", 1.0);
  c.enable_gravity_compensation = read_bool_or(s, "enable_gravity_compensation");
  c.enable_coriolis_compensation = read_bool_or(s, "enable_coriolis_compensation");
  c.enable_inertia_compensation = read_bool_or(s, "enable_inertia_compensation");
  check_finite_non_negative(c.kp, "mit_mode.kp", path);
  check_finite_non_negative(c.kd, "mit_mode.kd", path);
  check_finite_non_negative(c.feedforward_tau_limits, "mit_mode.feedforward_tau_limits", path);
  if (!std::isfinite(c.gravity_comp_scale)) {
    throw std::runtime_error("Invalid MIT_MODE config at " + path +
                             ": mit_mode.gravity_comp_scale must be finite");
  }
  return c;
}

MitModeConfig load_mit_mode_config() {
  return load_required<MitModeConfig>("MIT_MODE", read_mit_mode_config);
}

JointTrajectoryConfig read_joint_trajectory_config(const YAML::Node& root,
                                                   const std::string& path) {
  const YAML::Node s = required_map(
      root, "joint_trajectory",
      "Invalid joint trajectory config at " + path + ": missing 'joint_trajectory' map");
  JointTrajectoryConfig c;
  parse_joint_array(c.max_vel_limits, s["max_vel_limits"], "joint_trajectory.max_vel_limits", path);
  parse_joint_array(c.max_acc_limits, s["max_acc_limits"], "joint_trajectory.max_acc_limits", path);
  parse_joint_array(c.max_jerk_limits, s["max_jerk_limits"], "joint_trajectory.max_jerk_limits",
                    path);
  c.default_speed_percent = read_yaml_double_or(s, "default_speed_percent", 0.1);
  c.enforce_time_mode_acc_limit = read_bool_or(s, "enforce_time_mode_acc_limit");
  c.enforce_time_mode_jerk_limit = read_bool_or(s, "enforce_time_mode_jerk_limit");
  c.max_motion_duration_sec =
      read_yaml_double_or(s, "max_motion_duration_sec", c.max_motion_duration_sec);
  c.set_joint_speed_factor =
      read_yaml_double_or(s, "set_joint_speed_factor", c.set_joint_speed_factor);
  c.continuous_waypoint_velocity =
      read_bool_or(s, "continuous_waypoint_velocity", c.continuous_waypoint_velocity);
  c.smooth_takeover = read_bool_or(s, "smooth_takeover", c.smooth_takeover);
  const std::string invalid = "Invalid joint trajectory config at " + path + ": ";
  // The planner divides by these, and the run-time checks scale them.
  check_each(c.max_vel_limits, finite_positive, invalid, "joint_trajectory.max_vel_limits",
             "finite and > 0");
  check_each(c.max_acc_limits, finite_positive, invalid, "joint_trajectory.max_acc_limits",
             "finite and > 0");
  check_each(c.max_jerk_limits, finite_positive, invalid, "joint_trajectory.max_jerk_limits",
             "finite and > 0");
  if (!(c.default_speed_percent > 0.0 && c.default_speed_percent <= 1.0)) {
    throw std::runtime_error(invalid + "default_speed_percent must be in (0, 1]");
  }
  if (!(std::isfinite(c.max_motion_duration_sec) && c.max_motion_duration_sec > 0.0)) {
    throw std::runtime_error(invalid + "max_motion_duration_sec must be positive");
  }
  if (!(std::isfinite(c.set_joint_speed_factor) && c.set_joint_speed_factor >= 0.0)) {
    throw std::runtime_error(invalid + "set_joint_speed_factor must be finite and >= 0");
  }
  return c;
}

JointTrajectoryConfig load_joint_trajectory_config() {
  return load_required<JointTrajectoryConfig>("joint trajectory", read_joint_trajectory_config);
}

RuntimeJointSafetyConfig read_runtime_joint_safety_config(const YAML::Node& root,
                                                          const std::string& path) {
  RuntimeJointSafetyConfig c;
  const YAML::Node s = root["runtime_joint_safety"];
  if (s.IsDefined()) {
    c.enabled = read_bool_or(s, "enabled");
    parse_optional_array(c.torque_warn_limits, s, "torque_warn_limits",
                         "runtime_joint_safety.torque_warn_limits", path);
    parse_optional_array(c.torque_stop_limits, s, "torque_stop_limits",
                         "runtime_joint_safety.torque_stop_limits", path);
  }
  for (size_t j = 0; j < c.torque_warn_limits.size(); ++j) {
    const double warn = c.torque_warn_limits[j];
    const double stop = c.torque_stop_limits[j];
    if (!(warn > 0.0 && stop > 0.0 && warn <= stop)) {
      throw std::runtime_error(
          "runtime_joint_safety torque limits must be positive and stop >= warn");
    }
  }
  return c;
}

RuntimeJointSafetyConfig load_runtime_joint_safety_config() {
  return load_optional<RuntimeJointSafetyConfig>("runtime joint safety",
                                                 read_runtime_joint_safety_config);
}

GripperWatchdogConfig read_gripper_watchdog_config(const YAML::Node& root, const std::string&) {
  GripperWatchdogConfig c;
  const YAML::Node s = root["gripper_watchdog"];
  if (s.IsDefined()) {
    c.enabled = read_bool_or(s, "enabled");
    c.command_period_ms = read_yaml_double_or(s, "command_period_ms", c.command_period_ms);
    c.state_timeout_ms = read_yaml_double_or(s, "state_timeout_ms", c.state_timeout_ms);
    c.position_error_warn_m =
        read_yaml_double_or(s, "position_error_warn_m", c.position_error_warn_m);
    c.position_error_stop_m =
        read_yaml_double_or(s, "position_error_stop_m", c.position_error_stop_m);
    c.position_error_stop_ms =
        read_yaml_double_or(s, "position_error_stop_ms", c.position_error_stop_ms);
  }
  // The two distances only need to be in order: a negative warning level is accepted.
  if (!(c.command_period_ms > 0.0 && c.state_timeout_ms > 0.0 && c.position_error_stop_ms > 0.0 &&
        c.position_error_warn_m <= c.position_error_stop_m)) {
    throw std::runtime_error("invalid gripper_watchdog config");
  }
  return c;
}

GripperWatchdogConfig load_gripper_watchdog_config() {
  return load_optional<GripperWatchdogConfig>("gripper watchdog", read_gripper_watchdog_config);
}

MotorSupervisionConfig read_motor_supervision_config(const YAML::Node& root, const std::string&) {
  MotorSupervisionConfig c;
  const YAML::Node s = root["motor_supervision"];
  if (s.IsDefined()) {
    c.enabled = read_bool_or(s, "enabled", c.enabled);
    c.silent_timeout_ms = read_yaml_double_or(s, "silent_timeout_ms", c.silent_timeout_ms);
  }
  // Below 10 ms two lost replies in a row would read as a silent motor; above 1 s the motors'
  // own communication time-out has long switched them off.
  if (!(c.silent_timeout_ms >= 10.0 && c.silent_timeout_ms <= 1000.0)) {
    throw std::runtime_error(
        "invalid motor_supervision config: silent_timeout_ms must lie in [10, 1000]");
  }
  return c;
}

MotorSupervisionConfig load_motor_supervision_config() {
  return load_optional<MotorSupervisionConfig>("motor supervision", read_motor_supervision_config);
}

GripperControlConfig read_gripper_control_config(const YAML::Node& root, const std::string&) {
  GripperControlConfig c;
  const YAML::Node s = root["gripper_control"];
  if (s.IsDefined()) {
    c.default_kp = read_yaml_double_or(s, "default_kp", c.default_kp);
    c.default_kd = read_yaml_double_or(s, "default_kd", c.default_kd);
  }
  if (!(c.default_kp >= 0.1 && c.default_kp <= 20.0 && c.default_kd >= 0.1 &&
        c.default_kd <= 1.0)) {
    throw std::runtime_error(
        "invalid gripper_control config: default_kp must be in [0.1,20.0], default_kd "
        "must be in [0.1,1.0]");
  }
  return c;
}

GripperControlConfig load_gripper_control_config() {
  return load_optional<GripperControlConfig>("gripper control", read_gripper_control_config);
}

// The ranges are checked as the numbers are read; the defaults are within them.
RealtimeConfig read_realtime_config(const YAML::Node& root, const std::string&) {
  RealtimeConfig c;
  const YAML::Node s = root["realtime"];
  if (!s.IsDefined()) {
    return c;
  }
  const std::string invalid = "invalid realtime config: ";
  c.enabled = read_bool_or(s, "enabled", c.enabled);
  c.control_priority =
      read_whole_number(s, "control_priority", c.control_priority, 1, 99,
                        invalid + "control_priority must be an integer in [1, 99]");
  c.monitor_priority =
      read_whole_number(s, "monitor_priority", c.monitor_priority, 1, 99,
                        invalid + "monitor_priority must be an integer in [1, 99]");
  c.lock_memory = read_bool_or(s, "lock_memory", c.lock_memory);
  c.control_cpu =
      read_whole_number(s, "control_cpu", c.control_cpu, -1, std::numeric_limits<int>::max(),
                        invalid + "control_cpu must be -1 (no pinning) or a CPU number >= 0");
  return c;
}

RealtimeConfig load_realtime_config() {
  return load_optional<RealtimeConfig>("realtime", read_realtime_config);
}

JointArray read_motor_signs_config(const YAML::Node& root, const std::string& path) {
  JointArray signs{};
  parse_joint_array(signs, root["motor_signs"], "motor_signs", path);
  return signs;
}

JointArray load_motor_signs_config() {
  return load_required<JointArray>("motor_signs", read_motor_signs_config);
}

ControllerConfigFile read_controller_config_file(const std::string& path) {
  const YAML::Node root = YAML::LoadFile(path);
  ControllerConfigFile f;
  f.pos_vel_mode = read_pos_vel_mode_config(root, path);
  f.mit_mode = read_mit_mode_config(root, path);
  f.joint_trajectory = read_joint_trajectory_config(root, path);
  f.runtime_joint_safety = read_runtime_joint_safety_config(root, path);
  f.gripper_watchdog = read_gripper_watchdog_config(root, path);
  f.motor_supervision = read_motor_supervision_config(root, path);
  f.gripper_control = read_gripper_control_config(root, path);
  f.realtime = read_realtime_config(root, path);
  f.motor_signs = read_motor_signs_config(root, path);
  check_motor_signs(f.motor_signs);
  return f;
}

void check_motor_signs(const JointArray& signs) {
  for (double s : signs) {
    // The accepted range is what is tested, so that a NaN is refused too.
    if (!(std::abs(std::abs(s) - 1.0) <= 1e-9)) {
      throw std::invalid_argument("motor_signs must contain only +1 or -1");
    }
  }
}

}  // namespace kestrel::controller
