// Constants and helpers shared by the implementation files of the CAN FD
// adapter driver.
#pragma once

#include <libusb-1.0/libusb.h>
#include <unistd.h>

#include <cstdint>

#include "platform/QUserLog.h"
#include "platform/QUserUtils.h"

namespace usbcanfd {

// Every single USB transfer of a command exchange.
constexpr unsigned kTransferTimeoutMs = 1000;
constexpr uint32_t kQueryBudgetMs = 1500;
constexpr uint32_t kBaudInitBudgetMs = 2000;
constexpr uint32_t kTransmitBudgetMs = 2000;

inline QUserLog &logger() { return QUserLog::GetInstance(); }

// A transfer that fails at once would otherwise turn a re-send loop into a
// busy loop; a millisecond keeps the cadence honest.
inline void pauseAfterFailedTransfer(int result) {
  if (result < 0 && result != LIBUSB_ERROR_TIMEOUT) {
    pauseFor(std::chrono::milliseconds(1));
  }
}

// A handle whose device vanished never works again: only a reopen helps, so
// an exchange stops at once instead of re-sending until its budget is spent.
inline bool deviceGone(int result) { return result == LIBUSB_ERROR_NO_DEVICE; }

} // namespace usbcanfd
