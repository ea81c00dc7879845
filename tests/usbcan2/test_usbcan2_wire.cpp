// SPDX-License-Identifier: MIT
// Byte layouts of the classic adapter: commands, replies, transmit records and
// the receive stream.
#include <gtest/gtest.h>

#include <vector>

#include "devices/usbcan2/Usbcan2Wire.h"

using namespace usbcan2wire;
using Bytes = std::vector<uint8_t>;

namespace {

Bytes bytesOf(const Command &cmd) { return Bytes(cmd.bytes.begin(), cmd.bytes.begin() + cmd.size); }

_WCAN_CAN_OBJ frame(uint32_t id, bool ext, bool remote, uint8_t len, uint32_t stamp = 0) {
  _WCAN_CAN_OBJ f{};
  f.id = id;
  f.externFlag = ext;
  f.remoteFlag = remote;
  f.dataLen = len;
  f.timeStamp = stamp;
  for (uint8_t i = 0; i < 8; ++i) {
    f.data[i] = static_cast<uint8_t>(0xA0 + i);
  }
  return f;
}

// A receive record as the adapter sends it.
Bytes rxRecord(uint32_t stamp, uint8_t flags, uint32_t wireId, uint8_t firstData = 0x10) {
  Bytes r(kRecordSize, 0);
  for (int i = 0; i < 4; ++i) {
    r[i] = static_cast<uint8_t>(stamp >> (8 * i));
    r[7 + i] = static_cast<uint8_t>(wireId >> (8 * i));
  }
  r[6] = flags;
  for (int i = 0; i < 8; ++i) {
    r[11 + i] = static_cast<uint8_t>(firstData + i);
  }
  return r;
}

struct Collected {
  uint32_t channel;
  _WCAN_CAN_OBJ frame;
};

std::vector<Collected> feedAll(RxReassembler &r, const Bytes &stream, size_t chunk) {
  std::vector<Collected> out;
  for (size_t pos = 0; pos < stream.size(); pos += chunk) {
    const size_t n = std::min(chunk, stream.size() - pos);
    r.feed(stream.data() + pos, n, [&](uint32_t ch, const _WCAN_CAN_OBJ &f) {
      out.push_back({ch, f});
    });
  }
  return out;
}

} // namespace

TEST(Usbcan2Wire, CommandsHaveTheirExactBytes) {
  _WCAN_INIT_CONFIG normal{};
  normal.timing1 = 0x1C;
  uint8_t payload[100];
  for (int i = 0; i < 100; ++i) {
    payload[i] = static_cast<uint8_t>(i);
  }
  Bytes direct100 = {0x12, 0xA7};
  direct100.insert(direct100.end(), payload, payload + 62);

  const struct {
    const char *name;
    Command cmd;
    Bytes expected;
  } cases[] = {
      {"hw version", encodeQuery(kCodeHwVersion), {0x12, 0x01, 0x01, 0x00}},
      {"init ch0 normal",
       *encodeInit(0, normal),
       {0x12, 0x03, 0x06, 0x00, 0x00, 0x00, 0x1C, 0x02, 0x57}},
      {"baud para", encodeBaudParaGet(1), {0x12, 0xA4, 0x01, 0x01}},
      {"channel state", encodeChStateGet(1), {0x12, 0x80, 0x01, 0x01, 0x00, 0x00}},
      {"direct short", encodeDirectTransfer(payload + 5, 3), {0x12, 0xA7, 5, 6, 7}},
      {"direct cut to 62", encodeDirectTransfer(payload, 100), direct100},
      {"direct negative", encodeDirectTransfer(payload, -4), {0x12, 0xA7}},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(bytesOf(c.cmd), c.expected) << c.name;
  }
}

// The auxiliary replies are covered end to end; these are the cases the
// simulated adapter never produces.
TEST(Usbcan2Wire, ReplyChecksTheAdapterDoesNotExerciseEndToEnd) {
  Bytes r(64, 0);
  for (uint8_t status : {0x81, 0x82, 0x80}) {
    r[2] = status;
    EXPECT_EQ(initAccepted(ByteReader(r.data(), r.size())), status != 0x80) << int(status);
  }
  r = {0x12, 0x80, 0x09, 0, 0, 0x51, 0, 0, 0, 0x59, 0x5A, 0};
  const auto cs = decodeChState(ByteReader(r.data(), r.size()), 12);
  ASSERT_TRUE(cs);
  EXPECT_EQ(cs->state2, 0x5A) << "second output from byte 10";
  EXPECT_EQ(cs->state3, 0x59) << "third output from byte 9";
  r[1] = 0xB2;
  EXPECT_FALSE(decodeRelayGet(ByteReader(r.data(), r.size()), 4)) << "short relay reply";
}

