#include "kestrel/damiao_motor/dm_motor_device_collection.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <type_traits>

namespace kestrel::damiao_motor {

namespace {

std::string counted(size_t count, const char* noun) {
  return std::to_string(count) + " " + noun + (count == 1 ? "" : "s");
}

// Refuses more entries than motors; fewer are fine.
void require_at_most(const char* operation, size_t entries, const char* noun, size_t motors) {
  if (entries > motors) {
    throw std::invalid_argument(std::string(operation) + ": " + counted(entries, noun) +
                                " for a group of " + counted(motors, "motor"));
  }
}

}  // namespace

DMDeviceCollection::DMDeviceCollection(canbus::CANSocket& socket)
    : socket(socket),
      encoder(std::make_unique<CanPacketEncoder>()),
      decoder(std::make_unique<CanPacketDecoder>()),
      device_collection(std::make_unique<canbus::CANDeviceCollection>(socket)) {
  // Every registration path (the components, and callers that fill the registry directly) goes
  // through the registry, so the list follows it from here.
  device_collection->set_change_listener([this] { rebuild_dm_device_list(); });
}

DMDeviceCollection::~DMDeviceCollection() = default;

void DMDeviceCollection::rebuild_dm_device_list() {
  dm_device_list.clear();
  for (const auto& entry : device_collection->get_devices()) {
    if (auto device = std::dynamic_pointer_cast<DMCANDevice>(entry.second)) {
      dm_device_list.push_back(std::move(device));
    }
  }
}

std::vector<std::shared_ptr<DMCANDevice>> DMDeviceCollection::get_dm_devices() const {
  return dm_device_list;
}

std::vector<Motor> DMDeviceCollection::get_motors() const {
  std::vector<Motor> motors;
  motors.reserve(dm_device_list.size());
  for (const auto& device : dm_device_list) {
    motors.push_back(device->get_motor());
  }
  return motors;
}

bool DMDeviceCollection::send_command_to_device(std::shared_ptr<DMCANDevice> device,
                                                const CANPacket& packet) {
  (void)device;  // the frame type is the socket's choice; the device only names the target
  if (!socket.is_canfd_enabled()) {
    return socket.write_can_frame(
        DMCANDevice::create_can_frame(packet.can_id, packet.data.data(), packet.data.size()));
  }
  return socket.write_canfd_frame(
      DMCANDevice::create_canfd_frame(packet.can_id, packet.data.data(), packet.data.size()));
}

bool DMDeviceCollection::send_encoded(const EncodedFrame& frame) {
  if (!socket.is_canfd_enabled()) {
    return socket.write_can_frame(
        DMCANDevice::create_can_frame(frame.can_id, frame.data.data(), frame.data.size()));
  }
  return socket.write_canfd_frame(
      DMCANDevice::create_canfd_frame(frame.can_id, frame.data.data(), frame.data.size()));
}

template <typename Encode>
void DMDeviceCollection::send_to_all(Encode encode) {
  // Back to back in device order, no delay, results not looked at.
  for (const auto& device : dm_device_list) {
    send_encoded(encode(device->get_motor()));
  }
}

const DMCANDevice& DMDeviceCollection::device_at(int index, const char* operation) const {
  if (index < 0 || static_cast<size_t>(index) >= dm_device_list.size()) {
    throw std::invalid_argument(std::string(operation) + ": motor index " + std::to_string(index) +
                                " is out of range for a group of " +
                                counted(dm_device_list.size(), "motor"));
  }
  return *dm_device_list[static_cast<size_t>(index)];
}

template <typename Value>
void DMDeviceCollection::write_one(const char* operation, int index, int rid, Value value) {
  const DMCANDevice& device = device_at(index, operation);
  if constexpr (std::is_floating_point_v<Value>) {
    CanPacketEncoder::require_finite(value, rid, operation, index);
  }
  send_encoded(CanPacketEncoder::encode_write_param_command(device.get_motor(), rid, value));
}

template <typename Value>
void DMDeviceCollection::write_all(const char* operation, int rid,
                                   const std::vector<Value>& values) {
  require_at_most(operation, values.size(), "value", dm_device_list.size());
  if constexpr (std::is_floating_point_v<Value>) {
    for (size_t i = 0; i < values.size(); ++i) {
      CanPacketEncoder::require_finite(values[i], rid, operation, static_cast<int>(i));
    }
  }
  for (size_t i = 0; i < values.size(); ++i) {
    send_encoded(CanPacketEncoder::encode_write_param_command(dm_device_list[i]->get_motor(), rid,
                                                              values[i]));
  }
}

void DMDeviceCollection::enable_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::encode_enable_command(m); });
}

void DMDeviceCollection::disable_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::encode_disable_command(m); });
}

void DMDeviceCollection::set_zero_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::encode_set_zero_command(m); });
}

void DMDeviceCollection::clrErr_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::encode_clrErr_command(m); });
}

