#include <kiv/net.h>
#include <linux/rtnetlink.h>

#include <algorithm>
#include <atomic>
#include <sstream>
#include <string>
#include <thread>
#include <vector>

#include "tests/kernel/namespace.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using nlohmann::json;
using test::Ip;
using test::IpAccepts;
using test::Shell;
using Lines = std::vector<std::string>;

const std::string kTooLong = "sixteen-bytes-na";

// One route as text, in the numbers of linux/rtnetlink.h.
std::string TextOf(const RouteEntry& route) {
  return std::to_string(route.type) + ' ' + route.destination + '/' + std::to_string(route.prefixLength) + " via '" +
         route.gateway + "' dev '" + route.iface + "' table " + std::to_string(route.table) + " proto " +
         std::to_string(route.protocol);
}

Lines TextOf(const std::vector<RouteEntry>& routes) {
  Lines lines;
  std::transform(routes.begin(), routes.end(), std::back_inserter(lines),
                 [](const RouteEntry& route) { return TextOf(route); });
  return lines;
}

// The same from a line of `ip -N -d -o route`: type, destination, then names with their values. What is listed per next
// hop belongs to no single interface or gateway, nor does a gateway of another family.
std::string TextOfIp(const std::string& line) {
  std::istringstream words(line);
  std::string type;
  std::string destination;
  std::string gateway;
  std::string iface;
  std::string table;
  std::string protocol;
  words >> type >> destination;
  for (std::string word; words >> word && word != "nexthop";) {
    std::string* const value = word == "via"     ? &gateway
                               : word == "dev"   ? &iface
                               : word == "table" ? &table
                               : word == "proto" ? &protocol
                                                 : nullptr;
    if (value != nullptr) {
      words >> *value;
    }
  }
  if (destination == "default") {
    destination = "0.0.0.0/0";
  } else if (destination.find('/') == std::string::npos) {
    destination += "/32";
  }
  // The header of a route has one byte for the table.
  const int number = std::stoi(table);
  return type + ' ' + destination + " via '" + (gateway == "inet6" ? "" : gateway) + "' dev '" + iface + "' table " +
         std::to_string(number > 255 ? int{RT_TABLE_COMPAT} : number) + " proto " + protocol;
}

// All IPv4 routes as ip shows them, in the kernel's order.
Lines RoutesOfIp() {
  std::istringstream output(Shell("ip -4 -N -d -o route show table all"));
  Lines lines;
  for (std::string line; std::getline(output, line);) {
    lines.push_back(TextOfIp(line));
  }
  return lines;
}

// Compares without printing two tables of any size.
void ExpectSameRoutes(const Lines& ours, const Lines& theirs) {
  ASSERT_EQ(ours.size(), theirs.size());
  const auto difference = std::mismatch(ours.begin(), ours.end(), theirs.begin());
  if (difference.first != ours.end()) {
    ADD_FAILURE() << *difference.first << "\nip: " << *difference.second;
  }
}

// What ip shows of the route to `destination`, in numbers; nothing when there is none.
std::string ShowRoute(const std::string& destination) {
  const std::string text = Shell("ip -4 -N -d -o route show table all exact " + destination);
  return text.substr(0, text.find_last_not_of(" \n") + 1);
}

// One address as text.
Lines TextOf(const std::vector<InterfaceAddress>& addresses) {
  Lines lines;
  for (const InterfaceAddress& address : addresses) {
    lines.push_back(address.address + '/' + std::to_string(address.prefixLength) +
                    (address.secondary ? " secondary" : ""));
  }
  return lines;
}

// The same from ip. Of a point-to-point address it is the peer's: the kernel puts that one first.
Lines AddressesOfIp(const std::string& iface) {
  Lines lines;
  for (const json& link : Ip("-4 addr show dev " + iface)) {
    for (const json& address : link.value("addr_info", json::array())) {
      lines.push_back(address.value("address", address.at("local")).get<std::string>() + '/' +
                      std::to_string(address.at("prefixlen").get<int>()) +
                      (address.value("secondary", false) ? " secondary" : ""));
    }
  }
  return lines;
}

