#include "kestrel/controller/loop_statistics.hpp"

#include <algorithm>

namespace kestrel::controller {

void LoopTimingRecorder::add(Histogram& h, std::atomic<int64_t>& max_ns, int64_t ns) {
  ns = std::max<int64_t>(ns, 0);
  const size_t bin = std::min<size_t>(static_cast<size_t>(ns / 1000), kBins - 1);
  h[bin].fetch_add(1, std::memory_order_relaxed);
  int64_t seen = max_ns.load(std::memory_order_relaxed);
  while (ns > seen && !max_ns.compare_exchange_weak(seen, ns, std::memory_order_relaxed)) {
  }
}

void LoopTimingRecorder::record(int64_t compute_ns, int64_t jitter_ns, bool missed) {
  add(compute_, compute_max_ns_, compute_ns);
  add(jitter_, jitter_max_ns_, jitter_ns);
  cycles_.fetch_add(1, std::memory_order_relaxed);
  if (missed) {
    missed_.fetch_add(1, std::memory_order_relaxed);
  }
}

void LoopTimingRecorder::percentiles(const Histogram& h, uint64_t total, double& median,
                                     double& p99) {
  median = 0.0;
  p99 = 0.0;
  if (total == 0) {
    return;
  }
  const uint64_t median_rank = (total + 1) / 2;
  const uint64_t p99_rank = std::max<uint64_t>(1, (total * 99 + 99) / 100);
  uint64_t seen = 0;
  bool have_median = false;
  for (size_t bin = 0; bin < kBins; ++bin) {
    seen += h[bin].load(std::memory_order_relaxed);
    // A bin stands for its centre.
    if (!have_median && seen >= median_rank) {
      median = static_cast<double>(bin) + 0.5;
      have_median = true;
    }
    if (seen >= p99_rank) {
      p99 = static_cast<double>(bin) + 0.5;
      return;
    }
  }
}

ControlLoopStatistics LoopTimingRecorder::snapshot() const {
  ControlLoopStatistics s;
  uint64_t compute_total = 0;
  uint64_t jitter_total = 0;
  for (size_t bin = 0; bin < kBins; ++bin) {
    compute_total += compute_[bin].load(std::memory_order_relaxed);
    jitter_total += jitter_[bin].load(std::memory_order_relaxed);
  }
  s.cycles = cycles_.load(std::memory_order_relaxed);
  s.missed_deadlines = missed_.load(std::memory_order_relaxed);
  percentiles(compute_, compute_total, s.compute_median_us, s.compute_p99_us);
  percentiles(jitter_, jitter_total, s.jitter_median_us, s.jitter_p99_us);
  s.compute_max_us = static_cast<double>(compute_max_ns_.load(std::memory_order_relaxed)) / 1e3;
  s.jitter_max_us = static_cast<double>(jitter_max_ns_.load(std::memory_order_relaxed)) / 1e3;
  return s;
}

}  // namespace kestrel::controller
