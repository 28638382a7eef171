#include <fcntl.h>
#include <kiv/fs.h>
#include <sys/sendfile.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>

#include "fs/errno_error.h"
#include "internal/unique_fd.h"

namespace kiv::fs {
namespace {

constexpr std::size_t kBlockSize = 4096;

error WriteAll(int dst, const char* bytes, std::size_t size) {
  while (size > 0) {
    const ssize_t written = ::write(dst, bytes, size);
    if (written < 0 && errno == EINTR) {
      continue;
    }
    if (written <= 0) {
      return ErrorOf(errno, {no_space, permission_denied}, io_error);
    }
    bytes += written;
    size -= static_cast<std::size_t>(written);
  }
  return success;
}

error CopyBlocks(int src, int dst) {
  char buffer[kBlockSize];
  for (;;) {
    const ssize_t size = ::read(src, buffer, sizeof buffer);
    if (size < 0 && errno == EINTR) {
      continue;
    }
    if (size <= 0) {
      return size == 0 ? success : io_error;
    }
    const error result = WriteAll(dst, buffer, static_cast<std::size_t>(size));
    if (result != success) {
      return result;
    }
  }
}

// What sendfile(2) cannot do between these two files is done with a buffer. Linux refuses a pair at the first call,
// when nothing has been written, so that the destination's offset is still 0.
error StartOverWithBlocks(int src, int dst) {
  if (::ftruncate(dst, 0) != 0 || ::lseek(src, 0, SEEK_SET) < 0) {
    return io_error;
  }
  return CopyBlocks(src, dst);
}

// What one call can be asked for; a 32-bit machine has files larger than that.
std::size_t CountOf(off_t bytes) {
  constexpr auto kMost = std::numeric_limits<ssize_t>::max();
  return static_cast<std::size_t>(std::min<std::int64_t>(bytes, kMost));
}

error SendAll(int src, int dst, off_t size) {
  off_t offset = 0;
  while (offset < size) {
    const ssize_t sent = ::sendfile(dst, src, &offset, CountOf(size - offset));
    if (sent > 0) {
      continue;
    }
    if (sent == 0) {
      return io_error;  // The source has become shorter.
    }
    if (errno == EINVAL) {
      return StartOverWithBlocks(src, dst);
    }
    // Deliberate: an interrupted copy is not resumed. Only the block loop goes on after a signal.
    if (errno == EINTR || errno == EAGAIN) {
      return io_error;
    }
    return ErrorOf(errno, {no_space, permission_denied}, sendfile_failed);
  }
  return success;
}

bool IsSameFile(const struct stat& source, const std::string& path) {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && status.st_dev == source.st_dev && status.st_ino == source.st_ino;
}

}  // namespace

error Copy(const std::string& src, const std::string& dst, bool sync) {
  const internal::UniqueFd source(::open(src.c_str(), O_RDONLY));
  if (!source.IsValid()) {
    return ErrorOf(errno, {not_found, permission_denied}, src_open_failed);
  }
  struct stat status {};
  if (::fstat(source.Get(), &status) != 0) {
    return stat_failed;
  }
  if (!S_ISREG(status.st_mode)) {
    return not_regular_file;
  }
  // Deliberate: the size is asked for in 32 bits, as HasEnoughSpace takes it. Above 2 GiB it is negative and refused,
  // above 4 GiB only what is left of it counts.
  if (!HasEnoughSpace(Dirname(dst), static_cast<std::int32_t>(static_cast<std::uint32_t>(status.st_size)))) {
    return no_space;
  }
  if (IsSameFile(status, dst)) {
    return success;
  }
  const int flags = O_WRONLY | O_CREAT | O_TRUNC | (sync ? O_SYNC : 0);
  const internal::UniqueFd destination(::open(dst.c_str(), flags, 0644));
  if (!destination.IsValid()) {
    return ErrorOf(errno, {no_space, permission_denied, not_found}, dst_open_failed);
  }
  return SendAll(source.Get(), destination.Get(), status.st_size);
}

}  // namespace kiv::fs
