#include <arpa/inet.h>
#include <fcntl.h>
#include <kiv/net.h>
#include <net/route.h>
#include <netinet/in.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <string>
#include <thread>
#include <vector>

#include "internal/unique_fd.h"
#include "tests/kernel/namespace.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using namespace std::string_literals;
using test::Ip;
using test::IpBatch;
using test::ProcNet;
using test::Shell;

using Rows = std::vector<std::string>;

const std::string kArpPath = "/proc/self/net/arp";
const std::string kRoutePath = "/proc/self/net/route";

std::string NameOf(ArpState state) {
  static const char* const kNames[] = {"Incomplete", "Reachable", "Stale",     "Delay",  "Probe",
                                       "Failed",     "NoArp",     "Permanent", "Unknown"};
  return kNames[static_cast<unsigned>(state)];
}

Rows ArpRows() {
  Rows rows;
  for (const ArpEntry& entry : GetArpTable()) {
    rows.push_back(NtoIP(entry.ip) + ' ' + entry.mac + ' ' + NameOf(entry.state) + ' ' + entry.iface);
  }
  return rows;
}

std::string RouteRow(const std::string& iface, std::uint32_t destination, std::uint32_t gateway, std::uint32_t mask,
                     std::uint32_t metric, std::uint32_t flags) {
  char numbers[80];
  (void)std::snprintf(numbers, sizeof numbers, " %08X via %08X mask %08X metric %u flags %X", destination, gateway,
                      mask, metric, flags);
  return iface + numbers;
}

Rows RouteRows() {
  Rows rows;
  for (const RoutingTableEntry& route : GetRoutingTable()) {
    rows.push_back(RouteRow(route.iface, route.destination, route.gateway, route.mask, route.metric, route.flags));
  }
  return rows;
}

const std::string kArpHeading = "IP address       HW type     Flags       HW address            Mask     Device\n";
const std::string kRouteHeading = "Iface|Destination|Gateway |Flags|RefCnt|Use|Metric|Mask||MTU|Window|IRTT";

// Lines with "|" for the tabs, filled up with blanks to the width that kernels use; 0 fills up nothing.
std::string RouteFile(const Rows& lines, std::size_t width) {
  std::string file;
  for (std::string line : lines) {
    std::replace(line.begin(), line.end(), '|', '\t');
    line.resize(std::max(line.size(), width), ' ');
    file += line + '\n';
  }
  return file;
}

Rows ArpRowsOf(const std::string& file) {
  const ProcNet proc;
  proc.WriteFile("arp", file);
  return ArpRows();
}

Rows RouteRowsOf(const std::string& file) {
  const ProcNet proc;
  proc.WriteFile("route", file);
  return RouteRows();
}

// ------------------------------------------------------------------------------------------ the table of neighbours

class GetArpTableFromFile : public test::KernelTest {};

TEST_F(GetArpTableFromFile, KeepsTheOrderOfItsLines) {
  const std::string lines =
      R"(192.168.1.10     0x1         0x2         00:1a:2b:3c:4d:5e     *        br0
192.168.1.2      0x1         0x0         00:00:00:00:00:00     *        br0
192.168.1.254    0x1         0x6         00:1a:2b:3c:4d:60     *        br0
10.0.0.1         0x1         0x2         02:42:ac:11:00:02     *        eth0.100
10.0.0.7         0x1         0xc         00:00:00:00:00:00     *        wlan0
)";

  EXPECT_EQ(ArpRowsOf(kArpHeading + lines),
            (Rows{"192.168.1.10 00:1a:2b:3c:4d:5e Reachable br0", "192.168.1.2 00:00:00:00:00:00 Unknown br0",
                  "192.168.1.254 00:1a:2b:3c:4d:60 Unknown br0", "10.0.0.1 02:42:ac:11:00:02 Reachable eth0.100",
                  "10.0.0.7 00:00:00:00:00:00 Unknown wlan0"}));
}

