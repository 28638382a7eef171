#include "net/kernel_tables.h"

#include <arpa/inet.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <charconv>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <string>
#include <system_error>
#include <type_traits>
#include <utility>
#include <vector>

namespace kiv::net {
namespace {

static_assert(std::is_same_v<std::underlying_type_t<ArpState>, unsigned char>);
static_assert(offsetof(ArpEntry, iface) < offsetof(ArpEntry, ip) && offsetof(ArpEntry, ip) < offsetof(ArpEntry, mac) &&
              offsetof(ArpEntry, mac) < offsetof(ArpEntry, state));
static_assert(offsetof(RoutingTableEntry, iface) < offsetof(RoutingTableEntry, destination) &&
              offsetof(RoutingTableEntry, destination) < offsetof(RoutingTableEntry, gateway) &&
              offsetof(RoutingTableEntry, gateway) < offsetof(RoutingTableEntry, mask) &&
              offsetof(RoutingTableEntry, mask) < offsetof(RoutingTableEntry, metric) &&
              offsetof(RoutingTableEntry, metric) < offsetof(RoutingTableEntry, flags));

using namespace std::string_literals;

const std::string kArpLine =
    "192.168.1.10     0x1         0x2         00:1a:2B:3c:4D:5e     *        eth0";  // Columns as Linux pads them.
const std::string kRouteLine = "eth0\t0002A8C0\t0101A8C0\t0003\t0\t0\t100\t00FFFFFF\t0\t0\t0";

bool operator==(const ArpEntry& a, const ArpEntry& b) {
  return a.iface == b.iface && a.ip == b.ip && a.mac == b.mac && a.state == b.state;
}

bool operator==(const RoutingTableEntry& a, const RoutingTableEntry& b) {
  return a.iface == b.iface && a.destination == b.destination && a.gateway == b.gateway && a.mask == b.mask &&
         a.metric == b.metric && a.flags == b.flags;
}

ArpEntry UsedArpEntry() { return {"used", 7, "used", ArpState::Failed}; }

RoutingTableEntry UsedRoute() { return {"used", 1, 2, 3, 4, 5}; }

// Whether the line is refused, with the entry as it was.
bool ArpRefuses(const std::string& line) {
  ArpEntry entry = UsedArpEntry();
  return !ParseArpLine(line, entry) && entry == UsedArpEntry();
}

bool RouteRefuses(const std::string& line) {
  RoutingTableEntry entry = UsedRoute();
  return !ParseRouteLine(line, entry) && entry == UsedRoute();
}

ArpEntry Arp(const std::string& line) {
  ArpEntry entry = UsedArpEntry();
  EXPECT_TRUE(ParseArpLine(line, entry)) << line.substr(0, 100);
  return entry;
}

RoutingTableEntry Route(const std::string& line) {
  RoutingTableEntry entry = UsedRoute();
  EXPECT_TRUE(ParseRouteLine(line, entry)) << line.substr(0, 100);
  return entry;
}

std::string ArpLineWithMac(const std::string& mac) { return "10.0.0.1 0x1 0x2 " + mac + " * eth0"; }

ArpState StateOf(const std::string& flags) { return Arp("10.0.0.1 0x1 " + flags + " 00:00:00:00:00:01 * eth0").state; }

std::string RouteLineWithMetric(const std::string& metric) {
  return "eth0\t00000000\t00000000\t0001\t0\t0\t" + metric + "\t00000000";
}

std::string RouteLineWithFlags(const std::string& flags) {
  return "eth0\t00000000\t00000000\t" + flags + "\t0\t0\t0\t00000000";
}

// ------------------------------------------------------------------------------------------------- neighbour lines

TEST(ParseArpLine, TakesAddressStateMacAndDevice) {
  const ArpEntry entry = Arp(kArpLine);

  EXPECT_EQ(entry.iface, "eth0");
  EXPECT_EQ(entry.ip, inet_addr("192.168.1.10"));
  EXPECT_EQ(entry.mac, "00:1a:2B:3c:4D:5e");
  EXPECT_EQ(entry.state, ArpState::Reachable);
}

TEST(ParseArpLine, AddressIsInNetworkByteOrder) {
  const std::uint32_t ip = Arp("1.2.3.4 0x1 0x2 00:00:00:00:00:01 * eth0").ip;
  const auto* bytes = reinterpret_cast<const unsigned char*>(&ip);

  EXPECT_EQ(std::vector<int>(bytes, bytes + 4), (std::vector<int>{1, 2, 3, 4}));
}

TEST(ParseArpLine, UnansweredRequestHasAZeroMacAndNoState) {
  const ArpEntry entry = Arp("10.0.0.9         0x1         0x0         00:00:00:00:00:00     *        br0");

  EXPECT_EQ(entry.mac, "00:00:00:00:00:00");
  EXPECT_EQ(entry.state, ArpState::Unknown);
}

TEST(ParseArpLine, EveryFlagAloneIsAState) {
  const std::vector<std::pair<std::string, ArpState>> states = {
      {"0x01", ArpState::Incomplete}, {"0x02", ArpState::Reachable}, {"0x04", ArpState::Stale},
      {"0x08", ArpState::Delay},      {"0x10", ArpState::Probe},     {"0x20", ArpState::Failed},
      {"0x40", ArpState::NoArp},      {"0x80", ArpState::Permanent}, {"0x1", ArpState::Incomplete},
      {"0X2", ArpState::Reachable},   {"0x4", ArpState::Stale},      {"0x00000000008", ArpState::Delay},
  };

  for (const auto& [flags, state] : states) {
    EXPECT_EQ(StateOf(flags), state) << flags;
  }
}

TEST(ParseArpLine, StatesHaveTheNumbersOfTheirOrder) {
  const ArpState inOrder[] = {ArpState::Incomplete, ArpState::Reachable, ArpState::Stale,
                              ArpState::Delay,      ArpState::Probe,     ArpState::Failed,
                              ArpState::NoArp,      ArpState::Permanent, ArpState::Unknown};
  int number = 0;
  for (const ArpState state : inOrder) {
    EXPECT_EQ(static_cast<int>(state), number++);
  }
}

// Every value of the low nine bits: only the eight with one bit below 0x100 name a state.
TEST(ParseArpLine, CombinedFlagsAreUnknown) {
  int named = 0;
  for (unsigned value = 0; value < 0x200; ++value) {
    char digits[4] = {};
    (void)std::to_chars(digits, digits + 3, value, 16);
    const bool oneBit = value != 0 && (value & (value - 1)) == 0 && value < 0x100;

    EXPECT_EQ(StateOf("0x"s + digits) != ArpState::Unknown, oneBit) << digits;
    named += oneBit ? 1 : 0;
  }
  EXPECT_EQ(named, 8);
}

TEST(ParseArpLine, FlagsThatAreNoPrefixedNumberAreUnknown) {
  for (const std::string flags :
       {"2",    "02",   "0",    "0x",    "0X",   "00x2", "x2",    "1x2",   "0y2",   "0x2z",  "0xg",
        "0x2,", "0x+2", "0x-2", "0x0x2", "-0x2", "+0x2", "0x2\t", "\t0x2", "0x2\r", "0x\t2", "*"}) {
    EXPECT_EQ(StateOf(flags), ArpState::Unknown) << flags;
  }
  EXPECT_EQ(StateOf("0x2\0"s), ArpState::Unknown);
  EXPECT_EQ(StateOf("0x2\0junk"s), ArpState::Unknown);
}

// The low 32 bits of each would name a state.
TEST(ParseArpLine, FlagsBeyond32BitsAreUnknown) {
  for (const std::string flags :
       {"0x100000002", "0xff00000002", "0xffffffff00000002", "0x10000000000000002", "0x80000000000000000000000080"}) {
    EXPECT_EQ(StateOf(flags), ArpState::Unknown) << flags;
  }
}

TEST(ParseArpLine, MacNeedsTheFormOfSixPairs) {
  for (const std::string mac :
       {"00-1a-2b-3c-4d-5e", "00:1a:2b:3c:4d-5e", "0:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d:5", "00:1a:2b:3c:4d:5ef",
        "00:1a:2b:3c:4d:5e:", "00:1a:2b:3c:4d", "00:1a:2b:3c:4d:5g", ":00:1a:2b:3c:4d:5", "001:a:2b:3c:4d:5e",
        "00:1a:2b:3c:4d:x5", "00:1a:2b:3c:4d:\t5", "*", "00000000000000000",
        ":::::::::::::::::", "00:1a:2b:3c:4d:\xb5z", "80:00:02:08:fe:80:00:00:00:00"}) {
    EXPECT_TRUE(ArpRefuses(ArpLineWithMac(mac))) << mac;
  }
  EXPECT_TRUE(ArpRefuses(ArpLineWithMac("00:1a:2b:3c:4d:5\0"s)));
  EXPECT_TRUE(ArpRefuses(ArpLineWithMac("00:1a:2b:3c:4d:5e\0"s)));
}

// Every byte value at every position of the column.
TEST(ParseArpLine, MacTakesHexadecimalDigitsAndColonsOnly) {
  const std::string mac = "00:1a:2b:3c:4d:5e";
  for (std::size_t at = 0; at < mac.size(); ++at) {
    for (int value = 0; value < 256; ++value) {
      std::string changed = mac;
      changed[at] = static_cast<char>(value);
      const std::string allowed = at % 3 == 2 ? ":" : "0123456789abcdefABCDEF";

      ArpEntry entry;
      EXPECT_EQ(ParseArpLine(ArpLineWithMac(changed), entry), allowed.find(changed[at]) != std::string::npos)
          << at << ' ' << value;
    }
  }
}

TEST(ParseArpLine, AddressMustBeDottedWhole) {
  for (const std::string ip : {"10.0.0", "10.0.0.256", "10.0.0.1.", "10.0.0.01x", "0x0a000001", "localhost", "::1",
                               "10.0.0.1\t", "10.0.0.1/32", "-1.0.0.1", "10,0,0,1", "*"}) {
    EXPECT_TRUE(ArpRefuses(ip + " 0x1 0x2 00:00:00:00:00:01 * eth0")) << ip;
  }
}

TEST(ParseArpLine, AnyAddressIsTaken) {
  EXPECT_EQ(Arp("0.0.0.0 0x1 0x2 00:00:00:00:00:01 * eth0").ip, 0U);
  EXPECT_EQ(Arp("255.255.255.255 0x1 0x2 00:00:00:00:00:01 * eth0").ip, UINT32_MAX);
}

TEST(ParseArpLine, FewerThanSixColumnsAreNoNeighbour) {
  for (const std::string line : {"", " ", "                                ", "10.0.0.1", "10.0.0.1 0x1 0x2",
                                 "10.0.0.1 0x1 0x2 00:00:00:00:00:01", "10.0.0.1 0x1 0x2 00:00:00:00:00:01 *",
                                 "10.0.0.1 0x1 0x2 00:00:00:00:00:01 *       ",
                                 "10.0.0.1\t0x1\t0x2\t00:00:00:00:00:01\t*\teth0", "\t\t\t\t\t\t\t\t", "\n", "\r"}) {
    EXPECT_TRUE(ArpRefuses(line)) << line;
  }
}

TEST(ParseArpLine, HeadingIsNoNeighbour) {
  EXPECT_TRUE(ArpRefuses("IP address       HW type     Flags       HW address            Mask     Device"));
}

TEST(ParseArpLine, BlanksAroundTheColumnsDoNotCount) {
  const ArpEntry padded = Arp("   10.0.0.1  0x1   0x2    00:00:00:00:00:01     *   br0      ");

  EXPECT_TRUE(padded == Arp("10.0.0.1 0x1 0x2 00:00:00:00:00:01 * br0"));
}

TEST(ParseArpLine, ColumnsBehindTheDeviceAreIgnored) {
  EXPECT_EQ(Arp("10.0.0.1 0x1 0x2 00:00:00:00:00:01 * eth0 more and more").iface, "eth0");
}

TEST(ParseArpLine, HardwareTypeAndMaskAreNotRead) {
  const ArpEntry entry = Arp("10.0.0.1 ? 0x2 00:00:00:00:00:01 255.0.0.0 eth0");

  EXPECT_TRUE(entry == Arp("10.0.0.1 0x1 0x2 00:00:00:00:00:01 * eth0"));
}

TEST(ParseArpLine, DeviceIsTakenAsItStands) {
  for (const std::string& device : {"eth0:1"s, "a"s, "abcdefghijklmno"s, "br0\r"s, "br\t0"s, "br\0x"s, "\xc3\xa9"s}) {
    EXPECT_EQ(Arp("10.0.0.1 0x1 0x2 00:00:00:00:00:01 * " + device).iface, device);
  }
}

TEST(ParseArpLine, NeedsNoTerminator) {
  const std::string line = "10.0.0.1 0x1 0x2 00:00:00:00:00:01 * eth0123";
  const std::vector<char> bytes(line.begin(), line.end() - 3);
  ArpEntry entry;

  EXPECT_TRUE(ParseArpLine(utils::StringView(bytes.data(), bytes.size()), entry));

  EXPECT_EQ(entry.iface, "eth0");
  EXPECT_FALSE(ParseArpLine(utils::StringView(), entry));
}

TEST(ParseArpLine, MegabyteColumnsAreTakenOrRefusedWhole) {
  const std::string mega(1 << 20, '0');

  EXPECT_EQ(Arp("10.0.0.1 0x1 0x2 00:00:00:00:00:01 * " + mega).iface, mega);
  EXPECT_EQ(StateOf("0x" + mega + "2"), ArpState::Reachable);
  EXPECT_EQ(StateOf("0x2" + mega), ArpState::Unknown);
  EXPECT_EQ(Arp("10.0.0.1 " + mega + " 0x2 00:00:00:00:00:01 " + mega + " eth0").iface, "eth0");
  EXPECT_TRUE(ArpRefuses(mega + ".0.0.1 0x1 0x2 00:00:00:00:00:01 * eth0"));
  EXPECT_TRUE(ArpRefuses(ArpLineWithMac(mega)));
  EXPECT_TRUE(ArpRefuses(std::string(1 << 20, ' ')));
  EXPECT_TRUE(ArpRefuses(std::string(1 << 20, '\t')));
}

// ----------------------------------------------------------------------------------------------------- route lines

TEST(ParseRouteLine, TakesSixOfItsColumns) {
  const RoutingTableEntry route = Route(kRouteLine);

  EXPECT_EQ(route.iface, "eth0");
  EXPECT_EQ(route.destination, 0x0002A8C0U);
  EXPECT_EQ(route.gateway, 0x0101A8C0U);
  EXPECT_EQ(route.flags, 3U);
  EXPECT_EQ(route.metric, 100U);
  EXPECT_EQ(route.mask, 0x00FFFFFFU);
}

TEST(ParseRouteLine, ColumnsAreNotMistakenForOneAnother) {
  EXPECT_TRUE(Route("i\t1\t2\t3\t4\t5\t6\t7\t8\t9\tA") == (RoutingTableEntry{"i", 1, 2, 7, 6, 3}));
}

TEST(ParseRouteLine, DefaultRouteIsKept) {
  const RoutingTableEntry route = Route("eth0\t00000000\t0101A8C0\t0003\t0\t0\t0\t00000000\t0\t0\t0");

  EXPECT_TRUE(route == (RoutingTableEntry{"eth0", 0, 0x0101A8C0, 0, 0, 3}));
}

TEST(ParseRouteLine, DefaultRouteWithoutGatewayIsKeptForItsName) {
  EXPECT_TRUE(Route("eth0\t00000000\t00000000\t0001\t0\t0\t0\t00000000") == (RoutingTableEntry{"eth0", 0, 0, 0, 0, 1}));
}

TEST(ParseRouteLine, WithoutNameAndAddressesThereIsNoRoute) {
  EXPECT_TRUE(RouteRefuses("\t00000000\t00000000\t0001\t0\t0\t0\t00000000\t0\t0\t0"));
  EXPECT_TRUE(RouteRefuses("\t00000000\t00000000\tFFFF\t1\t1\t100\t00000000\t0\t0\t0"));
  EXPECT_TRUE(RouteRefuses("\tx\ty\t0001\t0\t0\t7\tz"));
  EXPECT_TRUE(RouteRefuses("\t\t\t\t\t\t\t"));
}

TEST(ParseRouteLine, OneAddressKeepsARouteWithoutName) {
  EXPECT_EQ(Route("\t00000001\t00000000\t0001\t0\t0\t0\t00000000").destination, 1U);
  EXPECT_EQ(Route("\t00000000\t00000001\t0001\t0\t0\t0\t00000000").gateway, 1U);
  EXPECT_EQ(Route("\t00000000\t00000000\t0001\t0\t0\t0\t00000001").mask, 1U);
}

TEST(ParseRouteLine, AnyNameKeepsARouteWithoutAddresses) {
  for (const std::string& name : {"*"s, " "s, "\0"s, "\r"s}) {
    EXPECT_TRUE(Route(name + "\t\t\t\t\t\t\t") == (RoutingTableEntry{name, 0, 0, 0, 0, 0}));
  }
}

TEST(ParseRouteLine, FewerThanEightColumnsAreNoRoute) {
  for (const std::string line : {"", "eth0", "eth0\t00000000\t0101A8C0\t0003\t0\t0\t0",
                                 "eth0 00000000 0101A8C0 0003 0 0 0 00000000 0 0 0", "\t\t\t\t\t\t", "          "}) {
    EXPECT_TRUE(RouteRefuses(line)) << line;
  }
}

TEST(ParseRouteLine, EightColumnsAreEnough) {
  EXPECT_EQ(Route("eth0\t00000000\t00000000\t0001\t0\t0\t0\t00FFFFFF").mask, 0x00FFFFFFU);
}

TEST(ParseRouteLine, EmptyColumnsKeepTheirPlace) {
  EXPECT_TRUE(Route("eth0\t\t0101A8C0\t\t\t\t\t00FFFFFF") ==
              (RoutingTableEntry{"eth0", 0, 0x0101A8C0, 0x00FFFFFF, 0, 0}));
}

TEST(ParseRouteLine, HeadingReadsAsARouteOfZeros) {
  EXPECT_TRUE(Route("Iface\tDestination\tGateway \tFlags\tRefCnt\tUse\tMetric\tMask\t\tMTU\tWindow\tIRTT") ==
              (RoutingTableEntry{"Iface", 0, 0, 0, 0, 0xF}));
}

TEST(ParseRouteLine, TrailingBlankMakesAnAddressColumnZero) {
  EXPECT_EQ(Route("eth0\t0101A8C0 \t0101A8C0\t3\t0\t0\t0\t00FFFFFF").destination, 0U);
  EXPECT_EQ(Route("eth0\t0101A8C0\t0101A8C0 \t3\t0\t0\t0\t00FFFFFF").gateway, 0U);
  EXPECT_EQ(Route("eth0\t0101A8C0\t0101A8C0\t3\t0\t0\t0\t00FFFFFF ").mask, 0U);
}

TEST(ParseRouteLine, CarriageReturnMattersInTheMaskOnly) {
  EXPECT_TRUE(Route(kRouteLine + '\r') == Route(kRouteLine));
  EXPECT_EQ(Route("eth0\t0101A8C0\t00000000\t3\t0\t0\t0\t00FFFFFF\r").mask, 0U);
}

TEST(ParseRouteLine, FlagsAreReadAsFarAsTheyAreANumber) {
  const std::vector<std::pair<std::string, std::uint32_t>> values = {{"0003", 3},
                                                                     {"3 ", 3},
                                                                     {"3junk", 3},
                                                                     {" 3", 3},
                                                                     {"0x205", 0x205},
                                                                     {"FFFFFFFF", UINT32_MAX},
                                                                     {"fFfF", 0xFFFF},
                                                                     {"", 0},
                                                                     {"junk", 0},
                                                                     {"g", 0},
                                                                     {"0x", 0},
                                                                     {"+5", 5},
                                                                     {"-1", UINT32_MAX},
                                                                     {"-2", UINT32_MAX - 1},
                                                                     {"100000000", UINT32_MAX},
                                                                     {"100000003", UINT32_MAX},
                                                                     {"ffffffffffffffff3", UINT32_MAX},
                                                                     {"3\0"s + "4", 3}};

  for (const auto& [text, value] : values) {
    EXPECT_EQ(Route(RouteLineWithFlags(text)).flags, value) << text;
  }
}

// Where long has 32 bits the C library itself says what the number is; elsewhere it has to be the same.
TEST(ParseRouteLine, MetricIsThe32BitNumberOnEveryMachine) {
  const std::vector<std::pair<std::string, std::uint32_t>> values = {
      {"0", 0},
      {"100", 100},
      {"0100", 100},
      {"2147483648", 2147483648U},
      {"4294967295", UINT32_MAX},
      {"4294967296", UINT32_MAX},
      {"4294967297", UINT32_MAX},
      {"18446744073709551615", UINT32_MAX},
      {"18446744073709551616", UINT32_MAX},
      {"99999999999999999999999999", UINT32_MAX},
      {"-1", UINT32_MAX},
      {"-2", UINT32_MAX - 1},
      {"-0", 0},
      {"-4294967295", 1},
      {"-4294967296", UINT32_MAX},
      {"-4294967297", UINT32_MAX},
      {"-18446744073709551615", UINT32_MAX},
      {"-18446744073709551616", UINT32_MAX},
      {"+5", 5},
      {"  7", 7},
      {" \f\n\r\v-7", UINT32_MAX - 6},
      {"7  ", 7},
      {"12abc", 12},
      {"0x10", 0},
      {"1.5", 1},
      {"- 5", 0},
      {"--5", 0},
      {"+-5", 0},
      {"abc", 0},
      {"", 0},
      {"9\0"s + "9", 9},
  };

  for (const auto& [text, value] : values) {
    EXPECT_EQ(Route(RouteLineWithMetric(text)).metric, value) << text;
    if (sizeof(long) == sizeof value) {
      EXPECT_EQ(std::strtoul(text.c_str(), nullptr, 10), value) << text;
    }
  }
}

TEST(ParseRouteLine, NulInsideAColumnEndsItsNumber) {
  const RoutingTableEntry route = Route("et\0h\t01\0x\t02\0\t3\0\t0\t0\t4\0x\t05\0x\t0\t0\t0"s);

  EXPECT_TRUE(route == (RoutingTableEntry{"et\0h"s, 1, 2, 5, 4, 3}));
}

TEST(ParseRouteLine, NeedsNoTerminator) {
  const std::string line = "eth0\t00000000\t00000000\t0001\t0\t0\t0\t00FFFFFF99";
  const std::vector<char> bytes(line.begin(), line.end() - 2);
  RoutingTableEntry entry;

  EXPECT_TRUE(ParseRouteLine(utils::StringView(bytes.data(), bytes.size()), entry));

  EXPECT_EQ(entry.mask, 0x00FFFFFFU);
  EXPECT_FALSE(ParseRouteLine(utils::StringView(), entry));
}

TEST(ParseRouteLine, MegabyteColumnsAreNumbersOrZero) {
  const std::string zeros(1 << 20, '0');
  const std::string ones(1 << 20, '1');

  EXPECT_TRUE(Route(ones + '\t' + zeros + "5\t" + ones + '\t' + zeros + "3\t" + ones + '\t' + ones + '\t' + ones +
                    '\t' + zeros + 'x') == (RoutingTableEntry{ones, 5, UINT32_MAX, 0, UINT32_MAX, 3}));
  EXPECT_TRUE(RouteRefuses(std::string(1 << 20, '\t')));
  EXPECT_TRUE(RouteRefuses(std::string(1 << 20, ' ')));
}

// ------------------------------------------------------------------------------------------------ strict hexadecimal

TEST(ParseHex, NullPointerIsZero) { EXPECT_EQ(ParseHex(nullptr), 0U); }

TEST(ParseHex, TakesWholeNumbersOnly) {
  const std::vector<std::pair<std::string, std::uint32_t>> values = {
      {"0101A8C0", 0x0101A8C0},
      {"0101a8c0", 0x0101A8C0},
      {"0", 0},
      {"f", 15},
      {"FFFFFFFF", UINT32_MAX},
      {"0x1F", 0x1F},
      {"0X1f", 0x1F},
      {" 1F", 0x1F},
      {"\t\n\v\f\r 1F", 0x1F},
      {"+5", 5},
      {"000000000000000000000001F", 0x1F},
      {"", 0},
      {" ", 0},
      {"1F ", 0},
      {"1F\n", 0},
      {"1F\r", 0},
      {"1Fg", 0},
      {"g", 0},
      {"0x", 0},
      {"0xg", 0},
      {"1 F", 0},
      {"1.F", 0},
      {"-", 0},
      {"+", 0},
      {"- 1", 0},
      {"--1", 0},
      {"0x0x1", 0},
      {"\xc3\xa9", 0},
  };

  for (const auto& [text, value] : values) {
    EXPECT_EQ(ParseHex(text.c_str()), value) << text;
  }
}

TEST(ParseHex, IsThe32BitNumberOnEveryMachine) {
  const std::vector<std::pair<std::string, std::uint32_t>> values = {
      {"80000000", 0x80000000},
      {"100000000", UINT32_MAX},
      {"1000000FF", UINT32_MAX},
      {"FFFFFFFFFFFFFFFF", UINT32_MAX},
      {"10000000000000000", UINT32_MAX},
      {"-1", UINT32_MAX},
      {"-2", UINT32_MAX - 1},
      {"-0x10", UINT32_MAX - 15},
      {"-FFFFFFFF", 1},
      {"-100000000", UINT32_MAX},
      {" -100000001", UINT32_MAX},
      {"-FFFFFFFFFFFFFFFF", UINT32_MAX},
      {"-10000000000000000", UINT32_MAX},
  };

  for (const auto& [text, value] : values) {
    EXPECT_EQ(ParseHex(text.c_str()), value) << text;
    if (sizeof(long) == sizeof value) {
      EXPECT_EQ(std::strtoul(text.c_str(), nullptr, 16), value) << text;
    }
  }
}

TEST(ParseHex, ReadsBackWhatTheKernelPrints) {
  for (std::uint64_t value = 1; value <= UINT32_MAX; value = value * 3 + 1) {
    char text[9];
    (void)std::snprintf(text, sizeof text, "%08X", static_cast<unsigned>(value));
    EXPECT_EQ(ParseHex(text), value) << text;
  }
}

// ------------------------------------------------------------------------------------ lines that were cut or changed

// Calls `check` for the line cut after every byte, and with each of some bytes put in, or in the place of another.
void ForEachDamage(const std::string& line, const std::string& bytes,
                   const std::function<void(const std::string&)>& check) {
  for (std::size_t at = 0; at <= line.size(); ++at) {
    check(line.substr(0, at));
    check(line.substr(at));
    for (const char byte : bytes) {
      check(line.substr(0, at) + byte + line.substr(at));
      check(line.substr(0, at) + byte + (at < line.size() ? line.substr(at + 1) : ""));
    }
  }
}

const std::string kBytes = " \t\r\n\0-+.:*xX0289afgA\xff"s;

std::vector<std::string> Words(const std::string& line) {
  std::vector<std::string> words;
  std::size_t end = 0;
  for (std::size_t begin = line.find_first_not_of(' '); begin != std::string::npos;
       begin = line.find_first_not_of(' ', end)) {
    end = std::min(line.find(' ', begin), line.size());
    words.push_back(line.substr(begin, end - begin));
  }
  return words;
}

bool LooksLikeMac(std::string text) {
  for (char& byte : text) {
    byte = "0123456789abcdefABCDEF"s.find(byte) != std::string::npos ? 'h' : byte;
  }
  return text == "hh:hh:hh:hh:hh:hh";
}

void ExpectNeighbourOrNothing(const std::string& line) {
  const std::vector<std::string> words = Words(line);
  in_addr ip{};
  const bool isNeighbour =
      words.size() >= 6 && ::inet_pton(AF_INET, words[0].c_str(), &ip) == 1 && LooksLikeMac(words[3]);
  if (!isNeighbour) {
    EXPECT_TRUE(ArpRefuses(line)) << line;
    return;
  }
  const ArpEntry entry = Arp(line);
  EXPECT_EQ(entry.ip, ip.s_addr) << line;
  EXPECT_EQ(entry.mac, words[3]) << line;
  EXPECT_EQ(entry.iface, words[5]) << line;
  const bool reachable = words[2] == "0x2" || words[2] == "0X2" || words[2] == "0x02";
  EXPECT_EQ(entry.state == ArpState::Reachable, reachable) << line;
}

TEST(ParseArpLine, DamagedLineIsANeighbourOrNothing) { ForEachDamage(kArpLine, kBytes, ExpectNeighbourOrNothing); }

bool HoldsOnly(const std::string& text, const std::string& bytes) {
  return text.find_first_not_of(bytes) == std::string::npos;
}

// What a column must read as where that is plain: digits alone are their number, other bytes make it zero.
void ExpectAddress(std::uint32_t value, const std::string& column) {
  if (!column.empty() && HoldsOnly(column, "0123456789abcdefABCDEF")) {
    std::uint32_t number = 0;
    const char* const end = column.data() + column.size();
    const auto [stop, error] = std::from_chars(column.data(), end, number, 16);
    EXPECT_EQ(stop, end);
    EXPECT_EQ(value, error == std::errc::result_out_of_range ? UINT32_MAX : number) << column;
  } else if (column.empty() || !HoldsOnly(column, "0123456789abcdefABCDEFxX+- \r\n\0"s)) {
    EXPECT_EQ(value, 0U) << column;
  }
}

void ExpectRouteOrNothing(const std::string& line) {
  std::vector<std::string> columns(1);
  for (const char byte : line) {
    if (byte == '\t') {
      columns.emplace_back();
    } else {
      columns.back() += byte;
    }
  }
  if (columns.size() < 8) {
    EXPECT_TRUE(RouteRefuses(line)) << line;
    return;
  }
  RoutingTableEntry route = UsedRoute();
  if (!ParseRouteLine(line, route)) {
    EXPECT_TRUE(columns[0].empty() && route == UsedRoute()) << line;
    return;
  }
  EXPECT_TRUE(!route.iface.empty() || route.destination != 0 || route.gateway != 0 || route.mask != 0) << line;
  EXPECT_EQ(route.iface, columns[0]);
  ExpectAddress(route.destination, columns[1]);
  ExpectAddress(route.gateway, columns[2]);
  ExpectAddress(route.mask, columns[7]);
}

TEST(ParseRouteLine, DamagedLineIsARouteOrNothing) {
  ForEachDamage(kRouteLine, kBytes, ExpectRouteOrNothing);
  ForEachDamage("\t00000000\t00000000\t0001\t0\t0\t0\t00000000", kBytes, ExpectRouteOrNothing);
}

}  // namespace
}  // namespace kiv::net
