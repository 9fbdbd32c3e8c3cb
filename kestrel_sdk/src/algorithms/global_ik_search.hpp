// Inverse kinematics for any serial arm by a global numerical search: a damped Newton solve
// (Levenberg-Marquardt on the exact geometric Jacobian, joints held inside their limits) from
// the seed, then from random postures inside the limits, until the time budget ends or further
// restarts stop finding anything better. Every converged posture is offered to an
// IkSolutionSet, which verifies and keeps it.
#pragma once

#include <cstdint>
#include <vector>

#include "kestrel/algorithms/ik_solution_set.hpp"
#include "kestrel/algorithms/screw_chain.hpp"

namespace kestrel::algorithms {

class GlobalIkSearch {
 public:
  struct Options {
    double time_budget_ms = 5.0;
    // Restarts in a row that found nothing new (every solution wanted) or nothing nearer the
    // seed (the nearest wanted) before the search ends early, once it has found something.
    int patience_all = 32;
    int patience_nearest = 8;
    bool nearest_only = true;
    uint32_t random_seed = 0x6b657374;  // reproducible answers for the same query
  };
  struct Outcome {
    int restarts = 0;
    bool time_exceeded = false;
  };

  GlobalIkSearch(const ScrewChain& chain, const JointLimits& limits);

  // Damped Newton steps from q toward `target`, q kept inside the limits; true when the tool
  // ends within 1e-9 m and 1e-9 rad of it.
  bool converge(const Eigen::Isometry3d& target, std::vector<double>& q) const;

  // Restarts from set.seed() and then from random postures, offering every converged one.
  Outcome search(const Eigen::Isometry3d& target, IkSolutionSet& set, const Options& options) const;

 private:
  const ScrewChain& chain_;
  const JointLimits& limits_;
};

}  // namespace kestrel::algorithms
