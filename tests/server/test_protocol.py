# SPDX-License-Identifier: MIT
"""Every request of the protocol and its reply, over plain sockets to 127.0.0.1."""
import re
import time

import pytest

from conftest import frame_text


def test_every_mode_answers_ok_and_echo(shared):
    c = shared.connect()
    c.request("echo", "echo")
    c.open("wcan41-0-0")
    for mode in ["rawmode", "controlmode", "bcmmode", "rawmode"]:
        c.request(mode, "ok")
        c.request("echo", "echo")


def test_elements_split_across_reads_and_several_in_one_read(shared):
    c = shared.connect()
    for piece in ["< ec", "ho >< echo >\r\n< ech", "o", " >", "<echo>"]:
        c.send(piece)
        time.sleep(0.05)
    assert [c.element() for _ in range(4)] == ["echo"] * 4


# (mode entered after opening wcan41-0-0 or None for no bus, request, reply). How
# each malformed request is refused is ProtocolTest's; one stands for them here.
BAD_REQUESTS = [
    (None, "bogus", "error unknown command"),
    (None, "rawmode", "error open a bus first"),
    (None, "send 123 0", "error open a bus first"),
    ("bcmmode", "open wcan41-0-1", "error a bus is open already"),
    ("bcmmode", "statistics 1000", "error statistics needs control mode"),
    ("bcmmode", "isotpmode", "error ISO-TP mode is not available"),
    ("bcmmode", "send 123 2 11", "error length 2 but 1 data bytes"),
    ("bcmmode", "sendfd 123 1 AA", "error CAN FD frames need a CAN FD adapter and a server started with --fd"),
    ("bcmmode", "update 123 1 00", "error no cyclic transmission of this id"),
    ("bcmmode", "delete 123", "error no cyclic transmission of this id"),
    ("bcmmode", "unsubscribe 123", "error no subscription of this id"),
    ("rawmode", "subscribe 0 0 123", "error this request needs bcm mode"),
    ("rawmode", "bogus 1 2 3", "error unknown command"),
    ("controlmode", "send 123 0", "error sending needs raw or bcm mode"),
]


@pytest.mark.parametrize("mode,request_text,reply", BAD_REQUESTS)
def test_bad_requests_get_an_error_reply_and_the_connection_stays(shared, mode, request_text,
                                                                  reply):
    c = shared.connect("wcan41-0-0" if mode else None, mode)
    c.request(request_text, reply)
    c.request("echo", "echo")


def test_text_outside_elements_gets_an_error_reply(shared):
    c = shared.connect()
    c.send("echo\n")
    assert c.element() == "error text outside an element: 'echo'"
    c.request("echo", "echo")


@pytest.mark.parametrize("bus,reason", [
    ("wcan41-0-2", "has channels 0..1"),
    ("wcan41-1-0", "Device Not Exist"),
    ("wcan61-0-0", "carries no traffic"),
    ("can0", "names no bus"),
    ("wcan41-000000000000-0", "at most 16 characters"),
])
def test_a_bus_that_cannot_open_ends_the_connection(shared, bus, reason):
    c = shared.connect()
    c.send(f"< open {bus} >")
    reply = c.element()
    assert reply.startswith("error could not open bus: ") and reason in reply, reply
    assert c.closed_by_server()
    shared.wait_for_log(reason)
    shared.connect("wcan41-0-0").request("echo", "echo")


@pytest.mark.parametrize("garbage,reason", [
    (b"< echo \x00 >", "error bytes that are not protocol text"),
    (b"\xc3\xa9", "error bytes that are not protocol text"),
    (b"<" + b"a" * 5000, "error an element without an end within 4096 bytes"),
], ids=["nul", "utf8", "no-end"])
def test_broken_input_ends_that_connection_alone(shared, garbage, reason):
    other = shared.connect("wcan41-0-1", "rawmode")
    c = shared.connect("wcan41-0-0")
    c.send(garbage)
    assert c.element() == reason
    assert c.closed_by_server()
    other.request("echo", "echo")


CLASSIC = [
    ("send 123 4 DE AD BE EF", ("frame", "123", "DEADBEEF")),
    ("send 1FFFFFFF 8 0 1 2 3 4 5 6 7", ("frame", "1FFFFFFF", "0001020304050607")),
    ("send 00000100 0", ("frame", "00000100", "")),
    ("sendrtr 7FF 0", ("rtr", "7FF", "0")),
]
FD = [
    ("sendfd 456 12 " + " ".join(["A5"] * 12) + " 1", ("fdframe", "456", "A5" * 12 + " 1")),
    ("sendfd 18FEF100 64 " + " ".join(["5A"] * 64), ("fdframe", "18FEF100", "5A" * 64)),
    ("sendfd 457 0", ("fdframe", "457", "")),
]


