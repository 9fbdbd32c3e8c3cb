// What a hub reports about one interface: state and traffic counters.
#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <string>

namespace kestrel::simbus {

struct InterfaceStatistics {
  std::string name;
  int ifindex = 0;
  bool up = false;
  int mtu = 0;             // CAN_MTU (16): classic frames only; CANFD_MTU (72): CAN FD too
  bool wire_time = false;  // frames paced at the bit rates below
  std::uint32_t bitrate = 0;
  std::uint32_t data_bitrate = 0;
  std::size_t clients = 0;                // attached CAN sockets
  std::uint64_t frames_received = 0;      // frames clients wrote that reached the hub
  std::uint64_t frames_relayed = 0;       // frames that went over the bus, each counted once
  std::uint64_t deliveries = 0;           // copies handed to receiving sockets
  std::uint64_t frames_dropped = 0;       // copies a full receiver could not take
  std::uint64_t frames_discarded = 0;     // frames lost because the interface was down
  std::chrono::nanoseconds busy_time{0};  // wire time of the relayed frames, summed
  std::chrono::nanoseconds elapsed{0};    // since the hub started or the counters were reset

  // Fraction of the elapsed time the bus was busy (0 when no time has elapsed). Without
  // wire-time emulation frames are relayed as fast as they come, so the load can exceed 1:
  // that traffic would not fit on a real bus at the configured bit rates.
  double load() const {
    return elapsed.count() > 0
               ? static_cast<double>(busy_time.count()) / static_cast<double>(elapsed.count())
               : 0.0;
  }
};

}  // namespace kestrel::simbus
