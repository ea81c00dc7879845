// The per-channel receive queues of a CAN FD adapter: one classic and one
// CAN FD queue per channel, all behind the data queue mutex, with a
// condition variable so that readers sleep until records arrive.
#pragma once

#include <pthread.h>

#include <array>
#include <deque>

#include "UsbCanFdWire.h"

namespace usbcanfd {

class RxQueues {
public:
  RxQueues();
  ~RxQueues();
  RxQueues(const RxQueues &) = delete;
  RxQueues &operator=(const RxQueues &) = delete;

  // Producer side, used as the sink of parseStream: takes the lock at the
  // first record and keeps it until destroyed, then wakes the readers once.
  class Producer {
  public:
    explicit Producer(RxQueues &queues) : queues_(queues) {}
    ~Producer();
    Producer(const Producer &) = delete;
    Producer &operator=(const Producer &) = delete;

    void can(unsigned queue, const _WCAN_CAN_OBJ &obj) {
      lock();
      queues_.can_[queue].push_back(obj);
    }
    void canFd(unsigned queue, const _WCAN_CANFD_OBJ &obj) {
      lock();
      queues_.canFd_[queue].push_back(obj);
    }

  private:
    void lock() {
      if (!locked_) {
        pthread_mutex_lock(&queues_.mutex_);
        locked_ = true;
      }
    }
    RxQueues &queues_;
    bool locked_ = false;
  };

  // Move up to maxCount records of a queue (channel above 7 reads queue 7)
  // into out. Sleeps until at least one is there or waitMs has passed; a
  // waitMs of -1 waits without limit, 0 does not wait.
  int take(unsigned channel, _WCAN_CAN_OBJ *out, unsigned maxCount, int waitMs);
  int take(unsigned channel, _WCAN_CANFD_OBJ *out, unsigned maxCount, int waitMs);

  // Kind 0 classic, 1 CAN FD, 2 both; channel must be below 8.
  unsigned count(unsigned channel, unsigned char kind);
  void clear(unsigned channel);

private:
  template <class Obj>
  int takeFrom(std::deque<Obj> &queue, Obj *out, unsigned maxCount, int waitMs);

  pthread_mutex_t mutex_;
  pthread_cond_t arrived_;
  std::array<std::deque<_WCAN_CAN_OBJ>, kChannelSlots> can_;
  std::array<std::deque<_WCAN_CANFD_OBJ>, kChannelSlots> canFd_;
};

} // namespace usbcanfd
