#!/usr/bin/env python3
# SPDX-License-Identifier: MIT
"""Checks of the simulation several processes share through its host.

Usage: simhost_checks.py PATH_TO_WCAN CHECK
Every check runs with a runtime folder of its own, so no other test's host
is ever reached, and stops the host it leaves behind.
Exit 0 on success, 1 on failure, 77 when python-can is missing.
"""
import os
import re
import shutil
import signal
import subprocess
import sys
import tempfile
import time

WCAN = sys.argv[1] if len(sys.argv) > 1 else "wcan"
PYTHONPATH = os.path.join(os.path.dirname(os.path.abspath(WCAN)), "python")
SKIP = 77
RUNTIME = tempfile.mkdtemp(prefix="wcan-simhost-")
ENV = {k: v for k, v in os.environ.items() if not k.startswith("WCAN_SIM")}
ENV.update(XDG_RUNTIME_DIR=RUNTIME, WCAN_SIM_LINGER_MS="500", PYTHONPATH=PYTHONPATH)
SOCKET = os.path.join(RUNTIME, "wcan-sim.sock")


class CheckFailed(Exception):
    pass


def expect(cond, message):
    if not cond:
        raise CheckFailed(message)


def wcan(*args, code=0, **extra):
    result = subprocess.run([WCAN, *args], capture_output=True, text=True,
                            env=dict(ENV, **extra), timeout=30)
    expect(code is None or result.returncode == code,
           f"wcan {' '.join(args)}: exit {result.returncode}\n{result.stdout}{result.stderr}")
    return result


STARTED = []


def start(args, **extra):
    proc = subprocess.Popen(args, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True,
                            env=dict(ENV, **extra))
    STARTED.append(proc)
    return proc


def dump(channel, *options, **extra):
    return start([WCAN, "--sim", "41", "dump", "41", "0", str(channel), *options], **extra)


def frames_of(text):
    return re.findall(r"wcan41-0-\d (\S+)", text)


def status():
    return wcan("sim", "status", code=None).stdout


def wait_open(proc, channel, timeout=10.0):
    """Waits until the host shows the channel started by that process."""
    pattern = re.compile(rf"channel {channel}: [^\n]*in {proc.pid} ")
    deadline = time.monotonic() + timeout
    while time.monotonic() < deadline:
        if proc.poll() is not None:
            raise CheckFailed(f"process {proc.pid} ended: {proc.communicate()}")
        if pattern.search(status()):
            return
        time.sleep(0.05)
    text = status()
    proc.kill()
    raise CheckFailed(f"channel {channel} never opened in {proc.pid}:\n{text}{proc.communicate()}")


def finish(proc, timeout=15):
    out, err = proc.communicate(timeout=timeout)
    return out, err


def check_both_ways():
    """Frames cross between processes in both directions over one cable."""
    on1, on0 = dump(1, "--count", "1", "--timeout", "5000"), dump(0, "--count", "1",
                                                                   "--timeout", "5000")
    wait_open(on1, 1)
    wait_open(on0, 0)
    wcan("--sim", "41", "send", "41", "0", "0", "123#11")
    wcan("--sim", "41", "send", "41", "0", "1", "456#2233")
    expect(frames_of(finish(on1)[0]) == ["123#11"], "channel 1 missed the frame of channel 0")
    expect(frames_of(finish(on0)[0]) == ["456#2233"], "channel 0 missed the frame of channel 1")
    status_text = status()
    expect("serial WS41000000" in status_text, f"the adapter's slot is not 0:\n{status_text}")


def check_pacing():
    """A sender in one process waits for the bus the host paces."""
    count = 800
    receiver = dump(1, "--count", str(count), "--timeout", "5000")
    wait_open(receiver, 1)
    result = wcan("--sim", "41", "gen", "41", "0", "0", "--count", str(count), "--id", "123",
                  "--len", "8")
    sent = result.stdout + result.stderr
    seconds = float(re.search(r"([\d.]+) s,", sent).group(1))
    # The adapter's transmit queue takes 256 frames (and one write more);
    # the rest waits for the bus, where a classic frame with 8 data bytes
    # holds it for at least 111 bits, 222 us at 500 kbit/s.
    expect(seconds >= (count - 2 * 256) * 222e-6, f"not paced: {sent}")
    receiver.kill()
    # A process that wants another pacing than the host's is told which rules.
    warned = wcan("--sim", "41", "send", "41", "0", "0", "123#11", WCAN_SIM_PACE="0").stderr
    expect(re.search(r"pacing off \(WCAN_SIM_PACE=0\).*host \d+.*pacing on", warned),
           f"no warning of the host's pacing: {warned}")
    quiet = wcan("--sim", "41", "send", "41", "0", "0", "123#11").stderr
    expect("pacing" not in quiet, f"a warning without cause: {quiet}")


