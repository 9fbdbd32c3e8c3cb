#include "can_interface_probe.hpp"

#include <linux/can.h>
#include <linux/can/raw.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "kestrel/canbus/can_socket.hpp"

namespace kestrel::tools {

namespace {

std::string bring_up_hint(const std::string& name) {
  return "sudo ip link set " + name + " up type can bitrate 1000000";
}

int fail(int s, std::string& error, std::string message) {
  if (s >= 0) {
    ::close(s);
  }
  error = std::move(message);
  return -1;
}

}  // namespace

int open_can_socket(const std::string& name, bool fd, std::string& error) {
  if (name.size() >= IFNAMSIZ) {
    return fail(-1, error,
                "interface name '" + name + "' is longer than " + std::to_string(IFNAMSIZ - 1) +
                    " characters");
  }
  const int s = ::socket(PF_CAN, SOCK_RAW, CAN_RAW);
  if (s < 0) {
    return fail(s, error, std::string("cannot open a CAN socket: ") + std::strerror(errno));
  }
  ifreq ifr{};
  std::strncpy(ifr.ifr_name, name.c_str(), IFNAMSIZ - 1);
  if (::ioctl(s, SIOCGIFINDEX, &ifr) < 0) {
    return fail(s, error,
                "cannot open CAN interface '" + name + "': " + std::strerror(errno) +
                    " (does it exist? for a USB adapter: " + bring_up_hint(name) + ")");
  }
  const int index = ifr.ifr_ifindex;  // SIOCGIFFLAGS reuses the same union
  if (::ioctl(s, SIOCGIFFLAGS, &ifr) == 0 && (ifr.ifr_flags & IFF_UP) == 0) {
    return fail(s, error,
                "CAN interface '" + name + "' is DOWN (bring it up: " + bring_up_hint(name) + ")");
  }
  if (fd) {
    const int on = 1;
    if (::setsockopt(s, SOL_CAN_RAW, CAN_RAW_FD_FRAMES, &on, sizeof on) < 0) {
      return fail(s, error, "'" + name + "' does not take CAN FD frames: " + std::strerror(errno));
    }
    // The option is taken on a classic interface too; only its MTU tells.
    ifreq mtu{};
    std::strncpy(mtu.ifr_name, name.c_str(), IFNAMSIZ - 1);
    const std::string refusal = kestrel::canbus::canfd_mtu_refusal(
        name, ::ioctl(s, SIOCGIFMTU, &mtu) == 0 ? mtu.ifr_mtu : -1);
    if (!refusal.empty()) {
      return fail(s, error, refusal);
    }
  }
  sockaddr_can addr{};
  addr.can_family = AF_CAN;
  addr.can_ifindex = index;
  if (::bind(s, reinterpret_cast<sockaddr*>(&addr), sizeof addr) < 0) {
    const int e = errno;
    return fail(s, error,
                "cannot bind to '" + name + "': " + std::strerror(e) +
                    (e == ENETDOWN ? " (the interface is DOWN: sudo ip link set ... up)" : ""));
  }
  return s;
}

std::string probe_can_interface(const std::string& name, bool fd) {
  std::string error;
  const int s = open_can_socket(name, fd, error);
  if (s >= 0) {
    ::close(s);
  }
  return error;
}

}  // namespace kestrel::tools
