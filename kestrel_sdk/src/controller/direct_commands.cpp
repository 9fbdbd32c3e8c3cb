// Direct commands and state queries: joint moves, raw joint streaming, gripper, gravity
// compensation, latest state. Each command checks its arguments, then writes the command slot.
#include <cmath>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "kestrel/controller/arm_controller_impl.hpp"
#include "kestrel/controller/septic_profile.hpp"

namespace {

constexpr const char* kNoGripper = "该模式未包含夹爪";
// The 7th-order rest-to-rest profile of set_joint peaks at 35/16 of its mean speed.
constexpr double kSepticPeakSpeed = 2.1875;

// Every public number is checked before anything changes: the motor codec maps NaN to the
// bottom of its range, so a NaN target must never reach the bus.
void require_finite(const std::vector<double>& values, const char* what) {
  for (double v : values) {
    if (!std::isfinite(v)) {
      throw std::invalid_argument(std::string(what) + " must contain only finite values");
    }
  }
}

void require_finite(double value, const char* what) {
  if (!std::isfinite(value)) {
    throw std::invalid_argument(std::string(what) + " must be finite");
  }
}

kestrel::controller::JointArray to_joint_array(const std::vector<double>& v) {
  kestrel::controller::JointArray a{};
  for (size_t i = 0; i < a.size(); ++i) {
    a[i] = v[i];
  }
  return a;
}

}  // namespace

// ---- Command writers ------------------------------------------------------------------------

void ArmController::Impl::replace_motion_locked(CommandKind kind) {
  // The gripper keeps the opening the replaced motion commanded, not an older direct target.
  freeze_gripper_timeline_locked(now_ns());
  command.kind = kind;
  command.started = false;
  command.waypoint_started = false;
  command.waypoint_samples.reset();
  staged.clear();
  ++command.revision;
}

void ArmController::Impl::write_joint_raw_command(const JointArray& q, const JointArray& v) {
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    replace_motion_locked(kJointRaw);
    command.target = q;
    command.target_velocity = v;
  }
  notify_motion_state_changed();
}

void ArmController::Impl::write_joint_trajectory_command(const JointArray& q, double duration) {
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    replace_motion_locked(kJointTrajectory);
    command.target = q;
    command.target_velocity.fill(0.0);
    command.duration = duration;
  }
  notify_motion_state_changed();
}

void ArmController::Impl::write_gravity_command(CommandKind kind) {
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    replace_motion_locked(kind);
  }
  notify_motion_state_changed();
}

void ArmController::Impl::write_gripper_command(double distance, double kp, double kd) {
  std::lock_guard<std::mutex> lock(command_mutex);
  // The newest gripper command wins over a gripper timeline running or staged before it.
  command.gripper_timeline.reset();
  for (auto& next : staged) {
    next.gripper_timeline.reset();
  }
  command.gripper_target = distance;
  command.gripper_kp = kp;
  command.gripper_kd = kd;
  command.gripper_command_pending = {1, 1};
  gripper_command_time_ns = now_ns();
  gripper_command_seen = true;
}

int64_t ArmController::Impl::write_waypoint_command(
    Timeline samples, std::shared_ptr<const std::vector<double>> gripper_timeline,
    double sample_period, const uint64_t* stops_seen) {
  int64_t id;
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    if (stops_seen != nullptr && stop_generation.load() != *stops_seen) {
      return -1;
    }
    replace_motion_locked(kJointWaypoints);
    id = command.command_counter++;
    command.command_id = id;
    command.waypoint_samples = std::move(samples);
    command.gripper_timeline = std::move(gripper_timeline);
    if (command.gripper_timeline) {
      command.gripper_kp = gripper_default_kp;
      command.gripper_kd = gripper_default_kd;
      command.gripper_command_pending = {1, 1};
      gripper_command_time_ns = now_ns();
      gripper_command_seen = true;
    }
    command.sample_period = sample_period;
    if (command.waypoint_samples && !command.waypoint_samples->empty()) {
      command.target = command.waypoint_samples->back().position;
    }
    command.target_velocity.fill(0.0);
  }
  notify_motion_state_changed();
  return id;
}

void ArmController::Impl::check_joint_move_speed(const JointArray& target, double time) {
  const double factor = trajectory_config.set_joint_speed_factor;
  JointArray from{};
  if (factor <= 0.0 || !try_get_latest_joint_state(from)) {
    return;  // off, or no feedback yet to measure the distance from
  }
  for (int j = 0; j < kJoints; ++j) {
    const double peak = kSepticPeakSpeed * std::abs(target[j] - from[j]) / time;
    const double allowed = factor * max_vel[j];
    if (peak > allowed) {
      std::ostringstream msg;
      msg << "set_joint time " << time << " s is too short: joint " << (j + 1) << " would peak at "
          << peak << " rad/s, above " << factor << " x its limit of " << max_vel[j]
          << " rad/s (joint_trajectory.set_joint_speed_factor); the shortest time is "
          << kSepticPeakSpeed * std::abs(target[j] - from[j]) / allowed << " s";
      throw std::invalid_argument(msg.str());
    }
  }
}

