#include "simbus/simbus_paths.hpp"

#include <sys/un.h>
#include <unistd.h>

#include <cctype>
#include <cstdlib>

namespace kestrel::simbus {

std::string bus_directory() {
  const char* explicit_dir = std::getenv(kDirectoryEnv);
  if (explicit_dir != nullptr && explicit_dir[0] != '\0') {
    return explicit_dir;
  }
  const char* runtime_dir = std::getenv("XDG_RUNTIME_DIR");
  if (runtime_dir != nullptr && runtime_dir[0] != '\0') {
    return std::string(runtime_dir) + "/kestrel-simbus";
  }
  return "/tmp/kestrel-simbus-" + std::to_string(::getuid());
}

bool is_valid_interface_name(std::string_view name) {
  if (name.empty() || name.size() > kMaxInterfaceNameLength || name == "." || name == "..") {
    return false;
  }
  for (char c : name) {
    if (c == '/' || c == ':' || c == '\0' || std::isspace(static_cast<unsigned char>(c))) {
      return false;
    }
  }
  return true;
}

std::string_view kernel_interface_name(std::string_view name) {
  const std::size_t nul = name.find('\0');
  if (nul != std::string_view::npos) {
    name = name.substr(0, nul);
  }
  return name.substr(0, kMaxInterfaceNameLength);
}

int interface_index(std::string_view name) {
  std::uint32_t hash = 2166136261u;  // FNV-1a, 32 bits
  for (char c : name) {
    hash ^= static_cast<unsigned char>(c);
    hash *= 16777619u;
  }
  return kFirstInterfaceIndex | static_cast<int>(hash & 0x3FFFFFFFu);
}

std::string socket_path(const std::string& directory, std::string_view name) {
  std::string path = directory;
  path += '/';
  path += name;
  return path;
}

std::string state_path(const std::string& directory, std::string_view name) {
  return socket_path(directory, name) + ":state";
}

bool fits_socket_path(const std::string& path) {
  return path.size() < sizeof(sockaddr_un{}.sun_path);
}

}  // namespace kestrel::simbus
