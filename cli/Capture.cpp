// SPDX-License-Identifier: MIT
#include "cli/Capture.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstring>

#include "capture/CandumpLog.h"

namespace wcantool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr int kPollMs = 100;
// Frames of different channels reach the host in batches per channel: a
// frame is written once nothing earlier can still come in.
constexpr int64_t kReorderUs = 100000;
// With several channels no single channel may hold up the others for long.
constexpr int kChannelWaitMs = 2;

std::string adapterDescription(DeviceSession &device, unsigned channel,
                               const ChannelSettings &settings) {
  std::string text = bitRateText(settings.bitRate);
  if (settings.fd)
    text += ", data " + bitRateText(settings.dataBitRate) + ", CAN FD";
  if (settings.listenOnly)
    text += ", listen-only";
  text += "; adapter type " + std::to_string(device.type().type) + " index " +
          std::to_string(device.index()) + " channel " + std::to_string(channel);
  _WCAN_BOARD_INFO info{};
  if (device.boardInfo(info)) {
    const std::string serial(info.serialNum, strnlen(info.serialNum, sizeof info.serialNum));
    if (!serial.empty())
      text += ", serial number " + serial;
  }
  return text;
}

} // namespace

std::string bitRateText(unsigned bps) {
  if (bps % 1000000 == 0)
    return std::to_string(bps / 1000000) + " Mbit/s";
  if (bps % 1000 == 0)
    return std::to_string(bps / 1000) + " kbit/s";
  return std::to_string(bps) + " bit/s";
}

// --- sources -----------------------------------------------------------------

LocalCapture::LocalCapture(const Runtime &runtime, unsigned type, unsigned index,
                           const std::vector<unsigned> &channels, const ChannelSettings &settings)
    : device_(runtime, type, index), channels_(channels) {
  for (unsigned channel : channels_) {
    device_.startChannel(channel, settings);
    interfaces_.push_back(
        {interfaceName(type, index, channel), adapterDescription(device_, channel, settings)});
  }
}

void LocalCapture::sendLoopback(const std::vector<TxRequest> &requests,
                                const ChannelSettings &settings) {
  const int64_t now = hostEpochUs();
  for (const TxRequest &r : requests) {
    auto at = std::find(channels_.begin(), channels_.end(), r.channel);
    if (at != channels_.end())
      sent_.push_back({static_cast<uint32_t>(at - channels_.begin()), now, r.frame,
                       capture::Direction::Outbound});
  }
  sendLoopbackFrames(device_, channels_, requests, settings);
}

void LocalCapture::receive(std::vector<CapturedFrame> &out, int waitMs) {
  out.insert(out.end(), sent_.begin(), sent_.end());
  const bool waitHere = sent_.empty();
  sent_.clear();
  for (size_t i = 0; i < channels_.size(); ++i) {
    const int wait = !waitHere || !out.empty() ? 0
                     : channels_.size() == 1   ? waitMs
                                               : std::min(waitMs, kChannelWaitMs);
    scratch_.clear();
    device_.receive(channels_[i], scratch_, wait);
    for (const RxFrame &rx : scratch_)
      out.push_back({static_cast<uint32_t>(i), rx.epochUs, rx.frame, capture::Direction::Inbound});
  }
}

RemoteCapture::RemoteCapture(const net::ServerAddress &server,
                             const std::vector<std::string> &buses) {
  for (const std::string &bus : buses) {
    clients_.push_back(std::make_unique<net::Client>(server, bus));
    clients_.back()->rawMode();
    interfaces_.push_back({bus, "bus " + clients_.back()->describe()});
  }
}

void RemoteCapture::receive(std::vector<CapturedFrame> &out, int waitMs) {
  constexpr size_t kMaxBatch = 256;
  for (size_t i = 0; i < clients_.size(); ++i) {
    int wait = !out.empty() ? 0 : clients_.size() == 1 ? waitMs : std::min(waitMs, kChannelWaitMs);
    for (size_t n = 0; n < kMaxBatch; ++n, wait = 0) {
      std::optional<net::ReceivedFrame> rx = clients_[i]->nextFrame(wait);
      if (!rx)
        break;
      out.push_back(
          {static_cast<uint32_t>(i), epochUsOf(rx->time), rx->frame, capture::Direction::Inbound});
    }
  }
}

