"""What netctl does to interfaces, addresses and routes, with iproute2 as the witness, and what it tells its user."""
import json
import os
import re

import pytest

# ------------------------------------------------------------------------------------------------------ links


def test_link_is_added_and_deleted(space):
    space.do("link", "add", "n0", "type", "bridge")
    assert space.link("n0")["linkinfo"]["info_kind"] == "bridge"
    space.do("link", "del", "n0")
    assert space.link("n0") is None


def test_link_that_exists_is_not_added(space):
    before = space.state()
    space.fail("link", "add", "br0", "type", "bridge", saying="br0: File exists")
    assert space.state() == before


def test_link_of_unknown_kind_is_not_added(space):
    space.fail("link", "add", "n0", "type", "nosuch", saying="does the kernel know this kind?")


def test_link_goes_up_and_down(space):
    space.do("link", "up", "br0")
    assert "UP" in space.flags("br0")
    space.do("link", "down", "br0")
    assert "UP" not in space.flags("br0")


@pytest.mark.parametrize("verb, flag", [("multicast", "MULTICAST"), ("promisc", "PROMISC")])
def test_flag_is_switched_and_no_other(space, verb, flag):
    rest = space.flags("e0") - {flag}
    space.do("link", verb, "e0", "on")
    assert space.flags("e0") == rest | {flag}
    space.do("link", verb, "e0", "off")
    assert space.flags("e0") == rest


def test_mtu_is_set_and_takes_the_link_down(space):
    space.do("link", "mtu", "e0", "1400")
    assert space.link("e0")["mtu"] == 1400
    assert space.flags("e0").isdisjoint({"UP", "MULTICAST"})


def test_mtu_that_the_driver_refuses_fails(space):
    space.fail("link", "mtu", "e0", "1", saying="the driver may not take this MTU")
    assert space.link("e0")["mtu"] == 1500


def test_mac_is_set_and_takes_the_link_down(space):
    space.do("link", "mac", "e0", "02:aB:Cd:00:11:22")
    assert space.link("e0")["address"] == "02:ab:cd:00:11:22"
    assert space.flags("e0").isdisjoint({"UP", "MULTICAST"})


@pytest.mark.parametrize("mac", ["00-11-22-33-44-55", "0:11:22:33:44:55", "00:11:22:33:44:5g", ""])
def test_malformed_mac_fails(space, mac):
    before = space.state()
    space.fail("link", "mac", "e0", mac, saying="a MAC is six pairs")
    assert space.state() == before


def test_master_takes_and_gives_up_a_port(space):
    space.do("link", "master", "e1", "br0")
    assert space.link("e1")["master"] == "br0"
    space.do("link", "nomaster", "e1")
    assert "master" not in space.link("e1")


def test_master_must_exist_and_take_ports(space):
    space.fail("link", "master", "e1", "nosuch", saying="nosuch: No such device")
    space.fail("link", "master", "e1", "e0", saying="the master must take ports")


@pytest.mark.parametrize("target", ["{pid}", "/proc/{pid}/ns/net"])
def test_link_moves_to_another_namespace(space, other, target):
    space.do("link", "netns", "e1", target.format(pid=other.pid))
    assert space.link("e1") is None
    assert other.link("e1")["linkinfo"]["info_kind"] == "veth"


@pytest.mark.parametrize("target, reason", [
    ("/nosuch", "/nosuch: No such file or directory"),
    ("-1", "-1: No such file or directory"),
    ("/dev/null", "there must be such a namespace"),
    (str(2**31 - 1), "there must be such a namespace"),
])
def test_link_stays_when_there_is_no_such_namespace(space, target, reason):
    space.fail("link", "netns", "e1", target, saying=reason)
    assert space.link("e1")


def test_link_that_is_bound_to_its_namespace_stays(spaces, space):
    space.fail("link", "netns", "br0", spaces().pid, saying="may be bound to its own")
    assert space.link("br0")


def test_vlan_is_added(space):
    if not space.knows("vlan", "link", "e0", "id", "5"):
        pytest.skip("this kernel has no VLANs")
    space.do("vlan", "add", "e0", 7, "v0")
    assert space.link("v0")["linkinfo"]["info_data"]["id"] == 7
    assert space.link("v0")["link"] == "e0"


