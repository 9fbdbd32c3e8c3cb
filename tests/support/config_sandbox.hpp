// ConfigSandbox: run library code against configuration files of a test's choosing.
//
// The library finds "robot_kinematics.yaml" and the URDF relative to its own file (dladdr) and
// caches settings once per process, so a configuration variant needs a separate process whose
// libkestrel lives in a tree that holds that variant. A sandbox is such a tree under the temporary
// directory:
//
//   <root>/kestrel_sdk/build/libkestrel.so.N   copy of the library this test binary uses
//   <root>/kestrel_sdk/src/config/...          copies of the shipped files, to be edited
//
// `run("name")` re-executes the current test binary with LD_LIBRARY_PATH pointing at the copy and
// runs the scenario registered under "name" there, before any test starts; the scenario's return
// value is the child's exit status. Code under test that ends the process itself (exit(1) after a
// configuration error) ends the child the same way. The parent gets exit status, standard output
// and standard error.
//
//   KESTREL_CONFIG_SCENARIO(print_config_path) {
//     std::cout << kestrel::algorithms::resolve_robot_kinematics_config_path();
//     return 0;
//   }
//   TEST(Config, FindsSandboxCopy) {
//     kestrel::testing::ConfigSandbox box;
//     box.write_config(box.shipped_config() + "\nlogging: {ik_diagnostics: true}\n");
//     const auto r = box.run("print_config_path");
//     EXPECT_EQ(r.exit_code, 0) << r.describe();
//   }
//
// Build: add ${CMAKE_SOURCE_DIR}/tests/support/config_sandbox.cpp to the test's SOURCES and link
// `kestrel` (the helper copies whichever libkestrel the binary loaded, sanitizer builds included).
// Set KESTREL_KEEP_SANDBOX=1 to keep the trees for inspection.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <utility>
#include <vector>

namespace kestrel::testing {

using ConfigScenario = int (*)(const std::vector<std::string>& args);

// Registers a child-side scenario; used by KESTREL_CONFIG_SCENARIO at namespace scope.
bool register_config_scenario(const char* name, ConfigScenario scenario);

// True in a child started by ConfigSandbox::run (for code that must behave differently there).
bool in_config_sandbox_child();

// For programs without gtest (benchmarks): in a sandbox child, runs the requested scenario and
// ends the process with its status; otherwise returns at once. Call it first thing in main().
void run_config_scenario_if_child();

struct ChildResult {
  int exit_code = -1;   // exit status, or -1 when the child was ended by a signal
  int term_signal = 0;  // the signal that ended it, else 0
  bool timed_out = false;
  std::string out;  // everything the child wrote to standard output
  std::string err;  // everything it wrote to standard error

  std::vector<std::string> err_lines() const;  // standard error split at newlines
  std::string describe() const;                // all of the above, for assertion messages
};

struct RunOptions {
  std::filesystem::path cwd;      // child's working directory; empty = the root
  std::vector<std::string> args;  // handed to the scenario
  std::vector<std::pair<std::string, std::string>> env;  // extra environment variables
  std::filesystem::path library_dir;  // LD_LIBRARY_PATH entry; empty = library_dir()
  std::chrono::seconds timeout{60};   // the child is killed after this
};

class ConfigSandbox {
 public:
  // `library_subdir`: where the library copy goes, relative to the root. `copy_shipped_files`:
  // whether the shipped robot_kinematics.yaml and URDF are copied into config_dir().
  explicit ConfigSandbox(const std::string& library_subdir = "kestrel_sdk/build",
                         bool copy_shipped_files = true);
  ~ConfigSandbox();
  ConfigSandbox(const ConfigSandbox&) = delete;
  ConfigSandbox& operator=(const ConfigSandbox&) = delete;

  const std::filesystem::path& root() const { return root_; }  // canonical
  std::filesystem::path config_dir() const;                    // <root>/kestrel_sdk/src/config
  std::filesystem::path config_path() const;                   // .../robot_kinematics.yaml
  std::filesystem::path urdf_path() const;                     // .../OspreyArm.SLDASM.urdf
  const std::filesystem::path& library_dir() const { return library_dir_; }
  const std::filesystem::path& library_path() const { return library_path_; }

  // Writes a file (parents created); a relative path is taken from the root.
  void write_file(const std::filesystem::path& path, const std::string& contents) const;
  void write_config(const std::string& yaml) const { write_file(config_path(), yaml); }

  ChildResult run(const std::string& scenario, const RunOptions& options = {}) const;

  // The shipped files, as found by the library this binary loaded.
  static std::string shipped_config();
  static std::string shipped_urdf();

 private:
  std::filesystem::path root_;
  std::filesystem::path library_dir_;
  std::filesystem::path library_path_;
};

// `yaml` with the top-level section `section` (its key line and every following indented, blank
// or comment line) replaced by `replacement`; an empty replacement removes the section, and a
// missing section is appended. Plain text editing, so comments elsewhere survive.
std::string replace_yaml_section(const std::string& yaml, const std::string& section,
                                 const std::string& replacement);

}  // namespace kestrel::testing

#define KESTREL_CONFIG_SCENARIO(name)                                                       \
  static int kestrel_config_scenario_##name(const std::vector<std::string>& args);          \
  [[maybe_unused]] static const bool kestrel_config_scenario_registered_##name =            \
      ::kestrel::testing::register_config_scenario(#name, &kestrel_config_scenario_##name); \
  static int kestrel_config_scenario_##name([[maybe_unused]] const std::vector<std::string>& args)
