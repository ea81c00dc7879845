# SPDX-License-Identifier: MIT
"""An adapter's microsecond counter as epoch seconds.

The adapter stamps each frame with a free-running microsecond counter that
wraps (32 bits on the CAN FD family, 24 on the classic one) and restarts when
the adapter is replugged. The host cannot read the counter, so the clock is
anchored on the frames themselves: a frame that arrives at host time ``now``
with counter value ``c`` puts the counter's origin at ``now - c`` or earlier
(it spent some time on its way). The origin is the smallest such estimate of
the recent past, so a single late batch does not move it; an estimate far
later than the origin means the counter restarted, and the clock re-anchors.
The counter is unwrapped to the turn nearest the host's own clock, which
extends it across its wrap even after a long silence.
"""

import threading

# A frame cannot have waited this long between the adapter and the reader
# thread: a later origin estimate means the counter restarted.
RESTART_SECONDS = 0.5
# How far back the origin estimate looks, so that slow drift between the two
# clocks and small restarts wash out.
WINDOW_SECONDS = 10.0


class DeviceClock:
    def __init__(self, counter_bits):
        self.mask = (1 << counter_bits) - 1
        self._span = 1 << counter_bits
        self._lock = threading.Lock()
        self._origin = None
        self._older = self._newer = None
        self._bucket_start = 0.0

    def epoch(self, counter, now):
        """Epoch seconds of the counter value of a frame that arrived at `now`."""
        counter &= self.mask
        with self._lock:
            if self._origin is None:
                self._restart(now - counter * 1e-6, now)
                return now
            elapsed_us = (now - self._origin) * 1e6
            unwrapped = counter + round((elapsed_us - counter) / self._span) * self._span
            estimate = now - unwrapped * 1e-6
            if estimate - self._origin > RESTART_SECONDS:
                # The counter restarted: count from this frame's own counter.
                self._restart(now - counter * 1e-6, now)
                return now
            self._remember(estimate, now)
            return self._origin + unwrapped * 1e-6

    def _restart(self, origin, now):
        self._origin = self._older = self._newer = origin
        self._bucket_start = now

    def _remember(self, estimate, now):
        if now - self._bucket_start > WINDOW_SECONDS / 2:
            self._older, self._newer = self._newer, estimate
            self._bucket_start = now
        elif estimate < self._newer:
            self._newer = estimate
        self._origin = min(self._older, self._newer)


class BatchStamper:
    """Stamps of one reader's batches: consecutive, never running backwards.

    The last frame of a batch arrived most recently, so it anchors the batch;
    the others lie before it by the counter difference.
    """

    def __init__(self, clock):
        self._clock = clock
        self._last = 0.0

    def reference(self, first_counter, last_counter, now):
        """(epoch of the last frame, its counter, counter mask) for this batch."""
        clock = self._clock
        mask = clock.mask
        last = clock.epoch(last_counter, now)
        first = last - ((last_counter - first_counter) & mask) * 1e-6
        if first < self._last:
            # The origin moved back since the previous batch of this queue.
            last += self._last - first
        self._last = last
        return last, last_counter, mask
