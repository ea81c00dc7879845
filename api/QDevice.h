// SPDX-License-Identifier: MIT
// The driver interface behind the exported functions for the object-based
// families (CAN FD adapter and recorder). The slot order is fixed.
#pragma once

#include <atomic>

#include "wcan.h"

class QDevice {
public:
  QDevice() = default;
  virtual ~QDevice() = default;
  QDevice(const QDevice &) = delete;
  QDevice &operator=(const QDevice &) = delete;

  virtual int openDevice(unsigned int devType, unsigned int devIndex, unsigned int reserved) = 0;
  virtual int closeDevice() = 0;
  virtual int initCAN(unsigned int channel, _WCAN_INIT_CONFIG *config) = 0;
  virtual int initCANFD(unsigned int channel, _WCAN_INITFD_CONFIG *config) = 0;
  virtual int getBoardInf(_WCAN_BOARD_INFO *info) = 0;
  virtual int isDeviceOnLine() = 0;
  virtual int transmit(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count) = 0;
  virtual int transmitFD(unsigned int channel, _WCAN_CANFD_OBJ *frames, unsigned int count) = 0;
  virtual int receiveFD(unsigned int channel, _WCAN_CANFD_OBJ *frames, unsigned int count,
                        int waitTime) = 0;
  virtual int receive(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count,
                      int waitTime) = 0;
  virtual int start(unsigned int channel) = 0;
  virtual int stop(unsigned int channel) = 0;
  virtual int clearBuffer(unsigned int channel) = 0;
  virtual int getReceiveNum(unsigned int channel, unsigned char frameKind) = 0;
  virtual int transmitData(unsigned char *data, unsigned int length) = 0;
  virtual int setFliter(unsigned int channel, _WCAN_FLITER_CONFIG *config) = 0;
  // The channel's receive event (a descriptor readable while frames are
  // queued); -1 for a channel without one.
  virtual int receiveEvent(unsigned int) { return -1; }
  virtual int RecordSettingSet(unsigned int, _WCAN_RECORD_CONFIG *) { return 0; }
  virtual int RecordSettingGet(unsigned int, _WCAN_RECORD_CONFIG *) { return 0; }
  virtual int RecordCmdExecute(unsigned int, unsigned int, _WCAN_FLITER_INFO *,
                               _WCAN_FLITER_CONFIG *) {
    return 0;
  }

  // Written by WCAN_OpenDevice after a successful openDevice; unset before.
  unsigned int devType = 0;
  unsigned int devIndex = 0;

  // Set by WCAN_CloseDevice before it closes the driver: calls that still
  // hold the object (on other threads) then answer "Device Not Opened!".
  bool retired() const { return retired_.load(std::memory_order_acquire); }
  void retire() { retired_.store(true, std::memory_order_release); }

private:
  std::atomic<bool> retired_{false};
};
