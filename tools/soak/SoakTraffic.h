// One simulated adapter under soak: tagged frames sent both ways between its
// channels 0 and 1, every arrival recorded, and the unplug/replug cycles with
// the moment each recovery was seen to complete.
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

// The calls that differ between the CAN FD and the classic family.
struct Family {
  std::string name;
  unsigned type;
  bool fd;

  bool init(unsigned channel) const;
  bool send(unsigned channel, uint32_t seq) const;
  // Tags (channel the frame was sent from, sequence number) of what came.
  struct Tag {
    unsigned from;
    uint32_t seq;
  };
  std::vector<Tag> receive(unsigned channel, int waitMs) const;
};

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
  uint64_t checked = 0; // frames sent after a recovery finished, before the next unplug
  uint64_t lost = 0;
  uint64_t disorder = 0; // duplicates or frames out of order
  uint64_t foreign = 0;  // frames that were never sent
  std::vector<double> recoveryMs;
};

class Rig {
public:
  Rig(Family family, int adapter) : family_(std::move(family)), adapter_(adapter) {}

  const Family &family() const { return family_; }
  int adapter() const { return adapter_; }

  void sender(unsigned channel, const std::atomic<bool> &stop);
  void receiver(unsigned channel, const std::atomic<bool> &stop);
  // Unplugs and replugs until `stop`; returns after the current cycle.
  void chaos(const std::atomic<bool> &stop, uint32_t seed);
  size_t cycles() const;

  // Frames sent before `grace` ahead of an unplug count as delivered-or-lost.
  Report analyse(std::chrono::milliseconds grace) const;

private:
  struct Direction {
    std::vector<Clock::time_point> sentAt; // index: sequence number
    std::vector<std::pair<uint32_t, Clock::time_point>> arrivals;
    uint64_t foreign = 0;
  };
  void noteArrival(unsigned direction, uint32_t seq);

  const Family family_;
  const int adapter_;
  mutable std::mutex mutex_;
  std::condition_variable recovered_;
  std::array<Direction, 2> directions_;
  std::vector<Cycle> cycles_;
  bool awaitingRecovery_ = false;
};

} // namespace soak
