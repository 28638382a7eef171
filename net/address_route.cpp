#include "net/address_route.h"

#include <arpa/inet.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include "internal/unique_fd.h"
#include "net/netlink_dump.h"
#include "net/netlink_request.h"

namespace kiv::net {
namespace {

bool ParseAddressText(const std::string& text, in_addr& out) { return ::inet_pton(AF_INET, text.c_str(), &out) == 1; }

void AddAddress(nlmsghdr& message, std::uint32_t& length, std::uint16_t type, in_addr address) {
  AddAttribute(message, length, type, &address, sizeof address);
}

void AddLabel(nlmsghdr& message, std::uint32_t& length, const std::string& label) {
  AddAttribute(message, length, IFA_LABEL, label.data(), static_cast<std::uint32_t>(label.size()));
}

// Deliberate: the index stays 0, and only the label names the interface. Kernels of today look at the index alone and
// answer ENODEV, so that nothing is assigned; docs/behaviour.md says what to do there.
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
  in_addr to{};
  in_addr over{};
  if (!ParseAddressText(destination, to) || !ParseAddressText(gateway, over)) {
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
    AddAddress(message, length, RTA_DST, to);
    AddAddress(message, length, RTA_GATEWAY, over);
    AddAttribute(message, length, RTA_OIF, &index, sizeof index);
  });
}

// Names of interfaces for the length of one dump: asking costs three system calls, and routes come by the ten thousand.
class InterfaceNames {
 public:
  /// Returns an empty text for an index that has no name.
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

}  // namespace

bool AssignAddress(const std::string& iface, const std::string& ip, unsigned char prefixLength) {
  in_addr address{};
  if (iface.size() >= IFNAMSIZ || !ParseAddressText(ip, address)) {
    return false;
  }
  return RequestAddress(prefixLength, [&](nlmsghdr& message, std::uint32_t& length) {
    AddLabel(message, length, iface);
    AddAddress(message, length, IFA_LOCAL, address);
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
  in_addr address{};
  if (!ParseAddressText(ip, address)) {
    return false;
  }
  // Deliberate: the other way round than in AssignAddress. The kernel takes both; each operation keeps its own bytes.
  return RequestAddress(prefixLength, [&](nlmsghdr& message, std::uint32_t& length) {
    AddAddress(message, length, IFA_LOCAL, address);
    AddLabel(message, length, label.empty() ? iface : label);
  });
}

bool DeleteAddress(const std::string& iface, const std::string& ip, unsigned char prefixLength) {
  in_addr address{};
  if (!ParseAddressText(ip, address)) {
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
      [&](nlmsghdr& message, std::uint32_t& length) { AddAddress(message, length, IFA_LOCAL, address); });
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
  std::uint32_t destination = 0;
  std::uint32_t gateway = 0;
  std::uint32_t index = 0;
  utils::StringView rest = Behind(message.bytes, sizeof(nlmsghdr) + sizeof header);
  // An attribute too short for its number is as good as absent.
  for (NetlinkAttribute attribute; NextAttribute(rest, attribute);) {
    if (attribute.type == RTA_DST) {
      (void)ReadAt(attribute.data, 0, destination);
    } else if (attribute.type == RTA_GATEWAY) {
      (void)ReadAt(attribute.data, 0, gateway);
    } else if (attribute.type == RTA_OIF) {
      (void)ReadAt(attribute.data, 0, index);
    }
  }
  route.destination = NtoIP(destination);
  if (route.destination.empty()) {
    route.destination = "0.0.0.0";
  }
  route.prefixLength = header.rtm_dst_len;
  route.gateway = gateway != 0 ? NtoIP(gateway) : "";
  route.iface.clear();
  route.table = header.rtm_table;
  route.protocol = header.rtm_protocol;
  route.type = header.rtm_type;
  ifindex = index;
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
  // Deliberate: without SOCK_CLOEXEC, unlike every other netlink socket here. A program that another thread starts
  // during this call inherits it; it subscribes to nothing, so that nothing piles up in it there.
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
