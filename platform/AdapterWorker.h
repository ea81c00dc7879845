// SPDX-License-Identifier: MIT
// The supervision thread both adapter families run for an open adapter, and
// its receive stream. The stream keeps several bulk transfers queued on the
// adapter's data endpoint (BulkInStream); the shared event thread hands their
// bytes to the family's decoder. The supervision thread sleeps without a
// time limit while the stream is healthy; a transfer that ends for good wakes
// it. A lost adapter is then reopened (the same adapter, see QUserLibUsb):
// where libusb reports hot-plug arrivals, at each arrival, else every 50 ms
// until it answers; then every channel that was initialised is configured
// and started again, and the stream is queued again.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>

#include "platform/BulkInStream.h"
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
  // The data endpoint and the size of each queued transfer on it.
  virtual uint8_t streamEndpoint() const = 0;
  virtual size_t streamTransferBytes() const = 0;
  // Bytes of the data stream, in the order the adapter sent them; called on
  // the event thread, one call at a time.
  virtual void streamData(const uint8_t *data, size_t length) = 0;
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
  // The last attempt did not find the adapter in the device list.
  bool adapterAbsent() const { return absent_.load(std::memory_order_relaxed); }
  // Reopen attempts so far.
  uint32_t attempts() const { return attempts_.load(std::memory_order_relaxed); }
  uint32_t faultWord() const { return fault_.load(std::memory_order_relaxed); }
  void clear() { fault_.store(0, std::memory_order_relaxed); }
  // Time left until the next attempt is due.
  std::chrono::microseconds untilNextAttempt() const;

private:
  template <class Settle> bool reopen(QUserLibUsb &usb, AdapterDuties &duties, Settle settle);

  const char *recoveredLine_;
  std::atomic<uint32_t> fault_{0};
  std::atomic<uint32_t> lastAttempt_{0};
  std::atomic<bool> absent_{false};
  std::atomic<uint32_t> attempts_{0};
};

class AdapterWorker {
public:
  // Transfers kept queued on the data endpoint: enough that the adapter
  // never waits for the host between two of them.
  static constexpr size_t kQueuedTransfers = 8;
  // After an arrival (or the loss), an adapter not yet found is looked for
  // this many more times at the retry period before only arrivals count
  // again: a device may be listed a moment before it can be opened.
  static constexpr unsigned kRetriesAfterArrival = 40;

  explicit AdapterWorker(const char *recoveredLine) : recovery_(recoveredLine) {}
  ~AdapterWorker() { stop(); }
  AdapterWorker(const AdapterWorker &) = delete;
  AdapterWorker &operator=(const AdapterWorker &) = delete;

  // Starts the thread and the stream over an opened adapter; both must
  // outlive stop().
  bool start(QUserLibUsb &usb, AdapterDuties &duties);
  // Ends the thread, then cancels the queued transfers and waits for them.
  void stop();
  bool running() const { return thread_.running(); }

  LinkRecovery &recovery() { return recovery_; }
  const LinkRecovery &recovery() const { return recovery_; }
  QUserThreadObj &thread() { return thread_; }

  // One pass of the thread.
  void pass(QUserLibUsb &usb, AdapterDuties &duties);
  // One step of link supervision, as a pass runs it: on the thread, or
  // while the thread is stopped (it may stop the stream).
  void supervise(QUserLibUsb &usb, AdapterDuties &duties);

private:
  bool attemptDue() const;
  void sleepUntilAttempt();
  void keepStreaming(QUserLibUsb &usb, AdapterDuties &duties);
  void streamEnded(QUserLibUsb &usb, libusb_transfer_status status);

  LinkRecovery recovery_;
  QUserThreadObj thread_;
  BulkInStream stream_;
  bool handlingEvents_ = false;
  uint64_t arrivalsAtAttempt_ = 0;
  unsigned retriesAfterArrival_ = 0;
  std::atomic<libusb_transfer_status> lastEnd_{LIBUSB_TRANSFER_COMPLETED};
};
