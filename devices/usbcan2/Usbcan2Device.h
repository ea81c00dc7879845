// SPDX-License-Identifier: MIT
// Internals of the classic family shared by its source files: the per-index
// device record, the table of them, and the transfer primitives every command
// goes through.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>
#include <memory>

#include "devices/usbcan2/Usbcan2Wire.h"
#include "platform/AdapterWorker.h"
#include "platform/CommandExchange.h"
#include "platform/FrameQueues.h"
#include "platform/QUserLibUsb.h"
#include "wcan.h"

// A pthread mutex, recursive with priority inheritance, usable both with
// QUserMutex and with the standard lock templates.
class Usbcan2Mutex {
public:
  Usbcan2Mutex();
  ~Usbcan2Mutex();
  Usbcan2Mutex(const Usbcan2Mutex &) = delete;
  Usbcan2Mutex &operator=(const Usbcan2Mutex &) = delete;
  void lock() { pthread_mutex_lock(&mutex_); }
  void unlock() { pthread_mutex_unlock(&mutex_); }
  pthread_mutex_t &native() { return mutex_; }

private:
  pthread_mutex_t mutex_;
};

// One record of the table: the device open under that index, its worker
// thread (the receive side and link recovery, which it runs through the
// AdapterDuties below) and its queues.
struct devInfo final : AdapterDuties {
  AdapterWorker worker{"DRV Tip:USBCAN OK..."};
  Usbcan2Mutex threadMutex; // usbDev and savedInit
  std::atomic<uint32_t> chInit[2] = {{0}, {0}};
  FrameQueues rxQueue{2};
  std::atomic<uint32_t> cmdFailed{0};
  // Shared with every call working on the device, so a close on another
  // thread never frees it under a transfer.
  std::shared_ptr<QUserLibUsb> usbDev;
  uint32_t devIndex = 0;
  _WCAN_INIT_CONFIG savedInit[2] = {};
  std::atomic<uint8_t> txAckMode{1};
  CommandExchange commands{&worker.recovery()};
  // The worker's reassembly of the receive stream, new at every open.
  std::unique_ptr<usbcan2wire::RxReassembler> reassembler;

  bool linkFaulted() const { return worker.recovery().faulted(); }

  // AdapterDuties, run by the worker.
  bool commandIdle() const override { return commands.idle(); }
  bool anyChannelInitialised() const override { return chInit[0] != 0 || chInit[1] != 0; }
  bool replayChannels() override;
  void linkReopened() override { reassembler->clear(); }
  uint8_t streamEndpoint() const override { return usbcan2wire::kDataInEp; }
  size_t streamTransferBytes() const override { return usbcan2wire::kReadChunk; }
  void streamData(const uint8_t *data, size_t length) override;
};

devInfo &usbcan2Record(uint32_t index);
// The record's device, taken under threadMutex; null while closed.
std::shared_ptr<QUserLibUsb> usbcan2Device(devInfo *info);
// Takes the device out of the record: from then on it counts as closed.
std::shared_ptr<QUserLibUsb> usbcan2DetachDevice(devInfo *info);

uint32_t usbcan2Init();
uint32_t usbcan2Exit();
uint32_t usbcan2DevParaIsValid(uint32_t type, uint32_t index, uint32_t channel);
uint32_t usbcan2IsOpen(uint32_t type, uint32_t index);
uint32_t usbcan2IsInit(uint32_t type, uint32_t index, uint32_t channel);

// 0 on success; -1 not written (or link lost), -2 no reply. `replyLen`
// carries the reply capacity in and the bytes received out. The direct form
// is link recovery's.
int32_t usbCmdSend(devInfo *info, uint8_t *cmd, int cmdLen, uint8_t *reply, int *replyLen,
                   uint32_t timeoutMs, bool direct = false);

uint32_t usbcan2CmdInitSend(uint32_t type, uint32_t index, uint32_t channel,
                            const _WCAN_INIT_CONFIG *config, bool direct);
int32_t usbcan2Start(uint32_t type, uint32_t index, uint32_t channel, bool direct);

void usbcan2ThreadStart(devInfo *info, QUserLibUsb &dev);
void usbcan2ThreadStop(devInfo *info);
void usbcan2FaultTimeHandle(devInfo *info);

int usbcan2DevRelayStatusSetExcute(devInfo *info, uint8_t relay1, uint8_t relay2);
int usbcan2DevRelayStatusGetExcute(devInfo *info, uint8_t *relay1, uint8_t *relay2);
int usbcan2DevBaudParaGetExcute(devInfo *info, uint32_t channel, uint8_t *para1, uint8_t *para2);
int usbcan2DevChStateGetExcute(devInfo *info, uint32_t channel, uint8_t *state1, uint8_t *state2,
                               uint8_t *state3);
int usbcan2DevDataTransferExcute(devInfo *info, uint8_t *buffer, int32_t length, bool direct);
