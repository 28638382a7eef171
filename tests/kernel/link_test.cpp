#include <fcntl.h>
#include <kiv/net.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string>
#include <thread>
#include <vector>

#include "tests/kernel/namespace.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
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
const std::string kTooLong = "sixteen-bytes-na";

std::string Mac(const std::string& name) { return Link(name).at("address").get<std::string>(); }

// A bridge with every flag on that a request can switch.
void MakeFlaggedBridge(const std::string& name) {
  MakeBridge(name);
  (void)Shell("ip link set " + name + " up multicast on promisc on allmulticast on dynamic on arp off");
  ASSERT_TRUE(HasFlag(name, "UP") && HasFlag(name, "MULTICAST") && HasFlag(name, "PROMISC") &&
              HasFlag(name, "ALLMULTI") && HasFlag(name, "DYNAMIC") && HasFlag(name, "NOARP"));
}

UniqueFd OpenForReading(const std::string& path) { return UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)); }

UniqueFd NamespaceOf(const OtherNamespace& other) {
  return OpenForReading("/proc/" + std::to_string(other.Pid()) + "/ns/net");
}

pid_t EndedProcess() {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::_exit(0);
  }
  (void)::waitpid(pid, nullptr, 0);
  return pid;
}

class CreateInterfaceKernel : public test::KernelTest {};
class DeleteInterfaceKernel : public test::KernelTest {};
class AddVlanKernel : public test::KernelTest {};
class SetInterfaceUpKernel : public test::KernelTest {};
class SetMtuKernel : public test::KernelTest {};
class SetMacKernel : public test::KernelTest {};
class SetMasterKernel : public test::KernelTest {};
class UnsetMasterKernel : public test::KernelTest {};
class MoveInterfaceToNetnsKernel : public test::KernelTest {};
class MoveInterfaceToNetnsFdKernel : public test::KernelTest {};
class SetInterfaceMulticastKernel : public test::KernelTest {};
class SetInterfacePromiscuousKernel : public test::KernelTest {};
class InterfaceExistsKernel : public test::KernelTest {};
class GetInterfaceIndexKernel : public test::KernelTest {};
class LinkOperationsKernel : public test::KernelTest {};

TEST_F(CreateInterfaceKernel, MakesABridge) {
  ASSERT_TRUE(CreateInterface("br0", "bridge"));
  EXPECT_EQ(Link("br0").at("linkinfo").at("info_kind"), "bridge");
}

TEST_F(CreateInterfaceKernel, AnswersForEveryKindAsTheKernelAnswersIp) {
  for (const std::string kind : {"bridge", "veth", "ifb", "dummy", "bond", "vlan", "macvlan", "vxlan", "nosuch"}) {
    const bool accepted = IpAccepts("link add theirs type " + kind);

    EXPECT_EQ(CreateInterface("ours", kind), accepted) << kind;
    EXPECT_EQ(LinkExists("ours"), accepted) << kind;
    if (accepted) {
      EXPECT_EQ(Link("ours").at("linkinfo").at("info_kind"), kind);
      (void)Shell("ip link delete ours; ip link delete theirs");
    }
  }
}

TEST_F(CreateInterfaceKernel, AVethComesWithItsPeer) {
  ASSERT_TRUE(CreateInterface("left", "veth"));

  EXPECT_EQ(Link("left").at("linkinfo").at("info_kind"), "veth");
  EXPECT_EQ(Ip("link show type veth").size(), 2U);
}

TEST_F(CreateInterfaceKernel, ClearsTheFlagsThatTheKindBegins) {
  MakeBridge("theirs");
  ASSERT_EQ(Flags("theirs"), json({"BROADCAST", "MULTICAST"}));

  ASSERT_TRUE(CreateInterface("ours", "bridge"));
  EXPECT_EQ(Flags("ours"), json({"BROADCAST"}));
}

TEST_F(CreateInterfaceKernel, RefusesAnExistingName) {
  MakeBridge("br0");
  const json before = Link("br0");

  EXPECT_FALSE(CreateInterface("br0", "bridge"));
  EXPECT_FALSE(CreateInterface("br0", "ifb"));
  EXPECT_FALSE(CreateInterface("lo", "bridge"));
  EXPECT_EQ(Link("br0").at("ifindex"), before.at("ifindex"));
  EXPECT_EQ(Flags("br0"), before.at("flags"));
}

