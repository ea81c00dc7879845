// Placeholder until the classic driver lands: its types answer as unsupported.
#include "devices/usbcan2/usbcan2.h"

#include "api/QErrMgr.h"

namespace {
uint32_t unsupported() {
  setLastError(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
  return 0;
}
} // namespace

uint32_t usbcan2OpenDevice(uint32_t, uint32_t, uint32_t) { return unsupported(); }
uint32_t usbcan2CloseDevice(uint32_t, uint32_t) { return unsupported(); }
int32_t usbcan2InitCAN(uint32_t, uint32_t, uint32_t, const _WCAN_INIT_CONFIG *) {
  return unsupported();
}
uint32_t usbcan2ReadBoardInfo(uint32_t, uint32_t, _WCAN_BOARD_INFO *) { return unsupported(); }
int32_t usbcan2StartCAN(uint32_t, uint32_t, uint32_t) { return unsupported(); }
uint32_t usbcan2ResetCAN(uint32_t, uint32_t, uint32_t) { return unsupported(); }
uint32_t usbcan2ClearBuffer(uint32_t, uint32_t, uint32_t) { return unsupported(); }
uint32_t usbcan2GetReceiveNum(uint32_t, uint32_t, uint32_t) { return unsupported(); }
int32_t usbcan2Receive(uint32_t, uint32_t, uint32_t, _WCAN_CAN_OBJ *, uint32_t, int32_t) {
  return unsupported();
}
uint32_t usbcan2Transmit(uint32_t, uint32_t, uint32_t, const _WCAN_CAN_OBJ *, uint32_t) {
  return unsupported();
}
int usbcan2DevRelayStatusSet(uint32_t, uint32_t, uint8_t, uint8_t) { return unsupported(); }
int usbcan2DevRelayStatusGet(uint32_t, uint32_t, uint8_t *, uint8_t *) { return unsupported(); }
int usbcan2DevBaudParaGet(uint32_t, uint32_t, uint32_t, uint8_t *, uint8_t *) {
  return unsupported();
}
int usbcan2DevChStateGet(uint32_t, uint32_t, uint32_t, uint8_t *, uint8_t *, uint8_t *) {
  return unsupported();
}
int usbcan2DevDataTransfer(uint32_t, uint32_t, uint8_t *, int32_t) { return unsupported(); }
