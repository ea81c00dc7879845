// SPDX-License-Identifier: MIT
// Acceptance filters of the CAN FD adapter.
#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "api/QErrMgr.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

int QDeviceUsbCanFd2::sendFilter(FilterSub sub, uint8_t channel, uint32_t firstId,
                                 uint32_t lastId) {
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  if (sendCommand(encodeFilter(sub, channel, firstId, lastId), reply, &replyLength,
                  kQueryBudgetMs) < 0) {
    return 0;
  }
  return replyLength >= 3 && reply[3] == 0 ? 1 : 0;
}

int QDeviceUsbCanFd2::canFilterModeSet(uint8_t channel, int mode) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  filterSetupState[channel] = 1;
  if (mode == 0 || mode == 1) {
    filterMode[channel] = static_cast<uint8_t>(mode);
    return 1;
  }
  filterMode[channel] = 2;
  return sendFilter(FilterSub::AnyRange, channel, 0, 0);
}

int QDeviceUsbCanFd2::canFilterStartIdSet(uint8_t channel, uint32_t id) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  if (filterSetupState[channel] != 1) {
    return 0;
  }
  filterStartId[channel] = id;
  filterSetupState[channel] = 2;
  return 1;
}

int QDeviceUsbCanFd2::canFilterEndIdSet(uint8_t channel, uint32_t id) {
  if (channel >= kChannelSlots || filterSetupState[channel] != 2) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  FilterSub sub = FilterSub::AnyRange;
  uint32_t mask = 0xFFFFFFFF;
  if (filterMode[channel] == 0) {
    sub = FilterSub::StandardRange;
    mask = 0x7FF;
  } else if (filterMode[channel] == 1) {
    sub = FilterSub::ExtendedRange;
    mask = 0x1FFFFFFF;
  }
  filterStartId[channel] &= mask;
  return sendFilter(sub, channel, filterStartId[channel], id & mask);
}

int QDeviceUsbCanFd2::canFilterClear(uint8_t channel, int) {
  if (channel >= kChannelSlots) {
    return 0;
  }
  return sendFilter(FilterSub::Clear, channel, 0, 0);
}

int QDeviceUsbCanFd2::canFilterEnable(uint8_t channel, int) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  return sendFilter(FilterSub::Enable, channel, 0, 0);
}

int QDeviceUsbCanFd2::setFliter(unsigned int channelIndex, _WCAN_FLITER_CONFIG *config) {
  const auto channel = static_cast<uint8_t>(channelIndex);
  switch (config->filterCmd) {
  case 0:
    return canFilterClear(channel, 0);
  case 1:
    canFilterModeSet(channel, config->idMode);
    canFilterStartIdSet(channel, config->startId);
    return canFilterEndIdSet(channel, config->endId);
  case 2:
    return canFilterEnable(channel, 0);
  default:
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
}
