// Planning only. The joint waypoint planner, the singularity detour and the Cartesian line
// planner, and the argument errors of the motions and direct commands, run on a controller that
// touches no hardware (skip_hardware_init); and the online
// splice and the joint waypoint planner as components, without a controller: a running state
// carried into a new motion without a jump, within the limits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>
#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <thread>

#include "controller/controller_fixture.hpp"
#include "kestrel/controller/joint_splice.hpp"
#include "kestrel/controller/joint_waypoint_planner.hpp"
#include "support/stderr_capture.hpp"

namespace {

using namespace kestrel::controller;
using Access = ArmControllerTestAccess;
using kestrel::testing::segment_distance;
using Impl = Access::Impl;
using Sample = Impl::Sample;
using Poses = std::vector<std::vector<double>>;
using kestrel::testing::capture_stderr;
using kestrel::testing::capture_stdout;
using ::testing::AllOf;
using ::testing::DoubleNear;
using ::testing::Each;
using ::testing::HasSubstr;
using ::testing::Pointwise;
using ::testing::StartsWith;

// A working posture of the shipped arm, clear of limits, singularities and self-contact.
constexpr JointArray kWork = {0.2, 0.4, -0.9, 0.3, -0.7, 0.1};

std::vector<double> vec(const JointArray& q) {
  return {q.begin(), q.end()};
}
JointArray with(JointArray q, int j, double value) {
  q[j] = value;
  return q;
}

constexpr double kPeriod = 0.0025;
// The shipped arm's joint_trajectory limits.
const JointLimits kLimits = {{2.0, 2.0, 2.5, 4.0, 4.0, 5.0},
                             {4.0, 4.0, 6.0, 12.0, 12.0, 15.0},
                             {80.0, 80.0, 100.0, 300.0, 300.0, 300.0}};
const JointArray kHome = {0.0, 0.4, -0.9, 0.0, -0.6, 0.0};

WaypointPlanSettings settings(bool continuous = false) {
  return {400.0, kLimits, true, true, continuous, 600.0};
}

// The planner leaves speed scaling to its caller: the limits of a motion at `speed`.
JointLimits at_speed(double speed) {
  JointLimits l = kLimits;
  for (double& v : l.velocity) {
    v *= speed;
  }
  return l;
}

// The home posture with joint 1 at q1; a state there with joint 1 running at v1.
JointArray joint1_at(double q1) {
  return with(kHome, 0, q1);
}
JointMotionState running(double q1, double v1) {
  return {joint1_at(q1), {v1, 0, 0, 0, 0, 0}, {}};
}

WaypointPlan plan(const JointMotionState& start, const std::vector<JointArray>& waypoints,
                  const JointLimits& limits, double time_sec = 0.0,
                  const WaypointPlanSettings& s = settings()) {
  return JointWaypointPlanner(s).plan({start, waypoints, limits, time_sec, {}});
}

// What `call` throws, with its kind: "invalid_argument: ..." or "runtime_error: ...".
std::string refusal(const std::function<void()>& call) {
  try {
    call();
  } catch (const std::invalid_argument& e) {
    return std::string("invalid_argument: ") + e.what();
  } catch (const std::runtime_error& e) {
    return std::string("runtime_error: ") + e.what();
  }
  return "no error";
}

class PlannerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    capture_stdout(
        [&] { arm = std::make_unique<ArmController>(true, "can0", false, MIT_MODE, true); });
  }
  Impl& impl() { return Access::impl(*arm); }

  // Straight through the planner at the configured limits: time mode, or speed mode at full speed.
  WaypointPlan plan(const JointArray& start, const std::vector<JointArray>& waypoints,
                    double time_sec) {
    return ::plan({start, {}, {}}, waypoints, {impl().max_vel, impl().max_acc, impl().max_jerk},
                  time_sec, impl().planner_settings(400.0));
  }
  // Speed mode as the controller plans it, scaling the limits by speed_percent itself: the
  // motion move_joint_waypoints would run.
  std::vector<Sample> motion_plan(const JointArray& start, const Poses& waypoints, double speed) {
    return *impl()
                .prepare_waypoint_motion(waypoints, 0.0, speed, 400.0, nullptr, {start, {}, {}},
                                         "[move_joint_waypoints] ")
                .samples;
  }
  // The tool pose at q as x, y, z, roll, pitch, yaw, its position moved by d.
  std::vector<double> pose_at(const JointArray& q, const Eigen::Vector3d& d = {0, 0, 0}) {
    const auto p = impl().kinematics->forwardKinematics_kdl(vec(q));
    const auto rpy = impl().kinematics->rotation_matrix_to_euler(
        Eigen::Quaterniond(p[6], p[3], p[4], p[5]).toRotationMatrix());
    return {p[0] + d.x(), p[1] + d.y(), p[2] + d.z(), rpy.x(), rpy.y(), rpy.z()};
  }
  std::vector<Sample> line(const JointArray& start, const Poses& poses, double time_sec,
                           double speed, double blend) {
    return impl().plan_cartesian_line_trajectory(start, poses, time_sec, speed, blend, 400.0, 0.003,
                                                 0.05, "[move_l] ");
  }
  // A half-speed line from kWork through the tool positions p0 + d for each move d (p0: the
  // tool's at kWork): the corner path with p0 first, and the tool point of each planned sample.
  struct LinePlan {
    std::vector<Eigen::Vector3d> path, points;
    std::vector<Sample> samples;
  };
  LinePlan line_through(const std::vector<Eigen::Vector3d>& moves, double blend) {
    LinePlan l{tool_points({Sample{kWork, {}, {}}}), {}, {}};
    Poses poses;
    for (const auto& d : moves) {
      l.path.push_back(l.path.front() + d);
      poses.push_back(pose_at(kWork, d));
    }
    l.samples = line(kWork, poses, 0.0, 0.5, blend);
    l.points = tool_points(l.samples);
    return l;
  }
  // The tool point of each sample.
  std::vector<Eigen::Vector3d> tool_points(const std::vector<Sample>& samples) {
    std::vector<Eigen::Vector3d> out;
    for (const auto& s : samples) {
      const auto f = impl().kinematics->forwardKinematics_kdl(vec(s.position));
      out.emplace_back(f[0], f[1], f[2]);
    }
    return out;
  }

  kestrel::simbus::ScopedSimbus bus{{"can0"}};
  std::unique_ptr<ArmController> arm;
};