// "eth0" is up, with 192.168.1.2/24; "eth1", its peer, is up without an address.
class ConfiguredKernel : public test::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    if (IsReady()) {
      test::IpBatch(
          "link add eth0 type veth peer name eth1\n"
          "link set eth0 up\n"
          "link set eth1 up\n"
          "addr add 192.168.1.2/24 dev eth0\n");
    }
  }
};

class AssignAddressKernel : public ConfiguredKernel {};
class AssignAddressLabeledKernel : public ConfiguredKernel {};
class DeleteAddressKernel : public ConfiguredKernel {};
class AddRouteKernel : public ConfiguredKernel {};
class DeleteRouteKernel : public ConfiguredKernel {};
class GetRoutesKernel : public ConfiguredKernel {};
class GetInterfaceAddressesKernel : public ConfiguredKernel {};
class AddressRouteKernel : public ConfiguredKernel {};

TEST_F(AssignAddressKernel, WithoutAnIndexTheKernelFindsNoInterface) {
  EXPECT_FALSE(AssignAddress("eth1", "10.0.0.1", 24));
  EXPECT_FALSE(AssignAddress("eth0", "192.168.1.3", 24));
  EXPECT_FALSE(AssignAddress("lo", "127.0.0.1", 8));
  EXPECT_TRUE(AddressesOfIp("eth1").empty());
  EXPECT_EQ(AddressesOfIp("eth0"), Lines{"192.168.1.2/24"});
}

TEST_F(AssignAddressKernel, RefusesWhatNamesNothing) {
  for (const char* const iface : {"", "nosuch", "sixteen-bytes-na"}) {
    EXPECT_FALSE(AssignAddress(iface, "10.0.0.1", 24)) << iface;
  }
  for (const char* const ip : {"", "10.0.0", "10.0.0.256", "::1", "10.0.0.1 ", "eth1"}) {
    EXPECT_FALSE(AssignAddress("eth1", ip, 24)) << ip;
  }
  EXPECT_TRUE(AddressesOfIp("eth1").empty());
}

TEST_F(AssignAddressLabeledKernel, WithoutAnIndexTheKernelFindsNoInterface) {
  for (const char* const label : {"", "eth1:1", "eth1:backup"}) {
    EXPECT_FALSE(AssignAddressLabeled("eth1", "10.0.0.1", 24, label)) << label;
  }
  EXPECT_TRUE(AddressesOfIp("eth1").empty());
  ASSERT_TRUE(IpAccepts("addr add 10.0.0.1/24 dev eth1 label eth1:1"));
}

TEST_F(AssignAddressLabeledKernel, RefusesOtherNamesAndLabels) {
  for (const char* const label : {"eth1", "eth0:1", "eth1.1", "eth", "eth1:0123456789ab"}) {
    EXPECT_FALSE(AssignAddressLabeled("eth1", "10.0.0.1", 24, label)) << label;
  }
  EXPECT_FALSE(AssignAddressLabeled("", "10.0.0.1", 24, ""));
  EXPECT_FALSE(AssignAddressLabeled(kTooLong, "10.0.0.1", 24, ""));
  EXPECT_FALSE(AssignAddressLabeled("eth1", "10.0.0", 24, ""));
  EXPECT_TRUE(AddressesOfIp("eth1").empty());
}

TEST_F(DeleteAddressKernel, RemovesTheOneNamed) {
  (void)Shell("ip addr add 10.0.0.1/24 dev eth0 && ip addr add 10.0.1.1/30 dev eth0");

  EXPECT_TRUE(DeleteAddress("eth0", "10.0.0.1", 24));
  EXPECT_EQ(AddressesOfIp("eth0"), (Lines{"192.168.1.2/24", "10.0.1.1/30"}));
  EXPECT_TRUE(DeleteAddress("eth0", "10.0.1.1", 30));
  EXPECT_EQ(AddressesOfIp("eth0"), Lines{"192.168.1.2/24"});
  EXPECT_FALSE(DeleteAddress("eth0", "10.0.1.1", 30));
}