TEST_F(CreateInterfaceKernel, AFifteenByteNameIsTakenWhole) {
  ASSERT_TRUE(CreateInterface(kLongestName, "bridge"));
  EXPECT_TRUE(LinkExists(kLongestName));
}

TEST_F(CreateInterfaceKernel, RefusesASixteenByteName) {
  EXPECT_FALSE(CreateInterface(kTooLong, "bridge"));
  EXPECT_EQ(Ip("link show").size(), 1U);
}

TEST_F(CreateInterfaceKernel, AnEmptyNameIsRefusedByTheKernel) {
  EXPECT_FALSE(CreateInterface("", "bridge"));
  EXPECT_EQ(Ip("link show").size(), 1U);
}

TEST_F(CreateInterfaceKernel, TheKernelCompletesANamePattern) {
  EXPECT_TRUE(CreateInterface("br%d", "bridge"));
  EXPECT_TRUE(CreateInterface("br%d", "bridge"));
  EXPECT_TRUE(LinkExists("br0"));
  EXPECT_TRUE(LinkExists("br1"));
}

TEST_F(CreateInterfaceKernel, RefusesKindsThatTheKernelCannotKnow) {
  for (const std::string& kind : {std::string(), std::string("bridg"), std::string("bridgebridge"),
                                  std::string(100, 'k'), std::string(5000, 'k')}) {
    EXPECT_FALSE(CreateInterface("br0", kind)) << kind.size() << " bytes";
  }
  EXPECT_FALSE(LinkExists("br0"));
}

TEST_F(CreateInterfaceKernel, RefusesNamesThatTheKernelRefuses) {
  for (const char* const name : {"a/b", "a b", ".", "..", "a:b"}) {
    EXPECT_FALSE(CreateInterface(name, "bridge")) << name;
  }
  EXPECT_EQ(Ip("link show").size(), 1U);
}

TEST_F(DeleteInterfaceKernel, DeletesTheOneNamed) {
  MakeBridge("br0");
  MakeBridge("br1");
  MakeBridge(kLongestName);

  EXPECT_TRUE(DeleteInterface("br0"));
  EXPECT_FALSE(LinkExists("br0"));
  EXPECT_TRUE(LinkExists("br1"));
  EXPECT_TRUE(DeleteInterface(kLongestName));
  EXPECT_FALSE(LinkExists(kLongestName));
}

TEST_F(DeleteInterfaceKernel, DeletesAVethWithItsPeer) {
  MakeVeth("eth0");

  EXPECT_TRUE(DeleteInterface("eth0-peer"));
  EXPECT_FALSE(LinkExists("eth0"));
}

TEST_F(DeleteInterfaceKernel, RefusesWhatIsNotThereOrNotVirtual) {
  EXPECT_FALSE(DeleteInterface("nosuch"));
  EXPECT_FALSE(DeleteInterface(""));
  EXPECT_FALSE(DeleteInterface("lo"));
  EXPECT_TRUE(LinkExists("lo"));
}

TEST_F(AddVlanKernel, RefusesAnUnknownParentAndALongName) {
  MakeBridge("parent");

  EXPECT_FALSE(AddVlan("nosuch", 1, "vlan1"));
  EXPECT_FALSE(AddVlan("", 1, "vlan1"));
  EXPECT_FALSE(AddVlan("parent", 1, kTooLong));
  EXPECT_EQ(Ip("link show").size(), 2U);
}

TEST_F(AddVlanKernel, RefusesAnExistingName) {
  MakeBridge("parent");

  EXPECT_FALSE(AddVlan("parent", 1, "parent"));
  EXPECT_EQ(Link("parent").at("linkinfo").at("info_kind"), "bridge");
}

TEST_F(SetInterfaceUpKernel, SwitchesUpAndDown) {
  MakeBridge("br0");

  EXPECT_TRUE(SetInterfaceUp("br0", true));
  EXPECT_TRUE(IsUp("br0"));
  EXPECT_TRUE(SetInterfaceUp("br0", true));
  EXPECT_TRUE(IsUp("br0"));
  EXPECT_TRUE(SetInterfaceUp("br0", false));
  EXPECT_FALSE(IsUp("br0"));
  EXPECT_TRUE(SetInterfaceUp("br0", false));
}

