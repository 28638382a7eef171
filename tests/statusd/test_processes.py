"""The processes that statusd watches and starts, and the command that it runs."""
import contextlib
import itertools
import os
import re
import signal
import subprocess
import time

import pytest
from conftest import PATIENCE, Process, children, kill, processes, reap, run_statusd, wait_for

numbers = itertools.count()
NO_RUN_YET = {"runs": 0, "exit_code": None, "took_ms": None, "output": None, "truncated": False}


def unique(length=12):
    """Returns a short name that no other process has."""
    return f"w{os.getpid()}n{next(numbers)}".ljust(length, "x")


def write_script(folder, name, text):
    path = os.path.join(folder, name)
    with open(path, "w") as file:
        file.write("#!/bin/sh\n" + text)
    os.chmod(path, 0o755)
    return path


def lines_of(path):
    with contextlib.suppress(FileNotFoundError), open(path) as file:
        return file.read().splitlines()
    return []


@pytest.fixture
def sleeper(folder):
    """Makes programs of a name that sleep."""

    def make(name):
        path = os.path.join(folder, name)
        os.symlink("/bin/sleep", path)
        return path

    return make


@pytest.fixture
def configured(orphans, statusd, folder):
    """Starts statusd with a settings file of this text, which configured.change() replaces."""
    path = os.path.join(folder, "statusd.ini")

    class Configured:
        def __call__(self, text, **options):
            self.write(text)
            self.daemon = statusd(config=path, **options)
            return self.daemon

        def write(self, text):
            with open(path, "w", errors="surrogateescape") as file:
                file.write(text)

        def change(self, text):
            self.write(text)
            self.daemon.process.send_signal(signal.SIGHUP)

    return Configured()


def reap_ended(*names):
    """Buries the orphans of these names: to the kernel, and to statusd, they are processes until then."""
    for child in children():
        if child.name in names and child.state == "Z":
            reap(child.pid)


def watched(daemon):
    """Returns what the daemon knows of each process by its name."""
    return {row["name"]: row for row in daemon.status()["processes"]}


def wait_for_count(daemon, name, count):
    return wait_for(lambda: (row := watched(daemon).get(name)) and row["count"] == count and row, f"{count} of {name}")


def pgrep(name):
    done = subprocess.run(["pgrep", "-x", name], capture_output=True, text=True, timeout=PATIENCE)
    return sorted(map(int, done.stdout.split()))


@contextlib.contextmanager
def running(*command, copies=1):
    """Runs copies of a program, and ends those that are left."""
    started = [subprocess.Popen(command) for _ in range(copies)]
    try:
        yield started
    finally:
        for process in started:
            process.kill()
            process.wait()


# ------------------------------------------------------------------------------------------------------ looking


def test_nothing_is_watched_and_run_without_settings(statusd):
    status = statusd().status()
    assert (status["processes"], status["command"], status["share"]) == ([], None, None)


def test_watched_processes_come_and_go(configured, sleeper):
    name, other = unique(), unique()
    daemon = configured(f"[watch]\n{name} =\n{other}=\n")
    assert wait_for_count(daemon, name, 0) == {"name": name, "count": 0, "pids": [], "command": None, "starts": 0}
    with running(sleeper(name), "1000", copies=3) as started, running(sleeper(other), "1000"):
        row = wait_for_count(daemon, name, 3)
        assert sorted(row["pids"]) == sorted(process.pid for process in started) == pgrep(name)
        wait_for_count(daemon, other, 1)
        started[0].kill()
        started[0].wait()
        assert sorted(wait_for_count(daemon, name, 2)["pids"]) == pgrep(name)
    wait_for_count(daemon, name, 0)
    wait_for_count(daemon, other, 0)
    assert [row["name"] for row in daemon.status()["processes"]] == [name, other]
    assert all(row["starts"] == 0 for row in daemon.status()["processes"])


def test_pids_are_the_first_32(configured, sleeper):
    name = unique(15)
    daemon = configured(f"[watch]\n{name} =\n")
    with running(sleeper(name), "1000", copies=34):
        pids = wait_for_count(daemon, name, 34)["pids"]
        assert pids == pgrep(name)[:32]


