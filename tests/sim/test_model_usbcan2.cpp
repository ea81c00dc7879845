#include <gtest/gtest.h>

#include <string>

#include "sim/ModelUsbCan2.h"
#include "sim/Models.h"
#include "tests/sim/FakeModelHost.h"

namespace wcansim {
namespace {

constexpr uint8_t kCmdOut = 0x01, kCmdIn = 0x81, kDataOut = 0x02, kDataIn = 0x82;

// Host-side transfers against a model: a read gives the model its chance to
// fill an empty endpoint first, as the adapter does.
int write(FakeModelHost &host, DeviceModel &model, uint8_t ep, const Bytes &bytes) {
  return model.onHostWrite(host, ep, bytes.data(), bytes.size());
}
Bytes read(FakeModelHost &host, DeviceModel &model, uint8_t ep) {
  auto &q = host.queued[ep];
  if (q.empty())
    model.onReadEmpty(host, ep);
  if (q.empty())
    return {};
  Bytes front = q.front();
  q.erase(q.begin());
  return front;
}
// Every byte queued on a stream endpoint, joined, and the queue emptied.
Bytes drain(FakeModelHost &host, uint8_t ep) {
  Bytes out;
  for (const Bytes &b : host.queued[ep])
    out.insert(out.end(), b.begin(), b.end());
  host.queued[ep].clear();
  return out;
}

// One 19-byte transmit record as the host builds it (stamp big-endian).
Bytes txRecord(unsigned ch, uint32_t id, bool ext, bool rtr, uint8_t len) {
  const uint32_t raw = ext ? id << 3 : id << 5;
  Bytes r{0x11, 0x22, 0x33, 0x44, 0, 2};
  r.push_back(uint8_t((len & 0x0F) | ch << 4 | (rtr ? 0x40 : 0) | (ext ? 0x80 : 0)));
  for (int i = 0; i < 4; ++i)
    r.push_back(uint8_t(raw >> 8 * i));
  for (uint8_t i = 0; i < 8; ++i)
    r.push_back(i < len ? uint8_t(0xA0 + i) : 0);
  return r;
}

Bytes initCmd(unsigned ch, bool listenOnly, uint8_t t0, uint8_t t1) {
  return {0x12, 0x03, 0x06, 0x00, uint8_t((listenOnly ? 0x80 : 0) | ch << 4), t0, t1, 0x02, 0x57};
}
Bytes startCmd(unsigned ch) { return {0x12, 0x0E, 0x02, 0x00, uint8_t(ch << 4)}; }
Bytes resetCmd(unsigned ch) { return {0x12, 0x0F, 0x02, 0x00, uint8_t(ch << 4)}; }
const Bytes kStateCh0{0x12, 0x80, 0x01, 0x00, 0x00, 0x00};

CanFrame frame(uint32_t id, uint8_t len, bool ext = false, bool rtr = false, bool fd = false) {
  CanFrame f;
  f.id = id, f.len = len, f.extended = ext, f.remote = rtr, f.fd = fd;
  for (uint8_t i = 0; i < 8; ++i)
    f.data[i] = uint8_t(0x31 + i);
  return f;
}

class UsbCan2ModelTest : public ::testing::Test {
protected:
  std::unique_ptr<DeviceModel> owned = makeUsbCan2Model(4);
  UsbCan2Model &model = static_cast<UsbCan2Model &>(*owned);
  FakeModelHost host;

