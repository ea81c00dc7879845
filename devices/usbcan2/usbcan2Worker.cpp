// The per-device worker thread of the classic family: it drains the receive
// endpoint into the channel queues and brings a lost adapter back.
#include <unistd.h>

#include <chrono>
#include <mutex>

#include "api/QErrMgr.h"
#include "devices/usbcan2/Usbcan2Device.h"
#include "devices/usbcan2/Usbcan2Wire.h"
#include "devices/usbcan2/usbcan2.h"
#include "platform/QUserLog.h"
#include "platform/QUserUtils.h"

using namespace usbcan2wire;

namespace {

constexpr unsigned int kReadTimeoutMs = 500;
constexpr useconds_t kEmptyReadPauseUs = 100;
// A read that fails at once (device gone, no channel to recover) is not
// retried sooner than this.
constexpr useconds_t kFailedReadPauseUs = 1000;
constexpr uint32_t kRetryIntervalUs = 50000;
// While the link is down the worker sleeps in steps this short so that a stop
// request is seen promptly.
constexpr useconds_t kFaultPauseUs = 10000;
constexpr auto kStopWait = std::chrono::seconds(2);
// The recovery path addresses the record as the second type of the family.
constexpr uint32_t kRecoveryType = kFamily.types[1];

bool anyChannelInit(const devInfo &info) { return info.chInit[0] != 0 || info.chInit[1] != 0; }

// Resends the saved configuration of every initialised channel and restarts
// it; false at the first failure.
bool replayChannels(devInfo &info) {
  for (uint32_t channel = 0; channel < kFamily.channelCount; ++channel) {
    if (info.chInit[channel] == 0) {
      continue;
    }
    _WCAN_INIT_CONFIG config;
    {
      QUserMutex guard(info.threadMutex.native());
      config = info.savedInit[channel];
    }
    if (usbcan2CmdInitSend(kRecoveryType, info.devIndex, channel, &config, true) != 1 ||
        usbcan2Start(kRecoveryType, info.devIndex, channel, true) != 1) {
      return false;
    }
  }
  return true;
}

void deliver(devInfo &info, RxReassembler &reassembler, const uint8_t *data, size_t size) {
  bool delivered = false;
  reassembler.feed(data, size, [&](uint32_t channel, const _WCAN_CAN_OBJ &frame) {
    QUserMutex guard(info.rxMutex.native());
    info.rxQueue[channel].push_back(frame);
    delivered = true;
  });
  if (delivered) {
    info.rxCond.notify_all();
  }
}

void readOnce(devInfo &info, QUserLibUsb &dev, RxReassembler &reassembler) {
  uint8_t chunk[kReadChunk] = {};
  const int got = dev.bulkReadUSBDevice(chunk, sizeof chunk, kDataInEp, kReadTimeoutMs);
  if (got > 0) {
    deliver(info, reassembler, chunk, static_cast<size_t>(got));
  } else if (got == 0) {
    usleep(kEmptyReadPauseUs);
  } else if (got != LIBUSB_ERROR_TIMEOUT) {
    usleep(kFailedReadPauseUs);
  }
}

// The device to work on this pass, or null when the worker must end.
QUserLibUsb *deviceUnlessStopping(devInfo &info) {
  QUserMutex guard(info.threadMutex.native());
  if (info.threadStopReq != 0) {
    return nullptr;
  }
  return info.usbDev.get();
}

void markExited(devInfo &info) {
  {
    QUserMutex guard(info.threadMutex.native());
    info.threadExited = 1;
  }
  info.threadExitCond.notify_all();
}

} // namespace

void usbcan2ThreadStart(devInfo *info) {
  info->threadStopReq = 0;
  info->threadExited = 0;
  if (pthread_create(&info->threadId, nullptr, usbcan2ThreadMainLoop, &info->devIndex) == 0) {
    info->threadRunning = true;
  }
}

// A worker that has not ended within two seconds is cancelled. Either way it
// is joined, so no thread record is left behind.
void usbcan2ThreadStop(devInfo *info) {
  if (!info->threadRunning) {
    return;
  }
  bool exited;
  {
    std::unique_lock<Usbcan2Mutex> lock(info->threadMutex);
    info->threadStopReq = 1;
    exited =
        info->threadExitCond.wait_for(lock, kStopWait, [&] { return info->threadExited != 0; });
  }
  if (!exited) {
    QUserLog::GetInstance().Error("Thread Exit Fail...");
    pthread_cancel(info->threadId);
  }
  pthread_join(info->threadId, nullptr);
  info->threadRunning = false;
  info->threadId = pthread_t{};
}

void *usbcan2ThreadMainLoop(void *arg) {
  const uint32_t index = *static_cast<const uint32_t *>(arg);
  if (index >= kFamily.tableSize) {
    return nullptr;
  }
  devInfo &info = usbcan2Record(index);
  auto reassembler = std::make_unique<RxReassembler>();
  while (QUserLibUsb *dev = deviceUnlessStopping(info)) {
    if (info.cmdIdle == 1) {
      usbcan2FaultTimeHandle(&info);
    }
    if (info.linkFault == 0) {
      readOnce(info, *dev, *reassembler);
    } else {
      usleep(kFaultPauseUs);
    }
  }
  markExited(info);
  return nullptr;
}

// The first restart after a loss is immediate; later ones follow at least
// 50 ms apart for as long as the link or the replay fails. A device without an
// initialised channel is never marked faulty.
void usbcan2FaultTimeHandle(devInfo *info) {
  QUserLibUsb *dev = usbcan2Device(info);
  if (!dev) {
    return;
  }
  if (info->linkFault != 0) {
    if (getLapseMicroSec(info->faultTime) < kRetryIntervalUs) {
      return;
    }
    info->faultTime = getCurMicroSec();
    if (!dev->GetUSBDeviceLinkStatus()) {
      dev->RestartUSBDevice();
    }
  } else {
    if (!anyChannelInit(*info) || dev->GetUSBDeviceLinkStatus()) {
      return;
    }
    info->linkFault = kLinkFaulted;
    info->faultTime = getCurMicroSec();
    dev->RestartUSBDevice();
  }
  if (!dev->GetUSBDeviceLinkStatus()) {
    return;
  }
  if (!replayChannels(*info)) {
    dev->RestartUSBDevice();
    return;
  }
  info->linkFault = 0;
  QUserLog::GetInstance().Info("DRV Tip:USBCAN OK...");
}

// Sleeps on the queue's condition instead of polling; a wait of -1 has no
// limit and a wait of 0 returns what is queued at the first look.
int32_t usbcan2Receive(uint32_t /*type*/, uint32_t index, uint32_t channel, _WCAN_CAN_OBJ *out,
                       uint32_t maxFrames, int32_t waitMs) {
  if (index >= kFamily.tableSize || !out) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  devInfo &info = usbcan2Record(index);
  std::deque<_WCAN_CAN_OBJ> &queue = info.rxQueue[channel == 0 ? 0 : 1];
  const auto ready = [&] { return !queue.empty(); };

  std::unique_lock<Usbcan2Mutex> lock(info.rxMutex);
  if (waitMs == -1) {
    info.rxCond.wait(lock, ready);
  } else {
    const auto deadline =
        std::chrono::steady_clock::now() + std::chrono::milliseconds(static_cast<uint32_t>(waitMs));
    if (!info.rxCond.wait_until(lock, deadline, ready)) {
      return 0;
    }
  }
  uint32_t moved = 0;
  while (moved < maxFrames && !queue.empty()) {
    out[moved++] = queue.front();
    queue.pop_front();
  }
  return static_cast<int32_t>(moved);
}
