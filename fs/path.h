#ifndef KIV_FS_PATH_H
#define KIV_FS_PATH_H

#include <string>

namespace kiv::fs {

/// Returns the position in `path` at which Basename(path) begins, for a child after fork(2), which must not allocate a
/// string.
inline std::size_t StartOfBasename(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? 0 : slash + 1;
}

}  // namespace kiv::fs

#endif  // KIV_FS_PATH_H
