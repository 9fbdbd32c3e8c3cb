// ArmController's private implementation: configuration, hardware facade, kinematic model,
// the command slot, the published state and the two threads. Not installed.
//
// Threads and locks:
//  - application threads write the command slot under command_mutex and notify motion_cv after
//    unlocking; they read the published state through the try_get_latest_* readers;
//  - the control thread (control_loop) is the only code that talks to the motors once running;
//    it copies the command slot under command_mutex and publishes state under state_mutex and
//    torque_mutex; no CAN traffic ever happens under any of these locks;
//  - the torque-monitor thread reads torques under torque_mutex and raises emergency_stop_flag.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <memory>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "kestrel/algorithms/chain_dynamics.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/algorithms/safety_config.hpp"
#include "kestrel/algorithms/trajectory_safety.hpp"
#include "kestrel/arm/kestrel.hpp"
#include "kestrel/controller/controller_config.hpp"
#include "kestrel/controller/interfaces.hpp"
#include "kestrel/controller/joint_splice.hpp"
#include "kestrel/controller/joint_waypoint_planner.hpp"
#include "kestrel/controller/loop_statistics.hpp"
#include "kestrel/controller/motor_supervision.hpp"
#include "kestrel/controller/realtime_setup.hpp"

class ArmController::Impl {
 public:
  using JointArray = kestrel::controller::JointArray;
  using MotionState = kestrel::controller::JointMotionState;
  using Sample = kestrel::algorithms::WaypointTrajectorySample;
  using Timeline = std::shared_ptr<const std::vector<Sample>>;
  using Clock = std::chrono::steady_clock;

  static constexpr int kJoints = 6;
  static constexpr double kControlHz = 400.0;  // planning and control rate

  // Command kinds of the command slot.
  enum CommandKind : int32_t {
    kNone = 0,
    kJointRaw = 1,
    kJointTrajectory = 2,
    kJointWaypoints = 3,
    kGravityRegressor = 4,
    kGravityKdl = 5,
  };

  // The one command slot, guarded by command_mutex.
  struct CommandState {
    int32_t kind = kNone;
    JointArray target{};
    JointArray target_velocity{};
    JointArray start{};
    double duration = 0.0;
    bool started = false;
    int64_t start_time_ns = 0;
    std::shared_ptr<const std::vector<double>> gripper_timeline;  // metres, one per sample
    double sample_period = 0.0025;
    bool waypoint_started = false;
    int64_t waypoint_start_time_ns = 0;
    double gripper_target = 0.0;  // opening, metres
    double gripper_kp = 8.0;
    double gripper_kd = 0.1;
    // [0]: the command is to be sent (the watchdog clears it); [1]: not yet sent once.
    std::array<uint8_t, 2> gripper_command_pending{0, 0};
    Timeline waypoint_samples;
    int64_t command_counter = 0;
    int64_t command_id = 0;
    // The waypoint command that stop() ended: its waiter throws "motion stopped".
    int64_t stopped_command_id = -1;
    // Grows with every change of the motion the slot describes (a new command, a start
    // captured, a switch, an end of playback): a plan made from the slot is still a splice of
    // the running motion only while this is unchanged.
    uint64_t revision = 0;
  };

  Impl(const std::string& can_interface, bool use_canfd, ArmController* owner, bool enable_gripper,
       ControlMode control_mode, bool skip_hardware_init);
  ~Impl();

  void initial_kestrel();
  void start_two_thread();
  bool uses_pos_vel_mode() const { return control_mode == POS_VEL_MODE; }

  // Thread bodies.
  void control_loop();
  void monitor_motor_torque();
  // Sets exit_flag, wakes every waiter, joins the control thread then the monitor thread.
  // Never called from either controller thread.
  void request_stop_and_join();
  void notify_motion_state_changed();

  // Published-state readers: copy under the state's mutex when its valid flag is set.
  bool try_get_latest_joint_state(JointArray& out);
  // The latest joints, or the zero posture before any feedback (the seed of an IK query).
  std::vector<double> current_joints_or_zero();
  bool try_get_latest_joint_velocity_state(JointArray& out);
  bool try_get_latest_gripper_state(double& out);
  bool try_get_latest_gripper_distance_state(double& out);
  bool try_get_latest_torque_state(JointArray& out);

