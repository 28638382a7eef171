#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "interpose.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::CallLog;
using test::CallRecord;
using test::CountOpenFds;
using test::Decode;
using test::FailCall;
using test::Fault;
using test::Loopback;
using test::ResolverAnswer;
using test::ReturnFrom;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

UniqueFd MakeSocket(int type) { return UniqueFd(::socket(AF_INET, type | SOCK_CLOEXEC, 0)); }

unsigned short PortOf(const UniqueFd& fd) {
  sockaddr_in addr{};
  socklen_t size = sizeof addr;
  (void)::getsockname(fd.Get(), reinterpret_cast<sockaddr*>(&addr), &size);
  return ntohs(addr.sin_port);
}

// A port of the loopback interface that is taken; connections are accepted only after listen.
UniqueFd BoundSocket() {
  UniqueFd fd = MakeSocket(SOCK_STREAM);
  const sockaddr_in any = Loopback(0);
  (void)::bind(fd.Get(), reinterpret_cast<const sockaddr*>(&any), sizeof any);
  return fd;
}

UniqueFd Listener() {
  UniqueFd fd = BoundSocket();
  (void)::listen(fd.Get(), 8);
  return fd;
}

std::vector<unsigned short> PortsTried(const CallLog& log) {
  std::vector<unsigned short> ports;
  for (const CallRecord& call : log.Of("connect")) {
    ports.push_back(ntohs(Decode<sockaddr_in>(call.data).sin_port));
  }
  return ports;
}

TEST(NtoIP, IsEmptyWhenTheAddressCannotBeFormatted) {
  const Fault fault = FailCall("inet_ntop", ENOSPC);

  EXPECT_EQ(NtoIP(0x0100007F), "");
}

// Every function that makes one setsockopt or bind or connect, with the name of that call.
struct SingleCall {
  std::string name;
  std::string call;
  std::function<bool(int)> run;
};

class SingleCallFault : public testing::TestWithParam<SingleCall> {};

TEST_P(SingleCallFault, FailureGivesFalseAndKeepsErrno) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);
  const std::size_t before = CountOpenFds();
  const CallLog log;
  const Fault fault = FailCall(GetParam().call, ENOBUFS);

  const bool result = GetParam().run(fd.Get());
  const int error = errno;

  EXPECT_FALSE(result);
  EXPECT_EQ(error, ENOBUFS);
  EXPECT_EQ(log.Names(), Names{GetParam().call}) << "one call, not repeated";
  EXPECT_EQ(log.Of(GetParam().call).at(0).args[0], fd.Get());
  EXPECT_EQ(CountOpenFds(), before);
}

TEST_P(SingleCallFault, EintrIsAFailureToo) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);
  const CallLog log;
  const Fault fault = FailCall(GetParam().call, EINTR);

  EXPECT_FALSE(GetParam().run(fd.Get()));

  EXPECT_EQ(log.Names(), Names{GetParam().call});
}

TEST_P(SingleCallFault, SuccessOfTheCallIsSuccess) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);
  const Fault fault = ReturnFrom(GetParam().call, 0);

  EXPECT_TRUE(GetParam().run(fd.Get()));
}

