#include "simbus/simbus_testing.hpp"

#include <stdlib.h>

#include <cerrno>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include "simbus/simbus_paths.hpp"

namespace kestrel::simbus {

namespace {

std::optional<std::string> current_directory_variable() {
  const char* value = std::getenv(kDirectoryEnv);
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

void remove_directory(const std::string& path) {
  std::error_code ignored;
  std::filesystem::remove_all(path, ignored);
}

}  // namespace

ScopedSimbus::ScopedSimbus(std::vector<std::string> interfaces, HubOptions options)
    : previous_dir_(current_directory_variable()) {
  const char* tmp = std::getenv("TMPDIR");
  std::string directory = (tmp != nullptr && tmp[0] != '\0') ? tmp : "/tmp";
  directory += "/kestrel-simbus-test-XXXXXX";
  if (::mkdtemp(directory.data()) == nullptr) {
    throw std::runtime_error("ScopedSimbus: mkdtemp " + directory + ": " + std::strerror(errno));
  }
  options.directory = directory;
  try {
    hub_ = std::make_unique<Hub>(std::move(interfaces), std::move(options));
    hub_->start();
  } catch (...) {
    remove_directory(directory);
    throw;
  }
  ::setenv(kDirectoryEnv, directory.c_str(), 1);
}

ScopedSimbus::~ScopedSimbus() {
  const std::string directory = hub_->directory();
  hub_.reset();
  remove_directory(directory);
  if (previous_dir_) {
    ::setenv(kDirectoryEnv, previous_dir_->c_str(), 1);
  } else {
    ::unsetenv(kDirectoryEnv);
  }
}

}  // namespace kestrel::simbus
