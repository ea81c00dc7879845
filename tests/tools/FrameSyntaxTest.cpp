#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "FrameSyntax.h"

namespace wcantool {
namespace {

Frame frame(uint32_t id, bool extended, std::vector<uint8_t> data) {
  Frame f;
  f.id = id;
  f.extended = extended;
  f.len = static_cast<uint8_t>(data.size());
  std::copy(data.begin(), data.end(), f.data.begin());
  return f;
}

Frame remote(uint32_t id, bool extended, uint8_t len) {
  Frame f = frame(id, extended, {});
  f.remote = true;
  f.len = len;
  return f;
}

Frame fdFrame(uint32_t id, bool extended, bool brs, std::vector<uint8_t> data) {
  Frame f = frame(id, extended, std::move(data));
  f.fd = true;
  f.brs = brs;
  return f;
}

struct ParseCase {
  const char *text;
  Frame expected;
  const char *printed; // how the frame prints back
};

TEST(FrameSyntax, ParsesAndPrintsEveryFrameKind) {
  const std::vector<ParseCase> cases = {
      {"123#DEADBEEF", frame(0x123, false, {0xDE, 0xAD, 0xBE, 0xEF}), "123#DEADBEEF"},
      {"123#", frame(0x123, false, {}), "123#"},
      {"7ff#de.ad.be.ef", frame(0x7FF, false, {0xDE, 0xAD, 0xBE, 0xEF}), "7FF#DEADBEEF"},
      {"001#0102030405060708", frame(0x1, false, {1, 2, 3, 4, 5, 6, 7, 8}), "001#0102030405060708"},
      {"12345678#01.02", frame(0x12345678, true, {1, 2}), "12345678#0102"},
      {"00000001#", frame(0x1, true, {}), "00000001#"},
      {"1FFFFFFF#R", remote(0x1FFFFFFF, true, 0), "1FFFFFFF#R"},
      {"123#R", remote(0x123, false, 0), "123#R"},
      {"123#r8", remote(0x123, false, 8), "123#R8"},
      {"456##0", fdFrame(0x456, false, false, {}), "456##0"},
      {"456##1001122", fdFrame(0x456, false, true, {0x00, 0x11, 0x22}), "456##1001122"},
      {"456##3AA", fdFrame(0x456, false, true, {0xAA}), "456##1AA"}, // ESI is not kept
      {"0ABCDEF0##2", fdFrame(0x0ABCDEF0, true, false, {}), "0ABCDEF0##0"},
  };
  for (const ParseCase &c : cases) {
    Frame f;
    std::string error;
    ASSERT_TRUE(parseFrame(c.text, f, error)) << c.text << ": " << error;
    EXPECT_EQ(f, c.expected) << c.text;
    EXPECT_EQ(formatFrame(f), c.printed) << c.text;
  }
}

TEST(FrameSyntax, CanFdLengthsUpTo64) {
  for (unsigned len : {12u, 16u, 20u, 24u, 32u, 48u, 64u}) {
    std::string text = "100##1";
    for (unsigned i = 0; i < len; ++i)
      text += (i % 2 ? "A5" : "5A");
    Frame f;
    std::string error;
    ASSERT_TRUE(parseFrame(text, f, error)) << len << ": " << error;
    EXPECT_EQ(f.len, len);
    EXPECT_EQ(formatFrame(f), text);
  }
}

TEST(FrameSyntax, RejectsMalformedFrames) {
  const char *bad[] = {
      "",                         // nothing
      "123",                      // no '#'
      "12#00",                    // id of 2 digits
      "1234#00",                  // id of 4 digits
      "800#00",                   // standard id above 7FF
      "20000000#00",              // extended id above 1FFFFFFF
      "12G#00",                   // not hex
      "123#0",                    // odd digit count
      "123#0G",                   // not hex data
      "123#010203040506070809",   // 9 bytes classic
      "123#R9",                   // remote length above 8
      "123#R12",                  // two length digits
      "123##",                    // no flag digit
      "123##X00",                 // flag not hex
      "123##1000102030405060708", // 9 bytes: no CAN FD length
      "123##1"
      "00112233445566778899AABBCCDDEEFF00112233445566778899AABBCCDDEEFF"
      "00", // 65 bytes
  };
  for (const char *text : bad) {
    Frame f;
    std::string error;
    EXPECT_FALSE(parseFrame(text, f, error)) << "'" << text << "' was accepted";
    EXPECT_FALSE(error.empty()) << text;
  }
}

TEST(FrameSyntax, LogLineHasCandumpLayout) {
  Frame f = frame(0x123, false, {0xDE, 0xAD});
  EXPECT_EQ(formatLogLine({1700000000, 123456}, "can0", f), "(1700000000.123456) can0 123#DEAD");
  // Seconds are padded to 10 digits and microseconds to 6, as candump does.
  EXPECT_EQ(formatLogLine({42, 7}, "wcan4-0-1", remote(0x1, true, 0)),
            "(0000000042.000007) wcan4-0-1 00000001#R");
  EXPECT_EQ(interfaceName(41, 0, 1), "wcan41-0-1");
}

TEST(FrameSyntax, ClassicRecordConversionKeepsFormatAndMasksToFormat) {
  _WCAN_CAN_OBJ obj = toCanObj(frame(0x12345678, true, {1, 2, 3}));
  EXPECT_EQ(obj.id, 0x12345678u);
  EXPECT_EQ(obj.externFlag, 1);
  EXPECT_EQ(obj.remoteFlag, 0);
  EXPECT_EQ(obj.dataLen, 3);
  EXPECT_EQ(obj.data[2], 3);
  EXPECT_EQ(fromCanObj(obj), frame(0x12345678, true, {1, 2, 3}));

  _WCAN_CAN_OBJ rtr = toCanObj(remote(0x7FF, false, 5));
  EXPECT_EQ(rtr.remoteFlag, 1);
  EXPECT_EQ(rtr.dataLen, 5);
  EXPECT_EQ(fromCanObj(rtr), remote(0x7FF, false, 5));

  // A received record with a length beyond 8 and stray id bits stays printable.
  _WCAN_CAN_OBJ odd{};
  odd.id = 0xFFFFF123;
  odd.dataLen = 15;
  Frame f = fromCanObj(odd);
  EXPECT_EQ(f.id, 0x123u);
  EXPECT_EQ(f.len, 8);
}

TEST(FrameSyntax, CanFdRecordFlags) {
  struct Case {
    Frame frame;
    unsigned char fdFlags;
  };
  const Case cases[] = {
      {fdFrame(0x100, false, false, {1}), WCAN_FDFLAG_FDF},
      {fdFrame(0x100, false, true, {1}), WCAN_FDFLAG_FDF | WCAN_FDFLAG_BRS},
      {frame(0x100, false, {1}), 0},
  };
  for (const Case &c : cases) {
    _WCAN_CANFD_OBJ obj = toCanFdObj(c.frame);
    EXPECT_EQ(obj.fdFlags, c.fdFlags);
    EXPECT_EQ(obj.dataLen, c.frame.len);
  }
  // Received: the driver reports only the bit-rate switch; the queue says FD.
  _WCAN_CANFD_OBJ rx{};
  rx.id = 0x1ABCDEF0;
  rx.externFlag = 1;
  rx.fdFlags = WCAN_FDFLAG_BRS;
  rx.dataLen = 64;
  std::memset(rx.data, 0x5A, sizeof rx.data);
  Frame f = fromCanFdObj(rx);
  EXPECT_TRUE(f.fd);
  EXPECT_TRUE(f.brs);
  EXPECT_TRUE(f.extended);
  EXPECT_EQ(f.len, 64);
  EXPECT_EQ(f.data[63], 0x5A);
  rx.dataLen = 200;
  EXPECT_EQ(fromCanFdObj(rx).len, 64);
}

TEST(FrameSyntax, EqualityIgnoresBytesBeyondLength) {
  Frame a = frame(0x1, false, {1, 2});
  Frame b = a;
  b.data[5] = 0xFF;
  EXPECT_EQ(a, b);
  b.data[1] = 0xFF;
  EXPECT_NE(a, b);
  Frame ra = remote(0x1, false, 2);
  Frame rb = ra;
  rb.data[0] = 0xFF; // a remote frame carries no data
  EXPECT_EQ(ra, rb);
}

} // namespace
} // namespace wcantool
