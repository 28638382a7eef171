#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <linux/netlink.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdint>
#include <functional>
#include <list>
#include <optional>
#include <ostream>
#include <sstream>
#include <string>
#include <utility>
#include <vector>

#include "interpose.h"
#include "net/netlink_request.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::CallLog;
using test::CountOpenFds;
using test::FailCall;
using test::Fault;
using test::GiveFrom;
using test::ReturnFrom;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

// Octets written by hand: two hexadecimal digits each, or 'text' for its characters.
std::string Bytes(const std::string& text) {
  std::istringstream words(text);
  std::string bytes;
  for (std::string word; words >> word;) {
    if (word.front() == '\'') {
      bytes += word.substr(1, word.size() - 2);
    } else {
      bytes += static_cast<char>(std::stoi(word, nullptr, 16));
    }
  }
  return bytes;
}

std::string Hex(const std::string& bytes) {
  constexpr char kDigits[] = "0123456789abcdef";
  std::string text;
  for (const char c : bytes) {
    const auto octet = static_cast<unsigned char>(c);
    text += {kDigits[octet / 16], kDigits[octet % 16], ' '};
  }
  return text;
}

// Interfaces that are asked for by name get this index, whether they exist or not: octets 04 03 02 01.
constexpr long long kIndex = 0x01020304;

std::function<bool()> WithIndex(const std::function<bool()>& run) {
  return [run] {
    const Fault index = ReturnFrom("if_nametoindex", kIndex);
    return run();
  };
}

std::function<bool()> WithoutIndex(const std::function<bool()>& run) {
  return [run] {
    const Fault index = FailCall("if_nametoindex", ENODEV);
    return run();
  };
}

const std::string kAcknowledged =
    Bytes("24 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00  00 00 00 00") + Bytes("28 00") + std::string(14, '\0');

// Lists the case by its name, not by its bytes, which are other ones in every run.
template <typename Param, typename = decltype(Param::name)>
std::ostream& operator<<(std::ostream& out, const Param& param) {
  return out << param.name;
}

template <typename Param>
std::string NameOf(const testing::TestParamInfo<Param>& info) {
  return info.param.name;
}

// ------------------------------------------------------------------------------------------- the octets of a request

// A request in its three parts: length, type and flags of the header; the fixed payload; the attributes.
struct Sent {
  std::string name;
  std::function<bool()> run;
  std::string header;
  std::string payload;
  std::string attributes;
};

constexpr char kSequenceAndPort[] = " 01 00 00 00 00 00 00 00 ";

class SentRequest : public testing::TestWithParam<Sent> {};

TEST_P(SentRequest, IsTheseOctets) {
  const Sent& sent = GetParam();
  const std::string expected = Bytes(sent.header + kSequenceAndPort + sent.payload + " " + sent.attributes);
  const CallLog log;
  const Fault send = ReturnFrom("send", static_cast<long long>(expected.size()));
  const Fault reply = GiveFrom("recv", kAcknowledged);

  EXPECT_TRUE(sent.run());

  ASSERT_EQ(log.Of("send").size(), 1U);
  EXPECT_EQ(Hex(log.Of("send")[0].data), Hex(expected));
}

// Family, type and index are 0; then the flags and which of them change.
constexpr char kNoFlags[] = "00 00 00 00 00 00 00 00  00 00 00 00  00 00 00 00";
constexpr char kClearFlags[] = "00 00 00 00 00 00 00 00  00 00 00 00  ff ff ff ff";

INSTANTIATE_TEST_SUITE_P(
    CreateInterface, SentRequest,
    testing::Values(Sent{"Bridge", [] { return CreateInterface("br0", "bridge"); }, "38 00 00 00 10 00 05 06",
                         kClearFlags, "07 00 03 00 'br0' 00  10 00 12 00  0a 00 01 00 'bridge' 00 00"},
                    Sent{"EmptyKind", [] { return CreateInterface("eth0", ""); }, "30 00 00 00 10 00 05 06",
                         kClearFlags, "08 00 03 00 'eth0'  08 00 12 00  04 00 01 00"},
                    Sent{"KindOf1", [] { return CreateInterface("eth0", "k"); }, "34 00 00 00 10 00 05 06", kClearFlags,
                         "08 00 03 00 'eth0'  0c 00 12 00  05 00 01 00 'k' 00 00 00"},
                    Sent{"KindOf4", [] { return CreateInterface("eth0", "veth"); }, "34 00 00 00 10 00 05 06",
                         kClearFlags, "08 00 03 00 'eth0'  0c 00 12 00  08 00 01 00 'veth'"},
                    Sent{"KindOf5", [] { return CreateInterface("eth0", "dummy"); }, "38 00 00 00 10 00 05 06",
                         kClearFlags, "08 00 03 00 'eth0'  10 00 12 00  09 00 01 00 'dummy' 00 00 00"},
                    Sent{"KindOf26", [] { return CreateInterface("eth0", "abcdefghijklmnopqrstuvwxyz"); },
                         "4c 00 00 00 10 00 05 06", kClearFlags,
                         "08 00 03 00 'eth0'  24 00 12 00  1e 00 01 00 'abcdefghijklmnopqrstuvwxyz' 00 00"},
                    Sent{"EmptyName", [] { return CreateInterface("", "veth"); }, "30 00 00 00 10 00 05 06",
                         kClearFlags, "04 00 03 00  0c 00 12 00  08 00 01 00 'veth'"},
                    Sent{"NameOf15", [] { return CreateInterface("abcdefghijklmno", "veth"); },
                         "40 00 00 00 10 00 05 06", kClearFlags,
                         "13 00 03 00 'abcdefghijklmno' 00  0c 00 12 00  08 00 01 00 'veth'"}),
    NameOf<Sent>);

INSTANTIATE_TEST_SUITE_P(DeleteInterface, SentRequest,
                         testing::Values(Sent{"EmptyName", [] { return DeleteInterface(""); },
                                              "24 00 00 00 11 00 05 00", kNoFlags, "04 00 03 00"},
                                         Sent{"NameOf1", [] { return DeleteInterface("a"); }, "28 00 00 00 11 00 05 00",
                                              kNoFlags, "05 00 03 00 'a' 00 00 00"},
                                         Sent{"NameOf4", [] { return DeleteInterface("eth0"); },
                                              "28 00 00 00 11 00 05 00", kNoFlags, "08 00 03 00 'eth0'"},
                                         Sent{"NameOf14", [] { return DeleteInterface("abcdefghijklmn"); },
                                              "34 00 00 00 11 00 05 00", kNoFlags,
                                              "12 00 03 00 'abcdefghijklmn' 00 00"},
                                         Sent{"NameOf15", [] { return DeleteInterface("abcdefghijklmno"); },
                                              "34 00 00 00 11 00 05 00", kNoFlags, "13 00 03 00 'abcdefghijklmno' 00"}),
                         NameOf<Sent>);

// The nest of 24 octets in its four attributes, with the id at its end.
std::string Vlan(const std::string& id) {
  return " 18 00 12 00  08 00 01 00 'vlan'  0c 00 02 00  06 00 01 00 " + id + " 00 00  08 00 05 00 04 03 02 01";
}

std::function<bool()> AddsVlan(unsigned short id, const std::string& name) {
  return WithIndex([id, name] { return AddVlan("eth0", id, name); });
}

