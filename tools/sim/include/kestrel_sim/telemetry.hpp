// Frame rates each way over the last second and the share of a real bus they would take: an
// 8-byte classic frame with an 11-bit identifier is 111 bits (a 1 Mbit/s bus carries about
// 9,000 a second); an 8-byte CAN FD frame at 1 Mbit/s arbitration and 5 Mbit/s data takes
// about 49 µs. Dynamic stuff bits are left out of both, as bus-load figures usually are.
#pragma once

#include <array>
#include <cstdint>
#include <mutex>
#include <string>

#include "kestrel_sim/frame.hpp"

namespace kestrel::sim {

struct BusTiming {
  double nominal_bitrate = 1e6;  // arbitration phase, bit/s
  double data_bitrate = 5e6;     // FD data phase with bit-rate switch, bit/s
};

// Time the frame occupies the bus when sent as a classic frame and as an FD frame with
// bit-rate switch: 30 bits at the nominal rate, 32 + 8n bits (37 + 8n above 16 bytes) at the
// data rate, payload padded to a valid FD length; 49.2 µs for 8 bytes at 1/5 Mbit/s.
double classic_frame_seconds(int len, const BusTiming& timing = {}, bool extended = false);
double fd_frame_seconds(int len, const BusTiming& timing = {}, bool extended = false);

struct TelemetrySnapshot {
  double window_seconds = 0.0;  // span the rates cover (1 s once running that long)
  double received_fps = 0.0;    // frames the simulator received (the host's commands)
  double sent_fps = 0.0;        // replies the simulator sent
  double classic_load = 0.0;    // fraction of a 1 Mbit/s classic bus both directions take
  double fd_load = 0.0;         // fraction of a 1/5 Mbit/s CAN FD bus
  uint64_t received_total = 0;
  uint64_t sent_total = 0;
  uint64_t dropped_total = 0;          // replies dropped by fault injection
  double mean_reply_latency_us = 0.0;  // frame read to reply written, inside the simulator
  double max_reply_latency_us = 0.0;
};
// "rx 4200.0 fps  tx 4200.0 fps  classic 93.2 %  FD 41.2 %"
std::string format_line(const TelemetrySnapshot& s);

// Sliding one-second window of 10 ms buckets. Thread-safe.
class TelemetryMeter {
 public:
  explicit TelemetryMeter(BusTiming timing = {});
  enum class Direction { kReceived, kSent };
  void record(Direction direction, const Frame& frame, TimePoint now);
  void record_drop();
  void record_latency(double microseconds);
  TelemetrySnapshot snapshot(TimePoint now) const;
  void reset(TimePoint now);

 private:
  static constexpr int kBuckets = 100;
  static constexpr std::chrono::milliseconds kBucketWidth{10};
  struct Bucket {
    int64_t index = -1;
    uint32_t received = 0;
    uint32_t sent = 0;
    double classic_seconds = 0.0;
    double fd_seconds = 0.0;
  };
  int64_t bucket_index(TimePoint t) const;

  BusTiming timing_;
  mutable std::mutex mutex_;
  TimePoint start_;
  std::array<Bucket, kBuckets> buckets_{};
  uint64_t received_total_ = 0;
  uint64_t sent_total_ = 0;
  uint64_t dropped_total_ = 0;
  uint64_t latency_count_ = 0;
  double latency_sum_us_ = 0.0;
  double latency_max_us_ = 0.0;
};

}  // namespace kestrel::sim
