// SPDX-License-Identifier: MIT
// Key/value settings, channel status and fault handling of the CAN FD driver
// object, reached directly since no exported function leads to them.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "api/QErrMgr.h"
#include "devices/usbcanfd/QDeviceUsbCanFd2.h"
#include "sim/wcan_sim.h"

using wcansim::Bytes;
using namespace std::chrono_literals;

namespace {

struct KeyCase {
  const char *key;
  const char *value;
  int result;
  int error; // -1: last error untouched
};

TEST(UsbCanFdSettings, KeysReachTheirPresets) {
  QDeviceUsbCanFd2 dev; // closed: only keys that send nothing
  const KeyCase cases[] = {
      {"0/canfd_standard", "5", 1, -1},
      {"1/canfd_abit_baud_rate", "300000", 0, WCAN_ERR_BAUD_RATE_NOT_SUPPORTED},
      {"1/canfd_abit_baud_rate", "250000", 1, -1},
      {"3/canfd_dbit_baud_rate", "2000000", 1, -1}, // channel 3 cannot be addressed
      {"1/canfd_dbit_baud_rate", "2000000", 1, -1},
      {"x/filter_mode", "1", 1, -1}, // 'x' converts to channel 0
      {"0/filter_start", "0x00000123", 1, -1},
      {"/filter_mode", "1", 1, -1}, // no channel character: no key matches
      {"0/unknown", "1", 1, -1},
      {"a/canfd_standard", "1", 1, -1}, // channel 10 rejected
  };
  for (const auto &c : cases) {
    setLastError(WCAN_ERR_OK);
    EXPECT_EQ(dev.setValue(c.key, c.value), c.result) << c.key << "=" << c.value;
    EXPECT_EQ(QErrInfoMgr::getinstance()->getLastError(), c.error < 0 ? 0 : c.error) << c.key;
  }
  EXPECT_EQ(dev.isoMode(0), 1);
  EXPECT_EQ(dev.abitPreset(1), 0x05C00106u);
  EXPECT_EQ(dev.dbitPreset(1), 0x00800106u);
  EXPECT_EQ(dev.filterState(0), 2);
  EXPECT_EQ(dev.filterStart(0), 0x123u);
  EXPECT_EQ(dev.setValue("0/filter_start", "00000456"), 0) << "start id twice needs a new mode";
  EXPECT_EQ(dev.filterStart(0), 0x123u);
  EXPECT_EQ(dev.setValue("0/canfd_standard", "abc"), 1);
  EXPECT_EQ(dev.isoMode(0), 0);
  EXPECT_EQ(dev.setValue("0/canfd_standard", nullptr), 1);
  EXPECT_EQ(dev.getValue("0/canfd_standard"), nullptr);
}

TEST(UsbCanFdSettings, CustomTimingTextIsParsedAndBounded) {
  QDeviceUsbCanFd2 dev;
  EXPECT_EQ(dev.canBaudCustom(0, "abc,(80,00170003,00070001)"), 1);
  EXPECT_EQ(dev.abitPreset(0), 0x00170003u);
  EXPECT_EQ(dev.dbitPreset(0), 0x00070001u);
  EXPECT_EQ(dev.setValue("1/baud_rate_custom", ",(1,0000000A,0000000B)tail"), 1);
  EXPECT_EQ(dev.abitPreset(1), 0xAu);
  const std::string longField = ",(" + std::string(100, '9') + ",00000001,00000002)";
  const char *failing[] = {"(80,1,2)", "x,(80", "x,(80,00000001", "x,(80,00000001,00000002",
                           longField.c_str()};
  for (const char *text : failing) {
    EXPECT_EQ(dev.canBaudCustom(1, text), 0) << text;
  }
  EXPECT_EQ(dev.abitPreset(1), 0xAu) << "failed texts store nothing";
  setLastError(WCAN_ERR_OK);
  EXPECT_EQ(dev.canBaudCustom(8, "x,(1,2,3)"), 0);
  EXPECT_EQ(QErrInfoMgr::getinstance()->getLastError(), WCAN_ERR_PARAMETER);
}

class OpenDevice : public ::testing::Test {
protected:
  void SetUp() override {
    wcansim::reset();
    adapter = wcansim::plugIn(41);
    ASSERT_EQ(dev.openDevice(41, 0, 0), 1);
    wcansim::clearWritten(adapter);
  }
  void TearDown() override {
    dev.closeDevice();
    wcansim::reset();
  }
  std::vector<Bytes> commands() const { return wcansim::written(adapter, 0x01); }

