// SPDX-License-Identifier: MIT
// The CAN FD adapter driver end to end: exported functions over the
// simulated adapter, checking the bytes on the wire and the frames handed
// back. Only the tests named ...TimesOut wait for real time-outs.
#include <gtest/gtest.h>

#include <chrono>
#include <numeric>
#include <thread>
#include <type_traits>
#include <vector>

#include "devices/usbcanfd/QDeviceUsbCanFd2.h"
#include "sim/wcan_sim.h"
#include "wcan.h"

using wcansim::Bytes;
using namespace std::chrono_literals;

namespace {

constexpr unsigned kType = 41;

_WCAN_INITFD_CONFIG fdConfig(uint32_t abit = 500000, uint32_t dbit = 2000000, uint8_t fd = 1) {
  _WCAN_INITFD_CONFIG c{};
  c.abitRate = abit;
  c.dbitRate = dbit;
  c.fdEnable = fd;
  return c;
}

_WCAN_CANFD_OBJ fdFrame(uint32_t id, uint8_t len, uint8_t ext = 0, uint8_t remote = 0,
                        uint8_t flags = 0x10) {
  _WCAN_CANFD_OBJ f{};
  f.id = id;
  f.dataLen = len;
  f.externFlag = ext;
  f.remoteFlag = remote;
  f.fdFlags = flags;
  for (int i = 0; i < 64; ++i) {
    f.data[i] = static_cast<uint8_t>(id + i);
  }
  return f;
}

template <typename Obj>
std::vector<Obj> receiveAll(unsigned type, unsigned ch, size_t want, int waitMs = 1000) {
  std::vector<Obj> got;
  const auto until = std::chrono::steady_clock::now() + std::chrono::milliseconds(waitMs);
  Obj buf[64];
  while (got.size() < want && std::chrono::steady_clock::now() < until) {
    int n = 0;
    if constexpr (std::is_same_v<Obj, _WCAN_CANFD_OBJ>)
      n = WCAN_ReceiveFD(type, 0, ch, buf, 64, 20);
    else
      n = WCAN_Receive(type, 0, ch, buf, 64, 20);
    got.insert(got.end(), buf, buf + std::max(n, 0));
  }
  return got;
}

template <typename Obj>
void expectSameFrames(const std::vector<Obj> &got, const std::vector<Obj> &sent) {
  ASSERT_EQ(got.size(), sent.size());
  for (size_t i = 0; i < sent.size(); ++i) {
    EXPECT_EQ(got[i].id, sent[i].id) << i;
    EXPECT_EQ(got[i].externFlag, sent[i].externFlag) << i;
    EXPECT_EQ(got[i].remoteFlag, sent[i].remoteFlag) << i;
    ASSERT_EQ(got[i].dataLen, sent[i].dataLen) << i;
    EXPECT_EQ(0, memcmp(got[i].data, sent[i].data, sent[i].dataLen)) << i;
  }
}

// The filter command: mode, channel in the high nibble, then both ids.
Bytes filterCmd(uint8_t mode, uint8_t channel, uint32_t start, uint32_t end) {
  Bytes b = {0x55, 4, 0x0A, mode, channel};
  for (uint32_t v : {start, end})
    for (int i = 0; i < 4; ++i)
      b.push_back(static_cast<uint8_t>(v >> (8 * i)));
  return b;
}

class FdDevice : public ::testing::Test {
protected:
  void open(unsigned type = kType) {
    type_ = type;
    wcansim::reset();
    adapter_ = wcansim::plugIn(type);
    ASSERT_EQ(WCAN_OpenDevice(type, 0), 1);
    wcansim::clearWritten(adapter_);
  }
  void TearDown() override {
    WCAN_CloseDevice(type_, 0);
    wcansim::reset();
  }
  int init(unsigned ch, _WCAN_INITFD_CONFIG cfg = fdConfig()) {
    return WCAN_InitCANFD(type_, 0, ch, &cfg);
  }
  std::vector<Bytes> commands() const { return wcansim::written(adapter_, 0x01); }
  std::vector<_WCAN_CANFD_OBJ> receiveFd(unsigned ch, unsigned want, int waitMs = 1000) {
    return receiveAll<_WCAN_CANFD_OBJ>(type_, ch, want, waitMs);
  }

