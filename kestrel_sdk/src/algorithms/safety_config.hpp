// The safety sections of "robot_kinematics.yaml": singularity protection, trajectory safety and
// self-collision. The controller loads them once at construction and keeps the copy for its
// whole life; the planning-time checks (trajectory_safety.hpp, singularity.hpp) and the control
// loop's watchdogs read that copy. Lengths are metres, angles radians; every field is named after
// its YAML key.
#pragma once

#include <array>
#include <string>
#include <utility>
#include <vector>

namespace kestrel::algorithms {

// Section "singularity_protection".
struct SingularityProtectionConfig {
  bool enabled = true;
  double wrist_target_abs_rad = 1.5707963267948966;  // |q5| of the wrist posture
  double wrist_warn_margin_rad = 0.2;
  double wrist_stop_margin_rad = 0.06;
  double shoulder_warn_radius_m = 0.08;  // wrist centre to base axis
  double shoulder_stop_radius_m = 0.03;
  double elbow_j3_target_rad = -2.912226;  // stretched elbow, matched with either sign of q3
  double elbow_j4_target_rad = -0.267559;
  double elbow_warn_radius_rad = 0.2;  // distance in (q3, q4)
  double elbow_stop_radius_rad = 0.07;
  double jacobian_warn_sigma_min = 0.025;  // smallest singular value of the scaled Jacobian
  double jacobian_stop_sigma_min = 0.008;
  double jacobian_warn_condition = 120.0;
  double jacobian_stop_condition = 350.0;
  double jacobian_angular_scale_m = 0.25;  // weight of the angular rows
  double yellow_min_speed_scale = 0.2;     // slowest speed a warning may ask for
};

// Section "trajectory_safety".
struct TrajectorySafetyConfig {
  bool enabled = true;
  // Decimal literals on purpose (about 10 and 3 degrees), not multiples of pi.
  double joint_limit_warn_margin_rad = 0.174533;
  double joint_limit_stop_margin_rad = 0.05236;
  double tracking_error_warn_rad = 0.1;
  double tracking_error_stop_rad = 0.25;
  int tracking_error_stop_cycles = 30;
  double velocity_warn_scale = 1.1;
  double velocity_stop_scale = 1.3;
  double acceleration_warn_scale = 1.2;
  double acceleration_stop_scale = 1.6;
  double jerk_warn_scale = 1.5;
  double jerk_stop_scale = 2.0;
  int derivative_stop_cycles = 8;
};

// Section "self_collision".
struct SelfCollisionConfig {
  // One collision body fixed to a URDF link ("base_link" or a child link of the first six
  // joints). A capsule uses p0, p1 and radius; a box uses center, size and rpy.
  struct Body {
    std::string name;
    std::string link;
    std::string type = "capsule";  // "capsule" or "box"
    std::array<double, 3> p0{};
    std::array<double, 3> p1{};
    double radius = 0.0;
    std::array<double, 3> center{};
    std::array<double, 3> size{};  // full edge lengths along the box's own axes
    std::array<double, 3> rpy{};   // box axes relative to the link frame
  };

  bool enabled = false;
  double warn_distance_m = 0.03;
  double stop_distance_m = 0.01;
  std::vector<std::pair<std::string, std::string>> ignored_pairs;  // never checked, either order
  std::vector<Body> bodies;
};

struct SafetyConfig {
  SingularityProtectionConfig singularity_protection;
  TrajectorySafetyConfig trajectory_safety;
  SelfCollisionConfig self_collision;
};

// Reads the three sections from the file that resolve_robot_kinematics_config_path() names. A
// missing section or key keeps its default. Any failure (file, YAML syntax, a value that does not
// convert, a failed validation) prints "Failed to load safety config at <path>: <reason>" as one
// line on standard error and ends the process with status 1: it never returns a partial
// configuration and never throws.
SafetyConfig load_safety_config();

// The same reading and validation from an explicitly named file, throwing instead of ending the
// process: std::runtime_error with the validation text, or yaml-cpp's own exception (file,
// syntax, conversion). For tools and tests.
SafetyConfig read_safety_config(const std::string& config_path);

}  // namespace kestrel::algorithms