TEST_F(DeleteAddressKernel, OfAPrimaryTakesItsSecondariesAlong) {
  (void)Shell("ip addr add 192.168.1.3/24 dev eth0");
  (void)Shell("cd /proc/sys/net/ipv4/conf; echo 0 >all/promote_secondaries; echo 0 >eth0/promote_secondaries");

  EXPECT_TRUE(DeleteAddress("eth0", "192.168.1.2", 24));
  EXPECT_TRUE(AddressesOfIp("eth0").empty());
}

TEST_F(DeleteAddressKernel, RemovesASecondaryAndALabeledAddress) {
  (void)Shell("ip addr add 192.168.1.3/24 dev eth0 && ip addr add 192.168.1.4/24 dev eth0 label eth0:1");

  EXPECT_TRUE(DeleteAddress("eth0", "192.168.1.3", 24));
  EXPECT_TRUE(DeleteAddress("eth0", "192.168.1.4", 24));
  EXPECT_EQ(AddressesOfIp("eth0"), Lines{"192.168.1.2/24"});
}

TEST_F(DeleteAddressKernel, TheKernelDoesNotCompareThePrefixLength) {
  EXPECT_TRUE(DeleteAddress("eth0", "192.168.1.2", 25));
  EXPECT_TRUE(AddressesOfIp("eth0").empty());
}

TEST_F(DeleteAddressKernel, RefusesWhatIsNotThere) {
  EXPECT_FALSE(DeleteAddress("eth0", "192.168.1.3", 24));
  EXPECT_FALSE(DeleteAddress("eth1", "192.168.1.2", 24));
  for (const std::string& iface : {std::string("nosuch"), std::string(), kTooLong, std::string("eth")}) {
    EXPECT_FALSE(DeleteAddress(iface, "192.168.1.2", 24)) << iface;
  }
  for (const char* const ip : {"", "192.168.1", "192.168.1.2/24", "::1"}) {
    EXPECT_FALSE(DeleteAddress("eth0", ip, 24)) << ip;
  }
  EXPECT_EQ(AddressesOfIp("eth0"), Lines{"192.168.1.2/24"});
}

TEST_F(AddRouteKernel, AddsAStaticRouteOverAGateway) {
  EXPECT_TRUE(AddRoute("10.1.0.0", 16, "192.168.1.1", "eth0"));
  EXPECT_EQ(ShowRoute("10.1.0.0/16"), "1 10.1.0.0/16 via 192.168.1.1 dev eth0 table 254 proto 4 scope 0");
}

TEST_F(AddRouteKernel, AddsTheDefaultRoute) {
  EXPECT_TRUE(AddRoute("0.0.0.0", 0, "192.168.1.1", "eth0"));
  EXPECT_EQ(ShowRoute("default"), "1 default via 192.168.1.1 dev eth0 table 254 proto 4 scope 0");
}

TEST_F(AddRouteKernel, AGatewayOfZerosIsARouteOnLink) {
  EXPECT_TRUE(AddRoute("10.2.3.4", 32, "0.0.0.0", "eth1"));
  EXPECT_TRUE(AddRoute("0.0.0.0", 0, "0.0.0.0", "eth0"));
  EXPECT_EQ(ShowRoute("10.2.3.4/32"), "1 10.2.3.4 dev eth1 table 254 proto 4 scope 0");
  EXPECT_EQ(ShowRoute("default"), "1 default dev eth0 table 254 proto 4 scope 0");
}

TEST_F(AddRouteKernel, RefusesAnExistingRoute) {
  ASSERT_TRUE(AddRoute("10.1.0.0", 16, "192.168.1.1", "eth0"));

  EXPECT_FALSE(AddRoute("10.1.0.0", 16, "192.168.1.1", "eth0"));
  EXPECT_FALSE(AddRoute("10.1.0.0", 16, "192.168.1.9", "eth0"));
  EXPECT_FALSE(AddRoute("10.1.0.0", 16, "0.0.0.0", "eth1"));
  EXPECT_TRUE(AddRoute("10.1.0.0", 17, "192.168.1.9", "eth0"));
  EXPECT_EQ(ShowRoute("10.1.0.0/16"), "1 10.1.0.0/16 via 192.168.1.1 dev eth0 table 254 proto 4 scope 0");
}

