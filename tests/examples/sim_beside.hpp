// A simulated arm served in a userspace-bus directory of its own, for the tests that start the
// user's programs beside it as separate processes (KESTREL_SIM_PROGRAM, the test's own define).
// The directory goes with it.
#pragma once

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

struct SimBeside {
  std::string dir;
  int started = 0;
  std::unique_ptr<Process> sim;
  bool served = false;

  explicit SimBeside(const std::string& iface) {
    char dir_template[] = "/tmp/kestrel-process-test-XXXXXX";
    dir = ::mkdtemp(dir_template);
    ::setenv(simbus::kDirectoryEnv, dir.c_str(), 1);
    sim = start({KESTREL_SIM_PROGRAM, "--serve", "--interface", iface});
    for (int i = 0; i < 500 && !served; ++i) {
      served = simbus::is_served(dir, iface);
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  ~SimBeside() {
    sim.reset();
    ::unsetenv(simbus::kDirectoryEnv);
    std::filesystem::remove_all(dir);
  }
  // A program started beside the arm, its output logged in the directory.
  std::unique_ptr<Process> start(std::vector<std::string> args) {
    return std::make_unique<Process>(std::move(args), dir + "/" + std::to_string(++started));
  }
  Finished run(std::vector<std::string> args,
               std::chrono::seconds timeout = std::chrono::seconds(30)) {
    const auto process = start(std::move(args));
    const int status = process->wait(timeout);
    return {status, process->output()};
  }
};

}  // namespace kestrel::testing
