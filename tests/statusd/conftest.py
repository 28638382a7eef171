"""What the tests of statusd share: the daemon itself, a peer for it that does what a test wants, and a network."""
import contextlib
import ctypes
import itertools
import json
import os
import pathlib
import re
import select
import signal
import socket
import subprocess
import tempfile
import threading
import time

import pytest
from namespaces import PATIENCE, Namespace, need

MOMENT = 3  # seconds in which what is about to end does so


def wait_for(condition, what):
    """Returns the first true result of condition()."""
    end = time.monotonic() + PATIENCE
    while time.monotonic() < end:
        result = condition()
        if result:
            return result
        time.sleep(0.02)
    pytest.fail(f"gave up waiting for {what}")


def command(*options):
    return [os.environ["STATUSD"], *map(str, options)]


def statusctl_command(*options):
    return [os.environ["STATUSCTL"], *map(str, options)]


def words_of(options):
    """Returns the words of the command line for options whose keywords have "_" for "-"; None leaves one out."""
    return [word for key, value in options.items() if value is not None
            for word in ("--" + key.replace("_", "-"), value)]


def run_statusd(*options, **how):
    return subprocess.run(command(*options), capture_output=True, text=True, errors="replace", timeout=PATIENCE, **how)


def statusctl(*options, prefix=()):
    return subprocess.run([*prefix, *statusctl_command(*options)], capture_output=True, text=True, errors="replace",
                          timeout=PATIENCE)


def published(share):
    """Returns what statusctl reads there, or nothing when it cannot."""
    done = statusctl("--json", share)
    return json.loads(done.stdout) if done.returncode == 0 else None


def read_all(connection):
    data = b""
    while True:
        try:
            chunk = connection.recv(65536)
        except ConnectionResetError:
            return data
        if not chunk:
            return data
        data += chunk


class Reply:
    def __init__(self, data):
        head, _, self.body = data.partition(b"\r\n\r\n")
        lines = head.decode("latin-1").split("\r\n")
        self.status = int(lines[0].split(" ")[1])
        self.headers = dict(line.split(": ", 1) for line in lines[1:])


