#include "kestrel_sim/simulated_motor.hpp"

#include <algorithm>
#include <cmath>

namespace kestrel::sim {

namespace {

// Temperatures: first-order lags toward ambient plus a rise proportional to (tau / t_max)².
constexpr double kRotorRiseAtFullTorque = 60.0;  // K
constexpr double kRotorTimeConstant = 120.0;     // s
constexpr double kMosRiseAtIdle = 3.0;           // K, the driver warms up even without load
constexpr double kMosRiseAtFullTorque = 25.0;    // K
constexpr double kMosTimeConstant = 40.0;        // s

constexpr std::chrono::microseconds kTimeoutUnit{50};

double clamp_abs(double x, double limit) {
  return std::clamp(x, -limit, limit);
}

}  // namespace

std::vector<MotorConfig> arm_motor_configs() {
  auto motor = [](const char* name, int type, uint32_t id, JointDynamics d) {
    MotorConfig s;
    s.name = name;
    s.type = type;
    s.send_id = id;
    s.master_id = 0x10 + id;
    s.dynamics = d;
    return s;
  };
  return {
      motor("joint1", 3, 1, {0.08, 0.30, 0.40}),   motor("joint2", 3, 2, {0.10, 0.30, 0.40}),
      motor("joint3", 3, 3, {0.05, 0.20, 0.30}),   motor("joint4", 1, 4, {0.010, 0.05, 0.10}),
      motor("joint5", 1, 5, {0.010, 0.05, 0.10}),  motor("joint6", 1, 6, {0.005, 0.03, 0.05}),
      motor("gripper", 1, 7, {0.002, 0.02, 0.05}),
  };
}

const char* to_string(CommandKind kind) {
  switch (kind) {
    case CommandKind::kEnable:
      return "enable";
    case CommandKind::kDisable:
      return "disable";
    case CommandKind::kSetZero:
      return "set-zero";
    case CommandKind::kClearError:
      return "clear-error";
    case CommandKind::kMit:
      return "MIT";
    case CommandKind::kPosVel:
      return "position-velocity";
    case CommandKind::kRefresh:
      return "refresh";
    case CommandKind::kReadRegister:
      return "read-register";
    case CommandKind::kWriteRegister:
      return "write-register";
    case CommandKind::kUnknownParameter:
      return "unknown-parameter";
    case CommandKind::kMalformed:
      return "malformed";
    case CommandKind::kNotAddressed:
      return "not-addressed";
  }
  return "?";
}

SimulatedMotor::SimulatedMotor(MotorConfig config, double ambient_celsius)
    : config_(std::move(config)),
      registers_(config_.type, config_.send_id, config_.master_id, config_.dynamics.inertia),
      ambient_(ambient_celsius),
      t_mos_(ambient_celsius + kMosRiseAtIdle),
      t_rotor_(ambient_celsius) {}

bool SimulatedMotor::addressed_by(const Frame& frame) const {
  if (frame.extended || frame.remote) {
    return false;
  }
  if (frame.id == config_.send_id || frame.id == config_.send_id + dm::kPosVelIdOffset) {
    return true;
  }
  if (frame.id == dm::kParamId && frame.len >= 2) {
    return static_cast<uint32_t>(frame.data[0] | frame.data[1] << 8) == config_.send_id;
  }
  return false;
}

dm::Limits SimulatedMotor::limits() const {
  const dm::Limits type_limits = dm::limits_of_type(config_.type);
  auto pick = [](float reg_value, double fallback) {
    return std::isfinite(reg_value) && reg_value > 0.0f ? static_cast<double>(reg_value) : fallback;
  };
  return dm::Limits{pick(registers_.as_float(reg::kPMax), type_limits.p_max),
                    pick(registers_.as_float(reg::kVMax), type_limits.v_max),
                    pick(registers_.as_float(reg::kTMax), type_limits.t_max)};
}

uint8_t SimulatedMotor::status() const {
  if (fault_ != 0) {
    return fault_;
  }
  return enabled_ ? dm::kEnabled : dm::kDisabled;
}

Payload SimulatedMotor::feedback(double shaft_q, double shaft_dq) const {
  dm::Feedback f;
  f.status = status();
  f.send_id = config_.send_id;
  f.q = motor_q(shaft_q);
  f.dq = shaft_dq;
  f.tau = applied_torque_;
  f.t_mos = t_mos_;
  f.t_rotor = t_rotor_;
  return dm::encode_feedback(f, limits());
}

void SimulatedMotor::check_watchdog(TimePoint now) {
  const uint32_t units = registers_.as_uint(reg::kTimeout);
  if (!can_drive() || units == 0) {
    return;
  }
  if (now - last_heard_ > units * kTimeoutUnit) {
    fault_ = dm::kCommunicationLost;
    sticky_fault_ = false;
    on_disable();
  }
}

void SimulatedMotor::start_hold(double q) {
  profile_ = Profile{};
  profile_.active = true;
  profile_.target = q;
  profile_.p_ref = q;
}

void SimulatedMotor::on_enable(double q) {
  if (fault_ != 0 || enabled_) {
    return;
  }
  enabled_ = true;
  // A freshly enabled motor applies nothing in MIT mode until its first MIT frame, and holds
  // its position in position-velocity mode.
  active_mit_.reset();
  profile_ = Profile{};
  if (mode() == dm::kModePosVel) {
    start_hold(q);
  }
}

void SimulatedMotor::on_disable() {
  enabled_ = false;
  active_mit_.reset();
  profile_ = Profile{};
  applied_torque_ = 0.0;
}

void SimulatedMotor::on_mode_change() {
  active_mit_.reset();
  profile_ = Profile{};
}

void SimulatedMotor::classify(const Frame& frame, ReceivedCommand& decoded) const {
  decoded.send_id = config_.send_id;
  if (frame.len != 8) {
    decoded.kind = CommandKind::kMalformed;
    return;
  }
  const Payload p = frame.payload();
  if (frame.id == config_.send_id) {
    switch (dm::special_command(p)) {
      case dm::CommandByte::kEnable:
        decoded.kind = CommandKind::kEnable;
        return;
      case dm::CommandByte::kDisable:
        decoded.kind = CommandKind::kDisable;
        return;
      case dm::CommandByte::kSetZero:
        decoded.kind = CommandKind::kSetZero;
        return;
      case dm::CommandByte::kClearError:
        decoded.kind = CommandKind::kClearError;
        return;
      case dm::CommandByte::kNone:
        decoded.kind = CommandKind::kMit;
        decoded.mit = dm::decode_mit(p, limits());
        return;
    }
  }
  if (frame.id == config_.send_id + dm::kPosVelIdOffset) {
    decoded.kind = CommandKind::kPosVel;
    decoded.pos_vel = dm::decode_pos_vel(p);
    return;
  }
  const dm::ParamFrame in = dm::decode_param(p);
  decoded.rid = in.rid;
  switch (in.command) {
    case dm::kParamRefresh:
      decoded.kind = CommandKind::kRefresh;
      return;
    case dm::kParamRead:
      decoded.kind = CommandKind::kReadRegister;
      return;
    case dm::kParamWrite:
      decoded.kind = CommandKind::kWriteRegister;
      decoded.raw_value = in.value;
      decoded.value = RegisterFile::is_integer(in.rid)
                          ? static_cast<double>(in.value)
                          : static_cast<double>(dm::bits_float(in.value));
      return;
    default:
      decoded.kind = CommandKind::kUnknownParameter;
      return;
  }
}

std::optional<Payload> SimulatedMotor::handle(const Frame& frame, TimePoint now, double shaft_q,
                                              double shaft_dq, ReceivedCommand& decoded) {
  classify(frame, decoded);
  if (silent_) {
    return std::nullopt;  // unpowered: hears and says nothing
  }
  ++frames_handled_;
  check_watchdog(now);
  last_heard_ = now;
  const double q = motor_q(shaft_q);
  const uint16_t id = static_cast<uint16_t>(config_.send_id);

  switch (decoded.kind) {
    case CommandKind::kMalformed:
    case CommandKind::kUnknownParameter:
    case CommandKind::kNotAddressed:
      return std::nullopt;
    case CommandKind::kEnable:
      on_enable(q);
      break;
    case CommandKind::kDisable:
      on_disable();
      break;
    case CommandKind::kSetZero:
      // The shaft stays where it is: references move with the new zero.
      zero_offset_ = shaft_q;
      profile_.target -= q;
      profile_.p_ref -= q;
      break;
    case CommandKind::kClearError:
      if (fault_ != 0 && !sticky_fault_) {
        fault_ = 0;
        on_disable();
      }
      break;
    case CommandKind::kMit:
      last_mit_ = decoded.mit;
      if (can_drive() && mode() == dm::kModeMit) {
        active_mit_ = decoded.mit;
        decoded.applied = true;
      }
      break;
    case CommandKind::kPosVel: {
      last_pos_vel_ = decoded.pos_vel;
      const bool finite = std::isfinite(decoded.pos_vel.q) && std::isfinite(decoded.pos_vel.dq);
      if (can_drive() && mode() == dm::kModePosVel && finite) {
        if (!profile_.active) {
          start_hold(q);
        }
        profile_.target = decoded.pos_vel.q;
        profile_.speed =
            std::min(std::abs(static_cast<double>(decoded.pos_vel.dq)), limits().v_max);
        decoded.applied = true;
      }
      break;
    }
    case CommandKind::kRefresh:
      break;
    case CommandKind::kReadRegister:
      ++replies_;
      return dm::encode_param({id, dm::kParamRead, decoded.rid, registers_.read_back(decoded.rid)});
    case CommandKind::kWriteRegister: {
      const uint32_t old_mode = mode();
      registers_.write_raw(decoded.rid, decoded.raw_value);
      if (decoded.rid == reg::kControlMode && mode() != old_mode) {
        on_mode_change();
        if (can_drive() && mode() == dm::kModePosVel) {
          start_hold(q);
        }
      }
      ++replies_;
      return dm::encode_param({id, dm::kParamWrite, decoded.rid, registers_.raw(decoded.rid)});
    }
  }
  ++replies_;
  return feedback(shaft_q, shaft_dq);
}

double SimulatedMotor::control_torque(double shaft_q, double shaft_dq, double dt) {
  if (!can_drive()) {
    applied_torque_ = 0.0;
    return 0.0;
  }
  const dm::Limits lim = limits();
  const double q = motor_q(shaft_q);
  double tau = 0.0;
  if (mode() == dm::kModeMit && active_mit_) {
    const dm::MitCommand& c = *active_mit_;
    tau = c.kp * (c.q - q) + c.kd * (c.dq - shaft_dq) + c.tau;
  } else if (mode() == dm::kModePosVel && profile_.active) {
    Profile& pr = profile_;
    double acc = std::abs(registers_.as_float(reg::kAcc));
    double dec = std::abs(registers_.as_float(reg::kDec));
    acc = std::isfinite(acc) && acc > 1e-3 ? acc : 1e-3;
    dec = std::isfinite(dec) && dec > 1e-3 ? dec : 1e-3;

    // Reference: trapezoid toward the target, braking within DEC so it stops on it.
    double a_ref = 0.0;
    const double e = pr.target - pr.p_ref;
    if (std::abs(e) <= std::abs(pr.v_ref) * dt + 1e-12 && std::abs(pr.v_ref) <= 2.0 * dec * dt) {
      a_ref = -pr.v_ref / dt;
      pr.p_ref = pr.target;
      pr.v_ref = 0.0;
    } else {
      const double v_des = std::copysign(std::min(pr.speed, std::sqrt(2.0 * dec * std::abs(e))), e);
      double dv = v_des - pr.v_ref;
      const bool gaining = pr.v_ref == 0.0 || (pr.v_ref > 0.0) == (dv > 0.0);
      dv = clamp_abs(dv, (gaining ? acc : dec) * dt);
      a_ref = dv / dt;
      pr.v_ref += dv;
      pr.p_ref += pr.v_ref * dt;
    }

    // Position loop (KP_APR, 1/s) around a PI speed loop of bandwidth V_BW on the inertia the
    // drive is tuned for.
    double inertia = registers_.as_float(reg::kInertia);
    if (!(std::isfinite(inertia) && inertia > 0.0)) {
      inertia = config_.dynamics.inertia;
    }
    double w_speed = registers_.as_float(reg::kSpeedBandwidth);
    w_speed = std::isfinite(w_speed) ? std::clamp(w_speed, 10.0, 2000.0) : 400.0;
    double kp_pos = registers_.as_float(reg::kKpApr);
    kp_pos = std::isfinite(kp_pos) ? std::clamp(kp_pos, 0.0, w_speed / 4.0) : 0.0;
    const double speed_error = pr.v_ref + kp_pos * (pr.p_ref - q) - shaft_dq;
    const double ki = w_speed / 20.0;
    tau = inertia * (a_ref + w_speed * (speed_error + ki * pr.speed_integral));
    // Integrate only while that does not push further into the torque limit.
    if (std::abs(tau) < lim.t_max || (tau > 0.0) != (speed_error > 0.0)) {
      pr.speed_integral += speed_error * dt;
    }
  }
  applied_torque_ = clamp_abs(tau, lim.t_max);
  return applied_torque_;
}

void SimulatedMotor::tick(TimePoint now, double dt) {
  check_watchdog(now);
  const double t_max = dm::limits_of_type(config_.type).t_max;
  const double load = (applied_torque_ / t_max) * (applied_torque_ / t_max);
  t_rotor_ += (ambient_ + kRotorRiseAtFullTorque * load - t_rotor_) *
              std::min(1.0, dt / kRotorTimeConstant);
  t_mos_ += (ambient_ + kMosRiseAtIdle + kMosRiseAtFullTorque * load - t_mos_) *
            std::min(1.0, dt / kMosTimeConstant);
  const float over_temperature = registers_.as_float(reg::kOverTemperature);
  if (fault_ == 0 && over_temperature > 0.0f && t_rotor_ > over_temperature) {
    fault_ = dm::kCoilOverTemperature;
    sticky_fault_ = false;
    on_disable();
  }
}

void SimulatedMotor::inject_fault(uint8_t code, bool sticky) {
  fault_ = code;
  sticky_fault_ = sticky && code != 0;
  on_disable();
}

void SimulatedMotor::clear_injected_fault() {
  fault_ = 0;
  sticky_fault_ = false;
}

void SimulatedMotor::set_temperatures(double t_mos, double t_rotor) {
  t_mos_ = t_mos;
  t_rotor_ = t_rotor;
}

MotorState SimulatedMotor::state(double shaft_q, double shaft_dq) const {
  MotorState s;
  s.name = config_.name;
  s.type = config_.type;
  s.send_id = config_.send_id;
  s.master_id = config_.master_id;
  s.q = motor_q(shaft_q);
  s.dq = shaft_dq;
  s.torque = applied_torque_;
  s.shaft_q = shaft_q;
  s.zero_offset = zero_offset_;
  s.enabled = enabled_;
  s.status = status();
  s.mode = mode();
  s.silent = silent_;
  s.t_mos = t_mos_;
  s.t_rotor = t_rotor_;
  s.last_mit = last_mit_;
  s.last_pos_vel = last_pos_vel_;
  s.pos_vel_reference = profile_.p_ref;
  s.pos_vel_reference_velocity = profile_.v_ref;
  s.registers = registers_;
  s.frames_handled = frames_handled_;
  s.replies = replies_;
  return s;
}

}  // namespace kestrel::sim
