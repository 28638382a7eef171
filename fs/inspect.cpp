#include <kiv/fs.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

namespace kiv::fs {
namespace {

bool HasType(const std::string& path, mode_t type) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && (status.st_mode & S_IFMT) == type;
}

}  // namespace

bool IsDirectory(const std::string& path) { return HasType(path, S_IFDIR); }

bool IsRegularFile(const std::string& path) { return HasType(path, S_IFREG); }

bool IsTmpfsFile(const std::string& path) {
  struct statfs filesystem {};
  return ::statfs(path.c_str(), &filesystem) == 0 && filesystem.f_type == TMPFS_MAGIC;
}

bool Exists(const std::string& path) { return ::access(path.c_str(), F_OK) == 0; }

}  // namespace kiv::fs
