// Cartesian motions. A linear motion ("movel") moves the tool centre point along straight lines
// through the poses, corners rounded by arcs, orientation turned about one axis the shortest way
// (KDL paths and rotational interpolation), timed by a quintic rest-to-rest profile (KDL's
// spline velocity profile); every 2.5 ms sample is solved by IK seeded with the sample before,
// and the joint timeline is checked and executed like a joint waypoint motion. A point-to-point
// motion ("movep") solves each pose and runs a joint waypoint motion through the answers.
#include <kdl/chainfksolverpos_recursive.hpp>
#include <kdl/chainjnttojacsolver.hpp>
#include <kdl/frames.hpp>
#include <kdl/path_circle.hpp>
#include <kdl/path_composite.hpp>
#include <kdl/path_line.hpp>
#include <kdl/rotational_interpolation_sa.hpp>
#include <kdl/velocityprofile_spline.hpp>

#include <Eigen/Dense>
#include <algorithm>
#include <chrono>
#include <cmath>
#include <iostream>
#include <memory>
#include <sstream>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/controller/arm_controller_impl.hpp"

namespace ka = kestrel::algorithms;
namespace kc = kestrel::controller;

namespace {

// Rotation counts into the path length as an arc at this radius: a pure turn of the tool is
// timed like a move of the tool point 0.1 m from the axis.
constexpr double kEquivalentRadius = 0.1;
// Nominal tool speed and acceleration of a linear motion at full speed (m/s, m/s^2). The joint
// limits may slow it further.
constexpr double kLinearSpeed = 0.25;
constexpr double kLinearAcceleration = 1.0;
// A quintic rest-to-rest profile peaks at 15/8 of the mean speed and 10/sqrt(3) L/T^2.
constexpr double kQuinticPeakVelocity = 1.875;
constexpr double kQuinticPeakAcceleration = 5.773502691896258;
// Poses closer than this to the tool (metres, or radians at kEquivalentRadius) are where it is.
constexpr double kSamePoseDistance = 1e-9;
// One joint moving this far in one 2.5 ms period (40 rad/s) is no motion the arm can make: the
// IK answer has jumped to another branch.
constexpr double kBranchJumpRad = 0.1;

// KDL's Vector::Norm() rounds lengths below 1e-6 to 0 (and gives NaN for a zero vector when
// told not to): the IK would stop a micrometre short. Exact length instead.
double length(const KDL::Vector& v) {
  return std::sqrt(KDL::dot(v, v));
}

KDL::Frame pose_frame(const std::vector<double>& p) {
  return KDL::Frame(KDL::Rotation::RPY(p[3], p[4], p[5]), KDL::Vector(p[0], p[1], p[2]));
}

double frame_distance(const KDL::Frame& a, const KDL::Frame& b) {
  const KDL::Twist d = KDL::diff(a, b);
  return std::max(length(d.vel), length(d.rot) * kEquivalentRadius);
}

std::string format_pose(const KDL::Frame& f) {
  double r, p, y;
  f.M.GetRPY(r, p, y);
  std::ostringstream out;
  out << "[" << f.p.x() << ", " << f.p.y() << ", " << f.p.z() << ", " << r << ", " << p << ", " << y
      << "]";
  return out.str();
}

// One piece of a linear motion, travelled from rest to rest.
struct PathPart {
  std::unique_ptr<KDL::Path> path;
  // A composite's pieces with the path length where each begins: looked up here because KDL's
  // own lookup snaps to a piece's start within a micrometre.
  std::vector<std::pair<double, KDL::Path*>> pieces;
  KDL::Frame pos(double s) const {
    if (pieces.empty()) {
      return path->Pos(s);
    }
    size_t k = 0;
    while (k + 1 < pieces.size() && s >= pieces[k + 1].first) {
      ++k;
    }
    return pieces[k].second->Pos(std::max(s - pieces[k].first, 0.0));
  }
  double nominal_duration = 0.0;  // at full speed, from the nominal tool limits
  double duration = 0.0;
  // Gripper openings at the part's start and end, and at the corners inside it (by path length).
  std::vector<double> corner_lengths;
  std::vector<double> corner_gripper;
};

double quintic_duration(double length, double speed, double acceleration) {
  return std::max(kQuinticPeakVelocity * length / speed,
                  std::sqrt(kQuinticPeakAcceleration * length / acceleration));
}

// Largest radius of one arc per corner such that no corner's arc begins farther than `blend`
// from it and every arc fits in half of its neighbouring lines; 0 when a corner cannot be
// rounded (a reversal, or a line without translation).
double rounding_radius(const std::vector<KDL::Frame>& points, double blend) {
  double radius = blend;
  for (size_t k = 1; k + 1 < points.size(); ++k) {
    const KDL::Vector in = points[k].p - points[k - 1].p;
    const KDL::Vector out = points[k + 1].p - points[k].p;
    const double a = length(in);
    const double b = length(out);
    if (a < 1e-6 || b < 1e-6) {
      return 0.0;
    }
    // Interior angle between the lines at the corner: pi for a straight pass.
    const double cos_turn = KDL::dot(in, out) / (a * b);
    const double interior = M_PI - std::acos(std::clamp(cos_turn, -1.0, 1.0));
    if (interior > M_PI - 1e-6) {
      continue;  // straight on: nothing to round
    }
    const double t = std::tan(0.5 * interior);
    // The arc meets each line at t_dist = radius / tan(interior / 2) from the corner.
    radius = std::min({radius, blend * t, 0.5 * std::min(a, b) * t});
  }
  return radius;
}

// The lines through `points` with every corner rounded by an arc of `radius` (which
// rounding_radius has fitted): each line ends at the next corner's orientation, each arc holds
// it. Built from KDL lines and circles because KDL's Path_RoundedComposite misplaces an arc that
// follows a short line into a gentle turn: a 12 mm line turning by 17 degrees leaves a 2 mm step
// in the path.
std::unique_ptr<KDL::Path_Composite> rounded_path(const std::vector<KDL::Frame>& points,
                                                  double radius) {
  auto path = std::make_unique<KDL::Path_Composite>();
  KDL::Frame from = points.front();
  auto line_to = [&](const KDL::Frame& to) {
    if (frame_distance(from, to) > 1e-12) {
      path->Add(new KDL::Path_Line(from, to, new KDL::RotationalInterpolation_SingleAxis(),
                                   kEquivalentRadius));
    }
    from = to;
  };
  for (size_t k = 1; k + 1 < points.size(); ++k) {
    const KDL::Vector in = points[k].p - points[k - 1].p;
    const KDL::Vector out = points[k + 1].p - points[k].p;
    const KDL::Vector u_in = in / length(in);
    const KDL::Vector u_out = out / length(out);
    const double turn = std::acos(std::clamp(KDL::dot(u_in, u_out), -1.0, 1.0));
    if (turn < 1e-6) {
      line_to(points[k]);  // straight on
      continue;
    }
    const double d = radius * std::tan(0.5 * turn);  // corner to where the arc meets a line
    const KDL::Frame arc_start(points[k].M, points[k].p - u_in * d);
    line_to(arc_start);
    const KDL::Vector normal = u_in * u_out;
    const KDL::Vector centre = arc_start.p + (normal / length(normal) * u_in) * radius;
    path->Add(new KDL::Path_Circle(arc_start, centre, points[k].p, points[k].M, turn,
                                   new KDL::RotationalInterpolation_SingleAxis(),
                                   kEquivalentRadius));
    from = KDL::Frame(points[k].M, points[k].p + u_out * d);
  }
  line_to(points.back());
  return path;
}

}  // namespace

