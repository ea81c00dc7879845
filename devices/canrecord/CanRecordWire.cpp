// SPDX-License-Identifier: MIT
#include "CanRecordWire.h"

#include <algorithm>

namespace canrecord {

namespace {

constexpr size_t kSettingsFrameSize = 28;
constexpr size_t kFilterSetFrameSize = 13;
constexpr size_t kFilterQueryFrameSize = 6;

// Settings address channel 0 or 1 by the low bit of the index.
uint8_t settingsChannelByte(unsigned channel) { return static_cast<uint8_t>(channel & 1); }

// Filters address channel 1 for every non-zero index.
uint8_t filterChannelByte(unsigned channel) { return channel != 0 ? 1 : 0; }

uint8_t asBit(uint8_t value) { return value != 0 ? 1 : 0; }

Request frameOf(size_t size, uint8_t command) {
  Request frame(size, 0);
  frame[0] = kFrameStart;
  frame[1] = command;
  return frame;
}

void putBitTiming(Request &frame, size_t offset, uint32_t timing) {
  const BitTimingFields fields = splitBitTiming(timing);
  wcan::putU16le(&frame[offset], fields.prescaler);
  frame[offset + 2] = fields.jumpWidth;
  wcan::putU16le(&frame[offset + 3], fields.segment1);
  wcan::putU16le(&frame[offset + 5], fields.segment2);
}

uint32_t readBitTiming(const ByteReader &in, size_t offset) {
  return joinBitTiming(
      {in.u16le(offset), in.u8(offset + 2), in.u16le(offset + 3), in.u16le(offset + 5)});
}

} // namespace

Request encodeBoardQuery(Command command) { return {kFrameStart, command, 0x01, 0x01}; }

BitTimingFields splitBitTiming(uint32_t timing) {
  return {static_cast<uint16_t>(timing >> 22), static_cast<uint8_t>((timing >> 15) & 0x7F),
          static_cast<uint16_t>(timing & 0xFF), static_cast<uint16_t>((timing >> 8) & 0x7F)};
}

uint32_t joinBitTiming(const BitTimingFields &fields) {
  return (static_cast<uint32_t>(fields.prescaler) << 22) |
         (static_cast<uint32_t>(fields.jumpWidth) << 15) |
         (static_cast<uint32_t>(fields.segment2) << 8) | static_cast<uint32_t>(fields.segment1);
}

Request encodeSettingsWrite(unsigned channel, const _WCAN_RECORD_CONFIG &config) {
  Request frame = frameOf(kSettingsFrameSize, kWriteSettings);
  frame[2] = settingsChannelByte(channel);
  frame[3] = asBit(config.recFlag1);
  frame[4] = config.recFlag2;
  frame[5] = config.recFlag3;
  wcan::putU16le(&frame[6], config.abitParam);
  putBitTiming(frame, 8, config.abitTiming);
  wcan::putU16le(&frame[15], config.dbitParam);
  putBitTiming(frame, 17, config.dbitTiming);
  frame[24] = static_cast<uint8_t>(asBit(config.recOptFlag0) | (asBit(config.recOptFlag1) << 1));
  frame[25] = config.recOptByte1;
  frame[26] = config.recOptByte2;
  frame[27] = config.recOptByte3;
  return frame;
}

Request encodeSettingsRead(unsigned channel) {
  return {kFrameStart, kReadSettings, settingsChannelByte(channel)};
}

Request encodeFilterSet(unsigned channel, FilterSetAction action) {
  Request frame = frameOf(kFilterSetFrameSize, kFilterSet);
  frame[2] = action;
  frame[3] = filterChannelByte(channel);
  return frame;
}

Request encodeFilterAdd(unsigned channel, const _WCAN_FLITER_CONFIG &config) {
  Request frame = encodeFilterSet(channel, kFilterAdd);
  frame[4] = config.idType;
  wcan::putU32le(&frame[5], config.startId);
  wcan::putU32le(&frame[9], config.endId);
  return frame;
}

Request encodeFilterInfoQuery(unsigned channel) {
  Request frame = frameOf(kFilterQueryFrameSize, kFilterQuery);
  frame[2] = kFilterInfo;
  frame[3] = filterChannelByte(channel);
  return frame;
}

Request encodeFilterSettingQuery(unsigned channel, uint16_t filterIndex) {
  Request frame = frameOf(kFilterQueryFrameSize, kFilterQuery);
  frame[2] = kFilterSetting;
  frame[3] = filterChannelByte(channel);
  wcan::putU16le(&frame[4], filterIndex);
  return frame;
}

Request encodePassThrough(const uint8_t *data, size_t length) {
  const size_t payload = std::min(length, kPassThroughPayload);
  Request frame(kPassThroughHeader + payload, 0);
  frame[0] = 0x12;
  frame[1] = 0xA7;
  std::copy(data, data + payload, frame.begin() + kPassThroughHeader);
  return frame;
}

bool replyMatches(const uint8_t *request, const uint8_t *reply, int replyLength) {
  return replyLength >= 3 && reply[0] == request[0] && reply[1] == request[1];
}

bool replyAccepted(int exchangeResult, const Reply &reply, int minLength) {
  return exchangeResult >= 0 && reply.length >= minLength && reply.status() == 0;
}

uint16_t decodeVersion(const Reply &reply) { return reply.reader().u16le(4); }

uint8_t decodeChannelCount(const Reply &reply) { return reply.reader().u8(4); }

bool settingsReadSucceeded(int exchangeResult, const Reply &reply) {
  return !(exchangeResult >= 0 && reply.length < kSettingsReadReplyMin);
}

void decodeSettings(const Reply &reply, _WCAN_RECORD_CONFIG &config) {
  const ByteReader in = reply.reader();
  config.recFlag1 = in.u8(3) & 1;
  config.recFlag2 = in.u8(4) & 1;
  config.recFlag3 = in.u8(5) & 1;
  config.abitParam = in.u8(6);
  config.abitTiming = readBitTiming(in, 8);
  config.dbitParam = in.u8(15);
  config.dbitTiming = readBitTiming(in, 17);
  config.recOptFlag0 = in.u8(24) & 1;
  config.recOptFlag1 = (in.u8(24) >> 1) & 1;
  config.recOptByte1 = in.u8(25);
  config.recOptByte2 = in.u8(26);
  config.recOptByte3 = in.u8(27);
}

bool decodeFilterInfo(int exchangeResult, const Reply &reply, _WCAN_FLITER_INFO &info) {
  if (!replyAccepted(exchangeResult, reply, kFilterInfoReplyMin)) {
    return false;
  }
  const ByteReader in = reply.reader();
  info.filterCount = in.u16le(4);
  info.filterState = in.u8(6);
  return true;
}

bool decodeFilterSetting(int exchangeResult, const Reply &reply, _WCAN_FLITER_CONFIG &config) {
  if (!replyAccepted(exchangeResult, reply, kFilterSettingReplyMin)) {
    return false;
  }
  const ByteReader in = reply.reader();
  config.idType = in.u8(4);
  config.startId = in.u32le(5);
  config.endId = in.u32le(9);
  return true;
}

size_t passThroughReplySize(const Reply &reply) {
  if (reply.length <= static_cast<int>(kPassThroughHeader)) {
    return 0;
  }
  return std::min(static_cast<size_t>(reply.length), kFrameCapacity) - kPassThroughHeader;
}

} // namespace canrecord
