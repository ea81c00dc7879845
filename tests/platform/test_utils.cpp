// SPDX-License-Identifier: MIT
// Clock arithmetic and hexadecimal text conversion.
#include <gtest/gtest.h>

#include <functional>
#include <thread>
#include <utility>

#include "platform/QUserUtils.h"

namespace {

const unsigned char *text(const char *s) { return reinterpret_cast<const unsigned char *>(s); }

TEST(Clock, LapseAcrossTheWrapIsOneShort) {
  // Pretend the reading was taken just before the 32-bit clock wrapped: the
  // distance counts one less than the true one (host programs rely on it).
  const uint32_t now = getCurMicroSec();
  // "start" is far above "now" (1000 s), so a busy machine reading the
  // clock again a little later still sees the wrap.
  constexpr uint32_t kAhead = 1'000'000'000u;
  const uint32_t beforeWrap = now + kAhead;
  const uint32_t lapse = getLapseMicroSec(beforeWrap);
  EXPECT_GE(lapse, 0xFFFFFFFFu - kAhead);
  EXPECT_LE(lapse, 0xFFFFFFFFu - kAhead + 1'000'000u);
}

TEST(Clock, LapseMeasuresElapsedTime) {
  const uint32_t start = getCurMicroSec();
  std::this_thread::sleep_for(std::chrono::milliseconds(5));
  const uint32_t lapse = getLapseMicroSec(start);
  EXPECT_GE(lapse, 5000u);
  EXPECT_LT(lapse, 5'000'000u);
}

TEST(Hex, Conversions) {
  struct {
    char c;
    uint8_t value;
  } digits[] = {{'0', 0}, {'9', 9}, {'a', 10}, {'f', 15}, {'A', 10}, {'F', 15}, {'g', 0}, {' ', 0}};
  for (const auto &d : digits) {
    EXPECT_EQ(char2Hex(d.c), d.value) << d.c;
  }
  EXPECT_EQ(str2Byte(text("7f")), 0x7F);
  EXPECT_EQ(str2Byte(text("A")), 0xA0) << "the terminator converts as 0";
  EXPECT_EQ(str2Byte(text("")), 0);
  EXPECT_EQ(str2Word(text("12ab")), 0x12AB);
  EXPECT_EQ(str2Word(text("")), 0);
  EXPECT_EQ(str2DWord(text("0001e240")), 0x0001E240u);
  EXPECT_EQ(str2DWord(text("FFFFFFFF")), 0xFFFFFFFFu);
  EXPECT_EQ(str2DWord(text("")), 0u);
}

TEST(Mutex, GuardIsRecursive) {
  pthread_mutex_t mutex;
  initRecursivePiMutex(&mutex);
  {
    QUserMutex outer(mutex);
    QUserMutex inner(mutex); // would deadlock on a plain mutex
  }
  EXPECT_EQ(pthread_mutex_trylock(&mutex), 0);
  pthread_mutex_unlock(&mutex);
  pthread_mutex_destroy(&mutex);
}

// Virtual time is a harness's tool; a host program must never see it.
class VirtualTime : public ::testing::Test {
protected:
  void TearDown() override {
    virtualtime::enable(false);
    virtualtime::setTransferTime(std::chrono::microseconds(0));
  }
  // Microseconds the clock moves while `f` runs, and the real time it takes.
  template <class F> std::pair<uint32_t, std::chrono::nanoseconds> measure(F f) {
    const uint32_t start = getCurMicroSec();
    const auto realStart = std::chrono::steady_clock::now();
    f();
    return {getLapseMicroSec(start), std::chrono::steady_clock::now() - realStart};
  }
};

TEST_F(VirtualTime, OffTheClockIsRealAndPausesSleep) {
  using std::chrono::milliseconds;
  virtualtime::setTransferTime(milliseconds(500));
  const auto [lapse, real] = measure([] {
    virtualtime::advance(std::chrono::seconds(100));
    virtualtime::chargeTransfer();
    pauseFor(milliseconds(5));
  });
  EXPECT_GE(real, milliseconds(5));
  EXPECT_LT(lapse, 1'000'000u) << "advancing must do nothing while virtual time is off";
  EXPECT_EQ(virtualtime::sleepInstead(milliseconds(7)), milliseconds(7));
}

TEST_F(VirtualTime, OnTimeOnlyPassesOnTheClock) {
  using std::chrono::milliseconds;
  using std::chrono::seconds;
  virtualtime::enable(true);
  virtualtime::setTransferTime(milliseconds(1));
  struct {
    const char *what;
    std::function<void()> act;
    uint32_t atLeastUs;
  } cases[] = {
      {"advance", [] { virtualtime::advance(seconds(3)); }, 3'000'000},
      {"pause", [] { pauseFor(seconds(2)); }, 2'000'000},
      {"transfer", [] { virtualtime::chargeTransfer(); }, 1'000},
      {"sleep", [] { (void)virtualtime::sleepInstead(seconds(1)); }, 1'000'000},
  };
  for (const auto &c : cases) {
    const auto [lapse, real] = measure(c.act);
    EXPECT_GE(lapse, c.atLeastUs) << c.what;
    EXPECT_LT(real, milliseconds(500)) << c.what;
  }
  EXPECT_LE(virtualtime::sleepInstead(seconds(1)), milliseconds(1))
      << "a sleep keeps only a moment of real time";
}

} // namespace
