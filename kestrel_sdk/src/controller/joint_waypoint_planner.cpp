#include "kestrel/controller/joint_waypoint_planner.hpp"

#include <algorithm>
#include <cmath>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/controller/joint_splice.hpp"

namespace kestrel::controller {

namespace {

constexpr int kJoints = 6;
using Sample = algorithms::WaypointTrajectorySample;

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

// Largest |p'|, |p''|, |p'''| of a segment, per unit u, over 65 evenly spaced points.
struct UnitPeaks {
  double velocity = 0.0;
  double acceleration = 0.0;
  double jerk = 0.0;
};
UnitPeaks unit_peaks(const Quintic& q) {
  UnitPeaks p;
  for (int i = 0; i <= 64; ++i) {
    const double u = i / 64.0;
    p.velocity = std::max(p.velocity, std::abs(q.velocity(u)));
    p.acceleration = std::max(p.acceleration, std::abs(q.acceleration(u)));
    p.jerk = std::max(p.jerk, std::abs(q.jerk(u)));
  }
  return p;
}

// Exact largest |p'|, |p''| and |p'''| of a segment over u in [0, 1]: each is a polynomial whose
// extremes lie at the ends or where the next derivative vanishes (a quadratic or linear root).
UnitPeaks exact_unit_peaks(const Quintic& q) {
  UnitPeaks p;
  auto consider = [&](double u) {
    if (u >= 0.0 && u <= 1.0) {
      p.velocity = std::max(p.velocity, std::abs(q.velocity(u)));
      p.acceleration = std::max(p.acceleration, std::abs(q.acceleration(u)));
      p.jerk = std::max(p.jerk, std::abs(q.jerk(u)));
    }
  };
  // The real roots of a u^2 + b u + c.
  auto roots = [&](double a, double b, double c) {
    if (a == 0.0) {
      if (b != 0.0) {
        consider(-c / b);
      }
      return;
    }
    const double d = b * b - 4.0 * a * c;
    if (d < 0.0) {
      return;
    }
    const double r = std::sqrt(d);
    consider((-b + r) / (2.0 * a));
    consider((-b - r) / (2.0 * a));
  };
  consider(0.0);
  consider(1.0);
  roots(20.0 * q.a5, 12.0 * q.a4, 6.0 * q.a3);  // p'' = u (6 a3 + 12 a4 u + 20 a5 u^2)
  roots(60.0 * q.a5, 24.0 * q.a4, 6.0 * q.a3);  // p''' = 6 a3 + 24 a4 u + 60 a5 u^2
  roots(0.0, 120.0 * q.a5, 24.0 * q.a4);        // p'''' = 24 a4 + 120 a5 u
  return p;
}

// A segment end's tangent: per unit of normalised time, or a real velocity (rad/s) that becomes
// velocity × T once the segment's duration T is known.
struct Tangent {
  JointArray value{};
  bool real = false;
  double at(int joint, double T) const { return real ? value[joint] * T : value[joint]; }
};

std::string format_list(const JointArray& values) {
  std::ostringstream out;
  for (size_t i = 0; i < values.size(); ++i) {
    out << (i ? ", " : "") << values[i];
  }
  return out.str();
}

[[noreturn]] void refuse_too_long(double seconds, double limit, bool at_least) {
  std::ostringstream msg;
  msg << "[move_joint_waypoints] planned motion lasts " << (at_least ? "more than " : "") << seconds
      << " s, longer than joint_trajectory.max_motion_duration_sec=" << limit;
  throw std::runtime_error(msg.str());
}

// Waypoint tangents per unit of normalised segment time: zero at the ends, at reversals and
// standstills; the mean of the neighbouring differences elsewhere.
std::vector<JointArray> waypoint_tangents(const std::vector<JointArray>& points) {
  std::vector<JointArray> m(points.size(), JointArray{});
  for (size_t k = 1; k + 1 < points.size(); ++k) {
    for (int j = 0; j < kJoints; ++j) {
      const double d_prev = points[k][j] - points[k - 1][j];
      const double d_next = points[k + 1][j] - points[k][j];
      m[k][j] = d_prev * d_next <= 0.0 ? 0.0 : 0.5 * (d_prev + d_next);
    }
  }
  return m;
}

// Speed-bounded duration of a segment with tangents per unit u, in closed form: coarse bounds
// from the largest of distance and tangents, fine bounds from the sampled peaks, rounded up to
// whole periods.
double bounded_duration(const JointArray& p0, const JointArray& p1, const JointArray& m0,
                        const JointArray& m1, const JointLimits& limits, double hz) {
  double T = 1.0 / hz;
  for (int j = 0; j < kJoints; ++j) {
    const Quintic q(p0[j], p1[j], m0[j], m1[j]);
    const double d = std::max({std::abs(p1[j] - p0[j]), std::abs(m0[j]), std::abs(m1[j])});
    T = std::max({T, d / limits.velocity[j], std::sqrt(d / limits.acceleration[j]),
                  std::cbrt(d / limits.jerk[j])});
    const UnitPeaks peak = unit_peaks(q);
    if (peak.velocity > 0.0) {
      T = std::max(T, peak.velocity / limits.velocity[j]);
    }
    if (peak.acceleration > 0.0) {
      T = std::max(T, std::sqrt(peak.acceleration / limits.acceleration[j]));
    }
    if (peak.jerk > 0.0) {
      T = std::max(T, std::cbrt(peak.jerk / limits.jerk[j]));
    }
  }
  return std::max(std::ceil(T * hz), 1.0) / hz;
}

// Whether a segment with these tangents keeps the limits at duration T.
bool segment_fits(const JointArray& p0, const JointArray& p1, const Tangent& t0, const Tangent& t1,
                  const JointLimits& limits, double T) {
  constexpr double kSlack = 1.0 + 1e-9;
  for (int j = 0; j < kJoints; ++j) {
    const UnitPeaks peak = exact_unit_peaks(Quintic(p0[j], p1[j], t0.at(j, T), t1.at(j, T)));
    if (peak.velocity / T > limits.velocity[j] * kSlack ||
        peak.acceleration / (T * T) > limits.acceleration[j] * kSlack ||
        peak.jerk / (T * T * T) > limits.jerk[j] * kSlack) {
      return false;
    }
  }
  return true;
}

// Fewest periods for a segment whose tangents scale with its duration (a real velocity at an
// end), by its exact peaks: doubling from the distance bound, then bisection. At most about 40
// trials, whatever the speeds; a segment that fits in no duration up to `max_steps` is refused.
long shortest_fitting_steps(const JointArray& p0, const JointArray& p1, const Tangent& t0,
                            const Tangent& t1, const JointLimits& limits, double hz,
                            long max_steps) {
  double lower = 0.0;
  for (int j = 0; j < kJoints; ++j) {
    lower = std::max(lower, std::abs(p1[j] - p0[j]) / limits.velocity[j]);
  }
  auto fits = [&](long n) {
    return segment_fits(p0, p1, t0, t1, limits, static_cast<double>(n) / hz);
  };
  long good = std::max(1L, static_cast<long>(std::floor(lower * hz)));
  if (good > max_steps) {
    refuse_too_long(static_cast<double>(good) / hz, static_cast<double>(max_steps) / hz, true);
  }
  if (fits(good)) {
    return good;
  }
  long bad = good;
  for (;;) {
    good = bad * 2;
    if (good > max_steps) {
      if (!fits(max_steps)) {
        refuse_too_long(static_cast<double>(max_steps) / hz, static_cast<double>(max_steps) / hz,
                        true);
      }
      good = max_steps;
      break;
    }
    if (fits(good)) {
      break;
    }
    bad = good;
  }
  while (good - bad > 1) {
    const long mid = bad + (good - bad) / 2;
    (fits(mid) ? good : bad) = mid;
  }
  return good;
}

}  // namespace

JointWaypointPlanner::JointWaypointPlanner(const WaypointPlanSettings& settings)
    : settings_(settings) {
  if (!(settings.control_hz > 0.0) || !std::isfinite(settings.control_hz)) {
    throw std::invalid_argument("control_hz must be positive");
  }
}

WaypointPlan JointWaypointPlanner::plan(const WaypointPlanRequest& r) const {
  const double hz = settings_.control_hz;
  const double period = 1.0 / hz;
  const double max_duration = settings_.max_motion_duration_sec;
  const long max_steps = static_cast<long>(std::min(max_duration * hz, 1e15));
  if (r.waypoints.empty()) {
    throw std::invalid_argument("waypoints must not be empty");
  }
  const bool gripper = !r.gripper_targets.empty();
  if (gripper && r.gripper_targets.size() != r.waypoints.size() + 1) {
    throw std::invalid_argument(
        "point_gripper_targets must contain current gripper plus one value per waypoint");
  }
  for (int j = 0; j < kJoints; ++j) {
    if (!(r.limits.velocity[j] > 0.0 && r.limits.acceleration[j] > 0.0 && r.limits.jerk[j] > 0.0)) {
      throw std::invalid_argument("joint_trajectory max limits must be positive");
    }
  }
  const bool time_mode = r.time_sec > 0.0;
  const size_t segments = r.waypoints.size();
  if (time_mode && r.time_sec > max_duration) {
    refuse_too_long(r.time_sec, max_duration, false);
  }
  const long requested_steps = time_mode ? std::lround(r.time_sec * hz) : 0;

  std::vector<JointArray> points;
  points.reserve(segments + 1);
  points.push_back(r.start.position);
  points.insert(points.end(), r.waypoints.begin(), r.waypoints.end());
  std::vector<JointArray> tangents = waypoint_tangents(points);

  WaypointPlan plan;
  plan.control_hz = hz;

  // A start in motion: splice it into a state the first segment can begin from.
  SpliceTransition transition;
  JointArray start_velocity{};
  const bool moving = in_motion(r.start);
  if (moving) {
    const JointSplice splice(settings_.configuration_limits, period);
    const double first_segment =
        time_mode
            ? static_cast<double>(std::max(requested_steps / static_cast<long>(segments), 1L)) / hz
            : bounded_duration(points[0], points[1], tangents[0], tangents[1], r.limits, hz);
    const JointArray entry =
        splice.entry_velocity(r.start, points[1], r.limits.velocity, first_segment);
    transition = splice.plan(r.start, entry);
    const JointMotionState end = transition.end();
    points[0] = end.position;
    start_velocity = end.velocity;
    tangents = waypoint_tangents(points);
    plan.transition_steps = transition.steps;
  }

  // Durations: speed-bounded per segment, or the requested time shared evenly.
  std::vector<double> duration(segments);
  std::vector<long> steps(segments);
  if (!time_mode) {
    for (size_t k = 0; k < segments; ++k) {
      duration[k] =
          bounded_duration(points[k], points[k + 1], tangents[k], tangents[k + 1], r.limits, hz);
      if (duration[k] > max_duration) {
        refuse_too_long(duration[k], max_duration, false);
      }
    }
  } else {
    const long total = requested_steps - plan.transition_steps;
    if (total < static_cast<long>(segments)) {
      std::ostringstream msg;
      msg << "[move_joint_waypoints] requested time_sec=" << r.time_sec << " is too short for "
          << segments << " waypoint segments at " << hz << "Hz; minimum time_sec="
          << static_cast<double>(static_cast<long>(segments) + plan.transition_steps) / hz;
      throw std::runtime_error(msg.str());
    }
    const long share = total / static_cast<long>(segments);
    const long extra = total % static_cast<long>(segments);
    for (size_t k = 0; k < segments; ++k) {
      steps[k] = share + (static_cast<long>(k) < extra ? 1 : 0);
      duration[k] = static_cast<double>(steps[k]) / hz;
    }
  }

  // Each segment's end tangents: per unit u as planned, or real velocities where the motion
  // must be continuous in real time (the splice's entry, every waypoint when configured).
  const bool continuous = settings_.continuous_waypoint_velocity;
  std::vector<Tangent> ends(segments + 1);
  for (size_t k = 0; k <= segments; ++k) {
    ends[k].value = tangents[k];
    if (continuous && k > 0 && k < segments) {
      ends[k].real = true;
      for (int j = 0; j < kJoints; ++j) {
        ends[k].value[j] = 2.0 * tangents[k][j] / (duration[k - 1] + duration[k]);
      }
    }
  }
  if (moving) {
    ends[0].value = start_velocity;
    ends[0].real = true;
  }
  for (size_t k = 0; k < segments; ++k) {
    if (time_mode) {
      continue;
    }
    if (ends[k].real || ends[k + 1].real) {
      steps[k] = shortest_fitting_steps(points[k], points[k + 1], ends[k], ends[k + 1], r.limits,
                                        hz, max_steps);
      duration[k] = static_cast<double>(steps[k]) / hz;
    } else {
      steps[k] = std::max(std::lround(duration[k] * hz), 1L);
    }
  }

  // The whole length is known before anything is allocated.
  long total_steps = plan.transition_steps;
  for (long n : steps) {
    total_steps += n;
  }
  if (static_cast<double>(total_steps) / hz > max_duration) {
    refuse_too_long(static_cast<double>(total_steps) / hz, max_duration, false);
  }
  plan.segment_steps = steps;
  const size_t total_samples = static_cast<size_t>(total_steps) + 1;
  plan.samples.reserve(total_samples);
  if (gripper) {
    plan.gripper.reserve(total_samples);
  }

  for (long i = 0; i < plan.transition_steps; ++i) {
    const JointMotionState s = transition.at(static_cast<double>(i) * period);
    plan.samples.push_back({s.position, s.velocity, s.acceleration});
    if (gripper) {
      plan.gripper.push_back(r.gripper_targets.front());
    }
  }
  JointLimits& peak = plan.peaks;
  for (size_t k = 0; k < segments; ++k) {
    const double T = duration[k];
    const long n = steps[k];
    std::array<Quintic, kJoints> shape = {
        Quintic(points[k][0], points[k + 1][0], ends[k].at(0, T), ends[k + 1].at(0, T)),
        Quintic(points[k][1], points[k + 1][1], ends[k].at(1, T), ends[k + 1].at(1, T)),
        Quintic(points[k][2], points[k + 1][2], ends[k].at(2, T), ends[k + 1].at(2, T)),
        Quintic(points[k][3], points[k + 1][3], ends[k].at(3, T), ends[k + 1].at(3, T)),
        Quintic(points[k][4], points[k + 1][4], ends[k].at(4, T), ends[k + 1].at(4, T)),
        Quintic(points[k][5], points[k + 1][5], ends[k].at(5, T), ends[k + 1].at(5, T))};
    for (long i = (k == 0 ? 0 : 1); i <= n; ++i) {
      const double u = static_cast<double>(i) / static_cast<double>(n);
      Sample s;
      for (int j = 0; j < kJoints; ++j) {
        s.position[j] = shape[j].position(u);
        s.velocity[j] = shape[j].velocity(u) / T;
        s.acceleration[j] = shape[j].acceleration(u) / (T * T);
        const double jerk = shape[j].jerk(u) / (T * T * T);
        peak.velocity[j] = std::max(peak.velocity[j], std::abs(s.velocity[j]));
        peak.acceleration[j] = std::max(peak.acceleration[j], std::abs(s.acceleration[j]));
        peak.jerk[j] = std::max(peak.jerk[j], std::abs(jerk));
      }
      plan.samples.push_back(s);
      if (gripper) {
        const double g0 = r.gripper_targets[k];
        const double g1 = r.gripper_targets[k + 1];
        plan.gripper.push_back(g0 + (g1 - g0) * u);
      }
    }
  }

  if (algorithms::motion_planning_debug_enabled()) {
    std::cerr << "[DEBUG][move_joint_waypoints] planned samples=" << plan.samples.size()
              << ", duration_s=" << plan.duration() << ", actual_max_vel=["
              << format_list(peak.velocity) << "], actual_max_acc=["
              << format_list(peak.acceleration) << "], actual_max_jerk=[" << format_list(peak.jerk)
              << "]" << std::endl;
  }

  if (time_mode) {
    // The even time share ignores the segments' lengths: check what it made of them.
    const bool enforce_acc = settings_.enforce_time_mode_acc_limit;
    const bool enforce_jerk = settings_.enforce_time_mode_jerk_limit;
    const JointLimits& lim = r.limits;
    for (int j = 0; j < kJoints; ++j) {
      if (peak.velocity[j] > lim.velocity[j] * 1.001 ||
          (enforce_acc && peak.acceleration[j] > lim.acceleration[j] * 1.001) ||
          (enforce_jerk && peak.jerk[j] > lim.jerk[j] * 1.001)) {
        std::ostringstream msg;
        msg << std::boolalpha << "[move_joint_waypoints] requested time_sec=" << r.time_sec
            << " exceeds joint " << (j + 1) << " trajectory limits: vmax " << peak.velocity[j]
            << "/" << lim.velocity[j] << ", amax " << peak.acceleration[j] << "/"
            << lim.acceleration[j] << " (enforce=" << enforce_acc << ")"
            << ", jmax " << peak.jerk[j] << "/" << lim.jerk[j] << " (enforce=" << enforce_jerk
            << ")";
        throw std::runtime_error(msg.str());
      }
    }
  }
  return plan;
}

}  // namespace kestrel::controller
