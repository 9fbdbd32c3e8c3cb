// A deliberately irregular test arm, written out as URDF + YAML, with an independent model of its
// link frames and masses (plain Eigen, no KDL) to check the library's chain against.
//
// Irregular on purpose: tilted joint origins, a skew axis, a fixed joint between two movable ones
// and one after the last, a continuous joint, inertials with rotated principal axes, a tool with
// a rotation, a payload off the flange axis and a gravity vector that is not vertical.
#pragma once

#include <Eigen/Geometry>
#include <algorithm>
#include <array>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "algorithms/test_files.hpp"

namespace kestrel::testing {

struct TestLink {
  std::string name;
  double mass;
  Eigen::Vector3d com;
  Eigen::Vector3d com_rpy;
  std::array<double, 6> inertia;  // ixx ixy ixz iyy iyz izz about the centre of mass
};

struct TestJoint {
  std::string name, type, parent, child;
  Eigen::Vector3d xyz, rpy, axis;
};

inline Eigen::Matrix3d rpy_matrix(const Eigen::Vector3d& rpy) {
  return (Eigen::AngleAxisd(rpy.z(), Eigen::Vector3d::UnitZ()) *
          Eigen::AngleAxisd(rpy.y(), Eigen::Vector3d::UnitY()) *
          Eigen::AngleAxisd(rpy.x(), Eigen::Vector3d::UnitX()))
      .toRotationMatrix();
}

inline Eigen::Isometry3d pose(const Eigen::Vector3d& xyz, const Eigen::Vector3d& rpy) {
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  T.linear() = rpy_matrix(rpy);
  T.translation() = xyz;
  return T;
}

struct TestArm {
  std::vector<TestLink> links = {
      {"base", 2.0, {0, 0, 0.03}, {0, 0, 0}, {0.01, 0, 0, 0.01, 0, 0.02}},
      {"l1", 1.2, {0.01, 0.02, 0.05}, {0.3, 0, 0}, {0.004, 0.0002, 0.0001, 0.005, 0.0003, 0.003}},
      {"l2", 0.9, {0.12, 0.0, 0.01}, {0, 0.2, -0.1}, {0.001, 0, 0, 0.006, 0, 0.006}},
      {"l3", 0.3, {0.02, -0.01, 0}, {0, 0, 0}, {0.0004, 0, 0, 0.0003, 0, 0.0005}},
      {"l4", 0.6, {0.08, 0.01, 0.02}, {0.1, 0.4, 0}, {0.0008, -0.0001, 0, 0.002, 0, 0.0021}},
      {"l5", 0.4, {0.04, 0, -0.01}, {0, 0, 0.7}, {0.0003, 0, 0, 0.0004, 0, 0.0005}},
      {"l6", 0.35, {0, 0.01, -0.03}, {0, 0, 0}, {0.0003, 0, 0, 0.0003, 0, 0.0002}},
      {"l7", 0.5, {0.005, 0, 0.04}, {0, 0, 0}, {0.0005, 0, 0.00003, 0.0005, 0, 0.0003}},
      {"flange", 0.1, {0, 0, 0.01}, {0, 0, 0}, {0.0001, 0, 0, 0.0001, 0, 0.0001}},
  };
  std::vector<TestJoint> joints = {
      {"j1", "revolute", "base", "l1", {0, 0, 0.1}, {0, 0, 0}, {0, 0, 1}},
      {"j2", "revolute", "l1", "l2", {0, 0.05, 0.08}, {0, 0, 0.2}, {0, 1, 0}},
      {"mount", "fixed", "l2", "l3", {0.25, 0, 0}, {0.1, 0.2, 0}, {1, 0, 0}},
      {"j3", "revolute", "l3", "l4", {0.05, 0, 0}, {0, 0, 0}, {0, M_SQRT1_2, M_SQRT1_2}},
      {"j4", "continuous", "l4", "l5", {0.2, 0, 0.01}, {0, 0, 0}, {1, 0, 0}},
      {"j5", "revolute", "l5", "l6", {0.1, 0, 0}, {0, -0.3, 0}, {0, 1, 0}},
      {"j6", "revolute", "l6", "l7", {0, 0, -0.06}, {M_PI, 0, 0}, {0, 0, 1}},
      {"flange_fixed", "fixed", "l7", "flange", {0, 0, 0.02}, {0, 0, 0}, {1, 0, 0}},
  };
  Eigen::Vector3d tool_xyz{0.01, 0.0, 0.1};
  Eigen::Vector3d tool_rpy{0.1, -0.2, 0.3};
  double payload_mass = 0.4;
  Eigen::Vector3d payload_com{0.0, 0.01, 0.08};
  Eigen::Vector3d gravity{0.5, -0.3, -9.7};

