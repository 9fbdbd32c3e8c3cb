#include "kestrel/canbus/can_device_collection.hpp"

namespace kestrel::canbus {

CANDeviceCollection::CANDeviceCollection(CANSocket& socket) : socket(socket) {}

CANDeviceCollection::~CANDeviceCollection() {
  devices.clear();
}

void CANDeviceCollection::add_device(const std::shared_ptr<CANDevice>& device) {
  if (!device) {
    return;
  }
  devices[device->get_recv_id()] = device;
}

void CANDeviceCollection::remove_device(const std::shared_ptr<CANDevice>& device) {
  if (!device) {
    return;
  }
  devices.erase(device->get_recv_id());
}

void CANDeviceCollection::dispatch_frame_callback(can_frame& frame) {
  auto it = devices.find(frame.can_id);
  if (it != devices.end()) {
    it->second->callback(frame);
  }
}

void CANDeviceCollection::dispatch_frame_callback(canfd_frame& frame) {
  auto it = devices.find(frame.can_id);
  if (it != devices.end()) {
    it->second->callback(frame);
  }
}

}  // namespace kestrel::canbus