def check_lifetime_and_private():
    """A private process shares nothing; the host ends after its last client."""
    private = dump(1, "--count", "1", "--timeout", "1500", WCAN_SIM_PRIVATE="1")
    time.sleep(0.5)
    wcan("--sim", "41", "send", "41", "0", "0", "123#11", WCAN_SIM_PRIVATE="1")
    out, _ = finish(private)
    expect(private.returncode == 1 and not frames_of(out), f"a private process heard: {out}")
    expect(not os.path.exists(SOCKET), "a private process started a host")
    wcan("--sim", "41", "send", "41", "0", "0", "123#11")
    deadline = time.monotonic() + 5
    while os.path.exists(SOCKET) and time.monotonic() < deadline:
        time.sleep(0.05)
    expect(not os.path.exists(SOCKET), "the host outlived its last client")
    result = wcan("sim", "status", code=1)
    expect("no simulation host is running" in result.stderr, result.stderr)


def host_pid():
    m = re.search(r"^simulation host (\d+)", status(), re.M)
    return int(m.group(1)) if m else None


def check_host_killed():
    """Clients of a killed host see their adapter unplugged and carry on with a new one."""
    receiver = dump(1, "--count", "1", "--timeout", "20000")
    wait_open(receiver, 1)
    first = host_pid()
    os.kill(first, signal.SIGKILL)
    deadline = time.monotonic() + 10
    while host_pid() in (None, first) and time.monotonic() < deadline:
        time.sleep(0.05)
    expect(host_pid() not in (None, first), "no new host came up")
    wait_open(receiver, 1)  # the dump went through the library's recovery
    wcan("--sim", "41", "send", "41", "0", "0", "321#44")
    out, err = finish(receiver)
    expect(frames_of(out) == ["321#44"], f"the dump lost the frame after recovery:\n{out}{err}")


def check_unplug_replug():
    """Nothing sent after a replug is lost by a dump that recovered from the unplug."""
    count = 20
    receiver = dump(1, "--count", str(count), "--timeout", "20000")
    wait_open(receiver, 1)
    expect("unplugged" in wcan("sim", "unplug", "41", "0").stdout, "no unplug")
    result = wcan("sim", "unplug", "41", "0", code=1)
    expect("unplugged already" in result.stderr, result.stderr)
    wcan("sim", "replug", "41", "0")
    wait_open(receiver, 1)
    wcan("--sim", "41", "gen", "41", "0", "0", "--count", str(count), "--id", "i", "--len", "2")
    out, err = finish(receiver)
    expect(len(frames_of(out)) == count, f"{len(frames_of(out))} of {count} frames\n{err}")
    result = wcan("sim", "replug", "4", "7", code=1)
    expect("no adapter 4/7" in result.stderr, result.stderr)


def check_pythoncan():
    """python-can's logger and player in two processes, on the two ends of a cable."""
    try:
        import can  # noqa: F401
    except ImportError:
        return SKIP
    frames = [f"(0.{i:02d}0000) can0 {0x100 + i:03X}#{i:02X}{i:02X}" for i in range(10)]
    source = os.path.join(RUNTIME, "in.log")
    target = os.path.join(RUNTIME, "out.log")
    with open(source, "w") as f:
        f.write("\n".join(frames) + "\n")
    python = ["/usr/bin/python3", "-m"]
    logger = start(python + ["can.logger", "-i", "wcan", "-c", "wcan41-0-1", "-f", target],
                   WCAN_SIM="41")
    wait_open(logger, 1, timeout=20)
    player = subprocess.run(python + ["can.player", "-i", "wcan", "-c", "wcan41-0-0", source],
                            env=dict(ENV, WCAN_SIM="41"), capture_output=True, text=True,
                            timeout=60)
    expect(player.returncode == 0, f"player: {player.stderr}")
    time.sleep(0.5)
    logger.send_signal(signal.SIGINT)
    _, err = finish(logger)
    with open(target) as f:
        got = [word for line in f for word in line.split() if "#" in word]
    want = [f.split()[-1] for f in frames]
    expect(got == want, f"the logger wrote {got}, wanted {want}\n{err}")


CHECKS = {name[6:]: fn for name, fn in globals().items() if name.startswith("check_")}


def main():
    if len(sys.argv) != 3 or sys.argv[2] not in CHECKS:
        print(f"usage: {sys.argv[0]} WCAN {{{'|'.join(CHECKS)}}}", file=sys.stderr)
        return 2
    try:
        return CHECKS[sys.argv[2]]() or 0
    except (CheckFailed, subprocess.TimeoutExpired) as e:
        print(f"FAILED {sys.argv[2]}: {e}", file=sys.stderr)
        return 1
    finally:
        for proc in STARTED:
            if proc.poll() is None:
                proc.kill()
                proc.wait()
        subprocess.run([WCAN, "sim", "stop"], env=ENV, capture_output=True)
        time.sleep(0.2)
        shutil.rmtree(RUNTIME, ignore_errors=True)


if __name__ == "__main__":
    sys.exit(main())
