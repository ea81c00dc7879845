// SPDX-License-Identifier: MIT
// busload: one line per channel and interval with the bus's load, as
// canbusload prints it.
#include <algorithm>
#include <chrono>
#include <cmath>
#include <cstdio>
#include <string>

#include "cli/Commands.h"
#include "cli/LiveFeed.h"

namespace wcantool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kBarWidth = 25; // 4 % a character

struct BusloadOptions {
  double interval = 1.0;
  unsigned long long count = 0; // intervals; 0 until Ctrl-C
  bool bars = false;
  bool stats = false;
};

BusloadOptions parseBusloadOptions(const Args &args) {
  BusloadOptions o;
  if (auto v = args.value("-i"))
    o.interval = parseSeconds(*v, "-i");
  if (auto v = args.value("--count"))
    o.count = parseNumber(*v, "--count", 1, ~0ull);
  o.bars = args.flag("-b");
  o.stats = args.flag("-s");
  return o;
}

std::string bar(double percent) {
  const int filled =
      std::clamp(static_cast<int>(std::lround(percent * kBarWidth / 100)), 0, kBarWidth);
  // The tool only listens: every frame it counts was received.
  return " |" + std::string(filled, 'R') + std::string(kBarWidth - filled, '.') + "|";
}

std::string loadLine(const LiveChannel &ch, const ChannelLoad &load, size_t nameWidth,
                     const BusloadOptions &o) {
  const LoadInterval &l = load.last();
  const std::string name = ch.name + "@" + formatRates(ch.rates);
  char buf[256];
  std::snprintf(buf, sizeof buf, " %-*s %8llu %9llu %9llu %9llu %3.0f%%",
                static_cast<int>(nameWidth), name.c_str(),
                static_cast<unsigned long long>(l.frames), static_cast<unsigned long long>(l.bits),
                static_cast<unsigned long long>(l.payloadBits),
                static_cast<unsigned long long>(l.dataPhaseBits), l.percent());
  std::string line = buf;
  if (o.bars)
    line += bar(l.percent());
  if (o.stats) {
    const double(&avg)[3] = load.averages();
    std::snprintf(buf, sizeof buf, "  min %3.0f%% max %3.0f%% avg %3.0f%% %3.0f%% %3.0f%%",
                  load.min(), load.max(), avg[0], avg[1], avg[2]);
    line += buf;
  }
  if (ch.link == LinkState::Recovering)
    line += "  (adapter lost, recovering)";
  return line + "\n";
}

} // namespace

int runBusload(Context &ctx, const Args &args) {
  const BusloadOptions o = parseBusloadOptions(args);
  std::unique_ptr<LiveFeed> feed = openLiveFeed(ctx, args);
  std::vector<ChannelLoad> loads;
  size_t nameWidth = 0;
  for (const LiveChannel &ch : feed->channels()) {
    loads.emplace_back(ch.rates);
    nameWidth = std::max(nameWidth, ch.name.size() + 1 + formatRates(ch.rates).size());
  }
  const auto period =
      std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(o.interval));
  auto intervalStart = Clock::now();
  std::vector<LiveFrame> frames;
  for (unsigned long long done = 0; !stopRequested() && (o.count == 0 || done < o.count);) {
    frames.clear();
    feed->poll(frames, 50);
    for (const LiveFrame &f : frames)
      loads[f.channel].add(f.frame);
    const auto now = Clock::now();
    if (now - intervalStart < period)
      continue;
    const double seconds = std::chrono::duration<double>(now - intervalStart).count();
    intervalStart = now;
    feed->checkLink();
    std::string text;
    for (size_t i = 0; i < loads.size(); ++i) {
      loads[i].close(seconds);
      text += loadLine(feed->channels()[i], loads[i], nameWidth, o);
    }
    if (loads.size() > 1)
      text += "\n";
    std::fputs(text.c_str(), out());
    std::fflush(out());
    if (std::ferror(out()))
      return kExitOk; // the reader went away
    ++done;
  }
  return kExitOk;
}

} // namespace wcantool
