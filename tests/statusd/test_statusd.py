"""statusd as its clients, its peers and its administrator see it."""
import json
import os
import random
import re
import resource
import signal
import socket
import struct
import subprocess
import time

import pytest
from conftest import PATIENCE, Reply, command, read_all, run_statusd, wait_for

SIMPLE = b"GET / HTTP/1.1\r\nHost: h\r\n\r\n"
GOOD_ANSWER = b"HTTP/1.1 200 OK\r\nConnection: close\r\n\r\nhello"


def repr_of(value):
    return repr(value)[:40]


# ------------------------------------------------------------------------------------------------------ pages


def test_root_is_the_page_for_people(statusd):
    reply = statusd().ask("/")
    assert reply.status == 200
    assert reply.headers["Content-Type"] == "text/html; charset=utf-8"
    assert int(reply.headers["Content-Length"]) == len(reply.body)
    assert reply.body.startswith(b"<!doctype html>") and reply.body.endswith(b"</html>\n")
    assert reply.headers["Connection"] == "close"
    assert reply.headers["Cache-Control"] == "no-store"


def test_policy_lets_the_page_run_its_own_script_and_style_only(statusd):
    daemon = statusd()
    reply, other = daemon.ask("/"), daemon.ask("/")
    policy = dict(part.split(" ", 1) for part in reply.headers["Content-Security-Policy"].split("; "))
    nonces = set(re.findall(rb'nonce="([^"]*)"', reply.body))
    assert len(nonces) == 1 and b"{{nonce}}" not in reply.body
    nonce = nonces.pop().decode()
    assert re.fullmatch("[0-9a-f]{32}", nonce)
    assert policy == {
        "default-src": "'none'", "connect-src": "'self'", "img-src": "data:", "script-src": f"'nonce-{nonce}'",
        "style-src": f"'nonce-{nonce}'", "base-uri": "'none'", "form-action": "'none'", "frame-ancestors": "'none'",
    }
    assert nonce not in other.headers["Content-Security-Policy"]


def test_page_needs_nothing_from_another_site(statusd):
    addresses = set(re.findall(rb"(?:https?:)?//[\w.]+[^\s\"']*", statusd().ask("/").body))
    assert addresses <= {b"http://www.w3.org/2000/svg"}


def test_status_is_json_with_every_field(statusd):
    reply = statusd(name="device").ask("/status.json")
    assert reply.headers["Content-Type"] == "application/json; charset=utf-8"
    assert reply.headers["Content-Security-Policy"] == "default-src 'none'; frame-ancestors 'none'"
    assert int(reply.headers["Content-Length"]) == len(reply.body)
    status = json.loads(reply.body)
    peer = {"url": None, "state": "none", "http_status": None, "response_ms": None, "fetches": 0, "skipped": 0,
            "history": []}
    assert status["name"] == "device" and status["peer"] == peer
    assert status["requests"] == 1 and status["clients"] == 1
    for key in ("uptime_s", "loop_passes", "timers_fired"):
        assert isinstance(status[key], int)
    assert set(status["network"]) == {"snapshots", "took_ms"}
    for table in ("interfaces", "routes", "neighbours", "traffic", "disks"):
        assert set(status[table]) == {"total", "rows"}
    assert set(status["machine"]) == {"uptime_s", "load", "busy_percent", "memory", "history"}
    assert status["settings"] is None and status["watchdog"] is None


def test_figures_advance(statusd):
    daemon = statusd()
    first = daemon.status()
    wait_for(lambda: all(daemon.status()[key] > first[key] for key in ("uptime_s", "loop_passes", "timers_fired")),
             "figures to advance")
    assert daemon.status()["requests"] > first["requests"]


def test_a_request_costs_few_passes_of_the_loop(statusd):
    daemon = statusd()
    first = daemon.status()
    for _ in range(50):
        daemon.ask("/status.json")
    last = daemon.status()
    timers = last["timers_fired"] - first["timers_fired"]
    passes = last["loop_passes"] - first["loop_passes"]
    # Accept, read and the client's end make three passes at most, and two of them may fall into one.
    assert 51 <= passes <= 3 * 51 + timers


def test_handlers_of_one_pass_count_as_one_pass(statusd):
    daemon = statusd()
    before = daemon.status()["loop_passes"]
    daemon.process.send_signal(signal.SIGSTOP)
    clients = [daemon.connect() for _ in range(30)]
    for client in clients:
        client.sendall(SIMPLE)
        client.shutdown(socket.SHUT_WR)
    # All of them are ready when it goes on: one pass accepts them, one answers, and one meets their ends.
    daemon.process.send_signal(signal.SIGCONT)
    for client in clients:
        assert Reply(read_all(client)).status == 200
        client.close()
    assert daemon.status()["loop_passes"] - before < 30


