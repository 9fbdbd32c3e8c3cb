// Joint waypoint planning: a start posture and joint waypoints become a 400 Hz timeline of
// quintic segments (zero acceleration at every waypoint) whose durations respect the velocity,
// acceleration and jerk limits, plus its gripper timeline and its safety verdict.
#include <algorithm>
#include <cmath>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/algorithms/singularity.hpp"
#include "kestrel/controller/arm_controller_impl.hpp"

namespace ka = kestrel::algorithms;

namespace {

void require_finite_points(const std::vector<std::vector<double>>& points, const char* what) {
  for (const auto& p : points) {
    for (double v : p) {
      if (!std::isfinite(v)) {
        throw std::invalid_argument(std::string(what) + " must contain only finite values");
      }
    }
  }
}

}  // namespace

kestrel::controller::WaypointPlanSettings ArmController::Impl::planner_settings(
    double control_hz) const {
  kestrel::controller::WaypointPlanSettings settings;
  settings.control_hz = control_hz;
  settings.configuration_limits = {max_vel, max_acc, max_jerk};
  settings.enforce_time_mode_acc_limit = trajectory_config.enforce_time_mode_acc_limit;
  settings.enforce_time_mode_jerk_limit = trajectory_config.enforce_time_mode_jerk_limit;
  settings.continuous_waypoint_velocity = trajectory_config.continuous_waypoint_velocity;
  settings.max_motion_duration_sec = trajectory_config.max_motion_duration_sec;
  return settings;
}

std::vector<ArmController::Impl::Sample> ArmController::Impl::plan_joint_waypoint_trajectory(
    const JointArray& q_start, const std::vector<JointArray>& waypoints, const JointArray& vmax,
    const JointArray& amax, const JointArray& jmax, double time_sec, double control_hz,
    std::vector<double>* gripper_timeline_out,
    const std::vector<double>* point_gripper_targets) const {
  kestrel::controller::WaypointPlanRequest request;
  request.start.position = q_start;
  request.waypoints = waypoints;
  request.limits = {vmax, amax, jmax};
  request.time_sec = time_sec;
  const bool gripper = gripper_timeline_out != nullptr && point_gripper_targets != nullptr;
  if (gripper) {
    request.gripper_targets = *point_gripper_targets;
  }
  auto plan = kestrel::controller::JointWaypointPlanner(planner_settings(control_hz)).plan(request);
  if (gripper) {
    *gripper_timeline_out = std::move(plan.gripper);
  }
  return std::move(plan.samples);
}

ka::SafetyResult ArmController::Impl::evaluate_waypoint_trajectory_safety(
    const std::vector<Sample>& samples) {
  std::vector<bool> limit_enabled(joint_has_limits.begin(), joint_has_limits.end());
  std::vector<double> lower(joint_lower.begin(), joint_lower.end());
  std::vector<double> upper(joint_upper.begin(), joint_upper.end());
  std::vector<ka::SafetyResult> results;
  results.push_back(ka::check_joint_limit_margins(samples, lower, upper, limit_enabled,
                                                  safety_config.trajectory_safety));
  results.push_back(
      ka::assess_singularity(*kinematics, samples, safety_config.singularity_protection));
  results.push_back(ka::check_self_collision(*kinematics, samples, safety_config.self_collision));
  return ka::combine_safety_results(results);
}

