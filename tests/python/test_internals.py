# SPDX-License-Identifier: MIT
"""The device clock and the filter translation, without adapters."""

import types

import can
import pytest

from wcan import _filters
from wcan._clock import BatchStamper, DeviceClock

T0 = 1_700_000_000.0


@pytest.mark.parametrize(
    "bits, start, events",
    [
        # (host seconds after T0 the frame arrived, its counter, expected stamp - T0)
        (32, 2**32 - 1000, [(0.0015, 500, 0.0015)]),  # across the wrap
        (24, 2**24 - 1000, [(0.0015, 500, 0.0015)]),  # the classic counter's wrap
        (24, 5, [(40.0, (40_000_000 + 5) % 2**24, 40.0)]),  # silence over two wraps
        (32, 5_000_000, [(0.2, 5_100_000, 0.1)]),  # a late frame keeps its own time
        (32, 90_000_000, [(3.0, 1_000, 3.0)]),  # the adapter was replugged: re-anchored
    ],
)
def test_counter_becomes_epoch_time(bits, start, events):
    clock = DeviceClock(bits)
    assert clock.epoch(start, T0) == T0
    for arrived, counter, expected in events:
        assert clock.epoch(counter, T0 + arrived) == pytest.approx(T0 + expected, abs=1e-6)


def test_batches_of_one_queue_never_run_backwards():
    stamper = BatchStamper(DeviceClock(32))
    previous_last, _, _ = stamper.reference(0, 1_000, T0 + 0.010)  # waited 9 ms
    # A quicker batch moves the origin back by 6.5 ms.
    last, last_counter, mask = stamper.reference(7_000, 8_000, T0 + 0.0105)
    assert last - ((last_counter - 7_000) & mask) * 1e-6 >= previous_last


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
