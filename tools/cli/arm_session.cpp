#include "arm_session.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <chrono>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <iostream>

#include "can_interface_probe.hpp"

namespace kestrel::cli {

const char* const kConnectionValuedOptions[] = {"--interface", "--mode", nullptr};
const char* const kConnectionFlagOptions[] = {"--fd", "--no-gripper", nullptr};
const char* const kConnectionHelp =
    "Connection:\n"
    "  --interface IF   CAN interface (default can0); a simulated arm serves simcan0\n"
    "  --fd             CAN FD frames instead of classic CAN\n"
    "  --mode M         mit (default) or posvel: the motors' control mode\n"
    "  --no-gripper     the arm has no gripper motor\n";

namespace {

std::set<std::string> merged(std::set<std::string> own, const char* const* extra) {
  for (; *extra != nullptr; ++extra) {
    own.insert(*extra);
  }
  return own;
}

}  // namespace

bool parse_arm_command(const std::vector<std::string>& words, const std::set<std::string>& valued,
                       const std::set<std::string>& flags, const char* help, Args& out) {
  static const char* const kHelpFlag[] = {"--help", nullptr};
  out = Args(words, merged(valued, kConnectionValuedOptions),
             merged(merged(flags, kConnectionFlagOptions), kHelpFlag));
  if (out.flag("--help")) {
    std::fputs(help, stdout);
    std::fputs(kConnectionHelp, stdout);
    return true;
  }
  if (!out.positional().empty() && std::string(help).find("FILE") == std::string::npos) {
    throw UsageError("unexpected argument \"" + out.positional()[0] + "\"");
  }
  return false;
}

ConnectionOptions connection_options(const Args& args) {
  ConnectionOptions o;
  o.interface = args.text("--interface", o.interface);
  o.fd = args.flag("--fd");
  o.gripper = !args.flag("--no-gripper");
  const std::string mode = args.text("--mode", "mit");
  if (mode == "mit") {
    o.mode = MIT_MODE;
  } else if (mode == "posvel") {
    o.mode = POS_VEL_MODE;
  } else {
    throw UsageError("--mode must be mit or posvel, not \"" + mode + "\"");
  }
  return o;
}

StopSignals::StopSignals() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
  thread_ = std::thread([this] { watch(); });
}

StopSignals::~StopSignals() {
  quitting_.store(true);
  pthread_kill(thread_.native_handle(), SIGTERM);  // wakes sigwait; it sees quitting_
  thread_.join();
}

void StopSignals::attach(ArmController* arm) {
  std::lock_guard<std::mutex> lock(arm_mutex_);
  arm_ = arm;
}

bool StopSignals::sleep(double seconds) const {
  const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
  while (std::chrono::steady_clock::now() < until) {
    if (requested_.load()) {
      return false;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return !requested_.load();
}

void StopSignals::watch() {
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  for (;;) {
    int signal = 0;
    if (sigwait(&set, &signal) != 0 || quitting_.load()) {
      return;
    }
    if (requested_.exchange(true)) {
      static const char kMessage[] = "\nkestrel: second stop signal, exiting at once\n";
      (void)!::write(STDERR_FILENO, kMessage, sizeof kMessage - 1);
      std::_Exit(130);
    }
    std::fprintf(stderr, "\nkestrel: stop requested: holding the arm, then shutting down\n");
    std::lock_guard<std::mutex> lock(arm_mutex_);
    if (arm_ != nullptr) {
      try {
        arm_->stop();
      } catch (const std::exception& e) {
        std::fprintf(stderr, "kestrel: stop failed: %s\n", e.what());
      }
    }
  }
}

void without_stdout(const std::function<void()>& work) {
  std::cout.flush();
  std::fflush(stdout);
  const int saved = ::dup(STDOUT_FILENO);
  const int null = ::open("/dev/null", O_WRONLY);
  ::dup2(null, STDOUT_FILENO);
  ::close(null);
  auto restore = [&] {
    std::cout.flush();
    std::fflush(stdout);
    ::dup2(saved, STDOUT_FILENO);
    ::close(saved);
  };
  try {
    work();
  } catch (...) {
    restore();
    throw;
  }
  restore();
}

std::unique_ptr<ArmController> connect_arm(const ConnectionOptions& options, bool quiet) {
  const std::string problem = kestrel::tools::probe_can_interface(options.interface, options.fd);
  if (!problem.empty()) {
    throw std::runtime_error(problem);
  }
  std::unique_ptr<ArmController> arm;
  auto start = [&] {
    arm = std::make_unique<ArmController>(options.gripper, options.interface, options.fd,
                                          options.mode, false);
  };
  if (quiet) {
    without_stdout(start);
  } else {
    start();
  }
  // Commands start from the measured posture: wait until the loop holds it (it waits for two
  // feedback readings that agree).
  for (int i = 0; i < 200 && arm->get_control_cycle_sample().cycle == 0; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  if (arm->get_control_cycle_sample().cycle == 0) {
    throw std::runtime_error("no feedback from the arm's motors on " + options.interface +
                             " within 1 s (are they powered and on this bus?)");
  }
  return arm;
}

}  // namespace kestrel::cli
