// SPDX-License-Identifier: MIT
// Frames from one process to another through the shared simulation, beside
// the same traffic inside one process (WCAN_SIM_PRIVATE=1, a cable between
// channel 0 and 1 of one adapter). Unpaced throughput: bursts as fast as the
// sender's transmit queue takes them; latency: single frames carrying their
// send time (steady clock, shared by the processes of the machine), one at a
// time, from the send call to the receive call returning the frame.
//
// Usage: bench_simhost [--frames N] [--probes N]. The shared run starts its
// own host in a runtime folder of its own and a receiving child process.
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include "wcan.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr unsigned kType = 41;
constexpr unsigned kBurst = 100;
constexpr uint32_t kProbeId = 0x100;
constexpr uint32_t kBulkId = 0x200;

int64_t nowNs() {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now().time_since_epoch())
      .count();
}

struct Options {
  long frames = 200000;
  long probes = 2000;
};

// What the receiver measured: the throughput run's first and last arrival,
// and the sorted latencies of the probes.
struct Received {
  long frames = 0;
  int64_t lastNs = 0;
  double medianUs = 0;
  double p99Us = 0;
};

bool openChannel(unsigned channel) {
  if (WCAN_OpenDevice(kType, 0) != 1)
    return false;
  _WCAN_INITFD_CONFIG c{};
  c.abitRate = 1000000;
  c.dbitRate = 1000000;
  return WCAN_InitCANFD(kType, 0, channel, &c) == 1;
}

int64_t stampOf(const _WCAN_CAN_OBJ &f) {
  int64_t ns = 0;
  std::memcpy(&ns, f.data, sizeof ns);
  return ns;
}

_WCAN_CAN_OBJ frame(uint32_t id, int64_t stamp) {
  _WCAN_CAN_OBJ f{};
  f.id = id;
  f.dataLen = 8;
  std::memcpy(f.data, &stamp, sizeof stamp);
  return f;
}

// Takes `frames` bulk frames, then `probes` probes; a second without a frame
// ends the run short.
Received receive(unsigned channel, const Options &o) {
  Received r;
  std::vector<_WCAN_CAN_OBJ> in(1024);
  std::vector<double> latencies;
  while (r.frames < o.frames || static_cast<long>(latencies.size()) < o.probes) {
    const int n =
        WCAN_Receive(kType, 0, channel, in.data(), static_cast<unsigned>(in.size()), 1000);
    const int64_t at = nowNs();
    if (n <= 0)
      break;
    for (int i = 0; i < n; ++i) {
      if (in[i].id == kProbeId) {
        latencies.push_back((at - stampOf(in[i])) / 1000.0);
      } else {
        ++r.frames;
        r.lastNs = at;
      }
    }
  }
  std::sort(latencies.begin(), latencies.end());
  if (!latencies.empty()) {
    r.medianUs = latencies[latencies.size() / 2];
    r.p99Us = latencies[latencies.size() * 99 / 100];
  }
  return r;
}

// Bursts of frames, then the probes one at a time with a pause between them
// so each crosses an idle simulation.
int64_t send(unsigned channel, const Options &o) {
  std::vector<_WCAN_CAN_OBJ> burst(kBurst, frame(kBulkId, 0));
  const int64_t start = nowNs();
  for (long sent = 0; sent < o.frames;) {
    const unsigned n = static_cast<unsigned>(std::min<long>(kBurst, o.frames - sent));
    const int took = WCAN_Transmit(kType, 0, channel, burst.data(), n);
    if (took <= 0)
      return -1;
    sent += took;
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));
  for (long i = 0; i < o.probes; ++i) {
    _WCAN_CAN_OBJ probe = frame(kProbeId, nowNs());
    if (WCAN_Transmit(kType, 0, channel, &probe, 1) != 1)
      return -1;
    std::this_thread::sleep_for(std::chrono::microseconds(500));
  }
  return start;
}

