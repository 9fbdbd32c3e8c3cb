// Configuration search, logging switches and number lists. The search depends on where the
// library file lives, so those cases run in a child process against a relocated library copy.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <yaml-cpp/yaml.h>

#include <iostream>

#include "algorithms/test_files.hpp"
#include "kestrel/algorithms/config_paths.hpp"
#include "support/config_sandbox.hpp"
#include "support/refusal.hpp"

namespace fs = std::filesystem;
using namespace kestrel::algorithms;
using namespace kestrel::testing;
using ::testing::StartsWith;

namespace {

std::vector<fs::path> candidates_from(const fs::path& base) {
  std::vector<fs::path> out;
  kestrel::algorithms::detail::append_sdk_config_candidates(out, base, "f.yaml");
  return out;
}

// What print_resolved_paths prints for the two files in `dir`.
std::string both_in(const fs::path& dir) {
  return (dir / "robot_kinematics.yaml").string() + "\n" +
         (dir / "OspreyArm.SLDASM.urdf").string() + "\n";
}

}  // namespace

// Child-side scenarios: print what the library resolves, or the error it throws.
KESTREL_CONFIG_SCENARIO(print_resolved_paths) {
  try {
    std::cout << kestrel::algorithms::resolve_robot_kinematics_config_path() << '\n';
    std::cout << kestrel::algorithms::resolve_robot_urdf_path() << '\n';
  } catch (const std::exception& e) {
    std::cerr << e.what() << '\n';
    return 1;
  }
  return 0;
}

// Reads both switches, flips them in the file, reads again: the cached values must not move.
KESTREL_CONFIG_SCENARIO(logging_switches_read_once) {
  std::cout << ik_diagnostics_debug_enabled() << motion_planning_debug_enabled();
  std::ofstream(resolve_robot_kinematics_config_path(), std::ios::trunc)
      << "logging: {ik_diagnostics: false, motion_planning_debug: true}\n";
  std::cout << ik_diagnostics_debug_enabled() << motion_planning_debug_enabled() << '\n';
  return 0;
}

// A failed first read throws and leaves the switch unread; the next call reads the file again.
KESTREL_CONFIG_SCENARIO(logging_switch_retries_after_error) {
  try {
    ik_diagnostics_debug_enabled();
    return 2;
  } catch (const std::runtime_error& e) {
    std::cerr << e.what() << '\n';
  }
  std::ofstream(resolve_robot_kinematics_config_path(), std::ios::trunc)
      << "logging: {ik_diagnostics: true}\n";
  std::cout << ik_diagnostics_debug_enabled() << '\n';
  return 0;
}

TEST(ConfigCandidates, WalksEveryLevelUpToTheRootInRuleOrder) {
  EXPECT_EQ(candidates_from("/a/kestrel_sdk/build"),
            (std::vector<fs::path>{
                "/a/kestrel_sdk/build/kestrel_sdk/src/config/f.yaml",
                "/a/kestrel_sdk/src/config/f.yaml", "/a/kestrel_sdk/kestrel_sdk/src/config/f.yaml",
                "/a/kestrel_sdk/src/config/f.yaml", "/kestrel_sdk/src/config/f.yaml"}));
  // A library that sits in .../kestrel_sdk/src finds the config directory beside it first.
  const auto from_src = candidates_from("/t/kestrel_sdk/src");
  ASSERT_GE(from_src.size(), 2u);
  EXPECT_EQ(from_src[0], "/t/kestrel_sdk/src/config/f.yaml");
  EXPECT_EQ(from_src[1], "/t/kestrel_sdk/src/kestrel_sdk/src/config/f.yaml");
  // Relative bases stop when the path runs out; component names compare case-sensitively.
  EXPECT_EQ(candidates_from("x/Kestrel_SDK"),
            (std::vector<fs::path>{"x/Kestrel_SDK/kestrel_sdk/src/config/f.yaml",
                                   "x/kestrel_sdk/src/config/f.yaml"}));
  EXPECT_TRUE(candidates_from("").empty());
}

// Lists, scalars and bad numbers through the readers:
// IkSolverConfig.RejectsBadValuesWithTheirOwnText.
TEST(ConfigDoubleSequence, AcceptsAnEmptySequenceAndRefusesAMissingKey) {
  EXPECT_TRUE(read_double_sequence(YAML::Load("[]"), "a.b").empty());
  const YAML::Node map = YAML::Load("{x: 1}");
  EXPECT_EQ(refusal_of<std::exception>([&] { read_double_sequence(map["missing"], "m.k"); }),
            "m.k must be a YAML sequence");
}

