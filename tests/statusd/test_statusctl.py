"""What statusd publishes in shared memory, and statusctl, which reads it."""
import concurrent.futures
import contextlib
import ctypes
import json
import os
import random
import re
import shutil
import signal
import struct
import subprocess
import threading
import time

import pytest
from conftest import published, shared_objects, statusctl, statusctl_command, wait_for
from namespaces import PATIENCE, Namespace, need

KEYS = {"name", "pid", "url", "uptime_s", "loop_passes", "timers_fired", "requests", "clients", "published", "age_ms",
        "peer", "processes", "command"}

libc = ctypes.CDLL(None, use_errno=True)
libc.sem_open.restype = ctypes.c_void_p
for function in ("sem_wait", "sem_trywait", "sem_post", "sem_close", "sem_getvalue"):
    getattr(libc, function).argtypes = [ctypes.c_void_p]
libc.sem_getvalue.argtypes = [ctypes.c_void_p, ctypes.POINTER(ctypes.c_int)]


class Semaphore:
    """The semaphore of this name, made with this count when there is none."""

    def __init__(self, share, count=1):
        self.handle = libc.sem_open(share.encode(), os.O_CREAT, ctypes.c_uint(0o600), ctypes.c_uint(count))
        assert self.handle

    def take(self):
        assert wait_for(lambda: libc.sem_trywait(self.handle) == 0, "the semaphore")

    def post(self):
        assert libc.sem_post(self.handle) == 0

    def count(self):
        value = ctypes.c_int(-1)
        assert libc.sem_getvalue(self.handle, ctypes.byref(value)) == 0
        return value.value

    def close(self):
        libc.sem_close(self.handle)


def memory(share):
    return "/dev/shm" + share


def script(tmp_path, text, name="script"):
    path = tmp_path / name
    path.write_text("#!/bin/sh\n" + text)
    path.chmod(0o755)
    return path


def lines_by_key(output):
    """Returns the plain output; what comes twice is a list."""
    found = {}
    for line in output.splitlines():
        key, _, value = line.partition(":")
        found.setdefault(key.strip(), []).append(value.strip())
    return {key: values[0] if len(values) == 1 else values for key, values in found.items()}


def publishing(statusd, share, **options):
    """Starts a daemon and waits for its first figures."""
    daemon = statusd(share=share, **options)
    wait_for(lambda: published(share), "the figures")
    return daemon


def newer(share, than):
    return wait_for(lambda: (figures := published(share)) and figures["published"] > than and figures, "newer figures")


def assert_complains(done, message):
    assert (done.returncode, done.stdout) == (1, "")
    assert re.fullmatch(rf"statusctl: {message}\n", done.stderr)


# ------------------------------------------------------------------------------------------------------ figures


def test_figures_are_those_of_the_page(share, statusd, tmp_path):
    names = "".join(f"nobody{i:02} =\n" for i in range(15))
    config = tmp_path / "statusd.ini"
    config.write_text(f"command = {script(tmp_path, 'echo one; echo two; exit 3')}\n[watch]\nstatusd =\n{names}")
    peer = statusd()
    daemon = statusd(share=share, name="N\u00e4me \"7\"", config=config, peer=peer.url, interval_ms=100)
    daemon.wait_for_peer("up")
    wait_for(lambda: (status := daemon.status())["command"]["exit_code"] == 3 and status["processes"][-1]["count"],
             "the command and the processes")
    first = daemon.status()
    newer(share, first["share"]["published"] + 1)
    figures = published(share)
    last = daemon.status()
    assert set(figures) == KEYS
    for key in ("uptime_s", "loop_passes", "timers_fired", "requests"):
        assert first[key] <= figures[key] <= last[key], key
    assert first["share"]["published"] < figures["published"] <= last["share"]["published"]
    assert 0 <= figures["age_ms"] < PATIENCE * 1000
    assert 0 <= figures["clients"] <= 2
    assert (figures["name"], figures["pid"], figures["url"]) == (first["name"], daemon.pid, daemon.url)
    assert set(figures["peer"]) == {"state", "http_status", "response_ms"}
    assert (figures["peer"]["state"], figures["peer"]["http_status"]) == ("up", 200)
    assert 0 < figures["peer"]["response_ms"] <= 1000
    assert figures["processes"][:-1] == [{"name": f"nobody{i:02}", "count": 0} for i in range(15)]
    assert figures["processes"][-1]["name"] == "statusd" and figures["processes"][-1]["count"] >= 1
    assert figures["command"] == {"runs": last["command"]["runs"], "exit_code": 3, "output": "one\ntwo\n"}


