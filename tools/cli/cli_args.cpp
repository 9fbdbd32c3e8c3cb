#include "cli_args.hpp"

#include <cmath>
#include <cstdlib>
#include <sstream>

namespace kestrel::cli {

Args::Args(const std::vector<std::string>& words, const std::set<std::string>& valued,
           const std::set<std::string>& flags) {
  for (size_t i = 0; i < words.size(); ++i) {
    std::string word = words[i];
    if (word == "-h") {
      word = "--help";
    }
    if (word.size() < 2 || word[0] != '-' || (word.size() > 1 && std::isdigit(word[1]) != 0)) {
      positional_.push_back(word);  // "-0.5" is a number, not an option
      continue;
    }
    std::string name = word;
    std::optional<std::string> inline_value;
    if (const auto eq = word.find('='); eq != std::string::npos) {
      name = word.substr(0, eq);
      inline_value = word.substr(eq + 1);
    }
    if (flags.count(name) != 0 && !inline_value) {
      flags_.insert(name);
    } else if (valued.count(name) != 0) {
      if (inline_value) {
        values_[name] = *inline_value;
      } else if (i + 1 < words.size()) {
        values_[name] = words[++i];
      } else {
        throw UsageError(name + " needs a value");
      }
    } else {
      throw UsageError("unknown option " + word);
    }
  }
}

std::string Args::text(const std::string& name, const std::string& fallback) const {
  const auto it = values_.find(name);
  return it == values_.end() ? fallback : it->second;
}

double parse_number(const std::string& text, const std::string& what) {
  char* end = nullptr;
  const double value = std::strtod(text.c_str(), &end);
  if (text.empty() || end == nullptr || *end != '\0' || !std::isfinite(value)) {
    throw UsageError(what + " needs a finite number, not \"" + text + "\"");
  }
  return value;
}

std::vector<double> parse_number_list(const std::string& text, const std::string& what) {
  std::string spaced = text;
  for (char& c : spaced) {
    if (c == ',') {
      c = ' ';
    }
  }
  std::istringstream in(spaced);
  std::vector<double> out;
  std::string word;
  while (in >> word) {
    out.push_back(parse_number(word, what));
  }
  return out;
}

double Args::number(const std::string& name, double fallback, double low, double high) const {
  if (!has(name)) {
    return fallback;
  }
  const double value = parse_number(text(name, ""), name);
  if (value < low || value > high) {
    std::ostringstream message;
    message << name << " must be between " << low << " and " << high << ", not " << value;
    throw UsageError(message.str());
  }
  return value;
}

std::vector<double> Args::numbers(const std::string& name, size_t count) const {
  const auto values = parse_number_list(text(name, ""), name);
  if (values.size() != count) {
    throw UsageError(name + " needs " + std::to_string(count) +
                     " numbers separated by commas, got " + std::to_string(values.size()));
  }
  return values;
}

}  // namespace kestrel::cli
