// The C++ side of binding_overhead.py: the same state queries on the same simulated arm, timed
// the same way (the mean of 1000 back-to-back calls, median over 200 batches), in ns per call,
// one "timing NAME NS" line each (the library writes its own lines to standard output too).
//   usage: kestrel-python-call-reference INTERFACE
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "kestrel/controller/interfaces.hpp"

namespace {

constexpr int kCallsPerBatch = 1000;
constexpr int kBatches = 200;

template <typename Call>
double median_ns_per_call(Call&& call) {
  std::vector<double> batches;
  for (int b = 0; b < kBatches; ++b) {
    const auto start = std::chrono::steady_clock::now();
    for (int i = 0; i < kCallsPerBatch; ++i) {
      call();
    }
    const std::chrono::duration<double, std::nano> elapsed =
        std::chrono::steady_clock::now() - start;
    batches.push_back(elapsed.count() / kCallsPerBatch);
  }
  std::nth_element(batches.begin(), batches.begin() + kBatches / 2, batches.end());
  return batches[kBatches / 2];
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: %s INTERFACE\n", argv[0]);
    return 2;
  }
  ArmController arm(true, argv[1], false, MIT_MODE, false);
  while (arm.get_joint().empty()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  volatile double sink = 0.0;  // keeps the calls from being optimised away
  std::printf("timing get_joint %.1f\n",
              median_ns_per_call([&] { sink = sink + arm.get_joint()[0]; }));
  std::printf("timing get_gripper_position %.1f\n",
              median_ns_per_call([&] { sink = sink + arm.get_gripper_position(); }));
  std::printf("timing get_control_cycle_sample %.1f\n", median_ns_per_call([&] {
                sink = sink + static_cast<double>(arm.get_control_cycle_sample().cycle);
              }));
  return 0;
}