def test_figures_without_anything_to_watch(share, statusd):
    daemon = publishing(statusd, share)
    figures = published(share)
    assert figures["peer"] == {"state": "none", "http_status": None, "response_ms": None}
    assert figures["processes"] == [] and figures["command"] is None
    assert daemon.status()["share"]["name"] == share


def test_figures_of_a_peer_that_is_down_and_a_command_that_still_runs(share, statusd):
    daemon = statusd(share=share, command="sleep 3", peer="http://127.0.0.1:1/", interval_ms=50)
    figures = wait_for(lambda: (figures := published(share)) and figures["peer"]["state"] == "down" and figures,
                       "the peer's state")
    assert figures["peer"] == {"state": "down", "http_status": None, "response_ms": None}
    if daemon.status()["command"]["exit_code"] is None:
        assert figures["command"]["exit_code"] is None
    wait_for(lambda: published(share)["command"]["exit_code"] == 0, "the exit code")


def test_figures_come_every_second_and_block_nobody(share, statusd):
    daemon = publishing(statusd, share)
    begin, first = time.monotonic(), published(share)
    last = newer(share, first["published"] + 2)
    assert last["published"] - first["published"] <= 1 + time.monotonic() - begin
    assert time.monotonic() - begin > 1.9
    assert last["uptime_s"] > first["uptime_s"]
    assert daemon.status()["share"]["skipped"] == 0


def test_first_256_bytes_of_the_output_are_published(share, statusd, tmp_path):
    sizes = (0, 255, 256, 257, 100000)
    for size in sizes:
        program = script(tmp_path, f"head -c {size} /dev/zero | tr '\\0' y", f"script{size}")
        statusd(share=f"{share}-{size}", command=program)
    for size in sizes:
        figures = wait_for(lambda: (figures := published(f"{share}-{size}")) and figures["command"]["exit_code"] == 0
                           and figures, "the command's result")
        assert figures["command"]["output"] == "y" * min(size, 256)


@pytest.mark.parametrize("name", ["x" * 64, "\u00e4" * 32, os.fsdecode(b"a\xff\xc0b"), 'quo"te\\', "</script>"])
def test_name_survives(share, statusd, name):
    publishing(statusd, share, name=name)
    bytes_of_name = os.fsencode(name)
    expected = bytes_of_name.decode("utf-8", "replace")
    assert re.sub("\ufffd+", "\ufffd", published(share)["name"]) == re.sub("\ufffd+", "\ufffd", expected)


def test_long_url_of_the_page_is_whole(share, statusd):
    daemon = publishing(statusd, share, listen="127.100.100.100:0")
    assert published(share)["url"] == daemon.url


# ------------------------------------------------------------------------------------------------------ plain output


def test_plain_output_has_a_line_for_each_figure(share, statusd, tmp_path):
    config = tmp_path / "statusd.ini"
    shown = script(tmp_path, "echo first line; echo second; exit 3")
    config.write_text(f"command = {shown}\n[watch]\nstatusd =\nnobody =\n")
    daemon = statusd(share=share, name="device", config=config, peer="http://127.0.0.1:1/", interval_ms=50)
    wait_for(lambda: (figures := published(share)) and figures["command"]["exit_code"] == 3 and
             figures["processes"][1]["count"] and figures["peer"]["state"] == "down", "all figures")
    done = statusctl(share)
    assert (done.returncode, done.stderr) == (0, "")
    lines = lines_by_key(done.stdout)
    assert (lines["name"], lines["pid"], lines["page"]) == ("device", str(daemon.pid), daemon.url)
    assert re.match(r"\d+\b", lines["up"])
    assert re.fullmatch(r"\d+ ms ago", lines["published"])
    for key in ("loop passes", "timers", "requests", "clients"):
        assert re.match(r"\d+\b", lines[key]), key
    assert "down" in lines["peer"]
    assert re.fullmatch(r"[1-9]\d* running", lines["process statusd"])
    assert lines["process nobody"] == "0 running"
    assert re.search(r"^command: +exit 3 after [1-9]\d* runs?\b", done.stdout, re.M)
    assert "first line" in done.stdout and "second" not in done.stdout
    starts = [re.match(r"(?:name|pid|page|published|up|loop passes|timers|requests|clients|peer): +", line)
              for line in done.stdout.splitlines()]
    assert len({start.end() for start in starts if start}) == 1, "not aligned"


