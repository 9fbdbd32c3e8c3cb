#include "kestrel/algorithms/singularity.hpp"

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <exception>
#include <limits>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "kestrel/algorithms/collision_geometry.hpp"
#include "kestrel/algorithms/kinematics.hpp"

namespace kestrel::algorithms {
namespace {

constexpr double kFiniteDifferenceStep = 1e-5;
constexpr double kWarningReportBelow = 0.999;

// a brought into [-pi, pi).
double wrap_angle(double a) {
  double r = std::fmod(a + M_PI, 2.0 * M_PI);
  if (r < 0.0) {
    r += 2.0 * M_PI;
  }
  return r - M_PI;
}

// 1 at or above the warning level, falling linearly to `minimum` at the stop level.
double falling_scale(double measure, double warn, double stop, double minimum) {
  const double scale = measure < warn ? (measure - stop) / std::max(warn - stop, 1e-12) : 1.0;
  return std::min(std::max(scale, minimum), 1.0);
}

// The same for a measure that grows towards the singularity (the condition number).
double rising_scale(double measure, double warn, double stop, double minimum) {
  const double scale = measure > warn ? (stop - measure) / std::max(stop - warn, 1e-12) : 1.0;
  return std::min(std::max(scale, minimum), 1.0);
}

// The joints up to the wrist centre with their origin transforms worked out once: the first
// four URDF joints turn by their angles, the fifth contributes its origin only.
class WristCentreChain {
 public:
  explicit WristCentreChain(const RobotKinematics& kinematics) {
    const auto& joints = kinematics.urdf_joints();
    count_ = std::min<std::size_t>(joints.size(), 6);
    for (std::size_t i = 0; i < std::min<std::size_t>(count_, 5); ++i) {
      const UrdfJoint& j = joints[i];
      origins_[i] = transform_from_xyz_rpy({j.origin_xyz.x(), j.origin_xyz.y(), j.origin_xyz.z()},
                                           {j.origin_rpy.x(), j.origin_rpy.y(), j.origin_rpy.z()});
      axes_[i] = j.axis;
    }
  }

  Eigen::Vector3d position(const std::array<double, 6>& q) const {
    Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
    for (std::size_t i = 0; i < std::min<std::size_t>(count_, 4); ++i) {
      T = T * origins_[i];
      T.linear() = T.linear() * axis_angle_rotation(axes_[i], q[i]);
    }
    if (count_ > 4) {
      T = T * origins_[4];
    }
    return T.translation();
  }

