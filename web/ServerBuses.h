// SPDX-License-Identifier: MIT
// The monitor's access to the buses of `wcan serve`: the server's deliveries
// become the monitor's frames, and the monitor holds channels and sends as
// one more user of the bus, which the socketcand clients see as they see each
// other.
#pragma once

#include <map>
#include <memory>
#include <string>
#include <vector>

#include "server/Server.h"
#include "web/BusAccess.h"

namespace wcantool::web {

class ServerBuses : public BusAccess {
public:
  // `known`: the attached adapters' buses, listed even when stopped.
  ServerBuses(serve::Server &server, std::vector<std::string> known);
  ~ServerBuses() override;

  void setListener(BusListener *listener) override { listener_ = listener; }
  std::vector<BusState> buses() const override;
  void open(const std::string &bus, const ChannelSettings &settings,
            std::function<void(const std::string &)> done) override;
  void close(const std::string &bus) override;
  bool send(const std::string &bus, const std::vector<Frame> &frames, bool cyclic,
            std::string &why) override;

  // The origin of the monitor's frames among the server's sessions.
  static constexpr uint64_t kOrigin = ~uint64_t{0};

private:
  void delivered(const serve::Delivery &delivery);
  std::shared_ptr<serve::Channel> running(const std::string &bus) const;

  serve::Server &server_;
  std::vector<std::string> known_;
  BusListener *listener_ = nullptr;
  std::map<std::string, std::shared_ptr<serve::Channel>> held_;
  std::vector<SeenFrame> scratch_;
};

} // namespace wcantool::web
