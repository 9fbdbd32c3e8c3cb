// N simulated motors on one plant, without sockets or threads: a frame goes in with its arrival
// time and the motors' replies come out; advance() runs the mechanics. SimulatedMotorBus drives
// this from its threads under one lock; tests drive it directly with synthetic time.
#pragma once

#include <memory>
#include <optional>
#include <vector>

#include "kestrel_sim/frame.hpp"
#include "kestrel_sim/plant.hpp"
#include "kestrel_sim/simulated_motor.hpp"

namespace kestrel::sim {

struct SimulationOptions {
  double ambient_celsius = 30.0;
  // Inner step: the drives' control laws are re-evaluated and the plant integrated this often,
  // so stiff MIT gains on light shafts stay stable.
  double inner_step = 1e-4;  // s
};

class MotorSimulation {
 public:
  // Without a plant, an IndependentJointPlant is built from the configs' dynamics and initial
  // positions. A plant given here must have one shaft per motor.
  explicit MotorSimulation(std::vector<MotorConfig> configs, std::unique_ptr<Plant> plant = nullptr,
                           SimulationOptions options = {});

  struct Outcome {
    size_t motor = 0;
    ReceivedCommand command;
    std::optional<Frame> reply;  // from the motor's master id, classic or FD like the request
  };
  // Every motor the frame addresses acts on it (normally one; none for foreign frames).
  std::vector<Outcome> handle_frame(const Frame& frame, TimePoint now);

  // Runs the mechanics for `dt` seconds of simulated time ending at `now` (in inner steps),
  // then the watchdogs and temperatures.
  void advance(double dt, TimePoint now);

  size_t size() const { return motors_.size(); }
  SimulatedMotor& motor(size_t i) { return motors_.at(i); }
  const SimulatedMotor& motor(size_t i) const { return motors_.at(i); }
  std::optional<size_t> find_send_id(uint32_t send_id) const;
  MotorState state(size_t i) const;

  Plant& plant() { return *plant_; }
  const Plant& plant() const { return *plant_; }

  // Torque added to motor i's own torque on its shaft (a push, a load, a collision).
  void set_external_torque(size_t i, double tau) { external_torque_.at(i) = tau; }
  double external_torque(size_t i) const { return external_torque_.at(i); }
  // Places every shaft given (one value per motor, or fewer), at rest.
  void set_posture(const std::vector<double>& positions);
  void set_ambient(double celsius);

 private:
  std::vector<SimulatedMotor> motors_;
  std::unique_ptr<Plant> plant_;
  SimulationOptions options_;
  std::vector<double> external_torque_;
  std::vector<double> torque_;
};

}  // namespace kestrel::sim
