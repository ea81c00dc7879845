// SPDX-License-Identifier: MIT
// Bit timing, channel initialisation, start, stop and the queue counts of
// the CAN FD adapter.
#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "api/QErrMgr.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

int QDeviceUsbCanFd2::initCAN(unsigned int, _WCAN_INIT_CONFIG *) {
  setLastError(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
  return 0;
}

int QDeviceUsbCanFd2::initCANFD(unsigned int channel, _WCAN_INITFD_CONFIG *config) {
  return initCANFD(channel, config, false);
}

int QDeviceUsbCanFd2::initCANFD(unsigned int channel, const _WCAN_INITFD_CONFIG *config,
                                bool skipReadyCheck) {
  const int result = initCANFDCmdSend(channel, config, skipReadyCheck);
  if (result == 1) {
    chInit[channel].store(1, std::memory_order_relaxed);
  }
  return result;
}

int QDeviceUsbCanFd2::initCANFDCmdSend(unsigned int channel, const _WCAN_INITFD_CONFIG *config,
                                       bool skipReadyCheck) {
  if (channel >= kChannelSlots || config == nullptr) {
    setLastError(WCAN_ERR_PARAMETER);
    logger().Error("USBCANFD Init Fail...");
    return 0;
  }
  const _WCAN_INITFD_CONFIG cfg = *config;
  uint8_t modeByte5;
  {
    std::lock_guard<std::mutex> guard(configMutex);
    keptMode[channel] = cfg.option0;
    modeByte5 = keptMode[channel];
  }
  uint32_t arbitrationWord = 0;
  uint32_t dataWord = 0;
  bool found = true;
  if (cfg.fdEnable == 0) {
    if (cfg.abitRate == 0) {
      arbitrationWord = cfg.abitTiming;
    } else {
      found = aBitTimingGet(cfg.abitRate, &arbitrationWord) == 0;
    }
    dataWord = arbitrationWord;
  } else if (cfg.abitRate != 0 || cfg.dbitRate != 0) {
    found = aBitTimingGet(cfg.abitRate, &arbitrationWord) == 0 &&
            dBitTimingGet(cfg.dbitRate, &dataWord) == 0;
  } else {
    arbitrationWord = cfg.abitTiming;
    dataWord = cfg.dbitTiming;
  }
  if (!found) {
    setLastError(WCAN_ERR_BAUD_RATE_NOT_SUPPORTED);
    logger().Error("USBCANFD Init Fail...");
    return 0;
  }
  const uint8_t clock = variant().clock->clockMHz;
  if (canFdBaudInit(static_cast<uint8_t>(channel), cfg.option1, modeByte5, clock, clock,
                    arbitrationWord, dataWord, skipReadyCheck) != 1) {
    logger().Error("USBCANFD Init Fail...");
    return 0;
  }
  {
    std::lock_guard<std::mutex> guard(configMutex);
    savedConfig[channel] = cfg;
  }
  logger().Info("USBCANFD Init Success...");
  return 1;
}

int QDeviceUsbCanFd2::canFdBaudInit(uint8_t channel, uint8_t modeByte4, uint8_t modeByte5,
                                    uint8_t arbitrationClockMHz, uint8_t dataClockMHz,
                                    uint32_t arbitrationWord, uint32_t dataWord,
                                    bool skipReadyCheck) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  const CmdFrame frame = encodeBaudInit(channel, modeByte4, modeByte5, arbitrationClockMHz,
                                        dataClockMHz, arbitrationWord, dataWord);
  if (sendCommand(frame, reply, &replyLength, kBaudInitBudgetMs, skipReadyCheck) != 0) {
    return 0;
  }
  return replyLength >= 5 && reply[3] == 0 ? 1 : 0;
}

int QDeviceUsbCanFd2::aBitTimingGet(uint32_t bitRate, uint32_t *word) const {
  uint32_t found = 0;
  if (word == nullptr || !lookupTiming(variant().clock->arbitration, bitRate, found)) {
    return -1;
  }
  *word = found;
  return 0;
}

int QDeviceUsbCanFd2::dBitTimingGet(uint32_t bitRate, uint32_t *word) const {
  uint32_t found = 0;
  if (word == nullptr || !lookupTiming(variant().clock->data, bitRate, found)) {
    return -1;
  }
  *word = found;
  return 0;
}

// ===========================================================================
// Start, stop and buffers
// ===========================================================================

int QDeviceUsbCanFd2::canStart(uint8_t channel, bool skipReadyCheck) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    logger().Error("USBCANFD Start Fail!...");
    return 0;
  }
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  if (sendCommand(encodeChannelCmd(kCmdStart, channel), reply, &replyLength, kQueryBudgetMs,
                  skipReadyCheck) == 0 &&
      replyLength >= 3 && reply[1] == kCmdStart) {
    logger().Info("DRV Tip:USBCANFD Start Success...");
    return 1;
  }
  logger().Error("ERROR:USBCANFD Start Fail...");
  return 0;
}

int QDeviceUsbCanFd2::canStop(uint8_t channel) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  return sendCommand(encodeChannelCmd(kCmdStop, channel), reply, &replyLength, kQueryBudgetMs) == 0
             ? 1
             : 0;
}

// Readers waiting on the stopped channel return (with nothing: the queues
// are cleared).
int QDeviceUsbCanFd2::stop(unsigned int channel) {
  if (channelInitialised(channel)) {
    canStop(static_cast<uint8_t>(channel));
    chInit[channel].store(0, std::memory_order_relaxed);
  }
  const int result = clearBuffer(channel);
  if (channel < kChannelSlots) {
    rxQueues.interrupt(channel);
  }
  return result;
}

int QDeviceUsbCanFd2::clearBuffer(unsigned int channel) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  usbRxDataBufferClr(static_cast<uint8_t>(channel));
  return 1;
}

int QDeviceUsbCanFd2::getReceiveNum(unsigned int channel, unsigned char kind) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  return static_cast<int>(rxQueues.count(channel, kind));
}
