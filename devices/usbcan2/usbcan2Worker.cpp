// SPDX-License-Identifier: MIT
// The per-device worker of the classic family: its receive stream fills the
// channel queues, and its supervision brings a lost adapter back
// (AdapterWorker, shared by both adapter families).
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

void devInfo::streamData(const uint8_t *data, size_t length) {
  FrameQueues::Producer producer(rxQueue);
  reassembler->feed(data, length, [&](uint32_t channel, const _WCAN_CAN_OBJ &frame) {
    producer.can(channel, frame);
  });
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

int usbcan2ReceiveEvent(uint32_t type, uint32_t index, uint32_t channel) {
  if (!usbcan2DevParaIsValid(type, index, channel)) {
    return -1;
  }
  devInfo &info = usbcan2Record(index);
  const int event = usbcan2Device(&info) ? info.rxQueue.receiveEvent(channel) : -1;
  if (event < 0) {
    setLastError(WCAN_ERR_DEVICE_NOT_OPENED);
  }
  return event;
}
