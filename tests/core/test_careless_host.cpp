// SPDX-License-Identifier: MIT
// What a careless host gets from every export: null pointers, receives for
// no frames and receives on closed adapters are answered at once with a
// clear last error, for all three families.
#include <gtest/gtest.h>

#include <chrono>
#include <functional>
#include <thread>

#include "sim/wcan_sim.h"
#include "support/StartedChannels.h"
#include "wcan.h"

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

// One adapter of each family, opened, with channels 0 and 1 of the two CAN
// families started.
class CarelessHost : public ::testing::Test {
protected:
  void SetUp() override {
    wcansim::reset();
    fd_ = wcansim::plugIn(41);
    classic_ = wcansim::plugIn(4);
    wcansim::plugIn(61);
    ASSERT_EQ(WCAN_OpenDevice(41, 0), 1);
    ASSERT_EQ(WCAN_OpenDevice(4, 0), 1);
    ASSERT_EQ(WCAN_OpenDevice(61, 0), 1);
    ASSERT_TRUE(wcantest::startChannels(41, 0));
    ASSERT_TRUE(wcantest::startChannels(4, 0));
  }
  void TearDown() override {
    WCAN_CloseDevice(41, 0);
    WCAN_CloseDevice(4, 0);
    WCAN_CloseDevice(61, 0);
    wcansim::reset();
  }

  // Sends one frame from channel 0 and waits until channel 1 holds it.
  void queueOneFrameOnChannel1(unsigned type) {
    if (type == 41) {
      _WCAN_CANFD_OBJ f{};
      f.id = 0x123;
      f.dataLen = 8;
      f.fdFlags = WCAN_FDFLAG_FDF;
      ASSERT_EQ(WCAN_TransmitFD(41, 0, 0, &f, 1), 1);
    } else {
      _WCAN_CAN_OBJ f{};
      f.id = 0x123;
      f.dataLen = 8;
      ASSERT_EQ(WCAN_Transmit(type, 0, 0, &f, 1), 1);
    }
    const unsigned char kind = type == 41 ? WCAN_FRAMES_CANFD : WCAN_FRAMES_CAN;
    for (int i = 0; i < 200 && WCAN_GetReceiveNum(type, 0, 1, kind) == 0; ++i)
      std::this_thread::sleep_for(1ms);
    ASSERT_EQ(WCAN_GetReceiveNum(type, 0, 1, kind), 1);
  }

  wcansim::AdapterId fd_ = -1, classic_ = -1;
};

TEST_F(CarelessHost, NullPointersAreRefusedWithParameterError) {
  const struct {
    const char *name;
    std::function<int()> call;
  } cases[] = {
      {"fd set filter", [] { return WCAN_SetFliter(41, 0, 0, nullptr); }},
      {"fd transmit", [] { return WCAN_Transmit(41, 0, 0, nullptr, 1); }},
      {"fd transmit fd", [] { return WCAN_TransmitFD(41, 0, 0, nullptr, 1); }},
      {"fd receive", [] { return WCAN_Receive(41, 0, 1, nullptr, 10, 100); }},
      {"fd receive fd", [] { return WCAN_ReceiveFD(41, 0, 1, nullptr, 10, 100); }},
      {"fd direct transfer", [] { return WCAN_DataDirectTransfer(41, 0, nullptr, 8); }},
      {"fd board info", [] { return WCAN_BoardInfoGet(41, 0, nullptr); }},
      {"fd init", [] { return WCAN_InitCANFD(41, 0, 0, nullptr); }},
      {"classic transmit", [] { return WCAN_Transmit(4, 0, 0, nullptr, 1); }},
      {"classic receive", [] { return WCAN_Receive(4, 0, 1, nullptr, 10, 100); }},
      {"classic direct transfer", [] { return WCAN_DataDirectTransfer(4, 0, nullptr, 8); }},
      {"classic board info", [] { return WCAN_BoardInfoGet(4, 0, nullptr); }},
      {"classic init", [] { return WCAN_InitCAN(4, 0, 0, nullptr); }},
      {"classic relay get", [] { return WCAN_DevRelayStatusGet(4, 0, nullptr, nullptr); }},
      {"classic baud get",
       [] {
         unsigned char v = 0;
         return WCAN_DevBaudParaGet(4, 0, 0, &v, nullptr);
       }},
      {"classic state get",
       [] {
         unsigned char v = 0;
         return WCAN_DevChStateGet(4, 0, 0, &v, &v, nullptr);
       }},
      {"recorder board info", [] { return WCAN_BoardInfoGet(61, 0, nullptr); }},
      {"recorder direct transfer", [] { return WCAN_DataDirectTransfer(61, 0, nullptr, 8); }},
      {"recorder settings set", [] { return WCAN_RecordSettingSet(61, 0, 0, nullptr); }},
      {"recorder settings get", [] { return WCAN_RecordSettingGet(61, 0, 0, nullptr); }},
      {"recorder filter add", [] { return WCAN_RecordFliterAdd(61, 0, 0, nullptr); }},
      {"recorder filter info", [] { return WCAN_RecordFliterInfoGet(61, 0, 0, nullptr); }},
      {"recorder filter setting", [] { return WCAN_RecordFliterSettingGet(61, 0, 0, 1, nullptr); }},
      {"recorder command 1", [] { return WCAN_RecordCmdExecute(61, 0, 0, 1, nullptr, nullptr); }},
  };
  queueOneFrameOnChannel1(41);
  queueOneFrameOnChannel1(4);
  for (const auto &c : cases) {
    WCAN_OpenDevice(3, 99); // leaves a different error behind
    EXPECT_EQ(c.call(), 0) << c.name;
    EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_PARAMETER) << c.name;
  }
  EXPECT_EQ(WCAN_GetReceiveNum(41, 0, 1, WCAN_FRAMES_CANFD), 1) << "the queued frame is kept";
  EXPECT_EQ(WCAN_GetReceiveNum(4, 0, 1, WCAN_FRAMES_CAN), 1);
  EXPECT_EQ(WCAN_RecordFliterClr(61, 0, 0), 1) << "commands without a record still run";
}

