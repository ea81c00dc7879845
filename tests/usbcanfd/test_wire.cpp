// Byte layouts of the CAN FD adapter: command frames, transmit batches and
// the receive stream parser, without any USB.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "devices/usbcanfd/UsbCanFdWire.h"

using namespace usbcanfd;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes bytesOf(const CmdFrame &frame) {
  return Bytes(frame.bytes.begin(), frame.bytes.begin() + frame.len);
}

struct CommandCase {
  const char *name;
  CmdFrame frame;
  Bytes expected;
};

TEST(UsbCanFdWire, CommandFramesHaveTheirExactBytes) {
  const uint8_t payload[100] = {1, 2, 3};
  const CommandCase cases[] = {
      {"version", encodeQuery(kCmdVersion), {0x55, 0x01, 0x01, 0x01}},
      {"version2", encodeQuery(kCmdVersion2), {0x55, 0x12, 0x01, 0x01}},
      {"board", encodeQuery(kCmdBoard), {0x55, 0x13, 0x01, 0x01}},
      {"start ch3", encodeChannelCmd(kCmdStart, 3), {0x55, 0x0E, 0x02, 0x00, 0x30}},
      {"stop ch7", encodeChannelCmd(kCmdStop, 7), {0x55, 0x0F, 0x02, 0x00, 0x70}},
      {"status ch2", encodeStatusQuery(2), {0x55, 0x16, 0x21, 0x00}},
      {"filter ext",
       encodeFilter(FilterSub::ExtendedRange, 1, 0x1FFFFFFF, 0x12345678),
       {0x55, 0x04, 0x0A, 0x03, 0x10, 0xFF, 0xFF, 0xFF, 0x1F, 0x78, 0x56, 0x34, 0x12}},
      {"filter clear",
       encodeFilter(FilterSub::Clear, 0, 0, 0),
       {0x55, 0x04, 0x0A, 0x01, 0x00, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"raw short", encodeRawExchange(payload, 3), {0x12, 0xA7, 1, 2, 3}},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(bytesOf(c.frame), c.expected) << c.name;
  }
  EXPECT_EQ(encodeRawExchange(payload, 100).len, 64) << "payload capped at 62 bytes";
}

TEST(UsbCanFdWire, BaudInitSplitsBothTimingWords) {
  // 0x01400106: prescaler-1 = 5, sjw 0, tseg2-1 = 1, tseg1-1 = 6.
  // 0x12345678: prescaler-1 = 0x48, sjw 0x68, tseg2-1 = 0x56, tseg1-1 = 0x78.
  const Bytes expected = {0x55, 0x03, 0x05, 0x01, 0xAA, 0xBB, 60, 0,    0x05, 0x00, 0x00, 0x06,
                          0x00, 0x01, 0x00, 80,   0,    0x48, 0,  0x68, 0x78, 0x00, 0x56, 0x00};
  EXPECT_EQ(bytesOf(encodeBaudInit(5, 0xAA, 0xBB, 60, 80, 0x01400106, 0x12345678)), expected);
}

struct TimingCase {
  unsigned devType;
  uint32_t abitRate, dbitRate;
  bool aFound, dFound;
  uint32_t aWord, dWord;
  uint8_t clock;
};

TEST(UsbCanFdWire, VariantsSelectUsbIdsChannelsAndTimingTables) {
  EXPECT_EQ(variantFor(41).vendorId, 0x3068);
  EXPECT_EQ(variantFor(42).productId, 0x0009);
  EXPECT_EQ(variantFor(43).channelCount, 2);
  EXPECT_EQ(variantFor(64).productId, 0x3014);
  EXPECT_EQ(variantFor(65).productId, 0x2014);
  EXPECT_EQ(variantFor(65).channelCount, 4);
  EXPECT_EQ(variantFor(66).productId, 0x2018);
  EXPECT_EQ(variantFor(67).productId, 0x3018);
  EXPECT_EQ(variantFor(67).channelCount, 8);
  EXPECT_EQ(variantFor(66).vendorId, 0x0471);

  const TimingCase cases[] = {
      {64, 1000000, 5000000, true, true, 0x01400106, 0x00800001, 60},
      {67, 1000000, 5000000, true, true, 0x00C0030E, 0x00400005, 80},
      {66, 50000, 4000000, true, true, 0x13C0030E, 0x00400106, 80},
      {41, 800000, 2000000, true, true, 0x0100020A, 0x00800106, 60},
      {41, 83333, 83333, false, false, 0, 0, 60},
      {41, 0, 0, false, false, 0, 0, 60},
      {41, 2000000, 50000, false, true, 0, 0x1DC00106, 60}, // data-only rate
  };
  for (const auto &c : cases) {
    const UsbCanFdVariant &v = variantFor(c.devType);
    uint32_t a = 0, d = 0;
    EXPECT_EQ(lookupTiming(v.clock->arbitration, c.abitRate, a), c.aFound) << c.devType;
    EXPECT_EQ(lookupTiming(v.clock->data, c.dbitRate, d), c.dFound) << c.devType;
    if (c.aFound) {
      EXPECT_EQ(a, c.aWord);
    }
    if (c.dFound) {
      EXPECT_EQ(d, c.dWord);
    }
    EXPECT_EQ(v.clock->clockMHz, c.clock);
  }
}

_WCAN_CAN_OBJ canObj(uint32_t id, uint8_t len, uint8_t ext = 0, uint8_t remote = 0) {
  _WCAN_CAN_OBJ o{};
  o.id = id;
  o.dataLen = len;
  o.externFlag = ext;
  o.remoteFlag = remote;
  o.sendType = 0xF3;
  for (int i = 0; i < 8; ++i)
    o.data[i] = static_cast<uint8_t>(0xA0 + i);
  return o;
}

TEST(UsbCanFdWire, ClassicBatchLayout) {
  _WCAN_CAN_OBJ frames[12] = {canObj(0xFFFFFFFF, 12, 1), canObj(0x123, 5, 0, 1)};
  for (int i = 2; i < 12; ++i)
    frames[i] = canObj(static_cast<uint32_t>(i), 1);
  TxFrame out{};
  const size_t len = encodeCanBatch(0x5A, 0x13, frames, 12, out);
  ASSERT_EQ(len, 7u + 10 * 19);
  EXPECT_EQ(Bytes(out.begin(), out.begin() + 7), (Bytes{0x55, 0xF2, 0x00, 0x5A, 190, 0, 10}));
  // Extended id masked, dataLen 12 carried but only 8 bytes copied.
  EXPECT_EQ(Bytes(out.begin() + 7, out.begin() + 26),
            (Bytes{0x33, 0x04, 0, 0, 0, 0, 0xFF, 0xFF, 0xFF, 0x1F, 12, 0xA0, 0xA1, 0xA2, 0xA3, 0xA4,
                   0xA5, 0xA6, 0xA7}));
  // Remote record: dataLen zeroed on the wire and in the caller's array.
  EXPECT_EQ(Bytes(out.begin() + 26, out.begin() + 45),
            (Bytes{0x33, 0x02, 0, 0, 0, 0, 0x23, 0x01, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}));
  EXPECT_EQ(frames[1].dataLen, 0);
}

TEST(UsbCanFdWire, FdBatchSwapsTheTwoFlagBits) {
  struct FlagCase {
    uint8_t fdFlags, remote, ext, wire;
  } cases[] = {{0x00, 0, 0, 0x01}, {0x10, 0, 0, 0x09}, {0x08, 0, 0, 0x11},
               {0x18, 0, 1, 0x1D}, {0x00, 1, 0, 0x03}, {0x07, 0, 0, 0x01}};
  for (const auto &c : cases) {
    _WCAN_CANFD_OBJ f{};
    f.fdFlags = c.fdFlags;
    f.remoteFlag = c.remote;
    f.externFlag = c.ext;
    f.dataLen = 64;
    f.id = 0x7FF;
    for (int i = 0; i < 64; ++i)
      f.data[i] = static_cast<uint8_t>(i);
    TxFrame out{};
    ASSERT_EQ(encodeCanFdBatch(0, 2, &f, 1, out), 7u + 75);
    EXPECT_EQ(out[4], 75);
    EXPECT_EQ(out[7], 0x20);
    EXPECT_EQ(out[8], c.wire) << int(c.fdFlags);
    EXPECT_EQ(out[17], c.remote ? 0 : 64);
    EXPECT_EQ(out[18 + 63], c.remote ? 0 : 63);
  }
}

// ---------------------------------------------------------------------------
// Receive stream
// ---------------------------------------------------------------------------

struct Collect {
  std::map<unsigned, std::vector<_WCAN_CAN_OBJ>> classic;
  std::map<unsigned, std::vector<_WCAN_CANFD_OBJ>> fd;
  void can(unsigned q, const _WCAN_CAN_OBJ &o) { classic[q].push_back(o); }
  void canFd(unsigned q, const _WCAN_CANFD_OBJ &o) { fd[q].push_back(o); }
};

Bytes wireRecord(uint8_t channel, uint8_t flags, uint32_t stamp, uint32_t id, uint8_t len,
                 uint8_t fill) {
  const bool fd = flags & 0x01;
  Bytes r(fd ? 75 : 19, 0);
  r[0] = static_cast<uint8_t>(channel << 4);
  r[1] = flags;
  for (int i = 0; i < 4; ++i) {
    r[2 + i] = static_cast<uint8_t>(stamp >> (8 * i));
    r[6 + i] = static_cast<uint8_t>(id >> (8 * i));
  }
  r[10] = len;
  for (size_t i = 11; i < r.size(); ++i)
    r[i] = static_cast<uint8_t>(fill + i - 11);
  return r;
}

Bytes dataFrame(const std::vector<Bytes> &records, int countOverride = -1) {
  Bytes f = {0x55, 0xF2, 0, 0, 0, 0, 0};
  for (const auto &r : records)
    f.insert(f.end(), r.begin(), r.end());
  const size_t payload = f.size() - 7;
  f[4] = static_cast<uint8_t>(payload);
  f[5] = static_cast<uint8_t>(payload >> 8);
  f[6] = static_cast<uint8_t>(countOverride >= 0 ? countOverride : int(records.size()));
  return f;
}

Collect feedAll(const std::vector<Bytes> &chunks, StreamAssembler &s) {
  Collect c;
  for (const auto &chunk : chunks) {
    s.feed(chunk.data(), chunk.size(), c);
  }
  return c;
}

Bytes concat(std::initializer_list<Bytes> parts) {
  Bytes out;
  for (const auto &p : parts)
    out.insert(out.end(), p.begin(), p.end());
  return out;
}

TEST(UsbCanFdWire, DecodesClassicAndFdRecordFields) {
  const Bytes frame =
      dataFrame({wireRecord(1, 0x06, 0x11223344, 0xFFFFFFFF, 15, 0x40),
                 wireRecord(2, 0x1F, 7, 0x100, 70, 0x00), wireRecord(3, 0x09, 9, 0x5, 3, 0x80)});
  StreamAssembler s;
  Collect c = feedAll({frame}, s);
  ASSERT_EQ(c.classic[1].size(), 1u);
  const auto &a = c.classic[1][0];
  EXPECT_EQ(a.id, 0x1FFFFFFFu);
  EXPECT_EQ(a.timeStamp, 0x11223344u);
  EXPECT_EQ(a.remoteFlag, 1);
  EXPECT_EQ(a.externFlag, 1);
  EXPECT_EQ(a.dataLen, 8) << "classic length clamps to 8";
  EXPECT_EQ(a.data[7], 0x47);
  ASSERT_EQ(c.fd[2].size(), 1u);
  const auto &b = c.fd[2][0];
  EXPECT_EQ(b.dataLen, 64) << "CAN FD length clamps to 64";
  EXPECT_EQ(b.fdFlags, 0x08) << "wire 0x10 reported as 0x08; wire 0x08 dropped";
  EXPECT_EQ(b.data[63], 63);
  ASSERT_EQ(c.fd[3].size(), 1u);
  EXPECT_EQ(c.fd[3][0].fdFlags, 0) << "wire 0x08 alone is not reported";
  EXPECT_EQ(c.fd[3][0].data[3], 0) << "bytes past dataLen are zero";
  EXPECT_EQ(s.pending(), 0u);
}

TEST(UsbCanFdWire, EveryChannelNibbleFindsItsQueue) {
  std::vector<Bytes> records;
  for (uint8_t ch = 0; ch < 16; ++ch)
    records.push_back(wireRecord(ch, 0x01, 0, ch, 1, 0));
  StreamAssembler s;
  Collect c = feedAll({dataFrame(records)}, s);
  for (unsigned q = 0; q < 7; ++q) {
    ASSERT_EQ(c.fd[q].size(), 1u) << q;
    EXPECT_EQ(c.fd[q][0].id, q);
  }
  EXPECT_EQ(c.fd[7].size(), 9u) << "nibbles 7..15 all land in queue 7";
}

TEST(UsbCanFdWire, ResynchronisesAndReassembles) {
  const Bytes f1 = dataFrame({wireRecord(0, 0x00, 1, 0x10, 8, 0)});
  const Bytes f2 = dataFrame({wireRecord(1, 0x01, 2, 0x20, 12, 0)});
  const Bytes zeroLen = {0x55, 0xF2, 0, 0, 0, 0, 3};
  struct Case {
    const char *name;
    std::vector<Bytes> chunks;
    size_t canCount, fdCount, pending;
  };
  const Bytes both = concat({f1, f2});
  const Case cases[] = {
      {"stray byte first", {concat({{0x00}, f1})}, 1, 0, 0},
      {"garbage between", {concat({f1, {0x55, 0x55, 0xF2, 0x01, 0x13}, f2})}, 1, 1, 0},
      {"zero length header skipped", {concat({zeroLen, f2})}, 0, 1, 0},
      {"split inside record",
       {Bytes(both.begin(), both.begin() + 20), Bytes(both.begin() + 20, both.end())},
       1,
       1,
       0},
      {"split after start byte",
       {Bytes(both.begin(), both.begin() + 27), Bytes(both.begin() + 27, both.end())},
       1,
       1,
       0},
      {"split inside header",
       {Bytes(both.begin(), both.begin() + 30), Bytes(both.begin() + 30, both.end())},
       1,
       1,
       0},
      {"incomplete frame waits", {Bytes(both.begin(), both.end() - 1)}, 1, 0, f2.size() - 1},
  };
  for (const auto &c : cases) {
    StreamAssembler s;
    Collect got = feedAll(c.chunks, s);
    EXPECT_EQ(got.classic[0].size(), c.canCount) << c.name;
    EXPECT_EQ(got.fd[1].size(), c.fdCount) << c.name;
    EXPECT_EQ(s.pending(), c.pending) << c.name;
  }
}

TEST(UsbCanFdWire, HostileLengthsStayInsideTheBuffer) {
  // A record count past the data: the records that fit are decoded.
  const Bytes overCount = dataFrame({wireRecord(0, 0x00, 0, 1, 8, 0)}, 255);
  // A length field that can never fit in the stream buffer is no header.
  Bytes huge = {0x55, 0xF2, 0, 0, 0xFF, 0xFF, 1};
  // A complete frame whose FD record claims more bytes than remain.
  Bytes shortRecord = {0x55, 0xF2, 0, 0, 19, 0, 1};
  const Bytes fdRec = wireRecord(0, 0x01, 0, 2, 64, 0);
  shortRecord.insert(shortRecord.end(), fdRec.begin(), fdRec.begin() + 19);
  const Bytes good = dataFrame({wireRecord(1, 0x00, 0, 3, 1, 0)});

  StreamAssembler s;
  Collect c = feedAll({overCount, huge, shortRecord, good}, s);
  EXPECT_EQ(c.classic[0].size(), 1u);
  EXPECT_EQ(c.fd[0].size(), 0u);
  ASSERT_EQ(c.classic[1].size(), 1u) << "the stream recovers after hostile frames";
  EXPECT_EQ(c.classic[1][0].id, 3u);

  // Megabytes of hostile bytes never stall the assembler or overrun.
  Bytes noise(50000);
  for (size_t i = 0; i < noise.size(); ++i) {
    static const uint8_t pattern[] = {0x55, 0xF2, 0x00, 0x00, 0xF9, 0x0F, 0xFF, 0x01};
    noise[i] = pattern[i % sizeof pattern];
  }
  Collect n = feedAll({noise, good}, s);
  EXPECT_LE(s.pending(), kStreamBufferLen);
}

TEST(UsbCanFdWire, ByteReaderRefusesToPassTheEnd) {
  const uint8_t data[5] = {1, 2, 3, 4, 5};
  ByteReader r(data, 3);
  EXPECT_EQ(r.at(2), 3);
  EXPECT_EQ(r.at(3), 0);
  EXPECT_EQ(r.u32le(0), 0x030201u);
  EXPECT_FALSE(r.has(2, 2));
  EXPECT_TRUE(r.has(3, 0));
  uint8_t out[4] = {9, 9, 9, 9};
  r.copy(1, out, 4);
  EXPECT_EQ(Bytes(out, out + 4), (Bytes{2, 3, 0, 0}));
  EXPECT_EQ(r.sub(2, 10).size(), 1u);
}

} // namespace
