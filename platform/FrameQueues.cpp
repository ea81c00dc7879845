// SPDX-License-Identifier: MIT
#include "platform/FrameQueues.h"

#include <sys/eventfd.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>

#include "platform/QUserUtils.h"

namespace {

constexpr uint32_t kWaitForever = 0xFFFFFFFF;
constexpr unsigned kMaxChannels = 16;
// Slots a queue starts with, and at most keeps once drained: a burst's
// memory goes back, a steady stream's stays.
constexpr size_t kFirstSlots = 64;
constexpr size_t kSlotsKept = 65536;

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

template <class Obj> void FrameQueues::Ring<Obj>::popInto(Obj *out, size_t n) {
  n = std::min(n, count_);
  if (n == 0) {
    return;
  }
  const size_t first = std::min(n, slots_.size() - head_);
  std::memcpy(out, slots_.data() + head_, first * sizeof(Obj));
  std::memcpy(out + first, slots_.data(), (n - first) * sizeof(Obj));
  head_ = (head_ + n) & (slots_.size() - 1);
  count_ -= n;
  if (count_ == 0) {
    clear();
  }
}

template <class Obj> void FrameQueues::Ring<Obj>::clear() {
  head_ = 0;
  count_ = 0;
  if (slots_.size() > kSlotsKept) {
    std::vector<Obj>().swap(slots_);
  }
}

template <class Obj> void FrameQueues::Ring<Obj>::grow() {
  std::vector<Obj> bigger(std::max(kFirstSlots, 2 * slots_.size()));
  const size_t n = count_;
  popInto(bigger.data(), n);
  slots_.swap(bigger);
  count_ = n;
}

template <class Obj> FrameQueues::Queue<Obj>::Queue() { initMonotonicCond(&arrived); }

template <class Obj> FrameQueues::Queue<Obj>::~Queue() { pthread_cond_destroy(&arrived); }

FrameQueues::Channel::~Channel() { closeEvent(); }

void FrameQueues::Channel::signalEvent() {
  if (event >= 0 && !signalled) {
    const uint64_t one = 1;
    signalled = write(event, &one, sizeof one) == sizeof one;
  }
}

void FrameQueues::Channel::clearEventIfDrained() {
  if (event >= 0 && signalled && empty()) {
    uint64_t count = 0;
    signalled = read(event, &count, sizeof count) != sizeof count;
  }
}

// Readable first, so a host blocked in poll on it wakes and finds the
// adapter gone; then closed.
void FrameQueues::Channel::closeEvent() {
  if (event < 0) {
    return;
  }
  signalled = false;
  signalEvent();
  ::close(event);
  event = -1;
  signalled = false;
}

FrameQueues::FrameQueues(unsigned channels)
    : count_(std::clamp(channels, 1u, kMaxChannels)),
      channels_(std::make_unique<Channel[]>(count_)) {
  initRecursivePiMutex(&mutex_);
}

FrameQueues::~FrameQueues() { pthread_mutex_destroy(&mutex_); }

FrameQueues::Producer::~Producer() {
  moveIn();
  // Woken after the unlock, so a reader does not wake only to wait for the
  // lock; queues nobody sleeps on are not signalled at all.
  for (unsigned q = 0; q < queues_.count_; ++q) {
    Channel &channel = queues_.channels_[q];
    if (sleeping_ & 1u << (2 * q)) {
      pthread_cond_broadcast(&channel.can.arrived);
    }
    if (sleeping_ & 1u << (2 * q + 1)) {
      pthread_cond_broadcast(&channel.canFd.arrived);
    }
  }
}

void FrameQueues::Producer::moveIn() {
  if (can_.count == 0 && canFd_.count == 0) {
    return;
  }
  QUserMutex guard(queues_.mutex_);
  moveInLocked(can_, &Channel::can, 0);
  moveInLocked(canFd_, &Channel::canFd, 1);
}

template <class Obj>
void FrameQueues::Producer::moveInLocked(Gathered<Obj> &gathered, Queue<Obj> Channel::*which,
                                         unsigned kindBit) {
  uint32_t filled = 0;
  for (size_t i = 0; i < gathered.count; ++i) {
    (queues_.channels_[gathered.queues[i]].*which).frames.push(gathered.records[i]);
    filled |= 1u << (2 * gathered.queues[i] + kindBit);
  }
  gathered.count = 0;
  for (unsigned q = 0; q < queues_.count_; ++q) {
    if ((filled & 1u << (2 * q + kindBit)) == 0) {
      continue;
    }
    Channel &channel = queues_.channels_[q];
    Queue<Obj> &queue = channel.*which;
    queue.publishSize();
    sleeping_ |= queue.sleepers > 0 ? 1u << (2 * q + kindBit) : 0;
    channel.signalEvent();
  }
}

template <class Obj>
int FrameQueues::takeFrom(Queue<Obj> Channel::*which, unsigned queue, Obj *out, unsigned maxCount,
                          int waitMs) {
  if (maxCount == 0) {
    return 0;
  }
  const uint32_t limit = static_cast<uint32_t>(waitMs);
  Channel &channel = channels_[index(queue)];
  Queue<Obj> &waiting = channel.*which;
  // A look that may not wait needs no lock while nothing is queued.
  if (limit == 0 && waiting.published.load(std::memory_order_acquire) == 0) {
    return 0;
  }
  const bool timed = limit != kWaitForever && limit != 0;
  const timespec deadline =
      timed ? deadlineAfter(virtualtime::sleepInstead(std::chrono::milliseconds(limit)))
            : timespec{};
  QUserMutex guard(mutex_);
  const uint64_t interruptsAtStart = channel.interrupts;
  for (;;) {
    const size_t n = std::min<size_t>(maxCount, waiting.frames.size());
    if (n > 0) {
      waiting.frames.popInto(out, n);
      waiting.publishSize();
      channel.clearEventIfDrained();
      return static_cast<int>(n);
    }
    if (closed_ || limit == 0 || channel.interrupts != interruptsAtStart) {
      return 0;
    }
    ++waiting.sleepers;
    const int rc = timed ? pthread_cond_timedwait(&waiting.arrived, &mutex_, &deadline)
                         : pthread_cond_wait(&waiting.arrived, &mutex_);
    --waiting.sleepers;
    if (rc == ETIMEDOUT && waiting.frames.empty()) {
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
  const Channel &channel = channels_[index(queue)];
  const size_t classic = channel.can.frames.size();
  const size_t fd = channel.canFd.frames.size();
  return static_cast<unsigned>(kind == 0 ? classic : kind == 1 ? fd : classic + fd);
}

void FrameQueues::clear(unsigned queue) {
  QUserMutex guard(mutex_);
  Channel &channel = channels_[index(queue)];
  channel.can.frames.clear();
  channel.can.publishSize();
  channel.canFd.frames.clear();
  channel.canFd.publishSize();
  channel.clearEventIfDrained();
}

int FrameQueues::receiveEvent(unsigned queue) {
  QUserMutex guard(mutex_);
  if (closed_) {
    return -1;
  }
  Channel &channel = channels_[index(queue)];
  if (channel.event < 0) {
    channel.event = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (!channel.empty()) {
      channel.signalEvent();
    }
  }
  return channel.event;
}

void FrameQueues::wakeAll(Channel &channel) {
  pthread_cond_broadcast(&channel.can.arrived);
  pthread_cond_broadcast(&channel.canFd.arrived);
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
    channels_[q].closeEvent();
  }
}

void FrameQueues::open() {
  QUserMutex guard(mutex_);
  closed_ = false;
}

// The producers in the drivers push inline and grow here.
template class FrameQueues::Ring<_WCAN_CAN_OBJ>;
template class FrameQueues::Ring<_WCAN_CANFD_OBJ>;
