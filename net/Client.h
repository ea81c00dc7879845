// SPDX-License-Identifier: MIT
// The client side of the CAN-over-TCP protocol, for `wcan dump`, `send` and
// `gen` with --connect: one connection to one bus of a server.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/FrameSyntax.h"

namespace wcantool::net {

struct ReceivedFrame {
  Frame frame;
  LogTime time; // the server's time stamp
};

struct ServerAddress {
  std::string host;
  unsigned port = 0;
};

// "HOST", "HOST:PORT", "[v6]:PORT"; throws UsageError.
ServerAddress parseServerAddress(const std::string &text, unsigned defaultPort);
// The other way round: "HOST:PORT" or "[v6]:PORT".
std::string addressText(const ServerAddress &server);

// The buses a server offers, asked with < buses >. Throws ToolError when the
// server cannot be reached or has not answered within waitMs.
std::vector<std::string> serverBuses(const ServerAddress &server, int waitMs);

class Client {
public:
  // Connects and opens the bus (the session is then in bcm mode); throws
  // ToolError with the server's answer.
  Client(const ServerAddress &server, const std::string &bus);
  ~Client();
  Client(const Client &) = delete;
  Client &operator=(const Client &) = delete;

  // Switches to raw mode: every frame on the bus comes to the client.
  void rawMode();

  // Switches to control mode and asks for the bus's counters every
  // intervalMs milliseconds.
  void watchStatistics(unsigned intervalMs);
  struct Statistics {
    uint64_t rxBytes, rxFrames, txBytes, txFrames, missed;
  };
  // The latest counters that arrived, without waiting; nothing when none did.
  std::optional<Statistics> latestStatistics();

  // The next frame, waiting up to waitMs; nothing on time-out. Error replies
  // met on the way are kept for takeErrors(). Throws ToolError when the
  // connection ends.
  std::optional<ReceivedFrame> nextFrame(int waitMs);

  // Sends frames; waits while the server holds back.
  void send(const std::vector<Frame> &frames);
  // Error replies that have arrived so far, without waiting.
  std::vector<std::string> takeErrors();
  // Waits until the server has handed everything sent so far to the adapter;
  // returns the error replies that came meanwhile.
  std::vector<std::string> sync();

  std::string describe() const; // "wcan41-0-0 at localhost:29536"

  struct Connection; // also serves serverBuses()

private:
  std::unique_ptr<Connection> c_;
};

} // namespace wcantool::net
