# SPDX-License-Identifier: MIT
"""Clients other than raw sockets: python-can's own socketcand interface, and
`wcan dump` and `send` with --connect as separate processes, told what the server refuses."""
import subprocess
import time

import pytest

from conftest import HOST

can = pytest.importorskip("can")


def bus(server, channel):
    return can.Bus(interface="socketcand", host=HOST, port=server.port, channel=channel)


def receive(bus, count, timeout=5):
    got = []
    deadline = time.monotonic() + timeout
    while len(got) < count and time.monotonic() < deadline:
        msg = bus.recv(0.5)
        if msg is not None:
            got.append(msg)
    return got


def test_python_can_sends_and_receives_classic_frames_both_ways(serve):
    server = serve("41")
    a, b = bus(server, "wcan41-0-0"), bus(server, "wcan41-0-1")
    try:
        # python-can 4.1 reads standard ids only and loses a frame split
        # across reads: paced traffic with standard ids.
        for sender, receiver in [(a, b), (b, a)]:
            sent = [can.Message(arbitration_id=0x100 + i, data=bytes(range(i)),
                                is_extended_id=False) for i in range(9)]
            for msg in sent:
                sender.send(msg)
                time.sleep(0.02)
            got = receive(receiver, len(sent))
            assert [(m.arbitration_id, bytes(m.data)) for m in got] == \
                [(m.arbitration_id, bytes(m.data)) for m in sent]
            assert all(abs(m.timestamp - time.time()) < 10 for m in got)
    finally:
        a.shutdown()
        b.shutdown()


FRAMES = ["123#DEADBEEF", "7ff#01.02.03", "12345678#", "1FFFFFFF#0011223344556677", "321#R",
          "456##1" + "A5" * 12, "457##0" + "5A" * 64, "18FEF100##100112233", "458##0"]


def printed(text):
    return text.upper().replace(".", "")


def run(wcan, *args, code=0):
    result = subprocess.run([wcan, *args], capture_output=True, text=True, timeout=30)
    assert result.returncode == code, f"wcan {' '.join(args)}: exit {result.returncode}\n" \
                                      f"{result.stdout}{result.stderr}"
    return result


def test_dump_and_send_connect_from_separate_processes(serve, wcan):
    server = serve("41", "--fd")
    address = f"{HOST}:{server.port}"
    dump = subprocess.Popen([wcan, "dump", "--connect", address, "wcan41-0-1", "--count",
                             str(len(FRAMES)), "--timeout", "5000"],
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    server.wait_for_log(r"session 1 in raw mode")
    sent = run(wcan, "send", "--connect", address, "wcan41-0-0", *FRAMES)
    assert f"{len(FRAMES)} frames sent on wcan41-0-0 at {address}" in sent.stderr
    out, err = dump.communicate(timeout=10)
    assert dump.returncode == 0, err
    lines = [line.split(" ") for line in out.splitlines()]
    assert {name for _, name, _ in lines} == {"wcan41-0-1"}
    assert all(len(stamp) == 19 and stamp[0] == "(" for stamp, _, _ in lines)
    # Classic and CAN FD frames reach the server through separate queues of the
    # library: each kind keeps its order.
    for fd in (False, True):
        assert [frame for _, _, frame in lines if ("##" in frame) == fd] == \
            [printed(f) for f in FRAMES if ("##" in f) == fd]


@pytest.mark.parametrize("args,message", [
    (["send", "wcan41-0-0", "456##1AA"],
     "1 of 1 frames not sent on wcan41-0-0 at {address}: CAN FD frames need"),
    (["send", "wcan41-0-7", "123#00"],
     "answered 'open wcan41-0-7' with 'error could not open bus: adapter type 41 has channels "
     "0..1, not 7; this server has wcan41-0-0 wcan41-0-1'"),
    (["gen", "wcan41-0-0", "--fd", "--count", "5"], "sending on wcan41-0-0 at {address}: CAN FD frames need"),
    (["dump", "can0", "--count", "1"], "answered 'open can0' with 'error could not open bus: "
     "'can0' names no bus"),
])
def test_connect_reports_what_the_server_refused(serve, wcan, args, message):
    server = serve("41")
    address = f"{HOST}:{server.port}"
    result = run(wcan, args[0], "--connect", address, *args[1:], code=1)
    assert message.format(address=address) in result.stderr
