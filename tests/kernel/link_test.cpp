#include <kiv/net.h>

#include "tests/kernel/namespace.h"

namespace kiv::net {
namespace {

using test::Link;

class CreateInterfaceKernel : public test::KernelTest {};

TEST_F(CreateInterfaceKernel, MakesABridge) {
  ASSERT_TRUE(CreateInterface("br0", "bridge"));
  EXPECT_EQ(Link("br0").at("linkinfo").at("info_kind"), "bridge");
}

}  // namespace
}  // namespace kiv::net
