#include "kestrel_sim/plant.hpp"

#include <cmath>
#include <stdexcept>

namespace kestrel::sim {

IndependentJointPlant::IndependentJointPlant(std::vector<JointDynamics> joints,
                                             std::vector<double> initial_positions)
    : joints_(std::move(joints)), q_(joints_.size(), 0.0), dq_(joints_.size(), 0.0) {
  if (initial_positions.size() > joints_.size()) {
    throw std::invalid_argument("more initial positions than joints");
  }
  for (size_t i = 0; i < initial_positions.size(); ++i) {
    q_[i] = initial_positions[i];
  }
  for (const JointDynamics& j : joints_) {
    if (!(j.inertia > 0.0) || j.viscous < 0.0 || j.coulomb < 0.0) {
      throw std::invalid_argument("joint inertia must be positive and friction non-negative");
    }
  }
}

void IndependentJointPlant::step(double dt, const std::vector<double>& torque) {
  if (torque.size() != joints_.size()) {
    throw std::invalid_argument("one torque per joint expected");
  }
  for (size_t i = 0; i < joints_.size(); ++i) {
    const JointDynamics& j = joints_[i];
    const double tau = torque[i];
    double v = dq_[i];
    const double coulomb_dv = j.coulomb / j.inertia * dt;
    if (v == 0.0 && std::abs(tau) <= j.coulomb) {
      continue;  // sticking
    }
    // Viscous friction taken implicitly keeps heavy damping on light shafts stable.
    v = (v + tau / j.inertia * dt) / (1.0 + j.viscous / j.inertia * dt);
    // Coulomb friction opposes the motion and may stop the shaft, never reverse it.
    const double direction = v != 0.0 ? (v > 0.0 ? 1.0 : -1.0) : (tau > 0.0 ? 1.0 : -1.0);
    if (std::abs(v) <= coulomb_dv) {
      v = 0.0;
    } else {
      v -= direction * coulomb_dv;
    }
    dq_[i] = v;
    q_[i] += v * dt;
  }
}

void IndependentJointPlant::set_state(size_t i, double position, double velocity) {
  q_.at(i) = position;
  dq_.at(i) = velocity;
}

}  // namespace kestrel::sim
