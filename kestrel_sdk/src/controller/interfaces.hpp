// ArmController: the public face of the library. One object opens the CAN bus, brings the arm's
// six joint motors and the gripper up, and runs two threads: a 2.5 ms control loop (the only code
// that talks to the motors once running) and a 20 ms torque monitor. Public operations check
// their arguments, then write one command slot that the control loop executes on its next cycle.
//
//   ArmController arm(true, "can0", false, MIT_MODE, false);
//   arm.set_joint({0.0, 0.3, -0.6, 0.0, -0.8, 0.0}, 2.0);   // 2 s rest-to-rest move
//   arm.move_joint_waypoints({{...}, {...}}, 0.0, 0.5);      // plans, checks, waits
//   std::vector<double> q = arm.get_joint();
//
// Bad arguments throw std::invalid_argument before anything changes; plans that cannot be made
// throw std::runtime_error; configuration errors end the process with status 1 and one line on
// standard error. A controller that has stopped (cleanup, emergency stop) cannot be restarted.
#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "kestrel/controller/control_cycle_sample.hpp"
#include "kestrel/controller/loop_statistics.hpp"
#include "kestrel/damiao_motor/dm_motor_control.hpp"

using ControlMode = kestrel::damiao_motor::ControlMode;
using kestrel::damiao_motor::MIT_MODE;
using kestrel::damiao_motor::POS_VEL_MODE;

// A rest-to-rest 7th-order trajectory per joint: zero velocity, acceleration and jerk at both
// ends. positions[j][i] is joint j at times[i].
struct SepticTrajectory {
  std::vector<std::vector<double>> positions;
  std::vector<std::vector<double>> velocities;
  std::vector<std::vector<double>> accelerations;
  std::vector<double> times;
};

// q_start and q_end hold six values, or one value for all six joints; samples at `freq` Hz up to
// and including `tf` seconds.
SepticTrajectory generate_septuple_trajectory(const std::vector<double>& q_start,
                                              const std::vector<double>& q_end, double tf,
                                              double freq);

class ArmController {
 public:
  // One item of a motion program (run_motion_program).
  struct MotionProgramItem {
    std::string type;                            // "movej", "movel", "movep" or "sleep", any case
    std::vector<std::vector<double>> waypoints;  // movej: joint postures, 6 values each, rad
    std::vector<std::vector<double>> poses;      // movel / movep: [x, y, z, roll, pitch, yaw]
    double time_sec = 0.0;                       // > 0: duration of this item's part of the motion
    double speed_percent = 0.0;                  // > 0: speed fraction (0, 1]
    double sleep_sec = 0.0;                      // sleep: pause, s
    double blend_radius_m = 0.0;                 // movel / movep: corner blend radius, m
  };

  // A planned joint trajectory: one sample per control period (positions, velocities and
  // accelerations of the six joints) and the gripper opening beside each sample, metres.
  struct PlannedTrajectory {
    std::vector<std::vector<double>> positions;
    std::vector<std::vector<double>> velocities;
    std::vector<std::vector<double>> accelerations;
    std::vector<double> gripper;
  };

  // Opens `can_interface`, reads the configuration, brings the motors up (unless
  // skip_hardware_init) and starts the control and torque-monitor threads.
  ArmController(bool enable_gripper, const std::string& can_interface, bool use_canfd,
                ControlMode control_mode, bool skip_hardware_init);
  ~ArmController();

  ArmController(const ArmController&) = delete;
  ArmController& operator=(const ArmController&) = delete;

  // Stops both threads, disables the motors (not with skip_hardware_init) and releases the bus.
  // Idempotent. A motion call waiting in another thread throws std::runtime_error "waypoint
  // motion interrupted because controller is exiting"; cleanup returns once it has left.
  void cleanup();

  // ---- Joint commands -----------------------------------------------------------------------
  // Rest-to-rest 7th-order move to q (clamped to the URDF limits) in `time` seconds, from the
  // joints measured when it starts. A time so short that the move would peak above
  // joint_trajectory.set_joint_speed_factor times the velocity limits is refused
  // (std::invalid_argument, naming the shortest time).
  void set_joint(const std::vector<double>& q, double time);
  // Streams one raw target: positions (clamped by the loop) and velocities, executed as given.
  void set_joint_raw(const std::vector<double>& q, const std::vector<double>& v);

