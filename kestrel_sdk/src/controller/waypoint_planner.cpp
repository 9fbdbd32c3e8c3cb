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

// One quintic segment in normalised time u in [0, 1]: positions p0, p1, velocities m0, m1 per
// unit u, zero second derivative at both ends.
struct Quintic {
  double p0, m0, a3, a4, a5;

  Quintic(double start, double end, double v0, double v1) : p0(start), m0(v0) {
    const double D = end - start - v0;
    const double E = v1 - v0;
    a3 = 10.0 * D - 4.0 * E;
    a4 = 7.0 * E - 15.0 * D;
    a5 = 6.0 * D - 3.0 * E;
  }
  double position(double u) const { return p0 + u * (m0 + u * u * (a3 + u * (a4 + u * a5))); }
  double velocity(double u) const {
    return m0 + u * u * (3.0 * a3 + u * (4.0 * a4 + u * 5.0 * a5));
  }
  double acceleration(double u) const { return u * (6.0 * a3 + u * (12.0 * a4 + u * 20.0 * a5)); }
  double jerk(double u) const { return 6.0 * a3 + u * (24.0 * a4 + u * 60.0 * a5); }
};

std::string format_list(const std::array<double, 6>& values) {
  std::ostringstream out;
  for (size_t i = 0; i < values.size(); ++i) {
    out << (i ? ", " : "") << values[i];
  }
  return out.str();
}

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

