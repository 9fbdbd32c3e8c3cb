#include "kestrel/algorithms/kinematics.hpp"

#include <tinyxml2.h>
#include <yaml-cpp/yaml.h>

#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <stdexcept>

#include "kestrel/algorithms/config_paths.hpp"

using kestrel::algorithms::UrdfInertial;
using kestrel::algorithms::UrdfJoint;

namespace {

// A child of a YAML map, or an undefined node when the parent is missing or not a map (yaml-cpp
// throws on subscripting an invalid node, which would hide the field name from the message).
YAML::Node child(const YAML::Node& parent, const char* key) {
  if (!parent.IsDefined() || !parent.IsMap()) {
    return YAML::Node(YAML::NodeType::Undefined);
  }
  return parent[key];
}

std::string invalid_config(const std::string& config_path) {
  return "Invalid kinematics config at " + config_path + ": ";
}

Eigen::Vector3d parse_vec3(const YAML::Node& node, const std::string& field,
                           const std::string& config_path) {
  if (!node.IsDefined() || !node.IsSequence() || node.size() != 3) {
    throw std::runtime_error(invalid_config(config_path) + "field '" + field +
                             "' must be a sequence of 3 numbers");
  }
  Eigen::Vector3d value;
  for (std::size_t i = 0; i < 3; ++i) {
    const YAML::Node element = node[i];
    try {
      value[static_cast<Eigen::Index>(i)] = element.as<double>();
    } catch (const YAML::Exception&) {
      const std::string text = element.IsScalar() ? element.Scalar() : YAML::Dump(element);
      throw std::runtime_error(invalid_config(config_path) + "field '" + field +
                               "' contains a non-numeric value: " + text);
    }
  }
  return value;
}

// The payload is a point mass: it has no rotational inertia of its own.
UrdfInertial parse_payload_inertial(const YAML::Node& payload, const std::string& config_path) {
  const YAML::Node mass = child(payload, "mass");
  if (!mass.IsDefined() || !mass.IsScalar()) {
    throw std::runtime_error(invalid_config(config_path) +
                             "missing or invalid 'kinematics.payload.mass'");
  }
  UrdfInertial inertial;
  try {
    inertial.mass = mass.as<double>();
  } catch (const YAML::Exception& e) {
    throw std::runtime_error(invalid_config(config_path) +
                             "'kinematics.payload.mass' must be numeric: " + e.what());
  }

  const YAML::Node com = child(payload, "com");
  const YAML::Node origin = child(payload, "origin");
  const YAML::Node origin_xyz = child(origin, "xyz");
  if (com.IsDefined()) {
    inertial.origin_xyz = parse_vec3(com, "kinematics.payload.com", config_path);
  } else if (origin_xyz.IsDefined()) {
    inertial.origin_xyz = parse_vec3(origin_xyz, "kinematics.payload.origin.xyz", config_path);
  } else {
    throw std::runtime_error(invalid_config(config_path) +
                             "missing 'kinematics.payload.com' or 'kinematics.payload.origin.xyz'");
  }
  const YAML::Node origin_rpy = child(origin, "rpy");
  if (origin_rpy.IsDefined()) {
    inertial.origin_rpy = parse_vec3(origin_rpy, "kinematics.payload.origin.rpy", config_path);
  }
  return inertial;
}

Eigen::Vector3d gravity_from_mounting_mode(const YAML::Node& mounting,
                                           const std::string& config_path) {
  constexpr double g = 9.81;
  if (!mounting.IsDefined()) {
    return Eigen::Vector3d(0.0, 0.0, -g);
  }
  const YAML::Node gravity_vector = child(mounting, "gravity_vector");
  if (gravity_vector.IsDefined()) {
    return parse_vec3(gravity_vector, "kinematics.mounting.gravity_vector", config_path);
  }

  // A mode written as an integer arrives as its scalar text, so 0..3 map like the names.
  std::string mode = "upright";
  bool well_formed = mounting.IsMap() || mounting.IsNull();
  const YAML::Node mode_node = child(mounting, "mode");
  if (mode_node.IsDefined()) {
    well_formed = well_formed && mode_node.IsScalar();
    mode = mode_node.IsScalar() ? mode_node.Scalar() : std::string();
  }
  if (well_formed) {
    if (mode == "upright" || mode == "normal" || mode == "0") {
      return Eigen::Vector3d(0.0, 0.0, -g);
    }
    if (mode == "inverted" || mode == "upside_down" || mode == "1") {
      return Eigen::Vector3d(0.0, 0.0, g);
    }
    if (mode == "left_wall" || mode == "left_side" || mode == "2") {
      return Eigen::Vector3d(0.0, -g, 0.0);
    }
    if (mode == "right_wall" || mode == "right_side" || mode == "3") {
      return Eigen::Vector3d(0.0, g, 0.0);
    }
  }
  throw std::runtime_error("Invalid kinematics.mounting.mode at " + config_path +
                           ": expected upright/inverted/left_wall/right_wall or 0/1/2/3");
}

KDL::RigidBodyInertia to_kdl_inertia(const UrdfInertial& inertial) {
  if (inertial.mass <= 0.0) {
    return KDL::RigidBodyInertia::Zero();
  }
  const auto& i = inertial.inertia;  // ixx, ixy, ixz, iyy, iyz, izz
  Eigen::Matrix3d tensor;
  tensor << i[0], i[1], i[2], i[1], i[3], i[4], i[2], i[4], i[5];
  const Eigen::Matrix3d R =
      t_from_xyzrpy(inertial.origin_xyz, inertial.origin_rpy).topLeftCorner<3, 3>();
  const Eigen::Matrix3d in_link = R * tensor * R.transpose();
  return KDL::RigidBodyInertia(
      inertial.mass,
      KDL::Vector(inertial.origin_xyz.x(), inertial.origin_xyz.y(), inertial.origin_xyz.z()),
      KDL::RotationalInertia(in_link(0, 0), in_link(1, 1), in_link(2, 2), in_link(0, 1),
                             in_link(0, 2), in_link(1, 2)));
}

KDL::Frame to_kdl_frame(const Eigen::Vector3d& xyz, const Eigen::Vector3d& rpy) {
  return KDL::Frame(KDL::Rotation::RPY(rpy.x(), rpy.y(), rpy.z()),
                    KDL::Vector(xyz.x(), xyz.y(), xyz.z()));
}

YAML::Node load_kinematics_yaml(const std::string& config_path) {
  try {
    return YAML::LoadFile(config_path);
  } catch (const YAML::BadFile& e) {
    throw std::runtime_error("Failed to open kinematics config at " + config_path + ": " +
                             e.what());
  } catch (const YAML::ParserException& e) {
    throw std::runtime_error("Failed to parse kinematics config at " + config_path + ": " +
                             e.what());
  }
}

Eigen::Matrix3d skew(const Eigen::Vector3d& w) {
  Eigen::Matrix3d m;
  m << 0.0, -w.z(), w.y(), w.z(), 0.0, -w.x(), -w.y(), w.x(), 0.0;
  return m;
}

void copy_to(const std::vector<double>& values, KDL::JntArray& out) {
  for (std::size_t i = 0; i < values.size(); ++i) {
    out(static_cast<unsigned int>(i)) = values[i];
  }
}

std::vector<double> to_vector(const KDL::JntArray& values) {
  return std::vector<double>(values.data.data(), values.data.data() + values.data.size());
}

std::runtime_error failed(const char* function, int code) {
  return std::runtime_error(std::string(function) + " failed with code " + std::to_string(code));
}

}  // namespace

