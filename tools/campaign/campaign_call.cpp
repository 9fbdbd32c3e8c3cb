#include "campaign/campaign_call.hpp"

#include <cmath>
#include <cstdio>

namespace kestrel::campaign {

bool CallRecord::interrupted() const {
  return outcome == Outcome::kRuntimeError && call.blocking &&
         (message.find("stopped") != std::string::npos ||
          message.find("interrupted") != std::string::npos);
}

std::string cpp(double value) {
  if (std::isnan(value)) {
    return "NAN";
  }
  if (std::isinf(value)) {
    return value > 0 ? "INFINITY" : "-INFINITY";
  }
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%.17g", value);
  return buffer;
}

std::string cpp(const std::vector<double>& values) {
  std::string s = "{";
  for (size_t i = 0; i < values.size(); ++i) {
    s += (i ? ", " : "") + cpp(values[i]);
  }
  return s + "}";
}

std::string cpp(const std::vector<std::vector<double>>& values) {
  std::string s = "{";
  for (size_t i = 0; i < values.size(); ++i) {
    s += (i ? ", " : "") + cpp(values[i]);
  }
  return s + "}";
}

std::string describe_outcome(const CallRecord& record) {
  switch (record.outcome) {
    case Outcome::kReturned:
      return "returned " + cpp(record.value);
    case Outcome::kInvalidArgument:
      return "std::invalid_argument: " + record.message;
    case Outcome::kRuntimeError:
      return "std::runtime_error: " + record.message;
    case Outcome::kWrongAnswer:
      return "wrong answer: " + record.message;
    case Outcome::kOtherException:
      return "unexpected exception: " + record.message;
  }
  return "?";
}

}  // namespace kestrel::campaign
