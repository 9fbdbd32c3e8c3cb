// Distance primitives of the self-collision check: capsules (a segment swept by a radius) and
// oriented boxes, all in one frame (the robot base). Each returns a clearance or a distance in
// metres; a negative clearance is a penetration depth bound.
#pragma once

#include <Eigen/Core>
#include <Eigen/Geometry>
#include <array>

namespace kestrel::algorithms {

// Rotation by `angle` about `axis`, which is normalised first; an axis shorter than 1e-12 gives
// the identity.
Eigen::Matrix3d axis_angle_rotation(const Eigen::Vector3d& axis, double angle);

// Transform with translation xyz and rotation RPY(roll, pitch, yaw) (fixed X, then Y, then Z).
Eigen::Isometry3d transform_from_xyz_rpy(const std::array<double, 3>& xyz,
                                         const std::array<double, 3>& rpy);

// R p + t.
inline Eigen::Vector3d transform_point(const Eigen::Isometry3d& pose, const Eigen::Vector3d& p) {
  return pose.linear() * p + pose.translation();
}

// Pose of a box body in the base frame: the link's frame times the box's own centre and rpy.
Eigen::Isometry3d body_box_transform(const Eigen::Isometry3d& link_pose,
                                     const std::array<double, 3>& center,
                                     const std::array<double, 3>& rpy);

// Shortest distance between segments [p0, p1] and [q0, q1], both parameters clamped to [0, 1].
// A segment of squared length at most 1e-12 is a point; for parallel segments (denominator at
// most 1e-12) the parameter on the first segment is 0.
double segment_segment_distance(const Eigen::Vector3d& p0, const Eigen::Vector3d& p1,
                                const Eigen::Vector3d& q0, const Eigen::Vector3d& q1);

// Distance from p to the box of full edge lengths `size` at `box_pose`; 0 inside. An edge length
// <= 0 counts as 0.
double point_box_distance(const Eigen::Vector3d& p, const Eigen::Isometry3d& box_pose,
                          const std::array<double, 3>& size);

// Clearance between the capsule [p0, p1] of `radius` and the box: the distance of the axis to the
// box, found by a ternary search of exactly 80 iterations over the axis parameter (the distance
// of a point moving along a line to a convex box is convex), the result also compared with both
// end points, minus the radius. A degenerate axis (squared length < 1e-18) is its first point.
double capsule_box_clearance(const Eigen::Vector3d& p0, const Eigen::Vector3d& p1, double radius,
                             const Eigen::Isometry3d& box_pose, const std::array<double, 3>& size);

// Clearance of two boxes through their bounding spheres (centre = pose translation, radius = half
// the length of the size vector). Never more than the boxes' real clearance.
double box_box_bounding_sphere_clearance(const Eigen::Isometry3d& pose_a,
                                         const std::array<double, 3>& size_a,
                                         const Eigen::Isometry3d& pose_b,
                                         const std::array<double, 3>& size_b);

// Half the length of the size vector: radius of the sphere about the centre that holds the box.
double box_bounding_radius(const std::array<double, 3>& size);

}  // namespace kestrel::algorithms