def test_statusd_sees_itself(configured):
    """And those of other tests, which come and go: what it has seen is compared with what runs until both agree."""
    daemon = configured("[watch]\nstatusd =\n")

    def agrees():
        seen = watched(daemon)["statusd"]
        return (daemon.pid in seen["pids"] or seen["count"] > 32) and \
            set(seen["pids"]) <= {process.pid for process in processes() if process.name == "statusd"}

    assert wait_for(agrees, "itself")


def test_name_of_15_bytes_is_as_the_kernel_has_it(configured, sleeper):
    suffixes = ["", " b", "\u00e4", ".", '"', "\\", "<b>", "[x]", "#;"]
    names = [unique(15 - len(suffix.encode())) + suffix for suffix in suffixes]
    assert {len(name.encode()) for name in names} == {15}
    daemon = configured("[watch]\n" + "".join(f"{name} =\n" for name in names))
    with contextlib.ExitStack() as stack:
        pids = {name: [stack.enter_context(running(sleeper(name), "1000"))[0].pid] for name in names}
        for name in names:
            assert wait_for_count(daemon, name, 1)["pids"] == pids[name]


def test_name_that_is_not_utf8_still_gives_valid_json(configured):
    daemon = configured("[watch]\na\udcff\udcc0b =\n")
    assert re.fullmatch("a\ufffd+b", daemon.status()["processes"][0]["name"])


# ------------------------------------------------------------------------------------------------------ starting


def test_missing_process_is_started_and_again_when_it_has_ended(configured, sleeper):
    name = unique()
    program = sleeper(name)
    daemon = configured(f"restart_delay_ms = 100\n[watch]\n{name} = {program} 1000 1000\n")
    row = wait_for_count(daemon, name, 1)
    assert (row["command"], row["starts"]) == (f"{program} 1000 1000", 1)
    started = Process(row["pids"][0])
    with open(f"/proc/{started.pid}/cmdline") as words:
        assert words.read().split("\0") == [name, "1000", "1000", ""]
    assert started.parent == os.getpid()  # That is where orphans go during this test.
    assert started.session not in (os.getsid(0), Process(daemon.pid).session, started.pid)
    assert started.descriptors() == {0: "/dev/null", 1: "/dev/null", 2: "/dev/null"}
    assert int(started.tasks()[0]["SigBlk"][0], 16) == 0
    kill(started.pid)
    again = wait_for(lambda: (row := watched(daemon)[name])["starts"] == 2 and row["count"] == 1 and row, "a new one")
    assert again["pids"] != row["pids"]
    daemon.end()
    kill(again["pids"][0])  # It lives on by itself.


def test_process_that_somebody_runs_already_is_not_started(configured, sleeper):
    name = unique()
    program = sleeper(name)
    with running(program, "1000") as started:
        daemon = configured(f"restart_delay_ms = 100\n[watch]\n{name} = {program} 1000\n")
        assert wait_for_count(daemon, name, 1)["pids"] == [started[0].pid]
        first = daemon.status()["uptime_s"]
        wait_for(lambda: daemon.status()["uptime_s"] > first + 2, "two more looks")
        assert watched(daemon)[name]["starts"] == 0
        daemon.end()


def test_process_that_dies_at_once_is_started_at_most_once_in_the_delay(configured, statusd, folder):
    """The default delay of 5 s is seen meanwhile, and a program that cannot be started at all."""
    name, rare, missing = unique(), unique(), unique()
    log, rare_log = os.path.join(folder, "log"), os.path.join(folder, "rare-log")
    script = write_script(folder, name, f"echo started >> {log}\n")
    rare_script = write_script(folder, rare, f"echo started >> {rare_log}\n")
    rare_config = os.path.join(folder, "rare.ini")
    with open(rare_config, "w") as file:
        file.write(f"[watch]\n{rare} = {rare_script}\n{missing} = /nonexistent/program\n")
    begin = time.monotonic()
    daemon = configured(f"restart_delay_ms = 2000\n[watch]\n{name} = {script}\n")
    other = statusd(config=rare_config)
    third = wait_for(lambda: reap_ended(name, rare) or (row := watched(daemon)[name])["starts"] >= 3 and row,
                     "a third start")
    elapsed = time.monotonic() - begin
    assert third["starts"] <= 1 + elapsed / 2 and elapsed > 3.9
    wait_for(lambda: len(lines_of(log)) >= 3, "its third run")
    elapsed = time.monotonic() - begin
    assert len(lines_of(log)) <= 1 + elapsed / 2
    for row in watched(other).values():
        assert 1 <= row["starts"] <= 1 + (time.monotonic() - begin) / 5 and row["count"] == 0
    assert 1 <= len(lines_of(rare_log)) <= 1 + (time.monotonic() - begin) / 5


