// The URDF serial-chain reader on small documents: records, chain order and every error text.
#include <gtest/gtest.h>
#include <tinyxml2.h>

#include <functional>

#include "kestrel/algorithms/urdf_reader.hpp"

using namespace kestrel::algorithms;
using kestrel::algorithms::detail::parse_joint_chain;
using kestrel::algorithms::detail::parse_links;
using kestrel::algorithms::detail::parse_origin_element;
using kestrel::algorithms::detail::parse_xyz_attr;

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

std::string error_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "<no exception>";
}

std::string joint(const std::string& name, const std::string& parent, const std::string& child,
                  const std::string& extra = "", const std::string& type = "revolute") {
  return "<joint name=\"" + name + "\" type=\"" + type + "\"><parent link=\"" + parent +
         "\"/><child link=\"" + child + "\"/>" + extra + "</joint>";
}

const std::string kLinks = "<link name=\"a\"/><link name=\"b\"/><link name=\"c\"/>";

}  // namespace

TEST(UrdfReaderVectors, ParsesThreeNumbersOrNamesTheText) {
  EXPECT_EQ(parse_xyz_attr(nullptr), Eigen::Vector3d::Zero());
  EXPECT_EQ(parse_xyz_attr(" 1 -2.5\t3e-1 trailing"), Eigen::Vector3d(1, -2.5, 0.3));
  EXPECT_EQ(error_of([] { parse_xyz_attr("1 2"); }), "Failed to parse xyz/rpy vector from '1 2'");
  EXPECT_EQ(error_of([] { parse_xyz_attr("a b c"); }),
            "Failed to parse xyz/rpy vector from 'a b c'");

  Urdf doc("<origin xyz=\"1 2 3\"/>");
  Eigen::Vector3d xyz(9, 9, 9);
  Eigen::Vector3d rpy(9, 9, 9);
  parse_origin_element(doc.robot()->FirstChildElement("origin"), xyz, rpy);
  EXPECT_EQ(xyz, Eigen::Vector3d(1, 2, 3));
  EXPECT_EQ(rpy, Eigen::Vector3d::Zero());
  parse_origin_element(nullptr, xyz, rpy);
  EXPECT_EQ(xyz, Eigen::Vector3d::Zero());
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

TEST(UrdfReaderLinks, ReportsEveryMalformedLink) {
  const auto error_for = [](const std::string& body) {
    Urdf doc(body);
    return error_of([&] { parse_links(doc.robot()); });
  };
  const std::string inertia =
      "<inertia ixx=\"1\" ixy=\"0\" ixz=\"0\" iyy=\"1\" iyz=\"0\" izz=\"1\"/>";
  EXPECT_EQ(error_for("<link/>"), "Encountered URDF link without a name attribute");
  EXPECT_EQ(error_for("<link name=\"l\"><inertial>" + inertia + "</inertial></link>"),
            "Failed to parse mass for link 'l'");
  EXPECT_EQ(
      error_for("<link name=\"l\"><inertial><mass value=\"x\"/>" + inertia + "</inertial></link>"),
      "Failed to parse mass for link 'l'");
  EXPECT_EQ(error_for("<link name=\"l\"><inertial><mass value=\"1\"/></inertial></link>"),
            "Failed to parse inertia matrix for link 'l'");
  // Non-finite numbers, which tinyxml2 reads as numbers (found by fuzzing).
  for (const char* mass : {"nan", "inf", "-inf"}) {
    EXPECT_EQ(error_for("<link name=\"l\"><inertial><mass value=\"" + std::string(mass) + "\"/>" +
                        inertia + "</inertial></link>"),
              "Failed to parse mass for link 'l'")
        << mass;
  }
  EXPECT_EQ(error_for("<link name=\"l\"><inertial><mass value=\"1\"/><inertia ixx=\"nan\" "
                      "ixy=\"0\" ixz=\"0\" iyy=\"1\" iyz=\"0\" izz=\"1\"/></inertial></link>"),
            "Failed to parse inertia matrix for link 'l'");
  EXPECT_EQ(error_for("<link name=\"l\"><inertial><mass value=\"1\"/><inertia ixx=\"1\" ixy=\"0\""
                      " ixz=\"0\" iyy=\"1\" iyz=\"0\"/></inertial></link>"),
            "Failed to parse inertia matrix for link 'l'");
  EXPECT_EQ(error_for("<link name=\"l\"><inertial><origin xyz=\"1 2\"/><mass value=\"1\"/>" +
                      inertia + "</inertial></link>"),
            "Failed to parse xyz/rpy vector from '1 2'");
}

TEST(UrdfReaderChain, OrdersJointsFromTheRootAndReadsTheirFields) {
  // Document order is tip first; the chain must still start at the root link "a".
  Urdf doc(kLinks + joint("j2", "b", "c", "<axis xyz=\"0 0 2\"/><limit upper=\"1\"/>", "revolute") +
           joint("j1", "a", "b",
                 "<origin xyz=\"1 2 3\" rpy=\"0.1 0.2 0.3\"/><axis xyz=\"0 1 0\"/>"
                 "<limit lower=\"-1\" upper=\"2\"/>") +
           "<link name=\"d\"/>" +
           joint("j3", "c", "d", "<limit lower=\"-1\" upper=\"1\"/>", "continuous"));
  const std::vector<UrdfJoint> chain = parse_joint_chain(doc.robot());
  ASSERT_EQ(chain.size(), 3u);
  EXPECT_EQ(chain[0].name, "j1");
  EXPECT_EQ(chain[0].parent_link, "a");
  EXPECT_EQ(chain[0].child_link, "b");
  EXPECT_EQ(chain[0].origin_xyz, Eigen::Vector3d(1, 2, 3));
  EXPECT_EQ(chain[0].origin_rpy, Eigen::Vector3d(0.1, 0.2, 0.3));
  EXPECT_TRUE(chain[0].has_limits);
  EXPECT_EQ(chain[0].lower, -1.0);
  EXPECT_EQ(chain[0].upper, 2.0);
  EXPECT_EQ(chain[1].name, "j2");
  EXPECT_EQ(chain[1].axis, Eigen::Vector3d(0, 0, 1));  // normalised
  EXPECT_EQ(chain[1].origin_xyz, Eigen::Vector3d::Zero());
  EXPECT_FALSE(chain[1].has_limits);  // only one bound given
  EXPECT_EQ(chain[2].type, "continuous");
  EXPECT_FALSE(chain[2].has_limits);                   // continuous joints never have limits
  EXPECT_EQ(chain[2].axis, Eigen::Vector3d::UnitX());  // URDF's default axis
}

// Components beyond about 1e154 overflowed the plain norm, and the axis came out as zero
// (found by fuzzing).
TEST(UrdfReaderChain, NormalisesAxesOfAnyMagnitude) {
  const std::pair<const char*, Eigen::Vector3d> rows[] = {
      {"0 0 2", {0, 0, 1}},
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

TEST(UrdfReaderChain, ReportsEveryMalformedOrNonSerialModel) {
  const auto error_for = [](const std::string& body) {
    Urdf doc(body);
    return error_of([&] { parse_joint_chain(doc.robot()); });
  };
  EXPECT_EQ(error_for(kLinks + "<joint name=\"j\"><parent link=\"a\"/><child link=\"b\"/></joint>"),
            "Encountered URDF joint without name/type");
  EXPECT_EQ(error_for(kLinks + "<joint type=\"fixed\"/>"),
            "Encountered URDF joint without name/type");
  EXPECT_EQ(error_for(kLinks + "<joint name=\"j\" type=\"fixed\"><parent link=\"a\"/></joint>"),
            "URDF joint 'j' is missing parent/child link");
  EXPECT_EQ(
      error_for(kLinks + "<joint name=\"j\" type=\"fixed\"><parent/><child link=\"b\"/></joint>"),
      "URDF joint 'j' is missing parent/child link");
  EXPECT_EQ(error_for(kLinks + joint("j", "a", "b", "<axis xyz=\"0 0 0\"/>")),
            "URDF joint 'j' has zero-length axis");
  EXPECT_EQ(error_for(kLinks + joint("j", "a", "b", "<limit lower=\"-inf\" upper=\"1\"/>")),
            "URDF joint 'j' has a non-finite limit");
  EXPECT_EQ(error_for(kLinks + joint("j", "a", "b", "<limit lower=\"0\" upper=\"nan\"/>")),
            "URDF joint 'j' has a non-finite limit");
  EXPECT_EQ(error_for(kLinks + joint("j", "a", "b", "<origin xyz=\"1 2\"/>")),
            "Failed to parse xyz/rpy vector from '1 2'");
  EXPECT_EQ(error_for(kLinks + joint("j1", "a", "b") + joint("j2", "a", "c")),
            "URDF is not a single serial chain at link 'a'");
  EXPECT_EQ(
      error_for(kLinks + joint("j1", "a", "b") + joint("j2", "b", "c") + joint("j3", "c", "b")),
      "Detected URDF cycle at link 'b'");
  EXPECT_EQ(error_for("<link name=\"a\"/><link name=\"b\"/>" + joint("j1", "a", "b") +
                      joint("j2", "b", "a")),
            "Failed to determine URDF root link");
  EXPECT_EQ(error_for(""), "Failed to determine URDF root link");
}

TEST(UrdfReaderChain, LeavesJointTypesToTheModel) {
  Urdf doc(kLinks + joint("j", "a", "b", "", "floating"));
  ASSERT_EQ(parse_joint_chain(doc.robot()).size(), 1u);
  EXPECT_EQ(parse_joint_chain(doc.robot())[0].type, "floating");
}