class Daemon:
    """A running statusd. Its options with a value are keywords.

    It runs in the namespace, if there is one, and behind the words of the prefix.
    """

    def __init__(self, *flags, namespace=None, prefix=(), **options):
        self.namespace = namespace
        options.setdefault("listen", "127.0.0.1:0")
        words = words_of(options)
        self.expected_complaints = 0
        self.paused_at = None  # The number of snapshots at the last pause that nobody has waited behind.
        enter = namespace.enter if namespace else []
        self.process = subprocess.Popen([*enter, *prefix, *command(*flags, *words)], stdout=subprocess.PIPE,
                                        stderr=subprocess.PIPE)
        self.pid = self.process.pid
        if not select.select([self.process.stdout], [], [], PATIENCE)[0]:
            self.process.kill()
            pytest.fail("statusd does not say where it listens")
        line = self.process.stdout.readline().decode()
        found = re.fullmatch(r"listening on (http://([\d.]+):(\d+)/)\n", line)
        if not found:
            self.process.kill()
            pytest.fail(f"unexpected first line {line!r}, {self.process.communicate()[1]!r}")
        self.url, self.port = found[1], int(found[3])

    def connect(self, receive_buffer=None):
        connection = self.namespace.socket() if self.namespace else socket.socket()
        connection.settimeout(PATIENCE)
        if receive_buffer:
            connection.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        connection.connect(("127.0.0.1", self.port))
        return connection

    def send(self, request):
        """Sends these bytes and returns everything that comes back."""
        with self.connect() as connection:
            connection.sendall(request)
            return read_all(connection)

    def ask(self, path, method="GET"):
        return Reply(self.send(f"{method} {path} HTTP/1.1\r\nHost: h\r\n\r\n".encode()))

    def status(self):
        return json.loads(self.ask("/status.json").body.decode())

    def peer(self):
        return self.status()["peer"]

    def wait_for_peer(self, state):
        return wait_for(lambda: (peer := self.peer())["state"] == state and peer, f"peer {state}")

    def _snapshots(self):
        return self.status()["network"]["snapshots"]

    def next_snapshot(self):
        """Waits until the daemon has looked at the network once more, since its last pause if there was one."""
        before = self._snapshots() if self.paused_at is None else self.paused_at
        self.paused_at = None
        return wait_for(lambda: (status := self.status())["network"]["snapshots"] > before and status, "a snapshot")

    @contextlib.contextmanager
    def between_snapshots(self):
        """What happens in here is one change for the daemon."""
        self.paused_at = self.next_snapshot()["network"]["snapshots"]
        self.process.send_signal(signal.SIGSTOP)
        try:
            yield
        finally:
            self.process.send_signal(signal.SIGCONT)

    def _open(self):
        found = set()
        for fd in os.listdir(f"/proc/{self.pid}/fd"):
            with contextlib.suppress(FileNotFoundError):
                found.add((fd, os.readlink(f"/proc/{self.pid}/fd/{fd}")))
        return found

    def descriptors(self):
        """Counts its descriptors, without those that it looks at the network with."""
        before, passing = self._open(), set()
        for family, column in (("netlink", 9), ("unix", 6)):
            with open(f"/proc/{self.pid}/net/{family}") as sockets:
                passing |= {f"socket:[{line.split()[column]}]" for line in sockets}
        return len([link for fd, link in before & self._open()
                    if link not in passing and not link.startswith(("/proc/", "/sys/"))])

    def complaint(self):
        """Waits for the next line on stderr."""
        self.expected_complaints += 1
        assert select.select([self.process.stderr], [], [], PATIENCE)[0], "statusd says nothing"
        return self.process.stderr.readline().decode()

    def end(self, signo=signal.SIGTERM):
        """Ends the daemon, which must be clean: status 0 and no further word on stderr, such as a sanitizer's."""
        if self.process.poll() is None:
            self.process.send_signal(signo)
        try:
            _, errors = self.process.communicate(timeout=PATIENCE)
        except subprocess.TimeoutExpired:
            self.process.kill()
            self.process.communicate()
            pytest.fail("statusd does not end")
        assert (self.process.returncode, errors.decode()) == (0, "")


class Process:
    """What the kernel says about a process, at this moment."""

    def __init__(self, pid):
        with open(f"/proc/{pid}/stat", errors="surrogateescape") as stat:
            self.name, _, rest = stat.read().partition("(")[2].rpartition(")")
        self.pid = pid
        self.state, *numbers = rest.split()
        self.parent, _, self.session, self.terminal = map(int, numbers[:4])

    def cwd(self):
        return os.readlink(f"/proc/{self.pid}/cwd")

    def descriptors(self):
        return {int(fd): os.readlink(f"/proc/{self.pid}/fd/{fd}") for fd in os.listdir(f"/proc/{self.pid}/fd")}

    def tasks(self):
        """Returns what /proc says about the status of each thread."""
        found = []
        for task in os.listdir(f"/proc/{self.pid}/task"):
            with contextlib.suppress(FileNotFoundError, ProcessLookupError):
                with open(f"/proc/{self.pid}/task/{task}/status", errors="surrogateescape") as status:
                    found.append({key: value.split() for key, value in (line.split(":", 1) for line in status)})
        return found


def processes():
    """Returns what /proc says about every process."""
    found = []
    for entry in filter(str.isdigit, os.listdir("/proc")):
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            found.append(Process(int(entry)))
    return found


def children():
    return [process for process in processes() if process.parent == os.getpid()]


def reap(pid):
    """Waits for the end of a child and returns its status, negative for a signal."""
    wait_for(lambda: os.waitid(os.P_PID, pid, os.WEXITED | os.WNOHANG | os.WNOWAIT), f"process {pid} to end")
    return os.waitstatus_to_exitcode(os.waitpid(pid, 0)[1])


def kill(pid):
    """Ends an orphan that has come to this process."""
    os.kill(pid, signal.SIGKILL)
    assert reap(pid) == -signal.SIGKILL


