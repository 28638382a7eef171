#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <ifaddrs.h>
#include <kiv/net.h>
#include <net/if.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <fstream>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;

static_assert(std::is_copy_constructible_v<Iface> && std::is_copy_assignable_v<Iface>);
static_assert(std::is_nothrow_move_constructible_v<Iface> && std::is_nothrow_move_assignable_v<Iface>);
static_assert(!std::is_polymorphic_v<Iface> && !std::is_default_constructible_v<Iface>);

constexpr int kAllFlags = -1;

// All four fields; flags that are the given ones only.
void ExpectFields(const Iface& iface, const std::string& name, const std::string& address, const std::string& mac,
                  int flags) {
  EXPECT_EQ(iface.GetName(), name);
  EXPECT_EQ(iface.GetAddress(), address);
  EXPECT_EQ(iface.GetMAC(), mac);
  for (int bit = 0; bit < 32; ++bit) {
    const auto mask = static_cast<int>(1U << bit);
    EXPECT_EQ(iface.IsFlagsSet(mask), (flags & mask) != 0) << bit;
  }
}

Iface Eth() { return {"eth0", "192.168.1.10", "00:1a:2b:3c:4d:5e", IFF_UP | IFF_RUNNING}; }

void ExpectEth(const Iface& iface) {
  ExpectFields(iface, "eth0", "192.168.1.10", "00:1a:2b:3c:4d:5e", IFF_UP | IFF_RUNNING);
}

// Long enough for every string to have memory of its own.
Iface Long() {
  return {std::string(100, 'n'), std::string(100, 'a'), std::string(100, 'm'), IFF_BROADCAST | IFF_MULTICAST};
}

void ExpectLong(const Iface& iface) {
  ExpectFields(iface, std::string(100, 'n'), std::string(100, 'a'), std::string(100, 'm'),
               IFF_BROADCAST | IFF_MULTICAST);
}

// ------------------------------------------------------------------------------------------------------ the value

TEST(Iface, HoldsWhatItWasMadeWith) { ExpectEth(Eth()); }

TEST(Iface, WithoutMacAndFlagsThereAreNone) { ExpectFields(Iface("eth0:1", "10.0.0.1"), "eth0:1", "10.0.0.1", "", 0); }

TEST(Iface, ChecksNothing) {
  const std::string bytes("a\0b/\n", 5);

  ExpectFields(Iface(bytes, bytes, bytes, kAllFlags), bytes, bytes, bytes, kAllFlags);
  ExpectFields(Iface("", ""), "", "", "", 0);
}

TEST(Iface, GettersReturnCopies) {
  const Iface iface = Eth();

  iface.GetName() += "x";
  iface.GetAddress() += "x";
  iface.GetMAC() += "x";

  ExpectEth(iface);
}

TEST(IfaceIsFlagsSet, NeedsEveryBitOfTheMask) {
  const Iface iface("eth0", "10.0.0.1", "", IFF_UP | IFF_BROADCAST);

  EXPECT_TRUE(iface.IsFlagsSet(IFF_UP));
  EXPECT_TRUE(iface.IsFlagsSet(IFF_UP | IFF_BROADCAST));
  EXPECT_FALSE(iface.IsFlagsSet(IFF_UP | IFF_RUNNING));
  EXPECT_FALSE(iface.IsFlagsSet(IFF_RUNNING));
  EXPECT_FALSE(iface.IsFlagsSet(kAllFlags));
}

TEST(IfaceIsFlagsSet, EmptyMaskIsAlwaysSet) {
  EXPECT_TRUE(Iface("eth0", "10.0.0.1").IsFlagsSet(0));
  EXPECT_TRUE(Eth().IsFlagsSet(0));
}

TEST(IfaceCopy, LeavesTheSourceAlone) {
  const Iface source = Long();
  const Iface copy(source);
  Iface assigned = Eth();
  assigned = source;

  ExpectLong(copy);
  ExpectLong(assigned);
  ExpectLong(source);
}