// Upper-case addresses and a network mask, as the oldest kernels print them, and one bit for every state.
TEST_F(GetArpTableFromFile, ReadsEveryState) {
  const std::string lines =
      R"(10.0.0.1         0x1         0x1         00:00:00:00:00:00     *               eth0
10.0.0.2         0x1         0x2         00:A0:C9:11:22:33     255.255.255.255 eth0
10.0.0.3         0x1         0x4         00:A0:C9:11:22:34     *               eth0
10.0.0.4         0x1         0x8         00:A0:C9:11:22:35     *               eth0
10.0.0.5         0x1         0x10        00:A0:C9:11:22:36     *               eth0
10.0.0.6         0x1         0x20        00:00:00:00:00:00     *               eth0
10.0.0.7         0x1         0x40        00:A0:C9:11:22:37     *               eth0
10.0.0.8         0x1         0x80        00:A0:C9:11:22:38     *               eth0
)";

  EXPECT_EQ(ArpRowsOf(kArpHeading + lines),
            (Rows{"10.0.0.1 00:00:00:00:00:00 Incomplete eth0", "10.0.0.2 00:A0:C9:11:22:33 Reachable eth0",
                  "10.0.0.3 00:A0:C9:11:22:34 Stale eth0", "10.0.0.4 00:A0:C9:11:22:35 Delay eth0",
                  "10.0.0.5 00:A0:C9:11:22:36 Probe eth0", "10.0.0.6 00:00:00:00:00:00 Failed eth0",
                  "10.0.0.7 00:A0:C9:11:22:37 NoArp eth0", "10.0.0.8 00:A0:C9:11:22:38 Permanent eth0"}));
}

// InfiniBand (cut by the kernel), a tunnel and packet radio stand beside Ethernet in one table.
TEST_F(GetArpTableFromFile, SkipsOtherKindsOfHardware) {
  const std::string lines =
      R"(10.0.0.1         0x20        0x2         80:00:02:08:fe:80:00:00:00:00     *        ib0
10.0.0.2         0x308       0x2         0a:00:00:02     *        gre1
10.0.0.3         0x3         0x2         N0CALL-1              *        ax0
10.0.0.4         0x1         0x2         00:1a:2b:3c:4d:5e     *        eth0
)";

  EXPECT_EQ(ArpRowsOf(kArpHeading + lines), (Rows{"10.0.0.4 00:1a:2b:3c:4d:5e Reachable eth0"}));
}

TEST_F(GetArpTableFromFile, SkipsDamagedLinesBetweenGoodOnes) {
  const std::string good = "10.0.0.1 0x1 0x2 00:1a:2b:3c:4d:5e * eth0\n";
  const std::string damaged =
      "10.0.0.2 0x1 0x2 00-1a-2b-3c-4d-5e * eth0\n10.0.0.3 0x1 0x2 00:1a:2b:3c:4d:5 * eth0\n10.0.0.4 0x1 0x2 "
      "00:1a:2b:3c"
      "\n\n      \n\t\t\t\t\t\t\n10.0.0.5\t0x1\t0x2\t00:1a:2b:3c:4d:5e\t*\teth0\nlocalhost 0x1 0x2 00:1a:2b:3c:4d:5e * "
      "eth0\n10.0.0.6\0 0x1 0x2 00:1a:2b:3c:4d:5\0 * eth0\n"s;

  EXPECT_EQ(ArpRowsOf(kArpHeading + good + damaged + good),
            (Rows{"10.0.0.1 00:1a:2b:3c:4d:5e Reachable eth0", "10.0.0.1 00:1a:2b:3c:4d:5e Reachable eth0"}));
}

TEST_F(GetArpTableFromFile, FirstLineIsDroppedWhateverItIs) {
  EXPECT_EQ(ArpRowsOf("10.0.0.1 0x1 0x2 00:1a:2b:3c:4d:5e * eth0\n10.0.0.2 0x1 0x2 00:1a:2b:3c:4d:5f * eth1\n"),
            (Rows{"10.0.0.2 00:1a:2b:3c:4d:5f Reachable eth1"}));
  EXPECT_EQ(ArpRowsOf("\n10.0.0.2 0x1 0x2 00:1a:2b:3c:4d:5f * eth1\n"),
            (Rows{"10.0.0.2 00:1a:2b:3c:4d:5f Reachable eth1"}));
}

TEST_F(GetArpTableFromFile, LastLineNeedsNoLineBreak) {
  EXPECT_EQ(ArpRowsOf(kArpHeading + "10.0.0.1 0x1 0x2 00:1a:2b:3c:4d:5e * eth0"),
            (Rows{"10.0.0.1 00:1a:2b:3c:4d:5e Reachable eth0"}));
}

