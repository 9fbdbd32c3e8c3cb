// The device registry: keyed by receive identifier, ordered, dispatching on the whole can_id.
#include "kestrel/canbus/can_device_collection.hpp"

#include <gtest/gtest.h>

#include <vector>

#include "simbus/simbus_testing.hpp"

namespace kestrel::canbus {
namespace {

// Records which callbacks reached it.
class RecordingDevice : public CANDevice {
 public:
  explicit RecordingDevice(uint32_t recv_id) : CANDevice(recv_id - 0x10, recv_id, 0x7FF, false) {}
  void callback(const can_frame& frame) override { classic_ids.push_back(frame.can_id); }
  void callback(const canfd_frame& frame) override { fd_ids.push_back(frame.can_id); }
  std::vector<uint32_t> classic_ids;
  std::vector<uint32_t> fd_ids;
};

class CANDeviceCollectionTest : public ::testing::Test {
 protected:
  simbus::ScopedSimbus bus{{"can0"}};
  CANSocket socket{"can0", false};
  CANDeviceCollection registry{socket};
};

// Devices are iterated in ascending receive id; a frame reaches the device whose receive id
// equals its whole can_id (extended, remote and error flags included), classic or FD.
TEST_F(CANDeviceCollectionTest, IteratesInReceiveIdOrderAndDispatchesOnTheWholeIdentifier) {
  std::vector<std::shared_ptr<RecordingDevice>> devices;
  for (uint32_t id : {0x15u, 0x12u, 0x13u}) {
    devices.push_back(std::make_shared<RecordingDevice>(id));
    registry.add_device(devices.back());
  }
  std::vector<uint32_t> order;
  for (const auto& entry : registry.get_devices()) {
    order.push_back(entry.first);
    EXPECT_EQ(entry.second->get_recv_id(), entry.first);
  }
  EXPECT_EQ(order, (std::vector<uint32_t>{0x12, 0x13, 0x15}));
  EXPECT_EQ(&registry.get_socket(), &socket);

  can_frame frame{};
  for (uint32_t id :
       {0x12u, 0x12u | CAN_EFF_FLAG, 0x12u | CAN_RTR_FLAG, 0x12u | CAN_ERR_FLAG, 0x7FFu}) {
    frame.can_id = id;
    registry.dispatch_frame_callback(frame);
  }
  canfd_frame fd{};
  fd.can_id = 0x12;
  registry.dispatch_frame_callback(fd);
  EXPECT_EQ(devices[1]->classic_ids, (std::vector<uint32_t>{0x12}));
  EXPECT_EQ(devices[1]->fd_ids, (std::vector<uint32_t>{0x12}));
  for (size_t i : {0, 2}) {
    EXPECT_TRUE(devices[i]->classic_ids.empty() && devices[i]->fd_ids.empty()) << i;
  }
}

// A device under an identifier already taken replaces the old one (released); removal goes by
// the device's receive identifier; missing keys and null devices are ignored.
TEST_F(CANDeviceCollectionTest, SameIdentifierReplacesRemovalIsByKeyAndDevicesAreReleased) {
  auto first = std::make_shared<RecordingDevice>(0x11);
  auto second = std::make_shared<RecordingDevice>(0x11);
  registry.add_device(first);
  registry.add_device(second);
  ASSERT_EQ(registry.get_devices().size(), 1u);
  EXPECT_EQ(registry.get_devices().at(0x11), second);
  EXPECT_EQ(first.use_count(), 1) << "the replaced device is released";
  registry.remove_device(first);
  EXPECT_TRUE(registry.get_devices().empty());
  registry.remove_device(first);
  registry.add_device(nullptr);
  registry.remove_device(nullptr);
  EXPECT_TRUE(registry.get_devices().empty());
  {
    CANDeviceCollection scoped(socket);
    scoped.add_device(first);
    EXPECT_EQ(first.use_count(), 2);
  }
  EXPECT_EQ(first.use_count(), 1) << "destruction releases devices";
}

}  // namespace
}  // namespace kestrel::canbus
