// The safety sections reader on arbitrary files: either std::runtime_error (yaml-cpp's errors
// included) or a configuration that satisfies every rule the reader validates.
#include <stdexcept>

#include "fuzz_support.hpp"
#include "kestrel/algorithms/safety_config.hpp"

using namespace kestrel::algorithms;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const auto read = kestrel::fuzz::attempt(
      [&] { return read_safety_config(kestrel::fuzz::write_scratch(data, size)); });
  if (!read) {
    return 0;
  }
  const SafetyConfig& c = *read;
  const auto& sp = c.singularity_protection;
  const auto& ts = c.trajectory_safety;
  const auto& sc = c.self_collision;
  FUZZ_CHECK(sp.jacobian_angular_scale_m > 0.0);
  FUZZ_CHECK(sp.yellow_min_speed_scale > 0.0 && sp.yellow_min_speed_scale <= 1.0);
  FUZZ_CHECK(ts.tracking_error_stop_cycles >= 1);
  FUZZ_CHECK(ts.velocity_stop_scale >= ts.velocity_warn_scale);
  FUZZ_CHECK(ts.acceleration_stop_scale >= ts.acceleration_warn_scale);
  FUZZ_CHECK(ts.jerk_stop_scale >= ts.jerk_warn_scale);
  FUZZ_CHECK(sc.warn_distance_m >= sc.stop_distance_m);
  for (const auto& body : sc.bodies) {
    FUZZ_CHECK(!body.name.empty() && !body.link.empty());
    if (body.type == "capsule") {
      FUZZ_CHECK(body.radius > 0.0);
    } else {
      FUZZ_CHECK(body.type == "box");
      FUZZ_CHECK(body.size[0] > 0.0 && body.size[1] > 0.0 && body.size[2] > 0.0);
    }
  }
  return 0;
}
