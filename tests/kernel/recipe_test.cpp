#include "recipe.h"

#include <arpa/inet.h>
#include <kiv/net.h>

#include "tests/kernel/namespace.h"

namespace kiv::net {
namespace {

class AddressByIoctl : public test::KernelTest {};

TEST_F(AddressByIoctl, AssignsWhatTheRestOfTheLibraryWorksWith) {
  test::Shell("ip link add br0 type bridge");

  ASSERT_TRUE(::SetAddressByIoctl("br0", ::inet_addr("192.0.2.1"), ::inet_addr("255.255.255.0")));

  const auto addresses = GetInterfaceAddresses("br0");
  ASSERT_EQ(addresses.size(), 1U);
  EXPECT_EQ(addresses[0].address, "192.0.2.1");
  EXPECT_EQ(addresses[0].prefixLength, 24);
  EXPECT_TRUE(DeleteAddress("br0", "192.0.2.1", 24));
  EXPECT_TRUE(GetInterfaceAddresses("br0").empty());
}

TEST_F(AddressByIoctl, TakesALabelForAName) {
  test::Shell("ip link add br0 type bridge");

  ASSERT_TRUE(::SetAddressByIoctl("br0:1", ::inet_addr("192.0.2.1"), ::inet_addr("255.255.255.0")));

  EXPECT_EQ(test::Ip("-4 addr show dev br0").at(0).at("addr_info").at(0).at("label"), "br0:1");
}

TEST_F(AddressByIoctl, RefusesALongNameInsteadOfCuttingIt) {
  test::Shell("ip link add fifteen-bytes-n type bridge");

  EXPECT_FALSE(::SetAddressByIoctl("fifteen-bytes-nX", ::inet_addr("192.0.2.1"), ::inet_addr("255.255.255.0")));

  EXPECT_TRUE(GetInterfaceAddresses("fifteen-bytes-n").empty());
}

TEST_F(AddressByIoctl, ReportsAnUnknownInterface) {
  EXPECT_FALSE(::SetAddressByIoctl("nosuch", ::inet_addr("192.0.2.1"), ::inet_addr("255.255.255.0")));
}

}  // namespace
}  // namespace kiv::net
