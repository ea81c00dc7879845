// SPDX-License-Identifier: MIT
// serve: the adapters' channels as buses of a CAN-over-TCP server.
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>

#include "cli/Commands.h"
#include "common/Adapters.h"
#include "server/Server.h"
#include "web/Monitor.h"
#include "web/ServerBuses.h"
#include "web/WebServer.h"

namespace wcantool {
namespace {

serve::ServeOptions parseServeOptions(const Args &args) {
  args.expectPositionals(0, 0);
  serve::ServeOptions o;
  o.bindAddress = args.value("--bind").value_or(o.bindAddress);
  if (auto v = args.value("--port"))
    o.port = parseUnsigned(*v, "--port", 0, 65535);
  if (auto v = args.value("--bitrate"))
    o.settings.bitRate = parseUnsigned(*v, "--bitrate", 1, 100000000);
  if (auto v = args.value("--dbitrate"))
    o.settings.dataBitRate = parseUnsigned(*v, "--dbitrate", 1, 100000000);
  o.settings.fd = args.flag("--fd");
  if (auto v = args.value("--client-buffer"))
    o.clientBuffer = parseUnsigned(*v, "--client-buffer", 4096, 1u << 30);
  serve::checkServeSettings(o.settings);
  return o;
}

// "8080", "0.0.0.0:8080" or "[::1]:8080".
std::optional<web::WebOptions> parseWebOption(const Args &args) {
  const std::optional<std::string> v = args.value("--web");
  if (!v)
    return std::nullopt;
  web::WebOptions o;
  std::string port = *v;
  const size_t colon = v->rfind(':');
  if (colon != std::string::npos) {
    std::string address = v->substr(0, colon);
    if (address.size() >= 2 && address.front() == '[' && address.back() == ']')
      address = address.substr(1, address.size() - 2);
    o.address = address;
    port = v->substr(colon + 1);
  }
  o.port = parseUnsigned(port, "--web port", 0, 65535);
  return o;
}

bool isLoopback(const std::string &address) {
  boost::system::error_code ec;
  const boost::asio::ip::address a = boost::asio::ip::make_address(address, ec);
  return !ec && a.is_loopback();
}

} // namespace

int runServe(Context &ctx, const Args &args) {
  const serve::ServeOptions options = parseServeOptions(args);
  const std::optional<web::WebOptions> webOptions = parseWebOption(args);
  Runtime &runtime = ctx.runtime();
  serve::Server server(runtime, options);
  // The monitor shares the server's event loop; it ends with the server.
  std::unique_ptr<web::ServerBuses> buses;
  std::unique_ptr<web::Monitor> monitor;
  std::unique_ptr<web::WebServer> webServer;
  if (webOptions) {
    buses = std::make_unique<web::ServerBuses>(server, attachedBuses(runtime));
    monitor = std::make_unique<web::Monitor>(server.io(), *buses);
    try {
      webServer = std::make_unique<web::WebServer>(server.io(), *monitor, *webOptions);
    } catch (const std::runtime_error &e) {
      throw ToolError{e.what()};
    }
    monitor->start();
    webServer->start();
    server.onShutdown([&] {
      webServer->stop();
      monitor->stop();
    });
  }
  std::fprintf(stderr, "wcan serve: listening on %s\n", server.endpoint().c_str());
  std::fprintf(stderr, "wcan serve: buses %s (wcan<TYPE>-<INDEX>-<CHANNEL>)\n",
               attachedBusNames(runtime).c_str());
  if (!isLoopback(options.bindAddress))
    std::fprintf(stderr,
                 "wcan serve: the protocol has no authentication: whoever reaches %s "
                 "can use every bus\n",
                 server.endpoint().c_str());
  if (webServer) {
    std::fprintf(stderr, "wcan serve: bus monitor at %s\n", webServer->url().c_str());
    if (!isLoopback(webOptions->address))
      std::fprintf(stderr, "wcan serve: the monitor listens beyond this machine: its token is the "
                           "only protection\n");
  }
  server.run(true);
  return kExitOk;
}

} // namespace wcantool
