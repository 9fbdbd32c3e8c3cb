// The simulated motors driving their mechanics: MIT and position-velocity control laws, torque
// limits, friction, external torque, temperatures, the Plant contract, and the arm's rigid-body
// model behind the motors (gravity, hard stops, feed-forward, hidden payload, the gripper
// linkage). All in simulated time through the motors' own protocol, so every run is the same.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cmath>

#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/controller/controller_config.hpp"
#include "kestrel_sim/rigid_body_arm_plant.hpp"
#include "sim_test_support.hpp"

namespace kestrel::sim {
namespace {

using test::command_bytes;
using test::frictionless;
using test::Harness;
using ::testing::MatchesRegex;

TEST(MitControl, PdGainsSettleEachJointAtItsTarget) {
  Harness h;
  h.enable({0x02, 0x04});
  h.mit(1, {-0.5, 0.0, 100.0, 5.0, 0.0});
  h.mit(3, {1.0, 0.0, 50.0, 1.0, 0.0});
  h.run(3.0);
  // Coulomb friction leaves at most friction / kp of error.
  EXPECT_NEAR(h.sim.state(1).q, -0.5, 0.4 / 100.0 + 1e-3);
  EXPECT_NEAR(h.sim.state(3).q, 1.0, 0.1 / 50.0 + 1e-3);
  EXPECT_NEAR(h.sim.state(3).dq, 0.0, 1e-3);
}

TEST(MitControl, TorqueIsClampedToTheMotorLimit) {
  Harness h({frictionless(1, 1, 1.0)});
  h.enable({0x01});
  h.mit(0, {12.0, 0.0, 500.0, 0.0, 10.0});  // asks for 6010 N·m
  h.run(0.01);
  EXPECT_DOUBLE_EQ(h.sim.state(0).torque, 10.0);
  // Saturated torque is reported as 0xFFF; 10 N·m on 1 kg·m² for 10 ms gives 0.1 rad/s.
  EXPECT_THAT(h.reply(0x7FF, {0x01, 0x00, 0xCC}), MatchesRegex(".. .. .. .. .F FF .. .."));
  EXPECT_NEAR(h.sim.state(0).dq, 0.1, 1e-6);
}

TEST(MitControl, DisabledOrUncommandedMotorsCoastAndExternalTorqueAdds) {
  Harness h({frictionless(1, 1), frictionless(1, 2)});
  h.sim.plant().set_state(0, 0.0, 2.0);
  h.sim.plant().set_state(1, 0.0, 2.0);
  h.mit(0, {0.0, 0.0, 100.0, 1.0, 0.0});  // disabled: ignored
  h.enable({0x02});                       // enabled, no MIT frame yet: no torque
  h.run(1.0);
  EXPECT_NEAR(h.sim.state(0).q, 2.0, 1e-9);
  EXPECT_NEAR(h.sim.state(1).q, 2.0, 1e-9);

  // Disabling a holding motor releases the shaft to the external torque.
  h.sim.set_external_torque(0, -0.5);
  h.enable({0x01});
  h.mit(0, {2.0, 0.0, 200.0, 2.0, 0.0});
  h.run(1.0);
  const double held = h.sim.state(0).q;
  EXPECT_NEAR(held, 2.0 - 0.5 / 200.0, 1e-3);
  h.send(0x01, command_bytes(0xFD));
  h.run(0.2);
  EXPECT_NEAR(h.sim.state(0).q, held - 0.5 * 50.0 * 0.2 * 0.2, 0.01);
}

TEST(Friction, StaticFrictionHoldsBelowTheCoulombLevel) {
  Harness h;  // joint 4: coulomb 0.1 N·m
  h.sim.set_external_torque(3, 0.09);
  h.run(0.5);
  EXPECT_EQ(h.sim.state(3).q, 0.0);
  h.sim.set_external_torque(3, 0.11);
  h.run(0.5);
  EXPECT_GT(h.sim.state(3).q, 0.0);
}

TEST(PosVelControl, FollowsATrapezoidWithinSpeedAccAndDec) {
  Harness h({frictionless(1, 1)});
  h.write_register(0x01, reg::kControlMode, dm::kModePosVel);
  h.write_register(0x01, reg::kAcc, dm::float_bits(5.0f));
  h.write_register(0x01, reg::kDec, dm::float_bits(2.0f));
  h.send(0x101, dm::encode_pos_vel({2.0f, 1.0f}));  // disabled: ignored
  h.run(0.1);
  EXPECT_EQ(h.sim.state(0).q, 0.0);

  h.enable({0x01});
  h.send(0x101, dm::encode_pos_vel({2.0f, 1.0f}));
  // 0.2 s accelerating at 5, cruise at 1 rad/s, 0.5 s braking at 2: 2.0 + 0.1 + 0.25 s.
  double peak = 0.0, reached = -1.0;
  for (int ms = 1; ms <= 3500; ++ms) {
    h.run(0.001);
    const MotorState s = h.sim.state(0);
    peak = std::max(peak, s.dq);
    if (ms == 100) {
      EXPECT_NEAR(s.dq, 0.5, 0.05);  // ACC-limited
    }
    if (reached < 0.0 && s.q > 1.999) {
      reached = ms / 1000.0;
    }
  }
  EXPECT_LT(peak, 1.02);
  EXPECT_NEAR(reached, 2.35, 0.1);
  EXPECT_NEAR(h.sim.state(0).q, 2.0, 1e-3);

  // In MIT mode the same frame does nothing.
  h.write_register(0x01, reg::kControlMode, dm::kModeMit);
  h.send(0x101, dm::encode_pos_vel({0.0f, 1.0f}));
  EXPECT_FALSE(h.last.front().command.applied);
  h.run(0.5);
  EXPECT_NEAR(h.sim.state(0).q, 2.0, 1e-2);
}

TEST(PosVelControl, HoldsItsPositionAgainstALoadWhenEnabled) {
  Harness h;
  h.write_register(0x02, reg::kControlMode, dm::kModePosVel);
  h.sim.set_posture({0.0, 0.8});
  h.enable({0x02});
  h.sim.set_external_torque(1, 20.0);  // below t_max 28: the speed loop's integrator takes it
  h.run(2.0);
  EXPECT_NEAR(h.sim.state(1).q, 0.8, 0.01);
  EXPECT_NEAR(h.sim.state(1).torque, -20.0, 0.5);
  h.sim.set_external_torque(1, 40.0);  // beyond t_max: pushed away
  h.run(0.5);
  EXPECT_GT(h.sim.state(1).q, 1.0);
}

TEST(Thermal, RotorWarmsWithSustainedTorqueOnly) {
  Harness h({frictionless(1, 1), frictionless(1, 2)});
  h.sim.set_external_torque(0, -8.0);
  h.enable({0x01});
  h.mit(0, {0.0, 0.0, 500.0, 5.0, 0.0});
  h.run(60.0);
  const MotorState loaded = h.sim.state(0), idle = h.sim.state(1);
  EXPECT_NEAR(loaded.torque, 8.0, 0.01);
  // 60 K at full torque, (8/10)² of it, one half of a 120 s time constant: about 15 K.
  EXPECT_NEAR(loaded.t_rotor, 30.0 + 60.0 * 0.64 * (1.0 - std::exp(-0.5)), 0.5);
  EXPECT_GT(loaded.t_mos, idle.t_mos + 5.0);
  EXPECT_DOUBLE_EQ(idle.t_rotor, 30.0);
}

// A stand-in for the rigid-body model: records what the motors hand it.
class RecordingPlant : public Plant {
 public:
  size_t size() const override { return 2; }
  void step(double dt, const std::vector<double>& torque) override {
    time += dt;
    ++steps;
    last_torque = torque;
  }
  double position(size_t i) const override { return i == 0 ? 0.25 : -0.25; }
  double velocity(size_t) const override { return 0.0; }
  void set_state(size_t, double, double) override {}

