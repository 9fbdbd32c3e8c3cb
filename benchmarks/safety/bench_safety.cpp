// Cost of the planning-time safety checks on the shipped arm and configuration: per sample for
// each check, and all three over a 10-second timeline at the 400 Hz control rate, which is what the
// planner pays before a motion of that length may start.
//
// The timeline sweeps smoothly through working postures (forward, side, high, low over a table,
// folded), so every check does its full work on every sample and none stops early. Per-sample
// figures are the "items_per_second" counters (one item = one sample).
#include <benchmark/benchmark.h>

#include <array>
#include <cmath>
#include <cstdio>
#include <vector>

#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/algorithms/safety_config.hpp"
#include "kestrel/algorithms/singularity.hpp"
#include "kestrel/algorithms/trajectory_safety.hpp"

namespace {

using kestrel::algorithms::WaypointTrajectorySample;

constexpr double kControlHz = 400.0;
constexpr double kTimelineSec = 10.0;

struct Fixture {
  Fixture()
      : config(kestrel::algorithms::read_safety_config(
            kestrel::algorithms::resolve_robot_kinematics_config_path())) {
    config.self_collision.enabled = true;  // measured whatever the shipped switch says
    const std::vector<std::array<double, 6>> postures = {
        {0.0, -0.3, 0.35, 0.0, -0.25, 0.0},   // folded
        {0.0, 0.6, -0.28, 0.0, -0.32, 0.0},   // forward
        {1.4, 0.6, -0.28, 0.0, -0.32, 0.0},   // side
        {0.0, 0.0, -1.0, 0.0, -0.57, 0.0},    // high
        {-0.9, 0.9, -0.46, 0.0, -0.44, 0.8},  // low over a table
        {0.0, -0.3, 0.35, 0.0, -0.25, 0.0},   // folded again
    };
    const auto count = static_cast<std::size_t>(kTimelineSec * kControlHz);
    const std::size_t legs = postures.size() - 1;
    for (std::size_t i = 0; i < count; ++i) {
      const double t = static_cast<double>(i) / static_cast<double>(count - 1) * legs;
      const std::size_t leg = std::min(static_cast<std::size_t>(t), legs - 1);
      const double u = t - static_cast<double>(leg);
      const double s = u * u * u * (10.0 - 15.0 * u + 6.0 * u * u);  // rest to rest
      WaypointTrajectorySample sample;
      for (int j = 0; j < 6; ++j) {
        sample.position[j] = postures[leg][j] + s * (postures[leg + 1][j] - postures[leg][j]);
      }
      timeline.push_back(sample);
    }
  }

  RobotKinematics model;
  kestrel::algorithms::SafetyConfig config;
  std::vector<WaypointTrajectorySample> timeline;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void report(benchmark::State& state, std::size_t samples) {
  state.SetItemsProcessed(static_cast<int64_t>(state.iterations()) * static_cast<int64_t>(samples));
}

void BM_joint_limit_margins(benchmark::State& state) {
  auto& f = fixture();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kestrel::algorithms::check_joint_limit_margins(
        f.timeline, f.model.joint_lower_limits(), f.model.joint_upper_limits(),
        f.model.joint_has_limits(), f.config.trajectory_safety));
  }
  report(state, f.timeline.size());
}

void BM_self_collision(benchmark::State& state) {
  auto& f = fixture();
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        kestrel::algorithms::check_self_collision(f.model, f.timeline, f.config.self_collision));
  }
  report(state, f.timeline.size());
}

void BM_singularity(benchmark::State& state) {
  auto& f = fixture();
  for (auto _ : state) {
    benchmark::DoNotOptimize(kestrel::algorithms::assess_singularity(
        f.model, f.timeline, f.config.singularity_protection));
  }
  report(state, f.timeline.size());
}

// What the planner runs on a finished plan: the three checks in its order, then the merge.
void BM_timeline_10s_all_checks(benchmark::State& state) {
  auto& f = fixture();
  for (auto _ : state) {
    std::vector<kestrel::algorithms::SafetyResult> results;
    results.push_back(kestrel::algorithms::check_joint_limit_margins(
        f.timeline, f.model.joint_lower_limits(), f.model.joint_upper_limits(),
        f.model.joint_has_limits(), f.config.trajectory_safety));
    results.push_back(kestrel::algorithms::assess_singularity(f.model, f.timeline,
                                                              f.config.singularity_protection));
    results.push_back(
        kestrel::algorithms::check_self_collision(f.model, f.timeline, f.config.self_collision));
    benchmark::DoNotOptimize(kestrel::algorithms::combine_safety_results(results));
  }
  report(state, f.timeline.size());
}

// The same timeline must pass every check, or the figures above would be of a check that
// stopped early.
bool verify_timeline() {
  auto& f = fixture();
  const auto verdict = kestrel::algorithms::combine_safety_results(
      {kestrel::algorithms::check_joint_limit_margins(
           f.timeline, f.model.joint_lower_limits(), f.model.joint_upper_limits(),
           f.model.joint_has_limits(), f.config.trajectory_safety),
       kestrel::algorithms::assess_singularity(f.model, f.timeline,
                                               f.config.singularity_protection),
       kestrel::algorithms::check_self_collision(f.model, f.timeline, f.config.self_collision)});
  std::printf("timeline: %zu samples (%.1f s at %.0f Hz), verdict: %s\n", f.timeline.size(),
              kTimelineSec, kControlHz,
              verdict.level == kestrel::algorithms::SafetyLevel::ok
                  ? "ok"
                  : kestrel::algorithms::format_safety_result(verdict).c_str());
  return verdict.level == kestrel::algorithms::SafetyLevel::ok;
}

}  // namespace

BENCHMARK(BM_joint_limit_margins)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_self_collision)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_singularity)->Unit(benchmark::kMillisecond);
BENCHMARK(BM_timeline_10s_all_checks)->Unit(benchmark::kMillisecond);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  if (!verify_timeline()) {
    std::fprintf(stderr, "bench_safety: the timeline must pass every check\n");
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  return 0;
}
