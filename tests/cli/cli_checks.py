#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Runs the built `wcan` tool against simulated adapters.

usage: cli_checks.py WCAN_EXECUTABLE CHECK
Exit 0 on success, 1 on failure, 77 when a needed outside tool is missing.
"""
import os
import pty
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "support"))
from tool_checks import SKIP, CheckFailed, Server, expect, main, tool_env  # noqa: E402

WCAN = None

# Frames in cansend text; the dump prints them upper-case without dots.
CLASSIC_FRAMES = ["123#DEADBEEF", "7ff#01.02.03", "12345678#", "1FFFFFFF#0011223344556677",
                  "321#R"]
FD_FRAMES = ["456##1" + "A5" * 12, "457##0" + "5A" * 64, "18FEF100##100112233", "458##0"]


def printed(text):
    return text.upper().replace(".", "")


def describe(text):
    """(id, extended, kind, bit-rate switch, payload) of a frame in cansend text."""
    ident, data = printed(text).split("#", 1)
    if data.startswith("#"):
        kind, brs, payload = "fd", data[1], data[2:]
    else:
        kind, brs, payload = ("r" if data.startswith("R") else "d"), None, data
    payload = bytes.fromhex(payload) if kind != "r" else b""
    return int(ident, 16), len(ident) == 8, kind, brs, payload


def run(args, env_sim=None, code=0):
    env = tool_env(**({} if env_sim is None else {"WCAN_SIM": env_sim}))
    result = subprocess.run([WCAN] + args, capture_output=True, text=True, env=env, timeout=30)
    if code is not None:
        expect(result.returncode == code, f"wcan {' '.join(args)}: exit {result.returncode}, "
               f"wanted {code}\n{result.stdout}{result.stderr}")
    return result


def dump_with_loopback(dev_type, frames, extra=()):
    """Dumps channel 1 while channel 0 of the same adapter sends `frames`."""
    args = ["--sim", str(dev_type), "dump", str(dev_type), "0", "1",
            "--count", str(len(frames)), "--timeout", "3000"]
    for text in frames:
        args += ["--tx", "0:" + text]
    return run(args + list(extra)).stdout


def check_demo():
    out = run(["demo"]).stdout
    expect("all frames arrived" in out, "no success line")
    rows = [l.split() for l in out.splitlines() if l.startswith(("41/0", "4/0"))]
    expect(len(rows) == 2, f"summary table rows missing:\n{out}")
    for row in rows:
        sent, received, lost = int(row[-6]), int(row[-5]), int(row[-4])
        expect(sent > 0 and sent == received and lost == 0, f"bad summary row {row}")
    expect("wcan41-0-1 " in out and "wcan4-0-1 " in out, "no dump lines in the demo")
    expect("[INFO" not in out, "library log lines leaked into standard output")


def check_roundtrip():
    for dev_type, frames in [(41, CLASSIC_FRAMES + FD_FRAMES),
                             (4, CLASSIC_FRAMES + ["0CF00400#R8"])]:
        with tempfile.TemporaryDirectory() as tmp:
            log_path = os.path.join(tmp, "dump.log")
            out = dump_with_loopback(dev_type, frames, ["--log", log_path])
            lines = [l.split(" ") for l in out.splitlines() if l.strip()]
            for stamp, _, _ in lines:
                expect(stamp.startswith("(") and stamp.endswith(")") and len(stamp) == 19,
                       f"bad time stamp {stamp!r}")
            expect([l[2] for l in lines] == [printed(t) for t in frames],
                   f"type {dev_type}: sent {frames}, dumped\n{out}")
            expect({l[1] for l in lines} == {f"wcan{dev_type}-0-1"}, f"interface names in\n{out}")
            with open(log_path) as f:
                expect(f.read() == out, "--log file differs from standard output")
    result = run(["send", "41", "0", "0", "123#11", "456##1AA"], env_sim="41")
    expect("2 frames sent" in result.stderr, result.stderr)


USAGES = ["list", "info", "dump", "send", "gen", "record", "demo", "serve"]


def check_usage():
    # (arguments, exit code, text expected on stderr); usage errors exit 2 with
    # one line and where to find the usage, run-time failures exit 1 with the
    # library's reason.
    cases = [
        ("", 2, "usage: wcan"),
        ("frobnicate", 2, "unknown command"),
        ("dump 41 0", 2, "missing arguments"),
        ("dump 99 0 0", 2, "unsupported device type 99"),
        ("dump 41 0 0 --count x", 2, "--count must be a number"),
        ("dump 41 0 0 --bogus", 2, "unknown option --bogus"),
        ("dump 41 0 0 --tx 0:123#00", 2, "other than the dumped one"),
        ("send 41 0 0 12#00", 2, "bad frame '12#00'"),
        ("send 41 0 0", 2, "missing arguments"),
        ("gen 41 0 0 --brs", 2, "--brs needs --fd"),
        ("info 41", 2, "missing arguments"),
        ("record 41 0 0 show", 2, "configures CAN recorders"),
        ("record 61 0 0 filter-add 100", 2, "missing arguments"),
        ("--sim 4 send 4 0 0 123##1AA", 2, "cannot send CAN FD frames"),
        ("--sim 41 dump 41 0 2", 2, "has channels 0..1"),
        ("--sim 4 dump 4 0 0 --bitrate 83333", 2, "not available"),
        ("--sim 61 dump 61 0 0", 2, "records by itself"),
        ("--sim 41 info 41 3", 1, "Device Not Exist!"),
        ("--sim 4 dump 4 1 0", 1, "failed on adapter 4/1"),
        ("--sim 4 dump 4 0 1 --count 1 --timeout 200", 1, "0 of 1 frames arrived"),
        ("dump --connect localhost", 2, "takes a BUS name"),
        ("dump --connect localhost:0 wcan41-0-1", 2, "the port of --connect must be between"),
        ("send --connect localhost wcan41-0-0 123#00 --bitrate 250000", 2,
         "--bitrate sets up a local adapter"),
        ("send --connect 127.0.0.1:1 wcan41-0-0 123#00", 1, "cannot connect to 127.0.0.1:1"),
        ("serve --port 70000", 2, "--port must be between"),
        ("serve --bitrate 83333", 2, "suits no adapter"),
        ("serve --bind localhost", 2, "--bind takes an IP address"),
        ("serve wcan41-0-0", 2, "unexpected argument wcan41-0-0"),
        ("--sim 99 list", 2, "'99', which is no device type; the types are 41 42"),
        ("--sim 41,foo list", 2, "'foo', which is no device type"),
        ("--sim 41, list", 2, "an empty item"),
        ("--sim 61 record 61 0 0 filter-show 5", 1, "without an error code (error 0)"),
        ("--sim 41 gen 41 0 0 --id 800", 2, "between 0 and 7FF, not 800"),
        ("--sim 41 dump 41 0 0 --count 0x0", 2, "between 0x1 and 0xFFFFFFFFFFFFFFFF, not 0x0"),
        ("--sim 41 dump 41 0 1 --filter 123", 2, "write ID:MASK or ID~MASK"),
        ("--sim 41 dump 41 0 1 --filter 123:G", 2, "the mask must be 1 to 8 hex digits"),
        ("--sim 41 dump 41 0 1 -t q", 2, "-t takes a (absolute)"),
        ("--sim 41 dump 41 0 1 -L -a", 2, "-L writes log lines"),
        ("--sim 41 dump 41 0 1 -x", 2, "unknown option -x"),
    ]
    for line, code, text in cases:
        err = run(line.split(), code=code).stderr
        expect(text in err, f"wcan {line}: no {text!r} in\n{err}")
        expect(" OK" not in err, f"wcan {line}: a failure reads as OK:\n{err}")
        if code == 2 and line:
            expect("Run 'wcan" in err and "usage:" not in err and len(err.splitlines()) == 2,
                   f"wcan {line}: not one line and where the usage is:\n{err}")
    # What each verbosity lets through to standard error besides the output.
    for flag, library_info, summary in [(None, False, True), ("-v", True, True),
                                        ("-q", False, False)]:
        args = ["--sim", "41"] + ([flag] if flag else []) + ["send", "41", "0", "0", "123#11"]
        err = run(args).stderr
        expect(("[INFO" in err, "1 frame sent" in err) == (library_info, summary),
               f"wcan {' '.join(args)}: standard error was\n{err}")
    for command in USAGES:
        out = run([command, "--help"]).stdout
        expect(f"usage: wcan {command}" in out, f"wcan {command} --help:\n{out}")
    expect("Commands:" in run(["--help"]).stdout, "wcan --help")


def stamps_us(log_lines):
    """The time stamps of candump -L lines in microseconds."""
    return [int(l.split()[0].strip("()").replace(".", "")) for l in log_lines.splitlines()]


def classic_bits(text):
    """Bits of a classic data frame on the wire before stuffing, with the pause after it."""
    ident, extended, _, _, payload = describe(text)
    return (67 if extended else 47) + 8 * len(payload)


def expect_paced(stamps, frames, bitrate, where):
    """Frames sent back to back lie as far apart as the later one's bits take.
    The clock anchors on the first frame and moves earlier when a later one
    reached the host faster, which shortens a gap, even to nothing: the first
    frames warm it up, and after them nearly every stamp must differ and most
    gaps fit their frames' bits. Stamping whole reads with one time, or with
    the host's time, fails both."""
    expect(len(stamps) == len(frames), f"{where}: {len(stamps)} of {len(frames)} frames")
    expect(stamps == sorted(stamps), f"{where}: time ran backwards: {stamps}")
    measured = stamps[WARM_UP:]
    expect(len(set(measured)) * 8 >= len(measured) * 7, f"{where}: repeated stamps: {stamps}")
    fitting = 0
    for i in range(WARM_UP + 1, len(frames)):
        bits = classic_bits(frames[i])
        gap = stamps[i] - stamps[i - 1]
        # Stuff bits add at most one in four of the bits they can fall on.
        low, high = bits * 1e6 / bitrate - 2, bits * 1.25 * 1e6 / bitrate + 2
        fitting += low <= gap <= high
    gaps = len(measured) - 1
    expect(fitting * 4 >= gaps * 3, f"{where}: {gaps - fitting} of {gaps} gaps do not fit the "
           f"bits of their frames: {stamps}")


