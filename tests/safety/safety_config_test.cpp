// The safety sections reader: defaults, every key, the validation texts, and the process exit
// of load_safety_config on a bad file.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>

#include "algorithms/test_files.hpp"
#include "kestrel/algorithms/safety_config.hpp"
#include "support/config_sandbox.hpp"
#include "support/refusal.hpp"

using namespace kestrel::algorithms;
using kestrel::testing::ConfigSandbox;
using kestrel::testing::TempDir;
using ::testing::StartsWith;

namespace {

const std::string kCapsule = "{name: a, link: link1, p0: [0, 0, 0], p1: [0, 0, 1], radius: 0.1}";
const std::string kBadBool = "Invalid boolean config field 'enabled': expected true/false. ";

}  // namespace

KESTREL_CONFIG_SCENARIO(print_safety_config) {
  const SafetyConfig c = load_safety_config();
  std::cout << c.singularity_protection.enabled << c.trajectory_safety.enabled
            << c.self_collision.enabled << ' ' << c.self_collision.bodies.size() << '\n';
  return 0;
}

TEST(SafetyConfig, MissingSectionsAndKeysKeepTheDefaults) {
  TempDir dir;
  for (const char* yaml : {"logging: {}\n",
                           "singularity_protection:\ntrajectory_safety: {}\n"
                           "self_collision: {}\n"}) {
    SCOPED_TRACE(yaml);
    const SafetyConfig c = read_safety_config(dir.write("a.yaml", yaml));
    EXPECT_TRUE(c.singularity_protection.enabled);
    EXPECT_TRUE(c.trajectory_safety.enabled);
    EXPECT_FALSE(c.self_collision.enabled);
    EXPECT_TRUE(c.self_collision.bodies.empty() && c.self_collision.ignored_pairs.empty());
    EXPECT_EQ(c.trajectory_safety.joint_limit_warn_margin_rad, 0.174533);  // not 10 degrees
    EXPECT_EQ(c.trajectory_safety.joint_limit_stop_margin_rad, 0.05236);
    EXPECT_EQ(c.singularity_protection.elbow_j3_target_rad, -2.912226);
    EXPECT_EQ(c.trajectory_safety.tracking_error_stop_cycles, 30);
    EXPECT_EQ(c.self_collision.stop_distance_m, 0.01);
  }
}

// The key names are the field names.
// clang-format off
#define SP(field) {#field, &SingularityProtectionConfig::field}
#define TS(field) {#field, &TrajectorySafetyConfig::field}
// clang-format on

