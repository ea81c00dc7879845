# SPDX-License-Identifier: MIT
"""The python-can interface wcan on simulated adapters: traffic, sharing, errors."""

import re
import threading
import time

import can
import pytest
from conftest import CLASSIC_PAIR, FD_PAIR, SIM_ADAPTER, content, receive

import wcan

CLASSIC_FRAMES = [
    can.Message(arbitration_id=0x123, data=b"\xde\xad\xbe\xef", is_extended_id=False),
    can.Message(arbitration_id=0x12345678, data=bytes(range(8))),
    can.Message(arbitration_id=0x7FF, is_remote_frame=True, dlc=0, is_extended_id=False),
    can.Message(arbitration_id=0x1FFFFFFF, is_remote_frame=True, dlc=0),
    can.Message(arbitration_id=0, data=b"", is_extended_id=False),
]
FD_FRAMES = [
    can.Message(arbitration_id=0x210, data=bytes(range(64)), is_fd=True, is_extended_id=False),
    can.Message(arbitration_id=0x1ABCDE, data=bytes(12), is_fd=True, bitrate_switch=True),
    can.Message(arbitration_id=0x310, data=b"\x01", is_fd=True, bitrate_switch=True),
]


def adapter_open(dev_type):
    """Whether the library has the adapter open, asked without side effects."""
    lib = wcan.library()
    lib.WCAN_SetFliter(99, 0, 0, None)  # leaves "Device Type Not Supported!"
    if wcan.device_type(dev_type).family == "CAN FD adapter":
        lib.WCAN_GetReceiveNum(dev_type, 0, 0, wcan.WCAN_FRAMES_ALL)
    else:
        lib.WCAN_BoardInfoGet(dev_type, 0, wcan.WCAN_BOARD_INFO())
    return lib.WCAN_GetLastError() != wcan.WCAN_ERR_DEVICE_NOT_OPENED


def test_every_frame_kind_crosses_the_cable_both_ways_in_order(open_bus, cabled):
    kinds = [CLASSIC_FRAMES, FD_FRAMES] if cabled == FD_PAIR else [CLASSIC_FRAMES]
    frames = [f for _ in range(20) for group in kinds for f in group]  # kinds interleaved
    a, b = open_bus(cabled[0]), open_bus(cabled[1])
    for sender, receiver, name in ((a, b, cabled[1]), (b, a, cabled[0])):
        for frame in frames:
            sender.send(frame)
        got = receive(receiver, len(frames))
        # The library queues classic and CAN FD frames apart: each kind keeps its order.
        for fd in (False, True):
            assert [content(m) for m in got if m.is_fd == fd] == [
                content(m) for m in frames if m.is_fd == fd
            ]
        assert {(m.channel, m.is_rx) for m in got} == {(name, True)}
        assert all(a.timestamp <= b.timestamp for a, b in zip(got, got[1:]))  # log writers need it
        assert receiver.recv(0.05) is None


def test_buses_on_one_channel_see_what_the_others_send(open_bus):
    quiet, other = open_bus(FD_PAIR[0]), open_bus(FD_PAIR[0])
    own = open_bus(FD_PAIR[0], receive_own_messages=True)
    far = open_bus(FD_PAIR[1])
    quiet.send(CLASSIC_FRAMES[0])
    own.send(FD_FRAMES[0])
    seen = {bus: receive(bus, 2, timeout=0.5) for bus in (quiet, other, own, far)}
    assert [(content(m), m.is_rx) for m in seen[quiet]] == [(content(FD_FRAMES[0]), True)]
    for bus in (other, own, far):
        assert [content(m) for m in seen[bus]] == [content(CLASSIC_FRAMES[0]),
                                                   content(FD_FRAMES[0])]
    assert [m.is_rx for m in seen[own]] == [True, False]
    assert len({id(m) for frames in seen.values() for m in frames}) == 7


def test_adapter_closes_with_its_last_bus(open_bus):
    a, b = can.Bus(interface="wcan", channel=FD_PAIR[0]), open_bus(FD_PAIR[1])
    a.shutdown()
    assert adapter_open(41)
    b.shutdown()
    assert not adapter_open(41)


@pytest.mark.parametrize("timeout", [0, 0.2])
def test_recv_gives_up_after_its_timeout(open_bus, timeout):
    bus = open_bus(FD_PAIR[1])
    started = time.monotonic()
    assert bus.recv(timeout) is None
    assert timeout <= time.monotonic() - started < timeout + 0.5


def test_recv_without_timeout_waits_for_a_frame(open_bus):
    a, b = open_bus(FD_PAIR[0]), open_bus(FD_PAIR[1])
    threading.Timer(0.2, a.send, [CLASSIC_FRAMES[0]]).start()
    assert content(b.recv(None)) == content(CLASSIC_FRAMES[0])


def test_shutdown_from_another_thread_wakes_a_blocked_recv(open_bus):
    bus = open_bus(FD_PAIR[1])
    threading.Timer(0.2, bus.shutdown).start()
    with pytest.raises(can.CanOperationError, match="shut down"):
        bus.recv(None)
    bus.shutdown()
    with pytest.raises(can.CanOperationError):
        bus.send(CLASSIC_FRAMES[0])