WARM_UP = 32


def check_stamps():
    """Each frame carries the adapter's time, locally and through a server."""
    frames = ["7FF#"] * WARM_UP + ["123#11", "124#2222", "12345678#33", "125#4444444444444444",
                                   "126#", "127#55AA", "1ABCDEF0#0102030405"] * 2
    for dev_type, bitrate in [(41, 500000), (4, 125000), (41, 1000000)]:
        args = ["--sim", str(dev_type), "dump", str(dev_type), "0", "1", "--bitrate",
                str(bitrate), "--count", str(len(frames)), "--timeout", "3000"]
        out = run(args + [a for f in frames for a in ("--tx", "0:" + f)]).stdout
        expect_paced(stamps_us(out), frames, bitrate, f"type {dev_type} at {bitrate}")
    with Server(WCAN, "41", "--bitrate", "250000") as server:
        dump = subprocess.Popen([WCAN, "dump", "--connect", server.address, "wcan41-0-1",
                                 "--count", str(len(frames)), "--timeout", "5000"],
                                stdout=subprocess.PIPE, text=True)
        # The dump's bus is open once the server has started its channel.
        for line in server.proc.stderr:
            if "started wcan41-0-1" in line:
                break
        for burst in frames[:WARM_UP], frames[WARM_UP:]:
            run(["send", "--connect", server.address, "wcan41-0-0"] + burst)
        out, _ = dump.communicate(timeout=10)
        expect_paced(stamps_us(out), frames, 250000, "through the server")


