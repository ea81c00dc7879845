# SPDX-License-Identifier: MIT
"""The device clock and the filter translation, without adapters."""

import types
from pathlib import Path

import can
import pytest

from wcan import _filters
from wcan._clock import DeviceClock

VECTORS = Path(__file__).resolve().parents[1] / "data" / "device_clock.txt"


def test_clock_follows_the_vectors_the_tool_is_checked_with():
    clock, frames = None, 0
    for number, line in enumerate(VECTORS.read_text().splitlines(), 1):
        words = line.split()
        if not words or words[0].startswith("#"):
            continue
        if words[0] == "clock":
            clock = DeviceClock(int(words[1]))
        elif words[0] == "restart":
            clock.restart()
        elif words[0] == "batch":
            pairs = [tuple(int(n) for n in w.split("=")) for w in words[2:]]
            times = clock.batch_to_epoch_us([c for c, _ in pairs], int(words[1]))
            assert times == [e for _, e in pairs], f"line {number}"
            frames += len(pairs)
        else:
            counter, host, expected = (int(w) for w in words[1:4])
            assert clock.to_epoch_us(counter, host) == expected, f"line {number}"
            frames += 1
    assert frames > 10


FILTERS = [
    # filters, the adapter's (id_mode, first, last) ranges or None (software only)
    ([{"can_id": 0x120, "can_mask": 0x7F0, "extended": False}], [(0, 0x120, 0x12F)]),
    ([{"can_id": 0x18DA0000, "can_mask": 0x1FFF0000, "extended": True}],
     [(1, 0x18DA0000, 0x18DAFFFF)]),
    ([{"can_id": 0x100, "can_mask": 0x1FFFFF00}], [(0, 0x100, 0x1FF), (1, 0x100, 0x1FF)]),
    ([{"can_id": 0x100, "can_mask": 0x700}], None),  # extended ids of any upper bits
    ([{"can_id": 0x123, "can_mask": 0x7FF, "extended": False},
      {"can_id": 0x456, "can_mask": 0x7FF, "extended": False}],
     [(0, 0x123, 0x123), (0, 0x456, 0x456)]),
    ([{"can_id": 0x101, "can_mask": 0x101, "extended": False}], None),  # not a run of high bits
    ([{"can_id": 0x800, "can_mask": 0xFFF, "extended": False}], None),  # matches nothing
    ([{"can_id": 0x800, "can_mask": 0x1FFFFFFF}], [(1, 0x800, 0x800)]),  # no standard id is 0x800
    ([], None),
]


@pytest.mark.parametrize("filters, ranges", FILTERS)
def test_filters_match_as_python_can_and_ranges_pass_the_same(filters, ranges):
    assert _filters.id_ranges(filters) == ranges
    reference = types.SimpleNamespace(_filters=filters or None)
    matches = _filters.matcher(filters)
    ids = [0, 0x100, 0x11F, 0x120, 0x12F, 0x1FF, 0x123, 0x456, 0x7FF, 0x800, 0x18DA0000,
           0x18DAFFFF, 0x18DB0000, 0x1FFFFFFF]
    for extended in (False, True):
        for can_id in ids if extended else [i for i in ids if i <= 0x7FF]:
            msg = can.Message(arbitration_id=can_id, is_extended_id=extended)
            expected = can.BusABC._matches_filters(reference, msg)
            assert (matches is None or matches(can_id, extended)) == expected, (can_id, extended)
            if ranges is not None:
                in_range = any(m == extended and a <= can_id <= b for m, a, b in ranges)
                assert in_range == expected, (can_id, extended)
