// Singularity assessment of a planned joint trajectory: how close each sample comes to the arm's
// wrist, shoulder and elbow singularities, and how well conditioned its Jacobian is. A sample in
// a stop zone refuses the trajectory; samples in warning zones slow it down, linearly from full
// speed at the warning level to yellow_min_speed_scale at the stop level.
#pragma once

#include <Eigen/Core>
#include <array>
#include <vector>

#include "kestrel/algorithms/safety_config.hpp"
#include "kestrel/algorithms/trajectory_safety.hpp"

class RobotKinematics;

namespace kestrel::algorithms {

// Per sample: wrist margin | target - |q5| |, shoulder radius (wrist centre to the base's vertical
// axis), elbow radius (distance of (q3, q4) from the stretched-elbow posture, q3 matched with
// either sign), and the smallest singular value and condition number of the Jacobian whose
// angular rows are scaled by jacobian_angular_scale_m. Every bound is inclusive. Returns the stop
// "singularity_stop" for the first sample in a stop zone; else the warning "singularity_warn"
// when the slowest partial speed scale is below 0.999; else the default result. Never throws:
// a model that cannot evaluate a sample stops the trajectory at that sample.
SafetyResult assess_singularity(RobotKinematics& kinematics,
                                const std::vector<WaypointTrajectorySample>& samples,
                                const SingularityProtectionConfig& config);

// Origin of the fifth URDF joint (the wrist centre) in the base frame for the joint angles q.
Eigen::Vector3d joint_origin_position(const RobotKinematics& kinematics,
                                      const std::array<double, 6>& q);

// Jacobian of the tool centre point by forward differences (step 1e-5 rad) of the model's KDL
// forward kinematics: rows 0-2 linear velocity (m/rad), rows 3-5 angular velocity (rad/rad, in
// the tool frame), one column per joint. Throws what forwardKinematics_kdl throws.
Eigen::Matrix<double, 6, 6> finite_difference_jacobian(RobotKinematics& kinematics,
                                                       const std::array<double, 6>& q);

namespace detail {

// Smallest and largest singular value of a 6x6 matrix, by one-sided (Hestenes) Jacobi rotations:
// the columns are orthogonalised pairwise until every pair is orthogonal to working precision,
// and the singular values are then the column lengths. Each value is found to high relative
// accuracy, as with a two-sided Jacobi decomposition; a zero column gives exactly 0.
struct SingularValueRange {
  double sigma_min = 0.0;
  double sigma_max = 0.0;
};
SingularValueRange singular_value_range(Eigen::Matrix<double, 6, 6> m);

}  // namespace detail

}  // namespace kestrel::algorithms
