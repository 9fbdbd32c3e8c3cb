// The gripper's single motor as a motor group, with the mapping from an opening command
// (normalised position or width in metres) to a motor angle through the gripper linkage.
#pragma once

#include <memory>

#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"

namespace kestrel::can::socket {

class GripperComponent : public damiao_motor::DMDeviceCollection {
 public:
  explicit GripperComponent(canbus::CANSocket& socket);
  ~GripperComponent() override;

  // Replaces the motor and its device. Until this is called every command is ignored silently
  // once its arguments have been checked.
  void init_motor_device(damiao_motor::MotorType type, unsigned int send_id, unsigned int recv_id,
                         bool canfd);

  // Every command refuses a NaN or infinite argument with std::invalid_argument before anything
  // is sent: "GripperComponent::set_distance: distance must be finite, got nan".

  // 1 = open, 0 = closed; not clamped, finite values outside extrapolate.
  void set_position(double position, double kp, double kd);
  void open(double kp, double kd);
  void close(double kp, double kd);
  // Opening width in metres, 0 to 0.085. A finite value out of range prints an error and
  // commands -1.0 rad.
  void set_distance(double distance, double kp, double kd);
  // Pure torque, zero gains.
  void set_tau(double tau);

  // The frames set_distance and set_tau send (they are send_encoded of these), encoded without
  // sending or allocating, so that a control loop can encode all its frames before writing any.
  // The same refusals with the same messages, and encode_distance prints the same out-of-range
  // line. There is nothing to encode before init_motor_device: std::logic_error
  // "GripperComponent::encode_distance: the gripper has no motor".
  damiao_motor::EncodedFrame encode_distance(double distance, double kp, double kd) const;
  damiao_motor::EncodedFrame encode_tau(double tau) const;

  // Motor angle for an opening width, through the linkage; a finite value out of range gives
  // -1.0 rad, a NaN or infinite one throws std::invalid_argument
  // "GripperComponent::distance_to_motor_angle: distance must be finite, got nan".
  static double distance_to_motor_angle(double distance);
  // Inverse of the linkage: opening width for a motor angle; -1.0 where the linkage cannot
  // reach (then `sqrt_arg` receives the negative square-root argument).
  static double motor_angle_to_distance(double motor_angle, double* sqrt_arg = nullptr);
  // Normalised position for a motor angle, the linear map between the calibration angles.
  double motor_angle_to_position(double motor_angle) const;

  double get_open_input() const { return open_input; }
  double get_close_input() const { return close_input; }
  double get_open_motor_position() const { return open_motor_position; }
  double get_close_motor_position() const { return close_motor_position; }
  double get_linkage_offset() const { return linkage_offset; }
  double get_motor_travel() const { return motor_travel; }
  const damiao_motor::Motor* get_motor() const { return motor.get(); }

  static constexpr double kMaxDistance = 0.085;

 private:
  std::unique_ptr<damiao_motor::Motor> motor;
  std::shared_ptr<damiao_motor::DMCANDevice> device;
  double open_input;
  double close_input;
  double open_motor_position;
  double close_motor_position;
  double linkage_offset;
  double motor_travel;
};

}  // namespace kestrel::can::socket