TEST(IfaceCopy, OntoItselfChangesNothing) {
  Iface iface = Long();
  const Iface& same = iface;

  iface = same;

  ExpectLong(iface);
}

TEST(IfaceMove, EmptiesTheSource) {
  Iface shortSource = Eth();
  Iface longSource = Long();

  ExpectEth(Iface(std::move(shortSource)));
  ExpectLong(Iface(std::move(longSource)));

  for (const Iface* source : {&shortSource, &longSource}) {
    ExpectFields(*source, "", "", "", 0);
  }
}

TEST(IfaceMove, AssignmentSwapsTheStringsAndTakesTheFlags) {
  Iface target = Long();
  Iface source = Eth();

  target = std::move(source);

  ExpectEth(target);
  ExpectFields(source, std::string(100, 'n'), std::string(100, 'a'), std::string(100, 'm'), 0);
}

TEST(IfaceMove, AssignmentOntoItselfChangesNothing) {
  Iface iface = Eth();
  Iface& same = iface;

  iface = std::move(same);

  ExpectEth(iface);
}

TEST(IfaceMove, MovedFromObjectCanBeAssigned) {
  Iface source = Eth();
  const Iface taken(std::move(source));

  source = Long();

  ExpectLong(source);
  ExpectEth(taken);
}

// ---------------------------------------------------------------------------------------------------- UpdateFlags

// Puts another file in the place of a descriptor while it lives.
class Replaced {
 public:
  Replaced(int number, const UniqueFd& with) : mNumber(number), mSaved(::fcntl(number, F_DUPFD_CLOEXEC, 3)) {
    EXPECT_EQ(::dup2(with.Get(), number), number);
  }
  Replaced(const Replaced&) = delete;
  Replaced& operator=(const Replaced&) = delete;
  ~Replaced() { (void)(mSaved.IsValid() ? ::dup2(mSaved.Get(), mNumber) : ::close(mNumber)); }

 private:
  int mNumber;
  UniqueFd mSaved;
};

UniqueFd InetSocket() { return UniqueFd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0)); }

UniqueFd NullDevice() { return UniqueFd(::open("/dev/null", O_RDWR | O_CLOEXEC)); }

bool HasLoopback() { return ::if_nametoindex("lo") != 0; }