def check_interrupt():
    env = dict(os.environ, WCAN_SIM="41")
    proc = subprocess.Popen([WCAN, "-v", "dump", "41", "0", "1", "--fd"], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, env=env)
    # The adapter is open and the channel started once the library says so.
    seen = ""
    for line in proc.stderr:
        seen += line
        if "Start Success" in line:
            break
    expect("Start Success" in seen, f"dump did not start:\n{seen}")
    proc.send_signal(signal.SIGINT)
    try:
        _, err = proc.communicate(timeout=10)
    except subprocess.TimeoutExpired:
        proc.kill()
        raise CheckFailed("dump did not end after Ctrl-C")
    expect(proc.returncode == 0, f"dump exited {proc.returncode} after Ctrl-C: {err}")


def run_on_terminal(args):
    """Standard output of the tool, and what it wrote to standard error as a terminal."""
    master, slave = pty.openpty()
    try:
        proc = subprocess.run([WCAN] + args, stdout=subprocess.PIPE, stderr=slave, timeout=30)
    finally:
        os.close(slave)
    terminal = b""
    try:
        while chunk := os.read(master, 4096):
            terminal += chunk
    except OSError:  # the terminal has no writer left
        pass
    os.close(master)
    expect(proc.returncode == 0, f"wcan {' '.join(args)} on a terminal exited {proc.returncode}")
    return proc.stdout.decode(), terminal