INSTANTIATE_TEST_SUITE_P(
    Socket, SingleCallFault,
    testing::Values(
        SingleCall{"SetRecvTimeout", "setsockopt", [](int fd) { return SetRecvTimeout(fd, 1); }},
        SingleCall{"SetSendTimeout", "setsockopt", [](int fd) { return SetSendTimeout(fd, 1); }},
        SingleCall{"EnableBroadcast", "setsockopt", [](int fd) { return EnableBroadcast(fd, true); }},
        SingleCall{"SetMulticastTTL", "setsockopt", [](int fd) { return SetMulticastTTL(fd, 1); }},
        SingleCall{"SubscribeByIndex", "setsockopt", [](int fd) { return SubscribeMulticast(fd, "239.1.1.1", 1U); }},
        SingleCall{"SubscribeByAddress", "setsockopt",
                   [](int fd) { return SubscribeMulticast(fd, "239.1.1.1", "127.0.0.1"); }},
        SingleCall{"Subscribe", "setsockopt", [](int fd) { return SubscribeMulticast(fd, "239.1.1.1"); }},
        SingleCall{"UnsubscribeByIndex", "setsockopt",
                   [](int fd) { return UnsubscribeMulticast(fd, "239.1.1.1", 1U); }},
        SingleCall{"UnsubscribeByAddress", "setsockopt",
                   [](int fd) { return UnsubscribeMulticast(fd, "239.1.1.1", "127.0.0.1"); }},
        SingleCall{"Unsubscribe", "setsockopt", [](int fd) { return UnsubscribeMulticast(fd, "239.1.1.1"); }},
        SingleCall{"BindUnix", "bind", [](int fd) { return BindUnix(fd, UnixAddress("/x", false)); }},
        SingleCall{"ConnectUnix", "connect", [](int fd) { return ConnectUnix(fd, UnixAddress("/x", false)); }},
        SingleCall{"ConnectInet", "connect", [](int fd) { return ConnectInet(fd, Loopback(9), SOCK_DGRAM); }}),
    [](const testing::TestParamInfo<SingleCall>& tested) { return tested.param.name; });

TEST(SetNonBlocking, ReadsTheFlagsAndAlwaysSetsThem) {
  const auto [fd, other] = test::SocketPair();
  const CallLog log;

  EXPECT_TRUE(SetNonBlocking(fd.Get(), false));
  EXPECT_TRUE(SetNonBlocking(fd.Get(), true));

  ASSERT_EQ(log.Names(), (Names{"fcntl", "fcntl", "fcntl", "fcntl"}));
  const std::vector<CallRecord> calls = log.Of("fcntl");
  EXPECT_EQ(calls[0].args, (Args{fd.Get(), F_GETFL, 0}));
  EXPECT_EQ(calls[1].args, (Args{fd.Get(), F_SETFL, O_RDWR}));
  EXPECT_EQ(calls[2].args, (Args{fd.Get(), F_GETFL, 0}));
  EXPECT_EQ(calls[3].args, (Args{fd.Get(), F_SETFL, O_RDWR | O_NONBLOCK}));
}

TEST(SetNonBlocking, FailedReadOfTheFlagsSetsNothing) {
  const auto [fd, other] = test::SocketPair();
  const CallLog log;
  const Fault fault = FailCall("fcntl", EACCES);

  EXPECT_FALSE(SetNonBlocking(fd.Get(), true));

  EXPECT_EQ(errno, EACCES);
  EXPECT_EQ(log.Names(), Names{"fcntl"});
}

TEST(SetNonBlocking, FailedSettingIsReported) {
  const auto [fd, other] = test::SocketPair();
  const Fault fault = FailCall("fcntl", EPERM, 2);

  EXPECT_FALSE(SetNonBlocking(fd.Get(), true));

  EXPECT_EQ(errno, EPERM);
}

TEST(SocketFunctions, RefuseNoDescriptorBeforeAnyCall) {
  const CallLog log;

  EXPECT_FALSE(SetNonBlocking(-1, true));
  EXPECT_FALSE(SetRecvTimeout(-1, 1));
  EXPECT_FALSE(SetSendTimeout(-1, 1));
  EXPECT_FALSE(EnableBroadcast(-1, true));
  EXPECT_FALSE(SetMulticastTTL(-1, 1));
  EXPECT_FALSE(BindUnix(-1, UnixAddress("/x", false)));
  EXPECT_FALSE(ConnectUnix(-1, UnixAddress("/x", false)));
  EXPECT_FALSE(BindInet(-1, "127.0.0.1", 0, true));
  EXPECT_FALSE(ConnectInet(-1, Loopback(9), SOCK_STREAM));
  EXPECT_FALSE(ConnectInet(-1, "127.0.0.1", 9, SOCK_STREAM));
  EXPECT_FALSE(DrainAndShutdown(-1, 1));

  EXPECT_EQ(log.Names(), Names{});
}