Eigen::Matrix4d t_from_xyzrpy(const Eigen::Vector3d& xyz, const Eigen::Vector3d& rpy) {
  Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
  T.topLeftCorner<3, 3>() = (Eigen::AngleAxisd(rpy.z(), Eigen::Vector3d::UnitZ()) *
                             Eigen::AngleAxisd(rpy.y(), Eigen::Vector3d::UnitY()) *
                             Eigen::AngleAxisd(rpy.x(), Eigen::Vector3d::UnitX()))
                                .toRotationMatrix();
  T.topRightCorner<3, 1>() = xyz;
  return T;
}

Eigen::Matrix3d exp_so3(const Eigen::Vector3d& omega, double theta) {
  const Eigen::Matrix3d W = skew(omega);
  return Eigen::Matrix3d::Identity() + std::sin(theta) * W + (1.0 - std::cos(theta)) * W * W;
}

Eigen::Matrix4d exp_se3(const Eigen::Matrix<double, 6, 1>& screw, double theta) {
  const Eigen::Vector3d w = screw.head<3>();
  const Eigen::Vector3d v = screw.tail<3>();
  Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
  if (w.norm() < 1e-12) {
    T.topRightCorner<3, 1>() = v * theta;
    return T;
  }
  const Eigen::Matrix3d W = skew(w);
  T.topLeftCorner<3, 3>() = exp_so3(w, theta);
  T.topRightCorner<3, 1>() = (Eigen::Matrix3d::Identity() * theta + (1.0 - std::cos(theta)) * W +
                              (theta - std::sin(theta)) * W * W) *
                             v;
  return T;
}

