// SPDX-License-Identifier: MIT
// What the browser monitor needs from the server's buses, and nothing more:
// the server's internals (reader threads, sessions, deliveries) change
// without the monitor noticing. Everything here runs on the server's event
// loop thread.
#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "common/BusStats.h"
#include "common/Device.h"

namespace wcantool::web {

struct BusState {
  std::string name;
  bool running = false;
  bool fd = false;
  BusRates rates;
  unsigned clients = 0; // socketcand clients on the bus
  bool monitor = false; // the monitor holds the channel open
};

// A frame on a bus with its host time, microseconds since the epoch.
struct SeenFrame {
  Frame frame;
  int64_t timeUs = 0;
};

class BusListener {
public:
  virtual ~BusListener() = default;
  // Frames that reached `bus`; `own` when the monitor sent them. `failed`
  // frames of the monitor's the adapter did not take, and why.
  virtual void onFrames(const std::string &bus, bool own, const std::vector<SeenFrame> &frames,
                        size_t failed, const std::string &failure) = 0;
};

class BusAccess {
public:
  virtual ~BusAccess() = default;
  virtual void setListener(BusListener *listener) = 0;
  // The buses there are: the attached adapters' and every running one.
  virtual std::vector<BusState> buses() const = 0;
  // Starts a bus for the monitor with these settings (a running bus keeps
  // its own); `done` gets an empty text or the reason it cannot run.
  virtual void open(const std::string &bus, const ChannelSettings &settings,
                    std::function<void(const std::string &error)> done) = 0;
  // The monitor's use of a bus ends; the channel stops unless clients use it.
  virtual void close(const std::string &bus) = 0;
  // Queues frames for the bus; false with the reason when the bus is not
  // open for the monitor or a frame does not fit its channel.
  virtual bool send(const std::string &bus, const std::vector<Frame> &frames, bool cyclic,
                    std::string &why) = 0;
};

} // namespace wcantool::web
