// SPDX-License-Identifier: MIT
// How long a frame holds the bus and which of several waiting frames wins it.
#pragma once

#include <chrono>
#include <cstdint>

#include "SimModel.h"
#include "common/BusBits.h"

namespace wcansim {

// Bits a frame occupies on the wire, interframe space and stuff bits
// included, as the bus-load tools count them.
using busbits::FrameBits;
inline FrameBits frameBits(const CanFrame &frame) {
  return busbits::onWire(busbits::shapeOf(frame));
}

// The time the frame's bits take at these rates. A rate the host never set
// counts as 500 kbit/s nominal, and a missing data-phase rate as the
// nominal one.
std::chrono::nanoseconds frameDuration(const CanFrame &frame, BitRates rates);

// The frame's arbitration field as a number: of two frames contending for
// the bus, the lower number wins (a dominant bit is 0).
uint64_t arbitrationKey(const CanFrame &frame);

} // namespace wcansim