TEST(IfaceUpdateFlags, WithoutASocketAsStandardOutputThereAreNone) {
  Iface iface("lo", "127.0.0.1", "", kAllFlags);
  const std::size_t before = test::CountOpenFds();
  int result = -1;
  {
    const UniqueFd file = NullDevice();
    const UniqueFd socket = InetSocket();
    const Replaced input(0, socket);
    const Replaced output(1, file);
    result = iface.UpdateFlags();
  }

  EXPECT_EQ(result, 0);
  ExpectFields(iface, "lo", "127.0.0.1", "", 0);
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(IfaceUpdateFlags, SocketAsStandardOutputIsAsked) {
  if (!HasLoopback()) {
    GTEST_SKIP() << "no interface lo";
  }
  Iface iface("lo", "127.0.0.1", "", kAllFlags);
  int result = -1;
  {
    const UniqueFd file = NullDevice();
    const UniqueFd socket = InetSocket();
    const Replaced input(0, file);
    const Replaced output(1, socket);
    result = iface.UpdateFlags();
  }

  EXPECT_EQ(result, 0);
  EXPECT_TRUE(iface.IsFlagsSet(IFF_LOOPBACK));
  EXPECT_FALSE(iface.IsFlagsSet(IFF_POINTOPOINT));
}

TEST(IfaceUpdateFlags, UnknownNameHasNone) {
  for (const std::string& name : {std::string("nosuch"), std::string(), std::string(100, 'n'), std::string("lox")}) {
    Iface iface(name, "127.0.0.1", "", kAllFlags);
    int result = -1;
    {
      const UniqueFd socket = InetSocket();
      const Replaced output(1, socket);
      result = iface.UpdateFlags();
    }

    EXPECT_EQ(result, 0);
    EXPECT_FALSE(iface.IsFlagsSet(IFF_LOOPBACK)) << name;
    EXPECT_FALSE(iface.IsFlagsSet(IFF_MASTER)) << name;
  }
}

TEST(IfaceUpdateFlags, WithoutDescriptorsStandardInputIsAsked) {
  if (!HasLoopback()) {
    GTEST_SKIP() << "no interface lo";
  }
  Iface iface("lo", "127.0.0.1", "", kAllFlags);
  int result = 0;
  {
    const UniqueFd file = NullDevice();
    const UniqueFd socket = InetSocket();
    const Replaced input(0, socket);
    const Replaced output(1, file);
    const test::NoNewDescriptors limit;
    result = iface.UpdateFlags();
  }

  EXPECT_EQ(result, -1);
  EXPECT_TRUE(iface.IsFlagsSet(IFF_LOOPBACK));
}

TEST(IfaceUpdateFlags, WithoutDescriptorsAndSocketsThereAreNone) {
  Iface iface("lo", "127.0.0.1", "", kAllFlags);
  int result = 0;
  {
    const UniqueFd file = NullDevice();
    const UniqueFd socket = InetSocket();
    const Replaced input(0, file);
    const Replaced output(1, socket);
    const test::NoNewDescriptors limit;
    result = iface.UpdateFlags();
  }

  EXPECT_EQ(result, -1);
  ExpectFields(iface, "lo", "127.0.0.1", "", 0);
}

// ------------------------------------------------------------------------------------------------------ GetIfaces

std::string Row(const std::string& name, const std::string& address) { return name + ' ' + address; }

// What the C library lists, with a filter of its own.
std::vector<std::string> Listed(unsigned required, unsigned excluded) {
  std::vector<std::string> rows;
  ifaddrs* list = nullptr;
  EXPECT_EQ(::getifaddrs(&list), 0);
  for (const ifaddrs* entry = list; entry != nullptr; entry = entry->ifa_next) {
    if (entry->ifa_addr != nullptr && entry->ifa_addr->sa_family == AF_INET && (required & ~entry->ifa_flags) == 0 &&
        (excluded & entry->ifa_flags) == 0) {
      char text[INET_ADDRSTRLEN];
      const auto* address = reinterpret_cast<const sockaddr_in*>(entry->ifa_addr);
      rows.push_back(Row(entry->ifa_name, ::inet_ntop(AF_INET, &address->sin_addr, text, sizeof text)));
    }
  }
  ::freeifaddrs(list);
  return rows;
}

std::vector<std::string> Found(unsigned required, unsigned excluded) {
  std::vector<std::string> rows;
  for (const Iface& iface : GetIfaces(required, excluded)) {
    rows.push_back(Row(iface.GetName(), iface.GetAddress()));
  }
  return rows;
}

TEST(GetIfaces, TellsOfTheLoopback) {
  const std::vector<std::string> all = Listed(0, 0);
  if (std::find(all.begin(), all.end(), "lo 127.0.0.1") == all.end()) {
    GTEST_SKIP() << "no interface lo with 127.0.0.1";
  }
  for (const Iface& iface : GetIfaces(0, 0)) {
    if (iface.GetAddress() == "127.0.0.1") {
      EXPECT_EQ(iface.GetName(), "lo");
      EXPECT_EQ(iface.GetMAC(), "00:00:00:00:00:00");
      EXPECT_TRUE(iface.IsFlagsSet(IFF_LOOPBACK));
      return;
    }
  }
  FAIL() << "not found";
}

TEST(GetIfaces, ListsEveryAddressInOrder) { EXPECT_EQ(Found(0, 0), Listed(0, 0)); }

TEST(GetIfaces, FiltersByEveryFlag) {
  for (unsigned bit = 0; bit < 32; ++bit) {
    const unsigned mask = 1U << bit;

    EXPECT_EQ(Found(mask, 0), Listed(mask, 0)) << bit;
    EXPECT_EQ(Found(0, mask), Listed(0, mask)) << bit;
    EXPECT_EQ(Found(mask, mask), std::vector<std::string>()) << bit;
  }
}

TEST(GetIfaces, RequiresAllFlagsAndExcludesAny) {
  for (const auto& [required, excluded] : std::vector<std::pair<unsigned, unsigned>>{
           {IFF_UP, IFF_LOOPBACK},
           {IFF_UP | IFF_LOOPBACK, 0},
           {IFF_LOOPBACK | IFF_BROADCAST, 0},
           {0, IFF_LOOPBACK | IFF_POINTOPOINT},
           {0, IFF_LOOPBACK | IFF_BROADCAST},
           {IFF_UP | IFF_RUNNING, IFF_LOOPBACK | IFF_BROADCAST},
       }) {
    EXPECT_EQ(Found(required, excluded), Listed(required, excluded)) << required << ' ' << excluded;
  }
}

TEST(GetIfaces, LeavesNoDescriptor) {
  const std::size_t before = test::CountOpenFds();

  (void)GetIfaces(0, 0);

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(GetIfaces, WithoutDescriptorsThereAreNone) {
  const test::NoNewDescriptors limit;

  EXPECT_TRUE(GetIfaces(0, 0).empty());
}

// --------------------------------------------------------------------------------------------------------- GetMAC

const std::string kLoopbackMac = "00:00:00:00:00:00";

bool ShowsLoopback() { return ::access("/sys/class/net/lo/address", R_OK) == 0; }

// Leads from the folder of the interfaces to "lo" there, in this number of bytes.
std::string WayToLo(std::size_t size) {
  std::string way = size % 2 == 0 ? "lo" : "/lo";
  while (way.size() < size) {
    way.insert(0, "./");
  }
  return way;
}

TEST(GetMAC, NullUnknownAndEmptyNamesHaveNone) {
  EXPECT_EQ(GetMAC(nullptr), "");
  EXPECT_EQ(GetMAC("nosuch"), "");
  EXPECT_EQ(GetMAC(""), "");
  EXPECT_EQ(GetMAC(std::string(1 << 20, 'x').c_str()), "");
}

TEST(GetMAC, NameIsPartOfAPath) {
  if (!ShowsLoopback()) {
    GTEST_SKIP() << "no /sys/class/net/lo";
  }
  EXPECT_EQ(GetMAC("lo"), kLoopbackMac);
  EXPECT_EQ(GetMAC("../net/lo"), kLoopbackMac);
  EXPECT_EQ(GetMAC("lo/"), kLoopbackMac);
  EXPECT_EQ(GetMAC("lo "), "");
}

// 15 bytes stand before the name, 8 behind it and one after all: a name of 24 bytes fits whole.
TEST(GetMAC, PathIsCutAt47Bytes) {
  if (!ShowsLoopback()) {
    GTEST_SKIP() << "no /sys/class/net/lo";
  }
  EXPECT_EQ(GetMAC(WayToLo(23).c_str()), kLoopbackMac);
  EXPECT_EQ(GetMAC(WayToLo(24).c_str()), kLoopbackMac);
  EXPECT_EQ(GetMAC(WayToLo(25).c_str()), "");
  EXPECT_EQ(GetMAC(WayToLo(26).c_str()), "");
}

// A name that ends in "/address" itself needs the cut to fall right behind it.
TEST(GetMAC, CutPathIsOpenedAllTheSame) {
  if (!ShowsLoopback()) {
    GTEST_SKIP() << "no /sys/class/net/lo";
  }
  EXPECT_EQ(GetMAC((WayToLo(24) + "/address").c_str()), kLoopbackMac);
  EXPECT_EQ(GetMAC((WayToLo(24) + "/address and more").c_str()), kLoopbackMac);
  EXPECT_EQ(GetMAC((WayToLo(23) + "/address").c_str()), "");
  EXPECT_EQ(GetMAC((WayToLo(25) + "/address").c_str()), "");
}

// A folder with a file "address", reached through a name with slashes.
class AddressFile {
 public:
  explicit AddressFile(const std::string& content) {
    std::ofstream(mFolder.Path() + "/address", std::ios::binary) << content;
  }
  std::string Name() const { return "../../.." + mFolder.Path(); }
  std::string File() const { return mFolder.Path() + "/address"; }

 private:
  test::TempFolder mFolder;
};

TEST(GetMAC, GivesTheFirstLineAsItStands) {
  if (::access("/sys/class/net", X_OK) != 0) {
    GTEST_SKIP() << "no /sys/class/net";
  }
  const std::string longLine(100000, 'x');
  const std::vector<std::pair<std::string, std::string>> files = {
      {"00:1a:2B:3c:4d:5e\n", "00:1a:2B:3c:4d:5e"},
      {"00:1a:2b:3c:4d:5e", "00:1a:2b:3c:4d:5e"},
      {"first\nsecond\n", "first"},
      {"\nsecond\n", ""},
      {"", ""},
      {" blanks \t\r\n", " blanks \t\r"},
      {std::string("a\0b\n", 4), std::string("a\0b", 3)},
      {longLine + "\nsecond", longLine},
  };

  for (const auto& [content, line] : files) {
    const AddressFile file(content);
    EXPECT_EQ(GetMAC(file.Name().c_str()), line);
  }
}

TEST(GetMAC, FolderInPlaceOfTheFileGivesNothing) {
  const AddressFile file("");
  ASSERT_EQ(::unlink(file.File().c_str()), 0);
  ASSERT_EQ(::mkdir(file.File().c_str(), 0700), 0);

  EXPECT_EQ(GetMAC(file.Name().c_str()), "");
}

// The memory of a process opens, and cannot be read at its first byte.
TEST(GetMAC, FailedReadGivesNothing) {
  const AddressFile file("");
  ASSERT_EQ(::unlink(file.File().c_str()), 0);
  ASSERT_EQ(::symlink("/proc/self/mem", file.File().c_str()), 0);
  char byte = '\0';
  const UniqueFd memory(::open(file.File().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_EQ(::read(memory.Get(), &byte, 1), -1);
  ASSERT_EQ(errno, EIO);

  EXPECT_EQ(GetMAC(file.Name().c_str()), "");
}

TEST(GetMAC, WithoutDescriptorsThereIsNone) {
  const AddressFile file("00:1a:2b:3c:4d:5e\n");
  ASSERT_EQ(GetMAC(file.Name().c_str()), "00:1a:2b:3c:4d:5e");
  const test::NoNewDescriptors limit;

  EXPECT_EQ(GetMAC(file.Name().c_str()), "");
}

TEST(GetMAC, ThreadsKeepTheirNamesApart) {
  if (!HasLoopback()) {
    GTEST_SKIP() << "no interface lo";
  }
  bool found = false;
  const auto askForNone = [&found] {
    for (int round = 0; round < 3000; ++round) {
      found = found || !GetMAC("nosuch").empty();
    }
  };
  bool missed = false;

  std::thread other(askForNone);
  for (int round = 0; round < 3000; ++round) {
    missed = missed || GetMAC("lo").empty();
  }
  other.join();

  EXPECT_FALSE(found || missed);
}

TEST(GetMAC, LeavesNoDescriptor) {
  const AddressFile file("00:1a:2b:3c:4d:5e\n");
  const std::size_t before = test::CountOpenFds();

  (void)GetMAC(file.Name().c_str());
  (void)GetMAC("nosuch");

  EXPECT_EQ(test::CountOpenFds(), before);
}

}  // namespace
}  // namespace kiv::net
