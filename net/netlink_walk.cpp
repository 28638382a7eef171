#include "net/netlink_walk.h"

#include <linux/rtnetlink.h>

namespace kiv::net {
namespace {

constexpr std::size_t kHeaderSize = sizeof(nlmsghdr);
constexpr std::size_t kAttributeHeader = sizeof(rtattr);

constexpr std::size_t Aligned(std::size_t size) { return (size + 3) & ~std::size_t{3}; }

// Without room for the error there is no telling that all is well.
bool HasErrorZero(const NetlinkMessage& message) {
  std::int32_t error = 0;
  return ReadAt(message.bytes, kHeaderSize, error) && error == 0;
}

}  // namespace

utils::StringView Behind(utils::StringView bytes, std::size_t count) {
  if (count >= bytes.Size()) {
    return {};
  }
  return {bytes.Data() + count, bytes.Size() - count};
}

bool NextMessage(utils::StringView& rest, NetlinkMessage& message) {
  nlmsghdr header;
  if (!ReadAt(rest, 0, header) || header.nlmsg_len < kHeaderSize || header.nlmsg_len > rest.Size()) {
    return false;
  }
  message.header = header;
  message.bytes = {rest.Data(), header.nlmsg_len};
  rest = Behind(rest, Aligned(header.nlmsg_len));
  return true;
}

bool NextAttribute(utils::StringView& rest, NetlinkAttribute& attribute) {
  rtattr header;
  if (!ReadAt(rest, 0, header) || header.rta_len < kAttributeHeader || header.rta_len > rest.Size()) {
    return false;
  }
  attribute.type = header.rta_type;
  attribute.data = {rest.Data() + kAttributeHeader, header.rta_len - kAttributeHeader};
  rest = Behind(rest, Aligned(header.rta_len));
  return true;
}

bool IsAcknowledged(utils::StringView datagram) {
  for (NetlinkMessage message; NextMessage(datagram, message);) {
    if (message.header.nlmsg_type == NLMSG_ERROR) {
      return HasErrorZero(message);
    }
  }
  return false;
}

bool WalkDump(utils::StringView datagram, const std::function<void(const NetlinkMessage&)>& take) {
  for (NetlinkMessage message; NextMessage(datagram, message);) {
    if (message.header.nlmsg_type == NLMSG_DONE) {
      return false;
    }
    if (message.header.nlmsg_type != NLMSG_ERROR) {
      take(message);
    } else if (!HasErrorZero(message)) {
      return false;
    }
  }
  return true;
}

}  // namespace kiv::net
