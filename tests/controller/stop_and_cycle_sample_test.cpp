// stop() and the per-cycle record against the simulated arm: a stop ends a waiting motion and a
// running motion program at once and leaves the arm holding still; the cycle record carries the
// commanded motion, the feed-forward torque and the feedback of one cycle.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <future>

#include "controller/controller_fixture.hpp"
#include "support/refusal.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace std::chrono_literals;
using kestrel::testing::capture_stdout;
using kestrel::testing::eventually;
using kestrel::testing::refusal_of;
using kestrel::testing::SimulatedArm;
using Clock = std::chrono::steady_clock;

class StopAndRecord : public ::testing::Test {
 protected:
  void SetUp() override {
    capture_stdout(
        [&] { arm = std::make_unique<ArmController>(true, "can0", false, MIT_MODE, false); });
    ASSERT_TRUE(eventually([&] { return arm->get_joint().size() == 6; }, 2s));
  }
  void TearDown() override {
    capture_stdout([&] { arm.reset(); });
  }
  // A line 10 cm along -x from where the tool is: long and slow to plan at 1 cm/s.
  std::vector<std::vector<double>> line_back() {
    const auto p = arm->get_end_effector_pose();
    const Eigen::Vector3d rpy =
        ArmControllerTestAccess::impl(*arm).kinematics->rotation_matrix_to_euler(
            Eigen::Quaterniond(p[6], p[3], p[4], p[5]).toRotationMatrix());
    return {{p[0] - 0.1, p[1], p[2], rpy.x(), rpy.y(), rpy.z()}};
  }
  // Hands `seen` every new cycle sample for `duration`.
  template <typename Seen>
  void watch_cycles(std::chrono::milliseconds duration, Seen seen) {
    uint64_t last = arm->get_control_cycle_sample().cycle;
    for (const auto until = Clock::now() + duration; Clock::now() < until;) {
      const auto c = arm->get_control_cycle_sample();
      if (c.cycle != last) {
        last = c.cycle;
        seen(c);
      }
      std::this_thread::sleep_for(1ms);
    }
  }
  double largest_speed() {
    double speed = 0.0;
    for (double v : arm->get_joint_velocities()) {
      speed = std::max(speed, std::abs(v));
    }
    return speed;
  }
  SimulatedArm sim;
  std::unique_ptr<ArmController> arm;
};

TEST_F(StopAndRecord, StopBrakesTheWaitingMotionSmoothlyAndTheArmHoldsStill) {
  arm->openGripper();
  ASSERT_TRUE(eventually([&] { return arm->get_gripper_distance() > 0.08; }, 3s));
  auto motion = std::async(std::launch::async, [&] {
    arm->move_joint_waypoints_with_gripper({{0.8, 0.5, -0.9, 0.6, -0.8, 0.9}}, {0.0}, 4.0, 0.0);
  });
  ASSERT_TRUE(eventually([&] { return largest_speed() > 0.1; }, 2s));
  std::this_thread::sleep_for(300ms);
  sim.motors().clear_frame_log();
  const auto stopped_at = Clock::now();
  arm->stop();
  ASSERT_EQ(motion.wait_for(1s), std::future_status::ready);
  EXPECT_LT(Clock::now() - stopped_at, 100ms);
  EXPECT_EQ(refusal_of<std::runtime_error>([&] { motion.get(); }), "motion stopped");
  std::this_thread::sleep_for(500ms);
  EXPECT_LT(largest_speed(), 0.05);
  const auto held = arm->get_joint();
  EXPECT_GT(std::abs(held[0]), 0.05);  // it had got under way, and stopped short of 0.8
  EXPECT_LT(std::abs(held[0]), 0.75);
  EXPECT_FALSE(arm->emergency_stopped());
  // The brake is jerk-limited: no jump in the commanded position or velocity.
  const auto& impl = ArmControllerTestAccess::impl(*arm);
  const auto steps = sim.largest_target_steps(impl.max_vel, impl.max_acc);
  EXPECT_LE(steps.position, 1.0) << "joint " << steps.position_joint;
  EXPECT_LE(steps.velocity, 1.0) << "joint " << steps.velocity_joint;
  // The gripper was closing: it stays where the stop found it, never back open.
  const double gripper = arm->get_control_cycle_sample().commanded_gripper_m;
  EXPECT_GT(gripper, 0.01);
  EXPECT_LT(gripper, 0.08);

  // The controller takes new motions afterwards.
  EXPECT_GT(arm->move_joint_waypoints({{0.0, 0.3, -0.6, 0.0, -0.6, 0.0}}, 1.5, 0.0), 0.0);
  EXPECT_NEAR(arm->get_joint()[0], 0.0, 0.02);
}

TEST_F(StopAndRecord, DestroyingTheControllerWakesCallsInOtherThreads) {
  // One call waits for its motion; another is still planning a long, slow line.
  ArmController* controller = arm.get();
  auto waiting = std::async(std::launch::async, [controller] {
    controller->move_joint_waypoints({{0.8, 0.5, -0.9, 0.6, -0.8, 0.9}}, 4.0, 0.0);
  });
  ASSERT_TRUE(eventually([&] { return largest_speed() > 0.1; }, 2s));
  auto planning = std::async(std::launch::async, [controller, line = line_back()] {
    controller->move_l(line, 0.0, 0.01);
  });
  std::this_thread::sleep_for(50ms);
  capture_stdout([&] { arm.reset(); });
  for (auto* call : {&waiting, &planning}) {
    ASSERT_EQ(call->wait_for(5s), std::future_status::ready);
    EXPECT_EQ(refusal_of<std::runtime_error>([&] { call->get(); }),
              "waypoint motion interrupted because controller is exiting");
  }
}

