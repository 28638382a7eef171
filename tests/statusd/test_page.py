"""The page of statusd in a browser."""
import contextlib
import json
import os
import re
import shutil
import signal
import socketserver
import subprocess
import threading
import zlib

import pytest
from conftest import wait_for
from namespaces import PATIENCE, need

CHROMIUM = "/usr/bin/chromium"
DRIVER = "/usr/bin/chromedriver"
SIZES = {"wide": (1280, 900), "narrow": (500, 1000)}


@pytest.fixture(scope="module")
def artifacts():
    path = os.environ["KIV_ARTIFACTS"]
    os.makedirs(path, exist_ok=True)
    return path


@pytest.fixture
def browser(tmp_path):
    need(os.path.exists(CHROMIUM) and os.path.exists(DRIVER), "chromium is not installed")
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError:
        need(False, "selenium is not installed")
    with contextlib.ExitStack() as stack:

        def start(scheme="light", size=SIZES["wide"]):
            profile = tmp_path / f"profile{len(os.listdir(tmp_path))}"
            options = webdriver.ChromeOptions()
            options.binary_location = CHROMIUM
            for flag in ("--headless", "--no-sandbox", "--disable-gpu", "--no-first-run", "--hide-scrollbars",
                         "--disable-background-networking", "--disable-component-update", "--disable-sync",
                         "--disable-dev-shm-usage", f"--user-data-dir={profile}"):
                options.add_argument(flag)
            options.set_capability("goog:loggingPrefs", {"browser": "ALL"})
            driver = webdriver.Chrome(service=Service(DRIVER), options=options)
            stack.callback(shutil.rmtree, profile, ignore_errors=True)
            stack.callback(driver.quit)
            driver.set_page_load_timeout(PATIENCE)
            driver.set_script_timeout(PATIENCE)
            look(driver, scheme, size)
            return driver

        yield start


def look(driver, scheme, size):
    width, height = size
    driver.execute_cdp_cmd("Emulation.setEmulatedMedia",
                           {"features": [{"name": "prefers-color-scheme", "value": scheme}]})
    driver.execute_cdp_cmd("Emulation.setDeviceMetricsOverride",
                           {"width": width, "height": height, "deviceScaleFactor": 1, "mobile": False})


def text(driver, element):
    return driver.execute_script("return document.getElementById(arguments[0]).textContent", element)


def wait_for_text(driver, element, wanted):
    wait_for(lambda: text(driver, element) == wanted, f"{element} to read {wanted!r}, not {text(driver, element)!r}")


def save_screenshots(driver, artifacts, name):
    for size in SIZES:
        for scheme in ("light", "dark"):
            look(driver, scheme, SIZES[size])
            height = driver.execute_script("return document.documentElement.scrollHeight")
            look(driver, scheme, (SIZES[size][0], height))
            assert driver.save_screenshot(os.path.join(artifacts, f"statusd-{name}-{size}-{scheme}.png"))
    look(driver, "light", SIZES["wide"])


@pytest.fixture
def relay():
    """Makes the page of a daemon in a namespace visible to a browser outside."""
    with contextlib.ExitStack() as stack:

        def start(daemon):
            class Handler(socketserver.BaseRequestHandler):
                def handle(self):
                    request = self.request.recv(65536)
                    if request:
                        self.request.sendall(daemon.send(request))

            server = stack.enter_context(socketserver.ThreadingTCPServer(("127.0.0.1", 0), Handler))
            server.daemon_threads = True
            threading.Thread(target=server.serve_forever, daemon=True).start()
            stack.callback(server.shutdown)
            return f"http://127.0.0.1:{server.server_address[1]}/"

        yield start


def rows(driver, table):
    """Returns the texts of the table's rows, the mark last."""
    return driver.execute_script("""
        return [...document.getElementById(arguments[0]).tBodies[0].rows]
            .map((row) => [...row.cells].map((cell) => cell.textContent))""", table)


