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

TEST_F(CANDeviceCollectionTest, IteratesInAscendingReceiveIdentifier) {
  for (uint32_t id : {0x15u, 0x11u, 0x13u}) {
    registry.add_device(std::make_shared<RecordingDevice>(id));
  }
  std::vector<uint32_t> order;
  for (const auto& entry : registry.get_devices()) {
    order.push_back(entry.first);
    EXPECT_EQ(entry.second->get_recv_id(), entry.first);
  }
  EXPECT_EQ(order, (std::vector<uint32_t>{0x11, 0x13, 0x15}));
  EXPECT_EQ(&registry.get_socket(), &socket);
}

TEST_F(CANDeviceCollectionTest, SameIdentifierReplacesAndRemovalIsByKey) {
  auto first = std::make_shared<RecordingDevice>(0x11);
  auto second = std::make_shared<RecordingDevice>(0x11);
  registry.add_device(first);
  registry.add_device(second);
  ASSERT_EQ(registry.get_devices().size(), 1u);
  EXPECT_EQ(registry.get_devices().at(0x11), second);
  EXPECT_EQ(first.use_count(), 1) << "the replaced device is released";

  // Removing the replaced device removes whatever is registered under its identifier.
  registry.remove_device(first);
  EXPECT_TRUE(registry.get_devices().empty());
  registry.remove_device(first);  // a missing key is ignored
  registry.add_device(nullptr);
  registry.remove_device(nullptr);
  EXPECT_TRUE(registry.get_devices().empty());
}

TEST_F(CANDeviceCollectionTest, DispatchUsesTheWholeIdentifier) {
  auto motor = std::make_shared<RecordingDevice>(0x12);
  auto other = std::make_shared<RecordingDevice>(0x13);
  registry.add_device(motor);
  registry.add_device(other);

  can_frame frame{};
  frame.can_id = 0x12;
  registry.dispatch_frame_callback(frame);
  frame.can_id = 0x12 | CAN_EFF_FLAG;  // extended frame with the same low bits
  registry.dispatch_frame_callback(frame);
  frame.can_id = 0x12 | CAN_RTR_FLAG;
  registry.dispatch_frame_callback(frame);
  frame.can_id = 0x12 | CAN_ERR_FLAG;
  registry.dispatch_frame_callback(frame);
  frame.can_id = 0x7FF;  // nobody's
  registry.dispatch_frame_callback(frame);
  canfd_frame fd{};
  fd.can_id = 0x12;
  registry.dispatch_frame_callback(fd);

  EXPECT_EQ(motor->classic_ids, (std::vector<uint32_t>{0x12}));
  EXPECT_EQ(motor->fd_ids, (std::vector<uint32_t>{0x12}));
  EXPECT_TRUE(other->classic_ids.empty());
  EXPECT_TRUE(other->fd_ids.empty());
}

TEST_F(CANDeviceCollectionTest, DestructionReleasesDevices) {
  auto device = std::make_shared<RecordingDevice>(0x11);
  {
    CANDeviceCollection scoped(socket);
    scoped.add_device(device);
    EXPECT_EQ(device.use_count(), 2);
  }
  EXPECT_EQ(device.use_count(), 1);
}

}  // namespace
}  // namespace kestrel::canbus
