"""What the library's network functions send to the kernel, as strace reads it: a witness that shares no code with them.

A request is compared as a whole, so that every field, attribute, order and length counts. strace writes "..." behind a
text that has no terminating zero, as those of the requests have none, and calls hardware type 0 ARPHRD_NETROM."""
import re

import pytest
from conftest import environment

CHANGE = "NLM_F_REQUEST|NLM_F_ACK"
CREATE = "NLM_F_REQUEST|NLM_F_ACK|NLM_F_EXCL|NLM_F_CREATE"
LONG = "a" * 15
TOO_LONG = "a" * 16


class Trace:
    """The system calls of one run of netctl, from its first socket or file of a namespace on."""

    def __init__(self, lines):
        self.lines = lines
        self.calls = [re.match(r"(\w+)\((.*)\) += (-?\w+)", line) for line in lines]
        self.calls = [call.groups() for call in self.calls if call]

    def named(self, *names):
        return [call for call in self.calls if call[0] in names]

    def netlink(self):
        """Returns what was done to netlink sockets: calls and their arguments without the descriptor."""
        fd, steps = None, []
        for name, arguments, result in self.calls:
            if name == "socket" and arguments.startswith("AF_NETLINK"):
                fd = result
                steps.append((name, arguments))
            elif fd and arguments.split(",")[0] == fd:
                steps.append((name, arguments.partition(", ")[2]))
                if name == "close":
                    fd = None
        return steps

    def requests(self):
        return [arguments for name, arguments in self.netlink() if name == "sendto"]


@pytest.fixture
def trace(space, strace, tmp_path):
    """Runs netctl under strace in the namespace and returns the Trace."""
    def run(*words, calls="network,openat,close,clone,clone3,fork,vfork,execve"):
        file = tmp_path / "trace"
        # The leak checker cannot work in a process that is traced; untraced runs have it.
        space.netctl(*words, before=[*strace, "-e", f"trace={calls}", "-o", file], env=environment(detect_leaks=0))
        return Trace(file.read_text(errors="surrogateescape").splitlines())

    return run


def index(space, name):
    return space.link(name)["ifindex"]


def message(kind, flags, payload, length, *attributes):
    """Writes a request as strace does."""
    attributes = [f"[{{nla_len={size}, nla_type={name}}}, {value}]" if value else f"{{nla_len={size}, nla_type={name}}}"
                  for size, name, value in attributes]
    tail = attributes[0] if len(attributes) == 1 else f"[{', '.join(attributes)}]"
    return (f"[{{nlmsg_len={length}, nlmsg_type={kind}, nlmsg_flags={flags}, nlmsg_seq=1, nlmsg_pid=0}}, "
            f"{{{payload}}}, {tail}], {length}, 0, NULL, 0")


def link_message(kind, flags, state, length, *attributes):
    set_flags, change = state
    payload = f"ifi_family=AF_UNSPEC, ifi_type=ARPHRD_NETROM, ifi_index=0, ifi_flags={set_flags}, ifi_change={change}"
    return message(kind, flags, payload, length, *attributes)


def name_of(text):
    return 4 + len(text), "IFLA_IFNAME", f'"{text}"...' if text else ""


def vlan_info(text):
    data = f'[{{nla_len=12, nla_type=IFLA_INFO_DATA}}, "\\x06\\x00\\x01\\x00{text}\\x00\\x00"]'
    return 24, "IFLA_LINKINFO", f'[[{{nla_len=8, nla_type=IFLA_INFO_KIND}}, "vlan"...], {data}]'


NOTHING, CLEAR = ("0", "0"), ("0", "0xffffffff")

