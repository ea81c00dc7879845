// SPDX-License-Identifier: MIT
// Constants and helpers shared by the implementation files of the CAN FD
// adapter driver.
#pragma once

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

} // namespace usbcanfd
