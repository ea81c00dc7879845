// The CAN FD adapter family over the real libusb.
#include <cstring>

#include "WcanScenario.h"

namespace {

using wcanumock::WcanScenario;

constexpr unsigned kType = 41; // two channels

_WCAN_INITFD_CONFIG fdConfig() {
  _WCAN_INITFD_CONFIG c{};
  c.abitRate = 500000;
  c.dbitRate = 2000000;
  c.fdEnable = 1;
  return c;
}

_WCAN_CANFD_OBJ fdFrame(unsigned id, unsigned char len) {
  _WCAN_CANFD_OBJ f{};
  f.id = id;
  f.externFlag = id > 0x7FF ? 1 : 0;
  f.dataLen = len;
  f.fdFlags = WCAN_FDFLAG_BRS;
  for (unsigned i = 0; i < len; ++i)
    f.data[i] = static_cast<unsigned char>(id + i);
  return f;
}

class CanFdOverRealLibusb : public WcanScenario {
protected:
  void initAndStart(unsigned index) {
    _WCAN_INITFD_CONFIG c = fdConfig();
    for (unsigned ch = 0; ch < 2; ++ch) {
      ASSERT_EQ(api_->InitCANFD(kType, index, ch, &c), 1) << "channel " << ch;
      ASSERT_EQ(api_->Start(kType, index, ch), 1) << "channel " << ch;
    }
  }

  // A CAN FD frame and a classic one sent on channel 0 come back on channel 1.
  void expectRoundTrip(unsigned index, unsigned id) {
    _WCAN_CANFD_OBJ out = fdFrame(id, 12);
    ASSERT_EQ(api_->TransmitFD(kType, index, 0, &out, 1), 1);
    _WCAN_CANFD_OBJ in{};
    ASSERT_EQ(api_->ReceiveFD(kType, index, 1, &in, 1, 2000), 1) << "frame " << std::hex << id;
    EXPECT_EQ(in.id, id);
    EXPECT_EQ(in.dataLen, 12);
    EXPECT_EQ(in.externFlag, out.externFlag);
    EXPECT_EQ(in.fdFlags & WCAN_FDFLAG_BRS, WCAN_FDFLAG_BRS);
    EXPECT_EQ(std::memcmp(in.data, out.data, 12), 0);

    _WCAN_CAN_OBJ classic{};
    classic.id = id + 1;
    classic.externFlag = out.externFlag;
    classic.dataLen = 8;
    classic.data[7] = 0x5A;
    ASSERT_EQ(api_->Transmit(kType, index, 0, &classic, 1), 1);
    _WCAN_CAN_OBJ back{};
    ASSERT_EQ(api_->Receive(kType, index, 1, &back, 1, 2000), 1);
    EXPECT_EQ(back.id, id + 1);
    EXPECT_EQ(back.dataLen, 8);
    EXPECT_EQ(back.data[7], 0x5A);
  }
};

TEST_F(CanFdOverRealLibusb, OpensEqualAdaptersByTheirIndex) {
  const std::vector<int> byIndex = plugInByIndex(kType, 2);
  ASSERT_EQ(byIndex.size(), 2u);
  ASSERT_TRUE(open(kType, 0));
  EXPECT_EQ(bed_->opens(byIndex[0]), 1u);
  EXPECT_EQ(bed_->opens(byIndex[1]), 0u);
  ASSERT_TRUE(open(kType, 1));
  EXPECT_EQ(bed_->opens(byIndex[1]), 1u);
  EXPECT_FALSE(open(kType, 2)) << "only two attached";
  EXPECT_EQ(api_->GetLastError(), WCAN_ERR_DEVICE_NOT_EXIST);
}

TEST_F(CanFdOverRealLibusb, BoardQueryInitStartRoundTripAndClose) {
  const int adapter = plugInByIndex(kType, 1).at(0);
  ASSERT_TRUE(open(kType, 0));
  _WCAN_BOARD_INFO info{};
  EXPECT_EQ(api_->BoardInfoGet(kType, 0, &info), 0) << "kept: the board query never succeeds";
  initAndStart(0);
  EXPECT_TRUE(bed_->channelStarted(adapter, 0));
  EXPECT_TRUE(bed_->channelStarted(adapter, 1));
  expectRoundTrip(0, 0x123);
  expectRoundTrip(0, 0x1ABCDE);
  EXPECT_EQ(bed_->framesDelivered(adapter, 1), 4u);
  close(kType, 0);
  EXPECT_TRUE(open(kType, 0)) << "reopens after close";
  EXPECT_FALSE(bed_->channelStarted(adapter, 0)) << "the open resets the adapter";
}

TEST_F(CanFdOverRealLibusb, RestartsTheChannelsWhenTheAdapterComesBack) {
  const int adapter = plugInByIndex(kType, 1).at(0);
  ASSERT_TRUE(open(kType, 0));
  initAndStart(0);
  expectRoundTrip(0, 0x100);
  EXPECT_EQ(unplugAndReplug(adapter), adapter);
  expectRoundTrip(0, 0x200);
}

// The first adapter's libusb context is libusb's implicit default until it
// exits; the second adapter's recovery must not depend on it. The library
// reopens device 1 by index, and the library's context lists the replugged
// adapter first, so device 1 comes back on the adapter that was device 0.
TEST_F(CanFdOverRealLibusb, SecondAdapterRecoversAfterTheFirstWasClosed) {
  const std::vector<int> byIndex = plugInByIndex(kType, 2);
  ASSERT_TRUE(open(kType, 0));
  ASSERT_TRUE(open(kType, 1));
  initAndStart(1);
  expectRoundTrip(1, 0x300);
  close(kType, 0);
  EXPECT_GE(unplugAndReplug(byIndex.at(1)), 0);
  expectRoundTrip(1, 0x400);
}

} // namespace
