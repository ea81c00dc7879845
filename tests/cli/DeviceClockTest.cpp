// SPDX-License-Identifier: MIT
// The device clock against the shared vectors that the Python package's clock
// is checked with too.
#include <gtest/gtest.h>

#include <fstream>
#include <optional>
#include <sstream>
#include <string>
#include <vector>

#include "common/DeviceClock.h"

using wcantool::DeviceClock;

TEST(DeviceClock, FollowsTheSharedVectors) {
  std::ifstream vectors(WCAN_TEST_DATA "/device_clock.txt");
  ASSERT_TRUE(vectors) << "cannot read " << WCAN_TEST_DATA "/device_clock.txt";
  std::optional<DeviceClock> clock;
  std::string line;
  int lineNo = 0, frames = 0;
  while (std::getline(vectors, line)) {
    ++lineNo;
    std::istringstream in(line);
    std::string word;
    if (!(in >> word) || word[0] == '#') {
      continue;
    }
    if (word == "clock") {
      unsigned bits = 0;
      in >> bits;
      clock.emplace(bits);
    } else if (word == "restart") {
      clock->restart();
    } else if (word == "batch") {
      int64_t host = 0;
      in >> host;
      std::vector<uint32_t> counters;
      std::vector<int64_t> expected;
      for (std::string pair; in >> pair; ++frames) {
        const size_t eq = pair.find('=');
        counters.push_back(static_cast<uint32_t>(std::stoul(pair.substr(0, eq))));
        expected.push_back(std::stoll(pair.substr(eq + 1)));
      }
      std::vector<int64_t> times(counters.size());
      clock->toEpochUs(counters.data(), counters.size(), host, times.data());
      EXPECT_EQ(times, expected) << "line " << lineNo;
    } else {
      ASSERT_EQ(word, "frame") << "line " << lineNo;
      uint32_t counter = 0;
      int64_t host = 0, expected = 0;
      in >> counter >> host >> expected;
      EXPECT_EQ(clock->toEpochUs(counter, host), expected) << "line " << lineNo;
      ++frames;
    }
  }
  EXPECT_GT(frames, 10);
}

TEST(DeviceClock, KeepsTheAdaptersSpacingAcrossManyWraps) {
  DeviceClock clock(24);
  const int64_t start = 1'700'000'000'000'000;
  int64_t previous = clock.toEpochUs(0, start);
  uint64_t counter = 0;
  for (int i = 1; i <= 1000; ++i) {
    counter += 123'457; // about 8 frames a second, wrapping every 136 frames
    const int64_t host = start + static_cast<int64_t>(counter) + (i % 7) * 900; // jittery arrival
    const int64_t t = clock.toEpochUs(static_cast<uint32_t>(counter & 0xFFFFFF), host);
    ASSERT_EQ(t - previous, 123'457) << "frame " << i;
    previous = t;
  }
}
