"""The network as statusd sees it, in network namespaces of the tests' own; ip(8) says what is there."""
import json
import os
import time

import pytest
from conftest import wait_for

SHOWN = 200  # rows of a table
FLAGS = {"UP", "LOOPBACK", "BROADCAST", "MULTICAST", "POINTOPOINT", "NOARP", "PROMISC", "ALLMULTI"}
FURNISH = [
    "link add idle type veth peer name idle-peer",
    "route add default via 192.0.2.254",
    "route add 198.18.0.0/15 via 192.0.2.2",
    "route add blackhole 10.0.0.0/8 table 100",
    "route add 10.1.0.0/16 dev v0 table 1000 proto 99",
    "neigh add 192.0.2.7 lladdr 02:00:00:00:00:07 dev v0 nud reachable",
    "neigh add 192.0.2.20 lladdr 02:00:00:00:00:20 dev v0 nud permanent",
    "neigh add 192.0.2.3 lladdr 02:00:00:00:00:03 dev v0 nud permanent",
    "neigh add 192.0.3.1 lladdr 02:00:00:00:00:01 dev v0 nud permanent",
]


@pytest.fixture
def furnished(namespace):
    namespace.batch(FURNISH)
    return namespace


def rows(status, table):
    return status[table]["rows"]


def marks(status):
    return [(table, row["change"], row) for table in ("interfaces", "routes", "neighbours")
            for row in rows(status, table) if row["change"]]


def look(statusd, namespace, **options):
    """Starts a daemon that has seen the network."""
    daemon = statusd(namespace=namespace, **options)
    daemon.next_snapshot()
    return daemon


# ------------------------------------------------------------------------------------------------------ what is there


def test_interfaces_are_those_that_ip_shows(statusd, furnished):
    furnished.batch(["addr add 203.0.113.5/32 dev v0", "addr add 192.0.2.9/24 dev v0"])
    status = look(statusd, furnished).status()
    seen = [{key: row[key] for key in ("index", "name", "addresses", "mac")} for row in rows(status, "interfaces")]
    links = furnished.see("address show")
    assert seen == [{
        "index": link["ifindex"], "name": link["ifname"], "mac": link["address"],
        "addresses": [f"{a['local']}/{a['prefixlen']}" for a in link["addr_info"] if a["family"] == "inet"],
    } for link in sorted(links, key=lambda link: link["ifindex"])]
    flags = {row["name"]: set(row["flags"]) for row in rows(status, "interfaces")}
    assert {name: words & FLAGS for name, words in flags.items()} == {
        link["ifname"]: FLAGS & set(link["flags"]) for link in links}
    assert {name for name, words in flags.items() if "RUNNING" in words} == {"lo", "v0", "v1"}
    assert status["interfaces"]["total"] == len(links)


def test_routes_are_those_that_ip_shows(statusd, furnished):
    routes = look(statusd, furnished).status()["routes"]
    seen = [(row["destination"], row["gateway"], row["interface"], row["table"], row["protocol"], row["type"])
            for row in routes["rows"]]
    expected = []
    for route in furnished.see("-4 route show table all"):
        table, kind = int(route.get("table", 254)), int(route.get("type", 1))
        if table != 255 or kind not in (2, 3):  # What the kernel keeps of local and broadcast addresses.
            network = "0.0.0.0/0" if route["dst"] == "default" else route["dst"]
            expected.append((network, route.get("gateway"), route.get("dev"), min(table, 252) if table != 254 else 254,
                             int(route.get("protocol", 3)), kind))
    assert sorted(seen, key=str) == sorted(expected, key=str) and len(seen) == routes["total"] == 5


def test_main_table_comes_first_in_order_of_destination(statusd, furnished):
    furnished.batch(["route add 9.0.0.0/8 via 192.0.2.2", "route add 9.0.0.0/24 via 192.0.2.2",
                     "route add unicast 7.0.0.0/8 dev v0 table local", "route add local 8.0.0.0/8 dev lo table main"])
    seen = [(row["table"], row["destination"]) for row in rows(look(statusd, furnished).status(), "routes")]
    assert seen == [(254, "0.0.0.0/0"), (254, "8.0.0.0/8"), (254, "9.0.0.0/8"), (254, "9.0.0.0/24"),
                    (254, "192.0.2.0/24"), (254, "198.18.0.0/15"), (100, "10.0.0.0/8"), (252, "10.1.0.0/16"),
                    (255, "7.0.0.0/8")]


