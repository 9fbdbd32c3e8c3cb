// Byte-exact tests of the DM protocol codec. Reference vectors were computed independently of
// this code (by hand and in a separate script), not by running the encoder.
#include "kestrel/damiao_motor/dm_motor_codec.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <limits>
#include <random>
#include <stdexcept>
#include <string>

#include "support/refusal.hpp"
#include "support/stderr_capture.hpp"

namespace dm = kestrel::damiao_motor;
using Bytes = std::vector<uint8_t>;

namespace {

using kestrel::testing::refusal_of;

dm::Motor motor(dm::MotorType type, unsigned send_id, unsigned recv_id) {
  return dm::Motor(type, send_id, recv_id);
}

const double kNaN = std::numeric_limits<double>::quiet_NaN();
const double kInf = std::numeric_limits<double>::infinity();
const float kNaNf = std::numeric_limits<float>::quiet_NaN();
const float kInff = std::numeric_limits<float>::infinity();

}  // namespace

TEST(DoubleToUint, ScalesByTruncationAndClampsBothEnds) {
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(0.0, -12.5, 12.5, 16), 32767u);
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(12.5, -12.5, 12.5, 16), 65535u);
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(100.0, -12.5, 12.5, 16), 65535u);
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(-100.0, -12.5, 12.5, 16), 0u);
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(-12.5, -12.5, 12.5, 16), 0u);
  // 0.1 of the kp range is 409.5 steps: truncated, not rounded.
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(50.0, 0.0, 500.0, 12), 409u);
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(600.0, 0.0, 500.0, 12), 4095u);
}

TEST(DoubleToUint, NaNAndInfinityFallToTheEnds) {
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(kNaN, -12.5, 12.5, 16), 0u);
  EXPECT_EQ(dm::CanPacketEncoder::limit_min_max(kNaN, -1.0, 1.0), -1.0);
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(INFINITY, -30.0, 30.0, 12), 4095u);
  EXPECT_EQ(dm::CanPacketEncoder::double_to_uint(-INFINITY, -30.0, 30.0, 12), 0u);
}

TEST(UintToDouble, IsOneFusedMultiplyAdd) {
  // The middle code of a 16-bit field is not zero: the scale has an odd number of steps.
  EXPECT_EQ(dm::CanPacketDecoder::uint_to_double(32767, -12.5, 12.5, 16), -0.0001907377737087046);
  EXPECT_EQ(dm::CanPacketDecoder::uint_to_double(32768, -12.5, 12.5, 16), 0.0001907377737087046);
  EXPECT_EQ(dm::CanPacketDecoder::uint_to_double(2048, -8.0, 8.0, 12), 0.0019536019536019467);
  EXPECT_EQ(dm::CanPacketDecoder::uint_to_double(0, -30.0, 30.0, 12), -30.0);
  EXPECT_EQ(dm::CanPacketDecoder::uint_to_double(4095, -30.0, 30.0, 12), 30.0);
}

TEST(UintToDouble, QuantisationRoundTripLosesLessThanOneStep) {
  std::mt19937 rng(7);
  std::uniform_real_distribution<double> dist(-12.5, 12.5);
  const double step = 25.0 / 65535.0;
  for (int i = 0; i < 20000; ++i) {
    const double x = dist(rng);
    const unsigned u = dm::CanPacketEncoder::double_to_uint(x, -12.5, 12.5, 16);
    const double back =
        dm::CanPacketDecoder::uint_to_double(static_cast<uint16_t>(u), -12.5, 12.5, 16);
    ASSERT_LE(back, x + 1e-12) << x;  // truncation never overshoots
    ASSERT_GT(back, x - step - 1e-12) << x;
  }
}

