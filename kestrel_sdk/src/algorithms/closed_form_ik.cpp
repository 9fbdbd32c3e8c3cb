#include "kestrel/algorithms/closed_form_ik.hpp"

#include <Eigen/LU>
#include <algorithm>
#include <cmath>
#include <sstream>

namespace kestrel::algorithms {
namespace {

constexpr double kPi = 3.14159265358979323846;
// Below this the pieces of a subproblem are treated as zero: a vector on its rotation axis (a
// continuum of solutions), or a circle of zero radius.
constexpr double kDegenerate = 1e-9;
// Rounding may carry the cosine of a double root (elbow stretched, target on the edge of the
// workspace) a hair beyond one; farther than this the pose is out of reach.
constexpr double kCosineSlack = 1e-9;
// Closer to the shoulder singularity than this (m), the seed's joint-1 value is offered too: it
// stands for the continuum that the exact singularity would have.
constexpr double kNearShoulderSingularity = 1e-6;
// Wrist axes 4 and 6 this close to one line (sine of the angle) count as aligned: rounding
// keeps an exactly singular wrist a hair away from it, and the polish that follows the solver
// removes what the family's formula leaves off a nearly singular one.
constexpr double kNearWristSingularity = 1e-6;

double wrap(double a) {
  return std::remainder(a, 2.0 * kPi);
}

// The angle that turns `from` about the unit axis `w` onto the direction of `to`, both seen in
// the plane normal to w.
double turn_onto(const Eigen::Vector3d& w, const Eigen::Vector3d& from, const Eigen::Vector3d& to) {
  const Eigen::Vector3d a = from - w * w.dot(from);
  const Eigen::Vector3d b = to - w * w.dot(to);
  return std::atan2(w.dot(a.cross(b)), a.dot(b));
}

double distance_to_line(const Eigen::Vector3d& x, const Eigen::Vector3d& w,
                        const Eigen::Vector3d& p) {
  const Eigen::Vector3d d = x - p;
  return (d - w * w.dot(d)).norm();
}

// The acos of `c` with rounding slack; false when |c| is beyond it.
bool slack_acos(double c, double& angle) {
  if (std::abs(c) > 1.0 + kCosineSlack) {
    return false;
  }
  angle = std::acos(std::clamp(c, -1.0, 1.0));
  return true;
}

}  // namespace

ClosedFormIk::ClosedFormIk(const ScrewChain& chain, double tolerance) {
  available_ = detect(chain, tolerance);
  if (available_) {
    reason_.clear();
  }
}

bool ClosedFormIk::detect(const ScrewChain& chain, double tolerance) {
  std::ostringstream why;
  if (chain.size() != 6) {
    why << "the arm has " << chain.size() << " movable joints, not 6";
    reason_ = why.str();
    return false;
  }
  for (int i = 0; i < 6; ++i) {
    const auto& axis = chain.axes()[static_cast<size_t>(i)];
    if (axis.prismatic) {
      why << "joint " << (i + 1) << " is prismatic";
      reason_ = why.str();
      return false;
    }
    w_[static_cast<size_t>(i)] = axis.direction.normalized();
    p_[static_cast<size_t>(i)] = axis.point;
  }
  // The point nearest the three wrist axes, by least squares.
  Eigen::Matrix3d A = Eigen::Matrix3d::Zero();
  Eigen::Vector3d b = Eigen::Vector3d::Zero();
  for (size_t i = 3; i < 6; ++i) {
    const Eigen::Matrix3d P = Eigen::Matrix3d::Identity() - w_[i] * w_[i].transpose();
    A += P;
    b += P * p_[i];
  }
  const double sin45 = w_[3].cross(w_[4]).norm();
  const double sin56 = w_[4].cross(w_[5]).norm();
  if (sin45 < 1e-3 || sin56 < 1e-3) {
    reason_ = "no spherical wrist: two consecutive wrist axes (4-5 or 5-6) are parallel";
    return false;
  }
  wrist_centre_ = A.fullPivLu().solve(b);
  double miss = 0.0;
  for (size_t i = 3; i < 6; ++i) {
    miss = std::max(miss, distance_to_line(wrist_centre_, w_[i], p_[i]));
  }
  if (miss > tolerance) {
    why << "no spherical wrist: axes 4, 5 and 6 miss a common point by " << miss << " m";
    reason_ = why.str();
    return false;
  }
  const double sin23 = w_[1].cross(w_[2]).norm();
  if (sin23 > tolerance) {
    why << "axes 2 and 3 are not parallel (" << std::asin(std::min(sin23, 1.0)) << " rad apart)";
    reason_ = why.str();
    return false;
  }
  if (w_[0].cross(w_[1]).norm() < 1e-3) {
    reason_ = "axis 1 is parallel to axes 2 and 3";
    return false;
  }
  if (distance_to_line(p_[2], w_[1], p_[1]) < tolerance) {
    reason_ = "axes 2 and 3 are one line";
    return false;
  }
  if (distance_to_line(wrist_centre_, w_[2], p_[2]) < tolerance) {
    reason_ = "the wrist centre lies on axis 3";
    return false;
  }
  // Axes 2 and 3 taken as exactly parallel from here on.
  w_[2] = w_[2].dot(w_[1]) >= 0.0 ? w_[1] : Eigen::Vector3d(-w_[1]);
  wrist_in_tool_ = chain.tcp_at_zero().inverse() * wrist_centre_;
  tool_rotation_at_zero_ = chain.tcp_at_zero().linear();
  shoulder_offset_ = (wrist_centre_ - p_[1]).dot(w_[1]) + (p_[1] - p_[0]).dot(w_[1]);
  across_axis6_ = w_[5].unitOrthogonal();
  return true;
}

int ClosedFormIk::solve(const Eigen::Isometry3d& target, const Joints& reference,
                        const Joints& weights, Solutions& out) const {
  if (!available_) {
    return 0;
  }
  int count = 0;
  const Eigen::Vector3d centre = target * wrist_in_tool_;

  // Joint 1: turned axis 2 must meet the wrist centre's fixed offset along it,
  // A cos q1 + B sin q1 = C.
  const Eigen::Vector3d u = centre - p_[0];
  const double c12 = w_[0].dot(w_[1]);
  const double A = u.dot(w_[1]) - c12 * w_[0].dot(u);
  const double B = u.dot(w_[0].cross(w_[1]));
  const double C = shoulder_offset_ - c12 * w_[0].dot(u);
  const double r = std::hypot(A, B);
  std::array<double, 3> q1s{};
  int n1 = 0;
  if (r > kDegenerate) {
    double spread = 0.0;
    if (slack_acos(C / r, spread)) {
      const double middle = std::atan2(B, A);
      q1s[n1++] = wrap(middle + spread);
      if (spread > kDegenerate) {
        q1s[n1++] = wrap(middle - spread);
      }
    }
  }
  if (r < kNearShoulderSingularity && std::abs(C) < kNearShoulderSingularity) {
    q1s[n1++] = wrap(reference[0]);  // over the base axis: any joint 1 will do; keep the seed's
  }

  for (int i1 = 0; i1 < n1; ++i1) {
    Joints q{};
    q[0] = q1s[static_cast<size_t>(i1)];
    const Eigen::Matrix3d R1 = axis_rotation(w_[0], q[0]);
    // The wrist centre seen with joint 1 at zero.
    const Eigen::Vector3d c = p_[0] + R1.transpose() * (centre - p_[0]);
    const Eigen::Vector3d foot = p_[1] + w_[1] * (c - p_[1]).dot(w_[1]);
    const double reach = (c - foot).norm();
    // Joint 3: the wrist centre turned about axis 3 must lie `reach` from axis 2.
    const Eigen::Vector3d a = wrist_centre_ - p_[2];
    const Eigen::Vector3d b = foot - p_[2];
    const Eigen::Vector3d a_in = a - w_[2] * w_[2].dot(a);
    const Eigen::Vector3d b_in = b - w_[2] * w_[2].dot(b);
    const double along = w_[2].dot(wrist_centre_ - foot);
    const double reach_in_sq = reach * reach - along * along;
    const double la = a_in.norm();
    const double lb = b_in.norm();
    double bend = 0.0;
    if (!slack_acos((la * la + lb * lb - reach_in_sq) / (2.0 * la * lb), bend)) {
      continue;  // out of reach (or too close) for this shoulder
    }
    const double straight = std::atan2(w_[2].dot(a_in.cross(b_in)), a_in.dot(b_in));
    std::array<double, 2> q3s{wrap(straight + bend), wrap(straight - bend)};
    const int n3 = bend > kDegenerate ? 2 : 1;
    for (int i3 = 0; i3 < n3; ++i3) {
      q[2] = q3s[static_cast<size_t>(i3)];
      const Eigen::Matrix3d R3 = axis_rotation(w_[2], q[2]);
      const Eigen::Vector3d moved = p_[2] + R3 * (wrist_centre_ - p_[2]);
      // Joint 2: one rotation about axis 2 carries it onto the wrist centre.
      q[1] = turn_onto(w_[1], moved - p_[1], c - p_[1]);
      const Eigen::Matrix3d R123 = R1 * axis_rotation(w_[1], q[1]) * R3;
      solve_wrist(R123.transpose() * target.linear() * tool_rotation_at_zero_.transpose(), q,
                  reference, weights, out, count);
    }
  }
  return count;
}

void ClosedFormIk::solve_wrist(const Eigen::Matrix3d& wrist_rotation, Joints q,
                               const Joints& reference, const Joints& weights, Solutions& out,
                               int& count) const {
  // R4(q4) R5(q5) R6(q6) = wrist_rotation. Axis 6 ignores q6: R4 R5 w6 = wrist_rotation w6 is
  // two rotations carrying one direction onto another (z lies where both circles meet).
  const Eigen::Vector3d& w4 = w_[3];
  const Eigen::Vector3d& w5 = w_[4];
  const Eigen::Vector3d& from = w_[5];
  const Eigen::Vector3d to = wrist_rotation * w_[5];
  const double c45 = w4.dot(w5);
  const double denominator = c45 * c45 - 1.0;
  const double alpha = (c45 * w5.dot(from) - w4.dot(to)) / denominator;
  const double beta = (c45 * w4.dot(to) - w5.dot(from)) / denominator;
  const Eigen::Vector3d normal = w4.cross(w5);
  double gamma_sq =
      (1.0 - alpha * alpha - beta * beta - 2.0 * alpha * beta * c45) / normal.squaredNorm();
  if (gamma_sq < -1e-9) {
    return;  // the wrist cannot reach that direction (not for a wrist that turns fully)
  }
  gamma_sq = std::max(gamma_sq, 0.0);
  const double gamma = std::sqrt(gamma_sq);
  const int branches = gamma > kDegenerate ? 2 : 1;
  for (int k = 0; k < branches && count < kMaxSolutions; ++k) {
    const Eigen::Vector3d z = alpha * w4 + beta * w5 + (k == 0 ? gamma : -gamma) * normal;
    q[4] = turn_onto(w5, from, z);
    const Eigen::Matrix3d R5 = axis_rotation(w5, q[4]);
    const bool aligned = (z - w4 * w4.dot(z)).norm() < kNearWristSingularity;
    auto finish = [&](double q4) {
      q[3] = q4;
      const Eigen::Matrix3d rest =
          (axis_rotation(w4, q[3]) * R5).transpose() * wrist_rotation;  // = R6(q6)
      q[5] = turn_onto(w_[5], across_axis6_, rest * across_axis6_);
    };
    if (!aligned) {
      finish(turn_onto(w4, z, to));
    } else {
      // Axes 4 and 6 in one line: only q4 + s q6 matters (s = +-1 by their directions). Take
      // the member of that family nearest the reference by the weights.
      finish(reference[3]);
      const double s = w4.dot(R5 * w_[5]) >= 0.0 ? 1.0 : -1.0;
      const double gap = s * wrap(q[5] - reference[5]);
      const double total = weights[3] + weights[5];
      const double share = total > 0.0 ? weights[5] / total : 0.5;
      finish(reference[3] + gap * share);
    }
    out[static_cast<size_t>(count++)] = q;
  }
}

}  // namespace kestrel::algorithms