// Over the samples: the largest |velocity|, |acceleration| and |jerk| per joint, the jerk by
// finite differences of the sampled accelerations; and the largest change between consecutive
// samples of position and of velocity, as a fraction of what kLimits allow in one period (1 =
// exactly at the limit).
struct Peaks {
  JointArray v{}, a{}, j{};
  double position_step = 0.0, velocity_step = 0.0;
};
Peaks peaks(const std::vector<Sample>& s) {
  Peaks p;
  for (size_t i = 0; i < s.size(); ++i) {
    for (int k = 0; k < 6; ++k) {
      p.v[k] = std::max(p.v[k], std::abs(s[i].velocity[k]));
      p.a[k] = std::max(p.a[k], std::abs(s[i].acceleration[k]));
      if (i > 0) {
        const Sample& b = s[i - 1];
        p.j[k] = std::max(p.j[k], std::abs(s[i].acceleration[k] - b.acceleration[k]) / kPeriod);
        p.position_step = std::max(p.position_step, std::abs(s[i].position[k] - b.position[k]) /
                                                        (kLimits.velocity[k] * kPeriod));
        p.velocity_step = std::max(p.velocity_step, std::abs(s[i].velocity[k] - b.velocity[k]) /
                                                        (kLimits.acceleration[k] * kPeriod));
      }
    }
  }
  return p;
}

// Distance of p from the polyline through `path`.
double off_path(const Eigen::Vector3d& p, const std::vector<Eigen::Vector3d>& path) {
  double d = 1.0;
  for (size_t k = 0; k + 1 < path.size(); ++k) {
    d = std::min(d, segment_distance(p, path[k], path[k + 1]));
  }
  return d;
}

TEST_F(PlannerTest, WaypointVelocitiesAreTheMeanDifferenceOrZeroAtAReversalOrAtRest) {
  // Two equal segments (time mode): the sample at the middle waypoint carries its velocity.
  // Joint 1 rises on (mean difference 0.2 per segment), joint 2 reverses at b: velocity 0.
  const JointArray b = with(with(kWork, 0, kWork[0] + 0.1), 1, kWork[1] + 0.1);
  const JointArray c = with(with(kWork, 0, kWork[0] + 0.3), 1, kWork[1] + 0.05);
  const auto planned = plan(kWork, {b, c}, 1.0);
  ASSERT_EQ(planned.segment_steps, (std::vector<long>{200, 200}));
  const auto& samples = planned.samples;
  ASSERT_EQ(samples.size(), 401u);
  EXPECT_NEAR(samples[200].position[0], b[0], 1e-12);
  EXPECT_NEAR(samples[200].velocity[0], 0.5 * (0.1 + 0.2) / 0.5, 1e-12);
  EXPECT_NEAR(samples[200].velocity[1], 0.0, 1e-12);
  EXPECT_NEAR(samples[200].acceleration[0], 0.0, 1e-9);  // zero at every waypoint
  EXPECT_NEAR(samples.back().position[0], c[0], 1e-12);
  EXPECT_THAT(samples.back().velocity, Each(DoubleNear(0.0, 1e-12)));
  // One waypoint at the start: one period at rest.
  const auto at_rest = plan(kWork, {kWork}, 0.0).samples;
  ASSERT_EQ(at_rest.size(), 2u);
  for (const auto& s : at_rest) {
    EXPECT_EQ(s.position, kWork);
    EXPECT_EQ(s.velocity, JointArray{});
  }
}

