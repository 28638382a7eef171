#include "net/netlink_request.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <linux/if_link.h>
#include <linux/rtnetlink.h>
#include <net/if.h>
#include <sys/socket.h>

#include <atomic>
#include <cerrno>
#include <cstring>
#include <functional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "tests/support.h"

namespace kiv::net {
namespace {

using test::Octets;

static_assert(kChangeFlags == 0x0005 && kCreateFlags == 0x0605);
static_assert(sizeof(RequestBuffer) == 4096);

const std::string kNul(1, '\0');

std::string Nuls(std::size_t count) { return std::string(count, '\0'); }

std::string U16(unsigned value) { return Octets(static_cast<std::uint16_t>(value)); }

std::string U32(std::uint32_t value) { return Octets(value); }

std::string BytesOf(const RequestBuffer& buffer, std::size_t begin, std::size_t count) {
  return {reinterpret_cast<const char*>(&buffer) + begin, count};
}

// A message that grows behind its header, in memory whose untouched bytes are told by `fill`.
class Draft {
 public:
  explicit Draft(char fill = '\0', std::size_t capacity = 4096) : mWords(capacity / sizeof(nlmsghdr)) {
    std::memset(mWords.data(), fill, capacity);
  }

  nlmsghdr& Message() { return mWords.front(); }
  std::string Bytes(std::size_t begin, std::size_t end) const {
    const char* bytes = reinterpret_cast<const char*>(mWords.data());
    return {bytes + begin, bytes + end};
  }
  std::string Attributes() const { return Bytes(sizeof(nlmsghdr), length); }

  void Add(std::uint16_t type, const std::string& data) {
    AddAttribute(Message(), length, type, data.data(), static_cast<std::uint32_t>(data.size()));
  }

  std::uint32_t length = sizeof(nlmsghdr);

