// SPDX-License-Identifier: MIT
#include "UsbCanFdWire.h"

#include <initializer_list>

namespace usbcanfd {
namespace {

using wcan::putU16le;
using wcan::putU32le;

CmdFrame frameOf(std::initializer_list<uint8_t> bytes) {
  CmdFrame frame;
  std::copy(bytes.begin(), bytes.end(), frame.bytes.begin());
  frame.len = static_cast<int>(bytes.size());
  return frame;
}

void putTiming(uint8_t *at, uint8_t clockMHz, uint32_t word) {
  const TimingFields fields = splitTiming(word);
  putU16le(at, clockMHz);
  putU16le(at + 2, fields.prescalerMinus1);
  at[4] = fields.sjw;
  putU16le(at + 5, fields.tseg1Minus1);
  putU16le(at + 7, fields.tseg2Minus1);
}

// Bytes 0..10 of a transmit record; the same for both kinds.
template <class Obj> void putRecordHead(uint8_t *rec, unsigned channel, Obj &frame, uint8_t flags) {
  if (frame.remoteFlag != 0) {
    frame.dataLen = 0; // the caller's record is changed as well, by design
  }
  rec[0] = static_cast<uint8_t>((channel << 4) | (frame.sendType & 0x0F));
  rec[1] = static_cast<uint8_t>(flags | (frame.remoteFlag != 0 ? kWireRemote : 0) |
                                (frame.externFlag != 0 ? kWireExtended : 0));
  std::memset(rec + 2, 0, 4);
  putU32le(rec + 6, frame.id & 0x1FFFFFFF);
  rec[10] = frame.dataLen;
}

template <class Obj, size_t RecordLen, size_t DataRoom, class FlagsOf>
size_t encodeBatch(uint8_t header, unsigned channel, Obj *frames, unsigned count, TxFrame &out,
                   FlagsOf flagsOf) {
  const unsigned n = std::min(count, kMaxBatch);
  out[0] = kFrameStart;
  out[1] = kDataFrameCode;
  out[2] = 0;
  out[3] = header;
  out[6] = static_cast<uint8_t>(n);
  size_t pos = kDataHeaderLen;
  for (unsigned i = 0; i < n; ++i) {
    uint8_t *rec = out.data() + pos;
    putRecordHead(rec, channel, frames[i], flagsOf(frames[i]));
    const size_t copied = std::min<size_t>(frames[i].dataLen, DataRoom);
    std::memcpy(rec + 11, frames[i].data, copied);
    std::memset(rec + 11 + copied, 0, DataRoom - copied);
    pos += RecordLen;
  }
  putU16le(out.data() + 4, static_cast<uint32_t>(pos - kDataHeaderLen));
  return pos;
}

} // namespace

CmdFrame encodeQuery(uint8_t code) { return frameOf({kFrameStart, code, 0x01, 0x01}); }

CmdFrame encodeBaudInit(uint8_t channel, uint8_t modeByte4, uint8_t modeByte5,
                        uint8_t arbitrationClockMHz, uint8_t dataClockMHz, uint32_t arbitrationWord,
                        uint32_t dataWord) {
  CmdFrame frame = frameOf({kFrameStart, kCmdBaudInit, channel, 0x01, modeByte4, modeByte5});
  putTiming(frame.bytes.data() + 6, arbitrationClockMHz, arbitrationWord);
  putTiming(frame.bytes.data() + 15, dataClockMHz, dataWord);
  frame.len = 24;
  return frame;
}

CmdFrame encodeChannelCmd(uint8_t code, uint8_t channel) {
  return frameOf({kFrameStart, code, 0x02, 0x00, static_cast<uint8_t>(channel << 4)});
}

CmdFrame encodeStatusQuery(uint8_t channel) {
  return frameOf({kFrameStart, kCmdStatus, static_cast<uint8_t>((channel << 4) | 1), 0x00});
}

CmdFrame encodeFilter(FilterSub sub, uint8_t channel, uint32_t firstId, uint32_t lastId) {
  CmdFrame frame = frameOf({kFrameStart, kCmdFilter, 0x0A, static_cast<uint8_t>(sub),
                            static_cast<uint8_t>(channel << 4)});
  putU32le(frame.bytes.data() + 5, firstId);
  putU32le(frame.bytes.data() + 9, lastId);
  frame.len = 13;
  return frame;
}

CmdFrame encodeRawExchange(const uint8_t *payload, uint32_t length) {
  CmdFrame frame = frameOf({0x12, 0xA7});
  const size_t n = std::min<size_t>(length, kRawPayloadMax);
  std::memcpy(frame.bytes.data() + 2, payload, n);
  frame.len = static_cast<int>(2 + n);
  return frame;
}

size_t encodeCanBatch(uint8_t header, unsigned channel, _WCAN_CAN_OBJ *frames, unsigned count,
                      TxFrame &out) {
  return encodeBatch<_WCAN_CAN_OBJ, kCanRecordLen, 8>(header, channel, frames, count, out,
                                                      [](const _WCAN_CAN_OBJ &) { return 0; });
}

size_t encodeCanFdBatch(uint8_t header, unsigned channel, _WCAN_CANFD_OBJ *frames, unsigned count,
                        TxFrame &out) {
  // The record's 0x10 and 0x08 bits trade places on the wire.
  return encodeBatch<_WCAN_CANFD_OBJ, kCanFdRecordLen, 64>(
      header, channel, frames, count, out, [](const _WCAN_CANFD_OBJ &frame) {
        return kWireFd | ((frame.fdFlags & 0x10) != 0 ? kWireFlag08 : 0) |
               ((frame.fdFlags & 0x08) != 0 ? kWireFlag10 : 0);
      });
}

namespace {

template <class Obj> void decodeCommon(ByteReader record, Obj &out, size_t dataRoom) {
  std::memset(&out, 0, sizeof out);
  const uint8_t flags = record.u8(1);
  out.remoteFlag = (flags & kWireRemote) != 0 ? 1 : 0;
  out.externFlag = (flags & kWireExtended) != 0 ? 1 : 0;
  out.timeStamp = record.u32le(2);
  out.id = record.u32le(6) & 0x1FFFFFFF;
  out.dataLen = static_cast<unsigned char>(std::min<size_t>(record.u8(10), dataRoom));
  record.copy(11, out.dataLen, out.data); // the rest was zeroed above
}

} // namespace

void decodeCanRecord(ByteReader record, _WCAN_CAN_OBJ &out) { decodeCommon(record, out, 8); }

void decodeCanFdRecord(ByteReader record, _WCAN_CANFD_OBJ &out) {
  decodeCommon(record, out, 64);
  out.fdFlags = (record.u8(1) & kWireFlag10) != 0 ? 0x08 : 0;
}

} // namespace usbcanfd
