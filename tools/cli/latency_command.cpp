// latency: qualifies a machine for the arm, as cyclictest does for the kernel. The arm holds
// still (the simulated one in this process, or a real one) while the control loop's timing is
// counted; then a histogram and a summary of each cycle's compute, bus I/O and wake-up jitter.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "arm_session.hpp"
#include "commands.hpp"
#include "kestrel/controller/loop_statistics.hpp"
#include "kestrel_sim/rigid_body_arm_plant.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"

namespace kestrel::cli {

namespace {

using kestrel::controller::ControlLoopHistograms;
using kestrel::controller::ControlLoopStatistics;
using kestrel::controller::LoopTimingRecorder;

constexpr const char* kSimulatedInterface = "latencycan0";
constexpr double kWarmUpSeconds = 1.0;
// Upper edges of the histogram's rows, µs; a last row takes everything from the last edge on.
constexpr size_t kRowEdgesUs[] = {5, 10, 20, 50, 100, 200, 500, 1000, 2500};

// The arm's seven simulated motors on a userspace bus private to this process, paced at
// 1 Mbit/s as a real bus is, moving by the arm's rigid-body dynamics.
class InProcessArm {
 public:
  explicit InProcessArm(bool fd) : bus_({kSimulatedInterface}, wire_timed()) {
    kestrel::sim::BusOptions options;
    options.interface = kSimulatedInterface;
    options.fd = fd;
    motors_ = std::make_unique<kestrel::sim::SimulatedMotorBus>(
        kestrel::sim::arm_motor_configs(), options,
        kestrel::sim::RigidBodyArmPlant::from_shipped_configuration());
    motors_->start();
  }
  ~InProcessArm() { motors_->stop(); }
  InProcessArm(const InProcessArm&) = delete;
  InProcessArm& operator=(const InProcessArm&) = delete;

 private:
  static kestrel::simbus::HubOptions wire_timed() {
    kestrel::simbus::HubOptions options;
    options.wire_time = true;
    return options;
  }

