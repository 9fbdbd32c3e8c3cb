#include "support/config_sandbox.hpp"

#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/mman.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <map>
#include <numeric>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "kestrel/algorithms/config_paths.hpp"

extern char** environ;

namespace kestrel::testing {
namespace {

constexpr const char* kScenarioEnv = "KESTREL_CONFIG_SANDBOX_SCENARIO";
constexpr const char* kRootEnv = "KESTREL_CONFIG_SANDBOX_ROOT";
constexpr const char* kArgCountEnv = "KESTREL_CONFIG_SANDBOX_ARGC";
constexpr const char* kArgEnvPrefix = "KESTREL_CONFIG_SANDBOX_ARG_";
constexpr const char* kEnvPrefix = "KESTREL_CONFIG_SANDBOX_";

std::map<std::string, ConfigScenario>& scenarios() {
  static std::map<std::string, ConfigScenario> registry;
  return registry;
}

// The file of the libkestrel this process actually loaded.
std::filesystem::path loaded_library() {
  Dl_info info{};
  const auto anchor = &kestrel::algorithms::resolve_robot_kinematics_config_path;
  if (dladdr(reinterpret_cast<const void*>(anchor), &info) == 0 || info.dli_fname == nullptr) {
    throw std::runtime_error("config_sandbox: dladdr cannot name libkestrel");
  }
  return std::filesystem::path(info.dli_fname);
}

std::string read_file(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    throw std::runtime_error("config_sandbox: cannot read " + path.string());
  }
  return {std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>()};
}

bool starts_with(const std::string& text, const std::string& prefix) {
  return text.compare(0, prefix.size(), prefix) == 0;
}

// Reads and unsets a variable of ours: processes the scenario starts must not take themselves for
// sandbox children.
std::string take_env(const std::string& key) {
  const char* value = std::getenv(key.c_str());
  const std::string text = value != nullptr ? value : "";
  unsetenv(key.c_str());
  return text;
}

// Child side: runs the requested scenario before the first test and ends the process with its
// status, so no test of the binary runs and nothing of gtest's reaches standard output.
[[noreturn]] void run_scenario_and_exit() {
  const std::string name = take_env(kScenarioEnv);
  const std::string root = take_env(kRootEnv);
  std::vector<std::string> args(std::max(0, std::atoi(take_env(kArgCountEnv).c_str())));
  for (std::size_t i = 0; i < args.size(); ++i) {
    args[i] = take_env(kArgEnvPrefix + std::to_string(i));
  }
  std::error_code ec;
  const std::string library = std::filesystem::canonical(loaded_library(), ec).string();
  if (root.empty() || !starts_with(library, root + "/")) {
    std::cerr << "[config_sandbox] libkestrel was loaded from " << library
              << ", not from the sandbox " << root
              << " (is the test binary linked with DT_RPATH instead of DT_RUNPATH?)\n";
    std::exit(97);
  }
  const auto found = scenarios().find(name);
  if (found == scenarios().end()) {
    std::cerr << "[config_sandbox] no scenario named '" << name << "' in this binary\n";
    std::exit(98);
  }
  int status = 0;
  try {
    status = found->second(args);
  } catch (const std::exception& e) {
    std::cerr << "[config_sandbox] scenario '" << name << "' threw: " << e.what() << '\n';
    status = 96;
  }
  std::exit(status);  // flushes both streams
}

class ScenarioDispatcher : public ::testing::EmptyTestEventListener {
  void OnTestProgramStart(const ::testing::UnitTest&) override { run_scenario_and_exit(); }
};

[[maybe_unused]] const bool dispatcher_installed = [] {
  if (std::getenv(kScenarioEnv) == nullptr) {
    return false;
  }
  ::testing::UnitTest::GetInstance()->listeners().Append(new ScenarioDispatcher);
  return true;
}();

}  // namespace

bool register_config_scenario(const char* name, ConfigScenario scenario) {
  return scenarios().emplace(name, scenario).second;
}

void run_config_scenario_if_child() {
  if (in_config_sandbox_child()) {
    run_scenario_and_exit();
  }
}

bool in_config_sandbox_child() {
  return dispatcher_installed;
}

