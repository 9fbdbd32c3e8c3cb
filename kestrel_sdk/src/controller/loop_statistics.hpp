// Timing of the control loop, per cycle: the compute (targets, feed-forward, frame encoding,
// supervision), the bus I/O (frame writes, feedback refresh, reading the replies), and how late
// the cycle woke against its deadline. Lock-free histograms (1 µs bins up to 20 ms) that the
// loop fills without allocating and any thread reads.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kestrel/canbus/can_socket.hpp"

namespace kestrel::controller {

// Median, 99th percentile and largest value of one quantity, µs. Percentiles stand for the centre
// of their 1 µs bin.
struct TimingSummary {
  double median_us = 0.0;
  double p99_us = 0.0;
  double max_us = 0.0;
};

struct ControlLoopStatistics {
  uint64_t cycles = 0;
  uint64_t missed_deadlines = 0;   // cycles that ended at or after their deadline
  double compute_median_us = 0.0;  // the cycle's own work, bus I/O excluded
  double compute_p99_us = 0.0;
  double compute_max_us = 0.0;
  double io_median_us = 0.0;  // writes, feedback refresh and recv_all
  double io_p99_us = 0.0;
  double io_max_us = 0.0;
  double jitter_median_us = 0.0;  // wake-up time minus deadline
  double jitter_p99_us = 0.0;
  double jitter_max_us = 0.0;
  // Frame writes the controller's socket could not make, since it was opened (a reset of the
  // timing figures leaves them).
  canbus::SendFailureCounts send_failures;
};

// Cycle counts per 1 µs bin (bin i: [i, i + 1) µs; the last bin takes everything longer),
// trimmed after the last non-empty bin.
struct ControlLoopHistograms {
  std::vector<uint64_t> compute;
  std::vector<uint64_t> io;
  std::vector<uint64_t> jitter;
  uint64_t cycles = 0;
  uint64_t missed_deadlines = 0;
};

class LoopTimingRecorder {
 public:
  static constexpr std::size_t kBins = 20000;

  void record(int64_t compute_ns, int64_t io_ns, int64_t jitter_ns, bool missed);
  ControlLoopStatistics snapshot() const;
  ControlLoopHistograms histograms() const;
  // Starts the figures afresh (a cycle recorded meanwhile may be half counted).
  void reset();

  // Median, p99 of a histogram as returned by histograms(); max is the last non-empty bin.
  static TimingSummary summarize(const std::vector<uint64_t>& bins);

 private:
  using Histogram = std::array<std::atomic<uint32_t>, kBins>;
  struct Quantity {
    Histogram bins{};
    std::atomic<int64_t> max_ns{0};
    void add(int64_t ns);
    void reset();
    std::vector<uint64_t> copy() const;
  };

  Quantity compute_;
  Quantity io_;
  Quantity jitter_;
  std::atomic<uint64_t> cycles_{0};
  std::atomic<uint64_t> missed_{0};
};

}  // namespace kestrel::controller