def hold_at(driver, marks):
    """Lets the page stand still as soon as it shows this many marks, however slow this test is."""
    driver.execute_script("""
        const [marks] = arguments;
        new MutationObserver(() => {
          if ([...document.querySelectorAll("td.mark")].filter((cell) => cell.textContent).length === marks) {
            window.fetch = () => new Promise(() => {});
            document.body.dataset.held = "yes";
          }
        }).observe(document.getElementById("cards"), { subtree: true, childList: true });""", marks)


def complaints(driver):
    """What the browser's console says, such as a violation of the page's policy."""
    return [entry["message"] for entry in driver.get_log("browser")]


def test_page_shows_what_the_daemon_sees_as_it_changes(statusd, browser, artifacts):
    peer = statusd(name="peer")
    daemon = statusd(name="gateway <7>", peer=peer.url + "status.json", interval_ms=200)
    driver = browser()
    driver.get(daemon.url)
    wait_for_text(driver, "link", "live")
    wait_for_text(driver, "name", "gateway <7>")
    wait_for_text(driver, "peer-state", "Up")
    assert driver.title == "gateway <7> – status"
    assert text(driver, "peer-url") == peer.url + "status.json"
    assert text(driver, "peer-http") == "200"
    driver.execute_script("document.body.dataset.mark = 'same document'")
    figures = {key: text(driver, key) for key in ("passes", "timers", "requests", "uptime", "peer-checks")}
    for key, figure in figures.items():
        wait_for(lambda: text(driver, key) != figure, f"{key} to change")
    assert driver.execute_script("return document.body.dataset.mark") == "same document"
    bars = lambda: driver.execute_script("return document.querySelectorAll('#plot .bar').length")
    wait_for(lambda: bars() == 60, "a full chart")
    save_screenshots(driver, artifacts, "peer-up")

    peer.end()
    wait_for_text(driver, "peer-state", "Down")
    wait_for_text(driver, "peer-http", "–")
    misses = lambda: driver.execute_script("return document.querySelectorAll('#plot .miss').length")
    wait_for(lambda: misses() > 10, "failures in the chart")
    save_screenshots(driver, artifacts, "peer-down")

    statusd(name="peer", listen=f"127.0.0.1:{peer.port}")
    wait_for_text(driver, "peer-state", "Up")
    assert complaints(driver) == []


def test_page_says_when_the_daemon_is_gone_and_recovers(statusd, browser, artifacts):
    daemon = statusd(name="gateway")
    driver = browser()
    driver.get(daemon.url)
    wait_for_text(driver, "link", "live")
    wait_for_text(driver, "peer-state", "None")
    lost = lambda: driver.find_element("id", "lost").is_displayed()
    assert not lost()
    save_screenshots(driver, artifacts, "no-peer")

    daemon.end()
    wait_for_text(driver, "link", "connection lost")
    assert lost()
    save_screenshots(driver, artifacts, "lost")

    statusd(name="gateway again", listen=f"127.0.0.1:{daemon.port}")
    wait_for_text(driver, "name", "gateway again")
    wait_for_text(driver, "link", "live")
    assert not lost()


def test_daemon_that_hangs_counts_as_lost(browser, statusd):
    """It accepts connections, as the kernel does for a stopped process, and says nothing."""
    daemon = statusd()
    driver = browser()
    driver.get(daemon.url)
    wait_for_text(driver, "link", "live")
    daemon.process.send_signal(signal.SIGSTOP)
    try:
        wait_for_text(driver, "link", "connection lost")
    finally:
        daemon.process.send_signal(signal.SIGCONT)
    wait_for_text(driver, "link", "live")


@pytest.mark.parametrize("width", [320, 500, 800, 1280, 2000])
def test_page_never_scrolls_sideways(statusd, browser, width):
    daemon = statusd(name="a-rather-long-name-of-a-device-" * 2, peer="http://127.0.0.1:1/" + "long" * 40)
    driver = browser(size=(width, 900))
    driver.get(daemon.url)
    wait_for_text(driver, "peer-state", "Down")
    assert driver.execute_script("return document.documentElement.scrollWidth") <= width