INSTANTIATE_TEST_SUITE_P(AddVlan, SentRequest,
                         testing::Values(Sent{"OrdinaryId", AddsVlan(100, "eth0.100"), "4c 00 00 00 10 00 05 06",
                                              kClearFlags, "0c 00 03 00 'eth0.100'" + Vlan("64 00")},
                                         Sent{"Id0", AddsVlan(0, "v"), "48 00 00 00 10 00 05 06", kClearFlags,
                                              "05 00 03 00 'v' 00 00 00" + Vlan("00 00")},
                                         Sent{"Id1", AddsVlan(1, "v"), "48 00 00 00 10 00 05 06", kClearFlags,
                                              "05 00 03 00 'v' 00 00 00" + Vlan("01 00")},
                                         Sent{"Id4094", AddsVlan(4094, "v"), "48 00 00 00 10 00 05 06", kClearFlags,
                                              "05 00 03 00 'v' 00 00 00" + Vlan("fe 0f")},
                                         Sent{"Id4095", AddsVlan(4095, "v"), "48 00 00 00 10 00 05 06", kClearFlags,
                                              "05 00 03 00 'v' 00 00 00" + Vlan("ff 0f")},
                                         Sent{"Id65535", AddsVlan(65535, "v"), "48 00 00 00 10 00 05 06", kClearFlags,
                                              "05 00 03 00 'v' 00 00 00" + Vlan("ff ff")},
                                         Sent{"EmptyName", AddsVlan(2, ""), "44 00 00 00 10 00 05 06", kClearFlags,
                                              "04 00 03 00" + Vlan("02 00")},
                                         Sent{"NameOf14", AddsVlan(2, "abcdefghijklmn"), "54 00 00 00 10 00 05 06",
                                              kClearFlags, "12 00 03 00 'abcdefghijklmn' 00 00" + Vlan("02 00")},
                                         Sent{"NameOf15", AddsVlan(2, "abcdefghijklmno"), "54 00 00 00 10 00 05 06",
                                              kClearFlags, "13 00 03 00 'abcdefghijklmno' 00" + Vlan("02 00")}),
                         NameOf<Sent>);

INSTANTIATE_TEST_SUITE_P(
    LinkFlags, SentRequest,
    testing::Values(Sent{"Up", [] { return SetInterfaceUp("eth0", true); }, "28 00 00 00 10 00 05 00",
                         "00 00 00 00 00 00 00 00  01 00 00 00  01 00 00 00", "08 00 03 00 'eth0'"},
                    Sent{"Down", [] { return SetInterfaceUp("eth0", false); }, "28 00 00 00 10 00 05 00",
                         "00 00 00 00 00 00 00 00  00 00 00 00  01 00 00 00", "08 00 03 00 'eth0'"},
                    Sent{"EmptyNameUp", [] { return SetInterfaceUp("", true); }, "24 00 00 00 10 00 05 00",
                         "00 00 00 00 00 00 00 00  01 00 00 00  01 00 00 00", "04 00 03 00"},
                    Sent{"NameOf15Up", [] { return SetInterfaceUp("abcdefghijklmno", true); },
                         "34 00 00 00 10 00 05 00", "00 00 00 00 00 00 00 00  01 00 00 00  01 00 00 00",
                         "13 00 03 00 'abcdefghijklmno' 00"},
                    Sent{"MulticastOn", [] { return SetInterfaceMulticast("a", true); }, "28 00 00 00 10 00 05 00",
                         "00 00 00 00 00 00 00 00  00 10 00 00  00 10 00 00", "05 00 03 00 'a' 00 00 00"},
                    Sent{"MulticastOff", [] { return SetInterfaceMulticast("abcdefghijklmno", false); },
                         "34 00 00 00 10 00 05 00", "00 00 00 00 00 00 00 00  00 00 00 00  00 10 00 00",
                         "13 00 03 00 'abcdefghijklmno' 00"},
                    Sent{"PromiscuousOn", [] { return SetInterfacePromiscuous("abcdefghijklmno", true); },
                         "34 00 00 00 10 00 05 00", "00 00 00 00 00 00 00 00  00 01 00 00  00 01 00 00",
                         "13 00 03 00 'abcdefghijklmno' 00"},
                    Sent{"PromiscuousOff", [] { return SetInterfacePromiscuous("", false); }, "24 00 00 00 10 00 05 00",
                         "00 00 00 00 00 00 00 00  00 00 00 00  00 01 00 00", "04 00 03 00"}),
    NameOf<Sent>);

INSTANTIATE_TEST_SUITE_P(SetMTU, SentRequest,
                         testing::Values(Sent{"Of1500", [] { return SetMTU("eth0", 1500); }, "30 00 00 00 10 00 05 00",
                                              kClearFlags, "08 00 03 00 'eth0'  08 00 04 00 dc 05 00 00"},
                                         Sent{"Of0", [] { return SetMTU("a", 0); }, "30 00 00 00 10 00 05 00",
                                              kClearFlags, "05 00 03 00 'a' 00 00 00  08 00 04 00 00 00 00 00"},
                                         Sent{"Of65535", [] { return SetMTU("abcdefghijklmno", 65535); },
                                              "3c 00 00 00 10 00 05 00", kClearFlags,
                                              "13 00 03 00 'abcdefghijklmno' 00  08 00 04 00 ff ff 00 00"}),
                         NameOf<Sent>);

INSTANTIATE_TEST_SUITE_P(
    SetMAC, SentRequest,
    testing::Values(Sent{"LowerCase", [] { return SetMAC("eth0", "00:11:22:33:44:55"); }, "34 00 00 00 10 00 05 00",
                         kClearFlags, "08 00 03 00 'eth0'  0a 00 01 00 00 11 22 33 44 55 00 00"},
                    Sent{"MixedCase", [] { return SetMAC("", "AA:bB:Cc:DD:ee:fF"); }, "30 00 00 00 10 00 05 00",
                         kClearFlags, "04 00 03 00  0a 00 01 00 aa bb cc dd ee ff 00 00"},
                    Sent{"BlankOrSignBeforeADigit", [] { return SetMAC("abcdefghijklmno", " a:+b:-0:\t1: F:+0"); },
                         "40 00 00 00 10 00 05 00", kClearFlags,
                         "13 00 03 00 'abcdefghijklmno' 00  0a 00 01 00 0a 0b 00 01 0f 00 00 00"}),
    NameOf<Sent>);

INSTANTIATE_TEST_SUITE_P(
    LinkOfAnother, SentRequest,
    testing::Values(
        Sent{"SetMaster", WithIndex([] { return SetMaster("eth0", "br0"); }), "30 00 00 00 10 00 05 00", kNoFlags,
             "08 00 03 00 'eth0'  08 00 0a 00 04 03 02 01"},
        Sent{"SetMasterNameOf15", WithIndex([] { return SetMaster("abcdefghijklmno", "br0"); }),
             "3c 00 00 00 10 00 05 00", kNoFlags, "13 00 03 00 'abcdefghijklmno' 00  08 00 0a 00 04 03 02 01"},
        Sent{"SetMasterEmptyName", WithIndex([] { return SetMaster("", "br0"); }), "2c 00 00 00 10 00 05 00", kNoFlags,
             "04 00 03 00  08 00 0a 00 04 03 02 01"},
        Sent{"UnsetMaster", [] { return UnsetMaster("eth0"); }, "30 00 00 00 10 00 05 00", kNoFlags,
             "08 00 03 00 'eth0'  08 00 0a 00 00 00 00 00"},
        Sent{"UnsetMasterNameOf15", [] { return UnsetMaster("abcdefghijklmno"); }, "3c 00 00 00 10 00 05 00", kNoFlags,
             "13 00 03 00 'abcdefghijklmno' 00  08 00 0a 00 00 00 00 00"},
        Sent{"NetnsFd", [] { return MoveInterfaceToNetnsFd("eth0", 0x0a0b); }, "30 00 00 00 10 00 05 00", kNoFlags,
             "08 00 03 00 'eth0'  08 00 1c 00 0b 0a 00 00"},
        Sent{"NetnsFdNameOf14", [] { return MoveInterfaceToNetnsFd("abcdefghijklmn", -1); }, "3c 00 00 00 10 00 05 00",
             kNoFlags, "12 00 03 00 'abcdefghijklmn' 00 00  08 00 1c 00 ff ff ff ff"},
        Sent{"NetnsFdNameOf15", [] { return MoveInterfaceToNetnsFd("abcdefghijklmno", 3); }, "3c 00 00 00 10 00 05 00",
             kNoFlags, "13 00 03 00 'abcdefghijklmno' 00  08 00 1c 00 03 00 00 00"}),
    NameOf<Sent>);

// Family, prefix length, flags, scope, index.
constexpr char kPermanent24[] = "02 18 80 00  00 00 00 00";

