// Seeds 1-6 of the campaign, each in a child process of its own (a call that never returns costs
// that seed only): every check holds for each. scripts/campaign.sh runs many more.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstdio>

#include "campaign/seed_process.hpp"

namespace kestrel::campaign {
namespace {

constexpr double kArmTimeSec = 12.0;
constexpr double kTimeoutSec = 150.0;
constexpr int kRunsPerSeed = 2;  // a failing run disturbed by the machine is run once more

class CampaignSeed : public ::testing::TestWithParam<int> {};

TEST_P(CampaignSeed, EveryCheckHolds) {
  CampaignOptions options;
  options.seed = static_cast<uint64_t>(GetParam());
  options.duration_sec = kArmTimeSec;
  const std::string log = ::testing::TempDir() + "kestrel_campaign_seed_" +
                          std::to_string(options.seed) + "_" + std::to_string(::getpid()) + ".log";
  const SeedSummary s = run_seed_in_child(options, log, kTimeoutSec, kRunsPerSeed);
  std::cout << one_line(s) << std::endl;
  EXPECT_TRUE(s.completed) << s.report;
  EXPECT_EQ(s.violations, 0u) << s.report;
  // It did run: the arm was commanded for most of its time.
  EXPECT_GT(s.frames_checked, kArmTimeSec * 1000);
  if (!HasFailure()) {
    std::remove(log.c_str());
  }
  std::remove((log + ".summary").c_str());
}

INSTANTIATE_TEST_SUITE_P(Seeds, CampaignSeed, ::testing::Range(1, 7));

}  // namespace
}  // namespace kestrel::campaign
