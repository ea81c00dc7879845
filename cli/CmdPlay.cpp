// SPDX-License-Identifier: MIT
// play: sends the frames of a candump -L log or a pcapng capture again, with
// their original gaps, as canplayer does.
#include <algorithm>
#include <cstring>
#include <fstream>
#include <map>
#include <sstream>
#include <thread>

#include "capture/CandumpLog.h"
#include "capture/Pcapng.h"
#include "cli/Commands.h"
#include "cli/Traffic.h"
#include "common/Device.h"
#include "net/Client.h"

namespace wcantool {
namespace {

using Clock = std::chrono::steady_clock;

// Frames due together go to the library in one call.
constexpr size_t kMaxBatch = 256;
// Long gaps are slept in pieces so that Ctrl-C is noticed.
constexpr auto kLongestSleep = std::chrono::milliseconds(100);

struct PlayRecord {
  int64_t timeUs = 0;
  std::string_view bus;
  Frame frame;
};

enum class ReadStatus { Record, End, Bad, Fatal };

// The records of a file in file order; `problem` names the line or block.
class RecordSource {
public:
  virtual ~RecordSource() = default;
  virtual ReadStatus next(PlayRecord &record, std::string &problem) = 0;
};

class LogSource : public RecordSource {
public:
  explicit LogSource(std::string_view text) : text_(text) {}

  ReadStatus next(PlayRecord &record, std::string &problem) override {
    while (at_ < text_.size()) {
      const size_t end = std::min(text_.find('\n', at_), text_.size());
      const std::string_view line = text_.substr(at_, end - at_);
      at_ = end + 1;
      ++line_;
      if (line.find_first_not_of(" \t\r") == std::string_view::npos)
        continue;
      capture::LogRecord parsed;
      std::string why;
      if (!capture::parseLogLine(line, parsed, why)) {
        problem = "line " + std::to_string(line_) + ": " + why;
        return ReadStatus::Bad;
      }
      record = {parsed.timeUs, parsed.bus, parsed.frame};
      return ReadStatus::Record;
    }
    return ReadStatus::End;
  }

private:
  std::string_view text_;
  size_t at_ = 0;
  unsigned long long line_ = 0;
};

class PcapngSource : public RecordSource {
public:
  explicit PcapngSource(std::string_view bytes)
      : reader_(reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()) {}

  ReadStatus next(PlayRecord &record, std::string &problem) override {
    for (;;) {
      capture::Packet packet;
      switch (reader_.next(packet)) {
      case capture::PcapngReader::Result::Packet: {
        const auto &itf = reader_.interfaces()[packet.interface];
        names_.resize(std::max(names_.size(), reader_.interfaces().size()));
        std::string &name = names_[packet.interface];
        name =
            itf.info.name.empty() ? "interface " + std::to_string(packet.interface) : itf.info.name;
        record = {packet.timeUs, name, packet.frame};
        return ReadStatus::Record;
      }
      case capture::PcapngReader::Result::ErrorFrame:
        continue; // the bus's own error signalling: nothing a host can send
      case capture::PcapngReader::Result::End:
        return ReadStatus::End;
      case capture::PcapngReader::Result::Bad:
        problem = reader_.error();
        return reader_.fatal() ? ReadStatus::Fatal : ReadStatus::Bad;
      }
    }
  }

private:
  capture::PcapngReader reader_;
  std::vector<std::string> names_;
};

bool isPcapng(std::string_view contents) {
  static const char kSectionHeader[4] = {0x0A, 0x0D, 0x0D, 0x0A};
  return contents.size() >= 4 && std::memcmp(contents.data(), kSectionHeader, 4) == 0;
}

std::string readWholeFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    throw ToolError{"cannot read " + path};
  std::ostringstream contents;
  contents << in.rdbuf();
  if (in.bad())
    throw ToolError{"cannot read " + path};
  return contents.str();
}

// Where frames go: channels of a local adapter or buses of a server, each
// numbered by its place in the routing table.
class Outlet {
public:
  virtual ~Outlet() = default;
  // Sends in order; throws ToolError when the destination refuses.
  virtual void send(size_t destination, const std::vector<Frame> &frames) = 0;
  virtual void finish() {}
};

class LocalOutlet : public Outlet {
public:
  LocalOutlet(const Runtime &runtime, unsigned type, unsigned index,
              const std::vector<unsigned> &channels, const ChannelSettings &settings)
      : device_(runtime, type, index), channels_(channels) {
    for (unsigned c : channels_)
      device_.startChannel(c, settings);
  }

