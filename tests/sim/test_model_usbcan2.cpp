#include <gtest/gtest.h>

#include <string>

#include "sim/ModelUsbCan2.h"
#include "sim/Models.h"
#include "tests/sim/FakeModelHost.h"

namespace wcansim {
namespace {

constexpr uint8_t kCmdOut = 0x01, kCmdIn = 0x81, kDataOut = 0x02, kDataIn = 0x82;

// A 19-byte transmit record as the host builds it.
Bytes txRecord(unsigned channel, uint32_t id, bool ext, bool rtr, uint8_t len, uint8_t fill = 0xA0,
               uint32_t stamp = 0x11223344) {
  const uint32_t raw = ext ? id << 3 : id << 5;
  Bytes r{uint8_t(stamp >> 24),
          uint8_t(stamp >> 16),
          uint8_t(stamp >> 8),
          uint8_t(stamp),
          0,
          2,
          uint8_t((len & 0x0F) | channel << 4 | (rtr ? 0x40 : 0) | (ext ? 0x80 : 0)),
          uint8_t(raw),
          uint8_t(raw >> 8),
          uint8_t(raw >> 16),
          uint8_t(raw >> 24)};
  for (uint8_t i = 0; i < 8; ++i)
    r.push_back(i < len ? uint8_t(fill + i) : 0);
  return r;
}

Bytes initCmd(unsigned channel, bool listenOnly, uint8_t t0, uint8_t t1) {
  return {0x12, 0x03, 0x06, 0x00, uint8_t((listenOnly ? 0x80 : 0) | channel << 4),
          t0,   t1,   0x02, 0x57};
}
Bytes startCmd(unsigned channel) { return {0x12, 0x0E, 0x02, 0x00, uint8_t(channel << 4)}; }
Bytes resetCmd(unsigned channel) { return {0x12, 0x0F, 0x02, 0x00, uint8_t(channel << 4)}; }

class UsbCan2ModelTest : public ::testing::Test {
protected:
  std::unique_ptr<DeviceModel> owned = makeUsbCan2Model(4);
  UsbCan2Model &model = static_cast<UsbCan2Model &>(*owned);
  FakeModelHost host;

