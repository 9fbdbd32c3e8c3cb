#include "campaign/command_generator.hpp"

#include <algorithm>
#include <cmath>
#include <initializer_list>
#include <string>
#include <utility>

namespace kestrel::campaign {

namespace {

using Item = ArmController::MotionProgramItem;
using Poses = std::vector<std::vector<double>>;

// Home {0.0, 0.4, -0.9, 0.0, -0.6, 0.0} and the box half-widths around it: well inside the URDF
// limits and away from the wrist, elbow and shoulder singularities.
const Posture kHome = {0.0, 0.4, -0.9, 0.0, -0.6, 0.0};
constexpr std::array<double, 6> kBoxHalfWidth = {0.5, 0.3, 0.3, 0.5, 0.3, 0.5};

// Profile factors: the 7th-order profile peaks at 2.1875 x the mean speed with 7.52 d/T^2 of
// acceleration; the quintic at 1.875 x, 5.7735 d/T^2 and 60 d/T^3 of jerk.
constexpr double kSepticPeakVelocity = 2.1875;
constexpr double kSepticPeakAcceleration = 7.52;
constexpr double kQuinticPeakVelocity = 1.875;
constexpr double kQuinticPeakAcceleration = 5.7735;
constexpr double kQuinticPeakJerk = 60.0;
// Linear motions at full speed: 0.25 m/s and 1 m/s^2 of the tool (rotation counts 0.1 m/rad).
constexpr double kToolSpeed = 0.25;
constexpr double kToolAcceleration = 1.0;
// Speed-mode motions may be slowed to a fifth by the planner's safety warnings; Cartesian ones
// also by the joint limits along the path.
constexpr double kSpeedModeSlack = 5.0;
constexpr double kCartesianSlack = 8.0;

double uniform(std::mt19937_64& rng, double low, double high) {
  return std::uniform_real_distribution<double>(low, high)(rng);
}

int integer(std::mt19937_64& rng, int low, int high) {
  return std::uniform_int_distribution<int>(low, high)(rng);
}

bool chance(std::mt19937_64& rng, double p) {
  return uniform(rng, 0.0, 1.0) < p;
}

size_t pick(std::mt19937_64& rng, std::initializer_list<double> weights) {
  return std::discrete_distribution<size_t>(weights)(rng);
}

std::mt19937_64 stream(uint64_t seed, uint64_t which) {
  std::seed_seq sequence{static_cast<uint32_t>(seed), static_cast<uint32_t>(seed >> 32),
                         static_cast<uint32_t>(which)};
  return std::mt19937_64(sequence);
}

Call make(std::string kind, std::string text, bool blocking, Expectation expect,
          std::function<double(ArmController&)> run) {
  Call c;
  c.kind = std::move(kind);
  c.text = std::move(text);
  c.blocking = blocking;
  c.expect = expect;
  c.run = std::move(run);
  return c;
}

// Time mode (time_sec > 0) or speed mode (speed_percent) of one motion.
struct Timing {
  double time_sec = 0.0;
  double speed_percent = 0.0;
  std::string text() const { return cpp(time_sec) + ", " + cpp(speed_percent); }
};

// Tool travel between two poses, rotation weighted like the planner does.
double tool_distance(const std::vector<double>& a, const std::vector<double>& b) {
  const double translation = std::hypot(a[0] - b[0], a[1] - b[1], a[2] - b[2]);
  double rotation = 0.0;
  for (int i = 3; i < 6; ++i) {
    rotation = std::max(rotation, std::abs(std::remainder(a[i] - b[i], 2.0 * M_PI)));
  }
  return std::max(translation, 0.1 * rotation);
}

double tool_path_time(const std::vector<double>& start, const Poses& poses, double speed) {
  double total = 0.0;
  const std::vector<double>* from = &start;
  for (const auto& pose : poses) {
    const double length = tool_distance(*from, pose);
    total += std::max(kQuinticPeakVelocity * length / (kToolSpeed * speed),
                      std::sqrt(kQuinticPeakAcceleration * length / kToolAcceleration));
    from = &pose;
  }
  return total;
}

Posture perturbed(const Posture& q, int joint, double value) {
  Posture out = q;
  out[joint] = value;
  return out;
}

}  // namespace

// ---- MotionSpace ----------------------------------------------------------------------------

const Posture& MotionSpace::home() {
  return kHome;
}

Posture MotionSpace::clamp_to_box(Posture q) const {
  for (size_t j = 0; j < 6; ++j) {
    q[j] = std::clamp(q[j], kHome[j] - kBoxHalfWidth[j], kHome[j] + kBoxHalfWidth[j]);
  }
  return q;
}

Posture MotionSpace::random_posture(std::mt19937_64& rng) const {
  Posture q(6);
  for (size_t j = 0; j < 6; ++j) {
    q[j] = kHome[j] + uniform(rng, -kBoxHalfWidth[j], kBoxHalfWidth[j]);
  }
  return q;
}

Posture MotionSpace::near(const Posture& from, double spread, std::mt19937_64& rng) const {
  Posture q(6);
  for (size_t j = 0; j < 6; ++j) {
    q[j] = from[j] + uniform(rng, -spread, spread);
  }
  return clamp_to_box(q);
}

double MotionSpace::septic_time(const Posture& from, const Posture& to, double standoff) const {
  double t = 0.0;
  for (size_t j = 0; j < 6; ++j) {
    const double d = std::abs(to[j] - from[j]) + standoff;
    t = std::max({t, kSepticPeakVelocity * d / limits_.vmax[j],
                  std::sqrt(kSepticPeakAcceleration * d / limits_.amax[j])});
  }
  return t;
}

double MotionSpace::quintic_time(const Posture& from, const Posture& to, double speed) const {
  double t = 0.0;
  for (size_t j = 0; j < 6; ++j) {
    const double d = std::abs(to[j] - from[j]);
    t = std::max({t, kQuinticPeakVelocity * d / (limits_.vmax[j] * speed),
                  std::sqrt(kQuinticPeakAcceleration * d / limits_.amax[j]),
                  std::cbrt(kQuinticPeakJerk * d / limits_.jmax[j])});
  }
  return t;
}

double MotionSpace::path_time(const Posture& from, const std::vector<Posture>& path,
                              double speed) const {
  double t = 0.0;
  const Posture* previous = &from;
  for (const Posture& q : path) {
    t += quintic_time(*previous, q, speed);
    previous = &q;
  }
  return t;
}

// ---- MotionGenerator --------------------------------------------------------------------------

MotionGenerator::MotionGenerator(uint64_t seed, const PlannerLimits& limits, ArmView view)
    : rng_(stream(seed, 1)), space_(limits), view_(std::move(view)) {}

double MotionGenerator::pause() {
  return uniform(rng_, 0.0, 0.2);
}

Call MotionGenerator::next() {
  if (!homed_) {
    homed_ = true;
    return homing();
  }
  switch (pick(rng_, {22, 3, 20, 8, 18, 4, 4, 8})) {
    case 0:
      return set_joint(false);
    case 1:
      return set_joint(true);
    case 2:
      return joint_waypoints(false);
    case 3:
      return joint_waypoints(true);
    case 4:
      return cartesian();
    case 5:
      return degenerate_line();
    case 6:
      return unreachable_pose();
    default:
      return motion_program();
  }
}

namespace {

Call set_joint_call(const Posture& q, double time, Expectation expect, const char* kind) {
  Call c = make(kind, "arm.set_joint(" + cpp(q) + ", " + cpp(time) + ");", false, expect,
                [q, time](ArmController& arm) {
                  arm.set_joint(q, time);
                  return 0.0;
                });
  c.expected_duration = time;
  return c;
}

Call joint_waypoint_call(const Poses& waypoints, const Timing& timing, double expected) {
  Call c = make("move_joint_waypoints",
                "arm.move_joint_waypoints(" + cpp(waypoints) + ", " + timing.text() + ");", true,
                Expectation::kAny, [waypoints, timing](ArmController& arm) {
                  return arm.move_joint_waypoints(waypoints, timing.time_sec, timing.speed_percent);
                });
  c.expected_duration = expected;
  return c;
}

}  // namespace

Call MotionGenerator::homing() {
  const Posture from = view_.joints();
  const Posture to = space_.near(kHome, 0.05, rng_);
  return set_joint_call(to, space_.septic_time(from, to) * uniform(rng_, 1.2, 1.6),
                        Expectation::kAny, "set_joint");
}

Call MotionGenerator::set_joint(bool far_too_short) {
  const Posture from = view_.joints();
  if (far_too_short) {
    // 0.3 rad in a millisecond, towards home so that the target stays in the box.
    const int j = integer(rng_, 0, 5);
    const Posture to = perturbed(from, j, from[j] + (from[j] > kHome[j] ? -0.3 : 0.3));
    return set_joint_call(to, 0.001, Expectation::kMayRefuse, "set_joint (far too short)");
  }
  const Posture to = chance(rng_, 0.5) ? space_.random_posture(rng_) : space_.near(from, 0.4, rng_);
  const double time =
      std::max(space_.septic_time(from, to, standoff_) * uniform(rng_, 1.1, 2.0), 0.05);
  return set_joint_call(to, time, Expectation::kAny, "set_joint");
}

Call MotionGenerator::joint_waypoints(bool with_gripper) {
  const Posture from = view_.joints();
  std::vector<Posture> path;
  const int n = integer(rng_, 1, 4);
  for (int k = 0; k < n; ++k) {
    path.push_back(space_.near(k == 0 ? from : path.back(), 0.35, rng_));
  }
  Timing timing;
  double expected;
  if (chance(rng_, 0.5)) {
    timing.speed_percent = uniform(rng_, 0.2, 1.0);
    expected = kSpeedModeSlack * space_.path_time(from, path, timing.speed_percent) + 0.5;
  } else {
    // Sometimes shorter than the limits allow: such a plan is refused.
    timing.time_sec =
        std::max(space_.path_time(from, path, 1.0) * uniform(rng_, 0.8, 2.0), 0.1 * n);
    expected = timing.time_sec;
  }
  if (!with_gripper) {
    return joint_waypoint_call(path, timing, expected);
  }
  std::vector<double> gripper(path.size());
  for (double& g : gripper) {
    g = uniform(rng_, -0.1, 1.1);  // beyond [0, 1] is clamped
  }
  Call c = make("move_joint_waypoints_with_gripper",
                "arm.move_joint_waypoints_with_gripper(" + cpp(path) + ", " + cpp(gripper) + ", " +
                    timing.text() + ");",
                true, Expectation::kAny, [path, gripper, timing](ArmController& arm) {
                  return arm.move_joint_waypoints_with_gripper(path, gripper, timing.time_sec,
                                                               timing.speed_percent);
                });
  c.expected_duration = expected;
  return c;
}

Call MotionGenerator::cartesian() {
  const Posture from = view_.joints();
  const std::vector<double> start = view_.tool_pose(from);
  std::vector<Posture> path;
  Poses poses;
  const int n = integer(rng_, 1, 3);
  for (int k = 0; k < n; ++k) {
    path.push_back(space_.near(k == 0 ? from : path.back(), 0.15, rng_));
    poses.push_back(view_.tool_pose(path.back()));
  }
  if (chance(rng_, 0.2)) {
    const size_t k = static_cast<size_t>(integer(rng_, 0, n - 1));
    poses.insert(poses.begin() + static_cast<long>(k), poses[k]);  // a repeated pose
  }
  Timing timing;
  double expected;
  if (chance(rng_, 0.5)) {
    timing.speed_percent = uniform(rng_, 0.2, 1.0);
    expected = kCartesianSlack * std::max(space_.path_time(from, path, timing.speed_percent),
                                          tool_path_time(start, poses, timing.speed_percent)) +
               1.0;
  } else {
    timing.time_sec =
        std::max(std::max(space_.path_time(from, path, 1.0), tool_path_time(start, poses, 1.0)) *
                     uniform(rng_, 1.2, 2.5),
                 0.5);
    expected = timing.time_sec;
  }
  const double blend = chance(rng_, 0.5) ? 0.0 : uniform(rng_, 0.0, 0.02);
  Call c;
  switch (pick(rng_, {2, 1, 1})) {
    case 0:
      c = make("move_l",
               "arm.move_l(" + cpp(poses) + ", " + timing.text() + ", " + cpp(blend) + ");", true,
               Expectation::kAny, [poses, timing, blend](ArmController& arm) {
                 return arm.move_l(poses, timing.time_sec, timing.speed_percent, blend);
               });
      break;
    case 1:
      c = make("move_p", "arm.move_p(" + cpp(poses) + ", " + timing.text() + ");", true,
               Expectation::kAny, [poses, timing](ArmController& arm) {
                 return arm.move_p(poses, timing.time_sec, timing.speed_percent);
               });
      break;
    default: {
      const bool linear = chance(rng_, 0.5);
      c = make("move_pose_waypoints",
               "arm.move_pose_waypoints(" + cpp(poses) + ", " + timing.text() + ", " +
                   (linear ? "true" : "false") + ", " + cpp(blend) + ");",
               true, Expectation::kAny, [poses, timing, linear, blend](ArmController& arm) {
                 return arm.move_pose_waypoints(poses, timing.time_sec, timing.speed_percent,
                                                linear, blend);
               });
    }
  }
  c.expected_duration = expected;
  return c;
}

Call MotionGenerator::degenerate_line() {
  // Straight lines to where the tool is when the call is made (at standstill): nothing to do.
  const size_t count = static_cast<size_t>(integer(rng_, 1, 3));
  const double speed = chance(rng_, 0.3) ? 0.0 : uniform(rng_, 0.2, 1.0);
  Call c = make("move_l (current pose)",
                "arm.move_l(Poses(" + std::to_string(count) +
                    ", /* the tool pose read just before */ here), 0, " + cpp(speed) + ");",
                true, Expectation::kZeroAtOnce, [view = view_, count, speed](ArmController& arm) {
                  return arm.move_l(Poses(count, view.current_tool_pose()), 0.0, speed);
                });
  c.expected_duration = 0.0;
  return c;
}

Call MotionGenerator::unreachable_pose() {
  std::vector<double> far = view_.current_tool_pose();
  far[static_cast<size_t>(integer(rng_, 0, 2))] += chance(rng_, 0.5) ? 2.0 : -2.0;
  const Poses poses = {far};
  Call c;
  if (chance(rng_, 0.5)) {
    c = make("move_l (unreachable)", "arm.move_l(" + cpp(poses) + ", 0, 0.5);", true,
             Expectation::kRuntimeError,
             [poses](ArmController& arm) { return arm.move_l(poses, 0.0, 0.5); });
  } else {
    c = make("move_p (unreachable)", "arm.move_p(" + cpp(poses) + ", 2, 0);", true,
             Expectation::kRuntimeError,
             [poses](ArmController& arm) { return arm.move_p(poses, 2.0, 0.0); });
  }
  c.expected_duration = 0.0;
  return c;
}

Call MotionGenerator::motion_program() {
  std::vector<Item> program;
  std::string text;
  double expected = 0.0;
  Posture at = view_.joints();
  const int n = integer(rng_, 1, 3);
  for (int k = 0; k < n; ++k) {
    Item item;
    switch (pick(rng_, {3, 1, 2})) {
      case 0: {
        item.type = "movej";
        std::vector<Posture> path;
        for (int w = integer(rng_, 1, 2); w > 0; --w) {
          path.push_back(space_.near(path.empty() ? at : path.back(), 0.3, rng_));
        }
        if (chance(rng_, 0.5)) {
          item.time_sec = std::max(space_.path_time(at, path, 1.0) * uniform(rng_, 1.2, 2.0), 0.3);
          expected += item.time_sec;
        } else {
          item.speed_percent = uniform(rng_, 0.3, 1.0);
          expected += kSpeedModeSlack * space_.path_time(at, path, item.speed_percent) + 0.5;
        }
        item.waypoints = path;
        at = path.back();
        break;
      }
      case 1:
        item.type = "sleep";
        item.sleep_sec = uniform(rng_, 0.0, 0.3);
        expected += item.sleep_sec;
        break;
      default: {
        item.type = "movel";
        const Posture to = space_.near(at, 0.12, rng_);
        item.poses = {view_.tool_pose(to)};
        if (chance(rng_, 0.5)) {
          item.time_sec = uniform(rng_, 0.8, 1.5);
          expected += item.time_sec;
        } else {
          item.speed_percent = uniform(rng_, 0.3, 1.0);
          expected += kCartesianSlack * space_.path_time(at, {to}, item.speed_percent) + 1.0;
        }
        at = to;
      }
    }
    text += std::string(k ? ", " : "") + "Item{\"" + item.type + "\", " + cpp(item.waypoints) +
            ", " + cpp(item.poses) + ", " + cpp(item.time_sec) + ", " + cpp(item.speed_percent) +
            ", " + cpp(item.sleep_sec) + ", " + cpp(item.blend_radius_m) + "}";
    program.push_back(std::move(item));
  }
  Call c =
      make("run_motion_program", "arm.run_motion_program({" + text + "});", true, Expectation::kAny,
           [program](ArmController& arm) { return arm.run_motion_program(program); });
  c.expected_duration = expected;
  return c;
}

// ---- InterruptionGenerator ----------------------------------------------------------------------

InterruptionGenerator::InterruptionGenerator(uint64_t seed, const PlannerLimits& limits,
                                             ArmView view)
    : rng_(stream(seed, 2)), space_(limits), view_(std::move(view)) {}

double InterruptionGenerator::pause() {
  return uniform(rng_, 0.02, 0.4);
}

Call InterruptionGenerator::next() {
  switch (pick(rng_, {16, 6, 4, 14, 36, 24})) {
    case 0:
      return chunk(false);
    case 1:
      return chunk(true);
    case 2:
      return stop();
    case 3:
      return gripper();
    case 4:
      return state_query();
    default:
      return bad_arguments();
  }
}

Call InterruptionGenerator::chunk(bool with_gripper) {
  // Near where the arm is: slower, faster or back the way it came.
  const Posture from = view_.joints();
  std::vector<Posture> path;
  for (int k = integer(rng_, 1, 3); k > 0; --k) {
    path.push_back(space_.near(path.empty() ? from : path.back(), 0.15, rng_));
  }
  Timing timing;
  if (chance(rng_, 0.5)) {
    timing.time_sec = std::max(space_.path_time(from, path, 1.0) * uniform(rng_, 0.8, 2.5), 0.2);
  } else {
    timing.speed_percent = uniform(rng_, 0.15, 1.0);
  }
  const double delay = uniform(rng_, 0.0, 0.3);
  Call c;
  if (with_gripper) {
    std::vector<double> gripper(path.size());
    for (double& g : gripper) {
      g = uniform(rng_, 0.0, 1.0);
    }
    c = make("update_joint_waypoint_chunk_with_gripper",
             "arm.update_joint_waypoint_chunk_with_gripper(" + cpp(path) + ", " + cpp(gripper) +
                 ", " + timing.text() + ", " + cpp(delay) + ");",
             false, Expectation::kAny, [path, gripper, timing, delay](ArmController& arm) {
               return arm.update_joint_waypoint_chunk_with_gripper(path, gripper, timing.time_sec,
                                                                   timing.speed_percent, delay);
             });
  } else {
    c = make("update_joint_waypoint_chunk",
             "arm.update_joint_waypoint_chunk(" + cpp(path) + ", " + timing.text() + ", " +
                 cpp(delay) + ");",
             false, Expectation::kAny, [path, timing, delay](ArmController& arm) {
               return arm.update_joint_waypoint_chunk(path, timing.time_sec, timing.speed_percent,
                                                      delay);
             });
  }
  c.switch_delay = delay;
  return c;
}

Call InterruptionGenerator::stop() {
  return make("stop", "arm.stop();", false, Expectation::kAny, [](ArmController& arm) {
    arm.stop();
    return 0.0;
  });
}

Call InterruptionGenerator::gripper() {
  switch (pick(rng_, {3, 3, 4, 2, 2})) {
    case 0:
      return make("openGripper", "arm.openGripper();", false, Expectation::kAny,
                  [](ArmController& arm) {
                    arm.openGripper();
                    return 0.0;
                  });
    case 1:
      return make("closeGripper", "arm.closeGripper();", false, Expectation::kAny,
                  [](ArmController& arm) {
                    arm.closeGripper();
                    return 0.0;
                  });
    case 2: {
      const double d = uniform(rng_, -0.02, 0.11);  // beyond [0, 0.085] is clamped
      return make("setGripperDistance", "arm.setGripperDistance(" + cpp(d) + ");", false,
                  Expectation::kAny, [d](ArmController& arm) {
                    arm.setGripperDistance(d);
                    return 0.0;
                  });
    }
    case 3: {
      const double d = uniform(rng_, -0.02, 0.11);
      const double kp = uniform(rng_, 0.0, 30.0);  // gains are clamped into [0.1, 20], [0.1, 1]
      const double kd = uniform(rng_, 0.0, 2.0);
      return make("setGripperDistance",
                  "arm.setGripperDistance(" + cpp(d) + ", " + cpp(kp) + ", " + cpp(kd) + ");",
                  false, Expectation::kAny, [d, kp, kd](ArmController& arm) {
                    arm.setGripperDistance(d, kp, kd);
                    return 0.0;
                  });
    }
    default: {
      const double p = uniform(rng_, -0.2, 1.2);
      return make("setGripperPosition", "arm.setGripperPosition(" + cpp(p) + ");", false,
                  Expectation::kAny, [p](ArmController& arm) {
                    arm.setGripperPosition(p);
                    return 0.0;
                  });
    }
  }
}

namespace {

void require(bool condition, const std::string& what) {
  if (!condition) {
    throw WrongAnswer(what);
  }
}

template <typename Values>
bool finite(const Values& values) {
  return std::all_of(std::begin(values), std::end(values),
                     [](double v) { return std::isfinite(v); });
}

}  // namespace

Call InterruptionGenerator::state_query() {
  switch (pick(rng_, {1, 1, 1, 1, 1})) {
    case 0:
      return make("get_joint", "arm.get_joint();", false, Expectation::kAny,
                  [](ArmController& arm) {
                    const auto q = arm.get_joint();
                    require(q.size() == 6 && finite(q), "joints " + cpp(q));
                    return 0.0;
                  });
    case 1:
      return make("get_joint_velocities", "arm.get_joint_velocities();", false, Expectation::kAny,
                  [](ArmController& arm) {
                    const auto v = arm.get_joint_velocities();
                    require(v.size() == 6 && finite(v), "velocities " + cpp(v));
                    return 0.0;
                  });
    case 2:
      return make("get_end_effector_pose", "arm.get_end_effector_pose();", false, Expectation::kAny,
                  [](ArmController& arm) {
                    const auto p = arm.get_end_effector_pose();
                    require(p.size() == 7 && finite(p), "pose " + cpp(p));
                    const double norm =
                        std::sqrt(p[3] * p[3] + p[4] * p[4] + p[5] * p[5] + p[6] * p[6]);
                    require(std::abs(norm - 1.0) < 1e-6, "pose quaternion of norm " + cpp(norm));
                    return 0.0;
                  });
    case 3:
      return make("get_control_cycle_sample", "arm.get_control_cycle_sample();", false,
                  Expectation::kAny, [](ArmController& arm) {
                    const auto s = arm.get_control_cycle_sample();
                    require(s.cycle > 0, "no cycle recorded");
                    require(finite(s.commanded_position) && finite(s.commanded_velocity) &&
                                finite(s.feedforward_torque) && finite(s.measured_position),
                            "non-finite cycle sample");
                    return static_cast<double>(s.cycle);
                  });
    default:
      return make("control_loop_statistics", "arm.control_loop_statistics();", false,
                  Expectation::kAny, [](ArmController& arm) {
                    const auto s = arm.control_loop_statistics();
                    require(s.cycles > 0 && s.missed_deadlines <= s.cycles,
                            "cycles " + std::to_string(s.cycles) + ", missed " +
                                std::to_string(s.missed_deadlines));
                    return static_cast<double>(s.cycles);
                  });
  }
}

Call InterruptionGenerator::bad_arguments() {
  // A valid posture and pose beside the bad value, so that only the bad value is wrong.
  const Posture q = space_.near(view_.joints(), 0.1, rng_);
  const std::vector<double> pose = view_.tool_pose(q);
  const Posture five(q.begin(), q.begin() + 5);
  const int j = integer(rng_, 0, 5);
  const double bad = std::array<double, 3>{NAN, INFINITY, -INFINITY}[integer(rng_, 0, 2)];
  const Posture bad_q = perturbed(q, j, bad);
  const std::vector<double> bad_pose = perturbed(pose, j, bad);
  const std::vector<double> short_pose = {pose[0], pose[1]};
  const double s = uniform(rng_, 0.2, 1.0);
  using W = Poses;
  auto call = [](std::string kind, std::string text, std::function<void(ArmController&)> f) {
    return make(kind + " (bad arguments)", std::move(text), false, Expectation::kInvalidArgument,
                [f](ArmController& arm) {
                  f(arm);
                  return 0.0;
                });
  };
  switch (integer(rng_, 0, 25)) {
    case 0:
      return call("set_joint", "arm.set_joint(" + cpp(bad_q) + ", 1);",
                  [=](ArmController& a) { a.set_joint(bad_q, 1.0); });
    case 1:
      return call("set_joint", "arm.set_joint(" + cpp(five) + ", 1);",
                  [=](ArmController& a) { a.set_joint(five, 1.0); });
    case 2: {
      const double t = std::array<double, 3>{-0.5, 0.0, NAN}[integer(rng_, 0, 2)];
      return call("set_joint", "arm.set_joint(" + cpp(q) + ", " + cpp(t) + ");",
                  [=](ArmController& a) { a.set_joint(q, t); });
    }
    case 3:
      return call("move_joint_waypoints",
                  "arm.move_joint_waypoints(" + cpp(W{q, bad_q}) + ", 1, 0);",
                  [=](ArmController& a) {
                    a.move_joint_waypoints({q, bad_q}, 1.0, 0.0);
                  });
    case 4:
      return call("move_joint_waypoints", "arm.move_joint_waypoints(" + cpp(W{five}) + ", 1, 0);",
                  [=](ArmController& a) { a.move_joint_waypoints({five}, 1.0, 0.0); });
    case 5:
      return call("move_joint_waypoints", "arm.move_joint_waypoints(" + cpp(W{q}) + ", -1, 0);",
                  [=](ArmController& a) { a.move_joint_waypoints({q}, -1.0, 0.0); });
    case 6:
      return call("move_joint_waypoints",
                  "arm.move_joint_waypoints(" + cpp(W{q}) + ", 1, " + cpp(s) + ");",
                  [=](ArmController& a) { a.move_joint_waypoints({q}, 1.0, s); });
    case 7:
      return call("move_joint_waypoints",
                  "arm.move_joint_waypoints(" + cpp(W{q}) + ", 0, " + cpp(1.0 + s) + ");",
                  [=](ArmController& a) { a.move_joint_waypoints({q}, 0.0, 1.0 + s); });
    case 8:
      return call("move_joint_waypoints",
                  "arm.move_joint_waypoints(" + cpp(W{q}) + ", " + cpp(bad) + ", 0);",
                  [=](ArmController& a) { a.move_joint_waypoints({q}, bad, 0.0); });
    case 9:
      return call("move_joint_waypoints", "arm.move_joint_waypoints({}, 1, 0);",
                  [=](ArmController& a) { a.move_joint_waypoints({}, 1.0, 0.0); });
    case 10:
      return call("update_joint_waypoint_chunk",
                  "arm.update_joint_waypoint_chunk(" + cpp(W{bad_q}) + ", 1, 0, 0.1);",
                  [=](ArmController& a) { a.update_joint_waypoint_chunk({bad_q}, 1.0, 0.0, 0.1); });
    case 11:
      return call("update_joint_waypoint_chunk",
                  "arm.update_joint_waypoint_chunk(" + cpp(W{q}) + ", 1, 0, -0.1);",
                  [=](ArmController& a) { a.update_joint_waypoint_chunk({q}, 1.0, 0.0, -0.1); });
    case 12:
      return call("update_joint_waypoint_chunk",
                  "arm.update_joint_waypoint_chunk(" + cpp(W{q}) + ", 1, " + cpp(s) + ", 0.1);",
                  [=](ArmController& a) { a.update_joint_waypoint_chunk({q}, 1.0, s, 0.1); });
    case 13:
      return call("update_joint_waypoint_chunk",
                  "arm.update_joint_waypoint_chunk(" + cpp(W{q}) + ", 0, " + cpp(1.0 + s) + ", 0);",
                  [=](ArmController& a) { a.update_joint_waypoint_chunk({q}, 0.0, 1.0 + s, 0.0); });
    case 14:
      return call("update_joint_waypoint_chunk",
                  "arm.update_joint_waypoint_chunk(" + cpp(W{five}) + ", 1, 0, 0);",
                  [=](ArmController& a) { a.update_joint_waypoint_chunk({five}, 1.0, 0.0, 0.0); });
    case 15:
      return call("update_joint_waypoint_chunk",
                  "arm.update_joint_waypoint_chunk(" + cpp(W{q}) + ", 1, 0, " + cpp(bad) + ");",
                  [=](ArmController& a) { a.update_joint_waypoint_chunk({q}, 1.0, 0.0, bad); });
    case 16:
      return call(
          "update_joint_waypoint_chunk_with_gripper",
          "arm.update_joint_waypoint_chunk_with_gripper(" + cpp(W{q}) + ", {0.5, 0.5}, 1, 0, 0);",
          [=](ArmController& a) {
            a.update_joint_waypoint_chunk_with_gripper({q}, {0.5, 0.5}, 1.0, 0.0, 0.0);
          });
    case 17:
      return call(
          "move_joint_waypoints_with_gripper",
          "arm.move_joint_waypoints_with_gripper(" + cpp(W{q}) + ", {" + cpp(bad) + "}, 1, 0);",
          [=](ArmController& a) { a.move_joint_waypoints_with_gripper({q}, {bad}, 1.0, 0.0); });
    case 18:
      return call("move_l", "arm.move_l(" + cpp(W{short_pose}) + ", 1, 0);",
                  [=](ArmController& a) { a.move_l({short_pose}, 1.0, 0.0); });
    case 19:
      return call("move_l", "arm.move_l(" + cpp(W{pose, bad_pose}) + ", 1, 0);",
                  [=](ArmController& a) {
                    a.move_l({pose, bad_pose}, 1.0, 0.0);
                  });
    case 20:
      return call("move_l", "arm.move_l(" + cpp(W{pose}) + ", -1, 0);",
                  [=](ArmController& a) { a.move_l({pose}, -1.0, 0.0); });
    case 21:
      return call("move_l", "arm.move_l(" + cpp(W{pose}) + ", 1, " + cpp(s) + ");",
                  [=](ArmController& a) { a.move_l({pose}, 1.0, s); });
    case 22:
      return call("move_p", "arm.move_p(" + cpp(W{bad_pose}) + ", 0, " + cpp(s) + ");",
                  [=](ArmController& a) { a.move_p({bad_pose}, 0.0, s); });
    case 23:
      return call("move_pose_waypoints",
                  "arm.move_pose_waypoints(" + cpp(W{pose}) + ", 1, 0, true, -0.01);",
                  [=](ArmController& a) { a.move_pose_waypoints({pose}, 1.0, 0.0, true, -0.01); });
    case 24:
      return call("setGripperDistance", "arm.setGripperDistance(" + cpp(bad) + ");",
                  [=](ArmController& a) { a.setGripperDistance(bad); });
    default: {
      Item empty;
      empty.type = "movej";
      return call("run_motion_program",
                  "arm.run_motion_program({Item{\"movej\", {}, {}, 0, 0, 0, 0}});",
                  [=](ArmController& a) { a.run_motion_program({empty}); });
    }
  }
}

}  // namespace kestrel::campaign
