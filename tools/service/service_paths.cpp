#include "service_paths.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <stdexcept>

namespace kestrel::service {

std::string service_directory() {
  const char* own = std::getenv("KESTREL_SERVICE_DIR");
  if (own != nullptr && own[0] != '\0') {
    return own;
  }
  const char* runtime = std::getenv("XDG_RUNTIME_DIR");
  if (runtime != nullptr && runtime[0] != '\0') {
    return std::string(runtime) + "/kestrel";
  }
  return "/tmp/kestrel-" + std::to_string(::getuid());
}

std::string default_socket_path(const std::string& interface) {
  return service_directory() + "/" + interface + ".sock";
}

std::string registry_path(const std::string& interface) {
  return service_directory() + "/" + interface + ".lock";
}

namespace {

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::string text;
  std::getline(in, text);
  return text;
}

bool answers(const std::string& socket_path) {
  sockaddr_un address{};
  if (socket_path.empty() || socket_path.size() >= sizeof address.sun_path) {
    return false;
  }
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, socket_path.c_str());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const bool ok = ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  ::close(fd);
  return ok;
}

}  // namespace

ServiceRegistration::ServiceRegistration(const std::string& interface,
                                         const std::string& socket_path)
    : path_(registry_path(interface)) {
  const std::string dir = service_directory();
  if (::mkdir(dir.c_str(), 0700) != 0 && errno != EEXIST) {
    throw std::runtime_error("cannot create " + dir + ": " + std::strerror(errno));
  }
  fd_ = ::open(path_.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (fd_ < 0) {
    throw std::runtime_error("cannot open " + path_ + ": " + std::strerror(errno));
  }
  if (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
    const std::string running = read_file(path_);
    ::close(fd_);
    fd_ = -1;
    throw std::runtime_error("a service for " + interface + " is already running (socket " +
                             running + "); its clients reach the arm through it");
  }
  const std::string text = socket_path + "\n";
  if (::ftruncate(fd_, 0) != 0 || ::write(fd_, text.data(), text.size()) < 0) {
    throw std::runtime_error("cannot write " + path_ + ": " + std::strerror(errno));
  }
}

ServiceRegistration::~ServiceRegistration() {
  if (fd_ >= 0) {
    ::unlink(path_.c_str());
    ::close(fd_);
  }
}

std::optional<std::string> find_service(const std::string& interface) {
  std::string path = read_file(registry_path(interface));
  if (path.empty()) {
    path = default_socket_path(interface);
  }
  if (answers(path)) {
    return path;
  }
  return std::nullopt;
}

}  // namespace kestrel::service