def test_vlan_needs_its_parent_and_a_new_name(space):
    space.fail("vlan", "add", "nosuch", 7, "v0", saying="nosuch: No such device")
    space.fail("vlan", "add", "e0", 7, "br0", saying="br0: File exists")


@pytest.mark.parametrize("words", [
    "link del {}", "link up {}", "link down {}", "link mtu {} 1400", "link mac {} 02:00:00:00:00:01",
    "link master {} br0", "link nomaster {}", "link multicast {} on", "link promisc {} off",
    "link netns {} /proc/self/ns/net", "addr del {} 10.0.0.1/24", "addr add {} 10.0.0.2/24",
    "route add 10.9.0.0/16 10.0.0.9 {}", "route del 10.9.0.0/16 10.0.0.9 {}", "link show {}", "addr list {}",
])
@pytest.mark.parametrize("name, reason", [
    ("nosuch", "nosuch: No such device"),
    ("a" * 15, "No such device"),
    ("a" * 16, "is longer than the 15 bytes of a name"),
])
def test_unknown_or_long_name_fails_by_name(space, words, name, reason):
    space.fail(*words.format(name).split(), saying=reason)


# -------------------------------------------------------------------------------------------- addresses and routes


@pytest.mark.parametrize("words", ["addr add e0 10.0.0.2/24", "addr add e0 10.0.0.2/24 label e0:1"])
def test_added_address_is_refused_with_a_pointer(space, words):
    space.fail(*words.split(), saying="see docs/behaviour.md")
    assert space.netctl("--json", "addr", "list", "e0").json() == [
        {"address": "10.0.0.1", "prefix": 24, "secondary": False}]


def test_address_is_deleted(space):
    space.do("addr", "del", "e0", "10.0.0.1/24")
    assert space.ip("-4", "addr", "show", "dev", "e0") == []
    space.fail("addr", "del", "e0", "10.0.0.1/24", saying="addr list tells")


def test_addresses_are_those_of_ip(space):
    space.ip("addr", "add", "10.0.0.2/24", "dev", "e0", "label", "e0:two")
    space.ip("addr", "add", "10.1.0.1/32", "dev", "e0")
    expected = [{"address": entry["local"], "prefix": entry["prefixlen"], "secondary": entry.get("secondary", False)}
                for entry in space.ip("-4", "addr", "show", "dev", "e0")[0]["addr_info"]]
    assert space.netctl("--json", "addr", "list", "e0").json() == expected
    assert [entry["secondary"] for entry in expected].count(True) == 1
    assert space.netctl("--json", "addr", "list", "br0").json() == []


def test_route_is_added_once_and_deleted_once(space):
    words = ["10.9.0.0/16", "10.0.0.9", "e0"]
    space.do("route", "add", *words)
    assert space.ip("-N", "route", "show", "10.9.0.0/16") == [
        {"type": "1", "dst": "10.9.0.0/16", "gateway": "10.0.0.9", "dev": "e0", "protocol": "4", "scope": "0",
         "flags": []}]
    space.fail("route", "add", *words, saying="the route a new one")
    space.do("route", "del", *words)
    assert space.ip("route", "show", "10.9.0.0/16") == []
    space.fail("route", "del", *words, saying="route list tells")


@pytest.mark.parametrize("to", ["default", "0.0.0.0/0"])
def test_default_route(space, to):
    space.do("route", "add", to, "10.0.0.9", "e0")
    assert space.ip("route", "show", "default")[0]["gateway"] == "10.0.0.9"
    space.do("route", "del", to, "10.0.0.9", "e0")
    assert space.ip("route", "show", "default") == []


def test_route_without_a_gateway(space):
    space.do("route", "add", "10.9.0.1/32", "0.0.0.0", "e0")
    [route] = space.ip("route", "show", "10.9.0.1")
    assert route["dev"] == "e0" and "gateway" not in route


