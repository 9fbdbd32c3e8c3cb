#include "service_commands.hpp"

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <functional>
#include <iostream>
#include <sstream>
#include <thread>

#include "arm_session.hpp"
#include "arm_state_text.hpp"
#include "cycle_csv.hpp"
#include "service_client.hpp"
#include "service_paths.hpp"

namespace kestrel::cli {

namespace {

using service::json;
using service::ServiceClient;

// Ctrl-C while a client runs: a stop request on a connection of its own (the command's own is
// waiting for its motion's reply).
class StopThroughService {
 public:
  explicit StopThroughService(const std::string& socket)
      : thread_([this, socket] {
          while (!done_.load() && !signals_.requested()) {
            std::this_thread::sleep_for(std::chrono::milliseconds(20));
          }
          if (signals_.requested()) {
            try {
              ServiceClient(socket).call("stop");
            } catch (const std::exception& e) {
              std::fprintf(stderr, "kestrel: stop failed: %s\n", e.what());
            }
          }
        }) {}
  ~StopThroughService() {
    done_.store(true);
    thread_.join();
  }
  const StopSignals& signals() const { return signals_; }
  // 130 after Ctrl-C, else `status`.
  int status(int status) const { return signals_.requested() ? 130 : status; }

 private:
  StopSignals signals_;
  std::atomic<bool> done_{false};
  std::thread thread_;
};

void print_state(const json& state) {
  print_joints_and_pose(state["joints"].get<std::vector<double>>(),
                        state["tool_pose"].get<std::vector<double>>());
}

// Takes control, runs `body`, and turns a stop after Ctrl-C into exit status 130.
int with_control(const std::string& socket,
                 const std::function<int(ServiceClient&, const StopSignals&)>& body) {
  StopThroughService stopper(socket);
  ServiceClient client(socket);
  client.call("acquire");
  try {
    return stopper.status(body(client, stopper.signals()));
  } catch (const service::ServiceError& e) {
    if (stopper.signals().requested()) {
      std::fprintf(stderr, "kestrel: stopped (%s)\n", e.what());
      return 130;
    }
    throw;
  }
}

std::string file_text(const std::string& path) {
  std::ifstream in(path);
  if (!in) {
    throw std::runtime_error("cannot read " + path);
  }
  std::stringstream text;
  text << in.rdbuf();
  return text.str();
}

kestrel::controller::ControlCycleSample cycle_from(const json& c) {
  kestrel::controller::ControlCycleSample s;
  s.cycle = c["cycle"].get<uint64_t>();
  s.time_sec = c["time_sec"].get<double>();
  s.command_kind = c["command_kind"].get<int>();
  s.commanded_position = c["commanded_position"].get<std::array<double, 6>>();
  s.commanded_velocity = c["commanded_velocity"].get<std::array<double, 6>>();
  s.feedforward_torque = c["feedforward_torque"].get<std::array<double, 6>>();
  s.measured_position = c["measured_position"].get<std::array<double, 6>>();
  s.measured_velocity = c["measured_velocity"].get<std::array<double, 6>>();
  s.measured_torque = c["measured_torque"].get<std::array<double, 6>>();
  s.commanded_gripper_m = c["commanded_gripper_m"].get<double>();
  s.measured_gripper_m = c["measured_gripper_m"].get<double>();
  return s;
}

}  // namespace

std::optional<std::string> running_service(const Args& args) {
  auto socket = service::find_service(connection_options(args).interface);
  if (socket) {
    std::fprintf(stderr, "kestrel: using the arm service at %s\n", socket->c_str());
  }
  return socket;
}

int status_through_service(const std::string& socket, bool watch) {
  StopSignals signals;
  ServiceClient client(socket);
  do {
    const json s = client.call("state");
    auto row = [](const char* name, const json& values, const char* unit) {
      std::printf("%-12s", name);
      for (const auto& v : values) {
        std::printf(" %8.4f", v.get<double>());
      }
      std::printf("  %s\n", unit);
    };
    row("joints", s["joints"], "rad");
    row("velocities", s["velocities"], "rad/s");
    row("torques", s["torques"], "N m");
    if (!s["gripper"].is_null()) {
      std::printf("%-12s %8.4f m of 0.085 m\n", "gripper",
                  s["gripper"]["distance_m"].get<double>());
    }
    std::printf("tool pose:  %s\n", euler_text(s["tool_pose"].get<std::vector<double>>()).c_str());
    const json& loop = s["loop"];
    std::printf("control loop: %llu cycles, %llu missed deadlines, jitter median %.1f us\n",
                loop["cycles"].get<unsigned long long>(),
                loop["missed_deadlines"].get<unsigned long long>(),
                loop["jitter_median_us"].get<double>());
    const bool stopped = s["motors"]["emergency_stopped"].get<bool>();
    std::printf("motors: %s; control %s\n", stopped ? "EMERGENCY STOPPED (disabled)" : "holding",
                s["control_holder"].get<int>() == 0
                    ? "free"
                    : ("held by client " + std::to_string(s["control_holder"].get<int>())).c_str());
    std::fflush(stdout);
    if (stopped) {
      return 1;
    }
  } while (watch && signals.sleep(0.5) && std::printf("\n") > 0);
  return 0;
}

int move_through_service(const std::string& socket, const std::string& op,
                         const std::vector<double>& target, double time, double speed,
                         double gripper) {
  return with_control(socket, [&](ServiceClient& client, const StopSignals& signals) {
    json request{{"time_sec", time}, {"speed_percent", speed}};
    if (op == "move_joint_waypoints") {
      request["waypoints"] = {target};
    } else {
      request["poses"] = {target};
    }
    if (op == "move_l") {
      request["blend_radius_m"] = 0.0;
    }
    const json result = client.call(op, request);
    std::printf("moved in %.3f s (planned)\n", result["planned_sec"].get<double>());
    if (gripper >= 0.0) {
      client.call("set_gripper_position", {{"position", gripper}});
      signals.sleep(1.0);
    }
    print_state(client.call("state"));
    return 0;
  });
}

int run_through_service(const std::string& socket, const std::string& program_path) {
  const std::string text = file_text(program_path);
  return with_control(socket, [&](ServiceClient& client, const StopSignals&) {
    const json result = client.call("run_program", {{"text", text}, {"name", program_path}});
    std::printf("program done: %zu steps, %.3f s of planned motion\n",
                result["steps"].get<size_t>(), result["planned_sec"].get<double>());
    print_state(client.call("state"));
    return 0;
  });
}

int gravity_through_service(const std::string& socket, double seconds) {
  return with_control(socket, [&](ServiceClient& client, const StopSignals& signals) {
    client.call("gravity_compensation", {{"on", true}});
    std::printf("floating: move the arm by hand; Ctrl-C holds it and exits\n");
    const auto start = std::chrono::steady_clock::now();
    while (!signals.requested() && (seconds <= 0.0 || std::chrono::steady_clock::now() - start <
                                                          std::chrono::duration<double>(seconds))) {
      signals.sleep(std::min(1.0, seconds > 0.0 ? seconds : 1.0));
      print_state(client.call("state"));
    }
    client.call("gravity_compensation", {{"on", false}});  // holds where it was left
    return 0;
  });
}

int record_through_service(const std::string& socket, std::ostream& out, double seconds,
                           const std::string& program_path) {
  const std::string text = program_path.empty() ? "" : file_text(program_path);
  StopThroughService stopper(socket);
  std::atomic<bool> done{false};
  std::string program_error;
  std::thread runner;
  if (!program_path.empty()) {
    runner = std::thread([&] {
      try {
        ServiceClient control(socket);
        control.call("acquire");
        control.call("run_program", {{"text", text}, {"name", program_path}});
      } catch (const std::exception& e) {
        program_error = e.what();
      }
      done.store(true);
    });
  }
  ServiceClient watcher(socket);
  watcher.call("subscribe", {{"rate_hz", 800}});
  out << kestrel::tools::cycle_csv_header() << "\n";
  const auto start = std::chrono::steady_clock::now();
  uint64_t last = 0;
  double t0 = -1.0;
  size_t rows = 0;
  while (!stopper.signals().requested() && !done.load() &&
         (seconds <= 0.0 ||
          std::chrono::steady_clock::now() - start < std::chrono::duration<double>(seconds))) {
    const auto c = cycle_from(watcher.next_state()["cycle"]);
    if (c.cycle != last && c.cycle != 0) {
      last = c.cycle;
      t0 = t0 < 0.0 ? c.time_sec : t0;
      out << kestrel::tools::cycle_csv_row(c, t0) << "\n";
      ++rows;
    }
  }
  if (runner.joinable()) {
    if (!done.load()) {
      ServiceClient(socket).call("stop");
    }
    runner.join();
  }
  out.flush();
  std::fprintf(stderr, "kestrel record: %zu rows\n", rows);
  if (!program_error.empty() && !stopper.signals().requested()) {
    std::fprintf(stderr, "kestrel record: the program failed: %s\n", program_error.c_str());
    return 1;
  }
  return stopper.status(0);
}

}  // namespace kestrel::cli
