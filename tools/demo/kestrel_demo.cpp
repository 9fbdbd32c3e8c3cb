// The Quick-start demonstration: a motion program on the arm through ArmController, exactly as
// a user's program would run it. Joint moves, a blended move_l square, the gripper, then a
// stream of chunk updates. Every control cycle is recorded (commanded and measured joints,
// feed-forward torque, tool path) to a CSV file for the plots, the bus is listened to for its
// load, and a summary is printed at the end.
#include <getopt.h>
#include <poll.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bus_load.hpp"
#include "can_interface_probe.hpp"
#include "cycle_csv.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/controller/interfaces.hpp"

using Clock = std::chrono::steady_clock;
using kestrel::controller::ControlCycleSample;

namespace {

constexpr double kDown = 3.14159265358979323846;  // roll of a tool pointing down

// Polls the controller's cycle record twice per control period and keeps every new cycle.
class CycleRecorder {
 public:
  explicit CycleRecorder(ArmController& arm) : arm_(arm), thread_([this] { run(); }) {}
  ~CycleRecorder() { finish(); }
  void finish() {
    running_.store(false);
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  const std::vector<ControlCycleSample>& samples() const { return samples_; }

 private:
  void run() {
    samples_.reserve(400 * 120);
    auto next = Clock::now();
    uint64_t last = 0;
    while (running_.load()) {
      const auto c = arm_.get_control_cycle_sample();
      if (c.cycle != 0 && c.cycle != last) {
        last = c.cycle;
        samples_.push_back(c);
      }
      next += std::chrono::microseconds(1250);
      std::this_thread::sleep_until(next);
    }
  }
  ArmController& arm_;
  std::atomic<bool> running_{true};
  std::vector<ControlCycleSample> samples_;
  std::thread thread_;
};

// Listens on the interface with a socket of its own and adds up the wire time of every frame.
class BusListener {
 public:
  BusListener(const std::string& interface, bool fd) {
    std::string error;
    socket_ = kestrel::tools::open_can_socket(interface, fd, error);
    if (socket_ < 0) {
      std::fprintf(stderr, "kestrel-demo: bus load not measured: %s\n", error.c_str());
      return;
    }
    thread_ = std::thread([this] { run(); });
  }
  ~BusListener() {
    stop();
    if (socket_ >= 0) {
      ::close(socket_);
    }
  }
  void start_counting() {
    counting_.store(true);
    started_ = Clock::now();
  }
  void stop() {
    running_.store(false);
    if (thread_.joinable()) {
      thread_.join();
    }
    stopped_ = Clock::now();
  }
  bool measured() const { return socket_ >= 0; }
  double seconds() const { return std::chrono::duration<double>(stopped_ - started_).count(); }
  const kestrel::tools::BusLoad& load() const { return load_; }

