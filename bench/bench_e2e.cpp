// SPDX-License-Identifier: MIT
// End to end through the simulated adapters: host transmit on channel 0 to
// host receive on channel 1, the latency from a frame reaching the adapter to
// the host's receive call returning it, receive-only traffic on the eight
// channels of a type-66 adapter, and the CPU the library's own threads use at
// the full CAN FD bus rate and while a host waits on an idle bus.
//
// The simulated adapters answer the library's USB transfers on the library's
// event thread; the CPU figures give that share (wcansim::deviceServiceNs)
// apart from the library's.
#include <benchmark/benchmark.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <set>
#include <thread>
#include <vector>

#include "bench/TaskStats.h"
#include "sim/wcan_sim.h"
#include "wcan.h"

namespace {

using Clock = std::chrono::steady_clock;

pid_t threadId() { return static_cast<pid_t>(syscall(SYS_gettid)); }

// Nanoseconds on the CPU of every thread of the process except `excluded`.
uint64_t cpuNsExcept(const std::set<pid_t> &excluded) {
  uint64_t total = 0;
  for (const wcanbench::TaskStat &t : wcanbench::taskStats())
    if (excluded.count(t.tid) == 0)
      total += t.cpuNs;
  return total;
}

// Context switches (voluntary and not) of every thread of the process except
// `excluded`: each one is a wake-up of a sleeping or preempted thread.
uint64_t contextSwitchesExcept(const std::set<pid_t> &excluded) {
  uint64_t total = 0;
  for (const wcanbench::TaskStat &t : wcanbench::taskStats())
    if (excluded.count(t.tid) == 0)
      total += t.wakeups + t.preemptions;
  return total;
}

uint64_t threadCpuNs() {
  timespec ts{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &ts);
  return static_cast<uint64_t>(ts.tv_sec) * 1000000000ull + static_cast<uint64_t>(ts.tv_nsec);
}

// One opened CAN FD adapter of `type` with its first `channels` channels
// initialised and started; closed again at scope end.
class FdAdapter {
public:
  FdAdapter(unsigned type, unsigned channels) : type_(type) {
    // The figures are the library's: frames cross the simulated bus at once
    // instead of in the time their bits take.
    wcansim::setPacing(false);
    wcansim::reset();
    adapter_ = wcansim::plugIn(type);
    ok_ = adapter_ >= 0 && WCAN_OpenDevice(type, 0) == 1;
    for (unsigned ch = 0; ok_ && ch < channels; ++ch) {
      _WCAN_INITFD_CONFIG c{};
      c.abitRate = 1000000;
      c.dbitRate = 5000000;
      c.fdEnable = 1;
      ok_ = WCAN_InitCANFD(type, 0, ch, &c) == 1;
    }
  }
  ~FdAdapter() {
    WCAN_CloseDevice(type_, 0);
    wcansim::reset();
  }
  bool ok() const { return ok_; }
  unsigned type() const { return type_; }
  wcansim::AdapterId id() const { return adapter_; }

private:
  unsigned type_;
  wcansim::AdapterId adapter_ = -1;
  bool ok_ = false;
};

wcansim::CanFrame busFrame(uint32_t id) {
  wcansim::CanFrame f;
  f.id = id;
  f.fd = true;
  f.brs = true;
  f.len = 64;
  return f;
}

// Frames per second from channel 0 to channel 1: bursts of 100 frames (ten
// bulk frames of ten records), each burst received in full before the next.
void BM_HostToHostCanFd(benchmark::State &state) {
  FdAdapter dev(41, 2);
  if (!dev.ok()) {
    state.SkipWithError("adapter did not come up");
    return;
  }
  std::vector<_WCAN_CANFD_OBJ> batch(10);
  for (auto &f : batch) {
    f.id = 0x123;
    f.dataLen = 64;
    f.fdFlags = WCAN_FDFLAG_FDF | WCAN_FDFLAG_BRS;
  }
  _WCAN_CANFD_OBJ in[256];
  int64_t frames = 0;
  for (auto _ : state) {
    int sent = 0;
    for (int b = 0; b < 10; ++b) {
      sent += WCAN_TransmitFD(dev.type(), 0, 0, batch.data(), 10);
    }
    int got = 0;
    while (got < sent) {
      const int n = WCAN_ReceiveFD(dev.type(), 0, 1, in, 256, 1000);
      if (n <= 0) {
        state.SkipWithError("frames lost");
        return;
      }
      got += n;
    }
    frames += got;
  }
  state.SetItemsProcessed(frames);
}
BENCHMARK(BM_HostToHostCanFd)->UseRealTime()->Unit(benchmark::kMicrosecond);

// From a frame reaching the adapter (the bus delivers it, the adapter queues
// it for its next bulk read) to the host's blocked receive call returning it:
// an upper bound of the time from the end of the bulk read to the return.
void BM_ReceiveLatencyCanFd(benchmark::State &state) {
  FdAdapter dev(41, 2);
  if (!dev.ok()) {
    state.SkipWithError("adapter did not come up");
    return;
  }
  std::vector<double> micros, busMicros;
  const wcansim::CanFrame frame = busFrame(0x55);
  _WCAN_CANFD_OBJ got;
  for (auto _ : state) {
    std::atomic<bool> ready{false};
    Clock::time_point sentAt;
    std::thread injector([&] {
      while (!ready.load()) {
        std::this_thread::yield();
      }
      std::this_thread::sleep_for(std::chrono::microseconds(200));
      sentAt = Clock::now();
      wcansim::injectFrame(dev.id(), 1, frame);
    });
    ready = true;
    const int n = WCAN_ReceiveFD(dev.type(), 0, 1, &got, 1, 1000);
    const Clock::time_point returnedAt = Clock::now();
    injector.join();
    if (n != 1) {
      state.SkipWithError("frame lost");
      return;
    }
    // From the end of the bulk read that carried the frame to the host's
    // return; the bus-to-read part is the simulated adapter's own wait.
    const Clock::time_point readEnd{
        std::chrono::nanoseconds(wcansim::lastReadEndNs(dev.id(), 0x83))};
    micros.push_back(std::chrono::duration<double, std::micro>(returnedAt - readEnd).count());
    busMicros.push_back(std::chrono::duration<double, std::micro>(returnedAt - sentAt).count());
    WCAN_ClearBuffer(dev.type(), 0, 0);
  }
  std::sort(micros.begin(), micros.end());
  std::sort(busMicros.begin(), busMicros.end());
  state.counters["p50_us"] = micros[micros.size() / 2];
  state.counters["p99_us"] = micros[micros.size() * 99 / 100];
  state.counters["from_bus_p50_us"] = busMicros[busMicros.size() / 2];
}
BENCHMARK(BM_ReceiveLatencyCanFd)->Iterations(2000)->Unit(benchmark::kMicrosecond);

// Producer injecting frames on the even channels of a type-66 adapter (each
// reaches its channel and the cabled odd one), `perPairPerMs` frames per
// channel pair every millisecond.
class Producer {
public:
  Producer(wcansim::AdapterId adapter, int perPairPerMs) {
    thread_ = std::thread([this, adapter, perPairPerMs] {
      tid_ = threadId();
      const wcansim::CanFrame frame = busFrame(0x321);
      auto next = Clock::now();
      while (!stop_.load()) {
        for (int r = 0; r < perPairPerMs; ++r) {
          for (unsigned ch = 0; ch < 8; ch += 2) {
            wcansim::injectFrame(adapter, ch, frame);
          }
        }
        next += std::chrono::milliseconds(1);
        std::this_thread::sleep_until(next);
      }
    });
    while (tid_.load() == 0) {
      std::this_thread::yield();
    }
  }
  ~Producer() {
    stop_ = true;
    thread_.join();
  }
  pid_t tid() const { return tid_; }

private:
  std::atomic<bool> stop_{false};
  std::atomic<pid_t> tid_{0};
  std::thread thread_;
};

// Receive-only: the type-66 adapter streams a backlog of 64-byte CAN FD
// frames on all 8 channels as fast as the library reads it (one block of
// records encoded once, handed out in whole 4096-byte transfers), and the
// host sweeps the channels until it has every record of the round,
// yielding the processor when a sweep finds nothing (a host that spins
// would take the core the library decodes on; one that sleeps in a receive
// would be woken for every transfer). The adapter side costs
// a copy per transfer, so the figure is the library's.
void BM_ReceiveOnly8Channels(benchmark::State &state) {
  FdAdapter dev(66, 8);
  if (!dev.ok()) {
    state.SkipWithError("adapter did not come up");
    return;
  }
  // As many records as fill one data frame of the adapter, spread over the
  // channels in turn.
  constexpr unsigned kRecordsPerBlock = 54;
  constexpr uint64_t kBlocksPerRound = 256;
  std::vector<wcansim::ChannelFrame> block;
  for (unsigned i = 0; i < kRecordsPerBlock; ++i) {
    block.push_back({i % 8, busFrame(0x321)});
  }
  _WCAN_CANFD_OBJ in[512];
  int64_t frames = 0;
  const std::set<pid_t> host{threadId()};
  const uint64_t libraryCpuBefore = cpuNsExcept(host);
  const uint64_t deviceBefore = wcansim::deviceServiceNs();
  const uint64_t hostCpuBefore = threadCpuNs();
  for (auto _ : state) {
    if (!wcansim::streamBacklog(dev.id(), block, kBlocksPerRound)) {
      state.SkipWithError("no backlog");
      return;
    }
    int64_t got = 0;
    while (got < static_cast<int64_t>(kRecordsPerBlock * kBlocksPerRound)) {
      int swept = 0;
      for (unsigned ch = 0; ch < 8; ++ch) {
        swept += std::max(0, WCAN_ReceiveFD(dev.type(), 0, ch, in, 512, 0));
      }
      if (swept == 0) {
        std::this_thread::yield();
      }
      got += swept;
    }
    frames += got;
  }
  state.SetItemsProcessed(frames);
  // CPU per record, which the load of a shared machine does not change: the
  // library's threads (less the simulated adapter's work on its event
  // thread, given apart), and the host's receive calls.
  const auto perRecord = [frames](uint64_t ns) {
    return frames > 0 ? static_cast<double>(ns) / static_cast<double>(frames) : 0.0;
  };
  const uint64_t device = wcansim::deviceServiceNs() - deviceBefore;
  state.counters["library_ns_per_record"] =
      perRecord(std::max(cpuNsExcept(host) - libraryCpuBefore, device) - device);
  state.counters["sim_device_ns_per_record"] = perRecord(device);
  state.counters["host_ns_per_record"] = perRecord(threadCpuNs() - hostCpuBefore);
}
BENCHMARK(BM_ReceiveOnly8Channels)->UseRealTime()->MinTime(3.0);

// CPU of the library's own threads at the full CAN FD bus rate on all eight
// channels (7 frames per channel per millisecond), with a host collecting
// every millisecond.
void BM_LibraryCpuAtFullBusRate(benchmark::State &state) {
  FdAdapter dev(66, 8);
  if (!dev.ok()) {
    state.SkipWithError("adapter did not come up");
    return;
  }
  Producer producer(dev.id(), 7);
  const std::set<pid_t> host{getpid(), producer.tid()};
  _WCAN_CANFD_OBJ in[512];
  int64_t frames = 0;
  double seconds = 0;
  uint64_t cpu = 0, device = 0, callbacks = 0;
  for (auto _ : state) {
    const uint64_t cpuBefore = cpuNsExcept(host);
    const uint64_t deviceBefore = wcansim::deviceServiceNs();
    const uint64_t callbacksBefore = wcansim::transferCallbackNs();
    const auto start = Clock::now();
    while (Clock::now() - start < std::chrono::seconds(3)) {
      for (unsigned ch = 0; ch < 8; ++ch) {
        frames += std::max(0, WCAN_ReceiveFD(dev.type(), 0, ch, in, 512, 0));
      }
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    cpu += cpuNsExcept(host) - cpuBefore;
    device += wcansim::deviceServiceNs() - deviceBefore;
    callbacks += wcansim::transferCallbackNs() - callbacksBefore;
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
  }
  const auto percent = [seconds](uint64_t ns) {
    return 100.0 * static_cast<double>(ns) / 1e9 / seconds;
  };
  state.counters["frames_per_s"] = static_cast<double>(frames) / seconds;
  // The library's threads, less the simulated adapter's work that runs on
  // its event thread (given apart: a real adapter does it on its own); and
  // of that, the library's own code in the transfer callbacks (the rest is
  // the simulated libusb's event handling and the thread's sleeps and
  // wake-ups).
  state.counters["library_cpu_pct"] = percent(cpu > device ? cpu - device : 0);
  state.counters["sim_device_cpu_pct"] = percent(device);
  state.counters["library_threads_cpu_pct"] = percent(cpu);
  state.counters["library_code_cpu_pct"] = percent(callbacks);
}
BENCHMARK(BM_LibraryCpuAtFullBusRate)->Iterations(1)->Unit(benchmark::kMillisecond);

// A host blocked in one receive call (1 s wait) on an idle bus: the CPU of
// the calling thread and of the library's threads.
void BM_IdleBlockedReceiveCpu(benchmark::State &state) {
  FdAdapter dev(66, 8);
  if (!dev.ok()) {
    state.SkipWithError("adapter did not come up");
    return;
  }
  const std::set<pid_t> host{getpid()};
  _WCAN_CANFD_OBJ in[8];
  double seconds = 0;
  uint64_t callerCpu = 0, libraryCpu = 0;
  for (auto _ : state) {
    const uint64_t libraryBefore = cpuNsExcept(host);
    const uint64_t callerBefore = threadCpuNs();
    const auto start = Clock::now();
    for (int i = 0; i < 3; ++i) {
      benchmark::DoNotOptimize(WCAN_ReceiveFD(dev.type(), 0, 0, in, 8, 1000));
    }
    callerCpu += threadCpuNs() - callerBefore;
    libraryCpu += cpuNsExcept(host) - libraryBefore;
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
  }
  state.counters["caller_cpu_pct"] = 100.0 * static_cast<double>(callerCpu) / 1e9 / seconds;
  state.counters["library_cpu_pct"] = 100.0 * static_cast<double>(libraryCpu) / 1e9 / seconds;
}
BENCHMARK(BM_IdleBlockedReceiveCpu)->Iterations(1)->Unit(benchmark::kMillisecond);

// An open adapter with eight started channels on a silent bus, the host not
// calling in: how often the library's threads wake, and the CPU they use.
void BM_IdleAdapterWakeups(benchmark::State &state) {
  FdAdapter dev(66, 8);
  if (!dev.ok()) {
    state.SkipWithError("adapter did not come up");
    return;
  }
  const std::set<pid_t> host{getpid()};
  std::this_thread::sleep_for(std::chrono::milliseconds(100));
  double seconds = 0;
  uint64_t wakeups = 0, cpu = 0;
  for (auto _ : state) {
    const uint64_t switchesBefore = contextSwitchesExcept(host);
    const uint64_t cpuBefore = cpuNsExcept(host);
    const auto start = Clock::now();
    std::this_thread::sleep_for(std::chrono::seconds(3));
    wakeups += contextSwitchesExcept(host) - switchesBefore;
    cpu += cpuNsExcept(host) - cpuBefore;
    seconds += std::chrono::duration<double>(Clock::now() - start).count();
  }
  state.counters["wakeups_per_s"] = static_cast<double>(wakeups) / seconds;
  state.counters["library_cpu_pct"] = 100.0 * static_cast<double>(cpu) / 1e9 / seconds;
}
BENCHMARK(BM_IdleAdapterWakeups)->Iterations(1)->Unit(benchmark::kMillisecond);

// WCAN_CloseDevice on a running adapter with both channels started: it must
// not wait for the receive thread's pending read. Argument: device type.
void BM_CloseRunningAdapter(benchmark::State &state) {
  const unsigned type = static_cast<unsigned>(state.range(0));
  wcansim::setPacing(false);
  wcansim::reset();
  wcansim::plugIn(type);
  std::vector<double> millis;
  for (auto _ : state) {
    state.PauseTiming();
    bool ok = WCAN_OpenDevice(type, 0) == 1;
    for (unsigned ch = 0; ok && ch < 2; ++ch) {
      _WCAN_INITFD_CONFIG fd{};
      fd.abitRate = 500000;
      _WCAN_INIT_CONFIG classic{};
      classic.timing1 = 0x1C;
      ok =
          (type == 4 ? WCAN_InitCAN(type, 0, ch, &classic) : WCAN_InitCANFD(type, 0, ch, &fd)) == 1;
    }
    if (!ok) {
      state.SkipWithError("adapter did not come up");
      break;
    }
    // Let the receive thread settle into its idle read.
    std::this_thread::sleep_for(std::chrono::milliseconds(30));
    state.ResumeTiming();
    const auto start = Clock::now();
    WCAN_CloseDevice(type, 0);
    millis.push_back(std::chrono::duration<double, std::milli>(Clock::now() - start).count());
  }
  wcansim::reset();
  if (millis.empty()) {
    return;
  }
  std::sort(millis.begin(), millis.end());
  state.counters["p50_ms"] = millis[millis.size() / 2];
  state.counters["max_ms"] = millis.back();
}
BENCHMARK(BM_CloseRunningAdapter)->Arg(41)->Arg(4)->Iterations(50)->Unit(benchmark::kMillisecond);

} // namespace
