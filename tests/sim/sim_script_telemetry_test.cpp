// Scripted expectations, bus-load telemetry and the frame log, fed with frames directly (no
// socket).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "kestrel_sim/expectations.hpp"
#include "kestrel_sim/frame_log.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "kestrel_sim/telemetry.hpp"
#include "sim_test_support.hpp"
#include "support/stderr_capture.hpp"

namespace kestrel::sim {
namespace {

using test::command_bytes;
using test::Harness;
using ::testing::ElementsAre;
using ::testing::HasSubstr;
using ::testing::IsEmpty;
using namespace std::chrono_literals;

// Classifies `payload` on `id` through the arm's motors and offers it to the script.
void offer(ExpectationScript& script, Harness& h, uint32_t id, const Payload& payload) {
  Frame f = Frame::classic(id, payload);
  auto outcomes = h.sim.handle_frame(f, h.now);
  ReceivedCommand command = outcomes.empty() ? ReceivedCommand{} : outcomes.front().command;
  if (auto action = script.observe(command, f)) {
    action();
  }
}

TEST(ExpectationScript, InOrderScriptReportsEveryExpectationThatNeverHappened) {
  Harness h;
  ExpectationScript script;
  int fired = 0;
  script.expect(Expectation::clear_error(0x01));
  script.expect(Expectation::write_register(0x01, reg::kControlMode, 2.0));
  script.expect(Expectation::enable(0x01).times(2).then([&] { ++fired; }));
  script.expect(Expectation::mit(0x01, {0.5, 0.0, 20.0, 1.0, 0.0}, 0.15));  // kp step 0.12
  script.expect(Expectation::frame(0x002, command_bytes(0xFD)));

  offer(script, h, 0x01, command_bytes(0xFB));
  offer(script, h, 0x7FF, {0x01, 0x00, 0xCC});  // not scripted: allowed in between
  offer(script, h, 0x7FF, {0x01, 0x00, 0x55, 0x0A, 0x02});
  offer(script, h, 0x01, test::kEnable);
  EXPECT_EQ(fired, 0);
  offer(script, h, 0x01, test::kEnable);
  EXPECT_EQ(fired, 1);
  offer(script, h, 0x01, dm::encode_mit({0.9, 0.0, 20.0, 1.0, 0.0}, dm::limits_of_type(3)));

  EXPECT_FALSE(script.wait_all_met(10ms));
  EXPECT_THAT(script.unmet(),
              ElementsAre(HasSubstr("never happened: MIT command to motor 0x01 with q=0.5"),
                          "never happened: frame 0x002 FF FF FF FF FF FF FF FD"));
  offer(script, h, 0x01, dm::encode_mit({0.5, 0.0, 20.0, 1.0, 0.0}, dm::limits_of_type(3)));
  offer(script, h, 0x02, command_bytes(0xFD));
  EXPECT_THAT(script.unmet(), IsEmpty());
  EXPECT_TRUE(script.wait_all_met(0ms));
}

TEST(ExpectationScript, StrictScriptReportsFramesThatCameInstead) {
  Harness h;
  ExpectationScript script;
  script.set_mode(ExpectationScript::Mode::kStrict);
  script.expect(Expectation::enable(0x01).times(2));
  script.expect(Expectation::refresh(0x02));
  offer(script, h, 0x01, test::kEnable);
  offer(script, h, 0x02, test::kEnable);
  offer(script, h, 0x123, test::kEnable);  // nobody's frame: not counted against
  offer(script, h, 0x01, test::kEnable);
  offer(script, h, 0x7FF, {0x02, 0x00, 0xCC});
  offer(script, h, 0x03, command_bytes(0xFD));
  EXPECT_THAT(
      script.unmet(),
      ElementsAre("unexpected enable frame 0x002 [8] FF FF FF FF FF FF FF FC while expecting "
                  "enable of motor 0x01 (x2)",
                  "unexpected disable frame 0x003 [8] FF FF FF FF FF FF FF FD after the last "
                  "expectation"));
  EXPECT_FALSE(script.unreported());
  script.clear();
  EXPECT_THAT(script.unmet(), IsEmpty());
}

TEST(ExpectationScript, ABusDestroyedWithUnverifiedExpectationsSaysWhichNeverHappened) {
  std::string said = kestrel::testing::capture_stderr([] {
    SimulatedMotorBus bus;
    bus.expect(Expectation::enable(0x01));
    bus.expect(Expectation::read_register(0x07, reg::kKpApr));
  });
  EXPECT_EQ(said,
            "[kestrel-sim] expectation failed: never happened: enable of motor 0x01\n"
            "[kestrel-sim] expectation failed: never happened: read of register 27 of motor "
            "0x07\n");
  // A test that looked at verify() already reported the failures itself.
  said = kestrel::testing::capture_stderr([] {
    SimulatedMotorBus bus;
    bus.expect(Expectation::enable(0x01));
    EXPECT_EQ(bus.verify().size(), 1u);
  });
  EXPECT_EQ(said, "");
}

TEST(Telemetry, WireTimesOfClassicAndFdFrames) {
  EXPECT_DOUBLE_EQ(classic_frame_seconds(8, {}, true), 131e-6);
  EXPECT_DOUBLE_EQ(classic_frame_seconds(8), 111e-6);
  EXPECT_NEAR(fd_frame_seconds(8), 49.2e-6, 1e-12);  // 30 bits at 1 Mbit/s, 96 at 5 Mbit/s
  EXPECT_NEAR(fd_frame_seconds(9), fd_frame_seconds(12), 1e-15);  // padded to 12 bytes
  EXPECT_NEAR(fd_frame_seconds(64), 30e-6 + (37 + 512) / 5e6, 1e-12);
}

TEST(Telemetry, ArmTrafficLoadsAClassicBusToNinetyThreePercent) {
  // Seven MIT commands every 2.5 ms and seven refreshes every 5 ms, each answered: 8,400
  // frames a second.
  TelemetryMeter meter;
  const TimePoint start = Clock::now();
  meter.reset(start);
  Frame command = Frame::classic(0x001, command_bytes(0x00));
  Frame reply = Frame::classic(0x011, command_bytes(0x00));
  for (int tick = 0; tick < 400; ++tick) {
    const TimePoint t = start + tick * 2500us;
    const int frames = tick % 2 == 0 ? 14 : 7;
    for (int i = 0; i < frames; ++i) {
      meter.record(TelemetryMeter::Direction::kReceived, command, t);
      meter.record(TelemetryMeter::Direction::kSent, reply, t);
    }
  }
  TelemetrySnapshot s = meter.snapshot(start + 1s);
  EXPECT_NEAR(s.received_fps + s.sent_fps, 8400.0, 100.0);
  EXPECT_NEAR(s.classic_load, 8400 * 111e-6, 0.015);
  EXPECT_NEAR(s.fd_load, 8400 * 49.2e-6, 0.01);
  // An idle second later the window has emptied; the totals remain.
  s = meter.snapshot(start + 2500ms);
  EXPECT_EQ(s.received_fps, 0.0);
  EXPECT_EQ(s.sent_total, 4200u);
  EXPECT_THAT(format_line(meter.snapshot(start + 1s)), HasSubstr("classic 1M  93."));
}

// Entries numbered by their frame identifier, as a snapshot holds them.
std::vector<uint32_t> ids(const FrameLog::Snapshot& snapshot) {
  std::vector<uint32_t> out;
  snapshot.for_each([&](const LoggedFrame& e) { out.push_back(e.frame.id); });
  return out;
}

std::vector<uint32_t> numbered(uint32_t first, uint32_t end) {
  std::vector<uint32_t> out;
  for (uint32_t i = first; i < end; ++i) {
    out.push_back(i);
  }
  return out;
}

// The log keeps the newest `capacity` entries across its chunk boundaries, and a snapshot keeps
// what it saw while the log goes on, wraps past it, or is cleared.
TEST(FrameLog, KeepsTheNewestEntriesAndSnapshotsStayAsTaken) {
  const uint32_t chunk = FrameLog::kChunkEntries;
  struct Case {
    const char* name;
    size_t capacity;
    uint32_t appended;
  };
  for (const Case& c :
       {Case{"empty", 10, 0}, Case{"under a small capacity", 10, 7},
        Case{"wrapping a small capacity", 10, 25}, Case{"exactly one chunk", chunk, chunk},
        Case{"one past a chunk", chunk, chunk + 1},
        Case{"over several chunks", chunk + 300, 5 * chunk + 17}, Case{"no capacity", 0, 5}}) {
    SCOPED_TRACE(c.name);
    FrameLog log(c.capacity);
    for (uint32_t i = 0; i < c.appended; ++i) {
      log.append(LoggedFrame{TimePoint{}, LoggedFrame::Direction::kReceived, Frame::classic(i, {}),
                             ReceivedCommand{}});
    }
    const uint32_t kept = std::min<uint32_t>(c.appended, static_cast<uint32_t>(c.capacity));
    const FrameLog::Snapshot before = log.snapshot();
    EXPECT_EQ(log.size(), kept);
    EXPECT_EQ(before.size(), kept);
    EXPECT_EQ(ids(before), numbered(c.appended - kept, c.appended));
    for (uint32_t i = 0; i < 2 * chunk; ++i) {
      log.append(LoggedFrame{TimePoint{}, LoggedFrame::Direction::kSent, Frame::classic(9999, {}),
                             ReceivedCommand{}});
    }
    log.clear();
    EXPECT_EQ(log.size(), 0u);
    EXPECT_EQ(log.snapshot().size(), 0u);
    EXPECT_EQ(ids(before), numbered(c.appended - kept, c.appended));
  }
}

}  // namespace
}  // namespace kestrel::sim
