#ifndef STATUSD_NETWORK_H
#define STATUSD_NETWORK_H

#include <kiv/net.h>

#include <cstddef>
#include <optional>
#include <string>
#include <vector>

/// One interface, whether it has an IPv4 address or not.
struct Interface {
  unsigned int index = 0;  ///< The kernel's; it tells interfaces apart, as names may change.
  std::string name;
  std::vector<std::string> addresses;  ///< The first few, such as "192.0.2.1/24".
  std::size_t addressTotal = 0;
  std::string mac;
  unsigned int flags = 0;  ///< IFF_UP, IFF_RUNNING, ... of net/if.h.
};

/// The first rows of one of the kernel's tables, in an order that does not depend on what else it holds.
template <typename Row>
struct Table {
  std::vector<Row> rows;
  std::size_t total = 0;
};

/// Interfaces by index; routes by table (the main one first) and destination, without what the kernel itself keeps of
/// local and broadcast addresses; neighbours by address.
struct Network {
  Table<Interface> interfaces;
  Table<kiv::net::RouteEntry> routes;
  Table<kiv::net::ArpEntry> neighbours;
};

/// Reads the kernel's tables. Returns nothing when it cannot be asked. Blocks for as long as large tables take.
std::optional<Network> ReadNetwork();

/// Returns `now` as members of a JSON object: "interfaces", "routes" and "neighbours", each with "total" and "rows".
///
/// Each row says in "change" what became of it since `before`, "new", "changed" (which members is in "fields"), "gone",
/// or null; a program that must not miss a change has to ask more often than there are snapshots.
std::string ToJson(const Network& before, const Network& now);

#endif  // STATUSD_NETWORK_H
