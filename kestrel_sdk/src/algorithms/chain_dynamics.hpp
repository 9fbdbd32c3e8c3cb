// ChainDynamics: a private copy of the arm model's dynamics for one thread. The control loop owns
// one, so the feed-forward of a cycle never waits behind an inverse-kinematics search or a
// planning pass on the shared model's mutex. It has its own chain, KDL solver and scratch arrays,
// all built at construction: a query allocates nothing. Its mutex is uncontended in use (one
// thread owns the instance) and only guards the KDL solver, which is not reentrant.
#pragma once

#include <kdl/chain.hpp>
#include <kdl/chaindynparam.hpp>
#include <kdl/jntarray.hpp>
#include <kdl/jntspaceinertiamatrix.hpp>
#include <mutex>
#include <optional>

class RobotKinematics;

namespace kestrel::algorithms {

class ChainDynamics {
 public:
  // Copies the model's chain (tool and payload included) and its gravity vector.
  explicit ChainDynamics(const RobotKinematics& model);
  ChainDynamics(const ChainDynamics&) = delete;
  ChainDynamics& operator=(const ChainDynamics&) = delete;

  int num_joints() const { return static_cast<int>(n_); }

  // The feed-forward terms, each from and into num_joints() doubles, with the same values as the
  // model's gravity_, coriolis_ and inertia_compensation_kdl: G(q), C(q, dq)·dq and M(q)·ddq.
  // Each returns KDL's code: negative when the solver failed (`out` is then unspecified).
  int gravity(const double* q, double* out);
  int coriolis(const double* q, const double* dq, double* out);
  int inertia(const double* q, const double* ddq, double* out);

 private:
  KDL::Chain chain_;
  unsigned int n_ = 0;
  std::optional<KDL::ChainDynParam> solver_;
  std::mutex mutex_;
  KDL::JntArray q_;
  KDL::JntArray dq_;
  KDL::JntArray ddq_;
  KDL::JntArray out_;
  KDL::JntSpaceInertiaMatrix mass_;
};

}  // namespace kestrel::algorithms
