// Online splice: how a new motion takes over a running one without a jump.
//
// The running command's state at the switch (position, velocity and acceleration per joint) is
// carried by a short transition into a state where the new motion can begin: every joint moving
// at its entry velocity with zero acceleration. Per joint, the acceleration is first ramped to
// zero at the jerk limit (the least velocity change a jerk-limited joint can make), then the
// velocity is eased to the entry velocity by a cubic blend that keeps the acceleration and jerk
// limits. The joints are synchronised: each stretches its blend so that all of them reach their
// entry velocities together, on a whole control period. Closed form and allocation-free: a
// transition costs well under a microsecond to plan.
//
//   JointSplice splice(configuration_limits, 0.0025);
//   const JointArray entry = splice.entry_velocity(running, first_waypoint, chunk_speed_limits,
//   T1); const SpliceTransition t = splice.plan(running, entry); JointMotionState s = t.at(0.01);
//   // ... t.at(t.duration) is where the new motion begins
#pragma once

#include "kestrel/controller/joint_motion.hpp"

namespace kestrel::controller {

// A planned transition. Per joint: an acceleration ramp of ramp_time[j] at ramp_jerk[j], then a
// velocity blend of velocity_change[j] over blend_time[j], then constant velocity.
struct SpliceTransition {
  JointMotionState start;
  JointArray ramp_time{};        // s
  JointArray ramp_jerk{};        // rad/s³, signed
  JointArray blend_time{};       // s; 0 where the velocity needs no change
  JointArray velocity_change{};  // rad/s, signed
  long steps = 0;                // whole control periods; 0 when the start needs no transition
  double duration = 0.0;         // steps × period, s

  // The state `t` seconds after the start; t is clamped into [0, duration].
  JointMotionState at(double t) const;
  JointMotionState end() const { return at(duration); }
};

class JointSplice {
 public:
  // `limits`: the limits the transition keeps (the configuration's); `period`: the control
  // period its duration is rounded up to. Both must be positive.
  JointSplice(const JointLimits& limits, double period);

  // Velocity of each joint once its acceleration has been ramped to zero at the jerk limit.
  JointArray coasting_velocity(const JointMotionState& from) const;

  // Entry velocities for a new motion whose first waypoint is `target` and whose first segment
  // would take `first_segment_sec` from rest: each joint keeps its coasting velocity where it
  // points towards its target, but no faster than `speed_limit` (the new motion's limits) nor
  // than the peak speed that first segment would have from rest (1.875 × distance / time), so
  // that the new motion neither breaks its limits nor overshoots its first waypoint; a joint
  // moving away from its target (or without a distance to go) enters at rest.
  JointArray entry_velocity(const JointMotionState& from, const JointArray& target,
                            const JointArray& speed_limit, double first_segment_sec) const;

  // The synchronised transition from `from` to the entry velocities `entry` (zero acceleration).
  // It keeps the jerk limit, the acceleration limit (or |from.acceleration| where that is
  // larger), and moves each joint's velocity monotonically from its start through its coasting
  // velocity to its entry velocity.
  SpliceTransition plan(const JointMotionState& from, const JointArray& entry) const;

  const JointLimits& limits() const { return limits_; }
  double period() const { return period_; }

 private:
  JointLimits limits_;
  double period_;
};

}  // namespace kestrel::controller
