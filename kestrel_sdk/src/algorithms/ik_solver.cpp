// Inverse kinematics: solve_ik_kdl (a fast damped-least-squares residual solver of its own, the
// KDL Levenberg-Marquardt solver, a position-tolerant retargeting search and an approximate last
// resort, chosen by ik_solver.mode) and the older screw-axis solver inverse_kinematics_jacobian.
#include <Eigen/Cholesky>
#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <chrono>
#include <cmath>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/algorithms/ik_config.hpp"
#include "kestrel/algorithms/kinematics.hpp"

namespace ka = kestrel::algorithms;

namespace {

constexpr double kPi = 3.14159265358979323846;

// Largest absolute difference over the common length; 0 when either vector is empty.
double max_joint_delta(const std::vector<double>& a, const std::vector<double>& b) {
  double worst = 0.0;
  for (size_t i = 0; i < std::min(a.size(), b.size()); ++i) {
    worst = std::max(worst, std::abs(a[i] - b[i]));
  }
  return worst;
}

// Distance between the FK position (first three values of x, y, z, qx, qy, qz, qw) and the
// target; 0 for short inputs.
double position_error_norm(const std::vector<double>& fk, const std::vector<double>& target_pos) {
  if (fk.size() < 3 || target_pos.size() != 3) {
    return 0.0;
  }
  return std::sqrt((fk[0] - target_pos[0]) * (fk[0] - target_pos[0]) +
                   (fk[1] - target_pos[1]) * (fk[1] - target_pos[1]) +
                   (fk[2] - target_pos[2]) * (fk[2] - target_pos[2]));
}

Eigen::Quaterniond target_rotation(const std::vector<double>& euler) {
  double x, y, z, w;
  KDL::Rotation::RPY(euler[0], euler[1], euler[2]).GetQuaternion(x, y, z, w);
  return Eigen::Quaterniond(w, x, y, z);
}

Eigen::Quaterniond fk_rotation(const std::vector<double>& fk) {
  return Eigen::Quaterniond(fk[6], fk[3], fk[4], fk[5]).normalized();
}

// Angle of the relative rotation between the FK orientation and RPY(target); 0 for short inputs.
double orientation_error_norm(const std::vector<double>& fk,
                              const std::vector<double>& target_euler) {
  if (fk.size() < 7 || target_euler.size() != 3) {
    return 0.0;
  }
  return fk_rotation(fk).angularDistance(target_rotation(target_euler));
}

// FK position minus target, then the rotation vector of the rotation from target to FK; zeros
// for short inputs.
std::array<double, 6> pose_error_vector(const std::vector<double>& fk,
                                        const std::vector<double>& target_pos,
                                        const std::vector<double>& target_euler) {
  std::array<double, 6> e{};
  if (fk.size() < 7 || target_pos.size() != 3 || target_euler.size() != 3) {
    return e;
  }
  for (int i = 0; i < 3; ++i) {
    e[i] = fk[i] - target_pos[i];
  }
  const Eigen::AngleAxisd relative(fk_rotation(fk) * target_rotation(target_euler).inverse());
  const Eigen::Vector3d rotation = relative.axis() * relative.angle();
  for (int i = 0; i < 3; ++i) {
    e[3 + i] = rotation[i];
  }
  return e;
}

bool is_finite(double v) {
  return std::isfinite(v);
}

std::string format_double_vector(const std::vector<double>& v) {
  std::ostringstream out;
  out << "[";
  for (size_t i = 0; i < v.size(); ++i) {
    out << (i ? ", " : "") << v[i];
  }
  out << "]";
  return out.str();
}

// The 26 directions of the position-tolerant search: axes, face diagonals, cube corners.
std::vector<Eigen::Vector3d> search_directions() {
  std::vector<Eigen::Vector3d> d = {{0, 0, 1}, {0, 0, -1}, {-1, 0, 0},
                                    {1, 0, 0}, {0, 1, 0},  {0, -1, 0}};
  const double r2 = std::sqrt(2.0);
  for (int a : {-1, 1}) {
    for (int b : {-1, 1}) {
      d.emplace_back(0.0, a / r2, b / r2);
      d.emplace_back(a / r2, 0.0, b / r2);
      d.emplace_back(a / r2, b / r2, 0.0);
    }
  }
  const double r3 = std::sqrt(3.0);
  for (int x : {-1, 1}) {
    for (int y : {-1, 1}) {
      for (int z : {-1, 1}) {
        d.emplace_back(x / r3, y / r3, z / r3);
      }
    }
  }
  return d;
}

}  // namespace

