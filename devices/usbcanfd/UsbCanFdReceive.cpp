// SPDX-License-Identifier: MIT
// The receive side of the CAN FD adapter: the receive thread's reads of the
// data stream into the per-channel queues, and the host's receive calls.
#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

// The bulk read lands straight in the stream buffer's free space. A clear
// asked for while the read was pending keeps only the bytes of that read.
void QDeviceUsbCanFd2::readOnce(QUserLibUsb &usb, QUserThreadObj &thread) {
  if (streamResetRequested.exchange(false, std::memory_order_relaxed)) {
    stream.reset();
  }
  const int got = usb.bulkReadUSBDevice(stream.space(), static_cast<int>(stream.room()),
                                        kEpStreamIn, AdapterWorker::kReadTimeoutMs);
  if (got > 0) {
    if (streamResetRequested.exchange(false, std::memory_order_relaxed)) {
      stream.resetKeepingRead(static_cast<size_t>(got));
    }
    FrameQueues::Producer producer(rxQueues);
    stream.commit(static_cast<size_t>(got), producer);
  } else if (got == 0) {
    thread.sleepUnlessStopped(std::chrono::microseconds(100));
  } else if (got != LIBUSB_ERROR_TIMEOUT) {
    // A lost device fails every read at once; pause so the pass does not spin.
    thread.sleepUnlessStopped(std::chrono::milliseconds(1));
  }
}

void QDeviceUsbCanFd2::msgReceiveTask() {
  MSG_OBJ msg{};
  msg.length = usbDevice.ReadUSBDevice(msg.data, sizeof msg.data, kEpCmdIn, kTransferTimeoutMs);
  if (msg.length >= 1) {
    QUserMutex guard(msgQueueMutex);
    msgQueue.push_back(msg);
  }
}

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
