// Motions and direct commands end to end on the simulated arm: joint waypoint motions and their
// waits, chunk updates and takeovers measured on the frames the motors received, motion programs
// and their joining rules, linear and point-to-point Cartesian motions, the Cartesian direct
// commands, a set_joint too short to follow, the gripper's clamping warnings and gains on the
// wire, the controller without gripper, and the gravity-compensation floating mode. (Argument
// errors that need no joint state are checked on the planner's controller without hardware.)
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <future>
#include <limits>

#include "controller/controller_fixture.hpp"
#include "support/refusal.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace std::chrono_literals;
using Access = ArmControllerTestAccess;
using kestrel::sim::dm::MitCommand;
using kestrel::testing::capture_stderr;
using kestrel::testing::capture_stdout;
using kestrel::testing::eventually;
using kestrel::testing::refusal_of;
using kestrel::testing::segment_distance;
using kestrel::testing::SimulatedArm;
using ::testing::AllOf;
using ::testing::DoubleNear;
using ::testing::Each;
using ::testing::Field;
using ::testing::HasSubstr;
using ::testing::Pointwise;
using Item = ArmController::MotionProgramItem;
using Joints = std::vector<double>;

const Joints kHome = {0.0, 0.3, -0.6, 0.0, -0.6, 0.0};
const Joints kWork = {0.2, 0.4, -0.9, 0.3, -0.7, 0.1};

Joints with_joint1(double q1) {
  return {q1, kHome[1], kHome[2], kHome[3], kHome[4], kHome[5]};
}

// The MIT frames motor `m` received since the log was cleared.
std::vector<MitCommand> mit_frames(SimulatedArm& sim, int m) {
  std::vector<MitCommand> out;
  for (const auto& entry : sim.motors().received_frames()) {
    if (entry.command.kind == kestrel::sim::CommandKind::kMit && entry.command.motor == m) {
      out.push_back(entry.command.mit);
    }
  }
  return out;
}

class MotionTest : public ::testing::Test {
 protected:
  // The controller's start-up lines and the motors' reports stay in the log: they explain a
  // failure.
  void SetUp() override {
    arm = std::make_unique<ArmController>(true, "can0", false, MIT_MODE, false);
    ASSERT_TRUE(eventually([&] { return arm->get_joint().size() == 6; }, 2s));
  }
  // Whether the measured joints come within 0.01 rad of q.
  bool arrives_at(const Joints& q, std::chrono::milliseconds within = 3s) {
    const auto distance = [&] {
      const auto now = arm->get_joint();
      return (Eigen::Map<const Eigen::VectorXd>(now.data(), 6) -
              Eigen::Map<const Eigen::VectorXd>(q.data(), 6))
          .cwiseAbs()
          .maxCoeff();
    };
    const bool arrived = eventually([&] { return distance() < 0.01; }, within);
    EXPECT_TRUE(arrived) << "still " << distance() << " rad away";
    return arrived;
  }
  // The tool pose as x, y, z, roll, pitch, yaw: at joints q, or where the arm is now.
  Joints tool_pose(const Joints& q = {}) {
    auto& kinematics = *Access::impl(*arm).kinematics;
    const auto p = q.empty() ? arm->get_end_effector_pose() : kinematics.forwardKinematics_kdl(q);
    const Eigen::Vector3d rpy = kinematics.rotation_matrix_to_euler(
        Eigen::Quaterniond(p[6], p[3], p[4], p[5]).toRotationMatrix());
    return {p[0], p[1], p[2], rpy.x(), rpy.y(), rpy.z()};
  }
  static Joints moved(const Joints& p, double dx, double dy, double dz = 0.0) {
    return {p[0] + dx, p[1] + dy, p[2] + dz, p[3], p[4], p[5]};
  }
  // Whether the measured tool point comes within `tolerance` of the pose's.
  bool tool_reaches(const Joints& pose, double tolerance, std::chrono::milliseconds within = 3s) {
    const auto miss = [&] {
      const auto p = arm->get_end_effector_pose();
      return std::hypot(p[0] - pose[0], p[1] - pose[1], p[2] - pose[2]);
    };
    const bool reached = eventually([&] { return miss() < tolerance; }, within);
    EXPECT_TRUE(reached) << "misses by " << miss();
    return reached;
  }

  // A waypoint motion to q in the background; a chunk or a stop may end it early.
  std::future<void> moving_to(Joints q, double time, double speed) {
    return std::async(std::launch::async, [this, q, time, speed] {
      try {
        arm->move_joint_waypoints({q}, time, speed);
      } catch (const std::runtime_error&) {
      }
    });
  }
  SimulatedArm sim;
  std::unique_ptr<ArmController> arm;
};