RobotKinematics::RobotKinematics() {
  build(kestrel::algorithms::resolve_robot_kinematics_config_path(), nullptr);
}

RobotKinematics::RobotKinematics(const std::string& config_path, const std::string& urdf_path) {
  build(config_path, &urdf_path);
}

RobotKinematics::~RobotKinematics() = default;

void RobotKinematics::build(const std::string& config_path, const std::string* urdf_path_arg) {
  const YAML::Node root = load_kinematics_yaml(config_path);
  const YAML::Node kinematics = child(root, "kinematics");
  const YAML::Node tool = child(kinematics, "tool");
  if (!tool.IsDefined() || !tool.IsMap()) {
    throw std::runtime_error(invalid_config(config_path) + "missing 'kinematics.tool' map");
  }
  const Eigen::Vector3d tool_xyz =
      parse_vec3(child(tool, "xyz"), "kinematics.tool.xyz", config_path);
  const Eigen::Vector3d tool_rpy =
      parse_vec3(child(tool, "rpy"), "kinematics.tool.rpy", config_path);

  std::optional<UrdfInertial> payload;
  const YAML::Node payload_node = child(kinematics, "payload");
  if (payload_node.IsDefined()) {
    payload = parse_payload_inertial(payload_node, config_path);
  }
  gravity_ = gravity_from_mounting_mode(child(kinematics, "mounting"), config_path);

  const std::string urdf_path =
      urdf_path_arg != nullptr ? *urdf_path_arg : kestrel::algorithms::resolve_robot_urdf_path();
  tinyxml2::XMLDocument document;
  if (document.LoadFile(urdf_path.c_str()) != tinyxml2::XML_SUCCESS) {
    const char* reason = document.ErrorStr();
    throw std::runtime_error("Failed to load URDF at " + urdf_path + ": " +
                             (reason != nullptr ? reason : ""));
  }
  const tinyxml2::XMLElement* robot = document.FirstChildElement("robot");
  if (robot == nullptr) {
    throw std::runtime_error("URDF at " + urdf_path + " does not contain a <robot> root");
  }
  const kestrel::algorithms::UrdfLinkMap links = kestrel::algorithms::detail::parse_links(robot);
  urdf_joints_ = kestrel::algorithms::detail::parse_joint_chain(robot);

  // Fixed joints between movable ones are folded into the next movable joint's origin, so the
  // screw-axis model stays a plain product of exponentials; those after the last movable joint
  // end up in flange_to_tcp_.
  Eigen::Matrix4d pending_fixed = Eigen::Matrix4d::Identity();
  bool has_pending_fixed = false;
  for (const UrdfJoint& joint : urdf_joints_) {
    KDL::RigidBodyInertia inertia = KDL::RigidBodyInertia::Zero();
    if (const auto found = links.find(joint.child_link); found != links.end()) {
      inertia = to_kdl_inertia(found->second);
    }
    const KDL::Frame origin = to_kdl_frame(joint.origin_xyz, joint.origin_rpy);

    if (joint.type == "fixed") {
      chain_.addSegment(KDL::Segment(joint.child_link, KDL::Joint(joint.name, KDL::Joint::Fixed),
                                     origin, inertia));
      pending_fixed = pending_fixed * t_from_xyzrpy(joint.origin_xyz, joint.origin_rpy);
      has_pending_fixed = true;
      continue;
    }

    KDL::Joint::JointType kind = KDL::Joint::RotAxis;
    if (joint.type == "prismatic") {
      kind = KDL::Joint::TransAxis;
    } else if (joint.type != "revolute" && joint.type != "continuous") {
      throw std::runtime_error("Unsupported URDF joint type: " + joint.type);
    }
    const KDL::Vector axis(joint.axis.x(), joint.axis.y(), joint.axis.z());
    chain_.addSegment(KDL::Segment(joint.name + "_origin",
                                   KDL::Joint(joint.name + "_origin_fixed", KDL::Joint::Fixed),
                                   origin));
    chain_.addSegment(KDL::Segment(joint.child_link,
                                   KDL::Joint(joint.name, KDL::Vector::Zero(), axis, kind),
                                   KDL::Frame::Identity(), inertia));

    has_limits_.push_back(joint.has_limits);
    lower_.push_back(joint.has_limits ? joint.lower : -std::numeric_limits<double>::infinity());
    upper_.push_back(joint.has_limits ? joint.upper : std::numeric_limits<double>::infinity());

    joint_t record;
    record.axis = joint.axis;
    record.prismatic = kind == KDL::Joint::TransAxis;
    if (has_pending_fixed) {
      const Eigen::Matrix4d T = pending_fixed * t_from_xyzrpy(joint.origin_xyz, joint.origin_rpy);
      const KDL::Rotation R(T(0, 0), T(0, 1), T(0, 2), T(1, 0), T(1, 1), T(1, 2), T(2, 0), T(2, 1),
                            T(2, 2));
      R.GetRPY(record.rpy.x(), record.rpy.y(), record.rpy.z());
      record.xyz = T.topRightCorner<3, 1>();
    } else {
      record.xyz = joint.origin_xyz;
      record.rpy = joint.origin_rpy;
    }
    joints_.push_back(record);
    pending_fixed.setIdentity();
    has_pending_fixed = false;
  }

  if (payload) {
    chain_.addSegment(KDL::Segment("payload", KDL::Joint("payload_fixed", KDL::Joint::Fixed),
                                   KDL::Frame::Identity(), to_kdl_inertia(*payload)));
  }
  chain_.addSegment(KDL::Segment("tool", KDL::Joint("tool_fixed", KDL::Joint::Fixed),
                                 to_kdl_frame(tool_xyz, tool_rpy)));
  flange_to_tcp_ = pending_fixed * t_from_xyzrpy(tool_xyz, tool_rpy);

  num_joints_ = static_cast<int32_t>(chain_.getNrOfJoints());
  std::printf("urdf num_joints_: %d\n", num_joints_);

  Eigen::Matrix<double, 6, 1> weights = Eigen::Matrix<double, 6, 1>::Ones();
  ik_solver_.emplace(chain_, weights, 1e-5, 500, 1e-15);
  fk_solver_.emplace(chain_);
  dyn_param_.emplace(chain_, KDL::Vector(gravity_.x(), gravity_.y(), gravity_.z()));

  const auto n = static_cast<unsigned int>(num_joints_);
  q_scratch_.resize(n);
  dq_scratch_.resize(n);
  out_scratch_.resize(n);
  aux_scratch_.resize(n);
  mass_scratch_.resize(n);

  build_screw_axes();

  // The same chain for the lock-free IK queries: each axis as a direction and a point on it,
  // and the tool centre point at the zero posture.
  std::vector<kestrel::algorithms::ScrewChain::Axis> axes;
  for (std::size_t i = 0; i < joints_.size(); ++i) {
    const Eigen::Matrix<double, 6, 1> screw = screw_axes_.col(static_cast<Eigen::Index>(i));
    kestrel::algorithms::ScrewChain::Axis axis;
    axis.prismatic = joints_[i].prismatic;
    axis.direction =
        axis.prismatic ? Eigen::Vector3d(screw.tail<3>()) : Eigen::Vector3d(screw.head<3>());
    // v = -w x p, so w x v is the point of the axis nearest the origin.
    axis.point = axis.prismatic ? Eigen::Vector3d::Zero()
                                : Eigen::Vector3d(screw.head<3>().cross(screw.tail<3>()));
    axes.push_back(axis);
  }
  tcp_chain_ =
      kestrel::algorithms::ScrewChain(std::move(axes), Eigen::Isometry3d(home_ * flange_to_tcp_));
  limits_ = {lower_, upper_, has_limits_};
  closed_form_ = kestrel::algorithms::ClosedFormIk(tcp_chain_);
}

