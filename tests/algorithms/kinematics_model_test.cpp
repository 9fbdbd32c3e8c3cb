// Construction of RobotKinematics: chain layout, tool, payload, mounting, and every error text.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iostream>

#include "algorithms/test_arm.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "support/config_sandbox.hpp"
#include "support/refusal.hpp"

using namespace kestrel::testing;
using ::testing::StartsWith;

namespace {

// Two-link arm: a revolute joint about z and a second joint of the given type along x.
std::string two_link_urdf(const std::string& second_type = "revolute") {
  TestArm arm;
  const Eigen::Vector3d zero = Eigen::Vector3d::Zero();
  arm.links = {{"a", 1.0, zero, zero, {0.001, 0, 0, 0.001, 0, 0.001}},
               {"b", 1.0, {0.1, 0, 0}, zero, {0.001, 0, 0, 0.001, 0, 0.001}},
               {"c", 0.5, {0, 0.05, 0}, zero, {0.0002, 0, 0, 0.0002, 0, 0.0002}}};
  arm.joints = {{"ja", "revolute", "a", "b", {0, 0, 0.1}, zero, {0, 0, 1}},
                {"jb", second_type, "b", "c", {0.2, 0, 0}, {0, 0.3, 0}, {1, 0, 0}}};
  return arm.urdf();
}

constexpr const char* kTool = "kinematics:\n  tool: {xyz: [0, 0, 0.1], rpy: [0, 0, 0]}\n";

// The two-link arm with the tool and `extra` lines of the kinematics section.
class TwoLinkArm : public ::testing::Test {
 protected:
  RobotKinematics model(const std::string& extra = "") const {
    return RobotKinematics(dir.write("k.yaml", kTool + extra), urdf);
  }
  TempDir dir;
  std::string urdf = dir.write("r.urdf", two_link_urdf());
};

}  // namespace

// The default constructor reads the files the library finds beside itself.
KESTREL_CONFIG_SCENARIO(default_model) {
  RobotKinematics model;
  const Eigen::Vector3d& g = model.gravity();
  std::cout << "gravity " << g.x() << ' ' << g.y() << ' ' << g.z() << " segments "
            << model.chain().getNrOfSegments() << '\n';
  return 0;
}

TEST(KinematicsModel, LaysOutTheChainFromUrdfPayloadAndTool) {
  TempDir dir;
  TestArm arm;
  const auto [yaml, urdf] = arm.write(dir);
  RobotKinematics model(yaml, urdf);
  EXPECT_EQ(model.chain().segments[14].getInertia().getMass(), arm.payload_mass);
  EXPECT_EQ(model.num_joints(), 6);
  EXPECT_EQ(model.urdf_joints().size(), arm.joints.size());
  EXPECT_EQ(model.joint_has_limits(), (std::vector<bool>{true, true, true, false, true, true}));
  EXPECT_EQ(model.joint_lower_limits()[0], -2.0);
  EXPECT_EQ(model.joint_upper_limits()[5], 2.0);
  EXPECT_TRUE(std::isinf(model.joint_lower_limits()[3]));  // continuous: never a bound to clamp to
}

TEST_F(TwoLinkArm, WithoutPayloadTheToolFollowsTheFlange) {
  RobotKinematics m = model();
  const std::vector<double> fk = m.forwardKinematics_kdl({0.0, 0.0});
  // Flange at (0.2, 0, 0.1) pitched by 0.3 rad about y; the tool sits 0.1 along its z.
  EXPECT_NEAR(fk[0], 0.2 + 0.1 * std::sin(0.3), 1e-12);
  EXPECT_NEAR(fk[2], 0.1 + 0.1 * std::cos(0.3), 1e-12);
}

