// sim and monitor: the companion programs, found beside this one (installed) or in their build
// folders, started in this process's place.
#include <dlfcn.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <stdexcept>

#include "commands.hpp"

namespace kestrel::cli {

namespace {

std::string executable_directory() {
  char path[PATH_MAX];
  const ssize_t length = ::readlink("/proc/self/exe", path, sizeof(path) - 1);
  if (length <= 0) {
    return ".";
  }
  const std::string self(path, static_cast<size_t>(length));
  return self.substr(0, self.rfind('/'));
}

std::string find_companion(const std::string& program, const std::string& build_folder) {
  const std::string here = executable_directory();
  for (const std::string& candidate :
       {here + "/" + program, here + "/../" + build_folder + "/" + program}) {
    if (::access(candidate.c_str(), X_OK) == 0) {
      return candidate;
    }
  }
  throw std::runtime_error("cannot find " + program + " beside " + here);
}

int exec_companion(const std::string& path, const Words& words) {
  std::vector<char*> argv{const_cast<char*>(path.c_str())};
  for (const auto& w : words) {
    argv.push_back(const_cast<char*>(w.c_str()));
  }
  argv.push_back(nullptr);
  std::fflush(stdout);
  ::execv(path.c_str(), argv.data());
  std::fprintf(stderr, "kestrel: cannot run %s: %s\n", path.c_str(), std::strerror(errno));
  return 1;
}

}  // namespace

int command_sim(const Words& words) {
  // No options: serve the bus and the arm on simcan0, as the examples expect.
  const Words args = words.empty() ? Words{"--serve"} : words;
  return exec_companion(find_companion("kestrel-sim", "sim"), args);
}

int command_monitor(const Words& words) {
  // This program carries the userspace-bus interposer; the monitor does not, so it gets it
  // through LD_PRELOAD and sees simulated interfaces as well as kernel ones.
  Dl_info info{};
  if (::dladdr(reinterpret_cast<void*>(&::socket), &info) != 0 && info.dli_fname != nullptr &&
      std::strstr(info.dli_fname, "kestrel_simbus_preload") != nullptr) {
    std::string preload = info.dli_fname;
    if (const char* existing = std::getenv("LD_PRELOAD"); existing != nullptr && *existing) {
      preload += ":" + std::string(existing);
    }
    ::setenv("LD_PRELOAD", preload.c_str(), 1);
    // An AddressSanitizer build insists on coming first in the preload list.
    std::string asan_options = "verify_asan_link_order=0";
    if (const char* existing = std::getenv("ASAN_OPTIONS"); existing != nullptr && *existing) {
      asan_options = std::string(existing) + ":" + asan_options;
    }
    ::setenv("ASAN_OPTIONS", asan_options.c_str(), 1);
  }
  return exec_companion(find_companion("kestrel-monitor", "monitor"), words);
}

}  // namespace kestrel::cli
