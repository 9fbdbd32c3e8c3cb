// Cartesian direct commands: a pose reached by a timed joint move, a pose streamed as raw joint
// targets with shaped velocities, and the IK query.
#include <algorithm>
#include <cmath>
#include <iostream>
#include <stdexcept>

#include "kestrel/controller/arm_controller_impl.hpp"

namespace {

bool all_finite(const std::vector<double>& values) {
  return std::all_of(values.begin(), values.end(), [](double v) { return std::isfinite(v); });
}

void require_finite(const std::vector<double>& values, const char* what) {
  if (!all_finite(values)) {
    throw std::invalid_argument(std::string(what) + " must contain only finite values");
  }
}

// The streaming shaper's built-in joint limits (rad/s, rad/s^2): the motors' speed, and
// accelerations that the arm's links can follow without the tracking error building up.
constexpr std::array<double, 6> kStreamVelocityLimit = {5.2, 5.2, 5.2, 20.9, 20.9, 20.9};
constexpr std::array<double, 6> kStreamAccelerationLimit = {35.0, 18.0, 87.0, 300.0, 300.0, 300.0};

}  // namespace

void ArmController::set_end_effector_pose(const std::vector<double>& pos,
                                          const std::vector<double>& euler, double time) {
  const CallScope scope(*this);
  if (pos.size() != 3) {
    throw std::invalid_argument("target_pos must have exactly 3 elements.");
  }
  if (euler.size() != 3) {
    throw std::invalid_argument("target_euler must have exactly 3 elements.");
  }
  require_finite(pos, "target_pos");
  require_finite(euler, "target_euler");
  if (!std::isfinite(time)) {
    throw std::invalid_argument("tf must be finite");
  }
  if (!(time > 0.0)) {
    throw std::invalid_argument("tf must be positive");
  }
  auto& i = impl();
  Impl::JointArray current{};
  i.try_get_latest_joint_state(current);  // the zero posture before any feedback
  Eigen::VectorXd seed(Impl::kJoints);
  for (int j = 0; j < Impl::kJoints; ++j) {
    seed[j] = current[j];
  }
  const auto solution = i.kinematics->inverse_kinematics_jacobian(
      Eigen::Vector3d(pos[0], pos[1], pos[2]), Eigen::Vector3d(euler[0], euler[1], euler[2]), seed,
      1e-4, 1e-3, 200, 1e-4);
  if (!solution || solution->size() != Impl::kJoints) {
    std::cout << "雅可比逆解失败。" << std::endl;
    return;
  }
  set_joint(std::vector<double>(solution->data(), solution->data() + solution->size()), time);
}

void ArmController::set_end_effector_pose_raw(const std::vector<double>& pos,
                                              const std::vector<double>& euler) {
  const CallScope scope(*this);
  if (pos.size() != 3 || euler.size() != 3) {
    return;  // a streaming caller must not be stopped by one malformed target
  }
  require_finite(pos, "target_pos");
  require_finite(euler, "target_euler");
  auto& i = impl();
  Impl::JointArray current{};
  if (!i.try_get_latest_joint_state(current)) {
    return;
  }
  std::vector<double> solution;
  if (!i.kinematics->solve_ik_kdl(pos, euler, std::vector<double>(current.begin(), current.end()),
                                  solution) ||
      solution.size() != Impl::kJoints) {
    return;
  }

  Impl::JointArray q{};
  Impl::JointArray v{};
  {
    std::lock_guard<std::mutex> lock(i.pose_stream_mutex);
    const int64_t now = Impl::now_ns();
    const bool first = !i.pose_stream_started;
    const double dt =
        first ? 0.0025
              : Impl::clamp(static_cast<double>(now - i.pose_stream_last_ns) * 1e-9, 0.001, 0.0075);
    for (int j = 0; j < Impl::kJoints; ++j) {
      q[j] = solution[j];
      double v_prev = i.pose_stream_v[j];
      const double v_raw = first ? 0.0 : (q[j] - i.pose_stream_q[j]) / dt;
      if (std::abs(v_raw) > 0.02 && v_raw * v_prev < 0.0) {
        v_prev *= 0.2;  // damp a reversal instead of braking through the filter's lag
      }
      double filtered = 0.9 * v_prev + 0.1 * v_raw;
      const double step = kStreamAccelerationLimit[j] * dt;
      filtered = Impl::clamp(filtered, v_prev - step, v_prev + step);
      v[j] = Impl::clamp(filtered, -kStreamVelocityLimit[j], kStreamVelocityLimit[j]);
    }
    i.pose_stream_q = q;
    i.pose_stream_v = v;
    i.pose_stream_last_ns = now;
    i.pose_stream_started = true;
  }
  i.write_joint_raw_command(q, v);
}

namespace {

// The arguments of an IK query, checked before anything is read.
void check_ik_query(const std::vector<double>& pos, const std::vector<double>& euler,
                    const std::vector<double>& q_seed) {
  if (pos.size() != 3 || euler.size() != 3) {
    throw std::invalid_argument("target_pos and target_euler must both have exactly 3 elements.");
  }
  if (!q_seed.empty() && q_seed.size() != 6) {
    throw std::invalid_argument("q_seed must have exactly 6 elements when provided.");
  }
  require_finite(pos, "target_pos");
  require_finite(euler, "target_euler");
  require_finite(q_seed, "q_seed");
}

}  // namespace

std::pair<std::vector<double>, bool> ArmController::solve_ik(const std::vector<double>& pos,
                                                             const std::vector<double>& euler,
                                                             const std::vector<double>& q_seed) {
  const CallScope scope(*this);
  check_ik_query(pos, euler, q_seed);
  auto& i = impl();
  const std::vector<double> seed = q_seed.empty() ? i.current_joints_or_zero() : q_seed;
  std::vector<double> solution;
  const bool ok = i.kinematics->solve_ik_kdl(pos, euler, seed, solution);
  if (!ok || solution.size() != 6) {
    return {{}, false};
  }
  return {solution, true};
}

std::pair<std::vector<double>, bool> ArmController::solve_ik_nearest(
    const std::vector<double>& pos, const std::vector<double>& euler,
    const std::vector<double>& q_seed) {
  const CallScope scope(*this);
  check_ik_query(pos, euler, q_seed);
  auto& i = impl();
  const std::vector<double> seed = q_seed.empty() ? i.current_joints_or_zero() : q_seed;
  std::vector<double> solution;
  if (!i.kinematics->solve_ik_nearest(pos, euler, seed, solution)) {
    return {{}, false};
  }
  return {solution, true};
}
