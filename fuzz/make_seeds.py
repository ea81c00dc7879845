#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Writes the small seed corpora of the receive-path, reply and settings fuzz
targets into fuzz/corpus/<target>/. Integers the targets take from the input
come from its end, bytes and texts from its front."""
import os
import struct

HERE = os.path.dirname(os.path.abspath(__file__))


def write(target, name, data):
    folder = os.path.join(HERE, "corpus", target)
    os.makedirs(folder, exist_ok=True)
    with open(os.path.join(folder, name), "wb") as f:
        f.write(bytes(data))


def fd_record(channel, fd, ident, data, flags=0, length=None):
    room = 64 if fd else 8
    body = bytes(data) + bytes(room - len(data))
    return bytes([channel << 4, flags | (1 if fd else 0)]) + struct.pack(
        "<II", 0x1000 + ident, ident) + bytes([len(data) if length is None else length]) + body


def fd_frame(records):
    payload = b"".join(records)
    return bytes([0x55, 0xF2, 0, 0]) + struct.pack("<H", len(payload)) + bytes(
        [len(records)]) + payload


def with_splits(stream, splits):
    # Split sizes are 16-bit integers read from the end of the split bytes.
    split_bytes = b"".join(struct.pack(">H", s) for s in reversed(splits))
    return split_bytes + stream + bytes([len(split_bytes)])


# CAN FD receive stream: mode byte 0 = bytes as they come, 1 = built frames.
classic = fd_frame([fd_record(0, False, 0x123, [1, 2, 3, 4, 5, 6, 7, 8])])
mixed = fd_frame([fd_record(1, True, 0x1ABCDE, list(range(64)), 0x14),
                  fd_record(9, False, 0x7FF, [0xAA] * 8, 0x02, 15)])
write("usbcanfd_stream", "one_classic", with_splits(classic, [3, 40]) + b"\x00")
write("usbcanfd_stream", "fd_and_garbage",
      with_splits(b"\x00\x55" + mixed + classic[:10], [1, 7, 100]) + b"\x00")
write("usbcanfd_stream", "zero_length_header",
      with_splits(b"\x55\xf2\x00\x00\x00\x00\x01" + classic, []) + b"\x00")
write("usbcanfd_stream", "built_frames", bytes(range(1, 200)) + b"\x01")

# Classic receive records: time stamp, marker 01 00 00 at bytes 3..5, flags,
# id, eight data bytes.
def classic_record(channel, ident, data, extended=False, remote=False):
    flags = channel << 4 | remote << 6 | extended << 7 | len(data)
    wire = ident << (3 if extended else 21)
    return (b"\x00\x00\x10\x01\x00\x00" + bytes([flags]) + struct.pack("<I", wire & 0xFFFFFFFF)
            + bytes(data) + bytes(8 - len(data)))


records = classic_record(0, 0x123, [1, 2, 3]) + classic_record(1, 0x1234567, [9] * 8, True)
write("usbcan2_rx", "two_records", with_splits(records, [5, 30]))
write("usbcan2_rx", "garbage_between", with_splits(b"\xff\x01" + records + b"\x01\x00", [64]))

# Replies: reply bytes, then the length, the exchange result and the count
# received (each one byte from the end).
def reply(data, length, result, received):
    return bytes(data) + bytes([length, result, received])


write("replies", "relay_get", reply([0x12, 0xB2, 0x02, 0x01, 0x00], 5, 2, 5))
write("replies", "serial", reply([0x12, 0x14, 0x09] + list(b"AB123456"), 11, 2, 11))
write("replies", "settings",
      reply([0x55, 0xA4, 0x00, 1, 0, 1, 7] + list(range(8, 30)), 28, 2, 28))
write("replies", "filter_setting", reply([0x55, 0x05, 0x01, 0x00] + [0x11] * 10, 14, 2, 14))

# Key/value settings: the key ends at a backslash followed by another
# character; the rest is the value.
settings = {
    "custom": b"0/baud_rate_custom\\;abc,(80,00170003,00070001)",
    "abit": b"1/canfd_abit_baud_rate\\;500000",
    "standard": b"0/canfd_standard\\;5",
    "filter_start": b"1/filter_start\\;0x00000123",
    "bad_channel": b"3/canfd_dbit_baud_rate\\;2000000",
}
for name, data in settings.items():
    write("usbcanfd_settings", name, data)

# Export programs: the number of adapters less one and a model type for each,
# then steps of an operation byte and its arguments, read front to back.
MODEL_TYPES = [3, 4, 41, 42, 43, 61, 62, 64, 65, 66, 67]
(OPEN, CLOSE, BOARD_INFO, CLEAR_BUFFER, DIRECT_TRANSFER, SET_FILTER, RECEIVE_NUM, INIT_CAN,
 INIT_CANFD, START, STOP, RECEIVE, RECEIVE_FD, TRANSMIT, TRANSMIT_FD, RECORD_SET, RECORD_GET,
 RECORD_CMD, FILTER_CLEAR, FILTER_ADD, FILTER_ENABLE, FILTER_DISABLE, FILTER_INFO,
 FILTER_SETTING, RELAY_SET, RELAY_GET, BAUD_GET, STATE_GET, LAST_ERROR,
 LAST_ERROR_STR) = range(30)
PLUG_IN, UNPLUG, REPLUG, SILENCE, GARBAGE, REPLY_FAULT, FOREIGN_FRAME, PAUSE = range(30, 38)
NULL = 0xE1  # the first pointer argument null
RATES = {1000000: 0, 500000: 2, 5000000: 7, 2000000: 9}


def program(types, *steps):
    return bytes([len(types) - 1] + [MODEL_TYPES.index(t) for t in types]) + b"".join(steps)


def call(op, adapter=0, index=0, *args):
    """Type and index of the call first: adapter k is the type of the k-th
    adapter plugged in."""
    return bytes([op, adapter, index]) + b"".join(
        a if isinstance(a, bytes) else bytes([a]) for a in args)


def fd_config(abit, dbit, fd=True):
    raw = bytearray(56)
    raw[17] = 1 if fd else 0
    return bytes(raw) + bytes([0, RATES[abit], RATES[dbit]])


def classic_config():
    return bytes(16) + bytes([0, 0x00, 0])  # 1 Mbit/s


def fd_obj(ident, length, fd=True):
    raw = struct.pack("<II", ident, 0) + bytes([0x18 if fd else 0, 0, 0, 0, length, 0, 0, 0])
    return raw + bytes(range(1, 65))


def can_obj(ident, length):
    return struct.pack("<II", ident, 0) + bytes([0, 0, 0, 0, length, 0, 0, 0]) + bytes(range(1, 9))


def fd_up(adapter=0, index=0):
    return (call(OPEN, adapter, index) +
            call(INIT_CANFD, adapter, index, 0, 0, fd_config(500000, 2000000)) +
            call(INIT_CANFD, adapter, index, 1, 0, fd_config(1000000, 5000000)))


def fd_burst(adapter=0, index=0):
    return (call(TRANSMIT_FD, adapter, index, 0, 3, 0, fd_obj(0x123, 64)) +
            call(TRANSMIT, adapter, index, 0, 2, 0, can_obj(0x7FF, 8)) +
            call(RECEIVE_NUM, adapter, index, 1, 2) +
            call(RECEIVE_FD, adapter, index, 1, 8, 2, 0) +
            call(RECEIVE, adapter, index, 1, 8, 1, 0))


write("exports", "fd_traffic",
      program([41], fd_up(), fd_burst(), call(BOARD_INFO), call(DIRECT_TRANSFER, 0, 0,
              struct.pack("<i", 8), 0, bytes([0x12, 0x20])),
              call(SET_FILTER, 0, 0, 0, 0, bytes(16)), call(CLEAR_BUFFER, 0, 0, 1),
              call(STOP, 0, 0, 0), call(START, 0, 0, 0), call(CLOSE)))
write("exports", "classic_traffic",
      program([4], call(OPEN), call(INIT_CAN, 0, 0, 0, 0, classic_config()),
              call(INIT_CAN, 0, 0, 1, 0, classic_config()),
              call(TRANSMIT, 0, 0, 0, 4, 0, can_obj(0x321, 8)),
              call(RECEIVE_NUM, 0, 0, 1, 0), call(RECEIVE, 0, 0, 1, 16, 2, 0),
              call(BOARD_INFO), call(RELAY_SET, 0, 0, 1, 0), call(RELAY_GET, 0, 0, 0),
              call(BAUD_GET, 0, 0, 0, 0), call(STATE_GET, 0, 0, 1, 0),
              call(DIRECT_TRANSFER, 0, 0, struct.pack("<i", 200), 0, bytes([0x12, 0xB2])),
              call(CLEAR_BUFFER, 0, 0, 0), call(STOP, 0, 0, 1), call(CLOSE)))
write("exports", "recorder",
      program([61], call(OPEN), call(BOARD_INFO), call(RECORD_GET, 0, 0, 0, 0),
              call(RECORD_SET, 0, 0, 1, 0, bytes([0, 1, 1, 0, 2, 9]) + bytes(18)),
              call(FILTER_ADD, 0, 0, 0, 0, bytes([1, 0, 0, 0]) + struct.pack("<II", 0x100, 0x1FF)
                   + bytes(4)),
              call(FILTER_INFO, 0, 0, 0, 0), call(FILTER_SETTING, 0, 0, 0, struct.pack("<I", 0), 0),
              call(FILTER_ENABLE, 0, 0, 0), call(FILTER_DISABLE, 0, 0, 1),
              call(RECORD_CMD, 0, 0, 0, 5, 5, 0, bytes(16)), call(FILTER_CLEAR, 0, 0, 0),
              call(CLOSE)))
write("exports", "fd_unplug_replug",
      program([41], fd_up(), bytes([UNPLUG, 0]), call(TRANSMIT_FD, 0, 0, 0, 1, 0, fd_obj(1, 8)),
              call(RECEIVE_FD, 0, 0, 1, 4, 3, 0), bytes([REPLUG, 0, PAUSE, 3, PAUSE, 3]),
              fd_burst(), call(CLOSE)))
write("exports", "two_equal_adapters",
      program([41, 41, 4], fd_up(0, 0), fd_up(1, 1), call(OPEN, 2), call(OPEN, 148),
              bytes([UNPLUG, 0, UNPLUG, 1, REPLUG, 1, REPLUG, 0, PAUSE, 3]),
              fd_burst(0, 0), fd_burst(1, 1), call(CLOSE, 1, 1), call(CLOSE)))
write("exports", "hostile_bus",
      program([41, 3], fd_up(), call(OPEN, 1),
              bytes([GARBAGE, 0, 0, 0x81, 8]) + bytes(range(8)),
              bytes([GARBAGE, 0, 1, 0x84, 20]) + bytes(range(0x40, 0x54)),
              bytes([REPLY_FAULT, 0, 1, 0x77, 0]), call(RECEIVE_NUM, 0, 0, 0, 1),
              bytes([REPLY_FAULT, 0, 0, 2, 1]), call(START, 0, 0, 1),
              bytes([REPLY_FAULT, 1, 2, 1, 0]), call(BOARD_INFO, 1),
              bytes([FOREIGN_FRAME, 0, 1, 0x0D]) + struct.pack("<I", 0x1ABCDEF) + bytes([64])
              + bytes(64),
              bytes([SILENCE, 1, 2, 2, PLUG_IN, 9]), call(RECEIVE_FD, 0, 0, 1, 16, 3, 0),
              call(CLOSE), call(CLOSE, 1)))
write("exports", "careless_host",
      program([41, 4, 61], fd_up(), call(OPEN, 1), call(OPEN, 2),
              call(BOARD_INFO, 0, 0, NULL), call(RECEIVE_FD, 0, 0, 1, 4, 0, NULL),
              call(TRANSMIT, 1, 0, 0, 2, NULL), call(RECORD_GET, 2, 0, 0, NULL),
              call(STATE_GET, 1, 0, 0, 0xE4), call(DIRECT_TRANSFER, 2, 0, struct.pack("<i", -5),
                                                   NULL),
              call(OPEN, 224), call(INIT_CANFD, 0, 250, struct.pack("<I", 0xFFFFFFFF), 9, 0,
                                    fd_config(500000, 2000000)),
              call(RECEIVE, 1, 0, 1, 0, 0, 0), call(LAST_ERROR), call(LAST_ERROR_STR)))
