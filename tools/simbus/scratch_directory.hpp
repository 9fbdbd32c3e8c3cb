// Scratch directories for tests that are removed even when the process ends through exit():
// a death test's child re-runs the test's fixtures and then leaves through the code under
// test's std::exit(1), so destructors never run there. Each directory is remembered with the
// process that made it, so a forked child never removes its parent's directories.
#pragma once

#include <stdlib.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace kestrel::simbus {

namespace scratch_detail {

struct Registry {
  std::mutex mutex;
  std::vector<std::pair<pid_t, std::string>> directories;
};

inline void remove_quietly(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

inline void remove_own_at_exit();

inline Registry& registry() {
  // Never destroyed: the exit handler may run after static destructors.
  static Registry* const instance = [] {
    auto* made = new Registry;
    std::atexit(remove_own_at_exit);
    return made;
  }();
  return *instance;
}

inline void remove_own_at_exit() {
  Registry& r = registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  for (const auto& [owner, path] : r.directories) {
    if (owner == ::getpid())
      remove_quietly(path);
  }
  r.directories.clear();
}

}  // namespace scratch_detail

// Makes "<$TMPDIR or /tmp>/<prefix>XXXXXX" and returns its path.
inline std::string make_scratch_directory(const std::string& prefix) {
  const char* tmp = std::getenv("TMPDIR");
  std::string path = (tmp != nullptr && tmp[0] != '\0') ? tmp : "/tmp";
  path += "/" + prefix + "XXXXXX";
  if (::mkdtemp(path.data()) == nullptr) {
    throw std::runtime_error("mkdtemp " + path + ": " + std::strerror(errno));
  }
  scratch_detail::Registry& r = scratch_detail::registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  r.directories.emplace_back(::getpid(), path);
  return path;
}

// Removes the directory now and forgets it.
inline void remove_scratch_directory(const std::string& path) {
  scratch_detail::remove_quietly(path);
  scratch_detail::Registry& r = scratch_detail::registry();
  std::lock_guard<std::mutex> lock(r.mutex);
  for (auto it = r.directories.begin(); it != r.directories.end(); ++it) {
    if (it->second == path) {
      r.directories.erase(it);
      break;
    }
  }
}

}  // namespace kestrel::simbus
