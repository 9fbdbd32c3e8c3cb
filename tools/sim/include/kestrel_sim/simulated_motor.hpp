// One simulated DM motor: the firmware's state machine (enable, disable, zero, clear error,
// MIT and position-velocity control, parameter registers, communication watchdog, faults,
// temperatures). It owns no thread, socket or lock: the caller hands it frames with their
// arrival time and asks it for its torque at the inner control rate.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "kestrel_sim/dm_protocol.hpp"
#include "kestrel_sim/frame.hpp"
#include "kestrel_sim/plant.hpp"
#include "kestrel_sim/register_file.hpp"

namespace kestrel::sim {

struct MotorConfig {
  std::string name;
  int type = 1;                   // DM model 0..12
  uint32_t send_id = 0x01;        // command (ESC) identifier
  uint32_t master_id = 0x11;      // feedback (MST) identifier
  double initial_position = 0.0;  // shaft position at power-on, rad
  JointDynamics dynamics;         // used by the first-stage plant, and as the speed loop's inertia
};

// The arm: joints 1-3 type 3, joints 4-6 type 1, gripper type 1; ids 1..7, feedback 0x11..0x17.
std::vector<MotorConfig> arm_motor_configs();

enum class CommandKind {
  kEnable,
  kDisable,
  kSetZero,
  kClearError,
  kMit,
  kPosVel,
  kRefresh,
  kReadRegister,
  kWriteRegister,
  kUnknownParameter,  // a 0x7FF frame for this motor with an unknown command byte
  kMalformed,         // on this motor's identifiers but not 8 bytes long
  kNotAddressed,      // no simulated motor listens to it
};
const char* to_string(CommandKind kind);

// A received frame as the motor understood it.
struct ReceivedCommand {
  CommandKind kind = CommandKind::kNotAddressed;
  int motor = -1;  // index in the simulation, -1 when not addressed
  uint32_t send_id = 0;
  dm::MitCommand mit;         // kMit, decoded with the motor's scaling
  dm::PosVelCommand pos_vel;  // kPosVel
  uint8_t rid = 0;            // kReadRegister, kWriteRegister
  uint32_t raw_value = 0;     // kWriteRegister: the 32 bits written
  double value = 0.0;         // kWriteRegister: the value in the register's representation
  bool applied = false;       // a control command that took effect (enabled, right mode, no fault)
};

struct MotorState {
  std::string name;
  int type = 0;
  uint32_t send_id = 0;
  uint32_t master_id = 0;
  double q = 0.0;        // position as the motor reports it (shaft minus zero offset), rad
  double dq = 0.0;       // rad/s
  double torque = 0.0;   // torque the motor applies, N·m (external torque not included)
  double shaft_q = 0.0;  // plant position, rad
  double zero_offset = 0.0;
  bool enabled = false;
  uint8_t status = dm::kDisabled;  // the feedback nibble
  uint32_t mode = dm::kModeMit;
  bool silent = false;
  double t_mos = 0.0;
  double t_rotor = 0.0;
  std::optional<dm::MitCommand> last_mit;  // last MIT frame received, applied or not
  std::optional<dm::PosVelCommand> last_pos_vel;
  double pos_vel_reference = 0.0;  // position-velocity profile: current reference and speed
  double pos_vel_reference_velocity = 0.0;
  RegisterFile registers;
  uint64_t frames_handled = 0;
  uint64_t replies = 0;
};

class SimulatedMotor {
 public:
  SimulatedMotor(MotorConfig config, double ambient_celsius);

  const MotorConfig& config() const { return config_; }

  // Whether a frame is meant for this motor: its command id, command id + 0x100, or a 0x7FF
  // parameter frame carrying its id in bytes 0-1.
  bool addressed_by(const Frame& frame) const;
  // What an addressed frame asks for, without acting on it.
  void classify(const Frame& frame, ReceivedCommand& decoded) const;

  // Acts on a frame addressed to this motor, received at `now` while the shaft is at
  // (shaft_q, shaft_dq). Returns the 8-byte reply, or nothing when the firmware stays quiet.
  // A silent motor only classifies the frame.
  std::optional<Payload> handle(const Frame& frame, TimePoint now, double shaft_q, double shaft_dq,
                                ReceivedCommand& decoded);

  // Torque for the next `dt` of simulated time, from the active control law; 0 when disabled
  // or faulted; clamped to t_max. Advances the position-velocity profile.
  double control_torque(double shaft_q, double shaft_dq, double dt);

  // Slow housekeeping: communication watchdog and temperatures.
  void tick(TimePoint now, double dt);

  MotorState state(double shaft_q, double shaft_dq) const;
  uint8_t status() const;
  dm::Limits limits() const;  // scaling ranges, from registers 21-23

  // Fault injection. A latched fault is cleared by the clear-error command; a sticky one
  // survives it until clear_injected_fault().
  void inject_fault(uint8_t code, bool sticky);
  void clear_injected_fault();
  void set_silent(bool silent) { silent_ = silent; }
  bool silent() const { return silent_; }
  void set_ambient(double celsius) { ambient_ = celsius; }
  void set_temperatures(double t_mos, double t_rotor);
  RegisterFile& registers() { return registers_; }
  const RegisterFile& registers() const { return registers_; }

 private:
  Payload feedback(double shaft_q, double shaft_dq) const;
  void on_enable(double q);
  void on_disable();
  void on_mode_change();
  void start_hold(double q);  // reference parked at q
  void check_watchdog(TimePoint now);
  bool can_drive() const { return enabled_ && fault_ == 0; }
  uint32_t mode() const { return registers_.as_uint(reg::kControlMode); }
  double motor_q(double shaft_q) const { return shaft_q - zero_offset_; }

  MotorConfig config_;
  RegisterFile registers_;
  double ambient_;
  bool enabled_ = false;
  uint8_t fault_ = 0;
  bool sticky_fault_ = false;
  bool silent_ = false;
  double zero_offset_ = 0.0;
  double applied_torque_ = 0.0;
  double t_mos_;
  double t_rotor_;

  std::optional<dm::MitCommand> active_mit_;
  std::optional<dm::MitCommand> last_mit_;
  std::optional<dm::PosVelCommand> last_pos_vel_;

  // Position-velocity mode: a trapezoidal reference (p_ref, v_ref) moving toward `target` at
  // most at `speed`, followed by a position loop around a PI speed loop.
  struct Profile {
    bool active = false;
    double target = 0.0;
    double speed = 0.0;
    double p_ref = 0.0;
    double v_ref = 0.0;
    double speed_integral = 0.0;
  } profile_;

  TimePoint last_heard_{};
  uint64_t frames_handled_ = 0;
  uint64_t replies_ = 0;
};

}  // namespace kestrel::sim
