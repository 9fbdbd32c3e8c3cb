// Construction of RobotKinematics: chain layout, tool, payload, mounting, and every error text.
#include <gtest/gtest.h>

#include <cmath>
#include <functional>
#include <iostream>

#include "algorithms/test_arm.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "support/config_sandbox.hpp"

using kestrel::testing::ConfigSandbox;
using kestrel::testing::TempDir;
using kestrel::testing::TestArm;

namespace {

std::string error_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "<no exception>";
}

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

// Two-link arm: a revolute joint about z and a second joint of the given type along x.
std::string two_link_urdf(const std::string& second_type = "revolute") {
  return "<robot name=\"r\"><link name=\"a\"/><link name=\"b\"><inertial><origin xyz=\"0.1 0 0\"/>"
         "<mass value=\"1\"/><inertia ixx=\"0.001\" ixy=\"0\" ixz=\"0\" iyy=\"0.001\" iyz=\"0\" "
         "izz=\"0.001\"/></inertial></link><link name=\"c\"><inertial><origin xyz=\"0 0.05 0\"/>"
         "<mass value=\"0.5\"/><inertia ixx=\"0.0002\" ixy=\"0\" ixz=\"0\" iyy=\"0.0002\" "
         "iyz=\"0\" izz=\"0.0002\"/></inertial></link>"
         "<joint name=\"ja\" type=\"revolute\"><parent link=\"a\"/><child link=\"b\"/>"
         "<origin xyz=\"0 0 0.1\"/><axis xyz=\"0 0 1\"/><limit lower=\"-1\" upper=\"1\"/></joint>"
         "<joint name=\"jb\" type=\"" +
         second_type +
         "\"><parent link=\"b\"/><child link=\"c\"/><origin xyz=\"0.2 0 0\" rpy=\"0 0.3 0\"/>"
         "<axis xyz=\"1 0 0\"/><limit lower=\"-0.5\" upper=\"0.5\"/></joint></robot>";
}

constexpr const char* kTool = "kinematics:\n  tool: {xyz: [0, 0, 0.1], rpy: [0, 0, 0]}\n";

std::vector<std::string> segment_names(const KDL::Chain& chain) {
  std::vector<std::string> names;
  for (const auto& segment : chain.segments) {
    names.push_back(segment.getName());
  }
  return names;
}

}  // namespace