def test_neighbours_are_those_that_ip_shows_in_order_of_address(statusd, furnished):
    neighbours = look(statusd, furnished).status()["neighbours"]
    expected = {(entry["dst"], entry["dev"], entry["lladdr"]) for entry in furnished.see("-4 neigh show")}
    assert {(row["address"], row["interface"], row["mac"]) for row in neighbours["rows"]} == expected
    assert [row["address"] for row in neighbours["rows"]] == ["192.0.2.3", "192.0.2.7", "192.0.2.20", "192.0.3.1"]
    assert [row["state"] for row in neighbours["rows"]] == ["unknown", "reachable", "unknown", "unknown"]
    assert neighbours["total"] == 4


def test_empty_tables_are_empty_lists(statusd, namespace):
    namespace.ip("link del v0")
    status = look(statusd, namespace).status()
    assert status["routes"] == status["neighbours"] == {"total": 0, "rows": []}
    assert [row["name"] for row in rows(status, "interfaces")] == ["lo"]


def test_nothing_is_new_at_first(statusd, furnished):
    daemon = statusd(namespace=furnished)
    seen = [wait_for(lambda: (status := daemon.status())["network"]["snapshots"] and status, "the first snapshot")]
    seen += [daemon.next_snapshot() for _ in range(2)]
    assert [marks(status) for status in seen] == [[], [], []]


def test_many_addresses_of_an_interface_are_cut(statusd, namespace):
    namespace.batch(f"addr add 203.0.113.{i}/32 dev v1" for i in range(1, 21))
    row = next(row for row in rows(look(statusd, namespace).status(), "interfaces") if row["name"] == "v1")
    assert row["addresses"] == [f"203.0.113.{i}/32" for i in range(1, 9)] and row["address_total"] == 20


def test_odd_names_give_valid_json(statusd, namespace):
    name = os.fsdecode(b"a\xff\"\\<b>\xe2\x82&\x01")
    namespace.batch([f"link add {name} type veth peer name plain", f"link set {name} up", "link set plain up",
                     f"route add 203.0.113.0/24 dev {name}",
                     f"neigh add 203.0.113.1 lladdr 02:00:00:00:00:01 dev {name}"])
    status = json.loads(look(statusd, namespace).ask("/status.json").body.decode())
    shown = "a\ufffd\"\\<b>\ufffd\ufffd&\x01"
    assert shown in [row["name"] for row in rows(status, "interfaces")]
    assert [row["interface"] for row in rows(status, "routes")] == ["v0", shown]
    assert [row["interface"] for row in rows(status, "neighbours")] == [shown]


# ------------------------------------------------------------------------------------------------------ what changed


