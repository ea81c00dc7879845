// The recorder family over the real libusb: configuration only.
#include <tuple>

#include "WcanScenario.h"

namespace {

using wcanumock::WcanScenario;

constexpr unsigned kType = 61;

_WCAN_RECORD_CONFIG settings(unsigned char seed) {
  _WCAN_RECORD_CONFIG c{};
  c.recFlag1 = 1;
  c.abitParam = seed;
  c.dbitParam = static_cast<unsigned char>(seed + 1);
  c.abitTiming = 0x12345678u + seed;
  c.dbitTiming = 0x00C09A0Bu;
  c.recOptFlag1 = 1;
  c.recOptByte3 = seed;
  return c;
}

auto fields(const _WCAN_RECORD_CONFIG &c) {
  return std::make_tuple(+c.recFlag1, +c.recFlag2, +c.recFlag3, +c.abitParam, +c.dbitParam,
                         c.abitTiming, c.dbitTiming, +c.recOptFlag0, +c.recOptByte1, +c.recOptByte2,
                         +c.recOptFlag1, +c.recOptByte3);
}

class RecorderOverRealLibusb : public WcanScenario {
protected:
  void expectSettingsReadBack(unsigned index) {
    for (unsigned ch = 0; ch < 2; ++ch) {
      _WCAN_RECORD_CONFIG read{};
      ASSERT_EQ(api_->RecordSettingGet(kType, index, ch, &read), 1) << "channel " << ch;
      EXPECT_EQ(fields(read), fields(settings(static_cast<unsigned char>(0x40 + ch))))
          << "channel " << ch;
    }
  }
};

TEST_F(RecorderOverRealLibusb, OpensEqualRecordersByTheirIndex) {
  const std::vector<int> byIndex = plugInByIndex(kType, 2);
  ASSERT_EQ(byIndex.size(), 2u);
  ASSERT_TRUE(open(kType, 0));
  EXPECT_EQ(bed_->opens(byIndex[0]), 1u);
  EXPECT_EQ(bed_->opens(byIndex[1]), 0u);
  ASSERT_TRUE(open(kType, 1));
  EXPECT_EQ(bed_->opens(byIndex[1]), 1u);
  EXPECT_FALSE(open(kType, 2)) << "only two attached";
}

TEST_F(RecorderOverRealLibusb, BoardInformationSettingsAndFiltersRoundTrip) {
  plugInByIndex(kType, 1);
  ASSERT_TRUE(open(kType, 0));
  _WCAN_BOARD_INFO info{};
  ASSERT_EQ(api_->BoardInfoGet(kType, 0, &info), 1);
  EXPECT_EQ(info.hwVersion, 0x0110);
  EXPECT_EQ(info.fwVersion, 0x0204);
  EXPECT_EQ(info.canNum, 2);

  for (unsigned ch = 0; ch < 2; ++ch) {
    _WCAN_RECORD_CONFIG c = settings(static_cast<unsigned char>(0x40 + ch));
    ASSERT_EQ(api_->RecordSettingSet(kType, 0, ch, &c), 1) << "channel " << ch;
  }
  expectSettingsReadBack(0);

  _WCAN_FLITER_CONFIG range{};
  range.idType = 1;
  range.startId = 0x18FF0000;
  range.endId = 0x18FFFFFF;
  ASSERT_EQ(api_->RecordFliterClr(kType, 0, 1), 1);
  ASSERT_EQ(api_->RecordFliterAdd(kType, 0, 1, &range), 1);
  ASSERT_EQ(api_->RecordFliterEnable(kType, 0, 1), 1);
  _WCAN_FLITER_INFO summary{};
  ASSERT_EQ(api_->RecordFliterInfoGet(kType, 0, 1, &summary), 1);
  EXPECT_EQ(summary.filterCount, 1);
  EXPECT_EQ(summary.filterState, 1);
  _WCAN_FLITER_CONFIG read{};
  ASSERT_EQ(api_->RecordFliterSettingGet(kType, 0, 1, 0, &read), 1);
  EXPECT_EQ(read.idType, 1);
  EXPECT_EQ(read.startId, range.startId);
  EXPECT_EQ(read.endId, range.endId);

  // The recorder keeps its settings over the reset of the next open.
  close(kType, 0);
  ASSERT_TRUE(open(kType, 0));
  expectSettingsReadBack(0);
}

} // namespace
