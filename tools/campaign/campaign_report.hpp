// What a seed found: the reproduction of a failing seed (configuration, every call in order
// with its outcome, the violations with the frames around them), a summary that crosses process
// boundaries, and the totals over many seeds.
#pragma once

#include <cstdint>
#include <map>
#include <optional>
#include <ostream>
#include <string>

#include "campaign/campaign_runner.hpp"

namespace kestrel::campaign {

inline constexpr size_t kReportedViolations = 20;

struct OutcomeCounts {
  size_t accepted = 0;
  size_t refused = 0;
  size_t interrupted = 0;
};

struct SeedSummary {
  uint64_t seed = 0;
  bool velocity_continuity = false;
  bool completed = false;  // ran to its end: no call left hanging, no crash
  size_t frames_checked = 0;
  size_t violations = 0;
  std::map<std::string, OutcomeCounts> calls;     // by kind of call
  std::map<std::string, size_t> violation_kinds;  // by quantity
  double longest_gap_ms = 0.0;                    // see SeedResult
  double delivery_stall_ms = 0.0;
  bool disturbed = false;
  int runs = 1;              // a disturbed run that failed is run again
  std::string earlier_runs;  // one line per run before this one
  double wall_sec = 0.0;
  std::string report;  // the reproduction, when there were violations
};

void print_reproduction(std::ostream& out, const SeedResult& result);
SeedSummary summarize(const SeedResult& result);
// "seed 7 (velocity continuity): 152 calls (101 accepted, 38 refused, 13 interrupted), ..."
std::string one_line(const SeedSummary& summary);

// A line-based text form, for a seed run in a child process.
std::string serialize(const SeedSummary& summary);
std::optional<SeedSummary> parse_summary(const std::string& text);

class CampaignTotals {
 public:
  void add(const SeedSummary& summary);
  void print(std::ostream& out) const;
  size_t violations() const { return violations_; }

 private:
  size_t seeds_ = 0;
  size_t failed_seeds_ = 0;
  size_t incomplete_seeds_ = 0;
  size_t reruns_ = 0;              // runs repeated because the machine disturbed them
  size_t disturbed_verdicts_ = 0;  // seeds whose last run was still disturbed
  size_t frames_ = 0;
  size_t violations_ = 0;
  std::map<std::string, OutcomeCounts> calls_;
  std::map<std::string, size_t> violation_kinds_;
  std::map<std::string, size_t> seeds_by_kind_;  // seeds with at least one violation of a kind
};

}  // namespace kestrel::campaign