def test_program_is_split_at_blanks_and_tabs_and_sees_no_shell(configured, folder):
    name = unique()
    log = os.path.join(folder, "log")
    script = write_script(folder, name, f"printf '%s\\n' \"$@\" > {log}.new\nmv {log}.new {log}\nexec sleep 1000\n")
    daemon = configured(f"[watch]\n{name} = {script} a\t\tb  'c d' $HOME ; # * \n")
    wait_for(lambda: lines_of(log), "its arguments")
    assert lines_of(log) == ["a", "b", "'c", "d'", "$HOME", ";", "#", "*"]
    daemon.end()
    for child in children():
        if child.name in (name, "sleep"):
            kill(child.pid)


# ------------------------------------------------------------------------------------------------------ settings


NAME = "the short name of a process has 1 to 15 bytes, and no control characters"
DELAY = "restart_delay_ms must be a number from 100 to 3600000, not "
INTERVAL = "command_interval_ms must be a number from 1000 to 3600000, not "
SHARE = "share must be a name such as /statusd, of 200 bytes at most and not beginning with /sem., not "


@pytest.mark.parametrize("text, why", [
    ("[watch]\nsixteen-bytes-xx =\n", f'[watch] "sixteen-bytes-xx": {NAME}'),
    ("[watch]\na\tb =\n", f'[watch] "a?b": {NAME}'),
    ("[watch]\nx = /bin/tr\0ue\n", '[watch] "x": a program must have no NUL bytes'),
    ("[watch]\n" + "".join(f"p{i:02} =\n" for i in range(17)),
     '[watch] "p16": no more than 16 processes can be watched'),
    ("[other]\n", 'unknown section "other"'), ("[Watch]\n", 'unknown section "Watch"'),
    ("[watch]\nx =\n[other]\ny =\n", 'unknown section "other"'),
    ("restart_delay_ms = 99\n", DELAY + '"99"'), ("restart_delay_ms = 3600001\n", DELAY + '"3600001"'),
    ("command_interval_ms = 999\n", INTERVAL + '"999"'), ("command_interval_ms = 3600001\n", INTERVAL + '"3600001"'),
    ("\nshare = x\n", SHARE + '"x"'), ("share = /a/b\n", SHARE + '"/a/b"'), ("share = /\n", SHARE + '"/"'),
    ("share = /" + "a" * 200 + "\n", f'{SHARE}"/{"a" * 200}"'),
    *((f"{key} = 1:1\n", f'unknown setting "{key}"') for key in ("daemon", "pidfile", "user")),
], ids=lambda value: repr(value)[:40])
def test_wrong_setting_is_named_and_gives_status_2(tmp_path, text, why):
    config = tmp_path / "statusd.ini"
    config.write_text(text)
    done = run_statusd("--listen", "127.0.0.1:0", "--config", config)
    assert (done.returncode, done.stdout, done.stderr) == (2, "", f"statusd: {config}: {why}\n")


def test_what_says_nothing_in_the_section_is_passed_over(configured):
    """And a section may come twice, with blanks in its brackets and more behind them."""
    daemon = configured("[watch]\nb =\n= /bin/true\nno equals sign\n[ watch ] x\na =\n")
    assert [row["name"] for row in daemon.status()["processes"]] == ["a", "b"]


def test_most_that_may_be_watched_in_order_of_their_names(configured):
    names = [f"name{i}" for i in range(16)]
    daemon = configured("share =\ncommand =\ncommand_interval_ms = 3600000\nrestart_delay_ms = 3600000\n"
                        "# comment\n[watch]\n; comment\n\n" + "".join(f"\t{name}=\n" for name in names))
    assert [row["name"] for row in daemon.status()["processes"]] == sorted(names)


