#!/usr/bin/env python3
"""Runs the built `wcan` tool against simulated adapters.

usage: cli_checks.py WCAN_EXECUTABLE CHECK
Exit 0 on success, 1 on failure, 77 when a needed outside tool is missing.
"""
import os
import pty
import shutil
import signal
import subprocess
import sys
import tempfile
import time

SKIP = 77
WCAN = None

# Frames the round trips send, as cansend text and as the dump prints them.
CLASSIC_FRAMES = [
    ("123#DEADBEEF", "123#DEADBEEF"),
    ("7ff#01.02.03", "7FF#010203"),
    ("12345678#", "12345678#"),
    ("1FFFFFFF#0011223344556677", "1FFFFFFF#0011223344556677"),
    ("321#R", "321#R"),
]
CLASSIC_REMOTE_WITH_LENGTH = ("0CF00400#R8", "0CF00400#R8")
FD_FRAMES = [
    ("456##1" + "A5" * 12, "456##1" + "A5" * 12),
    ("457##0" + "5A" * 64, "457##0" + "5A" * 64),
    ("18FEF100##1" + "00112233", "18FEF100##100112233"),
    ("458##0", "458##0"),
]


class CheckFailed(Exception):
    pass


def expect(cond, message):
    if not cond:
        raise CheckFailed(message)


def run(args, env_sim=None, timeout=30):
    env = dict(os.environ)
    env.pop("WCAN_SIM", None)
    if env_sim is not None:
        env["WCAN_SIM"] = env_sim
    return subprocess.run([WCAN] + args, capture_output=True, text=True, env=env,
                          timeout=timeout)


def dump_with_loopback(dev_type, frames, extra=()):
    """Dumps channel 1 while channel 0 of the same adapter sends `frames`."""
    args = ["--sim", str(dev_type), "dump", str(dev_type), "0", "1",
            "--count", str(len(frames)), "--timeout", "3000"]
    for text, _ in frames:
        args += ["--tx", "0:" + text]
    result = run(args + list(extra))
    expect(result.returncode == 0,
           f"dump exited {result.returncode}: {result.stderr}")
    return result.stdout


def frame_texts(log_text):
    lines = [l for l in log_text.splitlines() if l.strip()]
    for line in lines:
        stamp, ifname, _ = line.split(" ")
        expect(stamp.startswith("(") and stamp.endswith(")") and len(stamp) == 19,
               f"bad time stamp in {line!r}")
    return [line.split(" ")[2] for line in lines], {line.split(" ")[1] for line in lines}


def check_demo():
    result = run(["demo"], timeout=30)
    expect(result.returncode == 0, f"demo exited {result.returncode}:\n{result.stdout}{result.stderr}")
    out = result.stdout
    expect("all frames arrived" in out, "no success line")
    rows = [l.split() for l in out.splitlines() if l.startswith(("41/0", "4/0"))]
    expect(len(rows) == 2, f"summary table rows missing:\n{out}")
    for row in rows:
        sent, received, lost = int(row[-6]), int(row[-5]), int(row[-4])
        expect(sent > 0 and sent == received and lost == 0, f"bad summary row {row}")
    # The received frames are printed as candump lines of channel 1.
    expect("wcan41-0-1 " in out and "wcan4-0-1 " in out, "no dump lines in the demo")
    expect("[INFO" not in out, "library log lines leaked into standard output")


def check_roundtrip():
    cases = [
        (41, CLASSIC_FRAMES + FD_FRAMES),
        (4, CLASSIC_FRAMES + [CLASSIC_REMOTE_WITH_LENGTH]),
    ]
    for dev_type, frames in cases:
        with tempfile.TemporaryDirectory() as tmp:
            log_path = os.path.join(tmp, "dump.log")
            out = dump_with_loopback(dev_type, frames, ["--log", log_path])
            texts, ifnames = frame_texts(out)
            expect(texts == [printed for _, printed in frames],
                   f"type {dev_type}: sent {[p for _, p in frames]}, dumped {texts}")
            expect(ifnames == {f"wcan{dev_type}-0-1"}, f"interface names {ifnames}")
            with open(log_path) as f:
                expect(f.read() == out, "--log file differs from standard output")
    # send on its own: the frames leave channel 0 and the tool says so.
    result = run(["send", "41", "0", "0", "123#11", "456##1AA"], env_sim="41")
    expect(result.returncode == 0, f"send exited {result.returncode}: {result.stderr}")
    expect("2 frames sent" in result.stderr, result.stderr)


