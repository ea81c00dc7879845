// SPDX-License-Identifier: MIT
#include "net/Client.h"

#include <sys/socket.h>

#include <boost/asio.hpp>

#include <algorithm>
#include <array>
#include <cerrno>
#include <chrono>
#include <cinttypes>
#include <cstdio>

#include "common/Args.h"
#include "net/Protocol.h"

namespace wcantool::net {
namespace {

using Clock = std::chrono::steady_clock;

// Opening a bus may open and reset an adapter first.
constexpr int kAnswerWaitMs = 10000;

// The answers that are one word only.
void expectOnly(const std::vector<std::string> &words) {
  if (words.size() != 1)
    throw ToolError{"the server answered with more than '" + words.front() + "'"};
}

} // namespace

std::string addressText(const ServerAddress &server) {
  const bool v6 = server.host.find(':') != std::string::npos;
  return (v6 ? "[" + server.host + "]" : server.host) + ":" + std::to_string(server.port);
}

ServerAddress parseServerAddress(const std::string &text, unsigned defaultPort) {
  ServerAddress a{text, defaultPort};
  std::string port;
  if (!text.empty() && text.front() == '[') {
    const size_t close = text.find(']');
    if (close == std::string::npos || (close + 1 < text.size() && text[close + 1] != ':'))
      throw UsageError{"--connect takes HOST[:PORT] or [ADDRESS]:PORT, not '" + text + "'"};
    a.host = text.substr(1, close - 1);
    if (close + 1 < text.size())
      port = text.substr(close + 2);
  } else if (text.find(':') == text.rfind(':') && text.find(':') != std::string::npos) {
    a.host = text.substr(0, text.find(':'));
    port = text.substr(text.find(':') + 1);
  }
  if (a.host.empty())
    throw UsageError{"--connect needs a host name or address, not '" + text + "'"};
  if (!port.empty() || text.back() == ':')
    a.port = parseUnsigned(port, "the port of --connect", 1, 65535);
  return a;
}

struct Client::Connection {
  boost::asio::io_context io;
  boost::asio::ip::tcp::socket socket{io};
  ElementReader reader;
  // Large reads: a server with 8 busy buses writes megabytes a second.
  std::array<char, 65536> buffer;
  std::vector<std::string> errors;
  std::string name;

  // Runs one asynchronous operation started by `start` until it completes or
  // `deadline` (none: no limit) passes, which cancels it: operation_aborted.
  template <class Start>
  boost::system::error_code await(Start start, std::optional<Clock::time_point> deadline) {
    boost::system::error_code ec = boost::asio::error::would_block;
    start(ec);
    io.restart();
    if (deadline)
      io.run_until(*deadline);
    else
      io.run();
    if (ec == boost::asio::error::would_block) {
      boost::system::error_code ignored;
      socket.cancel(ignored);
      io.restart();
      io.run();
    }
    return ec;
  }

  // Reads once, waiting until `deadline` (none: no limit); false on time-out.
  bool readSome(std::optional<Clock::time_point> deadline) {
    if (deadline && *deadline <= Clock::now())
      return readWaiting();
    size_t n = 0;
    const boost::system::error_code ec = await(
        [&](boost::system::error_code &result) {
          socket.async_read_some(boost::asio::buffer(buffer),
                                 [&](boost::system::error_code e, size_t k) {
                                   result = e;
                                   n = k;
                                 });
        },
        deadline);
    if (ec == boost::asio::error::operation_aborted)
      return false;
    return fed(ec, n);
  }

  // What has arrived, without waiting and without the event loop: a view
  // of several buses polls each connection every few milliseconds.
  bool readWaiting() {
    const ssize_t n = ::recv(socket.native_handle(), buffer.data(), buffer.size(), MSG_DONTWAIT);
    if (n < 0 && (errno == EAGAIN || errno == EWOULDBLOCK || errno == EINTR))
      return false;
    boost::system::error_code ec;
    if (n == 0)
      ec = boost::asio::error::eof;
    else if (n < 0)
      ec.assign(errno, boost::system::system_category());
    return fed(ec, n > 0 ? static_cast<size_t>(n) : 0);
  }

  bool fed(const boost::system::error_code &ec, size_t n) {
    if (ec == boost::asio::error::eof)
      throw ToolError{"the server closed the connection to " + name};
    if (ec)
      throw ToolError{"lost the connection to " + name + ": " + ec.message()};
    reader.feed(buffer.data(), n);
    return true;
  }

  void connect(const ServerAddress &server, std::optional<Clock::time_point> deadline) {
    const std::string where = addressText(server);
    boost::system::error_code ec;
    boost::asio::ip::tcp::resolver resolver(io);
    const auto endpoints = resolver.resolve(server.host, std::to_string(server.port), ec);
    if (!ec)
      ec = await(
          [&](boost::system::error_code &result) {
            boost::asio::async_connect(socket, endpoints,
                                       [&](boost::system::error_code e,
                                           const boost::asio::ip::tcp::endpoint &) { result = e; });
          },
          deadline);
    if (ec == boost::asio::error::operation_aborted)
      throw ToolError{"no connection to " + where + " in time"};
    if (ec)
      throw ToolError{"cannot connect to " + where + ": " + ec.message()};
    socket.set_option(boost::asio::ip::tcp::no_delay(true), ec);
  }

  // The next element; nothing when none came within waitMs (-1: no limit).
  std::optional<std::string> nextElement(int waitMs) {
    std::string_view text;
    if (!nextElementView(waitMs, text))
      return std::nullopt;
    return std::string(text);
  }

