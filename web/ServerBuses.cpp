// SPDX-License-Identifier: MIT
#include "web/ServerBuses.h"

#include <algorithm>

#include "common/Args.h"

namespace wcantool::web {
namespace {

BusState stateOf(const serve::Channel &channel) {
  BusState s;
  s.name = channel.name();
  s.running = true;
  s.fd = channel.fd();
  s.rates.nominal = channel.settings().bitRate;
  s.rates.data = channel.fd() ? channel.settings().dataBitRate : 0;
  return s;
}

} // namespace

ServerBuses::ServerBuses(serve::Server &server, std::vector<std::string> known)
    : server_(server), known_(std::move(known)) {
  server_.watch([this](const serve::Delivery &d) { delivered(d); });
}

ServerBuses::~ServerBuses() {
  server_.watch(nullptr);
  for (auto &held : held_)
    server_.release(held.second);
}

void ServerBuses::delivered(const serve::Delivery &d) {
  if (!listener_)
    return;
  scratch_.clear();
  for (const serve::TimedFrame &f : d.frames)
    scratch_.push_back({f.frame, static_cast<int64_t>(f.time.seconds) * 1000000 +
                                     static_cast<int64_t>(f.time.micros)});
  listener_->onFrames(d.channel->name(), d.origin == kOrigin, scratch_, d.failed, d.failure);
}

std::vector<BusState> ServerBuses::buses() const {
  std::map<std::string, BusState> all;
  for (const std::string &name : known_)
    all[name].name = name;
  server_.forEachBus([&](const std::shared_ptr<serve::Channel> &channel, size_t sessions) {
    BusState s = stateOf(*channel);
    s.clients = static_cast<unsigned>(sessions);
    all[s.name] = s;
  });
  for (const auto &held : held_) {
    BusState &s = all[held.first];
    const unsigned clients = s.clients;
    s = stateOf(*held.second);
    s.clients = clients;
    s.monitor = true;
  }
  std::vector<BusState> out;
  for (auto &s : all)
    out.push_back(std::move(s.second));
  return out;
}

void ServerBuses::open(const std::string &bus, const ChannelSettings &settings,
                       std::function<void(const std::string &)> done) {
  if (held_.count(bus)) {
    done({});
    return;
  }
  server_.acquire(
      bus, settings,
      [this, bus, done](std::shared_ptr<serve::Channel> channel, const std::string &why) {
        if (!channel)
          return done(why);
        // Two opens of one bus from the pages: keep one use.
        if (!held_.emplace(bus, channel).second)
          server_.release(channel);
        done({});
      });
}

void ServerBuses::close(const std::string &bus) {
  auto it = held_.find(bus);
  if (it == held_.end())
    return;
  server_.release(it->second);
  held_.erase(it);
}

std::shared_ptr<serve::Channel> ServerBuses::running(const std::string &bus) const {
  auto it = held_.find(bus);
  if (it != held_.end())
    return it->second;
  std::shared_ptr<serve::Channel> found;
  server_.forEachBus([&](const std::shared_ptr<serve::Channel> &channel, size_t) {
    if (channel->name() == bus)
      found = channel;
  });
  return found;
}

bool ServerBuses::send(const std::string &bus, const std::vector<Frame> &frames, bool cyclic,
                       std::string &why) {
  const std::shared_ptr<serve::Channel> channel = running(bus);
  if (!channel) {
    why = bus + " is not running: start it first";
    return false;
  }
  const std::optional<serve::BusAddress> address = serve::parseBusName(bus);
  const DeviceType *type = address ? findDeviceType(address->type) : nullptr;
  try {
    if (!type)
      throw UsageError{"'" + bus + "' names no bus"};
    checkChannelUse(*type, address->channel, channel->settings(), frames);
    for (const Frame &f : frames)
      if (f.fd && !channel->fd())
        throw UsageError{bus + " runs classic CAN: start it with CAN FD to send " + formatFrame(f)};
  } catch (const UsageError &e) {
    why = e.message;
    return false;
  }
  channel->transmit(kOrigin, cyclic, frames);
  return true;
}

} // namespace wcantool::web
