// Motor supervision as a component: a sequence of feedback fetches in, the stop or report line
// out, exactly as the control loop prints it.
#include "kestrel/controller/motor_supervision.hpp"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using kestrel::controller::MotorSupervision;
using kestrel::controller::MotorSupervisionConfig;
using Reading = MotorSupervision::Reading;

constexpr int64_t kFetchNs = 5000000;  // the loop fetches feedback every 5 ms

// One fetch: which arm motors answered (a new feedback frame each), their status, and the
// gripper's.
struct Fetch {
  std::vector<bool> answered;  // six entries; shorter lists answer for the rest
  std::vector<int> status;     // six entries; shorter lists report 1 (enabled) for the rest
  bool gripper_answered = true;
  int gripper_status = 1;
  int64_t late_ns = 0;  // a loop held up: the fetch comes this much after its period
};

struct Case {
  const char* name;
  std::vector<Fetch> fetches;                   // after a first fetch where every motor answered
  std::string arm_line;                         // the stop line of the last fetch ("" = no stop)
  std::vector<std::string> gripper_lines = {};  // every gripper line over the whole sequence
  bool enabled = true;
};

Fetch silent(std::vector<bool> answered, bool gripper = true) {
  return {std::move(answered), {}, gripper};
}

Fetch status(std::vector<int> codes, int gripper = 1) {
  return {{}, std::move(codes), true, gripper};
}

Fetch late(Fetch f, int64_t ns) {
  f.late_ns = ns;
  return f;
}

// The fetches of each part in turn; a part is one fetch or a list of them.
std::vector<Fetch> seq(std::initializer_list<std::vector<Fetch>> parts) {
  std::vector<Fetch> all;
  for (const auto& part : parts) {
    all.insert(all.end(), part.begin(), part.end());
  }
  return all;
}

std::vector<Fetch> repeat(const Fetch& f, int n) {
  return std::vector<Fetch>(static_cast<size_t>(n), f);
}

const Fetch kJoint3Silent = silent({true, true, false});
const Fetch kAllSilent = silent({false, false, false, false, false, false}, false);
const Fetch kGripperSilent = silent({}, false);

const Case kCases[] = {
    {"OneFaultStopsAtOnceNamingJointAndFault",
     {status({1, 1, 11})},
     "motor fault stop: joint=3 status=11 (MOS over-temperature)"},
    {"TwoFaultsAreNamedInOneLine",
     {status({8, 1, 1, 14})},
     "motor fault stop: joint=1 status=8 (Over-voltage), joint=4 status=14 (Overload)"},
    {"StatusesOutsideTheFaultRangeAreNotFaults", repeat(status({0, 2, 7, 15, 1, 1}), 3), ""},
    {"SilentFor45MsIsNotYetSilent", repeat(kJoint3Silent, 9), ""},
    {"SilentFor50MsStops", repeat(kJoint3Silent, 10),
     "motor silent stop: joint=3 no feedback for 50.0 ms"},
    {"AnAnswerRestartsTheCount",
     seq({repeat(kJoint3Silent, 9), {Fetch{}}, repeat(kJoint3Silent, 9)}), ""},
    {"AHeldUpLoopAsksThreeTimesBeforeSilence",
     seq({{late(kJoint3Silent, 200000000)}, repeat(kJoint3Silent, 2)}),
     "motor silent stop: joint=3 no feedback for 215.0 ms"},
    {"EveryArmMotorSilentPointsAtTheBus", repeat(kAllSilent, 10),
     "motor silent stop: joints=1,2,3,4,5,6 no feedback for 50.0 ms (no arm motor answers: is "
     "the CAN bus up and the arm powered?)"},
    {"AFaultIsOnlyReadFromAFreshFrame", {{{true, true, false}, {1, 1, 11}}}, ""},
    {"GripperSilenceIsReportedOnceAfter100Ms",
     repeat(kGripperSilent, 25),
     "",
     {"gripper motor silent: no feedback for 100.0 ms"}},
    {"GripperFaultIsReportedOncePerEpisode",
     seq({repeat(status({}, 12), 3), {Fetch{}}, {status({}, 9)}}),
     "",
     {"gripper motor fault: status=12 (Coil over-temperature)",
      "gripper motor fault: status=9 (Under-voltage)"}},
    {"SwitchedOffSeesNothing", seq({{status({11})}, repeat(kAllSilent, 10)}), "", {}, false},
};

class MotorSupervisionTest : public testing::TestWithParam<Case> {};

TEST_P(MotorSupervisionTest, Fetches) {
  const Case& c = GetParam();
  MotorSupervisionConfig config;
  config.enabled = c.enabled;
  MotorSupervision supervision(config);
  std::array<Reading, 6> arm{};
  Reading gripper{};
  int64_t now = 1000000000;
  const auto fetch = [&](const Fetch& f) {
    now += f.late_ns;
    for (size_t i = 0; i < arm.size(); ++i) {
      if (i >= f.answered.size() || f.answered[i]) {
        ++arm[i].feedback_count;
      }
      arm[i].status = i < f.status.size() ? f.status[i] : 1;
    }
    gripper.feedback_count += f.gripper_answered ? 1 : 0;
    gripper.status = f.gripper_status;
    const auto finding = supervision.update(arm.data(), arm.size(), &gripper, now);
    now += kFetchNs;
    return finding;
  };
  fetch(Fetch{});  // the loop's first fetch: the counts as they stand
  MotorSupervision::Finding last;
  std::vector<std::string> gripper_lines;
  for (size_t i = 0; i < c.fetches.size(); ++i) {
    last = fetch(c.fetches[i]);
    if (!last.gripper_line.empty()) {
      gripper_lines.push_back(last.gripper_line);
    }
    if (i + 1 < c.fetches.size()) {
      ASSERT_FALSE(last.stop_arm) << "fetch " << i << ": " << last.arm_line;
    }
  }
  EXPECT_EQ(last.stop_arm, !c.arm_line.empty());
  EXPECT_EQ(last.arm_line, c.arm_line);
  EXPECT_EQ(gripper_lines, c.gripper_lines);
}

INSTANTIATE_TEST_SUITE_P(Table, MotorSupervisionTest, testing::ValuesIn(kCases),
                         [](const testing::TestParamInfo<Case>& info) { return info.param.name; });

}  // namespace
