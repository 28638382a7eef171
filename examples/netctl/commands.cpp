#include "commands.h"

#include <fcntl.h>
#include <kiv/net.h>
#include <kiv/utils.h>
#include <net/route.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdio>
#include <cstring>

#include "common/names.h"
#include "common/number.h"
#include "common/printable.h"

namespace {

namespace net = kiv::net;
namespace utils = kiv::utils;

// Decimal digits and nothing else; a leading zero would leave open which base is meant.
bool ParseUpTo(const std::string& text, unsigned int max, unsigned int& number) {
  return ParseNumber(text, number) && number <= max && (text[0] != '0' || text.size() == 1);
}

bool IsNumber(const std::string& text) {
  unsigned int number = 0;
  return ParseUpTo(text, USHRT_MAX, number);
}

unsigned short Number(const std::string& text) {
  unsigned int number = 0;
  (void)ParseUpTo(text, USHRT_MAX, number);  // Checked before the command was run.
  return static_cast<unsigned short>(number);
}

bool IsAddress(const std::string& text) {
  std::uint32_t address = 0;
  return net::IPtoN(text, address);
}

struct Prefix {
  std::string ip;
  unsigned char length = 0;
};

bool ParsePrefix(const std::string& text, Prefix& prefix) {
  const std::vector<std::string> parts = utils::Split(text == "default" ? "0.0.0.0/0" : text, "/");
  unsigned int length = 0;
  if (parts.size() != 2 || !IsAddress(parts[0]) || !ParseUpTo(parts[1], 32, length)) {
    return false;
  }
  prefix = {parts[0], static_cast<unsigned char>(length)};
  return true;
}

bool IsDestination(const std::string& text) {
  Prefix prefix;
  return ParsePrefix(text, prefix);
}

bool IsInterfaceAddress(const std::string& text) { return text != "default" && IsDestination(text); }

Prefix ToPrefix(const std::string& text) {
  Prefix prefix;
  (void)ParsePrefix(text, prefix);  // Checked before the command was run.
  return prefix;
}

bool IsDigits(const std::string& text) { return text.find_first_not_of("0123456789") == std::string::npos; }

bool IsNamespace(const std::string& text) {
  unsigned int pid = 0;
  return !IsDigits(text) || (ParseUpTo(text, INT_MAX, pid) && pid > 0);
}

struct Kind {
  const char* word;
  bool (*isValid)(const std::string&);
  const char* wanted;
};

// Names are not among them: what the library and the kernel make of a name is what netctl is there to show.
constexpr Kind kKinds[] = {
    {"BYTES", IsNumber, "a number from 0 to 65535 without leading zeros"},
    {"ID", IsNumber, "a number from 0 to 65535 without leading zeros"},
    {"IP/PREFIX", IsInterfaceAddress, "an address such as 192.0.2.1/24"},
    {"DEST/PREFIX", IsDestination, "a network such as 192.0.2.0/24, or default"},
    {"GATEWAY", IsAddress, "an address such as 192.0.2.1"},
    {"PID|PATH", IsNamespace, "a process id, or the path of a namespace"},
};

struct Flag {
  unsigned int bit;
  const char* name;
};

constexpr Flag kRouteFlags[] = {{RTF_UP, "UP"}, {RTF_GATEWAY, "GATEWAY"}, {RTF_HOST, "HOST"}, {RTF_REJECT, "REJECT"}};

std::vector<std::string> RouteFlagNames(unsigned int flags) {
  std::vector<std::string> names;
  for (const Flag& flag : kRouteFlags) {
    if ((flags & flag.bit) != 0) {
      names.emplace_back(flag.name);
    }
  }
  return names;
}

Result MoveToNetns(const Arguments& a) {
  unsigned int pid = 0;
  if (ParseUpTo(a[1], INT_MAX, pid)) {
    return net::MoveInterfaceToNetns(a[0], static_cast<int>(pid));
  }
  const int fd = ::open(a[1].c_str(), O_RDONLY | O_CLOEXEC);
  if (fd == -1) {
    return {false, Printable(a[1]) + ": " + std::strerror(errno)};
  }
  const bool done = net::MoveInterfaceToNetnsFd(a[0], fd);
  (void)::close(fd);
  return done;
}

using AddressChange = bool (*)(const std::string& iface, const std::string& ip, unsigned char length);
using RouteChange = bool (*)(const std::string& to, unsigned char length, const std::string& over,
                             const std::string& iface);

bool ChangeAddress(AddressChange change, const Arguments& a) {
  const Prefix address = ToPrefix(a[1]);
  return change(a[0], address.ip, address.length);
}

bool AddLabeledAddress(const Arguments& a) {
  const Prefix address = ToPrefix(a[1]);
  return net::AssignAddressLabeled(a[0], address.ip, address.length, a[2]);
}

bool ChangeRoute(RouteChange change, const Arguments& a) {
  const Prefix to = ToPrefix(a[0]);
  return change(to.ip, to.length, a[1], a[2]);
}

Result PrintHostname(const Arguments& /*none*/) {
  errno = 0;
  const std::string name = utils::GetHostname();
  std::printf("%s\n", name.c_str());
  return {!name.empty() || errno == 0, std::strerror(errno)};
}

Result SetHostname(const Arguments& a) {
  errno = 0;  // It stays 0 when the name is refused without asking the kernel.
  const bool done = utils::SetHostname(a[0]);
  return {done, errno == 0 ? "a host name has 1 to 63 bytes, none of them a line break" : std::strerror(errno)};
}

Table ShowInterface(const Arguments& a) {
  std::vector<std::string> addresses;
  for (const net::InterfaceAddress& entry : net::GetInterfaceAddresses(a[0])) {
    addresses.push_back(entry.address + "/" + std::to_string(entry.prefixLength));
  }
  return {{"interface", "exists", "index", "mac", "addresses"},
          {{a[0], net::InterfaceExists(a[0]), net::GetInterfaceIndex(a[0]), net::GetMAC(a[0].c_str()), addresses}}};
}

Table ListInterfaces(const Arguments& /*none*/) {
  Table table{{"interface", "address", "mac", "flags"}, {}};
  for (const net::Iface& iface : net::GetIfaces(0, 0)) {
    table.rows.push_back({iface.GetName(), iface.GetAddress(), iface.GetMAC(),
                          FlagNames([&iface](int flag) { return iface.IsFlagsSet(flag); })});
  }
  return table;
}

Table ListAddresses(const Arguments& a) {
  Table table{{"address", "prefix", "secondary"}, {}};
  for (const net::InterfaceAddress& entry : net::GetInterfaceAddresses(a[0])) {
    table.rows.push_back({entry.address, std::uint32_t{entry.prefixLength}, entry.secondary});
  }
  return table;
}

Table ListRoutes(const Arguments& /*none*/) {
  Table table{{"destination", "prefix", "gateway", "interface", "table", "protocol", "type"}, {}};
  for (const net::RouteEntry& route : net::GetRoutes(AF_INET)) {
    table.rows.push_back({route.destination, std::uint32_t{route.prefixLength}, route.gateway, route.iface, route.table,
                          std::uint32_t{route.protocol}, std::uint32_t{route.type}});
  }
  return table;
}

Table ListRoutingTable(const Arguments& /*none*/) {
  Table table{{"destination", "mask", "gateway", "interface", "metric", "flags"}, {}};
  for (const net::RoutingTableEntry& route : net::GetRoutingTable()) {
    table.rows.push_back({net::NtoIP(route.destination), net::NtoIP(route.mask), net::NtoIP(route.gateway), route.iface,
                          route.metric, RouteFlagNames(route.flags)});
  }
  return table;
}

Table ListNeighbours(const Arguments& /*none*/) {
  Table table{{"address", "mac", "interface", "state"}, {}};
  for (const net::ArpEntry& entry : net::GetArpTable()) {
    table.rows.push_back({net::NtoIP(entry.ip), entry.mac, entry.iface, std::string(StateName(entry.state))});
  }
  return table;
}

constexpr char kMacHint[] = "a MAC is six pairs of hexadecimal digits and colons, and the driver must take it";
constexpr char kRefusesAddresses[] = "the kernel refuses every address that is added so, see docs/behaviour.md";
constexpr char kNextHop[] =
    "the interface must be up, the gateway on its network, the route a new one, and no bits set behind the prefix";

}  // namespace

