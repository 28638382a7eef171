#include "utils/disk_stats.h"

#include <gtest/gtest.h>
#include <kiv/utils.h>

#include <cstddef>
#include <cstdint>
#include <iterator>
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

using DeviceStats = DiskStats::DeviceStats;
using Rows = std::vector<std::string>;

static_assert(std::is_same_v<decltype(&DiskStats::GetAll), bool (*)(std::vector<DeviceStats>&)>);
static_assert(std::is_same_v<decltype(&DiskStats::GetByName), bool (*)(const std::string&, DeviceStats&)>);
static_assert(std::is_same_v<decltype(DeviceStats::sectorsRead), std::uint64_t>);
static_assert(offsetof(DeviceStats, name) < offsetof(DeviceStats, readsCompleted) &&
              offsetof(DeviceStats, readsCompleted) < offsetof(DeviceStats, writesCompleted) &&
              offsetof(DeviceStats, writesCompleted) < offsetof(DeviceStats, sectorsRead) &&
              offsetof(DeviceStats, sectorsRead) < offsetof(DeviceStats, sectorsWritten));

const std::string kRefused = "refused";
const std::string kLargest = "18446744073709551615";

std::string Line(const std::string& line) {
  DeviceStats stats{"used", 1, 2, 3, 4};
  if (ParseDiskStatsLine(line, stats)) {
    return Text(stats);
  }
  return Text(stats) == "used 1 2 3 4" ? kRefused : "refused, and the record changed";
}

// ------------------------------------------------------------------------------------------------ files of kernels

std::string PathOf(const std::string& version) { return KIV_FIXTURES "/proc/" + version + "/diskstats"; }

Rows TableAt(const std::string& path) {
  std::vector<DeviceStats> all;
  internal::ReadTable(path.c_str(), 0, ParseDiskStatsLine, all);
  Rows rows;
  for (const DeviceStats& stats : all) {
    rows.push_back(Text(stats));
  }
  return rows;
}

struct Kernel {
  const char* version;
  Rows rows;
};

const Kernel kKernels[] = {
    {"2.6.9", {"ram0 0 0 0 0", "hda 446216 424847 9550688 5922052", "hdc 0 0 0 0", "loop0 0 0 0 0"}},
    {"2.6.32",
     {"sda 90123 44120 4012340 1802344", "sda1 412 2 3544 4", "sda2 89700 44118 4008700 1802340", "sr0 0 0 0 0",
      "md0 4294967295 1 4294967296 8", "dm-0 101912 104112 4008000 1802336"}},
    {"3.2", {"mmcblk0 2311 801 98112 14312", "mmcblk0p1 2290 801 97944 14312", "mtdblock0 11 0 88 0"}},
    {"3.10", {"sda 1 5 3 7", "sda1 12 16 14 18", "sdb 23 27 25 29"}},
    {"4.4",
     {"sda 4294967295 4294967297 4294967296 8589934592", "sda1 10 14 12 16", "nvme0n1 101 105 103 107",
      "nvme0n1p1 1 0 8 0"}},
    {"4.18", {"sda 5012 2011 201122 80112", "sda1 4900 2000 200112 80112", "loop0 12 0 480 0"}},
    {"5.10",
     {"ram0 0 0 0 0", "mmcblk2 8012 4011 501122 90112", "mmcblk2p1 7000 4000 500112 90112", "mmcblk2boot0 60 0 480 0"}},
    {"6.1",
     {"nvme0n1 18446744073709551615 18446744073709551615 18446744073709551615 18446744073709551615",
      "nvme0n1p1 900 12 8000 96", "vda 1 5 3 7"}},
    {"6.18",
     {"loop0 33258 151760 755682 2294696", "loop1 13477 4704 235015 83804", "loop2 7540 3177 123265 35686",
      "vda 2370197 1403041 143247698 225939168", "zram0 0 0 0 0"}},
};

TEST(FilesOfKernels, DisksAreReadAsTheyStand) {
  for (const Kernel& kernel : kKernels) {
    EXPECT_EQ(TableAt(PathOf(kernel.version)), kernel.rows) << kernel.version;
  }
}

std::string ExpectedOfCutLine(const std::string& line) {
  std::istringstream stream(line);
  const Rows words{std::istream_iterator<std::string>(stream), {}};
  if (words.size() < 14) {
    return kRefused;
  }
  return words[2] + ' ' + words[3] + ' ' + words[7] + ' ' + words[5] + ' ' + words[9];
}

