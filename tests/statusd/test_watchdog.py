"""The hardware watchdog that statusd feeds; a regular file stands for it, and strace says what the file is asked."""
import os
import re
import shutil
import signal
import struct
import subprocess
import time

import pytest
from conftest import PATIENCE, Process, command, run_statusd, shared_objects, wait_for
from namespaces import need

NOBODY = 65534
ENABLE, DISABLE = 2, 1  # WDIOS_ENABLECARD, WDIOS_DISABLECARD
NEXT_START = "statusd: the new watchdog settings take effect at the next start\n"


@pytest.fixture
def device(tmp_path):
    """A file to feed, which must never be written to: a device may take a byte for the wish to be disarmed."""
    path = tmp_path / "watchdog"
    path.touch(0o600)
    yield path
    assert path.read_bytes() == b""


class Trace:
    """What is done with some paths, and may be done to it: the injections concern nothing else."""

    def __init__(self, log, *paths, calls="ioctl,openat,close,write", inject=()):
        need(shutil.which("strace"), "strace is not installed")
        self.log = log
        # The sanitizers' leak check cannot look into a process that is traced.
        self.prefix = ["env", "ASAN_OPTIONS=detect_leaks=0", "strace", "-D", "-f", "-ttt", "-qq", "-o", log,
                       *(word for path in paths for word in ("-P", path)), "-e", f"trace={calls}",
                       *(word for what in inject for word in ("-e", f"inject={what}"))]

    def calls(self):
        """Returns the calls that were begun as (time, thread, text)."""
        lines = [line.split(maxsplit=2) for line in self.log.read_text().splitlines()]
        return [(float(when), int(thread), text) for thread, when, text in lines if re.match(r"\w+\(", text)]

    def times(self, call):
        return [when for when, _, text in self.calls() if call in text]

    def pings(self):
        return self.times("WDIOC_KEEPALIVE")

    def delayed_until(self):
        """Waits for the end of the call that is delayed, and returns it."""
        lines = lambda: [line for line in self.log.read_text().splitlines() if "(DELAYED)" in line]
        return float(wait_for(lines, "the end of the delay")[0].split()[1])


@pytest.fixture
def trace(tmp_path, device):
    return lambda *paths, **how: Trace(tmp_path / "trace", device, *paths, **how)


def read_at(pid, address):
    with open(f"/proc/{pid}/mem", "rb", buffering=0) as memory:
        memory.seek(address)
        return struct.unpack("i", memory.read(4))[0]


def option_being_set(pid):
    """Waits until the thread is about to set options of the watchdog, and returns which."""

    def arguments():
        with open(f"/proc/{pid}/syscall") as file:
            words = file.read().split()
        return len(words) > 3 and int(words[2], 16) & 0xFFFF == 0x5704 and words  # WDIOC_SETOPTIONS

    return read_at(pid, int(wait_for(arguments, "the options to be set")[3], 16))


# ------------------------------------------------------------------------------------------------------ requests


