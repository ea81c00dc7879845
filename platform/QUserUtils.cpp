// SPDX-License-Identifier: MIT
#include "platform/QUserUtils.h"

#include <time.h>

#include <algorithm>
#include <atomic>
#include <thread>

namespace {

std::atomic<bool> virtualTimeOn{false};
// Microseconds that passed only on the virtual clock.
std::atomic<uint64_t> virtualSkewUs{0};
std::atomic<int64_t> transferTimeUs{0};
// Long enough for another thread to run, short enough that retries paced by
// virtual pauses go on at once.
constexpr std::chrono::microseconds kVirtualPauseSleep{50};

} // namespace

uint32_t getCurMicroSec() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t us =
      static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
  return static_cast<uint32_t>(us + virtualSkewUs.load(std::memory_order_relaxed));
}

// Every pause is bounded by a budget on the same clock, so under virtual
// time a loop of them ends after a bounded number of rounds without sleeping
// or yielding (a yield costs a whole time slice on a busy machine).
void pauseFor(std::chrono::microseconds duration) {
  if (virtualtime::enabled()) {
    virtualtime::advance(duration);
    return;
  }
  std::this_thread::sleep_for(duration);
}

namespace virtualtime {

void enable(bool on) { virtualTimeOn.store(on, std::memory_order_relaxed); }

bool enabled() { return virtualTimeOn.load(std::memory_order_relaxed); }

void advance(std::chrono::microseconds duration) {
  if (enabled() && duration.count() > 0) {
    virtualSkewUs.fetch_add(static_cast<uint64_t>(duration.count()), std::memory_order_relaxed);
  }
}

std::chrono::microseconds sleepInstead(std::chrono::microseconds duration) {
  if (!enabled() || duration.count() <= 0) {
    return duration;
  }
  advance(duration);
  return std::min(duration, kVirtualPauseSleep);
}

void setTransferTime(std::chrono::microseconds duration) {
  transferTimeUs.store(duration.count(), std::memory_order_relaxed);
}

void chargeTransfer() {
  advance(std::chrono::microseconds(transferTimeUs.load(std::memory_order_relaxed)));
}

} // namespace virtualtime

uint32_t getLapseMicroSec(uint32_t start) {
  const uint32_t now = getCurMicroSec();
  if (now >= start) {
    return now - start;
  }
  return now - start - 1u;
}

uint8_t char2Hex(char c) {
  if (c >= 'a' && c <= 'f') {
    return static_cast<uint8_t>(c - 'a' + 10);
  }
  if (c >= 'A' && c <= 'F') {
    return static_cast<uint8_t>(c - 'A' + 10);
  }
  if (c >= '0' && c <= '9') {
    return static_cast<uint8_t>(c - '0');
  }
  return 0;
}

// Only the first character is tested for the end of the text; callers pass
// full-length fields.
uint8_t str2Byte(const unsigned char *text) {
  if (text[0] == '\0') {
    return 0;
  }
  return static_cast<uint8_t>(char2Hex(static_cast<char>(text[0])) * 16 +
                              char2Hex(static_cast<char>(text[1])));
}

uint16_t str2Word(const unsigned char *text) {
  if (text[0] == '\0') {
    return 0;
  }
  return static_cast<uint16_t>(str2Byte(text) * 256 + str2Byte(text + 2));
}

uint32_t str2DWord(const unsigned char *text) {
  if (text[0] == '\0') {
    return 0;
  }
  return (static_cast<uint32_t>(str2Word(text)) << 16) + str2Word(text + 4);
}

void initRecursivePiMutex(pthread_mutex_t *mutex) {
  pthread_mutexattr_t attr;
  pthread_mutexattr_init(&attr);
  pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  pthread_mutexattr_setprotocol(&attr, PTHREAD_PRIO_INHERIT);
  pthread_mutex_init(mutex, &attr);
  pthread_mutexattr_destroy(&attr);
}