def check_gen():
    result = run(["gen", "41", "0", "0", "--count", "250", "--fd", "--brs", "--len", "i"],
                 env_sim="41")
    expect("250 frames sent, 0 failed" in result.stdout, result.stdout)
    expect("\r" not in result.stderr, "progress line written to a non-terminal")
    out, terminal = run_on_terminal(["--sim", "4", "gen", "4", "0", "0", "--count", "600",
                                     "--rate", "1000", "--id", "i"])
    expect("600 frames sent" in out, out)
    expect(b"\rsent 600 frames" in terminal, f"no progress line on the terminal: {terminal!r}")


def record(*args):
    out = run(["record", "61", "0"] + list(args), env_sim="61").stdout
    return out, dict(l.split("=", 1) for l in out.split() if "=" in l)


def check_record():
    out, fields = record("1", "show")
    expect(len(fields) == 12 and fields["abitTiming"].startswith("0x"), out)
    # A changed field reads back changed; the others keep their values.
    out, changed = record("1", "set", "abitTiming=0x12345678", "recOptByte2=7")
    expect(changed["abitTiming"] == "0x12345678" and changed["recOptByte2"] == "7", out)
    expect(changed["dbitTiming"] == fields["dbitTiming"], "set changed an untouched field")
    # Several actions on one opening: the filters read back as they were added.
    out, _ = record("0", "filter-clear", "filter-add", "100", "1FF", "--id-type", "1",
                    "filter-enable", "filter-info", "filter-show", "0")
    expect("filters: 1\n" in out and "filter 0: 100..1FF id type 1" in out, out)


def feed(server, bus, *gen_args):
    """gen sending through the server until the server ends."""
    server.helpers.append(subprocess.Popen(
        [WCAN, "gen", "--connect", server.address, bus, *gen_args],
        stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))


def load_percent(line):
    return int(line.split("%")[0].split()[-1])


def check_busload():
    # 123#: 48 bits with its stuff bits (as counted by hand in the unit
    # tests), 1000 a second at 500 kbit/s: 9.6 %. A bus sent to as fast as it
    # goes is all but full.
    with Server(WCAN, "41,41") as server:
        feed(server, "wcan41-0-0", "--id", "123", "--len", "0", "--rate", "1000")
        feed(server, "wcan41-1-0", "--id", "7ff", "--len", "8")
        time.sleep(0.5)
        args = ["busload", "--connect", server.address, "wcan41-0-1", "wcan41-1-1"]
        out = run(args + ["-i", "1", "--count", "3"]).stdout
        lines = [l for l in out.splitlines() if l.strip()]
        expect(len(lines) == 6, out)
        for paced, full in zip(lines[2::2], lines[3::2]):
            expect(paced.split()[0] == "wcan41-0-1@500k/2M", out)
            frames, bits = int(paced.split()[1]), int(paced.split()[2])
            # gen keeps its rate by its own clock; a loaded machine delays it a little.
            expect(abs(frames - 1000) <= 50 and bits == 48 * frames, out)
            expect(abs(load_percent(paced) - 9.6e-3 * frames) <= 1, out)
            expect(load_percent(full) >= 90, out)
        # Long enough for the server's counters to vouch for the frames.
        once = run(["top", "--once", "--interval", "2.5", "--connect", server.address,
                    "wcan41-0-1"]).stdout
        expect(re.search(r"load +(9|10|11)%.* lost 0 ", once), once)  # 1000/s, 48 bits, 500k
        expect(re.search(r"^0 +123 +CAN +0 +\d+ +(9[5-9]\d|10[0-4]\d)\.\d", once, re.M), once)