TEST(Encoder, OneByteCommandsGoToTheCommandId) {
  const auto m = motor(dm::MotorType::DM_V8_T28, 0x01, 0x11);
  const Bytes ff7 = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  auto with = [&](uint8_t last) {
    Bytes b = ff7;
    b.push_back(last);
    return b;
  };
  auto p = dm::CanPacketEncoder::create_enable_command(m);
  EXPECT_EQ(p.can_id, 0x001u);
  EXPECT_EQ(p.data, with(0xFC));
  EXPECT_EQ(dm::CanPacketEncoder::create_disable_command(m).data, with(0xFD));
  EXPECT_EQ(dm::CanPacketEncoder::create_set_zero_command(m).data, with(0xFE));
  EXPECT_EQ(dm::CanPacketEncoder::create_clrErr_command(m).data, with(0xFB));
  EXPECT_EQ(dm::CanPacketEncoder::create_clrErr_command(m).can_id, 0x001u);
}

TEST(Encoder, MitPayloadPacksFieldsMostSignificantNibbleFirst) {
  const auto joint = motor(dm::MotorType::DM_V8_T28, 0x02, 0x12);
  auto p = dm::CanPacketEncoder::create_mit_control_command(joint, {50.0, 1.0, 1.0, 0.5, 2.0});
  EXPECT_EQ(p.can_id, 0x002u);
  EXPECT_EQ(p.data, (Bytes{0x8A, 0x3C, 0x87, 0xF1, 0x99, 0x33, 0x38, 0x91}));

  const auto wrist = motor(dm::MotorType::DM_V30_T10, 0x05, 0x15);
  // Every field beyond its range is clamped: kp 600 encodes as 4095.
  EXPECT_EQ(dm::CanPacketEncoder::pack_mit_control_data(wrist.get_motor_type(),
                                                        {600.0, 10.0, -20.0, -100.0, 100.0}),
            (Bytes{0x00, 0x00, 0x00, 0x0F, 0xFF, 0xFF, 0xFF, 0xFF}));
  EXPECT_EQ(dm::CanPacketEncoder::pack_mit_control_data(wrist.get_motor_type(), {}),
            (Bytes{0x7F, 0xFF, 0x7F, 0xF0, 0x00, 0x00, 0x07, 0xFF}));
}

