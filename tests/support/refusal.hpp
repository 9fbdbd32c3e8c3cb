// The message of the exception a call is expected to throw, for tables of exact refusals.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>

namespace kestrel::testing {

// The message of the `Error` that `call` throws, or "no exception".
template <typename Error = std::invalid_argument>
std::string refusal_of(const std::function<void()>& call) {
  try {
    call();
  } catch (const Error& e) {
    return e.what();
  }
  return "no exception";
}

}  // namespace kestrel::testing
