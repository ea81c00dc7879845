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

// Dynamic stuffing's state after a bit: the length of the run of equal bits
// (5: a stuff bit is due before the next bit) and its value.
struct StuffState {
  uint8_t run = 0;
  bool last = false;
};

// One bit through the stuffing: returns the stuff bits inserted before it.
unsigned stuffBit(StuffState &s, bool bit) {
  unsigned inserted = 0;
  if (s.run == kStuffRun) {
    inserted = 1;
    s.last = !s.last;
    s.run = 1;
  }
  s.run = static_cast<uint8_t>(s.run > 0 && bit == s.last ? s.run + 1 : 1);
  s.last = bit;
  return inserted;
}

uint16_t crc15Step(uint16_t crc, bool bit) {
  const bool feedback = (((crc >> 14) & 1u) != 0) != bit;
  crc = static_cast<uint16_t>((crc << 1) & 0x7FFF);
  return feedback ? crc ^ 0x4599 : crc;
}

constexpr unsigned kStuffStates = 2 * (kStuffRun + 1);
unsigned stateIndex(StuffState s) { return s.run * 2u + s.last; }

// What `kWidth` bits of every value do from every stuffing state, for whole
// data bytes and the header's fields: a full CAN FD bus carries 56,000
// frames a second, and the live views count every one.
template <unsigned kWidth> struct ChunkTables {
  static constexpr unsigned kValues = 1u << kWidth;
  uint8_t next[kStuffStates][kValues];     // state index after the bits
  uint8_t inserted[kStuffStates][kValues]; // stuff bits inserted before and among them
  uint16_t crc[kValues];                   // what they add to the checksum register

  ChunkTables() {
    for (unsigned st = 0; st < kStuffStates; ++st)
      for (unsigned value = 0; value < kValues; ++value) {
        StuffState s{static_cast<uint8_t>(st / 2), (st & 1u) != 0};
        unsigned n = 0;
        for (unsigned i = kWidth; i-- > 0;)
          n += stuffBit(s, ((value >> i) & 1u) != 0);
        next[st][value] = static_cast<uint8_t>(stateIndex(s));
        inserted[st][value] = static_cast<uint8_t>(n);
      }
    for (unsigned value = 0; value < kValues; ++value) {
      auto c = static_cast<uint16_t>(value << (15 - kWidth));
      for (unsigned i = 0; i < kWidth; ++i)
        c = crc15Step(c, false);
      crc[value] = c;
    }
  }
};

struct Tables {
  ChunkTables<8> bytes;
  ChunkTables<4> nibbles;
};

const Tables &tables() {
  static const Tables t;
  return t;
}

// Feeds the frame's bits in order and counts them per phase with the stuff
// bits dynamic stuffing inserts, keeping the classic checksum on the way.
class StuffedBits {
public:
  explicit StuffedBits(bool withCrc) : withCrc_(withCrc) {}

  // Whole bytes and nibbles of a field through the tables, the rest bit by
  // bit.
  void put(uint32_t value, unsigned width) {
    for (; width >= 8; width -= 8)
      putChunk(tables().bytes, (value >> (width - 8)) & 0xFFu);
    if (width >= 4) {
      width -= 4;
      putChunk(tables().nibbles, (value >> width) & 0xFu);
    }
    for (unsigned i = width; i-- > 0;) {
      const bool bit = ((value >> i) & 1u) != 0;
      bits_[phase_] += 1 + stuffBit(state_, bit);
      if (withCrc_)
        crc_ = crc15Step(crc_, bit);
    }
  }

  void putByte(uint8_t byte) { putChunk(tables().bytes, byte); }

  void setPhase(Phase p) { phase_ = p; }
  uint16_t crc() const { return crc_; }
  unsigned count(Phase p) const { return bits_[p]; }

  // A run of five that ends the stuffed part: classic frames still insert
  // its stuff bit; in a CAN FD frame the fixed stuff bit that opens the stuff
  // count takes its place.
  void endDynamicStuffing(bool insertPending) {
    if (insertPending && state_.run == kStuffRun)
      ++bits_[phase_];
    state_ = StuffState{};
  }

private:
  template <unsigned kWidth> void putChunk(const ChunkTables<kWidth> &t, unsigned value) {
    const unsigned st = stateIndex(state_);
    bits_[phase_] += kWidth + t.inserted[st][value];
    const uint8_t next = t.next[st][value];
    state_ = StuffState{static_cast<uint8_t>(next / 2), (next & 1u) != 0};
    if (withCrc_)
      crc_ = static_cast<uint16_t>(((crc_ << kWidth) & 0x7FFF) ^
                                   t.crc[((crc_ >> (15 - kWidth)) ^ value) & (t.kValues - 1)]);
  }

  bool withCrc_;
  unsigned bits_[2] = {0, 0};
  Phase phase_ = kNominal;
  StuffState state_;
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
// (Fields go out together, as few calls as can take them whole.)
void putIdentifier(StuffedBits &b, const FrameShape &f, bool rtrOrRrs) {
  const uint32_t base = f.extended ? (f.id >> 18) & 0x7FFu : f.id & 0x7FFu;
  if (!f.extended) {
    // SOF, identifier, RTR/RRS, IDE (dominant)
    b.put(base << 2 | uint32_t{rtrOrRrs} << 1, 1 + 11 + 1 + 1);
    return;
  }
  // SOF, base identifier, SRR and IDE (recessive); extension, RTR/RRS
  b.put(base << 2 | 3u, 1 + 11 + 1 + 1);
  b.put((f.id & 0x3FFFFu) << 1 | uint32_t{rtrOrRrs}, 18 + 1);
}

// Bytes a CAN FD length code rounds up to go out as zeros.
void putData(StuffedBits &b, const FrameShape &f, unsigned wireLen) {
  const unsigned known = payloadBytes(f);
  for (unsigned i = 0; i < wireLen; ++i)
    b.putByte(i < known ? f.data[i] : 0);
}

FrameBits classicBits(const FrameShape &f) {
  StuffedBits b(true);
  putIdentifier(b, f, f.remote);
  // r1 r0, or r0, and the length code
  b.put(std::min<unsigned>(f.len, 15), (f.extended ? 2 : 1) + 4);
  putData(b, f, payloadBytes(f));
  b.put(b.crc(), 15);
  b.endDynamicStuffing(true);
  return {b.count(kNominal) + kTailBits, 0};
}

FrameBits fdBits(const FrameShape &f) {
  const unsigned len = fdWireLength(payloadBytes(f));
  // The checksum of a CAN FD frame is fixed-stuffed: its value changes
  // nothing.
  StuffedBits b(false);
  putIdentifier(b, f, false);         // RRS
  b.put(0b100u | uint32_t{f.brs}, 3); // FDF, res, BRS
  if (f.brs)
    b.setPhase(kData);
  b.put(lengthCode(len), 1 + 4); // ESI (error active) and the length code
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