@pytest.fixture
def orphans():
    """Makes this process the parent of what its descendants leave behind: nothing that lasts may outlive the test."""
    become_subreaper = lambda on: ctypes.CDLL(None).prctl(36, on, 0, 0, 0)  # PR_SET_CHILD_SUBREAPER
    before = {child.pid for child in children()}
    become_subreaper(1)
    yield
    left = lambda: [child for child in children() if child.pid not in before]
    alive = lambda: [child.name for child in left() if child.state != "Z"]
    end = time.monotonic() + MOMENT
    while alive() and time.monotonic() < end:
        time.sleep(0.02)
    lasting = alive()
    while children_left := left():
        for child in children_left:  # The children of one that is killed come here, too.
            with contextlib.suppress(ProcessLookupError, ChildProcessError):
                os.kill(child.pid, signal.SIGKILL)
                os.waitpid(child.pid, 0)
    become_subreaper(0)
    assert lasting == []


@pytest.fixture
def folder():
    """A folder in which every user may do everything."""
    with tempfile.TemporaryDirectory() as path:
        os.chmod(path, 0o777)
        yield path


share_numbers = itertools.count()


def shared_objects(share):
    return sorted(name for name in os.listdir("/dev/shm") if share[1:] in name)


@pytest.fixture
def share():
    """A name for shared memory. Nothing of that name, or of one that begins so, may outlive the test."""
    name = f"/statusd-test-{os.getpid()}-{next(share_numbers)}"
    yield name
    left = shared_objects(name)
    for entry in left:
        path = os.path.join("/dev/shm", entry)
        (os.rmdir if os.path.isdir(path) else os.unlink)(path)
    assert left == []


class Background(Daemon):
    """A statusd that has detached itself. It is found by its pid file, and it is an orphan of this process."""

    def __init__(self, *flags, folder, share, cwd=None, pidfile="statusd.pid", **options):
        self.namespace = None
        self.paused_at = None
        self.pidfile = os.path.join(folder, pidfile)
        self.reports = os.path.join(folder, "sanitizer")
        self.returncode = None
        words = words_of({"listen": "127.0.0.1:0", "share": share, "pidfile": pidfile if cwd else self.pidfile,
                          **options})
        done = run_statusd("--daemon", *flags, *words, cwd=cwd, env=self._environment())
        assert (done.returncode, done.stdout, done.stderr) == (0, "", "")
        self.pid = wait_for(self._pid, "the pid file")
        self.figures = wait_for(lambda: self._figures(share), "the figures")
        self.url = self.figures["url"]
        self.port = int(re.fullmatch(r"http://[\d.]+:(\d+)/", self.url)[1])

    def _pid(self):
        """Returns what the file holds, once that is a process that has come to this one."""
        with contextlib.suppress(FileNotFoundError, ProcessLookupError):
            text = pathlib.Path(self.pidfile).read_text()
            if text.isdecimal() and Process(int(text)).parent == os.getpid():
                return int(text)
        return None

    def _environment(self):
        """Nobody sees what a sanitizer says on stderr of a daemon."""
        environment = dict(os.environ)
        for sanitizer in ("ASAN", "LSAN", "TSAN", "UBSAN"):
            key = f"{sanitizer}_OPTIONS"
            environment[key] = ":".join(filter(None, [environment.get(key), f"log_path={self.reports}"]))
        return environment

    def _figures(self, share):
        figures = published(share)
        return figures if figures and figures["pid"] == self.pid else None

    def end(self, signo=signal.SIGTERM, returncode=0):
        """Ends the daemon, with this status and without a sanitizer's word."""
        os.kill(self.pid, signo)
        self.returncode = reap(self.pid)
        assert self.returncode == returncode
        folder, name = os.path.split(self.reports)
        assert [entry for entry in os.listdir(folder) if entry.startswith(name)] == []


@pytest.fixture
def background(share, orphans, folder):
    """Starts daemons that detach themselves, and end, cleanly, with the test."""
    with contextlib.ExitStack() as stack:

        def start(*flags, **options):
            daemon = Background(*flags, **{"folder": folder, "share": share, **options})
            stack.callback(lambda: daemon.returncode is None and daemon.end())
            return daemon

        yield start


