#include "campaign/call_checker.hpp"

#include <algorithm>
#include <string>

namespace kestrel::campaign {

namespace {

constexpr double kSetJointTakeOver = 0.02;  // s after set_joint returned
constexpr double kBlockingTakeOver = 1.5;   // s after a blocking call started
constexpr double kChunkTail = 0.1;          // s a chunk may outlast its plan

bool starts_with(const std::string& s, const char* prefix) {
  return s.rfind(prefix, 0) == 0;
}

bool is_chunk(const CallRecord& r) {
  return starts_with(r.call.kind, "update_joint_waypoint_chunk") &&
         r.call.expect != Expectation::kInvalidArgument;
}

bool is_set_joint(const CallRecord& r) {
  return starts_with(r.call.kind, "set_joint") && r.call.expect != Expectation::kInvalidArgument;
}

const char* expected_text(Expectation e) {
  switch (e) {
    case Expectation::kAny:
      return "a return or std::runtime_error";
    case Expectation::kMayRefuse:
      return "a return, std::invalid_argument or std::runtime_error";
    case Expectation::kInvalidArgument:
      return "std::invalid_argument";
    case Expectation::kRuntimeError:
      return "std::runtime_error";
    case Expectation::kZeroAtOnce:
      return "0.0 at once";
  }
  return "?";
}

bool outcome_as_expected(const CallRecord& r) {
  switch (r.call.expect) {
    case Expectation::kAny:
      return r.outcome == Outcome::kReturned || r.outcome == Outcome::kRuntimeError;
    case Expectation::kMayRefuse:
      return r.outcome == Outcome::kReturned || r.outcome == Outcome::kRuntimeError ||
             r.outcome == Outcome::kInvalidArgument;
    case Expectation::kInvalidArgument:
      return r.outcome == Outcome::kInvalidArgument;
    case Expectation::kRuntimeError:
      return r.outcome == Outcome::kRuntimeError;
    case Expectation::kZeroAtOnce:
      return r.outcome == Outcome::kReturned && r.value >= 0.0 && r.value <= kAtOnceDuration;
  }
  return false;
}

double duration_bound(const CallRecord& r) {
  if (!r.call.blocking || r.call.expect == Expectation::kZeroAtOnce) {
    return kNonBlockingBound;
  }
  const double motion = r.outcome == Outcome::kReturned ? r.value : r.call.expected_duration;
  return motion + kBlockingSlack;
}

}  // namespace

std::vector<Violation> check_calls(const std::vector<CallRecord>& calls) {
  std::vector<Violation> out;
  for (size_t i = 0; i < calls.size(); ++i) {
    const CallRecord& r = calls[i];
    const std::string which = "call #" + std::to_string(i) + " " + r.call.text;
    if (!outcome_as_expected(r)) {
      out.push_back(
          {r.start, -1, "call outcome", r.value, 0.0, static_cast<size_t>(-1),
           which + " expected " + expected_text(r.call.expect) + ", got " + describe_outcome(r)});
    }
    const double bound = duration_bound(r);
    if (r.duration() > bound) {
      out.push_back({r.start, -1, "call duration", r.duration(), bound, static_cast<size_t>(-1),
                     which + " " + describe_outcome(r)});
    }
  }
  return out;
}

std::vector<Exemption> exemption_windows(const std::vector<CallRecord>& calls) {
  // When an accepted chunk may have been running: from its call until its plan has ended.
  std::vector<std::pair<double, double>> chunks;
  for (const CallRecord& r : calls) {
    if (is_chunk(r) && r.outcome == Outcome::kReturned) {
      chunks.emplace_back(r.start, r.end + r.call.switch_delay + r.value + kChunkTail);
    }
  }
  std::vector<Exemption> out;
  for (size_t i = 0; i < calls.size(); ++i) {
    const CallRecord& r = calls[i];
    if (is_set_joint(r) && r.outcome == Outcome::kReturned) {
      out.push_back({r.start, r.end + kSetJointTakeOver, i});
      continue;
    }
    if (!r.call.blocking || (r.outcome != Outcome::kReturned && !r.interrupted())) {
      continue;
    }
    // It plans from the measured joints at rest: a chunk running while it planned or when it
    // took over was replaced without regard to its motion.
    const double end = std::min(r.end, r.start + kBlockingTakeOver);
    const bool chunk_running = std::any_of(chunks.begin(), chunks.end(), [&](const auto& c) {
      return c.first <= end && c.second >= r.start;
    });
    if (chunk_running) {
      out.push_back({r.start, r.start + kBlockingTakeOver, i});
    }
  }
  return out;
}

}  // namespace kestrel::campaign