ArmController::PlannedTrajectory ArmController::Impl::plan_joint_waypoints_with_gripper(
    const std::vector<double>& q_start, const std::vector<std::vector<double>>& waypoints,
    const std::vector<double>& gripper_positions, double time_sec, double speed_percent) {
  if (q_start.size() != kJoints) {
    throw std::invalid_argument("q_start must have exactly 6 joint values");
  }
  if (waypoints.empty()) {
    throw std::invalid_argument("waypoints must not be empty");
  }
  if (gripper_positions.size() != waypoints.size()) {
    throw std::invalid_argument("gripper_positions must have the same length as waypoints");
  }
  if (!std::isfinite(time_sec) || !std::isfinite(speed_percent)) {
    throw std::invalid_argument("time_sec and speed_percent must be finite");
  }
  if (speed_percent > 0.0 && time_sec > 0.0) {
    throw std::invalid_argument("speed_percent and time_sec are mutually exclusive; set only one");
  }
  double speed = 1.0;
  if (!(time_sec > 0.0)) {
    speed = speed_percent > 0.0 ? speed_percent : trajectory_config.default_speed_percent;
    if (!(speed > 0.0 && speed <= 1.0)) {
      throw std::invalid_argument("speed_percent must be in (0, 1]");
    }
  }
  for (const auto& w : waypoints) {
    if (w.size() != kJoints) {
      throw std::invalid_argument("each waypoint must have exactly 6 joint values");
    }
  }
  require_finite_points({q_start}, "q_start");
  require_finite_points(waypoints, "waypoints");
  require_finite_points({gripper_positions}, "gripper_positions");

  JointArray start{};
  for (int j = 0; j < kJoints; ++j) {
    start[j] = clamp_to_urdf_joint_limit(j, q_start[j]);
  }
  std::vector<JointArray> targets(waypoints.size());
  for (size_t k = 0; k < waypoints.size(); ++k) {
    for (int j = 0; j < kJoints; ++j) {
      targets[k][j] = clamp_to_urdf_joint_limit(j, waypoints[k][j]);
    }
  }
  JointArray vmax = max_vel;
  if (!(time_sec > 0.0)) {
    for (double& v : vmax) {
      v *= speed;
    }
  }
  std::vector<double> gripper_targets;
  gripper_targets.push_back(current_gripper_opening());
  for (double g : gripper_positions) {
    gripper_targets.push_back(g * gripper_stroke);
  }

  std::vector<double> gripper_timeline;
  const auto samples = plan_joint_waypoint_trajectory(start, targets, vmax, max_acc, max_jerk,
                                                      time_sec > 0.0 ? time_sec : 0.0, kControlHz,
                                                      &gripper_timeline, &gripper_targets);
  const auto verdict = evaluate_waypoint_trajectory_safety(samples);
  if (verdict.level == ka::SafetyLevel::stop) {
    throw std::runtime_error("[plan_joint_waypoints_with_gripper] " +
                             ka::format_safety_result(verdict));
  }
  PlannedTrajectory planned;
  planned.gripper = std::move(gripper_timeline);
  for (const auto& s : samples) {
    planned.positions.emplace_back(s.position.begin(), s.position.end());
    planned.velocities.emplace_back(s.velocity.begin(), s.velocity.end());
    planned.accelerations.emplace_back(s.acceleration.begin(), s.acceleration.end());
  }
  return planned;
}

double ArmController::Impl::current_gripper_opening() {
  double distance = 0.0;
  if (!try_get_latest_gripper_distance_state(distance)) {
    return 0.0;
  }
  return clamp(distance, 0.0, gripper_stroke);
}

ArmController::PlannedTrajectory ArmController::plan_joint_waypoints_with_gripper(
    const std::vector<double>& q_start, const std::vector<std::vector<double>>& waypoints,
    const std::vector<double>& gripper_positions, double time_sec, double speed_percent) {
  const CallScope scope(*this);
  return impl().plan_joint_waypoints_with_gripper(q_start, waypoints, gripper_positions, time_sec,
                                                  speed_percent);
}

SepticTrajectory generate_septuple_trajectory(const std::vector<double>& q_start,
                                              const std::vector<double>& q_end, double tf,
                                              double freq) {
  const bool per_joint = q_start.size() == 6 && q_end.size() == 6;
  const bool shared = q_start.size() == 1 && q_end.size() == 1;
  if (!per_joint && !shared) {
    throw std::invalid_argument("q_start/q_end length must be num_joints or 1");
  }
  if (!(tf > 0.0)) {
    throw std::invalid_argument("tf must be positive");
  }
  if (!(freq > 0.0)) {
    throw std::invalid_argument("freq must be positive");
  }
  const double dt = 1.0 / freq;
  const size_t n = std::max<size_t>(static_cast<size_t>(std::ceil(tf / dt)) + 1, 2);
  SepticTrajectory out;
  out.times.resize(n);
  for (size_t i = 0; i < n; ++i) {
    out.times[i] = std::min(static_cast<double>(i) * dt, tf);
  }
  for (int j = 0; j < 6; ++j) {
    const double q0 = q_start[per_joint ? j : 0];
    const double q1 = q_end[per_joint ? j : 0];
    const double D = q1 - q0;
    std::vector<double> position(n);
    std::vector<double> velocity(n);
    std::vector<double> acceleration(n);
    for (size_t i = 0; i < n; ++i) {
      const double s = out.times[i] / tf;
      const double s2 = s * s;
      const double s3 = s2 * s;
      const double s4 = s3 * s;
      position[i] =
          q0 + 35.0 * D * s4 - 84.0 * D * s4 * s + 70.0 * D * s4 * s2 - 20.0 * D * s4 * s3;
      velocity[i] = D * (140.0 * s3 - 420.0 * s4 + 420.0 * s4 * s - 140.0 * s4 * s2) / tf;
      acceleration[i] = D * (420.0 * s2 - 1680.0 * s3 + 2100.0 * s4 - 840.0 * s4 * s) / (tf * tf);
    }
    position[n - 1] = q1;  // exactly the end, at rest
    velocity[n - 1] = 0.0;
    acceleration[n - 1] = 0.0;
    out.positions.push_back(std::move(position));
    out.velocities.push_back(std::move(velocity));
    out.accelerations.push_back(std::move(acceleration));
  }
  return out;
}
