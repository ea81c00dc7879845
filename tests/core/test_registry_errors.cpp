// SPDX-License-Identifier: MIT
// The device registry and the process-wide last error.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <cstring>
#include <vector>

#include "api/QErrMgr.h"
#include "api/QWCANDevMgr.h"
#include "wcan.h"

namespace {

// A driver that only counts its closes, in a shared log.
class CountingDevice : public QDevice {
public:
  CountingDevice(std::vector<unsigned> *log, unsigned tag) : log_(log), tag_(tag) {}
  int openDevice(unsigned, unsigned, unsigned) override { return 1; }
  int closeDevice() override {
    log_->push_back(tag_);
    return 1;
  }
  int initCAN(unsigned, _WCAN_INIT_CONFIG *) override { return 0; }
  int initCANFD(unsigned, _WCAN_INITFD_CONFIG *) override { return 0; }
  int getBoardInf(_WCAN_BOARD_INFO *) override { return 0; }
  int isDeviceOnLine() override { return 0; }
  int transmit(unsigned, _WCAN_CAN_OBJ *, unsigned) override { return 0; }
  int transmitFD(unsigned, _WCAN_CANFD_OBJ *, unsigned) override { return 0; }
  int receiveFD(unsigned, _WCAN_CANFD_OBJ *, unsigned, int) override { return 0; }
  int receive(unsigned, _WCAN_CAN_OBJ *, unsigned, int) override { return 0; }
  int start(unsigned) override { return 0; }
  int stop(unsigned) override { return 0; }
  int clearBuffer(unsigned) override { return 0; }
  int getReceiveNum(unsigned, unsigned char) override { return 0; }
  int transmitData(unsigned char *, unsigned) override { return 0; }
  int setFliter(unsigned, _WCAN_FLITER_CONFIG *) override { return 0; }

private:
  std::vector<unsigned> *log_;
  unsigned tag_;
};

TEST(Registry, LookupsNeverCreateEntries) {
  QWCANDevMgr registry;
  EXPECT_EQ(registry.deviceFind(41, 0), nullptr);
  EXPECT_FALSE(registry.hasType(41));
}

TEST(Registry, FirstRegistrationWinsAndDeleteClosesOnce) {
  std::vector<unsigned> closed;
  CountingDevice a(&closed, 1), b(&closed, 2);
  QWCANDevMgr registry;
  EXPECT_EQ(registry.deviceAdd(41, 0, &a), 1);
  EXPECT_EQ(registry.deviceAdd(41, 0, &b), 1);
  EXPECT_EQ(registry.deviceFind(41, 0), &a);

  EXPECT_EQ(registry.deviceDel(41, 0), 1);
  EXPECT_EQ(closed, std::vector<unsigned>{1});
  EXPECT_EQ(registry.deviceFind(41, 0), nullptr);
  EXPECT_TRUE(registry.hasType(41)) << "the emptied type entry stays";
  EXPECT_EQ(registry.deviceDel(7, 7), 1);
  EXPECT_EQ(closed.size(), 1u);
}

TEST(Registry, UnloadClosesEveryDriverOnceInTypeOrder) {
  std::vector<unsigned> closed;
  CountingDevice rec(&closed, 61), fd(&closed, 41), fd1(&closed, 42);
  {
    QWCANDevMgr registry;
    registry.deviceAdd(61, 0, &rec);
    registry.deviceAdd(41, 1, &fd1);
    registry.deviceAdd(41, 0, &fd);
  }
  EXPECT_EQ(closed, (std::vector<unsigned>{41, 42, 61}));
}

TEST(LastError, MessagesAndUnknownCodes) {
  // Both ends of the code range; host programs compare these texts.
  const std::pair<int, const char *> table[] = {
      {0, "OK"}, {1, "Device Not Exist!"}, {3, "USB Transport Error!"}, {14, "CAN Format Error!"}};
  for (const auto &[code, text] : table) {
    setLastError(code);
    EXPECT_EQ(WCAN_GetLastError(), code);
    EXPECT_STREQ(WCAN_GetLastErrorStr(), text);
  }
  for (int bogus : {2, 15, -1, 1000}) {
    setLastError(WCAN_ERR_PARAMETER);
    setLastError(bogus);
    EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_PARAMETER) << bogus << " is not a code";
  }
  EXPECT_STREQ(QErrMgr::messageFor(2), "Unknown Error!");
}

TEST(LastError, DestroyedInstanceStartsAgainAtOk) {
  setLastError(WCAN_ERR_USB_COMMAND);
  QErrMgr::destroyInstance();
  EXPECT_EQ(WCAN_GetLastError(), 0);
  EXPECT_STREQ(WCAN_GetLastErrorStr(), "OK");
}

} // namespace
