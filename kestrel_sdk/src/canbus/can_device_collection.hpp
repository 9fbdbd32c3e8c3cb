// Registry of bus devices keyed by receive identifier; hands each received frame to its owner.
#pragma once

#include <cstdint>
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
};

}  // namespace kestrel::canbus