  unsigned type_ = kType;
  wcansim::AdapterId adapter_ = -1;
};

TEST_F(FdDevice, OpenQueriesBothVersionsAndReopenIsFree) {
  wcansim::reset();
  EXPECT_EQ(WCAN_OpenDevice(42, 0), 0) << "no adapter attached";
  EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_DEVICE_NOT_EXIST);
  adapter_ = wcansim::plugIn(41);
  type_ = 42; // shares the USB ids of type 41
  ASSERT_EQ(WCAN_OpenDevice(42, 0), 1);
  EXPECT_EQ(commands(), (std::vector<Bytes>{{0x55, 0x01, 0x01, 0x01}, {0x55, 0x12, 0x01, 0x01}}));
  EXPECT_EQ(WCAN_OpenDevice(42, 0), 1);
  EXPECT_EQ(commands().size(), 2u) << "an open device is not touched again";
  _WCAN_BOARD_INFO info{};
  EXPECT_EQ(WCAN_BoardInfoGet(42, 0, &info), 0) << "kept: the board query never reports success";
}

TEST_F(FdDevice, InitSendsTheBaudCommandAndStarts) {
  struct Case {
    unsigned type;
    _WCAN_INITFD_CONFIG cfg;
    Bytes baud;
  };
  _WCAN_INITFD_CONFIG custom = fdConfig(0, 0, 1);
  custom.abitTiming = 0x12345678;
  custom.dbitTiming = 0x00800001;
  custom.option0 = 7;
  custom.option1 = 9;
  _WCAN_INITFD_CONFIG classicCustom = fdConfig(0, 5000000, 0);
  classicCustom.abitTiming = 0x01400106;
  const Case cases[] = {
      {67, fdConfig(1000000, 0, 0), {0x55, 3, 1, 1,  0, 0, 80, 0, 3,  0, 0, 14,
                                     0,    3, 0, 80, 0, 3, 0,  0, 14, 0, 3, 0}},
      {41, custom, {0x55, 3,    1, 1,  9, 7, 60, 0, 0x48, 0, 0x68, 0x78,
                    0,    0x56, 0, 60, 0, 2, 0,  0, 1,    0, 0,    0}},
      {64, classicCustom, {0x55, 3, 1, 1,  0, 0, 60, 0, 5, 0, 0, 6,
                           0,    1, 0, 60, 0, 5, 0,  0, 6, 0, 1, 0}},
  };
  for (const auto &c : cases) {
    open(c.type);
    EXPECT_EQ(init(1, c.cfg), 1) << c.type;
    EXPECT_EQ(commands(), (std::vector<Bytes>{c.baud, {0x55, 0x0E, 0x02, 0x00, 0x10}}));
    WCAN_CloseDevice(c.type, 0);
    // Closing stops the initialised channel.
    EXPECT_EQ(commands().back(), (Bytes{0x55, 0x0F, 0x02, 0x00, 0x10})) << c.type;
  }
}

TEST_F(FdDevice, InitRejectsBadArguments) {
  open();
  struct Case {
    unsigned channel;
    _WCAN_INITFD_CONFIG cfg;
    int error;
  } cases[] = {
      {8, fdConfig(), WCAN_ERR_PARAMETER},
      {0, fdConfig(83333, 2000000), WCAN_ERR_BAUD_RATE_NOT_SUPPORTED},
      {0, fdConfig(0, 2000000), WCAN_ERR_BAUD_RATE_NOT_SUPPORTED},
      {0, fdConfig(500000, 3000000), WCAN_ERR_BAUD_RATE_NOT_SUPPORTED},
  };
  for (auto &c : cases) {
    EXPECT_EQ(WCAN_InitCANFD(kType, 0, c.channel, &c.cfg), 0);
    EXPECT_EQ(WCAN_GetLastError(), c.error);
  }
  EXPECT_TRUE(commands().empty());
  EXPECT_EQ(WCAN_InitCAN(kType, 0, 0, nullptr), 0);
  EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
}

