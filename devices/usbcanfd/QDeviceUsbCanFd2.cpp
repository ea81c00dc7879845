#include "QDeviceUsbCanFd2.h"

#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <memory>

#include "api/DriverFactory.h"
#include "api/QErrMgr.h"
#include "platform/QUserLog.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

namespace {

constexpr unsigned kTransferTimeoutMs = 1000;
constexpr uint32_t kQueryBudgetMs = 1500;
constexpr uint32_t kBaudInitBudgetMs = 2000;
constexpr uint32_t kTransmitBudgetMs = 2000;
constexpr unsigned kStreamReadTimeoutMs = 500;
constexpr uint32_t kRecoveryPeriodUs = 50000;
constexpr auto kThreadStopGrace = std::chrono::seconds(2);

QUserLog &logger() { return QUserLog::GetInstance(); }

// A transfer that fails at once (a vanished device) would otherwise turn a
// re-send loop into a busy loop; a millisecond keeps the cadence honest.
void pauseAfterFailedTransfer(int result) {
  if (result < 0 && result != LIBUSB_ERROR_TIMEOUT) {
    usleep(1000);
  }
}

} // namespace

std::unique_ptr<QDevice> makeUsbCanFdDevice() { return std::make_unique<QDeviceUsbCanFd2>(); }

bool QUserThreadObj::sleepUnlessStopped(std::chrono::microseconds duration) {
  std::unique_lock<std::mutex> guard(lock);
  return !wake.wait_for(guard, duration,
                        [this] { return stopRequest.load(std::memory_order_relaxed) != 0; });
}

// ===========================================================================
// Lifecycle
// ===========================================================================

QDeviceUsbCanFd2::QDeviceUsbCanFd2() {
  initRecursivePiMutex(&msgQueueMutex);
  initRecursivePiMutex(&cmdMutex);
}

QDeviceUsbCanFd2::~QDeviceUsbCanFd2() {
  taskThreadShutdown();
  pthread_mutex_destroy(&cmdMutex);
  pthread_mutex_destroy(&msgQueueMutex);
}

int QDeviceUsbCanFd2::openDevice(unsigned int type, unsigned int index, unsigned int) {
  if (openFlag.load(std::memory_order_relaxed) == 1) {
    return 1;
  }
  deviceType = type;
  deviceIndex = index;
  const UsbCanFdVariant &v = variant();
  chCount = v.channelCount;
  if (usbDevice.OpenUSBDevice(v.vendorId, v.productId, static_cast<int>(index)) != 1) {
    setLastError(WCAN_ERR_DEVICE_NOT_EXIST);
    return 0;
  }
  if (canGetDeviceVer() != 1) {
    usbDevice.CloseUSBDevice();
    setLastError(WCAN_ERR_DEVICE_INFO_GET);
    return 0;
  }
  txAckWait.store(0, std::memory_order_relaxed);
  taskThreadCreate();
  openFlag.store(1, std::memory_order_relaxed);
  return 1;
}

