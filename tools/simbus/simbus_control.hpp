// Talking to a running hub from outside it: finding served interfaces, reading their state and
// counters, switching them up and down. Used by the interposer and by `kestrel-simbus`.
// Every call opens its own short-lived connection, so it is safe from any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "simbus/simbus_protocol.hpp"
#include "simbus/simbus_statistics.hpp"

namespace kestrel::simbus {

// How long a request waits for the hub's answer before giving up.
inline constexpr int kHubReplyTimeoutMs = 2000;

// Connects a SOCK_SEQPACKET socket to the hub serving `name` in `directory`. `type_flags` may
// add SOCK_NONBLOCK / SOCK_CLOEXEC. Returns the descriptor, or -errno (ENOENT: no socket file,
// ECONNREFUSED: a stale file left by a hub that died, ENAMETOOLONG: path too long).
int connect_to_hub(const std::string& directory, std::string_view name, int type_flags);

// True when a hub accepts connections for `name`: its socket file exists and a live process
// listens on it. A stale file from a dead hub is not served.
bool is_served(const std::string& directory, std::string_view name);

// Names of the socket files in `directory` that look like interfaces, sorted; served or stale.
std::vector<std::string> interface_files(const std::string& directory);

// State and counters of a served interface; nullopt when no hub answers.
std::optional<InterfaceStatistics> query_interface(const std::string& directory,
                                                   std::string_view name);

// Marks a served interface up or down (like `ip link set NAME up|down`); returns the state
// after the change, nullopt when no hub answers.
std::optional<InterfaceStatistics> set_interface_state(const std::string& directory,
                                                       std::string_view name, bool up);

// Changes the MTU of a served interface, like `ip link set NAME mtu N` on a vcan: CAN_MTU (16,
// classic frames only) or CANFD_MTU (72, CAN FD as well), and only while the interface is down.
// Returns the state after the change, nullopt when no hub answers; throws std::runtime_error
// with the hub's reason when it refuses.
std::optional<InterfaceStatistics> set_interface_mtu(const std::string& directory,
                                                     std::string_view name, int mtu);

// Why an MTU change is refused; the hub and its remote control say it the same way.
std::string invalid_mtu_message(std::string_view name, int mtu);
std::string mtu_while_up_message(std::string_view name);

// Sends a request on a fresh connection and waits for a control answer of `reply_size`
// bytes. Returns false when the hub cannot be reached or does not answer in time.
bool hub_request(const std::string& directory, std::string_view name, const void* request,
                 std::size_t request_size, void* reply, std::size_t reply_size);

InterfaceStatistics statistics_from_info(std::string_view name, const protocol::InfoMessage& info);

}  // namespace kestrel::simbus
