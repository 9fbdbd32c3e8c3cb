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

#include "controller/controller_fixture.hpp"
#include "kestrel/controller/septic_profile.hpp"
#include "support/config_sandbox.hpp"

namespace {

using kestrel::testing::ChildResult;
using kestrel::testing::ConfigSandbox;
using kestrel::testing::replace_yaml_section;

// Builds a controller without touching motors and prints the sections it read.
KESTREL_CONFIG_SCENARIO(controller_sections) {
  kestrel::simbus::ScopedSimbus bus({"can0"});
  try {
    ArmController arm(true, "can0", false, MIT_MODE, true);
    auto& impl = ArmControllerTestAccess::impl(arm);
    const auto print = [](const char* name, const kestrel::controller::JointArray& a) {
      std::cout << name;
      for (double v : a) {
        std::cout << ' ' << v;
      }
      std::cout << '\n';
    };
    print("ff", impl.mit_config.feedforward_tau_limits);
    print("warn", impl.runtime_safety_config.torque_warn_limits);
    print("stop", impl.runtime_safety_config.torque_stop_limits);
    print("signs", impl.motor_signs);
    const auto& wd = impl.gripper_watchdog_config;
    std::cout << "watchdog " << wd.enabled << ' ' << wd.command_period_ms << ' '
              << wd.state_timeout_ms << ' ' << wd.position_error_warn_m << ' '
              << wd.position_error_stop_m << ' ' << wd.position_error_stop_ms << '\n';
    std::cout << "gripper " << impl.gripper_default_kp << ' ' << impl.gripper_default_kd << '\n';
    const auto& trajectory = impl.trajectory_config;
    std::cout << "speed " << trajectory.default_speed_percent << '\n';
    std::cout << "trajectory " << trajectory.max_motion_duration_sec << ' '
              << trajectory.set_joint_speed_factor << ' ' << trajectory.continuous_waypoint_velocity
              << ' ' << trajectory.smooth_takeover << '\n';
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

// Moves the simulated arm (rigid-body physics) to a reaching posture and reports how far it
// stands from it after settling.
KESTREL_CONFIG_SCENARIO(hold_reaching_posture) {
  kestrel::testing::SimulatedArm sim;
  ArmController arm(true, "can0", false, MIT_MODE, false);
  const std::vector<double> reaching = {0.3, 0.8, -0.3, 0.0, -0.7, 0.0};
  arm.set_joint(reaching, 2.0);
  std::this_thread::sleep_for(std::chrono::milliseconds(3000));
  const auto q = sim.joint_positions();
  double worst = 0.0;
  for (int j = 0; j < 6; ++j) {
    worst = std::max(worst, std::abs(q[j] - reaching[j]));
  }
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
    for (int j = 0; j < 6; ++j) {
      samples[i].position[j] = start[j];
    }
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

double hold_error(const ChildResult& r) {
  const auto at = r.out.find("hold_error ");
  EXPECT_NE(at, std::string::npos) << r.describe();
  return at == std::string::npos ? 1e9 : std::stod(r.out.substr(at + 11));
}

class ControllerConfig : public ::testing::Test {
 protected:
  // Runs the scenario on the shipped file with `section` replaced (or removed when empty).
  ChildResult run_with(const std::string& section, const std::string& replacement) {
    box.write_config(replace_yaml_section(ConfigSandbox::shipped_config(), section, replacement));
    return box.run("controller_sections");
  }

  // The last line of standard error of a child that ended with status 1.
  std::string fatal_line(const ChildResult& r) {
    EXPECT_EQ(r.exit_code, 1) << r.describe();
    const auto lines = r.err_lines();
    return lines.empty() ? "" : lines.back();
  }

  std::string path() const { return box.config_path().string(); }

  // One edit of `section` that must end the process, and the line it must print last.
  struct FatalRow {
    const char* name;
    std::string replacement;
    ::testing::Matcher<std::string> line;
  };

  void expect_fatal(const std::string& section, const std::vector<FatalRow>& table) {
    for (const auto& row : table) {
      SCOPED_TRACE(row.name);
      EXPECT_THAT(fatal_line(run_with(section, row.replacement)), row.line);
    }
  }

  ConfigSandbox box;
};

constexpr const char* kSix = "[1, 2, 3, 4, 5, 6]";

TEST_F(ControllerConfig, OptionalSectionsFallBackToValidatedDefaults) {
  std::string yaml = ConfigSandbox::shipped_config();
  for (const char* section : {"runtime_joint_safety", "gripper_watchdog", "gripper_control",
                              "realtime", "motor_supervision"}) {
    yaml = replace_yaml_section(yaml, section, "");
  }
  box.write_config(yaml);
  const auto r = box.run("controller_sections");
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_THAT(r.out, ::testing::HasSubstr("warn 16 16 16 6 5 5\n"));
  EXPECT_THAT(r.out, ::testing::HasSubstr("stop 20 20 20 8 6 6\n"));
  EXPECT_THAT(r.out, ::testing::HasSubstr("watchdog 1 5 100 0.015 0.035 500\n"));
  EXPECT_THAT(r.out, ::testing::HasSubstr("gripper 8 0.1\n"));
  EXPECT_THAT(r.out, ::testing::HasSubstr("realtime 0 80 70 1 -1\n"));
  EXPECT_THAT(r.out, ::testing::HasSubstr("motor_supervision 1 50\n"));
}

TEST_F(ControllerConfig, GravityFeedForwardHoldsTheArmWhereTheGainsAloneCannot) {
  const std::string shipped = ConfigSandbox::shipped_config();
  box.write_config(shipped);
  const double with = hold_error(box.run("hold_reaching_posture"));
  const std::string off = "enable_gravity_compensation: true";
  ASSERT_NE(shipped.find(off), std::string::npos);
  std::string without_yaml = shipped;
  without_yaml.replace(without_yaml.find(off), off.size(), "enable_gravity_compensation: false");
  box.write_config(without_yaml);
  const double without = hold_error(box.run("hold_reaching_posture"));
  std::cout << "[controller] hold error with gravity feed-forward " << with << " rad, without "
            << without << " rad\n";
  EXPECT_LT(with, 0.015);
  EXPECT_GT(without, 5.0 * with);
}

TEST_F(ControllerConfig, MitModeTuning) {
  const auto mit = [](const std::string& kp, const std::string& kd, const std::string& rest) {
    return "mit_mode:\n  kp: " + kp + "\n  kd: " + kd + "\n" + rest;
  };
  // Zero gains and limits are accepted, and so is any finite scale.
  const auto r = run_with("mit_mode", mit("[0, 2, 3, 4, 5, 6]", "[1, 2, 3, 4, 5, 0]",
                                          "  gravity_tau_limits: [6, 5, 4, 3, 2, 0]\n"
                                          "  gravity_comp_scale: -1\n"));
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_THAT(r.out, ::testing::HasSubstr("ff 6 5 4 3 2 0\n")) << "the older spelling is used";

  const std::string ff = std::string("  feedforward_tau_limits: ") + kSix + "\n";
  const std::string invalid = "Invalid MIT_MODE config at " + path() + ": ";
  using ::testing::Eq;
  expect_fatal(
      "mit_mode",
      {
          {"limits missing", mit(kSix, kSix, ""),
           Eq(invalid + "missing mit_mode.feedforward_tau_limits")},
          {"kp too short", mit("[1, 2, 3]", kSix, ff),
           Eq("Invalid joint array config at " + path() +
              ": field 'mit_mode.kp' must be a sequence of 6 numbers")},
          {"switch not a boolean", mit(kSix, kSix, ff + "  enable_gravity_compensation: maybe\n"),
           ::testing::StartsWith("Invalid boolean config field 'enable_gravity_compensation': "
                                 "expected true/false. yaml-cpp: error at line")},
          {"section missing", "", Eq(invalid + "missing 'mit_mode' map")},
          {"kp NaN", mit("[1, 2, .nan, 4, 5, 6]", kSix, ff),
           Eq(invalid + "mit_mode.kp must be finite and >= 0 (joint 3: nan)")},
          {"kp negative", mit("[1, 2, 3, 4, 5, -0.5]", kSix, ff),
           Eq(invalid + "mit_mode.kp must be finite and >= 0 (joint 6: -0.5)")},
          {"kd infinite", mit(kSix, "[.inf, 2, 3, 4, 5, 6]", ff),
           Eq(invalid + "mit_mode.kd must be finite and >= 0 (joint 1: inf)")},
          {"older limits negative", mit(kSix, kSix, "  gravity_tau_limits: [6, 5, 4, -3, 2, 1]\n"),
           Eq(invalid + "mit_mode.feedforward_tau_limits must be finite and >= 0 (joint 4: -3)")},
          {"scale infinite", mit(kSix, kSix, ff + "  gravity_comp_scale: .inf\n"),
           Eq(invalid + "mit_mode.gravity_comp_scale must be finite")},
          {"scale NaN", mit(kSix, kSix, ff + "  gravity_comp_scale: .nan\n"),
           Eq(invalid + "mit_mode.gravity_comp_scale must be finite")},
      });
}

TEST_F(ControllerConfig, RequiredSectionsAndArrays) {
  auto r = run_with("pos_vel_mode", "");
  EXPECT_EQ(fatal_line(r),
            "Invalid POS_VEL_MODE config at " + path() + ": missing 'pos_vel_mode' map");
  r = run_with("joint_trajectory", "");
  EXPECT_EQ(fatal_line(r),
            "Invalid joint trajectory config at " + path() + ": missing 'joint_trajectory' map");
  r = run_with("pos_vel_mode",
               std::string("pos_vel_mode:\n  max_acc_limits: ") + kSix +
                   "\n  max_dec_limits: [1, 2, x, 4, 5, 6]\n  kp_apr_limits: " + kSix + "\n");
  EXPECT_THAT(fatal_line(r),
              ::testing::StartsWith("Invalid joint array config at " + path() +
                                    ": field 'pos_vel_mode.max_dec_limits' contains a non-numeric "
                                    "value: yaml-cpp: error at line"));
  r = run_with("pos_vel_mode", std::string("pos_vel_mode:\n  max_acc_limits: ") + kSix +
                                   "\n  max_dec_limits: " + kSix +
                                   "\n  kp_apr_limits: [1, 2, 3, .inf, 5, 6]\n");
  EXPECT_EQ(fatal_line(r), "Invalid POS_VEL_MODE config at " + path() +
                               ": pos_vel_mode.kp_apr_limits must be finite (joint 4: inf)");
}

TEST_F(ControllerConfig, JointTrajectoryScalars) {
  const std::string head = std::string("joint_trajectory:\n  max_vel_limits: ") + kSix +
                           "\n  max_acc_limits: " + kSix + "\n  max_jerk_limits: " + kSix + "\n";
  const struct {
    const char* name;
    std::string keys;
    std::string printed;
  } accepted[] = {
      {"defaults when absent", "", "speed 0.1\ntrajectory 600 1.25 0 0\n"},
      {"edges of the ranges",
       "  default_speed_percent: 1.0\n  max_motion_duration_sec: 0.5\n"
       "  set_joint_speed_factor: 0\n  continuous_waypoint_velocity: true\n"
       "  smooth_takeover: true\n",
       "speed 1\ntrajectory 0.5 0 1 1\n"},
  };
  for (const auto& row : accepted) {
    const auto r = run_with("joint_trajectory", head + row.keys);
    EXPECT_THAT(r.out, ::testing::HasSubstr(row.printed)) << row.name << '\n' << r.describe();
  }

  const std::string invalid = "Invalid joint trajectory config at " + path() + ": ";
  const auto speed = ::testing::Eq(invalid + "default_speed_percent must be in (0, 1]");
  const auto duration = ::testing::Eq(invalid + "max_motion_duration_sec must be positive");
  const auto factor = ::testing::Eq(invalid + "set_joint_speed_factor must be finite and >= 0");
  expect_fatal(
      "joint_trajectory",
      {
          {"speed zero", head + "  default_speed_percent: 0\n", speed},
          {"speed above 1", head + "  default_speed_percent: 1.0000001\n", speed},
          {"speed negative", head + "  default_speed_percent: -0.5\n", speed},
          {"duration zero", head + "  max_motion_duration_sec: 0\n", duration},
          {"duration NaN", head + "  max_motion_duration_sec: .nan\n", duration},
          {"duration infinite", head + "  max_motion_duration_sec: .inf\n", duration},
          {"factor negative", head + "  set_joint_speed_factor: -0.01\n", factor},
          {"factor NaN", head + "  set_joint_speed_factor: .nan\n", factor},
          {"factor infinite", head + "  set_joint_speed_factor: .inf\n", factor},
          {"speed limit NaN",
           std::string("joint_trajectory:\n  max_vel_limits: [1, .nan, 3, 4, 5, 6]\n"
                       "  max_acc_limits: ") +
               kSix + "\n  max_jerk_limits: " + kSix + "\n",
           ::testing::Eq(invalid + "joint_trajectory.max_vel_limits must be finite and > 0 (joint "
                                   "2: nan)")},
          {"acceleration limit zero",
           std::string("joint_trajectory:\n  max_vel_limits: ") + kSix +
               "\n  max_acc_limits: [1, 2, 3, 4, 5, 0]\n  max_jerk_limits: " + kSix + "\n",
           ::testing::Eq(invalid + "joint_trajectory.max_acc_limits must be finite and > 0 (joint "
                                   "6: 0)")},
          {"jerk limit infinite",
           std::string("joint_trajectory:\n  max_vel_limits: ") + kSix +
               "\n  max_acc_limits: " + kSix + "\n  max_jerk_limits: [-.inf, 2, 3, 4, 5, 6]\n",
           ::testing::Eq(invalid + "joint_trajectory.max_jerk_limits must be finite and > 0 (joint "
                                   "1: -inf)")},
          {"waypoint velocity not a boolean", head + "  continuous_waypoint_velocity: sometimes\n",
           ::testing::StartsWith("Invalid boolean config field "
                                 "'continuous_waypoint_velocity': expected true/false. "
                                 "yaml-cpp: error at line")},
      });
}

TEST_F(ControllerConfig, TorqueLimitsOrder) {
  auto r = run_with("runtime_joint_safety",
                    "runtime_joint_safety:\n  torque_warn_limits: [5, 5, 5, 5, 5, 5]\n"
                    "  torque_stop_limits: [5, 5, 5, 5, 5, 5]\n");
  EXPECT_EQ(r.exit_code, 0) << "equal warn and stop limits are accepted\n" << r.describe();
  r = run_with("runtime_joint_safety",
               "runtime_joint_safety:\n  torque_warn_limits: [5, 5, 5, 5, 5, 7]\n"
               "  torque_stop_limits: [6, 6, 6, 6, 6, 6]\n");
  EXPECT_EQ(fatal_line(r), "Failed to load runtime joint safety config at " + path() +
                               ": runtime_joint_safety torque limits must be positive and stop >= "
                               "warn");
}

TEST_F(ControllerConfig, GripperSections) {
  auto r = run_with("gripper_watchdog", "gripper_watchdog:\n  position_error_warn_m: 0.05\n");
  EXPECT_EQ(fatal_line(r), "Failed to load gripper watchdog config at " + path() +
                               ": invalid gripper_watchdog config");
  r = run_with("gripper_watchdog", "gripper_watchdog:\n  position_error_warn_m: -1\n");
  EXPECT_EQ(r.exit_code, 0) << "only the order of the distances is checked\n" << r.describe();
  r = run_with("gripper_control", "gripper_control:\n  default_kp: 20.0\n  default_kd: 0.1\n");
  EXPECT_THAT(r.out, ::testing::HasSubstr("gripper 20 0.1\n")) << r.describe();
  r = run_with("gripper_control", "gripper_control:\n  default_kd: 1.01\n");
  EXPECT_EQ(fatal_line(r), "Failed to load gripper control config at " + path() +
                               ": invalid gripper_control config: default_kp must be in "
                               "[0.1,20.0], default_kd must be in [0.1,1.0]");
}

TEST_F(ControllerConfig, MotorSupervisionSection) {
  const struct {
    std::string keys;
    std::string printed;
  } accepted[] = {
      {"  enabled: false\n", "motor_supervision 0 50\n"},
      {"  silent_timeout_ms: 10\n", "motor_supervision 1 10\n"},
      {"  silent_timeout_ms: 1000\n", "motor_supervision 1 1000\n"},
  };
  for (const auto& row : accepted) {
    const auto r = run_with("motor_supervision", "motor_supervision:\n" + row.keys);
    EXPECT_THAT(r.out, ::testing::HasSubstr(row.printed)) << row.keys << r.describe();
  }
  const auto range = ::testing::Eq("Failed to load motor supervision config at " + path() +
                                   ": invalid motor_supervision config: silent_timeout_ms must "
                                   "lie in [10, 1000]");
  expect_fatal("motor_supervision",
               {
                   {"time-out too short", "motor_supervision:\n  silent_timeout_ms: 9.9\n", range},
                   {"time-out too long", "motor_supervision:\n  silent_timeout_ms: 1001\n", range},
                   {"time-out NaN", "motor_supervision:\n  silent_timeout_ms: .nan\n", range},
                   {"switch not a boolean", "motor_supervision:\n  enabled: often\n",
                    ::testing::StartsWith("Failed to load motor supervision config at " + path() +
                                          ": Invalid boolean config field 'enabled'")},
               });
}

// With motor supervision off, a motor whose feedback freezes mid-motion is left to the waypoint
// tracking supervision: the timeline runs on, the error grows past the stop level, and the
// motion turns into a hold without an emergency stop.
TEST_F(ControllerConfig, WithoutMotorSupervisionTheTrackingStopCatchesAFrozenMotor) {
  box.write_config(replace_yaml_section(ConfigSandbox::shipped_config(), "motor_supervision",
                                        "motor_supervision:\n  enabled: false\n"));
  const auto r = box.run("frozen_motor_mid_motion");
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_THAT(r.out, ::testing::HasSubstr("staged 1 held 1 dropped 1 running 1\n"));
  EXPECT_THAT(r.err,
              ::testing::HasSubstr("[control_loop] waypoint tracking error warning: joint="));
  // The timeline runs on the clock, so on a loaded machine the error may have grown a little
  // further by the 30th cycle.
  EXPECT_THAT(r.err, ::testing::ContainsRegex("\\[control_loop\\] waypoint tracking error stop: "
                                              "joint=4 error_rad=0\\.(2[5-9]|3)[0-9]* "
                                              "threshold=0\\.25 cycles=30"));
  EXPECT_THAT(r.err, ::testing::Not(::testing::HasSubstr("emergency_stop_flag=1")));
  EXPECT_THAT(r.err, ::testing::Not(::testing::HasSubstr("motor silent")));
}

TEST_F(ControllerConfig, RealtimeSection) {
  const struct {
    const char* name;
    std::string keys;
    std::string printed;
  } accepted[] = {
      {"defaults when the keys are absent", "", "realtime 0 80 70 1 -1\n"},
      // A CPU the machine lacks is refused when the thread starts, not here.
      {"edges of the ranges",
       "  enabled: true\n  control_priority: 1\n  monitor_priority: 99\n"
       "  lock_memory: false\n  control_cpu: 4096\n",
       "realtime 1 1 99 0 4096\n"},
  };
  for (const auto& row : accepted) {
    const auto r = run_with("realtime", "realtime:\n" + row.keys);
    EXPECT_THAT(r.out, ::testing::HasSubstr(row.printed)) << row.name << '\n' << r.describe();
  }

  const std::string failed = "Failed to load realtime config at " + path() + ": ";
  const auto priority = [&](const char* key) {
    return ::testing::Eq(failed + "invalid realtime config: " + key +
                         " must be an integer in [1, 99]");
  };
  const auto cpu = ::testing::Eq(
      failed + "invalid realtime config: control_cpu must be -1 (no pinning) or a CPU number >= 0");
  expect_fatal("realtime",
               {
                   {"control priority zero", "realtime:\n  control_priority: 0\n",
                    priority("control_priority")},
                   {"control priority 100", "realtime:\n  control_priority: 100\n",
                    priority("control_priority")},
                   {"control priority fractional", "realtime:\n  control_priority: 80.5\n",
                    priority("control_priority")},
                   {"monitor priority NaN", "realtime:\n  monitor_priority: .nan\n",
                    priority("monitor_priority")},
                   {"cpu below -1", "realtime:\n  control_cpu: -2\n", cpu},
                   {"cpu fractional", "realtime:\n  control_cpu: 0.5\n", cpu},
                   {"priority not a number", "realtime:\n  control_priority: high\n",
                    ::testing::StartsWith(failed + "yaml-cpp: error at line")},
                   {"enabled not a boolean", "realtime:\n  enabled: sometimes\n",
                    ::testing::StartsWith(
                        failed + "Invalid boolean config field 'enabled': expected true/false. "
                                 "yaml-cpp: error at line")},
               });
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
  const std::string pinned = "control thread on CPU " + std::to_string(first_cpu);
  const long cpus = sysconf(_SC_NPROCESSORS_CONF);
  const std::string fifo_refused =
      "[realtime] SCHED_FIFO priority 80 for the control thread not permitted (EPERM): running "
      "without real-time scheduling. Allow it with `ulimit -r 99` in the launching shell, the "
      "CAP_SYS_NICE capability, or an rtprio line for your user in /etc/security/limits.conf";
  const std::string lock_refused =
      "[realtime] mlockall not permitted (EPERM): running with pageable memory. Allow it with "
      "`ulimit -l unlimited` in the launching shell, the CAP_IPC_LOCK capability, or a memlock "
      "line for your user in /etc/security/limits.conf";
  const std::string no_such_cpu = "[realtime] CPU 4096 does not exist on this machine (" +
                                  std::to_string(cpus) + " configured: 0-" +
                                  std::to_string(cpus - 1) +
                                  "): the control thread is not pinned. Set "
                                  "realtime.control_cpu to one of them, or to -1";
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
       {{"[realtime] applied: " + pinned +
         ", control thread SCHED_FIFO priority 80, torque monitor SCHED_FIFO priority 70"},
        {fifo_refused, "[realtime] applied: " + pinned}}},
      {"everything refused",
       std::string("  lock_memory: ") + (kRealMlockall ? "true" : "false") +
           "\n  control_cpu: 4096\n",
       "forbid",
       {kRealMlockall ? Lines{lock_refused, no_such_cpu, fifo_refused}
                      : Lines{no_such_cpu, fifo_refused}}},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    box.write_config(replace_yaml_section(ConfigSandbox::shipped_config(), "realtime",
                                          "realtime:\n  enabled: true\n" + row.keys));
    kestrel::testing::RunOptions options;
    options.args = {row.scenario_arg};
    const auto r = box.run("realtime_controller", options);
    ASSERT_EQ(r.exit_code, 0) << r.describe();
    EXPECT_THAT(r.out, ::testing::HasSubstr("running 1 cycling 1\n")) << r.describe();
    Lines reported;
    for (const auto& line : r.err_lines()) {
      if (line.rfind("[realtime]", 0) == 0) {
        reported.push_back(line);
      }
    }
    EXPECT_THAT(reported, ::testing::AnyOfArray(row.expected)) << r.describe();
  }
}

TEST_F(ControllerConfig, MotorSigns) {
  auto r = run_with("motor_signs", "motor_signs: [1, -1, 1, 1.0000000005, -1, 1]\n");
  EXPECT_THAT(r.out, ::testing::HasSubstr("signs 1 -1 1 1 -1 1\n")) << r.describe();
  for (const char* bad : {"2", "1.000000002", ".nan"}) {
    r = run_with("motor_signs", std::string("motor_signs: [1, -1, 1, ") + bad + ", -1, 1]\n");
    EXPECT_EQ(r.exit_code, 3) << bad << ": a bad sign throws, it does not end the process\n"
                              << r.describe();
    EXPECT_THAT(r.out, ::testing::HasSubstr("exception: motor_signs must contain only +1 or -1"))
        << bad;
  }
  r = run_with("motor_signs", "motor_signs: [1, -1, 1, 1, -1]\n");
  EXPECT_EQ(fatal_line(r), "Invalid joint array config at " + path() +
                               ": field 'motor_signs' must be a sequence of 6 numbers");
}

}  // namespace
