// SPDX-License-Identifier: MIT
// One opened adapter, as the subcommands use it: opened on construction and
// closed on destruction (also when a subcommand ends by Ctrl-C or an error),
// with channel initialisation, frame transmission and reception over the
// library's records.
#pragma once

#include <chrono>
#include <map>
#include <string>
#include <vector>

#include "common/DeviceClock.h"
#include "common/DeviceTypes.h"
#include "common/FrameSyntax.h"
#include "common/Runtime.h"

namespace wcantool {

struct ChannelSettings {
  unsigned bitRate = 500000;
  unsigned dataBitRate = 2000000;
  bool fd = false;
  bool listenOnly = false;
};

// A received frame with the adapter's time stamp, raw and as host epoch
// microseconds (through the channel's DeviceClock).
struct RxFrame {
  Frame frame;
  uint32_t deviceTime = 0;
  int64_t epochUs = 0;
};

// Checks the device type argument; throws UsageError.
const DeviceType &checkedDeviceType(unsigned type);

// Checks, before any adapter is opened, that a channel of this type can run
// with these settings and send these frames; throws UsageError.
void checkChannelUse(const DeviceType &type, unsigned channel, const ChannelSettings &settings,
                     const std::vector<Frame> &frames = {});

class DeviceSession {
public:
  // Opens the adapter; throws ToolError with the library's reason.
  DeviceSession(const Runtime &runtime, unsigned type, unsigned index);
  ~DeviceSession();
  DeviceSession(const DeviceSession &) = delete;
  DeviceSession &operator=(const DeviceSession &) = delete;

  const DeviceType &type() const { return type_; }
  unsigned index() const { return index_; }
  std::string name() const; // "41/0"

  // Initialises and starts a channel; throws UsageError for a bit rate the
  // adapter cannot use and ToolError when the adapter refuses.
  void startChannel(unsigned channel, const ChannelSettings &settings);

  // Sends frames in order; returns how many the library accepted. Throws
  // UsageError for CAN FD frames on a classic adapter.
  size_t send(unsigned channel, const std::vector<Frame> &frames);

  // Appends what arrived on a channel, waiting up to waitMs for the first
  // frame. Classic and CAN FD frames come from separate queues and are
  // merged by the adapter's time stamp, which the channel's clock (restarted
  // with the channel) turns into epoch time frame by frame.
  size_t receive(unsigned channel, std::vector<RxFrame> &out, int waitMs);

  // For an adapter that came back after it was lost: its counter restarted,
  // so the channel's clock anchors again on the next frame.
  void restartClock(unsigned channel);

  // Board information; false when the adapter family does not report it.
  bool boardInfo(_WCAN_BOARD_INFO &info);

  // Throws ToolError "<what> failed on <name>: <library reason>".
  [[noreturn]] void fail(const std::string &what) const;

private:
  void startClassic(unsigned channel, const ChannelSettings &settings);
  void startCanFd(unsigned channel, const ChannelSettings &settings);
  size_t sendRun(unsigned channel, const Frame *frames, size_t count);
  void stampInOrder(unsigned channel, std::vector<RxFrame> &frames);
  void noteQueued(unsigned channel, const Frame *frames, size_t count);
  void awaitBusTime() const;

  const Runtime &runtime_;
  const WcanApi &api_;
  const DeviceType &type_;
  unsigned index_;
  // A channel's clock, and the last time it handed out: a frame of the other
  // queue handed over after later ones were returned takes that time.
  struct ChannelClock {
    DeviceClock clock;
    int64_t lastUs = 0;
  };
  std::map<unsigned, ChannelClock> clocks_;
  std::map<unsigned, ChannelSettings> started_;
  // When the frames handed to the adapter are through on an idle bus.
  std::chrono::steady_clock::time_point busFreeAt_{};
};

// Board information as "key: value" lines for `info` and the demo.
std::string describeBoard(const DeviceSession &device, const _WCAN_BOARD_INFO *info);

} // namespace wcantool
