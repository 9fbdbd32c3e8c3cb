// The call checker on made-up call records: outcomes against what the arguments demand, time
// bounds, and the take-over windows the calls open.
#include <gtest/gtest.h>

#include "campaign/call_checker.hpp"

namespace kestrel::campaign {
namespace {

CallRecord record(const char* kind, bool blocking, Expectation expect, double start, double end,
                  Outcome outcome, double value = 0.0, const char* message = "") {
  CallRecord r;
  r.call.kind = kind;
  r.call.text = std::string("arm.") + kind + "();";
  r.call.blocking = blocking;
  r.call.expect = expect;
  r.start = start;
  r.end = end;
  r.outcome = outcome;
  r.value = value;
  r.message = message;
  return r;
}

std::vector<std::string> quantities(const std::vector<CallRecord>& calls) {
  std::vector<std::string> out;
  for (const Violation& v : check_calls(calls)) {
    out.push_back(v.quantity);
  }
  return out;
}

using Quantities = std::vector<std::string>;

TEST(CallChecker, OutcomesMustBeWhatTheArgumentsDemand) {
  const auto A = Expectation::kAny;
  const auto bad = Expectation::kInvalidArgument;
  EXPECT_EQ(quantities({record("set_joint", false, bad, 0, 0, Outcome::kInvalidArgument),
                        record("move_l", true, A, 0, 1, Outcome::kRuntimeError, 0, "no IK"),
                        record("stop", false, A, 0, 0, Outcome::kReturned)}),
            Quantities{});
  EXPECT_EQ(quantities({record("set_joint", false, bad, 0, 0, Outcome::kReturned)}),
            Quantities{"call outcome"});  // a bad argument accepted
  EXPECT_EQ(quantities({record("set_joint", false, A, 0, 0, Outcome::kInvalidArgument)}),
            Quantities{"call outcome"});  // good arguments refused as bad
  EXPECT_EQ(quantities({record("set_joint", false, Expectation::kMayRefuse, 0, 0,
                               Outcome::kInvalidArgument)}),
            Quantities{});
  EXPECT_EQ(quantities({record("get_joint", false, A, 0, 0, Outcome::kWrongAnswer)}),
            Quantities{"call outcome"});
  EXPECT_EQ(quantities({record("move_l", true, Expectation::kRuntimeError, 0, 0.01,
                               Outcome::kReturned, 0.5)}),
            Quantities{"call outcome"});  // an unreachable pose planned anyway
}

TEST(CallChecker, AMotionToWhereTheArmIsReturnsZeroAtOnce) {
  const auto here = Expectation::kZeroAtOnce;
  EXPECT_EQ(quantities({record("move_l", true, here, 1.0, 1.001, Outcome::kReturned, 0.0)}),
            Quantities{});
  EXPECT_EQ(quantities({record("move_l", true, here, 1.0, 1.5, Outcome::kReturned, 0.4)}),
            Quantities{"call outcome"});
  EXPECT_EQ(quantities({record("move_l", true, here, 1.0, 2.5, Outcome::kReturned, 0.0)}),
            Quantities{"call duration"});  // blocking, but nothing to wait for
}

TEST(CallChecker, CallsEndWithinTheirBounds) {
  const auto A = Expectation::kAny;
  EXPECT_EQ(
      quantities({record("update_joint_waypoint_chunk", false, A, 0, 0.9, Outcome::kReturned),
                  record("update_joint_waypoint_chunk", false, A, 0, 1.1, Outcome::kReturned)}),
      Quantities{"call duration"});
  // Blocking: the returned duration plus 3 s; when it throws, its expected duration plus 3 s.
  CallRecord waited = record("move_joint_waypoints", true, A, 0, 4.9, Outcome::kReturned, 2.0);
  CallRecord late = waited;
  late.end = 5.1;
  CallRecord thrown = record("move_p", true, A, 0, 4.5, Outcome::kRuntimeError, 0.0, "stopped");
  thrown.call.expected_duration = 1.0;
  EXPECT_EQ(quantities({waited, late, thrown}), (Quantities{"call duration", "call duration"}));
}

TEST(CallChecker, TakeOverWindowsOpenForSetJointAndForMotionsThatReplaceAChunk) {
  const auto A = Expectation::kAny;
  CallRecord chunk =
      record("update_joint_waypoint_chunk", false, A, 10.0, 10.01, Outcome::kReturned, 1.0);
  chunk.call.switch_delay = 0.2;  // runs from 10.21 to 11.21
  const std::vector<CallRecord> calls = {
      record("set_joint", false, A, 1.0, 1.001, Outcome::kReturned),
      record("set_joint", false, Expectation::kMayRefuse, 2.0, 2.001, Outcome::kInvalidArgument),
      record("move_l", true, A, 3.0, 5.0, Outcome::kReturned, 1.9),   // no chunk: from rest
      record("move_l", true, A, 9.8, 10.5, Outcome::kReturned, 2.0),  // the chunk came meanwhile
      chunk,
      record("move_p", true, A, 11.0, 11.5, Outcome::kRuntimeError, 0, "motion stopped"),
      record("move_p", true, A, 11.1, 11.2, Outcome::kRuntimeError, 0, "no IK answer"),
      record("move_l", true, A, 11.5, 13.0, Outcome::kReturned, 1.4),  // the chunk has ended
  };
  const auto windows = exemption_windows(calls);
  ASSERT_EQ(windows.size(), 3u);
  EXPECT_EQ(windows[0].call, 0u);
  EXPECT_DOUBLE_EQ(windows[0].begin, 1.0);
  EXPECT_DOUBLE_EQ(windows[0].end, 1.021);
  EXPECT_EQ(windows[1].call, 3u);
  EXPECT_DOUBLE_EQ(windows[1].end, 9.8 + 1.5);
  EXPECT_EQ(windows[2].call, 5u);  // interrupted, but it had taken over first
}

}  // namespace
}  // namespace kestrel::campaign