// One call's worth of state: the target, the seed, the settings, and the unlocked FK.
class RobotKinematics::IkSearch {
 public:
  IkSearch(RobotKinematics& model, const std::vector<double>& target_pos,
           const std::vector<double>& target_euler, const std::vector<double>& seed,
           const ka::IkSolverConfig& config, bool* fallback_used)
      : m_(model),
        pos_(target_pos),
        euler_(target_euler),
        seed_(seed),
        cfg_(config),
        fallback_used_(fallback_used),
        diagnostics_(ka::ik_diagnostics_debug_enabled()) {}

  // FK under the already held model mutex.
  std::vector<double> fk(const std::vector<double>& q) const {
    KDL::JntArray joints(static_cast<unsigned>(q.size()));
    for (size_t i = 0; i < q.size(); ++i) {
      joints(static_cast<unsigned>(i)) = q[i];
    }
    KDL::Frame frame;
    if (m_.fk_solver_->JntToCart(joints, frame) < 0) {
      throw std::runtime_error("forward kinematics failed during IK residual check");
    }
    double x, y, z, w;
    frame.M.GetQuaternion(x, y, z, w);
    return {frame.p.x(), frame.p.y(), frame.p.z(), x, y, z, w};
  }

  // Wraps into [-pi, pi], then clamps joints that have limits.
  std::vector<double> normalize(std::vector<double> q) const {
    for (size_t j = 0; j < q.size(); ++j) {
      while (q[j] > kPi) {
        q[j] -= 2.0 * kPi;
      }
      while (q[j] < -kPi) {
        q[j] += 2.0 * kPi;
      }
      if (m_.has_limits_[j]) {
        q[j] = std::min(std::max(q[j], m_.lower_[j]), m_.upper_[j]);
      }
    }
    return q;
  }

  // Keeps the answer on the branch the arm is on: no joint may move further from the seed than
  // its speed limit allows in max_joint_delta_time_sec.
  bool velocity_plausible(const char* label, const std::vector<double>& candidate) const {
    const double dt = cfg_.max_joint_delta_time_sec;
    const auto& v = cfg_.max_joint_velocity_rad_s;
    if (dt <= 0.0 || v.empty()) {
      return true;
    }
    const size_t n = std::min({v.size(), seed_.size(), candidate.size()});
    for (size_t j = 0; j < n; ++j) {
      const double limit = dt * v[j];
      const double delta = std::abs(candidate[j] - seed_[j]);
      if (limit + 1e-9 < delta) {
        if (diagnostics_) {
          std::cerr << "[DEBUG][solve_ik_kdl] rejected " << label << ": joint" << j
                    << " delta=" << delta << " exceeds velocity-derived limit=" << limit
                    << " (max_vel=" << v[j] << ", dt=" << dt << ")" << std::endl;
        }
        return false;
      }
    }
    return true;
  }

  bool within_tolerance(const std::vector<double>& fk_pose, double* pos_err = nullptr,
                        double* rot_err = nullptr) const {
    const double p = position_error_norm(fk_pose, pos_);
    const double r = orientation_error_norm(fk_pose, euler_);
    if (pos_err) {
      *pos_err = p;
    }
    if (rot_err) {
      *rot_err = r;
    }
    return p <= cfg_.position_tolerance_m && r <= cfg_.orientation_tolerance_rad;
  }

  // Tolerance acceptance of a candidate (normalised first), with its warning line.
  bool accept(const char* label, const std::vector<double>& raw, std::vector<double>& out) {
    const std::vector<double> candidate = normalize(raw);
    double pos_err = 0.0;
    double rot_err = 0.0;
    if (!within_tolerance(fk(candidate), &pos_err, &rot_err) ||
        !velocity_plausible(label, candidate)) {
      return false;
    }
    mark_fallback();
    out = candidate;
    std::cerr << "[WARN][solve_ik_kdl] accepted " << label
              << ", target_pos=" << format_double_vector(pos_)
              << ", target_euler=" << format_double_vector(euler_) << ", fk_pos_error_m=" << pos_err
              << ", fk_rot_error_rad=" << rot_err
              << ", q_delta_max_rad=" << max_joint_delta(seed_, candidate) << std::endl;
    return true;
  }

