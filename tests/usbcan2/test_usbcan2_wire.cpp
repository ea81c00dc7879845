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
  _WCAN_INIT_CONFIG listen{};
  listen.timing0 = 0x00;
  listen.timing1 = 0x1C;
  listen.mode = 1;
  _WCAN_INIT_CONFIG normal = listen;
  normal.mode = 0;
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
      {"serial", encodeQuery(kCodeSerial), {0x12, 0x14, 0x01, 0x00}},
      {"init ch1 listen",
       *encodeInit(1, listen),
       {0x12, 0x03, 0x06, 0x00, 0x90, 0x00, 0x1C, 0x02, 0x57}},
      {"init ch0 normal",
       *encodeInit(0, normal),
       {0x12, 0x03, 0x06, 0x00, 0x00, 0x00, 0x1C, 0x02, 0x57}},
      {"start ch1", encodeStart(1), {0x12, 0x0E, 0x02, 0x00, 0x10}},
      {"reset ch0", encodeReset(0), {0x12, 0x0F, 0x02, 0x00, 0x00}},
      {"relay set", encodeRelaySet(1, 0), {0x12, 0xB1, 0x02, 0x01, 0x00}},
      {"relay get", encodeRelayGet(), {0x12, 0xB2, 0x02, 0x00, 0x00}},
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

TEST(Usbcan2Wire, InitRefusesModesOtherThanNormalAndListenOnly) {
  _WCAN_INIT_CONFIG config{};
  config.mode = 2;
  EXPECT_FALSE(encodeInit(0, config).has_value());
}

TEST(Usbcan2Wire, RepliesAreCheckedForLengthAndEcho) {
  auto reply = [](std::initializer_list<uint8_t> b) {
    Bytes r(64, 0);
    std::copy(b.begin(), b.end(), r.begin());
    return r;
  };
  const Bytes relay = reply({0x12, 0xB2, 0x02, 0x07, 0x09});
  auto st = decodeRelayGet(ByteReader(relay.data(), relay.size()), 5);
  ASSERT_TRUE(st);
  EXPECT_EQ(st->relay1, 7);
  EXPECT_EQ(st->relay2, 9);
  EXPECT_FALSE(decodeRelayGet(ByteReader(relay.data(), relay.size()), 4)) << "short";
  const Bytes foreign = reply({0x12, 0xB1, 0x02, 0x07, 0x09});
  EXPECT_FALSE(decodeRelayGet(ByteReader(foreign.data(), foreign.size()), 5)) << "wrong echo";
  EXPECT_TRUE(relaySetAccepted(ByteReader(foreign.data(), foreign.size()), 5));

  const Bytes baud = reply({0x12, 0xA4, 0x06, 0, 0, 0, 0x33, 0, 0x44});
  auto bp = decodeBaudPara(ByteReader(baud.data(), baud.size()), 9);
  ASSERT_TRUE(bp);
  EXPECT_EQ(bp->para1, 0x33);
  EXPECT_EQ(bp->para2, 0x44);

  const Bytes state = reply({0x12, 0x80, 0x09, 0, 0, 0x51, 0, 0, 0, 0x59, 0x5A, 0});
  EXPECT_FALSE(decodeChState(ByteReader(state.data(), state.size()), 11)) << "11 bytes";
  auto cs = decodeChState(ByteReader(state.data(), state.size()), 12);
  ASSERT_TRUE(cs);
  EXPECT_EQ(cs->state1, 0x51);
  EXPECT_EQ(cs->state2, 0x5A) << "second output from byte 10";
  EXPECT_EQ(cs->state3, 0x59) << "third output from byte 9";

  for (uint8_t status : {0x81, 0x82}) {
    const Bytes ok = reply({0x12, 0x03, status});
    EXPECT_TRUE(initAccepted(ByteReader(ok.data(), ok.size())));
  }
  const Bytes bad = reply({0x12, 0x03, 0x80});
  EXPECT_FALSE(initAccepted(ByteReader(bad.data(), bad.size())));
}

TEST(Usbcan2Wire, BoardTextLengthComesFromTheLowNibble) {
  Bytes r(100, 0);
  const char text[] = "SN-0042";
  r[2] = 0xF0 | 8; // seven characters follow the status byte
  std::copy(text, text + 7, r.begin() + 4);
  char dst[20] = {};
  EXPECT_EQ(copyText(ByteReader(r.data(), r.size()), dst, sizeof dst), 7u);
  EXPECT_STREQ(dst, "SN-0042");

  r[2] = 0x10; // nibble 0: nothing to copy
  char untouched[4] = {'x', 'y', 'z', 0};
  EXPECT_EQ(copyText(ByteReader(r.data(), r.size()), untouched, sizeof untouched), 0u);
  EXPECT_STREQ(untouched, "xyz");

  r[2] = 0x0F; // 14 characters into a 4-byte field stop at the field
  EXPECT_EQ(copyText(ByteReader(r.data(), r.size()), untouched, 4), 4u);
}