@pytest.mark.parametrize("name", ['quo"te', "back\\slash", "Küche", "</script>", "smile \U0001f600"])
def test_name_survives_json(statusd, name):
    assert statusd(name=name).status()["name"] == name


def test_name_that_is_not_utf8_still_gives_valid_json(statusd):
    name = os.fsdecode(b"a\xff\xc0\x80\xed\xa0\x80\xf5b\xe2\x82")
    assert re.fullmatch("a\ufffd+b\ufffd+", statusd(name=name).status()["name"])


@pytest.mark.parametrize("path, status", [
    ("/status.json?x=1", 200), ("/?", 200), ("/other", 404), ("/status.json/", 404), ("//", 404), ("/../", 404),
])
def test_path(statusd, path, status):
    reply = statusd().ask(path)
    assert reply.status == status
    assert int(reply.headers["Content-Length"]) == len(reply.body)


@pytest.mark.parametrize("path", ["/", "/status.json", "/other"])
def test_head_is_get_without_the_body(statusd, path):
    daemon = statusd()
    head, get = daemon.ask(path, "HEAD"), daemon.ask(path)
    assert head.status == get.status and head.body == b""
    assert head.headers["Content-Type"] == get.headers["Content-Type"]
    assert int(head.headers["Content-Length"]) >= 10


@pytest.mark.parametrize("method", ["POST", "PUT", "DELETE", "OPTIONS", "get", "X" * 1000])
def test_other_methods_are_refused(statusd, method):
    reply = statusd().ask("/", method)
    assert reply.status == 405
    assert reply.headers["Allow"] == "GET, HEAD"


@pytest.mark.parametrize("request_bytes, status", [
    (b"GET / HTTP/1.0\r\n\r\n", 200),
    (b"GET / HTTP/1.1\nhOsT: h\n\n", 200),
    (b"GET / HTTP/1.1\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: a\r\nHost: b\r\n\r\n", 400),
    (b"GET / HTTP/1.1\r\nHost: h\r\nno colon\r\n\r\n", 400),
    (b"GET / HTTP/2.0\r\nHost: h\r\n\r\n", 505),
    (b"GET / SPDY\r\nHost: h\r\n\r\n", 400),
    (b"GET /\r\n\r\n", 400),
    (b"GET  / HTTP/1.1\r\nHost: h\r\n\r\n", 400),
    (b"GET h/ HTTP/1.1\r\nHost: h\r\n\r\n", 400),
    (b"GET /\x00 HTTP/1.1\r\nHost: h\r\n\r\n", 400),
    (b"GET /\xff HTTP/1.1\r\nHost: h\r\n\r\n", 400),
    (b"\r\n\r\n", 400),
    (b"\n\n", 400),
    (b"\x16\x03\x01\x02\x00\r\n\r\n", 400),
    (b"GET /" + b"a" * 8170 + b" HTTP/1.1\r\nHost: h\r\n\r\n", 431),
    (b"GET /" + b"a" * 8192, 414),
    (b"GET /" + b"a" * 9000 + b" HTTP/1.1\r\nHost: h\r\n\r\n", 414),
    (b"GET / HTTP/1.1\r\nHost: h\r\n" + b"A: b\r\n" * 2000 + b"\r\n", 431),
    (b"\x00" * 100000, 414),
], ids=repr_of)
def test_request(statusd, request_bytes, status):
    assert Reply(statusd().send(request_bytes)).status == status


def test_head_of_8_kib_is_taken(statusd):
    start = b"GET / HTTP/1.1\r\nHost: h\r\nA: "
    request = start + b"a" * (8192 - len(start)) + b"\r\n\r\n"
    assert Reply(statusd().send(request)).status == 200


def test_request_may_come_byte_by_byte(statusd):
    daemon = statusd()
    with daemon.connect() as connection:
        connection.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        for byte in SIMPLE:
            connection.sendall(bytes([byte]))
        assert Reply(read_all(connection)).status == 200


def test_hostile_bytes_leave_nothing_behind(statusd):
    daemon = statusd(client_deadline_ms=1000)
    before = daemon.descriptors()
    generator = random.Random(4711)
    for _ in range(200):
        noise = bytearray(SIMPLE * 3) if generator.random() < 0.5 else bytearray(generator.randbytes(300))
        for _ in range(generator.randrange(10)):
            noise[generator.randrange(len(noise))] = generator.randrange(256)
        with daemon.connect() as connection:
            connection.sendall(noise)
            connection.shutdown(socket.SHUT_WR)
            answer = read_all(connection)
        assert answer == b"" or Reply(answer).status in (200, 400, 404, 405, 505)
    wait_for(lambda: daemon.descriptors() == before, "descriptors to be closed")


# ------------------------------------------------------------------------------------------------------ slow clients


