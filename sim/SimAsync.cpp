// SPDX-License-Identifier: MIT
// libusb's asynchronous interface over the simulated adapters: transfers
// submitted, cancelled and completed by whichever thread handles events, the
// event-handling lock and its interruption, hot-plug arrival callbacks, and
// the interface claim. As in the rest of the simulated libusb, contexts carry
// nothing: one event pool serves them all.
//
// IN transfers (bulk and interrupt) wait here until their adapter has data
// for them, in the order they were submitted; the statuses are those libusb
// reports: completed, timed out, stalled, no device, cancelled, error.
#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdlib>
#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <new>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "SimEvents.h"
#include "SimTestbed.h"

using wcansim::Adapter;
using Clock = std::chrono::steady_clock;

namespace {

// The simulation's state of one transfer; the public record is last, as its
// own last member is a flexible array.
struct SimTransfer {
  bool inFlight = false;
  bool cancelRequested = false;
  std::shared_ptr<Adapter> adapter;
  uint32_t generation = 0;
  Clock::time_point deadline = Clock::time_point::max();
  libusb_transfer pub{};
};

// An adapter as a hot-plug callback tells them apart: a replug is a new one.
using PlugKey = std::tuple<const Adapter *, uint32_t>;

struct HotplugRegistration {
  libusb_context *ctx;
  int events;
  int vendorId;
  int productId;
  libusb_hotplug_callback_fn callback;
  void *userData;
  std::set<PlugKey> seen;
};

std::set<PlugKey> pluggedNow() {
  std::set<PlugKey> keys;
  for (const auto &a : wcansim::Testbed::instance().pluggedAdapters())
    keys.emplace(a.get(), a->generation());
  return keys;
}

bool matches(const HotplugRegistration &r, const Adapter &a) {
  return (r.vendorId == LIBUSB_HOTPLUG_MATCH_ANY || r.vendorId == a.vendorId()) &&
         (r.productId == LIBUSB_HOTPLUG_MATCH_ANY || r.productId == a.productId());
}

class EventPool {
public:
  static EventPool &instance() {
    // Never destroyed: a library closing its devices at exit may still call in.
    alignas(EventPool) static unsigned char storage[sizeof(EventPool)];
    static EventPool *pool = ::new (storage) EventPool();
    return *pool;
  }

  // Called for every frame an adapter takes from the bus: the lock is taken
  // only when an event handler sleeps (it sets waiting_ under the lock before
  // it looks at the sequence one last time).
  void happened(bool plugged) {
    if (plugged) {
      plugSequence_.fetch_add(1);
    }
    sequence_.fetch_add(1);
    if (waiting_.load()) {
      // Taken and released before the notify: the sleeper has either not
      // yet looked at the sequence under the lock, or sleeps and is woken,
      // and then finds the lock free instead of sleeping again on it.
      { std::lock_guard<std::mutex> lock(mutex_); }
      changed_.notify_all();
    }
  }

  libusb_transfer *allocate() {
    auto t = std::make_unique<SimTransfer>();
    libusb_transfer *pub = &t->pub;
    std::lock_guard<std::mutex> lock(mutex_);
    transfers_.emplace(pub, std::move(t));
    return pub;
  }

  void release(libusb_transfer *pub) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = transfers_.find(pub);
    if (it == transfers_.end() || it->second->inFlight)
      return;
    if ((pub->flags & LIBUSB_TRANSFER_FREE_BUFFER) != 0)
      std::free(pub->buffer);
    transfers_.erase(it);
  }

  int submit(libusb_transfer *pub) {
    uint32_t generation = 0;
    std::shared_ptr<Adapter> adapter = wcansim::handleAdapter(pub->dev_handle, &generation);
    if (!adapter || (pub->endpoint & LIBUSB_ENDPOINT_IN) == 0 ||
        (pub->type != LIBUSB_TRANSFER_TYPE_BULK && pub->type != LIBUSB_TRANSFER_TYPE_INTERRUPT))
      return adapter ? LIBUSB_ERROR_NOT_SUPPORTED : LIBUSB_ERROR_INVALID_PARAM;
    if (!adapter->isCurrent(generation))
      return LIBUSB_ERROR_NO_DEVICE;
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = transfers_.find(pub);
    if (it == transfers_.end())
      return LIBUSB_ERROR_INVALID_PARAM;
    SimTransfer &t = *it->second;
    if (t.inFlight)
      return LIBUSB_ERROR_BUSY;
    t.inFlight = true;
    t.cancelRequested = false;
    t.adapter = std::move(adapter);
    t.generation = generation;
    t.deadline = pub->timeout == 0 ? Clock::time_point::max()
                                   : Clock::now() + std::chrono::milliseconds(pub->timeout);
    pub->actual_length = 0;
    pending_.push_back(&t);
    sequence_.fetch_add(1);
    changed_.notify_all();
    return LIBUSB_SUCCESS;
  }

