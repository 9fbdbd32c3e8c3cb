#include "campaign/seed_process.hpp"

#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <deque>
#include <fstream>
#include <iostream>
#include <sstream>
#include <thread>

namespace kestrel::campaign {

namespace {

constexpr size_t kLogTailLines = 40;

std::string read_file(const std::string& path) {
  std::ifstream in(path);
  std::ostringstream s;
  s << in.rdbuf();
  return s.str();
}

std::string log_tail(const std::string& path) {
  std::ifstream in(path);
  std::deque<std::string> lines;
  std::string line;
  while (std::getline(in, line)) {
    lines.push_back(line);
    if (lines.size() > kLogTailLines) {
      lines.pop_front();
    }
  }
  std::string out;
  for (const std::string& l : lines) {
    out += "    | " + l + "\n";
  }
  return out;
}

// The controller's lines about what stopped the arm.
std::string stop_lines(const std::string& path) {
  std::ifstream in(path);
  std::string line, out;
  while (std::getline(in, line)) {
    if (line.find("stop:") != std::string::npos || line.find("emergency") != std::string::npos) {
      out += "    | " + line + "\n";
    }
  }
  return out;
}

[[noreturn]] void run_child(const CampaignOptions& options, const std::string& log_path,
                            const std::string& summary_path) {
  const int log = ::open(log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
  if (log >= 0) {
    ::dup2(log, STDOUT_FILENO);
    ::dup2(log, STDERR_FILENO);
  }
  const SeedSummary summary = summarize(run_seed(options));
  {
    std::ofstream out(summary_path, std::ios::trunc);
    out << serialize(summary);
  }
  std::fflush(nullptr);
  // No destructors: an abandoned seed left threads running inside the controller.
  ::_exit(0);
}

}  // namespace

SeedProcess::SeedProcess(const CampaignOptions& options, std::string log_path, double timeout_sec)
    : options_(options),
      log_path_(std::move(log_path)),
      summary_path_(log_path_ + ".summary"),
      deadline_(std::chrono::steady_clock::now() +
                std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                    std::chrono::duration<double>(timeout_sec))),
      started_(std::chrono::steady_clock::now()) {
  std::remove(summary_path_.c_str());
  std::cout.flush();
  std::cerr.flush();
  std::fflush(nullptr);
  pid_ = ::fork();
  if (pid_ == 0) {
    run_child(options_, log_path_, summary_path_);
  }
  if (pid_ < 0) {
    summary_.seed = options_.seed;
    summary_.violations = 1;
    summary_.violation_kinds["seed did not complete"] = 1;
    summary_.report = "==== seed " + std::to_string(options_.seed) + ": fork failed\n";
  }
}

SeedProcess::~SeedProcess() {
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
}

bool SeedProcess::finished() {
  if (pid_ <= 0) {
    return true;
  }
  int status = 0;
  if (::waitpid(pid_, &status, WNOHANG) == pid_) {
    pid_ = -1;
    collect(status, false);
    return true;
  }
  if (std::chrono::steady_clock::now() >= deadline_) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    collect(status, true);
    return true;
  }
  return false;
}

void SeedProcess::collect(int status, bool timed_out) {
  const bool exited_cleanly = !timed_out && WIFEXITED(status) && WEXITSTATUS(status) == 0;
  if (exited_cleanly) {
    if (auto parsed = parse_summary(read_file(summary_path_))) {
      summary_ = std::move(*parsed);
      if (summary_.violation_kinds.count("emergency stop") != 0) {
        summary_.report += "why, in the controller's words:\n" + stop_lines(log_path_);
      }
      return;
    }
  }
  std::ostringstream why;
  if (timed_out) {
    why << "did not finish in time and was killed";
  } else if (WIFSIGNALED(status)) {
    why << "ended by signal " << WTERMSIG(status);
  } else if (WIFEXITED(status)) {
    why << "exited with status " << WEXITSTATUS(status);
  }
  if (exited_cleanly) {
    why << "left no summary";
  }
  summary_ = SeedSummary{};
  summary_.seed = options_.seed;
  summary_.velocity_continuity = options_.seed % 2 == 1;
  summary_.violations = 1;
  summary_.violation_kinds["seed did not complete"] = 1;
  summary_.wall_sec =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - started_).count();
  summary_.report = "==== seed " + std::to_string(options_.seed) + ": the seed's process " +
                    why.str() + "; the end of its log (" + log_path_ + "):\n" + log_tail(log_path_);
}

SeedJob::SeedJob(const CampaignOptions& options, std::string log_path, double timeout_sec,
                 int max_runs)
    : options_(options),
      log_path_(std::move(log_path)),
      timeout_sec_(timeout_sec),
      max_runs_(max_runs),
      process_(std::make_unique<SeedProcess>(options_, log_path_, timeout_sec_)) {}

bool SeedJob::finished() {
  if (!process_) {
    return true;
  }
  if (!process_->finished()) {
    return false;
  }
  SeedSummary s = process_->summary();
  const int run =
      static_cast<int>(std::count(earlier_runs_.begin(), earlier_runs_.end(), '\n')) + 1;
  if (s.violations > 0 && s.disturbed && run < max_runs_) {
    earlier_runs_ += "  run " + std::to_string(run) + ": " + one_line(s) + "\n";
    process_ = std::make_unique<SeedProcess>(options_, log_path_, timeout_sec_);
    return false;
  }
  process_.reset();
  s.runs = run;
  if (!earlier_runs_.empty() && !s.report.empty()) {
    s.report = "earlier runs of this seed, disturbed:\n" + earlier_runs_ + s.report;
  }
  summary_ = std::move(s);
  return true;
}

SeedSummary run_seed_in_child(const CampaignOptions& options, const std::string& log_path,
                              double timeout_sec, int max_runs) {
  SeedJob job(options, log_path, timeout_sec, max_runs);
  while (!job.finished()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
  }
  return job.summary();
}

}  // namespace kestrel::campaign
