// The campaign's checker against the real thing: slow rest-to-rest joint moves on the simulated
// arm pass every check, velocity continuity included (what it must catch: frame_checker_test).
#include <gtest/gtest.h>

#include <sstream>

#include "campaign/campaign_report.hpp"

namespace kestrel::campaign {
namespace {

TEST(CheckerOnTheArm, SlowMovesPassEveryCheck) {
  CampaignOptions options;
  options.seed = 3;  // odd: velocity continuity is checked
  options.duration_sec = 8.0;
  options.profile = Profile::kSlowJointMoves;
  SeedResult r;
  std::string out;
  std::string err;
  // A run the machine starved of commands says nothing of the controller: it is run again.
  for (int run = 0; run < 3 && (run == 0 || (r.disturbed() && !r.violations.empty())); ++run) {
    ::testing::internal::CaptureStdout();  // the controller's status lines
    ::testing::internal::CaptureStderr();
    r = run_seed(options);
    out = ::testing::internal::GetCapturedStdout();
    err = ::testing::internal::GetCapturedStderr();
  }
  ASSERT_FALSE(r.abandoned);
  std::ostringstream report;
  print_reproduction(report, r);
  report << "---- controller output\n" << out << err;
  EXPECT_TRUE(r.violations.empty()) << report.str();
  EXPECT_TRUE(r.frame_check.exempted.empty()) << report.str();  // every move began at rest
  EXPECT_GT(r.frame_check.frames_checked, options.duration_sec * 2000);
  size_t motions = 0;
  for (const CallRecord& c : r.calls) {
    motions += c.thread == 'A' && c.outcome == Outcome::kReturned ? 1 : 0;
  }
  EXPECT_GE(motions, 3u);
}

}  // namespace
}  // namespace kestrel::campaign
