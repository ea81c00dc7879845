// SPDX-License-Identifier: MIT
// Command exchanges of the CAN FD adapter and the raw pass-through.
#include <cstring>

#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "api/QErrMgr.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

int QDeviceUsbCanFd2::sendCommand(const CmdFrame &frame, uint8_t *reply, int *replyLength,
                                  uint32_t timeoutMs, bool skipReadyCheck) {
  CmdFrame copy = frame;
  return usbCmdSend(copy.bytes.data(), copy.len, reply, replyLength, kEpCmdOut, kEpCmdIn, timeoutMs,
                    skipReadyCheck);
}

// The command lock is held for the whole exchange, so a reply is always read
// by the thread whose command it answers.
int QDeviceUsbCanFd2::usbCmdSend(uint8_t *command, int commandLength, uint8_t *reply,
                                 int *replyLength, uint8_t outEndpoint, uint8_t inEndpoint,
                                 uint32_t timeoutMs, bool skipReadyCheck) {
  ExchangeMark busy(*this);
  if (!skipReadyCheck && isDeviceReady() != 0) {
    return -1;
  }
  QUserMutex exchange(cmdMutex);
  if (timeoutMs == 0) {
    return usbDevice.WriteUSBDevice(command, commandLength, outEndpoint, kTransferTimeoutMs) >= 1
               ? 0
               : -1;
  }
  enum class Last { Nothing, WriteFailed, ReadFailed, Matched } last = Last::Nothing;
  const int room = *replyLength;
  const uint32_t started = getCurMicroSec();
  // With no USB device open every write would fail at once: fail the same
  // way without waiting out the budget.
  bool canSend = usbDevice.isOpen();
  if (!canSend) {
    last = Last::WriteFailed;
  }
  while (canSend && getLapseMicroSec(started) < timeoutMs * 1000) {
    const int wrote =
        usbDevice.WriteUSBDevice(command, commandLength, outEndpoint, kTransferTimeoutMs);
    if (wrote < 1) {
      last = Last::WriteFailed;
      canSend = !deviceGone(wrote);
      pauseAfterFailedTransfer(wrote < 0 ? wrote : -1);
      continue;
    }
    const int got = usbDevice.ReadUSBDevice(reply, room, inEndpoint, kTransferTimeoutMs);
    if (got <= 0) {
      last = Last::ReadFailed;
      canSend = !deviceGone(got);
      pauseAfterFailedTransfer(got < 0 ? got : -1);
      continue;
    }
    if (got < 3 || reply[0] != command[0] || reply[1] != command[1]) {
      last = Last::Nothing;
      continue;
    }
    *replyLength = got;
    last = Last::Matched;
    break;
  }
  int result = 0;
  if (last == Last::WriteFailed) {
    result = -1;
  } else if (last != Last::Matched) {
    result = -2; // read failure, or only short or foreign replies
  }
  if (result != 0) {
    setLastError(WCAN_ERR_USB_COMMAND);
  }
  return result;
}

// Reads the bulk endpoint until a reply echoing the command's first two bytes
// arrives (0) or the budget runs out (-1).
int QDeviceUsbCanFd2::awaitBulkReply(const uint8_t *command, uint8_t *reply, int *replyLength,
                                     uint8_t inEndpoint, uint32_t timeoutMs) {
  const int room = *replyLength;
  const uint32_t started = getCurMicroSec();
  while (getLapseMicroSec(started) < timeoutMs * 1000) {
    const int got = usbDevice.bulkReadUSBDevice(reply, room, inEndpoint, kTransferTimeoutMs);
    if (got >= 3 && reply[0] == command[0] && reply[1] == command[1]) {
      *replyLength = got;
      return 0;
    }
    if (deviceGone(got)) {
      break;
    }
    pauseAfterFailedTransfer(got);
  }
  return -1;
}

int QDeviceUsbCanFd2::usbCmdSendByBulk(uint8_t *command, int commandLength, uint8_t *reply,
                                       int *replyLength, uint8_t outEndpoint, uint8_t inEndpoint,
                                       uint32_t timeoutMs) {
  ExchangeMark busy(*this);
  if (usbDevice.bulkWriteUSBDevice(command, commandLength, outEndpoint, kTransferTimeoutMs) == 0) {
    return -1;
  }
  return timeoutMs == 0 ? 0 : awaitBulkReply(command, reply, replyLength, inEndpoint, timeoutMs);
}

int QDeviceUsbCanFd2::usbCmdExtSendByBulk(uint8_t *command, int commandLength, uint8_t *reply,
                                          int *replyLength, uint8_t outEndpoint, uint8_t inEndpoint,
                                          uint32_t timeoutMs) {
  ExchangeMark busy(*this);
  if (usbDevice.bulkWriteUSBDevice(command, commandLength, outEndpoint, kTransferTimeoutMs) < 1) {
    return -1;
  }
  if (timeoutMs == 0 || txAckWait.load(std::memory_order_relaxed) == 0) {
    return 0;
  }
  return awaitBulkReply(command, reply, replyLength, inEndpoint, timeoutMs);
}

// The reply payload is copied over the caller's buffer, which must hold the
// longest reply (62 bytes).
int QDeviceUsbCanFd2::transmitData(unsigned char *data, unsigned int length, bool skipReadyCheck) {
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  if (sendCommand(encodeRawExchange(data, length), reply, &replyLength, kQueryBudgetMs,
                  skipReadyCheck) != 0) {
    return 0;
  }
  std::memcpy(data, reply + 2, static_cast<size_t>(replyLength - 2));
  return replyLength - 2;
}
