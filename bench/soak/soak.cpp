// SPDX-License-Identifier: MIT
// Soak run over simulated adapters: two CAN FD adapters of the same type (41,
// opened as indexes 0 and 1) and a classic adapter (type 4), traffic both
// ways between channels 0 and 1 of each, while each adapter is unplugged and
// replugged at random intervals. Fails (exit 1) on a recovery that does not
// complete, on a frame sent after a recovery that never arrives, on
// duplicates or reordering, on a handle that came back on another adapter
// than it was opened on, and on too few cycles.
//
//   soak [--seconds N] [--min-cycles N] [--seed N]
#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "bench/soak/SoakTraffic.h"
#include "platform/QUserLog.h"
#include "sim/wcan_sim.h"
#include "wcan.h"

namespace {

struct Options {
  int seconds = 120;
  size_t minCycles = 200;
  uint32_t seed = 1;
};

bool parse(int argc, char **argv, Options &options) {
  for (int i = 1; i + 1 < argc; i += 2) {
    const std::string name = argv[i];
    char *end = nullptr;
    errno = 0;
    const long value = std::strtol(argv[i + 1], &end, 10);
    if (errno != 0 || end == argv[i + 1] || *end != '\0' || value < 0 || value > 1000000) {
      return false;
    }
    if (name == "--seconds") {
      options.seconds = static_cast<int>(value);
    } else if (name == "--min-cycles") {
      options.minCycles = static_cast<size_t>(value);
    } else if (name == "--seed") {
      options.seed = static_cast<uint32_t>(value);
    } else {
      return false;
    }
  }
  return argc % 2 == 1;
}

double percentile(std::vector<double> values, double p) {
  if (values.empty()) {
    return 0;
  }
  std::sort(values.begin(), values.end());
  return values[static_cast<size_t>(p * static_cast<double>(values.size() - 1))];
}

bool printAndJudge(const std::vector<soak::Report> &reports, size_t minCycles) {
  std::printf("\n%-8s %7s %7s %9s %9s %9s %8s %6s %8s %8s %8s %6s %8s %8s %8s %8s %8s %8s\n",
              "adapter", "cycles", "failed", "sent", "received", "checked", "inflight", "lost",
              "disorder", "foreign", "beacons", "wrong", "rec.min", "rec.med", "rec.p99", "rec.max",
              "lat.p99", "lat.max");
  bool ok = true;
  for (const soak::Report &r : reports) {
    const auto &ms = r.recoveryMs;
    const auto n = [](uint64_t v) { return static_cast<unsigned long long>(v); };
    std::printf("%-8s %7zu %7zu %9llu %9llu %9llu %8llu %6llu %8llu %8llu %8llu %6llu %7.1fms "
                "%7.1fms %7.1fms %7.1fms %7.1fms %7.1fms\n",
                r.name.c_str(), r.cycles, r.failedRecoveries, n(r.sent), n(r.received),
                n(r.checked), n(r.inFlight), n(r.lost), n(r.disorder), n(r.foreign), n(r.beacons),
                n(r.wrongAdapter), percentile(ms, 0), percentile(ms, 0.5), percentile(ms, 0.99),
                percentile(ms, 1), percentile(r.latencyMs, 0.99), percentile(r.latencyMs, 1));
    ok = ok && r.passed(minCycles);
  }
  std::printf("%s\n", ok ? "PASS" : "FAIL");
  return ok;
}

// Where each lost frame was sent relative to the nearest unplug and replug of
// every adapter, to tell a loss on one adapter caused by another from its own.
void explainLosses(const std::vector<soak::Report> &reports, soak::Clock::time_point start) {
  const auto ms = [](soak::Clock::time_point from, soak::Clock::time_point to) {
    return std::chrono::duration<double, std::milli>(to - from).count();
  };
  for (const soak::Report &r : reports) {
    for (const auto &loss : r.losses) {
      std::printf("lost: %s direction %u, sent at %.1f s;", r.name.c_str(), loss.first,
                  ms(start, loss.second) / 1000);
      for (const soak::Report &other : reports) {
        const auto next =
            std::find_if(other.cycleLog.begin(), other.cycleLog.end(),
                         [&](const soak::Cycle &c) { return c.unplugAt > loss.second; });
        if (next != other.cycleLog.begin()) {
          const soak::Cycle &before = *(next - 1);
          std::printf(" %s replugged %.1f ms before", other.name.c_str(),
                      ms(before.replugAt, loss.second));
        }
        if (next != other.cycleLog.end()) {
          std::printf(" and unplugged %.1f ms after,", ms(loss.second, next->unplugAt));
        }
      }
      std::printf("\n");
    }
    for (const auto &frame : r.foreignFrames) {
      std::printf("foreign: %s at %.1f s %s\n", r.name.c_str(), ms(start, frame.first) / 1000,
                  frame.second.c_str());
    }
  }
}

} // namespace

