// The URDF reader on arbitrary documents: what it accepts has finite numbers, unit joint axes
// and a chain whose joints connect root to tip; everything else is a std::runtime_error.
#include <tinyxml2.h>

#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <unordered_set>

#include "fuzz_support.hpp"
#include "kestrel/algorithms/urdf_reader.hpp"

namespace {

using kestrel::algorithms::UrdfJoint;
using kestrel::fuzz::attempt;

void check_links(const tinyxml2::XMLElement* robot) {
  const auto links = attempt([&] { return kestrel::algorithms::detail::parse_links(robot); });
  for (const auto& [name, inertial] : links.value_or(kestrel::algorithms::UrdfLinkMap{})) {
    FUZZ_CHECK(std::isfinite(inertial.mass));
    FUZZ_CHECK(inertial.origin_xyz.allFinite() && inertial.origin_rpy.allFinite());
    FUZZ_CHECK(std::all_of(inertial.inertia.begin(), inertial.inertia.end(),
                           [](double v) { return std::isfinite(v); }));
  }
}

void check_chain(const tinyxml2::XMLElement* robot) {
  const auto parsed =
      attempt([&] { return kestrel::algorithms::detail::parse_joint_chain(robot); });
  const std::vector<UrdfJoint> chain = parsed.value_or(std::vector<UrdfJoint>{});
  std::unordered_set<std::string> seen;
  for (size_t i = 0; i < chain.size(); ++i) {
    const UrdfJoint& joint = chain[i];
    FUZZ_CHECK(std::abs(joint.axis.norm() - 1.0) < 1e-9);
    FUZZ_CHECK(joint.origin_xyz.allFinite() && joint.origin_rpy.allFinite());
    FUZZ_CHECK(!joint.has_limits || (std::isfinite(joint.lower) && std::isfinite(joint.upper)));
    FUZZ_CHECK(!(joint.has_limits && joint.type == "continuous"));
    FUZZ_CHECK(i == 0 || chain[i - 1].child_link == joint.parent_link);
    FUZZ_CHECK(seen.insert(joint.parent_link).second);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // The model reads the file through tinyxml2 exactly like this, then hands over <robot>.
  tinyxml2::XMLDocument document;
  if (document.Parse(reinterpret_cast<const char*>(data), size) != tinyxml2::XML_SUCCESS) {
    return 0;
  }
  const tinyxml2::XMLElement* robot = document.FirstChildElement("robot");
  if (robot == nullptr) {
    return 0;
  }
  check_links(robot);
  check_chain(robot);
  return 0;
}
