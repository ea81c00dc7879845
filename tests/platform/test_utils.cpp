// SPDX-License-Identifier: MIT
// Clock arithmetic and hexadecimal text conversion.
#include <gtest/gtest.h>

#include <thread>

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

} // namespace
