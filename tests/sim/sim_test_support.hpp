// Helpers shared by the simulator's tests: payload literals and a socket-free harness that feeds
// frames into a MotorSimulation with synthetic time.
#pragma once

#include <chrono>
#include <optional>

#include "kestrel_sim/motor_simulation.hpp"

namespace kestrel::sim::test {

using namespace std::chrono_literals;

inline Payload command_bytes(uint8_t last) {
  return Payload{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, last};
}

class Harness {
 public:
  explicit Harness(std::vector<MotorConfig> configs = arm_motor_configs(),
                   std::unique_ptr<Plant> plant = nullptr)
      : sim(std::move(configs), std::move(plant)) {}

  // Sends one classic frame; the reply frame of the (single) addressed motor, if any.
  std::optional<Frame> send(uint32_t id, const Payload& payload, bool fd = false) {
    Frame f = fd ? Frame::canfd(id, payload) : Frame::classic(id, payload);
    last = sim.handle_frame(f, now);
    if (last.empty()) {
      return std::nullopt;
    }
    return last.front().reply;
  }
  std::optional<Payload> reply(uint32_t id, const Payload& payload) {
    auto f = send(id, payload);
    return f ? std::optional<Payload>(f->payload()) : std::nullopt;
  }

  // Runs the mechanics for `seconds` of simulated time in 1 ms physics ticks.
  void run(double seconds) {
    const int ticks = static_cast<int>(seconds * 1000.0 + 0.5);
    for (int i = 0; i < ticks; ++i) {
      now += 1ms;
      sim.advance(1e-3, now);
    }
  }
  void wait(std::chrono::microseconds d) {
    now += d;
    sim.advance(std::chrono::duration<double>(d).count(), now);
  }

  MotorSimulation sim;
  TimePoint now{std::chrono::seconds(1000)};
  std::vector<MotorSimulation::Outcome> last;
};

inline MotorConfig frictionless(int type, uint32_t id, double inertia = 0.01) {
  MotorConfig s;
  s.name = "m" + std::to_string(id);
  s.type = type;
  s.send_id = id;
  s.master_id = 0x10 + id;
  s.dynamics = JointDynamics{inertia, 0.0, 0.0};
  return s;
}

}  // namespace kestrel::sim::test
