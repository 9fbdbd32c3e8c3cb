#include "cell_runner.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cmath>
#include <fstream>
#include <iostream>
#include <memory>
#include <mutex>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "campaign/user_thread.hpp"
#include "command_sniffer.hpp"
#include "kestrel/controller/controller_config.hpp"
#include "kestrel/controller/interfaces.hpp"
#include "kestrel_sim/rigid_body_arm_plant.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"

namespace kestrel::faults {

namespace {

using Clock = std::chrono::steady_clock;
using std::chrono::milliseconds;

const std::vector<double> kStart = {0.0, 0.4, -0.9, 0.0, -0.6, 0.0};
const std::vector<double> kOther = {0.4, 0.5, -1.1, 0.2, -0.5, 0.3};
constexpr double kMotionSeconds = 3.0;
constexpr size_t kGripperMotor = 6;

int64_t now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

// The simulated arm as a process of its own (kestrel-sim joining the private bus), for the cell
// that kills it. Its lines go to a file, read for the line that says it is up.
class SimulatorProcess {
 public:
  SimulatorProcess(const std::string& program, const std::string& log) {
    std::vector<std::string> args = {program, "--interface", "can0", "--start-posture",
                                     "0,0.4,-0.9,0,-0.6,0"};
    std::vector<char*> argv;
    for (auto& a : args) {
      argv.push_back(a.data());
    }
    argv.push_back(nullptr);
    const int fd = ::open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    pid_ = ::fork();  // only async-signal-safe calls until exec: the process has threads
    if (pid_ == 0) {
      ::dup2(fd, 1);
      ::dup2(fd, 2);
      ::execv(argv[0], argv.data());
      ::_exit(127);
    }
    ::close(fd);
    const auto end = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < end) {
      std::ifstream in(log);
      std::stringstream text;
      text << in.rdbuf();
      if (text.str().find("7 motors on can0") != std::string::npos) {
        return;
      }
      std::this_thread::sleep_for(milliseconds(10));
    }
    throw std::runtime_error("kestrel-sim did not come up (see " + log + ")");
  }
  ~SimulatorProcess() { kill(); }
  void kill() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
      pid_ = -1;
    }
  }

 private:
  pid_t pid_ = -1;
};

// The activity's own thread and how it ended.
class ActivityRun {
 public:
  ActivityRun(ArmController& arm, Activity activity) : arm_(arm), activity_(activity) {
    thread_ = std::thread([this] { run(); });
  }
  ~ActivityRun() { finish(); }
  void finish() {
    stop_requested_ = true;
    if (thread_.joinable()) {
      thread_.join();
    }
  }
  // How long after the start the fault goes in.
  milliseconds lead() const {
    switch (activity_) {
      case Activity::kHold:
        return milliseconds(300);
      case Activity::kFloating:
        return milliseconds(500);
      case Activity::kGripperClosing:
        return milliseconds(800);  // opened, then 100 ms into closing
      default:
        return milliseconds(1000);
    }
  }
  bool done() const { return done_; }
  std::string result() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return result_;
  }
  bool ok() const { return ok_; }

 private:
  void set(const std::string& result, bool ok) {
    std::lock_guard<std::mutex> lock(mutex_);
    result_ = result;
    ok_ = ok;
  }
  void wait_until_stopped() {
    while (!stop_requested_) {
      std::this_thread::sleep_for(milliseconds(5));
    }
  }

  void run() {
    try {
      switch (activity_) {
        case Activity::kHold:
          set("held", true);
          wait_until_stopped();
          break;
        case Activity::kWaypoints:
          arm_.move_joint_waypoints({kOther, kStart}, kMotionSeconds, 0.0);
          set("completed", true);
          break;
        case Activity::kChunks:
          stream_chunks();
          break;
        case Activity::kMoveL:
          move_line();
          set("completed", true);
          break;
        case Activity::kFloating:
          arm_.identify_gravity_compensation_kdl();
          set("floating", true);
          wait_until_stopped();
          break;
        case Activity::kGripperClosing:
          arm_.openGripper();
          std::this_thread::sleep_for(milliseconds(700));
          arm_.closeGripper();
          set("closing", true);
          wait_until_stopped();
          break;
      }
    } catch (const std::exception& e) {
      set(std::string("threw \"") + e.what() + "\"", false);
    }
    done_ = true;
  }

  // A teleoperation-like stream: a new short chunk every 100 ms towards a target that sways.
  void stream_chunks() {
    const auto start = Clock::now();
    while (!stop_requested_ &&
           Clock::now() - start < std::chrono::duration<double>(kMotionSeconds)) {
      const double t = std::chrono::duration<double>(Clock::now() - start).count();
      std::vector<double> target = kStart;
      target[0] += 0.25 * std::sin(2.0 * M_PI * 0.4 * t);
      target[1] += 0.10 * std::sin(2.0 * M_PI * 0.4 * t);
      arm_.update_joint_waypoint_chunk({target}, 0.0, 0.5, 0.05);
      std::this_thread::sleep_for(milliseconds(100));
    }
    arm_.update_joint_waypoint_chunk({kStart}, 0.0, 0.5, 0.05);
    std::this_thread::sleep_for(milliseconds(700));
    set("completed", true);
  }

  // A straight 5 cm line sideways and back at the start posture's orientation.
  void move_line() {
    const std::vector<double> home = campaign::pose_with_rpy(arm_.get_end_effector_pose());
    std::vector<double> out = home;
    out[1] += 0.05;
    arm_.move_l({out, home}, kMotionSeconds);
  }

  ArmController& arm_;
  Activity activity_;
  std::thread thread_;
  std::atomic<bool> stop_requested_{false};
  std::atomic<bool> done_{false};
  std::atomic<bool> ok_{false};
  mutable std::mutex mutex_;
  std::string result_ = "running";
};

