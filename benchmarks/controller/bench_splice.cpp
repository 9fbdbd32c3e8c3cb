// The online splice beside the waypoint planner, without a controller: time per splice
// transition, per chunk planned from a running state (transition and segments), and per chunk
// planned from rest, over random running states and chunks. Safety checks are not included.
// Prints the median and the worst of each.
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <random>
#include <stdexcept>
#include <vector>

#include "kestrel/controller/joint_splice.hpp"
#include "kestrel/controller/joint_waypoint_planner.hpp"

namespace {

using namespace kestrel::controller;
using Clock = std::chrono::steady_clock;

// The shipped arm's joint_trajectory limits.
const JointLimits kLimits = {{2.0, 2.0, 2.5, 4.0, 4.0, 5.0},
                             {4.0, 4.0, 6.0, 12.0, 12.0, 15.0},
                             {80.0, 80.0, 100.0, 300.0, 300.0, 300.0}};
const JointArray kHome = {0.0, 0.4, -0.9, 0.0, -0.6, 0.0};

struct Figures {
  double median_us = 0.0;
  double p99_us = 0.0;
  double worst_us = 0.0;
};

Figures summarise(std::vector<double> us) {
  std::sort(us.begin(), us.end());
  return {us[us.size() / 2], us[us.size() * 99 / 100], us.back()};
}

}  // namespace

int main() {
  constexpr int kTrials = 20000;
  std::mt19937 rng(2024);
  std::uniform_real_distribution<double> unit(-1.0, 1.0);
  std::uniform_real_distribution<double> fraction(0.02, 1.0);

  WaypointPlanSettings settings;
  settings.configuration_limits = kLimits;
  const JointWaypointPlanner planner(settings);
  const JointSplice splice(kLimits, 0.0025);

  std::vector<double> transition_us, spliced_us, rest_us;
  double samples = 0.0;
  double samples_planned = 0.0;
  int refused = 0;
  for (int trial = 0; trial < kTrials; ++trial) {
    WaypointPlanRequest r;
    for (int j = 0; j < 6; ++j) {
      r.start.position[j] = kHome[j] + 0.3 * unit(rng);
      r.start.velocity[j] = 0.8 * kLimits.velocity[j] * unit(rng);
      r.start.acceleration[j] = kLimits.acceleration[j] * unit(rng);
    }
    const int count = 1 + trial % 3;
    for (int k = 0; k < count; ++k) {
      JointArray w = kHome;
      for (int j = 0; j < 6; ++j) {
        w[j] += 0.5 * unit(rng);
      }
      r.waypoints.push_back(w);
    }
    const bool timed = trial % 2 == 1;
    r.limits = kLimits;
    if (!timed) {
      const double speed = fraction(rng);
      for (double& v : r.limits.velocity) {
        v *= speed;
      }
    }
    r.time_sec = timed ? 1.0 + 3.0 * fraction(rng) : 0.0;

    auto t0 = Clock::now();
    const JointArray entry =
        splice.entry_velocity(r.start, r.waypoints.front(), r.limits.velocity, 1.0);
    const SpliceTransition t = splice.plan(r.start, entry);
    auto t1 = Clock::now();
    transition_us.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
    samples += static_cast<double>(t.steps);

    try {
      t0 = Clock::now();
      const WaypointPlan plan = planner.plan(r);
      samples_planned += static_cast<double>(plan.samples.size());
      t1 = Clock::now();
      spliced_us.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
      r.start.velocity = {};
      r.start.acceleration = {};
      t0 = Clock::now();
      planner.plan(r);
      t1 = Clock::now();
      rest_us.push_back(std::chrono::duration<double, std::micro>(t1 - t0).count());
    } catch (const std::runtime_error&) {
      ++refused;  // a time too short for the chunk's distance
    }
  }
  // The case that once planned for 50 s and grew to 5 GB: joint 1 running at 0.57 rad/s, then
  // a chunk at the default speed (0.1) to 0.9 rad.
  WaypointPlanRequest slow_chunk;
  slow_chunk.start.position = kHome;
  slow_chunk.start.position[0] = 0.3;
  slow_chunk.start.velocity[0] = 0.57;
  slow_chunk.waypoints = {{0.9, 0.4, -0.9, 0.0, -0.6, 0.0}};
  slow_chunk.limits = kLimits;
  for (double& v : slow_chunk.limits.velocity) {
    v *= 0.1;
  }
  std::vector<double> slow_chunk_us;
  WaypointPlan slow_plan;
  for (int i = 0; i < 200; ++i) {
    const auto t0 = Clock::now();
    slow_plan = planner.plan(slow_chunk);
    slow_chunk_us.push_back(std::chrono::duration<double, std::micro>(Clock::now() - t0).count());
  }

  const Figures transition = summarise(transition_us);
  const Figures spliced = summarise(spliced_us);
  const Figures rest = summarise(rest_us);
  std::printf("%d random running states and chunks (1-3 waypoints, speed or time mode)\n", kTrials);
  std::printf("%-44s %10s %10s %10s\n", "", "median us", "p99 us", "worst us");
  auto row = [](const char* name, const Figures& f) {
    std::printf("%-44s %10.2f %10.2f %10.2f\n", name, f.median_us, f.p99_us, f.worst_us);
  };
  row("splice transition only", transition);
  row("chunk from a running state (splice + plan)", spliced);
  row("the same chunk from rest (plan)", rest);
  std::printf("ratio of medians, running state / rest: %.2f\n", spliced.median_us / rest.median_us);
  const Figures slow = summarise(slow_chunk_us);
  std::printf(
      "joint 1 at 0.57 rad/s, chunk at speed 0.1 to 0.9 rad: %.1f us median, %.1f us "
      "worst; %.2f s of motion (%.3f s transition), %zu samples\n",
      slow.median_us, slow.worst_us, slow_plan.duration(),
      static_cast<double>(slow_plan.transition_steps) / 400.0, slow_plan.samples.size());
  std::printf(
      "mean transition: %.1f periods; mean chunk: %.0f samples; %d timed chunks too short "
      "for their distance\n",
      samples / kTrials, samples_planned / static_cast<double>(spliced_us.size()), refused);
  return 0;
}
