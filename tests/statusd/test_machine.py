"""The machine's figures as statusd shows them; /proc, free(1), ip(8) and lsblk(8) say what they are."""
import contextlib
import json
import mmap
import os
import signal
import subprocess
import time
import zlib

import pytest
from conftest import PATIENCE, Daemon, wait_for

KEPT = 60  # samples
SHOWN = 16  # rows
NAMES = {"traffic": ["rx_bytes", "tx_bytes", "rx_packets", "tx_packets"],
         "disks": ["read_bytes", "written_bytes", "reads", "writes"]}


@pytest.fixture(scope="module", autouse=True)
def veteran():
    """A daemon that has been running since the first test."""
    daemon = Daemon()
    yield daemon
    daemon.end()


def samples(status):
    return len(status["machine"]["history"]["busy_percent"])


def next_sample(daemon):
    """Waits for a sample that was begun after this call, of a daemon that has taken few so far."""
    before = samples(daemon.status())
    return wait_for(lambda: samples(status := daemon.status()) > before + 1 and status, "two samples")


def row(status, table, name):
    return next((row for row in status[table]["rows"] if row["name"] == name), None)


class Watch:
    """Adds up the rates of some rows from now on, times the interval between the samples."""

    def __init__(self, daemon, table, *names):
        self.daemon, self.table, self.names = daemon, table, names
        self.first, self.at = samples(next_sample(daemon)), time.monotonic()
        self.busiest = {}  # The rows when they moved most bytes.

    def look(self):
        status = self.daemon.status()
        volume = lambda row: sum(row[key] or 0 for key in NAMES[self.table][:2])
        for name in self.names:
            self.busiest[name] = max(row(status, self.table, name), self.busiest.get(name), key=lambda row:
                                     volume(row) if row else -1)
        return status

    def _sum(self, status, name, key):
        new = samples(status) - self.first
        return sum(value or 0 for value in row(status, self.table, name)["history"][key][-new:]) if new > 0 else 0

    def until(self, name, key, enough):
        """Waits for that much, and a moment for what is still on its way. Returns the bytes of each row."""
        wait_for(lambda: self._sum(self.look(), name, key) > enough, f"enough {key} at {name}")
        end = samples(self.look()) + 2
        status = wait_for(lambda: samples(status := self.look()) >= end and status, "two more samples")
        interval = (time.monotonic() - self.at) / (samples(status) - self.first)
        return {name: {key: interval * self._sum(status, name, key) for key in NAMES[self.table][:2]}
                for name in self.names}


# ------------------------------------------------------------------------------------------------------ figures


def read_numbers(path):
    with open(path) as file:
        return [float(word) for word in file.readline().split() if word.replace(".", "").isdigit()]


def test_uptime_is_that_of_the_machine(veteran):
    before = read_numbers("/proc/uptime")[0]
    shown = next_sample(veteran)["machine"]["uptime_s"]
    assert isinstance(shown, int) and before - 1 < shown < read_numbers("/proc/uptime")[0] + 1


def test_load_is_that_of_the_machine(statusd):
    daemon = statusd()
    wait_for(lambda: daemon.status()["machine"]["load"] == read_numbers("/proc/loadavg")[:3], "the same load")


def free():
    lines = subprocess.run(["free", "-k"], capture_output=True, text=True, check=True).stdout.splitlines()
    return dict(zip(lines[0].split(), map(int, lines[1].split()[1:])))


def test_memory_is_what_free_says(statusd):
    daemon = statusd()

    def close():
        memory, expected = daemon.status()["machine"]["memory"], free()
        assert memory is None or memory["total_kib"] == expected["total"]
        return memory and all(abs(memory[f"{key}_kib"] - expected[key]) < expected["total"] / 100
                              for key in ("free", "available")) and memory

    memory = wait_for(close, "the same figures within a hundredth")
    assert set(memory) == {"total_kib", "free_kib", "available_kib", "used_percent"}
    used = 100 - 100 * memory["available_kib"] / memory["total_kib"]
    assert abs(memory["used_percent"] - used) < 0.06


def test_processors_are_as_busy_as_the_kernel_counts(statusd):
    """While one of them, at least, has something to do."""

    def times():
        numbers = read_numbers("/proc/stat")[:8]
        return sum(numbers), numbers[3] + numbers[4]

    daemon = statusd()
    burning = subprocess.Popen(["sh", "-c", "while :; do :; done"])
    try:
        last = [samples(next_sample(daemon)), *times()]

        def agrees():
            status = daemon.status()
            if samples(status) == last[0]:
                return False
            total, idle = times()
            busy = 100 - 100 * (idle - last[2]) / max(1, total - last[1])
            last[:] = [samples(status), total, idle]
            shown = status["machine"]["busy_percent"]
            return shown > 80 / os.cpu_count() and abs(shown - busy) < 10

        wait_for(agrees, "the processors to be as busy")
    finally:
        burning.kill()
        burning.wait()
    history = next_sample(daemon)["machine"]["history"]["busy_percent"]
    assert all(0 <= value <= 100 for value in history if value is not None)
    assert history[0] is None  # There is nothing before the first sample.


