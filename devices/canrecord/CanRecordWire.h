// SPDX-License-Identifier: MIT
// Wire format of the CAN recorder: request frames built from the interface
// records and replies taken apart again. Pure functions only: no USB, no
// threads, no state. The driver class sequences them over its USB device.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "platform/ByteOrder.h"
#include "platform/DeviceTypes.h"
#include "wcan.h"

namespace canrecord {

// Every request goes out on bulk OUT 1, every reply comes back on bulk IN 0x81.
constexpr uint8_t kOutEndpoint = 0x01;
constexpr uint8_t kInEndpoint = 0x81;
constexpr uint32_t kCommandTimeoutMs = 1000;
constexpr size_t kFrameCapacity = 64;
constexpr size_t kPassThroughHeader = 2;
constexpr size_t kPassThroughPayload = kFrameCapacity - kPassThroughHeader;
constexpr unsigned kChannelCount = 2;

constexpr uint8_t kFrameStart = 0x55;

enum Command : uint8_t {
  kReadHardwareVersion = 0x01,
  kWriteSettings = 0x03,
  kFilterSet = 0x04,
  kFilterQuery = 0x05,
  kReadFirmwareVersion = 0x12,
  kReadChannelCount = 0x13,
  kReadSettings = 0xA4,
};

// Sub-commands of kFilterSet (request byte 2).
enum FilterSetAction : uint8_t {
  kFilterClear = 0x00,
  kFilterAdd = 0x01,
  kFilterEnable = 0x02,
  kFilterDisable = 0x03,
};

// Sub-commands of kFilterQuery (request byte 2).
enum FilterQueryAction : uint8_t {
  kFilterInfo = 0x00,
  kFilterSetting = 0x01,
};

struct UsbIdentity {
  unsigned devType;
  uint16_t vendorId;
  uint16_t productId;
};

// From the library's device table; ids 0/0 for a type that is no recorder.
constexpr UsbIdentity usbIdentityFor(unsigned devType) {
  const wcan::DeviceTypeInfo *entry = wcan::findDeviceType(devType);
  if (entry == nullptr || entry->family != wcan::DeviceFamily::Recorder) {
    return {devType, 0, 0};
  }
  return {devType, entry->vendorId, entry->productId};
}

using wcan::ByteReader;

using Request = std::vector<uint8_t>;

// One reply buffer as the exchange leaves it. `length` is the received count
// once a matching reply arrived; otherwise it keeps the capacity. Decoders
// read fields from the whole buffer, as the device protocol always has, and
// judge success by `length`.
struct Reply {
  std::array<uint8_t, kFrameCapacity> bytes{};
  int length = static_cast<int>(kFrameCapacity);

  ByteReader reader() const { return ByteReader(bytes.data(), bytes.size()); }
  uint8_t status() const { return bytes[3]; }
};

// --- requests ---------------------------------------------------------------

Request encodeBoardQuery(Command command);
Request encodeSettingsWrite(unsigned channel, const _WCAN_RECORD_CONFIG &config);
Request encodeSettingsRead(unsigned channel);
Request encodeFilterSet(unsigned channel, FilterSetAction action);
Request encodeFilterAdd(unsigned channel, const _WCAN_FLITER_CONFIG &config);
Request encodeFilterInfoQuery(unsigned channel);
Request encodeFilterSettingQuery(unsigned channel, uint16_t filterIndex);
Request encodePassThrough(const uint8_t *data, size_t length);

// The four fields of a bit-timing word as the settings frame carries them.
struct BitTimingFields {
  uint16_t prescaler;
  uint8_t jumpWidth;
  uint16_t segment1;
  uint16_t segment2;
};
BitTimingFields splitBitTiming(uint32_t timing);
// Combined by OR without masking, as the device's values are taken on trust.
uint32_t joinBitTiming(const BitTimingFields &fields);

// --- replies ----------------------------------------------------------------

// A reply belongs to a request when it has at least three bytes and its first
// two bytes equal the request's.
bool replyMatches(const uint8_t *request, const uint8_t *reply, int replyLength);

// A set-type reply: the exchange delivered, at least `minLength` bytes came
// back and the status byte is 0.
bool replyAccepted(int exchangeResult, const Reply &reply, int minLength);

// Low byte first, the opposite order from the CAN FD adapter's versions.
uint16_t decodeVersion(const Reply &reply);
uint8_t decodeChannelCount(const Reply &reply);

// The settings read fails only when a delivered reply is too short; a failed
// exchange counts as success and the record is filled from the buffer anyway.
bool settingsReadSucceeded(int exchangeResult, const Reply &reply);
void decodeSettings(const Reply &reply, _WCAN_RECORD_CONFIG &config);

bool decodeFilterInfo(int exchangeResult, const Reply &reply, _WCAN_FLITER_INFO &info);
bool decodeFilterSetting(int exchangeResult, const Reply &reply, _WCAN_FLITER_CONFIG &config);

// Bytes of a pass-through reply that belong to the caller (after the header).
size_t passThroughReplySize(const Reply &reply);

constexpr int kSettingsWriteReplyMin = 5;
constexpr int kSettingsReadReplyMin = 26;
constexpr int kFilterSetReplyMin = 4;
constexpr int kFilterInfoReplyMin = 7;
constexpr int kFilterSettingReplyMin = 13;

} // namespace canrecord
