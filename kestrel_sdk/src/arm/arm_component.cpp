#include "kestrel/arm/arm_component.hpp"

#include <memory>
#include <stdexcept>
#include <string>

namespace kestrel::can::socket {

namespace {

void require_ids_for_every_type(size_t types, size_t ids, const char* what) {
  if (ids < types) {
    throw std::invalid_argument("ArmComponent::init_motor_devices: " + std::to_string(types) +
                                " motor types but " + std::to_string(ids) + " " + what);
  }
}

}  // namespace

ArmComponent::ArmComponent(canbus::CANSocket& socket) : DMDeviceCollection(socket) {}

ArmComponent::~ArmComponent() = default;

void ArmComponent::init_motor_devices(std::vector<damiao_motor::MotorType> types,
                                      std::vector<unsigned int> send_ids,
                                      std::vector<unsigned int> recv_ids, bool canfd) {
  // Everything is checked before the first motor exists, so a refused call leaves no half arm.
  if (!motors.empty()) {
    // Growing the vector again would move the motors the devices refer to.
    throw std::logic_error("ArmComponent::init_motor_devices: the arm's motors already exist");
  }
  require_ids_for_every_type(types.size(), send_ids.size(), "send ids");
  require_ids_for_every_type(types.size(), recv_ids.size(), "receive ids");
  for (size_t i = 0; i < types.size(); ++i) {
    if (static_cast<int>(types[i]) >= damiao_motor::MOTOR_TYPE_COUNT) {
      throw std::invalid_argument("ArmComponent::init_motor_devices: invalid motor type " +
                                  std::to_string(static_cast<int>(types[i])) + " for motor " +
                                  std::to_string(i));
    }
  }
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
