// SPDX-License-Identifier: MIT
// Carries frames over the virtual CAN buses in real time. Each sending
// channel has a queue; a bus (the channels cabled together) carries one
// frame at a time, chosen by arbitration among the queued ones, for as long
// as its bits take, and hands it to the receivers once its last bit is
// through.
//
// The schedule is kept on a virtual clock: a frame starts when the bus came
// free or when it was queued, whichever is later, whenever anyone looks (the
// delivery thread, or a writer waiting for room in its transmit queue). So a
// thread held up by a loaded machine delays deliveries but never the bus:
// the rate and the receivers' time stamps stay exact. One thread hands
// finished frames to their receivers, and sleeps without limit while nothing
// is on the way.
#pragma once

#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <thread>
#include <tuple>
#include <vector>

#include "SimAdapter.h"

namespace wcansim {

// One channel of one adapter; `foreign` is a node outside the adapters that
// sits on the same bus as that channel.
struct BusPort {
  AdapterId adapter = 0;
  unsigned channel = 0;
  bool foreign = false;

  BusPort cable() const { return {adapter, channel, false}; }
  bool operator<(const BusPort &o) const {
    return std::tie(adapter, channel, foreign) < std::tie(o.adapter, o.channel, o.foreign);
  }
  bool operator==(const BusPort &o) const {
    return adapter == o.adapter && channel == o.channel && foreign == o.foreign;
  }
};

// A frame on its way: from an adapter's channel (`sender` set) or from a
// foreign node (`sender` null), which its own channel hears too.
struct Transmission {
  BusPort from;
  std::shared_ptr<Adapter> sender;
  CanFrame frame;
  std::chrono::nanoseconds duration{};
  uint32_t origin = 0; // who queued it, where the buses serve several processes
};

// What the buses are made of: the test bed's cabling and adapters.
class BusWiring {
public:
  virtual ~BusWiring() = default;
  // Every channel on the bus of `port` (`port` included, no foreign ports).
  virtual std::vector<BusPort> busOf(BusPort port) const = 0;
  // A frame's last bit went out at `end`: give it to its receivers.
  virtual void carry(const Transmission &t, std::chrono::steady_clock::time_point end) = 0;
  // A round of carried frames is complete: receivers that batch may flush.
  virtual void roundDone() {}
};

class PacedBus {
public:
  using Clock = std::chrono::steady_clock;
  // Frames an adapter's transmit queue holds before writes of frames wait;
  // one write is taken whole while the queue has room, so it may overshoot
  // by one transfer's frames.
  static constexpr size_t kTransmitQueueFrames = 256;

  // Pacing starts on unless WCAN_SIM_PACE=0 is in the environment.
  explicit PacedBus(BusWiring &wiring);
  ~PacedBus();
  PacedBus(const PacedBus &) = delete;
  PacedBus &operator=(const PacedBus &) = delete;

  bool enabled() const { return enabled_.load(std::memory_order_acquire); }
  // Switching pacing off carries every queued frame at once and returns when
  // all of them reached their receivers.
  void setEnabled(bool on);

  // Queue a frame.
  void send(Transmission t);
  // Queue a frame and return once it was carried (or dropped).
  void sendAndWait(Transmission t);

  enum class Room { Free, TimedOut, Gone };
  // Wait until the adapter's transmit queue has room, as the adapter makes a
  // host's OUT transfer wait. `alive` turning false (checked whenever the
  // schedule moves, and by drop) ends the wait with Gone. A time-out of 0
  // waits without limit.
  template <class Alive> Room awaitRoom(AdapterId adapter, unsigned timeoutMs, Alive alive);

  // Returns once every frame whose last bit went out by now reached its
  // receivers, however far the delivery thread lags. Not for that thread.
  void catchUp();
  // The adapter's queued frames and the one it is sending vanish (unplug,
  // USB reset); the frames it finished sending still arrive.
  // With an origin, only the frames that origin queued vanish.
  void drop(AdapterId adapter, uint32_t origin = 0);
  void dropAll();

private:
  struct Queued {
    Transmission tx;
    Clock::time_point queuedAt;
    uint64_t ticket;
  };
  using QueueIt = std::map<BusPort, std::deque<Queued>>::iterator;
  using Schedule = std::multimap<Clock::time_point, Queued>; // by the time the frame ends

  uint64_t enqueueLocked(Transmission t);
  void advance(Clock::time_point now);
  std::optional<BusPort> startNext(const std::vector<BusPort> &bus, Clock::time_point now);
  Clock::time_point earliestRoom(AdapterId adapter) const;
  QueueIt arbitrate(const std::vector<QueueIt> &waiting, Clock::time_point start) const;
  void run();
  void deliverFinished(std::unique_lock<std::mutex> &lock, Clock::time_point now);
  size_t queuedFrom(AdapterId adapter) const;
  void dropLocked(bool all, AdapterId adapter, uint32_t origin = 0);

  BusWiring &wiring_;
  std::atomic<bool> enabled_;
  mutable std::mutex mutex_;
  std::condition_variable work_;    // the thread: a frame was scheduled
  std::condition_variable changed_; // waiters: the schedule moved or frames were carried
  std::map<BusPort, std::deque<Queued>> queues_;           // not on the bus yet
  Schedule scheduled_;                                     // on the bus or through, not carried yet
  std::map<BusPort, Clock::time_point> freeAt_;            // when the last frame heard there ends
  Clock::time_point nextStart_ = Clock::time_point::max(); // of the next queued frame
  Clock::time_point catchUpTo_{}; // deliver what ended by then without waiting for a round
  std::set<uint64_t> awaited_;    // tickets of sendAndWait callers
  size_t carrying_ = 0;           // frames being handed to receivers
  uint64_t nextTicket_ = 1;
  bool stopping_ = false;
  std::thread thread_; // started by the first frame
};

template <class Alive>
PacedBus::Room PacedBus::awaitRoom(AdapterId adapter, unsigned timeoutMs, Alive alive) {
  std::unique_lock<std::mutex> lock(mutex_);
  const Clock::time_point deadline = timeoutMs == 0
                                         ? Clock::time_point::max()
                                         : Clock::now() + std::chrono::milliseconds(timeoutMs);
  for (;;) {
    const Clock::time_point now = Clock::now();
    advance(now);
    if (!alive())
      return Room::Gone;
    if (queuedFrom(adapter) < kTransmitQueueFrames)
      return Room::Free;
    if (now >= deadline)
      return Room::TimedOut;
    // No room before the bus takes enough of the adapter's frames, nor
    // before it takes the next frame at all.
    const Clock::time_point until = std::min(deadline, std::max(nextStart_, earliestRoom(adapter)));
    if (until == Clock::time_point::max())
      changed_.wait(lock);
    else
      changed_.wait_until(lock, until);
  }
}

} // namespace wcansim
