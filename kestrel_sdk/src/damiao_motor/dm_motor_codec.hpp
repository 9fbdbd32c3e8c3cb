// The DM motor protocol's 8-byte payloads: commands encoded for one motor, feedback and
// parameter replies decoded. Stateless: every operation is a pure static function.
// The command encoders refuse a NaN or infinite field with std::invalid_argument: the fixed-point
// fields would turn it into a real target at one end of the range, and the float fields would
// carry it to the motor as it stands.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "kestrel/damiao_motor/dm_motor_control.hpp"

namespace kestrel::damiao_motor {

struct CANPacket {
  uint32_t can_id = 0;
  std::vector<uint8_t> data;
};

// The 8 payload bytes of every DM frame.
using Payload = std::array<uint8_t, 8>;

// One DM frame ready for the bus, held by value: identifier and payload, no heap storage. A
// control loop encodes all the frames of its cycle first (computation) and then writes them back
// to back (bus I/O), so that each half can be timed on its own.
struct EncodedFrame {
  uint32_t can_id = 0;
  Payload data{};
};

// One MIT-mode command: gains, target position and velocity, feed-forward torque.
struct MITParam {
  double kp = 0.0;
  double kd = 0.0;
  double q = 0.0;
  double dq = 0.0;
  double tau = 0.0;
};

// One position-velocity command. Its 8 bytes are the payload as they stand.
struct POS_VELParam {
  float q = 0.0f;
  float dq = 0.0f;
};
static_assert(sizeof(POS_VELParam) == 8, "POS_VELParam must be two packed float32");

struct ParamResult {
  int rid = 0;
  double value = 0.0;
  uint8_t command = 0;  // 0x33 answers a read, 0x55 a write
  bool valid = false;
};

// Register ids the system uses.
inline constexpr int RID_ACC = 4;
inline constexpr int RID_DEC = 5;
inline constexpr int RID_TIMEOUT = 9;
inline constexpr int RID_CTRL_MODE = 10;
inline constexpr int RID_KP_APR = 27;

inline constexpr uint32_t PARAM_CAN_ID = 0x7FF;
inline constexpr uint32_t POS_VEL_ID_OFFSET = 0x100;
inline constexpr uint8_t CMD_ENABLE = 0xFC;
inline constexpr uint8_t CMD_DISABLE = 0xFD;
inline constexpr uint8_t CMD_SET_ZERO = 0xFE;
inline constexpr uint8_t CMD_CLEAR_ERROR = 0xFB;
inline constexpr uint8_t PARAM_READ = 0x33;
inline constexpr uint8_t PARAM_WRITE = 0x55;
inline constexpr uint8_t PARAM_REFRESH = 0xCC;

class CanPacketEncoder {
 public:
  static CANPacket create_enable_command(const Motor& motor);
  static CANPacket create_disable_command(const Motor& motor);
  static CANPacket create_set_zero_command(const Motor& motor);
  static CANPacket create_clrErr_command(const Motor& motor);
  static CANPacket create_mit_control_command(const Motor& motor, const MITParam& p);
  static CANPacket create_pos_vel_control_command(const Motor& motor, const POS_VELParam& p);
  static CANPacket create_refresh_command(const Motor& motor);
  static CANPacket create_query_param_command(const Motor& motor, int rid);
  static CANPacket create_write_param_command(const Motor& motor, int rid, unsigned int value);
  static CANPacket create_write_param_command(const Motor& motor, int rid, float value);
  // The control-mode switch: a write of register 10 carrying only the mode byte.
  static CANPacket create_param_write_RID_command(const Motor& motor, int mode);

