"""statusd as a service: detached, known by its pid file, without rights that it does not need."""
import contextlib
import os
import re
import shutil
import signal
import socket
import subprocess

import pytest
from conftest import (PATIENCE, Process, children, command, published, reap, run_statusd, shared_objects, statusctl,
                      wait_for, words_of)
from namespaces import Namespace, need

NOBODY = 65534
LOOPBACK = "127.0.0.1:0"

needs_root = pytest.mark.skipif(os.geteuid() != 0, reason="only root can change users")


def read(path):
    with open(path) as file:
        return file.read()


def identity(path):
    found = os.stat(path)
    return found.st_ino, found.st_uid, oct(found.st_mode & 0o7777), found.st_size


def assert_nobody_listens(port):
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", port))


# ------------------------------------------------------------------------------------------------------ detached


def test_daemon_is_found_by_its_pid_file_and_is_nobodys_child(background):
    daemon = background()
    process = Process(daemon.pid)
    assert daemon.status()["pid"] == daemon.pid == int(read(daemon.pidfile))
    assert process.parent == os.getpid()  # That is where orphans go during this test.
    assert process.session not in (os.getsid(0), daemon.pid), "it could get a terminal again"
    assert process.terminal == 0
    assert process.cwd() == "/"
    assert process.descriptors().items() >= {0: "/dev/null", 1: "/dev/null", 2: "/dev/null"}.items()
    assert {task["Umask"][0] for task in process.tasks()} == {"0000"}


def test_daemon_holds_no_descriptor_of_its_starter(share, orphans, folder):
    ours, theirs = os.pipe()
    words = words_of({"listen": LOOPBACK, "pidfile": f"{folder}/pid", "share": share})
    assert subprocess.run(command("--daemon", *words), pass_fds=[theirs], timeout=PATIENCE).returncode == 0
    pid = wait_for(lambda: (figures := published(share)) and figures["pid"], "the figures")
    os.close(theirs)
    os.set_blocking(ours, False)
    with open(ours, "rb") as pipe:
        assert pipe.read() == b""  # The end, and not None for an empty pipe that somebody could still write to.
    os.kill(pid, signal.SIGTERM)
    assert reap(pid) == 0


