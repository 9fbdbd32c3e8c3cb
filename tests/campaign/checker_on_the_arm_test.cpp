// The campaign's checker against the real thing: slow rest-to-rest joint moves on the simulated
// arm pass every check, velocity continuity included, and the very same frames with one target
// displaced are caught exactly there.
#include <gtest/gtest.h>

#include <algorithm>
#include <sstream>
#include <vector>

#include "campaign/campaign_report.hpp"

namespace kestrel::campaign {
namespace {

bool inside_a_window(const SeedResult& r, double time) {
  return std::any_of(r.exemptions.begin(), r.exemptions.end(), [&](const Exemption& e) {
    return time >= e.begin - 0.01 && time <= e.end + 0.01;
  });
}

constexpr double kPeriod = 0.0025;  // the control loop's

// A frame of `motor` past the middle of the run, outside every take-over window, that arrived
// between one and two periods after the motor's frame before it and before the one after it.
// Frames bunched by a busy machine are judged over the span they stand for, so a displaced
// target among them would be caught once only.
size_t quiet_frame(const SeedResult& r, int motor) {
  std::vector<size_t> own;
  for (size_t i = r.frames.size() / 2; i < r.frames.size(); ++i) {
    if (r.frames[i].motor == motor) {
      own.push_back(i);
    }
  }
  const auto regular = [&](size_t a, size_t b) {
    const double dt = r.frames[b].time - r.frames[a].time;
    return dt >= kPeriod && dt < 2.0 * kPeriod;
  };
  for (size_t k = 1; k + 1 < own.size(); ++k) {
    if (regular(own[k - 1], own[k]) && regular(own[k], own[k + 1]) &&
        !inside_a_window(r, r.frames[own[k]].time)) {
      return own[k];
    }
  }
  return 0;
}

TEST(CheckerOnTheArm, SlowMovesPassAndADisplacedTargetIsCaughtThere) {
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

  // 0.05 rad on one target of motor 1 (joint 2): the step there and back, nothing else.
  const size_t displaced = quiet_frame(r, 1);
  ASSERT_GT(displaced, 0u);
  std::vector<MitFrame> frames = r.frames;
  frames[displaced].q += 0.05;
  const CheckResult positions = check_frames(frames, r.limits, r.exemptions, true);
  ASSERT_EQ(positions.violations.size(), 2u);
  EXPECT_EQ(positions.violations[0].frame, displaced);
  EXPECT_EQ(positions.violations[0].quantity, "position step");
  EXPECT_EQ(positions.violations[1].motor, 1);
  EXPECT_EQ(positions.violations[1].quantity, "position step");

  // 0.3 rad/s on one velocity target: caught where continuity is checked only.
  frames = r.frames;
  frames[displaced].dq += 0.3;
  const CheckResult velocities = check_frames(frames, r.limits, r.exemptions, true);
  ASSERT_EQ(velocities.violations.size(), 2u);
  EXPECT_EQ(velocities.violations[0].frame, displaced);
  EXPECT_EQ(velocities.violations[0].quantity, "velocity step");
  EXPECT_TRUE(check_frames(frames, r.limits, r.exemptions, false).violations.empty());
}

}  // namespace
}  // namespace kestrel::campaign
