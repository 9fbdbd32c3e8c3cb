// Motors that report a fault or stop answering, seen from the control loop's feedback fetches.
//
// A DM motor in fault (status 8-14) has stopped applying torque, and a motor that no longer
// answers may be unpowered or cut off from the bus: either way its link is no longer held, and
// the arm must stop at once, naming the motor, before the consequence (a falling link, a runaway
// derivative) is all that is seen. The gripper's motor is reported instead: the arm holds on.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <string>

#include "kestrel/controller/controller_config.hpp"

namespace kestrel::controller {

class MotorSupervision {
 public:
  // What one motor's device holds after a fetch.
  struct Reading {
    uint32_t feedback_count = 0;  // feedback frames stored so far
    int status = 0;               // the latest status code (0 disabled, 1 enabled, 8-14 faults)
  };
  struct Finding {
    bool stop_arm = false;     // an arm motor: emergency stop
    std::string arm_line;      // why (set with stop_arm)
    std::string gripper_line;  // once per episode of a gripper fault or silence
  };

  static constexpr size_t kMaxArmMotors = 6;
  // The gripper's motor is asked less often (only the 5 ms refresh while it has no command), so
  // a run of lost replies is likelier: it counts as silent after this, or the configured time
  // when that is longer.
  static constexpr double kGripperSilentMs = 100.0;

  explicit MotorSupervision(const MotorSupervisionConfig& config) : config_(config) {}

  // One call per feedback fetch, after the replies were read. `gripper` is null without one.
  // The first call only takes the counts as they stand.
  Finding update(const Reading* arm, size_t arm_count, const Reading* gripper, int64_t now_ns);

  static bool is_fault(int status) { return status >= 8 && status <= 14; }

 private:
  struct Watch {
    uint32_t count = 0;
    int64_t answer_ns = 0;  // when the count last moved
    int unanswered = 0;     // fetches since then
    bool silent_standing = false;
    bool fault_standing = false;
  };
  // True when the motor has been silent for `timeout_ns` or longer; updates its watch.
  static bool observe(Watch& w, const Reading& r, int64_t now_ns, int64_t timeout_ns);

  MotorSupervisionConfig config_;
  bool started_ = false;
  std::array<Watch, kMaxArmMotors + 1> watch_{};
};

}  // namespace kestrel::controller
