// SPDX-License-Identifier: MIT
// The classic dual-channel adapter family: flat functions over a static table
// of 32 device records, keyed by device index (types 3 and 4 share it).
#pragma once

#include <cstdint>

#include "wcan.h"

uint32_t usbcan2OpenDevice(uint32_t type, uint32_t index, uint32_t reserved);
uint32_t usbcan2CloseDevice(uint32_t type, uint32_t index);
int32_t usbcan2InitCAN(uint32_t type, uint32_t index, uint32_t channel,
                       const _WCAN_INIT_CONFIG *config);
uint32_t usbcan2ReadBoardInfo(uint32_t type, uint32_t index, _WCAN_BOARD_INFO *info);
int32_t usbcan2StartCAN(uint32_t type, uint32_t index, uint32_t channel);
uint32_t usbcan2ResetCAN(uint32_t type, uint32_t index, uint32_t channel);
uint32_t usbcan2ClearBuffer(uint32_t type, uint32_t index, uint32_t channel);
uint32_t usbcan2GetReceiveNum(uint32_t type, uint32_t index, uint32_t channel);
// The channel's receive event, or -1 with the last error set.
int usbcan2ReceiveEvent(uint32_t type, uint32_t index, uint32_t channel);
int32_t usbcan2Receive(uint32_t type, uint32_t index, uint32_t channel, _WCAN_CAN_OBJ *out,
                       uint32_t maxFrames, int32_t waitMs);
uint32_t usbcan2Transmit(uint32_t type, uint32_t index, uint32_t channel,
                         const _WCAN_CAN_OBJ *frames, uint32_t count);
int usbcan2DevRelayStatusSet(uint32_t type, uint32_t index, uint8_t relay1, uint8_t relay2);
int usbcan2DevRelayStatusGet(uint32_t type, uint32_t index, uint8_t *relay1, uint8_t *relay2);
int usbcan2DevBaudParaGet(uint32_t type, uint32_t index, uint32_t channel, uint8_t *para1,
                          uint8_t *para2);
int usbcan2DevChStateGet(uint32_t type, uint32_t index, uint32_t channel, uint8_t *state1,
                         uint8_t *state2, uint8_t *state3);
int usbcan2DevDataTransfer(uint32_t type, uint32_t index, uint8_t *buffer, int32_t length);
