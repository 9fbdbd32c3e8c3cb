// Per-call cost of RobotKinematics' KDL-based queries next to the bare KDL solver calls on the
// same chain. The difference is what the model adds: the mutex, the size checks, copying into and
// out of KDL arrays and the returned vector. The control loop pays it every 2.5 ms cycle.
//
// After the runs a table of medians (5 repetitions) and the library/bare ratio is printed.
#include <benchmark/benchmark.h>

#include <cstdio>
#include <kdl/chaindynparam.hpp>
#include <kdl/chainfksolverpos_recursive.hpp>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "kestrel/algorithms/kinematics.hpp"

namespace {

struct Fixture {
  Fixture()
      : fk(model.chain()),
        dyn(model.chain(),
            KDL::Vector(model.gravity().x(), model.gravity().y(), model.gravity().z())) {
    // A handful of postures, cycled, so no call sees the same input twice in a row.
    for (int i = 0; i < 8; ++i) {
      std::vector<double> v(static_cast<std::size_t>(model.num_joints()));
      for (std::size_t j = 0; j < v.size(); ++j) {
        v[j] = 0.1 * static_cast<double>(i + 1) - 0.05 * static_cast<double>(j);
      }
      q.push_back(v);
      KDL::JntArray a(static_cast<unsigned int>(v.size()));
      for (std::size_t j = 0; j < v.size(); ++j) {
        a(static_cast<unsigned int>(j)) = v[j];
      }
      kq.push_back(a);
    }
  }
  RobotKinematics model;
  KDL::ChainFkSolverPos_recursive fk;
  KDL::ChainDynParam dyn;
  std::vector<std::vector<double>> q;
  std::vector<KDL::JntArray> kq;
};

Fixture& fixture() {
  static Fixture f;
  return f;
}

void BM_forwardKinematics_kdl(benchmark::State& state) {
  auto& f = fixture();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.model.forwardKinematics_kdl(f.q[i++ & 7]));
  }
}

void BM_bare_JntToCart(benchmark::State& state) {
  auto& f = fixture();
  KDL::Frame frame;
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.fk.JntToCart(f.kq[i++ & 7], frame));
    benchmark::DoNotOptimize(frame);
  }
}

void BM_gravity_compensation_kdl(benchmark::State& state) {
  auto& f = fixture();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.model.gravity_compensation_kdl(f.q[i++ & 7]));
  }
}

void BM_bare_JntToGravity(benchmark::State& state) {
  auto& f = fixture();
  KDL::JntArray out(static_cast<unsigned int>(f.model.num_joints()));
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.dyn.JntToGravity(f.kq[i++ & 7], out));
    benchmark::DoNotOptimize(out.data.data());
  }
}

void BM_coriolis_compensation_kdl(benchmark::State& state) {
  auto& f = fixture();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.model.coriolis_compensation_kdl(f.q[i & 7], f.q[(i + 3) & 7]));
    ++i;
  }
}

void BM_bare_JntToCoriolis(benchmark::State& state) {
  auto& f = fixture();
  KDL::JntArray out(static_cast<unsigned int>(f.model.num_joints()));
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.dyn.JntToCoriolis(f.kq[i & 7], f.kq[(i + 3) & 7], out));
    benchmark::DoNotOptimize(out.data.data());
    ++i;
  }
}

void BM_inertia_compensation_kdl(benchmark::State& state) {
  auto& f = fixture();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.model.inertia_compensation_kdl(f.q[i & 7], f.q[(i + 5) & 7]));
    ++i;
  }
}

void BM_bare_JntToMass(benchmark::State& state) {
  auto& f = fixture();
  KDL::JntSpaceInertiaMatrix mass(static_cast<unsigned int>(f.model.num_joints()));
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(f.dyn.JntToMass(f.kq[i++ & 7], mass));
    benchmark::DoNotOptimize(mass.data.data());
  }
}

void BM_dynamic_compensation_kdl(benchmark::State& state) {
  auto& f = fixture();
  std::size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        f.model.dynamic_compensation_kdl(f.q[i & 7], f.q[(i + 3) & 7], f.q[(i + 5) & 7]));
    ++i;
  }
}

void BM_bare_mass_coriolis_gravity(benchmark::State& state) {
  auto& f = fixture();
  const auto n = static_cast<unsigned int>(f.model.num_joints());
  KDL::JntSpaceInertiaMatrix mass(n);
  KDL::JntArray coriolis(n);
  KDL::JntArray gravity(n);
  std::size_t i = 0;
  for (auto _ : state) {
    f.dyn.JntToMass(f.kq[i & 7], mass);
    f.dyn.JntToCoriolis(f.kq[i & 7], f.kq[(i + 3) & 7], coriolis);
    f.dyn.JntToGravity(f.kq[i & 7], gravity);
    benchmark::DoNotOptimize(mass.data.data());
    benchmark::DoNotOptimize(coriolis.data.data());
    benchmark::DoNotOptimize(gravity.data.data());
    ++i;
  }
}

#define KESTREL_BENCH(fn)            \
  BENCHMARK(fn)                      \
      ->Unit(benchmark::kNanosecond) \
      ->Repetitions(5)               \
      ->ReportAggregatesOnly(true)   \
      ->MinTime(0.2)

KESTREL_BENCH(BM_forwardKinematics_kdl);
KESTREL_BENCH(BM_bare_JntToCart);
KESTREL_BENCH(BM_gravity_compensation_kdl);
KESTREL_BENCH(BM_bare_JntToGravity);
KESTREL_BENCH(BM_coriolis_compensation_kdl);
KESTREL_BENCH(BM_bare_JntToCoriolis);
KESTREL_BENCH(BM_inertia_compensation_kdl);
KESTREL_BENCH(BM_bare_JntToMass);
KESTREL_BENCH(BM_dynamic_compensation_kdl);
KESTREL_BENCH(BM_bare_mass_coriolis_gravity);

// Console output as usual, plus the medians kept for the summary table.
class MedianRecorder : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const Run& run : runs) {
      if (run.run_type == Run::RT_Aggregate && run.aggregate_name == "median") {
        medians[run.run_name.function_name] = run.GetAdjustedCPUTime();
      }
    }
  }
  std::map<std::string, double> medians;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) {
    return 1;
  }
  fixture();  // build the model before timing starts
  MedianRecorder reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  const std::pair<const char*, const char*> pairs[] = {
      {"BM_forwardKinematics_kdl", "BM_bare_JntToCart"},
      {"BM_gravity_compensation_kdl", "BM_bare_JntToGravity"},
      {"BM_coriolis_compensation_kdl", "BM_bare_JntToCoriolis"},
      {"BM_inertia_compensation_kdl", "BM_bare_JntToMass"},
      {"BM_dynamic_compensation_kdl", "BM_bare_mass_coriolis_gravity"},
  };
  std::printf("\n%-30s %12s %12s %8s\n", "median CPU time per call", "library ns", "bare KDL ns",
              "ratio");
  for (const auto& [library, bare] : pairs) {
    const auto a = reporter.medians.find(library);
    const auto b = reporter.medians.find(bare);
    if (a == reporter.medians.end() || b == reporter.medians.end()) {
      continue;  // filtered out on the command line
    }
    std::printf("%-30s %12.1f %12.1f %8.2f\n", library + 3, a->second, b->second,
                a->second / b->second);
  }
  return 0;
}