TEST(Usbcan2Wire, TransmitRecordLayout) {
  const struct {
    const char *name;
    _WCAN_CAN_OBJ frame;
    uint32_t channel;
    Bytes head; // bytes 0..10
  } cases[] = {
      {"standard max id",
       frame(0x7FF, false, false, 0),
       0,
       {0, 0, 0, 0, 0, 0, 0x00, 0xE0, 0xFF, 0x00, 0x00}},
      {"extended max id",
       frame(0x1FFFFFFF, true, false, 0),
       0,
       {0, 0, 0, 0, 0, 0, 0x80, 0xF8, 0xFF, 0xFF, 0xFF}},
      {"remote len 8 ch0", frame(0, false, true, 8), 0, {0, 0, 0, 0, 0, 0, 0x48, 0, 0, 0, 0}},
      {"remote len 8 ch1", frame(0, false, true, 8), 1, {0, 0, 0, 0, 0, 0, 0x58, 0, 0, 0, 0}},
      {"ext remote ch1", frame(0, true, true, 8), 1, {0, 0, 0, 0, 0, 0, 0xD8, 0, 0, 0, 0}},
      {"big-endian stamp",
       frame(0, false, false, 0, 0x11223344),
       0,
       {0x11, 0x22, 0x33, 0x44, 0, 0, 0, 0, 0, 0, 0}},
  };
  for (const auto &c : cases) {
    uint8_t rec[kRecordSize];
    ASSERT_TRUE(encodeTxRecord(c.frame, c.channel, rec)) << c.name;
    EXPECT_EQ(Bytes(rec, rec + 11), c.head) << c.name;
  }

  _WCAN_CAN_OBJ f = frame(1, false, false, 3);
  f.rawFlag = 0x5A;
  f.sendType = 0x02;
  uint8_t rec[kRecordSize];
  ASSERT_TRUE(encodeTxRecord(f, 0, rec));
  EXPECT_EQ(rec[4], 0x5A);
  EXPECT_EQ(rec[5], 0x02);
  EXPECT_EQ(Bytes(rec + 11, rec + 19), (Bytes{0xA0, 0xA1, 0xA2, 0, 0, 0, 0, 0}))
      << "bytes past dataLen are zero";
}

TEST(Usbcan2Wire, TransmitFormatErrors) {
  const _WCAN_CAN_OBJ bad[] = {frame(1, false, false, 9), frame(1, false, false, 0),
                               frame(1, false, false, 0)};
  _WCAN_CAN_OBJ remote2 = frame(1, false, false, 0);
  remote2.remoteFlag = 2;
  _WCAN_CAN_OBJ extern2 = frame(1, false, false, 0);
  extern2.externFlag = 2;
  uint8_t rec[kRecordSize];
  EXPECT_FALSE(encodeTxRecord(bad[0], 0, rec));
  EXPECT_FALSE(encodeTxRecord(remote2, 0, rec));
  EXPECT_FALSE(encodeTxRecord(extern2, 0, rec));

  std::array<uint8_t, kPacketCapacity> packet;
  EXPECT_FALSE(encodeTxPacket(bad, 3, 0, packet)) << "one bad frame spoils its packet";
  const _WCAN_CAN_OBJ good[] = {frame(1, false, false, 1), frame(2, false, false, 1),
                                frame(3, false, false, 1), frame(4, false, false, 1)};
  EXPECT_EQ(encodeTxPacket(good, 2, 0, packet), 38u);
  EXPECT_EQ(encodeTxPacket(good, 4, 0, packet), 57u) << "three frames at most";
  EXPECT_EQ(packet[2 * kRecordSize + 7], 3 << 5);
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
}

TEST(Usbcan2Wire, GarbageThatLooksLikeAHeadIsTakenAsARecord) {
  Bytes stream(kRecordSize, 0x55);
  stream[3] = 0x01;
  stream[4] = 0x00;
  stream[5] = 0x00;
  RxReassembler r;
  EXPECT_EQ(feedAll(r, stream, 64).size(), 1u);
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

TEST(Usbcan2Wire, ByteReaderNeverPassesTheEnd) {
  const uint8_t data[3] = {1, 2, 3};
  const ByteReader r(data, sizeof data);
  EXPECT_EQ(r.u16le(1), 0x0302);
  EXPECT_EQ(r.u16le(2), 0x0003);
  EXPECT_EQ(r.u32le(0), 0x00030201u);
  uint8_t out[8] = {};
  EXPECT_EQ(r.copy(1, 8, out), 2u);
  EXPECT_EQ(r.copy(5, 8, out), 0u);
}
