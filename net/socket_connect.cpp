#include <kiv/net.h>
#include <netdb.h>

#include "internal/address_list.h"

namespace kiv::net {

bool BindUnix(int fd, const UnixAddress& a) {
  return fd != -1 && a.mValid && ::bind(fd, reinterpret_cast<const sockaddr*>(&a.mAddr), a.mLen) == 0;
}

bool ConnectUnix(int fd, const UnixAddress& a) {
  return fd != -1 && a.mValid && ::connect(fd, reinterpret_cast<const sockaddr*>(&a.mAddr), a.mLen) == 0;
}

bool BindInet(int fd, const std::string& ip, unsigned short port, bool reuse) {
  if (fd == -1 || ip.empty()) {
    return false;
  }
  const int value = reuse ? 1 : 0;
  if (::setsockopt(fd, SOL_SOCKET, SO_REUSEADDR, &value, sizeof value) != 0 ||
      ::setsockopt(fd, SOL_SOCKET, SO_REUSEPORT, &value, sizeof value) != 0) {
    return false;
  }
  sockaddr_in addr;
  if (!SetAddress(addr, ip, port)) {
    return false;
  }
  return ::bind(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
}

bool ConnectInet(int fd, const sockaddr_in& addr, int type) {
  if (fd == -1 || (type != SOCK_DGRAM && type != SOCK_STREAM)) {
    return false;
  }
  return ::connect(fd, reinterpret_cast<const sockaddr*>(&addr), sizeof addr) == 0;
}

bool ConnectInet(int fd, const std::string& host, unsigned short port, int type) {
  if (fd == -1 || host.empty() || port == 0) {
    return false;
  }
  addrinfo hints{};
  hints.ai_family = AF_INET;
  hints.ai_socktype = type;
  if (type == SOCK_DGRAM) {
    hints.ai_protocol = IPPROTO_UDP;
  } else if (type == SOCK_STREAM) {
    hints.ai_protocol = IPPROTO_TCP;
  } else {
    return false;
  }
  const internal::AddressList list(host, port, hints);
  for (const addrinfo* entry = list.First(); entry != nullptr; entry = entry->ai_next) {
    if (::connect(fd, entry->ai_addr, entry->ai_addrlen) == 0) {
      return true;
    }
  }
  return false;
}

bool DrainAndShutdown(int fd, unsigned int seconds) {
  if (fd == -1) {
    return false;
  }
  (void)::shutdown(fd, SHUT_WR);  // Fails when the peer is gone; what it sent may still be drained.
  if (seconds == 0) {
    return true;
  }
  (void)SetRecvTimeout(fd, seconds);
  char discarded[256];
  while (::recv(fd, discarded, sizeof discarded, 0) > 0) {
  }
  return true;
}

}  // namespace kiv::net
