// What the safety tests share: trajectories (single postures, straight joint-space moves), the
// shipped arm's model, and the arm's real shapes for judging collision bodies: the URDF's <visual>
// boxes and cylinders, link frames computed without the library (plain Eigen over the URDF
// joints), dense samples of each solid's surface, and exact distances to solids and to bodies.
#pragma once

#include <tinyxml2.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <cmath>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "algorithms/test_arm.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/algorithms/safety_config.hpp"
#include "kestrel/algorithms/trajectory_safety.hpp"
#include "kestrel/algorithms/urdf_reader.hpp"

namespace kestrel::testing {

using Posture = std::array<double, 6>;
using Samples = std::vector<algorithms::WaypointTrajectorySample>;

inline Samples samples_of(const std::vector<Posture>& postures) {
  Samples out;
  for (const Posture& q : postures) {
    out.emplace_back().position = q;
  }
  return out;
}

// A straight joint-space move from a to b in `steps` steps (steps + 1 samples).
inline Samples straight_move(const Posture& a, const Posture& b, int steps) {
  Samples out(static_cast<std::size_t>(steps) + 1);
  for (int i = 0; i <= steps; ++i) {
    for (int j = 0; j < 6; ++j) {
      out[static_cast<std::size_t>(i)].position[j] = a[j] + (b[j] - a[j]) * i / steps;
    }
  }
  return out;
}

// The shipped arm, built once per test binary from the files the library finds.
inline RobotKinematics& shipped_model() {
  static RobotKinematics model;
  return model;
}

inline Eigen::Vector3d vec(const std::array<double, 3>& a) {
  return {a[0], a[1], a[2]};
}

struct VisualSolid {  // placed in its link's frame; a cylinder runs along the pose's z
  std::string link;
  bool is_box = false;
  Eigen::Isometry3d pose = Eigen::Isometry3d::Identity();
  Eigen::Vector3d size = Eigen::Vector3d::Zero();
  double radius = 0.0;
  double length = 0.0;