void RobotKinematics::build_screw_axes() {
  screw_axes_.resize(6, static_cast<Eigen::Index>(joints_.size()));
  Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
  for (std::size_t i = 0; i < joints_.size(); ++i) {
    const joint_t& joint = joints_[i];
    T = T * t_from_xyzrpy(joint.xyz, joint.rpy);
    const Eigen::Vector3d w = T.topLeftCorner<3, 3>() * joint.axis;
    const Eigen::Vector3d p = T.topRightCorner<3, 1>();
    Eigen::Matrix<double, 6, 1> screw;
    if (joint.prismatic) {
      screw << Eigen::Vector3d::Zero(), w;
    } else {
      screw << w, -w.cross(p);
    }
    screw_axes_.col(static_cast<Eigen::Index>(i)) = screw;
  }
  home_ = T;
}

void RobotKinematics::check_size(const std::vector<double>& v, const char* message) const {
  if (v.size() != static_cast<std::size_t>(num_joints_)) {
    throw std::runtime_error(message);
  }
}

std::vector<double> RobotKinematics::forwardKinematics_kdl(const std::vector<double>& q) {
  std::lock_guard<std::mutex> lock(mutex_);
  check_size(q, "forwardKinematics_kdl: size mismatch between input vector and KDL chain joints");
  copy_to(q, q_scratch_);
  KDL::Frame frame;
  const int code = fk_solver_->JntToCart(q_scratch_, frame);
  if (code < 0) {
    throw failed("forwardKinematics_kdl", code);
  }
  double qx = 0.0;
  double qy = 0.0;
  double qz = 0.0;
  double qw = 1.0;
  frame.M.GetQuaternion(qx, qy, qz, qw);
  return {frame.p.x(), frame.p.y(), frame.p.z(), qx, qy, qz, qw};
}