def test_silent_client_holds_up_nobody_and_is_cut_off(statusd):
    daemon = statusd(client_deadline_ms=700)
    before = daemon.descriptors()
    with daemon.connect() as silent, daemon.connect() as dripping:
        dripping.sendall(b"GET /")
        assert daemon.status()["clients"] == 3
        assert read_all(silent) == b"" and read_all(dripping) == b""
    wait_for(lambda: daemon.descriptors() == before, "descriptors to be closed")


def test_dripping_client_gets_no_more_time(statusd):
    daemon = statusd(client_deadline_ms=500)
    with daemon.connect() as connection:
        end = time.monotonic() + PATIENCE
        with pytest.raises(OSError):
            while time.monotonic() < end:
                connection.sendall(b"A")
                time.sleep(0.01)


def test_half_closed_client_gets_its_answer(statusd):
    daemon = statusd()
    with daemon.connect() as connection:
        connection.sendall(SIMPLE)
        connection.shutdown(socket.SHUT_WR)
        reply = Reply(read_all(connection))
    assert len(reply.body) == int(reply.headers["Content-Length"])


def test_half_closed_client_without_a_request_is_let_go_at_once(statusd):
    daemon = statusd(client_deadline_ms=3600000)
    with daemon.connect() as connection:
        connection.sendall(b"GET / HT")
        connection.shutdown(socket.SHUT_WR)
        assert read_all(connection) == b""


def test_client_that_never_closes_is_cut_off(statusd):
    daemon = statusd(client_deadline_ms=500)
    before = daemon.descriptors()
    with daemon.connect() as connection:
        connection.sendall(SIMPLE)
        assert Reply(read_all(connection)).status == 200
        wait_for(lambda: daemon.descriptors() == before, "the connection to be closed")


def test_descriptor_is_free_as_soon_as_the_client_closes(statusd):
    daemon = statusd(client_deadline_ms=3600000)
    before = daemon.descriptors()
    for _ in range(30):
        daemon.ask("/")
    wait_for(lambda: daemon.descriptors() == before, "descriptors to be closed")


@pytest.mark.parametrize("requests", [1, 2000])
def test_slow_reader_gets_one_whole_answer_however_much_it_asks(statusd, requests):
    daemon = statusd()
    with daemon.connect(receive_buffer=2048) as slow:
        slow.sendall(SIMPLE * requests)
        assert daemon.status()["clients"] == 2
        data = b""
        while chunk := slow.recv(700):
            data += chunk
            time.sleep(0.002)
    reply = Reply(data)
    assert len(reply.body) == int(reply.headers["Content-Length"])


def test_client_that_does_not_read_holds_up_nobody_and_is_cut_off(statusd):
    daemon = statusd(client_deadline_ms=700)
    before = daemon.descriptors()
    with daemon.connect(receive_buffer=2048) as stuck:
        stuck.sendall(SIMPLE)
        stuck.shutdown(socket.SHUT_WR)
        first = daemon.status()
        wait_for(lambda: daemon.descriptors() == before, "the connection to be closed")
        last = daemon.status()
        # Waiting for it to read costs no passes: those of this test's own requests are counted generously.
        assert last["loop_passes"] - first["loop_passes"] < 100 + 4 * last["requests"]
        assert len(read_all(stuck)) < len(daemon.send(SIMPLE))


def test_clients_that_reset_leave_nothing_behind(statusd):
    daemon = statusd(client_deadline_ms=3600000)
    before = daemon.descriptors()
    for request in (b"", b"GET /", SIMPLE) * 10:
        connection = daemon.connect()
        connection.sendall(request)
        connection.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, struct.pack("ii", 1, 0))
        connection.close()
    wait_for(lambda: daemon.descriptors() == before, "descriptors to be closed")
    assert daemon.ask("/").status == 200


def test_oldest_connection_makes_room(statusd):
    daemon = statusd(max_clients=3, client_deadline_ms=3600000)
    idle = [daemon.connect() for _ in range(3)]
    wait_for(lambda: daemon.descriptors() >= 3, "the connections")
    assert daemon.ask("/").status == 200
    assert read_all(idle[0]) == b""
    for connection in idle[1:]:
        connection.sendall(SIMPLE)
        assert Reply(read_all(connection)).status == 200
    for connection in idle:
        connection.close()


def test_no_descriptor_left_neither_spins_nor_ends_it(statusd):
    daemon = statusd()
    before = daemon.descriptors()
    # Whatever will run without descriptors runs with them first: the undefined-behaviour sanitizer opens a pipe to look
    # at a kind of object for the first time, and takes a failure for an invalid object.
    assert daemon.ask("/").status == 200
    wait_for(lambda: daemon.status()["timers_fired"] > 1, "a timer")
    first = daemon.next_snapshot()
    wait_for(lambda: daemon.descriptors() == before, "the connections to be closed")
    soft, hard = resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE)
    lowest_free = min(set(range(1000)) - {int(fd) for fd in os.listdir(f"/proc/{daemon.pid}/fd")})
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (lowest_free, hard))
    waiting = [daemon.connect() for _ in range(5)]
    for connection in waiting:
        connection.sendall(SIMPLE)
    waiting[0].settimeout(1)
    with pytest.raises(socket.timeout):
        waiting[0].recv(1)
    resource.prlimit(daemon.pid, resource.RLIMIT_NOFILE, (soft, hard))
    for connection in waiting:
        connection.settimeout(PATIENCE)
        assert Reply(read_all(connection)).status == 200
        connection.close()
    last = daemon.status()
    timers = last["timers_fired"] - first["timers_fired"]
    # One try for each timer, and three passes for each request.
    assert last["loop_passes"] - first["loop_passes"] < 2 * timers + 3 * 10


