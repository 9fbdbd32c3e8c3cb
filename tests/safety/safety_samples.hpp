// Trajectories for the safety tests: single postures, straight joint-space moves, and the shipped
// arm's model shared by the tests of one binary.
#pragma once

#include <array>
#include <initializer_list>
#include <vector>

#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/algorithms/trajectory_safety.hpp"

namespace kestrel::testing {

using Posture = std::array<double, 6>;
using Samples = std::vector<algorithms::WaypointTrajectorySample>;

inline Samples samples_of(std::initializer_list<Posture> postures) {
  Samples out;
  for (const Posture& q : postures) {
    algorithms::WaypointTrajectorySample s;
    s.position = q;
    out.push_back(s);
  }
  return out;
}

// A straight joint-space move from a to b in `steps` steps (steps + 1 samples).
inline Samples straight_move(const Posture& a, const Posture& b, int steps) {
  Samples out(static_cast<std::size_t>(steps) + 1);
  for (int i = 0; i <= steps; ++i) {
    for (int j = 0; j < 6; ++j) {
      out[static_cast<std::size_t>(i)].position[j] = a[j] + (b[j] - a[j]) * i / steps;
    }
  }
  return out;
}

// The shipped arm, built once per test binary from the files the library finds.
inline RobotKinematics& shipped_model() {
  static RobotKinematics model;
  return model;
}

}  // namespace kestrel::testing
