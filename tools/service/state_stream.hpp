// The arm's state as the service reports it (one JSON object: joints, gripper, torques, tool
// pose, the latest control cycle, loop statistics, motor status and who holds control), once
// on request or streamed to a subscriber at the rate it chose.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <functional>
#include <mutex>
#include <thread>

#include "line_channel.hpp"
#include "request_dispatch.hpp"

namespace kestrel::service {

// Makes state snapshots of one arm. The loop statistics are summarised from histograms of
// 60,000 bins, which costs far more than the rest of a snapshot: they are refreshed at most
// every 100 ms, so that state queries and fast streams stay cheap.
class StateReader {
 public:
  StateReader(ArmController& arm, ArmFacts facts) : arm_(arm), facts_(facts) {}
  json snapshot(int control_holder);

 private:
  json loop_statistics();
  ArmController& arm_;
  ArmFacts facts_;
  std::mutex loop_mutex_;
  json loop_;
  std::chrono::steady_clock::time_point loop_time_{};
};

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
