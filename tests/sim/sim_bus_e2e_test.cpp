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

// The arm's motors on a private bus, and a host socket on the same interface.
class SimOnSimbus : public ::testing::Test {
 protected:
  SimOnSimbus() {
    BusOptions options;
    options.interface = kInterface;
    sim_ = std::make_unique<SimulatedMotorBus>(arm_motor_configs(), options);
    sim_->start();
  }
  std::string ask(uint32_t id, const Payload& p, int timeout_ms = 500) {
    return test::ask(host_.get(), id, p, timeout_ms);
  }
  simbus::ScopedSimbus bus_{{kInterface}};
  std::unique_ptr<SimulatedMotorBus> sim_;
  simbus::rawcan::Fd host_ = simbus::rawcan::open_can(kInterface);
};

TEST_F(SimOnSimbus, ClassicCommandsGetExactRepliesAndAreLoggedInOrder) {
  ask(0x01, kEnable);
  ask(0x7FF, {0x01, 0x00, 0x55, 0x09, 0xE8, 0x03});
  ask(0x7FF, {0x01, 0x00, 0x33, 0x09});
  ask(0x04, dm::encode_mit({1.0, 0, 10, 1, 0}, dm::limits_of_type(1)));  // disabled: not applied

  std::vector<LoggedFrame> log = sim_->frame_log();
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
                  "rx 0x004 [8] 8A 3C 7F F0 51 33 37 FF", "tx 0x014 [8] 04 7F FF 7F F7 FF 21 1E"));
  EXPECT_EQ(log[6].command.kind, CommandKind::kMit);
  EXPECT_FALSE(log[6].command.applied);
  EXPECT_EQ(std::make_tuple(sim_->telemetry().received_total, sim_->telemetry().sent_total),
            std::make_tuple(uint64_t{4}, uint64_t{4}));
}

TEST_F(SimOnSimbus, SilentMotorsDroppedAndDelayedRepliesAndTheInterfaceGoingDownAndUp) {
  sim_->set_silent(2, true);
  EXPECT_EQ(ask(0x03, kEnable, kSilenceMs), "");
  EXPECT_EQ(ask(0x02, kEnable), "0x012 [8] 12 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(sim_->motor_state(2).status, dm::kDisabled);

  sim_->drop_next_replies(2, 0);
  EXPECT_EQ(ask(0x7FF, kRefresh1, kSilenceMs), "");
  EXPECT_EQ(ask(0x7FF, kRefresh1, kSilenceMs), "");
  EXPECT_EQ(ask(0x7FF, kRefresh1), "0x011 [8] 01 7F FF 7F F7 FF 21 1E");
  sim_->set_reply_drop_probability(1.0);
  EXPECT_EQ(ask(0x7FF, {0x04, 0x00, 0xCC}, kSilenceMs), "");
  sim_->set_reply_drop_probability(0.0);
  EXPECT_EQ(sim_->telemetry().dropped_total, 3u);

  // Delayed replies keep their order.
  sim_->set_reply_delay(30ms);
  const TimePoint sent = Clock::now();
  test::send_raw(host_.get(), 0x7FF, {0x05, 0x00, 0xCC});
  test::send_raw(host_.get(), 0x7FF, {0x06, 0x00, 0xCC});
  EXPECT_EQ(test::receive(host_.get()), "0x015 [8] 05 7F FF 7F F7 FF 21 1E");
  EXPECT_EQ(test::receive(host_.get()), "0x016 [8] 06 7F FF 7F F7 FF 21 1E");
  EXPECT_GE(Clock::now() - sent, 30ms);
  sim_->set_reply_delay(0ms);

  // The motors keep answering across the interface going down and up.
  bus_.set_up(kInterface, false);
  EXPECT_EQ(ask(0x7FF, kRefresh1), "write failed");
  bus_.set_up(kInterface, true);
  EXPECT_EQ(ask(0x7FF, kRefresh1), "0x011 [8] 01 7F FF 7F F7 FF 21 1E");
  EXPECT_GT(sim_->physics_stats().steps, 0u);
}

// The bus checks what it receives against its script as it goes.
TEST_F(SimOnSimbus, ReceivedFramesAreMatchedAgainstAStrictScript) {
  sim_->expectations().set_mode(ExpectationScript::Mode::kStrict);
  sim_->expect(Expectation::write_register(0x01, reg::kAcc, 6.5, 1e-6));
  sim_->expect(Expectation::read_register(0x01, reg::kAcc));
  sim_->expect(Expectation::refresh(0x01));
  ask(0x7FF, {0x01, 0x00, 0x55, 0x04, 0x00, 0x00, 0xD0, 0x40});  // 6.5f
  ask(0x7FF, {0x01, 0x00, 0x33, 0x04});
  EXPECT_FALSE(sim_->expectations().all_met());
  ask(0x7FF, kRefresh1);
  EXPECT_TRUE(sim_->expectations().wait_all_met(1s));
  EXPECT_THAT(sim_->verify(), IsEmpty());
}

}  // namespace
}  // namespace kestrel::sim