def many_routes(space, count):
    lines = [f"route add 10.{1 + i // 250}.{i % 250}.0/24 via 10.0.0.{2 + i % 200} metric {i} proto {3 + i % 5}"
             for i in range(count)]
    lines += ["route add default via 10.0.0.9", "route add unreachable 172.16.0.0/12", "route add 10.200.0.0/16 dev e0",
              "route add 192.168.0.0/24 dev e1 table 100", "route add 192.168.1.0/24 dev e1 table 1000"]
    space.ip("-batch", "-", input="\n".join(lines).encode())


def split_prefix(text):
    address, _, length = text.replace("default", "0.0.0.0/0").partition("/")
    return address, int(length or 32)


def test_routes_are_those_of_ip(space):
    many_routes(space, 4000)
    expected = []
    for route in space.ip("-4", "-N", "route", "show", "table", "all"):
        address, length = split_prefix(route["dst"])
        table = int(route["table"])
        expected.append({"destination": address, "prefix": length, "gateway": route.get("gateway", ""),
                         "interface": route.get("dev", ""), "table": table if table < 256 else 252,
                         "protocol": int(route["protocol"]), "type": int(route["type"])})
    assert len(expected) > 4000
    assert space.netctl("--json", "route", "list").json() == expected


def test_routing_table_is_that_of_ip(space):
    many_routes(space, 2000)
    expected = []
    for route in space.ip("-4", "-N", "route", "show"):
        address, length = split_prefix(route["dst"])
        mask = 0xFFFFFFFF << (32 - length) & 0xFFFFFFFF
        flags = [name for name, is_set in (("UP", True), ("GATEWAY", "gateway" in route), ("HOST", length == 32),
                                           ("REJECT", route["type"] == "7")) if is_set]
        expected.append({"destination": address, "mask": ".".join(str(mask >> shift & 255) for shift in (24, 16, 8, 0)),
                         "gateway": route.get("gateway", "0.0.0.0"), "interface": route.get("dev", "*"),
                         "metric": route.get("metric", 0), "flags": flags})
    assert len(expected) > 2000
    assert space.netctl("--json", "route", "table").json() == expected


def test_neighbours_are_those_of_ip(space):
    for number, state in ((7, "reachable"), (8, "permanent"), (9, "stale")):
        space.ip("neigh", "add", f"10.0.0.{number}", "lladdr", f"02:00:00:00:00:0{number}", "dev", "e0", "nud", state)
    found = {entry.pop("address"): entry for entry in space.netctl("--json", "neigh", "list").json()}
    assert found == {entry["dst"]: {"mac": entry["lladdr"], "interface": entry["dev"],
                                    "state": "unknown" if entry["state"] == ["PERMANENT"] else "reachable"}
                     for entry in space.ip("-4", "neigh")}
    assert len(found) == 3


# ---------------------------------------------------------------------------------------------------- interfaces


def test_shown_link_is_that_of_ip(space):
    space.ip("addr", "add", "10.1.0.1/32", "dev", "e0")
    link = space.link("e0")
    assert space.netctl("--json", "link", "show", "e0").json() == [
        {"interface": "e0", "exists": True, "index": link["ifindex"], "mac": link["address"],
         "addresses": ["10.0.0.1/24", "10.1.0.1/32"]}]


def test_shown_link_may_not_exist(space):
    outcome = space.netctl("--json", "link", "show", "nosuch")
    assert outcome.status == 1 and outcome.error == "netctl: link show nosuch failed: nosuch: No such device\n"
    assert outcome.json() == [{"interface": "nosuch", "exists": False, "index": 0, "mac": "", "addresses": []}]


def test_listed_links_are_those_of_ip_once_for_each_address(space):
    space.ip("link", "set", "lo", "up")
    space.ip("addr", "add", "10.0.0.2/24", "dev", "e0", "label", "e0:two")
    space.ip("addr", "add", "10.0.0.3/24", "dev", "br0")
    expected = []
    for link in space.ip("-4", "addr"):
        flags = set(link["flags"])
        flags = flags - {"LOWER_UP", "NO-CARRIER"} | ({"RUNNING"} if "LOWER_UP" in flags else set())
        # /sys has no folder of an address label, and so no MAC.
        for entry in link["addr_info"]:
            mac = link["address"] if entry["label"] == link["ifname"] else ""
            expected.append((entry["label"], entry["local"], mac, flags))
    found = [(entry["interface"], entry["address"], entry["mac"], set(entry["flags"]))
             for entry in space.netctl("--json", "link", "list").json()]
    assert found == expected and len(found) == 4