TEST_F(AddRouteKernel, RefusesWhatTheKernelRefuses) {
  EXPECT_FALSE(AddRoute("10.1.2.3", 16, "192.168.1.1", "eth0")) << "bits behind the prefix";
  EXPECT_FALSE(AddRoute("10.1.0.0", 33, "192.168.1.1", "eth0")) << "longer than an address";
  EXPECT_FALSE(AddRoute("10.1.0.0", 16, "172.16.0.1", "eth0")) << "gateway that no interface reaches";
  EXPECT_FALSE(AddRoute("10.1.0.0", 16, "0.0.0.0", "lo")) << "interface that is down";
  EXPECT_EQ(Shell("ip -4 route show proto static"), "");
}

TEST_F(AddRouteKernel, RefusesTextAndNamesThatAreNone) {
  for (const char* const text : {"", "10.1.0", "10.1.0.0/16", "default", "::"}) {
    EXPECT_FALSE(AddRoute(text, 16, "192.168.1.1", "eth0")) << text;
    EXPECT_FALSE(AddRoute("10.1.0.0", 16, text, "eth0")) << text;
  }
  for (const std::string& iface : {std::string("nosuch"), std::string(), std::string("eth"), kTooLong}) {
    EXPECT_FALSE(AddRoute("10.1.0.0", 16, "192.168.1.1", iface)) << iface;
  }
  EXPECT_EQ(Shell("ip -4 route show proto static"), "");
}

TEST_F(DeleteRouteKernel, RemovesWhatAddRouteAdds) {
  const struct {
    const char* destination;
    unsigned char prefixLength;
    const char* gateway;
    const char* iface;
  } rows[] = {{"10.1.0.0", 16, "192.168.1.1", "eth0"},
              {"10.2.3.4", 32, "0.0.0.0", "eth1"},
              {"0.0.0.0", 0, "192.168.1.1", "eth0"},
              {"0.0.0.0", 1, "0.0.0.0", "eth0"}};
  for (const auto& row : rows) {
    const Lines before = RoutesOfIp();
    ASSERT_TRUE(AddRoute(row.destination, row.prefixLength, row.gateway, row.iface)) << row.destination;
    EXPECT_EQ(RoutesOfIp().size(), before.size() + 1);
    EXPECT_TRUE(DeleteRoute(row.destination, row.prefixLength, row.gateway, row.iface)) << row.destination;
    EXPECT_EQ(RoutesOfIp(), before);
    EXPECT_FALSE(DeleteRoute(row.destination, row.prefixLength, row.gateway, row.iface)) << row.destination;
  }
}

TEST_F(DeleteRouteKernel, LeavesARouteThatDiffers) {
  test::IpBatch(
      "route add 10.1.0.0/16 via 192.168.1.1 dev eth0 proto static\n"
      "route add 10.2.0.0/16 via 192.168.1.1 dev eth0 proto boot\n"
      "route add 10.3.0.0/16 via 192.168.1.1 dev eth0 proto static table 100\n"
      "route add blackhole 10.4.0.0/16 proto static\n");
  const Lines before = RoutesOfIp();

  EXPECT_FALSE(DeleteRoute("10.1.0.0", 17, "192.168.1.1", "eth0"));
  EXPECT_FALSE(DeleteRoute("10.1.0.0", 16, "192.168.1.9", "eth0"));
  EXPECT_FALSE(DeleteRoute("10.1.0.0", 16, "192.168.1.1", "eth1"));
  EXPECT_FALSE(DeleteRoute("10.2.0.0", 16, "192.168.1.1", "eth0")) << "another protocol";
  EXPECT_FALSE(DeleteRoute("10.3.0.0", 16, "192.168.1.1", "eth0")) << "another table";
  EXPECT_FALSE(DeleteRoute("10.4.0.0", 16, "0.0.0.0", "eth0")) << "another type";
  EXPECT_FALSE(DeleteRoute("10.1.0.0", 16, "", "eth0"));
  EXPECT_FALSE(DeleteRoute("10.1.0.0", 16, "192.168.1.1", "nosuch"));
  EXPECT_EQ(RoutesOfIp(), before);
}