TEST(SafetyConfig, EveryKeyReachesItsField) {
  const std::pair<const char*, double SingularityProtectionConfig::*> singularity[] = {
      SP(wrist_target_abs_rad),    SP(wrist_warn_margin_rad),    SP(wrist_stop_margin_rad),
      SP(shoulder_warn_radius_m),  SP(shoulder_stop_radius_m),   SP(elbow_j3_target_rad),
      SP(elbow_j4_target_rad),     SP(elbow_warn_radius_rad),    SP(elbow_stop_radius_rad),
      SP(jacobian_warn_sigma_min), SP(jacobian_stop_sigma_min),  SP(jacobian_warn_condition),
      SP(jacobian_stop_condition), SP(jacobian_angular_scale_m), SP(yellow_min_speed_scale)};
  const std::pair<const char*, double TrajectorySafetyConfig::*> trajectory[] = {
      // clang-format off
      TS(joint_limit_warn_margin_rad), TS(joint_limit_stop_margin_rad), TS(tracking_error_warn_rad),
      TS(tracking_error_stop_rad), TS(velocity_stop_scale), TS(acceleration_stop_scale),
      TS(jerk_stop_scale), TS(velocity_warn_scale), TS(acceleration_warn_scale), TS(jerk_warn_scale)};
  // clang-format on
  // Each key gets its own value (binary fractions, exact in the text), so a swap shows; the
  // trajectory values leave every stop scale above every warning scale.
  const auto value = [](std::size_t i) { return 0.5 + i / 32.0; };
  std::string yaml = "singularity_protection: {enabled: false";
  for (std::size_t i = 0; i < std::size(singularity); ++i) {
    yaml += std::string(", ") + singularity[i].first + ": " + std::to_string(value(i));
  }
  yaml +=
      "}\ntrajectory_safety: {enabled: false, tracking_error_stop_cycles: 5, "
      "derivative_stop_cycles: -2";
  for (std::size_t i = 0; i < std::size(trajectory); ++i) {
    yaml += std::string(", ") + trajectory[i].first + ": " + std::to_string(2 - value(i));
  }
  TempDir dir;
  const auto c = read_safety_config(dir.write("a.yaml", yaml + R"(}
self_collision:
  enabled: true
  warn_distance_m: 0.02
  stop_distance_m: 0.02
  ignored_pairs: [[Gripper, base], [b, a]]
  bodies:
    - {name: Gripper, link: link6, type: box, center: [1, 2, 3], size: [4, 5, 6]}
    - {name: base, link: base_link, p0: [1, 2, 3], p1: [4, 5, 6], radius: 0.5}
    - {name: tilted, link: link2, type: box, center: [0, 0, 0], size: [1, 1, 1], rpy: [1, 2, 3]}
)"));
  for (std::size_t i = 0; i < std::size(singularity); ++i) {
    EXPECT_EQ(c.singularity_protection.*singularity[i].second, value(i)) << singularity[i].first;
  }
  for (std::size_t i = 0; i < std::size(trajectory); ++i) {
    EXPECT_EQ(c.trajectory_safety.*trajectory[i].second, 2 - value(i)) << trajectory[i].first;
  }
  EXPECT_FALSE(c.singularity_protection.enabled);
  EXPECT_FALSE(c.trajectory_safety.enabled);
  EXPECT_EQ(c.trajectory_safety.tracking_error_stop_cycles, 5);
  EXPECT_EQ(c.trajectory_safety.derivative_stop_cycles, -2);  // not range-checked
  const auto& sc = c.self_collision;
  EXPECT_TRUE(sc.enabled);
  EXPECT_EQ(sc.warn_distance_m, sc.stop_distance_m);  // equal distances are accepted
  using Pair = std::pair<std::string, std::string>;
  EXPECT_EQ(sc.ignored_pairs, (std::vector<Pair>{{"Gripper", "base"}, {"b", "a"}}));
  ASSERT_EQ(sc.bodies.size(), 3u);
  const std::array<double, 3> zero{0, 0, 0}, a{1, 2, 3}, b{4, 5, 6};
  EXPECT_TRUE(sc.bodies[0].type == "box" && sc.bodies[0].center == a && sc.bodies[0].size == b &&
              sc.bodies[0].rpy == zero);  // a box without rpy is not rotated
  EXPECT_TRUE(sc.bodies[1].type == "capsule" && sc.bodies[1].link == "base_link" &&
              sc.bodies[1].p0 == a && sc.bodies[1].p1 == b && sc.bodies[1].radius == 0.5);
  EXPECT_EQ(sc.bodies[2].rpy, a);
}

TEST(SafetyConfig, RejectsEachInvalidValueWithItsOwnText) {
  TempDir dir;
  const auto error_for = [&](const std::string& yaml) {
    return kestrel::testing::refusal_of<std::exception>(
        [&] { read_safety_config(dir.write("a.yaml", yaml + "\n")); });
  };
  const std::string body = "self_collision: {bodies: [" + kCapsule + ", ";
  const auto triple = [](const char* key) {
    return std::string("self_collision.bodies.") + key + " must be a sequence of 3 numbers";
  };
  const std::string angular = "singularity_protection.jacobian_angular_scale_m must be positive",
                    yellow = "singularity_protection.yellow_min_speed_scale must be in (0, 1]",
                    scales = "trajectory_safety stop scales must be >= warning scales",
                    distances = "self_collision.warn_distance_m must be >= stop_distance_m",
                    pairs = "self_collision.ignored_pairs entries must be [name_a, name_b]",
                    name_link = "self_collision.bodies entries require name and link",
                    radius = "self_collision capsule radius must be positive",
                    box_size = "self_collision box size must be positive";
  const std::pair<std::string, std::string> cases[] = {
      {"singularity_protection: {jacobian_angular_scale_m: 0}", angular},
      {"singularity_protection: {yellow_min_speed_scale: 0}", yellow},
      {"singularity_protection: {yellow_min_speed_scale: 1.0001}", yellow},
      {"trajectory_safety: {tracking_error_stop_cycles: 0}",
       "trajectory_safety.tracking_error_stop_cycles must be positive"},
      {"trajectory_safety: {velocity_stop_scale: 1.0}", scales},
      {"trajectory_safety: {acceleration_warn_scale: 1.7}", scales},
      {"trajectory_safety: {jerk_stop_scale: 1.4}", scales},
      {"self_collision: {warn_distance_m: 0.009}", distances},
      {"self_collision: {ignored_pairs: [[a, b, c]]}", pairs},
      {"self_collision: {ignored_pairs: [a]}", pairs},
      {body + "{name: s, link: link1, type: sphere, radius: 1}]}",
       "self_collision.bodies only supports type=capsule or type=box"},
      {body + "{name: c, link: link1, p0: [0, 0, 0], radius: 1}]}", triple("p1")},
      {body + "{name: c, link: link1, p0: [0, 0], p1: [0, 0, 0], radius: 1}]}", triple("p0")},
      {body + "{name: b, link: link1, type: box, center: [0, 0, 0]}]}", triple("size")},
      {body + "{name: b, link: link1, type: box, size: [1, 1, 1]}]}", triple("center")},
      {body + "{name: b, link: link1, type: box, center: [0, 0, 0], size: [1, 1, 1], rpy: 0}]}",
       triple("rpy")},
      {body + "{link: link1, p0: [0, 0, 0], p1: [0, 0, 0], radius: 1}]}", name_link},
      {body + "{name: c, p0: [0, 0, 0], p1: [0, 0, 0], radius: 1}]}", name_link},
      {body + "{name: c, link: link1, p0: [0, 0, 0], p1: [0, 0, 0]}]}", radius},
      {body + "{name: b, link: link1, type: box, center: [0, 0, 0], size: [1, 0, 1]}]}", box_size},
      // NaN passed every rule before (found by fuzzing).
      {"singularity_protection: {jacobian_angular_scale_m: .nan}", angular},
      {"singularity_protection: {yellow_min_speed_scale: .nan}", yellow},
      {"trajectory_safety: {jerk_stop_scale: .nan}", scales},
      {"self_collision: {stop_distance_m: .nan}", distances},
      {body + "{name: c, link: link1, p0: [0, 0, 0], p1: [0, 0, 0], radius: .nan}]}", radius},
      {body + "{name: b, link: link1, type: box, center: [0, 0, 0], size: [1, .nan, 1]}]}",
       box_size},
      // Validation runs in a fixed order: the singularity section is judged first.
      {"self_collision: {warn_distance_m: 0}\nsingularity_protection: {jacobian_angular_scale_m: "
       "-1}",
       angular},
  };
  for (const auto& [yaml, message] : cases) {
    EXPECT_EQ(error_for(yaml), message) << yaml;
  }
  EXPECT_THAT(error_for("self_collision: {enabled: maybe}"), StartsWith(kBadBool));
  EXPECT_NE(error_for("trajectory_safety: {tracking_error_stop_cycles: 2.5}"), "no exception");
  EXPECT_NE(error_for("singularity_protection: {wrist_warn_margin_rad: wide}"), "no exception");
}

TEST(SafetyConfigLoad, EndsTheProcessWithOneLineNamingTheFileOrLoadsTheShippedOne) {
  ConfigSandbox box;
  const std::pair<std::string, std::string> bad_files[] = {
      {"singularity_protection: {enabled: maybe}\n", kBadBool},
      {"self_collision: {enabled: true, bodies: [" + kCapsule +
           "]}\ntrajectory_safety: {tracking_error_stop_cycles: -1}\n",
       "trajectory_safety.tracking_error_stop_cycles must be positive"},
      {"self_collision: [unclosed\n", ""}};
  for (const auto& [yaml, reason_prefix] : bad_files) {
    box.write_config(yaml);
    const auto r = box.run("print_safety_config");
    EXPECT_EQ(r.exit_code, 1) << r.describe();
    ASSERT_EQ(r.err_lines().size(), 1u) << r.describe();
    EXPECT_THAT(r.err_lines()[0], StartsWith("Failed to load safety config at " +
                                             box.config_path().string() + ": " + reason_prefix));
  }
  const auto missing = ConfigSandbox("kestrel_sdk/build", false).run("print_safety_config");
  EXPECT_EQ(missing.exit_code, 1) << missing.describe();
  EXPECT_THAT(missing.err,
              StartsWith("Failed to load safety config at : Failed to locate config file "
                         "'robot_kinematics.yaml'"));

  const auto shipped = ConfigSandbox().run("print_safety_config");
  ASSERT_EQ(shipped.exit_code, 0) << shipped.describe();
  EXPECT_EQ(shipped.out, "111 13\n");
}
