#!/usr/bin/env python3
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
