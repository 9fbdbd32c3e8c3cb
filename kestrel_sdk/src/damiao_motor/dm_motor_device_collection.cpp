#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"

#include <algorithm>

namespace kestrel::damiao_motor {

DMDeviceCollection::DMDeviceCollection(canbus::CANSocket& socket)
    : socket(socket),
      encoder(std::make_unique<CanPacketEncoder>()),
      decoder(std::make_unique<CanPacketDecoder>()),
      device_collection(std::make_unique<canbus::CANDeviceCollection>(socket)) {}

DMDeviceCollection::~DMDeviceCollection() = default;

std::vector<std::shared_ptr<DMCANDevice>> DMDeviceCollection::get_dm_devices() const {
  std::vector<std::shared_ptr<DMCANDevice>> result;
  for (const auto& entry : device_collection->get_devices()) {
    if (auto device = std::dynamic_pointer_cast<DMCANDevice>(entry.second)) {
      result.push_back(std::move(device));
    }
  }
  return result;
}

std::vector<Motor> DMDeviceCollection::get_motors() const {
  std::vector<Motor> motors;
  for (const auto& device : get_dm_devices()) {
    motors.push_back(device->get_motor());
  }
  return motors;
}

bool DMDeviceCollection::send_command_to_device(std::shared_ptr<DMCANDevice> device,
                                                const CANPacket& packet) {
  (void)device;  // the frame type is the socket's choice; the device only names the target
  if (!socket.is_canfd_enabled()) {
    return socket.write_can_frame(DMCANDevice::create_can_frame(packet.can_id, packet.data));
  }
  return socket.write_canfd_frame(DMCANDevice::create_canfd_frame(packet.can_id, packet.data));
}

template <typename MakePacket>
void DMDeviceCollection::send_to_all(MakePacket make_packet) {
  // Back to back in device order, no delay, results not looked at.
  for (const auto& device : get_dm_devices()) {
    send_command_to_device(device, make_packet(device->get_motor()));
  }
}

void DMDeviceCollection::enable_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::create_enable_command(m); });
}

void DMDeviceCollection::disable_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::create_disable_command(m); });
}

void DMDeviceCollection::set_zero_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::create_set_zero_command(m); });
}

void DMDeviceCollection::clrErr_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::create_clrErr_command(m); });
}

void DMDeviceCollection::refresh_one(int index) {
  auto device = get_dm_devices()[index];
  send_command_to_device(device, CanPacketEncoder::create_refresh_command(device->get_motor()));
}

void DMDeviceCollection::refresh_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::create_refresh_command(m); });
}

void DMDeviceCollection::query_param_one(int index, int rid) {
  auto device = get_dm_devices()[index];
  send_command_to_device(device,
                         CanPacketEncoder::create_query_param_command(device->get_motor(), rid));
}

void DMDeviceCollection::query_param_all(int rid) {
  send_to_all(
      [rid](const Motor& m) { return CanPacketEncoder::create_query_param_command(m, rid); });
}

void DMDeviceCollection::query_acc_all() {
  query_param_all(RID_ACC);
}
void DMDeviceCollection::query_dec_all() {
  query_param_all(RID_DEC);
}
void DMDeviceCollection::query_kp_apr_all() {
  query_param_all(RID_KP_APR);
}

void DMDeviceCollection::write_param_one(int index, int rid, unsigned int value) {
  auto device = get_dm_devices()[index];
  send_command_to_device(
      device, CanPacketEncoder::create_write_param_command(device->get_motor(), rid, value));
}

void DMDeviceCollection::write_param_one(int index, int rid, float value) {
  auto device = get_dm_devices()[index];
  send_command_to_device(
      device, CanPacketEncoder::create_write_param_command(device->get_motor(), rid, value));
}

void DMDeviceCollection::set_acc_one(int index, float value) {
  write_param_one(index, RID_ACC, value);
}
void DMDeviceCollection::set_dec_one(int index, float value) {
  write_param_one(index, RID_DEC, value);
}
void DMDeviceCollection::set_kp_apr_one(int index, float value) {
  write_param_one(index, RID_KP_APR, value);
}

void DMDeviceCollection::write_param_all(int rid, const std::vector<float>& values) {
  const auto devices = get_dm_devices();
  const size_t count = std::min(devices.size(), values.size());
  for (size_t i = 0; i < count; ++i) {
    send_command_to_device(devices[i], CanPacketEncoder::create_write_param_command(
                                           devices[i]->get_motor(), rid, values[i]));
  }
}

void DMDeviceCollection::write_param_all(int rid, const std::vector<unsigned int>& values) {
  const auto devices = get_dm_devices();
  const size_t count = std::min(devices.size(), values.size());
  for (size_t i = 0; i < count; ++i) {
    send_command_to_device(devices[i], CanPacketEncoder::create_write_param_command(
                                           devices[i]->get_motor(), rid, values[i]));
  }
}

void DMDeviceCollection::set_acc_all(const std::vector<float>& values) {
  write_param_all(RID_ACC, values);
}
void DMDeviceCollection::set_dec_all(const std::vector<float>& values) {
  write_param_all(RID_DEC, values);
}
void DMDeviceCollection::set_kp_apr_all(const std::vector<float>& values) {
  write_param_all(RID_KP_APR, values);
}

void DMDeviceCollection::set_timeout_all(unsigned int t) {
  write_param_all(RID_TIMEOUT, std::vector<unsigned int>(7, t));
}

void DMDeviceCollection::switch_all_motors_mode(int mode) {
  send_to_all(
      [mode](const Motor& m) { return CanPacketEncoder::create_param_write_RID_command(m, mode); });
}

void DMDeviceCollection::mit_control_one(int index, const MITParam& param) {
  auto device = get_dm_devices()[index];
  send_command_to_device(device,
                         CanPacketEncoder::create_mit_control_command(device->get_motor(), param));
}

void DMDeviceCollection::mit_control_all(const std::vector<MITParam>& params) {
  for (size_t i = 0; i < params.size(); ++i) {
    mit_control_one(static_cast<int>(i), params[i]);
  }
}

void DMDeviceCollection::pos_vel_control_one(int index, const POS_VELParam& param) {
  auto device = get_dm_devices()[index];
  send_command_to_device(
      device, CanPacketEncoder::create_pos_vel_control_command(device->get_motor(), param));
}

void DMDeviceCollection::pos_vel_control_all(const std::vector<POS_VELParam>& params) {
  for (size_t i = 0; i < params.size(); ++i) {
    pos_vel_control_one(static_cast<int>(i), params[i]);
  }
}

void DMDeviceCollection::set_callback_mode_all(CallbackMode mode) {
  for (const auto& device : get_dm_devices()) {
    device->set_callback_mode(mode);
  }
}

}  // namespace kestrel::damiao_motor
