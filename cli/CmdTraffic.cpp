// SPDX-License-Identifier: MIT
// dump, send and gen: the subcommands that carry bus traffic.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <functional>
#include <memory>
#include <optional>
#include <random>
#include <thread>

#include "cli/Capture.h"
#include "cli/Commands.h"
#include "cli/DbcSupport.h"
#include "cli/DumpView.h"
#include "cli/Generator.h"
#include "cli/Traffic.h"
#include "common/Device.h"
#include "net/Client.h"
#include "net/Protocol.h"

namespace wcantool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 100;

struct Target {
  unsigned type;
  unsigned index;
  unsigned channel;
};

Target parseTarget(const Args &args) {
  const auto &p = args.positionals();
  Target t{};
  t.type = checkedDeviceType(parseUnsigned(p.at(0), "TYPE", 0, 0xFFFFFFFFu)).type;
  t.index = parseUnsigned(p.at(1), "INDEX", 0, 255);
  t.channel = parseUnsigned(p.at(2), "CHANNEL", 0, 7);
  return t;
}

} // namespace

// The argument helpers the capture and replay commands share (cli/Traffic.h).

ChannelSettings parseSettings(const Args &args) {
  ChannelSettings s;
  if (auto v = args.value("--bitrate"))
    s.bitRate = parseUnsigned(*v, "--bitrate", 1, 100000000);
  if (auto v = args.value("--dbitrate"))
    s.dataBitRate = parseUnsigned(*v, "--dbitrate", 1, 100000000);
  s.fd = args.flag("--fd");
  s.listenOnly = args.flag("--listen-only");
  return s;
}

Frame parseFrameArg(const std::string &text) {
  Frame f;
  std::string why;
  if (!parseFrame(text, f, why))
    throw UsageError{"bad frame '" + text + "': " + why};
  return f;
}

TxRequest parseTxArg(const std::string &text) {
  size_t colon = text.find(':');
  if (colon == std::string::npos)
    throw UsageError{"--tx takes CHANNEL:FRAME, not '" + text + "'"};
  return {parseUnsigned(text.substr(0, colon), "--tx channel", 0, 7),
          parseFrameArg(text.substr(colon + 1))};
}

FilePtr openLog(const std::optional<std::string> &path) {
  if (!path)
    return nullptr;
  FilePtr f(std::fopen(path->c_str(), "w"));
  if (!f)
    throw ToolError{"cannot write " + *path};
  return f;
}

long msSince(Clock::time_point t) {
  return static_cast<long>(
      std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - t).count());
}

// Starts the --tx channels like the dumped one and sends their frames, each
// run of frames for one channel in one call so that they follow each other
// on the bus.
void sendLoopbackFrames(DeviceSession &device, std::vector<unsigned> started,
                        const std::vector<TxRequest> &requests, ChannelSettings settings) {
  if (std::any_of(requests.begin(), requests.end(), [](const TxRequest &r) { return r.frame.fd; }))
    settings.fd = true;
  settings.listenOnly = false;
  for (size_t i = 0; i < requests.size();) {
    const unsigned channel = requests[i].channel;
    if (std::find(started.begin(), started.end(), channel) == started.end()) {
      device.startChannel(channel, settings);
      started.push_back(channel);
    }
    std::vector<Frame> run;
    for (; i < requests.size() && requests[i].channel == channel; ++i)
      run.push_back(requests[i].frame);
    const size_t sent = device.send(channel, run);
    if (sent != run.size())
      device.fail("sending " + formatFrame(run[sent]) + " on channel " + std::to_string(channel));
  }
}

// With --connect the server's channel settings apply: options that set up a
// local channel have no meaning.
void rejectLocalOptions(const Args &args, std::initializer_list<const char *> names) {
  for (const char *name : names)
    if (args.flag(name))
      throw UsageError{std::string(name) + " sets up a local adapter; with --connect the " +
                       "server's settings apply"};
}

std::optional<RemoteBus> remoteBus(const Args &args) {
  const std::optional<std::string> server = args.value("--connect");
  if (!server)
    return std::nullopt;
  if (args.positionals().empty())
    throw UsageError{"missing arguments: --connect HOST[:PORT] takes a BUS name"};
  return RemoteBus{net::parseServerAddress(*server, net::kDefaultPort), args.positionals()[0]};
}

DumpLimits parseDumpLimits(const Args &args) {
  DumpLimits limits;
  if (auto v = args.value("--count"))
    limits.count = parseNumber(*v, "--count", 1, ~0ull);
  if (auto v = args.value("--timeout"))
    limits.timeoutMs = static_cast<long>(parseNumber(*v, "--timeout", 1, 86400000));
  return limits;
}

