// SPDX-License-Identifier: MIT
// Driver of the USB CAN FD adapter family (device types 41, 42, 43, 64, 65,
// 66, 67). The class is implemented by concern, one file each:
//   UsbCanFdCommand.cpp    command exchanges and the raw pass-through
//   UsbCanFdLifecycle.cpp  construction, open, close, versions, board info
//   UsbCanFdChannel.cpp    bit timing, channel init, start, stop, buffers
//   UsbCanFdTransmit.cpp   transmit batches
//   UsbCanFdReceive.cpp    the receive thread's reads, the queues
//   UsbCanFdRecovery.cpp   fault recovery and channel status
//   UsbCanFdFilters.cpp    acceptance filters
//   UsbCanFdSettings.cpp   key/value settings
#pragma once

#include <pthread.h>

#include <algorithm>
#include <atomic>
#include <cstdint>
#include <deque>
#include <mutex>

#include "UsbCanFdWire.h"
#include "api/QDevice.h"
#include "platform/AdapterWorker.h"
#include "platform/CommandExchange.h"
#include "platform/FrameQueues.h"
#include "platform/QUserLibUsb.h"
#include "platform/QUserThread.h"

// One read of the (never started) message thread.
struct MSG_OBJ {
  unsigned char data[64];
  int32_t length;
};

class QDeviceUsbCanFd2 : public QDevice, private AdapterDuties {
public:
  QDeviceUsbCanFd2();
  ~QDeviceUsbCanFd2() override;

  // --- QDevice slots ---
  int openDevice(unsigned int deviceType, unsigned int deviceIndex, unsigned int reserved) override;
  int closeDevice() override;
  int initCAN(unsigned int channel, _WCAN_INIT_CONFIG *config) override;
  int initCANFD(unsigned int channel, _WCAN_INITFD_CONFIG *config) override;
  int getBoardInf(_WCAN_BOARD_INFO *info) override;
  int isDeviceOnLine() override { return 2; }
  int transmit(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count) override;
  int transmitFD(unsigned int channel, _WCAN_CANFD_OBJ *frames, unsigned int count) override;
  int receiveFD(unsigned int channel, _WCAN_CANFD_OBJ *frames, unsigned int count,
                int waitMs) override;
  int receive(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count, int waitMs) override;
  int start(unsigned int channel) override { return start(channel, false); }
  int stop(unsigned int channel) override;
  int clearBuffer(unsigned int channel) override;
  int getReceiveNum(unsigned int channel, unsigned char kind) override;
  int receiveEvent(unsigned int channel) override {
    return channel < chCount ? rxQueues.receiveEvent(channel) : -1;
  }
  int transmitData(unsigned char *data, unsigned int length) override {
    return transmitData(data, length, false);
  }
  int setFliter(unsigned int channel, _WCAN_FLITER_CONFIG *config) override;

  // --- command channel ---
  int transmitData(unsigned char *data, unsigned int length, bool skipReadyCheck);

  // --- lifecycle ---
  int canGetDeviceVer();
  int getDeviceInf(_WCAN_BOARD_INFO *info);
  int isDeviceReady() const { return worker.recovery().faulted() ? -1 : 0; }
  bool isOpen() const { return openFlag.load(std::memory_order_relaxed) == 1; }
  uint16_t firstVersion() const { return version1; }
  uint16_t secondVersion() const { return version2; }
  unsigned channelCount() const { return chCount; }

  // --- channel set-up ---
  int initCANFD(unsigned int channel, const _WCAN_INITFD_CONFIG *config, bool skipReadyCheck);
  int initCANFDCmdSend(unsigned int channel, const _WCAN_INITFD_CONFIG *config,
                       bool skipReadyCheck);
  int canFdBaudInit(uint8_t channel, uint8_t modeByte4, uint8_t modeByte5,
                    uint8_t arbitrationClockMHz, uint8_t dataClockMHz, uint32_t arbitrationWord,
                    uint32_t dataWord, bool skipReadyCheck);
  int aBitTimingGet(uint32_t bitRate, uint32_t *word) const;
  int dBitTimingGet(uint32_t bitRate, uint32_t *word) const;
  // A channel number past 255 must not wrap onto a real channel: it is
  // refused like any other channel out of range.
  int start(unsigned int channel, bool skipReadyCheck) {
    return canStart(static_cast<uint8_t>(std::min(channel, 0xFFu)), skipReadyCheck);
  }
  int canStart(uint8_t channel, bool skipReadyCheck);
  int canStop(uint8_t channel);
  bool channelInitialised(unsigned channel) const {
    return channel < usbcanfd::kChannelSlots && chInit[channel].load(std::memory_order_relaxed);
  }

  // --- transmit ---
  int transmitSingle(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count);
  int transmitSingleFD(unsigned int channel, _WCAN_CANFD_OBJ *frames, unsigned int count);

  // --- receive ---
  void usbRxDataProcess(const uint8_t *data, uint32_t length);
  void usbRxDataBufferClr(uint8_t channel);

