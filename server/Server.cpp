// SPDX-License-Identifier: MIT
#include "server/Server.h"

#include <pthread.h>

#include <algorithm>
#include <csignal>
#include <cstdio>

#include "common/Args.h"
#include "server/Session.h"

namespace wcantool::serve {
namespace {

boost::asio::ip::tcp::endpoint listenEndpoint(const ServeOptions &options) {
  boost::system::error_code ec;
  const boost::asio::ip::address address = boost::asio::ip::make_address(options.bindAddress, ec);
  if (ec)
    throw UsageError{"--bind takes an IP address, not '" + options.bindAddress + "'"};
  return {address, static_cast<unsigned short>(options.port)};
}

} // namespace

Server::Server(const Runtime &runtime, const ServeOptions &options)
    : options_(options), acceptor_(io_), signals_(io_), acceptRetry_(io_),
      deviceWork_(boost::asio::make_work_guard(deviceIo_)),
      hub_(
          runtime, io_, options.settings,
          [this](std::unique_ptr<Delivery> d) {
            boost::asio::post(io_, [this, d = std::move(d)] { deliver(*d); });
          },
          [this](const Delivery &d) { deliver(d); }) {
  const boost::asio::ip::tcp::endpoint endpoint = listenEndpoint(options);
  boost::system::error_code ec;
  acceptor_.open(endpoint.protocol(), ec);
  if (!ec)
    acceptor_.set_option(boost::asio::ip::tcp::acceptor::reuse_address(true), ec);
  if (!ec)
    acceptor_.bind(endpoint, ec);
  if (!ec)
    acceptor_.listen(boost::asio::socket_base::max_listen_connections, ec);
  if (ec)
    throw ToolError{"cannot listen on " + options.bindAddress + ":" + std::to_string(options.port) +
                    ": " + ec.message()};
  port_ = acceptor_.local_endpoint().port();
  deviceThread_ = std::thread([this] {
    pthread_setname_np(pthread_self(), "wcan devices");
    deviceIo_.run();
  });
}

Server::~Server() {
  deviceWork_.reset();
  if (deviceThread_.joinable())
    deviceThread_.join();
  hub_.closeAll();
}

std::string Server::endpoint() const { return options_.bindAddress + ":" + std::to_string(port_); }

void Server::run(bool handleSignals) {
  if (handleSignals) {
    signals_.add(SIGINT);
    signals_.add(SIGTERM);
    signals_.async_wait([this](boost::system::error_code ec, int signal) {
      if (ec)
        return;
      std::fprintf(stderr, "wcan serve: %s: closing every session and adapter\n",
                   signal == SIGINT ? "interrupted" : "terminated");
      shutdown();
    });
  }
  accept();
  io_.run();
  // Every session has gone; stop what an open request still in progress at
  // the end started and close the adapters on the device thread, after
  // whatever it still had to do.
  boost::asio::post(deviceIo_, [this] { hub_.closeAll(); });
  deviceWork_.reset();
  if (deviceThread_.joinable())
    deviceThread_.join();
}

void Server::stop() {
  boost::asio::post(io_, [this] { shutdown(); });
}

void Server::shutdown() {
  if (stopping_)
    return;
  stopping_ = true;
  boost::system::error_code ignored;
  acceptor_.close(ignored);
  acceptRetry_.cancel();
  // A second Ctrl-C ends the program at once.
  signals_.clear(ignored);
  auto sessions = sessions_;
  for (auto &s : sessions)
    s.second->close();
  for (auto &hook : shutdownHooks_)
    hook();
  // The channels' receive waits keep the event loop running until the
  // channels stop.
  boost::asio::post(deviceIo_, [this] { hub_.closeAll(); });
}

void Server::accept() {
  acceptor_.async_accept([this](boost::system::error_code ec, boost::asio::ip::tcp::socket socket) {
    if (stopping_)
      return;
    if (ec) {
      // Out of descriptors and the like: try again shortly instead of spinning.
      std::fprintf(stderr, "wcan serve: accepting a connection failed: %s\n", ec.message().c_str());
      acceptRetry_.expires_after(std::chrono::milliseconds(100));
      acceptRetry_.async_wait([this](boost::system::error_code e) {
        if (!e && !stopping_)
          accept();
      });
      return;
    }
    const uint64_t id = nextSessionId_++;
    auto session = std::make_shared<Session>(*this, std::move(socket), id);
    sessions_.emplace(id, session);
    session->start();
    accept();
  });
}

void Server::openBus(const std::shared_ptr<Session> &session, const std::string &bus) {
  boost::asio::post(deviceIo_, [this, weak = std::weak_ptr<Session>(session), bus] {
    std::string why;
    std::shared_ptr<Channel> channel = hub_.acquire(bus, why);
    boost::asio::post(io_, [this, weak, channel, why] {
      std::shared_ptr<Session> s = weak.lock();
      if (!s || s->closed()) {
        if (channel)
          releaseOnDeviceThread(channel);
        return;
      }
      if (channel) {
        BusMembers &members = buses_[channel.get()];
        members.channel = channel;
        members.sessions.push_back(s.get());
      }
      s->busOpened(channel, why);
    });
  });
}

// Listing the adapters goes through the USB library, which the device thread owns.
void Server::listBuses(const std::shared_ptr<Session> &session) {
  boost::asio::post(deviceIo_, [this, weak = std::weak_ptr<Session>(session)] {
    std::string why;
    std::vector<std::string> buses = hub_.busesOnOffer(why);
    boost::asio::post(io_, [weak, buses = std::move(buses), why] {
      if (std::shared_ptr<Session> s = weak.lock(); s && !s->closed())
        s->busesListed(buses, why);
    });
  });
}

void Server::leaveBus(Session &session, const std::shared_ptr<Channel> &channel) {
  auto bus = buses_.find(channel.get());
  if (bus != buses_.end()) {
    auto &members = bus->second.sessions;
    members.erase(std::remove(members.begin(), members.end(), &session), members.end());
    if (members.empty())
      buses_.erase(bus);
  }
  // When the server stops, the device thread stops all channels side by side.
  if (!stopping_)
    releaseOnDeviceThread(channel);
}

void Server::releaseOnDeviceThread(std::shared_ptr<Channel> channel) {
  boost::asio::post(deviceIo_, [this, channel = std::move(channel)] { hub_.release(channel); });
}

void Server::forEachBus(
    const std::function<void(const std::shared_ptr<Channel> &, size_t)> &fn) const {
  for (const auto &bus : buses_)
    fn(bus.second.channel, bus.second.sessions.size());
}

void Server::acquire(const std::string &bus, const ChannelSettings &settings, Acquired done) {
  boost::asio::post(deviceIo_, [this, bus, settings, done = std::move(done)] {
    std::string why;
    std::shared_ptr<Channel> channel = hub_.acquire(bus, why, &settings);
    boost::asio::post(io_, [this, channel, why, done] {
      if (stopping_ && channel)
        return releaseOnDeviceThread(channel);
      done(channel, why);
    });
  });
}

void Server::release(std::shared_ptr<Channel> channel) {
  if (!stopping_)
    releaseOnDeviceThread(std::move(channel));
}

void Server::forget(uint64_t sessionId) { sessions_.erase(sessionId); }

const BusCounters &Server::counters(const Channel *channel) const {
  static const BusCounters none;
  auto it = buses_.find(channel);
  return it == buses_.end() ? none : it->second.counters;
}

void Server::deliver(const Delivery &d) {
  if (watcher_)
    watcher_(d);
  auto bus = buses_.find(d.channel.get());
  if (bus == buses_.end())
    return;
  BusCounters &c = bus->second.counters;
  uint64_t bytes = 0;
  for (const TimedFrame &f : d.frames)
    bytes += f.frame.remote ? 0 : f.frame.len;
  (d.origin == 0 ? c.rxFrames : c.txFrames) += d.frames.size();
  (d.origin == 0 ? c.rxBytes : c.txBytes) += bytes;
  // By index: a session may leave the bus while frames are handed out.
  const auto &members = bus->second.sessions;
  for (size_t i = 0; i < members.size(); ++i)
    if (members[i]->id() != d.origin)
      members[i]->receive(d);
  if (d.origin != 0) {
    auto origin = sessions_.find(d.origin);
    if (origin != sessions_.end())
      origin->second->transmitted(d);
  }
}

} // namespace wcantool::serve
