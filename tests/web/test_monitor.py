# SPDX-License-Identifier: MIT
"""The browser monitor end to end: a headless Chromium on the page of
`wcan serve --web`, traffic from `wcan gen` and `wcan dump` clients of the
same server (the simulated cable joins channels 0 and 1 of adapter 41), and
plain HTTP for what must be refused."""
import http.client
import os
import queue
import re
import subprocess
import threading
import time
from decimal import Decimal

import pytest

from conftest import wait_for

HERE = os.path.dirname(os.path.abspath(__file__))


def request(server, path, host=None, headers=None, method="GET", body=None, raw=False):
    c = http.client.HTTPConnection("127.0.0.1", server.web_port, timeout=10)
    c.putrequest(method, path, skip_host=True)
    c.putheader("Host", host or f"127.0.0.1:{server.web_port}")
    for k, v in (headers or {}).items():
        c.putheader(k, v)
    if body is not None:
        c.putheader("Content-Length", str(len(body)))
    c.endheaders(body)
    r = c.getresponse()
    content = r.read()
    c.close()
    return r.status, content if raw else content.decode("utf-8", "replace")


UPGRADE = {"Upgrade": "websocket", "Connection": "Upgrade", "Sec-WebSocket-Version": "13",
           "Sec-WebSocket-Key": "dGhlIHNhbXBsZSBub25jZQ=="}


@pytest.mark.parametrize("what, path, host, headers, status", [
    ("no token", "/", None, {}, 403),
    ("a wrong token", "/?token=0123", None, {}, 403),
    ("the token", "/?token={t}", None, {}, 200),
    ("the cookie", "/app.js", None, {"Cookie": "wcan_token_{p}={t}"}, 200),
    ("a foreign host (DNS rebinding)", "/?token={t}", "attacker.example:{p}", {}, 421),
    ("another port", "/?token={t}", "127.0.0.1:1", {}, 421),
    ("a foreign page's socket", "/ws?token={t}", None,
     dict(UPGRADE, Origin="http://attacker.example"), 403),
    ("the page's own socket", "/ws?token={t}", None,
     dict(UPGRADE, Origin="http://127.0.0.1:{p}"), 101),
    ("a socket without the token", "/ws", None, dict(UPGRADE, Origin="http://127.0.0.1:{p}"), 403),
    ("a page's record without the token", "/record.pcapng?session=1", None, {}, 403),
])
def test_access(server, what, path, host, headers, status):
    fill = lambda s: s.format(t=server.token, p=server.web_port)
    got, text = request(server, fill(path), fill(host) if host else None,
                        {k: fill(v) for k, v in headers.items()})
    assert got == status, f"{what}: {got} {text}"


def test_bad_uploads_are_refused_and_the_server_stays(server):
    token = f"?token={server.token}"
    status, _ = request(server, "/dbc" + token, method="POST", body=b"x" * (5 << 20))
    assert status == 413
    status, text = request(server, "/dbc" + token, method="POST", body=b"BO_ oops\n")
    assert status == 200 and '"ok":false' in text, text
    assert request(server, "/" + token)[0] == 200


def open_page(server, browser):
    if browser.current_url.startswith(f"http://127.0.0.1:{server.web_port}/"):
        return
    browser.get(server.url)
    wait_for(lambda: browser.find_element("id", "status").text == "connected")


def js(browser, script):
    return browser.execute_script("return " + script)


def message_shown(browser, pattern):
    return wait_for(lambda: re.search(pattern, browser.find_element("id", "message").text))


def bus_state(browser, bus):
    return js(browser, f"wcan.buses.find(b => b.name == '{bus}')")


def start_bus(browser, bus):
    """Starts the bus from its row unless the page holds it already."""
    # A bus a client just left stays listed as running until the next second.
    state = wait_for(lambda: (lambda s: s if s["monitor"] or not s["running"] else None)(
        bus_state(browser, bus)))
    if not state["running"]:
        browser.find_element("css selector", f"#buses tr[data-bus='{bus}'] button").click()
        wait_for(lambda: bus_state(browser, bus)["monitor"])


