// SPDX-License-Identifier: MIT
// `wcan serve` end to end: the server runs in this process on simulated
// adapters (loaded as the tool loads them), and a client reads over TCP on
// 127.0.0.1. Measured: one client on all eight channels of a type-66 adapter
// at the full CAN FD bus rate (the server's CPU, nothing lost), the same with
// the frames arriving as fast as the producers can put them on the bus, and
// the latency from the end of the adapter's bulk read to the client's read.
//
// Frames cross the simulated bus in real time unless WCAN_SIM_PACE=0; the
// unpaced measurement needs it: WCAN_SIM_PACE=0 bench_serve --benchmark_filter=Unpaced
#include <arpa/inet.h>
#include <benchmark/benchmark.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <pthread.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/SimRuntime.h"
#include "bench/TaskStats.h"
#include "server/Server.h"
#include "sim/wcan_sim.h"

namespace {

using Clock = std::chrono::steady_clock;
using wcantool::serve::Server;

// The threads of the process by what they do, told apart by their names, so
// that the server's own share is not mixed with the library's, the simulated
// bus's, the producers' and the client's.
enum class Role { EventLoop, DeviceThread, ChannelThreads, Library, Simulation, Producers, Other };

Role roleOf(const std::string &name) {
  auto endsWith = [&](const char *tail) {
    const size_t n = std::strlen(tail);
    return name.size() >= n && name.compare(name.size() - n, n, tail) == 0;
  };
  if (name.compare(0, 4, "wcan") == 0 && (endsWith(" rx") || endsWith(" fd") || endsWith(" tx")))
    return Role::ChannelThreads;
  if (name == "serve loop")
    return Role::EventLoop;
  // The server's device thread: it also makes the library calls that take
  // the received frames, so the library's receive path is in its share.
  if (name == "wcan devices")
    return Role::DeviceThread;
  // The library's own threads (an adapter's supervision and the shared USB
  // event thread), which also run the simulated adapter's USB transfers.
  if (name == "wcan adapter" || name == "wcan usb events")
    return Role::Library;
  if (name.compare(0, 7, "wcansim") == 0)
    return Role::Simulation;
  if (name == "producer")
    return Role::Producers;
  return Role::Other;
}

struct Usage {
  uint64_t cpuNs = 0;   // time on a CPU
  uint64_t wakeups = 0; // times a thread slept and woke again
};

std::map<Role, Usage> usageByRole() {
  std::map<Role, Usage> usage;
  for (const wcanbench::TaskStat &t : wcanbench::taskStats()) {
    Usage &u = usage[roleOf(t.name)];
    u.cpuNs += t.cpuNs;
    u.wakeups += t.wakeups;
  }
  return usage;
}

// Per second of `seconds` between two samples.
struct Rates {
  std::map<Role, Usage> before, after;
  double seconds;
  double cpuPct(Role r) {
    return 100.0 * static_cast<double>(after[r].cpuNs - before[r].cpuNs) / 1e9 / seconds;
  }
  double wakeups(Role r) {
    return static_cast<double>(after[r].wakeups - before[r].wakeups) / seconds;
  }
};

bool unpaced() {
  const char *v = std::getenv("WCAN_SIM_PACE");
  return v && std::strcmp(v, "0") == 0;
}

// A server on one freshly plugged simulated adapter, on its own thread.
class ServerOnAdapter {
public:
  explicit ServerOnAdapter(unsigned type) {
    simulatedRuntime();
    wcansim::reset();
    adapter_ = wcansim::plugIn(type);
    wcantool::serve::ServeOptions o;
    o.port = 0;
    o.settings.bitRate = 1000000;
    o.settings.dataBitRate = 5000000;
    o.settings.fd = true;
    server_ = std::make_unique<Server>(simulatedRuntime(), o);
    thread_ = std::thread([this] {
      pthread_setname_np(pthread_self(), "serve loop");
      server_->run(false);
    });
  }
  ~ServerOnAdapter() {
    server_->stop();
    thread_.join();
    server_.reset();
    wcansim::reset();
  }
  unsigned port() const { return server_->port(); }
  wcansim::AdapterId adapter() const { return adapter_; }

private:
  wcansim::AdapterId adapter_ = -1;
  std::unique_ptr<Server> server_;
  std::thread thread_;
};

// One raw-mode connection to a bus; counts the elements it reads.
class RawClient {
public:
  RawClient(unsigned port, const std::string &bus) {
    fd_ = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_port = htons(static_cast<uint16_t>(port));
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    ok_ = connect(fd_, reinterpret_cast<sockaddr *>(&a), sizeof a) == 0;
    int one = 1;
    setsockopt(fd_, IPPROTO_TCP, TCP_NODELAY, &one, sizeof one);
    ok_ = ok_ && expect("< hi >") && request("< open " + bus + " >", "< ok >") &&
          request("< rawmode >", "< ok >");
  }
  ~RawClient() { close(fd_); }
  bool ok() const { return ok_; }
  int fd() const { return fd_; }

