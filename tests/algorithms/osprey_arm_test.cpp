// The shipped arm: OspreyArm.SLDASM.urdf and robot_kinematics.yaml must describe a buildable arm
// for these motors, and every tuning value must fit it.
#include <gtest/gtest.h>
#include <tinyxml2.h>
#include <yaml-cpp/yaml.h>

#include <Eigen/Eigenvalues>
#include <Eigen/Geometry>
#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <map>
#include <memory>
#include <random>

#include "algorithms/test_arm.hpp"
#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/algorithms/kinematics.hpp"

using kestrel::algorithms::UrdfJoint;
using kestrel::testing::TempDir;

namespace {

constexpr double kPeakTorque[6] = {28, 28, 28, 10, 10, 10};  // DM type 3 x3, type 1 x3
constexpr double kMotorSpeed[6] = {8, 8, 8, 30, 30, 30};
constexpr double kDefaultWarn[6] = {16, 16, 16, 6, 5, 5};
constexpr double kPayloadKg = 0.5;

std::vector<double> seq(const YAML::Node& node) {
  return node.as<std::vector<double>>();
}

Eigen::VectorXd joints(std::initializer_list<double> q) {
  return Eigen::Map<const Eigen::VectorXd>(q.begin(), static_cast<Eigen::Index>(q.size()));
}

// Joint axes as lines in the base frame, from the URDF joint list alone.
struct Pose {
  std::vector<Eigen::Vector3d> point, axis;
};

Pose walk(const RobotKinematics& model, const Eigen::VectorXd& q) {
  Pose p;
  Eigen::Isometry3d T = Eigen::Isometry3d::Identity();
  for (std::size_t i = 0; i < model.urdf_joints().size(); ++i) {
    const UrdfJoint& j = model.urdf_joints()[i];
    T = T * kestrel::testing::pose(j.origin_xyz, j.origin_rpy);
    p.point.push_back(T.translation());
    p.axis.push_back(T.linear() * j.axis);
    T = T * Eigen::AngleAxisd(q[static_cast<Eigen::Index>(i)], j.axis);
  }
  return p;
}

double line_distance(const Eigen::Vector3d& x, const Eigen::Vector3d& point,
                     const Eigen::Vector3d& dir) {
  return (x - point).cross(dir.normalized()).norm();
}

class OspreyArm : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    urdf_path_ = kestrel::algorithms::resolve_robot_urdf_path();
    const std::string config_path = kestrel::algorithms::resolve_robot_kinematics_config_path();
    config_ = YAML::LoadFile(config_path);
    model_ = std::make_unique<RobotKinematics>(config_path, urdf_path_);
    // The same arm carrying 0.5 kg at the tool centre point.
    YAML::Node loaded = YAML::Clone(config_);
    loaded["kinematics"]["payload"]["mass"] = kPayloadKg;
    loaded["kinematics"]["payload"]["com"] = loaded["kinematics"]["tool"]["xyz"];
    loaded_ = std::make_unique<RobotKinematics>(dir_.write("payload.yaml", YAML::Dump(loaded)),
                                                urdf_path_);
  }

  static std::vector<double> lower() { return model_->joint_lower_limits(); }
  static std::vector<double> upper() { return model_->joint_upper_limits(); }

  // Postures spread over the whole joint-limit box with a fixed seed, then the upright arm and
  // the arm stretched horizontally forwards and backwards with the wrist straight (the largest
  // lever arms).
  static std::vector<Eigen::VectorXd> postures(int count, unsigned seed) {
    std::mt19937 rng(seed);
    std::vector<Eigen::VectorXd> out;
    for (int i = 0; i < count; ++i) {
      Eigen::VectorXd q(6);
      for (int j = 0; j < 6; ++j) {
        q[j] = std::uniform_real_distribution<double>(lower()[j], upper()[j])(rng);
      }
      out.push_back(q);
    }
    out.push_back(joints({0, 0, -M_PI / 2, 0, -M_PI / 2, 0}));
    for (const double q2 : {M_PI / 2, -M_PI / 2}) {
      for (const double q4 : {0.0, M_PI / 2, -M_PI / 2}) {
        out.push_back(joints({0.3, q2, -M_PI / 2, q4, -M_PI / 2, 0.0}));
      }
    }
    return out;
  }

  static Eigen::VectorXd gravity(const Eigen::VectorXd& q) {
    const auto g = loaded_->gravity_compensation_kdl(std::vector<double>(q.data(), q.data() + 6));
    return Eigen::Map<const Eigen::VectorXd>(g.data(), 6);
  }

  // Diagonal of the loaded arm's mass matrix.
  static Eigen::VectorXd inertia(const Eigen::VectorXd& q) {
    Eigen::VectorXd d(6);
    for (int k = 0; k < 6; ++k) {
      const Eigen::VectorXd e = Eigen::VectorXd::Unit(6, k);
      d[k] =
          loaded_->inertia_compensation_kdl({q.data(), q.data() + 6}, {e.data(), e.data() + 6})[k];
    }
    return d;
  }

  static inline std::string urdf_path_;
  static inline YAML::Node config_;
  static inline TempDir dir_;  // the loaded arm's file
  static inline std::unique_ptr<RobotKinematics> model_, loaded_;
};

}  // namespace

