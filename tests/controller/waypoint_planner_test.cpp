// The joint waypoint planner, the singularity detour and the Cartesian line planner, run on a
// controller that touches no hardware (skip_hardware_init): everything here is planning only.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>

#include "controller/controller_fixture.hpp"
#include "support/stderr_capture.hpp"

namespace {

using Access = ArmControllerTestAccess;
using kestrel::testing::segment_distance;
using Impl = Access::Impl;
using JointArray = Impl::JointArray;
using Sample = Impl::Sample;
using kestrel::testing::capture_stderr;
using kestrel::testing::capture_stdout;
using ::testing::HasSubstr;
using ::testing::StartsWith;

// A working posture of the shipped arm, clear of limits, singularities and self-contact.
constexpr JointArray kWork = {0.2, 0.4, -0.9, 0.3, -0.7, 0.1};

class PlannerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    capture_stdout(
        [&] { arm = std::make_unique<ArmController>(true, "can0", false, MIT_MODE, true); });
  }
  Impl& impl() { return Access::impl(*arm); }

  std::vector<Sample> plan(const JointArray& start, const std::vector<JointArray>& waypoints,
                           double time_sec, std::vector<long>* steps = nullptr,
                           double speed = 1.0) {
    kestrel::controller::WaypointPlanRequest request;
    request.start.position = start;
    request.waypoints = waypoints;
    request.limits = {impl().max_vel, impl().max_acc, impl().max_jerk};
    for (double& v : request.limits.velocity) {
      v *= speed;
    }
    request.time_sec = time_sec;
    auto planned =
        kestrel::controller::JointWaypointPlanner(impl().planner_settings(400.0)).plan(request);
    if (steps != nullptr) {
      *steps = planned.segment_steps;
    }
    return std::move(planned.samples);
  }

  kestrel::simbus::ScopedSimbus bus{{"can0"}};
  std::unique_ptr<ArmController> arm;
};

// Largest |velocity|, |acceleration| and |jerk| per joint over the samples; the jerk by finite
// differences of the sampled accelerations.
struct Peaks {
  JointArray v{}, a{}, j{};
};
Peaks peaks(const std::vector<Sample>& s) {
  Peaks p;
  for (size_t i = 0; i < s.size(); ++i) {
    for (int k = 0; k < 6; ++k) {
      p.v[k] = std::max(p.v[k], std::abs(s[i].velocity[k]));
      p.a[k] = std::max(p.a[k], std::abs(s[i].acceleration[k]));
      if (i > 0) {
        p.j[k] = std::max(p.j[k], std::abs(s[i].acceleration[k] - s[i - 1].acceleration[k]) * 400);
      }
    }
  }
  return p;
}

TEST_F(PlannerTest, OneWaypointAtTheStartIsOnePeriodAtRest) {
  const auto samples = plan(kWork, {kWork}, 0.0);
  ASSERT_EQ(samples.size(), 2u);
  for (const auto& s : samples) {
    EXPECT_EQ(s.position, kWork);
    EXPECT_EQ(s.velocity, JointArray{});
  }
}

TEST_F(PlannerTest, WaypointVelocitiesAreTheMeanDifferenceOrZeroAtAReversal) {
  // Two equal segments (time mode): the sample at the middle waypoint carries its velocity.
  JointArray a = kWork, b = kWork, c = kWork;
  b[0] += 0.1;
  c[0] += 0.3;  // joint 1 rises on: mean difference 0.2 per segment
  b[1] += 0.1;
  c[1] += 0.05;  // joint 2 reverses at b: velocity 0
  std::vector<long> steps;
  const auto samples = plan(a, {b, c}, 1.0, &steps);
  ASSERT_EQ(steps, (std::vector<long>{200, 200}));
  ASSERT_EQ(samples.size(), 401u);
  EXPECT_NEAR(samples[200].position[0], b[0], 1e-12);
  EXPECT_NEAR(samples[200].velocity[0], 0.5 * (0.1 + 0.2) / 0.5, 1e-12);
  EXPECT_NEAR(samples[200].velocity[1], 0.0, 1e-12);
  EXPECT_NEAR(samples[200].acceleration[0], 0.0, 1e-9);  // zero at every waypoint
  EXPECT_NEAR(samples.back().position[0], c[0], 1e-12);
  for (int j = 0; j < 6; ++j) {
    EXPECT_NEAR(samples.back().velocity[j], 0.0, 1e-12);
  }
}

