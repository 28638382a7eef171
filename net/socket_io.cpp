#include <kiv/net.h>

#include <cerrno>
#include <cstring>

namespace kiv::net {
namespace {

constexpr std::size_t kReadSize = 2048;

constexpr std::size_t kPathOffset = offsetof(sockaddr_un, sun_path);

// No terminator counts. Deliberate: an abstract name ends at its first NUL byte, although the kernel takes names that
// hold some: the structure alone does not tell where those end, and a name without them has the length it is bound
// with.
socklen_t AddressLength(const sockaddr_un& addr) {
  const bool abstract = addr.sun_path[0] == '\0';
  const std::size_t leading = abstract ? 1 : 0;
  const std::size_t name = ::strnlen(addr.sun_path + leading, sizeof addr.sun_path - leading);
  return static_cast<socklen_t>(kPathOffset + leading + name);
}

}  // namespace

unsigned int RecvEager(int fd, std::vector<char>& out) {
  unsigned int total = 0;
  char buffer[kReadSize];
  for (;;) {
    const ssize_t size = ::recv(fd, buffer, sizeof buffer, MSG_DONTWAIT);
    if (size > 0) {
      out.insert(out.end(), buffer, buffer + size);
      total += static_cast<unsigned int>(size);
    } else if (size == 0 || errno != EINTR) {
      return total;
    }
  }
}

int RecvFrom(int fd, void* buf, unsigned int len, sockaddr_un& from) {
  socklen_t fromLen = sizeof from;
  return static_cast<int>(::recvfrom(fd, buf, len, 0, reinterpret_cast<sockaddr*>(&from), &fromLen));
}

int RecvFrom(int fd, void* buf, unsigned int len, sockaddr_in& from) {
  socklen_t fromLen = sizeof from;
  return static_cast<int>(::recvfrom(fd, buf, len, 0, reinterpret_cast<sockaddr*>(&from), &fromLen));
}

int SendTo(int fd, const void* buf, unsigned int len, const sockaddr_un& to) {
  return static_cast<int>(::sendto(fd, buf, len, 0, reinterpret_cast<const sockaddr*>(&to), AddressLength(to)));
}

int SendTo(int fd, const void* buf, unsigned int len, const sockaddr_in& to) {
  return static_cast<int>(::sendto(fd, buf, len, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to));
}

}  // namespace kiv::net
