#include <fcntl.h>
#include <kiv/net.h>
#include <net/if.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "tests/kernel/namespace.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using nlohmann::json;
using test::HasFlag;
using test::Ip;
using test::Link;
using test::Shell;

// One record as text: name, address, hardware address.
std::vector<std::string> TextOf(const std::vector<Iface>& ifaces) {
  std::vector<std::string> lines;
  for (const Iface& iface : ifaces) {
    lines.push_back(iface.GetName() + ' ' + iface.GetAddress() + ' ' + iface.GetMAC());
  }
  return lines;
}

bool Contains(const json& list, const std::string& word) {
  return std::find(list.begin(), list.end(), word) != list.end();
}

// The same from ip, of interfaces with all of `required` flags and none of `excluded`. A label that is not the name of
// an interface has no hardware address.
std::vector<std::string> TextOfIp(const std::vector<std::string>& required, const std::vector<std::string>& excluded) {
  std::vector<std::string> lines;
  for (const json& link : Ip("-4 addr show")) {
    const auto has = [&link](const std::string& flag) { return Contains(link.at("flags"), flag); };
    if (!std::all_of(required.begin(), required.end(), has) || std::any_of(excluded.begin(), excluded.end(), has)) {
      continue;
    }
    for (const json& address : link.at("addr_info")) {
      const std::string label = address.at("label");
      const std::string mac = label == link.at("ifname") ? link.at("address").get<std::string>() : "";
      lines.push_back(label + ' ' + address.at("local").get<std::string>() + ' ' + mac);
    }
  }
  return lines;
}

// Puts another descriptor in place of `number` while it lives. Print nothing meanwhile.
class Replaced {
 public:
  Replaced(int number, int by) : mNumber(number), mSaved(::dup(number)) {
    (void)std::fflush(stdout);
    (void)::dup2(by, number);
  }
  Replaced(const Replaced&) = delete;
  Replaced& operator=(const Replaced&) = delete;
  ~Replaced() { (void)::dup2(mSaved.Get(), mNumber); }

 private:
  int mNumber;
  UniqueFd mSaved;
};

UniqueFd MakeSocket() { return UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); }

struct Update {
  int result;
  Iface iface;
};

// Updates a record whose flags are all on, while `in` and `out` are the descriptors 0 and 1.
Update UpdateWith(const std::string& name, int in, int out, bool canOpen = true) {
  Update update{0, Iface(name, "", "", -1)};
  const Replaced zero(0, in);
  const Replaced one(1, out);
  std::optional<test::NoNewDescriptors> none;
  if (!canOpen) {
    none.emplace();
  }
  update.result = update.iface.UpdateFlags();
  return update;
}

Update UpdateThroughSocket(const std::string& name) {
  const UniqueFd fd = MakeSocket();
  return UpdateWith(name, 0, fd.Get());
}

bool HasNoFlag(const Iface& iface) {
  for (unsigned int bit = 0; bit < 32; ++bit) {
    if (iface.IsFlagsSet(static_cast<int>(1U << bit))) {
      return false;
    }
  }
  return true;
}

// Several addresses, labels, a peer, interfaces that are down, and one without an IPv4 address.
void MakeAddresses() {
  test::IpBatch(
      "link set lo up\n"
      "link add eth0 type veth peer name eth1\n"
      "link set eth0 address 02:00:00:00:00:0a up\n"
      "link set eth1 up multicast off\n"
      "link add br0 type bridge\n"
      "link add quiet type bridge\n"
      "link set quiet up\n"
      "addr add 10.0.0.1/24 dev eth0\n"
      "addr add 10.0.0.2/24 dev eth0 label eth0:1\n"
      "addr add 10.0.0.3/24 dev eth0 label eth0:backup\n"
      "addr add 192.168.9.1 peer 192.168.9.2/32 dev eth0\n"
      "addr add 10.0.1.1/16 dev eth1\n"
      "addr add 172.16.0.1/12 dev br0\n");
}

class GetIfacesKernel : public test::KernelTest {};
class GetMacKernel : public test::KernelTest {};
class UpdateFlagsKernel : public test::KernelTest {};

TEST_F(GetIfacesKernel, ListsOneRecordForEveryAddressInOrder) {
  MakeAddresses();

  const std::vector<std::string> lines = TextOf(GetIfaces(0, 0));

  EXPECT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines, TextOfIp({}, {}));
}

TEST_F(GetIfacesKernel, LoopbackAndOneEthernetAddressAreTwoRecords) {
  (void)Shell("ip link set lo up && ip link add eth0 type bridge && ip addr add 10.0.0.1/24 dev eth0");
  const std::string mac = Link("eth0").at("address");

  EXPECT_EQ(TextOf(GetIfaces(0, 0)),
            (std::vector<std::string>{"lo 127.0.0.1 00:00:00:00:00:00", "eth0 10.0.0.1 " + mac}));
}

