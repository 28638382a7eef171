#ifndef KIV_NET_NETLINK_DUMP_H
#define KIV_NET_NETLINK_DUMP_H

#include <cstddef>
#include <cstdint>
#include <functional>

#include "net/netlink_walk.h"

namespace kiv::net {

/// Header and address family: all that the dump requests of the library hold.
constexpr std::size_t kDumpRequestSize = sizeof(nlmsghdr) + 1;

/// Writes the request for a dump of `type` (RTM_GETROUTE, ...) to the kDumpRequestSize bytes at `out`.
void BuildDumpRequest(char* out, std::uint16_t type, unsigned char family);

/// Asks the kernel on `fd`, an rtnetlink socket, for a dump, and hands its messages to `take` as they arrive.
///
/// Blocks without a limit in time. Ends with the dump, with a kernel error in it, or with a failure of the socket,
/// EINTR included; which of these is not told.
void NetlinkDump(int fd, std::uint16_t type, unsigned char family,
                 const std::function<void(const NetlinkMessage&)>& take);

}  // namespace kiv::net

#endif  // KIV_NET_NETLINK_DUMP_H
