#include "kestrel_sim/expectations.hpp"

#include <cmath>
#include <cstdio>
#include <utility>

namespace kestrel::sim {

namespace {

std::string motor_name(uint32_t send_id) {
  char buf[24];
  std::snprintf(buf, sizeof buf, "motor 0x%02X", send_id);
  return buf;
}

Expectation::Predicate kind_for(CommandKind kind, uint32_t send_id) {
  return [kind, send_id](const ReceivedCommand& c, const Frame&) {
    return c.kind == kind && c.send_id == send_id;
  };
}

bool near(double a, double b, double tolerance) {
  return std::abs(a - b) <= tolerance;
}

}  // namespace

Expectation::Expectation(std::string description, Predicate predicate)
    : description_(std::move(description)), predicate_(std::move(predicate)) {}

Expectation Expectation::frame(uint32_t id, const Payload& payload) {
  char head[16];
  std::snprintf(head, sizeof head, "0x%03X ", id);
  return Expectation("frame " + std::string(head) + to_hex(payload),
                     [id, payload](const ReceivedCommand&, const Frame& f) {
                       return f.id == id && !f.extended && f.len == 8 && f.payload() == payload;
                     });
}

Expectation Expectation::enable(uint32_t send_id) {
  return Expectation("enable of " + motor_name(send_id), kind_for(CommandKind::kEnable, send_id));
}

Expectation Expectation::disable(uint32_t send_id) {
  return Expectation("disable of " + motor_name(send_id), kind_for(CommandKind::kDisable, send_id));
}

Expectation Expectation::set_zero(uint32_t send_id) {
  return Expectation("set-zero of " + motor_name(send_id),
                     kind_for(CommandKind::kSetZero, send_id));
}

Expectation Expectation::clear_error(uint32_t send_id) {
  return Expectation("clear-error of " + motor_name(send_id),
                     kind_for(CommandKind::kClearError, send_id));
}

Expectation Expectation::refresh(uint32_t send_id) {
  return Expectation("refresh of " + motor_name(send_id), kind_for(CommandKind::kRefresh, send_id));
}

Expectation Expectation::mit(uint32_t send_id) {
  return Expectation("MIT command to " + motor_name(send_id), kind_for(CommandKind::kMit, send_id));
}

Expectation Expectation::mit(uint32_t send_id, const dm::MitCommand& t, double tolerance) {
  char buf[160];
  std::snprintf(buf, sizeof buf, "MIT command to %s with q=%g dq=%g kp=%g kd=%g tau=%g (±%g)",
                motor_name(send_id).c_str(), t.q, t.dq, t.kp, t.kd, t.tau, tolerance);
  return Expectation(buf, [send_id, t, tolerance](const ReceivedCommand& c, const Frame&) {
    return c.kind == CommandKind::kMit && c.send_id == send_id && near(c.mit.q, t.q, tolerance) &&
           near(c.mit.dq, t.dq, tolerance) && near(c.mit.kp, t.kp, tolerance) &&
           near(c.mit.kd, t.kd, tolerance) && near(c.mit.tau, t.tau, tolerance);
  });
}

Expectation Expectation::pos_vel(uint32_t send_id) {
  return Expectation("position-velocity command to " + motor_name(send_id),
                     kind_for(CommandKind::kPosVel, send_id));
}

Expectation Expectation::pos_vel(uint32_t send_id, float q, float dq) {
  char buf[120];
  std::snprintf(buf, sizeof buf, "position-velocity command to %s with q=%g dq=%g",
                motor_name(send_id).c_str(), q, dq);
  return Expectation(buf, [send_id, q, dq](const ReceivedCommand& c, const Frame&) {
    return c.kind == CommandKind::kPosVel && c.send_id == send_id && c.pos_vel.q == q &&
           c.pos_vel.dq == dq;
  });
}

Expectation Expectation::read_register(uint32_t send_id, uint8_t rid) {
  return Expectation("read of register " + std::to_string(rid) + " of " + motor_name(send_id),
                     [send_id, rid](const ReceivedCommand& c, const Frame&) {
                       return c.kind == CommandKind::kReadRegister && c.send_id == send_id &&
                              c.rid == rid;
                     });
}

Expectation Expectation::write_register(uint32_t send_id, uint8_t rid) {
  return Expectation("write of register " + std::to_string(rid) + " of " + motor_name(send_id),
                     [send_id, rid](const ReceivedCommand& c, const Frame&) {
                       return c.kind == CommandKind::kWriteRegister && c.send_id == send_id &&
                              c.rid == rid;
                     });
}

Expectation Expectation::write_register(uint32_t send_id, uint8_t rid, double value,
                                        double tolerance) {
  char buf[120];
  std::snprintf(buf, sizeof buf, "write of %g (±%g) to register %u of %s", value, tolerance, rid,
                motor_name(send_id).c_str());
  return Expectation(buf, [send_id, rid, value, tolerance](const ReceivedCommand& c, const Frame&) {
    return c.kind == CommandKind::kWriteRegister && c.send_id == send_id && c.rid == rid &&
           near(c.value, value, tolerance);
  });
}

Expectation Expectation::matching(std::string description, Predicate predicate) {
  return Expectation(std::move(description), std::move(predicate));
}

Expectation& Expectation::times(int n) {
  times_ = n < 1 ? 1 : n;
  if (times_ > 1) {
    description_ += " (x" + std::to_string(times_) + ")";
  }
  return *this;
}

Expectation& Expectation::then(std::function<void()> action) {
  action_ = std::move(action);
  return *this;
}

bool Expectation::matches(const ReceivedCommand& command, const Frame& frame) const {
  return predicate_ && predicate_(command, frame);
}

void ExpectationScript::set_mode(Mode mode) {
  std::lock_guard<std::mutex> lock(mutex_);
  mode_ = mode;
}

void ExpectationScript::expect(Expectation e) {
  std::lock_guard<std::mutex> lock(mutex_);
  pending_.push_back(std::move(e));
  unreported_ = true;
}

std::function<void()> ExpectationScript::observe(const ReceivedCommand& command,
                                                 const Frame& frame) {
  std::function<void()> action;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!pending_.empty() && pending_.front().matches(command, frame)) {
      if (++matched_of_front_ >= pending_.front().times_) {
        action = std::move(pending_.front().action_);
        pending_.pop_front();
        matched_of_front_ = 0;
      }
    } else if (mode_ == Mode::kStrict && command.kind != CommandKind::kNotAddressed) {
      std::string what =
          "unexpected " + std::string(to_string(command.kind)) + " frame " + to_string(frame);
      what += pending_.empty() ? " after the last expectation"
                               : " while expecting " + pending_.front().description();
      violations_.push_back(std::move(what));
      unreported_ = true;
    }
  }
  met_.notify_all();
  return action;
}

std::vector<std::string> ExpectationScript::unmet() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::string> out;
  bool first = true;
  for (const Expectation& e : pending_) {
    std::string line = "never happened: " + e.description();
    if (first && matched_of_front_ > 0) {
      line += " (only " + std::to_string(matched_of_front_) + " seen)";
    }
    out.push_back(std::move(line));
    first = false;
  }
  out.insert(out.end(), violations_.begin(), violations_.end());
  unreported_ = false;
  return out;
}

bool ExpectationScript::all_met() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pending_.empty();
}

bool ExpectationScript::wait_all_met(std::chrono::milliseconds timeout) const {
  std::unique_lock<std::mutex> lock(mutex_);
  return met_.wait_for(lock, timeout, [this] { return pending_.empty(); });
}

void ExpectationScript::clear() {
  std::lock_guard<std::mutex> lock(mutex_);
  pending_.clear();
  violations_.clear();
  matched_of_front_ = 0;
  unreported_ = false;
}

bool ExpectationScript::unreported() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return unreported_;
}

}  // namespace kestrel::sim
