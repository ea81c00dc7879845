// SPDX-License-Identifier: MIT
// Fault recovery of the CAN FD adapter (the shared receive thread drives it)
// and the channel status query.
#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "api/QErrMgr.h"

using namespace usbcanfd;

void QDeviceUsbCanFd2::faultTimeHandle() {
  if (isOpen()) {
    worker.supervise(usbDevice, *this);
  }
}

bool QDeviceUsbCanFd2::anyChannelInitialised() const {
  for (const auto &flag : chInit) {
    if (flag.load(std::memory_order_relaxed) != 0) {
      return true;
    }
  }
  return false;
}

// Every initialised channel, in ascending order, gets its saved configuration
// and a start again; filters and key/value settings are not re-sent.
bool QDeviceUsbCanFd2::replayChannels() {
  for (unsigned ch = 0; ch < kChannelSlots; ++ch) {
    if (!channelInitialised(ch)) {
      continue;
    }
    _WCAN_INITFD_CONFIG saved;
    {
      std::lock_guard<std::mutex> guard(configMutex);
      saved = savedConfig[ch];
    }
    if (initCANFD(ch, &saved, true) != 1 || start(ch, true) != 1) {
      return false;
    }
  }
  return true;
}

int QDeviceUsbCanFd2::canChStatusGet(uint8_t channel, uint32_t *status) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  if (sendCommand(encodeStatusQuery(channel), reply, &replyLength, kQueryBudgetMs) != 0 ||
      replyLength < 11) {
    return 0;
  }
  *status = replyStatusWord(reply);
  return 1;
}
