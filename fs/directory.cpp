#include <kiv/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>

#include "fs/errno_error.h"
#include "internal/unique_dir.h"

namespace kiv::fs {
namespace {

bool IsSelfOrParent(const char* name) { return std::strcmp(name, ".") == 0 || std::strcmp(name, "..") == 0; }

error RemoveFile(const std::string& path) {
  return ::unlink(path.c_str()) == 0 ? success : ErrorOf(errno, {not_found, permission_denied}, io_error);
}

error RemoveEmptyDirectory(const std::string& path) {
  return ::rmdir(path.c_str()) == 0 ? success : ErrorOf(errno, {permission_denied}, io_error);
}

}  // namespace

error RemoveDirRecursively(const std::string& path) {
  struct stat status {};
  if (::lstat(path.c_str(), &status) != 0) {
    return errno == ENOENT ? not_found : stat_failed;
  }
  if (!S_ISDIR(status.st_mode)) {
    return RemoveFile(path);
  }
  internal::UniqueDir entries(path.c_str());
  if (!entries.IsValid()) {
    return dir_open_failed;
  }
  error child = success;
  while (child == success) {
    const char* const name = entries.Next();
    if (name == nullptr) {
      break;
    }
    if (!IsSelfOrParent(name)) {
      child = RemoveDirRecursively(path + "/" + name);
    }
  }
  entries.Close();
  // Deliberate: a child's own result is dropped. The directory is not empty then, and the failure of its rmdir decides.
  return RemoveEmptyDirectory(path);
}

error CreateDirectory(const std::string& path) {
  // Deliberate: an entry that exists counts as success whatever its type; the next use of it as a directory fails.
  if (::mkdir(path.c_str(), 0777) == 0 || errno == EEXIST) {
    return success;
  }
  return ErrorOf(errno, {permission_denied, no_space, not_found}, mkdir_failed);
}

}  // namespace kiv::fs
