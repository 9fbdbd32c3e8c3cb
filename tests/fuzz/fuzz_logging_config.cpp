// The logging switches on arbitrary files: std::runtime_error, the caller's default when the
// key is absent, and otherwise the file's own value whatever the default.
#include <yaml-cpp/yaml.h>

#include <optional>
#include <stdexcept>

#include "fuzz_support.hpp"
#include "kestrel/algorithms/config_paths.hpp"

using kestrel::algorithms::read_logging_bool;

namespace {

std::optional<bool> read(const std::string& path, const char* key, bool fallback) {
  try {
    return read_logging_bool(path, key, fallback);
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string& path = kestrel::fuzz::write_scratch(data, size);
  for (const char* key : {"motion_planning_debug", "ik_diagnostics"}) {
    const std::optional<bool> with_false = read(path, key, false);
    const std::optional<bool> with_true = read(path, key, true);
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
    if (present) {
      FUZZ_CHECK(*with_false == *with_true);
    } else {
      FUZZ_CHECK(!*with_false && *with_true);
    }
  }
  return 0;
}
