// The ik_solver and ik_fallback readers: defaults, overrides, validation and error wrapping.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <iostream>

#include "algorithms/test_files.hpp"
#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/algorithms/ik_config.hpp"
#include "support/config_sandbox.hpp"
#include "support/refusal.hpp"

using namespace kestrel::algorithms;
using namespace kestrel::testing;
using ::testing::StartsWith;
using Numbers = std::vector<double>;

namespace {

// The numeric settings (and the KDL fallback switch) in declaration order, to compare at once.
Numbers numbers(const IkSolverConfig& c) {
  return {c.position_tolerance_m,
          c.orientation_tolerance_rad,
          double(c.max_fast_iterations),
          double(c.max_residual_search_iterations),
          c.damping,
          c.max_joint_step_rad,
          c.max_joint_delta_time_sec,
          double(c.allow_kdl_fallback)};
}
Numbers numbers(const IkFallbackConfig& c) {
  return {double(c.enabled), c.position_tolerance_m, double(c.max_candidates), c.max_time_ms};
}

const Numbers kDefaults = {0.003, 0.05, 5, 60, 0.02, 0.25, 0.02, 1};
constexpr const char* kSpeeds = "joint_trajectory: {max_vel_limits: [1, 2, 3, 4, 5, 6]}\n";

}  // namespace

