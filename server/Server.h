// SPDX-License-Identifier: MIT
// `wcan serve`: the network side. One thread runs the event loop (accepting,
// reading requests, taking received frames from the library and writing them
// to every session); a device thread opens,
// starts, stops and closes adapters, so that no library call that may wait
// on USB holds up the sessions.
#pragma once

#include <boost/asio.hpp>

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <unordered_map>
#include <vector>

#include "server/Bus.h"

namespace wcantool::serve {

class Session;

struct ServeOptions {
  std::string bindAddress = "127.0.0.1";
  unsigned port = 29536;
  ChannelSettings settings;
  // Output a client may leave unread before it misses frames.
  size_t clientBuffer = 1u << 20;
};

class Server {
public:
  // Binds the listening socket; throws ToolError.
  Server(const Runtime &runtime, const ServeOptions &options);
  ~Server();
  Server(const Server &) = delete;
  Server &operator=(const Server &) = delete;

  unsigned port() const { return port_; }
  std::string endpoint() const;

  // Serves until stop(), or SIGINT or SIGTERM when `handleSignals`; then
  // closes every session, channel and adapter.
  void run(bool handleSignals);
  // Any thread.
  void stop();

  // For the browser monitor, on the event loop thread: the loop itself,
  // every delivery on every bus, the running buses with their number of
  // sessions, channels started for it, and the end of the server.
  boost::asio::io_context &io() { return io_; }
  void watch(std::function<void(const Delivery &)> watcher) { watcher_ = std::move(watcher); }
  void forEachBus(const std::function<void(const std::shared_ptr<Channel> &, size_t)> &fn) const;
  using Acquired = std::function<void(std::shared_ptr<Channel>, const std::string &why)>;
  void acquire(const std::string &bus, const ChannelSettings &settings, Acquired done);
  void release(std::shared_ptr<Channel> channel);
  void onShutdown(std::function<void()> hook) { shutdownHooks_.push_back(std::move(hook)); }

  // For sessions, on the event loop thread.
  void openBus(const std::shared_ptr<Session> &session, const std::string &bus);
  void listBuses(const std::shared_ptr<Session> &session);
  void leaveBus(Session &session, const std::shared_ptr<Channel> &channel);
  void forget(uint64_t sessionId);
  const BusCounters &counters(const Channel *channel) const;
  size_t clientBuffer() const { return options_.clientBuffer; }

private:
  struct BusMembers {
    std::shared_ptr<Channel> channel;
    std::vector<Session *> sessions;
    BusCounters counters;
  };

  void accept();
  void shutdown();
  void deliver(const Delivery &delivery);
  void releaseOnDeviceThread(std::shared_ptr<Channel> channel);

  const ServeOptions options_;
  boost::asio::io_context io_;
  boost::asio::ip::tcp::acceptor acceptor_;
  boost::asio::signal_set signals_;
  boost::asio::steady_timer acceptRetry_;
  unsigned port_ = 0;
  bool stopping_ = false;
  uint64_t nextSessionId_ = 1;
  std::map<uint64_t, std::shared_ptr<Session>> sessions_;
  std::unordered_map<const Channel *, BusMembers> buses_;
  std::function<void(const Delivery &)> watcher_;
  std::vector<std::function<void()>> shutdownHooks_;

  // The device thread and what only it touches.
  boost::asio::io_context deviceIo_;
  boost::asio::executor_work_guard<boost::asio::io_context::executor_type> deviceWork_;
  BusHub hub_;
  std::thread deviceThread_;
};

} // namespace wcantool::serve
