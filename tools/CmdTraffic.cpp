// dump, send and gen: the subcommands that carry bus traffic.
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <memory>
#include <random>
#include <thread>

#include "Commands.h"
#include "Device.h"
#include "Generator.h"

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

struct TxRequest {
  unsigned channel;
  Frame frame;
};

TxRequest parseTxArg(const std::string &text) {
  size_t colon = text.find(':');
  if (colon == std::string::npos)
    throw UsageError{"--tx takes CHANNEL:FRAME, not '" + text + "'"};
  return {parseUnsigned(text.substr(0, colon), "--tx channel", 0, 7),
          parseFrameArg(text.substr(colon + 1))};
}

struct FileCloser {
  void operator()(FILE *f) const { std::fclose(f); }
};
using FilePtr = std::unique_ptr<FILE, FileCloser>;

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

// Starts the --tx channels like the dumped one and sends their frames.
void sendLoopbackFrames(DeviceSession &device, unsigned dumpChannel,
                        const std::vector<TxRequest> &requests, ChannelSettings settings) {
  if (std::any_of(requests.begin(), requests.end(), [](const TxRequest &r) { return r.frame.fd; }))
    settings.fd = true;
  settings.listenOnly = false;
  std::vector<unsigned> started{dumpChannel};
  for (const TxRequest &r : requests) {
    if (std::find(started.begin(), started.end(), r.channel) == started.end()) {
      device.startChannel(r.channel, settings);
      started.push_back(r.channel);
    }
    if (device.send(r.channel, {r.frame}) != 1)
      device.fail("sending " + formatFrame(r.frame) + " on channel " + std::to_string(r.channel));
  }
}

} // namespace

int runDump(Context &ctx, const Args &args) {
  args.expectPositionals(3, 3);
  Target target = parseTarget(args);
  ChannelSettings settings = parseSettings(args);
  unsigned long long count = 0;
  if (auto v = args.value("--count"))
    count = parseNumber(*v, "--count", 1, ~0ull);
  long timeoutMs = 0;
  if (auto v = args.value("--timeout"))
    timeoutMs = static_cast<long>(parseNumber(*v, "--timeout", 1, 86400000));
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
  FilePtr log = openLog(args.value("--log"));

  DeviceSession device(ctx.runtime(), target.type, target.index);
  device.startChannel(target.channel, settings);
  if (!tx.empty())
    sendLoopbackFrames(device, target.channel, tx, settings);

  const std::string ifname = interfaceName(target.type, target.index, target.channel);
  unsigned long long received = 0;
  auto lastFrame = Clock::now();
  std::vector<RxFrame> batch;
  while (!stopRequested() && (count == 0 || received < count)) {
    int wait = kPollMs;
    if (timeoutMs > 0) {
      long left = timeoutMs - msSince(lastFrame);
      if (left <= 0)
        break;
      wait = static_cast<int>(std::min<long>(wait, left));
    }
    batch.clear();
    device.receive(target.channel, batch, wait);
    for (const RxFrame &rx : batch) {
      if (count != 0 && received == count)
        break;
      std::string line = formatLogLine(rx.hostTime, ifname, rx.frame) + "\n";
      std::fputs(line.c_str(), out());
      if (log)
        std::fputs(line.c_str(), log.get());
      ++received;
    }
    if (!batch.empty()) {
      std::fflush(out());
      if (log)
        std::fflush(log.get());
      lastFrame = Clock::now();
      if (std::ferror(out()))
        return kExitOk; // the reader went away
      if (log && std::ferror(log.get()))
        throw ToolError{"cannot write " + *args.value("--log")};
    }
  }
  if (count != 0 && received < count && !stopRequested()) {
    std::fprintf(stderr, "wcan dump: %llu of %llu frames arrived within the time-out\n", received,
                 count);
    return kExitFailure;
  }
  return kExitOk;
}

int runSend(Context &ctx, const Args &args) {
  args.expectPositionals(4, ~size_t{0});
  Target target = parseTarget(args);
  ChannelSettings settings = parseSettings(args);
  std::vector<Frame> frames;
  for (size_t i = 3; i < args.positionals().size(); ++i)
    frames.push_back(parseFrameArg(args.positionals()[i]));
  if (std::any_of(frames.begin(), frames.end(), [](const Frame &f) { return f.fd; }))
    settings.fd = true;
  checkChannelUse(checkedDeviceType(target.type), target.channel, settings, frames);

  DeviceSession device(ctx.runtime(), target.type, target.index);
  device.startChannel(target.channel, settings);
  size_t sent = device.send(target.channel, frames);
  if (sent < frames.size())
    device.fail("sending frame " + std::to_string(sent + 1) + " (" + formatFrame(frames[sent]) +
                ")");
  std::fprintf(stderr, "wcan send: %zu frame%s sent on adapter %s channel %u\n", sent,
               sent == 1 ? "" : "s", device.name().c_str(), target.channel);
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

int runGen(Context &ctx, const Args &args) {
  args.expectPositionals(3, 3);
  Target target = parseTarget(args);
  ChannelSettings settings = parseSettings(args);
  GenSpec spec;
  spec.fd = settings.fd;
  spec.brs = args.flag("--brs");
  spec.extended = args.flag("--extended");
  if (spec.brs && !spec.fd)
    throw UsageError{"--brs needs --fd"};
  parseGenId(args.value("--id").value_or("r"), spec);
  parseGenLen(args.value("--len").value_or("r"), spec);
  unsigned long long count = 0;
  if (auto v = args.value("--count"))
    count = parseNumber(*v, "--count", 1, ~0ull);
  unsigned rate = 0;
  if (auto v = args.value("--rate"))
    rate = parseUnsigned(*v, "--rate", 1, 10000000);
  checkChannelUse(checkedDeviceType(target.type), target.channel, settings);

  DeviceSession device(ctx.runtime(), target.type, target.index);
  device.startChannel(target.channel, settings);
  FrameGenerator generator(spec, std::random_device{}());
  const bool live = isatty(STDERR_FILENO) != 0;
  const size_t maxBatch = 64;
  GenProgress progress;
  auto lastShown = Clock::now();
  bool broken = false;
  std::vector<Frame> batch;
  while (!stopRequested() && (count == 0 || progress.sent + progress.failed < count)) {
    unsigned long long want = maxBatch;
    if (rate != 0) {
      want = framesDue(progress, rate);
      if (want == 0) {
        std::this_thread::sleep_for(std::chrono::microseconds(
            std::clamp<long>(static_cast<long>(1000000 / rate), 50, 100000)));
        continue;
      }
    }
    if (count != 0)
      want = std::min(want, count - progress.sent - progress.failed);
    batch.clear();
    for (unsigned long long i = 0; i < std::min<unsigned long long>(want, maxBatch); ++i)
      batch.push_back(generator.next());
    size_t n = device.send(target.channel, batch);
    progress.sent += n;
    progress.failed += batch.size() - n;
    if (n == 0) {
      broken = true;
      break;
    }
    if (live && msSince(lastShown) >= 200) {
      showProgress(progress);
      lastShown = Clock::now();
    }
  }
  if (live) {
    showProgress(progress);
    std::fputc('\n', stderr);
  }
  std::fprintf(out(), "wcan gen: %llu frames sent, %llu failed, %.3f s, %.0f frames/s\n",
               progress.sent, progress.failed, progress.seconds(), progress.rate());
  std::fflush(out());
  if (broken)
    device.fail("sending");
  return kExitOk;
}

} // namespace wcantool
