// Every example program, run the way its comment says: beside the simulated arm, through the
// userspace-bus interposer, as a separate process. Each must end with status 0 and print what
// it promises (facade_mit_streaming runs beside the bus monitor: tests/monitor).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "simbus/private_bus.hpp"

namespace {

using namespace std::chrono_literals;

// {the example program, what it prints: regular expressions, in any order}
using Example = std::pair<const char*, std::vector<std::string>>;

class ExampleProgram : public kestrel::testing::PrivateBus,
                       public ::testing::WithParamInterface<Example> {};

TEST_P(ExampleProgram, RunsBesideTheSimulatedArm) {
  ASSERT_NO_FATAL_FAILURE(start_sim("excan0"));
  const auto r = run({KESTREL_SIMBUS_PROGRAM, "run", "--",
                      std::string(KESTREL_EXAMPLES_DIR) + "/" + GetParam().first, "excan0"},
                     120s);
  EXPECT_EQ(r.status, 0) << r.output;
  for (const auto& pattern : GetParam().second) {
    EXPECT_THAT(r.output, ::testing::ContainsRegex(pattern));
  }
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
                 "control loop: [0-9]+ cycles"}}),
    [](const auto& info) { return std::string(info.param.first); });

}  // namespace
