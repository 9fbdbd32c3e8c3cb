// The torque monitor: averages each joint's measured torque over a short window, warns the
// operator, and raises the emergency stop after a sustained overload. It never talks to the bus:
// the control loop carries the stop out. It also says when the loop's frame writes start to
// fail, so that the cycle itself never prints.
#include <time.h>

#include <array>
#include <cerrno>
#include <cmath>
#include <cstdint>
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

// One line per cause, the first time writes fail for it. The errno shown is the latest one when
// it belongs to the cause (it almost always does: this runs every 20 ms), else the cause's usual.
void report_new_send_failures(const kestrel::canbus::CANSocket& socket,
                              std::array<bool, 4>& reported) {
  using kestrel::canbus::SendFailureCause;
  const auto counts = socket.send_failures();
  const struct {
    std::uint64_t count;
    SendFailureCause cause;
    int usual_errno;
  } causes[] = {{counts.refused, SendFailureCause::refused, EINVAL},
                {counts.queue_full, SendFailureCause::queue_full, ENOBUFS},
                {counts.interface_down, SendFailureCause::interface_down, ENETDOWN},
                {counts.other, SendFailureCause::other, counts.last_errno}};
  for (std::size_t i = 0; i < reported.size(); ++i) {
    if (causes[i].count == 0 || reported[i]) {
      continue;
    }
    reported[i] = true;
    const int error = kestrel::canbus::send_failure_cause(counts.last_errno) == causes[i].cause
                          ? counts.last_errno
                          : causes[i].usual_errno;
    std::cerr << "CAN writes to '" << socket.get_interface_name()
              << "' are failing: " << kestrel::canbus::send_error_text(error)
              << "; counted in the loop statistics" << std::endl;
  }
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
  std::array<bool, 4> send_failures_reported{};
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
    report_new_send_failures(kestrel->get_socket(), send_failures_reported);
    release_retired_timelines();
    if (top + kMonitorPeriodNs > now_ns()) {
      sleep_until_ns(top + kMonitorPeriodNs);
    }
  }
  std::cerr << "[torque_monitor] loop exited. exit_flag=" << (exit_flag.load() ? 1 : 0)
            << " emergency_stop_flag=" << (emergency_stop_flag.load() ? 1 : 0) << std::endl;
}