  void send(size_t destination, const std::vector<Frame> &frames) override {
    const unsigned channel = channels_[destination];
    size_t sent = 0;
    // A full transmit queue takes the rest a moment later.
    for (int attempt = 0; sent < frames.size() && attempt < 100; ++attempt) {
      const std::vector<Frame> rest(frames.begin() + static_cast<long>(sent), frames.end());
      const size_t n = device_.send(channel, rest);
      sent += n;
      if (n == 0)
        std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    if (sent < frames.size())
      device_.fail("sending " + formatFrame(frames[sent]) + " on channel " +
                   std::to_string(channel));
  }

private:
  DeviceSession device_;
  std::vector<unsigned> channels_;
};

class RemoteOutlet : public Outlet {
public:
  RemoteOutlet(const net::ServerAddress &server, const std::vector<std::string> &buses) {
    for (const std::string &bus : buses)
      clients_.push_back(std::make_unique<net::Client>(server, bus));
  }

  void send(size_t destination, const std::vector<Frame> &frames) override {
    net::Client &client = *clients_[destination];
    client.send(frames);
    check(client, client.takeErrors());
  }

  void finish() override {
    for (auto &client : clients_)
      check(*client, client->sync());
  }

private:
  static void check(const net::Client &client, const std::vector<std::string> &errors) {
    if (!errors.empty())
      throw ToolError{"sending on " + client.describe() + ": " + errors.front()};
  }

  std::vector<std::unique_ptr<net::Client>> clients_;
};

struct PlayPlan {
  std::string path;
  double speed = 1.0;
  bool fast = false;
  unsigned long long loops = 1;
  bool skipBad = false;
  // Recorded bus -> destination name (channel number or server bus). Empty:
  // every bus goes to the one destination.
  std::map<std::string, std::string, std::less<>> routes;
  std::vector<std::string> destinations;
};

struct PlayCounts {
  unsigned long long sent = 0;
  unsigned long long unrouted = 0;
  unsigned long long bad = 0;
};

// Recorded bus -> destination index, or -1 for a bus without a route.
class Router {
public:
  explicit Router(const PlayPlan &plan) : plan_(plan) {}

  long route(std::string_view bus) {
    if (plan_.routes.empty())
      return 0;
    if (bus == lastBus_)
      return lastRoute_;
    auto r = plan_.routes.find(bus);
    lastBus_ = std::string(bus);
    lastRoute_ = r == plan_.routes.end()
                     ? -1
                     : std::find(plan_.destinations.begin(), plan_.destinations.end(), r->second) -
                           plan_.destinations.begin();
    return lastRoute_;
  }

private:
  const PlayPlan &plan_;
  std::string lastBus_;
  long lastRoute_ = 0;
};

// Waits until `due`; false when a stop was asked for meanwhile.
bool waitUntil(Clock::time_point due) {
  for (;;) {
    if (stopRequested())
      return false;
    const auto now = Clock::now();
    if (now >= due)
      return true;
    std::this_thread::sleep_for(std::min<Clock::duration>(due - now, kLongestSleep));
  }
}

class Player {
public:
  Player(const PlayPlan &plan, Outlet &outlet) : plan_(plan), outlet_(outlet), router_(plan) {}

  // One pass over the file; false when the run has to stop.
  bool playOnce(std::string_view contents) {
    std::unique_ptr<RecordSource> source;
    if (isPcapng(contents))
      source = std::make_unique<PcapngSource>(contents);
    else
      source = std::make_unique<LogSource>(contents);
    bool first = true;
    PlayRecord record;
    std::string problem;
    for (;;) {
      const ReadStatus status = source->next(record, problem);
      if (status == ReadStatus::End)
        break;
      if (status != ReadStatus::Record) {
        if (!reportBad(problem, status == ReadStatus::Fatal))
          return false;
        continue;
      }
      const long destination = router_.route(record.bus);
      if (destination < 0) {
        ++counts_.unrouted;
        continue;
      }
      if (first) {
        startUs_ = record.timeUs;
        start_ = Clock::now();
        first = false;
      }
      if (!queue(static_cast<size_t>(destination), record))
        return false;
    }
    flush();
    return true;
  }

  void finish() {
    flush();
    outlet_.finish();
  }
  const PlayCounts &counts() const { return counts_; }

private:
  // Nothing of a bad record is sent; without --skip-bad the run ends there.
  bool reportBad(const std::string &problem, bool fatal) {
    flush();
    const std::string message = plan_.path + ": " + problem;
    if (!plan_.skipBad || fatal)
      throw ToolError{message};
    ++counts_.bad;
    std::fprintf(stderr, "wcan play: %s (skipped)\n", message.c_str());
    return true;
  }

  Clock::time_point dueTime(int64_t timeUs) const {
    const double gapUs = static_cast<double>(std::max<int64_t>(0, timeUs - startUs_)) / plan_.speed;
    return start_ + std::chrono::microseconds(static_cast<int64_t>(gapUs));
  }