void DMDeviceCollection::refresh_one(int index) {
  send_encoded(
      CanPacketEncoder::encode_refresh_command(device_at(index, "refresh_one").get_motor()));
}

void DMDeviceCollection::refresh_all() {
  send_to_all([](const Motor& m) { return CanPacketEncoder::encode_refresh_command(m); });
}

void DMDeviceCollection::query_param_one(int index, int rid) {
  send_encoded(CanPacketEncoder::encode_query_param_command(
      device_at(index, "query_param_one").get_motor(), rid));
}

void DMDeviceCollection::query_param_all(int rid) {
  send_to_all(
      [rid](const Motor& m) { return CanPacketEncoder::encode_query_param_command(m, rid); });
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
  write_one("write_param_one", index, rid, value);
}

void DMDeviceCollection::write_param_one(int index, int rid, float value) {
  write_one("write_param_one", index, rid, value);
}

void DMDeviceCollection::set_acc_one(int index, float value) {
  write_one("set_acc_one", index, RID_ACC, value);
}
void DMDeviceCollection::set_dec_one(int index, float value) {
  write_one("set_dec_one", index, RID_DEC, value);
}
void DMDeviceCollection::set_kp_apr_one(int index, float value) {
  write_one("set_kp_apr_one", index, RID_KP_APR, value);
}

void DMDeviceCollection::write_param_all(int rid, const std::vector<float>& values) {
  write_all("write_param_all", rid, values);
}

void DMDeviceCollection::write_param_all(int rid, const std::vector<unsigned int>& values) {
  write_all("write_param_all", rid, values);
}

void DMDeviceCollection::set_acc_all(const std::vector<float>& values) {
  write_all("set_acc_all", RID_ACC, values);
}
void DMDeviceCollection::set_dec_all(const std::vector<float>& values) {
  write_all("set_dec_all", RID_DEC, values);
}
void DMDeviceCollection::set_kp_apr_all(const std::vector<float>& values) {
  write_all("set_kp_apr_all", RID_KP_APR, values);
}

void DMDeviceCollection::set_timeout_all(unsigned int t) {
  const size_t count = std::min<size_t>(dm_device_list.size(), 7);
  for (size_t i = 0; i < count; ++i) {
    send_encoded(CanPacketEncoder::encode_write_param_command(dm_device_list[i]->get_motor(),
                                                              RID_TIMEOUT, t));
  }
}

void DMDeviceCollection::switch_all_motors_mode(int mode) {
  send_to_all(
      [mode](const Motor& m) { return CanPacketEncoder::encode_param_write_RID_command(m, mode); });
}

void DMDeviceCollection::mit_control_one(int index, const MITParam& param) {
  send_encoded(encode_mit_one(index, param));
}

EncodedFrame DMDeviceCollection::encode_mit_one(int index, const MITParam& param) const {
  const DMCANDevice& device = device_at(index, "mit_control_one");
  CanPacketEncoder::require_finite(param, "mit_control_one", index);
  return CanPacketEncoder::encode_mit_control_command(device.get_motor(), param);
}

void DMDeviceCollection::mit_control_all(const std::vector<MITParam>& params) {
  require_at_most("mit_control_all", params.size(), "command", dm_device_list.size());
  for (size_t i = 0; i < params.size(); ++i) {
    CanPacketEncoder::require_finite(params[i], "mit_control_all", static_cast<int>(i));
  }
  for (size_t i = 0; i < params.size(); ++i) {
    send_encoded(
        CanPacketEncoder::encode_mit_control_command(dm_device_list[i]->get_motor(), params[i]));
  }
}

void DMDeviceCollection::pos_vel_control_one(int index, const POS_VELParam& param) {
  send_encoded(encode_pos_vel_one(index, param));
}

EncodedFrame DMDeviceCollection::encode_pos_vel_one(int index, const POS_VELParam& param) const {
  const DMCANDevice& device = device_at(index, "pos_vel_control_one");
  CanPacketEncoder::require_finite(param, "pos_vel_control_one", index);
  return CanPacketEncoder::encode_pos_vel_control_command(device.get_motor(), param);
}

void DMDeviceCollection::pos_vel_control_all(const std::vector<POS_VELParam>& params) {
  require_at_most("pos_vel_control_all", params.size(), "command", dm_device_list.size());
  for (size_t i = 0; i < params.size(); ++i) {
    CanPacketEncoder::require_finite(params[i], "pos_vel_control_all", static_cast<int>(i));
  }
  for (size_t i = 0; i < params.size(); ++i) {
    send_encoded(CanPacketEncoder::encode_pos_vel_control_command(dm_device_list[i]->get_motor(),
                                                                  params[i]));
  }
}

void DMDeviceCollection::set_callback_mode_all(CallbackMode mode) {
  for (const auto& device : dm_device_list) {
    device->set_callback_mode(mode);
  }
}

}  // namespace kestrel::damiao_motor
