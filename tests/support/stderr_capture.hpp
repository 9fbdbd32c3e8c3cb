// Captures what a block of code writes to standard error (or output), for exact-text tests.
#pragma once

#include <gtest/gtest.h>

#include <iostream>
#include <string>

namespace kestrel::testing {

template <typename Fn>
std::string capture_stderr(Fn&& fn) {
  std::cerr.flush();
  ::testing::internal::CaptureStderr();
  fn();
  std::cerr.flush();
  return ::testing::internal::GetCapturedStderr();
}

template <typename Fn>
std::string capture_stdout(Fn&& fn) {
  std::cout.flush();
  ::testing::internal::CaptureStdout();
  fn();
  std::cout.flush();
  return ::testing::internal::GetCapturedStdout();
}

}  // namespace kestrel::testing
