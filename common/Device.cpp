// SPDX-License-Identifier: MIT
#include "common/Device.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <thread>

#include "common/Args.h"
#include "common/BusBits.h"

namespace wcantool {
namespace {

constexpr unsigned kRxBatch = 256;

// Closing resets the adapter, which forgets the frames still in its transmit
// queue. A session waits for its last frame's bits, and this much for the
// USB transfers and the adapter to catch up, before it closes.
constexpr std::chrono::milliseconds kCloseMargin{50};
// A queue a bus of a few kbit/s has not emptied by then is given up.
constexpr std::chrono::seconds kCloseWaitLimit{2};

// Counters wrap: a is earlier when b lies less than half a turn ahead of it.
bool earlier(uint32_t a, uint32_t b, uint32_t mask) {
  const uint32_t ahead = (b - a) & mask;
  return ahead != 0 && ahead <= mask / 2;
}

std::string hex4(unsigned v) {
  char buf[8];
  std::snprintf(buf, sizeof buf, "%04x", v & 0xFFFF);
  return buf;
}

std::string boundedText(const char *text, size_t room) {
  return std::string(text, strnlen(text, room));
}

} // namespace

const DeviceType &checkedDeviceType(unsigned type) {
  const DeviceType *t = findDeviceType(type);
  if (!t)
    throw UsageError{"unsupported device type " + std::to_string(type) +
                     " (supported: " + supportedTypesText() + ")"};
  return *t;
}

void checkChannelUse(const DeviceType &type, unsigned channel, const ChannelSettings &settings,
                     const std::vector<Frame> &frames) {
  const std::string name = "adapter type " + std::to_string(type.type);
  if (type.family == Family::Recorder)
    throw UsageError{"a CAN recorder records by itself and carries no traffic for the host; use "
                     "'wcan record' to configure it"};
  if (channel >= type.channels)
    throw UsageError{name + " has channels 0.." + std::to_string(type.channels - 1) + ", not " +
                     std::to_string(channel)};
  bool anyFd = std::any_of(frames.begin(), frames.end(), [](const Frame &f) { return f.fd; });
  if (type.family == Family::Classic) {
    if (anyFd)
      throw UsageError{name + " cannot send CAN FD frames"};
    if (settings.fd)
      throw UsageError{name + " is a classic CAN adapter without CAN FD"};
    if (!classicTimingFor(settings.bitRate))
      throw UsageError{"bit rate " + std::to_string(settings.bitRate) +
                       " is not available on the classic adapter (" + classicRatesText() + ")"};
    return;
  }
  if (!isFdArbitrationRate(settings.bitRate))
    throw UsageError{"bit rate " + std::to_string(settings.bitRate) +
                     " is not available on the CAN FD adapter (" + fdArbitrationRatesText() + ")"};
  if ((settings.fd || anyFd) && !isFdDataRate(settings.dataBitRate))
    throw UsageError{"data bit rate " + std::to_string(settings.dataBitRate) +
                     " is not available on the CAN FD adapter (" + fdDataRatesText() + ")"};
}

DeviceSession::DeviceSession(const Runtime &runtime, unsigned type, unsigned index)
    : runtime_(runtime), api_(runtime.wcan()), type_(checkedDeviceType(type)), index_(index) {
  if (api_.WCAN_OpenDevice(type_.type, index_) != 1)
    fail("opening the adapter");
}

DeviceSession::~DeviceSession() {
  awaitBusTime();
  api_.WCAN_CloseDevice(type_.type, index_);
}

void DeviceSession::awaitBusTime() const {
  if (busFreeAt_ == std::chrono::steady_clock::time_point{})
    return;
  const auto limit = std::chrono::steady_clock::now() + kCloseWaitLimit;
  std::this_thread::sleep_until(std::min(busFreeAt_ + kCloseMargin, limit));
}

void DeviceSession::noteQueued(unsigned channel, const Frame *frames, size_t count) {
  const auto it = started_.find(channel);
  if (it == started_.end())
    return;
  const ChannelSettings &rates = it->second;
  const double dataRate = rates.fd ? rates.dataBitRate : rates.bitRate;
  double seconds = 0;
  for (size_t i = 0; i < count; ++i) {
    const busbits::FrameBits bits = busbits::onWire(busbits::shapeOf(frames[i]));
    seconds += bits.nominal / static_cast<double>(rates.bitRate) + bits.data / dataRate;
  }
  const auto now = std::chrono::steady_clock::now();
  busFreeAt_ =
      std::max(busFreeAt_, now) + std::chrono::duration_cast<std::chrono::steady_clock::duration>(
                                      std::chrono::duration<double>(seconds));
}

std::string DeviceSession::name() const {
  return std::to_string(type_.type) + "/" + std::to_string(index_);
}

void DeviceSession::fail(const std::string &what) const {
  throw ToolError{what + " failed on adapter " + name() + ": " + runtime_.lastError()};
}

void DeviceSession::startChannel(unsigned channel, const ChannelSettings &settings) {
  checkChannelUse(type_, channel, settings);
  clocks_.insert_or_assign(channel, ChannelClock{DeviceClock(type_.counterBits), 0});
  started_.insert_or_assign(channel, settings);
  if (type_.family == Family::Classic)
    startClassic(channel, settings);
  else
    startCanFd(channel, settings);
}

void DeviceSession::startClassic(unsigned channel, const ChannelSettings &settings) {
  auto timing = classicTimingFor(settings.bitRate);
  _WCAN_INIT_CONFIG config{};
  config.timing0 = timing->timing0;
  config.timing1 = timing->timing1;
  config.mode = settings.listenOnly ? 1 : 0;
  // The library starts the channel right after initialising it.
  if (api_.WCAN_InitCAN(type_.type, index_, channel, &config) != 1)
    fail("initialising channel " + std::to_string(channel));
}

void DeviceSession::startCanFd(unsigned channel, const ChannelSettings &settings) {
  if (!isFdArbitrationRate(settings.bitRate))
    throw UsageError{"bit rate " + std::to_string(settings.bitRate) +
                     " is not available on the CAN FD adapter (" + fdArbitrationRatesText() + ")"};
  if (settings.fd && !isFdDataRate(settings.dataBitRate))
    throw UsageError{"data bit rate " + std::to_string(settings.dataBitRate) +
                     " is not available on the CAN FD adapter (" + fdDataRatesText() + ")"};
  _WCAN_INITFD_CONFIG config{};
  config.abitRate = settings.bitRate;
  config.dbitRate = settings.fd ? settings.dataBitRate : settings.bitRate;
  config.fdEnable = settings.fd ? 1 : 0;
  config.option0 = settings.listenOnly ? 1 : 0;
  // Initialising also starts the channel.
  if (api_.WCAN_InitCANFD(type_.type, index_, channel, &config) != 1)
    fail("initialising channel " + std::to_string(channel));
}

size_t DeviceSession::send(unsigned channel, const std::vector<Frame> &frames) {
  bool anyFd = std::any_of(frames.begin(), frames.end(), [](const Frame &f) { return f.fd; });
  if (anyFd && type_.family != Family::CanFd)
    throw UsageError{"adapter type " + std::to_string(type_.type) + " cannot send CAN FD frames"};
  size_t sent = 0;
  while (sent < frames.size()) {
    // One library call per run of frames of the same kind keeps the order.
    size_t end = sent + 1;
    while (end < frames.size() && frames[end].fd == frames[sent].fd)
      ++end;
    size_t n = sendRun(channel, frames.data() + sent, end - sent);
    sent += n;
    if (sent < end)
      break;
  }
  return sent;
}

size_t DeviceSession::sendRun(unsigned channel, const Frame *frames, size_t count) {
  int n = 0;
  if (frames[0].fd) {
    std::vector<_WCAN_CANFD_OBJ> objs;
    objs.reserve(count);
    for (size_t i = 0; i < count; ++i)
      objs.push_back(toCanFdObj(frames[i]));
    n = api_.WCAN_TransmitFD(type_.type, index_, channel, objs.data(),
                             static_cast<unsigned>(count));
  } else {
    std::vector<_WCAN_CAN_OBJ> objs;
    objs.reserve(count);
    for (size_t i = 0; i < count; ++i)
      objs.push_back(toCanObj(frames[i]));
    n = api_.WCAN_Transmit(type_.type, index_, channel, objs.data(), static_cast<unsigned>(count));
  }
  const size_t accepted = n > 0 ? std::min(static_cast<size_t>(n), count) : 0;
  noteQueued(channel, frames, accepted);
  return accepted;
}

size_t DeviceSession::receive(unsigned channel, std::vector<RxFrame> &out, int waitMs) {
  std::vector<RxFrame> classic;
  std::vector<RxFrame> fd;
  if (type_.family == Family::CanFd) {
    // Wait on the CAN FD queue only when no classic frame is already waiting.
    int fdWait =
        api_.WCAN_GetReceiveNum(type_.type, index_, channel, WCAN_FRAMES_CAN) > 0 ? 0 : waitMs;
    _WCAN_CANFD_OBJ fdBuf[kRxBatch];
    int n = api_.WCAN_ReceiveFD(type_.type, index_, channel, fdBuf, kRxBatch, fdWait);
    for (int i = 0; i < n; ++i)
      fd.push_back({fromCanFdObj(fdBuf[i]), fdBuf[i].timeStamp, 0});
    waitMs = 0;
  }
  _WCAN_CAN_OBJ buf[kRxBatch];
  int n = api_.WCAN_Receive(type_.type, index_, channel, buf, kRxBatch, waitMs);
  for (int i = 0; i < n; ++i)
    classic.push_back({fromCanObj(buf[i]), buf[i].timeStamp, 0});
  std::vector<RxFrame> merged;
  merged.reserve(classic.size() + fd.size());
  const uint32_t mask = type_.counterBits >= 32 ? ~0u : (1u << type_.counterBits) - 1;
  std::merge(classic.begin(), classic.end(), fd.begin(), fd.end(), std::back_inserter(merged),
             [mask](const RxFrame &a, const RxFrame &b) {
               return earlier(a.deviceTime & mask, b.deviceTime & mask, mask);
             });
  stampInOrder(channel, merged);
  out.insert(out.end(), merged.begin(), merged.end());
  return merged.size();
}

void DeviceSession::restartClock(unsigned channel) {
  if (auto it = clocks_.find(channel); it != clocks_.end())
    it->second.clock.restart();
}

// Every frame was on the bus by now, the time the clock anchors against.
void DeviceSession::stampInOrder(unsigned channel, std::vector<RxFrame> &frames) {
  ChannelClock &clock =
      clocks_.try_emplace(channel, ChannelClock{DeviceClock(type_.counterBits), 0}).first->second;
  std::vector<uint32_t> counters;
  counters.reserve(frames.size());
  for (const RxFrame &rx : frames)
    counters.push_back(rx.deviceTime);
  std::vector<int64_t> times(frames.size());
  clock.clock.toEpochUs(counters.data(), counters.size(), hostEpochUs(), times.data());
  for (size_t i = 0; i < frames.size(); ++i) {
    clock.lastUs = std::max(clock.lastUs, times[i]);
    frames[i].epochUs = clock.lastUs;
  }
}

bool DeviceSession::boardInfo(_WCAN_BOARD_INFO &info) {
  info = _WCAN_BOARD_INFO{};
  if (api_.WCAN_BoardInfoGet(type_.type, index_, &info) == 1)
    return true;
  // The CAN FD family answers the board information call with 0 by design;
  // for the others a 0 is a failure.
  if (type_.family == Family::CanFd)
    return false;
  fail("reading the board information");
}

std::string describeBoard(const DeviceSession &device, const _WCAN_BOARD_INFO *info) {
  const DeviceType &t = device.type();
  std::string s;
  s += "adapter:          type " + std::to_string(t.type) + " index " +
       std::to_string(device.index()) + " (" + familyName(t.family) + ")\n";
  s += "USB id:           " + hex4(t.vendorId) + ":" + hex4(t.productId) + "\n";
  if (!info) {
    s += "channels:         " + std::to_string(t.channels) + "\n";
    s += "board info:       not reported by this adapter family\n";
    return s;
  }
  s += "hardware version: 0x" + hex4(info->hwVersion) + "\n";
  s += "firmware version: 0x" + hex4(info->fwVersion) + "\n";
  s += "channels:         " + std::to_string(info->canNum) + "\n";
  std::string serial = boundedText(info->serialNum, sizeof info->serialNum);
  std::string hwType = boundedText(info->hwType, sizeof info->hwType);
  if (!serial.empty())
    s += "serial number:    " + serial + "\n";
  if (!hwType.empty())
    s += "hardware type:    " + hwType + "\n";
  return s;
}

} // namespace wcantool