// --- pcapng output -------------------------------------------------------------

PcapngSink::PcapngSink(PcapngTarget target, std::vector<capture::InterfaceInfo> interfaces)
    : target_(std::move(target)), interfaces_(std::move(interfaces)) {
  openFile();
}

PcapngSink::~PcapngSink() {
  if (fd_ > STDERR_FILENO)
    ::close(fd_);
}

void PcapngSink::openFile() {
  if (fd_ > STDERR_FILENO)
    ::close(fd_);
  if (target_.path == "-") {
    fd_ = STDOUT_FILENO;
    fileName_ = "standard output";
  } else {
    fileName_ = target_.path + (fileNumber_ == 0 ? "" : std::to_string(fileNumber_));
    fd_ = ::open(fileName_.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd_ < 0)
      throw CaptureWriteError{"cannot write " + fileName_ + ": " + std::strerror(errno)};
  }
  struct stat st {};
  regular_ = ::fstat(fd_, &st) == 0 && S_ISREG(st.st_mode);
  ++fileNumber_;
  fileBytes_ = 0;
  filePackets_ = false;
  fileStart_ = Clock::now();
  capture::appendSectionHeader(buffer_, std::string("wcan ") + WCAN_VERSION);
  for (const capture::InterfaceInfo &itf : interfaces_)
    capture::appendInterface(buffer_, itf);
  flush();
}

bool PcapngSink::rotationDue(size_t nextBlock) const {
  if (target_.path == "-" || !filePackets_)
    return false;
  if (target_.rotateBytes != 0 && fileBytes_ + buffer_.size() + nextBlock > target_.rotateBytes)
    return true;
  return target_.rotateSeconds != 0 &&
         Clock::now() - fileStart_ >= std::chrono::seconds(target_.rotateSeconds);
}

void PcapngSink::flush() {
  size_t done = 0;
  while (done < buffer_.size()) {
    const ssize_t n = ::write(fd_, buffer_.data() + done, buffer_.size() - done);
    if (n < 0 && errno == EINTR)
      continue;
    if (n <= 0) {
      const int error = n < 0 ? errno : ENOSPC;
      // Keep the file to its last whole block.
      if (regular_ && done > 0 && ::ftruncate(fd_, static_cast<off_t>(fileBytes_)) != 0)
        std::fprintf(stderr, "wcan: cannot cut %s back to its last whole block\n",
                     fileName_.c_str());
      buffer_.clear();
      throw CaptureWriteError{"writing " + fileName_ + " failed: " + std::strerror(error),
                              error == EPIPE};
    }
    done += static_cast<size_t>(n);
  }
  fileBytes_ += buffer_.size();
  buffer_.clear();
}

bool PcapngSink::write(const std::vector<CapturedFrame> &frames) {
  constexpr size_t kLargestBlock = 44 + capture::kFdPacketSize;
  for (const CapturedFrame &f : frames) {
    if (rotationDue(kLargestBlock)) {
      flush();
      openFile();
    }
    capture::appendPacket(buffer_, f.interface, f.epochUs, f.frame, f.direction);
    filePackets_ = true;
  }
  flush();
  return true;
}

// --- text output ---------------------------------------------------------------

namespace {

// candump -L lines on standard output and in the --log file.
class LogSink : public FrameSink {
public:
  LogSink(const std::vector<capture::InterfaceInfo> &interfaces, FILE *log, std::string logPath)
      : interfaces_(interfaces), log_(log), logPath_(std::move(logPath)) {}

