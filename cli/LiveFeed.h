// SPDX-License-Identifier: MIT
// The frames of several channels for the live views (`wcan busload`,
// `wcan top`): the channels of one local adapter, or buses of a server, each
// frame with its channel and a time stamp in epoch microseconds.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "cli/Commands.h"
#include "common/BusStats.h"

namespace wcantool {

enum class LinkState { Up, Recovering };

struct LiveChannel {
  std::string name; // wcan41-0-1
  BusRates rates;
  LinkState link = LinkState::Up;
  // Frames known lost on the way to the tool; empty where nothing can tell
  // (the library's queues report no overruns).
  std::optional<uint64_t> lost;
};

struct LiveFrame {
  unsigned channel; // index into channels()
  Frame frame;
  int64_t timeUs;
};

class LiveFeed {
public:
  virtual ~LiveFeed() = default;
  // Appends what arrived, waiting up to waitMs when nothing did.
  virtual void poll(std::vector<LiveFrame> &out, int waitMs) = 0;
  // Looks again at the adapter's link; cheap enough for once a second.
  virtual void checkLink() {}
  const std::vector<LiveChannel> &channels() const { return channels_; }

protected:
  std::vector<LiveChannel> channels_;
};

// TYPE INDEX [CHANNEL...] (every channel of the adapter when none is named),
// or --connect HOST[:PORT] BUS...; --bitrate, --dbitrate, --fd and
// --listen-only set local channels up and give a server's buses their rates.
// Throws UsageError for bad arguments, ToolError when the adapter or the
// server refuses.
std::unique_ptr<LiveFeed> openLiveFeed(Context &ctx, const Args &args);

// The options openLiveFeed reads, for a command's option list.
std::vector<OptionSpec> liveFeedOptions();

} // namespace wcantool
