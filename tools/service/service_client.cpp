#include "service_client.hpp"

namespace kestrel::service {

ServiceClient::ServiceClient(const std::string& socket_path)
    : channel_(LineChannel::connect_unix(socket_path)) {}

json ServiceClient::read_message() {
  std::string line;
  if (channel_.read_line(line) != LineChannel::Read::line) {
    throw std::runtime_error("the arm service closed the connection");
  }
  return json::parse(line);
}

json ServiceClient::call(const std::string& op, json fields) {
  const long id = next_id_++;
  fields["op"] = op;
  fields["id"] = id;
  if (!channel_.write_line(fields.dump())) {
    throw std::runtime_error("the arm service closed the connection");
  }
  for (;;) {
    json message = read_message();
    if (message.contains("event")) {
      states_.push_back(std::move(message));
      continue;
    }
    if (message.value("id", json(nullptr)) != json(id)) {
      continue;  // a reply to a request given up on earlier
    }
    if (message.value("ok", false)) {
      return message["result"];
    }
    const json& error = message["error"];
    const std::string type = error.value("type", "runtime_error");
    const std::string text = error.value("message", "");
    if (type == "invalid_argument") {
      throw std::invalid_argument(text);
    }
    throw ServiceError(type, text);
  }
}

json ServiceClient::next_state() {
  while (states_.empty()) {
    json message = read_message();
    if (message.contains("event")) {
      states_.push_back(std::move(message));
    }
  }
  json state = std::move(states_.front()["state"]);
  states_.pop_front();
  return state;
}

}  // namespace kestrel::service