def check_pythoncan():
    try:
        import can  # noqa: F401
    except ImportError:
        print("python-can is not installed")
        return SKIP
    frames = CLASSIC_FRAMES + FD_FRAMES
    out = dump_with_loopback(41, frames)
    with tempfile.NamedTemporaryFile("w", suffix=".log", delete=False) as f:
        f.write(out)
        path = f.name
    try:
        messages = list(can.CanutilsLogReader(path))
    finally:
        os.unlink(path)
    expect(len(messages) == len(frames), f"python-can read {len(messages)} messages")
    for (_, printed), msg in zip(frames, messages):
        ident, data = printed.split("#", 1)
        expect(msg.arbitration_id == int(ident, 16), f"{printed}: id {msg.arbitration_id:X}")
        expect(msg.is_extended_id == (len(ident) == 8), f"{printed}: extended flag")
        expect(msg.channel == "wcan41-0-1", f"{printed}: channel {msg.channel}")
        expect(msg.timestamp > 1e9, f"{printed}: time stamp {msg.timestamp}")
        if data.startswith("#"):
            expect(msg.is_fd and msg.bitrate_switch == (data[1] == "1"), f"{printed}: FD flags")
            payload = data[2:]
        elif data.startswith("R"):
            expect(msg.is_remote_frame, f"{printed}: not remote")
            continue
        else:
            expect(not msg.is_fd and not msg.is_remote_frame, f"{printed}: kind")
            payload = data
        expect(bytes(msg.data) == bytes.fromhex(payload), f"{printed}: data {bytes(msg.data).hex()}")
    return 0


def check_log2asc():
    log2asc = shutil.which("log2asc")
    if not log2asc:
        print("log2asc is not installed")
        return SKIP
    frames = CLASSIC_FRAMES + FD_FRAMES
    out = dump_with_loopback(41, frames)
    result = subprocess.run([log2asc, "wcan41-0-1"], input=out, capture_output=True, text=True,
                            timeout=10)
    expect(result.returncode == 0, f"log2asc exited {result.returncode}: {result.stderr}")
    body = [l.split() for l in result.stdout.splitlines() if l.startswith(" ")]
    expect(len(body) == len(frames), f"log2asc wrote {len(body)} frames:\n{result.stdout}")
    for (_, printed), fields in zip(frames, body):
        ident, data = printed.split("#", 1)
        if data.startswith("#"):
            # time CANFD channel Rx id [symbol] BRS ESI DLC LEN data...
            expect(fields[1] == "CANFD" and fields[2] == "1", f"{printed}: {fields}")
            rest = fields[4:]
            asc_id = rest[0]
            brs, length = rest[1], int(rest[4])
            payload = bytes.fromhex("".join(rest[5:5 + length]))
            expect(brs == data[1], f"{printed}: BRS {brs}")
            expect(payload == bytes.fromhex(data[2:]), f"{printed}: data {payload.hex()}")
        else:
            # time channel id Rx d|r dlc data...
            expect(fields[1] == "1", f"{printed}: {fields}")
            asc_id = fields[2]
            kind = fields[4]
            expect(kind == ("r" if data.startswith("R") else "d"), f"{printed}: kind {kind}")
            if kind == "d":
                n = int(fields[5])
                expect(bytes.fromhex("".join(fields[6:6 + n])) == bytes.fromhex(data),
                       f"{printed}: data {fields[6:]}")
        extended = asc_id.endswith("x")
        expect(extended == (len(ident) == 8), f"{printed}: asc id {asc_id}")
        expect(int(asc_id.rstrip("x"), 16) == int(ident, 16), f"{printed}: asc id {asc_id}")
    return 0


def check_usage():
    # (arguments, WCAN_SIM, exit code, text expected on stderr)
    cases = [
        ([], None, 2, "usage: wcan"),
        (["frobnicate"], None, 2, "unknown command"),
        (["dump", "41", "0"], None, 2, "missing arguments"),
        (["dump", "99", "0", "0"], None, 2, "unsupported device type 99"),
        (["dump", "41", "0", "0", "--count", "x"], None, 2, "--count must be a number"),
        (["dump", "41", "0", "0", "--bogus"], None, 2, "unknown option --bogus"),
        (["dump", "41", "0", "0", "--tx", "0:123#00"], None, 2, "other than the dumped one"),
        (["send", "41", "0", "0", "12#00"], None, 2, "bad frame '12#00'"),
        (["send", "41", "0", "0"], None, 2, "missing arguments"),
        (["gen", "41", "0", "0", "--brs"], None, 2, "--brs needs --fd"),
        (["info", "41"], None, 2, "missing arguments"),
        (["record", "41", "0", "0", "show"], None, 2, "configures CAN recorders"),
        (["record", "61", "0", "0", "filter-add", "100"], None, 2, "missing arguments"),
        (["send", "4", "0", "0", "123##1AA"], "4", 2, "cannot send CAN FD frames"),
        (["dump", "41", "0", "2"], "41", 2, "has channels 0..1"),
        (["dump", "4", "0", "0", "--bitrate", "83333"], "4", 2, "not available"),
        (["dump", "61", "0", "0"], "61", 2, "records by itself"),
        # Run-time failures carry the library's reason and exit 1.
        (["info", "41", "3"], "41", 1, "Device Not Exist!"),
        (["dump", "4", "1", "0"], "4", 1, "failed on adapter 4/1"),
        (["dump", "4", "0", "1", "--count", "1", "--timeout", "200"], "4", 1,
         "0 of 1 frames arrived"),
    ]
    for args, sim, code, text in cases:
        result = run(args, env_sim=sim)
        expect(result.returncode == code,
               f"wcan {' '.join(args)}: exit {result.returncode}, wanted {code}\n{result.stderr}")
        expect(text in result.stderr, f"wcan {' '.join(args)}: no {text!r} in\n{result.stderr}")
        if code == 2 and args:
            expect("usage: wcan" in result.stderr, f"wcan {' '.join(args)}: no usage shown")
    for command in ["list", "info", "dump", "send", "gen", "record", "demo"]:
        result = run([command, "--help"])
        expect(result.returncode == 0 and f"usage: wcan {command}" in result.stdout,
               f"wcan {command} --help: exit {result.returncode}\n{result.stdout}")
    result = run(["--help"])
    expect(result.returncode == 0 and "Commands:" in result.stdout, "wcan --help")