void report(const char *where, const Options &o, int64_t start, const Received &r) {
  const double seconds = (r.lastNs - start) / 1e9;
  std::printf("%-14s %8ld of %ld frames, %9.0f frames/s; latency median %7.1f us, p99 %7.1f us\n",
              where, r.frames, o.frames, seconds > 0 ? r.frames / seconds : 0.0, r.medianUs,
              r.p99Us);
  std::fflush(stdout); // the shared run's process ends with _exit
}

bool inProcess(const Options &o) {
  setenv("WCAN_SIM_PRIVATE", "1", 1);
  if (!openChannel(1) || !openChannel(0)) {
    std::fprintf(stderr, "bench_simhost: the private adapter did not come up\n");
    return false;
  }
  Received r;
  std::thread receiver([&] { r = receive(1, o); });
  std::this_thread::sleep_for(std::chrono::milliseconds(50));
  const int64_t start = send(0, o);
  receiver.join();
  WCAN_CloseDevice(kType, 0);
  report("one process", o, start, r);
  return start >= 0 && r.frames == o.frames;
}

// The child: opens channel 1 in the shared simulation, says so on `ready`
// and writes what it measured to `result`.
int receiverChild(const Options &o, int ready, int result) {
  const bool opened = openChannel(1);
  const char flag = opened ? 1 : 0;
  if (write(ready, &flag, 1) != 1 || !opened)
    return 1;
  const Received r = receive(1, o);
  WCAN_CloseDevice(kType, 0);
  return write(result, &r, sizeof r) == static_cast<ssize_t>(sizeof r) ? 0 : 1;
}

bool readWhole(int fd, void *to, size_t len) {
  auto *p = static_cast<char *>(to);
  while (len > 0) {
    const ssize_t n = read(fd, p, len);
    if (n <= 0)
      return false;
    p += n;
    len -= static_cast<size_t>(n);
  }
  return true;
}

bool acrossProcesses(const Options &o) {
  char dir[] = "/tmp/wcan-bench-simhost-XXXXXX";
  if (mkdtemp(dir) == nullptr)
    return false;
  setenv("XDG_RUNTIME_DIR", dir, 1);
  setenv("WCAN_SIM_LINGER_MS", "200", 1);
  int ready[2], result[2];
  if (pipe(ready) != 0 || pipe(result) != 0)
    return false;
  const pid_t child = fork();
  if (child == 0)
    _exit(receiverChild(o, ready[1], result[1]));
  close(ready[1]);
  close(result[1]);
  char flag = 0;
  Received r;
  bool ok = readWhole(ready[0], &flag, 1) && flag == 1 && openChannel(0);
  const int64_t start = ok ? send(0, o) : -1;
  ok = ok && readWhole(result[0], &r, sizeof r);
  int status = 0;
  waitpid(child, &status, 0);
  WCAN_CloseDevice(kType, 0);
  close(ready[0]);
  close(result[0]);
  if (!ok) {
    std::fprintf(stderr, "bench_simhost: the receiving process failed\n");
    return false;
  }
  report("two processes", o, start, r);
  // The host ends after its linger time; its folder goes with it.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  std::error_code ignored;
  std::filesystem::remove_all(dir, ignored);
  return start >= 0 && r.frames == o.frames;
}

} // namespace

int main(int argc, char **argv) {
  Options o;
  for (int i = 1; i + 1 < argc; i += 2) {
    if (std::strcmp(argv[i], "--frames") == 0)
      o.frames = std::atol(argv[i + 1]);
    else if (std::strcmp(argv[i], "--probes") == 0)
      o.probes = std::atol(argv[i + 1]);
  }
  // The simulation plugs its adapters in at the library's first USB call,
  // so the environment is settled before anything is opened: one run per
  // process, the shared one in a child of its own.
  setenv("WCAN_SIM", "41", 1);
  setenv("WCAN_SIM_PACE", "0", 1);
  const pid_t shared = fork();
  if (shared == 0)
    _exit(acrossProcesses(o) ? 0 : 1);
  int status = 0;
  waitpid(shared, &status, 0);
  const bool privateOk = inProcess(o);
  return WIFEXITED(status) && WEXITSTATUS(status) == 0 && privateOk ? 0 : 1;
}
