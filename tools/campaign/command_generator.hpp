// Seeded command sequences for the campaign's two user threads. The motion thread issues one
// blocking motion after another (joint moves, waypoint motions, Cartesian motions, motion
// programs, and requests that must be refused); the interruption thread, at random intervals,
// splices chunks into whatever runs, stops, drives the gripper, reads the state and tries bad
// arguments. Every random choice comes from the seed, one stream per thread; postures stay in a
// box around a home posture where most plans are accepted.
#pragma once

#include <array>
#include <cstdint>
#include <functional>
#include <random>
#include <vector>

#include "campaign/campaign_call.hpp"

namespace kestrel::campaign {

using Posture = std::vector<double>;  // six joint values, rad

// What the generators may look at: the arm as any program sees it, and its model.
struct ArmView {
  std::function<Posture()> joints;  // measured; six values
  // Tool pose [x, y, z, roll, pitch, yaw] of a posture, by forward kinematics.
  std::function<std::vector<double>(const Posture&)> tool_pose;
  // The same of the measured posture, from get_end_effector_pose().
  std::function<std::vector<double>()> current_tool_pose;
};

struct PlannerLimits {
  std::array<double, 6> vmax{};  // rad/s
  std::array<double, 6> amax{};  // rad/s^2
  std::array<double, 6> jmax{};  // rad/s^3
};

// Postures and durations shared by both generators.
class MotionSpace {
 public:
  explicit MotionSpace(const PlannerLimits& limits) : limits_(limits) {}

  static const Posture& home();
  Posture random_posture(std::mt19937_64& rng) const;
  // Within `spread` of `from` on every joint, inside the box.
  Posture near(const Posture& from, double spread, std::mt19937_64& rng) const;
  Posture clamp_to_box(Posture q) const;

  // Shortest time of set_joint's 7th-order profile inside the speed and acceleration limits,
  // with every joint's distance lengthened by `standoff` (rad).
  double septic_time(const Posture& from, const Posture& to, double standoff = 0.0) const;
  // Shortest quintic segment from `from` to `to` at `speed` of the speed limits.
  double quintic_time(const Posture& from, const Posture& to, double speed) const;
  // Quintic segments through the path at `speed`.
  double path_time(const Posture& from, const std::vector<Posture>& path, double speed) const;

 private:
  PlannerLimits limits_;
};

class MotionGenerator {
 public:
  MotionGenerator(uint64_t seed, const PlannerLimits& limits, ArmView view);
  // Its calls may take over a moving arm through the splice (smooth_takeover): a set_joint move
  // then starts where the brake from the running motion ends, up to kBrakeStandOff from the
  // joints it was made from, and its time allows for that.
  void take_over_moving_arm() { standoff_ = kBrakeStandOff; }
  static constexpr double kBrakeStandOff = 0.8;  // rad
  Call next();
  double pause();  // seconds between two motions

 private:
  Call homing();
  Call set_joint(bool far_too_short);
  Call joint_waypoints(bool with_gripper);
  Call cartesian();
  Call degenerate_line();
  Call unreachable_pose();
  Call motion_program();

  std::mt19937_64 rng_;
  double standoff_ = 0.0;
  MotionSpace space_;
  ArmView view_;
  bool homed_ = false;
};

class InterruptionGenerator {
 public:
  InterruptionGenerator(uint64_t seed, const PlannerLimits& limits, ArmView view);
  Call next();
  double pause();  // seconds before the next call, 20-400 ms

 private:
  Call chunk(bool with_gripper);
  Call stop();
  Call gripper();
  Call state_query();
  Call bad_arguments();

  std::mt19937_64 rng_;
  MotionSpace space_;
  ArmView view_;
};

}  // namespace kestrel::campaign
