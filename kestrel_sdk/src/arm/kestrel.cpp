#include "kestrel/arm/kestrel.hpp"

#include <algorithm>
#include <cstddef>

namespace kestrel::can::socket {

namespace {

// Each group takes the values from index zero, as many as it has motors.
std::vector<float> first_values_for(const damiao_motor::DMDeviceCollection& group,
                                    const std::vector<float>& values) {
  const size_t count = std::min(values.size(), group.dm_devices().size());
  return {values.begin(), values.begin() + static_cast<std::ptrdiff_t>(count)};
}

}  // namespace

Kestrel::Kestrel(const std::string& interface_name, bool canfd)
    : interface_name(interface_name), canfd(canfd) {
  socket = std::make_unique<canbus::CANSocket>(interface_name, canfd);
  dispatcher = std::make_unique<canbus::CANDeviceCollection>(*socket);
  arm = std::make_unique<ArmComponent>(*socket);
  gripper = std::make_unique<GripperComponent>(*socket);
}

// Members go in reverse order of declaration: collections, dispatcher (its shared devices refer
// to motors the groups own), gripper, arm, then the socket, which closes the descriptor.
Kestrel::~Kestrel() = default;

void Kestrel::init_arm_motors(const std::vector<damiao_motor::MotorType>& types,
                              const std::vector<unsigned int>& send_ids,
                              const std::vector<unsigned int>& recv_ids) {
  arm->init_motor_devices(types, send_ids, recv_ids, canfd);
  register_dm_device_collection(*arm);
}

void Kestrel::init_gripper_motor(damiao_motor::MotorType type, unsigned int send_id,
                                 unsigned int recv_id) {
  // A replaced gripper motor's device must leave the dispatcher with it: it refers to the motor
  // that init_motor_device releases.
  for (const auto& entry : gripper->get_device_collection().get_devices()) {
    dispatcher->remove_device(entry.second);
  }
  gripper->init_motor_device(type, send_id, recv_id, canfd);
  if (std::find(collections.begin(), collections.end(), gripper.get()) == collections.end()) {
    register_dm_device_collection(*gripper);
    return;
  }
  for (const auto& entry : gripper->get_device_collection().get_devices()) {
    dispatcher->add_device(entry.second);  // the group is registered already: only its device
  }
}

void Kestrel::register_dm_device_collection(damiao_motor::DMDeviceCollection& group) {
  for (const auto& entry : group.get_device_collection().get_devices()) {
    dispatcher->add_device(entry.second);
  }
  collections.push_back(&group);
}

void Kestrel::recv_all(int timeout_us) {
  if (canfd) {
    canfd_frame frame;
    while (socket->is_data_available(timeout_us) && socket->read_canfd_frame(frame)) {
      dispatcher->dispatch_frame_callback(frame);
    }
  } else {
    can_frame frame;
    while (socket->is_data_available(timeout_us) && socket->read_can_frame(frame)) {
      dispatcher->dispatch_frame_callback(frame);
    }
  }
}

template <typename Fn>
void Kestrel::for_each_group(Fn&& fn) {
  for (auto* group : collections) {
    fn(*group);
  }
}

void Kestrel::enable_all() {
  for_each_group([](auto& g) { g.enable_all(); });
}
void Kestrel::disable_all() {
  for_each_group([](auto& g) { g.disable_all(); });
}
void Kestrel::set_zero_all() {
  for_each_group([](auto& g) { g.set_zero_all(); });
}
void Kestrel::refresh_all() {
  for_each_group([](auto& g) { g.refresh_all(); });
}
void Kestrel::set_timeout_all(unsigned int t) {
  for_each_group([t](auto& g) { g.set_timeout_all(t); });
}
void Kestrel::switch_all_motors_mode(int mode) {
  for_each_group([mode](auto& g) { g.switch_all_motors_mode(mode); });
}
void Kestrel::query_param_all(int rid) {
  for_each_group([rid](auto& g) { g.query_param_all(rid); });
}
void Kestrel::query_acc_all() {
  for_each_group([](auto& g) { g.query_acc_all(); });
}
void Kestrel::query_dec_all() {
  for_each_group([](auto& g) { g.query_dec_all(); });
}
void Kestrel::query_kp_apr_all() {
  for_each_group([](auto& g) { g.query_kp_apr_all(); });
}
void Kestrel::set_acc_all(const std::vector<float>& values) {
  for_each_group([&values](auto& g) { g.set_acc_all(first_values_for(g, values)); });
}
void Kestrel::set_dec_all(const std::vector<float>& values) {
  for_each_group([&values](auto& g) { g.set_dec_all(first_values_for(g, values)); });
}
void Kestrel::set_kp_apr_all(const std::vector<float>& values) {
  for_each_group([&values](auto& g) { g.set_kp_apr_all(first_values_for(g, values)); });
}
void Kestrel::set_callback_mode_all(damiao_motor::CallbackMode mode) {
  for_each_group([mode](auto& g) { g.set_callback_mode_all(mode); });
}

}  // namespace kestrel::can::socket