# Words of the command, and the request: type, flags, ifi_flags and ifi_change, length, attributes behind IFLA_IFNAME.
LINK_REQUESTS = [
    ("link add n0 type ifb", "n0", "RTM_NEWLINK", CREATE, CLEAR, 52,
     [(12, "IFLA_LINKINFO", '[{nla_len=7, nla_type=IFLA_INFO_KIND}, "ifb"...]')]),
    ("link add n0 type bridge", "n0", "RTM_NEWLINK", CREATE, CLEAR, 56,
     [(16, "IFLA_LINKINFO", '[{nla_len=10, nla_type=IFLA_INFO_KIND}, "bridge"...]')]),
    (f"link add {LONG} type veth", LONG, "RTM_NEWLINK", CREATE, CLEAR, 64,
     [(12, "IFLA_LINKINFO", '[{nla_len=8, nla_type=IFLA_INFO_KIND}, "veth"...]')]),
    ("link del br0", "br0", "RTM_DELLINK", CHANGE, NOTHING, 40, []),
    ("link up br0", "br0", "RTM_NEWLINK", CHANGE, ("IFF_UP", "0x1"), 40, []),
    ("link up eth0", "eth0", "RTM_NEWLINK", CHANGE, ("IFF_UP", "0x1"), 40, []),
    ("link down br0", "br0", "RTM_NEWLINK", CHANGE, ("0", "0x1"), 40, []),
    ("link mtu br0 1400", "br0", "RTM_NEWLINK", CHANGE, CLEAR, 48, [(8, "IFLA_MTU", "1400")]),
    ("link mtu br0 0", "br0", "RTM_NEWLINK", CHANGE, CLEAR, 48, [(8, "IFLA_MTU", "0")]),
    ("link mtu br0 65535", "br0", "RTM_NEWLINK", CHANGE, CLEAR, 48, [(8, "IFLA_MTU", "65535")]),
    ("link mac br0 00:11:22:33:44:55", "br0", "RTM_NEWLINK", CHANGE, CLEAR, 52,
     [(10, "IFLA_ADDRESS", "00:11:22:33:44:55")]),
    ("link mac br0 aB:Cd:eF:00:0f:F0", "br0", "RTM_NEWLINK", CHANGE, CLEAR, 52,
     [(10, "IFLA_ADDRESS", "ab:cd:ef:00:0f:f0")]),
    ("link mac br0 02:+a:00:+0:00:+F", "br0", "RTM_NEWLINK", CHANGE, CLEAR, 52,
     [(10, "IFLA_ADDRESS", "02:0a:00:00:00:0f")]),
    ("link nomaster e1", "e1", "RTM_NEWLINK", CHANGE, NOTHING, 48, [(8, "IFLA_MASTER", "0")]),
    ("link multicast br0 on", "br0", "RTM_NEWLINK", CHANGE, ("IFF_MULTICAST", "0x1000"), 40, []),
    ("link multicast br0 off", "br0", "RTM_NEWLINK", CHANGE, ("0", "0x1000"), 40, []),
    ("link promisc br0 on", "br0", "RTM_NEWLINK", CHANGE, ("IFF_PROMISC", "0x100"), 40, []),
    ("link promisc br0 off", "br0", "RTM_NEWLINK", CHANGE, ("0", "0x100"), 40, []),
    (f"link up {LONG}", LONG, "RTM_NEWLINK", CHANGE, ("IFF_UP", "0x1"), 52, []),
    (f"link del {LONG}", LONG, "RTM_DELLINK", CHANGE, NOTHING, 52, []),
    (f"link mtu {LONG} 1400", LONG, "RTM_NEWLINK", CHANGE, CLEAR, 60, [(8, "IFLA_MTU", "1400")]),
]


@pytest.mark.parametrize("words, name, kind, flags, state, length, attributes", LINK_REQUESTS,
                         ids=[row[0] for row in LINK_REQUESTS])
def test_link_request(trace, words, name, kind, flags, state, length, attributes):
    expected = link_message(kind, flags, state, length, name_of(name), *attributes)
    assert trace(*words.split()).requests() == [expected]


@pytest.mark.parametrize("words, kind, length, attributes", [
    (["link", "up", ""], "RTM_NEWLINK", 36, []), (["link", "del", ""], "RTM_DELLINK", 36, [])])
def test_empty_name_is_sent(trace, words, kind, length, attributes):
    state = ("IFF_UP", "0x1") if kind == "RTM_NEWLINK" else NOTHING
    assert trace(*words).requests() == [link_message(kind, CHANGE, state, length, name_of(""), *attributes)]


