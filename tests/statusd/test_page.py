"""The page of statusd in a browser."""
import contextlib
import os
import shutil
import signal

import pytest
from conftest import PATIENCE, wait_for

CHROMIUM = "/usr/bin/chromium"
DRIVER = "/usr/bin/chromedriver"
SIZES = {"wide": (1280, 900), "narrow": (500, 1000)}


def need(there, what):
    """A browser may be missing on a laptop, but not where it counts."""
    if not there:
        (pytest.fail if os.environ.get("CI") else pytest.skip)(f"{what} is not installed")


@pytest.fixture(scope="module")
def artifacts():
    path = os.environ["KIV_ARTIFACTS"]
    os.makedirs(path, exist_ok=True)
    return path


@pytest.fixture
def browser(tmp_path):
    need(os.path.exists(CHROMIUM) and os.path.exists(DRIVER), "chromium")
    try:
        from selenium import webdriver
        from selenium.webdriver.chrome.service import Service
    except ImportError:
        need(False, "selenium")
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
            assert driver.save_screenshot(os.path.join(artifacts, f"statusd-{name}-{size}-{scheme}.png"))
    look(driver, "light", SIZES["wide"])


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
