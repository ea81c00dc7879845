// The classic family's device table, parameter checks, transfer primitives,
// and the open/close/init/start/reset/queue/board-information functions.
#include "devices/usbcan2/usbcan2.h"

#include <algorithm>
#include <cstring>

#include "api/QErrMgr.h"
#include "devices/usbcan2/Usbcan2Device.h"
#include "devices/usbcan2/Usbcan2Wire.h"
#include "platform/QUserLog.h"
#include "platform/QUserUtils.h"

using namespace usbcan2wire;

Usbcan2Mutex::Usbcan2Mutex() { initRecursivePiMutex(&mutex_); }
Usbcan2Mutex::~Usbcan2Mutex() { pthread_mutex_destroy(&mutex_); }

namespace {

devInfo devInfoList[kFamily.tableSize];

// Exists for its constructor and destructor only: the table is reset when the
// library is loaded and released when it is unloaded. Defined after the table
// so it is built after and destroyed before it.
class QLIBUSB {
public:
  QLIBUSB() { usbcan2Init(); }
  ~QLIBUSB() { usbcan2Exit(); }
  QLIBUSB(const QLIBUSB &) = delete;
  QLIBUSB &operator=(const QLIBUSB &) = delete;
};
QLIBUSB usbcan2LibUsb;

// Transfer time-outs of one write-then-read attempt.
struct AttemptTimeouts {
  unsigned int writeMs;
  unsigned int readMs;
};
constexpr AttemptTimeouts kLockedAttempt{100, 500};
constexpr AttemptTimeouts kDirectAttempt{500, 100};
constexpr unsigned int kSingleWriteMs = 100;
// A failed attempt that returned this fast is not retried before this long,
// so a vanished device does not turn the retry loop into a spin.
constexpr uint32_t kMinAttemptUs = 10000;

void paceAttempt(uint32_t attemptStart, uint32_t loopStart, uint32_t budgetUs) {
  const uint32_t spent = getLapseMicroSec(attemptStart);
  const uint32_t left = budgetUs - std::min(budgetUs, getLapseMicroSec(loopStart));
  if (spent < kMinAttemptUs) {
    pauseFor(std::chrono::microseconds(std::min(kMinAttemptUs - spent, left)));
  }
}

// The write-then-read exchange shared by the locked and the direct command
// paths; the whole pair is repeated until a reply comes or time runs out. A
// read never waits past the budget, and a vanished device ends the exchange
// at once (its handle never works again).
int32_t commandExchange(devInfo *info, uint8_t *cmd, int cmdLen, uint8_t *reply, int *replyLen,
                        uint8_t outEp, uint8_t inEp, uint32_t timeoutMs, AttemptTimeouts attempt) {
  const std::shared_ptr<QUserLibUsb> dev = usbcan2Device(info);
  if (timeoutMs == 0) {
    const int written = dev ? dev->WriteUSBDevice(cmd, cmdLen, outEp, kSingleWriteMs) : -1;
    return written > 0 ? 0 : -1;
  }
  const uint32_t budgetUs = timeoutMs * 1000u;
  const uint32_t start = getCurMicroSec();
  int32_t result = -1;
  do {
    const uint32_t attemptStart = getCurMicroSec();
    const int written = dev ? dev->WriteUSBDevice(cmd, cmdLen, outEp, attempt.writeMs) : -1;
    int failure = written;
    if (written > 0) {
      const uint32_t leftMs = (budgetUs - std::min(budgetUs, getLapseMicroSec(start))) / 1000u;
      const int got =
          dev->ReadUSBDevice(reply, *replyLen, inEp, std::clamp(leftMs, 1u, attempt.readMs));
      if (got > 0) {
        *replyLen = got;
        return 0;
      }
      result = -2;
      failure = got;
    } else {
      result = -1;
    }
    if (!dev || failure == LIBUSB_ERROR_NO_DEVICE) {
      break;
    }
    paceAttempt(attemptStart, start, budgetUs);
  } while (getLapseMicroSec(start) < budgetUs);
  setLastError(WCAN_ERR_USB_COMMAND);
  return result;
}

// Marks a transfer in progress for the worker, which runs fault handling
// only while none is.
class BusyMark {
public:
  explicit BusyMark(devInfo *info) : info_(info) {
    info_->exchangesInFlight.fetch_add(1, std::memory_order_relaxed);
  }
  ~BusyMark() { info_->exchangesInFlight.fetch_sub(1, std::memory_order_relaxed); }
  BusyMark(const BusyMark &) = delete;
  BusyMark &operator=(const BusyMark &) = delete;

private:
  devInfo *info_;
};

void resetRecord(devInfo &info, uint32_t index) {
  info.usbDev.reset();
  info.cmdFailed = 0;
  info.devIndex = index;
  info.txAckMode = 1;
  info.chInit[0] = 0;
  info.chInit[1] = 0;
}

// One command on the interrupt endpoints, through the locked path or the
// direct one that link recovery uses; the reply is left in `reply`.
template <size_t N>
int32_t exchangeCommand(devInfo *info, Command &cmd, uint8_t (&reply)[N], uint32_t timeoutMs,
                        bool direct = false) {
  int replyLen = N;
  return direct ? usbCmdSendDirect(info, cmd.data(), cmd.length(), reply, &replyLen, kCmdOutEp,
                                   kCmdInEp, timeoutMs)
                : usbCmdSend(info, cmd.data(), cmd.length(), reply, &replyLen, kCmdOutEp, kCmdInEp,
                             timeoutMs);
}

uint32_t sendInit(devInfo *info, uint32_t channel, const _WCAN_INIT_CONFIG &config, bool direct) {
  std::optional<Command> cmd = encodeInit(channel, config);
  if (!cmd) {
    QUserLog::GetInstance().Error("Warning:USBCAN <ch:%d> Init Fail->Para Err,Unkown Mode:%d \n",
                                  channel, config.mode);
    return 0;
  }
  uint8_t reply[128] = {};
  const int32_t sent = exchangeCommand(info, *cmd, reply, 1000, direct);
  if (sent >= 0 && initAccepted(ByteReader(reply, sizeof reply))) {
    QUserLog::GetInstance().Info("DRV Tip:USBCAN <ch:%d> Init Success", channel);
    return 1;
  }
  QUserLog::GetInstance().Error("DRV Tip:USBCAN <ch:%d> Init Fail", channel);
  setLastError(WCAN_ERR_USB_COMMAND);
  return 0;
}

// One board-information query into a fresh zeroed buffer; the received count
// (or the capacity when nothing came) is left in `len`.
int32_t query(devInfo *info, Code code, uint8_t (&reply)[100], int &len) {
  std::memset(reply, 0, sizeof reply);
  len = sizeof reply;
  Command cmd = encodeQuery(code);
  return usbCmdSend(info, cmd.data(), cmd.length(), reply, &len, kCmdOutEp, kCmdInEp, 500);
}

} // namespace

