#include "kestrel/canbus/can_socket.hpp"

#include <net/if.h>
#include <poll.h>
#include <sys/ioctl.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <iostream>

namespace kestrel::canbus {

namespace {

// The kernel refuses such a frame too, but only with EINVAL and after the call: refuse it here,
// by name. Only the error path builds text.
void require_length_fits(const char* operation, unsigned length, unsigned capacity,
                         const char* kind) {
  if (length > capacity) {
    throw std::invalid_argument(std::string(operation) + ": length " + std::to_string(length) +
                                " exceeds the " + std::to_string(capacity) + " bytes of a " + kind +
                                " frame");
  }
}

}  // namespace

SendFailureCause send_failure_cause(int error) {
  switch (error) {
    case EINVAL:
    case EMSGSIZE:
      return SendFailureCause::refused;
    case ENOBUFS:
    case EAGAIN:
      return SendFailureCause::queue_full;
    case ENETDOWN:
      return SendFailureCause::interface_down;
    default:
      return SendFailureCause::other;
  }
}

std::string send_error_text(int error) {
  const char* name = nullptr;
#if defined(__GLIBC__) && (__GLIBC__ > 2 || (__GLIBC__ == 2 && __GLIBC_MINOR__ >= 32))
  name = ::strerrorname_np(error);
#endif
  return std::string(std::strerror(error)) + " (" +
         (name != nullptr ? std::string(name) : "errno " + std::to_string(error)) + ")";
}

std::string describe_send_failures(const SendFailureCounts& counts) {
  if (counts.total() == 0) {
    return "0";
  }
  return std::to_string(counts.total()) + " (refused " + std::to_string(counts.refused) +
         ", queue full " + std::to_string(counts.queue_full) + ", interface down " +
         std::to_string(counts.interface_down) + ", other " + std::to_string(counts.other) +
         "; last " + send_error_text(counts.last_errno) + ")";
}

std::string canfd_mtu_refusal(const std::string& name, int mtu) {
  if (mtu < 0 || mtu >= static_cast<int>(CANFD_MTU)) {
    return {};
  }
  return "CAN interface '" + name + "' is not CAN FD capable (MTU " + std::to_string(mtu) +
         "): use classic CAN, or enable CAN FD with: sudo ip link set " + name +
         " down && sudo ip link set " + name +
         " up type can bitrate 1000000 dbitrate 5000000 fd on (a vcan: sudo ip link set " + name +
         " mtu 72)";
}

std::string canfd_refusal(const std::string& name, bool canfd) {
  if (!canfd) {
    return {};
  }
  const int s = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
  if (s < 0) {
    return {};
  }
  struct ifreq ifr;
  std::memset(&ifr, 0, sizeof(ifr));
  std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
  const int mtu = ::ioctl(s, SIOCGIFMTU, &ifr) == 0 ? ifr.ifr_mtu : -1;
  ::close(s);
  return canfd_mtu_refusal(name, mtu);
}

CANSocket::CANSocket(const std::string& interface_name, bool canfd)
    : socket_fd(-1), interface_name(interface_name), canfd_enabled(canfd), is_initialized(false) {
  if (!initialize_socket(interface_name)) {
    throw CANSocketException("Failed to initialize socket for interface: " + interface_name);
  }
  is_initialized = true;
}

CANSocket::~CANSocket() {
  cleanup();
}

bool CANSocket::initialize_socket(const std::string& name) {
  socket_fd = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
  if (socket_fd < 0) {
    return false;
  }

  // The kernel keeps 15 characters of an interface name plus the terminator.
  struct ifreq ifr;
  std::memset(&ifr, 0, sizeof(ifr));
  std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
  ifr.ifr_name[IFNAMSIZ - 1] = '\0';
  if (::ioctl(socket_fd, SIOCGIFINDEX, &ifr) < 0) {
    ::close(socket_fd);
    return false;
  }

  struct sockaddr_can addr;
  std::memset(&addr, 0, sizeof(addr));
  addr.can_family = AF_CAN;
  addr.can_ifindex = ifr.ifr_ifindex;

  if (canfd_enabled) {
    int one = 1;
    if (::setsockopt(socket_fd, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &one, sizeof(int)) < 0) {
      ::close(socket_fd);
      return false;
    }
  }

  if (::bind(socket_fd, reinterpret_cast<struct sockaddr*>(&addr), sizeof(struct sockaddr_can)) <
      0) {
    ::close(socket_fd);
    return false;
  }

  // A blocking read never hangs for more than 100 microseconds.
  struct timeval tv;
  tv.tv_sec = 0;
  tv.tv_usec = 100;
  if (::setsockopt(socket_fd, SOL_SOCKET, SO_RCVTIMEO, &tv, sizeof(struct timeval)) < 0) {
    ::close(socket_fd);
    return false;
  }

  struct ifreq flags_req;
  std::memset(&flags_req, 0, sizeof(flags_req));
  std::snprintf(flags_req.ifr_name, IFNAMSIZ, "%s", name.c_str());
  if (::ioctl(socket_fd, SIOCGIFFLAGS, &flags_req) < 0) {
    std::perror("ioctl(SIOCGIFFLAGS)");
    ::close(socket_fd);
    return false;
  }
  if (flags_req.ifr_flags & IFF_UP) {
    return true;
  }

  std::cerr << "CAN interface " << '"' << name << '"' << " is DOWN. "
            << "Did you run: sudo ip link set " << name << " up type can bitrate 1000000 ?"
            << std::endl;
  ::close(socket_fd);
  return false;
}

int CANSocket::interface_mtu() const {
  struct ifreq ifr;
  std::memset(&ifr, 0, sizeof(ifr));
  std::strncpy(ifr.ifr_name, interface_name.c_str(), IFNAMSIZ - 1);
  if (::ioctl(socket_fd, SIOCGIFMTU, &ifr) < 0) {
    return -1;
  }
  return ifr.ifr_mtu;
}

SendFailureCounts CANSocket::send_failures() const {
  SendFailureCounts counts;
  counts.refused = refused_writes.load(std::memory_order_relaxed);
  counts.queue_full = queue_full_writes.load(std::memory_order_relaxed);
  counts.interface_down = interface_down_writes.load(std::memory_order_relaxed);
  counts.other = other_failed_writes.load(std::memory_order_relaxed);
  counts.last_errno = last_write_errno.load(std::memory_order_relaxed);
  return counts;
}

// The failure path only: one relaxed increment, errno untouched. A short write (which CAN
// sockets do not make) has no errno of its own and counts as other.
[[gnu::cold]] void CANSocket::count_send_failure(ssize_t result) noexcept {
  const int error = result < 0 ? errno : 0;
  std::atomic<std::uint64_t>* counter = &other_failed_writes;
  switch (send_failure_cause(error)) {
    case SendFailureCause::refused:
      counter = &refused_writes;
      break;
    case SendFailureCause::queue_full:
      counter = &queue_full_writes;
      break;
    case SendFailureCause::interface_down:
      counter = &interface_down_writes;
      break;
    case SendFailureCause::other:
      break;
  }
  counter->fetch_add(1, std::memory_order_relaxed);
  last_write_errno.store(error, std::memory_order_relaxed);
}

void CANSocket::cleanup() {
  if (socket_fd > 0) {
    ::close(socket_fd);
    socket_fd = -1;
  }
}

ssize_t CANSocket::read_raw_frame(void* buffer, size_t length) {
  if (!is_initialized) {
    return -1;
  }
  return ::read(socket_fd, buffer, length);
}

ssize_t CANSocket::write_raw_frame(const void* buffer, size_t length) {
  // Only the two frame sizes have a length byte to check; any other size is the kernel's to refuse.
  const auto* bytes = static_cast<const uint8_t*>(buffer);
  if (bytes != nullptr && length == CAN_MTU) {
    require_length_fits("write_raw_frame", bytes[offsetof(can_frame, can_dlc)], CAN_MAX_DLEN,
                        "classic CAN");
  } else if (bytes != nullptr && length == CANFD_MTU) {
    require_length_fits("write_raw_frame", bytes[offsetof(canfd_frame, len)], CANFD_MAX_DLEN,
                        "CAN FD");
  }
  if (!is_initialized) {
    return -1;
  }
  const ssize_t written = ::write(socket_fd, buffer, length);
  if (written < 0) {
    count_send_failure(written);
  }
  return written;
}

bool CANSocket::write_can_frame(const can_frame& frame) {
  require_length_fits("write_can_frame", frame.can_dlc, CAN_MAX_DLEN, "classic CAN");
  const ssize_t written = ::write(socket_fd, &frame, CAN_MTU);
  if (written == static_cast<ssize_t>(CAN_MTU)) {
    return true;
  }
  count_send_failure(written);
  return false;
}

bool CANSocket::write_canfd_frame(const canfd_frame& frame) {
  require_length_fits("write_canfd_frame", frame.len, CANFD_MAX_DLEN, "CAN FD");
  const ssize_t written = ::write(socket_fd, &frame, CANFD_MTU);
  if (written == static_cast<ssize_t>(CANFD_MTU)) {
    return true;
  }
  count_send_failure(written);
  return false;
}

bool CANSocket::read_can_frame(can_frame& frame) {
  if (!is_initialized) {
    return false;
  }
  return ::read(socket_fd, &frame, CAN_MTU) == static_cast<ssize_t>(CAN_MTU);
}

bool CANSocket::read_canfd_frame(canfd_frame& frame) {
  if (!is_initialized) {
    return false;
  }
  return ::read(socket_fd, &frame, CANFD_MTU) == static_cast<ssize_t>(CANFD_MTU);
}

bool CANSocket::is_data_available(int timeout_us) {
  if (!is_initialized) {
    return false;
  }
  if (socket_fd < 0) {
    return false;  // cleaned up: nothing to wait on (and FD_SET of -1 is undefined)
  }
  if (socket_fd >= FD_SETSIZE) {
    // select() cannot describe this descriptor; poll() waits for the same condition.
    struct pollfd pfd = {socket_fd, POLLIN, 0};
    const int timeout_ms = (timeout_us + 999) / 1000;
    return ::poll(&pfd, 1, timeout_ms) > 0 && (pfd.revents & POLLIN) != 0;
  }
  fd_set readset;
  FD_ZERO(&readset);
  FD_SET(socket_fd, &readset);
  struct timeval tv;
  tv.tv_sec = timeout_us / 1000000;
  tv.tv_usec = timeout_us % 1000000;
  if (::select(socket_fd + 1, &readset, nullptr, nullptr, &tv) < 1) {
    return false;
  }
  return FD_ISSET(socket_fd, &readset);
}

}  // namespace kestrel::canbus