TEST(Usbcan2Wire, TransmitRecordLayout) {
  const struct {
    const char *name;
    _WCAN_CAN_OBJ frame;
    uint32_t channel;
    Bytes flagsAndId; // bytes 6..10
  } cases[] = {
      {"standard max id", frame(0x7FF, false, false, 0), 0, {0x00, 0xE0, 0xFF, 0x00, 0x00}},
      {"extended max id", frame(0x1FFFFFFF, true, false, 0), 0, {0x80, 0xF8, 0xFF, 0xFF, 0xFF}},
      {"remote len 8 ch0", frame(0, false, true, 8), 0, {0x48, 0, 0, 0, 0}},
      {"ext remote ch1", frame(0, true, true, 8), 1, {0xD8, 0, 0, 0, 0}},
  };
  uint8_t rec[kRecordSize];
  for (const auto &c : cases) {
    ASSERT_TRUE(encodeTxRecord(c.frame, c.channel, rec)) << c.name;
    EXPECT_EQ(Bytes(rec + 6, rec + 11), c.flagsAndId) << c.name;
  }

  _WCAN_CAN_OBJ f = frame(1, false, false, 3, 0x11223344);
  f.rawFlag = 0x5A;
  f.sendType = 0x02;
  ASSERT_TRUE(encodeTxRecord(f, 0, rec));
  EXPECT_EQ(Bytes(rec, rec + 6), (Bytes{0x11, 0x22, 0x33, 0x44, 0x5A, 0x02})) << "big-endian stamp";
  EXPECT_EQ(Bytes(rec + 11, rec + 19), (Bytes{0xA0, 0xA1, 0xA2, 0, 0, 0, 0, 0}))
      << "bytes past dataLen are zero";
}

TEST(Usbcan2Wire, ReceiveRecordDecoding) {
  const struct {
    const char *name;
    Bytes record;
    uint32_t channel;
    uint32_t id, stamp;
    uint8_t remote, ext, len;
  } cases[] = {
      {"stamp keeps marker", rxRecord(0x01302010, 0x00, 0), 0, 0, 0x01302010, 0, 0, 0},
      {"standard remote ch1", rxRecord(0x01000000, 0x58, 0x0000FFE0), 1, 0x7FF, 0x01000000, 1, 0,
       8},
      {"extended max", rxRecord(0x01000000, 0x88, 0xFFFFFFF8), 0, 0x1FFFFFFF, 0x01000000, 0, 1, 8},
      {"length clamped", rxRecord(0x01000000, 0x0C, 0), 0, 0, 0x01000000, 0, 0, 8},
      {"standard id masked", rxRecord(0x01000000, 0x02, 0xFFFFFFFF), 0, 0x07FFFFFF, 0x01000000, 0,
       0, 2},
  };
  for (const auto &c : cases) {
    ASSERT_TRUE(isRecordHead(c.record.data())) << c.name;
    _WCAN_CAN_OBJ f{};
    EXPECT_EQ(decodeRxRecord(c.record.data(), f), c.channel) << c.name;
    EXPECT_EQ(f.id, c.id) << c.name;
    EXPECT_EQ(f.timeStamp, c.stamp) << c.name;
    EXPECT_EQ(f.remoteFlag, c.remote) << c.name;
    EXPECT_EQ(f.externFlag, c.ext) << c.name;
    EXPECT_EQ(f.dataLen, c.len) << c.name;
    EXPECT_EQ(f.rawFlag, 0);
    EXPECT_EQ(f.sendType, 0);
    if (c.len > 0) {
      EXPECT_EQ(f.data[0], 0x10) << c.name;
      EXPECT_EQ(f.data[c.len - 1], 0x10 + c.len - 1) << c.name;
    }
  }
}

TEST(Usbcan2Wire, ReassemblyAcrossReadSizes) {
  Bytes stream;
  for (uint32_t i = 0; i < 7; ++i) {
    const Bytes r = rxRecord(0x01000000 + i, static_cast<uint8_t>(0x08 | (i & 1) << 4), i << 5,
                             static_cast<uint8_t>(i));
    stream.insert(stream.end(), r.begin(), r.end());
  }
  for (size_t chunk : {size_t{1}, size_t{7}, size_t{18}, size_t{19}, size_t{20}, size_t{64}}) {
    RxReassembler r;
    const auto got = feedAll(r, stream, chunk);
    ASSERT_EQ(got.size(), 7u) << "chunk " << chunk;
    for (uint32_t i = 0; i < 7; ++i) {
      EXPECT_EQ(got[i].frame.id, i) << "chunk " << chunk;
      EXPECT_EQ(got[i].channel, i & 1);
      EXPECT_EQ(got[i].frame.data[0], i);
    }
    EXPECT_EQ(r.pending(), 0u);
  }
}

TEST(Usbcan2Wire, GarbageIsSkippedByteByByte) {
  const Bytes rec = rxRecord(0x01000000, 0x01, 0x123 << 5, 0x77);
  Bytes stream = {0xFF, 0x01, 0x00, 0x02, 0x00};
  stream.insert(stream.end(), rec.begin(), rec.end());
  stream.push_back(0xEE); // a partial head stays pending
  RxReassembler r;
  const auto got = feedAll(r, stream, 64);
  ASSERT_EQ(got.size(), 1u);
  EXPECT_EQ(got[0].frame.id, 0x123u);
  EXPECT_EQ(got[0].frame.data[0], 0x77);
  EXPECT_EQ(r.pending(), 1u);

  Bytes lookalike(kRecordSize, 0x55); // garbage with 01 00 00 at 3..5 is a record
  lookalike[3] = 0x01;
  lookalike[4] = lookalike[5] = 0x00;
  RxReassembler fresh;
  EXPECT_EQ(feedAll(fresh, lookalike, 64).size(), 1u);
}

TEST(Usbcan2Wire, DataPastLengthKeepsThePreviousFrame) {
  Bytes stream = rxRecord(0x01000000, 0x08, 0, 0x30);
  const Bytes shortRec = rxRecord(0x01000000, 0x01, 0, 0x90);
  stream.insert(stream.end(), shortRec.begin(), shortRec.end());
  RxReassembler r;
  const auto got = feedAll(r, stream, 64);
  ASSERT_EQ(got.size(), 2u);
  EXPECT_EQ(got[1].frame.data[0], 0x90);
  EXPECT_EQ(got[1].frame.data[7], 0x37);
}
