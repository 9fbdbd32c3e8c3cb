#include "fault_cells.hpp"

#include "kestrel/damiao_motor/dm_motor_device.hpp"

#include <algorithm>
#include <map>
#include <sstream>

namespace kestrel::faults {

namespace {

bool contains(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

// The kind of an emergency-stop cause line, or empty for any other line.
std::string stop_kind(const std::string& line) {
  static const char* const kinds[] = {"motor fault stop",
                                      "motor silent stop",
                                      "trigger emergency_stop",
                                      "runtime joint velocity stop",
                                      "runtime joint acceleration stop",
                                      "runtime joint jerk stop"};
  for (const char* kind : kinds) {
    if (contains(line, kind)) {
      return kind;
    }
  }
  return {};
}

bool is_warning_or_stop(const std::string& line) {
  if (contains(line, "loop exited")) {
    return false;  // every controller says so when it ends
  }
  return contains(line, "stop") || contains(line, "warning") || contains(line, "ERR") ||
         contains(line, "silent") || contains(line, "fault") || contains(line, "警告");
}

}  // namespace

const std::vector<Activity>& all_activities() {
  static const std::vector<Activity> list = {Activity::kHold,     Activity::kWaypoints,
                                             Activity::kChunks,   Activity::kMoveL,
                                             Activity::kFloating, Activity::kGripperClosing};
  return list;
}

const std::vector<Fault>& all_faults() {
  static const std::vector<Fault> list = [] {
    std::vector<Fault> f = {{FaultKind::kSilentJoint}, {FaultKind::kSilentGripper}};
    for (int code = 8; code <= 14; ++code) {
      f.push_back({FaultKind::kStatus, code});
    }
    f.push_back({FaultKind::kTorqueOver});
    f.push_back({FaultKind::kTorqueUnder});
    for (int loss : {1, 10, 50}) {
      f.push_back({FaultKind::kReplyLoss, loss});
    }
    for (int delay : {1, 5, 20}) {
      f.push_back({FaultKind::kReplyDelay, delay});
    }
    f.push_back({FaultKind::kUnknownPayload});
    f.push_back({FaultKind::kInterfaceDown});
    f.push_back({FaultKind::kSimulatorKilled});
    return f;
  }();
  return list;
}

std::string name(Activity a) {
  switch (a) {
    case Activity::kHold:
      return "hold";
    case Activity::kWaypoints:
      return "waypoints";
    case Activity::kChunks:
      return "chunks";
    case Activity::kMoveL:
      return "move_l";
    case Activity::kFloating:
      return "floating";
    case Activity::kGripperClosing:
      return "gripper";
  }
  return "?";
}

std::string name(const Fault& f) {
  switch (f.kind) {
    case FaultKind::kSilentJoint:
      return "silent-joint";
    case FaultKind::kSilentGripper:
      return "silent-gripper";
    case FaultKind::kStatus:
      return "status-" + std::to_string(f.value);
    case FaultKind::kTorqueOver:
      return "torque-over";
    case FaultKind::kTorqueUnder:
      return "torque-under";
    case FaultKind::kReplyLoss:
      return "loss-" + std::to_string(f.value);
    case FaultKind::kReplyDelay:
      return "delay-" + std::to_string(f.value);
    case FaultKind::kUnknownPayload:
      return "payload";
    case FaultKind::kInterfaceDown:
      return "interface-down";
    case FaultKind::kSimulatorKilled:
      return "sim-killed";
  }
  return "?";
}

std::string describe(const Fault& f) {
  std::ostringstream out;
  switch (f.kind) {
    case FaultKind::kSilentJoint:
      out << "joint " << kFaultJoint << " motor silent";
      break;
    case FaultKind::kSilentGripper:
      out << "gripper motor silent";
      break;
    case FaultKind::kStatus:
      out << "joint " << kFaultJoint << " motor status " << f.value << " ("
          << damiao_motor::dm_status_text(f.value) << ")";
      break;
    case FaultKind::kTorqueOver:
      out << kTorqueOverNm << " N·m external torque on joint " << kPushedJoint;
      break;
    case FaultKind::kTorqueUnder:
      out << kTorqueUnderNm << " N·m external torque on joint " << kPushedJoint;
      break;
    case FaultKind::kReplyLoss:
      out << f.value << " % of replies lost";
      break;
    case FaultKind::kReplyDelay:
      out << "replies " << f.value << " ms late";
      break;
    case FaultKind::kUnknownPayload:
      out << kUnknownPayloadKg << " kg payload the configuration does not know";
      break;
    case FaultKind::kInterfaceDown:
      out << "CAN interface down";
      break;
    case FaultKind::kSimulatorKilled:
      out << "simulator process killed";
      break;
  }
  return out.str();
}

std::optional<Activity> parse_activity(const std::string& text) {
  for (Activity a : all_activities()) {
    if (name(a) == text) {
      return a;
    }
  }
  return std::nullopt;
}

std::optional<Fault> parse_fault(const std::string& text) {
  for (const Fault& f : all_faults()) {
    if (name(f) == text) {
      return f;
    }
  }
  return std::nullopt;
}

Expectation expected(Activity a, const Fault& f) {
  const bool floating = a == Activity::kFloating;
  switch (f.kind) {
    case FaultKind::kSilentJoint:
      return {Outcome::kStop, "motor silent stop: joint=" + std::to_string(kFaultJoint),
              "motor supervision: a silent arm motor stops the arm, naming it"};
    case FaultKind::kSilentGripper:
      return {Outcome::kReport, "gripper motor silent",
              "motor supervision: the gripper's motor is reported, the arm goes on"};
    case FaultKind::kStatus:
      return {Outcome::kStop,
              "motor fault stop: joint=" + std::to_string(kFaultJoint) +
                  " status=" + std::to_string(f.value),
              "motor supervision: a motor in fault stops the arm, naming the fault"};
    case FaultKind::kTorqueOver:
      if (floating) {
        // Nothing resists the push: the motors only carry gravity, the joint speeds up.
        return {Outcome::kStop, "runtime joint",
                "run-time supervision: the pushed floating arm exceeds its limits"};
      }
      return {Outcome::kStop, "trigger emergency_stop on joint " + std::to_string(kPushedJoint),
              "torque monitor: 6 s above the stop limit"};
    case FaultKind::kTorqueUnder:
      if (floating) {
        return {Outcome::kCarryOnOrStop, "runtime joint",
                "floating: a push moves the arm; too fast, the run-time checks stop it"};
      }
      return {Outcome::kCarryOn, "", "torque monitor: below the warning limit"};
    case FaultKind::kReplyLoss:
    case FaultKind::kReplyDelay:
      return {Outcome::kCarryOn, "", "feedback still arrives within the silence time-out"};
    case FaultKind::kUnknownPayload:
      if (floating) {
        return {Outcome::kCarryOnOrStop, "runtime joint",
                "floating: an uncompensated load sinks the arm; too fast, the checks stop it"};
      }
      return {Outcome::kCarryOn, "", "the position gains carry what the feed-forward misses"};
    case FaultKind::kInterfaceDown:
    case FaultKind::kSimulatorKilled:
      // Replies already on their way when the bus went arrive a moment later from some motors:
      // the line names those silent for the whole time-out, usually all six.
      return {Outcome::kStop, "motor silent stop: joints=",
              "motor supervision; the motors' own time-out disables them"};
  }
  return {Outcome::kCarryOn, "", ""};
}

std::string describe(const Expectation& e) {
  switch (e.outcome) {
    case Outcome::kStop:
      return "stop: \"" + e.cause + "\"";
    case Outcome::kCarryOn:
      return "carry on";
    case Outcome::kReport:
      return "carry on, report \"" + e.cause + "\"";
    case Outcome::kCarryOnOrStop:
      return "carry on, or stop: \"" + e.cause + "\"";
  }
  return "?";
}

std::vector<std::string> stop_causes(const std::vector<std::string>& lines) {
  std::vector<std::string> causes;
  std::vector<std::string> kinds;
  for (const auto& line : lines) {
    const std::string kind = stop_kind(line);
    if (!kind.empty() && std::find(kinds.begin(), kinds.end(), kind) == kinds.end()) {
      kinds.push_back(kind);
      causes.push_back(line);
    }
  }
  return causes;
}

Verdict judge(const Expectation& e, const Observation& o) {
  Verdict v;
  const auto causes = stop_causes(o.lines);
  const auto matching = std::find_if(o.lines.begin(), o.lines.end(),
                                     [&](const std::string& l) { return contains(l, e.cause); });
  if (!causes.empty()) {
    v.cause_line = causes.front();
  } else if (!e.cause.empty() && matching != o.lines.end()) {
    v.cause_line = *matching;
  } else {
    const auto first = std::find_if(o.lines.begin(), o.lines.end(), is_warning_or_stop);
    v.cause_line = first != o.lines.end() ? *first : "";
  }
  std::vector<std::string> problems;
  if (o.stopped_before_injection) {
    v.why = "the arm had stopped before the injection";
    return v;
  }
  if (o.largest_jump > 1.0) {
    std::ostringstream jump;
    jump.precision(2);
    jump << "commanded jump " << o.largest_jump << " x the limits";
    problems.push_back(jump.str());
  }
  const auto carry_on_problems = [&] {
    if (o.emergency_stop) {
      problems.push_back("emergency stop" + (causes.empty() ? "" : ": " + causes.front()));
    }
    if (!o.activity_ok) {
      problems.push_back("activity: " + o.activity_result);
    }
    if (!o.motors_holding) {
      problems.push_back("motors " + o.motors);
    }
  };
  switch (e.outcome) {
    case Outcome::kStop:
      if (!o.emergency_stop) {
        problems.push_back("no emergency stop");
      }
      if (causes.empty() || !contains(causes.front(), e.cause)) {
        problems.push_back("cause: " + (causes.empty() ? std::string("none") : causes.front()));
      } else if (causes.size() > 1) {
        problems.push_back("stop reported " + std::to_string(causes.size()) + " ways");
      }
      if (!o.motors_disabled) {
        problems.push_back("motors " + o.motors);
      }
      break;
    case Outcome::kCarryOn:
      carry_on_problems();
      break;
    case Outcome::kReport: {
      carry_on_problems();
      const auto n = std::count_if(o.lines.begin(), o.lines.end(),
                                   [&](const std::string& l) { return contains(l, e.cause); });
      if (n != 1) {
        problems.push_back("\"" + e.cause + "\" reported " + std::to_string(n) + " times");
      }
      break;
    }
    case Outcome::kCarryOnOrStop:
      if (o.emergency_stop) {
        if (causes.empty() || !contains(causes.front(), e.cause) || causes.size() > 1) {
          problems.push_back("cause: " + (causes.empty() ? std::string("none") : causes.front()));
        }
        if (!o.motors_disabled) {
          problems.push_back("motors " + o.motors);
        }
      } else {
        carry_on_problems();
      }
      break;
  }
  v.as_expected = problems.empty();
  for (size_t i = 0; i < problems.size(); ++i) {
    v.why += (i > 0 ? "; " : "") + problems[i];
  }
  return v;
}

}  // namespace kestrel::faults
