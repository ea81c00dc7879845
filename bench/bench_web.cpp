// SPDX-License-Identifier: MIT
// The browser monitor under full load: `wcan serve --web` runs in this
// process on a simulated type-66 adapter whose eight paced CAN FD buses are
// kept full by foreign nodes, and a WebSocket client stands in for one
// browser watching all eight channels. Measured: the server's CPU with the
// browser attached and with the monitor alone (its statistics), the bytes a
// browser receives per second, and how far its updates trail the bus.
#include <benchmark/benchmark.h>
#include <pthread.h>

#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <nlohmann/json.hpp>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/SimRuntime.h"
#include "bench/TaskStats.h"
#include "server/Server.h"
#include "sim/wcan_sim.h"
#include "web/Monitor.h"
#include "web/ServerBuses.h"
#include "web/WebServer.h"

namespace {

using Clock = std::chrono::steady_clock;
namespace beast = boost::beast;
namespace websocket = beast::websocket;
using tcp = boost::asio::ip::tcp;
using json = nlohmann::json;

// CPU time of this process's threads whose names start with one of `prefixes`.
uint64_t cpuNsOf(const std::vector<std::string> &prefixes) {
  uint64_t total = 0;
  for (const wcanbench::TaskStat &t : wcanbench::taskStats())
    for (const std::string &p : prefixes)
      if (t.name.compare(0, p.size(), p) == 0) {
        total += t.cpuNs;
        break;
      }
  return total;
}

const std::vector<std::string> kEventLoop = {"serve loop"};
const std::vector<std::string> kServer = {"serve loop", "wcan devices", "wcan66"};

// The server with its monitor, on the event loop thread as in the tool.
class ServerWithMonitor {
public:
  ServerWithMonitor() {
    simulatedRuntime();
    wcansim::reset();
    adapter = wcansim::plugIn(66);
    wcantool::serve::ServeOptions o;
    o.port = 0;
    server = std::make_unique<wcantool::serve::Server>(simulatedRuntime(), o);
    buses = std::make_unique<wcantool::web::ServerBuses>(*server, std::vector<std::string>{});
    monitor = std::make_unique<wcantool::web::Monitor>(server->io(), *buses);
    wcantool::web::WebOptions w;
    w.port = 0;
    w.token = "bench";
    web = std::make_unique<wcantool::web::WebServer>(server->io(), *monitor, w);
    monitor->start();
    web->start();
    server->onShutdown([this] {
      web->stop();
      monitor->stop();
    });
    thread = std::thread([this] {
      pthread_setname_np(pthread_self(), "serve loop");
      server->run(false);
    });
  }
  ~ServerWithMonitor() {
    server->stop();
    thread.join();
    web.reset();
    monitor.reset();
    buses.reset();
    server.reset();
    wcansim::reset();
  }

  wcansim::AdapterId adapter = -1;
  std::unique_ptr<wcantool::serve::Server> server;
  std::unique_ptr<wcantool::web::ServerBuses> buses;
  std::unique_ptr<wcantool::web::Monitor> monitor;
  std::unique_ptr<wcantool::web::WebServer> web;
  std::thread thread;
};

// One browser: opens the eight buses for CAN FD at 1 / 5 Mbit/s and reads
// the feed on its own thread.
class Browser {
public:
  explicit Browser(unsigned port) : ws_(io_) {
    tcp::resolver resolver(io_);
    beast::get_lowest_layer(ws_).connect(
        *resolver.resolve("127.0.0.1", std::to_string(port)).begin());
    ws_.handshake("127.0.0.1:" + std::to_string(port), "/ws?token=bench");
    for (unsigned ch = 0; ch < 8; ++ch)
      ws_.write(boost::asio::buffer(json{
          {"op", "open"},
          {"bus", "wcan66-0-" + std::to_string(ch)},
          {"bitrate", 1000000},
          {"dbitrate", 5000000},
          {"fd", true}}.dump()));
    unsigned running = 0;
    while (running < 8) {
      const json m = next();
      if (m["t"] == "ok")
        ++running;
      else if (m["t"] == "error")
        throw std::runtime_error(m["msg"].get<std::string>());
    }
    reader_ = std::thread([this] { readLoop(); });
  }
  ~Browser() {
    stop_ = true;
    beast::get_lowest_layer(ws_).close();
    reader_.join();
  }

  std::atomic<uint64_t> bytes{0}, frames{0}, updates{0}, missed{0};
  std::atomic<int64_t> maxLagUs{0};
  std::atomic<uint64_t> lagSumUs{0}, lagCount{0};
  std::atomic<double> busFramesPerS{0}, meanLoadPct{0};

private:
  json next() {
    beast::flat_buffer buffer;
    ws_.read(buffer);
    bytes += buffer.size();
    return json::parse(beast::buffers_to_string(buffer.data()));
  }

