#ifndef KIV_INTERNAL_UNIQUE_FD_H
#define KIV_INTERNAL_UNIQUE_FD_H

#include <unistd.h>

#include <cerrno>
#include <utility>

namespace kiv::internal {

/// Owns one descriptor, or none (-1), and closes it once. Converts to nothing; ask for the number with Get.
class UniqueFd {
 public:
  UniqueFd() noexcept = default;
  explicit UniqueFd(int fd) noexcept : mFd(fd) {}
  UniqueFd(UniqueFd&& other) noexcept : mFd(other.Release()) {}
  UniqueFd& operator=(UniqueFd&& other) noexcept {
    Reset(other.Release());
    return *this;
  }
  UniqueFd(const UniqueFd&) = delete;
  UniqueFd& operator=(const UniqueFd&) = delete;
  ~UniqueFd() { Reset(); }

  int Get() const noexcept { return mFd; }
  bool IsValid() const noexcept { return mFd >= 0; }

  /// Hands the descriptor to the caller and forgets it.
  int Release() noexcept { return std::exchange(mFd, -1); }

  /// Closes the descriptor held so far and takes `fd`. Leaves errno as it was, so that a failure keeps its reason.
  void Reset(int fd = -1) noexcept {
    const int old = std::exchange(mFd, fd);
    if (old >= 0) {
      const int saved = errno;
      // Never retried: Linux frees the number even when close reports EINTR, and another thread may have it already.
      (void)::close(old);
      errno = saved;
    }
  }

 private:
  int mFd = -1;
};

}  // namespace kiv::internal

#endif  // KIV_INTERNAL_UNIQUE_FD_H