TMUX_SOCKET = f"wcan-check-{os.getpid()}"
VEHICLE_DBC = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "data",
                           "vehicle.dbc")


def tmux(*args):
    return subprocess.run(["tmux", "-L", TMUX_SOCKET, *args], capture_output=True, text=True,
                          check=True).stdout


def screen_until(predicate, what, timeout=5.0):
    deadline = time.monotonic() + timeout
    while True:
        text = tmux("capture-pane", "-p", "-t", "top")
        if predicate(text):
            return text
        if time.monotonic() > deadline:
            raise CheckFailed(f"{what}; the screen:\n{text}")
        time.sleep(0.1)


def id_rows(text):
    return [l.split()[1] for l in text.splitlines() if re.match(r"^0 +[0-9A-F]{3} ", l)]


def check_top():
    if not shutil.which("tmux"):
        return SKIP
    with Server(WCAN, "41") as server:
        # Identifiers counting up, 400 a second: every identifier comes back
        # every 5 s, so the table fills and keeps changing.
        feed(server, "wcan41-0-0", "--id", "i", "--len", "8", "--rate", "400")
        command = (f"{WCAN} top --connect {server.address} wcan41-0-1 --dbc {VEHICLE_DBC}; "
                   "echo TOP-ENDED $?; sleep 60")
        tmux("new-session", "-d", "-s", "top", "-x", "120", "-y", "40", command)
        try:
            text = screen_until(lambda t: len(id_rows(t)) > 20, "no identifier rows")
            expect(re.search(r"wcan41-0-1 +500k/2M +\d+ frames/s +load +\d+%", text), text)
            expect(id_rows(text) == sorted(id_rows(text)), "not sorted by identifier")
            # The DBC names 064, and s opens the selected row's signals.
            tmux("send-keys", "-t", "top", "+", "0", "6", "4", "Enter")
            screen_until(lambda t: re.search(r"^0 +064 +EngineData ", t, re.M),
                         "no message name in the row")
            tmux("send-keys", "-t", "top", "s")
            screen_until(lambda t: re.search(r"^  EngineSpeed=[-\d.]+ rpm", t, re.M),
                         "no signal values")
            tmux("send-keys", "-t", "top", "s", "f", "Enter")
            tmux("send-keys", "-t", "top", "a")  # youngest first
            screen_until(lambda t: "sort: age" in t and id_rows(t) != sorted(id_rows(t)),
                         "sorting by age changed nothing")
            tmux("send-keys", "-t", "top", "+", "1", "0", "0", "/", "7", "0", "0", "Enter")
            screen_until(lambda t: id_rows(t) and all(r.startswith("1") for r in id_rows(t)),
                         "the filter +100/700 left other rows")
            tmux("send-keys", "-t", "top", "f", "+", "x", "y", "Enter")
            screen_until(lambda t: "bad identifier 'xy'" in t, "a bad filter went unreported")
            tmux("resize-window", "-t", "top", "-x", "70", "-y", "12")
            screen_until(lambda t: max(len(l) for l in t.splitlines()) <= 70 and
                         len(t.splitlines()) <= 12 and "sort: age" in t, "no redraw on resize")
            tmux("resize-window", "-t", "top", "-x", "40", "-y", "12")
            screen_until(lambda t: "terminal too small" in t, "no word on a too small terminal")
            tmux("send-keys", "-t", "top", "q")
            text = screen_until(lambda t: "TOP-ENDED" in t, "q did not quit")
            expect("TOP-ENDED 0" in text, text)
            expect("wcan top" not in text, f"the screen was not given back:\n{text}")
        finally:
            subprocess.run(["tmux", "-L", TMUX_SOCKET, "kill-server"], capture_output=True)


