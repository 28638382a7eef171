#include "network.h"

#include <arpa/inet.h>
#include <ifaddrs.h>
#include <kiv/utils.h>
#include <linux/rtnetlink.h>
#include <netpacket/packet.h>

#include <algorithm>
#include <bitset>
#include <initializer_list>
#include <map>
#include <memory>
#include <tuple>
#include <utility>

#include "common/json.h"
#include "common/names.h"

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

void Add(const ifaddrs& entry, Interface& interface) {
  if (entry.ifa_addr == nullptr) {
    return;
  }
  if (entry.ifa_addr->sa_family == AF_PACKET) {
    interface.index = static_cast<unsigned int>(reinterpret_cast<const sockaddr_ll*>(entry.ifa_addr)->sll_ifindex);
    interface.flags = entry.ifa_flags & 0xFFFF;  // Those of net/if.h; what lies above says nothing more.
  } else if (entry.ifa_addr->sa_family == AF_INET && ++interface.addressTotal <= kMaxAddresses) {
    const auto* const mask = reinterpret_cast<const sockaddr_in*>(entry.ifa_netmask);
    const std::size_t length = std::bitset<32>(mask->sin_addr.s_addr).count();
    const auto [ip, port] = kiv::net::GetAddress(*reinterpret_cast<const sockaddr_in*>(entry.ifa_addr));
    interface.addresses.push_back(ip + "/" + std::to_string(length));
  }
}

// One getifaddrs(3) tells of all: GetIfaces leaves out prefix lengths and interfaces without an address, and
// GetInterfaceAddresses has the kernel list every interface's addresses for each that it is asked for.
bool ReadInterfaces(Table<Interface>& table) {
  ifaddrs* first = nullptr;
  if (::getifaddrs(&first) != 0) {
    return false;
  }
  const std::unique_ptr<ifaddrs, decltype(&::freeifaddrs)> list(first, &::freeifaddrs);
  std::map<std::string, Interface> interfaces;
  for (const ifaddrs* entry = list.get(); entry != nullptr; entry = entry->ifa_next) {
    const std::string name = kiv::utils::Split(entry->ifa_name, ":").front();  // "eth0:1" is an address of eth0.
    interfaces[name].name = name;
    Add(*entry, interfaces[name]);
  }
  std::vector<Interface> rows;
  for (auto& [name, interface] : interfaces) {
    rows.push_back(std::move(interface));
  }
  table = Keep(std::move(rows));
  for (Interface& interface : table.rows) {
    interface.mac = kiv::net::GetMAC(interface.name.c_str());
  }
  return true;
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

// The rows of the table before that nothing has been found for.
template <typename Row>
class Leftovers {
 public:
  explicit Leftovers(const std::vector<Row>& rows) {
    for (const Row& row : rows) {
      mRows.push_back(&row);
    }
  }

  /// Returns the first that fits, which then is used up, or null.
  template <typename Fits>
  const Row* Take(const Fits& fits) {
    const auto found = std::find_if(mRows.begin(), mRows.end(), [&fits](const Row* row) { return fits(*row); });
    if (found == mRows.end()) {
      return nullptr;
    }
    const Row* const row = *found;
    mRows.erase(found);
    return row;
  }

  const std::vector<const Row*>& Rows() const { return mRows; }

 private:
  std::vector<const Row*> mRows;
};

// Several routes may lead to one destination: those that stayed as they were are found before any is taken for a change
// of another.
template <typename Row>
std::vector<Marked<Row>> Match(const Table<Row>& before, const Table<Row>& now) {
  Leftovers<Row> old(before.rows);
  std::vector<Marked<Row>> marked;
  std::vector<const Row*> others;
  for (const Row& row : now.rows) {
    if (old.Take([&row](const Row& o) { return IsSame(o, row) && Differences(o, row).empty(); }) != nullptr) {
      marked.push_back({&row, nullptr, {}});
    } else {
      others.push_back(&row);
    }
  }
  for (const Row* row : others) {
    const Row* const was = old.Take([row](const Row& o) { return IsSame(o, *row); });
    marked.push_back({row, was != nullptr ? "changed" : "new", was != nullptr ? Differences(*was, *row) : Names()});
  }
  for (const Row* row : old.Rows()) {
    marked.push_back({row, "gone", {}});
  }
  return marked;
}

template <typename Row>
std::vector<Marked<Row>> Compare(const Table<Row>& before, const Table<Row>& now) {
  std::vector<Marked<Row>> marked = Match(before, now);
  std::stable_sort(marked.begin(), marked.end(), [](const auto& a, const auto& b) { return IsBefore(*a.row, *b.row); });
  // Rows that merely came into sight, or went out of it, have a full table's rows before them: they are cut off here
  // and so are not taken for new or gone.
  marked.erase(marked.begin() + static_cast<std::ptrdiff_t>(std::min(marked.size(), kMaxRows)), marked.end());
  return marked;
}

// ---- Writing.

std::string JsonText(const std::string& text) { return text.empty() ? "null" : JsonString(text); }

std::string Members(const Interface& row) {
  const auto isSet = [&row](int flag) { return (row.flags & static_cast<unsigned int>(flag)) != 0; };
  return "\"index\":" + std::to_string(row.index) + ",\"name\":" + JsonString(row.name) +
         ",\"addresses\":" + JsonList(row.addresses, JsonString) +
         ",\"address_total\":" + std::to_string(row.addressTotal) + ",\"mac\":" + JsonText(row.mac) +
         ",\"flags\":" + JsonList(FlagNames(isSet), JsonString);
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
