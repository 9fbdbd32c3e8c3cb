// A seed in a child process of its own: a call that never returns, or a crash, costs that seed
// only. The child's standard output and error (the controller's status lines) go to a log file;
// its summary comes back through a file beside it.
#pragma once

#include <sys/types.h>

#include <chrono>
#include <memory>
#include <string>

#include "campaign/campaign_report.hpp"

namespace kestrel::campaign {

class SeedProcess {
 public:
  // Forks at once. Call from a thread-free process: the child builds everything afresh.
  SeedProcess(const CampaignOptions& options, std::string log_path, double timeout_sec);
  ~SeedProcess();  // ends a child still running
  SeedProcess(const SeedProcess&) = delete;
  SeedProcess& operator=(const SeedProcess&) = delete;

  // Without blocking: true once the child has ended, or was ended after its time-out.
  bool finished();
  const SeedSummary& summary() const { return summary_; }  // once finished
  const std::string& log_path() const { return log_path_; }

 private:
  void collect(int status, bool timed_out);

  CampaignOptions options_;
  std::string log_path_;
  std::string summary_path_;
  std::chrono::steady_clock::time_point deadline_;
  std::chrono::steady_clock::time_point started_;
  pid_t pid_ = -1;
  SeedSummary summary_;
};

// A seed run in child processes, again when a run failed while the simulated arm was starved of
// commands by the machine (a disturbed run says nothing of the controller), at most `max_runs`
// times. The verdict is the last run's.
class SeedJob {
 public:
  SeedJob(const CampaignOptions& options, std::string log_path, double timeout_sec, int max_runs);
  bool finished();  // without blocking
  const SeedSummary& summary() const { return summary_; }
  const std::string& log_path() const { return log_path_; }

 private:
  CampaignOptions options_;
  std::string log_path_;
  double timeout_sec_;
  int max_runs_;
  std::unique_ptr<SeedProcess> process_;
  std::string earlier_runs_;
  SeedSummary summary_;
};

// Runs one seed that way and waits for it.
SeedSummary run_seed_in_child(const CampaignOptions& options, const std::string& log_path,
                              double timeout_sec, int max_runs);

}  // namespace kestrel::campaign