TEST_F(SetInterfaceUpKernel, LeavesEveryOtherFlag) {
  MakeFlaggedBridge("br0");

  EXPECT_TRUE(SetInterfaceUp("br0", false));
  EXPECT_EQ(Flags("br0"), json({"BROADCAST", "MULTICAST", "NOARP", "ALLMULTI", "PROMISC", "DYNAMIC"}));
}

TEST_F(SetMtuKernel, SetsTheWholeRangeThatTheKernelTakes) {
  MakeBridge("br0");
  for (const int mtu : {68, 255, 256, 1400, 65535}) {
    EXPECT_TRUE(SetMTU("br0", static_cast<unsigned short>(mtu))) << mtu;
    EXPECT_EQ(Link("br0").at("mtu"), mtu);
  }
}

TEST_F(SetMtuKernel, RefusesWhatTheKernelRefuses) {
  MakeBridge("br0");

  EXPECT_FALSE(SetMTU("br0", 0));
  EXPECT_FALSE(SetMTU("br0", 67));
  EXPECT_EQ(Link("br0").at("mtu"), 1500);
}

TEST_F(SetMtuKernel, TakesAnInterfaceThatIsUpDownAndClearsItsFlags) {
  MakeFlaggedBridge("br0");

  EXPECT_TRUE(SetMTU("br0", 1400));
  EXPECT_EQ(Flags("br0"), json({"BROADCAST"}));
  EXPECT_EQ(Link("br0").at("mtu"), 1400);
}

TEST_F(SetMtuKernel, AnUnchangedMtuTakesTheInterfaceDownToo) {
  MakeFlaggedBridge("br0");

  EXPECT_TRUE(SetMTU("br0", 1500));
  EXPECT_EQ(Flags("br0"), json({"BROADCAST"}));
}

TEST_F(SetMacKernel, SetsTheSixBytesInOrder) {
  const struct {
    const char* text;
    const char* mac;
  } rows[] = {{"00:11:22:33:44:55", "00:11:22:33:44:55"},
              {"02:aB:Cd:EF:fe:09", "02:ab:cd:ef:fe:09"},
              {" 2: a:+b:+F: 0:+0", "02:0a:0b:0f:00:00"},
              {"fe:ff:ff:ff:ff:ff", "fe:ff:ff:ff:ff:ff"}};
  MakeBridge("br0");
  for (const auto& row : rows) {
    EXPECT_TRUE(SetMAC("br0", row.text)) << row.text;
    EXPECT_EQ(Mac("br0"), row.mac);
  }
}

TEST_F(SetMacKernel, RefusesMalformedTextAndChangesNothing) {
  MakeFlaggedBridge("br0");
  const std::string before = Mac("br0");
  for (const char* const text :
       {"", "00-11-22-33-44-55", "0011.2233.4455", "0:11:22:33:44:55", "00:11:22:33:44:5g", "00:11:22:33:44:555",
        "00:11:22:33:44-55", "00:11:22:33:44", "g0:11:22:33:44:55", "0x:11:22:33:44:55", "0 :11:22:33:44:55"}) {
    EXPECT_FALSE(SetMAC("br0", text)) << text;
  }
  EXPECT_EQ(Mac("br0"), before);
  EXPECT_TRUE(IsUp("br0"));
}

TEST_F(SetMacKernel, RefusesAddressesThatTheKernelRefuses) {
  MakeBridge("br0");
  const std::string before = Mac("br0");

  EXPECT_FALSE(SetMAC("br0", "01:00:00:00:00:01"));
  EXPECT_FALSE(SetMAC("br0", "00:00:00:00:00:00"));
  EXPECT_EQ(Mac("br0"), before);
}

TEST_F(SetMacKernel, TakesAnInterfaceThatIsUpDownAndClearsItsFlags) {
  MakeFlaggedBridge("br0");

  EXPECT_TRUE(SetMAC("br0", "02:00:00:00:00:01"));
  EXPECT_EQ(Flags("br0"), json({"BROADCAST"}));
  EXPECT_EQ(Mac("br0"), "02:00:00:00:00:01");
}

