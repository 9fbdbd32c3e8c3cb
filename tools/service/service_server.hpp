// The arm service's socket server: accepts clients on a Unix-domain socket and serves each on
// its own reader thread. Motions that wait run on a second thread per client, so that the same
// client can still ask for state or stop while one runs. A client that disconnects while it
// holds control or runs a motion stops the arm (it holds) before the lease is freed.
#pragma once

#include <functional>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "control_lease.hpp"
#include "request_dispatch.hpp"
#include "state_stream.hpp"

namespace kestrel::service {

struct ServerOptions {
  std::string socket_path;
  std::optional<std::string> group;  // also let this group's members connect
  ArmFacts facts;
};

class ServiceServer {
 public:
  // Creates the socket (owner-only, or owner and group) and listens; std::runtime_error with
  // the reason when it cannot.
  ServiceServer(ArmController& arm, ServerOptions options);
  ~ServiceServer();  // shut_down()
  ServiceServer(const ServiceServer&) = delete;
  ServiceServer& operator=(const ServiceServer&) = delete;

  // Accepts and serves clients until `keep_running` says false (asked every 100 ms).
  void serve(const std::function<bool()>& keep_running);
  // Stops accepting, removes the socket, ends every client (their motions end and the arm
  // holds) and waits for their threads. Idempotent.
  void shut_down();

 private:
  struct Session;
  void read_requests(Session& session);
  void handle(Session& session, const std::string& line);
  json handle_session_request(Session& session, const std::string& op, const json& request);
  void start_waiting_operation(Session& session, const ArmOperation& operation, json request);
  void end_session(Session& session);
  void reap_finished_sessions();

  ArmController& arm_;
  ServerOptions options_;
  ControlLease lease_;
  StateReader state_;
  int listen_fd_ = -1;
  int next_client_ = 1;
  std::mutex sessions_mutex_;
  std::list<std::unique_ptr<Session>> sessions_;
};

}  // namespace kestrel::service
