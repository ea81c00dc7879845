// SPDX-License-Identifier: MIT
// Byte layouts of the CAN FD adapter's USB protocol: command frames, the
// transmit batch, the receive stream and the per-variant bit-timing tables.
// Pure functions only: no USB, no threads, no globals beyond constant tables.
#pragma once

#include <algorithm>
#include <array>
#include <cstddef>
#include <cstdint>
#include <cstring>

#include "platform/ByteOrder.h"
#include "platform/DeviceTypes.h"
#include "wcan.h"

namespace usbcanfd {

using wcan::ByteReader;

constexpr uint8_t kFrameStart = 0x55;
constexpr uint8_t kDataFrameCode = 0xF2;

constexpr uint8_t kCmdVersion = 0x01;
constexpr uint8_t kCmdBaudInit = 0x03;
constexpr uint8_t kCmdFilter = 0x04;
constexpr uint8_t kCmdStart = 0x0E;
constexpr uint8_t kCmdStop = 0x0F;
constexpr uint8_t kCmdVersion2 = 0x12;
constexpr uint8_t kCmdBoard = 0x13;
constexpr uint8_t kCmdStatus = 0x16;

enum class FilterSub : uint8_t {
  Clear = 0x01,
  StandardRange = 0x02,
  ExtendedRange = 0x03,
  Enable = 0x04,
  AnyRange = 0x05,
};

constexpr uint8_t kEpCmdOut = 0x01;
constexpr uint8_t kEpCmdIn = 0x81;
constexpr uint8_t kEpDataOut = 0x02;
constexpr uint8_t kEpAckIn = 0x82;
constexpr uint8_t kEpStreamIn = 0x83;

constexpr unsigned kChannelSlots = 8;
constexpr size_t kCmdFrameRoom = 64;
constexpr size_t kRawPayloadMax = 62;
constexpr size_t kDataHeaderLen = 7;
constexpr size_t kCanRecordLen = 19;
constexpr size_t kCanFdRecordLen = 75;
constexpr unsigned kMaxBatch = 10;
constexpr size_t kTxFrameRoom = 2048;
constexpr size_t kStreamBufferLen = 4096;

// Record flag bits on the wire.
constexpr uint8_t kWireFd = 0x01;
constexpr uint8_t kWireRemote = 0x02;
constexpr uint8_t kWireExtended = 0x04;
constexpr uint8_t kWireFlag08 = 0x08;
constexpr uint8_t kWireFlag10 = 0x10;

// ---------------------------------------------------------------------------
// Device variants and bit timing
// ---------------------------------------------------------------------------

struct TimingEntry {
  uint32_t bitRate;
  uint32_t word;
};

// Everything that depends on the adapter clock.
struct ClockTables {
  uint8_t clockMHz;
  std::array<TimingEntry, 7> arbitration;
  std::array<TimingEntry, 10> data;
};

inline constexpr ClockTables kClock60{60,
                                      {{{1000000, 0x01400106},
                                        {800000, 0x0100020A},
                                        {500000, 0x02C00106},
                                        {250000, 0x05C00106},
                                        {125000, 0x0BC00106},
                                        {100000, 0x0EC00106},
                                        {50000, 0x1DC00106}}},
                                      {{{5000000, 0x00800001},
                                        {4000000, 0x00800002},
                                        {2000000, 0x00800106},
                                        {1000000, 0x01400106},
                                        {800000, 0x0100020A},
                                        {500000, 0x02C00106},
                                        {250000, 0x05C00106},
                                        {125000, 0x0BC00106},
                                        {100000, 0x0EC00106},
                                        {50000, 0x1DC00106}}}};

inline constexpr ClockTables kClock80{80,
                                      {{{1000000, 0x00C0030E},
                                        {800000, 0x0100030E},
                                        {500000, 0x01C0030E},
                                        {250000, 0x03C0030E},
                                        {125000, 0x07C0030E},
                                        {100000, 0x09C0030E},
                                        {50000, 0x13C0030E}}},
                                      {{{5000000, 0x00400005},
                                        {4000000, 0x00400106},
                                        {2000000, 0x00C00106},
                                        {1000000, 0x00C0030E},
                                        {800000, 0x0100030E},
                                        {500000, 0x01C0030E},
                                        {250000, 0x03C0030E},
                                        {125000, 0x07C0030E},
                                        {100000, 0x09C0030E},
                                        {50000, 0x13C0030E}}}};

// What a device type of the family needs: its USB identity and channel
// count (from the library's device table) and its clock's timing tables.
struct UsbCanFdVariant {
  uint16_t vendorId;
  uint16_t productId;
  uint8_t channelCount;
  const ClockTables *clock;
};

constexpr UsbCanFdVariant variantOf(const wcan::DeviceTypeInfo &entry) {
  return {entry.vendorId, entry.productId, entry.channels,
          entry.clockMHz == kClock80.clockMHz ? &kClock80 : &kClock60};
}

// Anything routed here that is not a CAN FD type is treated as type 41.
constexpr UsbCanFdVariant variantFor(unsigned devType) {
  const wcan::DeviceTypeInfo *entry = wcan::findDeviceType(devType);
  if (entry == nullptr || entry->family != wcan::DeviceFamily::CanFd) {
    entry = wcan::findDeviceType(41);
  }
  return variantOf(*entry);
}

// First exact match of the rate; false for rate 0 or an unknown rate.
template <size_t N>
constexpr bool lookupTiming(const std::array<TimingEntry, N> &table, uint32_t bitRate,
                            uint32_t &word) {
  if (bitRate == 0) {
    return false;
  }
  for (const auto &entry : table) {
    if (entry.bitRate == bitRate) {
      word = entry.word;
      return true;
    }
  }
  return false;
}

// The fields of a 32-bit timing word.
struct TimingFields {
  uint16_t prescalerMinus1; // bits 31..22
  uint8_t sjw;              // bits 21..15
  uint16_t tseg1Minus1;     // bits 7..0
  uint16_t tseg2Minus1;     // bits 14..8
};

constexpr TimingFields splitTiming(uint32_t word) {
  return {static_cast<uint16_t>((word >> 22) & 0x3FF), static_cast<uint8_t>((word >> 15) & 0x7F),
          static_cast<uint16_t>(word & 0xFF), static_cast<uint16_t>((word >> 8) & 0x7F)};
}

// ---------------------------------------------------------------------------
// Command frames (interrupt endpoint 0x01)
// ---------------------------------------------------------------------------

// A command frame as it goes out: only the first `len` bytes are sent.
struct CmdFrame {
  std::array<uint8_t, kCmdFrameRoom> bytes{};
  int len = 0;
};

// 55 code 01 01: the version and board queries.
CmdFrame encodeQuery(uint8_t code);
// The 24-byte baud-init command.
CmdFrame encodeBaudInit(uint8_t channel, uint8_t modeByte4, uint8_t modeByte5,
                        uint8_t arbitrationClockMHz, uint8_t dataClockMHz, uint32_t arbitrationWord,
                        uint32_t dataWord);
// 55 code 02 00 (channel << 4): start and stop.
CmdFrame encodeChannelCmd(uint8_t code, uint8_t channel);
// 55 16 ((channel << 4) | 1) 00.
CmdFrame encodeStatusQuery(uint8_t channel);
CmdFrame encodeFilter(FilterSub sub, uint8_t channel, uint32_t firstId, uint32_t lastId);
// 12 A7 followed by at most 62 payload bytes.
CmdFrame encodeRawExchange(const uint8_t *payload, uint32_t length);

// Version words come high byte first, status words low byte first.
inline uint16_t replyVersionWord(const uint8_t *reply) { return ByteReader(reply, 6).u16be(4); }
inline uint32_t replyStatusWord(const uint8_t *reply) { return ByteReader(reply, 7).u32le(3); }

// ---------------------------------------------------------------------------
// Transmit batches (bulk endpoint 0x02)
// ---------------------------------------------------------------------------

using TxFrame = std::array<uint8_t, kTxFrameRoom>;

// Packs min(count, 10) records into one data frame and returns its length.
// Remote records have their dataLen set to 0 in the caller's array, and the
// 0 is what goes on the wire. The channel is not range-checked: only its low
// nibble survives in the record.
size_t encodeCanBatch(uint8_t header, unsigned channel, _WCAN_CAN_OBJ *frames, unsigned count,
                      TxFrame &out);
size_t encodeCanFdBatch(uint8_t header, unsigned channel, _WCAN_CANFD_OBJ *frames, unsigned count,
                        TxFrame &out);

// ---------------------------------------------------------------------------
// Receive stream (bulk endpoint 0x83)
// ---------------------------------------------------------------------------

// Queue of a record: the channel nibble, channels 8..15 all landing in 7.
inline unsigned recordQueue(ByteReader record) {
  return std::min<unsigned>(record.u8(0) >> 4, kChannelSlots - 1);
}
inline bool isFdRecord(ByteReader record) { return (record.u8(1) & kWireFd) != 0; }

// Decode one record. The reader should span the whole record; bytes missing
// from a short one read as zero.
void decodeCanRecord(ByteReader record, _WCAN_CAN_OBJ &out);
void decodeCanFdRecord(ByteReader record, _WCAN_CANFD_OBJ &out);

enum class HeaderScan { NotHeader, Incomplete, Frame };

// Whether a data frame starts at `p`. A header prefix cut by the end of the
// data, or a frame not yet complete, is Incomplete. A zero payload length,
// or one whose frame could never fit in the stream buffer, is no header.
inline HeaderScan scanHeader(ByteReader in, size_t p) {
  const size_t remaining = in.size() - p;
  if (in.u8(p) != kFrameStart) {
    return HeaderScan::NotHeader;
  }
  if (remaining < 2) {
    return HeaderScan::Incomplete;
  }
  if (in.u8(p + 1) != kDataFrameCode) {
    return HeaderScan::NotHeader;
  }
  if (remaining < 6) {
    return HeaderScan::Incomplete;
  }
  const size_t payload = in.u16le(p + 4);
  if (payload == 0 || payload + kDataHeaderLen > kStreamBufferLen) {
    return HeaderScan::NotHeader;
  }
  return remaining < payload + kDataHeaderLen ? HeaderScan::Incomplete : HeaderScan::Frame;
}

// Parses the data frames in buf[0..length) and hands every record to the
// sink (sink.can(queue, obj) / sink.canFd(queue, obj)). Returns the bytes
// consumed; an incomplete frame at the end stays unconsumed. Records are
// stepped by their fixed sizes and stay inside their frame's payload: a
// record that would end beyond it is not decoded, and scanning goes on after
// the payload whatever the record count said.
template <class Sink> size_t parseStream(const uint8_t *buf, size_t length, Sink &sink) {
  const ByteReader in(buf, length);
  size_t p = 0;
  if (length < kDataHeaderLen) {
    return 0;
  }
  while (p < length) {
    const HeaderScan scan = scanHeader(in, p);
    if (scan == HeaderScan::Incomplete) {
      break;
    }
    if (scan == HeaderScan::NotHeader) {
      ++p;
      continue;
    }
    const unsigned count = in.u8(p + 6);
    const size_t payloadEnd = p + kDataHeaderLen + in.u16le(p + 4);
    const ByteReader payload = in.sub(0, payloadEnd);
    p += kDataHeaderLen;
    for (unsigned i = 0; i < count; ++i) {
      const bool fd = (payload.u8(p + 1) & kWireFd) != 0;
      const size_t recordLen = fd ? kCanFdRecordLen : kCanRecordLen;
      if (!payload.has(p, recordLen)) {
        break;
      }
      const ByteReader record = payload.sub(p, recordLen);
      if (fd) {
        _WCAN_CANFD_OBJ obj;
        decodeCanFdRecord(record, obj);
        sink.canFd(recordQueue(record), obj);
      } else {
        _WCAN_CAN_OBJ obj;
        decodeCanRecord(record, obj);
        sink.can(recordQueue(record), obj);
      }
      p += recordLen;
    }
    p = payloadEnd;
  }
  return p;
}

// The stream buffer: bulk reads land straight in its free space and are
// parsed in place; the unparsed rest (an incomplete frame) stays for the next
// read.
class StreamAssembler {
public:
  // Where the next read goes and how much fits.
  uint8_t *space() { return buf_.data() + fill_; }
  size_t room() const { return kStreamBufferLen - fill_; }
  // Parses `length` bytes just read into space().
  template <class Sink> void commit(size_t length, Sink &sink) {
    fill_ += std::min(length, room());
    size_t used = parseStream(buf_.data(), fill_, sink);
    if (used == 0 && fill_ == kStreamBufferLen) {
      used = 1; // cannot happen with the header rules above; never stall
    }
    std::memmove(buf_.data(), buf_.data() + used, fill_ - used);
    fill_ -= used;
  }
  // Parses the bytes of one read. A frame the last read cut off is completed
  // in the buffer first; the rest is parsed where it lies, and only a frame
  // this read cuts off is copied in (in as many steps as it needs).
  template <class Sink> void feed(const uint8_t *data, size_t length, Sink &sink) {
    while (length > 0 && fill_ > 0) {
      const size_t take = std::min({length, room(), bytesToComplete()});
      copyIn(data, take, sink);
      data += take;
      length -= take;
    }
    const size_t used = parseStream(data, length, sink);
    data += used;
    length -= used;
    while (length > 0) {
      const size_t take = std::min(length, room());
      copyIn(data, take, sink);
      data += take;
      length -= take;
    }
  }
  void reset() { fill_ = 0; }
  // Drops what is buffered but keeps `justRead` bytes that a read put into
  // space() and that are not committed yet.
  void resetKeepingRead(size_t justRead) {
    justRead = std::min(justRead, room());
    std::memmove(buf_.data(), buf_.data() + fill_, justRead);
    fill_ = 0;
  }
  size_t pending() const { return fill_; }

private:
  template <class Sink> void copyIn(const uint8_t *data, size_t length, Sink &sink) {
    std::memcpy(space(), data, length);
    commit(length, sink);
  }
  // Bytes still missing from the frame the buffer starts with, as far as
  // its header tells; a whole buffer's worth when it tells nothing.
  size_t bytesToComplete() const {
    constexpr size_t kLengthEnd = 6;
    if (fill_ < kLengthEnd) {
      return kLengthEnd - fill_;
    }
    const size_t frame = kDataHeaderLen + ByteReader(buf_.data(), fill_).u16le(4);
    return frame > fill_ ? frame - fill_ : room();
  }

  std::array<uint8_t, kStreamBufferLen> buf_{};
  size_t fill_ = 0;
};

} // namespace usbcanfd