// Prints the cached mode, edits the file, prints the cached and a fresh reading; or the error.
KESTREL_CONFIG_SCENARIO(ik_solver_config_cached) {
  try {
    std::cout << ik_solver_config().mode << ' ' << ik_fallback_config().enabled;
    std::ofstream(resolve_robot_kinematics_config_path(), std::ios::trunc)
        << "ik_solver: {mode: kdl}\nik_fallback: {enabled: false}\n";
    std::cout << ' ' << ik_solver_config().mode << ' ' << ik_fallback_config().enabled << ' '
              << read_ik_solver_config().mode << '\n';
  } catch (const std::runtime_error& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
  return 0;
}

// Without the section the trajectory speeds are ignored; an empty section takes them.
TEST(IkSolverConfig, DefaultsAndTrajectorySpeedsOnlyWithTheSection) {
  TempDir dir;
  for (const bool section : {false, true}) {
    const IkSolverConfig c = read_ik_solver_config(
        dir.write("a.yaml", kSpeeds + std::string(section ? "ik_solver: {}\n" : "")));
    EXPECT_EQ(c.mode, "kdl_with_approx_fallback");
    EXPECT_EQ(numbers(c), kDefaults);
    EXPECT_EQ(c.max_joint_velocity_rad_s, (section ? Numbers{1, 2, 3, 4, 5, 6} : Numbers{}));
  }
}

TEST(IkSolverConfig, ReadsEveryKeyAndItsOwnSpeedsWin) {
  TempDir dir;
  const IkSolverConfig c = read_ik_solver_config(
      dir.write("a.yaml", std::string(kSpeeds) +
                              "ik_solver:\n  mode: fast\n  position_tolerance_m: 0.01\n"
                              "  orientation_tolerance_rad: 0.1\n  max_fast_iterations: 0\n"
                              "  max_residual_search_iterations: 0\n  damping: 0\n"
                              "  max_joint_step_rad: 0.5\n  max_joint_delta_time_sec: 0\n"
                              "  allow_kdl_fallback: false\n  max_joint_velocity_rad_s: [9, 9]\n"
                              "  global_search_time_ms: 2.5\n  nearest_joint_weights: [1, 2]\n"));
  EXPECT_EQ(c.mode, "fast");
  EXPECT_EQ(numbers(c), (Numbers{0.01, 0.1, 0, 0, 0, 0.5, 0, 0}));
  EXPECT_EQ(c.max_joint_velocity_rad_s, (Numbers{9, 9}));
  EXPECT_EQ(c.global_search_time_ms, 2.5);
  EXPECT_EQ(c.nearest_joint_weights, (Numbers{1, 2}));
  EXPECT_EQ(read_ik_solver_config(dir.write("b.yaml", "ik_solver: {mode: analytic}")).mode,
            "analytic");
}

TEST(IkSolverConfig, RejectsBadValuesWithTheirOwnText) {
  TempDir dir;
  // Each message with the sections that draw it. NaN passed every limit before (found by
  // fuzzing). A non-sequence speed list keeps read_double_sequence's own text, unwrapped.
  const std::vector<std::pair<std::string, std::vector<std::string>>> rows = {
      {"ik_solver.mode must be 'fast', 'kdl', 'kdl_with_approx_fallback', or 'analytic'",
       {"{mode: KDL}"}},
      {"ik_solver contains invalid non-positive limits",
       {"{position_tolerance_m: 0}", "{orientation_tolerance_rad: -1}", "{max_fast_iterations: -1}",
        "{max_residual_search_iterations: -1}", "{damping: -0.1}", "{max_joint_step_rad: 0}",
        "{max_joint_delta_time_sec: -0.01}", "{position_tolerance_m: .nan}",
        "{orientation_tolerance_rad: .nan}", "{damping: .nan}", "{max_joint_step_rad: .nan}",
        "{max_joint_delta_time_sec: .nan}"}},
      {"ik_solver joint velocity limits must be positive",
       {"{max_joint_velocity_rad_s: [1, 0, 1, 1, 1, 1]}", "{max_joint_velocity_rad_s: [.nan]}"}},
      {"ik_solver.global_search_time_ms must be positive",
       {"{global_search_time_ms: 0}", "{global_search_time_ms: .inf}"}},
      {"ik_solver.nearest_joint_weights must be positive",
       {"{nearest_joint_weights: [1, 0]}", "{nearest_joint_weights: [.nan]}"}},
      {"ik_solver.max_joint_velocity_rad_s must be a YAML sequence",
       {"{max_joint_velocity_rad_s: 3}"}},
      {"joint_trajectory.max_vel_limits must be a YAML sequence",
       {"{}\njoint_trajectory: {max_vel_limits: 2}"}},
  };
  for (const auto& [message, sections] : rows) {
    for (const auto& section : sections) {
      const std::string path = dir.write("a.yaml", "ik_solver: " + section + "\n");
      EXPECT_EQ(refusal_of<std::runtime_error>([&] { read_ik_solver_config(path); }), message)
          << section;
    }
  }
  // YAML conversion and file errors are wrapped with the file's name.
  for (const char* section : {"{max_joint_velocity_rad_s: [1, fast]}", "{max_fast_iterations: 2.5}",
                              "[unclosed", static_cast<const char*>(nullptr)}) {
    const std::string path = section ? dir.write("a.yaml", std::string("ik_solver: ") + section)
                                     : (dir.path() / "none.yaml").string();
    EXPECT_THAT(refusal_of<std::runtime_error>([&] { read_ik_solver_config(path); }),
                StartsWith("Failed to read ik_solver config at " + path + ": "))
        << (section ? section : "missing file");
  }
}

TEST(IkFallbackConfig, DefaultsPartialSectionsAndRefusals) {
  TempDir dir;
  const auto read = [&](const std::string& section) {
    return read_ik_fallback_config(dir.write("a.yaml", section + "\n"));
  };
  EXPECT_FALSE(read("x: 1").enabled);
  EXPECT_EQ(numbers(read("ik_fallback: {enabled: true}")), (Numbers{1, 0.005, 32, 3.0}));
  EXPECT_EQ(
      numbers(read("ik_fallback: {position_tolerance_m: 0, max_candidates: 0, max_time_ms: 0}")),
      (Numbers{0, 0, 0, 0}));
  const std::string time = "ik_fallback.max_time_ms must be non-negative";
  const std::string radius = "ik_fallback.position_tolerance_m must be non-negative";
  const std::string wrapped =
      "Failed to read ik_fallback config at " + (dir.path() / "a.yaml").string() + ": ";
  const std::vector<std::pair<std::string, std::string>> rows = {
      {"{max_time_ms: -1}", time},       {"{position_tolerance_m: -0.001}", radius},
      {"{max_time_ms: .nan}", time},     {"{position_tolerance_m: .nan}", radius},
      {"{max_candidates: -1}", wrapped}, {"{max_candidates: 1.5}", wrapped},
  };
  for (const auto& [section, message] : rows) {
    const std::string got =
        refusal_of<std::runtime_error>([&] { read("ik_fallback: " + section); });
    // The wrapped ones end in yaml-cpp's own text.
    EXPECT_EQ(message == wrapped ? got.substr(0, wrapped.size()) : got, message) << section;
  }
}

TEST(IkConfigCache, ReadsOncePerProcessAndNamesTheResolvedFileOnError) {
  ConfigSandbox box;
  box.write_config("ik_solver: {mode: fast}\nik_fallback: {enabled: true}\n");
  auto r = box.run("ik_solver_config_cached");
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_EQ(r.out, "fast 1 fast 1 kdl\n");
  box.write_config("ik_solver: {damping: lots}\n");
  r = box.run("ik_solver_config_cached");
  EXPECT_EQ(r.exit_code, 1) << r.describe();
  EXPECT_THAT(
      r.err, StartsWith("Failed to read ik_solver config at " + box.config_path().string() + ": "));
}
