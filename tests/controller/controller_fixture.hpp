// A simulated arm on a private userspace CAN bus, and a window into the controller's command slot
// for tests that hand the control loop a timeline directly.
#pragma once

#include <gtest/gtest.h>

#include <Eigen/Core>
#include <algorithm>
#include <chrono>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "kestrel/controller/arm_controller_impl.hpp"
#include "kestrel/controller/interfaces.hpp"
#include "kestrel_sim/rigid_body_arm_plant.hpp"
#include "kestrel_sim/simulated_motor_bus.hpp"
#include "simbus/simbus_testing.hpp"

namespace kestrel::testing {

// The arm's seven simulated motors on interface "can0" of a private bus, moving by the arm's
// rigid-body dynamics (resting at the zero pose until driven). A test that needs exact motor
// readings gives a posture in motor coordinates (shaft angles): the motors then sit on
// independent, gravity-free shafts so that nothing moves them before the check under test.
class SimulatedArm {
 public:
  explicit SimulatedArm(bool fd = false, std::vector<double> motor_posture = {}) {
    sim::BusOptions options;
    options.interface = "can0";
    options.fd = fd;
    auto arm =
        motor_posture.empty() ? sim::RigidBodyArmPlant::from_shipped_configuration() : nullptr;
    rigid_ = arm.get();
    motors_ =
        std::make_unique<sim::SimulatedMotorBus>(sim::arm_motor_configs(), options, std::move(arm));
    if (!motor_posture.empty()) {
      motors_->set_posture(motor_posture);
    }
    motors_->start();
  }

  // Joint-space posture of the rigid-body arm, read under the simulation's lock.
  std::array<double, 6> joint_positions() {
    std::array<double, 6> q{};
    motors_->with_simulation([&](sim::MotorSimulation&) { q = rigid_->joint_positions(); });
    return q;
  }
  ~SimulatedArm() { motors_->stop(); }

  sim::SimulatedMotorBus& motors() { return *motors_; }
  simbus::ScopedSimbus& bus() { return bus_; }

  // Applies an external torque gradually, as a hand pushing on the link would: a step would
  // make the run-time acceleration supervision stop the arm before anything else is seen.
  void ramp_external_torque(size_t motor, double from, double to,
                            std::chrono::milliseconds duration) {
    const int steps = 50;
    for (int i = 1; i <= steps; ++i) {
      motors_->set_external_torque(motor, from + (to - from) * i / steps);
      std::this_thread::sleep_for(duration / steps);
    }
  }

  // The largest steps between consecutive MIT targets each arm motor received (since the frame
  // log was last cleared), as fractions of what the limits allow between the two frames:
  // position against vmax, velocity against amax, over the time between them (at least one
  // control period: a frame delayed on the bus arrives closer to the next) plus one more period
  // of bus jitter, and two counts of the frame's field. Above 1: a jump.
  struct TargetSteps {
    double position = 0.0;
    double velocity = 0.0;
    int position_joint = 0;  // 1-based, where the largest step was
    int velocity_joint = 0;
  };
  TargetSteps largest_target_steps(const std::array<double, 6>& vmax,
                                   const std::array<double, 6>& amax) const {
    // 16-bit positions over +-12.5 rad; 12-bit velocities over +-8 rad/s (joints 1-3) and
    // +-30 rad/s (joints 4-6).
    constexpr double kPositionCount = 25.0 / 65535.0;
    const double velocity_count[6] = {16.0 / 4095, 16.0 / 4095, 16.0 / 4095,
                                      60.0 / 4095, 60.0 / 4095, 60.0 / 4095};
    TargetSteps worst;
    std::array<const sim::LoggedFrame*, 6> previous{};
    for (const auto& entry : motors_->received_frames()) {
      const int m = static_cast<int>(entry.command.motor);
      if (entry.command.kind != sim::CommandKind::kMit || m < 0 || m >= 6) {
        continue;
      }
      if (previous[m] != nullptr) {
        const double dt =
            std::max(std::chrono::duration<double>(entry.time - previous[m]->time).count(),
                     0.0025) +
            0.0025;
        const double dq = std::abs(entry.command.mit.q - previous[m]->command.mit.q);
        const double dv = std::abs(entry.command.mit.dq - previous[m]->command.mit.dq);
        const double p = dq / (vmax[m] * dt + 2 * kPositionCount);
        const double v = dv / (amax[m] * dt + 2 * velocity_count[m]);
        if (p > worst.position) {
          worst.position = p;
          worst.position_joint = m + 1;
        }
        if (v > worst.velocity) {
          worst.velocity = v;
          worst.velocity_joint = m + 1;
        }
      }
      previous[m] = &entry;
    }
    return worst;
  }