TEST_F(TwoLinkArm, MountingSelectsTheGravityVector) {
  const Eigen::Vector3d up(0, 0, 9.81), left(0, -9.81, 0);
  // Each gravity vector with the settings that select it: a "{...}" is the mounting map, anything
  // else is taken as the lines it is.
  const std::vector<std::pair<std::vector<std::string>, Eigen::Vector3d>> rows = {
      {{"", "  mounting: {}\n", "{mode: upright}", "{mode: normal}", "{mode: 0}"}, -up},
      {{"{mode: inverted}", "{mode: upside_down}", "{mode: 1}"}, up},
      {{"{mode: left_wall}", "{mode: left_side}", "{mode: 2}"}, left},
      {{"{mode: right_wall}", "{mode: right_side}", "{mode: 3}"}, -left},
      {{"{mode: inverted, gravity_vector: [0, 0, -9.7]}"}, {0, 0, -9.7}},
  };
  for (const auto& [mountings, expected] : rows) {
    for (const std::string& m : mountings) {
      const std::string yaml = m.empty() || m[0] != '{' ? m : "  mounting: " + m + "\n";
      EXPECT_EQ(model(yaml).gravity(), expected) << m;
    }
  }
}

TEST_F(TwoLinkArm, PayloadCentreComesFromComOrOriginXyz) {
  const std::vector<double> q{0.4, -0.3};
  const auto a =
      model("  payload: {mass: 0.5, com: [0.05, 0.04, 0.02]}\n").gravity_compensation_kdl(q);
  const auto b =
      model("  payload: {mass: 0.5, origin: {xyz: [0.05, 0.04, 0.02], rpy: [1, 2, 3]}}\n")
          .gravity_compensation_kdl(q);
  EXPECT_NEAR(a[1], b[1], 1e-12);  // a point mass: its rotation does not matter
  EXPECT_GT(std::abs(a[1] - model().gravity_compensation_kdl(q)[1]), 0.1);
}

// Every refusal of the two files, with its exact text (or its exact start, where the rest is
// the YAML or XML parser's own message).
TEST_F(TwoLinkArm, RejectsEveryMalformedFile) {
  const std::string path = (dir.path() / "k.yaml").string();
  const std::string invalid = "Invalid kinematics config at " + path + ": ";
  const std::string tool = "kinematics:\n  tool: {xyz: [0, 0, 0], rpy: [0, 0, 0]}\n";
  const std::string mode = "Invalid kinematics.mounting.mode at " + path +
                           ": expected upright/inverted/left_wall/right_wall or 0/1/2/3";
  const auto seq3 = [&](const std::string& field) {
    return invalid + "field 'kinematics." + field + "' must be a sequence of 3 numbers";
  };
  struct Row {
    std::string yaml, message;
    bool prefix = false;
  };
  const std::vector<Row> rows = {
      {"other: 1\n", invalid + "missing 'kinematics.tool' map"},
      {"kinematics: {tool: [0, 0, 0]}\n", invalid + "missing 'kinematics.tool' map"},
      {"kinematics: {tool: {rpy: [0, 0, 0]}}\n", seq3("tool.xyz")},
      {"kinematics: {tool: {xyz: [0, 0], rpy: [0, 0, 0]}}\n", seq3("tool.xyz")},
      {"kinematics: {tool: {xyz: [0, 0, 0], rpy: [0, abc, 0]}}\n",
       invalid + "field 'kinematics.tool.rpy' contains a non-numeric value: abc"},
      {tool + "  payload: {com: [0, 0, 0]}\n",
       invalid + "missing or invalid 'kinematics.payload.mass'"},
      {tool + "  payload: {mass: [1], com: [0, 0, 0]}\n",
       invalid + "missing or invalid 'kinematics.payload.mass'"},
      {tool + "  payload: {mass: 0.5}\n",
       invalid + "missing 'kinematics.payload.com' or 'kinematics.payload.origin.xyz'"},
      {tool + "  payload: {mass: 0.5, origin: {xyz: [0, 0]}}\n", seq3("payload.origin.xyz")},
      {tool + "  payload: {mass: 0.5, com: [0, 0, 0], origin: {rpy: 1}}\n",
       seq3("payload.origin.rpy")},
      {tool + "  mounting: {gravity_vector: [0, 0]}\n", seq3("mounting.gravity_vector")},
      {tool + "  mounting: {mode: Upright}\n", mode},
      {tool + "  payload: {mass: heavy, com: [0, 0, 0]}\n",
       invalid + "'kinematics.payload.mass' must be numeric: ", true},
      {"kinematics: [unclosed\n", "Failed to parse kinematics config at " + path + ": ", true},
  };
  for (const auto& row : rows) {
    dir.write("k.yaml", row.yaml);
    const std::string got = refusal_of<std::runtime_error>([&] { RobotKinematics(path, urdf); });
    EXPECT_EQ(row.prefix ? got.substr(0, row.message.size()) : got, row.message) << row.yaml;
  }
  const std::string yaml = dir.write("k.yaml", kTool);
  const std::string none = (dir.path() / "none").string();
  const auto refusal = [&](const std::string& y, const std::string& u) {
    return refusal_of<std::runtime_error>([&] { RobotKinematics(y, u); });
  };
  EXPECT_THAT(refusal(none, urdf),
              StartsWith("Failed to open kinematics config at " + none + ": "));
  EXPECT_THAT(refusal(yaml, none), StartsWith("Failed to load URDF at " + none + ": "));
  const std::vector<std::pair<std::string, std::string>> urdf_rows = {
      {"<model/>", "URDF at " + urdf + " does not contain a <robot> root"},
      {two_link_urdf("floating"), "Unsupported URDF joint type: floating"},
      // Reader errors pass through unchanged.
      {"<robot><link name=\"a\"/><link name=\"b\"/><link name=\"c\"/>"
       "<joint name=\"x\" type=\"fixed\"><parent link=\"a\"/><child link=\"b\"/></joint>"
       "<joint name=\"y\" type=\"fixed\"><parent link=\"a\"/><child link=\"c\"/></joint></robot>",
       "URDF is not a single serial chain at link 'a'"},
  };
  for (const auto& [text, message] : urdf_rows) {
    dir.write("r.urdf", text);
    EXPECT_EQ(refusal(yaml, urdf), message);
  }
}

