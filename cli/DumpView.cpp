// SPDX-License-Identifier: MIT
#include "cli/DumpView.h"

#include <cctype>
#include <cstdio>
#include <ctime>

#include "common/Args.h"

namespace wcantool {
namespace {

constexpr uint32_t kEffFlag = 0x80000000u;
constexpr uint32_t kRtrFlag = 0x40000000u;
constexpr uint32_t kErrFlag = 0x20000000u;
constexpr size_t kExtendedDigits = 8;

uint32_t parseFilterNumber(std::string_view digits, std::string_view filter, const char *what) {
  uint32_t v = 0;
  if (!parseHexNumber(digits, kExtendedDigits, v))
    throw UsageError{"bad --filter '" + std::string(filter) + "': the " + what +
                     " must be 1 to 8 hex digits"};
  return v;
}

std::string seconds(int64_t us, const char *format) {
  char text[48];
  std::snprintf(text, sizeof text, format, static_cast<long long>(us / 1000000),
                static_cast<long long>(us % 1000000));
  return text;
}

std::string dateAndTime(int64_t epochUs) {
  const time_t secs = static_cast<time_t>(epochUs / 1000000);
  tm local{};
  localtime_r(&secs, &local);
  char date[32];
  std::strftime(date, sizeof date, "%Y-%m-%d %H:%M:%S", &local);
  char text[48];
  std::snprintf(text, sizeof text, "(%s.%06lld) ", date, static_cast<long long>(epochUs % 1000000));
  return text;
}

void appendData(std::string &line, const Frame &frame) {
  char byte[4];
  for (unsigned i = 0; i < frame.len; ++i) {
    std::snprintf(byte, sizeof byte, i == 0 ? "%02X" : " %02X", frame.data[i]);
    line += byte;
  }
}

void appendAscii(std::string &line, const Frame &frame, size_t dataStart) {
  // Classic frames align their column on 8 bytes; CAN FD frames follow their data.
  const size_t width = frame.fd ? 0 : kMaxClassicLen * 3 - 1;
  if (line.size() - dataStart < width)
    line.append(width - (line.size() - dataStart), ' ');
  line += "   '";
  for (unsigned i = 0; i < frame.len; ++i)
    line += std::isprint(frame.data[i]) ? static_cast<char>(frame.data[i]) : '.';
  line += '\'';
}

} // namespace

IdFilter parseIdFilter(std::string_view text) {
  const size_t split = text.find_first_of(":~");
  if (split == std::string_view::npos)
    throw UsageError{"bad --filter '" + std::string(text) + "': write ID:MASK or ID~MASK"};
  IdFilter f;
  f.id = parseFilterNumber(text.substr(0, split), text, "id");
  f.mask = parseFilterNumber(text.substr(split + 1), text, "mask") & ~kErrFlag;
  f.inverted = text[split] == '~';
  if (split == kExtendedDigits)
    f.id |= kEffFlag;
  return f;
}

uint32_t socketCanId(const Frame &frame) {
  return frame.id | (frame.extended ? kEffFlag : 0) | (frame.remote ? kRtrFlag : 0);
}

bool FrameFilter::passes(const Frame &frame) const {
  if (filters_.empty())
    return true;
  const uint32_t id = socketCanId(frame);
  for (const IdFilter &f : filters_)
    if (((id & f.mask) == (f.id & f.mask)) != f.inverted)
      return true;
  return false;
}

StampMode parseStampMode(std::string_view text) {
  if (text == "a")
    return StampMode::Absolute;
  if (text == "d")
    return StampMode::Delta;
  if (text == "z")
    return StampMode::Relative;
  if (text == "A")
    return StampMode::Date;
  throw UsageError{"-t takes a (absolute), d (delta), z (relative to the first frame) or A "
                   "(date and time), not '" +
                   std::string(text) + "'"};
}

std::string FrameView::stamp(int64_t epochUs) {
  if (!first_)
    first_ = epochUs;
  const int64_t previous = previous_.value_or(epochUs);
  previous_ = epochUs;
  switch (stamps_) {
  case StampMode::None:
    return "";
  case StampMode::Absolute:
    return seconds(epochUs, "(%010lld.%06lld) ");
  case StampMode::Delta:
    return seconds(epochUs - previous, "(%03lld.%06lld) ");
  case StampMode::Relative:
    return seconds(epochUs - *first_, "(%03lld.%06lld) ");
  case StampMode::Date:
    return dateAndTime(epochUs);
  }
  return "";
}

std::string FrameView::line(int64_t epochUs, std::string_view ifname, const Frame &frame) {
  std::string line = stamp(epochUs);
  char head[48];
  std::snprintf(head, sizeof head, frame.extended ? " %08X" : " %03X", frame.id);
  line += ' ';
  line.append(ifname);
  line += ' ';
  line += head;
  std::snprintf(head, sizeof head, frame.fd ? "  [%02u]  " : "   [%u]  ", frame.len);
  line += head;
  if (frame.remote) {
    line += "remote request";
    return line;
  }
  const size_t dataStart = line.size();
  appendData(line, frame);
  if (ascii_)
    appendAscii(line, frame, dataStart);
  return line;
}

} // namespace wcantool
