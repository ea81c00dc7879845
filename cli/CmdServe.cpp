// SPDX-License-Identifier: MIT
// serve: the adapters' channels as buses of a CAN-over-TCP server.
#include <cstdio>
#include <cstdlib>

#include "cli/Commands.h"
#include "common/Adapters.h"
#include "server/Server.h"

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

bool isLoopback(const std::string &address) {
  asio::error_code ec;
  const asio::ip::address a = asio::ip::make_address(address, ec);
  return !ec && a.is_loopback();
}

} // namespace

int runServe(Context &ctx, const Args &args) {
  const serve::ServeOptions options = parseServeOptions(args);
  Runtime &runtime = ctx.runtime();
  serve::Server server(runtime, options);
  std::fprintf(stderr, "wcan serve: listening on %s\n", server.endpoint().c_str());
  std::fprintf(stderr, "wcan serve: buses %s (wcan<TYPE>-<INDEX>-<CHANNEL>)\n",
               attachedBusNames(runtime).c_str());
  if (!isLoopback(options.bindAddress))
    std::fprintf(stderr,
                 "wcan serve: the protocol has no authentication: whoever reaches %s "
                 "can use every bus\n",
                 server.endpoint().c_str());
  server.run(true);
  return kExitOk;
}

} // namespace wcantool