TEST_F(MotionTest, WaypointMotionsWaitUntilTheyEndOrAreReplacedAndThrowAtAnEmergencyStop) {
  const auto began = std::chrono::steady_clock::now();
  const double duration = arm->move_joint_waypoints({kHome, kWork}, 0.0, 0.5);
  const double waited =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - began).count();
  const auto samples = arm->get_last_waypoint_command_samples();
  ASSERT_FALSE(samples.empty());
  EXPECT_DOUBLE_EQ(duration, static_cast<double>(samples.size() - 1) / 400.0);
  EXPECT_GE(waited, duration);  // the call returns when the motion has ended
  arrives_at(kWork);

  // A second motion ends the first one's wait normally, with the first one's duration.
  auto first =
      std::async(std::launch::async, [&] { return arm->move_joint_waypoints({kHome}, 4.0, 0.0); });
  ASSERT_TRUE(eventually([&] { return Access::command_counter(*arm) == 2; }, 2s));
  std::this_thread::sleep_for(200ms);
  EXPECT_DOUBLE_EQ(arm->move_joint_waypoints({kWork}, 2.0, 0.0), 2.0);
  ASSERT_EQ(first.wait_for(0s), std::future_status::ready);
  EXPECT_DOUBLE_EQ(first.get(), 4.0);
  EXPECT_FALSE(arm->emergency_stopped());

  // An emergency stop during the wait throws, and drops a chunk staged before it.
  auto motion =
      std::async(std::launch::async, [&] { return arm->move_joint_waypoints({kHome}, 3.0, 0.0); });
  ASSERT_TRUE(eventually([&] { return Access::command_counter(*arm) == 4; }, 2s));
  arm->update_joint_waypoint_chunk({kWork}, 0.0, 0.5, 2.0);
  ASSERT_TRUE(Access::staged(*arm));
  Access::raise_emergency_stop(*arm);
  EXPECT_EQ(refusal_of<std::runtime_error>([&] { motion.get(); }),
            "waypoint motion interrupted by emergency stop");
  EXPECT_TRUE(eventually([&] { return !arm->running(); }, 1s));
  EXPECT_FALSE(Access::staged(*arm)) << "the chunk staged before the stop is dropped";
}

TEST_F(MotionTest, AStagedChunkChangesNothingBeforeItsSwitch) {
  arm->setGripperDistance(0.03, 15.0, 0.5);
  auto motion =
      std::async(std::launch::async, [&] { return arm->move_joint_waypoints({kWork}, 3.0, 0.0); });
  ASSERT_TRUE(eventually([&] { return Access::command_counter(*arm) == 1; }, 2s));
  const auto running_target = Access::command_target(*arm);
  sim.motors().clear_frame_log();
  arm->update_joint_waypoint_chunk_with_gripper({kHome}, {1.0}, 0.0, 0.5, 1.0);
  std::this_thread::sleep_for(800ms);
  // Before the switch: the running motion's target, the standing gripper command and gains.
  EXPECT_EQ(Access::command_target(*arm), running_target);
  // Within one count of the 12-bit field.
  EXPECT_THAT(mit_frames(sim, 6), Each(Field(&MitCommand::kp, DoubleNear(15.0, 500.0 / 4095))));
  motion.get();  // replaced at the switch
  std::this_thread::sleep_for(200ms);
  EXPECT_THAT(Access::command_target(*arm), Pointwise(DoubleNear(1e-12), kHome))
      << "the chunk's final posture";
  EXPECT_TRUE(eventually([&] { return arm->get_gripper_distance() > 0.08; }, 5s));
}