# ------------------------------------------------------------------------------------------------------ peer


def answering(data):
    return lambda peer, connection: connection.sendall(data)


def test_peer_that_answers_is_up(statusd, fake_peer):
    peer = fake_peer(answering(GOOD_ANSWER))
    daemon = statusd(peer=peer.url, interval_ms=50)
    seen = daemon.wait_for_peer("up")
    assert seen["url"] == peer.url and seen["http_status"] == 200
    assert seen["response_ms"] > 0
    assert seen["response_ms"] == seen["history"][-1]
    assert peer.requests[0] == b"GET /watched HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n"


def test_history_keeps_the_last_60(statusd, fake_peer):
    daemon = statusd(peer=fake_peer(answering(GOOD_ANSWER)).url, interval_ms=50)
    peer = wait_for(lambda: (peer := daemon.peer())["fetches"] > 65 and peer, "65 fetches")
    assert len(peer["history"]) == 60


def test_peer_that_refuses_connections_is_down(statusd):
    with socket.socket() as nobody:
        nobody.bind(("127.0.0.1", 0))
        daemon = statusd(peer=f"http://127.0.0.1:{nobody.getsockname()[1]}/", interval_ms=50)
        peer = daemon.wait_for_peer("down")
    assert peer["http_status"] is None and peer["response_ms"] is None
    assert set(peer["history"]) == {None}


def test_peer_that_accepts_no_connection_is_down(statusd):
    """A full backlog leaves a connection attempt without any answer."""
    with socket.socket() as full:
        full.bind(("127.0.0.1", 0))
        full.listen(0)
        crowd = [socket.socket() for _ in range(3)]
        for client in crowd:
            client.setblocking(False)
            client.connect_ex(full.getsockname())
        daemon = statusd(peer=f"http://127.0.0.1:{full.getsockname()[1]}/", interval_ms=50)
        assert daemon.peer()["state"] == "waiting"
        assert daemon.wait_for_peer("down")["skipped"] > 0
        for client in crowd:
            client.close()


@pytest.mark.parametrize("answer, status", [
    (b"HTTP/1.1 500 Internal Server Error\r\n\r\n", 500),
    (b"HTTP/1.1 404 Not Found\r\n\r\nnothing here", 404),
])
def test_peer_with_an_http_error_is_not_up(statusd, fake_peer, answer, status):
    peer = statusd(peer=fake_peer(answering(answer)).url, interval_ms=50).wait_for_peer("error")
    assert peer["http_status"] == status and peer["response_ms"] > 0


def test_redirect_is_not_followed(statusd, fake_peer):
    target = fake_peer(answering(GOOD_ANSWER))
    location = f"Location: {target.url}\r\n".encode()
    redirect = b"HTTP/1.1 302 Found\r\n" + location + b"\r\n" + location + b"\r\n"
    daemon = statusd(peer=fake_peer(answering(redirect)).url, interval_ms=50)
    assert daemon.wait_for_peer("error")["http_status"] == 302
    assert target.requests == []


@pytest.mark.parametrize("answer", [
    b"SSH-2.0-OpenSSH_9.2\r\n", b"", b"HTTP/1.1 200 OK\r\nServer: cut", b"220 200 hello\r\n\r\n",
    b"HTTP/1.1 999 What\r\n\r\n", b"HTTP/1.1 abc\r\n\r\n", b"HTTP/1.1\r\n\r\n", b"HTTP/1.1 -5\r\n\r\n",
    b"\x00" * 5000, b"HTTP/1.1 200 OK\r\n" + b"A: b\r\n" * 2000 + b"\r\nhello",
], ids=repr_of)
def test_peer_that_does_not_speak_http_talks_nonsense(statusd, fake_peer, answer):
    peer = statusd(peer=fake_peer(answering(answer)).url, interval_ms=50, timeout_ms=5000).wait_for_peer("nonsense")
    assert peer["http_status"] is None and peer["response_ms"] is None


def endless(head, piece):
    def answer(peer, connection):
        connection.sendall(head)
        while not peer.stopping.is_set():
            connection.sendall(piece)

    return answer


