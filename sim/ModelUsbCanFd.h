// SPDX-License-Identifier: MIT
// The simulated CAN FD adapter (types 41, 42, 43, 64, 65, 66, 67): commands on
// interrupt OUT 0x01 answered on interrupt IN 0x81, data frames to send on
// bulk OUT 0x02 acknowledged on bulk IN 0x82, received frames streamed on
// bulk IN 0x83 as data frames of at most 4096 bytes.
#pragma once

#include <array>
#include <cstdint>
#include <vector>

#include "SimModel.h"

namespace wcansim {

// One phase of a channel's bit timing, as the baud-init command carries it
// (every field holds its value minus 1, as sent).
struct FdPhaseTiming {
  uint16_t clockMHz = 0;
  uint16_t prescalerM1 = 0;
  uint8_t sjwM1 = 0;
  uint16_t tseg1M1 = 0;
  uint16_t tseg2M1 = 0;

  // Bits per second this timing gives, 0 when no clock was set.
  uint32_t bitRate() const;
};

// An acceptance range of a channel.
struct FdFilterRange {
  enum Kind : uint8_t { Standard = 2, Extended = 3, Any = 5 } kind;
  uint32_t first;
  uint32_t last;
};

struct FdChannelState {
  bool configured = false; // a baud-init command was taken
  bool started = false;
  uint8_t option0 = 0; // baud-init byte 5: 1 = listen-only, else normal
  uint8_t option1 = 0; // baud-init byte 4, kept as sent
  FdPhaseTiming arbitration;
  FdPhaseTiming data;
  bool filterEnabled = false;
  std::vector<FdFilterRange> filterRanges;
  uint32_t txFrames = 0; // put on the bus since the last reset
  uint32_t rxFrames = 0; // taken from the bus (after filtering)
};

class UsbCanFdModel final : public DeviceModel {
public:
  static constexpr uint8_t kCmdOut = 0x01;
  static constexpr uint8_t kCmdIn = 0x81;
  static constexpr uint8_t kDataOut = 0x02;
  static constexpr uint8_t kAckIn = 0x82;
  static constexpr uint8_t kStreamIn = 0x83;
  static constexpr size_t kMaxStreamFrame = 4096;
  static constexpr uint16_t kFirstVersion = 0x0105;
  static constexpr uint16_t kSecondVersion = 0x0117;

  UsbCanFdModel(uint16_t vendorId, uint16_t productId, unsigned channels);

  uint16_t vendorId() const override { return vendorId_; }
  uint16_t productId() const override { return productId_; }
  unsigned channelCount() const override { return channelCount_; }
  EndpointShape endpointShape(uint8_t inEp) const override;
  bool isTransmitEndpoint(uint8_t ep) const override { return ep == kDataOut; }

  int onHostWrite(ModelHost &host, uint8_t ep, const uint8_t *data, size_t len) override;
  void onBusFrame(ModelHost &host, unsigned channel, const CanFrame &frame,
                  uint32_t timeUs) override;
  void onReadEmpty(ModelHost &host, uint8_t ep) override;
  Bytes encodeBacklog(const std::vector<ChannelFrame> &frames, uint32_t timeUs) const override;
  void onReset() override;

  bool channelStarted(unsigned channel) const override;
  bool channelListenOnly(unsigned channel) const override;
  BitRates bitRates(unsigned channel) const override;

private:
  static constexpr unsigned kMaxChannels = 8;

  void handleCommand(ModelHost &host, const uint8_t *cmd, size_t len);
  void handleDataFrame(ModelHost &host, const uint8_t *frame, size_t len);
  uint8_t baudInit(const uint8_t *cmd, size_t len);
  uint8_t filterCommand(const uint8_t *cmd, size_t len);
  uint8_t startStop(const uint8_t *cmd, size_t len, bool start);
  Bytes statusReply(const uint8_t *cmd, size_t len) const;
  bool accepts(const FdChannelState &ch, const CanFrame &frame) const;
  bool validChannel(unsigned ch) const { return ch < channelCount_; }
  void flushPending(ModelHost &host);

  const uint16_t vendorId_;
  const uint16_t productId_;
  const unsigned channelCount_;
  std::array<FdChannelState, kMaxChannels> channels_;
  Bytes pending_; // encoded records waiting for the next data frame
  size_t pendingCount_ = 0;
};

} // namespace wcansim
