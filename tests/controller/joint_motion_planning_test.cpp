// The online splice and the joint waypoint planner as components, without a controller: a
// running state carried into a new motion without a jump, within the limits.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <random>

#include "kestrel/controller/joint_splice.hpp"
#include "kestrel/controller/joint_waypoint_planner.hpp"

namespace {

using namespace kestrel::controller;
using Sample = kestrel::algorithms::WaypointTrajectorySample;
using ::testing::HasSubstr;
using ::testing::StartsWith;

constexpr double kPeriod = 0.0025;
// The shipped arm's joint_trajectory limits.
const JointLimits kLimits = {{2.0, 2.0, 2.5, 4.0, 4.0, 5.0},
                             {4.0, 4.0, 6.0, 12.0, 12.0, 15.0},
                             {80.0, 80.0, 100.0, 300.0, 300.0, 300.0}};
const JointArray kHome = {0.0, 0.4, -0.9, 0.0, -0.6, 0.0};

WaypointPlanSettings settings(bool continuous = false) {
  WaypointPlanSettings s;
  s.configuration_limits = kLimits;
  s.continuous_waypoint_velocity = continuous;
  return s;
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
  JointArray q = kHome;
  q[0] = q1;
  return q;
}
JointMotionState running(double q1, double v1) {
  JointMotionState s;
  s.position = joint1_at(q1);
  s.velocity[0] = v1;
  return s;
}

WaypointPlan plan(const JointMotionState& start, const std::vector<JointArray>& waypoints,
                  const JointLimits& limits, double time_sec = 0.0,
                  const WaypointPlanSettings& s = settings()) {
  WaypointPlanRequest r;
  r.start = start;
  r.waypoints = waypoints;
  r.limits = limits;
  r.time_sec = time_sec;
  return JointWaypointPlanner(s).plan(r);
}

// Largest change between consecutive samples of position and of velocity, per joint, as a
// fraction of what the limits allow in one period (1 = exactly at the limit).
struct Steps {
  double position = 0.0;
  double velocity = 0.0;
};
Steps largest_steps(const std::vector<Sample>& s, const JointLimits& limits) {
  Steps worst;
  for (size_t i = 1; i < s.size(); ++i) {
    for (int j = 0; j < 6; ++j) {
      const double dp = std::abs(s[i].position[j] - s[i - 1].position[j]);
      const double dv = std::abs(s[i].velocity[j] - s[i - 1].velocity[j]);
      worst.position = std::max(worst.position, dp / (limits.velocity[j] * kPeriod));
      worst.velocity = std::max(worst.velocity, dv / (limits.acceleration[j] * kPeriod));
    }
  }
  return worst;
}

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
    for (int j = 0; j < 6; ++j) {
      EXPECT_NEAR(end.velocity[j], entry[j], 1e-9);  // synchronised: every joint there at once
      EXPECT_NEAR(end.acceleration[j], 0.0, 1e-9);
    }
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
    JointMotionState from;
    from.velocity[0] = row.velocity;
    from.acceleration[0] = row.acceleration;
    JointArray target{};
    target[0] = row.target;
    JointArray limit = kLimits.velocity;
    limit[0] = row.speed_limit;
    const JointArray entry = splice.entry_velocity(from, target, limit, row.first_segment_sec);
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
  const Steps steps = largest_steps(s, kLimits);
  EXPECT_LE(steps.position, 1.0);
  EXPECT_LE(steps.velocity, 1.0 + 1e-6);
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
    const Steps steps = largest_steps(p.samples, kLimits);
    // Speed mode bounds segments that start or end moving by their exact peaks; time mode
    // checks its even share within 0.1 %.
    const double slack = timed ? 1.001 : 1.0 + 1e-9;
    EXPECT_LE(steps.position, slack);
    if (real_time || waypoints.size() == 1) {
      EXPECT_LE(steps.velocity, slack);
    }
    for (int j = 0; j < 6; ++j) {
      EXPECT_NEAR(p.samples.back().position[j], waypoints.back()[j], 1e-12);
    }
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
    try {
      plan(row.start, {joint1_at(2.0)}, at_speed(row.speed), row.time_sec, small);
      ADD_FAILURE() << row.name << ": no error";
    } catch (const std::runtime_error& e) {
      EXPECT_THAT(e.what(), StartsWith("[move_joint_waypoints] planned motion lasts ")) << row.name;
      EXPECT_THAT(e.what(),
                  HasSubstr(" s, longer than joint_trajectory.max_motion_duration_sec=60"));
    }
  }
}

TEST(JointWaypointPlanner, WaypointVelocityIsContinuousInRealTimeOnlyWhenConfigured) {
  // Joint 1 through 0 -> 1.0 -> 1.1 at 1 rad/s: the long first segment and the short second one
  // meet at the waypoint with one tangent per unit of normalised time.
  JointLimits limits = kLimits;
  limits.velocity[0] = 1.0;
  struct Row {
    bool continuous;
    double low, high;  // bounds of the largest velocity step, as a fraction of amax·dt
  };
  for (const Row& row : {Row{false, 20.0, 1e9}, Row{true, 0.0, 1.0 + 1e-6}}) {
    const WaypointPlan p = plan(running(0.0, 0.0), {joint1_at(1.0), joint1_at(1.1)}, limits, 0.0,
                                settings(row.continuous));
    const Steps steps = largest_steps(p.samples, limits);
    EXPECT_GE(steps.velocity, row.low) << row.continuous;
    EXPECT_LE(steps.velocity, row.high) << row.continuous;
    EXPECT_NEAR(p.samples.back().position[0], 1.1, 1e-12);
  }
}

}  // namespace
