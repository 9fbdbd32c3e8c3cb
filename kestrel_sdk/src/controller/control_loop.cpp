// The 2.5 ms control loop: feedback, command, targets, frames, supervision, emergency stop.
#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cmath>
#include <iostream>
#include <iterator>
#include <optional>
#include <stdexcept>
#include <string>

#include "kestrel/controller/arm_controller_impl.hpp"
#include "kestrel/controller/septic_profile.hpp"

namespace dm = kestrel::damiao_motor;
using kestrel::can::socket::GripperComponent;

namespace {

constexpr int64_t kLoopPeriodNs = 2500000;
constexpr int64_t kFeedbackPeriodNs = 5000000;
// Two feedback readings closer than this (every joint) confirm the posture held at start.
constexpr double kHoldAgreementRad = 0.05;
constexpr double kFeedbackPeriodSec = 0.005;  // the runtime derivatives' step
constexpr int64_t kClipReportPeriodNs = 1000000000;

// Sleeps until an absolute steady-clock time, resuming after signals.
void sleep_until_ns(int64_t deadline_ns) {
  timespec ts;
  ts.tv_sec = static_cast<time_t>(deadline_ns / 1000000000);
  ts.tv_nsec = static_cast<long>(deadline_ns % 1000000000);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

bool all_finite(const kestrel::controller::JointArray& v) {
  return std::all_of(v.begin(), v.end(), [](double x) { return std::isfinite(x); });
}

// Linear interpolation of one sample field between samples i and i + 1.
kestrel::controller::JointArray lerp(const std::array<double, 6>& a, const std::array<double, 6>& b,
                                     double frac) {
  kestrel::controller::JointArray out{};
  for (size_t j = 0; j < out.size(); ++j) {
    out[j] = a[j] + (b[j] - a[j]) * frac;
  }
  return out;
}

}  // namespace

// Everything the control thread carries from one cycle to the next.
struct ArmController::Impl::LoopState {
  // Feedback.
  int64_t feedback_deadline_ns = 0;
  bool fresh = false;
  bool have_state = false;
  JointArray q{};
  JointArray dq{};
  JointArray tau{};
  bool gripper_sqrt_warning_standing = false;
  // The command copied this cycle.
  CommandState cmd;
  // Hold posture while no command was given (kind 0).
  bool hold_captured = false;
  bool hold_candidate_seen = false;  // `hold` holds one reading, waiting for a second to agree
  JointArray hold{};
  bool gravity_fallback_reported = false;
  // Runtime velocity/acceleration/jerk supervision.
  bool have_previous_velocity = false;
  bool have_previous_acceleration = false;
  JointArray previous_velocity{};
  JointArray previous_acceleration{};
  int derivative_stop_cycles = 0;
  bool derivative_warning_standing = false;
  // Waypoint tracking supervision.
  int tracking_stop_cycles = 0;
  bool tracking_warning_standing = false;
  // Gripper sending and watchdog: ticks on the command period, counted from the latest new
  // command (not from jittered wake-ups).
  int64_t last_gripper_tick_ns = 0;
  int64_t next_gripper_tick_ns = 0;
  bool gripper_dropped_by_watchdog = false;  // its motor has timed out; a new command revives it
  double commanded_gripper_distance = 0.0;
  int gripper_stop_count = 0;
  bool gripper_warning_standing = false;
  bool gripper_stale_standing = false;
  // This cycle's frames, all encoded before the first is written; the gripper's motor is
  // cleared and enabled just before frame `revive_gripper_before` when it was dropped.
  std::array<dm::EncodedFrame, kJoints + 1> frames{};
  size_t frame_count = 0;
  size_t revive_gripper_before = kNoRevive;
  static constexpr size_t kNoRevive = kJoints + 1;
  // Time spent on the bus this cycle: feedback refresh, reading replies, writing frames.
  int64_t io_ns = 0;
  // Feed-forward torque sent this cycle (MIT), after clipping.
  JointArray feedforward{};
  // Feed-forward clip report.
  int clip_count = 0;
  int64_t clip_window_start_ns = 0;
  bool nonfinite_warning_standing = false;
  // Motors in fault or silent; made with the configuration when the loop starts.
  std::optional<kestrel::controller::MotorSupervision> motors;
};

struct ArmController::Impl::CycleTargets {
  bool send = false;         // false: nothing to command this cycle
  bool torque_only = false;  // gravity-compensation floating mode
  JointArray q{};
  JointArray dq{};
  JointArray ddq{};
  bool have_gripper_target = false;
  double gripper_target = 0.0;  // opening, metres
};

int64_t ArmController::Impl::now_ns() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

double ArmController::Impl::clamp(double value, double low, double high) {
  return std::min(std::max(value, low), high);
}

double ArmController::Impl::clamp_to_urdf_joint_limit(int joint, double value) const {
  if (!joint_has_limits[joint]) {
    return value;
  }
  return clamp(value, joint_lower[joint], joint_upper[joint]);
}

void ArmController::Impl::control_loop() {
  LoopState loop;
  loop.motors.emplace(motor_supervision_config);
  int64_t deadline = now_ns() + kLoopPeriodNs;
  int64_t woke_late_ns = 0;  // how late this cycle started against its deadline
  while (!exit_flag.load()) {
    const int64_t cycle_start = now_ns();
    loop.io_ns = 0;
    loop.frame_count = 0;
    loop.revive_gripper_before = LoopState::kNoRevive;
    try {
      const int64_t now = cycle_start;
      read_feedback(loop, now);
      if (loop.fresh) {
        supervise_motors(loop, now);
      }
      if (!emergency_stop_flag.load()) {
        take_command(loop, now);
        CycleTargets targets;
        if (compute_targets(loop, now, targets)) {
          encode_arm_frames(loop, targets);
          encode_gripper_frame(loop, targets, now);
          write_frames(loop);
          publish_cycle_sample(loop, targets, now);
        }
        supervise_runtime_limits(loop);
        supervise_waypoint_tracking(loop, targets);
        supervise_gripper(loop, targets, now);
        report_clips(loop, now);
      }
    } catch (const std::exception& e) {
      std::cerr << "[control_loop] exception: " << e.what() << std::endl;
    }
    if (emergency_stop_flag.load()) {
      carry_out_emergency_stop();
      break;
    }
    // Missed periods are dropped, not caught up.
    const int64_t end = now_ns();
    const bool missed = end >= deadline;
    loop_timing.record(end - cycle_start - loop.io_ns, loop.io_ns, woke_late_ns, missed);
    if (missed) {
      deadline = end + kLoopPeriodNs;
      woke_late_ns = 0;
    } else {
      sleep_until_ns(deadline);
      woke_late_ns = now_ns() - deadline;
      deadline += kLoopPeriodNs;
    }
  }
  control_loop_running.store(false);
  std::cerr << "[control_loop] loop exited. exit_flag=" << (exit_flag.load() ? 1 : 0)
            << " emergency_stop_flag=" << (emergency_stop_flag.load() ? 1 : 0) << std::endl;
  notify_motion_state_changed();
}

void ArmController::Impl::read_feedback(LoopState& loop, int64_t now) {
  loop.fresh = false;
  if (joint_state_valid.load() && now < loop.feedback_deadline_ns) {
    return;  // the cached state is at most 5 ms old
  }
  if (loop.feedback_deadline_ns == 0) {
    loop.feedback_deadline_ns = now;
  }
  while (loop.feedback_deadline_ns <= now) {
    loop.feedback_deadline_ns += kFeedbackPeriodNs;
  }
  auto& arm = kestrel->get_arm();
  const int64_t io_start = now_ns();
  arm.refresh_all();
  kestrel->recv_all(100);
  loop.io_ns += now_ns() - io_start;

  const auto& devices = arm.dm_devices();
  if (devices.size() < static_cast<size_t>(kJoints)) {
    return;
  }
  for (int j = 0; j < kJoints; ++j) {
    const dm::Motor& m = devices[j]->get_motor();
    loop.q[j] = m.get_position() * motor_signs[j];
    loop.dq[j] = m.get_velocity() * motor_signs[j];
    loop.tau[j] = m.get_torque() * motor_signs[j];
  }
  {
    std::lock_guard<std::mutex> lock(state_mutex);
    joint_positions = loop.q;
    joint_velocities = loop.dq;
    joint_state_valid.store(true);
    joint_velocity_valid.store(true);
  }
  {
    std::lock_guard<std::mutex> lock(torque_mutex);
    joint_torques = loop.tau;
    torque_state_valid.store(true);
  }
  loop.fresh = true;
  loop.have_state = true;

  const auto& gripper = kestrel->get_gripper();
  if (enable_gripper && gripper.get_motor() != nullptr) {
    const double theta = gripper.get_motor()->get_position();
    double sqrt_arg = 0.0;
    const double distance = GripperComponent::motor_angle_to_distance(theta, &sqrt_arg);
    if (sqrt_arg < 0.0) {
      // Once per episode: beyond its stops the linkage has no solution every 5 ms.
      if (!loop.gripper_sqrt_warning_standing) {
        std::cerr << "Error: Kinematics singularity, sqrt arg=" << sqrt_arg << " at angle=" << theta
                  << std::endl;
      }
      loop.gripper_sqrt_warning_standing = true;
    } else {
      loop.gripper_sqrt_warning_standing = false;
    }
    std::lock_guard<std::mutex> lock(state_mutex);
    gripper_position = gripper.motor_angle_to_position(theta);
    gripper_distance = distance;
    gripper_state_time_ns = now;
    gripper_state_valid.store(true);
  }
}

void ArmController::Impl::supervise_motors(LoopState& loop, int64_t now) {
  using Reading = kestrel::controller::MotorSupervision::Reading;
  const auto& devices = kestrel->get_arm().dm_devices();
  std::array<Reading, kestrel::controller::MotorSupervision::kMaxArmMotors> arm{};
  const size_t arm_count = std::min(devices.size(), arm.size());
  for (size_t i = 0; i < arm_count; ++i) {
    const dm::Motor& m = devices[i]->get_motor();
    arm[i] = {m.get_feedback_count(), m.get_error_code()};
  }
  Reading gripper_reading;
  const Reading* gripper = nullptr;
  const dm::Motor* gripper_motor = kestrel->get_gripper().get_motor();
  if (enable_gripper && gripper_motor != nullptr) {
    gripper_reading = {gripper_motor->get_feedback_count(), gripper_motor->get_error_code()};
    gripper = &gripper_reading;
  }
  const auto finding = loop.motors->update(arm.data(), arm_count, gripper, now);
  if (!finding.gripper_line.empty()) {
    std::cerr << "[control_loop] " << finding.gripper_line << std::endl;
  }
  if (finding.stop_arm) {
    std::cerr << "[control_loop] " << finding.arm_line << std::endl;
    emergency_stop_flag.store(true);
  }
}

void ArmController::Impl::take_command(LoopState& loop, int64_t now) {
  bool switched = false;
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    last_cycle_ns = now;
    // The latest staged timeline whose switch time has come takes over, starting there; any
    // before it are over unplayed.
    auto due = staged.end();
    for (auto it = staged.begin(); it != staged.end() && now >= it->switch_time_ns; ++it) {
      due = it;
    }
    if (due != staged.end()) {
      StagedTimeline next = std::move(*due);
      for (auto it = staged.begin(); it != due; ++it) {  // over unplayed
        retire_if_last_locked(it->samples, Timeline());
        retire_if_last_locked(it->gripper_timeline, {});
      }
      staged.erase(staged.begin(), due + 1);
      const int64_t at = next.switch_time_ns;
      if (next.gripper_timeline) {
        command.gripper_timeline = std::move(next.gripper_timeline);
        command.gripper_kp = gripper_default_kp;
        command.gripper_kd = gripper_default_kd;
        command.gripper_command_pending = {1, 1};
        gripper_command_time_ns = now;
        gripper_command_seen = true;
      } else {
        freeze_gripper_timeline_locked(at);
      }
      command.kind = kJointWaypoints;
      command.started = false;
      command.waypoint_samples = std::move(next.samples);
      command.sample_period = next.sample_period;
      command.waypoint_started = true;
      command.waypoint_start_time_ns = at;
      command.command_id = next.command_id;
      const auto& last = command.waypoint_samples->back();
      command.target = last.position;
      command.target_velocity.fill(0.0);
      ++command.revision;
      switched = true;
    }
    if (command.kind == kJointTrajectory && !command.started) {
      command.start = loop.q;
      command.started = true;
      command.start_time_ns = now;
      ++command.revision;
    }
    if (command.kind == kJointWaypoints && !command.waypoint_started) {
      command.waypoint_started = true;
      command.waypoint_start_time_ns = now;
      ++command.revision;
    }
    retire_if_last_locked(loop.cmd.waypoint_samples, command.waypoint_samples);
    retire_if_last_locked(loop.cmd.gripper_timeline, command.gripper_timeline);
    loop.cmd = command;
  }
  if (switched) {
    notify_motion_state_changed();
  }
  if (loop.cmd.kind != kGravityRegressor && loop.cmd.kind != kGravityKdl) {
    loop.gravity_fallback_reported = false;
  }
}

