// SPDX-License-Identifier: MIT
// demo: the whole path from host to bus and back on two simulated adapters.
#include <chrono>
#include <cstdio>

#include "cli/Commands.h"
#include "common/Device.h"

namespace wcantool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr unsigned kFdType = 41;
constexpr unsigned kClassicType = 4;
constexpr unsigned kTxChannel = 0;
constexpr unsigned kRxChannel = 1;
// Stop waiting for the rest of a burst after this long without a frame.
constexpr long kQuietMs = 1000;

Frame makeFrame(uint32_t id, bool extended, unsigned len, uint8_t seed) {
  Frame f;
  f.id = id;
  f.extended = extended;
  f.len = static_cast<uint8_t>(len);
  for (unsigned i = 0; i < len; ++i)
    f.data[i] = static_cast<uint8_t>(seed + i * 0x11);
  return f;
}

Frame makeRemote(uint32_t id, bool extended, unsigned len) {
  Frame f = makeFrame(id, extended, 0, 0);
  f.remote = true;
  f.len = static_cast<uint8_t>(len);
  return f;
}

// Standard, extended and remote classic frames of every length. The CAN FD
// adapter sends remote frames without a length (the library clears it).
std::vector<Frame> classicBurst(bool remoteLengths) {
  std::vector<Frame> frames;
  for (unsigned len = 0; len <= 8; ++len)
    frames.push_back(makeFrame(0x100 + len, false, len, static_cast<uint8_t>(len)));
  for (unsigned len = 0; len <= 8; len += 2)
    frames.push_back(makeFrame(0x18DA0000u + len, true, len, static_cast<uint8_t>(0xA0 + len)));
  frames.push_back(makeRemote(0x7FF, false, 0));
  frames.push_back(makeRemote(0x123, false, remoteLengths ? 4 : 0));
  frames.push_back(makeRemote(0x1FFFFFFF, true, remoteLengths ? 8 : 0));
  return frames;
}

// CAN FD frames of every length class, with and without bit-rate switch.
std::vector<Frame> fdBurst() {
  static const unsigned lengths[] = {0, 1, 8, 12, 16, 20, 24, 32, 48, 64};
  std::vector<Frame> frames;
  for (bool brs : {false, true}) {
    for (unsigned len : lengths) {
      Frame f = makeFrame((brs ? 0x300 : 0x200) + len, false, len, static_cast<uint8_t>(len));
      f.fd = true;
      f.brs = brs;
      frames.push_back(f);
    }
  }
  Frame ext = makeFrame(0x0ABCDEF0, true, 64, 0x40);
  ext.fd = true;
  ext.brs = true;
  frames.push_back(ext);
  return frames;
}

struct AdapterResult {
  std::string name;
  size_t sent = 0;
  size_t received = 0;
  size_t lost = 0;
  double seconds = 0;
};

// Frames sent that did not arrive, whatever the arrival order. They mostly
// arrive in the order sent, so each search starts after the last match.
size_t countLost(const std::vector<Frame> &sent, const std::vector<RxFrame> &received) {
  std::vector<bool> used(received.size(), false);
  size_t lost = 0;
  size_t next = 0;
  for (const Frame &f : sent) {
    bool found = false;
    for (size_t k = 0; k < received.size() && !found; ++k) {
      const size_t i = (next + k) % received.size();
      if (!used[i] && received[i].frame == f) {
        used[i] = true;
        next = i + 1;
        found = true;
      }
    }
    if (!found)
      ++lost;
  }
  return lost;
}

