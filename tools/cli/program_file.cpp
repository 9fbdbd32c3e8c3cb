#include "program_file.hpp"

#include <yaml-cpp/yaml.h>

#include <cmath>
#include <fstream>
#include <sstream>
#include <stdexcept>

namespace kestrel::cli {

namespace {

constexpr double kPi = 3.14159265358979323846;

struct StepError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

double finite(const YAML::Node& node, const std::string& what) {
  double value = 0.0;
  try {
    value = node.as<double>();
  } catch (const YAML::Exception&) {
    throw StepError(what + " must be a number, not \"" +
                    (node.IsScalar() ? node.Scalar() : "a list") + "\"");
  }
  if (!std::isfinite(value)) {
    throw StepError(what + " must be finite");
  }
  return value;
}

// One posture or pose: `count` numbers, the angles among them converted to radians.
std::vector<double> vector_of(const YAML::Node& node, size_t count, const std::string& what,
                              size_t first_angle, double angle_scale) {
  if (!node.IsSequence() || node.size() != count) {
    throw StepError(what + " must be a list of " + std::to_string(count) + " numbers");
  }
  std::vector<double> out;
  for (size_t i = 0; i < count; ++i) {
    out.push_back(finite(node[i], what + " value " + std::to_string(i + 1)) *
                  (i >= first_angle ? angle_scale : 1.0));
  }
  return out;
}

// "to: [...]" (one target) or "waypoints:"/"poses:" (a list of them).
std::vector<std::vector<double>> targets_of(const YAML::Node& step, const char* list_key,
                                            size_t count, size_t first_angle, double scale) {
  const bool has_to = step["to"].IsDefined();
  const bool has_list = step[list_key].IsDefined();
  if (has_to == has_list) {
    throw StepError(std::string("give either to: (one target) or ") + list_key +
                    ": (a list of targets)");
  }
  std::vector<std::vector<double>> out;
  if (has_to) {
    out.push_back(vector_of(step["to"], count, "to", first_angle, scale));
    return out;
  }
  const YAML::Node list = step[list_key];
  if (!list.IsSequence() || list.size() == 0) {
    throw StepError(std::string(list_key) + " must be a non-empty list");
  }
  for (size_t i = 0; i < list.size(); ++i) {
    out.push_back(vector_of(list[i], count,
                            std::string(list_key) + " entry " + std::to_string(i + 1), first_angle,
                            scale));
  }
  return out;
}

// A map key as text. YAML lets a list or a map be a key; no key of a program is one.
std::string key_of(const YAML::Node& key) {
  if (!key.IsScalar()) {
    throw StepError("a key must be a word, not a list or a map");
  }
  return key.Scalar();
}

void check_keys(const YAML::Node& step, std::initializer_list<const char*> allowed) {
  for (const auto& entry : step) {
    const std::string key = key_of(entry.first);
    bool known = false;
    for (const char* a : allowed) {
      known = known || key == a;
    }
    if (!known) {
      std::string list;
      for (const char* a : allowed) {
        list += list.empty() ? a : std::string(", ") + a;
      }
      throw StepError("unknown key \"" + key + "\" (expected " + list + ")");
    }
  }
}

void read_timing(const YAML::Node& step, ArmController::MotionProgramItem& item) {
  if (step["time_sec"]) {
    item.time_sec = finite(step["time_sec"], "time_sec");
    if (item.time_sec <= 0.0) {
      throw StepError("time_sec must be positive");
    }
  }
  if (step["speed_percent"]) {
    item.speed_percent = finite(step["speed_percent"], "speed_percent");
    if (item.speed_percent <= 0.0 || item.speed_percent > 1.0) {
      throw StepError("speed_percent must be in (0, 1] (a fraction of the speed limits)");
    }
  }
  if (item.time_sec > 0.0 && item.speed_percent > 0.0) {
    throw StepError("give time_sec or speed_percent, not both");
  }
}

ProgramStep parse_step(const YAML::Node& node, double scale) {
  if (!node.IsMap() || node.size() != 1) {
    throw StepError("a step is a map with one key: movej, movel, movep, sleep or gripper");
  }
  const std::string kind = key_of(node.begin()->first);
  const YAML::Node body = node.begin()->second;
  ProgramStep step;
  auto& item = step.motion;
  if (kind == "sleep") {
    item.type = "sleep";
    item.sleep_sec = finite(body, "sleep");
    if (item.sleep_sec < 0.0) {
      throw StepError("sleep must be a non-negative number of seconds");
    }
  } else if (kind == "gripper") {
    step.kind = ProgramStep::Kind::gripper;
    const std::string word = body.IsScalar() ? body.Scalar() : "";
    if (word == "open") {
      step.gripper_position = 1.0;
    } else if (word == "close") {
      step.gripper_position = 0.0;
    } else {
      step.gripper_position = finite(body, "gripper");
      if (step.gripper_position < 0.0 || step.gripper_position > 1.0) {
        throw StepError("gripper must be open, close or a fraction in [0, 1]");
      }
    }
  } else if (kind == "movej" || kind == "movel" || kind == "movep") {
    if (!body.IsMap()) {
      throw StepError(kind + " needs a map of settings (to:, time_sec:, ...)");
    }
    item.type = kind;
    if (kind == "movej") {
      check_keys(body, {"to", "waypoints", "time_sec", "speed_percent"});
      item.waypoints = targets_of(body, "waypoints", 6, 0, scale);
    } else {
      check_keys(body, {"to", "poses", "time_sec", "speed_percent", "blend_radius_m"});
      item.poses = targets_of(body, "poses", 6, 3, scale);
      item.blend_radius_m = 0.0;
      if (body["blend_radius_m"]) {
        item.blend_radius_m = finite(body["blend_radius_m"], "blend_radius_m");
        if (item.blend_radius_m < 0.0) {
          throw StepError("blend_radius_m must be non-negative");
        }
      }
    }
    read_timing(body, item);
  } else {
    throw StepError("unknown step \"" + kind +
                    "\" (expected movej, movel, movep, sleep or gripper)");
  }
  return step;
}

}  // namespace

Program parse_program(const std::string& text, const std::string& name) {
  YAML::Node root;
  try {
    root = YAML::Load(text);
  } catch (const YAML::Exception& e) {
    throw std::runtime_error(name + ": not valid YAML: " + e.what());
  }
  if (!root.IsMap() || !root["steps"]) {
    throw std::runtime_error(name + ": expected a map with a \"steps:\" list");
  }
  double scale = 1.0;
  if (const auto unit = root["angle_unit"]) {
    const std::string u = unit.IsScalar() ? unit.Scalar() : "";
    if (u == "deg") {
      scale = kPi / 180.0;
    } else if (u != "rad") {
      throw std::runtime_error(name + ": angle_unit must be rad or deg, not \"" + u + "\"");
    }
  }
  for (const auto& entry : root) {
    if (!entry.first.IsScalar()) {
      throw std::runtime_error(name + ": a top-level key must be a word, not a list or a map");
    }
    const std::string key = entry.first.Scalar();
    if (key != "steps" && key != "angle_unit") {
      throw std::runtime_error(name + ": unknown top-level key \"" + key +
                               "\" (expected steps, angle_unit)");
    }
  }
  const YAML::Node steps = root["steps"];
  if (!steps.IsSequence() || steps.size() == 0) {
    throw std::runtime_error(name + ": \"steps:\" must be a non-empty list");
  }
  Program program;
  for (size_t i = 0; i < steps.size(); ++i) {
    const int line = steps[i].Mark().line + 1;
    try {
      ProgramStep step = parse_step(steps[i], scale);
      step.line = line;
      program.steps.push_back(std::move(step));
    } catch (const StepError& e) {
      std::ostringstream message;
      message << name << ":" << line << ": step " << (i + 1) << ": " << e.what();
      throw std::runtime_error(message.str());
    }
  }
  return program;
}

Program load_program_file(const std::string& path) {
  std::ifstream in(path);
  if (!in) {
    throw std::runtime_error(path + ": cannot open the file");
  }
  std::ostringstream text;
  text << in.rdbuf();
  return parse_program(text.str(), path);
}

}  // namespace kestrel::cli
