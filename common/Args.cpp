// SPDX-License-Identifier: MIT
#include "common/Args.h"

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <iterator>

namespace wcantool {

namespace {

// "-x" or "-xVALUE": a short option, as the Linux CAN tools take them. A
// lone "-" and negative numbers stay positionals.
bool isShortOption(const std::string &arg) {
  return arg.size() >= 2 && arg[0] == '-' && arg[1] != '-' &&
         std::isalpha(static_cast<unsigned char>(arg[1]));
}

} // namespace

Args::Args(const std::vector<std::string> &argv, const std::vector<OptionSpec> &options) {
  bool optionsEnded = false;
  for (size_t i = 0; i < argv.size(); ++i) {
    const std::string &arg = argv[i];
    if (!optionsEnded && arg == "--") {
      optionsEnded = true;
      continue;
    }
    const bool shortOption = !optionsEnded && isShortOption(arg);
    if (!shortOption && (optionsEnded || arg.size() < 3 || arg.compare(0, 2, "--") != 0)) {
      positionals_.push_back(arg);
      continue;
    }
    // A short option's value may follow it directly ("-tz"); a long one's after '='.
    size_t eq = shortOption ? (arg.size() > 2 ? 2 : std::string::npos) : arg.find('=');
    std::string name = arg.substr(0, eq);
    auto spec = std::find_if(options.begin(), options.end(),
                             [&](const OptionSpec &o) { return name == o.name; });
    if (spec == options.end())
      throw UsageError{"unknown option " + name};
    std::string value;
    if (spec->takesValue) {
      if (eq != std::string::npos)
        value = arg.substr(shortOption ? eq : eq + 1);
      else if (i + 1 < argv.size())
        value = argv[++i];
      else
        throw UsageError{"option " + name + " needs a value"};
    } else if (eq != std::string::npos) {
      throw UsageError{"option " + name + " takes no value"};
    }
    values_.emplace(name, value);
  }
}

void Args::expectPositionals(size_t min, size_t max) const {
  if (positionals_.size() < min)
    throw UsageError{"missing arguments"};
  if (positionals_.size() > max)
    throw UsageError{"unexpected argument " + positionals_[max]};
}

std::optional<std::string> Args::value(const std::string &name) const {
  auto range = values_.equal_range(name);
  if (range.first == range.second)
    return std::nullopt;
  return std::prev(range.second)->second;
}

std::vector<std::string> Args::values(const std::string &name) const {
  std::vector<std::string> out;
  auto range = values_.equal_range(name);
  for (auto it = range.first; it != range.second; ++it)
    out.push_back(it->second);
  return out;
}

namespace {

bool hexPrefixed(std::string_view text) {
  return text.size() > 1 && text[0] == '0' && (text[1] == 'x' || text[1] == 'X');
}

// Limits are echoed in the base the user wrote the number in.
std::string inBase(unsigned long long v, bool hex, const char *prefix) {
  if (!hex)
    return std::to_string(v);
  char text[24];
  std::snprintf(text, sizeof text, "%s%llX", prefix, v);
  return text;
}

unsigned long long parseInBase(std::string_view text, const char *what, unsigned long long min,
                               unsigned long long max, int base, const char *prefix) {
  std::string s(text);
  bool digitsOnly = !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
    return std::isxdigit(static_cast<unsigned char>(c)) || c == 'x' || c == 'X';
  });
  char *end = nullptr;
  errno = 0;
  unsigned long long v = digitsOnly ? std::strtoull(s.c_str(), &end, base) : 0;
  if (!digitsOnly || errno != 0 || end == s.c_str() || *end != '\0')
    throw UsageError{std::string(what) + " must be a number, not '" + s + "'"};
  const bool hex = base == 16 || hexPrefixed(text);
  if (v < min || v > max)
    throw UsageError{std::string(what) + " must be between " + inBase(min, hex, prefix) + " and " +
                     inBase(max, hex, prefix) + ", not " + s};
  return v;
}

} // namespace

unsigned long long parseNumber(std::string_view text, const char *what, unsigned long long min,
                               unsigned long long max) {
  return parseInBase(text, what, min, max, 0, "0x");
}

unsigned long long parseHex(std::string_view text, const char *what, unsigned long long min,
                            unsigned long long max) {
  return parseInBase(text, what, min, max, 16, "");
}

unsigned parseUnsigned(std::string_view text, const char *what, unsigned min, unsigned max) {
  return static_cast<unsigned>(parseNumber(text, what, min, max));
}

double parseSeconds(std::string_view text, const char *what) {
  std::string s(text);
  const bool decimal = !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c)) || c == '.';
  });
  char *end = nullptr;
  const double v = decimal ? std::strtod(s.c_str(), &end) : 0;
  if (!decimal || end == s.c_str() || *end != '\0')
    throw UsageError{std::string(what) + " must be a number of seconds, not '" + s + "'"};
  if (v < 0.1 || v > 86400)
    throw UsageError{std::string(what) + " must be between 0.1 and 86400 seconds, not " + s};
  return v;
}

std::optional<std::string> takeSimOption(std::vector<std::string> &argv) {
  std::optional<std::string> spec;
  for (size_t i = 0; i < argv.size();) {
    if (argv[i] == "--")
      break;
    if (argv[i] == "--sim") {
      if (i + 1 >= argv.size())
        throw UsageError{"option --sim needs a value"};
      spec = argv[i + 1];
      argv.erase(argv.begin() + static_cast<long>(i), argv.begin() + static_cast<long>(i) + 2);
    } else if (argv[i].compare(0, 6, "--sim=") == 0) {
      spec = argv[i].substr(6);
      argv.erase(argv.begin() + static_cast<long>(i));
    } else {
      ++i;
    }
  }
  return spec;
}

} // namespace wcantool