TEST_F(GetArpTableFromFile, CarriageReturnBelongsToTheDevice) {
  EXPECT_EQ(ArpRowsOf(kArpHeading + "10.0.0.1 0x1 0x2 00:1a:2b:3c:4d:5e * eth0\r\n"),
            (Rows{"10.0.0.1 00:1a:2b:3c:4d:5e Reachable eth0\r"}));
}

TEST_F(GetArpTableFromFile, LinesOfMegabytesAreLinesLikeOthers) {
  const std::string mega(1 << 20, 'x');

  EXPECT_EQ(ArpRowsOf(mega + '\n' + mega + "\n10.0.0.1 " + mega + " 0x2 00:1a:2b:3c:4d:5e * " + mega + '\n' + mega +
                      std::string(1 << 20, ' ') + "\n10.0.0.2 0x1 0x2 00:1a:2b:3c:4d:5f * eth1\n"),
            (Rows{"10.0.0.1 00:1a:2b:3c:4d:5e Reachable " + mega, "10.0.0.2 00:1a:2b:3c:4d:5f Reachable eth1"}));
}

TEST_F(GetArpTableFromFile, HeadingAloneAndEmptyFileGiveNothing) {
  EXPECT_EQ(ArpRowsOf(kArpHeading), Rows());
  EXPECT_EQ(ArpRowsOf(kArpHeading.substr(0, kArpHeading.size() - 1)), Rows());
  EXPECT_EQ(ArpRowsOf(""), Rows());
  EXPECT_EQ(ArpRowsOf("\n"), Rows());
}

// ---------------------------------------------------------------------------------------------- the table of routes

class GetRoutingTableFromFile : public test::KernelTest {};

const Rows kRouteLines = {
    kRouteHeading,
    "eth0|00000000|0101A8C0|0003|0|0|0|00000000|0|0|0",
    "eth0|0001A8C0|00000000|0001|0|0|100|00FFFFFF|0|0|0",
    "br-lan|0000000A|FE01A8C0|0003|0|0|4294967295|000000FF|0|0|0",
    "ppp0|0A0B0C0D|00000000|0005|0|0|1024|FFFFFFFF|0|0|0",
    "eth0|08080808|0101A8C0|0007|0|0|50|FFFFFFFF|1500|0|0",
    "*|0000FEA9|00000000|0201|0|0|0|0000FFFF|0|0|0",
    "*|050505C6|00000000|0205|0|0|2147483648|FFFFFFFF|0|0|0",
};

const Rows kRoutes = {
    "eth0 00000000 via 0101A8C0 mask 00000000 metric 0 flags 3",
    "eth0 0001A8C0 via 00000000 mask 00FFFFFF metric 100 flags 1",
    "br-lan 0000000A via FE01A8C0 mask 000000FF metric 4294967295 flags 3",
    "ppp0 0A0B0C0D via 00000000 mask FFFFFFFF metric 1024 flags 5",
    "eth0 08080808 via 0101A8C0 mask FFFFFFFF metric 50 flags 7",
    "* 0000FEA9 via 00000000 mask 0000FFFF metric 0 flags 201",
    "* 050505C6 via 00000000 mask FFFFFFFF metric 2147483648 flags 205",
};

TEST_F(GetRoutingTableFromFile, PaddingOfTheLinesDoesNotMatter) {
  for (const std::size_t width : {std::size_t{0}, std::size_t{127}, std::size_t{128}}) {
    EXPECT_EQ(RouteRowsOf(RouteFile(kRouteLines, width)), kRoutes) << width;
  }
}

// Kernels with a signed metric column print the largest ones as negative numbers.
TEST_F(GetRoutingTableFromFile, NegativeMetricIsTheLargeOne) {
  EXPECT_EQ(RouteRowsOf(RouteFile({kRouteHeading, "eth0|00000000|0101A8C0|0003|0|0|-1|00000000|0|0|0",
                                   "eth0|0001A8C0|00000000|0001|0|0|-2147483648|00FFFFFF|0|0|0"},
                                  127)),
            (Rows{"eth0 00000000 via 0101A8C0 mask 00000000 metric 4294967295 flags 3",
                  "eth0 0001A8C0 via 00000000 mask 00FFFFFF metric 2147483648 flags 1"}));
}

