#include "kestrel/damiao_motor/dm_motor_device.hpp"

#include <algorithm>
#include <cstring>
#include <iostream>
#include <stdexcept>
#include <string>
#include <unordered_map>

namespace kestrel::damiao_motor {

namespace {

// Last status code reported per receive identifier, shared by all devices of the process.
// Created thread-safely on first use; dispatch runs on one thread at a time.
std::unordered_map<unsigned int, int>& last_error_code() {
  static std::unordered_map<unsigned int, int> table;
  return table;
}

// Prints a line when a motor's status code changes. The first feedback of a motor always
// prints, even with code 0, because there is nothing to compare it with yet.
void maybe_report_motor_error(const Motor& motor, const StateResult& s) {
  const int new_code = s.error_code;
  auto& table = last_error_code();
  auto it = table.find(motor.get_recv_id());
  if (it != table.end() && it->second == new_code) {
    return;
  }
  const int old_code = it != table.end() ? it->second : 0;
  table[motor.get_recv_id()] = new_code;
  std::cerr << "[DM ERR] recv_id=0x" << std::hex << motor.get_recv_id() << std::dec
            << " feedback_id=" << s.feedback_id << " ERR: 0x" << std::hex << old_code << " -> 0x"
            << new_code << std::dec << " (" << dm_status_text(new_code) << ")"
            << " t_mos=" << s.t_mos << " t_rotor=" << s.t_rotor << std::endl;
}

// Only the error path builds text.
void require_payload_fits(const char* operation, size_t size, size_t capacity, const char* kind) {
  if (size > capacity) {
    throw std::invalid_argument(std::string(operation) + ": payload of " + std::to_string(size) +
                                " bytes exceeds the " + std::to_string(capacity) + " bytes of a " +
                                kind + " frame");
  }
}

// A classic frame never holds more than 8 bytes, whatever its length field claims.
size_t payload_length(const can_frame& frame) {
  return std::min<size_t>(frame.can_dlc, CAN_MAX_DLEN);
}

size_t payload_length(const canfd_frame& frame) {
  return std::min<size_t>(frame.len, CANFD_MAX_DLEN);
}

}  // namespace

const char* dm_status_text(int code) {
  switch (code) {
    case 0:
      return "Disabled";
    case 1:
      return "Enabled";
    case 8:
      return "Over-voltage";
    case 9:
      return "Under-voltage";
    case 10:
      return "Over-current";
    case 11:
      return "MOS over-temperature";
    case 12:
      return "Coil over-temperature";
    case 13:
      return "Communication lost";
    case 14:
      return "Overload";
    default:
      return "Unknown/Reserved";
  }
}

DMCANDevice::DMCANDevice(Motor& motor, unsigned int param_can_id, bool canfd)
    : canbus::CANDevice(motor.get_send_id(), motor.get_recv_id(), param_can_id, canfd),
      motor(motor),
      canfd_enabled(canfd) {}

DMCANDevice::~DMCANDevice() = default;

can_frame DMCANDevice::create_can_frame(unsigned int can_id, std::vector<uint8_t> data) {
  return create_can_frame(can_id, data.data(), data.size());
}

canfd_frame DMCANDevice::create_canfd_frame(unsigned int can_id, std::vector<uint8_t> data) {
  return create_canfd_frame(can_id, data.data(), data.size());
}

can_frame DMCANDevice::create_can_frame(unsigned int can_id, const uint8_t* data, size_t size) {
  require_payload_fits("create_can_frame", size, CAN_MAX_DLEN, "classic CAN");
  can_frame frame;
  std::memset(&frame, 0, sizeof(frame));
  frame.can_id = can_id;
  frame.can_dlc = static_cast<uint8_t>(size);
  std::copy(data, data + size, frame.data);
  return frame;
}

canfd_frame DMCANDevice::create_canfd_frame(unsigned int can_id, const uint8_t* data, size_t size) {
  require_payload_fits("create_canfd_frame", size, CANFD_MAX_DLEN, "CAN FD");
  canfd_frame frame;
  std::memset(&frame, 0, sizeof(frame));
  frame.can_id = can_id;
  frame.len = static_cast<uint8_t>(size);
  frame.flags = CANFD_BRS;
  std::copy(data, data + size, frame.data);
  return frame;
}

std::vector<uint8_t> DMCANDevice::get_data_from_frame(const can_frame& frame) {
  return std::vector<uint8_t>(frame.data, frame.data + payload_length(frame));
}

std::vector<uint8_t> DMCANDevice::get_data_from_frame(const canfd_frame& frame) {
  return std::vector<uint8_t>(frame.data, frame.data + payload_length(frame));
}

void DMCANDevice::handle_state(const uint8_t* data, size_t size) {
  const StateResult s = CanPacketDecoder::parse_motor_state_data(motor, data, size);
  if (!s.valid) {
    return;
  }
  motor.update_state(s.position, s.velocity, s.torque, s.t_mos, s.t_rotor, s.feedback_id,
                     s.error_code);
  maybe_report_motor_error(motor, s);
}

void DMCANDevice::handle_param(const uint8_t* data, size_t size) {
  const ParamResult r = CanPacketDecoder::parse_motor_param_data(data, size);
  // Write acknowledgements are decoded and dropped; only read replies carry a value to keep.
  if (r.valid && r.command == PARAM_READ) {
    motor.set_temp_param(r.rid, r.value);
  }
}

void DMCANDevice::callback(const can_frame& frame) {
  if (canfd_enabled) {
    std::cerr << "WARNING: WRONG CALLBACK FUNCTION\n";
    return;
  }
  const size_t length = payload_length(frame);
  if (callback_mode == CallbackMode::PARAM) {
    handle_param(frame.data, length);
  } else if (callback_mode == CallbackMode::STATE) {
    if (frame.can_dlc < 8 || frame.can_id != motor.get_recv_id()) {
      return;
    }
    handle_state(frame.data, length);
  }
}

void DMCANDevice::callback(const canfd_frame& frame) {
  if (!canfd_enabled) {
    std::cerr << "WARNING: CANFD MODE NOT ENABLED\n";
    return;
  }
  if (frame.can_id != motor.get_recv_id()) {
    std::cerr << "WARNING: CANFD FRAME ID DOES NOT MATCH MOTOR ID\n";
    return;
  }
  const size_t length = payload_length(frame);
  if (callback_mode == CallbackMode::STATE) {
    handle_state(frame.data, length);
  } else if (callback_mode == CallbackMode::PARAM) {
    handle_param(frame.data, length);
  }
}

}  // namespace kestrel::damiao_motor
