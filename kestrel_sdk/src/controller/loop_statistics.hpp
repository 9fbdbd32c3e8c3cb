// Timing of the control loop: how long each cycle computed and how late it woke, as lock-free
// histograms (1 µs bins up to 20 ms) that the loop fills without allocating and any thread reads.
#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>

namespace kestrel::controller {

struct ControlLoopStatistics {
  uint64_t cycles = 0;
  uint64_t missed_deadlines = 0;  // cycles that ended at or after their deadline
  double compute_median_us = 0.0;
  double compute_p99_us = 0.0;
  double compute_max_us = 0.0;
  double jitter_median_us = 0.0;  // wake-up time minus deadline
  double jitter_p99_us = 0.0;
  double jitter_max_us = 0.0;
};

class LoopTimingRecorder {
 public:
  void record(int64_t compute_ns, int64_t jitter_ns, bool missed);
  ControlLoopStatistics snapshot() const;

 private:
  static constexpr std::size_t kBins = 20000;  // 1 µs each; the last bin takes everything longer
  using Histogram = std::array<std::atomic<uint32_t>, kBins>;

  static void add(Histogram& h, std::atomic<int64_t>& max_ns, int64_t ns);
  static void percentiles(const Histogram& h, uint64_t total, double& median, double& p99);

  Histogram compute_{};
  Histogram jitter_{};
  std::atomic<int64_t> compute_max_ns_{0};
  std::atomic<int64_t> jitter_max_ns_{0};
  std::atomic<uint64_t> cycles_{0};
  std::atomic<uint64_t> missed_{0};
};

}  // namespace kestrel::controller
