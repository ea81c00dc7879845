// SPDX-License-Identifier: MIT
#include "PacedBus.h"

#include <pthread.h>

#include <algorithm>
#include <cstdlib>
#include <cstring>

#include "BusTiming.h"

namespace wcansim {

namespace {

// Finished frames are handed over in rounds at most this far apart, as a
// full-speed USB device answers once per 1 ms bus frame: at high frame rates
// the receivers then wake once per round instead of once per frame.
constexpr std::chrono::milliseconds kRound{1};

bool pacingFromEnvironment() {
  const char *v = std::getenv("WCAN_SIM_PACE");
  return v == nullptr || std::strcmp(v, "0") != 0;
}

bool onBus(const std::vector<BusPort> &bus, const BusPort &port) {
  return std::find(bus.begin(), bus.end(), port.cable()) != bus.end();
}

} // namespace

PacedBus::PacedBus(BusWiring &wiring) : wiring_(wiring), enabled_(pacingFromEnvironment()) {}

PacedBus::~PacedBus() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
  }
  work_.notify_all();
  if (thread_.joinable())
    thread_.join();
}

void PacedBus::setEnabled(bool on) {
  std::unique_lock<std::mutex> lock(mutex_);
  enabled_.store(on, std::memory_order_release);
  if (on)
    return;
  // The frames on the buses end now, and the queued ones follow at once.
  const Clock::time_point now = Clock::now();
  Schedule clamped;
  for (auto &entry : scheduled_)
    clamped.emplace(std::min(entry.first, now), std::move(entry.second));
  scheduled_.swap(clamped);
  for (auto &entry : freeAt_)
    entry.second = std::min(entry.second, now);
  work_.notify_all();
  changed_.wait(lock, [this] { return queues_.empty() && scheduled_.empty() && carrying_ == 0; });
}

uint64_t PacedBus::enqueueLocked(Transmission t) {
  if (!thread_.joinable()) {
    thread_ = std::thread([this] { run(); });
    pthread_setname_np(thread_.native_handle(), "wcansim-bus");
  }
  const uint64_t ticket = nextTicket_++;
  const Clock::time_point now = Clock::now();
  queues_[t.from].push_back({std::move(t), now, ticket});
  const size_t before = scheduled_.size();
  advance(now);
  if (scheduled_.size() != before)
    work_.notify_all();
  return ticket;
}

void PacedBus::send(Transmission t) {
  std::lock_guard<std::mutex> lock(mutex_);
  enqueueLocked(std::move(t));
}

void PacedBus::sendAndWait(Transmission t) {
  std::unique_lock<std::mutex> lock(mutex_);
  const uint64_t ticket = enqueueLocked(std::move(t));
  awaited_.insert(ticket);
  changed_.wait(lock, [&] { return awaited_.count(ticket) == 0; });
}

size_t PacedBus::queuedFrom(AdapterId adapter) const {
  size_t n = 0;
  for (auto it = queues_.lower_bound({adapter, 0, false});
       it != queues_.end() && it->first.adapter == adapter; ++it)
    if (!it->first.foreign)
      n += it->second.size();
  return n;
}

void PacedBus::drop(AdapterId adapter, uint32_t origin) {
  std::lock_guard<std::mutex> lock(mutex_);
  dropLocked(false, adapter, origin);
}

void PacedBus::dropAll() {
  std::lock_guard<std::mutex> lock(mutex_);
  dropLocked(true, 0);
  freeAt_.clear();
}

void PacedBus::dropLocked(bool all, AdapterId adapter, uint32_t origin) {
  auto gone = [&](const BusPort &p) { return all || p.adapter == adapter; };
  auto mine = [&](const Queued &q) { return origin == 0 || q.tx.origin == origin; };
  for (auto it = queues_.begin(); it != queues_.end();) {
    if (!gone(it->first)) {
      ++it;
      continue;
    }
    auto &queue = it->second;
    for (auto q = queue.begin(); q != queue.end();) {
      if (mine(*q)) {
        awaited_.erase(q->ticket);
        q = queue.erase(q);
      } else {
        ++q;
      }
    }
    it = queue.empty() ? queues_.erase(it) : std::next(it);
  }
  // Frames already through stay on the schedule: they reach their receivers.
  const Clock::time_point now = Clock::now();
  for (auto it = scheduled_.begin(); it != scheduled_.end();) {
    if (!gone(it->second.tx.from) || !mine(it->second) || (!all && it->first <= now)) {
      ++it;
      continue;
    }
    awaited_.erase(it->second.ticket);
    it = scheduled_.erase(it);
  }
  changed_.notify_all();
}

// Puts every queued frame whose turn on its bus has come by `now` on the
// schedule, and notes when the next one's turn comes.
void PacedBus::advance(Clock::time_point now) {
  bool roomMade = false;
  for (bool progress = true; progress;) {
    progress = false;
    nextStart_ = Clock::time_point::max();
    std::vector<BusPort> seen;
    std::vector<std::vector<BusPort>> buses;
    for (const auto &entry : queues_) {
      const BusPort cable = entry.first.cable();
      if (std::find(seen.begin(), seen.end(), cable) != seen.end())
        continue;
      buses.push_back(wiring_.busOf(cable));
      seen.insert(seen.end(), buses.back().begin(), buses.back().end());
    }
    for (const auto &bus : buses) {
      const std::optional<BusPort> from = startNext(bus, now);
      progress = progress || from.has_value();
      roomMade = roomMade ||
                 (from && !from->foreign && queuedFrom(from->adapter) + 1 == kTransmitQueueFrames);
    }
  }
  if (roomMade)
    changed_.notify_all();
}

