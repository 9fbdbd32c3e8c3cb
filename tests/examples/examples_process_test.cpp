// Every example program, run the way its comment says: beside the simulated arm, through the
// userspace-bus interposer, as a separate process. Each must end with status 0 and print what
// it promises.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <filesystem>

#include "simbus/simbus_control.hpp"
#include "simbus/simbus_paths.hpp"
#include "support/child_process.hpp"

namespace {

using namespace std::chrono_literals;
using kestrel::testing::Process;

struct Example {
  const char* name;
  std::vector<std::string> expected;  // regular expressions, in any order
};

class ExampleProgram : public ::testing::TestWithParam<Example> {};

TEST_P(ExampleProgram, RunsBesideTheSimulatedArm) {
  const Example& example = GetParam();
  char dir_template[] = "/tmp/kestrel-example-test-XXXXXX";
  const std::string dir = ::mkdtemp(dir_template);
  ::setenv(kestrel::simbus::kDirectoryEnv, dir.c_str(), 1);
  {
    Process sim({KESTREL_SIM_PROGRAM, "--serve", "--interface", "excan0"}, dir + "/sim.log");
    bool served = false;
    for (int i = 0; i < 500 && !served; ++i) {
      served = kestrel::simbus::is_served(dir, "excan0");
      std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(served) << sim.output();
    const std::string program = std::string(KESTREL_EXAMPLES_DIR) + "/" + example.name;
    Process run({KESTREL_SIMBUS_PROGRAM, "run", "--", program, "excan0"}, dir + "/example.log");
    EXPECT_EQ(run.wait(120s), 0) << run.output();
    for (const auto& pattern : example.expected) {
      EXPECT_THAT(run.output(), ::testing::ContainsRegex(pattern));
    }
    sim.terminate();
    EXPECT_EQ(sim.wait(), 0) << sim.output();
  }
  ::unsetenv(kestrel::simbus::kDirectoryEnv);
  std::filesystem::remove_all(dir);
}

INSTANTIATE_TEST_SUITE_P(
    Examples, ExampleProgram,
    ::testing::Values(
        Example{
            "joint_moves",
            {"moved in [0-9.]+ s; joints now 0\\.(49|50)[0-9] 0\\.(49|50)[0-9] -(0\\.99|1\\.00)"}},
        Example{"joint_waypoints",
                {"half speed: [0-9.]+ s; timed: 6\\.00 s \\(2401 samples at 400 Hz\\)",
                 "tool at the end: x 0\\.4"}},
        Example{"cartesian_lines",
                {"square in [0-9.]+ s; tool at x 0\\.28[0-9] y -0\\.07[0-9] z 0\\.20[0-9] m",
                 "refused: \\[move_l\\]"}},
        Example{"streaming_chunks", {"chunk 10: 0\\.60 s", "joint 1 ends at \\+0\\.0[0-9]+ rad"}},
        Example{"gripper",
                {"open: +0\\.08[0-9]+ m \\(position 1\\.00\\)", "half: +0\\.04[0-9]+ m",
                 "20 mm: +0\\.0[12][0-9]+ m", "closed: +0\\.00[0-9]+ m"}},
        Example{"gravity_compensation", {"t 3\\.0 s  q2 \\+0\\.[0-9]+ rad", "holding"}},
        Example{"reading_state",
                {"joints rad", "tool x y z qx qy qz qw", "feed-forward N·m",
                 "control loop: [0-9]+ cycles"}},
        Example{"facade_mit_streaming", {"== Streaming MIT commands at 400 Hz", "== Disabling"}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
