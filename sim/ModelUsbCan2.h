// SPDX-License-Identifier: MIT
// The simulated classic dual-channel adapter (types 3 and 4): commands on
// interrupt OUT 0x01 answered on interrupt IN 0x81, transmit packets on bulk
// OUT 0x02, received frames streamed on bulk IN 0x82.
#pragma once

#include <array>
#include <optional>

#include "SimModel.h"

namespace wcansim {

class UsbCan2Model final : public DeviceModel {
public:
  static constexpr unsigned kChannels = 2;
  static constexpr uint8_t kCmdOut = 0x01;
  static constexpr uint8_t kCmdIn = 0x81;
  static constexpr uint8_t kDataOut = 0x02;
  static constexpr uint8_t kDataIn = 0x82;
  static constexpr size_t kRecordSize = 19;

  UsbCan2Model(uint16_t vendorId, uint16_t productId)
      : vendorId_(vendorId), productId_(productId) {}

  uint16_t vendorId() const override { return vendorId_; }
  uint16_t productId() const override { return productId_; }
  unsigned channelCount() const override { return kChannels; }
  EndpointShape endpointShape(uint8_t inEp) const override;
  // The adapter reports its serial number only through the board-information
  // command, never as a USB string.
  bool hasUsbSerialNumber() const override { return false; }
  bool isTransmitEndpoint(uint8_t ep) const override { return ep == kDataOut; }

  int onHostWrite(ModelHost &host, uint8_t ep, const uint8_t *data, size_t len) override;
  void onBusFrame(ModelHost &host, unsigned channel, const CanFrame &frame,
                  uint32_t timeUs) override;
  void onReadEmpty(ModelHost &host, uint8_t ep) override;
  void onReset() override;

  bool channelStarted(unsigned channel) const override;
  bool channelListenOnly(unsigned channel) const override;
  BitRates bitRates(unsigned channel) const override;

  // Acknowledge every transmit packet with the number of frames it put on
  // the bus. Off by default: an opened adapter streams without
  // acknowledgements, and an answer nobody fetches would only take the place
  // of the next command's reply.
  void setTransmitAcks(bool on) { transmitAcks_ = on; }

  uint8_t relay(unsigned which) const { return relays_.at(which); }
  // Bus timing registers the channel was last initialised with.
  uint8_t timing0(unsigned channel) const { return channels_.at(channel).timing0; }
  uint8_t timing1(unsigned channel) const { return channels_.at(channel).timing1; }

private:
  struct Channel {
    bool initialised = false;
    bool started = false;
    bool listenOnly = false;
    uint8_t timing0 = 0;
    uint8_t timing1 = 0;
  };

  void handleCommand(const uint8_t *cmd, size_t len);
  void handleTransmit(ModelHost &host, const uint8_t *data, size_t len);
  Bytes replyTo(const uint8_t *cmd, size_t len);
  Bytes initChannel(const uint8_t *cmd, size_t len);
  Bytes startChannel(const uint8_t *cmd, size_t len);
  Bytes resetChannel(const uint8_t *cmd, size_t len);
  Bytes baudParameters(const uint8_t *cmd, size_t len) const;
  Bytes channelState(const uint8_t *cmd, size_t len) const;

  uint16_t vendorId_;
  uint16_t productId_;
  std::array<Channel, kChannels> channels_{};
  std::array<uint8_t, 2> relays_{};
  // The adapter keeps one answer for the host; a command overwrites an
  // answer that was never fetched (a reset sent without reading the reply
  // leaves nothing behind for the next command).
  std::optional<Bytes> pendingReply_;
  bool transmitAcks_ = false;
};

// Wire form of the classic family, from the device's side.
namespace usbcan2wire {
// Receive record of a frame heard on `channel` at device time `timeUs`.
Bytes encodeRxRecord(unsigned channel, const CanFrame &frame, uint32_t timeUs);
// Frame and channel of one 19-byte transmit record.
struct TxRecord {
  unsigned channel = 0;
  CanFrame frame;
};
TxRecord decodeTxRecord(const uint8_t *record);
} // namespace usbcan2wire

} // namespace wcansim
