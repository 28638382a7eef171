#ifndef KIV_FS_H
#define KIV_FS_H

#include <kiv/export.h>

#include <string>

/// Files and directories. Nothing is cached, every call asks the kernel; any thread may call.
namespace kiv::fs {

/// Tells whether `path` leads to something, of any type, links followed: access(2) with F_OK, and so with the rights of
/// the real user. Returns false, with errno, for a dangling link and for a path through a directory that this user may
/// not search.
KIV_EXPORT bool Exists(const std::string& path);

}  // namespace kiv::fs

#endif  // KIV_FS_H