  static double clamp(double value, double low, double high);
  // Into the joint's URDF limits when the URDF gives it limits; unchanged otherwise.
  double clamp_to_urdf_joint_limit(int joint, double value) const;

  // Command writers (application threads): lock, write, unlock, notify.
  void write_joint_raw_command(const JointArray& q, const JointArray& v);
  void write_joint_trajectory_command(const JointArray& q, double duration);
  void write_gravity_command(CommandKind kind);
  void write_gripper_command(double distance, double kp, double kd);
  // Refuses (std::invalid_argument) a set_joint whose profile would peak above
  // joint_trajectory.set_joint_speed_factor times the velocity limits.
  void check_joint_move_speed(const JointArray& target, double time);
  // With smooth_takeover, a set_joint move that arrives while a motion runs: braked to rest from
  // the running command's state, then the 7th-order move, as one staged timeline. False (nothing
  // done) when nothing is moving.
  bool splice_joint_move(const JointArray& target, double time);
  // The start of every writer that replaces the motion (command_mutex held): drops the running
  // and staged timelines, freezes the gripper timeline, sets the kind.
  void replace_motion_locked(CommandKind kind);
  // Installs a waypoint timeline as a kind-3 command and returns its command id. With
  // `stops_seen`: returns -1 instead when stop() has been called since that stop_generation (a
  // motion planned before a stop must not start after it).
  int64_t write_waypoint_command(Timeline samples,
                                 std::shared_ptr<const std::vector<double>> gripper_timeline,
                                 double sample_period, const uint64_t* stops_seen = nullptr);

  static int64_t now_ns();

  // ---- Joint waypoint planning (waypoint_planner.cpp) ----
  // The planner's settings from the configuration.
  kestrel::controller::WaypointPlanSettings planner_settings(double control_hz) const;
  // Quintic segments through q_start (at rest) and the waypoints, one sample per control period.
  // Limits are used as given (speed scaling is the caller's); time_sec > 0 shares that time
  // evenly.
  std::vector<Sample> plan_joint_waypoint_trajectory(
      const JointArray& q_start, const std::vector<JointArray>& waypoints, const JointArray& vmax,
      const JointArray& amax, const JointArray& jmax, double time_sec, double control_hz,
      std::vector<double>* gripper_timeline_out = nullptr,
      const std::vector<double>* point_gripper_targets = nullptr) const;
  // Joint-limit margins, then singularity, then self-collision, merged.
  kestrel::algorithms::SafetyResult evaluate_waypoint_trajectory_safety(
      const std::vector<Sample>& samples);
  ArmController::PlannedTrajectory plan_joint_waypoints_with_gripper(
      const std::vector<double>& q_start, const std::vector<std::vector<double>>& waypoints,
      const std::vector<double>& gripper_positions, double time_sec, double speed_percent);
  // The latest measured gripper opening clamped into the stroke, 0 before any feedback.
  double current_gripper_opening();

  // ---- Waypoint motion execution (waypoint_execution.cpp) ----
  // Plans from the current joint state, checks, publishes as a kind-3 command and waits for it
  // to end; returns the planned duration. `gripper_positions` may be null.
  double publish_joint_waypoint_trajectory_command(
      const std::vector<std::vector<double>>& waypoints, double time_sec, double speed_percent,
      double control_hz, const std::vector<double>* gripper_positions);
  // Plans a chunk that takes over the running motion switch_delay_sec from now, continuous in
  // position and velocity there; returns its planned duration without waiting.
  double publish_joint_waypoint_chunk_update_command(
      const std::vector<std::vector<double>>& waypoints, double time_sec, double speed_percent,
      double switch_delay_sec, double control_hz, const std::vector<double>* gripper_positions);
  // Blocks until the waypoint command `command_id` is over; throws when a stop ended it.
  void wait_for_waypoint_motion(int64_t command_id);

