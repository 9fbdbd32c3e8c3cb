// Byte-exact tests of the DM protocol codec and the motor model. Reference vectors were computed
// independently of this code (by hand and in a separate script), not by running the encoder.
#include "kestrel/damiao_motor/dm_motor_codec.hpp"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>
#include <tuple>

#include "kestrel/damiao_motor/dm_motor_control.hpp"
#include "support/refusal.hpp"
#include "support/stderr_capture.hpp"

namespace dm = kestrel::damiao_motor;
using Bytes = std::vector<uint8_t>;
using E = dm::CanPacketEncoder;
using D = dm::CanPacketDecoder;

namespace {

using kestrel::testing::capture_stderr;
using kestrel::testing::refusal_of;

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const float kNaNf = std::numeric_limits<float>::quiet_NaN();
const float kInff = std::numeric_limits<float>::infinity();

// Bytes written as hexadecimal pairs, "8A 3C ...".
Bytes hex(const std::string& text) {
  Bytes bytes;
  for (size_t i = 0; i + 1 < text.size(); i += 3) {
    bytes.push_back(static_cast<uint8_t>(std::stoi(text.substr(i, 2), nullptr, 16)));
  }
  return bytes;
}

// A packet as candump prints a frame: "7FF#05 01 33 04 00 00 00 00".
std::string text(uint32_t id, const Bytes& data) {
  char out[4 + 3 * 64] = {};
  int at = std::snprintf(out, sizeof(out), "%03X#", id);
  for (size_t i = 0; i < data.size(); ++i) {
    at += std::snprintf(out + at, sizeof(out) - at, i == 0 ? "%02X" : " %02X", data[i]);
  }
  return out;
}

std::string text(const dm::CANPacket& packet) {
  return text(packet.can_id, packet.data);
}

}  // namespace

// Scaling truncates (0.1 of the kp range is 409.5 steps) and clamps; NaN falls to the bottom.
TEST(FixedPoint, EncodesByTruncationClampingBothEndsAndDecodesWithOneFusedMultiplyAdd) {
  const struct {
    const char* name;
    double x, min, max;
    int bits;
    unsigned expected;
  } encodes[] = {
      {"top", 12.5, -12.5, 12.5, 16, 65535},    {"above", 100.0, -12.5, 12.5, 16, 65535},
      {"below", -100.0, -12.5, 12.5, 16, 0},    {"bottom", -12.5, -12.5, 12.5, 16, 0},
      {"truncated", 50.0, 0.0, 500.0, 12, 409}, {"NaN", kNaN, -12.5, 12.5, 16, 0},
  };
  for (const auto& row : encodes) {
    EXPECT_EQ(E::double_to_uint(row.x, row.min, row.max, row.bits), row.expected) << row.name;
  }
  // The middle code of a 16-bit field is not zero: the scale has an odd number of steps.
  EXPECT_EQ(D::uint_to_double(32767, -12.5, 12.5, 16), -0.0001907377737087046);
  EXPECT_EQ(D::uint_to_double(32768, -12.5, 12.5, 16), 0.0001907377737087046);
  EXPECT_EQ(D::uint_to_double(0, -30.0, 30.0, 12), -30.0);
  EXPECT_EQ(D::uint_to_double(4095, -30.0, 30.0, 12), 30.0);
}

