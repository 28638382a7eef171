#include "net/netlink_walk.h"

#include <gtest/gtest.h>
#include <linux/rtnetlink.h>

#include <cstdint>
#include <cstring>
#include <limits>
#include <memory>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "tests/support.h"

namespace kiv::net {
namespace {

using test::AttributeBytes;
using test::MessageBytes;
using test::Octets;

constexpr std::size_t kNowhere = std::numeric_limits<std::size_t>::max();

// Bytes at a chosen distance from an aligned address, with nothing of this process right behind them.
class Placed {
 public:
  explicit Placed(const std::string& bytes, std::size_t distance = 0)
      : mBuffer(new char[distance + bytes.size()]), mView(mBuffer.get() + distance, bytes.size()) {
    std::memcpy(mBuffer.get() + distance, bytes.data(), bytes.size());
  }

  utils::StringView View() const { return mView; }

 private:
  std::unique_ptr<char[]> mBuffer;
  utils::StringView mView;
};

std::string Text(utils::StringView view) { return {view.Data(), view.Size()}; }

std::string ErrorBytes(std::int32_t error) { return MessageBytes(NLMSG_ERROR, Octets(error) + std::string(16, '\0')); }

const std::string kDone = MessageBytes(NLMSG_DONE, Octets(std::int32_t{0}));

// A message header that claims `length`, and `size - 16` bytes behind it.
std::string Claiming(std::uint32_t length, std::size_t size, std::uint16_t type = RTM_NEWROUTE) {
  std::string bytes = MessageBytes(type, std::string(size, '\0'));
  bytes.replace(0, 4, Octets(length));
  bytes.resize(size);
  return bytes;
}

std::string AttributeClaiming(unsigned length, std::size_t size) {
  std::string bytes = Octets(static_cast<std::uint16_t>(length)) + Octets(std::uint16_t{1}) + std::string(size, 'd');
  bytes.resize(size);
  return bytes;
}

TEST(ReadAt, TakesWhatLiesWithinAtAnyAddress) {
  for (std::size_t distance = 0; distance < 4; ++distance) {
    const Placed bytes("??" + Octets(std::uint32_t{0xA1B2C3D4}), distance);
    std::uint32_t value = 0;

    EXPECT_TRUE(ReadAt(bytes.View(), 2, value));

    EXPECT_EQ(value, 0xA1B2C3D4) << distance;
  }
}

TEST(ReadAt, LeavesTheValueWhenItDoesNotLieWithin) {
  const Placed bytes("123456");
  for (const std::size_t offset :
       {std::size_t{3}, std::size_t{5}, std::size_t{6}, std::size_t{7}, kNowhere - 3, kNowhere}) {
    std::uint32_t value = 42;

    EXPECT_FALSE(ReadAt(bytes.View(), offset, value)) << offset;

    EXPECT_EQ(value, 42U) << offset;
  }
}

TEST(ReadAt, FindsNothingInNothing) {
  char value = 'v';

  EXPECT_FALSE(ReadAt({}, 0, value));

  EXPECT_EQ(value, 'v');
}

TEST(Behind, DropsTheFirstBytes) {
  const Placed bytes("abcd");

  EXPECT_EQ(Behind(bytes.View(), 0).Data(), bytes.View().Data());
  EXPECT_EQ(Text(Behind(bytes.View(), 0)), "abcd");
  EXPECT_EQ(Text(Behind(bytes.View(), 1)), "bcd");
  EXPECT_EQ(Text(Behind(bytes.View(), 3)), "d");
}

TEST(Behind, LeavesNothingWhenThereAreFewer) {
  const Placed bytes("abcd");
  for (const std::size_t count : {std::size_t{4}, std::size_t{5}, kNowhere}) {
    EXPECT_TRUE(Behind(bytes.View(), count).Empty()) << count;
  }
  EXPECT_TRUE(Behind({}, 0).Empty());
}

TEST(NextMessage, GivesHeaderAndBytesAndStepsToTheNext) {
  const std::string first = MessageBytes(RTM_NEWROUTE, "payload5");
  const std::string second = MessageBytes(RTM_NEWADDR, "");
  for (std::size_t distance = 0; distance < 4; ++distance) {
    const Placed datagram(first + second, distance);
    utils::StringView rest = datagram.View();
    NetlinkMessage message;

    ASSERT_TRUE(NextMessage(rest, message));
    EXPECT_EQ(message.header.nlmsg_type, RTM_NEWROUTE);
    EXPECT_EQ(message.header.nlmsg_len, 24U);
    EXPECT_EQ(message.header.nlmsg_seq, 1U);
    EXPECT_EQ(Text(message.bytes), first);
    ASSERT_TRUE(NextMessage(rest, message));
    EXPECT_EQ(message.header.nlmsg_type, RTM_NEWADDR);
    EXPECT_EQ(Text(message.bytes), second);
    EXPECT_FALSE(NextMessage(rest, message));
  }
}

TEST(NextMessage, NextStartsAtTheBoundaryBehindTheLength) {
  for (const std::size_t extra : {0U, 1U, 2U, 3U, 4U}) {
    const std::string first = MessageBytes(RTM_NEWROUTE, std::string(extra, 'x'));
    const Placed datagram(first + kDone);
    utils::StringView rest = datagram.View();
    NetlinkMessage message;

    ASSERT_TRUE(NextMessage(rest, message));

    EXPECT_EQ(message.bytes.Size(), 16 + extra);
    EXPECT_EQ(rest.Data(), datagram.View().Data() + (extra == 0 ? 16 : 20)) << extra;
    EXPECT_EQ(Text(rest), kDone);
  }
}

TEST(NextMessage, LengthThatRoundsPastTheEndIsUsable) {
  for (const std::uint32_t length : {17U, 18U, 19U}) {
    const Placed datagram(Claiming(length, length));
    utils::StringView rest = datagram.View();
    NetlinkMessage message;

    EXPECT_TRUE(NextMessage(rest, message));

    EXPECT_EQ(message.bytes.Size(), length);
    EXPECT_TRUE(rest.Empty());
  }
}

TEST(NextMessage, LengthAbove16BitsIsTakenWhole) {
  for (const std::uint32_t length : {65533U, 65536U, 65537U}) {
    const Placed datagram(Claiming(length, 65540) + kDone);
    utils::StringView rest = datagram.View();
    NetlinkMessage message;

    ASSERT_TRUE(NextMessage(rest, message));

    EXPECT_EQ(message.bytes.Size(), length);
    EXPECT_EQ(rest.Data(), datagram.View().Data() + (length + 3) / 4 * 4) << length;
  }
}

void ExpectNoMessage(const std::string& bytes) {
  for (std::size_t distance = 0; distance < 4; ++distance) {
    const Placed datagram(bytes, distance);
    utils::StringView rest = datagram.View();
    NetlinkMessage message;
    message.header.nlmsg_type = 99;
    message.bytes = "untouched";

    EXPECT_FALSE(NextMessage(rest, message)) << bytes.size();

    EXPECT_EQ(rest.Data(), datagram.View().Data());
    EXPECT_EQ(rest.Size(), bytes.size());
    EXPECT_EQ(message.header.nlmsg_type, 99);
    EXPECT_EQ(Text(message.bytes), "untouched");
  }
}

TEST(NextMessage, FewerThan16BytesAreNone) {
  for (std::size_t size = 0; size < 16; ++size) {
    ExpectNoMessage(MessageBytes(RTM_NEWROUTE, "").substr(0, size));
    ExpectNoMessage(Claiming(static_cast<std::uint32_t>(size), size));
  }
}

TEST(NextMessage, LengthBelow16OrAboveTheRestIsNone) {
  for (const std::size_t size : {16U, 17U, 20U, 36U}) {
    const auto end = static_cast<std::uint32_t>(size);
    for (const std::uint32_t length :
         {0U, 1U, 4U, 15U, end + 1, end + 4, 0x7FFFFFFFU, 0x80000000U, 0xFFFFFFFCU, 0xFFFFFFFDU, 0xFFFFFFFFU}) {
      ExpectNoMessage(Claiming(length, size));
    }
  }
}

TEST(NextAttribute, GivesTypeAndDataAndStepsToTheNext) {
  const std::string bytes = AttributeBytes(RTA_DST, "1234") + AttributeBytes(0xFFFF, "5") + AttributeBytes(RTA_OIF, "");
  for (std::size_t distance = 0; distance < 4; ++distance) {
    const Placed attributes(bytes, distance);
    utils::StringView rest = attributes.View();
    NetlinkAttribute attribute;

    ASSERT_TRUE(NextAttribute(rest, attribute));
    EXPECT_EQ(attribute.type, RTA_DST);
    EXPECT_EQ(Text(attribute.data), "1234");
    ASSERT_TRUE(NextAttribute(rest, attribute));
    EXPECT_EQ(attribute.type, 0xFFFF);
    EXPECT_EQ(Text(attribute.data), "5");
    ASSERT_TRUE(NextAttribute(rest, attribute));
    EXPECT_EQ(attribute.type, RTA_OIF);
    EXPECT_EQ(attribute.data.Size(), 0U);
    EXPECT_FALSE(NextAttribute(rest, attribute));
  }
}

TEST(NextAttribute, LengthThatRoundsPastTheEndIsUsable) {
  for (const unsigned length : {5U, 6U, 7U}) {
    const Placed attributes(AttributeClaiming(length, length));
    utils::StringView rest = attributes.View();
    NetlinkAttribute attribute;

    EXPECT_TRUE(NextAttribute(rest, attribute));

    EXPECT_EQ(Text(attribute.data), std::string(length - 4, 'd'));
    EXPECT_TRUE(rest.Empty());
  }
}

TEST(NextAttribute, LargestLengthStepsBeyond16Bits) {
  const Placed attributes(AttributeClaiming(65535, 65536) + AttributeBytes(RTA_OIF, "next"));
  utils::StringView rest = attributes.View();
  NetlinkAttribute attribute;

  ASSERT_TRUE(NextAttribute(rest, attribute));
  EXPECT_EQ(attribute.data.Size(), 65531U);
  ASSERT_TRUE(NextAttribute(rest, attribute));
  EXPECT_EQ(Text(attribute.data), "next");
}

void ExpectNoAttribute(const std::string& bytes) {
  for (std::size_t distance = 0; distance < 4; ++distance) {
    const Placed attributes(bytes, distance);
    utils::StringView rest = attributes.View();
    NetlinkAttribute attribute;
    attribute.type = 99;
    attribute.data = "untouched";

    EXPECT_FALSE(NextAttribute(rest, attribute)) << bytes.size();

    EXPECT_EQ(rest.Data(), attributes.View().Data());
    EXPECT_EQ(rest.Size(), bytes.size());
    EXPECT_EQ(attribute.type, 99);
    EXPECT_EQ(Text(attribute.data), "untouched");
  }
}

TEST(NextAttribute, FewerThanFourBytesAreNone) {
  for (unsigned size = 0; size < 4; ++size) {
    ExpectNoAttribute(AttributeClaiming(4, size));
    ExpectNoAttribute(AttributeClaiming(size, size));
  }
}

TEST(NextAttribute, LengthBelowFourOrAboveTheRestIsNone) {
  for (const unsigned size : {4U, 5U, 8U, 12U}) {
    for (const unsigned length : {0U, 1U, 2U, 3U, size + 1, size + 4, 0x7FFFU, 0xFFFCU, 0xFFFFU}) {
      ExpectNoAttribute(AttributeClaiming(length, size));
    }
  }
}

TEST(IsAcknowledged, TheFirstErrorDecides) {
  const std::string route = MessageBytes(RTM_NEWROUTE, std::string(12, '\0'));
  const struct {
    const char* what;
    std::string datagram;
    bool acknowledged;
  } cases[] = {
      {"error 0", ErrorBytes(0), true},
      {"ENODEV", ErrorBytes(-19), false},
      {"a positive error", ErrorBytes(1), false},
      {"the smallest error", ErrorBytes(std::numeric_limits<std::int32_t>::min()), false},
      {"an error in its high byte alone", ErrorBytes(0x01000000), false},
      {"error 0 behind another message", route + ErrorBytes(0), true},
      {"an error behind two other messages", route + route + ErrorBytes(-1), false},
      {"an error behind error 0", ErrorBytes(0) + ErrorBytes(-1), true},
      {"error 0 behind an error", ErrorBytes(-1) + ErrorBytes(0), false},
      {"error 0 behind the end of a dump", kDone + ErrorBytes(0), true},
      {"other messages only", route + kDone, false},
      {"error 0 behind an unusable message", Claiming(15, 16) + ErrorBytes(0), false},
      {"error 0 behind a message that claims too much", Claiming(99, 16) + ErrorBytes(0), false},
      {"error 0 behind an unaligned message", Claiming(17, 20) + ErrorBytes(0), true},
      {"nothing", "", false},
  };
  for (const auto& c : cases) {
    for (std::size_t distance = 0; distance < 4; ++distance) {
      EXPECT_EQ(IsAcknowledged(Placed(c.datagram, distance).View()), c.acknowledged) << c.what;
    }
  }
}

TEST(IsAcknowledged, LooksAtTypeAndErrorAlone) {
  std::string datagram = ErrorBytes(0);
  datagram.replace(6, 10, std::string(10, '\xFF'));

  EXPECT_TRUE(IsAcknowledged(Placed(datagram).View()));
}

TEST(IsAcknowledged, ErrorWithoutRoomForItsCodeIsNone) {
  for (std::uint32_t length = 16; length < 20; ++length) {
    const Placed alone(Claiming(length, length, NLMSG_ERROR));
    const Placed beforeAnother(Claiming(length, length == 16 ? 16 : 20, NLMSG_ERROR) + ErrorBytes(0));

    EXPECT_FALSE(IsAcknowledged(alone.View())) << length;
    EXPECT_FALSE(IsAcknowledged(beforeAnother.View())) << length;
  }
  EXPECT_TRUE(IsAcknowledged(Placed(Claiming(20, 20, NLMSG_ERROR)).View()));
}

TEST(IsAcknowledged, DatagramShorterThan20BytesIsNone) {
  const std::string whole = Claiming(20, 20, NLMSG_ERROR);
  for (std::size_t size = 0; size < 20; ++size) {
    EXPECT_FALSE(IsAcknowledged(Placed(whole.substr(0, size)).View())) << size;
  }
  EXPECT_TRUE(IsAcknowledged(Placed(whole).View()));
}

TEST(IsAcknowledged, FirstLengthBelow16OrAboveTheDatagramIsNone) {
  for (const std::uint32_t length : {0U, 4U, 15U, 37U, 40U, 0x80000000U, 0xFFFFFFFFU}) {
    EXPECT_FALSE(IsAcknowledged(Placed(Claiming(length, 36, NLMSG_ERROR)).View())) << length;
  }
}

struct DumpPart {
  std::vector<std::string> taken;
  bool more;
};

bool operator==(const DumpPart& a, const DumpPart& b) { return a.taken == b.taken && a.more == b.more; }

std::ostream& operator<<(std::ostream& out, const DumpPart& part) {
  for (const std::string& bytes : part.taken) {
    out << testing::PrintToString(bytes) << ", ";
  }
  return out << (part.more ? "more" : "over");
}

DumpPart Walk(utils::StringView datagram) {
  DumpPart part{};
  part.more = WalkDump(datagram, [&part](const NetlinkMessage& message) { part.taken.push_back(Text(message.bytes)); });
  return part;
}

TEST(WalkDump, HandsOverTheMessagesUpToTheEnd) {
  const std::string a = MessageBytes(RTM_NEWROUTE, "aaaa");
  const std::string b = MessageBytes(RTM_NEWADDR, "bbbbbbbb");
  const std::string noop = MessageBytes(NLMSG_NOOP, "");
  const struct {
    const char* what;
    std::string datagram;
    DumpPart part;
  } cases[] = {
      {"nothing", "", {{}, true}},
      {"messages", a + b, {{a, b}, true}},
      {"every type but two", noop + a, {{noop, a}, true}},
      {"the end alone", kDone, {{}, false}},
      {"the end behind messages", a + b + kDone, {{a, b}, false}},
      {"messages behind the end", a + kDone + b, {{a}, false}},
      {"an end without a body", MessageBytes(NLMSG_DONE, "") + a, {{}, false}},
      {"error 0 alone", ErrorBytes(0), {{}, true}},
      {"error 0 in the middle", a + ErrorBytes(0) + b, {{a, b}, true}},
      {"an error in the middle", a + ErrorBytes(-4) + b, {{a}, false}},
      {"a positive error", a + ErrorBytes(4) + b, {{a}, false}},
      {"an error behind error 0", ErrorBytes(0) + ErrorBytes(-4) + a, {{}, false}},
      {"an error without its code", a + Claiming(16, 16, NLMSG_ERROR) + b, {{a}, false}},
      {"an error with half of its code", a + Claiming(18, 20, NLMSG_ERROR) + b, {{a}, false}},
      {"a length below 16", a + Claiming(15, 16) + b, {{a}, true}},
      {"a length above the rest", a + Claiming(999, 16) + b, {{a}, true}},
      {"an unusable end", a + Claiming(99, 20, NLMSG_DONE), {{a}, true}},
      {"an unusable error", a + Claiming(0, 20, NLMSG_ERROR), {{a}, true}},
      {"bytes that are no header", a + b.substr(0, 15), {{a}, true}},
  };
  for (const auto& c : cases) {
    for (std::size_t distance = 0; distance < 4; ++distance) {
      EXPECT_EQ(Walk(Placed(c.datagram, distance).View()), c.part) << c.what;
    }
  }
}

// The walk by positions instead of views: where the usable messages begin, and how long they are.
std::vector<std::pair<std::size_t, std::size_t>> Positions(const std::string& bytes) {
  std::vector<std::pair<std::size_t, std::size_t>> positions;
  std::size_t at = 0;
  while (at + 16 <= bytes.size()) {
    std::uint32_t length = 0;
    std::memcpy(&length, &bytes[at], sizeof length);
    if (length < 16 || length > bytes.size() - at) {
      break;
    }
    positions.emplace_back(at, length);
    at += (length + 3) / 4 * 4;
  }
  return positions;
}

std::uint16_t TypeAt(const std::string& bytes, std::size_t at) {
  std::uint16_t type = 0;
  std::memcpy(&type, &bytes[at + 4], sizeof type);
  return type;
}

bool IsErrorZeroAt(const std::string& bytes, std::size_t at, std::size_t length) {
  return length >= 20 && bytes.compare(at + 16, 4, std::string(4, '\0')) == 0;
}

DumpPart ExpectedDump(const std::string& bytes) {
  DumpPart part{{}, true};
  for (const auto& [at, length] : Positions(bytes)) {
    const std::uint16_t type = TypeAt(bytes, at);
    if (type == NLMSG_DONE || (type == NLMSG_ERROR && !IsErrorZeroAt(bytes, at, length))) {
      part.more = false;
      break;
    }
    if (type != NLMSG_ERROR) {
      part.taken.push_back(bytes.substr(at, length));
    }
  }
  return part;
}

bool ExpectedAcknowledgement(const std::string& bytes) {
  for (const auto& [at, length] : Positions(bytes)) {
    if (TypeAt(bytes, at) == NLMSG_ERROR) {
      return IsErrorZeroAt(bytes, at, length);
    }
  }
  return false;
}

// The attributes from `begin` on, each as its type and where its data begins and ends.
std::vector<std::string> ExpectedAttributes(const std::string& bytes, std::size_t begin) {
  std::vector<std::string> attributes;
  for (std::size_t at = begin; at + 4 <= bytes.size();) {
    std::uint16_t words[2];
    std::memcpy(words, &bytes[at], sizeof words);
    if (words[0] < 4 || at + words[0] > bytes.size()) {
      break;
    }
    attributes.push_back(std::to_string(words[1]) + ":" + bytes.substr(at + 4, words[0] - 4U));
    at += (words[0] + 3U) / 4 * 4;
  }
  return attributes;
}

std::vector<std::string> Attributes(utils::StringView message, std::size_t begin) {
  std::vector<std::string> attributes;
  utils::StringView rest = Behind(message, begin);
  for (NetlinkAttribute attribute; NextAttribute(rest, attribute);) {
    attributes.push_back(std::to_string(attribute.type) + ":" + Text(attribute.data));
  }
  return attributes;
}

// Everything the walkers say of `bytes`, wherever these lie, is what the positions say.
testing::AssertionResult WalksAsExpected(const std::string& bytes) {
  static std::size_t distance = 0;
  const Placed placed(bytes, ++distance % 4);
  const DumpPart expected = ExpectedDump(bytes);
  const DumpPart walked = Walk(placed.View());
  if (!(walked == expected)) {
    return testing::AssertionFailure() << "dump of " << testing::PrintToString(bytes) << ": " << walked << ", expected "
                                       << expected;
  }
  if (IsAcknowledged(placed.View()) != ExpectedAcknowledgement(bytes)) {
    return testing::AssertionFailure() << "acknowledgement of " << testing::PrintToString(bytes);
  }
  for (const std::size_t begin : {0U, 24U, 28U}) {
    if (Attributes(placed.View(), begin) != ExpectedAttributes(bytes, begin)) {
      return testing::AssertionFailure() << "attributes of " << testing::PrintToString(bytes) << " from " << begin;
    }
  }
  return testing::AssertionSuccess();
}

std::string Datagram() {
  rtmsg route{};
  route.rtm_family = AF_INET;
  ifaddrmsg address{};
  address.ifa_family = AF_INET;
  return MessageBytes(RTM_NEWROUTE, Octets(route) + AttributeBytes(RTA_DST, "\x0A\x01\x02\x03") +
                                        AttributeBytes(RTA_OIF, Octets(std::uint32_t{2}))) +
         ErrorBytes(0) +
         MessageBytes(RTM_NEWADDR, Octets(address) + AttributeBytes(IFA_LABEL, "eth0:1") +
                                       AttributeBytes(IFA_LOCAL, "\x0A\x01\x02\x03")) +
         ErrorBytes(-19) + kDone;
}

TEST(Walkers, AgreeWithPositionsOnEveryTruncation) {
  const std::string datagram = Datagram();
  for (std::size_t begin = 0; begin < datagram.size(); begin += 4) {
    for (std::size_t size = 0; size <= datagram.size() - begin; ++size) {
      ASSERT_TRUE(WalksAsExpected(datagram.substr(begin, size)));
    }
  }
}

TEST(Walkers, AgreeWithPositionsOnEveryBrokenByte) {
  const std::string datagram = Datagram();
  for (std::size_t i = 0; i < datagram.size(); ++i) {
    for (const int value : {0x00, 0x01, 0x02, 0x03, 0x04, 0x0F, 0x10, 0x11, 0x14, 0x24, 0x7F, 0x80, 0xFC, 0xFF}) {
      std::string broken = datagram;
      broken[i] = static_cast<char>(value);
      ASSERT_TRUE(WalksAsExpected(broken));
    }
  }
}

TEST(Walkers, AgreeWithPositionsOnManyBrokenBytes) {
  std::mt19937 random(2026);
  for (int round = 0; round < 5000; ++round) {
    std::string broken = Datagram();
    // Only few words are lengths and types; small values keep the walk going.
    const unsigned limit = round % 2 == 0 ? 40 : 256;
    for (unsigned changes = random() % 4; changes > 0; --changes) {
      const std::size_t place = random() % broken.size();
      broken[place] = static_cast<char>(random() % limit);
    }
    broken.resize(random() % (broken.size() + 1));
    ASSERT_TRUE(WalksAsExpected(broken));
  }
}

}  // namespace
}  // namespace kiv::net
