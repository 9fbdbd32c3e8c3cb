// kestrel-campaign: runs seeds of the randomized command campaign on the simulated arm, each in
// a child process of its own, a few at a time; prints a line per seed and the totals, writes the
// reproduction of every failing seed, and exits with status 1 when any check failed.
//
//   kestrel-campaign 200                 seeds 1 to 200
//   kestrel-campaign 5-40 --jobs 2       seeds 5 to 40, two at a time
//   kestrel-campaign --seed 17           seed 17 alone, its reproduction printed in full
//   kestrel-campaign --seed 17 --frames  ... and every frame the motors received, as CSV
#include <sys/stat.h>

#include <chrono>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <list>
#include <memory>
#include <string>
#include <thread>

#include "campaign/seed_process.hpp"

namespace {

using namespace kestrel::campaign;

constexpr int kRunsPerSeed = 3;  // a failing run disturbed by the machine is run again

struct Arguments {
  uint64_t first = 1;
  uint64_t last = 0;
  bool single = false;
  int jobs = 1;
  double duration_sec = 15.0;
  std::string output_dir = "campaign-output";
  bool frames = false;  // --seed N --frames: the frames as CSV beside the log
};

[[noreturn]] void usage(const std::string& problem) {
  std::cerr << "kestrel-campaign: " << problem << "\n"
            << "usage: kestrel-campaign SEEDS [--jobs N] [--duration SEC] [--output DIR]\n"
            << "       kestrel-campaign --seed N [--frames] [--duration SEC] [--output DIR]\n"
            << "SEEDS: N (seeds 1 to N) or A-B (seeds A to B)\n";
  std::exit(2);
}

uint64_t number(const std::string& text) {
  size_t used = 0;
  unsigned long long value = 0;
  try {
    value = std::stoull(text, &used);
  } catch (const std::exception&) {
    usage("not a number: " + text);
  }
  if (used != text.size()) {
    usage("not a number: " + text);
  }
  return value;
}

Arguments parse(int argc, char** argv) {
  Arguments a;
  bool have_seeds = false;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) {
        usage(arg + " needs a value");
      }
      return argv[++i];
    };
    if (arg == "--jobs") {
      a.jobs = static_cast<int>(number(value()));
    } else if (arg == "--duration") {
      a.duration_sec = std::stod(value());
    } else if (arg == "--output") {
      a.output_dir = value();
    } else if (arg == "--frames") {
      a.frames = true;
    } else if (arg == "--seed") {
      a.first = a.last = number(value());
      a.single = have_seeds = true;
    } else if (!arg.empty() && arg[0] != '-' && !have_seeds) {
      const size_t dash = arg.find('-');
      if (dash == std::string::npos) {
        a.first = 1;
        a.last = number(arg);
      } else {
        a.first = number(arg.substr(0, dash));
        a.last = number(arg.substr(dash + 1));
      }
      have_seeds = true;
    } else {
      usage("unexpected argument " + arg);
    }
  }
  if (!have_seeds || a.first == 0 || a.last < a.first) {
    usage("give the seeds to run (numbered from 1)");
  }
  if (a.jobs < 1 || !(a.duration_sec > 0.0)) {
    usage("--jobs and --duration must be positive");
  }
  return a;
}

}  // namespace

int main(int argc, char** argv) {
  const Arguments args = parse(argc, argv);
  ::mkdir(args.output_dir.c_str(), 0755);
  // Beyond its own arm time a seed needs start-up, its last motion and the checks.
  const double timeout_sec = args.duration_sec + 120.0;

  CampaignTotals totals;
  std::list<std::unique_ptr<SeedJob>> running;
  uint64_t next = args.first;
  while (next <= args.last || !running.empty()) {
    while (next <= args.last && running.size() < static_cast<size_t>(args.jobs)) {
      CampaignOptions options;
      options.seed = next;
      options.duration_sec = args.duration_sec;
      options.report_always = args.single;
      if (args.single && args.frames) {
        options.frames_csv = args.output_dir + "/seed-" + std::to_string(next) + "-frames.csv";
      }
      const std::string log = args.output_dir + "/seed-" + std::to_string(next) + ".log";
      running.push_back(std::make_unique<SeedJob>(options, log, timeout_sec, kRunsPerSeed));
      ++next;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    for (auto it = running.begin(); it != running.end();) {
      if (!(*it)->finished()) {
        ++it;
        continue;
      }
      const SeedSummary& s = (*it)->summary();
      std::cout << one_line(s) << std::endl;
      if (args.single) {
        std::cout << s.report << "controller log: " << (*it)->log_path() << std::endl;
      } else if (!s.report.empty()) {
        const std::string path = args.output_dir + "/seed-" + std::to_string(s.seed) + ".txt";
        std::ofstream(path) << s.report;
        std::cout << "  reproduction: " << path << std::endl;
      }
      totals.add(s);
      it = running.erase(it);
    }
  }
  totals.print(std::cout);
  return totals.violations() > 0 ? 1 : 0;
}