def test_page_asks_nobody_but_its_daemon(statusd, browser):
    daemon = statusd()
    driver = browser()
    driver.get(daemon.url)
    wait_for_text(driver, "link", "live")
    names = driver.execute_script("return performance.getEntriesByType('resource').map((entry) => entry.name)")
    assert {name for name in names if not name.startswith("data:")} == {daemon.url + "status.json"}


def test_page_shows_the_network_and_marks_what_changes(statusd, namespace, browser, relay, artifacts):
    namespace.batch([
        "addr add 203.0.113.5/32 dev v0", "link add idle type veth peer name spare",
        "route add default via 192.0.2.254", "route add 198.18.0.0/15 via 192.0.2.2 proto static",
        "route add blackhole 10.0.0.0/8 table 100",
        "neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 dev v0", "neigh add 192.0.2.3 lladdr 02:00:00:00:00:03 dev v0",
    ])
    daemon = statusd(namespace=namespace, name="gateway")
    driver = browser()
    driver.get(relay(daemon))
    wait_for(lambda: rows(driver, "neighbours"), "the tables")
    wait_for(lambda: not any(row[-1] for row in rows(driver, "routes")), "no marks")
    v0 = next(row for row in rows(driver, "interfaces") if row[0] == "v0")
    assert v0 == ["v0", "192.0.2.1/24\n203.0.113.5/32", "02:00:00:00:00:10", "UP RUNNING BROADCAST MULTICAST", ""]
    assert rows(driver, "routes") == [
        ["default", "192.0.2.254", "v0", "main", "boot", "unicast", ""],
        ["192.0.2.0/24", "", "v0", "main", "kernel", "unicast", ""],
        ["198.18.0.0/15", "192.0.2.2", "v0", "main", "static", "unicast", ""],
        ["10.0.0.0/8", "", "", "100", "boot", "blackhole", ""],
    ]
    assert rows(driver, "neighbours")[0] == ["192.0.2.2", "v0", "02:00:00:00:00:02", "unknown", ""]
    assert [text(driver, f"{table}-total") for table in ("interfaces", "routes", "neighbours")] == ["5", "4", "2"]
    save_screenshots(driver, artifacts, "network")

    hold_at(driver, 5)
    with daemon.between_snapshots():
        namespace.batch([
            "addr add 198.51.100.7/32 dev v1", "route del default",
            "route replace 198.18.0.0/15 via 192.0.2.3 proto static",
            "route add 203.0.113.128/25 via 192.0.2.2", "neigh del 192.0.2.3 dev v0",
        ])
    wait_for(lambda: driver.execute_script("return document.body.dataset.held"), "the marks")
    tables = ("interfaces", "routes", "neighbours")
    marks = {row[0]: row[-1] for table in tables for row in rows(driver, table) if row[-1]}
    assert marks == {"v1": "changed: addresses", "default": "gone", "198.18.0.0/15": "changed: gateway",
                     "203.0.113.128/25": "new", "192.0.2.3": "gone"}
    assert text(driver, "news") == "interfaces: 1 changed; routes: 1 new, 1 changed, 1 gone; neighbours: 1 gone"
    save_screenshots(driver, artifacts, "network-changes")

    driver.refresh()
    wait_for(lambda: len(rows(driver, "routes")) == 4, "the tables")
    assert complaints(driver) == []


def test_rows_keep_their_elements_as_others_come_and_go(statusd, namespace, browser, relay):
    daemon = statusd(namespace=namespace)
    driver = browser()
    driver.get(relay(daemon))
    wait_for(lambda: rows(driver, "routes"), "the tables")
    driver.execute_script("document.querySelector('#routes tbody').lastChild.dataset.kept = 'yes'")
    kept = lambda: driver.execute_script("""
        return [...document.querySelectorAll("#routes tbody tr")]
            .map((row) => row.dataset.kept ?? row.cells[6].textContent)""")
    namespace.ip("route add 10.0.0.0/8 via 192.0.2.2")
    wait_for(lambda: kept() == ["", "yes"], "a row above, no longer new")
    namespace.ip("route del 10.0.0.0/8")
    wait_for(lambda: kept() == ["yes"], "the row to go")


