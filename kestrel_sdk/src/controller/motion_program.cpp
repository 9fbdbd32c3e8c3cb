// Motion programs: items run in order; consecutive moves of one kind with compatible timing are
// joined into one motion so that the arm passes through their points without stopping.
#include <algorithm>
#include <cctype>
#include <cmath>
#include <stdexcept>

#include "kestrel/controller/arm_controller_impl.hpp"

namespace {

// The batch being joined.
struct PendingMotion {
  bool active = false;
  std::string type;
  std::vector<std::vector<double>> waypoints;
  std::vector<std::vector<double>> poses;
  bool time_mode = false;
  double time_sec = 0.0;
  double speed_percent = -1.0;  // not given
  double blend_radius_m = 0.002;
};

std::string lower_case(std::string s) {
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s;
}

}  // namespace

double ArmController::run_motion_program(const std::vector<MotionProgramItem>& program) {
  const CallScope scope(*this);
  auto& i = impl();
  // stop() from another thread ends the program: no item after it runs.
  const uint64_t generation = i.stop_generation.load();
  auto check_not_stopped = [&] {
    if (i.stop_generation.load() != generation) {
      throw std::runtime_error("motion stopped");
    }
  };
  PendingMotion pending;
  double total = 0.0;

  auto start = [&](const std::string& type, const MotionProgramItem& item, double blend) {
    pending = PendingMotion{};
    pending.active = true;
    pending.type = type;
    pending.time_mode = item.time_sec > 0.0;
    pending.time_sec = item.time_sec;
    pending.speed_percent = item.speed_percent;
    pending.blend_radius_m = blend;
  };
  auto flush = [&]() {
    if (!pending.active) {
      return;
    }
    check_not_stopped();
    double duration = 0.0;
    if (pending.type == "movej") {
      duration = i.publish_joint_waypoint_trajectory_command(
          pending.waypoints, pending.time_sec, pending.speed_percent, Impl::kControlHz, nullptr);
    } else if (pending.type == "movel" || pending.type == "movep") {
      duration = i.publish_cartesian_waypoint_trajectory_command(
          pending.poses, pending.time_sec, pending.speed_percent, pending.blend_radius_m,
          Impl::kControlHz, kPositionToleranceM, kOrientationToleranceRad, pending.type == "movel",
          nullptr);
    } else {
      throw std::invalid_argument("unsupported pending MotionProgram type: " + pending.type);
    }
    total += duration;
    pending = PendingMotion{};
    check_not_stopped();
  };
  // Same timing: both timed (always joins, the times add up), or both at one speed.
  auto same_timing = [&](const MotionProgramItem& item) {
    const bool timed = item.time_sec > 0.0;
    if (timed != pending.time_mode) {
      return false;
    }
    return timed || std::abs(pending.speed_percent - item.speed_percent) <= 1e-9;
  };

  for (const auto& item : program) {
    const std::string type = lower_case(item.type);
    if (type == "movej") {
      if (item.waypoints.empty()) {
        throw std::invalid_argument("MotionProgram movej item has empty waypoints");
      }
      if (item.time_sec > 0.0 && item.speed_percent > 0.0) {
        throw std::invalid_argument(
            "MotionProgram movej item cannot set both time_sec and speed_percent");
      }
      if (!pending.active) {
        start("movej", item, 0.0);
      } else if (pending.type == "movej" && same_timing(item)) {
        if (pending.time_mode) {
          pending.time_sec += item.time_sec;
        }
      } else {
        flush();
        start("movej", item, 0.0);
      }
      pending.waypoints.insert(pending.waypoints.end(), item.waypoints.begin(),
                               item.waypoints.end());
    } else if (type == "movel" || type == "movep") {
      if (item.time_sec > 0.0 && item.speed_percent > 0.0) {
        throw std::invalid_argument(
            "MotionProgram cartesian item cannot set both time_sec and speed_percent");
      }
      if (item.poses.empty()) {
        throw std::invalid_argument("MotionProgram cartesian item has empty poses");
      }
      if (!pending.active) {
        start(type, item, item.blend_radius_m);
      } else if (pending.type == type && same_timing(item) &&
                 std::abs(pending.blend_radius_m - item.blend_radius_m) <= 1e-9) {
        if (pending.time_mode) {
          pending.time_sec += item.time_sec;
        }
      } else {
        flush();
        start(type, item, item.blend_radius_m);
      }
      pending.poses.insert(pending.poses.end(), item.poses.begin(), item.poses.end());
    } else if (type == "sleep") {
      flush();
      if (item.sleep_sec < 0.0) {
        throw std::invalid_argument("MotionProgram sleep_sec must be non-negative");
      }
      if (!std::isfinite(item.sleep_sec)) {
        throw std::invalid_argument("MotionProgram sleep_sec must be finite");
      }
      if (item.sleep_sec > 0.0 && !i.sleep_unless_stopped(item.sleep_sec, generation)) {
        check_not_stopped();
        if (i.emergency_stop_flag.load() || i.exit_flag.load()) {
          throw std::runtime_error("motion program interrupted: the controller has stopped");
        }
      }
    } else {
      throw std::invalid_argument("unsupported MotionProgram item type: " + item.type);
    }
  }
  flush();
  return total;
}