std::vector<std::string> ChildResult::err_lines() const {
  std::vector<std::string> lines;
  std::istringstream in(err);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line);
  }
  return lines;
}

std::string ChildResult::describe() const {
  return "child exit_code=" + std::to_string(exit_code) + " signal=" + std::to_string(term_signal) +
         " timed_out=" + (timed_out ? "yes" : "no") + "\n--- stdout ---\n" + out +
         "\n--- stderr ---\n" + err;
}

ConfigSandbox::ConfigSandbox(const std::string& library_subdir, bool copy_shipped_files) {
  std::string pattern = (std::filesystem::temp_directory_path() / "kestrel-config-XXXXXX").string();
  if (mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("config_sandbox: mkdtemp failed: " +
                             std::string(std::strerror(errno)));
  }
  root_ = std::filesystem::canonical(pattern);

  const std::filesystem::path loaded = loaded_library();
  library_dir_ = root_ / library_subdir;
  std::filesystem::create_directories(library_dir_);
  // Keep the loaded name (the soname the executable asks for); copy the real file behind it.
  library_path_ = library_dir_ / loaded.filename();
  std::filesystem::copy_file(std::filesystem::canonical(loaded), library_path_);

  if (copy_shipped_files) {
    write_file(config_path(), shipped_config());
    write_file(urdf_path(), shipped_urdf());
  }
}

ConfigSandbox::~ConfigSandbox() {
  if (std::getenv("KESTREL_KEEP_SANDBOX") != nullptr) {
    std::cerr << "[config_sandbox] kept " << root_ << '\n';
    return;
  }
  std::error_code ec;
  std::filesystem::remove_all(root_, ec);
}

std::filesystem::path ConfigSandbox::config_dir() const {
  return root_ / "kestrel_sdk" / "src" / "config";
}

std::filesystem::path ConfigSandbox::config_path() const {
  return config_dir() / "robot_kinematics.yaml";
}

std::filesystem::path ConfigSandbox::urdf_path() const {
  return config_dir() / "OspreyArm.SLDASM.urdf";
}

void ConfigSandbox::write_file(const std::filesystem::path& path,
                               const std::string& contents) const {
  const std::filesystem::path full = path.is_absolute() ? path : root_ / path;
  std::filesystem::create_directories(full.parent_path());
  std::ofstream out(full, std::ios::binary | std::ios::trunc);
  out << contents;
  if (!out) {
    throw std::runtime_error("config_sandbox: cannot write " + full.string());
  }
}

std::string ConfigSandbox::shipped_config() {
  return read_file(kestrel::algorithms::resolve_robot_kinematics_config_path());
}

std::string ConfigSandbox::shipped_urdf() {
  return read_file(kestrel::algorithms::resolve_robot_urdf_path());
}