  void mark_fallback() {
    if (fallback_used_) {
      *fallback_used_ = true;
    }
  }

  // Error scaled into units of the tolerances.
  Eigen::Matrix<double, 6, 1> scaled_error(const std::vector<double>& q) const {
    const auto e = pose_error_vector(fk(q), pos_, euler_);
    Eigen::Matrix<double, 6, 1> s;
    for (int i = 0; i < 3; ++i) {
      s(i) = e[i] / cfg_.position_tolerance_m;
      s(3 + i) = e[3 + i] / cfg_.orientation_tolerance_rad;
    }
    return s;
  }

  double residual_cost(const std::vector<double>& q) const {
    const auto pose = fk(q);
    const double p = position_error_norm(pose, pos_) / cfg_.position_tolerance_m;
    const double r = orientation_error_norm(pose, euler_) / cfg_.orientation_tolerance_rad;
    return p * p + r * r;
  }

  // Damped least squares, then a coordinate search, then tolerance acceptance.
  bool fast_residual(std::vector<double>& out) {
    if (cfg_.max_fast_iterations < 1) {
      return false;
    }
    const size_t n = seed_.size();
    std::vector<double> q = normalize(seed_);
    for (int it = 0; it < cfg_.max_fast_iterations; ++it) {
      if (within_tolerance(fk(q))) {
        if (!velocity_plausible("fast residual IK", q)) {
          return false;
        }
        out = q;
        return true;
      }
      if (it == cfg_.max_fast_iterations - 1) {
        break;
      }
      const Eigen::Matrix<double, 6, 1> e = scaled_error(q);
      Eigen::Matrix<double, 6, Eigen::Dynamic> J(6, n);
      for (size_t j = 0; j < n; ++j) {
        std::vector<double> shifted = q;
        shifted[j] += 1e-5;
        J.col(static_cast<Eigen::Index>(j)) = (scaled_error(shifted) - e) / 1e-5;
      }
      const Eigen::Matrix<double, 6, 6> jjt =
          J * J.transpose() + cfg_.damping * cfg_.damping * Eigen::Matrix<double, 6, 6>::Identity();
      Eigen::VectorXd step = -J.transpose() * jjt.ldlt().solve(e);
      const double largest = step.cwiseAbs().maxCoeff();
      if (largest > cfg_.max_joint_step_rad) {
        step *= cfg_.max_joint_step_rad / largest;
      }
      const double cost = e.squaredNorm();
      bool improved = false;
      for (double factor : {1.0, 0.5, 0.25, 0.1}) {
        std::vector<double> trial(n);
        for (size_t j = 0; j < n; ++j) {
          trial[j] = q[j] + factor * step(static_cast<Eigen::Index>(j));
        }
        trial = normalize(trial);
        if (scaled_error(trial).squaredNorm() < cost) {
          q = trial;
          improved = true;
          break;
        }
      }
      if (!improved) {
        break;
      }
    }

    double step = std::min(cfg_.max_joint_step_rad, 0.2);
    for (int it = 0; it < cfg_.max_residual_search_iterations && step > 1e-4; ++it) {
      if (within_tolerance(fk(q))) {
        if (!velocity_plausible("fast residual IK fallback", q)) {
          return false;
        }
        out = q;
        return true;
      }
      double best = residual_cost(q);
      std::vector<double> best_q;
      for (size_t j = 0; j < n; ++j) {
        for (double s : {step, -step}) {
          std::vector<double> trial = q;
          trial[j] += s;
          trial = normalize(trial);
          const double c = residual_cost(trial);
          if (c < best) {
            best = c;
            best_q = trial;
          }
        }
      }
      if (!best_q.empty()) {
        q = best_q;
      } else {
        step *= 0.5;
      }
    }
    return accept("fast residual IK fallback", q, out);
  }

