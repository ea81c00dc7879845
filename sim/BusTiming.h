// SPDX-License-Identifier: MIT
// How long a frame holds the bus and which of several waiting frames wins it.
#pragma once

#include <chrono>
#include <cstdint>

#include "SimModel.h"

namespace wcansim {

// Bits a frame occupies on the wire, interframe space included: `nominal`
// ones at the nominal rate and `data` ones at the data-phase rate (only a
// CAN FD frame with bit-rate switch has any). Stuff bits are estimated as
// one per eight bits of the stuffed fields, half the worst case; the fixed
// stuff bits of a CAN FD checksum are counted exactly.
struct FrameBits {
  unsigned nominal = 0;
  unsigned data = 0;
};
FrameBits frameBits(const CanFrame &frame);

// The time the frame's bits take at these rates. A rate the host never set
// counts as 500 kbit/s nominal, and a missing data-phase rate as the
// nominal one.
std::chrono::nanoseconds frameDuration(const CanFrame &frame, BitRates rates);

// The frame's arbitration field as a number: of two frames contending for
// the bus, the lower number wins (a dominant bit is 0).
uint64_t arbitrationKey(const CanFrame &frame);

} // namespace wcansim
