// The arm's joint motors as one motor group: owns the motors, creates and registers their
// devices, and inherits the whole group command family.
#pragma once

#include <vector>

#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"

namespace kestrel::can::socket {

class ArmComponent : public damiao_motor::DMDeviceCollection {
 public:
  explicit ArmComponent(canbus::CANSocket& socket);
  ~ArmComponent() override;

  // Creates one motor and device per entry. The id vectors must be at least as long as `types`
  // (std::invalid_argument "ArmComponent::init_motor_devices: 6 motor types but 5 send ids"),
  // every type in the limit table ("... invalid motor type 13 for motor 2"); nothing is created
  // when a check fails. Called once: devices hold references into `motors`, which is never grown
  // afterwards; a second call with motors in place throws std::logic_error
  // "ArmComponent::init_motor_devices: the arm's motors already exist".
  void init_motor_devices(std::vector<damiao_motor::MotorType> types,
                          std::vector<unsigned int> send_ids, std::vector<unsigned int> recv_ids,
                          bool canfd);

 private:
  std::vector<damiao_motor::Motor> motors;
};

}  // namespace kestrel::can::socket
