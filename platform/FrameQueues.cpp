// SPDX-License-Identifier: MIT
#include "platform/FrameQueues.h"

#include <time.h>

#include <algorithm>
#include <cerrno>

#include "platform/QUserUtils.h"

namespace {

constexpr uint32_t kWaitForever = 0xFFFFFFFF;
constexpr unsigned kMaxChannels = 16;

timespec deadlineAfter(std::chrono::microseconds wait) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const auto us = static_cast<uint64_t>(wait.count());
  const uint64_t ns = static_cast<uint64_t>(now.tv_nsec) + us % 1000000 * 1000;
  timespec at{};
  at.tv_sec = now.tv_sec + static_cast<time_t>(us / 1000000 + ns / 1000000000);
  at.tv_nsec = static_cast<long>(ns % 1000000000);
  return at;
}

void initMonotonicCond(pthread_cond_t *cond) {
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(cond, &attr);
  pthread_condattr_destroy(&attr);
}

} // namespace

FrameQueues::Channel::Channel() {
  initMonotonicCond(&canArrived);
  initMonotonicCond(&canFdArrived);
}

FrameQueues::Channel::~Channel() {
  pthread_cond_destroy(&canFdArrived);
  pthread_cond_destroy(&canArrived);
}

FrameQueues::FrameQueues(unsigned channels)
    : count_(std::clamp(channels, 1u, kMaxChannels)),
      channels_(std::make_unique<Channel[]>(count_)) {
  initRecursivePiMutex(&mutex_);
}

FrameQueues::~FrameQueues() { pthread_mutex_destroy(&mutex_); }

void FrameQueues::Producer::lock() {
  if (!locked_) {
    pthread_mutex_lock(&queues_.mutex_);
    locked_ = true;
  }
}

FrameQueues::Producer::~Producer() {
  if (!locked_) {
    return;
  }
  for (unsigned q = 0; q < queues_.count_; ++q) {
    Channel &channel = queues_.channels_[q];
    if (filled_ & 1u << (2 * q)) {
      pthread_cond_broadcast(&channel.canArrived);
    }
    if (filled_ & 1u << (2 * q + 1)) {
      pthread_cond_broadcast(&channel.canFdArrived);
    }
  }
  pthread_mutex_unlock(&queues_.mutex_);
}

template <class Obj>
int FrameQueues::takeFrom(std::deque<Obj> Channel::*frames, pthread_cond_t Channel::*arrived,
                          unsigned queue, Obj *out, unsigned maxCount, int waitMs) {
  if (maxCount == 0) {
    return 0;
  }
  const uint32_t limit = static_cast<uint32_t>(waitMs);
  const timespec deadline =
      deadlineAfter(limit == kWaitForever || limit == 0
                        ? std::chrono::microseconds(0)
                        : virtualtime::sleepInstead(std::chrono::milliseconds(limit)));
  QUserMutex guard(mutex_);
  Channel &channel = channels_[index(queue)];
  std::deque<Obj> &waiting = channel.*frames;
  const uint64_t interruptsAtStart = channel.interrupts;
  for (;;) {
    const size_t n = std::min<size_t>(maxCount, waiting.size());
    if (n > 0) {
      std::copy(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(n), out);
      waiting.erase(waiting.begin(), waiting.begin() + static_cast<std::ptrdiff_t>(n));
      return static_cast<int>(n);
    }
    if (closed_ || limit == 0 || channel.interrupts != interruptsAtStart) {
      return 0;
    }
    if (limit == kWaitForever) {
      pthread_cond_wait(&(channel.*arrived), &mutex_);
    } else if (pthread_cond_timedwait(&(channel.*arrived), &mutex_, &deadline) == ETIMEDOUT &&
               waiting.empty()) {
      return 0;
    }
  }
}

int FrameQueues::take(unsigned queue, _WCAN_CAN_OBJ *out, unsigned maxCount, int waitMs) {
  return takeFrom(&Channel::can, &Channel::canArrived, queue, out, maxCount, waitMs);
}

int FrameQueues::take(unsigned queue, _WCAN_CANFD_OBJ *out, unsigned maxCount, int waitMs) {
  return takeFrom(&Channel::canFd, &Channel::canFdArrived, queue, out, maxCount, waitMs);
}

unsigned FrameQueues::count(unsigned queue, unsigned char kind) {
  if (kind > 2) {
    return 0;
  }
  QUserMutex guard(mutex_);
  const Channel &channel = channels_[index(queue)];
  const size_t classic = channel.can.size();
  const size_t fd = channel.canFd.size();
  return static_cast<unsigned>(kind == 0 ? classic : kind == 1 ? fd : classic + fd);
}

void FrameQueues::clear(unsigned queue) {
  QUserMutex guard(mutex_);
  Channel &channel = channels_[index(queue)];
  channel.can.clear();
  channel.canFd.clear();
}

void FrameQueues::wakeAll(Channel &channel) {
  pthread_cond_broadcast(&channel.canArrived);
  pthread_cond_broadcast(&channel.canFdArrived);
}

void FrameQueues::interrupt(unsigned queue) {
  QUserMutex guard(mutex_);
  Channel &channel = channels_[index(queue)];
  ++channel.interrupts;
  wakeAll(channel);
}

void FrameQueues::close() {
  QUserMutex guard(mutex_);
  closed_ = true;
  for (unsigned q = 0; q < count_; ++q) {
    wakeAll(channels_[q]);
  }
}

void FrameQueues::open() {
  QUserMutex guard(mutex_);
  closed_ = false;
}
