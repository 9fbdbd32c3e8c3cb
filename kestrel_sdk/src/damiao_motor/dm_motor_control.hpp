// Host-side model of one DM servo motor: identifiers, model, last feedback, last register values,
// and the shared enumerations of the motor driver.
#pragma once

#include <cstdint>
#include <map>

namespace kestrel::damiao_motor {

// The thirteen DM motor models, known by value; each name spells the model's velocity (rad/s)
// and torque (N·m) limits. The limits set the scale of every MIT command and feedback frame.
enum class MotorType : uint8_t {
  DM_V50_T5 = 0,
  DM_V30_T10 = 1,
  DM_V50_T10 = 2,
  DM_V8_T28 = 3,
  DM_V10_T28 = 4,
  DM_V45_T20 = 5,
  DM_V45_T40 = 6,
  DM_V45_T54 = 7,
  DM_V25_T200 = 8,
  DM_V20_T200 = 9,
  DM_V280_T1 = 10,
  DM_V45_T10 = 11,
  DM_V45_T10_B = 12,
};

inline constexpr int MOTOR_TYPE_COUNT = 13;

// Per model: p_max (rad, the encoded range is -p_max..+p_max), v_max (rad/s), t_max (N·m).
inline constexpr double MOTOR_LIMIT_PARAMS[MOTOR_TYPE_COUNT][3] = {
    {12.5, 50.0, 5.0},   {12.5, 30.0, 10.0},  {12.5, 50.0, 10.0}, {12.5, 8.0, 28.0},
    {12.5, 10.0, 28.0},  {12.5, 45.0, 20.0},  {12.5, 45.0, 40.0}, {12.5, 45.0, 54.0},
    {12.5, 25.0, 200.0}, {12.5, 20.0, 200.0}, {12.5, 280.0, 1.0}, {12.5, 45.0, 10.0},
    {12.5, 45.0, 10.0},
};

// Value written into the control-mode register (10).
enum ControlMode : uint8_t {
  MIT_MODE = 1,
  POS_VEL_MODE = 2,
};

// What a device does with the frames that reach it.
enum CallbackMode : uint8_t {
  STATE = 0,  // motor feedback
  PARAM = 1,  // parameter-register replies
  IGNORE = 2,
};

struct LimitParam {
  double p_max;
  double v_max;
  double t_max;
};

// Decoded content of one feedback frame.
struct StateResult {
  double position = 0.0;
  double velocity = 0.0;
  double torque = 0.0;
  int t_mos = 0;
  int t_rotor = 0;
  int feedback_id = 0;
  int error_code = 0;
  bool valid = false;
};

class Motor {
 public:
  // Throws std::invalid_argument "Invalid motor type: N" for a type outside the limit table.
  Motor(MotorType type, unsigned int send_id, unsigned int recv_id);

  // The only writer of `enabled`; enabling a motor on the bus does not touch it.
  void set_enabled(bool enabled);
  void update_state(double position, double velocity, double torque, int t_mos, int t_rotor,
                    int feedback_id, int error_code);
  void set_state_tmos(int t_mos);
  void set_state_trotor(int t_rotor);
  void set_state_feedback_id(int feedback_id);
  void set_state_error_code(int error_code);

  void set_temp_param(int rid, double value);
  // -1.0 for a register never read: callers test for -1.0.
  double get_param(int rid) const;

  // Throws std::invalid_argument "Invalid motor type: N" for a value of 13 or more.
  static LimitParam get_limit_param(MotorType type);

  uint32_t get_send_id() const { return send_id; }
  uint32_t get_recv_id() const { return recv_id; }
  MotorType get_motor_type() const { return motor_type; }
  bool is_enabled() const { return enabled; }
  double get_position() const { return position; }
  double get_velocity() const { return velocity; }
  double get_torque() const { return torque; }
  int get_t_mos() const { return t_mos; }
  int get_t_rotor() const { return t_rotor; }
  int get_feedback_id() const { return feedback_id; }
  int get_error_code() const { return error_code; }
  // Feedback frames stored since construction (wraps): a count that stops moving while the
  // motor is asked to report means the motor has stopped answering.
  uint32_t get_feedback_count() const { return feedback_count; }
  const std::map<int, double>& get_params() const { return params; }

 private:
  uint32_t send_id;
  uint32_t recv_id;
  MotorType motor_type;
  bool enabled = false;
  double position = 0.0;
  double velocity = 0.0;
  double torque = 0.0;
  int t_mos = 0;
  int t_rotor = 0;
  int feedback_id = 0;
  int error_code = 0;
  uint32_t feedback_count = 0;
  std::map<int, double> params;
};

}  // namespace kestrel::damiao_motor