class Dump:
    """`wcan dump --connect` on a bus, its lines read as they come."""

    def __init__(self, server, bus):
        self.proc = server.tool("dump", "--connect", f"127.0.0.1:{server.port}", bus)
        self.lines = queue.Queue()
        threading.Thread(target=lambda: [self.lines.put(l) for l in self.proc.stdout],
                         daemon=True).start()

    def matching(self, pattern, count, timeout=10):
        out = []
        while len(out) < count:
            line = self.lines.get(timeout=timeout)
            if re.search(pattern, line):
                out.append(line)
        return out

    def stop(self):
        self.proc.terminate()
        self.proc.wait(10)


def test_live_frames_fill_trace_table_and_load_chart(server, browser):
    gen = server.tool("gen", "--connect", f"127.0.0.1:{server.port}", "wcan41-0-0",
                      "--rate", "200", "--id", "123", "--len", "8")
    try:
        open_page(server, browser)
        wait_for(lambda: js(browser, "wcan.framesSeen") > 20)
        assert "123" in browser.find_element("css selector", "#trace tbody tr").text
        wait_for(lambda: "123" in browser.find_element("id", "idtable").text)
        # A running bus opened by a client shows at once, with its load drawn.
        # 200 frames/s of 8 bytes hold a 500 kbit/s bus for about 5 %.
        wait_for(lambda: 3 < (bus_state(browser, "wcan41-0-0")["load"] or 0) < 8)
        wait_for(lambda: js(browser, "wcan.loadGraph && wcan.loadGraph.numRows() >= 2"))
        assert browser.find_elements("css selector", "#loadChart canvas")
        # One row per identifier: the trace keeps one row for 123.
        browser.find_element("css selector", "#traceMode option[value=perid]").click()
        wait_for(lambda: js(browser, "wcan.traceRows.size") == 1)
        browser.find_element("css selector", "#traceMode option[value=append]").click()
    finally:
        gen.terminate()
        gen.wait(10)


def test_frame_sent_from_the_page_reaches_the_other_channel(server, browser):
    open_page(server, browser)
    start_bus(browser, "wcan41-0-0")
    dump = Dump(server, "wcan41-0-1")
    try:
        browser.find_element("id", "sendBus").send_keys("wcan41-0-0")
        field = browser.find_element("id", "sendFrame")
        field.clear()
        field.send_keys("7A5#C0FFEE")
        # Until the dump's bus is open the frame would pass unseen.
        wait_for(lambda: bus_state(browser, "wcan41-0-1")["clients"] == 1)
        browser.find_element("id", "sendOnce").click()
        assert dump.matching(r"wcan41-0-1 7A5#C0FFEE", 1)
    finally:
        dump.stop()


def test_bad_requests_get_an_error_and_keep_the_page(server, browser):
    open_page(server, browser)
    for bad, reason in [("not json", "JSON object"),
                        ('{"op": "send", "bus": "wcan41-0-0", "frame": "7A5#C0F"}', "not sent"),
                        ('{"op": "send", "bus": "wcan41-0-0", "frame": "123##1' + "00" * 12 + '"}',
                         "classic CAN"),
                        ('{"op": "send", "bus": "wcan41-0-5", "frame": "123#00"}', "not running"),
                        ('{"op": "cyclic", "key": "x", "bus": "wcan41-0-0", "frame": "1#", '
                         '"period": 0}', "period"),
                        ('{"op": "launch"}', "unknown request")]:
        browser.execute_script("wcan.socket.send(arguments[0])", bad)
        message_shown(browser, reason)
    assert browser.find_element("id", "status").text == "connected"


