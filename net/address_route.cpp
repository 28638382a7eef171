#include "net/address_route.h"

#include <linux/rtnetlink.h>
#include <net/if.h>

#include "internal/unique_fd.h"
#include "net/netlink_dump.h"
#include "net/netlink_request.h"

namespace kiv::net {
namespace {

// Deliberate: the index stays 0, and only the label names the interface. Linux looks at the index alone and answers
// ENODEV, so that nothing is assigned. What an operation sends is part of its contract and stays as it is;
// docs/behaviour.md says how to assign an address.
bool RequestAddress(unsigned char prefixLength, const AttributeFiller& filler) {
  ifaddrmsg payload{};
  payload.ifa_family = AF_INET;
  payload.ifa_prefixlen = prefixLength;
  payload.ifa_flags = IFA_F_PERMANENT;
  return NetlinkRequest(RTM_NEWADDR, kCreateFlags, sizeof payload, &payload, filler);
}

bool IsLabelOf(const std::string& label, const std::string& iface) {
  return label.size() < IFNAMSIZ && label.size() > iface.size() && label.compare(0, iface.size(), iface) == 0 &&
         label[iface.size()] == ':';
}

bool RequestRoute(std::uint16_t type, std::uint16_t flags, const std::string& destination, unsigned char prefixLength,
                  const std::string& gateway, const std::string& iface) {
  std::uint32_t destinationAddress = 0;
  std::uint32_t gatewayAddress = 0;
  if (!IPtoN(destination, destinationAddress) || !IPtoN(gateway, gatewayAddress)) {
    return false;
  }
  const unsigned int index = ::if_nametoindex(iface.c_str());
  if (index == 0) {
    return false;
  }
  rtmsg payload{};
  payload.rtm_family = AF_INET;
  payload.rtm_dst_len = prefixLength;
  payload.rtm_table = RT_TABLE_MAIN;
  payload.rtm_protocol = RTPROT_STATIC;
  payload.rtm_scope = RT_SCOPE_UNIVERSE;
  payload.rtm_type = RTN_UNICAST;
  return NetlinkRequest(type, flags, sizeof payload, &payload, [&](nlmsghdr& message, std::uint32_t& length) {
    AddNumber(message, length, RTA_DST, destinationAddress);
    AddNumber(message, length, RTA_GATEWAY, gatewayAddress);
    AddNumber(message, length, RTA_OIF, index);
  });
}

// Names of interfaces for the length of one dump: asking costs three system calls, and routes come by the ten thousand.
class InterfaceNames {
 public:
  /// Returns an empty text for an index that has no name, and asks again the next time.
  const std::string& Of(unsigned int index) {
    std::string& name = mNames[index];
    char text[IFNAMSIZ];
    if (name.empty() && ::if_indextoname(index, text) != nullptr) {
      name = text;
    }
    return name;
  }

