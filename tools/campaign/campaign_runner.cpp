#include "campaign/campaign_runner.hpp"

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <cstdio>
#include <fstream>
#include <iomanip>
#include <memory>
#include <mutex>
#include <optional>
#include <thread>

#include "campaign/call_checker.hpp"
#include "campaign/user_thread.hpp"
#include "controller/controller_fixture.hpp"
#include "kestrel/arm/gripper_component.hpp"
#include "kestrel_sim/dm_protocol.hpp"

namespace kestrel::campaign {

namespace {

using Clock = std::chrono::steady_clock;
using Access = ArmControllerTestAccess;
using namespace std::chrono_literals;

constexpr auto kDrainPeriod = 200ms;  // the simulator's log holds about 2.5 s of traffic
constexpr auto kWatchPeriod = 50ms;
constexpr double kSettleSec = 0.3;  // after the last call: the arm comes to rest
// A call still running this long after its bound is taken to never return.
constexpr double kHangAfterBoundSec = 30.0;
constexpr double kFramesPerSecond = 7 * 400.0;

double seconds(Clock::duration d) {
  return std::chrono::duration<double>(d).count();
}

double resident_mb() {
  std::ifstream statm("/proc/self/statm");
  long size = 0, resident = 0;
  statm >> size >> resident;
  return static_cast<double>(resident) * static_cast<double>(::sysconf(_SC_PAGESIZE)) / 1048576.0;
}

ArmLimits limits_of(Access::Impl& impl) {
  ArmLimits l;
  for (int j = 0; j < kArmMotors; ++j) {
    l.sign[j] = impl.motor_signs[j];
    l.lower[j] = impl.joint_lower[j];
    l.upper[j] = impl.joint_upper[j];
    l.vmax[j] = impl.max_vel[j];
    l.amax[j] = impl.max_acc[j];
  }
  // The field ranges as the simulated motors decode them.
  const auto configs = sim::arm_motor_configs();
  for (int m = 0; m <= kArmMotors; ++m) {
    const sim::dm::Limits field = sim::dm::limits_of_type(configs[m].type);
    l.p_max[m] = field.p_max;
    l.v_max[m] = field.v_max;
    l.t_max[m] = field.t_max;
  }
  l.kp_max = sim::dm::kKpMax;
  l.kd_max = sim::dm::kKdMax;
  using Gripper = kestrel::can::socket::GripperComponent;
  const double closed = Gripper::distance_to_motor_angle(0.0);
  const double open = Gripper::distance_to_motor_angle(Gripper::kMaxDistance);
  l.gripper_angle_low = std::min(closed, open);
  l.gripper_angle_high = std::max(closed, open);
  return l;
}

// Everything the user threads share. Held by shared pointers: threads left behind by an
// abandoned seed keep it alive.
struct Session {
  explicit Session(const CampaignOptions& o) : options(o) {}

  double now() const { return seconds(Clock::now() - t0); }

  const CampaignOptions options;
  Clock::time_point t0;
  ArmController* arm = nullptr;
  PlannerLimits planner_limits;
  std::unique_ptr<RobotKinematics> model;  // the generators' own forward kinematics

  std::mutex mutex;
  std::condition_variable changed;
  std::vector<CallRecord> calls;
  uint64_t stops = 0;  // stop() calls returned so far
  // The smooth configuration (odd seeds): every take-over is spliced, so both threads act
  // whenever they like. In the shipped configuration a motion that takes over a moving arm
  // starts from the measured joints at rest, by design (at speed the run-time supervision then
  // stops the arm), so there every motion starts from standstill and chunks, which always
  // splice, are left to the smooth seeds.
  bool smooth = false;
  bool still = false;  // a call that needs the arm at standstill is under way
  bool motions_done = false;
  bool interruptions_done = false;
  bool quit = false;  // an abandoned seed: both threads end as soon as they can
  struct InFlight {
    bool active = false;
    double start = 0.0;
    double limit = 0.0;  // seconds after which it is taken to never return
    std::string text;
  };
  InFlight in_flight[2];  // motion thread, interruption thread

  ArmView view() {
    return ArmView{
        [this] {
          auto q = arm->get_joint();
          return q.size() == 6 ? q : MotionSpace::home();
        },
        [this](const Posture& q) { return pose_with_rpy(model->forwardKinematics_kdl(q)); },
        [this] {
          const auto pose = arm->get_end_effector_pose();
          return pose.size() == 7
                     ? pose_with_rpy(pose)
                     : pose_with_rpy(model->forwardKinematics_kdl(MotionSpace::home()));
        }};
  }

