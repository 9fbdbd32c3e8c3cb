// The frame checker on made-up frames: what it must let through (a motion at the limits, a
// take-over inside its window, torque-only gripper frames) and what it must catch.
#include <gtest/gtest.h>

#include <cmath>

#include "campaign/frame_checker.hpp"

namespace kestrel::campaign {
namespace {

constexpr double kPeriod = 0.0025;

ArmLimits arm_limits() {
  ArmLimits l;
  l.sign = {1, -1, 1, 1, -1, 1};
  l.lower = {-2.9, -1.4, -1.95, -2.9, -2.2, -3.0};
  l.upper = {2.9, 1.4, 0.58, 2.9, 1.0, 3.0};
  l.vmax = {2.0, 2.0, 2.5, 4.0, 4.0, 5.0};
  l.amax = {4.0, 4.0, 6.0, 12.0, 12.0, 15.0};
  l.p_max.fill(12.5);
  l.v_max = {8, 8, 8, 30, 30, 30, 30};
  l.t_max = {28, 28, 28, 10, 10, 10, 10};
  l.gripper_angle_low = -1.2;
  l.gripper_angle_high = 0.1;
  return l;
}

// Every arm motor from rest to its speed limit at its acceleration limit, then cruising:
// `cycles` control periods, one frame per motor each.
std::vector<MitFrame> motion_at_the_limits(const ArmLimits& l, int cycles) {
  std::vector<MitFrame> frames;
  std::array<double, kArmMotors> q{0.1, -0.2, -0.5, 0.0, 0.3, 0.0};
  std::array<double, kArmMotors> v{};
  for (int i = 0; i < cycles; ++i) {
    for (int m = 0; m < kArmMotors; ++m) {
      frames.push_back({i * kPeriod, m, q[m], v[m], 100.0, 2.0, 0.5});
      v[m] = std::min(v[m] + l.amax[m] * kPeriod, l.vmax[m]);
      q[m] += v[m] * kPeriod;
    }
  }
  return frames;
}

size_t index_of(int motor, int cycle) {
  return static_cast<size_t>(cycle * kArmMotors + motor);
}

// "frame quantity" of every violation, in order.
using Flags = std::vector<std::string>;
Flags flags(const CheckResult& r) {
  Flags out;
  for (const Violation& v : r.violations) {
    out.push_back(std::to_string(v.frame) + " " + v.quantity);
  }
  return out;
}

TEST(FrameChecker, AMotionAtTheLimitsPassesAndItsFaultsAreCaughtWhereTheyAre) {
  const ArmLimits l = arm_limits();
  const auto motion = motion_at_the_limits(l, 200);
  const CheckResult clean = check_frames(motion, l, {}, true);
  EXPECT_EQ(clean.frames_checked, motion.size());
  EXPECT_EQ(flags(clean), Flags{});

  auto frames = motion;  // a position spike on motor 2 (frame 302): caught going and coming
  frames[index_of(2, 50)].q += 0.02;
  const CheckResult spike = check_frames(frames, l, {}, false);
  EXPECT_EQ(flags(spike), (Flags{"302 position step", "308 position step"}));
  for (const Violation& v : spike.violations) {
    EXPECT_EQ(v.motor, 2);
    EXPECT_GT(v.value, v.bound);
  }

  frames = motion;  // a lasting velocity step on motor 4 from frame 364: one transition
  for (int cycle = 60; cycle < 200; ++cycle) {
    frames[index_of(4, cycle)].dq += 0.3;
  }
  const CheckResult step = check_frames(frames, l, {}, true);
  ASSERT_EQ(flags(step), Flags{"364 velocity step"});
  EXPECT_NEAR(step.violations[0].value, 0.3 + 12.0 * kPeriod, 1e-9);  // still speeding up
  EXPECT_EQ(flags(check_frames(frames, l, {}, false)), Flags{});      // continuity not checked

  // A NaN, and the bottom code of the codec (a NaN on the host): no step measured against them.
  frames = motion;
  frames[index_of(0, 5)].dq = NAN;
  frames[index_of(3, 10)].q = -l.p_max[3];
  EXPECT_EQ(flags(check_frames(frames, l, {}, true)),
            (Flags{"30 non-finite value", "63 non-finite value"}));
}

TEST(FrameChecker, AFrameThatArrivedLateIsNoStepButAJumpBehindItIs) {
  const ArmLimits l = arm_limits();
  // Motor 0 at its speed limit; one frame reaches the motor 2 ms late, just before the next.
  std::vector<MitFrame> frames;
  for (int i = 0; i < 40; ++i) {
    const double late = i == 20 ? 0.002 : 0.0;
    frames.push_back({i * kPeriod + late, 0, l.vmax[0] * i * kPeriod, l.vmax[0], 100, 2, 0});
  }
  EXPECT_EQ(flags(check_frames(frames, l, {}, true)), Flags{});
  for (size_t i = 21; i < frames.size(); ++i) {
    frames[i].q += 0.02;  // the command jumps right behind the late frame
  }
  EXPECT_EQ(flags(check_frames(frames, l, {}, true)), Flags{"21 position step"});
}

TEST(FrameChecker, JointLimitsApplyInJointCoordinatesWithinOneCount) {
  const ArmLimits l = arm_limits();
  // Motor 1 turns against its joint: joint = -q.
  const std::vector<MitFrame> inside = {{0.0, 1, -(1.4 + 0.5 * l.position_count(1)), 0, 100, 2, 0}};
  EXPECT_EQ(flags(check_frames(inside, l, {}, true)), Flags{});
  const std::vector<MitFrame> beyond = {{0.0, 1, -1.41, 0, 100, 2, 0},
                                        {kPeriod, 1, 1.45, 0, 100, 2, 0}};
  EXPECT_EQ(flags(check_frames(beyond, l, {}, false)),
            (Flags{"0 joint position above URDF limit", "1 joint position below URDF limit",
                   "1 position step"}));
}

TEST(FrameChecker, ATakeOverWindowToleratesOneSmallStepPerMotor) {
  const ArmLimits l = arm_limits();
  std::vector<MitFrame> frames;
  // Motor 0 holds, is taken over (0.05 rad, 1 rad/s) twice inside the window, then once more,
  // too far, inside a second window, and once outside any window.
  const double q[] = {0.0, 0.0, 0.05, 0.05, 0.10, 0.10, 0.25, 0.25, 0.30};
  const double v[] = {0.0, 0.0, 1.0, 1.0, 0.0, 0.0, 0.0, 0.0, 0.0};
  for (int i = 0; i < 9; ++i) {
    frames.push_back({i * kPeriod, 0, q[i], v[i], 100, 2, 0});
  }
  const std::vector<Exemption> windows = {{0.0, 4.5 * kPeriod, 7},
                                          {5.5 * kPeriod, 6.5 * kPeriod, 9}};
  const CheckResult r = check_frames(frames, l, windows, true);
  ASSERT_EQ(r.exempted.size(), 2u);  // the first step's position and velocity, one transition
  EXPECT_EQ(r.exempted[0].frame, 2u);
  EXPECT_NE(r.exempted[0].note.find("call #7"), std::string::npos);
  // 4: the window's allowance is spent; 6: 0.15 rad is no take-over; 8: outside any window.
  Flags frames_flagged;
  for (const std::string& f : flags(r)) {
    frames_flagged.push_back(f.substr(0, f.find(' ')));
  }
  EXPECT_EQ(frames_flagged, (Flags{"4", "4", "6", "8"}));
}

TEST(FrameChecker, GripperFramesAreTorqueOnlyZerosOrInsideGainsAndStroke) {
  const std::vector<MitFrame> frames = {
      {0.0, kGripperMotor, 0.0, 0.0, 0.0, 0.0, 0.0},     // torque-only zeros
      {0.01, kGripperMotor, -0.6, 0.0, 8.0, 0.1, 0.0},   // in the stroke
      {0.02, kGripperMotor, -0.6, 0.0, 25.0, 0.1, 0.0},  // kp too high
      {0.03, kGripperMotor, -0.6, 0.0, 8.0, 1.5, 0.0},   // kd too high
      {0.04, kGripperMotor, 0.5, 0.0, 8.0, 0.1, 0.0},    // beyond the stroke
      {0.05, kGripperMotor, 0.3, 0.0, 0.0, 0.0, 0.0},    // zero gains but a target: not torque-only
  };
  // kp has no lower check: its 12-bit code truncates the smallest allowed gain, 0.1, to 0.
  EXPECT_EQ(flags(check_frames(frames, arm_limits(), {}, true)),
            (Flags{"2 gripper kp", "3 gripper kd", "4 gripper angle above stroke", "5 gripper kd",
                   "5 gripper angle above stroke"}));
}

}  // namespace
}  // namespace kestrel::campaign
