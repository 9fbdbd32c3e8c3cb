// The control loop and the torque monitor against the simulated arm: the 7th-order joint move,
// waypoint playback and its tracking supervision, run-time velocity supervision, and the
// emergency stop raised by a sustained overload.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "controller/controller_fixture.hpp"
#include "kestrel/controller/septic_profile.hpp"
#include "support/refusal.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace std::chrono_literals;
using Access = ArmControllerTestAccess;
using kestrel::testing::eventually;
using kestrel::testing::SimulatedArm;
using Clock = std::chrono::steady_clock;

// A septic move of `span` from `start` over `periods` control periods, as a timeline.
std::vector<Access::Sample> septic_timeline(const std::vector<double>& start,
                                            const std::array<double, 6>& span, int periods) {
  const double duration = periods * 0.0025;
  std::vector<Access::Sample> samples(static_cast<size_t>(periods) + 1);
  for (size_t i = 0; i < samples.size(); ++i) {
    const double s = static_cast<double>(i) / periods;
    for (int j = 0; j < 6; ++j) {
      samples[i].position[j] = start[j] + span[j] * kestrel::controller::septic_position(s);
      samples[i].velocity[j] = span[j] * kestrel::controller::septic_velocity(s) / duration;
      samples[i].acceleration[j] =
          span[j] * kestrel::controller::septic_acceleration(s) / (duration * duration);
    }
  }
  return samples;
}

// The target positions of the `kind` frames motor `motor` (any: -1) received since the frame log
// was last cleared.
std::vector<double> targets(SimulatedArm& sim, kestrel::sim::CommandKind kind, int motor) {
  std::vector<double> q;
  for (const auto& e : sim.motors().received_frames()) {
    if (e.command.kind == kind && (motor < 0 || static_cast<int>(e.command.motor) == motor)) {
      q.push_back(kind == kestrel::sim::CommandKind::kPosVel ? e.command.pos_vel.q
                                                             : e.command.mit.q);
    }
  }
  return q;
}

// Runs a controller on the simulated arm with standard output and error captured.
class LoopTest : public ::testing::Test {
 protected:
  void SetUp() override {
    ::testing::internal::CaptureStdout();
    ::testing::internal::CaptureStderr();
    arm = std::make_unique<ArmController>(true, "can0", false, MIT_MODE, false);
    ASSERT_TRUE(eventually([&] { return arm->get_joint().size() == 6; }, 2s));
  }

  // Stops the controller and returns (stdout, stderr); a failed test shows them.
  std::pair<std::string, std::string> finish() {
    arm.reset();
    finished = true;
    captured = {::testing::internal::GetCapturedStdout(), ::testing::internal::GetCapturedStderr()};
    return captured;
  }

  void TearDown() override {
    if (!finished) {
      finish();
    }
    if (HasFailure()) {
      std::cout << "---- controller stdout\n"
                << captured.first << "---- controller stderr\n"
                << captured.second;
    }
  }

  bool finished = false;
  std::pair<std::string, std::string> captured;

  SimulatedArm sim;
  std::unique_ptr<ArmController> arm;
};

TEST_F(LoopTest, OutOfRangeTargetsAreClampedToTheUrdfLimits) {
  auto& impl = Access::impl(*arm);
  // Slow enough that run-time supervision has nothing to say about the 3 rad of travel.
  arm->set_joint({0.0, 0.0, 0.0, 0.0, 0.0, 100.0}, 3.0);
  std::this_thread::sleep_for(3000ms);
  EXPECT_TRUE(
      eventually([&] { return std::abs(arm->get_joint()[5] - impl.joint_upper[5]) < 0.02; }, 3s))
      << arm->get_joint()[5];
  // A raw target beyond the limit is clamped in the loop too: the command stays on the limit.
  const auto q = arm->get_joint();
  arm->set_joint_raw({q[0], q[1], q[2], q[3], q[4], 100.0}, {0, 0, 0, 0, 0, 0});
  ASSERT_TRUE(eventually([&] { return arm->get_control_cycle_sample().command_kind == 1; }, 1s));
  EXPECT_EQ(arm->get_control_cycle_sample().commanded_position[5], impl.joint_upper[5]);
}