int main(int argc, char **argv) {
  Options options;
  if (!parse(argc, argv, options)) {
    std::fprintf(stderr, "usage: %s [--seconds N] [--min-cycles N] [--seed N]\n", argv[0]);
    return 2;
  }
  // The table goes to standard output; the library's log lines stay off it
  // unless asked for.
  setenv("WCAN_LOG_CONSOLE", "none", 0);
  QUserLog::GetInstance().ReloadConfig();
  wcansim::reset();
  // Every adapter is plugged in before any is opened, so the two of type 41
  // are told apart by the library, not by the order of arrival.
  const soak::Handle handles[] = {
      {"canfd0", 41, 0, true}, {"canfd1", 41, 1, true}, {"classic", 4, 0, false}};
  std::vector<int> adapters;
  for (const soak::Handle &handle : handles) {
    adapters.push_back(wcansim::plugIn(handle.type));
  }
  std::vector<std::unique_ptr<soak::Rig>> rigs;
  for (size_t i = 0; i < adapters.size(); ++i) {
    const soak::Handle &handle = handles[i];
    if (adapters[i] < 0 || WCAN_OpenDevice(handle.type, handle.index) != 1 || !handle.init(0) ||
        !handle.init(1)) {
      std::fprintf(stderr, "could not bring up %s\n", handle.name.c_str());
      return 1;
    }
    rigs.push_back(std::make_unique<soak::Rig>(handle, adapters[i]));
  }

  std::atomic<bool> stopChaos{false}, stopSending{false}, stopReceiving{false};
  std::vector<std::thread> chaos, senders, receivers;
  for (size_t i = 0; i < rigs.size(); ++i) {
    soak::Rig &rig = *rigs[i];
    for (unsigned ch = 0; ch < 2; ++ch) {
      senders.emplace_back([&rig, ch, &stopSending] { rig.sender(ch, stopSending); });
      receivers.emplace_back([&rig, ch, &stopReceiving] { rig.receiver(ch, stopReceiving); });
    }
    senders.emplace_back([&rig, &stopSending] { rig.beacons(stopSending); });
    chaos.emplace_back([&rig, &stopChaos, seed = options.seed + static_cast<uint32_t>(i)] {
      rig.chaos(stopChaos, seed);
    });
  }

  // Run the set time and on until every adapter went through enough cycles
  // (at most three times the set time).
  const auto start = soak::Clock::now();
  for (;;) {
    std::this_thread::sleep_for(std::chrono::seconds(1));
    const auto elapsed = soak::Clock::now() - start;
    bool enough = true;
    std::string progress;
    for (const auto &rig : rigs) {
      enough = enough && rig->cycles() >= options.minCycles;
      progress += " " + rig->handle().name + "=" + std::to_string(rig->cycles());
    }
    std::fprintf(
        stderr, "\r%3llds cycles:%s ",
        static_cast<long long>(std::chrono::duration_cast<std::chrono::seconds>(elapsed).count()),
        progress.c_str());
    if ((elapsed >= std::chrono::seconds(options.seconds) && enough) ||
        elapsed >= std::chrono::seconds(3 * options.seconds)) {
      break;
    }
  }
  stopChaos = true;
  for (std::thread &t : chaos) {
    t.join();
  }
  // Traffic goes on for a moment after the last recovery, then drains.
  std::this_thread::sleep_for(std::chrono::milliseconds(500));
  stopSending = true;
  for (std::thread &t : senders) {
    t.join();
  }
  std::this_thread::sleep_for(std::chrono::seconds(1));
  stopReceiving = true;
  for (std::thread &t : receivers) {
    t.join();
  }

  std::vector<soak::Report> reports;
  for (const auto &rig : rigs) {
    reports.push_back(rig->analyse(std::chrono::seconds(1)));
    WCAN_CloseDevice(rig->handle().type, rig->handle().index);
  }
  wcansim::reset();
  explainLosses(reports, start);
  return printAndJudge(reports, options.minCycles) ? 0 : 1;
}