def test_empty_and_large_tables_say_so(statusd, namespace, browser, relay, artifacts):
    daemon = statusd(namespace=namespace)
    driver = browser()
    driver.get(relay(daemon))
    wait_for_text(driver, "neighbours-total", "none")
    assert not driver.find_element("id", "neighbours").is_displayed()
    save_screenshots(driver, artifacts, "network-empty")
    namespace.batch(f"route add 10.0.{i // 256}.{i % 256}/32 via 192.0.2.2" for i in range(1500))
    wait_for_text(driver, "routes-total", "first 200 of 1,501")
    assert len(rows(driver, "routes")) == 200
    wait_for(lambda: not any(row[-1] for row in rows(driver, "routes")), "no marks")
    save_screenshots(driver, artifacts, "network-large")


@pytest.mark.parametrize("width", [320, 500, 800, 1280])
def test_page_with_long_rows_never_scrolls_sideways(statusd, namespace, browser, relay, width):
    name = "W" * 15
    namespace.batch([f"link add {name} type veth peer name plain", f"link set {name} up", "link set plain up",
                     f"addr add 222.222.222.222/32 dev {name}", f"route add 111.111.111.128/25 dev {name}",
                     f"neigh add 111.111.111.129 lladdr 02:00:00:00:00:02 dev {name}"])
    daemon = statusd(namespace=namespace)
    driver = browser(size=(width, 900))
    driver.get(relay(daemon))
    wait_for(lambda: rows(driver, "neighbours"), "the tables")
    assert driver.execute_script("return document.documentElement.scrollWidth") <= width
    assert driver.execute_script("""
        return [...document.querySelectorAll(".rows")].every((box) => box.scrollWidth <= box.clientWidth)""")


def shown(driver, element):
    return driver.find_element("id", element).is_displayed()


def text_of(driver, element):
    return driver.execute_script("return document.getElementById(arguments[0]).innerText", element)


def test_page_without_processes_and_command_shows_neither(statusd, browser):
    driver = browser()
    driver.get(statusd().url)
    wait_for_text(driver, "link", "live")
    assert not shown(driver, "processes") and not shown(driver, "command")
    assert not re.search(r"\bProcess(es)?\b|Command", driver.find_element("tag name", "body").text, re.I)


@pytest.fixture
def observed(statusd, tmp_path):
    """Starts a daemon with something to watch and to run, whose texts want to be markup."""

    def start(output="<b id=evil>bold</b> & \"more\"", **options):
        script, config = tmp_path / "<i>run", tmp_path / "statusd.ini"
        script.write_text(f"#!/bin/sh\ncat <<'EOF'\n{output}\nEOF\nexit 3\n")
        script.chmod(0o755)
        config.write_text(f"command = {script} <u>\nrestart_delay_ms = 3600000\n"
                          f"[watch]\nstatusd =\n<i>x</i>&amp; = /nonexistent/program\n{'W' * 15} =\n")
        return statusd(config=config, **options), f"{script} <u>", config

    return start


