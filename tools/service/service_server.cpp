#include "service_server.hpp"

#include <grp.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <thread>

#include "line_channel.hpp"
#include "state_stream.hpp"

namespace kestrel::service {

struct ServiceServer::Session {
  Session(int client_id, int fd) : id(client_id), channel(fd) {}
  int id;
  LineChannel channel;
  std::unique_ptr<StateStream> stream;
  std::thread reader;
  std::thread motion;  // the waiting operation in progress, if any
  std::atomic<bool> motion_running{false};
  std::atomic<bool> finished{false};
};

namespace {

std::runtime_error failure(const std::string& what) {
  return std::runtime_error(what + ": " + std::strerror(errno));
}

int listening_socket(const std::string& path, const std::optional<std::string>& group) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) {
    throw std::runtime_error("socket path too long (" + std::to_string(path.size()) +
                             " bytes): " + path);
  }
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  if (::access(path.c_str(), F_OK) == 0) {
    const int probe = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    const bool live = ::connect(probe, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
    ::close(probe);
    if (live) {
      throw std::runtime_error("socket " + path + " is in use by another service");
    }
    ::unlink(path.c_str());  // left behind by a service that did not end cleanly
  }
  gid_t gid = 0;
  if (group) {
    const struct group* entry = ::getgrnam(group->c_str());
    if (entry == nullptr) {
      throw std::runtime_error("no such group \"" + *group + "\"");
    }
    gid = entry->gr_gid;
  }
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    throw failure("socket");
  }
  // Owner-only from the moment it exists: no window in which others could connect.
  const mode_t saved = ::umask(0177);
  const int bound = ::bind(fd, reinterpret_cast<sockaddr*>(&address), sizeof address);
  ::umask(saved);
  if (bound != 0 || ::listen(fd, 16) != 0) {
    const auto error = failure("cannot listen on " + path);
    ::close(fd);
    throw error;
  }
  if (group && (::chown(path.c_str(), static_cast<uid_t>(-1), gid) != 0 ||
                ::chmod(path.c_str(), 0660) != 0)) {
    const auto error = failure("cannot give group " + *group + " access to " + path);
    ::close(fd);
    ::unlink(path.c_str());
    throw error;
  }
  return fd;
}

}  // namespace

ServiceServer::ServiceServer(ArmController& arm, ServerOptions options)
    : arm_(arm), options_(std::move(options)), state_(arm, options_.facts) {
  listen_fd_ = listening_socket(options_.socket_path, options_.group);
}

ServiceServer::~ServiceServer() {
  shut_down();
}

void ServiceServer::serve(const std::function<bool()>& keep_running) {
  while (keep_running() && listen_fd_ >= 0) {
    pollfd p{listen_fd_, POLLIN, 0};
    if (::poll(&p, 1, 100) <= 0) {
      reap_finished_sessions();
      continue;
    }
    const int fd = ::accept4(listen_fd_, nullptr, nullptr, SOCK_CLOEXEC);
    if (fd < 0) {
      continue;
    }
    std::lock_guard<std::mutex> lock(sessions_mutex_);
    sessions_.push_back(std::make_unique<Session>(next_client_++, fd));
    Session& session = *sessions_.back();
    session.reader = std::thread([this, &session] { read_requests(session); });
  }
}

void ServiceServer::shut_down() {
  if (listen_fd_ >= 0) {
    ::close(listen_fd_);
    listen_fd_ = -1;
    ::unlink(options_.socket_path.c_str());
  }
  std::lock_guard<std::mutex> lock(sessions_mutex_);
  for (auto& session : sessions_) {
    session->channel.shut_down();
  }
  for (auto& session : sessions_) {
    session->reader.join();
  }
  sessions_.clear();
}

void ServiceServer::reap_finished_sessions() {
  std::lock_guard<std::mutex> lock(sessions_mutex_);
  for (auto it = sessions_.begin(); it != sessions_.end();) {
    if ((*it)->finished.load()) {
      (*it)->reader.join();
      it = sessions_.erase(it);
    } else {
      ++it;
    }
  }
}

