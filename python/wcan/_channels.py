# SPDX-License-Identifier: MIT
"""Adapters and channels shared by every Bus of the process.

The first Bus on a channel opens its adapter (once per process), starts the
channel and its reader threads; the last one to leave stops them and closes
the adapter when no other channel of it is in use. Each reader thread blocks
in the library's own wait for one queue of the channel (classic frames, and
on the CAN FD family CAN FD frames too), turns each batch into can.Message
objects and hands every subscribed Bus its own copies. What a Bus sends is
echoed to the other buses on the channel, as a SocketCAN socket sees its
neighbours' frames.
"""

import atexit
import collections
import ctypes
import logging
import struct
import threading
import time
from typing import NamedTuple, Optional

from can import CanOperationError, Message

from . import _adapters, _filters
from ._clock import DeviceClock
from ._records import (
    WCAN_CAN_OBJ,
    WCAN_CANFD_OBJ,
    WCAN_FLITER_CONFIG,
    WCAN_INIT_CONFIG,
    WCAN_INITFD_CONFIG,
)

log = logging.getLogger("can.wcan")

# How long one library receive call waits. Stopping the channel ends a wait
# at once; the bound only covers a reader that was between two waits then.
READ_WAIT_MS = 1000
# Frames taken from the library per call.
BATCH = 512
# Frames a Bus holds before it drops new ones (and says so).
DEFAULT_QUEUE_SIZE = 200_000

_FDF = 0x10  # _WCAN_CANFD_OBJ.fdFlags
_BRS = 0x08
_FD_FRAME_LENGTHS = (0, 1, 2, 3, 4, 5, 6, 7, 8, 12, 16, 20, 24, 32, 48, 64)
# The CAN FD frame length that holds n bytes, by n.
_FD_LENGTHS = tuple(min(n for n in _FD_FRAME_LENGTHS if n >= size) for size in range(65))

# id, time stamp, flags, remote, extended, length, data: both records alike.
_CLASSIC_RECORD = struct.Struct("<IIBx??B3x8s")
_FD_RECORD = struct.Struct("<IIBx??B3x64s")
_CLASSIC_OUT = struct.Struct("<IIBBBBB3x8s")
_FD_OUT = struct.Struct("<IIBBBBB3x64s")


class Settings(NamedTuple):
    bitrate: int
    data_bitrate: int
    fd: bool
    listen_only: bool


DEFAULT_BITRATE = 500000
DEFAULT_DATA_BITRATE = 2000000


def resolve_settings(kind, asked):
    """Settings with the defaults filled in; ValueError for what the adapter cannot do."""
    settings = Settings(
        bitrate=asked.bitrate or DEFAULT_BITRATE,
        data_bitrate=asked.data_bitrate or DEFAULT_DATA_BITRATE,
        fd=asked.fd if asked.fd is not None else kind.family == _adapters.CAN_FD,
        listen_only=bool(asked.listen_only),
    )
    if kind.family == _adapters.CLASSIC:
        if settings.fd:
            raise ValueError(f"adapter type {kind.number} is a classic CAN adapter without CAN FD")
        if settings.bitrate not in _adapters.CLASSIC_TIMINGS:
            rates = ", ".join(str(rate) for rate in _adapters.CLASSIC_TIMINGS)
            raise ValueError(
                f"bit rate {settings.bitrate} is not available on the classic adapter ({rates})"
            )
    return settings