// A receive that can never deliver anything returns at once, whatever its
// wait (the frames queued stay queued).
TEST_F(CarelessHost, ReceivesThatCannotDeliverReturnAtOnce) {
  queueOneFrameOnChannel1(41);
  queueOneFrameOnChannel1(4);
  _WCAN_CANFD_OBJ fd[4];
  _WCAN_CAN_OBJ classic[4];
  const struct {
    const char *name;
    std::function<int()> call;
    int error; // -1: the last error is not looked at
  } cases[] = {
      {"fd count 0, frame queued", [&] { return WCAN_ReceiveFD(41, 0, 1, fd, 0, -1); }, -1},
      {"fd count 0, nothing queued", [&] { return WCAN_ReceiveFD(41, 0, 0, fd, 0, -1); }, -1},
      {"fd classic count 0", [&] { return WCAN_Receive(41, 0, 0, classic, 0, -1); }, -1},
      {"classic count 0", [&] { return WCAN_Receive(4, 0, 1, classic, 0, -1); }, 8},
      {"classic not open", [&] { return WCAN_Receive(4, 1, 0, classic, 4, -1); }, 7},
      {"fd not open", [&] { return WCAN_ReceiveFD(41, 1, 0, fd, 4, -1); }, 7},
  };
  for (const auto &c : cases) {
    const auto t0 = Clock::now();
    EXPECT_EQ(c.call(), 0) << c.name;
    EXPECT_LT(Clock::now() - t0, 1s) << c.name << " waited";
    if (c.error >= 0) {
      EXPECT_EQ(WCAN_GetLastError(), c.error) << c.name;
    }
  }
  EXPECT_EQ(WCAN_ReceiveFD(41, 0, 1, fd, 4, 0), 1);
  EXPECT_EQ(WCAN_Receive(4, 0, 1, classic, 4, 0), 1);
}

// A host thread blocked without limit in a receive returns when another
// thread closes the adapter, and the close itself does not wait for the
// receive thread's pending read.
TEST_F(CarelessHost, CloseWakesBlockedReceiversPromptly) {
  const struct {
    const char *name;
    unsigned type;
    std::function<int()> receive;
  } cases[] = {
      {"fd frames", 41,
       [] {
         _WCAN_CANFD_OBJ f[4];
         return WCAN_ReceiveFD(41, 0, 0, f, 4, -1);
       }},
      {"fd classic frames", 41,
       [] {
         _WCAN_CAN_OBJ f[4];
         return WCAN_Receive(41, 0, 0, f, 4, -1);
       }},
      {"classic frames", 4,
       [] {
         _WCAN_CAN_OBJ f[4];
         return WCAN_Receive(4, 0, 0, f, 4, -1);
       }},
  };
  for (const auto &c : cases) {
    std::atomic<int> result{-1};
    std::thread receiver([&] { result = c.receive(); });
    std::this_thread::sleep_for(50ms); // let it block
    const auto t0 = Clock::now();
    EXPECT_EQ(WCAN_CloseDevice(c.type, 0), 1) << c.name;
    // A regression to the old pending 500 ms read shows far above this.
    EXPECT_LT(Clock::now() - t0, 200ms) << c.name << ": close waited";
    receiver.join();
    EXPECT_EQ(result, 0) << c.name;
    ASSERT_EQ(WCAN_OpenDevice(c.type, 0), 1) << c.name;
  }
}

// Stopping a channel ends the waits on it, and only on it.
TEST_F(CarelessHost, StopEndsTheWaitsOnItsChannelOnly) {
  for (unsigned type : {41u, 4u}) {
    std::atomic<int> onStopped{-1}, onOther{-1};
    std::thread stoppedReader([&] {
      _WCAN_CAN_OBJ f[4];
      onStopped = WCAN_Receive(type, 0, 0, f, 4, -1);
    });
    std::thread otherReader([&] {
      _WCAN_CAN_OBJ f[4];
      onOther = WCAN_Receive(type, 0, 1, f, 4, -1);
    });
    std::this_thread::sleep_for(50ms);
    EXPECT_EQ(WCAN_Stop(type, 0, 0), 1) << type;
    stoppedReader.join();
    EXPECT_EQ(onStopped, 0) << type;
    std::this_thread::sleep_for(20ms);
    EXPECT_EQ(onOther, -1) << type << ": the other channel's reader must keep waiting";
    EXPECT_EQ(WCAN_CloseDevice(type, 0), 1);
    otherReader.join();
    EXPECT_EQ(onOther, 0) << type;
  }
}

} // namespace
