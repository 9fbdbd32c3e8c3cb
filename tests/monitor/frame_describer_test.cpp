// The bus monitor's decoding: frames built by the library's own encoder (and replies as the
// motors send them) come back as the exact text a user reads.
#include <gtest/gtest.h>

#include <sstream>
#include <tuple>

#include "candump_log.hpp"
#include "dm_frame_describer.hpp"
#include "kestrel/damiao_motor/dm_motor_codec.hpp"

namespace {

namespace dm = kestrel::damiao_motor;
namespace km = kestrel::monitor;
using E = dm::CanPacketEncoder;
using D = km::Direction;

km::MonitoredFrame frame_of(const dm::CANPacket& p) {
  km::MonitoredFrame f;
  f.id = p.can_id;
  f.data = p.data;
  return f;
}

TEST(Describer, EveryFrameKindReadsAsItsExactText) {
  const dm::Motor joint1{dm::MotorType::DM_V8_T28, 0x01, 0x11};
  const dm::Motor joint5{dm::MotorType::DM_V30_T10, 0x05, 0x15};
  const dm::Motor gripper{dm::MotorType::DM_V30_T10, 0x07, 0x17};
  const auto to = D::to_motor;
  const auto from = D::from_motor;
  // {a frame built by the encoder or as a motor sends it, its text, its direction}
  const std::tuple<dm::CANPacket, const char*, D> rows[] = {
      {E::create_enable_command(joint1), "joint 1 (id 1) enable", to},
      {E::create_disable_command(joint5), "joint 5 (id 5) disable", to},
      {E::create_set_zero_command(gripper), "gripper (id 7) set zero position", to},
      {E::create_clrErr_command(joint1), "joint 1 (id 1) clear error", to},
      // The codec truncates onto its grid (16 bits for q, 12 for the rest); joint 1 scales by
      // 12.5 rad, 8 rad/s, 28 N·m, joint 5 by 12.5 rad, 30 rad/s, 10 N·m; range ends are exact.
      {E::create_mit_control_command(joint1, dm::MITParam{150, 5, 0.5, 0, 0}),
       "joint 1 (id 1) MIT q=+0.4999 rad dq=-0.002 rad/s kp=149.94 kd=5.000 tau=-0.007 N·m", to},
      {E::create_mit_control_command(joint5, dm::MITParam{0, 0, -12.5, 30, -10}),
       "joint 5 (id 5) MIT q=-12.5000 rad dq=+30.000 rad/s kp=0.00 kd=0.000 tau=-10.000 N·m", to},
      {E::create_pos_vel_control_command(joint5, dm::POS_VELParam{1.25f, -0.5f}),
       "joint 5 (id 5) position-velocity p=+1.2500 rad v=-0.500 rad/s", to},
      {E::create_refresh_command(joint5), "joint 5 (id 5) refresh (asks for a feedback frame)", to},
      {E::create_query_param_command(joint1, 27), "joint 1 (id 1) read register 27 KP_APR", to},
      {E::create_write_param_command(joint1, 4, 8.5f), "joint 1 (id 1) write register 4 ACC = 8.5",
       to},
      {E::create_param_write_RID_command(gripper, 2),
       "gripper (id 7) write register 10 CTRL_MODE = 2", to},
      {{0x7FF, {0x09, 0x00, 0x33, 0x0A}}, "id 9 (not in the table) read register 10 CTRL_MODE", to},
      {{0x7FF, {0x01, 0x00}}, "parameter frame, too short (2 bytes)", to},
      // Register replies: id, command, register, little-endian value.
      {{0x11, {0x01, 0x00, 0x33, 0x0A, 0x01, 0x00, 0x00, 0x00}},
       "joint 1 (id 1) register 10 CTRL_MODE = 1",
       from},
      {{0x15, {0x05, 0x00, 0x55, 0x04, 0x00, 0x00, 0x08, 0x41}},
       "joint 5 (id 5) wrote register 4 ACC = 8.5",
       from},
      // Feedback: status 1 (enabled) and id 1, q = 0x8000 (0 rad), dq and tau at mid-scale,
      // 33/30 °C; then status 14, a fault, with its text.
      {{0x11, {0x11, 0x80, 0x00, 0x80, 0x08, 0x00, 0x21, 0x1E}},
       "joint 1 (id 1) feedback Enabled (1) q=+0.0002 rad dq=+0.002 rad/s tau=+0.007 N·m "
       "T_mos=33°C T_rotor=30°C",
       from},
      {{0x17, {0xE7, 0x80, 0x00, 0x80, 0x08, 0x00, 0x21, 0x1E}},
       "gripper (id 7) feedback Overload (14) q=+0.0002 rad dq=+0.007 rad/s tau=+0.002 N·m "
       "T_mos=33°C T_rotor=30°C",
       from},
      {{0x11, {0x11, 0x80}}, "joint 1 (id 1) reply too short (2 bytes): 11 80", from},
      {{0x321, {0xDE, 0xAD}}, "unknown id=0x321 [2] DE AD", D::unknown},
  };
  const km::DmFrameDescriber describer;
  for (const auto& [frame, text, direction] : rows) {
    SCOPED_TRACE(text);
    EXPECT_EQ(describer.describe(frame_of(frame)), text);
    EXPECT_EQ(describer.direction(frame_of(frame)), direction);
  }
  EXPECT_EQ(std::get<0>(rows[6]).can_id, 0x105u);  // position-velocity frames go to 0x100 + id
  EXPECT_EQ(describer.motor_of(frame_of(E::create_query_param_command(gripper, 27))), 6);
  km::MonitoredFrame error = frame_of({0x004, {0x00, 0x10}});
  error.error = true;
  EXPECT_EQ(describer.describe(error), "error frame id=0x004 data: 00 10");
  EXPECT_EQ(km::register_name(99), "reg99");
}

// candump -L lines as can-utils writes them, and what the monitor makes of them.
TEST(CandumpLog, LinesBecomeFramesOrAreRefusedByName) {
  // {line, the frame: identifier, flags (Extended, Fd, Rtr, Error) and payload}
  const std::pair<const char*, const char*> frames[] = {
      {"(1795431274.526293) vcan0 001#FFFFFFFFFFFFFFFC", "0x1 - FF FF FF FF FF FF FF FC"},
      {"(0.5) can0 7FF##1010033", "0x7ff F 01 00 33"},
      {"(0.5) can0 12345678#00", "0x12345678 E 00"},
      {"(0.5) can0 20000004#0010", "0x4 X 00 10"},
      {"(0.5) can0 123#R", "0x123 R "},
      {"(0.5) can0 123#", "0x123 - "},
  };
  for (const auto& [line, expected] : frames) {
    SCOPED_TRACE(line);
    std::string error;
    const auto logged = km::parse_candump_line(line, error);
    ASSERT_TRUE(logged.has_value()) << error;
    const km::MonitoredFrame& f = logged->frame;
    std::ostringstream seen;
    seen << "0x" << std::hex << f.id << ' ' << (f.extended ? "E" : "") << (f.fd ? "F" : "")
         << (f.rtr ? "R" : "") << (f.error ? "X" : "")
         << (f.extended || f.fd || f.rtr || f.error ? "" : "-") << ' ' << km::hex_bytes(f.data);
    EXPECT_EQ(seen.str(), expected);
  }
  // {line, start of the refusal}; some found by fuzzing (corpus/fuzz_candump_line/regression-*).
  const std::pair<const char*, const char*> refusals[] = {
      {"0.5 can0 123#00", "not a candump log line"},
      {"(x) can0 123#00", "bad timestamp"},
      {"(0.5) can0 1234#00", "identifier must be 3 or 8"},
      {"(0.5) can0 A23#00", "standard identifier above 7FF"},
      {"(nan) can0 123#00", "bad timestamp"},
      {"(0.5) can0 123#0", "payload must be whole bytes"},
      {"(0.5) can0 123#000000000000000000", "payload must be whole bytes, at most 8"},
      {"(0.5) can0 123##", "CAN FD frame without"},
      {"(0.5) can0 123#GG", "payload is not hexadecimal"},
  };
  for (const auto& [line, refusal] : refusals) {
    SCOPED_TRACE(line);
    std::string error;
    EXPECT_FALSE(km::parse_candump_line(line, error).has_value());
    EXPECT_EQ(error.rfind(refusal, 0), 0u) << error;
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