// speed_percent scales the velocity limits alone, on both paths that plan by speed: every
// joint's velocity peak stays within max_vel x speed, acceleration and jerk within their unscaled
// limits. A long move of joint 1 is velocity bound: half speed nearly doubles its duration; a tiny
// move is acceleration/jerk bound and does not slow down at all.
TEST_F(PlannerTest, SpeedModeScalesOnlyTheVelocityLimitsAndKeepsEveryLimit) {
  const Poses waypoints = {{0.8, 0.1, -0.4, -1.0, -0.3, 1.2},
                           {-0.5, 0.6, -1.2, 0.8, -1.1, -0.9},
                           {0.0, 0.0, -0.5, 0.0, -0.5, 0.0}};
  for (double speed : {1.0, 0.5}) {
    const auto p = peaks(motion_plan(kWork, waypoints, speed));
    for (int j = 0; j < 6; ++j) {
      EXPECT_LE(p.v[j], impl().max_vel[j] * speed * 1.0001) << "joint " << j << " at " << speed;
      EXPECT_LE(p.a[j], impl().max_acc[j] * 1.0001) << "joint " << j;
      // The sampled differences of acceleration slightly underestimate the jerk at most.
      EXPECT_LE(p.j[j], impl().max_jerk[j] * 1.0001) << "joint " << j;
    }
  }
  // The public plan scales the limits the same way.
  for (bool motion : {false, true}) {
    auto duration = [&](double distance, double speed) {
      const Poses target = {vec(with(kWork, 0, kWork[0] + distance))};
      return motion ? motion_plan(kWork, target, speed).size()
                    : arm->plan_joint_waypoints_with_gripper(vec(kWork), target, {0.0}, 0.0, speed)
                          .positions.size();
    };
    EXPECT_NEAR(static_cast<double>(duration(2.0, 0.5)) / duration(2.0, 1.0), 2.0, 0.02) << motion;
    EXPECT_EQ(duration(0.01, 0.5), duration(0.01, 1.0)) << motion;
  }
}

TEST_F(PlannerTest, TimeModeSharesTheStepsEvenlyAndChecksOnlyTheEnforcedLimits) {
  impl().trajectory_config.enforce_time_mode_acc_limit = false;
  impl().trajectory_config.enforce_time_mode_jerk_limit = false;
  const auto steps = plan(kWork,
                          {with(kWork, 0, kWork[0] + 0.001), with(kWork, 0, kWork[0] + 0.002),
                           with(kWork, 0, kWork[0] + 0.003)},
                          0.025)  // 10 steps over 3 segments
                         .segment_steps;
  EXPECT_EQ(steps, (std::vector<long>{4, 3, 3}));
  // 0.3 rad of joint 1 in 0.4 s: velocity (1.31 rad/s) inside its limit, jerk far beyond; planned
  // as asked while the jerk limit is not enforced (refused while it is: see the refusals).
  EXPECT_EQ(plan(kWork, {with(kWork, 0, kWork[0] + 0.3)}, 0.4).samples.size(), 161u);
}