def test_counters_of_the_processors_that_go_backwards_say_nothing(statusd, namespace, tmp_path):
    """The library does not hide what comes of them: shares below 0 and above 100."""
    stat = tmp_path / "stat"
    stat.write_text("cpu  100 0 0 100 50 0 0 0\n")
    bind = ["sh", "-c", 'mount --bind "$0" /proc/stat && exec "$@"', stat]
    daemon = statusd(namespace=namespace, prefix=bind)
    next_sample(daemon)

    def after(line):
        stat.write_text(line)
        return next_sample(daemon)["machine"]["history"]["busy_percent"]

    assert 25.0 in after("cpu  125 0 0 175 50 0 0 0\n")
    assert 200.0 not in (history := after("cpu  145 0 0 175 40 0 0 0\n")) and history[-1] is None
    assert 60.0 in after("cpu  175 0 0 195 40 0 0 0\n")


def test_histories_grow_by_one_and_end_with_what_is_shown(statusd):
    daemon = statusd()
    first = next_sample(daemon)
    then = wait_for(lambda: samples(status := daemon.status()) > samples(first) and status, "a sample")
    for key, shown in (("busy_percent", lambda machine: machine["busy_percent"]),
                       ("memory_percent", lambda machine: machine["memory"]["used_percent"])):
        earlier, later = first["machine"]["history"][key], then["machine"]["history"][key]
        assert later[:len(earlier)] == earlier and len(later) == len(earlier) + 1
        assert later[-1] == shown(then["machine"])
        assert len(later) == samples(then)


# ------------------------------------------------------------------------------------------------------ traffic


DATAGRAM = 1200
HEADERS = 14 + 20 + 8  # Ethernet, IPv4, UDP
SEND = """
import socket, sys, time
flow = socket.socket(socket.AF_INET, socket.SOCK_DGRAM)
size, number = map(int, sys.argv[2:])
for i in range(number):
    flow.sendto(bytes(size), (sys.argv[1], 9))
    if i % 100 == 99:
        time.sleep(0.01)
"""


@contextlib.contextmanager
def flood(namespace, address, number, size=DATAGRAM):
    """Sends datagrams while the test does something, and to the end."""
    sender = subprocess.Popen([*namespace.enter, "/usr/bin/python3", "-c", SEND, address, str(size), str(number)])
    try:
        yield
    finally:
        status = sender.wait(PATIENCE)
    assert status == 0


@pytest.fixture
def cable(namespace):
    """The end v1 belongs to a neighbour: what v0 sends there arrives, and nobody answers."""
    namespace.ip("neigh add 192.0.2.2 lladdr 02:00:00:00:00:02 dev v0 nud permanent")
    return namespace


def totals(namespace, name):
    stats = namespace.see(f"-s link show {name}")[0]["stats64"]
    return [stats[way][what] for what in ("bytes", "packets") for way in ("rx", "tx")]


def test_rates_add_up_to_what_was_sent(statusd, cable):
    number = 20000
    size = number * (DATAGRAM + HEADERS)
    daemon = statusd(namespace=cable)
    watch = Watch(daemon, "traffic", "v0", "v1")
    before = {name: totals(cable, name) for name in ("v0", "v1")}
    with flood(cable, "192.0.2.2", number):
        sums = watch.until("v0", "tx_bytes", size / 2)
    moved = {name: [now - then for now, then in zip(totals(cable, name), before[name])] for name in before}
    assert moved["v0"][1] >= size and moved["v1"][0] >= size  # Or nothing below means anything.
    for name, way, other in (("v0", "tx", "rx"), ("v1", "rx", "tx")):
        assert sums[name][f"{way}_bytes"] == pytest.approx(size, rel=0.25)
        assert sums[name][f"{other}_bytes"] < size / 20
        busiest = watch.busiest[name]
        assert busiest[f"{way}_packets"] * (DATAGRAM + HEADERS) == pytest.approx(busiest[f"{way}_bytes"], rel=0.05)
        assert busiest[f"{other}_packets"] < busiest[f"{way}_packets"] / 20


def test_loopback_receives_what_it_sends(statusd, namespace):
    daemon = statusd(namespace=namespace)
    watch = Watch(daemon, "traffic", "lo")
    before = totals(namespace, "lo")
    with flood(namespace, "127.0.0.1", 4000, size=20000):
        sums = watch.until("lo", "rx_bytes", 40e6)
    # This includes what the test asks the daemon, and its answers.
    received, sent, *_ = (now - then for now, then in zip(totals(namespace, "lo"), before))
    assert received == sent > 80e6
    assert sums["lo"]["rx_bytes"] == pytest.approx(received, rel=0.25)
    assert sums["lo"]["tx_bytes"] == pytest.approx(sent, rel=0.25)


