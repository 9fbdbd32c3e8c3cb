// Plain SocketCAN helpers for tests that talk to a simbus interface the way any program would.
#pragma once

#include <gtest/gtest.h>
#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <cstring>
#include <initializer_list>
#include <string>
#include <utility>
#include <vector>

namespace kestrel::simbus::rawcan {

// Owns one descriptor.
class Fd {
 public:
  Fd() = default;
  explicit Fd(int fd) : fd_(fd) {}
  ~Fd() { reset(); }
  Fd(Fd&& other) noexcept : fd_(other.release()) {}
  Fd& operator=(Fd&& other) noexcept {
    reset(other.release());
    return *this;
  }
  int get() const { return fd_; }
  int release() { return std::exchange(fd_, -1); }
  void reset(int fd = -1) {
    if (fd_ >= 0) {
      ::close(fd_);
    }
    fd_ = fd;
  }

 private:
  int fd_ = -1;
};

inline int interface_index_of(int fd, const std::string& name) {
  ifreq request{};
  std::strncpy(request.ifr_name, name.c_str(), IFNAMSIZ - 1);
  return ::ioctl(fd, SIOCGIFINDEX, &request) < 0 ? -1 : request.ifr_ifindex;
}

// A raw CAN socket bound to `name` (FD frames enabled when asked); an invalid Fd, with the
// failure recorded, when any step fails.
inline Fd open_can(const std::string& name, bool fd_frames = false) {
  const auto failed = [&name](const char* step) {
    ADD_FAILURE() << step << ' ' << name << ": " << std::strerror(errno);
    return Fd();
  };
  Fd socket_fd(::socket(PF_CAN, SOCK_RAW, CAN_RAW));
  if (socket_fd.get() < 0) {
    return failed("socket(PF_CAN) for");
  }
  sockaddr_can address{};
  address.can_family = AF_CAN;
  address.can_ifindex = interface_index_of(socket_fd.get(), name);
  if (address.can_ifindex < 0) {
    return failed("SIOCGIFINDEX");
  }
  const int one = 1;
  if (fd_frames &&
      ::setsockopt(socket_fd.get(), SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &one, sizeof(one)) < 0) {
    return failed("CAN_RAW_FD_FRAMES on");
  }
  if (::bind(socket_fd.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) < 0) {
    return failed("bind");
  }
  return socket_fd;
}

inline can_frame classic_frame(canid_t id, std::initializer_list<std::uint8_t> data) {
  can_frame frame{};
  frame.can_id = id;
  frame.can_dlc = static_cast<std::uint8_t>(data.size());
  std::copy(data.begin(), data.end(), frame.data);
  return frame;
}

// An FD frame of `length` bytes 0, 1, 2, ... (plus `seed`).
inline canfd_frame fd_frame(canid_t id, std::uint8_t length, std::uint8_t flags = CANFD_BRS,
                            std::uint8_t seed = 0) {
  canfd_frame frame{};
  frame.can_id = id;
  frame.len = length;
  frame.flags = flags;
  for (std::uint8_t i = 0; i < length; ++i) {
    frame.data[i] = static_cast<std::uint8_t>(seed + i);
  }
  return frame;
}

// One read after waiting up to `timeout_ms` for data; -1 with errno = ETIMEDOUT when none came.
inline ssize_t read_within(int fd, void* buffer, std::size_t size, int timeout_ms) {
  pollfd waiter{fd, POLLIN, 0};
  if (::poll(&waiter, 1, timeout_ms) != 1) {
    errno = ETIMEDOUT;
    return -1;
  }
  return ::read(fd, buffer, size);
}

// True when nothing arrives within `timeout_ms`.
inline bool stays_silent(int fd, int timeout_ms) {
  pollfd waiter{fd, POLLIN, 0};
  return ::poll(&waiter, 1, timeout_ms) == 0;
}

// Identifiers of the classic frames read until `count` arrived or `timeout_ms` passed between two.
inline std::vector<canid_t> read_ids(int fd, std::size_t count, int timeout_ms = 2000) {
  std::vector<canid_t> ids;
  canfd_frame frame{};
  while (ids.size() < count && read_within(fd, &frame, sizeof(frame), timeout_ms) > 0) {
    ids.push_back(frame.can_id);
  }
  return ids;
}

}  // namespace kestrel::simbus::rawcan
