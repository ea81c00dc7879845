// SPDX-License-Identifier: MIT
#include "common/DeviceTypes.h"

#include <algorithm>
#include <array>

#include "wcan_device_types.h"

namespace wcantool {
namespace {

// The library's device table, less the type numbers it routes but refuses.
std::vector<DeviceType> supportedTypes() {
  std::vector<DeviceType> types;
#define WCAN_TOOL_TYPE(type, family, vendorId, productId, channels, clockMHz, counterBits)         \
  if (Family::family != Family::ClassicRefused) {                                                  \
    types.push_back({type, Family::family, vendorId, productId, channels, counterBits});           \
  }
  WCAN_DEVICE_TYPES(WCAN_TOOL_TYPE)
#undef WCAN_TOOL_TYPE
  return types;
}

const std::vector<DeviceType> kDeviceTypes = supportedTypes();

struct ClassicRate {
  unsigned bitRate;
  ClassicTiming timing;
};

#define WCAN_TOOL_RATE(bitRate, timing0, timing1) {bitRate, {timing0, timing1}},
constexpr ClassicRate kClassicRates[] = {WCAN_CLASSIC_BIT_RATES(WCAN_TOOL_RATE)};
#undef WCAN_TOOL_RATE

constexpr std::array<unsigned, 7> kFdArbitrationRates = {1000000, 800000, 500000, 250000,
                                                         125000,  100000, 50000};
constexpr std::array<unsigned, 10> kFdDataRates = {5000000, 4000000, 2000000, 1000000, 800000,
                                                   500000,  250000,  125000,  100000,  50000};

template <typename Range, typename Project> std::string joinRates(const Range &r, Project proj) {
  std::string s;
  for (const auto &item : r) {
    if (!s.empty())
      s += ", ";
    s += std::to_string(proj(item));
  }
  return s;
}

} // namespace

const std::vector<DeviceType> &deviceTypes() { return kDeviceTypes; }

const DeviceType *findDeviceType(unsigned type) {
  auto it = std::find_if(kDeviceTypes.begin(), kDeviceTypes.end(),
                         [type](const DeviceType &d) { return d.type == type; });
  return it == kDeviceTypes.end() ? nullptr : &*it;
}

std::string supportedTypesText() {
  std::string text;
  for (Family family : {Family::CanFd, Family::Classic, Family::Recorder}) {
    std::string numbers;
    for (const DeviceType &t : kDeviceTypes)
      if (t.family == family)
        numbers += (numbers.empty() ? "" : " ") + std::to_string(t.type);
    if (!numbers.empty())
      text += (text.empty() ? "" : ", ") + numbers + " (" + familyName(family) + ")";
  }
  return text;
}

std::vector<unsigned> typesForUsbId(uint16_t vendorId, uint16_t productId) {
  std::vector<unsigned> types;
  for (const DeviceType &d : kDeviceTypes)
    if (d.vendorId == vendorId && d.productId == productId)
      types.push_back(d.type);
  return types;
}

const char *familyName(Family family) {
  switch (family) {
  case Family::CanFd:
    return "CAN FD adapter";
  case Family::Classic:
    return "classic CAN adapter";
  case Family::Recorder:
    return "CAN recorder";
  case Family::ClassicRefused:
    break;
  }
  return "?";
}

std::optional<ClassicTiming> classicTimingFor(unsigned bitRate) {
  for (const ClassicRate &r : kClassicRates)
    if (r.bitRate == bitRate)
      return r.timing;
  return std::nullopt;
}

bool isFdArbitrationRate(unsigned bitRate) {
  return std::find(kFdArbitrationRates.begin(), kFdArbitrationRates.end(), bitRate) !=
         kFdArbitrationRates.end();
}

bool isFdDataRate(unsigned bitRate) {
  return std::find(kFdDataRates.begin(), kFdDataRates.end(), bitRate) != kFdDataRates.end();
}

std::string classicRatesText() {
  return joinRates(kClassicRates, [](const ClassicRate &r) { return r.bitRate; });
}
std::string fdArbitrationRatesText() {
  return joinRates(kFdArbitrationRates, [](unsigned r) { return r; });
}
std::string fdDataRatesText() {
  return joinRates(kFdDataRates, [](unsigned r) { return r; });
}

std::vector<unsigned> availableBitRates(Family family, bool dataPhase) {
  if (family == Family::CanFd)
    return dataPhase
               ? std::vector<unsigned>(kFdDataRates.begin(), kFdDataRates.end())
               : std::vector<unsigned>(kFdArbitrationRates.begin(), kFdArbitrationRates.end());
  std::vector<unsigned> rates;
  if (family == Family::Classic && !dataPhase)
    for (const ClassicRate &r : kClassicRates)
      rates.push_back(r.bitRate);
  return rates;
}

} // namespace wcantool
