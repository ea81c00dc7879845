// SPDX-License-Identifier: MIT
// candump's filters and human-readable lines as `wcan dump` shows them.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "cli/DumpView.h"
#include "common/Args.h"

using namespace wcantool;

namespace {

Frame frameOf(const char *text) {
  Frame f;
  std::string why;
  EXPECT_TRUE(parseFrame(text, f, why)) << text << ": " << why;
  return f;
}

} // namespace

TEST(DumpFilter, PassesAsSocketCanFiltersDo) {
  struct Case {
    std::vector<const char *> filters;
    std::vector<const char *> passing, blocked;
  } cases[] = {
      {{"120:7F0"}, {"123#", "12F#"}, {"130#", "7FF#"}},
      // The flag bits are part of the id and count only where the mask has them.
      {{"123:7FF"}, {"123#", "00000123#", "123#R"}, {}},
      {{"00000123:1FFFFFFF"}, {"00000123#", "123#"}, {"00000124#"}},
      {{"123:C00007FF"}, {"123#"}, {"00000123#", "123#R"}},
      {{"123~7FF"}, {"124#", "00000124#"}, {"123#"}},
      {{"100:700", "00000200:80000700"}, {"1FF#", "000002AB#", "000001AB#"}, {"2AB#", "000003AB#"}},
      {{}, {"7FF#", "1FFFFFFF#"}, {}},
  };
  for (const Case &c : cases) {
    std::vector<IdFilter> filters;
    for (const char *f : c.filters)
      filters.push_back(parseIdFilter(f));
    const FrameFilter filter(filters);
    for (const char *f : c.passing)
      EXPECT_TRUE(filter.passes(frameOf(f))) << c.filters.size() << " filters, " << f;
    for (const char *f : c.blocked)
      EXPECT_FALSE(filter.passes(frameOf(f))) << c.filters.size() << " filters, " << f;
  }
  for (const char *bad : {"123", "123:", ":7FF", "123456789:1", "12G:7FF"})
    EXPECT_THROW(parseIdFilter(bad), UsageError) << bad;
}

TEST(DumpView, WritesCandumpLinesWithEachStampMode) {
  const int64_t t0 = 1'700'000'000'250'000;
  struct Case {
    const char *mode;
    bool ascii;
    const char *first, *second; // lines for 123#41.42 at t0 and 12345678#R at t0 + 1.5 ms
  } cases[] = {
      {"a", false, "(1700000000.250000)  can0  123   [2]  41 42",
       "(1700000000.251500)  can0  12345678   [0]  remote request"},
      {"d", true, "(000.000000)  can0  123   [2]  41 42                     'AB'",
       "(000.001500)  can0  12345678   [0]  remote request"},
      {"z", false, "(000.000000)  can0  123   [2]  41 42",
       "(000.001500)  can0  12345678   [0]  remote request"},
  };
  for (const Case &c : cases) {
    FrameView view(parseStampMode(c.mode), c.ascii);
    EXPECT_EQ(view.line(t0, "can0", frameOf("123#41.42")), c.first) << c.mode;
    EXPECT_EQ(view.line(t0 + 1500, "can0", frameOf("12345678#R")), c.second) << c.mode;
  }
  FrameView fd(StampMode::None, true);
  EXPECT_EQ(fd.line(t0, "can0", frameOf("456##1004142434445464748495051")),
            " can0  456  [12]  00 41 42 43 44 45 46 47 48 49 50 51   '.ABCDEFGHIPQ'");
  EXPECT_THROW(parseStampMode("x"), UsageError);
}
