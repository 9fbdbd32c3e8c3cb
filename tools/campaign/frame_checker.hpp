// The campaign's judge: properties of the MIT frames the simulated motors received, read from
// the frames alone (never from the controller's own state). Per arm motor, over consecutive
// frames in receive order: finite values, positions inside the URDF limits, position steps
// within the speed limit and, when asked, velocity steps within the acceleration limit. Gripper
// frames: finite, and either torque-only zeros or gains and a target angle the gripper accepts.
#pragma once

#include <array>
#include <cstddef>
#include <string>
#include <vector>

namespace kestrel::campaign {

inline constexpr int kArmMotors = 6;
inline constexpr int kGripperMotor = 6;

// One MIT frame as the addressed motor decoded it.
struct MitFrame {
  double time = 0.0;  // receive time, seconds since the campaign's start
  int motor = 0;      // 0-5 arm joints, 6 gripper
  double q = 0.0;     // motor coordinates (joint = motor x sign)
  double dq = 0.0;
  double kp = 0.0;
  double kd = 0.0;
  double tau = 0.0;
};

// What the checker knows of the arm and its motors.
struct ArmLimits {
  std::array<double, kArmMotors> sign{};
  std::array<double, kArmMotors> lower{};  // URDF joint limits, rad
  std::array<double, kArmMotors> upper{};
  std::array<double, kArmMotors> vmax{};  // planner limits, rad/s and rad/s^2
  std::array<double, kArmMotors> amax{};
  // Field ranges of each motor's MIT frame (symmetric: -max .. max).
  std::array<double, kArmMotors + 1> p_max{};
  std::array<double, kArmMotors + 1> v_max{};
  std::array<double, kArmMotors + 1> t_max{};
  double kp_max = 500.0;
  double kd_max = 5.0;
  double gripper_angle_low = 0.0;  // motor angles of the gripper's stroke ends
  double gripper_angle_high = 0.0;

  // One count of the 16-bit position and the 12-bit velocity field of `motor`.
  double position_count(int motor) const { return 2.0 * p_max[motor] / 65535.0; }
  double velocity_count(int motor) const { return 2.0 * v_max[motor] / 4095.0; }
};

// A window in which a new command may take over a moving arm from the measured joints at rest:
// one out-of-bound transition per motor is tolerated there, if it stays small.
struct Exemption {
  double begin = 0.0;
  double end = 0.0;
  size_t call = 0;  // the call that opened it, index in the call log
};
inline constexpr double kExemptPositionStep = 0.1;    // rad
inline constexpr double kExemptVelocityFactor = 1.3;  // x vmax

struct Violation {
  double time = 0.0;
  int motor = -1;  // -1: not about one motor
  std::string quantity;
  double value = 0.0;
  double bound = 0.0;
  size_t frame = static_cast<size_t>(-1);  // index of the offending frame, when it is one
  std::string note;
};

struct CheckResult {
  size_t frames_checked = 0;
  std::vector<Violation> exempted;  // out-of-bound transitions a take-over window tolerated
  std::vector<Violation> violations;
};

CheckResult check_frames(const std::vector<MitFrame>& frames, const ArmLimits& limits,
                         const std::vector<Exemption>& exemptions, bool velocity_continuity);

}  // namespace kestrel::campaign
