#include "UsbCanFdRxQueues.h"

#include <time.h>

#include <cerrno>
#include <cstdint>

#include "platform/QUserUtils.h"

namespace usbcanfd {
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

RxQueues::RxQueues() {
  initRecursivePiMutex(&mutex_);
  pthread_condattr_t attr;
  pthread_condattr_init(&attr);
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  pthread_cond_init(&arrived_, &attr);
  pthread_condattr_destroy(&attr);
}

RxQueues::~RxQueues() {
  pthread_cond_destroy(&arrived_);
  pthread_mutex_destroy(&mutex_);
}

RxQueues::Producer::~Producer() {
  if (locked_) {
    pthread_cond_broadcast(&queues_.arrived_);
    pthread_mutex_unlock(&queues_.mutex_);
  }
}

template <class Obj>
int RxQueues::takeFrom(std::deque<Obj> &queue, Obj *out, unsigned maxCount, int waitMs) {
  const uint32_t limit = static_cast<uint32_t>(waitMs);
  const timespec deadline = deadlineAfterMs(limit == kWaitForever ? 0 : limit);
  QUserMutex guard(mutex_);
  for (;;) {
    const size_t n = std::min<size_t>(maxCount, queue.size());
    if (n > 0) {
      std::copy(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(n), out);
      queue.erase(queue.begin(), queue.begin() + static_cast<std::ptrdiff_t>(n));
      return static_cast<int>(n);
    }
    if (limit == kWaitForever) {
      pthread_cond_wait(&arrived_, &mutex_);
    } else if (limit == 0 || pthread_cond_timedwait(&arrived_, &mutex_, &deadline) == ETIMEDOUT) {
      const size_t late = std::min<size_t>(maxCount, queue.size());
      if (late == 0) {
        return 0;
      }
    }
  }
}

int RxQueues::take(unsigned channel, _WCAN_CAN_OBJ *out, unsigned maxCount, int waitMs) {
  return takeFrom(can_[std::min(channel, kChannelSlots - 1)], out, maxCount, waitMs);
}

int RxQueues::take(unsigned channel, _WCAN_CANFD_OBJ *out, unsigned maxCount, int waitMs) {
  return takeFrom(canFd_[std::min(channel, kChannelSlots - 1)], out, maxCount, waitMs);
}

unsigned RxQueues::count(unsigned channel, unsigned char kind) {
  if (kind > 2) {
    return 0;
  }
  QUserMutex guard(mutex_);
  const size_t classic = can_[channel].size();
  const size_t fd = canFd_[channel].size();
  return static_cast<unsigned>(kind == 0 ? classic : kind == 1 ? fd : classic + fd);
}

void RxQueues::clear(unsigned channel) {
  QUserMutex guard(mutex_);
  can_[channel].clear();
  canFd_[channel].clear();
}

} // namespace usbcanfd
