#include "kestrel/arm/gripper_component.hpp"

#include <cmath>
#include <iostream>
#include <stdexcept>
#include <string>

namespace kestrel::can::socket {

namespace {

// Gripper linkage (metres): crank radius 0.0355 (squared 0.00126025), coupler 0.038 (squared
// 0.001444), finger guide offset 0.015393 (squared 0.000236944449), finger origin 0.01722.
constexpr double kLinkageOffset = 1.056071;
constexpr double kCrankRadius = 0.0355;
constexpr double kCouplerSquared = 0.001444;
constexpr double kGuideOffset = 0.015393;
constexpr double kFingerOrigin = 0.01722;

// A NaN would reach the motor as the bottom of the position range, an infinity as one end.
// Only the error path builds text.
void require_finite(double value, const char* operation, const char* name) {
  if (!std::isfinite(value)) {
    throw std::invalid_argument(std::string("GripperComponent::") + operation + ": " + name +
                                " must be finite, got " +
                                (std::isnan(value) ? "nan" : std::to_string(value)));
  }
}

void require_finite_gains(double kp, double kd, const char* operation) {
  require_finite(kp, operation, "kp");
  require_finite(kd, operation, "kd");
}

void require_motor(bool has_motor, const char* operation) {
  if (!has_motor) {
    throw std::logic_error(std::string("GripperComponent::") + operation +
                           ": the gripper has no motor");
  }
}

}  // namespace

GripperComponent::GripperComponent(canbus::CANSocket& socket)
    : DMDeviceCollection(socket),
      open_input(1.0),
      close_input(0.0),
      open_motor_position(-1.235463),
      close_motor_position(0.0),
      linkage_offset(kLinkageOffset),
      motor_travel(2.291534) {}

GripperComponent::~GripperComponent() = default;

void GripperComponent::init_motor_device(damiao_motor::MotorType type, unsigned int send_id,
                                         unsigned int recv_id, bool canfd) {
  auto new_motor = std::make_unique<damiao_motor::Motor>(type, send_id, recv_id);
  // The old device refers to the old motor: it leaves the group before that motor goes, even when
  // the new one has another receive identifier (it would stay device 0 of the group otherwise).
  get_device_collection().remove_device(device);
  motor = std::move(new_motor);
  device = std::make_shared<damiao_motor::DMCANDevice>(*motor, damiao_motor::PARAM_CAN_ID, canfd);
  get_device_collection().add_device(device);
}

void GripperComponent::set_position(double position, double kp, double kd) {
  require_finite(position, "set_position", "position");
  require_finite_gains(kp, kd, "set_position");
  if (!device) {
    return;
  }
  const double ratio = (position - open_input) / (close_input - open_input);
  const double q = std::fma(ratio, close_motor_position - open_motor_position, open_motor_position);
  mit_control_one(0, {kp, kd, q, 0.0, 0.0});
}

void GripperComponent::open(double kp, double kd) {
  require_finite_gains(kp, kd, "open");
  set_position(open_input, kp, kd);
}

void GripperComponent::close(double kp, double kd) {
  require_finite_gains(kp, kd, "close");
  set_position(close_input, kp, kd);
}

double GripperComponent::distance_to_motor_angle(double d) {
  require_finite(d, "distance_to_motor_angle", "distance");
  if (d < 0.0 || d > kMaxDistance) {
    return -1.0;
  }
  const double a = 0.5 * d + 0.01722;
  const double B = std::fma(a, a, 0.00023694444900000002);
  const double c =
      (std::fma(a, a, 0.0012602499999999999) + 0.00023694444900000002 - 0.001444) / 0.071;
  const double disc = B - c * c;
  double x;
  double y;
  if (disc < 0.0) {
    x = (c > 0.0 ? 1.0 : -1.0) * std::sqrt(B);
    y = 0.015393;
  } else {
    x = c;
    y = 0.015393 - std::sqrt(disc);
  }
  x = x - a;
  if (x < 0.0) {
    x = -x;
    y = -y;
  }
  return 1.056071 - 2.0 * std::atan2(y, x);
}

void GripperComponent::set_distance(double distance, double kp, double kd) {
  require_finite(distance, "set_distance", "distance");
  require_finite_gains(kp, kd, "set_distance");
  if (!device) {
    return;
  }
  send_encoded(encode_distance(distance, kp, kd));
}

damiao_motor::EncodedFrame GripperComponent::encode_distance(double distance, double kp,
                                                             double kd) const {
  require_finite(distance, "set_distance", "distance");
  require_finite_gains(kp, kd, "set_distance");
  require_motor(device != nullptr, "encode_distance");
  if (distance < 0.0 || distance > kMaxDistance) {
    std::cerr << "Error: Distance out of range! Must be between 0 and 0.085 meters." << std::endl;
  }
  // Out of range still commands the motor, with the fixed angle -1.0 rad.
  return encode_mit_one(0, {kp, kd, distance_to_motor_angle(distance), 0.0, 0.0});
}

void GripperComponent::set_tau(double tau) {
  require_finite(tau, "set_tau", "tau");
  if (!device) {
    return;
  }
  send_encoded(encode_tau(tau));
}

damiao_motor::EncodedFrame GripperComponent::encode_tau(double tau) const {
  require_finite(tau, "set_tau", "tau");
  require_motor(device != nullptr, "encode_tau");
  return encode_mit_one(0, {0.0, 0.0, 0.0, 0.0, tau});
}

double GripperComponent::motor_angle_to_distance(double motor_angle, double* sqrt_arg) {
  const double phi = kLinkageOffset - motor_angle;
  const double t = kCrankRadius * std::sin(phi) - kGuideOffset;
  const double D = kCouplerSquared - t * t;
  if (sqrt_arg) {
    *sqrt_arg = D;
  }
  if (D < 0.0) {
    return -1.0;
  }
  const double x = std::sqrt(D) - kCrankRadius * std::cos(phi);
  return 2.0 * (x - kFingerOrigin);
}

double GripperComponent::motor_angle_to_position(double motor_angle) const {
  const double ratio =
      (motor_angle - open_motor_position) / (close_motor_position - open_motor_position);
  return open_input + ratio * (close_input - open_input);
}

}  // namespace kestrel::can::socket
