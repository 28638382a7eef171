#include <fcntl.h>
#include <kiv/fs.h>
#include <kiv/net.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <cstdio>
#include <cstdlib>

#include "internal/unique_fd.h"
#include "net/netlink_request.h"

namespace kiv::net {
namespace {

constexpr std::size_t kNameSize = IFNAMSIZ;
// What a request with the longest name leaves: it takes 60 bytes without the kind, and the kind is rounded up to 4.
constexpr std::size_t kMaxKind = sizeof(RequestBuffer) - 60;
constexpr std::size_t kMacSize = 6;

// Which flags of an interface a request sets, and to what.
struct FlagChange {
  unsigned int flags;
  unsigned int mask;
};

constexpr FlagChange kNoFlags{0, 0};
// Deliberate: all ones beside zero flags. The kernel applies the zero word as part of the same request, so creating an
// interface, or setting its MTU or hardware address, also takes it down and clears its multicast and promiscuous flags.
// Whatever state it was in, it is in one known state afterwards, and is brought up as the last step.
constexpr FlagChange kClearFlags{0, 0xFFFFFFFF};

FlagChange Switch(unsigned int flag, bool on) { return {on ? flag : 0, flag}; }

void AddNothing(nlmsghdr& /*message*/, std::uint32_t& /*length*/) {}

// The interface is found by its name alone: the index stays 0.
bool RequestLink(std::uint16_t type, std::uint16_t flags, FlagChange change, const std::string& name,
                 const AttributeFiller& filler) {
  if (name.size() >= kNameSize) {
    return false;
  }
  ifinfomsg payload{};
  payload.ifi_flags = change.flags;
  payload.ifi_change = change.mask;
  return NetlinkRequest(type, flags, sizeof payload, &payload, [&](nlmsghdr& message, std::uint32_t& length) {
    AddText(message, length, IFLA_IFNAME, name);
    filler(message, length);
  });
}

bool ChangeLink(FlagChange change, const std::string& name, const AttributeFiller& filler) {
  return RequestLink(RTM_NEWLINK, kChangeFlags, change, name, filler);
}

bool ChangeNumber(const std::string& name, std::uint16_t type, std::uint32_t number) {
  return ChangeLink(kNoFlags, name, [type, number](nlmsghdr& message, std::uint32_t& length) {
    AddNumber(message, length, type, number);
  });
}

// Deliberate: strtoul as it stands, so " a" and "+a" are accepted for 0a. Texts that were accepted once stay accepted.
bool ParseMacGroup(const char* digits, unsigned char& out) {
  const char group[3] = {digits[0], digits[1], '\0'};
  char* end = nullptr;
  const unsigned long value = std::strtoul(group, &end, 16);
  if (end != group + 2 || value > 0xFF) {
    return false;
  }
  out = static_cast<unsigned char>(value);
  return true;
}

bool ParseMac(const std::string& text, unsigned char (&mac)[kMacSize]) {
  if (text.size() != 3 * kMacSize - 1) {
    return false;
  }
  for (std::size_t i = 0; i < kMacSize; ++i) {
    if (!ParseMacGroup(&text[3 * i], mac[i]) || (i + 1 < kMacSize && text[3 * i + 2] != ':')) {
      return false;
    }
  }
  return true;
}

}  // namespace

bool CreateInterface(const std::string& name, const std::string& kind) {
  // Any kind is sent that the request has room for; the kernel's own names are far shorter.
  if (kind.size() > kMaxKind) {
    return false;
  }
  return RequestLink(RTM_NEWLINK, kCreateFlags, kClearFlags, name, [&kind](nlmsghdr& message, std::uint32_t& length) {
    const std::uint32_t info = BeginNest(message, length, IFLA_LINKINFO);
    AddText(message, length, IFLA_INFO_KIND, kind);
    EndNest(message, length, info);
  });
}

bool DeleteInterface(const std::string& name) {
  return RequestLink(RTM_DELLINK, kChangeFlags, kNoFlags, name, AddNothing);
}

bool AddVlan(const std::string& parent, unsigned short vlanId, const std::string& name) {
  if (name.size() >= kNameSize) {
    return false;  // Before anything is looked up.
  }
  const unsigned int index = ::if_nametoindex(parent.c_str());
  if (index == 0) {
    return false;
  }
  return RequestLink(RTM_NEWLINK, kCreateFlags, kClearFlags, name, [&](nlmsghdr& message, std::uint32_t& length) {
    const std::uint32_t info = BeginNest(message, length, IFLA_LINKINFO);
    AddText(message, length, IFLA_INFO_KIND, "vlan");
    const std::uint32_t data = BeginNest(message, length, IFLA_INFO_DATA);
    AddAttribute(message, length, IFLA_VLAN_ID, &vlanId, sizeof vlanId);
    EndNest(message, length, data);
    EndNest(message, length, info);
    AddNumber(message, length, IFLA_LINK, index);
  });
}

bool SetInterfaceUp(const std::string& name, bool up) { return ChangeLink(Switch(IFF_UP, up), name, AddNothing); }

bool SetMTU(const std::string& name, unsigned short mtu) {
  return ChangeLink(kClearFlags, name,
                    [mtu](nlmsghdr& message, std::uint32_t& length) { AddNumber(message, length, IFLA_MTU, mtu); });
}

bool SetMAC(const std::string& name, const std::string& mac) {
  unsigned char bytes[kMacSize];
  if (!ParseMac(mac, bytes)) {
    return false;
  }
  return ChangeLink(kClearFlags, name, [&bytes](nlmsghdr& message, std::uint32_t& length) {
    AddAttribute(message, length, IFLA_ADDRESS, bytes, sizeof bytes);
  });
}

bool SetMaster(const std::string& name, const std::string& master) {
  if (name.size() >= kNameSize) {
    return false;  // Before anything is looked up.
  }
  const unsigned int index = ::if_nametoindex(master.c_str());
  return index != 0 && ChangeNumber(name, IFLA_MASTER, index);
}

bool UnsetMaster(const std::string& name) { return ChangeNumber(name, IFLA_MASTER, 0); }

bool MoveInterfaceToNetns(const std::string& name, int pid) {
  char path[64];
  (void)std::snprintf(path, sizeof path, "/proc/%d/ns/net", pid);  // No number is too long for it.
  const internal::UniqueFd fd(::open(path, O_RDONLY | O_CLOEXEC));
  return fd.IsValid() && MoveInterfaceToNetnsFd(name, fd.Get());
}

bool MoveInterfaceToNetnsFd(const std::string& name, int fd) {
  return ChangeNumber(name, IFLA_NET_NS_FD, static_cast<std::uint32_t>(fd));
}

bool SetInterfaceMulticast(const std::string& name, bool on) {
  return ChangeLink(Switch(IFF_MULTICAST, on), name, AddNothing);
}

bool SetInterfacePromiscuous(const std::string& name, bool on) {
  return ChangeLink(Switch(IFF_PROMISC, on), name, AddNothing);
}

bool InterfaceExists(const std::string& name) { return fs::Exists("/sys/class/net/" + name); }

unsigned int GetInterfaceIndex(const std::string& name) { return ::if_nametoindex(name.c_str()); }

}  // namespace kiv::net
