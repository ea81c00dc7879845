# SPDX-License-Identifier: MIT
"""Fixtures for the browser monitor: `wcan serve --web` on simulated adapters
(127.0.0.1, free ports) and a headless Chromium on its page."""
import os
import re
import shutil
import subprocess
import tempfile
import threading
import time

import pytest


def pytest_addoption(parser):
    parser.addoption("--wcan", required=True, help="the built wcan executable")
    parser.addoption("--chromium", default="/usr/bin/chromium")
    parser.addoption("--chromedriver", default="/usr/bin/chromedriver")
    parser.addoption("--screenshot", default=None, help="where to save the page with a plot")


class Server:
    """`wcan --sim SIM serve --port 0 --web 127.0.0.1:0`; stderr is collected."""

    def __init__(self, wcan, sim="41"):
        env = {k: v for k, v in os.environ.items() if k != "WCAN_SIM"}
        self.wcan = wcan
        self.proc = subprocess.Popen(
            [wcan, "--sim", sim, "serve", "--port", "0", "--web", "127.0.0.1:0"],
            stderr=subprocess.PIPE, stdout=subprocess.DEVNULL, text=True, env=env)
        self.lines = []
        self.ready = threading.Event()
        self.port = self.url = None
        threading.Thread(target=self._collect, daemon=True).start()
        if not self.ready.wait(10):
            self.stop()
            raise AssertionError("server did not start:\n" + "".join(self.lines))

    def _collect(self):
        for line in self.proc.stderr:
            self.lines.append(line)
            m = re.search(r"listening on 127\.0\.0\.1:(\d+)", line)
            if m:
                self.port = int(m.group(1))
            m = re.search(r"bus monitor at (http://127\.0\.0\.1:(\d+)/\?token=(\w+))", line)
            if m:
                self.url, self.web_port, self.token = m.group(1), int(m.group(2)), m.group(3)
                self.ready.set()

    def tool(self, *args, **kw):
        """Runs a `wcan` client of this server in the background."""
        return subprocess.Popen([self.wcan, *args], stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True, **kw)

    def stop(self):
        self.proc.terminate()
        code = self.proc.wait(10)
        log = "".join(self.lines)
        assert code == 0, f"server exited {code}:\n{log}"
        assert "Sanitizer" not in log and "runtime error" not in log, log


@pytest.fixture(scope="module")
def server(request):
    s = Server(request.config.getoption("--wcan"))
    yield s
    s.stop()


@pytest.fixture(scope="module")
def browser(request):
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError:
        pytest.skip("python3-selenium is not installed")
    chromium = request.config.getoption("--chromium")
    driver_path = request.config.getoption("--chromedriver")
    if not (shutil.which(chromium) and shutil.which(driver_path)):
        pytest.skip("chromium or chromium-driver is not installed")
    profile = tempfile.mkdtemp(prefix="wcan-web-")
    options = webdriver.ChromeOptions()
    options.binary_location = shutil.which(chromium)
    # Without network the browser would hang on its own outbound connections.
    for flag in ("--headless", "--no-sandbox", "--disable-gpu", "--disable-quic",
                 "--no-first-run", "--disable-background-networking",
                 "--disable-component-update", "--disable-sync",
                 "--disable-dev-shm-usage", "--window-size=1300,2400",
                 f"--user-data-dir={profile}"):
        options.add_argument(flag)
    driver = webdriver.Chrome(service=Service(shutil.which(driver_path)), options=options)
    yield driver
    driver.quit()
    shutil.rmtree(profile, ignore_errors=True)


def wait_for(what, timeout=10, step=0.1):
    """Polls `what()` until it is truthy; returns its value."""
    deadline = time.monotonic() + timeout
    while True:
        value = what()
        if value:
            return value
        if time.monotonic() > deadline:
            raise AssertionError(f"timed out waiting for {what.__doc__ or what}")
        time.sleep(step)