  void execute(char thread, Call call) {
    const int slot = thread == 'A' ? 0 : 1;
    CallRecord r;
    r.thread = thread;
    const double bound =
        call.blocking ? call.expected_duration + kBlockingSlack : kNonBlockingBound;
    {
      std::lock_guard<std::mutex> lock(mutex);
      r.start = now();
      in_flight[slot] = {true, r.start, bound + kHangAfterBoundSec, call.text};
    }
    try {
      r.value = call.run(*arm);
      r.outcome = Outcome::kReturned;
    } catch (const std::invalid_argument& e) {
      r.outcome = Outcome::kInvalidArgument;
      r.message = e.what();
    } catch (const WrongAnswer& e) {
      r.outcome = Outcome::kWrongAnswer;
      r.message = e.what();
    } catch (const std::runtime_error& e) {
      r.outcome = Outcome::kRuntimeError;
      r.message = e.what();
    } catch (const std::exception& e) {
      r.outcome = Outcome::kOtherException;
      r.message = e.what();
    }
    call.run = nullptr;
    r.call = std::move(call);
    {
      std::lock_guard<std::mutex> lock(mutex);
      r.end = now();
      in_flight[slot].active = false;
      if (r.call.kind == "stop" && r.outcome == Outcome::kReturned) {
        ++stops;
      }
      calls.push_back(std::move(r));
    }
    changed.notify_all();
  }

  // Sleeps `sec`; returns early when `until` holds (checked under the mutex).
  template <typename Predicate>
  void wait(double sec, Predicate until) {
    std::unique_lock<std::mutex> lock(mutex);
    changed.wait_for(lock, std::chrono::duration<double>(sec), [&] { return quit || until(); });
  }

  // The commanded velocity is zero on every joint, twice 5 ms apart (or 10 s have passed).
  void wait_for_standstill() {
    auto at_rest = [this] {
      const auto sample = arm->get_control_cycle_sample();
      return std::all_of(sample.commanded_velocity.begin(), sample.commanded_velocity.end(),
                         [](double v) { return std::abs(v) < 1e-9; });
    };
    const auto deadline = Clock::now() + 10s;
    while (Clock::now() < deadline && !quit && arm->running()) {
      if (at_rest()) {
        std::this_thread::sleep_for(5ms);
        if (at_rest()) {
          return;
        }
      }
      std::this_thread::sleep_for(5ms);
    }
  }

  void motions() {
    lower_this_thread_priority();
    MotionGenerator generator(options.seed, planner_limits, view());
    // An emergency stop ends the controller: nothing after it would tell anything new.
    if (smooth) {
      generator.take_over_moving_arm();
    }
    while (now() < options.duration_sec && !quit && arm->running()) {
      if (!smooth) {
        wait_for_standstill();  // made from, and started at, standstill
      }
      Call call = generator.next();
      const bool waits_after = call.kind.rfind("set_joint", 0) == 0;
      const double time = call.expected_duration;
      if (call.expect == Expectation::kZeroAtOnce) {
        {
          std::lock_guard<std::mutex> lock(mutex);
          still = true;
        }
        wait_for_standstill();
      }
      uint64_t stops_before;
      {
        std::lock_guard<std::mutex> lock(mutex);
        stops_before = stops;
      }
      execute('A', std::move(call));
      if (waits_after) {
        // set_joint does not wait for its move: the program waits its time, or until stopped.
        wait(time, [&] { return stops != stops_before; });
      }
      {
        std::lock_guard<std::mutex> lock(mutex);
        still = false;
      }
      wait(generator.pause(), [] { return false; });
    }
    std::lock_guard<std::mutex> lock(mutex);
    motions_done = true;
    changed.notify_all();
  }

  void interruptions() {
    lower_this_thread_priority();
    InterruptionGenerator generator(options.seed, planner_limits, view());
    for (;;) {
      wait(generator.pause(), [&] { return motions_done; });
      Call call = generator.next();
      {
        std::lock_guard<std::mutex> lock(mutex);
        if (motions_done || quit) {
          break;
        }
        if ((!smooth || still) && call.kind.rfind("update_joint_waypoint_chunk", 0) == 0) {
          continue;  // a chunk would set the arm moving under a call made for standstill
        }
      }
      execute('B', std::move(call));
    }
    std::lock_guard<std::mutex> lock(mutex);
    interruptions_done = true;
    changed.notify_all();
  }

  // The call of either thread that has run past its limit, if any.
  std::optional<InFlight> overdue() {
    std::lock_guard<std::mutex> lock(mutex);
    const double t = now();
    for (const InFlight& f : in_flight) {
      if (f.active && t - f.start > f.limit) {
        return f;
      }
    }
    return std::nullopt;
  }