TEST(KinematicsModel, PrismaticJointsMoveAlongTheirAxisInBothModels) {
  TempDir dir;
  RobotKinematics model(dir.write("k.yaml", kTool),
                        dir.write("r.urdf", two_link_urdf("prismatic")));
  for (const double d : {-0.3, 0.0, 0.25}) {
    const std::vector<double> fk = model.forwardKinematics_kdl({0.7, d});
    const Eigen::Matrix4d T =
        model.forward_kinematics(Eigen::Vector2d(0.7, d)) * model.flange_to_tcp();
    EXPECT_NEAR((T.topRightCorner<3, 1>() - Eigen::Vector3d(fk[0], fk[1], fk[2])).norm(), 0.0,
                1e-12);
  }
  const auto at = [&](double d) { return model.forwardKinematics_kdl({0.0, d}); };
  // Along the joint's x axis, which the 0.3 rad pitch of its origin tilts.
  EXPECT_NEAR(at(0.1)[0] - at(0.0)[0], 0.1 * std::cos(0.3), 1e-12);
  EXPECT_NEAR(at(0.1)[2] - at(0.0)[2], -0.1 * std::sin(0.3), 1e-12);
}

TEST(KinematicsModel, DefaultConstructorReadsTheLibrarysConfigDirectory) {
  ConfigSandbox box;
  box.write_config(kestrel::testing::replace_yaml_section(
      ConfigSandbox::shipped_config(), "kinematics",
      "kinematics:\n  tool: {xyz: [0, 0, 0.1], rpy: [0, 0, 0]}\n"
      "  payload: {mass: 0.5, com: [0, 0, 0.1]}\n  mounting: {mode: left_wall}\n"));
  const auto r = box.run("default_model");
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  // Six joints give twelve segments, then payload and tool.
  EXPECT_EQ(r.out, "urdf num_joints_: 6\ngravity 0 -9.81 0 segments 14\n");
}
