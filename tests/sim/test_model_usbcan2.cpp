// SPDX-License-Identifier: MIT
// The classic adapter model driven directly, for what the driver's own suite
// cannot observe: answers it never asks for, channel rules and packet splitting.
#include <gtest/gtest.h>

#include "sim/ModelUsbCan2.h"
#include "sim/Models.h"
#include "tests/sim/FakeModelHost.h"

namespace wcansim {
namespace {

constexpr uint8_t kCmdOut = 0x01, kCmdIn = 0x81, kDataOut = 0x02, kDataIn = 0x82;

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
Bytes stateCmd(unsigned ch) { return {0x12, 0x80, 0x01, uint8_t(ch), 0x00, 0x00}; }

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
    EXPECT_EQ(host.write(model, kCmdOut, cmd), int(cmd.size()));
    return host.read(model, kCmdIn);
  }
  void start(unsigned ch, bool listenOnly = false) {
    command(initCmd(ch, listenOnly, 0x00, 0x1C));
    command(startCmd(ch));
  }
};

TEST_F(UsbCan2ModelTest, AnswersWhatTheDriverNeverAsks) {
  command(initCmd(1, false, 0x03, 0x1C));
  command(startCmd(1));
  command(resetCmd(1));
  struct Case {
    const char *what;
    Bytes cmd, reply;
  } cases[] = {
      {"state, in reset",
       stateCmd(1),
       {0x12, 0x80, 0x09, 0x00, 0x01, 0x01, 0x0C, 0x00, 0x00, 0x00, 0x00, 0x00}},
      {"baud, no channel 2", {0x12, 0xA4, 0x01, 0x02}, {0x12, 0xA4, 0x01, 0x01}},
      {"unknown code", {0x12, 0x04, 0x0B, 0x00}, {0x12, 0x04, 0x01, 0x01}},
  };
  for (const Case &c : cases)
    EXPECT_EQ(command(c.cmd), c.reply) << c.what;
}

TEST_F(UsbCan2ModelTest, OnlyTheLatestAnswerWaitsForTheHost) {
  host.write(model, kCmdOut, resetCmd(0)); // written without reading its answer
  EXPECT_EQ(command({0x12, 0x13, 0x01, 0x00}), (Bytes{0x12, 0x13, 0x02, 0x00, 0x02}));
  EXPECT_TRUE(host.read(model, kCmdIn).empty());
  host.write(model, kCmdOut, {0x12, 0xB2, 0x02, 0x00, 0x00});
  host.write(model, kCmdOut, {0x55, 0x01}); // noise leaves the answer alone
  EXPECT_EQ(host.read(model, kCmdIn)[1], 0xB2);
  EXPECT_LT(host.write(model, 0x03, {0x12, 0x01}), 0);
}

TEST_F(UsbCan2ModelTest, ChannelLifecycleFollowsInitStartResetAndPowerCycle) {
  EXPECT_EQ(command(startCmd(0))[3], 0x01) << "start before init is refused";
  command(initCmd(0, true, 0x03, 0x1C));
  EXPECT_FALSE(model.channelStarted(0)) << "init leaves the controller in reset mode";
  command(startCmd(0));
  EXPECT_TRUE(model.channelStarted(0));
  EXPECT_FALSE(model.channelStarted(1));
  EXPECT_EQ(command(stateCmd(0))[5], 0x02) << "running, listen-only";
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

TEST_F(UsbCan2ModelTest, OnlyStartedChannelsHearClassicFrames) {
  start(1, true);
  model.onBusFrame(host, 0, frame(0x100, 1), 5);
  model.onBusFrame(host, 1, frame(0x100, 8, false, false, true), 5);
  EXPECT_TRUE(host.drain(kDataIn).empty()) << "stopped channel, or a CAN FD frame";
  model.onBusFrame(host, 1, frame(0x100, 1), 5);
  EXPECT_EQ(host.drain(kDataIn).size(), 19u) << "listen-only still receives";
}

TEST_F(UsbCan2ModelTest, TransmitPacketsAreSplitIntoRecordsForStartedChannels) {
  start(0);
  start(1, true);
  const Bytes a = txRecord(0, 0x7FF, false, false, 8), b = txRecord(0, 0x1FFFFFFF, true, false, 3),
              c = txRecord(0, 0x0AB, false, true, 12),
              onListenOnly = txRecord(1, 0x2, false, false, 1);
  struct Case {
    std::vector<Bytes> records;
    size_t tail; // stray bytes after the records
    std::vector<uint32_t> idsSent;
  } cases[] = {{{a, b, c}, 0, {0x7FF, 0x1FFFFFFF, 0x0AB}},
               {{onListenOnly, a}, 0, {0x7FF}},
               {{c}, 7, {0x0AB}}};
  for (const Case &k : cases) {
    Bytes packet;
    for (const Bytes &r : k.records)
      packet.insert(packet.end(), r.begin(), r.end());
    packet.resize(packet.size() + k.tail, 0x01);
    host.sent.clear();
    EXPECT_EQ(host.write(model, kDataOut, packet), int(packet.size()));
    std::vector<uint32_t> ids;
    for (const auto &[ch, f] : host.sent)
      ids.push_back(ch == 0 ? f.id : ~0u);
    EXPECT_EQ(ids, k.idsSent) << k.records.size() << " records";
  }
  const CanFrame &remote = host.sent.back().second;
  EXPECT_EQ(std::tuple(remote.remote, remote.len, remote.data[0]), std::tuple(true, 8, 0))
      << "a classic length above 8 carries 8, and a remote frame no data";

  command(initCmd(0, false, 0, 0x1C)); // stopped again
  host.sent.clear();
  host.write(model, kDataOut, a);
  EXPECT_TRUE(host.sent.empty());
}

} // namespace
} // namespace wcansim
