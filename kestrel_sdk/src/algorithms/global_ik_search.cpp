#include "kestrel/algorithms/global_ik_search.hpp"

#include <Eigen/Cholesky>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <random>

namespace kestrel::algorithms {
namespace {

constexpr double kPi = 3.14159265358979323846;
constexpr double kConverged = 1e-9;  // m and rad
constexpr int kMaxIterations = 60;
constexpr int kStagnationSpan = 4;
constexpr double kStagnationRatio = 0.3;
// Levenberg-Marquardt damping (m²): starts nearly Gauss-Newton, grows when a step fails.
constexpr double kInitialDamping = 1e-6;
constexpr double kMaxDamping = 1e3;
// No joint moves further than this in one step: keeps a far seed from flying past its target.
constexpr double kMaxStep = 0.5;

}  // namespace

GlobalIkSearch::GlobalIkSearch(const ScrewChain& chain, const JointLimits& limits)
    : chain_(chain), limits_(limits) {}

bool GlobalIkSearch::converge(const Eigen::Isometry3d& target, std::vector<double>& q) const {
  const int n = chain_.size();
  auto inside = [&](std::vector<double>& x) {
    for (int j = 0; j < n; ++j) {
      if (limits_.bounded[static_cast<size_t>(j)]) {
        x[static_cast<size_t>(j)] =
            std::clamp(x[static_cast<size_t>(j)], limits_.lower[static_cast<size_t>(j)],
                       limits_.upper[static_cast<size_t>(j)]);
      }
    }
  };
  inside(q);
  ScrewChain::Jacobian J(6, n);
  ScrewChain::Jacobian J_trial(6, n);
  Eigen::Matrix<double, 6, 1> e = pose_difference(target, chain_.pose_and_jacobian(q.data(), J));
  double cost = e.squaredNorm();
  double damping = kInitialDamping;
  std::vector<double> trial(q.size());
  double checkpoint_cost = cost;
  for (int it = 0; it < kMaxIterations; ++it) {
    if (e.head<3>().norm() <= kConverged && e.tail<3>().norm() <= kConverged) {
      return true;
    }
    if (it > 0 && it % kStagnationSpan == 0) {
      // A posture headed for a solution shrinks its error many times over in a few steps; one
      // that does not is stuck against a limit or in a local minimum: a new restart is cheaper.
      if (cost > kStagnationRatio * checkpoint_cost) {
        return false;
      }
      checkpoint_cost = cost;
    }
    Eigen::Matrix<double, 6, 6> normal = J * J.transpose();
    normal.diagonal().array() += damping;
    ScrewChain::JointVector step = ScrewChain::JointVector::Zero(n);
    step.noalias() = J.transpose() * normal.ldlt().solve(e);
    const double largest = step.cwiseAbs().maxCoeff();
    if (!std::isfinite(largest)) {
      return false;
    }
    if (largest > kMaxStep) {
      step *= kMaxStep / largest;
    }
    for (int j = 0; j < n; ++j) {
      trial[static_cast<size_t>(j)] = q[static_cast<size_t>(j)] + step[j];
    }
    inside(trial);
    const Eigen::Matrix<double, 6, 1> e_trial =
        pose_difference(target, chain_.pose_and_jacobian(trial.data(), J_trial));
    const double trial_cost = e_trial.squaredNorm();
    if (trial_cost < cost) {
      q.swap(trial);
      J.swap(J_trial);
      e = e_trial;
      cost = trial_cost;
      damping = std::max(damping * 0.1, 1e-12);
    } else {
      damping *= 10.0;
      if (damping > kMaxDamping) {
        return false;  // stuck against a limit or in a local minimum
      }
    }
  }
  return e.head<3>().norm() <= kConverged && e.tail<3>().norm() <= kConverged;
}

GlobalIkSearch::Outcome GlobalIkSearch::search(const Eigen::Isometry3d& target, IkSolutionSet& set,
                                               const Options& options) const {
  using Clock = std::chrono::steady_clock;
  const auto started = Clock::now();
  const auto budget = std::chrono::duration<double, std::milli>(options.time_budget_ms);
  std::mt19937 rng(options.random_seed);
  const size_t n = static_cast<size_t>(chain_.size());
  std::vector<std::uniform_real_distribution<double>> draw;
  for (size_t j = 0; j < n; ++j) {
    draw.emplace_back(limits_.bounded[j] ? limits_.lower[j] : -kPi,
                      limits_.bounded[j] ? limits_.upper[j] : kPi);
  }
  Outcome outcome;
  int fruitless = 0;
  std::vector<double> q(n);
  while (true) {
    if (outcome.restarts > 0 && Clock::now() - started >= budget) {
      outcome.time_exceeded = true;
      break;
    }
    if (outcome.restarts == 0) {
      q = set.seed();
    } else {
      for (size_t j = 0; j < n; ++j) {
        q[j] = draw[j](rng);
      }
    }
    ++outcome.restarts;
    const int nearest_before = set.nearest();
    const double distance_before =
        nearest_before < 0 ? 0.0
                           : set.distance(set.solutions()[static_cast<size_t>(nearest_before)]);
    bool progress = false;
    if (converge(target, q) && set.offer(q)) {
      progress =
          !options.nearest_only || nearest_before < 0 ||
          set.distance(set.solutions()[static_cast<size_t>(set.nearest())]) < distance_before;
    }
    fruitless = progress ? 0 : fruitless + 1;
    const int patience = options.nearest_only ? options.patience_nearest : options.patience_all;
    if (set.nearest() >= 0 && fruitless >= patience) {
      break;
    }
  }
  return outcome;
}

}  // namespace kestrel::algorithms