def check_top_replug():
    """An adapter unplugged and plugged in again by another process under the view.

    The shared simulation host of a runtime folder of the check's own."""
    if not shutil.which("tmux"):
        return SKIP
    runtime = tempfile.mkdtemp(prefix="wcan-top-")
    env = {k: v for k, v in os.environ.items() if not k.startswith("WCAN_SIM")}
    env.update(XDG_RUNTIME_DIR=runtime, WCAN_SIM_LINGER_MS="500")
    shared = f"env -u WCAN_SIM_PRIVATE XDG_RUNTIME_DIR={runtime} WCAN_SIM_LINGER_MS=500"

    def sim(*args):
        subprocess.run([WCAN, "--sim", "41", *args], env=env, check=True, timeout=30,
                       capture_output=True)

    def count_of_123(text):
        found = re.search(r"^0 +123 +CAN +\d+ +(\d+) ", text, re.M)
        return int(found.group(1)) if found else 0

    gens = []

    def start_gen():
        # A sender gives up when its adapter goes: one before, one after.
        gens.append(subprocess.Popen([WCAN, "--sim", "41", "gen", "41", "0", "0", "--id", "123",
                                      "--len", "0", "--rate", "200"], env=env,
                                     stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL))

    tmux("new-session", "-d", "-s", "top", "-x", "120", "-y", "20",
         f"{shared} {WCAN} --sim 41 top 41 0 1; sleep 60")
    try:
        # The library cannot tell frames lost on the way: "-", not 0.
        screen_until(lambda t: re.search(r"lost - +link up", t), "top did not start",
                     timeout=10)
        start_gen()
        screen_until(lambda t: count_of_123(t) > 0, "no frames before the unplug")
        sim("sim", "unplug", "41", "0")
        screen_until(lambda t: "adapter lost, recovering" in t, "the unplug went unseen")
        sim("sim", "replug", "41", "0")
        text = screen_until(lambda t: "link up" in t, "the replug went unseen", timeout=10)
        before = count_of_123(text)
        start_gen()
        screen_until(lambda t: count_of_123(t) > before + 50, "no frames after the replug",
                     timeout=10)
    finally:
        subprocess.run(["tmux", "-L", TMUX_SOCKET, "kill-server"], capture_output=True)
        for gen in gens:
            if gen.poll() is None:
                gen.send_signal(signal.SIGINT)
            gen.communicate(timeout=10)
        subprocess.run([WCAN, "sim", "stop"], env=env, capture_output=True, timeout=30)
        shutil.rmtree(runtime, ignore_errors=True)


def check_dbc():
    dbc = VEHICLE_DBC
    frames = ["064#A5090382FD800000", "18FEF100#1234", "7C0#02.6A.FF", "333#01"]
    signals = [
        '  EngineData: EngineSpeed=1234.5 rpm Gear=3 "Drive" CoolantTemp=90 degC Torque=-10 Nm',
        "  VehicleSpeed: WheelSpeed=46.6 km/h",
        '  Diagnostics: Service=2 "ReadCurrent" Current=-1.5 A']
    # Human-readable lines carry each known frame's signals under it.
    lines = dump_with_loopback(41, frames, ["--dbc", dbc, "-t", "z"]).splitlines()
    expect(lines[1::2][:3] == signals, f"signals:\n{lines}")
    expect(len(lines) == 7 and lines[-1].endswith(" 01"), f"unknown id decoded:\n{lines}")
    # Log lines stay a candump log on standard output and in the --log file;
    # the signals go to standard error.
    with tempfile.TemporaryDirectory() as tmp:
        log_path = os.path.join(tmp, "dump.log")
        args = ["--sim", "41", "dump", "41", "0", "1", "--count", "4", "--timeout", "3000",
                "--dbc", dbc, "--log", log_path] + [a for f in frames for a in ("--tx", "0:" + f)]
        result = run(args)
        with open(log_path) as f:
            log = f.read()
    expect(len(result.stdout.splitlines()) == 4 and log == result.stdout,
           f"log lines:\n{result.stdout}\n--log file:\n{log}")
    expect(all(s in result.stderr for s in signals), f"signals on standard error:\n{result.stderr}")
    result = run(["send", "41", "0", "0", "--dbc", dbc, "SensorFrame", "State=Ready",
                  "Accel=-1.5"], env_sim="41")
    expect("1 frame sent" in result.stderr, result.stderr)
    result = run(["send", "41", "0", "0", "--dbc", dbc, "EngineData", "Gear=9"], env_sim="41",
                 code=2)
    expect("Gear=9 is outside 0..7" in result.stderr, result.stderr)


if __name__ == "__main__":
    sys.exit(main(globals()))