  // The same frames, byte for byte, without allocating: the create_* functions above copy these
  // into packets. They refuse what their create_* counterparts refuse, with the same messages.
  static EncodedFrame encode_enable_command(const Motor& motor);
  static EncodedFrame encode_disable_command(const Motor& motor);
  static EncodedFrame encode_set_zero_command(const Motor& motor);
  static EncodedFrame encode_clrErr_command(const Motor& motor);
  static EncodedFrame encode_mit_control_command(const Motor& motor, const MITParam& p);
  static EncodedFrame encode_pos_vel_control_command(const Motor& motor, const POS_VELParam& p);
  static EncodedFrame encode_refresh_command(const Motor& motor);
  static EncodedFrame encode_query_param_command(const Motor& motor, int rid);
  static EncodedFrame encode_write_param_command(const Motor& motor, int rid, unsigned int value);
  static EncodedFrame encode_write_param_command(const Motor& motor, int rid, float value);
  static EncodedFrame encode_param_write_RID_command(const Motor& motor, int mode);

  static std::vector<uint8_t> pack_command_data(uint8_t cmd);
  static std::vector<uint8_t> pack_query_param_data(unsigned int id, int rid);
  static std::vector<uint8_t> pack_write_param_data(unsigned int id, int rid, unsigned int value);
  // "register write: register 4 value must be finite, got nan" for a non-finite value.
  static std::vector<uint8_t> pack_write_param_data(unsigned int id, int rid, float value);
  static std::vector<uint8_t> pack_switch_control_mode_data(unsigned int id, int mode);
  // "MIT command: q must be finite, got nan" for a non-finite field; "Invalid motor type: 13"
  // for a type outside the limit table.
  static std::vector<uint8_t> pack_mit_control_data(MotorType type, const MITParam& p);
  // "position-velocity command: dq must be finite, got inf" for a non-finite field.
  static std::vector<uint8_t> pack_posvel_control_data(MotorType type, const POS_VELParam& p);

  // The payloads in place; the pack_* functions above copy these into vectors.
  static Payload command_payload(uint8_t cmd);
  static Payload query_param_payload(unsigned int id, int rid);
  static Payload write_param_payload(unsigned int id, int rid, unsigned int value);
  static Payload write_param_payload(unsigned int id, int rid, float value);
  static Payload switch_control_mode_payload(unsigned int id, int mode);
  static Payload mit_control_payload(MotorType type, const MITParam& p);
  static Payload posvel_control_payload(MotorType type, const POS_VELParam& p);

  // The frame's identifier and a copy of its bytes as a packet.
  static CANPacket to_packet(const EncodedFrame& frame);

  // Throw std::invalid_argument "<operation>: <field> must be finite, got <value>" for the first
  // NaN or infinite field, with "motor <index> " before the field when motor_index >= 0. They
  // allocate nothing unless they throw.
  static void require_finite(const MITParam& p, const char* operation, int motor_index = -1);
  static void require_finite(const POS_VELParam& p, const char* operation, int motor_index = -1);
  // "<operation>: [motor <index> ]register <rid> value must be finite, got <value>".
  static void require_finite(float value, int rid, const char* operation, int motor_index = -1);

  // x above max becomes max; a result not above min (NaN included) becomes min. The command
  // encoders never let a NaN get this far.
  static double limit_min_max(double x, double min, double max);
  // Truncating (never rounding) scale of x from [min, max] onto 0..2^bits-1.
  static unsigned int double_to_uint(double x, double min, double max, int bits);
};

class CanPacketDecoder {
 public:
  static StateResult parse_motor_state_data(const Motor& motor, const std::vector<uint8_t>& data);
  static ParamResult parse_motor_param_data(const std::vector<uint8_t>& data);
  // The same, read in place from `size` bytes at `data` (a received frame's buffer): no copy.
  static StateResult parse_motor_state_data(const Motor& motor, const uint8_t* data, size_t size);
  static ParamResult parse_motor_param_data(const uint8_t* data, size_t size);

  static double uint_to_double(uint16_t u, double min, double max, int bits);
  static float uint8s_to_float(const std::array<uint8_t, 4>& bytes);
  static uint32_t uint8s_to_uint32(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3);
  // Registers 7, 8, 9, 10, 13, 14, 15, 16, 35 and 36 hold uint32; all others float32.
  static bool is_in_ranges(int rid);
};

}  // namespace kestrel::damiao_motor