 private:
  std::unordered_map<unsigned int, std::string> mNames;
};

// The numbers that a route message carries as attributes; 0 for one that it lacks.
struct RouteNumbers {
  std::uint32_t destination = 0;
  std::uint32_t gateway = 0;
  std::uint32_t ifindex = 0;
};

RouteNumbers ReadRouteNumbers(utils::StringView attributes) {
  RouteNumbers numbers;
  // An attribute too short for its number is as good as absent.
  for (NetlinkAttribute attribute; NextAttribute(attributes, attribute);) {
    if (attribute.type == RTA_DST) {
      (void)ReadAt(attribute.data, 0, numbers.destination);
    } else if (attribute.type == RTA_GATEWAY) {
      (void)ReadAt(attribute.data, 0, numbers.gateway);
    } else if (attribute.type == RTA_OIF) {
      (void)ReadAt(attribute.data, 0, numbers.ifindex);
    }
  }
  return numbers;
}

}  // namespace

bool AssignAddress(const std::string& iface, const std::string& ip, unsigned char prefixLength) {
  std::uint32_t address = 0;
  if (iface.size() >= IFNAMSIZ || !IPtoN(ip, address)) {
    return false;
  }
  return RequestAddress(prefixLength, [&](nlmsghdr& message, std::uint32_t& length) {
    AddText(message, length, IFA_LABEL, iface);
    AddNumber(message, length, IFA_LOCAL, address);
  });
}

bool AssignAddressLabeled(const std::string& iface, const std::string& ip, unsigned char prefixLength,
                          const std::string& label) {
  if (iface.empty() || iface.size() >= IFNAMSIZ) {
    return false;
  }
  if (!label.empty() && !IsLabelOf(label, iface)) {
    return false;
  }
  std::uint32_t address = 0;
  if (!IPtoN(ip, address)) {
    return false;
  }
  // Deliberate: the other way round than in AssignAddress. The order means nothing to the kernel, and what an operation
  // sends is part of its contract and stays as it is.
  return RequestAddress(prefixLength, [&](nlmsghdr& message, std::uint32_t& length) {
    AddNumber(message, length, IFA_LOCAL, address);
    AddText(message, length, IFA_LABEL, label.empty() ? iface : label);
  });
}

bool DeleteAddress(const std::string& iface, const std::string& ip, unsigned char prefixLength) {
  std::uint32_t address = 0;
  if (!IPtoN(ip, address)) {
    return false;
  }
  ifaddrmsg payload{};
  payload.ifa_family = AF_INET;
  payload.ifa_prefixlen = prefixLength;
  payload.ifa_index = ::if_nametoindex(iface.c_str());
  if (payload.ifa_index == 0) {
    return false;
  }
  return NetlinkRequest(
      RTM_DELADDR, kChangeFlags, sizeof payload, &payload,
      [&](nlmsghdr& message, std::uint32_t& length) { AddNumber(message, length, IFA_LOCAL, address); });
}

bool AddRoute(const std::string& destination, unsigned char prefixLength, const std::string& gateway,
              const std::string& iface) {
  return RequestRoute(RTM_NEWROUTE, kCreateFlags, destination, prefixLength, gateway, iface);
}

bool DeleteRoute(const std::string& destination, unsigned char prefixLength, const std::string& gateway,
                 const std::string& iface) {
  return RequestRoute(RTM_DELROUTE, kChangeFlags, destination, prefixLength, gateway, iface);
}

bool ParseRoute(const NetlinkMessage& message, RouteEntry& route, unsigned int& ifindex) {
  rtmsg header;
  if (message.header.nlmsg_type != RTM_NEWROUTE || !ReadAt(message.bytes, sizeof(nlmsghdr), header) ||
      header.rtm_family != AF_INET) {
    return false;
  }
  const RouteNumbers numbers = ReadRouteNumbers(Behind(message.bytes, sizeof(nlmsghdr) + sizeof header));
  route.destination = NtoIP(numbers.destination);
  if (route.destination.empty()) {
    route.destination = "0.0.0.0";
  }
  route.prefixLength = header.rtm_dst_len;
  route.gateway = numbers.gateway != 0 ? NtoIP(numbers.gateway) : "";
  route.iface.clear();
  route.table = header.rtm_table;
  route.protocol = header.rtm_protocol;
  route.type = header.rtm_type;
  ifindex = numbers.ifindex;
  return true;
}

std::vector<RouteEntry> GetRoutes(unsigned char family) {
  std::vector<RouteEntry> routes;
  const internal::UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE));
  if (!fd.IsValid()) {
    return routes;
  }
  InterfaceNames names;
  NetlinkDump(fd.Get(), RTM_GETROUTE, family, [&](const NetlinkMessage& message) {
    RouteEntry route;
    unsigned int ifindex = 0;
    if (ParseRoute(message, route, ifindex)) {
      if (ifindex != 0) {
        route.iface = names.Of(ifindex);
      }
      routes.push_back(std::move(route));
    }
  });
  return routes;
}

bool ParseAddress(const NetlinkMessage& message, InterfaceAddress& address, unsigned int& ifindex) {
  ifaddrmsg header;
  if (message.header.nlmsg_type != RTM_NEWADDR || !ReadAt(message.bytes, sizeof(nlmsghdr), header) ||
      header.ifa_family != AF_INET) {
    return false;
  }
  utils::StringView rest = Behind(message.bytes, sizeof(nlmsghdr) + sizeof header);
  std::uint32_t number = 0;
  bool found = false;
  for (NetlinkAttribute attribute; !found && NextAttribute(rest, attribute);) {
    found = (attribute.type == IFA_ADDRESS || attribute.type == IFA_LOCAL) && ReadAt(attribute.data, 0, number);
  }
  std::string text = found ? NtoIP(number) : "";
  if (text.empty()) {
    return false;
  }
  address.address = std::move(text);
  address.prefixLength = header.ifa_prefixlen;
  address.secondary = (header.ifa_flags & IFA_F_SECONDARY) != 0;
  ifindex = header.ifa_index;
  return true;
}

std::vector<InterfaceAddress> GetInterfaceAddresses(const std::string& iface) {
  std::vector<InterfaceAddress> addresses;
  // Deliberate: without SOCK_CLOEXEC, unlike every other netlink socket here; kept as part of the contract. A program
  // that another thread starts during this call inherits it, to which nothing comes any more.
  const internal::UniqueFd fd(::socket(AF_NETLINK, SOCK_RAW, NETLINK_ROUTE));
  if (!fd.IsValid()) {
    return addresses;
  }
  InterfaceNames names;
  NetlinkDump(fd.Get(), RTM_GETADDR, AF_INET, [&](const NetlinkMessage& message) {
    InterfaceAddress address;
    unsigned int ifindex = 0;
    if (ParseAddress(message, address, ifindex) && !iface.empty() && names.Of(ifindex) == iface) {
      addresses.push_back(std::move(address));
    }
  });
  return addresses;
}

}  // namespace kiv::net
