// The singularity detour: when a planned motion meets a singular posture between two waypoints,
// an extra waypoint in that segment can steer it around. The candidates are tried in order by the
// executing call; the first one whose re-planned motion is no longer refused is kept.
#include <algorithm>
#include <cmath>

#include "kestrel/controller/arm_controller_impl.hpp"

size_t ArmController::Impl::find_waypoint_segment_for_sample(const std::vector<long>& segment_steps,
                                                             size_t sample) {
  // Segment 0 holds samples 0..steps[0] (the start included); segment k the steps[k] samples
  // after the end of segment k-1.
  size_t end = 0;
  for (size_t k = 0; k < segment_steps.size(); ++k) {
    end += static_cast<size_t>(segment_steps[k]);
    if (sample <= end) {
      return k;
    }
  }
  return segment_steps.empty() ? 0 : segment_steps.size() - 1;
}

std::vector<ArmController::Impl::JointArray>
ArmController::Impl::build_singularity_avoidance_candidates(const JointArray& from,
                                                            const JointArray& to,
                                                            const JointArray& offending) const {
  const auto& c = safety_config.singularity_protection;
  std::vector<JointArray> candidates;
  auto add = [&](JointArray q) {
    for (int j = 0; j < kJoints; ++j) {
      q[j] = clamp_to_urdf_joint_limit(j, q[j]);
    }
    for (const auto& existing : candidates) {
      bool same = true;
      for (int j = 0; j < kJoints && same; ++j) {
        same = std::abs(existing[j] - q[j]) < 1e-9;
      }
      if (same) {
        return;
      }
    }
    candidates.push_back(q);
  };
  JointArray mid{};
  for (int j = 0; j < kJoints; ++j) {
    mid[j] = 0.5 * (from[j] + to[j]);
  }

  // Wrist (axes 4 and 6 aligned at |q5| = target): when both ends lie on the same side of the
  // singular band, pass the middle of the segment at the warning margin on that side. The
  // quintic segments overshoot between waypoints, which is how a motion whose waypoints all
  // keep their distance can still cross the band.
  const double target = c.wrist_target_abs_rad;
  const double side_from = std::abs(from[4]) - target;
  const double side_to = std::abs(to[4]) - target;
  const bool near_wrist = std::abs(std::abs(offending[4]) - target) <= c.wrist_warn_margin_rad;
  if (near_wrist && side_from * side_to > 0.0) {
    const double side = side_from > 0.0 ? 1.0 : -1.0;
    const double sign = (offending[4] != 0.0 ? offending[4] : mid[4]) < 0.0 ? -1.0 : 1.0;
    for (double margin :
         {c.wrist_warn_margin_rad, 0.5 * (c.wrist_warn_margin_rad + c.wrist_stop_margin_rad)}) {
      JointArray q = mid;
      q[4] = sign * std::max(target + side * margin, 0.0);
      add(q);
    }
  }

  // Stretched elbow: a disc in (q3, q4) around the stretched posture. Put the middle of the
  // segment on the disc's warning circle, straight out from it or around either side.
  const double e3 = (offending[2] < 0.0 ? -1.0 : 1.0) * std::abs(c.elbow_j3_target_rad);
  const double e4 = c.elbow_j4_target_rad;
  double d3 = mid[2] - e3;
  double d4 = mid[3] - e4;
  double length = std::hypot(d3, d4);
  if (length < 1e-6) {
    d3 = offending[2] - e3;
    d4 = offending[3] - e4;
    length = std::hypot(d3, d4);
  }
  if (length < 1e-6) {
    d3 = 1.0;
    d4 = 0.0;
    length = 1.0;
  }
  d3 /= length;
  d4 /= length;
  const double radius = c.elbow_warn_radius_rad;
  const bool near_elbow = std::hypot(offending[2] - e3, offending[3] - e4) <= radius;
  for (const auto& dir : {std::array<double, 2>{d3, d4}, std::array<double, 2>{-d4, d3},
                          std::array<double, 2>{d4, -d3}}) {
    if (!near_elbow) {
      break;
    }
    JointArray q = mid;
    q[2] = e3 + radius * dir[0];
    q[3] = e4 + radius * dir[1];
    add(q);
  }

  // The straight joint-space middle of the segment removes an overshoot of any kind.
  add(mid);

  // Otherwise nudge the offending posture joint by joint, shoulder, elbow and wrist pitch first.
  for (double step : {0.15, 0.3}) {
    for (int j : {1, 2, 4, 0, 3, 5}) {
      for (double sign : {1.0, -1.0}) {
        JointArray q = offending;
        q[j] += sign * step;
        add(q);
      }
    }
  }
  return candidates;
}
