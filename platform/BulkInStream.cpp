// SPDX-License-Identifier: MIT
#include "platform/BulkInStream.h"

#include <chrono>

#include "platform/QUserLibUsb.h"
#include "platform/QUserLog.h"

namespace {

// Completions come from the event thread within microseconds of a cancel;
// past this the event thread is gone and the transfers can no longer be
// freed safely.
constexpr std::chrono::seconds kCancelGrace{2};

libusb_transfer_status statusOfSubmitError(int rc) {
  return rc == LIBUSB_ERROR_NO_DEVICE ? LIBUSB_TRANSFER_NO_DEVICE : LIBUSB_TRANSFER_ERROR;
}

} // namespace

bool BulkInStream::start(QUserLibUsb &usb, uint8_t ep, size_t count, size_t bytes, Sink sink,
                         Trouble trouble) {
  stop();
  sink_ = std::move(sink);
  trouble_ = std::move(trouble);
  for (size_t i = 0; i < count; ++i) {
    auto slot = std::make_unique<Slot>();
    slot->owner = this;
    slot->transfer.reset(libusb_alloc_transfer(0));
    if (!slot->transfer) {
      break;
    }
    slot->buffer.resize(bytes);
    libusb_fill_bulk_transfer(slot->transfer.get(), nullptr, ep, slot->buffer.data(),
                              static_cast<int>(bytes), &BulkInStream::completed, slot.get(), 0);
    slots_.push_back(std::move(slot));
  }
  std::unique_lock<std::mutex> lock(mutex_);
  stopping_ = false;
  failed_ = false;
  for (auto &slot : slots_) {
    if (usb.submitTransfer(slot->transfer.get()) == 0) {
      slot->inFlight = true;
      ++inFlight_;
    }
  }
  if (inFlight_ > 0) {
    return true;
  }
  lock.unlock();
  slots_.clear();
  return false;
}

void BulkInStream::stop() {
  std::unique_lock<std::mutex> lock(mutex_);
  if (slots_.empty()) {
    return;
  }
  stopping_ = true;
  std::vector<libusb_transfer *> queued;
  for (auto &slot : slots_) {
    if (slot->inFlight) {
      queued.push_back(slot->transfer.get());
    }
  }
  // A transfer completing meanwhile is not resubmitted: stopping_ is set.
  lock.unlock();
  for (libusb_transfer *t : queued) {
    libusb_cancel_transfer(t);
  }
  lock.lock();
  if (!allEnded_.wait_for(lock, kCancelGrace, [this] { return inFlight_ == 0; })) {
    QUserLog::GetInstance().Error("USB receive transfers did not end after a cancel");
    for (auto &slot : slots_) {
      // Still libusb's: leaked rather than freed under it.
      static_cast<void>(slot->transfer.release());
      static_cast<void>(slot.release());
    }
    inFlight_ = 0;
  }
  slots_.clear();
  stopping_ = false;
}

bool BulkInStream::healthy() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return !slots_.empty() && !failed_;
}

void LIBUSB_CALL BulkInStream::completed(libusb_transfer *transfer) {
  Slot &slot = *static_cast<Slot *>(transfer->user_data);
  slot.owner->onCompleted(slot);
}

// The bytes go to the decoder outside the lock; the slot still counts as in
// flight until then, so a stop waits for the decoder to finish with them.
void BulkInStream::onCompleted(Slot &slot) {
  libusb_transfer &t = *slot.transfer;
  if (t.actual_length > 0) {
    sink_(slot.buffer.data(), static_cast<size_t>(t.actual_length));
  }
  std::lock_guard<std::mutex> lock(mutex_);
  slot.inFlight = false;
  const bool keepsGoing =
      t.status == LIBUSB_TRANSFER_COMPLETED || t.status == LIBUSB_TRANSFER_TIMED_OUT;
  if (!stopping_ && keepsGoing && resubmitLocked(slot)) {
    return;
  }
  if (!stopping_ && !failed_) {
    failed_ = true;
    // Under the lock: a stop racing this call waits until the report is out.
    const libusb_transfer_status why = t.status;
    trouble_(why == LIBUSB_TRANSFER_COMPLETED || why == LIBUSB_TRANSFER_TIMED_OUT
                 ? LIBUSB_TRANSFER_ERROR
                 : why);
  }
  endedLocked();
}

bool BulkInStream::resubmitLocked(Slot &slot) {
  const int rc = libusb_submit_transfer(slot.transfer.get());
  if (rc != 0) {
    slot.transfer->status = statusOfSubmitError(rc);
    return false;
  }
  slot.inFlight = true;
  return true;
}

void BulkInStream::endedLocked() {
  if (--inFlight_ == 0) {
    allEnded_.notify_all();
  }
}