// Whatever runs, a chunk update takes it over from its state at the switch: timed or by speed,
// turning back, into a waypoint motion or a set_joint move, or after an earlier chunk still
// waiting for its switch (which then plays from its switch until the later one takes over). With
// smooth_takeover, any new motion takes over that way. The targets the motors received carry on
// without a jump in position or velocity, within the limits.
TEST_F(MotionTest, TakeoversSpliceIntoTheRunningMotionWithoutAJump) {
  struct Row {
    const char* name;
    std::function<std::future<void>()> start;  // the running motion
    std::chrono::milliseconds pause;           // then taken over once joint 1 runs faster than
    double faster_than;
    std::function<double()> take_over;  // returns the new motion's duration
    Joints target;                      // where the arm ends up; empty: not checked
  };
  auto run_to = [&](double q1, double time) {
    return [=] { return moving_to(with_joint1(q1), time, time > 0.0 ? 0.0 : 0.5); };
  };
  auto chunk = [&](double q1, double time, double speed, double delay) {
    return arm->update_joint_waypoint_chunk({with_joint1(q1)}, time, speed, delay);
  };
  auto smoothly = [&](std::function<void()> call) {
    return [=] {
      Access::impl(*arm).trajectory_config.smooth_takeover = true;
      call();
      return 2.5;
    };
  };
  const Joints work_pose = tool_pose(kWork);
  const Row rows[] = {
      {"a timed chunk turning back in full flight", run_to(1.2, 3.0), 1s, -10.0,
       [&] { return chunk(-0.2, 2.5, 0.0, 0.2); }, with_joint1(-0.2)},
      {"a chunk into a set_joint move",
       [&] {
         arm->set_joint(with_joint1(0.8), 2.0);
         return std::future<void>();
       },
       800ms, -10.0, [&] { return chunk(0.2, 0.0, 0.5, 0.05); }, with_joint1(0.2)},
      {"a chunk staged while an earlier one waits", run_to(1.2, 0.0), 0ms, 0.3,
       [&] {
         chunk(0.9, 0.0, 0.3, 0.15);
         std::this_thread::sleep_for(50ms);
         return chunk(0.1, 0.0, 0.4, 0.3);
       },
       with_joint1(0.1)},
      {"smoothly, a waypoint motion", run_to(1.2, 0.0), 0ms, 0.4,
       smoothly([&] { arm->move_joint_waypoints({kWork}, 0.0, 0.5); }), kWork},
      {"smoothly, a set_joint move", run_to(1.2, 0.0), 0ms, 0.4,
       smoothly([&] { arm->set_joint(kWork, 2.0); }), kWork},
      {"smoothly, a linear motion",
       run_to(1.2, 0.0),
       0ms,
       0.4,
       smoothly([&] { arm->move_l({work_pose}, 0.0, 0.5); }),
       {}},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.name);
    arm->move_joint_waypoints({kHome}, 0.0, 0.5);
    auto running = row.start();
    std::this_thread::sleep_for(row.pause);
    ASSERT_TRUE(eventually([&] { return arm->get_joint_velocities()[0] > row.faster_than; }, 5s));
    sim.motors().clear_frame_log();
    const double duration = row.take_over();
    if (running.valid()) {
      running.get();  // a replaced motion's wait ends normally at the switch
    }
    // The switch and the transition lie in the first 3 s (the frame log holds about 5 s): the
    // targets the motors received carry on without a jump.
    std::this_thread::sleep_for(std::chrono::duration<double>(std::min(duration, 3.0)));
    const auto steps =
        sim.largest_target_steps(Access::impl(*arm).max_vel, Access::impl(*arm).max_acc);
    EXPECT_LE(steps.position, 1.0) << "position, joint " << steps.position_joint;
    EXPECT_LE(steps.velocity, 1.0) << "velocity, joint " << steps.velocity_joint;
    if (!row.target.empty()) {
      arrives_at(row.target,
                 std::chrono::milliseconds(static_cast<int>(1000 * std::max(duration + 2, 5.0))));
    }
  }
  EXPECT_FALSE(arm->emergency_stopped());
}

