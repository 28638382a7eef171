#ifndef KIV_UTILS_DISK_STATS_H
#define KIV_UTILS_DISK_STATS_H

#include <kiv/utils.h>

/// The lines of /proc/diskstats, as pure code on memory. Layout: the kernel's Documentation/admin-guide/iostats.rst.
namespace kiv::utils {

/// Reads a line, be it of a disk or of a partition. Returns false, with `out` untouched, when it has fewer than 14
/// fields; of more, the first 10 count.
bool ParseDiskStatsLine(StringView line, DiskStats::DeviceStats& out);

}  // namespace kiv::utils

#endif  // KIV_UTILS_DISK_STATS_H