TEST_F(GetRoutingTableFromFile, CutLinesAreSkippedAndOddColumnsAreZero) {
  const Rows lines = {kRouteHeading,
                      "eth0|00000000|0101A8C0|0003|0|0|0",
                      "",
                      "        ",
                      "|00000000|00000000|0003|0|0|7|00000000|0|0|0",
                      "||||||||||",
                      "eth1|0101A8C0 |0101A8C0|0003|0|0|7|00FFFFFF",
                      "eth2|hello|123456789|x|0|0|x|FFFFFFFFFFFFFFFFFFFFFF|0|0|0",
                      "eth3|1|2|3|4|5|6|7|8|9|10|11|12|13"};

  EXPECT_EQ(RouteRowsOf(RouteFile(lines, 0)), (Rows{"eth1 00000000 via 0101A8C0 mask 00FFFFFF metric 7 flags 3",
                                                    "eth2 00000000 via FFFFFFFF mask FFFFFFFF metric 0 flags 0",
                                                    "eth3 00000001 via 00000002 mask 00000007 metric 6 flags 3"}));
}

TEST_F(GetRoutingTableFromFile, FirstLineIsDroppedWhateverItIs) {
  const std::string line = RouteFile({"eth0|00000000|0101A8C0|0003|0|0|0|00000000|0|0|0"}, 0);

  EXPECT_EQ(RouteRowsOf(line), Rows());
  EXPECT_EQ(RouteRowsOf('\n' + line), (Rows{kRoutes[0]}));
}

TEST_F(GetRoutingTableFromFile, LastLineNeedsNoLineBreak) {
  std::string file = RouteFile(kRouteLines, 0);
  file.pop_back();

  EXPECT_EQ(RouteRowsOf(file), kRoutes);
}

TEST_F(GetRoutingTableFromFile, CarriageReturnsBehindTheLastColumnDoNotMatter) {
  Rows lines = kRouteLines;
  for (std::string& line : lines) {
    line += '\r';
  }
  EXPECT_EQ(RouteRowsOf(RouteFile(lines, 0)), kRoutes);
}

TEST_F(GetRoutingTableFromFile, NulBytesStayInTheNameAndEndNumbers) {
  EXPECT_EQ(RouteRowsOf(RouteFile({kRouteHeading, "et\0h|01\0x|2\0|3\0|0|0|4\0"s + "5|7\0|0"s}, 0)),
            (Rows{"et\0h"s + " 00000001 via 00000002 mask 00000007 metric 4 flags 3"}));
}

TEST_F(GetRoutingTableFromFile, LinesOfMegabytesAreLinesLikeOthers) {
  const std::string mega(1 << 20, '0');
  const Rows lines = {mega, mega, mega + '|' + mega + "1|2|" + mega + "3|0|0|" + mega + "4|5|" + mega,
                      std::string(1 << 20, '|'), "eth0|00000000|0101A8C0|0003|0|0|0|00000000|0|0|0"};

  EXPECT_EQ(RouteRowsOf(RouteFile(lines, 0)),
            (Rows{mega + " 00000001 via 00000002 mask 00000005 metric 4 flags 3", kRoutes[0]}));
}

TEST_F(GetRoutingTableFromFile, HeadingAloneAndEmptyFileGiveNothing) {
  EXPECT_EQ(RouteRowsOf(RouteFile({kRouteHeading}, 127)), Rows());
  EXPECT_EQ(RouteRowsOf(kRouteHeading), Rows());
  EXPECT_EQ(RouteRowsOf(""), Rows());
}

// ---------------------------------------------------------------------------------------------- files that fail

class UnreadableTables : public test::KernelTest {
 protected:
  static void ExpectNothing() {
    const std::size_t before = test::CountOpenFds();
    EXPECT_EQ(ArpRows(), Rows());
    EXPECT_EQ(RouteRows(), Rows());
    EXPECT_EQ(test::CountOpenFds(), before);
  }
};

TEST_F(UnreadableTables, MissingFilesGiveNothing) {
  const ProcNet proc;

  ExpectNothing();
}

TEST_F(UnreadableTables, FoldersInTheirPlaceGiveNothing) {
  const ProcNet proc;
  ASSERT_EQ(::mkdir(kArpPath.c_str(), 0700), 0);
  ASSERT_EQ(::mkdir(kRoutePath.c_str(), 0700), 0);

  ExpectNothing();
}

