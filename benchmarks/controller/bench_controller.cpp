// Runs the controller against the simulated arm (rigid-body physics of the shipped URDF, as
// kestrel-sim runs it) on a 1 Mbit/s wire-timed userspace bus for a while (60 s by default;
// first argument overrides) with the arm moving, and prints the control loop's timing: each
// cycle's compute, bus I/O and wake-up jitter, the missed deadlines, and the bus traffic. Beside
// them stands a baseline measured in the same run on the same machine: the work no cycle can
// leave out (the KDL feed-forward and seven MIT frame encodes) timed bare, many times over.
//
// --realtime (after the seconds) measures twice, without and then with the configuration's
// `realtime` section enabled, and prints both side by side. The library reads its configuration
// beside its own file, so each run is a child process that loads a copy of the library placed in
// a temporary tree with an edited copy of the configuration.
//
// --app-load (after the seconds) measures twice in one run, first alone and then with two
// application threads at the lowest priority searching IK out of reach and planning checked
// waypoint motions flat out: the cycle keeps its own copy of the model, so they must not hold it
// back.
//
// The controller's status lines are hidden; set KESTREL_BENCH_STATUS=1 to see them.
#include <dlfcn.h>
#include <fcntl.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <memory>
#include <optional>
#include <sstream>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "kestrel/algorithms/chain_dynamics.hpp"
#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/controller/interfaces.hpp"
#include "kestrel/damiao_motor/dm_motor_codec.hpp"
#include "kestrel_sim/rigid_body_arm_plant.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"

namespace {

namespace fs = std::filesystem;
namespace dm = kestrel::damiao_motor;
using Clock = std::chrono::steady_clock;

constexpr double kWarmUpSeconds = 0.5;
constexpr int kBaselineRepetitions = 20000;
// A child run: the temporary tree it reports into.
constexpr const char* kChildEnv = "KESTREL_BENCH_CONTROLLER_CHILD";

struct Measurement {
  kestrel::controller::ControlLoopStatistics loop;
  double measured_s = 0.0;  // after the warm-up: the span the loop figures cover
  double to_motors_fps = 0.0;
  double from_motors_fps = 0.0;
  double classic_load = 0.0;
  double fd_load = 0.0;
  int stopped = 0;  // the controller stopped the arm (emergency stop)
};

std::string to_text(const Measurement& m) {
  const auto& l = m.loop;
  std::ostringstream out;
  out.precision(17);
  out << l.cycles << ' ' << l.missed_deadlines << ' ' << l.compute_median_us << ' '
      << l.compute_p99_us << ' ' << l.compute_max_us << ' ' << l.io_median_us << ' ' << l.io_p99_us
      << ' ' << l.io_max_us << ' ' << l.jitter_median_us << ' ' << l.jitter_p99_us << ' '
      << l.jitter_max_us << ' ' << m.measured_s << ' ' << m.to_motors_fps << ' '
      << m.from_motors_fps << ' ' << m.classic_load << ' ' << m.fd_load << ' ' << m.stopped;
  return out.str();
}

bool from_text(const std::string& text, Measurement& m) {
  auto& l = m.loop;
  std::istringstream in(text);
  in >> l.cycles >> l.missed_deadlines >> l.compute_median_us >> l.compute_p99_us >>
      l.compute_max_us >> l.io_median_us >> l.io_p99_us >> l.io_max_us >> l.jitter_median_us >>
      l.jitter_p99_us >> l.jitter_max_us >> m.measured_s >> m.to_motors_fps >> m.from_motors_fps >>
      m.classic_load >> m.fd_load >> m.stopped;
  return static_cast<bool>(in);
}

// Runs `work` with standard output sent to /dev/null: the models and the controller announce
// their start-up there.
template <typename Work>
void without_stdout(Work work) {
  std::fflush(stdout);
  const int saved = dup(STDOUT_FILENO);
  const int null = open("/dev/null", O_WRONLY);
  dup2(null, STDOUT_FILENO);
  close(null);
  work();
  std::cout.flush();
  std::fflush(stdout);
  dup2(saved, STDOUT_FILENO);
  close(saved);
}

// Application threads at the lowest priority, each calling `work` until the object is destroyed.
class ApplicationLoad {
 public:
  ApplicationLoad(ArmController& arm, bool enabled) {
    if (!enabled) {
      return;
    }
    const std::vector<double> home(6, 0.0);
    const std::vector<std::vector<double>> waypoints = {{0.3, 0.2, -0.3, 0.3, -0.3, 0.3}, home};
    start([&arm] { arm.solve_ik({2.0, 0.0, 0.5}, {0.0, 0.0, 0.0}); });  // out of reach
    start([&arm, home, waypoints] {
      arm.plan_joint_waypoints_with_gripper(home, waypoints, {0.5, 0.5}, 0.0, 1.0);
    });
  }
  ~ApplicationLoad() {
    done_ = true;
    for (auto& thread : threads_) {
      thread.join();
    }
  }
  ApplicationLoad(const ApplicationLoad&) = delete;
  ApplicationLoad& operator=(const ApplicationLoad&) = delete;

