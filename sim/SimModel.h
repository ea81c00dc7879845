// SPDX-License-Identifier: MIT
// Device models of the simulated adapters. A model is a plain state machine:
// it sees what the host writes on its OUT endpoints and the frames that reach
// its channels from the virtual bus, and answers through its ModelHost by
// queueing bytes on IN endpoints and putting frames on the bus. It never
// blocks, never locks and knows nothing of libusb or of threads, so the
// in-process libusb layer and any other transport can drive the same models.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

namespace wcansim {

// One frame on the virtual CAN bus.
struct CanFrame {
  uint32_t id = 0;
  bool extended = false;
  bool remote = false;
  bool fd = false;  // CAN FD frame format
  bool brs = false; // bit-rate switch (CAN FD only)
  uint8_t len = 0;  // 0..8 classic, 0..64 CAN FD
  uint8_t data[64] = {};
};

using Bytes = std::vector<uint8_t>;

// A frame as one of an adapter's channels received it.
struct ChannelFrame {
  unsigned channel = 0;
  CanFrame frame;
};

// A channel's bit rates in bit/s: the nominal (arbitration) rate and the
// CAN FD data-phase rate; 0 where the host has not set one.
struct BitRates {
  uint32_t nominal = 0;
  uint32_t data = 0;
};

// What the adapter hosting a model offers it. Calls are made while the
// adapter's own lock is held; frames given to sendToBus are routed after the
// model call returns.
class ModelHost {
public:
  virtual ~ModelHost() = default;
  // 32-bit microseconds since the adapter was plugged in, wrapping.
  virtual uint32_t deviceTimeUs() const = 0;
  // Queue one transfer's worth of bytes on an IN endpoint.
  virtual void queueIn(uint8_t ep, Bytes bytes) = 0;
  // Put a frame on the bus from one of the adapter's channels.
  virtual void sendToBus(unsigned channel, const CanFrame &frame) = 0;
};

// How the host's reads are served on an IN endpoint.
struct EndpointShape {
  // Packet: each read returns (the start of) one queued transfer; a longer
  // transfer is truncated to the read length, as a real short reply would be.
  // Stream: a read returns up to min(read length, maxRead) bytes taken across
  // queued transfers, so a record may be split over two reads.
  enum Kind { Packet, Stream } kind = Packet;
  int maxRead = 64;
};

class DeviceModel {
public:
  virtual ~DeviceModel() = default;

  virtual uint16_t vendorId() const = 0;
  virtual uint16_t productId() const = 0;
  virtual unsigned channelCount() const = 0;
  virtual EndpointShape endpointShape(uint8_t inEp) const = 0;
  // Whether the device descriptor names a serial number string.
  virtual bool hasUsbSerialNumber() const { return true; }
  // Whether the host sends frames for the bus on OUT endpoint `ep`: such
  // writes wait while the adapter's transmit queue is full. A fixed property
  // of the endpoint, asked without the adapter's lock.
  virtual bool isTransmitEndpoint(uint8_t) const { return false; }

  // The host wrote `len` bytes to OUT endpoint `ep`. Returns the number of
  // bytes accepted (normally len) or a negative libusb error.
  virtual int onHostWrite(ModelHost &host, uint8_t ep, const uint8_t *data, size_t len) = 0;

  // A frame from the bus reached `channel` at device time `timeUs`. Models
  // drop it unless the channel is started.
  virtual void onBusFrame(ModelHost &host, unsigned channel, const CanFrame &frame,
                          uint32_t timeUs) = 0;

  // A read found IN endpoint `ep` empty: a model that batches records (the
  // CAN FD stream) packs what is waiting now.
  virtual void onReadEmpty(ModelHost &, uint8_t) {}

  // The bytes a streaming model would send on its stream endpoint for these
  // received frames, stamped `timeUs`, with frames of stopped channels and
  // those a filter rejects left out, as they would be on the bus. Empty for
  // a model without a stream.
  virtual Bytes encodeBacklog(const std::vector<ChannelFrame> &, uint32_t) const { return {}; }

  // Power cycle: a replugged or USB-reset adapter starts from its reset state
  // (channels stopped) but keeps persistent settings (recorder settings).
  virtual void onReset() = 0;

  // Whether a channel is started (receives from the bus) and listen-only
  // (does not send).
  virtual bool channelStarted(unsigned channel) const = 0;
  virtual bool channelListenOnly(unsigned channel) const = 0;
  // The rates the host set the channel to; they decide how long its frames
  // hold the bus.
  virtual BitRates bitRates(unsigned) const { return {}; }
};

// Builds the model of a device type (3, 4, 41..43, 61, 62, 64..67); null for
// a type no model exists for.
std::unique_ptr<DeviceModel> makeModel(unsigned devType);

} // namespace wcansim
