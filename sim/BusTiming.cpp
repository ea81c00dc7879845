// SPDX-License-Identifier: MIT
#include "BusTiming.h"

#include <algorithm>

namespace wcansim {
namespace {
constexpr uint32_t kDefaultNominalRate = 500000;
} // namespace

std::chrono::nanoseconds frameDuration(const CanFrame &frame, BitRates rates) {
  const uint64_t nominal = rates.nominal != 0 ? rates.nominal : kDefaultNominalRate;
  const uint64_t data = rates.data != 0 ? rates.data : nominal;
  const FrameBits bits = frameBits(frame);
  const uint64_t ns = bits.nominal * 1000000000ull / nominal + bits.data * 1000000000ull / data;
  return std::chrono::nanoseconds(ns);
}

uint64_t arbitrationKey(const CanFrame &f) {
  const uint64_t rtr = f.remote && !f.fd ? 1 : 0;
  if (!f.extended)
    return uint64_t{f.id & 0x7FFu} << 21 | rtr << 20; // IDE dominant
  // Base identifier, SRR and IDE recessive, identifier extension, RTR.
  const uint64_t base = (f.id >> 18) & 0x7FFu;
  const uint64_t extension = f.id & 0x3FFFFu;
  return base << 21 | uint64_t{1} << 20 | uint64_t{1} << 19 | extension << 1 | rtr;
}

} // namespace wcansim