// The default constructor reads the files the library finds beside itself.
KESTREL_CONFIG_SCENARIO(default_model) {
  try {
    RobotKinematics model;
    const Eigen::Vector3d& g = model.gravity();
    std::cout << "gravity " << g.x() << ' ' << g.y() << ' ' << g.z() << " segments "
              << model.chain().getNrOfSegments() << '\n';
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
  return 0;
}

TEST(KinematicsModel, LaysOutTheChainFromUrdfPayloadAndTool) {
  TempDir dir;
  TestArm arm;
  const auto [yaml, urdf] = arm.write(dir);
  ::testing::internal::CaptureStdout();
  RobotKinematics model(yaml, urdf);
  std::fflush(stdout);
  EXPECT_EQ(::testing::internal::GetCapturedStdout(), "urdf num_joints_: 6\n");

  EXPECT_EQ(segment_names(model.chain()),
            (std::vector<std::string>{"j1_origin", "l1", "j2_origin", "l2", "l3", "j3_origin", "l4",
                                      "j4_origin", "l5", "j5_origin", "l6", "j6_origin", "l7",
                                      "flange", "payload", "tool"}));
  EXPECT_EQ(model.chain().segments[0].getJoint().getName(), "j1_origin_fixed");
  EXPECT_EQ(model.chain().segments[1].getJoint().getName(), "j1");
  EXPECT_EQ(model.chain().segments[14].getInertia().getMass(), arm.payload_mass);
  EXPECT_EQ(model.num_joints(), 6);
  EXPECT_EQ(model.urdf_joints().size(), arm.joints.size());
  EXPECT_EQ(model.joint_has_limits(), (std::vector<bool>{true, true, true, false, true, true}));
  EXPECT_EQ(model.joint_lower_limits()[0], -2.0);
  EXPECT_EQ(model.joint_upper_limits()[5], 2.0);
  EXPECT_TRUE(std::isinf(model.joint_lower_limits()[3]));  // continuous: never a bound to clamp to
  EXPECT_TRUE(model.gravity().isApprox(arm.gravity));      // gravity_vector beats mode: inverted
}

TEST(KinematicsModel, WithoutPayloadTheToolFollowsTheFlange) {
  TempDir dir;
  const std::string urdf = dir.write("r.urdf", two_link_urdf());
  RobotKinematics model(dir.write("k.yaml", kTool), urdf);
  EXPECT_EQ(segment_names(model.chain()),
            (std::vector<std::string>{"ja_origin", "b", "jb_origin", "c", "tool"}));
  const std::vector<double> fk = model.forwardKinematics_kdl({0.0, 0.0});
  // Flange at (0.2, 0, 0.1) pitched by 0.3 rad about y; the tool sits 0.1 along its z.
  EXPECT_NEAR(fk[0], 0.2 + 0.1 * std::sin(0.3), 1e-12);
  EXPECT_NEAR(fk[2], 0.1 + 0.1 * std::cos(0.3), 1e-12);
}

TEST(KinematicsModel, MountingSelectsTheGravityVector) {
  TempDir dir;
  const std::string urdf = dir.write("r.urdf", two_link_urdf());
  const Eigen::Vector3d up(0, 0, 9.81);
  const std::vector<std::pair<std::string, Eigen::Vector3d>> cases = {
      {"", -up},
      {"  mounting: {}\n", -up},
      {"  mounting: {mode: upright}\n", -up},
      {"  mounting: {mode: normal}\n", -up},
      {"  mounting: {mode: 0}\n", -up},
      {"  mounting: {mode: inverted}\n", up},
      {"  mounting: {mode: upside_down}\n", up},
      {"  mounting: {mode: 1}\n", up},
      {"  mounting: {mode: left_wall}\n", {0, -9.81, 0}},
      {"  mounting: {mode: left_side}\n", {0, -9.81, 0}},
      {"  mounting: {mode: 2}\n", {0, -9.81, 0}},
      {"  mounting: {mode: right_wall}\n", {0, 9.81, 0}},
      {"  mounting: {mode: right_side}\n", {0, 9.81, 0}},
      {"  mounting: {mode: 3}\n", {0, 9.81, 0}},
      {"  mounting: {mode: inverted, gravity_vector: [0, 0, -9.7]}\n", {0, 0, -9.7}},
  };
  for (const auto& [mounting, expected] : cases) {
    RobotKinematics model(dir.write("k.yaml", kTool + mounting), urdf);
    EXPECT_EQ(model.gravity(), expected) << mounting;
  }
  // The dynamics use it: an inverted arm needs exactly the opposite holding torque.
  RobotKinematics upright(dir.write("u.yaml", kTool), urdf);
  RobotKinematics inverted(dir.write("i.yaml", std::string(kTool) + "  mounting: {mode: 1}\n"),
                           urdf);
  const std::vector<double> q{0.3, 0.2};
  const auto g_up = upright.gravity_compensation_kdl(q);
  const auto g_inv = inverted.gravity_compensation_kdl(q);
  EXPECT_EQ(g_up[0], -g_inv[0]);
  EXPECT_EQ(g_up[1], -g_inv[1]);
  EXPECT_NE(g_up[1], 0.0);
}

TEST(KinematicsModel, PayloadCentreComesFromComOrOriginXyz) {
  TempDir dir;
  const std::string urdf = dir.write("r.urdf", two_link_urdf());
  RobotKinematics by_com(
      dir.write("a.yaml", std::string(kTool) + "  payload: {mass: 0.5, com: [0.05, 0.04, 0.02]}\n"),
      urdf);
  RobotKinematics by_origin(
      dir.write("b.yaml",
                std::string(kTool) +
                    "  payload: {mass: 0.5, origin: {xyz: [0.05, 0.04, 0.02], rpy: [1, 2, 3]}}\n"),
      urdf);
  RobotKinematics bare(dir.write("c.yaml", kTool), urdf);
  const std::vector<double> q{0.4, -0.3};
  const auto a = by_com.gravity_compensation_kdl(q);
  const auto b = by_origin.gravity_compensation_kdl(q);
  const auto c = bare.gravity_compensation_kdl(q);
  EXPECT_NEAR(a[1], b[1], 1e-12);  // a point mass: its rotation does not matter
  EXPECT_GT(std::abs(a[1] - c[1]), 0.1);
}

TEST(KinematicsModel, RejectsEveryMalformedKinematicsSection) {
  TempDir dir;
  const std::string urdf = dir.write("r.urdf", two_link_urdf());
  const std::string path = (dir.path() / "k.yaml").string();
  const std::string invalid = "Invalid kinematics config at " + path + ": ";
  const std::string tool = "kinematics:\n  tool: {xyz: [0, 0, 0], rpy: [0, 0, 0]}\n";
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"other: 1\n", invalid + "missing 'kinematics.tool' map"},
      {"kinematics: {tool: [0, 0, 0]}\n", invalid + "missing 'kinematics.tool' map"},
      {"kinematics: {tool: {rpy: [0, 0, 0]}}\n",
       invalid + "field 'kinematics.tool.xyz' must be a sequence of 3 numbers"},
      {"kinematics: {tool: {xyz: [0, 0], rpy: [0, 0, 0]}}\n",
       invalid + "field 'kinematics.tool.xyz' must be a sequence of 3 numbers"},
      {"kinematics: {tool: {xyz: [0, 0, 0], rpy: [0, abc, 0]}}\n",
       invalid + "field 'kinematics.tool.rpy' contains a non-numeric value: abc"},
      {tool + "  payload: {com: [0, 0, 0]}\n",
       invalid + "missing or invalid 'kinematics.payload.mass'"},
      {tool + "  payload: {mass: [1], com: [0, 0, 0]}\n",
       invalid + "missing or invalid 'kinematics.payload.mass'"},
      {tool + "  payload: {mass: 0.5}\n",
       invalid + "missing 'kinematics.payload.com' or 'kinematics.payload.origin.xyz'"},
      {tool + "  payload: {mass: 0.5, origin: {xyz: [0, 0]}}\n",
       invalid + "field 'kinematics.payload.origin.xyz' must be a sequence of 3 numbers"},
      {tool + "  payload: {mass: 0.5, com: [0, 0, 0], origin: {rpy: 1}}\n",
       invalid + "field 'kinematics.payload.origin.rpy' must be a sequence of 3 numbers"},
      {tool + "  mounting: {gravity_vector: [0, 0]}\n",
       invalid + "field 'kinematics.mounting.gravity_vector' must be a sequence of 3 numbers"},
      {tool + "  mounting: {mode: sideways}\n",
       "Invalid kinematics.mounting.mode at " + path +
           ": expected upright/inverted/left_wall/right_wall or 0/1/2/3"},
      {tool + "  mounting: {mode: Upright}\n",
       "Invalid kinematics.mounting.mode at " + path +
           ": expected upright/inverted/left_wall/right_wall or 0/1/2/3"},
  };
  for (const auto& [yaml, expected] : cases) {
    dir.write("k.yaml", yaml);
    EXPECT_EQ(error_of([&] { RobotKinematics(path, urdf); }), expected) << yaml;
  }
  dir.write("k.yaml", tool + "  payload: {mass: heavy, com: [0, 0, 0]}\n");
  EXPECT_PRED2(starts_with, error_of([&] { RobotKinematics(path, urdf); }),
               invalid + "'kinematics.payload.mass' must be numeric: ");
  dir.write("k.yaml", "kinematics: [unclosed\n");
  EXPECT_PRED2(starts_with, error_of([&] { RobotKinematics(path, urdf); }),
               "Failed to parse kinematics config at " + path + ": ");
  const std::string missing = (dir.path() / "none.yaml").string();
  EXPECT_PRED2(starts_with, error_of([&] { RobotKinematics(missing, urdf); }),
               "Failed to open kinematics config at " + missing + ": ");
}

