// SPDX-License-Identifier: MIT
// The browser monitor's HTTP and WebSocket server, on the event loop the
// socketcand-style server runs on. It serves the page (embedded in the
// program) and the chart library (where the system installed it), takes
// DBC uploads and hands each page's WebSocket to the monitor.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>

#include <memory>
#include <string>
#include <vector>

#include "web/Access.h"
#include "web/Monitor.h"

namespace wcantool::web {

struct WebOptions {
  std::string address = "127.0.0.1";
  unsigned port = 8080; // 0: any free port
  size_t uploadLimit = 4u << 20;
  std::string chartLibraryDir = WCAN_DYGRAPHS_DIR;
  std::string token; // empty: a random one
};

class WebServer {
public:
  // Binds the listening socket; throws std::runtime_error with the reason.
  WebServer(boost::asio::io_context &io, Monitor &monitor, const WebOptions &options);
  ~WebServer();
  WebServer(const WebServer &) = delete;
  WebServer &operator=(const WebServer &) = delete;

  unsigned port() const { return port_; }
  // The address to open, token included.
  std::string url() const;

  void start();
  // Closes the listener and every connection.
  void stop();

  class Connection;

private:
  void accept();

  Monitor &monitor_;
  WebOptions options_;
  boost::asio::ip::tcp::acceptor acceptor_;
  unsigned port_ = 0;
  std::unique_ptr<AccessPolicy> policy_;
  std::vector<std::weak_ptr<Connection>> connections_;
  bool stopped_ = false;
};

} // namespace wcantool::web
