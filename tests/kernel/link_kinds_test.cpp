#include <kiv/net.h>

#include <string>
#include <utility>
#include <vector>

#include "tests/kernel/namespace.h"

// The kinds of interfaces that not every kernel has.
namespace kiv::net {
namespace {

using nlohmann::json;
using test::Flags;
using test::HasFlag;
using test::Ip;
using test::IpAccepts;
using test::IsUp;
using test::Link;
using test::LinkExists;
using test::MakeBridge;
using test::MakeVeth;
using test::OtherNamespace;
using test::Shell;

const std::string kLongestName = "fifteen-bytes-n";

std::string KindOf(const std::string& name) { return Link(name).at("linkinfo").at("info_kind").get<std::string>(); }

// The bridge or bond that an interface belongs to; empty when there is none.
std::string MasterOf(const std::string& name) { return Link(name).value("master", ""); }

// With these kinds, and a pair of Ethernet interfaces, down.
class KindsTest : public test::KernelTest {
 protected:
  explicit KindsTest(std::vector<std::string> kinds) : mKinds(std::move(kinds)) {}

  void SetUp() override {
    KernelTest::SetUp();
    for (const std::string& kind : mKinds) {
      if (IsReady() && !IsSkipped()) {
        NeedKind(kind);
      }
    }
    if (IsReady() && !IsSkipped()) {
      MakeVeth("eth0");
    }
  }

