#include "kestrel/algorithms/chain_dynamics.hpp"

#include "kestrel/algorithms/kinematics.hpp"

namespace kestrel::algorithms {

namespace {

void load(const double* values, KDL::JntArray& out) {
  for (unsigned int i = 0; i < out.rows(); ++i) {
    out(i) = values[i];
  }
}

void store(const KDL::JntArray& values, double* out) {
  for (unsigned int i = 0; i < values.rows(); ++i) {
    out[i] = values(i);
  }
}

}  // namespace

ChainDynamics::ChainDynamics(const RobotKinematics& model)
    : chain_(model.chain_copy()), n_(chain_.getNrOfJoints()) {
  const Eigen::Vector3d& g = model.gravity();
  solver_.emplace(chain_, KDL::Vector(g.x(), g.y(), g.z()));
  q_.resize(n_);
  dq_.resize(n_);
  ddq_.resize(n_);
  out_.resize(n_);
  mass_.resize(n_);
}

int ChainDynamics::gravity(const double* q, double* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  load(q, q_);
  const int code = solver_->JntToGravity(q_, out_);
  store(out_, out);
  return code;
}

int ChainDynamics::coriolis(const double* q, const double* dq, double* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  load(q, q_);
  load(dq, dq_);
  const int code = solver_->JntToCoriolis(q_, dq_, out_);
  store(out_, out);
  return code;
}

int ChainDynamics::inertia(const double* q, const double* ddq, double* out) {
  std::lock_guard<std::mutex> lock(mutex_);
  load(q, q_);
  load(ddq, ddq_);
  const int code = solver_->JntToMass(q_, mass_);
  out_.data.noalias() = mass_.data * ddq_.data;
  store(out_, out);
  return code;
}

}  // namespace kestrel::algorithms
