// Waypoint motion execution: validate, plan from the arm's current (or soon-to-be) state, check,
// hand the timeline to the control loop, and wait for it (or, for chunk updates, splice it into
// the running motion and return).
#include <algorithm>
#include <chrono>
#include <cmath>
#include <functional>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/controller/arm_controller_impl.hpp"
#include "kestrel/controller/septic_profile.hpp"

namespace ka = kestrel::algorithms;

namespace {

namespace kc = kestrel::controller;

bool all_finite(const std::vector<double>& values) {
  return std::all_of(values.begin(), values.end(), [](double v) { return std::isfinite(v); });
}

// One timeline sampled like the control loop samples it: linear between two samples, the last
// sample at rest once it is over.
kc::JointMotionState sample_timeline(
    const std::vector<kestrel::algorithms::WaypointTrajectorySample>& samples, double period,
    double elapsed) {
  kc::JointMotionState s;
  const double index = std::max(elapsed / period, 0.0);
  const size_t last = samples.size() - 1;
  const size_t i = std::min(static_cast<size_t>(index), last);
  if (i >= last) {
    s.position = samples[last].position;
    return s;
  }
  const double frac = index - static_cast<double>(i);
  for (size_t j = 0; j < s.position.size(); ++j) {
    const auto& a = samples[i];
    const auto& b = samples[i + 1];
    s.position[j] = a.position[j] + (b.position[j] - a.position[j]) * frac;
    s.velocity[j] = a.velocity[j] + (b.velocity[j] - a.velocity[j]) * frac;
    s.acceleration[j] = a.acceleration[j] + (b.acceleration[j] - a.acceleration[j]) * frac;
  }
  return s;
}

// A stop brakes from a state this far ahead of the call, so that it is published before the
// control loop gets there.
constexpr int64_t kStopLeadNs = 1000000;
// Attempts at publishing a splice before the running motion moves on under it.
constexpr int kSpliceAttempts = 4;

}  // namespace

void ArmController::Impl::check_waypoint_arguments(
    const std::vector<std::vector<double>>& waypoints, double time_sec, double speed_percent,
    double control_hz, const double* switch_delay,
    const std::vector<double>* gripper_positions) const {
  if (waypoints.empty()) {
    throw std::invalid_argument("waypoints must not be empty");
  }
  if (!(control_hz > 0.0) || !std::isfinite(control_hz)) {
    throw std::invalid_argument("control_hz must be positive");
  }
  if (time_sec < 0.0) {
    throw std::invalid_argument("time_sec must be non-negative");
  }
  if (switch_delay != nullptr && *switch_delay < 0.0) {
    throw std::invalid_argument("switch_delay_sec must be non-negative");
  }
  if (speed_percent > 1.0) {
    throw std::invalid_argument("speed_percent must be in (0, 1] when provided");
  }
  if (speed_percent > 0.0 && time_sec > 0.0) {
    throw std::invalid_argument("speed_percent and time_sec are mutually exclusive; set only one");
  }
  if (!std::isfinite(time_sec) || !std::isfinite(speed_percent) ||
      (switch_delay != nullptr && !std::isfinite(*switch_delay))) {
    throw std::invalid_argument("time_sec, speed_percent and switch_delay_sec must be finite");
  }
  if (!(time_sec > 0.0)) {
    const double speed =
        speed_percent > 0.0 ? speed_percent : trajectory_config.default_speed_percent;
    if (!(speed > 0.0 && speed <= 1.0)) {
      throw std::invalid_argument("speed_percent must be in (0, 1]");
    }
  }
  for (const auto& w : waypoints) {
    if (w.size() != kJoints) {
      throw std::invalid_argument("each waypoint must have exactly 6 joint values");
    }
  }
  for (const auto& w : waypoints) {
    if (!all_finite(w)) {
      throw std::invalid_argument("waypoints must contain only finite values");
    }
  }
  if (gripper_positions != nullptr) {
    if (gripper_positions->size() != waypoints.size()) {
      throw std::invalid_argument("gripper_positions must have the same length as waypoints");
    }
    if (!all_finite(*gripper_positions)) {
      throw std::invalid_argument("gripper_positions must contain only finite values");
    }
  }
}

