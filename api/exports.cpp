// SPDX-License-Identifier: MIT
// The exported functions: each checks the device type, finds the driver and
// passes its arguments and result through unchanged. The only errors set
// here are 6, 7, 8 and the 0 after a successful object open; everything else
// comes from the drivers.
//
// Beyond that, every export is safe for a careless host: a null record or
// buffer pointer is refused with "Parameter Error!" before anything runs, a
// receive for no frames returns at once, opens and closes are serialised, and
// a call racing a close of its device on another thread holds the driver
// until it returns and then reports "Device Not Opened!".
#include <cstdint>
#include <cstring>
#include <memory>
#include <mutex>
#include <type_traits>

#include "api/DriverFactory.h"
#include "api/QErrMgr.h"
#include "api/QWCANDevMgr.h"
#include "devices/usbcan2/usbcan2.h"
#include "platform/DeviceTypes.h"
#include "wcan.h"

#define WCAN_EXPORT extern "C" __attribute__((visibility("default")))

namespace {

enum class Family { ClassicCore, ClassicSilent, Fd, Recorder, Unsupported };

Family familyOf(unsigned int type) {
  const wcan::DeviceTypeInfo *entry = wcan::findDeviceType(type);
  if (entry == nullptr) {
    return Family::Unsupported;
  }
  switch (entry->family) {
  case wcan::DeviceFamily::Classic:
    return Family::ClassicCore;
  case wcan::DeviceFamily::ClassicRefused:
    return Family::ClassicSilent;
  case wcan::DeviceFamily::CanFd:
    return Family::Fd;
  case wcan::DeviceFamily::Recorder:
    return Family::Recorder;
  }
  return Family::Unsupported;
}

bool isObjectFamily(Family f) { return f == Family::Fd || f == Family::Recorder; }
bool isClassic(Family f) { return f == Family::ClassicCore || f == Family::ClassicSilent; }

int fail(int code) {
  setLastError(code);
  return 0;
}

// Opens and closes never run side by side: two threads opening one adapter
// must not both create a driver for it.
std::mutex openClose;

template <typename... Ptr> bool anyNull(Ptr... pointers) { return ((pointers == nullptr) || ...); }

// Runs `call` on the registered driver, or fails with "Device Not Opened!".
// The driver is held for the whole call; a failure of a driver closed
// meanwhile is reported as "Device Not Opened!".
template <typename Call> int withDevice(unsigned int type, unsigned int index, Call call) {
  const std::shared_ptr<QDevice> device = wcanDevMgr.deviceRef(type, index);
  if (!device || device->retired()) {
    return fail(WCAN_ERR_DEVICE_NOT_OPENED);
  }
  const int result = call(*device);
  if (result == 0 && device->retired()) {
    setLastError(WCAN_ERR_DEVICE_NOT_OPENED);
  }
  return result;
}

// The same for the record calls, which leave the last error alone when
// nothing is open.
template <typename Call> int withRecorderQuiet(unsigned int type, unsigned int index, Call call) {
  if (familyOf(type) != Family::Recorder) {
    return 0;
  }
  const std::shared_ptr<QDevice> device = wcanDevMgr.deviceRef(type, index);
  return !device || device->retired() ? 0 : call(*device);
}

// Fd-only operations: classic, recorder and unknown types are unsupported.
template <typename Call> int fdOnly(unsigned int type, unsigned int index, Call call) {
  if (familyOf(type) != Family::Fd) {
    return fail(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
  }
  return withDevice(type, index, call);
}

// Classic-only operations: every other type, the silent classic ones
// included, is unsupported.
template <typename Call> int classicCoreOnly(unsigned int type, Call call) {
  return familyOf(type) == Family::ClassicCore ? call() : fail(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
}

std::unique_ptr<QDevice> makeDriver(Family family) {
  return family == Family::Recorder ? makeCanRecordDevice() : makeUsbCanFdDevice();
}

int openObjectDevice(unsigned int type, unsigned int index) {
  if (wcanDevMgr.deviceRef(type, index) != nullptr) {
    return 1;
  }
  std::unique_ptr<QDevice> driver = makeDriver(familyOf(type));
  if (!driver) {
    return fail(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
  }
  if (driver->openDevice(type, index, 0) != 1) {
    return 0;
  }
  driver->devType = type;
  driver->devIndex = index;
  wcanDevMgr.deviceAdd(type, index, std::shared_ptr<QDevice>(std::move(driver)));
  setLastError(WCAN_ERR_OK);
  return 1;
}

// The driver goes when the last call still using it returns.
int closeObjectDevice(unsigned int type, unsigned int index) {
  const std::shared_ptr<QDevice> driver = wcanDevMgr.deviceRef(type, index);
  if (!driver) {
    return 1;
  }
  driver->retire();
  const int result = driver->closeDevice();
  wcanDevMgr.deviceDel(type, index);
  return result;
}

// Receives into the caller's records; asking for no frames returns at once.
template <typename Obj>
int receiveInto(QDevice &device, unsigned int channel, Obj *objs, unsigned int count,
                int waitTime) {
  if (count == 0) {
    return 0;
  }
  if (anyNull(objs)) {
    return fail(WCAN_ERR_PARAMETER);
  }
  if constexpr (std::is_same_v<Obj, _WCAN_CANFD_OBJ>) {
    return device.receiveFD(channel, objs, count, waitTime);
  } else {
    return device.receive(channel, objs, count, waitTime);
  }
}

// Which record each recorder command writes or reads.
bool recordCommandLacksItsRecord(unsigned int cmd, const _WCAN_FLITER_INFO *info,
                                 const _WCAN_FLITER_CONFIG *config) {
  switch (cmd) {
  case WCAN_RECORD_FILTER_ADD:
  case WCAN_RECORD_FILTER_SETTING_GET:
    return config == nullptr;
  case WCAN_RECORD_FILTER_INFO_GET:
    return info == nullptr;
  default:
    return false;
  }
}

} // namespace

WCAN_EXPORT int WCAN_OpenDevice(unsigned int devType, unsigned int devIndex) {
  std::lock_guard<std::mutex> serialised(openClose);
  const Family family = familyOf(devType);
  if (isClassic(family)) {
    return static_cast<int>(usbcan2OpenDevice(devType, devIndex, 0));
  }
  if (isObjectFamily(family)) {
    return openObjectDevice(devType, devIndex);
  }
  return fail(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
}

WCAN_EXPORT int WCAN_CloseDevice(unsigned int devType, unsigned int devIndex) {
  std::lock_guard<std::mutex> serialised(openClose);
  const Family family = familyOf(devType);
  if (isClassic(family)) {
    return static_cast<int>(usbcan2CloseDevice(devType, devIndex));
  }
  if (isObjectFamily(family)) {
    return closeObjectDevice(devType, devIndex);
  }
  return fail(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
}

WCAN_EXPORT int WCAN_BoardInfoGet(unsigned int devType, unsigned int devIndex,
                                  _WCAN_BOARD_INFO *pInfo) {
  const Family family = familyOf(devType);
  if ((family == Family::ClassicCore || isObjectFamily(family)) && anyNull(pInfo)) {
    return fail(WCAN_ERR_PARAMETER);
  }
  if (family == Family::ClassicCore) {
    return static_cast<int>(usbcan2ReadBoardInfo(devType, devIndex, pInfo));
  }
  if (isObjectFamily(family)) {
    return withDevice(devType, devIndex, [&](QDevice &d) { return d.getBoardInf(pInfo); });
  }
  return fail(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
}

WCAN_EXPORT int WCAN_ClearBuffer(unsigned int devType, unsigned int devIndex,
                                 unsigned int channel) {
  const Family family = familyOf(devType);
  if (family == Family::ClassicCore) {
    return static_cast<int>(usbcan2ClearBuffer(devType, devIndex, channel));
  }
  if (family == Family::Fd) {
    const std::shared_ptr<QDevice> device = wcanDevMgr.deviceRef(devType, devIndex);
    return !device || device->retired() ? 0 : device->clearBuffer(channel);
  }
  return fail(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
}

WCAN_EXPORT int WCAN_DataDirectTransfer(unsigned int devType, unsigned int devIndex,
                                        unsigned char *pData, int dataLen) {
  const Family family = familyOf(devType);
  if ((family == Family::ClassicCore || isObjectFamily(family)) && anyNull(pData)) {
    return fail(WCAN_ERR_PARAMETER);
  }
  if (family == Family::ClassicCore) {
    return usbcan2DevDataTransfer(devType, devIndex, pData, dataLen);
  }
  if (isObjectFamily(family)) {
    return withDevice(devType, devIndex, [&](QDevice &d) {
      return d.transmitData(pData, static_cast<unsigned int>(dataLen));
    });
  }
  return fail(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
}

WCAN_EXPORT int WCAN_SetFliter(unsigned int devType, unsigned int devIndex, unsigned int channel,
                               _WCAN_FLITER_CONFIG *pConfig) {
  return fdOnly(devType, devIndex, [&](QDevice &d) {
    return anyNull(pConfig) ? fail(WCAN_ERR_PARAMETER) : d.setFliter(channel, pConfig);
  });
}

WCAN_EXPORT int WCAN_GetReceiveNum(unsigned int devType, unsigned int devIndex,
                                   unsigned int channel, unsigned char frameKind) {
  const Family family = familyOf(devType);
  if (isClassic(family)) {
    return frameKind != 0 ? 0 : static_cast<int>(usbcan2GetReceiveNum(devType, devIndex, channel));
  }
  return fdOnly(devType, devIndex, [&](QDevice &d) { return d.getReceiveNum(channel, frameKind); });
}

WCAN_EXPORT int WCAN_InitCAN(unsigned int devType, unsigned int devIndex, unsigned int channel,
                             _WCAN_INIT_CONFIG *pConfig) {
  // The channel is started even when its initialisation failed; the result
  // is the initialisation's.
  return classicCoreOnly(devType, [&] {
    if (anyNull(pConfig)) {
      return fail(WCAN_ERR_PARAMETER);
    }
    const int result = usbcan2InitCAN(devType, devIndex, channel, pConfig);
    usbcan2StartCAN(devType, devIndex, channel);
    return result;
  });
}

WCAN_EXPORT int WCAN_InitCANFD(unsigned int devType, unsigned int devIndex, unsigned int channel,
                               _WCAN_INITFD_CONFIG *pConfig) {
  if (familyOf(devType) == Family::ClassicSilent) {
    return 0;
  }
  return fdOnly(devType, devIndex, [&](QDevice &d) {
    const int result = d.initCANFD(channel, pConfig);
    return result != 1 ? result : d.start(channel);
  });
}

WCAN_EXPORT int WCAN_Start(unsigned int devType, unsigned int devIndex, unsigned int channel) {
  if (familyOf(devType) == Family::ClassicCore) {
    return usbcan2StartCAN(devType, devIndex, channel);
  }
  return fdOnly(devType, devIndex, [&](QDevice &d) { return d.start(channel); });
}

WCAN_EXPORT int WCAN_Stop(unsigned int devType, unsigned int devIndex, unsigned int channel) {
  if (familyOf(devType) == Family::ClassicCore) {
    return static_cast<int>(usbcan2ResetCAN(devType, devIndex, channel));
  }
  return fdOnly(devType, devIndex, [&](QDevice &d) { return d.stop(channel); });
}

WCAN_EXPORT int WCAN_Receive(unsigned int devType, unsigned int devIndex, unsigned int channel,
                             _WCAN_CAN_OBJ *pObjs, unsigned int count, int waitTime) {
  const Family family = familyOf(devType);
  if (family == Family::ClassicSilent) {
    return 0;
  }
  if (family == Family::ClassicCore) {
    return count == 0 || anyNull(pObjs)
               ? fail(WCAN_ERR_PARAMETER)
               : usbcan2Receive(devType, devIndex, channel, pObjs, count, waitTime);
  }
  return fdOnly(devType, devIndex,
                [&](QDevice &d) { return receiveInto(d, channel, pObjs, count, waitTime); });
}

WCAN_EXPORT int WCAN_ReceiveFD(unsigned int devType, unsigned int devIndex, unsigned int channel,
                               _WCAN_CANFD_OBJ *pObjs, unsigned int count, int waitTime) {
  return fdOnly(devType, devIndex,
                [&](QDevice &d) { return receiveInto(d, channel, pObjs, count, waitTime); });
}

WCAN_EXPORT int WCAN_GetReceiveEvent(unsigned int devType, unsigned int devIndex,
                                     unsigned int channel) {
  if (familyOf(devType) == Family::ClassicCore) {
    return usbcan2ReceiveEvent(devType, devIndex, channel);
  }
  int event = -1;
  fdOnly(devType, devIndex, [&](QDevice &d) {
    event = d.receiveEvent(channel);
    return event >= 0 ? 1 : fail(WCAN_ERR_PARAMETER);
  });
  return event;
}

WCAN_EXPORT int WCAN_Transmit(unsigned int devType, unsigned int devIndex, unsigned int channel,
                              _WCAN_CAN_OBJ *pObjs, unsigned int count) {
  const Family family = familyOf(devType);
  if (family == Family::ClassicSilent) {
    return 0;
  }
  if (family == Family::ClassicCore) {
    return count == 0 || anyNull(pObjs)
               ? fail(WCAN_ERR_PARAMETER)
               : static_cast<int>(usbcan2Transmit(devType, devIndex, channel, pObjs, count));
  }
  return fdOnly(devType, devIndex, [&](QDevice &d) {
    return count != 0 && anyNull(pObjs) ? fail(WCAN_ERR_PARAMETER)
                                        : d.transmit(channel, pObjs, count);
  });
}

WCAN_EXPORT int WCAN_TransmitFD(unsigned int devType, unsigned int devIndex, unsigned int channel,
                                _WCAN_CANFD_OBJ *pObjs, unsigned int count) {
  return fdOnly(devType, devIndex, [&](QDevice &d) {
    return count != 0 && anyNull(pObjs) ? fail(WCAN_ERR_PARAMETER)
                                        : d.transmitFD(channel, pObjs, count);
  });
}

WCAN_EXPORT int WCAN_RecordSettingSet(unsigned int devType, unsigned int devIndex,
                                      unsigned int channel, _WCAN_RECORD_CONFIG *pConfig) {
  if (familyOf(devType) != Family::Recorder) {
    return 0;
  }
  if (anyNull(pConfig)) {
    return fail(WCAN_ERR_PARAMETER);
  }
  return withDevice(devType, devIndex,
                    [&](QDevice &d) { return d.RecordSettingSet(channel, pConfig); });
}

WCAN_EXPORT int WCAN_RecordSettingGet(unsigned int devType, unsigned int devIndex,
                                      unsigned int channel, _WCAN_RECORD_CONFIG *pConfig) {
  if (familyOf(devType) == Family::Recorder && anyNull(pConfig)) {
    return fail(WCAN_ERR_PARAMETER);
  }
  return withRecorderQuiet(devType, devIndex,
                           [&](QDevice &d) { return d.RecordSettingGet(channel, pConfig); });
}

WCAN_EXPORT int WCAN_RecordCmdExecute(unsigned int devType, unsigned int devIndex,
                                      unsigned int channel, unsigned int cmd,
                                      _WCAN_FLITER_INFO *pFliterInfo,
                                      _WCAN_FLITER_CONFIG *pFliterConfig) {
  if (familyOf(devType) == Family::Recorder &&
      recordCommandLacksItsRecord(cmd, pFliterInfo, pFliterConfig)) {
    return fail(WCAN_ERR_PARAMETER);
  }
  return withRecorderQuiet(devType, devIndex, [&](QDevice &d) {
    return d.RecordCmdExecute(channel, cmd, pFliterInfo, pFliterConfig);
  });
}

WCAN_EXPORT int WCAN_RecordFliterClr(unsigned int devType, unsigned int devIndex,
                                     unsigned int channel) {
  return WCAN_RecordCmdExecute(devType, devIndex, channel, WCAN_RECORD_FILTER_CLEAR, nullptr,
                               nullptr);
}

WCAN_EXPORT int WCAN_RecordFliterAdd(unsigned int devType, unsigned int devIndex,
                                     unsigned int channel, _WCAN_FLITER_CONFIG *pConfig) {
  return WCAN_RecordCmdExecute(devType, devIndex, channel, WCAN_RECORD_FILTER_ADD, nullptr,
                               pConfig);
}

WCAN_EXPORT int WCAN_RecordFliterEnable(unsigned int devType, unsigned int devIndex,
                                        unsigned int channel) {
  return WCAN_RecordCmdExecute(devType, devIndex, channel, WCAN_RECORD_FILTER_ENABLE, nullptr,
                               nullptr);
}

WCAN_EXPORT int WCAN_RecordFliterDisable(unsigned int devType, unsigned int devIndex,
                                         unsigned int channel) {
  return WCAN_RecordCmdExecute(devType, devIndex, channel, WCAN_RECORD_FILTER_DISABLE, nullptr,
                               nullptr);
}

WCAN_EXPORT int WCAN_RecordFliterInfoGet(unsigned int devType, unsigned int devIndex,
                                         unsigned int channel, _WCAN_FLITER_INFO *pInfo) {
  return WCAN_RecordCmdExecute(devType, devIndex, channel, WCAN_RECORD_FILTER_INFO_GET, pInfo,
                               nullptr);
}

// The index is stored as a zero-extended 32-bit word over the filter index
// field and the two padding bytes after it, as host programs expect.
WCAN_EXPORT int WCAN_RecordFliterSettingGet(unsigned int devType, unsigned int devIndex,
                                            unsigned int channel, unsigned short filterIndex,
                                            _WCAN_FLITER_CONFIG *pConfig) {
  if (pConfig != nullptr) {
    const uint32_t word = filterIndex;
    memcpy(reinterpret_cast<unsigned char *>(pConfig) + offsetof(_WCAN_FLITER_CONFIG, filterIndex),
           &word, sizeof word);
  }
  return WCAN_RecordCmdExecute(devType, devIndex, channel, WCAN_RECORD_FILTER_SETTING_GET, nullptr,
                               pConfig);
}

WCAN_EXPORT int WCAN_DevRelayStatusSet(unsigned int devType, unsigned int devIndex,
                                       unsigned char value0, unsigned char value1) {
  return classicCoreOnly(
      devType, [&] { return usbcan2DevRelayStatusSet(devType, devIndex, value0, value1); });
}

WCAN_EXPORT int WCAN_DevRelayStatusGet(unsigned int devType, unsigned int devIndex,
                                       unsigned char *pValue0, unsigned char *pValue1) {
  return classicCoreOnly(devType, [&] {
    return anyNull(pValue0, pValue1)
               ? fail(WCAN_ERR_PARAMETER)
               : usbcan2DevRelayStatusGet(devType, devIndex, pValue0, pValue1);
  });
}

WCAN_EXPORT int WCAN_DevBaudParaGet(unsigned int devType, unsigned int devIndex,
                                    unsigned int channel, unsigned char *pValue0,
                                    unsigned char *pValue1) {
  return classicCoreOnly(devType, [&] {
    return anyNull(pValue0, pValue1)
               ? fail(WCAN_ERR_PARAMETER)
               : usbcan2DevBaudParaGet(devType, devIndex, static_cast<uint8_t>(channel), pValue0,
                                       pValue1);
  });
}

WCAN_EXPORT int WCAN_DevChStateGet(unsigned int devType, unsigned int devIndex,
                                   unsigned int channel, unsigned char *pValue0,
                                   unsigned char *pValue1, unsigned char *pValue2) {
  return classicCoreOnly(devType, [&] {
    return anyNull(pValue0, pValue1, pValue2)
               ? fail(WCAN_ERR_PARAMETER)
               : usbcan2DevChStateGet(devType, devIndex, static_cast<uint8_t>(channel), pValue0,
                                      pValue1, pValue2);
  });
}

WCAN_EXPORT int WCAN_GetLastError(void) { return QErrInfoMgr::getinstance()->getLastError(); }

WCAN_EXPORT const char *WCAN_GetLastErrorStr(void) {
  return QErrInfoMgr::getinstance()->getLastErrorStr();
}
