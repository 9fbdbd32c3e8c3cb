// The torque monitor: averages each joint's measured torque over a short window, warns the
// operator, and raises the emergency stop after a sustained overload. It never talks to the bus:
// the control loop carries the stop out.
#include <time.h>

#include <cerrno>
#include <cmath>
#include <iostream>
#include <numeric>

#include "kestrel/controller/arm_controller_impl.hpp"

namespace {

constexpr int64_t kMonitorPeriodNs = 20000000;  // 20 ms
constexpr double kOverloadGraceSec = 6.0;

void sleep_until_ns(int64_t deadline_ns) {
  timespec ts;
  ts.tv_sec = static_cast<time_t>(deadline_ns / 1000000000);
  ts.tv_nsec = static_cast<long>(deadline_ns % 1000000000);
  while (clock_nanosleep(CLOCK_MONOTONIC, TIMER_ABSTIME, &ts, nullptr) == EINTR) {
  }
}

void print_warning(int joint, double avg, double warn, double stop, double timer,
                   double remaining) {
  std::cout << "⚠️ 警告：电机" << joint << " 平均力矩：" << avg << " 平均力矩超过报警阈值 "
            << warn << "，停止阈值 " << stop << " 已持续 " << timer << " 秒！若继续超限，将在 "
            << remaining << " 秒后断电！" << std::endl;
}

}  // namespace

bool ArmController::Impl::try_get_latest_torque_state(JointArray& out) {
  std::lock_guard<std::mutex> lock(torque_mutex);
  if (!torque_state_valid.load()) {
    return false;
  }
  out = joint_torques;
  return true;
}

void ArmController::Impl::monitor_motor_torque() {
  std::array<double, kJoints> over_limit_time{};
  int64_t previous_top = now_ns();
  const auto& warn = runtime_safety_config.torque_warn_limits;
  const auto& stop = runtime_safety_config.torque_stop_limits;
  while (!exit_flag.load()) {
    const int64_t top = now_ns();
    const double dt = static_cast<double>(top - previous_top) * 1e-9;
    previous_top = top;

    JointArray torques{};
    if (try_get_latest_torque_state(torques)) {
      for (int j = 0; j < kJoints; ++j) {
        auto& window = torque_windows[j];
        window.push_back(torques[j]);
        if (window.size() > torque_window_length) {
          window.pop_front();
        }
        const double avg =
            std::accumulate(window.begin(), window.end(), 0.0) / static_cast<double>(window.size());
        const double magnitude = std::abs(avg);
        double& timer = over_limit_time[j];
        if (magnitude > stop[j]) {
          timer += dt;
          if (magnitude > warn[j] && timer < kOverloadGraceSec) {
            print_warning(j + 1, avg, warn[j], stop[j], timer, kOverloadGraceSec - timer);
          }
          if (timer >= kOverloadGraceSec) {
            std::cout << "❌ 电机" << (j + 1) << " 平均力矩超阈值已持续 " << timer
                      << " 秒，触发急停！" << std::endl;
            std::cerr << "[torque_monitor] trigger emergency_stop on joint " << (j + 1)
                      << ", avg_torque=" << avg << ", threshold=" << stop[j]
                      << ", over_limit_time=" << timer << std::endl;
            raise_stop_flag(emergency_stop_flag);
            break;  // one joint triggers per pass
          }
        } else {
          timer = 0.0;
          if (magnitude > warn[j]) {
            print_warning(j + 1, avg, warn[j], stop[j], timer, kOverloadGraceSec);
          }
        }
      }
    }
    release_retired_timelines();
    if (top + kMonitorPeriodNs > now_ns()) {
      sleep_until_ns(top + kMonitorPeriodNs);
    }
  }
  std::cerr << "[torque_monitor] loop exited. exit_flag=" << (exit_flag.load() ? 1 : 0)
            << " emergency_stop_flag=" << (emergency_stop_flag.load() ? 1 : 0) << std::endl;
}