ArmController::Impl::PreparedMotion ArmController::Impl::prepare_waypoint_motion(
    const std::vector<std::vector<double>>& waypoints, double time_sec, double speed_percent,
    double control_hz, const std::vector<double>* gripper_positions, const MotionState& start,
    const char* prefix) {
  kc::WaypointPlanRequest request;
  request.start = start;
  request.limits = {max_vel, max_acc, max_jerk};
  const bool time_mode = time_sec > 0.0;
  if (!time_mode) {
    const double speed =
        speed_percent > 0.0 ? speed_percent : trajectory_config.default_speed_percent;
    for (double& v : request.limits.velocity) {
      v *= speed;
    }
    time_sec = 0.0;
  }
  request.time_sec = time_sec;
  request.waypoints.resize(waypoints.size());
  for (size_t k = 0; k < waypoints.size(); ++k) {
    for (int j = 0; j < kJoints; ++j) {
      request.waypoints[k][j] = clamp_to_urdf_joint_limit(j, waypoints[k][j]);
    }
  }
  if (gripper_positions != nullptr) {
    request.gripper_targets.push_back(current_gripper_opening());
    for (double g : *gripper_positions) {
      request.gripper_targets.push_back(clamp(g, 0.0, 1.0) * gripper_stroke);
    }
  }

  const kc::JointWaypointPlanner planner(planner_settings(control_hz));
  auto plan = planner.plan(request);
  auto verdict = evaluate_waypoint_trajectory_safety(plan.samples);
  if (verdict.level == ka::SafetyLevel::stop && verdict.code == "singularity_stop" &&
      verdict.sample >= static_cast<size_t>(plan.transition_steps)) {
    // Route around it: one extra waypoint in the segment that meets the singular posture.
    const size_t segment = find_waypoint_segment_for_sample(
        plan.segment_steps, verdict.sample - static_cast<size_t>(plan.transition_steps));
    const JointArray from = segment == 0
                                ? plan.samples[static_cast<size_t>(plan.transition_steps)].position
                                : request.waypoints[segment - 1];
    const JointArray& to = request.waypoints[segment];
    const auto candidates =
        build_singularity_avoidance_candidates(from, to, plan.samples[verdict.sample].position);
    bool avoided = false;
    for (const auto& candidate : candidates) {
      kc::WaypointPlanRequest trial_request = request;
      trial_request.waypoints.insert(trial_request.waypoints.begin() + static_cast<long>(segment),
                                     candidate);
      if (gripper_positions != nullptr) {
        // The gripper passes the extra waypoint halfway between its neighbours' openings.
        auto& g = trial_request.gripper_targets;
        g.insert(g.begin() + static_cast<long>(segment) + 1, 0.5 * (g[segment] + g[segment + 1]));
      }
      kc::WaypointPlan trial;
      try {
        trial = planner.plan(trial_request);
      } catch (const std::runtime_error&) {
        continue;  // e.g. time mode: the extra segment breaks a limit; try the next one
      }
      const auto trial_verdict = evaluate_waypoint_trajectory_safety(trial.samples);
      if (trial_verdict.level == ka::SafetyLevel::stop) {
        continue;
      }
      std::ostringstream line;
      line << prefix << "inserted singularity avoidance waypoint at segment=" << segment
           << ", sample=" << verdict.sample << ", q=[";
      for (int j = 0; j < kJoints; ++j) {
        line << (j ? ", " : "") << candidate[j];
      }
      std::cerr << line.str() << "]" << std::endl;
      request = std::move(trial_request);
      plan = std::move(trial);
      verdict = trial_verdict;
      avoided = true;
      break;
    }
    if (!avoided) {
      std::cerr << prefix << "singularity avoidance failed; falling back to stop" << std::endl;
    }
  }
  if (verdict.level == ka::SafetyLevel::stop) {
    throw std::runtime_error(std::string(prefix) + ka::format_safety_result(verdict));
  }
  if (verdict.level == ka::SafetyLevel::warning) {
    std::cerr << prefix << "safety warning: " << ka::format_safety_result(verdict)
              << ", samples=" << plan.samples.size() << std::endl;
    // A warning asks for the motion slowed to its speed scale; a timed motion keeps its time.
    // The slower plan is a new plan: it is checked again before it runs.
    const double scale = verdict.speed_scale;
    if (!time_mode && scale > 0.0 && scale < 1.0) {
      for (int j = 0; j < kJoints; ++j) {
        request.limits.velocity[j] *= scale;
        request.limits.acceleration[j] *= scale * scale;
        request.limits.jerk[j] *= scale * scale * scale;
      }
      plan = planner.plan(request);
      const auto slower = evaluate_waypoint_trajectory_safety(plan.samples);
      if (slower.level == ka::SafetyLevel::stop) {
        throw std::runtime_error(std::string(prefix) + ka::format_safety_result(slower));
      }
    }
  }
  PreparedMotion motion;
  motion.duration = plan.duration();
  motion.samples = std::make_shared<const std::vector<Sample>>(std::move(plan.samples));
  if (gripper_positions != nullptr) {
    motion.gripper_timeline = std::make_shared<const std::vector<double>>(std::move(plan.gripper));
  }
  return motion;
}