  Bytes command(const Bytes &cmd) {
    EXPECT_EQ(write(host, model, kCmdOut, cmd), int(cmd.size()));
    return read(host, model, kCmdIn);
  }
  void start(unsigned ch, bool listenOnly = false) {
    command(initCmd(ch, listenOnly, 0x00, 0x1C));
    command(startCmd(ch));
  }
};

TEST(UsbCan2ModelIdentity, TypesThreeAndFourShareTheClassicIds) {
  for (unsigned type : {3u, 4u}) {
    auto m = makeUsbCan2Model(type);
    ASSERT_NE(m, nullptr) << type;
    EXPECT_EQ(std::tuple(m->vendorId(), m->productId(), m->channelCount()),
              std::tuple(0x0471, 0x1200, 2u));
    EXPECT_EQ(m->endpointShape(kDataIn).kind, EndpointShape::Stream);
    EXPECT_EQ(m->endpointShape(kDataIn).maxRead, 64);
  }
  for (unsigned type : {41u, 61u, 63u})
    EXPECT_EQ(makeUsbCan2Model(type), nullptr) << type;
}

TEST_F(UsbCan2ModelTest, AnswersEveryCommandOfTheTable) {
  auto withText = [](Bytes head, const std::string &s) {
    head.insert(head.end(), s.begin(), s.end());
    return head;
  };
  struct Case {
    const char *what;
    Bytes cmd, reply;
  } cases[] = {
      // Versions are exactly 6 bytes; the channel count is the last byte; the
      // texts are (length nibble - 1) bytes from byte 4.
      {"hardware version", {0x12, 0x01, 0x01, 0x00}, {0x12, 0x01, 0x03, 0x00, 0x01, 0x02}},
      {"firmware version", {0x12, 0x12, 0x01, 0x00}, {0x12, 0x12, 0x03, 0x00, 0x12, 0x03}},
      {"channel count", {0x12, 0x13, 0x01, 0x00}, {0x12, 0x13, 0x02, 0x00, 0x02}},
      {"serial text", {0x12, 0x14, 0x01, 0x00}, withText({0x12, 0x14, 0x0B, 0x00}, "C2A0000001")},
      {"hardware type", {0x12, 0x15, 0x01, 0x00}, withText({0x12, 0x15, 0x08, 0x00}, "USBCAN2")},
      {"init channel 1", initCmd(1, false, 0x03, 0x1C), {0x12, 0x03, 0x81, 0x00}},
      {"start channel 1", startCmd(1), {0x12, 0x0E, 0x01, 0x00}},
      {"state, running",
       {0x12, 0x80, 0x01, 0x01, 0x00, 0x00},
       {0x12, 0x80, 0x09, 0x00, 0x01, 0x00, 0x0C, 0x00, 0x00, 0x00, 0x00, 0x00}},
      {"reset channel 1", resetCmd(1), {0x12, 0x0F, 0x01, 0x00}},
      {"state, in reset",
       {0x12, 0x80, 0x01, 0x01, 0x00, 0x00},
       {0x12, 0x80, 0x09, 0x00, 0x01, 0x01, 0x0C, 0x00, 0x00, 0x00, 0x00, 0x00}},
      {"baud parameters",
       {0x12, 0xA4, 0x01, 0x01},
       {0x12, 0xA4, 0x06, 0x00, 0x01, 0x06, 0x03, 0x07, 0x1C}},
      {"baud, no channel 2", {0x12, 0xA4, 0x01, 0x02}, {0x12, 0xA4, 0x01, 0x01}},
      {"relay set", {0x12, 0xB1, 0x02, 0x01, 0x00}, {0x12, 0xB1, 0x02, 0x01, 0x00}},
      {"relay get", {0x12, 0xB2, 0x02, 0x00, 0x00}, {0x12, 0xB2, 0x02, 0x01, 0x00}},
      {"direct transfer", {0x12, 0xA7, 0xDE, 0xAD}, {0x12, 0xA7, 0xDE, 0xAD}},
      {"unknown code", {0x12, 0x04, 0x0B, 0x00}, {0x12, 0x04, 0x01, 0x01}},
  };
  for (const Case &c : cases)
    EXPECT_EQ(command(c.cmd), c.reply) << c.what;
}

TEST_F(UsbCan2ModelTest, OnlyTheLatestAnswerWaitsForTheHost) {
  write(host, model, kCmdOut, resetCmd(0)); // written without reading its answer
  EXPECT_EQ(command({0x12, 0x13, 0x01, 0x00}), (Bytes{0x12, 0x13, 0x02, 0x00, 0x02}));
  EXPECT_TRUE(read(host, model, kCmdIn).empty());
  write(host, model, kCmdOut, {0x12, 0xB2, 0x02, 0x00, 0x00});
  write(host, model, kCmdOut, {0x55, 0x01}); // noise leaves the answer alone
  EXPECT_EQ(read(host, model, kCmdIn)[1], 0xB2);
  EXPECT_LT(write(host, model, 0x03, {0x12, 0x01}), 0);
}

TEST_F(UsbCan2ModelTest, ChannelLifecycleFollowsInitStartResetAndPowerCycle) {
  EXPECT_EQ(command(startCmd(0))[3], 0x01) << "start before init is refused";
  command(initCmd(0, true, 0x03, 0x1C));
  EXPECT_TRUE(model.channelListenOnly(0));
  EXPECT_FALSE(model.channelStarted(0)) << "init leaves the controller in reset mode";
  command(startCmd(0));
  EXPECT_TRUE(model.channelStarted(0));
  EXPECT_FALSE(model.channelStarted(1));
  EXPECT_EQ(command(kStateCh0)[5], 0x02) << "running, listen-only";
  command(resetCmd(0));
  command(startCmd(0));
  EXPECT_TRUE(model.channelStarted(0)) << "a reset channel keeps its timing";
  command(initCmd(0, false, 0x00, 0x14));
  EXPECT_EQ(std::tuple(model.channelStarted(0), model.channelListenOnly(0), model.timing1(0)),
            std::tuple(false, false, 0x14));

  command(startCmd(0));
  command({0x12, 0xB1, 0x02, 0x01, 0x01});
  model.onReset();
  EXPECT_FALSE(model.channelStarted(0));
  EXPECT_EQ(command({0x12, 0xB2, 0x02, 0x00, 0x00}), (Bytes{0x12, 0xB2, 0x02, 0x00, 0x00}));
  EXPECT_EQ(command(startCmd(0))[3], 0x01) << "the set-up is lost with the power";
}

TEST_F(UsbCan2ModelTest, ReceiveRecordsCarryTheFrameInTheFamilyFormat) {
  start(0);
  start(1);
  struct Case {
    const char *what;
    unsigned ch;
    CanFrame f;
    uint32_t time;
    Bytes head; // bytes 0..10; the stamp's top byte is the record marker
  } cases[] = {
      {"standard 0x7FF remote, channel 1",
       1,
       frame(0x7FF, 8, false, true),
       0x00302010,
       {0x10, 0x20, 0x30, 0x01, 0, 0, 0x58, 0xE0, 0xFF, 0x00, 0x00}},
      {"extended 0x1FFFFFFF",
       0,
       frame(0x1FFFFFFF, 2, true),
       0xFFABCDEF,
       {0xEF, 0xCD, 0xAB, 0x01, 0, 0, 0x82, 0xF8, 0xFF, 0xFF, 0xFF}},
      {"standard 0x123, empty",
       0,
       frame(0x123, 0),
       0,
       {0x00, 0x00, 0x00, 0x01, 0, 0, 0x00, 0x60, 0x24, 0x00, 0x00}},
  };
  for (const Case &c : cases) {
    model.onBusFrame(host, c.ch, c.f, c.time);
    const Bytes rec = drain(host, kDataIn);
    ASSERT_EQ(rec.size(), 19u) << c.what;
    EXPECT_EQ(Bytes(rec.begin(), rec.begin() + 11), c.head) << c.what;
    for (size_t i = 0; i < 8; ++i)
      EXPECT_EQ(rec[11 + i], !c.f.remote && i < c.f.len ? 0x31 + i : 0) << c.what << " " << i;
  }
}

TEST_F(UsbCan2ModelTest, OnlyStartedChannelsHearClassicFrames) {
  start(1, true);
  model.onBusFrame(host, 0, frame(0x100, 1), 5);
  model.onBusFrame(host, 1, frame(0x100, 8, false, false, true), 5);
  EXPECT_TRUE(drain(host, kDataIn).empty()) << "stopped channel, or a CAN FD frame";
  model.onBusFrame(host, 1, frame(0x100, 1), 5);
  EXPECT_EQ(drain(host, kDataIn).size(), 19u) << "listen-only still receives";
}

TEST_F(UsbCan2ModelTest, TransmitPacketsPutTheirFramesOnTheBus) {
  start(0);
  start(1, true);
  const Bytes a = txRecord(0, 0x7FF, false, false, 8), b = txRecord(0, 0x1FFFFFFF, true, false, 3),
              c = txRecord(0, 0x0AB, false, true, 12),
              onListenOnly = txRecord(1, 0x2, false, false, 1);
  struct Case {
    std::vector<Bytes> records;
    size_t tail; // stray bytes after the records
    std::vector<uint32_t> idsSent;
  } cases[] = {{{a}, 0, {0x7FF}},
               {{a, b}, 0, {0x7FF, 0x1FFFFFFF}},
               {{a, b, c}, 0, {0x7FF, 0x1FFFFFFF, 0x0AB}},
               {{c}, 7, {0x0AB}},
               {{onListenOnly, a}, 0, {0x7FF}}};
  for (const Case &k : cases) {
    Bytes packet;
    for (const Bytes &r : k.records)
      packet.insert(packet.end(), r.begin(), r.end());
    packet.resize(packet.size() + k.tail, 0x01);
    host.sent.clear();
    EXPECT_EQ(write(host, model, kDataOut, packet), int(packet.size()));
    std::vector<uint32_t> ids;
    for (const auto &[ch, f] : host.sent)
      ids.push_back(ch == 0 ? f.id : ~0u);
    EXPECT_EQ(ids, k.idsSent) << k.records.size() << " records";
  }
  command(initCmd(0, false, 0, 0x1C)); // stopped again
  write(host, model, kDataOut, txRecord(0, 0x1, false, false, 1));
  EXPECT_EQ(host.sent.size(), 1u);
}

TEST_F(UsbCan2ModelTest, TransmitDecodesFlagsAndClassicLengths) {
  start(1);
  Bytes packet = txRecord(1, 0x1FFFFFFF, true, false, 3);
  const Bytes rtr = txRecord(1, 0x0AB, false, true, 12);
  packet.insert(packet.end(), rtr.begin(), rtr.end());
  write(host, model, kDataOut, packet);
  ASSERT_EQ(host.sent.size(), 2u);
  const CanFrame &e = host.sent[0].second, &r = host.sent[1].second;
  EXPECT_EQ(std::tuple(host.sent[0].first, e.id, e.extended, e.remote, e.len, e.data[2], e.data[3]),
            std::tuple(1u, 0x1FFFFFFFu, true, false, 3, 0xA2, 0));
  EXPECT_EQ(std::tuple(r.id, r.extended, r.remote, r.len, r.data[0], r.fd),
            std::tuple(0x0ABu, false, true, 8, 0, false));
}

TEST_F(UsbCan2ModelTest, AcknowledgementsCountTheFramesSentWhenEnabled) {
  start(0);
  Bytes packet = txRecord(0, 0x1, false, false, 1);
  const Bytes stopped = txRecord(1, 0x2, false, false, 1);
  packet.insert(packet.end(), stopped.begin(), stopped.end());
  write(host, model, kDataOut, packet);
  EXPECT_TRUE(read(host, model, kCmdIn).empty()) << "no acknowledgement by default";
  model.setTransmitAcks(true);
  write(host, model, kDataOut, packet);
  const Bytes ack = read(host, model, kCmdIn);
  ASSERT_GE(ack.size(), 3u);
  EXPECT_LE(ack.size(), 10u);
  EXPECT_EQ(ack[2], 1) << "one of the two frames went out";
}

} // namespace
} // namespace wcansim