TEST_F(PlannerTest, SpeedModeKeepsEveryLimitOnTheSamples) {
  const std::vector<JointArray> waypoints = {{0.8, 0.1, -0.4, -1.0, -0.3, 1.2},
                                             {-0.5, 0.6, -1.2, 0.8, -1.1, -0.9},
                                             {0.0, 0.0, -0.5, 0.0, -0.5, 0.0}};
  for (double speed : {1.0, 0.5}) {
    const auto p = peaks(plan(kWork, waypoints, 0.0, nullptr, speed));
    for (int j = 0; j < 6; ++j) {
      EXPECT_LE(p.v[j], impl().max_vel[j] * speed * 1.0001) << "joint " << j;
      EXPECT_LE(p.a[j], impl().max_acc[j] * 1.0001) << "joint " << j;
      // The sampled differences of acceleration slightly underestimate the jerk at most.
      EXPECT_LE(p.j[j], impl().max_jerk[j] * 1.0001) << "joint " << j;
    }
  }
}

TEST_F(PlannerTest, HalfSpeedHalvesOnlyTheVelocityLimits) {
  // A long move of joint 1 is velocity bound: half speed doubles its duration nearly; a tiny
  // move is acceleration/jerk bound and does not slow down at all.
  JointArray far = kWork, near = kWork;
  far[0] += 2.0;
  near[0] += 0.01;
  const double full = static_cast<double>(plan(kWork, {far}, 0.0).size());
  const double half = static_cast<double>(plan(kWork, {far}, 0.0, nullptr, 0.5).size());
  EXPECT_NEAR(half / full, 2.0, 0.02);
  EXPECT_EQ(plan(kWork, {near}, 0.0).size(), plan(kWork, {near}, 0.0, nullptr, 0.5).size());
}

TEST_F(PlannerTest, TimeModeSharesTheStepsEvenly) {
  JointArray a = kWork, b = kWork, c = kWork;
  a[0] += 0.001;
  b[0] += 0.002;
  c[0] += 0.003;
  impl().trajectory_config.enforce_time_mode_acc_limit = false;
  impl().trajectory_config.enforce_time_mode_jerk_limit = false;
  std::vector<long> steps;
  plan(kWork, {a, b, c}, 0.025, &steps);  // 10 steps over 3 segments
  EXPECT_EQ(steps, (std::vector<long>{4, 3, 3}));
}

TEST_F(PlannerTest, TimeModeErrors) {
  std::vector<JointArray> five(5, kWork);
  try {
    plan(kWork, five, 0.01);
    FAIL() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(),
                 "[move_joint_waypoints] requested time_sec=0.01 is too short for 5 waypoint "
                 "segments at 400Hz; minimum time_sec=0.0125");
  }
  // One second for 1.5 rad of joint 1 breaks its 2 rad/s velocity limit: always an error.
  JointArray far = kWork;
  far[0] += 1.5;
  try {
    plan(kWork, {far}, 1.0);
    FAIL() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), StartsWith("[move_joint_waypoints] requested time_sec=1 exceeds joint 1 "
                                     "trajectory limits: vmax 2.8125/2, amax "));
    EXPECT_THAT(e.what(), HasSubstr("(enforce=true), jmax "));
  }
}

TEST_F(PlannerTest, TimeModeJerkExcessIsAnErrorOnlyWhileEnforced) {
  // 0.3 rad of joint 1 in 0.4 s: velocity (1.31 rad/s) inside its limit, jerk far beyond.
  JointArray target = kWork;
  target[0] += 0.3;
  impl().trajectory_config.enforce_time_mode_acc_limit = false;
  impl().trajectory_config.enforce_time_mode_jerk_limit = true;
  EXPECT_THROW(plan(kWork, {target}, 0.4), std::runtime_error);
  impl().trajectory_config.enforce_time_mode_jerk_limit = false;
  EXPECT_EQ(plan(kWork, {target}, 0.4).size(), 161u);
}

