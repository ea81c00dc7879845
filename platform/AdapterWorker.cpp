// SPDX-License-Identifier: MIT
#include "platform/AdapterWorker.h"

#include <pthread.h>

#include <algorithm>

#include "platform/QUserLog.h"
#include "platform/QUserUtils.h"
#include "platform/UsbEvents.h"

std::chrono::microseconds LinkRecovery::untilNextAttempt() const {
  const uint32_t elapsed = getLapseMicroSec(lastAttempt_.load(std::memory_order_relaxed));
  return std::chrono::microseconds(elapsed < kRetryPeriodUs ? kRetryPeriodUs - elapsed : 0);
}

template <class Settle>
bool LinkRecovery::reopen(QUserLibUsb &usb, AdapterDuties &duties, Settle settle) {
  attempts_.fetch_add(1, std::memory_order_relaxed);
  const bool found = usb.ReopenUSBDevice() != 0;
  absent_.store(!found, std::memory_order_relaxed);
  if (!found) {
    return false;
  }
  duties.linkReopened();
  return settle();
}

template <class Settle>
void LinkRecovery::supervise(QUserLibUsb &usb, AdapterDuties &duties, Settle settle) {
  if (faulted()) {
    if (getLapseMicroSec(lastAttempt_.load(std::memory_order_relaxed)) < kRetryPeriodUs) {
      return;
    }
    lastAttempt_.store(getCurMicroSec(), std::memory_order_relaxed);
    if (usb.GetUSBDeviceLinkStatus() == 0 && !reopen(usb, duties, settle)) {
      return;
    }
  } else {
    if (!duties.anyChannelInitialised() || usb.GetUSBDeviceLinkStatus() != 0) {
      return;
    }
    fault_.store(kFaulted, std::memory_order_relaxed);
    lastAttempt_.store(getCurMicroSec(), std::memory_order_relaxed);
    if (!reopen(usb, duties, settle)) {
      return;
    }
  }
  if (usb.GetUSBDeviceLinkStatus() == 0) {
    return;
  }
  if (!duties.replayChannels()) {
    // Start over from a fresh reopen at the next attempt.
    reopen(usb, duties, settle);
    return;
  }
  fault_.store(0, std::memory_order_relaxed);
  QUserLog::GetInstance().Info("%s", recoveredLine_);
}

bool AdapterWorker::start(QUserLibUsb &usb, AdapterDuties &duties) {
  if (running()) {
    return true;
  }
  recovery_.clear();
  UsbEvents &events = UsbEvents::instance();
  events.startHandling();
  handlingEvents_ = true;
  events.addArrivalListener(this, [this] { thread_.nudge(); });
  keepStreaming(usb, duties);
  return thread_.start([this, &usb, &duties, named = false]() mutable {
    if (!named) {
      pthread_setname_np(pthread_self(), "wcan adapter");
      named = true;
    }
    pass(usb, duties);
  });
}

void AdapterWorker::stop() {
  thread_.stop();
  stream_.stop();
  if (handlingEvents_) {
    UsbEvents::instance().removeArrivalListener(this);
    UsbEvents::instance().stopHandling();
    handlingEvents_ = false;
  }
}

// The stream ends before a reopen can replace the handle under it.
void AdapterWorker::supervise(QUserLibUsb &usb, AdapterDuties &duties) {
  if (usb.GetUSBDeviceLinkStatus() == 0 || recovery_.faulted()) {
    stream_.stop();
  }
  // Arrivals after this count call for another look at the device list.
  const uint64_t arrivals = UsbEvents::instance().arrivals();
  const uint32_t attempts = recovery_.attempts();
  recovery_.supervise(usb, duties,
                      [this] { return thread_.sleepUnlessStopped(LinkRecovery::kSettle); });
  if (recovery_.attempts() != attempts) {
    if (arrivals != arrivalsAtAttempt_) {
      retriesAfterArrival_ = kRetriesAfterArrival;
    } else if (retriesAfterArrival_ > 0) {
      --retriesAfterArrival_;
    }
    arrivalsAtAttempt_ = arrivals;
  }
}

// Where arrivals are reported, an adapter that was not found is looked for
// again only once something arrived (and for a while after).
bool AdapterWorker::attemptDue() const {
  const UsbEvents &events = UsbEvents::instance();
  return !(recovery_.faulted() && recovery_.adapterAbsent() && events.hotplugArrivals() &&
           events.arrivals() == arrivalsAtAttempt_ && retriesAfterArrival_ == 0);
}

void AdapterWorker::sleepUntilAttempt() {
  if (!attemptDue()) {
    thread_.sleepUntilNudged();
    return;
  }
  thread_.sleepUntilNudged(std::max<std::chrono::microseconds>(recovery_.untilNextAttempt(),
                                                               std::chrono::milliseconds(1)));
}

// Runs on the event thread: the stream stopped by itself.
void AdapterWorker::streamEnded(QUserLibUsb &usb, libusb_transfer_status status) {
  if (status == LIBUSB_TRANSFER_NO_DEVICE) {
    usb.ProcessUSBDeviceErrCode(LIBUSB_ERROR_NO_DEVICE);
  }
  lastEnd_.store(status, std::memory_order_relaxed);
  thread_.nudge();
}

void AdapterWorker::keepStreaming(QUserLibUsb &usb, AdapterDuties &duties) {
  if (stream_.healthy() || usb.GetUSBDeviceLinkStatus() == 0) {
    return;
  }
  if (stream_.started()) {
    // It failed: a device that fails every transfer at once is not retried
    // sooner than this.
    stream_.stop();
    if (!thread_.sleepUnlessStopped(std::chrono::milliseconds(1))) {
      return;
    }
  }
  const uint8_t ep = duties.streamEndpoint();
  if (lastEnd_.exchange(LIBUSB_TRANSFER_COMPLETED, std::memory_order_relaxed) ==
      LIBUSB_TRANSFER_STALL) {
    usb.resetUSBEp(ep);
  }
  stream_.start(
      usb, ep, kQueuedTransfers, duties.streamTransferBytes(),
      [&duties](const uint8_t *data, size_t length) { duties.streamData(data, length); },
      [this, &usb](libusb_transfer_status status) { streamEnded(usb, status); });
}

// A healthy stream needs nothing from this thread until it ends; a link that
// is down without a channel to recover, or an endpoint that keeps failing,
// is looked at again every retry period.
void AdapterWorker::pass(QUserLibUsb &usb, AdapterDuties &duties) {
  if (duties.commandIdle() && attemptDue()) {
    supervise(usb, duties);
  }
  if (recovery_.faulted()) {
    sleepUntilAttempt();
    return;
  }
  keepStreaming(usb, duties);
  if (stream_.healthy()) {
    thread_.sleepUntilNudged();
  } else {
    thread_.sleepUntilNudged(std::chrono::microseconds(LinkRecovery::kRetryPeriodUs));
  }
}
