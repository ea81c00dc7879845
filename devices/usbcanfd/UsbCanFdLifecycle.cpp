// SPDX-License-Identifier: MIT
// Construction, open and close of the CAN FD adapter, its version words and
// its board information.
#include <cstring>
#include <memory>

#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "api/DriverFactory.h"
#include "api/QErrMgr.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

std::unique_ptr<QDevice> makeUsbCanFdDevice() { return std::make_unique<QDeviceUsbCanFd2>(); }

QDeviceUsbCanFd2::QDeviceUsbCanFd2() { initRecursivePiMutex(&msgQueueMutex); }

QDeviceUsbCanFd2::~QDeviceUsbCanFd2() {
  taskThreadShutdown();
  pthread_mutex_destroy(&msgQueueMutex);
}

int QDeviceUsbCanFd2::openDevice(unsigned int type, unsigned int index, unsigned int) {
  if (isOpen()) {
    return 1;
  }
  deviceType = type;
  deviceIndex = index;
  const UsbCanFdVariant v = variant();
  chCount = v.channelCount;
  const int opened = usbDevice.OpenUSBDevice(v.vendorId, v.productId, index);
  if (opened != 1) {
    // An adapter this process already holds (under another type number or
    // index) is not opened a second time: that would reset it under its
    // first handle.
    setLastError(opened == QUserLibUsb::kOpenedElsewhere ? WCAN_ERR_PARAMETER
                                                         : WCAN_ERR_DEVICE_NOT_EXIST);
    return 0;
  }
  if (canGetDeviceVer() != 1) {
    usbDevice.CloseUSBDevice();
    setLastError(WCAN_ERR_DEVICE_INFO_GET);
    return 0;
  }
  txAckWait.store(0, std::memory_order_relaxed);
  rxQueues.open();
  taskThreadCreate();
  openFlag.store(1, std::memory_order_relaxed);
  return 1;
}

// Receivers waiting on the queues are woken first, so a host thread blocked
// in a receive returns at once with what was queued or nothing.
int QDeviceUsbCanFd2::closeDevice() {
  if (!isOpen()) {
    return 1;
  }
  rxQueues.close();
  for (unsigned ch = 0; ch < chCount && ch < kChannelSlots; ++ch) {
    if (channelInitialised(ch)) {
      canStop(static_cast<uint8_t>(ch));
      usbRxDataBufferClr(static_cast<uint8_t>(ch));
      chInit[ch].store(0, std::memory_order_relaxed);
    }
  }
  taskThreadShutdown();
  usbDevice.CloseUSBDevice();
  openFlag.store(0, std::memory_order_relaxed);
  for (auto &flag : chInit) {
    flag.store(0, std::memory_order_relaxed);
  }
  return 1;
}

void QDeviceUsbCanFd2::taskThreadCreate() { worker.start(usbDevice, *this); }

int QDeviceUsbCanFd2::canGetDeviceVer() {
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  if (sendCommand(encodeQuery(kCmdVersion), reply, &replyLength, kQueryBudgetMs) != 0) {
    return 0;
  }
  version1 = replyVersionWord(reply);
  replyLength = sizeof reply;
  if (sendCommand(encodeQuery(kCmdVersion2), reply, &replyLength, kQueryBudgetMs) != 0) {
    return 0;
  }
  version2 = replyVersionWord(reply);
  return 1;
}

int QDeviceUsbCanFd2::getBoardInf(_WCAN_BOARD_INFO *info) {
  if (info == nullptr) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  // The exchange reports success as 0, so this test never passes and the
  // call always ends here with 0: kept as the interface defines it.
  if (sendCommand(encodeQuery(kCmdVersion), reply, &replyLength, kQueryBudgetMs) < 1) {
    return 0;
  }
  info->hwVersion = replyVersionWord(reply);
  replyLength = sizeof reply;
  if (sendCommand(encodeQuery(kCmdVersion2), reply, &replyLength, kQueryBudgetMs) != 0) {
    return 0;
  }
  info->fwVersion = replyVersionWord(reply);
  replyLength = sizeof reply;
  if (sendCommand(encodeQuery(kCmdBoard), reply, &replyLength, kQueryBudgetMs) != 0) {
    return 0;
  }
  info->canNum = reply[4];
  info->extVersion1 = 0x0100;
  return 1;
}

int QDeviceUsbCanFd2::getDeviceInf(_WCAN_BOARD_INFO *info) {
  if (info == nullptr) {
    return 0;
  }
  std::memset(info, 0, sizeof *info);
  info->hwVersion = 0x0100;
  info->fwVersion = 0x0117;
  info->extVersion0 = 0x0100;
  info->extVersion1 = 0x0100;
  info->auxWord = 0;
  info->canNum = 2;
  std::memcpy(info->serialNum, "5E2F09B7C41D8A3600E1", sizeof info->serialNum);
  std::strncpy(info->hwType, "USBCANFD", sizeof info->hwType);
  return 1;
}
