// Records of the arm's URDF as the kinematic model needs them: one inertial per link and the
// joints of the single serial chain, root first.
#pragma once

#include <Eigen/Core>
#include <array>
#include <string>
#include <unordered_map>
#include <vector>

namespace tinyxml2 {
class XMLElement;
}

namespace kestrel::algorithms {

// <inertial> of one link. The tensor is about the centre of mass, in the inertial frame.
struct UrdfInertial {
  double mass = 0.0;                                     // kg
  Eigen::Vector3d origin_xyz = Eigen::Vector3d::Zero();  // centre of mass in the link frame, m
  Eigen::Vector3d origin_rpy = Eigen::Vector3d::Zero();  // inertial frame orientation, rad
  std::array<double, 6> inertia{};                       // ixx, ixy, ixz, iyy, iyz, izz, kg m^2
};

// One <joint>. `axis` has unit length; a joint without <axis> turns about x, as URDF prescribes.
struct UrdfJoint {
  std::string name;
  std::string type;  // "revolute", "continuous", "prismatic", "fixed", ... (not validated here)
  std::string parent_link;
  std::string child_link;
  Eigen::Vector3d origin_xyz = Eigen::Vector3d::Zero();
  Eigen::Vector3d origin_rpy = Eigen::Vector3d::Zero();
  Eigen::Vector3d axis = Eigen::Vector3d::UnitX();
  bool has_limits = false;  // both bounds given as numbers, and the joint is not continuous
  double lower = 0.0;       // rad (m for prismatic joints); meaningful only with has_limits
  double upper = 0.0;
};

using UrdfLinkMap = std::unordered_map<std::string, UrdfInertial>;

// The parsing steps, kept out of the public surface but reachable by tests. Every failure is a
// std::runtime_error naming the offending element.
namespace detail {

// Three numbers separated by white space; a null text is (0, 0, 0).
Eigen::Vector3d parse_xyz_attr(const char* text);

// xyz and rpy of an <origin> element (zeros for a null element or a missing attribute).
void parse_origin_element(const tinyxml2::XMLElement* origin, Eigen::Vector3d& xyz,
                          Eigen::Vector3d& rpy);

// Link name -> inertial, for every <link> of <robot> that has an <inertial>.
UrdfLinkMap parse_links(const tinyxml2::XMLElement* robot);

// The joints from the root link outwards; refuses branched and cyclic models.
std::vector<UrdfJoint> parse_joint_chain(const tinyxml2::XMLElement* robot);

}  // namespace detail
}  // namespace kestrel::algorithms
