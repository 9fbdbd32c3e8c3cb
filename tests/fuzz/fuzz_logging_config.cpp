// The logging switches on arbitrary files: std::runtime_error, the caller's default when the
// key is absent, and otherwise the file's own value whatever the default.
#include <yaml-cpp/yaml.h>

#include <optional>
#include <stdexcept>

#include "fuzz_support.hpp"
#include "kestrel/algorithms/config_paths.hpp"

using kestrel::algorithms::read_logging_bool;
using kestrel::fuzz::attempt;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = kestrel::fuzz::write_scratch(data, size);
  for (const char* key : {"motion_planning_debug", "ik_diagnostics"}) {
    const auto with_false = attempt([&] { return read_logging_bool(path, key, false); });
    const auto with_true = attempt([&] { return read_logging_bool(path, key, true); });
    FUZZ_CHECK(with_false.has_value() == with_true.has_value());
    if (!with_false) {
      continue;
    }
    bool present = false;
    try {
      const YAML::Node root = YAML::LoadFile(path);
      present = root["logging"].IsDefined() && root["logging"][key].IsDefined();
    } catch (const YAML::Exception&) {
      FUZZ_CHECK(!"the file read once cannot fail to parse the second time");
    }
    FUZZ_CHECK(present ? *with_false == *with_true : !*with_false && *with_true);
  }
  return 0;
}
