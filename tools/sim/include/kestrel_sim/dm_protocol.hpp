// The motor's side of the DM servo protocol: what a DM motor's firmware decodes from the frames
// it receives and how it encodes its feedback and register replies. Written from the wire
// format, deliberately without the host driver's codec, so that the two check each other.
#pragma once

#include <cstdint>

#include "kestrel_sim/frame.hpp"

namespace kestrel::sim::dm {

// Per motor model: position, velocity and torque ranges of the MIT and feedback scaling.
struct Limits {
  double p_max = 0.0;  // rad
  double v_max = 0.0;  // rad/s
  double t_max = 0.0;  // N·m
};

inline constexpr int kMotorTypeCount = 13;
// Limits of motor model `type` (0..12); throws std::out_of_range otherwise.
Limits limits_of_type(int type);

inline constexpr uint32_t kParamId = 0x7FF;
inline constexpr uint32_t kPosVelIdOffset = 0x100;

inline constexpr uint8_t kCmdEnable = 0xFC;
inline constexpr uint8_t kCmdDisable = 0xFD;
inline constexpr uint8_t kCmdSetZero = 0xFE;
inline constexpr uint8_t kCmdClearError = 0xFB;

inline constexpr uint8_t kParamRefresh = 0xCC;
inline constexpr uint8_t kParamRead = 0x33;
inline constexpr uint8_t kParamWrite = 0x55;

inline constexpr double kKpMax = 500.0;
inline constexpr double kKdMax = 5.0;

// Status nibble of feedback byte 0.
enum Status : uint8_t {
  kDisabled = 0,
  kEnabled = 1,
  kOverVoltage = 8,
  kUnderVoltage = 9,
  kOverCurrent = 10,
  kMosOverTemperature = 11,
  kCoilOverTemperature = 12,
  kCommunicationLost = 13,
  kOverload = 14,
};
bool is_fault_code(int code);
const char* status_text(int code);

// Control-mode register values.
enum ControlMode : uint32_t {
  kModeMit = 1,
  kModePosVel = 2,
  kModeVelocity = 3,
  kModeForcePosition = 4,
};

// The firmware's fixed-point mapping: x clamped to [min, max], scaled onto 0..2^bits-1 and
// truncated.
uint32_t to_fixed(double x, double min, double max, int bits);
// min + u / (2^bits - 1) * (max - min).
double from_fixed(uint32_t u, double min, double max, int bits);

struct MitCommand {
  double q = 0.0;
  double dq = 0.0;
  double kp = 0.0;
  double kd = 0.0;
  double tau = 0.0;
};

struct PosVelCommand {
  float q = 0.0f;
  float dq = 0.0f;
};

enum class CommandByte { kNone, kEnable, kDisable, kSetZero, kClearError };
// FF FF FF FF FF FF FF xx with a known xx; anything else on the command id is an MIT frame.
CommandByte special_command(const Payload& p);

// q 16 bits big-endian; dq, kp, kd, tau 12 bits each, most significant nibble first.
MitCommand decode_mit(const Payload& p, const Limits& limits);
Payload encode_mit(const MitCommand& c, const Limits& limits);  // host side, for tests and tools
// Target position and speed as little-endian float32.
PosVelCommand decode_pos_vel(const Payload& p);
Payload encode_pos_vel(const PosVelCommand& c);

struct Feedback {
  uint8_t status = kDisabled;
  uint32_t send_id = 0;  // only its low nibble goes on the wire
  double q = 0.0;
  double dq = 0.0;
  double tau = 0.0;
  double t_mos = 0.0;    // °C
  double t_rotor = 0.0;  // °C
};
// byte0 = status << 4 | id nibble; q 16 bits; dq 12 bits; tau 12 bits; MOS and rotor °C.
Payload encode_feedback(const Feedback& f, const Limits& limits);
Feedback decode_feedback(const Payload& p, const Limits& limits);

// Parameter frames on 0x7FF: bytes 0-1 motor id (little-endian), byte 2 command, byte 3
// register, bytes 4-7 value (little-endian).
struct ParamFrame {
  uint16_t motor_id = 0;
  uint8_t command = 0;
  uint8_t rid = 0;
  uint32_t value = 0;
};
ParamFrame decode_param(const Payload& p);
Payload encode_param(const ParamFrame& f);

uint32_t float_bits(float f);
float bits_float(uint32_t u);

}  // namespace kestrel::sim::dm
