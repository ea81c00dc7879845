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

#include <cstdint>
#include <deque>
#include <memory>

#include "wcan.h"

class FrameQueues {
public:
  // At most 16 channels.
  explicit FrameQueues(unsigned channels);
  ~FrameQueues();
  FrameQueues(const FrameQueues &) = delete;
  FrameQueues &operator=(const FrameQueues &) = delete;

  // The writing side for one batch of records: takes the lock at the first
  // record and keeps it until destroyed, then wakes the readers of the
  // queues it filled, once each.
  class Producer {
  public:
    explicit Producer(FrameQueues &queues) : queues_(queues) {}
    ~Producer();
    Producer(const Producer &) = delete;
    Producer &operator=(const Producer &) = delete;

    void can(unsigned queue, const _WCAN_CAN_OBJ &obj) {
      lock();
      const unsigned q = queues_.index(queue);
      queues_.channels_[q].can.push_back(obj);
      filled_ |= 1u << (2 * q);
    }
    void canFd(unsigned queue, const _WCAN_CANFD_OBJ &obj) {
      lock();
      const unsigned q = queues_.index(queue);
      queues_.channels_[q].canFd.push_back(obj);
      filled_ |= 1u << (2 * q + 1);
    }

  private:
    void lock();
    FrameQueues &queues_;
    bool locked_ = false;
    uint32_t filled_ = 0; // bit 2q: classic queue q, bit 2q+1: CAN FD queue q
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
  struct Channel {
    Channel();
    ~Channel();
    Channel(const Channel &) = delete;
    Channel &operator=(const Channel &) = delete;
    std::deque<_WCAN_CAN_OBJ> can;
    std::deque<_WCAN_CANFD_OBJ> canFd;
    pthread_cond_t canArrived;
    pthread_cond_t canFdArrived;
    uint64_t interrupts = 0;
    int event = -1;
    bool signalled = false;
    bool empty() const { return can.empty() && canFd.empty(); }
    // The event follows the queues: readable once frames came, cleared
    // once both queues are drained.
    void signalEvent();
    void clearEventIfDrained();
    void closeEvent();
  };
  unsigned index(unsigned queue) const { return queue < count_ ? queue : count_ - 1; }
  template <class Obj>
  int takeFrom(std::deque<Obj> Channel::*frames, pthread_cond_t Channel::*arrived, unsigned queue,
               Obj *out, unsigned maxCount, int waitMs);
  void wakeAll(Channel &channel);

  pthread_mutex_t mutex_;
  unsigned count_;
  std::unique_ptr<Channel[]> channels_;
  bool closed_ = false;
};