@pytest.mark.parametrize("change, table, row, mark, fields", [
    ("addr add 203.0.113.1/32 dev v1", "interfaces", {"name": "v1"}, "changed", ["addresses"]),
    ("addr del 127.0.0.2/8 dev lo", "interfaces", {"name": "lo"}, "changed", ["addresses"]),
    ("link set v1 promisc on", "interfaces", {"name": "v1"}, "changed", ["flags"]),
    ("link set idle up", "interfaces", {"name": "idle"}, "changed", ["flags"]),
    ("link set v1 address 02:00:00:00:00:99", "interfaces", {"name": "v1"}, "changed", ["mac"]),
    ("link set idle name other", "interfaces", {"name": "other"}, "changed", ["name"]),
    ("link add extra type veth peer name more", "interfaces", {"name": "extra"}, "new", []),
    ("link del idle", "interfaces", {"name": "idle"}, "gone", []),
    ("route add 203.0.113.0/24 via 192.0.2.2", "routes", {"destination": "203.0.113.0/24"}, "new", []),
    ("route del 198.18.0.0/15", "routes", {"destination": "198.18.0.0/15"}, "gone", []),
    ("route replace 198.18.0.0/15 via 192.0.2.3", "routes", {"destination": "198.18.0.0/15"}, "changed", ["gateway"]),
    ("route replace 198.18.0.0/15 via 192.0.2.2 proto 4", "routes", {"destination": "198.18.0.0/15"}, "changed",
     ["protocol"]),
    ("route replace blackhole 198.18.0.0/15", "routes", {"destination": "198.18.0.0/15"}, "changed",
     ["gateway", "interface", "type"]),
    ("neigh add 192.0.2.8 lladdr 02:00:00:00:00:08 dev v0", "neighbours", {"address": "192.0.2.8"}, "new", []),
    ("neigh replace 192.0.2.3 lladdr 02:00:00:00:00:33 dev v0", "neighbours", {"address": "192.0.2.3"}, "changed",
     ["mac"]),
    ("neigh replace 192.0.2.7 lladdr 02:00:00:00:00:07 dev v0 nud permanent", "neighbours", {"address": "192.0.2.7"},
     "changed", ["state"]),
    ("neigh del 192.0.2.3 dev v0", "neighbours", {"address": "192.0.2.3"}, "gone", []),
], ids=lambda value: value if isinstance(value, str) and " " in value else "")
def test_change_is_marked_until_the_next_snapshot(statusd, furnished, change, table, row, mark, fields):
    furnished.ip("addr add 127.0.0.2/8 dev lo")
    daemon = look(statusd, furnished)
    with daemon.between_snapshots():
        furnished.ip(change)
    is_it = lambda candidate: all(candidate[key] == value for key, value in row.items())
    first = daemon.next_snapshot()
    marked = [(kind, item["fields"]) for where, kind, item in marks(first) if where == table and is_it(item)]
    assert marked == [(mark, fields)]
    assert {where for where, _, _ in marks(first)} == {table}
    last = daemon.next_snapshot()
    assert marks(last) == []
    assert len([item for item in rows(last, table) if is_it(item)]) == (0 if mark == "gone" else 1)


def test_interface_that_is_made_anew_is_another_one(statusd, furnished):
    daemon = look(statusd, furnished)
    with daemon.between_snapshots():
        furnished.batch(["link del idle", "link add idle type veth peer name idle-peer"])
    status = daemon.next_snapshot()
    assert [kind for _, kind, row in marks(status) if row["name"] == "idle"] == ["gone", "new"]


def test_routes_to_one_destination_are_told_apart(statusd, namespace):
    namespace.batch(f"route add 198.18.0.0/15 via 192.0.2.{host} metric {host}" for host in (2, 3, 4))
    daemon = look(statusd, namespace)
    with daemon.between_snapshots():
        namespace.ip("route del 198.18.0.0/15 metric 2")
    status = daemon.next_snapshot()
    assert [(row["gateway"], row["change"]) for row in rows(status, "routes") if row["gateway"]] == [
        ("192.0.2.2", "gone"), ("192.0.2.3", None), ("192.0.2.4", None)]


def trace(log, *more):
    # The sanitizers' leak check cannot look into a process that is traced.
    return ["env", "ASAN_OPTIONS=detect_leaks=0", "strace", "-D", "-f", "-o", log, "-e", "trace=socket,openat", *more]


def snapshots_in(log):
    """Returns the number of the call of socket that each snapshot begins with; MACs are read right behind it."""
    lines = [line for line in log.read_text().splitlines() if "socket(AF_INET" not in line]
    starts, sockets, previous = [], 0, ""
    for line in lines:
        sockets += "socket(" in line
        if "/sys/class/net/" in line and "/sys/class/net/" not in previous:
            starts.append(sockets)
        previous = line
    return starts


def test_tables_stay_when_the_kernel_cannot_be_asked(statusd, furnished, tmp_path):
    model = look(statusd, furnished, prefix=trace(tmp_path / "model"))
    model.next_snapshot()
    model.end()
    second = snapshots_in(tmp_path / "model")[1]
    failing = trace(tmp_path / "log", "-e", f"inject=socket:error=EMFILE:when={second}")
    daemon = statusd(namespace=furnished, prefix=failing)
    seen = []
    wait_for(lambda: seen.append(daemon.status()) or seen[-1]["network"]["snapshots"] >= 3, "snapshots")
    assert (tmp_path / "log").read_text().count("INJECTED") == 1
    assert [marks(status) for status in seen] == [[]] * len(seen)


# ------------------------------------------------------------------------------------------------------ large tables


def route(i):
    return f"20.{i // 256 // 256}.{i // 256 % 256}.{i % 256}/32"