  // ---- Gripper (0 m = closed, 0.085 m = open) -------------------------------------------------
  void openGripper();
  void closeGripper();
  void setGripperPosition(double position);      // 0 closed .. 1 open
  void setGripperPosition_raw(double position);  // clamped into [0, 1] with a warning
  void setGripperDistance(double distance, double kp, double kd);
  void setGripperDistance(double distance);

  // ---- Cartesian commands: pos x, y, z (m) and euler roll, pitch, yaw (rad, fixed axes X, Y,
  // then Z) of the tool centre point in the base frame ------------------------------------------
  // Solves the pose by damped least squares from the current joints and moves there as
  // set_joint(q, time) would; prints "雅可比逆解失败。" and sends nothing when it cannot.
  void set_end_effector_pose(const std::vector<double>& pos, const std::vector<double>& euler,
                             double time);
  // For streaming targets at a high rate: solves IK from the current joints and sends the
  // answer as a raw joint target with a smoothed, velocity- and acceleration-limited velocity.
  // Wrong sizes, no joint state yet or no IK answer send nothing.
  void set_end_effector_pose_raw(const std::vector<double>& pos, const std::vector<double>& euler);
  // IK query, nothing moves: joints for the pose near q_seed (6 values), or near the current
  // joints when q_seed is empty (the zero posture before any feedback); second = success.
  std::pair<std::vector<double>, bool> solve_ik(const std::vector<double>& pos,
                                                const std::vector<double>& euler,
                                                const std::vector<double>& q_seed = {});
  // IK query from any seed: every solution of the pose inside the joint limits (closed form on
  // arms with a spherical wrist, a global search on others), the one nearest q_seed (or the
  // current joints) by weighted joint distance returned; second = success. Finds poses far from
  // the seed that solve_ik, which stays on the seed's branch, may miss.
  std::pair<std::vector<double>, bool> solve_ik_nearest(const std::vector<double>& pos,
                                                        const std::vector<double>& euler,
                                                        const std::vector<double>& q_seed = {});

  // ---- Gravity compensation (floating arm, torque only) ----------------------------------------
  void identify_gravity_compensation();
  void identify_gravity_compensation_kdl();

  // ---- Planning ------------------------------------------------------------------------------
  // Plans (without moving) joint waypoints from q_start with one normalised gripper value per
  // waypoint, at 400 Hz, in time mode (time_sec > 0) or speed mode (speed_percent, or the
  // configured default when both are 0), and checks it; a safety stop throws std::runtime_error.
  PlannedTrajectory plan_joint_waypoints_with_gripper(
      const std::vector<double>& q_start, const std::vector<std::vector<double>>& waypoints,
      const std::vector<double>& gripper_positions, double time_sec, double speed_percent);

  // ---- Joint waypoint motions ------------------------------------------------------------------
  // Plans a motion from the current joints through `waypoints` (six joint values each, clamped
  // to the URDF limits) at 400 Hz, checks it, runs it and returns when it has ended, with its
  // planned duration in seconds. time_sec > 0: the motion takes that long; otherwise
  // speed_percent (0, 1] of the joint speed limits, or the configured default when 0.
  double move_joint_waypoints(const std::vector<std::vector<double>>& waypoints, double time_sec,
                              double speed_percent);
  // The same with one normalised gripper value (0 closed .. 1 open) per waypoint.
  double move_joint_waypoints_with_gripper(const std::vector<std::vector<double>>& waypoints,
                                           const std::vector<double>& gripper_positions,
                                           double time_sec, double speed_percent);
  // Replaces the running motion (a waypoint motion, a set_joint move, a hold) by a new chunk
  // `switch_delay_sec` from now, or as soon as the chunk is planned when that is later. The chunk
  // starts from the position, velocity and acceleration the running command will have then: a
  // short jerk-limited transition brings every joint inside the chunk's limits and heading for
  // its first waypoint (no jump, no overshoot), then the chunk's path follows. A timed chunk
  // takes time_sec in all. Returns the chunk's planned duration at once, without waiting.
  double update_joint_waypoint_chunk(const std::vector<std::vector<double>>& waypoints,
                                     double time_sec, double speed_percent,
                                     double switch_delay_sec);
  double update_joint_waypoint_chunk_with_gripper(const std::vector<std::vector<double>>& waypoints,
                                                  const std::vector<double>& gripper_positions,
                                                  double time_sec, double speed_percent,
                                                  double switch_delay_sec);
  // The samples of the last published waypoint motion: six joint values, then the tool point's
  // x, y, z (m) and orientation quaternion qx, qy, qz, qw.
  std::vector<std::vector<double>> get_last_waypoint_command_samples();

