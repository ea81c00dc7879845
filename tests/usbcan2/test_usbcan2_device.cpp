// SPDX-License-Identifier: MIT
// The classic adapter end to end: exported functions, driver and the
// simulated adapter (whose channels 0 and 1 are cabled together).
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <numeric>
#include <string>
#include <thread>
#include <vector>

#include "devices/usbcan2/Usbcan2Device.h"
#include "devices/usbcan2/usbcan2.h"
#include "sim/ModelUsbCan2.h"
#include "sim/wcan_sim.h"
#include "wcan.h"

namespace {

using Clock = std::chrono::steady_clock;
using wcansim::Bytes;

constexpr unsigned kType = 4;
constexpr uint8_t kCmdOut = 0x01;

_WCAN_INIT_CONFIG config(uint8_t mode = 0, uint8_t t0 = 0x00, uint8_t t1 = 0x1C) {
  _WCAN_INIT_CONFIG c{};
  c.timing0 = t0;
  c.timing1 = t1;
  c.mode = mode;
  return c;
}

_WCAN_CAN_OBJ canFrame(uint32_t id, bool ext = false, uint8_t len = 8, bool remote = false) {
  _WCAN_CAN_OBJ f{};
  f.id = id;
  f.externFlag = ext;
  f.remoteFlag = remote;
  f.dataLen = len;
  for (uint8_t i = 0; i < 8; ++i) {
    f.data[i] = static_cast<uint8_t>(id + i);
  }
  return f;
}

bool contains(const std::vector<Bytes> &writes, const Bytes &cmd) {
  return std::find(writes.begin(), writes.end(), cmd) != writes.end();
}

// Receives until `want` frames came or two seconds passed.
std::vector<_WCAN_CAN_OBJ> receive(unsigned channel, size_t want, unsigned type = kType) {
  std::vector<_WCAN_CAN_OBJ> got;
  const auto deadline = Clock::now() + std::chrono::seconds(2);
  while (got.size() < want && Clock::now() < deadline) {
    _WCAN_CAN_OBJ buf[16];
    const int n = WCAN_Receive(type, 0, channel, buf, 16, 100);
    got.insert(got.end(), buf, buf + std::max(n, 0));
  }
  return got;
}

void waitForCount(unsigned channel, int count) {
  const auto deadline = Clock::now() + std::chrono::seconds(2);
  while (WCAN_GetReceiveNum(kType, 0, channel, 0) < count && Clock::now() < deadline) {
    std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
}

class Usbcan2Device : public ::testing::Test {
protected:
  void SetUp() override {
    wcansim::reset();
    adapter = wcansim::plugIn(kType);
    ASSERT_GE(adapter, 0);
    ASSERT_EQ(WCAN_OpenDevice(kType, 0), 1);
  }
  void TearDown() override {
    WCAN_CloseDevice(kType, 0);
    wcansim::reset();
  }
  void initBoth() {
    _WCAN_INIT_CONFIG c = config();
    ASSERT_EQ(WCAN_InitCAN(kType, 0, 0, &c), 1);
    ASSERT_EQ(WCAN_InitCAN(kType, 0, 1, &c), 1);
  }

  wcansim::AdapterId adapter = -1;
};

TEST_F(Usbcan2Device, InitSendsTimingAndStartsTheChannel) {
  _WCAN_INIT_CONFIG c = config(1, 0x03, 0x1C);
  ASSERT_EQ(WCAN_InitCAN(kType, 0, 1, &c), 1);
  const auto writes = wcansim::written(adapter, kCmdOut);
  EXPECT_TRUE(contains(writes, {0x12, 0x03, 0x06, 0x00, 0x90, 0x03, 0x1C, 0x02, 0x57}));
  EXPECT_TRUE(contains(writes, {0x12, 0x0E, 0x02, 0x00, 0x10}));
}

TEST_F(Usbcan2Device, FramesSentOnChannel0ArriveOnChannel1) {
  initBoth();
  std::vector<_WCAN_CAN_OBJ> out = {canFrame(0x7FF),           canFrame(0x1FFFFFFF, true),
                                    canFrame(0x123, false, 3), canFrame(0x10, false, 0, true),
                                    canFrame(0x55, true, 1),   canFrame(0x1),
                                    canFrame(0x2, false, 5)};
  ASSERT_EQ(WCAN_Transmit(kType, 0, 0, out.data(), static_cast<unsigned>(out.size())), 7);
  EXPECT_EQ(wcansim::written(adapter, 0x02).size(), 3u) << "packets of 3 + 3 + 1 records";

  const auto got = receive(1, out.size());
  ASSERT_EQ(got.size(), out.size());
  for (size_t i = 0; i < out.size(); ++i) {
    EXPECT_EQ(got[i].id, out[i].id) << i;
    EXPECT_EQ(got[i].externFlag, out[i].externFlag) << i;
    EXPECT_EQ(got[i].remoteFlag, out[i].remoteFlag) << i;
    EXPECT_EQ(got[i].dataLen, out[i].dataLen) << i;
    if (!out[i].remoteFlag) {
      EXPECT_EQ(0, std::memcmp(got[i].data, out[i].data, out[i].dataLen)) << i;
    }
    EXPECT_EQ(got[i].timeStamp >> 24, 1u) << "the marker is part of the stamp";
  }
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 0, 0), 0);
}

