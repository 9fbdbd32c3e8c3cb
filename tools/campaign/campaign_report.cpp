#include "campaign/campaign_report.hpp"

#include <cstdio>
#include <iomanip>
#include <sstream>

namespace kestrel::campaign {

namespace {

constexpr size_t kFramesBefore = 3;
constexpr size_t kFramesAfter = 2;

std::string ms(double seconds) {
  char buffer[32];
  std::snprintf(buffer, sizeof buffer, "%+10.1f ms", seconds * 1e3);
  return buffer;
}

void print_frame(std::ostream& out, const MitFrame& f, bool marked) {
  char buffer[160];
  std::snprintf(buffer, sizeof buffer, "      %s %s  q=%+.6f dq=%+.5f kp=%.3f kd=%.4f tau=%+.4f\n",
                marked ? ">" : " ", ms(f.time).c_str(), f.q, f.dq, f.kp, f.kd, f.tau);
  out << buffer;
}

// The frames of the same motor around frame `at`.
void print_neighbourhood(std::ostream& out, const std::vector<MitFrame>& frames, size_t at) {
  const int motor = frames[at].motor;
  std::vector<size_t> before;
  for (size_t i = at; i-- > 0 && before.size() < kFramesBefore;) {
    if (frames[i].motor == motor) {
      before.insert(before.begin(), i);
    }
  }
  for (size_t i : before) {
    print_frame(out, frames[i], false);
  }
  print_frame(out, frames[at], true);
  size_t shown = 0;
  for (size_t i = at + 1; i < frames.size() && shown < kFramesAfter; ++i) {
    if (frames[i].motor == motor) {
      print_frame(out, frames[i], false);
      ++shown;
    }
  }
}

std::string counts_text(const OutcomeCounts& c) {
  std::ostringstream s;
  s << c.accepted + c.refused + c.interrupted << " (" << c.accepted << " accepted, " << c.refused
    << " refused, " << c.interrupted << " interrupted)";
  return s.str();
}

void print_violations(std::ostream& out, const char* title, const std::vector<Violation>& list,
                      const std::vector<MitFrame>& frames, bool with_frames) {
  const size_t shown = std::min(list.size(), kReportedViolations);
  out << title << " (first " << shown << " of " << list.size() << "):\n";
  for (size_t k = 0; k < shown; ++k) {
    const Violation& v = list[k];
    out << "  " << ms(v.time);
    if (v.motor >= 0) {
      out << "  motor " << v.motor;
    }
    out << "  " << v.quantity << " " << cpp(v.value) << " (bound " << cpp(v.bound) << ")";
    if (!v.note.empty()) {
      out << "  " << v.note;
    }
    out << "\n";
    if (with_frames && v.frame < frames.size()) {
      print_neighbourhood(out, frames, v.frame);
    }
  }
}

OutcomeCounts sum(const std::map<std::string, OutcomeCounts>& by_kind) {
  OutcomeCounts total;
  for (const auto& [kind, c] : by_kind) {
    total.accepted += c.accepted;
    total.refused += c.refused;
    total.interrupted += c.interrupted;
  }
  return total;
}

}  // namespace

void print_reproduction(std::ostream& out, const SeedResult& r) {
  out << "==== seed " << r.options.seed << ": " << r.violations.size() << " violation"
      << (r.violations.size() == 1 ? "" : "s") << (r.abandoned ? " (a call never returned)" : "")
      << "\n";
  out << "configuration: seed " << r.options.seed << ", " << r.options.duration_sec
      << " s of arm time, "
      << (r.velocity_continuity
              ? "smooth configuration (continuous waypoint velocities, spliced take-overs): "
                "velocity continuity checked"
              : "shipped configuration (motions start from standstill): velocity continuity not "
                "checked")
      << "; rigid-body SimulatedArm on \"can0\"\n";
  out << "  ArmController arm(true, \"can0\", false, MIT_MODE, false);\n";
  for (const char* key : {"continuous_waypoint_velocity", "smooth_takeover"}) {
    out << "  ArmControllerTestAccess::impl(arm).trajectory_config." << key << " = "
        << (r.velocity_continuity ? "true" : "false") << ";\n";
  }
  out << "  using Item = ArmController::MotionProgramItem;\n";
  out << "calls (thread, start, call; outcome, duration), " << r.calls.size() << ":\n";
  for (size_t i = 0; i < r.calls.size(); ++i) {
    const CallRecord& c = r.calls[i];
    out << "  #" << i << " [" << c.thread << " " << ms(c.start) << "] " << c.call.text << "  // "
        << describe_outcome(c) << ", " << std::fixed << std::setprecision(1) << c.duration() * 1e3
        << " ms" << std::defaultfloat << std::setprecision(6) << "\n";
  }
  out << "receive timing of the arm's frames: longest gap " << r.longest_gap_ms
      << " ms, longest delivery stall " << r.delivery_stall_ms << " ms";
  if (r.delivery_stall_ms > 0.0) {
    out << " (ended at " << ms(r.delivery_stall_end) << ")";
  }
  out << (r.disturbed() ? ": the run was disturbed, the simulated arm starved of commands\n"
                        : "\n");
  out << "frames checked " << r.frame_check.frames_checked << ", exemption windows "
      << r.exemptions.size() << ", memory growth " << std::setprecision(3) << r.memory_growth_mb
      << " MB" << std::setprecision(6) << "\n";
  print_violations(out, "take-overs tolerated", r.frame_check.exempted, r.frames, false);
  print_violations(out, "violations", r.violations, r.frames, true);
}

SeedSummary summarize(const SeedResult& r) {
  SeedSummary s;
  s.seed = r.options.seed;
  s.velocity_continuity = r.velocity_continuity;
  s.completed = !r.abandoned;
  s.frames_checked = r.frame_check.frames_checked;
  s.violations = r.violations.size();
  s.wall_sec = r.wall_sec;
  s.longest_gap_ms = r.longest_gap_ms;
  s.delivery_stall_ms = r.delivery_stall_ms;
  s.disturbed = r.disturbed();
  for (const CallRecord& c : r.calls) {
    OutcomeCounts& counts = s.calls[c.call.kind];
    ++(c.interrupted() ? counts.interrupted : c.refused() ? counts.refused : counts.accepted);
  }
  for (const Violation& v : r.violations) {
    ++s.violation_kinds[v.quantity];
  }
  if (!r.violations.empty() || r.options.report_always) {
    std::ostringstream report;
    print_reproduction(report, r);
    s.report = report.str();
  }
  return s;
}

std::string one_line(const SeedSummary& s) {
  std::ostringstream out;
  out << "seed " << s.seed << (s.velocity_continuity ? " (velocity continuity)" : "") << ": "
      << counts_text(sum(s.calls)) << " calls, " << s.frames_checked << " frames, " << s.violations
      << " violation" << (s.violations == 1 ? "" : "s");
  for (const auto& [kind, n] : s.violation_kinds) {
    out << (kind == s.violation_kinds.begin()->first ? " [" : ", ") << kind << " " << n;
  }
  if (!s.violation_kinds.empty()) {
    out << "]";
  }
  out << ", " << std::fixed << std::setprecision(1) << s.wall_sec << " s";
  if (s.delivery_stall_ms > 0.0) {
    out << ", delivery stalled " << s.delivery_stall_ms << " ms"
        << (s.disturbed ? " (disturbed)" : "");
  }
  if (s.runs > 1) {
    out << ", run " << s.runs;
  }
  if (!s.completed) {
    out << ", did not complete";
  }
  return out.str();
}

std::string serialize(const SeedSummary& s) {
  std::ostringstream out;
  out << std::setprecision(17);
  out << "seed " << s.seed << "\ncontinuity " << s.velocity_continuity << "\ncompleted "
      << s.completed << "\nframes " << s.frames_checked << "\nviolations " << s.violations
      << "\nwall " << s.wall_sec << "\ngap " << s.longest_gap_ms << "\nstall "
      << s.delivery_stall_ms << "\ndisturbed " << s.disturbed << "\n";
  for (const auto& [kind, c] : s.calls) {
    out << "calls " << c.accepted << " " << c.refused << " " << c.interrupted << " " << kind
        << "\n";
  }
  for (const auto& [kind, n] : s.violation_kinds) {
    out << "violation " << n << " " << kind << "\n";
  }
  out << "report\n" << s.report;
  return out.str();
}

std::optional<SeedSummary> parse_summary(const std::string& text) {
  SeedSummary s;
  std::istringstream in(text);
  std::string line;
  bool seen_seed = false;
  while (std::getline(in, line)) {
    std::istringstream fields(line);
    std::string key;
    fields >> key;
    if (key == "report") {
      s.report.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
      return seen_seed ? std::optional<SeedSummary>(s) : std::nullopt;
    }
    if (key == "seed") {
      seen_seed = static_cast<bool>(fields >> s.seed);
    } else if (key == "continuity") {
      fields >> s.velocity_continuity;
    } else if (key == "completed") {
      fields >> s.completed;
    } else if (key == "frames") {
      fields >> s.frames_checked;
    } else if (key == "violations") {
      fields >> s.violations;
    } else if (key == "wall") {
      fields >> s.wall_sec;
    } else if (key == "gap") {
      fields >> s.longest_gap_ms;
    } else if (key == "stall") {
      fields >> s.delivery_stall_ms;
    } else if (key == "disturbed") {
      fields >> s.disturbed;
    } else if (key == "calls") {
      OutcomeCounts c;
      fields >> c.accepted >> c.refused >> c.interrupted >> std::ws;
      std::string kind;
      std::getline(fields, kind);
      s.calls[kind] = c;
    } else if (key == "violation") {
      size_t n = 0;
      fields >> n >> std::ws;
      std::string kind;
      std::getline(fields, kind);
      s.violation_kinds[kind] = n;
    }
  }
  return std::nullopt;  // cut short: no report section
}

void CampaignTotals::add(const SeedSummary& s) {
  ++seeds_;
  failed_seeds_ += s.violations > 0 ? 1 : 0;
  incomplete_seeds_ += s.completed ? 0 : 1;
  reruns_ += static_cast<size_t>(s.runs - 1);
  disturbed_verdicts_ += s.disturbed ? 1 : 0;
  frames_ += s.frames_checked;
  violations_ += s.violations;
  for (const auto& [kind, c] : s.calls) {
    OutcomeCounts& t = calls_[kind];
    t.accepted += c.accepted;
    t.refused += c.refused;
    t.interrupted += c.interrupted;
  }
  for (const auto& [kind, n] : s.violation_kinds) {
    violation_kinds_[kind] += n;
    ++seeds_by_kind_[kind];
  }
}

void CampaignTotals::print(std::ostream& out) const {
  out << "==== totals\n";
  out << "seeds " << seeds_ << " (" << failed_seeds_ << " with violations, " << incomplete_seeds_
      << " did not complete); " << reruns_ << " runs repeated, disturbed by the machine; "
      << disturbed_verdicts_ << " verdicts from a disturbed run\n";
  out << "commands " << counts_text(sum(calls_)) << "\n";
  for (const auto& [kind, c] : calls_) {
    out << "  " << std::left << std::setw(52) << kind << std::right << counts_text(c) << "\n";
  }
  out << "frames checked " << frames_ << "\n";
  out << "violations " << violations_ << "\n";
  for (const auto& [kind, n] : violation_kinds_) {
    out << "  " << std::left << std::setw(52) << kind << std::right << n << " in "
        << seeds_by_kind_.at(kind) << " seeds\n";
  }
}

}  // namespace kestrel::campaign
