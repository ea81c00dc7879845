# SPDX-License-Identifier: MIT
"""Simulated adapters for the Python suites, inside each pytest process.

Simulated adapter 0 is a CAN FD adapter of type 41 and adapter 1 a classic
adapter of type 4; in each, channel 0 is cabled to channel 1.
"""

import os
import time

# The library reads these when it is loaded, which is on first use.
os.environ["WCAN_SIM"] = "41,4"
os.environ.setdefault("WCAN_LOG_CONSOLE", "stderr")

import can  # noqa: E402
import pytest  # noqa: E402

FD_PAIR = ("wcan41-0-0", "wcan41-0-1")
CLASSIC_PAIR = ("wcan4-0-0", "wcan4-0-1")
SIM_ADAPTER = {"wcan41": 0, "wcan4": 1}


@pytest.fixture
def open_bus():
    """Opens wcan buses and shuts every one down after the test."""
    buses = []

    def open_(channel, **kwargs):
        bus = can.Bus(interface="wcan", channel=channel, **kwargs)
        buses.append(bus)
        return bus

    yield open_
    for bus in buses:
        bus.shutdown()


@pytest.fixture(params=[FD_PAIR, CLASSIC_PAIR], ids=["canfd", "classic"])
def cabled(request):
    """The two cabled channels of one adapter."""
    return request.param


def receive(bus, count, timeout=5.0):
    """Up to `count` frames, waiting at most `timeout` seconds in all."""
    frames = []
    deadline = time.monotonic() + timeout
    while len(frames) < count and time.monotonic() < deadline:
        msg = bus.recv(max(0.0, deadline - time.monotonic()))
        if msg is not None:
            frames.append(msg)
    return frames


def content(msg):
    """What a frame carries on the bus, for comparing sent and received frames."""
    return (
        msg.arbitration_id,
        msg.is_extended_id,
        msg.is_remote_frame,
        msg.dlc,
        bytes(msg.data),
        msg.is_fd,
        msg.bitrate_switch,
    )
