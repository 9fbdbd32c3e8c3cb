// Construction, motor start-up, thread start and shutdown of the controller.
#include <cmath>
#include <cstdlib>
#include <iomanip>
#include <iostream>
#include <sstream>
#include <stdexcept>

#include "kestrel/controller/arm_controller_impl.hpp"

namespace dm = kestrel::damiao_motor;
namespace kc = kestrel::controller;

namespace {

constexpr double kJoint2StartupThreshold = -1.57;

// "label [1.000, 2.000, 3.000]"; an empty list prints the label and "]".
void print_value_list(const std::string& label, const std::vector<double>& values) {
  std::ostringstream line;
  line << label;
  line << std::fixed << std::setprecision(3);
  for (size_t i = 0; i < values.size(); ++i) {
    line << (i == 0 ? " [" : ", ") << values[i];
  }
  line << "]";
  std::cout << line.str() << std::endl;
}

std::vector<double> as_doubles(const std::vector<float>& values) {
  return std::vector<double>(values.begin(), values.end());
}

std::vector<float> as_floats(const kc::JointArray& values) {
  return std::vector<float>(values.begin(), values.end());
}

// Each arm motor's last read of register `rid` (-1.0 for a motor that did not answer).
std::vector<double> read_register(kestrel::can::socket::Kestrel& kestrel, int rid) {
  std::vector<double> values;
  for (const auto& motor : kestrel.get_arm().get_motors()) {
    values.push_back(motor.get_param(rid));
  }
  return values;
}

// Ends the process when a read-back register list differs from what was written.
void verify_registers(const char* label, const std::vector<double>& read,
                      const std::vector<float>& configured) {
  if (read.size() != configured.size()) {
    std::cerr << label << " verification failed: expected " << configured.size() << " values, got "
              << read.size() << std::endl;
    std::exit(1);
  }
  for (size_t i = 0; i < read.size(); ++i) {
    if (!(std::abs(read[i] - configured[i]) <= 1e-4)) {
      std::cerr << label << " verification failed at joint " << (i + 1) << ": expected "
                << configured[i] << ", got " << read[i] << std::endl;
      std::exit(1);
    }
  }
}

}  // namespace

ArmController::Impl::Impl(const std::string& can_interface, bool use_canfd, ArmController* owner,
                          bool enable_gripper, ControlMode control_mode, bool skip_hardware_init)
    : owner(owner),
      enable_gripper(enable_gripper),
      control_mode(control_mode),
      skip_hardware_init(skip_hardware_init) {
  kestrel = std::make_unique<kestrel::can::socket::Kestrel>(can_interface, use_canfd);
  // An FD socket opens on a classic interface too, and then every FD frame fails to go out:
  // refuse before anything is sent.
  if (use_canfd) {
    const std::string refusal =
        kestrel::canbus::canfd_mtu_refusal(can_interface, kestrel->get_socket().interface_mtu());
    if (!refusal.empty()) {
      throw kestrel::canbus::CANSocketException(refusal);
    }
  }
  kinematics = std::make_unique<RobotKinematics>();
  cycle_dynamics = std::make_unique<kestrel::algorithms::ChainDynamics>(*kinematics);

  if (control_mode != MIT_MODE && control_mode != POS_VEL_MODE) {
    throw std::invalid_argument("ArmController only supports MIT_MODE or POS_VEL_MODE.");
  }

  pos_vel_config = kc::load_pos_vel_mode_config();
  mit_config = kc::load_mit_mode_config();
  trajectory_config = kc::load_joint_trajectory_config();
  safety_config = kestrel::algorithms::load_safety_config();
  runtime_safety_config = kc::load_runtime_joint_safety_config();
  gripper_watchdog_config = kc::load_gripper_watchdog_config();
  motor_supervision_config = kc::load_motor_supervision_config();
  gripper_control_config = kc::load_gripper_control_config();
  gripper_default_kp = gripper_control_config.default_kp;
  gripper_default_kd = gripper_control_config.default_kd;
  command.gripper_kp = gripper_default_kp;
  command.gripper_kd = gripper_default_kd;
  // runtime_joint_safety.enabled switches the run-time velocity/acceleration/jerk checks; the
  // torque monitor always runs.
  runtime_derivative_checks_enabled = runtime_safety_config.enabled;
  motor_signs = kc::load_motor_signs_config();
  kc::check_motor_signs(motor_signs);
  for (double& sign : motor_signs) {
    sign = sign < 0.0 ? -1.0 : 1.0;  // exactly, within the check's tolerance
  }

  if (!skip_hardware_init) {
    std::vector<dm::Motor> motors;
    try {
      initial_kestrel();
      kestrel->get_arm().refresh_all();
      kestrel->recv_all(2000);
      motors = kestrel->get_arm().get_motors();
    } catch (const std::exception& e) {
      std::cerr << "Error initializing  " << e.what() << std::endl;
      throw;
    }
    // A joint 2 this far back means the arm lies on its back (or the zero is wrong): moving
    // from there could throw it over. The motors stay enabled; the operator must intervene.
    if (motors.size() >= 2) {
      const double joint2 = motors[1].get_position() * motor_signs[1];
      if (joint2 < kJoint2StartupThreshold) {
        std::cerr << "[ArmController] Startup rejected: joint2=" << joint2
                  << " rad is below the safety threshold -1.57 rad." << std::endl;
        std::exit(1);
      }
    }
  }

  const auto& lower = kinematics->joint_lower_limits();
  const auto& upper = kinematics->joint_upper_limits();
  const auto& has_limits = kinematics->joint_has_limits();
  for (int j = 0; j < kJoints && j < kinematics->num_joints(); ++j) {
    joint_lower[j] = lower[j];
    joint_upper[j] = upper[j];
    joint_has_limits[j] = has_limits[j];
  }
  staged.reserve(kMaxStagedTimelines);  // the control thread only ever removes from it
  retired_timelines.reserve(kMaxRetiredTimelines);
  max_vel = trajectory_config.max_vel_limits;
  max_acc = trajectory_config.max_acc_limits;
  max_jerk = trajectory_config.max_jerk_limits;
}

