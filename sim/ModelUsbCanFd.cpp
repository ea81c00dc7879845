// SPDX-License-Identifier: MIT
// How the simulated CAN FD adapter answers where its protocol leaves a choice:
//
// - Replies on 0x81 echo the start byte, the command code and command byte 2;
//   byte 3 is the status (0 success, 1 bad channel or argument, 2 frame too
//   short, 0xFF unknown command). Set-type replies are 8 bytes long; the
//   version and board replies carry their value from byte 4 on.
// - Version words: 0x0105 (command 0x01) and 0x0117 (command 0x12). The board
//   byte (command 0x13) is the channel count.
// - Baud-init byte 5 (the channel's mode byte) 1 makes the channel
//   listen-only, as the mode field of the classic adapter does; any other
//   value is normal operation. Byte 4 is kept as sent. Re-initialising a
//   started channel leaves it started.
// - Starting a channel that was never initialised is accepted: it runs with
//   whatever timing it holds.
// - Channel status (0x16): 11 bytes, 55 16 <byte 2> status(4, LE) rx-errors
//   tx-errors 0 0. Status bits: 0x01 initialised, 0x02 started, 0x04
//   listen-only; the error counters stay 0 on the error-free simulated bus.
//   An unknown channel gets the 4-byte reply 55 16 <byte 2> 01.
// - Filters: sub-command 2 adds a standard-id range (low 11 bits), 3 an
//   extended-id range (low 29 bits), 5 a range over ids of either format
//   (5 with the range 0..0 removes every range instead), 1 removes every range
//   and disables the filter, 4 enables it. An enabled filter passes a frame
//   that falls in one of its ranges; an enabled filter without ranges passes
//   everything. At most 64 ranges per channel (status 1 beyond).
// - Data frames on 0x02 are acknowledged on 0x82 with 8 bytes: 55 F2 00
//   status count 0 0 0, where count is the number of records put on the bus
//   and status is 0 when every record went out, 1 when some record's channel
//   was unknown, stopped or listen-only, 2 when the frame was malformed.
// - Received records: a classic frame becomes a 19-byte record, a CAN FD frame
//   a 75-byte one. Wire flag 0x10 is the bit-rate switch; wire flag 0x08 (the
//   error-state indicator) is always 0 on receive, since every simulated node
//   is error active. A CAN FD length that is not a valid frame length is
//   rounded up to the next one; a classic length above 8 carries 8 bytes.
// - Records wait in the adapter until a read finds the stream empty or the
//   next record would not fit in a 4096-byte data frame.
#include "ModelUsbCanFd.h"

#include <algorithm>
#include <cstring>

#include "Models.h"

