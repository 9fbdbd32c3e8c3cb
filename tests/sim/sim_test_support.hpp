// Helpers shared by the simulator's tests: payload literals, frames as text, a socket-free harness
// that feeds frames into a MotorSimulation with synthetic time, and one request-reply exchange on
// a raw CAN socket.
#pragma once

#include <linux/can.h>
#include <unistd.h>

#include <chrono>
#include <cstring>
#include <initializer_list>
#include <optional>

#include "kestrel_sim/motor_simulation.hpp"
#include "support/simbus_can.hpp"

namespace kestrel::sim::test {

using namespace std::chrono_literals;

inline Payload command_bytes(uint8_t last) {
  return Payload{0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, last};
}
inline const Payload kEnable = command_bytes(0xFC);

// "0x012 [8] 12 7F ..." (FD frames: "FD[8]" and their flags, " flags=1" for bit-rate switch), or
// "" for no frame.
inline std::string text(const std::optional<Frame>& f) {
  return !f ? "" : to_string(*f) + (f->flags ? " flags=" + std::to_string(f->flags) : "");
}

class Harness {
 public:
  explicit Harness(std::vector<MotorConfig> configs = arm_motor_configs(),
                   std::unique_ptr<Plant> plant = nullptr)
      : sim(std::move(configs), std::move(plant)) {}

  // Sends one frame; the reply frame of the (single) addressed motor, if any.
  std::optional<Frame> send(uint32_t id, const Payload& payload, bool fd = false) {
    last = sim.handle_frame(fd ? Frame::canfd(id, payload) : Frame::classic(id, payload), now);
    return last.empty() ? std::nullopt : last.front().reply;
  }
  std::string reply(uint32_t id, const Payload& payload) {
    auto f = send(id, payload);
    return f ? to_hex(f->payload()) : "";
  }
  void enable(std::initializer_list<uint32_t> ids) {
    for (const uint32_t id : ids) {
      send(id, kEnable);
    }
  }
  // One MIT frame to motor `index` (0 = joint 1), scaled with that motor's limits.
  void mit(size_t index, const dm::MitCommand& c) {
    send(sim.motor(index).config().send_id, dm::encode_mit(c, sim.motor(index).limits()));
  }
  void write_register(uint8_t id, uint8_t rid, uint32_t bits) {
    send(0x7FF, dm::encode_param({id, dm::kParamWrite, rid, bits}));
  }
  // The status byte of the reply (the feedback frame's first byte).
  int status(uint32_t id, const Payload& payload) { return send(id, payload)->data[0]; }

  // Runs the mechanics for `seconds` of simulated time in 1 ms physics ticks.
  void run(double seconds) {
    const int ticks = static_cast<int>(seconds * 1000.0 + 0.5);
    for (int i = 0; i < ticks; ++i) {
      wait(1ms);
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

// One 8-byte frame (FD with bit-rate switch when `fd`) written on a raw CAN socket as any host
// program writes it.
inline bool send_raw(int socket, uint32_t id, const Payload& p, bool fd = false) {
  canfd_frame f{};
  f.can_id = id;
  f.len = 8;
  f.flags = fd ? CANFD_BRS : 0;
  std::memcpy(f.data, p.data(), 8);
  const size_t size = fd ? CANFD_MTU : CAN_MTU;
  return ::write(socket, &f, size) == static_cast<ssize_t>(size);
}

// The next frame read from a raw CAN socket as text(), or "" when none comes within `timeout_ms`.
inline std::string receive(int socket, int timeout_ms = 500) {
  canfd_frame f{};
  const ssize_t n = simbus::rawcan::read_within(socket, &f, sizeof f, timeout_ms);
  if (n <= 0) {
    return "";
  }
  Frame r = Frame::classic(f.can_id, {});
  r.fd = n == CANFD_MTU;
  r.flags = r.fd ? f.flags & (CANFD_BRS | CANFD_ESI) : 0;  // CANFD_FDF only marks FD
  r.len = f.len;
  std::memcpy(r.data.data(), f.data, f.len);
  return text(r);
}

inline std::string ask(int socket, uint32_t id, const Payload& p, int timeout_ms = 500,
                       bool fd = false) {
  return send_raw(socket, id, p, fd) ? receive(socket, timeout_ms) : "write failed";
}

}  // namespace kestrel::sim::test
