// The call checker on made-up call records: outcomes against what the arguments demand, time
// bounds, and the take-over windows the calls open.
#include <gtest/gtest.h>

#include "campaign/call_checker.hpp"

namespace kestrel::campaign {
namespace {

const auto A = Expectation::kAny;
const auto R = Outcome::kReturned;

// A call of `kind`; the motions (move_*) block, as the campaign makes them.
CallRecord record(const char* kind, Expectation expect, double start, double end, Outcome outcome,
                  double value = 0.0, const char* message = "", double expected_duration = 0.0) {
  CallRecord r;
  r.call.kind = kind;
  r.call.text = std::string("arm.") + kind + "();";
  r.call.blocking = r.call.kind.rfind("move_", 0) == 0;
  r.call.expect = expect;
  r.call.expected_duration = expected_duration;
  r.start = start;
  r.end = end;
  r.outcome = outcome;
  r.value = value;
  r.message = message;
  return r;
}

TEST(CallChecker, OutcomesMustBeWhatTheArgumentsDemandAndCallsEndWithinTheirBounds) {
  const auto bad = Expectation::kInvalidArgument;
  const auto here = Expectation::kZeroAtOnce;  // a motion to where the arm is
  const auto error = Outcome::kRuntimeError;
  const auto chunk = "update_joint_waypoint_chunk";
  const auto waypoints = "move_joint_waypoints";
  const char* const outcome = "call outcome";
  const char* const duration = "call duration";
  const std::pair<CallRecord, const char*> rows[] = {
      // a call, the violation found or ""
      {record("set_joint", bad, 0, 0, Outcome::kInvalidArgument), ""},
      {record("move_l", A, 0, 1, error, 0, "no IK"), ""},
      {record("stop", A, 0, 0, R), ""},
      {record("set_joint", bad, 0, 0, R), outcome},  // a bad argument accepted
      {record("set_joint", A, 0, 0, Outcome::kInvalidArgument), outcome},  // refused as bad
      {record("set_joint", Expectation::kMayRefuse, 0, 0, Outcome::kInvalidArgument), ""},
      {record("get_joint", A, 0, 0, Outcome::kWrongAnswer), outcome},
      {record("move_l", Expectation::kRuntimeError, 0, 0.01, R, 0.5), outcome},  // unreachable
      {record("move_l", here, 1.0, 1.001, R, 0.0), ""},
      {record("move_l", here, 1.0, 1.5, R, 0.4), outcome},
      {record("move_l", here, 1.0, 2.5, R, 0.0), duration},  // blocking, nothing to wait for
      {record(chunk, A, 0, 0.9, R), ""},
      {record(chunk, A, 0, 1.1, R), duration},
      // Blocking: the returned duration plus 3 s; when it throws, its expected duration plus 3 s.
      {record(waypoints, A, 0, 4.9, R, 2.0), ""},
      {record(waypoints, A, 0, 5.1, R, 2.0), duration},
      {record("move_p", A, 0, 4.5, error, 0.0, "stopped", 1.0), duration},
  };
  for (const auto& [call, quantity] : rows) {
    SCOPED_TRACE(call.call.kind + " ending at " + std::to_string(call.end));
    const auto violations = check_calls({call});
    ASSERT_EQ(violations.size(), *quantity == '\0' ? 0u : 1u);
    if (!violations.empty()) {
      EXPECT_EQ(violations[0].quantity, quantity);
    }
  }
}

TEST(CallChecker, TakeOverWindowsOpenForSetJointAndForMotionsThatReplaceAChunk) {
  CallRecord chunk = record("update_joint_waypoint_chunk", A, 10.0, 10.01, R, 1.0);
  chunk.call.switch_delay = 0.2;  // runs from 10.21 to 11.21
  const std::vector<CallRecord> calls = {
      record("set_joint", A, 1.0, 1.001, R),
      record("set_joint", Expectation::kMayRefuse, 2.0, 2.001, Outcome::kInvalidArgument),
      record("move_l", A, 3.0, 5.0, R, 1.9),   // no chunk: from rest
      record("move_l", A, 9.8, 10.5, R, 2.0),  // the chunk came meanwhile
      chunk,
      record("move_p", A, 11.0, 11.5, Outcome::kRuntimeError, 0, "motion stopped"),
      record("move_p", A, 11.1, 11.2, Outcome::kRuntimeError, 0, "no IK answer"),
      record("move_l", A, 11.5, 13.0, R, 1.4),  // the chunk has ended
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