// The fixed-point fields would turn NaN into the bottom of the range (a real target of -p_max),
// the float fields would carry it to the motor: every command encoder refuses it.
TEST(Encoder, NonFiniteFieldsAndUnknownMotorTypesAreRefused) {
  using E = dm::CanPacketEncoder;
  const auto m = motor(dm::MotorType::DM_V30_T10, 0x05, 0x15);
  const struct {
    const char* name;
    std::function<void()> call;
    const char* message;
  } rows[] = {
      {"MIT kp NaN",
       [&] {
         E::create_mit_control_command(m, {kNaN, 1.0, 0.0, 0.0, 0.0});
       },
       "MIT command: kp must be finite, got nan"},
      {"MIT kd infinite",
       [&] {
         E::create_mit_control_command(m, {10.0, kInf, 0.0, 0.0, 0.0});
       },
       "MIT command: kd must be finite, got inf"},
      {"MIT q NaN",
       [&] {
         E::pack_mit_control_data(m.get_motor_type(), {0, 0, kNaN, 0, 0});
       },
       "MIT command: q must be finite, got nan"},
      {"MIT dq -inf",
       [&] {
         E::create_mit_control_command(m, {0.0, 0.0, 0.5, -kInf, 0.0});
       },
       "MIT command: dq must be finite, got -inf"},
      {"MIT tau infinite",
       [&] {
         E::create_mit_control_command(m, {0.0, 0.0, 0.0, 0.0, kInf});
       },
       "MIT command: tau must be finite, got inf"},
      {"position-velocity q NaN",
       [&] {
         E::create_pos_vel_control_command(m, {kNaNf, 1.0f});
       },
       "position-velocity command: q must be finite, got nan"},
      {"position-velocity dq -inf",
       [&] {
         E::pack_posvel_control_data({}, {0.5f, -kInff});
       },
       "position-velocity command: dq must be finite, got -inf"},
      {"float register NaN", [&] { E::create_write_param_command(m, 4, kNaNf); },
       "register write: register 4 value must be finite, got nan"},
      {"MIT for a type past the limit table",
       [&] { E::pack_mit_control_data(static_cast<dm::MotorType>(13), {}); },
       "Invalid motor type: 13"},
      {"motor of a type past the limit table",
       [&] { dm::Motor(static_cast<dm::MotorType>(200), 1, 0x11); }, "Invalid motor type: 200"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(refusal_of(row.call), row.message) << row.name;
  }
}

TEST(Encoder, PositionVelocityIsTwoLittleEndianFloatsAtIdPlus0x100) {
  const auto m = motor(dm::MotorType::DM_V8_T28, 0x01, 0x11);
  auto p = dm::CanPacketEncoder::create_pos_vel_control_command(m, {10.0f, -1.5f});
  EXPECT_EQ(p.can_id, 0x101u);
  EXPECT_EQ(p.data, (Bytes{0x00, 0x00, 0x20, 0x41, 0x00, 0x00, 0xC0, 0xBF}));
}

TEST(Encoder, ParameterFramesAddressTheMotorInThePayload) {
  const auto m = motor(dm::MotorType::DM_V30_T10, 0x105, 0x115);
  auto refresh = dm::CanPacketEncoder::create_refresh_command(m);
  EXPECT_EQ(refresh.can_id, 0x7FFu);
  // The refresh request carries only the low byte of the id.
  EXPECT_EQ(refresh.data, (Bytes{0x05, 0x00, 0xCC, 0x00, 0x00, 0x00, 0x00, 0x00}));
  auto query = dm::CanPacketEncoder::create_query_param_command(m, 4);
  EXPECT_EQ(query.can_id, 0x7FFu);
  EXPECT_EQ(query.data, (Bytes{0x05, 0x01, 0x33, 0x04, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_EQ(dm::CanPacketEncoder::create_write_param_command(m, 9, 1000u).data,
            (Bytes{0x05, 0x01, 0x55, 0x09, 0xE8, 0x03, 0x00, 0x00}));
  EXPECT_EQ(dm::CanPacketEncoder::create_write_param_command(m, 4, 10.0f).data,
            (Bytes{0x05, 0x01, 0x55, 0x04, 0x00, 0x00, 0x20, 0x41}));
  auto mode = dm::CanPacketEncoder::create_param_write_RID_command(m, 2);
  EXPECT_EQ(mode.can_id, 0x7FFu);
  EXPECT_EQ(mode.data, (Bytes{0x05, 0x01, 0x55, 0x0A, 0x02, 0x00, 0x00, 0x00}));
  // Only the low 8 bits of the mode and of the register id are kept.
  EXPECT_EQ(dm::CanPacketEncoder::pack_switch_control_mode_data(0x12345, 0x1FF),
            (Bytes{0x45, 0x23, 0x55, 0x0A, 0xFF, 0x00, 0x00, 0x00}));
  EXPECT_EQ(dm::CanPacketEncoder::pack_query_param_data(0x01, 0x11B),
            (Bytes{0x01, 0x00, 0x33, 0x1B, 0x00, 0x00, 0x00, 0x00}));
}

TEST(Decoder, FeedbackFieldsAndScales) {
  const auto m = motor(dm::MotorType::DM_V8_T28, 0x01, 0x11);
  const auto s = dm::CanPacketDecoder::parse_motor_state_data(
      m, {0x11, 0x80, 0x00, 0x80, 0x08, 0x00, 0x1F, 0x1D});
  ASSERT_TRUE(s.valid);
  EXPECT_EQ(s.feedback_id, 1);
  EXPECT_EQ(s.error_code, 1);
  EXPECT_EQ(s.position, 0.0001907377737087046);
  EXPECT_EQ(s.velocity, 0.0019536019536019467);
  EXPECT_EQ(s.torque, 0.006837606837606813);
  EXPECT_EQ(s.t_mos, 31);
  EXPECT_EQ(s.t_rotor, 29);

  const auto extremes = dm::CanPacketDecoder::parse_motor_state_data(
      m, {0xD3, 0xFF, 0xFF, 0x00, 0x0F, 0xFF, 0xFF, 0x00, 0xAA});
  ASSERT_TRUE(extremes.valid);  // bytes beyond the eighth are ignored
  EXPECT_EQ(extremes.error_code, 13);
  EXPECT_EQ(extremes.feedback_id, 3);
  EXPECT_EQ(extremes.position, 12.5);
  EXPECT_EQ(extremes.velocity, -8.0);
  EXPECT_EQ(extremes.torque, 28.0);
  EXPECT_EQ(extremes.t_mos, 255);  // unsigned, no offset
}

TEST(Decoder, ShortFeedbackWarnsAndIsInvalid) {
  const auto m = motor(dm::MotorType::DM_V8_T28, 0x01, 0x11);
  dm::StateResult s;
  s.valid = true;
  const std::string err = kestrel::testing::capture_stderr([&] {
    s = dm::CanPacketDecoder::parse_motor_state_data(m, {1, 2, 3, 4, 5, 6, 7});
  });
  EXPECT_EQ(err, "Warning: Skipping motor state data less than 8 bytes\n");
  EXPECT_FALSE(s.valid);
  EXPECT_EQ(s.position, 0.0);
  EXPECT_EQ(s.error_code, 0);
}

TEST(Decoder, ParameterRepliesByRegisterKind) {
  auto r = dm::CanPacketDecoder::parse_motor_param_data({0x01, 0x00, 0x33, 0x09, 0xE8, 0x03, 0, 0});
  EXPECT_TRUE(r.valid);
  EXPECT_EQ(r.rid, 9);
  EXPECT_EQ(r.value, 1000.0);  // integer register
  EXPECT_EQ(r.command, 0x33);
  r = dm::CanPacketDecoder::parse_motor_param_data(
      {0x01, 0x00, 0x33, 0x04, 0x00, 0x00, 0x20, 0x41});
  EXPECT_EQ(r.rid, 4);
  EXPECT_EQ(r.value, 10.0);  // float register
  r = dm::CanPacketDecoder::parse_motor_param_data(
      {0x01, 0x00, 0x55, 0x1B, 0x6D, 0xE7, 0xFB, 0x3D});
  EXPECT_EQ(r.command, 0x55);
  EXPECT_EQ(r.value, static_cast<double>(0.123f));
  // An integer register holding the bytes of a float is read as the integer, all 32 bits.
  r = dm::CanPacketDecoder::parse_motor_param_data(
      {0x01, 0x00, 0x33, 0x24, 0xFF, 0xFF, 0xFF, 0xFF});
  EXPECT_EQ(r.value, 4294967295.0);
}

TEST(Decoder, MalformedParameterReplies) {
  dm::ParamResult r;
  std::string err = kestrel::testing::capture_stderr([&] {
    r = dm::CanPacketDecoder::parse_motor_param_data({1, 0, 0x33, 4, 0, 0, 0});
  });
  EXPECT_EQ(err, "") << "a short reply is dropped silently";
  EXPECT_FALSE(r.valid);
  EXPECT_EQ(r.rid, 0);
  EXPECT_TRUE(std::isnan(r.value));
  err = kestrel::testing::capture_stderr([&] {
    r = dm::CanPacketDecoder::parse_motor_param_data({1, 0, 0xCC, 4, 0, 0, 0, 0});
  });
  EXPECT_EQ(err, "WARNING: INVALID PARAM DATA\n");
  EXPECT_FALSE(r.valid);
  EXPECT_EQ(r.command, 0);
  EXPECT_TRUE(std::isnan(r.value));
}

TEST(Decoder, IntegerRegisterSet) {
  std::vector<int> integer_registers;
  for (int rid = -5; rid < 300; ++rid) {
    if (dm::CanPacketDecoder::is_in_ranges(rid)) {
      integer_registers.push_back(rid);
    }
  }
  EXPECT_EQ(integer_registers, (std::vector<int>{7, 8, 9, 10, 13, 14, 15, 16, 35, 36}));
  EXPECT_EQ(dm::CanPacketDecoder::uint8s_to_uint32(0x78, 0x56, 0x34, 0x12), 0x12345678u);
  EXPECT_EQ(dm::CanPacketDecoder::uint8s_to_float({0x00, 0x00, 0xC0, 0xBF}), -1.5f);
}
