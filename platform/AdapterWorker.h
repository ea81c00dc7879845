// SPDX-License-Identifier: MIT
// The receive thread both adapter families run for an open adapter. Each pass
// either reads the adapter's receive endpoint into the family's queues or,
// between reads and only while no command exchange is in flight, watches the
// USB link: a lost adapter is reopened (the same adapter, see QUserLibUsb)
// every 50 ms until it answers, then every channel that was initialised is
// configured and started again. While the link is being restored nothing is
// read and the thread sleeps until the next attempt.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/QUserLibUsb.h"
#include "platform/QUserThread.h"

// What a family does on its receive thread.
class AdapterDuties {
public:
  virtual ~AdapterDuties() = default;
  // Whether no command exchange is in flight: recovery waits for that.
  virtual bool commandIdle() const = 0;
  // A device without an initialised channel is not watched.
  virtual bool anyChannelInitialised() const = 0;
  // Configures and starts every initialised channel again; false at the first
  // failure.
  virtual bool replayChannels() = 0;
  // The adapter was reopened after a loss: whatever part of a record the
  // last reads left behind belongs to a stream that is gone.
  virtual void linkReopened() = 0;
  // One read of the receive endpoint; a read may block up to
  // AdapterWorker::kReadTimeoutMs, and the thread's sleeps end early on a
  // stop request.
  virtual void readOnce(QUserLibUsb &usb, QUserThreadObj &thread) = 0;
};

// The link supervision state of one open adapter: the fault word (0 healthy,
// all ones while the link is being restored) and when it was last tried.
class LinkRecovery {
public:
  static constexpr uint32_t kFaulted = 0xFFFFFFFF;
  static constexpr uint32_t kRetryPeriodUs = 50000;
  static constexpr std::chrono::milliseconds kSettle{100};

  explicit LinkRecovery(const char *recoveredLine) : recoveredLine_(recoveredLine) {}

  // One supervision step. `settle` waits after a reopen for the adapter to
  // take commands; it returns false when the wait was cut short (the thread
  // is stopping), and the step then ends.
  template <class Settle> void supervise(QUserLibUsb &usb, AdapterDuties &duties, Settle settle);

  bool faulted() const { return fault_.load(std::memory_order_relaxed) != 0; }
  uint32_t faultWord() const { return fault_.load(std::memory_order_relaxed); }
  void clear() { fault_.store(0, std::memory_order_relaxed); }
  // Time left until the next attempt is due.
  std::chrono::microseconds untilNextAttempt() const;

private:
  template <class Settle> bool reopen(QUserLibUsb &usb, AdapterDuties &duties, Settle settle);

  const char *recoveredLine_;
  std::atomic<uint32_t> fault_{0};
  std::atomic<uint32_t> lastAttempt_{0};
};

class AdapterWorker {
public:
  // How long a receive read may block: it bounds how long closing the
  // adapter waits for the thread.
  static constexpr unsigned kReadTimeoutMs = 20;

  explicit AdapterWorker(const char *recoveredLine) : recovery_(recoveredLine) {}

  // Starts the thread over an opened adapter; both must outlive stop().
  bool start(QUserLibUsb &usb, AdapterDuties &duties);
  void stop() { thread_.stop(); }
  bool running() const { return thread_.running(); }

  LinkRecovery &recovery() { return recovery_; }
  const LinkRecovery &recovery() const { return recovery_; }
  QUserThreadObj &thread() { return thread_; }

  // One pass of the thread.
  void pass(QUserLibUsb &usb, AdapterDuties &duties);
  // One step of link supervision, as a pass runs it.
  void supervise(QUserLibUsb &usb, AdapterDuties &duties);

  // Whether the calling thread is a receive thread in its read of the
  // receive endpoint, the one wait that nothing in the foreground waits for:
  // a harness on virtual time lets that one really block.
  static bool inReceiveRead();

private:
  LinkRecovery recovery_;
  QUserThreadObj thread_;
};