def test_mac_with_blanks_for_zeros_is_sent(trace):
    expected = link_message("RTM_NEWLINK", CHANGE, CLEAR, 52, name_of("br0"), (10, "IFLA_ADDRESS", "02:0a:00:00:00:0f"))
    assert trace("link", "mac", "br0", "02: a:00: 0:00: F").requests() == [expected]


def test_master_is_sent_by_index(trace, space):
    expected = link_message("RTM_NEWLINK", CHANGE, NOTHING, 48, name_of("e1"),
                            (8, "IFLA_MASTER", str(index(space, "br0"))))
    assert trace("link", "master", "e1", "br0").requests() == [expected]


@pytest.mark.parametrize("vlan, text", [
    (0, "\\x00\\x00"), (7, "\\x07\\x00"), (4094, "\\xfe\\x0f"), (4095, "\\xff\\x0f"), (65535, "\\xff\\xff")])
def test_vlan_id_is_sent_as_given(trace, space, vlan, text):
    expected = link_message("RTM_NEWLINK", CREATE, CLEAR, 72, name_of("v0"), vlan_info(text),
                            (8, "IFLA_LINK", str(index(space, "e0"))))
    assert trace("vlan", "add", "e0", vlan, "v0").requests() == [expected]


def test_vlan_block_starts_at_a_multiple_of_four(trace, space):
    expected = link_message("RTM_NEWLINK", CREATE, CLEAR, 76, name_of("vlan7"), vlan_info("\\x07\\x00"),
                            (8, "IFLA_LINK", str(index(space, "e0"))))
    assert trace("vlan", "add", "e0", 7, "vlan7").requests() == [expected]


def address_message(kind, flags, prefix, state, number, length, *attributes):
    payload = (f"ifa_family=AF_INET, ifa_prefixlen={prefix}, ifa_flags={state}, ifa_scope=RT_SCOPE_UNIVERSE, "
               f"ifa_index={number}")
    return message(kind, flags, payload, length, *attributes)


LOCAL = (8, "IFA_LOCAL", 'inet_addr("10.0.0.2")')
ADDRESS_REQUESTS = [
    (["addr", "add", "e0", "10.0.0.2/24"], 24, 40, [(6, "IFA_LABEL", '"e0"...'), LOCAL]),
    (["addr", "add", "e0", "10.0.0.2/0"], 0, 40, [(6, "IFA_LABEL", '"e0"...'), LOCAL]),
    (["addr", "add", LONG, "10.0.0.2/32"], 32, 52, [(19, "IFA_LABEL", f'"{LONG}"...'), LOCAL]),
    (["addr", "add", "", "10.0.0.2/24"], 24, 36, [(4, "IFA_LABEL", ""), LOCAL]),
    (["addr", "add", "e0", "10.0.0.2/24", "label", "e0:1"], 24, 40, [LOCAL, (8, "IFA_LABEL", '"e0:1"...')]),
    (["addr", "add", "e0", "10.0.0.2/24", "label", "e0:backup"], 24, 48, [LOCAL, (13, "IFA_LABEL", '"e0:backup"...')]),
    (["addr", "add", "e0", "10.0.0.2/24", "label", ""], 24, 40, [LOCAL, (6, "IFA_LABEL", '"e0"...')]),
]


@pytest.mark.parametrize("words, prefix, length, attributes", ADDRESS_REQUESTS)
def test_address_is_added_by_label_alone(trace, words, prefix, length, attributes):
    expected = address_message("RTM_NEWADDR", CREATE, prefix, "IFA_F_PERMANENT", "0", length, *attributes)
    assert trace(*words).requests() == [expected]


def test_address_is_deleted_by_index(trace):
    local = (8, "IFA_LOCAL", 'inet_addr("10.0.0.1")')
    expected = address_message("RTM_DELADDR", CHANGE, 24, "0", 'if_nametoindex("e0")', 32, local)
    assert trace("addr", "del", "e0", "10.0.0.1/24").requests() == [expected]