TEST_F(FdDevice, FramesCrossFromChannelZeroToOneUnchanged) {
  open();
  ASSERT_EQ(init(0), 1);
  ASSERT_EQ(init(1), 1);
  std::vector<_WCAN_CANFD_OBJ> sent;
  for (uint8_t len : {0, 1, 8, 12, 16, 20, 24, 32, 48, 64}) {
    sent.push_back(fdFrame(0x100u + len, len, 0, 0, len % 2 ? 0x10 : 0x18));
    sent.push_back(fdFrame(0x1ABCDE00u + len, len, 1, 0, 0x10));
  }
  ASSERT_EQ(WCAN_TransmitFD(kType, 0, 0, sent.data(), 20), 20);
  const auto got = receiveFd(1, 20);
  expectSameFrames(got, sent);
  for (size_t i = 0; i < got.size(); ++i)
    EXPECT_EQ(got[i].fdFlags, sent[i].fdFlags & 0x08) << "the rate-switch bit comes back";
  const auto batches = wcansim::written(adapter_, 0x02);
  ASSERT_EQ(batches.size(), 2u) << "20 records go out as two batches of 10";
  EXPECT_EQ(batches[1].size(), 7u + 10 * 75);
  EXPECT_EQ(WCAN_TransmitFD(kType, 0, 0, sent.data(), 0), 0);

  std::vector<_WCAN_CAN_OBJ> classic = {{0x7FF, 0, 0, 0, 0, 0, 8, {}, {1, 2, 3, 4, 5, 6, 7, 8}},
                                        {0x1FFFFFFF, 0, 0, 0, 0, 1, 3, {}, {9, 8, 7}},
                                        {0x55, 0, 0, 0, 1, 0, 5, {}, {}}};
  ASSERT_EQ(WCAN_Transmit(kType, 0, 0, classic.data(), 3), 3);
  EXPECT_EQ(classic[2].dataLen, 0) << "a remote record is changed in the caller's array";
  expectSameFrames(receiveAll<_WCAN_CAN_OBJ>(kType, 1, 3), classic);
}

TEST_F(FdDevice, EveryQueueOfTheEightChannelAdapterIsReached) {
  open(67);
  for (unsigned ch = 0; ch < 8; ++ch)
    ASSERT_EQ(init(ch), 1) << ch;
  for (unsigned ch = 0; ch < 8; ch += 2) {
    wcansim::CanFrame f;
    f.id = ch;
    f.fd = true;
    f.len = 12;
    wcansim::injectFrame(adapter_, ch, f); // reaches ch and its partner ch + 1
  }
  for (unsigned ch = 0; ch < 8; ++ch) {
    const auto got = receiveFd(ch, 1);
    ASSERT_EQ(got.size(), 1u) << ch;
    EXPECT_EQ(got[0].id, ch & ~1u);
    EXPECT_EQ(got[0].dataLen, 12);
  }
  std::thread foreignNode([this] {
    std::this_thread::sleep_for(50ms);
    wcansim::CanFrame f;
    f.id = 0x42;
    wcansim::injectFrame(adapter_, 6, f);
  });
  _WCAN_CAN_OBJ got{};
  EXPECT_EQ(WCAN_Receive(67, 0, 12, &got, 1, -1), 1) << "no limit waits; channel 12 reads queue 7";
  EXPECT_EQ(got.id, 0x42u);
  foreignNode.join();
}

// Whole 4096-byte transfers, records cut across them, classic and CAN FD
// mixed: every record reaches its channel's queue in order, also once the
// queues have grown and wrapped around.
TEST_F(FdDevice, AFullStreamArrivesRecordForRecord) {
  open(66);
  for (unsigned ch = 0; ch < 8; ++ch)
    ASSERT_EQ(init(ch), 1) << ch;
  std::vector<wcansim::ChannelFrame> block;
  for (uint32_t i = 0; i < 100; ++i) {
    wcansim::CanFrame f;
    f.id = i;
    f.fd = i % 3 != 0;
    f.len = f.fd ? 64 : 8;
    f.data[0] = static_cast<uint8_t>(i);
    block.push_back({i % 8, f});
  }
  constexpr unsigned kTimes = 40;
  ASSERT_TRUE(wcansim::streamBacklog(adapter_, block, kTimes));
  const auto ids = [](const auto &frames) {
    std::vector<uint32_t> out;
    for (const auto &f : frames)
      out.push_back(f.id << 8 | f.data[0]);
    return out;
  };
  for (unsigned ch = 0; ch < 8; ++ch) {
    std::vector<uint32_t> wantFd, wantCan;
    for (unsigned t = 0; t < kTimes; ++t)
      for (const auto &f : block)
        if (f.channel == ch)
          (f.frame.fd ? wantFd : wantCan).push_back(f.frame.id << 8 | f.frame.data[0]);
    EXPECT_EQ(ids(receiveFd(ch, static_cast<unsigned>(wantFd.size()))), wantFd) << ch;
    EXPECT_EQ(ids(receiveAll<_WCAN_CAN_OBJ>(type_, ch, wantCan.size())), wantCan) << ch;
  }
}