TEST_F(PlannerTest, RefusalsSayWhatIsWrong) {
  const std::vector<double> start = vec(kWork), five = {0.1, 0.2, 0.3, 0.4, 0.5};
  const double nan = std::numeric_limits<double>::quiet_NaN();
  const std::vector<double> two = {0.3, 0.0}, three = {0.3, 0.0, 0.3}, six(6, 0.0), half = {0.5};
  const std::vector<double> nan_third = {0, 0, nan, 0, 0, 0};
  const Poses out_of_reach = {{1.5, 0.0, 0.3, 0.0, 0.0, 0.0}}, twice = {start, start};
  const Poses start_and_five = {start, five}, back_10cm = {pose_at(kWork, {-0.1, 0, 0})};
  auto public_plan_of = [&](std::vector<double> q, Poses w, std::vector<double> g, double t,
                            double s) {
    return [=] { arm->plan_joint_waypoints_with_gripper(q, w, g, t, s); };
  };
  auto& config = impl().trajectory_config;
  const std::string ia = "invalid_argument: ", move_l = "runtime_error: [move_l] ",
                    joint = "runtime_error: [move_joint_waypoints] requested time_sec=";
  const std::string empty = ia + "waypoints must not be empty",
                    both = ia + "speed_percent and time_sec are mutually exclusive; set only one",
                    six_values = ia + "each waypoint must have exactly 6 joint values",
                    grippers = ia + "gripper_positions must have the same length as waypoints";
  struct Row {
    const char* name;
    std::function<void()> call;
    ::testing::Matcher<std::string> what;
  };
  const Row rows[] = {
      {"time mode, too short for its segments",
       [&] { plan(kWork, std::vector<JointArray>(5, kWork), 0.01); },
       joint + "0.01 is too short for 5 waypoint segments at 400Hz; minimum time_sec=0.0125"},
      // One second for 1.5 rad of joint 1 breaks its 2 rad/s velocity limit: always an error.
      {"time mode, beyond a velocity limit", [&] { plan(kWork, {with(kWork, 0, 1.7)}, 1.0); },
       AllOf(StartsWith(joint + "1 exceeds joint 1 trajectory limits: vmax 2.8125/2, amax "),
             HasSubstr("(enforce=true), jmax "))},
      {"time mode, beyond the jerk limit while it is enforced",
       [&] {
         config.enforce_time_mode_acc_limit = false;
         plan(kWork, {with(kWork, 0, kWork[0] + 0.3)}, 0.4);
       },
       AllOf(StartsWith(joint + "0.4 exceeds joint 1 trajectory limits: "),
             HasSubstr("(enforce=false), jmax "), ::testing::EndsWith("/80 (enforce=true)"))},
      // The public plan checks its arguments in this order.
      {"plan, five start joints", public_plan_of(five, {}, {}, 1, 0.5),
       ia + "q_start must have exactly 6 joint values"},
      {"plan, no waypoints", public_plan_of(start, {}, {}, 1, 0.5), empty},
      {"plan, no gripper positions", public_plan_of(start, {start}, {}, 1, 0.5), grippers},
      {"plan, both time and speed", public_plan_of(start, {five}, {0.5}, 1, 0.5), both},
      {"plan, speed above 1", public_plan_of(start, {five}, {0.5}, 0, 1.5),
       ia + "speed_percent must be in (0, 1]"},
      {"plan, full speed passes the speed check", public_plan_of(start, {five}, {0.5}, 0, 1.0),
       six_values},
      // Folded: shoulder back, elbow closed, so that the forearm meets the base.
      {"plan into the base",
       public_plan_of(start, {{0.0, -1.4, 0.58, 0.0, -1.2, 0.0}}, {0.0}, 0, 0.5),
       AllOf(StartsWith("runtime_error: [plan_joint_waypoints_with_gripper] "),
             HasSubstr("_stop: "))},
      // Argument errors come before anything moves, and before the joint state is read: without
      // hardware there is none.
      {"move, both time and speed", [&] { arm->move_joint_waypoints({start}, 1.0, 0.5); }, both},
      {"move, no waypoints", [&] { arm->move_joint_waypoints({}, 1.0, 0.0); }, empty},
      {"chunk, negative switch delay",
       [&] { arm->update_joint_waypoint_chunk({start}, 1, 0, -0.1); },
       ia + "switch_delay_sec must be non-negative"},
      {"move_l, two values", [&] { arm->move_l({two}, 1.0, 0.0); },
       ia + "[move_l] each pose must have exactly 6 values: x, y, z, roll, pitch, yaw"},
      {"solve_ik_nearest, one-joint seed", [&] { arm->solve_ik_nearest(three, three, {0.0}); },
       ia + "q_seed must have exactly 6 elements when provided."},
      {"chunk, five values", [&] { arm->update_joint_waypoint_chunk(start_and_five, 0, 0.5, 0.1); },
       six_values},
      {"move, gripper list too long",
       [&] {
         arm->move_joint_waypoints_with_gripper({start}, {0.5, 0.5}, 1.0, 0.0);
       },
       grippers},
      {"chunk, gripper list too short",
       [&] { arm->update_joint_waypoint_chunk_with_gripper(twice, half, 1, 0, 0); }, grippers},
      // The direct commands: a NaN never reaches the command slot, let alone the bus.
      {"set_joint, five joints", [&] { arm->set_joint(five, 1.0); }, ia + "q_end size mismatch"},
      {"set_joint, NaN joint", [&] { arm->set_joint(nan_third, 1.0); },
       ia + "q_end must contain only finite values"},
      {"set_joint, no time", [&] { arm->set_joint(six, 0.0); }, ia + "tf must be positive"},
      {"set_joint_raw, five joints", [&] { arm->set_joint_raw(five, six); },
       ia + "q_end length does not match num_joints"},
      {"set_joint_raw, two velocities", [&] { arm->set_joint_raw(six, two); },
       ia + "v_end length does not match num_joints"},
      {"set_joint_raw, NaN velocity", [&] { arm->set_joint_raw(six, nan_third); },
       ia + "v_end must contain only finite values"},
      {"pose, two coordinates", [&] { arm->set_end_effector_pose(two, three, 1.0); },
       ia + "target_pos must have exactly 3 elements."},
      {"pose, two angles", [&] { arm->set_end_effector_pose(three, two, 1.0); },
       ia + "target_euler must have exactly 3 elements."},
      {"gripper distance, NaN", [&] { arm->setGripperDistance(nan); },
       ia + "gripper distance must be finite"},
      {"waypoint, NaN", [&] { arm->move_joint_waypoints({nan_third}, 1.0, 0.0); },
       ia + "waypoints must contain only finite values"},
      {"move, before any joint state", [&] { arm->move_joint_waypoints({start}, 1.0, 0.0); },
       "runtime_error: cannot plan waypoint trajectory before joint state is available"},
      // Where the line leaves the workspace the elbow would have to straighten in no time.
      {"line out of reach", [&] { line(kWork, out_of_reach, 0, 0.5, 0); },
       ::testing::AnyOf(
           StartsWith(move_l + "the path cannot be followed: no IK answer within tolerance at t="),
           StartsWith(move_l + "the path would jump between IK branches at t="))},
      // Joint 6 at 2.9 rad, the tool turned 0.3 rad further about its axis: joint 6 would need
      // 3.2 rad, beyond its 3.0 rad limit.
      {"line beyond joint 6's limit",
       [&] { line(with(kWork, 5, 2.9), {pose_at(with(kWork, 5, 3.2))}, 0, 0.05, 0); },
       StartsWith(move_l + "the path leaves joint 6's limits")},
      {"timed line beyond a joint limit", [&] { line(kWork, back_10cm, 0.1, 1.0, 0); },
       StartsWith(move_l + "requested time_sec=0.1 exceeds joint ")},
      {"line longer than allowed",
       [&] {
         config.max_motion_duration_sec = 1.0;
         line(with(kWork, 5, 3.2), {pose_at(with(kWork, 5, 3.2), {-0.05, 0, 0})}, 0, 0.05, 0);
       },
       StartsWith(move_l + "planned motion lasts ")},
  };
  const auto defaults = config;
  for (const Row& row : rows) {
    EXPECT_THAT(refusal(row.call), row.what) << row.name;
    config = defaults;
  }
  EXPECT_EQ(Access::command_counter(*arm), 0) << "nothing was published";
  EXPECT_EQ(Access::command_kind(*arm), 0) << "no command reached the slot";
}

