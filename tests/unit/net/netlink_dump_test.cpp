#include "net/netlink_dump.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/rtnetlink.h>
#include <sys/socket.h>
#include <sys/time.h>

#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include "tests/support.h"

namespace kiv::net {
namespace {

using test::MessageBytes;
using test::Octets;

using Messages = std::vector<std::string>;

const std::string kDone = MessageBytes(NLMSG_DONE, Octets(std::int32_t{0}));
const std::string kA = MessageBytes(RTM_NEWROUTE, "a");
const std::string kB = MessageBytes(RTM_NEWROUTE, "bb");
const std::string kC = MessageBytes(RTM_NEWROUTE, "ccc");

std::string ErrorBytes(std::int32_t error) { return MessageBytes(NLMSG_ERROR, Octets(error) + std::string(16, '\0')); }

std::string Request(std::uint16_t type, unsigned char family) {
  return Octets(std::uint32_t{17}) + Octets(type) + Octets(std::uint16_t{0x0301}) + Octets(std::uint32_t{1}) +
         Octets(std::uint32_t{0}) + Octets(family);
}

// A connected pair that keeps the bounds of datagrams. The test holds the kernel's end; what it has sent before waits.
class Dump {
 public:
  explicit Dump(int type = SOCK_SEQPACKET) {
    int fds[2] = {-1, -1};
    (void)::socketpair(AF_UNIX, type | SOCK_CLOEXEC, 0, fds);
    mOwn.Reset(fds[0]);
    mKernel.Reset(fds[1]);
  }

  int Fd() const { return mOwn.Get(); }
  int Kernel() const { return mKernel.Get(); }
  void Answer(const std::string& datagram) const {
    ASSERT_EQ(::send(Kernel(), datagram.data(), datagram.size(), 0), static_cast<ssize_t>(datagram.size()));
  }
  void FailWhenNothingIsLeft() const { ASSERT_EQ(::fcntl(Fd(), F_SETFL, O_NONBLOCK), 0); }

  Messages Run(std::uint16_t type = RTM_GETROUTE, unsigned char family = AF_INET) const {
    Messages messages;
    NetlinkDump(Fd(), type, family, [&messages](const NetlinkMessage& message) {
      messages.emplace_back(message.bytes.Data(), message.bytes.Size());
    });
    return messages;
  }

  // What the kernel got, datagram by datagram.
  Messages Requests() const {
    Messages requests;
    char buffer[64];
    for (ssize_t size; (size = ::recv(Kernel(), buffer, sizeof buffer, MSG_DONTWAIT)) > 0;) {
      requests.emplace_back(buffer, static_cast<std::size_t>(size));
    }
    return requests;
  }

 private:
  internal::UniqueFd mOwn;
  internal::UniqueFd mKernel;
};

Messages WithoutPadding(Messages messages) {
  for (std::string& message : messages) {
    std::uint32_t length = 0;
    std::memcpy(&length, message.data(), sizeof length);
    message.resize(length);
  }
  return messages;
}

TEST(BuildDumpRequest, WritesSeventeenBytesAndNoMore) {
  const struct {
    std::uint16_t type;
    unsigned char family;
    std::string bytes;
  } cases[] = {
      {RTM_GETROUTE, AF_INET, Octets(std::uint16_t{26})},
      {RTM_GETADDR, AF_INET, Octets(std::uint16_t{22})},
      {RTM_GETROUTE, AF_INET6, Octets(std::uint16_t{26})},
      {0xFEDC, 0xFF, Octets(std::uint16_t{0xFEDC})},
  };
  static_assert(kDumpRequestSize == 17);
  for (const auto& c : cases) {
    std::string out(20, '#');

    BuildDumpRequest(&out[0], c.type, c.family);

    EXPECT_EQ(out, Octets(std::uint32_t{17}) + c.bytes + Octets(std::uint16_t{0x0301}) + Octets(std::uint32_t{1}) +
                       Octets(std::uint32_t{0}) + Octets(c.family) + "###");
  }
}

TEST(BuildDumpRequest, NeedsNoAlignment) {
  std::string out(20, '#');

  BuildDumpRequest(&out[1], RTM_GETADDR, AF_INET);

  EXPECT_EQ(out, "#" + Request(RTM_GETADDR, AF_INET) + "##");
}

TEST(NetlinkDump, SendsOneRequestOfSeventeenBytes) {
  const Dump dump;
  dump.Answer(kDone);

  (void)dump.Run(RTM_GETADDR, 7);

  EXPECT_EQ(dump.Requests(), Messages({Request(RTM_GETADDR, 7)}));
}

TEST(NetlinkDump, HandsOverTheMessagesOfEveryDatagramInOrder) {
  const Dump dump;
  dump.Answer(kA + kB);
  dump.Answer(kC);
  dump.Answer(kB + kDone);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA, kB, kC, kB}));
}

TEST(NetlinkDump, EndOfTheDumpLeavesLaterDatagramsUnread) {
  const Dump dump;
  dump.Answer(kA + kDone + kB);
  dump.Answer(kC);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA}));

  EXPECT_TRUE(test::IsReadable(dump.Fd()));
}

TEST(NetlinkDump, EndMayStandInADatagramOfItsOwn) {
  const Dump dump;
  dump.Answer(kA);
  dump.Answer(kDone);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA}));

  EXPECT_FALSE(test::IsReadable(dump.Fd()));
}