ChildResult ConfigSandbox::run(const std::string& scenario, const RunOptions& options) const {
  // Everything the child needs is prepared before fork: after it only async-signal-safe calls.
  const std::string exe = std::filesystem::read_symlink("/proc/self/exe").string();
  const std::string cwd = (options.cwd.empty() ? root_ : options.cwd).string();
  const std::string library_dir =
      (options.library_dir.empty() ? library_dir_ : options.library_dir).string();

  std::map<std::string, std::string> vars;  // ours from an earlier run left out
  for (char** entry = environ; *entry != nullptr; ++entry) {
    const std::string text(*entry);
    const std::size_t equals = std::min(text.find('='), text.size());
    if (!starts_with(text, kEnvPrefix)) {
      vars[text.substr(0, equals)] = text.substr(std::min(equals + 1, text.size()));
    }
  }
  std::string& path = vars["LD_LIBRARY_PATH"];
  path = library_dir + (path.empty() ? "" : ":" + path);
  vars[kScenarioEnv] = scenario;
  vars[kRootEnv] = root_.string();
  vars[kArgCountEnv] = std::to_string(options.args.size());
  for (std::size_t i = 0; i < options.args.size(); ++i) {
    vars[kArgEnvPrefix + std::to_string(i)] = options.args[i];
  }
  for (const auto& [key, value] : options.env) {
    vars[key] = value;
  }
  std::vector<std::string> env;
  for (const auto& [key, value] : vars) {
    env.push_back(key + "=" + value);
  }
  std::vector<char*> envp;
  for (auto& entry : env) {
    envp.push_back(entry.data());
  }
  envp.push_back(nullptr);
  std::string argv0 = exe;
  char* argv[] = {argv0.data(), nullptr};

  // The child's output goes to anonymous files, read once it has ended.
  const int sinks[2] = {memfd_create("sandbox-out", MFD_CLOEXEC),
                        memfd_create("sandbox-err", MFD_CLOEXEC)};
  if (sinks[0] < 0 || sinks[1] < 0) {
    throw std::runtime_error("config_sandbox: memfd_create failed");
  }
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid < 0) {
    throw std::runtime_error("config_sandbox: fork failed");
  }
  if (pid == 0) {
    dup2(sinks[0], STDOUT_FILENO);
    dup2(sinks[1], STDERR_FILENO);
    if (chdir(cwd.c_str()) != 0) {
      static const char message[] = "[config_sandbox] chdir failed\n";
      (void)!write(STDERR_FILENO, message, sizeof(message) - 1);
      _exit(126);
    }
    execve(exe.c_str(), argv, envp.data());
    _exit(127);
  }

  ChildResult result;
  // Waits on a pidfd where the kernel has them, else polls the child every 5 ms.
  const int pidfd = static_cast<int>(syscall(SYS_pidfd_open, pid, 0));
  const auto deadline = std::chrono::steady_clock::now() + options.timeout;
  int status = 0;
  bool reaped = false;
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        deadline - std::chrono::steady_clock::now());
    if (left.count() <= 0) {
      result.timed_out = true;
      kill(pid, SIGKILL);
      break;
    }
    if (pidfd >= 0) {
      pollfd ended{pidfd, POLLIN, 0};
      if (poll(&ended, 1, static_cast<int>(left.count())) > 0) {
        break;
      }
    } else if (waitpid(pid, &status, WNOHANG) == pid) {
      reaped = true;
      break;
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  if (pidfd >= 0) {
    close(pidfd);
  }
  while (!reaped && waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  std::string* texts[2] = {&result.out, &result.err};
  for (int i = 0; i < 2; ++i) {
    char buffer[4096];
    lseek(sinks[i], 0, SEEK_SET);
    for (ssize_t n; (n = read(sinks[i], buffer, sizeof(buffer))) > 0;) {
      texts[i]->append(buffer, static_cast<std::size_t>(n));
    }
    close(sinks[i]);
  }
  // gtest_main announces itself before any test code runs; that line is not the scenario's.
  const std::string banner = "Running main() from ";
  if (starts_with(result.out, banner)) {
    const std::size_t end = result.out.find('\n');
    result.out.erase(0, end == std::string::npos ? std::string::npos : end + 1);
  }
  if (WIFEXITED(status)) {
    result.exit_code = WEXITSTATUS(status);
  } else if (WIFSIGNALED(status)) {
    result.term_signal = WTERMSIG(status);
  }
  return result;
}

std::string replace_yaml_section(const std::string& yaml, const std::string& section,
                                 const std::string& replacement) {
  std::vector<std::string> lines;  // each with its newline
  std::istringstream in(yaml);
  for (std::string line; std::getline(in, line);) {
    lines.push_back(line + "\n");
  }
  const std::string body =
      replacement.empty() || replacement.back() == '\n' ? replacement : replacement + "\n";
  const auto begin = std::find_if(lines.begin(), lines.end(), [&](const std::string& line) {
    return starts_with(line, section + ":") &&
           std::strchr(" \n", line[section.size() + 1]) != nullptr;
  });
  if (begin == lines.end()) {
    return yaml + (yaml.empty() || yaml.back() == '\n' ? "" : "\n") + body;
  }
  auto end = std::find_if_not(begin + 1, lines.end(), [](const std::string& line) {
    return std::strchr(" \t#\n", line[0]) != nullptr;
  });
  // Blank lines and column-0 comments at the end introduce the next section: leave them.
  while (end > begin + 1 && std::strchr("#\n", (end - 1)->front()) != nullptr) {
    --end;
  }
  return std::accumulate(end, lines.end(),
                         std::accumulate(lines.begin(), begin, std::string()) + body);
}

}  // namespace kestrel::testing