TEST_F(PlannerTest, PublicPlanClampsToTheLimitsAndBuildsTheGripperTimeline) {
  impl().safety_config.trajectory_safety.enabled = false;  // a clamped waypoint is at the limit
  // Joint 2's upper limit is 1.4.
  const auto planned = arm->plan_joint_waypoints_with_gripper(
      vec(kWork), {vec(with(kWork, 1, 5.0))}, {1.0}, 2.0, 0.0);
  ASSERT_EQ(planned.positions.size(), 801u);
  EXPECT_NEAR(planned.positions.back()[1], 1.4, 1e-12);
  // No gripper feedback yet: the opening starts at 0 and rises linearly to fully open.
  ASSERT_EQ(planned.gripper.size(), 801u);
  EXPECT_DOUBLE_EQ(planned.gripper.front(), 0.0);
  EXPECT_NEAR(planned.gripper[400], 0.0425, 1e-12);
  EXPECT_DOUBLE_EQ(planned.gripper.back(), 0.085);
}

// The wrist singularity of the shipped arm is at q5 = -pi/2 (axes 4 and 6 aligned). Waypoints at
// q5 = -1.40 and -1.47 both keep their distance, but the arm arrives at the first one fast from
// q5 = 0 and the second segment overshoots to about -1.56 on its way, as a quintic through a
// moving waypoint does. The motion steers around it; where the band lies between the two ends
// every path crosses it, and the motion is refused.
TEST_F(PlannerTest, SingularityDetourSteersAWristOvershootAroundOrGivesUp) {
  const Poses waypoints = {vec(with(kWork, 4, -1.40)), vec(with(kWork, 4, -1.47))};
  EXPECT_THAT(refusal([&] {
                arm->plan_joint_waypoints_with_gripper(vec(with(kWork, 4, 0.0)), waypoints,
                                                       {0.0, 0.0}, 0.0, 0.5);
              }),
              StartsWith("runtime_error: [plan_joint_waypoints_with_gripper] singularity_stop: "));
  std::vector<Sample> samples;
  std::string err =
      capture_stderr([&] { samples = motion_plan(with(kWork, 4, 0.0), waypoints, 0.5); });
  EXPECT_THAT(err, HasSubstr("[move_joint_waypoints] inserted singularity avoidance waypoint at "
                             "segment=1, sample="));
  ASSERT_GT(samples.size(), 1u);
  for (const auto& s : samples) {
    EXPECT_GT(std::abs(std::abs(s.position[4]) - M_PI / 2), 0.09);
  }
  EXPECT_NEAR(samples.back().position[4], -1.47, 1e-12);

  std::string what;
  err = capture_stderr([&] {
    what = refusal([&] { motion_plan(with(kWork, 4, -1.3), {vec(with(kWork, 4, -1.9))}, 0.5); });
  });
  EXPECT_THAT(err, HasSubstr("[move_joint_waypoints] singularity avoidance failed; falling back "
                             "to stop"));
  EXPECT_THAT(what, StartsWith("runtime_error: [move_joint_waypoints] singularity_stop: "));
}

// ---- Cartesian line planning ----------------------------------------------------------------

// ---- Cartesian line planning ----------------------------------------------------------------