  std::string urdf() const {
    std::ostringstream s;
    s.precision(17);
    s << "<robot name=\"test_arm\">\n";
    for (const auto& l : links) {
      const auto& i = l.inertia;
      s << "<link name=\"" << l.name << "\"><inertial><origin xyz=\"" << l.com.transpose()
        << "\" rpy=\"" << l.com_rpy.transpose() << "\"/><mass value=\"" << l.mass
        << "\"/><inertia ixx=\"" << i[0] << "\" ixy=\"" << i[1] << "\" ixz=\"" << i[2]
        << "\" iyy=\"" << i[3] << "\" iyz=\"" << i[4] << "\" izz=\"" << i[5]
        << "\"/></inertial></link>\n";
    }
    for (const auto& j : joints) {
      s << "<joint name=\"" << j.name << "\" type=\"" << j.type << "\"><parent link=\"" << j.parent
        << "\"/><child link=\"" << j.child << "\"/><origin xyz=\"" << j.xyz.transpose()
        << "\" rpy=\"" << j.rpy.transpose() << "\"/><axis xyz=\"" << j.axis.transpose()
        << "\"/><limit lower=\"-2\" upper=\"2\" effort=\"10\" velocity=\"3\"/></joint>\n";
    }
    s << "</robot>\n";
    return s.str();
  }

  std::string yaml() const {
    std::ostringstream s;
    s.precision(17);
    const Eigen::IOFormat seq(Eigen::FullPrecision, Eigen::DontAlignCols, ", ", ", ", "", "", "[",
                              "]");
    s << "kinematics:\n  tool: {xyz: " << tool_xyz.transpose().format(seq)
      << ", rpy: " << tool_rpy.transpose().format(seq) << "}\n  payload: {mass: " << payload_mass
      << ", com: " << payload_com.transpose().format(seq)
      << "}\n  mounting: {mode: inverted, gravity_vector: " << gravity.transpose().format(seq)
      << "}\n";
    return s.str();
  }

  // Link frames in the base frame for joint values q (one per movable joint).
  std::map<std::string, Eigen::Isometry3d> frames(const Eigen::VectorXd& q) const {
    std::map<std::string, Eigen::Isometry3d> out{
        {links.front().name, Eigen::Isometry3d::Identity()}};
    int k = 0;
    for (const auto& j : joints) {
      Eigen::Isometry3d T = out.at(j.parent) * pose(j.xyz, j.rpy);
      if (j.type != "fixed") {
        T = T * Eigen::AngleAxisd(q[k++], j.axis.normalized());
      }
      out[j.child] = T;
    }
    return out;
  }

  Eigen::Isometry3d tcp(const Eigen::VectorXd& q) const {
    return frames(q).at(links.back().name) * pose(tool_xyz, tool_rpy);
  }

  // Mass, world centre of mass, world inertia tensor and the orientation of the frame it is
  // fixed in, of every body (links, then payload).
  struct Body {
    double mass;
    Eigen::Vector3d com;
    Eigen::Matrix3d inertia, frame;
  };
  std::vector<Body> bodies(const Eigen::VectorXd& q) const {
    const auto F = frames(q);
    std::vector<Body> out;
    for (const auto& l : links) {
      const Eigen::Isometry3d& T = F.at(l.name);
      Eigen::Matrix3d I;
      const auto& i = l.inertia;
      I << i[0], i[1], i[2], i[1], i[3], i[4], i[2], i[4], i[5];
      const Eigen::Matrix3d R = T.linear() * rpy_matrix(l.com_rpy);
      out.push_back({l.mass, T * l.com, R * I * R.transpose(), T.linear()});
    }
    const Eigen::Isometry3d& T = F.at(links.back().name);
    out.push_back({payload_mass, T * payload_com, Eigen::Matrix3d::Zero(), T.linear()});
    return out;
  }

  // Potential energy -sum m g·c; its gradient is the gravity torque.
  double potential(const Eigen::VectorXd& q) const {
    double v = 0.0;
    for (const auto& b : bodies(q)) {
      v -= b.mass * gravity.dot(b.com);
    }
    return v;
  }

  // Kinetic energy at q moving with dq, from finite differences of the body poses.
  double kinetic(const Eigen::VectorXd& q, const Eigen::VectorXd& dq) const {
    const double h = 1e-6;
    const auto now = bodies(q), ahead = bodies(q + h * dq), behind = bodies(q - h * dq);
    double t = 0.0;
    for (std::size_t i = 0; i < now.size(); ++i) {
      const Eigen::Vector3d v = (ahead[i].com - behind[i].com) / (2 * h);
      const Eigen::Matrix3d W =
          (ahead[i].frame - behind[i].frame) / (2 * h) * now[i].frame.transpose();
      const Eigen::Vector3d w(W(2, 1), W(0, 2), W(1, 0));
      t += 0.5 * now[i].mass * v.squaredNorm() + 0.5 * w.dot(now[i].inertia * w);
    }
    return t;
  }

  // Writes both files into `dir`; returns {yaml path, urdf path}.
  std::pair<std::string, std::string> write(const TempDir& dir) const {
    return {dir.write("arm.yaml", yaml()), dir.write("arm.urdf", urdf())};
  }
};

}  // namespace kestrel::testing