def test_figures_of_a_daemon_that_hangs_show_their_age(share, statusd):
    daemon = publishing(statusd, share)
    daemon.process.send_signal(signal.SIGSTOP)
    try:
        age = wait_for(lambda: (figures := published(share)) and figures["age_ms"] > 3000 and figures["age_ms"],
                       "old figures")
        shown = re.fullmatch(r"(\d+) ms ago", lines_by_key(statusctl(share).stdout)["published"])
        assert int(shown[1]) >= age
    finally:
        daemon.process.send_signal(signal.SIGCONT)


def test_command_that_was_cut_off_is_called_so(share, statusd):
    statusd(share=share, command="sleep 1000")
    wait_for(lambda: (figures := published(share)) and figures["command"]["exit_code"] == 124, "its end")
    assert lines_by_key(statusctl(share).stdout)["command"] == "exit 124 (cut off) after 1 run"


def test_plain_output_without_anything_to_watch(share, statusd):
    publishing(statusd, share)
    lines = lines_by_key(statusctl(share).stdout)
    assert not any(key.startswith(("process", "command")) for key in lines)
    assert "none" in lines["peer"]


def test_control_bytes_never_reach_the_terminal(share, statusd, tmp_path):
    noise = "".join(f"\\{byte:03o}" for byte in [*range(1, 10), *range(11, 32), 127, 0x9b, 0xc2, 0x9b, 0xff])
    statusd(share=share, command=script(tmp_path, f"printf 'begin{noise}end\\nmore'"))
    wait_for(lambda: (figures := published(share)) and figures["command"]["exit_code"] == 0, "the result")
    for options in ([], ["--json"]):
        process = subprocess.run(statusctl_command(*options, share), capture_output=True, timeout=PATIENCE)
        assert b"begin" in process.stdout and b"end" in process.stdout
        assert not re.search(rb"[\x00-\x09\x0b-\x1f\x7f]", process.stdout)
        if not options:  # An 8-bit terminal, and one that knows UTF-8, take these for the beginning of a sequence.
            assert not re.search("[\x80-\x9f]", process.stdout.decode("utf-8", "replace"))


def test_default_name(statusd, orphans):
    """In a namespace whose shared memory nobody else sees."""
    space = Namespace()
    try:
        assert space.run("mount", "-t", "tmpfs", "tmpfs", "/dev/shm").returncode == 0
        enter = space.enter
        assert_complains(statusctl(prefix=enter), "no statusd publishes at /statusd")
        assert space.run("ls", "-A", "/dev/shm").stdout == b""
        daemon = statusd(prefix=["nsenter", "--mount", "--root", "--wd", f"--target={space.pid}", "--"],
                         share="/statusd")
        wait_for(lambda: statusctl(prefix=enter).returncode == 0, "the figures")
        assert json.loads(statusctl("--json", prefix=enter).stdout)["url"] == daemon.url
        daemon.end()
        assert space.run("ls", "-A", "/dev/shm").stdout == b""
    finally:
        space.close()


# ------------------------------------------------------------------------------------------------------ usage


@pytest.mark.parametrize("options", [["--unknown"], ["/a", "/b"], ["-h"], ["--json=1"], [""], ["--json", "/a", "/b"],
                                     ["name"], ["/a/b"], ["/"], ["/" + "a" * 200], ["/sem.statusd"]])