TEST_F(OspreyArm, LinkInertiasArePhysicalAndTheArmWeighsUnderFiveKilograms) {
  tinyxml2::XMLDocument doc;
  ASSERT_EQ(doc.LoadFile(urdf_path_.c_str()), tinyxml2::XML_SUCCESS);
  const auto links = kestrel::algorithms::detail::parse_links(doc.FirstChildElement("robot"));
  // Each link carries at least the DM motors mounted on it (type 3 ~0.9 kg, type 1 ~0.35 kg);
  // link6 carries the gripper motor.
  const std::map<std::string, double> motors = {
      {"base_link", 0.9}, {"link1", 0.9},  {"link2", 0.9}, {"link3", 0.35},
      {"link4", 0.35},    {"link5", 0.35}, {"link6", 0.35}};
  double total = 0.0;
  for (const auto& [name, motor_mass] : motors) {
    ASSERT_EQ(links.count(name), 1u) << name;
    const auto& l = links.at(name);
    total += l.mass;
    EXPECT_GT(l.mass, motor_mass) << name;
    const auto& i = l.inertia;
    Eigen::Matrix3d I;
    I << i[0], i[1], i[2], i[1], i[3], i[4], i[2], i[4], i[5];
    const Eigen::Vector3d m = Eigen::SelfAdjointEigenSolver<Eigen::Matrix3d>(I).eigenvalues();
    EXPECT_GT(m.minCoeff(), 0.0) << name;
    EXPECT_GE(m[0] + m[1], m[2]) << name;  // triangle inequality of principal moments
    // Plausible for a body of this mass no larger than 0.35 m across.
    EXPECT_LT(m.maxCoeff(), l.mass * 0.35 * 0.35 / 4) << name;
  }
  EXPECT_EQ(links.size(), motors.size());
  EXPECT_LT(total, 5.0);
}

TEST_F(OspreyArm, HasSixLimitedRevoluteJointsAndNoGripperJoint) {
  ASSERT_EQ(model_->num_joints(), 6);
  ASSERT_EQ(model_->urdf_joints().size(), 6u);
  EXPECT_EQ(model_->urdf_joints().front().parent_link, "base_link");
  for (int j = 0; j < 6; ++j) {
    EXPECT_EQ(model_->urdf_joints()[j].type, "revolute");
    EXPECT_TRUE(model_->joint_has_limits()[j]);
    // The zero pose lies inside every range, clear of the planner's joint-limit warning margin.
    EXPECT_LT(lower()[j], -0.5) << j;
    EXPECT_GT(upper()[j], 0.5) << j;
  }
  // Joint 2 stops before the upper arm meets the turntable bracket, so a healthy arm never
  // reports the -1.57 rad that start-up refuses: that check catches a wrong zero or reading.
  EXPECT_GT(lower()[1], -1.57);
  EXPECT_LT(lower()[1], -1.2) << "the arm still leans well back";
  EXPECT_GT(upper()[1], 1.2);
}