  bool write(const std::vector<CapturedFrame> &frames) override {
    for (const CapturedFrame &f : frames) {
      std::string line =
          capture::formatLogRecord(f.epochUs, interfaces_[f.interface].name, f.frame) + "\n";
      std::fputs(line.c_str(), out());
      if (log_)
        std::fputs(line.c_str(), log_);
    }
    std::fflush(out());
    if (log_ && (std::fflush(log_) != 0 || std::ferror(log_)))
      throw CaptureWriteError{"cannot write " + logPath_};
    return !std::ferror(out()); // false: the reader went away
  }

private:
  const std::vector<capture::InterfaceInfo> &interfaces_;
  FILE *log_;
  std::string logPath_;
};

// Moves the frames that can no longer be overtaken from `pending` to `ready`.
void releaseInOrder(std::vector<CapturedFrame> &pending, std::vector<CapturedFrame> &ready,
                    bool reorder, bool all) {
  std::stable_sort(
      pending.begin(), pending.end(),
      [](const CapturedFrame &a, const CapturedFrame &b) { return a.epochUs < b.epochUs; });
  const int64_t horizon = !reorder || all ? INT64_MAX : hostEpochUs() - kReorderUs;
  auto end = std::find_if(pending.begin(), pending.end(),
                          [&](const CapturedFrame &f) { return f.epochUs > horizon; });
  ready.assign(pending.begin(), end);
  pending.erase(pending.begin(), end);
}

} // namespace

int runCapture(CaptureSource &source, FrameSink &sink, const DumpLimits &limits,
               const char *command) {
  const bool reorder = source.interfaces().size() > 1;
  unsigned long long written = 0;
  auto lastFrame = Clock::now();
  std::vector<CapturedFrame> pending, ready;
  bool ending = false;
  while (!ending) {
    ending = stopRequested();
    int wait = kPollMs;
    if (limits.timeoutMs > 0) {
      const long left = limits.timeoutMs - msSince(lastFrame);
      ending = ending || left <= 0;
      wait = static_cast<int>(std::clamp<long>(left, 0, wait));
    }
    const size_t before = pending.size();
    if (!ending)
      source.receive(pending, wait);
    if (pending.size() != before)
      lastFrame = Clock::now();
    releaseInOrder(pending, ready, reorder, ending);
    if (limits.count != 0 && ready.size() >= limits.count - written) {
      ready.resize(limits.count - written);
      ending = true;
    }
    if (!ready.empty() && !sink.write(ready))
      return kExitOk;
    written += ready.size();
  }
  if (limits.count != 0 && written < limits.count && !stopRequested()) {
    std::fprintf(stderr, "wcan %s: %llu of %llu frames arrived within the time-out\n", command,
                 written, limits.count);
    return kExitFailure;
  }
  return kExitOk;
}

// --- dump's capture options ------------------------------------------------------

