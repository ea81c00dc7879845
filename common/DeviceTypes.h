// SPDX-License-Identifier: MIT
// What `wcan` knows about each supported device type: family, USB identity and
// channel count, in one table that everything else reads; and the bit-rate
// tables the tool uses to initialise channels.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

namespace wcantool {

// ClassicRefused marks the numbers the library routes but refuses; the tool
// lists none of them.
enum class Family { CanFd, Classic, Recorder, ClassicRefused };

struct DeviceType {
  unsigned type;
  Family family;
  uint16_t vendorId;
  uint16_t productId;
  unsigned channels;
  unsigned counterBits; // width of the frame time stamp counter
};

// The entry of a supported type; null for any other number.
const DeviceType *findDeviceType(unsigned type);
const std::vector<DeviceType> &deviceTypes();

// All types that open the adapter with these USB ids, in table order.
std::vector<unsigned> typesForUsbId(uint16_t vendorId, uint16_t productId);

const char *familyName(Family family);

// "41 42 43 64 65 66 67 (CAN FD), 3 4 (classic), 61 62 (recorder)" for messages.
std::string supportedTypesText();

// Bus timing register pair of the classic adapter for a bit rate.
struct ClassicTiming {
  uint8_t timing0;
  uint8_t timing1;
};
std::optional<ClassicTiming> classicTimingFor(unsigned bitRate);

// Bit rates accepted by the CAN FD adapter for each phase.
bool isFdArbitrationRate(unsigned bitRate);
bool isFdDataRate(unsigned bitRate);

// The bit rates a family's channels run at, fastest first: of the data phase
// when `dataPhase` (CAN FD adapters only; empty for the others).
std::vector<unsigned> availableBitRates(Family family, bool dataPhase);

// "500000, 250000, ..." for messages.
std::string classicRatesText();
std::string fdArbitrationRatesText();
std::string fdDataRatesText();

} // namespace wcantool
