// SPDX-License-Identifier: MIT
// The CAN FD adapter model driven directly, for what the driver's own suite
// cannot observe: timing kept, filtering, channel rules and stream packing.
#include <gtest/gtest.h>

#include "sim/FakeModelHost.h"
#include "sim/ModelUsbCanFd.h"
#include "sim/Models.h"

namespace wcansim {
namespace {

constexpr uint8_t kCmd = 0x01, kReply = 0x81, kData = 0x02, kAck = 0x82, kStream = 0x83;

TEST(UsbCanFdModelIdentity, EachTypeHasItsIdsAndChannels) {
  const std::tuple<unsigned, uint16_t, uint16_t, unsigned> table[] = {
      {41, 0x3068, 0x0009, 2}, {42, 0x3068, 0x0009, 2}, {43, 0x3068, 0x0009, 2},
      {64, 0x0471, 0x3014, 4}, {65, 0x0471, 0x2014, 4}, {66, 0x0471, 0x2018, 8},
      {67, 0x0471, 0x3018, 8}};
  for (const auto &[type, vid, pid, channels] : table) {
    auto m = makeUsbCanFdModel(type);
    ASSERT_NE(m, nullptr) << type;
    FakeModelHost host;
    const uint8_t reported = host.exchange(*m, kCmd, {0x55, 0x13, 0x01, 0x01}, kReply).at(4);
    EXPECT_EQ(std::tuple(m->vendorId(), m->productId(), m->channelCount(), reported),
              std::tuple(vid, pid, channels, channels))
        << type;
  }
  EXPECT_EQ(makeModel(44), nullptr);
}

// The 24-byte baud-init command for one channel, timing words split as sent.
Bytes baudInit(uint8_t ch, uint16_t clock, uint32_t aWord, uint32_t dWord, uint8_t option0 = 0,
               uint8_t option1 = 0) {
  Bytes b{0x55, 0x03, ch, 0x01, option1, option0};
  auto phase = [&](uint32_t w) {
    const uint16_t fields[] = {clock, static_cast<uint16_t>(w >> 22)};
    for (uint16_t f : fields) {
      b.push_back(static_cast<uint8_t>(f));
      b.push_back(static_cast<uint8_t>(f >> 8));
    }
    b.push_back(static_cast<uint8_t>((w >> 15) & 0x7F));
    for (uint16_t f : {static_cast<uint16_t>(w & 0xFF), static_cast<uint16_t>((w >> 8) & 0x7F)}) {
      b.push_back(static_cast<uint8_t>(f));
      b.push_back(static_cast<uint8_t>(f >> 8));
    }
  };
  phase(aWord);
  phase(dWord);
  return b;
}

class UsbCanFdModelTest : public ::testing::Test {
protected:
  std::unique_ptr<DeviceModel> owner = makeUsbCanFdModel(41);
  UsbCanFdModel &model = static_cast<UsbCanFdModel &>(*owner);
  FakeModelHost host;

