// Shared by the fuzz targets (one source file each): a quiet standard error, input written to a
// scratch file for the readers that only take paths, readers' refusals as an empty answer, and a
// check that stops the run with its reason.
#pragma once

#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <iostream>
#include <optional>
#include <stdexcept>
#include <streambuf>
#include <string>

namespace kestrel::fuzz {

// The input in a file, for the readers that only take paths: one file per process under $TMPDIR
// (or /tmp), removed at exit.
inline const std::string& write_scratch(const uint8_t* data, size_t size) {
  static const std::string path = [] {
    const char* tmp = std::getenv("TMPDIR");
    std::atexit([] { std::remove(path.c_str()); });
    return std::string(tmp != nullptr && *tmp != '\0' ? tmp : "/tmp") + "/kestrel-fuzz-" +
           std::to_string(::getpid()) + ".input";
  }();
  std::ofstream(path, std::ios::binary | std::ios::trunc)
      .write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(size));
  return path;
}

// What a reader returns, or nothing when it throws std::runtime_error (yaml-cpp's errors
// included).
template <typename Read>
auto attempt(Read read) -> std::optional<decltype(read())> {
  try {
    return read();
  } catch (const std::runtime_error&) {
    return std::nullopt;
  }
}

[[noreturn]] inline void fail(const char* file, int line, const char* what) {
  std::fprintf(stderr, "%s:%d: fuzz check failed: %s\n", file, line, what);
  std::abort();
}

}  // namespace kestrel::fuzz

// The parsers warn on standard error for many inputs; millions of such lines slow the run down
// and bury libFuzzer's own report. Sanitizer reports do not go through std::cerr.
extern "C" int LLVMFuzzerInitialize(int*, char***) {
  struct NullBuffer : std::streambuf {
    int overflow(int c) override { return c; }
  };
  static NullBuffer null;
  std::cerr.rdbuf(&null);
  return 0;
}

// A property every input must keep; a violation aborts, and libFuzzer keeps the input.
#define FUZZ_CHECK(condition)                                \
  do {                                                       \
    if (!(condition)) {                                      \
      ::kestrel::fuzz::fail(__FILE__, __LINE__, #condition); \
    }                                                        \
  } while (0)
