// The simulated motors on a userspace CAN bus, driven through raw SocketCAN calls exactly as a
// host program would: exact reply frames, classic and FD framing, wire faults, the watchdog, and
// the host driver's own start-up traffic checked against a strict script.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <deque>
#include <functional>
#include <thread>

#include "kestrel/canbus/can_socket.hpp"
#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "sim_test_support.hpp"
#include "simbus/simbus_testing.hpp"

namespace kestrel::sim {
namespace {

using test::kEnable;
using ::testing::ElementsAre;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

constexpr const char* kInterface = "simcan0";
constexpr int kSilenceMs = 100;  // how long to listen before concluding that no reply comes
const Payload kRefresh1{0x01, 0x00, 0xCC};

BusOptions on_interface(bool fd) {
  BusOptions o;
  o.interface = kInterface;
  o.fd = fd;
  return o;
}

// The arm's motors on a private bus, and a host socket on the same interface.
class SimOnSimbus : public ::testing::Test {
 protected:
  explicit SimOnSimbus(bool fd = false) : sim_(arm_motor_configs(), on_interface(fd)) {
    sim_.start();
    host_ = simbus::rawcan::open_can(kInterface, fd);
  }
  std::string ask(uint32_t id, const Payload& p, int timeout_ms = 500, bool fd = false) {
    return test::ask(host_.get(), id, p, timeout_ms, fd);
  }
  simbus::ScopedSimbus bus_{{kInterface}};
  SimulatedMotorBus sim_;
  simbus::rawcan::Fd host_;
};

TEST_F(SimOnSimbus, ClassicCommandsGetExactRepliesAndAreLoggedInOrder) {
  EXPECT_EQ(ask(0x01, kEnable), "0x011 [8] 11 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(ask(0x7FF, {0x01, 0x00, 0x55, 0x09, 0xE8, 0x03}), "0x011 [8] 01 00 55 09 E8 03 00 00");
  EXPECT_EQ(ask(0x7FF, {0x01, 0x00, 0x33, 0x09}), "0x011 [8] 01 00 33 09 E8 03 00 00");
  EXPECT_EQ(ask(0x04, dm::encode_mit({1.0, 0, 10, 1, 0}, dm::limits_of_type(1))),
            "0x014 [8] 04 7F FF 7F F7 FF 21 1E");  // disabled: answered, not applied
  EXPECT_EQ(ask(0x7FF, {0x07, 0x00, 0xCC}), "0x017 [8] 07 7F FF 7F F7 FF 21 1E");

  std::vector<LoggedFrame> log = sim_.frame_log();
  std::vector<std::string> seen;
  for (size_t i = 0; i < log.size(); ++i) {
    seen.push_back((log[i].direction == LoggedFrame::Direction::kReceived ? "rx " : "tx ") +
                   to_string(log[i].frame));
    if (i > 0) {
      EXPECT_LE(log[i - 1].time, log[i].time);
    }
  }
  EXPECT_THAT(
      seen,
      ElementsAre("rx 0x001 [8] FF FF FF FF FF FF FF FC", "tx 0x011 [8] 11 7F FF 7F F7 FF 21 1E",
                  "rx 0x7FF [8] 01 00 55 09 E8 03 00 00", "tx 0x011 [8] 01 00 55 09 E8 03 00 00",
                  "rx 0x7FF [8] 01 00 33 09 00 00 00 00", "tx 0x011 [8] 01 00 33 09 E8 03 00 00",
                  "rx 0x004 [8] 8A 3C 7F F0 51 33 37 FF", "tx 0x014 [8] 04 7F FF 7F F7 FF 21 1E",
                  "rx 0x7FF [8] 07 00 CC 00 00 00 00 00", "tx 0x017 [8] 07 7F FF 7F F7 FF 21 1E"));
  EXPECT_EQ(log[6].command.kind, CommandKind::kMit);
  EXPECT_FALSE(log[6].command.applied);
  sim_.clear_frame_log();
  EXPECT_THAT(sim_.frame_log(), IsEmpty());
}

class SimOnSimbusFd : public SimOnSimbus {
 protected:
  SimOnSimbusFd() : SimOnSimbus(true) {}
};

TEST_F(SimOnSimbusFd, FdRequestsGetFdRepliesAndClassicRequestsClassicReplies) {
  EXPECT_EQ(ask(0x02, kEnable, 500, true), "0x012 FD[8] 12 7F FF 7F F7 FF 21 1E flags=1");
  EXPECT_EQ(ask(0x7FF, {0x02, 0x00, 0xCC}), "0x012 [8] 12 7F FF 7F F7 FF 21 1E");
}

TEST_F(SimOnSimbus, SilentMotorsDroppedAndDelayedRepliesAndTheInterfaceGoingDownAndUp) {
  sim_.set_silent(2, true);
  EXPECT_EQ(ask(0x03, kEnable, kSilenceMs), "");
  EXPECT_EQ(ask(0x02, kEnable), "0x012 [8] 12 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(sim_.motor_state(2).status, dm::kDisabled);
  EXPECT_EQ(sim_.received_frames().front().command.kind, CommandKind::kEnable);
  EXPECT_EQ(sim_.received_frames().front().command.motor, 2);

  sim_.drop_next_replies(2, 0);
  EXPECT_EQ(ask(0x7FF, kRefresh1, kSilenceMs), "");
  EXPECT_EQ(ask(0x7FF, {0x02, 0x00, 0xCC}), "0x012 [8] 12 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(ask(0x7FF, kRefresh1, kSilenceMs), "");
  EXPECT_EQ(ask(0x7FF, kRefresh1), "0x011 [8] 01 7F FF 7F F7 FF 21 1E");
  sim_.set_reply_drop_probability(1.0);
  EXPECT_EQ(ask(0x7FF, {0x04, 0x00, 0xCC}, kSilenceMs), "");
  sim_.set_reply_drop_probability(0.0);
  EXPECT_EQ(sim_.telemetry().dropped_total, 3u);

  // Delayed replies keep their order.
  sim_.set_reply_delay(30ms);
  const TimePoint sent = Clock::now();
  test::send_raw(host_.get(), 0x7FF, {0x05, 0x00, 0xCC});
  test::send_raw(host_.get(), 0x7FF, {0x06, 0x00, 0xCC});
  EXPECT_EQ(test::receive(host_.get()), "0x015 [8] 05 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(test::receive(host_.get()), "0x016 [8] 06 7F FF 7F F7 FF 21 1E");
  EXPECT_GE(Clock::now() - sent, 30ms);
  sim_.set_reply_delay(0ms);

  // The motors keep answering across the interface going down and up.
  bus_.set_up(kInterface, false);
  EXPECT_EQ(ask(0x7FF, kRefresh1), "write failed");
  bus_.set_up(kInterface, true);
  EXPECT_EQ(ask(0x7FF, kRefresh1), "0x011 [8] 01 7F FF 7F F7 FF 21 1E");
}

TEST_F(SimOnSimbus, CommunicationTimeoutDisablesAMotorLeftWithoutFrames) {
  ask(0x7FF, {0x01, 0x00, 0x55, 0x09, 0x20, 0x03});  // 800 x 50 µs = 40 ms
  ask(0x01, kEnable);
  for (int i = 0; i < 30; ++i) {  // refreshed every 5 ms: stays enabled
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(ask(0x7FF, kRefresh1).substr(0, 12), "0x011 [8] 11");
  }
  const TimePoint last_frame = sim_.received_frames().back().time;
  while (sim_.motor_state(0).status == dm::kEnabled && Clock::now() - last_frame < 1s) {
    std::this_thread::sleep_for(200us);
  }
  const auto silence = Clock::now() - last_frame;
  EXPECT_EQ(sim_.motor_state(0).status, dm::kCommunicationLost);
  EXPECT_GE(silence, 40ms);
  EXPECT_LT(silence, 80ms);
  EXPECT_EQ(ask(0x7FF, kRefresh1).substr(0, 12), "0x011 [8] D1");
}

TEST_F(SimOnSimbus, TheHostDriverStartUpSequenceFollowsAStrictScript) {
  namespace host = kestrel::damiao_motor;
  sim_.expectations().set_mode(ExpectationScript::Mode::kStrict);
  const std::function<Expectation(uint32_t)> steps[] = {
      [](uint32_t id) { return Expectation::clear_error(id); },
      [](uint32_t id) { return Expectation::write_register(id, reg::kControlMode, 2); },
      [](uint32_t id) { return Expectation::write_register(id, reg::kAcc, 6.5, 1e-6); },
      [](uint32_t id) { return Expectation::read_register(id, reg::kAcc); },
      [](uint32_t id) { return Expectation::write_register(id, reg::kTimeout, 1000); },
      [](uint32_t id) { return Expectation::enable(id); },
      [](uint32_t id) { return Expectation::refresh(id); }};
  for (const auto& step : steps) {
    for (uint32_t id = 1; id <= 6; ++id) {
      sim_.expect(step(id));
    }
  }
  sim_.set_read_back_offset(2, reg::kAcc, 2e-4);
  const std::vector<double> posture{0.1, -0.2, 0.3, -0.4, 0.5, -0.6};
  sim_.set_posture(posture);

  canbus::CANSocket socket(kInterface, false);
  host::DMDeviceCollection arm(socket);
  std::deque<host::Motor> motors;
  for (uint32_t id = 1; id <= 6; ++id) {
    motors.emplace_back(id <= 3 ? host::MotorType::DM_V8_T28 : host::MotorType::DM_V30_T10, id,
                        0x10 + id);
    arm.get_device_collection().add_device(
        std::make_shared<host::DMCANDevice>(motors.back(), 0x7FF, false));
  }
  auto drain = [&] {
    can_frame f;
    while (socket.is_data_available(20000) && socket.read_can_frame(f)) {
      arm.get_device_collection().dispatch_frame_callback(f);
    }
  };
  arm.clrErr_all();
  drain();
  arm.set_callback_mode_all(host::PARAM);
  arm.switch_all_motors_mode(2);
  arm.set_acc_all(std::vector<float>(6, 6.5f));
  arm.query_acc_all();
  drain();
  std::vector<double> acc;
  for (const host::Motor& m : arm.get_motors()) {
    acc.push_back(m.get_param(4));
  }
  arm.set_timeout_all(1000);
  arm.enable_all();
  drain();
  arm.set_callback_mode_all(host::STATE);
  arm.refresh_all();
  drain();

  EXPECT_TRUE(sim_.expectations().wait_all_met(1s));
  EXPECT_THAT(sim_.verify(), IsEmpty());
  EXPECT_THAT(acc, ElementsAre(6.5, 6.5, ::testing::DoubleNear(6.5002, 1e-6), 6.5, 6.5, 6.5));
  for (size_t i = 0; i < 6; ++i) {
    const host::Motor m = arm.get_motors()[i];
    EXPECT_EQ(m.get_error_code(), 1);
    EXPECT_NEAR(m.get_position(), posture[i], 25.0 / 65535.0);
    EXPECT_EQ(sim_.motor_state(i).mode, dm::kModePosVel);
  }
}

// How fast it answers is the benchmark's business; here every request is answered while the
// physics thread runs.
TEST_F(SimOnSimbus, AnswersEveryRequestWhileThePhysicsRuns) {
  for (int i = 0; i < 300; ++i) {
    ASSERT_NE(ask(0x7FF, {static_cast<uint8_t>(1 + i % 7), 0x00, 0xCC}), "") << i;
  }
  EXPECT_GT(sim_.physics_stats().steps, 0u);
  EXPECT_EQ(sim_.telemetry().received_total, 300u);
  EXPECT_EQ(sim_.telemetry().sent_total, 300u);
}

}  // namespace
}  // namespace kestrel::sim
