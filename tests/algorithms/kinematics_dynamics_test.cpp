// Forward kinematics and torque compensation against an independent model of the test arm:
// frames from a plain Eigen walk, gravity from the potential energy, the mass matrix from the
// kinetic energy and Coriolis torques from finite differences of the mass matrix.
#include <gtest/gtest.h>

#include <Eigen/Eigenvalues>
#include <cmath>
#include <functional>
#include <kdl/frames.hpp>
#include <random>
#include <thread>

#include "algorithms/test_arm.hpp"
#include "kestrel/algorithms/chain_dynamics.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "support/refusal.hpp"

using namespace kestrel::testing;
using Vec = Eigen::VectorXd;

namespace {

std::vector<double> to_std(const Vec& v) {
  return {v.data(), v.data() + v.size()};
}

Vec to_eigen(const std::vector<double>& v) {
  return Eigen::Map<const Vec>(v.data(), static_cast<Eigen::Index>(v.size()));
}

class KinematicsDynamics : public ::testing::Test {
 protected:
  KinematicsDynamics() : files_(arm_.write(dir_)), model_(files_.first, files_.second) {}

  std::vector<Vec> random_vectors(int count, double range, unsigned seed) const {
    std::mt19937 rng(seed);
    std::uniform_real_distribution<double> u(-range, range);
    std::vector<Vec> out(static_cast<std::size_t>(count), Vec(6));
    for (Vec& q : out) {
      for (double& v : q) {
        v = u(rng);
      }
    }
    return out;
  }

  Vec gravity(const Vec& q) { return to_eigen(model_.gravity_compensation_kdl(to_std(q))); }
  Eigen::MatrixXd mass_matrix(const Vec& q) const {
    const Eigen::Index n = q.size();
    Eigen::MatrixXd M(n, n);
    for (Eigen::Index k = 0; k < n; ++k) {
      M.col(k) = to_eigen(model_.inertia_compensation_kdl(to_std(q), to_std(Vec::Unit(n, k))));
    }
    return M;
  }

  TempDir dir_;
  TestArm arm_;
  std::pair<std::string, std::string> files_;
  RobotKinematics model_;
};

}  // namespace

TEST_F(KinematicsDynamics, KdlAndScrewPosesMatchTheIndependentFrameWalk) {
  EXPECT_LT((model_.home_transform() - arm_.frames(Vec::Zero(6)).at("l7").matrix()).norm(), 1e-12);
  for (const auto& q : random_vectors(200, M_PI, 42)) {
    const std::vector<double> fk = model_.forwardKinematics_kdl(to_std(q));
    const Eigen::Isometry3d expected = arm_.tcp(q);
    EXPECT_LT((Eigen::Vector3d(fk[0], fk[1], fk[2]) - expected.translation()).norm(), 1e-12);
    const Eigen::Quaterniond r(fk[6], fk[3], fk[4], fk[5]);
    EXPECT_NEAR(r.norm(), 1.0, 1e-12);
    EXPECT_LT((r.toRotationMatrix() - expected.linear()).norm(), 1e-12);
    // The screw-axis model gives the flange; the tool transform takes it to the same point.
    const Eigen::Matrix4d flange = model_.forward_kinematics(q);
    EXPECT_LT((flange - arm_.frames(q).at("l7").matrix()).norm(), 1e-12);
    EXPECT_LT(((flange * model_.flange_to_tcp()) - expected.matrix()).norm(), 1e-12);
  }
}

// Gravity is the gradient of the potential energy; the mass matrix is symmetric, positive
// definite and gives the kinetic energy; C(q, dq) dq = dM/dt dq - 1/2 d(dq' M dq)/dq; the full
// inverse dynamics are the sum of the three. Derivatives by central differences.
TEST_F(KinematicsDynamics, CompensationTermsFollowFromTheEnergyOfTheIndependentModel) {
  const double h = 1e-6;
  const auto postures = random_vectors(30, 2.0, 4);
  const auto rates = random_vectors(30, 2.0, 3);
  const auto accelerations = random_vectors(30, 2.0, 8);
  for (std::size_t i = 0; i < postures.size(); ++i) {
    const Vec& q = postures[i];
    const Vec& dq = rates[i];
    const Vec g = gravity(q);
    const Eigen::MatrixXd M = mass_matrix(q);
    EXPECT_LT((M - M.transpose()).norm(), 1e-12);
    EXPECT_GT(Eigen::SelfAdjointEigenSolver<Eigen::MatrixXd>(M).eigenvalues().minCoeff(), 0.0);
    const double kinetic = arm_.kinetic(q, dq);
    EXPECT_NEAR(0.5 * dq.dot(M * dq), kinetic, 1e-7 * (1.0 + kinetic));
    Vec coriolis = (mass_matrix(q + h * dq) - mass_matrix(q - h * dq)) / (2 * h) * dq;
    for (Eigen::Index j = 0; j < q.size(); ++j) {
      const Vec e = Vec::Unit(q.size(), j) * h;
      EXPECT_NEAR(g[j], (arm_.potential(q + e) - arm_.potential(q - e)) / (2 * h), 1e-7);
      coriolis[j] -=
          0.5 * (dq.dot(mass_matrix(q + e) * dq) - dq.dot(mass_matrix(q - e) * dq)) / (2 * h);
    }
    const Vec c = to_eigen(model_.coriolis_compensation_kdl(to_std(q), to_std(dq)));
    EXPECT_LT((c - coriolis).norm(), 1e-6 * (1.0 + coriolis.norm()));
    const Vec& ddq = accelerations[i];
    const Vec full = to_eigen(model_.dynamic_compensation_kdl(to_std(q), to_std(dq), to_std(ddq)));
    EXPECT_LT((full - (M * ddq + c + g)).norm(), 1e-12);
  }
}

