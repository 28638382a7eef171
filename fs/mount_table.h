#ifndef KIV_FS_MOUNT_TABLE_H
#define KIV_FS_MOUNT_TABLE_H

#include <string>

namespace kiv::fs {

/// Tells whether one line of /proc/mounts has exactly `path` as its second field, between its first two blanks. Layout:
/// proc(5), fstab(5).
bool HasMountPoint(const std::string& line, const std::string& path);

}  // namespace kiv::fs

#endif  // KIV_FS_MOUNT_TABLE_H
