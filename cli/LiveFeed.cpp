// SPDX-License-Identifier: MIT
#include "cli/LiveFeed.h"

#include <algorithm>
#include <chrono>
#include <thread>

#include "cli/Traffic.h"
#include "common/Adapters.h"
#include "common/Device.h"
#include "common/DeviceClock.h"
#include "net/Client.h"
#include "net/Protocol.h"

namespace wcantool {
namespace {

using Clock = std::chrono::steady_clock;

// One round of reading every channel at most this often: a busy bus then
// costs one library call per channel and round, however many frames it
// carries.
constexpr auto kRound = std::chrono::milliseconds(10);
constexpr size_t kFullBatch = 256;

void sleepRest(Clock::time_point roundStart, int waitMs) {
  const auto until =
      std::min(roundStart + kRound, Clock::now() + std::chrono::milliseconds(waitMs));
  std::this_thread::sleep_until(until);
}

class LocalFeed : public LiveFeed {
public:
  LocalFeed(Context &ctx, const DeviceType &type, unsigned index,
            const std::vector<unsigned> &numbers, const ChannelSettings &settings)
      : runtime_(ctx.runtime()), device_(runtime_, type.type, index), numbers_(numbers) {
    const BusRates rates{settings.bitRate, settings.fd ? settings.dataBitRate : 0};
    for (unsigned ch : numbers_) {
      device_.startChannel(ch, settings);
      channels_.push_back({interfaceName(type.type, index, ch), rates, LinkState::Up, {}});
    }
    if (runtime_.usb().complete())
      usb_ = std::make_unique<UsbContext>(runtime_.usb());
  }

  void poll(std::vector<LiveFrame> &out, int waitMs) override {
    const auto start = Clock::now();
    bool full = false;
    for (size_t i = 0; i < numbers_.size(); ++i) {
      batch_.clear();
      full = device_.receive(numbers_[i], batch_, 0) >= kFullBatch || full;
      for (const RxFrame &rx : batch_)
        out.push_back({static_cast<unsigned>(i), rx.frame, rx.epochUs});
    }
    if (!full)
      sleepRest(start, waitMs);
  }

  void checkLink() override {
    if (!usb_)
      return;
    const bool attached =
        adapterAttached(runtime_.usb(), usb_->ctx, device_.type(), device_.index());
    const LinkState now = attached ? LinkState::Up : LinkState::Recovering;
    for (size_t i = 0; i < channels_.size(); ++i) {
      // A returning adapter restarted its counter.
      if (channels_[i].link == LinkState::Recovering && now == LinkState::Up)
        device_.restartClock(numbers_[i]);
      channels_[i].link = now;
    }
  }

private:
  Runtime &runtime_;
  DeviceSession device_;
  std::vector<unsigned> numbers_;
  std::unique_ptr<UsbContext> usb_;
  std::vector<RxFrame> batch_;
};

// Frames lost between a server and the tool, from the bus's counters that a
// control-mode connection reports: every frame the bus received, and every
// frame another client sent on it, comes to a raw-mode client. A frame the
// server had counted a report earlier and the tool still lacks is taken as
// lost. (The counters' own count of missed frames is the control
// connection's, which receives no frames.)
class LossEstimate {
public:
  // A report of the counters arrived, with what the tool received so far.
  void report(const net::Client::Statistics &s, uint64_t received) {
    const uint64_t seen = s.rxFrames + s.txFrames;
    if (!base_) {
      base_ = std::make_pair(seen, received);
    } else if (previous_) {
      const uint64_t due = *previous_ - base_->first;
      const uint64_t got = received - base_->second;
      lost_ = std::max(lost_, due > got ? due - got : 0);
    }
    previous_ = seen;
  }
  // Nothing until the first report.
  std::optional<uint64_t> lost() const {
    return base_ ? std::optional<uint64_t>(lost_) : std::nullopt;
  }

private:
  std::optional<std::pair<uint64_t, uint64_t>> base_; // counters, received
  std::optional<uint64_t> previous_;
  uint64_t lost_ = 0;
};

class RemoteFeed : public LiveFeed {
public:
  RemoteFeed(const net::ServerAddress &server, const std::vector<std::string> &buses,
             BusRates rates) {
    for (const std::string &bus : buses) {
      clients_.push_back(std::make_unique<net::Client>(server, bus));
      clients_.back()->rawMode();
      counters_.push_back(std::make_unique<net::Client>(server, bus));
      counters_.back()->watchStatistics(kStatisticsMs);
      channels_.push_back({bus, rates, LinkState::Up, {}});
    }
    received_.resize(buses.size());
    losses_.resize(buses.size());
  }

