#include "kestrel/controller/loop_statistics.hpp"

#include <algorithm>

namespace kestrel::controller {

void LoopTimingRecorder::Quantity::add(int64_t ns) {
  ns = std::max<int64_t>(ns, 0);
  const size_t bin = std::min<size_t>(static_cast<size_t>(ns / 1000), kBins - 1);
  bins[bin].fetch_add(1, std::memory_order_relaxed);
  int64_t seen = max_ns.load(std::memory_order_relaxed);
  while (ns > seen && !max_ns.compare_exchange_weak(seen, ns, std::memory_order_relaxed)) {
  }
}

void LoopTimingRecorder::Quantity::reset() {
  for (auto& b : bins) {
    b.store(0, std::memory_order_relaxed);
  }
  max_ns.store(0, std::memory_order_relaxed);
}

std::vector<uint64_t> LoopTimingRecorder::Quantity::copy() const {
  std::vector<uint64_t> out(kBins);
  size_t used = 0;
  for (size_t i = 0; i < kBins; ++i) {
    out[i] = bins[i].load(std::memory_order_relaxed);
    used = out[i] != 0 ? i + 1 : used;
  }
  out.resize(used);
  return out;
}

void LoopTimingRecorder::record(int64_t compute_ns, int64_t io_ns, int64_t jitter_ns, bool missed) {
  compute_.add(compute_ns);
  io_.add(io_ns);
  jitter_.add(jitter_ns);
  cycles_.fetch_add(1, std::memory_order_relaxed);
  if (missed) {
    missed_.fetch_add(1, std::memory_order_relaxed);
  }
}

TimingSummary LoopTimingRecorder::summarize(const std::vector<uint64_t>& bins) {
  TimingSummary s;
  uint64_t total = 0;
  for (uint64_t n : bins) {
    total += n;
  }
  if (total == 0) {
    return s;
  }
  const uint64_t median_rank = (total + 1) / 2;
  const uint64_t p99_rank = std::max<uint64_t>(1, (total * 99 + 99) / 100);
  uint64_t seen = 0;
  bool have_median = false;
  bool have_p99 = false;
  for (size_t bin = 0; bin < bins.size(); ++bin) {
    seen += bins[bin];
    // A bin stands for its centre.
    if (!have_median && seen >= median_rank) {
      s.median_us = static_cast<double>(bin) + 0.5;
      have_median = true;
    }
    if (!have_p99 && seen >= p99_rank) {
      s.p99_us = static_cast<double>(bin) + 0.5;
      have_p99 = true;
    }
    if (bins[bin] != 0) {
      s.max_us = static_cast<double>(bin) + 1.0;
    }
  }
  return s;
}

ControlLoopHistograms LoopTimingRecorder::histograms() const {
  ControlLoopHistograms h;
  h.cycles = cycles_.load(std::memory_order_relaxed);
  h.missed_deadlines = missed_.load(std::memory_order_relaxed);
  h.compute = compute_.copy();
  h.io = io_.copy();
  h.jitter = jitter_.copy();
  return h;
}

ControlLoopStatistics LoopTimingRecorder::snapshot() const {
  const ControlLoopHistograms h = histograms();
  const TimingSummary compute = summarize(h.compute);
  const TimingSummary io = summarize(h.io);
  const TimingSummary jitter = summarize(h.jitter);
  ControlLoopStatistics s;
  s.cycles = h.cycles;
  s.missed_deadlines = h.missed_deadlines;
  s.compute_median_us = compute.median_us;
  s.compute_p99_us = compute.p99_us;
  s.io_median_us = io.median_us;
  s.io_p99_us = io.p99_us;
  s.jitter_median_us = jitter.median_us;
  s.jitter_p99_us = jitter.p99_us;
  // The largest values exactly, not by their bin.
  s.compute_max_us = static_cast<double>(compute_.max_ns.load(std::memory_order_relaxed)) / 1e3;
  s.io_max_us = static_cast<double>(io_.max_ns.load(std::memory_order_relaxed)) / 1e3;
  s.jitter_max_us = static_cast<double>(jitter_.max_ns.load(std::memory_order_relaxed)) / 1e3;
  return s;
}

void LoopTimingRecorder::reset() {
  compute_.reset();
  io_.reset();
  jitter_.reset();
  cycles_.store(0, std::memory_order_relaxed);
  missed_.store(0, std::memory_order_relaxed);
}

}  // namespace kestrel::controller