  bool both_done() {
    std::lock_guard<std::mutex> lock(mutex);
    return motions_done && interruptions_done;
  }
};

// Moves the MIT frames out of the simulator's log.
void drain(sim::SimulatedMotorBus& bus, Clock::time_point t0, SeedResult& result) {
  size_t lost = 0;
  for (const sim::LoggedFrame& e : bus.take_received_frames(&lost)) {
    const sim::ReceivedCommand& c = e.command;
    if (c.kind != sim::CommandKind::kMit || c.motor < 0 || c.motor > kGripperMotor) {
      continue;
    }
    result.frames.push_back(
        {seconds(e.time - t0), c.motor, c.mit.q, c.mit.dq, c.mit.kp, c.mit.kd, c.mit.tau});
  }
  result.frames_lost += lost;
}

void measure_receive_timing(SeedResult& result) {
  constexpr double kBurst = 0.002;  // s: frames held back arrive together
  constexpr size_t kBurstFrames = 3;
  std::array<std::vector<double>, kArmMotors> times;
  for (const MitFrame& f : result.frames) {
    if (f.motor < kArmMotors) {
      times[f.motor].push_back(f.time);
    }
  }
  for (const std::vector<double>& t : times) {
    for (size_t k = 1; k < t.size(); ++k) {
      const double gap = (t[k] - t[k - 1]) * 1e3;
      result.longest_gap_ms = std::max(result.longest_gap_ms, gap);
      size_t burst = 1;
      while (k + burst < t.size() && t[k + burst] - t[k] < kBurst) {
        ++burst;
      }
      if (burst >= kBurstFrames && gap > result.delivery_stall_ms) {
        result.delivery_stall_ms = gap;
        result.delivery_stall_end = t[k];
      }
    }
  }
}

// The commands that may have moved the arm last before `time`: those that returned in the half
// second before it, and the waiting ones still running then.
std::string motion_commands_before(Session& session, double time) {
  std::lock_guard<std::mutex> lock(session.mutex);
  std::string out;
  for (size_t i = 0; i < session.calls.size(); ++i) {
    const CallRecord& c = session.calls[i];
    const bool moves = c.call.blocking || c.call.kind.rfind("set_joint", 0) == 0 ||
                       c.call.kind.rfind("update_joint_waypoint_chunk", 0) == 0 ||
                       c.call.kind == "stop";
    const bool recent = c.outcome == Outcome::kReturned && c.end <= time && c.end > time - 0.5;
    const bool running = c.call.blocking && c.start <= time && c.end >= time;
    if (!moves || c.call.expect == Expectation::kInvalidArgument || !(recent || running)) {
      continue;
    }
    char line[96];
    std::snprintf(line, sizeof line, "%s at %+.1f ms%s", c.call.kind.c_str(), c.start * 1e3,
                  running ? " (still running)" : "");
    out += (out.empty() ? "; after " : ", ") + std::string(line);
  }
  return out;
}

void add(SeedResult& result, double time, const char* quantity, double value, double bound,
         std::string note) {
  result.violations.push_back(
      {time, -1, quantity, value, bound, static_cast<size_t>(-1), std::move(note)});
}

}  // namespace

SeedResult run_seed(const CampaignOptions& options) {
  const auto began = Clock::now();
  SeedResult result;
  result.options = options;
  result.velocity_continuity = options.seed % 2 == 1;

  auto sim = std::make_unique<testing::SimulatedArm>();
  auto arm = std::make_unique<ArmController>(true, "can0", false, MIT_MODE, false);
  if (!testing::eventually([&] { return arm->get_joint().size() == 6; }, 5s)) {
    add(result, 0.0, "no joint state", 0.0, 5.0, "the controller never published its joints");
    return result;
  }
  Access::Impl& impl = Access::impl(*arm);
  result.limits = limits_of(impl);
  // Before any command: the planner reads these when it plans.
  impl.trajectory_config.continuous_waypoint_velocity = result.velocity_continuity;
  impl.trajectory_config.smooth_takeover = result.velocity_continuity;

  auto session = std::make_shared<Session>(options);
  session->arm = arm.get();
  session->smooth = result.velocity_continuity;
  session->model = std::make_unique<RobotKinematics>();
  for (int j = 0; j < 6; ++j) {
    session->planner_limits.vmax[j] = impl.max_vel[j];
    session->planner_limits.amax[j] = impl.max_acc[j];
    session->planner_limits.jmax[j] = impl.max_jerk[j];
  }
  result.frames.reserve(
      static_cast<size_t>((options.duration_sec + 30.0) * kFramesPerSecond * 1.2));

  sim->motors().take_received_frames();  // start-up traffic is not the campaign's
  session->t0 = Clock::now();
  std::thread motions([session] { session->motions(); });
  std::thread interruptions([session] { session->interruptions(); });

  double memory_baseline = -1.0;
  auto next_drain = Clock::now() + kDrainPeriod;
  while (!session->both_done()) {
    std::this_thread::sleep_for(kWatchPeriod);
    if (Clock::now() >= next_drain) {
      drain(sim->motors(), session->t0, result);
      next_drain += kDrainPeriod;
    }
    if (memory_baseline < 0.0 && session->now() >= kMemoryWarmUpSec) {
      memory_baseline = resident_mb();
    }
    if (const auto hung = session->overdue()) {
      add(result, hung->start, "call never returned", session->now() - hung->start, hung->limit,
          hung->text);
      result.abandoned = true;
      break;
    }
  }

  if (result.abandoned) {
    {
      std::lock_guard<std::mutex> lock(session->mutex);
      session->quit = true;
    }
    session->changed.notify_all();
    arm->stop();  // ends a waiting call, if that is where it hangs
    const auto deadline = Clock::now() + 3s;
    while (!session->both_done() && Clock::now() < deadline) {
      std::this_thread::sleep_for(kWatchPeriod);
    }
    result.abandoned = !session->both_done();
  }
  if (!result.abandoned) {
    motions.join();
    interruptions.join();
    std::this_thread::sleep_for(std::chrono::duration<double>(kSettleSec));
  }
  drain(sim->motors(), session->t0, result);
  const double end_time = session->now();
  if (memory_baseline >= 0.0) {
    result.memory_growth_mb = resident_mb() - memory_baseline;
  }

  // The controller's end state.
  if (arm->emergency_stopped()) {
    // Dated by the last frame the loop sent to the arm: the frames before it show the motion.
    auto last = std::find_if(result.frames.rbegin(), result.frames.rend(),
                             [](const MitFrame& f) { return f.motor < kArmMotors; });
    Violation v{end_time,
                -1,
                "emergency stop",
                1.0,
                0.0,
                static_cast<size_t>(-1),
                "the controller raised an emergency stop"};
    if (last != result.frames.rend()) {
      v.frame = static_cast<size_t>(result.frames.rend() - last) - 1;
      v.time = last->time;
      v.note += motion_commands_before(*session, v.time) + "; the last frame it sent:";
    }
    result.violations.push_back(v);
  }
  if (!arm->running()) {
    add(result, end_time, "control loop not running", 0.0, 1.0, "");
  }
#if !defined(__SANITIZE_ADDRESS__)
  // Under AddressSanitizer freed memory waits in its quarantine; LeakSanitizer checks leaks there.
  if (result.memory_growth_mb >= kMemoryGrowthLimitMb) {
    add(result, end_time, "memory growth (MB)", result.memory_growth_mb, kMemoryGrowthLimitMb,
        "resident set size since the warm-up");
  }
#endif
  if (result.frames_lost > 0) {
    add(result, end_time, "frames lost from the simulator's log",
        static_cast<double>(result.frames_lost), 0.0, "the collector drained too late");
  }

  {
    std::lock_guard<std::mutex> lock(session->mutex);
    result.calls = session->calls;
  }
  std::stable_sort(result.calls.begin(), result.calls.end(),
                   [](const CallRecord& a, const CallRecord& b) { return a.start < b.start; });
  for (Violation& v : check_calls(result.calls)) {
    result.violations.push_back(std::move(v));
  }
  measure_receive_timing(result);
  // Spliced take-overs are continuous like everything else.
  if (!result.velocity_continuity) {
    result.exemptions = exemption_windows(result.calls);
  }
  result.frame_check =
      check_frames(result.frames, result.limits, result.exemptions, result.velocity_continuity);
  for (const Violation& v : result.frame_check.violations) {
    result.violations.push_back(v);
  }
  if (!options.frames_csv.empty()) {
    std::ofstream csv(options.frames_csv);
    csv << "time_s,motor,q,dq,kp,kd,tau\n" << std::setprecision(9);
    for (const MitFrame& f : result.frames) {
      csv << f.time << ',' << f.motor << ',' << f.q << ',' << f.dq << ',' << f.kp << ',' << f.kd
          << ',' << f.tau << '\n';
    }
  }
  std::stable_sort(result.violations.begin(), result.violations.end(),
                   [](const Violation& a, const Violation& b) { return a.time < b.time; });

  if (result.abandoned) {
    // The hung call still runs inside the controller: nothing it uses may be destroyed.
    motions.detach();
    interruptions.detach();
    static_cast<void>(arm.release());
    static_cast<void>(sim.release());
  } else {
    arm.reset();
    sim.reset();
  }
  result.wall_sec = seconds(Clock::now() - began);
  return result;
}

}  // namespace kestrel::campaign
