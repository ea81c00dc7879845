// SPDX-License-Identifier: MIT
// The CAN FD driver's key/value settings on a driver object that was never
// opened: any key and any value text. The custom timing text is checked
// against a plain re-reading of its four fields.
#include <string>

#include "FuzzSupport.h"
#include "devices/usbcanfd/QDeviceUsbCanFd2.h"
#include "platform/QUserUtils.h"

namespace {

struct Timing {
  bool ok;
  uint32_t arbitration, data;
};

// The label, ",(", a reserved field, ",", two eight-digit words separated by
// ",", and ")"; a field of 64 characters or more is refused.
Timing readCustomTiming(const std::string &text) {
  const Timing refused{false, 0, 0};
  size_t at = text.find(",(");
  if (at == std::string::npos) {
    return refused;
  }
  at += 2;
  std::string fields[3];
  for (int i = 0; i < 3; ++i) {
    const size_t end = text.find(i < 2 ? ',' : ')', at);
    if (end == std::string::npos || end - at >= 64) {
      return refused;
    }
    fields[i] = text.substr(at, end - at);
    at = end + 1;
  }
  auto word = [](const std::string &field) {
    unsigned char padded[64] = {};
    field.copy(reinterpret_cast<char *>(padded), field.size());
    return str2DWord(padded);
  };
  return {true, word(fields[1]), word(fields[2])};
}

// Every key reader on every pattern: a match always names channel 0 or 1.
void checkKeyReaders(const char *key, const char *value) {
  static const char *const kPatterns[] = {
      "/canfd_standard",   "/canfd_abit_baud_rate", "/canfd_dbit_baud_rate",
      "/baud_rate_custom", "/filter_clear",         "/filter_ack",
      "/filter_mode",      "/filter_start",         "/filter_end"};
  for (const char *pattern : kPatterns) {
    uint8_t channel = 0xEE;
    int number = 0;
    uint32_t hex = 0;
    const char *text = nullptr;
    if (QDeviceUsbCanFd2::keyIntValueGet(key, value, pattern, &channel, &number) == 0) {
      require(channel <= 1);
    }
    if (QDeviceUsbCanFd2::keyHexValueGet(key, value, pattern, &channel, &hex) == 0) {
      require(channel <= 1);
    }
    if (QDeviceUsbCanFd2::keyStrValueGet(key, value, pattern, &channel, &text) == 0) {
      require(channel <= 1 && text == value);
    }
  }
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  static QDeviceUsbCanFd2 device;
  FuzzedDataProvider in(data, size);
  const std::string key = in.ConsumeRandomLengthString(128);
  const std::string value = in.ConsumeRemainingBytesAsString();

  checkKeyReaders(key.c_str(), value.c_str());
  const int result = device.setValue(key.c_str(), value.c_str());
  require(result == 0 || result == 1);
  require(device.getValue(key.c_str()) == nullptr);
  for (unsigned ch = 0; ch < 2; ++ch) {
    require(device.isoMode(ch) <= 1);
  }

  const uint8_t channel = static_cast<uint8_t>(size % 3);
  const Timing expected = readCustomTiming(value.c_str());
  const uint32_t abitBefore = channel < 2 ? device.abitPreset(channel) : 0;
  const int custom = device.canBaudCustom(channel, value.c_str());
  require(custom == 0 || expected.ok);
  if (channel < 2) {
    require(custom == (expected.ok ? 1 : 0));
    require(device.abitPreset(channel) == (expected.ok ? expected.arbitration : abitBefore));
    require(!expected.ok || device.dbitPreset(channel) == expected.data);
  }
  return 0;
}