TEST_F(UnreadableTables, WithoutDescriptorsThereIsNothing) {
  const ProcNet proc;
  proc.WriteFile("arp", kArpHeading + "10.0.0.1 0x1 0x2 00:1a:2b:3c:4d:5e * eth0\n");
  proc.WriteFile("route", RouteFile(kRouteLines, 127));
  ASSERT_EQ(GetArpTable().size(), 1U);
  ASSERT_EQ(GetRoutingTable().size(), kRoutes.size());
  const test::NoNewDescriptors limit;

  EXPECT_EQ(ArpRows(), Rows());
  EXPECT_EQ(RouteRows(), Rows());
}

// The memory of a process opens, and reading at its first byte, where nothing is mapped, fails with EIO.
TEST_F(UnreadableTables, FailedReadGivesNothing) {
  const ProcNet proc;
  ASSERT_EQ(::symlink("/proc/self/mem", kArpPath.c_str()), 0);
  ASSERT_EQ(::symlink("/proc/self/mem", kRoutePath.c_str()), 0);
  const internal::UniqueFd memory(::open(kArpPath.c_str(), O_RDONLY | O_CLOEXEC));
  char byte = '\0';
  ASSERT_EQ(::read(memory.Get(), &byte, 1), -1);
  ASSERT_EQ(errno, EIO);

  ExpectNothing();
}

constexpr std::size_t kPage = 4096;

// Puts one page of text where the memory of this process begins: a read of it gives the page, and the next fails.
class TextAtAddressZero {
 public:
  explicit TextAtAddressZero(const std::string& path) {
    const internal::UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
    mMapped = ::mmap(nullptr, kPage, PROT_READ, MAP_PRIVATE | MAP_FIXED, fd.Get(), 0) != MAP_FAILED;
  }
  TextAtAddressZero(const TextAtAddressZero&) = delete;
  TextAtAddressZero& operator=(const TextAtAddressZero&) = delete;
  ~TextAtAddressZero() {
    if (mMapped) {
      (void)::munmap(nullptr, kPage);
    }
  }

  bool IsMapped() const { return mMapped; }

 private:
  bool mMapped = false;
};

// A heading, then `line` as often as it fits whole, then its beginning up to the end of the page.
std::string PageOf(const std::string& heading, const std::string& line) {
  std::string page = heading;
  while (page.size() < kPage) {
    page += line;
  }
  page.resize(kPage);
  return page;
}

std::size_t LinesIn(const std::string& page) {
  return static_cast<std::size_t>(std::count(page.begin(), page.end(), '\n'));
}

TEST_F(UnreadableTables, LinesBeforeAFailedReadAreKept) {
  const std::string arp = PageOf(kArpHeading, "10.0.0.1 0x1 0x2 00:1a:2b:3c:4d:5e * eth0123456789a\n");
  const std::string route = PageOf(RouteFile({kRouteHeading}, 127), RouteFile({kRouteLines[1]}, 127));
  for (const std::string* page : {&arp, &route}) {
    const ProcNet proc;
    proc.WriteFile("page", *page);
    ASSERT_EQ(::symlink("/proc/self/mem", kArpPath.c_str()), 0);
    ASSERT_EQ(::symlink("/proc/self/mem", kRoutePath.c_str()), 0);
    std::size_t lines = 0;
    {
      const TextAtAddressZero text("/proc/self/net/page");
      if (!text.IsMapped()) {
        GTEST_SKIP() << "cannot put a page at address zero";
      }
      lines = page == &arp ? GetArpTable().size() : GetRoutingTable().size();
    }
    EXPECT_EQ(lines, LinesIn(*page) - 1);
  }
}

// ---------------------------------------------------------------------------------------------- this kernel's tables

// A bridge "br0" with 10.1.0.1/24.
class LiveTables : public test::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    NeedKind("bridge");
    if (IsReady() && !IsSkipped()) {
      IpBatch("link set lo up\nlink add br0 type bridge\naddr add 10.1.0.1/24 dev br0\nlink set br0 up\n");
    }
  }
};

class GetArpTableLive : public LiveTables {};
class GetRoutingTableLive : public LiveTables {};

Rows Sorted(Rows rows) {
  std::sort(rows.begin(), rows.end());
  return rows;
}

bool Holds(const nlohmann::json& list, const std::string& text) {
  return std::find(list.begin(), list.end(), text) != list.end();
}

