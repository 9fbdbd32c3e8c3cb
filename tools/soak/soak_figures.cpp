#include "soak/soak_figures.hpp"

#include <dirent.h>
#include <malloc.h>

#include <algorithm>
#include <cmath>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <fstream>

namespace kestrel::soak {

namespace {

using controller::LoopTimingRecorder;
using controller::TimingSummary;

// "VmRSS:     41234 kB" -> MB.
double status_megabytes(const std::string& line) {
  return std::strtod(line.c_str() + line.find(':') + 1, nullptr) / 1024.0;
}

int count_entries(const char* directory) {
  DIR* dir = ::opendir(directory);
  if (dir == nullptr) {
    return -1;
  }
  int n = 0;
  while (const dirent* entry = ::readdir(dir)) {
    if (entry->d_name[0] != '.') {
      ++n;
    }
  }
  ::closedir(dir);
  return n;
}

void add_bins(std::vector<uint64_t>& sum, const std::vector<uint64_t>& bins) {
  if (sum.size() < bins.size()) {
    sum.resize(bins.size(), 0);
  }
  for (size_t i = 0; i < bins.size(); ++i) {
    sum[i] += bins[i];
  }
}

std::string format(const char* pattern, ...) __attribute__((format(printf, 1, 2)));
std::string format(const char* pattern, ...) {
  char buffer[512];
  va_list args;
  va_start(args, pattern);
  std::vsnprintf(buffer, sizeof buffer, pattern, args);
  va_end(args);
  return buffer;
}

// Least-squares slope of y over x.
double slope(const std::vector<double>& x, const std::vector<double>& y) {
  const double n = static_cast<double>(x.size());
  double sx = 0.0, sy = 0.0, sxx = 0.0, sxy = 0.0;
  for (size_t i = 0; i < x.size(); ++i) {
    sx += x[i];
    sy += y[i];
    sxx += x[i] * x[i];
    sxy += x[i] * y[i];
  }
  const double d = n * sxx - sx * sx;
  return d > 0.0 ? (n * sxy - sx * sy) / d : 0.0;
}

}  // namespace

ProcessFigures read_process_figures() {
  ProcessFigures f;
  std::ifstream status("/proc/self/status");
  for (std::string line; std::getline(status, line);) {
    if (line.rfind("VmRSS:", 0) == 0) {
      f.rss_mb = status_megabytes(line);
    } else if (line.rfind("VmHWM:", 0) == 0) {
      f.hwm_mb = status_megabytes(line);
    }
  }
  const struct mallinfo2 heap = ::mallinfo2();
  f.heap_mb = static_cast<double>(heap.uordblks + heap.hblkhd) / 1048576.0;
  // Both counts while nothing of ours is open but the listing itself, which takes one descriptor.
  f.fds = count_entries("/proc/self/fd") - 1;
  f.threads = count_entries("/proc/self/task");
  return f;
}

void LoopTiming::add(const controller::ControlLoopHistograms& histograms) {
  add_bins(compute_, histograms.compute);
  add_bins(io_, histograms.io);
  add_bins(wake_up_, histograms.jitter);
  cycles_ += histograms.cycles;
  missed_ += histograms.missed_deadlines;
}

TimingSummary LoopTiming::compute() const {
  return LoopTimingRecorder::summarize(compute_);
}

TimingSummary LoopTiming::io() const {
  return LoopTimingRecorder::summarize(io_);
}

TimingSummary LoopTiming::wake_up() const {
  return LoopTimingRecorder::summarize(wake_up_);
}

std::string interval_name(int index, double interval_sec) {
  if (interval_sec == 60.0) {
    return format("minute %d", index);
  }
  return format("interval %d (%.0f s)", index, index * interval_sec);
}

std::string report_line(const IntervalFigures& f, double interval_sec) {
  return interval_name(f.index, interval_sec) +
         format(
             ": rss %.1f MB (hwm %.1f, heap %.1f), fds %d, threads %d, cycles %llu, cycle p50 %.0f "
             "us "
             "p99 %.0f us max %.0f us, i/o p99 %.0f us, wake-up p99 %.0f us, missed %llu, "
             "calls %llu, restarts %d",
             f.process.rss_mb, f.process.hwm_mb, f.process.heap_mb, f.process.fds,
             f.process.threads, static_cast<unsigned long long>(f.cycles), f.compute.median_us,
             f.compute.p99_us, f.compute.max_us, f.io.p99_us, f.wake_up.p99_us,
             static_cast<unsigned long long>(f.missed), static_cast<unsigned long long>(f.calls),
             f.restarts);
}

GrowthVerdict judge_growth(const std::vector<IntervalFigures>& intervals, double interval_sec,
                           const GrowthLimits& limits) {
  GrowthVerdict v;
  if (limits.warm_up_intervals == 0 || intervals.size() <= limits.warm_up_intervals) {
    return v;
  }
  v.judged = true;
  const ProcessFigures& base = intervals[limits.warm_up_intervals - 1].process;
  const ProcessFigures& last = intervals.back().process;
  // Resident memory is judged by its floor over the last three reports: a leak raises every one
  // of them, while a long motion planned just before a report (a 600 s timeline holds 35 MB until
  // it has run) raises only that one.
  const size_t from = limits.warm_up_intervals - 1;
  const auto floor_at = [&](size_t i) {
    double low = intervals[i].process.rss_mb;
    for (size_t k = i; k > from && k + 2 > i; --k) {
      low = std::min(low, intervals[k - 1].process.rss_mb);
    }
    return low;
  };
  v.rss_growth_mb = floor_at(intervals.size() - 1) - base.rss_mb;
  v.fd_growth = last.fds - base.fds;
  v.thread_growth = last.threads - base.threads;

  // The slope over the later half of the intervals from the baseline on: the allocator's own
  // warm-up (arenas, its adaptive mmap threshold) creeps up early in a run, a leak keeps rising.
  const size_t samples = intervals.size() - from;
  const size_t later = (samples + 1) / 2;
  double span_min = 0.0;
  if (later >= limits.slope_samples) {
    std::vector<double> minutes;
    std::vector<double> rss;
    for (size_t i = intervals.size() - later; i < intervals.size(); ++i) {
      minutes.push_back(static_cast<double>(intervals[i].index) * interval_sec / 60.0);
      rss.push_back(floor_at(i));
    }
    v.rss_slope_mb_per_min = slope(minutes, rss);
    v.slope_judged = true;
    span_min = minutes.back() - minutes.front();
  }

  const std::string after =
      "after " + interval_name(static_cast<int>(limits.warm_up_intervals), interval_sec);
  if (v.rss_growth_mb > limits.rss_mb) {
    v.failures.push_back(
        format("resident memory grew %.1f MB %s (limit %.1f MB; heap in use %+.1f MB)",
               v.rss_growth_mb, after.c_str(), limits.rss_mb, last.heap_mb - base.heap_mb));
  }
  if (v.slope_judged && v.rss_slope_mb_per_min > limits.rss_slope_mb_per_min &&
      v.rss_slope_mb_per_min * span_min > limits.slope_growth_mb) {
    v.failures.push_back(format(
        "resident memory still rose %.2f MB/min in the later half of the run (limit %.2f MB/min)",
        v.rss_slope_mb_per_min, limits.rss_slope_mb_per_min));
  }
  if (v.fd_growth > 0) {
    v.failures.push_back(
        format("open descriptors: %d %s, %d at the end", base.fds, after.c_str(), last.fds));
  }
  if (v.thread_growth > 0) {
    v.failures.push_back(
        format("threads: %d %s, %d at the end", base.threads, after.c_str(), last.threads));
  }
  return v;
}

std::string summary(const std::vector<IntervalFigures>& intervals, double interval_sec,
                    const GrowthVerdict& verdict, const GrowthLimits& limits) {
  std::string out = format("%-22s %8s %8s %8s %5s %7s %8s %7s %7s %7s %7s %6s %8s\n", "", "rss MB",
                           "hwm MB", "heap MB", "fds", "threads", "cycles", "p50 us", "p99 us",
                           "max us", "missed", "calls", "restarts");
  uint64_t cycles = 0, missed = 0, calls = 0;
  int restarts = 0;
  double worst_max = 0.0;
  for (const IntervalFigures& f : intervals) {
    out += format("%-22s %8.1f %8.1f %8.1f %5d %7d %8llu %7.0f %7.0f %7.0f %7llu %6llu %8d\n",
                  interval_name(f.index, interval_sec).c_str(), f.process.rss_mb, f.process.hwm_mb,
                  f.process.heap_mb, f.process.fds, f.process.threads,
                  static_cast<unsigned long long>(f.cycles), f.compute.median_us, f.compute.p99_us,
                  f.compute.max_us, static_cast<unsigned long long>(f.missed),
                  static_cast<unsigned long long>(f.calls), f.restarts);
    cycles += f.cycles;
    missed += f.missed;
    calls += f.calls;
    restarts += f.restarts;
    worst_max = std::max(worst_max, f.compute.max_us);
  }
  const double minutes = static_cast<double>(intervals.size()) * interval_sec / 60.0;
  out += format(
      "totals: %llu cycles, longest cycle %.0f us, %llu missed deadlines (%.1f per "
      "minute), %llu calls, %d restarts after an emergency stop\n",
      static_cast<unsigned long long>(cycles), worst_max, static_cast<unsigned long long>(missed),
      minutes > 0.0 ? static_cast<double>(missed) / minutes : 0.0,
      static_cast<unsigned long long>(calls), restarts);
  if (verdict.judged) {
    out += format(
        "growth after %s: rss %+.1f MB (limit %.1f), slope %+.2f MB/min%s, fds %+d, "
        "threads %+d\n",
        interval_name(static_cast<int>(limits.warm_up_intervals), interval_sec).c_str(),
        verdict.rss_growth_mb, limits.rss_mb, verdict.rss_slope_mb_per_min,
        intervals.size() + 1 >= limits.warm_up_intervals + limits.slope_samples
            ? ""
            : " (too few intervals to judge)",
        verdict.fd_growth, verdict.thread_growth);
  }
  return out;
}

std::string verdict_line(const GrowthVerdict& verdict) {
  if (!verdict.judged) {
    return "verdict: FAIL: no interval after the warm-up to compare with";
  }
  if (verdict.passed()) {
    return "verdict: PASS: no growth after the warm-up";
  }
  std::string line = "verdict: FAIL: ";
  for (size_t i = 0; i < verdict.failures.size(); ++i) {
    line += (i > 0 ? "; " : "") + verdict.failures[i];
  }
  return line;
}

}  // namespace kestrel::soak