  // ---- Cartesian motions: poses [x, y, z, roll, pitch, yaw] of the tool centre point
  // ------------- Each returns when the motion has ended, with its planned duration in seconds.
  // time_sec > 0 gives the whole motion's duration; otherwise speed_percent (0, 1] or the
  // configured default when 0. Every pose is reached within these tolerances of the IK answers:
  static constexpr double kPositionToleranceM = 0.003;
  static constexpr double kOrientationToleranceRad = 0.05;
  // linear: straight tool lines from the current pose through the poses, each corner rounded by
  // an arc that leaves the lines no farther than blend_radius_m from the corner (0: stop at each
  // corner), orientation turned about one axis the shortest way; otherwise point to point.
  // A path that IK cannot follow, or that would jump between IK branches, is refused with
  // std::runtime_error before the arm moves.
  double move_pose_waypoints(const std::vector<std::vector<double>>& poses, double time_sec,
                             double speed_percent, bool linear = true,
                             double blend_radius_m = 0.002);
  double move_l(const std::vector<std::vector<double>>& poses, double time_sec = 0.0,
                double speed_percent = 0.0, double blend_radius_m = 0.002);
  // Point to point: each pose solved by IK from the answer before, then a joint waypoint motion
  // through the answers.
  double move_p(const std::vector<std::vector<double>>& poses, double time_sec = 0.0,
                double speed_percent = 0.0);
  double move_p_with_gripper(const std::vector<std::vector<double>>& poses,
                             const std::vector<double>& gripper_positions, double time_sec = 0.0,
                             double speed_percent = 0.0);

  // ---- Motion programs
  // --------------------------------------------------------------------------- Runs the items in
  // order, joining consecutive moves of one kind with compatible timing into one motion; returns
  // the sum of the executed motions' durations, seconds.
  double run_motion_program(const std::vector<MotionProgramItem>& program);

  // ---- Latest state ----------------------------------------------------------------------------
  std::vector<double> get_joint();              // rad; empty before the first feedback
  std::vector<double> get_joint_velocities();   // rad/s; empty before the first feedback
  std::vector<double> get_joint_torques();      // N·m; empty before the first feedback
  std::vector<double> get_end_effector_pose();  // x, y, z, qx, qy, qz, qw of the tool point
  double get_gripper_position();                // [0, 1]; -1 without gripper
  double get_gripper_distance();                // [0, 0.085] m; -1 without gripper

  // What the control loop commanded on its latest cycle beside the feedback it used: poll it at
  // the control rate (400 Hz) to record or plot a motion. Cheap to call from any thread.
  kestrel::controller::ControlCycleSample get_control_cycle_sample() const;

  // Ends whatever the arm is doing at once: brakes from the commanded motion to rest within the
  // velocity, acceleration and jerk limits (no jump in the commanded position or velocity) and
  // holds there; a staged chunk is dropped, the gripper keeps its opening and the motors stay
  // enabled. A motion call waiting in another thread throws std::runtime_error "motion
  // stopped", and so does one still planning (its motion never starts); a running motion
  // program goes no further. Safe from any thread (a Ctrl-C
  // handler thread, a watchdog); new commands are accepted afterwards.
  void stop();

  // True once an emergency stop (torque monitor or run-time supervision) has disabled the arm.
  bool emergency_stopped() const;
  // True while the control loop runs.
  bool running() const;
  // Timing of the control loop since start (or the last reset): per cycle the compute (targets,
  // feed-forward, encoding, supervision), the bus I/O (writes, feedback refresh, reading
  // replies) and the wake-up lateness, and the missed deadlines. Cheap to call from any thread.
  kestrel::controller::ControlLoopStatistics control_loop_statistics() const;
  // The same figures as histograms of 1 µs bins.
  kestrel::controller::ControlLoopHistograms control_loop_histograms() const;
  // Starts the timing figures afresh, e.g. after a warm-up.
  void reset_control_loop_statistics();

 private:
  class Impl;
  // Marks a call in progress, so that cleanup() (from another thread, or the destructor) wakes
  // it and waits for it to leave before the implementation is released.
  class CallScope;
  friend class ArmControllerTestAccess;  // tests hand the command slot timelines directly

  // The implementation; throws std::runtime_error once cleanup() has released it.
  Impl& impl() const;

  std::atomic<bool> cleaned_up_{false};
  mutable std::atomic<int> active_calls_{0};
  std::unique_ptr<Impl> impl_;
};