  std::string describe() const {
    std::ostringstream s;
    s << link << (is_box ? " box at " : " cylinder at ") << pose.translation().transpose();
    return s.str();
  }
  double bounding_radius() const {
    return is_box ? 0.5 * size.norm() : std::hypot(radius, length / 2);
  }
};

inline std::vector<VisualSolid> read_visual_solids(const std::string& urdf_path) {
  const auto triple = [](const char* text) {
    Eigen::Vector3d v = Eigen::Vector3d::Zero();
    std::istringstream(text != nullptr ? text : "0 0 0") >> v.x() >> v.y() >> v.z();
    return v;
  };
  tinyxml2::XMLDocument doc;
  doc.LoadFile(urdf_path.c_str());
  std::vector<VisualSolid> out;
  for (const auto* link = doc.FirstChildElement("robot")->FirstChildElement("link");
       link != nullptr; link = link->NextSiblingElement("link")) {
    for (const auto* v = link->FirstChildElement("visual"); v != nullptr;
         v = v->NextSiblingElement("visual")) {
      VisualSolid s;
      s.link = link->Attribute("name");
      const auto* origin = v->FirstChildElement("origin");
      s.pose = pose(triple(origin->Attribute("xyz")), triple(origin->Attribute("rpy")));
      const auto* geometry = v->FirstChildElement("geometry");
      if (const auto* box = geometry->FirstChildElement("box")) {
        s.is_box = true;
        s.size = triple(box->Attribute("size"));
      } else {
        s.radius = geometry->FirstChildElement("cylinder")->DoubleAttribute("radius");
        s.length = geometry->FirstChildElement("cylinder")->DoubleAttribute("length");
      }
      out.push_back(s);
    }
  }
  return out;
}

// Link frames in the base frame: "base_link", then each joint's child link.
inline std::map<std::string, Eigen::Isometry3d> link_frames(
    const std::vector<algorithms::UrdfJoint>& joints, const std::array<double, 6>& q) {
  std::map<std::string, Eigen::Isometry3d> frames{{"base_link", Eigen::Isometry3d::Identity()}};
  for (std::size_t i = 0; i < joints.size() && i < 6; ++i) {
    const auto& j = joints[i];
    frames[j.child_link] = frames.at(j.parent_link) * pose(j.origin_xyz, j.origin_rpy) *
                           Eigen::AngleAxisd(q[i], j.axis.normalized());
  }
  return frames;
}

// Surface points (corners, edges and faces included) about `spacing` apart, in the link frame.
inline std::vector<Eigen::Vector3d> surface_points(const VisualSolid& s, double spacing) {
  const auto steps = [&](double extent) { return std::max(1, int(std::ceil(extent / spacing))); };
  std::vector<Eigen::Vector3d> out;
  if (s.is_box) {
    for (int axis = 0; axis < 3; ++axis) {
      const int u = (axis + 1) % 3, v = (axis + 2) % 3, nu = steps(s.size[u]),
                nv = steps(s.size[v]);
      for (const double side : {-0.5, 0.5}) {
        for (int i = 0; i <= nu; ++i) {
          for (int k = 0; k <= nv; ++k) {
            Eigen::Vector3d p;
            p[axis] = side * s.size[axis];
            p[u] = s.size[u] * (double(i) / nu - 0.5);
            p[v] = s.size[v] * (double(k) / nv - 0.5);
            out.push_back(s.pose * p);
          }
        }
      }
    }
    return out;
  }
  const int around = std::max(16, steps(2 * M_PI * s.radius)), along = steps(s.length);
  const int rings = steps(s.radius);
  for (int a = 0; a < around; ++a) {
    const double c = std::cos(2 * M_PI * a / around), n = std::sin(2 * M_PI * a / around);
    for (int i = 0; i <= along; ++i) {  // side
      out.push_back(s.pose * Eigen::Vector3d(s.radius * c, s.radius * n,
                                             s.length * (double(i) / along - 0.5)));
    }
    for (int r = 0; r <= rings; ++r) {  // end discs
      for (const double side : {-0.5, 0.5}) {
        const double rr = s.radius * r / rings;
        out.push_back(s.pose * Eigen::Vector3d(rr * c, rr * n, side * s.length));
      }
    }
  }
  return out;
}

// Signed distance (negative inside) from a base-frame point to a solid placed at `pose`.
inline double visual_signed_distance(const VisualSolid& s, const Eigen::Isometry3d& pose,
                                     const Eigen::Vector3d& p) {
  const Eigen::Vector3d l = pose.inverse() * p;
  if (s.is_box) {
    const Eigen::Vector3d q = l.cwiseAbs() - 0.5 * s.size;
    return q.cwiseMax(0.0).norm() + std::min(q.maxCoeff(), 0.0);
  }
  const Eigen::Vector2d d(l.head<2>().norm() - s.radius, std::abs(l.z()) - 0.5 * s.length);
  return d.cwiseMax(0.0).norm() + std::min(d.maxCoeff(), 0.0);
}

// Distance from p to the segment a-b (a point when a = b).
inline double point_segment_distance(const Eigen::Vector3d& p, const Eigen::Vector3d& a,
                                     const Eigen::Vector3d& b) {
  const Eigen::Vector3d d = b - a;
  const double t =
      d.squaredNorm() > 0 ? std::clamp((p - a).dot(d) / d.squaredNorm(), 0.0, 1.0) : 0.0;
  return (p - (a + t * d)).norm();
}

// Signed distance from a base-frame point to a collision body on a link at `link_pose`.
inline double body_signed_distance(const algorithms::SelfCollisionConfig::Body& body,
                                   const Eigen::Isometry3d& link_pose, const Eigen::Vector3d& p) {
  if (body.type == "box") {
    VisualSolid box;
    box.is_box = true;
    box.size = vec(body.size);
    return visual_signed_distance(box, link_pose * pose(vec(body.center), vec(body.rpy)), p);
  }
  return point_segment_distance(p, link_pose * vec(body.p0), link_pose * vec(body.p1)) -
         body.radius;
}

}  // namespace kestrel::testing
