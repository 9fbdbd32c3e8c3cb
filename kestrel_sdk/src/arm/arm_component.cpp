#include "kestrel/arm/arm_component.hpp"

#include <memory>

namespace kestrel::can::socket {

ArmComponent::ArmComponent(canbus::CANSocket& socket) : DMDeviceCollection(socket) {}

ArmComponent::~ArmComponent() = default;

void ArmComponent::init_motor_devices(std::vector<damiao_motor::MotorType> types,
                                      std::vector<unsigned int> send_ids,
                                      std::vector<unsigned int> recv_ids, bool canfd) {
  // Reserve first: each device keeps a reference to its motor inside this vector.
  motors.reserve(types.size());
  for (size_t i = 0; i < types.size(); ++i) {
    motors.emplace_back(types[i], send_ids[i], recv_ids[i]);
    auto device = std::make_shared<damiao_motor::DMCANDevice>(motors.back(),
                                                              damiao_motor::PARAM_CAN_ID, canfd);
    get_device_collection().add_device(device);
  }
}

}  // namespace kestrel::can::socket
