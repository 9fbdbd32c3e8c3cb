// Per-call cost of the generated regressor next to KDL's inverse dynamics on the same states:
// Y alone, Y·π (the regressor and a 360-term product: the same torques KDL computes), and
// RobotKinematics::dynamic_compensation_kdl. Medians of 5 repetitions are printed at the end.
#include <benchmark/benchmark.h>

#include <array>
#include <cstdio>
#include <map>
#include <random>
#include <string>
#include <vector>

#include "kestrel/algorithms/kinematics.hpp"
#include "kestrel/algorithms/standard_regressor.hpp"

namespace {

struct States {
  States() : pi(kestrel::algorithms::standard_inertial_parameters(model)) {
    std::mt19937 rng(1);
    std::uniform_real_distribution<double> u(-1.0, 1.0);
    for (int k = 0; k < 16; ++k) {
      std::vector<double> a(6), b(6), c(6);
      for (int j = 0; j < 6; ++j) {
        a[j] = u(rng);
        b[j] = 2.0 * u(rng);
        c[j] = 5.0 * u(rng);
      }
      q.push_back(a);
      dq.push_back(b);
      ddq.push_back(c);
    }
  }
  RobotKinematics model;
  std::array<double, 60> pi;
  std::vector<std::vector<double>> q, dq, ddq;
};

States& states() {
  static States s;
  return s;
}

void BM_Regressor(benchmark::State& st) {
  auto& s = states();
  std::array<double, 360> Y{};
  size_t i = 0;
  for (auto _ : st) {
    const size_t k = i++ % s.q.size();
    kestrel::algorithms::standard_regressor(s.q[k].data(), s.dq[k].data(), s.ddq[k].data(),
                                            Y.data());
    benchmark::DoNotOptimize(Y.data());
  }
}

void BM_RegressorTimesParameters(benchmark::State& st) {
  auto& s = states();
  std::array<double, 360> Y{};
  size_t i = 0;
  for (auto _ : st) {
    const size_t k = i++ % s.q.size();
    kestrel::algorithms::standard_regressor(s.q[k].data(), s.dq[k].data(), s.ddq[k].data(),
                                            Y.data());
    std::array<double, 6> tau{};
    for (int r = 0; r < 6; ++r) {
      for (int c = 0; c < 60; ++c) {
        tau[r] += Y[60 * r + c] * s.pi[c];
      }
    }
    benchmark::DoNotOptimize(tau.data());
  }
}

void BM_DynamicCompensationKdl(benchmark::State& st) {
  auto& s = states();
  size_t i = 0;
  for (auto _ : st) {
    const size_t k = i++ % s.q.size();
    auto tau = s.model.dynamic_compensation_kdl(s.q[k], s.dq[k], s.ddq[k]);
    benchmark::DoNotOptimize(tau.data());
  }
}

BENCHMARK(BM_Regressor)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_RegressorTimesParameters)->Repetitions(5)->ReportAggregatesOnly(true);
BENCHMARK(BM_DynamicCompensationKdl)->Repetitions(5)->ReportAggregatesOnly(true);

class MedianTable : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& r : runs) {
      if (r.aggregate_name == "median") {
        medians_[r.run_name.function_name] = r.GetAdjustedRealTime();
      }
    }
  }
  void Finalize() override {
    ConsoleReporter::Finalize();
    const double kdl = medians_["BM_DynamicCompensationKdl"];
    std::printf("\n%-34s %12s %10s\n", "per call (median of 5)", "ns", "vs KDL");
    for (const char* name :
         {"BM_Regressor", "BM_RegressorTimesParameters", "BM_DynamicCompensationKdl"}) {
      std::printf("%-34s %12.0f %10.2f\n", name, medians_[name], medians_[name] / kdl);
    }
  }

 private:
  std::map<std::string, double> medians_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  MedianTable reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  return 0;
}