std::vector<double> RobotKinematics::gravity_compensation_kdl(const std::vector<double>& q) const {
  std::lock_guard<std::mutex> lock(mutex_);
  check_size(q,
             "gravity_compensation_kdl: size mismatch between input vector and KDL chain joints");
  copy_to(q, q_scratch_);
  const int code = dyn_param_->JntToGravity(q_scratch_, out_scratch_);
  if (code < 0) {
    throw failed("gravity_compensation_kdl", code);
  }
  return to_vector(out_scratch_);
}

std::vector<double> RobotKinematics::coriolis_compensation_kdl(
    const std::vector<double>& q, const std::vector<double>& dq) const {
  std::lock_guard<std::mutex> lock(mutex_);
  // The Coriolis query shares the gravity query's size message: callers treat both alike.
  constexpr const char* kMismatch =
      "gravity_compensation_kdl: size mismatch between input vector and KDL chain joints";
  check_size(q, kMismatch);
  check_size(dq, kMismatch);
  copy_to(q, q_scratch_);
  copy_to(dq, dq_scratch_);
  const int code = dyn_param_->JntToCoriolis(q_scratch_, dq_scratch_, out_scratch_);
  if (code < 0) {
    throw failed("coriolis_compensation_kdl", code);
  }
  return to_vector(out_scratch_);
}