@pytest.mark.parametrize("head, piece", [
    (b"HTTP/1.1 200 OK\r\n\r\n", b"x" * 65536), (b"HTTP/1.1 200 OK\r\n", b"A: " + b"x" * 65536),
], ids=["body", "head"])
def test_peer_without_an_end_talks_nonsense_and_takes_no_memory(statusd, fake_peer, head, piece):
    daemon = statusd(peer=fake_peer(endless(head, piece)).url, interval_ms=50, timeout_ms=5000)
    daemon.wait_for_peer("nonsense")
    wait_for(lambda: daemon.peer()["fetches"] > 5, "some fetches")
    with open(f"/proc/{daemon.pid}/status") as status:
        peak = int(re.search(r"VmHWM:\s+(\d+) kB", status.read())[1])
    assert peak < 200 * 1024


def dripping(head, piece):
    def answer(peer, connection):
        connection.sendall(head)
        while not peer.stopping.wait(0.05):
            connection.sendall(piece)

    return answer


@pytest.mark.parametrize("answer", [
    lambda peer, connection: peer.until_gone(connection),
    dripping(b"HTTP/1.1 200 OK\r\n", b"A"),
    dripping(b"HTTP/1.1 200 OK\r\n\r\n", b"x"),
], ids=["silent", "dripping head", "dripping body"])
def test_peer_without_an_answer_in_time_is_slow_and_cut_off(statusd, fake_peer, answer):
    peer = fake_peer(answer)
    daemon = statusd(peer=peer.url, interval_ms=50, timeout_ms=200)
    seen = daemon.wait_for_peer("slow")
    assert seen["response_ms"] is None and seen["history"][-1] is None
    wait_for(lambda: daemon.peer()["fetches"] >= 3 and daemon.peer()["skipped"] >= 3, "three fetches, three skipped")
    assert peer.most_at_once <= 2  # The fake peer notices the end of one only after the next has come.


def test_late_answer_is_slow_with_its_time(statusd, fake_peer):
    def answer(peer, connection):
        peer.stopping.wait(0.3)
        connection.sendall(GOOD_ANSWER)

    daemon = statusd(peer=fake_peer(answer).url, interval_ms=50, timeout_ms=5000, slow_ms=100)
    peer = daemon.wait_for_peer("slow")
    assert peer["http_status"] == 200 and peer["response_ms"] >= 300


def test_one_fetch_at_a_time(statusd, fake_peer):
    peer = fake_peer(lambda peer, connection: peer.until_gone(connection))
    daemon = statusd(peer=peer.url, interval_ms=50, timeout_ms=5000)
    assert wait_for(lambda: (seen := daemon.peer())["skipped"] >= 10 and seen, "skipped ticks")["fetches"] == 0
    assert len(peer.requests) == 1


def test_slow_peer_does_not_hold_up_the_page(statusd, fake_peer):
    peer = fake_peer(lambda peer, connection: peer.until_gone(connection))
    daemon = statusd(peer=peer.url, timeout_ms=5000)
    wait_for(lambda: peer.requests, "the fetch to begin")
    assert daemon.peer()["fetches"] == 0
    assert len(peer.requests) == 1


def test_peer_comes_back(statusd):
    with socket.socket() as place:
        place.bind(("127.0.0.1", 0))
        port = place.getsockname()[1]
    daemon = statusd(peer=f"http://127.0.0.1:{port}/status.json", interval_ms=50)
    daemon.wait_for_peer("down")
    statusd(listen=f"127.0.0.1:{port}")
    history = daemon.wait_for_peer("up")["history"]
    assert history[0] is None and history[-1] is not None


def test_fetching_leaves_no_descriptor_open(statusd, fake_peer):
    daemon = statusd(peer=fake_peer(answering(GOOD_ANSWER)).url, interval_ms=50)
    daemon.wait_for_peer("up")
    seen = set()
    wait_for(lambda: seen.add(daemon.descriptors()) or daemon.peer()["fetches"] > 30, "30 fetches")
    assert max(seen) - min(seen) <= 3


# ------------------------------------------------------------------------------------------------------ signals


@pytest.mark.parametrize("signo", [signal.SIGTERM, signal.SIGINT])
def test_signal_ends_it_and_closes_everything(statusd, signo):
    daemon = statusd()
    with daemon.connect() as open_connection:
        daemon.status()
        daemon.end(signo)
        assert read_all(open_connection) == b""
    with pytest.raises(ConnectionRefusedError):
        daemon.connect()


def test_ctrl_c_ends_it_when_a_script_runs_it_in_the_background(statusd):
    """A shell without job control has its background children ignore SIGINT."""
    previous = signal.signal(signal.SIGINT, signal.SIG_IGN)
    try:
        daemon = statusd()
    finally:
        signal.signal(signal.SIGINT, previous)
    daemon.end(signal.SIGINT)


