"""scripts/demo, as a newcomer runs it."""
import os
import re
import signal
import socket
import subprocess
import tempfile

import pytest
from conftest import wait_for

DEMO = os.path.abspath(os.path.join(os.path.dirname(__file__), "../../scripts/demo"))
BUILD_TIME = 400  # seconds; it compiles the library
LINE = r"first: up \d+ s, [^|]* peer \S+.*  \|  second: up \d+ s, [^|]* peer \S+.*"


@pytest.fixture
def temporary():
    """A folder for the demo's temporary files, which must be empty again in the end."""
    with tempfile.TemporaryDirectory() as path:
        os.chmod(path, 0o777)
        yield path
        assert os.listdir(path) == []


def start(temporary, *options, prefix=()):
    # What runs in the background of a script ignores SIGINT, and a script cannot change that for itself.
    return subprocess.Popen([*prefix, DEMO, *options], env={**os.environ, "TMPDIR": temporary, "HOME": temporary},
                            stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True, start_new_session=True,
                            preexec_fn=lambda: signal.signal(signal.SIGINT, signal.SIG_DFL))


def assert_gone(url):
    with pytest.raises(ConnectionRefusedError):
        socket.create_connection(("127.0.0.1", int(re.search(r":(\d+)/", url)[1])))


def check_output(output):
    urls = re.findall(r"^(?:first|second): +(http://127\.0\.0\.1:\d+/)$", output, re.M)
    assert len(set(urls)) == 2, output
    lines = [line for line in output.splitlines() if re.fullmatch(LINE, line)]
    assert len(lines) == 3, output
    assert lines[-1].count("peer up (HTTP 200)") == 2
    for url in urls:
        assert_gone(url)


def test_demo_runs_for_the_seconds_asked_for(temporary):
    demo = start(temporary, "--seconds", "3")
    output, errors = demo.communicate(timeout=BUILD_TIME)
    assert (demo.returncode, errors) == (0, "")
    check_output(output)


@pytest.mark.parametrize("whom", ["terminal", "script"])
def test_ctrl_c_ends_the_demo_cleanly(temporary, whom):
    """A terminal signals every process of the demo, and kill(1) the script only."""
    demo = start(temporary)
    seen = ""
    while not re.search(LINE, seen):
        line = demo.stdout.readline()
        assert line, demo.stderr.read()
        seen += line
    if whom == "terminal":
        os.killpg(demo.pid, signal.SIGINT)
    else:
        demo.send_signal(signal.SIGINT)
    output, errors = demo.communicate(timeout=60)
    assert (demo.returncode, errors) == (0, "")
    for url in re.findall(r"http://\S+", seen):
        assert_gone(url)
    wait_for(lambda: not group_exists(demo.pid), "the demo's processes to end")


def group_exists(group):
    try:
        os.killpg(group, 0)
    except ProcessLookupError:
        return False
    return True


@pytest.mark.skipif(os.getuid() != 0, reason="the tests run as an ordinary user already")
def test_demo_needs_neither_root_nor_a_checkout_it_may_write_to(temporary):
    nobody = ["setpriv", "--reuid=65534", "--regid=65534", "--clear-groups"]
    readable = subprocess.run([*nobody, "test", "-x", DEMO]).returncode == 0
    if not readable:
        pytest.skip("the checkout is not open to other users")
    demo = start(temporary, "--seconds", "3", prefix=nobody)
    output, errors = demo.communicate(timeout=BUILD_TIME)
    assert (demo.returncode, errors) == (0, "")
    check_output(output)


@pytest.mark.parametrize("options", [["--seconds"], ["--seconds", "x"], ["3"], ["--seconds", "1", "2"]])
def test_wrong_options_give_one_line_and_status_2(temporary, options):
    demo = start(temporary, *options)
    output, errors = demo.communicate(timeout=60)
    assert (demo.returncode, output, errors) == (2, "", "usage: scripts/demo [--seconds N]\n")