std::vector<ArmController::Impl::Sample> ArmController::Impl::plan_cartesian_line_trajectory(
    const JointArray& q_start, const std::vector<std::vector<double>>& poses, double time_sec,
    double speed, double blend_radius_m, double control_hz, double position_tolerance_m,
    double orientation_tolerance_rad, const char* prefix, std::vector<double>* gripper_timeline_out,
    const std::vector<double>* point_gripper_targets) {
  // The planner's own copy: application threads query the shared model meanwhile, and KDL's
  // solvers write their joint poses into the chain they run on.
  const KDL::Chain chain = kinematics->chain_copy();
  KDL::ChainFkSolverPos_recursive fk(chain);
  KDL::ChainJntToJacSolver jacobian_solver(chain);
  KDL::JntArray q(kJoints);
  for (int j = 0; j < kJoints; ++j) {
    q(j) = q_start[j];
  }
  KDL::Frame start_frame;
  fk.JntToCart(q, start_frame);

  // Corner points without repeats (a repeated pose adds nothing to a path).
  std::vector<KDL::Frame> points{start_frame};
  std::vector<double> gripper{point_gripper_targets ? (*point_gripper_targets)[0] : 0.0};
  for (size_t k = 0; k < poses.size(); ++k) {
    const KDL::Frame f = pose_frame(poses[k]);
    const double g = point_gripper_targets ? (*point_gripper_targets)[k + 1] : 0.0;
    if (frame_distance(points.back(), f) < kSamePoseDistance) {
      gripper.back() = g;
      continue;
    }
    points.push_back(f);
    gripper.push_back(g);
  }

  const double period = 1.0 / control_hz;
  if (points.size() == 1) {
    // Nothing to travel: one period at the start.
    Sample at_start;
    at_start.position = q_start;
    if (gripper_timeline_out != nullptr) {
      gripper_timeline_out->assign(2, gripper.front());
    }
    return {at_start, at_start};
  }
  const double longest = trajectory_config.max_motion_duration_sec;
  auto refuse_too_long = [&](double seconds) {
    std::ostringstream msg;
    msg << prefix << "planned motion lasts " << seconds
        << " s, longer than joint_trajectory.max_motion_duration_sec=" << longest;
    throw std::runtime_error(msg.str());
  };

  // One rounded path through every corner, or, when the corners cannot be rounded, one
  // rest-to-rest line per segment.
  std::vector<PathPart> parts;
  const double radius = points.size() > 2 ? rounding_radius(points, blend_radius_m) : 0.0;
  if (points.size() > 2 && radius > 1e-6) {
    try {
      auto rounded = rounded_path(points, radius);
      PathPart part;
      double along = 0.0;
      for (size_t k = 0; k < points.size(); ++k) {
        if (k > 0) {
          along += frame_distance(points[k - 1], points[k]);
        }
        part.corner_lengths.push_back(along);
        part.corner_gripper.push_back(gripper[k]);
      }
      // Corner positions measured on the unrounded lines, scaled onto the rounded path.
      const double scale = along > 0.0 ? rounded->PathLength() / along : 0.0;
      for (double& l : part.corner_lengths) {
        l *= scale;
      }
      double begin = 0.0;
      for (int k = 0; k < rounded->GetNrOfSegments(); ++k) {
        part.pieces.emplace_back(begin, rounded->GetSegment(k));
        begin = rounded->GetLengthToEndOfSegment(k);
      }
      part.path = std::move(rounded);
      parts.push_back(std::move(part));
    } catch (...) {
      parts.clear();  // KDL refused the rounding: stop at each corner instead
    }
  }
  if (parts.empty()) {
    for (size_t k = 0; k + 1 < points.size(); ++k) {
      PathPart part;
      part.path = std::make_unique<KDL::Path_Line>(points[k], points[k + 1],
                                                   new KDL::RotationalInterpolation_SingleAxis(),
                                                   kEquivalentRadius);
      part.corner_lengths = {0.0, part.path->PathLength()};
      part.corner_gripper = {gripper[k], gripper[k + 1]};
      parts.push_back(std::move(part));
    }
  }

  // Durations: nominal tool limits in speed mode, the requested time shared by nominal
  // duration in time mode.
  const bool time_mode = time_sec > 0.0;
  double nominal_total = 0.0;
  for (auto& part : parts) {
    part.nominal_duration =
        quintic_duration(part.path->PathLength(), kLinearSpeed, kLinearAcceleration);
    nominal_total += part.nominal_duration;
    part.duration =
        quintic_duration(part.path->PathLength(), kLinearSpeed * speed, kLinearAcceleration);
  }
  if (time_mode) {
    for (auto& part : parts) {
      part.duration = nominal_total > 0.0 ? time_sec * part.nominal_duration / nominal_total
                                          : time_sec / static_cast<double>(parts.size());
    }
  }

  std::vector<Sample> samples;
  std::vector<double> timeline;
  // Newton steps from the previous sample's joints: the answer stays on the branch the arm is
  // on. Near a singularity the steps may not settle; the configured IK then takes over.
  auto track = [&](const KDL::Frame& target, KDL::JntArray& joints) {
    KDL::Frame current;
    KDL::Jacobian J(kJoints);
    for (int iteration = 0; iteration < 8; ++iteration) {
      fk.JntToCart(joints, current);
      const KDL::Twist e = KDL::diff(current, target);
      if (length(e.vel) < 1e-10 && length(e.rot) < 1e-10) {
        return;
      }
      jacobian_solver.JntToJac(joints, J);
      Eigen::Matrix<double, 6, 1> err;
      err << e.vel.x(), e.vel.y(), e.vel.z(), e.rot.x(), e.rot.y(), e.rot.z();
      const Eigen::Matrix<double, 6, 6> Jm = J.data;
      Eigen::Matrix<double, 6, 6> normal = Jm.transpose() * Jm;
      normal.diagonal().array() += 1e-10;
      Eigen::Matrix<double, 6, 1> step = normal.ldlt().solve(Jm.transpose() * err);
      const double largest = step.cwiseAbs().maxCoeff();
      if (!std::isfinite(largest)) {
        return;
      }
      if (largest > 0.2) {
        step *= 0.2 / largest;
      }
      for (int j = 0; j < kJoints; ++j) {
        joints(j) += step(j);
      }
    }
  };

  // A step of one joint beyond kBranchJumpRad is either a motion far too fast or a jump to
  // another IK branch: the same path run much slower tells which (a jump stays a jump).
  bool probing_jump = false;
  std::string limit_message;
  for (int attempt = 0; attempt < 6; ++attempt) {
    // The whole length is known before anything is allocated.
    double planned = 0.0;
    for (const auto& part : parts) {
      planned += std::max(std::round(part.duration * control_hz), 1.0) * period;
    }
    if (planned > longest) {
      refuse_too_long(planned);
    }
    samples.clear();
    timeline.clear();
    double largest_step = 0.0;
    std::string jump_message;
    KDL::JntArray joints = q;
    for (size_t k = 0; k < parts.size(); ++k) {
      PathPart& part = parts[k];
      const long steps = std::max(std::lround(part.duration * control_hz), 1L);
      part.duration = static_cast<double>(steps) * period;
      KDL::VelocityProfile_Spline profile;
      profile.SetProfileDuration(0.0, 0.0, 0.0, part.path->PathLength(), 0.0, 0.0, part.duration);
      for (long i = (k == 0 ? 0 : 1); i <= steps; ++i) {
        const double t = static_cast<double>(i) * period;
        const double s = i == steps ? part.path->PathLength() : profile.Pos(t);
        const KDL::Frame target = part.pos(s);
        const KDL::JntArray previous = joints;
        track(target, joints);
        KDL::Frame reached;
        fk.JntToCart(joints, reached);
        KDL::Twist e = KDL::diff(reached, target);
        if (length(e.vel) > position_tolerance_m || length(e.rot) > orientation_tolerance_rad) {
          std::vector<double> answer;
          double r, p, y;
          target.M.GetRPY(r, p, y);
          const std::vector<double> seed(previous.data.data(), previous.data.data() + kJoints);
          const std::vector<double> position = {target.p.x(), target.p.y(), target.p.z()};
          auto take = [&](const std::vector<double>& q) {
            for (int j = 0; j < kJoints; ++j) {
              joints(j) = q[j];
            }
            track(target, joints);
            fk.JntToCart(joints, reached);
            e = KDL::diff(reached, target);
          };
          auto off = [&] {
            return length(e.vel) > position_tolerance_m ||
                   length(e.rot) > orientation_tolerance_rad;
          };
          // The seeded solve keeps the branch; where it finds nothing near the path (close to a
          // singularity), the solution nearest the previous sample does, and the jump check
          // below judges it.
          if (kinematics->solve_ik_kdl(position, {r, p, y}, seed, answer)) {
            take(answer);
          }
          if (off() && kinematics->solve_ik_nearest(position, {r, p, y}, seed, answer)) {
            take(answer);
          }
        }
        const double elapsed = static_cast<double>(samples.size()) * period;
        if (length(e.vel) > position_tolerance_m || length(e.rot) > orientation_tolerance_rad) {
          std::ostringstream msg;
          msg << prefix
              << "the path cannot be followed: no IK answer within tolerance at t=" << elapsed
              << "s, pose=" << format_pose(target) << " (position error " << length(e.vel)
              << " m of " << position_tolerance_m << ", orientation error " << length(e.rot)
              << " rad of " << orientation_tolerance_rad << ")";
          throw std::runtime_error(msg.str());
        }
        if (!samples.empty()) {
          for (int j = 0; j < kJoints; ++j) {
            const double step = std::abs(joints(j) - previous(j));
            if (step > largest_step) {
              largest_step = step;
              std::ostringstream msg;
              msg << prefix << "the path would jump between IK branches at t=" << elapsed
                  << "s: joint " << (j + 1) << " moves " << joints(j) - previous(j)
                  << " rad in one period, pose=" << format_pose(target);
              jump_message = msg.str();
            }
          }
        }
        Sample sample;
        for (int j = 0; j < kJoints; ++j) {
          sample.position[j] = joints(j);
          if (joint_has_limits[j] &&
              (joints(j) < joint_lower[j] - 1e-9 || joints(j) > joint_upper[j] + 1e-9)) {
            std::ostringstream msg;
            msg << prefix << "the path leaves joint " << (j + 1) << "'s limits at t=" << elapsed
                << "s: " << joints(j) << " rad outside [" << joint_lower[j] << ", "
                << joint_upper[j] << "], pose=" << format_pose(target);
            throw std::runtime_error(msg.str());
          }
        }
        samples.push_back(sample);
        if (gripper_timeline_out != nullptr) {
          // Opening by path length between the corners around s.
          const auto& L = part.corner_lengths;
          const auto& G = part.corner_gripper;
          size_t c = 0;
          while (c + 2 < L.size() && s > L[c + 1]) {
            ++c;
          }
          const double span = L[c + 1] - L[c];
          const double u = span > 0.0 ? std::clamp((s - L[c]) / span, 0.0, 1.0) : 1.0;
          timeline.push_back(G[c] + (G[c + 1] - G[c]) * u);
        }
      }
    }
    if (samples.size() == 1) {
      samples.push_back(samples.front());  // nothing to travel: one period at the start
      timeline.push_back(timeline.empty() ? 0.0 : timeline.back());
    }

    // Joint velocities and accelerations by central differences; at rest at both ends.
    JointArray max_v{};
    JointArray max_a{};
    JointArray max_j{};
    const size_t n = samples.size();
    for (size_t i = 1; i + 1 < n; ++i) {
      for (int j = 0; j < kJoints; ++j) {
        const double prev = samples[i - 1].position[j];
        const double here = samples[i].position[j];
        const double next = samples[i + 1].position[j];
        samples[i].velocity[j] = (next - prev) * 0.5 * control_hz;
        samples[i].acceleration[j] = (next - 2.0 * here + prev) * control_hz * control_hz;
        max_v[j] = std::max(max_v[j], std::abs(samples[i].velocity[j]));
        max_a[j] = std::max(max_a[j], std::abs(samples[i].acceleration[j]));
      }
    }
    // Jerk over 20 ms: IK answers carry sub-micro-radian ripples that a one-period difference
    // of accelerations would blow up into jerks the arm never feels.
    constexpr size_t kJerkSpan = 8;
    for (size_t i = 0; i + kJerkSpan < n; ++i) {
      for (int j = 0; j < kJoints; ++j) {
        const double jerk = (samples[i + kJerkSpan].acceleration[j] - samples[i].acceleration[j]) *
                            control_hz / static_cast<double>(kJerkSpan);
        max_j[j] = std::max(max_j[j], std::abs(jerk));
      }
    }
    // The joint limits decide in the end: a speed-mode motion is slowed until every joint
    // keeps them; a timed one that breaks them is refused like a timed joint motion.
    const JointArray vmax = [&] {
      JointArray v = max_vel;
      if (!time_mode) {
        for (double& x : v) {
          x *= speed;
        }
      }
      return v;
    }();
    const bool enforce_acc = !time_mode || trajectory_config.enforce_time_mode_acc_limit;
    const bool enforce_jerk = !time_mode || trajectory_config.enforce_time_mode_jerk_limit;
    double stretch = 1.0;
    int worst = -1;
    for (int j = 0; j < kJoints; ++j) {
      double k = max_v[j] / vmax[j];
      if (enforce_acc) {
        k = std::max(k, std::sqrt(max_a[j] / max_acc[j]));
      }
      if (enforce_jerk) {
        // Where a line meets an arc the acceleration steps: its sampled jerk shrinks only with
        // the square of the slow-down, not the cube.
        k = std::max(k, std::sqrt(max_j[j] / max_jerk[j]));
      }
      if (k > stretch) {
        stretch = k;
        worst = j;
      }
    }
    if (ka::motion_planning_debug_enabled()) {
      std::cerr << "[DEBUG]" << prefix << "cartesian samples=" << n
                << ", duration_s=" << static_cast<double>(n - 1) * period
                << ", limit_ratio=" << stretch << std::endl;
    }
    std::ostringstream limits;
    if (worst >= 0) {
      limits << std::boolalpha << prefix << "requested time_sec=" << time_sec << " exceeds joint "
             << (worst + 1) << " trajectory limits: vmax " << max_v[worst] << "/" << vmax[worst]
             << ", amax " << max_a[worst] << "/" << max_acc[worst] << " (enforce=" << enforce_acc
             << "), jmax " << max_j[worst] << "/" << max_jerk[worst] << " (enforce=" << enforce_jerk
             << ")";
    }
    if (largest_step > kBranchJumpRad) {
      if (probing_jump) {
        throw std::runtime_error(jump_message);
      }
      probing_jump = true;
      limit_message = limits.str();
      double total = 0.0;
      for (const auto& part : parts) {
        total += part.duration;
      }
      const double slower =
          std::min(largest_step / (0.25 * kBranchJumpRad), longest / std::max(total, period));
      if (slower <= 1.0) {
        throw std::runtime_error(jump_message);
      }
      for (auto& part : parts) {
        part.duration *= slower;
      }
      continue;
    }
    if (probing_jump && time_mode) {
      throw std::runtime_error(limit_message);  // continuous, only far too fast as asked
    }
    if (stretch <= 1.001) {
      break;
    }
    if (time_mode) {
      throw std::runtime_error(limits.str());
    }
    double stretched = 0.0;
    for (const auto& part : parts) {
      stretched += part.duration * stretch * 1.01;
    }
    // A continuous path settles within a slow-down or two. One whose samples step (an IK answer
    // accepted within tolerance, not exactly on the path) keeps its steps however slowly it runs,
    // and would only grow a timeline of millions of samples.
    if (attempt == 5 || stretched > longest) {
      std::ostringstream msg;
      msg << prefix << "the path needs joint " << (worst + 1)
          << " beyond its limits however slowly it is run (limit ratio " << stretch << ")";
      throw std::runtime_error(msg.str());
    }
    for (auto& part : parts) {
      part.duration *= stretch * 1.01;  // the same path, slower: every derivative scales down
    }
  }
  if (gripper_timeline_out != nullptr) {
    *gripper_timeline_out = std::move(timeline);
  }
  return samples;
}

