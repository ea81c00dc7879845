// SPDX-License-Identifier: MIT
// CAN traffic as pcapng, the capture format Wireshark and tshark read: one
// section header, one interface description per bus, one enhanced packet per
// frame in link type 227 (the SocketCAN frame layout). Pure byte work: the
// writer appends blocks to a buffer, the reader walks a buffer; where the
// bytes come from or go to is the caller's business.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/FrameSyntax.h"

namespace wcantool::capture {

constexpr uint16_t kLinkTypeSocketCan = 227;
// SocketCAN's struct can_frame and struct canfd_frame.
constexpr size_t kClassicPacketSize = 16;
constexpr size_t kFdPacketSize = 72;

// epb_flags direction bits.
enum class Direction : uint8_t { Unknown = 0, Inbound = 1, Outbound = 2 };

struct InterfaceInfo {
  std::string name;        // if_name: the bus, e.g. wcan41-0-1
  std::string description; // if_description: bit rates, serial number
};

// The frame as link type 227 lays it out: 16 bytes for a classic frame, 72
// for a CAN FD frame, zero-padded. Returns the size written to `out`.
size_t encodeSocketCan(const Frame &frame, uint8_t (&out)[kFdPacketSize]);

// The frame in a link type 227 packet; false with the reason when the bytes
// are no CAN or CAN FD frame. An error frame (flag 0x20000000) is reported
// through `errorFrame` and leaves `out` empty.
bool decodeSocketCan(const uint8_t *data, size_t size, Frame &out, bool &errorFrame,
                     std::string &error);

// Writers. Every block is appended whole, so a buffer cut between two calls
// always ends on a block boundary. Time stamps are microseconds since the
// epoch (if_tsresol 6).
void appendSectionHeader(std::vector<uint8_t> &out, std::string_view application);
void appendInterface(std::vector<uint8_t> &out, const InterfaceInfo &info);
void appendPacket(std::vector<uint8_t> &out, uint32_t interface, int64_t epochUs,
                  const Frame &frame, Direction direction);

struct Packet {
  uint32_t interface = 0; // index among the interfaces of its section
  int64_t timeUs = 0;     // epoch microseconds
  Frame frame;
  Direction direction = Direction::Unknown;
};

// Reads the packets of a pcapng byte buffer (either byte order, several
// sections) in file order. Interfaces of another link type are kept in the
// list but their packets are reported as bad.
class PcapngReader {
public:
  enum class Result {
    Packet,     // `packet` holds the next frame
    ErrorFrame, // a CAN error frame: nothing to send, reading goes on
    End,        // every block read
    Bad,        // `error()` says what; fatal() tells whether reading can go on
  };

  explicit PcapngReader(const uint8_t *data, size_t size) : data_(data), size_(size) {}

  Result next(Packet &packet);

  // "block 7 (offset 412): ..." for the last Bad result.
  const std::string &error() const { return error_; }
  // The framing is broken: no block after this one can be found.
  bool fatal() const { return fatal_; }
  // Number (1-based) of the block last read.
  uint64_t blockNumber() const { return block_; }

  struct Interface {
    InterfaceInfo info;
    uint16_t linkType = 0;
    bool usable = false;
    uint64_t unitsPerSecond = 1000000; // if_tsresol
    int64_t offsetSeconds = 0;         // if_tsoffset
  };
  // The interfaces of the current section.
  const std::vector<Interface> &interfaces() const { return interfaces_; }

private:
  Result bad(std::string what, bool fatal);
  Result readSectionHeader(const uint8_t *body, size_t size);
  Result readInterface(const uint8_t *body, size_t size);
  Result readEnhanced(const uint8_t *body, size_t size, Packet &packet);
  Result readSimple(const uint8_t *body, size_t size, Packet &packet);
  Result decodePacket(uint32_t interface, const uint8_t *data, size_t captured, Packet &packet);
  uint16_t get16(const uint8_t *p) const;
  uint32_t get32(const uint8_t *p) const;
  int64_t readOffset(const uint8_t *p) const;

  const uint8_t *data_;
  size_t size_;
  size_t offset_ = 0;
  size_t blockStart_ = 0;
  uint64_t block_ = 0;
  bool inSection_ = false;
  bool swapped_ = false;
  bool fatal_ = false;
  int64_t lastTimeUs_ = 0;
  std::string error_;
  std::vector<Interface> interfaces_;
};

} // namespace wcantool::capture