  Bytes command(const Bytes &cmd) {
    EXPECT_EQ(host.write(model, kCmdOut, cmd), int(cmd.size()));
    return host.read(model, kCmdIn);
  }
  void startChannel(unsigned ch, bool listenOnly = false) {
    command(initCmd(ch, listenOnly, 0x00, 0x1C));
    command(startCmd(ch));
  }
  CanFrame frame(uint32_t id, uint8_t len, bool ext = false, bool rtr = false, bool fd = false) {
    CanFrame f;
    f.id = id;
    f.len = len;
    f.extended = ext;
    f.remote = rtr;
    f.fd = fd;
    for (uint8_t i = 0; i < len && i < 64; ++i)
      f.data[i] = uint8_t(0x31 + i);
    return f;
  }
};

TEST(UsbCan2ModelIdentity, TypesThreeAndFourShareTheClassicIds) {
  for (unsigned type : {3u, 4u}) {
    auto m = makeUsbCan2Model(type);
    ASSERT_NE(m, nullptr) << type;
    EXPECT_EQ(m->vendorId(), 0x0471);
    EXPECT_EQ(m->productId(), 0x1200);
    EXPECT_EQ(m->channelCount(), 2u);
    EXPECT_EQ(m->endpointShape(kDataIn).kind, EndpointShape::Stream);
    EXPECT_EQ(m->endpointShape(kDataIn).maxRead, 64);
    EXPECT_EQ(m->endpointShape(kCmdIn).kind, EndpointShape::Packet);
  }
  for (unsigned type : {2u, 41u, 61u, 63u})
    EXPECT_EQ(makeUsbCan2Model(type), nullptr) << type;
}

TEST_F(UsbCan2ModelTest, AnswersEveryCommandOfTheTable) {
  const std::string serial = "C2A0000001", hwType = "USBCAN2";
  auto withText = [](Bytes head, const std::string &s) {
    head.insert(head.end(), s.begin(), s.end());
    return head;
  };
  struct Case {
    const char *what;
    Bytes cmd;
    Bytes reply;
  } cases[] = {
      {"hardware version", {0x12, 0x01, 0x01, 0x00}, {0x12, 0x01, 0x03, 0x00, 0x01, 0x02}},
      {"firmware version", {0x12, 0x12, 0x01, 0x00}, {0x12, 0x12, 0x03, 0x00, 0x12, 0x03}},
      {"channel count", {0x12, 0x13, 0x01, 0x00}, {0x12, 0x13, 0x02, 0x00, 0x02}},
      {"serial text", {0x12, 0x14, 0x01, 0x00}, withText({0x12, 0x14, 0x0B, 0x00}, serial)},
      {"hardware type", {0x12, 0x15, 0x01, 0x00}, withText({0x12, 0x15, 0x08, 0x00}, hwType)},
      {"init channel 1", initCmd(1, false, 0x00, 0x1C), {0x12, 0x03, 0x81, 0x00}},
      {"start channel 1", startCmd(1), {0x12, 0x0E, 0x01, 0x00}},
      {"reset channel 1", resetCmd(1), {0x12, 0x0F, 0x01, 0x00}},
      {"relay set", {0x12, 0xB1, 0x02, 0x01, 0x00}, {0x12, 0xB1, 0x02, 0x01, 0x00}},
      {"relay get", {0x12, 0xB2, 0x02, 0x00, 0x00}, {0x12, 0xB2, 0x02, 0x01, 0x00}},
      {"baud parameters",
       {0x12, 0xA4, 0x01, 0x01},
       {0x12, 0xA4, 0x06, 0x00, 0x01, 0x06, 0x00, 0x07, 0x1C}},
      {"channel state",
       {0x12, 0x80, 0x01, 0x01, 0x00, 0x00},
       {0x12, 0x80, 0x09, 0x00, 0x01, 0x01, 0x0C, 0x00, 0x00, 0x00, 0x00, 0x00}},
      {"direct transfer", {0x12, 0xA7, 0xDE, 0xAD}, {0x12, 0xA7, 0xDE, 0xAD}},
      {"unknown code", {0x12, 0x04, 0x0B, 0x00}, {0x12, 0x04, 0x01, 0x01}},
  };
  for (const Case &c : cases)
    EXPECT_EQ(command(c.cmd), c.reply) << c.what;
}

TEST_F(UsbCan2ModelTest, BoardInformationReadsAsTheHostDecodesIt) {
  const Bytes hw = command({0x12, 0x01, 0x01, 0x00});
  ASSERT_EQ(hw.size(), 6u); // the host refuses any other length
  EXPECT_EQ(hw[4] | hw[5] << 8, 0x0201);
  const Bytes count = command({0x12, 0x13, 0x01, 0x00});
  EXPECT_EQ(count.back(), 2);
  for (uint8_t code : {0x14, 0x15}) {
    const Bytes t = command({0x12, code, 0x01, 0x00});
    const size_t n = (t[2] & 0x0F) - 1u;
    ASSERT_EQ(t.size(), 4 + n);
    EXPECT_LE(n, 14u);
  }
}

TEST_F(UsbCan2ModelTest, OnlyTheLatestAnswerWaitsForTheHost) {
  // A reset written without reading its answer must not answer the next command.
  host.write(model, kCmdOut, resetCmd(0));
  EXPECT_EQ(command({0x12, 0x13, 0x01, 0x00}), (Bytes{0x12, 0x13, 0x02, 0x00, 0x02}));
  EXPECT_TRUE(host.read(model, kCmdIn).empty());
  // Noise without the lead byte is ignored, leaving the pending answer alone.
  host.write(model, kCmdOut, {0x12, 0xB2, 0x02, 0x00, 0x00});
  host.write(model, kCmdOut, {0x55, 0x01});
  EXPECT_EQ(host.read(model, kCmdIn)[1], 0xB2);
  EXPECT_LT(host.write(model, 0x03, {0x12, 0x01}), 0);
}

TEST_F(UsbCan2ModelTest, ChannelLifecycleFollowsInitStartResetAndPowerCycle) {
  EXPECT_EQ(command(startCmd(0))[3], 0x01) << "start before init is refused";
  EXPECT_FALSE(model.channelStarted(0));

  command(initCmd(0, true, 0x03, 0x1C));
  EXPECT_TRUE(model.channelListenOnly(0));
  EXPECT_FALSE(model.channelStarted(0)) << "init leaves the controller in reset mode";
  command(startCmd(0));
  EXPECT_TRUE(model.channelStarted(0));
  EXPECT_FALSE(model.channelStarted(1));
  EXPECT_EQ(command({0x12, 0x80, 0x01, 0x00, 0x00, 0x00})[5], 0x02) << "running, listen-only";

  command(resetCmd(0));
  EXPECT_FALSE(model.channelStarted(0));
  EXPECT_EQ(command({0x12, 0x80, 0x01, 0x00, 0x00, 0x00})[5], 0x03);
  command(startCmd(0));
  EXPECT_TRUE(model.channelStarted(0)) << "a reset channel keeps its timing";

  command(initCmd(0, false, 0x00, 0x14));
  EXPECT_FALSE(model.channelListenOnly(0));
  EXPECT_FALSE(model.channelStarted(0));

  command(startCmd(0));
  command({0x12, 0xB1, 0x02, 0x01, 0x01});
  model.onReset();
  EXPECT_FALSE(model.channelStarted(0));
  EXPECT_EQ(command({0x12, 0xB2, 0x02, 0x00, 0x00}), (Bytes{0x12, 0xB2, 0x02, 0x00, 0x00}));
  EXPECT_EQ(command(startCmd(0))[3], 0x01) << "the set-up is lost with the power";
}

TEST_F(UsbCan2ModelTest, BaudParametersAreKeptPerChannel) {
  command(initCmd(0, false, 0x00, 0x1C));
  command(initCmd(1, false, 0x03, 0x14));
  for (auto [ch, t0, t1] : {std::tuple{0, 0x00, 0x1C}, std::tuple{1, 0x03, 0x14}}) {
    const Bytes r = command({0x12, 0xA4, 0x01, uint8_t(ch)});
    ASSERT_GE(r.size(), 9u);
    EXPECT_EQ(r[6], t0) << ch;
    EXPECT_EQ(r[8], t1) << ch;
  }
  EXPECT_EQ(model.timing0(1), 0x03);
  EXPECT_EQ(command({0x12, 0xA4, 0x01, 0x02})[3], 0x01) << "no channel 2";
}

TEST_F(UsbCan2ModelTest, ReceiveRecordsCarryTheFrameInTheFamilyFormat) {
  startChannel(0);
  startChannel(1);
  struct Case {
    const char *what;
    unsigned ch;
    CanFrame f;
    uint32_t time;
    Bytes head; // bytes 0..10
  } cases[] = {
      {"standard 0x7FF remote on channel 1",
       1,
       frame(0x7FF, 8, false, true),
       0x00302010,
       {0x10, 0x20, 0x30, 0x01, 0, 0, 0x58, 0xE0, 0xFF, 0x00, 0x00}},
      {"extended 0x1FFFFFFF",
       0,
       frame(0x1FFFFFFF, 2, true),
       0xFFABCDEF,
       {0xEF, 0xCD, 0xAB, 0x01, 0, 0, 0x82, 0xF8, 0xFF, 0xFF, 0xFF}},
      {"standard 0x123",
       0,
       frame(0x123, 0),
       0x00000000,
       {0x00, 0x00, 0x00, 0x01, 0, 0, 0x00, 0x60, 0x24, 0x00, 0x00}},
  };
  for (const Case &c : cases) {
    model.onBusFrame(host, c.ch, c.f, c.time);
    const Bytes rec = host.drain(kDataIn);
    ASSERT_EQ(rec.size(), 19u) << c.what;
    EXPECT_EQ(Bytes(rec.begin(), rec.begin() + 11), c.head) << c.what;
    for (size_t i = 0; i < 8; ++i)
      EXPECT_EQ(rec[11 + i], !c.f.remote && i < c.f.len ? 0x31 + i : 0) << c.what << " byte " << i;
  }
}

TEST_F(UsbCan2ModelTest, OnlyStartedChannelsHearClassicFrames) {
  startChannel(1, true);
  model.onBusFrame(host, 0, frame(0x100, 1), 5);
  model.onBusFrame(host, 1, frame(0x100, 8, false, false, true), 5);
  EXPECT_TRUE(host.drain(kDataIn).empty()) << "stopped channel, or a CAN FD frame";
  model.onBusFrame(host, 1, frame(0x100, 1), 5);
  EXPECT_EQ(host.drain(kDataIn).size(), 19u) << "listen-only still receives";
  command(resetCmd(1));
  model.onBusFrame(host, 1, frame(0x100, 1), 5);
  EXPECT_TRUE(host.drain(kDataIn).empty());
}

TEST_F(UsbCan2ModelTest, TransmitPacketsOfOneToThreeRecordsReachTheBus) {
  startChannel(0);
  startChannel(1);
  const Bytes recs[] = {txRecord(0, 0x7FF, false, false, 8),
                        txRecord(1, 0x1FFFFFFF, true, false, 3),
                        txRecord(1, 0x0AB, false, true, 4)};
  for (size_t n = 1; n <= 3; ++n) {
    host.sent.clear();
    Bytes packet;
    for (size_t i = 0; i < n; ++i)
      packet.insert(packet.end(), recs[i].begin(), recs[i].end());
    EXPECT_EQ(host.write(model, kDataOut, packet), int(packet.size()));
    ASSERT_EQ(host.sent.size(), n);
  }
  const auto &[ch0, std0] = host.sent[0];
  EXPECT_EQ(ch0, 0u);
  EXPECT_EQ(std0.id, 0x7FFu);
  EXPECT_FALSE(std0.extended);
  EXPECT_EQ(std0.len, 8);
  EXPECT_EQ(std0.data[7], 0xA7);
  const auto &[ch1, ext] = host.sent[1];
  EXPECT_EQ(ch1, 1u);
  EXPECT_EQ(ext.id, 0x1FFFFFFFu);
  EXPECT_TRUE(ext.extended);
  EXPECT_EQ(ext.len, 3);
  EXPECT_EQ(ext.data[2], 0xA2);
  const CanFrame &rtr = host.sent[2].second;
  EXPECT_TRUE(rtr.remote);
  EXPECT_EQ(rtr.id, 0x0ABu);
  EXPECT_EQ(rtr.len, 4);
  EXPECT_EQ(rtr.data[0], 0);
  EXPECT_FALSE(rtr.fd);
}

TEST_F(UsbCan2ModelTest, TransmitKeepsToWholeRecordsAndClassicLengths) {
  startChannel(0);
  Bytes packet = txRecord(0, 0x10, false, false, 12);
  packet.resize(19 + 7, 0x01); // a fragment of a second record
  host.write(model, kDataOut, packet);
  ASSERT_EQ(host.sent.size(), 1u);
  EXPECT_EQ(host.sent[0].second.len, 8);
}

TEST_F(UsbCan2ModelTest, StoppedAndListenOnlyChannelsDoNotSend) {
  startChannel(1, true);
  Bytes packet = txRecord(0, 0x1, false, false, 1);
  const Bytes onListenOnly = txRecord(1, 0x2, false, false, 1);
  packet.insert(packet.end(), onListenOnly.begin(), onListenOnly.end());
  host.write(model, kDataOut, packet);
  EXPECT_TRUE(host.sent.empty());
}

TEST_F(UsbCan2ModelTest, AcknowledgementsCountTheFramesSentWhenEnabled) {
  startChannel(0);
  Bytes packet = txRecord(0, 0x1, false, false, 1);
  const Bytes stopped = txRecord(1, 0x2, false, false, 1);
  packet.insert(packet.end(), stopped.begin(), stopped.end());
  host.write(model, kDataOut, packet);
  EXPECT_TRUE(host.read(model, kCmdIn).empty()) << "no acknowledgement by default";

  model.setTransmitAcks(true);
  host.write(model, kDataOut, packet);
  const Bytes ack = host.read(model, kCmdIn);
  ASSERT_GE(ack.size(), 3u);
  EXPECT_LE(ack.size(), 10u);
  EXPECT_EQ(ack[2], 1) << "one of the two frames went out";
}

} // namespace
} // namespace wcansim
