// SPDX-License-Identifier: MIT
// One client connection of `wcan serve`: its requests, its mode, its cyclic
// transmissions and subscriptions, and its bounded output. Everything here
// runs on the event loop thread.
#pragma once

#include <boost/asio.hpp>

#include <array>
#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "net/Protocol.h"
#include "server/Bus.h"

namespace wcantool::serve {

class Server;

class Session : public std::enable_shared_from_this<Session> {
public:
  Session(Server &server, boost::asio::ip::tcp::socket socket, uint64_t id);
  ~Session();

  void start();
  // Ends the session at once: the socket closes and the bus is left.
  void close();

  uint64_t id() const { return id_; }
  const std::string &peer() const { return peer_; }
  bool closed() const { return closed_; }

  // The answer to an open request: the channel, or null and the reason.
  void busOpened(std::shared_ptr<Channel> channel, const std::string &why);
  // Answers < buses >: the names, or an error with `why` when there are none
  // because the adapters could not be listed.
  void busesListed(const std::vector<std::string> &buses, const std::string &why);
  // Frames on the bus (the session's own are not among them).
  void receive(const Delivery &delivery);
  // The outcome of frames this session queued for transmission.
  void transmitted(const Delivery &delivery);

private:
  using Clock = std::chrono::steady_clock;
  enum class Mode { NoBus, Opening, Bcm, Raw, Control };

  // A cyclic transmission (add).
  struct Cycle {
    Frame frame;
    Clock::duration interval;
    boost::asio::steady_timer timer;
  };
  // A subscription (subscribe) or content filter (filter).
  struct Subscription {
    Clock::duration interval{};
    std::optional<Frame> mask;
    std::optional<Frame> last;
    Clock::time_point lastForward{};
    bool forwarded = false;
    std::optional<TimedFrame> held;
    boost::asio::steady_timer timer;
  };

  // Input.
  void readMore();
  void processInput();
  bool inputBlocked() const;
  void handleItem(const net::ElementReader::Item &item);
  void handleRequest(const net::Request &request);
  void handleModeRequest(const net::Request &request);
  void handleSend(const Frame &frame);
  void handleBcmRequest(const net::Request &request);
  bool allowedInMode(net::Verb verb, std::string &why) const;

  // Broadcast manager.
  void addCycle(const net::Request &request);
  double cyclicFramesPerSecond(uint32_t except) const;
  void armCycle(Cycle *cycle, uint32_t key);
  void subscribe(const net::Request &request);
  void forwardSubscribed(const TimedFrame &frame);
  void forward(Subscription &sub, const TimedFrame &frame);
  void leaveBcmMode();

  // Statistics.
  void armStatistics();

  // Output.
  void reply(std::string_view text);
  void replyError(std::string_view reason);
  bool writeBounded(std::string_view text, size_t frames);
  void flushAtEndOfRound();
  void startWrite();
  size_t queuedOutput() const { return pending_.size() + writing_.size(); }
  void closeAfterWrite();

  static uint32_t keyOf(const Frame &frame);

  Server &server_;
  boost::asio::ip::tcp::socket socket_;
  const uint64_t id_;
  std::string peer_;
  const size_t outputLimit_;

  Mode mode_ = Mode::NoBus;
  bool closed_ = false;
  bool closing_ = false;
  std::shared_ptr<Channel> channel_;

  net::ElementReader reader_;
  std::array<char, 4096> readBuffer_;
  bool reading_ = false;

  // Frames queued for transmission and not yet taken or refused: those of
  // requests hold back the next requests (and an echo), cyclic ones skip cycles.
  size_t sendsOutstanding_ = 0;
  size_t cyclesOutstanding_ = 0;
  bool echoHeld_ = false;
  bool listingBuses_ = false;

  std::string pending_;
  std::string writing_;
  bool writeInFlight_ = false;
  bool flushPosted_ = false;
  boost::asio::steady_timer lingerTimer_;

  uint64_t missed_ = 0;      // frames dropped because the client did not read
  uint64_t missedInRun_ = 0; // since the client last kept up

  std::map<uint32_t, std::unique_ptr<Cycle>> cycles_;
  std::map<uint32_t, std::unique_ptr<Subscription>> subscriptions_;
  boost::asio::steady_timer statsTimer_;
  Clock::duration statsInterval_{};
};

} // namespace wcantool::serve
