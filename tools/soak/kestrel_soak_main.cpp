// kestrel-soak: random motions on the arm for a long time with one long-lived controller, the
// shipped configuration (torque monitor and run-time supervision on), reporting every interval
// what this process holds and how the control loop kept time, and failing when memory,
// descriptors or threads grow after the warm-up. A controller ended by an emergency stop is
// replaced by a new one and counted. scripts/soak.sh runs it beside the simulated arm.
#include <getopt.h>
#include <unistd.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kestrel/controller/controller_config.hpp"
#include "soak/soak_driver.hpp"
#include "soak/soak_figures.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
using kestrel::soak::GrowthLimits;
using kestrel::soak::IntervalFigures;
using kestrel::soak::SoakDriver;

constexpr double kFinishTimeoutSec = 30.0;
// An emergency stop disables the motors and the arm falls limp. A controller started while it
// still moves sees accelerations no command made, and stops at once: it is made once the arm
// has come to rest.
constexpr auto kSettleAfterStop = 3s;

struct Options {
  std::string interface = "simcan0";
  double duration_sec = 180.0;
  double interval_sec = 60.0;
  uint64_t seed = 1;
  GrowthLimits limits;
};

void usage(FILE* out) {
  std::fprintf(
      out,
      "Usage: kestrel-soak [--minutes M | --seconds S] [--interval SEC] [--interface IF]\n"
      "                    [--seed N] [--warm-up N] [--rss-limit MB] [--slope-limit MB_PER_MIN]\n"
      "Random motions on the arm (default 3 minutes on simcan0), one report line per interval\n"
      "(default 60 s) on standard output; the controller's own lines go to standard error.\n"
      "Exit status 1 when resident memory, open descriptors or threads grew after the first\n"
      "N intervals (--warm-up, default 1), or a call never returned; 2 for usage mistakes.\n");
}

double number(const char* text, const char* option) {
  char* end = nullptr;
  const double value = std::strtod(text, &end);
  if (end == text || *end != '\0' || !std::isfinite(value) || value < 0.0) {
    std::fprintf(stderr, "kestrel-soak: %s needs a non-negative number, not '%s'\n", option, text);
    std::exit(2);
  }
  return value;
}

