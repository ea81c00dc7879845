// SPDX-License-Identifier: MIT
#include "capture/CandumpLog.h"

#include <algorithm>

namespace wcantool::capture {
namespace {

constexpr size_t kMaxSecondDigits = 12;
constexpr size_t kMaxFractionDigits = 9;

bool fail(std::string &error, std::string why) {
  error = std::move(why);
  return false;
}

bool allDigits(std::string_view s) {
  for (char c : s)
    if (c < '0' || c > '9')
      return false;
  return !s.empty();
}

int64_t decimal(std::string_view digits) {
  int64_t v = 0;
  for (char c : digits)
    v = v * 10 + (c - '0');
  return v;
}

// "1700000000.123456": seconds and up to nine fraction digits.
bool parseStamp(std::string_view text, int64_t &us, std::string &error) {
  const size_t dot = text.find('.');
  const std::string_view seconds = text.substr(0, dot);
  const std::string_view fraction =
      dot == std::string_view::npos ? std::string_view{} : text.substr(dot + 1);
  if (!allDigits(seconds) || seconds.size() > kMaxSecondDigits ||
      (dot != std::string_view::npos &&
       (!allDigits(fraction) || fraction.size() > kMaxFractionDigits)))
    return fail(error,
                "the time stamp must be (SECONDS.MICROSECONDS), not (" + std::string(text) + ")");
  int64_t micros = 0;
  for (size_t i = 0; i < 6; ++i)
    micros = micros * 10 + (i < fraction.size() ? fraction[i] - '0' : 0);
  us = decimal(seconds) * 1000000 + micros;
  return true;
}

std::string_view nextWord(std::string_view &rest) {
  const size_t start = rest.find_first_not_of(' ');
  if (start == std::string_view::npos) {
    rest = {};
    return {};
  }
  rest.remove_prefix(start);
  const size_t end = std::min(rest.find(' '), rest.size());
  std::string_view word = rest.substr(0, end);
  rest.remove_prefix(end);
  return word;
}

} // namespace

bool parseLogLine(std::string_view line, LogRecord &out, std::string &error) {
  out = LogRecord{};
  while (!line.empty() && (line.back() == '\r' || line.back() == ' '))
    line.remove_suffix(1);
  if (line.empty() || line[0] != '(')
    return fail(error, "a log line starts with a time stamp in parentheses");
  const size_t close = line.find(')');
  if (close == std::string_view::npos)
    return fail(error, "the time stamp has no closing parenthesis");
  if (!parseStamp(line.substr(1, close - 1), out.timeUs, error))
    return false;
  std::string_view rest = line.substr(close + 1);
  out.bus = nextWord(rest);
  const std::string_view frame = nextWord(rest);
  if (out.bus.empty() || frame.empty())
    return fail(error, "a log line holds a time stamp, an interface and a frame");
  std::string why;
  if (!parseFrame(frame, out.frame, why))
    return fail(error, "bad frame '" + std::string(frame) + "': " + why);
  const std::string_view mark = nextWord(rest);
  if (mark == "T")
    out.direction = Direction::Outbound;
  else if (mark == "R")
    out.direction = Direction::Inbound;
  else if (!mark.empty())
    return fail(error, "unexpected '" + std::string(mark) + "' after the frame");
  if (!nextWord(rest).empty())
    return fail(error, "unexpected text after the frame");
  return true;
}

std::string formatLogRecord(int64_t epochUs, std::string_view bus, const Frame &frame) {
  const int64_t us = std::max<int64_t>(epochUs, 0);
  LogTime time{static_cast<uint64_t>(us / 1000000), static_cast<uint32_t>(us % 1000000)};
  return formatLogLine(time, bus, frame);
}

} // namespace wcantool::capture
