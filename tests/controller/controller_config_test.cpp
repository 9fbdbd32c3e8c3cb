// The controller's configuration sections: defaults, accepted edge values, and the one line each
// error prints before the process ends with status 1. Each variant runs in a child process
// against an edited copy of the shipped file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <iostream>
#include <sstream>

#include "controller/controller_fixture.hpp"
#include "kestrel/controller/septic_profile.hpp"
#include "support/config_sandbox.hpp"

namespace {

using kestrel::testing::ChildResult;
using kestrel::testing::ConfigSandbox;
using kestrel::testing::replace_yaml_section;
using ::testing::HasSubstr;

template <typename Values>
void print_line(const char* name, const Values& values) {
  std::cout << name;
  for (double v : values) {
    std::cout << ' ' << v;
  }
  std::cout << '\n';
}

// Builds a controller without touching motors and prints the sections it read.
KESTREL_CONFIG_SCENARIO(controller_sections) {
  kestrel::simbus::ScopedSimbus bus({"can0"});
  try {
    ArmController arm(true, "can0", false, MIT_MODE, true);
    auto& impl = ArmControllerTestAccess::impl(arm);
    print_line("ff", impl.mit_config.feedforward_tau_limits);
    print_line("warn", impl.runtime_safety_config.torque_warn_limits);
    print_line("stop", impl.runtime_safety_config.torque_stop_limits);
    print_line("signs", impl.motor_signs);
    const auto& wd = impl.gripper_watchdog_config;
    std::cout << "watchdog " << wd.enabled << ' ' << wd.command_period_ms << ' '
              << wd.state_timeout_ms << ' ' << wd.position_error_warn_m << ' '
              << wd.position_error_stop_m << ' ' << wd.position_error_stop_ms << '\n';
    std::cout << "gripper " << impl.gripper_default_kp << ' ' << impl.gripper_default_kd << '\n';
    const auto& tr = impl.trajectory_config;
    std::cout << "speed " << tr.default_speed_percent << '\n';
    std::cout << "trajectory " << tr.max_motion_duration_sec << ' ' << tr.set_joint_speed_factor
              << ' ' << tr.continuous_waypoint_velocity << ' ' << tr.smooth_takeover << '\n';
    const auto& ms = impl.motor_supervision_config;
    std::cout << "motor_supervision " << ms.enabled << ' ' << ms.silent_timeout_ms << '\n';
    const auto& rt = impl.realtime_config;
    std::cout << "realtime " << rt.enabled << ' ' << rt.control_priority << ' '
              << rt.monitor_priority << ' ' << rt.lock_memory << ' ' << rt.control_cpu << '\n';
  } catch (const std::exception& e) {
    std::cout << "exception: " << e.what() << '\n';
    return 3;
  }
  return 0;
}

// Moves the simulated arm (rigid-body physics) to a reaching posture; reports the smallest and
// largest feed-forward torque of every cycle seen on the way and how far the arm stands from the
// posture after settling.
KESTREL_CONFIG_SCENARIO(hold_reaching_posture) {
  kestrel::testing::SimulatedArm sim;
  ArmController arm(true, "can0", false, MIT_MODE, false);
  const std::vector<double> reaching = {0.3, 0.8, -0.3, 0.0, -0.7, 0.0};
  arm.set_joint(reaching, 2.0);
  std::array<double, 6> low{}, high{};
  uint64_t last = 0;
  for (const auto end = std::chrono::steady_clock::now() + std::chrono::seconds(3);
       std::chrono::steady_clock::now() < end;) {
    const auto c = arm.get_control_cycle_sample();
    for (size_t j = 0; j < 6 && c.cycle != last; ++j) {
      low[j] = std::min(low[j], c.feedforward_torque[j]);
      high[j] = std::max(high[j], c.feedforward_torque[j]);
    }
    last = c.cycle;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  const auto q = sim.joint_positions();
  double worst = 0.0;
  for (int j = 0; j < 6; ++j) {
    worst = std::max(worst, std::abs(q[j] - reaching[j]));
  }
  print_line("ff_low", low);
  print_line("ff_high", high);
  std::cout << "hold_error " << worst << '\n';
  return 0;
}

// Takes from this process what lets it raise its scheduling and lock its memory: both limits go
// to 0 and, for root, the capabilities that override them are dropped.
void forbid_realtime() {
  const rlimit none{0, 0};
  setrlimit(RLIMIT_RTPRIO, &none);
  setrlimit(RLIMIT_MEMLOCK, &none);
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct caps[2]{};
  if (syscall(SYS_capget, &header, caps) == 0) {
    for (unsigned cap : {CAP_SYS_NICE, CAP_IPC_LOCK}) {
      caps[cap / 32].effective &= ~(1u << (cap % 32));
      caps[cap / 32].permitted &= ~(1u << (cap % 32));
    }
    syscall(SYS_capset, &header, caps);
  }
}

// Starts the controller on the simulated arm (with "forbid": after forbid_realtime()) and
// reports whether its loop runs.
KESTREL_CONFIG_SCENARIO(realtime_controller) {
  if (!args.empty() && args[0] == "forbid") {
    forbid_realtime();
  }
  kestrel::testing::SimulatedArm sim;
  ArmController arm(true, "can0", false, MIT_MODE, false);
  const bool cycling = kestrel::testing::eventually(
      [&] { return arm.control_loop_statistics().cycles > 40; }, std::chrono::seconds(5));
  std::cout << "running " << arm.running() << " cycling " << cycling << '\n';
  return 0;
}

// Joint 4's motor falls silent while a timeline moves it; prints "held" once the loop has turned
// the motion into a hold (kind 1) with the staged chunk dropped, and the controller still runs.
KESTREL_CONFIG_SCENARIO(frozen_motor_mid_motion) {
  using Access = ArmControllerTestAccess;
  kestrel::testing::SimulatedArm sim;
  ArmController arm(true, "can0", false, MIT_MODE, false);
  if (!kestrel::testing::eventually([&] { return arm.get_joint().size() == 6; },
                                    std::chrono::seconds(2))) {
    return 2;
  }
  const auto start = arm.get_joint();
  std::vector<Access::Sample> samples(801);
  for (size_t i = 0; i < samples.size(); ++i) {
    const double s = static_cast<double>(i) / 800.0;
    std::copy(start.begin(), start.end(), samples[i].position.begin());
    samples[i].position[3] += 0.6 * kestrel::controller::septic_position(s);
    samples[i].velocity[3] = 0.6 * kestrel::controller::septic_velocity(s) / 2.0;
  }
  sim.motors().set_silent(3, true);
  Access::play(arm, std::move(samples));
  // A chunk staged from the motion that fails goes with it.
  arm.update_joint_waypoint_chunk({start}, 0.0, 0.5, 3.0);
  const bool staged = Access::staged(arm);
  const bool held = kestrel::testing::eventually([&] { return Access::command_kind(arm) == 1; },
                                                 std::chrono::seconds(3));
  sim.motors().set_silent(3, false);
  std::cout << "staged " << staged << " held " << held << " dropped " << !Access::staged(arm)
            << " running " << (arm.running() && !arm.emergency_stopped()) << '\n';
  return 0;
}

// The numbers printed after `key` on its line.
std::vector<double> printed(const ChildResult& r, const std::string& key) {
  std::vector<double> values;
  const auto at = r.out.find(key + ' ');
  EXPECT_NE(at, std::string::npos) << key << '\n' << r.describe();
  if (at != std::string::npos) {
    std::istringstream line(r.out.substr(at + key.size(), r.out.find('\n', at) - at));
    for (double v; line >> v;) {
      values.push_back(v);
    }
  }
  return values;
}

// One or more edits that have the same outcome.
struct Variants {
  template <typename... Edits>
  Variants(Edits... edits) : all{std::string(edits)...} {}
  std::vector<std::string> all;
};

class ControllerConfig : public ::testing::Test {
 protected:
  // Each edit replaces the section it names (a bare section name removes it).
  ChildResult run_edited(const std::vector<std::string>& edits,
                         const std::string& scenario = "controller_sections",
                         const kestrel::testing::RunOptions& options = {}) {
    std::string yaml = ConfigSandbox::shipped_config();
    for (const auto& edit : edits) {
      const auto colon = edit.find(':');
      yaml =
          replace_yaml_section(yaml, edit.substr(0, colon), colon == std::string::npos ? "" : edit);
    }
    box.write_config(yaml);
    return box.run(scenario, options);
  }

  ConfigSandbox box;
};

// Gravity feed-forward holds the arm where the gains alone cannot. Joint 1's feed-forward limit
// is set far below what the reaching motion asks of it (accelerating, then braking; it carries no
// gravity): every cycle's feed-forward stays within the limits, and joint 1's reaches its own in
// both signs.
TEST_F(ControllerConfig, GravityFeedForwardHoldsTheArmAndFeedForwardIsClippedToItsLimits) {
  const auto edited = [](const std::string& from, const std::string& to) {
    std::string yaml = ConfigSandbox::shipped_config();
    const auto at = yaml.find(from);
    EXPECT_NE(at, std::string::npos) << from;
    return at == std::string::npos ? yaml : yaml.replace(at, from.size(), to);
  };
  const std::vector<double> limit = {0.04, 18.0, 10.0, 3.0, 3.0, 1.0};
  box.write_config(
      edited("enable_gravity_compensation: true", "enable_gravity_compensation: false"));
  const auto without = printed(box.run("hold_reaching_posture"), "hold_error");
  box.write_config(edited("feedforward_tau_limits: [6.0, 18.0, 10.0, 3.0, 3.0, 1.0]",
                          "feedforward_tau_limits: [0.04, 18.0, 10.0, 3.0, 3.0, 1.0]"));
  const auto r = box.run("hold_reaching_posture");
  const auto with = printed(r, "hold_error");
  const auto low = printed(r, "ff_low"), high = printed(r, "ff_high");
  ASSERT_EQ(with.size() + without.size() + low.size() + high.size(), 14u) << r.describe();
  EXPECT_LT(with[0], 0.015);
  EXPECT_GT(without[0], 5.0 * with[0]) << with[0] << " rad held with gravity feed-forward";
  for (size_t j = 0; j < 6; ++j) {
    EXPECT_GE(low[j], -limit[j]) << "joint " << j + 1;
    EXPECT_LE(high[j], limit[j]) << "joint " << j + 1;
  }
  EXPECT_EQ(low[0], -limit[0]);
  EXPECT_EQ(high[0], limit[0]);
}

// Edge values of every section in one file, the defaults of optional sections and keys in others:
// each row's lines are printed as read.
TEST_F(ControllerConfig, EdgeValuesAndValidatedDefaultsAreRead) {
  const std::string six = "[1, 2, 3, 4, 5, 6]";
  const std::string trajectory = "joint_trajectory:\n  max_vel_limits: " + six +
                                 "\n  max_acc_limits: " + six + "\n  max_jerk_limits: " + six +
                                 "\n";
  const struct {
    const char* name;
    std::vector<std::string> sections;
    std::string printed;
  } rows[] = {
      // Zero gains and limits, any finite scale, the older spelling of the limits, equal warn and
      // stop torques, a negative watchdog warning (only the order of the distances is checked), a
      // CPU the machine lacks (refused when the thread starts, not here), a sign within 1e-9 of 1.
      {"edges",
       {"mit_mode:\n  kp: [0, 2, 3, 4, 5, 6]\n  kd: [1, 2, 3, 4, 5, 0]\n"
        "  gravity_tau_limits: [6, 5, 4, 3, 2, 0]\n  gravity_comp_scale: -1\n",
        trajectory + "  default_speed_percent: 1.0\n  max_motion_duration_sec: 0.5\n"
                     "  set_joint_speed_factor: 0\n  continuous_waypoint_velocity: true\n"
                     "  smooth_takeover: true\n",
        "runtime_joint_safety:\n  torque_warn_limits: [5, 5, 5, 5, 5, 5]\n"
        "  torque_stop_limits: [5, 5, 5, 5, 5, 5]\n",
        "gripper_watchdog:\n  position_error_warn_m: -1\n",
        "gripper_control:\n  default_kp: 20.0\n  default_kd: 0.1\n",
        "motor_supervision:\n  enabled: false\n  silent_timeout_ms: 10\n",
        "realtime:\n  enabled: true\n  control_priority: 1\n  monitor_priority: 99\n"
        "  lock_memory: false\n  control_cpu: 4096\n",
        "motor_signs: [1, -1, 1, 1.0000000005, -1, 1]\n"},
       "ff 6 5 4 3 2 0\nwarn 5 5 5 5 5 5\nstop 5 5 5 5 5 5\nsigns 1 -1 1 1 -1 1\n"
       "watchdog 1 5 100 -1 0.035 500\ngripper 20 0.1\nspeed 1\ntrajectory 0.5 0 1 1\n"
       "motor_supervision 0 10\nrealtime 1 1 99 0 4096\n"},
      {"optional sections removed",
       {"runtime_joint_safety", "gripper_watchdog", "gripper_control", "realtime",
        "motor_supervision"},
       "warn 16 16 16 6 5 5\nstop 20 20 20 8 6 6\nsigns 1 -1 1 1 -1 1\n"
       "watchdog 1 5 100 0.015 0.035 500\ngripper 8 0.1\nspeed 0.1\ntrajectory 600 1.25 0 0\n"
       "motor_supervision 1 50\nrealtime 0 80 70 1 -1\n"},
      {"defaults of optional keys",
       {trajectory, "motor_supervision:\n  silent_timeout_ms: 1000\n", "realtime:\n"},
       "speed 0.1\ntrajectory 600 1.25 0 0\nmotor_supervision 1 1000\nrealtime 0 80 70 1 -1\n"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    const auto r = run_edited(row.sections);
    EXPECT_EQ(r.exit_code, 0) << r.describe();
    EXPECT_THAT(r.out, HasSubstr(row.printed)) << r.describe();
  }
}

// Each row edits one section; every variant of a row has the same outcome.
TEST_F(ControllerConfig, EachBadEditIsRefusedWithItsExactLine) {
  const std::string six = "[1, 2, 3, 4, 5, 6]";
  const auto in = [](const std::string& section, const std::string& keys) {
    return section + ":\n  " + keys + "\n";
  };
  const auto mit = [&](const std::string& kp, const std::string& kd, const std::string& rest) {
    return "mit_mode:\n  kp: " + kp + "\n  kd: " + kd + "\n" + rest;
  };
  const std::string ff = "  feedforward_tau_limits: " + six + "\n";
  const auto limits = [&](const std::string& vel, const std::string& acc, const std::string& jerk) {
    return "joint_trajectory:\n  max_vel_limits: " + vel + "\n  max_acc_limits: " + acc +
           "\n  max_jerk_limits: " + jerk + "\n";
  };
  const auto traj = [&](const std::string& key) { return limits(six, six, six) + "  " + key; };
  const auto pos_vel = [&](const std::string& dec, const std::string& kp) {
    return "pos_vel_mode:\n  max_acc_limits: " + six + "\n  max_dec_limits: " + dec +
           "\n  kp_apr_limits: " + kp + "\n";
  };
  const std::string at = " config at " + box.config_path().string() + ": ";
  const std::string mit_bad = "Invalid MIT_MODE" + at, traj_bad = "Invalid joint trajectory" + at;
  const std::string array_bad = "Invalid joint array" + at;
  const std::string rt_bad = "Failed to load realtime" + at;
  const std::string ms_bad = "Failed to load motor supervision" + at;
  const std::string not_bool = "': expected true/false. yaml-cpp: error at line";
  // Thrown (status 3): a part of standard output. Fatal (status 1): the last line of standard
  // error, exactly or (with yaml-cpp's position in it) its beginning.
  enum Outcome { kThrown, kFatal, kFatalStartingWith };
  const struct {
    const char* name;
    Variants yaml;
    Outcome outcome;
    std::string text;
  } rows[] = {
      {"sign 1 + 2e-9 or NaN",
       Variants("motor_signs: [1, -1, 1, 1.000000002, -1, 1]\n",
                "motor_signs: [1, -1, 1, .nan, -1, 1]\n"),
       kThrown, "exception: motor_signs must contain only +1 or -1"},
      {"mit limits missing", mit(six, six, ""), kFatal,
       mit_bad + "missing mit_mode.feedforward_tau_limits"},
      {"mit kp too short", mit("[1, 2, 3]", six, ff), kFatal,
       array_bad + "field 'mit_mode.kp' must be a sequence of 6 numbers"},
      {"mit switch not a boolean", mit(six, six, ff + "  enable_gravity_compensation: maybe\n"),
       kFatalStartingWith, "Invalid boolean config field 'enable_gravity_compensation" + not_bool},
      {"mit section missing", "mit_mode", kFatal, mit_bad + "missing 'mit_mode' map"},
      {"mit kp negative", mit("[1, 2, 3, 4, 5, -0.5]", six, ff), kFatal,
       mit_bad + "mit_mode.kp must be finite and >= 0 (joint 6: -0.5)"},
      {"mit kd infinite", mit(six, "[.inf, 2, 3, 4, 5, 6]", ff), kFatal,
       mit_bad + "mit_mode.kd must be finite and >= 0 (joint 1: inf)"},
      {"mit older limits negative", mit(six, six, "  gravity_tau_limits: [6, 5, 4, -3, 2, 1]\n"),
       kFatal, mit_bad + "mit_mode.feedforward_tau_limits must be finite and >= 0 (joint 4: -3)"},
      {"mit scale infinite", mit(six, six, ff + "  gravity_comp_scale: .inf\n"), kFatal,
       mit_bad + "mit_mode.gravity_comp_scale must be finite"},
      {"pos_vel section missing", "pos_vel_mode", kFatal,
       "Invalid POS_VEL_MODE" + at + "missing 'pos_vel_mode' map"},
      {"pos_vel non-numeric", pos_vel("[1, 2, x, 4, 5, 6]", six), kFatalStartingWith,
       array_bad + "field 'pos_vel_mode.max_dec_limits' contains a non-numeric value: yaml-cpp: "
                   "error at line"},
      {"pos_vel infinite", pos_vel(six, "[1, 2, 3, .inf, 5, 6]"), kFatal,
       "Invalid POS_VEL_MODE" + at + "pos_vel_mode.kp_apr_limits must be finite (joint 4: inf)"},
      {"trajectory missing", "joint_trajectory", kFatal,
       traj_bad + "missing 'joint_trajectory' map"},
      {"speed 0 or above 1",
       Variants(traj("default_speed_percent: 0\n"), traj("default_speed_percent: 1.0000001\n")),
       kFatal, traj_bad + "default_speed_percent must be in (0, 1]"},
      {"duration 0 or infinite",
       Variants(traj("max_motion_duration_sec: 0\n"), traj("max_motion_duration_sec: .inf\n")),
       kFatal, traj_bad + "max_motion_duration_sec must be positive"},
      {"factor negative or infinite",
       Variants(traj("set_joint_speed_factor: -0.01\n"), traj("set_joint_speed_factor: .inf\n")),
       kFatal, traj_bad + "set_joint_speed_factor must be finite and >= 0"},
      {"speed limit NaN", limits("[1, .nan, 3, 4, 5, 6]", six, six), kFatal,
       traj_bad + "joint_trajectory.max_vel_limits must be finite and > 0 (joint 2: nan)"},
      {"acceleration limit zero", limits(six, "[1, 2, 3, 4, 5, 0]", six), kFatal,
       traj_bad + "joint_trajectory.max_acc_limits must be finite and > 0 (joint 6: 0)"},
      {"jerk limit infinite", limits(six, six, "[-.inf, 2, 3, 4, 5, 6]"), kFatal,
       traj_bad + "joint_trajectory.max_jerk_limits must be finite and > 0 (joint 1: -inf)"},
      {"waypoint velocity not a boolean", traj("continuous_waypoint_velocity: sometimes\n"),
       kFatalStartingWith, "Invalid boolean config field 'continuous_waypoint_velocity" + not_bool},
      {"torque warning above stop",
       in("runtime_joint_safety",
          "torque_warn_limits: [5, 5, 5, 5, 5, 7]\n  torque_stop_limits: [6, 6, 6, 6, 6, 6]"),
       kFatal,
       "Failed to load runtime joint safety" + at +
           "runtime_joint_safety torque limits must be positive and stop >= warn"},
      {"watchdog warning above stop", in("gripper_watchdog", "position_error_warn_m: 0.05"), kFatal,
       "Failed to load gripper watchdog" + at + "invalid gripper_watchdog config"},
      {"gripper kd above 1", in("gripper_control", "default_kd: 1.01"), kFatal,
       "Failed to load gripper control" + at +
           "invalid gripper_control config: default_kp must be in [0.1,20.0], default_kd must be "
           "in [0.1,1.0]"},
      {"silence 9.9 ms, 1001 ms or NaN",
       Variants(in("motor_supervision", "silent_timeout_ms: 9.9"),
                in("motor_supervision", "silent_timeout_ms: 1001"),
                in("motor_supervision", "silent_timeout_ms: .nan")),
       kFatal,
       ms_bad + "invalid motor_supervision config: silent_timeout_ms must lie in [10, 1000]"},
      {"supervision switch not a boolean", in("motor_supervision", "enabled: often"),
       kFatalStartingWith, ms_bad + "Invalid boolean config field 'enabled'"},
      {"control priority 0, 100 or 80.5",
       Variants(in("realtime", "control_priority: 0"), in("realtime", "control_priority: 100"),
                in("realtime", "control_priority: 80.5")),
       kFatal, rt_bad + "invalid realtime config: control_priority must be an integer in [1, 99]"},
      {"monitor priority NaN", in("realtime", "monitor_priority: .nan"), kFatal,
       rt_bad + "invalid realtime config: monitor_priority must be an integer in [1, 99]"},
      {"cpu below -1 or fractional",
       Variants(in("realtime", "control_cpu: -2"), in("realtime", "control_cpu: 0.5")), kFatal,
       rt_bad +
           "invalid realtime config: control_cpu must be -1 (no pinning) or a CPU number >= 0"},
      {"priority not a number", in("realtime", "control_priority: high"), kFatalStartingWith,
       rt_bad + "yaml-cpp: error at line"},
      {"realtime switch not a boolean", in("realtime", "enabled: sometimes"), kFatalStartingWith,
       rt_bad + "Invalid boolean config field 'enabled" + not_bool},
      {"five signs", "motor_signs: [1, -1, 1, 1, -1]\n", kFatal,
       array_bad + "field 'motor_signs' must be a sequence of 6 numbers"},
  };
  for (const auto& row : rows) {
    for (const auto& yaml : row.yaml.all) {
      SCOPED_TRACE(std::string(row.name) + ":\n" + yaml);
      const auto r = run_edited({yaml});
      const auto lines = r.err_lines();
      const std::string last = lines.empty() ? "" : lines.back();
      EXPECT_EQ(r.exit_code, row.outcome == kThrown ? 3 : 1) << r.describe();
      if (row.outcome == kThrown) {
        EXPECT_THAT(r.out, HasSubstr(row.text));
      } else if (row.outcome == kFatal) {
        EXPECT_EQ(last, row.text);
      } else {
        EXPECT_THAT(last, ::testing::StartsWith(row.text));
      }
    }
  }
}

// With motor supervision off, a motor whose feedback freezes mid-motion is left to the waypoint
// tracking supervision: the timeline runs on, the error grows past the stop level, and the
// motion turns into a hold without an emergency stop.
TEST_F(ControllerConfig, WithoutMotorSupervisionTheTrackingStopCatchesAFrozenMotor) {
  const auto r = run_edited({"motor_supervision:\n  enabled: false\n"}, "frozen_motor_mid_motion");
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_THAT(r.out, HasSubstr("staged 1 held 1 dropped 1 running 1\n"));
  EXPECT_THAT(r.err, HasSubstr("[control_loop] waypoint tracking error warning: joint="));
  // The timeline runs on the clock, so on a loaded machine the error may have grown a little
  // further by the 30th cycle.
  EXPECT_THAT(r.err, ::testing::ContainsRegex("\\[control_loop\\] waypoint tracking error stop: "
                                              "joint=4 error_rad=0\\.(2[5-9]|3)[0-9]* "
                                              "threshold=0\\.25 cycles=30"));
  EXPECT_THAT(r.err, ::testing::Not(HasSubstr("emergency_stop_flag=1")));
  EXPECT_THAT(r.err, ::testing::Not(HasSubstr("motor silent")));
}

// Sanitizer runtimes take mlockall over and report success without locking anything.
#if defined(__SANITIZE_ADDRESS__) || defined(__SANITIZE_THREAD__)
constexpr bool kRealMlockall = false;
#else
constexpr bool kRealMlockall = true;
#endif

// The controller runs on the simulated arm with the real-time set-up enabled, whether the system
// grants it or not, and says in exact lines what it applied and what it was refused.
TEST_F(ControllerConfig, RealtimeSetUpIsReportedAndNeverStopsTheController) {
  cpu_set_t allowed;
  ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
  int first_cpu = 0;
  while (!CPU_ISSET(first_cpu, &allowed)) {
    ++first_cpu;
  }
  const std::string pinned =
      "[realtime] applied: control thread on CPU " + std::to_string(first_cpu);
  const long cpus = sysconf(_SC_NPROCESSORS_CONF);
  const std::string fifo_refused =
      "[realtime] SCHED_FIFO priority 80 for the control thread not permitted (EPERM): running "
      "without real-time scheduling. Allow it with `ulimit -r 99` in the launching shell, the "
      "CAP_SYS_NICE capability, or an rtprio line for your user in /etc/security/limits.conf";
  const std::string lock_refused =
      "[realtime] mlockall not permitted (EPERM): running with pageable memory. Allow it with "
      "`ulimit -l unlimited` in the launching shell, the CAP_IPC_LOCK capability, or a memlock "
      "line for your user in /etc/security/limits.conf";
  const std::string no_such_cpu =
      "[realtime] CPU 4096 does not exist on this machine (" + std::to_string(cpus) +
      " configured: 0-" + std::to_string(cpus - 1) +
      "): the control thread is not pinned. Set realtime.control_cpu to one of them, or to -1";
  using Lines = std::vector<std::string>;
  const struct {
    const char* name;
    std::string keys;
    std::string scenario_arg;
    std::vector<Lines> expected;  // any one of these, in this order
  } rows[] = {
      {"as this machine allows",
       "  lock_memory: false\n  control_cpu: " + std::to_string(first_cpu) + "\n",
       "",
       {{pinned + ", control thread SCHED_FIFO priority 80, torque monitor SCHED_FIFO priority 70"},
        {fifo_refused, pinned}}},
      {"everything refused",
       std::string("  lock_memory: ") + (kRealMlockall ? "true" : "false") +
           "\n  control_cpu: 4096\n",
       "forbid",
       {kRealMlockall ? Lines{lock_refused, no_such_cpu, fifo_refused}
                      : Lines{no_such_cpu, fifo_refused}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    kestrel::testing::RunOptions options;
    options.args = {row.scenario_arg};
    const auto r =
        run_edited({"realtime:\n  enabled: true\n" + row.keys}, "realtime_controller", options);
    ASSERT_EQ(r.exit_code, 0) << r.describe();
    EXPECT_THAT(r.out, HasSubstr("running 1 cycling 1\n")) << r.describe();
    Lines reported;
    for (const auto& line : r.err_lines()) {
      if (line.rfind("[realtime]", 0) == 0) {
        reported.push_back(line);
      }
    }
    EXPECT_THAT(reported, ::testing::AnyOfArray(row.expected)) << r.describe();
  }
}

}  // namespace