 private:
  void run() {
    while (running_.load()) {
      pollfd p{socket_, POLLIN, 0};
      if (::poll(&p, 1, 50) <= 0) {
        continue;
      }
      canfd_frame frame{};
      const ssize_t n = ::read(socket_, &frame, sizeof frame);
      if (n > 0 && counting_.load()) {
        load_.add(frame, static_cast<size_t>(n));
      }
    }
  }
  int socket_ = -1;
  std::atomic<bool> running_{true};
  std::atomic<bool> counting_{false};
  Clock::time_point started_;
  Clock::time_point stopped_;
  kestrel::tools::BusLoad load_;
  std::thread thread_;
};

double seconds_since(Clock::time_point t) {
  return std::chrono::duration<double>(Clock::now() - t).count();
}

void wait_for_gripper(ArmController& arm, double opening) {
  const auto until = Clock::now() + std::chrono::seconds(2);
  while (Clock::now() < until && std::abs(arm.get_gripper_distance() - opening) > 0.003) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
}

struct Phase {
  std::string name;
  double planned = 0.0;
  double executed = 0.0;
};

// The demonstration itself; returns its phases with planned and executed durations.
std::vector<Phase> run_demo(ArmController& arm) {
  std::vector<Phase> phases;
  auto timed = [&](const std::string& name, auto&& body) {
    std::printf("-- %s\n", name.c_str());
    std::fflush(stdout);
    const auto start = Clock::now();
    const double planned = body();
    phases.push_back({name, planned, seconds_since(start)});
    std::printf("   planned %.2f s, executed %.2f s\n", planned, phases.back().executed);
  };

  using Item = ArmController::MotionProgramItem;
  timed("joint moves: home, then three postures joined into one motion", [&] {
    Item home{"movej", {{0.0, 0.4, -0.9, 0.0, -0.6, 0.0}}, {}, 2.0, 0.0, 0.0, 0.0};
    Item tour{"movej",
              {{0.5, 0.6, -1.1, 0.4, -0.5, 0.5},
               {-0.5, 0.5, -1.2, -0.4, -0.8, -0.5},
               {0.0, 0.4, -0.9, 0.0, -0.6, 0.0}},
              {},
              0.0,
              0.6,
              0.0,
              0.0};
    return arm.run_motion_program({home, tour});
  });

  timed("gripper: open, then close", [&] {
    arm.openGripper();
    wait_for_gripper(arm, 0.085);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    arm.closeGripper();
    wait_for_gripper(arm, 0.0);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    return 0.0;
  });

  timed("move_l: a 12 x 14 cm square, corners blended within 2 cm", [&] {
    double planned = arm.move_p({{0.28, -0.07, 0.20, kDown, 0.0, 0.0}}, 2.0);
    planned += arm.move_l({{0.28, 0.07, 0.20, kDown, 0.0, 0.0},
                           {0.40, 0.07, 0.20, kDown, 0.0, 0.0},
                           {0.40, -0.07, 0.20, kDown, 0.0, 0.0},
                           {0.28, -0.07, 0.20, kDown, 0.0, 0.0}},
                          0.0, 0.5, 0.02);
    return planned;
  });

  timed("chunk updates: twelve 0.6 s chunks streamed every 0.25 s", [&] {
    double planned = arm.move_joint_waypoints({{0.0, 0.4, -0.9, 0.0, -0.6, 0.0}}, 2.0, 0.0);
    double last = 0.0;
    for (int k = 1; k <= 12; ++k) {
      const double phase = 0.35 * k;
      last = arm.update_joint_waypoint_chunk(
          {{0.5 * std::sin(phase), 0.4 + 0.15 * std::sin(phase), -0.9 - 0.1 * std::sin(phase), 0.0,
            -0.6, 0.4 * std::sin(phase)}},
          0.6, 0.0, 0.05);
      std::this_thread::sleep_for(std::chrono::milliseconds(250));
    }
    std::this_thread::sleep_for(std::chrono::duration<double>(last));
    planned += 11 * 0.25 + 0.05 + last;  // each chunk runs until the next one takes over
    planned += arm.move_joint_waypoints({{0.0, 0.4, -0.9, 0.0, -0.6, 0.0}}, 1.5, 0.0);
    return planned;
  });
  return phases;
}

void write_csv(const std::string& path, const std::vector<ControlCycleSample>& samples,
               RobotKinematics& model) {
  std::ofstream out(path);
  out << kestrel::tools::cycle_csv_header() << ",cmd_x,cmd_y,cmd_z,x,y,z\n";
  const double t0 = samples.empty() ? 0.0 : samples.front().time_sec;
  char cell[48];
  for (const auto& c : samples) {
    out << kestrel::tools::cycle_csv_row(c, t0);
    for (const auto* q : {&c.commanded_position, &c.measured_position}) {
      const auto pose = model.forwardKinematics_kdl(std::vector<double>(q->begin(), q->end()));
      std::snprintf(cell, sizeof cell, ",%.5f,%.5f,%.5f", pose[0], pose[1], pose[2]);
      out << cell;
    }
    out << "\n";
  }
}

void print_summary(const std::vector<Phase>& phases, const std::vector<ControlCycleSample>& samples,
                   const BusListener& bus, const ArmController& arm) {
  double planned = 0.0;
  double executed = 0.0;
  for (const auto& p : phases) {
    planned += p.planned;
    executed += p.executed;
  }
  std::array<double, 6> tracking{};
  std::array<double, 6> feedforward{};
  for (const auto& c : samples) {
    for (int j = 0; j < 6; ++j) {
      tracking[j] =
          std::max(tracking[j], std::abs(c.commanded_position[j] - c.measured_position[j]));
      feedforward[j] = std::max(feedforward[j], std::abs(c.feedforward_torque[j]));
    }
  }
  std::printf("\n== Summary\n");
  std::printf("motion: planned %.2f s, executed %.2f s (the gripper phase has no plan)\n", planned,
              executed);
  std::printf("%-28s", "joint");
  for (int j = 1; j <= 6; ++j) {
    std::printf(" %8d", j);
  }
  std::printf("\n%-28s", "largest tracking error mrad");
  for (double e : tracking) {
    std::printf(" %8.2f", e * 1e3);
  }
  std::printf("\n%-28s", "largest feed-forward N·m");
  for (double f : feedforward) {
    std::printf(" %8.2f", f);
  }
  std::printf("\n");
  if (bus.measured() && bus.seconds() > 0.0) {
    const double s = bus.seconds();
    std::printf(
        "bus: %.0f frames/s; load %.1f %% of 1 Mbit/s classic CAN, %.1f %% of CAN FD "
        "1/5 Mbit/s\n",
        bus.load().frames / s, 100.0 * bus.load().classic_seconds / s,
        100.0 * bus.load().fd_seconds / s);
  }
  const auto timing = arm.control_loop_statistics();
  std::printf(
      "control loop: %llu cycles, compute median %.0f us p99 %.0f us, bus I/O median %.0f us "
      "p99 %.0f us, %llu deadlines missed; %zu cycles recorded\n",
      static_cast<unsigned long long>(timing.cycles), timing.compute_median_us,
      timing.compute_p99_us, timing.io_median_us, timing.io_p99_us,
      static_cast<unsigned long long>(timing.missed_deadlines), samples.size());
  if (timing.send_failures.total() > 0) {
    std::printf("CAN send failures: %s\n",
                kestrel::canbus::describe_send_failures(timing.send_failures).c_str());
  }
}

void usage() {
  std::printf(
      "Usage: kestrel-demo [--interface NAME] [--fd] [--csv FILE]\n"
      "Runs the demonstration motion program on the arm (joint moves, the gripper, a blended\n"
      "move_l square, streamed chunk updates) through ArmController, records every control\n"
      "cycle to FILE (default demo_record.csv) and prints a summary. scripts/demo.sh runs it\n"
      "beside the simulated arm and plots the record.\n");
}

}  // namespace

int main(int argc, char** argv) {
  std::string interface = "simcan0";
  std::string csv = "demo_record.csv";
  bool fd = false;
  static const option options[] = {{"interface", required_argument, nullptr, 'i'},
                                   {"fd", no_argument, nullptr, 'f'},
                                   {"csv", required_argument, nullptr, 'c'},
                                   {"help", no_argument, nullptr, 'h'},
                                   {nullptr, 0, nullptr, 0}};
  int c;
  while ((c = getopt_long(argc, argv, "i:fc:h", options, nullptr)) != -1) {
    switch (c) {
      case 'i':
        interface = optarg;
        break;
      case 'f':
        fd = true;
        break;
      case 'c':
        csv = optarg;
        break;
      case 'h':
        usage();
        return 0;
      default:
        usage();
        return 2;
    }
  }
  try {
    const std::string problem = kestrel::tools::probe_can_interface(interface, fd);
    if (!problem.empty()) {
      std::fprintf(stderr, "kestrel-demo: %s\n", problem.c_str());
      return 1;
    }
    BusListener bus(interface, fd);
    std::printf("== Starting the controller on %s\n", interface.c_str());
    ArmController arm(true, interface, fd, MIT_MODE, false);
    while (arm.get_joint().empty()) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
    std::printf("\n== Motion program\n");
    bus.start_counting();
    std::vector<Phase> phases;
    std::vector<ControlCycleSample> samples;
    {
      CycleRecorder recorder(arm);
      phases = run_demo(arm);
      recorder.finish();
      samples = recorder.samples();
    }
    bus.stop();
    print_summary(phases, samples, bus, arm);
    RobotKinematics model;
    write_csv(csv, samples, model);
    std::printf("record: %s\n", csv.c_str());
    return arm.emergency_stopped() ? 1 : 0;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "kestrel-demo: %s\n", e.what());
    return 1;
  }
}
