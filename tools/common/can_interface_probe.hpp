// Opens a raw SocketCAN socket bound to one interface and, when that fails, says why in words a
// user can act on: the name is too long, the interface does not exist, it is DOWN, it does not
// take CAN FD frames (a classic interface, MTU 16). Works on a kernel interface and, through the
// interposer, on the userspace bus.
#pragma once

#include <string>

namespace kestrel::tools {

// The socket descriptor, or -1 with `error` set (one line, no trailing newline).
int open_can_socket(const std::string& name, bool fd, std::string& error);

// Opens and closes the interface once; "" when it can be used, otherwise the reason.
std::string probe_can_interface(const std::string& name, bool fd);

}  // namespace kestrel::tools
