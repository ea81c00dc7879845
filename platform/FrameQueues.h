// SPDX-License-Identifier: MIT
// The received frames of one open adapter: a classic and a CAN FD queue per
// channel, all behind one lock. Each queue has its own condition, on which its
// readers sleep until frames arrive for it, the channel is stopped or the
// adapter is closed: an arrival on one channel wakes no reader of another.
// Both adapter families keep their frames here. The queues are unbounded:
// frames wait until the host takes or clears them.
//
// A channel's receive event is an eventfd a host can poll: readable while
// either queue of the channel holds frames. It is made on first request and
// lives until the queues are closed, which makes it readable (waking a host
// blocked in poll) and then closes it.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>
#include <type_traits>
#include <vector>

#include "wcan.h"

class FrameQueues {
  template <class Obj> struct Queue;
  struct Channel;

public:
  // At most 16 channels.
  explicit FrameQueues(unsigned channels);
  ~FrameQueues();
  FrameQueues(const FrameQueues &) = delete;
  FrameQueues &operator=(const FrameQueues &) = delete;

  // The writing side for one batch of records: gathers them outside the
  // lock and moves them into the queues under it, a few dozen at a time and
  // at the latest when destroyed, so that readers are not kept waiting while
  // records are decoded. Then it wakes the readers that sleep on the queues
  // it filled, once each, after the lock is released.
  class Producer {
  public:
    explicit Producer(FrameQueues &queues) : queues_(queues) {}
    ~Producer();
    Producer(const Producer &) = delete;
    Producer &operator=(const Producer &) = delete;

    void can(unsigned queue, const _WCAN_CAN_OBJ &obj) { can_.add(queue, obj, *this); }
    void canFd(unsigned queue, const _WCAN_CANFD_OBJ &obj) { canFd_.add(queue, obj, *this); }

  private:
    static constexpr size_t kGathered = 64;
    template <class Obj> struct Gathered {
      Obj records[kGathered];
      uint8_t queues[kGathered];
      size_t count = 0;
      void add(unsigned queue, const Obj &obj, Producer &producer) {
        if (count == kGathered) {
          producer.moveIn();
        }
        records[count] = obj;
        queues[count] = static_cast<uint8_t>(producer.queues_.index(queue));
        ++count;
      }
    };
    // Moves what is gathered into the queues, under the lock.
    void moveIn();
    template <class Obj>
    void moveInLocked(Gathered<Obj> &gathered, Queue<Obj> Channel::*which, unsigned kindBit);

    FrameQueues &queues_;
    Gathered<_WCAN_CAN_OBJ> can_;
    Gathered<_WCAN_CANFD_OBJ> canFd_;
    // Queues with a reader asleep: bit 2q classic queue q, 2q+1 CAN FD.
    uint32_t sleeping_ = 0;
  };

  // Moves up to maxCount records of a queue into `out`, sleeping until at
  // least one is there or waitMs has passed: -1 waits without limit, 0 does
  // not wait. A maxCount of 0 returns 0 at once; so does a wait that the
  // channel's stop or the adapter's close ends with nothing queued. A queue
  // number past the last reads the last queue.
  int take(unsigned queue, _WCAN_CAN_OBJ *out, unsigned maxCount, int waitMs);
  int take(unsigned queue, _WCAN_CANFD_OBJ *out, unsigned maxCount, int waitMs);

  // The channel's receive event, made on first request; -1 when closed or
  // when no eventfd could be made.
  int receiveEvent(unsigned queue);

  // Kind 0 classic, 1 CAN FD, 2 both; any other kind counts 0.
  unsigned count(unsigned queue, unsigned char kind);
  void clear(unsigned queue);
  // The channel was stopped: readers waiting on its queues return.
  void interrupt(unsigned queue);

  // Closing wakes every sleeping reader and keeps new ones from sleeping;
  // opening (at the next device open) lets them sleep again.
  void close();
  void open();

private:
  // Records in arrival order in a ring of slots that grows when full: once
  // large enough, a batch goes in and out without allocating.
  template <class Obj> class Ring {
    static_assert(std::is_trivially_copyable_v<Obj>, "records are copied as bytes");

  public:
    size_t size() const { return count_; }
    bool empty() const { return count_ == 0; }
    void push(const Obj &obj) {
      if (count_ == slots_.size()) {
        grow();
      }
      slots_[(head_ + count_) & (slots_.size() - 1)] = obj;
      ++count_;
    }
    // Copies the oldest n (at most size()) records out and drops them.
    void popInto(Obj *out, size_t n);
    // Drops every record; a ring grown by a burst gives its memory back.
    void clear();

  private:
    void grow();
    std::vector<Obj> slots_; // a power of two of them, or none
    size_t head_ = 0;
    size_t count_ = 0;
  };

  template <class Obj> struct Queue {
    Queue();
    ~Queue();
    Queue(const Queue &) = delete;
    Queue &operator=(const Queue &) = delete;
    Ring<Obj> frames;
    pthread_cond_t arrived;
    unsigned sleepers = 0;
    // frames.size() as of the last change under the lock: a reader that
    // does not wait looks at it first and takes no lock for an empty queue.
    // On a cache line of its own, so that a reader polling it does not take
    // the line the decoder writes every record to away from it.
    alignas(64) std::atomic<size_t> published{0};
    void publishSize() { published.store(frames.size(), std::memory_order_release); }
  };

  struct Channel {
    Channel() = default;
    ~Channel();
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;
    Queue<_WCAN_CAN_OBJ> can;
    Queue<_WCAN_CANFD_OBJ> canFd;
    uint64_t interrupts = 0;
    int event = -1;
    bool signalled = false;
    bool empty() const { return can.frames.empty() && canFd.frames.empty(); }
    // The event follows the queues: readable once frames came, cleared
    // once both queues are drained.
    void signalEvent();
    void clearEventIfDrained();
    void closeEvent();
  };
  unsigned index(unsigned queue) const { return queue < count_ ? queue : count_ - 1; }
  template <class Obj>
  int takeFrom(Queue<Obj> Channel::*which, unsigned queue, Obj *out, unsigned maxCount, int waitMs);
  void wakeAll(Channel &channel);

  pthread_mutex_t mutex_;
  unsigned count_;
  std::unique_ptr<Channel[]> channels_;
  bool closed_ = false;
};