bool ArmController::Impl::compute_targets(LoopState& loop, int64_t now, CycleTargets& t) {
  const CommandState& c = loop.cmd;
  t.ddq.fill(0.0);
  t.dq.fill(0.0);
  switch (c.kind) {
    case kNone:
      // No command yet: hold where the arm stands, once two feedback readings 5 ms apart
      // agree. In MIT mode the acknowledgements of the start-up register writes are read as
      // feedback; one that arrives late would otherwise become the hold posture.
      if (!loop.have_state) {
        return false;
      }
      if (!loop.hold_captured) {
        if (!loop.fresh) {
          return false;
        }
        bool agrees = loop.hold_candidate_seen;
        for (int j = 0; j < kJoints; ++j) {
          agrees = agrees && std::abs(loop.q[j] - loop.hold[j]) < kHoldAgreementRad;
        }
        loop.hold = loop.q;
        loop.hold_candidate_seen = true;
        if (!agrees) {
          return false;
        }
        loop.hold_captured = true;
      }
      t.q = loop.hold;
      break;
    case kJointRaw:
      for (int j = 0; j < kJoints; ++j) {
        t.q[j] = clamp_to_urdf_joint_limit(j, c.target[j]);
        t.dq[j] = c.target_velocity[j];
      }
      break;
    case kJointTrajectory: {
      const double elapsed = static_cast<double>(now - c.start_time_ns) * 1e-9;
      const double s = clamp(elapsed / c.duration, 0.0, 1.0);
      const double f = kestrel::controller::septic_position(s);
      const double g = kestrel::controller::septic_velocity(s) / c.duration;
      const double h = kestrel::controller::septic_acceleration(s) / (c.duration * c.duration);
      for (int j = 0; j < kJoints; ++j) {
        const double span = c.target[j] - c.start[j];
        t.q[j] = clamp_to_urdf_joint_limit(j, c.start[j] + span * f);
        t.dq[j] = span * g;
        t.ddq[j] = span * h;
      }
      break;
    }
    case kJointWaypoints: {
      if (!c.waypoint_samples || c.waypoint_samples->empty()) {
        return false;
      }
      const auto& samples = *c.waypoint_samples;
      const double elapsed = static_cast<double>(now - c.waypoint_start_time_ns) * 1e-9;
      const double position = std::max(elapsed / c.sample_period, 0.0);
      const size_t last = samples.size() - 1;
      size_t i = static_cast<size_t>(position);
      if (i >= last) {
        // Playback is over: the final sample becomes a hold.
        for (int j = 0; j < kJoints; ++j) {
          t.q[j] = clamp_to_urdf_joint_limit(j, samples[last].position[j]);
        }
        if (c.gripper_timeline && !c.gripper_timeline->empty()) {
          t.have_gripper_target = true;
          t.gripper_target = c.gripper_timeline->back();
        }
        end_waypoint_playback(loop, t.q, false);
        break;
      }
      const double frac = position - static_cast<double>(i);
      t.q = lerp(samples[i].position, samples[i + 1].position, frac);
      for (int j = 0; j < kJoints; ++j) {
        t.q[j] = clamp_to_urdf_joint_limit(j, t.q[j]);  // a last guard: plans stay inside
      }
      t.dq = lerp(samples[i].velocity, samples[i + 1].velocity, frac);
      t.ddq = lerp(samples[i].acceleration, samples[i + 1].acceleration, frac);
      if (c.gripper_timeline && !c.gripper_timeline->empty()) {
        const auto& g = *c.gripper_timeline;
        const size_t gi = std::min(i, g.size() - 1);
        const size_t gn = std::min(i + 1, g.size() - 1);
        t.have_gripper_target = true;
        t.gripper_target = g[gi] + (g[gn] - g[gi]) * frac;
      }
      break;
    }
    case kGravityRegressor:
    case kGravityKdl:
      if (!loop.have_state) {
        return false;
      }
      t.torque_only = true;
      t.q = loop.q;
      break;
    default:
      return false;
  }
  if (c.kind != kNone) {
    loop.hold_captured = false;
  }
  t.send = true;
  return true;
}

