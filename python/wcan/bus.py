# SPDX-License-Identifier: MIT
"""The python-can interface ``wcan``.

``can.Bus(interface="wcan", channel="wcan41-0-1", bitrate=500000,
data_bitrate=2000000, fd=True)`` opens channel 1 of the first CAN FD adapter
of type 41. Several buses of a process may share an adapter or a channel:
each sees every frame of its channel and what the others on it send.
"""

import threading

from can import (
    BusABC,
    BusState,
    CanInitializationError,
    CanInterfaceNotImplementedError,
    CanOperationError,
)

from . import _adapters, _channels, _detect
from ._library import Error, LoadError, library


def _can_error(cls, error):
    """A python-can exception with the library's reason and code."""
    if error.code:
        return cls(f"{error.what}: {error.message}", error_code=error.code)
    return cls(str(error))


def _flag(value):
    """Configuration files hand flags over as text."""
    if value is None or isinstance(value, bool):
        return value
    if isinstance(value, str):
        return value.strip().lower() not in ("", "0", "false", "no", "off")
    return bool(value)


def _number(name, value):
    """A positive count that fits the library's 32-bit fields, or None."""
    if value is None:
        return None
    try:
        number = int(value)
    except (TypeError, ValueError):
        number = 0
    if not 0 < number < 2**32:
        raise CanInitializationError(f"{name} must be a positive whole number, not {value!r}")
    return number


class WcanBus(BusABC):
    """A channel of a wcan adapter as a python-can bus.

    :param channel: ``wcan<TYPE>-<INDEX>-<CHANNEL>``, e.g. ``wcan41-0-1``.
    :param bitrate: arbitration bit rate (default 500000).
    :param data_bitrate: CAN FD data phase bit rate (default 2000000).
    :param fd: CAN FD on; the default is on for CAN FD adapters. With
        ``fd=False`` the channel runs classic CAN and refuses CAN FD frames.
    :param listen_only: take no part in the bus (no acknowledgements).
    :param receive_own_messages: also receive what this bus sent, with
        ``is_rx=False``.
    :param receive_queue_size: frames this bus holds unread before it drops
        new ones (counted in :attr:`frames_dropped`).

    The first Bus on a channel sets its bit rates and mode; a later Bus that
    asks for different ones is refused. Other keyword arguments (such as the
    ``single_handle`` of python-can's tools) are accepted and ignored.
    """

    def __init__(
        self,
        channel,
        can_filters=None,
        bitrate=None,
        data_bitrate=None,
        fd=None,
        listen_only=None,
        receive_own_messages=False,
        receive_queue_size=_channels.DEFAULT_QUEUE_SIZE,
        **kwargs,
    ):
        try:
            name = _adapters.parse_channel(channel)
        except ValueError as error:
            raise CanInitializationError(str(error)) from None
        try:
            lib = library()
        except LoadError as error:
            raise CanInterfaceNotImplementedError(str(error)) from None
        asked = _channels.Settings(
            _number("bitrate", bitrate),
            _number("data_bitrate", data_bitrate),
            _flag(fd),
            _flag(listen_only),
        )
        self._inbox = _channels.Inbox(_number("receive_queue_size", receive_queue_size))
        self._subscriber = _channels.Subscriber(self._inbox, bool(_flag(receive_own_messages)))
        try:
            self._channel = _channels.attach(lib, name, asked, self._subscriber)
        except ValueError as error:
            raise CanInitializationError(str(error)) from None
        except Error as error:
            raise _can_error(CanInitializationError, error) from None
        self._shutdown_lock = threading.Lock()
        self._is_shut_down = False
        self.channel_info = self._describe()
        try:
            super().__init__(channel=str(name), can_filters=can_filters, **kwargs)
        except BaseException:
            self.shutdown()
            raise

    def _describe(self):
        channel = self._channel
        s = channel.settings
        text = f"{channel.name}: channel {channel.key.channel} of {channel.kind.family} "
        text += f"{channel.adapter.name}, {s.bitrate} bit/s"
        if s.fd:
            text += f", CAN FD data phase {s.data_bitrate} bit/s"
        return text + (", listen-only" if s.listen_only else "")

    def send(self, msg, timeout=None):
        """Sends one frame; the library takes it at once, so `timeout` has no use."""
        if self._is_shut_down:
            raise CanOperationError("the bus is shut down")
        try:
            self._channel.send(self._subscriber, msg)
        except Error as error:
            raise _can_error(CanOperationError, error) from None

    def _recv_internal(self, timeout):
        # The reader threads filter before they build messages.
        return self._inbox.get(timeout), True

    def fileno(self):
        """A descriptor readable while this bus holds received frames.

        As with python-can's SocketCAN bus, a host can register the bus with
        ``selectors`` or an asyncio loop and call ``recv(0)`` when it is
        readable. ``shutdown()`` makes it readable (waking a waiting host),
        then closes it; it is -1 from then on.
        """
        return self._inbox.event

    def _apply_filters(self, filters):
        self._channel.set_filters(self._subscriber, filters)

    @property
    def state(self):
        return BusState.PASSIVE if self._channel.settings.listen_only else BusState.ACTIVE

    @property
    def frames_dropped(self):
        """Frames lost because this bus held `receive_queue_size` unread ones."""
        return self._inbox.dropped

    @property
    def adapter_id_ranges(self):
        """The id ranges the adapter passes on this channel; None when it passes all.

        Each is (id_mode, first, last) with id_mode 0 for standard and 1 for
        extended ids. They serve every Bus on the channel, and each Bus
        filters for itself in software too.
        """
        return self._channel.hardware_ranges

    def shutdown(self):
        with self._shutdown_lock:
            if self._is_shut_down:
                return
            self._is_shut_down = True
        self._inbox.close()
        try:
            super().shutdown()
        finally:
            _channels.detach(self._channel, self._subscriber)

    @staticmethod
    def _detect_available_configs():
        try:
            usb = library().usb
        except LoadError:
            return []
        return [
            {"interface": "wcan", "channel": str(_adapters.ChannelName(kind.number, index, n))}
            for kind, index in _detect.attached_adapters(usb)
            if kind.family != _adapters.RECORDER
            for n in range(kind.channels)
        ]
