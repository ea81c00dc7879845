# SPDX-License-Identifier: MIT
"""What the scripts that run the built `wcan` tool share: the failure a check
raises, an environment without simulated adapters unless asked for, a server
on a free loopback port and the command line of every script:
SCRIPT WCAN_EXECUTABLE CHECK, exit 0 on success, 1 on failure, 77 to skip."""
import os
import re
import signal
import subprocess
import sys

SKIP = 77


class CheckFailed(Exception):
    pass


def expect(cond, message):
    if not cond:
        raise CheckFailed(message)


def tool_env(**extra):
    # The test's own simulation settings go; private mode, which keeps each
    # tool in a simulation of its own, stays.
    e = {k: v for k, v in os.environ.items()
         if not k.startswith("WCAN_SIM") or k == "WCAN_SIM_PRIVATE"}
    e.update(extra)
    return e


class Server:
    """`wcan --sim SIM serve --port 0 ARGS...`; helpers started beside it end with it."""

    def __init__(self, wcan, sim, *args):
        self.proc = subprocess.Popen([wcan, "--sim", sim, "serve", "--port", "0", *args],
                                     stderr=subprocess.PIPE, text=True, env=tool_env())
        for line in self.proc.stderr:
            found = re.search(r"listening on (127\.0\.0\.1:\d+)", line)
            if found:
                self.address = found.group(1)
                break
        else:
            raise CheckFailed("wcan serve did not say where it listens")
        self.helpers = []

    def __enter__(self):
        return self

    def __exit__(self, *exc):
        for p in self.helpers + [self.proc]:
            if p.poll() is None:
                p.send_signal(signal.SIGINT)
            p.communicate(timeout=10)


def main(script):
    """Runs the check named on the command line among the script's check_ functions."""
    checks = {name[6:]: fn for name, fn in script.items() if name.startswith("check_")}
    if len(sys.argv) != 3 or sys.argv[2] not in checks:
        print(script["__doc__"], file=sys.stderr)
        return 2
    script["WCAN"] = sys.argv[1]
    try:
        return checks[sys.argv[2]]() or 0
    except CheckFailed as e:
        print(f"FAILED: {e}", file=sys.stderr)
        return 1