namespace {

struct OutputChoice {
  bool pcapng = false;
  PcapngTarget target;
};

// -C takes millions of bytes, as tcpdump's does, or a number with k, M or G.
uint64_t parseFileSize(const std::string &text) {
  uint64_t unit = 1000000;
  std::string digits = text;
  if (!digits.empty() && std::strchr("kMG", digits.back())) {
    unit = digits.back() == 'k' ? 1000 : digits.back() == 'M' ? 1000000 : 1000000000;
    digits.pop_back();
  }
  const uint64_t size = parseNumber(digits, "-C", 1, 1000000) * unit;
  if (size < 4096)
    throw UsageError{"-C must allow at least 4096 bytes per file"};
  return size;
}

OutputChoice parseOutput(const Args &args) {
  OutputChoice choice;
  const std::string format = args.value("--format").value_or("");
  if (!format.empty() && format != "pcapng" && format != "text")
    throw UsageError{"--format takes text or pcapng, not '" + format + "'"};
  const std::optional<std::string> path = args.value("-w");
  if (path && format == "text")
    throw UsageError{"-w writes pcapng; --format text prints log lines"};
  choice.pcapng = path || format == "pcapng";
  choice.target.path = path.value_or("-");
  if (auto v = args.value("-C"))
    choice.target.rotateBytes = parseFileSize(*v);
  if (auto v = args.value("-G"))
    choice.target.rotateSeconds = parseUnsigned(*v, "-G", 1, 86400 * 366);
  const bool rotating = choice.target.rotateBytes != 0 || choice.target.rotateSeconds != 0;
  if (rotating && (!path || *path == "-"))
    throw UsageError{"-C and -G start new files: they need -w FILE"};
  if (choice.pcapng && args.value("--log"))
    throw UsageError{"--log writes log lines; use it without -w and --format pcapng"};
  return choice;
}

std::vector<unsigned> parseChannels(const std::string &text, const DeviceType &type) {
  std::vector<unsigned> channels;
  if (text == "all") {
    for (unsigned c = 0; c < type.channels; ++c)
      channels.push_back(c);
    return channels;
  }
  for (size_t start = 0; start <= text.size();) {
    const size_t comma = std::min(text.find(',', start), text.size());
    const unsigned c = parseUnsigned(text.substr(start, comma - start), "CHANNEL", 0, 7);
    if (std::find(channels.begin(), channels.end(), c) != channels.end())
      throw UsageError{"channel " + std::to_string(c) + " is named twice"};
    channels.push_back(c);
    start = comma + 1;
  }
  return channels;
}

int captureInto(CaptureSource &source, const OutputChoice &output, const DumpLimits &limits,
                const std::optional<std::string> &logPath) {
  try {
    std::unique_ptr<FrameSink> sink;
    FilePtr log;
    if (output.pcapng) {
      sink = std::make_unique<PcapngSink>(output.target, source.interfaces());
    } else {
      log = openLog(logPath);
      sink = std::make_unique<LogSink>(source.interfaces(), log.get(), logPath.value_or(""));
    }
    return runCapture(source, *sink, limits, "dump");
  } catch (const CaptureWriteError &e) {
    throw ToolError{e.message};
  }
}

} // namespace

bool wantsCapture(const Args &args) {
  const auto &p = args.positionals();
  const bool severalChannels =
      p.size() == 3 && (p[2] == "all" || p[2].find(',') != std::string::npos);
  const bool severalBuses = args.value("--connect") && p.size() > 1;
  return args.value("-w") || args.value("--format") || args.value("-C") || args.value("-G") ||
         severalChannels || severalBuses;
}

int captureLocal(Context &ctx, const Args &args) {
  args.expectPositionals(3, 3);
  const auto &p = args.positionals();
  const DeviceType &type = checkedDeviceType(parseUnsigned(p[0], "TYPE", 0, 0xFFFFFFFFu));
  const unsigned index = parseUnsigned(p[1], "INDEX", 0, 255);
  const std::vector<unsigned> channels = parseChannels(p[2], type);
  ChannelSettings settings = parseSettings(args);
  const DumpLimits limits = parseDumpLimits(args);
  const OutputChoice output = parseOutput(args);
  std::vector<TxRequest> tx;
  for (const std::string &t : args.values("--tx"))
    tx.push_back(parseTxArg(t));
  if (std::any_of(tx.begin(), tx.end(), [](const TxRequest &r) { return r.frame.fd; }))
    settings.fd = true;
  for (unsigned c : channels)
    checkChannelUse(type, c, settings);
  for (const TxRequest &r : tx)
    checkChannelUse(type, r.channel, settings, {r.frame});

  LocalCapture source(ctx.runtime(), type.type, index, channels, settings);
  if (!tx.empty())
    source.sendLoopback(tx, settings);
  return captureInto(source, output, limits, args.value("--log"));
}

int captureRemote(const Args &args, const RemoteBus &remote) {
  args.expectPositionals(1, 8);
  rejectLocalOptions(args, {"--bitrate", "--dbitrate", "--fd", "--listen-only", "--tx"});
  const DumpLimits limits = parseDumpLimits(args);
  const OutputChoice output = parseOutput(args);
  RemoteCapture source(remote.server, args.positionals());
  return captureInto(source, output, limits, args.value("--log"));
}

} // namespace wcantool