void ServiceServer::read_requests(Session& session) {
  std::string line;
  for (;;) {
    const auto read = session.channel.read_line(line);
    if (read == LineChannel::Read::closed) {
      break;
    }
    if (read == LineChannel::Read::too_long) {
      session.channel.write_line(
          error_reply(
              nullptr, "bad_request",
              "request longer than " + std::to_string(LineChannel::kMaxLine) + " bytes: ignored")
              .dump());
      continue;
    }
    if (line.find_first_not_of(" \t\r") != std::string::npos) {
      handle(session, line);
    }
  }
  end_session(session);
}

void ServiceServer::handle(Session& session, const std::string& line) {
  json id = nullptr;
  try {
    json request;
    try {
      request = json::parse(line);
    } catch (const json::parse_error& e) {
      throw BadRequest(std::string("not a JSON document: ") + e.what());
    }
    if (!request.is_object()) {
      throw BadRequest("a request is one JSON object per line");
    }
    id = request.value("id", json(nullptr));
    const auto op_field = request.find("op");
    if (op_field == request.end() || !op_field->is_string()) {
      throw BadRequest("a request names its operation in the string field \"op\"");
    }
    const std::string op = op_field->get<std::string>();
    if (const ArmOperation* operation = find_arm_operation(op)) {
      if (operation->needs_control) {
        lease_.require(session.id);
      }
      if (operation->waits) {
        start_waiting_operation(session, *operation, std::move(request));
        return;
      }
      session.channel.write_line(
          success_reply(id, operation->run(arm_, options_.facts, request)).dump());
      return;
    }
    session.channel.write_line(
        success_reply(id, handle_session_request(session, op, request)).dump());
  } catch (...) {
    session.channel.write_line(current_exception_reply(id).dump());
  }
}

json ServiceServer::handle_session_request(Session& session, const std::string& op,
                                           const json& request) {
  if (op == "ping") {
    return json{{"client", session.id}, {"protocol", 1}};
  }
  if (op == "state") {
    return state_.snapshot(lease_.holder());
  }
  if (op == "acquire") {
    lease_.acquire(session.id);
    return json{{"client", session.id}};
  }
  if (op == "release") {
    if (!lease_.release(session.id)) {
      throw ControlRefused("this client does not hold control");
    }
    return json::object();
  }
  if (op == "subscribe") {
    const auto rate = request.find("rate_hz");
    if (rate == request.end() || !rate->is_number()) {
      throw BadRequest("subscribe needs the number field \"rate_hz\"");
    }
    if (!session.stream) {
      session.stream = std::make_unique<StateStream>(
          session.channel, [this] { return state_.snapshot(lease_.holder()); });
    }
    session.stream->start(rate->get<double>());
    return json::object();
  }
  if (op == "unsubscribe") {
    if (session.stream) {
      session.stream->stop();
    }
    return json::object();
  }
  throw BadRequest("unknown operation \"" + op + "\"");
}

void ServiceServer::start_waiting_operation(Session& session, const ArmOperation& operation,
                                            json request) {
  if (session.motion_running.load()) {
    throw std::runtime_error(
        "a motion from this client is still running: wait for its reply or send stop");
  }
  if (session.motion.joinable()) {
    session.motion.join();  // the previous one has replied already
  }
  session.motion_running.store(true);
  session.motion = std::thread([this, &session, &operation, request = std::move(request)] {
    const json id = request.value("id", json(nullptr));
    json reply;
    try {
      reply = success_reply(id, operation.run(arm_, options_.facts, request));
    } catch (...) {
      reply = current_exception_reply(id);
    }
    session.channel.write_line(reply.dump());
    session.motion_running.store(false);
  });
}

void ServiceServer::end_session(Session& session) {
  // Never leave the arm moving for a client that is no longer there to stop it.
  if (session.motion_running.load() || lease_.holder() == session.id) {
    try {
      arm_.stop();
    } catch (const std::exception&) {
      // the controller has ended already: nothing moves
    }
  }
  if (session.motion.joinable()) {
    session.motion.join();
  }
  session.stream.reset();
  lease_.release(session.id);
  session.finished.store(true);
}

}  // namespace kestrel::service
