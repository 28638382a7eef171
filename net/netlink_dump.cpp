#include "net/netlink_dump.h"

#include <sys/socket.h>

#include "net/netlink_request.h"

namespace kiv::net {

void BuildDumpRequest(char* out, std::uint16_t type, unsigned char family) {
  nlmsghdr header{};
  header.nlmsg_len = kDumpRequestSize;
  header.nlmsg_type = type;
  header.nlmsg_flags = NLM_F_REQUEST | NLM_F_DUMP;
  header.nlmsg_seq = kSequence;
  std::memcpy(out, &header, sizeof header);
  std::memcpy(out + sizeof header, &family, sizeof family);
}

void NetlinkDump(int fd, std::uint16_t type, unsigned char family,
                 const std::function<void(const NetlinkMessage&)>& take) {
  char buffer[8192] = {};
  BuildDumpRequest(buffer, type, family);
  if (::send(fd, buffer, kDumpRequestSize, 0) < 0) {
    return;
  }
  bool more = true;
  while (more) {
    const ssize_t size = ::recv(fd, buffer, sizeof buffer, 0);
    more = size > 0 && WalkDump({buffer, static_cast<std::size_t>(size)}, take);
  }
}

}  // namespace kiv::net
