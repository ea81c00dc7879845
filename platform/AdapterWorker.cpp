// SPDX-License-Identifier: MIT
#include "platform/AdapterWorker.h"

#include <algorithm>

#include "platform/QUserLog.h"
#include "platform/QUserUtils.h"

namespace {

thread_local bool receiveReadHere = false;

// Marks the receive read of the calling thread for its lifetime.
class ReceiveRead {
public:
  ReceiveRead() { receiveReadHere = true; }
  ~ReceiveRead() { receiveReadHere = false; }
  ReceiveRead(const ReceiveRead &) = delete;
  ReceiveRead &operator=(const ReceiveRead &) = delete;
};

} // namespace

bool AdapterWorker::inReceiveRead() { return receiveReadHere; }

std::chrono::microseconds LinkRecovery::untilNextAttempt() const {
  const uint32_t elapsed = getLapseMicroSec(lastAttempt_.load(std::memory_order_relaxed));
  return std::chrono::microseconds(elapsed < kRetryPeriodUs ? kRetryPeriodUs - elapsed : 0);
}

template <class Settle>
bool LinkRecovery::reopen(QUserLibUsb &usb, AdapterDuties &duties, Settle settle) {
  if (!usb.ReopenUSBDevice()) {
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
  recovery_.clear();
  return thread_.start([this, &usb, &duties] { pass(usb, duties); });
}

void AdapterWorker::supervise(QUserLibUsb &usb, AdapterDuties &duties) {
  recovery_.supervise(usb, duties,
                      [this] { return thread_.sleepUnlessStopped(LinkRecovery::kSettle); });
}

void AdapterWorker::pass(QUserLibUsb &usb, AdapterDuties &duties) {
  if (duties.commandIdle()) {
    supervise(usb, duties);
  }
  if (recovery_.faulted()) {
    thread_.sleepUnlessStopped(std::max<std::chrono::microseconds>(recovery_.untilNextAttempt(),
                                                                   std::chrono::milliseconds(1)));
    return;
  }
  const ReceiveRead reading;
  duties.readOnce(usb, thread_);
}