AdapterResult runAdapter(const Runtime &rt, unsigned type, const std::vector<Frame> &burst,
                         unsigned rounds, bool quiet) {
  DeviceSession device(rt, type, 0);
  _WCAN_BOARD_INFO info{};
  bool have = device.boardInfo(info);
  std::fprintf(out(), "== %s\n%s", device.name().c_str(),
               describeBoard(device, have ? &info : nullptr).c_str());

  ChannelSettings settings;
  settings.fd = device.type().family == Family::CanFd;
  device.startChannel(kTxChannel, settings);
  device.startChannel(kRxChannel, settings);
  std::fprintf(out(), "channels %u and %u started at %u bit/s%s\n\n", kTxChannel, kRxChannel,
               settings.bitRate, settings.fd ? ", CAN FD data phase 2000000 bit/s" : "");

  std::vector<Frame> sent;
  for (unsigned r = 0; r < rounds; ++r)
    sent.insert(sent.end(), burst.begin(), burst.end());
  AdapterResult result;
  result.name = device.name() + " " + (settings.fd ? "CAN FD" : "classic");
  auto start = Clock::now();
  result.sent = device.send(kTxChannel, sent);
  if (result.sent < sent.size())
    std::fprintf(stderr, "wcan demo: adapter %s accepted %zu of %zu frames: %s\n",
                 device.name().c_str(), result.sent, sent.size(), rt.lastError().c_str());
  std::vector<RxFrame> received;
  auto lastFrame = Clock::now();
  while (received.size() < result.sent && !stopRequested()) {
    if (device.receive(kRxChannel, received, 100) > 0)
      lastFrame = Clock::now();
    else if (Clock::now() - lastFrame > std::chrono::milliseconds(kQuietMs))
      break;
  }
  result.seconds = std::chrono::duration<double>(Clock::now() - start).count();
  const std::string ifname = interfaceName(type, 0, kRxChannel);
  if (!quiet) {
    for (const RxFrame &rx : received)
      std::fprintf(out(), "%s\n", formatLogLine(logTimeOf(rx.epochUs), ifname, rx.frame).c_str());
    std::fprintf(out(), "\n");
  }
  result.received = received.size();
  result.lost = countLost(sent, received);
  return result;
}

void printSummary(const std::vector<AdapterResult> &results) {
  std::fprintf(out(), "%-14s %6s %9s %5s %10s %10s\n", "adapter", "sent", "received", "lost",
               "frames/s", "wall time");
  for (const AdapterResult &r : results) {
    double rate = r.seconds > 0 ? static_cast<double>(r.received) / r.seconds : 0;
    std::fprintf(out(), "%-14s %6zu %9zu %5zu %10.0f %8.2f ms\n", r.name.c_str(), r.sent,
                 r.received, r.lost, rate, r.seconds * 1000);
  }
}

} // namespace

int runDemo(Context &ctx, const Args &args) {
  args.expectPositionals(0, 0);
  unsigned rounds = 1;
  if (auto v = args.value("--rounds"))
    rounds = parseUnsigned(*v, "--rounds", 1, 10000);
  bool quiet = args.flag("--quiet");

  Runtime &rt = ctx.emptySimulation();
  if (rt.sim().plugIn(kFdType) < 0 || rt.sim().plugIn(kClassicType) < 0)
    throw ToolError{"the simulation layer has no model for the demo adapters"};

  std::vector<Frame> fdAdapterBurst = classicBurst(false);
  for (const Frame &f : fdBurst())
    fdAdapterBurst.push_back(f);
  std::vector<AdapterResult> results;
  results.push_back(runAdapter(rt, kFdType, fdAdapterBurst, rounds, quiet));
  results.push_back(runAdapter(rt, kClassicType, classicBurst(true), rounds, quiet));
  printSummary(results);

  size_t lost = 0;
  for (const AdapterResult &r : results)
    lost += r.lost + (r.received > r.sent ? r.received - r.sent : 0);
  if (lost > 0) {
    std::fprintf(out(), "FAILED: %zu frame%s lost or unexpected\n", lost, lost == 1 ? "" : "s");
    return kExitFailure;
  }
  std::fprintf(out(), "all frames arrived\n");
  return kExitOk;
}

} // namespace wcantool