void ArmController::Impl::encode_arm_frames(LoopState& loop, const CycleTargets& t) {
  auto& arm = kestrel->get_arm();
  if (uses_pos_vel_mode()) {
    JointArray q = t.q;
    JointArray speed{};
    if (t.torque_only) {
      if (!loop.gravity_fallback_reported) {
        std::cerr << "[control_loop] Gravity compensation torque feedforward is "
                  << "disabled in POS_VEL_MODE; falling back to position/velocity hold."
                  << std::endl;
        loop.gravity_fallback_reported = true;
      }
      q = loop.q;  // hold wherever the arm is now: the measured posture, every cycle
    } else {
      for (int j = 0; j < kJoints; ++j) {
        speed[j] = clamp(std::abs(t.dq[j]), 0.0, max_vel[j]);
      }
    }
    if (!all_finite(q) || !all_finite(speed)) {
      if (!loop.nonfinite_warning_standing) {
        std::cerr << "[control_loop] non-finite joint command skipped" << std::endl;
      }
      loop.nonfinite_warning_standing = true;
      return;
    }
    loop.nonfinite_warning_standing = false;
    loop.feedforward.fill(0.0);
    for (int j = 0; j < kJoints; ++j) {
      loop.frames[loop.frame_count++] = arm.encode_pos_vel_one(
          j, {static_cast<float>(q[j] * motor_signs[j]), static_cast<float>(speed[j])});
    }
    return;
  }

  JointArray tau{};
  compute_feedforward(loop, t, tau);
  for (int j = 0; j < kJoints; ++j) {
    const double limit = mit_config.feedforward_tau_limits[j];
    const double clipped = clamp(tau[j], -limit, limit);
    if (std::abs(clipped - tau[j]) > 1e-9) {
      ++loop.clip_count;
    }
    tau[j] = clipped;
  }
  if (!all_finite(t.q) || !all_finite(t.dq) || !all_finite(tau)) {
    if (!loop.nonfinite_warning_standing) {
      std::cerr << "[control_loop] non-finite joint command skipped" << std::endl;
    }
    loop.nonfinite_warning_standing = true;
    return;
  }
  loop.nonfinite_warning_standing = false;
  loop.feedforward = tau;
  for (int j = 0; j < kJoints; ++j) {
    const double sign = motor_signs[j];
    loop.frames[loop.frame_count++] =
        t.torque_only ? arm.encode_mit_one(j, {0.0, 0.0, 0.0, 0.0, tau[j] * sign})
                      : arm.encode_mit_one(j, {mit_config.kp[j], mit_config.kd[j], t.q[j] * sign,
                                               t.dq[j] * sign, tau[j] * sign});
  }
}

