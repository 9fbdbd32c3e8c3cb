// Scripted expectations for tests: declare, in order, the frames or decoded commands the
// simulated motors must receive; verify() lists every expectation that never happened (and, in
// strict mode, every frame that came instead). No test framework is involved: a test asserts
// that the returned list is empty, which prints each entry when it is not.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "kestrel_sim/frame.hpp"
#include "kestrel_sim/simulated_motor.hpp"

namespace kestrel::sim {

class Expectation {
 public:
  using Predicate = std::function<bool(const ReceivedCommand&, const Frame&)>;

  // The exact frame: identifier and 8 payload bytes (classic or FD alike).
  static Expectation frame(uint32_t id, const Payload& payload);
  static Expectation enable(uint32_t send_id);
  static Expectation disable(uint32_t send_id);
  static Expectation set_zero(uint32_t send_id);
  static Expectation clear_error(uint32_t send_id);
  static Expectation refresh(uint32_t send_id);
  // Any MIT frame for the motor, or one whose decoded fields lie within `tolerance` of
  // `target` (the fixed-point scaling makes exact equality meaningless).
  static Expectation mit(uint32_t send_id);
  static Expectation mit(uint32_t send_id, const dm::MitCommand& target, double tolerance);
  static Expectation pos_vel(uint32_t send_id);
  static Expectation pos_vel(uint32_t send_id, float q, float dq);
  static Expectation read_register(uint32_t send_id, uint8_t rid);
  static Expectation write_register(uint32_t send_id, uint8_t rid);
  static Expectation write_register(uint32_t send_id, uint8_t rid, double value,
                                    double tolerance = 0.0);
  static Expectation matching(std::string description, Predicate predicate);

  // The expectation is met by `n` matching frames in a row of the script (default 1).
  Expectation& times(int n);
  // Runs when the expectation is met (on the simulator's receive thread, after the reply
  // went out), e.g. to inject a fault at an exact point of a sequence.
  Expectation& then(std::function<void()> action);

  const std::string& description() const { return description_; }
  bool matches(const ReceivedCommand& command, const Frame& frame) const;

 private:
  friend class ExpectationScript;
  Expectation(std::string description, Predicate predicate);

  std::string description_;
  Predicate predicate_;
  int times_ = 1;
  std::function<void()> action_;
};

class ExpectationScript {
 public:
  enum class Mode {
    kInOrder,  // expectations are met in order; other frames may come in between
    kStrict,   // every frame addressed to a simulated motor must be the next expectation
  };

  void set_mode(Mode mode);
  void expect(Expectation e);
  // Offers one received frame; returns the action of the expectation it completed, if any.
  std::function<void()> observe(const ReceivedCommand& command, const Frame& frame);

  // Every expectation not met, then every strict-mode violation, one line each.
  std::vector<std::string> unmet() const;
  bool all_met() const;
  // Blocks until every expectation is met or the timeout passes; true when all were met.
  bool wait_all_met(std::chrono::milliseconds timeout) const;
  // Forgets expectations and violations.
  void clear();
  // Whether anything was declared since the last clear() and not yet reported by unmet().
  bool unreported() const;

 private:
  mutable std::mutex mutex_;
  mutable std::condition_variable met_;
  Mode mode_ = Mode::kInOrder;
  std::deque<Expectation> pending_;
  int matched_of_front_ = 0;
  std::vector<std::string> violations_;
  mutable bool unreported_ = false;
};

}  // namespace kestrel::sim
