// SPDX-License-Identifier: MIT
// The recorder driver end to end: exported functions, driver, USB wrapper and
// the simulated recorder, which keeps settings and filters per channel.
#include <gtest/gtest.h>

#include <chrono>
#include <cstring>

#include "api/DriverFactory.h"
#include "api/QErrMgr.h"
#include "canrecord/RecordConfigFields.h"
#include "wcan.h"
#include "wcan_sim.h"

namespace {

constexpr unsigned kType = 61;
constexpr uint8_t kOut = 0x01;

class RecorderTest : public ::testing::Test {
protected:
  void SetUp() override {
    wcansim::reset();
    adapter = wcansim::plugIn(kType);
    ASSERT_EQ(WCAN_OpenDevice(kType, 0), 1);
    wcansim::clearWritten(adapter);
  }
  void TearDown() override {
    WCAN_CloseDevice(kType, 0);
    wcansim::reset();
  }
  size_t requestsSent() const { return wcansim::written(adapter, kOut).size(); }

  wcansim::AdapterId adapter = -1;
};

_WCAN_RECORD_CONFIG sampleSettings(uint8_t seed) {
  return {0, 1,    1,    0, seed, static_cast<uint8_t>(seed + 1), 0x12345678, 0x00C09A0Bu + seed,
          0, 0x11, 0x22, 1, seed};
}

} // namespace

TEST_F(RecorderTest, OpensOnceClosesTwiceAndReportsBoardInformation) {
  EXPECT_EQ(WCAN_OpenDevice(kType, 0), 1);
  EXPECT_EQ(WCAN_OpenDevice(62, 0), 0) << "no type 62 recorder attached";
  EXPECT_EQ(WCAN_OpenDevice(kType, 1), 0) << "only one type 61 recorder attached";

  _WCAN_BOARD_INFO info;
  std::memset(&info, 0xCC, sizeof info);
  ASSERT_EQ(WCAN_BoardInfoGet(kType, 0, &info), 1);
  EXPECT_EQ(info.hwVersion, 0x0110);
  EXPECT_EQ(info.fwVersion, 0x0204);
  EXPECT_EQ(info.canNum, 2);
  EXPECT_EQ(info.extVersion1, 0x0100);
  EXPECT_EQ(info.extVersion0, 0xCCCC) << "fields the recorder does not report stay as given";
  EXPECT_EQ(static_cast<unsigned char>(info.serialNum[0]), 0xCC);

  EXPECT_EQ(WCAN_CloseDevice(kType, 0), 1);
  EXPECT_EQ(WCAN_CloseDevice(kType, 0), 1);
  EXPECT_EQ(WCAN_OpenDevice(kType, 0), 1) << "reopens after close";
}

TEST_F(RecorderTest, StraySettingsAndPassThroughExchanges) {
  // A stray reply waiting on the endpoint is skipped, not taken as the answer.
  wcansim::pushIn(adapter, 0x81, {0x55, 0x99, 0x00, 0x00, 0xFF, 0xFF});
  _WCAN_BOARD_INFO info{};
  ASSERT_EQ(WCAN_BoardInfoGet(kType, 0, &info), 1);
  EXPECT_EQ(info.hwVersion, 0x0110);

  unsigned char data[62] = {0xDE, 0xAD, 0xBE};
  EXPECT_EQ(WCAN_DataDirectTransfer(kType, 0, data, 3), 3) << "the recorder echoes";
  EXPECT_EQ(data[0], 0xDE);
}

