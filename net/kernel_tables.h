#ifndef KIV_NET_KERNEL_TABLES_H
#define KIV_NET_KERNEL_TABLES_H

#include <kiv/net.h>
#include <kiv/utils.h>

/// The lines of /proc/net/arp and /proc/net/route, as pure code on memory. Layout: proc(5), and the kernel's net/ipv4.
namespace kiv::net {

/// Reads one line of /proc/net/arp. Returns false, with `entry` untouched, when it is not a neighbour.
bool ParseArpLine(utils::StringView line, ArpEntry& entry);

/// Reads one line of /proc/net/route. Returns false, with `entry` untouched, when it is not a route.
bool ParseRouteLine(utils::StringView line, RoutingTableEntry& entry);

/// Returns the value of a text that is a hexadecimal number as a whole, as strtoul(3) on a machine with a 32-bit long
/// reads it; 0 for any other text and for a null pointer.
std::uint32_t ParseHex(const char* text);

}  // namespace kiv::net

#endif  // KIV_NET_KERNEL_TABLES_H
