// SPDX-License-Identifier: MIT
#include "common/FrameSyntax.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <ctime>

namespace wcantool {
namespace {

constexpr char kHexDigits[] = "0123456789ABCDEF";

int hexValue(char c) {
  if (c >= '0' && c <= '9')
    return c - '0';
  if (c >= 'a' && c <= 'f')
    return c - 'a' + 10;
  if (c >= 'A' && c <= 'F')
    return c - 'A' + 10;
  return -1;
}

bool parseHexId(std::string_view digits, uint32_t &id) {
  id = 0;
  for (char c : digits) {
    int v = hexValue(c);
    if (v < 0)
      return false;
    id = id << 4 | static_cast<uint32_t>(v);
  }
  return true;
}

} // namespace

bool parseHexNumber(std::string_view digits, size_t maxDigits, uint32_t &out) {
  return !digits.empty() && digits.size() <= maxDigits && parseHexId(digits, out);
}

namespace {

bool fail(std::string &error, std::string message) {
  error = std::move(message);
  return false;
}

// Data bytes as pairs of hex digits, optionally separated by single dots.
bool parseData(std::string_view text, unsigned maxLen, Frame &out, std::string &error) {
  size_t pos = 0;
  unsigned len = 0;
  while (pos < text.size()) {
    if (text[pos] == '.') {
      ++pos;
      continue;
    }
    if (pos + 1 >= text.size())
      return fail(error, "odd number of hex digits in the data");
    int hi = hexValue(text[pos]);
    int lo = hexValue(text[pos + 1]);
    if (hi < 0 || lo < 0)
      return fail(error, "data must be hex digits");
    if (len == maxLen)
      return fail(error, "more than " + std::to_string(maxLen) + " data bytes");
    out.data[len++] = static_cast<uint8_t>(hi << 4 | lo);
    pos += 2;
  }
  out.len = static_cast<uint8_t>(len);
  return true;
}

bool parseRemote(std::string_view text, Frame &out, std::string &error) {
  out.remote = true;
  if (text.size() == 1)
    return true;
  if (text.size() != 2 || text[1] < '0' || text[1] > '8')
    return fail(error, "a remote frame takes one length digit 0..8 after R");
  out.len = static_cast<uint8_t>(text[1] - '0');
  return true;
}

void appendHexByte(std::string &s, uint8_t b) {
  s += kHexDigits[b >> 4];
  s += kHexDigits[b & 0xF];
}

} // namespace

bool operator==(const Frame &a, const Frame &b) {
  return a.id == b.id && a.extended == b.extended && a.remote == b.remote && a.fd == b.fd &&
         a.brs == b.brs && a.len == b.len &&
         (a.remote || std::equal(a.data.begin(), a.data.begin() + a.len, b.data.begin()));
}

bool isFdLength(unsigned len) {
  switch (len) {
  case 12:
  case 16:
  case 20:
  case 24:
  case 32:
  case 48:
  case 64:
    return true;
  default:
    return len <= 8;
  }
}

bool parseFrame(std::string_view text, Frame &out, std::string &error) {
  out = Frame{};
  size_t hash = text.find('#');
  if (hash == std::string_view::npos)
    return fail(error, "missing '#' after the id");
  if (hash != 3 && hash != 8)
    return fail(error, "the id must be 3 hex digits (standard) or 8 (extended)");
  if (!parseHexId(text.substr(0, hash), out.id))
    return fail(error, "the id must be hex digits");
  out.extended = hash == 8;
  uint32_t maxId = out.extended ? kMaxExtendedId : kMaxStandardId;
  if (out.id > maxId)
    return fail(error, out.extended ? "an extended id is at most 1FFFFFFF"
                                    : "a standard id is at most 7FF");
  std::string_view rest = text.substr(hash + 1);
  if (!rest.empty() && rest[0] == '#') {
    if (rest.size() < 2 || hexValue(rest[1]) < 0)
      return fail(error, "'##' must be followed by one hex flag digit");
    out.fd = true;
    out.brs = (static_cast<unsigned>(hexValue(rest[1])) & kTextFlagBrs) != 0;
    if (!parseData(rest.substr(2), kMaxFdLen, out, error))
      return false;
    if (!isFdLength(out.len))
      return fail(error, "a CAN FD frame carries 0..8, 12, 16, 20, 24, 32, 48 or 64 bytes");
    return true;
  }
  if (!rest.empty() && (rest[0] == 'R' || rest[0] == 'r'))
    return parseRemote(rest, out, error);
  return parseData(rest, kMaxClassicLen, out, error);
}

std::string formatFrame(const Frame &frame) {
  char id[12];
  std::snprintf(id, sizeof id, frame.extended ? "%08X" : "%03X",
                frame.id & (frame.extended ? kMaxExtendedId : kMaxStandardId));
  std::string s = id;
  s += '#';
  if (frame.fd) {
    s += '#';
    s += kHexDigits[frame.brs ? kTextFlagBrs : 0];
  } else if (frame.remote) {
    s += 'R';
    if (frame.len > 0 && frame.len <= kMaxClassicLen)
      s += static_cast<char>('0' + frame.len);
    return s;
  }
  unsigned len = std::min<unsigned>(frame.len, frame.fd ? kMaxFdLen : kMaxClassicLen);
  for (unsigned i = 0; i < len; ++i)
    appendHexByte(s, frame.data[i]);
  return s;
}

LogTime logTimeNow() {
  timespec ts{};
  clock_gettime(CLOCK_REALTIME, &ts);
  return {static_cast<uint64_t>(ts.tv_sec), static_cast<uint32_t>(ts.tv_nsec / 1000)};
}

LogTime logTimeOf(int64_t epochUs) {
  const int64_t us = std::max<int64_t>(0, epochUs);
  return {static_cast<uint64_t>(us / 1000000), static_cast<uint32_t>(us % 1000000)};
}

int64_t epochUsOf(LogTime time) {
  return static_cast<int64_t>(time.seconds) * 1000000 + time.micros % 1000000u;
}

std::string formatLogLine(LogTime time, std::string_view ifname, const Frame &frame) {
  char stamp[40];
  std::snprintf(stamp, sizeof stamp, "(%010llu.%06u) ",
                static_cast<unsigned long long>(time.seconds), time.micros % 1000000u);
  std::string line = stamp;
  line.append(ifname);
  line += ' ';
  line += formatFrame(frame);
  return line;
}

std::string interfaceName(unsigned devType, unsigned devIndex, unsigned channel) {
  return "wcan" + std::to_string(devType) + "-" + std::to_string(devIndex) + "-" +
         std::to_string(channel);
}

Frame fromCanObj(const _WCAN_CAN_OBJ &obj) {
  Frame f;
  f.extended = obj.externFlag != 0;
  f.id = obj.id & (f.extended ? kMaxExtendedId : kMaxStandardId);
  f.remote = obj.remoteFlag != 0;
  f.len = std::min<uint8_t>(obj.dataLen, kMaxClassicLen);
  if (!f.remote)
    std::memcpy(f.data.data(), obj.data, f.len);
  return f;
}

Frame fromCanFdObj(const _WCAN_CANFD_OBJ &obj) {
  Frame f;
  f.fd = true;
  f.extended = obj.externFlag != 0;
  f.id = obj.id & (f.extended ? kMaxExtendedId : kMaxStandardId);
  f.brs = (obj.fdFlags & WCAN_FDFLAG_BRS) != 0;
  f.len = std::min<uint8_t>(obj.dataLen, kMaxFdLen);
  std::memcpy(f.data.data(), obj.data, f.len);
  return f;
}

namespace {

// The fields both record kinds share; a remote frame carries no data.
template <typename Obj> Obj toRecord(const Frame &frame, uint8_t maxLen) {
  Obj obj{};
  obj.id = frame.id;
  obj.externFlag = frame.extended ? 1 : 0;
  obj.remoteFlag = frame.remote ? 1 : 0;
  obj.dataLen = std::min<uint8_t>(frame.len, maxLen);
  if (!frame.remote)
    std::memcpy(obj.data, frame.data.data(), obj.dataLen);
  return obj;
}

} // namespace

_WCAN_CAN_OBJ toCanObj(const Frame &frame) {
  return toRecord<_WCAN_CAN_OBJ>(frame, kMaxClassicLen);
}

_WCAN_CANFD_OBJ toCanFdObj(const Frame &frame) {
  _WCAN_CANFD_OBJ obj = toRecord<_WCAN_CANFD_OBJ>(frame, kMaxFdLen);
  obj.fdFlags = static_cast<unsigned char>((frame.fd ? WCAN_FDFLAG_FDF : 0u) |
                                           (frame.brs ? WCAN_FDFLAG_BRS : 0u));
  return obj;
}

} // namespace wcantool
