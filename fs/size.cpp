#include <fcntl.h>
#include <kiv/fs.h>
#include <linux/fs.h>
#include <sys/ioctl.h>
#include <sys/stat.h>
#include <sys/statfs.h>

#include <cstdint>

#include "internal/unique_fd.h"

namespace kiv::fs {
namespace {

// Deliberate: sizes are 32-bit on every architecture, wrapping, so that a 64-bit build answers as the device does. What
// does not fit is cut to its low 32 bits, which may make it negative.
template <typename Count>
std::int32_t LowBits(Count bytes) {
  return static_cast<std::int32_t>(static_cast<std::uint32_t>(bytes));
}

template <typename Size, typename Blocks>
std::int32_t Product(Size blockSize, Blocks blocks) {
  return LowBits(static_cast<std::uint32_t>(blockSize) * static_cast<std::uint32_t>(blocks));
}

}  // namespace

bool HasEnoughSpace(const std::string& path, int bytes) {
  struct statfs filesystem {};
  if (bytes < 0 || ::statfs(path.c_str(), &filesystem) != 0) {
    return false;
  }
  return Product(filesystem.f_bsize, filesystem.f_bavail) >= bytes;
}

int GetSize(int fd) {
  struct stat status {};
  if (::fstat(fd, &status) != 0) {
    return -1;
  }
  if (S_ISREG(status.st_mode)) {
    return LowBits(status.st_size);
  }
  std::uint64_t bytes = 0;
  if (!S_ISBLK(status.st_mode) || ::ioctl(fd, BLKGETSIZE64, &bytes) < 0) {
    return -1;
  }
  return LowBits(bytes);
}

int GetSize(const std::string& path) {
  const internal::UniqueFd fd(::open(path.c_str(), O_RDONLY));
  return fd.IsValid() ? GetSize(fd.Get()) : -1;
}

int GetSizeFS(const std::string& path) {
  struct statfs filesystem {};
  if (::statfs(path.c_str(), &filesystem) != 0) {
    return -1;
  }
  return Product(filesystem.f_bsize, filesystem.f_bfree);
}

}  // namespace kiv::fs
