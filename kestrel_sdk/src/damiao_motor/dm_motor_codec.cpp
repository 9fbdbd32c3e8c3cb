#include "kestrel/damiao_motor/dm_motor_codec.hpp"

#include <cmath>
#include <cstring>
#include <iostream>
#include <limits>
#include <stdexcept>
#include <string>
#include <utility>

namespace kestrel::damiao_motor {

namespace {

// Parameter frames address a motor by the low 16 bits of its identifier.
Payload param_header(unsigned int id, uint8_t command, int rid) {
  return {static_cast<uint8_t>(id & 0xFF),
          static_cast<uint8_t>((id >> 8) & 0xFF),
          command,
          static_cast<uint8_t>(rid & 0xFF),
          0,
          0,
          0,
          0};
}

void put_u32_le(Payload& data, size_t offset, uint32_t value) {
  data[offset] = static_cast<uint8_t>(value & 0xFF);
  data[offset + 1] = static_cast<uint8_t>((value >> 8) & 0xFF);
  data[offset + 2] = static_cast<uint8_t>((value >> 16) & 0xFF);
  data[offset + 3] = static_cast<uint8_t>((value >> 24) & 0xFF);
}

std::vector<uint8_t> to_vector(const Payload& payload) {
  return std::vector<uint8_t>(payload.begin(), payload.end());
}

uint32_t float_bits(float value) {
  uint32_t bits;
  std::memcpy(&bits, &value, sizeof(bits));
  return bits;
}

// Only the error path builds text.
[[noreturn]] void throw_not_finite(const char* operation, int motor_index, const std::string& what,
                                   double value) {
  std::string message = std::string(operation) + ": ";
  if (motor_index >= 0) {
    message += "motor " + std::to_string(motor_index) + " ";
  }
  // Every NaN reads "nan", whatever its sign bit; infinities read "inf" and "-inf".
  message += what + " must be finite, got " + (std::isnan(value) ? "nan" : std::to_string(value));
  throw std::invalid_argument(message);
}

}  // namespace

// ---- encoder -------------------------------------------------------------------------------

CANPacket CanPacketEncoder::to_packet(const EncodedFrame& frame) {
  return {frame.can_id, to_vector(frame.data)};
}

CANPacket CanPacketEncoder::create_enable_command(const Motor& motor) {
  return to_packet(encode_enable_command(motor));
}

CANPacket CanPacketEncoder::create_disable_command(const Motor& motor) {
  return to_packet(encode_disable_command(motor));
}

CANPacket CanPacketEncoder::create_set_zero_command(const Motor& motor) {
  return to_packet(encode_set_zero_command(motor));
}

CANPacket CanPacketEncoder::create_clrErr_command(const Motor& motor) {
  return to_packet(encode_clrErr_command(motor));
}

CANPacket CanPacketEncoder::create_mit_control_command(const Motor& motor, const MITParam& p) {
  return to_packet(encode_mit_control_command(motor, p));
}

CANPacket CanPacketEncoder::create_pos_vel_control_command(const Motor& motor,
                                                           const POS_VELParam& p) {
  return to_packet(encode_pos_vel_control_command(motor, p));
}

CANPacket CanPacketEncoder::create_refresh_command(const Motor& motor) {
  return to_packet(encode_refresh_command(motor));
}

CANPacket CanPacketEncoder::create_query_param_command(const Motor& motor, int rid) {
  return to_packet(encode_query_param_command(motor, rid));
}

CANPacket CanPacketEncoder::create_write_param_command(const Motor& motor, int rid,
                                                       unsigned int value) {
  return to_packet(encode_write_param_command(motor, rid, value));
}

CANPacket CanPacketEncoder::create_write_param_command(const Motor& motor, int rid, float value) {
  return to_packet(encode_write_param_command(motor, rid, value));
}

CANPacket CanPacketEncoder::create_param_write_RID_command(const Motor& motor, int mode) {
  return to_packet(encode_param_write_RID_command(motor, mode));
}

EncodedFrame CanPacketEncoder::encode_enable_command(const Motor& motor) {
  return {motor.get_send_id(), command_payload(CMD_ENABLE)};
}

EncodedFrame CanPacketEncoder::encode_disable_command(const Motor& motor) {
  return {motor.get_send_id(), command_payload(CMD_DISABLE)};
}

EncodedFrame CanPacketEncoder::encode_set_zero_command(const Motor& motor) {
  return {motor.get_send_id(), command_payload(CMD_SET_ZERO)};
}

EncodedFrame CanPacketEncoder::encode_clrErr_command(const Motor& motor) {
  return {motor.get_send_id(), command_payload(CMD_CLEAR_ERROR)};
}

EncodedFrame CanPacketEncoder::encode_mit_control_command(const Motor& motor, const MITParam& p) {
  return {motor.get_send_id(), mit_control_payload(motor.get_motor_type(), p)};
}

EncodedFrame CanPacketEncoder::encode_pos_vel_control_command(const Motor& motor,
                                                              const POS_VELParam& p) {
  return {motor.get_send_id() + POS_VEL_ID_OFFSET,
          posvel_control_payload(motor.get_motor_type(), p)};
}

EncodedFrame CanPacketEncoder::encode_refresh_command(const Motor& motor) {
  // Unlike the other parameter frames the refresh request carries a zero second id byte.
  return {PARAM_CAN_ID,
          {static_cast<uint8_t>(motor.get_send_id() & 0xFF), 0x00, PARAM_REFRESH, 0, 0, 0, 0, 0}};
}

EncodedFrame CanPacketEncoder::encode_query_param_command(const Motor& motor, int rid) {
  return {PARAM_CAN_ID, query_param_payload(motor.get_send_id(), rid)};
}

EncodedFrame CanPacketEncoder::encode_write_param_command(const Motor& motor, int rid,
                                                          unsigned int value) {
  return {PARAM_CAN_ID, write_param_payload(motor.get_send_id(), rid, value)};
}

EncodedFrame CanPacketEncoder::encode_write_param_command(const Motor& motor, int rid,
                                                          float value) {
  return {PARAM_CAN_ID, write_param_payload(motor.get_send_id(), rid, value)};
}

EncodedFrame CanPacketEncoder::encode_param_write_RID_command(const Motor& motor, int mode) {
  return {PARAM_CAN_ID, switch_control_mode_payload(motor.get_send_id(), mode)};
}

std::vector<uint8_t> CanPacketEncoder::pack_command_data(uint8_t cmd) {
  return to_vector(command_payload(cmd));
}

std::vector<uint8_t> CanPacketEncoder::pack_query_param_data(unsigned int id, int rid) {
  return to_vector(query_param_payload(id, rid));
}

std::vector<uint8_t> CanPacketEncoder::pack_write_param_data(unsigned int id, int rid,
                                                             unsigned int value) {
  return to_vector(write_param_payload(id, rid, value));
}

std::vector<uint8_t> CanPacketEncoder::pack_write_param_data(unsigned int id, int rid,
                                                             float value) {
  return to_vector(write_param_payload(id, rid, value));
}

std::vector<uint8_t> CanPacketEncoder::pack_switch_control_mode_data(unsigned int id, int mode) {
  return to_vector(switch_control_mode_payload(id, mode));
}

std::vector<uint8_t> CanPacketEncoder::pack_mit_control_data(MotorType type, const MITParam& p) {
  return to_vector(mit_control_payload(type, p));
}

std::vector<uint8_t> CanPacketEncoder::pack_posvel_control_data(MotorType type,
                                                                const POS_VELParam& p) {
  return to_vector(posvel_control_payload(type, p));
}

Payload CanPacketEncoder::command_payload(uint8_t cmd) {
  return {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, cmd};
}

Payload CanPacketEncoder::query_param_payload(unsigned int id, int rid) {
  return param_header(id, PARAM_READ, rid);
}

Payload CanPacketEncoder::write_param_payload(unsigned int id, int rid, unsigned int value) {
  Payload data = param_header(id, PARAM_WRITE, rid);
  put_u32_le(data, 4, value);
  return data;
}

Payload CanPacketEncoder::write_param_payload(unsigned int id, int rid, float value) {
  require_finite(value, rid, "register write");
  Payload data = param_header(id, PARAM_WRITE, rid);
  put_u32_le(data, 4, float_bits(value));
  return data;
}

Payload CanPacketEncoder::switch_control_mode_payload(unsigned int id, int mode) {
  Payload data = param_header(id, PARAM_WRITE, RID_CTRL_MODE);
  data[4] = static_cast<uint8_t>(mode & 0xFF);
  return data;
}

Payload CanPacketEncoder::mit_control_payload(MotorType type, const MITParam& p) {
  require_finite(p, "MIT command");
  const LimitParam lim = Motor::get_limit_param(type);
  const double p_max = lim.p_max;
  const double v_max = lim.v_max;
  const double t_max = lim.t_max;
  const unsigned int kp_u = double_to_uint(p.kp, 0.0, 500.0, 12);
  const unsigned int kd_u = double_to_uint(p.kd, 0.0, 5.0, 12);
  const unsigned int q_u = double_to_uint(p.q, -p_max, p_max, 16);
  const unsigned int dq_u = double_to_uint(p.dq, -v_max, v_max, 12);
  const unsigned int tau_u = double_to_uint(p.tau, -t_max, t_max, 12);
  // Position is 16 bits big-endian; the 12-bit fields are packed most significant nibble first.
  return {static_cast<uint8_t>(q_u >> 8),
          static_cast<uint8_t>(q_u & 0xFF),
          static_cast<uint8_t>(dq_u >> 4),
          static_cast<uint8_t>(((dq_u & 0xF) << 4) | ((kp_u >> 8) & 0xF)),
          static_cast<uint8_t>(kp_u & 0xFF),
          static_cast<uint8_t>(kd_u >> 4),
          static_cast<uint8_t>(((kd_u & 0xF) << 4) | ((tau_u >> 8) & 0xF)),
          static_cast<uint8_t>(tau_u & 0xFF)};
}

Payload CanPacketEncoder::posvel_control_payload(MotorType /*type*/, const POS_VELParam& p) {
  require_finite(p, "position-velocity command");
  Payload data;
  static_assert(sizeof(POS_VELParam) == sizeof(Payload));
  std::memcpy(data.data(), &p, sizeof(POS_VELParam));
  return data;
}

void CanPacketEncoder::require_finite(const MITParam& p, const char* operation, int motor_index) {
  const std::pair<const char*, double> fields[] = {
      {"kp", p.kp}, {"kd", p.kd}, {"q", p.q}, {"dq", p.dq}, {"tau", p.tau}};
  for (const auto& [name, value] : fields) {
    if (!std::isfinite(value)) {
      throw_not_finite(operation, motor_index, name, value);
    }
  }
}

void CanPacketEncoder::require_finite(const POS_VELParam& p, const char* operation,
                                      int motor_index) {
  if (!std::isfinite(p.q)) {
    throw_not_finite(operation, motor_index, "q", p.q);
  }
  if (!std::isfinite(p.dq)) {
    throw_not_finite(operation, motor_index, "dq", p.dq);
  }
}

void CanPacketEncoder::require_finite(float value, int rid, const char* operation,
                                      int motor_index) {
  if (!std::isfinite(value)) {
    throw_not_finite(operation, motor_index, "register " + std::to_string(rid) + " value", value);
  }
}

double CanPacketEncoder::limit_min_max(double x, double min, double max) {
  if (x > max) {
    x = max;
  }
  // Written as "not greater than min" so that NaN falls to the bottom of the range.
  if (!(x > min)) {
    return min;
  }
  return x;
}

unsigned int CanPacketEncoder::double_to_uint(double x, double min, double max, int bits) {
  const double span = max - min;
  const double full_scale = static_cast<double>((1u << bits) - 1u);
  const double scaled = ((limit_min_max(x, min, max) - min) / span) * full_scale;
  return static_cast<unsigned int>(std::trunc(scaled));
}

// ---- decoder -------------------------------------------------------------------------------

StateResult CanPacketDecoder::parse_motor_state_data(const Motor& motor,
                                                     const std::vector<uint8_t>& data) {
  return parse_motor_state_data(motor, data.data(), data.size());
}

ParamResult CanPacketDecoder::parse_motor_param_data(const std::vector<uint8_t>& data) {
  return parse_motor_param_data(data.data(), data.size());
}

StateResult CanPacketDecoder::parse_motor_state_data(const Motor& motor, const uint8_t* data,
                                                     size_t size) {
  if (size < 8) {
    std::cerr << "Warning: Skipping motor state data less than 8 bytes\n";
    return StateResult{};
  }
  const LimitParam lim = Motor::get_limit_param(motor.get_motor_type());
  const double p_max = lim.p_max;
  const double v_max = lim.v_max;
  const double t_max = lim.t_max;

  StateResult s;
  s.feedback_id = data[0] & 0x0F;
  s.error_code = data[0] >> 4;
  const uint16_t q_u = static_cast<uint16_t>((data[1] << 8) | data[2]);
  const uint16_t dq_u = static_cast<uint16_t>((data[3] << 4) | (data[4] >> 4));
  const uint16_t tau_u = static_cast<uint16_t>(((data[4] & 0x0F) << 8) | data[5]);
  s.position = uint_to_double(q_u, -p_max, p_max, 16);
  s.velocity = uint_to_double(dq_u, -v_max, v_max, 12);
  s.torque = uint_to_double(tau_u, -t_max, t_max, 12);
  s.t_mos = data[6];
  s.t_rotor = data[7];
  s.valid = true;
  return s;
}

ParamResult CanPacketDecoder::parse_motor_param_data(const uint8_t* data, size_t size) {
  ParamResult invalid;
  invalid.rid = 0;
  invalid.value = std::numeric_limits<double>::quiet_NaN();
  invalid.command = 0;
  invalid.valid = false;
  if (size < 8) {
    return invalid;
  }
  if (data[2] != PARAM_WRITE && data[2] != PARAM_READ) {
    std::cerr << "WARNING: INVALID PARAM DATA\n";
    return invalid;
  }
  ParamResult r;
  r.rid = data[3];
  if (is_in_ranges(r.rid)) {
    r.value = static_cast<double>(uint8s_to_uint32(data[4], data[5], data[6], data[7]));
  } else {
    r.value = static_cast<double>(uint8s_to_float({data[4], data[5], data[6], data[7]}));
  }
  r.command = data[2];
  r.valid = true;
  return r;
}

double CanPacketDecoder::uint_to_double(uint16_t u, double min, double max, int bits) {
  const double full_scale = static_cast<double>((1u << bits) - 1u);
  return std::fma(max - min, static_cast<double>(u) / full_scale, min);
}

float CanPacketDecoder::uint8s_to_float(const std::array<uint8_t, 4>& bytes) {
  float value;
  std::memcpy(&value, bytes.data(), sizeof(value));
  return value;
}

uint32_t CanPacketDecoder::uint8s_to_uint32(uint8_t b0, uint8_t b1, uint8_t b2, uint8_t b3) {
  return static_cast<uint32_t>(b0) | (static_cast<uint32_t>(b1) << 8) |
         (static_cast<uint32_t>(b2) << 16) | (static_cast<uint32_t>(b3) << 24);
}

bool CanPacketDecoder::is_in_ranges(int rid) {
  if (rid < 7 || rid > 36) {
    return false;
  }
  return ((0x300003CFu >> (rid - 7)) & 1u) != 0;
}

}  // namespace kestrel::damiao_motor