namespace {

// Appends received frames to `batch`, waiting up to waitMs for the first.
using FrameSource = std::function<void(std::vector<RxFrame> &batch, int waitMs)>;

// Which frames a dump shows, how, and where else it writes them.
struct DumpOutput {
  FrameFilter filter;
  std::optional<FrameView> view; // human-readable lines; log lines without
  FilePtr log;
  std::string logPath;
  // With a database, each known frame's signals follow it: on standard
  // output under human-readable lines, on standard error under log lines,
  // so that standard output and the --log file stay logs candump readers take.
  std::optional<dbc::Database> signals;
};

DumpOutput parseDumpOutput(const Args &args) {
  DumpOutput output;
  std::vector<IdFilter> filters;
  for (const std::string &f : args.values("--filter"))
    filters.push_back(parseIdFilter(f));
  output.filter = FrameFilter(std::move(filters));
  const std::optional<std::string> stamps = args.value("-t");
  const bool ascii = args.flag("-a");
  if ((stamps || ascii) && args.flag("-L"))
    throw UsageError{"-L writes log lines, which have no -t or -a: leave out one or the other"};
  if (stamps || ascii)
    output.view.emplace(stamps ? parseStampMode(*stamps) : StampMode::None, ascii);
  output.logPath = args.value("--log").value_or("");
  output.log = openLog(args.value("--log"));
  output.signals = loadDbcOption(args, "dump");
  return output;
}

// Writes one frame to standard output and the log; false when the log failed.
void writeFrame(DumpOutput &output, const RxFrame &rx, const std::string &ifname) {
  const std::string logLine = formatLogLine(logTimeOf(rx.epochUs), ifname, rx.frame) + "\n";
  if (output.view)
    std::fprintf(out(), "%s\n", output.view->line(rx.epochUs, ifname, rx.frame).c_str());
  else
    std::fputs(logLine.c_str(), out());
  if (output.signals)
    printSignals(*output.signals, rx.frame, output.view ? out() : stderr);
  if (output.log)
    std::fputs(logLine.c_str(), output.log.get());
}

// Prints frames until the count, the time-out or Ctrl-C.
int dumpFrames(const FrameSource &receive, const std::string &ifname, const DumpLimits &limits,
               DumpOutput &output) {
  unsigned long long received = 0;
  auto lastFrame = Clock::now();
  std::vector<RxFrame> batch;
  FILE *log = output.log.get();
  while (!stopRequested() && (limits.count == 0 || received < limits.count)) {
    int wait = kPollMs;
    if (limits.timeoutMs > 0) {
      long left = limits.timeoutMs - msSince(lastFrame);
      if (left <= 0)
        break;
      wait = static_cast<int>(std::min<long>(wait, left));
    }
    batch.clear();
    receive(batch, wait);
    for (const RxFrame &rx : batch) {
      if (limits.count != 0 && received == limits.count)
        break;
      if (!output.filter.passes(rx.frame))
        continue;
      writeFrame(output, rx, ifname);
      ++received;
    }
    if (!batch.empty()) {
      std::fflush(out());
      if (log)
        std::fflush(log);
      lastFrame = Clock::now();
      if (std::ferror(out()))
        return kExitOk; // the reader went away
      if (log && std::ferror(log))
        throw ToolError{"cannot write " + output.logPath};
    }
  }
  if (limits.count != 0 && received < limits.count && !stopRequested()) {
    std::fprintf(stderr, "wcan dump: %llu of %llu frames arrived within the time-out\n", received,
                 limits.count);
    return kExitFailure;
  }
  return kExitOk;
}

} // namespace

// What the server sent, as the local dump would show it: the server's time
// stamps in place of the host's.
void receiveRemote(net::Client &client, std::vector<RxFrame> &batch, int waitMs) {
  constexpr size_t kMaxBatch = 256;
  for (std::optional<net::ReceivedFrame> rx = client.nextFrame(waitMs); rx;
       rx = batch.size() < kMaxBatch ? client.nextFrame(0) : std::nullopt)
    batch.push_back({rx->frame, 0, epochUsOf(rx->time)});
}