TEST_F(DeleteRouteKernel, WithoutAGatewayTakesAnyOfItsPrefixWhateverGatewayAndMetric) {
  (void)Shell("ip route add 10.1.0.0/16 via 192.168.1.1 dev eth0 proto static metric 5");
  ASSERT_TRUE(AddRoute("10.1.0.0", 16, "0.0.0.0", "eth0"));

  EXPECT_TRUE(DeleteRoute("10.1.0.0", 16, "0.0.0.0", "eth0"));
  EXPECT_EQ(test::Ip("-4 route show 10.1.0.0/16").size(), 1U);
  EXPECT_TRUE(DeleteRoute("10.1.0.0", 16, "0.0.0.0", "eth0"));
  EXPECT_FALSE(DeleteRoute("10.1.0.0", 16, "0.0.0.0", "eth0"));
}

TEST_F(DeleteRouteKernel, IsNotNeededAfterSetMtuWhichLosesTheRoutes) {
  ASSERT_TRUE(AddRoute("10.1.0.0", 16, "192.168.1.1", "eth0"));

  ASSERT_TRUE(SetMTU("eth0", 1400));
  ASSERT_TRUE(SetInterfaceUp("eth0", true));

  EXPECT_FALSE(DeleteRoute("10.1.0.0", 16, "192.168.1.1", "eth0"));
  EXPECT_EQ(AddressesOfIp("eth0"), Lines{"192.168.1.2/24"});
  EXPECT_EQ(test::Ip("-4 route show 192.168.1.0/24").size(), 1U) << "the kernel's own is back";
}

TEST_F(GetRoutesKernel, AreThoseOfIpInItsOrder) {
  (void)Shell("ip link set lo up && ip route add default via 192.168.1.1 dev eth0");

  const Lines lines = TextOf(GetRoutes(AF_INET));

  ExpectSameRoutes(lines, RoutesOfIp());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "1 0.0.0.0/0 via '192.168.1.1' dev 'eth0' table 254 proto 3"),
            lines.end());
  EXPECT_NE(std::find(lines.begin(), lines.end(), "1 192.168.1.0/24 via '' dev 'eth0' table 254 proto 2"), lines.end());
}

TEST_F(GetRoutesKernel, TellTypesTablesProtocolsAndSeveralNextHops) {
  test::IpBatch(
      "route add unreachable 10.1.0.0/16\n"
      "route add blackhole 10.2.0.0/16 proto 99\n"
      "route add prohibit 10.3.0.0/16 proto static\n"
      "route add throw 10.4.0.0/16 table 5\n"
      "route add 10.5.0.0/16 via 192.168.1.1 dev eth0 table 256 proto 255\n"
      "route add 10.6.0.0/16 via 192.168.1.1 dev eth0 table 70000 proto 1\n"
      "route add 10.7.0.0/16 nexthop via 192.168.1.1 dev eth0 nexthop via 192.168.1.9 dev eth0\n"
      "route add multicast 224.1.0.0/16 dev eth0\n"
      "route add 10.8.0.0/16 via inet6 fe80::1 dev eth0\n"
      "route add 0.0.0.0/32 dev eth0 table 7\n"
      "route add 10.9.0.0/16 dev eth1 metric 7\n"
      "route add 10.9.0.0/16 dev eth1 metric 8 src 192.168.1.2\n");

  const Lines lines = TextOf(GetRoutes(AF_INET));

  ExpectSameRoutes(lines, RoutesOfIp());
  for (const char* const line :
       {"7 10.1.0.0/16 via '' dev '' table 254 proto 3", "6 10.2.0.0/16 via '' dev '' table 254 proto 99",
        "1 10.6.0.0/16 via '192.168.1.1' dev 'eth0' table 252 proto 1", "1 10.7.0.0/16 via '' dev '' table 254 proto 3",
        "1 10.8.0.0/16 via '' dev 'eth0' table 254 proto 3"}) {
    EXPECT_EQ(std::count(lines.begin(), lines.end(), line), 1) << line;
  }
}

