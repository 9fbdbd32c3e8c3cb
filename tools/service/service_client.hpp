// A client of the arm service: one connection, requests answered in order, streamed state
// kept aside until asked for. The kestrel tool uses it when a service runs for its interface.
#pragma once

#include <deque>
#include <stdexcept>
#include <string>

#include "line_channel.hpp"
#include "request_dispatch.hpp"

namespace kestrel::service {

// An error the service answered with: its type ("runtime_error", "no_control", ...) and the
// message (the library's own for the library's errors).
struct ServiceError : std::runtime_error {
  ServiceError(std::string error_type, const std::string& message)
      : std::runtime_error(message), type(std::move(error_type)) {}
  std::string type;
};

class ServiceClient {
 public:
  explicit ServiceClient(const std::string& socket_path);

  // Sends {"op": op, ...fields} and waits for its reply: the result, or std::invalid_argument
  // (the library's bad-argument errors) or ServiceError.
  json call(const std::string& op, json fields = json::object());
  // The next streamed state (after "subscribe"); std::runtime_error once the service has gone.
  json next_state();

 private:
  json read_message();
  LineChannel channel_;
  long next_id_ = 1;
  std::deque<json> states_;
};

}  // namespace kestrel::service
