#include "kestrel/controller/motor_supervision.hpp"

#include <algorithm>
#include <sstream>

#include "kestrel/damiao_motor/dm_motor_device.hpp"

namespace kestrel::controller {

namespace {

// Three fetches without a reply as well as the time: a control loop that was held up for a
// while must ask again before its motors count as silent.
constexpr int kUnansweredFetches = 3;

std::string milliseconds(int64_t ns) {
  std::ostringstream out;
  out.precision(1);
  out << std::fixed << static_cast<double>(ns) * 1e-6;
  return out.str();
}

}  // namespace

bool MotorSupervision::observe(Watch& w, const Reading& r, int64_t now_ns, int64_t timeout_ns) {
  if (r.feedback_count != w.count) {
    w.count = r.feedback_count;
    w.answer_ns = now_ns;
    w.unanswered = 0;
    return false;
  }
  ++w.unanswered;
  return w.unanswered >= kUnansweredFetches && now_ns - w.answer_ns >= timeout_ns;
}

MotorSupervision::Finding MotorSupervision::update(const Reading* arm, size_t arm_count,
                                                   const Reading* gripper, int64_t now_ns) {
  Finding finding;
  if (!config_.enabled) {
    return finding;
  }
  arm_count = std::min(arm_count, kMaxArmMotors);
  if (!started_) {
    started_ = true;
    for (size_t i = 0; i < arm_count; ++i) {
      watch_[i].count = arm[i].feedback_count;
      watch_[i].answer_ns = now_ns;
    }
    if (gripper != nullptr) {
      watch_[kMaxArmMotors].count = gripper->feedback_count;
      watch_[kMaxArmMotors].answer_ns = now_ns;
    }
    return finding;
  }

  const auto timeout_ns = static_cast<int64_t>(config_.silent_timeout_ms * 1e6);
  const auto gripper_timeout_ns =
      static_cast<int64_t>(std::max(config_.silent_timeout_ms, kGripperSilentMs) * 1e6);
  std::ostringstream faults;
  std::ostringstream silent;
  size_t silent_count = 0;
  int64_t longest_silence = 0;
  for (size_t i = 0; i < arm_count; ++i) {
    Watch& w = watch_[i];
    const bool is_silent = observe(w, arm[i], now_ns, timeout_ns);
    if (is_fault(arm[i].status) && w.unanswered == 0) {
      faults << (faults.tellp() > 0 ? ", " : "") << "joint=" << i + 1 << " status=" << arm[i].status
             << " (" << damiao_motor::dm_status_text(arm[i].status) << ")";
    } else if (is_silent) {
      silent << (silent_count > 0 ? "," : "") << i + 1;
      ++silent_count;
      longest_silence = std::max(longest_silence, now_ns - w.answer_ns);
    }
  }
  if (faults.tellp() > 0) {
    finding.stop_arm = true;
    finding.arm_line = "motor fault stop: " + faults.str();
  } else if (silent_count > 0) {
    finding.stop_arm = true;
    finding.arm_line = std::string("motor silent stop: ") +
                       (silent_count > 1 ? "joints=" : "joint=") + silent.str() +
                       " no feedback for " + milliseconds(longest_silence) + " ms";
    if (silent_count == arm_count) {
      finding.arm_line += " (no arm motor answers: is the CAN bus up and the arm powered?)";
    }
  }

  if (gripper != nullptr) {
    Watch& w = watch_[kMaxArmMotors];
    const bool is_silent = observe(w, *gripper, now_ns, gripper_timeout_ns);
    const bool fault = is_fault(gripper->status) && w.unanswered == 0;
    if (fault && !w.fault_standing) {
      finding.gripper_line = "gripper motor fault: status=" + std::to_string(gripper->status) +
                             " (" + damiao_motor::dm_status_text(gripper->status) + ")";
    } else if (is_silent && !w.silent_standing) {
      finding.gripper_line =
          "gripper motor silent: no feedback for " + milliseconds(now_ns - w.answer_ns) + " ms";
    }
    if (w.unanswered == 0) {
      w.fault_standing = fault;
    }
    w.silent_standing = is_silent;
  }
  return finding;
}

}  // namespace kestrel::controller
