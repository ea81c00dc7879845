#include "platform/FrameQueues.h"

#include <time.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>

#include "platform/QUserUtils.h"

namespace {

constexpr uint32_t kWaitForever = 0xFFFFFFFF;

timespec deadlineAfterMs(uint32_t waitMs) {
  timespec now{};
  clock_gettime(CLOCK_MONOTONIC, &now);
  const uint64_t ns = static_cast<uint64_t>(now.tv_nsec) + uint64_t{waitMs % 1000} * 1000000;
  timespec at{};
  at.tv_sec = now.tv_sec + static_cast<time_t>(waitMs / 1000 + ns / 1000000000);
  at.tv_nsec = static_cast<long>(ns % 1000000000);
  return at;
}

} // namespace

FrameQueues::FrameQueues(unsigned channels) : channels_(std::max(channels, 1u)) {
  initRecursivePiMutex(&mutex_);
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&arrived_, &attr);
  pthread_condattr_destroy(&attr);
}

FrameQueues::~FrameQueues() {
  pthread_cond_destroy(&arrived_);
  pthread_mutex_destroy(&mutex_);
}

void FrameQueues::Producer::lock() {
  if (!locked_) {
    pthread_mutex_lock(&queues_.mutex_);
    locked_ = true;
  }
}

FrameQueues::Producer::~Producer() {
  if (locked_) {
    pthread_cond_broadcast(&queues_.arrived_);
    pthread_mutex_unlock(&queues_.mutex_);
  }
}

template <class Obj>
int FrameQueues::takeFrom(std::deque<Obj> Channel::*member, unsigned queue, Obj *out,
                          unsigned maxCount, int waitMs) {
  if (maxCount == 0) {
    return 0;
  }
  const uint32_t limit = static_cast<uint32_t>(waitMs);
  const timespec deadline = deadlineAfterMs(limit == kWaitForever ? 0 : limit);
  QUserMutex guard(mutex_);
  std::deque<Obj> &frames = at(queue).*member;
  for (;;) {
    const size_t n = std::min<size_t>(maxCount, frames.size());
    if (n > 0) {
      std::copy(frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(n), out);
      frames.erase(frames.begin(), frames.begin() + static_cast<std::ptrdiff_t>(n));
      return static_cast<int>(n);
    }
    if (closed_ || limit == 0) {
      return 0;
    }
    if (limit == kWaitForever) {
      pthread_cond_wait(&arrived_, &mutex_);
    } else if (pthread_cond_timedwait(&arrived_, &mutex_, &deadline) == ETIMEDOUT &&
               frames.empty()) {
      return 0;
    }
  }
}

int FrameQueues::take(unsigned queue, _WCAN_CAN_OBJ *out, unsigned maxCount, int waitMs) {
  return takeFrom(&Channel::can, queue, out, maxCount, waitMs);
}

int FrameQueues::take(unsigned queue, _WCAN_CANFD_OBJ *out, unsigned maxCount, int waitMs) {
  return takeFrom(&Channel::canFd, queue, out, maxCount, waitMs);
}

unsigned FrameQueues::count(unsigned queue, unsigned char kind) {
  if (kind > 2) {
    return 0;
  }
  QUserMutex guard(mutex_);
  const Channel &channel = at(queue);
  const size_t classic = channel.can.size();
  const size_t fd = channel.canFd.size();
  return static_cast<unsigned>(kind == 0 ? classic : kind == 1 ? fd : classic + fd);
}

void FrameQueues::clear(unsigned queue) {
  QUserMutex guard(mutex_);
  Channel &channel = at(queue);
  channel.can.clear();
  channel.canFd.clear();
}

void FrameQueues::close() {
  QUserMutex guard(mutex_);
  closed_ = true;
  pthread_cond_broadcast(&arrived_);
}

void FrameQueues::open() {
  QUserMutex guard(mutex_);
  closed_ = false;
}