TEST_F(Usbcan2Device, QueueCountClearResetAndReinit) {
  initBoth();
  _WCAN_CAN_OBJ f[2] = {canFrame(1), canFrame(2)};
  ASSERT_EQ(WCAN_Transmit(kType, 0, 0, f, 2), 2);
  waitForCount(1, 2);
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 1, 0), 2);
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 1, 1), 0) << "only classic frames here";
  _WCAN_INIT_CONFIG c = config();
  ASSERT_EQ(WCAN_InitCAN(kType, 0, 1, &c), 1);
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 1, 0), 0) << "a second init empties the queue";

  ASSERT_EQ(WCAN_Transmit(kType, 0, 0, f, 1), 1);
  waitForCount(1, 1);
  EXPECT_EQ(WCAN_ClearBuffer(kType, 0, 1), 1);
  EXPECT_EQ(WCAN_GetReceiveNum(kType, 0, 1, 0), 0);

  ASSERT_EQ(WCAN_Stop(kType, 0, 1), 1);
  EXPECT_TRUE(contains(wcansim::written(adapter, kCmdOut), {0x12, 0x0F, 0x02, 0x00, 0x10}));
  EXPECT_EQ(WCAN_Start(kType, 0, 1), 1) << "a reset channel stays initialised";
}

TEST_F(Usbcan2Device, BoardInformation) {
  _WCAN_BOARD_INFO info;
  std::memset(&info, 0xEE, sizeof info);
  std::memset(info.serialNum, 0, sizeof info.serialNum);
  std::memset(info.hwType, 0, sizeof info.hwType);
  ASSERT_EQ(WCAN_BoardInfoGet(3, 0, &info), 1) << "types 3 and 4 share the table";
  EXPECT_EQ(info.hwVersion, 0x0201);
  EXPECT_EQ(info.fwVersion, 0x0312);
  EXPECT_EQ(info.canNum, 2);
  EXPECT_STREQ(info.serialNum, "C2A0000001");
  EXPECT_STREQ(info.hwType, "USBCAN2");
  EXPECT_EQ(info.extVersion0, 0xEEEE) << "fields this adapter has no answer for stay";
  EXPECT_EQ(info.auxWord, 0xEEEE);

  wcansim::injectReplyFault(adapter, wcansim::ReplyFault::Short, 5);
  info = {};
  testing::internal::CaptureStdout();
  EXPECT_EQ(WCAN_BoardInfoGet(kType, 0, &info), 0) << "a short first reply";
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::HasSubstr("USBCAN 获取板卡信息失败"));
  EXPECT_EQ(info.hwVersion, 0);
}

TEST_F(Usbcan2Device, AuxiliaryCommands) {
  _WCAN_INIT_CONFIG c = config(0, 0x01, 0x1C);
  ASSERT_EQ(WCAN_InitCAN(kType, 0, 1, &c), 1);

  EXPECT_EQ(WCAN_DevRelayStatusSet(kType, 0, 1, 0), 1);
  unsigned char r1 = 9, r2 = 9;
  ASSERT_EQ(WCAN_DevRelayStatusGet(kType, 0, &r1, &r2), 1);
  EXPECT_EQ(r1, 1);
  EXPECT_EQ(r2, 0);

  wcansim::injectReplyFault(adapter, wcansim::ReplyFault::Foreign, 0xB1);
  r1 = r2 = 9;
  EXPECT_EQ(WCAN_DevRelayStatusGet(kType, 0, &r1, &r2), 0);
  EXPECT_EQ(r1, 9) << "outputs untouched on a foreign reply";

  unsigned char p1 = 0, p2 = 0;
  ASSERT_EQ(WCAN_DevBaudParaGet(kType, 0, 1, &p1, &p2), 1);
  EXPECT_EQ(p1, 0x01);
  EXPECT_EQ(p2, 0x1C);

  unsigned char s1 = 0, s2 = 0, s3 = 0;
  ASSERT_EQ(WCAN_DevChStateGet(kType, 0, 1, &s1, &s2, &s3), 1);
  EXPECT_EQ(s1, 0x00) << "started, not listen-only";
  wcansim::injectReplyFault(adapter, wcansim::ReplyFault::Short, 11);
  EXPECT_EQ(WCAN_DevChStateGet(kType, 0, 1, &s1, &s2, &s3), 0);

  unsigned char payload[100];
  std::iota(payload, payload + 100, 0);
  EXPECT_EQ(WCAN_DataDirectTransfer(kType, 0, payload, 100), 62) << "cut to 62 bytes";
  EXPECT_EQ(payload[61], 61) << "the echo lands at the start of the buffer";
}