// What ip shows, as the kernel's text table tells it: one flag for a known address, two for a permanent one, no flag
// for an unanswered request; neighbours without ARP do not appear.
Rows NeighboursOfIp() {
  Rows rows;
  for (const nlohmann::json& neighbour : Ip("-4 neigh show nud all")) {
    const nlohmann::json& states = neighbour.at("state");
    if (Holds(states, "NOARP")) {
      continue;
    }
    const std::string mac = neighbour.value("lladdr", "00:00:00:00:00:00");
    const bool reachable = neighbour.contains("lladdr") && !Holds(states, "PERMANENT");
    rows.push_back(neighbour.at("dst").get<std::string>() + ' ' + mac + (reachable ? " Reachable " : " Unknown ") +
                   neighbour.at("dev").get<std::string>());
  }
  return Sorted(rows);
}

TEST_F(GetArpTableLive, ShowsWhatIpShows) {
  // Long enough before it fails.
  (void)Shell("echo 1000 >/proc/sys/net/ipv4/neigh/br0/ucast_solicit");
  IpBatch(R"(neigh add 10.1.0.2 lladdr 02:00:00:00:00:02 nud permanent dev br0
neigh add 10.1.0.3 lladdr 02:00:00:00:00:03 nud reachable dev br0
neigh add 10.1.0.4 lladdr 02:00:00:00:00:04 nud noarp dev br0
neigh add 10.1.0.5 lladdr 02:00:00:00:00:05 nud stale dev br0
neigh add 10.1.0.6 lladdr 02:00:00:00:00:06 nud delay dev br0
neigh add 10.1.0.7 lladdr 02:00:00:00:00:07 nud probe dev br0
neigh add 10.1.0.8 nud failed dev br0
neigh add 10.1.0.9 nud incomplete dev br0
)");

  EXPECT_EQ(Sorted(ArpRows()), NeighboursOfIp());
  EXPECT_EQ(Sorted(ArpRows()),
            (Rows{"10.1.0.2 02:00:00:00:00:02 Unknown br0", "10.1.0.3 02:00:00:00:00:03 Reachable br0",
                  "10.1.0.5 02:00:00:00:00:05 Reachable br0", "10.1.0.6 02:00:00:00:00:06 Reachable br0",
                  "10.1.0.7 02:00:00:00:00:07 Reachable br0", "10.1.0.8 00:00:00:00:00:00 Unknown br0",
                  "10.1.0.9 00:00:00:00:00:00 Unknown br0"}));
}

// Makes the kernel ask who has an address.
void SendTo(const std::string& ip) {
  sockaddr_in addr = test::Loopback(9);
  ASSERT_EQ(::inet_pton(AF_INET, ip.c_str(), &addr.sin_addr), 1);
  const internal::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  ASSERT_EQ(::sendto(fd.Get(), "x", 1, 0, reinterpret_cast<const sockaddr*>(&addr), sizeof addr), 1) << ip;
}

TEST_F(GetArpTableLive, NeighbourThatAnswersIsReachableAndOneThatDoesNotIsUnknown) {
  const test::OtherNamespace other;
  test::MakeVeth("eth0");
  IpBatch("addr add 10.2.0.1/24 dev eth0\nlink set eth0 up\nlink set eth0-peer netns " + std::to_string(other.Pid()) +
          '\n');
  (void)other.Ip("addr add 10.2.0.2/24 dev eth0-peer");
  (void)other.Ip("link set eth0-peer up");
  const std::string mac = other.Link("eth0-peer").at("address");

  SendTo("10.2.0.2");
  SendTo("10.2.0.3");

  const Rows expected = {"10.2.0.2 " + mac + " Reachable eth0", "10.2.0.3 00:00:00:00:00:00 Unknown eth0"};
  EXPECT_TRUE(test::BecomesTrue([&expected] { return Sorted(ArpRows()) == expected; }));
  EXPECT_EQ(Sorted(ArpRows()), expected);
}

TEST_F(GetArpTableLive, ProxyEntryHasNoState) {
  IpBatch("neigh add proxy 10.1.0.10 dev br0\n");

  EXPECT_EQ(ArpRows(), (Rows{"10.1.0.10 00:00:00:00:00:00 Unknown br0"}));
}