int QDeviceUsbCanFd2::closeDevice() {
  if (openFlag.load(std::memory_order_relaxed) != 1) {
    return 1;
  }
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

// ===========================================================================
// Command channel
// ===========================================================================

int QDeviceUsbCanFd2::sendCommand(const CmdFrame &frame, uint8_t *reply, int *replyLength,
                                  uint32_t timeoutMs, bool skipReadyCheck) {
  CmdFrame copy = frame;
  return usbCmdSend(copy.bytes.data(), copy.len, reply, replyLength, kEpCmdOut, kEpCmdIn, timeoutMs,
                    skipReadyCheck);
}

int QDeviceUsbCanFd2::usbCmdSend(uint8_t *command, int commandLength, uint8_t *reply,
                                 int *replyLength, uint8_t outEndpoint, uint8_t inEndpoint,
                                 uint32_t timeoutMs, bool skipReadyCheck) {
  cmdIdle.store(0, std::memory_order_relaxed);
  if (!skipReadyCheck) {
    if (isDeviceReady() != 0) {
      cmdIdle.store(1, std::memory_order_relaxed);
      return -1;
    }
    // Touched only: exchanges from different threads may interleave; a
    // reply taken by the wrong caller is recognised by its code.
    { QUserMutex touch(cmdMutex); }
  }
  if (timeoutMs == 0) {
    if (usbDevice.WriteUSBDevice(command, commandLength, outEndpoint, kTransferTimeoutMs) >= 1) {
      return 0;
    }
    cmdIdle.store(1, std::memory_order_relaxed);
    return -1;
  }
  enum class Last { Nothing, WriteFailed, ReadFailed, Matched } last = Last::Nothing;
  const int room = *replyLength;
  const uint32_t started = getCurMicroSec();
  // With no USB device open every write would fail at once: fail the same
  // way without waiting out the budget.
  const bool canSend = usbDevice.isOpen();
  if (!canSend) {
    last = Last::WriteFailed;
  }
  while (canSend && getLapseMicroSec(started) < timeoutMs * 1000) {
    const int wrote =
        usbDevice.WriteUSBDevice(command, commandLength, outEndpoint, kTransferTimeoutMs);
    if (wrote < 1) {
      last = Last::WriteFailed;
      pauseAfterFailedTransfer(wrote < 0 ? wrote : -1);
      continue;
    }
    const int got = usbDevice.ReadUSBDevice(reply, room, inEndpoint, kTransferTimeoutMs);
    if (got <= 0) {
      last = Last::ReadFailed;
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
  cmdIdle.store(1, std::memory_order_relaxed);
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
    pauseAfterFailedTransfer(got);
  }
  return -1;
}

int QDeviceUsbCanFd2::usbCmdSendByBulk(uint8_t *command, int commandLength, uint8_t *reply,
                                       int *replyLength, uint8_t outEndpoint, uint8_t inEndpoint,
                                       uint32_t timeoutMs) {
  cmdIdle.store(0, std::memory_order_relaxed);
  int result = 0;
  if (usbDevice.bulkWriteUSBDevice(command, commandLength, outEndpoint, kTransferTimeoutMs) == 0) {
    result = -1;
  } else if (timeoutMs != 0) {
    result = awaitBulkReply(command, reply, replyLength, inEndpoint, timeoutMs);
  }
  cmdIdle.store(1, std::memory_order_relaxed);
  return result;
}

int QDeviceUsbCanFd2::usbCmdExtSendByBulk(uint8_t *command, int commandLength, uint8_t *reply,
                                          int *replyLength, uint8_t outEndpoint, uint8_t inEndpoint,
                                          uint32_t timeoutMs) {
  cmdIdle.store(0, std::memory_order_relaxed);
  int result = 0;
  if (usbDevice.bulkWriteUSBDevice(command, commandLength, outEndpoint, kTransferTimeoutMs) < 1) {
    result = -1;
  } else if (timeoutMs != 0 && txAckWait.load(std::memory_order_relaxed) != 0) {
    result = awaitBulkReply(command, reply, replyLength, inEndpoint, timeoutMs);
  }
  cmdIdle.store(1, std::memory_order_relaxed);
  return result;
}

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

// ===========================================================================
// Channel initialisation and bit timing
// ===========================================================================

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

int QDeviceUsbCanFd2::stop(unsigned int channel) {
  if (channelInitialised(channel)) {
    canStop(static_cast<uint8_t>(channel));
    chInit[channel].store(0, std::memory_order_relaxed);
  }
  return clearBuffer(channel);
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

// ===========================================================================
// Transmit
// ===========================================================================

// Batches of at most kMaxBatch; a batch the adapter does not take whole ends
// the call with the count sent so far.
template <class Obj, class SendBatch>
int QDeviceUsbCanFd2::transmitInBatches(Obj *frames, unsigned int count, SendBatch sendBatch) {
  if (isDeviceReady() != 0) {
    return 0;
  }
  unsigned sent = 0;
  for (unsigned position = 0; position < count; position += kMaxBatch) {
    const unsigned batch = std::min(count - position, kMaxBatch);
    const unsigned n = static_cast<unsigned>(sendBatch(frames + position, batch));
    sent += n;
    if (n != batch) {
      break;
    }
  }
  return static_cast<int>(sent);
}

int QDeviceUsbCanFd2::transmit(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count) {
  return transmitInBatches(frames, count, [this, channel](_WCAN_CAN_OBJ *batch, unsigned n) {
    return transmitSingle(channel, batch, n);
  });
}

int QDeviceUsbCanFd2::transmitFD(unsigned int channel, _WCAN_CANFD_OBJ *frames,
                                 unsigned int count) {
  return transmitInBatches(frames, count, [this, channel](_WCAN_CANFD_OBJ *batch, unsigned n) {
    return transmitSingleFD(channel, batch, n);
  });
}

uint8_t QDeviceUsbCanFd2::txHeader(unsigned int channel) const {
  return channel < kChannelSlots ? headerByte[channel] : 0;
}

// The whole batch counts as sent once the adapter acknowledges it.
int QDeviceUsbCanFd2::sendTxFrame(TxFrame &frame, size_t length, unsigned int count) {
  uint8_t reply[kCmdFrameRoom];
  int replyLength = sizeof reply;
  return usbCmdExtSendByBulk(frame.data(), static_cast<int>(length), reply, &replyLength,
                             kEpDataOut, kEpAckIn, kTransmitBudgetMs) == 0
             ? static_cast<int>(count)
             : 0;
}

int QDeviceUsbCanFd2::transmitSingle(unsigned int channel, _WCAN_CAN_OBJ *frames,
                                     unsigned int count) {
  TxFrame frame;
  const size_t length = encodeCanBatch(txHeader(channel), channel, frames, count, frame);
  return sendTxFrame(frame, length, count);
}

int QDeviceUsbCanFd2::transmitSingleFD(unsigned int channel, _WCAN_CANFD_OBJ *frames,
                                       unsigned int count) {
  TxFrame frame;
  const size_t length = encodeCanFdBatch(txHeader(channel), channel, frames, count, frame);
  return sendTxFrame(frame, length, count);
}

// ===========================================================================
// Receive thread and queues
// ===========================================================================

// Runs `pass` until a stop is requested, then reports the exit to the stopper.
template <class Pass> void QUserThreadObj::runUntilStopped(Pass pass) {
  while (stopRequest.load(std::memory_order_relaxed) == 0) {
    pass();
  }
  {
    std::lock_guard<std::mutex> guard(lock);
    exited.store(1, std::memory_order_relaxed);
  }
  wake.notify_all();
}

void *dataRxThreadTask(void *device) {
  auto *self = static_cast<QDeviceUsbCanFd2 *>(device);
  self->dataThread.runUntilStopped([self] { self->dataReceiveTask(); });
  return nullptr;
}

void *msgRxThreadTask(void *device) {
  auto *self = static_cast<QDeviceUsbCanFd2 *>(device);
  self->msgThread.runUntilStopped([self] { self->msgReceiveTask(); });
  return nullptr;
}

void QDeviceUsbCanFd2::taskThreadCreate() { taskThreadStart(&dataThread, dataRxThreadTask); }

int QDeviceUsbCanFd2::taskThreadStart(QUserThreadObj *thread, void *(*entry)(void *)) {
  if (thread->running) {
    return static_cast<int>(thread->handle);
  }
  thread->stopRequest.store(0, std::memory_order_relaxed);
  thread->exited.store(0, std::memory_order_relaxed);
  const int result = pthread_create(&thread->handle, nullptr, entry, this);
  thread->running = result == 0;
  return result;
}

void QDeviceUsbCanFd2::taskThreadStop(QUserThreadObj *thread) {
  if (!thread->running) {
    return;
  }
  std::unique_lock<std::mutex> guard(thread->lock);
  thread->stopRequest.store(1, std::memory_order_relaxed);
  thread->wake.notify_all();
  const bool ended = thread->wake.wait_for(guard, kThreadStopGrace, [thread] {
    return thread->exited.load(std::memory_order_relaxed) != 0;
  });
  guard.unlock();
  if (!ended) {
    logger().Error("Thread Exit Fail...");
    pthread_cancel(thread->handle);
  }
  pthread_join(thread->handle, nullptr);
  thread->running = false;
}

void QDeviceUsbCanFd2::dataReceiveTask() {
  if (cmdIdle.load(std::memory_order_relaxed) == 1) {
    faultTimeHandle();
  }
  if (deviceFault.load(std::memory_order_relaxed) != 0) {
    waitForNextRecoveryAttempt();
    return;
  }
  uint8_t data[kStreamBufferLen];
  const int got = usbDevice.bulkReadUSBDevice(data, sizeof data, kEpStreamIn, kStreamReadTimeoutMs);
  if (got > 0) {
    usbRxDataProcess(data, static_cast<uint32_t>(got));
  } else if (got == 0) {
    dataThread.sleepUnlessStopped(std::chrono::microseconds(100));
  } else if (got != LIBUSB_ERROR_TIMEOUT) {
    // A lost device fails every read at once; pause so the pass does not spin.
    dataThread.sleepUnlessStopped(std::chrono::milliseconds(1));
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
  RxQueues::Producer producer(rxQueues);
  stream.feed(data, length, producer);
}

void QDeviceUsbCanFd2::usbRxDataBufferClr(uint8_t channel) {
  rxQueues.clear(channel);
  // Partly received stream data of every channel is discarded too; the
  // receive thread drops it before it parses its next read.
  streamResetRequested.store(true, std::memory_order_relaxed);
}

int QDeviceUsbCanFd2::receive(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count,
                              int waitMs) {
  return rxQueues.take(channel, frames, count, waitMs);
}

int QDeviceUsbCanFd2::receiveFD(unsigned int channel, _WCAN_CANFD_OBJ *frames, unsigned int count,
                                int waitMs) {
  return rxQueues.take(channel, frames, count, waitMs);
}

// ===========================================================================
// Fault recovery and channel status
// ===========================================================================

bool QDeviceUsbCanFd2::anyChannelInitialised() const {
  for (const auto &flag : chInit) {
    if (flag.load(std::memory_order_relaxed) != 0) {
      return true;
    }
  }
  return false;
}

void QDeviceUsbCanFd2::faultTimeHandle() {
  if (openFlag.load(std::memory_order_relaxed) != 1) {
    return;
  }
  if (deviceFault.load(std::memory_order_relaxed) != 0) {
    if (getLapseMicroSec(lastRecoveryAttempt) < kRecoveryPeriodUs) {
      return;
    }
    lastRecoveryAttempt = getCurMicroSec();
    if (linkDown()) {
      usbDevice.RestartUSBDevice();
    }
  } else {
    if (!anyChannelInitialised() || !linkDown()) {
      return;
    }
    deviceFault.store(-1, std::memory_order_relaxed);
    lastRecoveryAttempt = getCurMicroSec();
    usbDevice.RestartUSBDevice();
  }
  if (linkDown()) {
    return;
  }
  if (!reinitialiseChannels()) {
    usbDevice.RestartUSBDevice();
    return;
  }
  deviceFault.store(0, std::memory_order_relaxed);
  logger().Info("DRV Tip:USBCANFD OK...");
}

bool QDeviceUsbCanFd2::reinitialiseChannels() {
  for (unsigned ch = 0; ch < kChannelSlots; ++ch) {
    if (!channelInitialised(ch)) {
      continue;
    }
    _WCAN_INITFD_CONFIG saved;
    {
      std::lock_guard<std::mutex> guard(configMutex);
      saved = savedConfig[ch];
    }
    if (initCANFD(ch, &saved, true) != 1 || start(ch, true) != 1) {
      return false;
    }
  }
  return true;
}

void QDeviceUsbCanFd2::waitForNextRecoveryAttempt() {
  const uint32_t elapsed = getLapseMicroSec(lastRecoveryAttempt);
  const uint32_t left = elapsed < kRecoveryPeriodUs ? kRecoveryPeriodUs - elapsed : 0;
  dataThread.sleepUnlessStopped(std::chrono::microseconds(std::max<uint32_t>(left, 1000)));
}

int QDeviceUsbCanFd2::canChStatusGet(uint8_t channel, uint32_t *status) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  if (sendCommand(encodeStatusQuery(channel), reply, &replyLength, kQueryBudgetMs) != 0 ||
      replyLength < 11) {
    return 0;
  }
  *status = replyStatusWord(reply);
  return 1;
}

// ===========================================================================
// Acceptance filters
// ===========================================================================

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

// ===========================================================================
// Key/value settings
// ===========================================================================

namespace {

// The channel is the character in front of the pattern; only 0 and 1 can
// be addressed this way.
const char *matchKey(const char *key, const void *value, const char *pattern, uint8_t *channel) {
  if (key == nullptr || value == nullptr) {
    return nullptr;
  }
  const char *at = std::strstr(key, pattern);
  if (at == nullptr) {
    return nullptr;
  }
  // A pattern at the very start has no channel character in front of it;
  // it is rejected instead of reading before the text.
  const uint8_t ch = at == key ? 0xFF : char2Hex(at[-1]);
  if (ch > 1) {
    return nullptr;
  }
  *channel = ch;
  return static_cast<const char *>(value);
}

} // namespace

int QDeviceUsbCanFd2::keyIntValueGet(const char *key, const void *value, const char *pattern,
                                     uint8_t *channel, int *out) {
  const char *text = matchKey(key, value, pattern, channel);
  if (text == nullptr) {
    return -1;
  }
  *out = static_cast<int>(std::strtol(text, nullptr, 10));
  return 0;
}

int QDeviceUsbCanFd2::keyHexValueGet(const char *key, const void *value, const char *pattern,
                                     uint8_t *channel, uint32_t *out) {
  const char *text = matchKey(key, value, pattern, channel);
  if (text == nullptr) {
    return -1;
  }
  const char *digits = std::strstr(text, "0x") != nullptr ? text + 2 : text;
  // Eight digits are read; a shorter text is read only up to its end.
  unsigned char field[9] = {};
  std::strncpy(reinterpret_cast<char *>(field), digits, 8);
  *out = str2DWord(field);
  return 0;
}

int QDeviceUsbCanFd2::keyStrValueGet(const char *key, const void *value, const char *pattern,
                                     uint8_t *channel, const char **out) {
  const char *text = matchKey(key, value, pattern, channel);
  if (text == nullptr) {
    return -1;
  }
  *out = text;
  return 0;
}

int QDeviceUsbCanFd2::setValue(const char *key, const void *value) {
  uint8_t ch = 0;
  int number = 0;
  uint32_t hex = 0;
  const char *text = nullptr;
  if (keyIntValueGet(key, value, "/canfd_standard", &ch, &number) == 0) {
    return canIsoModeSet(ch, number);
  }
  if (keyIntValueGet(key, value, "/canfd_abit_baud_rate", &ch, &number) == 0) {
    return canAbaudrateSet(ch, number);
  }
  if (keyIntValueGet(key, value, "/canfd_dbit_baud_rate", &ch, &number) == 0) {
    return canDbaudrateSet(ch, number);
  }
  if (keyStrValueGet(key, value, "/baud_rate_custom", &ch, &text) == 0) {
    return canBaudCustom(ch, text);
  }
  if (keyIntValueGet(key, value, "/filter_clear", &ch, &number) == 0) {
    return canFilterClear(ch, number);
  }
  if (keyIntValueGet(key, value, "/filter_ack", &ch, &number) == 0) {
    return canFilterEnable(ch, number);
  }
  if (keyIntValueGet(key, value, "/filter_mode", &ch, &number) == 0) {
    return canFilterModeSet(ch, number);
  }
  if (keyHexValueGet(key, value, "/filter_start", &ch, &hex) == 0) {
    return canFilterStartIdSet(ch, hex);
  }
  if (keyHexValueGet(key, value, "/filter_end", &ch, &hex) == 0) {
    return canFilterEndIdSet(ch, hex);
  }
  return 1;
}

void *QDeviceUsbCanFd2::getValue(const char *) { return nullptr; }

int QDeviceUsbCanFd2::canIsoModeSet(uint8_t channel, int flag) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  presetIsoMode[channel] = flag != 0 ? 1 : 0;
  return 1;
}

int QDeviceUsbCanFd2::canAbaudrateSet(uint8_t channel, int bitRate) {
  if (channel >= kChannelSlots) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  uint32_t word = 0;
  if (aBitTimingGet(static_cast<uint32_t>(bitRate), &word) != 0) {
    setLastError(WCAN_ERR_BAUD_RATE_NOT_SUPPORTED);
    return 0;
  }
  presetAbitTiming[channel] = word;
  return 1;
}

int QDeviceUsbCanFd2::canDbaudrateSet(uint8_t channel, int bitRate) {
  if (channel >= kChannelSlots) {
    return 0;
  }
  uint32_t word = 0;
  if (dBitTimingGet(static_cast<uint32_t>(bitRate), &word) != 0) {
    setLastError(WCAN_ERR_BAUD_RATE_NOT_SUPPORTED);
    return 0;
  }
  presetDbitTiming[channel] = word;
  return 1;
}

namespace {

constexpr size_t kCustomFieldRoom = 64;

// Copies text[from, to) into a zeroed scratch field; false when it would not
// fit (the field is refused rather than overrun).
bool copyField(const char *from, const char *to, unsigned char (&field)[kCustomFieldRoom]) {
  const auto length = static_cast<size_t>(to - from);
  if (length >= kCustomFieldRoom) {
    return false;
  }
  std::memset(field, 0, sizeof field);
  std::memcpy(field, from, length);
  return true;
}

} // namespace

int QDeviceUsbCanFd2::canBaudCustom(uint8_t channel, const char *text) {
  if (channel >= kChannelSlots || text == nullptr) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  unsigned char field[kCustomFieldRoom];
  const char *open = std::strstr(text, ",(");
  if (open == nullptr) {
    return 0;
  }
  const char *reservedStart = open + 2;
  const char *reservedEnd = std::strchr(reservedStart, ',');
  // The first field is reserved: it must be present and fit, its value is unused.
  if (reservedEnd == nullptr || !copyField(reservedStart, reservedEnd, field)) {
    return 0;
  }
  const char *arbitrationStart = reservedEnd + 1;
  const char *arbitrationEnd = std::strchr(arbitrationStart, ',');
  if (arbitrationEnd == nullptr || !copyField(arbitrationStart, arbitrationEnd, field)) {
    return 0;
  }
  const uint32_t arbitrationWord = str2DWord(field);
  const char *dataStart = arbitrationEnd + 1;
  const char *dataEnd = std::strchr(dataStart, ')');
  if (dataEnd == nullptr || !copyField(dataStart, dataEnd, field)) {
    return 0;
  }
  presetAbitTiming[channel] = arbitrationWord;
  presetDbitTiming[channel] = str2DWord(field);
  return 1;
}
