#include "net/netlink_request.h"

#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstring>

#include "internal/unique_fd.h"
#include "net/netlink_walk.h"

namespace kiv::net {
namespace {

constexpr std::uint32_t kAttributeHeader = sizeof(rtattr);

char* BytesAt(nlmsghdr& message, std::uint32_t offset) { return reinterpret_cast<char*>(&message) + offset; }

// Attributes and nests lie wherever the bytes before them end: no store assumes alignment.
void StoreAttributeHeader(nlmsghdr& message, std::uint32_t start, std::uint16_t type, std::uint16_t size) {
  rtattr header{};
  header.rta_len = size;
  header.rta_type = type;
  std::memcpy(BytesAt(message, start), &header, sizeof header);
}

internal::UniqueFd OpenBound() {
  internal::UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  sockaddr_nl address{};
  address.nl_family = AF_NETLINK;  // Port 0: the kernel assigns one.
  if (fd.IsValid() && ::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    fd.Reset();
  }
  return fd;
}

// The socket is private to one request and subscribes to no group, so that the first datagram is the acknowledgement.
bool ReceiveAcknowledgement(int fd) {
  char reply[4096];
  const ssize_t size = ::recv(fd, reply, sizeof reply, 0);
  return size > 0 && IsAcknowledged({reply, static_cast<std::size_t>(size)});
}

}  // namespace

void AddAttribute(nlmsghdr& message, std::uint32_t& length, std::uint16_t type, const void* data,
                  std::uint32_t dataSize) {
  const std::uint32_t start = RTA_ALIGN(length);
  const auto size = static_cast<std::uint16_t>(kAttributeHeader + dataSize);
  StoreAttributeHeader(message, start, type, size);
  if (dataSize != 0) {
    std::memcpy(BytesAt(message, start + kAttributeHeader), data, dataSize);
  }
  length = start + RTA_ALIGN(std::uint32_t{size});
}

void AddText(nlmsghdr& message, std::uint32_t& length, std::uint16_t type, const std::string& text) {
  AddAttribute(message, length, type, text.data(), static_cast<std::uint32_t>(text.size()));
}

void AddNumber(nlmsghdr& message, std::uint32_t& length, std::uint16_t type, std::uint32_t number) {
  AddAttribute(message, length, type, &number, sizeof number);
}

std::uint32_t BeginNest(nlmsghdr& message, std::uint32_t& length, std::uint16_t type) {
  const std::uint32_t start = RTA_ALIGN(length);
  AddAttribute(message, length, type, nullptr, 0);
  return start;
}

void EndNest(nlmsghdr& message, std::uint32_t length, std::uint32_t start) {
  const auto size = static_cast<std::uint16_t>(length - start);
  std::memcpy(BytesAt(message, start + offsetof(rtattr, rta_len)), &size, sizeof size);
}

std::uint32_t BuildNetlinkRequest(RequestBuffer& buffer, std::uint16_t type, std::uint16_t flags,
                                  std::uint32_t payloadSize, const void* payload, const AttributeFiller& filler) {
  std::uint32_t length = static_cast<std::uint32_t>(sizeof(nlmsghdr)) + payloadSize;
  nlmsghdr& message = buffer.header;
  message.nlmsg_len = length;
  message.nlmsg_type = type;
  message.nlmsg_flags = flags;
  message.nlmsg_seq = kSequence;
  message.nlmsg_pid = 0;
  std::memcpy(buffer.rest, payload, payloadSize);
  filler(message, length);
  message.nlmsg_len = length;
  return length;
}

bool NetlinkRequest(std::uint16_t type, std::uint16_t flags, std::uint32_t payloadSize, const void* payload,
                    const AttributeFiller& filler) {
  const internal::UniqueFd fd = OpenBound();
  if (!fd.IsValid()) {
    return false;
  }
  RequestBuffer request;
  const std::uint32_t length = BuildNetlinkRequest(request, type, flags, payloadSize, payload, filler);
  if (::send(fd.Get(), &request, length, 0) < 0) {
    return false;
  }
  return ReceiveAcknowledgement(fd.Get());
}

}  // namespace kiv::net
