// The received frames of one open adapter: a classic and a CAN FD queue per
// channel, all behind one lock, with a condition on which readers sleep until
// frames arrive or the adapter is closed. Both adapter families keep their
// frames here. The queues are unbounded: frames wait until the host takes or
// clears them.
#pragma once

#include <pthread.h>

#include <deque>
#include <vector>

#include "wcan.h"

class FrameQueues {
public:
  explicit FrameQueues(unsigned channels);
  ~FrameQueues();
  FrameQueues(const FrameQueues &) = delete;
  FrameQueues &operator=(const FrameQueues &) = delete;

  // The writing side for one batch of records: takes the lock at the first
  // record and keeps it until destroyed, then wakes the readers once.
  class Producer {
  public:
    explicit Producer(FrameQueues &queues) : queues_(queues) {}
    ~Producer();
    Producer(const Producer &) = delete;
    Producer &operator=(const Producer &) = delete;

    void can(unsigned queue, const _WCAN_CAN_OBJ &obj) {
      lock();
      queues_.at(queue).can.push_back(obj);
    }
    void canFd(unsigned queue, const _WCAN_CANFD_OBJ &obj) {
      lock();
      queues_.at(queue).canFd.push_back(obj);
    }

  private:
    void lock();
    FrameQueues &queues_;
    bool locked_ = false;
  };

  // Moves up to maxCount records of a queue into `out`, sleeping until at
  // least one is there or waitMs has passed: -1 waits without limit, 0 does
  // not wait. A maxCount of 0 returns 0 at once, and so does every call on
  // closed queues once they hold nothing more. A queue number past the last
  // reads the last queue.
  int take(unsigned queue, _WCAN_CAN_OBJ *out, unsigned maxCount, int waitMs);
  int take(unsigned queue, _WCAN_CANFD_OBJ *out, unsigned maxCount, int waitMs);

  // Kind 0 classic, 1 CAN FD, 2 both; any other kind counts 0.
  unsigned count(unsigned queue, unsigned char kind);
  void clear(unsigned queue);

  // Closing wakes every sleeping reader and keeps new ones from sleeping;
  // opening (at the next device open) lets them sleep again.
  void close();
  void open();

private:
  struct Channel {
    std::deque<_WCAN_CAN_OBJ> can;
    std::deque<_WCAN_CANFD_OBJ> canFd;
  };
  Channel &at(unsigned queue) {
    return channels_[queue < channels_.size() ? queue : channels_.size() - 1];
  }
  template <class Obj>
  int takeFrom(std::deque<Obj> Channel::*member, unsigned queue, Obj *out, unsigned maxCount,
               int waitMs);

  pthread_mutex_t mutex_;
  pthread_cond_t arrived_;
  std::vector<Channel> channels_;
  bool closed_ = false;
};