def test_large_table_is_cut_with_its_total_beside_it(statusd, namespace):
    namespace.batch(f"route add {route(i)} via 192.0.2.{2 + i % 100}" for i in range(1000))
    routes = look(statusd, namespace).status()["routes"]
    assert routes["total"] == 1001
    assert [row["destination"] for row in routes["rows"]] == [route(i) for i in range(SHOWN)]


@pytest.mark.parametrize("change, marked", [
    (f"route del {route(7)}", [(route(7), "gone")]),
    ("route add 10.0.0.0/8 via 192.0.2.2", [("10.0.0.0/8", "new")]),
    (f"route replace {route(199)} via 192.0.2.200", [(route(199), "changed")]),
    (f"route del {route(500)}", []),
    ("route add 203.0.113.0/24 via 192.0.2.2", []),
], ids=lambda value: value if isinstance(value, str) else "")
def test_rows_that_move_into_or_out_of_sight_are_not_marked(statusd, namespace, change, marked):
    namespace.batch(f"route add {route(i)} via 192.0.2.{2 + i % 100}" for i in range(1000))
    daemon = look(statusd, namespace)
    with daemon.between_snapshots():
        namespace.ip(change)
    status = daemon.next_snapshot()
    assert [(row["destination"], kind) for _, kind, row in marks(status)] == marked
    assert len(rows(status, "routes")) == SHOWN
    assert status["routes"]["total"] == 1001 + change.startswith("route add") - change.startswith("route del")
    assert marks(daemon.next_snapshot()) == []


def test_answer_stays_small_enough_for_a_watching_peer(statusd, namespace):
    odd = [os.fsdecode(b"\xff" * 12) + f"{i:03}" for i in range(2 * SHOWN + 20)]
    namespace.batch(f"link add {odd[i]} type veth peer name {odd[i + 1]}" for i in range(0, len(odd), 2))
    namespace.batch(f"addr add 250.{100 + i // 10}.{100 + j}.1{i % 10}/32 dev {name}"
                    for i, name in enumerate(odd[:SHOWN]) for j in range(9))
    namespace.batch([f"link set {name} up" for name in odd[:2]])
    namespace.batch(f"route add 250.200.{i}.128/25 via 192.0.2.200 proto 255 onlink dev {odd[0]}" for i in range(250))
    namespace.batch(f"neigh add 250.250.250.{i} lladdr 02:00:00:00:00:01 dev {odd[0]}" for i in range(250))
    daemon = look(statusd, namespace)
    body = daemon.ask("/status.json").body
    status = json.loads(body)
    assert [len(rows(status, table)) for table in ("interfaces", "routes", "neighbours")] == [SHOWN] * 3
    assert status["interfaces"]["total"] == len(odd) + 3
    assert len(body) < 256 * 1024
    watcher = statusd(namespace=namespace, peer=daemon.url + "status.json", interval_ms=100, timeout_ms=5000)
    watcher.wait_for_peer("up")


def test_costly_snapshots_become_rare(statusd, namespace):
    """They take a twentieth of the time at most; the page stays live meanwhile."""
    namespace.batch(f"route add {route(i)} via 192.0.2.{2 + i % 100}" for i in range(100000))
    daemon = look(statusd, namespace)
    earliest, current = time.monotonic(), daemon.next_snapshot()["network"]
    assert current["took_ms"] > 0
    daemon.next_snapshot()
    # The snapshot after `current` came before this moment, and `current` itself after `earliest`.
    assert time.monotonic() - earliest >= 19 * current["took_ms"] / 1000
    assert daemon.status()["routes"]["total"] == 100001


def test_large_table_that_shrinks_shows_what_is_left(statusd, namespace):
    namespace.batch(f"route add {route(i)} via 192.0.2.2" for i in range(400))
    daemon = look(statusd, namespace)
    with daemon.between_snapshots():
        namespace.batch(f"route del {route(i)}" for i in range(50, 350))
    status = daemon.next_snapshot()
    gone = {row["destination"] for _, kind, row in marks(status) if kind == "gone"}
    assert gone == {route(i) for i in range(50, 200)}
    assert len(marks(status)) == 150
    status = daemon.next_snapshot()
    assert marks(status) == []
    assert [row["destination"] for row in rows(status, "routes")] == [
        *(route(i) for i in range(50)), *(route(i) for i in range(350, 400)), "192.0.2.0/24"]
