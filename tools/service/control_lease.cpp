#include "control_lease.hpp"

namespace kestrel::service {

namespace {

std::string held_by(int holder) {
  return "control is held by client " + std::to_string(holder) +
         " (it is free once that client releases it or disconnects)";
}

}  // namespace

void ControlLease::acquire(int client) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (holder_ != kNobody && holder_ != client) {
    throw ControlRefused(held_by(holder_));
  }
  holder_ = client;
}

bool ControlLease::release(int client) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (holder_ != client) {
    return false;
  }
  holder_ = kNobody;
  return true;
}

void ControlLease::require(int client) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (holder_ == kNobody) {
    throw ControlRefused("this command needs control of the arm: send \"acquire\" first");
  }
  if (holder_ != client) {
    throw ControlRefused(held_by(holder_));
  }
}

int ControlLease::holder() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return holder_;
}

}  // namespace kestrel::service
