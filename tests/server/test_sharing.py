# SPDX-License-Identifier: MIT
"""Sessions sharing buses as sockets share a SocketCAN interface, clients that
misbehave, and shutdown, over plain sockets to 127.0.0.1."""
import socket
import struct
import subprocess
import time

from conftest import Client, frame_text


def send_numbered(client, first, count, request="send 123 4"):
    """Sends frames whose data is their number, in one write."""
    client.send("".join(f"< {request} {' '.join(f'{b:02X}' for b in (n).to_bytes(4, 'big'))} >"
                        for n in range(first, first + count)))


def numbers(elements):
    return [int(e.split()[3][-8:], 16) for e in elements]


def test_clients_on_one_bus_each_get_every_frame_and_see_each_others(serve):
    server = serve("41")
    a = server.connect("wcan41-0-1", "rawmode")
    b = server.connect("wcan41-0-1", "rawmode")
    far = server.connect("wcan41-0-0", "rawmode")
    send_numbered(far, 0, 50)
    assert numbers(a.frames(50)) == list(range(50))
    assert numbers(b.frames(50)) == list(range(50))
    # a's frames reach b on the same bus and the far end of the cable, not a itself.
    send_numbered(a, 100, 5)
    a.request("echo", "echo")
    assert numbers(b.frames(5)) == list(range(100, 105))
    assert numbers(far.frames(5)) == list(range(100, 105))
    assert a.silent(0.2)


def test_a_client_that_vanishes_mid_stream_costs_the_others_nothing(serve):
    server = serve("41")
    stays = server.connect("wcan41-0-1", "rawmode")
    goes = server.connect("wcan41-0-1", "rawmode")
    sender = server.connect("wcan41-0-0")
    send_numbered(sender, 0, 3000)
    goes.frames(10)
    # Reset instead of an orderly close: the server's next write to it fails.
    goes.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
    goes.close()
    assert numbers(stays.frames(3000)) == list(range(3000))
    server.wait_for_log(r"session 2 ended")
    late = server.connect("wcan41-0-1", "rawmode")
    send_numbered(sender, 5000, 3)
    assert numbers(late.frames(3)) == [5000, 5001, 5002]
    assert numbers(stays.frames(3)) == [5000, 5001, 5002]


def test_a_client_that_never_reads_misses_frames_alone_and_is_told_how_many(serve):
    # The buffer takes a few of the server's batches; the idle client's
    # share ends at about 500 kB with the kernel's buffers.
    server = serve("41", "--client-buffer", "262144")
    idle = Client(server.port, rcvbuf=4096)
    idle.open("wcan41-0-1")
    idle.request("rawmode", "ok")
    reader = server.connect("wcan41-0-1", "rawmode")
    sender = server.connect("wcan41-0-0")
    # Each element is about 50 bytes.
    total = 16000
    for first in range(0, total, 1000):
        send_numbered(sender, first, 1000, "send 123 8 AA AA AA AA")
    assert numbers(reader.frames(total)) == list(range(total))
    server.wait_for_log(r"session 1 does not read: dropping its frames")
    # Reading again, it gets what was queued for it before the answer to its
    # next request; its counters say how many frames it missed.
    idle.send("< controlmode >")
    got = 0
    while (e := idle.element()) != "ok":
        assert e.startswith("frame "), e
        got += 1
    idle.request("statistics 10")
    missed = int(idle.element().split()[5])
    assert missed > 0 and got + missed == total


def test_the_last_client_of_a_channel_stops_it_and_the_adapter_closes_with_its_last_channel(
        serve):
    server = serve("41")
    first = server.connect("wcan41-0-0")
    second = server.connect("wcan41-0-0")
    other = server.connect("wcan41-0-1")
    server.wait_for_log("started wcan41-0-1")
    assert server.log().count("started wcan41-0-0") == 1
    first.close()
    server.wait_for_log(r"session 1 ended")
    second.request("echo", "echo")
    assert "stopped wcan41-0-0" not in server.log()
    second.close()
    server.wait_for_log(r"stopped wcan41-0-0")
    assert "closed adapter" not in server.log()
    other.close()
    server.wait_for_log(r"stopped wcan41-0-1\n(.*\n)*.*closed adapter 41/0")
    # The next client opens it afresh.
    again = server.connect("wcan41-0-0")
    again.request("echo", "echo")
    assert server.log().count("opened adapter 41/0") == 2


def test_sigterm_closes_every_session_and_adapter(serve):
    server = serve("41,4")
    clients = [server.connect(bus, "rawmode") for bus in ["wcan41-0-1", "wcan4-0-1"]]
    senders = [server.connect(bus) for bus in ["wcan41-0-0", "wcan4-0-0"]]
    for s in senders:
        s.request("add 0 1000 123 1 55")
    for c in clients:
        c.frames(5)
    assert server.stop() == 0
    for c in clients + senders:
        assert c.closed_by_server()
    log = server.log()
    assert "terminated: closing every session and adapter" in log
    assert "closed adapter 41/0" in log and "closed adapter 4/0" in log


def test_a_channel_stops_mid_stream_and_starts_again(serve):
    # The stop comes while the loop waits on the busy channel's receive
    # event or is taking its frames: it must end that wait without reading a
    # let-go descriptor, and a fresh start must wait on the new event.
    server = serve("41")
    sender = server.connect("wcan41-0-0")
    reader = server.connect("wcan41-0-1", "rawmode")
    send_numbered(sender, 0, 3000)
    reader.frames(100)
    reader.close()
    server.wait_for_log(r"stopped wcan41-0-1")
    again = server.connect("wcan41-0-1", "rawmode")
    send_numbered(sender, 5000, 10)
    assert len(again.frames(10)) == 10
    assert server.stop() == 0
