// Direct commands against the simulated arm: argument errors before anything changes, the
// gripper commands with their clamping warnings and gains on the wire, the controller without
// gripper, and the gravity-compensation floating mode.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>

#include "controller/controller_fixture.hpp"
#include "support/refusal.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace std::chrono_literals;
using Access = ArmControllerTestAccess;
using kestrel::testing::capture_stderr;
using kestrel::testing::capture_stdout;
using kestrel::testing::eventually;
using kestrel::testing::refusal_of;
using kestrel::testing::SimulatedArm;
using ::testing::HasSubstr;

// The MIT frames motor `m` received since the log was cleared.
std::vector<kestrel::sim::dm::MitCommand> mit_frames(SimulatedArm& sim, int m) {
  std::vector<kestrel::sim::dm::MitCommand> out;
  for (const auto& entry : sim.motors().received_frames()) {
    if (entry.command.kind == kestrel::sim::CommandKind::kMit && entry.command.motor == m) {
      out.push_back(entry.command.mit);
    }
  }
  return out;
}

class DirectCommands : public ::testing::Test {
 protected:
  void SetUp() override {
    capture_stdout(
        [&] { arm = std::make_unique<ArmController>(true, "can0", false, MIT_MODE, false); });
    ASSERT_TRUE(eventually([&] { return arm->get_joint().size() == 6; }, 2s));
  }
  void TearDown() override {
    capture_stdout([&] { arm.reset(); });
  }
  SimulatedArm sim;
  std::unique_ptr<ArmController> arm;
};

TEST_F(DirectCommands, ArgumentErrorsComeFirstAndChangeNothing) {
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> two(2, 0.0), three(3, 0.0), five(5, 0.0), six(6, 0.0);
  const std::vector<double> nan_first = {nan, 0, 0, 0, 0, 0}, nan_third = {0, 0, nan, 0, 0, 0};
  struct Row {
    const char* name;
    std::function<void()> call;
    const char* message;
  };
  // A NaN never reaches the command slot, let alone the bus.
  const Row rows[] = {
      {"set_joint, five joints", [&] { arm->set_joint(five, 1.0); }, "q_end size mismatch"},
      {"set_joint, no time", [&] { arm->set_joint(six, 0.0); }, "tf must be positive"},
      {"set_joint, NaN", [&] { arm->set_joint(nan_first, 1.0); },
       "q_end must contain only finite values"},
      {"set_joint_raw, five joints", [&] { arm->set_joint_raw(five, six); },
       "q_end length does not match num_joints"},
      {"set_joint_raw, two velocities", [&] { arm->set_joint_raw(six, two); },
       "v_end length does not match num_joints"},
      {"set_joint_raw, NaN velocity", [&] { arm->set_joint_raw(six, nan_third); },
       "v_end must contain only finite values"},
      {"pose, two coordinates", [&] { arm->set_end_effector_pose(two, three, 1.0); },
       "target_pos must have exactly 3 elements."},
      {"pose, two angles", [&] { arm->set_end_effector_pose(three, two, 1.0); },
       "target_euler must have exactly 3 elements."},
      {"gripper distance, NaN", [&] { arm->setGripperDistance(nan); },
       "gripper distance must be finite"},
      {"waypoint, NaN", [&] { arm->move_joint_waypoints({nan_third}, 1.0, 0.0); },
       "waypoints must contain only finite values"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(refusal_of(row.call), row.message) << row.name;
  }
  // 0.5 rad in 1 ms would peak at 1094 rad/s: a position step at full gain.
  EXPECT_THAT(
      refusal_of([&] {
        auto q = arm->get_joint();
        q[0] += 0.5;
        arm->set_joint(q, 0.001);
      }),
      ::testing::MatchesRegex(
          "set_joint time 0.001 s is too short: joint 1 would peak at 109[0-9.]+ rad/s, "
          "above 1.25 x its limit of 2 rad/s \\(joint_trajectory.set_joint_speed_factor\\); "
          "the shortest time is 0.43[0-9]+ s"));
  EXPECT_EQ(Access::command_kind(*arm), 0);
}

TEST_F(DirectCommands, GripperPositionOutsideItsRangeWarnsAndClamps) {
  const std::string err = capture_stderr([&] { arm->setGripperPosition_raw(1.5); });
  EXPECT_EQ(err,
            "[Warning] Gripper position must be in [0, 1], but got: 1.5. Value will be clamped.\n");
  EXPECT_TRUE(eventually([&] { return arm->get_gripper_distance() > 0.083; }, 3s))
      << arm->get_gripper_distance();
  EXPECT_DOUBLE_EQ(arm->get_gripper_position(), std::min(arm->get_gripper_distance() / 0.085, 1.0));
  const std::string closing = capture_stderr([&] { arm->setGripperPosition_raw(-0.2); });
  EXPECT_THAT(closing, HasSubstr("but got: -0.2. Value will be clamped."));
  EXPECT_TRUE(eventually([&] { return arm->get_gripper_distance() < 0.002; }, 3s));
}

TEST_F(DirectCommands, GripperGainsAreClampedOnTheWire) {
  sim.motors().clear_frame_log();
  EXPECT_EQ(capture_stderr([&] { arm->setGripperDistance(0.07, 50.0, 5.0); }), "");
  // Frames of the standing command (kp 8) may still come first; the new one follows.
  ASSERT_TRUE(eventually(
      [&] {
        const auto frames = mit_frames(sim, 6);
        return !frames.empty() && frames.back().kp > 10.0;
      },
      1s));
  const auto frame = mit_frames(sim, 6).back();
  EXPECT_NEAR(frame.kp, 20.0, 500.0 / 4095);  // kp into [0.1, 20], kd into [0.1, 1]
  EXPECT_NEAR(frame.kd, 1.0, 5.0 / 4095);
  // The linkage's motor angle for a 70 mm opening, within one count of the 16-bit field.
  EXPECT_NEAR(frame.q, -1.0307842463707704, 25.0 / 65535);
  EXPECT_THAT(capture_stderr([&] { arm->setGripperDistance(0.1); }),
              HasSubstr("[Warning] Gripper distance must be in [0mm, 85 mm], but got: 0.1. Value "
                        "will be clamped."));
}

TEST_F(DirectCommands, GravityCompensationFloatsTheArmOnTorqueAlone) {
  arm->identify_gravity_compensation();
  std::this_thread::sleep_for(100ms);
  sim.motors().clear_frame_log();
  std::this_thread::sleep_for(100ms);
  const auto frames = mit_frames(sim, 1);
  ASSERT_FALSE(frames.empty());
  for (const auto& f : frames) {
    EXPECT_EQ(f.kp, 0.0);
    EXPECT_EQ(f.kd, 0.0);
  }
  EXPECT_GT(std::abs(frames.back().tau), 0.5);  // joint 2 carries the arm's weight
  EXPECT_EQ(Access::command_kind(*arm), 5);
}

TEST(WithoutGripper, GripperCallsAnswerWithTheMessage) {
  SimulatedArm sim;
  std::unique_ptr<ArmController> arm;
  capture_stdout(
      [&] { arm = std::make_unique<ArmController>(false, "can0", false, MIT_MODE, false); });
  double position = 0.0;
  EXPECT_EQ(capture_stdout([&] {
              position = arm->get_gripper_position();
              arm->openGripper();
            }),
            "该模式未包含夹爪\n该模式未包含夹爪\n");
  EXPECT_EQ(position, -1.0);
  capture_stdout([&] { arm.reset(); });
}

}  // namespace
