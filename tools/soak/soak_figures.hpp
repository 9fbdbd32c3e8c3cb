// The figures of a soak run: what the process holds (resident memory, descriptors, threads) and
// how the control loop kept time, per reporting interval, and the verdict on growth after the
// warm-up.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "kestrel/controller/loop_statistics.hpp"

namespace kestrel::soak {

// This process as /proc/self shows it.
struct ProcessFigures {
  double rss_mb = 0.0;  // VmRSS
  double hwm_mb = 0.0;  // VmHWM: the largest resident size so far
  // What the program holds from malloc (all arenas, and its mmapped blocks): resident memory
  // above it is memory the allocator keeps for later, e.g. after a large transient allocation.
  double heap_mb = 0.0;
  int fds = 0;  // open descriptors
  int threads = 0;
};

ProcessFigures read_process_figures();

// Control-loop histograms added up over an interval, across the controllers it saw.
class LoopTiming {
 public:
  void add(const controller::ControlLoopHistograms& histograms);
  uint64_t cycles() const { return cycles_; }
  uint64_t missed() const { return missed_; }
  controller::TimingSummary compute() const;  // the cycle's own work
  controller::TimingSummary io() const;       // bus writes and reads
  controller::TimingSummary wake_up() const;  // lateness of the wake-up against the deadline

 private:
  std::vector<uint64_t> compute_;
  std::vector<uint64_t> io_;
  std::vector<uint64_t> wake_up_;
  uint64_t cycles_ = 0;
  uint64_t missed_ = 0;
};

struct IntervalFigures {
  int index = 1;  // 1, 2, ...
  ProcessFigures process;
  uint64_t cycles = 0;
  uint64_t missed = 0;
  controller::TimingSummary compute;
  controller::TimingSummary io;
  controller::TimingSummary wake_up;
  uint64_t calls = 0;  // calls made on the controller in the interval
  int restarts = 0;    // controllers made afresh in the interval
};

// "minute 3" for one-minute intervals, "interval 3 (30 s)" otherwise.
std::string interval_name(int index, double interval_sec);
// "minute 3: rss 41.2 MB (hwm 41.9), fds 12, threads 5, cycles 24000, cycle p50 ..."
std::string report_line(const IntervalFigures& figures, double interval_sec);

struct GrowthLimits {
  size_t warm_up_intervals = 1;  // the baseline is the figures at the end of these
  double rss_mb = 4.0;           // last interval's RSS above the baseline
  // A leak still under way: the least-squares slope of RSS over the later half of the intervals
  // from the baseline on, once that half has `slope_samples` of them, above this rate and adding
  // up to `slope_growth_mb` over the half.
  double rss_slope_mb_per_min = 0.1;
  double slope_growth_mb = 1.0;
  size_t slope_samples = 5;
};

struct GrowthVerdict {
  bool judged = false;  // false: no interval after the warm-up to compare
  double rss_growth_mb = 0.0;
  bool slope_judged = false;  // enough intervals for the slope
  double rss_slope_mb_per_min = 0.0;
  int fd_growth = 0;
  int thread_growth = 0;
  std::vector<std::string> failures;
  bool passed() const { return judged && failures.empty(); }
};

GrowthVerdict judge_growth(const std::vector<IntervalFigures>& intervals, double interval_sec,
                           const GrowthLimits& limits);

// The table of every interval, the totals and the growth figures, one line each.
std::string summary(const std::vector<IntervalFigures>& intervals, double interval_sec,
                    const GrowthVerdict& verdict, const GrowthLimits& limits);
// "verdict: PASS: ..." or "verdict: FAIL: <every failure>".
std::string verdict_line(const GrowthVerdict& verdict);

}  // namespace kestrel::soak
