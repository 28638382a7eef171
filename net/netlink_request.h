#ifndef KIV_NET_NETLINK_REQUEST_H
#define KIV_NET_NETLINK_REQUEST_H

#include <linux/netlink.h>

#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>

/// rtnetlink requests that change something: built on memory, sent, and acknowledged. Formats: rtnetlink(7) and the
/// kernel's linux/rtnetlink.h; all numbers in host byte order.
namespace kiv::net {

/// Flags of a request that changes what is there, and of one that creates and must find nothing there.
constexpr std::uint16_t kChangeFlags = NLM_F_REQUEST | NLM_F_ACK;
constexpr std::uint16_t kCreateFlags = NLM_F_REQUEST | NLM_F_ACK | NLM_F_EXCL | NLM_F_CREATE;

/// Room for one request. Its bytes are zero until something is written there, so that gaps for alignment are, too.
struct RequestBuffer {
  nlmsghdr header{};
  char rest[4096 - sizeof(nlmsghdr)] = {};
};

/// Appends the attributes of one operation to `message`, which lies in a RequestBuffer, and advances `length`, the
/// bytes used so far.
using AttributeFiller = std::function<void(nlmsghdr& message, std::uint32_t& length)>;

/// Appends one attribute at `length`, rounded up to a multiple of 4, and advances `length` likewise. `data` may be null
/// when `dataSize` is 0.
///
/// Checks no capacity: the caller has bounded what it appends.
void AddAttribute(nlmsghdr& message, std::uint32_t& length, std::uint16_t type, const void* data,
                  std::uint32_t dataSize);

/// Appends the bytes of `text`, without a terminator.
void AddText(nlmsghdr& message, std::uint32_t& length, std::uint16_t type, const std::string& text);

/// Appends four bytes, in the order that `number` has in memory.
void AddNumber(nlmsghdr& message, std::uint32_t& length, std::uint16_t type, std::uint32_t number);

/// Opens an attribute that holds others, which are appended next. Returns where it starts, for EndNest.
std::uint32_t BeginNest(nlmsghdr& message, std::uint32_t& length, std::uint16_t type);

/// Closes the attribute that BeginNest opened at `start`: it reaches up to `length`.
void EndNest(nlmsghdr& message, std::uint32_t length, std::uint32_t start);

/// Every socket carries one request only, so that there is nothing to tell apart.
constexpr std::uint32_t kSequence = 1;

/// Writes a whole message: header, `payloadSize` bytes of `payload`, and what `filler` appends. Returns its length, the
/// one in its header.
std::uint32_t BuildNetlinkRequest(RequestBuffer& buffer, std::uint16_t type, std::uint16_t flags,
                                  std::uint32_t payloadSize, const void* payload, const AttributeFiller& filler);

/// Sends one request over a socket of its own and waits for the kernel's acknowledgement, without a limit in time.
///
/// Returns true when the kernel acknowledged it with error 0. False: no socket, nothing sent, nothing or nonsense
/// received (EINTR is not retried), or a kernel error, whose code is not told. An empty `filler` throws
/// std::bad_function_call. Any thread.
bool NetlinkRequest(std::uint16_t type, std::uint16_t flags, std::uint32_t payloadSize, const void* payload,
                    const AttributeFiller& filler);

}  // namespace kiv::net

#endif  // KIV_NET_NETLINK_REQUEST_H
