// The arm's rigid-body mechanics behind the simulated motors: gravity, hard stops, feed-forward,
// hidden payload, torque limits and the gripper linkage. Driven through the motors' own
// protocol (enable and MIT frames) in simulated time, so every run is the same.
#include "kestrel_sim/rigid_body_arm_plant.hpp"

#include <gtest/gtest.h>

#include <cmath>

#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/controller/controller_config.hpp"
#include "kestrel_sim/dm_protocol.hpp"
#include "kestrel_sim/motor_simulation.hpp"
#include "sim_test_support.hpp"

namespace kestrel::sim {
namespace {

using Joints = std::array<double, 6>;

const RobotKinematics& model() {
  static const RobotKinematics m;
  return m;
}

// The seven motors of the arm on the rigid-body plant, in simulated time.
struct Arm : test::Harness {
  explicit Arm(const RigidBodyArmOptions& options = {})
      : Arm(RigidBodyArmPlant::from_shipped_configuration(options).release()) {}
  explicit Arm(RigidBodyArmPlant* p)
      : Harness(arm_motor_configs(), std::unique_ptr<Plant>(p)), plant(*p) {}

  RigidBodyArmPlant& plant;
};

TEST(RigidBodyArm, RestsWhereItWasPutUntilDrivenAndTheMotorTorqueSaturates) {
  RigidBodyArmOptions options;
  options.start_posture = {0.2, 0.3, -0.5, 0.1, -0.4, 0.0};
  Arm arm(options);
  arm.run(1.0);
  EXPECT_TRUE(arm.plant.supported());
  EXPECT_EQ(arm.plant.joint_positions(), options.start_posture);
  // Motor coordinates: joint x sign.
  EXPECT_DOUBLE_EQ(arm.plant.position(1), 0.3 * arm.plant.motor_signs()[1]);
  // Joint 4 (10 N·m motor) asked for far more than it can give.
  arm.enable({1, 2, 3, 4, 5, 6, 7});
  arm.mit(3, {0.0, 0.0, 0.0, 0.0, 50.0});
  arm.run(0.002);
  EXPECT_NEAR(arm.sim.state(3).torque, 10.0, 1e-9);
}

TEST(RigidBodyArm, UnpoweredArmFallsOntoItsStopsAndComesToRest) {
  RigidBodyArmOptions options;
  options.start_posture = {0.0, 0.2, -0.3, 0.0, -0.5, 0.0};
  Arm arm(options);
  arm.plant.release_support();
  double energy = arm.plant.mechanical_energy();
  double rise = 0.0;
  for (int i = 0; i < 400; ++i) {
    arm.run(0.01);
    const double e = arm.plant.mechanical_energy();
    rise = std::max(rise, e - energy);  // friction and stops only take energy out
    energy = e;
  }
  EXPECT_LT(rise, 1e-3);
  const auto& q = arm.plant.joint_positions();
  for (int j = 0; j < 6; ++j) {
    EXPECT_LT(std::abs(arm.plant.joint_velocities()[j]), 0.05) << "joint " << j + 1;
    EXPECT_GE(q[j], model().joint_lower_limits()[j] - 1e-12);
    EXPECT_LE(q[j], model().joint_upper_limits()[j] + 1e-12);
  }
  // Leaning forward from upright, the shoulder falls forward onto its upper stop.
  EXPECT_DOUBLE_EQ(q[1], model().joint_upper_limits()[1]);
}

// Holds `posture` with the shipped MIT gains for three seconds, with or without the model's
// gravity torque as feed-forward; returns the largest remaining joint error.
double hold_error(const Joints& posture, bool feed_forward, double hidden_payload = 0.0) {
  RigidBodyArmOptions options;
  options.start_posture = posture;
  options.payload_mass = hidden_payload;
  Arm arm(options);
  const auto mit = kestrel::controller::load_mit_mode_config();
  const auto signs = arm.plant.motor_signs();
  const std::vector<double> q(posture.begin(), posture.end());
  const auto gravity = const_cast<RobotKinematics&>(model()).gravity_compensation_kdl(q);
  arm.enable({1, 2, 3, 4, 5, 6, 7});
  for (int cycle = 0; cycle < 1200; ++cycle) {  // 400 Hz commands, as the controller sends them
    for (size_t j = 0; j < 6; ++j) {
      arm.mit(j, {posture[j] * signs[j], 0.0, mit.kp[j], mit.kd[j],
                  feed_forward ? gravity[j] * signs[j] : 0.0});
    }
    arm.run(0.0025);
  }
  double worst = 0.0;
  for (int j = 0; j < 6; ++j) {
    worst = std::max(worst, std::abs(arm.plant.joint_positions()[j] - posture[j]));
  }
  return worst;
}

TEST(RigidBodyArm, GravityFeedForwardHoldsThePostureAndAHiddenPayloadMakesItSag) {
  const Joints reaching = {0.3, 0.6, -0.2, 0.0, -0.6, 0.0};
  const double without = hold_error(reaching, false);
  const double with = hold_error(reaching, true);
  EXPECT_GT(without, 0.03) << "the shipped gains alone let the arm sag";
  EXPECT_LT(with, 0.01);
  EXPECT_LT(with * 5.0, without);
  const Joints forward = {0.0, 0.7, -0.3, 0.0, -0.5, 0.0};
  EXPECT_GT(hold_error(forward, true, 0.5), hold_error(forward, true) + 0.005);
}

TEST(RigidBodyArm, GripperTravelsBetweenItsStopsThroughTheLinkage) {
  Arm arm;
  arm.enable({1, 2, 3, 4, 5, 6, 7});
  // Motor angles of the linkage at known openings (0.085 m, 0.0425 m, 0, 0.07 m).
  for (double angle :
       {-1.235598154197257, -0.6822889509948515, -0.00019983474059870332, -1.0307842463707704}) {
    for (int i = 0; i < 400; ++i) {
      arm.mit(6, {angle, 0.0, 8.0, 0.2, 0.0});
      arm.run(0.0025);
    }
    EXPECT_NEAR(arm.plant.gripper_angle(), angle, 0.02);
  }
  // Driven hard beyond open it stops at its end.
  for (int i = 0; i < 400; ++i) {
    arm.mit(6, {-3.0, 0.0, 20.0, 0.2, 0.0});
    arm.run(0.0025);
  }
  EXPECT_NEAR(arm.plant.gripper_angle(), -1.2365, 1e-9);
}

}  // namespace
}  // namespace kestrel::sim