// The other argument refusals of the direct commands are pinned in DirectCommands (motion_test).
TEST_F(LoopTest, BadArgumentsAreRefusedExactlyAndChangeNothing) {
  using kestrel::testing::refusal_of;
  EXPECT_EQ(refusal_of([&] { arm->set_joint({0, 0, 0, 0, 0, 0}, INFINITY); }), "tf must be finite");
  EXPECT_EQ(refusal_of([&] {
              arm->set_joint_raw({0, 0, 0, 0, 0, 0}, {0, 0, 0, 0, 0, NAN});
            }),
            "v_end must contain only finite values");
  EXPECT_EQ(Access::command_kind(*arm), 0) << "no command reached the slot";
}

// A timeline handed over directly (not planned) plays back and ends in a hold; joint 6 is run
// slowly to 3.05 rad, and its frames stop at its 3.0 rad limit.
TEST_F(LoopTest, WaypointTimelinePlaysBackWithinTheUrdfLimitsAndEndsInAHold) {
  const auto start = arm->get_joint();
  auto samples = septic_timeline(start, {0.2, 0.2, -0.3, 0.2, 0.2, 3.05 - start[5]}, 1600);
  const auto final_position = samples.back().position;
  sim.motors().clear_frame_log();
  Access::play(*arm, std::move(samples));
  EXPECT_EQ(Access::command_kind(*arm), 3);
  ASSERT_TRUE(eventually([&] { return Access::command_kind(*arm) == 1; }, 6s));
  EXPECT_FALSE(arm->emergency_stopped());
  std::this_thread::sleep_for(300ms);
  for (int j = 0; j < 5; ++j) {
    EXPECT_NEAR(arm->get_joint()[j], final_position[j], 0.01);
  }
  const auto joint6 = targets(sim, kestrel::sim::CommandKind::kMit, 5);
  ASSERT_FALSE(joint6.empty());
  const double highest = *std::max_element(joint6.begin(), joint6.end());
  EXPECT_GT(highest, 2.9);
  EXPECT_LE(highest, 3.0 + 25.0 / 65535);
}

// A motor that falls silent mid-motion stops the arm at once, naming it, before its link's fall
// shows up anywhere else.
TEST_F(LoopTest, AMotorFallingSilentMidMotionStopsTheArmNamingIt) {
  auto target = arm->get_joint();
  target[3] += 0.6;
  arm->set_joint(target, 2.0);
  std::this_thread::sleep_for(300ms);
  sim.motors().set_silent(3, true);
  ASSERT_TRUE(eventually([&] { return arm->emergency_stopped(); }, 1s));
  sim.motors().set_silent(3, false);
  const auto [out, err] = finish();
  EXPECT_THAT(err, ::testing::ContainsRegex("\\[control_loop\\] motor silent stop: joint=4 no "
                                            "feedback for 5[0-9]\\.[0-9] ms\n\\[control_loop\\] "
                                            "emergency_stop_flag=1, calling disable_all\\(\\)\n"));
  // The stop comes from the silence, not from the fall (a slow machine may still warn).
  EXPECT_THAT(err, ::testing::Not(::testing::ContainsRegex("runtime joint [a-z]+ stop")));
}

TEST_F(LoopTest, TheGripperCommandRepeatsOnItsPeriodAndWorksAgainAfterItsWatchdogStop) {
  // A standing gripper command goes out every command_period_ms (5 ms), on the clock, not
  // whenever a jittered wake-up happens to be 5 ms after the previous one.
  sim.motors().clear_frame_log();
  std::this_thread::sleep_for(2s);
  const size_t frames = targets(sim, kestrel::sim::CommandKind::kMit, 6).size();
  EXPECT_GE(frames, 390u);
  EXPECT_LE(frames, 405u);
  // Something in the jaws holds the gripper shut: the watchdog drops the command after 0.5 s,
  // and the gripper motor, hearing nothing more, disables itself after 50 ms.
  auto& gripper = Access::impl(*arm).kestrel->get_gripper();
  const double opening =
      gripper.get_open_motor_position() > gripper.get_close_motor_position() ? 1.0 : -1.0;
  ASSERT_TRUE(eventually([&] { return arm->get_gripper_distance() < 0.005; }, 2s));
  sim.motors().set_external_torque(6, -12.0 * opening);
  arm->openGripper();
  std::this_thread::sleep_for(1200ms);
  EXPECT_LT(arm->get_gripper_distance(), 0.03);
  sim.motors().set_external_torque(6, 0.0);
  std::this_thread::sleep_for(200ms);
  arm->openGripper();
  EXPECT_TRUE(eventually([&] { return arm->get_gripper_distance() > 0.08; }, 3s))
      << arm->get_gripper_distance();
  const auto [out, err] = finish();
  EXPECT_THAT(err, ::testing::ContainsRegex("\\[control_loop\\] gripper watchdog stop: "
                                            "position_error_m=0\\.0[0-9]+ duration_ms=500"));
}

