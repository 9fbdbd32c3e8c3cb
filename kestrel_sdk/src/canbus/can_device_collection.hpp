// Registry of bus devices keyed by receive identifier; hands each received frame to its owner.
#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>

#include "kestrel/canbus/can_device.hpp"
#include "kestrel/canbus/can_socket.hpp"

namespace kestrel::canbus {

class CANDeviceCollection {
 public:
  explicit CANDeviceCollection(CANSocket& socket);
  ~CANDeviceCollection();

  CANDeviceCollection(const CANDeviceCollection&) = delete;
  CANDeviceCollection& operator=(const CANDeviceCollection&) = delete;

  // Registers under device->recv_id, replacing any device already there. Null is ignored.
  void add_device(const std::shared_ptr<CANDevice>& device);
  // Erases the entry keyed by device->recv_id, whichever device it holds. Null is ignored.
  void remove_device(const std::shared_ptr<CANDevice>& device);
  // Called on the caller's thread after every add_device or remove_device with a device (null
  // arguments change nothing and call nothing). A motor group keeps its own device list in step
  // with its registry through it. One listener; a new one replaces the old.
  void set_change_listener(std::function<void()> listener);

  // The whole 32-bit can_id is the key, flag bits included: extended, remote and error
  // frames never match an 11-bit motor identifier. Unknown identifiers are dropped silently.
  void dispatch_frame_callback(can_frame& frame);
  void dispatch_frame_callback(canfd_frame& frame);

  // Iteration runs in ascending receive identifier: the device order of every motor group.
  const std::map<uint32_t, std::shared_ptr<CANDevice>>& get_devices() const { return devices; }
  CANSocket& get_socket() const { return socket; }

 private:
  CANSocket& socket;
  std::map<uint32_t, std::shared_ptr<CANDevice>> devices;
  std::function<void()> on_change;
};

}  // namespace kestrel::canbus