TEST_F(SetMasterKernel, MakesAPortAndMovesIt) {
  MakeBridge("br0");
  MakeBridge("br1");
  MakeVeth("eth0");

  EXPECT_TRUE(SetMaster("eth0", "br0"));
  EXPECT_EQ(Link("eth0").at("master"), "br0");
  EXPECT_TRUE(SetMaster("eth0", "br1"));
  EXPECT_EQ(Link("eth0").at("master"), "br1");
}

TEST_F(SetMasterKernel, LeavesTheFlags) {
  MakeBridge("br0");
  MakeVeth("eth0");
  (void)Shell("ip link set eth0 up multicast off");

  EXPECT_TRUE(SetMaster("eth0", "br0"));
  EXPECT_TRUE(IsUp("eth0"));
  EXPECT_FALSE(HasFlag("eth0", "MULTICAST"));
}

TEST_F(SetMasterKernel, RefusesWhatIsNoMaster) {
  MakeBridge("br0");
  MakeVeth("eth0");

  for (const char* const master : {"nosuch", "", "lo", "eth0", "eth0-peer"}) {
    EXPECT_FALSE(SetMaster("eth0", master)) << master;
  }
  EXPECT_FALSE(SetMaster("br0", "br0"));
  EXPECT_FALSE(SetMaster("lo", "br0"));
  EXPECT_FALSE(Link("eth0").contains("master"));
}

// The kernel takes the port from its old master before it asks the new one.
TEST_F(SetMasterKernel, ARefusedMoveLeavesThePortWithoutMaster) {
  MakeBridge("br0");
  MakeVeth("eth0");
  ASSERT_TRUE(SetMaster("eth0", "br0"));

  EXPECT_FALSE(SetMaster("eth0", "nosuch")) << "nothing is sent";
  EXPECT_EQ(Link("eth0").at("master"), "br0");
  EXPECT_FALSE(SetMaster("eth0", "lo"));
  EXPECT_FALSE(Link("eth0").contains("master"));
}

TEST_F(UnsetMasterKernel, ReleasesAPort) {
  MakeBridge("br0");
  MakeVeth("eth0");
  (void)Shell("ip link set eth0 master br0 && ip link set eth0 up");

  EXPECT_TRUE(UnsetMaster("eth0"));
  EXPECT_FALSE(Link("eth0").contains("master"));
  EXPECT_TRUE(IsUp("eth0"));
  EXPECT_TRUE(UnsetMaster("eth0"));
}

TEST_F(MoveInterfaceToNetnsKernel, MovesToTheNamespaceOfAProcess) {
  const OtherNamespace other;
  MakeVeth("eth0");

  EXPECT_TRUE(MoveInterfaceToNetns("eth0", other.Pid()));
  EXPECT_FALSE(LinkExists("eth0"));
  EXPECT_TRUE(LinkExists("eth0-peer"));
  EXPECT_FALSE(other.Link("eth0").is_null());
}

TEST_F(MoveInterfaceToNetnsKernel, RefusesAProcessThatIsNotThere) {
  MakeVeth("eth0");
  for (const int pid : {EndedProcess(), 0, -1}) {
    EXPECT_FALSE(MoveInterfaceToNetns("eth0", pid)) << pid;
    EXPECT_EQ(errno, ENOENT) << pid;
  }
  EXPECT_TRUE(LinkExists("eth0"));
}

TEST_F(MoveInterfaceToNetnsKernel, RefusesWhatTheKernelRefuses) {
  const OtherNamespace other;
  MakeVeth("eth0");

  EXPECT_FALSE(MoveInterfaceToNetns("nosuch", other.Pid()));
  EXPECT_FALSE(MoveInterfaceToNetns("lo", other.Pid()));
  EXPECT_TRUE(LinkExists("lo"));
}

TEST_F(MoveInterfaceToNetnsFdKernel, MovesAndLeavesTheDescriptorOpen) {
  const OtherNamespace other;
  const UniqueFd fd = NamespaceOf(other);
  MakeVeth(kLongestName.substr(0, 10));
  MakeVeth("eth1");

  EXPECT_TRUE(MoveInterfaceToNetnsFd(kLongestName.substr(0, 10) + "-peer", fd.Get()));
  EXPECT_TRUE(test::IsOpen(fd.Get()));
  EXPECT_TRUE(MoveInterfaceToNetnsFd("eth1", fd.Get()));
  EXPECT_FALSE(LinkExists("eth1"));
  EXPECT_FALSE(other.Link("eth1").is_null());
  EXPECT_FALSE(other.Link(kLongestName.substr(0, 10) + "-peer").is_null());
}

