// The arm's state as the service reports it (one JSON object: joints, gripper, torques, tool
// pose, the latest control cycle, loop statistics, motor status and who holds control), once
// on request or streamed to a subscriber at the rate it chose.
#pragma once

#include <atomic>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "line_channel.hpp"
#include "request_dispatch.hpp"

namespace kestrel::service {

json state_snapshot(ArmController& arm, const ArmFacts& facts, int control_holder);

// Streams {"event": "state", "state": {...}} lines to one client until stopped or the client
// has gone.
class StateStream {
 public:
  static constexpr double kMaxRateHz = 800.0;  // twice the control rate: every cycle is seen

  // `snapshot` makes one state; it runs on the stream's own thread.
  StateStream(LineChannel& channel, std::function<json()> snapshot);
  ~StateStream();  // stops the stream
  StateStream(const StateStream&) = delete;
  StateStream& operator=(const StateStream&) = delete;

  // Starts streaming at `rate_hz` in (0, kMaxRateHz], or changes the rate; std::invalid_argument
  // for another rate.
  void start(double rate_hz);
  void stop();

 private:
  void run();
  LineChannel& channel_;
  std::function<json()> snapshot_;
  std::mutex mutex_;
  std::condition_variable wake_;
  double period_sec_ = 0.0;
  bool quit_ = false;
  std::thread thread_;
};

}  // namespace kestrel::service
