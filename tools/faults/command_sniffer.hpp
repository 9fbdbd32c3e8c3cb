// Listens on a CAN interface beside the controller, as candump would, and keeps every MIT
// command the arm's motors were sent, so that the largest step between two commands can be
// measured whatever happens to the simulated motors (a killed simulator included).
#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace kestrel::faults {

struct MitCommandSeen {
  int64_t time_ns = 0;
  int joint = 0;  // 0-based
  double q = 0.0, dq = 0.0, kp = 0.0;
};

class CommandSniffer {
 public:
  explicit CommandSniffer(const std::string& interface);  // throws std::system_error
  ~CommandSniffer();
  CommandSniffer(const CommandSniffer&) = delete;
  CommandSniffer& operator=(const CommandSniffer&) = delete;

  // Commands seen at or after `since_ns`.
  std::vector<MitCommandSeen> commands_since(int64_t since_ns) const;

 private:
  void run();

  int socket_ = -1;
  std::atomic<bool> stopping_{false};
  mutable std::mutex mutex_;
  std::vector<MitCommandSeen> seen_;
  std::thread thread_;
};

// The largest step between consecutive position-holding MIT commands of one joint, as a
// fraction of what the limits allow between the two frames: position against vmax, velocity
// against amax, over the time between them (at least one control period, plus one more period
// of bus jitter) and two counts of the frame's field. Above 1: a jump. Torque-only frames
// (kp = 0) are left out.
double largest_command_step(const std::vector<MitCommandSeen>& commands,
                            const std::array<double, 6>& vmax, const std::array<double, 6>& amax);

}  // namespace kestrel::faults