// A stop ends a motion still being planned before it starts, and a motion program in its sleep
// before the move after it.
TEST_F(StopAndRecord, StopEndsAPlanningMotionAndAMotionProgramInItsSleep) {
  ArmController::MotionProgramItem sleep, move;
  sleep.type = "sleep";
  sleep.sleep_sec = 10.0;
  move.type = "movej";
  move.waypoints = {{0.5, 0.3, -0.6, 0.0, -0.6, 0.0}};
  move.time_sec = 1.0;
  const auto before = arm->get_joint();
  // A long, slow line takes a while to plan; the stop comes meanwhile.
  auto planning =
      std::async(std::launch::async, [&, line = line_back()] { arm->move_l(line, 0.0, 0.01); });
  std::this_thread::sleep_for(30ms);
  arm->stop();
  ASSERT_EQ(planning.wait_for(10s), std::future_status::ready);
  auto program = std::async(std::launch::async, [&] { arm->run_motion_program({sleep, move}); });
  std::this_thread::sleep_for(200ms);
  arm->stop();
  ASSERT_EQ(program.wait_for(1s), std::future_status::ready);
  for (auto* call : {&planning, &program}) {
    EXPECT_EQ(refusal_of<std::runtime_error>([&] { call->get(); }), "motion stopped");
  }
  std::this_thread::sleep_for(300ms);
  for (size_t j = 0; j < 6; ++j) {
    EXPECT_NEAR(arm->get_joint()[j], before[j], 0.005) << "joint " << j + 1;
  }
}

// set_joint follows the septic profile (its peak velocity is 35/16 of the mean) and the arm
// follows the command closely, then arrives.
TEST_F(StopAndRecord, CycleSampleCarriesCommandFeedForwardAndFeedback) {
  const std::vector<double> target = {0.3, 0.4, -0.7, 0.2, -0.5, 0.1};
  const auto start = arm->get_joint();
  arm->set_joint(target, 1.0);
  double largest_velocity_command = 0.0;
  double worst_tracking = 0.0;
  int cycles_seen = 0;
  int moving = 0;        // cycles where joint 2 or 5 (motors mounted reversed) is commanded to move
  int against_sign = 0;  // of those, the ones where it is measured moving the other way
  watch_cycles(1500ms, [&](const kestrel::controller::ControlCycleSample& c) {
    ++cycles_seen;
    EXPECT_EQ(c.command_kind, 2);
    largest_velocity_command =
        std::max(largest_velocity_command, std::abs(c.commanded_velocity[2]));
    for (int j = 0; j < 6; ++j) {
      worst_tracking =
          std::max(worst_tracking, std::abs(c.measured_position[j] - c.commanded_position[j]));
    }
    for (int j : {1, 4}) {
      if (std::abs(c.commanded_velocity[j]) > 0.2) {
        ++moving;
        against_sign += c.commanded_velocity[j] * c.measured_velocity[j] < 0.0;
      }
    }
  });
  EXPECT_GT(cycles_seen, 300);  // 1.5 s at 400 Hz, polled from another thread
  EXPECT_NEAR(largest_velocity_command, 35.0 / 16.0 * std::abs(target[2] - start[2]), 0.03);
  EXPECT_LT(worst_tracking, 0.08);
  EXPECT_GT(moving, 50);
  EXPECT_EQ(against_sign, 0) << "measured velocities carry the motor signs";
  const auto c = arm->get_control_cycle_sample();
  for (int j = 0; j < 6; ++j) {
    EXPECT_NEAR(c.commanded_position[j], target[j], 1e-9) << j;
    EXPECT_EQ(c.commanded_velocity[j], 0.0) << j;
    EXPECT_NEAR(c.measured_position[j], target[j], 0.01) << j;
  }
  // At rest the feed-forward is the gravity torque: joint 2 carries the arm, joint 1 nothing.
  EXPECT_GT(std::abs(c.feedforward_torque[1]), 1.0);
  EXPECT_NEAR(c.feedforward_torque[0], 0.0, 1e-6);
  EXPECT_NEAR(c.measured_torque[1], c.feedforward_torque[1], 1.5);
  EXPECT_LT(c.commanded_gripper_m, 0.01);  // start-up closes the gripper
  EXPECT_GE(c.measured_gripper_m, 0.0);

  arm->openGripper();
  ASSERT_TRUE(
      eventually([&] { return arm->get_control_cycle_sample().commanded_gripper_m > 0.08; }, 1s));

  // Joint 1 alone: its gravity and Coriolis torques are zero and its inertia does not depend on
  // its own angle, so its feed-forward is that inertia times the commanded acceleration, whose
  // peak scales as 1 / duration²: a quarter for the same travel in twice the time (0.1 rad, well
  // inside the acceleration limits).
  const auto peak_feedforward = [&](double to, double duration) {
    auto q = target;
    q[0] = to;
    arm->set_joint(q, duration);
    double peak = 0.0;
    watch_cycles(std::chrono::milliseconds(static_cast<int>(duration * 1000) + 100),
                 [&](const kestrel::controller::ControlCycleSample& c) {
                   peak = std::max(peak, std::abs(c.feedforward_torque[0]));
                 });
    return peak;
  };
  const double in_half_a_second = peak_feedforward(target[0] + 0.1, 0.5);
  const double in_one_second = peak_feedforward(target[0], 1.0);
  EXPECT_GT(in_one_second, 0.01);
  EXPECT_NEAR(in_half_a_second / in_one_second, 4.0, 0.2)
      << in_half_a_second << " N·m in 0.5 s, " << in_one_second << " N·m in 1 s";
}

}  // namespace
