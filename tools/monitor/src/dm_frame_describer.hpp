// Turns CAN frames of a DM motor bus into one line of text each, in the motors' own terms: which
// motor, which command with its fields in physical units, which register with its name and
// value, feedback with position, velocity, torque, temperatures and status.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "kestrel/damiao_motor/dm_motor_control.hpp"

namespace kestrel::monitor {

struct MonitoredMotor {
  std::string name;      // "joint 1", "gripper"
  uint32_t send_id = 0;  // command identifier (the motor's id)
  uint32_t recv_id = 0;  // identifier its replies carry
  damiao_motor::MotorType type = damiao_motor::MotorType::DM_V30_T10;
};

// The arm's seven motors as the controller sets them up: joints 1-3 DM_V8_T28, joints 4-6 and
// the gripper DM_V30_T10, ids 1..7, replies on 0x11..0x17.
std::vector<MonitoredMotor> arm_motor_table();

struct MonitoredFrame {
  uint32_t id = 0;
  bool extended = false;
  bool fd = false;
  bool rtr = false;
  bool error = false;
  std::vector<uint8_t> data;
};

enum class Direction { to_motor, from_motor, unknown };

// Name of a DM parameter register ("CTRL_MODE"), or "reg<N>" for one the table does not know.
std::string register_name(int rid);
// DM registers holding integers; the others hold 32-bit floats.
bool register_is_integer(int rid);

class DmFrameDescriber {
 public:
  explicit DmFrameDescriber(std::vector<MonitoredMotor> motors = arm_motor_table());

  // One line without timestamp or newline.
  std::string describe(const MonitoredFrame& frame) const;
  Direction direction(const MonitoredFrame& frame) const;
  // Index in the table of the motor the frame is to or from, -1 when none.
  int motor_of(const MonitoredFrame& frame) const;

 private:
  const MonitoredMotor* by_send_id(uint32_t id) const;
  const MonitoredMotor* by_recv_id(uint32_t id) const;
  std::string describe_parameter_frame(const MonitoredFrame& frame) const;
  std::string describe_reply(const MonitoredMotor& m, const MonitoredFrame& frame) const;

  std::vector<MonitoredMotor> motors_;
};

// Raw hex of the payload, bytes separated by spaces.
std::string hex_bytes(const std::vector<uint8_t>& data);

}  // namespace kestrel::monitor
