#include "network.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <initializer_list>
#include <memory>
#include <tuple>
#include <utility>

#include "common/json.h"

namespace {

using kiv::net::ArpEntry;
using kiv::net::RouteEntry;

// So that an answer stays below 256 KiB, which is what a statusd takes of its peer, whatever the tables and names hold.
constexpr std::size_t kMaxRows = 200;
constexpr std::size_t kMaxAddresses = 8;

using Names = std::vector<const char*>;

// ---- What rows of each kind are: their place in the table, what identifies them, and how two of them differ.

auto Place(const Interface& row) { return row.index; }

auto Place(const ArpEntry& row) { return std::make_tuple(ntohl(row.ip), row.iface); }

auto Identity(const RouteEntry& row) {
  std::uint32_t destination = 0;
  (void)kiv::net::IPtoN(row.destination, destination);  // The kernel's own text.
  return std::make_tuple(row.table != RT_TABLE_MAIN, row.table, ntohl(destination), row.prefixLength);
}

// Routes to the same destination differ in a metric that RouteEntry does not tell: the rest keeps them in order.
bool IsBefore(const RouteEntry& a, const RouteEntry& b) {
  const auto first = Identity(a);
  const auto second = Identity(b);
  return first != second
             ? first < second
             : std::tie(a.gateway, a.iface, a.protocol, a.type) < std::tie(b.gateway, b.iface, b.protocol, b.type);
}

bool IsSame(const RouteEntry& a, const RouteEntry& b) { return Identity(a) == Identity(b); }

template <typename Row>
bool IsBefore(const Row& a, const Row& b) {
  return Place(a) < Place(b);
}

template <typename Row>
bool IsSame(const Row& a, const Row& b) {
  return Place(a) == Place(b);
}

Names Pick(std::initializer_list<std::pair<const char*, bool>> fields) {
  Names names;
  for (const auto& [name, differs] : fields) {
    if (differs) {
      names.push_back(name);
    }
  }
  return names;
}

Names Differences(const Interface& a, const Interface& b) {
  return Pick({{"name", a.name != b.name},
               {"addresses", a.addresses != b.addresses || a.addressTotal != b.addressTotal},
               {"mac", a.mac != b.mac},
               {"flags", a.flags != b.flags}});
}

Names Differences(const RouteEntry& a, const RouteEntry& b) {
  return Pick({{"gateway", a.gateway != b.gateway},
               {"interface", a.iface != b.iface},
               {"protocol", a.protocol != b.protocol},
               {"type", a.type != b.type}});
}

Names Differences(const ArpEntry& a, const ArpEntry& b) {
  return Pick({{"mac", a.mac != b.mac}, {"state", a.state != b.state}});
}

// ---- Reading.

// Sorts as much of the table as is kept.
template <typename Row>
Table<Row> Keep(std::vector<Row> rows) {
  Table<Row> table;
  table.total = rows.size();
  const auto end = rows.begin() + static_cast<std::ptrdiff_t>(std::min(rows.size(), kMaxRows));
  std::partial_sort(rows.begin(), end, rows.end(), [](const Row& a, const Row& b) { return IsBefore(a, b); });
  table.rows.assign(std::make_move_iterator(rows.begin()), std::make_move_iterator(end));
  return table;
}

std::vector<Interface> ListInterfaces() {
  std::vector<Interface> interfaces;
  // "struct", since there is a function of the same name.
  using List = std::unique_ptr<struct if_nameindex, decltype(&::if_freenameindex)>;
  const List list(::if_nameindex(), &::if_freenameindex);
  for (const struct if_nameindex* entry = list.get(); entry != nullptr && entry->if_index != 0; ++entry) {
    interfaces.emplace_back();
    interfaces.back().index = entry->if_index;
    interfaces.back().name = entry->if_name;
  }
  return interfaces;
}

// Any socket will do. /sys/class/net/NAME/flags would do without one, but lacks IFF_RUNNING.
bool ReadFlags(int fd, Interface& interface) {
  ifreq request{};
  (void)interface.name.copy(request.ifr_name, IFNAMSIZ - 1);
  if (::ioctl(fd, SIOCGIFFLAGS, &request) != 0) {
    return false;
  }
  interface.flags = static_cast<unsigned short>(request.ifr_flags);
  return true;
}

void ReadDetails(Interface& interface) {
  interface.mac = kiv::net::GetMAC(interface.name.c_str());
  const std::vector<kiv::net::InterfaceAddress> addresses = kiv::net::GetInterfaceAddresses(interface.name);
  interface.addressTotal = addresses.size();
  for (std::size_t i = 0; i < std::min(addresses.size(), kMaxAddresses); ++i) {
    interface.addresses.push_back(addresses[i].address + "/" + std::to_string(addresses[i].prefixLength));
  }
}

bool ReadInterfaces(Table<Interface>& table) {
  const int fd = ::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd < 0) {
    return false;
  }
  table = Keep(ListInterfaces());
  const bool listed = table.total != 0;  // There always is a loopback interface.
  const auto isGone = [fd](Interface& interface) { return !ReadFlags(fd, interface); };
  const auto end = std::remove_if(table.rows.begin(), table.rows.end(), isGone);
  table.total -= static_cast<std::size_t>(table.rows.end() - end);
  table.rows.erase(end, table.rows.end());
  ::close(fd);
  std::for_each(table.rows.begin(), table.rows.end(), ReadDetails);
  return listed;
}

// GetRoutes and not GetRoutingTable: that one has the metric, but only the main table, and not who made the route.
std::vector<RouteEntry> ListRoutes() {
  std::vector<RouteEntry> routes = kiv::net::GetRoutes(AF_INET);
  const auto isNoise = [](const RouteEntry& route) {
    return route.table == RT_TABLE_LOCAL && (route.type == RTN_LOCAL || route.type == RTN_BROADCAST);
  };
  routes.erase(std::remove_if(routes.begin(), routes.end(), isNoise), routes.end());
  return routes;
}

