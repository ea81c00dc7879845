// Every device type number the library knows, in one table that the exported
// functions, the drivers and the command line tool read: which family serves
// it, how it shows up on USB, how many channels it has and (CAN FD adapters)
// its controller clock. Types routed to the classic family but refused by it
// are listed too, so the routing needs no second list.
#pragma once

#include <cstdint>

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
  uint8_t clockMHz; // CAN FD adapters only
};

inline constexpr DeviceTypeInfo kDeviceTypes[] = {
    {41, DeviceFamily::CanFd, 0x3068, 0x0009, 2, 60},
    {42, DeviceFamily::CanFd, 0x3068, 0x0009, 2, 60},
    {43, DeviceFamily::CanFd, 0x3068, 0x0009, 2, 60},
    {64, DeviceFamily::CanFd, 0x0471, 0x3014, 4, 60},
    {65, DeviceFamily::CanFd, 0x0471, 0x2014, 4, 60},
    {66, DeviceFamily::CanFd, 0x0471, 0x2018, 8, 80},
    {67, DeviceFamily::CanFd, 0x0471, 0x3018, 8, 80},
    {3, DeviceFamily::Classic, 0x0471, 0x1200, 2, 0},
    {4, DeviceFamily::Classic, 0x0471, 0x1200, 2, 0},
    {63, DeviceFamily::ClassicRefused, 0, 0, 0, 0},
    {68, DeviceFamily::ClassicRefused, 0, 0, 0, 0},
    {69, DeviceFamily::ClassicRefused, 0, 0, 0, 0},
    {70, DeviceFamily::ClassicRefused, 0, 0, 0, 0},
    {71, DeviceFamily::ClassicRefused, 0, 0, 0, 0},
    {72, DeviceFamily::ClassicRefused, 0, 0, 0, 0},
    {73, DeviceFamily::ClassicRefused, 0, 0, 0, 0},
    {61, DeviceFamily::Recorder, 0x0471, 0x2601, 2, 0},
    {62, DeviceFamily::Recorder, 0x0471, 0x2602, 2, 0},
};

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