// Nothing to do returns at once and publishes nothing; a program joins joint items of one speed,
// timed items (their times add up) and Cartesian items of one kind and blend, and splits the rest.
TEST_F(MotionTest, MotionProgramJoinsAndSplitsAsItsRulesSayAndEmptyMotionsPublishNothing) {
  const Joints a = with_joint1(0.15), b = with_joint1(0.3), here = tool_pose();
  auto movej = [](Joints q, double time, double speed) {
    return Item{"movej", {q}, {}, time, speed, 0.0, 0.0};
  };
  auto count_after = [&](std::vector<Item> program) {
    arm->run_motion_program(program);
    return Access::command_counter(*arm);
  };
  auto refused = [&](std::vector<Item> program) {
    return refusal_of([&] { arm->run_motion_program(program); });
  };
  EXPECT_EQ(arm->run_motion_program({}), 0.0);
  EXPECT_EQ(arm->move_l({here, here}), 0.0);
  EXPECT_EQ(Access::command_counter(*arm), 0);
  EXPECT_EQ(count_after({movej(a, 0, 0.5), movej(b, 0, 0.5)}), 1);
  EXPECT_EQ(count_after({movej(a, 0, 0.5), movej(b, 0, 0.3)}), 3);
  EXPECT_DOUBLE_EQ(arm->run_motion_program({movej(a, 1.0, 0), movej(kHome, 1.5, 0)}), 2.5);
  EXPECT_EQ(Access::command_counter(*arm), 4);

  const Item sleep{"Sleep", {}, {}, 0.0, 0.0, -1.0, 0.0}, jump{"jump", {}, {}, 0.0, 0.0, 0.0, 0.0};
  EXPECT_EQ(refused({movej(a, 0.5, 0), sleep}), "MotionProgram sleep_sec must be non-negative");
  EXPECT_EQ(Access::command_counter(*arm), 5);  // the movej ran before the sleep was checked
  EXPECT_EQ(refused({movej(kHome, 0.5, 0), jump}), "unsupported MotionProgram item type: jump");
  EXPECT_EQ(Access::command_counter(*arm), 5);  // the pending movej was dropped
  EXPECT_EQ(refused({movej(b, 1.0, 0), movej(a, 1.0, 0.5)}),
            "MotionProgram movej item cannot set both time_sec and speed_percent");
  EXPECT_EQ(Access::command_counter(*arm), 5);

  arm->move_joint_waypoints({kWork}, 0.0, 0.5);
  const Joints p = tool_pose();
  auto item = [&](const char* type, double dx, double dy, double blend) {
    return Item{type, {}, {moved(p, dx, dy)}, 0.0, 0.5, 0.0, blend};
  };
  EXPECT_EQ(count_after({item("MoveL", -0.03, 0, 0.005), item("movel", -0.03, 0.03, 0.005)}), 7);
  EXPECT_EQ(count_after({item("movel", 0, 0.03, 0.005), item("movel", 0, 0, 0.01)}), 9);
  EXPECT_EQ(count_after({item("movel", -0.02, 0, 0.0), item("movep", 0, 0, 0.0)}), 11);
}

TEST_F(MotionTest, MoveLKeepsTheMeasuredToolWithinAMillimetreOfItsLines) {
  arm->move_joint_waypoints({kWork}, 0.0, 0.5);
  std::this_thread::sleep_for(300ms);
  const Joints p = tool_pose();
  const std::vector<Joints> poses = {moved(p, -0.05, 0), moved(p, -0.05, 0.05, -0.02),
                                     moved(p, 0, 0.05, -0.02)};
  const auto point = [](const Joints& q) { return Eigen::Vector3d(q[0], q[1], q[2]); };
  const Eigen::Vector3d path[] = {point(p), point(poses[0]), point(poses[1]), point(poses[2])};
  const double blend = 0.01;

  // Sample the simulated arm's joints (the truth, not the controller's feedback) during the
  // motion, and put them through forward kinematics.
  std::atomic<bool> moving{true};
  std::vector<std::array<double, 6>> measured;
  std::thread sampler([&] {
    while (moving) {
      measured.push_back(sim.joint_positions());
      std::this_thread::sleep_for(2ms);
    }
  });
  double duration = 0.0;
  EXPECT_NO_THROW(duration = arm->move_l(poses, 0.0, 0.1, blend));
  moving = false;
  sampler.join();
  EXPECT_GT(duration, 0.5);
  ASSERT_GT(measured.size(), 100u);
  double worst_off_line = 0.0;  // away from the rounded corners
  for (const auto& joints : measured) {
    const auto f =
        Access::impl(*arm).kinematics->forwardKinematics_kdl(Joints(joints.begin(), joints.end()));
    const Eigen::Vector3d t(f[0], f[1], f[2]);
    if (std::min((t - path[1]).norm(), (t - path[2]).norm()) > blend) {
      worst_off_line = std::max(worst_off_line, std::min({segment_distance(t, path[0], path[1]),
                                                          segment_distance(t, path[1], path[2]),
                                                          segment_distance(t, path[2], path[3])}));
    }
  }
  EXPECT_LT(worst_off_line, 0.001);
  tool_reaches(poses.back(), 0.002);
}

