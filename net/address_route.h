#ifndef KIV_NET_ADDRESS_ROUTE_H
#define KIV_NET_ADDRESS_ROUTE_H

#include <kiv/net.h>

#include "net/netlink_walk.h"

/// What one message of a dump says, as pure code on memory.
namespace kiv::net {

/// Reads an IPv4 RTM_NEWROUTE: everything but the interface, of which `ifindex` is the index, 0 when it names none.
/// Returns false, with both untouched, for any other message.
bool ParseRoute(const NetlinkMessage& message, RouteEntry& route, unsigned int& ifindex);

/// Reads an IPv4 RTM_NEWADDR that carries an address; `ifindex` is the interface's. Returns false, with both untouched,
/// for any other message.
bool ParseAddress(const NetlinkMessage& message, InterfaceAddress& address, unsigned int& ifindex);

}  // namespace kiv::net

#endif  // KIV_NET_ADDRESS_ROUTE_H
