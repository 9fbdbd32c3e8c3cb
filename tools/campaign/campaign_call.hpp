// One call of the campaign: what it does to the controller, how it reads in C++ (for the
// reproduction), what outcome it must have, and the record of how it went.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

#include "kestrel/controller/interfaces.hpp"

namespace kestrel::campaign {

enum class Expectation {
  kAny,              // return, or refuse with std::runtime_error (a plan that cannot be made)
  kMayRefuse,        // kAny, or std::invalid_argument (a set_joint far too fast)
  kInvalidArgument,  // bad arguments: std::invalid_argument and nothing else
  kRuntimeError,     // an unreachable pose: std::runtime_error
  kZeroAtOnce,       // a motion to where the arm already is: 0.0, without waiting
};

struct Call {
  std::string kind;  // the operation's name, e.g. "set_joint"
  std::string text;  // the call in C++, arguments at full precision
  bool blocking = false;
  Expectation expect = Expectation::kAny;
  // Blocking calls: the longest the motion should take, seconds (bounds a call that throws).
  // set_joint: its time (the caller waits that long afterwards).
  double expected_duration = 0.0;
  // Chunk updates: the switch delay, seconds.
  double switch_delay = 0.0;
  // Does the call and returns its value (0 for calls without one). State queries throw
  // WrongAnswer on a malformed answer.
  std::function<double(ArmController&)> run;
};

// A state query answered with something no arm can have (wrong size, non-finite value).
struct WrongAnswer : std::runtime_error {
  using std::runtime_error::runtime_error;
};

enum class Outcome { kReturned, kInvalidArgument, kRuntimeError, kWrongAnswer, kOtherException };

struct CallRecord {
  char thread = 'A';
  Call call;           // without its `run`
  double start = 0.0;  // seconds since the campaign's start
  double end = 0.0;
  Outcome outcome = Outcome::kReturned;
  double value = 0.0;
  std::string message;  // the exception's message

  double duration() const { return end - start; }
  // A waiting call ended by stop(), an emergency stop or shutdown.
  bool interrupted() const;
  bool refused() const { return !interrupted() && outcome != Outcome::kReturned; }
};

// Full-precision C++ literals: 0.30000000000000004, NAN, -INFINITY, {1, 2}, {{1, 2}, {3}}.
std::string cpp(double value);
std::string cpp(const std::vector<double>& values);
std::string cpp(const std::vector<std::vector<double>>& values);

// "returned 1.25", "std::invalid_argument: tf must be positive", ...
std::string describe_outcome(const CallRecord& record);

}  // namespace kestrel::campaign
