#include "QDeviceCanRecord.h"

#include <chrono>
#include <cstring>

#include "api/DriverFactory.h"
#include "api/QErrMgr.h"
#include "platform/QUserUtils.h"

using namespace canrecord;

namespace {

constexpr int kNotSupported = 6;
constexpr int kMinReplyLength = 3;

// A read that came back without a usable reply at once (nothing open, device
// gone) must not turn the reply wait into a busy loop.
void pauseBeforeNextRead() { pauseFor(std::chrono::milliseconds(1)); }

} // namespace

std::unique_ptr<QDevice> makeCanRecordDevice() { return std::make_unique<QDeviceCanRecord>(); }

QDeviceCanRecord::~QDeviceCanRecord() { QDeviceCanRecord::closeDevice(); }

int QDeviceCanRecord::openDevice(unsigned int devType, unsigned int devIndex, unsigned int) {
  if (opened) {
    return 1;
  }
  deviceIndex = devIndex;
  const UsbIdentity identity = usbIdentityFor(devType);
  const int result = usb.OpenUSBDevice(identity.vendorId, identity.productId, deviceIndex);
  if (result != 1) {
    // An adapter this process already holds is not opened a second time.
    if (result == QUserLibUsb::kOpenedElsewhere) {
      setLastError(WCAN_ERR_PARAMETER);
    }
    return 0;
  }
  opened = 1;
  return 1;
}

int QDeviceCanRecord::closeDevice() {
  if (opened) {
    usb.CloseUSBDevice();
    opened = 0;
  }
  return 1;
}

int QDeviceCanRecord::initCAN(unsigned int, _WCAN_INIT_CONFIG *) {
  setLastError(kNotSupported);
  return 0;
}

int QDeviceCanRecord::initCANFD(unsigned int, _WCAN_INITFD_CONFIG *) {
  setLastError(kNotSupported);
  return 0;
}

int QDeviceCanRecord::isDeviceOnLine() { return 2; }

int QDeviceCanRecord::transmit(unsigned int, _WCAN_CAN_OBJ *, unsigned int) { return 0; }
int QDeviceCanRecord::transmitFD(unsigned int, _WCAN_CANFD_OBJ *, unsigned int) { return 0; }
int QDeviceCanRecord::receiveFD(unsigned int, _WCAN_CANFD_OBJ *, unsigned int, int) { return 0; }
int QDeviceCanRecord::receive(unsigned int, _WCAN_CAN_OBJ *, unsigned int, int) { return 0; }
int QDeviceCanRecord::start(unsigned int) { return 0; }
int QDeviceCanRecord::stop(unsigned int) { return 0; }
int QDeviceCanRecord::clearBuffer(unsigned int) { return 0; }
int QDeviceCanRecord::getReceiveNum(unsigned int, unsigned char) { return 0; }
int QDeviceCanRecord::setFliter(unsigned int, _WCAN_FLITER_CONFIG *) { return 0; }

// Kept as the recorder protocol has always behaved:
//  - only a write result of exactly 0 counts as a failed write;
//  - when the time runs out after a stray reply, that reply's positive count
//    is returned and `replyLength` keeps the capacity, so the caller looks at
//    the stray bytes;
//  - when it runs out after a failed read, that negative value is returned.
int QDeviceCanRecord::usbCmdSend(unsigned char *request, int requestLength, unsigned char *reply,
                                 int &replyLength, unsigned char outEndpoint,
                                 unsigned char inEndpoint, unsigned int timeoutMs) {
  if (usb.bulkWriteUSBDevice(request, requestLength, outEndpoint, timeoutMs) == 0) {
    return -1;
  }
  if (timeoutMs == 0) {
    return 0;
  }
  const uint32_t startUs = getCurMicroSec();
  const uint64_t budgetUs = static_cast<uint64_t>(timeoutMs) * 1000u;
  int result = 0;
  while (getLapseMicroSec(startUs) < budgetUs) {
    result = usb.bulkReadUSBDevice(reply, replyLength, inEndpoint, timeoutMs);
    if (result == LIBUSB_ERROR_NO_DEVICE) {
      break; // the handle never works again; waiting out the budget helps nothing
    }
    if (result < kMinReplyLength) {
      pauseBeforeNextRead();
      continue;
    }
    if (replyMatches(request, reply, result)) {
      replyLength = result;
      break;
    }
  }
  return result != 0 ? result : -1;
}

