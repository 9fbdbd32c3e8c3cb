// The arm's mechanics as one rigid-body system: the six joints of the shipped URDF under the
// configured gravity (KDL's joint-space dynamics), with the motors' reflected rotor inertia,
// viscous and Coulomb friction, hard stops at the URDF limits, an optional payload that the
// controller does not know about, and the gripper motor behind its linkage as a seventh shaft.
//
// Shafts are in motor coordinates: shaft i = joint i × motor sign (the signs of
// robot_kinematics.yaml), as the motors' encoders see them.
//
// At power-on the arm rests where it was put (a cradle, or a hand holding it): the plant holds
// the start posture until some shaft first carries torque, i.e. until the motors are enabled and
// commanded. From then on it is free, so a later disable lets it fall onto its stops.
#pragma once

#include <Eigen/Core>
#include <array>
#include <kdl/chain.hpp>
#include <kdl/chaindynparam.hpp>
#include <memory>
#include <vector>

#include "kestrel_sim/plant.hpp"

class RobotKinematics;

namespace kestrel::sim {

struct RigidBodyArmOptions {
  std::array<double, 6> start_posture{};  // joint space, rad (not motor coordinates)
  double gripper_start_angle = 0.0;       // gripper motor angle, rad (0 = closed)
  bool supported_until_driven = true;
  // Rotor inertia reflected through the gearbox, kg·m²: dominant on the light wrist joints.
  std::array<double, 6> armature{0.03, 0.03, 0.03, 0.004, 0.004, 0.003};
  std::array<double, 6> viscous{0.3, 0.3, 0.25, 0.04, 0.04, 0.03};   // N·m·s/rad
  std::array<double, 6> coulomb{0.25, 0.25, 0.2, 0.06, 0.06, 0.04};  // N·m
  // Gripper motor: rotor plus fingers reflected through the linkage.
  double gripper_inertia = 0.002;
  double gripper_viscous = 0.03;
  double gripper_coulomb = 0.03;
  // Travel of the gripper motor between its stops: fully open ... fully closed.
  double gripper_open_stop = -1.2365;
  double gripper_closed_stop = 0.0005;
  // A point mass carried at the tool centre point the controller was not told about.
  double payload_mass = 0.0;                              // kg
  Eigen::Vector3d payload_com = Eigen::Vector3d::Zero();  // m, tool frame
};

class RigidBodyArmPlant : public Plant {
 public:
  // `model` supplies the chain (base to tool centre point), limits and gravity; it is only read
  // here and need not outlive the plant.
  RigidBodyArmPlant(const RobotKinematics& model, std::array<double, 6> motor_signs,
                    RigidBodyArmOptions options = {});
  ~RigidBodyArmPlant() override;

  // The shipped URDF, mounting and motor signs.
  static std::unique_ptr<RigidBodyArmPlant> from_shipped_configuration(
      RigidBodyArmOptions options = {});

  size_t size() const override { return 7; }
  void step(double dt, const std::vector<double>& torque) override;
  double position(size_t i) const override;
  double velocity(size_t i) const override;
  void set_state(size_t i, double position, double velocity) override;

  const std::array<double, 6>& joint_positions() const { return q_; }
  const std::array<double, 6>& joint_velocities() const { return dq_; }
  double gripper_angle() const { return gripper_q_; }
  const std::array<double, 6>& motor_signs() const { return signs_; }
  bool supported() const { return supported_; }
  // Lets go of the arm now, whatever the motors do.
  void release_support() { supported_ = false; }

  // Changes the hidden payload (0 kg removes it).
  void set_payload(double mass, const Eigen::Vector3d& com_in_tool_frame);

  // Kinetic plus potential energy of the arm, J (the gripper shaft excluded).
  double mechanical_energy() const;

 private:
  void rebuild_dynamics();

  std::array<double, 6> signs_;
  RigidBodyArmOptions options_;
  KDL::Chain base_chain_;  // as configured
  KDL::Chain chain_;       // with the hidden payload
  KDL::Vector gravity_;
  std::unique_ptr<KDL::ChainDynParam> dynamics_;
  std::array<double, 6> lower_{};
  std::array<double, 6> upper_{};
  std::array<bool, 6> has_limits_{};

  std::array<double, 6> q_{};
  std::array<double, 6> dq_{};
  double gripper_q_ = 0.0;
  double gripper_dq_ = 0.0;
  bool supported_ = true;
};

}  // namespace kestrel::sim
