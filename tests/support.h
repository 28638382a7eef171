#ifndef KIV_TESTS_SUPPORT_H
#define KIV_TESTS_SUPPORT_H

#include <dirent.h>
#include <sys/socket.h>
#include <unistd.h>

#include <cstddef>
#include <memory>
#include <string>
#include <utility>

#include "internal/unique_fd.h"

namespace kiv::test {

/// Counts the descriptors that this process has open, without the one used for counting.
inline std::size_t CountOpenFds() {
  const std::unique_ptr<DIR, int (*)(DIR*)> list(::opendir("/proc/self/fd"), &::closedir);
  std::size_t count = 0;
  while (::readdir(list.get()) != nullptr) {
    ++count;
  }
  return count - 3;  // ".", ".." and the directory stream itself.
}

/// Tells whether `fd` is an open descriptor.
inline bool IsOpen(int fd) { return ::access(("/proc/self/fd/" + std::to_string(fd)).c_str(), F_OK) == 0; }

/// Makes a connected pair of unix stream sockets.
inline std::pair<internal::UniqueFd, internal::UniqueFd> SocketPair() {
  int fds[2] = {-1, -1};
  (void)::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds);
  return {internal::UniqueFd(fds[0]), internal::UniqueFd(fds[1])};
}

}  // namespace kiv::test

#endif  // KIV_TESTS_SUPPORT_H