// Cartesian planning runs on an application thread while others query the shared model: KDL's
// joints cache their last pose, so planning on the model's own chain would tear the rotations
// those queries read.
TEST_F(PlannerTest, LinePlanningBesideModelQueriesLeavesTheirRotationsExact) {
  std::atomic<bool> planning{true};
  std::atomic<int> queries{0};
  double worst = 0.0;
  std::thread query([&] {
    std::mt19937 rng(5);
    std::uniform_real_distribution<double> angle(-1.0, 1.0);
    while (planning) {
      std::vector<double> q(6);
      for (double& v : q) {
        v = angle(rng);
      }
      const auto p = impl().kinematics->forwardKinematics_kdl(q);
      worst = std::max(
          worst, std::abs(std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5] + p[6] * p[6]) - 1.0));
      ++queries;
    }
  });
  std::string refused;
  try {
    for (int k = 0; k < 8; ++k) {
      line(kWork, {pose_at(kWork, {-0.06, 0, 0}), pose_at(kWork, {-0.06, 0.06, 0})}, 0.0, 0.5,
           0.01);
    }
  } catch (const std::exception& e) {
    refused = e.what();
  }
  planning = false;
  query.join();
  EXPECT_EQ(refused, "");
  EXPECT_GT(queries.load(), 0);
  EXPECT_LT(worst, 1e-12) << "a tool rotation off the unit quaternion";
}

TEST_F(PlannerTest, LinePathStaysOnItsLinesAndRoundsCornersWithinTheRadius) {
  // Four lines back towards the base (the working posture reaches far out), turning by 90
  // degrees, then sharply (56 degrees inside: the arc must shrink to keep within the radius),
  // then gently.
  const double blend = 0.01;
  const LinePlan l =
      line_through({{-0.06, 0, 0}, {-0.06, 0.06, 0}, {0, 0.02, 0}, {0, 0, 0}}, blend);
  double closest_to_corner[3] = {1, 1, 1};
  for (const auto& p : l.points) {
    double to_corner = 1.0;
    for (int c = 0; c < 3; ++c) {
      to_corner = std::min(to_corner, (p - l.path[c + 1]).norm());
      closest_to_corner[c] = std::min(closest_to_corner[c], (p - l.path[c + 1]).norm());
    }
    if (to_corner > blend) {
      EXPECT_LT(off_path(p, l.path), 1e-6);  // on a straight line away from the corners
    }
    EXPECT_LT(off_path(p, l.path), blend);
  }
  for (double d : closest_to_corner) {
    EXPECT_GT(d, 1e-4);   // the corner is rounded, not visited
    EXPECT_LT(d, blend);  // and the arc stays within the radius
  }
  // Joint limits hold on the samples of the speed-mode line.
  const auto p = peaks(l.samples);
  for (int j = 0; j < 6; ++j) {
    EXPECT_LE(p.v[j], impl().max_vel[j] * 0.5 * 1.01);
  }
}

TEST_F(PlannerTest, ShortSidesWithGentleTurnsAreFollowedWithoutSteps) {
  // A 4 cm circle walked as twenty 12 mm chords, each corner turning by 17 degrees.
  std::vector<Eigen::Vector3d> moves;
  for (int k = 1; k <= 20; ++k) {
    const double a = 2.0 * M_PI * k / 21.0;
    moves.emplace_back(0.04 * (std::cos(a) - 1.0), 0.04 * std::sin(a), 0.0);
  }
  const LinePlan l = line_through(moves, 0.005);
  Eigen::Vector3d previous = l.path.front();
  double largest_step = 0.0;
  double worst_off_line = 0.0;
  for (const auto& p : l.points) {
    largest_step = std::max(largest_step, (p - previous).norm());
    previous = p;
    worst_off_line = std::max(worst_off_line, off_path(p, l.path));
  }
  EXPECT_LT(largest_step, 0.0005);  // at most 0.2 m/s in one 2.5 ms period
  EXPECT_LT(worst_off_line, 1e-4);  // 17-degree arcs of 5 mm stray a few micrometres
  EXPECT_LT((previous - l.path.back()).norm(), 1e-6);
}

TEST(SepticTrajectory, TimesEndExactlyAtTf) {
  const auto t = generate_septuple_trajectory({0.0}, {1.0}, 1.0, 3.0);
  EXPECT_THAT(t.times, ::testing::ElementsAre(0.0, 1.0 / 3.0, DoubleNear(2.0 / 3.0, 1e-15), 1.0));
  EXPECT_EQ(refusal([] {
              generate_septuple_trajectory({0.0, 1.0}, {1.0}, 1.0, 3.0);
            }),
            "invalid_argument: q_start/q_end length must be num_joints or 1");
}

// ---- The online splice and the joint waypoint planner as components -----------------------

JointMotionState random_running_state(std::mt19937& rng) {
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  JointMotionState s;
  for (int j = 0; j < 6; ++j) {
    s.position[j] = kHome[j] + 0.3 * unit(rng);
    // A state a jerk-limited joint can still hold inside its velocity limit.
    s.velocity[j] = 0.8 * kLimits.velocity[j] * unit(rng);
    s.acceleration[j] = kLimits.acceleration[j] * unit(rng);
  }
  return s;
}

