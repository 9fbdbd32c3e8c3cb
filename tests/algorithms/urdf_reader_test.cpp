// The URDF serial-chain reader on small documents: records, chain order and every error text.
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include "kestrel/algorithms/urdf_reader.hpp"
#include "support/refusal.hpp"

using namespace kestrel::algorithms;
using namespace kestrel::algorithms::detail;
using namespace kestrel::testing;

namespace {

// Owns a parsed document; robot() is its <robot> element.
struct Urdf {
  explicit Urdf(const std::string& body) {
    const std::string text = "<robot name=\"t\">" + body + "</robot>";
    EXPECT_EQ(doc.Parse(text.c_str()), tinyxml2::XML_SUCCESS);
  }
  const tinyxml2::XMLElement* robot() const { return doc.FirstChildElement("robot"); }
  tinyxml2::XMLDocument doc;
};

std::string joint(const std::string& name, const std::string& parent, const std::string& child,
                  const std::string& extra = "", const std::string& type = "revolute") {
  return "<joint name=\"" + name + "\" type=\"" + type + "\"><parent link=\"" + parent +
         "\"/><child link=\"" + child + "\"/>" + extra + "</joint>";
}

const std::string kLinks = "<link name=\"a\"/><link name=\"b\"/><link name=\"c\"/>";

// A link with an inertial made of `inner`.
std::string link(const std::string& inner) {
  return "<link name=\"l\"><inertial>" + inner + "</inertial></link>";
}

std::string inertia(const std::string& ixx = "1", const std::string& izz = " izz=\"1\"") {
  return "<inertia ixx=\"" + ixx + "\" ixy=\"0\" ixz=\"0\" iyy=\"1\" iyz=\"0\"" + izz + "/>";
}

struct Refusal {
  const char* name;
  std::string body;
  std::string message;
};

}  // namespace

// The refusal of a short vector, a missing origin and a missing attribute: UrdfReader and
// UrdfReaderChain below.
TEST(UrdfReaderVectors, ReadsTheFirstThreeNumbersAndDefaultsAMissingRpy) {
  EXPECT_EQ(parse_xyz_attr(" 1 -2.5\t3e-1 trailing"), Eigen::Vector3d(1, -2.5, 0.3));
  Urdf doc("<origin xyz=\"1 2 3\"/>");
  Eigen::Vector3d xyz, rpy(9, 9, 9);
  parse_origin_element(doc.robot()->FirstChildElement("origin"), xyz, rpy);
  EXPECT_EQ(xyz, Eigen::Vector3d(1, 2, 3));
  EXPECT_EQ(rpy, Eigen::Vector3d::Zero());
}

TEST(UrdfReaderLinks, ReadsInertialsAndSkipsLinksWithout) {
  Urdf doc(
      "<link name=\"bare\"/><link name=\"l\"><inertial><origin xyz=\"0.1 0 0\" rpy=\"0 0 1\"/>"
      "<mass value=\"2.5\"/><inertia ixx=\"1\" ixy=\"2\" ixz=\"3\" iyy=\"4\" iyz=\"5\" izz=\"6\"/>"
      "</inertial></link>");
  const UrdfLinkMap links = parse_links(doc.robot());
  ASSERT_EQ(links.size(), 1u);
  const UrdfInertial& l = links.at("l");
  EXPECT_EQ(l.mass, 2.5);
  EXPECT_EQ(l.origin_xyz, Eigen::Vector3d(0.1, 0, 0));
  EXPECT_EQ(l.origin_rpy, Eigen::Vector3d(0, 0, 1));
  EXPECT_EQ(l.inertia, (std::array<double, 6>{1, 2, 3, 4, 5, 6}));
}

TEST(UrdfReaderChain, OrdersJointsFromTheRootAndReadsTheirFields) {
  // Document order is tip first; the chain must still start at the root link "a".
  Urdf doc(kLinks + joint("j2", "b", "c", "<axis xyz=\"0 0 2\"/><limit upper=\"1\"/>", "revolute") +
           joint("j1", "a", "b",
                 "<origin xyz=\"1 2 3\" rpy=\"0.1 0.2 0.3\"/><axis xyz=\"0 1 0\"/>"
                 "<limit lower=\"-1\" upper=\"2\"/>") +
           "<link name=\"d\"/>" +
           joint("j3", "c", "d", "<limit lower=\"-1\" upper=\"1\"/>", "continuous") +
           "<link name=\"e\"/>" + joint("j4", "d", "e", "", "floating"));
  const std::vector<UrdfJoint> chain = parse_joint_chain(doc.robot());
  ASSERT_EQ(chain.size(), 4u);
  const auto fields = [&](size_t i) {
    const UrdfJoint& j = chain[i];
    return std::tuple(j.name, j.type, j.parent_link, j.child_link, j.has_limits);
  };
  EXPECT_EQ(fields(0), std::tuple("j1", "revolute", "a", "b", true));
  EXPECT_EQ(fields(1), std::tuple("j2", "revolute", "b", "c", false));    // only one bound given
  EXPECT_EQ(fields(2), std::tuple("j3", "continuous", "c", "d", false));  // never limits
  EXPECT_EQ(fields(3), std::tuple("j4", "floating", "d", "e", false));    // types are the model's
  EXPECT_EQ(chain[0].origin_xyz, Eigen::Vector3d(1, 2, 3));
  EXPECT_EQ(chain[0].origin_rpy, Eigen::Vector3d(0.1, 0.2, 0.3));
  EXPECT_EQ(chain[0].lower, -1.0);
  EXPECT_EQ(chain[0].upper, 2.0);
  EXPECT_EQ(chain[1].origin_xyz, Eigen::Vector3d::Zero());
  EXPECT_EQ(chain[1].axis, Eigen::Vector3d(0, 0, 1));  // normalised
  EXPECT_EQ(chain[2].axis, Eigen::Vector3d::UnitX());  // URDF's default axis
}

