// The classic dual-channel family over the real libusb.
#include <cstring>

#include "WcanScenario.h"

namespace {

using wcanumock::WcanScenario;

constexpr unsigned kType = 4;

class ClassicOverRealLibusb : public WcanScenario {
protected:
  void initAndStart(unsigned index) {
    _WCAN_INIT_CONFIG c{};
    c.timing0 = 0x00;
    c.timing1 = 0x1C; // 500 kbit/s
    for (unsigned ch = 0; ch < 2; ++ch) {
      ASSERT_EQ(api_->InitCAN(kType, index, ch, &c), 1) << "channel " << ch;
      ASSERT_EQ(api_->Start(kType, index, ch), 1) << "channel " << ch;
    }
  }

  // Frames sent on channel 0 come back on channel 1 in order.
  void expectRoundTrip(unsigned index, unsigned id) {
    _WCAN_CAN_OBJ out[2] = {};
    out[0].id = id;
    out[0].dataLen = 8;
    for (unsigned i = 0; i < 8; ++i)
      out[0].data[i] = static_cast<unsigned char>(id + i);
    out[1].id = 0x1ABCDE00 | (id & 0xFF);
    out[1].externFlag = 1;
    out[1].dataLen = 2;
    out[1].data[1] = 0xA5;
    ASSERT_EQ(api_->Transmit(kType, index, 0, out, 2), 2);
    _WCAN_CAN_OBJ in[2] = {};
    int got = 0;
    for (int tries = 0; tries < 20 && got < 2; ++tries)
      got += api_->Receive(kType, index, 1, in + got, static_cast<unsigned>(2 - got), 100);
    ASSERT_EQ(got, 2) << "frames " << std::hex << id;
    for (int i = 0; i < 2; ++i) {
      EXPECT_EQ(in[i].id, out[i].id);
      EXPECT_EQ(in[i].externFlag, out[i].externFlag);
      EXPECT_EQ(in[i].dataLen, out[i].dataLen);
      EXPECT_EQ(std::memcmp(in[i].data, out[i].data, out[i].dataLen), 0);
    }
  }
};

TEST_F(ClassicOverRealLibusb, OpensEqualAdaptersByTheirIndex) {
  const std::vector<int> byIndex = plugInByIndex(kType, 2);
  ASSERT_EQ(byIndex.size(), 2u);
  ASSERT_TRUE(open(kType, 0));
  EXPECT_EQ(bed_->opens(byIndex[0]), 1u);
  EXPECT_EQ(bed_->opens(byIndex[1]), 0u);
  ASSERT_TRUE(open(kType, 1));
  EXPECT_EQ(bed_->opens(byIndex[1]), 1u);
  EXPECT_FALSE(open(kType, 2)) << "only two attached";
}

TEST_F(ClassicOverRealLibusb, BoardInformationInitStartRoundTripAndClose) {
  const int adapter = plugInByIndex(kType, 1).at(0);
  ASSERT_TRUE(open(kType, 0));
  _WCAN_BOARD_INFO info{};
  ASSERT_EQ(api_->BoardInfoGet(kType, 0, &info), 1);
  EXPECT_EQ(info.hwVersion, 0x0201);
  EXPECT_EQ(info.fwVersion, 0x0312);
  EXPECT_EQ(info.canNum, 2);
  EXPECT_STREQ(info.serialNum, "C2A0000001");
  initAndStart(0);
  EXPECT_TRUE(bed_->channelStarted(adapter, 1));
  expectRoundTrip(0, 0x123);
  expectRoundTrip(0, 0x456);
  EXPECT_EQ(bed_->framesDelivered(adapter, 1), 4u);
  close(kType, 0);
  EXPECT_TRUE(open(kType, 0)) << "reopens after close";
}

TEST_F(ClassicOverRealLibusb, RestartsTheChannelsWhenTheAdapterComesBack) {
  const int adapter = plugInByIndex(kType, 1).at(0);
  ASSERT_TRUE(open(kType, 0));
  initAndStart(0);
  expectRoundTrip(0, 0x100);
  EXPECT_EQ(unplugAndReplug(adapter), adapter);
  expectRoundTrip(0, 0x200);
}

TEST_F(ClassicOverRealLibusb, SecondAdapterRecoversAfterTheFirstWasClosed) {
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