  void checkLink() override {
    for (size_t i = 0; i < counters_.size(); ++i) {
      if (const auto s = counters_[i]->latestStatistics())
        losses_[i].report(*s, received_[i]);
      channels_[i].lost = losses_[i].lost();
    }
  }

  void poll(std::vector<LiveFrame> &out, int waitMs) override {
    const auto start = Clock::now();
    bool full = false;
    for (size_t i = 0; i < clients_.size(); ++i) {
      // One server: wait on its only connection instead of sleeping.
      const size_t got = receive(i, out, clients_.size() == 1 ? waitMs : 0);
      received_[i] += got;
      full = got >= kFullBatch || full;
    }
    if (!full && clients_.size() > 1)
      sleepRest(start, waitMs);
  }

private:
  // Up to a full batch of bus i's frames straight into `out`, with the
  // server's time stamps.
  size_t receive(size_t i, std::vector<LiveFrame> &out, int waitMs) {
    size_t got = 0;
    for (std::optional<net::ReceivedFrame> rx = clients_[i]->nextFrame(waitMs); rx;
         rx = got < kFullBatch ? clients_[i]->nextFrame(0) : std::nullopt) {
      out.push_back({static_cast<unsigned>(i), rx->frame, epochUsOf(rx->time)});
      ++got;
    }
    return got;
  }

  static constexpr unsigned kStatisticsMs = 1000;
  std::vector<std::unique_ptr<net::Client>> clients_;
  std::vector<std::unique_ptr<net::Client>> counters_; // control mode
  std::vector<uint64_t> received_;
  std::vector<LossEstimate> losses_;
};

std::vector<unsigned> channelNumbers(const Args &args, const DeviceType &type,
                                     const ChannelSettings &settings) {
  std::vector<unsigned> numbers;
  const auto &p = args.positionals();
  for (size_t i = 2; i < p.size(); ++i) {
    const unsigned ch = parseUnsigned(p[i], "CHANNEL", 0, 7);
    checkChannelUse(type, ch, settings);
    if (std::find(numbers.begin(), numbers.end(), ch) == numbers.end())
      numbers.push_back(ch);
  }
  if (!numbers.empty())
    return numbers;
  for (unsigned ch = 0; ch < type.channels; ++ch) {
    checkChannelUse(type, ch, settings);
    numbers.push_back(ch);
  }
  return numbers;
}

} // namespace

std::vector<OptionSpec> liveFeedOptions() {
  return {{"--bitrate", true},
          {"--dbitrate", true},
          {"--fd", false},
          {"--listen-only", false},
          {"--connect", true}};
}

std::unique_ptr<LiveFeed> openLiveFeed(Context &ctx, const Args &args) {
  const ChannelSettings settings = parseSettings(args);
  if (const std::optional<std::string> server = args.value("--connect")) {
    args.expectPositionals(1, 64);
    if (args.flag("--fd") || args.flag("--listen-only"))
      throw UsageError{"--fd and --listen-only set up a local adapter; with --connect the "
                       "server's settings apply"};
    // The server does not say its buses' rates: --bitrate and --dbitrate
    // tell them, as the server's own defaults do.
    return std::make_unique<RemoteFeed>(net::parseServerAddress(*server, net::kDefaultPort),
                                        args.positionals(),
                                        BusRates{settings.bitRate, settings.dataBitRate});
  }
  args.expectPositionals(2, 10);
  const DeviceType &type =
      checkedDeviceType(parseUnsigned(args.positionals()[0], "TYPE", 0, 0xFFFFFFFFu));
  const unsigned index = parseUnsigned(args.positionals()[1], "INDEX", 0, 255);
  const std::vector<unsigned> numbers = channelNumbers(args, type, settings);
  return std::make_unique<LocalFeed>(ctx, type, index, numbers, settings);
}

} // namespace wcantool
