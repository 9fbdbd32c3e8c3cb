// The simulated arm, the bus monitor and a program using Kestrel as three separate processes on
// one userspace bus, started the way a user starts them (the program is the example
// facade_mit_streaming); and the monitor's errors for bad use.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <tuple>

#include "simbus/private_bus.hpp"

namespace {

using namespace std::chrono_literals;
using ::testing::HasSubstr;

class ThreeProcesses : public kestrel::testing::PrivateBus {};

TEST_F(ThreeProcesses, SimulatedArmMonitorAndKestrelProgram) {
  ASSERT_NO_FATAL_FAILURE(start_sim("moncan0"));
  const auto monitor = start(
      {KESTREL_SIMBUS_PROGRAM, "run", "--", KESTREL_MONITOR_PROGRAM, "moncan0", "--duration", "6"});
  std::this_thread::sleep_for(500ms);  // listening before the first frame
  const auto demo = run({KESTREL_SIMBUS_PROGRAM, "run", "--", KESTREL_DEMO_PROGRAM, "--interface",
                         "moncan0", "--seconds", "1"});
  EXPECT_EQ(demo.status, 0) << demo.output;  // the example prints its steps
  EXPECT_THAT(demo.output, HasSubstr("== Streaming MIT commands at 400 Hz"));
  EXPECT_THAT(demo.output, HasSubstr("== Disabling"));
  EXPECT_EQ(monitor->wait(), 0) << monitor->output();

  // {arguments, exit status, what it prints}. The interface checks are the tools' shared ones
  // (tests/cli: DownAndClassicInterfacesAreRefusedWithTheReason, kestrel-monitor's among them).
  const std::tuple<std::vector<std::string>, int, const char*> uses[] = {
      {{KESTREL_MONITOR_PROGRAM, "--bogus"}, 2, "unknown option '--bogus'"},
      {{KESTREL_MONITOR_PROGRAM, "--filter", "9", "x"},
       2,
       "--filter takes a motor id 1..7, not '9'"},
      {{KESTREL_MONITOR_PROGRAM, "--help"}, 0, "Usage: kestrel-monitor [options] [INTERFACE]"},
  };
  for (const auto& [args, status, says] : uses) {
    SCOPED_TRACE(args.back());
    const auto r = run(args);
    EXPECT_EQ(r.status, status) << r.output;
    EXPECT_THAT(r.output, HasSubstr(says));
  }

  const std::string seen = monitor->output();
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
}

}  // namespace
