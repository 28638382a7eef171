#include <arpa/inet.h>
#include <fcntl.h>
#include <kiv/net.h>
#include <sys/time.h>

namespace kiv::net {
namespace {

template <typename Value>
bool SetOption(int fd, int level, int name, const Value& value) {
  return ::setsockopt(fd, level, name, &value, sizeof value) == 0;
}

bool SetTimeoutOption(int fd, int name, unsigned int seconds) {
  timeval limit{};
  limit.tv_sec = static_cast<decltype(limit.tv_sec)>(seconds);
  return SetOption(fd, SOL_SOCKET, name, limit);
}

bool ParseAddress(const std::string& text, in_addr& out) { return ::inet_pton(AF_INET, text.c_str(), &out) == 1; }

bool ChangeMembership(int fd, int option, const std::string& group, unsigned int ifindex) {
  ip_mreqn request{};
  if (!ParseAddress(group, request.imr_multiaddr)) {
    return false;
  }
  request.imr_ifindex = static_cast<int>(ifindex);
  return SetOption(fd, IPPROTO_IP, option, request);
}

bool ChangeMembership(int fd, int option, const std::string& group, const std::string& ifaceAddr) {
  ip_mreq request{};
  if (!ParseAddress(group, request.imr_multiaddr) || !ParseAddress(ifaceAddr, request.imr_interface)) {
    return false;
  }
  return SetOption(fd, IPPROTO_IP, option, request);
}

}  // namespace

bool SetNonBlocking(int fd, bool on) {
  if (fd == -1) {
    return false;
  }
  const int flags = ::fcntl(fd, F_GETFL, 0);
  if (flags == -1) {
    return false;
  }
  return ::fcntl(fd, F_SETFL, on ? flags | O_NONBLOCK : flags & ~O_NONBLOCK) != -1;
}

bool SetRecvTimeout(int fd, unsigned int seconds) { return fd != -1 && SetTimeoutOption(fd, SO_RCVTIMEO, seconds); }

bool SetSendTimeout(int fd, unsigned int seconds) { return fd != -1 && SetTimeoutOption(fd, SO_SNDTIMEO, seconds); }

bool EnableBroadcast(int fd, bool on) {
  return fd != -1 && SetOption(fd, SOL_SOCKET, SO_BROADCAST, static_cast<int>(on));
}

bool SetMulticastTTL(int fd, unsigned int ttl) {
  return fd != -1 && SetOption(fd, IPPROTO_IP, IP_MULTICAST_TTL, static_cast<unsigned char>(ttl & 0xFFU));
}

bool SubscribeMulticast(int fd, const std::string& group, unsigned int ifindex) {
  return ChangeMembership(fd, IP_ADD_MEMBERSHIP, group, ifindex);
}

bool SubscribeMulticast(int fd, const std::string& group, const std::string& ifaceAddr) {
  return ChangeMembership(fd, IP_ADD_MEMBERSHIP, group, ifaceAddr);
}

bool SubscribeMulticast(int fd, const std::string& group) { return SubscribeMulticast(fd, group, "0.0.0.0"); }

bool UnsubscribeMulticast(int fd, const std::string& group, unsigned int ifindex) {
  return ChangeMembership(fd, IP_DROP_MEMBERSHIP, group, ifindex);
}

bool UnsubscribeMulticast(int fd, const std::string& group, const std::string& ifaceAddr) {
  return ChangeMembership(fd, IP_DROP_MEMBERSHIP, group, ifaceAddr);
}

bool UnsubscribeMulticast(int fd, const std::string& group) { return UnsubscribeMulticast(fd, group, "0.0.0.0"); }

}  // namespace kiv::net
