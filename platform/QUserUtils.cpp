// SPDX-License-Identifier: MIT
#include "platform/QUserUtils.h"

#include <time.h>

uint32_t getCurMicroSec() {
  timespec ts{};
  clock_gettime(CLOCK_MONOTONIC, &ts);
  const uint64_t us =
      static_cast<uint64_t>(ts.tv_sec) * 1000000u + static_cast<uint64_t>(ts.tv_nsec) / 1000u;
  return static_cast<uint32_t>(us);
}

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
