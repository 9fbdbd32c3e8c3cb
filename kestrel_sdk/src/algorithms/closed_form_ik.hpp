// Inverse kinematics in closed form for six-joint arms whose last three axes meet in one point
// (a spherical wrist), whose second and third axes are parallel, and whose first axis is not
// parallel to the second. The wrist centre then depends on joints 1-3 only: joint 1 from the
// wrist centre's fixed offset along the parallel axes (two shoulder branches), joint 3 from its
// distance to axis 2 (two elbow branches), joint 2 by one rotation; the orientation left over
// fixes joints 4-6 (two wrist branches). Up to eight solutions, in microseconds.
//
// The structure is read from the arm's axes at the zero posture, within a small tolerance, so
// the solver serves any arm of this kind, not only the shipped one.
#pragma once

#include <array>
#include <string>

#include "kestrel/algorithms/screw_chain.hpp"

namespace kestrel::algorithms {

class ClosedFormIk {
 public:
  static constexpr int kMaxSolutions = 8;
  using Joints = std::array<double, 6>;
  using Solutions = std::array<Joints, kMaxSolutions>;

  ClosedFormIk() = default;  // unavailable
  // Detects the structure: axes meeting within `tolerance` metres, parallel within `tolerance`
  // radians. Without it available() is false and reason() says what is missing.
  explicit ClosedFormIk(const ScrewChain& chain, double tolerance = 1e-5);

  bool available() const { return available_; }
  const std::string& reason() const { return reason_; }

  // Candidate joint vectors for the tool-centre-point pose `target`, angles in [-pi, pi]; not
  // checked against the joint limits nor verified (the caller wraps, polishes and verifies).
  // Where a pose has a continuum of solutions (the wrist centre on axis 1, the wrist's outer
  // axes aligned), the member nearest `reference` by `weights` (squared differences) stands for
  // it. Returns how many of `out` were written; 0 for a pose out of reach.
  int solve(const Eigen::Isometry3d& target, const Joints& reference, const Joints& weights,
            Solutions& out) const;

 private:
  bool detect(const ScrewChain& chain, double tolerance);
  // Joints 4-6 for joints 1-3 already in q; appends up to two solutions.
  void solve_wrist(const Eigen::Matrix3d& wrist_rotation, Joints q, const Joints& reference,
                   const Joints& weights, Solutions& out, int& count) const;

  bool available_ = false;
  std::string reason_ = "no arm model";
  std::array<Eigen::Vector3d, 6> w_{};                       // axis directions at the zero posture
  std::array<Eigen::Vector3d, 6> p_{};                       // a point on each axis
  Eigen::Vector3d wrist_centre_ = Eigen::Vector3d::Zero();   // at the zero posture
  Eigen::Vector3d wrist_in_tool_ = Eigen::Vector3d::Zero();  // the same point, tool frame
  Eigen::Matrix3d tool_rotation_at_zero_ = Eigen::Matrix3d::Identity();
  Eigen::Vector3d across_axis6_ = Eigen::Vector3d::UnitX();  // a unit vector normal to axis 6
  double shoulder_offset_ = 0.0;  // the wrist centre's fixed coordinate along axis 2
};

}  // namespace kestrel::algorithms
