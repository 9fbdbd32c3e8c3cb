#include "kestrel/algorithms/safety_config.hpp"

#include <yaml-cpp/yaml.h>

#include <cstdlib>
#include <iostream>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"

namespace kestrel::algorithms {
namespace {

// The four readers below are the only way keys are read. A missing section or key gives the
// default; a value of the wrong kind raises yaml-cpp's conversion error, which ends the load.

bool read_bool_or(const YAML::Node& section, bool default_value) {
  if (!section.IsDefined()) {
    return default_value;
  }
  const YAML::Node value = section["enabled"];
  if (!value.IsDefined()) {
    return default_value;
  }
  try {
    return value.as<bool>();
  } catch (const YAML::Exception& e) {
    throw std::runtime_error(std::string("Invalid boolean config field '") + "enabled" +
                             "': expected true/false. " + e.what());
  }
}

double read_double_or(const YAML::Node& section, const char* key, double default_value) {
  if (!section.IsDefined()) {
    return default_value;
  }
  const YAML::Node value = section[key];
  return value.IsDefined() ? value.as<double>() : default_value;
}

int read_int_or(const YAML::Node& section, const char* key, int default_value) {
  if (!section.IsDefined()) {
    return default_value;
  }
  const YAML::Node value = section[key];
  return value.IsDefined() ? value.as<int>() : default_value;
}

std::array<double, 3> read_vec3_array(const YAML::Node& node, const std::string& label) {
  if (!node.IsDefined() || !node.IsSequence() || node.size() != 3) {
    throw std::runtime_error(label + " must be a sequence of 3 numbers");
  }
  return {node[0].as<double>(), node[1].as<double>(), node[2].as<double>()};
}

void read_singularity_protection(const YAML::Node& s, SingularityProtectionConfig& c) {
  c.enabled = read_bool_or(s, c.enabled);
  c.wrist_target_abs_rad = read_double_or(s, "wrist_target_abs_rad", c.wrist_target_abs_rad);
  c.wrist_warn_margin_rad = read_double_or(s, "wrist_warn_margin_rad", c.wrist_warn_margin_rad);
  c.wrist_stop_margin_rad = read_double_or(s, "wrist_stop_margin_rad", c.wrist_stop_margin_rad);
  c.shoulder_warn_radius_m = read_double_or(s, "shoulder_warn_radius_m", c.shoulder_warn_radius_m);
  c.shoulder_stop_radius_m = read_double_or(s, "shoulder_stop_radius_m", c.shoulder_stop_radius_m);
  c.elbow_j3_target_rad = read_double_or(s, "elbow_j3_target_rad", c.elbow_j3_target_rad);
  c.elbow_j4_target_rad = read_double_or(s, "elbow_j4_target_rad", c.elbow_j4_target_rad);
  c.elbow_warn_radius_rad = read_double_or(s, "elbow_warn_radius_rad", c.elbow_warn_radius_rad);
  c.elbow_stop_radius_rad = read_double_or(s, "elbow_stop_radius_rad", c.elbow_stop_radius_rad);
  c.jacobian_warn_sigma_min =
      read_double_or(s, "jacobian_warn_sigma_min", c.jacobian_warn_sigma_min);
  c.jacobian_stop_sigma_min =
      read_double_or(s, "jacobian_stop_sigma_min", c.jacobian_stop_sigma_min);
  c.jacobian_warn_condition =
      read_double_or(s, "jacobian_warn_condition", c.jacobian_warn_condition);
  c.jacobian_stop_condition =
      read_double_or(s, "jacobian_stop_condition", c.jacobian_stop_condition);
  c.jacobian_angular_scale_m =
      read_double_or(s, "jacobian_angular_scale_m", c.jacobian_angular_scale_m);
  c.yellow_min_speed_scale = read_double_or(s, "yellow_min_speed_scale", c.yellow_min_speed_scale);
}

void read_trajectory_safety(const YAML::Node& s, TrajectorySafetyConfig& c) {
  c.enabled = read_bool_or(s, c.enabled);
  c.joint_limit_warn_margin_rad =
      read_double_or(s, "joint_limit_warn_margin_rad", c.joint_limit_warn_margin_rad);
  c.joint_limit_stop_margin_rad =
      read_double_or(s, "joint_limit_stop_margin_rad", c.joint_limit_stop_margin_rad);
  c.tracking_error_warn_rad =
      read_double_or(s, "tracking_error_warn_rad", c.tracking_error_warn_rad);
  c.tracking_error_stop_rad =
      read_double_or(s, "tracking_error_stop_rad", c.tracking_error_stop_rad);
  c.tracking_error_stop_cycles =
      read_int_or(s, "tracking_error_stop_cycles", c.tracking_error_stop_cycles);
  c.velocity_warn_scale = read_double_or(s, "velocity_warn_scale", c.velocity_warn_scale);
  c.velocity_stop_scale = read_double_or(s, "velocity_stop_scale", c.velocity_stop_scale);
  c.acceleration_warn_scale =
      read_double_or(s, "acceleration_warn_scale", c.acceleration_warn_scale);
  c.acceleration_stop_scale =
      read_double_or(s, "acceleration_stop_scale", c.acceleration_stop_scale);
  c.jerk_warn_scale = read_double_or(s, "jerk_warn_scale", c.jerk_warn_scale);
  c.jerk_stop_scale = read_double_or(s, "jerk_stop_scale", c.jerk_stop_scale);
  c.derivative_stop_cycles = read_int_or(s, "derivative_stop_cycles", c.derivative_stop_cycles);
}

SelfCollisionConfig::Body read_body(const YAML::Node& entry) {
  SelfCollisionConfig::Body body;
  if (entry["name"].IsDefined()) {
    body.name = entry["name"].as<std::string>();
  }
  if (entry["link"].IsDefined()) {
    body.link = entry["link"].as<std::string>();
  }
  if (entry["type"].IsDefined()) {
    body.type = entry["type"].as<std::string>();
  }
  if (body.type == "capsule") {
    body.p0 = read_vec3_array(entry["p0"], "self_collision.bodies.p0");
    body.p1 = read_vec3_array(entry["p1"], "self_collision.bodies.p1");
    body.radius = read_double_or(entry, "radius", 0.0);
  } else if (body.type == "box") {
    body.center = read_vec3_array(entry["center"], "self_collision.bodies.center");
    body.size = read_vec3_array(entry["size"], "self_collision.bodies.size");
    if (entry["rpy"].IsDefined()) {
      body.rpy = read_vec3_array(entry["rpy"], "self_collision.bodies.rpy");
    }
  } else {
    throw std::runtime_error("self_collision.bodies only supports type=capsule or type=box");
  }
  return body;
}

void read_self_collision(const YAML::Node& s, SelfCollisionConfig& c) {
  c.enabled = read_bool_or(s, c.enabled);
  c.warn_distance_m = read_double_or(s, "warn_distance_m", c.warn_distance_m);
  c.stop_distance_m = read_double_or(s, "stop_distance_m", c.stop_distance_m);
  if (!s.IsDefined()) {
    return;
  }
  const YAML::Node pairs = s["ignored_pairs"];
  if (pairs.IsDefined()) {
    for (const auto& entry : pairs) {
      if (!entry.IsDefined() || !entry.IsSequence() || entry.size() != 2) {
        throw std::runtime_error("self_collision.ignored_pairs entries must be [name_a, name_b]");
      }
      c.ignored_pairs.emplace_back(entry[0].as<std::string>(), entry[1].as<std::string>());
    }
  }
  const YAML::Node bodies = s["bodies"];
  if (bodies.IsDefined()) {
    for (const auto& entry : bodies) {
      c.bodies.push_back(read_body(entry));
    }
  }
}

void validate(const SafetyConfig& config) {
  const SingularityProtectionConfig& sp = config.singularity_protection;
  const TrajectorySafetyConfig& ts = config.trajectory_safety;
  const SelfCollisionConfig& sc = config.self_collision;
  // Each rule tests the accepted range, so that a NaN (".nan" in YAML) is refused too.
  if (!(sp.jacobian_angular_scale_m > 0.0)) {
    throw std::runtime_error("singularity_protection.jacobian_angular_scale_m must be positive");
  }
  if (!(sp.yellow_min_speed_scale > 0.0 && sp.yellow_min_speed_scale <= 1.0)) {
    throw std::runtime_error("singularity_protection.yellow_min_speed_scale must be in (0, 1]");
  }
  if (ts.tracking_error_stop_cycles < 1) {
    throw std::runtime_error("trajectory_safety.tracking_error_stop_cycles must be positive");
  }
  if (!(ts.velocity_stop_scale >= ts.velocity_warn_scale &&
        ts.acceleration_stop_scale >= ts.acceleration_warn_scale &&
        ts.jerk_stop_scale >= ts.jerk_warn_scale)) {
    throw std::runtime_error("trajectory_safety stop scales must be >= warning scales");
  }
  if (!(sc.warn_distance_m >= sc.stop_distance_m)) {
    throw std::runtime_error("self_collision.warn_distance_m must be >= stop_distance_m");
  }
  for (const SelfCollisionConfig::Body& body : sc.bodies) {
    if (body.name.empty() || body.link.empty()) {
      throw std::runtime_error("self_collision.bodies entries require name and link");
    }
    if (body.type == "capsule") {
      if (!(body.radius > 0.0)) {
        throw std::runtime_error("self_collision capsule radius must be positive");
      }
    } else if (body.type == "box") {
      if (!(body.size[0] > 0.0 && body.size[1] > 0.0 && body.size[2] > 0.0)) {
        throw std::runtime_error("self_collision box size must be positive");
      }
    } else {
      throw std::runtime_error("self_collision body type must be capsule or box");
    }
  }
}

}  // namespace

SafetyConfig read_safety_config(const std::string& config_path) {
  SafetyConfig config;
  const YAML::Node root = YAML::LoadFile(config_path);
  read_singularity_protection(root["singularity_protection"], config.singularity_protection);
  read_trajectory_safety(root["trajectory_safety"], config.trajectory_safety);
  read_self_collision(root["self_collision"], config.self_collision);
  validate(config);
  return config;
}

SafetyConfig load_safety_config() {
  std::string path;
  try {
    path = resolve_robot_kinematics_config_path();
    return read_safety_config(path);
  } catch (const std::exception& e) {
    std::cerr << "Failed to load safety config at " << path << ": " << e.what() << std::endl;
  } catch (...) {
    std::cerr << "Failed to load safety config at " << path << ": unknown error" << std::endl;
  }
  std::exit(1);
}

}  // namespace kestrel::algorithms
