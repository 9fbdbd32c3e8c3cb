// The userspace CAN bus hub: serves CAN interfaces to emulated SocketCAN sockets.
//
// Each served interface is a Unix-domain SOCK_SEQPACKET listening socket in the bus directory
// (see simbus_paths.hpp). The hub relays every frame one client writes to every other client
// of the same interface, in order and never back to the sender (unless it asked for its own
// frames with CAN_RAW_RECV_OWN_MSGS). Classic sockets receive classic frames only; CAN FD
// sockets receive classic frames as 16 bytes and FD frames as 72 bytes. Receive filters set
// with CAN_RAW_FILTER / CAN_RAW_ERR_FILTER are applied with the kernel's matching rules.
//
// The hub never blocks on a client: a receiver whose socket buffer is full loses the frame and
// the loss is counted. With wire-time emulation, frames are delivered when their transmission
// at the configured bit rates would end, and the sockets waiting for a busy bus arbitrate as CAN
// nodes do: lowest identifier first, each socket's own frames in the order it wrote them.
//
// Typical use in a test (see also ScopedSimbus in simbus_testing.hpp):
//   kestrel::simbus::Hub hub({"can0"});
//   hub.start();               // can0 is now visible to every interposed process
//   hub.set_up("can0", false); // like `ip link set can0 down`
//   hub.set_mtu("can0", 16);   // like `ip link set can0 mtu 16`: classic CAN only
//   hub.stop();                // also done by the destructor
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

#include "simbus/simbus_statistics.hpp"
#include "simbus/simbus_wire_time.hpp"

namespace kestrel::simbus {

struct HubOptions {
  // Bus directory; empty means bus_directory() at construction time.
  std::string directory;
  // Pace delivery at the bit rates below; off: frames are relayed as soon as they arrive.
  bool wire_time = false;
  std::uint32_t bitrate = kDefaultBitrate;           // nominal (arbitration) rate, bit/s
  std::uint32_t data_bitrate = kDefaultDataBitrate;  // CAN FD data phase rate, bit/s
};

class Hub {
 public:
  // Checks the names (kernel rules: 1 to 15 characters, no '/', ':' or blanks, no duplicate)
  // and options; throws std::invalid_argument. Serves nothing until start().
  explicit Hub(std::vector<std::string> interfaces, HubOptions options = {});
  // Stops the hub and removes its socket and state files.
  ~Hub();

  Hub(const Hub&) = delete;
  Hub& operator=(const Hub&) = delete;

  // Creates the directory if needed (mode 0700), the socket and state files, and starts the
  // relay thread. Every interface starts up, unless set_up(name, false) came first. Throws
  // std::runtime_error when an interface is already served by a live hub in the same directory or a
  // file cannot be created; stale files left by a dead hub are replaced.
  void start();
  // Stops the relay thread, disconnects all clients and removes the files. Idempotent.
  void stop();
  bool running() const;

  // Marks an interface up or down; takes effect for the next frame written. While down, writes
  // fail with ENETDOWN and nothing is relayed (frames waiting for the bus are discarded).
  // Throws std::invalid_argument for a name this hub does not serve.
  void set_up(const std::string& name, bool up);
  bool is_up(const std::string& name) const;

  // The interface's MTU, as `ip link set NAME mtu N` sets it on a vcan: CAN_MTU (16) takes
  // classic frames only, and a CAN FD socket's 72-byte writes fail with EINVAL; CANFD_MTU (72,
  // the default) takes both. Throws std::invalid_argument for another value or a name this hub
  // does not serve, and std::runtime_error while the interface is up (set it down first; before
  // start() any change is taken).
  void set_mtu(const std::string& name, int mtu);
  int mtu(const std::string& name) const;

  InterfaceStatistics statistics(const std::string& name) const;
  std::vector<InterfaceStatistics> statistics() const;
  // Zeroes the counters and restarts the elapsed time of every interface.
  void reset_statistics();

  const std::string& directory() const;
  const std::vector<std::string>& interfaces() const;
  const HubOptions& options() const;

 private:
  class Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace kestrel::simbus
