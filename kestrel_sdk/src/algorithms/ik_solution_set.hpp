// The inverse-kinematics solutions of one pose as a user wants them: inside the joint limits,
// each joint that allows more than one turn taken at the turn nearest the seed, verified by
// forward kinematics (polished by a few Newton steps when a closed form left rounding behind),
// without repeats, and ranked by weighted joint distance from the seed.
#pragma once

#include <functional>
#include <vector>

#include "kestrel/algorithms/screw_chain.hpp"

namespace kestrel::algorithms {

struct JointLimits {
  std::vector<double> lower;
  std::vector<double> upper;
  std::vector<bool> bounded;  // false: a continuous joint, free in both directions
};

class IkSolutionSet {
 public:
  // A solution's tool pose must lie this close to the target (m, rad).
  static constexpr double kPositionTolerance = 1e-6;
  static constexpr double kOrientationTolerance = 1e-6;

  // `polish` brings a posture onto the target in place (true when it did); it runs only for
  // candidates that miss the target by more than the tolerances.
  IkSolutionSet(const ScrewChain& chain, const JointLimits& limits, const Eigen::Isometry3d& target,
                std::vector<double> seed, std::vector<double> weights,
                std::function<bool(std::vector<double>&)> polish);

  // Takes a candidate (any turn of each joint): true when it was kept as a new solution.
  bool offer(std::vector<double> q);

  const Eigen::Isometry3d& target() const { return target_; }
  const std::vector<double>& seed() const { return seed_; }
  const std::vector<double>& weights() const { return weights_; }
  const std::vector<std::vector<double>>& solutions() const { return solutions_; }
  // Weighted squared joint distance from the seed.
  double distance(const std::vector<double>& q) const;
  // Index of the solution nearest the seed, -1 when there is none.
  int nearest() const { return nearest_; }
  // The solutions ordered by distance from the seed, nearest first.
  std::vector<std::vector<double>> ranked() const;

 private:
  // Each joint moved by whole turns to the value inside its limits nearest the seed (within a
  // hair of a limit counts as on it); false when no turn of some joint lies inside.
  bool fit_limits(std::vector<double>& q) const;
  bool on_target(const std::vector<double>& q) const;

  const ScrewChain& chain_;
  const JointLimits& limits_;
  Eigen::Isometry3d target_;
  std::vector<double> seed_;
  std::vector<double> weights_;
  std::function<bool(std::vector<double>&)> polish_;
  std::vector<std::vector<double>> solutions_;
  int nearest_ = -1;
};

}  // namespace kestrel::algorithms
