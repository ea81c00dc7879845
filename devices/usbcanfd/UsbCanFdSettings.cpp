// SPDX-License-Identifier: MIT
// Key/value settings of the CAN FD adapter.
#include <cstdlib>
#include <cstring>

#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "api/QErrMgr.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

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