# ------------------------------------------------------------------------------------------------------ host name


@pytest.mark.parametrize("name", ["gateway-1", "my host", "n" * 63, "K\u00fcche", "%s%n", "."])
def test_host_name_is_set_and_printed(space, name):
    space.do("hostname", name)
    assert os.fsdecode(space.run("uname", "-n").stdout) == name + "\n"
    assert os.fsdecode(space.do("hostname").output) == name + "\n"


@pytest.mark.parametrize("name", ["", "n" * 64, "name\n", "a\rb"])
def test_host_name_is_refused(space, name):
    before = space.do("hostname").output
    outcome = space.netctl("hostname", name)
    assert outcome.status == 1 and "a host name has 1 to 63 bytes" in outcome.error
    assert space.do("hostname").output == before


# ---------------------------------------------------------------------------------------------------- ordinary users

# Whoever runs the tests, without any capability: a user of another number may not be able to read the program.
ORDINARY_USER = ["setpriv", "--bounding-set=-all", "--inh-caps=-all", "--"]


@pytest.mark.parametrize("words", ["link list", "link show e0", "addr list e0", "route list", "route table",
                                   "neigh list", "hostname"])
def test_ordinary_user_sees_what_root_sees(space, words):
    space.ip("route", "add", "default", "via", "10.0.0.9")
    space.ip("neigh", "add", "10.0.0.9", "lladdr", "02:00:00:00:00:09", "dev", "e0")
    outcome = space.netctl(*words.split(), before=ORDINARY_USER)
    assert outcome.status == 0 and outcome.output == space.do(*words.split()).output


@pytest.mark.parametrize("words", [
    "link add n0 type bridge", "link del br0", "link up br0", "link mtu e0 1400", "link mac e0 02:00:00:00:00:01",
    "link master e1 br0", "link promisc e0 on", "addr add e0 10.0.0.2/24", "addr del e0 10.0.0.1/24",
    "route add default 10.0.0.9 e0", "vlan add e0 7 v0"])
def test_ordinary_user_is_told_what_a_change_needs(space, words):
    before = space.state()
    outcome = space.netctl(*words.split(), before=ORDINARY_USER)
    assert outcome.status == 1
    assert outcome.error == f"netctl: {words} failed: not permitted: needs CAP_NET_ADMIN\n"
    assert space.state() == before


def test_ordinary_user_may_not_set_the_host_name(space):
    outcome = space.netctl("hostname", "other", before=ORDINARY_USER)
    assert outcome.error == "netctl: hostname other failed: Operation not permitted\n"


# -------------------------------------------------------------------------------------------------------- usage


def grammars(space):
    """Returns the commands that the help names, as lists of words."""
    return [line[2:42].split() for line in space.do("--help").lines() if re.match("  [a-z]", line)]


def test_help_names_every_command_and_what_surprises(space):
    text = "\n".join(space.do("--help").lines())
    assert len(grammars(space)) == 24
    assert text.startswith("Usage: netctl [--json] COMMAND\n")
    for command in ("mtu", "mac"):
        assert re.search(f"  link {command} .*the interface is down afterwards", text)
    assert "0 when it is done, 1 when it failed, 2 when the usage is wrong" in text
    assert all(len(line) <= 120 for line in text.splitlines())


def test_version(space):
    assert space.do("--version").output.decode() == f"netctl {os.environ['NETCTL_VERSION']}\n"


def test_every_command_wants_exactly_its_words(space):
    values = {"NAME": "br0", "IFACE": "e0", "PARENT": "e0", "MASTER": "br0", "KIND": "bridge", "BYTES": "1400",
              "AA:BB:CC:DD:EE:FF": "02:00:00:00:00:01", "PID|PATH": "/nosuch", "ID": "7", "LABEL": "e0:1",
              "IP/PREFIX": "10.0.0.1/24", "DEST/PREFIX": "10.9.0.0/16", "GATEWAY": "10.0.0.9"}
    known = grammars(space)
    for grammar in known:
        words = [values[word] if word in values else word.split("|")[0] for word in grammar]
        assert space.netctl(*words).status in (0, 1), words
        assert space.netctl(*words, "more", "still").status == 2, words
        if len(words) > 1 and grammar[:-1] not in known:
            assert space.netctl(*words[:-1]).status == 2, words