  struct PreparedMotion {
    Timeline samples;
    std::shared_ptr<const std::vector<double>> gripper_timeline;
    double duration = 0.0;
  };
  // Argument checks of both publishers that come before the joint state is read.
  void check_waypoint_arguments(const std::vector<std::vector<double>>& waypoints, double time_sec,
                                double speed_percent, double control_hz, const double* switch_delay,
                                const std::vector<double>* gripper_positions) const;
  // Plans and checks a waypoint motion from `start` (at rest, or a running motion's state to
  // splice from); `prefix` names the caller in messages.
  PreparedMotion prepare_waypoint_motion(const std::vector<std::vector<double>>& waypoints,
                                         double time_sec, double speed_percent, double control_hz,
                                         const std::vector<double>* gripper_positions,
                                         const MotionState& start, const char* prefix);
  // The state the running command will command at `when_ns` (command_mutex held): the
  // running or staged timeline, the joint move, or the hold target; false when nothing is
  // commanded (no command yet, gravity mode).
  bool commanded_state_at_locked(int64_t when_ns, const JointArray& measured,
                                 MotionState& out) const;
  // The state a splice at `when_ns` starts from (the running command's, or the measured joints
  // at rest when nothing is commanded), read together with the slot's revision.
  std::pair<MotionState, uint64_t> splice_start(int64_t when_ns, const JointArray& measured);
  // Stages a timeline to take over at `switch_time_ns`, unless the slot has changed since
  // `revision` or the control thread has already passed that time; a stop also ends the running
  // waypoint command's wait ("motion stopped").
  // Plans a motion with `plan` from the running command's state at a switch `switch_delay_sec`
  // from now (or as soon as planning allows, judged by `planning_estimate_ns`), and stages it;
  // plans again while the motion moves on under it, and throws std::runtime_error
  // `changing_message` after a few attempts.
  struct StagedMotion {
    int64_t id = -1;
    PreparedMotion motion;
    double switch_delay_sec = 0.0;
  };
  // Throws std::runtime_error "motion stopped" when stop() comes while it plans.
  StagedMotion stage_spliced_motion(const std::function<PreparedMotion(const MotionState&)>& plan,
                                    double switch_delay_sec, double control_hz,
                                    const JointArray& measured,
                                    std::atomic<int64_t>& planning_estimate_ns,
                                    const char* changing_message);
  // Returns the staged command id, or -1 when it was too late, or -2 when stop() has been
  // called since `stops_seen` (when given).
  int64_t stage_splice(Timeline samples,
                       std::shared_ptr<const std::vector<double>> gripper_timeline,
                       int64_t switch_time_ns, double sample_period, uint64_t revision,
                       bool stopping, const uint64_t* stops_seen = nullptr);
  // Whether the waypoint command `command_id` is staged, or running in the slot (command_mutex
  // held).
  bool waypoint_command_pending_locked(int64_t command_id) const;
  void record_last_samples(const std::vector<Sample>& samples);
  // The slot's gripper timeline is being dropped at `when_ns` (command_mutex held): the gripper
  // keeps the opening the timeline commands then, not an older direct target.
  void freeze_gripper_timeline_locked(int64_t when_ns);
  // Raises a stop flag under command_mutex, so that no waiter can miss it, and wakes every
  // waiter.
  void raise_stop_flag(std::atomic<bool>& flag);

  // ---- Cartesian motions (cartesian_motion.cpp) ----
  // Joint timeline of a straight-line tool path from q_start through `poses` (see move_l),
  // with the gripper opening beside each sample when targets are given (current first).
  std::vector<Sample> plan_cartesian_line_trajectory(
      const JointArray& q_start, const std::vector<std::vector<double>>& poses, double time_sec,
      double speed, double blend_radius_m, double control_hz, double position_tolerance_m,
      double orientation_tolerance_rad, const char* prefix,
      std::vector<double>* gripper_timeline_out = nullptr,
      const std::vector<double>* point_gripper_targets = nullptr);
  // Plans the poses (linear or point to point), checks, executes and waits; returns the
  // planned duration.
  double publish_cartesian_waypoint_trajectory_command(
      const std::vector<std::vector<double>>& poses, double time_sec, double speed_percent,
      double blend_radius_m, double control_hz, double position_tolerance_m,
      double orientation_tolerance_rad, bool linear, const std::vector<double>* gripper_positions);