TEST_F(GetIfacesKernel, FiltersByFlagsAsIpShowsThem) {
  MakeAddresses();
  using Words = std::vector<std::string>;
  const struct {
    unsigned int required;
    unsigned int excluded;
    Words requiredWords;
    Words excludedWords;
    std::size_t count;
  } rows[] = {
      {IFF_UP, IFF_LOOPBACK, {"UP"}, {"LOOPBACK"}, 5},
      {IFF_UP | IFF_MULTICAST, 0, {"UP", "MULTICAST"}, {}, 4},
      {0, IFF_UP, {}, {"UP"}, 1},
      {0, IFF_LOOPBACK | IFF_MULTICAST, {}, {"LOOPBACK", "MULTICAST"}, 1},
      {IFF_LOOPBACK, 0, {"LOOPBACK"}, {}, 1},
      {IFF_UP, IFF_UP, {"UP"}, {"UP"}, 0},
      {IFF_LOOPBACK | IFF_BROADCAST, 0, {"LOOPBACK", "BROADCAST"}, {}, 0},
  };
  for (const auto& row : rows) {
    const std::vector<std::string> lines = TextOf(GetIfaces(row.required, row.excluded));
    EXPECT_EQ(lines, TextOfIp(row.requiredWords, row.excludedWords)) << row.required << ", " << row.excluded;
    EXPECT_EQ(lines.size(), row.count) << row.required << ", " << row.excluded;
  }
}

TEST_F(GetIfacesKernel, RecordsTheFlags) {
  const struct {
    int flag;
    const char* word;
  } rows[] = {
      {IFF_UP, "UP"},       {IFF_BROADCAST, "BROADCAST"}, {IFF_LOOPBACK, "LOOPBACK"}, {IFF_MULTICAST, "MULTICAST"},
      {IFF_NOARP, "NOARP"}, {IFF_PROMISC, "PROMISC"},     {IFF_DYNAMIC, "DYNAMIC"},   {1 << 16, "LOWER_UP"}};
  MakeAddresses();
  (void)Shell("ip link set eth1 promisc on arp off dynamic on");
  for (const Iface& iface : GetIfaces(0, 0)) {
    const std::string name = iface.GetName().substr(0, iface.GetName().find(':'));
    for (const auto& row : rows) {
      EXPECT_EQ(iface.IsFlagsSet(row.flag), HasFlag(name, row.word)) << name << ' ' << row.word;
    }
  }
}

TEST_F(GetIfacesKernel, NothingIsListedWithoutAnIpv4Address) {
  (void)Shell("ip link add eth0 type bridge && ip link set eth0 up && ip -6 addr add fd00::1/64 dev eth0");
  EXPECT_TRUE(GetIfaces(0, 0).empty());
}

