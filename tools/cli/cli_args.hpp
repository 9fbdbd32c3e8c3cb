// Command-line arguments of the kestrel tool: "--name value" options, "--flag" switches and
// positional words, with numbers and number lists checked as they are read. Every mistake is a
// UsageError whose text says what was expected.
#pragma once

#include <map>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <vector>

namespace kestrel::cli {

struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

class Args {
 public:
  // `valued` options take the next word; `flags` take none. Anything else starting with "-" is
  // an error; "-h" is "--help".
  Args(const std::vector<std::string>& words, const std::set<std::string>& valued,
       const std::set<std::string>& flags);

  bool flag(const std::string& name) const { return flags_.count(name) != 0; }
  bool has(const std::string& name) const { return values_.count(name) != 0; }
  std::string text(const std::string& name, const std::string& fallback) const;
  // A finite number in [low, high]; `fallback` when the option is absent.
  double number(const std::string& name, double fallback, double low, double high) const;
  // Exactly `count` finite numbers separated by commas (or white space).
  std::vector<double> numbers(const std::string& name, size_t count) const;
  const std::vector<std::string>& positional() const { return positional_; }

 private:
  std::map<std::string, std::string> values_;
  std::set<std::string> flags_;
  std::vector<std::string> positional_;
};

// Parses a finite double from all of `text`; `what` names it in the error.
double parse_number(const std::string& text, const std::string& what);
// Splits "a,b,c" (commas or blanks) into finite doubles.
std::vector<double> parse_number_list(const std::string& text, const std::string& what);

}  // namespace kestrel::cli