TEST(FilesOfKernels, DiskstatsCutAnywhere) {
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

// ----------------------------------------------------------------------------------------------------- single lines

TEST(ParseDiskStatsLine, FieldsHaveTheirPlaces) {
  EXPECT_EQ(Line("   8       0 sda 4 5 6 7 8 9 10 11 12 13 14"), "sda 4 8 6 10");
  EXPECT_EQ(Line("8 0 sda 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18"), "sda 4 8 6 10");
  EXPECT_EQ(Line("8 0 sda 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20"), "sda 4 8 6 10");
}

TEST(ParseDiskStatsLine, NeedsFourteenFields) {
  std::string line = "8 0 sda";
  for (int field = 4; field <= 14; ++field) {
    EXPECT_EQ(Line(line), kRefused) << line;
    EXPECT_EQ(Line("  " + line + "   \r\n"), kRefused) << line;
    line += ' ' + std::to_string(field);
  }
  EXPECT_EQ(Line(line), "sda 4 8 6 10");
  EXPECT_EQ(Line(""), kRefused);
  EXPECT_EQ(Line(std::string(40, ' ')), kRefused);
}

TEST(ParseDiskStatsLine, BlanksAloneSeparate) {
  EXPECT_EQ(Line("     8     0     sda 4  5   6 7 8 9 10 11     12 13 14    "), "sda 4 8 6 10");
  EXPECT_EQ(Line("8\t0\tsda\t4\t5\t6\t7\t8\t9\t10\t11\t12\t13\t14"), kRefused);
  EXPECT_EQ(Line("8 0 s\td\va 4 5 6 7 8 9 10 11 12 13 14"), "s\td\va 4 8 6 10");
  EXPECT_EQ(Line("8 0 sda 4 5 6 7 8 9 10 11 12 13\t14"), kRefused);
}

TEST(ParseDiskStatsLine, WhitespaceAroundTheLineIsDropped) {
  EXPECT_EQ(Line("\t\v\f\0 8 0 sda 4 5 6 7 8 9 10 11 12 13 14 \r\n\0"s), "sda 4 8 6 10");
}

TEST(ParseDiskStatsLine, NumbersEndAtTheFirstOtherByte) {
  EXPECT_EQ(Line("x y sda 4x four 6,6 7 0x8 9 -1 11 12 13 14"), "sda 4 0 6 " + kLargest);
  EXPECT_EQ(Line("8 0 sda reads 5 \0006 7 8\0008 9 010 a b c d"s), "sda 0 8 0 10");
  EXPECT_EQ(Line("8 0 sda \t4 5 6 7 8 9 +10 11 12 13 14"), "sda 4 8 6 10");
}

TEST(ParseDiskStatsLine, CountersHave64Bits) {
  EXPECT_EQ(Line("8 0 sda 4294967295 5 4294967296 7 9223372036854775808 9 " + kLargest + " 11 12 13 14"),
            "sda 4294967295 9223372036854775808 4294967296 " + kLargest);
}

TEST(ParseDiskStatsLine, NumberThatDoesNotFitBecomesTheLargest) {
  EXPECT_EQ(Line("8 0 sda 18446744073709551616 5 " + std::string(1 << 20, '9') + " 7 8 9 10 11 12 13 14"),
            "sda " + kLargest + " 8 " + kLargest + " 10");
}

TEST(ParseDiskStatsLine, LineOfAMegabyteIsALineLikeOthers) {
  const std::string mega(1 << 20, 'x');
  const std::string blanks(1 << 20, ' ');
  EXPECT_EQ(Line(blanks + "8 0" + blanks + mega + " 4 5 6 7 8 9 10 11 12 13 " + mega), mega + " 4 8 6 10");
  EXPECT_EQ(Line(mega), kRefused);
}

TEST(ParseDiskStatsLine, ReadsNothingOutsideTheView) {
  const std::string text = "8 0 sda 4 5 6 7 8 9 10 11 12 13 14";
  DeviceStats stats{"used", 1, 2, 3, 4};

  EXPECT_FALSE(ParseDiskStatsLine(StringView(text.data(), text.size() - 3), stats));
  EXPECT_FALSE(ParseDiskStatsLine(StringView(), stats));
  EXPECT_EQ(Text(stats), "used 1 2 3 4");
}

}  // namespace
}  // namespace kiv::utils