TEST(SocketFunctions, RefuseOtherArgumentsBeforeAnyCall) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  const CallLog log;

  EXPECT_FALSE(BindUnix(fd.Get(), UnixAddress("", false)));
  EXPECT_FALSE(ConnectUnix(fd.Get(), UnixAddress(std::string(108, 'x'), false)));
  EXPECT_FALSE(BindInet(fd.Get(), "", 0, true));
  EXPECT_FALSE(ConnectInet(fd.Get(), Loopback(9), 0));
  EXPECT_FALSE(ConnectInet(fd.Get(), Loopback(9), SOCK_RAW));
  EXPECT_FALSE(ConnectInet(fd.Get(), "", 9, SOCK_STREAM));
  EXPECT_FALSE(ConnectInet(fd.Get(), "host", 0, SOCK_STREAM));
  EXPECT_FALSE(ConnectInet(fd.Get(), "host", 9, 0));
  EXPECT_FALSE(ConnectInet(fd.Get(), "host", 9, SOCK_RAW));

  EXPECT_EQ(log.Names(), Names{});
}

TEST(MulticastMembership, UnparsedTextMakesNoSystemCall) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);
  const CallLog log;

  for (const char* text : {"", "239.1.1", "239.1.1.1 ", "group"}) {
    EXPECT_FALSE(SubscribeMulticast(fd.Get(), text, 1U));
    EXPECT_FALSE(SubscribeMulticast(fd.Get(), text, "127.0.0.1"));
    EXPECT_FALSE(SubscribeMulticast(fd.Get(), text));
    EXPECT_FALSE(SubscribeMulticast(fd.Get(), "239.1.1.1", text));
    EXPECT_FALSE(UnsubscribeMulticast(fd.Get(), text, 1U));
    EXPECT_FALSE(UnsubscribeMulticast(fd.Get(), text, "127.0.0.1"));
    EXPECT_FALSE(UnsubscribeMulticast(fd.Get(), text));
    EXPECT_FALSE(UnsubscribeMulticast(fd.Get(), "239.1.1.1", text));
  }

  EXPECT_EQ(log.Names(), Names{});
}

TEST(MulticastMembership, DescriptorIsLeftToTheKernelToRefuse) {
  const CallLog log;

  EXPECT_FALSE(SubscribeMulticast(-1, "239.1.1.1", 1U));
  EXPECT_EQ(errno, EBADF);
  EXPECT_FALSE(UnsubscribeMulticast(-1, "239.1.1.1"));
  EXPECT_EQ(errno, EBADF);

  EXPECT_EQ(log.Of("setsockopt").size(), 2U);
}

// What one function hands to setsockopt, which is not made.
CallRecord OptionSetBy(const std::function<bool(int)>& run) {
  const CallLog log;
  const Fault fault = ReturnFrom("setsockopt", 0);
  EXPECT_TRUE(run(77));
  EXPECT_EQ(log.Names(), Names{"setsockopt"});
  return log.Of("setsockopt").at(0);
}

TEST(SetRecvTimeout, PassesWholeSeconds) {
  for (const unsigned seconds : {0U, 1U, 3600U}) {
    const CallRecord call = OptionSetBy([&](int fd) { return SetRecvTimeout(fd, seconds); });

    EXPECT_EQ(call.args, (Args{77, SOL_SOCKET, SO_RCVTIMEO, sizeof(timeval)}));
    EXPECT_EQ(Decode<timeval>(call.data).tv_sec, static_cast<long>(seconds));
    EXPECT_EQ(Decode<timeval>(call.data).tv_usec, 0);
  }
}

