// The simulated motor's side of the DM protocol, frame in -> reply bytes out, without sockets.
// Expected bytes were worked out by hand from the wire layout (and a separate script), not by
// running the simulator.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <random>

#include "kestrel/damiao_motor/dm_motor_codec.hpp"
#include "kestrel_sim/dm_protocol.hpp"
#include "sim_test_support.hpp"

namespace kestrel::sim {
namespace {

using test::command_bytes;
using test::Harness;
using test::kEnable;
using test::text;
using ::testing::DoubleEq;
using ::testing::DoubleNear;
using ::testing::Pointwise;
using namespace std::chrono_literals;
namespace host = kestrel::damiao_motor;

constexpr size_t kJoint2 = 1;  // type 3, id 0x02, feedback 0x12

std::vector<double> fields(const dm::MitCommand& c) {
  return {c.q, c.dq, c.kp, c.kd, c.tau};
}

TEST(MitDecoding, RangeEndsAndNibblePacking) {
  const dm::Limits type3 = dm::limits_of_type(3);
  const std::vector<double> low{-12.5, -8.0, 0.0, 0.0, -28.0}, high{12.5, 8.0, 500.0, 5.0, 28.0};
  EXPECT_THAT(fields(dm::decode_mit(Payload{}, type3)), Pointwise(DoubleEq(), low));
  // 0xFF in the last byte is not one of the special commands: all fields at their maximum.
  EXPECT_THAT(fields(dm::decode_mit(command_bytes(0xFF), type3)), Pointwise(DoubleEq(), high));
  // dq = 0x00A, kp = 0x53C, kd = 0x123, tau = 0x456 share bytes 3 and 6 nibble by nibble; type 1
  // has t_max 10.
  const std::vector<double> mixed{0.000190737, -29.853479853, 163.614163614, 0.355311355,
                                  -4.578754579};
  EXPECT_THAT(fields(dm::decode_mit(Payload{0x80, 0x00, 0x00, 0xA5, 0x3C, 0x12, 0x34, 0x56},
                                    dm::limits_of_type(1))),
              Pointwise(DoubleNear(1e-9), mixed));
}

// The simulator's limit table is the host's: a code means the same value on both sides (a type
// past the host's table would throw).
TEST(MitDecoding, LimitTableIsTheHostsForEveryMotorType) {
  for (int type = 0; type < dm::kMotorTypeCount; ++type) {
    const dm::Limits lim = dm::limits_of_type(type);
    const auto l = host::Motor::get_limit_param(static_cast<host::MotorType>(type));
    EXPECT_EQ(std::make_tuple(lim.p_max, lim.v_max, lim.t_max),
              std::make_tuple(l.p_max, l.v_max, l.t_max))
        << type;
  }
}

TEST(MotorReplies, EachCommandIsAnsweredWithOneFeedbackFrameFromTheMasterId) {
  Harness h;
  // Status 1, id nibble 2, q = 0 -> 0x7FFF, dq and tau = 0 -> 0x7FF, MOS 33 °C, rotor 30 °C.
  EXPECT_EQ(text(h.send(0x02, kEnable)), "0x012 [8] 12 7F FF 7F F7 FF 21 1E");
  h.sim.set_posture({0.0, 1.0});
  EXPECT_EQ(h.reply(0x7FF, {0x02, 0x00, 0xCC}), "12 8A 3C 7F F7 FF 21 1E");
  EXPECT_EQ(h.reply(0x02, command_bytes(0xFE)), "12 7F FF 7F F7 FF 21 1E");  // zeroed
  EXPECT_EQ(h.sim.state(kJoint2).zero_offset, 1.0);
  EXPECT_EQ(h.reply(0x02, command_bytes(0xFD)), "02 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(h.reply(0x02, command_bytes(0xFB)), "02 7F FF 7F F7 FF 21 1E");
  // A disabled motor answers position-velocity frames (MIT frames: in the bus log test) without
  // acting on them.
  EXPECT_EQ(h.reply(0x102, dm::encode_pos_vel({1.0f, 2.0f})), "02 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(h.sim.state(kJoint2).last_pos_vel->q, 1.0f);
  // An FD request is answered with an 8-byte FD frame with bit-rate switch.
  EXPECT_EQ(text(h.send(0x05, kEnable, true)), "0x015 FD[8] 15 7F FF 7F F7 FF 21 1E flags=1");
}

TEST(MotorReplies, FramesForOtherMotorsOrOfTheWrongShapeAreNotAnswered) {
  std::vector<MotorConfig> configs{test::frictionless(1, 0x105)};
  Harness h(configs);
  // The host's refresh carries only the low byte of the id: motor 0x105 does not recognise it.
  EXPECT_FALSE(h.send(0x7FF, {0x05, 0x00, 0xCC}));
  EXPECT_TRUE(h.last.empty());
  EXPECT_EQ(h.reply(0x7FF, {0x05, 0x01, 0xCC}), "05 7F FF 7F F7 FF 21 1E");
  EXPECT_FALSE(h.send(0x06, kEnable));

  Frame short_frame = Frame::with_bytes(0x105, {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFC});
  auto outcome = h.sim.handle_frame(short_frame, h.now);
  ASSERT_EQ(outcome.size(), 1u);
  EXPECT_EQ(outcome[0].command.kind, CommandKind::kMalformed);
  EXPECT_FALSE(outcome[0].reply);
  Frame extended = Frame::classic(0x105, kEnable);
  extended.extended = true;
  EXPECT_TRUE(h.sim.handle_frame(extended, h.now).empty());
  // Unknown parameter commands (0xAA here) get no answer.
  EXPECT_FALSE(h.send(0x7FF, {0x05, 0x01, 0xAA, 0x00}));
  EXPECT_EQ(h.sim.state(0).status, dm::kDisabled);
}

TEST(Registers, ReadsAndWritesKeepIntegerAndFloatRepresentations) {
  Harness h;
  EXPECT_EQ(h.reply(0x7FF, {0x01, 0x00, 0x33, 0x0A}), "01 00 33 0A 01 00 00 00");
  EXPECT_EQ(h.reply(0x7FF, {0x01, 0x00, 0x33, 0x1B}), "01 00 33 1B 00 00 F0 41");
  EXPECT_EQ(h.reply(0x7FF, {0x01, 0x00, 0x33, 0x63}), "01 00 33 63 00 00 00 00");

  // Write ACC 10.0 (a float): acknowledged and stored (an integer is written and read back in
  // SimOnSimbus.ClassicCommandsGetExactRepliesAndAreLoggedInOrder).
  EXPECT_EQ(h.reply(0x7FF, {0x01, 0x00, 0x55, 0x04, 0x00, 0x00, 0x20, 0x41}),
            "01 00 55 04 00 00 20 41");
  EXPECT_DOUBLE_EQ(h.sim.state(0).registers.value(reg::kAcc), 10.0);
  EXPECT_EQ(h.last.front().command.kind, CommandKind::kWriteRegister);
  EXPECT_DOUBLE_EQ(h.last.front().command.value, 10.0);
  // The mode switch writes only the mode byte.
  EXPECT_EQ(h.reply(0x7FF, {0x01, 0x00, 0x55, 0x0A, 0x02}), "01 00 55 0A 02 00 00 00");
  EXPECT_EQ(h.sim.state(0).mode, dm::kModePosVel);
  // Read-only and unknown registers keep their value; the acknowledgement shows it.
  EXPECT_EQ(h.reply(0x7FF, {0x01, 0x00, 0x55, 0x0E, 0x01}), "01 00 55 0E 95 13 00 00");
  EXPECT_EQ(h.reply(0x7FF, {0x01, 0x00, 0x55, 0x63, 0x01}), "01 00 55 63 00 00 00 00");
}

// 10.0002 as a float is D2 00 20 41.
TEST(Registers, ReadBackFaultsChangeTheReplyNotTheStoredValue) {
  Harness h;
  h.sim.motor(0).registers().set_read_back_offset(reg::kAcc, 2e-4);
  h.sim.motor(1).registers().set_read_back_override(reg::kTimeout, 7);
  h.reply(0x7FF, {0x01, 0x00, 0x55, 0x04, 0x00, 0x00, 0x20, 0x41});
  EXPECT_EQ(h.reply(0x7FF, {0x01, 0x00, 0x33, 0x04}), "01 00 33 04 D2 00 20 41");
  EXPECT_EQ(h.reply(0x7FF, {0x02, 0x00, 0x33, 0x09}), "02 00 33 09 07 00 00 00");
  EXPECT_DOUBLE_EQ(h.sim.state(0).registers.value(reg::kAcc), 10.0);
}

TEST(Status, FaultsReplaceTheStatusNibbleAndStopTheTorque) {
  Harness h;
  h.send(0x04, kEnable);
  h.send(0x04, dm::encode_mit({0.0, 0.0, 0.0, 0.0, 5.0}, dm::limits_of_type(1)));
  h.run(0.01);
  EXPECT_NEAR(h.sim.state(3).torque, 5.0, 0.01);

  h.sim.motor(3).inject_fault(dm::kOverVoltage, false);
  h.run(0.01);
  EXPECT_EQ(h.sim.state(3).torque, 0.0);
  EXPECT_EQ(h.status(0x04, kEnable), 0x84);              // enable does not clear it
  EXPECT_EQ(h.status(0x04, command_bytes(0xFB)), 0x04);  // clear error: disabled
  EXPECT_EQ(h.status(0x04, kEnable), 0x14);

  h.sim.motor(3).inject_fault(dm::kMosOverTemperature, true);
  EXPECT_EQ(h.status(0x04, command_bytes(0xFB)), 0xB4);  // sticky: survives clear error
  h.sim.motor(3).clear_injected_fault();
  EXPECT_EQ(h.status(0x04, command_bytes(0xFB)), 0x04);

  // A coil hotter than the OT register (120 °C) trips by itself.
  h.send(0x04, kEnable);
  h.sim.motor(3).set_temperatures(40.0, 121.0);
  h.run(0.002);
  EXPECT_EQ(h.status(0x7FF, {0x04, 0x00, 0xCC}), 0xC4);
}

TEST(Status, CommunicationTimeoutDisablesAfterTheConfiguredSilence) {
  Harness h;
  h.reply(0x7FF, {0x01, 0x00, 0x55, 0x09, 0xE8, 0x03});  // 1000 x 50 µs = 50 ms
  h.reply(0x7FF, {0x02, 0x00, 0x55, 0x09, 0xE8, 0x03});
  h.send(0x01, kEnable);
  h.send(0x02, kEnable);
  h.wait(49ms);
  h.send(0x7FF, {0x01, 0x00, 0xCC});  // motor 1 hears from the host, motor 2 does not
  h.wait(1ms);
  EXPECT_EQ(h.sim.state(1).status, dm::kEnabled);  // exactly 50 ms of silence
  h.wait(2us);
  EXPECT_EQ(h.sim.state(1).status, dm::kCommunicationLost);
  EXPECT_FALSE(h.sim.state(1).enabled);
  EXPECT_EQ(h.sim.state(0).status, dm::kEnabled);

  // A frame that arrives after the deadline finds the motor already timed out.
  h.now += 60ms;
  EXPECT_EQ(h.status(0x01, kEnable), 0xD1);
  EXPECT_EQ(h.status(0x01, command_bytes(0xFB)), 0x01);
  EXPECT_EQ(h.status(0x01, kEnable), 0x11);

  // Timeout 0 never trips; a disabled motor never times out.
  h.send(0x03, kEnable);
  h.wait(10s);
  EXPECT_EQ(h.sim.state(2).status, dm::kEnabled);
  EXPECT_EQ(h.sim.state(1).status, dm::kCommunicationLost);
  h.send(0x02, command_bytes(0xFB));
  h.wait(10s);
  EXPECT_EQ(h.sim.state(1).status, dm::kDisabled);
}

// 5 N·m on 1 kg·m² for 10 ms (type 1: 30 rad/s, 10 N·m): q 0.00025 rad is code 0x8000, dq
// 0.05 rad/s is 2050.9 -> 0x802 and the torque 3071.25 -> 0xBFF, truncated as the firmware does.
TEST(Feedback, VelocityAndTorqueAreScaledAndTruncated) {
  Harness h({test::frictionless(1, 1, 1.0)});
  h.enable({0x01});
  h.mit(0, {0.0, 0.0, 0.0, 0.0, 5.0});
  h.run(0.01);
  EXPECT_EQ(h.reply(0x7FF, {0x01, 0x00, 0xCC}), "11 80 00 80 2B FF 21 1E");
}

}  // namespace
}  // namespace kestrel::sim
