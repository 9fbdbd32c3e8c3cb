#include "kestrel/algorithms/ik_solution_set.hpp"

#include <algorithm>
#include <cmath>

namespace kestrel::algorithms {
namespace {

constexpr double kTurn = 6.283185307179586;
// A value this close outside a limit is on it (rounding of a solution that sits at the limit).
constexpr double kLimitSlack = 1e-9;
// Two solutions whose joints all agree this closely are one.
constexpr double kSameSolution = 1e-6;

}  // namespace

IkSolutionSet::IkSolutionSet(const ScrewChain& chain, const JointLimits& limits,
                             const Eigen::Isometry3d& target, std::vector<double> seed,
                             std::vector<double> weights,
                             std::function<bool(std::vector<double>&)> polish)
    : chain_(chain),
      limits_(limits),
      target_(target),
      seed_(std::move(seed)),
      weights_(std::move(weights)),
      polish_(std::move(polish)) {}

bool IkSolutionSet::fit_limits(std::vector<double>& q) const {
  for (size_t j = 0; j < q.size(); ++j) {
    const double s = seed_[j];
    if (!limits_.bounded[j]) {
      q[j] = s + std::remainder(q[j] - s, kTurn);
      continue;
    }
    const double lo = limits_.lower[j];
    const double hi = limits_.upper[j];
    const double first = std::ceil((lo - kLimitSlack - q[j]) / kTurn);
    const double last = std::floor((hi + kLimitSlack - q[j]) / kTurn);
    if (first > last) {
      return false;
    }
    const double turns = std::clamp(std::round((s - q[j]) / kTurn), first, last);
    q[j] = std::clamp(q[j] + turns * kTurn, lo, hi);
  }
  return true;
}

bool IkSolutionSet::on_target(const std::vector<double>& q) const {
  const Eigen::Matrix<double, 6, 1> e = pose_difference(target_, chain_.pose(q.data()));
  return e.head<3>().norm() <= kPositionTolerance && e.tail<3>().norm() <= kOrientationTolerance;
}

double IkSolutionSet::distance(const std::vector<double>& q) const {
  double d = 0.0;
  for (size_t j = 0; j < q.size(); ++j) {
    d += weights_[j] * (q[j] - seed_[j]) * (q[j] - seed_[j]);
  }
  return d;
}

bool IkSolutionSet::offer(std::vector<double> q) {
  if (q.size() != seed_.size() ||
      !std::all_of(q.begin(), q.end(), [](double v) { return std::isfinite(v); })) {
    return false;
  }
  if (!fit_limits(q)) {
    return false;
  }
  if (!on_target(q)) {
    if (!polish_ || !polish_(q) || !fit_limits(q) || !on_target(q)) {
      return false;
    }
  }
  for (const auto& known : solutions_) {
    double gap = 0.0;
    for (size_t j = 0; j < q.size(); ++j) {
      gap = std::max(gap, std::abs(known[j] - q[j]));
    }
    if (gap <= kSameSolution) {
      return false;
    }
  }
  solutions_.push_back(std::move(q));
  const int added = static_cast<int>(solutions_.size()) - 1;
  if (nearest_ < 0 ||
      distance(solutions_.back()) < distance(solutions_[static_cast<size_t>(nearest_)])) {
    nearest_ = added;
  }
  return true;
}

std::vector<std::vector<double>> IkSolutionSet::ranked() const {
  std::vector<std::vector<double>> out = solutions_;
  std::stable_sort(out.begin(), out.end(),
                   [&](const auto& a, const auto& b) { return distance(a) < distance(b); });
  return out;
}

}  // namespace kestrel::algorithms
