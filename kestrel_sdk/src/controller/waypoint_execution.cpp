// Waypoint motion execution: validate, plan from the arm's current (or soon-to-be) state, check,
// hand the timeline to the control loop, and wait for it (or, for chunk updates, splice it into
// the running motion and return).
#include <chrono>
#include <cmath>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/controller/arm_controller_impl.hpp"

namespace ka = kestrel::algorithms;

namespace {

void check_common_arguments(const std::vector<std::vector<double>>& waypoints, double time_sec,
                            double speed_percent, double control_hz, const double* switch_delay) {
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
  for (const auto& w : waypoints) {
    for (double v : w) {
      if (!std::isfinite(v)) {
        throw std::invalid_argument("waypoints must contain only finite values");
      }
    }
  }
}

}  // namespace

ArmController::Impl::PreparedMotion ArmController::Impl::prepare_waypoint_motion(
    const std::vector<std::vector<double>>& waypoints, double time_sec, double speed_percent,
    double control_hz, const std::vector<double>* gripper_positions, const JointArray& start,
    const JointArray* start_velocity, const char* prefix) {
  JointArray vmax = max_vel;
  JointArray amax = max_acc;
  JointArray jmax = max_jerk;
  const bool time_mode = time_sec > 0.0;
  if (!time_mode) {
    const double speed =
        speed_percent > 0.0 ? speed_percent : trajectory_config.default_speed_percent;
    if (!(speed > 0.0 && speed <= 1.0)) {
      throw std::invalid_argument("speed_percent must be in (0, 1]");
    }
    for (double& v : vmax) {
      v *= speed;
    }
    time_sec = 0.0;
  }
  std::vector<JointArray> targets(waypoints.size());
  for (size_t k = 0; k < waypoints.size(); ++k) {
    if (waypoints[k].size() != kJoints) {
      throw std::invalid_argument("each waypoint must have exactly 6 joint values");
    }
    for (int j = 0; j < kJoints; ++j) {
      targets[k][j] = clamp_to_urdf_joint_limit(j, waypoints[k][j]);
    }
  }
  std::vector<double> gripper_targets;
  if (gripper_positions != nullptr) {
    if (gripper_positions->size() != waypoints.size()) {
      throw std::invalid_argument("gripper_positions must have the same length as waypoints");
    }
    gripper_targets.push_back(current_gripper_opening());
    for (double g : *gripper_positions) {
      if (!std::isfinite(g)) {
        throw std::invalid_argument("gripper_positions must contain only finite values");
      }
      gripper_targets.push_back(clamp(g, 0.0, 1.0) * gripper_stroke);
    }
  }

  std::vector<double> gripper_timeline;
  std::vector<long> segment_steps;
  auto plan = [&](const JointArray& v, const JointArray& a, const JointArray& jk) {
    return plan_joint_waypoint_trajectory(start, targets, v, a, jk, time_sec, control_hz,
                                          gripper_positions ? &gripper_timeline : nullptr,
                                          gripper_positions ? &gripper_targets : nullptr,
                                          start_velocity, &segment_steps);
  };
  auto samples = plan(vmax, amax, jmax);
  auto verdict = evaluate_waypoint_trajectory_safety(samples);
  if (verdict.level == ka::SafetyLevel::stop && verdict.code == "singularity_stop") {
    // Route around it: one extra waypoint in the segment that meets the singular posture.
    const size_t segment = find_waypoint_segment_for_sample(segment_steps, verdict.sample);
    const JointArray& from = segment == 0 ? start : targets[segment - 1];
    const JointArray& to = targets[segment];
    const auto candidates =
        build_singularity_avoidance_candidates(from, to, samples[verdict.sample].position);
    bool avoided = false;
    for (const auto& candidate : candidates) {
      auto trial_targets = targets;
      trial_targets.insert(trial_targets.begin() + static_cast<long>(segment), candidate);
      auto trial_gripper = gripper_targets;
      if (gripper_positions != nullptr) {
        // The gripper passes the extra waypoint halfway between its neighbours' openings.
        const double g = 0.5 * (gripper_targets[segment] + gripper_targets[segment + 1]);
        trial_gripper.insert(trial_gripper.begin() + static_cast<long>(segment) + 1, g);
      }
      std::vector<Sample> trial;
      try {
        std::swap(targets, trial_targets);
        std::swap(gripper_targets, trial_gripper);
        trial = plan(vmax, amax, jmax);
      } catch (const std::runtime_error&) {
        trial.clear();  // e.g. time mode: the extra segment breaks a limit; try the next one
      }
      const auto trial_verdict =
          trial.empty() ? verdict : evaluate_waypoint_trajectory_safety(trial);
      if (!trial.empty() && trial_verdict.level != ka::SafetyLevel::stop) {
        std::ostringstream line;
        line << prefix << "inserted singularity avoidance waypoint at segment=" << segment
             << ", sample=" << verdict.sample << ", q=[";
        for (int j = 0; j < kJoints; ++j) {
          line << (j ? ", " : "") << candidate[j];
        }
        std::cerr << line.str() << "]" << std::endl;
        samples = std::move(trial);
        verdict = trial_verdict;
        avoided = true;
        break;
      }
      std::swap(targets, trial_targets);  // back to the plan without the candidate
      std::swap(gripper_targets, trial_gripper);
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
              << ", samples=" << samples.size() << std::endl;
    // A warning asks for the motion slowed to its speed scale; a timed motion keeps its time.
    const double scale = verdict.speed_scale;
    if (!time_mode && scale > 0.0 && scale < 1.0) {
      for (int j = 0; j < kJoints; ++j) {
        vmax[j] *= scale;
        amax[j] *= scale * scale;
        jmax[j] *= scale * scale * scale;
      }
      samples = plan(vmax, amax, jmax);  // same path, slower: the verdict stands
    }
  }
  PreparedMotion motion;
  motion.duration = samples.empty() ? 0.0 : static_cast<double>(samples.size() - 1) / control_hz;
  motion.samples = std::make_shared<const std::vector<Sample>>(std::move(samples));
  if (gripper_positions != nullptr) {
    motion.gripper_timeline =
        std::make_shared<const std::vector<double>>(std::move(gripper_timeline));
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
  check_common_arguments(waypoints, time_sec, speed_percent, control_hz, nullptr);
  JointArray current{};
  if (!try_get_latest_joint_state(current)) {
    throw std::runtime_error("cannot plan waypoint trajectory before joint state is available");
  }
  const auto began = Clock::now();
  PreparedMotion motion =
      prepare_waypoint_motion(waypoints, time_sec, speed_percent, control_hz, gripper_positions,
                              current, nullptr, "[move_joint_waypoints] ");
  if (ka::motion_planning_debug_enabled()) {
    std::cerr << "[move_joint_waypoints] planning_time_s="
              << std::chrono::duration<double>(Clock::now() - began).count()
              << ", samples=" << motion.samples->size()
              << ", gripper_timeline=" << (gripper_positions ? "true" : "false") << std::endl;
  }
  record_last_samples(*motion.samples);
  const int64_t id =
      write_waypoint_command(motion.samples, motion.gripper_timeline, 1.0 / control_hz);
  wait_for_waypoint_motion(id);
  return motion.duration;
}

bool ArmController::Impl::commanded_state_at(int64_t when_ns, JointArray& position,
                                             JointArray& velocity) {
  std::lock_guard<std::mutex> lock(command_mutex);
  const CommandState& c = command;
  auto sample_at = [&](const std::vector<Sample>& samples, double elapsed) {
    const double index = std::max(elapsed / c.sample_period, 0.0);
    const size_t last = samples.size() - 1;
    const size_t i = std::min(static_cast<size_t>(index), last);
    if (i >= last) {
      std::copy(samples[last].position.begin(), samples[last].position.end(), position.begin());
      velocity.fill(0.0);  // the timeline ends at rest
      return;
    }
    const double frac = index - static_cast<double>(i);
    for (int j = 0; j < kJoints; ++j) {
      position[j] =
          samples[i].position[j] + (samples[i + 1].position[j] - samples[i].position[j]) * frac;
      velocity[j] =
          samples[i].velocity[j] + (samples[i + 1].velocity[j] - samples[i].velocity[j]) * frac;
    }
  };
  // A pending chunk that will have taken over by then is the timeline to follow.
  if (c.next_waypoint_samples && !c.next_waypoint_samples->empty() &&
      when_ns >= c.next_switch_time_ns) {
    sample_at(*c.next_waypoint_samples,
              static_cast<double>(when_ns - c.next_switch_time_ns) * 1e-9);
    return true;
  }
  if (c.kind == kJointWaypoints && c.waypoint_samples && !c.waypoint_samples->empty()) {
    // Not started yet: it starts on the loop's next cycle, about now.
    const int64_t start = c.waypoint_started ? c.waypoint_start_time_ns : now_ns();
    sample_at(*c.waypoint_samples, static_cast<double>(when_ns - start) * 1e-9);
    return true;
  }
  if (c.kind == kJointRaw) {
    position = c.target;
    velocity.fill(0.0);
    return true;
  }
  return false;
}

double ArmController::Impl::publish_joint_waypoint_chunk_update_command(
    const std::vector<std::vector<double>>& waypoints, double time_sec, double speed_percent,
    double switch_delay_sec, double control_hz, const std::vector<double>* gripper_positions) {
  check_common_arguments(waypoints, time_sec, speed_percent, control_hz, &switch_delay_sec);
  JointArray measured{};
  if (!try_get_latest_joint_state(measured)) {
    throw std::runtime_error(
        "cannot plan joint waypoint chunk update before joint state is available");
  }
  // Plan from the state the running motion will have at the switch, so that position and
  // velocity carry straight on there.
  const auto began = Clock::now();
  const int64_t switch_time = now_ns() + static_cast<int64_t>(std::llround(switch_delay_sec * 1e9));
  JointArray start = measured;
  JointArray start_velocity{};
  if (!commanded_state_at(switch_time, start, start_velocity)) {
    start = measured;
    start_velocity.fill(0.0);
  }
  PreparedMotion motion =
      prepare_waypoint_motion(waypoints, time_sec, speed_percent, control_hz, gripper_positions,
                              start, &start_velocity, "[update_joint_waypoint_chunk] ");
  if (ka::motion_planning_debug_enabled()) {
    std::cerr << "[update_joint_waypoint_chunk] planning_time_s="
              << std::chrono::duration<double>(Clock::now() - began).count()
              << ", samples=" << motion.samples->size() << ", switch_delay_s=" << switch_delay_sec
              << ", gripper_timeline=" << (gripper_positions ? "true" : "false") << std::endl;
  }
  record_last_samples(*motion.samples);
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    const int64_t id = command.command_counter++;
    command.next_waypoint_samples = motion.samples;
    command.next_gripper_timeline = motion.gripper_timeline;
    command.next_switch_time_ns = switch_time;
    command.next_command_id = id;
    command.sample_period = 1.0 / control_hz;
    if (motion.gripper_timeline) {
      command.gripper_kp = gripper_default_kp;
      command.gripper_kd = gripper_default_kd;
      command.gripper_command_pending = {1, 1};
      gripper_command_time_ns = now_ns();
      gripper_command_seen = true;
    }
  }
  notify_motion_state_changed();
  return motion.duration;
}

void ArmController::Impl::wait_for_waypoint_motion(int64_t command_id) {
  std::unique_lock<std::mutex> lock(command_mutex);
  motion_cv.wait(lock, [&] {
    return exit_flag.load() || emergency_stop_flag.load() || command.command_id != command_id ||
           command.kind != kJointWaypoints || !command.waypoint_samples;
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
  JointArray hold{};
  const bool have_state = try_get_latest_joint_state(hold);
  {
    std::lock_guard<std::mutex> lock(command_mutex);
    stop_generation.fetch_add(1);
    if (command.kind == kJointWaypoints) {
      command.stopped_command_id = command.command_id;
    }
  }
  // Without feedback nothing can be moving yet: the loop holds its first posture anyway.
  if (have_state) {
    write_joint_raw_command(hold, JointArray{});  // also drops any running or pending timeline
  } else {
    notify_motion_state_changed();
  }
}

bool ArmController::Impl::sleep_unless_stopped(double seconds, uint64_t generation) {
  std::unique_lock<std::mutex> lock(command_mutex);
  return !motion_cv.wait_for(lock, std::chrono::duration<double>(seconds), [&] {
    return exit_flag.load() || emergency_stop_flag.load() || stop_generation.load() != generation;
  });
}

void ArmController::stop() {
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
  return impl().publish_joint_waypoint_trajectory_command(waypoints, time_sec, speed_percent,
                                                          Impl::kControlHz, nullptr);
}

double ArmController::move_joint_waypoints_with_gripper(
    const std::vector<std::vector<double>>& waypoints, const std::vector<double>& gripper_positions,
    double time_sec, double speed_percent) {
  return impl().publish_joint_waypoint_trajectory_command(waypoints, time_sec, speed_percent,
                                                          Impl::kControlHz, &gripper_positions);
}

double ArmController::update_joint_waypoint_chunk(const std::vector<std::vector<double>>& waypoints,
                                                  double time_sec, double speed_percent,
                                                  double switch_delay_sec) {
  return impl().publish_joint_waypoint_chunk_update_command(
      waypoints, time_sec, speed_percent, switch_delay_sec, Impl::kControlHz, nullptr);
}

double ArmController::update_joint_waypoint_chunk_with_gripper(
    const std::vector<std::vector<double>>& waypoints, const std::vector<double>& gripper_positions,
    double time_sec, double speed_percent, double switch_delay_sec) {
  return impl().publish_joint_waypoint_chunk_update_command(
      waypoints, time_sec, speed_percent, switch_delay_sec, Impl::kControlHz, &gripper_positions);
}

std::vector<std::vector<double>> ArmController::get_last_waypoint_command_samples() {
  auto& i = impl();
  std::lock_guard<std::mutex> lock(i.last_samples_mutex);
  return i.last_waypoint_samples;
}