def test_wrong_usage_gives_one_line_and_status_2(options):
    done = statusctl(*options)
    assert (done.returncode, done.stdout) == (2, "")
    assert re.fullmatch(r"statusctl: [^\n]+\n", done.stderr)


def test_help_and_version():
    assert "--json" in statusctl("--help").stdout
    assert re.fullmatch(r"statusctl \d+\.\d+\.\d+\n", statusctl("--version").stdout)
    assert statusctl("--help").returncode == statusctl("--version").returncode == 0


# ------------------------------------------------------------------------------------------------------ nothing to read


def test_daemon_that_ends_between_two_looks_is_nobody(share, statusd):
    """The semaphore that is made then, in place of the one that the daemon has just removed, must not stay."""
    need(shutil.which("strace"), "strace is not installed")
    daemon = publishing(statusd, share)
    before = set(os.listdir("/dev/shm"))
    slow = ["strace", "-o", "/dev/null", "-e", "inject=link:delay_enter=2s"]  # That is how sem_open gives the name.
    # The sanitizers' leak check cannot look into a process that is traced; the other tests have it.
    reader = subprocess.Popen([*slow, *statusctl_command(share)], stdout=subprocess.PIPE, stderr=subprocess.PIPE,
                              text=True, env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})
    wait_for(lambda: set(os.listdir("/dev/shm")) - before, "the semaphore without its name")
    daemon.end()
    output, errors = reader.communicate(timeout=PATIENCE)
    assert (reader.returncode, output, errors) == (1, "", f"statusctl: no statusd publishes at {share}\n")
    assert shared_objects(share) == []


@pytest.mark.parametrize("options", [[], ["--json"]])
def test_nobody_publishes(share, options):
    """Opening a semaphore makes one, which must not stay."""
    assert_complains(statusctl(*options, share), f"no statusd publishes at {share}")
    assert shared_objects(share) == []


def test_missing_semaphore_is_not_made(share, original):
    with forged(share, original):
        os.unlink("/dev/shm/sem." + share[1:])
        assert_complains(statusctl(share), f"no statusd publishes at {share}")
        assert not os.path.exists("/dev/shm/sem." + share[1:])


@pytest.mark.parametrize("kind", ["", "sem."], ids=["memory", "semaphore"])
def test_what_is_anothers_is_told(share, original, kind):
    """Root without its rights over files: any other user may not even be able to search the folder of the program."""
    need(os.geteuid() == 0, "not run by root")
    powerless = ["setpriv", "--bounding-set=-dac_override,-dac_read_search"]
    with forged(share, original):
        assert statusctl(share, prefix=powerless).returncode == 0
        os.chown(f"/dev/shm/{kind}{share[1:]}", 65534, 65534)
        assert_complains(statusctl(share, prefix=powerless), f"cannot open {share}: Permission denied")
        assert statusctl(share).returncode == 0


def test_longest_name(share, statusd):
    longest = share.ljust(200, "x")
    publishing(statusd, longest)
    assert published(longest)["published"] >= 1


@pytest.fixture
def original(share, statusd):
    """Returns what a daemon that goes on running has published: it stands under another name."""
    publishing(statusd, share + "-original", name="A" * 64)
    with open(memory(share) + "-original", "rb") as file:
        return file.read()


@contextlib.contextmanager
def forged(share, content, count=1):
    """Puts these bytes, and a semaphore with this count, there."""
    with open(memory(share), "wb") as file:
        file.write(content)
    semaphore = Semaphore(share, count)
    try:
        yield semaphore
    finally:
        semaphore.close()
        for name in (share[1:], "sem." + share[1:]):
            with contextlib.suppress(FileNotFoundError):
                os.unlink("/dev/shm/" + name)


def test_copy_of_what_a_daemon_published_is_read(share, original):
    """That is what the forgeries below differ from."""
    with forged(share, original) as semaphore:
        assert published(share)["name"] == "A" * 64
        assert semaphore.count() == 1