// One-byte commands go to the command id, position-velocity to id + 0x100 as two little-endian
// floats, MIT fields most significant nibble first (clamped beyond their range: kp 600 is 4095).
// Register frames go to 0x7FF with the motor's id in the payload; refresh carries only its low
// byte, and only the low 8 bits of the mode and of the register id are kept.
TEST(Encoder, FramesByteExact) {
  const dm::Motor m(dm::MotorType::DM_V8_T28, 0x01, 0x11);
  const dm::Motor joint(dm::MotorType::DM_V8_T28, 0x02, 0x12);
  const dm::Motor wrist(dm::MotorType::DM_V30_T10, 0x105, 0x115);
  const dm::MITParam mit{50.0, 1.0, 1.0, 0.5, 2.0}, clamped{600.0, 10.0, -20.0, -100.0, 100.0};
  const dm::POS_VELParam pos_vel{10.0f, -1.5f};
  const auto type = wrist.get_motor_type();
  const dm::Motor& w = wrist;
  const struct {
    const char* name;
    std::string frame, expected;
  } rows[] = {
      {"enable", text(E::create_enable_command(m)), "001#FF FF FF FF FF FF FF FC"},
      {"disable", text(E::create_disable_command(m)), "001#FF FF FF FF FF FF FF FD"},
      {"set zero", text(E::create_set_zero_command(m)), "001#FF FF FF FF FF FF FF FE"},
      {"clear error", text(E::create_clrErr_command(m)), "001#FF FF FF FF FF FF FF FB"},
      {"MIT", text(E::create_mit_control_command(joint, mit)), "002#8A 3C 87 F1 99 33 38 91"},
      {"MIT clamped", text(0, E::pack_mit_control_data(type, clamped)),
       "000#00 00 00 0F FF FF FF FF"},
      {"pos-vel", text(E::create_pos_vel_control_command(m, pos_vel)),
       "101#00 00 20 41 00 00 C0 BF"},
      {"refresh", text(E::create_refresh_command(w)), "7FF#05 00 CC 00 00 00 00 00"},
      {"query", text(E::create_query_param_command(w, 4)), "7FF#05 01 33 04 00 00 00 00"},
      {"integer write", text(E::create_write_param_command(w, 9, 1000u)),
       "7FF#05 01 55 09 E8 03 00 00"},
      {"float write", text(E::create_write_param_command(w, 4, 10.0f)),
       "7FF#05 01 55 04 00 00 20 41"},
      {"mode", text(E::create_param_write_RID_command(w, 2)), "7FF#05 01 55 0A 02 00 00 00"},
      {"mode, wide values", text(0, E::pack_switch_control_mode_data(0x12345, 0x1FF)),
       "000#45 23 55 0A FF 00 00 00"},
      {"query, wide register", text(0, E::pack_query_param_data(0x01, 0x11B)),
       "000#01 00 33 1B 00 00 00 00"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(row.frame, row.expected) << row.name;
  }
}

// The fixed-point fields would turn NaN into the bottom of the range (a real target of -p_max),
// the float fields would carry it to the motor: every command encoder refuses it. An unknown
// motor type would scale from memory past the limit table.
TEST(Encoder, NonFiniteFieldsAndUnknownMotorTypesAreRefused) {
  const dm::Motor m(dm::MotorType::DM_V30_T10, 0x05, 0x15);
  const auto type = m.get_motor_type();
  const dm::MITParam nan_kp{kNaN, 1.0, 0.0, 0.0, 0.0}, inf_kd{10.0, kInf, 0.0, 0.0, 0.0},
      nan_q{0, 0, kNaN, 0, 0}, ninf_dq{0.0, 0.0, 0.5, -kInf, 0.0}, inf_tau{0, 0, 0, 0, kInf};
  const dm::POS_VELParam nan_pos{kNaNf, 1.0f}, ninf_vel{0.5f, -kInff};
  auto mit = [&](const dm::MITParam& p) { E::create_mit_control_command(m, p); };
  auto bad = [](int type) { return static_cast<dm::MotorType>(type); };
  const struct {
    const char* name;
    std::function<void()> call;
    const char* message;
  } rows[] = {
      {"MIT kp NaN", [&] { mit(nan_kp); }, "MIT command: kp must be finite, got nan"},
      {"MIT kd infinite", [&] { mit(inf_kd); }, "MIT command: kd must be finite, got inf"},
      {"MIT q NaN, packed", [&] { E::pack_mit_control_data(type, nan_q); },
       "MIT command: q must be finite, got nan"},
      {"MIT dq -inf", [&] { mit(ninf_dq); }, "MIT command: dq must be finite, got -inf"},
      {"MIT tau infinite", [&] { mit(inf_tau); }, "MIT command: tau must be finite, got inf"},
      {"position-velocity q NaN", [&] { E::create_pos_vel_control_command(m, nan_pos); },
       "position-velocity command: q must be finite, got nan"},
      {"position-velocity dq -inf, packed", [&] { E::pack_posvel_control_data({}, ninf_vel); },
       "position-velocity command: dq must be finite, got -inf"},
      {"float register NaN", [&] { E::create_write_param_command(m, 4, kNaNf); },
       "register write: register 4 value must be finite, got nan"},
      {"motor of type 200", [&] { dm::Motor(bad(200), 1, 0x11); }, "Invalid motor type: 200"},
      {"limits, type 13", [&] { dm::Motor::get_limit_param(bad(13)); }, "Invalid motor type: 13"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(refusal_of(row.call), row.message) << row.name;
  }
}

// Feedback: status nibble and id, then 16-bit position, 12-bit velocity and torque, unsigned
// MOS and rotor temperatures; bytes beyond the eighth are ignored.
TEST(Decoder, FeedbackFieldsAndScales) {
  const dm::Motor m(dm::MotorType::DM_V8_T28, 0x01, 0x11);
  auto decoded = [&](const std::string& data) {
    const auto s = D::parse_motor_state_data(m, hex(data));
    return std::make_tuple(s.valid, s.feedback_id, s.error_code, s.position, s.velocity, s.torque,
                           s.t_mos, s.t_rotor);
  };
  EXPECT_EQ(decoded("11 80 00 80 08 00 1F 1D"),  // the middle of every range
            std::make_tuple(true, 1, 1, 0.0001907377737087046, 0.0019536019536019467,
                            0.006837606837606813, 31, 29));
  EXPECT_EQ(decoded("D3 FF FF 00 0F FF FF 00 AA"),  // extremes, nine bytes
            std::make_tuple(true, 3, 13, 12.5, -8.0, 28.0, 255, 0));
}

// Registers 7-10, 13-16, 35 and 36 hold integers (all 32 bits, even when the bytes are those of
// a float), the others floats. A short reply is dropped silently.
TEST(Decoder, ParameterRepliesByRegisterKind) {
  std::vector<int> integer_registers;
  for (int rid = -5; rid < 300; ++rid) {
    if (D::is_in_ranges(rid)) {
      integer_registers.push_back(rid);
    }
  }
  EXPECT_EQ(integer_registers, (std::vector<int>{7, 8, 9, 10, 13, 14, 15, 16, 35, 36}));
  const struct {
    const char* name;
    std::string data;
    bool valid;
    int rid, command;
    double value;
  } rows[] = {
      {"integer register", "01 00 33 09 E8 03 00 00", true, 9, 0x33, 1000.0},
      {"float register", "01 00 33 04 00 00 20 41", true, 4, 0x33, 10.0},
      {"write answer", "01 00 55 1B 6D E7 FB 3D", true, 27, 0x55, static_cast<double>(0.123f)},
      {"integer with float bytes", "01 00 33 24 FF FF FF FF", true, 36, 0x33, 4294967295.0},
      {"short", "01 00 33 04 00 00 00", false, 0, 0, kNaN},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.name);
    dm::ParamResult r;
    EXPECT_EQ(capture_stderr([&] { r = D::parse_motor_param_data(hex(row.data)); }), "");
    EXPECT_EQ(std::make_tuple(r.valid, r.rid, static_cast<int>(r.command)),
              std::make_tuple(row.valid, row.rid, row.command));
    EXPECT_THAT(r.value, ::testing::NanSensitiveDoubleNear(row.value, 0.0));  // exact
  }
}

// The limit table scales every field: a few types' limits, each row of its own type.
TEST(Motor, LimitTable) {
  for (const auto& [type, limits] : std::vector<std::pair<int, std::array<double, 3>>>{
           {3, {12.5, 8.0, 28.0}}, {8, {12.5, 25.0, 200.0}}, {12, {12.5, 45.0, 10.0}}}) {
    const auto l = dm::Motor::get_limit_param(static_cast<dm::MotorType>(type));
    EXPECT_EQ((std::array<double, 3>{l.p_max, l.v_max, l.t_max}), limits) << type;
  }
}
