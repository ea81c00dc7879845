// SPDX-License-Identifier: MIT
// Host threads that keep calling into an adapter while another thread closes
// and reopens it, and host threads whose command exchanges run at the same
// time (built under ThreadSanitizer in CI).
#include <gtest/gtest.h>

#include <atomic>
#include <chrono>
#include <cstring>
#include <functional>
#include <thread>
#include <vector>

#include "sim/wcan_sim.h"
#include "support/StartedChannels.h"
#include "wcan.h"

namespace {

using namespace std::chrono_literals;

struct Racer {
  const char *name;
  std::function<int(unsigned type)> call;
  int maxResult; // a normal result is 0..maxResult
};

const Racer kRacers[] = {
    {"transmit",
     [](unsigned type) {
       _WCAN_CAN_OBJ f[3] = {};
       return WCAN_Transmit(type, 0, 0, f, 3);
     },
     3},
    {"receive",
     [](unsigned type) {
       _WCAN_CAN_OBJ f[8];
       return WCAN_Receive(type, 0, 1, f, 8, 5);
     },
     8},
    {"receive without limit",
     [](unsigned type) {
       _WCAN_CAN_OBJ f[8];
       return WCAN_Receive(type, 0, 0, f, 8, -1);
     },
     8},
    {"count", [](unsigned type) { return WCAN_GetReceiveNum(type, 0, 1, 0); }, 1 << 20},
    {"clear", [](unsigned type) { return WCAN_ClearBuffer(type, 0, 1); }, 1},
    {"start", [](unsigned type) { return WCAN_Start(type, 0, 0); }, 1},
    {"direct transfer",
     [](unsigned type) {
       unsigned char data[62] = {1, 2, 3};
       return WCAN_DataDirectTransfer(type, 0, data, 3);
     },
     62},
};

struct Family {
  const char *name;
  unsigned type;
};

void PrintTo(const Family &f, std::ostream *os) { *os << f.name; }

class CloseRaces : public ::testing::TestWithParam<Family> {
protected:
  void TearDown() override {
    WCAN_CloseDevice(GetParam().type, 0);
    wcansim::reset();
  }

  static bool openAndStart(unsigned type) {
    return WCAN_OpenDevice(type, 0) == 1 && wcantest::startChannels(type, 0);
  }
};

// Every call either fails or gives a normal result, never a crash, a hang
// or a use of a freed driver, while the adapter is closed and reopened under
// it again and again.
TEST_P(CloseRaces, CallsRacingACloseFailOrSucceedCleanly) {
  const unsigned type = GetParam().type;
  wcansim::reset();
  ASSERT_GE(wcansim::plugIn(type), 0);
  ASSERT_TRUE(openAndStart(type));
  std::atomic<bool> done{false};
  std::atomic<int> badResults{0};
  std::atomic<long> calls{0};
  std::vector<std::thread> threads;
  for (const Racer &racer : kRacers) {
    threads.emplace_back([&] {
      while (!done) {
        const int r = racer.call(type);
        if (r < 0 || r > racer.maxResult)
          ++badResults;
        ++calls;
      }
    });
  }
  for (int cycle = 0; cycle < 20; ++cycle) {
    std::this_thread::sleep_for(5ms);
    EXPECT_EQ(WCAN_CloseDevice(type, 0), 1);
    std::this_thread::sleep_for(1ms);
    ASSERT_TRUE(openAndStart(type)) << "cycle " << cycle;
  }
  done = true;
  // Receivers blocked without limit are woken by the final close.
  EXPECT_EQ(WCAN_CloseDevice(type, 0), 1);
  for (std::thread &t : threads)
    t.join();
  EXPECT_EQ(badResults.load(), 0);
  EXPECT_GT(calls.load(), 0);
}

INSTANTIATE_TEST_SUITE_P(Families, CloseRaces,
                         ::testing::Values(Family{"CanFd", 41}, Family{"Classic", 4}),
                         [](const ::testing::TestParamInfo<Family> &info) {
                           return std::string(info.param.name);
                         });

// Two threads run command exchanges of the same command code at once (the
// raw pass-through, which the adapter echoes): each must get its own reply.
TEST(CommandExchanges, ConcurrentExchangesNeverTakeEachOthersReplies) {
  wcansim::reset();
  ASSERT_GE(wcansim::plugIn(41), 0);
  ASSERT_EQ(WCAN_OpenDevice(41, 0), 1);
  std::atomic<int> mixedUp{0};
  std::vector<std::thread> threads;
  for (unsigned char who = 1; who <= 3; ++who) {
    threads.emplace_back([&, who] {
      for (int i = 0; i < 150; ++i) {
        unsigned char data[62];
        std::memset(data, who, sizeof data);
        const int n = WCAN_DataDirectTransfer(41, 0, data, 8);
        if (n < 8 || data[0] != who || data[7] != who)
          ++mixedUp;
      }
    });
  }
  for (std::thread &t : threads)
    t.join();
  EXPECT_EQ(mixedUp.load(), 0);
  EXPECT_EQ(WCAN_CloseDevice(41, 0), 1);
  wcansim::reset();
}

} // namespace
