// Value types of joint motion planning: the state of the six joints at one instant and the limits
// a motion keeps.
#pragma once

#include <array>

namespace kestrel::controller {

using JointArray = std::array<double, 6>;

// Position (rad), velocity (rad/s) and acceleration (rad/s²) of the six joints, joint 1 first.
struct JointMotionState {
  JointArray position{};
  JointArray velocity{};
  JointArray acceleration{};
};

// Per-joint magnitude limits: velocity (rad/s), acceleration (rad/s²), jerk (rad/s³).
struct JointLimits {
  JointArray velocity{};
  JointArray acceleration{};
  JointArray jerk{};
};

}  // namespace kestrel::controller
