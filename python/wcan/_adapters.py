"""What the package knows about each device type, and channel names.

A channel is named ``wcan<TYPE>-<INDEX>-<CHANNEL>``, as ``wcan dump`` names
it in its lines: ``wcan41-0-1`` is channel 1 of the first CAN FD adapter of
type 41.
"""

import re
from typing import NamedTuple, Optional

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


# Types that share USB ids open the same adapters; the first of them stands
# for the group when adapters are listed.
DEVICE_TYPES = (
    DeviceType(41, CAN_FD, 0x3068, 0x0009, 2, 32),
    DeviceType(42, CAN_FD, 0x3068, 0x0009, 2, 32),
    DeviceType(43, CAN_FD, 0x3068, 0x0009, 2, 32),
    DeviceType(64, CAN_FD, 0x0471, 0x3014, 4, 32),
    DeviceType(65, CAN_FD, 0x0471, 0x2014, 4, 32),
    DeviceType(66, CAN_FD, 0x0471, 0x2018, 8, 32),
    DeviceType(67, CAN_FD, 0x0471, 0x3018, 8, 32),
    DeviceType(3, CLASSIC, 0x0471, 0x1200, 2, 24),
    DeviceType(4, CLASSIC, 0x0471, 0x1200, 2, 24),
    DeviceType(61, RECORDER, 0x0471, 0x2601, 2, 32),
    DeviceType(62, RECORDER, 0x0471, 0x2602, 2, 32),
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
# rate (16 MHz clock, single sampling, jump width 1).
CLASSIC_TIMINGS = {
    1000000: (0x00, 0x14),
    800000: (0x00, 0x16),
    500000: (0x00, 0x1C),
    250000: (0x01, 0x1C),
    125000: (0x03, 0x1C),
    100000: (0x04, 0x1C),
    50000: (0x09, 0x1C),
    20000: (0x18, 0x1C),
    10000: (0x31, 0x1C),
}


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
