# SPDX-License-Identifier: MIT
"""The checks python-can runs on an interface with two buses back to back.

Two buses on the cabled channels of one adapter, opened as python-can's own
back-to-back run opens them, exchange every kind of frame; a third bus, its
own message objects, time stamps and concurrent sends are checked too.
"""

import threading
import time

import can
import pytest
from conftest import CLASSIC_PAIR, FD_PAIR, content


class BackToBack:
    INTERFACE_1 = INTERFACE_2 = "wcan"
    CHANNEL_1, CHANNEL_2 = FD_PAIR
    CONFIG = {"bitrate": 500000, "fd": True, "single_handle": True}
    TIMEOUT = 1.0

    FRAMES = {
        "standard": can.Message(arbitration_id=0x123, data=b"\x01\x02", is_extended_id=False),
        "extended": can.Message(arbitration_id=0x1ABCDEF0, data=bytes(range(8))),
        "remote": can.Message(arbitration_id=0x321, is_remote_frame=True, is_extended_id=False),
        "short": can.Message(arbitration_id=0x7, data=b"", is_extended_id=False),
        "fd": can.Message(arbitration_id=0x456, data=bytes(range(48)), is_fd=True),
        "fd_brs": can.Message(arbitration_id=0x457, data=bytes(64), is_fd=True,
                              bitrate_switch=True),
    }

    def open(self, channel, interface="wcan", cls=can.Bus, **kwargs):
        bus = cls(channel=channel, interface=interface, **{**self.CONFIG, **kwargs})
        self.opened.append(bus)
        return bus

    @pytest.fixture(autouse=True)
    def two_buses(self):
        self.opened = []
        self.bus1 = self.open(self.CHANNEL_1, self.INTERFACE_1)
        self.bus2 = self.open(self.CHANNEL_2, self.INTERFACE_2)
        yield
        for bus in self.opened:
            bus.shutdown()

    def test_no_message(self):
        assert self.bus1.recv(0.1) is None

    def test_shutdown_twice(self):
        self.bus2.shutdown()
        self.bus2.shutdown()

    @pytest.mark.parametrize("kind", sorted(FRAMES))
    def test_frame_round_trips_both_ways(self, kind):
        msg = self.FRAMES[kind]
        if msg.is_fd and not self.CONFIG["fd"]:
            pytest.skip("a classic adapter")
        for sender, receiver in ((self.bus1, self.bus2), (self.bus2, self.bus1)):
            sender.send(msg)
            got = receiver.recv(self.TIMEOUT)
            assert got is not None and content(got) == content(msg)
            assert got.is_rx and got is not msg

    def test_each_bus_gets_its_own_message_objects(self):
        bus3 = self.open(self.CHANNEL_2, receive_own_messages=True)
        self.bus1.send(self.FRAMES["standard"])
        on2, on3 = self.bus2.recv(self.TIMEOUT), bus3.recv(self.TIMEOUT)
        assert on2 is not on3 and content(on2) == content(on3)
        bus3.send(self.FRAMES["extended"])
        own, echoed, cabled = (bus.recv(self.TIMEOUT) for bus in (bus3, self.bus2, self.bus1))
        assert len({id(own), id(echoed), id(cabled)}) == 3
        assert [m.is_rx for m in (own, echoed, cabled)] == [False, True, True]

    def test_fileno(self):
        try:
            assert self.bus1.fileno() >= 0
        except NotImplementedError:
            pass  # the interface has no descriptor to offer

    def test_timestamps_are_epoch_seconds(self):
        self.bus1.send(self.FRAMES["standard"])
        assert abs(self.bus2.recv(self.TIMEOUT).timestamp - time.time()) < 0.1

    def test_timestamps_resolve_below_a_second(self):
        self.bus1.send(self.FRAMES["standard"])
        time.sleep(0.05)
        self.bus1.send(self.FRAMES["standard"])
        first, second = self.bus2.recv(self.TIMEOUT), self.bus2.recv(self.TIMEOUT)
        assert 0.03 < second.timestamp - first.timestamp < 0.5

    @pytest.mark.parametrize("filtered", [False, True])
    def test_concurrent_sends_through_thread_safe_buses(self, filtered):
        filters = [{"can_id": 0x100, "can_mask": 0x700, "extended": False}] if filtered else None
        sender = self.open(self.CHANNEL_1, cls=can.ThreadSafeBus)
        receiver = self.open(self.CHANNEL_2, cls=can.ThreadSafeBus, can_filters=filters)
        per_thread, threads = 250, 4

        def send(first):
            for n in range(first, first + per_thread):
                data = n.to_bytes(2, "little")
                sender.send(can.Message(arbitration_id=0x100, data=data, is_extended_id=False))

        workers = [threading.Thread(target=send, args=(k * per_thread,)) for k in range(threads)]
        for worker in workers:
            worker.start()
        got = [receiver.recv(self.TIMEOUT) for _ in range(per_thread * threads)]
        for worker in workers:
            worker.join()
        assert None not in got
        assert sorted(int.from_bytes(m.data, "little") for m in got) == list(range(1000))


class TestCanFdAdapter(BackToBack):
    pass


class TestClassicAdapter(BackToBack):
    CHANNEL_1, CHANNEL_2 = CLASSIC_PAIR
    CONFIG = {"bitrate": 500000, "fd": False, "single_handle": True}