// The external torque a hand pushing on the link would apply: ramped, not stepped.
void push(sim::SimulatedMotorBus& motors, size_t motor, double tau) {
  for (int i = 1; i <= 30; ++i) {
    motors.set_external_torque(motor, tau * i / 30.0);
    std::this_thread::sleep_for(milliseconds(10));
  }
}

}  // namespace

CellResult run_cell(Activity activity, const Fault& fault, const CellOptions& options) {
  CellResult result;
  result.activity = activity;
  result.fault = fault;
  result.expectation = expected(activity, fault);
  const auto cell_start = Clock::now();
  const bool killed = fault.kind == FaultKind::kSimulatorKilled;
  const size_t fault_motor = kFaultJoint - 1;

  LineCapture err(std::cerr, options.echo);
  LineCapture out(std::cout, options.echo);
  {
    simbus::ScopedSimbus bus({"can0"});
    std::unique_ptr<sim::SimulatedMotorBus> motors;
    sim::RigidBodyArmPlant* plant = nullptr;
    std::unique_ptr<SimulatorProcess> simulator;
    if (killed) {
      simulator = std::make_unique<SimulatorProcess>(options.simulator_program,
                                                     bus.directory() + "/kestrel-sim.log");
    } else {
      sim::RigidBodyArmOptions arm_options;
      std::copy(kStart.begin(), kStart.end(), arm_options.start_posture.begin());
      auto rigid = sim::RigidBodyArmPlant::from_shipped_configuration(arm_options);
      plant = rigid.get();
      sim::BusOptions bus_options;
      bus_options.interface = "can0";
      motors = std::make_unique<sim::SimulatedMotorBus>(sim::arm_motor_configs(), bus_options,
                                                        std::move(rigid));
      motors->start();
    }
    CommandSniffer sniffer("can0");
    const auto limits = controller::load_joint_trajectory_config();

    ArmController arm(true, "can0", false, MIT_MODE, false);
    const auto feedback_end = Clock::now() + std::chrono::seconds(5);
    while (arm.get_joint().empty() && Clock::now() < feedback_end) {
      std::this_thread::sleep_for(milliseconds(5));
    }
    std::this_thread::sleep_for(milliseconds(100));

    ActivityRun run(arm, activity);
    std::this_thread::sleep_for(run.lead());

    // Inject.
    result.observation.stopped_before_injection = !arm.running() || arm.emergency_stopped();
    const int64_t injected = now_ns();
    std::thread pusher;
    switch (fault.kind) {
      case FaultKind::kSilentJoint:
        motors->set_silent(fault_motor, true);
        break;
      case FaultKind::kSilentGripper:
        motors->set_silent(kGripperMotor, true);
        break;
      case FaultKind::kStatus:
        motors->inject_fault(fault_motor, static_cast<uint8_t>(fault.value));
        break;
      case FaultKind::kTorqueOver:
      case FaultKind::kTorqueUnder: {
        const double tau = fault.kind == FaultKind::kTorqueOver ? kTorqueOverNm : kTorqueUnderNm;
        pusher = std::thread([&motors, tau] { push(*motors, kPushedJoint - 1, tau); });
        break;
      }
      case FaultKind::kReplyLoss:
        motors->set_reply_drop_probability(fault.value / 100.0);
        break;
      case FaultKind::kReplyDelay:
        motors->set_reply_delay(std::chrono::microseconds(fault.value * 1000));
        break;
      case FaultKind::kUnknownPayload:
        motors->with_simulation([&](sim::MotorSimulation&) {
          plant->set_payload(kUnknownPayloadKg, Eigen::Vector3d::Zero());
        });
        break;
      case FaultKind::kInterfaceDown:
        bus.set_up("can0", false);
        break;
      case FaultKind::kSimulatorKilled:
        simulator->kill();
        break;
    }

    // Observe: until the activity has had its time (or the arm has stopped), then a little more
    // for the motors to settle into their final state.
    const bool long_window = fault.kind == FaultKind::kTorqueOver;
    const auto window_end = Clock::now() + milliseconds(long_window ? 8000 : 1500);
    const auto cap = Clock::now() + milliseconds(10000);
    std::optional<Clock::time_point> stopped_at;
    std::optional<double> safe_ms;
    const auto arm_motors_off = [&] {
      for (size_t i = 0; i < 6; ++i) {
        const auto s = motors->motor_state(i);
        if (s.enabled && !s.silent) {
          return false;
        }
      }
      return true;
    };
    while (Clock::now() < cap) {
      const auto now = Clock::now();
      if (!stopped_at && arm.emergency_stopped()) {
        stopped_at = now;
      }
      if (!safe_ms && motors && arm.emergency_stopped() && arm_motors_off()) {
        safe_ms = static_cast<double>(now_ns() - injected) * 1e-6;
      }
      const bool activity_over = run.done() || activity == Activity::kHold ||
                                 activity == Activity::kFloating ||
                                 activity == Activity::kGripperClosing;
      if (stopped_at && now > *stopped_at + milliseconds(300)) {
        break;
      }
      if (now > window_end && activity_over) {
        break;
      }
      std::this_thread::sleep_for(milliseconds(1));
    }
    if (pusher.joinable()) {
      pusher.join();
    }
    const int64_t observed_until = now_ns();  // the shutdown's own lines come after

    Observation& o = result.observation;
    o.emergency_stop = arm.emergency_stopped();
    if (activity == Activity::kGripperClosing && !o.emergency_stop) {
      std::ostringstream g;
      g.precision(1);
      g << std::fixed << "gripper at " << arm.get_gripper_distance() * 1000.0 << " mm";
      o.activity_result = g.str();
      o.activity_ok = true;
    } else {
      o.activity_result = run.result();
      o.activity_ok = run.ok();
    }
    if (killed) {
      o.motors = "gone";
      o.motors_disabled = true;
      for (const auto& line : err.lines()) {
        if (line.time_ns >= injected && line.text.find("disable_all done") != std::string::npos) {
          safe_ms = static_cast<double>(line.time_ns - injected) * 1e-6;
          break;
        }
      }
    } else {
      std::string enabled;
      size_t on = 0;
      for (size_t i = 0; i < 6; ++i) {
        const auto s = motors->motor_state(i);
        if (s.enabled && !s.silent) {
          enabled += (on++ > 0 ? "," : "") + std::to_string(i + 1);
        }
      }
      o.motors_disabled = on == 0;
      o.motors_holding = on == 6;
      o.motors = on == 0 ? "disabled" : on == 6 ? "holding" : "enabled: joints " + enabled;
    }
    o.safe_after_ms = safe_ms;
    o.largest_jump = largest_command_step(sniffer.commands_since(injected), limits.max_vel_limits,
                                          limits.max_acc_limits);

    run.finish();
    arm.cleanup();
    if (motors) {
      motors->stop();
    }

    std::vector<CapturedLine> lines = err.lines();
    const auto more = out.lines();
    lines.insert(lines.end(), more.begin(), more.end());
    std::stable_sort(lines.begin(), lines.end(), [](const CapturedLine& a, const CapturedLine& b) {
      return a.time_ns < b.time_ns;
    });
    for (const auto& line : lines) {
      if (line.time_ns >= injected && line.time_ns <= observed_until) {
        o.lines.push_back(line.text);
      }
    }
    result.lines = lines;
    if (!lines.empty()) {
      result.injected_at_s = static_cast<double>(injected - lines.front().time_ns) * 1e-9;
    }
  }
  result.verdict = judge(result.expectation, result.observation);
  result.seconds = std::chrono::duration<double>(Clock::now() - cell_start).count();
  return result;
}

}  // namespace kestrel::faults