  // ---- Singularity detour (singularity_detour.cpp) ----
  // Index of the waypoint segment (0 = start to first waypoint) that holds sample `sample` of a
  // plan with these step counts per segment.
  static size_t find_waypoint_segment_for_sample(const std::vector<long>& segment_steps,
                                                 size_t sample);
  // Postures to insert between `from` and `to` so that the segment no longer meets the singular
  // posture `offending`, most promising first, clamped into the joint limits.
  std::vector<JointArray> build_singularity_avoidance_candidates(const JointArray& from,
                                                                 const JointArray& to,
                                                                 const JointArray& offending) const;

  // ---- Control loop pieces (control thread only; see control_loop.cpp) ----
  struct LoopState;
  struct CycleTargets;
  void read_feedback(LoopState& loop, int64_t now);
  void take_command(LoopState& loop, int64_t now);
  bool compute_targets(LoopState& loop, int64_t now, CycleTargets& out);
  // The frames of a cycle are encoded first, then written back to back (write_frames): the
  // loop's statistics time the compute and the bus I/O apart.
  void encode_arm_frames(LoopState& loop, const CycleTargets& targets);
  void encode_gripper_frame(LoopState& loop, const CycleTargets& targets, int64_t now);
  void write_frames(LoopState& loop);
  void compute_feedforward(const LoopState& loop, const CycleTargets& targets, JointArray& tau);
  void supervise_motors(LoopState& loop, int64_t now);
  void supervise_runtime_limits(LoopState& loop);
  void supervise_waypoint_tracking(LoopState& loop, const CycleTargets& targets);
  void supervise_gripper(LoopState& loop, const CycleTargets& targets, int64_t now);
  void report_clips(LoopState& loop, int64_t now);
  // Ends kind-3 playback with a hold; a tracking stop (`drop_staged`) also drops a staged chunk.
  void end_waypoint_playback(LoopState& loop, const JointArray& hold, bool drop_staged);
  void carry_out_emergency_stop();
  // Under command_mutex: keeps `held` in retired_timelines when the loop's copy is its last owner.
  template <typename T>
  void retire_if_last_locked(std::shared_ptr<T>& held, const std::shared_ptr<T>& next);
  // Torque-monitor thread: lets go of the timelines the loop retired.
  void release_retired_timelines();

  // ---- Configuration (read once, at construction) ----
  ArmController* owner;
  bool enable_gripper;
  ControlMode control_mode;
  bool skip_hardware_init;
  kestrel::controller::PosVelModeConfig pos_vel_config;
  kestrel::controller::MitModeConfig mit_config;
  kestrel::controller::JointTrajectoryConfig trajectory_config;
  kestrel::algorithms::SafetyConfig safety_config;
  kestrel::controller::RuntimeJointSafetyConfig runtime_safety_config;
  kestrel::controller::GripperWatchdogConfig gripper_watchdog_config;
  kestrel::controller::MotorSupervisionConfig motor_supervision_config;
  kestrel::controller::GripperControlConfig gripper_control_config;
  kestrel::controller::RealtimeConfig realtime_config = kestrel::controller::load_realtime_config();
  JointArray motor_signs{1, 1, 1, 1, 1, 1};

  // Built-in values.
  double command_sample_period = 0.0025;
  double gripper_default_kp = 8.0;
  double gripper_default_kd = 0.1;
  double gripper_stroke = 0.085;
  size_t torque_window_length = 10;
  std::vector<std::deque<double>> torque_windows = std::vector<std::deque<double>>(7);
  // Runtime velocity/acceleration/jerk supervision besides trajectory_safety.enabled
  // (runtime_joint_safety.enabled).
  bool runtime_derivative_checks_enabled = true;

  // ---- Hardware and model ----
  std::unique_ptr<kestrel::can::socket::Kestrel> kestrel;
  std::unique_ptr<RobotKinematics> kinematics;
  // The control thread's own copy of the dynamics: its feed-forward never waits on the model's
  // mutex, which inverse kinematics and planning hold for whole searches.
  std::unique_ptr<kestrel::algorithms::ChainDynamics> cycle_dynamics;
  // Copies of the URDF limits and the planner's limits, fixed after construction.
  JointArray joint_lower{};
  JointArray joint_upper{};
  std::array<bool, kJoints> joint_has_limits{};
  JointArray max_vel{};
  JointArray max_acc{};
  JointArray max_jerk{};