bool ArmController::Impl::splice_joint_move(const JointArray& target, double time) {
  JointArray measured{};
  if (!try_get_latest_joint_state(measured) || !in_motion(splice_start(now_ns(), measured).first)) {
    return false;  // from standstill the move starts as usual
  }
  const double period = command_sample_period;
  stage_spliced_motion(
      [&](const MotionState& start) {
        // Brake to rest within the limits, then the 7th-order move from there.
        const kestrel::controller::SpliceTransition brake =
            kestrel::controller::JointSplice({max_vel, max_acc, max_jerk}, period)
                .plan(start, JointArray{});
        const long steps = std::max(1L, static_cast<long>(std::ceil(time / period - 1e-9)));
        auto samples = std::make_shared<std::vector<Sample>>();
        samples->reserve(static_cast<size_t>(brake.steps + steps) + 1);
        for (long i = 0; i < brake.steps; ++i) {
          const MotionState s = brake.at(static_cast<double>(i) * period);
          samples->push_back({s.position, s.velocity, s.acceleration});
        }
        const JointArray from = brake.end().position;
        for (long i = 0; i <= steps; ++i) {
          const double s = std::min(static_cast<double>(i) * period / time, 1.0);
          Sample sample;
          for (int j = 0; j < kJoints; ++j) {
            const double span = target[j] - from[j];
            sample.position[j] = from[j] + span * kestrel::controller::septic_position(s);
            sample.velocity[j] = span * kestrel::controller::septic_velocity(s) / time;
            sample.acceleration[j] =
                span * kestrel::controller::septic_acceleration(s) / (time * time);
          }
          samples->push_back(sample);
        }
        PreparedMotion motion;
        motion.duration = static_cast<double>(samples->size() - 1) * period;
        motion.samples = std::move(samples);
        return motion;
      },
      0.0, kControlHz, measured, motion_planning_estimate_ns,
      "set_joint: the running motion kept changing while the move was planned; nothing was "
      "changed");
  return true;
}

// ---- Published-state readers ----------------------------------------------------------------

bool ArmController::Impl::try_get_latest_joint_state(JointArray& out) {
  std::lock_guard<std::mutex> lock(state_mutex);
  if (!joint_state_valid.load()) {
    return false;
  }
  out = joint_positions;
  return true;
}

std::vector<double> ArmController::Impl::current_joints_or_zero() {
  JointArray current{};
  try_get_latest_joint_state(current);
  return std::vector<double>(current.begin(), current.end());
}

bool ArmController::Impl::try_get_latest_joint_velocity_state(JointArray& out) {
  std::lock_guard<std::mutex> lock(state_mutex);
  if (!joint_velocity_valid.load()) {
    return false;
  }
  out = joint_velocities;
  return true;
}

bool ArmController::Impl::try_get_latest_gripper_state(double& out) {
  std::lock_guard<std::mutex> lock(state_mutex);
  if (!gripper_state_valid.load()) {
    return false;
  }
  out = gripper_position;
  return true;
}

bool ArmController::Impl::try_get_latest_gripper_distance_state(double& out) {
  std::lock_guard<std::mutex> lock(state_mutex);
  if (!gripper_state_valid.load()) {
    return false;
  }
  out = gripper_distance;
  return true;
}

// ---- Public joint commands ------------------------------------------------------------------

void ArmController::set_joint(const std::vector<double>& q, double time) {
  const CallScope scope(*this);
  if (q.size() != 6) {
    throw std::invalid_argument("q_end size mismatch");
  }
  require_finite(q, "q_end");
  require_finite(time, "tf");
  if (!(time > 0.0)) {
    throw std::invalid_argument("tf must be positive");
  }
  auto& i = impl();
  Impl::JointArray target = to_joint_array(q);
  for (int j = 0; j < Impl::kJoints; ++j) {
    target[j] = i.clamp_to_urdf_joint_limit(j, target[j]);
  }
  i.check_joint_move_speed(target, time);
  if (i.trajectory_config.smooth_takeover && i.splice_joint_move(target, time)) {
    return;
  }
  i.write_joint_trajectory_command(target, time);
}