TEST(KinematicsModel, RejectsUnreadableOrUnsupportedUrdf) {
  TempDir dir;
  const std::string yaml = dir.write("k.yaml", kTool);
  const std::string urdf = (dir.path() / "r.urdf").string();
  EXPECT_PRED2(starts_with, error_of([&] { RobotKinematics(yaml, urdf); }),
               "Failed to load URDF at " + urdf + ": ");
  dir.write("r.urdf", "<model/>");
  EXPECT_EQ(error_of([&] { RobotKinematics(yaml, urdf); }),
            "URDF at " + urdf + " does not contain a <robot> root");
  for (const std::string type : {"floating", "planar"}) {
    dir.write("r.urdf", two_link_urdf(type));
    EXPECT_EQ(error_of([&] { RobotKinematics(yaml, urdf); }),
              "Unsupported URDF joint type: " + type);
  }
  // Reader errors pass through unchanged.
  dir.write("r.urdf",
            "<robot><link name=\"a\"/><link name=\"b\"/><link name=\"c\"/>"
            "<joint name=\"x\" type=\"fixed\"><parent link=\"a\"/><child link=\"b\"/></joint>"
            "<joint name=\"y\" type=\"fixed\"><parent link=\"a\"/><child link=\"c\"/></joint>"
            "</robot>");
  EXPECT_EQ(error_of([&] { RobotKinematics(yaml, urdf); }),
            "URDF is not a single serial chain at link 'a'");
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

  std::filesystem::remove(box.urdf_path());
  const auto missing = box.run("default_model");
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_PRED2(starts_with, missing.err, "Failed to locate config file 'OspreyArm.SLDASM.urdf'. ");
}