// MIT feed-forward from the dynamics of the measured posture and the commanded motion, on the
// loop's own copy of the model: inertia + (Coriolis + gravity × scale), each term when enabled.
void ArmController::Impl::compute_feedforward(const LoopState& loop, const CycleTargets& t,
                                              JointArray& tau) {
  if (cycle_dynamics->num_joints() != kJoints) {
    throw std::runtime_error(
        "gravity_compensation_kdl: size mismatch between input vector and KDL chain joints");
  }
  const auto check = [](int code, const char* function) {
    if (code < 0) {
      throw std::runtime_error(std::string(function) + " failed with code " + std::to_string(code));
    }
  };
  auto& dynamics = *cycle_dynamics;
  const double scale = mit_config.gravity_comp_scale;
  JointArray gravity{};
  JointArray coriolis{};
  JointArray inertia{};
  // Floating mode: gravity is the whole command, whatever the tracking feed-forward switches.
  if (t.torque_only || mit_config.enable_gravity_compensation) {
    check(dynamics.gravity(loop.q.data(), gravity.data()), "gravity_compensation_kdl");
  }
  if (!t.torque_only && mit_config.enable_coriolis_compensation) {
    check(dynamics.coriolis(loop.q.data(), t.dq.data(), coriolis.data()),
          "coriolis_compensation_kdl");
  }
  if (!t.torque_only && mit_config.enable_inertia_compensation) {
    check(dynamics.inertia(loop.q.data(), t.ddq.data(), inertia.data()),
          "inertia_compensation_kdl");
  }
  for (int j = 0; j < kJoints; ++j) {
    tau[j] = t.torque_only ? gravity[j] * scale : inertia[j] + (coriolis[j] + gravity[j] * scale);
  }
}