  // ---- Command slot ----
  std::mutex command_mutex;
  std::condition_variable motion_cv;
  CommandState command;
  // Timelines waiting for their switch times (chunk updates, a stop, a spliced motion), in order
  // of those times: each replaces the slot's motion then, and its id becomes the command id (so
  // a waiter on the replaced motion returns at the switch). Kept beside the slot, not in it: the
  // control thread copies the slot every cycle, and this list must not be copied.
  struct StagedTimeline {
    Timeline samples;
    std::shared_ptr<const std::vector<double>> gripper_timeline;
    int64_t switch_time_ns = 0;
    double sample_period = 0.0025;
    int64_t command_id = 0;
  };
  static constexpr size_t kMaxStagedTimelines = 32;
  std::vector<StagedTimeline> staged;  // capacity reserved at construction
  // Timelines the control loop held last: the torque monitor releases them, so that the control
  // thread never frees a long timeline. Capacity reserved at construction; when it is full the
  // loop lets go of one itself.
  static constexpr size_t kMaxRetiredTimelines = 16;
  std::vector<std::shared_ptr<const void>> retired_timelines;
  int64_t gripper_command_time_ns = 0;
  bool gripper_command_seen = false;
  // Start time of the latest cycle that took the command (under command_mutex): a splice is
  // published only while the loop has not yet reached its switch time.
  int64_t last_cycle_ns = 0;
  // How long the latest chunk (joint motion, linear motion) took to plan: the earliest switch
  // the next one can make.
  std::atomic<int64_t> chunk_planning_estimate_ns{0};
  std::atomic<int64_t> motion_planning_estimate_ns{0};
  std::atomic<int64_t> line_planning_estimate_ns{0};

  // ---- Published state (written by the control thread) ----
  std::mutex state_mutex;
  JointArray joint_positions{};
  JointArray joint_velocities{};
  std::atomic<bool> joint_state_valid{false};
  std::atomic<bool> joint_velocity_valid{false};
  double gripper_position = 0.0;
  double gripper_distance = 0.0;
  int64_t gripper_state_time_ns = 0;
  std::atomic<bool> gripper_state_valid{false};
  std::mutex torque_mutex;
  JointArray joint_torques{};
  std::atomic<bool> torque_state_valid{false};

  // ---- Threads and stop flags (never cleared) ----
  std::atomic<bool> exit_flag{false};
  std::atomic<bool> emergency_stop_flag{false};
  std::atomic<bool> control_loop_running{false};
  std::thread control_thread;
  std::thread monitor_thread;
  kestrel::controller::LoopTimingRecorder loop_timing;

  // ---- Streaming state of set_end_effector_pose_raw (own mutex) ----
  std::mutex pose_stream_mutex;
  bool pose_stream_started = false;
  int64_t pose_stream_last_ns = 0;
  JointArray pose_stream_q{};
  JointArray pose_stream_v{};

  // ---- The latest control cycle (own mutex; written by the control thread) ----
  mutable std::mutex cycle_sample_mutex;
  kestrel::controller::ControlCycleSample cycle_sample;
  // Counts stop() calls: a motion program that sees it change goes no further.
  std::atomic<uint64_t> stop_generation{0};
  void publish_cycle_sample(const LoopState& loop, const CycleTargets& targets,
                            int64_t cycle_start_ns);
  void stop_motion();
  // Sleeps up to `seconds`, returning early (false) when stop() or shutdown intervenes.
  bool sleep_unless_stopped(double seconds, uint64_t generation);

  // ---- Last commanded waypoint samples (own mutex) ----
  std::mutex last_samples_mutex;
  std::vector<std::vector<double>> last_waypoint_samples;
};

class ArmController::CallScope {
 public:
  explicit CallScope(const ArmController& arm) : arm_(arm) {
    // Counted before the check: cleanup() raises its flag before it waits for the count.
    arm_.active_calls_.fetch_add(1);
    if (arm_.cleaned_up_.load()) {
      arm_.active_calls_.fetch_sub(1);
      throw std::runtime_error("ArmController has been cleaned up");
    }
  }
  ~CallScope() { arm_.active_calls_.fetch_sub(1); }
  CallScope(const CallScope&) = delete;
  CallScope& operator=(const CallScope&) = delete;

 private:
  const ArmController& arm_;
};