std::vector<double> RobotKinematics::inertia_compensation_kdl(
    const std::vector<double>& q, const std::vector<double>& ddq) const {
  std::lock_guard<std::mutex> lock(mutex_);
  check_size(q, "inertia_compensation_kdl: size mismatch");
  check_size(ddq, "inertia_compensation_kdl: size mismatch");
  copy_to(q, q_scratch_);
  copy_to(ddq, dq_scratch_);
  const int code = dyn_param_->JntToMass(q_scratch_, mass_scratch_);
  if (code < 0) {
    throw failed("inertia_compensation_kdl", code);
  }
  out_scratch_.data.noalias() = mass_scratch_.data * dq_scratch_.data;
  return to_vector(out_scratch_);
}

std::vector<double> RobotKinematics::dynamic_compensation_kdl(
    const std::vector<double>& q, const std::vector<double>& dq,
    const std::vector<double>& ddq) const {
  std::lock_guard<std::mutex> lock(mutex_);
  check_size(q, "dynamic_compensation_kdl: size mismatch");
  check_size(dq, "dynamic_compensation_kdl: size mismatch");
  check_size(ddq, "dynamic_compensation_kdl: size mismatch");
  copy_to(q, q_scratch_);
  copy_to(dq, dq_scratch_);
  int code = dyn_param_->JntToMass(q_scratch_, mass_scratch_);
  if (code >= 0) {
    code = dyn_param_->JntToCoriolis(q_scratch_, dq_scratch_, out_scratch_);
  }
  if (code >= 0) {
    code = dyn_param_->JntToGravity(q_scratch_, aux_scratch_);
  }
  if (code < 0) {
    throw failed("dynamic_compensation_kdl", code);
  }
  copy_to(ddq, dq_scratch_);
  out_scratch_.data.noalias() += mass_scratch_.data * dq_scratch_.data;
  out_scratch_.data += aux_scratch_.data;
  return to_vector(out_scratch_);
}

Eigen::Matrix4d RobotKinematics::forward_kinematics(const Eigen::VectorXd& q) const {
  Eigen::Matrix4d T = Eigen::Matrix4d::Identity();
  const Eigen::Index n = std::min<Eigen::Index>(q.size(), screw_axes_.cols());
  for (Eigen::Index i = 0; i < n; ++i) {
    T = T * exp_se3(screw_axes_.col(i), q[i]);
  }
  return T * home_;
}

Eigen::Vector3d RobotKinematics::rotation_matrix_to_euler(const Eigen::Matrix3d& R) const {
  const double r20 = R(2, 0);
  // Rounding can push |R20| a hair above 1; asin must not see that.
  const double pitch = -std::asin(std::clamp(r20, -1.0, 1.0));
  double roll = 0.0;
  double yaw = 0.0;
  if (std::abs(r20) <= 0.99999) {
    roll = std::atan2(R(2, 1), R(2, 2));
    yaw = std::atan2(R(1, 0), R(0, 0));
  } else if (r20 > 0.0) {
    roll = std::atan2(R(1, 1), R(1, 2));
  } else {
    roll = std::atan2(-R(1, 1), -R(1, 2));
  }
  return Eigen::Vector3d(roll, pitch, yaw);
}

Eigen::Vector4d RobotKinematics::rotation_matrix_to_quaternion(const Eigen::Matrix3d& R) const {
  const Eigen::Quaterniond q(R);
  return Eigen::Vector4d(q.x(), q.y(), q.z(), q.w());
}

Eigen::Vector3d RobotKinematics::quaternion_error(const Eigen::Vector4d& q_target,
                                                  const Eigen::Vector4d& q_current) const {
  Eigen::Quaterniond target(q_target[3], q_target[0], q_target[1], q_target[2]);
  Eigen::Quaterniond current(q_current[3], q_current[0], q_current[1], q_current[2]);
  if (target.norm() > 0.0) {
    target.normalize();
  }
  if (current.norm() > 0.0) {
    current.normalize();
  }
  Eigen::Quaterniond error = target * current.conjugate();
  if (error.w() < 0.0) {
    error.coeffs() = -error.coeffs();
  }
  const double s = error.vec().norm();
  if (s < 1e-12) {
    return 2.0 * error.vec();
  }
  return error.vec() * (2.0 * std::atan2(s, error.w()) / s);
}