@pytest.mark.parametrize("signo", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_signal_ends_the_daemon_which_leaves_nothing(background, share, signo):
    daemon = background()
    assert shared_objects(share) == sorted([share[1:], "sem." + share[1:]])
    assert os.path.exists(daemon.pidfile)
    daemon.end(signo)
    assert not os.path.exists(daemon.pidfile)
    assert shared_objects(share) == []
    assert_nobody_listens(daemon.port)
    assert [child for child in children() if child.name == "statusd" and child.state != "Z"] == []


@pytest.mark.parametrize("signo", [signal.SIGTERM, signal.SIGINT, signal.SIGQUIT])
def test_signal_ends_it_in_the_foreground_too(share, statusd, folder, signo):
    daemon = statusd(pidfile=f"{folder}/pid", share=share)
    assert read(f"{folder}/pid") == str(daemon.pid)
    daemon.end(signo)
    assert os.listdir(folder) == shared_objects(share) == []


def test_killed_daemon_leaves_what_the_next_start_takes_over(background, share):
    first = background()
    objects = shared_objects(share)
    first.end(signal.SIGKILL, returncode=-signal.SIGKILL)
    assert read(first.pidfile) == str(first.pid) and shared_objects(share) == objects
    gone = statusctl(share)
    assert (gone.returncode, gone.stdout) == (1, "")
    assert gone.stderr == f"statusctl: the statusd that published at {share} (process {first.pid}) is gone\n"
    second = background()
    assert read(second.pidfile) == str(second.pid) != str(first.pid)
    assert published(share)["pid"] == second.pid
    second.end()
    assert not os.path.exists(second.pidfile) and shared_objects(share) == []


def test_shared_objects_that_a_killed_daemon_held_are_made_afresh(share, statusd, folder):
    """A process that maps the old memory keeps it, whole."""
    first = statusd(share=share)
    wait_for(lambda: published(share), "the figures")
    os.kill(first.pid, signal.SIGKILL)
    assert first.process.wait(PATIENCE) == -signal.SIGKILL
    first.process.communicate()
    with open("/dev/shm" + share, "rb") as old:
        size = os.fstat(old.fileno()).st_size
        second = statusd(share=share)
        assert wait_for(lambda: published(share), "the figures")["pid"] == second.pid
        assert os.fstat(old.fileno()).st_size == size > 0 and os.fstat(old.fileno()).st_nlink == 0


def test_second_instance_ends_with_status_1_and_the_first_goes_on(background, share):
    daemon = background()
    held = [identity(daemon.pidfile), *(identity(f"/dev/shm/{name}") for name in shared_objects(share))]
    # The address is taken as well: the pid file comes first.
    words = words_of({"listen": f"127.0.0.1:{daemon.port}", "pidfile": daemon.pidfile, "share": share})
    done = run_statusd(*words)
    assert (done.returncode, done.stdout) == (1, "")
    assert re.fullmatch(rf"statusd: [^\n]*{re.escape(daemon.pidfile)}[^\n]*\n", done.stderr)
    before = {child.pid for child in children()}
    assert run_statusd("--daemon", *words).returncode == 0
    assert failed_daemon(before) == 1
    assert [identity(daemon.pidfile), *(identity(f"/dev/shm/{name}") for name in shared_objects(share))] == held
    assert read(daemon.pidfile) == str(daemon.pid) == str(daemon.status()["pid"])
    published_before = published(share)["published"]
    wait_for(lambda: published(share)["published"] > published_before, "newer figures")


def failed_daemon(before):
    """Returns the status of a daemon that was started since, and has failed."""
    ended = []

    def daemon_ended():
        for child in children():
            if child.pid not in before and child.state == "Z":
                # Of the two processes that come here, the one that led the session only starts the other.
                status = reap(child.pid)
                if child.session != child.pid:
                    ended.append(status)
        return ended

    return wait_for(daemon_ended, "the daemon to fail")[0]


def test_relative_paths_are_those_of_its_starter(background, share, folder):
    config = os.path.join(folder, "settings.ini")
    with open(config, "w") as file:
        file.write("name = before\n")
    pidfile = share[1:] + ".pid"
    daemon = background(cwd=folder, pidfile=pidfile, config="settings.ini")
    assert set(os.listdir(folder)) == {pidfile, "settings.ini"} and not os.path.exists("/" + pidfile)
    assert daemon.figures["name"] == "before"
    with open(config, "w") as file:
        file.write("name = after\n")
    os.kill(daemon.pid, signal.SIGHUP)
    wait_for(lambda: daemon.status()["name"] == "after", "the new settings")
    assert wait_for(lambda: (figures := published(share))["name"] == "after" and figures, "the new figures")
    with open(config, "w") as file:
        file.write("name = broken\n[nonsense]\n")
    timers = daemon.status()["timers_fired"]
    os.kill(daemon.pid, signal.SIGHUP)
    wait_for(lambda: daemon.status()["timers_fired"] > timers + 1, "some time")
    assert daemon.status()["name"] == "after"
    daemon.end()
    assert os.listdir(folder) == ["settings.ini"]


# ------------------------------------------------------------------------------------------------------ wrong starts


@pytest.mark.parametrize("wrong", [
    *(["--user", user] for user in (
        "", "0", ":", "0:", ":0", "a:b", "root:root", "-1:0", "0:-1", "4294967296:0", "0:4294967296", "1:2:3", " 1:2",
        "1 :2", "1:2 ", "+1:2", "0x1:1", "1.0:1", "99999999999999999999:0", "18446744073709551616:0")),
    ["--user", "4294967295:0"], ["--user", "0:4294967295"],  # -1, which the kernel takes for "leave it"
    ["--user"], ["--pidfile"], ["--daemon=yes"], ["--daemon", "yes"], ["--share", "x"], ["--share", "/"],
    ["--share", "/a/b"], ["--share", "/sem.a"], ["--share", "//a"], ["--share", "/" + "a" * 200],
    ["--command-interval-ms", "999"], ["--command-interval-ms", "3600001"], ["--command-interval-ms", "1e4"], ["--restart-delay-ms", "99"],
    ["--restart-delay-ms", "3600001"], ["--watch", "x"], ["--interval-ms", "1"], ["--config", "/nonexistent"],
    ["--watchdog", "dev/watchdog"], ["--watchdog-timeout-s", "2"], ["--watchdog-timeout-s", "86401"],
    ["--watchdog-hang-ms", "999"], ["--watchdog-hang-ms", "3600001"], ["--watchdog-hang-ms", "1e4"],
], ids=lambda words: " ".join(words)[:30])
@pytest.mark.parametrize("flags", [[], ["--daemon"]], ids=["foreground", "daemon"])
def test_wrong_option_gives_status_2_and_starts_nothing(share, folder, orphans, flags, wrong):
    before = {child.pid for child in children()}
    done = run_statusd(*flags, "--listen", LOOPBACK, "--pidfile", f"{folder}/pid", "--share", share, *wrong)
    assert (done.returncode, done.stdout) == (2, "")
    assert re.fullmatch(r"statusd: [^\n]+\n", done.stderr)
    assert os.listdir(folder) == shared_objects(share) == []
    assert {child.pid for child in children()} == before


def test_wrong_settings_file_is_told_before_detaching(share, folder, orphans):
    config = os.path.join(folder, "statusd.ini")
    with open(config, "w") as file:
        file.write("name = x\n[watch]\nsixteen-bytes-xx =\n")
    words = words_of({"listen": LOOPBACK, "pidfile": "pid", "share": share, "config": "statusd.ini"})
    done = run_statusd("--daemon", *words, cwd=folder)
    assert (done.returncode, done.stdout) == (2, "")
    assert re.fullmatch(r'statusd: statusd\.ini: \[watch\] "sixteen-bytes-xx": [^\n]+\n', done.stderr)
    assert os.listdir(folder) == ["statusd.ini"] and shared_objects(share) == []


def assert_fails_and_leaves_nothing(share, folder, words, complaint):
    """In the foreground, where it says why, and in the background."""
    done = run_statusd(*words)
    assert (done.returncode, done.stdout) == (1, "")
    assert re.fullmatch(complaint, done.stderr)
    before = {child.pid for child in children()}
    assert run_statusd("--daemon", *words).returncode == 0
    assert failed_daemon(before) == 1
    assert os.listdir(folder) == [] and shared_objects(share) == []


def test_busy_port_gives_status_1_and_leaves_nothing(share, folder, orphans):
    with socket.create_server(("127.0.0.1", 0)) as busy:
        address = f"127.0.0.1:{busy.getsockname()[1]}"
        words = words_of({"listen": address, "pidfile": f"{folder}/pid", "share": share})
        assert_fails_and_leaves_nothing(share, folder, words,
                                        f"statusd: cannot listen on {address}: Address already in use\n")


@pytest.mark.parametrize("path", ["/nonexistent/pid", "/proc/statusd.pid", "/", "/dev/null/pid"])
def test_pid_file_that_cannot_be_made_gives_status_1_and_leaves_nothing(share, folder, orphans, path):
    with socket.socket() as free:
        free.setsockopt(socket.SOL_SOCKET, socket.SO_REUSEADDR, 1)
        free.bind(("127.0.0.1", 0))
        port = free.getsockname()[1]
    words = words_of({"listen": f"127.0.0.1:{port}", "pidfile": path, "share": share})
    assert_fails_and_leaves_nothing(share, folder, words, rf"statusd: [^\n]*{re.escape(path)}[^\n]*\n")
    assert_nobody_listens(port)


def test_share_that_cannot_be_made_gives_status_1_and_leaves_nothing(share, folder, orphans):
    words = words_of({"listen": LOOPBACK, "pidfile": f"{folder}/pid", "share": share})
    os.mkdir("/dev/shm" + share)
    done = run_statusd(*words)
    assert (done.returncode, os.listdir(folder)) == (1, [])
    assert re.fullmatch(rf"statusd: [^\n]*{share}[^\n]*\n", done.stderr)
    assert shared_objects(share) == [share[1:]]
    os.rmdir("/dev/shm" + share)


def test_full_shared_memory_gives_status_1(orphans, folder):
    space = Namespace()
    try:
        assert space.run("mount", "-t", "tmpfs", "-o", "size=4k", "tmpfs", "/dev/shm").returncode == 0
        assert space.run("sh", "-c", "echo x > /dev/shm/full").returncode == 0
        words = words_of({"listen": LOOPBACK, "pidfile": f"{folder}/pid", "share": "/statusd"})
        done = space.run(*command(*words), text=True)
        assert (done.returncode, done.stdout) == (1, "")
        assert done.stderr == "statusd: cannot publish at /statusd: No space left on device\n"
        assert space.run("ls", "-A", "/dev/shm").stdout == b"full\n" and os.listdir(folder) == []
    finally:
        space.close()


@needs_root
def test_rights_that_cannot_be_dropped_give_status_1_and_leave_nothing(share, folder, orphans):
    nobody = ["setpriv", f"--reuid={NOBODY}", f"--regid={NOBODY}", "--clear-groups"]
    if subprocess.run([*nobody, "test", "-x", command()[-1]], timeout=PATIENCE).returncode != 0:
        pytest.skip("the program is not open to other users")
    words = words_of({"listen": LOOPBACK, "pidfile": f"{folder}/pid", "share": share, "user": f"{NOBODY}:{NOBODY}"})
    done = subprocess.run([*nobody, *command(*words)], capture_output=True, text=True, timeout=PATIENCE)
    assert (done.returncode, done.stdout) == (1, "")
    assert re.fullmatch(rf"statusd: [^\n]*{NOBODY}[^\n]*\n", done.stderr)
    assert os.listdir(folder) == shared_objects(share) == []


# ------------------------------------------------------------------------------------------------------ another user


def free_privileged_port():
    for port in range(1023, 0, -1):
        with contextlib.suppress(OSError), socket.socket() as candidate:
            candidate.bind(("127.0.0.1", port))
            return port
    return pytest.fail("every privileged port is in use")


@needs_root
def test_user_gets_a_privileged_port_and_no_right_beyond_it(share, orphans, statusd, folder):
    port = free_privileged_port()
    script = os.path.join(folder, "who")
    with open(script, "w") as file:
        file.write("#!/bin/sh\nid -u\nid -g\nid -G\n")
    os.chmod(script, 0o755)
    daemon = statusd(prefix=["setpriv", "--groups=1,2,3"], user=f"{NOBODY}:{NOBODY}", listen=f"127.0.0.1:{port}",
                     pidfile=f"{folder}/pid", share=share, command=script, peer="http://127.0.0.1:1/")
    assert daemon.port == port and daemon.status()["pid"] == daemon.pid
    tasks = Process(daemon.pid).tasks()
    assert len(tasks) >= 2, "no worker"
    for task in tasks:
        assert (task["Uid"], task["Gid"], task["Groups"]) == ([str(NOBODY)] * 4, [str(NOBODY)] * 4, [])
        assert {int(task[f"Cap{kind}"][0], 16) for kind in ("Eff", "Prm", "Amb")} == {0}
    assert os.stat(f"{folder}/pid").st_uid == 0
    for name in shared_objects(share):
        assert identity(f"/dev/shm/{name}")[1:3] == (NOBODY, "0o600")
    ran = wait_for(lambda: (command := daemon.status()["command"])["exit_code"] is not None and command, "the command")
    assert ran["output"] == f"{NOBODY}\n" * 3
    daemon.end()
    assert os.listdir(folder) == ["who"] and shared_objects(share) == []


@needs_root
def test_pid_file_in_a_folder_of_root_stays_behind_and_is_taken_over(share, statusd, folder):
    os.chmod(folder, 0o755)
    for _ in range(2):
        daemon = statusd(user=f"{NOBODY}:{NOBODY}", pidfile=f"{folder}/pid", share=share)
        assert read(f"{folder}/pid") == str(daemon.pid)
        daemon.end()
        assert read(f"{folder}/pid") == str(daemon.pid)


@needs_root
def test_sighup_works_without_rights(share, statusd, folder):
    config = os.path.join(folder, "statusd.ini")
    with open(config, "w") as file:
        file.write(f"share = {share}\n")
    daemon = statusd(user=f"{NOBODY}:{NOBODY}", config=config)
    with open(config, "w") as file:
        file.write(f"share = {share}-moved\n")
    daemon.process.send_signal(signal.SIGHUP)
    wait_for(lambda: shared_objects(share) == sorted([f"{share[1:]}-moved", f"sem.{share[1:]}-moved"]), "the objects")


STEPS = {
    "fork": r"(?:v?fork|clone3?)\((?!.*CLONE_THREAD)",
    "thread": r"clone3?\(.*CLONE_THREAD",
    "setsid": r"setsid\(",
    "lock": r"flock\(\d+, LOCK_EX\|LOCK_NB\)",
    "bind": r"bind\(\d+, \{sa_family=AF_INET, ",
    "watchdog": r"openat\(.*/device\", O_WRONLY\|O_CLOEXEC\)",
    "setgroups": r"setgroups\(0,",
    "setgid": rf"set(?:re|res)?gid\({NOBODY}",
    "setuid": rf"set(?:re|res)?uid\({NOBODY}",
    "share": r"openat\(.*\"/dev/shm/",
}


@needs_root
def test_order_of_a_start(share, orphans, folder):
    """Nothing is shared and no thread runs before the rights are gone, and nothing is bound twice."""
    need(shutil.which("strace"), "strace is not installed")
    trace, pidfile, device = (os.path.join(folder, name) for name in ("trace", "pid", "device"))
    with open(device, "w"):
        pass
    words = words_of({"listen": LOOPBACK, "pidfile": pidfile, "share": share, "user": f"{NOBODY}:{NOBODY}",
                      "watchdog": device})
    calls = "trace=fork,vfork,clone,clone3,setsid,flock,bind,openat,/^set(groups|(re|res)?[ug]id)$"
    # The sanitizers' leak check cannot look into a process that is traced; the other tests have it.
    strace = subprocess.Popen(["strace", "-f", "-o", trace, "-e", calls, *command("--daemon", *words)],
                              env={**os.environ, "ASAN_OPTIONS": "detect_leaks=0"})
    try:
        pid = wait_for(lambda: (figures := published(share)) and figures["pid"], "the figures")
    finally:
        if strace.poll() is None and os.path.exists(pidfile):
            os.kill(int(read(pidfile)), signal.SIGTERM)
        strace.wait(PATIENCE)
    assert pid not in [child.pid for child in children() if child.state != "Z"]
    steps = [step for line in read(trace).splitlines() for step, pattern in STEPS.items()
             if re.match(rf"\d+ +{pattern}", line)]
    assert steps[:9] == ["fork", "setsid", "fork", "lock", "bind", "watchdog", "setgroups", "setgid", "setuid"]
    assert set(steps[9:]) == {"thread", "share"}


def test_help_names_the_new_options():
    text = run_statusd("--help").stdout
    for option in ("--daemon", "--pidfile", "--user", "--command", "--command-interval-ms", "--share", "--watchdog",
                   "--watchdog-timeout-s", "--watchdog-hang-ms"):
        assert re.search(rf"{option}\b", text), option
