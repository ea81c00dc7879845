#include "DeviceTypes.h"

#include <algorithm>
#include <array>

// The library's own table, shared as a header.
#include "../platform/DeviceTypes.h"

namespace wcantool {
namespace {

Family familyOf(wcan::DeviceFamily family) {
  switch (family) {
  case wcan::DeviceFamily::CanFd:
    return Family::CanFd;
  case wcan::DeviceFamily::Recorder:
    return Family::Recorder;
  default:
    return Family::Classic;
  }
}

// The library's device table, less the type numbers it routes but refuses.
std::vector<DeviceType> supportedTypes() {
  std::vector<DeviceType> types;
  for (const wcan::DeviceTypeInfo &entry : wcan::kDeviceTypes) {
    if (entry.family != wcan::DeviceFamily::ClassicRefused) {
      types.push_back(
          {entry.type, familyOf(entry.family), entry.vendorId, entry.productId, entry.channels});
    }
  }
  return types;
}

const std::vector<DeviceType> kDeviceTypes = supportedTypes();

struct ClassicRate {
  unsigned bitRate;
  ClassicTiming timing;
};

// Bus timing registers of the classic adapter's controller (16 MHz clock,
// single sampling, jump width 1); sample point 87.5 % from 500 kbit/s down.
constexpr std::array<ClassicRate, 9> kClassicRates = {{
    {1000000, {0x00, 0x14}},
    {800000, {0x00, 0x16}},
    {500000, {0x00, 0x1C}},
    {250000, {0x01, 0x1C}},
    {125000, {0x03, 0x1C}},
    {100000, {0x04, 0x1C}},
    {50000, {0x09, 0x1C}},
    {20000, {0x18, 0x1C}},
    {10000, {0x31, 0x1C}},
}};

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

} // namespace wcantool
