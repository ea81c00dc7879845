// SPDX-License-Identifier: MIT
// The library under test, loaded with dlopen once the test bed exists: its
// classic family creates a libusb context when it is loaded, and that must
// already see the emulated devices.
#pragma once

#include "wcan.h"

namespace wcanumock {

#define WCAN_REAL_LIBUSB_FUNCTIONS(X)                                                              \
  X(OpenDevice)                                                                                    \
  X(CloseDevice)                                                                                   \
  X(BoardInfoGet)                                                                                  \
  X(InitCAN)                                                                                       \
  X(InitCANFD)                                                                                     \
  X(Start)                                                                                         \
  X(Transmit)                                                                                      \
  X(TransmitFD)                                                                                    \
  X(Receive)                                                                                       \
  X(ReceiveFD)                                                                                     \
  X(RecordSettingSet)                                                                              \
  X(RecordSettingGet)                                                                              \
  X(GetLastError)

struct WcanApi {
#define WCAN_API_MEMBER(name) decltype(&::WCAN_##name) name = nullptr;
  WCAN_REAL_LIBUSB_FUNCTIONS(WCAN_API_MEMBER)
#undef WCAN_API_MEMBER
};

// Loads the library on first use, creating the test bed first.
const WcanApi &wcan();

} // namespace wcanumock