void ArmController::Impl::record_last_samples(const std::vector<Sample>& samples) {
  // Joint values, then the tool point's position and orientation (x, y, z, qx, qy, qz, qw).
  std::vector<std::vector<double>> entries;
  entries.reserve(samples.size());
  for (const auto& s : samples) {
    std::vector<double> entry(s.position.begin(), s.position.end());
    const auto pose = kinematics->forwardKinematics_kdl(entry);
    entry.insert(entry.end(), pose.begin(), pose.end());
    entries.push_back(std::move(entry));
  }
  std::lock_guard<std::mutex> lock(last_samples_mutex);
  last_waypoint_samples = std::move(entries);
}

double ArmController::Impl::publish_joint_waypoint_trajectory_command(
    const std::vector<std::vector<double>>& waypoints, double time_sec, double speed_percent,
    double control_hz, const std::vector<double>* gripper_positions) {
  check_waypoint_arguments(waypoints, time_sec, speed_percent, control_hz, nullptr,
                           gripper_positions);
  MotionState start;
  const uint64_t stops_seen = stop_generation.load();
  if (!try_get_latest_joint_state(start.position)) {
    throw std::runtime_error("cannot plan waypoint trajectory before joint state is available");
  }
  const auto began = Clock::now();
  auto plan = [&](const MotionState& from) {
    return prepare_waypoint_motion(waypoints, time_sec, speed_percent, control_hz,
                                   gripper_positions, from, "[move_joint_waypoints] ");
  };
  if (trajectory_config.smooth_takeover) {
    // From the running command's state, whatever runs: a splice like a chunk update's.
    const StagedMotion staged_motion =
        stage_spliced_motion(plan, 0.0, control_hz, start.position, motion_planning_estimate_ns,
                             "[move_joint_waypoints] the running motion kept changing while the "
                             "motion was planned; nothing was changed");
    record_last_samples(*staged_motion.motion.samples);
    wait_for_waypoint_motion(staged_motion.id);
    return staged_motion.motion.duration;
  }
  PreparedMotion motion = plan(start);
  if (ka::motion_planning_debug_enabled()) {
    std::cerr << "[move_joint_waypoints] planning_time_s="
              << std::chrono::duration<double>(Clock::now() - began).count()
              << ", samples=" << motion.samples->size()
              << ", gripper_timeline=" << (gripper_positions ? "true" : "false") << std::endl;
  }
  record_last_samples(*motion.samples);
  const int64_t id = write_waypoint_command(motion.samples, motion.gripper_timeline,
                                            1.0 / control_hz, &stops_seen);
  if (id < 0) {
    throw std::runtime_error("motion stopped");  // stop() came while it was planned
  }
  wait_for_waypoint_motion(id);
  return motion.duration;
}