 private:
  std::vector<std::string> mKinds;
};

// ------------------------------------------------------------------------------------------------------------- dummy

class DummyKernel : public KindsTest {
 protected:
  DummyKernel() : KindsTest({"dummy"}) {}
};

using CreateDummyKernel = DummyKernel;

TEST_F(CreateDummyKernel, MakesADummy) {
  ASSERT_TRUE(CreateInterface("dummy7", "dummy"));
  EXPECT_EQ(KindOf("dummy7"), "dummy");
}

// Deliberate: every flag that can be cleared is, and that there is no ARP is one of them.
TEST_F(CreateDummyKernel, BeginsWithArpAsThoseOfIpDoNot) {
  (void)Shell("ip link add theirs type dummy");
  ASSERT_EQ(Flags("theirs"), json({"BROADCAST", "NOARP"}));

  ASSERT_TRUE(CreateInterface("ours", "dummy"));
  EXPECT_EQ(Flags("ours"), json({"BROADCAST"}));
}

TEST_F(CreateDummyKernel, IsChangedLikeAnyOther) {
  const OtherNamespace other;
  MakeBridge("br0");
  ASSERT_TRUE(CreateInterface(kLongestName, "dummy"));

  EXPECT_TRUE(SetMTU(kLongestName, 65535));
  EXPECT_TRUE(SetMAC(kLongestName, "02:00:00:00:00:07"));
  EXPECT_TRUE(SetInterfaceUp(kLongestName, true));
  EXPECT_TRUE(SetMaster(kLongestName, "br0"));
  const json link = Link(kLongestName);
  EXPECT_EQ(link.at("mtu"), 65535);
  EXPECT_EQ(link.at("address"), "02:00:00:00:00:07");
  EXPECT_EQ(link.at("master"), "br0");
  EXPECT_TRUE(IsUp(kLongestName));
  EXPECT_TRUE(MoveInterfaceToNetns(kLongestName, other.Pid()));
  EXPECT_FALSE(other.Link(kLongestName).is_null());
}

// -------------------------------------------------------------------------------------------------------------- vlan

class VlanKernel : public KindsTest {
 protected:
  VlanKernel() : KindsTest({"vlan"}) {}
};

using AddVlanWithKindKernel = VlanKernel;
using CreateVlanKernel = VlanKernel;
using DeleteVlanKernel = VlanKernel;
using MoveVlanKernel = VlanKernel;
using SetMasterVlanKernel = VlanKernel;
using SetMtuVlanKernel = VlanKernel;
using SetUpVlanKernel = VlanKernel;

// What ip makes of the same request, and takes away again; null when the kernel refuses it.
json VlanOfIp(const std::string& parent, int id) {
  if (!IpAccepts("link add link " + parent + " name theirs type vlan id " + std::to_string(id))) {
    return {};
  }
  json link = Link("theirs");
  (void)Shell("ip link delete theirs");
  return link;
}

TEST_F(AddVlanWithKindKernel, TagsAreWhatTheKernelTakes) {
  const struct {
    unsigned short id;
    bool accepted;
  } rows[] = {{0, true},    {1, true},     {255, true},   {256, true},   {258, true},
              {4094, true}, {4095, false}, {4096, false}, {8191, false}, {65535, false}};
  for (const auto& row : rows) {
    SCOPED_TRACE(row.id);
    const json theirs = VlanOfIp("eth0", row.id);

    EXPECT_EQ(AddVlan("eth0", row.id, "vlan"), row.accepted);
    EXPECT_EQ(theirs.is_null(), !row.accepted);
    ASSERT_EQ(LinkExists("vlan"), row.accepted);
    if (row.accepted) {
      const json ours = Link("vlan");
      EXPECT_EQ(ours.at("linkinfo").at("info_data").at("id"), row.id);
      EXPECT_EQ(ours.at("linkinfo"), theirs.at("linkinfo"));
      EXPECT_EQ(ours.at("link"), "eth0");
      EXPECT_TRUE(DeleteInterface("vlan"));
    }
  }
}

TEST_F(AddVlanWithKindKernel, RefusesATagThatTheParentHas) {
  ASSERT_TRUE(AddVlan("eth0", 7, "vlan7"));

  EXPECT_FALSE(AddVlan("eth0", 7, "other"));
  EXPECT_FALSE(AddVlan("eth0", 8, "vlan7"));
  EXPECT_TRUE(AddVlan("eth0", 8, kLongestName));
  EXPECT_TRUE(AddVlan("eth0-peer", 7, "other"));
  EXPECT_EQ(Link("vlan7").at("linkinfo").at("info_data").at("id"), 7);
}

TEST_F(AddVlanWithKindKernel, ClearsTheFlagsThatTheKindBegins) {
  ASSERT_TRUE(SetInterfaceUp("eth0", true));
  ASSERT_TRUE(HasFlag("eth0", "MULTICAST"));

  ASSERT_TRUE(AddVlan("eth0", 7, "vlan7"));
  EXPECT_EQ(Flags("vlan7"), json({"BROADCAST"}));
}

TEST_F(AddVlanWithKindKernel, RefusesAParentThatTakesNoTags) {
  EXPECT_TRUE(VlanOfIp("lo", 7).is_null());
  EXPECT_FALSE(AddVlan("lo", 7, "vlan7"));
  EXPECT_FALSE(LinkExists("vlan7"));
}

TEST_F(AddVlanWithKindKernel, GoesOnABridgeAndOnAnotherVlan) {
  MakeBridge("br0");

  EXPECT_TRUE(AddVlan("br0", 4094, "br0.4094"));
  EXPECT_TRUE(AddVlan("br0.4094", 1, "br0.4094.1"));
  EXPECT_EQ(Link("br0.4094").at("link"), "br0");
  EXPECT_EQ(Link("br0.4094.1").at("link"), "br0.4094");
}

TEST_F(CreateVlanKernel, RefusesAVlanWithoutParentAndTag) {
  EXPECT_FALSE(IpAccepts("link add theirs type vlan"));
  EXPECT_FALSE(CreateInterface("ours", "vlan"));
  EXPECT_FALSE(LinkExists("ours"));
}

TEST_F(DeleteVlanKernel, LeavesTheParentAndFreesTheTag) {
  ASSERT_TRUE(AddVlan("eth0", 7, "vlan7"));

  EXPECT_TRUE(DeleteInterface("vlan7"));
  EXPECT_FALSE(LinkExists("vlan7"));
  EXPECT_TRUE(LinkExists("eth0"));
  EXPECT_TRUE(AddVlan("eth0", 7, "again"));
}

TEST_F(DeleteVlanKernel, GoesWithItsParent) {
  ASSERT_TRUE(AddVlan("eth0", 7, "vlan7") && AddVlan("vlan7", 8, "inner"));

  EXPECT_TRUE(DeleteInterface("eth0"));
  EXPECT_EQ(Ip("link show").size(), 1U);
}

TEST_F(SetUpVlanKernel, NeedsAParentThatIsUp) {
  ASSERT_TRUE(AddVlan("eth0", 7, "vlan7"));

  EXPECT_FALSE(SetInterfaceUp("vlan7", true));
  EXPECT_FALSE(IsUp("vlan7"));
  ASSERT_TRUE(SetInterfaceUp("eth0", true));
  EXPECT_TRUE(SetInterfaceUp("vlan7", true));
  EXPECT_TRUE(IsUp("vlan7"));
  EXPECT_TRUE(SetInterfaceUp("eth0", false));
  EXPECT_FALSE(IsUp("vlan7"));
}

TEST_F(SetMtuVlanKernel, IsNotMoreThanThatOfTheParent) {
  ASSERT_TRUE(AddVlan("eth0", 7, "vlan7"));

  EXPECT_FALSE(SetMTU("vlan7", 1501));
  EXPECT_EQ(Link("vlan7").at("mtu"), 1500);
  EXPECT_TRUE(SetMTU("vlan7", 1400));
  EXPECT_EQ(Link("vlan7").at("mtu"), 1400);
  EXPECT_EQ(Link("eth0").at("mtu"), 1500);
}

// Deliberate: setting an MTU takes the interface down, and what lies on it goes down with it.
TEST_F(SetMtuVlanKernel, ThatOfTheParentTakesTheVlanDown) {
  ASSERT_TRUE(AddVlan("eth0", 7, "vlan7"));
  ASSERT_TRUE(SetInterfaceUp("eth0", true) && SetInterfaceUp("vlan7", true));

  EXPECT_TRUE(SetMTU("eth0", 1400));
  EXPECT_EQ(Link("vlan7").at("mtu"), 1400);
  EXPECT_FALSE(IsUp("eth0"));
  EXPECT_FALSE(IsUp("vlan7"));
}

TEST_F(SetMasterVlanKernel, MakesAPortOfABridgeAndReleasesIt) {
  MakeBridge("br0");
  ASSERT_TRUE(AddVlan("eth0", 7, "vlan7"));

  EXPECT_TRUE(SetMaster("vlan7", "br0"));
  EXPECT_EQ(MasterOf("vlan7"), "br0");
  EXPECT_EQ(MasterOf("eth0"), "");
  EXPECT_TRUE(UnsetMaster("vlan7"));
  EXPECT_EQ(MasterOf("vlan7"), "");
}

TEST_F(SetMasterVlanKernel, RefusesTheBridgeItLiesOn) {
  MakeBridge("br0");
  ASSERT_TRUE(AddVlan("br0", 7, "vlan7"));

  EXPECT_FALSE(SetMaster("vlan7", "br0"));
  EXPECT_EQ(MasterOf("vlan7"), "");
}

TEST_F(MoveVlanKernel, KeepsItsTagAndItsParent) {
  const OtherNamespace other;
  ASSERT_TRUE(AddVlan("eth0", 4094, "vlan") && SetInterfaceUp("eth0", true) && SetInterfaceUp("vlan", true));

  EXPECT_TRUE(MoveInterfaceToNetns("vlan", other.Pid()));

  EXPECT_FALSE(LinkExists("vlan"));
  ASSERT_FALSE(other.Link("vlan").is_null());
  EXPECT_EQ(other.Link("vlan").at("linkinfo").at("info_data").at("id"), 4094);
  EXPECT_TRUE(IsUp("eth0"));
  EXPECT_FALSE(AddVlan("eth0", 4094, "again")) << "the tag is in use, wherever its interface is";
  EXPECT_TRUE(DeleteInterface("eth0"));
  EXPECT_TRUE(other.Link("vlan").is_null());
}

// -------------------------------------------------------------------------------------------------------------- bond

class BondKernel : public KindsTest {
 protected:
  BondKernel() : KindsTest({"bond"}) {}