class Inbox:
    """The frames waiting for one Bus; a closed inbox wakes and refuses readers.

    The reader threads of a channel's two queues hand over their batches
    independently, so a frame may arrive after one of the other kind that was
    on the bus after it. It takes its place among the frames still waiting;
    behind one already read it takes that frame's time stamp: the time stamps
    of a Bus never run backwards, which log writers rely on.
    """

    def __init__(self, capacity):
        self.frames = collections.deque()
        self.capacity = capacity
        self.dropped = 0
        self._dropping = False
        self.closed = False
        self._ready = threading.Condition(threading.Lock())
        self._waiting = 0
        self._last_taken = 0.0

    def put(self, messages):
        if not messages:
            return
        with self._ready:
            room = max(self.capacity - len(self.frames), 0)
            if len(messages) > room:
                self._drop(len(messages) - room)
                messages = messages[:room]
            else:
                self._dropping = False
            frames = self.frames
            for msg in messages:
                if msg.timestamp < self._last_taken:
                    msg.timestamp = self._last_taken
                self._insert(msg)
            if self._waiting:
                self._ready.notify()

    def _insert(self, msg):
        """Puts a frame that lies behind the last waiting one in its place,
        never before a frame of its own queue, which the adapter sent first."""
        frames = self.frames
        place = len(frames)
        while place > 0 and frames[place - 1].timestamp > msg.timestamp:
            if frames[place - 1].is_fd == msg.is_fd:
                msg.timestamp = frames[place - 1].timestamp
                break
            place -= 1
        frames.insert(place, msg)

    def _drop(self, count):
        if not self._dropping:
            log.warning("a wcan bus holds %d unread frames and drops new ones", self.capacity)
            self._dropping = True
        self.dropped += count

    def get(self, timeout):
        """The oldest frame; None after `timeout` seconds (None waits without limit)."""
        if self.closed:
            raise CanOperationError("the bus is shut down")
        deadline = None if timeout is None else time.monotonic() + timeout
        # Under the lock: put() may be inserting behind the head.
        with self._ready:
            self._waiting += 1
            try:
                while True:
                    if self.closed:
                        raise CanOperationError("the bus was shut down while receiving")
                    if self.frames:
                        msg = self.frames.popleft()
                        self._last_taken = msg.timestamp
                        return msg
                    left = None if deadline is None else deadline - time.monotonic()
                    if left is not None and left <= 0:
                        return None
                    self._ready.wait(left)
            finally:
                self._waiting -= 1

    def close(self):
        with self._ready:
            self.closed = True
            self._ready.notify_all()


class Subscriber:
    """One Bus's place on a channel."""

    def __init__(self, inbox, receive_own_messages):
        self.inbox = inbox
        self.receive_own_messages = receive_own_messages
        self.matches = None
        self.ranges = None

    def set_filters(self, filters):
        self.matches = _filters.matcher(filters)
        self.ranges = _filters.id_ranges(filters)


def received_messages(records, stamps, channel_name, is_fd, matches):
    """can.Message objects for one batch of unpacked records and their epoch seconds."""
    messages = []
    append = messages.append
    for (can_id, _, flags, remote, extended, length, payload), stamp in zip(records, stamps):
        if matches is not None and not matches(can_id, extended):
            continue
        append(
            Message(
                stamp,
                can_id,
                extended,
                remote,
                False,
                channel_name,
                length,
                payload[:length],
                is_fd,
                True,
                is_fd and (flags & _BRS) != 0,
                False,
            )
        )
    return messages


def fd_length(length):
    """The CAN FD frame length that holds `length` bytes."""
    return _FD_LENGTHS[length]


class Adapter:
    """One opened adapter, shared by the channels in use on it."""

    def __init__(self, lib, kind, index):
        self.lib = lib
        self.kind = kind
        self.index = index
        self.name = f"{kind.number}/{index}"
        self.channels_in_use = 0

    def open(self):
        if self.lib.WCAN_OpenDevice(self.kind.number, self.index) != 1:
            raise self.lib.error(f"cannot open adapter {self.name}")

    def close(self):
        self.lib.WCAN_CloseDevice(self.kind.number, self.index)


