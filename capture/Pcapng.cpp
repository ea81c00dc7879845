// SPDX-License-Identifier: MIT
#include "capture/Pcapng.h"

#include <algorithm>
#include <climits>
#include <cstring>

namespace wcantool::capture {
namespace {

constexpr uint32_t kSectionHeader = 0x0A0D0D0A;
constexpr uint32_t kInterfaceDescription = 1;
constexpr uint32_t kSimplePacket = 3;
constexpr uint32_t kEnhancedPacket = 6;
constexpr uint32_t kByteOrderMagic = 0x1A2B3C4D;
constexpr uint32_t kByteOrderSwapped = 0x4D3C2B1A;

constexpr uint16_t kOptEnd = 0;
constexpr uint16_t kOptShbUserAppl = 4;
constexpr uint16_t kOptIfName = 2;
constexpr uint16_t kOptIfDescription = 3;
constexpr uint16_t kOptIfTsresol = 9;
constexpr uint16_t kOptIfTsoffset = 14;
constexpr uint16_t kOptEpbFlags = 2;

// SocketCAN's flags in the identifier word and the CAN FD flags byte.
constexpr uint32_t kIdExtended = 0x80000000;
constexpr uint32_t kIdRemote = 0x40000000;
constexpr uint32_t kIdError = 0x20000000;
constexpr uint8_t kFdBrs = 0x01;
constexpr uint8_t kFdFdf = 0x04;
constexpr uint8_t kLenXl = 0x80;
constexpr size_t kCanHeader = 8;

constexpr size_t padded(size_t n) { return (n + 3) & ~size_t{3}; }

template <typename T> void put(std::vector<uint8_t> &out, T value) {
  const size_t at = out.size();
  out.resize(at + sizeof value);
  std::memcpy(out.data() + at, &value, sizeof value);
}

void putOption(std::vector<uint8_t> &out, uint16_t code, const void *value, size_t size) {
  put(out, code);
  put(out, static_cast<uint16_t>(size));
  const auto *bytes = static_cast<const uint8_t *>(value);
  out.insert(out.end(), bytes, bytes + size);
  out.resize(out.size() + padded(size) - size);
}

void putTextOption(std::vector<uint8_t> &out, uint16_t code, std::string_view text) {
  if (!text.empty())
    putOption(out, code, text.data(), std::min<size_t>(text.size(), 0xFFFF));
}

// Writes the type and a placeholder length; finishBlock fills in both lengths.
size_t startBlock(std::vector<uint8_t> &out, uint32_t type) {
  const size_t start = out.size();
  put(out, type);
  put(out, uint32_t{0});
  return start;
}

void finishBlock(std::vector<uint8_t> &out, size_t start) {
  put(out, kOptEnd);
  put(out, uint16_t{0});
  const auto total = static_cast<uint32_t>(out.size() - start + 4);
  put(out, total);
  std::memcpy(out.data() + start + 4, &total, sizeof total);
}

} // namespace

size_t encodeSocketCan(const Frame &frame, uint8_t (&out)[kFdPacketSize]) {
  const size_t room = frame.fd ? kMaxFdLen : kMaxClassicLen;
  const size_t size = frame.fd ? kFdPacketSize : kClassicPacketSize;
  uint32_t word = frame.id & (frame.extended ? kMaxExtendedId : kMaxStandardId);
  if (frame.extended)
    word |= kIdExtended;
  if (frame.remote && !frame.fd)
    word |= kIdRemote;
  out[0] = static_cast<uint8_t>(word >> 24);
  out[1] = static_cast<uint8_t>(word >> 16);
  out[2] = static_cast<uint8_t>(word >> 8);
  out[3] = static_cast<uint8_t>(word);
  const uint8_t len = static_cast<uint8_t>(std::min<size_t>(frame.len, room));
  out[4] = len;
  out[5] = frame.fd ? static_cast<uint8_t>(kFdFdf | (frame.brs ? kFdBrs : 0)) : 0;
  out[6] = 0;
  out[7] = 0;
  const size_t carried = frame.remote ? 0 : len;
  std::memcpy(out + kCanHeader, frame.data.data(), carried);
  std::memset(out + kCanHeader + carried, 0, room - carried);
  return size;
}

bool decodeSocketCan(const uint8_t *data, size_t size, Frame &out, bool &errorFrame,
                     std::string &error) {
  out = Frame{};
  errorFrame = false;
  if (size < kCanHeader) {
    error = "a packet of " + std::to_string(size) + " bytes is shorter than the CAN header";
    return false;
  }
  const uint32_t word = uint32_t{data[0]} << 24 | uint32_t{data[1]} << 16 | uint32_t{data[2]} << 8 |
                        uint32_t{data[3]};
  if (word & kIdError) {
    errorFrame = true;
    return true;
  }
  const uint8_t len = data[4];
  const uint8_t flags = data[5];
  if (len & kLenXl) {
    error = "a CAN XL frame, which cannot be sent";
    return false;
  }
  out.fd = (flags & kFdFdf) != 0 || size == kFdPacketSize;
  out.extended = (word & kIdExtended) != 0;
  out.remote = (word & kIdRemote) != 0;
  out.brs = out.fd && (flags & kFdBrs) != 0;
  out.id = word & kMaxExtendedId;
  if (!out.extended && out.id > kMaxStandardId) {
    error = "standard id " + std::to_string(out.id) + " is above 0x7FF";
    return false;
  }
  if (out.fd && out.remote) {
    error = "a CAN FD frame cannot be a remote frame";
    return false;
  }
  const unsigned room = out.fd ? kMaxFdLen : kMaxClassicLen;
  if (len > room || (out.fd && !isFdLength(len))) {
    error = "payload length " + std::to_string(len) + " is not a " +
            (out.fd ? "CAN FD length (0..8, 12, 16, 20, 24, 32, 48, 64)" : "classic length (0..8)");
    return false;
  }
  out.len = len;
  if (out.remote)
    return true;
  if (kCanHeader + len > size) {
    error = "payload length " + std::to_string(len) + " but only " +
            std::to_string(size - kCanHeader) + " data bytes captured";
    return false;
  }
  std::memcpy(out.data.data(), data + kCanHeader, len);
  return true;
}

void appendSectionHeader(std::vector<uint8_t> &out, std::string_view application) {
  const size_t start = startBlock(out, kSectionHeader);
  put(out, kByteOrderMagic);
  put(out, uint16_t{1}); // version 1.0
  put(out, uint16_t{0});
  put(out, int64_t{-1}); // section length not given: written as a stream
  putTextOption(out, kOptShbUserAppl, application);
  finishBlock(out, start);
}

void appendInterface(std::vector<uint8_t> &out, const InterfaceInfo &info) {
  const size_t start = startBlock(out, kInterfaceDescription);
  put(out, kLinkTypeSocketCan);
  put(out, uint16_t{0});
  put(out, static_cast<uint32_t>(kFdPacketSize)); // snap length: no frame is cut
  putTextOption(out, kOptIfName, info.name);
  putTextOption(out, kOptIfDescription, info.description);
  const uint8_t microseconds = 6;
  putOption(out, kOptIfTsresol, &microseconds, 1);
  finishBlock(out, start);
}

void appendPacket(std::vector<uint8_t> &out, uint32_t interface, int64_t epochUs,
                  const Frame &frame, Direction direction) {
  uint8_t packet[kFdPacketSize];
  const size_t size = encodeSocketCan(frame, packet);
  const bool flags = direction != Direction::Unknown;
  // Header, five fields, the packet (a multiple of 4), the flags option, the
  // end of options and the trailing length.
  const auto total = static_cast<uint32_t>(8 + 20 + size + (flags ? 8 : 0) + 4 + 4);
  const uint64_t stamp = static_cast<uint64_t>(std::max<int64_t>(epochUs, 0));
  const uint32_t head[7] = {kEnhancedPacket,
                            total,
                            interface,
                            static_cast<uint32_t>(stamp >> 32),
                            static_cast<uint32_t>(stamp),
                            static_cast<uint32_t>(size),
                            static_cast<uint32_t>(size)};
  const size_t at = out.size();
  out.resize(at + total);
  uint8_t *p = out.data() + at;
  std::memcpy(p, head, sizeof head);
  p += sizeof head;
  std::memcpy(p, packet, size);
  p += size;
  if (flags) {
    const uint32_t option[2] = {kOptEpbFlags | uint32_t{4} << 16, static_cast<uint32_t>(direction)};
    std::memcpy(p, option, sizeof option);
    p += sizeof option;
  }
  const uint32_t tail[2] = {0, total};
  std::memcpy(p, tail, sizeof tail);
}

// --- reader ------------------------------------------------------------------

namespace {

uint16_t load16(const uint8_t *p, bool swapped) {
  uint16_t v;
  std::memcpy(&v, p, sizeof v);
  return swapped ? static_cast<uint16_t>(__builtin_bswap16(v)) : v;
}

uint32_t load32(const uint8_t *p, bool swapped) {
  uint32_t v;
  std::memcpy(&v, p, sizeof v);
  return swapped ? __builtin_bswap32(v) : v;
}

// Walks a block's option list.
class OptionWalker {
public:
  OptionWalker(const uint8_t *data, size_t size, bool swapped)
      : data_(data), size_(size), swapped_(swapped) {}

