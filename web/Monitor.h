// SPDX-License-Identifier: MIT
// The browser monitor's state, shared by every browser: per bus its load
// and its identifier table (the statistics `wcan top` shows), the loaded CAN
// database, and per browser what it watches and the frames waiting for its
// next update. Browsers get one JSON update per tick, and only when their
// previous one has gone out: a slow browser misses frames (counted, and
// shown on its page) and never holds up the buses or the other browsers.
// Everything runs on the server's event loop thread.
#pragma once

#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <nlohmann/json_fwd.hpp>

#include <chrono>
#include <cmath>
#include <cstdint>
#include <deque>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

#include "common/BusStats.h"
#include "web/BusAccess.h"
#include "web/Signals.h"

namespace wcantool::web {

// One browser's connection, as the monitor sees it.
class Viewer {
public:
  virtual ~Viewer() = default;
  // Whether everything sent so far has gone out.
  virtual bool idle() const = 0;
  virtual void post(std::string text) = 0;
};

struct MonitorLimits {
  std::chrono::milliseconds tick{100};
  size_t traceFramesPerTick = 250; // frames a browser's trace gets per update
  size_t samplesPerTick = 2000;    // signal values per update
  size_t loadHistory = 600;        // seconds of load kept for the chart
  unsigned tableEvery = 5;         // ticks between identifier tables
  size_t recordFrames = 100000;    // frames each page's pcapng download keeps
};

class Monitor : public BusListener {
public:
  Monitor(boost::asio::io_context &io, BusAccess &buses, MonitorLimits limits = {});
  ~Monitor() override;
  Monitor(const Monitor &) = delete;
  Monitor &operator=(const Monitor &) = delete;

  void start();
  void stop();

  void attach(Viewer &viewer);
  void detach(Viewer &viewer);
  // A browser's request (JSON); answers and errors go back to it.
  void command(Viewer &viewer, std::string_view text);
  // A DBC file uploaded from a page: the JSON reply, and every page learns
  // the new signals.
  std::string loadDbc(std::string_view text);
  // What the server sent the page of this session (its number is in the
  // page's hello) since it connected or cleared its trace, as pcapng; empty
  // when no page has that session.
  std::optional<std::string> recordPcapng(uint64_t session) const;

  void onFrames(const std::string &bus, bool own, const std::vector<SeenFrame> &frames,
                size_t failed, const std::string &failure) override;

private:
  struct BusStatsEntry {
    std::string name;
    ChannelLoad load;
    uint64_t frames = 0;
    std::chrono::steady_clock::time_point loadSince;
  };
  struct TraceFrame {
    SeenFrame seen;
    unsigned bus;
    bool own;
  };
  struct Cycle;
  struct ViewerState;

  unsigned busIndex(const std::string &name);
  void refreshBuses();
  void tick();
  void everySecond();
  void collect(ViewerState &v, const TraceFrame &f);
  void sampleSignals(const TraceFrame &f);
  void sendUpdate(ViewerState &v, bool withTable);
  void keepRecord(ViewerState &v, const std::vector<TraceFrame> &frames) const;
  std::string hello(uint64_t session) const;
  std::string busesJson() const;
  std::string dbcJson() const;
  std::string tableJson(const ViewerState &v) const;
  void broadcast(const std::string &text);

  void handle(ViewerState &v, const std::string &op, const nlohmann::json &request);
  void openBus(ViewerState &v, const nlohmann::json &request);
  void configureView(ViewerState &v, const nlohmann::json &request);
  bool frameOf(const nlohmann::json &request, Frame &out, std::string &error) const;
  void sendOnce(ViewerState &v, const nlohmann::json &request);
  void startCycle(ViewerState &v, const nlohmann::json &request);
  void armCycle(const std::shared_ptr<Cycle> &cycle);
  void stopCycle(ViewerState &v, const std::string &key);
  void pickSignals(ViewerState &v, const nlohmann::json &request);
  void reply(Viewer &viewer, const char *kind, const std::string &message);

  boost::asio::io_context &io_;
  BusAccess &access_;
  const MonitorLimits limits_;
  boost::asio::steady_timer tickTimer_;
  boost::asio::steady_timer secondTimer_;
  bool stopped_ = true;
  unsigned ticks_ = 0;

  std::vector<BusStatsEntry> stats_;
  std::unordered_map<std::string, unsigned> busByName_;
  std::vector<BusState> busStates_;
  IdTable ids_{30};
  // Per second: epoch milliseconds and each bus's load (NaN: not running).
  std::deque<std::pair<int64_t, std::vector<double>>> loadHistory_;

  Signals signals_;
  uint64_t dbcVersion_ = 0;
  std::vector<SignalValue> scratch_;
  std::map<Viewer *, std::unique_ptr<ViewerState>> viewers_;
  uint64_t lastSession_ = 0;
};

} // namespace wcantool::web
