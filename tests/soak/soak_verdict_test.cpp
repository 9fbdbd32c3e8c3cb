// The soak's verdict on growth, on made-up series of interval figures: what a leak looks like
// must fail, what a healthy process looks like (noise, a transient descriptor) must pass.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "soak/soak_figures.hpp"

namespace {

using kestrel::soak::GrowthLimits;
using kestrel::soak::IntervalFigures;
using kestrel::soak::judge_growth;

struct Series {
  const char* name;
  std::vector<double> rss_mb;              // one value per one-minute interval
  std::vector<std::string> failures = {};  // expected substrings, in order; none: passes
  std::vector<int> fds = {};               // empty: 12 throughout
  std::vector<int> threads = {};           // empty: 5 throughout
};

std::vector<IntervalFigures> intervals_of(const Series& s) {
  std::vector<IntervalFigures> out;
  for (size_t i = 0; i < s.rss_mb.size(); ++i) {
    IntervalFigures f;
    f.index = static_cast<int>(i) + 1;
    f.process.rss_mb = s.rss_mb[i];
    f.process.fds = s.fds.empty() ? 12 : s.fds[i];
    f.process.threads = s.threads.empty() ? 5 : s.threads[i];
    out.push_back(f);
  }
  return out;
}

void PrintTo(const Series& s, std::ostream* out) {
  *out << s.name;
}

class GrowthVerdict : public ::testing::TestWithParam<Series> {};

TEST_P(GrowthVerdict, FailsOnGrowthOnly) {
  const Series& s = GetParam();
  const auto verdict = judge_growth(intervals_of(s), 60.0, GrowthLimits{});
  ASSERT_TRUE(verdict.judged);
  ASSERT_EQ(verdict.failures.size(), s.failures.size())
      << ::testing::PrintToString(verdict.failures);
  for (size_t i = 0; i < s.failures.size(); ++i) {
    EXPECT_THAT(verdict.failures[i], ::testing::HasSubstr(s.failures[i]));
  }
  EXPECT_EQ(verdict.passed(), s.failures.empty());
}

INSTANTIATE_TEST_SUITE_P(
    Soak, GrowthVerdict,
    ::testing::Values(
        // Start-up allocations land in the warm-up minute; then the allocator's noise.
        Series{"Flat", {60.0, 61.2, 60.8, 61.5, 60.9, 61.4, 61.0, 61.3, 60.7, 61.1}},
        Series{"JumpAfterWarmUp", {40.0, 40.1, 46.5, 46.6, 46.4}, {"grew 6.4 MB after minute 1"}},
        // A long motion's timeline in memory at the last report only.
        Series{"TransientAtTheLastReport", {40.0, 40.1, 40.0, 40.2, 49.0}},
        // 0.3 MB per minute: below the limit on the total after ten minutes, but still rising.
        Series{"SteadyLeak",
               {40.0, 40.3, 40.6, 40.9, 41.2, 41.5, 41.8, 42.1, 42.4, 42.7},
               {"still rose 0.30 MB/min"}},
        // The allocator settling in during the first minutes, then flat.
        Series{"EarlyCreep", {40.0, 41.0, 41.8, 42.4, 42.8, 43.0, 43.0, 43.1, 43.0, 43.1, 43.0}},
        Series{"LeakedDescriptorAndThread",
               {40.0, 40.0, 40.0},
               {"open descriptors: 12 after minute 1, 13 at the end",
                "threads: 5 after minute 1, 7 at the end"},
               {12, 12, 13},
               {5, 5, 7}},
        // A descriptor open at one report and closed by the last is no leak.
        Series{"TransientDescriptor", {40.0, 40.0, 40.0, 40.0}, {}, {12, 14, 12, 12}}),
    [](const auto& info) { return std::string(info.param.name); });

}  // namespace
