// Where the userspace CAN bus lives on the file system, and how its interfaces are named and
// numbered. Shared by the hub, the interposer and the command-line program so that all three
// agree without talking to each other.
//
// Layout of a bus directory:
//   <dir>/<ifname>         SOCK_SEQPACKET listening socket of the hub serving <ifname>
//   <dir>/<ifname>:state   one page holding the interface state (up/down, hub alive); the hub
//                          writes it, clients map it read-only. ':' cannot appear in an interface
//                          name, so the two never collide.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>

namespace kestrel::simbus {

// The kernel keeps 15 characters of an interface name plus the terminator (IFNAMSIZ = 16).
inline constexpr std::size_t kMaxInterfaceNameLength = 15;

// Environment variable naming the bus directory; read at every lookup, never cached.
inline constexpr const char* kDirectoryEnv = "KESTREL_SIMBUS_DIR";

// The bus directory: $KESTREL_SIMBUS_DIR if set and not empty, else
// $XDG_RUNTIME_DIR/kestrel-simbus if that is set, else /tmp/kestrel-simbus-<uid>.
std::string bus_directory();

// Applies the kernel's rules for a network interface name (dev_valid_name): 1 to 15 characters,
// not "." or "..", no '/', ':' or white space.
bool is_valid_interface_name(std::string_view name);

// Cuts a name the way the kernel does when it reads an ifreq: at most 15 characters, and no
// further than the first NUL byte.
std::string_view kernel_interface_name(std::string_view name);

// Index of a served interface. Real kernels hand out interface indexes sequentially from 1,
// so a simbus index lives in [2^30, 2^31 - 1]: 2^30 plus the low 30 bits of the FNV-1a hash
// of the name. It depends on the name only, so every process (and every hub restart) agrees on
// it without asking; the hub refuses to serve two names whose indexes collide.
int interface_index(std::string_view name);
inline constexpr int kFirstInterfaceIndex = 1 << 30;
inline bool is_simbus_index(int index) {
  return index >= kFirstInterfaceIndex;
}

std::string socket_path(const std::string& directory, std::string_view name);
std::string state_path(const std::string& directory, std::string_view name);

// sockaddr_un holds 107 characters plus the terminator; longer paths cannot be served.
bool fits_socket_path(const std::string& path);

}  // namespace kestrel::simbus
