#include "kestrel/controller/joint_splice.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace kestrel::controller {

namespace {

constexpr int kJoints = 6;
// A rest-to-rest quintic segment peaks at 15/8 of its mean speed.
constexpr double kQuinticPeakSpeed = 1.875;
// Velocity changes below this are none: they only stretch a transition by rounding.
constexpr double kNegligibleVelocity = 1e-12;

// Shortest cubic blend of the velocity by `change` within the acceleration and jerk limits:
// v = v0 + change·(3s² − 2s³) peaks at 1.5·change/T in acceleration and 6·change/T² in jerk.
double shortest_blend(double change, double acceleration_limit, double jerk_limit) {
  const double c = std::abs(change);
  if (c < kNegligibleVelocity) {
    return 0.0;
  }
  return std::max(1.5 * c / acceleration_limit, std::sqrt(6.0 * c / jerk_limit));
}

}  // namespace

JointMotionState SpliceTransition::at(double t) const {
  t = std::clamp(t, 0.0, duration);
  JointMotionState s;
  for (int j = 0; j < kJoints; ++j) {
    const double p0 = start.position[j];
    const double v0 = start.velocity[j];
    const double a0 = start.acceleration[j];
    const double jr = ramp_jerk[j];
    const double tr = ramp_time[j];
    if (t < tr) {
      s.position[j] = p0 + t * (v0 + t * (0.5 * a0 + t * jr / 6.0));
      s.velocity[j] = v0 + t * (a0 + 0.5 * jr * t);
      s.acceleration[j] = a0 + jr * t;
      continue;
    }
    // End of the ramp: acceleration zero.
    const double pr = p0 + tr * (v0 + tr * (0.5 * a0 + tr * jr / 6.0));
    const double vr = v0 + tr * (a0 + 0.5 * jr * tr);
    const double dt = t - tr;
    const double tb = blend_time[j];
    const double dv = velocity_change[j];
    if (tb > 0.0 && dt < tb) {
      const double u = dt / tb;
      s.position[j] = pr + vr * dt + dv * tb * u * u * u * (1.0 - 0.5 * u);
      s.velocity[j] = vr + dv * u * u * (3.0 - 2.0 * u);
      s.acceleration[j] = dv * 6.0 * u * (1.0 - u) / tb;
      continue;
    }
    const double blended = tb > 0.0 ? dv : 0.0;
    const double pb = pr + vr * tb + 0.5 * blended * tb;
    const double vb = vr + blended;
    s.position[j] = pb + vb * (dt - tb);
    s.velocity[j] = vb;
    s.acceleration[j] = 0.0;
  }
  return s;
}

JointSplice::JointSplice(const JointLimits& limits, double period)
    : limits_(limits), period_(period) {
  for (int j = 0; j < kJoints; ++j) {
    if (!(limits.acceleration[j] > 0.0 && limits.jerk[j] > 0.0 && limits.velocity[j] > 0.0)) {
      throw std::invalid_argument("joint_trajectory max limits must be positive");
    }
  }
  if (!(period > 0.0) || !std::isfinite(period)) {
    throw std::invalid_argument("control period must be positive");
  }
}

JointArray JointSplice::coasting_velocity(const JointMotionState& from) const {
  JointArray v{};
  for (int j = 0; j < kJoints; ++j) {
    const double a = from.acceleration[j];
    v[j] = from.velocity[j] + a * std::abs(a) / (2.0 * limits_.jerk[j]);
  }
  return v;
}

JointArray JointSplice::entry_velocity(const JointMotionState& from, const JointArray& target,
                                       const JointArray& speed_limit,
                                       double first_segment_sec) const {
  const JointArray coasting = coasting_velocity(from);
  JointArray entry{};
  for (int j = 0; j < kJoints; ++j) {
    const double distance = target[j] - from.position[j];
    const double c = coasting[j];
    if (c * distance <= 0.0) {
      continue;  // moving away, or nowhere to go: brake to rest first
    }
    double cap = speed_limit[j];
    if (first_segment_sec > 0.0) {
      cap = std::min(cap, kQuinticPeakSpeed * std::abs(distance) / first_segment_sec);
    }
    entry[j] = std::copysign(std::min(std::abs(c), cap), c);
  }
  return entry;
}

SpliceTransition JointSplice::plan(const JointMotionState& from, const JointArray& entry) const {
  SpliceTransition t;
  t.start = from;
  double longest = 0.0;
  JointArray shortest{};
  for (int j = 0; j < kJoints; ++j) {
    const double a0 = from.acceleration[j];
    const double jerk = limits_.jerk[j];
    t.ramp_time[j] = std::abs(a0) / jerk;
    t.ramp_jerk[j] = a0 > 0.0 ? -jerk : (a0 < 0.0 ? jerk : 0.0);
    const double coasting = from.velocity[j] + 0.5 * a0 * t.ramp_time[j];
    t.velocity_change[j] = entry[j] - coasting;
    // A ramp steeper than the acceleration limit (a start beyond it) still eases at its own
    // acceleration at most.
    const double acceleration_limit = std::max(limits_.acceleration[j], std::abs(a0));
    shortest[j] = shortest_blend(t.velocity_change[j], acceleration_limit, jerk);
    longest = std::max(longest, t.ramp_time[j] + shortest[j]);
  }
  if (longest <= 0.0) {
    return t;  // at its entry velocity already, with no acceleration
  }
  t.steps = std::max(1L, static_cast<long>(std::ceil(longest / period_ - 1e-9)));
  t.duration = static_cast<double>(t.steps) * period_;
  // Synchronised: every blend ends at the transition's end. Stretching a blend only lowers its
  // acceleration and jerk.
  for (int j = 0; j < kJoints; ++j) {
    if (shortest[j] > 0.0) {
      t.blend_time[j] = std::max(t.duration - t.ramp_time[j], shortest[j]);
    } else {
      t.velocity_change[j] = 0.0;
    }
  }
  return t;
}

}  // namespace kestrel::controller
