#include "kestrel/algorithms/urdf_reader.hpp"

#include <tinyxml2.h>

#include <cmath>
#include <sstream>
#include <stdexcept>
#include <unordered_set>

namespace kestrel::algorithms::detail {

Eigen::Vector3d parse_xyz_attr(const char* text) {
  if (text == nullptr) {
    return Eigen::Vector3d::Zero();
  }
  std::istringstream in(text);
  double x = 0.0;
  double y = 0.0;
  double z = 0.0;
  if (!(in >> x >> y >> z)) {
    throw std::runtime_error(std::string("Failed to parse xyz/rpy vector from '") + text + "'");
  }
  return Eigen::Vector3d(x, y, z);
}

void parse_origin_element(const tinyxml2::XMLElement* origin, Eigen::Vector3d& xyz,
                          Eigen::Vector3d& rpy) {
  xyz.setZero();
  rpy.setZero();
  if (origin == nullptr) {
    return;
  }
  xyz = parse_xyz_attr(origin->Attribute("xyz"));
  rpy = parse_xyz_attr(origin->Attribute("rpy"));
}

namespace {

// A numeric attribute that is there and finite (tinyxml2 also reads "nan" and "inf").
bool query_finite(const tinyxml2::XMLElement* element, const char* name, double& value) {
  return element != nullptr &&
         element->QueryDoubleAttribute(name, &value) == tinyxml2::XML_SUCCESS &&
         std::isfinite(value);
}

}  // namespace

UrdfLinkMap parse_links(const tinyxml2::XMLElement* robot) {
  UrdfLinkMap links;
  for (const tinyxml2::XMLElement* link = robot->FirstChildElement("link"); link != nullptr;
       link = link->NextSiblingElement("link")) {
    const char* name_attr = link->Attribute("name");
    if (name_attr == nullptr) {
      throw std::runtime_error("Encountered URDF link without a name attribute");
    }
    const std::string name(name_attr);
    const tinyxml2::XMLElement* inertial = link->FirstChildElement("inertial");
    if (inertial == nullptr) {
      continue;
    }

    UrdfInertial record;
    parse_origin_element(inertial->FirstChildElement("origin"), record.origin_xyz,
                         record.origin_rpy);

    const tinyxml2::XMLElement* mass = inertial->FirstChildElement("mass");
    if (!query_finite(mass, "value", record.mass)) {
      throw std::runtime_error("Failed to parse mass for link '" + name + "'");
    }

    const tinyxml2::XMLElement* inertia = inertial->FirstChildElement("inertia");
    static constexpr const char* kInertiaKeys[6] = {"ixx", "ixy", "ixz", "iyy", "iyz", "izz"};
    for (int i = 0; i < 6; ++i) {
      if (!query_finite(inertia, kInertiaKeys[i], record.inertia[i])) {
        throw std::runtime_error("Failed to parse inertia matrix for link '" + name + "'");
      }
    }
    links[name] = record;
  }
  return links;
}

std::vector<UrdfJoint> parse_joint_chain(const tinyxml2::XMLElement* robot) {
  std::vector<std::string> link_names;
  for (const tinyxml2::XMLElement* link = robot->FirstChildElement("link"); link != nullptr;
       link = link->NextSiblingElement("link")) {
    if (const char* name = link->Attribute("name")) {
      link_names.emplace_back(name);
    }
  }

  std::unordered_map<std::string, std::vector<UrdfJoint>> joints_by_parent;
  std::unordered_set<std::string> child_links;
  for (const tinyxml2::XMLElement* element = robot->FirstChildElement("joint"); element != nullptr;
       element = element->NextSiblingElement("joint")) {
    const char* name = element->Attribute("name");
    const char* type = element->Attribute("type");
    if (name == nullptr || type == nullptr) {
      throw std::runtime_error("Encountered URDF joint without name/type");
    }
    UrdfJoint joint;
    joint.name = name;
    joint.type = type;

    const tinyxml2::XMLElement* parent = element->FirstChildElement("parent");
    const tinyxml2::XMLElement* child = element->FirstChildElement("child");
    const char* parent_link = parent != nullptr ? parent->Attribute("link") : nullptr;
    const char* child_link = child != nullptr ? child->Attribute("link") : nullptr;
    if (parent_link == nullptr || child_link == nullptr) {
      throw std::runtime_error("URDF joint '" + joint.name + "' is missing parent/child link");
    }
    joint.parent_link = parent_link;
    joint.child_link = child_link;

    parse_origin_element(element->FirstChildElement("origin"), joint.origin_xyz, joint.origin_rpy);

    if (const tinyxml2::XMLElement* axis = element->FirstChildElement("axis")) {
      const Eigen::Vector3d raw = parse_xyz_attr(axis->Attribute("xyz"));
      // The stable norm: the plain one overflows to infinity for components near 1e155 and
      // beyond, and the axis would come out as zero.
      if (raw.stableNorm() < 1e-12) {
        throw std::runtime_error("URDF joint '" + joint.name + "' has zero-length axis");
      }
      joint.axis = raw.stableNormalized();
    }

    if (joint.type != "continuous") {
      const tinyxml2::XMLElement* limit = element->FirstChildElement("limit");
      double lower = 0.0;
      double upper = 0.0;
      if (limit != nullptr &&
          limit->QueryDoubleAttribute("lower", &lower) == tinyxml2::XML_SUCCESS &&
          limit->QueryDoubleAttribute("upper", &upper) == tinyxml2::XML_SUCCESS) {
        if (!std::isfinite(lower) || !std::isfinite(upper)) {
          throw std::runtime_error("URDF joint '" + joint.name + "' has a non-finite limit");
        }
        joint.has_limits = true;
        joint.lower = lower;
        joint.upper = upper;
      }
    }

    child_links.insert(joint.child_link);
    joints_by_parent[joint.parent_link].push_back(std::move(joint));
  }

  const std::string* root = nullptr;
  for (const std::string& name : link_names) {
    if (child_links.count(name) == 0) {
      root = &name;
      break;
    }
  }
  if (root == nullptr) {
    throw std::runtime_error("Failed to determine URDF root link");
  }

  std::vector<UrdfJoint> chain;
  std::unordered_set<std::string> visited;
  std::string current = *root;
  for (;;) {
    const auto found = joints_by_parent.find(current);
    if (found == joints_by_parent.end() || found->second.empty()) {
      break;
    }
    if (found->second.size() > 1) {
      throw std::runtime_error("URDF is not a single serial chain at link '" + current + "'");
    }
    chain.push_back(found->second.front());
    visited.insert(current);
    current = chain.back().child_link;
    if (visited.count(current) != 0) {
      throw std::runtime_error("Detected URDF cycle at link '" + current + "'");
    }
  }
  return chain;
}

}  // namespace kestrel::algorithms::detail
