#include "net/address_route.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <net/if.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "tests/support.h"

namespace kiv::net {
namespace {

using test::AttributeBytes;
using test::MessageBytes;
using test::Octets;

const std::string kTen = "\x0A\x01\x02\x03";     // 10.1.2.3
const std::string kOther = "\xC0\xA8\x01\xFE";   // 192.168.1.254
const std::string kZero = std::string(4, '\0');  // 0.0.0.0

constexpr unsigned char kOtherFamilies[] = {AF_UNSPEC, AF_INET6, 128, 255};

std::string Number(std::uint32_t value) { return Octets(value); }

// The fixed part of a route, with a different value in every field.
std::string RouteHeader(unsigned char family = AF_INET) {
  const unsigned char fields[] = {family, 24, 1, 2, 253, 4, 5, 6};
  return Octets(fields) + Number(0x01020304);
}

std::string AddressHeader(unsigned char flags = IFA_F_PERMANENT, unsigned char family = AF_INET) {
  const unsigned char fields[] = {family, 24, flags, 3};
  return Octets(fields) + Number(77);
}

// A message in memory of just its size, a chosen distance away from an aligned address.
class Placed {
 public:
  explicit Placed(const std::string& bytes, std::size_t distance = 0) : mBuffer(new char[distance + bytes.size()]) {
    char* begin = mBuffer.get() + distance;
    std::memcpy(begin, bytes.data(), bytes.size());
    mMessage.bytes = {begin, bytes.size()};
    (void)ReadAt(mMessage.bytes, 0, mMessage.header);
  }

  const NetlinkMessage& Message() const { return mMessage; }

