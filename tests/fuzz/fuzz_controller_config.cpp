// The controller's sections of robot_kinematics.yaml on arbitrary files. Its loaders end the
// process on a bad file, so their throwing counterparts are driven here: every section reader
// either throws std::runtime_error (yaml-cpp's errors included) or returns a section inside the
// limits it validates; and the shared key readers they are built from, key by key, either throw
// or return exactly what the file holds.
#include <yaml-cpp/yaml.h>

#include <algorithm>
#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>
#include <vector>

#include "fuzz_support.hpp"
#include "kestrel/controller/controller_config.hpp"

namespace {

namespace cc = kestrel::controller;
using kestrel::fuzz::attempt;

bool same_number(double a, double b) {
  return a == b || (a != a && b != b);
}

bool present(const YAML::Node& section, const std::string& key) {
  return section.IsDefined() && !section.IsNull() && section[key].IsDefined();
}

void check_array(const YAML::Node& node, const std::string& key) {
  cc::JointArray values{};
  if (attempt([&] {
        cc::parse_joint_array(values, node, key, "fuzz.yaml");
        return true;
      })) {
    FUZZ_CHECK(node.IsSequence() && node.size() == values.size());
    for (size_t i = 0; i < values.size(); ++i) {
      FUZZ_CHECK(same_number(values[i], node[i].as<double>()));
    }
  }
}

void check_number(const YAML::Node& section, const std::string& key) {
  const auto value = attempt([&] { return cc::read_yaml_double_or(section, key, -12.5); });
  if (value) {
    FUZZ_CHECK(present(section, key) ? same_number(*value, section[key].as<double>())
                                     : *value == -12.5);
  }
}

void check_boolean(const YAML::Node& section, const std::string& key) {
  const auto with_false = attempt([&] { return cc::read_bool_or(section, key, false); });
  const auto with_true = attempt([&] { return cc::read_bool_or(section, key, true); });
  // A value refused with one fallback is refused with the other.
  FUZZ_CHECK(with_false.has_value() == with_true.has_value());
  if (with_true) {
    FUZZ_CHECK(cc::read_bool_or(section, key) == *with_true);
    FUZZ_CHECK(present(section, key) ? *with_false == *with_true : !*with_false && *with_true);
  }
}

bool finite_non_negative(const cc::JointArray& values) {
  return std::all_of(values.begin(), values.end(),
                     [](double v) { return std::isfinite(v) && v >= 0.0; });
}

// Each reader on its own, so that an error in one section does not hide the others.
void check_sections(const YAML::Node& root) {
  const std::string path = "fuzz.yaml";
  attempt([&] { return cc::read_pos_vel_mode_config(root, path); });
  if (const auto c = attempt([&] { return cc::read_mit_mode_config(root, path); })) {
    FUZZ_CHECK(finite_non_negative(c->kp) && finite_non_negative(c->kd) &&
               finite_non_negative(c->feedforward_tau_limits));
    FUZZ_CHECK(std::isfinite(c->gravity_comp_scale));
  }
  if (const auto c = attempt([&] { return cc::read_joint_trajectory_config(root, path); })) {
    FUZZ_CHECK(c->default_speed_percent > 0.0 && c->default_speed_percent <= 1.0);
    FUZZ_CHECK(std::isfinite(c->max_motion_duration_sec) && c->max_motion_duration_sec > 0.0);
    FUZZ_CHECK(std::isfinite(c->set_joint_speed_factor) && c->set_joint_speed_factor >= 0.0);
  }
  if (const auto c = attempt([&] { return cc::read_runtime_joint_safety_config(root, path); })) {
    for (size_t j = 0; j < c->torque_warn_limits.size(); ++j) {
      FUZZ_CHECK(c->torque_warn_limits[j] > 0.0 &&
                 c->torque_warn_limits[j] <= c->torque_stop_limits[j]);
    }
  }
  if (const auto c = attempt([&] { return cc::read_gripper_watchdog_config(root, path); })) {
    FUZZ_CHECK(c->command_period_ms > 0.0 && c->state_timeout_ms > 0.0 &&
               c->position_error_stop_ms > 0.0 &&
               c->position_error_warn_m <= c->position_error_stop_m);
  }
  if (const auto c = attempt([&] { return cc::read_motor_supervision_config(root, path); })) {
    FUZZ_CHECK(c->silent_timeout_ms >= 10.0 && c->silent_timeout_ms <= 1000.0);
  }
  if (const auto c = attempt([&] { return cc::read_gripper_control_config(root, path); })) {
    FUZZ_CHECK(c->default_kp >= 0.1 && c->default_kp <= 20.0);
    FUZZ_CHECK(c->default_kd >= 0.1 && c->default_kd <= 1.0);
  }
  if (const auto c = attempt([&] { return cc::read_realtime_config(root, path); })) {
    FUZZ_CHECK(c->control_priority >= 1 && c->control_priority <= 99);
    FUZZ_CHECK(c->monitor_priority >= 1 && c->monitor_priority <= 99);
    FUZZ_CHECK(c->control_cpu >= -1);
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  YAML::Node root;
  try {
    root = YAML::LoadFile(kestrel::fuzz::write_scratch(data, size));
  } catch (const YAML::Exception&) {
    return 0;
  }
  check_sections(root);
  // Read through const nodes as the loaders do: a missing key is then an undefined node, not
  // an insertion. The key readers on every key of every section, and on one that is missing.
  const YAML::Node& document = root;
  for (const auto& section : document.IsMap() ? document : YAML::Node()) {
    try {
      const YAML::Node node = section.second;
      for (const auto& entry : node.IsMap() ? node : YAML::Node()) {
        const std::string key = entry.first.as<std::string>();
        check_array(node[key], key);
        check_number(node, key);
        check_boolean(node, key);
      }
      check_number(node, "absent_key");
      check_boolean(node, "absent_key");
    } catch (const std::runtime_error&) {
    }
  }
  cc::JointArray signs{};
  if (attempt([&] {
        cc::parse_joint_array(signs, document["motor_signs"], "motor_signs", "fuzz.yaml");
        return true;
      })) {
    try {
      cc::check_motor_signs(signs);
      for (const double s : signs) {
        FUZZ_CHECK(std::abs(std::abs(s) - 1.0) <= 1e-9);
      }
    } catch (const std::invalid_argument&) {
    }
  }
  return 0;
}