ArmController::Impl::~Impl() {
  request_stop_and_join();
}

void ArmController::Impl::initial_kestrel() {
  using T = dm::MotorType;
  kestrel->init_arm_motors(
      {T::DM_V8_T28, T::DM_V8_T28, T::DM_V8_T28, T::DM_V30_T10, T::DM_V30_T10, T::DM_V30_T10},
      {0x01, 0x02, 0x03, 0x04, 0x05, 0x06}, {0x11, 0x12, 0x13, 0x14, 0x15, 0x16});
  if (enable_gripper) {
    kestrel->init_gripper_motor(T::DM_V30_T10, 0x07, 0x17);
    kestrel->get_gripper().clrErr_all();
    kestrel->get_gripper().switch_all_motors_mode(dm::MIT_MODE);  // the gripper is always MIT
  }
  kestrel->recv_all(2000);
  kestrel->set_timeout_all(0);  // no communication time-out while configuring
  kestrel->get_arm().clrErr_all();

  if (!uses_pos_vel_mode()) {
    kestrel->get_arm().switch_all_motors_mode(control_mode);
    kestrel->recv_all(2000);
  } else {
    // The registers hold 32-bit floats.
    const std::vector<float> acc = as_floats(pos_vel_config.max_acc_limits);
    const std::vector<float> dec = as_floats(pos_vel_config.max_dec_limits);
    const std::vector<float> kp_apr = as_floats(pos_vel_config.kp_apr_limits);
    auto& arm = kestrel->get_arm();
    arm.switch_all_motors_mode(dm::POS_VEL_MODE);
    kestrel->recv_all(20000);
    print_value_list("max_acc_limits:", as_doubles(acc));
    print_value_list("max_dec_limits:", as_doubles(dec));
    print_value_list("kp_apr_limits:", as_doubles(kp_apr));
    // Replies now arrive as parameter replies until we switch back to feedback.
    arm.set_callback_mode_all(dm::CallbackMode::PARAM);

    auto read_all = [&](const char* acc_label, const char* dec_label, const char* kp_label) {
      arm.query_acc_all();
      kestrel->recv_all(20000);
      const auto acc_read = read_register(*kestrel, dm::RID_ACC);
      arm.query_dec_all();
      kestrel->recv_all(20000);
      const auto dec_read = read_register(*kestrel, dm::RID_DEC);
      arm.query_kp_apr_all();
      kestrel->recv_all(20000);
      const auto kp_read = read_register(*kestrel, dm::RID_KP_APR);
      print_value_list(acc_label, acc_read);
      print_value_list(dec_label, dec_read);
      print_value_list(kp_label, kp_read);
      return std::array<std::vector<double>, 3>{acc_read, dec_read, kp_read};
    };
    read_all("Initial ACC:", "Initial DEC:", "Initial KP_APR:");
    arm.set_acc_all(acc);
    kestrel->recv_all(20000);
    arm.set_dec_all(dec);
    kestrel->recv_all(20000);
    arm.set_kp_apr_all(kp_apr);
    kestrel->recv_all(20000);
    const auto verified = read_all("Verified ACC:", "Verified DEC:", "Verified KP_APR:");
    verify_registers("ACC", verified[0], acc);
    verify_registers("DEC", verified[1], dec);
    verify_registers("KP_APR", verified[2], kp_apr);
  }

  kestrel->set_timeout_all(1000);  // 50 ms: a motor that stops hearing from us disables itself
  std::cout << "\n=== Enabling Motors ===" << std::endl;
  kestrel->enable_all();
  kestrel->recv_all(2000);
  kestrel->set_callback_mode_all(dm::CallbackMode::STATE);
  kestrel->recv_all(500);
  std::cout << "\n=== Enabling Motors Timeout Protection ===" << std::endl;
}