bool ArmController::Impl::commanded_state_at_locked(int64_t when_ns, const JointArray& measured,
                                                    MotionState& out) const {
  const CommandState& c = command;
  // The latest staged timeline that will have taken over by then is the motion to follow.
  for (auto it = staged.rbegin(); it != staged.rend(); ++it) {
    if (when_ns >= it->switch_time_ns && it->samples && !it->samples->empty()) {
      out = sample_timeline(*it->samples, it->sample_period,
                            static_cast<double>(when_ns - it->switch_time_ns) * 1e-9);
      return true;
    }
  }
  switch (c.kind) {
    case kJointWaypoints: {
      if (!c.waypoint_samples || c.waypoint_samples->empty()) {
        return false;
      }
      // Not started yet: it starts on the loop's next cycle, about now.
      const int64_t start = c.waypoint_started ? c.waypoint_start_time_ns : now_ns();
      out = sample_timeline(*c.waypoint_samples, c.sample_period,
                            static_cast<double>(when_ns - start) * 1e-9);
      return true;
    }
    case kJointTrajectory: {
      // Not started yet: it starts on the loop's next cycle from the measured joints.
      const JointArray& from = c.started ? c.start : measured;
      const int64_t start = c.started ? c.start_time_ns : now_ns();
      const double s = clamp(static_cast<double>(when_ns - start) * 1e-9 / c.duration, 0.0, 1.0);
      const double f = kc::septic_position(s);
      const double g = kc::septic_velocity(s) / c.duration;
      const double h = kc::septic_acceleration(s) / (c.duration * c.duration);
      for (int j = 0; j < kJoints; ++j) {
        const double span = c.target[j] - from[j];
        out.position[j] = clamp_to_urdf_joint_limit(j, from[j] + span * f);
        out.velocity[j] = span * g;
        out.acceleration[j] = span * h;
      }
      return true;
    }
    case kJointRaw:
      for (int j = 0; j < kJoints; ++j) {
        out.position[j] = clamp_to_urdf_joint_limit(j, c.target[j]);
      }
      out.velocity = c.target_velocity;
      out.acceleration.fill(0.0);
      return true;
    default:
      return false;  // nothing commanded, or the arm floats
  }
}

double ArmController::Impl::publish_joint_waypoint_chunk_update_command(
    const std::vector<std::vector<double>>& waypoints, double time_sec, double speed_percent,
    double switch_delay_sec, double control_hz, const std::vector<double>* gripper_positions) {
  check_waypoint_arguments(waypoints, time_sec, speed_percent, control_hz, &switch_delay_sec,
                           gripper_positions);
  JointArray measured{};
  if (!try_get_latest_joint_state(measured)) {
    throw std::runtime_error(
        "cannot plan joint waypoint chunk update before joint state is available");
  }
  const auto began = Clock::now();
  const StagedMotion staged_motion = stage_spliced_motion(
      [&](const MotionState& start) {
        return prepare_waypoint_motion(waypoints, time_sec, speed_percent, control_hz,
                                       gripper_positions, start, "[update_joint_waypoint_chunk] ");
      },
      switch_delay_sec, control_hz, measured, chunk_planning_estimate_ns,
      "[update_joint_waypoint_chunk] the running motion kept changing while the chunk was "
      "planned; nothing was changed");
  const PreparedMotion& motion = staged_motion.motion;
  if (ka::motion_planning_debug_enabled()) {
    std::cerr << "[update_joint_waypoint_chunk] planning_time_s="
              << std::chrono::duration<double>(Clock::now() - began).count()
              << ", samples=" << motion.samples->size()
              << ", switch_delay_s=" << staged_motion.switch_delay_sec
              << ", gripper_timeline=" << (gripper_positions ? "true" : "false") << std::endl;
  }
  record_last_samples(*motion.samples);
  return motion.duration;
}