class Channel:
    def __init__(self, lib, name, adapter, settings):
        self.lib = lib
        self.key = name
        self.name = str(name)
        self.adapter = adapter
        self.kind = adapter.kind
        self.settings = settings
        # Replaced whole under the lock; the readers iterate a snapshot.
        self.subscribers = ()
        self._lock = threading.Lock()
        self._stop = threading.Event()
        self._readers = []
        self._hardware_ranges = None
        self._ids = (self.kind.number, adapter.index, name.channel)
        # Both receive queues' readers share it, so their frames share one time line.
        self.clock = DeviceClock(self.kind.counter_bits)

    # -- start and stop ---------------------------------------------------

    def start(self):
        lib, (dev_type, index, channel) = self.lib, self._ids
        s = self.settings
        lib.WCAN_ClearBuffer(dev_type, index, channel)
        self.clock.restart()
        if self.kind.family == _adapters.CLASSIC:
            timing0, timing1 = _adapters.CLASSIC_TIMINGS[s.bitrate]
            config = WCAN_INIT_CONFIG(timing0=timing0, timing1=timing1, mode=int(s.listen_only))
            started = lib.WCAN_InitCAN(dev_type, index, channel, config) == 1
        else:
            config = WCAN_INITFD_CONFIG(
                abitRate=s.bitrate,
                dbitRate=s.data_bitrate if s.fd else s.bitrate,
                fdEnable=int(s.fd),
                option0=int(s.listen_only),
            )
            started = lib.WCAN_InitCANFD(dev_type, index, channel, config) == 1
        if not started:
            rates = f"{s.bitrate} bit/s" + (f", data phase {s.data_bitrate} bit/s" if s.fd else "")
            raise lib.error(f"cannot start {self.name} at {rates}")
        self._start_reader(lib.WCAN_Receive, WCAN_CAN_OBJ, _CLASSIC_RECORD, False)
        if self.kind.family == _adapters.CAN_FD:
            self._start_reader(lib.WCAN_ReceiveFD, WCAN_CANFD_OBJ, _FD_RECORD, True)

    def _start_reader(self, receive, record_type, layout, is_fd):
        thread = threading.Thread(
            target=self._read,
            args=(receive, record_type, layout, is_fd),
            name=f"{self.name} {'CAN FD' if is_fd else 'CAN'} reader",
            daemon=True,
        )
        self._readers.append(thread)
        thread.start()

    def stop(self):
        self._stop.set()
        self.lib.WCAN_Stop(*self._ids)
        for thread in self._readers:
            thread.join()

    # -- receiving --------------------------------------------------------

    def _read(self, receive, record_type, layout, is_fd):
        buffer = (record_type * BATCH)()
        address = ctypes.addressof(buffer)
        dev_type, index, channel = self._ids
        clock = self.clock
        stopping = self._stop
        while not stopping.is_set():
            asked = time.monotonic()
            count = receive(dev_type, index, channel, buffer, BATCH, READ_WAIT_MS)
            if count <= 0:
                if time.monotonic() - asked < READ_WAIT_MS / 2000:
                    # The library refused at once instead of waiting.
                    stopping.wait(READ_WAIT_MS / 1000)
                continue
            now_us = time.time_ns() // 1000
            try:
                records = list(layout.iter_unpack(ctypes.string_at(address, count * layout.size)))
                stamps = [
                    us * 1e-6
                    for us in clock.batch_to_epoch_us([record[1] for record in records], now_us)
                ]
                for subscriber in self.subscribers:
                    subscriber.inbox.put(
                        received_messages(
                            records, stamps, self.name, is_fd, subscriber.matches
                        )
                    )
            except Exception:  # a reader that dies silently would lose every later frame
                log.exception("%s: frames lost while handing them out", self.name)

    # -- sending ----------------------------------------------------------

    def send(self, sender, msg):
        if msg.is_error_frame:
            raise CanOperationError("error frames cannot be sent")
        can_id = msg.arbitration_id
        if can_id < 0 or can_id > (0x1FFFFFFF if msg.is_extended_id else 0x7FF):
            kind = "an extended" if msg.is_extended_id else "a standard"
            raise CanOperationError(f"id 0x{can_id:X} does not fit {kind} CAN id")
        dev_type, index, channel = self._ids
        if msg.is_fd:
            sent = self.lib.WCAN_TransmitFD(dev_type, index, channel, self._fd_record(msg), 1)
        else:
            sent = self.lib.WCAN_Transmit(dev_type, index, channel, self._classic_record(msg), 1)
        if sent != 1:
            raise self.lib.error(f"{self.name} did not take the frame")
        self._echo(sender, msg)

    def _classic_record(self, msg):
        length = msg.dlc if msg.is_remote_frame else len(msg.data)
        if length > 8:
            raise CanOperationError(
                f"a classic CAN frame carries up to 8 data bytes, not {length}; "
                "set is_fd=True for a CAN FD frame"
            )
        record = WCAN_CAN_OBJ()
        _CLASSIC_OUT.pack_into(
            record,
            0,
            msg.arbitration_id,
            0,
            0,
            0,
            msg.is_remote_frame,
            msg.is_extended_id,
            length,
            bytes(msg.data),
        )
        return record

    def _fd_record(self, msg):
        if not self.settings.fd:
            raise CanOperationError(
                f"{self.name} runs classic CAN (fd=False) and cannot send CAN FD frames"
                if self.kind.family == _adapters.CAN_FD
                else f"{self.name} is on a classic CAN adapter, which cannot send CAN FD frames"
            )
        if msg.is_remote_frame:
            raise CanOperationError("CAN FD has no remote frames")
        if len(msg.data) > 64:
            raise CanOperationError(f"a CAN FD frame carries up to 64 bytes, not {len(msg.data)}")
        record = WCAN_CANFD_OBJ()
        _FD_OUT.pack_into(
            record,
            0,
            msg.arbitration_id,
            0,
            _FDF | (_BRS if msg.bitrate_switch else 0),
            0,
            0,
            msg.is_extended_id,
            fd_length(len(msg.data)),
            bytes(msg.data),
        )
        return record

    def _echo(self, sender, msg):
        """What the other buses on the channel see of a frame one of them sent."""
        subscribers = self.subscribers
        if len(subscribers) < 2 and not sender.receive_own_messages:
            return
        if msg.is_fd:  # as it went out: padded to a CAN FD length
            length = fd_length(len(msg.data))
            data = bytes(msg.data).ljust(length, b"\0")
        else:
            length = msg.dlc if msg.is_remote_frame else len(msg.data)
            data = b"" if msg.is_remote_frame else bytes(msg.data)
        frame = (msg.arbitration_id, msg.is_extended_id, msg.is_remote_frame, length, data)
        now = time.time()
        for subscriber in subscribers:
            own = subscriber is sender
            if own and not subscriber.receive_own_messages:
                continue
            if subscriber.matches and not subscriber.matches(frame[0], frame[1]):
                continue
            subscriber.inbox.put([self._echoed(frame, now, msg, own)])

    def _echoed(self, frame, now, msg, own):
        can_id, extended, remote, length, data = frame
        return Message(now, can_id, extended, remote, False, self.name, length, data, msg.is_fd,
                       not own, msg.is_fd and msg.bitrate_switch, False)

    # -- subscribers and filters -----------------------------------------

    def add(self, subscriber):
        with self._lock:
            self.subscribers += (subscriber,)
            self._update_hardware_filters()

    def remove(self, subscriber):
        """Takes the subscriber off; returns how many remain."""
        with self._lock:
            self.subscribers = tuple(s for s in self.subscribers if s is not subscriber)
            if self.subscribers:
                self._update_hardware_filters()
            return len(self.subscribers)

    def set_filters(self, subscriber, filters):
        with self._lock:
            subscriber.set_filters(filters)
            self._update_hardware_filters()

    @property
    def hardware_ranges(self):
        return self._hardware_ranges

    def _update_hardware_filters(self):
        """The adapter passes the union of every subscriber's ranges, or all.

        Each Bus still filters in software for itself, so the adapter only
        takes load off; when any Bus wants frames no range set describes,
        the adapter passes everything.
        """
        if self.kind.family != _adapters.CAN_FD:
            return
        wanted = self._union_of_ranges()
        if wanted == self._hardware_ranges:
            return
        if wanted is not None and not self._write_ranges(wanted):
            log.warning("%s: the adapter refused the id ranges; filtering in software", self.name)
            wanted = None
        if wanted is None:
            self._set_filter(0)
        self._hardware_ranges = wanted

    def _union_of_ranges(self) -> Optional[list]:
        union = []
        for subscriber in self.subscribers:
            if subscriber.ranges is None:
                return None
            union.extend(r for r in subscriber.ranges if r not in union)
        if not union or len(union) > _filters.MAX_RANGES:
            return None
        return union

    def _write_ranges(self, ranges):
        return (
            self._set_filter(0)
            and all(self._set_filter(1, r.id_mode, r.first, r.last) for r in ranges)
            and self._set_filter(2)
        )

    def _set_filter(self, command, id_mode=0, first=0, last=0):
        config = WCAN_FLITER_CONFIG(filterCmd=command, idMode=id_mode, startId=first, endId=last)
        return self.lib.WCAN_SetFliter(*self._ids, config) == 1