@pytest.mark.parametrize("words, complaint", [
    ([], "no command"),
    ([""], "there is no command"),
    (["nosuch"], "there is no command nosuch"),
    (["link"], "there is no command link"),
    (["link", "nosuch"], "there is no command link nosuch"),
    (["LINK", "list"], "there is no command LINK"),
    (["--help", "link"], "there is no command --help link"),
    (["--nosuch"], "there is no command --nosuch"),
    (["route", "list", "--json"], "usage: netctl route list"),
    (["--json"], "no command"),
    (["--json", "--json", "route", "list"], "there is no command --json"),
    (["--json", "link", "up", "e0"], "--json is for commands that list"),
    (["--json", "hostname"], "--json is for commands that list"),
    (["link", "mtu", "e0"], "usage: netctl link mtu NAME BYTES"),
    (["link", "up"], "usage: netctl link up|down NAME"),
    (["link", "up|down", "e0"], "there is no command link up|down"),
    (["link", "promisc", "e0", "yes"], "usage: netctl link promisc NAME on|off"),
    (["link", "add", "n0", "kind", "bridge"], "usage: netctl link add NAME type KIND"),
    (["link", "add", "n0", "type", "bridge", "more"], "usage: netctl link add NAME type KIND"),
    (["addr", "add", "e0", "10.0.0.2/24", "label"], "usage: netctl addr add IFACE IP/PREFIX label LABEL"),
    (["hostname", "a", "b"], "usage: netctl hostname NAME"),
])
def test_wrong_words_are_wrong_usage(space, words, complaint):
    outcome = space.netctl(*words)
    assert outcome.status == 2 and outcome.output == b""
    assert outcome.error.startswith(f"netctl: {complaint}")
    assert "netctl --help" in outcome.error or "--json is" in outcome.error


NOT_NUMBERS = ["", "-1", "+1", " 1", "1 ", "1x", "0x10", "1.5", "01", "65536", "4294967296", "99999999999999999999",
               "\u0661", "one"]
NOT_ADDRESSES = ["", "10.0.0", "10.0.0.256", "10.0.0.1.1", "::1", "10.0.0.1 ", "010.0.0.1", "host"]


@pytest.mark.parametrize("words, values", [
    (["link", "mtu", "e0", "?"], NOT_NUMBERS),
    (["vlan", "add", "e0", "?", "v0"], NOT_NUMBERS),
    (["addr", "add", "e0", "?"], [f"{ip}/24" for ip in NOT_ADDRESSES] + ["default"]),
    (["addr", "add", "e0", "?", "label", "e0:1"], ["10.0.0.2"]),
    (["addr", "del", "e0", "?"], [f"10.0.0.1/{n}" for n in ("", "33", "-1", "+8", "024", "8 ", "x", "255.0.0.0")]),
    (["route", "add", "?", "10.0.0.9", "e0"], ["10.9.0.0", "10.9.0.0/33", "10.9/16", "Default", "10.9.0.0/16/16", "/"]),
    (["route", "del", "?", "10.0.0.9", "e0"], ["10.9.0.0", "default/0"]),
    (["route", "add", "10.9.0.0/16", "?", "e0"], NOT_ADDRESSES + ["10.0.0.9/24", "default"]),
    (["link", "netns", "br0", "?"], ["", "0", "2147483648", "01", "99999999999999999999"]),
])
def test_wrong_values_are_wrong_usage(space, words, values):
    before = space.state()
    for value in values:
        outcome = space.netctl(*[value if word == "?" else word for word in words])
        assert outcome.status == 2, value
        assert f": {value} is not " in outcome.error, value
    assert space.state() == before