@pytest.mark.parametrize("forge", [
    lambda original: b"", lambda original: b"x", lambda original: original[:16], lambda original: original[:-1],
    lambda original: bytes(len(original)), lambda original: b"\xff" * len(original),
    lambda original: random.Random(1).randbytes(len(original)), lambda original: b"text\n" * 10000,
    lambda original: bytes([original[0] ^ 1]) + original[1:], lambda original: original[:4] + b"\xff" + original[5:],
    lambda original: original[:8] + b"\xff" + original[9:], lambda original: original + b"x",
], ids=["empty", "one byte", "head", "one byte short", "zeros", "ones", "noise", "text", "magic", "version", "size",
        "one byte long"])
def test_object_that_is_not_statusds_is_refused(share, original, forge):
    with forged(share, forge(original)) as semaphore:
        done = statusctl("--json", share)
        assert_complains(done, rf"[^\n]*{share}[^\n]*")
        assert semaphore.count() == 1, "the semaphore is held"


def test_directory_in_place_of_the_memory_is_refused(share):
    os.mkdir(memory(share))
    try:
        assert_complains(statusctl(share), rf"[^\n]*{share}[^\n]*")
    finally:
        os.rmdir(memory(share))
    with contextlib.suppress(FileNotFoundError):
        os.unlink("/dev/shm/sem." + share[1:])


@pytest.mark.parametrize("content", [b"", b"x", b"\xff" * 64], ids=["empty", "one byte", "64 bytes"])
def test_file_that_is_no_semaphore_is_refused(share, original, content):
    with forged(share, original):
        with open("/dev/shm/sem." + share[1:], "wb") as file:
            file.write(content)
        assert_complains(statusctl(share), rf"[^\n]*{share}[^\n]*")


@pytest.mark.parametrize("seed", range(4))
def test_hostile_bytes_are_read_without_harm(share, original, seed):
    """The head stays what it is: all that follows is numbers and strings, which may not even end."""
    generator = random.Random(seed)
    start = original.index(b"A" * 64)
    for round_number in range(12):
        noise = bytearray(original)
        if round_number == 0:
            noise[start:] = bytes([seed * 85]) * (len(noise) - start)
        elif round_number == 1:
            noise[start:] = generator.randbytes(len(noise) - start)
        else:
            for _ in range(generator.randrange(1, 300)):
                noise[generator.randrange(16, len(noise))] = generator.choice([0, 1, 27, 127, 128, 155, 255])
        with forged(share, bytes(noise)) as semaphore:
            for options in ([], ["--json"]):
                done = subprocess.run(statusctl_command(*options, share), capture_output=True, timeout=PATIENCE)
                assert done.returncode in (0, 1)
                assert re.fullmatch(b"" if done.returncode == 0 else rb"statusctl: [^\x00-\x1f\x7f]+\n", done.stderr)
                assert not re.search(rb"[\x00-\x09\x0b-\x1f\x7f]", done.stdout)
                if options and done.returncode == 0:
                    assert set(json.loads(done.stdout.decode())) == KEYS
            assert semaphore.count() == 1


@pytest.mark.parametrize("value", [0, 1, 0x7fffffff, 0x80000000, 0xffffffff])
def test_any_number_in_any_place_is_read_without_harm(share, original, value):
    """Counts beyond the tables, negative numbers, ids of no process."""
    for place in range(0, original.index(b"A" * 64), 4):
        with forged(share, original[:place] + struct.pack("<I", value) + original[place + 4:]):
            done = statusctl("--json", share)
        assert done.returncode in (0, 1) and done.stderr.count("\n") == done.returncode
        assert done.returncode == 1 or set(json.loads(done.stdout)) == KEYS


def test_publisher_that_was_killed_is_gone(share, statusd):
    daemon = publishing(statusd, share)
    os.kill(daemon.pid, signal.SIGKILL)
    daemon.process.communicate(timeout=PATIENCE)
    for options in ([], ["--json"]):
        done = statusctl(*options, share)
        assert_complains(done, re.escape(f"the statusd that published at {share} (process {daemon.pid}) is gone"))
    publishing(statusd, share)


# ------------------------------------------------------------------------------------------------------ the semaphore


def test_semaphore_that_nobody_posts_costs_statusctl_a_second(share, original):
    with forged(share, original, count=0) as semaphore:
        begin = time.monotonic()
        done = statusctl(share)
        assert time.monotonic() - begin > 0.9
        assert_complains(done, rf"[^\n]*{share}[^\n]*")
        assert semaphore.count() == 0
        semaphore.post()
        assert statusctl(share).returncode == 0