 private:
  std::vector<nlmsghdr> mWords;
};

TEST(AddAttribute, NameOfFourBytesHasLengthEightAndNoTerminator) {
  Draft draft;

  draft.Add(IFLA_IFNAME, "eth0");
  draft.Add(IFLA_MTU, U32(1500));

  EXPECT_EQ(draft.length, 32U);
  EXPECT_EQ(draft.Attributes(), U16(8) + U16(3) + "eth0" + U16(8) + U16(4) + U32(1500));
}

TEST(AddAttribute, TextIsFollowedByZerosUpToTheNextBoundary) {
  const std::string long14 = "fourteen-bytes";
  const std::string long15 = "fifteen-bytes-x";
  const struct {
    std::string text;
    std::string bytes;
  } cases[] = {
      {"", U16(4) + U16(3)},
      {"a", U16(5) + U16(3) + "a" + Nuls(3)},
      {"ab", U16(6) + U16(3) + "ab" + Nuls(2)},
      {"abc", U16(7) + U16(3) + "abc" + Nuls(1)},
      {"eth0", U16(8) + U16(3) + "eth0"},
      {"eth01", U16(9) + U16(3) + "eth01" + Nuls(3)},
      {long14, U16(18) + U16(3) + long14 + Nuls(2)},
      {long15, U16(19) + U16(3) + long15 + Nuls(1)},
  };
  for (const auto& c : cases) {
    Draft draft;

    draft.Add(IFLA_IFNAME, c.text);
    const std::uint32_t next = draft.length;
    draft.Add(0xABCD, "1234");

    EXPECT_EQ(next, 16 + c.bytes.size()) << c.text;
    EXPECT_EQ(draft.Attributes(), c.bytes + U16(8) + U16(0xABCD) + "1234") << c.text;
  }
}

TEST(AddAttribute, WithoutDataIsAHeaderAlone) {
  Draft draft('#');

  AddAttribute(draft.Message(), draft.length, IFLA_LINKINFO, nullptr, 0);

  EXPECT_EQ(draft.length, 20U);
  EXPECT_EQ(draft.Attributes(), U16(4) + U16(18));
  EXPECT_EQ(draft.Bytes(20, 40), std::string(20, '#'));
}

TEST(AddAttribute, StartsAtTheBoundaryBehindAnUnalignedLength) {
  for (const std::uint32_t length : {17U, 18U, 19U, 20U}) {
    Draft draft;
    draft.length = length;

    draft.Add(IFLA_MASTER, U32(7));

    EXPECT_EQ(draft.length, 28U) << length;
    EXPECT_EQ(draft.Attributes(), Nuls(4) + U16(8) + U16(10) + U32(7)) << length;
  }
}

TEST(AddAttribute, WritesNothingButHeaderAndData) {
  for (std::uint32_t length = 16; length < 20; ++length) {
    for (std::uint32_t size = 0; size < 40; ++size) {
      Draft draft('#');
      draft.length = length;
      const std::size_t start = length == 16 ? 16 : 20;
      const std::string data(size, 'd');

      draft.Add(IFLA_IFNAME, data);

      const std::string written = U16(4 + size) + U16(3) + data;
      EXPECT_EQ(draft.length, start + (written.size() + 3) / 4 * 4);
      EXPECT_EQ(draft.Bytes(0, start), std::string(start, '#'));
      EXPECT_EQ(draft.Bytes(start, start + written.size()), written);
      EXPECT_EQ(draft.Bytes(start + written.size(), 96), std::string(96 - start - written.size(), '#'));
    }
  }
}

TEST(AddAttribute, DataMayHoldNulBytes) {
  Draft draft;

  draft.Add(IFLA_ADDRESS, std::string("\0\x11\0\x33\0\x55", 6));

  EXPECT_EQ(draft.Attributes(), U16(10) + U16(1) + std::string("\0\x11\0\x33\0\x55\0\0", 8));
}

TEST(AddAttribute, LengthIsCutTo16BitsAndTheDataIsNot) {
  const struct {
    std::uint32_t size;
    unsigned attributeLength;
    std::uint32_t advance;
  } cases[] = {{65531, 65535, 65536}, {65532, 0, 0}, {65533, 1, 4}, {65536, 4, 4}, {65541, 9, 12}};
  for (const auto& c : cases) {
    Draft draft('\0', 65536 + 4096);
    const std::string data(c.size, 'd');

    draft.Add(IFLA_IFNAME, data);

    EXPECT_EQ(draft.length, 16 + c.advance) << c.size;
    EXPECT_EQ(draft.Bytes(16, 20), U16(c.attributeLength) + U16(3)) << c.size;
    EXPECT_TRUE(draft.Bytes(20, 20 + c.size) == data) << c.size;
    EXPECT_EQ(draft.Bytes(20 + c.size, 21 + c.size), kNul) << c.size;
  }
}

TEST(Nest, OfAVlanHas24Bytes) {
  Draft draft;
  const std::uint16_t id = 0x0102;

  const std::uint32_t info = BeginNest(draft.Message(), draft.length, IFLA_LINKINFO);
  draft.Add(IFLA_INFO_KIND, "vlan");
  const std::uint32_t data = BeginNest(draft.Message(), draft.length, IFLA_INFO_DATA);
  AddAttribute(draft.Message(), draft.length, IFLA_VLAN_ID, &id, sizeof id);
  EndNest(draft.Message(), draft.length, data);
  EndNest(draft.Message(), draft.length, info);

  EXPECT_EQ(draft.length, 40U);
  EXPECT_EQ(draft.Attributes(),
            U16(24) + U16(18) + U16(8) + U16(1) + "vlan" + U16(12) + U16(2) + U16(6) + U16(1) + U16(0x0102) + Nuls(2));
}

TEST(Nest, ReachesToTheEndOfThePaddedKind) {
  const struct {
    std::string kind;
    unsigned nestLength;
  } cases[] = {{"", 8}, {"a", 12}, {"tun", 12}, {"veth", 12}, {"dummy", 16}, {"bridge", 16}, {"fifteen-bytes-x", 24}};
  for (const auto& c : cases) {
    Draft draft;

    const std::uint32_t start = BeginNest(draft.Message(), draft.length, IFLA_LINKINFO);
    draft.Add(IFLA_INFO_KIND, c.kind);
    EndNest(draft.Message(), draft.length, start);

    std::string kind = U16(static_cast<unsigned>(4 + c.kind.size())) + U16(1) + c.kind;
    kind.resize(c.nestLength - 4, '\0');
    EXPECT_EQ(draft.Attributes(), U16(c.nestLength) + U16(18) + kind) << c.kind;
  }
}

TEST(Nest, StartsAtTheBoundaryBehindAnUnalignedLength) {
  Draft draft;
  draft.length = 21;

  const std::uint32_t start = BeginNest(draft.Message(), draft.length, IFLA_INFO_DATA);
  EndNest(draft.Message(), draft.length, start);

  EXPECT_EQ(start, 24U);
  EXPECT_EQ(draft.length, 28U);
  EXPECT_EQ(draft.Attributes(), Nuls(8) + U16(4) + U16(2));
}

TEST(Nest, EndWritesNothingButTheLength) {
  Draft draft('#');

  EndNest(draft.Message(), 52, 32);

  EXPECT_EQ(draft.Bytes(0, 64), std::string(32, '#') + U16(20) + std::string(30, '#'));
}

TEST(BuildNetlinkRequest, WritesHeaderPayloadAndAttributes) {
  RequestBuffer buffer;
  ifinfomsg payload{};
  payload.ifi_change = 0xFFFFFFFF;
  const std::uint32_t mtu = 1400;

  const std::uint32_t length = BuildNetlinkRequest(buffer, RTM_NEWLINK, kChangeFlags, sizeof payload, &payload,
                                                   [&mtu](nlmsghdr& message, std::uint32_t& used) {
                                                     AddAttribute(message, used, IFLA_IFNAME, "wan", 3);
                                                     AddAttribute(message, used, IFLA_MTU, &mtu, sizeof mtu);
                                                   });

  EXPECT_EQ(length, 48U);
  EXPECT_EQ(BytesOf(buffer, 0, length), U32(48) + U16(16) + U16(5) + U32(1) + U32(0) +  //
                                            Nuls(12) + U32(0xFFFFFFFF) +                //
                                            U16(7) + U16(3) + "wan" + kNul + U16(8) + U16(4) + U32(1400));
  EXPECT_EQ(BytesOf(buffer, length, sizeof buffer - length), Nuls(sizeof buffer - length));
}

TEST(BuildNetlinkRequest, TakesEveryPayloadVerbatim) {
  const std::string bytes = "0123456789abcdef";
  for (const std::uint32_t size : {8U, 12U, 16U}) {
    RequestBuffer buffer;
    std::uint32_t lengthGiven = 0;
    std::uint32_t lengthInHeader = 0;

    const std::uint32_t length = BuildNetlinkRequest(buffer, 0xFEDC, 0xBA98, size, bytes.data(),
                                                     [&](const nlmsghdr& message, const std::uint32_t& used) {
                                                       lengthGiven = used;
                                                       lengthInHeader = message.nlmsg_len;
                                                     });

    EXPECT_EQ(length, 16 + size);
    EXPECT_EQ(lengthGiven, 16 + size);
    EXPECT_EQ(lengthInHeader, 16 + size);
    EXPECT_EQ(BytesOf(buffer, 0, 40),
              U32(16 + size) + U16(0xFEDC) + U16(0xBA98) + U32(1) + U32(0) + bytes.substr(0, size) + Nuls(24 - size));
  }
}

TEST(BuildNetlinkRequest, HeaderTellsTheLengthThatTheFillerLeft) {
  RequestBuffer buffer;
  const std::string payload(8, 'p');

  const std::uint32_t length = BuildNetlinkRequest(buffer, RTM_NEWADDR, kCreateFlags, 8, payload.data(),
                                                   [](nlmsghdr& message, std::uint32_t& used) {
                                                     std::memcpy(reinterpret_cast<char*>(&message) + used, "raw", 3);
                                                     used += 3;
                                                   });

  EXPECT_EQ(length, 27U);
  EXPECT_EQ(BytesOf(buffer, 0, 28), U32(27) + U16(20) + U16(0x0605) + U32(1) + U32(0) + payload + "raw" + kNul);
}

TEST(BuildNetlinkRequest, OverwritesWhatTheFillerDidToTheLengthField) {
  RequestBuffer buffer;
  const std::string payload(8, 'p');

  (void)BuildNetlinkRequest(buffer, RTM_NEWADDR, kChangeFlags, 8, payload.data(),
                            [](nlmsghdr& message, std::uint32_t&) { message.nlmsg_len = 99; });

  EXPECT_EQ(BytesOf(buffer, 0, 4), U32(24));
}

TEST(BuildNetlinkRequest, EmptyFillerThrows) {
  RequestBuffer buffer;
  const std::string payload(8, 'p');

  EXPECT_THROW((void)BuildNetlinkRequest(buffer, RTM_NEWADDR, kChangeFlags, 8, payload.data(), AttributeFiller()),
               std::bad_function_call);
}

// The kernel acknowledges a request that asks for nothing, whoever sends it.
bool RequestNothing(const AttributeFiller& filler) {
  const ifinfomsg payload{};
  return NetlinkRequest(NLMSG_NOOP, kChangeFlags, sizeof payload, &payload, filler);
}

void AppendNothing(nlmsghdr& /*message*/, std::uint32_t& /*length*/) {}

TEST(NetlinkRequest, AcknowledgedRequestIsTrue) {
  const std::size_t before = test::CountOpenFds();
  int calls = 0;

  EXPECT_TRUE(RequestNothing([&calls](nlmsghdr&, std::uint32_t&) { ++calls; }));

  EXPECT_EQ(calls, 1);
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(NetlinkRequest, ChangeOfAnUnknownInterfaceIsFalse) {
  const std::size_t before = test::CountOpenFds();
  const ifinfomsg payload{};

  EXPECT_FALSE(
      NetlinkRequest(RTM_NEWLINK, kChangeFlags, sizeof payload, &payload, [](nlmsghdr& message, std::uint32_t& length) {
        AddAttribute(message, length, IFLA_IFNAME, "no-such-iface", 13);
      }));

  EXPECT_EQ(test::CountOpenFds(), before);
}

// The kernel answers with the interface first and acknowledges in a datagram of its own.
TEST(NetlinkRequest, OnlyTheFirstDatagramIsRead) {
  const std::size_t before = test::CountOpenFds();
  ifinfomsg payload{};
  payload.ifi_index = static_cast<int>(::if_nametoindex("lo"));

  EXPECT_FALSE(NetlinkRequest(RTM_GETLINK, kChangeFlags, sizeof payload, &payload, AppendNothing));

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(NetlinkRequest, SocketIsRawBoundWithoutGroupsAndClosedOnExec) {
  const int fd = test::NextFd();
  int flags = 0;
  int domain = 0;
  int type = 0;
  int protocol = -1;
  socklen_t size = sizeof(int);
  sockaddr_nl address{};
  socklen_t addressSize = sizeof address;

  EXPECT_TRUE(RequestNothing([&](nlmsghdr&, std::uint32_t&) {
    flags = ::fcntl(fd, F_GETFD);
    (void)::getsockopt(fd, SOL_SOCKET, SO_DOMAIN, &domain, &size);
    (void)::getsockopt(fd, SOL_SOCKET, SO_TYPE, &type, &size);
    (void)::getsockopt(fd, SOL_SOCKET, SO_PROTOCOL, &protocol, &size);
    (void)::getsockname(fd, reinterpret_cast<sockaddr*>(&address), &addressSize);
  }));

  EXPECT_EQ(flags, FD_CLOEXEC);
  EXPECT_EQ(domain, AF_NETLINK);
  EXPECT_EQ(type, SOCK_RAW);
  EXPECT_EQ(protocol, NETLINK_ROUTE);
  EXPECT_NE(address.nl_pid, 0U);
  EXPECT_EQ(address.nl_groups, 0U);
}

TEST(NetlinkRequest, EmptyFillerThrowsAndLeavesNoDescriptor) {
  const std::size_t before = test::CountOpenFds();

  EXPECT_THROW((void)RequestNothing(AttributeFiller()), std::bad_function_call);

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(NetlinkRequest, ThrowOfTheFillerPassesThroughAndLeavesNoDescriptor) {
  const std::size_t before = test::CountOpenFds();

  EXPECT_THROW((void)RequestNothing([](nlmsghdr&, std::uint32_t&) { throw std::length_error("filler"); }),
               std::length_error);

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(NetlinkRequest, WithoutASocketTheFillerIsNotCalled) {
  int calls = 0;
  bool result = true;
  int error = 0;
  {
    const test::NoNewDescriptors none;
    errno = 0;
    result = RequestNothing([&calls](nlmsghdr&, std::uint32_t&) { ++calls; });
    error = errno;
  }

  EXPECT_FALSE(result);
  EXPECT_EQ(error, EMFILE);
  EXPECT_EQ(calls, 0);
}

TEST(NetlinkRequest, ThreadsDoNotDisturbEachOther) {
  constexpr int kThreads = 4;
  constexpr int kRequests = 50;
  std::atomic<int> acknowledged{0};
  std::vector<std::thread> threads;

  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&acknowledged] {
      for (int n = 0; n < kRequests; ++n) {
        acknowledged += RequestNothing(AppendNothing) ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }

  EXPECT_EQ(acknowledged, kThreads * kRequests);
}

}  // namespace
}  // namespace kiv::net