def test_device_is_opened_armed_fed_once_a_second_and_disarmed(statusd, device, trace):
    traced = trace(inject=["ioctl:retval=0"])
    daemon = statusd(prefix=traced.prefix, watchdog=device)
    wait_for(lambda: len(traced.pings()) >= 4, "pings")
    wait_for(lambda: daemon.status()["watchdog"]["pings"] >= 4, "their number")
    seen = daemon.status()["watchdog"]
    assert seen == {"device": str(device), "pings": seen["pings"], "refused": 0, "withheld": 0}
    assert seen["pings"] <= len(traced.pings())
    daemon.end()
    calls = wait_for(lambda: (calls := traced.calls())[-1][2].startswith("close(") and calls, "the device to be closed")
    texts = [text for _, _, text in calls]
    assert re.match(rf'openat\(AT_FDCWD, "{device}", O_WRONLY\|O_CLOEXEC\) = \d+', texts[0])
    assert "WDIOC_SETTIMEOUT, [30]" in texts[1]
    assert "WDIOC_SETOPTIONS" in texts[2] and "WDIOC_SETOPTIONS" in texts[-2]
    assert {re.sub(r".*(WDIOC_\w+).*", r"\1", text) for text in texts[3:-2]} == {"WDIOC_KEEPALIVE"}
    pings = traced.pings()
    between = [later - earlier for earlier, later in zip(pings, pings[1:])]
    assert all(seconds > 0.9 for seconds in between) and sorted(between)[len(between) // 2] < 2


def test_pings_come_from_one_thread_of_their_own(statusd, device, trace):
    traced = trace()
    daemon = statusd(prefix=traced.prefix, watchdog=device)
    wait_for(lambda: len(traced.pings()) >= 2, "pings")
    threads = {thread for _, thread, text in traced.calls() if "WDIOC_KEEPALIVE" in text}
    assert len(threads) == 1 and daemon.pid not in threads
    assert {thread for _, thread, text in traced.calls() if "WDIOC_KEEPALIVE" not in text} == {daemon.pid}


def test_enabling_is_what_arms_and_disabling_what_disarms(device, trace):
    """Each request is held up, so that its argument can be read where it lies."""
    traced = trace(inject=["ioctl:delay_enter=700000"])
    daemon = subprocess.Popen([*traced.prefix, *command("--listen", "127.0.0.1:0", "--watchdog", device)],
                              stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
    try:
        assert option_being_set(daemon.pid) == ENABLE
        assert daemon.stdout.readline().startswith("listening on ")
        daemon.terminate()
        assert option_being_set(daemon.pid) == DISABLE
        assert daemon.communicate(timeout=PATIENCE)[1] == "" and daemon.returncode == 0
    finally:
        if daemon.poll() is None:
            daemon.kill()
            daemon.communicate()


def test_timeout_is_that_of_the_settings(statusd, device, trace):
    traced = trace()
    statusd(prefix=traced.prefix, watchdog=device, watchdog_timeout_s=86400)
    assert [re.sub(r".*WDIOC_SETTIMEOUT, (\S+)\).*", r"\1", text) for _, _, text in traced.calls()
            if "SETTIMEOUT" in text] == ["[86400]"]


def test_pings_that_the_device_refuses_are_counted_and_tried_again(statusd, device):
    """What a file does."""
    daemon = statusd(watchdog=device)
    seen = wait_for(lambda: (seen := daemon.status()["watchdog"])["refused"] >= 2 and seen, "refused pings")
    assert (seen["pings"], seen["withheld"]) == (0, 0)


def test_no_watchdog_is_null(statusd, device, tmp_path):
    config = tmp_path / "statusd.ini"
    config.write_text(f"watchdog = {device}\n")
    assert statusd().status()["watchdog"] is None
    daemon = statusd(config=config, watchdog="")
    assert daemon.status()["watchdog"] is None
    assert str(device) not in Process(daemon.pid).descriptors().values()


# ------------------------------------------------------------------------------------------------------ hanging


def test_loop_that_hangs_feeds_no_more_until_it_goes_on(statusd, device, trace, tmp_path):
    """The loop reads its settings from a disk that takes six seconds; two of them are forgiven."""
    config = tmp_path / "statusd.ini"
    config.write_text("name = before\n")
    # Both the settings, twice, and the device are opened at the start.
    traced = trace(config, inject=["openat:delay_enter=6000000:when=4", "ioctl:retval=0"])
    daemon = statusd(prefix=traced.prefix, config=config, watchdog=device, watchdog_hang_ms=2000)
    wait_for(lambda: len(traced.pings()) >= 2, "pings")
    assert daemon.status()["watchdog"]["withheld"] == 0
    config.write_text("name = after\n")
    daemon.process.send_signal(signal.SIGHUP)

    until = traced.delayed_until()
    hung = max(when for when in traced.times("O_RDONLY") if when < until)
    assert until - hung > 5
    assert [when for when in traced.pings() if hung < when < hung + 2.5] != [], "they stopped at once"
    assert [when for when in traced.pings() if hung + 3 < when < until] == []
    before = len(traced.pings())
    wait_for(lambda: len(traced.pings()) >= before + 2, "pings again")

    status = daemon.status()
    assert status["name"] == "after"
    seen, pings = status["watchdog"], len(traced.pings())
    assert 2 <= seen["withheld"] <= 6
    assert seen["pings"] in (pings - 1, pings) and seen["refused"] == 0


def test_loop_that_pauses_for_less_than_that_is_fed(statusd, device, trace, tmp_path):
    config = tmp_path / "statusd.ini"
    config.write_text("")
    traced = trace(config, inject=["openat:delay_enter=3500000:when=4"])
    daemon = statusd(prefix=traced.prefix, config=config, watchdog=device, watchdog_hang_ms=3600000)
    daemon.process.send_signal(signal.SIGHUP)
    until = traced.delayed_until()
    assert len([when for when in traced.pings() if until - 3.5 < when < until]) >= 2
    wait_for(lambda: daemon.status()["watchdog"]["refused"] > len(traced.pings()) - 2, "their number")
    assert daemon.status()["watchdog"]["withheld"] == 0


def test_loop_that_never_starts_is_found_out(share, statusd, device, trace):
    """The thread that feeds is there, and then the shared memory takes five seconds."""
    memory = f"/dev/shm{share}"
    traced = trace(memory, inject=["openat:delay_enter=5000000:when=2"])
    daemon = statusd(prefix=traced.prefix, watchdog=device, watchdog_hang_ms=1000, share=share)
    until = traced.delayed_until()
    assert [when for when in traced.pings() if until - 3 < when < until] == []
    wait_for(lambda: daemon.status()["watchdog"]["withheld"] >= 2, "withheld pings")
    wait_for(lambda: max(traced.pings(), default=0) > until, "pings")


def test_daemon_that_stands_still_as_a_whole_is_fed_again_when_it_goes_on(statusd, device, trace):
    """Nothing of it runs, so that nothing is withheld at first; what comes of the moment in which it wakes is open."""
    traced = trace()
    daemon = statusd(prefix=traced.prefix, watchdog=device, watchdog_hang_ms=1000)
    wait_for(traced.pings, "a ping")
    daemon.process.send_signal(signal.SIGSTOP)
    stopped = time.time()
    time.sleep(2.5)
    daemon.process.send_signal(signal.SIGCONT)
    woken = time.time()
    assert [when for when in traced.pings() if stopped + 1 < when < woken] == []
    wait_for(lambda: len([when for when in traced.pings() if when > woken + 1]) >= 2, "pings")


# ------------------------------------------------------------------------------------------------------ start and end


def test_device_that_cannot_be_opened_gives_one_line_and_status_1(tmp_path, share):
    pidfile = tmp_path / "pid"
    for path, why in ((tmp_path / "none", "No such file or directory"), (tmp_path, "Is a directory")):
        done = run_statusd("--listen", "127.0.0.1:0", "--watchdog", path, "--pidfile", pidfile, "--share", share)
        assert (done.returncode, done.stdout) == (1, "")
        assert done.stderr == f'statusd: cannot open the watchdog "{path}": {why}\n'
        assert not pidfile.exists() and shared_objects(share) == []


def test_start_that_fails_disarms_the_device_that_it_has_opened(device, trace):
    """Most devices arm themselves when they are opened."""
    traced = trace(inject=["ioctl:retval=0"])
    prefix = ["/dev/null" if word == device else word for word in traced.prefix]  # Which anybody may open.
    # Without the right to drop groups, nobody can become another user.
    plain = ["setpriv", "--bounding-set", "-setgid", "--inh-caps", "-setgid"] if os.geteuid() == 0 else []
    words = command("--listen", "127.0.0.1:0", "--watchdog", "/dev/null", "--user", "1:1")
    done = subprocess.run([*prefix, *plain, *words], capture_output=True, text=True, timeout=PATIENCE)
    assert (done.returncode, done.stderr) == (
        1, "statusd: cannot become user 1 and group 1: Operation not permitted\n")
    requests = wait_for(lambda: [text for _, _, text in traced.calls() if "WDIOC" in text], "the request")
    assert len(requests) == 1 and "WDIOC_SETOPTIONS" in requests[0]


def test_device_that_somebody_else_feeds_gives_status_1(device, trace):
    traced = trace(inject=["openat:error=EBUSY"])
    done = subprocess.run([*traced.prefix, *command("--listen", "127.0.0.1:0", "--watchdog", device)],
                          capture_output=True, text=True, timeout=PATIENCE)
    assert (done.returncode, done.stdout) == (1, "")
    assert done.stderr == f'statusd: cannot open the watchdog "{device}": Device or resource busy\n'


@pytest.mark.parametrize("path", ["watchdog", "./watchdog", "../dev/watchdog", " /dev/watchdog"])
def test_relative_path_gives_status_2(path):
    done = run_statusd("--listen", "127.0.0.1:0", "--watchdog", path)
    assert (done.returncode, done.stdout) == (2, "")
    assert done.stderr == ("statusd: watchdog must be the absolute path of a device, such as /dev/watchdog, not "
                           f'"{path}"\n')


@pytest.mark.skipif(os.geteuid() != 0, reason="only root can change users")
def test_device_is_opened_before_the_rights_of_root_are_dropped(statusd, device):
    assert (device.stat().st_uid, device.stat().st_mode & 0o777) == (0, 0o600)
    daemon = statusd(user=f"{NOBODY}:{NOBODY}", watchdog=device)
    assert os.stat(f"/proc/{daemon.pid}").st_uid == NOBODY
    wait_for(lambda: daemon.status()["watchdog"]["refused"] >= 1, "a ping")


@pytest.mark.parametrize("signo", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_signal_disarms_and_ends_it_in_seconds(statusd, device, trace, signo):
    traced = trace()
    daemon = statusd(prefix=traced.prefix, watchdog=device)
    assert len(traced.times("WDIOC_SETOPTIONS")) == 1
    began = time.monotonic()
    daemon.end(signo)
    assert time.monotonic() - began < 10
    wait_for(lambda: len(traced.times("WDIOC_SETOPTIONS")) == 2, "the watchdog to be disarmed")


def test_killed_daemon_disarms_nothing(statusd, device, trace):
    """The machine is to be reset then."""
    traced = trace()
    daemon = statusd(prefix=traced.prefix, watchdog=device)
    wait_for(traced.pings, "a ping")
    daemon.process.kill()
    daemon.process.communicate(timeout=PATIENCE)
    wait_for(lambda: "+++ killed by SIGKILL +++" in traced.log.read_text() or not os.path.exists(f"/proc/{daemon.pid}"),
             "its end")
    assert len(traced.times("WDIOC_SETOPTIONS")) == 1


# ------------------------------------------------------------------------------------------------------ new settings


@pytest.mark.parametrize("changed", ["watchdog = {other}", "watchdog =", "watchdog_timeout_s = 60",
                                     "watchdog_hang_ms = 1000"])
def test_new_settings_wait_for_the_next_start(statusd, device, trace, tmp_path, changed):
    other, config = tmp_path / "other", tmp_path / "statusd.ini"
    other.touch()
    traced = trace(other)
    old = f"watchdog = {device}\nwatchdog_timeout_s = 30\nwatchdog_hang_ms = 10000\n"
    config.write_text(old)
    daemon = statusd(prefix=traced.prefix, config=config)
    config.write_text(f"{old}{changed.format(other=other)}\nname = after\n")
    for _ in range(2):  # It says so each time: the old settings stay those in use.
        daemon.process.send_signal(signal.SIGHUP)
        assert daemon.complaint() == NEXT_START
    assert daemon.status()["name"] == "after"
    pings = len(traced.pings())
    wait_for(lambda: len(traced.pings()) > pings, "pings")
    assert daemon.status()["watchdog"]["device"] == str(device)
    assert [text for _, _, text in traced.calls() if "SETTIMEOUT" in text or "openat" in text] == [
        text for _, _, text in traced.calls()[:2]]
    config.write_text(old)
    daemon.process.send_signal(signal.SIGHUP)
    wait_for(lambda: daemon.status()["name"] != "after", "the old settings, without a word")


def test_watchdog_that_is_new_at_sighup_waits_for_the_next_start(statusd, device, tmp_path):
    config = tmp_path / "statusd.ini"
    config.write_text("")
    daemon = statusd(config=config)
    config.write_text(f"watchdog = {device}\n")
    daemon.process.send_signal(signal.SIGHUP)
    assert daemon.complaint() == NEXT_START
    assert daemon.status()["watchdog"] is None