@pytest.mark.parametrize("answer", [
    lambda peer, connection: peer.until_gone(connection), dripping(b"HTTP/1.1 200 OK\r\n\r\n", b"x"),
], ids=["silent", "dripping"])
def test_it_ends_in_the_middle_of_a_fetch(statusd, fake_peer, answer):
    peer = fake_peer(answer)
    daemon = statusd(peer=peer.url, timeout_ms=5000)
    wait_for(lambda: peer.requests, "the fetch to begin")
    daemon.end()


def test_sighup_reads_the_settings_again(statusd, fake_peer, tmp_path):
    peer = fake_peer(answering(GOOD_ANSWER))
    config = tmp_path / "statusd.ini"
    config.write_text("name = before\ninterval_ms = 3600000\n")
    daemon = statusd(config=config)
    assert daemon.status()["name"] == "before" and daemon.peer()["state"] == "none"
    config.write_text(f"name = after\npeer = {peer.url}\ninterval_ms = 50\nmax_clients = 2\n")
    daemon.process.send_signal(signal.SIGHUP)
    assert daemon.wait_for_peer("up")["url"] == peer.url
    assert daemon.status()["name"] == "after"
    with daemon.connect() as first, daemon.connect():
        daemon.ask("/")
        assert read_all(first) == b""


def test_new_peer_starts_a_new_history(statusd, fake_peer, tmp_path):
    silent = fake_peer(lambda peer, connection: peer.until_gone(connection))
    good = fake_peer(answering(GOOD_ANSWER))
    config = tmp_path / "statusd.ini"
    config.write_text(f"peer = {silent.url}\ninterval_ms = 50\ntimeout_ms = 5000\n")
    daemon = statusd(config=config)
    wait_for(lambda: daemon.peer()["skipped"] > 0, "a fetch under way")
    config.write_text(f"peer = {good.url}\ninterval_ms = 50\ntimeout_ms = 5000\n")
    daemon.process.send_signal(signal.SIGHUP)
    peer = daemon.wait_for_peer("up")
    assert None not in peer["history"]
    config.write_text("interval_ms = 50\n")
    daemon.process.send_signal(signal.SIGHUP)
    assert daemon.wait_for_peer("none")["history"] == []


@pytest.mark.parametrize("text", ["[nonsense", "peer = ftp://h/\n", "#" * 65536, None], ids=repr_of)
def test_bad_file_at_sighup_keeps_the_old_settings_and_says_so(statusd, tmp_path, text):
    config = tmp_path / "statusd.ini"
    config.write_text("name = before\n")
    daemon = statusd(config=config)
    if text is None:
        config.unlink()
    else:
        config.write_text("name = after\n" + text)
    daemon.process.send_signal(signal.SIGHUP)
    assert re.fullmatch(r"statusd: .*statusd\.ini.*; the old settings stay\n", daemon.complaint())
    assert daemon.status()["name"] == "before"


def test_options_still_win_after_sighup(statusd, tmp_path):
    config = tmp_path / "statusd.ini"
    config.write_text("name = file\ninterval_ms = 50\n")
    daemon = statusd(config=config, name="option")
    config.write_text("name = other\npeer = http://127.0.0.1:1/\n")
    daemon.process.send_signal(signal.SIGHUP)
    daemon.wait_for_peer("down")
    assert daemon.status()["name"] == "option"


def test_new_listen_address_waits_for_the_next_start(statusd, tmp_path):
    config = tmp_path / "statusd.ini"
    config.write_text("listen = 127.0.0.1:0\n")
    daemon = statusd(config=config, listen=None)
    config.write_text("listen = 127.0.0.2:1\n")
    for _ in range(2):  # It says so each time: the old address stays the one in use.
        daemon.process.send_signal(signal.SIGHUP)
        assert daemon.complaint() == "statusd: the new listen address takes effect at the next start\n"
    config.write_text("listen = 127.0.0.1:0\n")
    daemon.process.send_signal(signal.SIGHUP)
    assert daemon.status()["peer"]["state"] == "none"


def test_loop_that_cannot_wait_ends_with_status_1_and_one_line():
    # The sanitizers' leak check cannot look into a process that is traced; the other tests have it.
    environment = {**os.environ, "ASAN_OPTIONS": "detect_leaks=0"}
    failing = ["strace", "-f", "-o", "/dev/null", "-e", "inject=poll:error=EIO:when=3"]
    done = subprocess.run(failing + command("--listen", "127.0.0.1:0"), env=environment, capture_output=True, text=True,
                          timeout=PATIENCE)
    assert (done.returncode, done.stderr) == (1, "statusd: cannot wait for events: Input/output error\n")


def test_sighup_without_a_file_changes_nothing(statusd):
    daemon = statusd(name="steady")
    passes = daemon.status()["loop_passes"]
    daemon.process.send_signal(signal.SIGHUP)
    wait_for(lambda: daemon.status()["loop_passes"] > passes + 3, "some passes")
    assert daemon.status()["name"] == "steady"


# ------------------------------------------------------------------------------------------------------ start