std::vector<ArmController::Impl::Sample> ArmController::Impl::plan_joint_waypoint_trajectory(
    const JointArray& q_start, const std::vector<JointArray>& waypoints, const JointArray& vmax,
    const JointArray& amax, const JointArray& jmax, double time_sec, double control_hz,
    std::vector<double>* gripper_timeline_out, const std::vector<double>* point_gripper_targets,
    const JointArray* start_velocity, std::vector<long>* segment_steps_out) const {
  std::vector<JointArray> points;
  points.reserve(waypoints.size() + 1);
  points.push_back(q_start);
  points.insert(points.end(), waypoints.begin(), waypoints.end());
  const bool gripper = gripper_timeline_out != nullptr && point_gripper_targets != nullptr;
  if (gripper && point_gripper_targets->size() != points.size()) {
    throw std::invalid_argument(
        "point_gripper_targets must contain current gripper plus one value per waypoint");
  }
  for (int j = 0; j < kJoints; ++j) {
    if (!(vmax[j] > 0.0 && amax[j] > 0.0 && jmax[j] > 0.0)) {
      throw std::invalid_argument("joint_trajectory max limits must be positive");
    }
  }

  // Waypoint velocities per unit of normalised segment time: zero at the ends, at reversals
  // and standstills; the mean of the neighbouring differences elsewhere.
  const size_t count = points.size();
  std::vector<JointArray> velocity(count, JointArray{});
  for (size_t k = 1; k + 1 < count; ++k) {
    for (int j = 0; j < kJoints; ++j) {
      const double d_prev = points[k][j] - points[k - 1][j];
      const double d_next = points[k + 1][j] - points[k][j];
      velocity[k][j] = d_prev * d_next <= 0.0 ? 0.0 : 0.5 * (d_prev + d_next);
    }
  }

  // Speed-bounded duration of every segment, rounded up to whole control periods.
  const size_t segments = count - 1;
  std::vector<double> duration(segments);
  auto bound_duration = [&](size_t k) {
    double T = 1.0 / control_hz;
    for (int j = 0; j < kJoints; ++j) {
      const Quintic q(points[k][j], points[k + 1][j], velocity[k][j], velocity[k + 1][j]);
      const double d = std::max({std::abs(points[k + 1][j] - points[k][j]),
                                 std::abs(velocity[k][j]), std::abs(velocity[k + 1][j])});
      T = std::max({T, d / vmax[j], std::sqrt(d / amax[j]), std::cbrt(d / jmax[j])});
      double peak_v = 0.0;
      double peak_a = 0.0;
      double peak_j = 0.0;
      for (int i = 0; i <= 64; ++i) {
        const double u = i / 64.0;
        peak_v = std::max(peak_v, std::abs(q.velocity(u)));
        peak_a = std::max(peak_a, std::abs(q.acceleration(u)));
        peak_j = std::max(peak_j, std::abs(q.jerk(u)));
      }
      if (peak_v > 0.0) {
        T = std::max(T, peak_v / vmax[j]);
      }
      if (peak_a > 0.0) {
        T = std::max(T, std::sqrt(peak_a / amax[j]));
      }
      if (peak_j > 0.0) {
        T = std::max(T, std::cbrt(peak_j / jmax[j]));
      }
    }
    return std::max(std::ceil(T * control_hz), 1.0) / control_hz;
  };
  // A chunk that takes over a running motion starts with that motion's velocity (rad/s): in
  // normalised time that is v·T, which depends on T, so settle T by a few fixed-point rounds
  // (T only grows, so this ends).
  auto set_start_velocity = [&](double T) {
    for (int j = 0; j < kJoints; ++j) {
      velocity[0][j] = (*start_velocity)[j] * T;
    }
  };
  for (size_t k = 0; k < segments; ++k) {
    duration[k] = bound_duration(k);
    if (k == 0 && start_velocity != nullptr) {
      for (int round = 0; round < 8; ++round) {
        set_start_velocity(duration[0]);
        const double T = bound_duration(0);
        if (T <= duration[0]) {
          break;
        }
        duration[0] = T;
      }
      set_start_velocity(duration[0]);
    }
  }

  // Steps per segment: the speed-bounded durations, or the requested time shared evenly.
  std::vector<long> steps(segments);
  const bool time_mode = time_sec > 0.0;
  if (!time_mode) {
    for (size_t k = 0; k < segments; ++k) {
      steps[k] = std::max(std::lround(duration[k] * control_hz), 1L);
    }
  } else {
    const long total = std::lround(time_sec * control_hz);
    if (total < static_cast<long>(segments)) {
      std::ostringstream msg;
      msg << "[move_joint_waypoints] requested time_sec=" << time_sec << " is too short for "
          << segments << " waypoint segments at " << control_hz
          << "Hz; minimum time_sec=" << static_cast<double>(segments) / control_hz;
      throw std::runtime_error(msg.str());
    }
    const long share = total / static_cast<long>(segments);
    const long extra = total % static_cast<long>(segments);
    for (size_t k = 0; k < segments; ++k) {
      steps[k] = share + (static_cast<long>(k) < extra ? 1 : 0);
      duration[k] = static_cast<double>(steps[k]) / control_hz;
    }
    if (start_velocity != nullptr) {
      set_start_velocity(duration[0]);
    }
  }

  if (segment_steps_out != nullptr) {
    *segment_steps_out = steps;
  }
  size_t total_samples = 1;
  for (long n : steps) {
    total_samples += static_cast<size_t>(n);
  }
  std::vector<Sample> samples;
  samples.reserve(total_samples);
  if (gripper) {
    gripper_timeline_out->clear();
    gripper_timeline_out->reserve(total_samples);
  }
  JointArray max_v{};
  JointArray max_a{};
  JointArray max_j{};
  for (size_t k = 0; k < segments; ++k) {
    std::array<Quintic, kJoints> shape = {
        Quintic(points[k][0], points[k + 1][0], velocity[k][0], velocity[k + 1][0]),
        Quintic(points[k][1], points[k + 1][1], velocity[k][1], velocity[k + 1][1]),
        Quintic(points[k][2], points[k + 1][2], velocity[k][2], velocity[k + 1][2]),
        Quintic(points[k][3], points[k + 1][3], velocity[k][3], velocity[k + 1][3]),
        Quintic(points[k][4], points[k + 1][4], velocity[k][4], velocity[k + 1][4]),
        Quintic(points[k][5], points[k + 1][5], velocity[k][5], velocity[k + 1][5])};
    const double T = duration[k];
    const long n = steps[k];
    for (long i = (k == 0 ? 0 : 1); i <= n; ++i) {
      const double u = static_cast<double>(i) / static_cast<double>(n);
      Sample s;
      for (int j = 0; j < kJoints; ++j) {
        s.position[j] = shape[j].position(u);
        s.velocity[j] = shape[j].velocity(u) / T;
        s.acceleration[j] = shape[j].acceleration(u) / (T * T);
        const double jerk = shape[j].jerk(u) / (T * T * T);
        max_v[j] = std::max(max_v[j], std::abs(s.velocity[j]));
        max_a[j] = std::max(max_a[j], std::abs(s.acceleration[j]));
        max_j[j] = std::max(max_j[j], std::abs(jerk));
      }
      samples.push_back(s);
      if (gripper) {
        const double g0 = (*point_gripper_targets)[k];
        const double g1 = (*point_gripper_targets)[k + 1];
        gripper_timeline_out->push_back(g0 + (g1 - g0) * u);
      }
    }
  }

  if (ka::motion_planning_debug_enabled()) {
    std::cerr << "[DEBUG][move_joint_waypoints] planned samples=" << samples.size()
              << ", duration_s=" << static_cast<double>(samples.size() - 1) / control_hz
              << ", actual_max_vel=[" << format_list(max_v) << "], actual_max_acc=["
              << format_list(max_a) << "], actual_max_jerk=[" << format_list(max_j) << "]"
              << std::endl;
  }

  if (time_mode) {
    // The even time share ignores the segments' lengths: check what it made of them.
    const bool enforce_acc = trajectory_config.enforce_time_mode_acc_limit;
    const bool enforce_jerk = trajectory_config.enforce_time_mode_jerk_limit;
    for (int j = 0; j < kJoints; ++j) {
      if (max_v[j] > vmax[j] * 1.001 || (enforce_acc && max_a[j] > amax[j] * 1.001) ||
          (enforce_jerk && max_j[j] > jmax[j] * 1.001)) {
        std::ostringstream msg;
        msg << std::boolalpha << "[move_joint_waypoints] requested time_sec=" << time_sec
            << " exceeds joint " << (j + 1) << " trajectory limits: vmax " << max_v[j] << "/"
            << vmax[j] << ", amax " << max_a[j] << "/" << amax[j] << " (enforce=" << enforce_acc
            << ")"
            << ", jmax " << max_j[j] << "/" << jmax[j] << " (enforce=" << enforce_jerk << ")";
        throw std::runtime_error(msg.str());
      }
    }
  }
  return samples;
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