TEST_F(OspreyArm, ReachesAboutSixtyCentimetresFromTheShoulder) {
  double reach = 0.0;
  for (const auto& q : postures(3000, 1)) {
    const Eigen::Vector3d flange = model_->forward_kinematics(q).topRightCorner<3, 1>();
    reach = std::max(reach, (flange - walk(*model_, q).point[1]).norm());
  }
  EXPECT_GT(reach, 0.55);
  EXPECT_LT(reach, 0.65);
}

TEST_F(OspreyArm, SingularityTargetsAreTheAlignedWristAndTheStretchedElbow) {
  const auto& sp = config_["singularity_protection"];
  const double target = sp["wrist_target_abs_rad"].as<double>();
  for (auto q : postures(200, 2)) {
    for (const double q5 : {target, -target, 0.0}) {
      q[4] = q5;
      const Pose p = walk(*model_, q);
      // Spherical wrist: axes 4 and 6 pass through the wrist centre (origin of joint 5).
      EXPECT_LT(line_distance(p.point[4], p.point[3], p.axis[3]), 1e-12);
      EXPECT_LT(line_distance(p.point[4], p.point[5], p.axis[5]), 1e-12);
      const double alignment = p.axis[3].cross(p.axis[5]).norm();
      if (q5 == 0.0) {
        EXPECT_NEAR(alignment, 1.0, 1e-12);  // bent wrist: far from the singularity
      } else {
        EXPECT_LT(alignment, 1e-12) << q.transpose();
      }
    }
  }
  // The elbow target stretches the arm most: wrist centre farthest from the shoulder axis.
  const double j3 = sp["elbow_j3_target_rad"].as<double>();
  const double j4 = sp["elbow_j4_target_rad"].as<double>();
  EXPECT_GT(j3, lower()[2]);
  EXPECT_LT(j3, upper()[2]);
  const auto stretch = [&](Eigen::VectorXd q, double q3) {
    q[2] = q3;
    const Pose p = walk(*model_, q);
    return line_distance(p.point[4], p.point[1], p.axis[1]);
  };
  for (auto q : postures(30, 3)) {
    q[3] = j4;
    double best = 0.0;
    double best_q3 = 0.0;
    for (int i = 0; i <= 3600; ++i) {
      const double q3 = -M_PI + i * (2 * M_PI / 3600);
      if (stretch(q, q3) > best) {
        best = stretch(q, q3);
        best_q3 = q3;
      }
    }
    EXPECT_NEAR(best_q3, j3, 2 * M_PI / 3600);
    EXPECT_GE(stretch(q, j3), best - 1e-12);
  }
  // The zero pose is clear of every singularity zone.
  EXPECT_GT(std::abs(target), sp["wrist_warn_margin_rad"].as<double>());
  EXPECT_GT(std::hypot(j3, j4), sp["elbow_warn_radius_rad"].as<double>());
  EXPECT_GT(walk(*model_, Eigen::VectorXd::Zero(6)).point[4].head<2>().norm(),
            sp["shoulder_warn_radius_m"].as<double>());
}

TEST_F(OspreyArm, GravityWithPayloadStaysBelowTheTorqueWarnings) {
  const YAML::Node configured = config_["runtime_joint_safety"]["torque_warn_limits"];
  const auto warn =
      configured ? seq(configured) : std::vector<double>(kDefaultWarn, kDefaultWarn + 6);
  std::vector<Eigen::VectorXd> all = postures(5000, 4);
  // Dense 9^4 grid over the joints that move masses against gravity (joint 1 only turns the arm).
  for (int n = 0; n < 9 * 9 * 9 * 9; ++n) {
    Eigen::VectorXd q = joints({0, 0, 0, 0, 0, 1.0});
    for (int j = 1, rest = n; j <= 4; ++j, rest /= 9) {
      q[j] = lower()[j] + (rest % 9) * (upper()[j] - lower()[j]) / 8;
    }
    all.push_back(q);
  }
  Eigen::VectorXd worst = Eigen::VectorXd::Zero(6);
  for (const auto& q : all) {
    worst = worst.cwiseMax(gravity(q).cwiseAbs());
  }
  for (int j = 0; j < 6; ++j) {
    EXPECT_LT(worst[j], warn[j]) << "joint " << j + 1;
    EXPECT_LT(worst[j], kDefaultWarn[j]) << "joint " << j + 1;
  }
  EXPECT_GT(worst[1], 10.0);  // the shoulder really does carry the arm
}

