#include "kestrel/algorithms/collision_geometry.hpp"

#include <algorithm>
#include <cmath>

namespace kestrel::algorithms {
namespace {

// Distance of a point already expressed in the box frame to a box of half extents h.
inline double local_point_box_distance(const Eigen::Vector3d& p, const Eigen::Vector3d& h) {
  const double dx = std::max(std::abs(p.x()) - h.x(), 0.0);
  const double dy = std::max(std::abs(p.y()) - h.y(), 0.0);
  const double dz = std::max(std::abs(p.z()) - h.z(), 0.0);
  return std::sqrt(dx * dx + dy * dy + dz * dz);
}

inline Eigen::Vector3d half_extents(const std::array<double, 3>& size) {
  return {size[0] > 0.0 ? 0.5 * size[0] : 0.0, size[1] > 0.0 ? 0.5 * size[1] : 0.0,
          size[2] > 0.0 ? 0.5 * size[2] : 0.0};
}

}  // namespace

Eigen::Matrix3d axis_angle_rotation(const Eigen::Vector3d& axis, double angle) {
  const double n = axis.norm();
  if (n < 1e-12) {
    return Eigen::Matrix3d::Identity();
  }
  return Eigen::AngleAxisd(angle, axis / n).toRotationMatrix();
}

Eigen::Isometry3d transform_from_xyz_rpy(const std::array<double, 3>& xyz,
                                         const std::array<double, 3>& rpy) {
  Eigen::Isometry3d pose = Eigen::Isometry3d::Identity();
  pose.linear() = (Eigen::AngleAxisd(rpy[2], Eigen::Vector3d::UnitZ()) *
                   Eigen::AngleAxisd(rpy[1], Eigen::Vector3d::UnitY()) *
                   Eigen::AngleAxisd(rpy[0], Eigen::Vector3d::UnitX()))
                      .toRotationMatrix();
  pose.translation() = Eigen::Vector3d(xyz[0], xyz[1], xyz[2]);
  return pose;
}

Eigen::Isometry3d body_box_transform(const Eigen::Isometry3d& link_pose,
                                     const std::array<double, 3>& center,
                                     const std::array<double, 3>& rpy) {
  return link_pose * transform_from_xyz_rpy(center, rpy);
}

double segment_segment_distance(const Eigen::Vector3d& p0, const Eigen::Vector3d& p1,
                                const Eigen::Vector3d& q0, const Eigen::Vector3d& q1) {
  constexpr double kEps = 1e-12;
  const Eigen::Vector3d d1 = p1 - p0;
  const Eigen::Vector3d d2 = q1 - q0;
  const Eigen::Vector3d r = p0 - q0;
  const double a = d1.squaredNorm();
  const double e = d2.squaredNorm();
  const double f = d2.dot(r);
  double s = 0.0;
  double t = 0.0;
  if (a <= kEps && e <= kEps) {
    // Two points.
  } else if (a <= kEps) {
    t = std::clamp(f / e, 0.0, 1.0);
  } else {
    const double c = d1.dot(r);
    if (e <= kEps) {
      s = std::clamp(-c / a, 0.0, 1.0);
    } else {
      const double b = d1.dot(d2);
      const double denom = a * e - b * b;
      s = denom > kEps ? std::clamp((b * f - c * e) / denom, 0.0, 1.0) : 0.0;
      t = (b * s + f) / e;
      if (t < 0.0) {
        t = 0.0;
        s = std::clamp(-c / a, 0.0, 1.0);
      } else if (t > 1.0) {
        t = 1.0;
        s = std::clamp((b - c) / a, 0.0, 1.0);
      }
    }
  }
  return ((p0 + s * d1) - (q0 + t * d2)).norm();
}

double point_box_distance(const Eigen::Vector3d& p, const Eigen::Isometry3d& box_pose,
                          const std::array<double, 3>& size) {
  const Eigen::Vector3d local = box_pose.linear().transpose() * (p - box_pose.translation());
  return local_point_box_distance(local, half_extents(size));
}

double capsule_box_clearance(const Eigen::Vector3d& p0, const Eigen::Vector3d& p1, double radius,
                             const Eigen::Isometry3d& box_pose, const std::array<double, 3>& size) {
  const Eigen::Vector3d h = half_extents(size);
  const Eigen::Matrix3d rt = box_pose.linear().transpose();
  const Eigen::Vector3d a = rt * (p0 - box_pose.translation());
  if ((p1 - p0).squaredNorm() < 1e-18) {
    return local_point_box_distance(a, h) - radius;
  }
  // The axis in the box frame: points along it are a + s d, one rotation for all evaluations.
  const Eigen::Vector3d d = rt * (p1 - p0);
  const auto f = [&](double s) { return local_point_box_distance(a + s * d, h); };
  double lo = 0.0;
  double hi = 1.0;
  for (int i = 0; i < 80; ++i) {
    const double m1 = lo + (hi - lo) / 3.0;
    const double m2 = hi - (hi - lo) / 3.0;
    if (f(m1) < f(m2)) {
      hi = m2;
    } else {
      lo = m1;
    }
  }
  return std::min({f(0.5 * (lo + hi)), f(0.0), f(1.0)}) - radius;
}

double box_bounding_radius(const std::array<double, 3>& size) {
  return 0.5 * std::sqrt(size[0] * size[0] + size[1] * size[1] + size[2] * size[2]);
}

double box_box_bounding_sphere_clearance(const Eigen::Isometry3d& pose_a,
                                         const std::array<double, 3>& size_a,
                                         const Eigen::Isometry3d& pose_b,
                                         const std::array<double, 3>& size_b) {
  return (pose_a.translation() - pose_b.translation()).norm() - box_bounding_radius(size_a) -
         box_bounding_radius(size_b);
}

}  // namespace kestrel::algorithms