// Components beyond about 1e154 overflowed the plain norm, and the axis came out as zero
// (found by fuzzing).
TEST(UrdfReaderChain, NormalisesAxesOfAnyMagnitude) {
  const std::pair<const char*, Eigen::Vector3d> rows[] = {
      {"1e300 0 0", {1, 0, 0}},
      {"0 3e200 -4e200", {0, 0.6, -0.8}},
      {"0 0 -1e-3", {0, 0, -1}},
  };
  for (const auto& [xyz, unit] : rows) {
    Urdf doc(kLinks + joint("j", "a", "b", "<axis xyz=\"" + std::string(xyz) + "\"/>"));
    const Eigen::Vector3d axis = parse_joint_chain(doc.robot()).at(0).axis;
    EXPECT_LT((axis - unit).norm(), 1e-15) << xyz << " gave " << axis.transpose();
  }
}

// Links are read by parse_links, joints (after the links a, b and c) by parse_joint_chain.
TEST(UrdfReader, ReportsEveryMalformedDocument) {
  const std::string mass = "Failed to parse mass for link 'l'";
  const std::string inertia_error = "Failed to parse inertia matrix for link 'l'";
  const std::string unnamed = "Encountered URDF joint without name/type";
  const std::string unlinked = "URDF joint 'j' is missing parent/child link";
  const std::string non_finite = "URDF joint 'j' has a non-finite limit";
  const std::string no_root = "Failed to determine URDF root link";
  const std::string short_xyz = "Failed to parse xyz/rpy vector from '1 2'";
  const auto chain = [](const std::string& joints) { return kLinks + joints; };
  // Non-finite numbers are read as numbers by tinyxml2 (found by fuzzing).
  const std::vector<Refusal> links = {
      {"no name", "<link/>", "Encountered URDF link without a name attribute"},
      {"no mass", link(inertia()), mass},
      {"text mass", link("<mass value=\"x\"/>" + inertia()), mass},
      {"NaN mass", link("<mass value=\"nan\"/>" + inertia()), mass},
      {"no inertia", link("<mass value=\"1\"/>"), inertia_error},
      {"NaN inertia", link("<mass value=\"1\"/>" + inertia("nan")), inertia_error},
      {"no izz", link("<mass value=\"1\"/>" + inertia("1", "")), inertia_error},
      {"short inertial origin", link("<origin xyz=\"1 2\"/><mass value=\"1\"/>" + inertia()),
       short_xyz},
  };
  const std::vector<Refusal> joints = {
      {"no type", chain("<joint name=\"j\"><parent link=\"a\"/><child link=\"b\"/></joint>"),
       unnamed},
      {"no name", chain("<joint type=\"fixed\"/>"), unnamed},
      {"no child", chain("<joint name=\"j\" type=\"fixed\"><parent link=\"a\"/></joint>"),
       unlinked},
      {"empty parent",
       chain("<joint name=\"j\" type=\"fixed\"><parent/><child link=\"b\"/></joint>"), unlinked},
      {"zero axis", chain(joint("j", "a", "b", "<axis xyz=\"0 0 0\"/>")),
       "URDF joint 'j' has zero-length axis"},
      {"-inf lower", chain(joint("j", "a", "b", "<limit lower=\"-inf\" upper=\"1\"/>")),
       non_finite},
      {"NaN upper", chain(joint("j", "a", "b", "<limit lower=\"0\" upper=\"nan\"/>")), non_finite},
      {"short joint origin", chain(joint("j", "a", "b", "<origin xyz=\"1 2\"/>")), short_xyz},
      {"branch", chain(joint("j1", "a", "b") + joint("j2", "a", "c")),
       "URDF is not a single serial chain at link 'a'"},
      {"cycle", chain(joint("j1", "a", "b") + joint("j2", "b", "c") + joint("j3", "c", "b")),
       "Detected URDF cycle at link 'b'"},
      {"every link a child",
       "<link name=\"a\"/><link name=\"b\"/>" + joint("j1", "a", "b") + joint("j2", "b", "a"),
       no_root},
      {"no links", "", no_root},
  };
  for (const auto* table : {&links, &joints}) {
    for (const auto& row : *table) {
      Urdf doc(row.body);
      const auto parse = [&] {
        table == &links ? (void)parse_links(doc.robot()) : (void)parse_joint_chain(doc.robot());
      };
      EXPECT_EQ(refusal_of<std::runtime_error>(parse), row.message) << row.name;
    }
  }
}
