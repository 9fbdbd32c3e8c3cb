// A private bus directory for tests that start the project's programs as separate processes, the
// way a user does: KESTREL_SIMBUS_DIR names it for this process and every child it starts.
#pragma once

#include <gtest/gtest.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "support/child_process.hpp"

namespace kestrel::testing {

struct Finished {
  int status;
  std::string output;
};

class PrivateBus : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/kestrel-process-test-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern), nullptr);
    dir = pattern;
    ::setenv(simbus::kDirectoryEnv, dir.c_str(), 1);
  }
  void TearDown() override {
    if (sim) {
      sim->terminate();
      EXPECT_EQ(sim->wait(), 0) << sim->output();
    }
    ::unsetenv(simbus::kDirectoryEnv);
    std::error_code ignored;
    std::filesystem::remove_all(dir, ignored);
  }
  // True once `name` is served, false after 5 s.
  bool served(const std::string& name) const {
    for (int i = 0; i < 500; ++i) {
      if (simbus::is_served(dir, name)) {
        return true;
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    return false;
  }
  // A program left running; its output goes to a log of its own in the bus directory.
  std::unique_ptr<Process> start(std::vector<std::string> args) {
    return std::make_unique<Process>(std::move(args), dir + "/" + std::to_string(++runs) + ".log");
  }
  Finished run(std::vector<std::string> args,
               std::chrono::seconds timeout = std::chrono::seconds(60)) {
    const auto program = start(std::move(args));
    return {program->wait(timeout), program->output()};  // a braced list runs in order
  }
#if defined(KESTREL_CLI_PROGRAM) || defined(KESTREL_SIM_PROGRAM)
  // A fresh simulated arm on `name`, as `kestrel sim --serve` (or kestrel-sim --serve) starts
  // it; stopped with SIGTERM (and expected to exit 0) when the test ends or the next one starts.
  void start_sim(const std::string& name) {
    if (sim) {
      sim->terminate();
      EXPECT_EQ(sim->wait(), 0) << sim->output();
    }
#ifdef KESTREL_CLI_PROGRAM
    sim = start({KESTREL_CLI_PROGRAM, "sim", "--serve", "--interface", name});
#else
    sim = start({KESTREL_SIM_PROGRAM, "--serve", "--interface", name});
#endif
    ASSERT_TRUE(served(name)) << sim->output();
  }
#endif

  std::string dir;
  std::unique_ptr<Process> sim;
  int runs = 0;
};

}  // namespace kestrel::testing