TEST_F(PlannerTest, PublicPlanChecksItsArgumentsInOrder) {
  const std::vector<double> start(kWork.begin(), kWork.end());
  auto message = [&](const std::vector<double>& q, const std::vector<std::vector<double>>& w,
                     const std::vector<double>& g, double t, double s) {
    try {
      arm->plan_joint_waypoints_with_gripper(q, w, g, t, s);
    } catch (const std::invalid_argument& e) {
      return std::string(e.what());
    }
    return std::string("no error");
  };
  EXPECT_EQ(message({0.0}, {}, {}, 1.0, 0.5), "q_start must have exactly 6 joint values");
  EXPECT_EQ(message(start, {}, {}, 1.0, 0.5), "waypoints must not be empty");
  EXPECT_EQ(message(start, {start}, {}, 1.0, 0.5),
            "gripper_positions must have the same length as waypoints");
  EXPECT_EQ(message(start, {{0.0}}, {0.5}, 1.0, 0.5),
            "speed_percent and time_sec are mutually exclusive; set only one");
  EXPECT_EQ(message(start, {{0.0}}, {0.5}, 0.0, 1.5), "speed_percent must be in (0, 1]");
  EXPECT_EQ(message(start, {{0.0}}, {0.5}, 0.0, 1.0),  // full speed passes the speed check
            "each waypoint must have exactly 6 joint values");
  EXPECT_EQ(message(start, {{0.0}}, {0.5}, 1.0, 0.0),
            "each waypoint must have exactly 6 joint values");
}

TEST_F(PlannerTest, MotionArgumentErrorsComeBeforeTheJointStateIsRead) {
  // Without hardware there is no joint state: argument errors must still be argument errors.
  const std::vector<double> five = {0.1, 0.2, 0.3, 0.4, 0.5};
  const std::vector<double> six(kWork.begin(), kWork.end());
  struct Row {
    const char* name;
    std::function<void()> call;
    const char* message;
  };
  const Row rows[] = {
      {"move, five values", [&] { arm->move_joint_waypoints({five}, 1.0, 0.0); },
       "each waypoint must have exactly 6 joint values"},
      {"chunk, five values",
       [&] {
         arm->update_joint_waypoint_chunk({six, five}, 0, 0.5, 0.1);
       },
       "each waypoint must have exactly 6 joint values"},
      {"move, gripper list too long",
       [&] {
         arm->move_joint_waypoints_with_gripper({six}, {0.5, 0.5}, 1.0, 0.0);
       },
       "gripper_positions must have the same length as waypoints"},
      {"chunk, gripper list too short",
       [&] {
         arm->update_joint_waypoint_chunk_with_gripper({six, six}, {0.5}, 1.0, 0.0, 0.0);
       },
       "gripper_positions must have the same length as waypoints"},
  };
  for (const Row& row : rows) {
    try {
      row.call();
      ADD_FAILURE() << row.name << ": no error";
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), row.message) << row.name;
    } catch (const std::exception& e) {
      ADD_FAILURE() << row.name << ": " << e.what();
    }
  }
  try {
    arm->move_joint_waypoints({six}, 1.0, 0.0);
    ADD_FAILURE() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "cannot plan waypoint trajectory before joint state is available");
  }
}

TEST_F(PlannerTest, PublicPlanClampsToTheLimitsAndBuildsTheGripperTimeline) {
  const std::vector<double> start(kWork.begin(), kWork.end());
  impl().safety_config.trajectory_safety.enabled = false;  // a clamped waypoint is at the limit
  std::vector<double> beyond = start;
  beyond[1] = 5.0;  // joint 2's upper limit is 1.4
  const auto planned = arm->plan_joint_waypoints_with_gripper(start, {beyond}, {1.0}, 2.0, 0.0);
  ASSERT_EQ(planned.positions.size(), 801u);
  EXPECT_NEAR(planned.positions.back()[1], 1.4, 1e-12);
  // No gripper feedback yet: the opening starts at 0 and rises linearly to fully open.
  ASSERT_EQ(planned.gripper.size(), 801u);
  EXPECT_DOUBLE_EQ(planned.gripper.front(), 0.0);
  EXPECT_NEAR(planned.gripper[400], 0.0425, 1e-12);
  EXPECT_DOUBLE_EQ(planned.gripper.back(), 0.085);
}

TEST_F(PlannerTest, PublicPlanRefusesAMotionIntoTheBase) {
  // Folded: shoulder back, elbow closed, so that the forearm meets the base.
  const std::vector<double> start(kWork.begin(), kWork.end());
  try {
    arm->plan_joint_waypoints_with_gripper(start, {{0.0, -1.4, 0.58, 0.0, -1.2, 0.0}}, {0.0}, 0.0,
                                           0.5);
    FAIL() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), StartsWith("[plan_joint_waypoints_with_gripper] "));
    EXPECT_THAT(e.what(), HasSubstr("_stop: "));
  }
}

