// SPDX-License-Identifier: MIT
#include <gtest/gtest.h>

#include <fstream>
#include <iterator>
#include <set>

#include "cli/Generator.h"
#include "cli/RecordFields.h"
#include "common/Args.h"
#include "common/DeviceTypes.h"

namespace wcantool {
namespace {

const std::vector<OptionSpec> kOptions = {{"--count", true}, {"--fd", false}, {"--tx", true}};

TEST(Args, SeparatesPositionalsAndOptionsInBothSpellings) {
  Args a({"41", "--count", "5", "0", "--fd", "--tx=0:123#00", "1", "--tx", "0:7FF#R"}, kOptions);
  EXPECT_EQ(a.positionals(), (std::vector<std::string>{"41", "0", "1"}));
  EXPECT_EQ(a.value("--count"), "5");
  EXPECT_TRUE(a.flag("--fd"));
  EXPECT_EQ(a.values("--tx"), (std::vector<std::string>{"0:123#00", "0:7FF#R"}));
  EXPECT_FALSE(a.value("--missing"));
  // After "--" everything is positional, even what looks like an option.
  EXPECT_EQ(Args({"--", "--count"}, kOptions).positionals(), std::vector<std::string>{"--count"});
}

TEST(Args, RejectsMisusedOptionsCountsAndNumbers) {
  // Unknown option, value missing, flag given a value.
  for (const char *bad : {"--bogus", "--count", "--fd=1"})
    EXPECT_THROW(Args({bad}, kOptions), UsageError) << bad;
  Args a({"1", "2"}, kOptions);
  EXPECT_THROW(a.expectPositionals(3, 3), UsageError);
  EXPECT_THROW(a.expectPositionals(0, 1), UsageError);
  EXPECT_NO_THROW(a.expectPositionals(2, 2));
  EXPECT_EQ(parseNumber("500000", "x", 0, 1000000), 500000u);
  EXPECT_EQ(parseNumber("0x1F", "x", 0, 100), 31u);
  for (const char *bad : {"", "-1", "12abc", "1.5", "101", " 5"})
    EXPECT_THROW(parseNumber(bad, "x", 0, 100), UsageError) << bad;
  EXPECT_THROW(parseUnsigned("0", "x", 1, 8), UsageError);
}

TEST(Args, SimOptionIsTakenFromAnyPlace) {
  using Argv = std::vector<std::string>;
  Argv argv = {"dump", "--sim", "41,4", "41", "0", "1"}, eq = {"--sim=61", "list"};
  EXPECT_EQ(takeSimOption(argv), "41,4");
  EXPECT_EQ(argv, (Argv{"dump", "41", "0", "1"}));
  EXPECT_EQ(takeSimOption(eq), "61");
  EXPECT_EQ(eq, Argv{"list"});
  EXPECT_FALSE(takeSimOption(eq));
  Argv dangling = {"list", "--sim"};
  EXPECT_THROW(takeSimOption(dangling), UsageError);
}

// The USB ids themselves are checked against the udev rule below.
TEST(DeviceTypes, FamiliesChannelsAndSharedUsbIds) {
  const std::pair<unsigned, Family> families[] = {
      {41, Family::CanFd}, {64, Family::CanFd}, {3, Family::Classic}, {62, Family::Recorder}};
  for (const auto &[type, family] : families)
    EXPECT_EQ(findDeviceType(type)->family, family) << type;
  EXPECT_EQ(findDeviceType(64)->channels, 4u);
  EXPECT_EQ(findDeviceType(67)->channels, 8u);
  for (unsigned unsupported : {0u, 5u, 40u, 63u, 68u, 73u})
    EXPECT_EQ(findDeviceType(unsupported), nullptr) << unsupported;
  EXPECT_EQ(typesForUsbId(0x3068, 0x0009), (std::vector<unsigned>{41, 42, 43}));
  EXPECT_EQ(typesForUsbId(0x0471, 0x1200), (std::vector<unsigned>{3, 4}));
  EXPECT_TRUE(typesForUsbId(0x0471, 0x9999).empty());
}

TEST(DeviceTypes, UdevRuleCoversEveryUsbId) {
  std::ifstream file(WCAN_UDEV_RULES);
  ASSERT_TRUE(file) << WCAN_UDEV_RULES;
  const std::string rules(std::istreambuf_iterator<char>(file), {});
  for (const DeviceType &t : deviceTypes()) {
    char match[96];
    std::snprintf(match, sizeof match, "ATTR{idVendor}==\"%04x\", ATTR{idProduct}==\"%04x\"",
                  t.vendorId, t.productId);
    EXPECT_NE(rules.find(match), std::string::npos) << "type " << t.type << ": " << match;
  }
}

TEST(Generator, FixedIncrementingAndRandomIds) {
  GenSpec fixed, inc, ext;
  parseGenId("7ff", fixed);
  parseGenLen("3", fixed);
  const Frame f = FrameGenerator(fixed, 1).next();
  EXPECT_EQ(std::make_pair(f.id, unsigned(f.len)), std::make_pair(0x7FFu, 3u));

  parseGenId("i", inc);
  FrameGenerator gi(inc, 1);
  for (uint32_t i = 0; i <= kMaxStandardId; ++i)
    ASSERT_EQ(gi.next().id, i);
  EXPECT_EQ(gi.next().id, 0u) << "incrementing ids wrap after 7FF";

  ext.extended = true;
  FrameGenerator gr(ext, 7);
  bool above11Bits = false;
  for (int i = 0; i < 200; ++i) {
    const Frame r = gr.next();
    ASSERT_TRUE(r.extended && r.id <= kMaxExtendedId) << r.id;
    above11Bits |= r.id > kMaxStandardId;
  }
  EXPECT_TRUE(above11Bits);
}

TEST(Generator, LengthsFitTheFrameFormat) {
  GenSpec fd, classic, bad;
  fd.fd = fd.brs = true;
  parseGenLen("i", fd);
  FrameGenerator g(fd, 3), gc(classic, 3);
  std::set<unsigned> seen;
  for (int i = 0; i < 32; ++i) {
    const Frame f = g.next();
    ASSERT_TRUE(f.fd && f.brs && isFdLength(f.len)) << unsigned(f.len);
    seen.insert(f.len);
  }
  EXPECT_EQ(seen.size(), 16u) << "every CAN FD length class is generated";
  for (int i = 0; i < 100; ++i)
    ASSERT_LE(gc.next().len, kMaxClassicLen);

  EXPECT_THROW(parseGenLen("9", bad), UsageError);
  bad.fd = true;
  EXPECT_THROW(parseGenLen("13", bad), UsageError);
  EXPECT_THROW(parseGenId("800", bad), UsageError);
}

// Reading fields back from a recorder is covered by the command line checks.
TEST(RecordFields, AssignmentsWithinFieldWidths) {
  _WCAN_RECORD_CONFIG c{};
  applyRecordAssignment(c, "recOptByte3=255");
  applyRecordAssignment(c, "dbitTiming=0xFFFFFFFF");
  EXPECT_EQ(c.recOptByte3, 255);
  EXPECT_EQ(c.dbitTiming, 0xFFFFFFFFu);
  for (const char *bad : {"recFlag1", "nosuch=1", "recFlag1=256", "dbitTiming=0x100000000"})
    EXPECT_THROW(applyRecordAssignment(c, bad), UsageError) << bad;
}

} // namespace
} // namespace wcantool