TEST_F(MoveInterfaceToNetnsFdKernel, RefusesANameThatIsTakenThere) {
  const OtherNamespace other;
  const UniqueFd fd = NamespaceOf(other);
  MakeVeth("eth0");
  ASSERT_TRUE(MoveInterfaceToNetnsFd("eth0", fd.Get()));
  (void)Shell("ip link add eth0 type veth peer name eth1");

  EXPECT_FALSE(MoveInterfaceToNetnsFd("eth0", fd.Get()));
  EXPECT_TRUE(LinkExists("eth0"));
}

TEST_F(MoveInterfaceToNetnsFdKernel, RefusesADescriptorThatIsNoNetworkNamespace) {
  const UniqueFd null = OpenForReading("/dev/null");
  const UniqueFd uts = OpenForReading("/proc/self/ns/uts");
  MakeVeth("eth0");
  for (const int fd : {null.Get(), uts.Get(), -1, 1 << 20}) {
    EXPECT_FALSE(MoveInterfaceToNetnsFd("eth0", fd)) << fd;
  }
  EXPECT_TRUE(test::IsOpen(null.Get()));
  EXPECT_TRUE(test::IsOpen(uts.Get()));
  EXPECT_TRUE(LinkExists("eth0"));
}

TEST_F(SetInterfaceMulticastKernel, SwitchesThisFlagAlone) {
  MakeFlaggedBridge("br0");

  EXPECT_TRUE(SetInterfaceMulticast("br0", false));
  EXPECT_FALSE(HasFlag("br0", "MULTICAST"));
  EXPECT_TRUE(IsUp("br0"));
  EXPECT_TRUE(HasFlag("br0", "PROMISC"));
  EXPECT_TRUE(SetInterfaceMulticast("br0", true));
  EXPECT_TRUE(HasFlag("br0", "MULTICAST"));
  EXPECT_TRUE(IsUp("br0"));
}

TEST_F(SetInterfacePromiscuousKernel, SwitchesThisFlagAlone) {
  MakeFlaggedBridge("br0");
  (void)Shell("ip link set br0 promisc off");

  EXPECT_TRUE(SetInterfacePromiscuous("br0", true));
  EXPECT_TRUE(SetInterfacePromiscuous("br0", true));
  EXPECT_EQ(Link("br0").at("promiscuity"), 1);
  EXPECT_TRUE(HasFlag("br0", "MULTICAST"));
  EXPECT_TRUE(SetInterfacePromiscuous("br0", false));
  EXPECT_EQ(Link("br0").at("promiscuity"), 0);
  EXPECT_TRUE(IsUp("br0"));
}

TEST_F(InterfaceExistsKernel, FollowsWhatIpShows) {
  EXPECT_TRUE(InterfaceExists("lo"));
  EXPECT_FALSE(InterfaceExists(kLongestName));
  MakeBridge(kLongestName);
  EXPECT_TRUE(InterfaceExists(kLongestName));
  EXPECT_FALSE(InterfaceExists("fifteen"));
  (void)Shell("ip link delete " + kLongestName);
  EXPECT_FALSE(InterfaceExists(kLongestName));
}

TEST_F(InterfaceExistsKernel, ANameIsAPathBelowTheFolder) {
  EXPECT_TRUE(InterfaceExists("lo/address"));
  EXPECT_TRUE(InterfaceExists("../net/lo"));
  EXPECT_FALSE(InterfaceExists("lo/nosuch"));
  EXPECT_TRUE(InterfaceExists(""));
}

TEST_F(GetInterfaceIndexKernel, IsWhatIpShows) {
  MakeBridge("br0");
  MakeBridge(kLongestName);
  for (const std::string& name : {std::string("lo"), std::string("br0"), kLongestName}) {
    EXPECT_EQ(GetInterfaceIndex(name), Link(name).at("ifindex")) << name;
  }
}

TEST_F(GetInterfaceIndexKernel, AnAliasHasTheIndexOfItsInterface) {
  MakeBridge("br0");
  EXPECT_EQ(GetInterfaceIndex("br0:1"), Link("br0").at("ifindex"));
}

