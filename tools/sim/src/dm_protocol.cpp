#include "kestrel_sim/dm_protocol.hpp"

#include <cmath>
#include <cstdio>
#include <cstring>
#include <stdexcept>
#include <string>

namespace kestrel::sim {

std::string to_hex(const Payload& payload) {
  std::string s;
  char buf[4];
  for (size_t i = 0; i < payload.size(); ++i) {
    std::snprintf(buf, sizeof buf, i == 0 ? "%02X" : " %02X", payload[i]);
    s += buf;
  }
  return s;
}

std::string to_string(const Frame& frame) {
  char head[32];
  std::snprintf(head, sizeof head, frame.extended ? "0x%08X" : "0x%03X", frame.id);
  std::string s = head;
  s += frame.fd ? " FD[" : " [";
  s += std::to_string(frame.len) + "]";
  char byte[4];
  for (size_t i = 0; i < frame.len && i < frame.data.size(); ++i) {
    std::snprintf(byte, sizeof byte, " %02X", frame.data[i]);
    s += byte;
  }
  if (frame.remote) {
    s += " RTR";
  }
  return s;
}

namespace dm {
namespace {

// p_max, v_max, t_max of the thirteen DM models.
constexpr Limits kTypeLimits[kMotorTypeCount] = {
    {12.5, 50.0, 5.0},   {12.5, 30.0, 10.0},  {12.5, 50.0, 10.0}, {12.5, 8.0, 28.0},
    {12.5, 10.0, 28.0},  {12.5, 45.0, 20.0},  {12.5, 45.0, 40.0}, {12.5, 45.0, 54.0},
    {12.5, 25.0, 200.0}, {12.5, 20.0, 200.0}, {12.5, 280.0, 1.0}, {12.5, 45.0, 10.0},
    {12.5, 45.0, 10.0},
};

double full_scale(int bits) {
  return static_cast<double>((1u << bits) - 1u);
}

uint32_t le32(const Payload& p, size_t at) {
  return static_cast<uint32_t>(p[at]) | static_cast<uint32_t>(p[at + 1]) << 8 |
         static_cast<uint32_t>(p[at + 2]) << 16 | static_cast<uint32_t>(p[at + 3]) << 24;
}

void put_le32(Payload& p, size_t at, uint32_t v) {
  for (size_t i = 0; i < 4; ++i) {
    p[at + i] = static_cast<uint8_t>(v >> (8 * i));
  }
}

uint8_t temperature_byte(double celsius) {
  if (!(celsius > 0.0)) {
    return 0;
  }
  return static_cast<uint8_t>(std::lround(std::min(celsius, 255.0)));
}

}  // namespace

Limits limits_of_type(int type) {
  if (type < 0 || type >= kMotorTypeCount) {
    throw std::out_of_range("DM motor type " + std::to_string(type) + " does not exist");
  }
  return kTypeLimits[type];
}

bool is_fault_code(int code) {
  return code >= kOverVoltage && code <= kOverload;
}

const char* status_text(int code) {
  switch (code) {
    case kDisabled:
      return "Disabled";
    case kEnabled:
      return "Enabled";
    case kOverVoltage:
      return "Over-voltage";
    case kUnderVoltage:
      return "Under-voltage";
    case kOverCurrent:
      return "Over-current";
    case kMosOverTemperature:
      return "MOS over-temperature";
    case kCoilOverTemperature:
      return "Coil over-temperature";
    case kCommunicationLost:
      return "Communication lost";
    case kOverload:
      return "Overload";
    default:
      return "Unknown/Reserved";
  }
}

uint32_t to_fixed(double x, double min, double max, int bits) {
  if (std::isnan(x) || x < min) {
    x = min;
  } else if (x > max) {
    x = max;
  }
  double u = (x - min) / (max - min) * full_scale(bits);
  return static_cast<uint32_t>(u);  // the firmware truncates
}

double from_fixed(uint32_t u, double min, double max, int bits) {
  return min + static_cast<double>(u) / full_scale(bits) * (max - min);
}

CommandByte special_command(const Payload& p) {
  for (size_t i = 0; i < 7; ++i) {
    if (p[i] != 0xFF) {
      return CommandByte::kNone;
    }
  }
  switch (p[7]) {
    case kCmdEnable:
      return CommandByte::kEnable;
    case kCmdDisable:
      return CommandByte::kDisable;
    case kCmdSetZero:
      return CommandByte::kSetZero;
    case kCmdClearError:
      return CommandByte::kClearError;
    default:
      return CommandByte::kNone;
  }
}

MitCommand decode_mit(const Payload& p, const Limits& limits) {
  uint32_t q_u = static_cast<uint32_t>(p[0]) << 8 | p[1];
  uint32_t dq_u = static_cast<uint32_t>(p[2]) << 4 | p[3] >> 4;
  uint32_t kp_u = static_cast<uint32_t>(p[3] & 0x0F) << 8 | p[4];
  uint32_t kd_u = static_cast<uint32_t>(p[5]) << 4 | p[6] >> 4;
  uint32_t tau_u = static_cast<uint32_t>(p[6] & 0x0F) << 8 | p[7];
  MitCommand c;
  c.q = from_fixed(q_u, -limits.p_max, limits.p_max, 16);
  c.dq = from_fixed(dq_u, -limits.v_max, limits.v_max, 12);
  c.kp = from_fixed(kp_u, 0.0, kKpMax, 12);
  c.kd = from_fixed(kd_u, 0.0, kKdMax, 12);
  c.tau = from_fixed(tau_u, -limits.t_max, limits.t_max, 12);
  return c;
}

Payload encode_mit(const MitCommand& c, const Limits& limits) {
  uint32_t q_u = to_fixed(c.q, -limits.p_max, limits.p_max, 16);
  uint32_t dq_u = to_fixed(c.dq, -limits.v_max, limits.v_max, 12);
  uint32_t kp_u = to_fixed(c.kp, 0.0, kKpMax, 12);
  uint32_t kd_u = to_fixed(c.kd, 0.0, kKdMax, 12);
  uint32_t tau_u = to_fixed(c.tau, -limits.t_max, limits.t_max, 12);
  return Payload{static_cast<uint8_t>(q_u >> 8),
                 static_cast<uint8_t>(q_u & 0xFF),
                 static_cast<uint8_t>(dq_u >> 4),
                 static_cast<uint8_t>((dq_u & 0x0F) << 4 | kp_u >> 8),
                 static_cast<uint8_t>(kp_u & 0xFF),
                 static_cast<uint8_t>(kd_u >> 4),
                 static_cast<uint8_t>((kd_u & 0x0F) << 4 | tau_u >> 8),
                 static_cast<uint8_t>(tau_u & 0xFF)};
}

PosVelCommand decode_pos_vel(const Payload& p) {
  return PosVelCommand{bits_float(le32(p, 0)), bits_float(le32(p, 4))};
}

Payload encode_pos_vel(const PosVelCommand& c) {
  Payload p{};
  put_le32(p, 0, float_bits(c.q));
  put_le32(p, 4, float_bits(c.dq));
  return p;
}

Payload encode_feedback(const Feedback& f, const Limits& limits) {
  uint32_t q_u = to_fixed(f.q, -limits.p_max, limits.p_max, 16);
  uint32_t dq_u = to_fixed(f.dq, -limits.v_max, limits.v_max, 12);
  uint32_t tau_u = to_fixed(f.tau, -limits.t_max, limits.t_max, 12);
  return Payload{static_cast<uint8_t>((f.status & 0x0F) << 4 | (f.send_id & 0x0F)),
                 static_cast<uint8_t>(q_u >> 8),
                 static_cast<uint8_t>(q_u & 0xFF),
                 static_cast<uint8_t>(dq_u >> 4),
                 static_cast<uint8_t>((dq_u & 0x0F) << 4 | tau_u >> 8),
                 static_cast<uint8_t>(tau_u & 0xFF),
                 temperature_byte(f.t_mos),
                 temperature_byte(f.t_rotor)};
}

Feedback decode_feedback(const Payload& p, const Limits& limits) {
  Feedback f;
  f.status = p[0] >> 4;
  f.send_id = p[0] & 0x0F;
  f.q = from_fixed(static_cast<uint32_t>(p[1]) << 8 | p[2], -limits.p_max, limits.p_max, 16);
  f.dq = from_fixed(static_cast<uint32_t>(p[3]) << 4 | p[4] >> 4, -limits.v_max, limits.v_max, 12);
  f.tau =
      from_fixed(static_cast<uint32_t>(p[4] & 0x0F) << 8 | p[5], -limits.t_max, limits.t_max, 12);
  f.t_mos = p[6];
  f.t_rotor = p[7];
  return f;
}

ParamFrame decode_param(const Payload& p) {
  return ParamFrame{static_cast<uint16_t>(p[0] | p[1] << 8), p[2], p[3], le32(p, 4)};
}

Payload encode_param(const ParamFrame& f) {
  Payload p{static_cast<uint8_t>(f.motor_id & 0xFF), static_cast<uint8_t>(f.motor_id >> 8),
            f.command, f.rid};
  put_le32(p, 4, f.value);
  return p;
}

uint32_t float_bits(float f) {
  uint32_t u;
  std::memcpy(&u, &f, sizeof u);
  return u;
}

float bits_float(uint32_t u) {
  float f;
  std::memcpy(&f, &u, sizeof f);
  return f;
}

}  // namespace dm
}  // namespace kestrel::sim