TEST(PosVelLoop, GravityFallbackHoldsWhereverTheArmIsEachCycle) {
  SimulatedArm sim;
  ::testing::internal::CaptureStderr();
  std::unique_ptr<ArmController> arm;
  kestrel::testing::capture_stdout(
      [&] { arm = std::make_unique<ArmController>(true, "can0", false, POS_VEL_MODE, false); });
  ASSERT_TRUE(eventually([&] { return arm->get_joint().size() == 6; }, 3s));
  // Gravity mode while joint 1 turns at 0.25 rad/s: the motors brake within their DEC setting
  // (gently enough for the run-time supervision), and the posture held each cycle is where the
  // arm is by then.
  auto q = arm->get_joint();
  q[0] += 0.18;
  arm->set_joint(q, 1.6);
  std::this_thread::sleep_for(800ms);
  sim.motors().clear_frame_log();
  arm->identify_gravity_compensation();
  std::this_thread::sleep_for(300ms);
  const auto held = targets(sim, kestrel::sim::CommandKind::kPosVel, 0);
  const double measured = arm->get_joint()[0];
  EXPECT_FALSE(arm->emergency_stopped());
  kestrel::testing::capture_stdout([&] { arm.reset(); });
  const std::string err = ::testing::internal::GetCapturedStderr();
  ASSERT_GT(held.size(), 100u);
  const auto [low, high] = std::minmax_element(held.begin() + 5, held.end());
  EXPECT_GT(*high - *low, 0.001) << "the held posture follows the braking arm";
  EXPECT_NEAR(held.back(), measured, 0.001);
  EXPECT_THAT(err, ::testing::HasSubstr("falling back to position/velocity hold."));
}

TEST_F(LoopTest, SustainedVelocityExcessStopsTheArm) {
  // A smooth timeline brings joint 4 up to 6 rad/s, above 1.3 x its 4 rad/s limit, with its
  // acceleration and jerk inside their bands, so that the velocity check is the one that acts.
  auto samples = septic_timeline(arm->get_joint(), {}, 800);
  for (int i = 1; i <= 800; ++i) {
    const double s = std::min(i / 400.0, 1.0);  // 1 s ramp, then cruise
    samples[i].velocity[3] = 6.0 * kestrel::controller::septic_position(s);
    samples[i].acceleration[3] = i < 400 ? 6.0 * kestrel::controller::septic_velocity(s) : 0.0;
    samples[i].position[3] = samples[i - 1].position[3] + samples[i].velocity[3] * 0.0025;
  }
  const auto played = Clock::now();
  Access::play(*arm, std::move(samples));
  ASSERT_TRUE(eventually([&] { return !arm->running(); }, 2s));
  // The commanded velocity passes the 5.2 rad/s stop level 0.69 s into the ramp: no stop before.
  EXPECT_GE(Clock::now() - played, 650ms);
  EXPECT_TRUE(motors_end_disabled(sim));
  // Switched off by the stop itself, not only by their own communication time-out 50 ms later.
  EXPECT_GE(targets(sim, kestrel::sim::CommandKind::kDisable, -1).size(), 6u);
  const auto [out, err] = finish();
  // The eight stop cycles are counted over all three quantities and the line names the largest
  // ratio of the last one: on a loaded machine a late feedback frame can make that a jerk spike.
  EXPECT_THAT(err, ::testing::ContainsRegex(
                       "\\[control_loop\\] runtime joint (velocity|acceleration|jerk) stop: "
                       "joint=4 value=[0-9.]+ threshold=[0-9.]+ cycles=8"));
  EXPECT_THAT(err,
              ::testing::HasSubstr("[control_loop] emergency_stop_flag=1, calling disable_all()"));
  EXPECT_THAT(
      err, ::testing::HasSubstr("[control_loop] loop exited. exit_flag=1 emergency_stop_flag=1"));
}

