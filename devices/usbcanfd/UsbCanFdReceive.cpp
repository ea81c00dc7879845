// SPDX-License-Identifier: MIT
// The receive side of the CAN FD adapter: the data stream's bytes into the
// per-channel queues, and the host's receive calls.
#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

void QDeviceUsbCanFd2::msgReceiveTask() {
  MSG_OBJ msg{};
  msg.length = usbDevice.ReadUSBDevice(msg.data, sizeof msg.data, kEpCmdIn, kTransferTimeoutMs);
  if (msg.length >= 1) {
    QUserMutex guard(msgQueueMutex);
    msgQueue.push_back(msg);
  }
}

// A clear asked for while a transfer was queued keeps only the bytes of
// transfers that complete after it.
void QDeviceUsbCanFd2::usbRxDataProcess(const uint8_t *data, uint32_t length) {
  if (streamResetRequested.exchange(false, std::memory_order_relaxed)) {
    stream.reset();
  }
  FrameQueues::Producer producer(rxQueues);
  stream.feed(data, length, producer);
}

void QDeviceUsbCanFd2::usbRxDataBufferClr(uint8_t channel) {
  rxQueues.clear(channel);
  // Partly received stream data of every channel is discarded too; the
  // receive thread drops it before it parses its next read.
  streamResetRequested.store(true, std::memory_order_relaxed);
}

// Channels above 7 read the last channel's queue (kept as host programs know it).
int QDeviceUsbCanFd2::receive(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count,
                              int waitMs) {
  return rxQueues.take(channel, frames, count, waitMs);
}

int QDeviceUsbCanFd2::receiveFD(unsigned int channel, _WCAN_CANFD_OBJ *frames, unsigned int count,
                                int waitMs) {
  return rxQueues.take(channel, frames, count, waitMs);
}
