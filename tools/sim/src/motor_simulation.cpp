#include "kestrel_sim/motor_simulation.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

namespace kestrel::sim {

namespace {

std::unique_ptr<Plant> default_plant(const std::vector<MotorConfig>& configs) {
  std::vector<JointDynamics> joints;
  std::vector<double> positions;
  for (const MotorConfig& s : configs) {
    joints.push_back(s.dynamics);
    positions.push_back(s.initial_position);
  }
  return std::make_unique<IndependentJointPlant>(std::move(joints), std::move(positions));
}

}  // namespace

MotorSimulation::MotorSimulation(std::vector<MotorConfig> configs, std::unique_ptr<Plant> plant,
                                 SimulationOptions options)
    : options_(options), external_torque_(configs.size(), 0.0), torque_(configs.size(), 0.0) {
  if (!(options_.inner_step > 0.0)) {
    throw std::invalid_argument("inner step must be positive");
  }
  for (const MotorConfig& s : configs) {
    dm::limits_of_type(s.type);  // rejects unknown models
    motors_.emplace_back(s, options_.ambient_celsius);
  }
  plant_ = plant ? std::move(plant) : default_plant(configs);
  if (plant_->size() != motors_.size()) {
    throw std::invalid_argument("the plant must have one shaft per motor");
  }
}

std::vector<MotorSimulation::Outcome> MotorSimulation::handle_frame(const Frame& frame,
                                                                    TimePoint now) {
  std::vector<Outcome> out;
  for (size_t i = 0; i < motors_.size(); ++i) {
    SimulatedMotor& m = motors_[i];
    if (!m.addressed_by(frame)) {
      continue;
    }
    Outcome o;
    o.motor = i;
    o.command.motor = static_cast<int>(i);
    std::optional<Payload> reply =
        m.handle(frame, now, plant_->position(i), plant_->velocity(i), o.command);
    if (reply) {
      o.reply = frame.fd ? Frame::canfd(m.config().master_id, *reply)
                         : Frame::classic(m.config().master_id, *reply);
    }
    out.push_back(std::move(o));
  }
  return out;
}

void MotorSimulation::advance(double dt, TimePoint now) {
  if (dt > 0.0) {
    const int steps = std::max(1, static_cast<int>(std::lround(dt / options_.inner_step)));
    const double h = dt / steps;
    for (int k = 0; k < steps; ++k) {
      for (size_t i = 0; i < motors_.size(); ++i) {
        torque_[i] = motors_[i].control_torque(plant_->position(i), plant_->velocity(i), h) +
                     external_torque_[i];
      }
      plant_->step(h, torque_);
    }
  }
  for (SimulatedMotor& m : motors_) {
    m.tick(now, dt);
  }
}

std::optional<size_t> MotorSimulation::find_send_id(uint32_t send_id) const {
  for (size_t i = 0; i < motors_.size(); ++i) {
    if (motors_[i].config().send_id == send_id) {
      return i;
    }
  }
  return std::nullopt;
}

MotorState MotorSimulation::state(size_t i) const {
  return motors_.at(i).state(plant_->position(i), plant_->velocity(i));
}

void MotorSimulation::set_posture(const std::vector<double>& positions) {
  if (positions.size() > motors_.size()) {
    throw std::invalid_argument("more positions than motors");
  }
  for (size_t i = 0; i < positions.size(); ++i) {
    plant_->set_state(i, positions[i], 0.0);
  }
}

void MotorSimulation::set_ambient(double celsius) {
  for (SimulatedMotor& m : motors_) {
    m.set_ambient(celsius);
  }
}

}  // namespace kestrel::sim
