// The mechanics the simulated motors drive. The motors only see a Plant: they read each
// shaft's position and velocity and hand back one torque per shaft; everything mechanical
// (inertia, friction, gravity, coupling between joints, hard stops, a gripper linkage) lives
// behind this interface, so the rigid-body model of the whole arm can replace the independent
// joints below without touching the protocol code.
#pragma once

#include <cstddef>
#include <vector>

namespace kestrel::sim {

class Plant {
 public:
  virtual ~Plant() = default;

  // Number of motor shafts; shaft i is driven by motor i.
  virtual size_t size() const = 0;

  // Advances the mechanics by `dt` seconds under `torque[i]` on shaft i: the motor's torque
  // plus any externally injected torque, in N·m. Called at the simulator's inner rate
  // (10 kHz by default) with the motor torques recomputed before every call.
  virtual void step(double dt, const std::vector<double>& torque) = 0;

  // Shaft position (rad) and velocity (rad/s) in motor coordinates: what the motor's encoder
  // measures, before the motor's own zero offset.
  virtual double position(size_t i) const = 0;
  virtual double velocity(size_t i) const = 0;

  // Places shaft i (start posture, test set-up); a coupled model may move other shafts to stay
  // consistent.
  virtual void set_state(size_t i, double position, double velocity) = 0;
};

// Per-shaft parameters of the first-stage model.
struct JointDynamics {
  double inertia = 0.01;  // kg·m², reflected to the motor shaft
  double viscous = 0.05;  // N·m·s/rad
  double coulomb = 0.1;   // N·m
};

// Independent shafts: J·ddq = tau - b·dq - coulomb·sign(dq), with static friction holding a
// shaft at rest while |tau| stays below the Coulomb level. Semi-implicit Euler.
class IndependentJointPlant : public Plant {
 public:
  explicit IndependentJointPlant(std::vector<JointDynamics> joints,
                                 std::vector<double> initial_positions = {});

  size_t size() const override { return joints_.size(); }
  void step(double dt, const std::vector<double>& torque) override;
  double position(size_t i) const override { return q_.at(i); }
  double velocity(size_t i) const override { return dq_.at(i); }
  void set_state(size_t i, double position, double velocity) override;

  const JointDynamics& joint(size_t i) const { return joints_.at(i); }

 private:
  std::vector<JointDynamics> joints_;
  std::vector<double> q_;
  std::vector<double> dq_;
};

}  // namespace kestrel::sim
