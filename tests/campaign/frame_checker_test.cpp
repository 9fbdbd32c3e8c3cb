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

TEST(FrameChecker, AMotionAtTheLimitsPasses) {
  const ArmLimits l = arm_limits();
  const auto frames = motion_at_the_limits(l, 200);
  const CheckResult r = check_frames(frames, l, {}, true);
  EXPECT_EQ(r.frames_checked, frames.size());
  EXPECT_TRUE(r.violations.empty()) << r.violations.front().quantity;
}

TEST(FrameChecker, APositionSpikeIsCaughtGoingAndComing) {
  const ArmLimits l = arm_limits();
  auto frames = motion_at_the_limits(l, 100);
  const size_t spike = index_of(2, 50);
  frames[spike].q += 0.02;
  const CheckResult r = check_frames(frames, l, {}, false);
  ASSERT_EQ(r.violations.size(), 2u);
  EXPECT_EQ(r.violations[0].frame, spike);
  EXPECT_EQ(r.violations[1].frame, index_of(2, 51));
  for (const Violation& v : r.violations) {
    EXPECT_EQ(v.motor, 2);
    EXPECT_EQ(v.quantity, "position step");
    EXPECT_GT(v.value, v.bound);
  }
}

TEST(FrameChecker, AVelocityStepIsCaughtOnlyWhereContinuityIsChecked) {
  const ArmLimits l = arm_limits();
  auto frames = motion_at_the_limits(l, 100);
  for (int cycle = 60; cycle < 100; ++cycle) {
    frames[index_of(4, cycle)].dq += 0.3;  // a lasting step: one transition
  }
  const CheckResult checked = check_frames(frames, l, {}, true);
  ASSERT_EQ(checked.violations.size(), 1u);
  EXPECT_EQ(checked.violations[0].quantity, "velocity step");
  EXPECT_EQ(checked.violations[0].frame, index_of(4, 60));
  EXPECT_NEAR(checked.violations[0].value, 0.3 + l.amax[4] * kPeriod, 1e-9);  // still speeding up
  EXPECT_TRUE(check_frames(frames, l, {}, false).violations.empty());
}

TEST(FrameChecker, AFrameThatArrivedLateIsNoStepButAJumpBehindItIs) {
  const ArmLimits l = arm_limits();
  // Motor 0 at its speed limit; one frame reaches the motor 2 ms late, just before the next.
  std::vector<MitFrame> frames;
  for (int i = 0; i < 40; ++i) {
    const double late = i == 20 ? 0.002 : 0.0;
    frames.push_back({i * kPeriod + late, 0, l.vmax[0] * i * kPeriod, l.vmax[0], 100, 2, 0});
  }
  EXPECT_TRUE(check_frames(frames, l, {}, true).violations.empty());
  for (size_t i = 21; i < frames.size(); ++i) {
    frames[i].q += 0.02;  // the command jumps right behind the late frame
  }
  const CheckResult r = check_frames(frames, l, {}, true);
  ASSERT_EQ(r.violations.size(), 1u);
  EXPECT_EQ(r.violations[0].frame, 21u);
  EXPECT_EQ(r.violations[0].quantity, "position step");
}

TEST(FrameChecker, JointLimitsApplyInJointCoordinatesWithinOneCount) {
  const ArmLimits l = arm_limits();
  // Motor 1 turns against its joint: joint = -q.
  const double count = l.position_count(1);
  const std::vector<MitFrame> inside = {{0.0, 1, -(1.4 + 0.5 * count), 0, 100, 2, 0}};
  EXPECT_TRUE(check_frames(inside, l, {}, true).violations.empty());
  const std::vector<MitFrame> beyond = {{0.0, 1, -1.41, 0, 100, 2, 0},
                                        {kPeriod, 1, 1.45, 0, 100, 2, 0}};
  const CheckResult r = check_frames(beyond, l, {}, false);
  ASSERT_EQ(r.violations.size(), 3u);
  EXPECT_EQ(r.violations[0].quantity, "joint position above URDF limit");
  EXPECT_EQ(r.violations[1].quantity, "joint position below URDF limit");
  EXPECT_EQ(r.violations[2].quantity, "position step");
}

TEST(FrameChecker, NonFiniteValuesAndWhatTheCodecMakesOfThemAreCaught) {
  const ArmLimits l = arm_limits();
  auto frames = motion_at_the_limits(l, 20);
  frames[index_of(0, 5)].dq = NAN;
  frames[index_of(3, 10)].q = -l.p_max[3];  // the bottom code: a NaN on the host
  const CheckResult r = check_frames(frames, l, {}, true);
  ASSERT_EQ(r.violations.size(), 2u);  // no step is measured against them
  EXPECT_EQ(r.violations[0].quantity, "non-finite value");
  EXPECT_EQ(r.violations[0].frame, index_of(0, 5));
  EXPECT_EQ(r.violations[1].quantity, "non-finite value");
  EXPECT_EQ(r.violations[1].frame, index_of(3, 10));
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
  std::vector<size_t> flagged;
  for (const Violation& v : r.violations) {
    flagged.push_back(v.frame);
  }
  // 4: the window's allowance is spent; 6: 0.15 rad is no take-over; 8: outside any window.
  EXPECT_EQ(flagged, (std::vector<size_t>{4, 4, 6, 8}));
}

TEST(FrameChecker, GripperFramesAreTorqueOnlyZerosOrInsideGainsAndStroke) {
  const ArmLimits l = arm_limits();
  const std::vector<MitFrame> frames = {
      {0.0, kGripperMotor, 0.0, 0.0, 0.0, 0.0, 0.0},     // torque-only zeros
      {0.01, kGripperMotor, -0.6, 0.0, 8.0, 0.1, 0.0},   // in the stroke
      {0.02, kGripperMotor, -0.6, 0.0, 25.0, 0.1, 0.0},  // kp too high
      {0.03, kGripperMotor, -0.6, 0.0, 8.0, 1.5, 0.0},   // kd too high
      {0.04, kGripperMotor, 0.5, 0.0, 8.0, 0.1, 0.0},    // beyond the stroke
      {0.05, kGripperMotor, 0.3, 0.0, 0.0, 0.0, 0.0},    // zero gains but a target: not torque-only
  };
  // kp has no lower check: its 12-bit code truncates the smallest allowed gain, 0.1, to 0.
  const CheckResult r = check_frames(frames, l, {}, true);
  std::vector<std::string> found;
  for (const Violation& v : r.violations) {
    found.push_back(std::to_string(v.frame) + " " + v.quantity);
  }
  EXPECT_EQ(found, (std::vector<std::string>{"2 gripper kp", "3 gripper kd",
                                             "4 gripper angle above stroke", "5 gripper kd",
                                             "5 gripper angle above stroke"}));
}

}  // namespace
}  // namespace kestrel::campaign
