// The ik_solver and ik_fallback readers: defaults, overrides, validation and error wrapping.
#include <gtest/gtest.h>

#include <functional>
#include <iostream>

#include "algorithms/test_files.hpp"
#include "kestrel/algorithms/config_paths.hpp"
#include "kestrel/algorithms/ik_config.hpp"
#include "support/config_sandbox.hpp"

using kestrel::algorithms::IkFallbackConfig;
using kestrel::algorithms::IkSolverConfig;
using kestrel::algorithms::read_ik_fallback_config;
using kestrel::algorithms::read_ik_solver_config;
using kestrel::testing::ConfigSandbox;
using kestrel::testing::TempDir;

namespace {

std::string error_of(const std::function<void()>& action) {
  try {
    action();
  } catch (const std::runtime_error& e) {
    return e.what();
  }
  return "<no exception>";
}

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.rfind(prefix, 0) == 0;
}

void expect_default_numbers(const IkSolverConfig& c) {
  EXPECT_EQ(c.mode, "kdl_with_approx_fallback");
  EXPECT_EQ(c.position_tolerance_m, 0.003);
  EXPECT_EQ(c.orientation_tolerance_rad, 0.05);
  EXPECT_EQ(c.max_fast_iterations, 5);
  EXPECT_EQ(c.max_residual_search_iterations, 60);
  EXPECT_EQ(c.damping, 0.02);
  EXPECT_EQ(c.max_joint_step_rad, 0.25);
  EXPECT_EQ(c.max_joint_delta_time_sec, 0.02);
  EXPECT_TRUE(c.allow_kdl_fallback);
}

constexpr const char* kSpeeds = "joint_trajectory: {max_vel_limits: [1, 2, 3, 4, 5, 6]}\n";

}  // namespace

// Prints the cached mode, edits the file, prints the cached and a fresh reading.
KESTREL_CONFIG_SCENARIO(ik_solver_config_cached) {
  using namespace kestrel::algorithms;
  std::cout << ik_solver_config().mode << ' ' << ik_fallback_config().enabled;
  std::ofstream(resolve_robot_kinematics_config_path(), std::ios::trunc)
      << "ik_solver: {mode: kdl}\nik_fallback: {enabled: false}\n";
  std::cout << ' ' << ik_solver_config().mode << ' ' << ik_fallback_config().enabled << ' '
            << read_ik_solver_config().mode << '\n';
  return 0;
}

