#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <net/if.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <string>

#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;

UniqueFd MakeSocket(int type) { return UniqueFd(::socket(AF_INET, type | SOCK_CLOEXEC, 0)); }

template <typename Value>
Value Option(const UniqueFd& fd, int level, int name) {
  Value value{};
  socklen_t size = sizeof value;
  EXPECT_EQ(::getsockopt(fd.Get(), level, name, &value, &size), 0);
  return value;
}

bool IsNonBlocking(const UniqueFd& fd) { return (::fcntl(fd.Get(), F_GETFL) & O_NONBLOCK) != 0; }

UniqueFd OpenNull() { return UniqueFd(::open("/dev/null", O_RDONLY | O_CLOEXEC)); }

// A number that is no open descriptor.
int ClosedNumber() { return 1 << 20; }

unsigned int LoopbackIndex() { return ::if_nametoindex("lo"); }

// A multicast group that no other run of these tests uses.
std::string Group(int number) {
  const int run = ::getpid();
  return "239." + std::to_string(number) + "." + std::to_string(run >> 8 & 0xFF) + "." + std::to_string(run & 0xFF);
}

// Tells whether any socket has joined `group`, as the kernel lists it.
bool KernelListsGroup(const std::string& group) {
  char hex[9];
  (void)std::snprintf(hex, sizeof hex, "%08X", ::inet_addr(group.c_str()));
  std::ifstream file("/proc/net/igmp");
  std::string word;
  while (file >> word) {
    if (word == hex) {
      return true;
    }
  }
  return false;
}

TEST(SetNonBlocking, SwitchesTheFlagOnAndOff) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);

  EXPECT_TRUE(SetNonBlocking(fd.Get(), true));
  EXPECT_TRUE(IsNonBlocking(fd));
  EXPECT_TRUE(SetNonBlocking(fd.Get(), false));
  EXPECT_FALSE(IsNonBlocking(fd));
}

TEST(SetNonBlocking, WhatIsSetAlreadyIsSuccess) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);

  EXPECT_TRUE(SetNonBlocking(fd.Get(), false));
  EXPECT_FALSE(IsNonBlocking(fd));
  EXPECT_TRUE(SetNonBlocking(fd.Get(), true));
  EXPECT_TRUE(SetNonBlocking(fd.Get(), true));
  EXPECT_TRUE(IsNonBlocking(fd));
}

TEST(SetNonBlocking, KeepsTheOtherFlags) {
  const UniqueFd fd(::open("/dev/null", O_WRONLY | O_APPEND | O_CLOEXEC));

  EXPECT_TRUE(SetNonBlocking(fd.Get(), true));
  EXPECT_NE(::fcntl(fd.Get(), F_GETFL) & O_APPEND, 0);
  EXPECT_TRUE(SetNonBlocking(fd.Get(), false));
  EXPECT_NE(::fcntl(fd.Get(), F_GETFL) & O_APPEND, 0);
}

TEST(SetNonBlocking, FailsWithoutADescriptor) {
  EXPECT_FALSE(SetNonBlocking(-1, true));

  EXPECT_FALSE(SetNonBlocking(ClosedNumber(), true));
  EXPECT_EQ(errno, EBADF);
}

TEST(SetRecvTimeout, SetsWholeSecondsForReceivingOnly) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);

  EXPECT_TRUE(SetRecvTimeout(fd.Get(), 7));

  EXPECT_EQ(Option<timeval>(fd, SOL_SOCKET, SO_RCVTIMEO).tv_sec, 7);
  EXPECT_EQ(Option<timeval>(fd, SOL_SOCKET, SO_RCVTIMEO).tv_usec, 0);
  EXPECT_EQ(Option<timeval>(fd, SOL_SOCKET, SO_SNDTIMEO).tv_sec, 0);
}

TEST(SetRecvTimeout, ZeroTakesTheLimitAway) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);
  ASSERT_TRUE(SetRecvTimeout(fd.Get(), 7));

  EXPECT_TRUE(SetRecvTimeout(fd.Get(), 0));

  EXPECT_EQ(Option<timeval>(fd, SOL_SOCKET, SO_RCVTIMEO).tv_sec, 0);
}

TEST(SetRecvTimeout, EndsAReceiveFromASilentPeer) {
  const auto [fd, peer] = test::SocketPair();
  ASSERT_TRUE(SetRecvTimeout(fd.Get(), 1));
  const auto start = std::chrono::steady_clock::now();
  char byte = 0;

  EXPECT_EQ(::recv(fd.Get(), &byte, 1, 0), -1);

  EXPECT_EQ(errno, EAGAIN);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(950));
}

TEST(SetSendTimeout, SetsWholeSecondsForSendingOnly) {
  const UniqueFd fd = MakeSocket(SOCK_STREAM);

  EXPECT_TRUE(SetSendTimeout(fd.Get(), 9));

  EXPECT_EQ(Option<timeval>(fd, SOL_SOCKET, SO_SNDTIMEO).tv_sec, 9);
  EXPECT_EQ(Option<timeval>(fd, SOL_SOCKET, SO_SNDTIMEO).tv_usec, 0);
  EXPECT_EQ(Option<timeval>(fd, SOL_SOCKET, SO_RCVTIMEO).tv_sec, 0);
}