// The earliest moment the adapter's transmit queue can have room: each bus
// takes the adapter's frames one after another from when it comes free, and
// other senders can only hold them back further.
PacedBus::Clock::time_point PacedBus::earliestRoom(AdapterId adapter) const {
  const size_t queued = queuedFrom(adapter);
  if (queued < kTransmitQueueFrames)
    return Clock::time_point::min();
  std::vector<Clock::time_point> starts;
  for (auto it = queues_.lower_bound({adapter, 0, false});
       it != queues_.end() && it->first.adapter == adapter; ++it) {
    if (it->first.foreign)
      continue;
    const auto free = freeAt_.find(it->first);
    Clock::time_point t = free != freeAt_.end() ? free->second : Clock::time_point::min();
    for (const Queued &q : it->second) {
      t = std::max(t, q.queuedAt);
      starts.push_back(t);
      t += q.tx.duration;
    }
  }
  const auto nth = starts.begin() + static_cast<std::ptrdiff_t>(queued - kTransmitQueueFrames);
  std::nth_element(starts.begin(), nth, starts.end());
  return *nth;
}

// Puts the next frame on `bus` if the bus is free by `now` and a frame
// waits; returns where it came from.
std::optional<BusPort> PacedBus::startNext(const std::vector<BusPort> &bus, Clock::time_point now) {
  std::vector<QueueIt> waiting;
  for (auto it = queues_.begin(); it != queues_.end(); ++it)
    if (onBus(bus, it->first))
      waiting.push_back(it);
  if (waiting.empty())
    return std::nullopt;
  Clock::time_point start = Clock::time_point::max();
  for (QueueIt q : waiting)
    start = std::min(start, q->second.front().queuedAt);
  for (const BusPort &p : bus)
    if (auto it = freeAt_.find(p); it != freeAt_.end())
      start = std::max(start, it->second);
  if (start > now) {
    nextStart_ = std::min(nextStart_, start);
    return std::nullopt;
  }
  const QueueIt queue = arbitrate(waiting, start);
  Queued q = std::move(queue->second.front());
  queue->second.pop_front();
  if (queue->second.empty())
    queues_.erase(queue);
  const Clock::time_point end = start + (enabled() ? q.tx.duration : std::chrono::nanoseconds(0));
  for (const BusPort &p : bus)
    freeAt_[p] = end;
  const BusPort from = q.tx.from;
  scheduled_.emplace(end, std::move(q));
  return from;
}

// Arbitration as the bus runs it: the frames waiting when the bus comes free
// contend, the lowest arbitration field wins, and of equal ones the frame
// queued first.
PacedBus::QueueIt PacedBus::arbitrate(const std::vector<QueueIt> &waiting,
                                      Clock::time_point start) const {
  auto rank = [](QueueIt q) {
    const Queued &head = q->second.front();
    return std::make_pair(arbitrationKey(head.tx.frame), head.queuedAt);
  };
  QueueIt winner = waiting.front();
  for (QueueIt q : waiting)
    if (q->second.front().queuedAt <= start &&
        (winner->second.front().queuedAt > start || rank(q) < rank(winner)))
      winner = q;
  return winner;
}

void PacedBus::run() {
  std::unique_lock<std::mutex> lock(mutex_);
  Clock::time_point nextRound{};
  while (!stopping_) {
    const Clock::time_point now = Clock::now();
    advance(now);
    const bool due = !scheduled_.empty() && scheduled_.begin()->first <= now;
    if (due && (now >= nextRound || !enabled() || scheduled_.begin()->first <= catchUpTo_)) {
      deliverFinished(lock, now);
      nextRound = now + kRound;
    } else if (scheduled_.empty()) {
      work_.wait(lock);
    } else {
      // A copy: the schedule's own entry may be gone by the time the wait ends.
      const Clock::time_point wake = std::max(scheduled_.begin()->first, nextRound);
      work_.wait_until(lock, wake);
    }
  }
}

void PacedBus::catchUp() {
  std::unique_lock<std::mutex> lock(mutex_);
  const Clock::time_point now = Clock::now();
  catchUpTo_ = std::max(catchUpTo_, now);
  work_.notify_all();
  changed_.wait(lock, [&] {
    return (scheduled_.empty() || scheduled_.begin()->first > now) && carrying_ == 0;
  });
}

// Hands every frame whose last bit is through by `now` to its receivers, in
// the order the frames ended. Receivers take their locks and may queue
// answers, so this runs unlocked.
void PacedBus::deliverFinished(std::unique_lock<std::mutex> &lock, Clock::time_point now) {
  std::vector<std::pair<Clock::time_point, Queued>> done;
  const auto last = scheduled_.upper_bound(now);
  for (auto it = scheduled_.begin(); it != last; ++it)
    done.emplace_back(it->first, std::move(it->second));
  scheduled_.erase(scheduled_.begin(), last);
  if (done.empty())
    return;
  carrying_ = done.size();
  lock.unlock();
  for (const auto &[end, q] : done)
    wiring_.carry(q.tx, end);
  wiring_.roundDone();
  lock.lock();
  carrying_ = 0;
  for (const auto &entry : done)
    awaited_.erase(entry.second.ticket);
  changed_.notify_all();
}

} // namespace wcansim
