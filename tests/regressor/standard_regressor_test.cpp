// The generated regressor against KDL's inverse dynamics of the URDF's own inertial parameters:
// Y(q, dq, ddq) · π must be the same torques, joint 1's angle must not enter, and a link cannot
// load the joints beyond it.
#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <array>
#include <cmath>
#include <random>
#include <vector>

#include "algorithms/test_files.hpp"
#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/algorithms/standard_regressor.hpp"

namespace {

using kestrel::algorithms::standard_inertial_parameters;
using kestrel::algorithms::standard_regressor;

class Regressor : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    model_ = new RobotKinematics(kestrel::algorithms::resolve_robot_kinematics_config_path(),
                                 kestrel::algorithms::resolve_robot_urdf_path());
  }
  static void TearDownTestSuite() {
    delete model_;
    model_ = nullptr;
  }

  struct State {
    std::vector<double> q, dq, ddq;
  };
  static std::vector<State> random_states(int count, unsigned seed) {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> unit(-1.0, 1.0);
    std::vector<State> out;
    for (int k = 0; k < count; ++k) {
      State s;
      for (int j = 0; j < 6; ++j) {
        const double lo = model_->joint_lower_limits()[j];
        const double hi = model_->joint_upper_limits()[j];
        s.q.push_back(lo + (hi - lo) * 0.5 * (unit(rng) + 1.0));
        s.dq.push_back(3.0 * unit(rng));
        s.ddq.push_back(10.0 * unit(rng));
      }
      out.push_back(s);
    }
    return out;
  }
  static std::array<double, 6> torques(const std::array<double, 360>& Y,
                                       const std::array<double, 60>& pi) {
    std::array<double, 6> tau{};
    for (int r = 0; r < 6; ++r) {
      for (int c = 0; c < 60; ++c) {
        tau[r] += Y[60 * r + c] * pi[c];
      }
    }
    return tau;
  }

  static inline RobotKinematics* model_ = nullptr;
};

TEST_F(Regressor, TimesTheUrdfParametersIsKdlInverseDynamics) {
  const auto pi = standard_inertial_parameters(*model_);
  double worst = 0.0;
  for (const auto& s : random_states(200, 7)) {
    std::array<double, 360> Y{};
    standard_regressor(s.q.data(), s.dq.data(), s.ddq.data(), Y.data());
    const auto tau = torques(Y, pi);
    const auto kdl = model_->dynamic_compensation_kdl(s.q, s.dq, s.ddq);
    double norm = 0.0;
    double diff = 0.0;
    for (int j = 0; j < 6; ++j) {
      norm += kdl[j] * kdl[j];
      diff += (tau[j] - kdl[j]) * (tau[j] - kdl[j]);
    }
    worst = std::max(worst, std::sqrt(diff) / std::max(std::sqrt(norm), 1e-6));
  }
  EXPECT_LT(worst, 1e-9);
}

TEST_F(Regressor, AtRestItIsTheGravityTorque) {
  const auto pi = standard_inertial_parameters(*model_);
  const std::vector<double> zero(6, 0.0);
  for (const auto& s : random_states(20, 11)) {
    std::array<double, 360> Y{};
    standard_regressor(s.q.data(), zero.data(), zero.data(), Y.data());
    const auto tau = torques(Y, pi);
    const auto g = model_->gravity_compensation_kdl(s.q);
    for (int j = 0; j < 6; ++j) {
      EXPECT_NEAR(tau[j], g[j], 1e-9 * (1.0 + std::abs(g[j]))) << j;
    }
  }
}

TEST_F(Regressor, JointOnesAngleDoesNotEnter) {
  for (const auto& s : random_states(10, 3)) {
    auto turned = s.q;
    turned[0] += 1.234;
    std::array<double, 360> a{};
    std::array<double, 360> b{};
    standard_regressor(s.q.data(), s.dq.data(), s.ddq.data(), a.data());
    standard_regressor(turned.data(), s.dq.data(), s.ddq.data(), b.data());
    EXPECT_EQ(a, b);  // bit for bit
  }
}

TEST_F(Regressor, ALinkLoadsOnlyTheJointsThatCarryIt) {
  const auto s = random_states(1, 5).front();
  std::array<double, 360> Y{};
  standard_regressor(s.q.data(), s.dq.data(), s.ddq.data(), Y.data());
  for (int joint = 0; joint < 6; ++joint) {
    for (int link = 0; link < joint; ++link) {
      for (int k = 0; k < 10; ++k) {
        EXPECT_EQ(Y[60 * joint + 10 * link + k], 0.0) << "joint " << joint << " link " << link;
      }
    }
  }
  // And every link does load its own joint: its columns in its own row are not all zero.
  for (int link = 0; link < 6; ++link) {
    double sum = 0.0;
    for (int k = 0; k < 10; ++k) {
      sum += std::abs(Y[60 * link + 10 * link + k]);
    }
    EXPECT_GT(sum, 0.0) << link;
  }
}

TEST_F(Regressor, PayloadCountsIntoTheLastLink) {
  kestrel::testing::TempDir dir;
  YAML::Node config = YAML::LoadFile(kestrel::algorithms::resolve_robot_kinematics_config_path());
  config["kinematics"]["payload"]["mass"] = 0.5;
  config["kinematics"]["payload"]["com"] = config["kinematics"]["tool"]["xyz"];
  const std::string path = dir.write("payload.yaml", YAML::Dump(config));
  RobotKinematics loaded(path, kestrel::algorithms::resolve_robot_urdf_path());
  const auto plain = standard_inertial_parameters(*model_);
  const auto heavy = standard_inertial_parameters(loaded);
  EXPECT_NEAR(heavy[50] - plain[50], 0.5, 1e-12);
  for (int i = 0; i < 50; ++i) {
    EXPECT_EQ(heavy[i], plain[i]) << i;
  }
  for (const auto& s : random_states(20, 9)) {
    std::array<double, 360> Y{};
    standard_regressor(s.q.data(), s.dq.data(), s.ddq.data(), Y.data());
    const auto tau = torques(Y, heavy);
    const auto kdl = loaded.dynamic_compensation_kdl(s.q, s.dq, s.ddq);
    for (int j = 0; j < 6; ++j) {
      EXPECT_NEAR(tau[j], kdl[j], 1e-9 * (1.0 + std::abs(kdl[j]))) << j;
    }
  }
}

}  // namespace