@pytest.mark.parametrize("options", [
    ["--unknown"], ["--max_clients", "1"], ["extra"], ["--peer"], ["--config"], ["-h"], [""], ["--report=1"],
    ["--listen", "8080"], ["--listen", "127.0.0.1"], ["--listen", "127.0.0.1:65536"], ["--listen", "localhost:0"],
    ["--listen", "127.0.0.1:"], ["--listen", ":80"], ["--listen", "127.0.0.1:-1"], ["--listen", "127.0.0.1:8 "],
    ["--peer", "https://127.0.0.1/"], ["--peer", "127.0.0.1"], ["--peer", "http:///x"],
    ["--peer", "http://127.0.0.1:99999/"], ["--peer", "http://127.0.0.1/a b"], ["--peer", "http://example.com/"],
    ["--peer", "http://127.0.0.1/\r\nX: y"], ["--interval-ms", "0"], ["--interval-ms", "1e3"],
    ["--interval-ms", ""], ["--interval-ms", "99999999999999999999"], ["--timeout-ms", "5001"],
    ["--slow-ms", "-1"], ["--client-deadline-ms", "x"], ["--max-clients", "0"], ["--name", ""],
    ["--name", "x" * 65], ["--name", "two\nlines"],
])
def test_bad_option_gives_one_line_and_status_2(options):
    result = run_statusd(*options)
    assert (result.returncode, result.stdout) == (2, "")
    assert re.fullmatch(r"statusd: [^\n]+\n", result.stderr)


@pytest.mark.parametrize("text, why", [
    ("\n# fine\nunknown = 1\n", 'unknown setting "unknown"'),
    ("config = other.ini\n", 'unknown setting "config"'),
    ("interval_ms = soon\n", 'interval_ms must be a number from 50 to 3600000, not "soon"'),
    ("name = a\npeer = nowhere\n", "peer must be an http:// URL with an IPv4 address or localhost, such as "
                                   'http://192.0.2.1:8080/, not "nowhere"'),
    ("name = \x01\n", 'name must have 1 to 64 bytes and no control characters, not "?"'),
    ("command = a\0b\n", 'command must have no NUL bytes, not "a?b"'),
    ("interval_ms = 50\ninterval_ms =\n", 'interval_ms must be a number from 50 to 3600000, not ""'),
    ("watchdog = dev/watchdog\n", "watchdog must be the absolute path of a device, such as /dev/watchdog, not "
                                  '"dev/watchdog"'),
    ("watchdog = /dev/a\0b\n", "watchdog must be the absolute path of a device, such as /dev/watchdog, not "
                               '"/dev/a?b"'),
    ("watchdog_timeout_s = 2\n", 'watchdog_timeout_s must be a number from 3 to 86400, not "2"'),
    ("watchdog_hang_ms = 999\n", 'watchdog_hang_ms must be a number from 1000 to 3600000, not "999"'),
    ("[section]\n", 'unknown section "section"'),
], ids=repr_of)
def test_wrong_setting_is_named_with_its_file_and_gives_status_2(tmp_path, text, why):
    config = tmp_path / "statusd.ini"
    config.write_text(text)
    result = run_statusd("--listen", "127.0.0.1:0", "--config", config)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr == f"statusd: {config}: {why}\n"


def unreadable(path, why):
    return f'cannot read the settings file "{path}": {why}'


@pytest.mark.parametrize("path, why", [
    ("/nonexistent", "No such file or directory"), ("", "No such file or directory"),
    ("/dev/null/x", "Not a directory"), ("/", "it is not a regular file"), ("/dev/zero", "it is not a regular file"),
])
def test_unreadable_file_gives_status_2(path, why):
    result = run_statusd("--config", path)
    assert (result.returncode, result.stdout) == (2, "")
    assert result.stderr == f"statusd: {unreadable(path, why)}\n"


def test_pipe_in_place_of_the_settings_file_holds_up_nobody(statusd, tmp_path):
    pipe, config = tmp_path / "pipe", tmp_path / "statusd.ini"
    os.mkfifo(pipe)
    why = unreadable(pipe, "it is not a regular file")
    assert run_statusd("--config", pipe).stderr == f"statusd: {why}\n"
    config.write_text("name = before\n")
    daemon = statusd(config=config)
    config.unlink()
    pipe.rename(config)
    daemon.process.send_signal(signal.SIGHUP)
    assert daemon.complaint() == f"statusd: {why.replace(str(pipe), str(config))}; the old settings stay\n"
    assert daemon.status()["name"] == "before"


