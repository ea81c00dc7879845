// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include "canrecord/RecordConfigFields.h"
#include "devices/canrecord/CanRecordWire.h"

using namespace canrecord;

namespace {

Reply replyOf(std::vector<uint8_t> bytes) {
  Reply reply;
  std::copy(bytes.begin(), bytes.end(), reply.bytes.begin());
  reply.length = static_cast<int>(bytes.size());
  return reply;
}

_WCAN_FLITER_CONFIG filter(uint8_t idType, uint32_t startId, uint32_t endId) {
  _WCAN_FLITER_CONFIG config{};
  config.idType = idType;
  config.startId = startId;
  config.endId = endId;
  return config;
}

} // namespace

TEST(CanRecordWire, RequestsHaveTheirExactBytes) {
  const uint8_t pass[] = {0xDE, 0xAD, 0xBE};
  const struct {
    const char *name;
    Request actual;
    Request expected;
  } cases[] = {
      {"hardware version", encodeBoardQuery(kReadHardwareVersion), {0x55, 0x01, 0x01, 0x01}},
      {"firmware version", encodeBoardQuery(kReadFirmwareVersion), {0x55, 0x12, 0x01, 0x01}},
      {"channel count", encodeBoardQuery(kReadChannelCount), {0x55, 0x13, 0x01, 0x01}},
      {"settings read ch1", encodeSettingsRead(1), {0x55, 0xA4, 0x01}},
      {"settings read ch3 uses low bit", encodeSettingsRead(3), {0x55, 0xA4, 0x01}},
      {"filter clear ch0",
       encodeFilterSet(0, kFilterClear),
       {0x55, 4, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"filter enable ch7 -> 1",
       encodeFilterSet(7, kFilterEnable),
       {0x55, 4, 2, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"filter disable ch2 -> 1",
       encodeFilterSet(2, kFilterDisable),
       {0x55, 4, 3, 1, 0, 0, 0, 0, 0, 0, 0, 0, 0}},
      {"filter add",
       encodeFilterAdd(1, filter(1, 0x100, 0x1FF)),
       {0x55, 0x04, 0x01, 0x01, 0x01, 0x00, 0x01, 0x00, 0x00, 0xFF, 0x01, 0x00, 0x00}},
      {"filter add ids unmasked",
       encodeFilterAdd(0, filter(9, 0xFFFFFFFF, 0x80000001)),
       {0x55, 0x04, 0x01, 0x00, 0x09, 0xFF, 0xFF, 0xFF, 0xFF, 0x01, 0x00, 0x00, 0x80}},
      {"filter info", encodeFilterInfoQuery(5), {0x55, 0x05, 0x00, 0x01, 0x00, 0x00}},
      {"filter setting", encodeFilterSettingQuery(0, 0x0203), {0x55, 0x05, 0x01, 0x00, 0x03, 0x02}},
      {"pass-through", encodePassThrough(pass, 3), {0x12, 0xA7, 0xDE, 0xAD, 0xBE}},
  };
  for (const auto &c : cases) {
    EXPECT_EQ(c.actual, c.expected) << c.name;
  }
  const std::vector<uint8_t> hundred(100, 0x5A);
  EXPECT_EQ(encodePassThrough(hundred.data(), hundred.size()).size(), 64u);
}

TEST(CanRecordWire, SettingsFrameCarriesEveryFieldAndReadsBack) {
  const _WCAN_RECORD_CONFIG config = {0xEE,       7, 7,    0x10, 0xAB, 0xCD, 0x12345678,
                                      0xFFFFFFFF, 0, 0x11, 0x22, 5,    0x33};
  const Request expected = {0x55, 0x03, 0x01, 0x01, 0x07, 0x10, 0xAB, 0x00, 0x48, 0x00,
                            0x68, 0x78, 0x00, 0x56, 0x00, 0xCD, 0x00, 0xFF, 0x03, 0x7F,
                            0xFF, 0x00, 0x7F, 0x00, 0x02, 0x11, 0x22, 0x33};
  const Request frame = encodeSettingsWrite(3, config);
  EXPECT_EQ(frame, expected);

  // The read reply has the same layout; flags and the two low-bit bytes come
  // back as 0/1 and the field the device never sees keeps its value.
  _WCAN_RECORD_CONFIG back{};
  back.reserved0 = 0x99;
  decodeSettings(replyOf(frame), back);
  const _WCAN_RECORD_CONFIG normalised = {0x99,       1, 1,    0,    0xAB, 0xCD, 0x12345678,
                                          0xFFFFFFFF, 0, 0x11, 0x22, 1,    0x33};
  EXPECT_EQ(recordFields(back), recordFields(normalised));
}

TEST(CanRecordWire, ReplyChecks) {
  const uint8_t request[] = {0x55, 0x04};
  const uint8_t foreign[] = {0x55, 0x05, 0x00};
  EXPECT_TRUE(replyMatches(request, request, 3));
  EXPECT_FALSE(replyMatches(request, request, 2)) << "too short to be a reply";
  EXPECT_FALSE(replyMatches(request, foreign, 3));

  const Reply ok = replyOf({0x55, 0x04, 0x00, 0x00});
  const Reply refused = replyOf({0x55, 0x04, 0x00, 0x01});
  EXPECT_TRUE(replyAccepted(4, ok, 4));
  EXPECT_FALSE(replyAccepted(4, ok, 5)) << "shorter than required";
  EXPECT_FALSE(replyAccepted(4, refused, 4)) << "non-zero status";
  EXPECT_FALSE(replyAccepted(-7, ok, 4)) << "failed exchange";
}

TEST(CanRecordWire, QueryRepliesDecodeOnlyWhenComplete) {
  const Reply info = replyOf({0x55, 0x05, 0x00, 0x00, 0x34, 0x12, 0x01});
  _WCAN_FLITER_INFO got{0xAAAA, 0xBB};
  ASSERT_TRUE(decodeFilterInfo(7, info, got));
  EXPECT_EQ(got.filterCount, 0x1234);
  EXPECT_EQ(got.filterState, 0x01);

  _WCAN_FLITER_INFO untouched{0xAAAA, 0xBB};
  EXPECT_FALSE(decodeFilterInfo(6, replyOf({0x55, 0x05, 0x00, 0x00, 0x34, 0x12}), untouched));
  EXPECT_FALSE(decodeFilterInfo(7, replyOf({0x55, 0x05, 0x00, 0x02, 0x34, 0x12, 0x01}), untouched));
  EXPECT_EQ(untouched.filterCount, 0xAAAA);
  EXPECT_EQ(untouched.filterState, 0xBB);

  const Reply setting =
      replyOf({0x55, 0x05, 0x01, 0x00, 0x01, 0x00, 0x01, 0x00, 0x00, 0xFF, 0x01, 0x00, 0x00});
  _WCAN_FLITER_CONFIG config = filter(0, 0, 0);
  config.filterIndex = 4;
  ASSERT_TRUE(decodeFilterSetting(13, setting, config));
  EXPECT_EQ(config.idType, 1);
  EXPECT_EQ(config.startId, 0x100u);
  EXPECT_EQ(config.endId, 0x1FFu);
  EXPECT_EQ(config.filterIndex, 4);
  Reply cut = setting;
  cut.length = 12;
  EXPECT_FALSE(decodeFilterSetting(12, cut, config));

  EXPECT_EQ(decodeVersion(replyOf({0x55, 0x01, 0x01, 0x00, 0x34, 0x12})), 0x1234)
      << "low byte first";
  EXPECT_EQ(decodeChannelCount(replyOf({0x55, 0x13, 0x01, 0x00, 0x02})), 2);
}

TEST(CanRecordWire, HostileLengthsStayInsideTheBuffer) {
  const uint8_t bytes[] = {1, 2, 3};
  const ByteReader reader(bytes, sizeof bytes);
  EXPECT_EQ(reader.u16le(1), 0x0302);
  EXPECT_EQ(reader.u16le(2), 0x0003) << "the byte past the end reads as 0";
  EXPECT_EQ(reader.u32le(SIZE_MAX - 1), 0u);
  EXPECT_FALSE(reader.has(SIZE_MAX, 2));

  const struct {
    int length;
    size_t payload;
  } sizes[] = {{64, 62}, {3, 1}, {2, 0}, {-7, 0}, {1000, 62}};
  for (const auto &s : sizes) {
    Reply reply;
    reply.length = s.length;
    EXPECT_EQ(passThroughReplySize(reply), s.payload) << s.length;
  }
}
