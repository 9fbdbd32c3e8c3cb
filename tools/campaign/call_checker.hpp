// The calls' own properties: each ended the way its arguments demand and within its time bound;
// and the windows in which a call may take over a moving arm from the measured joints at rest
// (set_joint, and blocking motions that may have replaced a running chunk).
#pragma once

#include <vector>

#include "campaign/campaign_call.hpp"
#include "campaign/frame_checker.hpp"

namespace kestrel::campaign {

inline constexpr double kNonBlockingBound = 1.0;  // s: every call that does not wait
inline constexpr double kBlockingSlack = 3.0;     // s beyond a waiting call's motion
inline constexpr double kAtOnceDuration = 0.05;   // s: a motion to where the arm is

// Outcome and duration of every call (violations carry no motor).
std::vector<Violation> check_calls(const std::vector<CallRecord>& calls);

// set_joint: [start, return + 20 ms]. Blocking motions while a chunk may have been running:
// [start, start + 1.5 s].
std::vector<Exemption> exemption_windows(const std::vector<CallRecord>& calls);

}  // namespace kestrel::campaign
