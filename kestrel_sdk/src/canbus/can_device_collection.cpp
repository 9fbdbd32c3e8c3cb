#include "kestrel/canbus/can_device_collection.hpp"

#include <utility>

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
  if (on_change) {
    on_change();
  }
}

void CANDeviceCollection::remove_device(const std::shared_ptr<CANDevice>& device) {
  if (!device) {
    return;
  }
  devices.erase(device->get_recv_id());
  if (on_change) {
    on_change();
  }
}

void CANDeviceCollection::set_change_listener(std::function<void()> listener) {
  on_change = std::move(listener);
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
