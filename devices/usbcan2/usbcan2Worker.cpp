// SPDX-License-Identifier: MIT
// The per-device worker of the classic family: it drains the receive endpoint
// into the channel queues and brings a lost adapter back, on the receive
// thread both adapter families share (AdapterWorker).
#include <chrono>

#include "api/QErrMgr.h"
#include "devices/usbcan2/Usbcan2Device.h"
#include "devices/usbcan2/Usbcan2Wire.h"
#include "devices/usbcan2/usbcan2.h"
#include "platform/QUserUtils.h"

using namespace usbcan2wire;

namespace {

// The recovery path addresses the record as the second type of the family.
constexpr uint32_t kRecoveryType = kFamily.types[1];

} // namespace

// Resends the saved configuration of every initialised channel and restarts
// it; false at the first failure.
bool devInfo::replayChannels() {
  for (uint32_t channel = 0; channel < kFamily.channelCount; ++channel) {
    if (chInit[channel] == 0) {
      continue;
    }
    _WCAN_INIT_CONFIG config;
    {
      QUserMutex guard(threadMutex.native());
      config = savedInit[channel];
    }
    if (usbcan2CmdInitSend(kRecoveryType, devIndex, channel, &config, true) != 1 ||
        usbcan2Start(kRecoveryType, devIndex, channel, true) != 1) {
      return false;
    }
  }
  return true;
}

// The device the worker was started on stays alive until the worker has
// stopped (closing detaches it first and releases it last).
void devInfo::readOnce(QUserLibUsb &dev, QUserThreadObj &thread) {
  uint8_t chunk[kReadChunk] = {};
  const int got =
      dev.bulkReadUSBDevice(chunk, sizeof chunk, kDataInEp, AdapterWorker::kReadTimeoutMs);
  if (got > 0) {
    FrameQueues::Producer producer(rxQueue);
    reassembler->feed(
        chunk, static_cast<size_t>(got),
        [&](uint32_t channel, const _WCAN_CAN_OBJ &frame) { producer.can(channel, frame); });
  } else if (got == 0) {
    thread.sleepUnlessStopped(std::chrono::microseconds(100));
  } else if (got != LIBUSB_ERROR_TIMEOUT) {
    // A read that fails at once (device gone, no channel to recover) is not
    // retried sooner than this.
    thread.sleepUnlessStopped(std::chrono::milliseconds(1));
  }
}

void usbcan2ThreadStart(devInfo *info, QUserLibUsb &dev) {
  info->reassembler = std::make_unique<RxReassembler>();
  info->worker.start(dev, *info);
}

// A worker that has not ended within two seconds is cancelled; either way it
// is joined, so no thread record is left behind.
void usbcan2ThreadStop(devInfo *info) { info->worker.stop(); }

void usbcan2FaultTimeHandle(devInfo *info) {
  if (const std::shared_ptr<QUserLibUsb> dev = usbcan2Device(info)) {
    info->worker.supervise(*dev, *info);
  }
}

// Sleeps on the queue's condition instead of polling; a wait of -1 has no
// limit and a wait of 0 returns what is queued at the first look. A device
// that is not open answers at once, and closing it wakes a waiting caller.
int32_t usbcan2Receive(uint32_t /*type*/, uint32_t index, uint32_t channel, _WCAN_CAN_OBJ *out,
                       uint32_t maxFrames, int32_t waitMs) {
  if (index >= kFamily.tableSize || !out) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  devInfo &info = usbcan2Record(index);
  if (!usbcan2Device(&info)) {
    setLastError(WCAN_ERR_DEVICE_NOT_OPENED);
    return 0;
  }
  return info.rxQueue.take(channel == 0 ? 0 : 1, out, maxFrames, waitMs);
}