TEST_F(GetRoutesKernel, AreNoneForIpv6AndIpv4AloneForEveryFamily) {
  (void)Shell("ip -6 addr add fd00::1/64 dev eth0 && ip -6 route add fd01::/64 dev eth0");

  EXPECT_TRUE(GetRoutes(AF_INET6).empty());
  ExpectSameRoutes(TextOf(GetRoutes(AF_UNSPEC)), RoutesOfIp());
}

TEST_F(GetRoutesKernel, AreNoneWithoutAnAddress) {
  (void)Shell("ip addr flush dev eth0");
  EXPECT_TRUE(GetRoutes(AF_INET).empty());
}

// No two routes are alike in all fields.
std::string Routes(unsigned int count) {
  static const char* const kWays[] = {" via 192.168.1.1 dev eth0 proto 4", " via 192.168.1.9 dev eth0 proto 99",
                                      " dev eth1 proto 186", " dev eth0 proto 3"};
  static const char* const kTables[] = {"", " table 100", " table 1000"};
  std::string lines;
  for (unsigned int i = 0; i < count; ++i) {
    const std::string destination = NtoIP(htonl(0x10000000 + i * 256));
    const char* const length = i % 7 == 0 ? "/32" : "/24";
    const bool reaches = i % 10 != 0;
    lines += std::string("route add ") +
             (reaches       ? ""
              : i % 20 == 0 ? "blackhole "
                            : "unreachable ") +
             destination + length + (reaches ? kWays[i % 4] : "") + kTables[i % 3] + '\n';
  }
  return lines;
}

TEST_F(GetRoutesKernel, ManyThousandAreAllThere) {
  const unsigned int count = test::IsSlowMachine() ? 20000 : 100000;
  test::IpBatch(Routes(count));

  const Lines lines = TextOf(GetRoutes(AF_INET));

  EXPECT_GT(lines.size(), count);
  ExpectSameRoutes(lines, RoutesOfIp());
}

TEST_F(GetInterfaceAddressesKernel, AreThoseOfIpInItsOrder) {
  test::IpBatch(
      "addr add 192.168.1.3/24 dev eth0\n"
      "addr add 10.0.0.1/8 dev eth0\n"
      "addr add 10.0.0.2/8 dev eth0 label eth0:1\n"
      "addr add 172.16.0.1/30 dev eth0 label eth0:backup\n"
      "addr add 203.0.113.7/32 dev eth0\n"
      "addr add 192.168.1.200/25 dev eth0\n"
      "addr add 10.9.9.9/24 dev eth1\n"
      "link set lo up\n");

  const Lines lines = TextOf(GetInterfaceAddresses("eth0"));

  EXPECT_EQ(lines.size(), 7U);
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "10.0.0.2/8 secondary"), 1);
  for (const char* const iface : {"eth0", "eth1", "lo"}) {
    EXPECT_EQ(TextOf(GetInterfaceAddresses(iface)), AddressesOfIp(iface)) << iface;
  }
}

TEST_F(GetInterfaceAddressesKernel, GiveThePeerOfAPointToPointAddress) {
  (void)Shell("ip addr add 10.0.0.1 peer 10.0.0.2/32 dev eth1");

  EXPECT_EQ(TextOf(GetInterfaceAddresses("eth1")), Lines{"10.0.0.2/32"});
  EXPECT_EQ(TextOf(GetInterfaceAddresses("eth1")), AddressesOfIp("eth1"));
}

TEST_F(GetInterfaceAddressesKernel, AreNoneOfAnInterfaceWithoutOnes) {
  (void)Shell("ip -6 addr add fd00::1/64 dev eth1");
  EXPECT_TRUE(GetInterfaceAddresses("eth1").empty());
}

TEST_F(GetInterfaceAddressesKernel, TheNameMatchesExactly) {
  test::IpBatch(
      "link add eth01 type bridge\n"
      "addr add 10.0.0.1/24 dev eth01\n"
      "addr add 192.168.1.3/24 dev eth0 label eth0:1\n");
  for (const char* const name : {"eth", "eth0:1", "eth011", "ETH0", "nosuch", "", " eth0"}) {
    EXPECT_TRUE(GetInterfaceAddresses(name).empty()) << name;
  }
  EXPECT_TRUE(GetInterfaceAddresses(std::string("eth0\0", 5)).empty());
  EXPECT_EQ(TextOf(GetInterfaceAddresses("eth01")), Lines{"10.0.0.1/24"});
}