@pytest.mark.parametrize("verb, kind, flags", [("add", "RTM_NEWROUTE", CREATE), ("del", "RTM_DELROUTE", CHANGE)])
@pytest.mark.parametrize("to, destination, prefix, gateway", [
    ("10.9.0.0/16", "10.9.0.0", 16, "10.0.0.9"),
    ("default", "0.0.0.0", 0, "10.0.0.9"),
    ("0.0.0.0/0", "0.0.0.0", 0, "10.0.0.9"),
    ("10.9.0.1/32", "10.9.0.1", 32, "0.0.0.0"),
])
def test_route_request(trace, verb, kind, flags, to, destination, prefix, gateway):
    payload = (f"rtm_family=AF_INET, rtm_dst_len={prefix}, rtm_src_len=0, rtm_tos=0, rtm_table=RT_TABLE_MAIN, "
               "rtm_protocol=RTPROT_STATIC, rtm_scope=RT_SCOPE_UNIVERSE, rtm_type=RTN_UNICAST, rtm_flags=0")
    expected = message(kind, flags, payload, 52, (8, "RTA_DST", f'inet_addr("{destination}")'),
                       (8, "RTA_GATEWAY", f'inet_addr("{gateway}")'), (8, "RTA_OIF", 'if_nametoindex("e0")'))
    assert trace("route", verb, to, gateway, "e0").requests() == [expected]


# -------------------------------------------------------------------------------------------------- around requests


@pytest.mark.parametrize("words", ["link up e0", "link del nosuch", "vlan add e0 7 v0", "addr add e0 10.0.0.2/24",
                                   "route add 10.9.0.0/16 10.0.0.9 e0"])
def test_request_has_a_socket_of_its_own_and_one_reply(trace, words):
    steps = trace(*words.split()).netlink()
    assert [name for name, _ in steps] == ["socket", "bind", "sendto", "recvfrom", "close"]
    assert steps[0][1] == "AF_NETLINK, SOCK_RAW|SOCK_CLOEXEC, NETLINK_ROUTE"
    assert steps[1][1] == "{sa_family=AF_NETLINK, nl_pid=0, nl_groups=00000000}, 12"
    assert re.fullmatch(r"\[\{nlmsg_len=\d+, nlmsg_type=NLMSG_ERROR, .*\], 4096, 0, NULL, NULL", steps[3][1])


@pytest.mark.parametrize("words, number, flag", [
    (["route", "list"], 26, "|SOCK_CLOEXEC"), (["addr", "list", "e0"], 22, "")])
def test_dump_request_has_17_bytes_on_an_unbound_socket(trace, words, number, flag):
    steps = trace(*words).netlink()
    assert steps[0] == ("socket", f"AF_NETLINK, SOCK_RAW{flag}, NETLINK_ROUTE")
    # strace does not know the protocol of a socket that is not bound, and shows the numbers.
    names = {26: "RTM_GETROUTE", 22: "RTM_GETADDR"}
    request = steps[1][1].replace(f"{number:#x} /* NLMSG_??? */", names[number]).replace("0x300", "NLM_F_DUMP")
    assert steps[1][0] == "sendto"
    assert request == (f"[{{nlmsg_len=17, nlmsg_type={names[number]}, nlmsg_flags=NLM_F_REQUEST|NLM_F_DUMP, "
                       'nlmsg_seq=1, nlmsg_pid=0}, "\\x02"], 17, 0, NULL, 0')
    replies = steps[2:-1]
    assert replies and all(name == "recvfrom" and ", 8192, 0, NULL, NULL" in arguments for name, arguments in replies)
    assert "NLMSG_DONE" in replies[-1][1] and steps[-1][0] == "close"


def test_namespace_is_sent_by_a_descriptor_that_is_closed(trace, other):
    for word in (other.pid, f"/proc/{other.pid}/ns/net"):
        seen = trace("link", "netns", "e0" if word == other.pid else "e1", word)
        path = f'"/proc/{other.pid}/ns/net"'
        opened = [call for call in seen.named("openat") if path in call[1]]
        assert len(opened) == 1 and "O_RDONLY|O_CLOEXEC" in opened[0][1]
        name = "e0" if word == other.pid else "e1"
        expected = link_message("RTM_NEWLINK", CHANGE, NOTHING, 48, name_of(name),
                                (8, "IFLA_NET_NS_FD", opened[0][2]))
        assert seen.requests() == [expected]
        assert ("close", opened[0][2], "0") in seen.calls[seen.calls.index(opened[0]):]