  kestrel::simbus::ScopedSimbus bus_;
  std::unique_ptr<kestrel::sim::SimulatedMotorBus> motors_;
};

// Cycles in bins [from, to) of a histogram of 1 µs bins.
unsigned long long count_between(const std::vector<uint64_t>& bins, size_t from, size_t to) {
  unsigned long long n = 0;
  for (size_t i = from; i < to && i < bins.size(); ++i) {
    n += bins[i];
  }
  return n;
}

// The lower edge of the first non-empty bin, µs.
double smallest_us(const std::vector<uint64_t>& bins) {
  for (size_t i = 0; i < bins.size(); ++i) {
    if (bins[i] != 0) {
      return static_cast<double>(i);
    }
  }
  return 0.0;
}

void print_report(const ControlLoopHistograms& h, const ControlLoopStatistics& s, double seconds) {
  const std::vector<uint64_t>* quantities[] = {&h.compute, &h.io, &h.jitter};
  std::printf("\nhistogram, cycles per range\n%-18s %10s %10s %10s\n", "range us", "compute",
              "bus I/O", "jitter");
  size_t from = 0;
  for (size_t edge : kRowEdgesUs) {
    const std::string label = "< " + std::to_string(edge);
    std::printf("%-18s", label.c_str());
    for (const auto* bins : quantities) {
      std::printf(" %10llu", count_between(*bins, from, edge));
    }
    std::printf("\n");
    from = edge;
  }
  const std::string last = ">= " + std::to_string(from);
  std::printf("%-18s", last.c_str());
  for (const auto* bins : quantities) {
    std::printf(" %10llu", count_between(*bins, from, bins->size()));
  }
  std::printf("\n");

  const auto compute = LoopTimingRecorder::summarize(h.compute);
  const auto io = LoopTimingRecorder::summarize(h.io);
  const auto jitter = LoopTimingRecorder::summarize(h.jitter);
  const auto row = [](const char* label, double a, double b, double c) {
    std::printf("%-18s %10.1f %10.1f %10.1f\n", label, a, b, c);
  };
  std::printf("\nsummary us         %10s %10s %10s\n", "compute", "bus I/O", "jitter");
  row("min", smallest_us(h.compute), smallest_us(h.io), smallest_us(h.jitter));
  row("median", compute.median_us, io.median_us, jitter.median_us);
  row("p99", compute.p99_us, io.p99_us, jitter.p99_us);
  row("max", s.compute_max_us, s.io_max_us, s.jitter_max_us);
  std::printf("%-18s %10llu\n", "cycles", static_cast<unsigned long long>(h.cycles));
  std::printf("%-18s %10llu\n", "missed deadlines",
              static_cast<unsigned long long>(h.missed_deadlines));
  std::printf("%-18s %10.1f\n", "missed per minute",
              seconds > 0.0 ? static_cast<double>(h.missed_deadlines) * 60.0 / seconds : 0.0);
  if (s.send_failures.total() > 0) {
    std::printf("%-18s %s\n", "CAN send failures",
                kestrel::canbus::describe_send_failures(s.send_failures).c_str());
  }
  std::fflush(stdout);
}

}  // namespace

int command_latency(const Words& words) {
  static const char* kHelp =
      "Usage: kestrel latency [--seconds N] [connection options]\n"
      "Qualifies this machine for the arm, as cyclictest does for the kernel: the arm holds\n"
      "still while the control loop's timing is counted, then a histogram and a summary of\n"
      "each 2.5 ms cycle's compute (the cycle's own work), bus I/O (frame writes, feedback\n"
      "requests and reads) and wake-up jitter (how late the thread woke for its deadline),\n"
      "with the missed deadlines. Without --interface the arm is a simulated one in this\n"
      "process, on a private bus paced at 1 Mbit/s; with it, the arm on that interface. The\n"
      "realtime section of robot_kinematics.yaml applies; its [realtime] line on standard\n"
      "error says what took effect. Ctrl-C ends early and prints what was counted.\n"
      "  --seconds N      measure N seconds, after a 1 s warm-up (default 10)\n";
  Args args({}, {}, {});
  if (parse_arm_command(words, {"--seconds"}, {}, kHelp, args)) {
    return 0;
  }
  const double seconds = args.number("--seconds", 10.0, 0.1, 86400.0);
  ConnectionOptions options = connection_options(args);
  StopSignals signals;  // first: every thread started from here on leaves the signals to it
  std::unique_ptr<InProcessArm> simulated;
  if (!args.has("--interface")) {
    // Its model announces the URDF's joints on standard output.
    without_stdout([&] { simulated = std::make_unique<InProcessArm>(options.fd); });
    options.interface = kSimulatedInterface;
  }
  auto arm = connect_arm(options, true);
  signals.attach(arm.get());
  std::printf("kestrel latency: %s%s, holding still; %.1f s warm-up, then %.1f s\n",
              simulated ? "the simulated arm in this process on " : "the arm on ",
              options.interface.c_str(), kWarmUpSeconds, seconds);
  std::fflush(stdout);

  signals.sleep(kWarmUpSeconds);
  arm->reset_control_loop_statistics();
  const auto start = std::chrono::steady_clock::now();
  const auto end = start + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < end && !arm->emergency_stopped() &&
         signals.sleep(std::min(0.1, seconds))) {
  }
  // The histograms first: the summary's maxima are exact, its other figures come from them.
  const ControlLoopHistograms histograms = arm->control_loop_histograms();
  const ControlLoopStatistics statistics = arm->control_loop_statistics();
  const double measured =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const bool stopped = arm->emergency_stopped();
  signals.attach(nullptr);
  arm.reset();  // disables the motors while the simulated ones still listen

  if (stopped) {
    std::fprintf(stderr,
                 "kestrel latency: the controller stopped the arm (emergency stop) after %.1f "
                 "s; the timing up to then:\n",
                 measured);
  }
  print_report(histograms, statistics, measured);
  if (stopped) {
    return 1;
  }
  return signals.requested() ? 130 : 0;
}

}  // namespace kestrel::cli