TEST(SocketTimeouts, FailOnWhatIsNoSocket) {
  const UniqueFd file = OpenNull();

  EXPECT_FALSE(SetRecvTimeout(file.Get(), 1));
  EXPECT_EQ(errno, ENOTSOCK);
  EXPECT_FALSE(SetSendTimeout(file.Get(), 1));
  EXPECT_EQ(errno, ENOTSOCK);
  EXPECT_FALSE(SetRecvTimeout(-1, 1));
  EXPECT_FALSE(SetSendTimeout(-1, 1));
}

TEST(EnableBroadcast, SwitchesTheOptionOnAndOff) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);

  EXPECT_TRUE(EnableBroadcast(fd.Get(), true));
  EXPECT_EQ(Option<int>(fd, SOL_SOCKET, SO_BROADCAST), 1);
  EXPECT_TRUE(EnableBroadcast(fd.Get(), false));
  EXPECT_EQ(Option<int>(fd, SOL_SOCKET, SO_BROADCAST), 0);
}

TEST(EnableBroadcast, FailsOnWhatIsNoSocket) {
  EXPECT_FALSE(EnableBroadcast(-1, true));

  EXPECT_FALSE(EnableBroadcast(OpenNull().Get(), true));
  EXPECT_EQ(errno, ENOTSOCK);
}

TEST(SetMulticastTTL, TakesTheLowEightBits) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);

  EXPECT_TRUE(SetMulticastTTL(fd.Get(), 17));
  EXPECT_EQ(Option<int>(fd, IPPROTO_IP, IP_MULTICAST_TTL), 17);
  EXPECT_TRUE(SetMulticastTTL(fd.Get(), 300));
  EXPECT_EQ(Option<int>(fd, IPPROTO_IP, IP_MULTICAST_TTL), 44);
  EXPECT_TRUE(SetMulticastTTL(fd.Get(), 256));
  EXPECT_EQ(Option<int>(fd, IPPROTO_IP, IP_MULTICAST_TTL), 0);
  EXPECT_TRUE(SetMulticastTTL(fd.Get(), 255));
  EXPECT_EQ(Option<int>(fd, IPPROTO_IP, IP_MULTICAST_TTL), 255);
}

TEST(SetMulticastTTL, FailsOnWhatIsNoSocket) {
  EXPECT_FALSE(SetMulticastTTL(-1, 1));

  EXPECT_FALSE(SetMulticastTTL(OpenNull().Get(), 1));
  EXPECT_EQ(errno, ENOTSOCK);
}

TEST(SubscribeMulticast, JoinsByInterfaceIndex) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);

  EXPECT_TRUE(SubscribeMulticast(fd.Get(), Group(11), LoopbackIndex()));

  EXPECT_TRUE(KernelListsGroup(Group(11)));
  EXPECT_FALSE(SubscribeMulticast(fd.Get(), Group(11), LoopbackIndex())) << "joined already";
  EXPECT_EQ(errno, EADDRINUSE);
}

TEST(SubscribeMulticast, JoinsByInterfaceAddress) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);

  EXPECT_TRUE(SubscribeMulticast(fd.Get(), Group(12), "127.0.0.1"));

  EXPECT_TRUE(KernelListsGroup(Group(12)));
  EXPECT_FALSE(SubscribeMulticast(fd.Get(), Group(12), "127.0.0.1")) << "joined already";
  EXPECT_EQ(errno, EADDRINUSE);
}

TEST(SubscribeMulticast, FailsForWhatTheKernelRefuses) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);

  EXPECT_FALSE(SubscribeMulticast(fd.Get(), "10.1.1.1", LoopbackIndex())) << "no multicast group";
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(SubscribeMulticast(fd.Get(), Group(13), 0x7FFFFFFFU)) << "no such interface";
  EXPECT_EQ(errno, ENODEV);
  EXPECT_FALSE(SubscribeMulticast(-1, Group(13), LoopbackIndex()));
  EXPECT_EQ(errno, EBADF);
}

TEST(SubscribeMulticast, FailsForTextThatIsNoAddress) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);

  EXPECT_FALSE(SubscribeMulticast(fd.Get(), "239.77.1", LoopbackIndex()));
  EXPECT_FALSE(SubscribeMulticast(fd.Get(), Group(13), "lo"));
  EXPECT_FALSE(SubscribeMulticast(fd.Get(), ""));

  EXPECT_FALSE(KernelListsGroup(Group(13)));
}

TEST(UnsubscribeMulticast, LeavesByInterfaceIndex) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);
  ASSERT_TRUE(SubscribeMulticast(fd.Get(), Group(21), LoopbackIndex()));

  EXPECT_TRUE(UnsubscribeMulticast(fd.Get(), Group(21), LoopbackIndex()));

  EXPECT_FALSE(KernelListsGroup(Group(21)));
}

TEST(UnsubscribeMulticast, LeavesByInterfaceAddress) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);
  ASSERT_TRUE(SubscribeMulticast(fd.Get(), Group(22), "127.0.0.1"));

  EXPECT_TRUE(UnsubscribeMulticast(fd.Get(), Group(22), "127.0.0.1"));

  EXPECT_FALSE(KernelListsGroup(Group(22)));
}

TEST(UnsubscribeMulticast, FailsForAGroupThatWasNotJoined) {
  const UniqueFd fd = MakeSocket(SOCK_DGRAM);

  EXPECT_FALSE(UnsubscribeMulticast(fd.Get(), Group(24), LoopbackIndex()));
  EXPECT_EQ(errno, EADDRNOTAVAIL);
  EXPECT_FALSE(UnsubscribeMulticast(fd.Get(), Group(24), "127.0.0.1"));
  EXPECT_EQ(errno, EADDRNOTAVAIL);
}

}  // namespace
}  // namespace kiv::net
