// SPDX-License-Identifier: MIT
#include "BusTiming.h"

#include <algorithm>

namespace wcansim {

namespace {

constexpr uint32_t kDefaultNominalRate = 500000;

// CRC delimiter, acknowledge slot and delimiter, end of frame, interframe space.
constexpr unsigned kTailBits = 1 + 2 + 7 + 3;

unsigned withStuffBits(unsigned stuffedBits) { return stuffedBits + stuffedBits / 8; }

FrameBits classicBits(const CanFrame &f) {
  const unsigned dataBits = f.remote ? 0 : 8u * std::min<unsigned>(f.len, 8);
  // Start of frame, identifier, RTR, IDE, r0 (SRR, IDE, r1, r0 as well when
  // extended), length code, data, 15-bit checksum.
  const unsigned head = f.extended ? 1 + 11 + 1 + 1 + 18 + 1 + 2 + 4 : 1 + 11 + 1 + 1 + 1 + 4;
  return {withStuffBits(head + dataBits + 15) + kTailBits, 0};
}

FrameBits fdBits(const CanFrame &f) {
  const unsigned len = std::min<unsigned>(f.len, 64);
  // Start of frame, identifier, RRS, IDE, FDF, res, BRS (with SRR and the
  // identifier extension when extended).
  const unsigned arbitration = f.extended ? 1 + 11 + 1 + 1 + 18 + 1 + 3 : 1 + 11 + 1 + 1 + 3;
  // ESI and length code, data; then the stuff count and the 17- or 21-bit
  // checksum with a fixed stuff bit before every four bits.
  const unsigned control = 1 + 4 + 8 * len;
  const unsigned checksum = 4 + (len <= 16 ? 17 : 21);
  const unsigned fixedStuff = (checksum + 3) / 4;
  FrameBits bits{withStuffBits(arbitration) + kTailBits,
                 withStuffBits(control) + checksum + fixedStuff};
  if (!f.brs) {
    bits.nominal += bits.data;
    bits.data = 0;
  }
  return bits;
}

} // namespace

FrameBits frameBits(const CanFrame &frame) { return frame.fd ? fdBits(frame) : classicBits(frame); }

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