@pytest.mark.parametrize(
    "channel, kwargs, reason",
    [
        ("wcan41-5-0", {}, "cannot open adapter 41/5: Device Not Exist!"),
        ("can0", {}, "use wcan<TYPE>-<INDEX>-<CHANNEL>"),
        ("wcan99-0-0", {}, "99 is not a device type"),
        ("wcan61-0-0", {}, "is a CAN recorder"),
        ("wcan41-0-2", {}, "has channels 0 to 1"),
        ("wcan4-0-0", {"fd": True}, "classic CAN adapter without CAN FD"),
        ("wcan4-0-0", {"bitrate": 300000}, "300000 is not available on the classic adapter"),
        ("wcan41-0-0", {"bitrate": 300000}, "Baud Rate Parameter Not Supported!"),
        ("wcan41-0-0", {"bitrate": 2**32 + 500000}, "bitrate must be a positive whole number"),
        ("wcan41-0-0", {"receive_queue_size": 0}, "receive_queue_size must be a positive"),
    ],
)
def test_a_bus_that_cannot_open_says_why_and_leaves_nothing_open(channel, kwargs, reason):
    with pytest.raises(can.CanInitializationError, match=re.escape(reason)):
        can.Bus(interface="wcan", channel=channel, **kwargs)
    assert not adapter_open(41) and not adapter_open(4)


def test_a_second_bus_on_a_channel_cannot_change_its_settings(open_bus):
    open_bus(FD_PAIR[0], bitrate=500000)
    open_bus(FD_PAIR[0], single_handle=True)
    with pytest.raises(can.CanInitializationError, match="already runs with bitrate=500000"):
        open_bus(FD_PAIR[0], bitrate=250000)


@pytest.mark.parametrize(
    "channel, kwargs, msg, reason",
    [
        (CLASSIC_PAIR[0], {}, FD_FRAMES[0], "classic CAN adapter, which cannot send CAN FD"),
        (FD_PAIR[0], {"fd": False}, FD_FRAMES[0], "fd=False"),
        (FD_PAIR[0], {}, can.Message(arbitration_id=1, data=bytes(9)), "up to 8 data bytes"),
        (FD_PAIR[0], {}, can.Message(arbitration_id=0x800, is_extended_id=False), "0x800"),
        (FD_PAIR[0], {}, can.Message(is_error_frame=True), "error frames"),
    ],
)
def test_a_frame_that_cannot_go_out_raises_and_sends_nothing(open_bus, channel, kwargs, msg,
                                                              reason):
    bus = open_bus(channel, **kwargs)
    far = open_bus(channel[:-1] + "1")
    with pytest.raises(can.CanOperationError, match=re.escape(reason)):
        bus.send(msg)
    assert far.recv(0.1) is None


IDS = [(0x100, False), (0x10F, False), (0x110, False), (0x101, False), (0x100, True),
       (0x18DA00F1, True)]


@pytest.mark.parametrize(
    "filters, in_adapter",
    [
        ([{"can_id": 0x100, "can_mask": 0x7F0, "extended": False}], True),
        ([{"can_id": 0x18DA0000, "can_mask": 0x1FFF0000, "extended": True}], True),
        ([{"can_id": 0x101, "can_mask": 0x101}], False),
    ],
)
def test_filters_pass_what_python_can_would_in_the_adapter_or_not(open_bus, cabled, filters,
                                                                   in_adapter):
    tx, rx = open_bus(cabled[0]), open_bus(cabled[1], can_filters=filters)
    assert (rx.adapter_id_ranges is not None) == (in_adapter and cabled == FD_PAIR)
    frames = [can.Message(arbitration_id=i, is_extended_id=ext) for i, ext in IDS]
    wanted = [content(m) for m in frames if rx._matches_filters(m)]
    for late_unfiltered_bus in (False, True):
        if late_unfiltered_bus:  # the adapter must now pass it everything
            unfiltered = open_bus(cabled[1])
            assert rx.adapter_id_ranges is None
        for frame in frames:
            tx.send(frame)
        assert [content(m) for m in receive(rx, len(wanted))] == wanted
        assert rx.recv(0.1) is None
    assert len(receive(unfiltered, len(frames))) == len(frames)


def test_frames_sent_after_a_replug_arrive(open_bus, cabled):
    sim = wcan.library().simulation
    adapter = SIM_ADAPTER[cabled[0].split("-")[0]]
    tx, rx = open_bus(cabled[0]), open_bus(cabled[1])
    sim.unplug(adapter)
    with pytest.raises(can.CanOperationError, match=f"{cabled[0]} did not take the frame"):
        tx.send(CLASSIC_FRAMES[0])
    sim.replug(adapter)
    deadline = time.monotonic() + 10
    while rx.recv(0.05) is None:  # until the library has brought the adapter back
        assert time.monotonic() < deadline, "the adapter did not come back"
        try:
            tx.send(can.Message(arbitration_id=0x700, is_extended_id=False))
        except can.CanOperationError:
            pass
    rx.set_filters([{"can_id": 0x200, "can_mask": 0x7F0, "extended": False}])
    while rx.recv(0.05) is not None:  # the markers still on their way
        pass
    frames = [can.Message(arbitration_id=0x200 + n, is_extended_id=False) for n in range(10)]
    for frame in frames:
        tx.send(frame)
    sent_at = time.time()
    got = receive(rx, len(frames))
    assert [content(m) for m in got] == [content(m) for m in frames]
    assert all(abs(m.timestamp - sent_at) < 0.5 for m in got)


def test_time_stamps_resolve_below_a_second(open_bus):
    tx, rx = open_bus(FD_PAIR[0]), open_bus(FD_PAIR[1])
    tx.send(CLASSIC_FRAMES[0])
    time.sleep(0.05)
    tx.send(CLASSIC_FRAMES[0])
    first, second = receive(rx, 2)
    assert 0.03 < second.timestamp - first.timestamp < 0.5


def test_detected_configurations_list_every_channel_of_every_adapter():
    channels = {c["channel"] for c in can.detect_available_configs("wcan")}
    # Types that share their USB ids are listed as the first of them.
    assert channels == {"wcan41-0-0", "wcan41-0-1", "wcan3-0-0", "wcan3-0-1"}
