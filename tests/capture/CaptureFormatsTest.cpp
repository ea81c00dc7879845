// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

#include "capture/CandumpLog.h"
#include "capture/Pcapng.h"

namespace wcantool::capture {
namespace {

Frame frame(uint32_t id, bool extended, bool remote, bool fd, bool brs, uint8_t len) {
  Frame f{id, extended, remote, fd, brs, len};
  for (unsigned i = 0; i < len && !remote; ++i)
    f.data[i] = static_cast<uint8_t>(0xA0 + i);
  return f;
}

// Every kind of frame: classic and CAN FD, with and without bit-rate switch,
// both id widths, remote frames and every length.
std::vector<Frame> everyKind() {
  std::vector<Frame> frames;
  for (uint8_t len = 0; len <= 8; ++len)
    frames.push_back(frame(0x100 + len, len % 2 != 0, false, false, false, len));
  frames.push_back(frame(0x7FF, false, true, false, false, 3));
  frames.push_back(frame(0x1FFFFFFF, true, true, false, false, 0));
  for (uint8_t len : {0, 5, 8, 12, 16, 20, 24, 32, 48, 64})
    frames.push_back(frame(len % 3 == 0 ? 0x18FEF100u + len : 0x200u + len, len % 3 == 0, false,
                           true, len % 2 == 0, len));
  return frames;
}

std::vector<uint8_t> capture(const std::vector<Frame> &frames) {
  std::vector<uint8_t> file;
  appendSectionHeader(file, "test");
  appendInterface(file, {"wcan41-0-0", "500 kbit/s"});
  appendInterface(file, {"wcan41-0-1", "500 kbit/s"});
  for (size_t i = 0; i < frames.size(); ++i)
    appendPacket(file, static_cast<uint32_t>(i % 2), 1700000000000000 + 250 * i, frames[i],
                 i % 3 ? Direction::Inbound : Direction::Outbound);
  return file;
}

TEST(Pcapng, ReadsBackEveryFrameKindWithItsInterfaceTimeAndDirection) {
  const std::vector<Frame> frames = everyKind();
  const std::vector<uint8_t> file = capture(frames);
  PcapngReader reader(file.data(), file.size());
  Packet p;
  for (size_t i = 0; i < frames.size(); ++i) {
    ASSERT_EQ(reader.next(p), PcapngReader::Result::Packet) << i << ": " << reader.error();
    EXPECT_EQ(p.frame, frames[i]) << i;
    EXPECT_EQ(p.interface, i % 2);
    EXPECT_EQ(p.timeUs, static_cast<int64_t>(1700000000000000 + 250 * i));
    EXPECT_EQ(p.direction, i % 3 ? Direction::Inbound : Direction::Outbound);
  }
  EXPECT_EQ(reader.next(p), PcapngReader::Result::End);
  EXPECT_EQ(reader.interfaces().at(1).info.name, "wcan41-0-1");
}

TEST(Pcapng, PacketsKeepSocketCanSizesAndFlags) {
  uint8_t out[kFdPacketSize];
  EXPECT_EQ(encodeSocketCan(frame(0x12345678, true, true, false, false, 2), out), 16u);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 6),
            (std::vector<uint8_t>{0xD2, 0x34, 0x56, 0x78, 2, 0}));
  EXPECT_EQ(encodeSocketCan(frame(0x123, false, false, true, true, 12), out), 72u);
  EXPECT_EQ(std::vector<uint8_t>(out, out + 6), (std::vector<uint8_t>{0, 0, 1, 0x23, 12, 0x05}));
}

