# SPDX-License-Identifier: MIT
"""Runs one of python-can's command line tools in a process with a simulated
CAN FD adapter (type 41) and plays the other end of its cable from inside.

    companion.py feed -- -m can.logger -i wcan -c wcan41-0-1 -f FILE
        sends FRAMES on wcan41-0-0 once the tool's bus is up, then stops the
        tool as Ctrl-C would;
    companion.py collect COUNT OUT -- -m can.player -i wcan -c wcan41-0-0 FILE
        receives on wcan41-0-1 what the tool sends and writes the frames to
        OUT, one JSON list per line.

The simulated adapters live inside a process, so the tool and its peer have
to share one.
"""

import faulthandler
import json
import os
import runpy
import signal
import sys
import threading
import time

os.environ["WCAN_SIM"] = "41"

import can  # noqa: E402

from wcan import _channels  # noqa: E402

FRAMES = [
    can.Message(arbitration_id=0x123, data=b"\xde\xad\xbe\xef", is_extended_id=False),
    can.Message(arbitration_id=0x12345678, data=bytes(range(8))),
    can.Message(arbitration_id=0x321, is_remote_frame=True, is_extended_id=False),
    can.Message(arbitration_id=0x456, data=bytes(range(16)), is_fd=True, is_extended_id=False),
    can.Message(arbitration_id=0x18DA00F1, data=bytes(64), is_fd=True, bitrate_switch=True),
]


def as_list(msg):
    return [msg.arbitration_id, msg.is_extended_id, msg.is_remote_frame, msg.dlc,
            msg.data.hex(), msg.is_fd, msg.bitrate_switch]


def run_tool(arguments):
    assert arguments[0] == "-m"
    sys.argv = [arguments[1], *arguments[2:]]
    runpy.run_module(arguments[1], run_name="__main__", alter_sys=True)


def tool_bus_is_up(name):
    channels = list(_channels._channels_open.items())
    channel = next((c for key, c in channels if str(key) == name), None)
    return channel is not None and channel.subscribers


def feed():
    def send_then_interrupt():
        while not tool_bus_is_up("wcan41-0-1"):
            time.sleep(0.01)
        with can.Bus(interface="wcan", channel="wcan41-0-0") as bus:
            for msg in FRAMES:
                bus.send(msg)
            time.sleep(0.3)  # time for the tool to write them
        os.kill(os.getpid(), signal.SIGINT)

    threading.Thread(target=send_then_interrupt, daemon=True).start()


def collect(count, out):
    bus = can.Bus(interface="wcan", channel="wcan41-0-1")

    def write_when_done():
        frames = [m for m in (bus.recv(5.0) for _ in range(count)) if m is not None]
        with open(out, "w") as f:
            f.writelines(json.dumps(as_list(m)) + "\n" for m in frames)
        bus.shutdown()

    collector = threading.Thread(target=write_when_done)
    collector.start()
    return collector


def main():
    # A hang shows where every thread waits, before the test's own time-out.
    faulthandler.dump_traceback_later(45, exit=True)
    split = sys.argv.index("--")
    mode, arguments, tool = sys.argv[1], sys.argv[2:split], sys.argv[split + 1:]
    collector = feed() if mode == "feed" else collect(int(arguments[0]), arguments[1])
    run_tool(tool)
    if collector:
        collector.join()


if __name__ == "__main__":
    main()