const std::vector<Command> kCommands = {
    {"link list", "interfaces with an IPv4 address, a line for each address", ListInterfaces},
    {"link show NAME", "whether it exists, its index, MAC and addresses", ShowInterface},
    {"link add NAME type KIND", "create an interface: bridge, dummy, veth, ...",
     [](auto& a) { return net::CreateInterface(a[0], a[1]); }, "does the kernel know this kind?"},
    {"link del NAME", "delete a virtual interface", [](auto& a) { return net::DeleteInterface(a[0]); },
     "only virtual interfaces can be deleted"},
    {"link up|down NAME", "bring it up or down", [](auto& a) { return net::SetInterfaceUp(a[1], a[0] == "up"); }},
    {"link mtu NAME BYTES", "set the MTU; the interface is down afterwards",
     [](auto& a) { return net::SetMTU(a[0], Number(a[1])); }, "the driver may not take this MTU"},
    {"link mac NAME AA:BB:CC:DD:EE:FF", "set the MAC; the interface is down afterwards",
     [](auto& a) { return net::SetMAC(a[0], a[1]); }, kMacHint},
    {"link master NAME MASTER", "make it a port of a bridge or bond",
     [](auto& a) { return net::SetMaster(a[0], a[1]); }, "the master must take ports of this kind"},
    {"link nomaster NAME", "take it out of its bridge or bond", [](auto& a) { return net::UnsetMaster(a[0]); }},
    {"link multicast NAME on|off", "switch multicast",
     [](auto& a) { return net::SetInterfaceMulticast(a[0], a[1] == "on"); }},
    {"link promisc NAME on|off", "switch promiscuous mode",
     [](auto& a) { return net::SetInterfacePromiscuous(a[0], a[1] == "on"); }},
    {"link netns NAME PID|PATH", "move it to the namespace of a process, or of a file", MoveToNetns,
     "there must be such a namespace, and the interface may be bound to its own"},
    {"vlan add PARENT ID NAME", "create a VLAN interface on PARENT",
     [](auto& a) { return net::AddVlan(a[0], Number(a[1]), a[2]); }, "the kernel must know VLANs and take this id"},
    {"addr list IFACE", "its IPv4 addresses", ListAddresses},
    {"addr add IFACE IP/PREFIX", "add an address", [](auto& a) { return ChangeAddress(net::AssignAddress, a); },
     kRefusesAddresses},
    {"addr add IFACE IP/PREFIX label LABEL", "add an address with a label such as eth0:1", AddLabeledAddress,
     kRefusesAddresses},
    {"addr del IFACE IP/PREFIX", "remove an address", [](auto& a) { return ChangeAddress(net::DeleteAddress, a); },
     "addr list tells whether it is there"},
    {"route list", "IPv4 routes of all tables, by netlink", ListRoutes},
    {"route table", "IPv4 routes with metric and flags, from /proc/net/route", ListRoutingTable},
    {"route add DEST/PREFIX GATEWAY IFACE", "add a route, default for 0.0.0.0/0; gateway 0.0.0.0 for none",
     [](auto& a) { return ChangeRoute(net::AddRoute, a); }, kNextHop},
    {"route del DEST/PREFIX GATEWAY IFACE", "remove a route", [](auto& a) { return ChangeRoute(net::DeleteRoute, a); },
     "route list tells whether it is there"},
    {"neigh list", "the ARP table", ListNeighbours},
    {"hostname", "print the host name", PrintHostname},
    {"hostname NAME", "set the host name", SetHostname},
};

bool IsValid(const std::string& word, const std::string& value, std::string& wanted) {
  for (const Kind& kind : kKinds) {
    if (word == kind.word) {
      wanted = kind.wanted;
      return kind.isValid(value);
    }
  }
  return true;
}