TEST(SetSendTimeout, PassesWholeSeconds) {
  for (const unsigned seconds : {0U, 1U, 3600U}) {
    const CallRecord call = OptionSetBy([&](int fd) { return SetSendTimeout(fd, seconds); });

    EXPECT_EQ(call.args, (Args{77, SOL_SOCKET, SO_SNDTIMEO, sizeof(timeval)}));
    EXPECT_EQ(Decode<timeval>(call.data).tv_sec, static_cast<long>(seconds));
    EXPECT_EQ(Decode<timeval>(call.data).tv_usec, 0);
  }
}

TEST(EnableBroadcast, PassesAnIntOfOneOrZero) {
  const CallRecord on = OptionSetBy([](int fd) { return EnableBroadcast(fd, true); });
  const CallRecord off = OptionSetBy([](int fd) { return EnableBroadcast(fd, false); });

  EXPECT_EQ(on.args, (Args{77, SOL_SOCKET, SO_BROADCAST, sizeof(int)}));
  EXPECT_EQ(Decode<int>(on.data), 1);
  EXPECT_EQ(off.args, on.args);
  EXPECT_EQ(off.data, std::string(sizeof(int), '\0'));
}

TEST(SetMulticastTTL, PassesTheLowByteAlone) {
  const CallRecord call = OptionSetBy([](int fd) { return SetMulticastTTL(fd, 300); });

  EXPECT_EQ(call.args, (Args{77, IPPROTO_IP, IP_MULTICAST_TTL, 1}));
  EXPECT_EQ(call.data, std::string(1, '\x2C'));
}

TEST(MulticastMembership, IndexFormPassesGroupAnyAddressAndIndex) {
  const std::string expected("\xEF\x01\x02\x03\0\0\0\0", 8);
  const CallRecord join = OptionSetBy([](int fd) { return SubscribeMulticast(fd, "239.1.2.3", 5U); });
  const CallRecord leave = OptionSetBy([](int fd) { return UnsubscribeMulticast(fd, "239.1.2.3", 5U); });

  EXPECT_EQ(join.args, (Args{77, IPPROTO_IP, IP_ADD_MEMBERSHIP, 12}));
  EXPECT_EQ(join.data.substr(0, 8), expected);
  EXPECT_EQ(Decode<int>(join.data.substr(8)), 5);
  EXPECT_EQ(leave.args, (Args{77, IPPROTO_IP, IP_DROP_MEMBERSHIP, 12}));
  EXPECT_EQ(leave.data, join.data);
}

TEST(MulticastMembership, AddressFormPassesGroupAndAddress) {
  const CallRecord join = OptionSetBy([](int fd) { return SubscribeMulticast(fd, "239.1.2.3", "10.0.0.9"); });
  const CallRecord leave = OptionSetBy([](int fd) { return UnsubscribeMulticast(fd, "239.1.2.3", "10.0.0.9"); });

  EXPECT_EQ(join.args, (Args{77, IPPROTO_IP, IP_ADD_MEMBERSHIP, 8}));
  EXPECT_EQ(join.data, std::string("\xEF\x01\x02\x03\x0A\0\0\x09", 8));
  EXPECT_EQ(leave.args, (Args{77, IPPROTO_IP, IP_DROP_MEMBERSHIP, 8}));
  EXPECT_EQ(leave.data, join.data);
}

TEST(MulticastMembership, ShortFormLeavesTheInterfaceToTheKernel) {
  const CallRecord join = OptionSetBy([](int fd) { return SubscribeMulticast(fd, "239.1.2.3"); });
  const CallRecord leave = OptionSetBy([](int fd) { return UnsubscribeMulticast(fd, "239.1.2.3"); });

  EXPECT_EQ(join.args, (Args{77, IPPROTO_IP, IP_ADD_MEMBERSHIP, 8}));
  EXPECT_EQ(join.data, std::string("\xEF\x01\x02\x03\0\0\0\0", 8));
  EXPECT_EQ(leave.args, (Args{77, IPPROTO_IP, IP_DROP_MEMBERSHIP, 8}));
  EXPECT_EQ(leave.data, join.data);
}

