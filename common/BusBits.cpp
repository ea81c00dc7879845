// SPDX-License-Identifier: MIT
#include "common/BusBits.h"

#include <algorithm>

namespace busbits {
namespace {

// CRC delimiter, acknowledge slot and delimiter, end of frame, interframe
// space: never stuffed, always at the nominal rate.
constexpr unsigned kTailBits = 1 + 2 + 7 + 3;
constexpr unsigned kStuffRun = 5;

enum Phase { kNominal = 0, kData = 1 };

// Feeds the frame's bits in order and counts them per phase with the stuff
// bits dynamic stuffing inserts, keeping the classic checksum on the way.
class StuffedBits {
public:
  void put(uint32_t value, unsigned width) {
    for (unsigned i = width; i-- > 0;)
      putBit(((value >> i) & 1u) != 0);
  }

  void setPhase(Phase p) { phase_ = p; }
  uint16_t crc() const { return crc_; }
  unsigned count(Phase p) const { return bits_[p]; }

  // A run of five that ends the stuffed part: classic frames still insert
  // its stuff bit; in a CAN FD frame the fixed stuff bit that opens the stuff
  // count takes its place.
  void endDynamicStuffing(bool insertPending) {
    if (insertPending && pending_)
      ++bits_[phase_];
    pending_ = false;
    run_ = 0;
  }

private:
  void putBit(bool bit) {
    if (pending_) {
      ++bits_[phase_];
      last_ = !last_;
      run_ = 1;
      pending_ = false;
    }
    const bool feedback = (((crc_ >> 14) & 1u) != 0) != bit;
    crc_ = static_cast<uint16_t>((crc_ << 1) & 0x7FFF);
    if (feedback)
      crc_ ^= 0x4599;
    ++bits_[phase_];
    run_ = run_ > 0 && bit == last_ ? run_ + 1 : 1;
    last_ = bit;
    pending_ = run_ == kStuffRun;
  }

  unsigned bits_[2] = {0, 0};
  Phase phase_ = kNominal;
  bool last_ = false;
  unsigned run_ = 0;
  bool pending_ = false;
  uint16_t crc_ = 0;
};

constexpr unsigned kFdLengths[] = {12, 16, 20, 24, 32, 48, 64};

// The length code of a CAN FD payload: lengths above 8 round up to the next
// one the code can say.
unsigned lengthCode(unsigned len) {
  if (len <= 8)
    return len;
  unsigned code = 9;
  for (unsigned l : kFdLengths) {
    if (len <= l)
      return code;
    ++code;
  }
  return 15;
}

unsigned fdWireLength(unsigned len) {
  for (unsigned l : kFdLengths)
    if (len > 8 && len <= l)
      return l;
  return std::min(len, 64u);
}

// Start of frame and the identifier up to the bit that ends arbitration's
// identifier part; the bit after the base identifier is RTR/RRS when
// standard and SRR (recessive) when extended.
void putIdentifier(StuffedBits &b, const FrameShape &f, bool rtrOrRrs) {
  b.put(0, 1);
  if (!f.extended) {
    b.put(f.id & 0x7FFu, 11);
    b.put(rtrOrRrs, 1);
    b.put(0, 1); // IDE
    return;
  }
  b.put((f.id >> 18) & 0x7FFu, 11);
  b.put(1, 1); // SRR
  b.put(1, 1); // IDE
  b.put(f.id & 0x3FFFFu, 18);
  b.put(rtrOrRrs, 1);
}

// Bytes a CAN FD length code rounds up to go out as zeros.
void putData(StuffedBits &b, const FrameShape &f, unsigned wireLen) {
  const unsigned known = payloadBytes(f);
  for (unsigned i = 0; i < wireLen; ++i)
    b.put(i < known ? f.data[i] : 0, 8);
}

FrameBits classicBits(const FrameShape &f) {
  StuffedBits b;
  putIdentifier(b, f, f.remote);
  b.put(0, f.extended ? 2 : 1); // r1 r0, or r0
  b.put(std::min<unsigned>(f.len, 15), 4);
  putData(b, f, payloadBytes(f));
  b.put(b.crc(), 15);
  b.endDynamicStuffing(true);
  return {b.count(kNominal) + kTailBits, 0};
}

FrameBits fdBits(const FrameShape &f) {
  const unsigned len = fdWireLength(payloadBytes(f));
  StuffedBits b;
  putIdentifier(b, f, false); // RRS
  b.put(1, 1);                // FDF
  b.put(0, 1);                // res
  b.put(f.brs, 1);
  if (f.brs)
    b.setPhase(kData);
  b.put(0, 1); // ESI: error active
  b.put(lengthCode(len), 4);
  putData(b, f, len);
  b.endDynamicStuffing(false);
  // Stuff count (three bits and parity), the checksum, and a fixed stuff bit
  // before every four of them.
  const unsigned checked = 4 + (len <= 16 ? 17 : 21);
  const unsigned fixed = checked + (checked + 3) / 4;
  const unsigned switched = f.brs ? b.count(kData) + fixed : 0;
  const unsigned nominal = b.count(kNominal) + (f.brs ? 0 : fixed) + kTailBits;
  return {nominal, switched};
}

} // namespace

unsigned payloadBytes(const FrameShape &frame) {
  if (frame.remote && !frame.fd)
    return 0;
  return std::min<unsigned>(frame.len, frame.fd ? 64 : 8);
}

FrameBits onWire(const FrameShape &frame) { return frame.fd ? fdBits(frame) : classicBits(frame); }

} // namespace busbits
