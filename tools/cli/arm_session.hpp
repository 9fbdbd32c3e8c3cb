// What every arm-driving subcommand shares: the connection options, a clear refusal when the
// CAN interface cannot be used, the controller, and Ctrl-C handling that stops the arm.
//
// Ctrl-C (SIGINT) and SIGTERM are taken by a watcher thread, never by an asynchronous handler:
// the first one calls ArmController::stop() (the arm holds where it is and the running motion
// call throws "motion stopped"), the program then returns and the controller's shutdown
// disables the motors. A second Ctrl-C while shutting down ends the process at once.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "cli_args.hpp"
#include "kestrel/controller/interfaces.hpp"

namespace kestrel::cli {

struct ConnectionOptions {
  std::string interface = "can0";
  bool fd = false;
  ControlMode mode = MIT_MODE;
  bool gripper = true;
};

// The options every arm subcommand takes, for Args and for --help texts.
extern const char* const kConnectionValuedOptions[];
extern const char* const kConnectionFlagOptions[];
extern const char* const kConnectionHelp;
ConnectionOptions connection_options(const Args& args);

// Reads a subcommand's words with its own options plus the connection options and --help.
// Prints `help` and the connection options and returns true when --help was asked for. Words
// that are not options are refused unless `help` names a FILE.
bool parse_arm_command(const std::vector<std::string>& words, const std::set<std::string>& valued,
                       const std::set<std::string>& flags, const char* help, Args& out);

// Blocks SIGINT and SIGTERM in the calling thread (and so in every thread started after it)
// and waits for them on its own thread.
class StopSignals {
 public:
  StopSignals();
  ~StopSignals();
  StopSignals(const StopSignals&) = delete;
  StopSignals& operator=(const StopSignals&) = delete;

  // The controller that a signal stops; nullptr detaches it (before it is destroyed).
  void attach(ArmController* arm);
  bool requested() const { return requested_.load(); }
  // Sleeps up to `seconds`; false when a signal came first.
  bool sleep(double seconds) const;

 private:
  void watch();
  std::atomic<bool> requested_{false};
  std::atomic<bool> quitting_{false};
  std::mutex arm_mutex_;
  ArmController* arm_ = nullptr;
  std::thread thread_;
};

// Runs `work` with standard output sent to /dev/null (the library announces its start-up steps
// there with printf and std::cout alike).
void without_stdout(const std::function<void()>& work);

// Probes the interface (UsageError-like runtime_error with the reason when it cannot be used),
// then builds the controller, whose start-up lines go to standard output unless `quiet`.
std::unique_ptr<ArmController> connect_arm(const ConnectionOptions& options, bool quiet);

}  // namespace kestrel::cli