# -- the registry ---------------------------------------------------------

_registry = threading.Lock()
_adapters_open = {}
_channels_open = {}


def attach(lib, name, asked, subscriber):
    """The running Channel `name` with `subscriber` on it, started if needed.

    Raises ValueError for settings the adapter or the running channel cannot
    take, and the library's Error when the adapter or channel fails.
    """
    kind = _adapters.device_type(name.dev_type)
    settings = resolve_settings(kind, asked)
    with _registry:
        channel = _channels_open.get(name)
        if channel is None:
            channel = _start_channel(lib, name, kind, settings)
        else:
            _check_same_settings(channel, asked, settings)
        channel.add(subscriber)
        return channel


def _start_channel(lib, name, kind, settings):
    key = (name.dev_type, name.index)
    adapter = _adapters_open.get(key)
    if adapter is None:
        adapter = Adapter(lib, kind, name.index)
        adapter.open()
        _adapters_open[key] = adapter
    channel = Channel(lib, name, adapter, settings)
    try:
        channel.start()
    except BaseException:
        channel.stop()
        if adapter.channels_in_use == 0:
            adapter.close()
            del _adapters_open[key]
        raise
    adapter.channels_in_use += 1
    _channels_open[name] = channel
    return channel


def _check_same_settings(channel, asked, settings):
    for field, wanted, running in zip(Settings._fields, settings, channel.settings):
        if getattr(asked, field) is not None and wanted != running:
            raise ValueError(
                f"{channel.name} already runs with {field}={running!r} "
                f"for another Bus of this process, not {wanted!r}"
            )


def detach(channel, subscriber):
    """Takes `subscriber` off; the last one stops the channel and maybe closes the adapter."""
    with _registry:
        if channel.remove(subscriber) or _channels_open.get(channel.key) is not channel:
            return  # others remain, or everything was closed at exit
        channel.stop()
        del _channels_open[channel.key]
        adapter = channel.adapter
        adapter.channels_in_use -= 1
        if adapter.channels_in_use == 0:
            adapter.close()
            del _adapters_open[(adapter.kind.number, adapter.index)]


@atexit.register
def _close_all():
    """Stops every reader before the interpreter goes, then closes the adapters."""
    with _registry:
        for channel in _channels_open.values():
            for subscriber in channel.subscribers:
                subscriber.inbox.close()
            channel.stop()
        for adapter in _adapters_open.values():
            adapter.close()
        _channels_open.clear()
        _adapters_open.clear()