def test_page_shows_processes_and_the_command_as_text(observed, browser, artifacts):
    daemon, line, config = observed(name="gateway")
    driver = browser()
    driver.get(daemon.url)
    wait_for(lambda: len(rows(driver, "processes")) == 3 and rows(driver, "processes")[0][3] == "1", "the processes")
    wait_for(lambda: "bold" in text_of(driver, "command"), "the output")
    missing, other, itself = rows(driver, "processes")
    assert itself[0] == "statusd" and int(itself[1]) >= 1 and str(daemon.pid) in itself[2] and itself[3] == "0"
    assert missing[:2] == ["<i>x</i>&amp;", "0"] and missing[3] == "1"
    assert other[:2] == ["W" * 15, "0"]
    down = driver.execute_script("""
        return [...document.querySelectorAll("#processes tbody tr")].map((row) => row.classList.contains("down"))""")
    assert down == [True, True, False]
    command = text_of(driver, "command")
    assert line in command and re.search(r"\b3\b", command.replace(line, ""))
    took = daemon.status()["command"]["took_ms"]
    assert str(int(took)) in command
    output = driver.execute_script("return document.querySelector('#command pre').textContent")
    assert output.rstrip("\n") == "<b id=evil>bold</b> & \"more\""
    assert driver.execute_script("""
        return !document.querySelector("#evil, #processes i, #command u, #command b")""")
    save_screenshots(driver, artifacts, "processes")

    config.write_text("[watch]\nnobody =\n")
    daemon.process.send_signal(signal.SIGHUP)
    wait_for(lambda: not shown(driver, "command"), "the command to go")
    wait_for(lambda: [row[:2] for row in rows(driver, "processes")] == [["nobody", "0"]], "the other process")
    config.write_text("")
    daemon.process.send_signal(signal.SIGHUP)
    wait_for(lambda: not shown(driver, "processes"), "the processes to go")
    assert complaints(driver) == []


@pytest.mark.parametrize("width", [320, 500, 1280])
def test_page_with_long_output_never_scrolls_sideways(observed, browser, width):
    daemon, _, _ = observed(output=("word " * 100 + "\n") * 3 + "x" * 1000)
    driver = browser(size=(width, 900))
    driver.get(daemon.url)
    wait_for(lambda: "xxx" in text_of(driver, "command"), "the output")
    assert driver.execute_script("return document.documentElement.scrollWidth") <= width


# ------------------------------------------------------------------------------------------------------ machine


def feed(driver, status):
    """Gives the page this in place of the daemon's answers, and waits until it shows it."""
    marker = f"fed {id(status)} {len(json.dumps(status))}"
    driver.execute_script("""
        const [body] = arguments;
        window.fetch = async () => new Response(body);""", json.dumps({**status, "name": marker}))
    wait_for_text(driver, "name", marker)


def path(driver, selector):
    return driver.execute_script("return document.querySelector(arguments[0])?.getAttribute('d')", selector)


CHARTS = ["#busy-chart .bar", "#memory-chart .bar", "#traffic tbody .bar", "#traffic tbody .second",
          "#disks tbody .bar", "#disks tbody .second"]


def test_page_shows_the_machine_and_the_watchdog(statusd, browser, tmp_path, artifacts):
    config, device = tmp_path / "gateway.ini", tmp_path / "watchdog"
    config.write_text(f"name = gateway\nwatchdog = {device}\n")
    device.touch()
    daemon = statusd(config=config)
    driver = browser()
    driver.get(daemon.url)
    wait_for_text(driver, "name", "gateway")
    for chart in CHARTS:
        wait_for(lambda: path(driver, chart), f"the chart {chart}")
    wait_for(lambda: re.fullmatch(r"\d+", text(driver, "busy")), "the use of the processors")
    machine = daemon.status()["machine"]
    assert re.fullmatch(r"\d+\.\d\d(, \d+\.\d\d){2}", text(driver, "load"))
    assert abs(int(text(driver, "memory")) - machine["memory"]["used_percent"]) < 10
    assert text(driver, "memory-total").split()[0] == f"{machine['memory']['total_kib'] / 2 ** 20:.1f}"
    assert re.fullmatch(r"[\d.]+ [MG]iB", text(driver, "memory-available"))
    assert re.fullmatch(r"\d+ \w+( \d+ \w+)?", text(driver, "machine-uptime"))
    for table in ("traffic", "disks"):
        status = daemon.status()[table]
        assert {row[0] for row in rows(driver, table)} <= {row["name"] for row in status["rows"]}
        for row in rows(driver, table):
            assert all(re.fullmatch(r"(\d+|\d+\.\d) [kMGT]?B/s", cell) for cell in row[1:3]), row
            assert all(re.fullmatch(r"[\d,]+/s", cell) for cell in row[3:5]), row
            assert re.fullmatch(r"nothing|up to (\d+|\d+\.\d) [kMGT]?B/s", row[5]), row
    assert text_of(driver, "settings").split() == [
        "CRC-32", "of", "gateway.ini", f"{zlib.crc32(config.read_bytes()):08x}"]

    assert shown(driver, "watchdog") and text(driver, "watchdog-device") == str(device)
    before = int(text(driver, "pings-refused"))  # A file takes none.
    wait_for(lambda: int(text(driver, "pings-refused")) > before, "another ping")
    assert [text(driver, key) for key in ("pings", "pings-withheld")] == ["0", "0"]
    save_screenshots(driver, artifacts, "machine")

    config.write_text(f"watchdog = {device}\nname = new\n")
    daemon.process.send_signal(signal.SIGHUP)
    wait_for_text(driver, "settings-crc32", f"{zlib.crc32(config.read_bytes()):08x}")
    assert complaints(driver) == []