TEST(NetlinkDump, BrokenDatagramIsIgnoredAndTheNextOneRead) {
  const Dump dump;
  const std::string tooShort = kDone.substr(0, 15);
  const std::string lengthBelow16 = Octets(std::uint32_t{15}) + kDone.substr(4);
  const std::string lengthAbove = Octets(std::uint32_t{21}) + kDone.substr(4);
  for (const std::string& broken : {std::string("x"), tooShort, lengthBelow16, lengthAbove}) {
    dump.Answer(broken);
    dump.Answer(kA);
  }
  dump.Answer(kDone);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA, kA, kA, kA}));
}

TEST(NetlinkDump, UnusableRestOfADatagramIsIgnoredAndTheNextOneRead) {
  const Dump dump;
  dump.Answer(kA + kDone.substr(0, 15));
  dump.Answer(kB + Octets(std::uint32_t{99}) + kDone.substr(4));
  dump.Answer(kC + kDone);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA, kB, kC}));
}

TEST(NetlinkDump, KernelErrorEndsItWithWhatWasGathered) {
  const Dump dump;
  dump.Answer(kA);
  dump.Answer(kB + ErrorBytes(-EBUSY) + kC);
  dump.Answer(kC);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA, kB}));

  EXPECT_TRUE(test::IsReadable(dump.Fd()));
}

TEST(NetlinkDump, ErrorZeroIsSkipped) {
  const Dump dump;
  dump.Answer(ErrorBytes(0));
  dump.Answer(kA + ErrorBytes(0) + kB);
  dump.Answer(kDone);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA, kB}));
}

TEST(NetlinkDump, ClosedPeerEndsItWithWhatWasGathered) {
  const Dump dump;
  dump.Answer(kA);
  ASSERT_EQ(::shutdown(dump.Kernel(), SHUT_WR), 0);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA}));
}

TEST(NetlinkDump, EmptyDatagramEndsIt) {
  const Dump dump(SOCK_DGRAM);
  dump.Answer(kA);
  dump.Answer("");
  dump.Answer(kB);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA}));

  EXPECT_TRUE(test::IsReadable(dump.Fd()));
}

TEST(NetlinkDump, ReceiveFailureEndsItWithWhatWasGathered) {
  const Dump dump;
  dump.Answer(kA);
  dump.Answer(kB);
  dump.FailWhenNothingIsLeft();

  EXPECT_EQ(dump.Run(), WithoutPadding({kA, kB}));

  EXPECT_EQ(errno, EAGAIN);
}

// Signals come again and again until one arrives during the wait.
TEST(NetlinkDump, SignalEndsItWithWhatWasGathered) {
  const Dump dump;
  dump.Answer(kA);
  struct sigaction act {};
  struct sigaction savedAct {};
  act.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGALRM, &act, &savedAct), 0);
  const itimerval every5ms{{0, 5000}, {0, 5000}};
  ASSERT_EQ(::setitimer(ITIMER_REAL, &every5ms, nullptr), 0);

  const Messages messages = dump.Run();
  const int error = errno;

  const itimerval never{};
  (void)::setitimer(ITIMER_REAL, &never, nullptr);
  (void)::sigaction(SIGALRM, &savedAct, nullptr);
  EXPECT_EQ(messages, WithoutPadding({kA}));
  EXPECT_EQ(error, EINTR);
}

TEST(NetlinkDump, SendFailureGivesNothingAlthoughMessagesWait) {
  const Dump dump(SOCK_DGRAM);
  dump.Answer(kA + kDone);
  ASSERT_EQ(::shutdown(dump.Fd(), SHUT_WR), 0);

  EXPECT_EQ(dump.Run(), Messages());

  EXPECT_EQ(errno, EPIPE);
  EXPECT_TRUE(test::IsReadable(dump.Fd()));
}

TEST(NetlinkDump, WithoutADescriptorItGivesNothing) {
  int calls = 0;

  NetlinkDump(-1, RTM_GETROUTE, AF_INET, [&calls](const NetlinkMessage&) { ++calls; });

  EXPECT_EQ(calls, 0);
  EXPECT_EQ(errno, EBADF);
}

TEST(NetlinkDump, DatagramOf8192BytesIsReadWhole) {
  const Dump dump;
  const std::string largest = MessageBytes(RTM_NEWROUTE, std::string(8192 - 16, 'm'));
  dump.Answer(largest);
  dump.Answer(kDone);

  EXPECT_TRUE(dump.Run() == Messages({largest}));
}

TEST(NetlinkDump, WhatLiesBeyond8192BytesIsLost) {
  const Dump dump;
  const std::string tooLarge = MessageBytes(RTM_NEWROUTE, std::string(8196 - 16, 'm'));
  const std::string fits = MessageBytes(RTM_NEWROUTE, std::string(8192 - 20 - 16, 'm'));
  dump.Answer(tooLarge);
  dump.Answer(kA + fits + kB);
  dump.Answer(kDone);

  EXPECT_TRUE(dump.Run() == WithoutPadding({kA, fits}));
}

TEST(NetlinkDump, NothingOfAnEarlierDatagramComesBack) {
  const Dump dump;
  dump.Answer(kA + kB + kC);
  dump.Answer(kC.substr(0, 17));
  dump.Answer(kDone);

  EXPECT_EQ(dump.Run(), WithoutPadding({kA, kB, kC}));
}

TEST(NetlinkDump, DescriptorStaysOpen) {
  const Dump dump;
  dump.Answer(kDone);
  const std::size_t before = test::CountOpenFds();

  (void)dump.Run();

  EXPECT_EQ(test::CountOpenFds(), before);
  EXPECT_TRUE(test::IsOpen(dump.Fd()));
}

}  // namespace
}  // namespace kiv::net