KESTREL_CONFIG_SCENARIO(ik_solver_config_error) {
  try {
    kestrel::algorithms::ik_solver_config();
  } catch (const std::runtime_error& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
  return 0;
}

TEST(IkSolverConfig, DefaultsWithoutTheSectionIgnoreTrajectorySpeeds) {
  TempDir dir;
  const IkSolverConfig c = read_ik_solver_config(dir.write("a.yaml", kSpeeds));
  expect_default_numbers(c);
  EXPECT_TRUE(c.max_joint_velocity_rad_s.empty());
}

TEST(IkSolverConfig, EmptySectionTakesSpeedsFromJointTrajectory) {
  TempDir dir;
  const IkSolverConfig c =
      read_ik_solver_config(dir.write("a.yaml", std::string(kSpeeds) + "ik_solver: {}\n"));
  expect_default_numbers(c);
  EXPECT_EQ(c.max_joint_velocity_rad_s, (std::vector<double>{1, 2, 3, 4, 5, 6}));
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
  EXPECT_EQ(c.position_tolerance_m, 0.01);
  EXPECT_EQ(c.orientation_tolerance_rad, 0.1);
  EXPECT_EQ(c.max_fast_iterations, 0);
  EXPECT_EQ(c.max_residual_search_iterations, 0);
  EXPECT_EQ(c.damping, 0.0);
  EXPECT_EQ(c.max_joint_step_rad, 0.5);
  EXPECT_EQ(c.max_joint_delta_time_sec, 0.0);
  EXPECT_FALSE(c.allow_kdl_fallback);
  EXPECT_EQ(c.max_joint_velocity_rad_s, (std::vector<double>{9, 9}));
  EXPECT_EQ(c.global_search_time_ms, 2.5);
  EXPECT_EQ(c.nearest_joint_weights, (std::vector<double>{1, 2}));
  EXPECT_EQ(read_ik_solver_config(dir.write("b.yaml", "ik_solver: {mode: analytic}")).mode,
            "analytic");
}

TEST(IkSolverConfig, RejectsBadValuesWithTheirOwnText) {
  TempDir dir;
  const auto error_for = [&](const std::string& section) {
    return error_of([&] { read_ik_solver_config(dir.write("a.yaml", "ik_solver: " + section)); });
  };
  EXPECT_EQ(error_for("{mode: KDL}"),
            "ik_solver.mode must be 'fast', 'kdl', 'kdl_with_approx_fallback', or 'analytic'");
  for (const char* bad :
       {"{position_tolerance_m: 0}", "{orientation_tolerance_rad: -1}", "{max_fast_iterations: -1}",
        "{max_residual_search_iterations: -1}", "{damping: -0.1}", "{max_joint_step_rad: 0}",
        "{max_joint_delta_time_sec: -0.01}",
        // NaN passed every limit before (found by fuzzing).
        "{position_tolerance_m: .nan}", "{orientation_tolerance_rad: .nan}", "{damping: .nan}",
        "{max_joint_step_rad: .nan}", "{max_joint_delta_time_sec: .nan}"}) {
    EXPECT_EQ(error_for(bad), "ik_solver contains invalid non-positive limits") << bad;
  }
  for (const char* bad :
       {"{max_joint_velocity_rad_s: [1, 0, 1, 1, 1, 1]}", "{max_joint_velocity_rad_s: [.nan]}"}) {
    EXPECT_EQ(error_for(bad), "ik_solver joint velocity limits must be positive") << bad;
  }
  for (const char* bad : {"{global_search_time_ms: 0}", "{global_search_time_ms: .inf}"}) {
    EXPECT_EQ(error_for(bad), "ik_solver.global_search_time_ms must be positive") << bad;
  }
  for (const char* bad : {"{nearest_joint_weights: [1, 0]}", "{nearest_joint_weights: [.nan]}"}) {
    EXPECT_EQ(error_for(bad), "ik_solver.nearest_joint_weights must be positive") << bad;
  }
  // A non-sequence speed list keeps read_double_sequence's own text, unwrapped.
  EXPECT_EQ(error_for("{max_joint_velocity_rad_s: 3}"),
            "ik_solver.max_joint_velocity_rad_s must be a YAML sequence");
  EXPECT_EQ(error_of([&] {
              read_ik_solver_config(
                  dir.write("b.yaml", "ik_solver: {}\njoint_trajectory: {max_vel_limits: 2}\n"));
            }),
            "joint_trajectory.max_vel_limits must be a YAML sequence");
}

TEST(IkSolverConfig, WrapsYamlConversionAndFileErrors) {
  TempDir dir;
  for (const char* section : {"{max_joint_velocity_rad_s: [1, fast]}", "{max_fast_iterations: 2.5}",
                              "{allow_kdl_fallback: perhaps}", "[unclosed"}) {
    const std::string path = dir.write("a.yaml", std::string("ik_solver: ") + section + "\n");
    EXPECT_PRED2(starts_with, error_of([&] { read_ik_solver_config(path); }),
                 "Failed to read ik_solver config at " + path + ": ")
        << section;
  }
  const std::string missing = (dir.path() / "none.yaml").string();
  EXPECT_PRED2(starts_with, error_of([&] { read_ik_solver_config(missing); }),
               "Failed to read ik_solver config at " + missing + ": ");
}

TEST(IkFallbackConfig, DefaultsAndPartialSections) {
  TempDir dir;
  const IkFallbackConfig absent = read_ik_fallback_config(dir.write("a.yaml", "x: 1\n"));
  EXPECT_FALSE(absent.enabled);
  const IkFallbackConfig c =
      read_ik_fallback_config(dir.write("b.yaml", "ik_fallback: {enabled: true}\n"));
  EXPECT_TRUE(c.enabled);
  EXPECT_EQ(c.position_tolerance_m, 0.005);
  EXPECT_EQ(c.max_candidates, 32u);
  EXPECT_EQ(c.max_time_ms, 3.0);
  const IkFallbackConfig zeros = read_ik_fallback_config(dir.write(
      "c.yaml", "ik_fallback: {position_tolerance_m: 0, max_candidates: 0, max_time_ms: 0}\n"));
  EXPECT_EQ(zeros.position_tolerance_m, 0.0);
  EXPECT_EQ(zeros.max_candidates, 0u);
  EXPECT_EQ(zeros.max_time_ms, 0.0);
}

TEST(IkFallbackConfig, RejectsNegativeValues) {
  TempDir dir;
  const auto error_for = [&](const std::string& section) {
    return error_of(
        [&] { read_ik_fallback_config(dir.write("a.yaml", "ik_fallback: " + section + "\n")); });
  };
  EXPECT_EQ(error_for("{max_time_ms: -1}"), "ik_fallback.max_time_ms must be non-negative");
  EXPECT_EQ(error_for("{position_tolerance_m: -0.001}"),
            "ik_fallback.position_tolerance_m must be non-negative");
  EXPECT_EQ(error_for("{max_time_ms: .nan}"), "ik_fallback.max_time_ms must be non-negative");
  EXPECT_EQ(error_for("{position_tolerance_m: .nan}"),
            "ik_fallback.position_tolerance_m must be non-negative");
  const std::string wrapped =
      "Failed to read ik_fallback config at " + (dir.path() / "a.yaml").string() + ": ";
  EXPECT_PRED2(starts_with, error_for("{max_candidates: -1}"), wrapped);
  EXPECT_PRED2(starts_with, error_for("{max_candidates: 1.5}"), wrapped);
}

TEST(IkConfigCache, ReadsOncePerProcessFromTheResolvedFile) {
  ConfigSandbox box;
  box.write_config("ik_solver: {mode: fast}\nik_fallback: {enabled: true}\n");
  const auto r = box.run("ik_solver_config_cached");
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_EQ(r.out, "fast 1 fast 1 kdl\n");
}

TEST(IkConfigCache, FirstReadErrorsNameTheResolvedFile) {
  ConfigSandbox box;
  box.write_config("ik_solver: {damping: lots}\n");
  const auto r = box.run("ik_solver_config_error");
  EXPECT_EQ(r.exit_code, 1) << r.describe();
  EXPECT_PRED2(starts_with, r.err,
               "Failed to read ik_solver config at " + box.config_path().string() + ": ");
}