double ArmController::Impl::publish_cartesian_waypoint_trajectory_command(
    const std::vector<std::vector<double>>& poses, double time_sec, double speed_percent,
    double blend_radius_m, double control_hz, double position_tolerance_m,
    double orientation_tolerance_rad, bool linear, const std::vector<double>* gripper_positions) {
  const char* prefix = linear ? "[move_l] " : "[move_p] ";
  const std::string p(prefix);
  if (poses.empty()) {
    throw std::invalid_argument(p + "poses must not be empty");
  }
  for (const auto& pose : poses) {
    if (pose.size() != 6) {
      throw std::invalid_argument(p +
                                  "each pose must have exactly 6 values: x, y, z, roll, "
                                  "pitch, yaw");
    }
    for (double v : pose) {
      if (!std::isfinite(v)) {
        throw std::invalid_argument(p + "poses must contain only finite values");
      }
    }
  }
  if (!(control_hz > 0.0) || !std::isfinite(control_hz)) {
    throw std::invalid_argument("control_hz must be positive");
  }
  if (!(time_sec >= 0.0) || !std::isfinite(time_sec)) {
    throw std::invalid_argument("time_sec must be non-negative");
  }
  if (!std::isfinite(speed_percent) || speed_percent > 1.0) {
    throw std::invalid_argument("speed_percent must be in (0, 1] when provided");
  }
  if (speed_percent > 0.0 && time_sec > 0.0) {
    throw std::invalid_argument("speed_percent and time_sec are mutually exclusive; set only one");
  }
  if (!(blend_radius_m >= 0.0) || !std::isfinite(blend_radius_m)) {
    throw std::invalid_argument(p + "blend_radius_m must be non-negative");
  }
  if (!(position_tolerance_m > 0.0) || !(orientation_tolerance_rad > 0.0)) {
    throw std::invalid_argument(p + "position and orientation tolerances must be positive");
  }
  if (gripper_positions != nullptr) {
    if (gripper_positions->size() != poses.size()) {
      throw std::invalid_argument("gripper_positions must have the same length as poses");
    }
    for (double g : *gripper_positions) {
      if (!std::isfinite(g)) {
        throw std::invalid_argument("gripper_positions must contain only finite values");
      }
    }
  }
  const double speed =
      speed_percent > 0.0 ? speed_percent : trajectory_config.default_speed_percent;
  if (time_sec <= 0.0 && !(speed > 0.0 && speed <= 1.0)) {
    throw std::invalid_argument("speed_percent must be in (0, 1]");
  }
  JointArray current{};
  const uint64_t stops_seen = stop_generation.load();
  if (!try_get_latest_joint_state(current)) {
    throw std::runtime_error("cannot plan cartesian trajectory before joint state is available");
  }
  if (gripper_positions == nullptr) {
    // Every pose where the tool already is: nothing to do.
    const auto tool =
        kinematics->forwardKinematics_kdl(std::vector<double>(current.begin(), current.end()));
    const KDL::Frame here(KDL::Rotation::Quaternion(tool[3], tool[4], tool[5], tool[6]),
                          KDL::Vector(tool[0], tool[1], tool[2]));
    if (std::all_of(poses.begin(), poses.end(), [&](const std::vector<double>& pose) {
          return frame_distance(here, pose_frame(pose)) < kSamePoseDistance;
        })) {
      return 0.0;
    }
  }

  if (!linear) {
    // Point to point: every pose solved from the answer before it, then a joint motion.
    std::vector<std::vector<double>> joint_waypoints;
    std::vector<double> seed(current.begin(), current.end());
    for (size_t k = 0; k < poses.size(); ++k) {
      const auto& pose = poses[k];
      std::vector<double> answer;
      const std::vector<double> position = {pose[0], pose[1], pose[2]};
      const std::vector<double> euler = {pose[3], pose[4], pose[5]};
      auto miss = [&] {
        const auto reached = kinematics->forwardKinematics_kdl(answer);
        const KDL::Frame f(
            KDL::Rotation::Quaternion(reached[3], reached[4], reached[5], reached[6]),
            KDL::Vector(reached[0], reached[1], reached[2]));
        return KDL::diff(f, pose_frame(pose));
      };
      auto off = [&](const KDL::Twist& e) {
        return length(e.vel) > position_tolerance_m || length(e.rot) > orientation_tolerance_rad;
      };
      const bool seeded = kinematics->solve_ik_kdl(position, euler, seed, answer);
      KDL::Twist e = seeded ? miss() : KDL::Twist();
      if (!seeded || off(e)) {
        // A pose far from the posture before it (the seeded answer, if any, missed it): every
        // solution, the nearest taken.
        std::vector<double> nearest;
        if (kinematics->solve_ik_nearest(position, euler, seed, nearest)) {
          answer = nearest;
          e = miss();
          std::cerr << prefix << "pose " << k
                    << ": no answer near the posture before it; took the solution nearest it"
                    << std::endl;
        } else if (!seeded) {
          std::ostringstream msg;
          msg << prefix << "no IK answer for pose " << k << " " << format_pose(pose_frame(pose));
          throw std::runtime_error(msg.str());
        }
      }
      if (off(e)) {
        std::ostringstream msg;
        msg << prefix << "IK answer for pose " << k << " misses it by " << length(e.vel)
            << " m and " << length(e.rot) << " rad";
        throw std::runtime_error(msg.str());
      }
      joint_waypoints.push_back(answer);
      seed = answer;
    }
    return publish_joint_waypoint_trajectory_command(joint_waypoints, time_sec, speed_percent,
                                                     control_hz, gripper_positions);
  }

  const auto began = Clock::now();
  std::vector<double> gripper_targets;
  if (gripper_positions != nullptr) {
    gripper_targets.push_back(current_gripper_opening());
    for (double g : *gripper_positions) {
      gripper_targets.push_back(clamp(g, 0.0, 1.0) * gripper_stroke);
    }
  }
  // The line, checked, from a start: at rest, or (a running motion taken over smoothly) braking
  // to rest first, within the limits, and the line from where the brake ends.
  auto prepare = [&](const MotionState& start) {
    std::vector<Sample> brake;
    JointArray from = start.position;
    if (kc::in_motion(start)) {
      const kc::SpliceTransition t =
          kc::JointSplice({max_vel, max_acc, max_jerk}, 1.0 / control_hz).plan(start, {});
      for (long i = 0; i < t.steps; ++i) {
        const MotionState s = t.at(static_cast<double>(i) / control_hz);
        brake.push_back({s.position, s.velocity, s.acceleration});
      }
      from = t.end().position;
    }
    std::vector<double> gripper_timeline;
    auto plan = [&](double s) {
      auto line = plan_cartesian_line_trajectory(
          from, poses, time_sec, s, blend_radius_m, control_hz, position_tolerance_m,
          orientation_tolerance_rad, prefix, gripper_positions ? &gripper_timeline : nullptr,
          gripper_positions ? &gripper_targets : nullptr);
      line.insert(line.begin(), brake.begin(), brake.end());
      if (gripper_positions != nullptr) {
        gripper_timeline.insert(gripper_timeline.begin(), brake.size(), gripper_targets.front());
      }
      return line;
    };
    auto samples = plan(time_sec > 0.0 ? 1.0 : speed);
    const auto verdict = evaluate_waypoint_trajectory_safety(samples);
    if (verdict.level == ka::SafetyLevel::stop) {
      throw std::runtime_error(p + ka::format_safety_result(verdict));
    }
    if (verdict.level == ka::SafetyLevel::warning) {
      std::cerr << prefix << "safety warning: " << ka::format_safety_result(verdict)
                << ", samples=" << samples.size() << std::endl;
      if (time_sec <= 0.0 && verdict.speed_scale > 0.0 && verdict.speed_scale < 1.0) {
        samples = plan(speed * verdict.speed_scale);  // the same path, slower: a new plan,
        const auto slower = evaluate_waypoint_trajectory_safety(samples);  // checked again
        if (slower.level == ka::SafetyLevel::stop) {
          throw std::runtime_error(p + ka::format_safety_result(slower));
        }
      }
    }
    PreparedMotion motion;
    motion.duration = static_cast<double>(samples.size() - 1) / control_hz;
    motion.samples = std::make_shared<const std::vector<Sample>>(std::move(samples));
    if (gripper_positions != nullptr) {
      motion.gripper_timeline =
          std::make_shared<const std::vector<double>>(std::move(gripper_timeline));
    }
    return motion;
  };
  int64_t id = -1;
  PreparedMotion motion;
  if (trajectory_config.smooth_takeover) {
    StagedMotion staged_motion =
        stage_spliced_motion(prepare, 0.0, control_hz, current, line_planning_estimate_ns,
                             (p + "the running motion kept changing while the motion was planned; "
                                  "nothing was changed")
                                 .c_str());
    id = staged_motion.id;
    motion = std::move(staged_motion.motion);
  } else {
    MotionState at_rest;
    at_rest.position = current;
    motion = prepare(at_rest);
  }
  if (ka::motion_planning_debug_enabled()) {
    std::cerr << prefix
              << "planning_time_s=" << std::chrono::duration<double>(Clock::now() - began).count()
              << ", samples=" << motion.samples->size()
              << ", gripper_timeline=" << (gripper_positions ? "true" : "false") << std::endl;
  }
  record_last_samples(*motion.samples);
  if (id < 0) {
    id = write_waypoint_command(motion.samples, motion.gripper_timeline, 1.0 / control_hz,
                                &stops_seen);
    if (id < 0) {
      throw std::runtime_error("motion stopped");  // stop() came while it was planned
    }
  }
  wait_for_waypoint_motion(id);
  return motion.duration;
}