def test_sighup_adds_and_removes_what_is_watched(configured, sleeper):
    first, second, third = unique(), unique(), unique()
    daemon = configured(f"[watch]\n{first} =\n{second} =\n")
    with running(sleeper(second), "1000") as started:
        wait_for_count(daemon, second, 1)
        configured.change(f"[watch]\n{second} =\n{third} = {sleeper(third)} 1000\n")
        row = wait_for_count(daemon, third, 1)
        assert list(watched(daemon)) == [second, third]
        assert watched(daemon)[second]["pids"] == [started[0].pid]
        configured.change(f"[watch]\n{first} =\n[nonsense]\n")
        assert daemon.complaint().endswith('statusd.ini: unknown section "nonsense"; the old settings stay\n')
        assert list(watched(daemon)) == [second, third]
        configured.change("name = x\n")
        wait_for(lambda: daemon.status()["processes"] == [], "nothing watched")
        uptime = daemon.status()["uptime_s"]
        wait_for(lambda: daemon.status()["uptime_s"] > uptime + 1, "another look")
        assert daemon.status()["processes"] == []
        assert Process(row["pids"][0]).state != "Z"  # Not watched any more is not ended.
        kill(row["pids"][0])


def test_sighup_gives_a_watched_process_a_program(configured, sleeper):
    name = unique()
    program = sleeper(name)
    daemon = configured(f"restart_delay_ms = 100\n[watch]\n{name} =\n")
    wait_for_count(daemon, name, 0)
    configured.change(f"restart_delay_ms = 100\n[watch]\n{name} = {program} 1000\n")
    row = wait_for_count(daemon, name, 1)
    assert row["command"] == f"{program} 1000"
    configured.change(f"restart_delay_ms = 100\n[watch]\n{name} =\n")
    wait_for(lambda: watched(daemon)[name]["command"] is None, "no program")
    kill(row["pids"][0])
    wait_for_count(daemon, name, 0)
    uptime = daemon.status()["uptime_s"]
    wait_for(lambda: daemon.status()["uptime_s"] > uptime + 2, "two more looks")
    assert watched(daemon)[name]["count"] == 0


# ------------------------------------------------------------------------------------------------------ command


def run_of(daemon, condition=lambda command: True):
    """Returns what is known of the command, once it has ended and this is so."""
    return wait_for(lambda: (command := daemon.status()["command"])["exit_code"] is not None and condition(command)
                    and command, "the command to end")


def test_output_and_exit_code_of_the_command(statusd, folder):
    noise = "a\\000b\\033[31m\\377\"<x>\\\\\\n"
    script = write_script(folder, "command", f"echo out; echo err >&2; printf '{noise}'; exit 7\n")
    command = run_of(statusd(command=script))
    assert command["line"] == script
    assert command["runs"] >= 1 and command["exit_code"] == 7 and command["truncated"] is False
    assert isinstance(command["took_ms"], float) and 0 < command["took_ms"] < 5000
    assert re.fullmatch('out\nerr\na\0b\x1b\\[31m\ufffd"<x>\\\\\n', command["output"])


def test_command_is_split_at_blanks_and_tabs_and_sees_no_shell(configured, folder):
    script = write_script(folder, "command", "printf '%s\\n' \"$@\"\n")
    daemon = configured(f"command = {script} a\t\tb  'c d' $HOME ; # *\n")
    assert run_of(daemon)["output"] == "a\nb\n'c\nd'\n$HOME\n;\n#\n*\n"


@pytest.mark.parametrize("line, code, output", [
    ("/nonexistent/program", 127, "failed to run command"), ("/dev/null", 126, "failed to run command"),
    ("nonexistent-program --help", 127, "failed to run command"), ("--help", 127, "failed to run command"),
    ("true", 0, ""), ("false", 1, ""), ("cat", 1, ""), ("sh -c kill${IFS}-9${IFS}$$", 137, ""),
])
def test_exit_code_is_that_of_the_command(statusd, line, code, output):
    """There is no standard input: cat fails at once."""
    command = run_of(statusd(command=line))
    assert command["exit_code"] == code and output in command["output"]