TEST_F(GetIfacesKernel, LeavesNoDescriptorOpen) {
  MakeAddresses();
  (void)GetIfaces(0, 0);
  const std::size_t before = test::CountOpenFds();

  for (int i = 0; i < 3; ++i) {
    (void)GetIfaces(0, 0);
    (void)GetIfaces(IFF_UP, IFF_UP);
    (void)GetMAC("eth0");
    (void)GetMAC("nosuch");
    Iface record("eth0", "");
    (void)record.UpdateFlags();
  }

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(GetMacKernel, IsWhatIpShows) {
  MakeAddresses();
  (void)Shell("ip link add fifteen-bytes-n type bridge");
  for (const char* const name : {"lo", "eth0", "eth1", "br0", "quiet", "fifteen-bytes-n"}) {
    EXPECT_EQ(GetMAC(name), Link(name).at("address")) << name;
  }
  EXPECT_EQ(GetMAC("eth0"), "02:00:00:00:00:0a");
}

TEST_F(GetMacKernel, IsEmptyForANameWithoutAFile) {
  MakeAddresses();
  for (const char* const name : {"nosuch", "eth0:1", "", "eth", "eth0-and-a-name-that-does-not-fit"}) {
    EXPECT_EQ(GetMAC(name), "") << name;
  }
  EXPECT_EQ(GetMAC(nullptr), "");
}

TEST_F(GetMacKernel, APathLongerThanItsBufferIsCut) {
  EXPECT_EQ(GetMAC("../net/../net/../net//lo"), "00:00:00:00:00:00");
  EXPECT_EQ(GetMAC("../net/../net/../net///lo"), "");
}

TEST_F(UpdateFlagsKernel, ReadsThroughASocketAsDescriptorOne) {
  MakeAddresses();
  for (const char* const name : {"lo", "eth0", "eth1", "br0"}) {
    const Update update = UpdateThroughSocket(name);

    EXPECT_EQ(update.result, 0) << name;
    EXPECT_EQ(update.iface.IsFlagsSet(IFF_UP), HasFlag(name, "UP")) << name;
    EXPECT_EQ(update.iface.IsFlagsSet(IFF_LOOPBACK), HasFlag(name, "LOOPBACK")) << name;
    EXPECT_EQ(update.iface.IsFlagsSet(IFF_BROADCAST), HasFlag(name, "BROADCAST")) << name;
    EXPECT_EQ(update.iface.IsFlagsSet(IFF_MULTICAST), HasFlag(name, "MULTICAST")) << name;
    EXPECT_FALSE(update.iface.IsFlagsSet(IFF_PROMISC)) << name;
  }
}

TEST_F(UpdateFlagsKernel, FollowsAChange) {
  (void)Shell("ip link add eth0 type bridge");
  EXPECT_FALSE(UpdateThroughSocket("eth0").iface.IsFlagsSet(IFF_UP));
  (void)Shell("ip link set eth0 up");
  EXPECT_TRUE(UpdateThroughSocket("eth0").iface.IsFlagsSet(IFF_UP));
}

TEST_F(UpdateFlagsKernel, TheSixteenthBitIsExtended) {
  (void)Shell("ip link add eth0 type bridge && ip link set eth0 dynamic on");

  const Iface iface = UpdateThroughSocket("eth0").iface;

  EXPECT_TRUE(iface.IsFlagsSet(IFF_DYNAMIC));
  EXPECT_TRUE(iface.IsFlagsSet(~0x7FFF));
  EXPECT_FALSE(iface.IsFlagsSet(IFF_UP));
}

TEST_F(UpdateFlagsKernel, ASocketOfAnotherFamilyAnswersToo) {
  (void)Shell("ip link set lo up");
  const auto [end, otherEnd] = test::SocketPair();
  EXPECT_TRUE(UpdateWith("lo", 0, end.Get()).iface.IsFlagsSet(IFF_UP | IFF_LOOPBACK));
}

TEST_F(UpdateFlagsKernel, WithoutASocketAsDescriptorOneTheFlagsAreZero) {
  (void)Shell("ip link set lo up");
  const UniqueFd socket = MakeSocket();
  const UniqueFd counter = test::EventFd(0);
  const UniqueFd file(::open("/dev/null", O_RDWR | O_CLOEXEC));
  for (const int out : {counter.Get(), file.Get()}) {
    const Update update = UpdateWith("lo", socket.Get(), out);

    EXPECT_EQ(update.result, 0);
    EXPECT_TRUE(HasNoFlag(update.iface));
  }
}

TEST_F(UpdateFlagsKernel, WithoutANewSocketDescriptorZeroIsAsked) {
  (void)Shell("ip link set lo up");
  const UniqueFd socket = MakeSocket();
  const UniqueFd counter = test::EventFd(0);

  const Update asked = UpdateWith("lo", socket.Get(), counter.Get(), false);
  const Update refused = UpdateWith("lo", counter.Get(), socket.Get(), false);

  EXPECT_EQ(asked.result, -1);
  EXPECT_TRUE(asked.iface.IsFlagsSet(IFF_UP | IFF_LOOPBACK));
  EXPECT_EQ(refused.result, -1);
  EXPECT_TRUE(HasNoFlag(refused.iface));
}

TEST_F(UpdateFlagsKernel, AnUnknownNameHasZeroFlags) {
  for (const char* const name : {"nosuch", ""}) {
    const Update update = UpdateThroughSocket(name);

    EXPECT_EQ(update.result, 0) << name;
    EXPECT_TRUE(HasNoFlag(update.iface)) << name;
  }
}

TEST_F(UpdateFlagsKernel, FifteenBytesOfTheNameAreAskedFor) {
  (void)Shell("ip link add fifteen-bytes-n type bridge && ip link set fifteen-bytes-n up");

  EXPECT_TRUE(UpdateThroughSocket("fifteen-bytes-n").iface.IsFlagsSet(IFF_UP));
  const Update update = UpdateThroughSocket("fifteen-bytes-name");
  EXPECT_TRUE(update.iface.IsFlagsSet(IFF_UP));
  EXPECT_EQ(update.iface.GetName(), "fifteen-bytes-name");
}

TEST_F(UpdateFlagsKernel, AnAliasHasTheFlagsOfItsInterface) {
  MakeAddresses();
  EXPECT_TRUE(UpdateThroughSocket("eth0:1").iface.IsFlagsSet(IFF_UP | IFF_BROADCAST));
}

}  // namespace
}  // namespace kiv::net
