// SPDX-License-Identifier: MIT
// The recorder model driven directly, for what the driver's own suite cannot
// observe: refused requests, the filter limit and state kept over a power cycle.
#include <gtest/gtest.h>

#include "sim/ModelCanRecord.h"
#include "sim/Models.h"
#include "tests/sim/FakeModelHost.h"

namespace wcansim {
namespace {

constexpr uint8_t kOut = 0x01, kIn = 0x81;

// Settings frame: flag0 1, param0 7, param2 0x22, abitTiming 0x12345678,
// param3 0x33, dbitTiming 0x00404142, flag2 set, param4..6 = 4, 5, 6.
Bytes settingsFrame(uint8_t ch) {
  return {0x55, 0x03, ch,   0x01, 0x07, 0x00, 0x22, 0x00, 0x48, 0x00, 0x68, 0x78, 0x00, 0x56,
          0x00, 0x33, 0x00, 0x01, 0x00, 0x00, 0x42, 0x00, 0x41, 0x00, 0x02, 0x04, 0x05, 0x06};
}

Bytes filterSet(uint8_t sub, uint8_t ch, uint8_t idType = 0, uint32_t start = 0, uint32_t end = 0) {
  Bytes r{0x55, 0x04, sub, ch, idType};
  for (uint32_t v : {start, end})
    for (int i = 0; i < 4; ++i)
      r.push_back(uint8_t(v >> 8 * i));
  return r;
}

Bytes filterQuery(uint8_t sub, uint8_t ch, uint16_t index = 0) {
  return {0x55, 0x05, sub, ch, uint8_t(index), uint8_t(index >> 8)};
}

class CanRecordModelTest : public ::testing::Test {
protected:
  std::unique_ptr<DeviceModel> owned = makeCanRecordModel(61);
  CanRecordModel &model = static_cast<CanRecordModel &>(*owned);
  FakeModelHost host;

  Bytes exchange(const Bytes &req) {
    EXPECT_EQ(host.write(model, kOut, req), int(req.size()));
    Bytes reply = host.read(model, kIn);
    EXPECT_TRUE(host.read(model, kIn).empty()) << "one reply per request";
    return reply;
  }
};

TEST_F(CanRecordModelTest, SettingsReadBackPerChannelAndSurviveAPowerCycle) {
  Bytes factory = exchange({0x55, 0xA4, 0x00});
  ASSERT_EQ(factory.size(), 28u);
  EXPECT_NE(factory[11] | factory[12] << 8, 0) << "a usable factory bit timing";
  exchange(settingsFrame(1));
  model.onReset();
  Bytes expected = settingsFrame(1);
  expected[1] = 0xA4;
  EXPECT_EQ(exchange({0x55, 0xA4, 0x01}), expected);
  EXPECT_EQ(exchange({0x55, 0xA4, 0x00}), factory) << "channel 0 untouched";
}

TEST_F(CanRecordModelTest, RefusedRequestsChangeNothing) {
  exchange(settingsFrame(0));
  Bytes partial = settingsFrame(0);
  partial.resize(27);
  partial[3] = 0x00;
  EXPECT_EQ(exchange(partial)[3], 0x01);
  EXPECT_EQ(exchange({0x55, 0xA4, 0x00})[3], 0x01) << "flag0 as first written";
  Bytes shortAdd = filterSet(1, 0, 1, 5, 6);
  shortAdd.resize(12);
  EXPECT_NE(exchange(shortAdd)[3], 0);
  EXPECT_NE(exchange(filterSet(9, 0))[3], 0) << "unknown sub-command";
  EXPECT_TRUE(model.filters(0).empty());
  EXPECT_EQ(exchange({0x55, 0x42, 0x00}), (Bytes{0x55, 0x42, 0x00, 0x01})) << "unknown code";
  EXPECT_EQ(host.write(model, kOut, {0xAA, 0x01, 0x01}), 3);
  EXPECT_TRUE(host.read(model, kIn).empty()) << "noise is not answered";
  EXPECT_LT(host.write(model, 0x02, {0x55, 0x01}), 0) << "no data endpoint";
}

TEST_F(CanRecordModelTest, FiltersAreKeptPerChannelUpToTheLimit) {
  exchange(filterSet(1, 1, 0, 0x10, 0x20));
  exchange(filterSet(1, 1, 1, 0x1000, 0x1FFFFFFF));
  exchange(filterSet(2, 1));
  model.onReset();
  EXPECT_EQ(exchange(filterQuery(0, 1)), (Bytes{0x55, 0x05, 0x00, 0x00, 0x02, 0x00, 0x01}));
  EXPECT_EQ(exchange(filterQuery(0, 0)), (Bytes{0x55, 0x05, 0x00, 0x00, 0x00, 0x00, 0x00}));
  EXPECT_EQ(exchange(filterQuery(1, 1, 1)),
            (Bytes{0x55, 0x05, 0x01, 0x00, 0x01, 0x00, 0x10, 0x00, 0x00, 0xFF, 0xFF, 0xFF, 0x1F}));
  exchange(filterSet(0, 1));
  EXPECT_TRUE(model.filters(1).empty());
  EXPECT_TRUE(model.filtersEnabled(1)) << "clearing the list keeps the switch";

  for (uint32_t i = 0; i < CanRecordModel::kMaxFilters; ++i)
    ASSERT_EQ(exchange(filterSet(1, 0, 0, i, i))[3], 0) << i;
  EXPECT_NE(exchange(filterSet(1, 0, 0, 99, 99))[3], 0) << "list full";
  EXPECT_EQ(model.filters(0).size(), CanRecordModel::kMaxFilters);
}

} // namespace
} // namespace wcansim
