// SPDX-License-Identifier: MIT
// Argument helpers shared by the subcommands that carry traffic: dump, send,
// gen, the capture paths of dump, play and the Wireshark capture program.
#pragma once

#include <chrono>
#include <cstdio>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/Args.h"
#include "common/Device.h"
#include "net/Client.h"

namespace wcantool {

// --bitrate, --dbitrate, --fd, --listen-only.
ChannelSettings parseSettings(const Args &args);

// --tx CHANNEL:FRAME, a frame sent once the channels run.
struct TxRequest {
  unsigned channel;
  Frame frame;
};
TxRequest parseTxArg(const std::string &text);
// Starts the --tx channels not among `started` like them and sends the frames.
void sendLoopbackFrames(DeviceSession &device, std::vector<unsigned> started,
                        const std::vector<TxRequest> &requests, ChannelSettings settings);

// --connect HOST[:PORT] and the bus named first.
struct RemoteBus {
  net::ServerAddress server;
  std::string bus;
};
std::optional<RemoteBus> remoteBus(const Args &args);
// Throws UsageError for options that only set up a local adapter.
void rejectLocalOptions(const Args &args, std::initializer_list<const char *> names);

// --count and --timeout of dump.
struct DumpLimits {
  unsigned long long count = 0;
  long timeoutMs = 0;
};
DumpLimits parseDumpLimits(const Args &args);

struct FileCloser {
  void operator()(FILE *f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;
// The --log file, or null; throws ToolError.
FilePtr openLog(const std::optional<std::string> &path);

long msSince(std::chrono::steady_clock::time_point t);

// Appends what the server sent, as the local dump would show it: the
// server's time stamps in place of the host's; waits up to waitMs for the
// first frame.
void receiveRemote(net::Client &client, std::vector<RxFrame> &batch, int waitMs);

} // namespace wcantool
