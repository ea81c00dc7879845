// SPDX-License-Identifier: MIT
#include "devices/usbcan2/Usbcan2Wire.h"

#include <algorithm>
#include <cstring>

namespace usbcan2wire {
namespace {

Command make(std::initializer_list<uint8_t> bytes) {
  Command cmd;
  std::copy(bytes.begin(), bytes.end(), cmd.bytes.begin());
  cmd.size = bytes.size();
  return cmd;
}

uint8_t channelBits(uint32_t channel) { return static_cast<uint8_t>(channel << 4); }

// Identifiers travel shifted so that their top bit lands on bit 31.
constexpr unsigned idShift(bool extended) { return extended ? 3 : 5; }

// The record every transmitted frame starts from; all its non-zero bytes are
// overwritten, so only its zeros survive.
constexpr uint8_t kTxTemplate[kRecordSize] = {0x01, 0x02, 0x03, 0x04, 0x00, 0x02, 0x00,
                                              0x00, 0x00, 0x00, 0x02, 0x00, 0x00, 0x00,
                                              0x00, 0x00, 0x00, 0x00, 0x00};

constexpr size_t kReplyData = 4;

} // namespace

Command encodeQuery(Code code) { return make({kLead, code, 0x01, 0x00}); }

std::optional<Command> encodeInit(uint32_t channel, const _WCAN_INIT_CONFIG &config) {
  uint8_t modeBits;
  switch (config.mode) {
  case 0:
    modeBits = 0x00;
    break;
  case 1:
    modeBits = 0x80;
    break;
  default:
    return std::nullopt;
  }
  return make({kLead, kCodeInit, 0x06, 0x00, static_cast<uint8_t>(modeBits | channelBits(channel)),
               config.timing0, config.timing1, 0x02, 0x57});
}

Command encodeStart(uint32_t channel) {
  return make({kLead, kCodeStart, 0x02, 0x00, channelBits(channel)});
}

Command encodeReset(uint32_t channel) {
  return make({kLead, kCodeReset, 0x02, 0x00, channelBits(channel)});
}

Command encodeRelaySet(uint8_t relay1, uint8_t relay2) {
  return make({kLead, kCodeRelaySet, 0x02, relay1, relay2});
}

Command encodeRelayGet() { return make({kLead, kCodeRelayGet, 0x02, 0x00, 0x00}); }

Command encodeBaudParaGet(uint8_t channel) { return make({kLead, kCodeBaudPara, 0x01, channel}); }

// The length byte says 1 although three bytes follow; the adapter expects it so.
Command encodeChStateGet(uint8_t channel) {
  return make({kLead, kCodeChState, 0x01, channel, 0x00, 0x00});
}

// No length byte: the payload follows the code directly, cut to fit one packet.
Command encodeDirectTransfer(const uint8_t *payload, int32_t length) {
  Command cmd = make({kLead, kCodeDirect});
  const size_t n =
      length > 0 ? std::min<size_t>(static_cast<size_t>(length), kDirectPayloadMax) : 0;
  if (n > 0) {
    std::memcpy(cmd.bytes.data() + 2, payload, n);
  }
  cmd.size = 2 + n;
  return cmd;
}

bool initAccepted(const ByteReader &reply) {
  const uint8_t status = reply.u8(2);
  return status == 0x81 || status == 0x82;
}

uint16_t versionWord(const ByteReader &reply) { return reply.u16le(kReplyData); }

uint8_t lastByte(const ByteReader &reply, size_t received) {
  return received == 0 ? 0 : reply.u8(received - 1);
}

size_t copyText(const ByteReader &reply, char *dst, size_t capacity) {
  const int count = (reply.u8(2) & 0x0F) - 1;
  if (count <= 0) {
    return 0;
  }
  return reply.copy(kReplyData, std::min<size_t>(static_cast<size_t>(count), capacity), dst);
}

static bool echoes(const ByteReader &reply, size_t received, size_t minimum, Code code) {
  return received >= minimum && reply.has(0, minimum) && reply.u8(1) == code;
}

std::optional<RelayStatus> decodeRelayGet(const ByteReader &reply, size_t received) {
  if (!echoes(reply, received, 5, kCodeRelayGet)) {
    return std::nullopt;
  }
  return RelayStatus{reply.u8(3), reply.u8(4)};
}

bool relaySetAccepted(const ByteReader &reply, size_t received) {
  return echoes(reply, received, 5, kCodeRelaySet);
}

std::optional<BaudPara> decodeBaudPara(const ByteReader &reply, size_t received) {
  if (!echoes(reply, received, 9, kCodeBaudPara)) {
    return std::nullopt;
  }
  return BaudPara{reply.u8(6), reply.u8(8)};
}

// The third state comes from the earlier byte: that is the adapter's order.
std::optional<ChState> decodeChState(const ByteReader &reply, size_t received) {
  if (!echoes(reply, received, 12, kCodeChState)) {
    return std::nullopt;
  }
  return ChState{reply.u8(5), reply.u8(10), reply.u8(9)};
}

bool encodeTxRecord(const _WCAN_CAN_OBJ &frame, uint32_t channel, uint8_t *record) {
  if (frame.remoteFlag >= 2 || frame.externFlag >= 2 || frame.dataLen >= 9) {
    return false;
  }
  std::memcpy(record, kTxTemplate, kRecordSize);
  // The time stamp goes out most significant byte first, unlike the receive side.
  wcan::putU32be(record, frame.timeStamp);
  record[4] = frame.rawFlag;
  record[5] = frame.sendType;
  record[6] = static_cast<uint8_t>(channelBits(channel) | frame.remoteFlag << 6 |
                                   frame.externFlag << 7 | (frame.dataLen & 0x0F));
  wcan::putU32le(record + 7, frame.id << idShift(frame.externFlag != 0));
  std::memcpy(record + 11, frame.data, frame.dataLen);
  return true;
}

std::optional<size_t> encodeTxPacket(const _WCAN_CAN_OBJ *frames, size_t count, uint32_t channel,
                                     std::array<uint8_t, kPacketCapacity> &packet) {
  packet.fill(0);
  const size_t n = std::min(count, kFramesPerPacket);
  for (size_t i = 0; i < n; ++i) {
    if (!encodeTxRecord(frames[i], channel, packet.data() + i * kRecordSize)) {
      return std::nullopt;
    }
  }
  return n * kRecordSize;
}

// The marker 01 00 00 sits at offsets 3..5; byte 3 is also the top byte of the
// time stamp.
bool isRecordHead(const uint8_t *p) { return p[3] == 0x01 && p[4] == 0x00 && p[5] == 0x00; }

uint32_t decodeRxRecord(const uint8_t *record, _WCAN_CAN_OBJ &frame) {
  const ByteReader r(record, kRecordSize);
  const uint8_t flags = r.u8(6);
  const bool extended = (flags & 0x80) != 0;
  frame.timeStamp = r.u32le(0);
  frame.rawFlag = r.u8(4);
  frame.sendType = r.u8(5);
  frame.remoteFlag = (flags >> 6) & 1;
  frame.externFlag = extended ? 1 : 0;
  frame.dataLen = std::min<uint8_t>(flags & 0x0F, 8);
  frame.id = (r.u32le(7) >> idShift(extended)) & 0x1FFFFFFF;
  r.copy(11, frame.dataLen, frame.data);
  return (flags >> 4) & 1;
}

void RxReassembler::append(const uint8_t *data, size_t size) {
  const size_t n = std::min(size, kReassemblyCapacity - fill_);
  std::memcpy(buffer_.data() + fill_, data, n);
  fill_ += n;
}

void RxReassembler::keepTail(size_t from) {
  std::memmove(buffer_.data(), buffer_.data() + from, fill_ - from);
  fill_ -= from;
}

} // namespace usbcan2wire
