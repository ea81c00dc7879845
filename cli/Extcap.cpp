// SPDX-License-Identifier: MIT
// wcan-extcap: live capture from Wireshark. Wireshark runs every program in
// its extcap folder to ask for interfaces, their link types and options, and
// starts one with --capture to stream pcapng into a named pipe. Installed as
// a link to `wcan`, the program loads the library at run time like the tool.
#include <cstdio>
#include <cstdlib>
#include <optional>
#include <string>
#include <vector>

#include "cli/Capture.h"
#include "cli/Commands.h"
#include "common/Adapters.h"
#include "net/Client.h"
#include "net/Protocol.h"

namespace wcantool {
namespace {

const std::vector<OptionSpec> kExtcapOptions = {
    {"--extcap-interfaces", false},
    {"--extcap-version", true},
    {"--extcap-interface", true},
    {"--extcap-dlts", false},
    {"--extcap-config", false},
    {"--extcap-capture-filter", true},
    {"--extcap-control-in", true},
    {"--extcap-control-out", true},
    {"--extcap-reload-option", true},
    {"--capture", false},
    {"--fifo", true},
    {"--debug", false},
    {"--debug-file", true},
    {"--bitrate", true},
    {"--dbitrate", true},
    {"--fd", false},
    {"--listen-only", false},
    {"--server", true},
};

struct ChannelName {
  unsigned type = 0;
  unsigned index = 0;
  unsigned channel = 0;
};

// "wcan41-0-1": the bus names of the tool and the server.
ChannelName parseChannelName(const std::string &name) {
  ChannelName c;
  char tail = 0;
  if (std::sscanf(name.c_str(), "wcan%u-%u-%u%c", &c.type, &c.index, &c.channel, &tail) != 3 ||
      interfaceName(c.type, c.index, c.channel) != name)
    throw UsageError{"unknown interface '" + name + "'"};
  return c;
}

// Wireshark waits for the listing before it shows anything.
constexpr int kServerAnswerMs = 1000;

// A server bus is listed as "BUS@HOST:PORT".
struct ServerBus {
  std::string bus;
  net::ServerAddress server;
};

std::optional<ServerBus> parseServerBus(const std::string &interface) {
  const size_t at = interface.find('@');
  if (at == std::string::npos)
    return std::nullopt;
  return ServerBus{interface.substr(0, at),
                   net::parseServerAddress(interface.substr(at + 1), net::kDefaultPort)};
}

// Wireshark lists interfaces without the capture options: the server comes
// from --server next to --extcap-interfaces (for wrapper scripts) or from
// the user's session.
std::optional<std::string> listedServer(const Args &args) {
  if (auto server = args.value("--server"); server && !server->empty())
    return server;
  if (const char *env = std::getenv("WCAN_EXTCAP_SERVER"); env && *env)
    return std::string(env);
  return std::nullopt;
}

void printServerInterfaces(const std::string &text) {
  try {
    const net::ServerAddress server = net::parseServerAddress(text, net::kDefaultPort);
    const std::string where = net::addressText(server);
    for (const std::string &bus : net::serverBuses(server, kServerAnswerMs))
      std::printf("interface {value=%s@%s}{display=wcan server %s bus %s}\n", bus.c_str(),
                  where.c_str(), where.c_str(), bus.c_str());
  } catch (const UsageError &e) {
    std::fprintf(stderr, "wcan-extcap: server skipped: %s\n", e.message.c_str());
  } catch (const ToolError &e) {
    std::fprintf(stderr, "wcan-extcap: server skipped: %s\n", e.message.c_str());
  }
}

void printInterfaces(Context &ctx, const Args &args) {
  std::printf("extcap {version=%s}{display=wcan USB-to-CAN adapters}\n", WCAN_VERSION);
  std::vector<AttachedAdapter> adapters;
  try {
    adapters = attachedAdapters(ctx.runtime());
  } catch (const LoadError &e) {
    std::fprintf(stderr, "wcan-extcap: %s\n", e.message.c_str());
  } catch (const ToolError &e) {
    std::fprintf(stderr, "wcan-extcap: %s\n", e.message.c_str());
  }
  for (const AttachedAdapter &a : adapters) {
    const DeviceType &type = *a.type;
    if (type.family == Family::Recorder)
      continue; // records by itself, carries no traffic for the host
    for (unsigned ch = 0; ch < type.channels; ++ch)
      std::printf("interface {value=%s}{display=wcan %s %u/%u channel %u}\n",
                  interfaceName(type.type, a.index, ch).c_str(), familyName(type.family), type.type,
                  a.index, ch);
  }
  if (std::optional<std::string> server = listedServer(args))
    printServerInterfaces(*server);
}

void printDlts() {
  std::printf("dlt {number=%u}{name=CAN_SOCKETCAN}{display=CAN and CAN FD (SocketCAN)}\n",
              capture::kLinkTypeSocketCan);
}

void printRateSelector(unsigned number, const char *call, const char *display,
                       const std::vector<unsigned> &rates, unsigned preset) {
  std::printf("arg {number=%u}{call=%s}{display=%s}{type=selector}\n", number, call, display);
  for (unsigned r : rates)
    std::printf("value {arg=%u}{value=%u}{display=%s}{default=%s}\n", number, r,
                bitRateText(r).c_str(), r == preset ? "true" : "false");
}

void printConfig(const std::string &interface) {
  if (parseServerBus(interface))
    return; // the server chose the bus's settings
  const ChannelName name = parseChannelName(interface);
  const DeviceType &type = checkedDeviceType(name.type);
  const ChannelSettings preset;
  unsigned number = 0;
  printRateSelector(number++, "--bitrate", "Bit rate", availableBitRates(type.family, false),
                    preset.bitRate);
  if (type.family == Family::CanFd) {
    printRateSelector(number++, "--dbitrate", "CAN FD data bit rate",
                      availableBitRates(type.family, true), preset.dataBitRate);
    std::printf("arg {number=%u}{call=--fd}{display=CAN FD}{tooltip=Open the channel for CAN FD "
                "frames}{type=boolflag}{default=false}\n",
                number++);
  }
  std::printf("arg {number=%u}{call=--listen-only}{display=Listen only}{tooltip=Receive without "
              "acknowledging frames}{type=boolflag}{default=false}\n",
              number++);
  std::printf("arg {number=%u}{call=--server}{display=Server}{tooltip=HOST[:PORT] of a running "
              "'wcan serve' to capture this bus from instead of a local adapter}{type=string}\n",
              number++);
}

int capture(Context &ctx, const Args &args, const std::string &interface) {
  const std::optional<std::string> fifo = args.value("--fifo");
  if (!fifo)
    throw UsageError{"--capture needs --fifo PATH"};
  // Frames are not filtered: Wireshark's display filter does that.
  std::unique_ptr<CaptureSource> source;
  if (std::optional<ServerBus> remote = parseServerBus(interface)) {
    source = std::make_unique<RemoteCapture>(remote->server, std::vector<std::string>{remote->bus});
  } else if (auto server = args.value("--server"); server && !server->empty()) {
    source = std::make_unique<RemoteCapture>(net::parseServerAddress(*server, net::kDefaultPort),
                                             std::vector<std::string>{interface});
  } else {
    const ChannelName name = parseChannelName(interface);
    const ChannelSettings settings = parseSettings(args);
    checkChannelUse(checkedDeviceType(name.type), name.channel, settings);
    source = std::make_unique<LocalCapture>(ctx.runtime(), name.type, name.index,
                                            std::vector<unsigned>{name.channel}, settings);
  }
  try {
    PcapngSink sink({*fifo}, source->interfaces());
    return runCapture(*source, sink, {}, "extcap");
  } catch (const CaptureWriteError &e) {
    if (e.pipeClosed)
      return kExitOk; // Wireshark stopped reading: the capture is over
    throw ToolError{e.message};
  }
}

int dispatch(Context &ctx, const Args &args) {
  if (args.flag("--extcap-interfaces")) {
    printInterfaces(ctx, args);
    return kExitOk;
  }
  const std::string interface = args.value("--extcap-interface").value_or("");
  if (interface.empty()) {
    if (args.flag("--extcap-version")) {
      std::printf("wcan-extcap %s\n", WCAN_VERSION);
      return kExitOk;
    }
    throw UsageError{"expected --extcap-interfaces, or --extcap-interface NAME with "
                     "--extcap-dlts, --extcap-config or --capture"};
  }
  if (args.flag("--extcap-dlts")) {
    printDlts();
    return kExitOk;
  }
  if (args.flag("--extcap-config")) {
    printConfig(interface);
    return kExitOk;
  }
  if (args.flag("--capture"))
    return capture(ctx, args, interface);
  throw UsageError{"nothing to do for interface " + interface};
}

} // namespace

int runExtcap(std::vector<std::string> argv) {
  // A bare --extcap-version asks for the program's version.
  for (std::string &a : argv)
    if (a == "--extcap-version")
      a = "--extcap-version=";
  separateLibraryLog(Verbosity::Normal);
  std::optional<std::string> sim;
  if (const char *env = std::getenv("WCAN_SIM"))
    sim = std::string(env);
  Context ctx(sim);
  try {
    Args args(argv, kExtcapOptions);
    installStopHandler();
    return dispatch(ctx, args);
  } catch (const UsageError &e) {
    std::fprintf(stderr, "wcan-extcap: %s\n", e.message.c_str());
    return kExitUsage;
  } catch (const ToolError &e) {
    std::fprintf(stderr, "wcan-extcap: %s\n", e.message.c_str());
    return kExitFailure;
  } catch (const LoadError &e) {
    std::fprintf(stderr, "wcan-extcap: %s\n", e.message.c_str());
    return kExitFailure;
  }
}

} // namespace wcantool