void ArmController::set_joint_raw(const std::vector<double>& q, const std::vector<double>& v) {
  if (q.size() != 6) {
    throw std::invalid_argument("q_end length does not match num_joints");
  }
  if (v.size() != 6) {
    throw std::invalid_argument("v_end length does not match num_joints");
  }
  require_finite(q, "q_end");
  require_finite(v, "v_end");
  impl().write_joint_raw_command(to_joint_array(q), to_joint_array(v));
}

// ---- Gripper --------------------------------------------------------------------------------

void ArmController::openGripper() {
  if (!impl().enable_gripper) {
    std::cout << kNoGripper << std::endl;
    return;
  }
  impl().write_gripper_command(impl().gripper_stroke, impl().gripper_default_kp,
                               impl().gripper_default_kd);
}

void ArmController::closeGripper() {
  if (!impl().enable_gripper) {
    std::cout << kNoGripper << std::endl;
    return;
  }
  impl().write_gripper_command(0.0, impl().gripper_default_kp, impl().gripper_default_kd);
}

void ArmController::setGripperPosition(double position) {
  setGripperPosition_raw(position);
}

void ArmController::setGripperPosition_raw(double position) {
  require_finite(position, "gripper position");
  if (position < 0.0 || position > 1.0) {
    std::cerr << "[Warning] Gripper position must be in [0, 1], but got: " << position
              << ". Value will be clamped.\n";
  }
  if (!impl().enable_gripper) {
    std::cout << kNoGripper << std::endl;
    return;
  }
  const double p = Impl::clamp(position, 0.0, 1.0);
  impl().write_gripper_command(p * impl().gripper_stroke, impl().gripper_default_kp,
                               impl().gripper_default_kd);
}

void ArmController::setGripperDistance(double distance, double kp, double kd) {
  require_finite(distance, "gripper distance");
  require_finite(kp, "gripper kp");
  require_finite(kd, "gripper kd");
  if (distance < 0.0 || distance > impl().gripper_stroke) {
    // The text speaks of millimetres although the value is in metres.
    std::cerr << "[Warning] Gripper distance must be in [0mm, 85 mm], but got: " << distance
              << ". Value will be clamped.\n";
  }
  if (!impl().enable_gripper) {
    std::cout << kNoGripper << std::endl;
    return;
  }
  impl().write_gripper_command(Impl::clamp(distance, 0.0, impl().gripper_stroke),
                               Impl::clamp(kp, 0.1, 20.0), Impl::clamp(kd, 0.1, 1.0));
}

void ArmController::setGripperDistance(double distance) {
  setGripperDistance(distance, 8.0, 0.1);
}

// ---- Gravity compensation -------------------------------------------------------------------

void ArmController::identify_gravity_compensation() {
  impl().write_gravity_command(Impl::kGravityKdl);
}

void ArmController::identify_gravity_compensation_kdl() {
  impl().write_gravity_command(Impl::kGravityKdl);
}

// ---- State queries --------------------------------------------------------------------------

std::vector<double> ArmController::get_joint() {
  Impl::JointArray q{};
  if (!impl().try_get_latest_joint_state(q)) {
    return {};
  }
  return std::vector<double>(q.begin(), q.end());
}

std::vector<double> ArmController::get_joint_velocities() {
  Impl::JointArray v{};
  if (!impl().try_get_latest_joint_velocity_state(v)) {
    return {};
  }
  return std::vector<double>(v.begin(), v.end());
}

std::vector<double> ArmController::get_joint_torques() {
  Impl::JointArray t{};
  if (!impl().try_get_latest_torque_state(t)) {
    return {};
  }
  return std::vector<double>(t.begin(), t.end());
}

std::vector<double> ArmController::get_end_effector_pose() {
  const CallScope scope(*this);
  Impl::JointArray q{};
  if (!impl().try_get_latest_joint_state(q)) {
    return {};
  }
  return impl().kinematics->forwardKinematics_kdl(std::vector<double>(q.begin(), q.end()));
}

double ArmController::get_gripper_position() {
  if (!impl().enable_gripper) {
    std::cout << kNoGripper << std::endl;
    return -1.0;
  }
  double distance = 0.0;
  if (!impl().try_get_latest_gripper_distance_state(distance)) {
    return 0.0;
  }
  return Impl::clamp(distance / impl().gripper_stroke, 0.0, 1.0);
}

double ArmController::get_gripper_distance() {
  if (!impl().enable_gripper) {
    std::cout << kNoGripper << std::endl;
    return -1.0;
  }
  double distance = 0.0;
  if (!impl().try_get_latest_gripper_distance_state(distance)) {
    return 0.0;
  }
  return Impl::clamp(distance, 0.0, impl().gripper_stroke);
}
