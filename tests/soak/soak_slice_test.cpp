// Twenty seconds of the soak run, as scripts/soak.sh runs it: the simulated arm in a process of
// its own, kestrel-soak through the userspace-bus interposer, a report every 10 s. Each report
// must carry the process's figures and a control loop that ran all along, and the run must end
// with its verdict that nothing grew grossly (the allocator still settles in after 10 s: the
// memory limit is wider than a long run's).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <regex>

#include "simbus/private_bus.hpp"

namespace {

using namespace std::chrono_literals;

class SoakSlice : public kestrel::testing::PrivateBus {};

TEST_F(SoakSlice, ReportsEveryIntervalAndNothingGrows) {
  ASSERT_NO_FATAL_FAILURE(start_sim("soakcan0"));
  const auto soak = run({KESTREL_SIMBUS_PROGRAM, "run", "--", KESTREL_SOAK_PROGRAM, "--interface",
                         "soakcan0", "--seconds", "20", "--interval", "10", "--rss-limit", "16"},
                        90s);
  const std::string& out = soak.output;
  EXPECT_EQ(soak.status, 0) << out;
  const std::regex report(
      R"(interval (\d) \(\d+ s\): rss ([0-9.]+) MB \(hwm [0-9.]+, heap [0-9.]+\), )"
      R"(fds (\d+), threads (\d+), cycles (\d+), )"
      R"(cycle p50 \d+ us p99 \d+ us max \d+ us, .*missed (\d+))");
  int reports = 0;
  for (auto it = std::sregex_iterator(out.begin(), out.end(), report); it != std::sregex_iterator();
       ++it) {
    const std::smatch& m = *it;
    EXPECT_EQ(std::stoi(m[1]), ++reports);
    EXPECT_GT(std::stod(m[2]), 1.0);
    EXPECT_GT(std::stoi(m[3]), 2);
    // The reporter, both user threads, the control loop and the torque monitor.
    EXPECT_GE(std::stoi(m[4]), 5);
    // 400 Hz for 10 s, with room for a loaded machine and an emergency stop's restart.
    EXPECT_GT(std::stoul(m[5]), 2000u) << m[0];
    EXPECT_LE(std::stoul(m[6]), std::stoul(m[5]));
  }
  EXPECT_EQ(reports, 2) << out;
  EXPECT_THAT(out, ::testing::HasSubstr("verdict: PASS")) << out;
}

}  // namespace
