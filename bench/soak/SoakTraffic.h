// SPDX-License-Identifier: MIT
// One simulated adapter under soak: tagged frames sent both ways between
// channels 0 and 1 of the handle the host opened, beacons put on the
// adapter's bus by a foreign node, every arrival recorded, and the
// unplug/replug cycles with the moment each recovery was seen to complete.
#pragma once

#include <array>
#include <atomic>
#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>
#include <string>
#include <vector>

namespace soak {

using Clock = std::chrono::steady_clock;

// The handle the host opens (type and index) and the calls that differ
// between the CAN FD and the classic family.
struct Handle {
  std::string name;
  unsigned type;
  unsigned index;
  bool fd;

  bool init(unsigned channel) const;
  bool send(unsigned channel, uint32_t seq) const;

  // What one received frame carries: traffic sent through a handle, or a
  // beacon of a simulated adapter.
  struct Arrival {
    enum Kind { Traffic, Beacon, Unknown } kind;
    unsigned from;        // Traffic: channel it was sent from
    uint32_t seq;         // Traffic: sequence number
    unsigned senderType;  // Traffic: the handle it was sent through
    unsigned senderIndex; //
    int adapter;          // Beacon: the simulated adapter it was put on
    uint32_t id;          // as received, to describe a frame nobody sent
    uint8_t dataLen;
    uint8_t data[8];
  };
  std::vector<Arrival> receive(unsigned channel, int waitMs) const;
};

// Puts a beacon naming `adapter` on the bus of its channel 0 (it reaches
// channel 1 through the cable), as a foreign node would: a CAN FD frame for
// a CAN FD adapter, whose host reads the CAN FD queue only.
void sendBeacon(int adapter, bool fd);

struct Cycle {
  Clock::time_point unplugAt;
  Clock::time_point replugAt;
  std::array<Clock::time_point, 2> recoveredAt{};
  std::array<int64_t, 2> firstSeqAfter{-1, -1}; // the arrival that showed recovery
  bool recovered = false;
};

// Results of one adapter's run, per direction d (sent on channel d).
struct Report {
  std::string name;
  size_t cycles = 0;
  size_t failedRecoveries = 0;
  uint64_t sent = 0;
  uint64_t received = 0;
  uint64_t checked = 0;  // frames sent after a recovery finished, before the next unplug
  uint64_t inFlight = 0; // of those, still on their way when the adapter was pulled
  uint64_t lost = 0;
  uint64_t disorder = 0;     // duplicates or frames out of order
  uint64_t foreign = 0;      // frames that were never sent, or sent through another handle
  uint64_t beacons = 0;      // beacons of the handle's own adapter
  uint64_t wrongAdapter = 0; // beacons of another adapter: the handle reached the wrong one
  std::vector<double> recoveryMs;
  std::vector<double> latencyMs; // send to the host's receive, every frame that came
  // The first lost frames (direction, sent at), and every cycle, to tell
  // what each loss was near.
  std::vector<std::pair<unsigned, Clock::time_point>> losses;
  std::vector<Cycle> cycleLog;
  // The first frames nobody sent: when they came and what they held.
  std::vector<std::pair<Clock::time_point, std::string>> foreignFrames;

  // Clean, with enough cycles, and with every check fed.
  bool passed(size_t minCycles) const;
};

// What happened to one handle, and the verdict on it. Not thread-safe: the
// rig serialises the calls.
class Ledger {
public:
  uint32_t nextSeq(unsigned direction) const {
    return static_cast<uint32_t>(directions_[direction].sentAt.size());
  }
  void sent(unsigned direction, Clock::time_point at) {
    directions_[direction].sentAt.push_back(at);
  }
  // Records a frame of `direction`; true when it completed a recovery.
  bool arrived(unsigned direction, uint32_t seq, Clock::time_point now);
  void foreign(unsigned direction, Clock::time_point at, std::string what);
  void beacon(bool fromOwnAdapter) { ++(fromOwnAdapter ? beacons_ : wrongAdapter_); }

  // The adapter was unplugged and replugged; a recovery is awaited.
  void cycle(Clock::time_point unplugAt, Clock::time_point replugAt);
  bool awaitingRecovery() const { return awaitingRecovery_; }
  void giveUpRecovery() { awaitingRecovery_ = false; }
  size_t cycles() const { return cycles_.size(); }

  // The frames still on their way when an adapter was pulled, sent at most
  // `inFlight` before, are excused; every other frame must have come.
  Report analyse(const std::string &name, std::chrono::milliseconds inFlight) const;

private:
  struct Direction {
    std::vector<Clock::time_point> sentAt; // index: sequence number
    std::vector<std::pair<uint32_t, Clock::time_point>> arrivals;
    uint64_t foreign = 0;
  };

  std::array<Direction, 2> directions_;
  std::vector<Cycle> cycles_;
  bool awaitingRecovery_ = false;
  uint64_t beacons_ = 0;
  uint64_t wrongAdapter_ = 0;
  std::vector<std::pair<Clock::time_point, std::string>> foreignFrames_;
};

class Rig {
public:
  Rig(Handle handle, int adapter) : handle_(std::move(handle)), adapter_(adapter) {}

  const Handle &handle() const { return handle_; }

  void sender(unsigned channel, const std::atomic<bool> &stop);
  void receiver(unsigned channel, const std::atomic<bool> &stop);
  void beacons(const std::atomic<bool> &stop);
  // Unplugs and replugs until `stop`; returns after the current cycle.
  void chaos(const std::atomic<bool> &stop, uint32_t seed);
  size_t cycles() const;

  Report analyse(std::chrono::milliseconds inFlight) const;

private:
  void note(unsigned channel, const Handle::Arrival &arrival);

  const Handle handle_;
  const int adapter_;
  mutable std::mutex mutex_;
  std::condition_variable recovered_;
  Ledger ledger_;
};

} // namespace soak
