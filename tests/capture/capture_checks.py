#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Reads what `wcan` captures with tshark, replays it with `wcan play` and
captures from tshark through the wcan-extcap program, on simulated adapters.

usage: capture_checks.py WCAN_EXECUTABLE CHECK
Exit 0 on success, 1 on failure, 77 when tshark is missing.
"""
import os
import re
import shutil
import socket
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from tool_checks import SKIP, Server, expect, main, tool_env  # noqa: E402

WCAN = None
# Every kind of frame: classic and CAN FD, with and without bit-rate switch,
# both id widths, remote frames, lengths 0..64.
FRAMES = (["123#", "7FF#DEADBEEF", "12345678#0011223344556677", "1FFFFFFF#R", "321#R",
           "0F0#01"] +
          [f"{0x400 + n:03X}##{n % 2}" + "5A" * n for n in (0, 1, 8, 12, 16, 20, 24, 32, 48, 64)] +
          ["18FEF100##1" + "A5" * 64, "00000001##0AB"])
FIELDS = ["frame.interface_name", "can.id", "can.flags.xtd", "can.flags.rtr", "can.len",
          "canfd.flags.brs", "data.data", "frame.p2p_dir"]


def run(args, code=0, **extra):
    result = subprocess.run([WCAN] + args, capture_output=True, text=True, env=tool_env(**extra),
                            timeout=60)
    expect(code is None or result.returncode == code,
           f"wcan {' '.join(args)}: exit {result.returncode}\n{result.stdout}{result.stderr}")
    return result


def expected_row(text, bus, direction="1"):
    """tshark's fields for a frame in cansend text."""
    ident, data = text.split("#", 1)
    fd = data.startswith("#")
    remote = data.startswith("R")
    payload = data[2:] if fd else ("" if remote else data)
    return [bus, str(int(ident, 16)), "1" if len(ident) == 8 else "0",
            "" if fd else ("1" if remote else "0"), str(len(payload) // 2),
            data[1] if fd else "", payload.lower(), direction]


def tshark_rows(path):
    result = subprocess.run(["tshark", "-r", path, "-T", "fields"] +
                            sum((["-e", f] for f in FIELDS), []),
                            capture_output=True, text=True, timeout=60)
    expect(result.returncode == 0, f"tshark -r {path}: {result.stderr}")
    return [line.split("\t") for line in result.stdout.splitlines()]


def by_kind(rows):
    """Classic rows, then CAN FD rows (those with a bit-rate switch field), each
    kind in its order: the receiving adapter queues the two kinds apart."""
    return sorted(rows, key=lambda row: row[5] != "")


def start_remote_capture(server, bus, path, count):
    proc = subprocess.Popen([WCAN, "dump", "--connect", server.address, bus, "-w", path,
                             "--count", str(count), "--timeout", "10000"],
                            stderr=subprocess.PIPE, text=True, env=tool_env())
    # The file gets its header once the bus is open and the capture listening.
    deadline = time.monotonic() + 20
    while not (os.path.exists(path) and os.path.getsize(path) > 0):
        expect(time.monotonic() < deadline and proc.poll() is None, "the capture did not start")
        time.sleep(0.05)
    return proc


def check_tshark():
    if not shutil.which("tshark"):
        return SKIP
    with tempfile.TemporaryDirectory() as tmp:
        path = os.path.join(tmp, "every-kind.pcapng")
        args = ["--sim", "41", "dump", "41", "0", "1", "-w", path, "--count", str(len(FRAMES)),
                "--timeout", "5000"]
        for text in FRAMES:
            args += ["--tx", "0:" + text]
        run(args)
        want = [expected_row(t, "wcan41-0-1") for t in FRAMES]
        expect(tshark_rows(path) == want, f"tshark read\n{tshark_rows(path)}\nwanted\n{want}")

        # Both channels in one capture: what channel 0 sent is marked outbound.
        both = os.path.join(tmp, "both.pcapng")
        run(["--sim", "41", "dump", "41", "0", "all", "-w", both, "--count", "4", "--timeout",
             "5000", "--tx", "0:123#11", "--tx", "0:456##1AA"])
        rows = tshark_rows(both)
        expect(sorted((r[0], r[1], r[-1]) for r in rows) ==
               [("wcan41-0-0", "1110", "0"), ("wcan41-0-0", "291", "0"),
                ("wcan41-0-1", "1110", "1"), ("wcan41-0-1", "291", "1")], f"{rows}")

        # Played back onto another simulated channel, the frames arrive as recorded.
        back = os.path.join(tmp, "played.pcapng")
        with Server(WCAN, "41", "--fd") as server:
            capture = start_remote_capture(server, "wcan41-0-1", back, len(FRAMES))
            run(["play", path, "--connect", server.address, "wcan41-0-0", "--fast"])
            _, err = capture.communicate(timeout=30)
            expect(capture.returncode == 0, f"capture of the replay: {err}")
        expect(by_kind(tshark_rows(back)) == by_kind(want), f"replayed:\n{tshark_rows(back)}")
    return 0


def check_play_errors():
    with tempfile.TemporaryDirectory() as tmp:
        log = os.path.join(tmp, "bad.log")
        with open(log, "w") as f:
            f.write("(1.000000) can0 123#11\n\n(1.000100) can0 12#00\n(1.000200) can0 124#22\n")
        result = run(["--sim", "41", "play", log, "41", "0", "0"], code=1)
        expect(f"wcan play: {log}: line 3: bad frame '12#00'" in result.stderr, result.stderr)
        result = run(["--sim", "41", "play", log, "41", "0", "0", "--skip-bad"])
        expect("2 frames sent" in result.stderr and "1 bad record skipped" in result.stderr,
               result.stderr)
        cut = os.path.join(tmp, "cut.pcapng")
        run(["--sim", "41", "dump", "41", "0", "1", "-w", cut, "--count", "2", "--timeout",
             "5000", "--tx", "0:123#11", "--tx", "0:124#22"])
        with open(cut, "r+b") as f:
            f.truncate(os.path.getsize(cut) - 6)
        result = run(["--sim", "41", "play", cut, "41", "0", "0", "--skip-bad"], code=1)
        expect(re.search(r"cut\.pcapng: block 4 \(offset \d+\): truncated", result.stderr),
               result.stderr)
        # A write error ends a capture with a message.
        if os.path.exists("/dev/full"):
            result = run(["--sim", "41", "dump", "41", "0", "1", "-w", "/dev/full", "--count",
                          "1", "--timeout", "5000", "--tx", "0:123#11"], code=1)
            expect("writing /dev/full failed: No space left" in result.stderr, result.stderr)
    return 0


def check_play_timing():
    """On a paced simulated bus the replayed gaps stay within a millisecond."""
    if not shutil.which("tshark"):
        return SKIP
    gaps_ms = [5, 1, 12, 3, 20, 2, 7, 15, 4, 9]
    stamps, t = [], 1700000000.0
    for g in [0] + gaps_ms:
        t += g / 1000
        stamps.append(t)
    with tempfile.TemporaryDirectory() as tmp:
        log = os.path.join(tmp, "gaps.log")
        with open(log, "w") as f:
            for i, s in enumerate(stamps):
                f.write(f"({s:.6f}) can0 {0x100 + i:03X}#{i:02X}\n")
        back = os.path.join(tmp, "back.pcapng")
        with Server(WCAN, "41", "--fd") as server:
            capture = start_remote_capture(server, "wcan41-0-1", back, len(stamps))
            run(["play", log, "--connect", server.address, "wcan41-0-0"])
            capture.communicate(timeout=30)
        result = subprocess.run(["tshark", "-r", back, "-T", "fields", "-e", "frame.time_epoch"],
                                capture_output=True, text=True, timeout=60)
        got = [float(x) for x in result.stdout.split()]
    expect(len(got) == len(stamps), f"{len(got)} of {len(stamps)} frames came back")
    errors = [abs((b - a) * 1000 - g) for a, b, g in zip(got, got[1:], gaps_ms)]
    # The server stamps frames as its host receives them, which adds its own
    # scheduling delays on a busy machine: the typical gap must hold.
    expect(sorted(errors)[len(errors) // 2] < 1.0, f"gaps off by {['%.3f' % e for e in errors]} ms")
    return 0


def extcap_folder(home):
    """Where this tshark looks for a user's extcap programs."""
    out = subprocess.run(["tshark", "-G", "folders"], capture_output=True, text=True,
                         env=dict(os.environ, HOME=home), timeout=60).stdout
    folders = dict(line.split(":", 1) for line in out.splitlines() if ":" in line)
    folders = {k.strip().lower(): v.strip() for k, v in folders.items()}
    if "personal extcap path" in folders:
        return folders["personal extcap path"]
    return os.path.join(folders["personal configuration"], "extcap")  # Wireshark 4.0


def check_extcap():
    if not shutil.which("tshark"):
        return SKIP
    with tempfile.TemporaryDirectory() as home:
        folder = extcap_folder(home)
        os.makedirs(folder)
        os.symlink(os.path.abspath(WCAN), os.path.join(folder, "wcan-extcap"))
        tshark_env = dict(tool_env(WCAN_SIM="41"), HOME=home)
        out = os.path.join(home, "live.pcapng")
        sent = ["123#11", "456##1AABB", "12345678#R", "7FF#0102030405060708"]
        with Server(WCAN, "41", "--fd") as server:
            # The server's buses are listed beside the local adapters' channels,
            # and a server that never answers holds the listing up no longer
            # than a second.
            tshark_env["WCAN_EXTCAP_SERVER"] = server.address
            listed = subprocess.run(["tshark", "-D"], capture_output=True, text=True,
                                    env=tshark_env, timeout=60).stdout
            expect("wcan41-0-0 " in listed and "wcan41-0-1 " in listed and
                   f"wcan41-0-0@{server.address}" in listed and
                   f"wcan41-0-1@{server.address}" in listed, f"tshark -D:\n{listed}")
            with socket.create_server(("127.0.0.1", 0)) as silent:
                start = time.monotonic()
                quiet = subprocess.run(
                    [os.path.join(folder, "wcan-extcap"), "--extcap-interfaces", "--server",
                     "127.0.0.1:%d" % silent.getsockname()[1]],
                    capture_output=True, text=True, env=tshark_env, timeout=30)
                expect(quiet.returncode == 0 and "server skipped" in quiet.stderr and
                       "@" not in quiet.stdout and time.monotonic() - start < 5,
                       f"a silent server: {quiet.stdout}{quiet.stderr}")
            tshark = subprocess.Popen(
                ["tshark", "-i", f"wcan41-0-1@{server.address}", "-a", "duration:6", "-w", out],
                stderr=subprocess.PIPE, text=True, env=tshark_env)
            for line in tshark.stderr:
                if "Capturing on" in line:
                    break
            time.sleep(1.5)  # the program connects to the server
            run(["send", "--connect", server.address, "wcan41-0-0"] + sent)
            run(["gen", "--connect", server.address, "wcan41-0-0", "--count", "300", "--fd"])
            _, err = tshark.communicate(timeout=60)
            expect(tshark.returncode == 0, f"tshark: {err}")
        rows = tshark_rows(out)
        expect(len(rows) == len(sent) + 300, f"captured {len(rows)} frames of {len(sent) + 300}")
        for text in sent:
            expect(expected_row(text, "wcan41-0-1") in rows, f"{text} not captured")
    return 0


if __name__ == "__main__":
    sys.exit(main(globals()))
