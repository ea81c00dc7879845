// SPDX-License-Identifier: MIT
// The receive stream of one adapter: several bulk IN transfers kept queued on
// its data endpoint, so the adapter always finds one waiting. Each completion
// hands its bytes, in the order they came, to the family's decoder and goes
// back into the queue; the shared event thread (UsbEvents) delivers them.
// A transfer that ends for good (the device is gone, the endpoint failed)
// stops the stream and reports the trouble once.
#pragma once

#include <libusb-1.0/libusb.h>

#include <condition_variable>
#include <cstdint>
#include <functional>
#include <memory>
#include <mutex>
#include <vector>

class QUserLibUsb;

class BulkInStream {
public:
  // Runs on the event thread for every completion that carried bytes.
  using Sink = std::function<void(const uint8_t *data, size_t length)>;
  // Runs on the event thread once the stream stopped by itself, with the
  // libusb status of the transfer that ended it.
  using Trouble = std::function<void(libusb_transfer_status status)>;

  BulkInStream() = default;
  ~BulkInStream() { stop(); }
  BulkInStream(const BulkInStream &) = delete;
  BulkInStream &operator=(const BulkInStream &) = delete;

  // Queues `count` transfers of `bytes` each on `ep` of the opened device;
  // false when not one could be queued. Start and stop are called from one
  // thread at a time, never from the event thread.
  bool start(QUserLibUsb &usb, uint8_t ep, size_t count, size_t bytes, Sink sink, Trouble trouble);
  // Cancels what is queued and returns once every transfer has completed.
  void stop();
  // Started and not stopped by a failed transfer.
  bool healthy() const;
  bool started() const { return !slots_.empty(); }

private:
  struct TransferFree {
    void operator()(libusb_transfer *t) const { libusb_free_transfer(t); }
  };
  struct Slot {
    BulkInStream *owner = nullptr;
    std::unique_ptr<libusb_transfer, TransferFree> transfer;
    std::vector<uint8_t> buffer;
    bool inFlight = false; // guarded by the stream's mutex
  };

  static void LIBUSB_CALL completed(libusb_transfer *transfer);
  void onCompleted(Slot &slot);
  bool resubmitLocked(Slot &slot);
  void endedLocked();

  std::vector<std::unique_ptr<Slot>> slots_;
  Sink sink_;
  Trouble trouble_;
  mutable std::mutex mutex_;
  std::condition_variable allEnded_;
  unsigned inFlight_ = 0;
  bool stopping_ = false;
  bool failed_ = false;
};
