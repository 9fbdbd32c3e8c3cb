// Joint waypoint planner: a start state and joint waypoints become a timeline with one sample per
// control period that passes through every waypoint and keeps the velocity, acceleration and
// jerk limits.
//
// Each segment between two points is a quintic in normalised time with zero acceleration at both
// ends. Waypoint velocities are zero at the ends, at reversals and at standstills, and the mean
// of the neighbouring differences elsewhere. In speed mode each segment takes the shortest whole
// number of periods its limits allow; in time mode the requested time is shared evenly between
// the segments and the result is checked against the limits. A start in motion (a new motion
// taking over a running one) is spliced in first: see JointSplice.
//
//   JointWaypointPlanner planner(settings);
//   WaypointPlanRequest request;
//   request.start.position = q_now;
//   request.waypoints = {q1, q2};
//   request.limits = limits;  // speed scaling is the caller's
//   const WaypointPlan plan = planner.plan(request);
#pragma once

#include <vector>

#include "kestrel/algorithms/trajectory_safety.hpp"
#include "kestrel/controller/joint_motion.hpp"

namespace kestrel::controller {

struct WaypointPlanSettings {
  double control_hz = 400.0;
  JointLimits configuration_limits;  // what a splice transition keeps
  bool enforce_time_mode_acc_limit = true;
  bool enforce_time_mode_jerk_limit = true;
  // false: waypoint velocities per unit of normalised segment time (the real velocity steps at
  // a waypoint between segments of different durations); true: continuous in real time.
  bool continuous_waypoint_velocity = false;
  double max_motion_duration_sec = 600.0;  // longer plans are refused before allocation
};

struct WaypointPlanRequest {
  JointMotionState start;               // at rest, or a running motion's state to splice from
  std::vector<JointArray> waypoints;    // clamped to the joint limits by the caller
  JointLimits limits;                   // the motion's limits (speed scaling is the caller's)
  double time_sec = 0.0;                // > 0: the whole motion takes this long
  std::vector<double> gripper_targets;  // empty, or the opening at the start and one per waypoint
};

struct WaypointPlan {
  std::vector<algorithms::WaypointTrajectorySample> samples;
  long transition_steps = 0;        // periods of the splice before the first segment
  std::vector<long> segment_steps;  // periods per waypoint segment
  std::vector<double> gripper;      // one opening per sample, when gripper targets were given
  JointLimits peaks;                // largest |velocity|, |acceleration|, |jerk| of the segments
  double duration() const {
    return samples.empty() ? 0.0 : static_cast<double>(samples.size() - 1) / control_hz;
  }
  double control_hz = 400.0;
};

class JointWaypointPlanner {
 public:
  explicit JointWaypointPlanner(const WaypointPlanSettings& settings);

  // Throws std::invalid_argument for a malformed request and std::runtime_error for a plan that
  // cannot be made (a time too short for its segments or its limits, a plan longer than
  // max_motion_duration_sec).
  WaypointPlan plan(const WaypointPlanRequest& request) const;

  const WaypointPlanSettings& settings() const { return settings_; }

 private:
  WaypointPlanSettings settings_;
};

}  // namespace kestrel::controller