TEST_F(RecorderTest, SettingsReadBackPerChannel) {
  for (unsigned channel : {0u, 1u}) {
    _WCAN_RECORD_CONFIG written = sampleSettings(static_cast<uint8_t>(0x40 + channel));
    EXPECT_EQ(WCAN_RecordSettingSet(kType, 0, channel, &written), 1) << "acknowledged";
  }
  for (unsigned channel : {0u, 1u}) {
    const _WCAN_RECORD_CONFIG expected = sampleSettings(static_cast<uint8_t>(0x40 + channel));
    _WCAN_RECORD_CONFIG read{};
    ASSERT_EQ(WCAN_RecordSettingGet(kType, 0, channel, &read), 1) << channel;
    EXPECT_EQ(recordFields(read), recordFields(expected)) << channel;
  }
  _WCAN_RECORD_CONFIG config = sampleSettings(0);
  const size_t before = requestsSent();
  EXPECT_EQ(WCAN_RecordSettingSet(kType, 0, 2, &config), 0);
  EXPECT_EQ(WCAN_RecordSettingGet(kType, 0, 2, &config), 0);
  EXPECT_EQ(requestsSent(), before) << "channel 2 sends nothing";
}

TEST_F(RecorderTest, SettingsRepliesJudgedByLengthAndStatus) {
  _WCAN_RECORD_CONFIG config = sampleSettings(1);
  wcansim::injectReplyFault(adapter, wcansim::ReplyFault::Status, 1);
  EXPECT_EQ(WCAN_RecordSettingSet(kType, 0, 0, &config), 0);
  wcansim::injectReplyFault(adapter, wcansim::ReplyFault::Short, 25);
  EXPECT_EQ(WCAN_RecordSettingGet(kType, 0, 0, &config), 0);
  wcansim::injectReplyFault(adapter, wcansim::ReplyFault::Short, 26);
  EXPECT_EQ(WCAN_RecordSettingGet(kType, 0, 0, &config), 1);
}

TEST_F(RecorderTest, FiltersAddedAreReadBack) {
  _WCAN_FLITER_CONFIG first{}, second{};
  first.idType = second.idType = 1;
  first.startId = 0x100;
  first.endId = 0x1FF;
  second.startId = 0x18FF0000;
  second.endId = 0x18FFFFFF;

  // Channel 7 addresses recorder channel 1.
  ASSERT_EQ(WCAN_RecordFliterClr(kType, 0, 7), 1);
  ASSERT_EQ(WCAN_RecordFliterAdd(kType, 0, 7, &first), 1);
  ASSERT_EQ(WCAN_RecordFliterAdd(kType, 0, 1, &second), 1);
  ASSERT_EQ(WCAN_RecordFliterEnable(kType, 0, 1), 1);

  _WCAN_FLITER_INFO info{};
  ASSERT_EQ(WCAN_RecordFliterInfoGet(kType, 0, 1, &info), 1);
  EXPECT_EQ(info.filterCount, 2);
  EXPECT_EQ(info.filterState, 1);
  ASSERT_EQ(WCAN_RecordFliterInfoGet(kType, 0, 0, &info), 1);
  EXPECT_EQ(info.filterCount, 0) << "channel 0 untouched";

  _WCAN_FLITER_CONFIG read{};
  ASSERT_EQ(WCAN_RecordFliterSettingGet(kType, 0, 1, 1, &read), 1);
  EXPECT_EQ(read.idType, 1);
  EXPECT_EQ(read.startId, second.startId);
  EXPECT_EQ(read.endId, second.endId);
  EXPECT_EQ(WCAN_RecordFliterSettingGet(kType, 0, 1, 5, &read), 0) << "no filter 5";
  EXPECT_EQ(read.startId, second.startId) << "record unchanged on failure";

  ASSERT_EQ(WCAN_RecordFliterDisable(kType, 0, 1), 1);
  ASSERT_EQ(WCAN_RecordFliterInfoGet(kType, 0, 1, &info), 1);
  EXPECT_EQ(info.filterState, 0);
}

TEST_F(RecorderTest, FilterRepliesCheckedAndUnknownCommandsNotSent) {
  _WCAN_FLITER_INFO info{7, 7};
  wcansim::injectReplyFault(adapter, wcansim::ReplyFault::Short, 6);
  EXPECT_EQ(WCAN_RecordFliterInfoGet(kType, 0, 0, &info), 0);
  EXPECT_EQ(info.filterCount, 7);
  wcansim::injectReplyFault(adapter, wcansim::ReplyFault::Status, 2);
  EXPECT_EQ(WCAN_RecordFliterEnable(kType, 0, 0), 0);

  const size_t before = requestsSent();
  EXPECT_EQ(WCAN_RecordCmdExecute(kType, 0, 0, 6, &info, nullptr), 0);
  EXPECT_EQ(requestsSent(), before);
}

