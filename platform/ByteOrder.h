// SPDX-License-Identifier: MIT
// Byte-order helpers shared by every driver family: a read-only view that
// never reads past its end, and stores of little/big-endian words.
#pragma once

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstring>

namespace wcan {

// Reads fixed positions of received bytes. A position past the end reads as
// zero, so a short or hostile reply can never lead a decoder out of its buffer.
class ByteReader {
public:
  constexpr ByteReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}

  constexpr size_t size() const { return size_; }
  // Whether [offset, offset + length) lies inside the view, without wrapping.
  constexpr bool has(size_t offset, size_t length) const {
    return offset <= size_ && length <= size_ - offset;
  }

  uint8_t u8(size_t offset) const { return byteAt(offset, 0); }
  uint16_t u16le(size_t offset) const {
    return static_cast<uint16_t>(byteAt(offset, 0) | byteAt(offset, 1) << 8);
  }
  uint16_t u16be(size_t offset) const {
    return static_cast<uint16_t>(byteAt(offset, 0) << 8 | byteAt(offset, 1));
  }
  uint32_t u32le(size_t offset) const {
    return static_cast<uint32_t>(byteAt(offset, 0)) |
           static_cast<uint32_t>(byteAt(offset, 1)) << 8 |
           static_cast<uint32_t>(byteAt(offset, 2)) << 16 |
           static_cast<uint32_t>(byteAt(offset, 3)) << 24;
  }
  uint32_t u32be(size_t offset) const {
    return static_cast<uint32_t>(byteAt(offset, 0)) << 24 |
           static_cast<uint32_t>(byteAt(offset, 1)) << 16 |
           static_cast<uint32_t>(byteAt(offset, 2)) << 8 | static_cast<uint32_t>(byteAt(offset, 3));
  }

  // Copies up to `length` bytes from `offset`, stopping at the end; returns
  // how many were copied. Nothing past them in `out` is written.
  size_t copy(size_t offset, size_t length, void *out) const {
    if (offset >= size_) {
      return 0;
    }
    const size_t n = std::min(length, size_ - offset);
    std::memcpy(out, data_ + offset, n);
    return n;
  }

  // The part [offset, offset + length), cut at the end of this view.
  ByteReader sub(size_t offset, size_t length) const {
    if (offset > size_) {
      return ByteReader(data_ + size_, 0);
    }
    return ByteReader(data_ + offset, std::min(length, size_ - offset));
  }

private:
  // Byte `k` after `offset`, computed without letting offset + k wrap around.
  uint8_t byteAt(size_t offset, size_t k) const {
    return offset < size_ && k < size_ - offset ? data_[offset + k] : 0;
  }

  const uint8_t *data_;
  size_t size_;
};

inline void putU16le(uint8_t *at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value);
  at[1] = static_cast<uint8_t>(value >> 8);
}

inline void putU32le(uint8_t *at, uint32_t value) {
  putU16le(at, value);
  putU16le(at + 2, value >> 16);
}

inline void putU16be(uint8_t *at, uint32_t value) {
  at[0] = static_cast<uint8_t>(value >> 8);
  at[1] = static_cast<uint8_t>(value);
}

inline void putU32be(uint8_t *at, uint32_t value) {
  putU16be(at, value >> 16);
  putU16be(at + 2, value);
}

} // namespace wcan
