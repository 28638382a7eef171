"""What the tests of netctl share: private namespaces, netctl and iproute2 in them, and what strace sees of netctl."""
import contextlib
import json
import os
import re
import shutil
import socket
import subprocess
import time

import pytest
from namespaces import PATIENCE, Namespace, need

SETTLING_FLAGS = {"LOWER_UP", "NO-CARRIER", "M-DOWN", "RUNNING"}
SANITIZER_STATUS = 99  # unlike any of netctl's own


def environment(**options):
    text = ":".join(f"{key}={value}" for key, value in {"exitcode": SANITIZER_STATUS, **options}.items())
    return {**os.environ, "ASAN_OPTIONS": text, "UBSAN_OPTIONS": text, "LSAN_OPTIONS": text}


class Outcome:
    def __init__(self, process):
        self.status = process.returncode
        self.output = process.stdout
        self.error = os.fsdecode(process.stderr)

    def json(self):
        return json.loads(self.output.decode("utf-8"))

    def lines(self):
        return self.output.decode("utf-8", "surrogateescape").splitlines()


class Space(Namespace):
    """Namespaces with ip and netctl in them."""

    def ip(self, *words, **options):
        """Runs ip; returns its records, if it prints any."""
        process = self.run("ip", "-j", "-d", *words, **options)
        assert process.returncode == 0, (words, process.stderr)
        # ip writes control bytes of names as they are.
        return json.loads(os.fsdecode(process.stdout), strict=False) if process.stdout.strip() else []

    def link(self, name):
        """Returns the record of an interface, or None."""
        return next((link for link in self.ip("link", "show") if link.get("ifname") == name), None)

    def flags(self, name):
        return set(self.link(name)["flags"]) - SETTLING_FLAGS

    def state(self):
        """Returns all that is configured here, and nothing that settles by itself."""
        links = [(link["ifname"], link["mtu"], link["address"], link.get("master"), set(link["flags"]) - SETTLING_FLAGS)
                 for link in self.ip("link", "show")]
        addresses = [(entry["label"], entry["local"], entry["prefixlen"])
                     for link in self.ip("-4", "addr") for entry in link["addr_info"]]
        return links, addresses, [(route["dst"], route.get("gateway")) for route in self.ip("-4", "route")]

    def wait_until_running(self, *names):
        """Waits for the kernel to find out that these interfaces have a carrier."""
        end = time.monotonic() + PATIENCE
        while any(self.link(name)["operstate"] != "UP" for name in names):
            assert time.monotonic() < end, f"{names} do not come up"
            time.sleep(0.02)

    def knows(self, kind, *more):
        """Tells whether the kernel has this link kind."""
        words = ["ip", "link", "add", "probe", *more[:2], "type", kind, *more[2:]]
        return self.run(*words).returncode == 0 and self.run("ip", "link", "del", "probe").returncode == 0

    def netctl(self, *words, before=(), **options):
        """Runs netctl, which says nothing on stderr or, when it fails, one line."""
        options.setdefault("env", environment())
        outcome = Outcome(self.run(*before, os.environ["NETCTL"], *words, **options))
        assert outcome.status in (0, 1, 2), outcome.error
        if outcome.status == 0:
            assert outcome.error == ""
        else:
            assert re.fullmatch(r"netctl: [^\n]+\n", outcome.error)
        return outcome

    def do(self, *words):
        """Runs netctl, which must succeed."""
        outcome = self.netctl(*words)
        assert outcome.status == 0, outcome.error
        return outcome

    def fail(self, *words, saying=""):
        """Runs netctl, which must fail, and name what it was to do and why it did not."""
        outcome = self.netctl(*words)
        assert outcome.status == 1 and " failed: " in outcome.error
        assert all(str(word) in outcome.error for word in words)
        assert saying in outcome.error
        return outcome


@pytest.fixture
def spaces():
    """Makes namespaces that end with the test."""
    host_name = socket.gethostname()
    with contextlib.ExitStack() as stack:

        def make():
            space = Space()
            stack.callback(space.close)
            return space

        yield make
    assert socket.gethostname() == host_name


@pytest.fixture
def other(spaces):
    """A namespace to move interfaces to: an ordinary user has each in a user namespace that the others cannot enter."""
    need(os.geteuid() == 0, "moving interfaces needs root")
    return spaces()


@pytest.fixture
def space(spaces):
    """A namespace with the pair of interfaces e0 and e1, both up, e0 with 10.0.0.1/24, the bridge br0, and lo, down."""
    made = spaces()
    made.ip("link", "add", "e0", "type", "veth", "peer", "name", "e1")
    made.ip("link", "add", "br0", "type", "bridge")
    made.ip("link", "set", "e0", "up")
    made.ip("link", "set", "e1", "up")
    made.ip("addr", "add", "10.0.0.1/24", "dev", "e0")
    made.wait_until_running("e0", "e1")
    return made


@pytest.fixture(scope="session")
def strace():
    """The words that run a command under strace and write what it does to a file named next."""
    words = ["strace", "-v", "-s", "4096"]
    need(shutil.which("strace"), "no strace")
    probe = subprocess.run([*words, "-o", "/dev/null", "true"], capture_output=True, timeout=PATIENCE)
    need(probe.returncode == 0, f"strace does not work here: {os.fsdecode(probe.stderr)}")
    return words
