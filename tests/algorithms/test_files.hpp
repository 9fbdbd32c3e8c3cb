// Scratch files for in-process tests of the readers that take an explicit path.
#pragma once

#include <filesystem>
#include <fstream>
#include <string>

#include "simbus/scratch_directory.hpp"

namespace kestrel::testing {

class TempDir {
 public:
  TempDir() : path_(simbus::make_scratch_directory("kestrel-test-")) {}
  ~TempDir() { simbus::remove_scratch_directory(path_.string()); }
  TempDir(const TempDir&) = delete;
  TempDir& operator=(const TempDir&) = delete;

  // Writes `name` inside the directory and returns its path as a string.
  std::string write(const std::string& name, const std::string& contents) const {
    const std::filesystem::path file = path_ / name;
    std::ofstream(file, std::ios::trunc) << contents;
    return file.string();
  }
  const std::filesystem::path& path() const { return path_; }

 private:
  std::filesystem::path path_;
};

}  // namespace kestrel::testing
