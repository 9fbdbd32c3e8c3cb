// Value types of joint motion planning: the state of the six joints at one instant and the limits
// a motion keeps.
#pragma once

#include <array>
#include <cstddef>

namespace kestrel::controller {

using JointArray = std::array<double, 6>;

// Position (rad), velocity (rad/s) and acceleration (rad/s²) of the six joints, joint 1 first.
struct JointMotionState {
  JointArray position{};
  JointArray velocity{};
  JointArray acceleration{};
};

// Whether any joint moves or accelerates.
inline bool in_motion(const JointMotionState& s) {
  for (std::size_t j = 0; j < s.velocity.size(); ++j) {
    if (s.velocity[j] != 0.0 || s.acceleration[j] != 0.0) {
      return true;
    }
  }
  return false;
}

// Per-joint magnitude limits: velocity (rad/s), acceleration (rad/s²), jerk (rad/s³).
struct JointLimits {
  JointArray velocity{};
  JointArray acceleration{};
  JointArray jerk{};
};

}  // namespace kestrel::controller
