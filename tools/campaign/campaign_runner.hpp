// One seed of the campaign: a fresh simulated arm and controller, the motion and interruption
// threads driving it through the public API, a collector draining the frames the motors
// received, then every check: frames, calls, the controller's end state and memory.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "campaign/campaign_call.hpp"
#include "campaign/command_generator.hpp"
#include "campaign/frame_checker.hpp"

namespace kestrel::campaign {

struct CampaignOptions {
  uint64_t seed = 1;
  double duration_sec = 15.0;  // the motion thread starts no call after this much arm time
  bool report_always = false;  // the summary carries the reproduction even when nothing failed
  std::string frames_csv;      // when set: every MIT frame written there (time, motor, fields)
};

inline constexpr double kMemoryGrowthLimitMb = 64.0;
inline constexpr double kMemoryWarmUpSec = 2.0;
inline constexpr double kDisturbingStallMs = 20.0;

struct SeedResult {
  CampaignOptions options;
  // Odd seeds: the smooth configuration, continuous waypoint velocities and spliced take-overs.
  bool velocity_continuity = false;
  ArmLimits limits;
  std::vector<CallRecord> calls;  // in order of their start
  std::vector<MitFrame> frames;   // every MIT frame the seven motors received, in order
  std::vector<Exemption> exemptions;
  CheckResult frame_check;
  std::vector<Violation> violations;  // all of them, in time order
  size_t frames_lost = 0;             // fell out of the simulator's log before a drain
  // Receive timing of the arm motors' frames, what the step bounds rest on: the longest gap, and
  // the longest stall of delivery (a gap that the frames held back then filled at once: the
  // controller sent on, the simulated motors heard nothing meanwhile) and when it ended.
  double longest_gap_ms = 0.0;
  double delivery_stall_ms = 0.0;
  double delivery_stall_end = 0.0;  // s since the campaign's start
  // A stall this long starves the simulated arm of commands: what follows (an emergency stop
  // above all) says nothing of the controller. Such a run is disturbed. So is one where no frame
  // came for that long: on a machine saturated by other seeds the control thread itself was not
  // scheduled (a defect of the controller's own would make every run of the seed fail).
  bool disturbed() const {
    return delivery_stall_ms >= kDisturbingStallMs || longest_gap_ms >= kDisturbingStallMs;
  }
  double memory_growth_mb = 0.0;
  // A call never returned: its thread, the controller and the simulated arm were left behind
  // and the process must end without destroying them.
  bool abandoned = false;
  double wall_sec = 0.0;
};

SeedResult run_seed(const CampaignOptions& options);

}  // namespace kestrel::campaign