// The cycle's writes that fail while the interface is down land in the loop statistics, and the
// torque monitor says so once, however many fail.
TEST_F(LoopTest, WritesRefusedByADownInterfaceAreCountedAndReportedOnce) {
  EXPECT_EQ(arm->control_loop_statistics().send_failures.total(), 0u);
  sim.bus().set_up("can0", false);
  ASSERT_TRUE(eventually(
      [&] { return arm->control_loop_statistics().send_failures.interface_down > 40; }, 2s));
  std::this_thread::sleep_for(50ms);  // the monitor's next passes: no second line
  sim.bus().set_up("can0", true);
  const auto failures = arm->control_loop_statistics().send_failures;
  EXPECT_EQ(failures.total(), failures.interface_down);
  EXPECT_EQ(failures.last_errno, ENETDOWN);
  const auto [out, err] = finish();
  const std::string line =
      "CAN writes to 'can0' are failing: Network is down (ENETDOWN); counted in the loop "
      "statistics\n";
  const auto first = err.find(line);
  ASSERT_NE(first, std::string::npos) << err;
  EXPECT_EQ(err.find(line, first + 1), std::string::npos) << "reported twice";
}

// Joint 4 (warn 6, stop 8 N·m), pushed gradually: 7 N·m only warns, however long; above 8 N·m
// the torque monitor raises the emergency stop after six seconds.
TEST_F(LoopTest, TorqueBetweenWarnAndStopOnlyWarnsAndASustainedOverloadStopsAfterSixSeconds) {
  sim.ramp_external_torque(3, 0.0, 7.0, 1000ms);
  std::this_thread::sleep_for(7s);
  EXPECT_FALSE(arm->emergency_stopped());
  std::cout.flush();
  const auto warned_only = ::testing::internal::GetCapturedStdout();
  ::testing::internal::CaptureStdout();
  EXPECT_THAT(
      warned_only,
      ::testing::ContainsRegex(
          "⚠️ 警告：电机4 平均力矩：-?[0-9.]+ 平均力矩超过报警阈值 6，"
          "停止阈值 8 已持续 0 秒！若继续超限，将在 6 秒后断电！"));
  EXPECT_THAT(warned_only, ::testing::Not(::testing::HasSubstr("触发急停")));
  sim.ramp_external_torque(3, 7.0, 7.9, 200ms);  // just below the stop limit, then over it
  sim.ramp_external_torque(3, 7.9, 9.0, 100ms);
  const auto t0 = Clock::now();
  ASSERT_TRUE(eventually([&] { return arm->emergency_stopped(); }, 9s));
  const double seconds = std::chrono::duration<double>(Clock::now() - t0).count();
  EXPECT_GT(seconds, 5.8);
  EXPECT_LT(seconds, 7.5);
  ASSERT_TRUE(eventually([&] { return !arm->running(); }, 1s));
  const auto [out, err] = finish();
  EXPECT_THAT(out, ::testing::ContainsRegex(
                       "⚠️ 警告：电机4(.|\n)*\n❌ 电机4 平均力矩超阈值已持续 "
                       "[0-9.]+ 秒，触发急停！\n"))
      << "warnings come first";
  EXPECT_THAT(err,
              ::testing::ContainsRegex(
                  "\\[torque_monitor\\] trigger emergency_stop on joint 4, avg_torque=-?[0-9.]+, "
                  "threshold=8, over_limit_time=6"));
  EXPECT_THAT(err, ::testing::HasSubstr(
                       "[control_loop] disable_all done, exit_flag set, control loop exiting"));
  EXPECT_THAT(
      err, ::testing::HasSubstr("[torque_monitor] loop exited. exit_flag=1 emergency_stop_flag=1"));
}

}  // namespace