  // The same as a view into the reader, valid until the next read.
  bool nextElementView(int waitMs, std::string_view &text) {
    // The clock only once the buffered elements are used up: a busy bus
    // delivers many per read.
    std::optional<Clock::time_point> deadline;
    bool timed = false;
    ElementReader::Kind kind;
    for (;;) {
      while (reader.nextView(kind, text)) {
        if (kind == ElementReader::Kind::Broken)
          throw ToolError{name + " sent " + std::string(text)};
        if (kind == ElementReader::Kind::Element)
          return true;
      }
      if (!timed && waitMs >= 0)
        deadline = Clock::now() + std::chrono::milliseconds(waitMs);
      timed = true;
      if (!readSome(deadline))
        return false;
    }
  }

  // Waits for one answer starting with `want`, and returns its words; an
  // error reply or none in time throws.
  std::vector<std::string> expect(const std::string &want, const std::string &request,
                                  int waitMs = kAnswerWaitMs) {
    std::optional<std::string> got = nextElement(waitMs);
    if (!got)
      throw ToolError{name + " did not answer " + request};
    const std::vector<std::string_view> words = splitWords(*got);
    if (!words.empty() && words[0] == want)
      return {words.begin(), words.end()};
    std::string said;
    for (std::string_view w : words)
      said += (said.empty() ? "" : " ") + std::string(w);
    throw ToolError{name + " answered " + request + " with '" + said + "'"};
  }

  void write(const std::string &text) {
    boost::system::error_code ec;
    boost::asio::write(socket, boost::asio::buffer(text), ec);
    if (ec)
      throw ToolError{"lost the connection to " + name + ": " + ec.message()};
  }

  // Keeps the reason of an error reply.
  void keepIfError(std::string_view text) {
    const std::vector<std::string_view> words = splitWords(text);
    if (words.empty() || words[0] != "error")
      return;
    std::string reason;
    for (size_t i = 1; i < words.size(); ++i)
      reason += (i > 1 ? " " : "") + std::string(words[i]);
    errors.push_back(reason);
  }
};

Client::Client(const ServerAddress &server, const std::string &bus)
    : c_(std::make_unique<Connection>()) {
  c_->name = bus + " at " + addressText(server);
  c_->connect(server, std::nullopt);
  c_->expect("hi", "the connection");
  c_->write(element("open " + bus));
  expectOnly(c_->expect("ok", "'open " + bus + "'"));
}

Client::~Client() = default;

std::string Client::describe() const { return c_->name; }

void Client::rawMode() {
  c_->write(element("rawmode"));
  expectOnly(c_->expect("ok", "'rawmode'"));
}

void Client::watchStatistics(unsigned intervalMs) {
  c_->write(element("controlmode"));
  c_->expect("ok", "'controlmode'");
  c_->write(element("statistics " + std::to_string(intervalMs)));
}

std::optional<Client::Statistics> Client::latestStatistics() {
  std::optional<Statistics> latest;
  for (std::optional<std::string> text = c_->nextElement(0); text; text = c_->nextElement(0)) {
    const std::vector<std::string_view> w = splitWords(*text);
    Statistics s{};
    if (w.size() == 6 && w[0] == "stat" &&
        std::sscanf(std::string(*text).c_str(),
                    " stat %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64 " %" SCNu64, &s.rxBytes,
                    &s.rxFrames, &s.txBytes, &s.txFrames, &s.missed) == 5)
      latest = s;
    else
      c_->keepIfError(*text);
  }
  return latest;
}

std::optional<ReceivedFrame> Client::nextFrame(int waitMs) {
  std::optional<Clock::time_point> deadline; // from the first element that is no frame
  for (int wait = waitMs;;) {
    std::string_view text;
    if (!c_->nextElementView(wait, text))
      return std::nullopt;
    ReceivedFrame rx;
    if (parseFrameElement(text, rx.frame, rx.time))
      return rx;
    c_->keepIfError(text);
    if (!deadline)
      deadline = Clock::now() + std::chrono::milliseconds(waitMs);
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(*deadline - Clock::now());
    wait = std::max<int>(0, static_cast<int>(left.count()));
  }
}

void Client::send(const std::vector<Frame> &frames) {
  std::string text;
  for (const Frame &f : frames)
    text += sendRequest(f);
  c_->write(text);
}

std::vector<std::string> Client::takeErrors() {
  boost::system::error_code ec;
  while (c_->socket.available(ec) > 0 && !ec) {
    const size_t n = c_->socket.read_some(boost::asio::buffer(c_->buffer), ec);
    c_->reader.feed(c_->buffer.data(), ec ? 0 : n);
  }
  ElementReader::Item item;
  while (c_->reader.next(item))
    if (item.kind == ElementReader::Kind::Element)
      c_->keepIfError(item.text);
  return std::move(c_->errors);
}

std::vector<std::string> serverBuses(const ServerAddress &server, int waitMs) {
  const auto deadline = Clock::now() + std::chrono::milliseconds(waitMs);
  const auto msLeft = [&] {
    return std::max<int>(0, static_cast<int>(std::chrono::duration_cast<std::chrono::milliseconds>(
                                                 deadline - Clock::now())
                                                 .count()));
  };
  Client::Connection c;
  c.name = addressText(server);
  c.connect(server, deadline);
  c.expect("hi", "the connection", msLeft());
  c.write(element("buses"));
  std::vector<std::string> words = c.expect("buses", "'buses'", msLeft());
  words.erase(words.begin());
  return words;
}

std::vector<std::string> Client::sync() {
  c_->write(element("echo"));
  for (;;) {
    std::optional<std::string> text = c_->nextElement(kAnswerWaitMs);
    if (!text)
      throw ToolError{c_->name + " did not answer 'echo'"};
    if (splitWords(*text) == std::vector<std::string_view>{"echo"})
      break;
    c_->keepIfError(*text);
  }
  return std::move(c_->errors);
}

} // namespace wcantool::net
