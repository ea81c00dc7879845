// SPDX-License-Identifier: MIT
// Command line parsing for the `wcan` subcommands: positional arguments and
// "--name value" / "--name=value" options, checked against a list of known
// options, with number parsing that names the argument in its complaint.
#pragma once

#include <initializer_list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace wcantool {

// Bad arguments: the program prints the message and the usage, exits 2.
struct UsageError {
  std::string message;
};

// A failure at run time (device, library): the program prints it, exits 1.
struct ToolError {
  std::string message;
};

struct OptionSpec {
  const char *name; // with the leading "--", or "-" and one letter
  bool takesValue;
};

class Args {
public:
  Args(const std::vector<std::string> &argv, const std::vector<OptionSpec> &options);

  const std::vector<std::string> &positionals() const { return positionals_; }
  // Throws UsageError unless there are between min and max positionals.
  void expectPositionals(size_t min, size_t max) const;

  bool flag(const std::string &name) const { return values_.count(name) != 0; }
  // The last value given for an option, if any.
  std::optional<std::string> value(const std::string &name) const;
  // Every value given for a repeatable option, in order.
  std::vector<std::string> values(const std::string &name) const;

private:
  std::vector<std::string> positionals_;
  std::multimap<std::string, std::string> values_;
};

// Decimal or 0x-prefixed hexadecimal; throws UsageError naming `what`.
unsigned long long parseNumber(std::string_view text, const char *what, unsigned long long min,
                               unsigned long long max);
unsigned parseUnsigned(std::string_view text, const char *what, unsigned min, unsigned max);
// Hexadecimal with or without 0x, as CAN ids are written.
unsigned long long parseHex(std::string_view text, const char *what, unsigned long long min,
                            unsigned long long max);

// Seconds as a decimal number ("0.5"), 0.1 to 86400; throws UsageError.
double parseSeconds(std::string_view text, const char *what);

// Removes "--sim LIST" / "--sim=LIST" wherever it stands; returns the adapter list.
std::optional<std::string> takeSimOption(std::vector<std::string> &argv);

} // namespace wcantool