def test_page_without_a_watchdog_and_a_settings_file_shows_neither(statusd, browser):
    driver = browser()
    driver.get(statusd().url)
    wait_for_text(driver, "link", "live")
    assert not shown(driver, "watchdog") and not shown(driver, "settings")
    assert not re.search("Watchdog|CRC", driver.find_element("tag name", "body").text, re.I)


def test_traffic_is_seen_as_it_flows(statusd, namespace, browser, relay):
    namespace.ip("neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 dev v0 nud permanent")
    driver = browser()
    driver.get(relay(statusd(namespace=namespace)))
    cells = lambda name: next((row for row in rows(driver, "traffic") if row[0] == name), None)
    wait_for(lambda: cells("v0") and cells("v0")[1], "rates")
    assert text(driver, "traffic-total") == "3"
    sending = ("import socket\nflow = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)\n"
               "while True: flow.sendto(bytes(1000), ('192.0.2.2', 9))")
    flow = subprocess.Popen([*namespace.enter, "/usr/bin/python3", "-c", sending])
    try:
        fast = r"[\d.]+ [MG]B/s"
        wait_for(lambda: re.fullmatch(fast, cells("v0")[2]) and re.fullmatch(fast, cells("v1")[1]), "megabytes")
        assert not re.fullmatch(fast, cells("v0")[1]) and not re.fullmatch(fast, cells("v1")[2])
    finally:
        flow.kill()
        flow.wait()
    wait_for(lambda: cells("v0")[2] == "0 B/s" and cells("v0")[4] == "0/s", "the flow to end")


RATES = [(None, ""), (0, "0 B/s"), (7, "7 B/s"), (999, "999 B/s"), (1000, "1.0 kB/s"), (99940, "99.9 kB/s"),
         (123456, "123 kB/s"), (1e6, "1.0 MB/s"), (5.67e9, "5.7 GB/s"), (2e13, "20.0 TB/s"), (1.8e19, "18000000 TB/s")]


@pytest.fixture
def fed(statusd, browser):
    """A page, and an answer to change and feed it with."""
    daemon = statusd()
    status = wait_for(lambda: (status := daemon.status())["traffic"]["rows"] and status, "a sample")
    driver = browser()
    driver.get(daemon.url)
    wait_for_text(driver, "link", "live")
    return driver, status


