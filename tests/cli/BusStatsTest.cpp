// SPDX-License-Identifier: MIT
// The live views' arithmetic: bits on the wire against frames counted by
// hand, load at given rates, period and jitter, changed bytes, fading and
// filters.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <vector>

#include "common/BusStats.h"
#include "tests/support/Frames.h"

namespace wcantool {
namespace {

using testframes::frame;
using testframes::remote;

TEST(BusBits, FramesOnTheWireAsCountedByHand) {
  const std::vector<uint8_t> zeros8(8, 0);
  struct Case {
    const char *what;
    Frame frame;
    unsigned nominal;
    unsigned data;
  } cases[] = {
      // 34 dominant bits from start of frame to the checksum (which is 0):
      // a stuff bit after every fifth, 6 in all, plus the 13-bit tail.
      {"classic, id 0, no data", frame(0, false, {}), 53, 0},
      // 14 dominant bits up to IDE (2 stuff bits); ESI, the length code 1000
      // and 64 zero bits are 67 zeros after the recessive BRS (13 stuff
      // bits); stuff count and CRC-17 with 6 fixed stuff bits.
      {"CAN FD, id 0, 8 zero bytes, switched", frame(0, false, zeros8, true, true), 32, 109},
      // The run of five that ends the data gets no stuff bit of its own: the
      // fixed one before the stuff count takes its place.
      {"CAN FD, id 0, 20 zero bytes, switched",
       frame(0, false, std::vector<uint8_t>(20, 0), true, true), 32, 228},
      {"CAN FD unswitched is all nominal", frame(0, false, std::vector<uint8_t>(20, 0), true), 260,
       0},
      // Counted bit by bit with the CRC-15 worked out by hand.
      {"classic 123#DEADBEEF", frame(0x123, false, {0xDE, 0xAD, 0xBE, 0xEF}), 81, 0},
      {"classic extended 12345678#11223344", frame(0x12345678, true, {0x11, 0x22, 0x33, 0x44}), 101,
       0},
      {"classic extended, id 0, 8 zero bytes", frame(0, true, zeros8), 150, 0},
      {"alternating bits need no stuffing", frame(0x555, false, std::vector<uint8_t>(8, 0xAA)), 112,
       0},
      {"remote frames send their length but no data", remote(0x7FF, false, 8), 50, 0},
      {"CAN FD extended, 64 bytes, CRC-21",
       frame(0x1ABCDEF0, true, std::vector<uint8_t>(64, 0x5A), true, true), 51, 549},
  };
  for (const Case &c : cases) {
    const busbits::FrameBits bits = busbits::onWire(busbits::shapeOf(c.frame));
    EXPECT_EQ(bits.nominal, c.nominal) << c.what;
    EXPECT_EQ(bits.data, c.data) << c.what;
  }
}

TEST(ChannelLoad, LoadIsTheBusTimeOfTheBitsAtTheirRates) {
  struct Case {
    const char *what;
    BusRates rates;
    Frame frame;
    unsigned perSecond;
    double percent;
    uint64_t payloadBits;
  } cases[] = {
      // 53 bits at 500 kbit/s: 106 µs each.
      {"classic", {500000, 0}, frame(0, false, {}), 1000, 10.6, 0},
      // 32 bits at 500 kbit/s (64 µs) and 109 at 2 Mbit/s (54.5 µs).
      {"switched CAN FD",
       {500000, 2000000},
       frame(0, false, std::vector<uint8_t>(8, 0), true, true),
       2000,
       23.7,
       2000 * 64},
      {"a classic bus at 125 kbit/s", {125000, 0}, frame(0, false, {}), 500, 21.2, 0},
  };
  for (const Case &c : cases) {
    ChannelLoad load(c.rates);
    for (unsigned i = 0; i < c.perSecond; ++i)
      load.add(c.frame);
    const LoadInterval l = load.close(1.0);
    EXPECT_NEAR(l.percent(), c.percent, 1e-9) << c.what;
    EXPECT_EQ(l.payloadBits, c.payloadBits) << c.what;
    EXPECT_EQ(l.frames, c.perSecond) << c.what;
  }
}

TEST(ChannelLoad, KeepsMinMaxAndDecayingAverages) {
  ChannelLoad load({500000, 0});
  auto second = [&](unsigned frames) {
    for (unsigned i = 0; i < frames; ++i)
      load.add(frame(0, false, {})); // 0.0106 % each
    load.close(1.0);
  };
  second(1000); // 10.6 %
  second(5000); // 53 %
  for (int i = 0; i < 60; ++i)
    second(0);
  EXPECT_NEAR(load.min(), 0, 1e-9);
  EXPECT_NEAR(load.max(), 53, 1e-9);
  // 60 s of silence leave 1/e of the 1-minute average; the longer ones
  // forget more slowly.
  const double(&avg)[3] = load.averages();
  EXPECT_LT(avg[0], avg[1]);
  EXPECT_LT(avg[1], avg[2]);
  EXPECT_NEAR(avg[0], (10.6 + (53 - 10.6) * (1 - std::exp(-1.0 / 60))) * std::exp(-1.0), 0.01);
}

TEST(IdTable, PeriodJitterAndChangedBytes) {
  IdTable table;
  // Frames 10, 10, 12 and 8 ms apart: mean 10 ms, standard deviation 1.63 ms.
  const int64_t at[] = {0, 10000, 20000, 32000, 40000};
  const std::vector<uint8_t> data[] = {{1, 2, 3}, {1, 2, 3}, {1, 9, 3}, {1, 9, 3, 4}, {0, 9}};
  for (int i = 0; i < 5; ++i)
    table.add(1, frame(0x100, false, data[i]), at[i]);
  table.add(0, frame(0x100, false, {7}), 5000); // another channel, another row
  const std::vector<const IdEntry *> rows = table.rows(IdFilter{}, SortKey::Id);
  ASSERT_EQ(rows.size(), 2u);
  const IdEntry &e = *rows[1];
  EXPECT_EQ(e.channel, 1u);
  EXPECT_EQ(e.count, 5u);
  EXPECT_NEAR(e.meanPeriodUs, 10000, 1e-6);
  EXPECT_NEAR(e.jitterUs(), 1632.99, 0.01);
  EXPECT_NEAR(e.rate(), 100, 1e-9);
  EXPECT_EQ(e.changed, 0b01u) << "byte 0 changed; byte 1 did not; bytes 2 and 3 are gone";

  table.add(0, frame(0x100, false, {7}), 6000);
  EXPECT_EQ(rows[0]->changed, 0u) << "nothing changed";
  table.add(0, frame(0x100, false, {7, 1}), 7000);
  EXPECT_EQ(rows[0]->changed, 0b10u) << "a byte that was not there counts as changed";
}

TEST(IdTable, FadesAtHalfTheTimeOutAndLeavesAtIt) {
  IdTable table(2.0);
  table.add(0, frame(0x1, false, {}), 0);
  table.add(0, frame(0x2, false, {}), 1500000);
  const struct {
    int64_t now;
    size_t rows;
    bool firstFaded;
  } steps[] = {{999999, 2, false}, {1000000, 2, true}, {2000000, 1, false}, {3500000, 0, false}};
  for (const auto &s : steps) {
    table.expire(s.now);
    const auto rows = table.rows(IdFilter{}, SortKey::Id);
    ASSERT_EQ(rows.size(), s.rows) << s.now;
    if (!rows.empty()) {
      EXPECT_EQ(table.faded(*rows[0], s.now), s.firstFaded) << s.now;
    }
  }
}

TEST(IdTable, SortsByRateCountAndAge) {
  IdTable table;
  for (int i = 0; i < 3; ++i)
    table.add(0, frame(0x300, false, {}), i * 100000); // 10/s, 3 frames, last at 200 ms
  for (int i = 0; i < 2; ++i)
    table.add(0, frame(0x200, false, {}), 150000 + i * 10000); // 100/s, 2 frames, last at 160 ms
  table.add(0, frame(0x100, false, {}), 170000);               // newest
  auto order = [&](SortKey k) {
    std::vector<uint32_t> ids;
    for (const IdEntry *e : table.rows(IdFilter{}, k))
      ids.push_back(e->id);
    return ids;
  };
  EXPECT_EQ(order(SortKey::Id), (std::vector<uint32_t>{0x100, 0x200, 0x300}));
  EXPECT_EQ(order(SortKey::Rate), (std::vector<uint32_t>{0x200, 0x300, 0x100}));
  EXPECT_EQ(order(SortKey::Count), (std::vector<uint32_t>{0x300, 0x200, 0x100}));
  EXPECT_EQ(order(SortKey::Age), (std::vector<uint32_t>{0x300, 0x100, 0x200}));
}

TEST(IdTable, ManyIdentifiersKeepTheirRowsThroughGrowthAndExpiry) {
  IdTable table(1.0);
  // Every standard identifier on channel 0, as many extended ones on
  // channel 1; the odd ones go quiet.
  auto onChannel = [](unsigned ch, uint32_t id) {
    return ch == 0 ? frame(id, false, {}) : frame(id * 0x1001, true, {});
  };
  for (int round = 0; round < 2; ++round)
    for (unsigned ch = 0; ch < 2; ++ch)
      for (uint32_t id = 0; id <= kMaxStandardId; ++id)
        table.add(ch, onChannel(ch, id), round * 100000 + (id % 2 ? 0 : 900000));
  ASSERT_EQ(table.size(), 2u * 2048);
  table.expire(1500000);
  ASSERT_EQ(table.size(), 2048u);
  table.add(1, onChannel(1, 0x7FE), 1600000);
  table.add(1, onChannel(1, 0x7FF), 1600000); // back after it left: a new row
  table.add(0, onChannel(0, 0x7FF), 1700000);
  const std::vector<const IdEntry *> all = table.rows(IdFilter{}, SortKey::Age);
  ASSERT_EQ(all.size(), 2050u);
  const struct {
    uint32_t id;
    uint64_t count;
  } youngest[] = {{0x7FF, 1}, {0x7FE * 0x1001, 3}, {0x7FF * 0x1001, 1}};
  for (size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(all[i]->id, youngest[i].id) << i;
    EXPECT_EQ(all[i]->count, youngest[i].count) << i;
  }
  // Only the first rows ordered: the same ones a whole sort puts first.
  const std::vector<const IdEntry *> some = table.rows(IdFilter{}, SortKey::Age, 40);
  ASSERT_EQ(some.size(), all.size());
  EXPECT_TRUE(std::equal(all.begin(), all.begin() + 40, some.begin()));
}

TEST(IdFilter, RulesInOrderTheLastMatchDecides) {
  const struct {
    const char *rules;
    std::vector<uint32_t> pass;
    std::vector<uint32_t> block;
  } cases[] = {
      {"", {0x0, 0x7FF, 0x1FFFFFFF}, {}},
      {"+123", {0x123}, {0x124, 0x0}},
      {"-123", {0x124, 0x12345678}, {0x123}},
      {"+100/700", {0x100, 0x1FF}, {0x200, 0x0FF}},
      {"+100/700 -180/7F0", {0x100, 0x17F, 0x190}, {0x180, 0x18F}},
      {"-0/0,+7FF", {0x7FF}, {0x7FE}},
      {"+12345678", {0x12345678}, {0x2345678}},
  };
  for (const auto &c : cases) {
    IdFilter f;
    std::string why;
    ASSERT_TRUE(std::string(c.rules).empty() || f.add(c.rules, why)) << c.rules << ": " << why;
    for (uint32_t id : c.pass)
      EXPECT_TRUE(f.passes(id)) << c.rules << " " << std::hex << id;
    for (uint32_t id : c.block)
      EXPECT_FALSE(f.passes(id)) << c.rules << " " << std::hex << id;
  }
  for (const char *bad : {"123", "+", "+XYZ", "+123/", "+123456789", "+20000000", "+1/G"}) {
    IdFilter f;
    std::string why;
    EXPECT_FALSE(f.add(bad, why)) << bad;
    EXPECT_FALSE(why.empty()) << bad;
    EXPECT_TRUE(f.empty()) << bad << ": a bad rule adds nothing";
  }
}

} // namespace
} // namespace wcantool