def test_output_is_cut_at_4096_bytes(statusd, folder):
    sizes = {0: False, 4096: False, 4097: True, 20000000: True}
    daemons = {}
    for size in sizes:
        script = write_script(folder, f"print{size}", f"head -c {size} /dev/zero | tr '\\0' y\n")
        daemons[size] = statusd(command=script)
    for size, daemon in daemons.items():
        command = run_of(daemon)
        assert (command["output"], command["truncated"]) == ("y" * min(size, 4096), sizes[size])
        assert command["exit_code"] == 0


def test_output_that_is_cut_in_a_character_is_still_valid_json(statusd, folder):
    script = write_script(folder, "command", "printf x; for i in $(seq 2048); do printf '\\303\\244'; done\n")
    command = run_of(statusd(command=script))
    assert command["truncated"] and re.fullmatch("x\u00e4{2047}\ufffd*", command["output"])


def test_command_that_hangs_is_cut_off_after_5_seconds_and_holds_up_nobody(orphans, statusd, folder):
    """One dies of the first signal, one needs the second, a second later. Meanwhile, the daemons answer."""
    log = os.path.join(folder, "log")
    soft_script = write_script(folder, "soft", f"echo started >> {log}\nexec sleep 1000\n")
    hard_script = write_script(folder, "hard", "trap '' TERM\necho here\nwhile :; do sleep 0.2; done\n")
    soft, hard = statusd(command=soft_script, command_interval_ms=1000), statusd(command=hard_script)
    assert soft.status()["command"] == {"line": soft_script, **NO_RUN_YET}
    assert hard.status()["command"] == {"line": hard_script, **NO_RUN_YET}
    soft_uptime = soft.status()["uptime_s"]
    wait_for(lambda: soft.status()["uptime_s"] > soft_uptime + 2, "three periods")
    assert soft.status()["command"]["exit_code"] is None
    assert lines_of(log) == ["started"]
    ended = run_of(soft)
    assert ended["exit_code"] == 124 and 5000 <= ended["took_ms"] < 40000
    ended = run_of(hard)
    assert ended["exit_code"] == 137 and 6000 <= ended["took_ms"] < 40000 and ended["output"] == "here\n"
    wait_for(lambda: len(lines_of(log)) >= 2, "the next run")
    soft.end()  # In the middle of a run, which ends by itself.
    end_runs()


def end_runs():
    """Ends the runs that a daemon did not wait for: what it started comes to this process."""
    for name in ("timeout", "sleep", "soft"):
        for child in children():
            if child.name == name and child.state != "Z":
                with contextlib.suppress(ProcessLookupError):
                    os.kill(child.pid, signal.SIGKILL)
                reap(child.pid)


def test_daemon_ends_in_the_middle_of_a_run(orphans, statusd, folder):
    pid_file = os.path.join(folder, "run")
    script = write_script(folder, "command", f"echo $$ > {pid_file}\nexec sleep 1000\n")
    daemon = statusd(command=script)
    run = int(wait_for(lambda: lines_of(pid_file), "the run")[0])
    daemon.end()
    assert Process(run).name == "sleep" and Process(run).state != "Z", "the daemon has waited for its end"
    os.kill(run, signal.SIGKILL)
    end_runs()


def test_output_that_a_child_holds_open_delays_the_result_and_nothing_else(orphans, statusd, folder):
    log = os.path.join(folder, "log")
    script = write_script(folder, "command", f"sleep 1000 &\necho $! >> {log}\necho mine\nexit 3\n")
    daemon = statusd(command=script, command_interval_ms=1000)
    holder = int(wait_for(lambda: lines_of(log), "the run")[0])
    uptime = daemon.status()["uptime_s"]
    wait_for(lambda: daemon.status()["uptime_s"] > uptime + 2, "three periods")
    assert daemon.status()["command"]["exit_code"] is None
    assert lines_of(log) == [str(holder)]
    kill(holder)
    command = run_of(daemon)
    assert (command["exit_code"], command["output"]) == (3, "mine\n")
    holder = int(wait_for(lambda: lines_of(log)[1:], "the next run")[0])
    daemon.end()
    assert Process(holder).state != "Z"
    kill(holder)


def test_runs_never_overlap(statusd, folder):
    log = os.path.join(folder, "log")
    script = write_script(folder, "command", f"echo begin >> {log}\nsleep 1.3\necho end >> {log}\n")
    daemon = statusd(command=script, command_interval_ms=1000)
    command = run_of(daemon, lambda command: command["runs"] >= 2)
    assert command["took_ms"] >= 1300
    lines = lines_of(log)
    assert lines[:4] == ["begin", "end"] * 2
    daemon.end()


