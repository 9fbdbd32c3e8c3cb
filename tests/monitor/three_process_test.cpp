// The simulated arm, the bus monitor and a program using Kestrel as three separate processes on
// one userspace bus, started the way a user starts them.
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <chrono>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "support/child_process.hpp"

namespace {

using namespace std::chrono_literals;
using kestrel::testing::Process;
using ::testing::HasSubstr;

TEST(ThreeProcesses, SimulatedArmMonitorAndKestrelProgram) {
  char dir_template[] = "/tmp/kestrel-monitor-test-XXXXXX";
  const std::string dir = ::mkdtemp(dir_template);
  ::setenv(kestrel::simbus::kDirectoryEnv, dir.c_str(), 1);
  const std::string iface = "moncan0";

  Process sim({KESTREL_SIM_PROGRAM, "--serve", "--interface", iface}, dir + "/sim.log");
  bool served = false;
  for (int i = 0; i < 500 && !served; ++i) {
    served = kestrel::simbus::is_served(dir, iface);
    std::this_thread::sleep_for(10ms);
  }
  ASSERT_TRUE(served) << sim.output();

  Process monitor(
      {KESTREL_SIMBUS_PROGRAM, "run", "--", KESTREL_MONITOR_PROGRAM, iface, "--duration", "6"},
      dir + "/monitor.log");
  std::this_thread::sleep_for(500ms);  // listening before the first frame
  Process demo({KESTREL_SIMBUS_PROGRAM, "run", "--", KESTREL_DEMO_PROGRAM, "--interface", iface,
                "--seconds", "1"},
               dir + "/demo.log");
  EXPECT_EQ(demo.wait(), 0) << demo.output();
  EXPECT_EQ(monitor.wait(), 0) << monitor.output();

  // Taken down, the interface is refused with the hint to bring it up.
  Process down({KESTREL_SIMBUS_PROGRAM, "set", iface, "down"}, dir + "/down.log");
  EXPECT_EQ(down.wait(), 0) << down.output();
  Process refused({KESTREL_SIMBUS_PROGRAM, "run", "--", KESTREL_MONITOR_PROGRAM, iface},
                  dir + "/refused.log");
  EXPECT_EQ(refused.wait(), 1);
  EXPECT_THAT(refused.output(), HasSubstr("kestrel-monitor: CAN interface 'moncan0' is DOWN"));
  sim.terminate();
  EXPECT_EQ(sim.wait(), 0) << sim.output();

  const std::string seen = monitor.output();
  for (const char* motor : {"joint 1 (id 1)", "joint 2 (id 2)", "joint 3 (id 3)", "joint 4 (id 4)",
                            "joint 5 (id 5)", "joint 6 (id 6)", "gripper (id 7)"}) {
    EXPECT_THAT(seen, HasSubstr(std::string(motor) + " enable")) << motor;
    EXPECT_THAT(seen, HasSubstr(std::string(motor) + " feedback Enabled (1)")) << motor;
  }
  EXPECT_THAT(seen, HasSubstr("joint 4 (id 4) MIT q="));
  EXPECT_THAT(seen, HasSubstr("write register 10 CTRL_MODE = 1"));
  EXPECT_THAT(seen,
              ::testing::ContainsRegex("-- last 1\\.[0-9] s: to motors [1-9][0-9]* frames/s"));
  EXPECT_THAT(seen, HasSubstr("-- total "));
  ::unsetenv(kestrel::simbus::kDirectoryEnv);
  std::filesystem::remove_all(dir);
}

TEST(MonitorProgram, ClearErrorsForBadUse) {
  char dir_template[] = "/tmp/kestrel-monitor-test-XXXXXX";
  const std::string dir = ::mkdtemp(dir_template);
  ::setenv(kestrel::simbus::kDirectoryEnv, dir.c_str(), 1);
  {
    Process bad_option({KESTREL_MONITOR_PROGRAM, "--bogus"}, dir + "/a.log");
    EXPECT_EQ(bad_option.wait(), 2);
    EXPECT_THAT(bad_option.output(), HasSubstr("unknown option '--bogus'"));
    Process bad_filter({KESTREL_MONITOR_PROGRAM, "--filter", "9", "x"}, dir + "/b.log");
    EXPECT_EQ(bad_filter.wait(), 2);
    EXPECT_THAT(bad_filter.output(), HasSubstr("--filter takes a motor id 1..7, not '9'"));
    Process missing({KESTREL_SIMBUS_PROGRAM, "run", "--", KESTREL_MONITOR_PROGRAM, "nosuch0"},
                    dir + "/c.log");
    EXPECT_EQ(missing.wait(), 1);
    EXPECT_THAT(missing.output(),
                HasSubstr("kestrel-monitor: cannot open CAN interface 'nosuch0'"));
    Process help({KESTREL_MONITOR_PROGRAM, "--help"}, dir + "/d.log");
    EXPECT_EQ(help.wait(), 0);
    EXPECT_THAT(help.output(), HasSubstr("Usage: kestrel-monitor [options] [INTERFACE]"));
  }
  ::unsetenv(kestrel::simbus::kDirectoryEnv);
  std::filesystem::remove_all(dir);
}

}  // namespace