def test_rates_are_in_units_and_what_is_unknown_is_a_dash(fed):
    driver, status = fed
    status["traffic"] = {"total": 1234, "rows": [
        {"name": f"<i>{i}</i>", "rx_bytes": rate, "tx_bytes": rate, "rx_packets": rate, "tx_packets": None,
         "history": {"rx_bytes": [rate], "tx_bytes": [rate]}} for i, (rate, _) in enumerate(RATES)]}
    status["disks"] = {"total": 0, "rows": []}
    feed(driver, status)
    packets = ["" if rate is None else f"{int(rate):,}/s" for rate, _ in RATES]
    assert rows(driver, "traffic") == [
        [f"<i>{i}</i>", wanted, wanted, packets[i], "", f"up to {wanted}" if rate else "nothing"]
        for i, (rate, wanted) in enumerate(RATES)]
    assert text(driver, "traffic-total") == f"{len(RATES)} of 1,234, by bytes in all"
    assert text(driver, "disks-total") == "none" and not shown(driver, "disks")
    dash = driver.execute_script("""
        const cell = document.querySelector("#traffic tbody td:nth-child(2)");
        return getComputedStyle(cell, "::before").content;""")
    assert dash == '"–"'
    assert driver.execute_script("return !document.querySelector('#traffic tbody i')")


def test_charts_are_drawn_to_scale_with_gaps_where_nothing_is_known(fed):
    driver, status = fed
    status["machine"]["history"] = {"busy_percent": [None, 50, 100], "memory_percent": [0] * 60}
    status["traffic"]["rows"] = [{**status["traffic"]["rows"][0], "history": {
        "rx_bytes": [None, None, 1000, 500], "tx_bytes": [2000, None, 1000, 2000]}}]
    feed(driver, status)
    # The last of 60 places is the newest sample; the highest value leaves 4 of 100 free.
    assert path(driver, "#busy-chart .bar") == "M580 100V52h8V100zM590 100V4h8V100z"
    assert path(driver, "#memory-chart .bar").startswith("M0 100V100h8V100z")
    assert path(driver, "#memory-chart .bar").count("M") == 60
    assert path(driver, "#traffic tbody .bar") == "M580 100V52h8V100zM590 100V76h8V100z"
    assert path(driver, "#traffic tbody .second") == "M560 4h10M580 52h10V4h10"
    label = driver.execute_script("return document.querySelector('#traffic tbody svg').getAttribute('aria-label')")
    assert label == f"{status['traffic']['rows'][0]['name']}: up to 2.0 kB/s in the last minute"


def test_machine_of_which_nothing_is_known_is_shown_as_dashes(fed):
    driver, status = fed
    status["machine"] = {"uptime_s": None, "load": None, "busy_percent": None, "memory": None,
                         "history": {"busy_percent": [None], "memory_percent": [None]}}
    feed(driver, status)
    assert [text(driver, key) for key in ("busy", "load", "machine-uptime", "memory", "memory-available",
                                          "memory-total")] == ["–"] * 6
    assert not path(driver, "#busy-chart .bar") and text(driver, "link") == "live"


def test_old_kernel_that_does_not_estimate_what_is_available_shows_what_is_free(fed):
    driver, status = fed
    status["machine"]["memory"] = {"total_kib": 1024, "free_kib": 512, "available_kib": 0, "used_percent": 50.0}
    feed(driver, status)
    assert [text(driver, key) for key in ("memory", "memory-available", "memory-total")] == ["50", "512 KiB", "1.0 MiB"]


@pytest.mark.parametrize("width", [320, 400, 500, 800, 1280])
def test_page_with_long_device_and_rates_never_scrolls_sideways(fed, width):
    driver, status = fed
    look(driver, "light", (width, 900))
    rates = {"rx_bytes": 999e9, "tx_bytes": 999e9, "rx_packets": 123456789, "tx_packets": 123456789}
    status["traffic"]["rows"] = [{"name": "W" * 15, **rates, "history": {"rx_bytes": [1] * 60, "tx_bytes": [2] * 60}}]
    status["watchdog"] = {"device": "/dev/" + "long" * 30, "pings": 10 ** 7, "refused": 10 ** 7, "withheld": 10 ** 7}
    status["settings"] = {"file": "/etc/" + "long" * 30 + ".ini", "crc32": "0123abcd"}
    feed(driver, status)
    assert driver.execute_script("return document.documentElement.scrollWidth") <= width
    assert driver.execute_script("""
        return [...document.querySelectorAll(".rows")].every((box) => box.scrollWidth <= box.clientWidth)""")
