// SPDX-License-Identifier: MIT
// One physical adapter belongs to one open handle of the process, and a lost
// adapter comes back on the handle that had it, whatever order the device
// list shows after the replug.
#include <gtest/gtest.h>

#include <chrono>
#include <thread>

#include "sim/wcan_sim.h"
#include "support/StartedChannels.h"
#include "wcan.h"

namespace {

using namespace std::chrono_literals;

struct Family {
  const char *name;
  unsigned type;
};

void PrintTo(const Family &f, std::ostream *os) { *os << f.name; }

// CAN FD adapters carry a USB serial number; classic ones do not, so their
// recovery goes by bus and port path.
const Family kCanFd{"CanFd", 41};
const Family kClassic{"Classic", 4};

class AdapterIdentity : public ::testing::TestWithParam<Family> {
protected:
  const Family &family = GetParam();

  void SetUp() override { wcansim::reset(); }
  void TearDown() override {
    for (unsigned index : {0u, 1u})
      WCAN_CloseDevice(family.type, index);
    wcansim::reset();
  }

  bool fd() const { return family.type == 41; }

  void initBoth(unsigned index) { ASSERT_TRUE(wcantest::startChannels(family.type, index)); }

  // Sends a frame on channel 0 of a handle (retrying while a recovery is
  // under way) and checks it comes back on channel 1 and was carried by
  // `adapter`.
  void expectTrafficThrough(unsigned type, unsigned index, wcansim::AdapterId adapter) {
    const uint64_t before = wcansim::framesSent(adapter, 0);
    _WCAN_CAN_OBJ out{};
    out.id = 0x100 + index;
    out.dataLen = 1;
    bool sent = false;
    for (int i = 0; i < 300 && !sent; ++i) {
      sent = WCAN_Transmit(type, index, 0, &out, 1) == 1;
      if (!sent)
        std::this_thread::sleep_for(10ms);
    }
    ASSERT_TRUE(sent) << "handle " << index << " never took a frame";
    _WCAN_CAN_OBJ in{};
    ASSERT_EQ(WCAN_Receive(type, index, 1, &in, 1, 2000), 1) << "handle " << index;
    EXPECT_EQ(in.id, out.id);
    EXPECT_EQ(wcansim::framesSent(adapter, 0), before + 1)
        << "handle " << index << " must still drive adapter " << adapter;
  }
};

// Another type number with the same USB ids, and an index that once wrapped
// onto adapter 0, must not reach an open adapter.
TEST(AdapterIdentityFd, OtherTypeNumbersAndHugeIndexesDoNotReachAnOpenAdapter) {
  wcansim::reset();
  const wcansim::AdapterId adapter = wcansim::plugIn(41);
  ASSERT_EQ(WCAN_OpenDevice(41, 0), 1);
  ASSERT_TRUE(wcantest::startChannels(41, 0));
  EXPECT_EQ(WCAN_OpenDevice(42, 0), 0);
  EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_PARAMETER);
  EXPECT_EQ(WCAN_OpenDevice(41, 0x80000000u), 0);
  EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_DEVICE_NOT_EXIST);
  EXPECT_EQ(WCAN_OpenDevice(41, 0), 1) << "the same pair again is a success";
  EXPECT_TRUE(wcansim::model(adapter)->channelStarted(1)) << "the first handle was not reset";
  WCAN_CloseDevice(41, 0);
  wcansim::reset();
}

// With the first of two adapters away, index 0 names the adapter that index 1
// holds: that open is refused and the holder keeps working.
TEST_P(AdapterIdentity, AnIndexThatMovedOntoAnOpenAdapterIsRefused) {
  const wcansim::AdapterId first = wcansim::plugIn(family.type);
  const wcansim::AdapterId second = wcansim::plugIn(family.type);
  ASSERT_EQ(WCAN_OpenDevice(family.type, 1), 1);
  initBoth(1);
  wcansim::unplug(first);
  EXPECT_EQ(WCAN_OpenDevice(family.type, 0), 0);
  EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_PARAMETER);
  expectTrafficThrough(family.type, 1, second);
  wcansim::replug(first);
  ASSERT_EQ(WCAN_OpenDevice(family.type, 0), 1);
  initBoth(0);
  expectTrafficThrough(family.type, 0, first);
  expectTrafficThrough(family.type, 1, second);
}

// The second of two equal adapters is unplugged; when it comes back libusb
// lists it first. Each handle must get its own adapter back.
TEST_P(AdapterIdentity, RecoveryReopensTheAdapterThatWasLost) {
  const wcansim::AdapterId a = wcansim::plugIn(family.type);
  const wcansim::AdapterId b = wcansim::plugIn(family.type);
  ASSERT_EQ(WCAN_OpenDevice(family.type, 0), 1);
  ASSERT_EQ(WCAN_OpenDevice(family.type, 1), 1);
  initBoth(0);
  initBoth(1);
  expectTrafficThrough(family.type, 0, a);
  expectTrafficThrough(family.type, 1, b);

  testing::internal::CaptureStdout();
  wcansim::unplug(b);
  std::this_thread::sleep_for(150ms); // the loss is seen and retried against nothing
  wcansim::replug(b);
  expectTrafficThrough(family.type, 1, b);
  expectTrafficThrough(family.type, 0, a);
  testing::internal::GetCapturedStdout();
}

// Part of a record that was read before the adapter went away must not be
// joined with what the reopened adapter sends.
TEST_P(AdapterIdentity, RecoveryDropsAPartRecordReadBeforeTheLoss) {
  const wcansim::AdapterId a = wcansim::plugIn(family.type);
  ASSERT_EQ(WCAN_OpenDevice(family.type, 0), 1);
  initBoth(0);
  if (fd()) {
    wcansim::pushIn(a, 0x83, {0x55, 0xF2, 0x00, 0x00, 0x13, 0x00, 0x01, 0x10, 0x00, 0x00, 0x00});
  } else {
    wcansim::pushIn(a, 0x82, {0x00, 0x00, 0x10, 0x01, 0x00, 0x00, 0x08, 0x00, 0x00, 0x00});
  }
  std::this_thread::sleep_for(50ms); // read by the receive thread
  testing::internal::CaptureStdout();
  wcansim::unplug(a);
  std::this_thread::sleep_for(100ms);
  wcansim::replug(a);
  expectTrafficThrough(family.type, 0, a);
  testing::internal::GetCapturedStdout();
}

std::string nameOf(const ::testing::TestParamInfo<Family> &info) { return info.param.name; }

INSTANTIATE_TEST_SUITE_P(Each, AdapterIdentity, ::testing::Values(kCanFd, kClassic), nameOf);

} // namespace