INSTANTIATE_TEST_SUITE_P(
    AssignAddress, SentRequest,
    testing::Values(Sent{"LabelThenAddress", [] { return AssignAddress("eth0", "10.0.0.1", 24); },
                         "28 00 00 00 14 00 05 06", kPermanent24, "08 00 03 00 'eth0'  08 00 02 00 0a 00 00 01"},
                    Sent{"EmptyName", [] { return AssignAddress("", "10.0.0.1", 24); }, "24 00 00 00 14 00 05 06",
                         kPermanent24, "04 00 03 00  08 00 02 00 0a 00 00 01"},
                    Sent{"NameOf1Prefix0", [] { return AssignAddress("a", "255.254.253.252", 0); },
                         "28 00 00 00 14 00 05 06", "02 00 80 00  00 00 00 00",
                         "05 00 03 00 'a' 00 00 00  08 00 02 00 ff fe fd fc"},
                    Sent{"NameOf15Prefix255", [] { return AssignAddress("abcdefghijklmno", "0.0.0.0", 255); },
                         "34 00 00 00 14 00 05 06", "02 ff 80 00  00 00 00 00",
                         "13 00 03 00 'abcdefghijklmno' 00  08 00 02 00 00 00 00 00"}),
    NameOf<Sent>);

std::function<bool()> AssignsLabeled(const std::string& iface, const std::string& label) {
  return [=] { return AssignAddressLabeled(iface, "10.0.0.1", 24, label); };
}

INSTANTIATE_TEST_SUITE_P(
    AssignAddressLabeled, SentRequest,
    testing::Values(Sent{"AddressThenLabel", AssignsLabeled("eth0", "eth0:1"), "2c 00 00 00 14 00 05 06", kPermanent24,
                         "08 00 02 00 0a 00 00 01  0a 00 03 00 'eth0:1' 00 00"},
                    Sent{"EmptyLabelIsTheName", AssignsLabeled("eth0", ""), "28 00 00 00 14 00 05 06", kPermanent24,
                         "08 00 02 00 0a 00 00 01  08 00 03 00 'eth0'"},
                    Sent{"NothingBehindTheColon", AssignsLabeled("eth0", "eth0:"), "2c 00 00 00 14 00 05 06",
                         kPermanent24, "08 00 02 00 0a 00 00 01  09 00 03 00 'eth0:' 00 00 00"},
                    Sent{"LabelOf11", AssignsLabeled("eth0", "eth0:backup"), "30 00 00 00 14 00 05 06", kPermanent24,
                         "08 00 02 00 0a 00 00 01  0f 00 03 00 'eth0:backup' 00"},
                    Sent{"LabelOf15", AssignsLabeled("eth0", "eth0:backup-abc"), "34 00 00 00 14 00 05 06",
                         kPermanent24, "08 00 02 00 0a 00 00 01  13 00 03 00 'eth0:backup-abc' 00"},
                    Sent{"NameOf1", AssignsLabeled("a", ""), "28 00 00 00 14 00 05 06", kPermanent24,
                         "08 00 02 00 0a 00 00 01  05 00 03 00 'a' 00 00 00"},
                    Sent{"NameOf15", AssignsLabeled("abcdefghijklmno", ""), "34 00 00 00 14 00 05 06", kPermanent24,
                         "08 00 02 00 0a 00 00 01  13 00 03 00 'abcdefghijklmno' 00"}),
    NameOf<Sent>);

INSTANTIATE_TEST_SUITE_P(
    DeleteAddress, SentRequest,
    testing::Values(Sent{"Prefix24", WithIndex([] { return DeleteAddress("eth0", "10.0.0.1", 24); }),
                         "20 00 00 00 15 00 05 00", "02 18 00 00  04 03 02 01", "08 00 02 00 0a 00 00 01"},
                    Sent{"Prefix255", WithIndex([] { return DeleteAddress("eth0", "10.0.0.1", 255); }),
                         "20 00 00 00 15 00 05 00", "02 ff 00 00  04 03 02 01", "08 00 02 00 0a 00 00 01"},
                    Sent{"NameOf16IsNotChecked",
                         WithIndex([] { return DeleteAddress("abcdefghijklmnop", "10.0.0.1", 0); }),
                         "20 00 00 00 15 00 05 00", "02 00 00 00  04 03 02 01", "08 00 02 00 0a 00 00 01"}),
    NameOf<Sent>);

// Family, the two prefix lengths, TOS; table main, protocol static, scope universe, type unicast; flags.
constexpr char kRoute24[] = "02 18 00 00  fe 04 00 01  00 00 00 00";

INSTANTIATE_TEST_SUITE_P(
    Routes, SentRequest,
    testing::Values(Sent{"Add", WithIndex([] { return AddRoute("10.1.2.0", 24, "192.168.1.1", "eth0"); }),
                         "34 00 00 00 18 00 05 06", kRoute24,
                         "08 00 01 00 0a 01 02 00  08 00 05 00 c0 a8 01 01  08 00 04 00 04 03 02 01"},
                    Sent{"AddDefault", WithIndex([] { return AddRoute("0.0.0.0", 0, "192.168.1.1", "eth0"); }),
                         "34 00 00 00 18 00 05 06", "02 00 00 00  fe 04 00 01  00 00 00 00",
                         "08 00 01 00 00 00 00 00  08 00 05 00 c0 a8 01 01  08 00 04 00 04 03 02 01"},
                    Sent{"AddOnLink", WithIndex([] { return AddRoute("10.1.2.0", 255, "0.0.0.0", "eth0"); }),
                         "34 00 00 00 18 00 05 06", "02 ff 00 00  fe 04 00 01  00 00 00 00",
                         "08 00 01 00 0a 01 02 00  08 00 05 00 00 00 00 00  08 00 04 00 04 03 02 01"},
                    Sent{"Delete", WithIndex([] { return DeleteRoute("10.1.2.0", 24, "192.168.1.1", "eth0"); }),
                         "34 00 00 00 19 00 05 00", kRoute24,
                         "08 00 01 00 0a 01 02 00  08 00 05 00 c0 a8 01 01  08 00 04 00 04 03 02 01"},
                    Sent{"DeleteOnLink", WithIndex([] { return DeleteRoute("10.1.2.0", 24, "0.0.0.0", "eth0"); }),
                         "34 00 00 00 19 00 05 00", kRoute24,
                         "08 00 01 00 0a 01 02 00  08 00 05 00 00 00 00 00  08 00 04 00 04 03 02 01"}),
    NameOf<Sent>);

TEST(CreateInterface, SendsALongKindWhole) {
  const CallLog log;
  const Fault send = ReturnFrom("send", 348);
  const Fault reply = GiveFrom("recv", kAcknowledged);

  EXPECT_TRUE(CreateInterface("eth0", std::string(300, 'k')));

  const std::string before = Bytes(std::string("5c 01 00 00 10 00 05 06") + kSequenceAndPort + kClearFlags +
                                   " 08 00 03 00 'eth0'  34 01 12 00  30 01 01 00");
  EXPECT_EQ(Hex(log.Of("send").at(0).data), Hex(before + std::string(300, 'k')));
}

TEST(CreateInterface, SendsTheLongestKindWithTheLongestName) {
  const CallLog log;
  const Fault send = ReturnFrom("send", 4096);
  const Fault reply = GiveFrom("recv", kAcknowledged);

  EXPECT_TRUE(CreateInterface("abcdefghijklmno", std::string(4036, 'k')));

  EXPECT_EQ(log.Of("send").at(0).data.size(), 4096U) << "all that there is room for";
}

TEST(CreateInterface, RefusesAKindThatTheRequestHasNoRoomFor) {
  for (const std::size_t size : {4037U, 4096U, 5000U, 65531U, 65536U, 70000U}) {
    const CallLog log;

    EXPECT_FALSE(CreateInterface("abcdefghijklmno", std::string(size, 'k'))) << size;

    EXPECT_EQ(log.Names(), Names{}) << size;
  }
}

// -------------------------------------------------------------------------------------------- the calls of a request

// Names that no machine has: should a broken request ever reach the kernel, it changes nothing.
constexpr char kName[] = "kiv-none0";

struct Request {
  std::string name;
  std::function<bool()> run;
};