namespace {

int dumpRemote(const Args &args, const RemoteBus &remote) {
  args.expectPositionals(1, 1);
  rejectLocalOptions(args, {"--bitrate", "--dbitrate", "--fd", "--listen-only", "--tx"});
  const DumpLimits limits = parseDumpLimits(args);
  DumpOutput output = parseDumpOutput(args);
  net::Client client(remote.server, remote.bus);
  client.rawMode();
  return dumpFrames(
      [&](std::vector<RxFrame> &batch, int wait) { receiveRemote(client, batch, wait); },
      remote.bus, limits, output);
}

std::vector<Frame> parseFrameArgs(const Args &args, size_t first) {
  if (const std::optional<dbc::Database> db = loadDbcOption(args, "send"))
    return {encodeFrameArgs(*db, args.positionals(), first)};
  std::vector<Frame> frames;
  for (size_t i = first; i < args.positionals().size(); ++i)
    frames.push_back(parseFrameArg(args.positionals()[i]));
  return frames;
}

int sendRemote(const Args &args, const RemoteBus &remote) {
  args.expectPositionals(2, ~size_t{0});
  rejectLocalOptions(args, {"--bitrate", "--dbitrate", "--fd"});
  const std::vector<Frame> frames = parseFrameArgs(args, 1);
  net::Client client(remote.server, remote.bus);
  client.send(frames);
  const std::vector<std::string> errors = client.sync();
  if (!errors.empty())
    throw ToolError{std::to_string(errors.size()) + " of " + std::to_string(frames.size()) +
                    " frames not sent on " + client.describe() + ": " + errors.front()};
  note("wcan send: %zu frame%s sent on %s\n", frames.size(), frames.size() == 1 ? "" : "s",
       client.describe().c_str());
  return kExitOk;
}

} // namespace

int runDump(Context &ctx, const Args &args) {
  const std::optional<RemoteBus> remote = remoteBus(args);
  if (wantsCapture(args))
    return remote ? captureRemote(args, *remote) : captureLocal(ctx, args);
  if (remote)
    return dumpRemote(args, *remote);
  args.expectPositionals(3, 3);
  Target target = parseTarget(args);
  ChannelSettings settings = parseSettings(args);
  const DumpLimits limits = parseDumpLimits(args);
  std::vector<TxRequest> tx;
  for (const std::string &t : args.values("--tx"))
    tx.push_back(parseTxArg(t));
  for (const TxRequest &r : tx)
    if (r.channel == target.channel)
      throw UsageError{"--tx needs a channel other than the dumped one"};
  if (std::any_of(tx.begin(), tx.end(), [](const TxRequest &r) { return r.frame.fd; }))
    settings.fd = true;
  const DeviceType &type = checkedDeviceType(target.type);
  checkChannelUse(type, target.channel, settings);
  for (const TxRequest &r : tx)
    checkChannelUse(type, r.channel, settings, {r.frame});
  DumpOutput output = parseDumpOutput(args);

  DeviceSession device(ctx.runtime(), target.type, target.index);
  device.startChannel(target.channel, settings);
  if (!tx.empty())
    sendLoopbackFrames(device, {target.channel}, tx, settings);
  return dumpFrames(
      [&](std::vector<RxFrame> &batch, int wait) { device.receive(target.channel, batch, wait); },
      interfaceName(target.type, target.index, target.channel), limits, output);
}

int runSend(Context &ctx, const Args &args) {
  if (std::optional<RemoteBus> remote = remoteBus(args))
    return sendRemote(args, *remote);
  args.expectPositionals(4, ~size_t{0});
  Target target = parseTarget(args);
  ChannelSettings settings = parseSettings(args);
  std::vector<Frame> frames = parseFrameArgs(args, 3);
  if (std::any_of(frames.begin(), frames.end(), [](const Frame &f) { return f.fd; }))
    settings.fd = true;
  checkChannelUse(checkedDeviceType(target.type), target.channel, settings, frames);

  DeviceSession device(ctx.runtime(), target.type, target.index);
  device.startChannel(target.channel, settings);
  size_t sent = device.send(target.channel, frames);
  if (sent < frames.size())
    device.fail("sending frame " + std::to_string(sent + 1) + " (" + formatFrame(frames[sent]) +
                ")");
  note("wcan send: %zu frame%s sent on adapter %s channel %u\n", sent, sent == 1 ? "" : "s",
       device.name().c_str(), target.channel);
  return kExitOk;
}

namespace {

struct GenProgress {
  unsigned long long sent = 0;
  unsigned long long failed = 0;
  Clock::time_point start = Clock::now();

  double seconds() const { return std::chrono::duration<double>(Clock::now() - start).count(); }
  double rate() const {
    double s = seconds();
    return s > 0 ? static_cast<double>(sent) / s : 0.0;
  }
};

void showProgress(const GenProgress &p) {
  std::fprintf(stderr, "\rsent %llu frames  %.0f frames/s  %llu failed   ", p.sent, p.rate(),
               p.failed);
  std::fflush(stderr);
}

// How many frames are due now to keep `rate` frames per second since start.
unsigned long long framesDue(const GenProgress &p, unsigned rate) {
  double due = p.seconds() * rate + 1;
  unsigned long long done = p.sent + p.failed;
  return due > static_cast<double>(done) ? static_cast<unsigned long long>(due) - done : 0;
}

} // namespace

