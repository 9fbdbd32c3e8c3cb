#include "kestrel_sim/rigid_body_arm_plant.hpp"

#include <Eigen/Cholesky>
#include <cmath>
#include <kdl/chainfksolverpos_recursive.hpp>
#include <kdl/jntarray.hpp>
#include <kdl/jntspaceinertiamatrix.hpp>
#include <stdexcept>

#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/controller/controller_config.hpp"

namespace kestrel::sim {

namespace {

constexpr int kJoints = 6;
// Coulomb friction is smoothed over this speed so that a joint at rest under a small load creeps
// instead of chattering.
constexpr double kStictionSpeed = 0.02;  // rad/s

}  // namespace

RigidBodyArmPlant::RigidBodyArmPlant(const RobotKinematics& model,
                                     std::array<double, 6> motor_signs, RigidBodyArmOptions options)
    : signs_(motor_signs),
      options_(options),
      base_chain_(model.chain()),
      gravity_(model.gravity().x(), model.gravity().y(), model.gravity().z()),
      q_(options.start_posture),
      gripper_q_(options.gripper_start_angle),
      supported_(options.supported_until_driven) {
  if (model.num_joints() != kJoints) {
    throw std::invalid_argument("RigidBodyArmPlant needs a six-joint arm");
  }
  for (int j = 0; j < kJoints; ++j) {
    has_limits_[j] = model.joint_has_limits()[j];
    lower_[j] = model.joint_lower_limits()[j];
    upper_[j] = model.joint_upper_limits()[j];
  }
  rebuild_dynamics();
}

RigidBodyArmPlant::~RigidBodyArmPlant() = default;

std::unique_ptr<RigidBodyArmPlant> RigidBodyArmPlant::from_shipped_configuration(
    RigidBodyArmOptions options) {
  const RobotKinematics model;
  const auto signs = kestrel::controller::load_motor_signs_config();
  kestrel::controller::check_motor_signs(signs);
  return std::make_unique<RigidBodyArmPlant>(model, signs, options);
}

void RigidBodyArmPlant::rebuild_dynamics() {
  chain_ = base_chain_;
  if (options_.payload_mass > 0.0) {
    const auto& c = options_.payload_com;
    chain_.addSegment(KDL::Segment(
        "hidden_payload", KDL::Joint("hidden_payload_fixed", KDL::Joint::None),
        KDL::Frame::Identity(),
        KDL::RigidBodyInertia(options_.payload_mass, KDL::Vector(c.x(), c.y(), c.z()))));
  }
  dynamics_ = std::make_unique<KDL::ChainDynParam>(chain_, gravity_);
}

void RigidBodyArmPlant::set_payload(double mass, const Eigen::Vector3d& com_in_tool_frame) {
  options_.payload_mass = mass;
  options_.payload_com = com_in_tool_frame;
  rebuild_dynamics();
}

void RigidBodyArmPlant::step(double dt, const std::vector<double>& torque) {
  if (supported_) {
    bool driven = false;
    for (double t : torque) {
      driven = driven || std::abs(t) > 1e-9;
    }
    if (!driven) {
      return;  // resting where it was put
    }
    supported_ = false;
  }

  KDL::JntArray q(kJoints);
  KDL::JntArray dq(kJoints);
  for (int j = 0; j < kJoints; ++j) {
    q(j) = q_[j];
    dq(j) = dq_[j];
  }
  KDL::JntSpaceInertiaMatrix mass(kJoints);
  KDL::JntArray coriolis(kJoints);
  KDL::JntArray gravity(kJoints);
  dynamics_->JntToMass(q, mass);
  dynamics_->JntToCoriolis(q, dq, coriolis);
  dynamics_->JntToGravity(q, gravity);

  // KDL's gravity vector is the torque that holds the arm up; the arm feels its negative.
  Eigen::Matrix<double, kJoints, kJoints> m = mass.data;
  Eigen::Matrix<double, kJoints, 1> rhs;
  for (int j = 0; j < kJoints; ++j) {
    m(j, j) += options_.armature[j];
    const double friction =
        options_.viscous[j] * dq_[j] + options_.coulomb[j] * std::tanh(dq_[j] / kStictionSpeed);
    rhs(j) = signs_[j] * torque[j] - coriolis(j) - gravity(j) - friction;
  }

  // Joints resting on a stop are locked while the arm pushes them into it: the stop takes the
  // load, and the free joints move with the locked ones held (not as if they were free).
  std::array<bool, kJoints> locked{};
  auto at_stop = [&](int j) -> int {  // +1 upper, -1 lower, 0 free
    if (!has_limits_[j]) {
      return 0;
    }
    if (q_[j] >= upper_[j] && dq_[j] >= 0.0) {
      return 1;
    }
    if (q_[j] <= lower_[j] && dq_[j] <= 0.0) {
      return -1;
    }
    return 0;
  };
  Eigen::Matrix<double, kJoints, 1> ddq = Eigen::Matrix<double, kJoints, 1>::Zero();
  for (int round = 0; round <= kJoints; ++round) {
    std::vector<int> free;
    for (int j = 0; j < kJoints; ++j) {
      if (!locked[j]) {
        free.push_back(j);
      }
    }
    ddq.setZero();
    if (!free.empty()) {
      Eigen::MatrixXd m_free(free.size(), free.size());
      Eigen::VectorXd rhs_free(free.size());
      for (size_t a = 0; a < free.size(); ++a) {
        rhs_free(a) = rhs(free[a]);
        for (size_t b = 0; b < free.size(); ++b) {
          m_free(a, b) = m(free[a], free[b]);
        }
      }
      const Eigen::VectorXd solved = m_free.ldlt().solve(rhs_free);
      for (size_t a = 0; a < free.size(); ++a) {
        ddq(free[a]) = solved(a);
      }
    }
    // Lock a free joint on a stop that is driven into it; free a locked joint that the arm
    // pulls off its stop (its stop would have to pull, which a stop cannot).
    bool changed = false;
    const Eigen::Matrix<double, kJoints, 1> reaction = rhs - m * ddq;
    for (int j = 0; j < kJoints; ++j) {
      const int side = at_stop(j);
      if (!locked[j] && side != 0 && ddq(j) * side > 0.0) {
        locked[j] = true;
        changed = true;
      } else if (locked[j] && reaction(j) * side < 0.0) {
        locked[j] = false;
        changed = true;
      }
    }
    if (!changed) {
      break;
    }
  }

  // Semi-implicit Euler.
  Eigen::Matrix<double, kJoints, 1> velocity;
  for (int j = 0; j < kJoints; ++j) {
    velocity(j) = dq_[j] + ddq(j) * dt;
    q_[j] += velocity(j) * dt;
  }
  // A joint that reaches a stop hits it inelastically: an impulse on that joint alone, through
  // the inverse mass matrix, takes its velocity into the stop away. Nothing tunnels and the
  // impact only ever takes energy out.
  Eigen::Matrix<double, kJoints, kJoints> m_inverse;
  bool have_inverse = false;
  for (int j = 0; j < kJoints; ++j) {
    if (!has_limits_[j]) {
      continue;
    }
    const bool over = q_[j] > upper_[j] && velocity(j) > 0.0;
    const bool under = q_[j] < lower_[j] && velocity(j) < 0.0;
    if (over || under) {
      if (!have_inverse) {
        m_inverse = m.inverse();
        have_inverse = true;
      }
      const double impulse = -velocity(j) / m_inverse(j, j);
      velocity += m_inverse.col(j) * impulse;
    }
    q_[j] = std::min(std::max(q_[j], lower_[j]), upper_[j]);
  }
  for (int j = 0; j < kJoints; ++j) {
    dq_[j] = velocity(j);
  }

  const double gripper_torque = torque.size() > 6 ? torque[6] : 0.0;
  const double gripper_ddq = (gripper_torque - options_.gripper_viscous * gripper_dq_ -
                              options_.gripper_coulomb * std::tanh(gripper_dq_ / kStictionSpeed)) /
                             options_.gripper_inertia;
  gripper_dq_ += gripper_ddq * dt;
  gripper_q_ += gripper_dq_ * dt;
  if (gripper_q_ > options_.gripper_closed_stop) {
    gripper_q_ = options_.gripper_closed_stop;
    gripper_dq_ = std::min(gripper_dq_, 0.0);
  } else if (gripper_q_ < options_.gripper_open_stop) {
    gripper_q_ = options_.gripper_open_stop;
    gripper_dq_ = std::max(gripper_dq_, 0.0);
  }
}

double RigidBodyArmPlant::position(size_t i) const {
  return i < kJoints ? q_.at(i) * signs_[i] : gripper_q_;
}

double RigidBodyArmPlant::velocity(size_t i) const {
  return i < kJoints ? dq_.at(i) * signs_[i] : gripper_dq_;
}

void RigidBodyArmPlant::set_state(size_t i, double position, double velocity) {
  if (i < kJoints) {
    q_.at(i) = position * signs_[i];
    dq_.at(i) = velocity * signs_[i];
  } else {
    gripper_q_ = position;
    gripper_dq_ = velocity;
  }
}

double RigidBodyArmPlant::mechanical_energy() const {
  KDL::JntArray q(kJoints);
  for (int j = 0; j < kJoints; ++j) {
    q(j) = q_[j];
  }
  KDL::JntSpaceInertiaMatrix mass(kJoints);
  dynamics_->JntToMass(q, mass);
  Eigen::Matrix<double, kJoints, 1> v;
  for (int j = 0; j < kJoints; ++j) {
    v(j) = dq_[j];
  }
  Eigen::Matrix<double, kJoints, kJoints> m = mass.data;
  for (int j = 0; j < kJoints; ++j) {
    m(j, j) += options_.armature[j];
  }
  const double kinetic = 0.5 * v.dot(m * v);
  // Potential energy: -m g·c summed over the segments' centres of mass.
  double potential = 0.0;
  KDL::ChainFkSolverPos_recursive fk(chain_);
  KDL::Frame frame;
  for (unsigned s = 0; s < chain_.getNrOfSegments(); ++s) {
    fk.JntToCart(q, frame, static_cast<int>(s) + 1);
    const auto& inertia = chain_.getSegment(s).getInertia();
    if (inertia.getMass() <= 0.0) {
      continue;
    }
    const KDL::Vector com = frame * inertia.getCOG();
    potential -= inertia.getMass() * KDL::dot(gravity_, com);
  }
  return kinetic + potential;
}

}  // namespace kestrel::sim
