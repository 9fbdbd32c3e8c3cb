#include "simbus/simbus_testing.hpp"

#include <stdlib.h>

#include "simbus/scratch_directory.hpp"
#include "simbus/simbus_paths.hpp"

namespace kestrel::simbus {

namespace {

std::optional<std::string> current_directory_variable() {
  const char* value = std::getenv(kDirectoryEnv);
  return value == nullptr ? std::nullopt : std::optional<std::string>(value);
}

}  // namespace

ScopedSimbus::ScopedSimbus(std::vector<std::string> interfaces, HubOptions options)
    : previous_dir_(current_directory_variable()) {
  const std::string directory = make_scratch_directory("kestrel-simbus-test-");
  options.directory = directory;
  try {
    hub_ = std::make_unique<Hub>(std::move(interfaces), std::move(options));
    hub_->start();
  } catch (...) {
    remove_scratch_directory(directory);
    throw;
  }
  ::setenv(kDirectoryEnv, directory.c_str(), 1);
}

ScopedSimbus::~ScopedSimbus() {
  const std::string directory = hub_->directory();
  hub_.reset();
  remove_scratch_directory(directory);
  if (previous_dir_) {
    ::setenv(kDirectoryEnv, previous_dir_->c_str(), 1);
  } else {
    ::unsetenv(kDirectoryEnv);
  }
}

}  // namespace kestrel::simbus