def check_interrupt():
    env = dict(os.environ, WCAN_SIM="41")
    proc = subprocess.Popen([WCAN, "dump", "41", "0", "1", "--fd"], stdout=subprocess.PIPE,
                            stderr=subprocess.PIPE, text=True, env=env)
    # The adapter is open and the channel started once the library says so.
    deadline = time.monotonic() + 10
    seen = ""
    while "Start Success" not in seen and time.monotonic() < deadline:
        line = proc.stderr.readline()
        if not line:
            break
        seen += line
    expect("Start Success" in seen, f"dump did not start:\n{seen}")
    proc.send_signal(signal.SIGINT)
    try:
        out, err = proc.communicate(timeout=10)
    except subprocess.TimeoutExpired:
        proc.kill()
        raise CheckFailed("dump did not end after Ctrl-C")
    expect(proc.returncode == 0, f"dump exited {proc.returncode} after Ctrl-C: {err}")


def check_gen():
    result = run(["gen", "41", "0", "0", "--count", "250", "--fd", "--brs", "--len", "i"],
                 env_sim="41")
    expect(result.returncode == 0, f"gen exited {result.returncode}: {result.stderr}")
    expect("250 frames sent, 0 failed" in result.stdout, result.stdout)
    # Standard error is not a terminal here: no progress line.
    expect("\r" not in result.stderr, "progress line written to a non-terminal")
    result = run(["gen", "4", "0", "0", "--count", "20", "--rate", "200", "--id", "i"],
                 env_sim="4")
    expect(result.returncode == 0 and "20 frames sent" in result.stdout, result.stdout)
    # On a terminal the progress line is rewritten in place.
    master, slave = pty.openpty()
    try:
        proc = subprocess.run([WCAN, "--sim", "4", "gen", "4", "0", "0", "--count", "600",
                               "--rate", "1000"], stdout=subprocess.PIPE, stderr=slave,
                              timeout=30)
        os.close(slave)
        slave = None
        terminal = b""
        while True:
            try:
                chunk = os.read(master, 4096)
            except OSError:  # the terminal has no writer left
                break
            if not chunk:
                break
            terminal += chunk
    finally:
        if slave is not None:
            os.close(slave)
        os.close(master)
    expect(proc.returncode == 0, f"gen on a terminal exited {proc.returncode}")
    expect(b"\rsent 600 frames" in terminal, f"no progress line on the terminal: {terminal!r}")


def check_record():
    result = run(["record", "61", "0", "1", "show"], env_sim="61")
    expect(result.returncode == 0, f"record show exited {result.returncode}: {result.stderr}")
    fields = dict(l.split("=", 1) for l in result.stdout.split())
    expect(len(fields) == 12 and fields["abitTiming"].startswith("0x"), result.stdout)
    # A changed field reads back changed; the others keep their values.
    result = run(["record", "61", "0", "1", "set", "abitTiming=0x12345678", "recOptByte2=7"],
                 env_sim="61")
    expect(result.returncode == 0, f"record set exited {result.returncode}: {result.stderr}")
    changed = dict(l.split("=", 1) for l in result.stdout.split())
    expect(changed["abitTiming"] == "0x12345678" and changed["recOptByte2"] == "7", result.stdout)
    expect(changed["dbitTiming"] == fields["dbitTiming"], "set changed an untouched field")
    # Several actions on one opening: the filters read back as they were added.
    result = run(["record", "61", "0", "0", "filter-clear", "filter-add", "100", "1FF",
                  "--id-type", "1", "filter-enable", "filter-info", "filter-show", "0"],
                 env_sim="61")
    expect(result.returncode == 0, f"record filters: exit {result.returncode}: {result.stderr}")
    expect("filters: 1\n" in result.stdout and "filter 0: 100..1FF id type 1" in result.stdout,
           result.stdout)


CHECKS = {
    "demo": check_demo,
    "roundtrip": check_roundtrip,
    "pythoncan": check_pythoncan,
    "log2asc": check_log2asc,
    "usage": check_usage,
    "interrupt": check_interrupt,
    "gen": check_gen,
    "record": check_record,
}


def main():
    global WCAN
    if len(sys.argv) != 3 or sys.argv[2] not in CHECKS:
        print(__doc__, file=sys.stderr)
        return 2
    WCAN = sys.argv[1]
    try:
        return CHECKS[sys.argv[2]]() or 0
    except CheckFailed as e:
        print(f"FAILED: {e}", file=sys.stderr)
        return 1


if __name__ == "__main__":
    sys.exit(main())
