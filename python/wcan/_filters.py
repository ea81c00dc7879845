# SPDX-License-Identifier: MIT
"""python-can filters as software matchers and as the adapter's id ranges.

A filter ``{"can_id", "can_mask", "extended"?}`` matches a frame when
``(id ^ can_id) & can_mask == 0`` (and the id format agrees, if given). The
CAN FD adapters filter on id ranges per format instead; a filter whose mask
covers a run of the highest id bits is exactly such a range.
"""

from typing import List, NamedTuple, Optional

STANDARD = 0  # idMode of _WCAN_FLITER_CONFIG
EXTENDED = 1
_ID_BITS = {STANDARD: 0x7FF, EXTENDED: 0x1FFFFFFF}

# Ranges one channel of the adapter holds.
MAX_RANGES = 64


class IdRange(NamedTuple):
    id_mode: int
    first: int
    last: int


def matcher(filters):
    """A function (id, extended) -> bool for the filters; None when all frames pass."""
    if not filters:
        return None
    compiled = tuple(
        (f["can_id"] & f["can_mask"], f["can_mask"], f.get("extended")) for f in filters
    )

    def matches(can_id, extended):
        for wanted, mask, fmt in compiled:
            if (fmt is None or fmt == extended) and (can_id & mask) == wanted:
                return True
        return False

    return matches


def _range(can_id, can_mask, id_mode):
    """The range of ids of one format the filter matches; () if none, None if not a range."""
    id_bits = _ID_BITS[id_mode]
    if can_id & can_mask & ~id_bits:
        return ()  # a mask bit above the format's ids that no id of it can meet
    free = ~can_mask & id_bits
    if free & (free + 1):
        return None  # the unmasked bits are not the lowest ones
    first = can_id & can_mask & id_bits
    return (IdRange(id_mode, first, first | free),)


def id_ranges(filters) -> Optional[List[IdRange]]:
    """The adapter ranges that pass exactly the frames the filters pass, else None."""
    if not filters:
        return None
    ranges = []
    for f in filters:
        extended = f.get("extended")
        modes = (STANDARD, EXTENDED) if extended is None else (EXTENDED if extended else STANDARD,)
        for mode in modes:
            part = _range(f["can_id"], f["can_mask"], mode)
            if part is None:
                return None
            ranges.extend(r for r in part if r not in ranges)
    # An adapter without ranges passes everything, so a set that passes
    # nothing stays in software.
    if not ranges or len(ranges) > MAX_RANGES:
        return None
    return ranges
