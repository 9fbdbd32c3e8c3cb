#include "kestrel/algorithms/trajectory_safety.hpp"

#include <algorithm>
#include <sstream>
#include <utility>

#include "kestrel/algorithms/collision_geometry.hpp"
#include "kestrel/algorithms/kinematics.hpp"

namespace kestrel::algorithms {
namespace {

constexpr double kJointLimitWarnSpeedScale = 0.7;
constexpr double kSelfCollisionWarnSpeedScale = 0.5;
constexpr std::size_t kMaxChainJoints = 6;

SafetyResult make_result(SafetyLevel level, std::string code, std::string message,
                         std::size_t sample, int joint, double value, double threshold,
                         double speed_scale) {
  SafetyResult r;
  r.level = level;
  r.code = std::move(code);
  r.message = std::move(message);
  r.sample = sample;
  r.joint = joint;
  r.value = value;
  r.threshold = threshold;
  r.speed_scale = speed_scale;
  return r;
}

// ---- Self-collision preparation: everything that does not depend on the sample -------------

enum class BodyKind { capsule, box, other };

// A body resolved against the model: the index of its link frame (0 = base_link, i + 1 = child
// of URDF joint i, -1 = unknown), its kind and, per sample, where it is in the base frame.
struct PlacedBody {
  int link = -1;
  BodyKind kind = BodyKind::other;
  Eigen::Vector3d a = Eigen::Vector3d::Zero();  // capsule end points, or box centre in `a`
  Eigen::Vector3d b = Eigen::Vector3d::Zero();
  Eigen::Isometry3d box_pose = Eigen::Isometry3d::Identity();
  double bounding_radius = 0.0;  // box only
};

// The link frames are kept as "base_link" -> identity plus, for each of the first six URDF
// joints in order, its child link -> the running transform. A later joint with the same child
// name would replace an earlier entry, so the last match wins.
int resolve_link(const std::vector<UrdfJoint>& joints, std::size_t joint_count,
                 const std::string& link) {
  for (std::size_t i = joint_count; i-- > 0;) {
    if (!joints[i].child_link.empty() && joints[i].child_link == link) {
      return static_cast<int>(i) + 1;
    }
  }
  return link == "base_link" ? 0 : -1;
}

bool is_ignored(const SelfCollisionConfig& config, const std::string& a, const std::string& b) {
  for (const auto& pair : config.ignored_pairs) {
    if ((pair.first == a && pair.second == b) || (pair.first == b && pair.second == a)) {
      return true;
    }
  }
  return false;
}

std::string clearance_message(const char* prefix, const std::string& a, const std::string& b,
                              double clearance) {
  std::ostringstream s;
  s << prefix << a << " vs " << b << " clearance_m=" << clearance;
  return s.str();
}

}  // namespace

SafetyResult check_joint_limit_margins(const std::vector<WaypointTrajectorySample>& samples,
                                       const std::vector<double>& lower,
                                       const std::vector<double>& upper,
                                       const std::vector<bool>& limit_enabled,
                                       const TrajectorySafetyConfig& config) {
  SafetyResult warning;
  if (!config.enabled || samples.empty()) {
    return warning;
  }
  // Joints that have a flag but no bounds cannot be measured; they are treated like unflagged.
  const std::size_t checked =
      std::min({limit_enabled.size(), lower.size(), upper.size(), std::size_t{6}});
  bool warned = false;
  for (std::size_t s = 0; s < samples.size(); ++s) {
    const auto& q = samples[s].position;
    for (std::size_t j = 0; j < checked; ++j) {
      if (!limit_enabled[j]) {
        continue;
      }
      const double margin = std::min(q[j] - lower[j], upper[j] - q[j]);
      if (margin <= config.joint_limit_stop_margin_rad) {
        return make_result(SafetyLevel::stop, "joint_limit_margin_stop",
                           "trajectory approaches joint limit stop margin", s, static_cast<int>(j),
                           margin, config.joint_limit_stop_margin_rad, 0.0);
      }
      if (margin <= config.joint_limit_warn_margin_rad && !warned) {
        warned = true;
        warning =
            make_result(SafetyLevel::warning, "joint_limit_margin_warn",
                        "trajectory approaches joint limit warning margin", s, static_cast<int>(j),
                        margin, config.joint_limit_warn_margin_rad, kJointLimitWarnSpeedScale);
      }
    }
  }
  return warning;
}

SafetyResult check_self_collision(const RobotKinematics& kinematics,
                                  const std::vector<WaypointTrajectorySample>& samples,
                                  const SelfCollisionConfig& config) {
  if (!config.enabled || samples.empty()) {
    return {};
  }
  if (config.bodies.size() < 2) {
    return make_result(SafetyLevel::stop, "self_collision_config_empty",
                       "self-collision is enabled but fewer than two collision bodies are "
                       "configured",
                       0, -1, 0.0, config.stop_distance_m, 0.0);
  }

  // Joint origins and axes, once per call.
  const std::vector<UrdfJoint>& joints = kinematics.urdf_joints();
  const std::size_t joint_count = std::min(joints.size(), kMaxChainJoints);
  std::array<Eigen::Isometry3d, kMaxChainJoints> origins;
  std::array<Eigen::Vector3d, kMaxChainJoints> axes;
  for (std::size_t i = 0; i < joint_count; ++i) {
    const UrdfJoint& j = joints[i];
    origins[i] = transform_from_xyz_rpy({j.origin_xyz.x(), j.origin_xyz.y(), j.origin_xyz.z()},
                                        {j.origin_rpy.x(), j.origin_rpy.y(), j.origin_rpy.z()});
    axes[i] = j.axis;
  }

  const std::vector<SelfCollisionConfig::Body>& bodies = config.bodies;
  std::vector<PlacedBody> placed(bodies.size());
  for (std::size_t k = 0; k < bodies.size(); ++k) {
    placed[k].link = resolve_link(joints, joint_count, bodies[k].link);
    if (bodies[k].type == "capsule") {
      placed[k].kind = BodyKind::capsule;
    } else if (bodies[k].type == "box") {
      placed[k].kind = BodyKind::box;
      placed[k].bounding_radius = box_bounding_radius(bodies[k].size);
    }
  }
  std::vector<std::pair<std::size_t, std::size_t>> pairs;
  pairs.reserve(bodies.size() * (bodies.size() - 1) / 2);
  for (std::size_t a = 0; a < bodies.size(); ++a) {
    for (std::size_t b = a + 1; b < bodies.size(); ++b) {
      if (!is_ignored(config, bodies[a].name, bodies[b].name)) {
        pairs.emplace_back(a, b);
      }
    }
  }

  const double stop = config.stop_distance_m;
  const double warn = config.warn_distance_m;
  SafetyResult warning;
  bool warned = false;
  std::array<Eigen::Isometry3d, kMaxChainJoints + 1> frames;
  frames[0] = Eigen::Isometry3d::Identity();

  for (std::size_t s = 0; s < samples.size(); ++s) {
    const auto& q = samples[s].position;
    Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
    for (std::size_t i = 0; i < joint_count; ++i) {
      T = T * origins[i];
      T.linear() = T.linear() * axis_angle_rotation(axes[i], q[i]);
      frames[i + 1] = T;
    }
    for (std::size_t k = 0; k < bodies.size(); ++k) {
      PlacedBody& p = placed[k];
      if (p.link < 0) {
        continue;
      }
      const Eigen::Isometry3d& F = frames[static_cast<std::size_t>(p.link)];
      const SelfCollisionConfig::Body& body = bodies[k];
      if (p.kind == BodyKind::capsule) {
        p.a = transform_point(F, Eigen::Vector3d(body.p0[0], body.p0[1], body.p0[2]));
        p.b = transform_point(F, Eigen::Vector3d(body.p1[0], body.p1[1], body.p1[2]));
      } else if (p.kind == BodyKind::box) {
        p.box_pose = body_box_transform(F, body.center, body.rpy);
      }
    }

    for (const auto& [ia, ib] : pairs) {
      const PlacedBody& A = placed[ia];
      const PlacedBody& B = placed[ib];
      if (A.link < 0 || B.link < 0) {
        const std::string& link = A.link < 0 ? bodies[ia].link : bodies[ib].link;
        return make_result(SafetyLevel::stop, "self_collision_unknown_link",
                           "unknown self-collision body link: " + link, s, -1, 0.0, stop, 0.0);
      }
      // Above this clearance nothing is reported, so an exact distance is not needed.
      const double report_level = warned ? stop : std::max(warn, stop);
      double clearance = 0.0;
      if (A.kind == BodyKind::capsule && B.kind == BodyKind::capsule) {
        clearance =
            segment_segment_distance(A.a, A.b, B.a, B.b) - bodies[ia].radius - bodies[ib].radius;
      } else if ((A.kind == BodyKind::capsule && B.kind == BodyKind::box) ||
                 (A.kind == BodyKind::box && B.kind == BodyKind::capsule)) {
        const bool a_is_capsule = A.kind == BodyKind::capsule;
        const PlacedBody& cap = a_is_capsule ? A : B;
        const PlacedBody& box = a_is_capsule ? B : A;
        const double radius = bodies[a_is_capsule ? ia : ib].radius;
        const std::array<double, 3>& size = bodies[a_is_capsule ? ib : ia].size;
        // The box lies inside its bounding sphere, so the axis-to-centre distance less that
        // sphere's radius never exceeds the true clearance: far pairs skip the search.
        const Eigen::Vector3d c = box.box_pose.translation();
        const double lower_bound =
            segment_segment_distance(cap.a, cap.b, c, c) - box.bounding_radius - radius;
        if (lower_bound > report_level) {
          continue;
        }
        clearance = capsule_box_clearance(cap.a, cap.b, radius, box.box_pose, size);
      } else if (A.kind == BodyKind::box && B.kind == BodyKind::box) {
        clearance = box_box_bounding_sphere_clearance(A.box_pose, bodies[ia].size, B.box_pose,
                                                      bodies[ib].size);
      } else {
        return make_result(SafetyLevel::stop, "self_collision_unsupported_body_type",
                           "unsupported self-collision body type", s, -1, 0.0, stop, 0.0);
      }
      if (clearance <= stop) {
        return make_result(
            SafetyLevel::stop, "self_collision_stop",
            clearance_message("self collision stop: ", bodies[ia].name, bodies[ib].name, clearance),
            s, -1, clearance, stop, 0.0);
      }
      if (clearance <= warn && !warned) {
        warned = true;
        warning = make_result(SafetyLevel::warning, "self_collision_warn",
                              clearance_message("self collision warning: ", bodies[ia].name,
                                                bodies[ib].name, clearance),
                              s, -1, clearance, warn, kSelfCollisionWarnSpeedScale);
      }
    }
  }
  return warning;
}

SafetyResult combine_safety_results(const std::vector<SafetyResult>& results) {
  const SafetyResult* slowest = nullptr;
  for (const SafetyResult& r : results) {
    if (r.level == SafetyLevel::stop) {
      return r;
    }
    if (r.level == SafetyLevel::warning &&
        (slowest == nullptr || r.speed_scale < slowest->speed_scale)) {
      slowest = &r;
    }
  }
  return slowest != nullptr ? *slowest : SafetyResult{};
}

std::string format_safety_result(const SafetyResult& result) {
  std::ostringstream s;
  s << result.code << ": " << result.message << " sample=" << result.sample
    << " joint=" << result.joint << " value=" << result.value << " threshold=" << result.threshold
    << " speed_scale=" << result.speed_scale;
  return s.str();
}

}  // namespace kestrel::algorithms