def test_statusctl_waits_for_a_reader_that_is_slow(share, original):
    with forged(share, original, count=0) as semaphore:
        with concurrent.futures.ThreadPoolExecutor() as pool:
            waiting = pool.submit(statusctl, share)
            time.sleep(0.3)
            semaphore.post()
            assert waiting.result().returncode == 0
        assert semaphore.count() == 1


def test_reader_that_dies_with_the_semaphore_costs_five_seconds(share, statusd):
    """The old objects keep what they have: nobody who maps them is hurt."""
    daemon = publishing(statusd, share)
    old = Semaphore(share)
    with open(memory(share), "rb") as mapped:
        size = os.fstat(mapped.fileno()).st_size
        held, begin = daemon.status(), time.monotonic()
        old.take()
        inode = os.stat(memory(share)).st_ino
        assert_complains(statusctl(share), rf"[^\n]*{share}[^\n]*")
        assert daemon.ask("/").status == 200
        wait_for(lambda: os.stat(memory(share)).st_ino != inode, "new objects")
        assert time.monotonic() - begin > 3.5
        figures = wait_for(lambda: published(share), "the figures")
        assert os.fstat(mapped.fileno()).st_size == size
    status = daemon.status()
    # The fifth failure is followed by a publication, in the new objects.
    assert status["share"]["skipped"] - held["share"]["skipped"] == 4
    assert figures["published"] > held["share"]["published"] and figures["pid"] == daemon.pid
    for name in (share[1:], "sem." + share[1:]):
        assert os.stat("/dev/shm/" + name).st_mode & 0o7777 == 0o600
    fresh = Semaphore(share)
    assert wait_for(lambda: fresh.count() == 1, "the semaphore to be free") and old.count() == 0
    fresh.close()
    old.close()


def test_short_hold_of_the_semaphore_skips_and_nothing_else(share, statusd):
    daemon = publishing(statusd, share)
    inode = os.stat(memory(share)).st_ino
    semaphore = Semaphore(share)
    for _ in range(2):  # The count starts again after each success.
        semaphore.take()
        before = daemon.status()["share"]
        wait_for(lambda: daemon.status()["share"]["skipped"] >= before["skipped"] + 3, "three skipped publications")
        assert daemon.status()["share"]["published"] == before["published"]
        semaphore.post()
        newer(share, before["published"])
    assert os.stat(memory(share)).st_ino == inode
    semaphore.close()


def test_restart_begins_with_objects_of_its_own(share, statusd):
    """Whatever stands there, and whoever holds it."""
    with forged(share, b"x" * 3, count=0) as semaphore:
        daemon = statusd(share=share)
        wait_for(lambda: published(share), "the figures")
        assert semaphore.count() == 0
        assert {os.stat(memory(name)).st_mode & 0o7777 for name in (share, "/sem." + share[1:])} == {0o600}
        daemon.end()
    assert shared_objects(share) == []


def test_publishing_ends_with_the_daemon_also_while_the_semaphore_is_held(share, statusd):
    daemon = publishing(statusd, share)
    semaphore = Semaphore(share)
    semaphore.take()
    daemon.end()
    semaphore.close()
    assert shared_objects(share) == []


def test_later_daemon_takes_the_name_over_from_one_that_runs(share, statusd):
    """The end of the former then takes nothing from the later."""
    former = publishing(statusd, share)
    later = statusd(share=share)
    wait_for(lambda: (figures := published(share)) and figures["pid"] == later.pid, "the later one's figures")
    former.end()
    newer(share, published(share)["published"])
    later.end()
    assert shared_objects(share) == []


# ------------------------------------------------------------------------------------------------------ settings