  int cancel(libusb_transfer *pub) {
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = transfers_.find(pub);
    if (it == transfers_.end() || !it->second->inFlight || it->second->cancelRequested)
      return LIBUSB_ERROR_NOT_FOUND;
    it->second->cancelRequested = true;
    sequence_.fetch_add(1);
    changed_.notify_all();
    return LIBUSB_SUCCESS;
  }

  void interrupt() {
    std::lock_guard<std::mutex> lock(mutex_);
    interrupted_ = true;
    changed_.notify_all();
  }

  int handleEvents(const timeval *tv, int *completed);

  int registerHotplug(HotplugRegistration registration, libusb_hotplug_callback_handle *handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    const int id = nextHotplug_++;
    hotplugs_.emplace(id, std::move(registration));
    if (handle != nullptr)
      *handle = id;
    return LIBUSB_SUCCESS;
  }

  void deregisterHotplug(libusb_hotplug_callback_handle handle) {
    std::lock_guard<std::mutex> lock(mutex_);
    hotplugs_.erase(handle);
  }

private:
  // Held while a thread handles events; another waits for it until `until`.
  struct EventLock {
    EventLock(EventPool &pool, Clock::time_point until) : pool_(pool) {
      std::unique_lock<std::mutex> lock(pool_.mutex_);
      const auto free = [this] { return !pool_.handling_; };
      if (until == Clock::time_point::max()) {
        pool_.changed_.wait(lock, free);
        held = true;
      } else {
        held = pool_.changed_.wait_until(lock, until, free);
      }
      if (held)
        pool_.handling_ = true;
    }
    ~EventLock() {
      if (!held)
        return;
      {
        std::lock_guard<std::mutex> lock(pool_.mutex_);
        pool_.handling_ = false;
      }
      pool_.changed_.notify_all();
    }
    EventLock(const EventLock &) = delete;
    EventLock &operator=(const EventLock &) = delete;
    EventPool &pool_;
    bool held = false;
  };

  struct Outcome {
    SimTransfer *transfer;
    libusb_transfer_status status;
  };

  // Whether the transfer ends now, and how; reads the adapter without the
  // pool's lock (the adapter may call back into happened()).
  static bool evaluate(SimTransfer &t, bool cancelRequested, libusb_transfer_status &status);
  // Fills done_ from snapshot_.
  void collect();
  void runCallbacks();
  bool deliverHotplug();
  Clock::time_point earliestDeadlineLocked() const;

  std::mutex mutex_;
  std::condition_variable changed_;
  std::atomic<uint64_t> sequence_{0};
  std::atomic<uint64_t> plugSequence_{0};
  std::atomic<bool> waiting_{false};
  uint64_t plugSequenceSeen_ = 0;
  bool interrupted_ = false;
  bool handling_ = false; // the event-handling lock, held by one thread at a time
  std::map<libusb_transfer *, std::unique_ptr<SimTransfer>> transfers_;
  std::deque<SimTransfer *> pending_;
  std::map<int, HotplugRegistration> hotplugs_;
  int nextHotplug_ = 1;
  // Scratch of the thread holding the event-handling lock, kept between
  // rounds so that a round allocates nothing.
  std::vector<std::pair<SimTransfer *, bool>> snapshot_;
  std::vector<std::pair<const Adapter *, uint8_t>> dry_;
  std::vector<Outcome> done_;
};

EventPool &pool() { return EventPool::instance(); }

// Time the simulated adapters spent answering asynchronous transfers: the
// devices' own work, done on the thread that handles events. Read from the
// steady clock, which costs no system call (a thread CPU clock would cost
// two per round, more than the work it measures); the work takes no lock
// that a delivering thread holds for long, so it is very nearly CPU time.
std::atomic<uint64_t> deviceServiceNs{0};
// Time the transfers' callbacks took: the host library's own code on that
// thread, timed the same way.
std::atomic<uint64_t> callbackNs{0};

void addSince(std::atomic<uint64_t> &total, Clock::time_point start) {
  const auto spent = std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start);
  total.fetch_add(static_cast<uint64_t>(spent.count()), std::memory_order_relaxed);
}