TEST(ConfigLoggingSwitch, DefaultsWhenAbsentAndWrapsYamlErrors) {
  TempDir dir;
  EXPECT_TRUE(read_logging_bool(dir.write("none.yaml", "other: 1\n"), "ik_diagnostics", true));
  EXPECT_FALSE(read_logging_bool(dir.write("nokey.yaml", "logging: {x: true}\n"), "k", false));
  const std::string set = dir.write("set.yaml", "logging: {k: yes, j: false}\n");
  EXPECT_TRUE(read_logging_bool(set, "k", false));
  EXPECT_FALSE(read_logging_bool(set, "j", true));
  const auto refusal = [](const std::string& path, const char* key) {
    return refusal_of<std::exception>([&] { read_logging_bool(path, key, false); });
  };
  for (const std::string& path :
       {dir.write("broken.yaml", "logging: [unclosed\n"), (dir.path() / "missing.yaml").string()}) {
    EXPECT_THAT(refusal(path, "k"), StartsWith("Failed to read logging.k at " + path + ": "));
  }
}

// In the library's own tree: found there, even from a current directory with its own tree; a
// missing URDF is reported by its own name.
TEST(ConfigSearch, FindsTheFilesOfTheLibrarysOwnTreeFirst) {
  ConfigSandbox box;
  auto r = box.run("print_resolved_paths");
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_EQ(r.out, both_in(box.config_dir()));
  box.write_file("work/kestrel_sdk/src/config/robot_kinematics.yaml", "logging: {}\n");
  RunOptions in_work;
  in_work.cwd = box.root() / "work";
  r = box.run("print_resolved_paths", in_work);
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_EQ(r.out.substr(0, r.out.find('\n')), box.config_path().string());
  fs::remove(box.urdf_path());
  r = box.run("print_resolved_paths");
  EXPECT_EQ(r.exit_code, 1) << r.describe();
  EXPECT_THAT(r.err, StartsWith("Failed to locate config file 'OspreyArm.SLDASM.urdf'. "));
}

// Outside the library's tree: the current directory's tree, or an error naming where it looked.
TEST(ConfigSearch, FallsBackToTheCurrentDirectoryTreeOrNamesWhereItLooked) {
  ConfigSandbox box("opt/lib", /*copy_shipped_files=*/false);
  fs::create_directories(box.root() / "empty");
  RunOptions options;
  options.cwd = box.root() / "empty";
  options.library_dir = box.root() / "opt/../opt/lib";  // reported as loaded, dots and all
  auto r = box.run("print_resolved_paths", options);
  EXPECT_EQ(r.exit_code, 1) << r.describe();
  const fs::path reported_library = options.library_dir / box.library_path().filename();
  EXPECT_EQ(r.err,
            "Failed to locate config file 'robot_kinematics.yaml'. Only kestrel_sdk/src/config is "
            "supported. Checked relative to library path \"" +
                reported_library.string() + "\" and current path \"" + options.cwd.string() +
                "\". Maintain the single source of truth at "
                "kestrel_sdk/src/config/robot_kinematics.yaml.\n");

  const fs::path work = box.root() / "work/kestrel_sdk/src/config";
  box.write_file(work / "robot_kinematics.yaml", "logging: {}\n");
  box.write_file(work / "OspreyArm.SLDASM.urdf", "<robot/>\n");
  fs::create_directories(box.root() / "work/deep/er");
  RunOptions deep;
  deep.cwd = box.root() / "work/deep/er";
  r = box.run("print_resolved_paths", deep);
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_EQ(r.out, both_in(work));
}

TEST(ConfigSearch, ReturnsCanonicalPathsThroughSymlinksAndDotDot) {
  ConfigSandbox box("kestrel_sdk/build", /*copy_shipped_files=*/false);
  box.write_file("elsewhere/config/robot_kinematics.yaml", "logging: {}\n");
  box.write_file("elsewhere/config/OspreyArm.SLDASM.urdf", "<robot/>\n");
  fs::create_directories(box.root() / "kestrel_sdk/src");
  fs::create_directory_symlink(box.root() / "elsewhere/config", box.config_dir());
  RunOptions dotted;
  dotted.library_dir = box.root() / "kestrel_sdk/src/../build";
  const auto r = box.run("print_resolved_paths", dotted);
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_EQ(r.out, both_in(box.root() / "elsewhere/config"));
}

TEST(ConfigLoggingSwitch, IsReadOncePerProcessAndRetriedAfterAnError) {
  ConfigSandbox box;
  box.write_config("logging:\n  ik_diagnostics: true\n");
  auto r = box.run("logging_switches_read_once");
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_EQ(r.out, "1010\n");  // ik on, planning off (default), both unchanged after the edit
  box.write_config("logging: {ik_diagnostics: maybe}\n");
  r = box.run("logging_switch_retries_after_error");
  ASSERT_EQ(r.exit_code, 0) << r.describe();
  EXPECT_EQ(r.out, "1\n");
  EXPECT_THAT(r.err, StartsWith("Failed to read logging.ik_diagnostics at " +
                                box.config_path().string() + ": "));
}
