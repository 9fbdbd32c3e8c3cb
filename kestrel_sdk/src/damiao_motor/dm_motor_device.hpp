// The bus device of one DM motor: builds kernel frames from codec packets and routes the frames
// dispatched to the motor's receive identifier into the Motor, by callback mode.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

#include "kestrel/canbus/can_device.hpp"
#include "kestrel/damiao_motor/dm_motor_codec.hpp"
#include "kestrel/damiao_motor/dm_motor_control.hpp"

namespace kestrel::damiao_motor {

class DMCANDevice : public canbus::CANDevice {
 public:
  // The motor must outlive the device; its group owns it.
  DMCANDevice(Motor& motor, unsigned int param_can_id, bool canfd);
  ~DMCANDevice() override;

  // A payload longer than the frame (8 bytes classic, 64 FD) throws std::invalid_argument
  // "create_can_frame: payload of 9 bytes exceeds the 8 bytes of a classic CAN frame".
  static can_frame create_can_frame(unsigned int can_id, std::vector<uint8_t> data);
  // FD frames go out with the bit-rate switch flag.
  static canfd_frame create_canfd_frame(unsigned int can_id, std::vector<uint8_t> data);
  // The same frames from `size` bytes at `data`, without a vector: the send path of the groups.
  static can_frame create_can_frame(unsigned int can_id, const uint8_t* data, size_t size);
  static canfd_frame create_canfd_frame(unsigned int can_id, const uint8_t* data, size_t size);
  static std::vector<uint8_t> get_data_from_frame(const can_frame& frame);
  static std::vector<uint8_t> get_data_from_frame(const canfd_frame& frame);

  // The classic callback checks the length before decoding and the identifier after; the FD
  // callback checks the identifier first, with a warning, and leaves the length to the decoder.
  void callback(const can_frame& frame) override;
  void callback(const canfd_frame& frame) override;

  Motor& get_motor() const { return motor; }
  CallbackMode get_callback_mode() const { return callback_mode; }
  void set_callback_mode(CallbackMode mode) { callback_mode = mode; }

 private:
  // Both decode in place from the frame's own buffer: dispatch allocates nothing.
  void handle_state(const uint8_t* data, size_t size);
  void handle_param(const uint8_t* data, size_t size);

  Motor& motor;
  CallbackMode callback_mode = CallbackMode::STATE;
  bool canfd_enabled;
};

// Text of a DM status code (the high nibble of feedback byte 0).
const char* dm_status_text(int code);

}  // namespace kestrel::damiao_motor