  Bytes command(const Bytes &cmd) { return host.exchange(model, kCmd, cmd, kReply); }
  void start(uint8_t ch) {
    ASSERT_EQ(command({0x55, 0x0E, 0x02, 0x00, static_cast<uint8_t>(ch << 4)}).at(3), 0);
  }
};

// Timing words as the driver's tables send them, read back as bit rates.
TEST(UsbCanFdModelTiming, BaudInitKeepsTheRatesOfBothPhases) {
  struct Case {
    unsigned type;
    uint8_t ch;
    uint16_t clock;
    uint32_t aWord, dWord, abit, dbit;
  } cases[] = {
      {41, 0, 60, 0x01400106, 0x01400106, 1000000, 1000000},
      {41, 1, 60, 0x02C00106, 0x00800001, 500000, 5000000},
      {67, 7, 80, 0x00C0030E, 0x00400005, 1000000, 5000000},
  };
  for (const Case &c : cases) {
    auto owner = makeUsbCanFdModel(c.type);
    auto &fd = static_cast<UsbCanFdModel &>(*owner);
    FakeModelHost host;
    const Bytes init = baudInit(c.ch, c.clock, c.aWord, c.dWord);
    EXPECT_EQ(host.exchange(fd, kCmd, init, kReply).at(3), 0);
    EXPECT_TRUE(fd.channel(c.ch).configured);
    EXPECT_EQ(fd.channel(c.ch).arbitration.bitRate(), c.abit) << c.type << " ch " << int(c.ch);
    EXPECT_EQ(fd.channel(c.ch).data.bitRate(), c.dbit) << c.type << " ch " << int(c.ch);
  }
}

TEST_F(UsbCanFdModelTest, VersionsAndRefusedCommands) {
  // The driver sends the version queries but never reports what they carry.
  EXPECT_EQ(command({0x55, 0x01, 0x01, 0x01}), (Bytes{0x55, 0x01, 0x01, 0, 0x01, 0x05, 0, 0}));
  EXPECT_EQ(command({0x55, 0x12, 0x01, 0x01}), (Bytes{0x55, 0x12, 0x01, 0, 0x01, 0x17, 0, 0}));

  struct Case {
    const char *what;
    Bytes cmd;
    uint8_t status;
  } refused[] = {
      {"baud init of channel 2 on a 2-channel adapter", baudInit(2, 60, 0x01400106, 0x01400106), 1},
      {"baud init cut short", Bytes{0x55, 0x03, 0x00, 0x01, 0, 0}, 2},
      {"start of channel 3", {0x55, 0x0E, 0x02, 0x00, 0x30}, 1},
      {"filter sub-command 6", {0x55, 0x04, 0x0A, 0x06, 0x00, 0, 0, 0, 0, 0, 0, 0, 0}, 1},
      {"unknown command", {0x55, 0x42, 0x00, 0x00}, 0xFF},
  };
  for (const Case &c : refused) {
    SCOPED_TRACE(c.what);
    Bytes reply = command(c.cmd);
    ASSERT_GE(reply.size(), 4u);
    EXPECT_EQ(reply[1], c.cmd[1]);
    EXPECT_EQ(reply[3], c.status);
  }
}

TEST_F(UsbCanFdModelTest, StartStopAndChannelStatus) {
  ASSERT_EQ(command(baudInit(1, 60, 0x01400106, 0x01400106, 1)).at(3), 0);
  start(1);
  EXPECT_TRUE(model.channelStarted(1));
  EXPECT_TRUE(model.channelListenOnly(1));

  Bytes status = command({0x55, 0x16, 0x11, 0x00});
  ASSERT_EQ(status.size(), 11u);
  EXPECT_EQ((Bytes{status.begin(), status.begin() + 7}), (Bytes{0x55, 0x16, 0x11, 0x07, 0, 0, 0}));

  EXPECT_EQ(command({0x55, 0x0F, 0x02, 0x00, 0x10}).at(1), 0x0F);
  EXPECT_FALSE(model.channelStarted(1));
  EXPECT_EQ(command({0x55, 0x16, 0x11, 0x00}).at(3), 0x05);
  EXPECT_LT(command({0x55, 0x16, 0x51, 0x00}).size(), 11u) << "unknown channel";
}

CanFrame frame(uint32_t id, bool extended = false) {
  CanFrame f;
  f.id = id;
  f.extended = extended;
  f.len = 1;
  f.data[0] = 0xAB;
  return f;
}

Bytes filterCmd(uint8_t sub, uint8_t ch, uint32_t first, uint32_t last) {
  Bytes b{0x55, 0x04, 0x0A, sub, static_cast<uint8_t>(ch << 4)};
  for (uint32_t v : {first, last})
    for (int s = 0; s < 32; s += 8)
      b.push_back(static_cast<uint8_t>(v >> s));
  return b;
}

TEST_F(UsbCanFdModelTest, FiltersPassOnlyTheirRanges) {
  start(0);
  struct Case {
    const char *what;
    std::vector<Bytes> setup;
    std::vector<std::pair<CanFrame, bool>> frames;
  } cases[] = {
      {"no filter passes all", {}, {{frame(0x123), true}, {frame(0x123, true), true}}},
      {"ranges wait for enable", {filterCmd(2, 0, 0x800, 0x9FF)}, {{frame(0x300), true}}},
      {"standard range, masked to 11 bits",
       {filterCmd(2, 0, 0x800, 0x9FF), filterCmd(4, 0, 0, 0)},
       {{frame(0x100), true}, {frame(0x200), false}, {frame(0x100, true), false}}},
      {"extended range, masked to 29 bits",
       {filterCmd(3, 0, 0x3FFFFFFF, 0xFFFFFFFF), filterCmd(4, 0, 0, 0)},
       {{frame(0x1FFFFFFF, true), true}, {frame(0x1FFFFFFE, true), false}}},
      {"either-format range",
       {filterCmd(5, 0, 0x10, 0x20), filterCmd(4, 0, 0, 0)},
       {{frame(0x15), true}, {frame(0x15, true), true}, {frame(0x21), false}}},
      {"empty either-format range removes ranges",
       {filterCmd(2, 0, 1, 1), filterCmd(5, 0, 0, 0), filterCmd(4, 0, 0, 0)},
       {{frame(0x300), true}}},
      {"clear disables",
       {filterCmd(2, 0, 1, 1), filterCmd(4, 0, 0, 0), filterCmd(1, 0, 0, 0)},
       {{frame(0x300), true}}},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.what);
    ASSERT_EQ(command(filterCmd(1, 0, 0, 0)).at(3), 0);
    for (const Bytes &cmd : c.setup)
      ASSERT_EQ(command(cmd), (Bytes{0x55, 0x04, 0x0A, 0, 0, 0, 0, 0}));
    for (const auto &[f, passes] : c.frames) {
      const size_t before = model.pendingRecords();
      model.onBusFrame(host, 0, f, 0);
      EXPECT_EQ(model.pendingRecords() - before, passes ? 1u : 0u) << std::hex << f.id;
    }
  }
}

// A data frame from the host with the given records.
Bytes dataFrame(const std::vector<Bytes> &records) {
  Bytes b{0x55, 0xF2, 0x00, 0x00, 0, 0, static_cast<uint8_t>(records.size())};
  for (const Bytes &r : records)
    b.insert(b.end(), r.begin(), r.end());
  b[4] = static_cast<uint8_t>((b.size() - 7) & 0xFF);
  b[5] = static_cast<uint8_t>((b.size() - 7) >> 8);
  return b;
}

// One host record; flag 0x01 makes it a CAN FD record with 64 payload bytes.
Bytes record(uint8_t ch, uint8_t flags, uint32_t id, uint8_t len) {
  const bool fd = flags & 0x01;
  Bytes r{static_cast<uint8_t>(ch << 4), flags, 0, 0, 0, 0};
  for (int s = 0; s < 32; s += 8)
    r.push_back(static_cast<uint8_t>(id >> s));
  r.push_back(len);
  for (uint8_t i = 0; i < (fd ? 64 : 8); ++i)
    r.push_back(static_cast<uint8_t>(fd ? i : 0xD0 + i));
  return r;
}

// Lengths the driver never sends: a classic length above 8, an FD length
// between the valid ones.
TEST_F(UsbCanFdModelTest, DataFrameLengthsAreBoundedAndEveryRecordAcknowledged) {
  start(0);
  const Bytes frameBytes =
      dataFrame({record(0, 0x04, 0x1FFFFFFF, 12), record(0, 0x10 | 0x08 | 0x01, 0x123, 13),
                 record(0, 0x02, 1, 0)});
  EXPECT_EQ(host.exchange(model, kData, frameBytes, kAck), (Bytes{0x55, 0xF2, 0, 0, 3, 0, 0, 0}));
  ASSERT_EQ(host.sent.size(), 3u);
  const CanFrame &classic = host.sent[0].second, &fd = host.sent[1].second;
  EXPECT_EQ(std::tuple(classic.extended, classic.id, classic.len, classic.data[7]),
            std::tuple(true, 0x1FFFFFFFu, 8, 0xD7));
  EXPECT_EQ(std::tuple(fd.fd, fd.len, fd.data[12], fd.data[13]), std::tuple(true, 16, 12, 0));
  EXPECT_TRUE(host.sent[2].second.remote);
  EXPECT_EQ(model.channel(0).txFrames, 3u);
}

TEST_F(UsbCanFdModelTest, RecordsThatCannotGoOutAreReportedInTheAck) {
  ASSERT_EQ(command(baudInit(1, 60, 0x01400106, 0x01400106, 1)).at(3), 0);
  start(1);
  const Bytes rec0 = record(0, 0, 1, 1); // channel 0 not started
  const Bytes rec1 = record(1, 0, 2, 1); // listen-only
  EXPECT_EQ(host.exchange(model, kData, dataFrame({rec0, rec1}), kAck).at(3), 1);

  Bytes badLength = dataFrame({rec0});
  badLength[4] += 1;
  EXPECT_EQ(host.exchange(model, kData, badLength, kAck).at(3), 2);
  EXPECT_TRUE(host.sent.empty());
}

// The driver's round trips check the record bytes; these are the rules of
// when records are streamed.
TEST_F(UsbCanFdModelTest, StartedChannelsStreamRecordsWhenTheStreamIsRead) {
  start(1);
  model.onBusFrame(host, 1, frame(0x1ABCDEF, true), 0x12345678);
  model.onBusFrame(host, 0, frame(0x7FF), 1); // channel 0 is not started
  EXPECT_TRUE(host.queued[kStream].empty()) << "records wait until the stream is read";
  model.onReadEmpty(host, kStream);
  const Bytes f = host.take(kStream);
  ASSERT_EQ(f.size(), 7u + 19u);
  EXPECT_EQ((Bytes{f.begin(), f.begin() + 8}), (Bytes{0x55, 0xF2, 0, 0, 19, 0, 1, 0x10}));
  EXPECT_TRUE(host.take(kStream).empty());
}

TEST_F(UsbCanFdModelTest, StreamFramesHoldAtMost4096Bytes) {
  start(0);
  for (int i = 0; i < 300; ++i)
    model.onBusFrame(host, 0, frame(static_cast<uint32_t>(i)), static_cast<uint32_t>(i));
  model.onReadEmpty(host, kStream);
  const auto &frames = host.queued[kStream];
  ASSERT_EQ(frames.size(), 2u);
  size_t records = 0;
  for (const Bytes &f : frames) {
    ASSERT_LE(f.size(), 4096u);
    EXPECT_EQ(f[4] | f[5] << 8, static_cast<int>(f.size() - 7));
    records += f[6];
  }
  EXPECT_EQ(frames[0][6], 215) << "7 + 215 x 19 = 4092 bytes";
  EXPECT_EQ(records, 300u);
}

TEST_F(UsbCanFdModelTest, ResetStopsEveryChannelAndDropsWaitingRecords) {
  ASSERT_EQ(command(baudInit(0, 60, 0x01400106, 0x01400106)).at(3), 0);
  start(0);
  ASSERT_EQ(command(filterCmd(4, 0, 0, 0)).at(3), 0);
  model.onBusFrame(host, 0, frame(1), 0);
  model.onReset();
  EXPECT_FALSE(model.channelStarted(0));
  EXPECT_FALSE(model.channel(0).configured);
  EXPECT_FALSE(model.channel(0).filterEnabled);
  EXPECT_EQ(model.pendingRecords(), 0u);
  model.onReadEmpty(host, kStream);
  EXPECT_TRUE(host.queued[kStream].empty());
}

} // namespace
} // namespace wcansim
