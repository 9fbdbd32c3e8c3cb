// A CAN frame as the simulator sees it, independent of the kernel's can_frame/canfd_frame
// records (the socket runner converts at the edge).
#pragma once

#include <algorithm>
#include <array>
#include <chrono>
#include <cstdint>
#include <initializer_list>
#include <string>

namespace kestrel::sim {

using Clock = std::chrono::steady_clock;
using TimePoint = Clock::time_point;

// Every DM payload is exactly 8 bytes.
using Payload = std::array<uint8_t, 8>;

struct Frame {
  static constexpr uint8_t kBitRateSwitch = 0x01;        // CANFD_BRS
  static constexpr uint8_t kErrorStateIndicator = 0x02;  // CANFD_ESI

  uint32_t id = 0;  // 11-bit identifier, or 29-bit when `extended`
  bool extended = false;
  bool remote = false;
  bool fd = false;
  uint8_t flags = 0;  // FD flags as on the wire (bit-rate switch, error state)
  uint8_t len = 0;
  std::array<uint8_t, 64> data{};

  static Frame classic(uint32_t id, const Payload& payload) {
    Frame f;
    f.id = id;
    f.len = 8;
    std::copy(payload.begin(), payload.end(), f.data.begin());
    return f;
  }
  // FD frames the DM motors send: 8 bytes with the bit-rate switch.
  static Frame canfd(uint32_t id, const Payload& payload) {
    Frame f = classic(id, payload);
    f.fd = true;
    f.flags = kBitRateSwitch;
    return f;
  }
  // A classic frame of exactly the bytes given (at most 8), for frames of unusual length.
  static Frame with_bytes(uint32_t id, std::initializer_list<uint8_t> bytes) {
    Frame f;
    f.id = id;
    f.len = static_cast<uint8_t>(std::min<size_t>(bytes.size(), 8));
    std::copy_n(bytes.begin(), f.len, f.data.begin());
    return f;
  }

  // The first 8 bytes (zero-filled when the frame is shorter).
  Payload payload() const {
    Payload p{};
    std::copy_n(data.begin(), p.size(), p.begin());
    return p;
  }

  bool same_content(const Frame& o) const {
    return id == o.id && extended == o.extended && remote == o.remote && fd == o.fd &&
           len == o.len && std::equal(data.begin(), data.begin() + len, o.data.begin());
  }
};

// "0x001 [8] FF FF FF FF FF FF FF FC" (FD frames carry "FD" before the length).
std::string to_string(const Frame& frame);
std::string to_hex(const Payload& payload);

}  // namespace kestrel::sim