TEST_F(OspreyArm, GainsAndLimitsFitTheMotorsAndTheLinkInertias) {
  const auto kp = seq(config_["mit_mode"]["kp"]);
  const auto kd = seq(config_["mit_mode"]["kd"]);
  const auto ff = seq(config_["mit_mode"]["feedforward_tau_limits"]);
  const auto acc = seq(config_["joint_trajectory"]["max_acc_limits"]);
  const auto vel = seq(config_["joint_trajectory"]["max_vel_limits"]);
  const auto jerk = seq(config_["joint_trajectory"]["max_jerk_limits"]);
  const auto stop = seq(config_["runtime_joint_safety"]["torque_stop_limits"]);
  const double vel_stop_scale = config_["trajectory_safety"]["velocity_stop_scale"].as<double>();
  Eigen::VectorXd j_max = Eigen::VectorXd::Zero(6);
  Eigen::VectorXd need = Eigen::VectorXd::Zero(6);
  const Eigen::Map<const Eigen::VectorXd> accel(acc.data(), 6);
  for (const unsigned seed : {5u, 6u}) {
    for (const auto& q : postures(2000, seed)) {
      const Eigen::VectorXd m = inertia(q);
      j_max = j_max.cwiseMax(m);
      need = need.cwiseMax(gravity(q).cwiseAbs() + m.cwiseProduct(accel));
    }
  }
  for (int j = 0; j < 6; ++j) {
    SCOPED_TRACE("joint " + std::to_string(j + 1));
    EXPECT_GT(kp[j], 0.0);
    EXPECT_LE(kp[j], 500.0);  // MIT frame ranges
    EXPECT_LE(kd[j], 5.0);
    // The motor closes this loop itself, fast: the control period does not bound the gains,
    // the inertia does. Damping at the heaviest configuration: well damped from joint 3 on;
    // the base joints trade damping for stiffness, since kd cannot exceed the frame's 5.0 and
    // their friction needs kp to hold a straight tool line (their motors' viscous friction
    // adds the rest).
    EXPECT_GE(kd[j] / (2 * std::sqrt(kp[j] * j_max[j])), j < 2 ? 0.2 : 0.5);
    // Stiffness: friction of the joint's motor (0.25 N·m for type 3, 0.06 for type 1) moves
    // the joint by at most 2.5 mrad.
    EXPECT_LE((j < 3 ? 0.25 : 0.06) / kp[j], 0.0025);
    EXPECT_GE(ff[j], need[j]);  // holding plus accelerating at the planner's limit is not clipped
    EXPECT_LE(ff[j], stop[j]);
    EXPECT_LT(ff[j], kPeakTorque[j]);
    EXPECT_GT(vel[j], 0.0);
    EXPECT_LE(vel[j] * vel_stop_scale, kMotorSpeed[j]);
    EXPECT_GT(jerk[j], acc[j]);
  }
  for (const double s : seq(config_["motor_signs"])) {
    EXPECT_EQ(std::abs(s), 1.0);
  }
  for (const char* key : {"max_acc_limits", "max_dec_limits", "kp_apr_limits"}) {
    const auto values = seq(config_["pos_vel_mode"][key]);
    ASSERT_EQ(values.size(), 6u) << key;
    for (const double v : values) {
      EXPECT_EQ(static_cast<double>(static_cast<float>(v)), v) << key;  // survives the register
    }
  }
}

TEST(OspreyArmFiles, UrdfMatchesItsGenerator) {
  if (std::system("python3 --version > /dev/null 2>&1") != 0) {
    GTEST_SKIP() << "python3 not available";
  }
  const std::string command =
      std::string("python3 ") + KESTREL_SOURCE_DIR + "/tools/urdf/generate_osprey_urdf.py --check";
  EXPECT_EQ(std::system(command.c_str()), 0) << command;
}
