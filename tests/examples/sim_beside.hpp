// A simulated arm served in a userspace-bus directory of its own, for the tests that start the
// user's programs beside it as separate processes (KESTREL_SIM_PROGRAM, the test's own define).
// The directory goes with it.
#pragma once

#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "support/child_process.hpp"

namespace kestrel::testing {

struct Finished {
  int status;
  std::string output;
};

class SimBeside {
 public:
  explicit SimBeside(const std::string& iface) {
    char dir_template[] = "/tmp/kestrel-process-test-XXXXXX";
    dir_ = ::mkdtemp(dir_template);
    ::setenv(simbus::kDirectoryEnv, dir_.c_str(), 1);
    sim_ = start({KESTREL_SIM_PROGRAM, "--serve", "--interface", iface});
    for (int i = 0; i < 500 && !served_; ++i) {
      served_ = simbus::is_served(dir_, iface);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~SimBeside() {
    sim_.reset();
    ::unsetenv(simbus::kDirectoryEnv);
    std::filesystem::remove_all(dir_);
  }
  SimBeside(const SimBeside&) = delete;
  SimBeside& operator=(const SimBeside&) = delete;

  ::testing::AssertionResult served() const {
    return served_ ? ::testing::AssertionSuccess()
                   : ::testing::AssertionFailure() << "not served: " << sim_->output();
  }
  // A program started beside the arm, its output logged in the directory.
  std::unique_ptr<Process> start(std::vector<std::string> args) {
    return std::make_unique<Process>(std::move(args),
                                     dir_ + "/" + std::to_string(++started_) + ".log");
  }
  Finished run(std::vector<std::string> args,
               std::chrono::milliseconds timeout = std::chrono::seconds(30)) {
    const auto process = start(std::move(args));
    const int status = process->wait(timeout);
    return {status, process->output()};
  }
  // The arm ends on SIGTERM with status 0.
  ::testing::AssertionResult stops_cleanly() {
    sim_->terminate();
    const int status = sim_->wait();
    return status == 0
               ? ::testing::AssertionSuccess()
               : ::testing::AssertionFailure() << "status " << status << ": " << sim_->output();
  }

 private:
  std::string dir_;
  int started_ = 0;
  bool served_ = false;
  std::unique_ptr<Process> sim_;
};

}  // namespace kestrel::testing
