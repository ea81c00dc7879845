# SPDX-License-Identifier: MIT
"""What the package knows about each device type, and channel names.

A channel is named ``wcan<TYPE>-<INDEX>-<CHANNEL>``, as ``wcan dump`` names
it in its lines: ``wcan41-0-1`` is channel 1 of the first CAN FD adapter of
type 41.
"""

import re
from typing import NamedTuple, Optional

from . import _header

CAN_FD = "CAN FD adapter"
CLASSIC = "classic CAN adapter"
RECORDER = "CAN recorder"


class DeviceType(NamedTuple):
    number: int
    family: str
    vendor_id: int
    product_id: int
    channels: int
    # Width of the adapter's microsecond time stamp counter.
    counter_bits: int


_FAMILIES = {"CanFd": CAN_FD, "Classic": CLASSIC, "Recorder": RECORDER}

# The library's own table, written into _header at build time. Types that
# share USB ids open the same adapters; the first of them stands for the
# group when adapters are listed.
DEVICE_TYPES = tuple(
    DeviceType(number, _FAMILIES[family], vendor, product, channels, bits)
    for number, family, vendor, product, channels, bits in _header.DEVICE_TYPES
)
_BY_NUMBER = {t.number: t for t in DEVICE_TYPES}


def device_type(number) -> Optional[DeviceType]:
    return _BY_NUMBER.get(number)


def first_type_for_usb_id(vendor_id, product_id) -> Optional[DeviceType]:
    for t in DEVICE_TYPES:
        if (t.vendor_id, t.product_id) == (vendor_id, product_id):
            return t
    return None


# Bus timing register pair of the classic adapter's controller for each bit
# rate, from the library's table.
CLASSIC_TIMINGS = dict(_header.CLASSIC_TIMINGS)


class ChannelName(NamedTuple):
    dev_type: int
    index: int
    channel: int

    def __str__(self):
        return f"wcan{self.dev_type}-{self.index}-{self.channel}"

    @property
    def adapter(self):
        return f"{self.dev_type}/{self.index}"


_NAME = re.compile(r"wcan(\d{1,5})-(\d{1,5})-(\d{1,5})")


def parse_channel(text) -> ChannelName:
    """The channel a name stands for; ValueError saying what is wrong."""
    match = _NAME.fullmatch(str(text).strip())
    if not match:
        raise ValueError(
            f"channel {text!r} is not a wcan channel name: use wcan<TYPE>-<INDEX>-<CHANNEL>, "
            "e.g. wcan41-0-1 for channel 1 of the first adapter of type 41"
        )
    name = ChannelName(*(int(part) for part in match.groups()))
    kind = device_type(name.dev_type)
    if kind is None:
        supported = ", ".join(str(t.number) for t in DEVICE_TYPES if t.family != RECORDER)
        raise ValueError(f"{text}: {name.dev_type} is not a device type (types: {supported})")
    if kind.family == RECORDER:
        raise ValueError(
            f"{text}: type {name.dev_type} is a CAN recorder, which records by itself and "
            "carries no traffic for the host"
        )
    if name.channel >= kind.channels:
        raise ValueError(
            f"{text}: adapter type {name.dev_type} has channels 0 to {kind.channels - 1}"
        )
    return name
