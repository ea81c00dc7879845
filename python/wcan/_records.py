# SPDX-License-Identifier: MIT
"""The records of wcan.h as ctypes structures, checked against the header.

Each class carries the C record's name without its leading underscore and the
C field names unchanged. ``_header`` is written at build time by a program
compiled against wcan.h; :func:`check_layout` compares every size and offset
with it, so a record that drifted from the header fails at import instead of
corrupting memory in a library call.
"""

import ctypes
from ctypes import c_char, c_ubyte, c_uint, c_ushort

from . import _header


class WCAN_CAN_OBJ(ctypes.Structure):
    """One classic CAN frame."""

    _fields_ = [
        ("id", c_uint),
        ("timeStamp", c_uint),
        ("rawFlag", c_ubyte),
        ("sendType", c_ubyte),
        ("remoteFlag", c_ubyte),
        ("externFlag", c_ubyte),
        ("dataLen", c_ubyte),
        ("reserved", c_ubyte * 3),
        ("data", c_ubyte * 8),
    ]


class WCAN_CANFD_OBJ(ctypes.Structure):
    """One CAN or CAN FD frame."""

    _fields_ = [
        ("id", c_uint),
        ("timeStamp", c_uint),
        ("fdFlags", c_ubyte),
        ("sendType", c_ubyte),
        ("remoteFlag", c_ubyte),
        ("externFlag", c_ubyte),
        ("dataLen", c_ubyte),
        ("reserved", c_ubyte * 3),
        ("data", c_ubyte * 64),
    ]


class WCAN_INIT_CONFIG(ctypes.Structure):
    """Classic channel initialisation."""

    _fields_ = [
        ("param0", c_uint),
        ("param1", c_uint),
        ("param2", c_uint),
        ("param3", c_ubyte),
        ("timing0", c_ubyte),
        ("timing1", c_ubyte),
        ("mode", c_ubyte),
    ]


class WCAN_INITFD_CONFIG(ctypes.Structure):
    """CAN FD channel initialisation."""

    _fields_ = [
        ("abitRate", c_uint),
        ("dbitRate", c_uint),
        ("abitTiming", c_uint),
        ("dbitTiming", c_uint),
        ("option0", c_ubyte),
        ("fdEnable", c_ubyte),
        ("option1", c_ubyte),
        ("reserved", c_ubyte * 37),
    ]


class WCAN_BOARD_INFO(ctypes.Structure):
    """Board information; serialNum is not NUL-terminated when all 20 characters are used."""

    _fields_ = [
        ("hwVersion", c_ushort),
        ("fwVersion", c_ushort),
        ("extVersion0", c_ushort),
        ("extVersion1", c_ushort),
        ("auxWord", c_ushort),
        ("canNum", c_ubyte),
        ("serialNum", c_char * 20),
        ("hwType", c_char * 40),
        ("reserved", c_ushort * 2),
    ]


class WCAN_FLITER_CONFIG(ctypes.Structure):
    """One acceptance-filter range."""

    _fields_ = [
        ("filterCmd", c_ubyte),
        ("idMode", c_ubyte),
        ("idType", c_ubyte),
        ("startId", c_uint),
        ("endId", c_uint),
        ("filterIndex", c_ushort),
    ]


class WCAN_FLITER_INFO(ctypes.Structure):
    """Recorder filter summary."""

    _fields_ = [
        ("filterCount", c_ushort),
        ("filterState", c_ubyte),
    ]


class WCAN_RECORD_CONFIG(ctypes.Structure):
    """Recorder settings of one channel."""

    _fields_ = [
        ("reserved0", c_ubyte),
        ("recFlag1", c_ubyte),
        ("recFlag2", c_ubyte),
        ("recFlag3", c_ubyte),
        ("abitParam", c_ubyte),
        ("dbitParam", c_ubyte),
        ("abitTiming", c_uint),
        ("dbitTiming", c_uint),
        ("recOptFlag0", c_ubyte),
        ("recOptByte1", c_ubyte),
        ("recOptByte2", c_ubyte),
        ("recOptFlag1", c_ubyte),
        ("recOptByte3", c_ubyte),
    ]


RECORDS = (
    WCAN_CAN_OBJ,
    WCAN_CANFD_OBJ,
    WCAN_INIT_CONFIG,
    WCAN_INITFD_CONFIG,
    WCAN_BOARD_INFO,
    WCAN_FLITER_CONFIG,
    WCAN_FLITER_INFO,
    WCAN_RECORD_CONFIG,
)


def layout_mismatches(records, header_records):
    """Every way the ctypes records differ from the header's, as sentences."""
    problems = []
    ours = {record.__name__: record for record in records}
    for name in sorted(set(header_records) - set(ours)):
        problems.append(f"{name} is in wcan.h but has no ctypes record")
    for name, record in ours.items():
        if name not in header_records:
            problems.append(f"{name} is not a record of wcan.h")
            continue
        size, offsets = header_records[name]
        if ctypes.sizeof(record) != size:
            problems.append(f"{name} is {ctypes.sizeof(record)} bytes, wcan.h says {size}")
        fields = {field[0]: getattr(record, field[0]).offset for field in record._fields_}
        for field in sorted(set(offsets) | set(fields)):
            if field not in fields:
                problems.append(f"{name}.{field} is missing")
            elif field not in offsets:
                problems.append(f"{name}.{field} is not in wcan.h")
            elif fields[field] != offsets[field]:
                problems.append(
                    f"{name}.{field} is at offset {fields[field]}, wcan.h says {offsets[field]}"
                )
    return problems


def check_layout():
    problems = layout_mismatches(RECORDS, _header.RECORDS)
    if problems:
        raise ImportError("wcan records do not match wcan.h: " + "; ".join(problems))


check_layout()