def test_cyclic_sending_keeps_its_period(server, browser):
    open_page(server, browser)
    start_bus(browser, "wcan41-0-0")
    dump = Dump(server, "wcan41-0-1")
    try:
        wait_for(lambda: bus_state(browser, "wcan41-0-1")["clients"] == 1)
        field = browser.find_element("id", "sendFrame")
        field.clear()
        field.send_keys("321#01")
        period = browser.find_element("id", "sendPeriod")
        period.clear()
        period.send_keys("20")
        browser.find_element("id", "startCyclic").click()
        lines = dump.matching(r" 321#01", 61)
        browser.find_element("css selector", "#cyclic button").click()
        times = [float(re.match(r"\((\d+\.\d+)\)", l).group(1)) for l in lines]
        mean = (times[-1] - times[0]) / (len(times) - 1)
        assert abs(mean - 0.020) < 0.020 * 0.03, f"mean period {mean * 1000:.2f} ms"
    finally:
        dump.stop()


def test_dbc_decodes_sends_and_plots(server, browser, request):
    open_page(server, browser)
    if "reads no DBC" in browser.find_element("id", "dbcState").text:
        pytest.skip("this build of wcan reads no DBC files")
    browser.find_element("id", "dbcFile").send_keys(os.path.join(HERE, "engine.dbc"))
    browser.find_element("id", "uploadDbc").click()
    message_shown(browser, "DBC loaded: 1 messages")
    wait_for(lambda: browser.find_elements("css selector", "#signalPicker input"))
    start_bus(browser, "wcan41-0-0")
    gen = server.tool("gen", "--connect", f"127.0.0.1:{server.port}", "wcan41-0-0",
                      "--rate", "50", "--id", "64", "--len", "8")
    dump = Dump(server, "wcan41-0-1")
    try:
        wait_for(lambda: "EngineSpeed=" in browser.find_element("id", "trace").text)
        browser.find_element("css selector", "#signalPicker input[value='EngineData.EngineSpeed']").click()
        browser.find_element("css selector", "#signalPicker input[value='EngineData.CoolantTemp']").click()
        wait_for(lambda: js(browser, "wcan.signalGraph && wcan.signalGraph.numRows() > 20"))
        assert "rpm" in browser.find_element("id", "signalChart").text
        # A frame from signal values: 1000 rpm at 0.5 rpm per bit, Intel order.
        browser.find_element("css selector", "input[name=sendKind][value=message]").click()
        speed = browser.find_element("css selector", "#sendSignals input[data-signal=EngineSpeed]")
        speed.clear()
        speed.send_keys("1000")
        browser.find_element("id", "sendOnce").click()
        assert dump.matching(r" 064#D007", 1)
        shot = request.config.getoption("--screenshot")
        if shot:
            browser.execute_script("document.getElementById('signalsSection').scrollIntoView()")
            browser.save_screenshot(shot)
    finally:
        gen.terminate()
        gen.wait(10)
        dump.stop()


def quiet_record(browser):
    """Waits until no more frames reach the page; returns its record."""
    before = None
    while True:
        time.sleep(0.5)
        now = js(browser, "wcan.record.map(f => [f[0], wcan.buses[f[1]].name, f[2]])")
        if now == before:
            return now
        before = now


def test_pcapng_download_holds_what_the_page_saw(server, browser, tmp_path):
    open_page(server, browser)
    quiet_record(browser)
    browser.find_element("id", "clearTrace").click()
    gen = server.tool("gen", "--connect", f"127.0.0.1:{server.port}", "wcan41-0-1",
                      "--rate", "300", "--id", "2A5", "--len", "8")
    try:
        wait_for(lambda: len(js(browser, "wcan.record")) > 50)
    finally:
        gen.terminate()
        gen.wait(10)
    seen = quiet_record(browser)
    status, body = request(server, "/record.pcapng?token=%s&session=%d"
                           % (server.token, js(browser, "wcan.session")), raw=True)
    assert status == 200, body
    path = tmp_path / "record.pcapng"
    path.write_bytes(body)
    fields = subprocess.run(["tshark", "-r", str(path), "-T", "fields", "-e", "frame.time_epoch",
                             "-e", "frame.interface_name", "-e", "can.id"],
                            capture_output=True, text=True, check=True).stdout.split("\n")
    got = [[int(Decimal(t) * 1000000), bus, int(i, 0)]
           for t, bus, i in (line.split("\t") for line in fields if line)]
    assert got == seen and ["wcan41-0-1", 0x2A5] in [f[1:] for f in seen]
