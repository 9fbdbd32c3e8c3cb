// RobotKinematics: the arm's kinematic and dynamic model, built once from the URDF and the
// `kinematics` section of "robot_kinematics.yaml". One KDL chain runs from the robot base to the
// tool centre point (URDF joints, then an optional point-mass payload, then the tool offset);
// forward kinematics, gravity, Coriolis and inertia torques and inverse kinematics all use it.
// A screw-axis description of the same joints gives a lock-free forward kinematics of the flange.
//
// Thread safety: the KDL solvers keep internal state, so every KDL-based member takes the one
// model mutex; the screw-axis and rotation helpers are pure. Accessors return data that never
// changes after construction.
#pragma once

#include <Eigen/Core>
#include <cstdint>
#include <kdl/chain.hpp>
#include <kdl/chaindynparam.hpp>
#include <kdl/chainfksolverpos_recursive.hpp>
#include <kdl/chainiksolverpos_lma.hpp>
#include <kdl/frames.hpp>
#include <kdl/jntarray.hpp>
#include <kdl/jntspaceinertiamatrix.hpp>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kestrel/algorithms/closed_form_ik.hpp"
#include "kestrel/algorithms/ik_solution_set.hpp"
#include "kestrel/algorithms/screw_chain.hpp"
#include "kestrel/algorithms/urdf_reader.hpp"

// Homogeneous transform with rotation RPY(roll, pitch, yaw) (fixed X, then Y, then Z, as
// KDL::Rotation::RPY) and translation xyz.
Eigen::Matrix4d t_from_xyzrpy(const Eigen::Vector3d& xyz, const Eigen::Vector3d& rpy);

// Rotation by `theta` about the unit axis `omega` (Rodrigues' formula).
Eigen::Matrix3d exp_so3(const Eigen::Vector3d& omega, double theta);

// Rigid motion of the screw (omega, v) by `theta`: a unit omega turns about the axis, a zero
// omega translates along v.
Eigen::Matrix4d exp_se3(const Eigen::Matrix<double, 6, 1>& screw, double theta);

class RobotKinematics {
 public:
  // One movable joint of the screw-axis model: its URDF origin relative to the previous movable
  // joint's frame (fixed joints in between are folded in) and its unit axis in its own frame.
  struct joint_t {
    Eigen::Vector3d xyz = Eigen::Vector3d::Zero();
    Eigen::Vector3d rpy = Eigen::Vector3d::Zero();
    Eigen::Vector3d axis = Eigen::Vector3d::UnitZ();
    bool prismatic = false;
  };

  // Reads "robot_kinematics.yaml" and "OspreyArm.SLDASM.urdf" from the configuration directory
  // (config_paths.hpp). Throws std::runtime_error on any configuration or URDF error. Prints
  // "urdf num_joints_: <n>" to standard output once the chain is built.
  RobotKinematics();

  // Same, from explicitly named files (tools and tests; the simulator uses it to model an arm
  // whose payload differs from the configured one).
  RobotKinematics(const std::string& config_path, const std::string& urdf_path);

  ~RobotKinematics();
  RobotKinematics(const RobotKinematics&) = delete;
  RobotKinematics& operator=(const RobotKinematics&) = delete;

  // (Re)computes the space-frame screw axes and the home transform from the joint_t records.
  void build_screw_axes();

  // --- KDL-based (lock the model mutex); joint vectors have num_joints() entries ------------
  // Tool-centre-point pose: x, y, z (m), then the quaternion qx, qy, qz, qw.
  std::vector<double> forwardKinematics_kdl(const std::vector<double>& q);
  // G(q), N·m.
  std::vector<double> gravity_compensation_kdl(const std::vector<double>& q) const;
  // C(q, dq)·dq, N·m.
  std::vector<double> coriolis_compensation_kdl(const std::vector<double>& q,
                                                const std::vector<double>& dq) const;
  // M(q)·ddq, N·m.
  std::vector<double> inertia_compensation_kdl(const std::vector<double>& q,
                                               const std::vector<double>& ddq) const;
  // M(q)·ddq + C(q, dq)·dq + G(q), N·m.
  std::vector<double> dynamic_compensation_kdl(const std::vector<double>& q,
                                               const std::vector<double>& dq,
                                               const std::vector<double>& ddq) const;