# Never the number of a process: a freed one could be another process by now, in the machine's own namespace.
NO_PID = 2**31 - 1


@pytest.mark.parametrize("words", [
    f"link add {TOO_LONG} type bridge", f"link del {TOO_LONG}", f"vlan add e0 7 {TOO_LONG}", f"link up {TOO_LONG}",
    f"link down {TOO_LONG}", f"link mtu {TOO_LONG} 1400", f"link mac {TOO_LONG} 00:11:22:33:44:55",
    f"link master {TOO_LONG} br0", f"link nomaster {TOO_LONG}", f"link netns {TOO_LONG} {NO_PID}",
    f"link netns {TOO_LONG} /proc/self/ns/net", f"link multicast {TOO_LONG} on", f"link promisc {TOO_LONG} off",
    f"addr add {TOO_LONG} 10.0.0.2/24", f"addr add {TOO_LONG} 10.0.0.2/24 label {TOO_LONG}:1",
    f"addr del {TOO_LONG} 10.0.0.2/24",
    "vlan add nosuch 7 v0", "link master e0 nosuch", "link netns e0 /nosuch", f"link netns e0 {NO_PID}",
    "addr del nosuch 10.0.0.1/24", "route add 10.9.0.0/16 10.0.0.9 nosuch", "route del 10.9.0.0/16 10.0.0.9 nosuch",
    "link mac e0 00-11-22-33-44-55", "link mac e0 0:11:22:33:44:55", "link mac e0 00:11:22:33:44:5g",
    "link mac e0 00:11:22:33:44", "link mac e0 00:11:22:33:44:55:66", "link mac e0 0011.2233.4455",
    "link mac e0 00:11:22:33:44:-1", "link mac e0 00:11:22:33-44:55",
    "addr add e0 10.0.0.2/24 label e0", "addr add e0 10.0.0.2/24 label e1:1", "addr add e0 10.0.0.2/24 label e01",
    f"addr add e0 10.0.0.2/24 label e0:{'a' * 13}", "addr add e0 10.0.0.2/24 label e",
])
def test_refused_without_a_request(trace, words):
    seen = trace(*words.split())
    assert seen.requests() == [] and not any("AF_NETLINK" in line for line in seen.lines)
    assert any("exited with 1" in line for line in seen.lines)


def test_label_needs_a_name(trace):
    assert trace("addr", "add", "", "10.0.0.2/24", "label", ":1").requests() == []


def test_names_and_labels_at_the_limit_are_sent(trace):
    label = "e0:" + "a" * 12
    assert f'"{label}"...' in trace("addr", "add", "e0", "10.0.0.2/24", "label", label).requests()[0]


EVERY_COMMAND = [
    "link list", "link show e0", "link add n0 type bridge", "link up e0", "link mtu e0 1400", "vlan add e0 7 v",
    "addr list e0", "addr add e0 10.0.0.2/24", "addr del e0 10.0.0.1/24", "route list", "route table",
    "route add default 10.0.0.9 e0", "route del default 10.0.0.9 e0", "neigh list", "hostname", "hostname n",
    "link del e0", "link netns e0 /proc/self/ns/net", "link netns e0 /nosuch", "link nosuch", "--help",
]


@pytest.mark.parametrize("words", EVERY_COMMAND)
def test_netctl_leaves_no_descriptor_and_starts_nothing(trace, words):
    seen = trace(*words.split())
    opened = set()
    for name, arguments, result in seen.calls:
        if name in ("openat", "socket") and not result.startswith("-"):
            opened.add(result)
        elif name == "close":
            opened.discard(arguments)
    assert opened == set()
    assert len(seen.named("execve")) == 1 and seen.named("clone", "clone3", "fork", "vfork") == []


def test_long_list_is_written_in_few_calls(trace, space):
    routes = "".join(f"route add 10.{i // 250}.{i % 250}.0/24 dev e1\n" for i in range(1, 2000))
    space.ip("-batch", "-", input=routes.encode())
    written = trace("route", "list", calls="write").named("write")
    assert sum(int(result) for _, _, result in written) > 100000
    assert len(written) <= 4
