// SPDX-License-Identifier: MIT
#include "ModelUsbCan2.h"

#include <algorithm>
#include <cstring>
#include <string>

#include "Models.h"

namespace wcansim {

namespace {

struct UsbCan2Identity {
  unsigned devType;
  uint16_t vendorId;
  uint16_t productId;
};

// Both types are the same adapter behind the same USB ids.
constexpr UsbCan2Identity kIdentities[] = {
    {3, 0x0471, 0x1200},
    {4, 0x0471, 0x1200},
};

constexpr uint16_t kHardwareVersion = 0x0201;
constexpr uint16_t kFirmwareVersion = 0x0312;
// The length nibble of a text answer counts the status byte too, so a text
// is at most 14 characters long.
constexpr const char *kSerialText = "C2A0000001";
constexpr const char *kHardwareTypeText = "USBCAN2";

constexpr uint8_t kLead = 0x12;
constexpr uint8_t kStatusOk = 0x00;
constexpr uint8_t kStatusRefused = 0x01;
constexpr int kErrorPipe = -9; // a write to an endpoint the adapter lacks stalls

constexpr uint8_t kFlagLenMask = 0x0F;
constexpr uint8_t kFlagChannel = 0x10;
constexpr uint8_t kFlagRemote = 0x40;
constexpr uint8_t kFlagExtended = 0x80;
constexpr uint8_t kModeListenOnly = 0x80;
constexpr uint8_t kModeChannel = 0x10;
// Bit 7 of the init answer's length byte marks an accepted channel init.
constexpr uint8_t kInitAccepted = 0x81;

// Reads bytes of a host transfer; positions past its end read as zero.
class ByteView {
public:
  ByteView(const uint8_t *data, size_t len) : data_(data), len_(len) {}
  size_t size() const { return len_; }
  uint8_t at(size_t i) const { return i < len_ ? data_[i] : 0; }
  uint32_t u32le(size_t i) const {
    return uint32_t(at(i)) | uint32_t(at(i + 1)) << 8 | uint32_t(at(i + 2)) << 16 |
           uint32_t(at(i + 3)) << 24;
  }

private:
  const uint8_t *data_;
  size_t len_;
};

// 12 <code> <length> <status> <data...>: the length's low nibble counts the
// status byte and the data after it.
Bytes answer(uint8_t code, uint8_t status, const Bytes &data = {}) {
  Bytes out{kLead, code, uint8_t((data.size() + 1) & 0x0F), status};
  out.insert(out.end(), data.begin(), data.end());
  return out;
}

Bytes u16le(uint16_t v) { return {uint8_t(v), uint8_t(v >> 8)}; }

Bytes text(const char *s) {
  std::string t(s);
  t.resize(std::min<size_t>(t.size(), 14));
  return Bytes(t.begin(), t.end());
}

unsigned channelOfModeByte(uint8_t bits) { return (bits & kModeChannel) ? 1 : 0; }

} // namespace

namespace usbcan2wire {

Bytes encodeRxRecord(unsigned channel, const CanFrame &frame, uint32_t timeUs) {
  // The adapter counts 24 bits of microseconds; the top byte of the stamp is
  // the record marker the host synchronises on.
  const uint32_t stamp = 0x01000000u | (timeUs & 0x00FFFFFFu);
  const uint8_t len = std::min<uint8_t>(frame.len, 8);
  const uint32_t id = frame.extended ? (frame.id & 0x1FFFFFFFu) << 3 : (frame.id & 0x7FFu) << 5;
  Bytes rec(UsbCan2Model::kRecordSize, 0);
  for (int i = 0; i < 4; ++i) {
    rec[i] = uint8_t(stamp >> (8 * i));
    rec[7 + i] = uint8_t(id >> (8 * i));
  }
  rec[6] = uint8_t(len | (channel ? kFlagChannel : 0) | (frame.remote ? kFlagRemote : 0) |
                   (frame.extended ? kFlagExtended : 0));
  if (!frame.remote)
    std::copy(frame.data, frame.data + len, rec.begin() + 11);
  return rec;
}

TxRecord decodeTxRecord(const uint8_t *record) {
  const ByteView r(record, UsbCan2Model::kRecordSize);
  const uint8_t flags = r.at(6);
  TxRecord tx;
  tx.channel = (flags & kFlagChannel) ? 1 : 0;
  tx.frame.extended = flags & kFlagExtended;
  tx.frame.remote = flags & kFlagRemote;
  // A length above 8 is sent as 8 bytes, as the controller does.
  tx.frame.len = std::min<uint8_t>(flags & kFlagLenMask, 8);
  const uint32_t raw = r.u32le(7);
  tx.frame.id = tx.frame.extended ? (raw >> 3) & 0x1FFFFFFFu : (raw >> 5) & 0x7FFu;
  if (!tx.frame.remote)
    for (uint8_t i = 0; i < tx.frame.len; ++i)
      tx.frame.data[i] = r.at(11 + i);
  return tx;
}

} // namespace usbcan2wire

EndpointShape UsbCan2Model::endpointShape(uint8_t inEp) const {
  if (inEp == kDataIn)
    return {EndpointShape::Stream, 64};
  return {EndpointShape::Packet, 64};
}

int UsbCan2Model::onHostWrite(ModelHost &host, uint8_t ep, const uint8_t *data, size_t len) {
  if (ep == kCmdOut) {
    handleCommand(data, len);
    return int(len);
  }
  if (ep == kDataOut) {
    handleTransmit(host, data, len);
    return int(len);
  }
  return kErrorPipe;
}

void UsbCan2Model::onReadEmpty(ModelHost &host, uint8_t ep) {
  if (ep != kCmdIn || !pendingReply_)
    return;
  host.queueIn(kCmdIn, std::move(*pendingReply_));
  pendingReply_.reset();
}

void UsbCan2Model::handleCommand(const uint8_t *cmd, size_t len) {
  // Anything without the lead byte and a code is noise the adapter ignores.
  if (len < 2 || cmd[0] != kLead)
    return;
  pendingReply_ = replyTo(cmd, len);
}

Bytes UsbCan2Model::replyTo(const uint8_t *cmd, size_t len) {
  const ByteView c(cmd, len);
  const uint8_t code = c.at(1);
  switch (code) {
  case 0x01:
    return answer(code, kStatusOk, u16le(kHardwareVersion));
  case 0x12:
    return answer(code, kStatusOk, u16le(kFirmwareVersion));
  case 0x13:
    return answer(code, kStatusOk, {uint8_t(kChannels)});
  case 0x14:
    return answer(code, kStatusOk, text(kSerialText));
  case 0x15:
    return answer(code, kStatusOk, text(kHardwareTypeText));
  case 0x03:
    return initChannel(cmd, len);
  case 0x0E:
    return startChannel(cmd, len);
  case 0x0F:
    return resetChannel(cmd, len);
  case 0xB1:
    // Relay answers carry the relay states where others carry a status.
    if (len >= 5)
      relays_ = {c.at(3), c.at(4)};
    return {kLead, code, 0x02, relays_[0], relays_[1]};
  case 0xB2:
    return {kLead, code, 0x02, relays_[0], relays_[1]};
  case 0xA4:
    return baudParameters(cmd, len);
  case 0x80:
    return channelState(cmd, len);
  case 0xA7:
    // A link test: the adapter echoes the command, payload and all.
    return Bytes(cmd, cmd + std::min<size_t>(len, 64));
  default:
    return answer(code, kStatusRefused);
  }
}

Bytes UsbCan2Model::initChannel(const uint8_t *cmd, size_t len) {
  if (len < 7)
    return answer(0x03, kStatusRefused);
  const ByteView c(cmd, len);
  Channel &ch = channels_[channelOfModeByte(c.at(4))];
  // Initialising puts the controller into reset mode until the next start.
  ch.initialised = true;
  ch.started = false;
  ch.listenOnly = c.at(4) & kModeListenOnly;
  ch.timing0 = c.at(5);
  ch.timing1 = c.at(6);
  return {kLead, 0x03, kInitAccepted, kStatusOk};
}

Bytes UsbCan2Model::startChannel(const uint8_t *cmd, size_t len) {
  const ByteView c(cmd, len);
  Channel &ch = channels_[channelOfModeByte(c.at(4))];
  // Without bus timing the controller cannot leave reset mode.
  if (len < 5 || !ch.initialised)
    return answer(0x0E, kStatusRefused);
  ch.started = true;
  return answer(0x0E, kStatusOk);
}

Bytes UsbCan2Model::resetChannel(const uint8_t *cmd, size_t len) {
  if (len < 5)
    return answer(0x0F, kStatusRefused);
  // The timing stays: a reset channel can be started again as it was.
  channels_[channelOfModeByte(cmd[4])].started = false;
  return answer(0x0F, kStatusOk);
}

Bytes UsbCan2Model::baudParameters(const uint8_t *cmd, size_t len) const {
  if (len < 4 || cmd[3] >= kChannels)
    return answer(0xA4, kStatusRefused);
  const Channel &ch = channels_[cmd[3]];
  // Channel, then the two bus timing registers as (address, value) pairs of
  // the controller's register map.
  return answer(0xA4, kStatusOk, {cmd[3], 0x06, ch.timing0, 0x07, ch.timing1});
}

Bytes UsbCan2Model::channelState(const uint8_t *cmd, size_t len) const {
  if (len < 4 || cmd[3] >= kChannels)
    return answer(0x80, kStatusRefused);
  const Channel &ch = channels_[cmd[3]];
  // Mode register (bit 0 reset mode, bit 1 listen-only), status register
  // (transmit buffer free, transmission complete), arbitration-lost and
  // error-code capture, receive and transmit error counters, reserved. The
  // simulated bus has no errors, so the counters stay at zero.
  const uint8_t mode = uint8_t((ch.started ? 0 : 0x01) | (ch.listenOnly ? 0x02 : 0));
  return answer(0x80, kStatusOk, {cmd[3], mode, 0x0C, 0x00, 0x00, 0x00, 0x00, 0x00});
}

void UsbCan2Model::handleTransmit(ModelHost &host, const uint8_t *data, size_t len) {
  // Whole records only; a trailing fragment is dropped.
  uint8_t sent = 0;
  for (size_t off = 0; off + kRecordSize <= len; off += kRecordSize) {
    const usbcan2wire::TxRecord tx = usbcan2wire::decodeTxRecord(data + off);
    const Channel &ch = channels_[tx.channel];
    if (!ch.started || ch.listenOnly)
      continue;
    host.sendToBus(tx.channel, tx.frame);
    ++sent;
  }
  if (transmitAcks_)
    pendingReply_ = Bytes{kLead, kDataOut, sent, kStatusOk};
}

void UsbCan2Model::onBusFrame(ModelHost &host, unsigned channel, const CanFrame &frame,
                              uint32_t timeUs) {
  // A classic controller cannot take part in CAN FD traffic.
  if (channel >= kChannels || !channels_[channel].started || frame.fd)
    return;
  host.queueIn(kDataIn, usbcan2wire::encodeRxRecord(channel, frame, timeUs));
}

void UsbCan2Model::onReset() {
  // A power cycle loses the controller set-up and drops both relays.
  channels_ = {};
  relays_ = {};
  pendingReply_.reset();
}

bool UsbCan2Model::channelStarted(unsigned channel) const {
  return channel < kChannels && channels_[channel].started;
}

bool UsbCan2Model::channelListenOnly(unsigned channel) const {
  return channel < kChannels && channels_[channel].listenOnly;
}

// The controller runs from a 16 MHz clock: a time quantum is 2 (BRP + 1)
// clock periods and a bit 1 + (TSEG1 + 1) + (TSEG2 + 1) quanta, the fields
// taken from the two timing registers.
BitRates UsbCan2Model::bitRates(unsigned channel) const {
  if (channel >= kChannels || !channels_[channel].initialised)
    return {};
  const Channel &ch = channels_[channel];
  const unsigned prescaler = 2u * ((ch.timing0 & 0x3Fu) + 1u);
  const unsigned quanta = 3u + (ch.timing1 & 0x0Fu) + ((ch.timing1 >> 4) & 0x07u);
  const uint32_t rate = 16000000u / (prescaler * quanta);
  return {rate, 0};
}

std::unique_ptr<DeviceModel> makeUsbCan2Model(unsigned devType) {
  for (const UsbCan2Identity &id : kIdentities)
    if (id.devType == devType)
      return std::make_unique<UsbCan2Model>(id.vendorId, id.productId);
  return nullptr;
}

} // namespace wcansim