TEST_F(Usbcan2Device, ParameterAndStateErrors) {
  _WCAN_INIT_CONFIG c = config();
  _WCAN_CAN_OBJ f = canFrame(1);
  _WCAN_BOARD_INFO info{};
  const struct {
    const char *name;
    std::function<int()> call;
    int error;
  } cases[] = {
      {"open type 63", [] { return WCAN_OpenDevice(63, 0); }, 6},
      {"open type 73", [] { return WCAN_OpenDevice(73, 0); }, 6},
      {"close type 68", [] { return WCAN_CloseDevice(68, 0); }, 6},
      {"open index 32", [] { return WCAN_OpenDevice(kType, 32); }, 8},
      {"init channel 2", [&] { return usbcan2InitCAN(kType, 0, 2, &c); }, 8},
      {"start before init", [] { return WCAN_Start(kType, 0, 0); }, 13},
      {"transmit before init", [&] { return WCAN_Transmit(kType, 0, 0, &f, 1); }, 13},
      {"count before init", [] { return WCAN_GetReceiveNum(kType, 0, 0, 0); }, 13},
      {"clear channel 5", [] { return WCAN_ClearBuffer(kType, 0, 5); }, 13},
      {"board info closed", [&] { return WCAN_BoardInfoGet(kType, 1, &info); }, 7},
      {"init closed", [&] { return usbcan2InitCAN(kType, 1, 0, &c); }, 7},
      {"exported init closed, start overrides", [&] { return WCAN_InitCAN(kType, 1, 0, &c); }, 13},
      {"relay set closed", [] { return WCAN_DevRelayStatusSet(kType, 1, 0, 0); }, 7},
      {"receive count 0", [&] { return WCAN_Receive(kType, 0, 0, &f, 0, 0); }, 8},
  };
  for (const auto &cs : cases) {
    WCAN_OpenDevice(kType, 0); // leaves the last error alone
    EXPECT_EQ(cs.call(), 0) << cs.name;
    EXPECT_EQ(WCAN_GetLastError(), cs.error) << cs.name;
  }
  EXPECT_EQ(WCAN_OpenDevice(kType, 0), 1) << "opening an open device succeeds";
  EXPECT_EQ(WCAN_CloseDevice(kType, 5), 1) << "closing a closed device succeeds";
}

TEST_F(Usbcan2Device, UnknownModeIsRefusedWithoutALastError) {
  _WCAN_INIT_CONFIG c = config(2);
  WCAN_OpenDevice(kType, 32); // leaves error 8
  testing::internal::CaptureStdout();
  EXPECT_EQ(WCAN_InitCAN(kType, 0, 0, &c), 0);
  const std::string log = testing::internal::GetCapturedStdout();
  EXPECT_THAT(log, testing::HasSubstr("Warning:USBCAN <ch:0> Init Fail->Para Err,Unkown Mode:2"));
  EXPECT_EQ(WCAN_GetLastError(), 13) << "set by the start that follows, not by the init";
}

TEST_F(Usbcan2Device, TransmitFormatErrorsAfterEarlierPacketsWentOut) {
  initBoth();
  std::vector<_WCAN_CAN_OBJ> out(5, canFrame(0x100));
  out[3].dataLen = 9;
  EXPECT_EQ(WCAN_Transmit(kType, 0, 0, out.data(), 5), 0);
  EXPECT_EQ(WCAN_GetLastError(), 14);
  EXPECT_EQ(receive(1, 3).size(), 3u) << "the first packet is on the bus";
  out[3].dataLen = 8;
  out[1].externFlag = 2;
  EXPECT_EQ(WCAN_Transmit(kType, 0, 0, out.data(), 5), 0);
  EXPECT_EQ(WCAN_GetLastError(), 14);
}