ArmController::Impl::StagedMotion ArmController::Impl::stage_spliced_motion(
    const std::function<PreparedMotion(const MotionState&)>& plan, double switch_delay_sec,
    double control_hz, const JointArray& measured, std::atomic<int64_t>& planning_estimate_ns,
    const char* changing_message) {
  // The motion is spliced into the one the running command will be making at the switch. A
  // switch sooner than planning can finish moves out to when the plan is ready.
  const uint64_t stops_seen = stop_generation.load();
  const int64_t called = now_ns();
  const int64_t period_ns = static_cast<int64_t>(std::llround(1e9 / control_hz));
  int64_t switch_time =
      called + std::max(static_cast<int64_t>(std::llround(switch_delay_sec * 1e9)),
                        2 * planning_estimate_ns.load() + period_ns);
  for (int attempt = 1;; ++attempt) {
    const int64_t attempt_began = now_ns();
    const auto [start, revision] = splice_start(switch_time, measured);
    StagedMotion staged_motion;
    staged_motion.motion = plan(start);
    const int64_t planned = now_ns();
    planning_estimate_ns.store(planned - attempt_began);
    staged_motion.id =
        stage_splice(staged_motion.motion.samples, staged_motion.motion.gripper_timeline,
                     switch_time, 1.0 / control_hz, revision, false, &stops_seen);
    if (staged_motion.id == -2) {
      throw std::runtime_error("motion stopped");  // stop() came while it was planned
    }
    if (staged_motion.id >= 0) {
      staged_motion.switch_delay_sec = static_cast<double>(switch_time - called) * 1e-9;
      notify_motion_state_changed();
      return staged_motion;
    }
    if (attempt == kSpliceAttempts) {
      throw std::runtime_error(changing_message);
    }
    // Too late for its switch, or the motion changed under it: plan again for a later switch.
    switch_time = std::max(switch_time, now_ns() + 2 * (planned - attempt_began) + period_ns);
  }
}

std::pair<ArmController::Impl::MotionState, uint64_t> ArmController::Impl::splice_start(
    int64_t when_ns, const JointArray& measured) {
  std::lock_guard<std::mutex> lock(command_mutex);
  MotionState state;
  if (!commanded_state_at_locked(when_ns, measured, state)) {
    state = MotionState{};
    state.position = measured;
  }
  return {state, command.revision};
}

int64_t ArmController::Impl::stage_splice(
    Timeline samples, std::shared_ptr<const std::vector<double>> gripper_timeline,
    int64_t switch_time_ns, double sample_period, uint64_t revision, bool stopping,
    const uint64_t* stops_seen) {
  std::lock_guard<std::mutex> lock(command_mutex);
  if (stops_seen != nullptr && stop_generation.load() != *stops_seen) {
    return -2;  // planned before a stop: it must not start after it
  }
  if (command.revision != revision || last_cycle_ns >= switch_time_ns) {
    return -1;  // the motion it starts from has moved on
  }
  // Staged timelines that would switch at or after this one are superseded by it; earlier ones
  // play until it takes over (it was planned from them).
  while (!staged.empty() && staged.back().switch_time_ns >= switch_time_ns) {
    staged.pop_back();
  }
  if (staged.size() >= kMaxStagedTimelines) {
    throw std::runtime_error("too many motions staged to take over: at most " +
                             std::to_string(kMaxStagedTimelines) + " wait for their switch times");
  }
  if (stopping) {
    stop_generation.fetch_add(1);
    if (command.kind == kJointWaypoints) {
      command.stopped_command_id = command.command_id;
    }
  }
  const int64_t id = command.command_counter++;
  staged.push_back(
      {std::move(samples), std::move(gripper_timeline), switch_time_ns, sample_period, id});
  ++command.revision;
  return id;
}

bool ArmController::Impl::waypoint_command_pending_locked(int64_t command_id) const {
  if (command.command_id == command_id && command.kind == kJointWaypoints &&
      command.waypoint_samples) {
    return true;
  }
  return std::any_of(staged.begin(), staged.end(),
                     [&](const StagedTimeline& t) { return t.command_id == command_id; });
}

void ArmController::Impl::wait_for_waypoint_motion(int64_t command_id) {
  std::unique_lock<std::mutex> lock(command_mutex);
  motion_cv.wait(lock, [&] {
    return exit_flag.load() || emergency_stop_flag.load() ||
           !waypoint_command_pending_locked(command_id);
  });
  if (emergency_stop_flag.load()) {
    throw std::runtime_error("waypoint motion interrupted by emergency stop");
  }
  if (exit_flag.load()) {
    throw std::runtime_error("waypoint motion interrupted because controller is exiting");
  }
  if (command.stopped_command_id == command_id) {
    throw std::runtime_error("motion stopped");
  }
}