TEST_F(GetInterfaceAddressesKernel, AThousandAreAllThere) {
  std::string lines;
  for (int i = 0; i < 1000; ++i) {
    const std::string suffix = std::to_string(i / 250) + '.' + std::to_string(i % 250 + 1);
    lines += "addr add 10.7." + suffix + (i % 2 == 0 ? "/16 dev eth0\n" : "/16 dev eth1\n");
  }
  test::IpBatch(lines);

  EXPECT_EQ(GetInterfaceAddresses("eth0").size(), 501U);
  EXPECT_EQ(TextOf(GetInterfaceAddresses("eth0")), AddressesOfIp("eth0"));
  EXPECT_EQ(TextOf(GetInterfaceAddresses("eth1")), AddressesOfIp("eth1"));
}

TEST_F(AddressRouteKernel, ChangesAreRefusedAndReadersWorkWithoutPrivilege) {
  ASSERT_TRUE(AddRoute("10.1.0.0", 16, "192.168.1.1", "eth0"));
  const Lines before = RoutesOfIp();

  EXPECT_TRUE(test::IsTrueUnprivileged([&before] {
    return !AddRoute("10.2.0.0", 16, "192.168.1.1", "eth0") && !DeleteRoute("10.1.0.0", 16, "192.168.1.1", "eth0") &&
           !DeleteAddress("eth0", "192.168.1.2", 24) && !AssignAddress("eth0", "192.168.1.3", 24) &&
           TextOf(GetRoutes(AF_INET)) == before && GetInterfaceAddresses("eth0").size() == 1;
  }));
  EXPECT_EQ(RoutesOfIp(), before);
}

TEST_F(AddressRouteKernel, NothingLeavesADescriptorOpen) {
  const auto all = [] {
    (void)Shell("ip addr replace 10.0.0.1/24 dev eth0");
    for (const char* const iface : {"eth0", "nosuch"}) {
      EXPECT_FALSE(AssignAddress(iface, "10.0.0.1", 24));
      EXPECT_FALSE(AssignAddressLabeled(iface, "10.0.0.1", 24, ""));
      (void)AddRoute("10.1.0.0", 16, "192.168.1.1", iface);
      (void)AddRoute("10.1.0.0", 16, "192.168.1.1", iface);
      (void)DeleteRoute("10.1.0.0", 16, "192.168.1.1", iface);
      (void)DeleteRoute("10.1.0.0", 16, "192.168.1.1", iface);
      (void)DeleteAddress(iface, "10.0.0.1", 24);
      (void)DeleteAddress(iface, "10.0.0.1", 24);
      (void)DeleteAddress(iface, "10.0.0", 24);
      (void)GetInterfaceAddresses(iface);
    }
    (void)GetRoutes(AF_INET);
    (void)GetRoutes(AF_INET6);
  };
  all();
  const std::size_t before = test::CountOpenFds();

  all();
  all();

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(AddressRouteKernel, ThreadsChangeAndReadAtOnce) {
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 4; ++i) {
    threads.emplace_back([&failures, destination = "10." + std::to_string(i) + ".0.0"] {
      const std::string text = "1 " + destination + "/16 via '192.168.1.1' dev 'eth0' table 254 proto 4";
      for (int round = 0; round < 50; ++round) {
        const bool added = AddRoute(destination, 16, "192.168.1.1", "eth0");
        const Lines lines = TextOf(GetRoutes(AF_INET));
        const bool listed = std::find(lines.begin(), lines.end(), text) != lines.end();
        const bool ok = added && listed && GetInterfaceAddresses("eth0").size() == 1 &&
                        DeleteRoute(destination, 16, "192.168.1.1", "eth0");
        failures += ok ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(Shell("ip -4 route show proto static"), "");
}

}  // namespace
}  // namespace kiv::net