  // KDL's Levenberg-Marquardt solver from the seed toward `position`; the raw joints come back
  // even on failure.
  int kdl(const std::vector<double>& position, std::vector<double>& raw) {
    KDL::JntArray seed(static_cast<unsigned>(seed_.size()));
    for (size_t i = 0; i < seed_.size(); ++i) {
      seed(static_cast<unsigned>(i)) = seed_[i];
    }
    KDL::JntArray result(static_cast<unsigned>(seed_.size()));
    const KDL::Frame goal(KDL::Rotation::RPY(euler_[0], euler_[1], euler_[2]),
                          KDL::Vector(position[0], position[1], position[2]));
    const int ret = m_.ik_solver_->CartToJnt(seed, goal, result);
    raw.assign(result.data.data(), result.data.data() + result.rows());
    return ret;
  }

  // The normalised KDL answer, with a diagnostic line when normalising changed it.
  std::vector<double> convert(const std::vector<double>& raw) const {
    std::vector<double> clipped = normalize(raw);
    if (!diagnostics_) {
      return clipped;
    }
    std::ostringstream changed;
    changed << "[";
    bool any = false;
    for (size_t j = 0; j < raw.size(); ++j) {
      if (raw[j] != clipped[j]) {
        changed << (any ? ", " : "") << "joint" << j << ": " << raw[j] << " -> " << clipped[j];
        any = true;
      }
    }
    changed << "]";
    const auto raw_fk = fk(raw);
    const auto clipped_fk = fk(clipped);
    const double raw_err = position_error_norm(raw_fk, pos_);
    const double clipped_err = position_error_norm(clipped_fk, pos_);
    if (any || clipped_err > 0.001) {
      std::cerr << "[DEBUG][solve_ik_kdl] diagnostics: target_pos=" << format_double_vector(pos_)
                << ", target_euler=" << format_double_vector(euler_)
                << ", seed=" << format_double_vector(seed_)
                << ", q_raw=" << format_double_vector(raw)
                << ", q_clipped=" << format_double_vector(clipped)
                << ", clipped_joints=" << changed.str() << ", raw_fk_pos=[" << raw_fk[0] << ", "
                << raw_fk[1] << ", " << raw_fk[2] << "]"
                << ", clipped_fk_pos=[" << clipped_fk[0] << ", " << clipped_fk[1] << ", "
                << clipped_fk[2] << "]"
                << ", raw_pos_err_m=" << raw_err << ", clipped_pos_err_m=" << clipped_err
                << std::endl;
    }
    return clipped;
  }

  bool approximate(std::vector<double>& out) {
    const bool allowed = cfg_.mode == "kdl_with_approx_fallback" || cfg_.mode == "analytic";
    if (!allowed || !fast_residual(out)) {
      return false;
    }
    mark_fallback();
    std::cerr << "[WARN][solve_ik_kdl] KDL failed; accepted approximate IK fallback"
              << ", target_pos=" << format_double_vector(pos_)
              << ", target_euler=" << format_double_vector(euler_)
              << ", q_delta_max_rad=" << max_joint_delta(seed_, out) << std::endl;
    return true;
  }

  std::string target_text() const {
    return ", target_pos=" + format_double_vector(pos_) +
           ", target_euler=" + format_double_vector(euler_);
  }

  std::string error_text(int ret) const { return m_.ik_solver_->strError(ret); }

  const std::vector<double>& target() const { return pos_; }
  const std::vector<double>& seed() const { return seed_; }
  const ka::IkSolverConfig& config() const { return cfg_; }

 private:
  RobotKinematics& m_;
  const std::vector<double>& pos_;
  const std::vector<double>& euler_;
  const std::vector<double>& seed_;
  const ka::IkSolverConfig& cfg_;
  bool* fallback_used_;
  bool diagnostics_;
};

