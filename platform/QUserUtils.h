// SPDX-License-Identifier: MIT
// Small helpers shared by every driver: a wrapping 32-bit microsecond clock,
// hexadecimal text conversion, and the mutex set-up and scoped lock.
#pragma once

#include <pthread.h>

#include <cstdint>

// Monotonic clock in microseconds, truncated to 32 bits (wraps every ~71.6 min).
uint32_t getCurMicroSec();
// Microseconds since `start`; across a wrap one less than the true distance
// (kept: host programs calibrated against it).
uint32_t getLapseMicroSec(uint32_t start);

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