  // --- Inverse kinematics (ik_solver.cpp) --------------------------------------------------------
  // Joints for a tool-centre-point target (RPY orientation) near `seed`, by the strategy of
  // ik_solver.mode; false (and one "solve_ik_kdl failed: ..." line) when nothing is accepted.
  // inverse_kinematics_jacobian: damped least squares on the screw-axis model, tool-centre-point
  // targets; empty when it does not converge.
  bool solve_ik_kdl(const std::vector<double>& target_pos, const std::vector<double>& target_euler,
                    const std::vector<double>& seed, std::vector<double>& out,
                    bool* fallback_used = nullptr);
  std::optional<Eigen::VectorXd> inverse_kinematics_jacobian(const Eigen::Vector3d& target_pos,
                                                             const Eigen::Vector3d& target_euler,
                                                             const Eigen::VectorXd& q_init,
                                                             double threshold_pos,
                                                             double threshold_rot,
                                                             int max_iterations, double damping);

  // --- Every solution of a pose, and the one nearest a seed (ik_solutions.cpp) ---------------
  // No lock, no KDL: callable from any thread beside the KDL-based members. Answers lie inside
  // the joint limits, each joint that allows more than one turn at the turn nearest the seed,
  // and put the tool centre point within 1e-6 m and 1e-6 rad of the target.
  enum class IkMethod {
    automatic,      // the closed form where the arm has one, else the global search
    closed_form,    // only the closed form; std::runtime_error on an arm without one
    global_search,  // only the global search (also a check of the closed form)
  };
  // Whether the arm's geometry has a closed-form IK (a spherical wrist, axes 2 and 3 parallel,
  // axis 1 not parallel to them); if not, closed_form_ik_status() says what is missing.
  bool has_closed_form_ik() const { return closed_form_.available(); }
  const std::string& closed_form_ik_status() const { return closed_form_.reason(); }
  // Every solution found, nearest the seed first. The closed form gives all of them (a singular
  // pose's continuum by its member nearest the seed); the global search runs restarts for up to
  // ik_solver.global_search_time_ms. `seed` (num_joints() values) may be empty: the middle of
  // the joint ranges then stands for it. Empty when the pose is out of reach.
  std::vector<std::vector<double>> solve_ik_all(const std::vector<double>& target_pos,
                                                const std::vector<double>& target_euler,
                                                const std::vector<double>& seed = {},
                                                IkMethod method = IkMethod::automatic) const;
  // The solution nearest `seed` by weighted joint distance (sum of weight x squared difference;
  // `weights` empty: ik_solver.nearest_joint_weights, or 1 for every joint). False, and `out`
  // untouched, when there is none.
  bool solve_ik_nearest(const std::vector<double>& target_pos,
                        const std::vector<double>& target_euler, const std::vector<double>& seed,
                        std::vector<double>& out, const std::vector<double>& weights = {},
                        IkMethod method = IkMethod::automatic) const;
  // The base-frame screw model of the chain up to the tool centre point, and the joint limits,
  // that the two above work on.
  const kestrel::algorithms::ScrewChain& tcp_screw_chain() const { return tcp_chain_; }
  const kestrel::algorithms::JointLimits& joint_limits() const { return limits_; }

  // --- Pure helpers ---------------------------------------------------------------------------
  // Frame of the last movable joint (the flange) by the product of exponentials. Compose with
  // flange_to_tcp() for the tool centre point that forwardKinematics_kdl reports.
  Eigen::Matrix4d forward_kinematics(const Eigen::VectorXd& q) const;
  // (roll, pitch, yaw) of R in the RPY convention, pitch = -asin(R20). In gimbal lock
  // (|R20| > 0.99999) yaw is 0 and roll is atan2(R11, R12) (R20 > 0) or atan2(-R11, -R12).
  Eigen::Vector3d rotation_matrix_to_euler(const Eigen::Matrix3d& R) const;
  // (x, y, z, w).
  Eigen::Vector4d rotation_matrix_to_quaternion(const Eigen::Matrix3d& R) const;
  // Rotation vector (axis × angle, base frame) of q_target · q_current⁻¹, shortest way round.
  // Quaternions are (x, y, z, w) and need not be normalised.
  Eigen::Vector3d quaternion_error(const Eigen::Vector4d& q_target,
                                   const Eigen::Vector4d& q_current) const;