TEST_F(GetArpTableLive, TableOfSeveralReadsIsWhole) {
  std::string commands;
  for (int host = 2; host < 250; ++host) {
    commands += "neigh add 10.1.0." + std::to_string(host) + " lladdr 02:00:00:00:00:02 nud permanent dev br0\n";
  }
  IpBatch(commands);

  EXPECT_EQ(ArpRows().size(), 248U);
  EXPECT_EQ(Sorted(ArpRows()), NeighboursOfIp());
}

TEST_F(GetArpTableLive, NamespaceWithoutNeighboursHasNone) { EXPECT_EQ(ArpRows(), Rows()); }

std::uint32_t Number(const std::string& ip) {
  std::uint32_t number = 0;
  EXPECT_TRUE(IPtoN(ip, number)) << ip;
  return number;
}

std::uint32_t MaskOf(unsigned prefixLength) { return prefixLength == 0 ? 0 : htonl(UINT32_MAX << (32 - prefixLength)); }

Rows RoutesOfIp() {
  Rows rows;
  for (const nlohmann::json& route : Ip("-4 route show table main")) {
    const std::string network = route.at("dst") == "default" ? "0.0.0.0/0" : route.at("dst").get<std::string>();
    const std::size_t slash = network.find('/');
    const auto length = slash == std::string::npos ? 32U : static_cast<unsigned>(std::stoul(network.substr(slash + 1)));
    const std::string type = route.value("type", "unicast");
    const unsigned flags = RTF_UP + (route.contains("gateway") ? RTF_GATEWAY : 0U) + (length == 32 ? RTF_HOST : 0U) +
                           (type == "unreachable" || type == "prohibit" ? RTF_REJECT : 0U);
    rows.push_back(RouteRow(route.value("dev", "*"), Number(network.substr(0, slash)),
                            Number(route.value("gateway", "0.0.0.0")), MaskOf(length), route.value("metric", 0U),
                            flags));
  }
  return Sorted(rows);
}

TEST_F(GetRoutingTableLive, ShowsWhatIpShows) {
  IpBatch(R"(route add default via 10.1.0.2 metric 100
route add default dev br0 metric 200
route add 10.2.0.0/16 via 10.1.0.2 metric 4294967295
route add 10.2.0.0/16 via 10.1.0.2 metric 2147483648
route add 10.5.0.1/32 dev br0
route add 10.5.0.2/32 via 10.1.0.2
route add unreachable 10.3.0.1/32
route add prohibit 10.3.0.0/24 metric 7
route add blackhole 10.4.0.0/16
route add 128.0.0.0/1 dev br0
route add 255.255.255.252/30 dev br0
route add 10.9.0.0/16 dev br0 table 100
)");

  EXPECT_EQ(RouteRows().size(), 12U);
  EXPECT_EQ(Sorted(RouteRows()), RoutesOfIp());
}

TEST_F(GetRoutingTableLive, TableOfSeveralReadsIsWhole) {
  std::string commands;
  for (int net = 0; net < 250; ++net) {
    commands += "route add 10.2." + std::to_string(net) + ".0/24 via 10.1.0.2 metric " + std::to_string(net) + '\n';
  }
  IpBatch(commands);

  EXPECT_EQ(RouteRows().size(), 251U);
  EXPECT_EQ(Sorted(RouteRows()), RoutesOfIp());
}

TEST_F(GetRoutingTableLive, NamespaceWithoutRoutesHasNone) {
  IpBatch("addr del 10.1.0.1/24 dev br0\n");

  EXPECT_EQ(RouteRows(), Rows());
}

class TablesOfThreads : public test::KernelTest {};

TEST_F(TablesOfThreads, AreThoseOfTheMainThreadsNetwork) {
  IpBatch(
      "link add eth0 type veth peer name eth1\n"
      "link set eth0 up\n"
      "route add 10.1.0.0/16 dev eth0\n");
  bool moved = false;
  Rows rows;
  std::vector<RouteEntry> routes;

  std::thread([&] {
    moved = ::unshare(CLONE_NEWNET) == 0;
    rows = RouteRows();
    routes = GetRoutes(AF_INET);
  }).join();

  ASSERT_TRUE(moved);
  EXPECT_EQ(rows, RouteRows());
  EXPECT_EQ(rows.size(), 1U);
  EXPECT_TRUE(routes.empty()) << "netlink follows the thread";
}

}  // namespace
}  // namespace kiv::net