void ArmController::Impl::start_two_thread() {
  // The real-time set-up (when configured) takes each step as soon as it can: memory before the
  // threads map their stacks, each thread's scheduling right after it starts. What the system
  // refuses is reported and the controller runs on without it.
  kc::RealtimeSetup realtime(realtime_config);
  realtime.apply_to_process();
  control_loop_running.store(true);  // running from now on, not from the thread's first line
  control_thread = std::thread([this] { control_loop(); });
  realtime.apply_to_control_thread(control_thread);
  monitor_thread = std::thread([this] { monitor_motor_torque(); });
  realtime.apply_to_monitor_thread(monitor_thread);
  realtime.print_report(std::cerr);
}

void ArmController::Impl::request_stop_and_join() {
  raise_stop_flag(exit_flag);
  if (control_thread.joinable()) {
    control_thread.join();
  }
  if (monitor_thread.joinable()) {
    monitor_thread.join();
  }
}

void ArmController::Impl::notify_motion_state_changed() {
  motion_cv.notify_all();
}

// ---- ArmController ------------------------------------------------------------------------

ArmController::ArmController(bool enable_gripper, const std::string& can_interface, bool use_canfd,
                             ControlMode control_mode, bool skip_hardware_init) {
  impl_ = std::make_unique<Impl>(can_interface, use_canfd, this, enable_gripper, control_mode,
                                 skip_hardware_init);
  try {
    if (enable_gripper) {
      if (skip_hardware_init) {
        return;
      }
      closeGripper();  // the first gripper command waits in the slot for the loop
    }
    if (!skip_hardware_init) {
      impl_->start_two_thread();
    }
  } catch (...) {
    impl_->request_stop_and_join();
    impl_.reset();
    throw;
  }
}

ArmController::~ArmController() {
  cleanup();
}

void ArmController::cleanup() {
  if (cleaned_up_.exchange(true) || !impl_) {
    return;
  }
  impl_->request_stop_and_join();
  // Calls still inside (woken by the exit flag) leave before the implementation goes.
  while (active_calls_.load() > 0) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  if (!impl_->skip_hardware_init) {
    try {
      impl_->kestrel->disable_all();
      impl_->kestrel->recv_all(1000);
    } catch (...) {
      // Shutdown must go on: the motors' communication time-out disables them anyway.
    }
  }
  impl_.reset();
}

ArmController::Impl& ArmController::impl() const {
  if (!impl_) {
    throw std::runtime_error("ArmController has been cleaned up");
  }
  return *impl_;
}

bool ArmController::emergency_stopped() const {
  return impl_ && impl_->emergency_stop_flag.load();
}

bool ArmController::running() const {
  return impl_ && impl_->control_loop_running.load();
}

kestrel::controller::ControlLoopStatistics ArmController::control_loop_statistics() const {
  auto statistics = impl().loop_timing.snapshot();
  statistics.send_failures = impl().kestrel->get_socket().send_failures();
  return statistics;
}

kestrel::controller::ControlLoopHistograms ArmController::control_loop_histograms() const {
  return impl().loop_timing.histograms();
}

void ArmController::reset_control_loop_statistics() {
  impl().loop_timing.reset();
}