const Request kRequests[] = {
    {"CreateInterface", [] { return CreateInterface(kName, "kiv-none"); }},
    {"DeleteInterface", [] { return DeleteInterface(kName); }},
    {"AddVlan", WithIndex([] { return AddVlan("kiv-none1", 2, kName); })},
    {"SetInterfaceUp", [] { return SetInterfaceUp(kName, true); }},
    {"SetMTU", [] { return SetMTU(kName, 1500); }},
    {"SetMAC", [] { return SetMAC(kName, "00:11:22:33:44:55"); }},
    {"SetMaster", WithIndex([] { return SetMaster(kName, "kiv-none1"); })},
    {"UnsetMaster", [] { return UnsetMaster(kName); }},
    {"MoveInterfaceToNetnsFd", [] { return MoveInterfaceToNetnsFd(kName, -1); }},
    {"SetInterfaceMulticast", [] { return SetInterfaceMulticast(kName, true); }},
    {"SetInterfacePromiscuous", [] { return SetInterfacePromiscuous(kName, true); }},
    {"AssignAddress", [] { return AssignAddress(kName, "10.0.0.1", 24); }},
    {"AssignAddressLabeled", [] { return AssignAddressLabeled(kName, "10.0.0.1", 24, ""); }},
    {"DeleteAddress", WithIndex([] { return DeleteAddress(kName, "10.0.0.1", 24); })},
    {"AddRoute", WithIndex([] { return AddRoute("10.0.0.0", 24, "0.0.0.0", kName); })},
    {"DeleteRoute", WithIndex([] { return DeleteRoute("10.0.0.0", 24, "0.0.0.0", kName); })},
};

// Where a request can fail, and the calls made by then.
struct Step {
  std::string call;
  int error;
  Names calls;
};

const Step kSteps[] = {
    {"socket", EMFILE, {"socket"}},
    {"bind", EADDRINUSE, {"socket", "bind", "close"}},
    {"send", EINTR, {"socket", "bind", "send", "close"}},
    {"send", ENOBUFS, {"socket", "bind", "send", "close"}},
    {"recv", EINTR, {"socket", "bind", "send", "recv", "close"}},
    {"recv", ENOBUFS, {"socket", "bind", "send", "recv", "close"}},
};

// Makes one step of a request fail, and keeps the request from the kernel.
class FailedStep {
 public:
  explicit FailedStep(const Step& step) : mFailure(step.call, -1, step.error, 1) {
    if (step.call == "recv") {
      mSent.emplace("send", 1, 0, 1U);
    }
  }

 private:
  std::optional<Fault> mSent;
  Fault mFailure;
};

// All calls but the look-up of an index.
Names NetlinkCalls(const CallLog& log) {
  Names names = log.Names();
  names.erase(std::remove(names.begin(), names.end(), "if_nametoindex"), names.end());
  return names;
}

class EveryRequest : public testing::TestWithParam<Request> {};

TEST_P(EveryRequest, UsesOneSocketForOneMessageAndOneReply) {
  const std::size_t before = CountOpenFds();
  const int fd = test::NextFd();
  const CallLog log;
  const Fault send = ReturnFrom("send", 1);
  const Fault reply = GiveFrom("recv", kAcknowledged);

  EXPECT_TRUE(GetParam().run());

  ASSERT_EQ(NetlinkCalls(log), (Names{"socket", "bind", "send", "recv", "close"}));
  EXPECT_EQ(log.Of("socket")[0].args, (Args{AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE}));
  EXPECT_EQ(log.Of("bind")[0].args, (Args{fd, 12}));
  EXPECT_EQ(Hex(log.Of("bind")[0].data), Hex(Bytes("10 00 00 00 00 00 00 00 00 00 00 00")));
  const std::string message = log.Of("send")[0].data;
  EXPECT_EQ(log.Of("send")[0].args, (Args{fd, static_cast<unsigned char>(message.at(0)), 0})) << "nlmsg_len octets";
  EXPECT_EQ(log.Of("recv")[0].args, (Args{fd, 4096, 0}));
  EXPECT_EQ(log.Of("close")[0].args, Args{fd});
  EXPECT_EQ(CountOpenFds(), before);
}

TEST_P(EveryRequest, EndsAtTheStepThatFailsAndKeepsItsErrno) {
  for (const Step& step : kSteps) {
    SCOPED_TRACE(step.call + " " + std::to_string(step.error));
    const std::size_t before = CountOpenFds();
    const CallLog log;
    const FailedStep failure(step);

    EXPECT_FALSE(GetParam().run());

    EXPECT_EQ(errno, step.error);
    EXPECT_EQ(NetlinkCalls(log), step.calls);
    EXPECT_EQ(CountOpenFds(), before);
  }
}

TEST_P(EveryRequest, AnEmptyOrRefusingReplyIsAFailure) {
  const std::string refused = Bytes("14 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00  ed ff ff ff");
  for (const std::string& datagram : {std::string(), refused}) {
    const std::size_t before = CountOpenFds();
    const CallLog log;
    const Fault send = ReturnFrom("send", 1);
    const Fault reply = GiveFrom("recv", datagram);

    EXPECT_FALSE(GetParam().run());

    EXPECT_EQ(NetlinkCalls(log), (Names{"socket", "bind", "send", "recv", "close"}));
    EXPECT_EQ(CountOpenFds(), before);
  }
}

INSTANTIATE_TEST_SUITE_P(Netlink, EveryRequest, testing::ValuesIn(kRequests), NameOf<Request>);

TEST(NetlinkRequest, AlignsAttributesBehindAPayloadOfAnySize) {
  const CallLog log;
  const Fault send = ReturnFrom("send", 36);
  const Fault reply = GiveFrom("recv", kAcknowledged);

  EXPECT_TRUE(NetlinkRequest(0x1234, 0x5678, 5, "abcde", [](nlmsghdr& message, std::uint32_t& length) {
    EXPECT_EQ(length, 21U);
    AddAttribute(message, length, 7, "x", 1);
    AddAttribute(message, length, 0x0908, nullptr, 0);
    EXPECT_EQ(length, 36U);
  }));

  const std::string attributes = "05 00 07 00 'x' 00 00 00  04 00 08 09";
  EXPECT_EQ(Hex(log.Of("send").at(0).data),
            Hex(Bytes(std::string("24 00 00 00 34 12 78 56") + kSequenceAndPort + "'abcde' 00 00 00 " + attributes)));
}

TEST(NetlinkRequest, SendsNoMoreThanTheFillerLeaves) {
  const CallLog log;
  const Fault send = ReturnFrom("send", 21);
  const Fault reply = GiveFrom("recv", kAcknowledged);

  EXPECT_TRUE(NetlinkRequest(1, 2, 5, "abcde", [](nlmsghdr&, std::uint32_t&) {}));

  EXPECT_EQ(Hex(log.Of("send").at(0).data),
            Hex(Bytes(std::string("15 00 00 00 01 00 02 00") + kSequenceAndPort + "'abcde'")));
}

TEST(NetlinkRequest, OnlyMinusOneIsAFailedSend) {
  const Fault send = ReturnFrom("send", 0);
  const Fault reply = GiveFrom("recv", kAcknowledged);

  EXPECT_TRUE(DeleteInterface(kName));
}