TEST_F(FdDevice, StopClearAndCountsFollowTheirRules) {
  open();
  EXPECT_EQ(WCAN_Stop(kType, 0, 0), 1);
  EXPECT_TRUE(commands().empty()) << "an uninitialised channel gets no stop command";
  EXPECT_EQ(WCAN_Stop(kType, 0, 9), 0);
  EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_PARAMETER);
  for (unsigned channel : {8u, 256u}) {
    EXPECT_EQ(WCAN_Start(kType, 0, channel), 0) << channel;
    EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_PARAMETER);
  }
  EXPECT_TRUE(commands().empty()) << "channel 256 must not start channel 0";
  ASSERT_EQ(init(0), 1);
  ASSERT_EQ(init(1), 1);
  std::vector<_WCAN_CANFD_OBJ> frames(4, fdFrame(0x10, 8));
  frames[3].fdFlags = 0; // still an FD record
  ASSERT_EQ(WCAN_TransmitFD(kType, 0, 0, frames.data(), 4), 4);
  for (int i = 0; i < 100 && WCAN_GetReceiveNum(kType, 0, 1, 1) < 4; ++i) {
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 1, 1), 4);
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 1, 0), 0);
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 1, 2), 4);
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 1, 3), 0);
  EXPECT_EQ(WCAN_ClearBuffer(kType, 0, 1), 1);
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 1, 2), 0);
  wcansim::clearWritten(adapter_);
  EXPECT_EQ(WCAN_Stop(kType, 0, 1), 1);
  EXPECT_EQ(commands(), (std::vector<Bytes>{{0x55, 0x0F, 0x02, 0x00, 0x10}}));
}

TEST_F(FdDevice, FilterCommandsCarryMaskedRanges) {
  open();
  struct Case {
    _WCAN_FLITER_CONFIG cfg;
    int result;
    Bytes sent; // empty: nothing sent
  };
  const Case cases[] = {
      {{1, 1, 0, 0x3FFFFFFF, 0xFFFFFFFF, 0}, 1, filterCmd(3, 0x10, 0x1FFFFFFF, 0x1FFFFFFF)},
      {{1, 0, 0, 0x800, 0x9FF, 0}, 1, filterCmd(2, 0x10, 0, 0x1FF)},
      {{2, 0, 0, 0, 0, 0}, 1, filterCmd(4, 0x10, 0, 0)},
      {{0, 0, 0, 0, 0, 0}, 1, filterCmd(1, 0x10, 0, 0)},
      {{3, 0, 0, 0, 0, 0}, 0, {}},
  };
  for (auto c : cases) {
    wcansim::clearWritten(adapter_);
    EXPECT_EQ(WCAN_SetFliter(kType, 0, 1, &c.cfg), c.result);
    const auto sent = commands();
    EXPECT_EQ(sent.empty() ? Bytes{} : sent.back(), c.sent) << int(c.cfg.filterCmd);
  }
  EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_PARAMETER);

  // Mode 7 is mode 2: a 0..0 range at once, then the range unmasked.
  _WCAN_FLITER_CONFIG any{1, 7, 0, 0xFFFFFFFF, 0xFFFFFFFF, 0};
  wcansim::clearWritten(adapter_);
  EXPECT_EQ(WCAN_SetFliter(kType, 0, 0, &any), 1);
  EXPECT_EQ(commands(),
            (std::vector<Bytes>{filterCmd(5, 0, 0, 0), filterCmd(5, 0, 0xFFFFFFFF, 0xFFFFFFFF)}));
  wcansim::injectReplyFault(adapter_, wcansim::ReplyFault::Status, 1);
  _WCAN_FLITER_CONFIG enable{2, 0, 0, 0, 0, 0};
  EXPECT_EQ(WCAN_SetFliter(kType, 0, 0, &enable), 0) << "status byte not 0";
}

TEST_F(FdDevice, ForeignAndShortRepliesAreSkippedAndTheCommandResent) {
  open();
  const Bytes start1 = {0x55, 0x0E, 0x02, 0x00, 0x10};
  wcansim::injectReplyFault(adapter_, wcansim::ReplyFault::Foreign, 0x0F);
  EXPECT_EQ(WCAN_Start(kType, 0, 1), 1);
  EXPECT_EQ(commands(), std::vector<Bytes>(2, start1));
  wcansim::injectReplyFault(adapter_, wcansim::ReplyFault::Short, 2);
  EXPECT_EQ(WCAN_Start(kType, 0, 1), 1);
  EXPECT_EQ(commands(), std::vector<Bytes>(4, start1));

  wcansim::injectReplyFault(adapter_, wcansim::ReplyFault::Status, 1);
  EXPECT_EQ(init(0), 0) << "a baud reply with a nonzero status fails";
}

