// SPDX-License-Identifier: MIT
// Lines of a `candump -L` log, the text twin of a capture file:
//   (1700000000.123456) can0 123#DEADBEEF
// optionally followed by " R" (received) or " T" (sent), as newer candump
// versions mark them. The frame uses the syntax of common/FrameSyntax.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "capture/Pcapng.h"
#include "common/FrameSyntax.h"

namespace wcantool::capture {

struct LogRecord {
  int64_t timeUs = 0;   // epoch microseconds
  std::string_view bus; // points into the parsed line
  Frame frame;
  Direction direction = Direction::Unknown;
};

// Parses one line (without its line end); false with the reason.
bool parseLogLine(std::string_view line, LogRecord &out, std::string &error);

// "(1700000000.123456) wcan41-0-1 123#DEADBEEF", without a line end.
std::string formatLogRecord(int64_t epochUs, std::string_view bus, const Frame &frame);

} // namespace wcantool::capture
