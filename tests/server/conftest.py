# SPDX-License-Identifier: MIT
"""Fixtures for the `wcan serve` tests: a server on simulated adapters on a free
port of 127.0.0.1, and plain-socket clients that speak the protocol."""
import os
import re
import signal
import socket
import subprocess
import threading
import time

import pytest

HOST = "127.0.0.1"


def pytest_addoption(parser):
    parser.addoption("--wcan", required=True, help="the built wcan executable")


@pytest.fixture(scope="session")
def wcan(request):
    return request.config.getoption("--wcan")


class Server:
    """`wcan serve --port 0` on simulated adapters; stderr is collected."""

    def __init__(self, wcan, sim, *args):
        env = {k: v for k, v in os.environ.items() if k != "WCAN_SIM"}
        self.proc = subprocess.Popen([wcan, "--sim", sim, "serve", "--port", "0", *args],
                                     stderr=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                     text=True, env=env)
        self.lines = []
        self._listening = threading.Event()
        self.port = None
        self._reader = threading.Thread(target=self._collect, daemon=True)
        self._reader.start()
        if not self._listening.wait(10):
            self.stop()
            raise AssertionError("server did not start:\n" + self.log())

    def _collect(self):
        for line in self.proc.stderr:
            self.lines.append(line)
            m = re.search(r"listening on 127\.0\.0\.1:(\d+)", line)
            if m:
                self.port = int(m.group(1))
                self._listening.set()

    def log(self):
        return "".join(self.lines)

    def wait_for_log(self, pattern, timeout=5):
        deadline = time.monotonic() + timeout
        while time.monotonic() < deadline:
            if re.search(pattern, self.log()):
                return
            time.sleep(0.01)
        raise AssertionError(f"no {pattern!r} in the server log:\n{self.log()}")

    def connect(self, bus=None, mode=None):
        c = Client(self.port)
        if bus:
            c.open(bus)
        if mode:
            c.request(mode, "ok")
        return c

    def stop(self, sig=signal.SIGTERM, timeout=10):
        if self.proc.poll() is None:
            self.proc.send_signal(sig)
        try:
            code = self.proc.wait(timeout)
        except subprocess.TimeoutExpired:
            self.proc.kill()
            raise AssertionError("server did not end after the signal:\n" + self.log())
        self._reader.join(5)
        return code


def check_ended_cleanly(server):
    code = server.stop()
    log = server.log()
    assert code == 0, f"server exited {code}:\n{log}"
    assert "Sanitizer" not in log and "runtime error" not in log, log


@pytest.fixture
def serve(wcan):
    """serve(SIM, *ARGS) starts a server that is stopped (and must end with 0) after the test."""
    servers = []

    def start(sim="41", *args):
        s = Server(wcan, sim, *args)
        servers.append(s)
        return s

    yield start
    for s in servers:
        check_ended_cleanly(s)


@pytest.fixture(scope="module")
def shared(wcan):
    """One server on a CAN FD adapter (41) and a recorder (61) for a whole module."""
    s = Server(wcan, "41,61")
    # Keeps the adapter open between tests, so each test's bus opens at once.
    keeper = s.connect("wcan41-0-1")
    yield s
    keeper.close()
    check_ended_cleanly(s)


def split_elements(text):
    return [e.strip() for e in re.findall(r"<([^<>]*)>", text)]


class Client:
    """A protocol client over a plain socket that keeps what it read."""

    def __init__(self, port, rcvbuf=None):
        self.sock = socket.socket(socket.AF_INET, socket.SOCK_STREAM)
        if rcvbuf:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, rcvbuf)
        self.sock.connect((HOST, port))
        self.sock.settimeout(5)
        self.buffer = ""
        assert self.element() == "hi"

    def send(self, text):
        self.sock.sendall(text.encode("ascii") if isinstance(text, str) else text)

    def element(self, timeout=5):
        """The next element's text without the brackets; None at the end of the stream."""
        deadline = time.monotonic() + timeout
        while True:
            m = re.match(r"\s*<([^<>]*)>", self.buffer)
            if m:
                self.buffer = self.buffer[m.end():]
                return " ".join(m.group(1).split())
            left = deadline - time.monotonic()
            if left <= 0:
                raise TimeoutError(f"no element within {timeout} s; have {self.buffer!r}")
            self.sock.settimeout(left)
            chunk = self.sock.recv(65536)
            if not chunk:
                return None
            self.buffer += chunk.decode("ascii")

    def request(self, text, *replies):
        """Sends one request and expects these replies in order."""
        self.send(f"< {text} >")
        for want in replies:
            got = self.element()
            assert got == want, f"< {text} >: got {got!r}, wanted {want!r}"

    def open(self, bus):
        self.request(f"open {bus}", "ok")

    def frames(self, count, timeout=10):
        """The next `count` frame elements (other elements are skipped)."""
        out = []
        while len(out) < count:
            e = self.element(timeout)
            assert e is not None, f"connection ended after {len(out)} of {count} frames"
            if e.split()[0] in ("frame", "fdframe", "rtr"):
                out.append(e)
        return out

    def silent(self, seconds=0.3):
        """True when nothing arrives for a while."""
        try:
            return self.element(seconds) is None
        except TimeoutError:
            return True

    def closed_by_server(self, timeout=5):
        """Reads up to the end of the stream; True when the server closed it."""
        try:
            while self.element(timeout) is not None:
                pass
            return True
        except ConnectionResetError:
            return True
        except TimeoutError:
            return False

    def close(self):
        self.sock.close()


def frame_text(element):
    """'frame 123 T 1122' -> ('frame', '123', '1122'): the element without its time stamp."""
    words = element.split()
    return (words[0], words[1], " ".join(words[3:]))
