#include "line_channel.hpp"

#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <stdexcept>

namespace kestrel::service {

LineChannel::LineChannel(int fd, std::size_t max_line) : fd_(fd), max_line_(max_line) {}

LineChannel::~LineChannel() {
  ::close(fd_);
}

int LineChannel::connect_unix(const std::string& path) {
  sockaddr_un address{};
  if (path.size() >= sizeof address.sun_path) {
    throw std::runtime_error("socket path too long: " + path);
  }
  address.sun_family = AF_UNIX;
  std::strcpy(address.sun_path, path.c_str());
  const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
  if (fd < 0 || ::connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) != 0) {
    const std::string reason = std::strerror(errno);
    if (fd >= 0) {
      ::close(fd);
    }
    throw std::runtime_error("cannot connect to the arm service at " + path + ": " + reason);
  }
  return fd;
}

LineChannel::Read LineChannel::read_line(std::string& line) {
  for (;;) {
    const auto newline = buffer_.find('\n');
    if (newline != std::string::npos) {
      const bool tail = skipping_;  // the rest of a line already reported too long
      skipping_ = false;
      if (!tail && newline <= max_line_) {
        line.assign(buffer_, 0, newline);
      }
      buffer_.erase(0, newline + 1);
      if (tail) {
        continue;
      }
      return newline <= max_line_ ? Read::line : Read::too_long;
    }
    if (buffer_.size() > max_line_) {
      buffer_.clear();  // never hold more than one line's worth
      if (!skipping_) {
        skipping_ = true;
        return Read::too_long;
      }
    }
    char chunk[65536];
    const ssize_t n = ::recv(fd_, chunk, sizeof chunk, 0);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return Read::closed;
    }
    buffer_.append(chunk, static_cast<std::size_t>(n));
  }
}

bool LineChannel::write_line(const std::string& text) {
  std::lock_guard<std::mutex> lock(write_mutex_);
  const std::string framed = text + "\n";
  std::size_t sent = 0;
  while (sent < framed.size()) {
    const ssize_t n = ::send(fd_, framed.data() + sent, framed.size() - sent, MSG_NOSIGNAL);
    if (n < 0 && errno == EINTR) {
      continue;
    }
    if (n <= 0) {
      return false;
    }
    sent += static_cast<std::size_t>(n);
  }
  return true;
}

void LineChannel::shut_down() {
  ::shutdown(fd_, SHUT_RDWR);
}

}  // namespace kestrel::service
