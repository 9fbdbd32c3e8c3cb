// The arm as a product of exponentials: one space-frame axis per movable joint at the zero
// posture and the tool centre point's pose there. Pure and cheap (no locks, no KDL state, no
// allocation per pose), so that the closed-form solver and the global IK search can evaluate it
// thousands of times in one query from any thread.
#pragma once

#include <Eigen/Core>
#include <Eigen/Geometry>
#include <vector>

namespace kestrel::algorithms {

class ScrewChain {
 public:
  // One movable joint at the zero posture, in the base frame: a unit direction and a point on
  // its axis (revolute), or the direction of travel (prismatic).
  struct Axis {
    Eigen::Vector3d direction = Eigen::Vector3d::UnitZ();
    Eigen::Vector3d point = Eigen::Vector3d::Zero();
    bool prismatic = false;
  };
  // Storage inside the object (no allocation per query) for chains of up to kMaxJoints.
  static constexpr int kMaxJoints = 16;
  using Jacobian = Eigen::Matrix<double, 6, Eigen::Dynamic, Eigen::ColMajor, 6, kMaxJoints>;
  using JointVector = Eigen::Matrix<double, Eigen::Dynamic, 1, Eigen::ColMajor, kMaxJoints, 1>;

  ScrewChain() = default;
  // Throws std::invalid_argument for more than kMaxJoints axes.
  ScrewChain(std::vector<Axis> axes, const Eigen::Isometry3d& tcp_at_zero);

  int size() const { return static_cast<int>(axes_.size()); }
  const std::vector<Axis>& axes() const { return axes_; }
  const Eigen::Isometry3d& tcp_at_zero() const { return tcp_at_zero_; }

  // Rigid motion of joint i moved by `value` (rad or m), in the base frame at the zero posture.
  Eigen::Isometry3d motion(int i, double value) const;
  // Tool-centre-point pose for size() joint values.
  Eigen::Isometry3d pose(const double* q) const;
  // The same, and the geometric Jacobian there: rows 0-2 the tool point's velocity, rows 3-5 the
  // angular velocity, both in the base frame. J must have size() columns.
  Eigen::Isometry3d pose_and_jacobian(const double* q, Jacobian& J) const;

 private:
  std::vector<Axis> axes_;
  Eigen::Isometry3d tcp_at_zero_ = Eigen::Isometry3d::Identity();
};

// Rotation turning `vector` by `angle` about the unit `axis` (Rodrigues).
Eigen::Matrix3d axis_rotation(const Eigen::Vector3d& axis, double angle);

// What separates `current` from `target`: the position difference target - current, then the
// rotation vector (axis times angle, base frame) of target · current⁻¹.
Eigen::Matrix<double, 6, 1> pose_difference(const Eigen::Isometry3d& target,
                                            const Eigen::Isometry3d& current);

}  // namespace kestrel::algorithms
