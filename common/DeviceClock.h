// SPDX-License-Identifier: MIT
// An adapter's free-running microsecond counter as host epoch time.
//
// The adapter stamps every frame with a counter that wraps (32 bits on the
// CAN FD adapters, 24 on the classic ones) and restarts when the adapter is
// replugged. The host cannot read the counter, so the clock is anchored on
// the first frame after a channel starts: that frame happened at most when it
// arrived. From then on each frame's time is the anchor plus the counter's
// advance, extended across its wraps with the host's own clock as a hint, so
// the spacing between frames is the adapter's, to the microsecond.
//
// A frame can never arrive before it happened: one that would moves the
// anchor earlier (it arrived faster than the first one did). One that would
// lie far in the future means the counter restarted, and the clock anchors
// again. The times handed out never run backwards, with one exception: a
// frame a little behind the last one (from the adapter's other receive queue,
// handed over later) gets the time its counter says and leaves the clock as
// it was; whoever merges the queues puts it in its place.
#pragma once

#include <climits>
#include <cstddef>
#include <cstdint>

namespace wcantool {

class DeviceClock {
public:
  // A later anchor by more than this is a restarted counter, not a late
  // frame or the two clocks drifting apart.
  static constexpr int64_t kRestartUs = 500000;

  explicit DeviceClock(unsigned counterBits = 32);

  // Forget the anchor: the next frame anchors the clock again. For a channel
  // start and for an adapter that came back after it was lost.
  void restart() { anchored_ = false; }

  // Host epoch microseconds of a frame stamped `counter` that the host
  // received at `hostNowUs` (epoch microseconds).
  int64_t toEpochUs(uint32_t counter, int64_t hostNowUs);

  // The same for `count` frames in the adapter's order that the host
  // received together at hostNowUs: the last one happened by then, each
  // earlier one by as much earlier as the counters say. So even the batch
  // that anchors the clock keeps the adapter's spacing.
  void toEpochUs(const uint32_t *counters, size_t count, int64_t hostNowUs, int64_t *epochUs);

  unsigned counterBits() const { return bits_; }

private:
  void anchor(uint64_t counter, int64_t hostNowUs);
  // How far a counter lies behind the last one; 0 when it does not.
  int64_t behindLast(uint64_t counter, int64_t hostNowUs) const;

  unsigned bits_;
  uint64_t mask_;
  bool anchored_ = false;
  int64_t originUs_ = 0;     // epoch of extended counter value 0
  uint64_t lastCounter_ = 0; // as the adapter sent it
  int64_t lastExtended_ = 0; // counter extended across its wraps
  int64_t lastHostUs_ = 0;
  int64_t lastEpochUs_ = INT64_MIN;
};

// The wall clock in epoch microseconds.
int64_t hostEpochUs();

} // namespace wcantool
