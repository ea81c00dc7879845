// SPDX-License-Identifier: MIT
// The bits a CAN or CAN FD frame puts on the wire, stuff bits included,
// counted from the frame's own bits. The simulated bus paces its frames with
// this count and the bus-load tools measure load with it, so both agree on
// what a frame costs. Nothing here needs the library.
#pragma once

#include <cstdint>

namespace busbits {

// What decides a frame's length on the wire; `data` holds `len` bytes (none
// are read for a remote frame).
struct FrameShape {
  uint32_t id = 0;
  bool extended = false;
  bool remote = false;
  bool fd = false;
  bool brs = false;
  uint8_t len = 0;
  const uint8_t *data = nullptr;
};

// The simulation's frames and the tools' frames have these members alike.
template <class F> FrameShape shapeOf(const F &f) {
  return {f.id, f.extended, f.remote, f.fd, f.brs, f.len, &f.data[0]};
}

// Bits from start of frame to the end of the interframe space: `nominal` ones
// at the nominal rate and `data` ones at the data-phase rate (only a CAN FD
// frame with bit-rate switch has any: from its error state indicator to the
// end of its checksum).
struct FrameBits {
  unsigned nominal = 0;
  unsigned data = 0;
  unsigned total() const { return nominal + data; }
};

// Exact count: classic frames stuff dynamically from start of frame to the
// end of the checksum (whose CRC-15 value is computed for that); CAN FD
// frames stuff dynamically up to the end of the data and then carry the stuff
// count and the CRC-17 or CRC-21 with a fixed stuff bit before every four
// bits, so their checksum's value does not change the count.
FrameBits onWire(const FrameShape &frame);

// Classic data and remote frames carry at most 8 bytes, CAN FD frames 64.
unsigned payloadBytes(const FrameShape &frame);

} // namespace busbits
