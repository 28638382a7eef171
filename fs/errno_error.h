#ifndef KIV_FS_ERRNO_ERROR_H
#define KIV_FS_ERRNO_ERROR_H

#include <kiv/fs.h>

#include <algorithm>
#include <cerrno>
#include <initializer_list>

namespace kiv::fs {

/// Returns what an errno means, when that is one of the `named` results of an operation, and `other` when it is not.
inline error ErrorOf(int number, std::initializer_list<error> named, error other) {
  error meaning = other;
  if (number == EACCES || number == EPERM) {
    meaning = permission_denied;
  } else if (number == ENOSPC || number == EDQUOT) {
    meaning = no_space;
  } else if (number == ENOENT) {
    meaning = not_found;
  }
  return std::find(named.begin(), named.end(), meaning) != named.end() ? meaning : other;
}

}  // namespace kiv::fs

#endif  // KIV_FS_ERRNO_ERROR_H