TEST_F(PlannerTest, SegmentOfASample) {
  const std::vector<long> steps = {4, 3, 3};
  EXPECT_EQ(Impl::find_waypoint_segment_for_sample(steps, 0), 0u);
  EXPECT_EQ(Impl::find_waypoint_segment_for_sample(steps, 4), 0u);
  EXPECT_EQ(Impl::find_waypoint_segment_for_sample(steps, 5), 1u);
  EXPECT_EQ(Impl::find_waypoint_segment_for_sample(steps, 7), 1u);
  EXPECT_EQ(Impl::find_waypoint_segment_for_sample(steps, 10), 2u);
}

// The wrist singularity of the shipped arm is at q5 = -pi/2 (axes 4 and 6 aligned). Waypoints at
// q5 = -1.40 and -1.47 both keep their distance, but the arm arrives at the first one fast from
// q5 = 0 and the second segment overshoots to about -1.56 on its way, as a quintic through a
// moving waypoint does.
TEST_F(PlannerTest, SingularityDetourSteersAWristOvershootAround) {
  JointArray a = kWork, b = kWork;
  a[4] = -1.40;
  b[4] = -1.47;
  JointArray start = kWork;
  start[4] = 0.0;
  const auto plain = plan(start, {a, b}, 0.0, nullptr, 0.5);
  const auto refused = impl().evaluate_waypoint_trajectory_safety(plain);
  ASSERT_EQ(refused.code, "singularity_stop");

  std::vector<std::vector<double>> waypoints = {{a.begin(), a.end()}, {b.begin(), b.end()}};
  std::string err;
  double duration = 0.0;
  std::vector<Sample> samples;
  err = capture_stderr([&] {
    auto motion = impl().prepare_waypoint_motion(waypoints, 0.0, 0.5, 400.0, nullptr,
                                                 {start, {}, {}}, "[move_joint_waypoints] ");
    duration = motion.duration;
    samples = *motion.samples;
  });
  EXPECT_THAT(err, HasSubstr("[move_joint_waypoints] inserted singularity avoidance waypoint at "
                             "segment=1, sample="));
  EXPECT_GT(duration, 0.0);
  for (const auto& s : samples) {
    EXPECT_GT(std::abs(std::abs(s.position[4]) - M_PI / 2), 0.09);
  }
  EXPECT_NEAR(samples.back().position[4], -1.47, 1e-12);
}

TEST_F(PlannerTest, SingularityDetourGivesUpWhereEveryPathCrosses) {
  JointArray start = kWork, across = kWork;
  start[4] = -1.3;
  across[4] = -1.9;  // the band lies between the two ends
  std::vector<std::vector<double>> waypoints = {{across.begin(), across.end()}};
  std::string what;
  const std::string err = capture_stderr([&] {
    try {
      impl().prepare_waypoint_motion(waypoints, 0.0, 0.5, 400.0, nullptr, {start, {}, {}},
                                     "[move_joint_waypoints] ");
    } catch (const std::runtime_error& e) {
      what = e.what();
    }
  });
  EXPECT_THAT(err, HasSubstr("[move_joint_waypoints] singularity avoidance failed; falling back "
                             "to stop"));
  EXPECT_THAT(what, StartsWith("[move_joint_waypoints] singularity_stop: "));
}

// ---- Cartesian line planning ----------------------------------------------------------------