bool RobotKinematics::solve_ik_kdl(const std::vector<double>& target_pos,
                                   const std::vector<double>& target_euler,
                                   const std::vector<double>& seed, std::vector<double>& out,
                                   bool* fallback_used) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (target_pos.size() != 3 || target_euler.size() != 3) {
    throw std::invalid_argument("solve_ik_kdl expects 3D position and 3D Euler target");
  }
  if (seed.size() != static_cast<size_t>(num_joints_)) {
    throw std::invalid_argument("solve_ik_kdl seed size does not match KDL joint count");
  }
  if (fallback_used) {
    *fallback_used = false;
  }
  const ka::IkSolverConfig& cfg = ka::ik_solver_config();
  IkSearch search(*this, target_pos, target_euler, seed, cfg, fallback_used);

  // Every solution of the pose, the one nearest the seed taken: any seed finds the pose, and a
  // seed on the arm's branch keeps it there. The strategies below stay as the safety net.
  if (cfg.mode == "analytic" && std::all_of(target_pos.begin(), target_pos.end(), is_finite) &&
      std::all_of(target_euler.begin(), target_euler.end(), is_finite) &&
      std::all_of(seed.begin(), seed.end(), is_finite) &&
      solve_ik_nearest(target_pos, target_euler, seed, out)) {
    return true;
  }

  if (cfg.mode == "fast") {
    if (search.fast_residual(out)) {
      return true;
    }
    if (!cfg.allow_kdl_fallback) {
      std::cerr << "solve_ik_kdl failed: fast IK residual exceeded tolerance"
                << search.target_text() << std::endl;
      return false;
    }
  }

  std::vector<double> raw;
  const int ret = search.kdl(target_pos, raw);
  if (ret >= 0) {
    out = search.convert(raw);
    return true;
  }
  if (search.accept("KDL residual IK fallback", search.convert(raw), out)) {
    return true;
  }

  const ka::IkFallbackConfig& fb = ka::ik_fallback_config();
  if (!fb.enabled) {
    if (search.approximate(out)) {
      return true;
    }
    std::cerr << "solve_ik_kdl failed: ret=" << ret << ", reason=" << search.error_text(ret)
              << search.target_text() << std::endl;
    return false;
  }

  // Position-tolerant fallback: retarget the position slightly, keep the orientation.
  const auto started = std::chrono::steady_clock::now();
  const auto elapsed_ms = [&] {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now() -
                                                                started)
               .count() /
           1e6;
  };
  size_t tried = 0;
  bool time_exceeded = false;
  const double accept_radius = std::max(cfg.position_tolerance_m, fb.position_tolerance_m);
  const auto directions = search_directions();
  for (double factor : {0.5, 1.0}) {
    const double radius = fb.position_tolerance_m * factor;
    for (const auto& direction : directions) {
      if (tried >= fb.max_candidates) {
        break;
      }
      if (fb.max_time_ms > 0.0 && elapsed_ms() >= fb.max_time_ms) {
        time_exceeded = true;
        break;
      }
      ++tried;
      const std::vector<double> adjusted = {target_pos[0] + radius * direction.x(),
                                            target_pos[1] + radius * direction.y(),
                                            target_pos[2] + radius * direction.z()};
      std::vector<double> candidate_raw;
      std::vector<double> q;
      if (search.kdl(adjusted, candidate_raw) >= 0) {
        q = search.convert(candidate_raw);
      } else if (!search.accept("position-adjusted residual IK fallback",
                                search.convert(candidate_raw), q)) {
        // KDL missed the moved target too; its last joints were not close enough to the
        // requested one either.
        continue;
      }
      // Measured against the requested target. Joints taken by the tolerance acceptance already
      // lie within the ik_solver tolerances, which this check only widens.
      const auto pose = search.fk(q);
      const double pos_err = position_error_norm(pose, target_pos);
      const double rot_err = orientation_error_norm(pose, target_euler);
      if (pos_err <= accept_radius && rot_err <= cfg.orientation_tolerance_rad) {
        search.mark_fallback();
        out = q;
        const double moved =
            std::sqrt((adjusted[0] - target_pos[0]) * (adjusted[0] - target_pos[0]) +
                      (adjusted[1] - target_pos[1]) * (adjusted[1] - target_pos[1]) +
                      (adjusted[2] - target_pos[2]) * (adjusted[2] - target_pos[2]));
        std::cerr << "[WARN][solve_ik_kdl] strict IK failed ret=" << ret
                  << ", reason=" << search.error_text(ret)
                  << "; accepted position-tolerant IK fallback"
                  << ", original_target_pos=" << format_double_vector(target_pos)
                  << ", adjusted_target_pos=" << format_double_vector(adjusted)
                  << ", target_euler=" << format_double_vector(target_euler)
                  << ", adjusted_distance_m=" << moved
                  << ", tolerance_m=" << fb.position_tolerance_m << ", fk_pos_error_m=" << pos_err
                  << ", fk_rot_error_rad=" << rot_err
                  << ", q_delta_max_rad=" << max_joint_delta(seed, q)
                  << ", candidates_tried=" << tried << ", elapsed_ms=" << elapsed_ms() << std::endl;
        return true;
      }
    }
    if (tried >= fb.max_candidates || time_exceeded) {
      break;
    }
  }
  if (search.approximate(out)) {
    return true;
  }
  std::cerr << "solve_ik_kdl failed: ret=" << ret << ", reason=" << search.error_text(ret)
            << search.target_text() << "; tolerant fallback failed"
            << ", tolerance_m=" << fb.position_tolerance_m << ", candidates_tried=" << tried
            << ", max_candidates=" << fb.max_candidates << ", max_time_ms=" << fb.max_time_ms
            << ", time_exceeded=" << (time_exceeded ? "true" : "false") << std::endl;
  return false;
}

