#ifndef KIV_NET_NETLINK_WALK_H
#define KIV_NET_NETLINK_WALK_H

#include <kiv/utils.h>
#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <functional>

/// What the bytes of a netlink reply mean, as pure code on memory: any bytes at any address, whoever sent them.
namespace kiv::net {

/// One message of a datagram. `bytes` are the whole message, its header included.
struct NetlinkMessage {
  nlmsghdr header{};
  utils::StringView bytes;
};

/// One attribute of a message.
struct NetlinkAttribute {
  std::uint16_t type = 0;
  utils::StringView data;
};

/// Copies a value out of `bytes`, which need not be aligned. Returns false, with `value` untouched, when it does not
/// lie within them.
template <typename Value>
bool ReadAt(utils::StringView bytes, std::size_t offset, Value& value) {
  if (offset > bytes.Size() || bytes.Size() - offset < sizeof value) {
    return false;
  }
  std::memcpy(&value, bytes.Data() + offset, sizeof value);
  return true;
}

/// Returns `bytes` without the first `count`, or nothing when there are fewer.
utils::StringView Behind(utils::StringView bytes, std::size_t count);

/// Takes the next message off the front of `rest`. Returns false, with both untouched, when none is usable: fewer than
/// 16 bytes are left, or its length is below 16 or above what is left.
bool NextMessage(utils::StringView& rest, NetlinkMessage& message);

/// Takes the next attribute off the front of `rest`. Returns false, with both untouched, when none is usable: fewer
/// than 4 bytes are left, or its length is below 4 or above what is left.
bool NextAttribute(utils::StringView& rest, NetlinkAttribute& attribute);

/// Tells whether the first NLMSG_ERROR of `datagram` carries error 0; false without one, or without room for the error.
bool IsAcknowledged(utils::StringView datagram);

/// Hands every message of one datagram of a dump to `take`, except those that steer the dump. Returns false when the
/// dump is over: NLMSG_DONE, or an NLMSG_ERROR other than 0.
bool WalkDump(utils::StringView datagram, const std::function<void(const NetlinkMessage&)>& take);

}  // namespace kiv::net

#endif  // KIV_NET_NETLINK_WALK_H
