// Who may command the arm: any number of clients watch, one at a time holds control. A client
// takes the lease when nobody holds it and keeps it until it releases it or disconnects.
#pragma once

#include <mutex>
#include <stdexcept>
#include <string>

namespace kestrel::service {

// A command refused because the client does not hold control (protocol error type
// "no_control").
struct ControlRefused : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class ControlLease {
 public:
  static constexpr int kNobody = 0;

  // Takes the lease for `client` (again, if it already holds it); ControlRefused naming
  // the holder otherwise.
  void acquire(int client);
  // Gives it up; false when `client` did not hold it.
  bool release(int client);
  // ControlRefused unless `client` holds the lease.
  void require(int client) const;
  int holder() const;

 private:
  mutable std::mutex mutex_;
  int holder_ = kNobody;
};

}  // namespace kestrel::service
