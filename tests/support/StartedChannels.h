// SPDX-License-Identifier: MIT
// Starts channels 0 and 1 of an open adapter at 500 kbit/s (CAN FD adapters
// with a 2 Mbit/s data phase), whichever family it belongs to.
#pragma once

#include "platform/DeviceTypes.h"
#include "wcan.h"

namespace wcantest {

inline bool startChannels(unsigned type, unsigned index) {
  const bool fd = wcan::isFamily(type, wcan::DeviceFamily::CanFd);
  for (unsigned ch = 0; ch < 2; ++ch) {
    _WCAN_INITFD_CONFIG fdConfig{};
    fdConfig.abitRate = 500000;
    fdConfig.dbitRate = 2000000;
    fdConfig.fdEnable = 1;
    _WCAN_INIT_CONFIG classic{};
    classic.timing1 = 0x1C;
    const int started =
        fd ? WCAN_InitCANFD(type, index, ch, &fdConfig) : WCAN_InitCAN(type, index, ch, &classic);
    if (started != 1) {
      return false;
    }
  }
  return true;
}

} // namespace wcantest
