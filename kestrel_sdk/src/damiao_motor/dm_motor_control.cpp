#include "kestrel/damiao_motor/dm_motor_control.hpp"

#include <stdexcept>
#include <string>

namespace kestrel::damiao_motor {

Motor::Motor(MotorType type, unsigned int send_id, unsigned int recv_id)
    : send_id(send_id), recv_id(recv_id), motor_type(type) {
  get_limit_param(type);  // a type outside the table would scale every frame from stray memory
}

void Motor::set_enabled(bool value) {
  enabled = value;
}

void Motor::update_state(double new_position, double new_velocity, double new_torque, int new_t_mos,
                         int new_t_rotor, int new_feedback_id, int new_error_code) {
  position = new_position;
  velocity = new_velocity;
  torque = new_torque;
  t_mos = new_t_mos;
  t_rotor = new_t_rotor;
  feedback_id = new_feedback_id;
  error_code = new_error_code;
  ++feedback_count;
}

void Motor::set_state_tmos(int value) {
  t_mos = value;
}
void Motor::set_state_trotor(int value) {
  t_rotor = value;
}
void Motor::set_state_feedback_id(int value) {
  feedback_id = value;
}
void Motor::set_state_error_code(int value) {
  error_code = value;
}

void Motor::set_temp_param(int rid, double value) {
  params[rid] = value;
}

double Motor::get_param(int rid) const {
  auto it = params.find(rid);
  return it == params.end() ? -1.0 : it->second;
}

LimitParam Motor::get_limit_param(MotorType type) {
  const int index = static_cast<int>(type);
  if (index >= MOTOR_TYPE_COUNT) {
    throw std::invalid_argument("Invalid motor type: " + std::to_string(index));
  }
  const double* row = MOTOR_LIMIT_PARAMS[index];
  return LimitParam{row[0], row[1], row[2]};
}

}  // namespace kestrel::damiao_motor