TEST(BindUnix, PassesTheLengthOfTheAddress) {
  const CallLog log;
  const Fault fault = ReturnFrom("bind", 0);
  const UnixAddress address(std::string("a\0b", 3), true);

  EXPECT_TRUE(BindUnix(77, address));

  EXPECT_EQ(log.Of("bind").at(0).args, (Args{77, 6}));
  EXPECT_EQ(log.Of("bind").at(0).data.substr(2), std::string("\0a\0b", 4));
}

TEST(ConnectUnix, PassesTheLengthOfTheAddress) {
  const CallLog log;
  const Fault fault = ReturnFrom("connect", 0);

  EXPECT_TRUE(ConnectUnix(77, UnixAddress("/run/x", false)));

  EXPECT_EQ(log.Of("connect").at(0).args, (Args{77, 8}));
  EXPECT_EQ(log.Of("connect").at(0).data.substr(2), "/run/x");
}

TEST(ConnectInet, PassesTheSixteenBytesOfTheAddress) {
  const CallLog log;
  const Fault fault = ReturnFrom("connect", 0);

  EXPECT_TRUE(ConnectInet(77, Loopback(4321), SOCK_STREAM));

  EXPECT_EQ(log.Of("connect").at(0).args, (Args{77, 16}));
  EXPECT_EQ(PortsTried(log), std::vector<unsigned short>{4321});
}

TEST(BindInet, SetsBothOptionsInOrderAndThenBinds) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  for (const bool reuse : {true, false}) {
    const CallLog log;
    const Fault fault = ReturnFrom("bind", 0);

    EXPECT_TRUE(BindInet(fd.Get(), "127.0.0.2", 4321, reuse));

    ASSERT_EQ(log.Names(), (Names{"setsockopt", "setsockopt", "bind"}));
    const std::vector<CallRecord> options = log.Of("setsockopt");
    EXPECT_EQ(options[0].args, (Args{fd.Get(), SOL_SOCKET, SO_REUSEADDR, sizeof(int)}));
    EXPECT_EQ(options[1].args, (Args{fd.Get(), SOL_SOCKET, SO_REUSEPORT, sizeof(int)}));
    const int value = reuse ? 1 : 0;
    const std::string bytes(reinterpret_cast<const char*>(&value), sizeof value);
    EXPECT_EQ(options[0].data, bytes);
    EXPECT_EQ(options[1].data, bytes);
    EXPECT_EQ(log.Of("bind")[0].args, (Args{fd.Get(), 16}));
    EXPECT_EQ(log.Of("bind")[0].data.substr(2), std::string("\x10\xE1\x7F\0\0\x02\0\0\0\0\0\0\0\0", 14));
  }
}

TEST(BindInet, FailedFirstOptionEndsIt) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  const CallLog log;
  const Fault fault = FailCall("setsockopt", ENOPROTOOPT);

  EXPECT_FALSE(BindInet(fd.Get(), "127.0.0.1", 0, true));

  EXPECT_EQ(errno, ENOPROTOOPT);
  EXPECT_EQ(log.Names(), Names{"setsockopt"});
}

TEST(BindInet, FailedSecondOptionKeepsTheFirst) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  const CallLog log;
  const Fault fault = FailCall("setsockopt", ENOPROTOOPT, 2);

  EXPECT_FALSE(BindInet(fd.Get(), "127.0.0.1", 0, true));

  EXPECT_EQ(errno, ENOPROTOOPT);
  EXPECT_EQ(log.Names(), (Names{"setsockopt", "setsockopt"}));
  int value = 0;
  socklen_t size = sizeof value;
  ASSERT_EQ(::getsockopt(fd.Get(), SOL_SOCKET, SO_REUSEADDR, &value, &size), 0);
  EXPECT_EQ(value, 1);
}