  // --- Model data (immutable after construction) ---------------------------------------------
  int num_joints() const { return num_joints_; }
  // The URDF joints in chain order, root first (fixed joints included, as in the file).
  const std::vector<kestrel::algorithms::UrdfJoint>& urdf_joints() const { return urdf_joints_; }
  // Per movable joint, in chain order. A joint without limits (continuous, or an incomplete
  // <limit>) has has_limits false and its bounds must not be used.
  const std::vector<double>& joint_lower_limits() const { return lower_; }
  const std::vector<double>& joint_upper_limits() const { return upper_; }
  const std::vector<bool>& joint_has_limits() const { return has_limits_; }
  // Base to tool centre point, with payload. Read it only while no other thread queries the
  // model: KDL's joints cache their last pose, so every solve writes into the chain. A thread
  // that builds KDL solvers of its own beside other users takes chain_copy() instead.
  const KDL::Chain& chain() const { return chain_; }
  // A copy of the chain taken under the model's lock, for solvers used outside it.
  KDL::Chain chain_copy() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return chain_;
  }
  // Gravity acceleration in the base frame, m/s², from the mounting.
  const Eigen::Vector3d& gravity() const { return gravity_; }
  const std::vector<joint_t>& screw_joints() const { return joints_; }
  const Eigen::Matrix<double, 6, Eigen::Dynamic>& screw_axes() const { return screw_axes_; }
  const Eigen::Matrix4d& home_transform() const { return home_; }
  // Last movable joint's frame to the tool centre point (trailing fixed joints, then the tool).
  const Eigen::Matrix4d& flange_to_tcp() const { return flange_to_tcp_; }

 private:
  class IkSearch;  // one inverse-kinematics call's search state (ik_solver.cpp)

  void build(const std::string& config_path, const std::string* urdf_path);
  // One query of solve_ik_all / solve_ik_nearest; the set holds what it found.
  void collect_ik_solutions(IkMethod method, bool nearest_only,
                            kestrel::algorithms::IkSolutionSet& set) const;
  kestrel::algorithms::IkSolutionSet ik_solution_set(const char* caller,
                                                     const std::vector<double>& target_pos,
                                                     const std::vector<double>& target_euler,
                                                     const std::vector<double>& seed,
                                                     const std::vector<double>& weights) const;
  void check_size(const std::vector<double>& v, const char* message) const;

  std::vector<joint_t> joints_;
  Eigen::Matrix<double, 6, Eigen::Dynamic> screw_axes_;
  Eigen::Matrix4d home_ = Eigen::Matrix4d::Identity();
  Eigen::Matrix4d flange_to_tcp_ = Eigen::Matrix4d::Identity();

  std::vector<double> lower_;
  std::vector<double> upper_;
  std::vector<bool> has_limits_;
  int32_t num_joints_ = 0;

  kestrel::algorithms::ScrewChain tcp_chain_;
  kestrel::algorithms::JointLimits limits_;
  kestrel::algorithms::ClosedFormIk closed_form_;

  std::vector<kestrel::algorithms::UrdfJoint> urdf_joints_;
  KDL::Chain chain_;
  // The solvers live in place: built once with the chain, no heap round trip, and no way for an
  // allocation made here to be released inside the KDL library with different allocator rules.
  std::optional<KDL::ChainIkSolverPos_LMA> ik_solver_;
  std::optional<KDL::ChainFkSolverPos_recursive> fk_solver_;
  mutable std::optional<KDL::ChainDynParam> dyn_param_;  // its queries are not const in KDL
  Eigen::Vector3d gravity_ = Eigen::Vector3d(0.0, 0.0, -9.81);

  // Serialises every use of the KDL solvers and of the scratch arrays below, which keep the
  // per-call cost of the control loop's torque queries free of KDL-side allocations.
  mutable std::mutex mutex_;
  mutable KDL::JntArray q_scratch_;
  mutable KDL::JntArray dq_scratch_;
  mutable KDL::JntArray out_scratch_;
  mutable KDL::JntArray aux_scratch_;
  mutable KDL::JntSpaceInertiaMatrix mass_scratch_;
};