// ---- Comparing.

template <typename Row>
struct Marked {
  const Row* row;
  const char* change;
  Names fields;
};

template <typename Row>
std::vector<Marked<Row>> Compare(const Table<Row>& before, const Table<Row>& now) {
  std::vector<const Row*> old;
  for (const Row& row : before.rows) {
    old.push_back(&row);
  }
  // Returns the first of the old rows that fits, which then is used up.
  const auto take = [&old](const auto& fits) -> const Row* {
    const auto found = std::find_if(old.begin(), old.end(), fits);
    if (found == old.end()) {
      return nullptr;
    }
    const Row* row = *found;
    old.erase(found);
    return row;
  };
  std::vector<Marked<Row>> marked;
  std::vector<const Row*> others;
  // Several routes may lead to one destination: those that stayed as they were are found before any is taken for a
  // change of another.
  for (const Row& row : now.rows) {
    if (take([&row](const Row* o) { return IsSame(*o, row) && Differences(*o, row).empty(); }) != nullptr) {
      marked.push_back({&row, nullptr, {}});
    } else {
      others.push_back(&row);
    }
  }
  for (const Row* row : others) {
    const Row* was = take([row](const Row* o) { return IsSame(*o, *row); });
    if (was != nullptr) {
      marked.push_back({row, "changed", Differences(*was, *row)});
    } else {
      marked.push_back({row, "new", {}});
    }
  }
  for (const Row* row : old) {
    marked.push_back({row, "gone", {}});
  }
  std::stable_sort(marked.begin(), marked.end(), [](const auto& a, const auto& b) { return IsBefore(*a.row, *b.row); });
  // Rows that merely came into sight, or went out of it, have a full table's rows before them: they are cut off here
  // and so are not taken for new or gone.
  marked.erase(marked.begin() + static_cast<std::ptrdiff_t>(std::min(marked.size(), kMaxRows)), marked.end());
  return marked;
}

// ---- Writing.

template <typename List, typename Write>
std::string JsonList(const List& list, Write write) {
  std::string json;
  for (const auto& item : list) {
    json += (json.empty() ? "" : ",") + write(item);
  }
  return "[" + json + "]";
}

std::string JsonText(const std::string& text) { return text.empty() ? "null" : JsonString(text); }

Names FlagNames(unsigned int flags) {
  const auto has = [flags](unsigned int flag) { return (flags & flag) != 0; };
  return Pick({{"UP", has(IFF_UP)},
               {"RUNNING", has(IFF_RUNNING)},
               {"LOOPBACK", has(IFF_LOOPBACK)},
               {"BROADCAST", has(IFF_BROADCAST)},
               {"MULTICAST", has(IFF_MULTICAST)},
               {"POINTOPOINT", has(IFF_POINTOPOINT)},
               {"NOARP", has(IFF_NOARP)},
               {"PROMISC", has(IFF_PROMISC)},
               {"ALLMULTI", has(IFF_ALLMULTI)},
               {"MASTER", has(IFF_MASTER)},
               {"SLAVE", has(IFF_SLAVE)}});
}

const char* StateName(kiv::net::ArpState state) {
  const char* const names[] = {"incomplete", "reachable", "stale",     "delay",  "probe",
                               "failed",     "no arp",    "permanent", "unknown"};
  return names[static_cast<std::size_t>(state)];
}

std::string Members(const Interface& row) {
  return "\"index\":" + std::to_string(row.index) + ",\"name\":" + JsonString(row.name) +
         ",\"addresses\":" + JsonList(row.addresses, JsonString) +
         ",\"address_total\":" + std::to_string(row.addressTotal) + ",\"mac\":" + JsonText(row.mac) +
         ",\"flags\":" + JsonList(FlagNames(row.flags), JsonString);
}

std::string Members(const RouteEntry& row) {
  return "\"destination\":" + JsonString(row.destination + "/" + std::to_string(row.prefixLength)) +
         ",\"gateway\":" + JsonText(row.gateway) + ",\"interface\":" + JsonText(row.iface) +
         ",\"table\":" + std::to_string(row.table) + ",\"protocol\":" + std::to_string(row.protocol) +
         ",\"type\":" + std::to_string(row.type);
}

std::string Members(const ArpEntry& row) {
  return "\"address\":" + JsonString(kiv::net::NtoIP(row.ip)) + ",\"interface\":" + JsonString(row.iface) +
         ",\"mac\":" + JsonString(row.mac) + ",\"state\":" + JsonString(StateName(row.state));
}

template <typename Row>
std::string JsonTable(const Table<Row>& before, const Table<Row>& now) {
  const auto write = [](const Marked<Row>& item) {
    return "{" + Members(*item.row) + ",\"change\":" + (item.change == nullptr ? "null" : JsonString(item.change)) +
           ",\"fields\":" + JsonList(item.fields, JsonString) + "}";
  };
  return "{\"total\":" + std::to_string(now.total) + ",\"rows\":" + JsonList(Compare(before, now), write) + "}";
}

}  // namespace

std::optional<Network> ReadNetwork() {
  Network network;
  if (!ReadInterfaces(network.interfaces)) {
    return std::nullopt;
  }
  network.routes = Keep(ListRoutes());
  network.neighbours = Keep(kiv::net::GetArpTable());
  return network;
}

std::string ToJson(const Network& before, const Network& now) {
  return "\"interfaces\":" + JsonTable(before.interfaces, now.interfaces) +
         ",\"routes\":" + JsonTable(before.routes, now.routes) +
         ",\"neighbours\":" + JsonTable(before.neighbours, now.neighbours);
}
