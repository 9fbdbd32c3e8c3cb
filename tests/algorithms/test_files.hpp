// Scratch files for in-process tests of the readers that take an explicit path.
#pragma once

#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <string>

namespace kestrel::testing {

class TempDir {
 public:
  TempDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "kestrel-test-XXXXXX").string();
    path_ = mkdtemp(pattern.data());
  }
  ~TempDir() {
    std::error_code ec;
    std::filesystem::remove_all(path_, ec);
  }
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