def test_first_sample_has_no_rates_and_later_ones_end_the_histories(statusd, cable):
    daemon = statusd(namespace=cable)
    status = wait_for(lambda: (status := daemon.status())["traffic"]["total"] and status, "a sample")
    if samples(status) == 1:  # A slow test sees a later one first.
        assert [status["traffic"]["rows"][0][key] for key in NAMES["traffic"]] == [None] * 4
    status = next_sample(daemon)
    assert {row["name"] for row in status["traffic"]["rows"]} == {link["ifname"] for link in cable.see("link show")}
    for table, names in NAMES.items():
        for row in status[table]["rows"]:
            assert set(row) == {"name", *names, "history"} and set(row["history"]) == set(names[:2])
            for key in names[:2]:
                history = row["history"][key]
                assert len(history) <= samples(status) and history[0] is None and history[-1] == row[key]
                assert all(value >= 0 for value in history if value is not None)


def test_interface_that_is_made_anew_has_no_rate_at_first_and_never_a_negative_one(statusd, cable):
    daemon = statusd(namespace=cable)
    with flood(cable, "192.0.2.2", 1000):
        pass
    next_sample(daemon)
    with daemon.between_snapshots():
        cable.batch(["link del v0", "link add v0 type veth peer name v1"])
    history = lambda: row(daemon.status(), "traffic", "v0")["history"]["tx_bytes"]
    wait_for(lambda: len(values := history()) > 2 and None in values[1:-1], "an unknown rate, and one behind it")
    values = history()
    assert values.count(None) == 2 and all(value >= 0 for value in values if value is not None)
    cable.ip("link del v0")
    wait_for(lambda: row(daemon.status(), "traffic", "v0") is None, "the row to go")


def test_interface_that_is_new_begins_a_history_of_its_own(statusd, cable):
    daemon = statusd(namespace=cable)
    next_sample(daemon)
    cable.ip("link add extra type veth peer name more")
    found = wait_for(lambda: row(daemon.status(), "traffic", "extra"), "the row")
    assert found["history"]["rx_bytes"][0] is None
    status = next_sample(daemon)
    assert len(row(status, "traffic", "extra")["history"]["rx_bytes"]) < samples(status)
    assert row(status, "traffic", "extra")["rx_bytes"] == 0


def test_of_many_interfaces_the_busiest_16_are_shown(statusd, cable):
    odd = [os.fsdecode(b"\xff" * 12) + f"{i:03}" for i in range(100)]
    cable.batch(f"link add {odd[i]} type veth peer name {odd[i + 1]}" for i in range(0, len(odd), 2))
    cable.batch(f"link set {name} up" for name in odd[:30])
    with flood(cable, "192.0.2.2", 1000):
        pass
    daemon = statusd(namespace=cable)
    wait_for(lambda: daemon.status()["traffic"]["total"], "a sample")
    reply = daemon.ask("/status.json")
    traffic = json.loads(reply.body)["traffic"]
    assert traffic["total"] == len(odd) + 3 and len(traffic["rows"]) == SHOWN
    names = [row["name"] for row in traffic["rows"]]
    assert {"v0", "v1", "lo"} <= set(names) and len(set(names)) == SHOWN
    assert len(reply.body) < 256 * 1024


def test_names_that_are_not_utf8_still_give_valid_json(statusd, namespace):
    namespace.ip(os.fsdecode(b"link add a\xff\"\\<b> type veth peer name plain"))
    daemon = statusd(namespace=namespace)
    wait_for(lambda: row(daemon.status(), "traffic", "a\ufffd\"\\<b>"), "the row")


# ------------------------------------------------------------------------------------------------------ disks


def used_disks():
    """Returns the bytes read and written of the whole disks that have done anything."""
    used = {}
    with open("/proc/diskstats") as stats:
        for words in map(str.split, stats):
            if os.path.exists(f"/sys/block/{words[2].replace('/', '!')}") and (words[3], words[7]) != ("0", "0"):
                used[words[2]] = (512 * int(words[5]), 512 * int(words[9]))
    return used


def test_disks_are_the_busiest_that_have_done_anything(statusd):
    daemon = statusd()

    def agrees():
        shown, used = daemon.status()["disks"], used_disks()
        names = [row["name"] for row in shown["rows"]]
        busiest = sorted((sum(counters) for counters in used.values()), reverse=True)[:SHOWN]
        return shown["total"] == len(used) and sorted(
            (sum(used[name]) for name in names if name in used), reverse=True) == busiest and names

    # Others may use disks meanwhile; for a moment they do not.
    names = wait_for(agrees, "the same disks")
    listed = subprocess.run(["lsblk", "--all", "--nodeps", "--json", "--output", "NAME"], capture_output=True,
                            text=True, check=True).stdout
    assert set(names) <= {device["name"] for device in json.loads(listed)["blockdevices"]}