void ArmController::Impl::encode_gripper_frame(LoopState& loop, const CycleTargets& t,
                                               int64_t now) {
  auto& gripper = kestrel->get_gripper();
  if (!enable_gripper || gripper.get_motor() == nullptr) {
    return;
  }
  if (t.torque_only) {
    loop.frames[loop.frame_count++] = gripper.encode_tau(0.0);  // the floating arm's gripper
    return;                                                     // goes limp too
  }
  const CommandState& c = loop.cmd;
  if (!c.gripper_command_pending[0]) {
    return;
  }
  // A new command goes out at once; a standing one is repeated every command period, which
  // also keeps the gripper motor's communication time-out from expiring.
  const int64_t period_ns = static_cast<int64_t>(gripper_watchdog_config.command_period_ms * 1e6);
  const bool fresh_command = c.gripper_command_pending[1] != 0;
  if (!fresh_command && now < loop.next_gripper_tick_ns) {
    return;
  }
  if (fresh_command) {
    loop.next_gripper_tick_ns = now;
    if (loop.gripper_dropped_by_watchdog) {
      // Unsent since the watchdog stop, the motor has timed out: clear that and enable it.
      loop.revive_gripper_before = loop.frame_count;
      loop.gripper_dropped_by_watchdog = false;
    }
  }
  while (loop.next_gripper_tick_ns <= now) {
    loop.next_gripper_tick_ns += period_ns;
  }
  const double target = t.have_gripper_target ? t.gripper_target : c.gripper_target;
  loop.commanded_gripper_distance = target;
  loop.last_gripper_tick_ns = now;
  loop.frames[loop.frame_count++] = gripper.encode_distance(target, c.gripper_kp, c.gripper_kd);
  if (fresh_command) {
    std::lock_guard<std::mutex> lock(command_mutex);
    command.gripper_command_pending[1] = 0;
  }
}

