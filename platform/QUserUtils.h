// SPDX-License-Identifier: MIT
// Small helpers shared by every driver: a wrapping 32-bit microsecond clock,
// hexadecimal text conversion, and the mutex set-up and scoped lock.
#pragma once

#include <pthread.h>

#include <chrono>
#include <cstdint>

// Monotonic clock in microseconds, truncated to 32 bits (wraps every ~71.6 min).
uint32_t getCurMicroSec();
// Microseconds since `start`; across a wrap one less than the true distance
// (kept: host programs calibrated against it).
uint32_t getLapseMicroSec(uint32_t start);

// A pause between two tries of a transfer or an exchange.
void pauseFor(std::chrono::microseconds duration);

// Virtual time, for harnesses that drive the library against simulated
// adapters and cannot afford to wait out its time-outs. While it is on, the
// clock above also counts the time that advance() lets pass, and pauseFor
// lets its time pass that way instead of sleeping it. Host programs never
// turn it on: the clock then is the monotonic clock alone.
namespace virtualtime {
void enable(bool on);
bool enabled();
void advance(std::chrono::microseconds duration);
// How long to really sleep in place of `duration` (all of it while virtual
// time is off); the rest has been counted on the clock. A short real sleep
// remains, so a thread that sleeps between polls never takes a whole core.
std::chrono::microseconds sleepInstead(std::chrono::microseconds duration);
// The time every USB transfer takes on the virtual clock (none by default),
// so that a loop of transfers that a simulation answers at once still sees
// its budget run out.
void setTransferTime(std::chrono::microseconds duration);
void chargeTransfer();
} // namespace virtualtime

uint8_t char2Hex(char c);
uint8_t str2Byte(const unsigned char *text);
uint16_t str2Word(const unsigned char *text);
uint32_t str2DWord(const unsigned char *text);

// Every mutex in the library is recursive with priority inheritance.
void initRecursivePiMutex(pthread_mutex_t *mutex);

// Scoped lock on a pthread mutex; neither copied nor moved.
class QUserMutex {
public:
  explicit QUserMutex(pthread_mutex_t &mutex) : mutex_(mutex) { pthread_mutex_lock(&mutex_); }
  ~QUserMutex() { pthread_mutex_unlock(&mutex_); }
  QUserMutex(const QUserMutex &) = delete;
  QUserMutex &operator=(const QUserMutex &) = delete;

private:
  pthread_mutex_t &mutex_;
};
