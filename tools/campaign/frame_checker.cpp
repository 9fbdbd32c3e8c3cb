#include "campaign/frame_checker.hpp"

#include <algorithm>
#include <cmath>
#include <sstream>

namespace kestrel::campaign {

namespace {

// Receive times wander with the scheduling of the control thread and the simulator's receive
// thread; each transition is allowed this much more time than its timestamps show.
constexpr double kTimingSlack = 0.002;
constexpr double kRounding = 1e-6;
constexpr double kGripperKpLow = 0.1, kGripperKpHigh = 20.0;
constexpr double kGripperKdLow = 0.1, kGripperKdHigh = 1.0;
// The controller's cycle. A frame that reached the motors late arrives just before the next one
// (or the next cycle, started at once after a missed deadline, follows it closely): the short
// span between them holds more than its share of motion. A transition that ends such a short
// span is out of bounds only if the span from an earlier frame is too: the latest one from which
// the frames average at least a period less the slack, at most this many frames back.
constexpr double kControlPeriod = 0.0025;
constexpr size_t kLookBack = 4;

// The host codec turns a non-finite value into the bottom code of its field; no healthy target
// sits there (every limit of this arm is well inside the motors' ranges).
bool finite_on_the_wire(double value, double field_max) {
  return std::isfinite(value) && value > -field_max + 1e-9 * field_max;
}

bool near_zero(double value, double count) {
  return std::abs(value) <= count + kRounding;
}

std::string describe(const MitFrame& f) {
  std::ostringstream s;
  s << "q=" << f.q << " dq=" << f.dq << " kp=" << f.kp << " kd=" << f.kd << " tau=" << f.tau;
  return s.str();
}

class Checker {
 public:
  Checker(const std::vector<MitFrame>& frames, const ArmLimits& limits,
          const std::vector<Exemption>& exemptions, bool velocity_continuity)
      : frames_(frames),
        limits_(limits),
        exemptions_(exemptions),
        velocity_continuity_(velocity_continuity),
        budget_used_(exemptions.size()) {}

  CheckResult run() {
    for (size_t i = 0; i < frames_.size(); ++i) {
      const MitFrame& f = frames_[i];
      if (f.motor == kGripperMotor) {
        ++result_.frames_checked;
        check_gripper(i);
      } else if (f.motor >= 0 && f.motor < kArmMotors) {
        ++result_.frames_checked;
        check_arm(i);
      }
    }
    return std::move(result_);
  }

 private:
  void add(size_t frame, const char* quantity, double value, double bound, std::string note = {}) {
    const MitFrame& f = frames_[frame];
    result_.violations.push_back({f.time, f.motor, quantity, value, bound, frame, std::move(note)});
  }

  void check_arm(size_t i) {
    const MitFrame& f = frames_[i];
    const int m = f.motor;
    std::vector<size_t>& before = history_[m];
    if (!finite_on_the_wire(f.q, limits_.p_max[m]) || !finite_on_the_wire(f.dq, limits_.v_max[m]) ||
        !finite_on_the_wire(f.tau, limits_.t_max[m]) || !std::isfinite(f.kp) ||
        !std::isfinite(f.kd)) {
      add(i, "non-finite value", f.q, 0.0, describe(f));
      before.clear();  // no step is measured against a frame without a value
      return;
    }
    const double joint = f.q * limits_.sign[m];
    const double tolerance = limits_.position_count(m) + kRounding;
    if (joint < limits_.lower[m] - tolerance) {
      add(i, "joint position below URDF limit", joint, limits_.lower[m]);
    } else if (joint > limits_.upper[m] + tolerance) {
      add(i, "joint position above URDF limit", joint, limits_.upper[m]);
    }
    if (!before.empty()) {
      check_transition(before, i);
    }
    before.push_back(i);
    if (before.size() > kLookBack) {
      before.erase(before.begin());
    }
  }

  struct Span {
    double position_step = 0.0, position_bound = 0.0;
    double velocity_step = 0.0, velocity_bound = 0.0;
    bool position_out = false, velocity_out = false;
  };

  Span judge(size_t from, size_t to) const {
    const MitFrame& p = frames_[from];
    const MitFrame& f = frames_[to];
    const int m = f.motor;
    // The loop commands once a period: two frames that arrive closer than that were sent at
    // least a period apart (one of them was held up on the way).
    const double dt = std::max(f.time - p.time, kControlPeriod);
    Span s;
    s.position_step = std::abs(f.q - p.q);
    s.position_bound = limits_.vmax[m] * (dt + kTimingSlack) + 2.0 * limits_.position_count(m);
    s.velocity_step = std::abs(f.dq - p.dq);
    s.velocity_bound = limits_.amax[m] * (dt + kTimingSlack) + 2.0 * limits_.velocity_count(m);
    s.position_out = s.position_step > s.position_bound;
    s.velocity_out = velocity_continuity_ && s.velocity_step > s.velocity_bound;
    return s;
  }