namespace {

struct GenPlan {
  GenSpec spec;
  unsigned long long count = 0;
  unsigned rate = 0;
};

GenPlan parseGenPlan(const Args &args) {
  GenPlan plan;
  plan.spec.fd = args.flag("--fd");
  plan.spec.brs = args.flag("--brs");
  plan.spec.extended = args.flag("--extended");
  if (plan.spec.brs && !plan.spec.fd)
    throw UsageError{"--brs needs --fd"};
  parseGenId(args.value("--id").value_or("r"), plan.spec);
  parseGenLen(args.value("--len").value_or("r"), plan.spec);
  if (auto v = args.value("--count"))
    plan.count = parseNumber(*v, "--count", 1, ~0ull);
  if (auto v = args.value("--rate"))
    plan.rate = parseUnsigned(*v, "--rate", 1, 10000000);
  return plan;
}

// Where generated frames go: a local channel or a bus of a server.
struct GenOutlet {
  // Sends a batch; returns how many frames were taken.
  std::function<size_t(const std::vector<Frame> &)> send;
  // Frames counted as taken that were refused after all (a server answers
  // later); with `finish` it waits for the last answers.
  std::function<size_t(bool finish)> refusedLater = [](bool) { return size_t{0}; };
  // Throws the reason of a run that broke off.
  std::function<void()> fail;
};

int generate(const GenPlan &plan, const GenOutlet &outlet) {
  FrameGenerator generator(plan.spec, std::random_device{}());
  const bool live = !quiet() && isatty(STDERR_FILENO) != 0;
  const size_t maxBatch = 64;
  GenProgress progress;
  auto lastShown = Clock::now();
  bool broken = false;
  auto countRefused = [&](bool finish) {
    const size_t refused = outlet.refusedLater(finish);
    progress.sent -= std::min<unsigned long long>(progress.sent, refused);
    progress.failed += refused;
    broken = broken || refused > 0;
  };
  std::vector<Frame> batch;
  while (!stopRequested() && !broken &&
         (plan.count == 0 || progress.sent + progress.failed < plan.count)) {
    unsigned long long want = maxBatch;
    if (plan.rate != 0) {
      want = framesDue(progress, plan.rate);
      if (want == 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(
            std::clamp<long>(static_cast<long>(1000000 / plan.rate), 50, 100000)));
        continue;
      }
    }
    if (plan.count != 0)
      want = std::min(want, plan.count - progress.sent - progress.failed);
    batch.clear();
    for (unsigned long long i = 0; i < std::min<unsigned long long>(want, maxBatch); ++i)
      batch.push_back(generator.next());
    size_t n = outlet.send(batch);
    progress.sent += n;
    progress.failed += batch.size() - n;
    broken = n == 0;
    countRefused(false);
    if (live && msSince(lastShown) >= 200) {
      showProgress(progress);
      lastShown = Clock::now();
    }
  }
  countRefused(true);
  if (live) {
    showProgress(progress);
    std::fputc('\n', stderr);
  }
  std::fprintf(out(), "wcan gen: %llu frames sent, %llu failed, %.3f s, %.0f frames/s\n",
               progress.sent, progress.failed, progress.seconds(), progress.rate());
  std::fflush(out());
  if (broken)
    outlet.fail();
  return kExitOk;
}

int genRemote(const Args &args, const RemoteBus &remote) {
  args.expectPositionals(1, 1);
  rejectLocalOptions(args, {"--bitrate", "--dbitrate"});
  const GenPlan plan = parseGenPlan(args);
  net::Client client(remote.server, remote.bus);
  std::string firstError;
  GenOutlet outlet;
  outlet.send = [&](const std::vector<Frame> &frames) {
    client.send(frames);
    return frames.size();
  };
  outlet.refusedLater = [&](bool finish) {
    const std::vector<std::string> errors = finish ? client.sync() : client.takeErrors();
    if (firstError.empty() && !errors.empty())
      firstError = errors.front();
    return errors.size();
  };
  outlet.fail = [&] { throw ToolError{"sending on " + client.describe() + ": " + firstError}; };
  return generate(plan, outlet);
}

} // namespace

int runGen(Context &ctx, const Args &args) {
  if (std::optional<RemoteBus> remote = remoteBus(args))
    return genRemote(args, *remote);
  args.expectPositionals(3, 3);
  Target target = parseTarget(args);
  ChannelSettings settings = parseSettings(args);
  const GenPlan plan = parseGenPlan(args);
  checkChannelUse(checkedDeviceType(target.type), target.channel, settings);

  DeviceSession device(ctx.runtime(), target.type, target.index);
  device.startChannel(target.channel, settings);
  GenOutlet outlet;
  outlet.send = [&](const std::vector<Frame> &frames) {
    return device.send(target.channel, frames);
  };
  outlet.fail = [&] { device.fail("sending"); };
  return generate(plan, outlet);
}

} // namespace wcantool
