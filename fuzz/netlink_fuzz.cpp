#include <linux/rtnetlink.h>
#include <sys/socket.h>

#include <cstdint>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "fuzz/check.h"
#include "net/address_route.h"
#include "net/netlink_walk.h"

namespace kiv::net {
namespace {

using fuzz::Check;

std::size_t RoundedUp(std::size_t size) { return (size + 3) / 4 * 4; }

unsigned char ByteAt(utils::StringView bytes, std::size_t offset) {
  return static_cast<unsigned char>(bytes.Data()[offset]);
}

template <typename Value>
Value ValueAt(utils::StringView bytes, std::size_t offset) {
  Value value;
  std::memcpy(&value, bytes.Data() + offset, sizeof value);
  return value;
}

std::string Dotted(utils::StringView bytes, std::size_t offset) {
  std::string text = std::to_string(ByteAt(bytes, offset));
  for (std::size_t i = 1; i < 4; ++i) {
    text += "." + std::to_string(ByteAt(bytes, offset + i));
  }
  return text;
}

// An attribute by position instead of by view.
struct Place {
  std::uint16_t type;
  std::size_t data;
  std::size_t size;
};

std::vector<Place> AttributePlaces(utils::StringView message, std::size_t begin) {
  std::vector<Place> places;
  for (std::size_t at = begin; at + 4 <= message.Size();) {
    const std::size_t length = ValueAt<std::uint16_t>(message, at);
    if (length < 4 || at + length > message.Size()) {
      break;
    }
    places.push_back({ValueAt<std::uint16_t>(message, at + 2), at + 4, length - 4});
    at += RoundedUp(length);
  }
  return places;
}

void CheckAttributes(utils::StringView message, std::size_t begin) {
  utils::StringView rest = Behind(message, begin);
  NetlinkAttribute attribute;
  for (const Place& place : AttributePlaces(message, begin)) {
    Check(NextAttribute(rest, attribute), "a usable attribute is found");
    Check(attribute.type == place.type, "type of an attribute");
    Check(attribute.data.Data() == message.Data() + place.data, "data of an attribute lies behind its header");
    Check(attribute.data.Size() == place.size, "data of an attribute has its length less the header's");
  }
  Check(!NextAttribute(rest, attribute), "the walk over attributes ends");
}

void CheckRoute(const NetlinkMessage& message) {
  RouteEntry route{"d", 1, "g", "i", 2, 3, 4};
  unsigned int ifindex = 5;
  const bool read = ParseRoute(message, route, ifindex);
  const utils::StringView bytes = message.bytes;
  Check(read == (message.header.nlmsg_type == RTM_NEWROUTE && bytes.Size() >= 28 && ByteAt(bytes, 16) == AF_INET),
        "an IPv4 route is read, and nothing else");
  if (!read) {
    Check(route.destination == "d" && route.prefixLength == 1 && route.gateway == "g" && route.iface == "i" &&
              route.table == 2 && route.protocol == 3 && route.type == 4 && ifindex == 5,
          "what is no route leaves the record alone");
    return;
  }
  std::string destination = "0.0.0.0";
  std::string gateway = "0.0.0.0";
  unsigned int index = 0;
  for (const Place& place : AttributePlaces(bytes, 28)) {
    if (place.size >= 4 && place.type == RTA_DST) {
      destination = Dotted(bytes, place.data);
    } else if (place.size >= 4 && place.type == RTA_GATEWAY) {
      gateway = Dotted(bytes, place.data);
    } else if (place.size >= 4 && place.type == RTA_OIF) {
      index = ValueAt<std::uint32_t>(bytes, place.data);
    }
  }
  Check(route.destination == destination, "destination of a route is its last RTA_DST");
  Check(route.gateway == (gateway == "0.0.0.0" ? "" : gateway), "gateway of a route is its last RTA_GATEWAY");
  Check(ifindex == index && route.iface.empty(), "interface of a route is its last RTA_OIF");
  Check(route.prefixLength == ByteAt(bytes, 17) && route.table == ByteAt(bytes, 20) &&
            route.protocol == ByteAt(bytes, 21) && route.type == ByteAt(bytes, 23),
        "fixed part of a route");
}

void CheckAddress(const NetlinkMessage& message) {
  InterfaceAddress address{"a", 1, true};
  unsigned int ifindex = 5;
  const bool read = ParseAddress(message, address, ifindex);
  const utils::StringView bytes = message.bytes;
  std::string expected;
  if (message.header.nlmsg_type == RTM_NEWADDR && bytes.Size() >= 24 && ByteAt(bytes, 16) == AF_INET) {
    for (const Place& place : AttributePlaces(bytes, 24)) {
      if (expected.empty() && place.size >= 4 && (place.type == IFA_ADDRESS || place.type == IFA_LOCAL)) {
        expected = Dotted(bytes, place.data);
      }
    }
  }
  Check(read == !expected.empty(), "an IPv4 address is read, and nothing else");
  if (!read) {
    Check(address.address == "a" && address.prefixLength == 1 && address.secondary && ifindex == 5,
          "what is no address leaves the record alone");
    return;
  }
  Check(address.address == expected, "the first address of a message is taken");
  Check(address.prefixLength == ByteAt(bytes, 17) && address.secondary == ((ByteAt(bytes, 18) & 1) != 0) &&
            ifindex == ValueAt<std::uint32_t>(bytes, 20),
        "fixed part of an address");
}

// Walks the datagram and returns its messages, each of which lies where the one before ended.
std::vector<NetlinkMessage> CheckMessages(utils::StringView datagram) {
  std::vector<NetlinkMessage> messages;
  utils::StringView rest = datagram;
  std::size_t at = 0;
  for (NetlinkMessage message; NextMessage(rest, message);) {
    Check(message.bytes.Data() == datagram.Data() + at, "a message begins where the one before ended");
    Check(message.bytes.Size() >= 16 && message.bytes.Size() <= datagram.Size() - at, "a message lies in its datagram");
    Check(std::memcmp(&message.header, message.bytes.Data(), 16) == 0, "header of a message is its first bytes");
    Check(message.header.nlmsg_len == message.bytes.Size(), "length of a message is the one in its header");
    messages.push_back(message);
    at += RoundedUp(message.bytes.Size());
    Check(rest.Size() == (at < datagram.Size() ? datagram.Size() - at : 0), "what is left follows the message");
  }
  if (rest.Size() >= 16) {
    const auto length = ValueAt<std::uint32_t>(rest, 0);
    Check(length < 16 || length > rest.Size(), "a usable message is found");
  }
  return messages;
}

bool HasErrorZero(const NetlinkMessage& message) {
  return message.bytes.Size() >= 20 && ValueAt<std::int32_t>(message.bytes, 16) == 0;
}

void CheckAcknowledgement(utils::StringView datagram, const std::vector<NetlinkMessage>& messages) {
  bool expected = false;
  for (const NetlinkMessage& message : messages) {
    if (message.header.nlmsg_type == NLMSG_ERROR) {
      expected = HasErrorZero(message);
      break;
    }
  }
  Check(IsAcknowledged(datagram) == expected, "the first error decides");
}

void CheckDump(utils::StringView datagram, const std::vector<NetlinkMessage>& messages) {
  std::vector<const char*> taken;
  const bool more =
      WalkDump(datagram, [&taken](const NetlinkMessage& message) { taken.push_back(message.bytes.Data()); });
  std::vector<const char*> expected;
  bool expectMore = true;
  for (const NetlinkMessage& message : messages) {
    const std::uint16_t type = message.header.nlmsg_type;
    expectMore = type != NLMSG_DONE && (type != NLMSG_ERROR || HasErrorZero(message));
    if (!expectMore) {
      break;
    }
    if (type != NLMSG_ERROR) {
      expected.push_back(message.bytes.Data());
    }
  }
  Check(more == expectMore, "a dump ends with DONE or an error");
  Check(taken == expected, "a dump hands over all messages up to its end");
}

// The first byte of the input says how far from an aligned address the others lie.
void Run(const std::uint8_t* data, std::size_t size) {
  if (size == 0) {
    return;
  }
  const std::size_t distance = data[0] % 4;
  const std::size_t length = size - 1;
  const std::unique_ptr<char[]> buffer(new char[distance + length]);
  const utils::StringView datagram(buffer.get() + distance, length);
  std::memcpy(buffer.get() + distance, data + 1, length);

  const std::vector<NetlinkMessage> messages = CheckMessages(datagram);
  CheckAcknowledgement(datagram, messages);
  CheckDump(datagram, messages);
  for (const NetlinkMessage& message : messages) {
    CheckAttributes(message.bytes, 16);
    CheckAttributes(message.bytes, 24);
    CheckAttributes(message.bytes, 28);
    CheckRoute(message);
    CheckAddress(message);
  }
}

}  // namespace
}  // namespace kiv::net

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  kiv::net::Run(data, size);
  return 0;
}