  void SetUp() override {
    KindsTest::SetUp();
    if (IsReady() && !IsSkipped()) {
      ASSERT_TRUE(CreateInterface("bond7", "bond"));
    }
  }
};

using CreateBondKernel = BondKernel;
using DeleteBondKernel = BondKernel;
using MoveBondKernel = BondKernel;
using SetMasterBondKernel = BondKernel;

TEST_F(CreateBondKernel, MakesABondWithoutTheFlagsThatTheKindBegins) {
  (void)Shell("ip link add theirs type bond");
  ASSERT_EQ(Flags("theirs"), json({"BROADCAST", "MULTICAST", "MASTER"}));

  EXPECT_EQ(KindOf("bond7"), "bond");
  EXPECT_EQ(Flags("bond7"), json({"BROADCAST", "MASTER"}));
}

TEST_F(SetMasterBondKernel, EnslavesToABondAndReleases) {
  EXPECT_TRUE(SetMaster("eth0", "bond7"));
  EXPECT_EQ(MasterOf("eth0"), "bond7");
  EXPECT_TRUE(HasFlag("eth0", "SLAVE"));
  EXPECT_TRUE(SetMaster("eth0-peer", "bond7"));
  EXPECT_EQ(MasterOf("eth0-peer"), "bond7");
  EXPECT_TRUE(UnsetMaster("eth0"));
  EXPECT_EQ(MasterOf("eth0"), "");
  EXPECT_FALSE(HasFlag("eth0", "SLAVE"));
  EXPECT_EQ(MasterOf("eth0-peer"), "bond7");
}

TEST_F(SetMasterBondKernel, RefusesWhatIsUp) {
  (void)Shell("ip link set eth0 up");

  EXPECT_FALSE(IpAccepts("link set eth0 master bond7"));
  EXPECT_FALSE(SetMaster("eth0", "bond7"));
  EXPECT_EQ(MasterOf("eth0"), "");
  EXPECT_TRUE(IsUp("eth0"));
}

TEST_F(SetMasterBondKernel, RefusesItselfAndLoopback) {
  EXPECT_FALSE(SetMaster("bond7", "bond7"));
  EXPECT_FALSE(SetMaster("lo", "bond7"));
  EXPECT_EQ(MasterOf("bond7"), "");
}

TEST_F(SetMasterBondKernel, MovesBetweenBridgeAndBond) {
  MakeBridge("br0");
  ASSERT_TRUE(SetMaster("eth0", "br0"));

  EXPECT_TRUE(SetMaster("eth0", "bond7"));
  EXPECT_EQ(MasterOf("eth0"), "bond7");
  EXPECT_TRUE(SetMaster("eth0", "br0"));
  EXPECT_EQ(MasterOf("eth0"), "br0");
}

TEST_F(SetMasterBondKernel, ABondIsAPortOfABridge) {
  MakeBridge("br0");
  ASSERT_TRUE(SetMaster("eth0", "bond7"));

  EXPECT_TRUE(SetMaster("bond7", "br0"));
  EXPECT_EQ(MasterOf("bond7"), "br0");
  EXPECT_EQ(MasterOf("eth0"), "bond7");
  EXPECT_TRUE(UnsetMaster("bond7"));
  EXPECT_EQ(MasterOf("bond7"), "");
}

TEST_F(DeleteBondKernel, ReleasesItsPorts) {
  ASSERT_TRUE(SetMaster("eth0", "bond7"));

  EXPECT_TRUE(DeleteInterface("bond7"));
  EXPECT_FALSE(LinkExists("bond7"));
  EXPECT_EQ(MasterOf("eth0"), "");
}

TEST_F(MoveBondKernel, StaysInItsNamespace) {
  const OtherNamespace other;

  EXPECT_FALSE(IpAccepts("link set bond7 netns " + std::to_string(other.Pid())));
  EXPECT_FALSE(MoveInterfaceToNetns("bond7", other.Pid()));
  EXPECT_TRUE(LinkExists("bond7"));
}

// ------------------------------------------------------------------------------------------------------- all of them

class StackedKernel : public KindsTest {
 protected:
  StackedKernel() : KindsTest({"vlan", "bond", "dummy"}) {}
};

TEST_F(StackedKernel, AVlanOnABondOfDummiesIsAPortOfABridge) {
  ASSERT_TRUE(CreateInterface("bond7", "bond"));
  for (const char* const port : {"dummy0", "dummy1"}) {
    ASSERT_TRUE(CreateInterface(port, "dummy"));
    EXPECT_TRUE(SetMaster(port, "bond7")) << port;
  }
  EXPECT_TRUE(AddVlan("bond7", 7, "bond7.7"));
  MakeBridge("br0");

  EXPECT_TRUE(SetMaster("bond7.7", "br0"));
  EXPECT_TRUE(SetInterfaceUp("bond7", true) && SetInterfaceUp("bond7.7", true) && SetInterfaceUp("br0", true));
  EXPECT_EQ(Link("bond7.7").at("link"), "bond7");
  EXPECT_EQ(MasterOf("bond7.7"), "br0");
  EXPECT_TRUE(IsUp("dummy0")) << "a bond takes its ports up";
}

}  // namespace
}  // namespace kiv::net