devInfo &usbcan2Record(uint32_t index) { return devInfoList[index]; }

std::shared_ptr<QUserLibUsb> usbcan2Device(devInfo *info) {
  QUserMutex guard(info->threadMutex.native());
  return info->usbDev;
}

uint32_t usbcan2Init() {
  for (uint32_t i = 0; i < kFamily.tableSize; ++i) {
    resetRecord(devInfoList[i], i);
  }
  return 1;
}

// Closing every device is the host's duty; a worker still running is stopped
// here all the same, so its device is not released under it.
uint32_t usbcan2Exit() {
  for (devInfo &info : devInfoList) {
    if (std::shared_ptr<QUserLibUsb> dev = usbcan2DetachDevice(&info)) {
      info.rxQueue.close();
      usbcan2ThreadStop(&info);
    }
    info.cmdFailed = 0;
    info.chInit[0] = 0;
    info.chInit[1] = 0;
  }
  return 1;
}

uint32_t usbcan2DevParaIsValid(uint32_t type, uint32_t index, uint32_t channel) {
  if (!isFamilyType(type)) {
    setLastError(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
    return 0;
  }
  if (index >= kFamily.tableSize || channel >= kFamily.channelCount) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  return 1;
}

uint32_t usbcan2IsOpen(uint32_t type, uint32_t index) {
  if (!usbcan2DevParaIsValid(type, index, 0)) {
    return 0;
  }
  return usbcan2Device(&devInfoList[index]) ? 1 : 0;
}

// A channel beyond the table is never initialised.
uint32_t usbcan2IsInit(uint32_t type, uint32_t index, uint32_t channel) {
  if (!usbcan2IsOpen(type, index) || channel >= kFamily.channelCount) {
    return 0;
  }
  return devInfoList[index].chInit[channel] != 0 ? 1 : 0;
}

int32_t usbcan2IsReady(const devInfo *info) { return info->linkFaulted() ? -1 : 0; }

std::shared_ptr<QUserLibUsb> usbcan2DetachDevice(devInfo *info) {
  QUserMutex guard(info->threadMutex.native());
  return std::move(info->usbDev);
}

int32_t usbCmdSend(devInfo *info, uint8_t *cmd, int cmdLen, uint8_t *reply, int *replyLen,
                   uint8_t outEp, uint8_t inEp, uint32_t timeoutMs) {
  QUserMutex guard(info->cmdMutex.native());
  BusyMark busy(info);
  if (usbcan2IsReady(info) == -1) {
    return -1;
  }
  return commandExchange(info, cmd, cmdLen, reply, replyLen, outEp, inEp, timeoutMs,
                         kLockedAttempt);
}

// No lock and no link check: link recovery runs through here while every
// locked command is refused.
int32_t usbCmdSendDirect(devInfo *info, uint8_t *cmd, int cmdLen, uint8_t *reply, int *replyLen,
                         uint8_t outEp, uint8_t inEp, uint32_t timeoutMs) {
  BusyMark busy(info);
  return commandExchange(info, cmd, cmdLen, reply, replyLen, outEp, inEp, timeoutMs,
                         kDirectAttempt);
}

int32_t usbDataSend(devInfo *info, uint8_t *data, int dataLen, uint8_t *reply, int *replyLen,
                    uint8_t outEp, uint8_t inEp, uint32_t timeoutMs) {
  BusyMark busy(info);
  const std::shared_ptr<QUserLibUsb> dev = usbcan2Device(info);
  const int written =
      (timeoutMs != 0 && dev) ? dev->bulkWriteUSBDevice(data, dataLen, outEp, timeoutMs) : 0;
  if (written > 0) {
    if (info->txAckMode != 1) {
      return 0;
    }
    const int got = dev->ReadUSBDevice(reply, *replyLen, inEp, timeoutMs);
    if (got > 0) {
      *replyLen = got;
      return 0;
    }
  }
  setLastError(WCAN_ERR_USB_COMMAND);
  return -1;
}

uint32_t usbcan2OpenDevice(uint32_t type, uint32_t index, uint32_t /*reserved*/) {
  if (!usbcan2DevParaIsValid(type, index, 0)) {
    return 0;
  }
  if (usbcan2IsOpen(type, index)) {
    return 1;
  }
  devInfo &info = devInfoList[index];
  auto dev = std::make_shared<QUserLibUsb>();
  const int opened = dev->OpenUSBDevice(kFamily.vendorId, kFamily.productId, index);
  if (opened != 1) {
    QUserLog::GetInstance().Error("USBCAN Open Fail...");
    // An adapter this process already holds (found under another index
    // after an unplug) is not opened a second time.
    if (opened == QUserLibUsb::kOpenedElsewhere) {
      setLastError(WCAN_ERR_PARAMETER);
    }
    return 0;
  }
  {
    QUserMutex guard(info.threadMutex.native());
    info.usbDev = dev;
  }
  info.txAckMode = 0;
  info.rxQueue.open();
  usbcan2ThreadStart(&info, *dev);
  info.cmdFailed = 0;
  return 1;
}

// Receivers waiting on the queues are woken first. The worker is stopped
// before the device is released: it may be inside a read on it.
uint32_t usbcan2CloseDevice(uint32_t type, uint32_t index) {
  if (!usbcan2DevParaIsValid(type, index, 0)) {
    return 0;
  }
  if (!usbcan2IsOpen(type, index)) {
    return 1;
  }
  devInfo &info = devInfoList[index];
  info.rxQueue.close();
  for (uint32_t channel = 0; channel < kFamily.channelCount; ++channel) {
    Command cmd = encodeReset(channel);
    uint8_t reply[100] = {};
    exchangeCommand(&info, cmd, reply, 100);
  }
  std::shared_ptr<QUserLibUsb> dev = usbcan2DetachDevice(&info);
  info.chInit[0] = 0;
  info.chInit[1] = 0;
  usbcan2ThreadStop(&info);
  dev->CloseUSBDevice();
  dev.reset();
  info.cmdFailed = 0;
  return 1;
}

uint32_t usbcan2CmdInitSend(uint32_t type, uint32_t index, uint32_t channel,
                            const _WCAN_INIT_CONFIG *config, bool direct) {
  if (!usbcan2IsOpen(type, index)) {
    setLastError(WCAN_ERR_DEVICE_NOT_OPENED);
    return 0;
  }
  return sendInit(&devInfoList[index], channel, *config, direct);
}

int32_t usbcan2InitCAN(uint32_t type, uint32_t index, uint32_t channel,
                       const _WCAN_INIT_CONFIG *config) {
  if (!usbcan2DevParaIsValid(type, index, channel)) {
    return 0;
  }
  if (!config) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  const uint32_t result = usbcan2CmdInitSend(type, index, channel, config, false);
  devInfo &info = devInfoList[index];
  if (result != 1) {
    info.cmdFailed = 1;
    return static_cast<int32_t>(result);
  }
  info.cmdFailed = 0;
  {
    QUserMutex guard(info.threadMutex.native());
    info.savedInit[channel] = *config;
  }
  info.chInit[channel] = 1;
  usbcan2ClearBuffer(type, index, channel);
  return 1;
}

// A start that was written but not answered counts as done: only a failed
// write is a failure.
int32_t usbcan2Start(uint32_t type, uint32_t index, uint32_t channel, bool direct) {
  if (!usbcan2IsInit(type, index, channel)) {
    setLastError(WCAN_ERR_CAN_NOT_INITIALIZED);
    return 0;
  }
  devInfo &info = devInfoList[index];
  Command cmd = encodeStart(channel);
  uint8_t reply[100] = {};
  const int32_t sent = exchangeCommand(&info, cmd, reply, 200, direct);
  if (sent == -1) {
    QUserLog::GetInstance().Error("USBCAN <ch:%d> 启动失败", channel);
    info.cmdFailed = 1;
    return 0;
  }
  info.cmdFailed = 0;
  return 1;
}

int32_t usbcan2StartCAN(uint32_t type, uint32_t index, uint32_t channel) {
  return usbcan2Start(type, index, channel, false);
}

// The channel stays initialised for the driver after a reset.
uint32_t usbcan2ResetCAN(uint32_t type, uint32_t index, uint32_t channel) {
  if (!usbcan2IsOpen(type, index)) {
    return 0;
  }
  devInfo &info = devInfoList[index];
  Command cmd = encodeReset(channel);
  uint8_t reply[100] = {};
  exchangeCommand(&info, cmd, reply, 0);
  usbcan2ClearBuffer(type, index, channel);
  // Readers waiting on the reset channel return.
  info.rxQueue.interrupt(channel == 0 ? 0 : 1);
  info.cmdFailed = 0;
  return 1;
}

namespace {

// Whether the channel's queue may be used: 0 with the error set for a
// channel that is not initialised.
bool queueUsable(uint32_t type, uint32_t index, uint32_t channel) {
  if (!usbcan2IsInit(type, index, channel)) {
    setLastError(WCAN_ERR_CAN_NOT_INITIALIZED);
    return false;
  }
  return true;
}

} // namespace

uint32_t usbcan2ClearBuffer(uint32_t type, uint32_t index, uint32_t channel) {
  if (!queueUsable(type, index, channel)) {
    return 0;
  }
  devInfoList[index].rxQueue.clear(channel);
  return 1;
}

uint32_t usbcan2GetReceiveNum(uint32_t type, uint32_t index, uint32_t channel) {
  return queueUsable(type, index, channel) ? devInfoList[index].rxQueue.count(channel, 0) : 0;
}

// Only the first reply is checked; a later query that fails leaves the zeros
// of its cleared buffer in the record.
uint32_t usbcan2ReadBoardInfo(uint32_t type, uint32_t index, _WCAN_BOARD_INFO *boardInfo) {
  if (!usbcan2IsOpen(type, index)) {
    setLastError(WCAN_ERR_DEVICE_NOT_OPENED);
    return 0;
  }
  if (!boardInfo) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  devInfo *info = &devInfoList[index];
  uint8_t reply[100];
  int len = 0;
  if (query(info, kCodeHwVersion, reply, len) < 0 || len != 6) {
    QUserLog::GetInstance().Error("USBCAN 获取板卡信息失败");
    return 0;
  }
  const ByteReader r(reply, sizeof reply);
  boardInfo->hwVersion = versionWord(r);
  query(info, kCodeFwVersion, reply, len);
  boardInfo->fwVersion = versionWord(r);
  query(info, kCodeChannelCount, reply, len);
  boardInfo->canNum = lastByte(r, static_cast<size_t>(len));
  query(info, kCodeSerial, reply, len);
  copyText(r, boardInfo->serialNum, sizeof boardInfo->serialNum);
  query(info, kCodeHwType, reply, len);
  copyText(r, boardInfo->hwType, sizeof boardInfo->hwType);
  info->cmdFailed = 0;
  return 1;
}
