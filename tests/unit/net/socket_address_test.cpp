#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <sys/un.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <random>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

namespace kiv::net {
namespace {

static_assert(std::is_copy_constructible_v<UnixAddress> && std::is_copy_assignable_v<UnixAddress>);
static_assert(!std::is_polymorphic_v<UnixAddress>);
static_assert(std::is_standard_layout_v<UnixAddress>);
static_assert(offsetof(UnixAddress, mAddr) == 0 && offsetof(UnixAddress, mAddr) < offsetof(UnixAddress, mLen) &&
              offsetof(UnixAddress, mLen) < offsetof(UnixAddress, mValid));
static_assert(sizeof(sockaddr_un) == 110 && sizeof(sockaddr_in) == 16);

template <typename Address>
std::string BytesOf(const Address& addr) {
  return {reinterpret_cast<const char*>(&addr), sizeof addr};
}

// All 110 bytes of an address whose path field begins with `path`.
std::string UnixBytes(const std::string& path) {
  const sa_family_t family = AF_UNIX;
  std::string bytes(reinterpret_cast<const char*>(&family), sizeof family);
  bytes += path;
  bytes.resize(sizeof(sockaddr_un), '\0');
  return bytes;
}

template <typename Address>
Address Filled(char byte) {
  Address addr;
  std::memset(&addr, byte, sizeof addr);
  return addr;
}

TEST(UnixAddress, FileCountsFamilyAndPathWithoutTerminator) {
  const UnixAddress address("/run/x", false);

  EXPECT_TRUE(address.mValid);
  EXPECT_EQ(address.mLen, 8U);
  EXPECT_EQ(BytesOf(address.mAddr), UnixBytes("/run/x"));
}

TEST(UnixAddress, AbstractNameStandsBehindANul) {
  const UnixAddress address("name", true);

  EXPECT_TRUE(address.mValid);
  EXPECT_EQ(address.mLen, 7U);
  EXPECT_EQ(BytesOf(address.mAddr), UnixBytes(std::string("\0name", 5)));
}

TEST(UnixAddress, FileOf107BytesIsTheLongest) {
  const std::string path(107, 'p');
  const UnixAddress address(path, false);

  EXPECT_TRUE(address.mValid);
  EXPECT_EQ(address.mLen, 109U);
  EXPECT_EQ(BytesOf(address.mAddr), UnixBytes(path));
}

TEST(UnixAddress, FileOf108BytesIsInvalidWithTheFamilySet) {
  const UnixAddress address(std::string(108, 'p'), false);

  EXPECT_FALSE(address.mValid);
  EXPECT_EQ(address.mLen, 0U);
  EXPECT_EQ(BytesOf(address.mAddr), UnixBytes(""));
}

TEST(UnixAddress, AbstractNameOf106BytesIsTheLongest) {
  const std::string name(106, 'n');
  const UnixAddress address(name, true);

  EXPECT_TRUE(address.mValid);
  EXPECT_EQ(address.mLen, 109U);
  EXPECT_EQ(BytesOf(address.mAddr), UnixBytes('\0' + name));
}

TEST(UnixAddress, AbstractNameOf107BytesIsInvalidAlthoughItWouldFit) {
  const UnixAddress address(std::string(107, 'n'), true);

  EXPECT_FALSE(address.mValid);
  EXPECT_EQ(address.mLen, 0U);
  EXPECT_EQ(BytesOf(address.mAddr), UnixBytes(""));
}

TEST(UnixAddress, EmptyPathIsInvalidAndAllZero) {
  for (const bool abstract : {false, true}) {
    const UnixAddress address("", abstract);

    EXPECT_FALSE(address.mValid);
    EXPECT_EQ(address.mLen, 0U);
    EXPECT_EQ(BytesOf(address.mAddr), std::string(110, '\0'));
  }
}

TEST(UnixAddress, AbstractNameKeepsItsNulBytes) {
  const std::string name("\0a\0b\0", 5);
  const UnixAddress address(name, true);

  EXPECT_EQ(address.mLen, 8U);
  EXPECT_EQ(BytesOf(address.mAddr), UnixBytes('\0' + name));
}

TEST(UnixAddress, FileIsCutAtANulByte) {
  const UnixAddress address(std::string("/run/x\0tail", 11), false);

  EXPECT_TRUE(address.mValid);
  EXPECT_EQ(address.mLen, 8U);
  EXPECT_EQ(BytesOf(address.mAddr), UnixBytes("/run/x"));
}

TEST(UnixAddress, FileLengthIsCheckedBeforeTheCut) {
  EXPECT_FALSE(UnixAddress("/x" + std::string(106, '\0'), false).mValid);
  EXPECT_TRUE(UnixAddress("/x" + std::string(105, '\0'), false).mValid);
}

TEST(UnixAddress, FileThatBeginsWithANulHasNoPath) {
  const UnixAddress address(std::string("\0x", 2), false);

  EXPECT_TRUE(address.mValid);
  EXPECT_EQ(address.mLen, 2U);
  EXPECT_EQ(BytesOf(address.mAddr), UnixBytes(""));
}

TEST(SetUnixAddress, FillsAllBytesOfAFile) {
  auto addr = Filled<sockaddr_un>('?');

  EXPECT_TRUE(SetAddress(addr, "/run/x", false));

  EXPECT_EQ(BytesOf(addr), UnixBytes("/run/x"));
}

TEST(SetUnixAddress, FillsAllBytesOfAnAbstractName) {
  auto addr = Filled<sockaddr_un>('?');
  const std::string name("a\0b", 3);

  EXPECT_TRUE(SetAddress(addr, name, true));

  EXPECT_EQ(BytesOf(addr), UnixBytes('\0' + name));
}

TEST(SetUnixAddress, EmptyPathLeavesTheAddressUntouched) {
  for (const bool abstract : {false, true}) {
    auto addr = Filled<sockaddr_un>('?');

    EXPECT_FALSE(SetAddress(addr, "", abstract));

    EXPECT_EQ(BytesOf(addr), std::string(110, '?'));
  }
}

TEST(SetUnixAddress, HasTheLimitsOfUnixAddress) {
  sockaddr_un addr{};

  EXPECT_TRUE(SetAddress(addr, std::string(107, 'p'), false));
  EXPECT_EQ(BytesOf(addr), UnixBytes(std::string(107, 'p')));
  EXPECT_TRUE(SetAddress(addr, std::string(106, 'n'), true));
  EXPECT_EQ(BytesOf(addr), UnixBytes('\0' + std::string(106, 'n')));
}

TEST(SetUnixAddress, FileWithANulByteIsCutThere) {
  sockaddr_un addr{};
  EXPECT_TRUE(SetAddress(addr, std::string("/tmp/a\0b", 8), false));
  EXPECT_EQ(std::string(addr.sun_path, 9), std::string("/tmp/a\0\0\0", 9));
}

TEST(SetUnixAddress, TooLongLeavesTheFamilyAlone) {
  auto file = Filled<sockaddr_un>('?');
  auto abstractName = Filled<sockaddr_un>('?');

  EXPECT_FALSE(SetAddress(file, std::string(108, 'p'), false));
  EXPECT_FALSE(SetAddress(abstractName, std::string(107, 'n'), true));

  EXPECT_EQ(BytesOf(file), UnixBytes(""));
  EXPECT_EQ(BytesOf(abstractName), UnixBytes(""));
}

TEST(SetInetAddress, FillsAllBytesInNetworkOrder) {
  auto addr = Filled<sockaddr_in>('?');

  EXPECT_TRUE(SetAddress(addr, "1.2.3.4", 0x1234));

  EXPECT_EQ(addr.sin_family, AF_INET);
  EXPECT_EQ(BytesOf(addr).substr(2), std::string("\x12\x34\x01\x02\x03\x04\0\0\0\0\0\0\0\0", 14));
}

TEST(SetInetAddress, AnyAddressIsAnAddressLikeOthers) {
  auto addr = Filled<sockaddr_in>('?');

  EXPECT_TRUE(SetAddress(addr, "0.0.0.0", 80));

  EXPECT_EQ(addr.sin_addr.s_addr, INADDR_ANY);
}

TEST(SetInetAddress, RefusedTextStillWritesFamilyAndPort) {
  for (const char* text :
       {"", "1.2.3", "1.2.3.4.5", "256.1.1.1", "localhost", " 1.2.3.4", "1.2.3.4 ", "::1", "0x7f.1"}) {
    auto addr = Filled<sockaddr_in>('?');

    EXPECT_FALSE(SetAddress(addr, text, 8080)) << text;

    EXPECT_EQ(addr.sin_family, AF_INET);
    EXPECT_EQ(BytesOf(addr).substr(2), std::string("\x1F\x90", 2) + std::string(12, '\0')) << text;
  }
}

TEST(GetAddress, GivesTextAndPortInHostOrder) {
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_port = htons(8080);
  addr.sin_addr.s_addr = htonl(0xC0A80001);

  EXPECT_EQ(GetAddress(addr), std::make_pair(std::string("192.168.0.1"), static_cast<unsigned short>(8080)));
}

TEST(GetAddress, IsTheInverseOfSetAddress) {
  for (const char* text : {"0.0.0.0", "255.255.255.255", "127.0.0.1", "10.0.200.3"}) {
    for (const unsigned short port : std::vector<unsigned short>{0, 1, 80, 65535}) {
      sockaddr_in addr{};
      ASSERT_TRUE(SetAddress(addr, text, port));

      EXPECT_EQ(GetAddress(addr), std::make_pair(std::string(text), port));
    }
  }
}

TEST(IPtoN, GivesTheBytesInTheOrderOfTheText) {
  unsigned int value = 0;

  ASSERT_TRUE(IPtoN("1.2.3.4", value));

  EXPECT_EQ(BytesOf(value), "\x01\x02\x03\x04");
  EXPECT_EQ(value, htonl(0x01020304));
}

TEST(IPtoN, RefusedTextLeavesTheResultAsItWas) {
  for (const char* text : {"", "1.2.3", "1.2.3.4.5", "1.2.3.256", "1.2.3.x", "host", " 1.2.3.4", "::1"}) {
    unsigned int value = 0xDEADBEEF;

    EXPECT_FALSE(IPtoN(text, value)) << text;

    EXPECT_EQ(value, 0xDEADBEEF) << text;
  }
}

TEST(NtoIP, ReadsTheBytesInTheirOrder) {
  EXPECT_EQ(NtoIP(htonl(0x01020304)), "1.2.3.4");
  EXPECT_EQ(NtoIP(htonl(0x7F000001)), "127.0.0.1");
  EXPECT_EQ(NtoIP(0), "0.0.0.0");
  EXPECT_EQ(NtoIP(0xFFFFFFFF), "255.255.255.255");
}

TEST(NtoIP, IsTheInverseOfIPtoN) {
  std::mt19937 random(1);
  for (int i = 0; i < 1000; ++i) {
    const auto value = static_cast<std::uint32_t>(random());
    unsigned int parsed = ~value;

    ASSERT_TRUE(IPtoN(NtoIP(value), parsed));
    ASSERT_EQ(parsed, value);
  }
}

}  // namespace
}  // namespace kiv::net