TEST_F(KinematicsDynamics, RejectsVectorsOfTheWrongSize) {
  const std::vector<double> ok(6, 0.1), bad(5, 0.1);
  const std::string mismatch = ": size mismatch between input vector and KDL chain joints";
  const std::string gravity_text = "gravity_compensation_kdl" + mismatch;
  const std::vector<std::pair<std::function<void()>, std::string>> rows = {
      {[&] { model_.forwardKinematics_kdl(bad); }, "forwardKinematics_kdl" + mismatch},
      {[&] { model_.gravity_compensation_kdl(bad); }, gravity_text},
      {[&] { model_.coriolis_compensation_kdl(bad, ok); }, gravity_text},
      {[&] { model_.coriolis_compensation_kdl(ok, bad); }, gravity_text},
      {[&] { model_.inertia_compensation_kdl(ok, bad); },
       "inertia_compensation_kdl: size mismatch"},
      {[&] { model_.dynamic_compensation_kdl(ok, ok, bad); },
       "dynamic_compensation_kdl: size mismatch"},
      {[&] { model_.dynamic_compensation_kdl(bad, ok, ok); },
       "dynamic_compensation_kdl: size mismatch"},
  };
  for (const auto& [call, text] : rows) {
    EXPECT_EQ(refusal_of<std::runtime_error>(call), text);
  }
}

// The model's queries from four threads at once, and a thread's private ChainDynamics beside
// them, give exactly the serial results.
TEST_F(KinematicsDynamics, ConcurrentQueriesGiveTheSerialResults) {
  const auto postures = random_vectors(50, 2.0, 9);
  const auto rates = random_vectors(50, 3.0, 10);
  std::vector<std::vector<double>> q, rate, gravity, coriolis, inertia, poses;
  for (std::size_t i = 0; i < postures.size(); ++i) {
    q.push_back(to_std(postures[i]));
    rate.push_back(to_std(rates[i]));
    gravity.push_back(model_.gravity_compensation_kdl(q[i]));
    coriolis.push_back(model_.coriolis_compensation_kdl(q[i], rate[i]));
    inertia.push_back(model_.inertia_compensation_kdl(q[i], rate[i]));
    poses.push_back(model_.forwardKinematics_kdl(q[i]));
  }
  std::vector<std::thread> threads;
  std::vector<int> mismatches(5, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 20; ++round) {
        for (std::size_t i = 0; i < q.size(); ++i) {
          mismatches[t] += model_.gravity_compensation_kdl(q[i]) != gravity[i];
          mismatches[t] += model_.forwardKinematics_kdl(q[i]) != poses[i];
        }
      }
    });
  }
  threads.emplace_back([&] {
    kestrel::algorithms::ChainDynamics own(model_);
    std::vector<double> out(static_cast<std::size_t>(own.num_joints()));
    for (int round = 0; round < 20; ++round) {
      for (std::size_t i = 0; i < q.size(); ++i) {
        const double* x = q[i].data();
        const double* v = rate[i].data();
        mismatches[4] += own.gravity(x, out.data()) != 0 || out != gravity[i];
        mismatches[4] += own.coriolis(x, v, out.data()) != 0 || out != coriolis[i];
        mismatches[4] += own.inertia(x, v, out.data()) != 0 || out != inertia[i];
      }
    }
  });
  for (auto& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(mismatches, std::vector<int>(5, 0));
}

TEST_F(KinematicsDynamics, EulerQuaternionAndErrorHelpers) {
  std::mt19937 rng(11);
  std::uniform_real_distribution<double> angle(-M_PI, M_PI);
  std::uniform_real_distribution<double> pitch(-1.5, 1.5);
  for (int i = 0; i < 100; ++i) {
    const Eigen::Vector3d rpy(angle(rng), pitch(rng), angle(rng));
    const Eigen::Matrix3d R = kestrel::testing::rpy_matrix(rpy);
    EXPECT_LT((model_.rotation_matrix_to_euler(R) - rpy).norm(), 1e-12);
    const Eigen::Vector4d q = model_.rotation_matrix_to_quaternion(R);
    EXPECT_LT((Eigen::Quaterniond(q[3], q[0], q[1], q[2]).toRotationMatrix() - R).norm(), 1e-12);
    // The error turns the current orientation into the target, in the base frame.
    const Eigen::Vector3d turn =
        Eigen::Vector3d(angle(rng), angle(rng), angle(rng)).normalized() * 0.7;
    const Eigen::Matrix3d target = Eigen::AngleAxisd(turn.norm(), turn.normalized()) * R;
    const Eigen::Vector4d qt = model_.rotation_matrix_to_quaternion(target);
    EXPECT_LT((model_.quaternion_error(qt, q) - turn).norm(), 1e-12);
    EXPECT_LT(model_.quaternion_error(-2.0 * q, q).norm(), 1e-12);  // sign and scale free
  }
  // Gimbal lock: R20 = +1 gives pitch -pi/2 with yaw 0; R20 = -1 gives +pi/2.
  for (const double sign : {1.0, -1.0}) {
    const Eigen::Vector3d e =
        model_.rotation_matrix_to_euler(kestrel::testing::rpy_matrix({0.4, -sign * M_PI / 2, 0.0}));
    EXPECT_NEAR(e.y(), -sign * M_PI / 2, 1e-7);
    EXPECT_EQ(e.z(), 0.0);
  }
}
