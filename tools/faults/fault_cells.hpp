// The fault-injection matrix: what the arm is doing, what goes wrong, and what a safe library
// must do about it.
//
// Every expectation comes from a rule of the library (torque monitor, run-time supervision,
// waypoint tracking stop, gripper watchdog, motor supervision, the motors' own communication
// time-out) or, where no rule speaks, from what a careful user expects: the arm never receives a
// jump, a lost bus ends with motors that time out to disabled, and a stop is reported once with
// its cause.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace kestrel::faults {

enum class Activity { kHold, kWaypoints, kChunks, kMoveL, kFloating, kGripperClosing };

enum class FaultKind {
  kSilentJoint,
  kSilentGripper,
  kStatus,  // `value` is the status code 8..14
  kTorqueOver,
  kTorqueUnder,
  kReplyLoss,   // `value` is the loss in per cent
  kReplyDelay,  // `value` is the delay in milliseconds
  kUnknownPayload,
  kInterfaceDown,
  kSimulatorKilled,
};

struct Fault {
  FaultKind kind;
  int value = 0;
};

// The joint the joint faults hit (1-based): joint 3 carries the forearm and falls when let go;
// the torque faults push on joint 2, the most loaded.
constexpr int kFaultJoint = 3;
constexpr int kPushedJoint = 2;
constexpr double kTorqueOverNm = -18.0;  // with gravity 23 N·m measured: over the 20 N·m stop
constexpr double kTorqueUnderNm = -4.0;  // with gravity 9 N·m: under the 16 N·m warning
constexpr double kUnknownPayloadKg = 1.5;

enum class Outcome {
  kStop,           // emergency stop naming the cause; arm motors disabled
  kCarryOn,        // the activity goes on and ends as planned; motors hold
  kReport,         // as kCarryOn, and the cause is reported once
  kCarryOnOrStop,  // a floating arm that is pushed may move on, or be stopped by the checks
};

struct Expectation {
  Outcome outcome;
  std::string cause;  // text the cause line contains (kStop, kReport, kCarryOnOrStop)
  std::string rule;   // where the expectation comes from
};

// What one cell showed.
struct Observation {
  // The arm had stopped before the fault went in (a machine too loaded for the simulated
  // motors' time-out, say): the cell shows nothing about the fault.
  bool stopped_before_injection = false;
  bool emergency_stop = false;
  std::string activity_result;          // "completed", "held", "floating", or the error
  bool activity_ok = false;             // ended (or went on) as planned
  std::vector<std::string> lines;       // controller lines after the injection, in order
  std::string motors;                   // "holding", "disabled", "gone", or a mixture
  bool motors_disabled = false;         // every reachable arm motor disabled at the end
  bool motors_holding = false;          // every arm motor enabled at the end
  double largest_jump = 0.0;            // largest commanded step / what the limits allow
  std::optional<double> safe_after_ms;  // injection to the safe state, when one was reached
};

struct Verdict {
  bool as_expected = false;
  std::string cause_line;  // the line that gave the cause, or the first line seen
  std::string why;         // what differed, when not as expected
};

const std::vector<Activity>& all_activities();
const std::vector<Fault>& all_faults();
std::string name(Activity a);
std::string name(const Fault& f);
std::string describe(const Fault& f);  // for the table: "motor status 11 (MOS over-temperature)"
std::optional<Activity> parse_activity(const std::string& text);
std::optional<Fault> parse_fault(const std::string& text);

Expectation expected(Activity a, const Fault& f);
std::string describe(const Expectation& e);

// Emergency-stop cause lines among `lines`, one entry per kind of cause (a torque monitor that
// triggers on several passes is one cause).
std::vector<std::string> stop_causes(const std::vector<std::string>& lines);

Verdict judge(const Expectation& e, const Observation& o);

}  // namespace kestrel::faults