  // --- fault recovery and status ---
  void faultTimeHandle();
  int canChStatusGet(uint8_t channel, uint32_t *status);

  // --- acceptance filters ---
  int canFilterModeSet(uint8_t channel, int mode);
  int canFilterStartIdSet(uint8_t channel, uint32_t id);
  int canFilterEndIdSet(uint8_t channel, uint32_t id);
  int canFilterClear(uint8_t channel, int value);
  int canFilterEnable(uint8_t channel, int value);
  uint8_t filterState(unsigned channel) const { return filterSetupState[channel]; }
  uint32_t filterStart(unsigned channel) const { return filterStartId[channel]; }

  // --- key/value settings ---
  int setValue(const char *key, const void *value);
  void *getValue(const char *key);
  static int keyIntValueGet(const char *key, const void *value, const char *pattern,
                            uint8_t *channel, int *out);
  static int keyHexValueGet(const char *key, const void *value, const char *pattern,
                            uint8_t *channel, uint32_t *out);
  static int keyStrValueGet(const char *key, const void *value, const char *pattern,
                            uint8_t *channel, const char **out);
  int canIsoModeSet(uint8_t channel, int flag);
  int canAbaudrateSet(uint8_t channel, int bitRate);
  int canDbaudrateSet(uint8_t channel, int bitRate);
  int canBaudCustom(uint8_t channel, const char *text);
  uint8_t isoMode(unsigned channel) const { return presetIsoMode[channel]; }
  uint32_t abitPreset(unsigned channel) const { return presetAbitTiming[channel]; }
  uint32_t dbitPreset(unsigned channel) const { return presetDbitTiming[channel]; }

private:
  // AdapterDuties, run by the supervision thread and (the stream's bytes)
  // the event thread.
  bool commandIdle() const override { return commands.idle(); }
  bool anyChannelInitialised() const override;
  bool replayChannels() override;
  void linkReopened() override { stream.reset(); }
  uint8_t streamEndpoint() const override { return usbcanfd::kEpStreamIn; }
  size_t streamTransferBytes() const override { return usbcanfd::kStreamBufferLen; }
  void streamData(const uint8_t *data, size_t length) override {
    usbRxDataProcess(data, static_cast<uint32_t>(length));
  }

  usbcanfd::UsbCanFdVariant variant() const { return usbcanfd::variantFor(deviceType); }
  // 0 on success, -1 not written or device not ready, -2 no matching reply.
  int sendCommand(const usbcanfd::CmdFrame &frame, uint8_t *reply, int *replyLength,
                  uint32_t timeoutMs, bool skipReadyCheck = false);
  int sendFilter(usbcanfd::FilterSub sub, uint8_t channel, uint32_t firstId, uint32_t lastId);
  template <class Obj, class SendBatch>
  int transmitInBatches(Obj *frames, unsigned int count, SendBatch sendBatch);
  uint8_t txHeader(unsigned int channel) const;
  int sendTxFrame(usbcanfd::TxFrame &frame, size_t length, unsigned int count);

  void taskThreadCreate();
  void taskThreadStop(QUserThreadObj *thread) { thread->stop(); }
  void taskThreadShutdown() { worker.stop(); }
  void msgReceiveTask();

  AdapterWorker worker{"DRV Tip:USBCANFD OK..."};
  QUserThreadObj msgThread;
  unsigned deviceType = 0;
  unsigned deviceIndex = 0;
  unsigned chCount = 0;
  std::atomic<uint32_t> openFlag{0};
  uint16_t version1 = 0;
  uint16_t version2 = 0;
  std::atomic<uint8_t> txAckWait{1};
  usbcanfd::StreamAssembler stream;
  std::atomic<bool> streamResetRequested{false};
  std::deque<MSG_OBJ> msgQueue;
  FrameQueues rxQueues{usbcanfd::kChannelSlots}; // holds the data queue mutex
  pthread_mutex_t msgQueueMutex;
  QUserLibUsb usbDevice;
  CommandExchange commands{&worker.recovery()};
  // Saved configurations and kept mode bytes are written by the caller's
  // thread and read by fault recovery on the receive thread.
  std::mutex configMutex;
  _WCAN_INITFD_CONFIG savedConfig[usbcanfd::kChannelSlots] = {};
  std::atomic<uint8_t> chInit[usbcanfd::kChannelSlots] = {};
  uint8_t presetIsoMode[usbcanfd::kChannelSlots] = {};
  uint8_t keptMode[usbcanfd::kChannelSlots] = {};
  uint32_t presetAbitTiming[usbcanfd::kChannelSlots] = {};
  uint32_t presetDbitTiming[usbcanfd::kChannelSlots] = {};
  uint8_t headerByte[usbcanfd::kChannelSlots] = {};
  uint8_t filterSetupState[usbcanfd::kChannelSlots] = {};
  uint8_t filterMode[usbcanfd::kChannelSlots] = {};
  uint32_t filterStartId[usbcanfd::kChannelSlots] = {};
};