TEST_F(PlannerTest, LinePathStaysOnItsLinesAndRoundsCornersWithinTheRadius) {
  const std::vector<double> q0(kWork.begin(), kWork.end());
  const auto pose = impl().kinematics->forwardKinematics_kdl(q0);
  const Eigen::Vector3d p0(pose[0], pose[1], pose[2]);
  const auto rpy = impl().kinematics->rotation_matrix_to_euler(
      Eigen::Quaterniond(pose[6], pose[3], pose[4], pose[5]).toRotationMatrix());
  // Four lines back towards the base (the working posture reaches far out), turning by 90
  // degrees, then sharply (56 degrees inside: the arc must shrink to keep within the radius),
  // then gently.
  const std::vector<Eigen::Vector3d> corners = {p0 + Eigen::Vector3d(-0.06, 0, 0),
                                                p0 + Eigen::Vector3d(-0.06, 0.06, 0),
                                                p0 + Eigen::Vector3d(0, 0.02, 0), p0};
  std::vector<std::vector<double>> poses;
  for (const auto& c : corners) {
    poses.push_back({c.x(), c.y(), c.z(), rpy.x(), rpy.y(), rpy.z()});
  }
  const double blend = 0.01;
  const auto samples = impl().plan_cartesian_line_trajectory(kWork, poses, 0.0, 0.5, blend, 400.0,
                                                             0.003, 0.05, "[move_l] ");
  std::vector<Eigen::Vector3d> path{p0};
  path.insert(path.end(), corners.begin(), corners.end());
  double closest_to_corner[3] = {1, 1, 1};
  for (const auto& s : samples) {
    const auto f = impl().kinematics->forwardKinematics_kdl(
        std::vector<double>(s.position.begin(), s.position.end()));
    const Eigen::Vector3d p(f[0], f[1], f[2]);
    double off_line = 1.0;
    for (size_t k = 0; k + 1 < path.size(); ++k) {
      off_line = std::min(off_line, segment_distance(p, path[k], path[k + 1]));
    }
    double to_corner = 1.0;
    for (int c = 0; c < 3; ++c) {
      to_corner = std::min(to_corner, (p - corners[c]).norm());
      closest_to_corner[c] = std::min(closest_to_corner[c], (p - corners[c]).norm());
    }
    if (to_corner > blend) {
      EXPECT_LT(off_line, 1e-6);  // on a straight line away from the corners
    }
    EXPECT_LT(off_line, blend);
  }
  for (double d : closest_to_corner) {
    EXPECT_GT(d, 1e-4);   // the corner is rounded, not visited
    EXPECT_LT(d, blend);  // and the arc stays within the radius
  }
  // Joint limits hold on the samples of the speed-mode line.
  const auto p = peaks(samples);
  for (int j = 0; j < 6; ++j) {
    EXPECT_LE(p.v[j], impl().max_vel[j] * 0.5 * 1.01);
  }
}

TEST_F(PlannerTest, ShortSidesWithGentleTurnsAreFollowedWithoutSteps) {
  // A 4 cm circle walked as twenty 12 mm chords, each corner turning by 17 degrees.
  const std::vector<double> q0(kWork.begin(), kWork.end());
  const auto pose = impl().kinematics->forwardKinematics_kdl(q0);
  const Eigen::Vector3d p0(pose[0], pose[1], pose[2]);
  const auto rpy = impl().kinematics->rotation_matrix_to_euler(
      Eigen::Quaterniond(pose[6], pose[3], pose[4], pose[5]).toRotationMatrix());
  std::vector<Eigen::Vector3d> path{p0};
  std::vector<std::vector<double>> poses;
  for (int k = 1; k <= 20; ++k) {
    const double a = 2.0 * M_PI * k / 21.0;
    path.push_back(p0 + Eigen::Vector3d(0.04 * (std::cos(a) - 1.0), 0.04 * std::sin(a), 0.0));
    poses.push_back({path.back().x(), path.back().y(), path.back().z(), rpy.x(), rpy.y(), rpy.z()});
  }
  const double blend = 0.005;
  const auto samples = impl().plan_cartesian_line_trajectory(kWork, poses, 0.0, 0.5, blend, 400.0,
                                                             0.003, 0.05, "[move_l] ");
  Eigen::Vector3d previous = p0;
  double largest_step = 0.0;
  double worst_off_line = 0.0;
  for (const auto& s : samples) {
    const auto f = impl().kinematics->forwardKinematics_kdl(
        std::vector<double>(s.position.begin(), s.position.end()));
    const Eigen::Vector3d p(f[0], f[1], f[2]);
    largest_step = std::max(largest_step, (p - previous).norm());
    previous = p;
    double off_line = 1.0;
    for (size_t k = 0; k + 1 < path.size(); ++k) {
      off_line = std::min(off_line, segment_distance(p, path[k], path[k + 1]));
    }
    worst_off_line = std::max(worst_off_line, off_line);
  }
  EXPECT_LT(largest_step, 0.0005);  // at most 0.2 m/s in one 2.5 ms period
  EXPECT_LT(worst_off_line, 1e-4);  // 17-degree arcs of 5 mm stray a few micrometres
  EXPECT_LT((previous - path.back()).norm(), 1e-6);
}