 private:
  std::unique_ptr<char[]> mBuffer;
  NetlinkMessage mMessage;
};

std::string Describe(const RouteEntry& route, unsigned int ifindex) {
  return route.destination + "/" + std::to_string(route.prefixLength) + " via '" + route.gateway + "' dev '" +
         route.iface + "' table " + std::to_string(route.table) + " protocol " + std::to_string(route.protocol) +
         " type " + std::to_string(route.type) + " index " + std::to_string(ifindex);
}

const std::string kUntouchedRoute = "d/1 via 'g' dev 'i' table 2 protocol 3 type 4 index 5";

// Reads into a record that holds something already, at every alignment.
std::string ReadRoute(const std::string& bytes) {
  std::string text;
  for (std::size_t distance = 0; distance < 4; ++distance) {
    RouteEntry route{"d", 1, "g", "i", 2, 3, 4};
    unsigned int ifindex = 5;
    const bool read = ParseRoute(Placed(bytes, distance).Message(), route, ifindex);
    const std::string now = Describe(route, ifindex);
    EXPECT_EQ(read, now != kUntouchedRoute);
    EXPECT_TRUE(distance == 0 || now == text) << now;
    text = now;
  }
  return text;
}

// What a route with these attributes is read as, without what its fixed part decides.
std::string ReadAttributes(const std::string& attributes) {
  const std::string text = ReadRoute(MessageBytes(RTM_NEWROUTE, RouteHeader() + attributes));
  const std::string fixed = " dev '' table 253 protocol 4 type 6";
  const std::size_t at = text.find(fixed);
  EXPECT_NE(at, std::string::npos) << text;
  return at == std::string::npos ? text : text.substr(0, at) + text.substr(at + fixed.size());
}

TEST(ParseRoute, TakesEveryField) {
  const std::string bytes =
      MessageBytes(RTM_NEWROUTE, RouteHeader() + AttributeBytes(RTA_DST, kTen) + AttributeBytes(RTA_GATEWAY, kOther) +
                                     AttributeBytes(RTA_OIF, Number(3)));

  EXPECT_EQ(ReadRoute(bytes), "10.1.2.3/24 via '192.168.1.254' dev '' table 253 protocol 4 type 6 index 3");
}

TEST(ParseRoute, WithoutAttributesIsAnEmptyDefaultRoute) {
  EXPECT_EQ(ReadRoute(MessageBytes(RTM_NEWROUTE, RouteHeader())),
            "0.0.0.0/24 via '' dev '' table 253 protocol 4 type 6 index 0");
}

TEST(ParseRoute, TakesTheExtremesOfTheFixedPart) {
  const unsigned char largest[] = {AF_INET, 255, 255, 255, 255, 255, 255, 255};
  const unsigned char smallest[] = {AF_INET, 0, 0, 0, 0, 0, 0, 0};

  EXPECT_EQ(ReadRoute(MessageBytes(RTM_NEWROUTE, Octets(largest) + Number(0xFFFFFFFF))),
            "0.0.0.0/255 via '' dev '' table 255 protocol 255 type 255 index 0");
  EXPECT_EQ(ReadRoute(MessageBytes(RTM_NEWROUTE, Octets(smallest) + Number(0))),
            "0.0.0.0/0 via '' dev '' table 0 protocol 0 type 0 index 0");
}

TEST(ParseRoute, TakesWhatTheAttributesSay) {
  const std::string dst = AttributeBytes(RTA_DST, kTen);
  const std::string gateway = AttributeBytes(RTA_GATEWAY, kOther);
  const std::string oif = AttributeBytes(RTA_OIF, Number(3));
  const struct {
    const char* what;
    std::string attributes;
    const char* route;
  } cases[] = {
      {"no destination", gateway + oif, "0.0.0.0/24 via '192.168.1.254' index 3"},
      {"destination 0", AttributeBytes(RTA_DST, kZero) + oif, "0.0.0.0/24 via '' index 3"},
      {"no gateway", dst + oif, "10.1.2.3/24 via '' index 3"},
      {"gateway 0", dst + AttributeBytes(RTA_GATEWAY, kZero), "10.1.2.3/24 via '' index 0"},
      {"no interface", dst + gateway, "10.1.2.3/24 via '192.168.1.254' index 0"},
      {"interface 0", dst + AttributeBytes(RTA_OIF, Number(0)), "10.1.2.3/24 via '' index 0"},
      {"the largest index", AttributeBytes(RTA_OIF, Number(0xFFFFFFFF)), "0.0.0.0/24 via '' index 4294967295"},
      {"the largest addresses",
       AttributeBytes(RTA_DST, "\xFF\xFF\xFF\xFF") + AttributeBytes(RTA_GATEWAY, "\xFF\xFF\xFF\xFF"),
       "255.255.255.255/24 via '255.255.255.255' index 0"},
      {"any order", oif + gateway + dst, "10.1.2.3/24 via '192.168.1.254' index 3"},
      {"others in between",
       AttributeBytes(RTA_PREFSRC, kZero) + dst + AttributeBytes(RTA_PRIORITY, Number(9)) + oif +
           AttributeBytes(RTA_SRC, kOther) + AttributeBytes(RTA_IIF, Number(8)),
       "10.1.2.3/24 via '' index 3"},
      {"an odd one in between", AttributeBytes(RTA_METRICS, "12345") + dst, "10.1.2.3/24 via '' index 0"},
      {"flags in the type", AttributeBytes(RTA_DST | NLA_F_NESTED, kTen), "0.0.0.0/24 via '' index 0"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ReadAttributes(c.attributes), c.route) << c.what;
  }
}

TEST(ParseRoute, LaterAttributeOfATypeWins) {
  EXPECT_EQ(ReadAttributes(AttributeBytes(RTA_DST, kTen) + AttributeBytes(RTA_GATEWAY, kTen) +
                           AttributeBytes(RTA_OIF, Number(3)) + AttributeBytes(RTA_DST, kOther) +
                           AttributeBytes(RTA_GATEWAY, kOther) + AttributeBytes(RTA_OIF, Number(4))),
            "192.168.1.254/24 via '192.168.1.254' index 4");
  EXPECT_EQ(ReadAttributes(AttributeBytes(RTA_DST, kTen) + AttributeBytes(RTA_DST, kZero)),
            "0.0.0.0/24 via '' index 0");
  EXPECT_EQ(ReadAttributes(AttributeBytes(RTA_GATEWAY, kTen) + AttributeBytes(RTA_GATEWAY, kZero)),
            "0.0.0.0/24 via '' index 0");
  EXPECT_EQ(ReadAttributes(AttributeBytes(RTA_OIF, Number(3)) + AttributeBytes(RTA_OIF, Number(0))),
            "0.0.0.0/24 via '' index 0");
}

TEST(ParseRoute, AttributeShorterThanItsNumberIsAbsent) {
  for (std::size_t size = 0; size < 4; ++size) {
    for (const std::uint16_t type : {RTA_DST, RTA_GATEWAY, RTA_OIF}) {
      const std::string tooShort = AttributeBytes(type, kOther.substr(0, size));

      EXPECT_EQ(ReadAttributes(tooShort), "0.0.0.0/24 via '' index 0") << type;
      EXPECT_EQ(ReadAttributes(AttributeBytes(RTA_DST, kTen) + AttributeBytes(RTA_GATEWAY, kTen) +
                               AttributeBytes(RTA_OIF, Number(3)) + tooShort),
                "10.1.2.3/24 via '10.1.2.3' index 3")
          << type;
    }
  }
}

TEST(ParseRoute, LongerAttributeGivesItsFirstFourBytes) {
  EXPECT_EQ(ReadAttributes(AttributeBytes(RTA_DST, kTen + "more") + AttributeBytes(RTA_OIF, Number(3) + "x")),
            "10.1.2.3/24 via '' index 3");
}

TEST(ParseRoute, UnusableAttributeEndsTheWalk) {
  const std::string dst = AttributeBytes(RTA_DST, kTen);
  for (const unsigned length : {0U, 1U, 3U, 17U, 0xFFFFU}) {
    const std::string unusable =
        Octets(static_cast<std::uint16_t>(length)) + Octets(std::uint16_t{RTA_GATEWAY}) + kOther;

    EXPECT_EQ(ReadAttributes(dst + unusable + AttributeBytes(RTA_OIF, Number(3))), "10.1.2.3/24 via '' index 0")
        << length;
  }
  EXPECT_EQ(ReadAttributes(dst + AttributeBytes(RTA_OIF, Number(3)).substr(0, 3)), "10.1.2.3/24 via '' index 0");
}

TEST(ParseRoute, TableIsTheByteOfTheFixedPartWhateverTheAttributeSays) {
  const std::string text =
      ReadRoute(MessageBytes(RTM_NEWROUTE, RouteHeader() + AttributeBytes(RTA_TABLE, Number(1000))));

  EXPECT_EQ(text, "0.0.0.0/24 via '' dev '' table 253 protocol 4 type 6 index 0");
}

TEST(ParseRoute, RefusesOtherFamiliesAndTypes) {
  const std::string dst = AttributeBytes(RTA_DST, kTen);
  for (const unsigned char family : kOtherFamilies) {
    EXPECT_EQ(ReadRoute(MessageBytes(RTM_NEWROUTE, RouteHeader(family) + dst)), kUntouchedRoute);
  }
  constexpr std::uint16_t kTypes[] = {NLMSG_NOOP,   NLMSG_ERROR, NLMSG_DONE,  RTM_DELROUTE,
                                      RTM_GETROUTE, RTM_NEWADDR, RTM_NEWLINK, RTM_NEWROUTE + 256};
  for (const std::uint16_t type : kTypes) {
    EXPECT_EQ(ReadRoute(MessageBytes(type, RouteHeader() + dst)), kUntouchedRoute) << type;
  }
}

TEST(ParseRoute, RefusesAMessageTooShortForItsFixedPart) {
  for (std::size_t size = 0; size < 12; ++size) {
    const std::string whole = MessageBytes(RTM_NEWROUTE, RouteHeader());
    EXPECT_EQ(ReadRoute(whole.substr(0, 16 + size)), kUntouchedRoute) << size;
  }
}

std::string Describe(const InterfaceAddress& address, unsigned int ifindex) {
  return address.address + "/" + std::to_string(address.prefixLength) +
         (address.secondary ? " secondary" : " primary") + " index " + std::to_string(ifindex);
}

const std::string kUntouchedAddress = "a/1 secondary index 5";

std::string ReadAddress(const std::string& bytes) {
  std::string text;
  for (std::size_t distance = 0; distance < 4; ++distance) {
    InterfaceAddress address{"a", 1, true};
    unsigned int ifindex = 5;
    const bool read = ParseAddress(Placed(bytes, distance).Message(), address, ifindex);
    const std::string now = Describe(address, ifindex);
    EXPECT_EQ(read, now != kUntouchedAddress);
    EXPECT_TRUE(distance == 0 || now == text) << now;
    text = now;
  }
  return text;
}

std::string AddressMessage(const std::string& attributes) {
  return MessageBytes(RTM_NEWADDR, AddressHeader() + attributes);
}

TEST(ParseAddress, TakesEveryField) {
  EXPECT_EQ(ReadAddress(AddressMessage(AttributeBytes(IFA_ADDRESS, kTen))), "10.1.2.3/24 primary index 77");
}

TEST(ParseAddress, FirstOfAddressAndLocalWins) {
  const std::string address = AttributeBytes(IFA_ADDRESS, kTen);
  const std::string local = AttributeBytes(IFA_LOCAL, kOther);
  const struct {
    const char* what;
    std::string attributes;
    const char* text;
  } cases[] = {
      {"address first", address + local, "10.1.2.3/24 primary index 77"},
      {"local first", local + address, "192.168.1.254/24 primary index 77"},
      {"local alone", local, "192.168.1.254/24 primary index 77"},
      {"two addresses", address + AttributeBytes(IFA_ADDRESS, kOther), "10.1.2.3/24 primary index 77"},
      {"two locals", local + AttributeBytes(IFA_LOCAL, kTen), "192.168.1.254/24 primary index 77"},
      {"address 0", AttributeBytes(IFA_ADDRESS, kZero) + local, "0.0.0.0/24 primary index 77"},
      {"behind others", AttributeBytes(IFA_LABEL, "eth0:1") + AttributeBytes(IFA_BROADCAST, kZero) + address,
       "10.1.2.3/24 primary index 77"},
      {"more than four bytes", AttributeBytes(IFA_LOCAL, kTen + "more"), "10.1.2.3/24 primary index 77"},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ReadAddress(AddressMessage(c.attributes)), c.text) << c.what;
  }
}

TEST(ParseAddress, SecondaryIsOneBitOfTheFlags) {
  const std::string local = AttributeBytes(IFA_LOCAL, kTen);
  for (unsigned flags = 0; flags < 256; ++flags) {
    const std::string header = AddressHeader(static_cast<unsigned char>(flags));
    EXPECT_EQ(ReadAddress(MessageBytes(RTM_NEWADDR, header + local)),
              (flags & 0x01) != 0 ? "10.1.2.3/24 secondary index 77" : "10.1.2.3/24 primary index 77");
  }
}

TEST(ParseAddress, FlagsOfTheAttributeAreNotRead) {
  EXPECT_EQ(
      ReadAddress(AddressMessage(AttributeBytes(IFA_FLAGS, Number(IFA_F_SECONDARY)) + AttributeBytes(IFA_LOCAL, kTen))),
      "10.1.2.3/24 primary index 77");
}

TEST(ParseAddress, RefusesAMessageWithoutAnAddress) {
  for (std::size_t size = 0; size < 4; ++size) {
    EXPECT_EQ(ReadAddress(AddressMessage(AttributeBytes(IFA_ADDRESS, kTen.substr(0, size)))), kUntouchedAddress);
    EXPECT_EQ(ReadAddress(AddressMessage(AttributeBytes(IFA_LOCAL, kTen.substr(0, size)))), kUntouchedAddress);
  }
  EXPECT_EQ(ReadAddress(AddressMessage("")), kUntouchedAddress);
  EXPECT_EQ(ReadAddress(AddressMessage(AttributeBytes(IFA_LABEL, "eth0") + AttributeBytes(IFA_BROADCAST, kTen) +
                                       AttributeBytes(IFA_ANYCAST, kTen))),
            kUntouchedAddress);
}

TEST(ParseAddress, UnusableAttributeEndsTheWalk) {
  for (const unsigned length : {0U, 3U, 17U, 0xFFFFU}) {
    const std::string unusable = Octets(static_cast<std::uint16_t>(length)) + Octets(std::uint16_t{IFA_LOCAL}) + kOther;
    EXPECT_EQ(ReadAddress(AddressMessage(unusable + AttributeBytes(IFA_LOCAL, kTen))), kUntouchedAddress) << length;
  }
}

TEST(ParseAddress, RefusesOtherFamiliesAndTypes) {
  const std::string local = AttributeBytes(IFA_LOCAL, kTen);
  for (const unsigned char family : kOtherFamilies) {
    EXPECT_EQ(ReadAddress(MessageBytes(RTM_NEWADDR, AddressHeader(0, family) + local)), kUntouchedAddress);
  }
  constexpr std::uint16_t kTypes[] = {NLMSG_NOOP,  NLMSG_ERROR,  NLMSG_DONE,  RTM_DELADDR,
                                      RTM_GETADDR, RTM_NEWROUTE, RTM_NEWLINK, RTM_NEWADDR + 256};
  for (const std::uint16_t type : kTypes) {
    EXPECT_EQ(ReadAddress(MessageBytes(type, AddressHeader(0) + local)), kUntouchedAddress) << type;
  }
}

TEST(ParseAddress, RefusesAMessageTooShortForItsFixedPart) {
  for (std::size_t size = 0; size < 8; ++size) {
    EXPECT_EQ(ReadAddress(AddressMessage("").substr(0, 16 + size)), kUntouchedAddress) << size;
  }
}

bool IsLoopbackAddress(const RouteEntry& route) {
  return route.destination == "127.0.0.1" && route.prefixLength == 32 && route.gateway.empty() && route.iface == "lo" &&
         route.table == RT_TABLE_LOCAL && route.protocol == RTPROT_KERNEL && route.type == RTN_LOCAL;
}

TEST(GetRoutes, ListsTheLocalRouteOfTheLoopbackAddressOnce) {
  const std::size_t before = test::CountOpenFds();

  const std::vector<RouteEntry> routes = GetRoutes(AF_INET);

  EXPECT_EQ(std::count_if(routes.begin(), routes.end(), IsLoopbackAddress), 1);
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(GetRoutes, OfIPv6AreNone) {
  const std::size_t before = test::CountOpenFds();

  EXPECT_TRUE(GetRoutes(AF_INET6).empty());

  EXPECT_EQ(test::CountOpenFds(), before);
}

// The kernel then lists the routes of all families it knows.
TEST(GetRoutes, OfNoFamilyAreThoseOfIPv4) {
  std::vector<std::string> all;
  std::vector<std::string> ipv4;

  for (const RouteEntry& route : GetRoutes(AF_UNSPEC)) {
    all.push_back(Describe(route, 0));
  }
  for (const RouteEntry& route : GetRoutes(AF_INET)) {
    ipv4.push_back(Describe(route, 0));
  }

  EXPECT_EQ(all, ipv4);
}

TEST(GetRoutes, WithoutASocketAreNone) {
  std::vector<RouteEntry> routes;
  int error = 0;
  {
    const test::NoNewDescriptors none;
    errno = 0;
    routes = GetRoutes(AF_INET);
    error = errno;
  }

  EXPECT_TRUE(routes.empty());
  EXPECT_EQ(error, EMFILE);
}

TEST(GetInterfaceAddresses, OfTheLoopbackInterfaceHoldItsAddressOnce) {
  const std::size_t before = test::CountOpenFds();

  const std::vector<InterfaceAddress> addresses = GetInterfaceAddresses("lo");

  EXPECT_EQ(std::count_if(addresses.begin(), addresses.end(),
                          [](const InterfaceAddress& address) {
                            return address.address == "127.0.0.1" && address.prefixLength == 8 && !address.secondary;
                          }),
            1);
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(GetInterfaceAddresses, OfAnyOtherNameAreNone) {
  const std::size_t before = test::CountOpenFds();

  for (const std::string& name : {std::string(), std::string("l"), std::string("lo:"), std::string("LO"),
                                  std::string("lo\0", 3), std::string("no-such-iface"), std::string(300, 'x')}) {
    EXPECT_TRUE(GetInterfaceAddresses(name).empty()) << name;
  }

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(GetInterfaceAddresses, WithoutASocketAreNone) {
  std::vector<InterfaceAddress> addresses;
  int error = 0;
  {
    const test::NoNewDescriptors none;
    errno = 0;
    addresses = GetInterfaceAddresses("lo");
    error = errno;
  }

  EXPECT_TRUE(addresses.empty());
  EXPECT_EQ(error, EMFILE);
}

}  // namespace
}  // namespace kiv::net
