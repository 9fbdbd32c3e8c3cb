#include "kestrel/controller/realtime_setup.hpp"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <ostream>
#include <sstream>
#include <utility>

namespace kestrel::controller {

namespace {

// The name an operator can search for.
std::string error_name(int error) {
  switch (error) {
    case EPERM:
      return "EPERM";
    case EINVAL:
      return "EINVAL";
    case ENOMEM:
      return "ENOMEM";
    case EAGAIN:
      return "EAGAIN";
    case ESRCH:
      return "ESRCH";
    default:
      return "errno " + std::to_string(error);
  }
}

// "(EINVAL: Invalid argument)"
std::string error_text(int error) {
  return "(" + error_name(error) + ": " + std::strerror(error) + ")";
}

constexpr const char* kMemlockHelp =
    " in the launching shell, the CAP_IPC_LOCK capability, or a memlock line for your user in "
    "/etc/security/limits.conf";

std::string fifo_refusal(const std::string& name, int priority, int error) {
  std::ostringstream line;
  line << "[realtime] SCHED_FIFO priority " << priority << " for the " << name;
  if (error == EPERM) {
    line << " not permitted (EPERM): running without real-time scheduling. Allow it with "
            "`ulimit -r 99` in the launching shell, the CAP_SYS_NICE capability, or an rtprio "
            "line for your user in /etc/security/limits.conf";
  } else {
    line << " failed " << error_text(error) << ": running without real-time scheduling";
  }
  return line.str();
}

std::string lock_refusal(int error) {
  if (error == EPERM) {
    return std::string(
               "[realtime] mlockall not permitted (EPERM): running with pageable memory. "
               "Allow it with `ulimit -l unlimited`") +
           kMemlockHelp;
  }
  if (error == ENOMEM) {
    // Without the capability, the process as it stands must fit under RLIMIT_MEMLOCK.
    rlimit limit{};
    std::string allowed = "unknown";
    if (getrlimit(RLIMIT_MEMLOCK, &limit) == 0) {
      allowed = limit.rlim_cur == RLIM_INFINITY ? "unlimited"
                                                : std::to_string(limit.rlim_cur / 1024) + " KiB";
    }
    return "[realtime] mlockall refused (ENOMEM): the process needs more locked memory than its "
           "limit (ulimit -l: " +
           allowed + "): running with pageable memory. Raise the limit with `ulimit -l unlimited`" +
           kMemlockHelp;
  }
  return "[realtime] mlockall failed " + error_text(error) + ": running with pageable memory";
}

RealtimeOutcome applied(std::string effect) {
  RealtimeOutcome outcome;
  outcome.applied = true;
  outcome.effect = std::move(effect);
  return outcome;
}

RealtimeOutcome refused(std::string line) {
  RealtimeOutcome outcome;
  outcome.refusal = std::move(line);
  return outcome;
}

}  // namespace

RealtimeOutcome set_fifo_priority(std::thread& thread, const std::string& name, int priority) {
  sched_param param{};
  param.sched_priority = priority;
  const int error = pthread_setschedparam(thread.native_handle(), SCHED_FIFO, &param);
  if (error != 0) {
    return refused(fifo_refusal(name, priority, error));
  }
  return applied(name + " SCHED_FIFO priority " + std::to_string(priority));
}

RealtimeOutcome pin_to_cpu(std::thread& thread, const std::string& name, int cpu) {
  const long configured = sysconf(_SC_NPROCESSORS_CONF);
  if (cpu < 0 || cpu >= configured || cpu >= CPU_SETSIZE) {
    std::ostringstream line;
    line << "[realtime] CPU " << cpu << " does not exist on this machine (" << configured
         << " configured: 0-" << configured - 1 << "): the " << name
         << " is not pinned. Set realtime.control_cpu to one of them, or to -1";
    return refused(line.str());
  }
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  const int error = pthread_setaffinity_np(thread.native_handle(), sizeof(set), &set);
  if (error != 0) {
    std::ostringstream line;
    line << "[realtime] pinning the " << name << " to CPU " << cpu << " failed "
         << error_text(error) << ": the " << name << " is not pinned";
    if (error == EINVAL) {
      line << ". Is CPU " << cpu
           << " offline, or outside the CPUs this process may use (taskset, cgroup cpuset)?";
    }
    return refused(line.str());
  }
  return applied(name + " on CPU " + std::to_string(cpu));
}

RealtimeOutcome lock_memory() {
  if (mlockall(MCL_CURRENT | MCL_FUTURE) != 0) {
    return refused(lock_refusal(errno));
  }
  return applied("memory locked (mlockall)");
}

void RealtimeSetup::apply_to_process() {
  if (config_.enabled && config_.lock_memory) {
    add(lock_memory());
  }
}

void RealtimeSetup::apply_to_control_thread(std::thread& thread) {
  if (!config_.enabled) {
    return;
  }
  if (config_.control_cpu >= 0) {
    add(pin_to_cpu(thread, "control thread", config_.control_cpu));
  }
  const RealtimeOutcome priority =
      set_fifo_priority(thread, "control thread", config_.control_priority);
  control_priority_refused_ = !priority.applied;
  add(priority);
}

void RealtimeSetup::apply_to_monitor_thread(std::thread& thread) {
  if (!config_.enabled || control_priority_refused_) {
    return;
  }
  add(set_fifo_priority(thread, "torque monitor", config_.monitor_priority));
}

std::vector<std::string> RealtimeSetup::report_lines() const {
  std::vector<std::string> lines = refusals_;
  if (!effects_.empty()) {
    std::string line = "[realtime] applied: ";
    for (size_t i = 0; i < effects_.size(); ++i) {
      line += (i == 0 ? "" : ", ") + effects_[i];
    }
    lines.push_back(line);
  }
  return lines;
}

void RealtimeSetup::print_report(std::ostream& out) const {
  for (const std::string& line : report_lines()) {
    out << line << std::endl;
  }
}

void RealtimeSetup::add(const RealtimeOutcome& outcome) {
  if (outcome.applied) {
    effects_.push_back(outcome.effect);
  } else {
    refusals_.push_back(outcome.refusal);
  }
}

}  // namespace kestrel::controller
