#ifndef KIV_UTILS_NET_STATS_H
#define KIV_UTILS_NET_STATS_H

#include <kiv/utils.h>

/// The lines of /proc/net/dev, as pure code on memory. Layout: proc(5), and the kernel's net/core/net-procfs.c.
namespace kiv::utils {

/// Reads a line below the headings. Returns false, with `out` untouched, when it is not an interface with its counters.
bool ParseNetDevLine(StringView line, NetStats::IfaceStats& out);

}  // namespace kiv::utils

#endif  // KIV_UTILS_NET_STATS_H
