#include "DeviceTypes.h"

#include <algorithm>
#include <array>

namespace wcantool {
namespace {

const std::vector<DeviceType> kDeviceTypes = {
    {41, Family::CanFd, 0x3068, 0x0009, 2},    {42, Family::CanFd, 0x3068, 0x0009, 2},
    {43, Family::CanFd, 0x3068, 0x0009, 2},    {64, Family::CanFd, 0x0471, 0x3014, 4},
    {65, Family::CanFd, 0x0471, 0x2014, 4},    {66, Family::CanFd, 0x0471, 0x2018, 8},
    {67, Family::CanFd, 0x0471, 0x3018, 8},    {3, Family::Classic, 0x0471, 0x1200, 2},
    {4, Family::Classic, 0x0471, 0x1200, 2},   {61, Family::Recorder, 0x0471, 0x2601, 2},
    {62, Family::Recorder, 0x0471, 0x2602, 2},
};

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