 private:
  template <typename Work>
  void start(Work work) {
    threads_.emplace_back([this, work] {
      setpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)), 19);
      while (!done_) {
        try {
          work();
        } catch (const std::exception&) {
          // a refused plan is load all the same
        }
      }
    });
  }
  std::atomic<bool> done_{false};
  std::vector<std::thread> threads_;
};

// The controller on the simulated arm, moving: slow joint-space swings, a new 2 s move every
// 2 s. The loop's figures are restarted after a short warm-up; the traffic covers the whole run.
Measurement measure(double seconds, bool application_load = false) {
  kestrel::simbus::HubOptions hub;
  hub.wire_time = true;
  kestrel::simbus::ScopedSimbus bus({"benchcan0"}, hub);
  kestrel::sim::BusOptions options;
  options.interface = "benchcan0";
  std::unique_ptr<kestrel::sim::SimulatedMotorBus> motors;
  std::unique_ptr<ArmController> controller;
  without_stdout([&] {
    motors = std::make_unique<kestrel::sim::SimulatedMotorBus>(
        kestrel::sim::arm_motor_configs(), options,
        kestrel::sim::RigidBodyArmPlant::from_shipped_configuration());
    motors->start();
    controller = std::make_unique<ArmController>(true, "benchcan0", false, MIT_MODE, false);
  });
  ArmController& arm = *controller;
  std::optional<ApplicationLoad> load;
  load.emplace(arm, application_load);
  const auto start = Clock::now();
  auto measuring_from = start;
  bool warm = false;
  auto next_move = start;
  int move = 0;
  while (!arm.emergency_stopped()) {
    const auto now = Clock::now();
    if (!warm && now - start >= std::chrono::duration<double>(kWarmUpSeconds)) {
      arm.reset_control_loop_statistics();
      measuring_from = now;
      warm = true;
    }
    if (warm && now - measuring_from >= std::chrono::duration<double>(seconds)) {
      break;
    }
    if (now >= next_move) {
      const double a = (move % 2 == 0) ? 0.25 : -0.25;
      arm.set_joint({a, a * 0.6, -a, a, -a, a}, 2.0);
      ++move;
      next_move += std::chrono::seconds(2);
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  const auto end = Clock::now();
  load.reset();
  Measurement m;
  m.loop = arm.control_loop_statistics();
  m.measured_s = std::chrono::duration<double>(end - measuring_from).count();
  m.stopped = arm.emergency_stopped() ? 1 : 0;
  const auto traffic = motors->telemetry();
  const double elapsed = std::chrono::duration<double>(end - start).count();
  m.to_motors_fps = static_cast<double>(traffic.received_total) / elapsed;
  m.from_motors_fps = static_cast<double>(traffic.sent_total) / elapsed;
  m.classic_load = traffic.classic_load;  // over the last second
  m.fd_load = traffic.fd_load;
  arm.cleanup();
  return m;
}

struct Baseline {
  double median_us = 0.0;
  double p99_us = 0.0;
};

// The bare feed-forward of one cycle (gravity, Coriolis and inertia torques by KDL, on a private
// copy of the dynamics as the loop has) and the seven MIT frames that carry it, timed one cycle's
// worth at a time.
Baseline measure_baseline() {
  std::unique_ptr<RobotKinematics> owned;
  without_stdout([&] { owned = std::make_unique<RobotKinematics>(); });
  kestrel::algorithms::ChainDynamics dynamics(*owned);
  using T = dm::MotorType;
  const dm::Motor motors[7] = {{T::DM_V8_T28, 1, 0x11},  {T::DM_V8_T28, 2, 0x12},
                               {T::DM_V8_T28, 3, 0x13},  {T::DM_V30_T10, 4, 0x14},
                               {T::DM_V30_T10, 5, 0x15}, {T::DM_V30_T10, 6, 0x16},
                               {T::DM_V30_T10, 7, 0x17}};
  std::array<double, 6> q{}, dq{}, ddq{}, gravity{}, coriolis{}, inertia{};
  std::vector<double> took_us(kBaselineRepetitions);
  unsigned checksum = 0;
  for (int r = 0; r < kBaselineRepetitions; ++r) {
    // A posture and motion that change every repetition, as they do from cycle to cycle.
    const double s = std::sin(r * 0.001);
    for (int j = 0; j < 6; ++j) {
      q[j] = 0.5 * s + 0.1 * j;
      dq[j] = 0.3 * std::cos(r * 0.001 + j);
      ddq[j] = 0.5 * s;
    }
    const auto t0 = Clock::now();
    dynamics.gravity(q.data(), gravity.data());
    dynamics.coriolis(q.data(), dq.data(), coriolis.data());
    dynamics.inertia(q.data(), ddq.data(), inertia.data());
    for (int m = 0; m < 7; ++m) {
      const int j = std::min(m, 5);
      const double tau = m < 6 ? inertia[j] + coriolis[j] + gravity[j] : 0.0;
      const auto frame = dm::CanPacketEncoder::encode_mit_control_command(
          motors[m], {50.0, 1.0, q[j], dq[j], std::clamp(tau, -5.0, 5.0)});
      checksum += frame.data[1];
    }
    took_us[r] = std::chrono::duration<double, std::micro>(Clock::now() - t0).count();
  }
  volatile unsigned observed = checksum;  // keeps the encodes from being optimised away
  (void)observed;
  std::sort(took_us.begin(), took_us.end());
  return {took_us[took_us.size() / 2], took_us[took_us.size() * 99 / 100]};
}

// ---- Runs in child processes against an edited configuration (--realtime) ----------------------

// The file of the libkestrel this process loaded.
fs::path loaded_library() {
  Dl_info info{};
  const auto anchor = &kestrel::algorithms::resolve_robot_kinematics_config_path;
  if (dladdr(reinterpret_cast<const void*>(anchor), &info) == 0 || info.dli_fname == nullptr) {
    throw std::runtime_error("dladdr cannot name libkestrel");
  }
  return fs::path(info.dli_fname);
}

std::string read_file(const fs::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

void write_file(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out << text;
  if (!out) {
    throw std::runtime_error("cannot write " + path.string());
  }
}

// `yaml` with its `realtime` section switched on or off; its other keys stay as they are.
std::string with_realtime(const std::string& yaml, bool enabled) {
  std::istringstream in(yaml);
  std::string out;
  bool inside = false;
  bool found = false;
  for (std::string line; std::getline(in, line);) {
    if (line.rfind("realtime:", 0) == 0) {
      inside = found = true;
      // A flow-style section is replaced by one holding only the switch.
      out += "realtime:\n";
      out += std::string("  enabled: ") + (enabled ? "true" : "false") + "\n";
      continue;
    }
    if (inside && !line.empty() && line[0] != ' ' && line[0] != '#') {
      inside = false;
    }
    const auto key = line.find_first_not_of(' ');
    if (inside && key != std::string::npos && line.compare(key, 8, "enabled:") == 0) {
      continue;
    }
    out += line + "\n";
  }
  if (!found) {
    out += std::string("\nrealtime:\n  enabled: ") + (enabled ? "true" : "false") + "\n";
  }
  return out;
}

struct ChildRun {
  Measurement measurement;
  std::vector<std::string> realtime_lines;  // what the controller said about the set-up
};

// Runs `seconds` of measurement in a child process whose library finds a copy of the
// configuration with the realtime section switched on or off.
ChildRun run_child(double seconds, bool realtime) {
  std::string pattern = (fs::temp_directory_path() / "kestrel-bench-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("mkdtemp failed");
  }
  const fs::path root = fs::canonical(pattern);
  const fs::path library_dir = root / "kestrel_sdk" / "build";
  const fs::path config_dir = root / "kestrel_sdk" / "src" / "config";
  fs::create_directories(library_dir);
  const fs::path loaded = loaded_library();
  fs::copy_file(fs::canonical(loaded), library_dir / loaded.filename());
  const std::string config = kestrel::algorithms::resolve_robot_kinematics_config_path();
  const std::string urdf = kestrel::algorithms::resolve_robot_urdf_path();
  write_file(config_dir / fs::path(config).filename(), with_realtime(read_file(config), realtime));
  write_file(config_dir / fs::path(urdf).filename(), read_file(urdf));

  std::string library_path = library_dir.string();
  if (const char* old = std::getenv("LD_LIBRARY_PATH"); old != nullptr && *old != '\0') {
    library_path += ":" + std::string(old);
  }
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    setenv("LD_LIBRARY_PATH", library_path.c_str(), 1);
    setenv(kChildEnv, root.c_str(), 1);
    const std::string self = fs::read_symlink("/proc/self/exe").string();
    const std::string seconds_text = std::to_string(seconds);
    execl(self.c_str(), self.c_str(), seconds_text.c_str(), static_cast<char*>(nullptr));
    _exit(127);
  }
  int status = 0;
  while (pid > 0 && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  ChildRun run;
  const std::string result = read_file(root / "result.txt");
  const std::string err = read_file(root / "stderr.txt");
  if (std::getenv("KESTREL_BENCH_STATUS") != nullptr) {
    std::fputs(err.c_str(), stderr);
  }
  std::istringstream lines(err);
  for (std::string line; std::getline(lines, line);) {
    if (line.rfind("[realtime]", 0) == 0) {
      run.realtime_lines.push_back(line);
    }
  }
  std::error_code ec;
  fs::remove_all(root, ec);
  if (pid <= 0 || !WIFEXITED(status) || WEXITSTATUS(status) != 0 ||
      !from_text(result, run.measurement)) {
    throw std::runtime_error("the measuring child process failed:\n" + err);
  }
  return run;
}

// Child side: measures and leaves the figures and its standard error in the temporary tree.
int child_main(const fs::path& root, double seconds) {
  std::freopen((root / "stderr.txt").c_str(), "w", stderr);
  const std::string config = kestrel::algorithms::resolve_robot_kinematics_config_path();
  if (config.rfind(root.string() + "/", 0) != 0) {
    std::fprintf(stderr, "the library read %s, not the copy in %s\n", config.c_str(), root.c_str());
    return 1;
  }
  write_file(root / "result.txt", to_text(measure(seconds)) + "\n");
  return 0;
}

// ---- Report -----------------------------------------------------------------------------------

void print_report(const Baseline& base, const std::vector<std::string>& titles,
                  const std::vector<Measurement>& runs) {
  const auto group = [](const char* a, const char* b, const char* c) {
    std::printf("  %9s %9s %9s", a, b, c);
  };
  std::printf("\n%-34s %9s %9s\n", "baseline, us", "median", "p99");
  std::printf("%-34s %9.1f %9.1f\n", "feed-forward + 7 MIT encodes", base.median_us, base.p99_us);
  std::printf("(KDL gravity, Coriolis and inertia torques and seven MIT frames, bare, %d times)\n",
              kBaselineRepetitions);

  std::printf("\n");
  if (titles.size() > 1) {
    std::printf("%-34s", "");
    for (const auto& title : titles) {
      std::printf("  %-29s", title.c_str());
    }
    std::printf("\n");
  }
  std::printf("%-34s", "control loop (2.5 ms period), us");
  for (size_t i = 0; i < runs.size(); ++i) {
    group("median", "p99", "max");
  }
  std::printf("\n");
  const auto triple = [&](const char* label, auto field) {
    std::printf("%-34s", label);
    for (const auto& m : runs) {
      const auto [median, p99, max] = field(m.loop);
      std::printf("  %9.1f %9.1f %9.1f", median, p99, max);
    }
    std::printf("\n");
  };
  using Stats = kestrel::controller::ControlLoopStatistics;
  triple("cycle compute", [](const Stats& l) {
    return std::array<double, 3>{l.compute_median_us, l.compute_p99_us, l.compute_max_us};
  });
  triple("bus I/O", [](const Stats& l) {
    return std::array<double, 3>{l.io_median_us, l.io_p99_us, l.io_max_us};
  });
  triple("wake-up jitter", [](const Stats& l) {
    return std::array<double, 3>{l.jitter_median_us, l.jitter_p99_us, l.jitter_max_us};
  });
  std::printf("%-34s", "compute / baseline");
  for (const auto& m : runs) {
    std::printf("  %8.2fx %8.2fx %9s", m.loop.compute_median_us / base.median_us,
                m.loop.compute_p99_us / base.p99_us, "");
  }
  const auto single = [&](const char* label, const char* format, auto value) {
    std::printf("\n%-34s", label);
    for (const auto& m : runs) {
      char text[32];
      std::snprintf(text, sizeof text, format, value(m));
      std::printf("  %9s %9s %9s", text, "", "");
    }
  };
  single("cycles", "%.0f", [](const Measurement& m) { return static_cast<double>(m.loop.cycles); });
  single("missed deadlines", "%.0f",
         [](const Measurement& m) { return static_cast<double>(m.loop.missed_deadlines); });
  single("missed per minute", "%.1f", [](const Measurement& m) {
    return m.measured_s > 0.0 ? static_cast<double>(m.loop.missed_deadlines) * 60.0 / m.measured_s
                              : 0.0;
  });
  // Rates over the whole run (loop start-up included); bus load over its last second.
  std::printf("\n");
  single("frames/s host -> motors", "%.0f", [](const Measurement& m) { return m.to_motors_fps; });
  single("frames/s motors -> host", "%.0f", [](const Measurement& m) { return m.from_motors_fps; });
  single("load on a 1 Mbit/s classic bus", "%.1f%%",
         [](const Measurement& m) { return 100.0 * m.classic_load; });
  single("load on CAN FD 1/5 Mbit/s", "%.1f%%",
         [](const Measurement& m) { return 100.0 * m.fd_load; });
  std::printf("\n");
}

// What the second run's real-time set-up came to, in plain words.
void print_realtime_outcome(const std::vector<std::string>& lines) {
  bool scheduled = false;
  for (const auto& line : lines) {
    scheduled = scheduled || (line.rfind("[realtime] applied:", 0) == 0 &&
                              line.find("control thread SCHED_FIFO") != std::string::npos);
  }
  std::printf("\nreal-time set-up of the second run, as the controller reported it:\n");
  for (const auto& line : lines) {
    std::printf("  %s\n", line.c_str());
  }
  if (!scheduled) {
    std::printf(
        "Real-time scheduling was NOT permitted here: both runs used normal scheduling, and "
        "their difference is noise. See docs/real-arm.md for preparing the machine.\n");
  }
}

}  // namespace

int main(int argc, char** argv) {
  const double seconds = argc > 1 ? std::atof(argv[1]) : 60.0;
  if (const char* child = std::getenv(kChildEnv)) {
    return child_main(child, seconds);
  }
  const bool realtime = argc > 2 && std::strcmp(argv[2], "--realtime") == 0;
  const bool app_load = argc > 2 && std::strcmp(argv[2], "--app-load") == 0;
  if (!(seconds > 0.0) || argc > 3 || (argc == 3 && !realtime && !app_load)) {
    std::fprintf(stderr, "usage: bench_controller [SECONDS [--realtime | --app-load]]\n");
    return 2;
  }
  if (!realtime && std::getenv("KESTREL_BENCH_STATUS") == nullptr) {
    std::freopen("/dev/null", "w", stderr);
  }

  std::printf(
      "\nController on the simulated arm, 1 Mbit/s classic bus with wire time, the arm moving; "
      "%.0f s after a %.1f s warm-up%s\n",
      seconds, kWarmUpSeconds,
      realtime   ? ", without and then with real-time scheduling"
      : app_load ? ", alone and then beside application threads searching IK and planning"
                 : "");
  std::fflush(stdout);
  // First, while nothing else runs.
  const Baseline base = measure_baseline();

  std::vector<Measurement> runs;
  std::vector<std::string> titles;
  std::vector<std::string> realtime_lines;
  try {
    if (realtime) {
      runs.push_back(run_child(seconds, false).measurement);
      const ChildRun with = run_child(seconds, true);
      runs.push_back(with.measurement);
      realtime_lines = with.realtime_lines;
      titles = {"without real-time", "with real-time"};
    } else if (app_load) {
      runs.push_back(measure(seconds));
      runs.push_back(measure(seconds, true));
      titles = {"alone", "beside IK and planning"};
    } else {
      runs.push_back(measure(seconds));
      titles = {"this run"};
    }
  } catch (const std::exception& e) {
    std::fprintf(stdout, "bench_controller: %s\n", e.what());
    return 1;
  }
  int status = 0;
  for (size_t i = 0; i < runs.size(); ++i) {
    if (runs[i].stopped) {
      std::printf(
          "\n%s: the controller stopped the arm after %.1f s of measurement "
          "(KESTREL_BENCH_STATUS=1 "
          "shows why); its figures cover the time up to then\n",
          titles[i].c_str(), runs[i].measured_s);
      status = 1;
    }
  }
  print_report(base, titles, runs);
  if (realtime) {
    print_realtime_outcome(realtime_lines);
  }
  return status;
}