  // False at the end of the list; `broken` when an option runs past the block.
  bool next(uint16_t &code, const uint8_t *&value, uint16_t &length, bool &broken) {
    broken = false;
    if (at_ + 4 > size_)
      return false; // a list may end without opt_endofopt
    code = load16(data_ + at_, swapped_);
    length = load16(data_ + at_ + 2, swapped_);
    if (code == kOptEnd)
      return false;
    if (padded(length) > size_ - at_ - 4) {
      broken = true;
      return false;
    }
    value = data_ + at_ + 4;
    at_ += 4 + padded(length);
    return true;
  }

private:
  const uint8_t *data_;
  size_t size_;
  bool swapped_;
  size_t at_ = 0;
};

} // namespace

uint16_t PcapngReader::get16(const uint8_t *p) const { return load16(p, swapped_); }
uint32_t PcapngReader::get32(const uint8_t *p) const { return load32(p, swapped_); }

PcapngReader::Result PcapngReader::bad(std::string what, bool fatal) {
  error_ =
      "block " + std::to_string(block_) + " (offset " + std::to_string(blockStart_) + "): " + what;
  fatal_ = fatal;
  if (fatal)
    offset_ = size_; // nothing after a broken frame can be trusted
  return Result::Bad;
}

PcapngReader::Result PcapngReader::next(Packet &packet) {
  while (offset_ < size_) {
    blockStart_ = offset_;
    ++block_;
    const size_t left = size_ - offset_;
    const uint8_t *p = data_ + offset_;
    if (left < 12)
      return bad("truncated: " + std::to_string(left) + " bytes left, a block takes at least 12",
                 true);
    uint32_t type;
    std::memcpy(&type, p, sizeof type); // the section header's type reads alike both ways
    if (type == kSectionHeader) {
      uint32_t magic;
      std::memcpy(&magic, p + 8, sizeof magic);
      if (magic != kByteOrderMagic && magic != kByteOrderSwapped)
        return bad("section header with an unknown byte-order magic", true);
      swapped_ = magic == kByteOrderSwapped;
    } else if (!inSection_) {
      return bad("not a pcapng file: it does not begin with a section header block", true);
    }
    type = get32(p);
    const uint32_t length = get32(p + 4);
    if (length < 12 || length % 4 != 0)
      return bad("block length " + std::to_string(length) +
                     " is not a multiple of 4 of at least 12",
                 true);
    if (length > left)
      return bad("truncated: the block claims " + std::to_string(length) + " bytes, " +
                     std::to_string(left) + " are left",
                 true);
    if (get32(p + length - 4) != length)
      return bad("block length " + std::to_string(length) + " at the start but " +
                     std::to_string(get32(p + length - 4)) + " at the end",
                 true);
    offset_ += length;
    const uint8_t *body = p + 8;
    const size_t bodySize = length - 12;
    Result r = Result::End;
    switch (type) {
    case kSectionHeader:
      r = readSectionHeader(body, bodySize);
      break;
    case kInterfaceDescription:
      r = readInterface(body, bodySize);
      break;
    case kEnhancedPacket:
      r = readEnhanced(body, bodySize, packet);
      break;
    case kSimplePacket:
      r = readSimple(body, bodySize, packet);
      break;
    default:
      break; // statistics, name resolution, custom blocks: nothing to replay
    }
    if (r != Result::End)
      return r;
  }
  return Result::End;
}

PcapngReader::Result PcapngReader::readSectionHeader(const uint8_t *body, size_t size) {
  if (size < 16)
    return bad("section header shorter than 16 bytes", true);
  const uint16_t major = get16(body + 4);
  if (major != 1)
    return bad("pcapng version " + std::to_string(major) + "." + std::to_string(get16(body + 6)) +
                   " is not supported",
               true);
  inSection_ = true;
  interfaces_.clear();
  return Result::End;
}

namespace {

// Units per second of an if_tsresol value; 0 when it cannot be used.
uint64_t unitsPerSecond(uint8_t resolution) {
  const unsigned exponent = resolution & 0x7F;
  if (resolution & 0x80)
    return exponent < 64 ? uint64_t{1} << exponent : 0;
  if (exponent > 19)
    return 0;
  uint64_t units = 1;
  for (unsigned i = 0; i < exponent; ++i)
    units *= 10;
  return units;
}

} // namespace

int64_t PcapngReader::readOffset(const uint8_t *p) const {
  uint64_t v;
  std::memcpy(&v, p, sizeof v);
  return static_cast<int64_t>(swapped_ ? __builtin_bswap64(v) : v);
}

PcapngReader::Result PcapngReader::readInterface(const uint8_t *body, size_t size) {
  interfaces_.emplace_back();
  Interface &itf = interfaces_.back();
  const std::string which = "interface " + std::to_string(interfaces_.size() - 1);
  if (size < 8)
    return bad(which + ": description shorter than 8 bytes", false);
  itf.linkType = get16(body);
  OptionWalker options(body + 8, size - 8, swapped_);
  uint16_t code = 0, length = 0;
  const uint8_t *value = nullptr;
  bool broken = false;
  while (options.next(code, value, length, broken)) {
    if (code == kOptIfName)
      itf.info.name.assign(reinterpret_cast<const char *>(value), length);
    else if (code == kOptIfDescription)
      itf.info.description.assign(reinterpret_cast<const char *>(value), length);
    else if (code == kOptIfTsresol && length >= 1)
      itf.unitsPerSecond = unitsPerSecond(value[0]);
    else if (code == kOptIfTsoffset && length == 8)
      itf.offsetSeconds = readOffset(value);
  }
  if (broken)
    return bad(which + ": an option runs past the end of the block", false);
  if (itf.unitsPerSecond == 0)
    return bad(which + ": time stamp resolution out of range", false);
  itf.usable = itf.linkType == kLinkTypeSocketCan;
  return Result::End;
}

PcapngReader::Result PcapngReader::decodePacket(uint32_t interface, const uint8_t *data,
                                                size_t captured, Packet &packet) {
  if (interface >= interfaces_.size())
    return bad("packet on interface " + std::to_string(interface) + ", but the section describes " +
                   std::to_string(interfaces_.size()),
               false);
  const Interface &itf = interfaces_[interface];
  if (!itf.usable)
    return bad("packet on interface " + std::to_string(interface) + " of link type " +
                   std::to_string(itf.linkType) + ", not CAN (" +
                   std::to_string(kLinkTypeSocketCan) + ")",
               false);
  bool errorFrame = false;
  std::string why;
  if (!decodeSocketCan(data, captured, packet.frame, errorFrame, why))
    return bad(why, false);
  packet.interface = interface;
  return errorFrame ? Result::ErrorFrame : Result::Packet;
}

PcapngReader::Result PcapngReader::readEnhanced(const uint8_t *body, size_t size, Packet &packet) {
  if (size < 20)
    return bad("enhanced packet block shorter than 20 bytes", false);
  const uint32_t interface = get32(body);
  const uint64_t stamp = uint64_t{get32(body + 4)} << 32 | get32(body + 8);
  const uint32_t captured = get32(body + 12);
  if (captured > size - 20 || padded(captured) > size - 20)
    return bad("captured length " + std::to_string(captured) + " runs past the end of the block",
               false);
  packet = Packet{};
  OptionWalker options(body + 20 + padded(captured), size - 20 - padded(captured), swapped_);
  uint16_t code = 0, length = 0;
  const uint8_t *value = nullptr;
  bool broken = false;
  while (options.next(code, value, length, broken))
    if (code == kOptEpbFlags && length == 4)
      packet.direction = static_cast<Direction>(get32(value) & 3);
  if (broken)
    return bad("an option runs past the end of the block", false);
  const Result r = decodePacket(interface, body + 20, captured, packet);
  if (r == Result::Bad)
    return r;
  const Interface &itf = interfaces_[interface];
  const unsigned __int128 micros =
      static_cast<unsigned __int128>(stamp) * 1000000u / itf.unitsPerSecond;
  const __int128 time = static_cast<__int128>(micros) + __int128{itf.offsetSeconds} * 1000000;
  if (time > INT64_MAX || time < INT64_MIN)
    return bad("time stamp out of range", false);
  packet.timeUs = static_cast<int64_t>(time);
  lastTimeUs_ = packet.timeUs;
  return r;
}

PcapngReader::Result PcapngReader::readSimple(const uint8_t *body, size_t size, Packet &packet) {
  if (size < 4)
    return bad("simple packet block shorter than 4 bytes", false);
  packet = Packet{};
  // A simple packet has no time of its own: it keeps the pace of the last one.
  packet.timeUs = lastTimeUs_;
  const size_t captured = std::min<size_t>(get32(body), size - 4);
  return decodePacket(0, body + 4, captured, packet);
}

} // namespace wcantool::capture