Options parse(int argc, char** argv) {
  Options o;
  static const option options[] = {{"minutes", required_argument, nullptr, 'm'},
                                   {"seconds", required_argument, nullptr, 's'},
                                   {"interval", required_argument, nullptr, 'i'},
                                   {"interface", required_argument, nullptr, 'I'},
                                   {"seed", required_argument, nullptr, 'S'},
                                   {"warm-up", required_argument, nullptr, 'w'},
                                   {"rss-limit", required_argument, nullptr, 'r'},
                                   {"slope-limit", required_argument, nullptr, 'l'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
  int c;
  while ((c = getopt_long(argc, argv, "h", options, nullptr)) != -1) {
    switch (c) {
      case 'm':
        o.duration_sec = 60.0 * number(optarg, "--minutes");
        break;
      case 's':
        o.duration_sec = number(optarg, "--seconds");
        break;
      case 'i':
        o.interval_sec = number(optarg, "--interval");
        break;
      case 'I':
        o.interface = optarg;
        break;
      case 'S':
        o.seed = static_cast<uint64_t>(number(optarg, "--seed"));
        break;
      case 'w':
        o.limits.warm_up_intervals = static_cast<size_t>(number(optarg, "--warm-up"));
        break;
      case 'r':
        o.limits.rss_mb = number(optarg, "--rss-limit");
        break;
      case 'l':
        o.limits.rss_slope_mb_per_min = number(optarg, "--slope-limit");
        break;
      case 'h':
        usage(stdout);
        std::exit(0);
      default:
        usage(stderr);
        std::exit(2);
    }
  }
  if (optind != argc) {
    usage(stderr);
    std::exit(2);
  }
  const double intervals = o.interval_sec > 0.0 ? o.duration_sec / o.interval_sec : 0.0;
  if (o.interval_sec < 1.0 || o.limits.warm_up_intervals < 1 ||
      std::round(intervals) < static_cast<double>(o.limits.warm_up_intervals) + 1.0) {
    std::fprintf(stderr,
                 "kestrel-soak: the run must last at least one interval (>= 1 s) beyond the "
                 "warm-up: %.0f s in intervals of %.0f s, %zu of warm-up\n",
                 o.duration_sec, o.interval_sec, o.limits.warm_up_intervals);
    std::exit(2);
  }
  return o;
}

kestrel::campaign::PlannerLimits planner_limits() {
  const auto config = kestrel::controller::load_joint_trajectory_config();
  kestrel::campaign::PlannerLimits limits;
  limits.vmax = config.max_vel_limits;
  limits.amax = config.max_acc_limits;
  limits.jmax = config.max_jerk_limits;
  return limits;
}

}  // namespace

int main(int argc, char** argv) {
  const Options options = parse(argc, argv);
  const int intervals = static_cast<int>(std::round(options.duration_sec / options.interval_sec));

  // The reports keep standard output; the library's own lines (some of them on standard output)
  // join standard error.
  FILE* report = ::fdopen(::dup(STDOUT_FILENO), "w");
  if (report == nullptr || ::dup2(STDERR_FILENO, STDOUT_FILENO) < 0) {
    std::perror("kestrel-soak: standard output");
    return 1;
  }
  std::setvbuf(report, nullptr, _IOLBF, 0);

  const kestrel::campaign::PlannerLimits limits = planner_limits();
  RobotKinematics model;
  std::fprintf(
      report,
      "kestrel-soak: random motions on %s for %.0f s (seed %llu), a report every %.0f "
      "s; growth judged after %s: rss +%.1f MB, later-half slope %.2f MB/min, fds and threads "
      "+0\n",
      options.interface.c_str(), intervals * options.interval_sec,
      static_cast<unsigned long long>(options.seed), options.interval_sec,
      kestrel::soak::interval_name(static_cast<int>(options.limits.warm_up_intervals),
                                   options.interval_sec)
          .c_str(),
      options.limits.rss_mb, options.limits.rss_slope_mb_per_min);

  int lives = 0;
  auto make_driver = [&] {
    // Each controller gets its own sequence of commands.
    return std::make_unique<SoakDriver>(
        options.interface, options.seed + (static_cast<uint64_t>(lives++) << 32), limits, model);
  };
  std::vector<IntervalFigures> figures;
  auto give_up = [&](const std::string& why) {
    std::fprintf(report, "\n%sverdict: FAIL: %s\n",
                 kestrel::soak::summary(figures, options.interval_sec, {}, options.limits).c_str(),
                 why.c_str());
    std::fflush(report);
    std::_Exit(1);  // a call still runs inside the controller: nothing may be destroyed
  };

  const auto t0 = Clock::now();
  auto driver = make_driver();
  if (!driver->start()) {
    std::fprintf(report, "verdict: FAIL: the controller on %s never published its joints\n",
                 options.interface.c_str());
    return 1;
  }

  for (int k = 1; k <= intervals; ++k) {
    const auto end = t0 + std::chrono::duration_cast<Clock::duration>(
                              std::chrono::duration<double>(k * options.interval_sec));
    IntervalFigures f;
    f.index = k;
    kestrel::soak::LoopTiming timing;
    while (Clock::now() < end) {
      std::this_thread::sleep_until(std::min(end, Clock::now() + 50ms));
      if (const std::string hung = driver->overdue(); !hung.empty()) {
        give_up("a call never returned: " + hung);
      }
      if (!driver->ended()) {
        continue;
      }
      timing.add(driver->arm().control_loop_histograms());
      f.calls += driver->take_calls();
      if (!driver->finish(kFinishTimeoutSec)) {
        give_up("a call did not return after the controller's emergency stop");
      }
      ++f.restarts;
      std::fprintf(report, "restart %d at %.1f s: the controller ended by an emergency stop\n",
                   lives, std::chrono::duration<double>(Clock::now() - t0).count());
      std::this_thread::sleep_for(kSettleAfterStop);
      driver = make_driver();
      if (!driver->start()) {
        give_up("the new controller never published its joints");
      }
    }
    timing.add(driver->arm().control_loop_histograms());
    driver->arm().reset_control_loop_statistics();
    f.calls += driver->take_calls();
    f.cycles = timing.cycles();
    f.missed = timing.missed();
    f.compute = timing.compute();
    f.io = timing.io();
    f.wake_up = timing.wake_up();
    f.process = kestrel::soak::read_process_figures();
    std::fprintf(report, "%s\n", kestrel::soak::report_line(f, options.interval_sec).c_str());
    figures.push_back(f);
  }
  if (!driver->finish(kFinishTimeoutSec)) {
    give_up("a call did not return when the run ended");
  }

  const auto verdict = kestrel::soak::judge_growth(figures, options.interval_sec, options.limits);
  std::fprintf(
      report, "\n%s%s\n",
      kestrel::soak::summary(figures, options.interval_sec, verdict, options.limits).c_str(),
      kestrel::soak::verdict_line(verdict).c_str());
  std::fflush(report);
  return verdict.passed() ? 0 : 1;
}