TEST(BindInet, UnparsedAddressIsFoundOnlyAfterTheOptions) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  const CallLog log;

  EXPECT_FALSE(BindInet(fd.Get(), "127.0.0", 0, true));

  EXPECT_EQ(log.Names(), (Names{"setsockopt", "setsockopt"}));
}

TEST(BindInet, FailedBindIsReported) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  const Fault fault = FailCall("bind", EADDRNOTAVAIL);

  EXPECT_FALSE(BindInet(fd.Get(), "127.0.0.1", 0, true));

  EXPECT_EQ(errno, EADDRNOTAVAIL);
}

TEST(ConnectInetByName, AsksForIPv4OfTheTypeAndThePortInDecimal) {
  const UniqueFd stream = MakeSocket(SOCK_STREAM);
  const UniqueFd datagram = MakeSocket(SOCK_DGRAM);
  const ResolverAnswer nothing({});
  const CallLog log;

  EXPECT_FALSE(ConnectInet(stream.Get(), "device.example", 65535, SOCK_STREAM));
  EXPECT_FALSE(ConnectInet(datagram.Get(), "h", 1, SOCK_DGRAM));

  const std::vector<CallRecord> calls = log.Of("getaddrinfo");
  ASSERT_EQ(calls.size(), 2U);
  EXPECT_EQ(calls[0].args, (Args{0, AF_INET, SOCK_STREAM, IPPROTO_TCP, 0, 0, 0, 0}));
  EXPECT_EQ(calls[0].data, "device.example 65535");
  EXPECT_EQ(calls[1].args, (Args{0, AF_INET, SOCK_DGRAM, IPPROTO_UDP, 0, 0, 0, 0}));
  EXPECT_EQ(calls[1].data, "h 1");
  EXPECT_EQ(log.Of("connect").size(), 0U) << "an answer without entries";
}

TEST(ConnectInetByName, FailedResolverEndsItWithNothingToFree) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  const CallLog log;
  const Fault fault = FailCall("getaddrinfo", EIO);

  EXPECT_FALSE(ConnectInet(fd.Get(), "host", 9, SOCK_STREAM));

  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(log.Names(), Names{"getaddrinfo"});
}

TEST(ConnectInetByName, FirstAddressThatAcceptsWinsOnTheSameDescriptor) {
  const UniqueFd closed = BoundSocket();
  const UniqueFd first = Listener();
  const UniqueFd second = Listener();
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  const ResolverAnswer answer({Loopback(PortOf(closed)), Loopback(PortOf(first)), Loopback(PortOf(second))});
  const CallLog log;

  EXPECT_TRUE(ConnectInet(fd.Get(), "host", 9, SOCK_STREAM));

  ASSERT_EQ(log.Names(), (Names{"getaddrinfo", "connect", "connect", "freeaddrinfo"}));
  EXPECT_EQ(PortsTried(log), (std::vector<unsigned short>{PortOf(closed), PortOf(first)}));
  EXPECT_EQ(log.Of("connect")[0].args, (Args{fd.Get(), 16}));
  EXPECT_EQ(log.Of("connect")[1].args, (Args{fd.Get(), 16}));
  sockaddr_in peer{};
  socklen_t size = sizeof peer;
  ASSERT_EQ(::getpeername(fd.Get(), reinterpret_cast<sockaddr*>(&peer), &size), 0);
  EXPECT_EQ(ntohs(peer.sin_port), PortOf(first));
}