TEST_F(FdDevice, DirectTransferReturnsTheReplyPayload) {
  open();
  unsigned char data[100];
  std::iota(data, data + 100, 0);
  Bytes expected = {0x12, 0xA7};
  expected.insert(expected.end(), data, data + 62);
  EXPECT_EQ(WCAN_DataDirectTransfer(kType, 0, data, 100), 62);
  EXPECT_EQ(commands(), std::vector<Bytes>{expected}) << "cut to one 64-byte command";
  EXPECT_EQ(data[61], 61) << "the echoed payload lands at the start of the buffer";
}

TEST_F(FdDevice, UnplugDuringTrafficBringsBothChannelsBack) {
  open();
  ASSERT_EQ(init(0), 1);
  ASSERT_EQ(init(1), 1);
  _WCAN_CANFD_OBJ f = fdFrame(0x321, 16);
  ASSERT_EQ(WCAN_TransmitFD(kType, 0, 0, &f, 1), 1);
  ASSERT_EQ(receiveFd(1, 1).size(), 1u);

  wcansim::unplug(adapter_);
  // Once the loss is seen, transmissions fail at once.
  bool failing = false;
  for (int i = 0; i < 200 && !failing; ++i) {
    failing = WCAN_TransmitFD(kType, 0, 0, &f, 1) == 0;
    std::this_thread::sleep_for(5ms);
  }
  EXPECT_TRUE(failing);
  std::this_thread::sleep_for(120ms); // a few 50 ms attempts against nothing
  wcansim::clearWritten(adapter_);
  // The first round fails at channel 1's baud reply; the next starts over.
  wcansim::injectReplyFault(adapter_, wcansim::ReplyFault::Status, 0, 2);
  wcansim::injectReplyFault(adapter_, wcansim::ReplyFault::Status, 1);
  testing::internal::CaptureStdout();
  wcansim::replug(adapter_);

  std::vector<_WCAN_CANFD_OBJ> got;
  for (int i = 0; i < 100 && got.empty(); ++i) {
    if (WCAN_TransmitFD(kType, 0, 0, &f, 1) == 1) {
      got = receiveFd(1, 1, 100);
    } else {
      std::this_thread::sleep_for(20ms);
    }
  }
  const std::string log = testing::internal::GetCapturedStdout();
  ASSERT_EQ(got.size(), 1u) << "traffic resumes after recovery";
  EXPECT_EQ(got[0].id, 0x321u);
  std::vector<std::pair<int, int>> steps; // (command, channel)
  for (const auto &c : commands()) {
    steps.emplace_back(c[1], c[1] == 0x03 ? c[2] : c[4] >> 4);
  }
  const std::vector<std::pair<int, int>> expected = {{3, 0},    {0x0E, 0}, {3, 1},   {3, 0},
                                                     {0x0E, 0}, {3, 1},    {0x0E, 1}};
  EXPECT_EQ(steps, expected);
  const std::string ok = "DRV Tip:USBCANFD OK...";
  const size_t first = log.find(ok);
  EXPECT_NE(first, std::string::npos);
  EXPECT_EQ(log.find(ok, first + 1), std::string::npos) << "logged once";
}

TEST_F(FdDevice, SilentAdapterTimesOut) {
  open();
  wcansim::setSilent(adapter_, true);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(WCAN_Start(kType, 0, 0), 0);
  const auto took = std::chrono::steady_clock::now() - t0;
  EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_USB_COMMAND);
  EXPECT_GE(took, 1400ms);
  EXPECT_EQ(commands().size(), 2u) << "re-sent once a second within the 1500 ms budget";

  _WCAN_CANFD_OBJ f{};
  const auto t1 = std::chrono::steady_clock::now();
  EXPECT_EQ(WCAN_ReceiveFD(kType, 0, 0, &f, 1, 50), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - t1, 45ms);
  EXPECT_EQ(WCAN_ReceiveFD(kType, 0, 0, &f, 1, 0), 0);
}

} // namespace