@pytest.mark.parametrize("sim,args,requests", [
    ("41", ["--fd"], CLASSIC + FD),
    ("4", [], CLASSIC[:3] + [("sendrtr 321 4", ("rtr", "321", "4"))]),
])
def test_raw_mode_carries_every_kind_of_frame(serve, sim, args, requests):
    server = serve(sim, *args)
    rx = server.connect(f"wcan{sim}-0-1", "rawmode")
    tx = server.connect(f"wcan{sim}-0-0", "rawmode")
    tx.send("".join(f"< {text} >" for text, _ in requests))
    elements = rx.frames(len(requests))
    # Classic and CAN FD frames come through separate queues: each kind keeps its order.
    for fd in (False, True):
        assert [frame_text(e) for e in elements if e.startswith("fdframe") == fd] == \
            [want for _, want in requests if (want[0] == "fdframe") == fd]
    for e in elements:
        assert re.fullmatch(r"\d{10}\.\d{6}", e.split()[2]), e


def test_bcm_mode_sends_single_and_cyclic_frames(serve):
    server = serve("41")
    rx = server.connect("wcan41-0-1", "rawmode")
    tx = server.connect("wcan41-0-0")
    tx.request("send 100 1 01")
    assert frame_text(rx.frames(1)[0]) == ("frame", "100", "01")
    tx.request("add 0 10000 123 2 11 22")
    assert {frame_text(e) for e in rx.frames(3)} == {("frame", "123", "1122")}
    tx.request("update 123 2 33 44")
    while frame_text(rx.frames(1)[0]) != ("frame", "123", "3344"):
        pass
    tx.request("delete 123")
    tx.request("echo", "echo")
    rx.silent(0.05)  # what was on its way
    assert rx.silent(0.2)


def test_bcm_mode_forwards_subscribed_ids_only(serve):
    server = serve("41")
    tx = server.connect("wcan41-0-0", "rawmode")
    rx = server.connect("wcan41-0-1")
    rx.request("subscribe 0 0 123")
    rx.request("filter 0 0 321 1 F0")
    rx.request("echo", "echo")
    for data in ["01", "02", "04", "14", "15", "24"]:
        tx.send(f"< send 321 1 {data} >< send 123 2 {data} AA >< send 7 0 >")
    got = [" ".join(e.split()[i] for i in (0, 1)) + " " + " ".join(e.split()[3:])
           for e in rx.frames(9)]
    assert sorted(got) == sorted(
        [f"frame 123 {d} AA" for d in ["01", "02", "04", "14", "15", "24"]] +
        # the filter lets through the first frame and changes of the masked high digit
        ["frame 321 01", "frame 321 14", "frame 321 24"])
    rx.request("unsubscribe 123")
    rx.request("unsubscribe 321")
    rx.request("echo", "echo")
    tx.send("< send 123 0 >< send 321 1 99 >")
    e = None
    try:
        e = rx.element(0.3)
    except TimeoutError:
        pass
    assert e is None, e


def test_a_subscription_with_an_interval_forwards_the_newest_frame_once_per_interval(serve):
    server = serve("41")
    tx = server.connect("wcan41-0-0", "rawmode")
    rx = server.connect("wcan41-0-1")
    rx.request("subscribe 0 300000 123")
    rx.request("echo", "echo")
    tx.send("".join(f"< send 123 1 0{i} >" for i in range(5)))
    first, last = rx.frames(2, timeout=2)
    assert first.split()[3:] == ["00"] and last.split()[3:] == ["04"]
    assert rx.silent(0.4)


def test_control_mode_reports_the_bus_counters_and_the_frames_a_client_missed(serve):
    server = serve("41")
    tx = server.connect("wcan41-0-0", "rawmode")
    rx = server.connect("wcan41-0-1", "controlmode")
    tx.send("< send 123 2 11 22 >< send 124 8 1 2 3 4 5 6 7 8 >< sendrtr 125 2 >")
    tx.request("echo", "echo")
    rx.request("statistics 50")
    deadline = time.monotonic() + 5
    while (stat := rx.element()) != "stat 10 3 0 0 0":
        assert stat.startswith("stat ") and time.monotonic() < deadline, stat
    rx.request("statistics 0")
    rx.silent(0.1)
    assert rx.silent(0.2)
    tx_stats = server.connect("wcan41-0-0", "controlmode")
    tx_stats.request("statistics 10", "stat 0 0 10 3 0")


@pytest.mark.parametrize("setup,request_text,reply", [
    ([f"add 1 0 {i:03X} 0" for i in range(256)], "add 1 0 7FF 0",
     "error at most 256 cyclic transmissions per client"),
    ([f"add 0 100 {i:03X} 0" for i in range(5)], "add 0 100 7FF 0",
     "error cyclic transmissions of one client add up to at most 50000 frames/s"),
    ([f"subscribe 0 0 {i:08X}" for i in range(4096)], "subscribe 0 0 7FF",
     "error at most 4096 subscriptions per client"),
], ids=["cycles", "cyclic-rate", "subscriptions"])
def test_the_broadcast_manager_work_of_one_client_is_bounded(shared, setup, request_text, reply):
    c = shared.connect("wcan41-0-0")
    c.send("".join(f"< {r} >" for r in setup))
    c.request("echo", "echo")
    c.request(request_text, reply)
