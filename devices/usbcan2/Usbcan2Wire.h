// SPDX-License-Identifier: MIT
// Byte layouts of the classic dual-channel adapter: command frames on the
// interrupt endpoints, 19-byte frame records on the bulk endpoints. Pure
// functions only: no USB, no threads, no globals.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <optional>

#include "platform/ByteOrder.h"
#include "platform/DeviceTypes.h"
#include "wcan.h"

namespace usbcan2wire {

// Everything that identifies the family and sizes its tables; the USB
// identity and channel count come from the library's device table.
struct FamilyTraits {
  uint32_t types[2];
  uint16_t vendorId;
  uint16_t productId;
  uint32_t channelCount;
  uint32_t tableSize;
};
inline constexpr FamilyTraits kFamily{{3, 4},
                                      wcan::findDeviceType(3)->vendorId,
                                      wcan::findDeviceType(3)->productId,
                                      wcan::findDeviceType(3)->channels,
                                      32};

constexpr bool isFamilyType(uint32_t type) {
  return wcan::isFamily(type, wcan::DeviceFamily::Classic);
}

inline constexpr uint8_t kCmdOutEp = 0x01;
inline constexpr uint8_t kCmdInEp = 0x81;
inline constexpr uint8_t kDataOutEp = 0x02;
inline constexpr uint8_t kDataInEp = 0x82;

inline constexpr uint8_t kLead = 0x12;
enum Code : uint8_t {
  kCodeHwVersion = 0x01,
  kCodeInit = 0x03,
  kCodeStart = 0x0E,
  kCodeReset = 0x0F,
  kCodeFwVersion = 0x12,
  kCodeChannelCount = 0x13,
  kCodeSerial = 0x14,
  kCodeHwType = 0x15,
  kCodeChState = 0x80,
  kCodeBaudPara = 0xA4,
  kCodeDirect = 0xA7,
  kCodeRelaySet = 0xB1,
  kCodeRelayGet = 0xB2,
};

inline constexpr size_t kRecordSize = 19;
inline constexpr size_t kFramesPerPacket = 3;
inline constexpr size_t kPacketCapacity = kRecordSize * kFramesPerPacket;
inline constexpr size_t kReadChunk = 64;
inline constexpr size_t kReassemblyCapacity = 2048;
inline constexpr size_t kDirectPayloadMax = 62;

// A command of at most one 64-byte packet.
struct Command {
  std::array<uint8_t, 64> bytes{};
  size_t size = 0;
  uint8_t *data() { return bytes.data(); }
  int length() const { return static_cast<int>(size); }
};

using wcan::ByteReader;

Command encodeQuery(Code code); // 12 code 01 00: the board information queries
// Mode 0 normal, 1 listen-only; anything else has no encoding.
std::optional<Command> encodeInit(uint32_t channel, const _WCAN_INIT_CONFIG &config);
Command encodeStart(uint32_t channel);
Command encodeReset(uint32_t channel);
Command encodeRelaySet(uint8_t relay1, uint8_t relay2);
Command encodeRelayGet();
Command encodeBaudParaGet(uint8_t channel);
Command encodeChStateGet(uint8_t channel);
Command encodeDirectTransfer(const uint8_t *payload, int32_t length);

// Replies are judged on the reply buffer (`capacity` bytes, zeroed before the
// read) and the number of bytes actually received.
bool initAccepted(const ByteReader &reply);
uint16_t versionWord(const ByteReader &reply); // bytes 4..5
uint8_t lastByte(const ByteReader &reply, size_t received);
// Copies the text of a serial-number or hardware-type reply, at most
// `capacity` bytes; returns the count copied.
size_t copyText(const ByteReader &reply, char *dst, size_t capacity);

struct RelayStatus {
  uint8_t relay1, relay2;
};
struct BaudPara {
  uint8_t para1, para2;
};
struct ChState {
  uint8_t state1, state2, state3;
};
std::optional<RelayStatus> decodeRelayGet(const ByteReader &reply, size_t received);
bool relaySetAccepted(const ByteReader &reply, size_t received);
std::optional<BaudPara> decodeBaudPara(const ByteReader &reply, size_t received);
std::optional<ChState> decodeChState(const ByteReader &reply, size_t received);

// Transmit: builds one 19-byte record; false when the frame's remote, extended
// or length field is out of range.
bool encodeTxRecord(const _WCAN_CAN_OBJ &frame, uint32_t channel, uint8_t *record);
// Up to three frames back to back; the packet size, or nothing on a format error.
std::optional<size_t> encodeTxPacket(const _WCAN_CAN_OBJ *frames, size_t count, uint32_t channel,
                                     std::array<uint8_t, kPacketCapacity> &packet);

// Receive: whether a record starts at `p` (19 bytes readable), and its decoding
// into `frame`, of which only the fields a record carries are written.
bool isRecordHead(const uint8_t *p);
// Returns the channel bit of the record.
uint32_t decodeRxRecord(const uint8_t *record, _WCAN_CAN_OBJ &frame);

// Cuts the receive byte stream into records across reads of any size, skipping
// bytes that cannot start a record.
class RxReassembler {
public:
  // `sink(channel, frame)` is called for every complete record, in order.
  template <typename Sink> void feed(const uint8_t *data, size_t size, Sink &&sink) {
    append(data, size);
    size_t pos = 0;
    while (fill_ - pos >= kRecordSize) {
      if (isRecordHead(buffer_.data() + pos)) {
        const uint32_t channel = decodeRxRecord(buffer_.data() + pos, frame_);
        sink(channel, static_cast<const _WCAN_CAN_OBJ &>(frame_));
        pos += kRecordSize;
      } else {
        ++pos;
      }
    }
    keepTail(pos);
  }
  size_t pending() const { return fill_; }
  void clear() { fill_ = 0; }

private:
  void append(const uint8_t *data, size_t size);
  void keepTail(size_t from);

  std::array<uint8_t, kReassemblyCapacity> buffer_{};
  size_t fill_ = 0;
  // Reused for every record and not cleared in between: bytes past dataLen
  // keep what the previous frame left (callers read dataLen bytes only).
  _WCAN_CAN_OBJ frame_{};
};

} // namespace usbcan2wire