def test_command_runs_again_and_again(statusd, folder):
    log = os.path.join(folder, "log")
    script = write_script(folder, "command", f"echo run >> {log}\nwc -l < {log}\n")
    begin = time.monotonic()
    daemon = statusd(command=script, command_interval_ms=1000)
    once = statusd(command=f"{script}")
    third = run_of(daemon, lambda command: command["runs"] >= 3)
    elapsed = time.monotonic() - begin
    assert third["runs"] <= 1 + elapsed and elapsed > 1.9
    assert once.status()["command"]["runs"] <= 1 + elapsed / 10


def test_sighup_changes_the_command(configured, folder):
    hanging = write_script(folder, "hanging", f"echo $$ > {folder}/run\nexec sleep 1000\n")
    daemon = configured("command_interval_ms = 1000\ncommand = echo first\n")
    assert run_of(daemon)["output"] == "first\n"
    configured.change("command_interval_ms = 1000\ncommand = echo second\n")
    second = run_of(daemon, lambda command: command["output"] == "second\n")
    assert second["line"] == "echo second"
    configured.change(f"command_interval_ms = 1000\ncommand = {hanging}\n")
    wait_for(lambda: daemon.status()["command"]["line"] == hanging, "the new command")
    run = int(wait_for(lambda: lines_of(f"{folder}/run"), "the run")[0])
    configured.change("name = x\n")
    wait_for(lambda: daemon.status()["command"] is None, "no command")
    os.kill(run, signal.SIGKILL)
    uptime = daemon.status()["uptime_s"]
    wait_for(lambda: daemon.status()["uptime_s"] > uptime + 1, "the run's end")
    assert daemon.status()["command"] is None


def test_sighup_changes_the_interval_of_the_command(configured):
    daemon = configured("command = true\ncommand_interval_ms = 3600000\n")
    run_of(daemon)
    configured.change("command = true\ncommand_interval_ms = 1000\n")
    run_of(daemon, lambda command: command["runs"] >= 3)


def test_exit_code_is_known_to_a_daemon_whose_starter_ignores_children(statusd):
    """Such a starter, and its children, are not told how theirs end."""
    previous = signal.signal(signal.SIGCHLD, signal.SIG_IGN)
    try:
        daemon = statusd(command="false")
    finally:
        signal.signal(signal.SIGCHLD, previous)
    assert run_of(daemon)["exit_code"] == 1


def test_result_of_the_former_command_is_not_taken_for_the_new_one(configured, folder):
    pid_file = f"{folder}/run"
    slow = write_script(folder, "slow", f"echo former\necho $$ > {pid_file}\nexec sleep 1000\n")
    daemon = configured(f"command = {slow}\ncommand_interval_ms = 1000\n")
    run = int(wait_for(lambda: lines_of(pid_file), "the run")[0])
    configured.change("command = echo new\ncommand_interval_ms = 1000\n")
    wait_for(lambda: daemon.status()["command"]["line"] == "echo new", "the new command")
    os.kill(run, signal.SIGKILL)
    assert run_of(daemon)["output"] == "new\n"


def test_options_win_over_the_file(configured):
    daemon = configured("command = echo file\nrestart_delay_ms = 100\n", command="echo option",
                        command_interval_ms=1000)
    assert run_of(daemon)["output"] == "option\n"


def test_runs_leave_no_descriptor_and_no_process_behind(configured, sleeper):
    name = unique()
    daemon = configured(f"command = echo x\ncommand_interval_ms = 1000\nrestart_delay_ms = 100\n"
                        f"[watch]\n{name} = {sleeper(name)} 0\n")
    run_of(daemon)
    before = daemon.descriptors()
    wait_for(lambda: reap_ended(name) or watched(daemon)[name]["starts"] >= 3, "three starts")
    run_of(daemon, lambda command: command["runs"] >= 4)
    wait_for(lambda: daemon.descriptors() <= before, "descriptors to be closed")
    wait_for(lambda: not [process for process in processes() if process.parent == daemon.pid], "no child")