@pytest.mark.parametrize("words", ["vlan add nosuch 0 v0", "vlan add nosuch 65535 v0", "link mtu nosuch 0",
                                   "link mtu nosuch 65535", "route add 0.0.0.0/0 0.0.0.0 nosuch",
                                   "route add 255.255.255.255/32 255.255.255.255 nosuch", "addr del nosuch 0.0.0.0/0"])
def test_values_at_the_limits_are_tried(space, words):
    space.fail(*words.split(), saying="nosuch: No such device")


# -------------------------------------------------------------------------------------------------------- output

ODD_NAMES = [b'a"b\\c', b"\xff\xc0\x80", b"\xed\xbf\xbf\xf5\xe2\x82", b"\xe0\x9f\xbf\xf0\x8f\xf4\x90",
             "K\u00fcche\u20ac".encode(), "\U0001f600".encode(), b"\x1b[31m\x7f", b"{}'|,$(", b"--json"]


def rename(space, name):
    space.ip("link", "set", "e1", "down")
    space.ip("link", "set", "e1", "name", name)
    space.ip("link", "set", "dev", name, "up")
    space.ip("addr", "add", "10.7.0.1/24", "dev", name)
    space.wait_until_running("e0")


@pytest.mark.parametrize("name", ODD_NAMES)
def test_odd_name_gives_valid_json(space, name):
    rename(space, name)
    for words, column in ((["link", "list"], "interface"), (["route", "list"], "interface"),
                          (["route", "table"], "interface"), (["link", "show", name], "interface")):
        found = [entry[column] for entry in space.netctl("--json", *words).json()]
        assert re.sub("[\udc80-\udcff]", "\ufffd", name.decode("utf-8", "surrogateescape")) in found, words


@pytest.mark.parametrize("name", ODD_NAMES)
def test_odd_name_is_found_and_keeps_the_columns_straight(space, name):
    rename(space, name)
    assert space.netctl("link", "show", name).status == 0
    heading, *lines = space.do("link", "list").lines()
    shown = re.sub("[\x00-\x1f\x7f-\x9f\udc80-\udcff]", "?", name.decode("utf-8", "surrogateescape"))
    assert any(line.startswith(shown + " ") for line in lines)
    assert {line.index("10.") for line in lines} == {heading.index("address")}


def test_control_bytes_of_the_command_line_stay_out_of_the_complaint(space):
    outcome = space.netctl("link", "up", "a\nb\x1b\x7f")
    assert outcome.error == "netctl: link up a?b?? failed: a?b??: No such device\n"
    assert space.netctl("a\nb").error == "netctl: there is no command a?b, see netctl --help\n"


@pytest.mark.parametrize("words", ["link list", "link show e0", "addr list e0", "route list", "route table",
                                   "neigh list"])
def test_columns_for_people_hold_what_json_holds(space, words):
    space.ip("route", "add", "default", "via", "10.0.0.9")
    space.ip("neigh", "add", "10.0.0.9", "lladdr", "02:00:00:00:00:09", "dev", "e0")
    heading, *lines = space.do(*words.split()).lines()
    starts = [found.start() for found in re.finditer(r"\S+", heading)]
    shown = []
    for line in lines:
        assert all(line[start - 1] == " " and line[start] != " " for start in starts[1:])
        shown.append([line[a:b].rstrip() for a, b in zip(starts, starts[1:] + [None])])

    def text(value):
        if isinstance(value, bool):
            return "yes" if value else "no"
        return (",".join(value) if isinstance(value, list) else str(value)) or "-"

    records = space.netctl("--json", *words.split()).json()
    assert records and heading.split() == list(records[0])
    assert shown == [[text(value) for value in record.values()] for record in records]


def test_empty_list_is_a_heading_or_an_empty_array(space):
    assert space.do("neigh", "list").lines() == ["address  mac  interface  state"]
    assert json.loads(space.do("--json", "neigh", "list").output) == []


@pytest.mark.parametrize("words", ["route list", "--json route list", "hostname", "--help"])
def test_output_that_cannot_be_written_is_a_failure(space, words):
    with open("/dev/full", "wb") as full:
        outcome = space.netctl(*words.split(), capture_output=False, stdout=full, stderr=-1)
    assert outcome.status == 1 and outcome.error == "netctl: cannot write: No space left on device\n"
