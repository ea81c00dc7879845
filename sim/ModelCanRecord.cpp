// SPDX-License-Identifier: MIT
#include "ModelCanRecord.h"

#include <algorithm>

#include "Models.h"

namespace wcansim {

namespace {

struct CanRecordIdentity {
  unsigned devType;
  uint16_t vendorId;
  uint16_t productId;
};

constexpr CanRecordIdentity kIdentities[] = {
    {61, 0x0471, 0x2601},
    {62, 0x0471, 0x2602},
};

constexpr uint16_t kHardwareVersion = 0x0110;
constexpr uint16_t kFirmwareVersion = 0x0204;

constexpr uint8_t kLead = 0x55;
constexpr uint8_t kPassLead = 0x12;
constexpr uint8_t kPassCode = 0xA7;
constexpr uint8_t kStatusOk = 0x00;
constexpr uint8_t kStatusRefused = 0x01;
constexpr uint8_t kStatusFull = 0x02;
constexpr int kErrorPipe = -9; // a write to an endpoint the recorder lacks stalls
constexpr size_t kMaxTransfer = 64;

enum FilterSet : uint8_t { Clear = 0, Add = 1, Enable = 2, Disable = 3 };
enum FilterQuery : uint8_t { Info = 0, OneFilter = 1 };

// Reads bytes of a request; positions past its end read as zero.
class ByteView {
public:
  ByteView(const uint8_t *data, size_t len) : data_(data), len_(len) {}
  uint8_t at(size_t i) const { return i < len_ ? data_[i] : 0; }
  uint16_t u16le(size_t i) const { return uint16_t(at(i) | at(i + 1) << 8); }
  uint32_t u32le(size_t i) const { return uint32_t(u16le(i)) | uint32_t(u16le(i + 2)) << 16; }

private:
  const uint8_t *data_;
  size_t len_;
};

void putU16(Bytes &out, uint16_t v) {
  out.push_back(uint8_t(v));
  out.push_back(uint8_t(v >> 8));
}

void putU32(Bytes &out, uint32_t v) {
  putU16(out, uint16_t(v));
  putU16(out, uint16_t(v >> 16));
}

// Every reply repeats the request's first three bytes (lead, code and
// channel or sub-command) and carries the status in byte 3.
Bytes reply(const ByteView &req, uint8_t status) {
  return {req.at(0), req.at(1), req.at(2), status};
}

unsigned channelOf(uint8_t byte) { return byte & 1; }

// Factory settings (frame bytes 3..27): nothing enabled, 500 kbit/s
// arbitration and 2 Mbit/s data phase from the recorder's 40 MHz clock, as
// register values (quantity - 1).
Bytes factorySettings() {
  Bytes s{0, 0, 0}; // flag0, param0, param1
  putU16(s, 0);     // param2
  putU16(s, 0);     // arbitration: prescaler, jump width, segment 1, segment 2
  s.push_back(15);
  putU16(s, 62);
  putU16(s, 15);
  putU16(s, 0); // param3
  putU16(s, 0); // data phase: prescaler, jump width, segment 1, segment 2
  s.push_back(4);
  putU16(s, 14);
  putU16(s, 4);
  s.insert(s.end(), {0, 0, 0, 0}); // flag1/flag2, param4..param6
  return s;
}

} // namespace

CanRecordModel::CanRecordModel(uint16_t vendorId, uint16_t productId)
    : vendorId_(vendorId), productId_(productId) {
  const Bytes factory = factorySettings();
  for (Channel &ch : channels_)
    std::copy(factory.begin(), factory.end(), ch.settings.begin());
}

EndpointShape CanRecordModel::endpointShape(uint8_t) const {
  return {EndpointShape::Packet, int(kMaxTransfer)};
}

int CanRecordModel::onHostWrite(ModelHost &host, uint8_t ep, const uint8_t *data, size_t len) {
  if (ep != kCmdOut)
    return kErrorPipe;
  Bytes out = replyTo(data, len);
  if (!out.empty())
    host.queueIn(kCmdIn, std::move(out));
  return int(len);
}

Bytes CanRecordModel::replyTo(const uint8_t *req, size_t len) {
  const ByteView r(req, len);
  if (len >= 2 && r.at(0) == kPassLead && r.at(1) == kPassCode) {
    // A link test: the recorder echoes the request.
    return Bytes(req, req + std::min(len, kMaxTransfer));
  }
  // Anything else without the lead byte and a code is noise.
  if (len < 2 || r.at(0) != kLead)
    return {};
  switch (r.at(1)) {
  case 0x01: {
    Bytes out = reply(r, kStatusOk);
    putU16(out, kHardwareVersion);
    return out;
  }
  case 0x12: {
    Bytes out = reply(r, kStatusOk);
    putU16(out, kFirmwareVersion);
    return out;
  }
  case 0x13: {
    Bytes out = reply(r, kStatusOk);
    out.push_back(uint8_t(kChannels));
    return out;
  }
  case 0x03:
    return writeSettings(req, len);
  case 0xA4:
    return readSettings(req, len);
  case 0x04:
    return setFilters(req, len);
  case 0x05:
    return queryFilters(req, len);
  default:
    return reply(r, kStatusRefused);
  }
}

Bytes CanRecordModel::writeSettings(const uint8_t *req, size_t len) {
  const ByteView r(req, len);
  // The answer adds how many settings bytes were stored; a partial frame is
  // refused whole rather than stored in part.
  if (len < kSettingsFrameSize) {
    Bytes out = reply(r, kStatusRefused);
    out.push_back(0);
    return out;
  }
  Settings &s = channels_[channelOf(r.at(2))].settings;
  std::copy(req + 3, req + kSettingsFrameSize, s.begin());
  Bytes out = reply(r, kStatusOk);
  out.push_back(uint8_t(s.size()));
  return out;
}

Bytes CanRecordModel::readSettings(const uint8_t *req, size_t len) const {
  const ByteView r(req, len);
  if (len < 3)
    return reply(r, kStatusRefused);
  const Settings &s = channels_[channelOf(r.at(2))].settings;
  Bytes out{kLead, 0xA4, uint8_t(channelOf(r.at(2)))};
  out.insert(out.end(), s.begin(), s.end());
  return out;
}

Bytes CanRecordModel::setFilters(const uint8_t *req, size_t len) {
  const ByteView r(req, len);
  if (len < 13)
    return reply(r, kStatusRefused);
  Channel &ch = channels_[channelOf(r.at(3))];
  switch (r.at(2)) {
  case Clear:
    ch.filters.clear();
    break;
  case Add:
    if (ch.filters.size() >= kMaxFilters)
      return reply(r, kStatusFull);
    ch.filters.push_back({r.at(4), r.u32le(5), r.u32le(9)});
    break;
  case Enable:
    ch.filtersEnabled = true;
    break;
  case Disable:
    ch.filtersEnabled = false;
    break;
  default:
    return reply(r, kStatusRefused);
  }
  return reply(r, kStatusOk);
}

Bytes CanRecordModel::queryFilters(const uint8_t *req, size_t len) const {
  const ByteView r(req, len);
  if (len < 6)
    return reply(r, kStatusRefused);
  const Channel &ch = channels_[channelOf(r.at(3))];
  Bytes out = reply(r, kStatusOk);
  if (r.at(2) == Info) {
    putU16(out, uint16_t(ch.filters.size()));
    out.push_back(ch.filtersEnabled ? 1 : 0);
    return out;
  }
  const uint16_t index = r.u16le(4);
  if (r.at(2) != OneFilter || index >= ch.filters.size())
    return reply(r, kStatusRefused);
  const Filter &f = ch.filters[index];
  out.push_back(f.idType);
  putU32(out, f.startId);
  putU32(out, f.endId);
  return out;
}

std::unique_ptr<DeviceModel> makeCanRecordModel(unsigned devType) {
  for (const CanRecordIdentity &id : kIdentities)
    if (id.devType == devType)
      return std::make_unique<CanRecordModel>(id.vendorId, id.productId);
  return nullptr;
}

} // namespace wcansim