// The recorder has no receive thread to watch its link: a recorder that was
// unplugged is looked for again (the same adapter) by the next exchange.
int QDeviceCanRecord::exchange(Request request, Reply &reply) {
  if (usb.GetUSBDeviceLinkStatus() == 0) {
    usb.ReopenUSBDevice();
  }
  return usbCmdSend(request.data(), static_cast<int>(request.size()), reply.bytes.data(),
                    reply.length, kOutEndpoint, kInEndpoint, kCommandTimeoutMs);
}

int QDeviceCanRecord::transmitData(unsigned char *data, unsigned int length) {
  if (data == nullptr) {
    return 0;
  }
  Reply reply;
  if (exchange(encodePassThrough(data, length), reply) < 0) {
    return 0;
  }
  const size_t payload = passThroughReplySize(reply);
  std::memcpy(data, reply.bytes.data() + kPassThroughHeader, payload);
  return static_cast<int>(payload);
}

// The status byte of the version replies is not looked at.
int QDeviceCanRecord::getBoardInf(_WCAN_BOARD_INFO *info) {
  if (info == nullptr) {
    return 0;
  }
  Reply hardware;
  if (exchange(encodeBoardQuery(kReadHardwareVersion), hardware) < 0) {
    return 0;
  }
  info->hwVersion = decodeVersion(hardware);
  Reply firmware;
  if (exchange(encodeBoardQuery(kReadFirmwareVersion), firmware) < 0) {
    return 0;
  }
  info->fwVersion = decodeVersion(firmware);
  Reply channels;
  if (exchange(encodeBoardQuery(kReadChannelCount), channels) < 0) {
    return 0;
  }
  info->canNum = decodeChannelCount(channels);
  info->extVersion1 = 0x0100;
  return 1;
}

int QDeviceCanRecord::RecordSettingSet(unsigned int channel, _WCAN_RECORD_CONFIG *config) {
  if (channel >= kChannelCount || config == nullptr) {
    return 0;
  }
  Reply reply;
  const int result = exchange(encodeSettingsWrite(channel, *config), reply);
  return replyAccepted(result, reply, kSettingsWriteReplyMin) ? 1 : 0;
}

// The reply buffer starts zeroed, so the failed-exchange case (which still
// reports success) fills the record with zeros rather than stale bytes.
int QDeviceCanRecord::RecordSettingGet(unsigned int channel, _WCAN_RECORD_CONFIG *config) {
  if (channel >= kChannelCount || config == nullptr) {
    return 0;
  }
  Reply reply;
  const int result = exchange(encodeSettingsRead(channel), reply);
  if (!settingsReadSucceeded(result, reply)) {
    return 0;
  }
  decodeSettings(reply, *config);
  return 1;
}

int QDeviceCanRecord::RecordCmdExecute(unsigned int channel, unsigned int cmd,
                                       _WCAN_FLITER_INFO *info, _WCAN_FLITER_CONFIG *config) {
  switch (cmd) {
  case 0:
    return fliterSimpleSetCmdSend(channel, kFilterClear);
  case 1:
    return fliterAdd(channel, config);
  case 2:
    return fliterSimpleSetCmdSend(channel, kFilterEnable);
  case 3:
    return fliterSimpleSetCmdSend(channel, kFilterDisable);
  case 4:
    return fliterInfoGet(channel, info);
  case 5:
    return fliterSettingGet(channel, config);
  default:
    return 0;
  }
}

int QDeviceCanRecord::fliterSimpleSetCmdSend(unsigned int channel, FilterSetAction action) {
  Reply reply;
  const int result = exchange(encodeFilterSet(channel, action), reply);
  return replyAccepted(result, reply, kFilterSetReplyMin) ? 1 : 0;
}

int QDeviceCanRecord::fliterAdd(unsigned int channel, _WCAN_FLITER_CONFIG *config) {
  if (config == nullptr) {
    return 0;
  }
  Reply reply;
  const int result = exchange(encodeFilterAdd(channel, *config), reply);
  return replyAccepted(result, reply, kFilterSetReplyMin) ? 1 : 0;
}

int QDeviceCanRecord::fliterInfoGet(unsigned int channel, _WCAN_FLITER_INFO *info) {
  if (info == nullptr) {
    return 0;
  }
  Reply reply;
  const int result = exchange(encodeFilterInfoQuery(channel), reply);
  return decodeFilterInfo(result, reply, *info) ? 1 : 0;
}

int QDeviceCanRecord::fliterSettingGet(unsigned int channel, _WCAN_FLITER_CONFIG *config) {
  if (config == nullptr) {
    return 0;
  }
  Reply reply;
  const int result = exchange(encodeFilterSettingQuery(channel, config->filterIndex), reply);
  return decodeFilterSetting(result, reply, *config) ? 1 : 0;
}
