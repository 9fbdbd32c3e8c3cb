// Where an arm service lives: one registry file per CAN interface, locked while the service
// runs and holding its socket path, so that clients find the service by interface name and a
// second service for the same interface is refused.
#pragma once

#include <optional>
#include <string>

namespace kestrel::service {

// $KESTREL_SERVICE_DIR, else $XDG_RUNTIME_DIR/kestrel, else /tmp/kestrel-<uid>.
std::string service_directory();
// <directory>/<interface>.sock
std::string default_socket_path(const std::string& interface);
// <directory>/<interface>.lock: holds the socket path while a service runs.
std::string registry_path(const std::string& interface);

// The registration of a running service: an exclusive lock on the registry file.
class ServiceRegistration {
 public:
  // Creates the directory (owner only) and takes the lock; std::runtime_error naming the
  // running service's socket when another service holds it.
  ServiceRegistration(const std::string& interface, const std::string& socket_path);
  ~ServiceRegistration();  // removes the file and drops the lock
  ServiceRegistration(const ServiceRegistration&) = delete;
  ServiceRegistration& operator=(const ServiceRegistration&) = delete;

 private:
  std::string path_;
  int fd_ = -1;
};

// The socket of the service running for `interface`, when one answers; nullopt otherwise.
std::optional<std::string> find_service(const std::string& interface);

}  // namespace kestrel::service