// set_end_effector_pose and move_p (with the gripper) reach their poses; solve_ik agrees with
// forward kinematics. move_p reaches a far pose from home, one that solve_ik cannot find from
// there, on the branch nearest it.
TEST_F(MotionTest, SetEndEffectorPoseAndMovePReachTheirPosesNearAndFar) {
  const Joints pose = tool_pose(kWork);
  const Joints pos(pose.begin(), pose.begin() + 3), euler(pose.begin() + 3, pose.end());
  const auto [solution, ok] = arm->solve_ik(pos, euler, kWork);
  ASSERT_TRUE(ok);
  EXPECT_THAT(solution, Pointwise(DoubleNear(1e-3), kWork));
  arm->set_end_effector_pose(pos, euler, 2.0);
  // The move takes 2 s; a loaded machine may let the simulated arm settle later.
  std::this_thread::sleep_for(2000ms);
  tool_reaches(pose, 0.004, 4s);

  const Joints target = moved(tool_pose(), -0.08, 0.05, -0.05);
  EXPECT_GT(arm->move_p_with_gripper({target}, {1.0}, 0.0, 0.5), 0.0);
  tool_reaches(target, 0.004);
  EXPECT_GT(arm->get_gripper_position(), 0.8);

  arm->move_joint_waypoints({{0.0, 0.4, -0.9, 0.0, -0.6, 0.0}}, 0.0, 1.0);
  const Joints far = {0.332850, 0.266414, 0.277928, -1.504685, 0.271018, -1.400363};
  EXPECT_GT(arm->move_p({far}, 0.0, 1.0), 0.0);
  tool_reaches(far, 0.004);
}

TEST_F(MotionTest, StreamedPoseShapesItsVelocityWithTheElapsedTime) {
  arm->move_joint_waypoints({kWork}, 0.0, 0.5);
  const Joints pose = tool_pose();
  const Joints euler(pose.begin() + 3, pose.end());
  arm->set_end_effector_pose_raw({pose[0], pose[1], pose[2]}, euler);  // first call: v = 0
  EXPECT_EQ(Access::target_velocity(*arm), kestrel::controller::JointArray{});
  // Sideways by 3 cm: joint 1 turns the arm a long way at once; its velocity may change by at
  // most a_max x dt, dt clamped into [1, 7.5] ms.
  arm->set_end_effector_pose_raw({pose[0], pose[1] + 0.03, pose[2]}, euler);
  const double v1 = Access::target_velocity(*arm)[0];
  EXPECT_GT(v1, 0.0);
  EXPECT_LE(v1, 35.0 * 0.0075 + 1e-12);
  std::this_thread::sleep_for(1s);  // a pause counts as 7.5 ms
  arm->set_end_effector_pose_raw({pose[0], pose[1] + 0.06, pose[2]}, euler);
  EXPECT_NEAR(Access::target_velocity(*arm)[0], v1 + 35.0 * 0.0075, 1e-9);
  // Wrong sizes are ignored: a streaming caller is not stopped by one malformed target.
  const auto before = Access::target_velocity(*arm);
  EXPECT_NO_THROW(arm->set_end_effector_pose_raw({pose[0], pose[1]}, euler));
  EXPECT_EQ(Access::target_velocity(*arm), before);
}

// ---- Joint and gripper direct commands ------------------------------------------------------

class DirectCommands : public MotionTest {};

// 0.5 rad in 1 ms would peak at 1094 rad/s: a position step at full gain. (The argument checks
// of the direct commands, which need no joint state, are in the planner's refusals.)
TEST_F(DirectCommands, SetJointTooShortIsRefusedWithThePeakAndTheShortestTime) {
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

// Out-of-range gripper values warn and are clamped: the position into [0, 1], the opening into
// [0, 85 mm], kp into [0.1, 20] and kd into [0.1, 1] on the wire.
TEST_F(DirectCommands, GripperValuesOutsideTheirRangesWarnAndAreClampedOnTheWire) {
  EXPECT_EQ(capture_stderr([&] { arm->setGripperPosition_raw(1.5); }),
            "[Warning] Gripper position must be in [0, 1], but got: 1.5. Value will be clamped.\n");
  EXPECT_TRUE(eventually([&] { return arm->get_gripper_distance() > 0.083; }, 3s))
      << arm->get_gripper_distance();
  EXPECT_DOUBLE_EQ(arm->get_gripper_position(), std::min(arm->get_gripper_distance() / 0.085, 1.0));
  EXPECT_EQ(
      capture_stderr([&] { arm->setGripperPosition_raw(-0.2); }),
      "[Warning] Gripper position must be in [0, 1], but got: -0.2. Value will be clamped.\n");
  EXPECT_TRUE(eventually([&] { return arm->get_gripper_distance() < 0.002; }, 3s));

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
  EXPECT_NEAR(frame.kp, 20.0, 500.0 / 4095);  // one count of the 12-bit fields
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
  EXPECT_THAT(frames, Each(AllOf(Field(&MitCommand::kp, 0.0), Field(&MitCommand::kd, 0.0))));
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