TEST_F(PlannerTest, LinePathOutOfReachIsRefusedWithItsPose) {
  try {
    impl().plan_cartesian_line_trajectory(kWork, {{1.5, 0.0, 0.3, 0.0, 0.0, 0.0}}, 0.0, 0.5, 0.0,
                                          400.0, 0.003, 0.05, "[move_l] ");
    FAIL() << "no error";
  } catch (const std::runtime_error& e) {
    // Where the line leaves the workspace the elbow would have to straighten in no time.
    EXPECT_THAT(
        e.what(),
        ::testing::AnyOf(StartsWith("[move_l] the path cannot be followed: no IK answer "
                                    "within tolerance at t="),
                         StartsWith("[move_l] the path would jump between IK branches at t=")));
  }
}

TEST_F(PlannerTest, LinePathsOutsideTheJointLimitsOrTooLongAreRefused) {
  // Joint 6 at 2.9 rad, the tool turned 0.3 rad further about its axis: joint 6 would need
  // 3.2 rad, beyond its 3.0 rad limit.
  JointArray start = kWork;
  start[5] = 2.9;
  JointArray beyond = start;
  beyond[5] = 3.2;
  const auto pose =
      impl().kinematics->forwardKinematics_kdl(std::vector<double>(beyond.begin(), beyond.end()));
  const auto rpy = impl().kinematics->rotation_matrix_to_euler(
      Eigen::Quaterniond(pose[6], pose[3], pose[4], pose[5]).toRotationMatrix());
  const std::vector<double> turned = {pose[0], pose[1], pose[2], rpy.x(), rpy.y(), rpy.z()};
  const std::vector<double> aside = {pose[0] - 0.05, pose[1], pose[2], rpy.x(), rpy.y(), rpy.z()};
  struct Row {
    const char* name;
    JointArray from;
    std::vector<double> to;
    double longest;
    const char* start;
  };
  const Row rows[] = {
      {"beyond joint 6's limit", start, turned, 600.0, "[move_l] the path leaves joint 6's limits"},
      {"longer than allowed", beyond, aside, 1.0, "[move_l] planned motion lasts "},
  };
  for (const Row& row : rows) {
    impl().trajectory_config.max_motion_duration_sec = row.longest;
    try {
      impl().plan_cartesian_line_trajectory(row.from, {row.to}, 0.0, 0.05, 0.0, 400.0, 0.003, 0.05,
                                            "[move_l] ");
      ADD_FAILURE() << row.name << ": no error";
    } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), StartsWith(row.start)) << row.name;
    }
  }
}

TEST_F(PlannerTest, TimedLineThatBreaksAJointLimitIsRefused) {
  const std::vector<double> q0(kWork.begin(), kWork.end());
  const auto pose = impl().kinematics->forwardKinematics_kdl(q0);
  const auto rpy = impl().kinematics->rotation_matrix_to_euler(
      Eigen::Quaterniond(pose[6], pose[3], pose[4], pose[5]).toRotationMatrix());
  try {
    impl().plan_cartesian_line_trajectory(
        kWork, {{pose[0] - 0.1, pose[1], pose[2], rpy.x(), rpy.y(), rpy.z()}}, 0.1, 1.0, 0.0, 400.0,
        0.003, 0.05, "[move_l] ");
    FAIL() << "no error";
  } catch (const std::runtime_error& e) {
    EXPECT_THAT(e.what(), StartsWith("[move_l] requested time_sec=0.1 exceeds joint "));
  }
}

TEST(SepticTrajectory, TimesEndExactlyAtTf) {
  const auto t = generate_septuple_trajectory({0.0}, {1.0}, 1.0, 3.0);
  ASSERT_EQ(t.times.size(), 4u);
  EXPECT_DOUBLE_EQ(t.times[1], 1.0 / 3.0);
  EXPECT_DOUBLE_EQ(t.times[3], 1.0);
  EXPECT_EQ(t.positions.size(), 6u);
  EXPECT_DOUBLE_EQ(t.positions[5][3], 1.0);
  EXPECT_DOUBLE_EQ(t.velocities[0][3], 0.0);
  EXPECT_THROW(generate_septuple_trajectory({0.0, 1.0}, {1.0}, 1.0, 3.0), std::invalid_argument);
}

}  // namespace