  void check_transition(const std::vector<size_t>& before, size_t i) {
    const MitFrame& f = frames_[i];
    const int m = f.motor;
    Span s = judge(before.back(), i);
    size_t k = before.size() - 1;
    while (k > 0 && f.time - frames_[before[k]].time <
                        static_cast<double>(before.size() - k) * kControlPeriod) {
      --k;
    }
    if (k + 1 < before.size() && (s.position_out || s.velocity_out)) {
      const Span wider = judge(before[k], i);
      s.position_out = s.position_out && wider.position_out;
      s.velocity_out = s.velocity_out && wider.velocity_out;
    }
    if (!s.position_out && !s.velocity_out) {
      return;
    }
    std::ostringstream note;
    note << "dt=" << (f.time - frames_[before.back()].time) * 1e3 << " ms";
    if (k + 1 < before.size()) {
      note << " (out of bounds over " << before.size() - k << " transitions too)";
    }
    auto& out = exempt(f.time, m, s.position_step, s.velocity_step, note) ? result_.exempted
                                                                          : result_.violations;
    if (s.position_out) {
      out.push_back({f.time, m, "position step", s.position_step, s.position_bound, i, note.str()});
    }
    if (s.velocity_out) {
      out.push_back({f.time, m, "velocity step", s.velocity_step, s.velocity_bound, i, note.str()});
    }
  }

  // Takes over one motor's allowance in the first window around `time` that still has it.
  bool exempt(double time, int m, double position_step, double velocity_step,
              std::ostringstream& note) {
    if (position_step > kExemptPositionStep ||
        velocity_step > kExemptVelocityFactor * limits_.vmax[m]) {
      return false;
    }
    for (size_t k = 0; k < exemptions_.size(); ++k) {
      const Exemption& e = exemptions_[k];
      if (time >= e.begin && time <= e.end && !budget_used_[k][m]) {
        budget_used_[k][m] = true;
        note << ", taken over by call #" << e.call;
        return true;
      }
    }
    return false;
  }

  void check_gripper(size_t i) {
    const MitFrame& f = frames_[i];
    const int m = kGripperMotor;
    if (!finite_on_the_wire(f.q, limits_.p_max[m]) || !finite_on_the_wire(f.dq, limits_.v_max[m]) ||
        !finite_on_the_wire(f.tau, limits_.t_max[m]) || !std::isfinite(f.kp) ||
        !std::isfinite(f.kd)) {
      add(i, "non-finite value", f.q, 0.0, describe(f));
      return;
    }
    const double kp_count = limits_.kp_max / 4095.0;
    const double kd_count = limits_.kd_max / 4095.0;
    const bool torque_only_zero = near_zero(f.kp, kp_count) && near_zero(f.kd, kd_count) &&
                                  near_zero(f.q, limits_.position_count(m)) &&
                                  near_zero(f.dq, limits_.velocity_count(m)) &&
                                  near_zero(f.tau, 2.0 * limits_.t_max[m] / 4095.0);
    if (torque_only_zero) {
      return;
    }
    if (f.kp < kGripperKpLow - kp_count || f.kp > kGripperKpHigh + kp_count) {
      add(i, "gripper kp", f.kp, f.kp < kGripperKpLow ? kGripperKpLow : kGripperKpHigh,
          describe(f));
    }
    if (f.kd < kGripperKdLow - kd_count || f.kd > kGripperKdHigh + kd_count) {
      add(i, "gripper kd", f.kd, f.kd < kGripperKdLow ? kGripperKdLow : kGripperKdHigh,
          describe(f));
    }
    const double tolerance = limits_.position_count(m) + kRounding;
    if (f.q < limits_.gripper_angle_low - tolerance) {
      add(i, "gripper angle below stroke", f.q, limits_.gripper_angle_low, describe(f));
    } else if (f.q > limits_.gripper_angle_high + tolerance) {
      add(i, "gripper angle above stroke", f.q, limits_.gripper_angle_high, describe(f));
    }
  }

  const std::vector<MitFrame>& frames_;
  const ArmLimits& limits_;
  const std::vector<Exemption>& exemptions_;
  const bool velocity_continuity_;
  std::vector<std::array<bool, kArmMotors>> budget_used_;
  std::array<std::vector<size_t>, kArmMotors> history_;  // the frames before, oldest first
  CheckResult result_;
};

}  // namespace

CheckResult check_frames(const std::vector<MitFrame>& frames, const ArmLimits& limits,
                         const std::vector<Exemption>& exemptions, bool velocity_continuity) {
  return Checker(frames, limits, exemptions, velocity_continuity).run();
}

}  // namespace kestrel::campaign