namespace wcansim {

namespace {

struct FdVariant {
  unsigned devType;
  uint16_t vendorId;
  uint16_t productId;
  unsigned channels;
};

constexpr FdVariant kVariants[] = {
    {41, 0x3068, 0x0009, 2}, {42, 0x3068, 0x0009, 2}, {43, 0x3068, 0x0009, 2},
    {64, 0x0471, 0x3014, 4}, {65, 0x0471, 0x2014, 4}, {66, 0x0471, 0x2018, 8},
    {67, 0x0471, 0x3018, 8},
};

constexpr uint8_t kStart = 0x55;
constexpr uint8_t kDataCode = 0xF2;
constexpr uint8_t kRawFirst = 0x12;
constexpr uint8_t kRawSecond = 0xA7;
constexpr size_t kHeaderSize = 7;
constexpr size_t kClassicRecord = 19;
constexpr size_t kFdRecord = 75;
constexpr size_t kSetReplySize = 8;
constexpr size_t kStatusReplySize = 11;
constexpr size_t kMaxFilterRanges = 64;

enum Code : uint8_t {
  kFirstVersionCmd = 0x01,
  kBaudInit = 0x03,
  kFilter = 0x04,
  kStartCmd = 0x0E,
  kStopCmd = 0x0F,
  kSecondVersionCmd = 0x12,
  kBoard = 0x13,
  kChannelStatus = 0x16,
};

enum Status : uint8_t { kOk = 0, kBadArgument = 1, kTooShort = 2, kUnknown = 0xFF };

enum WireFlag : uint8_t {
  kFlagFd = 0x01,
  kFlagRemote = 0x02,
  kFlagExtended = 0x04,
  kFlagBrs = 0x10,
};

// Bounds-checked little-endian reads over one received transfer.
class Reader {
public:
  Reader(const uint8_t *data, size_t len) : data_(data), len_(len) {}
  size_t size() const { return len_; }
  uint8_t u8(size_t i) const { return i < len_ ? data_[i] : 0; }
  uint16_t u16(size_t i) const { return static_cast<uint16_t>(u8(i) | u8(i + 1) << 8); }
  uint32_t u32(size_t i) const {
    return static_cast<uint32_t>(u16(i)) | static_cast<uint32_t>(u16(i + 2)) << 16;
  }

private:
  const uint8_t *data_;
  size_t len_;
};

void putU32(Bytes &out, uint32_t v) {
  for (int shift = 0; shift < 32; shift += 8)
    out.push_back(static_cast<uint8_t>(v >> shift));
}

uint8_t fdFrameLength(unsigned len) {
  static constexpr uint8_t kLengths[] = {12, 16, 20, 24, 32, 48, 64};
  if (len <= 8)
    return static_cast<uint8_t>(len);
  for (uint8_t l : kLengths)
    if (len <= l)
      return l;
  return 64;
}

Bytes setReply(const uint8_t *cmd, size_t len, uint8_t status) {
  Bytes reply(kSetReplySize, 0);
  reply[0] = kStart;
  reply[1] = cmd[1];
  reply[2] = len > 2 ? cmd[2] : 0;
  reply[3] = status;
  return reply;
}

Bytes valueReply(const uint8_t *cmd, size_t len, uint16_t value) {
  Bytes reply = setReply(cmd, len, kOk);
  reply[4] = static_cast<uint8_t>(value >> 8);
  reply[5] = static_cast<uint8_t>(value);
  return reply;
}

FdPhaseTiming readPhase(const Reader &r, size_t at) {
  FdPhaseTiming t;
  t.clockMHz = r.u16(at);
  t.prescalerM1 = r.u16(at + 2);
  t.sjwM1 = r.u8(at + 4);
  t.tseg1M1 = r.u16(at + 5);
  t.tseg2M1 = r.u16(at + 7);
  return t;
}

CanFrame decodeRecord(const Reader &r, size_t at) {
  const uint8_t flags = r.u8(at + 1);
  CanFrame f;
  f.fd = (flags & kFlagFd) != 0;
  f.remote = (flags & kFlagRemote) != 0;
  f.extended = (flags & kFlagExtended) != 0;
  f.brs = f.fd && (flags & kFlagBrs) != 0;
  f.id = r.u32(at + 6) & (f.extended ? 0x1FFFFFFFu : 0x7FFu);
  const unsigned wireLen = r.u8(at + 10);
  f.len = f.fd ? fdFrameLength(wireLen) : static_cast<uint8_t>(std::min(wireLen, 8u));
  if (!f.remote) {
    const size_t copied = std::min<size_t>(wireLen, f.fd ? 64 : 8);
    for (size_t i = 0; i < copied; ++i)
      f.data[i] = r.u8(at + 11 + i);
  }
  return f;
}

void encodeRecord(Bytes &out, unsigned channel, const CanFrame &f, uint32_t timeUs) {
  uint8_t flags = 0;
  if (f.fd)
    flags |= kFlagFd;
  if (f.remote)
    flags |= kFlagRemote;
  if (f.extended)
    flags |= kFlagExtended;
  if (f.fd && f.brs)
    flags |= kFlagBrs;
  out.push_back(static_cast<uint8_t>(channel << 4));
  out.push_back(flags);
  putU32(out, timeUs);
  putU32(out, f.id & (f.extended ? 0x1FFFFFFFu : 0x7FFu));
  const size_t room = f.fd ? 64 : 8;
  const uint8_t len = std::min<uint8_t>(f.len, static_cast<uint8_t>(room));
  out.push_back(len);
  const size_t dataAt = out.size();
  out.resize(dataAt + room, 0);
  if (!f.remote)
    std::memcpy(out.data() + dataAt, f.data, len);
}

bool inRange(const FdFilterRange &r, uint32_t id) { return id >= r.first && id <= r.last; }

size_t recordSize(const CanFrame &f) { return f.fd ? kFdRecord : kClassicRecord; }

// One data frame carrying `count` encoded records, appended to `out`.
void appendDataFrame(Bytes &out, const Bytes &records, size_t count) {
  const size_t payload = records.size();
  const uint8_t header[kHeaderSize] = {kStart,
                                       kDataCode,
                                       0,
                                       0,
                                       static_cast<uint8_t>(payload),
                                       static_cast<uint8_t>(payload >> 8),
                                       static_cast<uint8_t>(count)};
  out.insert(out.end(), header, header + kHeaderSize);
  out.insert(out.end(), records.begin(), records.end());
}

} // namespace

uint32_t FdPhaseTiming::bitRate() const {
  const uint64_t quanta = 1ull + (tseg1M1 + 1u) + (tseg2M1 + 1u);
  const uint64_t clockHz = clockMHz * 1000000ull;
  return static_cast<uint32_t>(clockHz / ((prescalerM1 + 1ull) * quanta));
}

UsbCanFdModel::UsbCanFdModel(uint16_t vendorId, uint16_t productId, unsigned channels)
    : vendorId_(vendorId), productId_(productId), channelCount_(std::min(channels, kMaxChannels)) {}

EndpointShape UsbCanFdModel::endpointShape(uint8_t inEp) const {
  if (inEp == kStreamIn)
    return {EndpointShape::Stream, static_cast<int>(kMaxStreamFrame)};
  return {EndpointShape::Packet, 64};
}

bool UsbCanFdModel::channelStarted(unsigned ch) const {
  return validChannel(ch) && channels_[ch].started;
}

bool UsbCanFdModel::channelListenOnly(unsigned ch) const {
  return validChannel(ch) && channels_[ch].option0 == 1;
}

BitRates UsbCanFdModel::bitRates(unsigned ch) const {
  if (!validChannel(ch) || !channels_[ch].configured)
    return {};
  return {channels_[ch].arbitration.bitRate(), channels_[ch].data.bitRate()};
}

void UsbCanFdModel::onReset() {
  channels_ = {};
  pending_.clear();
  pendingCount_ = 0;
}

int UsbCanFdModel::onHostWrite(ModelHost &host, uint8_t ep, const uint8_t *data, size_t len) {
  if (ep == kCmdOut)
    handleCommand(host, data, len);
  else if (ep == kDataOut)
    handleDataFrame(host, data, len);
  return static_cast<int>(len);
}

void UsbCanFdModel::handleCommand(ModelHost &host, const uint8_t *cmd, size_t len) {
  if (len < 2)
    return;
  if (cmd[0] == kRawFirst && cmd[1] == kRawSecond) {
    // Pass-through: the adapter hands the frame back as it came.
    host.queueIn(kCmdIn, Bytes(cmd, cmd + std::min<size_t>(len, 64)));
    return;
  }
  if (cmd[0] != kStart)
    return;
  switch (cmd[1]) {
  case kFirstVersionCmd:
    host.queueIn(kCmdIn, valueReply(cmd, len, kFirstVersion));
    break;
  case kSecondVersionCmd:
    host.queueIn(kCmdIn, valueReply(cmd, len, kSecondVersion));
    break;
  case kBoard: {
    Bytes reply = setReply(cmd, len, kOk);
    reply[4] = static_cast<uint8_t>(channelCount_);
    host.queueIn(kCmdIn, std::move(reply));
    break;
  }
  case kBaudInit:
    host.queueIn(kCmdIn, setReply(cmd, len, baudInit(cmd, len)));
    break;
  case kFilter:
    host.queueIn(kCmdIn, setReply(cmd, len, filterCommand(cmd, len)));
    break;
  case kStartCmd:
  case kStopCmd:
    host.queueIn(kCmdIn, setReply(cmd, len, startStop(cmd, len, cmd[1] == kStartCmd)));
    break;
  case kChannelStatus:
    host.queueIn(kCmdIn, statusReply(cmd, len));
    break;
  default:
    host.queueIn(kCmdIn, setReply(cmd, len, kUnknown));
    break;
  }
}

uint8_t UsbCanFdModel::baudInit(const uint8_t *cmd, size_t len) {
  constexpr size_t kBaudInitSize = 24;
  if (len < kBaudInitSize)
    return kTooShort;
  const Reader r(cmd, len);
  const unsigned ch = r.u8(2);
  if (!validChannel(ch))
    return kBadArgument;
  const FdPhaseTiming arbitration = readPhase(r, 6);
  const FdPhaseTiming data = readPhase(r, 15);
  if (arbitration.clockMHz == 0 || data.clockMHz == 0)
    return kBadArgument;
  FdChannelState &state = channels_[ch];
  state.option1 = r.u8(4);
  state.option0 = r.u8(5);
  state.arbitration = arbitration;
  state.data = data;
  state.configured = true;
  return kOk;
}

uint8_t UsbCanFdModel::filterCommand(const uint8_t *cmd, size_t len) {
  constexpr size_t kFilterSize = 13;
  if (len < kFilterSize)
    return kTooShort;
  const Reader r(cmd, len);
  const unsigned ch = r.u8(4) >> 4;
  if (!validChannel(ch))
    return kBadArgument;
  FdChannelState &state = channels_[ch];
  const uint32_t first = r.u32(5);
  const uint32_t last = r.u32(9);
  auto addRange = [&](FdFilterRange::Kind kind, uint32_t mask) -> uint8_t {
    if (state.filterRanges.size() >= kMaxFilterRanges)
      return kBadArgument;
    state.filterRanges.push_back({kind, first & mask, last & mask});
    return kOk;
  };
  switch (r.u8(3)) {
  case 0x01:
    state.filterRanges.clear();
    state.filterEnabled = false;
    return kOk;
  case 0x02:
    return addRange(FdFilterRange::Standard, 0x7FF);
  case 0x03:
    return addRange(FdFilterRange::Extended, 0x1FFFFFFF);
  case 0x04:
    state.filterEnabled = true;
    return kOk;
  case 0x05:
    if (first == 0 && last == 0) {
      state.filterRanges.clear();
      return kOk;
    }
    return addRange(FdFilterRange::Any, 0xFFFFFFFF);
  default:
    return kBadArgument;
  }
}

uint8_t UsbCanFdModel::startStop(const uint8_t *cmd, size_t len, bool start) {
  if (len < 5)
    return kTooShort;
  const unsigned ch = cmd[4] >> 4;
  if (!validChannel(ch))
    return kBadArgument;
  channels_[ch].started = start;
  return kOk;
}

Bytes UsbCanFdModel::statusReply(const uint8_t *cmd, size_t len) const {
  const unsigned ch = len > 2 ? cmd[2] >> 4 : kMaxChannels;
  if (!validChannel(ch))
    return {kStart, kChannelStatus, len > 2 ? cmd[2] : uint8_t{0}, kBadArgument};
  const FdChannelState &state = channels_[ch];
  uint32_t status = 0;
  if (state.configured)
    status |= 0x01;
  if (state.started)
    status |= 0x02;
  if (channelListenOnly(ch))
    status |= 0x04;
  Bytes reply{kStart, kChannelStatus, cmd[2]};
  putU32(reply, status);
  reply.resize(kStatusReplySize, 0); // error counters, reserved
  return reply;
}

void UsbCanFdModel::handleDataFrame(ModelHost &host, const uint8_t *frame, size_t len) {
  const Reader r(frame, len);
  if (len < kHeaderSize || r.u8(0) != kStart || r.u8(1) != kDataCode)
    return;
  uint8_t status = kOk;
  uint8_t sent = 0;
  if (r.u16(4) != len - kHeaderSize)
    status = kTooShort;
  const unsigned count = r.u8(6);
  size_t at = kHeaderSize;
  for (unsigned i = 0; i < count && status != kTooShort; ++i) {
    const size_t size = (r.u8(at + 1) & kFlagFd) != 0 ? kFdRecord : kClassicRecord;
    if (at + size > len) {
      status = kTooShort;
      break;
    }
    const unsigned ch = r.u8(at) >> 4;
    if (channelStarted(ch) && !channelListenOnly(ch)) {
      host.sendToBus(ch, decodeRecord(r, at));
      ++channels_[ch].txFrames;
      ++sent;
    } else {
      status = kBadArgument;
    }
    at += size;
  }
  Bytes ack{kStart, kDataCode, 0, status, sent, 0, 0, 0};
  host.queueIn(kAckIn, std::move(ack));
}

bool UsbCanFdModel::accepts(const FdChannelState &ch, const CanFrame &frame) const {
  if (!ch.filterEnabled || ch.filterRanges.empty())
    return true;
  return std::any_of(ch.filterRanges.begin(), ch.filterRanges.end(), [&](const FdFilterRange &r) {
    switch (r.kind) {
    case FdFilterRange::Standard:
      return !frame.extended && inRange(r, frame.id);
    case FdFilterRange::Extended:
      return frame.extended && inRange(r, frame.id);
    case FdFilterRange::Any:
      return inRange(r, frame.id);
    }
    return false;
  });
}

void UsbCanFdModel::onBusFrame(ModelHost &host, unsigned channel, const CanFrame &frame,
                               uint32_t timeUs) {
  if (!channelStarted(channel))
    return;
  FdChannelState &state = channels_[channel];
  if (!accepts(state, frame))
    return;
  ++state.rxFrames;
  if (kHeaderSize + pending_.size() + recordSize(frame) > kMaxStreamFrame)
    flushPending(host);
  encodeRecord(pending_, channel, frame, timeUs);
  ++pendingCount_;
}

void UsbCanFdModel::onReadEmpty(ModelHost &host, uint8_t ep) {
  if (ep == kStreamIn)
    flushPending(host);
}

void UsbCanFdModel::flushPending(ModelHost &host) {
  if (pendingCount_ == 0)
    return;
  Bytes frame;
  appendDataFrame(frame, pending_, pendingCount_);
  host.queueIn(kStreamIn, std::move(frame));
  pending_.clear();
  pendingCount_ = 0;
}

Bytes UsbCanFdModel::encodeBacklog(const std::vector<ChannelFrame> &frames, uint32_t timeUs) const {
  Bytes stream;
  Bytes records;
  size_t count = 0;
  for (const ChannelFrame &f : frames) {
    if (!channelStarted(f.channel) || !accepts(channels_[f.channel], f.frame))
      continue;
    if (kHeaderSize + records.size() + recordSize(f.frame) > kMaxStreamFrame) {
      appendDataFrame(stream, records, count);
      records.clear();
      count = 0;
    }
    encodeRecord(records, f.channel, f.frame, timeUs);
    ++count;
  }
  if (count > 0)
    appendDataFrame(stream, records, count);
  return stream;
}

std::unique_ptr<DeviceModel> makeUsbCanFdModel(unsigned devType) {
  for (const FdVariant &v : kVariants)
    if (v.devType == devType)
      return std::make_unique<UsbCanFdModel>(v.vendorId, v.productId, v.channels);
  return nullptr;
}

} // namespace wcansim