  bool queue(size_t destination, const PlayRecord &record) {
    if (!plan_.fast) {
      const auto due = dueTime(record.timeUs);
      if (due > Clock::now()) {
        flush();
        if (!waitUntil(due))
          return false;
      }
    }
    if (destination != batchDestination_ || batch_.size() == kMaxBatch)
      flush();
    batchDestination_ = destination;
    batch_.push_back(record.frame);
    return !stopRequested();
  }

  void flush() {
    if (batch_.empty())
      return;
    outlet_.send(batchDestination_, batch_);
    counts_.sent += batch_.size();
    batch_.clear();
  }

  const PlayPlan &plan_;
  Outlet &outlet_;
  Router router_;
  PlayCounts counts_;
  int64_t startUs_ = 0;
  Clock::time_point start_;
  std::vector<Frame> batch_;
  size_t batchDestination_ = 0;
};

PlayPlan parsePlayPlan(const Args &args) {
  PlayPlan plan;
  plan.path = args.positionals().at(0);
  plan.fast = args.flag("--fast");
  plan.skipBad = args.flag("--skip-bad");
  if (auto v = args.value("--speed")) {
    char *end = nullptr;
    plan.speed = std::strtod(v->c_str(), &end);
    if (end == v->c_str() || *end != '\0' || !(plan.speed >= 0.001 && plan.speed <= 1000000))
      throw UsageError{"--speed takes a factor between 0.001 and 1000000, not '" + *v + "'"};
    if (plan.fast)
      throw UsageError{"--fast sends back to back; --speed scales the gaps"};
  }
  if (auto v = args.value("--loop"))
    plan.loops = parseNumber(*v, "--loop", 1, ~0ull);
  for (const std::string &m : args.values("--map")) {
    const size_t eq = m.find('=');
    if (eq == std::string::npos || eq == 0 || eq + 1 == m.size())
      throw UsageError{"--map takes SRC=DST, not '" + m + "'"};
    const std::string source = m.substr(0, eq), destination = m.substr(eq + 1);
    if (!plan.routes.emplace(source, destination).second)
      throw UsageError{"--map routes " + source + " twice"};
    if (std::find(plan.destinations.begin(), plan.destinations.end(), destination) ==
        plan.destinations.end())
      plan.destinations.push_back(destination);
  }
  return plan;
}

int play(const PlayPlan &plan, Outlet &outlet) {
  const std::string contents = readWholeFile(plan.path);
  Player player(plan, outlet);
  const auto start = Clock::now();
  for (unsigned long long pass = 0; pass < plan.loops && !stopRequested(); ++pass)
    if (!player.playOnce(contents))
      break;
  player.finish();
  const PlayCounts &c = player.counts();
  const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
  std::fprintf(stderr, "wcan play: %llu frames sent in %.3f s", c.sent, seconds);
  if (c.unrouted)
    std::fprintf(stderr, ", %llu skipped (no --map route)", c.unrouted);
  if (c.bad)
    std::fprintf(stderr, ", %llu bad record%s skipped", c.bad, c.bad == 1 ? "" : "s");
  std::fputc('\n', stderr);
  return kExitOk;
}

} // namespace

int runPlay(Context &ctx, const Args &args) {
  const std::optional<RemoteBus> remote = remoteBus(args);
  const bool mapped = !args.values("--map").empty();
  if (remote) {
    // FILE --connect HOST BUS: the bus is the first positional after FILE.
    args.expectPositionals(mapped ? 1 : 2, 2);
    rejectLocalOptions(args, {"--bitrate", "--dbitrate", "--fd"});
    PlayPlan plan = parsePlayPlan(args);
    if (!mapped)
      plan.destinations = {args.positionals()[1]};
    RemoteOutlet outlet(remote->server, plan.destinations);
    return play(plan, outlet);
  }
  args.expectPositionals(mapped ? 3 : 4, 4);
  const auto &p = args.positionals();
  PlayPlan plan = parsePlayPlan(args);
  const DeviceType &type = checkedDeviceType(parseUnsigned(p[1], "TYPE", 0, 0xFFFFFFFFu));
  const unsigned index = parseUnsigned(p[2], "INDEX", 0, 255);
  if (!mapped)
    plan.destinations = {p[3]};
  std::vector<unsigned> channels;
  for (const std::string &d : plan.destinations)
    channels.push_back(parseUnsigned(d, "the channel of --map", 0, 7));
  ChannelSettings settings = parseSettings(args);
  // A CAN FD channel also sends classic frames: open it for both.
  settings.fd = settings.fd || type.family == Family::CanFd;
  for (unsigned c : channels)
    checkChannelUse(type, c, settings);
  LocalOutlet outlet(ctx.runtime(), type.type, index, channels, settings);
  return play(plan, outlet);
}

} // namespace wcantool