bool EventPool::evaluate(SimTransfer &t, bool cancelRequested, libusb_transfer_status &status) {
  if (cancelRequested) {
    status = LIBUSB_TRANSFER_CANCELLED;
    return true;
  }
  int moved = 0;
  const int rc = t.adapter->poll(t.generation, t.pub.endpoint, t.pub.buffer, t.pub.length, &moved);
  t.pub.actual_length = moved;
  switch (rc) {
  case 0:
    status = LIBUSB_TRANSFER_COMPLETED;
    return true;
  case LIBUSB_ERROR_TIMEOUT:
    status = LIBUSB_TRANSFER_TIMED_OUT;
    return Clock::now() >= t.deadline;
  case LIBUSB_ERROR_NO_DEVICE:
    status = LIBUSB_TRANSFER_NO_DEVICE;
    return true;
  case LIBUSB_ERROR_PIPE:
    status = LIBUSB_TRANSFER_STALL;
    return true;
  default:
    status = LIBUSB_TRANSFER_ERROR;
    return true;
  }
}

// Transfers on an endpoint that just came up empty are not asked again in
// this round: they would find nothing either.
void EventPool::collect() {
  done_.clear();
  dry_.clear();
  const Clock::time_point now = Clock::now();
  for (const auto &[transfer, cancelRequested] : snapshot_) {
    const std::pair<const Adapter *, uint8_t> endpoint{transfer->adapter.get(),
                                                       transfer->pub.endpoint};
    libusb_transfer_status status = LIBUSB_TRANSFER_COMPLETED;
    if (!cancelRequested && std::find(dry_.begin(), dry_.end(), endpoint) != dry_.end()) {
      if (now >= transfer->deadline)
        done_.push_back({transfer, LIBUSB_TRANSFER_TIMED_OUT});
      continue;
    }
    if (evaluate(*transfer, cancelRequested, status))
      done_.push_back({transfer, status});
    else
      dry_.push_back(endpoint);
  }
  if (done_.empty())
    return;
  std::lock_guard<std::mutex> lock(mutex_);
  for (const Outcome &o : done_) {
    pending_.erase(std::find(pending_.begin(), pending_.end(), o.transfer));
    o.transfer->inFlight = false;
    o.transfer->adapter.reset();
  }
}

// A callback may submit again, which needs no scratch of this round.
void EventPool::runCallbacks() {
  const Clock::time_point start = Clock::now();
  for (const Outcome &o : done_) {
    o.transfer->pub.status = o.status;
    if (o.transfer->pub.callback != nullptr)
      o.transfer->pub.callback(&o.transfer->pub);
  }
  addSince(callbackNs, start);
}

// Arrivals since each callback last looked; a callback answering 1 is
// deregistered, as in libusb.
bool EventPool::deliverHotplug() {
  std::vector<std::pair<int, HotplugRegistration>> due;
  const std::set<PlugKey> now = pluggedNow();
  {
    std::lock_guard<std::mutex> lock(mutex_);
    for (auto &[id, r] : hotplugs_) {
      std::set<PlugKey> arrived;
      std::set_difference(now.begin(), now.end(), r.seen.begin(), r.seen.end(),
                          std::inserter(arrived, arrived.end()));
      r.seen = now;
      if (!arrived.empty() && (r.events & LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED) != 0)
        due.emplace_back(id, HotplugRegistration{r.ctx, r.events, r.vendorId, r.productId,
                                                 r.callback, r.userData, std::move(arrived)});
    }
  }
  if (due.empty())
    return false;
  libusb_device **list = nullptr;
  const ssize_t count = libusb_get_device_list(nullptr, &list);
  for (auto &entry : due) {
    const auto id = entry.first;
    auto &r = entry.second;
    for (ssize_t i = 0; i < count; ++i) {
      const auto adapters = wcansim::Testbed::instance().pluggedAdapters();
      const auto it = std::find_if(adapters.begin(), adapters.end(), [&](const auto &a) {
        return a->address() == libusb_get_device_address(list[i]) &&
               r.seen.count({a.get(), a->generation()}) != 0;
      });
      if (it == adapters.end() || !matches(r, **it))
        continue;
      if (r.callback(r.ctx, list[i], LIBUSB_HOTPLUG_EVENT_DEVICE_ARRIVED, r.userData) == 1)
        deregisterHotplug(id);
    }
  }
  if (count >= 0)
    libusb_free_device_list(list, 1);
  return true;
}

Clock::time_point EventPool::earliestDeadlineLocked() const {
  Clock::time_point earliest = Clock::time_point::max();
  for (const SimTransfer *t : pending_)
    earliest = std::min(earliest, t->deadline);
  return earliest;
}