TEST(ConnectInetByName, NoAddressThatAcceptsIsAFailureWithTheLastReason) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  const std::size_t before = CountOpenFds();
  const ResolverAnswer answer({Loopback(1), Loopback(2)});
  const CallLog log;
  const Fault first = FailCall("connect", ETIMEDOUT, 1);
  const Fault second = FailCall("connect", EHOSTUNREACH, 2);

  EXPECT_FALSE(ConnectInet(fd.Get(), "host", 9, SOCK_STREAM));

  EXPECT_EQ(errno, EHOSTUNREACH);
  EXPECT_EQ(log.Names(), (Names{"getaddrinfo", "connect", "connect", "freeaddrinfo"}));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(ConnectInetByName, EintrMovesOnToTheNextAddress) {
  const UniqueFd listener = Listener();
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  const ResolverAnswer answer({Loopback(1), Loopback(PortOf(listener))});
  const CallLog log;
  const Fault fault = FailCall("connect", EINTR);

  EXPECT_TRUE(ConnectInet(fd.Get(), "host", 9, SOCK_STREAM));

  EXPECT_EQ(PortsTried(log), (std::vector<unsigned short>{1, PortOf(listener)}));
}

TEST(DrainAndShutdown, WithoutSecondsOnlyHalfCloses) {
  const auto [fd, peer] = test::SocketPair();
  const CallLog log;

  EXPECT_TRUE(DrainAndShutdown(fd.Get(), 0));

  ASSERT_EQ(log.Names(), Names{"shutdown"});
  EXPECT_EQ(log.Of("shutdown")[0].args, (Args{fd.Get(), SHUT_WR}));
}

TEST(DrainAndShutdown, ReadsBlocksOf256UntilTheEnd) {
  auto [fd, peer] = test::SocketPair();
  ASSERT_EQ(::send(peer.Get(), std::string(300, 'x').data(), 300, 0), 300);
  peer.Reset();
  const CallLog log;

  EXPECT_TRUE(DrainAndShutdown(fd.Get(), 3));

  ASSERT_EQ(log.Names(), (Names{"shutdown", "setsockopt", "recv", "recv", "recv"}));
  EXPECT_EQ(log.Of("setsockopt")[0].args, (Args{fd.Get(), SOL_SOCKET, SO_RCVTIMEO, sizeof(timeval)}));
  EXPECT_EQ(Decode<timeval>(log.Of("setsockopt")[0].data).tv_sec, 3);
  EXPECT_EQ(log.Of("recv")[0].args, (Args{fd.Get(), 256, 0}));
}

TEST(DrainAndShutdown, IgnoresAFailedShutdownAndAFailedTimeout) {
  auto [fd, peer] = test::SocketPair();
  ASSERT_EQ(::send(peer.Get(), "x", 1, 0), 1);
  peer.Reset();
  const CallLog log;
  const Fault shutdown = FailCall("shutdown", ENOTCONN);
  const Fault timeout = FailCall("setsockopt", ENOPROTOOPT);

  EXPECT_TRUE(DrainAndShutdown(fd.Get(), 1));

  EXPECT_EQ(log.Of("recv").size(), 2U);
}

TEST(DrainAndShutdown, AnyReadErrorEndsIt) {
  const auto [fd, peer] = test::SocketPair();
  for (const int error : {EINTR, EAGAIN, ECONNRESET}) {
    ASSERT_EQ(::send(peer.Get(), "x", 1, 0), 1);
    const CallLog log;
    const Fault fault = FailCall("recv", error);

    EXPECT_TRUE(DrainAndShutdown(fd.Get(), 1));

    EXPECT_EQ(log.Of("recv").size(), 1U);
  }
}

TEST(DrainAndShutdown, LeavesTheDescriptorOpen) {
  auto [fd, peer] = test::SocketPair();
  peer.Reset();
  const CallLog log;

  EXPECT_TRUE(DrainAndShutdown(fd.Get(), 1));

  EXPECT_EQ(log.Of("close").size(), 0U);
  EXPECT_TRUE(test::IsOpen(fd.Get()));
}

}  // namespace
}  // namespace kiv::net