// Each case damages a two-frame capture; the reader names the block and what
// is wrong, and tells whether the rest can still be read.
TEST(Pcapng, NamesTheBlockAndTheFaultOfBadInput) {
  const std::vector<Frame> two = {frame(0x1, false, false, false, false, 1),
                                  frame(0x2, false, false, false, false, 2)};
  const std::vector<uint8_t> good = capture(two);
  const size_t shb = 28 + 8 + 4;           // with its "test" option
  const size_t idb = 20 + 16 + 16 + 8 + 4; // name, description, tsresol
  const size_t packet1 = shb + 2 * idb;    // block 4
  const size_t body1 = packet1 + 8;
  struct Case {
    const char *name;
    std::function<void(std::vector<uint8_t> &)> damage;
    const char *message;
    uint64_t block;
    bool fatal;
  };
  auto put32 = [](std::vector<uint8_t> &f, size_t at, uint32_t v) { std::memcpy(&f[at], &v, 4); };
  const Case cases[] = {
      {"not pcapng", [](auto &f) { f[0] = '('; }, "does not begin with a section header", 1, true},
      {"byte order", [](auto &f) { f[8] = 0; }, "unknown byte-order magic", 1, true},
      {"version", [&](auto &f) { f[12] = 2; }, "version 2.0 is not supported", 1, true},
      {"truncated", [](auto &f) { f.resize(f.size() - 10); }, "truncated", 5, true},
      {"header cut", [](auto &f) { f.resize(f.size() - 56); }, "bytes left", 5, true},
      {"odd length", [&](auto &f) { put32(f, packet1 + 4, 61); }, "not a multiple of 4", 4, true},
      {"lengths differ", [&](auto &f) { put32(f, packet1 + 56, 64); }, "at the end", 4, true},
      {"unknown interface", [&](auto &f) { put32(f, body1, 7); }, "section describes 2", 4, false},
      {"captured too long", [&](auto &f) { put32(f, body1 + 12, 200); }, "runs past", 4, false},
      {"short packet", [&](auto &f) { put32(f, body1 + 12, 4); }, "shorter than the CAN header", 4,
       false},
      {"classic length", [&](auto &f) { f[body1 + 20 + 4] = 9; }, "classic length", 4, false},
      {"data cut", [&](auto &f) { put32(f, body1 + 12, 8); }, "only 0 data bytes", 4, false},
      {"standard id", [&](auto &f) { f[body1 + 20 + 2] = 0x10; }, "above 0x7FF", 4, false},
      {"fd length",
       [&](auto &f) {
         f[body1 + 20 + 5] = 0x04;
         f[body1 + 20 + 4] = 9;
       },
       "CAN FD length", 4, false},
      {"fd remote",
       [&](auto &f) {
         f[body1 + 20] = 0x40;
         f[body1 + 20 + 5] = 0x04;
       },
       "cannot be a remote frame", 4, false},
      {"can xl", [&](auto &f) { f[body1 + 20 + 4] = 0x80; }, "CAN XL", 4, false},
      {"option", [&](auto &f) { f[body1 + 20 + 16 + 2] = 40; }, "option runs past", 4, false},
      {"link type", [&](auto &f) { f[shb + 8] = 1; }, "link type 1, not CAN", 4, false},
      {"tsresol", [&](auto &f) { f[shb + idb - 12] = 30; }, "resolution out of range", 2, false},
  };
  for (const Case &c : cases) {
    std::vector<uint8_t> file = good;
    c.damage(file);
    PcapngReader reader(file.data(), file.size());
    Packet p;
    PcapngReader::Result r;
    while ((r = reader.next(p)) != PcapngReader::Result::Bad && r != PcapngReader::Result::End) {
    }
    ASSERT_EQ(r, PcapngReader::Result::Bad) << c.name;
    EXPECT_NE(reader.error().find(c.message), std::string::npos)
        << c.name << ": " << reader.error();
    EXPECT_EQ(reader.error().rfind("block " + std::to_string(c.block) + " (offset ", 0), 0u)
        << c.name << ": " << reader.error();
    EXPECT_EQ(reader.fatal(), c.fatal) << c.name;
    // Past a bad packet the next one still reads; past broken framing nothing does.
    const auto after = reader.next(p);
    EXPECT_EQ(after == PcapngReader::Result::End, c.fatal || c.block == 5) << c.name;
  }
}

TEST(CandumpLog, ReadsLogLinesAndNamesWhatIsWrongWithBadOnes) {
  LogRecord r;
  std::string error;
  ASSERT_TRUE(parseLogLine("(1700000000.123456) wcan41-0-1 456##1AABB T\r", r, error)) << error;
  EXPECT_EQ(r.timeUs, 1700000000123456);
  EXPECT_EQ(r.bus, "wcan41-0-1");
  EXPECT_TRUE(r.frame.fd && r.frame.brs && r.frame.len == 2);
  EXPECT_EQ(r.direction, Direction::Outbound);
  ASSERT_TRUE(parseLogLine("(12.5) can0 123#R", r, error)) << error;
  EXPECT_EQ(r.timeUs, 12500000);
  EXPECT_EQ(formatLogRecord(1700000000000042, "can0", r.frame), "(1700000000.000042) can0 123#R");

  const std::pair<const char *, const char *> bad[] = {
      {"1700000000.1 can0 123#00", "starts with a time stamp"},
      {"(1700000000.1 can0 123#00", "no closing parenthesis"},
      {"(17x.1) can0 123#00", "(SECONDS.MICROSECONDS)"},
      {"(1.1234567890) can0 123#00", "(SECONDS.MICROSECONDS)"},
      {"(1.1) can0", "a time stamp, an interface and a frame"},
      {"(1.1) can0 12#00", "bad frame '12#00'"},
      {"(1.1) can0 123#00 X", "unexpected 'X'"},
      {"(1.1) can0 123#00 T more", "unexpected text"},
  };
  for (const auto &[line, message] : bad) {
    EXPECT_FALSE(parseLogLine(line, r, error)) << line;
    EXPECT_NE(error.find(message), std::string::npos) << line << ": " << error;
  }
}

} // namespace
} // namespace wcantool::capture
