// The motion-program reader on arbitrary text: a std::runtime_error that names the file, or a
// program whose every step is one the controller can be handed as it stands.
#include <algorithm>
#include <cmath>
#include <stdexcept>
#include <string>

#include "fuzz_support.hpp"
#include "program_file.hpp"

using kestrel::cli::ProgramStep;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  kestrel::cli::Program program;
  try {
    program = kestrel::cli::parse_program(text, "fuzz.yaml");
  } catch (const std::runtime_error& e) {
    FUZZ_CHECK(std::string(e.what()).rfind("fuzz.yaml:", 0) == 0);
    return 0;
  }
  FUZZ_CHECK(!program.steps.empty());
  for (const ProgramStep& step : program.steps) {
    FUZZ_CHECK(step.line >= 1);
    if (step.kind == ProgramStep::Kind::gripper) {
      FUZZ_CHECK(step.gripper_position >= 0.0 && step.gripper_position <= 1.0);
      continue;
    }
    const auto& item = step.motion;
    if (item.type == "sleep") {
      FUZZ_CHECK(std::isfinite(item.sleep_sec) && item.sleep_sec >= 0.0);
      continue;
    }
    FUZZ_CHECK(item.type == "movej" || item.type == "movel" || item.type == "movep");
    const auto& targets = item.type == "movej" ? item.waypoints : item.poses;
    FUZZ_CHECK(!targets.empty());
    for (const auto& target : targets) {
      FUZZ_CHECK(target.size() == 6 && std::all_of(target.begin(), target.end(),
                                                   [](double v) { return std::isfinite(v); }));
    }
    FUZZ_CHECK(item.time_sec <= 0.0 || item.speed_percent <= 0.0);
    FUZZ_CHECK(std::isfinite(item.time_sec) && std::isfinite(item.speed_percent));
    FUZZ_CHECK(item.speed_percent <= 1.0);
    FUZZ_CHECK(std::isfinite(item.blend_radius_m) && item.blend_radius_m >= 0.0);
  }
  return 0;
}
