#include "kestrel/algorithms/screw_chain.hpp"

#include <cmath>
#include <stdexcept>
#include <string>

namespace kestrel::algorithms {

Eigen::Matrix3d axis_rotation(const Eigen::Vector3d& axis, double angle) {
  const double s = std::sin(angle);
  const double c = std::cos(angle);
  Eigen::Matrix3d k;
  k << 0.0, -axis.z(), axis.y(), axis.z(), 0.0, -axis.x(), -axis.y(), axis.x(), 0.0;
  return Eigen::Matrix3d::Identity() + s * k + (1.0 - c) * (k * k);
}

Eigen::Matrix<double, 6, 1> pose_difference(const Eigen::Isometry3d& target,
                                            const Eigen::Isometry3d& current) {
  Eigen::Matrix<double, 6, 1> e;
  e.head<3>() = target.translation() - current.translation();
  const Eigen::AngleAxisd turn(target.linear() * current.linear().transpose());
  e.tail<3>() = turn.axis() * turn.angle();
  return e;
}

ScrewChain::ScrewChain(std::vector<Axis> axes, const Eigen::Isometry3d& tcp_at_zero)
    : axes_(std::move(axes)), tcp_at_zero_(tcp_at_zero) {
  if (axes_.size() > static_cast<size_t>(kMaxJoints)) {
    throw std::invalid_argument("the screw model takes at most " + std::to_string(kMaxJoints) +
                                " movable joints, not " + std::to_string(axes_.size()));
  }
}

Eigen::Isometry3d ScrewChain::motion(int i, double value) const {
  const Axis& a = axes_[static_cast<size_t>(i)];
  Eigen::Isometry3d m = Eigen::Isometry3d::Identity();
  if (a.prismatic) {
    m.translation() = a.direction * value;
    return m;
  }
  m.linear() = axis_rotation(a.direction, value);
  m.translation() = a.point - m.linear() * a.point;  // turns about the axis through `point`
  return m;
}

Eigen::Isometry3d ScrewChain::pose(const double* q) const {
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  for (int i = 0; i < size(); ++i) {
    T = T * motion(i, q[i]);
  }
  return T * tcp_at_zero_;
}

Eigen::Isometry3d ScrewChain::pose_and_jacobian(const double* q, Jacobian& J) const {
  // Joint i's axis now is the motion of the joints before it applied to its zero-posture axis.
  // Its point waits in the velocity rows until the tool point is known.
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  for (int i = 0; i < size(); ++i) {
    const Axis& a = axes_[static_cast<size_t>(i)];
    J.col(i) << T * a.point, T.linear() * a.direction;
    T = T * motion(i, q[i]);
  }
  const Eigen::Isometry3d tcp = T * tcp_at_zero_;
  for (int i = 0; i < size(); ++i) {
    const Eigen::Vector3d w = J.col(i).tail<3>();
    if (axes_[static_cast<size_t>(i)].prismatic) {
      J.col(i) << w, Eigen::Vector3d::Zero();
    } else {
      J.col(i).head<3>() = w.cross(tcp.translation() - J.col(i).head<3>());
    }
  }
  return tcp;
}

}  // namespace kestrel::algorithms
