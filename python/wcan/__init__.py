# SPDX-License-Identifier: MIT
"""Python access to the wcan adapter library (libwcan.so) through ctypes.

- The records of wcan.h as ctypes structures (``WCAN_CAN_OBJ``,
  ``WCAN_CANFD_OBJ``, ...), checked at import against the header, and the
  header's constants (``WCAN_DEV_USBCANFD_41``, ``WCAN_ERR_PARAMETER``, ...).
- :func:`library` loads libusb (or the simulated adapters when ``WCAN_SIM``
  is set) and then libwcan.so, and returns a :class:`Library` whose
  attributes are the 30 ``WCAN_*`` functions with their argument types.
- :class:`Error` carries the library's last-error code and message.
- ``wcan.bus.WcanBus`` is the python-can interface ``wcan``:
  ``can.Bus(interface="wcan", channel="wcan41-0-1")``.

The library's log lines go to standard error unless ``WCAN_LOG_CONSOLE`` is
set before the first :func:`library` call.
"""

from . import _header
from ._adapters import DEVICE_TYPES, ChannelName, DeviceType, device_type, parse_channel
from ._library import PROTOTYPES, Error, Library, LoadError, Simulation, library
from ._records import (
    RECORDS,
    WCAN_BOARD_INFO,
    WCAN_CAN_OBJ,
    WCAN_CANFD_OBJ,
    WCAN_FLITER_CONFIG,
    WCAN_FLITER_INFO,
    WCAN_INIT_CONFIG,
    WCAN_INITFD_CONFIG,
    WCAN_RECORD_CONFIG,
)

globals().update(_header.CONSTANTS)

__all__ = [
    "DEVICE_TYPES",
    "ChannelName",
    "DeviceType",
    "Error",
    "Library",
    "LoadError",
    "PROTOTYPES",
    "RECORDS",
    "Simulation",
    "WCAN_BOARD_INFO",
    "WCAN_CANFD_OBJ",
    "WCAN_CAN_OBJ",
    "WCAN_FLITER_CONFIG",
    "WCAN_FLITER_INFO",
    "WCAN_INITFD_CONFIG",
    "WCAN_INIT_CONFIG",
    "WCAN_RECORD_CONFIG",
    "device_type",
    "library",
    "parse_channel",
    *_header.CONSTANTS,
]

try:
    from ._build import VERSION as __version__
except ImportError:
    __version__ = "unknown"