TEST(JointSplice, TransitionsStartExactlyThereAndEndAtTheEntryVelocityWithinTheLimits) {
  const JointSplice splice(kLimits, kPeriod);
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  for (int trial = 0; trial < 100; ++trial) {
    const JointMotionState from = random_running_state(rng);
    JointArray entry{};
    for (int j = 0; j < 6; ++j) {
      entry[j] = 0.5 * kLimits.velocity[j] * unit(rng);
    }
    const SpliceTransition t = splice.plan(from, entry);
    SCOPED_TRACE(trial);
    ASSERT_GT(t.steps, 0);
    EXPECT_DOUBLE_EQ(t.duration, static_cast<double>(t.steps) * kPeriod);
    const JointMotionState first = t.at(0.0);
    const JointMotionState end = t.end();
    EXPECT_EQ(first.position, from.position);
    EXPECT_EQ(first.velocity, from.velocity);
    EXPECT_EQ(first.acceleration, from.acceleration);
    // Synchronised: every joint there at once.
    EXPECT_THAT(end.velocity, Pointwise(DoubleNear(1e-9), entry));
    EXPECT_THAT(end.acceleration, Each(DoubleNear(0.0, 1e-9)));
    // Consistent derivatives, acceleration and jerk within the limits, velocity between the
    // start, coasting and entry velocities: a fine walk through the transition.
    const JointArray coasting = splice.coasting_velocity(from);
    const double h = 5e-5;
    JointMotionState previous = first;
    for (double time = h; time <= t.duration && !::testing::Test::HasFailure(); time += h) {
      const JointMotionState s = t.at(time);
      for (int j = 0; j < 6; ++j) {
        const double mid_v = 0.5 * (s.velocity[j] + previous.velocity[j]);
        EXPECT_NEAR((s.position[j] - previous.position[j]) / h, mid_v, 1e-6) << j;
        const double mid_a = 0.5 * (s.acceleration[j] + previous.acceleration[j]);
        EXPECT_NEAR((s.velocity[j] - previous.velocity[j]) / h, mid_a, kLimits.jerk[j] * h) << j;
        EXPECT_LE(std::abs(s.acceleration[j] - previous.acceleration[j]) / h,
                  kLimits.jerk[j] * (1.0 + 1e-6))
            << j;
        EXPECT_LE(std::abs(s.acceleration[j]),
                  std::max(kLimits.acceleration[j], std::abs(from.acceleration[j])) + 1e-9);
        EXPECT_GE(s.velocity[j], std::min({from.velocity[j], coasting[j], entry[j]}) - 1e-9);
        EXPECT_LE(s.velocity[j], std::max({from.velocity[j], coasting[j], entry[j]}) + 1e-9);
      }
      previous = s;
    }
  }
}

TEST(JointSplice, EntryVelocityKeepsTheMotionOnlyTowardsTheTargetAndWithinItsLimits) {
  const JointSplice splice(kLimits, kPeriod);
  struct Row {
    const char* name;
    double velocity, acceleration, target, speed_limit, first_segment_sec, entry;
  };
  const Row rows[] = {
      {"towards the target, inside the limits: kept", 0.5, 0.0, 1.0, 1.0, 2.0, 0.5},
      {"faster than the new limit: down to it", 0.57, 0.0, 0.9, 0.2, 5.0, 0.2},
      {"accelerating: the coasting velocity", 0.5, 4.0, 1.0, 1.0, 2.0, 0.5 + 16.0 / 160.0},
      {"faster than its first segment's peak: capped there", 0.5, 0.0, 0.3, 1.0, 2.0,
       1.875 * 0.3 / 2.0},
      {"moving away from the target: enters at rest", -0.5, 0.0, 1.0, 1.0, 2.0, 0.0},
      {"coasting to a reversal: enters at rest", 0.05, -4.0, 1.0, 1.0, 2.0, 0.0},
      {"no distance to go: enters at rest", 0.5, 0.0, 0.0, 1.0, 2.0, 0.0},
  };
  for (const Row& row : rows) {
    const JointMotionState from{
        {}, {row.velocity, 0, 0, 0, 0, 0}, {row.acceleration, 0, 0, 0, 0, 0}};
    const JointArray entry =
        splice.entry_velocity(from, {row.target, 0, 0, 0, 0, 0},
                              with(kLimits.velocity, 0, row.speed_limit), row.first_segment_sec);
    EXPECT_NEAR(entry[0], row.entry, 1e-12) << row.name;
  }
}