TEST_F(GetInterfaceIndexKernel, IsZeroForWhatIsNotThere) {
  for (const std::string& name : {std::string("nosuch"), std::string(), kTooLong, std::string("l")}) {
    EXPECT_EQ(GetInterfaceIndex(name), 0U) << name;
  }
}

// Every operation that changes the interface `name`, with arguments that suit a bridge.
std::vector<bool> ChangeInEveryWay(const std::string& name) {
  return {SetInterfaceUp(name, true),
          SetMTU(name, 1400),
          SetMAC(name, "02:00:00:00:00:01"),
          SetMaster(name, "switch"),
          UnsetMaster(name),
          MoveInterfaceToNetns(name, ::getpid()),
          MoveInterfaceToNetnsFd(name, OpenForReading("/proc/self/ns/net").Get()),
          SetInterfaceMulticast(name, true),
          SetInterfacePromiscuous(name, true),
          DeleteInterface(name)};
}

TEST_F(LinkOperationsKernel, AnUnknownEmptyOrLongNameIsRefused) {
  MakeBridge("switch");
  for (const std::string& name : {std::string("nosuch"), std::string(), kTooLong, std::string(4000, 'n')}) {
    EXPECT_EQ(ChangeInEveryWay(name), std::vector<bool>(10, false)) << name.size() << " bytes";
  }
}

TEST_F(LinkOperationsKernel, AnInterfaceIsNotFoundByTheBeginningOfItsName) {
  MakeBridge("switch");
  MakeBridge(kLongestName);
  const json before = Link(kLongestName);

  EXPECT_EQ(ChangeInEveryWay("fifteen"), std::vector<bool>(10, false));
  EXPECT_EQ(ChangeInEveryWay(kLongestName + "e"), std::vector<bool>(10, false));
  EXPECT_EQ(Flags(kLongestName), before.at("flags"));
}

TEST_F(LinkOperationsKernel, EveryOneIsRefusedWithoutPrivilege) {
  MakeBridge("br0");
  MakeBridge("switch");
  const json before = Link("br0");

  const bool refused = test::IsTrueUnprivileged([] {
    return ChangeInEveryWay("br0") == std::vector<bool>(10, false) && !CreateInterface("br1", "bridge") &&
           !AddVlan("br0", 1, "vlan1") && InterfaceExists("br0") && GetInterfaceIndex("br0") != 0;
  });

  EXPECT_TRUE(refused);
  EXPECT_EQ(Link("br0").at("flags"), before.at("flags"));
}

TEST_F(LinkOperationsKernel, NoneLeavesADescriptorOpen) {
  const OtherNamespace other;
  MakeBridge("switch");
  const auto all = [&other] {
    for (const char* const kind : {"veth", "nosuch"}) {
      (void)CreateInterface("eth0", kind);
      (void)AddVlan("switch", 7, "vlan7");
      (void)AddVlan("nosuch", 7, "vlan7");
      (void)MoveInterfaceToNetns("eth0", EndedProcess());
      (void)ChangeInEveryWay("eth0");
      (void)ChangeInEveryWay(kTooLong);
      (void)InterfaceExists("lo");
      (void)GetInterfaceIndex("eth0");
    }
    (void)CreateInterface("eth0", "veth");
    EXPECT_TRUE(MoveInterfaceToNetns("eth0", other.Pid()));
    (void)DeleteInterface("veth0");
  };
  all();
  const std::size_t before = test::CountOpenFds();

  all();
  all();

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(LinkOperationsKernel, ThreadsChangeInterfacesOfTheirOwnAtOnce) {
  constexpr int kThreads = 4;
  std::atomic<int> failures{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&failures, name = "br" + std::to_string(i)] {
      for (int round = 0; round < 10; ++round) {
        const bool ok = CreateInterface(name, "bridge") && SetMTU(name, 1400) && SetInterfaceUp(name, true) &&
                        InterfaceExists(name) && GetInterfaceIndex(name) != 0 && DeleteInterface(name);
        failures += ok ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(failures, 0);
  EXPECT_EQ(Ip("link show").size(), 1U);
}

TEST_F(LinkOperationsKernel, OneOfManyThreadsCreatesAName) {
  std::atomic<int> created{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < 8; ++i) {
    threads.emplace_back([&created] { created += CreateInterface("br0", "bridge") ? 1 : 0; });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(created, 1);
}

}  // namespace
}  // namespace kiv::net
