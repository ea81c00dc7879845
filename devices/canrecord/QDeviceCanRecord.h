// SPDX-License-Identifier: MIT
// Driver of the CAN recorder (types 61 and 62). The recorder stores bus
// traffic by itself; the host only configures recording, manages recording
// filters and reads board information, each by one synchronous request/reply
// exchange. No threads, no queues, no frame path.
#pragma once

#include <cstdint>

#include "CanRecordWire.h"
#include "api/QDevice.h"
#include "platform/CommandExchange.h"
#include "platform/QUserLibUsb.h"

class QDeviceCanRecord : public QDevice {
public:
  QDeviceCanRecord() = default;
  ~QDeviceCanRecord() override;

  int openDevice(unsigned int devType, unsigned int devIndex, unsigned int reserved) override;
  int closeDevice() override;
  int initCAN(unsigned int channel, _WCAN_INIT_CONFIG *config) override;
  int initCANFD(unsigned int channel, _WCAN_INITFD_CONFIG *config) override;
  int getBoardInf(_WCAN_BOARD_INFO *info) override;
  // The recorder driver does not track presence: always 2.
  int isDeviceOnLine() override;
  int transmit(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count) override;
  int transmitFD(unsigned int channel, _WCAN_CANFD_OBJ *frames, unsigned int count) override;
  int receiveFD(unsigned int channel, _WCAN_CANFD_OBJ *frames, unsigned int count,
                int waitTime) override;
  int receive(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count,
              int waitTime) override;
  int start(unsigned int channel) override;
  int stop(unsigned int channel) override;
  int clearBuffer(unsigned int channel) override;
  int getReceiveNum(unsigned int channel, unsigned char frameKind) override;
  // Raw pass-through: up to 62 bytes out, the reply's payload copied back
  // over `data` (which must hold 62 bytes); returns the payload size.
  int transmitData(unsigned char *data, unsigned int length) override;
  int setFliter(unsigned int channel, _WCAN_FLITER_CONFIG *config) override;
  int RecordSettingSet(unsigned int channel, _WCAN_RECORD_CONFIG *config) override;
  int RecordSettingGet(unsigned int channel, _WCAN_RECORD_CONFIG *config) override;
  // Commands 0 clear, 1 add, 2 enable, 3 disable, 4 information, 5 one filter.
  int RecordCmdExecute(unsigned int channel, unsigned int cmd, _WCAN_FLITER_INFO *info,
                       _WCAN_FLITER_CONFIG *config) override;

  int fliterSimpleSetCmdSend(unsigned int channel, canrecord::FilterSetAction action);
  int fliterAdd(unsigned int channel, _WCAN_FLITER_CONFIG *config);
  int fliterInfoGet(unsigned int channel, _WCAN_FLITER_INFO *info);
  int fliterSettingGet(unsigned int channel, _WCAN_FLITER_CONFIG *config);

private:
  // One exchange on the recorder's endpoints with the standard time-out.
  int exchange(canrecord::Request request, canrecord::Reply &reply);

  uint32_t deviceIndex = 0;
  uint8_t opened = 0;
  QUserLibUsb usb;
  CommandExchange requests;
};