// The case that once took 50 s and 5 GB: joint 1 running at 0.57 rad/s, then a chunk at the
// default speed (0.1: 0.2 rad/s for joint 1) to 0.9 rad. The chunk slows joint 1 to its limit
// without a jump and reaches 0.9 rad.
TEST(JointWaypointPlanner, AFastRunningJointSlowsIntoASlowChunkWithoutAJump) {
  JointMotionState start = running(0.3, 0.57);
  start.velocity[1] = 0.1;
  const WaypointPlan p = plan(start, {joint1_at(0.9)}, at_speed(0.1));
  ASSERT_GT(p.transition_steps, 0);
  const auto& s = p.samples;
  EXPECT_EQ(s.front().velocity[0], 0.57);
  EXPECT_NEAR(s.back().position[0], 0.9, 1e-12);
  EXPECT_LT(p.duration(), 10.0);
  const Peaks steps = peaks(s);
  EXPECT_LE(steps.position_step, 1.0);
  EXPECT_LE(steps.velocity_step, 1.0 + 1e-6);
  // After the transition joint 1 keeps the chunk's limit; the planner bounds its segments on 65
  // points each: 1e-4 between them.
  for (size_t i = static_cast<size_t>(p.transition_steps); i < s.size(); ++i) {
    EXPECT_LE(std::abs(s[i].velocity[0]), 0.2 * (1.0 + 1e-4)) << i;
  }
}

// Random running states and chunks, in speed and time mode: continuous from the first sample,
// inside the configuration's limits at every step.
TEST(JointWaypointPlanner, SplicedPlansAreContinuousAndBoundedFromAnyRunningState) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  std::uniform_real_distribution<double> fraction(0.02, 1.0);
  int refused = 0;
  for (int trial = 0; trial < 400; ++trial) {
    // By default the velocity may step at a waypoint between segments of different durations
    // (checked only where the motion is continuous in real time).
    const bool real_time = trial % 4 >= 2;
    const JointMotionState start = random_running_state(rng);
    std::vector<JointArray> waypoints(1 + trial % 3, kHome);
    for (auto& w : waypoints) {
      for (int j = 0; j < 6; ++j) {
        w[j] += 0.5 * unit(rng);
      }
    }
    const bool timed = trial % 2 == 1;
    const JointLimits limits = timed ? kLimits : at_speed(fraction(rng));
    const double time_sec = timed ? 0.5 + 3.0 * fraction(rng) : 0.0;
    WaypointPlan p;
    try {
      p = plan(start, waypoints, limits, time_sec, settings(real_time));
    } catch (const std::runtime_error& e) {
      // A time too short for the motion is refused; nothing else is.
      EXPECT_TRUE(timed) << e.what();
      EXPECT_THAT(e.what(), StartsWith("[move_joint_waypoints] requested time_sec="));
      ++refused;
      continue;
    }
    SCOPED_TRACE(trial);
    const Sample& first = p.samples.front();
    EXPECT_EQ(first.position, start.position);
    EXPECT_EQ(first.velocity, start.velocity);
    EXPECT_EQ(first.acceleration, start.acceleration);
    const Peaks steps = peaks(p.samples);
    // Speed mode bounds segments that start or end moving by their exact peaks; time mode
    // checks its even share within 0.1 %.
    const double slack = timed ? 1.001 : 1.0 + 1e-9;
    EXPECT_LE(steps.position_step, slack);
    if (real_time || waypoints.size() == 1) {
      EXPECT_LE(steps.velocity_step, slack);
    }
    EXPECT_THAT(p.samples.back().position, Pointwise(DoubleNear(1e-12), waypoints.back()));
    if (timed) {
      EXPECT_NEAR(p.duration(), time_sec, kPeriod / 2);
    }
  }
  EXPECT_LT(refused, 200);
}

TEST(JointWaypointPlanner, ATimedChunkDoesNotOvershootItsFirstWaypoint) {
  // Running at 0.5 rad/s towards a waypoint 0.3 rad ahead that the chunk reaches in 2 s: kept at
  // full speed into a 2 s quintic, joint 1 would run about 0.1 rad past the waypoint and back.
  const WaypointPlan p = plan(running(0.0, 0.5), {joint1_at(0.3)}, kLimits, 2.0);
  double farthest = 0.0;
  for (const auto& s : p.samples) {
    farthest = std::max(farthest, s.position[0]);
  }
  EXPECT_LE(farthest, 0.3 + 1e-9);
  EXPECT_NEAR(p.duration(), 2.0, 1e-12);
}

TEST(JointWaypointPlanner, PlansLongerThanTheLongestAllowedAreRefusedBeforeAllocation) {
  // At a millionth of the speed the plan would last weeks: refused on its length alone.
  WaypointPlanSettings small = settings();
  small.max_motion_duration_sec = 60.0;
  struct Row {
    const char* name;
    JointMotionState start;
    double speed, time_sec;
  };
  const Row rows[] = {
      {"from rest at a millionth of the speed", running(0.0, 0.0), 1e-6, 0.0},
      {"spliced at a millionth of the speed", running(0.0, 1.0), 1e-6, 0.0},
      {"timed beyond it", running(0.0, 0.0), 1.0, 61.0},
  };
  for (const Row& row : rows) {
    EXPECT_THAT(refusal([&] {
                  plan(row.start, {joint1_at(2.0)}, at_speed(row.speed), row.time_sec, small);
                }),
                AllOf(StartsWith("runtime_error: [move_joint_waypoints] planned motion lasts "),
                      HasSubstr(" s, longer than joint_trajectory.max_motion_duration_sec=60")))
        << row.name;
  }
}

}  // namespace
