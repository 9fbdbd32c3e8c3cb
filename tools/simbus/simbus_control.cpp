#include "simbus/simbus_control.hpp"

#include <dirent.h>
#include <fcntl.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <stdexcept>

#include "simbus/simbus_paths.hpp"

namespace kestrel::simbus {

int connect_to_hub(const std::string& directory, std::string_view name, int type_flags) {
  const std::string path = socket_path(directory, name);
  if (!fits_socket_path(path)) {
    return -ENAMETOOLONG;
  }
  const int fd = ::socket(AF_UNIX, SOCK_SEQPACKET | type_flags, 0);
  if (fd < 0) {
    return -errno;
  }
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  int result;
  do {
    result = ::connect(fd, reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  } while (result < 0 && errno == EINTR);
  if (result < 0) {
    const int error = errno;
    ::close(fd);
    return -error;
  }
  return fd;
}

bool is_served(const std::string& directory, std::string_view name) {
  // Every interface lookup of every interposed process comes here: one lstat settles the
  // common case of a name no hub serves.
  struct stat info;
  if (::lstat(socket_path(directory, name).c_str(), &info) != 0 || !S_ISSOCK(info.st_mode)) {
    return false;
  }
  const int fd = connect_to_hub(directory, name, SOCK_NONBLOCK | SOCK_CLOEXEC);
  if (fd >= 0) {
    ::close(fd);
    return true;
  }
  // A full backlog still means that a live hub listens there.
  return fd == -EAGAIN;
}

std::vector<std::string> interface_files(const std::string& directory) {
  std::vector<std::string> names;
  DIR* dir = ::opendir(directory.c_str());
  if (dir == nullptr) {
    return names;
  }
  while (const dirent* entry = ::readdir(dir)) {
    const std::string name = entry->d_name;
    if (!is_valid_interface_name(name)) {
      continue;
    }
    struct stat info;
    if (::fstatat(::dirfd(dir), entry->d_name, &info, AT_SYMLINK_NOFOLLOW) == 0 &&
        S_ISSOCK(info.st_mode)) {
      names.push_back(name);
    }
  }
  ::closedir(dir);
  std::sort(names.begin(), names.end());
  return names;
}

bool hub_request(const std::string& directory, std::string_view name, const void* request,
                 std::size_t request_size, void* reply, std::size_t reply_size) {
  const int fd = connect_to_hub(directory, name, SOCK_CLOEXEC);
  if (fd < 0) {
    return false;
  }
  bool answered = false;
  if (::send(fd, request, request_size, MSG_NOSIGNAL) == static_cast<ssize_t>(request_size)) {
    pollfd waiter{fd, POLLIN, 0};
    int ready;
    do {
      ready = ::poll(&waiter, 1, kHubReplyTimeoutMs);
    } while (ready < 0 && errno == EINTR);
    if (ready == 1) {
      answered = ::recv(fd, reply, reply_size, MSG_DONTWAIT) == static_cast<ssize_t>(reply_size);
    }
  }
  ::close(fd);
  return answered;
}

InterfaceStatistics statistics_from_info(std::string_view name, const protocol::InfoMessage& info) {
  InterfaceStatistics stats;
  stats.name = std::string(name);
  stats.ifindex = interface_index(name);
  stats.up = info.up != 0;
  stats.mtu = static_cast<int>(info.mtu);
  stats.wire_time = info.wire_time != 0;
  stats.bitrate = info.bitrate;
  stats.data_bitrate = info.data_bitrate;
  stats.clients = info.clients;
  stats.frames_received = info.frames_received;
  stats.frames_relayed = info.frames_relayed;
  stats.deliveries = info.deliveries;
  stats.frames_dropped = info.frames_dropped;
  stats.frames_discarded = info.frames_discarded;
  stats.busy_time = std::chrono::nanoseconds(info.busy_ns);
  stats.elapsed = std::chrono::nanoseconds(info.elapsed_ns);
  return stats;
}

namespace {

// nullopt when no hub answers; a refusal also leaves `status` at the hub's answer.
std::optional<InterfaceStatistics> request_info(const std::string& directory, std::string_view name,
                                                protocol::MessageType type, std::uint32_t argument,
                                                protocol::InfoStatus* status = nullptr) {
  const protocol::RequestMessage request{protocol::kMagic, static_cast<std::uint32_t>(type),
                                         argument};
  protocol::InfoMessage info{};
  if (!hub_request(directory, name, &request, sizeof(request), &info, sizeof(info)) ||
      info.magic != protocol::kMagic ||
      info.type != static_cast<std::uint32_t>(protocol::MessageType::info)) {
    return std::nullopt;
  }
  if (status != nullptr) {
    *status = static_cast<protocol::InfoStatus>(info.status);
  }
  if (info.status != static_cast<std::uint32_t>(protocol::InfoStatus::ok)) {
    return std::nullopt;
  }
  return statistics_from_info(name, info);
}

}  // namespace

std::optional<InterfaceStatistics> query_interface(const std::string& directory,
                                                   std::string_view name) {
  return request_info(directory, name, protocol::MessageType::query, 0);
}

std::optional<InterfaceStatistics> set_interface_state(const std::string& directory,
                                                       std::string_view name, bool up) {
  return request_info(directory, name, protocol::MessageType::set_state, up ? 1 : 0);
}

std::optional<InterfaceStatistics> set_interface_mtu(const std::string& directory,
                                                     std::string_view name, int mtu) {
  auto status = protocol::InfoStatus::ok;
  auto stats = request_info(directory, name, protocol::MessageType::set_mtu,
                            static_cast<std::uint32_t>(mtu), &status);
  if (status == protocol::InfoStatus::busy) {
    throw std::runtime_error(mtu_while_up_message(name));
  }
  if (status != protocol::InfoStatus::ok) {
    throw std::runtime_error(invalid_mtu_message(name, mtu));
  }
  return stats;
}

std::string invalid_mtu_message(std::string_view name, int mtu) {
  return "invalid MTU " + std::to_string(mtu) + " for '" + std::string(name) +
         "': 16 (classic CAN) or 72 (CAN FD)";
}

std::string mtu_while_up_message(std::string_view name) {
  return "cannot change the MTU of '" + std::string(name) + "' while it is up (set it down first)";
}

}  // namespace kestrel::simbus