@pytest.mark.parametrize("header", ["[", "[watch", "[]", "[ \t]", "[ # ]x[", " [watch\n]"], ids=repr_of)
def test_malformed_section_header_gives_status_2(tmp_path, header):
    config = tmp_path / "statusd.ini"
    config.write_text(f"name = x\n{header}\n")
    result = run_statusd("--listen", "127.0.0.1:0", "--config", config)
    if header == "[ # ]x[":  # Only the first bracket that closes counts, and nothing begins a comment there.
        assert result.stderr == f'statusd: {config}: unknown section "#"\n'
    else:
        why = unreadable(config, 'a line that begins with [ is not "[section]"')
        assert result.stderr == f"statusd: {why}\n"
    assert (result.returncode, result.stdout) == (2, "")


@pytest.mark.parametrize("size", [65535, 65536])
def test_settings_file_has_less_than_64_kib(statusd, tmp_path, size):
    config = tmp_path / "statusd.ini"
    config.write_text("name = large\n".rjust(size, "\n"))
    if size < 65536:
        assert statusd(config=config).status()["name"] == "large"
    else:
        result = run_statusd("--listen", "127.0.0.1:0", "--config", config)
        assert (result.returncode, result.stdout) == (2, "")
        assert result.stderr == f"statusd: {unreadable(config, 'it has 64 KiB or more')}\n"


@pytest.mark.parametrize("line", [
    "no equals sign", "= value", " \t= value", "#name = other", "  ;name = other", "\0", "name", "interval_ms", "\x0b",
], ids=repr_of)
def test_lines_that_say_nothing_are_passed_over(statusd, tmp_path, line):
    config = tmp_path / "statusd.ini"
    config.write_text(f"name = this\n{line}\nslow_ms = 7\n")
    assert statusd(config=config).status()["name"] == "this"


def test_the_later_of_two_lines_counts(statusd, tmp_path):
    config = tmp_path / "statusd.ini"
    config.write_text("name = first\ninterval_ms = nonsense\nname = second\ninterval_ms = 50\n")
    assert statusd(config=config).status()["name"] == "second"


def test_file_with_everything(statusd, tmp_path):
    config = tmp_path / "statusd.ini"
    config.write_bytes(b"# comment\r\n  ; another\r\n\r\n\tname=a = b\r\nlisten = 127.0.0.1:0\r\npeer =\r\n"
                       b"interval_ms = 50\r\ntimeout_ms=50\r\nslow_ms = 1\r\nclient_deadline_ms = 100\r\nmax_clients = 1000")
    assert statusd(config=config).status()["name"] == "a = b"


def test_shipped_settings_file_is_valid(statusd):
    shipped = os.path.join(os.path.dirname(__file__), "../../examples/statusd/statusd.ini")
    status = statusd(config=shipped).status()
    assert status["name"] == "demo device"
    assert status["peer"]["url"] == "http://127.0.0.1:8081/status.json"


def test_port_in_use_gives_status_1(statusd):
    """By another statusd of the same user, which is the likeliest mistake."""
    daemon = statusd()
    result = run_statusd("--listen", f"127.0.0.1:{daemon.port}")
    assert (result.returncode, result.stdout) == (1, "")
    assert result.stderr == f"statusd: cannot listen on 127.0.0.1:{daemon.port}: Address already in use\n"
    assert daemon.ask("/").status == 200


def test_restart_gets_its_port_back_at_once(statusd):
    """The daemon closes first, so that its old connections still hold the port."""
    daemon = statusd()
    assert daemon.ask("/").status == 200
    daemon.end()
    again = statusd(listen=f"127.0.0.1:{daemon.port}")
    assert again.port == daemon.port


def test_help_and_version():
    assert "--listen IP:PORT" in run_statusd("--help").stdout
    assert re.fullmatch(r"statusd \d+\.\d+\.\d+\n", run_statusd("--version").stdout)
    assert run_statusd("--help").returncode == run_statusd("--version").returncode == 0


@pytest.mark.parametrize("option", ["--help", "--version"])
def test_help_that_cannot_be_written_gives_status_1(option):
    with open("/dev/full", "w") as full:
        done = subprocess.run(command(option), stdout=full, stderr=subprocess.PIPE, text=True, timeout=PATIENCE)
    assert (done.returncode, done.stderr) == (1, "statusd: cannot write: No space left on device\n")


def test_report_prints_a_line_a_second(statusd):
    daemon = statusd("--report", name="device", peer="http://127.0.0.1:1/")
    lines = [daemon.process.stdout.readline().decode() for _ in range(2)]
    for line in lines:
        assert re.fullmatch(r"device: up \d+ s, \d+ passes, \d+ requests, peer down\n", line)


def test_report_tells_the_terminal_nothing(statusd):
    daemon = statusd("--report", name="a\u009b31mb")  # An 8-bit control sequence, in UTF-8.
    assert daemon.process.stdout.readline().startswith(b"a?31mb: up ")


def test_report_outlives_its_reader(statusd):
    daemon = statusd("--report")
    daemon.process.stdout.close()
    wait_for(lambda: daemon.status()["uptime_s"] >= 2, "two reports")
    assert daemon.ask("/").status == 200
    daemon.process.stdout = None
