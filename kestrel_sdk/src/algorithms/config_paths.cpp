#include "kestrel/algorithms/config_paths.hpp"

#include <dlfcn.h>
#include <yaml-cpp/yaml.h>

#include <sstream>
#include <stdexcept>
#include <system_error>

namespace kestrel::algorithms {
namespace {

constexpr const char* kConfigFileName = "robot_kinematics.yaml";
constexpr const char* kUrdfFileName = "OspreyArm.SLDASM.urdf";

// The file that holds this library, as the dynamic loader reports it (not canonicalised: the
// error text names it exactly as it was loaded).
std::filesystem::path library_file_path() {
  Dl_info info{};
  // Any function of this library identifies its file; the resolver itself is as good as any.
  const auto anchor = &resolve_robot_kinematics_config_path;
  if (dladdr(reinterpret_cast<const void*>(anchor), &info) == 0 || info.dli_fname == nullptr ||
      info.dli_fname[0] == '\0') {
    throw std::runtime_error("Failed to resolve libkestrel.so path via dladdr().");
  }
  return std::filesystem::path(info.dli_fname);
}

std::filesystem::path find_config_file(const std::string& file_name) {
  const std::filesystem::path library_path = library_file_path();
  const std::filesystem::path library_dir = library_path.parent_path();
  const std::filesystem::path current_dir = std::filesystem::current_path();

  std::vector<std::filesystem::path> candidates;
  candidates.reserve(32);
  detail::append_sdk_config_candidates(candidates, library_dir, file_name);
  detail::append_sdk_config_candidates(candidates, current_dir, file_name);

  for (const auto& candidate : candidates) {
    if (candidate.empty()) {
      continue;
    }
    std::error_code ec;
    if (std::filesystem::exists(std::filesystem::status(candidate, ec))) {
      return std::filesystem::canonical(candidate);
    }
  }

  std::ostringstream message;
  message << "Failed to locate config file '" << file_name << "'. "
          << "Only kestrel_sdk/src/config is supported. "
          << "Checked relative to library path " << library_path << " and current path "
          << current_dir << ". Maintain the single source of truth at "
          << "kestrel_sdk/src/config/" << file_name << ".";
  throw std::runtime_error(message.str());
}

}  // namespace

namespace detail {

void append_sdk_config_candidates(std::vector<std::filesystem::path>& out,
                                  const std::filesystem::path& base, const std::string& file_name) {
  std::filesystem::path current = base;
  while (!current.empty()) {
    const std::filesystem::path name = current.filename();
    if (name == "src" && current.parent_path().filename() == "kestrel_sdk") {
      out.push_back(current / "config" / file_name);
    }
    if (name == "kestrel_sdk") {
      out.push_back(current / "src" / "config" / file_name);
    }
    out.push_back(current / "kestrel_sdk" / "src" / "config" / file_name);
    if (current == current.root_path()) {
      break;
    }
    current = current.parent_path();
  }
}

}  // namespace detail

std::string resolve_robot_kinematics_config_path() {
  return find_config_file(kConfigFileName).string();
}

std::string resolve_robot_urdf_path() {
  return find_config_file(kUrdfFileName).string();
}

bool read_logging_bool(const std::string& config_path, const char* key, bool default_value) {
  try {
    const YAML::Node root = YAML::LoadFile(config_path);
    const YAML::Node logging = root["logging"];
    if (!logging.IsDefined()) {
      return default_value;
    }
    const YAML::Node value = logging[key];
    if (!value.IsDefined()) {
      return default_value;
    }
    return value.as<bool>();
  } catch (const YAML::Exception& e) {
    throw std::runtime_error(std::string("Failed to read logging.") + key + " at " + config_path +
                             ": " + e.what());
  }
}

bool read_logging_bool(const char* key, bool default_value) {
  return read_logging_bool(resolve_robot_kinematics_config_path(), key, default_value);
}

bool motion_planning_debug_enabled() {
  static const bool enabled = read_logging_bool("motion_planning_debug", false);
  return enabled;
}

bool ik_diagnostics_debug_enabled() {
  static const bool enabled = read_logging_bool("ik_diagnostics", false);
  return enabled;
}

std::vector<double> read_double_sequence(const YAML::Node& node, const std::string& name) {
  if (!node.IsDefined() || !node.IsSequence()) {
    throw std::runtime_error(name + " must be a YAML sequence");
  }
  std::vector<double> values;
  values.reserve(node.size());
  for (const YAML::Node& element : node) {
    values.push_back(element.as<double>());
  }
  return values;
}

}  // namespace kestrel::algorithms