void ArmController::Impl::write_frames(LoopState& loop) {
  auto& arm = kestrel->get_arm();
  auto& gripper = kestrel->get_gripper();
  const int64_t io_start = now_ns();
  for (size_t i = 0; i < loop.frame_count; ++i) {
    if (i == loop.revive_gripper_before) {
      gripper.clrErr_all();
      gripper.enable_all();
    }
    arm.send_encoded(loop.frames[i]);  // one socket carries both groups' frames
  }
  loop.io_ns += now_ns() - io_start;
}

void ArmController::Impl::supervise_runtime_limits(LoopState& loop) {
  if (!loop.fresh || !joint_state_valid.load() || !safety_config.trajectory_safety.enabled ||
      !runtime_derivative_checks_enabled) {
    return;
  }
  const auto& ts = safety_config.trajectory_safety;
  JointArray acceleration{};
  JointArray jerk{};
  for (int j = 0; j < kJoints; ++j) {
    acceleration[j] = loop.have_previous_velocity
                          ? (loop.dq[j] - loop.previous_velocity[j]) / kFeedbackPeriodSec
                          : 0.0;
    jerk[j] = loop.have_previous_acceleration
                  ? (acceleration[j] - loop.previous_acceleration[j]) / kFeedbackPeriodSec
                  : 0.0;
  }
  loop.have_previous_acceleration = loop.have_previous_velocity;
  loop.have_previous_velocity = true;
  loop.previous_velocity = loop.dq;
  loop.previous_acceleration = acceleration;

  struct Reached {
    const char* name = nullptr;
    int joint = 0;
    double value = 0.0;
    double threshold = 0.0;
    double ratio = 0.0;
  };
  Reached stop;
  Reached warning;
  auto consider = [](Reached& kept, const char* name, int joint, double value, double threshold) {
    if (threshold <= 0.0 || value < threshold) {
      return;  // a zero threshold is ignored; reaching means value >= threshold
    }
    const double ratio = value / std::max(threshold, 1e-12);
    if (kept.name == nullptr || ratio > kept.ratio) {
      kept = {name, joint, value, threshold, ratio};
    }
  };
  for (int j = 0; j < kJoints; ++j) {
    const struct {
      const char* name;
      double value;
      double limit;
      double stop_scale;
      double warn_scale;
    } checks[3] = {
        {"velocity", std::abs(loop.dq[j]), max_vel[j], ts.velocity_stop_scale,
         ts.velocity_warn_scale},
        {"acceleration", std::abs(acceleration[j]), max_acc[j], ts.acceleration_stop_scale,
         ts.acceleration_warn_scale},
        {"jerk", std::abs(jerk[j]), max_jerk[j], ts.jerk_stop_scale, ts.jerk_warn_scale},
    };
    for (const auto& check : checks) {
      const double stop_threshold = check.limit * check.stop_scale;
      if (check.value >= stop_threshold && stop_threshold > 0.0) {
        consider(stop, check.name, j + 1, check.value, stop_threshold);
      } else {
        consider(warning, check.name, j + 1, check.value, check.limit * check.warn_scale);
      }
    }
  }
  if (stop.name != nullptr) {
    ++loop.derivative_stop_cycles;
    if (loop.derivative_stop_cycles >= ts.derivative_stop_cycles) {
      std::cerr << "[control_loop] runtime joint " << stop.name << " stop: joint=" << stop.joint
                << " value=" << stop.value << " threshold=" << stop.threshold
                << " cycles=" << loop.derivative_stop_cycles << std::endl;
      raise_stop_flag(emergency_stop_flag);
    }
    return;
  }
  loop.derivative_stop_cycles = 0;
  if (warning.name != nullptr) {
    if (!loop.derivative_warning_standing) {
      std::cerr << "[control_loop] runtime joint " << warning.name
                << " warning: joint=" << warning.joint << " value=" << warning.value
                << " threshold=" << warning.threshold << std::endl;
      loop.derivative_warning_standing = true;
    }
  } else {
    loop.derivative_warning_standing = false;
  }
}