void ArmController::Impl::stop_motion() {
  JointArray measured{};
  const bool have_state = try_get_latest_joint_state(measured);
  if (!have_state) {
    // Without feedback nothing can be moving yet: the loop holds its first posture anyway.
    {
      std::lock_guard<std::mutex> lock(command_mutex);
      stop_generation.fetch_add(1);
      if (command.kind == kJointWaypoints) {
        command.stopped_command_id = command.command_id;
      }
    }
    notify_motion_state_changed();
    return;
  }
  // Brake from the commanded motion to rest, jerk-limited, and hold there.
  const kc::JointSplice splice({max_vel, max_acc, max_jerk}, command_sample_period);
  for (int attempt = 1; attempt <= kSpliceAttempts; ++attempt) {
    const int64_t switch_time = now_ns() + kStopLeadNs;
    const auto [state, revision] = splice_start(switch_time, measured);
    const kc::SpliceTransition brake = splice.plan(state, JointArray{});
    auto samples = std::make_shared<std::vector<Sample>>();
    samples->reserve(static_cast<size_t>(brake.steps) + 2);
    for (long i = 0; i <= std::max(brake.steps, 1L); ++i) {
      const MotionState s = brake.at(static_cast<double>(i) * command_sample_period);
      samples->push_back({s.position, s.velocity, s.acceleration});
    }
    if (stage_splice(std::move(samples), nullptr, switch_time, command_sample_period, revision,
                     true) >= 0) {
      notify_motion_state_changed();
      return;
    }
  }
  // The motion kept changing under the brake: hold where the arm is.
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    stop_generation.fetch_add(1);
    if (command.kind == kJointWaypoints) {
      command.stopped_command_id = command.command_id;
    }
  }
  write_joint_raw_command(measured, JointArray{});
}

bool ArmController::Impl::sleep_unless_stopped(double seconds, uint64_t generation) {
  std::unique_lock<std::mutex> lock(command_mutex);
  return !motion_cv.wait_for(lock, std::chrono::duration<double>(seconds), [&] {
    return exit_flag.load() || emergency_stop_flag.load() || stop_generation.load() != generation;
  });
}

void ArmController::stop() {
  const CallScope scope(*this);
  impl().stop_motion();
}

kestrel::controller::ControlCycleSample ArmController::get_control_cycle_sample() const {
  Impl& i = impl();
  std::lock_guard<std::mutex> lock(i.cycle_sample_mutex);
  return i.cycle_sample;
}

// ---- Public operations ------------------------------------------------------------------------

double ArmController::move_joint_waypoints(const std::vector<std::vector<double>>& waypoints,
                                           double time_sec, double speed_percent) {
  const CallScope scope(*this);
  return impl().publish_joint_waypoint_trajectory_command(waypoints, time_sec, speed_percent,
                                                          Impl::kControlHz, nullptr);
}

double ArmController::move_joint_waypoints_with_gripper(
    const std::vector<std::vector<double>>& waypoints, const std::vector<double>& gripper_positions,
    double time_sec, double speed_percent) {
  const CallScope scope(*this);
  return impl().publish_joint_waypoint_trajectory_command(waypoints, time_sec, speed_percent,
                                                          Impl::kControlHz, &gripper_positions);
}

double ArmController::update_joint_waypoint_chunk(const std::vector<std::vector<double>>& waypoints,
                                                  double time_sec, double speed_percent,
                                                  double switch_delay_sec) {
  const CallScope scope(*this);
  return impl().publish_joint_waypoint_chunk_update_command(
      waypoints, time_sec, speed_percent, switch_delay_sec, Impl::kControlHz, nullptr);
}

double ArmController::update_joint_waypoint_chunk_with_gripper(
    const std::vector<std::vector<double>>& waypoints, const std::vector<double>& gripper_positions,
    double time_sec, double speed_percent, double switch_delay_sec) {
  const CallScope scope(*this);
  return impl().publish_joint_waypoint_chunk_update_command(
      waypoints, time_sec, speed_percent, switch_delay_sec, Impl::kControlHz, &gripper_positions);
}

std::vector<std::vector<double>> ArmController::get_last_waypoint_command_samples() {
  auto& i = impl();
  std::lock_guard<std::mutex> lock(i.last_samples_mutex);
  return i.last_waypoint_samples;
}