def test_sighup_moves_the_share_and_ends_it(share, statusd, tmp_path):
    config = tmp_path / "statusd.ini"
    config.write_text(f"share = {share}\n")
    daemon = statusd(config=config)
    first = wait_for(lambda: published(share), "the figures")
    config.write_text(f"share = {share}-other\n")
    daemon.process.send_signal(signal.SIGHUP)
    other = wait_for(lambda: published(share + "-other"), "the figures there")
    assert shared_objects(share) == sorted([f"{share[1:]}-other", f"sem.{share[1:]}-other"])
    assert first["pid"] == other["pid"] and daemon.status()["share"]["name"] == share + "-other"
    daemon.process.send_signal(signal.SIGHUP)  # Nothing changes: the objects stay.
    inode = os.stat(memory(share + "-other")).st_ino
    newer(share + "-other", other["published"] + 1)
    assert os.stat(memory(share + "-other")).st_ino == inode
    config.write_text("")
    daemon.process.send_signal(signal.SIGHUP)
    wait_for(lambda: daemon.status()["share"] is None, "no share")
    assert shared_objects(share) == []
    config.write_text(f"share = {share}\n")
    daemon.process.send_signal(signal.SIGHUP)
    wait_for(lambda: published(share), "the figures again")


@pytest.mark.parametrize("former", ["", "-former"], ids=["none before", "another before"])
def test_share_that_cannot_be_made_at_sighup_is_tried_again(share, statusd, tmp_path, former):
    config = tmp_path / "statusd.ini"
    config.write_text(f"share = {share + former if former else ''}\n")
    daemon = statusd(config=config)
    os.mkdir(memory(share))
    try:
        config.write_text(f"name = new\nshare = {share}\n")
        daemon.process.send_signal(signal.SIGHUP)
        assert re.fullmatch(rf"statusd: [^\n]*{share}[^\n]*\n", daemon.complaint())
        status = daemon.status()
        assert (status["name"], status["share"]["name"], status["share"]["published"]) == ("new", share, 0)
        assert shared_objects(share) == [share[1:]]
    finally:
        os.rmdir(memory(share))
    assert wait_for(lambda: published(share), "the figures")["pid"] == daemon.pid


# ------------------------------------------------------------------------------------------------------ many readers


def test_readers_while_daemons_come_and_go(share, statusd):
    """They get figures or a reason, and nobody leaves anything."""
    stopping = threading.Event()

    def read():
        while not stopping.is_set():
            done = statusctl("--json", share)
            assert done.returncode in (0, 1)
            assert re.fullmatch("" if done.returncode == 0 else rf"statusctl: [^\n]*{share}[^\n]*\n", done.stderr)

    with concurrent.futures.ThreadPoolExecutor() as pool:
        readers = [pool.submit(read) for _ in range(3)]
        try:
            for _ in range(8):
                publishing(statusd, share).end()
        finally:
            stopping.set()
        for reader in readers:
            reader.result()
    assert shared_objects(share) == []


def test_readers_at_once_all_get_consistent_figures(share, statusd):
    """What belongs to one publication is the same for everybody who reads it."""
    daemon = publishing(statusd, share, peer="http://127.0.0.1:1/", interval_ms=50)

    end = time.monotonic() + PATIENCE

    def read(_):
        found = []
        while len(found) < 12 or found[-1]["published"] < found[0]["published"] + 2:
            assert time.monotonic() < end
            done = statusctl("--json", share)
            assert (done.returncode, done.stderr) == (0, "")
            found.append(json.loads(done.stdout))
        return found

    begin = daemon.status()["share"]["published"]
    with concurrent.futures.ThreadPoolExecutor(20) as pool:
        readers = list(pool.map(read, range(20)))
    by_publication = {}
    for reader in readers:
        counts = [figures["published"] for figures in reader]
        assert counts == sorted(counts)
        for figures in reader:
            figures.pop("age_ms")
            assert by_publication.setdefault(figures["published"], figures) == figures
    assert len(by_publication) >= 2
    for before, after in zip(sorted(by_publication), sorted(by_publication)[1:]):
        assert by_publication[before]["uptime_s"] <= by_publication[after]["uptime_s"]
        for key in ("loop_passes", "timers_fired"):
            assert by_publication[before][key] < by_publication[after][key]
    assert begin <= min(by_publication) and max(by_publication) <= daemon.status()["share"]["published"]
    assert daemon.ask("/").status == 200