void ArmController::Impl::supervise_waypoint_tracking(LoopState& loop, const CycleTargets& t) {
  if (loop.cmd.kind != kJointWaypoints || !t.send || !loop.have_state ||
      !safety_config.trajectory_safety.enabled) {
    loop.tracking_stop_cycles = 0;
    loop.tracking_warning_standing = false;
    return;
  }
  const auto& ts = safety_config.trajectory_safety;
  double error = 0.0;
  int joint = 1;
  for (int j = 0; j < kJoints; ++j) {
    const double e = std::abs(t.q[j] - loop.q[j]);
    if (e > error) {
      error = e;
      joint = j + 1;
    }
  }
  if (error >= ts.tracking_error_stop_rad) {
    ++loop.tracking_stop_cycles;
    if (loop.tracking_stop_cycles >= ts.tracking_error_stop_cycles) {
      std::cerr << "[control_loop] waypoint tracking error stop: joint=" << joint
                << " error_rad=" << error << " threshold=" << ts.tracking_error_stop_rad
                << " cycles=" << loop.tracking_stop_cycles << std::endl;
      // The motion ends, not the controller: hold where the arm is, and drop a staged chunk
      // planned from the motion that failed.
      end_waypoint_playback(loop, loop.q, true);
      loop.tracking_stop_cycles = 0;
    }
    return;
  }
  loop.tracking_stop_cycles = 0;
  if (error >= ts.tracking_error_warn_rad) {
    if (!loop.tracking_warning_standing) {
      std::cerr << "[control_loop] waypoint tracking error warning: joint=" << joint
                << " error_rad=" << error << " threshold=" << ts.tracking_error_warn_rad
                << std::endl;
      loop.tracking_warning_standing = true;
    }
  } else {
    loop.tracking_warning_standing = false;
  }
}

void ArmController::Impl::end_waypoint_playback(LoopState& loop, const JointArray& hold,
                                                bool drop_staged) {
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    if (command.kind != kJointWaypoints || command.command_id != loop.cmd.command_id) {
      return;  // a newer command took the slot meanwhile
    }
    // The gripper keeps the opening it was commanded last.
    freeze_gripper_timeline_locked(now_ns());
    command.kind = kJointRaw;
    command.target = hold;
    command.target_velocity.fill(0.0);
    command.waypoint_started = false;
    command.waypoint_samples.reset();
    if (drop_staged) {
      staged.clear();
    }
    ++command.revision;
  }
  notify_motion_state_changed();
}

void ArmController::Impl::supervise_gripper(LoopState& loop, const CycleTargets& t, int64_t now) {
  if (!enable_gripper || !gripper_watchdog_config.enabled || t.torque_only) {
    return;
  }
  bool seen;
  bool pending;
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    seen = gripper_command_seen;
    pending = command.gripper_command_pending[0] != 0;
  }
  if (!seen || !pending) {
    return;
  }
  // The watchdog ticks with the gripper command period.
  if (now != loop.last_gripper_tick_ns) {
    return;
  }
  const auto& wd = gripper_watchdog_config;
  double measured = 0.0;
  int64_t stamp = 0;
  bool valid;
  {
    std::lock_guard<std::mutex> lock(state_mutex);
    valid = gripper_state_valid.load();
    measured = gripper_distance;
    stamp = gripper_state_time_ns;
  }
  if (!valid || static_cast<double>(now - stamp) * 1e-6 > wd.state_timeout_ms) {
    if (!loop.gripper_stale_standing) {
      std::cerr << "[control_loop] gripper watchdog warning: stale state feedback" << std::endl;
      loop.gripper_stale_standing = true;
    }
    return;
  }
  loop.gripper_stale_standing = false;
  const double error = std::abs(measured - loop.commanded_gripper_distance);
  if (error >= wd.position_error_stop_m) {
    ++loop.gripper_stop_count;
    const double duration_ms = loop.gripper_stop_count * wd.command_period_ms;
    if (duration_ms >= wd.position_error_stop_ms) {
      std::cerr << "[control_loop] gripper watchdog stop: position_error_m=" << error
                << " duration_ms=" << duration_ms << std::endl;
      {
        std::lock_guard<std::mutex> lock(command_mutex);
        command.gripper_command_pending[0] = 0;
      }
      loop.gripper_stop_count = 0;
      loop.gripper_dropped_by_watchdog = true;
    }
    return;
  }
  loop.gripper_stop_count = 0;
  if (error >= wd.position_error_warn_m) {
    if (!loop.gripper_warning_standing) {
      std::cerr << "[control_loop] gripper watchdog warning: position_error_m=" << error
                << std::endl;
      loop.gripper_warning_standing = true;
    }
  } else {
    loop.gripper_warning_standing = false;
  }
}

