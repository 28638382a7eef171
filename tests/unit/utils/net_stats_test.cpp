#include "utils/net_stats.h"

#include <gtest/gtest.h>
#include <kiv/utils.h>

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "internal/table.h"
#include "tests/records.h"
#include "tests/support.h"

namespace kiv::utils {
namespace {

using namespace std::string_literals;
using test::Text;

using IfaceStats = NetStats::IfaceStats;
using Rows = std::vector<std::string>;

static_assert(std::is_same_v<decltype(&NetStats::GetAll), bool (*)(std::vector<IfaceStats>&)>);
static_assert(std::is_same_v<decltype(&NetStats::GetByName), bool (*)(const std::string&, IfaceStats&)>);
static_assert(std::is_same_v<decltype(IfaceStats::rxBytes), std::uint64_t>);
static_assert(offsetof(IfaceStats, name) < offsetof(IfaceStats, rxBytes) &&
              offsetof(IfaceStats, rxBytes) < offsetof(IfaceStats, txBytes) &&
              offsetof(IfaceStats, txBytes) < offsetof(IfaceStats, rxPackets) &&
              offsetof(IfaceStats, rxPackets) < offsetof(IfaceStats, txPackets));

const std::string kRefused = "refused";
const std::string kLargest = "18446744073709551615";

std::string Line(const std::string& line) {
  IfaceStats stats{"used", 1, 2, 3, 4};
  if (ParseNetDevLine(line, stats)) {
    return Text(stats);
  }
  return Text(stats) == "used 1 2 3 4" ? kRefused : "refused, and the record changed";
}

// ------------------------------------------------------------------------------------------------ files of kernels

std::string PathOf(const std::string& version) { return KIV_FIXTURES "/proc/" + version + "/net_dev"; }

Rows TableAt(const std::string& path) {
  std::vector<IfaceStats> all;
  internal::ReadTable(path.c_str(), 2, ParseNetDevLine, all);
  Rows rows;
  for (const IfaceStats& stats : all) {
    rows.push_back(Text(stats));
  }
  return rows;
}

struct Kernel {
  const char* version;
  Rows rows;
};

const Kernel kKernels[] = {
    {"2.4.37", {"lo 4412 4412 61 61", "eth0 83112345 9912345 112233 98765", "ppp0 120011 61022 811 790"}},
    {"2.6.9",
     {"lo 2341231 2341231 10223 10223", "eth0 1234 4294967295 10 4294967295", "eth1 4294967290 0 4018231 0",
      "sit0 0 0 0 0"}},
    {"2.6.32",
     {"lo 100 100 2 2", "eth0 123456789 98765432 120033 100221", "wlan0 0 0 0 0", "virbr0-nic 0 0 0 0",
      "usb0-longname15 16 32 1 2"}},
    {"3.2", {"lo 0 0 0 0", "eth0 555 777 5 7", "eth1 1 3 2 4"}},
    {"3.10", {"eth0 801122331 91122331 712233 501122", "lo 80112 80112 1022 1022", "br-lan 401 502 4 5"}},
    {"4.4", {"enp0s31f6 4294967296 4294967297 4294967295 4294967296", "lo 1 1 1 1", "wlp0s20f0u10u3x 91 82 9 8"}},
    {"4.18", {"lo 92 92 1 1", "eth0.100 1000 2000 10 20", "docker0 0 0 0 0", "veth1a2b3c4 300 400 3 4"}},
    {"5.10", {"lo 0 0 0 0", "eth0 4011223 901122 30112 20112", "can0 801 0 100 0"}},
    {"6.1",
     {"lo 18446744073709551615 18446744073709551615 18446744073709551615 18446744073709551615",
      "eth0 18446744073709551614 4294967296 1 4294967295", "wg0 148 92 1 1", "vxlan.calico-05 500 600 5 6"}},
    {"6.18",
     {"lo 116562857547 116562857547 8887980 8887980", "ifb0 0 0 0 0", "ifb1 0 0 0 0",
      "eth0 1831613416 5236965 80925 66835"}},
};

// An interface that was renamed to "eth0:1" reads as "eth0" with counters that begin with "1:", and is left out.
TEST(FilesOfKernels, InterfacesAreReadAsTheyStand) {
  for (const Kernel& kernel : kKernels) {
    EXPECT_EQ(TableAt(PathOf(kernel.version)), kernel.rows) << kernel.version;
  }
}

// Words of a well-formed line: the first is the name with its colon, however close the second stands.
std::string ExpectedOfCutLine(const std::string& line) {
  const std::size_t colon = line.find(':');
  if (colon == std::string::npos) {
    return kRefused;
  }
  std::istringstream name(line.substr(0, colon));
  std::istringstream rest(line.substr(colon + 1));
  IfaceStats stats;
  std::uint64_t skipped = 0;
  rest >> stats.rxBytes >> stats.rxPackets >> skipped >> skipped >> skipped >> skipped >> skipped >> skipped >>
      stats.txBytes >> stats.txPackets;
  return name >> stats.name && rest ? Text(stats) : kRefused;
}

TEST(FilesOfKernels, EveryLineCutAnywhere) {
  for (const Kernel& kernel : kKernels) {
    std::istringstream lines(test::ReadFile(PathOf(kernel.version)));
    for (std::string line; std::getline(lines, line);) {
      for (std::size_t size = 0; size <= line.size(); ++size) {
        const std::string cut = line.substr(0, size);
        EXPECT_EQ(Line(cut), ExpectedOfCutLine(cut)) << cut;
      }
    }
  }
}

TEST(FilesOfKernels, NetDevCutAnywhere) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/dev";
  const std::string text = test::ReadFile(PathOf("2.6.9"));
  for (std::size_t size = 0; size <= text.size(); ++size) {
    const std::string cut = text.substr(0, size);
    test::WriteFile(path, cut);
    std::istringstream lines(cut);
    Rows expected;
    std::string line;
    for (int number = 0; std::getline(lines, line); ++number) {
      if (number >= 2 && ExpectedOfCutLine(line) != kRefused) {
        expected.push_back(ExpectedOfCutLine(line));
      }
    }
    EXPECT_EQ(TableAt(path), expected) << size;
  }
}

// ----------------------------------------------------------------------------------------------------- single lines

TEST(ParseNetDevLine, BytesAndPacketsOpenEachHalf) {
  EXPECT_EQ(
      Line("    lo:     100       2    0    0    0     0          0         0      100       2    0    0    0     "
           "0       0          0"),
      "lo 100 100 2 2");
  EXPECT_EQ(Line("eth0: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16"), "eth0 1 9 2 10");
}

TEST(ParseNetDevLine, TenNumbersAreEnough) {
  EXPECT_EQ(Line("eth0: 1 2 3 4 5 6 7 8 9 10"), "eth0 1 9 2 10");
  EXPECT_EQ(Line("eth0: 1 2 3 4 5 6 7 8 9 10 more words"), "eth0 1 9 2 10");
}

TEST(ParseNetDevLine, FewerThanTenNumbersAreRefused) {
  std::string line = "eth0:";
  for (int count = 0; count < 10; ++count) {
    EXPECT_EQ(Line(line), kRefused) << line;
    EXPECT_EQ(Line(line + " x 5 6 7 8 9 10 11 12 13 14"), kRefused) << line;
    EXPECT_EQ(Line(line + " - 5 6 7 8 9 10 11 12 13 14"), kRefused) << line;
    line += ' ' + std::to_string(count);
  }
  EXPECT_EQ(Line(line), "eth0 0 8 1 9");
}

TEST(ParseNetDevLine, NameIsTrimmed) {
  EXPECT_EQ(Line("  eth0:1 2 3 4 5 6 7 8 9 10"), "eth0 1 9 2 10");
  EXPECT_EQ(Line(" \t\f\v\r eth0 \t : 1 2 3 4 5 6 7 8 9 10 \r"), "eth0 1 9 2 10");
  EXPECT_EQ(Line("\0 eth0\0:1 2 3 4 5 6 7 8 9 10\0"s), "eth0 1 9 2 10");
}

TEST(ParseNetDevLine, NameKeepsEveryByteInside) {
  EXPECT_EQ(Line("e t\0h\xff: 1 2 3 4 5 6 7 8 9 10"s), "e t\0h\xff 1 9 2 10"s);
  EXPECT_EQ(Line("123456789012345:1 2 3 4 5 6 7 8 9 10"), "123456789012345 1 9 2 10");
  EXPECT_EQ(Line("0: 1 2 3 4 5 6 7 8 9 10"), "0 1 9 2 10");
}

TEST(ParseNetDevLine, WithoutANameOrAColonThereIsNothing) {
  for (const std::string& line :
       {""s, " "s, "\0\0"s, ":"s, " \t:1 2 3 4 5 6 7 8 9 10"s, "\0:1 2 3 4 5 6 7 8 9 10"s, "::1 2 3 4 5 6 7 8 9 10"s,
        "eth0 1 2 3 4 5 6 7 8 9 10"s, "1 2 3 4 5 6 7 8 9 10"s, "eth0"s, "eth0:"s}) {
    EXPECT_EQ(Line(line), kRefused) << line;
  }
  EXPECT_EQ(
      [] {
        IfaceStats stats;
        return ParseNetDevLine(StringView(), stats);
      }(),
      false);
}

TEST(ParseNetDevLine, FirstColonEndsTheName) {
  EXPECT_EQ(Line("eth0:1: 10 2 3 4 5 6 7 8 9 10"), kRefused);
  EXPECT_EQ(Line("eth0:alias: 1 2 3 4 5 6 7 8 9 10"), kRefused);
  EXPECT_EQ(Line("eth0:1 2 3 4 5 6 7 8 9 10:11"), "eth0 1 9 2 10");
}

TEST(ParseNetDevLine, CountersHave64Bits) {
  EXPECT_EQ(Line("eth0: 4294967295 4294967296 0 0 0 0 0 0 " + kLargest + " 9223372036854775808"),
            "eth0 4294967295 " + kLargest + " 4294967296 9223372036854775808");
}

TEST(ParseNetDevLine, NumberThatDoesNotFitBecomesTheLargest) {
  const std::string mega(1 << 20, '9');
  EXPECT_EQ(Line("eth0: 18446744073709551616 1 " + mega + " 3 4 5 6 " + mega + ' ' + mega + " 2"),
            "eth0 " + kLargest + ' ' + kLargest + " 1 2");
}

TEST(ParseNetDevLine, NegativeNumbersWrap) {
  EXPECT_EQ(Line("eth0: -1 -2 -3 -4 -5 -6 -7 -8 +9 -10"),
            "eth0 " + kLargest + " 9 18446744073709551614 18446744073709551606");
}

TEST(ParseNetDevLine, NumbersAreDecimalAndWhole) {
  EXPECT_EQ(Line("eth0: 010 2 3 4 5 6 7 8 9 0x10"), "eth0 10 9 2 0");
  EXPECT_EQ(Line("eth0: 1.5 2 3 4 5 6 7 8 9 10"), kRefused);
  EXPECT_EQ(Line("eth0: 1 2 0x3 4 5 6 7 8 9 10"), kRefused);
}

TEST(ParseNetDevLine, NulByteEndsTheCounters) {
  EXPECT_EQ(Line("eth0: 1 2 3 4 5 6 7 8 9\0 10"s), kRefused);
  EXPECT_EQ(Line("eth0: 1 2 3 4 5 6 7 8 9 10\0 11"s), "eth0 1 9 2 10");
}

TEST(ParseNetDevLine, LineOfAMegabyteIsALineLikeOthers) {
  const std::string mega(1 << 20, 'x');
  const std::string blanks(1 << 20, ' ');
  EXPECT_EQ(Line(blanks + mega + ':' + blanks + "1 2 3 4 5 6 7 8 9" + blanks + "10"), mega + " 1 9 2 10");
  EXPECT_EQ(Line(mega), kRefused);
  EXPECT_EQ(Line(std::string(1 << 20, ':')), kRefused);
}

TEST(ParseNetDevLine, ReadsNothingOutsideTheView) {
  const std::string text = "xxeth0:1 2 3 4 5 6 7 8 9 10000";
  IfaceStats stats;

  EXPECT_TRUE(ParseNetDevLine(StringView(text.data() + 2, text.size() - 5), stats));
  EXPECT_EQ(Text(stats), "eth0 1 9 2 10");
}

}  // namespace
}  // namespace kiv::utils
