// The simulator's frame log drained while frames arrive, as the campaign's collector does: every
// received frame comes out exactly once and in order; a log that overflowed between two drains
// says how many frames it lost.
#include <gtest/gtest.h>

#include <algorithm>
#include <atomic>
#include <functional>
#include <thread>

#include "kestrel_sim/dm_protocol.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"
#include "support/simbus_can.hpp"

namespace kestrel::sim {
namespace {

using namespace std::chrono_literals;
namespace rawcan = simbus::rawcan;

// `count` MIT frames to motor 1 whose position target counts up from -12 rad.
size_t send_counting(int socket, int count) {
  const dm::Limits limits = dm::limits_of_type(arm_motor_configs()[0].type);
  size_t sent = 0;
  for (int i = 0; i < count; ++i) {
    dm::MitCommand command;
    command.q = -12.0 + 0.005 * i;
    const Payload p = dm::encode_mit(command, limits);
    can_frame frame =
        rawcan::classic_frame(0x001, {p[0], p[1], p[2], p[3], p[4], p[5], p[6], p[7]});
    sent += ::write(socket, &frame, sizeof frame) == static_cast<ssize_t>(sizeof frame) ? 1 : 0;
    if (i % 10 == 0) {
      std::this_thread::sleep_for(500us);  // several times the arm's frame rate
    }
  }
  return sent;
}

std::vector<double> targets(const std::vector<LoggedFrame>& frames) {
  std::vector<double> q;
  for (const LoggedFrame& f : frames) {
    if (f.command.kind == CommandKind::kMit) {
      q.push_back(f.command.mit.q);
    }
  }
  return q;
}

// The simulated motors on a bus of their own, a log of `capacity` frames, and a socket to them.
class FrameLogDrain : public ::testing::Test {
 protected:
  void start(size_t capacity) {
    BusOptions options;
    options.interface = "can0";
    options.frame_log_capacity = capacity;
    motors = std::make_unique<SimulatedMotorBus>(arm_motor_configs(), options);
    motors->start();
    socket = rawcan::open_can("can0");  // a failure to open is recorded there
  }
  simbus::ScopedSimbus bus{{"can0"}};
  std::unique_ptr<SimulatedMotorBus> motors;
  rawcan::Fd socket;
};

TEST_F(FrameLogDrain, EveryReceivedFrameComesOutOnceAndInOrder) {
  start(2000);  // less than the frames sent: only draining keeps them all

  std::atomic<bool> sending{true};
  std::vector<LoggedFrame> drained;
  size_t lost = 0;
  std::thread collector([&] {
    while (sending) {
      size_t n = 0;
      const auto more = motors->take_received_frames(&n);
      drained.insert(drained.end(), more.begin(), more.end());
      lost += n;
      std::this_thread::sleep_for(1ms);
    }
  });
  const size_t sent = send_counting(socket.get(), 3000);
  std::this_thread::sleep_for(100ms);  // the last frames reach the simulator
  sending = false;
  collector.join();
  const auto rest = motors->take_received_frames();
  drained.insert(drained.end(), rest.begin(), rest.end());

  EXPECT_EQ(lost, 0u);
  const std::vector<double> q = targets(drained);
  ASSERT_EQ(q.size(), sent);
  EXPECT_EQ(std::adjacent_find(q.begin(), q.end(), std::greater_equal<>()), q.end());
}

TEST_F(FrameLogDrain, ALogThatOverflowedCountsWhatItLost) {
  start(100);
  const size_t sent = send_counting(socket.get(), 300);
  std::this_thread::sleep_for(100ms);
  size_t lost = 0;
  const auto kept = motors->take_received_frames(&lost);
  // The log keeps the newest entries, received and sent alike.
  EXPECT_LE(kept.size(), 100u);
  EXPECT_EQ(kept.size() + lost, sent);
  ASSERT_FALSE(targets(kept).empty());
  EXPECT_NEAR(targets(kept).back(), -12.0 + 0.005 * 299, 25.0 / 65535);
  motors->take_received_frames(&lost);
  EXPECT_EQ(lost, 0u);  // counted once
}

}  // namespace
}  // namespace kestrel::sim