  // Received frames with the given identifier whose last payload byte is `last_byte`.
  size_t count_received(uint32_t id, uint8_t last_byte) const {
    size_t n = 0;
    for (const auto& entry : motors_->received_frames()) {
      if (entry.frame.id == id && entry.frame.payload()[7] == last_byte) {
        ++n;
      }
    }
    return n;
  }

 private:
  simbus::ScopedSimbus bus_{{"can0"}};
  std::unique_ptr<sim::SimulatedMotorBus> motors_;
  sim::RigidBodyArmPlant* rigid_ = nullptr;
};

// Waits until `predicate` holds or `timeout` passes; returns the last value.
template <typename Predicate>
bool eventually(Predicate predicate, std::chrono::milliseconds timeout) {
  const auto end = std::chrono::steady_clock::now() + timeout;
  while (std::chrono::steady_clock::now() < end) {
    if (predicate()) {
      return true;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return predicate();
}

// Waits until all seven simulated motors are disabled: they take frames on a thread of their own,
// so a disable sent at shutdown is seen there a moment after the controller returns.
inline bool motors_end_disabled(SimulatedArm& sim) {
  return eventually(
      [&] {
        for (size_t i = 0; i < 7; ++i) {
          if (sim.motors().motor_state(i).enabled) {
            return false;
          }
        }
        return true;
      },
      std::chrono::seconds(2));
}

// Distance of point p from the segment a-b.
inline double segment_distance(const Eigen::Vector3d& p, const Eigen::Vector3d& a,
                               const Eigen::Vector3d& b) {
  const Eigen::Vector3d d = b - a;
  const double t = std::clamp((p - a).dot(d) / d.squaredNorm(), 0.0, 1.0);
  return (a + t * d - p).norm();
}

}  // namespace kestrel::testing

// Declared a friend of ArmController: reaches the private command slot.
class ArmControllerTestAccess {
 public:
  using Impl = ArmController::Impl;
  using Sample = kestrel::algorithms::WaypointTrajectorySample;

  static ArmController::Impl& impl(ArmController& arm) { return *arm.impl_; }

  // Hands the loop a kind-3 timeline at the controller's sample period; returns its command id.
  static int64_t play(ArmController& arm, std::vector<Sample> samples) {
    auto& i = impl(arm);
    return i.write_waypoint_command(std::make_shared<const std::vector<Sample>>(std::move(samples)),
                                    nullptr, i.command_sample_period);
  }

  // Number of waypoint commands published so far (one per executed motion).
  static int64_t command_counter(ArmController& arm) {
    auto& i = impl(arm);
    std::lock_guard<std::mutex> lock(i.command_mutex);
    return i.command.command_counter;
  }

  // The raw target velocity of the command slot (set_joint_raw, set_end_effector_pose_raw).
  static kestrel::controller::JointArray target_velocity(ArmController& arm) {
    auto& i = impl(arm);
    std::lock_guard<std::mutex> lock(i.command_mutex);
    return i.command.target_velocity;
  }

  // What the torque monitor does on a sustained overload.
  static void raise_emergency_stop(ArmController& arm) {
    auto& i = impl(arm);
    i.emergency_stop_flag = true;
    i.notify_motion_state_changed();
  }

  // The command slot's target (the final posture of a waypoint motion) and whether a timeline
  // is staged to take over (chunk update, stop).
  static kestrel::controller::JointArray command_target(ArmController& arm) {
    auto& i = impl(arm);
    std::lock_guard<std::mutex> lock(i.command_mutex);
    return i.command.target;
  }
  static bool staged(ArmController& arm) {
    auto& i = impl(arm);
    std::lock_guard<std::mutex> lock(i.command_mutex);
    return !i.staged.empty();
  }

  // The control thread, and the planner's safety pass over a timeline.
  static pthread_t control_thread(ArmController& arm) {
    return impl(arm).control_thread.native_handle();
  }
  static void check_safety(ArmController& arm, const std::vector<Sample>& samples) {
    impl(arm).evaluate_waypoint_trajectory_safety(samples);
  }

  static int command_kind(ArmController& arm) {
    auto& i = impl(arm);
    std::lock_guard<std::mutex> lock(i.command_mutex);
    return i.command.kind;
  }
};
