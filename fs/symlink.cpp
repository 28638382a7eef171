#include <kiv/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>

#include "fs/errno_error.h"

namespace kiv::fs {

error CreateSymlink(const std::string& target, const std::string& linkpath) {
  struct stat status {};
  if (::stat(target.c_str(), &status) != 0) {
    return ErrorOf(errno, {not_found, permission_denied}, stat_failed);
  }
  if (!S_ISREG(status.st_mode)) {
    return not_regular_file;
  }
  if (::symlink(target.c_str(), linkpath.c_str()) != 0) {
    return ErrorOf(errno, {permission_denied, no_space, not_found}, symlink_failed);
  }
  return success;
}

}  // namespace kiv::fs