  void readLoop() {
    pthread_setname_np(pthread_self(), "browser");
    try {
      while (!stop_) {
        const json m = next();
        if (m["t"] == "second") {
          double fps = 0, load = 0;
          for (const json &b : m["buses"])
            if (b["running"].get<bool>()) {
              fps += b["fps"].get<double>();
              load += b["load"].get<double>() / 8;
            }
          busFramesPerS = fps;
          meanLoadPct = load;
        }
        if (m["t"] != "update")
          continue;
        ++updates;
        missed = m["missed"].get<uint64_t>();
        const auto &f = m["frames"];
        frames += f.size();
        if (f.empty())
          continue;
        const wcantool::LogTime now = wcantool::logTimeNow();
        const int64_t nowUs = static_cast<int64_t>(now.seconds) * 1000000 + now.micros;
        const int64_t lag = nowUs - f.back()[0].get<int64_t>();
        lagSumUs += static_cast<uint64_t>(std::max<int64_t>(lag, 0));
        ++lagCount;
        if (lag > maxLagUs)
          maxLagUs = lag;
      }
    } catch (const std::exception &) {
      // The connection closed at the end.
    }
  }

  boost::asio::io_context io_;
  websocket::stream<beast::tcp_stream> ws_;
  std::thread reader_;
  std::atomic<bool> stop_{false};
};

// Foreign nodes on the even channels (each frame reaches the cabled odd one
// too); on a paced bus an injection returns once the bus carried the frame,
// so sixteen threads per bus keep it full.
class Producers {
public:
  explicit Producers(wcansim::AdapterId adapter) {
    for (unsigned i = 0; i < 64; ++i)
      threads_.emplace_back([this, adapter, i] {
        pthread_setname_np(pthread_self(), "producer");
        wcansim::CanFrame frame;
        frame.id = 0x100 + i % 16;
        frame.fd = frame.brs = true;
        frame.len = 64;
        while (!stop_)
          wcansim::injectFrame(adapter, 2 * (i / 16), frame);
      });
  }
  ~Producers() {
    stop_ = true;
    for (std::thread &t : threads_)
      t.join();
  }

private:
  std::atomic<bool> stop_{false};
  std::vector<std::thread> threads_;
};

double cpuPct(uint64_t ns, double seconds) {
  return 100.0 * static_cast<double>(ns) / 1e9 / seconds;
}

void BM_BrowserOnEightFullBuses(benchmark::State &state) {
  ServerWithMonitor server;
  for (auto _ : state) {
    auto browser = std::make_unique<Browser>(server.web->port());
    Producers producers(server.adapter);
    std::this_thread::sleep_for(std::chrono::seconds(1)); // the buses fill up
    const uint64_t loop0 = cpuNsOf(kEventLoop), all0 = cpuNsOf(kServer);
    const uint64_t bytes0 = browser->bytes, frames0 = browser->frames;
    const auto t0 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const double s1 = std::chrono::duration<double>(Clock::now() - t0).count();
    state.counters["loop_cpu_pct_browser"] = cpuPct(cpuNsOf(kEventLoop) - loop0, s1);
    state.counters["server_cpu_pct_browser"] = cpuPct(cpuNsOf(kServer) - all0, s1);
    state.counters["browser_kB_per_s"] = static_cast<double>(browser->bytes - bytes0) / 1e3 / s1;
    state.counters["trace_frames_per_s"] = static_cast<double>(browser->frames - frames0) / s1;
    state.counters["lag_mean_ms"] =
        static_cast<double>(browser->lagSumUs) / 1e3 / std::max<uint64_t>(browser->lagCount, 1);
    state.counters["lag_max_ms"] = static_cast<double>(browser->maxLagUs) / 1e3;
    state.counters["missed"] = static_cast<double>(browser->missed);
    state.counters["bus_frames_per_s"] = browser->busFramesPerS.load();
    state.counters["bus_load_pct"] = browser->meanLoadPct.load();
    // The monitor alone: it still holds the buses and keeps their statistics.
    browser.reset();
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    const uint64_t loop1 = cpuNsOf(kEventLoop), all1 = cpuNsOf(kServer);
    const auto t1 = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(5));
    const double s2 = std::chrono::duration<double>(Clock::now() - t1).count();
    state.counters["loop_cpu_pct_no_browser"] = cpuPct(cpuNsOf(kEventLoop) - loop1, s2);
    state.counters["server_cpu_pct_no_browser"] = cpuPct(cpuNsOf(kServer) - all1, s2);
  }
}
BENCHMARK(BM_BrowserOnEightFullBuses)->Iterations(1)->Unit(benchmark::kMillisecond);

} // namespace