@pytest.fixture
def statusd():
    """Starts daemons that end, cleanly, with the test."""
    with contextlib.ExitStack() as stack:

        def start(*flags, **options):
            daemon = Daemon(*flags, **options)
            stack.callback(lambda: daemon.process.returncode is None and daemon.end())
            return daemon

        yield start


class FakePeer:
    """Accepts connections, reads the request, and lets answer(connection) do as it likes, each on a thread."""

    def __init__(self, answer):
        self.answer = answer
        self.requests = []
        self.most_at_once = 0
        self.stopping = threading.Event()
        self._at_once = 0
        self._lock = threading.Lock()
        self._threads = []
        self._listener = socket.create_server(("127.0.0.1", 0))
        self._listener.settimeout(0.1)
        self.port = self._listener.getsockname()[1]
        self.url = f"http://127.0.0.1:{self.port}/watched"
        self._acceptor = threading.Thread(target=self._accept)
        self._acceptor.start()

    def _accept(self):
        while not self.stopping.is_set():
            with contextlib.suppress(socket.timeout):
                thread = threading.Thread(target=self._serve, args=(self._listener.accept()[0],))
                thread.start()
                self._threads.append(thread)

    def _serve(self, connection):
        with self._lock:
            self._at_once += 1
            self.most_at_once = max(self.most_at_once, self._at_once)
        # A connection counts until the other side has gone, not until the answer is out.
        with connection, contextlib.suppress(OSError):
            connection.settimeout(10)
            self.requests.append(connection.recv(4096))
            self.answer(connection)
        with self._lock:
            self._at_once -= 1

    def until_gone(self, connection):
        """Keeps the connection open, in silence, until the client closes it or the test ends."""
        while not self.stopping.is_set():
            if select.select([connection], [], [], 0.05)[0] and not connection.recv(4096):
                return

    def close(self):
        self.stopping.set()
        self._acceptor.join()
        self._listener.close()
        for thread in self._threads:
            thread.join()


@pytest.fixture
def fake_peer():
    """Starts peers from functions answer(peer, connection)."""
    with contextlib.ExitStack() as stack:

        def start(answer):
            peer = FakePeer(lambda connection: answer(peer, connection))
            stack.callback(peer.close)
            return peer

        yield start


class Network(Namespace):
    """Namespaces with ip(8), and sockets, in them."""

    def ip(self, words, **options):
        """Runs ip(8) with these words."""
        process = self.run("ip", *words.split(), **options)
        assert process.returncode == 0, (words, process.stderr)
        return process.stdout

    def batch(self, lines):
        """Runs ip(8) once with many lines."""
        self.ip("-batch -", input="".join(line + "\n" for line in lines).encode(errors="surrogateescape"))

    def see(self, words):
        """Returns what ip(8) shows, with numbers for names."""
        return json.loads(self.ip("-json -Numeric " + words))

    def socket(self):
        """Returns a TCP socket of this network: it belongs to the one that its thread is in when it is made."""
        made = []

        def make():
            with open(f"/proc/{self.pid}/ns/net") as handle:
                if ctypes.CDLL(None, use_errno=True).setns(handle.fileno(), 0) == 0:
                    made.append(socket.socket())

        thread = threading.Thread(target=make)
        thread.start()
        thread.join()
        return made[0]


@pytest.fixture
def namespace():
    """A network whose loopback interface is up, and where v0 and v1 are the ends of one cable."""
    need(os.geteuid() == 0, "sockets of another network need root")
    made = Network()
    try:
        made.batch(["link set lo up", "link add v0 type veth peer name v1", "link set v0 address 02:00:00:00:00:10", "link set v0 up",
                    "link set v1 up", "addr add 192.0.2.1/24 dev v0"])
        wait_for(lambda: made.see("link show v0")[0]["operstate"] == "UP", "v0 to be up")
        yield made
    finally:
        made.close()
