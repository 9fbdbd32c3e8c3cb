// Every inverse-kinematics solution of a pose, and the one nearest a seed: the closed form where
// the arm's geometry has one, the global numerical search otherwise (or on request, as a check).
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "kestrel/algorithms/global_ik_search.hpp"
#include "kestrel/algorithms/ik_config.hpp"
#include "kestrel/algorithms/kinematics.hpp"

namespace ka = kestrel::algorithms;

namespace {

bool all_finite(const std::vector<double>& v) {
  return std::all_of(v.begin(), v.end(), [](double x) { return std::isfinite(x); });
}

// The middle of each joint's range (0 for a continuous joint): the seed of a query without one.
std::vector<double> middle_of_ranges(const ka::JointLimits& limits) {
  std::vector<double> mid(limits.lower.size(), 0.0);
  for (size_t j = 0; j < mid.size(); ++j) {
    if (limits.bounded[j]) {
      mid[j] = 0.5 * (limits.lower[j] + limits.upper[j]);
    }
  }
  return mid;
}

}  // namespace

ka::IkSolutionSet RobotKinematics::ik_solution_set(const char* caller,
                                                   const std::vector<double>& target_pos,
                                                   const std::vector<double>& target_euler,
                                                   const std::vector<double>& seed,
                                                   const std::vector<double>& weights) const {
  const std::string name(caller);
  if (target_pos.size() != 3 || target_euler.size() != 3) {
    throw std::invalid_argument(name + " expects 3D position and 3D Euler target");
  }
  if (seed.size() != static_cast<size_t>(num_joints_)) {
    throw std::invalid_argument(name + " seed size does not match the joint count (" +
                                std::to_string(num_joints_) + ")");
  }
  if (!all_finite(target_pos) || !all_finite(target_euler) || !all_finite(seed)) {
    throw std::invalid_argument(name + " target and seed must contain only finite values");
  }
  std::vector<double> w = weights;
  if (w.empty()) {
    w = ka::ik_solver_config().nearest_joint_weights;
    if (!w.empty() && w.size() != static_cast<size_t>(num_joints_)) {
      throw std::runtime_error("ik_solver.nearest_joint_weights must have " +
                               std::to_string(num_joints_) + " values, one per joint");
    }
  }
  if (w.empty()) {
    w.assign(static_cast<size_t>(num_joints_), 1.0);
  }
  if (w.size() != static_cast<size_t>(num_joints_) ||
      !std::all_of(w.begin(), w.end(), [](double x) { return std::isfinite(x) && x > 0.0; })) {
    throw std::invalid_argument(name + " weights must be " + std::to_string(num_joints_) +
                                " positive values");
  }
  const Eigen::Isometry3d target(
      t_from_xyzrpy(Eigen::Vector3d(target_pos[0], target_pos[1], target_pos[2]),
                    Eigen::Vector3d(target_euler[0], target_euler[1], target_euler[2])));
  return ka::IkSolutionSet(tcp_chain_, limits_, target, seed, std::move(w),
                           [this, target](std::vector<double>& q) {
                             return ka::GlobalIkSearch(tcp_chain_, limits_).converge(target, q);
                           });
}

void RobotKinematics::collect_ik_solutions(IkMethod method, bool nearest_only,
                                           ka::IkSolutionSet& set) const {
  if (method == IkMethod::closed_form && !closed_form_.available()) {
    throw std::runtime_error("closed-form IK is not available for this arm: " +
                             closed_form_.reason());
  }
  if (method != IkMethod::global_search && closed_form_.available()) {
    ka::ClosedFormIk::Joints reference{};
    ka::ClosedFormIk::Joints weights{};
    std::copy_n(set.seed().begin(), 6, reference.begin());
    std::copy_n(set.weights().begin(), 6, weights.begin());
    ka::ClosedFormIk::Solutions candidates;
    const int found = closed_form_.solve(set.target(), reference, weights, candidates);
    for (int k = 0; k < found; ++k) {
      const auto& c = candidates[static_cast<size_t>(k)];
      set.offer(std::vector<double>(c.begin(), c.end()));
    }
    return;
  }
  ka::GlobalIkSearch::Options options;
  options.time_budget_ms = ka::ik_solver_config().global_search_time_ms;
  options.nearest_only = nearest_only;
  ka::GlobalIkSearch(tcp_chain_, limits_).search(set.target(), set, options);
}

std::vector<std::vector<double>> RobotKinematics::solve_ik_all(
    const std::vector<double>& target_pos, const std::vector<double>& target_euler,
    const std::vector<double>& seed, IkMethod method) const {
  ka::IkSolutionSet set = ik_solution_set("solve_ik_all", target_pos, target_euler,
                                          seed.empty() ? middle_of_ranges(limits_) : seed, {});
  collect_ik_solutions(method, false, set);
  return set.ranked();
}

bool RobotKinematics::solve_ik_nearest(const std::vector<double>& target_pos,
                                       const std::vector<double>& target_euler,
                                       const std::vector<double>& seed, std::vector<double>& out,
                                       const std::vector<double>& weights, IkMethod method) const {
  ka::IkSolutionSet set =
      ik_solution_set("solve_ik_nearest", target_pos, target_euler, seed, weights);
  collect_ik_solutions(method, true, set);
  if (set.nearest() < 0) {
    return false;
  }
  out = set.solutions()[static_cast<size_t>(set.nearest())];
  return true;
}