  // Reads what is there (blocking until something is); returns the number
  // of elements completed.
  size_t readElements() {
    char buf[1 << 16];
    const ssize_t n = recv(fd_, buf, sizeof buf, 0);
    if (n <= 0)
      return 0;
    return static_cast<size_t>(std::count(buf, buf + n, '>'));
  }

private:
  bool expect(const std::string &want) {
    std::string got;
    char c = 0;
    while (got.size() < want.size() && recv(fd_, &c, 1, 0) == 1)
      got += c;
    return got == want;
  }
  bool request(const std::string &text, const std::string &reply) {
    return send(fd_, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()) &&
           expect(reply);
  }

  int fd_ = -1;
  bool ok_ = false;
};

wcansim::CanFrame fdFrame() {
  wcansim::CanFrame f;
  f.id = 0x321;
  f.fd = true;
  f.brs = true;
  f.len = 64;
  return f;
}

// Foreign nodes on the four buses of the adapter, injecting on the even
// channels (each frame reaches it and the cabled odd one). On an unpaced bus
// one thread per bus injects `perMs` frames every millisecond. On a paced
// bus an injection returns once the bus has carried the frame, and the bus
// hands finished frames over once a millisecond; 32 threads per bus keep
// about 25 frames (3.5 ms of bus time) queued behind the ones on their way,
// so a producer held up by a loaded machine never lets the bus fall idle:
// the bus sets the rate, the same in every run.
class Producers {
public:
  Producers(wcansim::AdapterId adapter, int perMs) {
    const bool paced = wcansim::pacing();
    const unsigned perBus = paced ? 32 : 1;
    for (unsigned i = 0; i < 4 * perBus; ++i) {
      const unsigned ch = 2 * (i / perBus);
      threads_.emplace_back([this, adapter, ch, perMs, paced] {
        pthread_setname_np(pthread_self(), "producer");
        const wcansim::CanFrame frame = fdFrame();
        auto next = Clock::now();
        while (!stop_.load()) {
          const int burst = paced ? 1 : perMs;
          for (int k = 0; k < burst; ++k)
            wcansim::injectFrame(adapter, ch, frame);
          injected_ += static_cast<uint64_t>(burst);
          if (!paced) {
            next += std::chrono::milliseconds(1);
            std::this_thread::sleep_until(next);
          }
        }
      });
    }
  }
  ~Producers() { stopNow(); }
  void stopNow() {
    stop_ = true;
    for (std::thread &t : threads_)
      if (t.joinable())
        t.join();
  }
  // Frames the clients should see: each injection reaches two channels.
  uint64_t expected() const { return 2 * injected_.load(); }

private:
  std::atomic<bool> stop_{false};
  std::atomic<uint64_t> injected_{0};
  std::vector<std::thread> threads_;
};

// Reads every client until `until` says stop; returns the elements read.
template <typename Until>
uint64_t readAll(std::vector<std::unique_ptr<RawClient>> &clients, Until until) {
  std::vector<pollfd> fds;
  for (auto &c : clients)
    fds.push_back({c->fd(), POLLIN, 0});
  uint64_t total = 0;
  while (!until(total)) {
    if (poll(fds.data(), fds.size(), 100) <= 0)
      continue;
    for (size_t i = 0; i < fds.size(); ++i)
      if (fds[i].revents & POLLIN)
        total += clients[i]->readElements();
  }
  return total;
}

std::vector<std::unique_ptr<RawClient>> clientsOnAllChannels(unsigned port) {
  std::vector<std::unique_ptr<RawClient>> clients;
  for (unsigned ch = 0; ch < 8; ++ch)
    clients.push_back(std::make_unique<RawClient>(port, "wcan66-0-" + std::to_string(ch)));
  return clients;
}

// One client on all 8 channels of a type 66 at `perMs` frames per channel
// pair and millisecond for 3 s: frames per second received and offered, and
// the server's CPU (everything but the client and the producers). With
// `countLost`, what never arrives once the producers stop.
void runEightChannels(benchmark::State &state, int perMs, bool countLost) {
  ServerOnAdapter server(66);
  auto clients = clientsOnAllChannels(server.port());
  for (auto &c : clients)
    if (!c->ok()) {
      state.SkipWithError("could not open the buses");
      return;
    }
  for (auto _ : state) {
    Producers producers(server.adapter(), perMs);
    Rates rates;
    rates.before = usageByRole();
    const auto start = Clock::now();
    const uint64_t received =
        readAll(clients, [&](uint64_t) { return Clock::now() - start > std::chrono::seconds(3); });
    rates.seconds = std::chrono::duration<double>(Clock::now() - start).count();
    rates.after = usageByRole();
    const uint64_t offered = producers.expected();
    producers.stopNow();
    state.counters["frames_per_s"] = static_cast<double>(received) / rates.seconds;
    state.counters["offered_per_s"] = static_cast<double>(offered) / rates.seconds;
    // The server's own threads; the library's threads (with the simulated
    // adapter's transfers), the simulated bus, the producers and the client
    // are given apart.
    const Role server[] = {Role::EventLoop, Role::DeviceThread, Role::ChannelThreads};
    double cpu = 0, wakeups = 0;
    for (Role r : server) {
      cpu += rates.cpuPct(r);
      wakeups += rates.wakeups(r);
    }
    const double framesPerS = static_cast<double>(received) / rates.seconds;
    state.counters["server_cpu_pct"] = cpu;
    state.counters["server_cpu_pct_per_kfps"] = framesPerS > 0 ? cpu / (framesPerS / 1000) : 0;
    state.counters["server_wakeups_per_s"] = wakeups;
    state.counters["event_loop_cpu_pct"] = rates.cpuPct(Role::EventLoop);
    state.counters["device_thread_cpu_pct"] = rates.cpuPct(Role::DeviceThread);
    state.counters["channel_threads_cpu_pct"] = rates.cpuPct(Role::ChannelThreads);
    state.counters["library_cpu_pct"] = rates.cpuPct(Role::Library);
    state.counters["library_wakeups_per_s"] = rates.wakeups(Role::Library);
    state.counters["sim_bus_cpu_pct"] = rates.cpuPct(Role::Simulation);
    state.counters["producers_cpu_pct"] = rates.cpuPct(Role::Producers);
    if (countLost) {
      const auto drainEnd = Clock::now() + std::chrono::seconds(2);
      const uint64_t late = readAll(clients, [&](uint64_t more) {
        return received + more >= producers.expected() || Clock::now() > drainEnd;
      });
      state.counters["lost"] = static_cast<double>(producers.expected() -
                                                   std::min(received + late, producers.expected()));
    }
  }
}

// Full bus load: a CAN FD bus at 1 / 5 Mbit/s carries about 7 frames of 64
// bytes per millisecond, 56,000 frames/s over the eight channels; these
// frames' zero bytes carry stuff bits, so the paced buses carry about 6,250
// per bus and second, 50,000 frames/s. On an unpaced bus the
// producers hold 7 frames/ms per bus themselves.
void BM_EightChannelsFullBusLoad(benchmark::State &state) { runEightChannels(state, 7, true); }
BENCHMARK(BM_EightChannelsFullBusLoad)->Iterations(1)->Unit(benchmark::kMillisecond);

// As many frames as the producers can put on an unpaced bus; the simulated
// adapters drop what their USB side cannot carry.
void BM_EightChannelsUnpaced(benchmark::State &state) {
  if (!unpaced()) {
    state.SkipWithError("needs WCAN_SIM_PACE=0");
    return;
  }
  runEightChannels(state, 60, false);
}
BENCHMARK(BM_EightChannelsUnpaced)->Iterations(1)->Unit(benchmark::kMillisecond);

// One client on one bus, frames arriving as fast as a producer can put them
// on an unpaced bus: frames per second through the server.
void BM_OneBusUnpaced(benchmark::State &state) {
  if (!unpaced()) {
    state.SkipWithError("needs WCAN_SIM_PACE=0");
    return;
  }
  ServerOnAdapter server(41);
  std::vector<std::unique_ptr<RawClient>> clients;
  clients.push_back(std::make_unique<RawClient>(server.port(), "wcan41-0-1"));
  if (!clients[0]->ok()) {
    state.SkipWithError("could not open the bus");
    return;
  }
  for (auto _ : state) {
    std::atomic<bool> stop{false};
    std::atomic<uint64_t> injected{0};
    std::thread producer([&] {
      const wcansim::CanFrame frame = fdFrame();
      while (!stop.load()) {
        for (int i = 0; i < 64; ++i)
          wcansim::injectFrame(server.adapter(), 0, frame);
        injected += 64;
        std::this_thread::yield();
      }
    });
    const auto start = Clock::now();
    const uint64_t received =
        readAll(clients, [&](uint64_t) { return Clock::now() - start > std::chrono::seconds(3); });
    const double seconds = std::chrono::duration<double>(Clock::now() - start).count();
    stop = true;
    producer.join();
    state.counters["frames_per_s"] = static_cast<double>(received) / seconds;
    state.counters["offered_per_s"] = static_cast<double>(injected.load()) / seconds;
  }
}
BENCHMARK(BM_OneBusUnpaced)->Iterations(1)->Unit(benchmark::kMillisecond);

// From the end of the bulk read that carried a frame to the client's read
// returning it, with the client already waiting.
void BM_LatencyToClient(benchmark::State &state) {
  ServerOnAdapter server(41);
  RawClient client(server.port(), "wcan41-0-1");
  if (!client.ok()) {
    state.SkipWithError("could not open the bus");
    return;
  }
  const wcansim::CanFrame frame = fdFrame();
  std::vector<double> micros;
  for (auto _ : state) {
    std::atomic<bool> waiting{false};
    std::thread injector([&] {
      while (!waiting.load())
        std::this_thread::yield();
      std::this_thread::sleep_for(std::chrono::microseconds(300));
      wcansim::injectFrame(server.adapter(), 1, frame);
    });
    waiting = true;
    const size_t n = client.readElements();
    const Clock::time_point readAt = Clock::now();
    injector.join();
    if (n != 1) {
      state.SkipWithError("not one frame per read");
      return;
    }
    const Clock::time_point readEnd{
        std::chrono::nanoseconds(wcansim::lastReadEndNs(server.adapter(), 0x83))};
    micros.push_back(std::chrono::duration<double, std::micro>(readAt - readEnd).count());
  }
  std::sort(micros.begin(), micros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
}
BENCHMARK(BM_LatencyToClient)->Iterations(2000)->Unit(benchmark::kMicrosecond);

} // namespace
