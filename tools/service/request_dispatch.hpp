// The arm operations of the service's protocol: each request names an ArmController operation
// ("op") and carries its arguments as JSON fields; the answer is a JSON result. Which requests
// need control and which wait for a motion to end is decided here, in one table.
#pragma once

#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>

#include "kestrel/controller/interfaces.hpp"

namespace kestrel::service {

using nlohmann::json;

// A request that is not well-formed (protocol error type "bad_request").
struct BadRequest : std::runtime_error {
  using std::runtime_error::runtime_error;
};

// What the operations need to know of the arm beyond the controller.
struct ArmFacts {
  bool gripper = true;
  bool mit_mode = true;
};

struct ArmOperation {
  bool needs_control;  // only the lease holder may send it
  bool waits;          // returns when the motion has ended: run off the client's reader
  json (*run)(ArmController& arm, const ArmFacts& facts, const json& request);
};

// The operation named `op`; nullptr for an unknown name.
const ArmOperation* find_arm_operation(const std::string& op);

// {"id": id, "ok": true, "result": result}
json success_reply(const json& id, json result);
// {"id": id, "ok": false, "error": {"type": type, "message": message}}
json error_reply(const json& id, const std::string& type, const std::string& message);
// The error reply for the exception being handled: the library's exception type
// (invalid_argument, runtime_error, ...) or the protocol's own (bad_request, no_control).
json current_exception_reply(const json& id);

}  // namespace kestrel::service