TEST(RecorderSlots, UnsupportedSlotsAnswerWithoutTheDevice) {
  const std::unique_ptr<QDevice> device = makeCanRecordDevice();
  const struct {
    const char *name;
    int (*call)(QDevice &);
    int lastError; // -1: unchanged
  } cases[] = {
      {"initCAN", [](QDevice &d) { return d.initCAN(0, nullptr); }, 6},
      {"initCANFD", [](QDevice &d) { return d.initCANFD(0, nullptr); }, 6},
      {"transmit", [](QDevice &d) { return d.transmit(0, nullptr, 1); }, -1},
      {"transmitFD", [](QDevice &d) { return d.transmitFD(0, nullptr, 1); }, -1},
      {"receive", [](QDevice &d) { return d.receive(0, nullptr, 1, 0); }, -1},
      {"receiveFD", [](QDevice &d) { return d.receiveFD(0, nullptr, 1, 0); }, -1},
      {"start", [](QDevice &d) { return d.start(0); }, -1},
      {"stop", [](QDevice &d) { return d.stop(0); }, -1},
      {"clearBuffer", [](QDevice &d) { return d.clearBuffer(0); }, -1},
      {"getReceiveNum", [](QDevice &d) { return d.getReceiveNum(0, 0); }, -1},
      {"setFliter", [](QDevice &d) { return d.setFliter(0, nullptr); }, -1},
      {"getBoardInf(null)", [](QDevice &d) { return d.getBoardInf(nullptr); }, -1},
  };
  for (const auto &c : cases) {
    setLastError(0);
    EXPECT_EQ(c.call(*device), 0) << c.name;
    EXPECT_EQ(WCAN_GetLastError(), c.lastError < 0 ? 0 : c.lastError) << c.name;
  }
  EXPECT_EQ(device->isDeviceOnLine(), 2);
  EXPECT_EQ(device->closeDevice(), 1) << "closing a never-opened recorder";
}

// The one test that waits out real one-second time-outs.
TEST_F(RecorderTest, SilentOrClosedRecorderFailsCommandsButSettingsReadStillSucceeds) {
  wcansim::setSilent(adapter, true);
  _WCAN_BOARD_INFO info{};
  EXPECT_EQ(WCAN_BoardInfoGet(kType, 0, &info), 0);
  // A failed settings read reports success with a cleared record.
  _WCAN_RECORD_CONFIG config = sampleSettings(9);
  EXPECT_EQ(WCAN_RecordSettingGet(kType, 0, 0, &config), 1);
  EXPECT_EQ(config.abitTiming, 0u);

  const std::unique_ptr<QDevice> closed = makeCanRecordDevice();
  unsigned char data[62] = {1, 2, 3};
  EXPECT_EQ(closed->transmitData(data, 3), 0);
  EXPECT_EQ(data[0], 1);
}

// A recorder has no thread watching its link: while it is unplugged its calls
// fail at once instead of waiting out their budgets, and the first call after
// the replug finds it again without a close and reopen.
TEST_F(RecorderTest, AnUnpluggedRecorderFailsAtOnceAndIsFoundAgainAfterTheReplug) {
  _WCAN_BOARD_INFO info{};
  wcansim::unplug(adapter);
  const auto t0 = std::chrono::steady_clock::now();
  EXPECT_EQ(WCAN_BoardInfoGet(kType, 0, &info), 0);
  EXPECT_LT(std::chrono::steady_clock::now() - t0, std::chrono::milliseconds(500));
  wcansim::replug(adapter);
  EXPECT_EQ(WCAN_BoardInfoGet(kType, 0, &info), 1);
  EXPECT_EQ(info.hwVersion, 0x0110);
}
