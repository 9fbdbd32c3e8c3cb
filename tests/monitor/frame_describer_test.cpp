// The bus monitor's decoding: frames built by the library's own encoder (and replies as the
// motors send them) come back as the exact text a user reads.
#include <gtest/gtest.h>

#include "candump_log.hpp"
#include "dm_frame_describer.hpp"
#include "kestrel/damiao_motor/dm_motor_codec.hpp"

namespace {

namespace dm = kestrel::damiao_motor;
namespace km = kestrel::monitor;

km::MonitoredFrame frame_of(const dm::CANPacket& p) {
  km::MonitoredFrame f;
  f.id = p.can_id;
  f.data = p.data;
  return f;
}

km::MonitoredFrame frame_of(uint32_t id, std::vector<uint8_t> data) {
  km::MonitoredFrame f;
  f.id = id;
  f.data = std::move(data);
  return f;
}

class Describer : public ::testing::Test {
 protected:
  km::DmFrameDescriber describer;
  dm::Motor joint1{dm::MotorType::DM_V8_T28, 0x01, 0x11};
  dm::Motor joint5{dm::MotorType::DM_V30_T10, 0x05, 0x15};
  dm::Motor gripper{dm::MotorType::DM_V30_T10, 0x07, 0x17};
};

TEST_F(Describer, OneByteCommands) {
  using E = dm::CanPacketEncoder;
  EXPECT_EQ(describer.describe(frame_of(E::create_enable_command(joint1))),
            "joint 1 (id 1) enable");
  EXPECT_EQ(describer.describe(frame_of(E::create_disable_command(joint5))),
            "joint 5 (id 5) disable");
  EXPECT_EQ(describer.describe(frame_of(E::create_set_zero_command(gripper))),
            "gripper (id 7) set zero position");
  EXPECT_EQ(describer.describe(frame_of(E::create_clrErr_command(joint1))),
            "joint 1 (id 1) clear error");
  EXPECT_EQ(describer.direction(frame_of(E::create_enable_command(joint1))),
            km::Direction::to_motor);
}

TEST_F(Describer, MitFieldsInPhysicalUnitsWithTheMotorsScale) {
  // The codec truncates onto its grid (16 bits for q, 12 for the rest); joint 1 scales by
  // 12.5 rad, 8 rad/s, 28 N·m, joint 5 by 12.5 rad, 30 rad/s, 10 N·m; the range ends are exact.
  dm::MITParam p;
  p.q = 0.5;
  p.dq = 0.0;
  p.kp = 150.0;
  p.kd = 5.0;
  p.tau = 0.0;
  EXPECT_EQ(
      describer.describe(frame_of(dm::CanPacketEncoder::create_mit_control_command(joint1, p))),
      "joint 1 (id 1) MIT q=+0.4999 rad dq=-0.002 rad/s kp=149.94 kd=5.000 tau=-0.007 N·m");
  p.q = -12.5;
  p.dq = 30.0;
  p.kp = 0.0;
  p.kd = 0.0;
  p.tau = -10.0;
  EXPECT_EQ(
      describer.describe(frame_of(dm::CanPacketEncoder::create_mit_control_command(joint5, p))),
      "joint 5 (id 5) MIT q=-12.5000 rad dq=+30.000 rad/s kp=0.00 kd=0.000 tau=-10.000 N·m");
}

TEST_F(Describer, PositionVelocityFrames) {
  dm::POS_VELParam p;
  p.q = 1.25f;
  p.dq = -0.5f;
  const auto frame = frame_of(dm::CanPacketEncoder::create_pos_vel_control_command(joint5, p));
  EXPECT_EQ(frame.id, 0x105u);
  EXPECT_EQ(describer.describe(frame),
            "joint 5 (id 5) position-velocity p=+1.2500 rad v=-0.500 rad/s");
}

TEST_F(Describer, RegisterTrafficOnTheParameterIdentifier) {
  using E = dm::CanPacketEncoder;
  EXPECT_EQ(describer.describe(frame_of(E::create_refresh_command(joint5))),
            "joint 5 (id 5) refresh (asks for a feedback frame)");
  EXPECT_EQ(describer.describe(frame_of(E::create_query_param_command(joint1, 27))),
            "joint 1 (id 1) read register 27 KP_APR");
  EXPECT_EQ(describer.describe(frame_of(E::create_write_param_command(joint1, 4, 8.5f))),
            "joint 1 (id 1) write register 4 ACC = 8.5");
  EXPECT_EQ(describer.describe(frame_of(E::create_param_write_RID_command(gripper, 2))),
            "gripper (id 7) write register 10 CTRL_MODE = 2");
  EXPECT_EQ(describer.describe(frame_of(0x7FF, {0x09, 0x00, 0x33, 0x0A})),
            "id 9 (not in the table) read register 10 CTRL_MODE");
  EXPECT_EQ(describer.describe(frame_of(0x7FF, {0x01, 0x00})),
            "parameter frame, too short (2 bytes)");
  EXPECT_EQ(describer.motor_of(frame_of(E::create_query_param_command(gripper, 27))), 6);
}

TEST_F(Describer, RepliesAreFeedbackOrRegisterValues) {
  // Register reply: id, command, register, little-endian value.
  EXPECT_EQ(describer.describe(frame_of(0x11, {0x01, 0x00, 0x33, 0x0A, 0x01, 0x00, 0x00, 0x00})),
            "joint 1 (id 1) register 10 CTRL_MODE = 1");
  EXPECT_EQ(describer.describe(frame_of(0x15, {0x05, 0x00, 0x55, 0x04, 0x00, 0x00, 0x08, 0x41})),
            "joint 5 (id 5) wrote register 4 ACC = 8.5");
  // Feedback: status 1 (enabled) and id 1, q = 0x8000 (0 rad), dq and tau at mid-scale, 33/30 °C.
  const auto feedback = frame_of(0x11, {0x11, 0x80, 0x00, 0x80, 0x08, 0x00, 0x21, 0x1E});
  EXPECT_EQ(describer.describe(feedback),
            "joint 1 (id 1) feedback Enabled (1) q=+0.0002 rad dq=+0.002 rad/s tau=+0.007 N·m "
            "T_mos=33°C T_rotor=30°C");
  EXPECT_EQ(describer.direction(feedback), km::Direction::from_motor);
  // Fault codes print their text.
  const auto fault = frame_of(0x17, {0xE7, 0x80, 0x00, 0x80, 0x08, 0x00, 0x21, 0x1E});
  EXPECT_NE(describer.describe(fault).find("feedback Overload (14)"), std::string::npos)
      << describer.describe(fault);
  EXPECT_EQ(describer.describe(frame_of(0x11, {0x11, 0x80})),
            "joint 1 (id 1) reply too short (2 bytes): 11 80");
}

TEST_F(Describer, EverythingElseIsShownRaw) {
  EXPECT_EQ(describer.describe(frame_of(0x321, {0xDE, 0xAD})), "unknown id=0x321 [2] DE AD");
  km::MonitoredFrame error;
  error.error = true;
  error.id = 0x004;
  error.data = {0x00, 0x10};
  EXPECT_EQ(describer.describe(error), "error frame id=0x004 data: 00 10");
  EXPECT_EQ(describer.direction(frame_of(0x321, {})), km::Direction::unknown);
  EXPECT_EQ(km::register_name(99), "reg99");
  EXPECT_TRUE(km::register_is_integer(7));
  EXPECT_FALSE(km::register_is_integer(21));
}

// candump -L lines as can-utils writes them, and what the monitor makes of them.
TEST(CandumpLog, LinesBecomeFramesOrAreRefusedByName) {
  struct Row {
    const char* line;
    uint32_t id;
    bool extended, fd, rtr, error;
    std::vector<uint8_t> data;
    const char* refusal;  // start of the error text; nullptr when the line parses
  };
  const Row rows[] = {
      {"(1795431274.526293) vcan0 001#FFFFFFFFFFFFFFFC",
       0x001,
       false,
       false,
       false,
       false,
       {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFC},
       nullptr},
      {"(0.5) can0 7FF##1010033", 0x7FF, false, true, false, false, {0x01, 0x00, 0x33}, nullptr},
      {"(0.5) can0 12345678#00", 0x12345678, true, false, false, false, {0x00}, nullptr},
      {"(0.5) can0 20000004#0010", 0x004, false, false, false, true, {0x00, 0x10}, nullptr},
      {"(0.5) can0 123#R", 0x123, false, false, true, false, {}, nullptr},
      {"(0.5) can0 123#", 0x123, false, false, false, false, {}, nullptr},
      {"0.5 can0 123#00", 0, false, false, false, false, {}, "not a candump log line"},
      {"(x) can0 123#00", 0, false, false, false, false, {}, "bad timestamp"},
      {"(0.5) can0 1234#00", 0, false, false, false, false, {}, "identifier must be 3 or 8"},
      // Found by fuzzing (tests/fuzz/corpus/fuzz_candump_line/regression-*).
      {"(0.5) can0 A23#00", 0, false, false, false, false, {}, "standard identifier above 7FF"},
      {"(nan) can0 123#00", 0, false, false, false, false, {}, "bad timestamp"},
      {"(inf) can0 123#00", 0, false, false, false, false, {}, "bad timestamp"},
      {"(0.5) can0 123#0", 0, false, false, false, false, {}, "payload must be whole bytes"},
      {"(0.5) can0 123#000000000000000000",
       0,
       false,
       false,
       false,
       false,
       {},
       "payload must be whole bytes, at most 8"},
      {"(0.5) can0 123##", 0, false, false, false, false, {}, "CAN FD frame without"},
      {"(0.5) can0 123#GG", 0, false, false, false, false, {}, "payload is not hexadecimal"},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(row.line);
    std::string error;
    const auto logged = km::parse_candump_line(row.line, error);
    if (row.refusal != nullptr) {
      EXPECT_FALSE(logged.has_value());
      EXPECT_EQ(error.rfind(row.refusal, 0), 0u) << error;
      continue;
    }
    ASSERT_TRUE(logged.has_value()) << error;
    EXPECT_EQ(logged->frame.id, row.id);
    EXPECT_EQ(logged->frame.extended, row.extended);
    EXPECT_EQ(logged->frame.fd, row.fd);
    EXPECT_EQ(logged->frame.rtr, row.rtr);
    EXPECT_EQ(logged->frame.error, row.error);
    EXPECT_EQ(logged->frame.data, row.data);
  }
  std::string error;
  EXPECT_FALSE(km::parse_candump_line("", error).has_value());
  EXPECT_TRUE(error.empty());
  const auto fd = km::parse_candump_line("(1.25) vcan0fd 011##5117FFF7FF7FF211E", error);
  ASSERT_TRUE(fd.has_value());
  EXPECT_EQ(fd->timestamp, 1.25);
  EXPECT_EQ(fd->interface, "vcan0fd");
  EXPECT_EQ(fd->fd_flags, 5u);
}

}  // namespace