// ---- Public operations ------------------------------------------------------------------------

double ArmController::move_pose_waypoints(const std::vector<std::vector<double>>& poses,
                                          double time_sec, double speed_percent, bool linear,
                                          double blend_radius_m) {
  const CallScope scope(*this);
  return impl().publish_cartesian_waypoint_trajectory_command(
      poses, time_sec, speed_percent, blend_radius_m, Impl::kControlHz, kPositionToleranceM,
      kOrientationToleranceRad, linear, nullptr);
}

double ArmController::move_l(const std::vector<std::vector<double>>& poses, double time_sec,
                             double speed_percent, double blend_radius_m) {
  return move_pose_waypoints(poses, time_sec, speed_percent, true, blend_radius_m);
}

double ArmController::move_p(const std::vector<std::vector<double>>& poses, double time_sec,
                             double speed_percent) {
  return move_pose_waypoints(poses, time_sec, speed_percent, false, 0.0);
}

double ArmController::move_p_with_gripper(const std::vector<std::vector<double>>& poses,
                                          const std::vector<double>& gripper_positions,
                                          double time_sec, double speed_percent) {
  const CallScope scope(*this);
  return impl().publish_cartesian_waypoint_trajectory_command(
      poses, time_sec, speed_percent, 0.0, Impl::kControlHz, kPositionToleranceM,
      kOrientationToleranceRad, false, &gripper_positions);
}