def disk_below(path):
    """Returns the name of the whole disk that holds this file, or None."""
    device = os.stat(path).st_dev
    found = os.path.realpath(f"/sys/dev/block/{os.major(device)}:{os.minor(device)}")
    if os.path.exists(os.path.join(found, "partition")):
        found = os.path.dirname(found)
    name = os.path.basename(found)
    return name if os.path.exists(found) and name in used_disks() else None


def test_rates_of_a_disk_add_up_to_what_was_written_and_read(statusd, tmp_path):
    path = tmp_path / "data"
    path.touch()
    disk, size = disk_below(path), 64 << 20
    daemon = statusd()
    if disk is None or row(next_sample(daemon), "disks", disk) is None:
        pytest.skip("no disk, or none of the busiest, is below the folder of this test")
    before = used_disks()[disk]
    watch = Watch(daemon, "disks", disk)
    for flags, key, step in ((os.O_WRONLY | os.O_SYNC, "written_bytes", 1 << 20), (os.O_RDONLY, "read_bytes", 1 << 14)):
        block = mmap.mmap(-1, step)  # Aligned, as the disk wants it.
        fd = os.open(path, flags | os.O_DIRECT)
        try:
            for _ in range(size // step):
                assert (os.readv(fd, [block]) if flags == os.O_RDONLY else os.write(fd, block)) == step
        finally:
            os.close(fd)
        watch.busiest.clear()
        sums = watch.until(disk, key, size / 2)[disk]
    assert watch.busiest[disk]["reads"] > 500  # Of 4096 within a few samples.
    moved = dict(zip(NAMES["disks"], (now - then for now, then in zip(used_disks()[disk], before))))
    for key in ("read_bytes", "written_bytes"):
        assert moved[key] >= size  # Or nothing below means anything.
        # Others may use the disk, too.
        assert 0.75 * size < sums[key] < 1.25 * moved[key] + size / 4


# ------------------------------------------------------------------------------------------------------ settings file


def crc32(data):
    return f"{zlib.crc32(data):08x}"


def test_crc32_is_that_of_the_settings_file_as_last_read(statusd, tmp_path):
    config = tmp_path / "statusd.ini"
    shown = lambda: daemon.status()["settings"]
    texts = [b"name = first\r\n", b"# \xff\x01 no newline", b"", b"#" * 65535]
    config.write_bytes(texts[0])
    daemon = statusd(config=config)
    assert shown() == {"file": str(config), "crc32": crc32(texts[0])}
    for text in texts[1:]:
        config.write_bytes(text)
        daemon.process.send_signal(signal.SIGHUP)
        wait_for(lambda: shown() == {"file": str(config), "crc32": crc32(text)}, f"the CRC-32 of {text[:20]}")
    config.write_bytes(b"peer = nonsense\n")
    daemon.process.send_signal(signal.SIGHUP)
    assert daemon.complaint().endswith("; the old settings stay\n")
    assert shown() == {"file": str(config), "crc32": crc32(texts[-1])}
    config.unlink()
    daemon.process.send_signal(signal.SIGHUP)
    assert daemon.complaint().endswith("; the old settings stay\n")
    assert shown()["crc32"] == crc32(texts[-1])


def test_crc32_has_8_digits(statusd, tmp_path):
    config = tmp_path / "statusd.ini"
    text = next(text for text in (b"# %d\n" % i for i in range(100000)) if crc32(text).startswith("00"))
    config.write_bytes(text)
    assert statusd(config=config, name="option").status()["settings"]["crc32"] == crc32(text)


def test_settings_without_a_file_are_null(veteran):
    assert veteran.status()["settings"] is None


# ------------------------------------------------------------------------------------------------------ a minute later


def test_histories_are_those_of_the_last_60_samples(veteran):
    """The last of the tests, so that most of the minute is over."""
    last = lambda: veteran.status()["machine"]["history"]
    wait_for(lambda: len(last()["busy_percent"]) == KEPT, "60 samples")

    def moved():
        earlier = last()
        time.sleep(0.3)
        later = last()
        return earlier["busy_percent"] != later["busy_percent"] and (earlier, later)

    for _ in range(2):
        earlier, later = wait_for(moved, "another sample")
        assert all(later[key][:-1] == earlier[key][1:] and len(later[key]) == KEPT for key in later)
        assert None not in later["busy_percent"][1:]
    lo = row(veteran.status(), "traffic", "lo")
    assert lo and {len(values) for values in lo["history"].values()} == {KEPT}
