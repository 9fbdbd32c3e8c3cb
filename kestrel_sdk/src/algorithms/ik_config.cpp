#include "kestrel/algorithms/ik_config.hpp"

#include <yaml-cpp/yaml.h>

#include <cmath>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"

namespace kestrel::algorithms {
namespace {

static_assert(sizeof(IkFallbackConfig) == 32, "IkFallbackConfig is copied as one 32-byte record");

template <typename T>
void read_if_present(const YAML::Node& section, const char* key, T& out) {
  const YAML::Node value = section[key];
  if (value.IsDefined()) {
    out = value.as<T>();
  }
}

void validate(const IkSolverConfig& c) {
  if (c.mode != "fast" && c.mode != "kdl" && c.mode != "kdl_with_approx_fallback" &&
      c.mode != "analytic") {
    throw std::runtime_error(
        "ik_solver.mode must be 'fast', 'kdl', 'kdl_with_approx_fallback', or 'analytic'");
  }
  // The accepted ranges are what is tested, so that a NaN (".nan" in YAML) is refused too.
  if (!(c.position_tolerance_m > 0.0 && c.orientation_tolerance_rad > 0.0 &&
        c.max_fast_iterations >= 0 && c.max_residual_search_iterations >= 0 && c.damping >= 0.0 &&
        c.max_joint_step_rad > 0.0 && c.max_joint_delta_time_sec >= 0.0)) {
    throw std::runtime_error("ik_solver contains invalid non-positive limits");
  }
  for (const double v : c.max_joint_velocity_rad_s) {
    if (!(v > 0.0)) {
      throw std::runtime_error("ik_solver joint velocity limits must be positive");
    }
  }
  if (!(c.global_search_time_ms > 0.0) || !std::isfinite(c.global_search_time_ms)) {
    throw std::runtime_error("ik_solver.global_search_time_ms must be positive");
  }
  for (const double w : c.nearest_joint_weights) {
    if (!(w > 0.0) || !std::isfinite(w)) {
      throw std::runtime_error("ik_solver.nearest_joint_weights must be positive");
    }
  }
}

}  // namespace

IkSolverConfig read_ik_solver_config(const std::string& config_path) {
  IkSolverConfig config;
  try {
    const YAML::Node root = YAML::LoadFile(config_path);
    const YAML::Node section = root["ik_solver"];
    if (!section.IsDefined()) {
      return config;
    }
    read_if_present(section, "mode", config.mode);
    read_if_present(section, "position_tolerance_m", config.position_tolerance_m);
    read_if_present(section, "orientation_tolerance_rad", config.orientation_tolerance_rad);
    read_if_present(section, "max_fast_iterations", config.max_fast_iterations);
    read_if_present(section, "max_residual_search_iterations",
                    config.max_residual_search_iterations);
    read_if_present(section, "damping", config.damping);
    read_if_present(section, "max_joint_step_rad", config.max_joint_step_rad);
    read_if_present(section, "max_joint_delta_time_sec", config.max_joint_delta_time_sec);
    read_if_present(section, "allow_kdl_fallback", config.allow_kdl_fallback);
    read_if_present(section, "global_search_time_ms", config.global_search_time_ms);
    if (section["nearest_joint_weights"].IsDefined()) {
      config.nearest_joint_weights =
          read_double_sequence(section["nearest_joint_weights"], "ik_solver.nearest_joint_weights");
    }

    // The planner's speed limits double as the IK plausibility limits unless the IK section
    // names its own.
    const YAML::Node trajectory = root["joint_trajectory"];
    if (trajectory.IsDefined() && trajectory["max_vel_limits"].IsDefined()) {
      config.max_joint_velocity_rad_s =
          read_double_sequence(trajectory["max_vel_limits"], "joint_trajectory.max_vel_limits");
    }
    if (section["max_joint_velocity_rad_s"].IsDefined()) {
      config.max_joint_velocity_rad_s = read_double_sequence(section["max_joint_velocity_rad_s"],
                                                             "ik_solver.max_joint_velocity_rad_s");
    }
  } catch (const YAML::Exception& e) {
    throw std::runtime_error("Failed to read ik_solver config at " + config_path + ": " + e.what());
  }
  validate(config);
  return config;
}

IkFallbackConfig read_ik_fallback_config(const std::string& config_path) {
  IkFallbackConfig config;
  try {
    const YAML::Node root = YAML::LoadFile(config_path);
    const YAML::Node section = root["ik_fallback"];
    if (!section.IsDefined()) {
      return config;
    }
    read_if_present(section, "enabled", config.enabled);
    read_if_present(section, "position_tolerance_m", config.position_tolerance_m);
    read_if_present(section, "max_candidates", config.max_candidates);
    read_if_present(section, "max_time_ms", config.max_time_ms);
  } catch (const YAML::Exception& e) {
    throw std::runtime_error("Failed to read ik_fallback config at " + config_path + ": " +
                             e.what());
  }
  if (!(config.position_tolerance_m >= 0.0)) {
    throw std::runtime_error("ik_fallback.position_tolerance_m must be non-negative");
  }
  if (!(config.max_time_ms >= 0.0)) {
    throw std::runtime_error("ik_fallback.max_time_ms must be non-negative");
  }
  return config;
}

IkSolverConfig read_ik_solver_config() {
  return read_ik_solver_config(resolve_robot_kinematics_config_path());
}

IkFallbackConfig read_ik_fallback_config() {
  return read_ik_fallback_config(resolve_robot_kinematics_config_path());
}

const IkSolverConfig& ik_solver_config() {
  static const IkSolverConfig config = read_ik_solver_config();
  return config;
}

const IkFallbackConfig& ik_fallback_config() {
  static const IkFallbackConfig config = read_ik_fallback_config();
  return config;
}

}  // namespace kestrel::algorithms
