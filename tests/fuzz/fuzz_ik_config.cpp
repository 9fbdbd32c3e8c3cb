// The ik_solver and ik_fallback readers on arbitrary files: either std::runtime_error or a
// configuration inside every limit the readers validate.
#include <algorithm>
#include <stdexcept>

#include "fuzz_support.hpp"
#include "kestrel/algorithms/ik_config.hpp"

using namespace kestrel::algorithms;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = kestrel::fuzz::write_scratch(data, size);
  if (const auto c = kestrel::fuzz::attempt([&] { return read_ik_solver_config(path); })) {
    FUZZ_CHECK(c->mode == "fast" || c->mode == "kdl" || c->mode == "kdl_with_approx_fallback");
    FUZZ_CHECK(c->position_tolerance_m > 0.0 && c->orientation_tolerance_rad > 0.0);
    FUZZ_CHECK(c->max_fast_iterations >= 0 && c->max_residual_search_iterations >= 0);
    FUZZ_CHECK(c->damping >= 0.0 && c->max_joint_step_rad > 0.0);
    FUZZ_CHECK(c->max_joint_delta_time_sec >= 0.0);
    const auto& speeds = c->max_joint_velocity_rad_s;
    FUZZ_CHECK(std::all_of(speeds.begin(), speeds.end(), [](double v) { return v > 0.0; }));
  }
  if (const auto c = kestrel::fuzz::attempt([&] { return read_ik_fallback_config(path); })) {
    FUZZ_CHECK(c->position_tolerance_m >= 0.0 && c->max_time_ms >= 0.0);
  }
  return 0;
}