 private:
  std::size_t count_ = 0;
  std::array<Eigen::Isometry3d, 5> origins_;
  std::array<Eigen::Vector3d, 5> axes_;
};

struct Measures {
  double wrist = 0.0;
  double shoulder = 0.0;
  double elbow = 0.0;
  double sigma_min = 0.0;
  double condition = 0.0;
};

Measures measure(RobotKinematics& kinematics, const WristCentreChain& wrist,
                 const std::array<double, 6>& q, const SingularityProtectionConfig& c) {
  Measures m;
  m.wrist = std::abs(c.wrist_target_abs_rad - std::abs(q[4]));
  const Eigen::Vector3d wc = wrist.position(q);
  m.shoulder = std::sqrt(wc.x() * wc.x() + wc.y() * wc.y());
  const double d3 = std::min(std::abs(wrap_angle(q[2] - c.elbow_j3_target_rad)),
                             std::abs(wrap_angle(q[2] + c.elbow_j3_target_rad)));
  const double d4 = wrap_angle(q[3] - c.elbow_j4_target_rad);
  m.elbow = std::hypot(d3, d4);

  Eigen::Matrix<double, 6, 6> J = finite_difference_jacobian(kinematics, q);
  J.bottomRows<3>() *= c.jacobian_angular_scale_m;
  const detail::SingularValueRange sv = detail::singular_value_range(J);
  m.sigma_min = sv.sigma_min;
  m.condition =
      m.sigma_min > 1e-12 ? sv.sigma_max / m.sigma_min : std::numeric_limits<double>::infinity();
  return m;
}

SafetyResult stop_result(std::size_t i, std::string message) {
  SafetyResult r;
  r.level = SafetyLevel::stop;
  r.code = "singularity_stop";
  r.message = std::move(message);
  r.sample = i;
  r.joint = -1;
  r.speed_scale = 0.0;
  return r;
}

}  // namespace

Eigen::Vector3d joint_origin_position(const RobotKinematics& kinematics,
                                      const std::array<double, 6>& q) {
  return WristCentreChain(kinematics).position(q);
}

Eigen::Matrix<double, 6, 6> finite_difference_jacobian(RobotKinematics& kinematics,
                                                       const std::array<double, 6>& q) {
  Eigen::Matrix<double, 6, 6> J = Eigen::Matrix<double, 6, 6>::Zero();
  const std::size_t n = static_cast<std::size_t>(std::max(kinematics.num_joints(), 0));
  std::vector<double> qv(n, 0.0);
  std::copy_n(q.begin(), std::min<std::size_t>(n, 6), qv.begin());

  const std::vector<double> f0 = kinematics.forwardKinematics_kdl(qv);
  const Eigen::Vector3d p0(f0[0], f0[1], f0[2]);
  const Eigen::Quaterniond r0(f0[6], f0[3], f0[4], f0[5]);
  for (std::size_t j = 0; j < std::min<std::size_t>(n, 6); ++j) {
    const double saved = qv[j];
    qv[j] += kFiniteDifferenceStep;
    const std::vector<double> f1 = kinematics.forwardKinematics_kdl(qv);
    qv[j] = saved;

    const Eigen::Vector3d p1(f1[0], f1[1], f1[2]);
    const Eigen::Quaterniond r1(f1[6], f1[3], f1[4], f1[5]);
    const auto col = static_cast<Eigen::Index>(j);
    J.block<3, 1>(0, col) = (p1 - p0) / kFiniteDifferenceStep;

    Eigen::Quaterniond r = r0.conjugate() * r1;
    if (r.w() < 0.0) {
      r.coeffs() = -r.coeffs();  // the shorter way round
    }
    const Eigen::Vector3d v = r.vec();
    const double v_norm = v.norm();
    if (v_norm >= std::numeric_limits<double>::epsilon()) {
      const double angle = 2.0 * std::atan2(v_norm, std::abs(r.w()));
      J.block<3, 1>(3, col) = v / v_norm * angle / kFiniteDifferenceStep;
    }
  }
  return J;
}

namespace detail {

SingularValueRange singular_value_range(Eigen::Matrix<double, 6, 6> m) {
  constexpr int kMaxSweeps = 60;
  constexpr double kTolerance = 1e-15;
  for (int sweep = 0; sweep < kMaxSweeps; ++sweep) {
    bool rotated = false;
    for (int p = 0; p < 5; ++p) {
      for (int q = p + 1; q < 6; ++q) {
        const double alpha = m.col(p).squaredNorm();
        const double beta = m.col(q).squaredNorm();
        const double gamma = m.col(p).dot(m.col(q));
        if (std::abs(gamma) <= kTolerance * std::sqrt(alpha * beta)) {
          continue;
        }
        rotated = true;
        // The rotation that makes columns p and q orthogonal (the smaller of the two angles).
        const double zeta = (beta - alpha) / (2.0 * gamma);
        const double abs_zeta = std::abs(zeta);
        const double t =
            std::copysign(1.0, zeta) /
            (abs_zeta > 1e100 ? 2.0 * abs_zeta : abs_zeta + std::sqrt(1.0 + zeta * zeta));
        const double c = 1.0 / std::sqrt(1.0 + t * t);
        const double s = c * t;
        for (int k = 0; k < 6; ++k) {
          const double mp = m(k, p);
          const double mq = m(k, q);
          m(k, p) = c * mp - s * mq;
          m(k, q) = s * mp + c * mq;
        }
      }
    }
    if (!rotated) {
      break;
    }
  }
  SingularValueRange range{std::numeric_limits<double>::infinity(), 0.0};
  for (int k = 0; k < 6; ++k) {
    const double sigma = m.col(k).norm();
    range.sigma_min = std::min(range.sigma_min, sigma);
    range.sigma_max = std::max(range.sigma_max, sigma);
  }
  return range;
}

}  // namespace detail

SafetyResult assess_singularity(RobotKinematics& kinematics,
                                const std::vector<WaypointTrajectorySample>& samples,
                                const SingularityProtectionConfig& config) {
  if (!config.enabled || samples.empty()) {
    return {};
  }
  constexpr double kInf = std::numeric_limits<double>::infinity();
  double min_wrist = kInf;
  double min_shoulder = kInf;
  double min_elbow = kInf;
  double min_sigma = kInf;
  double max_condition = -kInf;
  std::size_t worst = 0;
  double overall = 1.0;
  const double min_scale = config.yellow_min_speed_scale;
  const WristCentreChain wrist(kinematics);

  for (std::size_t i = 0; i < samples.size(); ++i) {
    const auto& q = samples[i].position;
    Measures m;
    try {
      m = measure(kinematics, wrist, q, config);
    } catch (const std::exception& e) {
      std::ostringstream s;
      s << "singularity assessment failed at sample=" << i << ": " << e.what();
      return stop_result(i, s.str());
    } catch (...) {
      return stop_result(i, "singularity assessment failed at sample=" + std::to_string(i));
    }

    if (m.wrist < min_wrist || m.shoulder < min_shoulder || m.elbow < min_elbow ||
        m.sigma_min < min_sigma || m.condition > max_condition) {
      worst = i;
    }
    min_wrist = std::min(min_wrist, m.wrist);
    min_shoulder = std::min(min_shoulder, m.shoulder);
    min_elbow = std::min(min_elbow, m.elbow);
    min_sigma = std::min(min_sigma, m.sigma_min);
    max_condition = std::max(max_condition, m.condition);

    if (m.wrist <= config.wrist_stop_margin_rad || m.shoulder <= config.shoulder_stop_radius_m ||
        m.elbow <= config.elbow_stop_radius_rad || m.sigma_min <= config.jacobian_stop_sigma_min ||
        m.condition >= config.jacobian_stop_condition) {
      std::ostringstream s;
      s << "singularity stop at sample=" << i << " q=[";
      for (std::size_t j = 0; j < q.size(); ++j) {
        s << (j > 0 ? ", " : "") << q[j];
      }
      s << "]"
        << " wrist_margin_rad=" << m.wrist << " shoulder_radius_m=" << m.shoulder
        << " elbow_radius_rad=" << m.elbow << " jacobian_sigma_min=" << m.sigma_min
        << " jacobian_condition=" << m.condition;
      return stop_result(i, s.str());
    }

    if (m.wrist <= config.wrist_warn_margin_rad || m.shoulder <= config.shoulder_warn_radius_m ||
        m.elbow <= config.elbow_warn_radius_rad || m.sigma_min <= config.jacobian_warn_sigma_min ||
        m.condition >= config.jacobian_warn_condition) {
      overall = std::min({overall,
                          falling_scale(m.wrist, config.wrist_warn_margin_rad,
                                        config.wrist_stop_margin_rad, min_scale),
                          falling_scale(m.shoulder, config.shoulder_warn_radius_m,
                                        config.shoulder_stop_radius_m, min_scale),
                          falling_scale(m.elbow, config.elbow_warn_radius_rad,
                                        config.elbow_stop_radius_rad, min_scale),
                          falling_scale(m.sigma_min, config.jacobian_warn_sigma_min,
                                        config.jacobian_stop_sigma_min, min_scale),
                          rising_scale(m.condition, config.jacobian_warn_condition,
                                       config.jacobian_stop_condition, min_scale)});
    }
  }

  if (!(overall < kWarningReportBelow)) {
    return {};
  }
  SafetyResult r;
  r.level = SafetyLevel::warning;
  r.code = "singularity_warn";
  std::ostringstream s;
  s << "singularity warning: wrist_margin_rad=" << min_wrist
    << ", shoulder_radius_m=" << min_shoulder << ", elbow_radius_rad=" << min_elbow
    << ", jacobian_sigma_min=" << min_sigma << ", jacobian_condition=" << max_condition;
  r.message = s.str();
  r.sample = worst;
  r.joint = -1;
  r.value = min_sigma;
  r.threshold = config.jacobian_warn_sigma_min;
  r.speed_scale = overall;
  return r;
}

}  // namespace kestrel::algorithms
