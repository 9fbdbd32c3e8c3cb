// Real-time set-up of the controller (section `realtime`): SCHED_FIFO priorities for the control
// and torque-monitor threads, the control thread pinned to one CPU, and the process's memory
// locked against paging. Each step says how it went; a step the system refuses costs its
// real-time behaviour, never the controller.
#pragma once

#include <iosfwd>
#include <string>
#include <thread>
#include <vector>

#include "kestrel/controller/controller_config.hpp"

namespace kestrel::controller {

// How one step went: what took effect ("control thread SCHED_FIFO priority 80"), or the line
// that says why it did not and what to do about it.
struct RealtimeOutcome {
  bool applied = false;
  std::string effect;   // when applied
  std::string refusal;  // when not: one "[realtime] ..." line
};

// SCHED_FIFO at `priority` for a running thread; `name` names it in the texts.
RealtimeOutcome set_fifo_priority(std::thread& thread, const std::string& name, int priority);
// Pins a running thread to `cpu`, which must be one of the CPUs the machine has configured.
RealtimeOutcome pin_to_cpu(std::thread& thread, const std::string& name, int cpu);
// mlockall(MCL_CURRENT | MCL_FUTURE): the pages the process has and every page it maps later.
RealtimeOutcome lock_memory();

// The set-up as the controller applies it around its thread start, collecting the outcomes.
// Does nothing when the section is disabled.
class RealtimeSetup {
 public:
  explicit RealtimeSetup(const RealtimeConfig& config) : config_(config) {}

  // Locks memory when configured; before the threads start, so that their stacks are locked as
  // they are mapped.
  void apply_to_process();
  // Pins to control_cpu when one is set, then SCHED_FIFO control_priority.
  void apply_to_control_thread(std::thread& thread);
  // SCHED_FIFO monitor_priority, unless the control thread was refused its priority: a monitor
  // that preempts a normally scheduled control loop would only take time from it.
  void apply_to_monitor_thread(std::thread& thread);

  // Each refusal line in the order they came, then one line with everything that took effect
  // ("[realtime] applied: ..."), when anything did.
  std::vector<std::string> report_lines() const;
  void print_report(std::ostream& out) const;

 private:
  void add(const RealtimeOutcome& outcome);

  RealtimeConfig config_;
  std::vector<std::string> effects_;
  std::vector<std::string> refusals_;
  bool control_priority_refused_ = false;
};

}  // namespace kestrel::controller
