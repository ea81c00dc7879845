# SPDX-License-Identifier: MIT
"""An adapter's microsecond counter as epoch time: the command line tool's
algorithm, checked against the same vectors (tests/data/device_clock.txt).

The adapter stamps every frame with a counter that wraps (32 bits on the CAN
FD family, 24 on the classic one) and restarts when the adapter is replugged.
The host cannot read the counter, so the clock is anchored on the first frame
after a channel starts: that frame happened at most when it arrived. From then
on each frame's time is the anchor plus the counter's advance, extended across
its wraps with the host's own clock as a hint, so the spacing between frames
is the adapter's, to the microsecond.

A frame can never arrive before it happened: one that would moves the anchor
earlier. One that would lie far in the future means the counter restarted, and
the clock anchors again. The times handed out never run backwards, with one
exception: a frame a little behind the last one (from the adapter's other
receive queue, handed over later) gets the time its counter says and leaves
the clock as it was; the Inbox puts it in its place.
"""

import threading

# A later anchor by more than this is a restarted counter, not a late frame.
RESTART_US = 500_000


class DeviceClock:
    def __init__(self, counter_bits=32):
        self.bits = min(max(counter_bits, 1), 32)
        self.mask = (1 << self.bits) - 1
        self._lock = threading.Lock()
        self._anchored = False
        self._origin = 0
        self._last_counter = 0
        self._last_extended = 0
        self._last_host = 0
        self._last_epoch = None

    def restart(self):
        """Forget the anchor: for a channel start and an adapter that came back."""
        with self._lock:
            self._anchored = False

    def epoch(self, counter, now):
        """Epoch seconds of a frame stamped `counter` that arrived at `now` (seconds)."""
        return self.to_epoch_us(counter, round(now * 1e6)) * 1e-6

    def to_epoch_us(self, counter, host_us):
        """Epoch microseconds of a frame stamped `counter` received at `host_us`."""
        counter &= self.mask
        with self._lock:
            behind = self._behind_last(counter, host_us) if self._anchored else 0
            if behind:
                return self._origin + self._last_extended - behind
            if not self._anchored:
                self._anchor(counter, host_us)
            else:
                self._advance(counter, host_us)
            self._last_counter = counter
            self._last_host = host_us
            now_epoch = self._origin + self._last_extended
            if self._last_epoch is None or now_epoch > self._last_epoch:
                self._last_epoch = now_epoch
            return self._last_epoch

    def batch_to_epoch_us(self, counters, host_us):
        """Epoch microseconds of frames in the adapter's order received together
        at `host_us`: the last happened by then, each earlier one by as much
        earlier as the counters say, so even the anchoring batch keeps the
        adapter's spacing."""
        if not counters:
            return []
        mask = self.mask
        last = counters[-1] & mask
        return [self.to_epoch_us(c, host_us - ((last - c) & mask)) for c in counters]

    def _anchor(self, counter, host_us):
        self._anchored = True
        self._origin = host_us - counter
        self._last_extended = counter

    def _behind_last(self, counter, host_us):
        """How far `counter` lies behind the last one; 0 when it does not."""
        behind = (self._last_counter - counter) & self.mask
        half_span = self.mask // 2
        late = behind <= min(RESTART_US, half_span) and host_us - self._last_host < half_span
        return behind if late else 0

    def _advance(self, counter, host_us):
        span = self.mask + 1
        forward = (counter - self._last_counter) & self.mask
        # Turns the counter made unseen, judged by how much time the host saw
        # pass: after a long silence it may have wrapped many times.
        host_elapsed = max(0, host_us - self._last_host)
        wraps = max(0, _round_half_away(host_elapsed - forward, span))
        self._last_extended += forward + wraps * span
        early = self._origin + self._last_extended - host_us
        if early > RESTART_US:
            self._anchor(counter, host_us)
        elif early > 0:
            self._origin -= early


def _round_half_away(numerator, denominator):
    """numerator / denominator rounded half away from zero, as C's llround."""
    quotient, remainder = divmod(abs(numerator), denominator)
    if 2 * remainder >= denominator:
        quotient += 1
    return quotient if numerator >= 0 else -quotient
