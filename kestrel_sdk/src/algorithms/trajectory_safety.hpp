// Planning-time safety checks of a joint trajectory: the records they exchange with the planner,
// the joint-limit margin check, the self-collision check, and the merge of several verdicts into
// one. The singularity assessment, the third check the planner runs, is in singularity.hpp.
//
// The checks are pure and never throw: every finding, a bad configuration included, comes back
// as a SafetyResult. A stop ends a check at once; of the warnings only the first is kept.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kestrel/algorithms/safety_config.hpp"

class RobotKinematics;

namespace kestrel::algorithms {

// One planned sample at the control rate. The checks read `position` only.
struct WaypointTrajectorySample {
  std::array<double, 6> position{};      // rad, joint 1 first
  std::array<double, 6> velocity{};      // rad/s
  std::array<double, 6> acceleration{};  // rad/s^2
};

enum class SafetyLevel : uint32_t {
  ok = 0,       // nothing found
  warning = 1,  // may run, slowed to speed_scale
  stop = 2,     // must not run
};

struct SafetyResult {
  SafetyLevel level = SafetyLevel::ok;
  std::string code;     // machine-readable; empty for ok
  std::string message;  // human-readable; empty for ok
  std::size_t sample = 0;
  int joint = -1;            // 0..5, or -1 when not about one joint
  double value = 0.0;        // the measured quantity
  double threshold = 0.0;    // the configured level it was compared with
  double speed_scale = 1.0;  // 1 = full speed, 0 for stop
};

// Margin to the nearer joint limit of every checked joint of every sample. A joint is checked when
// its index is below limit_enabled.size() and its flag is set. Margin <= stop margin: stop
// "joint_limit_margin_stop"; <= warning margin: the first such sample and joint gives the warning
// "joint_limit_margin_warn" (speed scale 0.7). A position outside the limits is a stop.
SafetyResult check_joint_limit_margins(const std::vector<WaypointTrajectorySample>& samples,
                                       const std::vector<double>& lower,
                                       const std::vector<double>& upper,
                                       const std::vector<bool>& limit_enabled,
                                       const TrajectorySafetyConfig& config);

// Clearance between every unordered pair of configured bodies (ignored pairs skipped) at every
// sample, with link frames from the model's URDF joints (at most six). Clearance <= stop
// distance: stop "self_collision_stop"; <= warning distance: the first such pair gives the
// warning "self_collision_warn" (speed scale 0.5). Fewer than two bodies, a body on an unknown
// link or of an unknown type are stops as well.
SafetyResult check_self_collision(const RobotKinematics& kinematics,
                                  const std::vector<WaypointTrajectorySample>& samples,
                                  const SelfCollisionConfig& config);

// The first stop, whole; else the warning with the smallest speed scale (the earliest of equal
// ones); else the default result.
SafetyResult combine_safety_results(const std::vector<SafetyResult>& results);

// "<code>: <message> sample=<n> joint=<j> value=<v> threshold=<t> speed_scale=<s>", numbers as a
// default-formatted output stream writes them (six significant digits).
std::string format_safety_result(const SafetyResult& result);

}  // namespace kestrel::algorithms