  QDeviceUsbCanFd2 dev;
  wcansim::AdapterId adapter = -1;
};

TEST_F(OpenDevice, FilterKeysSendTheirCommands) {
  EXPECT_EQ(dev.setValue("1/filter_mode", "0"), 1);
  EXPECT_EQ(dev.setValue("1/filter_start", "0x00000800"), 1);
  EXPECT_EQ(dev.setValue("1/filter_end", "000009FF"), 1);
  EXPECT_EQ(dev.setValue("1/filter_end", "00000900"), 1) << "a second end id reuses the start";
  EXPECT_EQ(dev.setValue("1/filter_ack", "0"), 1);
  EXPECT_EQ(dev.setValue("0/filter_clear", "0"), 1);
  EXPECT_EQ(commands(), (std::vector<Bytes>{
                            {0x55, 4, 0x0A, 2, 0x10, 0, 0, 0, 0, 0xFF, 1, 0, 0},
                            {0x55, 4, 0x0A, 2, 0x10, 0, 0, 0, 0, 0x00, 1, 0, 0},
                            {0x55, 4, 0x0A, 4, 0x10, 0, 0, 0, 0, 0, 0, 0, 0},
                            {0x55, 4, 0x0A, 1, 0x00, 0, 0, 0, 0, 0, 0, 0, 0},
                        }));
  setLastError(WCAN_ERR_OK);
  EXPECT_EQ(dev.canFilterClear(8, 0), 0);
  EXPECT_EQ(QErrInfoMgr::getinstance()->getLastError(), WCAN_ERR_OK);
  EXPECT_EQ(dev.canFilterEndIdSet(2, 5), 0) << "no start id stored";
  EXPECT_EQ(QErrInfoMgr::getinstance()->getLastError(), WCAN_ERR_PARAMETER);
}

TEST_F(OpenDevice, ChannelStatusReadsTheWord) {
  _WCAN_INITFD_CONFIG cfg{};
  cfg.abitRate = 500000;
  cfg.dbitRate = 2000000;
  cfg.fdEnable = 1;
  ASSERT_EQ(dev.initCANFD(1, &cfg), 1);
  ASSERT_EQ(dev.start(1), 1);
  uint32_t status = 0;
  EXPECT_EQ(dev.canChStatusGet(1, &status), 1);
  EXPECT_EQ(status, 0x03u) << "initialised and started";
  EXPECT_EQ(commands().back(), (Bytes{0x55, 0x16, 0x11, 0x00}));
  wcansim::injectReplyFault(adapter, wcansim::ReplyFault::Short, 10);
  EXPECT_EQ(dev.canChStatusGet(1, &status), 0) << "a 10-byte reply is too short";
  EXPECT_EQ(dev.canChStatusGet(8, &status), 0);
  EXPECT_EQ(dev.firstVersion(), 0x0105);
  EXPECT_EQ(dev.secondVersion(), 0x0117);
}

TEST_F(OpenDevice, LossWithoutInitialisedChannelIsNotWatched) {
  wcansim::unplug(adapter);
  std::this_thread::sleep_for(100ms);
  EXPECT_EQ(dev.isDeviceReady(), 0);
  wcansim::replug(adapter);
}

} // namespace
