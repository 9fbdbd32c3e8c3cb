// Two small helpers over the socket API, for the tests that drive raw CAN sockets directly.
#pragma once

#include <net/if.h>
#include <sys/types.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

namespace kestrel::simbus::rawcan {

// An interface request naming `name`, cut to IFNAMSIZ bytes (without a terminator then).
inline ifreq request_for(const std::string& name) {
  ifreq request{};
  std::memcpy(request.ifr_name, name.data(), std::min<std::size_t>(name.size(), IFNAMSIZ));
  return request;
}

// The errno a socket call failed with, 0 when it succeeded.
inline int errno_of(ssize_t result) {
  return result < 0 ? errno : 0;
}

}  // namespace kestrel::simbus::rawcan