void ArmController::Impl::report_clips(LoopState& loop, int64_t now) {
  if (loop.clip_window_start_ns == 0) {
    loop.clip_window_start_ns = now;
  }
  if (now - loop.clip_window_start_ns < kClipReportPeriodNs) {
    return;
  }
  if (loop.clip_count > 0) {
    std::cerr << "[control_loop] tau clipped count in last 1s: " << loop.clip_count << std::endl;
  }
  loop.clip_count = 0;
  loop.clip_window_start_ns = now;
}

void ArmController::Impl::carry_out_emergency_stop() {
  std::cerr << "[control_loop] emergency_stop_flag=1, calling disable_all()" << std::endl;
  {
    // Nothing staged may start: the arm is being switched off.
    std::lock_guard<std::mutex> lock(command_mutex);
    staged.clear();
    ++command.revision;
  }
  try {
    kestrel->disable_all();
    kestrel->recv_all(1000);
  } catch (const std::exception& e) {
    std::cerr << "[control_loop] exception: " << e.what() << std::endl;
  }
  std::cerr << "[control_loop] disable_all done, exit_flag set, control loop exiting" << std::endl;
  raise_stop_flag(exit_flag);
}

void ArmController::Impl::raise_stop_flag(std::atomic<bool>& flag) {
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    flag.store(true);
  }
  notify_motion_state_changed();
}

void ArmController::Impl::freeze_gripper_timeline_locked(int64_t when_ns) {
  if (command.gripper_timeline && !command.gripper_timeline->empty()) {
    const auto& g = *command.gripper_timeline;
    size_t i = 0;
    if (command.kind == kJointWaypoints && command.waypoint_started) {
      const double elapsed = static_cast<double>(when_ns - command.waypoint_start_time_ns) * 1e-9;
      i = std::min(static_cast<size_t>(std::max(elapsed, 0.0) / command.sample_period),
                   g.size() - 1);
    }
    command.gripper_target = g[i];
  }
  command.gripper_timeline.reset();
}

void ArmController::Impl::publish_cycle_sample(const LoopState& loop, const CycleTargets& t,
                                               int64_t cycle_start_ns) {
  // The gripper reading takes the state lock: read it first, never under the sample's lock.
  double measured_gripper = -1.0;
  if (enable_gripper && !try_get_latest_gripper_distance_state(measured_gripper)) {
    measured_gripper = -1.0;
  }
  std::lock_guard<std::mutex> lock(cycle_sample_mutex);
  auto& c = cycle_sample;
  ++c.cycle;
  c.time_sec = static_cast<double>(cycle_start_ns) * 1e-9;
  c.command_kind = loop.cmd.kind;
  c.commanded_position = t.torque_only ? loop.q : t.q;
  c.commanded_velocity = t.torque_only ? JointArray{} : t.dq;
  c.feedforward_torque = loop.feedforward;
  c.measured_position = loop.q;
  c.measured_velocity = loop.dq;
  c.measured_torque = loop.tau;
  if (enable_gripper) {
    c.commanded_gripper_m = loop.last_gripper_tick_ns != 0 ? loop.commanded_gripper_distance : -1.0;
    c.measured_gripper_m = measured_gripper;
  }
}

template <typename T>
void ArmController::Impl::retire_if_last_locked(std::shared_ptr<T>& held,
                                                const std::shared_ptr<T>& next) {
  if (held && held != next && held.use_count() == 1 &&
      retired_timelines.size() < retired_timelines.capacity()) {
    retired_timelines.push_back(std::move(held));
  }
}

void ArmController::Impl::release_retired_timelines() {
  std::vector<std::shared_ptr<const void>> released;
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    if (retired_timelines.empty()) {
      return;
    }
    released.assign(std::make_move_iterator(retired_timelines.begin()),
                    std::make_move_iterator(retired_timelines.end()));
    retired_timelines.clear();
  }
}  // the timelines are freed here, on the monitor thread