  double time = 0.0;
  int steps = 0;
  std::vector<double> last_torque;
};

TEST(PlantContract, MotorsHandAnyPlantTheirTorquePlusExternalAtTheInnerRate) {
  auto plant = std::make_unique<RecordingPlant>();
  RecordingPlant* p = plant.get();
  Harness h({frictionless(1, 1), frictionless(3, 2)}, std::move(plant));
  h.enable({0x01});
  h.mit(0, {0.0, 0.0, 4.0, 0.0, 0.0});  // kp (0 - 0.25): -1 N·m
  h.sim.set_external_torque(1, 3.0);
  h.run(0.002);
  EXPECT_EQ(p->steps, 20);  // 10 kHz inner steps
  EXPECT_NEAR(p->time, 0.002, 1e-12);
  EXPECT_NEAR(p->last_torque[0], -1.0, 0.25 * 500.0 / 4095.0);  // one kp step
  EXPECT_DOUBLE_EQ(p->last_torque[1], 3.0);
  EXPECT_EQ(h.reply(0x7FF, {0x02, 0x00, 0xCC}).substr(0, 8), "02 7D 70");

  EXPECT_THROW(MotorSimulation({frictionless(1, 1)}, std::make_unique<RecordingPlant>()),
               std::invalid_argument);
}

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

// Supported, the arm rests where it was put; released, it falls onto its stops and comes to rest.
TEST(RigidBodyArm, RestsWhereItWasPutUntilReleasedThenFallsOntoItsStops) {
  RigidBodyArmOptions options;
  options.start_posture = {0.0, 0.2, -0.3, 0.0, -0.5, 0.0};
  Arm arm(options);
  arm.run(1.0);
  EXPECT_TRUE(arm.plant.supported());
  EXPECT_EQ(arm.plant.joint_positions(), options.start_posture);
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

// Motor angles of the linkage at known openings (0.085 m, 0.0425 m, 0); driven hard beyond open,
// the gripper stops at its end.
TEST(RigidBodyArm, GripperTravelsBetweenItsStopsThroughTheLinkage) {
  Arm arm;
  arm.enable({1, 2, 3, 4, 5, 6, 7});
  const struct {
    double target, kp, reached, tolerance;
  } moves[] = {{-1.235598154197257, 8.0, -1.235598154197257, 0.02},
               {-0.6822889509948515, 8.0, -0.6822889509948515, 0.02},
               {-0.00019983474059870332, 8.0, -0.00019983474059870332, 0.02},
               {-3.0, 20.0, -1.2365, 1e-9}};
  for (const auto& move : moves) {
    for (int i = 0; i < 400; ++i) {
      arm.mit(6, {move.target, 0.0, move.kp, 0.2, 0.0});
      arm.run(0.0025);
    }
    EXPECT_NEAR(arm.plant.gripper_angle(), move.reached, move.tolerance) << move.target;
  }
}

}  // namespace
}  // namespace kestrel::sim
