// SPDX-License-Identifier: MIT
// serve: the adapters' channels as buses of a CAN-over-TCP server.
#include <cstdio>
#include <cstdlib>
#include <map>
#include <sstream>

#include "cli/Commands.h"
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

// The buses of the simulated adapters: an adapter's index counts the earlier
// ones with the same USB ids, as the library numbers them.
std::string simulatedBuses(const std::string &spec) {
  std::map<std::pair<uint16_t, uint16_t>, unsigned> seen;
  std::string names;
  std::stringstream list(spec);
  std::string item;
  while (std::getline(list, item, ',')) {
    const DeviceType *type = findDeviceType(static_cast<unsigned>(std::atoi(item.c_str())));
    if (!type)
      continue;
    const unsigned index = seen[{type->vendorId, type->productId}]++;
    if (type->family == Family::Recorder)
      continue;
    for (unsigned ch = 0; ch < type->channels; ++ch)
      names += " " + interfaceName(type->type, index, ch);
  }
  return names;
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
  const char *sim = std::getenv("WCAN_SIM");
  if (runtime.simulated() && sim)
    std::fprintf(stderr, "wcan serve: buses%s\n", simulatedBuses(sim).c_str());
  else
    std::fprintf(stderr, "wcan serve: buses are named wcan<TYPE>-<INDEX>-<CHANNEL>; "
                         "'wcan list' shows the adapters\n");
  if (!isLoopback(options.bindAddress))
    std::fprintf(stderr,
                 "wcan serve: the protocol has no authentication: whoever reaches %s "
                 "can use every bus\n",
                 server.endpoint().c_str());
  server.run(true);
  return kExitOk;
}

} // namespace wcantool
