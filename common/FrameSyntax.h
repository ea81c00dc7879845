// SPDX-License-Identifier: MIT
// Frame text in the syntax of the common Linux CAN command line tools, shared by
// every subcommand of `wcan`: `cansend` frames in, `candump -L` log lines out,
// so that logs written by one tool feed the others.
//
//   123#DEADBEEF      standard id, 0..8 data bytes ('.' may separate bytes)
//   12345678#01.02    extended id (always 8 hex digits)
//   123#R  123#R5     remote frame, optional length digit
//   123##1DEADBEEF    CAN FD: flag digit (1 = bit-rate switch), 0..64 bytes
#pragma once

#include <array>
#include <cstdint>
#include <string>
#include <string_view>

#include "wcan.h"

namespace wcantool {

struct Frame {
  uint32_t id = 0;
  bool extended = false;
  bool remote = false;
  bool fd = false;
  bool brs = false;
  uint8_t len = 0;
  std::array<uint8_t, 64> data{};
};

// Equal when id, format, flags, length and the first `len` data bytes agree.
bool operator==(const Frame &a, const Frame &b);
inline bool operator!=(const Frame &a, const Frame &b) { return !(a == b); }

constexpr uint32_t kMaxStandardId = 0x7FF;
constexpr uint32_t kMaxExtendedId = 0x1FFFFFFF;
constexpr unsigned kMaxClassicLen = 8;
constexpr unsigned kMaxFdLen = 64;

// The flag digit after "##": bit-rate switch and error state indicator.
constexpr unsigned kTextFlagBrs = 0x1;
constexpr unsigned kTextFlagEsi = 0x2;

// CAN FD frames carry 0..8, 12, 16, 20, 24, 32, 48 or 64 bytes.
bool isFdLength(unsigned len);

// Hexadecimal digits of either case, most significant first; false for an
// empty text, a text of more than `maxDigits` or any other character.
bool parseHexNumber(std::string_view digits, size_t maxDigits, uint32_t &out);

// Parses one frame in `cansend` syntax. On failure returns false and says why.
bool parseFrame(std::string_view text, Frame &out, std::string &error);

// The frame in `cansend` syntax, as `candump -L` prints it (upper-case hex).
std::string formatFrame(const Frame &frame);

// Host time of a received frame.
struct LogTime {
  uint64_t seconds = 0;
  uint32_t micros = 0;
};
LogTime logTimeNow();
// The same instant as epoch microseconds, and back.
LogTime logTimeOf(int64_t epochUs);
int64_t epochUsOf(LogTime time);

// "(1700000000.123456) IFNAME 123#DEADBEEF", without a line end.
std::string formatLogLine(LogTime time, std::string_view ifname, const Frame &frame);

// The interface name used in log lines for one adapter channel.
std::string interfaceName(unsigned devType, unsigned devIndex, unsigned channel);

// Conversions to and from the library's frame records. A record taken from the
// CAN FD queue is a CAN FD frame; a CAN FD frame is sent with the FDF bit.
Frame fromCanObj(const _WCAN_CAN_OBJ &obj);
Frame fromCanFdObj(const _WCAN_CANFD_OBJ &obj);
_WCAN_CAN_OBJ toCanObj(const Frame &frame);
_WCAN_CANFD_OBJ toCanFdObj(const Frame &frame);

} // namespace wcantool