// One round of event handling: completions are delivered (callbacks run on
// this thread) or the wait ends by the time limit, an interruption or the
// caller's completed flag.
int EventPool::handleEvents(const timeval *tv, int *completed) {
  Clock::time_point until = Clock::time_point::max();
  if (tv != nullptr)
    until =
        Clock::now() + std::chrono::seconds(tv->tv_sec) + std::chrono::microseconds(tv->tv_usec);
  const EventLock events(*this, until);
  if (!events.held)
    return LIBUSB_SUCCESS;
  for (;;) {
    uint64_t sequence = 0;
    bool plugChanged = false;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      if (interrupted_ || (completed != nullptr && *completed != 0)) {
        interrupted_ = false;
        return LIBUSB_SUCCESS;
      }
      snapshot_.clear();
      for (SimTransfer *t : pending_)
        snapshot_.emplace_back(t, t->cancelRequested);
      sequence = sequence_.load();
      const uint64_t plugSequence = plugSequence_.load();
      plugChanged = plugSequence != plugSequenceSeen_;
      plugSequenceSeen_ = plugSequence;
    }
    const bool hotplugDelivered = plugChanged && deliverHotplug();
    const Clock::time_point serviceStart = Clock::now();
    collect();
    addSince(deviceServiceNs, serviceStart);
    if (!done_.empty())
      runCallbacks();
    if (!done_.empty() || hotplugDelivered)
      return LIBUSB_SUCCESS;
    std::unique_lock<std::mutex> lock(mutex_);
    const Clock::time_point wakeAt = std::min(until, earliestDeadlineLocked());
    const auto ready = [&] {
      return sequence_.load() != sequence || interrupted_ ||
             (completed != nullptr && *completed != 0);
    };
    waiting_.store(true);
    bool woken = true;
    if (wakeAt == Clock::time_point::max())
      changed_.wait(lock, ready);
    else
      woken = changed_.wait_until(lock, wakeAt, ready);
    waiting_.store(false);
    if (!woken && Clock::now() >= until)
      return LIBUSB_SUCCESS;
  }
}

int claimState(libusb_device_handle *handle) {
  uint32_t generation = 0;
  const std::shared_ptr<Adapter> adapter = wcansim::handleAdapter(handle, &generation);
  return adapter ? adapter->checkAlive(generation) : LIBUSB_ERROR_INVALID_PARAM;
}

} // namespace

void wcansim::usbEventHappened() { pool().happened(false); }
uint64_t wcansim::deviceServiceNs() { return ::deviceServiceNs.load(std::memory_order_relaxed); }
uint64_t wcansim::transferCallbackNs() { return ::callbackNs.load(std::memory_order_relaxed); }
void wcansim::usbPlugEventHappened() { pool().happened(true); }

extern "C" {

libusb_transfer *libusb_alloc_transfer(int iso_packets) {
  return iso_packets == 0 ? pool().allocate() : nullptr;
}

void libusb_free_transfer(libusb_transfer *transfer) {
  if (transfer != nullptr)
    pool().release(transfer);
}

int libusb_submit_transfer(libusb_transfer *transfer) {
  return transfer != nullptr ? pool().submit(transfer) : LIBUSB_ERROR_INVALID_PARAM;
}

int libusb_cancel_transfer(libusb_transfer *transfer) {
  return transfer != nullptr ? pool().cancel(transfer) : LIBUSB_ERROR_INVALID_PARAM;
}

int libusb_handle_events_timeout_completed(libusb_context *, struct timeval *tv, int *completed) {
  return pool().handleEvents(tv, completed);
}

int libusb_handle_events_completed(libusb_context *, int *completed) {
  return pool().handleEvents(nullptr, completed);
}

void libusb_interrupt_event_handler(libusb_context *) { pool().interrupt(); }

int libusb_has_capability(uint32_t capability) {
  return capability == LIBUSB_CAP_HAS_CAPABILITY || capability == LIBUSB_CAP_HAS_HOTPLUG ? 1 : 0;
}

int libusb_hotplug_register_callback(libusb_context *ctx, int events, int flags, int vendor_id,
                                     int product_id, int, libusb_hotplug_callback_fn cb_fn,
                                     void *user_data,
                                     libusb_hotplug_callback_handle *callback_handle) {
  if (cb_fn == nullptr || events == 0)
    return LIBUSB_ERROR_INVALID_PARAM;
  HotplugRegistration r{ctx, events, vendor_id, product_id, cb_fn, user_data, pluggedNow()};
  if ((flags & LIBUSB_HOTPLUG_ENUMERATE) != 0)
    r.seen.clear(); // the devices already there arrive at the next event round
  const int rc = pool().registerHotplug(std::move(r), callback_handle);
  pool().happened(true);
  return rc;
}

void libusb_hotplug_deregister_callback(libusb_context *,
                                        libusb_hotplug_callback_handle callback_handle) {
  pool().deregisterHotplug(callback_handle);
}

int libusb_claim_interface(libusb_device_handle *dev_handle, int) { return claimState(dev_handle); }

int libusb_release_interface(libusb_device_handle *dev_handle, int) {
  return claimState(dev_handle);
}

} // extern "C"
