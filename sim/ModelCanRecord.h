// SPDX-License-Identifier: MIT
// The simulated CAN recorder (types 61 and 62): bulk request/reply on OUT
// 0x01 and IN 0x81. It records on its own and takes no part in the
// simulated bus traffic; the host only configures its settings and filters,
// which the recorder keeps per channel in persistent storage.
#pragma once

#include <array>
#include <vector>

#include "SimModel.h"

namespace wcansim {

class CanRecordModel final : public DeviceModel {
public:
  static constexpr unsigned kChannels = 2;
  static constexpr uint8_t kCmdOut = 0x01;
  static constexpr uint8_t kCmdIn = 0x81;
  static constexpr size_t kSettingsFrameSize = 28;
  // How many identifier ranges the recorder holds per channel.
  static constexpr size_t kMaxFilters = 32;

  struct Filter {
    uint8_t idType = 0;
    uint32_t startId = 0;
    uint32_t endId = 0;
  };

  CanRecordModel(uint16_t vendorId, uint16_t productId);

  uint16_t vendorId() const override { return vendorId_; }
  uint16_t productId() const override { return productId_; }
  unsigned channelCount() const override { return kChannels; }
  EndpointShape endpointShape(uint8_t inEp) const override;

  int onHostWrite(ModelHost &host, uint8_t ep, const uint8_t *data, size_t len) override;
  void onBusFrame(ModelHost &, unsigned, const CanFrame &, uint32_t) override {}
  void onReset() override {}

  bool channelStarted(unsigned) const override { return false; }
  bool channelListenOnly(unsigned) const override { return false; }

  const std::vector<Filter> &filters(unsigned channel) const {
    return channels_.at(channel).filters;
  }
  bool filtersEnabled(unsigned channel) const { return channels_.at(channel).filtersEnabled; }

private:
  // Settings frame bytes 3..27, as the host last wrote them.
  using Settings = std::array<uint8_t, kSettingsFrameSize - 3>;
  struct Channel {
    Settings settings{};
    std::vector<Filter> filters;
    bool filtersEnabled = false;
  };

  Bytes replyTo(const uint8_t *req, size_t len);
  Bytes writeSettings(const uint8_t *req, size_t len);
  Bytes readSettings(const uint8_t *req, size_t len) const;
  Bytes setFilters(const uint8_t *req, size_t len);
  Bytes queryFilters(const uint8_t *req, size_t len) const;

  uint16_t vendorId_;
  uint16_t productId_;
  std::array<Channel, kChannels> channels_;
};

} // namespace wcansim
