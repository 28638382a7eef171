#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <kiv/net.h>
#include <kiv/utils.h>
#include <net/if.h>
#include <sched.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "interpose.h"
#include "tests/support.h"

namespace kiv {
namespace {

using internal::UniqueFd;
using test::CallLog;
using test::CallRecord;
using test::CountOpenFds;
using test::Decode;
using test::FailCall;
using test::Fault;
using test::GiveFrom;
using test::InterfaceList;
using test::ListedInterface;
using test::ReturnFrom;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

// A name that no machine has, so that nothing is known of it but what a test says.
constexpr char kName[] = "kiv-none0";

// ------------------------------------------------------------------------------------------------------- UpdateFlags

std::string WithFlags(short flags) {
  ifreq request{};
  request.ifr_flags = flags;
  return {reinterpret_cast<const char*>(&request), sizeof request};
}

TEST(IfaceUpdateFlags, AsksDescriptorOneThoughTheSocketIsAnother) {
  const std::size_t before = CountOpenFds();
  const int fd = test::NextFd();
  net::Iface iface(kName, "10.0.0.1");
  const CallLog log;
  const Fault answer = GiveFrom("ioctl", WithFlags(IFF_UP | IFF_RUNNING));

  EXPECT_EQ(iface.UpdateFlags(), 0);

  ASSERT_EQ(log.Names(), (Names{"socket", "ioctl", "close"}));
  EXPECT_EQ(log.Of("socket")[0].args, (Args{AF_INET, SOCK_DGRAM, 0}));
  EXPECT_EQ(log.Of("ioctl")[0].args, (Args{1, SIOCGIFFLAGS}));
  EXPECT_EQ(log.Of("close")[0].args, Args{fd});
  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_TRUE(iface.IsFlagsSet(IFF_UP | IFF_RUNNING));
  EXPECT_FALSE(iface.IsFlagsSet(IFF_LOOPBACK));
}

TEST(IfaceUpdateFlags, AsksDescriptorZeroWithoutASocket) {
  net::Iface iface(kName, "10.0.0.1");
  const CallLog log;
  const Fault fault = FailCall("socket", EMFILE);
  const Fault answer = GiveFrom("ioctl", WithFlags(IFF_UP));

  EXPECT_EQ(iface.UpdateFlags(), -1);

  ASSERT_EQ(log.Names(), (Names{"socket", "ioctl"})) << "nothing to close";
  EXPECT_EQ(log.Of("ioctl")[0].args, (Args{0, SIOCGIFFLAGS}));
  EXPECT_TRUE(iface.IsFlagsSet(IFF_UP)) << "what it answers counts all the same";
}

TEST(IfaceUpdateFlags, SocketOfNumberZeroIsOne) {
  const UniqueFd input(::dup(STDIN_FILENO));
  net::Iface iface(kName, "10.0.0.1");
  const CallLog log;
  const Fault socket = ReturnFrom("socket", 0);
  const Fault answer = GiveFrom("ioctl", WithFlags(0));

  (void)iface.UpdateFlags();

  EXPECT_EQ(log.Of("ioctl").at(0).args, (Args{1, SIOCGIFFLAGS}));
  EXPECT_EQ(log.Of("close").size(), 1U);
  (void)::dup2(input.Get(), STDIN_FILENO);
}

TEST(IfaceUpdateFlags, NamesTheInterfaceInAtMost15Bytes) {
  const std::pair<std::string, std::string> cases[] = {
      {"", ""},
      {"a", "a"},
      {"eth0:1", "eth0:1"},
      {"abcdefghijklmno", "abcdefghijklmno"},
      {"abcdefghijklmnop", "abcdefghijklmno"},
      {std::string(300, 'x'), "xxxxxxxxxxxxxxx"},
  };
  for (const auto& [name, sent] : cases) {
    net::Iface iface(name, "10.0.0.1", "", IFF_UP);
    const CallLog log;
    const Fault answer = GiveFrom("ioctl", WithFlags(0));

    EXPECT_EQ(iface.UpdateFlags(), 0);

    std::string request = sent;
    request.resize(sizeof(ifreq));
    EXPECT_EQ(log.Of("ioctl").at(0).data, request) << "and zeros behind it";
    EXPECT_EQ(iface.GetName(), name);
  }
}

TEST(IfaceUpdateFlags, ExtendsTheSignOf16Bits) {
  net::Iface iface(kName, "10.0.0.1");
  {
    const Fault answer = GiveFrom("ioctl", WithFlags(static_cast<short>(-32767)));
    EXPECT_EQ(iface.UpdateFlags(), 0);
  }
  EXPECT_TRUE(iface.IsFlagsSet(-32767)) << "0xFFFF8001";
  EXPECT_FALSE(iface.IsFlagsSet(IFF_BROADCAST));
  const Fault answer = GiveFrom("ioctl", WithFlags(0x7FFF));

  EXPECT_EQ(iface.UpdateFlags(), 0);

  EXPECT_TRUE(iface.IsFlagsSet(0x7FFF));
  EXPECT_FALSE(iface.IsFlagsSet(0x8000));
  EXPECT_FALSE(iface.IsFlagsSet(INT_MIN));
}

TEST(IfaceUpdateFlags, FailedQueryClearsTheFlags) {
  for (const int error : {ENOTTY, ENODEV, EBADF, EINTR}) {
    const std::size_t before = CountOpenFds();
    net::Iface iface(kName, "10.0.0.1", "", IFF_UP | IFF_RUNNING);
    const CallLog log;
    const Fault fault = FailCall("ioctl", error);

    EXPECT_EQ(iface.UpdateFlags(), 0) << "closing the socket succeeded";

    EXPECT_EQ(log.Names(), (Names{"socket", "ioctl", "close"})) << "not repeated";
    for (int bit = 1; bit != 0x10000; bit *= 2) {
      EXPECT_FALSE(iface.IsFlagsSet(bit));
    }
    EXPECT_EQ(CountOpenFds(), before);
  }
}

TEST(IfaceUpdateFlags, FailedSocketAndQueryClearTheFlags) {
  net::Iface iface(kName, "10.0.0.1", "", IFF_UP);
  const Fault socket = FailCall("socket", EMFILE);
  const Fault query = FailCall("ioctl", ENOTTY);

  EXPECT_EQ(iface.UpdateFlags(), -1);

  EXPECT_FALSE(iface.IsFlagsSet(IFF_UP));
}

TEST(IfaceUpdateFlags, ReturnsWhatClosingTheSocketReturned) {
  const std::size_t before = CountOpenFds();
  net::Iface iface(kName, "10.0.0.1");
  const CallLog log;
  const Fault answer = GiveFrom("ioctl", WithFlags(IFF_UP));
  const Fault fault = FailCall("close", EIO);

  EXPECT_EQ(iface.UpdateFlags(), -1);

  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(log.Of("close").size(), 1U);
  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_TRUE(iface.IsFlagsSet(IFF_UP));
}

TEST(IfaceUpdateFlags, LeavesTheOtherFieldsAlone) {
  net::Iface iface(kName, "10.0.0.1", "00:11:22:33:44:55", 0);
  const Fault answer = GiveFrom("ioctl", WithFlags(IFF_UP));

  EXPECT_EQ(iface.UpdateFlags(), 0);

  EXPECT_EQ(iface.GetName(), kName);
  EXPECT_EQ(iface.GetAddress(), "10.0.0.1");
  EXPECT_EQ(iface.GetMAC(), "00:11:22:33:44:55");
}

// ---------------------------------------------------------------------------------------------------------- GetIfaces

ListedInterface Listed(const std::string& name, unsigned int flags, unsigned char lastOctet) {
  sockaddr_in address = test::Loopback(0);
  address.sin_addr.s_addr = htonl(0x0A000000U | lastOctet);
  return {name, flags, address};
}

ListedInterface OfFamily(const std::string& name, sa_family_t family) {
  ListedInterface listed = Listed(name, IFF_UP, 9);
  listed.address->sin_family = family;
  return listed;
}

Names NamesOf(const std::vector<net::Iface>& ifaces) {
  Names names;
  for (const net::Iface& iface : ifaces) {
    names.push_back(iface.GetName());
  }
  return names;
}

TEST(GetIfaces, FailedListGivesNothingAndFreesNothing) {
  for (const int error : {EINTR, ENOMEM}) {
    const CallLog log;
    const Fault fault = FailCall("getifaddrs", error);

    EXPECT_EQ(net::GetIfaces(0, 0).size(), 0U);

    EXPECT_EQ(errno, error);
    EXPECT_EQ(log.Names(), Names{"getifaddrs"});
  }
}

TEST(GetIfaces, MakesOneRecordPerIPv4AddressInTheOrderOfTheList) {
  const InterfaceList list({Listed("kiv-b", IFF_UP, 1), Listed("kiv-a", IFF_UP | IFF_RUNNING, 2),
                            Listed("kiv-b", IFF_UP, 3), Listed("kiv-a:1", IFF_LOOPBACK, 4)});
  const CallLog log;

  const std::vector<net::Iface> ifaces = net::GetIfaces(0, 0);

  ASSERT_EQ(NamesOf(ifaces), (Names{"kiv-b", "kiv-a", "kiv-b", "kiv-a:1"}));
  EXPECT_EQ(ifaces[0].GetAddress(), "10.0.0.1");
  EXPECT_EQ(ifaces[1].GetAddress(), "10.0.0.2");
  EXPECT_EQ(ifaces[2].GetAddress(), "10.0.0.3");
  EXPECT_EQ(ifaces[3].GetAddress(), "10.0.0.4");
  EXPECT_EQ(ifaces[0].GetMAC(), "");
  EXPECT_TRUE(ifaces[1].IsFlagsSet(IFF_UP | IFF_RUNNING));
  EXPECT_FALSE(ifaces[1].IsFlagsSet(IFF_LOOPBACK));
  EXPECT_TRUE(ifaces[3].IsFlagsSet(IFF_LOOPBACK));
  EXPECT_FALSE(ifaces[3].IsFlagsSet(IFF_UP));
  EXPECT_EQ(log.Of("getifaddrs").size(), 1U);
  EXPECT_EQ(log.Of("freeifaddrs").size(), 1U);
}

TEST(GetIfaces, ReadsTheHardwareAddressOfEveryName) {
  const InterfaceList list({Listed("lo", IFF_UP, 1), Listed(kName, IFF_UP, 2)});

  const std::vector<net::Iface> ifaces = net::GetIfaces(0, 0);

  ASSERT_EQ(ifaces.size(), 2U);
  EXPECT_EQ(ifaces[0].GetMAC(), "00:00:00:00:00:00");
  EXPECT_EQ(ifaces[1].GetMAC(), "");
}

TEST(GetIfaces, SkipsEntriesWithoutAnIPv4Address) {
  const InterfaceList list({{"kiv-none", IFF_UP, {}},
                            OfFamily("kiv-packet", AF_PACKET),
                            Listed("kiv-inet", IFF_UP, 1),
                            OfFamily("kiv-inet6", AF_INET6),
                            OfFamily("kiv-unspec", AF_UNSPEC)});
  const CallLog log;

  EXPECT_EQ(NamesOf(net::GetIfaces(0, 0)), Names{"kiv-inet"});

  EXPECT_EQ(log.Of("getnameinfo").size(), 1U);
  EXPECT_EQ(log.Of("freeifaddrs").size(), 1U);
}

TEST(GetIfaces, TakesOnlyTheFlagsAskedFor) {
  struct Case {
    unsigned int required;
    unsigned int excluded;
    Names expected;
  };
  const Case cases[] = {
      {0, 0, {"lo0", "eth0", "down0"}},
      {IFF_UP, 0, {"lo0", "eth0"}},
      {IFF_UP, IFF_LOOPBACK, {"eth0"}},
      {IFF_UP | IFF_BROADCAST, 0, {"eth0"}},
      {IFF_LOOPBACK | IFF_BROADCAST, 0, {}},
      {0, IFF_UP, {"down0"}},
      {0, IFF_LOOPBACK | IFF_BROADCAST, {"down0"}},
      {0, IFF_LOOPBACK, {"eth0", "down0"}},
      {IFF_UP, IFF_UP, {}},
      {0x80000000U, 0, {"down0"}},
      {0, 0x80000000U, {"lo0", "eth0"}},
      {UINT_MAX, 0, {}},
      {0, UINT_MAX, {}},
  };
  for (const Case& c : cases) {
    const InterfaceList list({Listed("lo0", IFF_UP | IFF_LOOPBACK | IFF_RUNNING, 1),
                              Listed("eth0", IFF_UP | IFF_BROADCAST, 2), Listed("down0", 0x80000000U, 3)});

    EXPECT_EQ(NamesOf(net::GetIfaces(c.required, c.excluded)), c.expected) << c.required << " " << c.excluded;
  }
}

TEST(GetIfaces, AsksForTheNumberAsTextAndForNoService) {
  const InterfaceList list({Listed("kiv-a", IFF_UP, 1)});
  const CallLog log;

  (void)net::GetIfaces(0, 0);

  ASSERT_EQ(log.Of("getnameinfo").size(), 1U);
  const CallRecord call = log.Of("getnameinfo")[0];
  EXPECT_EQ(call.args, (Args{16, 1025, 0, 0, NI_NUMERICHOST})) << "sizes; null and 0 for the service; flags";
  EXPECT_EQ(Decode<sockaddr_in>(call.data).sin_addr.s_addr, htonl(0x0A000001));
}

TEST(GetIfaces, SkipsAnAddressThatCannotBeFormatted) {
  const InterfaceList list({Listed("kiv-a", IFF_UP, 1), Listed("kiv-b", IFF_UP, 2), Listed("kiv-c", IFF_UP, 3)});
  const CallLog log;
  const Fault fault = FailCall("getnameinfo", ENOMEM, 2);

  EXPECT_EQ(NamesOf(net::GetIfaces(0, 0)), (Names{"kiv-a", "kiv-c"}));

  EXPECT_EQ(log.Of("getnameinfo").size(), 3U) << "not repeated";
  EXPECT_EQ(log.Of("freeifaddrs").size(), 1U);
}

TEST(GetIfaces, EmptyListGivesNothing) {
  const InterfaceList list({});

  EXPECT_EQ(net::GetIfaces(0, 0).size(), 0U);
}

// ----------------------------------------------------------------------------------------------------------- hostname

// Should a broken check let a name through, it is not this machine's name that changes.
void EnterOwnHostNamespace() { (void)::unshare(CLONE_NEWUTS); }

TEST(SetHostname, HandsOverTheBytesOfTheName) {
  EnterOwnHostNamespace();
  for (const std::string& name :
       {std::string("gateway-1"), std::string("my host"), std::string("a"), std::string(63, 'x'),
        std::string(".UPPER."), std::string("\xC3\xA4\xFF\x01\t\x7F"), std::string(" "), std::string("/..")}) {
    const CallLog log;
    const Fault answer = ReturnFrom("sethostname", 0);

    EXPECT_TRUE(utils::SetHostname(name));

    ASSERT_EQ(log.Names(), Names{"sethostname"});
    EXPECT_EQ(log.Of("sethostname")[0].args, Args{static_cast<long long>(name.size())});
    EXPECT_EQ(log.Of("sethostname")[0].data, name);
  }
}

TEST(SetHostname, RefusedNamesMakeNoCall) {
  EnterOwnHostNamespace();
  const CallLog log;
  for (const std::string& name :
       {std::string(), std::string(64, 'x'), std::string(65, 'x'), std::string(1000, 'x'), std::string("gateway\n"),
        std::string("\ngateway"), std::string("gate\nway"), std::string("gateway\r"), std::string("\rgateway"),
        std::string("gate\rway"), std::string("gate\0way", 8), std::string("gateway\0", 8), std::string("\0", 1),
        std::string("\n"), std::string("\r"), std::string(62, 'x') + '\n'}) {
    EXPECT_FALSE(utils::SetHostname(name)) << name;
  }
  EXPECT_EQ(log.Names(), Names{});
}

TEST(SetHostname, AnyFailureIsFalseWithItsErrno) {
  EnterOwnHostNamespace();
  for (const int error : {EPERM, EINTR, EINVAL}) {
    const CallLog log;
    const Fault fault = FailCall("sethostname", error);

    EXPECT_FALSE(utils::SetHostname("gateway-1"));

    EXPECT_EQ(errno, error);
    EXPECT_EQ(log.Names(), Names{"sethostname"}) << "not repeated";
  }
}

TEST(SetHostname, OnlyZeroIsSuccess) {
  const Fault answer = ReturnFrom("sethostname", 1);

  EXPECT_FALSE(utils::SetHostname("gateway-1"));
}

TEST(GetHostname, AsksOnceWithRoomFor65Bytes) {
  const CallLog log;
  const Fault answer = GiveFrom("gethostname", "gateway-1");

  EXPECT_EQ(utils::GetHostname(), "gateway-1");

  ASSERT_EQ(log.Names(), Names{"gethostname"});
  EXPECT_EQ(log.Of("gethostname")[0].args, Args{65});
}

TEST(GetHostname, EndsAtTheFirstNulOrAfter64Bytes) {
  const std::pair<std::string, std::string> cases[] = {
      {std::string("abc\0def", 7), "abc"},          {"", ""},
      {std::string(63, 'h'), std::string(63, 'h')}, {std::string(64, 'h'), std::string(64, 'h')},
      {std::string(65, 'h'), std::string(64, 'h')},
  };
  for (const auto& [given, expected] : cases) {
    const Fault answer = GiveFrom("gethostname", given);

    EXPECT_EQ(utils::GetHostname(), expected);
  }
}

TEST(GetHostname, FailureIsEmptyWhateverTheBufferHas) {
  for (const int error : {ENAMETOOLONG, EINTR}) {
    const CallLog log;
    const Fault fault("gethostname", -1, error, 1, "partial");

    EXPECT_EQ(utils::GetHostname(), "");

    EXPECT_EQ(errno, error);
    EXPECT_EQ(log.Names(), Names{"gethostname"});
  }
}

// ------------------------------------------------------------------------------------------------------------- Exists

TEST(Exists, AsksForThePathAsItStands) {
  for (const std::string path : {"/etc/hostname", "relative", "", "/with blank/", "/../.", "/\xC3\xA4"}) {
    const CallLog log;
    const Fault answer = ReturnFrom("access", 0);

    EXPECT_TRUE(fs::Exists(path));

    ASSERT_EQ(log.Names(), Names{"access"});
    EXPECT_EQ(log.Of("access")[0].args, Args{F_OK});
    EXPECT_EQ(log.Of("access")[0].data, path);
  }
}

TEST(Exists, AnyFailureIsFalseWithItsErrno) {
  for (const int error : {ENOENT, EACCES, ELOOP, ENAMETOOLONG, EINTR}) {
    const CallLog log;
    const Fault fault = FailCall("access", error);

    EXPECT_FALSE(fs::Exists("/"));

    EXPECT_EQ(errno, error);
    EXPECT_EQ(log.Names(), Names{"access"}) << "not repeated";
  }
}

// ---------------------------------------------------------------------------------------------------------- RecvEager

TEST(RecvEager, ReadsBlocksOf2048WithoutWaitingUntilNothingIsLeft) {
  const CallLog log;
  const Fault first = GiveFrom("recv", std::string(2048, 'a'), 1);
  const Fault second = GiveFrom("recv", std::string(2048, 'b'), 2);
  const Fault third = GiveFrom("recv", std::string(904, 'c'), 3);
  const Fault last = FailCall("recv", EAGAIN, 4);
  std::vector<char> out = {'x'};

  EXPECT_EQ(net::RecvEager(77, out), 5000U);

  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(std::string(out.begin(), out.end()),
            "x" + std::string(2048, 'a') + std::string(2048, 'b') + std::string(904, 'c'));
  ASSERT_EQ(log.Names(), (Names{"recv", "recv", "recv", "recv"}));
  for (const CallRecord& call : log.Of("recv")) {
    EXPECT_EQ(call.args, (Args{77, 2048, MSG_DONTWAIT}));
  }
}

TEST(RecvEager, RepeatsAfterEintrOnly) {
  const CallLog log;
  const Fault before = FailCall("recv", EINTR, 1);
  const Fault first = GiveFrom("recv", "ab", 2);
  const Fault between = FailCall("recv", EINTR, 3);
  const Fault again = FailCall("recv", EINTR, 4);
  const Fault second = GiveFrom("recv", "c", 5);
  const Fault end = ReturnFrom("recv", 0, 6);
  std::vector<char> out;

  EXPECT_EQ(net::RecvEager(77, out), 3U);

  EXPECT_EQ(std::string(out.begin(), out.end()), "abc");
  EXPECT_EQ(log.Of("recv").size(), 6U);
}

TEST(RecvEager, EveryOtherErrorEndsIt) {
  for (const int error : {EAGAIN, ECONNRESET, ENOTCONN, ENOMEM, EBADF}) {
    const CallLog log;
    const Fault data = GiveFrom("recv", "abc", 1);
    const Fault fault = FailCall("recv", error, 2);
    std::vector<char> out;

    EXPECT_EQ(net::RecvEager(77, out), 3U);

    EXPECT_EQ(errno, error);
    EXPECT_EQ(out.size(), 3U);
    EXPECT_EQ(log.Of("recv").size(), 2U);
  }
}

TEST(RecvEager, EndOfStreamEndsItEvenWithAnOldEintr) {
  const CallLog log;
  const Fault end("recv", 0, EINTR, 1);
  std::vector<char> out = {'x', 'y'};

  EXPECT_EQ(net::RecvEager(77, out), 0U);

  EXPECT_EQ(std::string(out.begin(), out.end()), "xy");
  EXPECT_EQ(log.Of("recv").size(), 1U);
}

// --------------------------------------------------------------------------------------------------- RecvFrom, SendTo

// One of the four, on descriptor 77 with 5 bytes, and the length of its address.
struct Datagram {
  std::string name;
  std::string call;
  std::function<int(char*)> run;
  long long addressLength;
};

// Lists the case by its name, not by its bytes, which are other ones in every run.
template <typename Param, typename = decltype(Param::name)>
std::ostream& operator<<(std::ostream& out, const Param& param) {
  return out << param.name;
}

template <typename Address>
int Receive(char* buffer) {
  Address from{};
  return net::RecvFrom(77, buffer, 5, from);
}

int SendToUnix(char* buffer) {
  sockaddr_un to{};
  EXPECT_TRUE(net::SetAddress(to, "sock", true));
  return net::SendTo(77, buffer, 5, to);
}

class DatagramCall : public testing::TestWithParam<Datagram> {};

TEST_P(DatagramCall, IsOneCallWithoutFlags) {
  char buffer[] = "abcde";
  const CallLog log;
  const Fault answer = ReturnFrom(GetParam().call, 3);

  EXPECT_EQ(GetParam().run(buffer), 3);

  ASSERT_EQ(log.Names(), Names{GetParam().call});
  EXPECT_EQ(log.Of(GetParam().call)[0].args, (Args{77, 5, 0, GetParam().addressLength}));
}

TEST_P(DatagramCall, PassesFailuresThroughWithoutRepeating) {
  for (const int error : {EINTR, EAGAIN, ECONNREFUSED, EMSGSIZE}) {
    char buffer[] = "abcde";
    const CallLog log;
    const Fault fault = FailCall(GetParam().call, error);

    EXPECT_EQ(GetParam().run(buffer), -1);

    EXPECT_EQ(errno, error);
    EXPECT_EQ(log.Names(), Names{GetParam().call});
  }
}

TEST_P(DatagramCall, PassesAnEmptyResultThrough) {
  char buffer[] = "abcde";
  const Fault answer = ReturnFrom(GetParam().call, 0);

  EXPECT_EQ(GetParam().run(buffer), 0);
}

INSTANTIATE_TEST_SUITE_P(
    SocketIo, DatagramCall,
    testing::Values(Datagram{"RecvFromUnix", "recvfrom", Receive<sockaddr_un>, 110},
                    Datagram{"RecvFromInet", "recvfrom", Receive<sockaddr_in>, 16},
                    Datagram{"SendToUnix", "sendto", SendToUnix, 7},
                    Datagram{"SendToInet", "sendto",
                             [](char* buffer) { return net::SendTo(77, buffer, 5, test::Loopback(9)); }, 16}),
    [](const auto& given) { return given.param.name; });

TEST(RecvFrom, FillsTheCallersBufferAndLooksAtNoDescriptor) {
  sockaddr_in from{};
  char buffer[] = "......";
  {
    const Fault answer = GiveFrom("recvfrom", "abc");
    EXPECT_EQ(net::RecvFrom(77, buffer, 5, from), 3);
  }
  EXPECT_STREQ(buffer, "abc...");
  const CallLog log;

  EXPECT_EQ(net::RecvFrom(-1, buffer, 5, from), -1);

  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(log.Of("recvfrom").size(), 1U);
}

TEST(SendTo, HandsOverDataAndAddress) {
  const sockaddr_in to = test::Loopback(0x1234);
  const CallLog log;
  const Fault answer = ReturnFrom("sendto", 5);

  EXPECT_EQ(net::SendTo(77, "ab\0de", 5, to), 5);

  const std::string address(reinterpret_cast<const char*>(&to), sizeof to);
  EXPECT_EQ(log.Of("sendto").at(0).data, std::string("ab\0de", 5) + address);
}

TEST(SendTo, LooksAtNoDescriptor) {
  const CallLog log;

  EXPECT_EQ(net::SendTo(-1, "x", 1, test::Loopback(9)), -1);

  EXPECT_EQ(errno, EBADF);
  EXPECT_EQ(log.Of("sendto").size(), 1U);
}

struct UnixName {
  std::string path;  // What sun_path starts with.
  long long length;
};

TEST(SendTo, CountsAUnixNameWithoutItsTerminator) {
  const std::string nul(1, '\0');
  const UnixName names[] = {
      {"/run/x.sock", 13},
      {"a", 3},
      {std::string(107, 'f'), 109},
      {"ab" + nul + "cd", 4},
      {nul + "sock", 7},
      {nul, 3},
      {nul + std::string(106, 'a'), 109},
      {nul + std::string(107, 'a'), 110},
      {nul + "ab" + nul + "cd", 5},
      {nul + nul + "cd", 3},
  };
  for (const UnixName& name : names) {
    sockaddr_un to{};
    to.sun_family = AF_UNIX;
    name.path.copy(to.sun_path, sizeof to.sun_path);
    const CallLog log;
    const Fault answer = ReturnFrom("sendto", 0);

    EXPECT_EQ(net::SendTo(77, nullptr, 0, to), 0);

    ASSERT_EQ(log.Of("sendto").size(), 1U);
    EXPECT_EQ(log.Of("sendto")[0].args, (Args{77, 0, 0, name.length}));
    const std::string whole(reinterpret_cast<const char*>(&to), sizeof to);
    EXPECT_EQ(log.Of("sendto")[0].data, whole.substr(0, static_cast<std::size_t>(name.length)));
  }
}

TEST(SendTo, HasTheLengthThatTheNameIsBoundWith) {
  const std::pair<std::string, bool> names[] = {{"/run/x.sock", false}, {"sock", true}, {"x", true}, {"x", false}};
  for (const auto& [name, abstract] : names) {
    const net::UnixAddress bound(name, abstract);
    const CallLog log;
    const Fault answer = ReturnFrom("sendto", 0);

    EXPECT_EQ(net::SendTo(77, nullptr, 0, bound.mAddr), 0);

    EXPECT_EQ(log.Of("sendto").at(0).args[3], bound.mLen);
  }
}

}  // namespace
}  // namespace kiv