// Acknowledged transmit counts what the adapter says it took, not what was
// written: a listen-only channel takes nothing.
TEST_F(Usbcan2Device, AcknowledgedTransmitCountsTheAdaptersAnswer) {
  _WCAN_INIT_CONFIG listenOnly = config(1);
  ASSERT_EQ(WCAN_InitCAN(kType, 0, 0, &listenOnly), 1);
  _WCAN_INIT_CONFIG normal = config(0);
  ASSERT_EQ(WCAN_InitCAN(kType, 0, 1, &normal), 1);
  static_cast<wcansim::UsbCan2Model *>(wcansim::model(adapter))->setTransmitAcks(true);
  usbcan2Record(0).txAckMode = 1;
  std::vector<_WCAN_CAN_OBJ> out(4, canFrame(0x10));
  EXPECT_EQ(WCAN_Transmit(kType, 0, 1, out.data(), 4), 4);
  EXPECT_EQ(WCAN_Transmit(kType, 0, 0, out.data(), 4), 0);
  usbcan2Record(0).txAckMode = 0;
}

TEST_F(Usbcan2Device, ReceiveWaitsForAFrameFromAnotherThread) {
  initBoth();
  std::thread sender([] {
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    _WCAN_CAN_OBJ f = canFrame(0x42);
    WCAN_Transmit(kType, 0, 1, &f, 1);
  });
  _WCAN_CAN_OBJ got;
  EXPECT_EQ(WCAN_Receive(kType, 0, 0, &got, 1, -1), 1);
  EXPECT_EQ(got.id, 0x42u);
  sender.join();
  EXPECT_EQ(WCAN_Receive(kType, 0, 0, &got, 1, 30), 0) << "a bounded wait ends empty";
}

TEST_F(Usbcan2Device, UnplugAndReplugReplaysTheConfiguration) {
  initBoth();
  testing::internal::CaptureStdout();
  wcansim::unplug(adapter);
  _WCAN_CAN_OBJ f = canFrame(0x321);
  // The worker notices the loss at its next read.
  const auto lost = Clock::now() + std::chrono::seconds(2);
  while (WCAN_Transmit(kType, 0, 0, &f, 1) != 0 && Clock::now() < lost) {
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  unsigned char r1, r2;
  EXPECT_EQ(WCAN_DevRelayStatusGet(kType, 0, &r1, &r2), 0) << "commands refused while lost";
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  wcansim::clearWritten(adapter);
  wcansim::replug(adapter);

  const auto back = Clock::now() + std::chrono::seconds(3);
  std::vector<_WCAN_CAN_OBJ> got;
  while (got.empty() && Clock::now() < back) {
    if (WCAN_Transmit(kType, 0, 0, &f, 1) == 1) {
      got = receive(1, 1);
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
  }
  const std::string log = testing::internal::GetCapturedStdout();
  ASSERT_EQ(got.size(), 1u) << log;
  EXPECT_EQ(got[0].id, 0x321u);
  EXPECT_TRUE(contains(wcansim::written(adapter, kCmdOut),
                       {0x12, 0x03, 0x06, 0x00, 0x10, 0x00, 0x1C, 0x02, 0x57}));
  EXPECT_THAT(log, testing::HasSubstr("DRV Tip:USBCAN OK..."));
}

// The one test that waits for real command time-outs.
TEST_F(Usbcan2Device, SilentAdapterFailsInitButStartCountsAsWritten) {
  wcansim::setSilent(adapter, true);
  _WCAN_INIT_CONFIG c = config();
  testing::internal::CaptureStdout();
  EXPECT_EQ(usbcan2InitCAN(kType, 0, 0, &c), 0);
  EXPECT_EQ(WCAN_GetLastError(), 12);
  EXPECT_THAT(testing::internal::GetCapturedStdout(),
              testing::HasSubstr("DRV Tip:USBCAN <ch:0> Init Fail"));
  wcansim::setSilent(adapter, false);
  ASSERT_EQ(WCAN_InitCAN(kType, 0, 0, &c), 1);
  wcansim::setSilent(adapter, true);
  EXPECT_EQ(WCAN_Start(kType, 0, 0), 1) << "written but unanswered";
  wcansim::setSilent(adapter, false);
}

TEST(Usbcan2NoAdapter, OpenFailsWhenNothingIsPlugged) {
  wcansim::reset();
  testing::internal::CaptureStdout();
  EXPECT_EQ(WCAN_OpenDevice(3, 0), 0);
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("USBCAN Open Fail..."));
  EXPECT_EQ(WCAN_CloseDevice(3, 0), 1);
}

} // namespace