std::optional<Eigen::VectorXd> RobotKinematics::inverse_kinematics_jacobian(
    const Eigen::Vector3d& target_pos, const Eigen::Vector3d& target_euler,
    const Eigen::VectorXd& q_init, double threshold_pos, double threshold_rot, int max_iterations,
    double damping) {
  // Targets refer to the tool centre point, like every Cartesian target of the library: the
  // screw-axis chain ends at the flange, so the tool offset is composed on.
  const Eigen::Vector4d target_q = [&] {
    double x, y, z, w;
    KDL::Rotation::RPY(target_euler[0], target_euler[1], target_euler[2]).GetQuaternion(x, y, z, w);
    return Eigen::Vector4d(x, y, z, w);
  }();
  const auto error_of = [&](const Eigen::VectorXd& q) {
    const Eigen::Matrix4d tcp = forward_kinematics(q) * flange_to_tcp_;
    Eigen::Matrix<double, 6, 1> e;
    e.head<3>() = target_pos - tcp.block<3, 1>(0, 3);
    e.tail<3>() = quaternion_error(target_q, rotation_matrix_to_quaternion(tcp.block<3, 3>(0, 0)));
    return e;
  };
  Eigen::VectorXd q = q_init;
  for (int it = 0; it < max_iterations; ++it) {
    Eigen::Matrix<double, 6, 1> e = error_of(q);
    if (e.head<3>().norm() < threshold_pos && e.tail<3>().norm() < threshold_rot) {
      return q;
    }
    e.tail<3>() *= 0.2;  // orientation weighted down against position
    Eigen::MatrixXd J(6, q.size());
    for (Eigen::Index j = 0; j < q.size(); ++j) {
      Eigen::VectorXd shifted = q;
      shifted[j] += 1e-6;
      Eigen::Matrix<double, 6, 1> moved = error_of(shifted);
      moved.tail<3>() *= 0.2;
      J.col(j) = (e - moved) / 1e-6;  // how the pose follows the joint
    }
    const Eigen::MatrixXd normal =
        J.transpose() * J + damping * Eigen::MatrixXd::Identity(q.size(), q.size());
    q += normal.ldlt().solve(J.transpose() * e);
    for (Eigen::Index j = 0; j < q.size(); ++j) {
      q[j] = std::min(std::max(q[j], -kPi), kPi);
    }
  }
  std::cerr << "inverse_kinematics_jacobian failed: reason=failed to converge within "
               "iteration/threshold limits"
            << ", max_iterations=" << max_iterations << ", threshold_pos=" << threshold_pos
            << ", threshold_rot=" << threshold_rot << ", damping=" << damping << ", target_pos=["
            << target_pos[0] << ", " << target_pos[1] << ", " << target_pos[2] << "]"
            << ", target_euler=[" << target_euler[0] << ", " << target_euler[1] << ", "
            << target_euler[2] << "]" << std::endl;
  return std::nullopt;
}
