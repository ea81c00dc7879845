// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "common/FrameSyntax.h"

namespace wcantool {
namespace {

struct Kind {
  bool extended = false, remote = false, fd = false, brs = false;
};
constexpr Kind kStd{}, kExt{true}, kRemote{false, true}, kExtRemote{true, true};
constexpr Kind kFd{false, false, true}, kFdBrs{false, false, true, true}, kExtFd{true, false, true};

Frame frame(uint32_t id, Kind kind, std::vector<uint8_t> data, uint8_t remoteLen = 0) {
  const uint8_t len = kind.remote ? remoteLen : static_cast<uint8_t>(data.size());
  Frame f{id, kind.extended, kind.remote, kind.fd, kind.brs, len};
  std::copy(data.begin(), data.end(), f.data.begin());
  return f;
}

Frame parsed(const std::string &text) {
  Frame f;
  std::string error;
  EXPECT_TRUE(parseFrame(text, f, error)) << text << ": " << error;
  return f;
}

TEST(FrameSyntax, ParsesAndPrintsEveryFrameKind) {
  struct Case {
    const char *text;
    Frame expected;
    const char *printed;
  };
  const Case cases[] = {
      {"123#DEADBEEF", frame(0x123, kStd, {0xDE, 0xAD, 0xBE, 0xEF}), "123#DEADBEEF"},
      {"123#", frame(0x123, kStd, {}), "123#"},
      {"7ff#de.ad.be.ef", frame(0x7FF, kStd, {0xDE, 0xAD, 0xBE, 0xEF}), "7FF#DEADBEEF"},
      {"001#0102030405060708", frame(0x1, kStd, {1, 2, 3, 4, 5, 6, 7, 8}), "001#0102030405060708"},
      {"12345678#01.02", frame(0x12345678, kExt, {1, 2}), "12345678#0102"},
      {"00000001#", frame(0x1, kExt, {}), "00000001#"},
      {"1FFFFFFF#R", frame(0x1FFFFFFF, kExtRemote, {}), "1FFFFFFF#R"},
      {"123#R", frame(0x123, kRemote, {}), "123#R"},
      {"123#r8", frame(0x123, kRemote, {}, 8), "123#R8"},
      {"456##0", frame(0x456, kFd, {}), "456##0"},
      {"456##1001122", frame(0x456, kFdBrs, {0x00, 0x11, 0x22}), "456##1001122"},
      {"456##3AA", frame(0x456, kFdBrs, {0xAA}), "456##1AA"}, // ESI is not kept
      {"0ABCDEF0##2", frame(0x0ABCDEF0, kExtFd, {}), "0ABCDEF0##0"},
  };
  for (const Case &c : cases) {
    EXPECT_EQ(parsed(c.text), c.expected) << c.text;
    EXPECT_EQ(formatFrame(c.expected), c.printed) << c.text;
  }
  for (unsigned len : {12u, 16u, 20u, 24u, 32u, 48u, 64u}) {
    std::string text = "100##1";
    for (unsigned i = 0; i < len; ++i)
      text += i % 2 ? "A5" : "5A";
    EXPECT_EQ(parsed(text).len, len);
    EXPECT_EQ(formatFrame(parsed(text)), text);
  }
}

TEST(FrameSyntax, RejectsMalformedFrames) {
  // Shapes without '#', ids of 2 or 4 digits or beyond their format, bad hex,
  // odd digit counts, classic data or remote lengths beyond 8, missing or bad
  // flag digits, and CAN FD payloads of 9 or 65 bytes.
  std::vector<std::string> bad = {
      "",       "123",         "12#00", "1234#00",  "12G#00",
      "800#00", "20000000#00", "123#0", "123#0G",   "123#010203040506070809",
      "123#R9", "123#R12",     "123##", "123##X00", "123##1000102030405060708"};
  bad.push_back("123##1" + std::string(130, '0'));
  for (const std::string &text : bad) {
    Frame f;
    std::string error;
    EXPECT_FALSE(parseFrame(text, f, error)) << "'" << text << "' was accepted";
    EXPECT_FALSE(error.empty()) << text;
  }
}

TEST(FrameSyntax, LogLineHasCandumpLayout) {
  EXPECT_EQ(formatLogLine({1700000000, 123456}, "can0", frame(0x123, kStd, {0xDE, 0xAD})),
            "(1700000000.123456) can0 123#DEAD");
  // Seconds are padded to 10 digits and microseconds to 6, as candump does.
  EXPECT_EQ(formatLogLine({42, 7}, "wcan4-0-1", frame(0x1, kExtRemote, {})),
            "(0000000042.000007) wcan4-0-1 00000001#R");
  EXPECT_EQ(interfaceName(41, 0, 1), "wcan41-0-1");
}

// The round trips through the adapters are checked by the command line checks;
// here what only hostile records or the flag bits can show.
TEST(FrameSyntax, RecordConversionKeepsFlagsAndBoundsReceivedRecords) {
  const Frame classic[] = {frame(0x12345678, kExt, {1, 2, 3}), frame(0x7FF, kRemote, {}, 5)};
  for (const Frame &f : classic) {
    EXPECT_EQ(toCanObj(f).remoteFlag, f.remote ? 1 : 0);
    EXPECT_EQ(fromCanObj(toCanObj(f)), f);
  }
  EXPECT_EQ(toCanFdObj(frame(0x100, kFd, {1})).fdFlags, WCAN_FDFLAG_FDF);
  EXPECT_EQ(toCanFdObj(frame(0x100, kFdBrs, {1})).fdFlags, WCAN_FDFLAG_FDF | WCAN_FDFLAG_BRS);
  EXPECT_EQ(toCanFdObj(frame(0x100, kStd, {1})).fdFlags, 0);

  _WCAN_CAN_OBJ odd{};
  odd.id = 0xFFFFF123;
  odd.dataLen = 15;
  EXPECT_EQ(fromCanObj(odd), frame(0x123, kStd, std::vector<uint8_t>(8)));
  // Received: the driver reports only the bit-rate switch; the queue says FD.
  _WCAN_CANFD_OBJ rx{};
  rx.id = 0xFABCDEF0;
  rx.externFlag = 1;
  rx.fdFlags = WCAN_FDFLAG_BRS;
  rx.dataLen = 200;
  std::memset(rx.data, 0x5A, sizeof rx.data);
  EXPECT_EQ(fromCanFdObj(rx),
            frame(0x1ABCDEF0, {true, false, true, true}, std::vector<uint8_t>(64, 0x5A)));
}

TEST(FrameSyntax, EqualityIgnoresBytesBeyondLength) {
  Frame a = frame(0x1, kStd, {1, 2});
  Frame b = a;
  b.data[5] = 0xFF;
  EXPECT_EQ(a, b);
  b.data[1] = 0xFF;
  EXPECT_NE(a, b);
  Frame ra = frame(0x1, kRemote, {}, 2);
  Frame rb = ra;
  rb.data[0] = 0xFF; // a remote frame carries no data
  EXPECT_EQ(ra, rb);
}

} // namespace
} // namespace wcantool
