// SPDX-License-Identifier: MIT
// Every device type number the library knows, in one table that the exported
// functions, the drivers and the command line tool read: which family serves
// it, how it shows up on USB, how many channels it has and (CAN FD adapters)
// its controller clock. Types routed to the classic family but refused by it
// are listed too, so the routing needs no second list.
#pragma once

#include <cstdint>

#include "wcan_device_types.h"

namespace wcan {

enum class DeviceFamily : uint8_t {
  CanFd,          // CAN FD adapters
  Classic,        // classic dual-channel adapters
  ClassicRefused, // routed to the classic family, which refuses them
  Recorder,       // CAN recorders (configuration only)
};

struct DeviceTypeInfo {
  unsigned type;
  DeviceFamily family;
  uint16_t vendorId;
  uint16_t productId;
  uint8_t channels;
  uint8_t clockMHz;    // CAN FD adapters only
  uint8_t counterBits; // width of the frame time stamp counter
};

#define WCAN_DEVICE_TYPE_ENTRY(type, family, vendorId, productId, channels, clockMHz, counterBits) \
  {type, DeviceFamily::family, vendorId, productId, channels, clockMHz, counterBits},
inline constexpr DeviceTypeInfo kDeviceTypes[] = {WCAN_DEVICE_TYPES(WCAN_DEVICE_TYPE_ENTRY)};
#undef WCAN_DEVICE_TYPE_ENTRY

// The entry of a type number; null for a number no family serves.
constexpr const DeviceTypeInfo *findDeviceType(unsigned type) {
  for (const DeviceTypeInfo &entry : kDeviceTypes) {
    if (entry.type == type) {
      return &entry;
    }
  }
  return nullptr;
}

constexpr bool isFamily(unsigned type, DeviceFamily family) {
  const DeviceTypeInfo *entry = findDeviceType(type);
  return entry != nullptr && entry->family == family;
}

} // namespace wcan