TEST(NetlinkRequest, EmptyFillerThrowsAndLeavesNoSocket) {
  const std::size_t before = CountOpenFds();
  const CallLog log;

  EXPECT_THROW((void)NetlinkRequest(1, 2, 5, "abcde", nullptr), std::bad_function_call);

  EXPECT_EQ(log.Names(), (Names{"socket", "bind", "close"}));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(NetlinkRequest, FailedCloseHidesNeitherResultNorErrno) {
  const CallLog log;
  {
    const Fault send = ReturnFrom("send", 1);
    const Fault reply = GiveFrom("recv", kAcknowledged);
    const Fault close = FailCall("close", EIO);
    EXPECT_TRUE(SetInterfaceUp(kName, true));
  }
  const FailedStep failure(kSteps[4]);
  const Fault close = FailCall("close", EIO);

  EXPECT_FALSE(SetInterfaceUp(kName, true));

  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(log.Of("close").size(), 2U) << "not repeated";
}

// ---------------------------------------------------------------------------------------------------------- replies

struct Reply {
  std::string name;
  std::string bytes;
  bool expected;
};

class NetlinkReply : public testing::TestWithParam<Reply> {};

TEST_P(NetlinkReply, DecidesTheResult) {
  const CallLog log;
  const Fault send = ReturnFrom("send", 1);
  const Fault reply = GiveFrom("recv", Bytes(GetParam().bytes));

  EXPECT_EQ(SetInterfaceUp(kName, true), GetParam().expected);

  EXPECT_EQ(log.Of("recv").size(), 1U);
}

const std::string kZero = " 14 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00  00 00 00 00 ";
const std::string kNoDevice = " 14 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00  ed ff ff ff ";
const std::string kNoop = " 10 00 00 00 01 00 00 00 01 00 00 00 00 00 00 00 ";
const std::string kNoopOf17 = " 11 00 00 00 01 00 00 00 01 00 00 00 00 00 00 00  ff ";
const std::string kDone = " 14 00 00 00 03 00 02 00 01 00 00 00 00 00 00 00  00 00 00 00 ";

INSTANTIATE_TEST_SUITE_P(
    Netlink, NetlinkReply,
    testing::Values(
        Reply{"ErrorZero", kZero, true}, Reply{"NegativeError", kNoDevice, false},
        Reply{"PositiveError", " 14 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00  01 00 00 00", false},
        Reply{"HighOctetOfTheErrorCounts", " 14 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00  00 00 00 80", false},
        Reply{"AnySequenceFlagsAndPort", "14 00 00 00 02 00 ff ff 63 00 00 00 4d 00 00 00  00 00 00 00", true},
        Reply{"TypeIsOf16Bits", "14 00 00 00 02 01 00 00 01 00 00 00 00 00 00 00  00 00 00 00", false},
        Reply{"SecondMessage", kNoop + kZero, true}, Reply{"SecondMessageNegative", kNoop + kNoDevice, false},
        Reply{"SecondMessageBehindAGap", kNoopOf17 + "ff ff ff" + kZero, true},
        Reply{"ThirdMessage", kNoop + kDone + kZero, true}, Reply{"FirstErrorDecides", kZero + kNoDevice, true},
        Reply{"FirstNegativeErrorDecides", kNoDevice + kZero, false}, Reply{"NoErrorMessage", kNoop, false},
        Reply{"Done", kDone, false}, Reply{"OneOctet", "14", false},
        Reply{"FifteenOctets", "14 00 00 00 02 00 00 00 01 00 00 00 00 00 00", false},
        Reply{"LengthOf15", "0f 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00  00 00 00 00" + kZero, false},
        Reply{"LengthOf0", "00 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00  00 00 00 00" + kZero, false},
        Reply{"LengthBeyondTheDatagram", "15 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00  00 00 00 00", false},
        Reply{"HugeLength", "ff ff ff ff 02 00 00 00 01 00 00 00 00 00 00 00  00 00 00 00", false},
        Reply{"SecondMessageCut", kNoop + "14 00 00 00 02 00 00 00 01 00 00 00 00 00 00 00", false},
        Reply{"LastGapMissing", kNoopOf17, false}, Reply{"Garbage", "de ad be ef de ad be ef de ad be ef", false}),
    NameOf<Reply>);

// --------------------------------------------------------------------------------------------------------- refusals

// What is refused, and the look-ups made by then.
struct Refused {
  std::string name;
  std::function<bool()> run;
  Names calls;
};

class RefusedRequest : public testing::TestWithParam<Refused> {};

TEST_P(RefusedRequest, OpensNoSocket) {
  const CallLog log;

  EXPECT_FALSE(GetParam().run());

  EXPECT_EQ(log.Names(), GetParam().calls);
}

constexpr char kNameOf16[] = "abcdefghijklmnop";

INSTANTIATE_TEST_SUITE_P(
    NameOf16, RefusedRequest,
    testing::Values(Refused{"CreateInterface", [] { return CreateInterface(kNameOf16, "dummy"); }, {}},
                    Refused{"DeleteInterface", [] { return DeleteInterface(kNameOf16); }, {}},
                    Refused{"AddVlan", [] { return AddVlan("eth0", 2, kNameOf16); }, {}},
                    Refused{"SetInterfaceUp", [] { return SetInterfaceUp(kNameOf16, true); }, {}},
                    Refused{"SetInterfaceDown", [] { return SetInterfaceUp(kNameOf16, false); }, {}},
                    Refused{"SetMTU", [] { return SetMTU(kNameOf16, 1500); }, {}},
                    Refused{"SetMAC", [] { return SetMAC(kNameOf16, "00:11:22:33:44:55"); }, {}},
                    Refused{"SetMACBothBad", [] { return SetMAC(kNameOf16, "00:11:22:33:44:5g"); }, {}},
                    Refused{"SetMaster", [] { return SetMaster(kNameOf16, "br0"); }, {}},
                    Refused{"UnsetMaster", [] { return UnsetMaster(kNameOf16); }, {}},
                    Refused{"MoveInterfaceToNetnsFd", [] { return MoveInterfaceToNetnsFd(kNameOf16, 0); }, {}},
                    Refused{"SetInterfaceMulticast", [] { return SetInterfaceMulticast(kNameOf16, true); }, {}},
                    Refused{"SetInterfacePromiscuous", [] { return SetInterfacePromiscuous(kNameOf16, true); }, {}},
                    Refused{"AssignAddress", [] { return AssignAddress(kNameOf16, "10.0.0.1", 24); }, {}},
                    Refused{"AssignAddressLabeled", AssignsLabeled(kNameOf16, ""), {}}),
    NameOf<Refused>);

INSTANTIATE_TEST_SUITE_P(
    UnknownInterface, RefusedRequest,
    testing::Values(
        Refused{"AddVlan", WithoutIndex([] { return AddVlan("eth0", 2, "v"); }), {"if_nametoindex"}},
        Refused{"SetMaster", WithoutIndex([] { return SetMaster("eth0", "br0"); }), {"if_nametoindex"}},
        Refused{"DeleteAddress", WithoutIndex([] { return DeleteAddress("e", "10.0.0.1", 24); }), {"if_nametoindex"}},
        Refused{"AddRoute", WithoutIndex([] { return AddRoute("10.0.0.0", 8, "0.0.0.0", "e"); }), {"if_nametoindex"}},
        Refused{"DeleteRoute",
                WithoutIndex([] { return DeleteRoute("10.0.0.0", 8, "0.0.0.0", "e"); }),
                {"if_nametoindex"}}),
    NameOf<Refused>);

INSTANTIATE_TEST_SUITE_P(Label, RefusedRequest,
                         testing::Values(Refused{"TheNameItself", AssignsLabeled("eth0", "eth0"), {}},
                                         Refused{"ShorterThanTheName", AssignsLabeled("eth0", "eth"), {}},
                                         Refused{"OfAnotherInterface", AssignsLabeled("eth0", "eth1:1"), {}},
                                         Refused{"OfALongerName", AssignsLabeled("eth0", "eth01:1"), {}},
                                         Refused{"OtherSeparator", AssignsLabeled("eth0", "eth0.1"), {}},
                                         Refused{"Of16", AssignsLabeled("eth0", "eth0:backup-abcd"), {}},
                                         Refused{
                                             "OfANameOf15", AssignsLabeled("abcdefghijklmno", "abcdefghijklmno:"), {}},
                                         Refused{"EmptyName", AssignsLabeled("", ""), {}},
                                         Refused{"EmptyNameWithLabel", AssignsLabeled("", ":1"), {}}),
                         NameOf<Refused>);

TEST(NetlinkRequest, AddressesThatAreNotIPv4AreRefusedBeforeAnythingIsAsked) {
  for (const std::string text : {"", "10.0.0", "10.0.0.256", "10.0.0.1.2", "10.0.0.1 ", "10.0.0.1/24", "010.0.0.1",
                                 "::1", "::ffff:10.0.0.1", "0x0a000001", "host"}) {
    SCOPED_TRACE(text);
    const CallLog log;

    EXPECT_FALSE(AssignAddress("eth0", text, 24));
    EXPECT_FALSE(AssignAddressLabeled("eth0", text, 24, "eth0:1"));
    EXPECT_FALSE(DeleteAddress("eth0", text, 24));
    EXPECT_FALSE(AddRoute(text, 24, "10.0.0.1", "eth0"));
    EXPECT_FALSE(AddRoute("10.1.0.0", 24, text, "eth0"));
    EXPECT_FALSE(DeleteRoute(text, 24, "10.0.0.1", "eth0"));
    EXPECT_FALSE(DeleteRoute("10.1.0.0", 24, text, "eth0"));

    EXPECT_EQ(log.Names(), Names{});
  }
}

TEST(SetMAC, RefusesEveryOtherForm) {
  const CallLog log;
  for (const std::string& text :
       {std::string(), std::string("00-11-22-33-44-55"), std::string("00.11.22.33.44.55"),
        std::string("00 11 22 33 44 55"), std::string("0:11:22:33:44:55"), std::string("00:11:22:33:44:5"),
        std::string("00:11:22:33:44:555"), std::string("00:11:22:33:44:55 "), std::string("00:11:22:33:44:5g"),
        std::string("00:11:22:33:44:5 "), std::string("0x:11:22:33:44:55"), std::string("-1:11:22:33:44:55"),
        std::string("  :11:22:33:44:55"), std::string("00:11:22:33:44:5\0", 17), std::string("001122334455"),
        std::string("00:11:22:33:44:55:66")}) {
    EXPECT_FALSE(SetMAC(kName, text)) << text;
  }
  EXPECT_EQ(log.Names(), Names{});
}

TEST(SetMAC, ChecksEveryPosition) {
  const CallLog log;
  for (std::size_t i = 0; i < 17; ++i) {
    std::string text = "00:11:22:33:44:55";
    text[i] = text[i] == ':' ? '-' : 'g';
    EXPECT_FALSE(SetMAC(kName, text)) << text;
  }
  EXPECT_EQ(log.Names(), Names{});
}

// ---------------------------------------------------------------------------------------------------------- look-ups

TEST(NetlinkRequest, AsksForTheIndexOfTheOtherInterface) {
  const CallLog log;

  EXPECT_FALSE(WithoutIndex([] { return AddVlan("parent", 2, "v"); })());
  EXPECT_EQ(errno, ENODEV);
  EXPECT_FALSE(WithoutIndex([] { return SetMaster("eth0", "master"); })());
  EXPECT_FALSE(WithoutIndex([] { return DeleteAddress("abcdefghijklmnop", "10.0.0.1", 24); })());
  EXPECT_FALSE(WithoutIndex([] { return AddRoute("10.0.0.0", 8, "0.0.0.0", "sixteen-bytes-na"); })());
  EXPECT_FALSE(WithoutIndex([] { return DeleteRoute("10.0.0.0", 8, "0.0.0.0", ""); })());

  Names asked;
  for (const test::CallRecord& call : log.Of("if_nametoindex")) {
    asked.push_back(call.data);
  }
  EXPECT_EQ(asked, (Names{"parent", "master", "abcdefghijklmnop", "sixteen-bytes-na", ""}));
}

TEST(GetInterfaceIndex, PassesNameAndResultThrough) {
  for (const std::string name : {"eth0", "", "abcdefghijklmnop"}) {
    const CallLog log;
    const Fault found = ReturnFrom("if_nametoindex", 0xFFFFFFFF);

    EXPECT_EQ(GetInterfaceIndex(name), 0xFFFFFFFF);

    ASSERT_EQ(log.Names(), Names{"if_nametoindex"});
    EXPECT_EQ(log.Of("if_nametoindex")[0].data, name);
  }
}

TEST(GetInterfaceIndex, IsZeroWithErrnoOfTheLookUp) {
  const Fault fault = FailCall("if_nametoindex", ENODEV);

  EXPECT_EQ(GetInterfaceIndex("lo"), 0U);

  EXPECT_EQ(errno, ENODEV);
}

TEST(InterfaceExists, AsksSysForTheNameAsItStands) {
  for (const std::string name : {"eth0", "", "eth0/mtu", "../..", "abcdefghijklmnopqrstuvwxyz"}) {
    for (const bool exists : {true, false}) {
      const CallLog log;
      const Fault answer = exists ? ReturnFrom("access", 0) : FailCall("access", ENOENT);

      EXPECT_EQ(InterfaceExists(name), exists);

      ASSERT_EQ(log.Names(), Names{"access"});
      EXPECT_EQ(log.Of("access")[0].args, Args{F_OK});
      EXPECT_EQ(log.Of("access")[0].data, "/sys/class/net/" + name);
    }
  }
}

// ------------------------------------------------------------------------------------------------ network namespaces

TEST(MoveInterfaceToNetns, OpensTheNamespaceFileOfTheProcessForReading) {
  const std::pair<int, std::string> cases[] = {
      {1234, "/proc/1234/ns/net"},
      {0, "/proc/0/ns/net"},
      {-1, "/proc/-1/ns/net"},
      {INT_MAX, "/proc/2147483647/ns/net"},
      {INT_MIN, "/proc/-2147483648/ns/net"},
  };
  for (const auto& [pid, path] : cases) {
    const CallLog log;
    const Fault fault = FailCall("open", ENOENT);

    EXPECT_FALSE(MoveInterfaceToNetns(kName, pid));

    EXPECT_EQ(errno, ENOENT);
    ASSERT_EQ(log.Names(), Names{"open"}) << "no socket";
    EXPECT_EQ(log.Of("open")[0].data, path);
    EXPECT_EQ(log.Of("open")[0].args[0], O_RDONLY | O_CLOEXEC);
  }
}

TEST(MoveInterfaceToNetns, SendsTheDescriptorAndClosesIt) {
  const std::size_t before = CountOpenFds();
  const int fd = test::EventFd(0).Release();
  const CallLog log;
  const Fault opened = ReturnFrom("open", fd);
  const Fault send = ReturnFrom("send", 48);
  const Fault reply = GiveFrom("recv", kAcknowledged);

  EXPECT_TRUE(MoveInterfaceToNetns("eth0", 1234));

  ASSERT_EQ(log.Names(), (Names{"open", "socket", "bind", "send", "recv", "close", "close"}));
  EXPECT_EQ(log.Of("close")[1].args, Args{fd}) << "only when the kernel has it";
  const std::string expected =
      Bytes(std::string("30 00 00 00 10 00 05 00") + kSequenceAndPort + kNoFlags + " 08 00 03 00 'eth0'  08 00 1c 00");
  ASSERT_LT(fd, 256);
  EXPECT_EQ(Hex(log.Of("send")[0].data), Hex(expected + static_cast<char>(fd) + std::string(3, '\0')));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(MoveInterfaceToNetns, ClosesTheDescriptorWhereverTheRequestFails) {
  for (const Step& step : kSteps) {
    SCOPED_TRACE(step.call);
    const std::size_t before = CountOpenFds();
    const Fault opened = ReturnFrom("open", test::EventFd(0).Release());
    const CallLog log;
    const FailedStep failure(step);

    EXPECT_FALSE(MoveInterfaceToNetns(kName, 1234));

    EXPECT_EQ(errno, step.error);
    Names calls = step.calls;
    calls.insert(calls.begin(), "open");
    calls.push_back("close");
    EXPECT_EQ(log.Names(), calls);
    EXPECT_EQ(CountOpenFds(), before);
  }
}

TEST(MoveInterfaceToNetns, ClosesTheDescriptorWhenTheKernelRefuses) {
  const std::size_t before = CountOpenFds();
  const Fault opened = ReturnFrom("open", test::EventFd(0).Release());
  const Fault send = ReturnFrom("send", 1);
  const Fault reply = GiveFrom("recv", Bytes(kNoDevice));

  EXPECT_FALSE(MoveInterfaceToNetns(kName, 1234));

  EXPECT_EQ(CountOpenFds(), before);
}

TEST(MoveInterfaceToNetns, ClosesTheDescriptorWhenTheNameIsTooLong) {
  const std::size_t before = CountOpenFds();
  const Fault opened = ReturnFrom("open", test::EventFd(0).Release());
  const CallLog log;

  EXPECT_FALSE(MoveInterfaceToNetns(kNameOf16, 1234));

  EXPECT_EQ(log.Names(), (Names{"open", "close"})) << "the file comes first, and no socket";
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(MoveInterfaceToNetnsFd, LeavesTheCallersDescriptorOpen) {
  const UniqueFd fd = test::EventFd(0);
  for (const std::string& datagram : {kAcknowledged, Bytes(kNoDevice)}) {
    const Fault send = ReturnFrom("send", 1);
    const Fault reply = GiveFrom("recv", datagram);
    (void)MoveInterfaceToNetnsFd(kName, fd.Get());
    EXPECT_TRUE(test::IsOpen(fd.Get()));
  }
  for (const Step& step : kSteps) {
    const FailedStep failure(step);
    EXPECT_FALSE(MoveInterfaceToNetnsFd(kName, fd.Get()));
    EXPECT_TRUE(test::IsOpen(fd.Get())) << step.call;
  }
  EXPECT_FALSE(MoveInterfaceToNetnsFd(kNameOf16, fd.Get()));
  EXPECT_TRUE(test::IsOpen(fd.Get()));
}

// ------------------------------------------------------------------------------------------------------------- dumps

// Stands for the kernel: takes the request of a dump and answers with these datagrams, every one of which has to be
// read. What is read behind them is an end of file.
class Dump {
 public:
  explicit Dump(const std::vector<std::string>& datagrams)
      : mSocket(ReturnFrom("socket", test::SocketPair().first.Release())), mSent(ReturnFrom("send", 17)) {
    unsigned nth = 0;
    for (const std::string& datagram : datagrams) {
      const std::string bytes = Bytes(datagram);
      mReplies.emplace_back("recv", static_cast<long long>(bytes.size()), 0, ++nth, bytes);
    }
  }

 private:
  Fault mSocket;
  Fault mSent;
  std::list<Fault> mReplies;
};

const std::string kRouteBy7 =
    " 34 00 00 00 18 00 02 00 01 00 00 00 00 00 00 00  02 18 00 00 fe 04 00 01 00 00 00 00 "
    " 08 00 01 00 0a 01 02 00  08 00 05 00 c0 a8 01 01  08 00 04 00 07 00 00 00 ";
const std::string kAddressOf7 =
    " 20 00 00 00 14 00 02 00 01 00 00 00 00 00 00 00  02 18 80 00 07 00 00 00  08 00 02 00 0a 00 00 01 ";

struct Reader {
  std::string name;
  std::function<std::size_t()> count;  // Reads, and returns the number of records.
  std::string record;                  // One message that gives a record, of interface 7.
  Args socket;
  std::string request;
};

class EveryDump : public testing::TestWithParam<Reader> {
 protected:
  std::size_t Count() const { return GetParam().count(); }
  const std::string& Record() const { return GetParam().record; }
};

TEST_P(EveryDump, SendsOneRequestUnboundAndReadsToItsEnd) {
  const std::size_t before = CountOpenFds();
  const int fd = test::NextFd();
  const Dump dump({kDone});
  const CallLog log;

  EXPECT_EQ(Count(), 0U);

  ASSERT_EQ(log.Names(), (Names{"socket", "send", "recv", "close"}));
  EXPECT_EQ(log.Of("socket")[0].args, GetParam().socket);
  EXPECT_EQ(log.Of("send")[0].args, (Args{fd, 17, 0}));
  EXPECT_EQ(Hex(log.Of("send")[0].data), Hex(Bytes(GetParam().request)));
  EXPECT_EQ(log.Of("recv")[0].args, (Args{fd, 8192, 0}));
  EXPECT_EQ(log.Of("close")[0].args, Args{fd});
  EXPECT_EQ(CountOpenFds(), before);
}

TEST_P(EveryDump, FailedSocketGivesNothing) {
  const CallLog log;
  const Fault fault = FailCall("socket", EMFILE);

  EXPECT_EQ(Count(), 0U);

  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(log.Names(), Names{"socket"});
}

TEST_P(EveryDump, FailedSendGivesNothing) {
  for (const int error : {EINTR, ENOBUFS}) {
    const std::size_t before = CountOpenFds();
    const CallLog log;
    const Fault fault = FailCall("send", error);

    EXPECT_EQ(Count(), 0U);

    EXPECT_EQ(errno, error);
    EXPECT_EQ(log.Names(), (Names{"socket", "send", "close"}));
    EXPECT_EQ(CountOpenFds(), before);
  }
}

TEST_P(EveryDump, FailedReceiveGivesWhatCameBefore) {
  for (const int error : {EINTR, ENOBUFS}) {
    const std::size_t before = CountOpenFds();
    const Dump dump({Record() + Record()});
    const CallLog log;
    const Fault name = GiveFrom("if_indextoname", "eth0");
    const Fault fault = FailCall("recv", error, 2);

    EXPECT_EQ(Count(), 2U);

    EXPECT_EQ(errno, error);
    EXPECT_EQ(log.Of("recv").size(), 2U) << "not retried";
    EXPECT_EQ(CountOpenFds(), before);
  }
}

TEST_P(EveryDump, EmptyReceiveGivesWhatCameBefore) {
  const std::size_t before = CountOpenFds();
  const Dump dump({Record(), ""});
  const CallLog log;
  const Fault name = GiveFrom("if_indextoname", "eth0");

  EXPECT_EQ(Count(), 1U);

  EXPECT_EQ(log.Of("recv").size(), 2U);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST_P(EveryDump, GathersOverSeveralDatagramsUntilDone) {
  const Dump dump({Record() + Record(), Record(), kNoop + Record(), Record() + kDone + Record()});
  const CallLog log;
  const Fault name = GiveFrom("if_indextoname", "eth0");

  EXPECT_EQ(Count(), 5U);

  EXPECT_EQ(log.Of("recv").size(), 4U);
}

TEST_P(EveryDump, IgnoresDatagramsThatStartWithNoMessage) {
  const std::string body = " 03 00 02 00 01 00 00 00 00 00 00 00  00 00 00 00 ";
  const Dump dump({"01", "14 00 00 00 03 00 02 00 01 00 00 00 00 00 00", "0f 00 00 00" + body + Record(),
                   "15 00 00 00" + body, "ff ff ff ff" + body, Record(), kDone});
  const Fault name = GiveFrom("if_indextoname", "eth0");

  EXPECT_EQ(Count(), 1U);
}

TEST_P(EveryDump, ReadsOnWhenAMessageInTheMiddleIsUnusable) {
  const Dump dump({Record() + "0f 00 00 00 03 00 02 00 01 00 00 00 00 00 00 00" + Record(), Record(), kDone});
  const Fault name = GiveFrom("if_indextoname", "eth0");

  EXPECT_EQ(Count(), 2U);
}

TEST_P(EveryDump, ErrorZeroIsSkipped) {
  const Dump dump({kZero + Record() + kZero + Record(), kZero, kDone});
  const Fault name = GiveFrom("if_indextoname", "eth0");

  EXPECT_EQ(Count(), 2U);
}

TEST_P(EveryDump, AnyOtherErrorEndsIt) {
  const std::size_t before = CountOpenFds();
  const Dump dump({Record() + kNoDevice + Record()});
  const CallLog log;
  const Fault name = GiveFrom("if_indextoname", "eth0");

  EXPECT_EQ(Count(), 1U);

  EXPECT_EQ(log.Of("recv").size(), 1U);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST_P(EveryDump, SkipsMessagesOfOtherFamiliesAndTypes) {
  std::string otherFamily = Record();
  otherFamily.replace(otherFamily.find("  02 18"), 7, "  0a 18");
  std::string otherType = Record();
  otherType.replace(otherType.find(" 00 00 00 "), 13, " 00 00 00 10 ");
  const Dump dump({otherFamily + otherType + kDone});

  EXPECT_EQ(Count(), 0U);
}

INSTANTIATE_TEST_SUITE_P(Netlink, EveryDump,
                         testing::Values(Reader{"GetRoutes",
                                                [] { return GetRoutes(AF_INET).size(); },
                                                kRouteBy7,
                                                {AF_NETLINK, SOCK_RAW | SOCK_CLOEXEC, NETLINK_ROUTE},
                                                "11 00 00 00 1a 00 01 03 01 00 00 00 00 00 00 00  02"},
                                         Reader{"GetInterfaceAddresses",
                                                [] { return GetInterfaceAddresses("eth0").size(); },
                                                kAddressOf7,
                                                {AF_NETLINK, SOCK_RAW, NETLINK_ROUTE},
                                                "11 00 00 00 16 00 01 03 01 00 00 00 00 00 00 00  02"}),
                         NameOf<Reader>);

TEST(GetRoutes, AsksForTheFamilyAsGiven) {
  for (const int family : {0, 2, 10, 255}) {
    const Dump dump({kDone});
    const CallLog log;

    EXPECT_EQ(GetRoutes(static_cast<unsigned char>(family)).size(), 0U);

    EXPECT_EQ(log.Of("send").at(0).data,
              Bytes("11 00 00 00 1a 00 01 03 01 00 00 00 00 00 00 00") + static_cast<char>(family));
  }
}

TEST(GetRoutes, ReturnsIPv4RoutesWhateverTheFamily) {
  const Dump dump({kRouteBy7 + kDone});
  const Fault name = GiveFrom("if_indextoname", "eth0");

  EXPECT_EQ(GetRoutes(AF_INET6).size(), 1U);
}

// A route without destination and gateway by an interface, and one by no interface.
std::string RouteBy(const std::string& index) {
  return " 24 00 00 00 18 00 02 00 01 00 00 00 00 00 00 00  02 00 00 00 fe 04 00 01 00 00 00 00  08 00 04 00 " + index;
}
const std::string kRouteByNone =
    " 1c 00 00 00 18 00 02 00 01 00 00 00 00 00 00 00  02 00 00 00 fe 04 00 01 00 00 00 00 ";

Names InterfacesOf(const std::vector<RouteEntry>& routes) {
  Names names;
  for (const RouteEntry& route : routes) {
    names.push_back(route.iface);
  }
  return names;
}

TEST(GetRoutes, AsksForEveryNameOnce) {
  std::string many;
  for (int i = 0; i < 100; ++i) {
    many += RouteBy("07 00 00 00") + RouteBy("04 03 02 01");
  }
  const Dump dump({many, many, kDone});
  const CallLog log;
  const Fault first = GiveFrom("if_indextoname", "eth0", 1);
  const Fault second = GiveFrom("if_indextoname", "abcdefghijklmno", 2);

  const Names names = InterfacesOf(GetRoutes(AF_INET));

  ASSERT_EQ(names.size(), 400U);
  EXPECT_EQ(std::count(names.begin(), names.end(), "eth0"), 200);
  EXPECT_EQ(std::count(names.begin(), names.end(), "abcdefghijklmno"), 200);
  ASSERT_EQ(log.Of("if_indextoname").size(), 2U);
  EXPECT_EQ(log.Of("if_indextoname")[0].args, Args{7});
  EXPECT_EQ(log.Of("if_indextoname")[1].args, Args{kIndex});
}

TEST(GetRoutes, RemembersNoNameBeyondTheCall) {
  for (const std::string name : {"eth0", "eth1"}) {
    const Dump dump({RouteBy("07 00 00 00") + kDone});
    const Fault answer = GiveFrom("if_indextoname", name);

    EXPECT_EQ(InterfacesOf(GetRoutes(AF_INET)), Names{name});
  }
}

TEST(GetRoutes, UnknownNameIsEmptyAndAskedForAgain) {
  const Dump dump({RouteBy("07 00 00 00") + RouteBy("07 00 00 00") + RouteBy("07 00 00 00") + kDone});
  const CallLog log;
  const Fault fault = FailCall("if_indextoname", ENXIO, 1);
  const Fault name = GiveFrom("if_indextoname", "eth0", 2);

  EXPECT_EQ(InterfacesOf(GetRoutes(AF_INET)), (Names{"", "eth0", "eth0"}));

  EXPECT_EQ(log.Of("if_indextoname").size(), 2U);
}

TEST(GetRoutes, NeverAsksForIndexZero) {
  const Dump dump({RouteBy("00 00 00 00") + kRouteByNone + kDone});
  const CallLog log;

  EXPECT_EQ(InterfacesOf(GetRoutes(AF_INET)), (Names{"", ""}));

  EXPECT_EQ(log.Of("if_indextoname").size(), 0U);
}

TEST(GetRoutes, TakesTheTableFromTheHeaderAndTheLastOfEveryAttribute) {
  // Table 254, protocol 2, type 3; table attribute 1000; a gateway of zero after another one.
  const Dump dump(
      {" 3c 00 00 00 18 00 02 00 01 00 00 00 00 00 00 00  02 00 00 00 fe 02 00 03 00 00 00 00 "
       " 08 00 0f 00 e8 03 00 00  08 00 05 00 0a 00 00 09  08 00 05 00 00 00 00 00  08 00 01 00 0a 01 00 00" +
       kDone});

  const std::vector<RouteEntry> routes = GetRoutes(AF_INET);

  ASSERT_EQ(routes.size(), 1U);
  EXPECT_EQ(routes[0].destination, "10.1.0.0");
  EXPECT_EQ(routes[0].gateway, "");
  EXPECT_EQ(routes[0].iface, "");
  EXPECT_EQ(routes[0].table, 254U);
  EXPECT_EQ(routes[0].protocol, 2);
  EXPECT_EQ(routes[0].type, 3);
}

TEST(GetRoutes, DestinationThatCannotBeFormattedIsZero) {
  const Dump dump({kRouteBy7 + kDone});
  const Fault name = GiveFrom("if_indextoname", "eth0");
  const Fault fault = FailCall("inet_ntop", ENOSPC);

  const std::vector<RouteEntry> routes = GetRoutes(AF_INET);

  ASSERT_EQ(routes.size(), 1U);
  EXPECT_EQ(routes[0].destination, "0.0.0.0");
  EXPECT_EQ(routes[0].gateway, "192.168.1.1");
}

TEST(GetInterfaceAddresses, TakesWhicheverAddressComesFirst) {
  // A primary address with IFA_ADDRESS before IFA_LOCAL, and a secondary one the other way round.
  const Dump dump(
      {" 28 00 00 00 14 00 02 00 01 00 00 00 00 00 00 00  02 18 80 00 07 00 00 00 "
       " 08 00 01 00 0a 00 00 01  08 00 02 00 0a 00 00 02 "
       " 28 00 00 00 14 00 02 00 01 00 00 00 00 00 00 00  02 10 81 00 07 00 00 00 "
       " 08 00 02 00 0a 00 00 03  08 00 01 00 0a 00 00 04 " +
       kDone});
  const Fault name = GiveFrom("if_indextoname", "eth0");

  const std::vector<InterfaceAddress> addresses = GetInterfaceAddresses("eth0");

  ASSERT_EQ(addresses.size(), 2U);
  EXPECT_EQ(addresses[0].address, "10.0.0.1");
  EXPECT_EQ(addresses[0].prefixLength, 24);
  EXPECT_FALSE(addresses[0].secondary);
  EXPECT_EQ(addresses[1].address, "10.0.0.3");
  EXPECT_EQ(addresses[1].prefixLength, 16);
  EXPECT_TRUE(addresses[1].secondary);
}

TEST(GetInterfaceAddresses, TakesTheInterfaceOfExactlyThisName) {
  for (const std::string name : {"eth", "eth01", "ETH0", "eth0:1"}) {
    const Dump dump({kAddressOf7 + kDone});
    const Fault answer = GiveFrom("if_indextoname", name);

    EXPECT_EQ(GetInterfaceAddresses("eth0").size(), 0U) << name;
  }
}

TEST(GetInterfaceAddresses, InterfaceWithoutANameGivesNoRecord) {
  for (const std::string iface : {"eth0", ""}) {
    const Dump dump({kAddressOf7 + kDone});
    std::optional<Fault> fault;
    if (!iface.empty()) {
      fault.emplace("if_indextoname", 0, ENXIO, 1U);
    }

    EXPECT_EQ(GetInterfaceAddresses(iface).size(), 0U);
  }
}

TEST(GetInterfaceAddresses, AddressThatCannotBeFormattedGivesNoRecord) {
  const Dump dump({kAddressOf7 +
                   " 28 00 00 00 14 00 02 00 01 00 00 00 00 00 00 00  02 18 80 00 07 00 00 00 "
                   " 08 00 01 00 0a 00 00 01  08 00 02 00 0a 00 00 02 " +
                   kDone});
  const Fault name = GiveFrom("if_indextoname", "eth0");
  const Fault fault = FailCall("inet_ntop", ENOSPC, 2);

  EXPECT_EQ(GetInterfaceAddresses("eth0").size(), 1U) << "the second attribute does not stand in for the first";
}

}  // namespace
}  // namespace kiv::net
