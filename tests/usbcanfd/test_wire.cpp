// SPDX-License-Identifier: MIT
// Byte layouts of the CAN FD adapter: command frames, transmit batches and
// the receive stream parser, without any USB.
#include <gtest/gtest.h>

#include <map>
#include <vector>

#include "devices/usbcanfd/UsbCanFdWire.h"

using namespace usbcanfd;
using Bytes = std::vector<uint8_t>;

namespace {

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

std::vector<Bytes> splitAt(const Bytes &b, size_t at) {
  return {Bytes(b.begin(), b.begin() + at), Bytes(b.begin() + at, b.end())};
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
      {"split inside record", splitAt(both, 20), 1, 1, 0},
      {"split after start byte", splitAt(both, 27), 1, 1, 0},
      {"split inside header", splitAt(both, 30), 1, 1, 0},
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

// Reads cut the stream anywhere: whatever the cuts, the same records come
// out in the same order, and the same bytes wait for the next read.
TEST(UsbCanFdWire, EveryCutOfTheStreamGivesTheSameRecords) {
  const Bytes f1 =
      dataFrame({wireRecord(0, 0x00, 1, 0x10, 8, 0), wireRecord(1, 0x01, 2, 0x11, 64, 0)});
  const Bytes f2 = dataFrame({wireRecord(1, 0x01, 3, 0x20, 12, 0)});
  const Bytes stream = concat(
      {{0x00, 0x55}, f1, {0x55, 0xF2, 0, 0, 0, 0, 3}, f2, f1, Bytes(f2.begin(), f2.end() - 5)});
  const auto ids = [](const Collect &c) {
    std::vector<uint32_t> out;
    for (const auto &q : c.classic)
      for (const auto &o : q.second)
        out.push_back(o.id);
    for (const auto &q : c.fd)
      for (const auto &o : q.second)
        out.push_back(o.id << 8 | q.first);
    return out;
  };
  StreamAssembler whole;
  const std::vector<uint32_t> expected = ids(feedAll({stream}, whole));
  ASSERT_EQ(expected.size(), 5u);
  for (size_t a = 0; a <= stream.size(); ++a) {
    for (size_t b = a; b <= stream.size(); b += 7) {
      StreamAssembler s;
      const Collect c = feedAll({Bytes(stream.begin(), stream.begin() + a),
                                 Bytes(stream.begin() + a, stream.begin() + b),
                                 Bytes(stream.begin() + b, stream.end())},
                                s);
      ASSERT_EQ(ids(c), expected) << "cut at " << a << " and " << b;
      ASSERT_EQ(s.pending(), whole.pending()) << "cut at " << a << " and " << b;
    }
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

  // A count that runs past the payload must not read the next frames'
  // bytes as records: B, C and D all arrive, and nothing made up.
  StreamAssembler t;
  const Bytes a = dataFrame({wireRecord(0, 0x00, 0, 0xA, 8, 0)}, 2);
  const Bytes b = dataFrame({wireRecord(2, 0x00, 0, 0xB, 8, 0)});
  const Bytes cd =
      dataFrame({wireRecord(2, 0x00, 0, 0xC, 8, 0), wireRecord(2, 0x01, 0, 0xD, 8, 0)});
  Collect next = feedAll({concat({a, b, cd})}, t);
  ASSERT_EQ(next.classic[0].size(), 1u);
  ASSERT_EQ(next.classic[2].size(), 2u);
  EXPECT_EQ(next.classic[2][0].id, 0xBu);
  EXPECT_EQ(next.classic[2][1].id, 0xCu);
  ASSERT_EQ(next.fd[2].size(), 1u);
  EXPECT_EQ(next.fd[2][0].id, 0xDu);
  EXPECT_EQ(t.pending(), 0u);

  // Megabytes of hostile bytes never stall the assembler or overrun.
  Bytes noise(50000);
  for (size_t i = 0; i < noise.size(); ++i) {
    static const uint8_t pattern[] = {0x55, 0xF2, 0x00, 0x00, 0xF9, 0x0F, 0xFF, 0x01};
    noise[i] = pattern[i % sizeof pattern];
  }
  Collect n = feedAll({noise, good}, s);
  EXPECT_LE(s.pending(), kStreamBufferLen);
}

} // namespace
