// Where the library's configuration lives, and the two logging switches of its `logging` section.
//
// "robot_kinematics.yaml" and "OspreyArm.SLDASM.urdf" are read from exactly one place: a
// "kestrel_sdk/src/config" directory found above the library's own file (first) or above the
// process's current directory. There is no environment override and no built-in fallback: a
// missing file is an error, so that one copy of the tuning stays the single source of truth.
#pragma once

#include <filesystem>
#include <string>
#include <vector>

namespace YAML {
class Node;
}

namespace kestrel::algorithms {

// Canonical path of "robot_kinematics.yaml". Throws std::runtime_error when it cannot be found.
std::string resolve_robot_kinematics_config_path();

// Canonical path of "OspreyArm.SLDASM.urdf". Throws std::runtime_error when it cannot be found.
std::string resolve_robot_urdf_path();

// `logging.<key>` of the configuration file as a boolean, `default_value` when the section or the
// key is absent. yaml-cpp failures (unreadable file, parse error, not a boolean) are rethrown as
// std::runtime_error "Failed to read logging.<key> at <path>: <yaml-cpp text>".
bool read_logging_bool(const char* key, bool default_value);

// Same, for an explicitly named file (the search above is skipped).
bool read_logging_bool(const std::string& config_path, const char* key, bool default_value);

// `logging.motion_planning_debug` and `logging.ik_diagnostics`, default false. Each is read once
// per process; a failed first read throws and leaves the switch unread, so the next call retries.
bool motion_planning_debug_enabled();
bool ik_diagnostics_debug_enabled();

// A YAML sequence of numbers. Throws std::runtime_error "<name> must be a YAML sequence" when the
// node is missing or not a sequence; a non-numeric element raises yaml-cpp's conversion error
// (callers wrap it with their own context). No length is imposed.
std::vector<double> read_double_sequence(const YAML::Node& node, const std::string& name);

namespace detail {

// Candidate locations of `file_name` derived from one starting directory, nearest first, walking
// up to the file-system root. Per level: "<dir>/config/<file>" when the level is
// ".../kestrel_sdk/src", "<dir>/src/config/<file>" when it is ".../kestrel_sdk", and always
// "<dir>/kestrel_sdk/src/config/<file>". Nothing is tested for existence.
void append_sdk_config_candidates(std::vector<std::filesystem::path>& out,
                                  const std::filesystem::path& base, const std::string& file_name);

}  // namespace detail
}  // namespace kestrel::algorithms
