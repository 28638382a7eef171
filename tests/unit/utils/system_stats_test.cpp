#include "utils/system_stats.h"

#include <gtest/gtest.h>
#include <kiv/utils.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <clocale>
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <limits>
#include <random>
#include <sstream>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/child.h"
#include "tests/support.h"

namespace kiv::utils {
namespace {

using namespace std::string_literals;

using CpuUsage = SystemStats::CpuUsage;
using LoadAvg = SystemStats::LoadAvg;
using MemInfo = SystemStats::MemInfo;

static_assert(std::is_same_v<decltype(&SystemStats::GetCpuUsage), bool (*)(CpuUsage&)>);
static_assert(std::is_same_v<decltype(&SystemStats::GetLoadAvg), bool (*)(LoadAvg&)>);
static_assert(std::is_same_v<decltype(&SystemStats::GetUptime), bool (*)(double&)>);
static_assert(std::is_same_v<decltype(&SystemStats::GetMemory), bool (*)(MemInfo&)>);
static_assert(sizeof(CpuUsage) == 3 * sizeof(double) && offsetof(CpuUsage, user) < offsetof(CpuUsage, system) &&
              offsetof(CpuUsage, system) < offsetof(CpuUsage, idle));
static_assert(sizeof(LoadAvg) == 3 * sizeof(double) && offsetof(LoadAvg, one) < offsetof(LoadAvg, five) &&
              offsetof(LoadAvg, five) < offsetof(LoadAvg, fifteen));
static_assert(sizeof(MemInfo) == 3 * sizeof(std::uint64_t) && offsetof(MemInfo, total) < offsetof(MemInfo, free) &&
              offsetof(MemInfo, free) < offsetof(MemInfo, available));

constexpr std::uint64_t kMax = std::numeric_limits<std::uint64_t>::max();
const std::string kMega(1 << 20, '1');

using Counters = std::array<std::uint64_t, 8>;

CpuTimes Times(const Counters& c) { return {c[0], c[1], c[2], c[3], c[4], c[5], c[6], c[7]}; }

Counters CountersOf(const CpuTimes& t) {
  return {t.user, t.nice, t.system, t.idle, t.iowait, t.irq, t.softirq, t.steal};
}

std::string Text(const Counters& counters) {
  std::string text;
  for (const std::uint64_t counter : counters) {
    text += std::to_string(counter) + ' ';
  }
  return text;
}

const std::string kRefused = "refused";

// The counters of a line; kRefused when it is refused and the record left alone.
std::string CpuLine(const std::string& line) {
  const Counters used = {91, 92, 93, 94, 95, 96, 97, 98};
  CpuTimes times = Times(used);
  if (ParseCpuLine(line, times)) {
    return Text(CountersOf(times));
  }
  return CountersOf(times) == used ? kRefused : "refused, and the record changed";
}

std::string Shown(double first, double second, double third) {
  std::ostringstream text;
  text.precision(15);
  text << first << ' ' << second << ' ' << third;
  return text.str();
}

std::string LoadLine(const std::string& line) {
  LoadAvg load{91, 92, 93};
  if (ParseLoadAvg(line, load)) {
    return Shown(load.one, load.five, load.fifteen);
  }
  return Shown(load.one, load.five, load.fifteen) == "91 92 93" ? kRefused : "refused, and the record changed";
}

constexpr double kNone = -77;

double UptimeLine(const std::string& line) {
  double seconds = kNone;
  return ParseUptime(line, seconds) == (seconds != kNone) ? seconds : std::nan("");
}

using Memory = std::array<std::uint64_t, 3>;

Memory Fields(const MemInfo& info) { return {info.total, info.free, info.available}; }

// What is in the record afterwards; the result must be what the total says.
Memory MemoryOf(const std::string& text) {
  MemInfo info{91, 92, 93};
  const bool result = ParseMemInfo(text, info);
  EXPECT_EQ(result, info.total != 0) << text;
  return Fields(info);
}

// ------------------------------------------------------------------------------------------------ files of kernels

std::string Fixture(const std::string& version, const std::string& name) {
  const std::string text = test::ReadFile(KIV_FIXTURES "/proc/" + version + '/' + name);
  EXPECT_NE(text, "") << version << ' ' << name;
  return text;
}

std::string FirstLine(const std::string& text) { return text.substr(0, text.find('\n')); }

struct Kernel {
  const char* version;
  Counters cpu;
  Memory memory;
  std::array<double, 3> load;
  double uptime;
};

const Kernel kKernels[] = {
    {"2.4.37", {140233, 91, 40128, 8712345}, {61268, 3920, 0}, {0, 0.02, 0.05}, 88927.97},
    {"2.6.9", {88120, 310, 20411, 4294967295, 51002, 812, 3301}, {515512, 13040, 0}, {1.05, 0.7, 0.3}, 709120.11},
    {"2.6.32", {391022, 1204, 88120, 19022331, 20118, 17, 4410, 903}, {1020348, 120480, 0}, {0, 0.01, 0.05}, 194721.02},
    {"3.2", {1000, 20, 300, 40000, 500, 6, 70, 8}, {255488, 101224, 0}, {12, 100.05, 3.14}, 0},
    {"3.10", {81231, 0, 20112, 512344, 1022, 0, 311, 0}, {506892, 230112, 0}, {0.1, 0.2, 0.3}, 12345.67},
    {"4.4", {4294967296, 1, 4294967295, 2, 3, 4, 5, 6}, {1024000, 512000, 786432}, {0.52, 0.58, 0.59}, 4294967.96},
    {"4.18", {1201, 33, 455, 91021, 12, 0, 9, 0}, {2040560, 1402344, 1702120}, {0.08, 0.03, 0.01}, 927.31},
    {"5.10", {40112, 0, 12012, 801122, 3011, 1201, 801, 12}, {494240, 310112, 400112}, {0, 0, 0}, 8612.4},
    {"6.1", {kMax, 0, 1, 2, 3, 4, 5, 6}, {131820112, 91012244, 120112348}, {63.99, 64.01, 9.87}, 31536000.01},
    {"6.18",
     {4261812, 212322, 1050934, 4695825, 11906, 0, 12273, 7874},
     {24684092, 23204540, 24082036},
     {2.01, 1.02, 1.1},
     51459.42},
};

TEST(FilesOfKernels, AreReadAsTheyStand) {
  for (const Kernel& kernel : kKernels) {
    EXPECT_EQ(CpuLine(FirstLine(Fixture(kernel.version, "stat"))), Text(kernel.cpu)) << kernel.version;
    EXPECT_EQ(MemoryOf(Fixture(kernel.version, "meminfo")), kernel.memory) << kernel.version;
    EXPECT_EQ(LoadLine(FirstLine(Fixture(kernel.version, "loadavg"))),
              Shown(kernel.load[0], kernel.load[1], kernel.load[2]))
        << kernel.version;
    EXPECT_EQ(UptimeLine(FirstLine(Fixture(kernel.version, "uptime"))), kernel.uptime) << kernel.version;
  }
}

TEST(FilesOfKernels, WithFiveAndEightColumnsOfTheProcessors) {
  EXPECT_EQ(CpuLine(FirstLine(Fixture("2.5.45", "stat"))), Text({2110, 0, 903, 71234, 1044}));
  EXPECT_EQ(CpuLine(FirstLine(Fixture("2.6.18", "stat"))), Text({101, 202, 303, 404, 505, 606, 707, 808}));
}

// Numbers of a well-formed line by other means than the library's.
template <typename Number>
std::vector<Number> Numbers(const std::string& text) {
  std::istringstream stream(text);
  std::vector<Number> numbers;
  for (Number number{}; stream >> number;) {
    numbers.push_back(number);
  }
  return numbers;
}

std::string ExpectedOfCutStat(const std::string& line) {
  if (line.rfind("cpu ", 0) != 0) {
    return kRefused;
  }
  std::vector<std::uint64_t> numbers = Numbers<std::uint64_t>(line.substr(4));
  if (numbers.size() < 4) {
    return kRefused;
  }
  numbers.resize(8);
  Counters counters{};
  std::copy(numbers.begin(), numbers.end(), counters.begin());
  return Text(counters);
}

std::vector<std::string> AllVersions() {
  std::vector<std::string> versions = {"2.5.45", "2.6.18"};
  for (const Kernel& kernel : kKernels) {
    versions.emplace_back(kernel.version);
  }
  return versions;
}

TEST(FilesOfKernels, CutAnywhereInTheFirstLineOfStat) {
  for (const std::string& version : AllVersions()) {
    const std::string line = FirstLine(Fixture(version, "stat"));
    for (std::size_t size = 0; size <= line.size(); ++size) {
      const std::string cut = line.substr(0, size);
      EXPECT_EQ(CpuLine(cut), ExpectedOfCutStat(cut)) << version << ' ' << cut;
    }
  }
}

TEST(FilesOfKernels, CutAnywhereInTheLineOfLoadavg) {
  for (const Kernel& kernel : kKernels) {
    const std::string line = FirstLine(Fixture(kernel.version, "loadavg"));
    for (std::size_t size = 0; size <= line.size(); ++size) {
      const std::string cut = line.substr(0, size);
      const std::vector<double> numbers = Numbers<double>(cut);
      EXPECT_EQ(LoadLine(cut), numbers.size() < 3 ? kRefused : Shown(numbers[0], numbers[1], numbers[2])) << cut;
    }
  }
}

TEST(FilesOfKernels, CutAnywhereInTheLineOfUptime) {
  for (const Kernel& kernel : kKernels) {
    const std::string line = FirstLine(Fixture(kernel.version, "uptime"));
    for (std::size_t size = 0; size <= line.size(); ++size) {
      const std::string cut = line.substr(0, size);
      EXPECT_EQ(UptimeLine(cut), cut.empty() ? kNone : Numbers<double>(cut)[0]) << cut;
    }
  }
}

// Names and amounts of well-formed lines; a line that is cut before its colon says nothing.
Memory ExpectedOfCutMemInfo(const std::string& text) {
  Memory memory{};
  std::istringstream lines(text);
  for (std::string line; std::getline(lines, line);) {
    const char* const names[] = {"MemTotal:", "MemFree:", "MemAvailable:"};
    for (std::size_t i = 0; i < memory.size(); ++i) {
      const std::string name = names[i];
      if (line.rfind(name, 0) == 0) {
        const std::vector<std::uint64_t> numbers = Numbers<std::uint64_t>(line.substr(name.size()));
        memory[i] = numbers.empty() ? 0 : numbers[0];
      }
    }
  }
  return memory;
}

TEST(FilesOfKernels, CutAnywhereInMemInfo) {
  for (const Kernel& kernel : kKernels) {
    const std::string text = Fixture(kernel.version, "meminfo");
    const std::size_t interesting = std::min(text.size(), text.find("Cached:"));
    for (std::size_t size = 0; size <= text.size(); size += size < interesting ? 1 : 7) {
      const std::string cut = text.substr(0, size);
      EXPECT_EQ(MemoryOf(cut), ExpectedOfCutMemInfo(cut)) << kernel.version << ' ' << size;
    }
  }
}

// ---------------------------------------------------------------------------------------- the line of all processors

TEST(ParseCpuLine, CountersThatAreNotThereAreZero) {
  const Counters all = {1, 2, 3, 4, 5, 6, 7, 8};
  for (std::size_t count = 4; count <= 8; ++count) {
    Counters expected{};
    std::string line = "cpu ";
    for (std::size_t i = 0; i < count; ++i) {
      expected[i] = all[i];
      line += ' ' + std::to_string(all[i]);
    }
    EXPECT_EQ(CpuLine(line), Text(expected)) << line;
  }
}

TEST(ParseCpuLine, NeedsFourCounters) {
  for (const char* line : {"cpu ", "cpu  1", "cpu  1 2", "cpu  1 2 3", "cpu  1 2 3 ", "cpu  1 2 3 x 5 6 7 8",
                           "cpu  user nice system idle", "cpu  1, 2, 3, 4", "cpu  1 2 3 -", "cpu  0x1 2 3 4"}) {
    EXPECT_EQ(CpuLine(line), kRefused) << line;
  }
}

TEST(ParseCpuLine, TimeOfGuestsIsNotRead) {
  EXPECT_EQ(CpuLine("cpu  1 2 3 4 5 6 7 8 9"), Text({1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(CpuLine("cpu  1 2 3 4 5 6 7 8 9 10"), Text({1, 2, 3, 4, 5, 6, 7, 8}));
  EXPECT_EQ(CpuLine("cpu  1 2 3 4 5 6 7 8 guest 10 11"), Text({1, 2, 3, 4, 5, 6, 7, 8}));
}

TEST(ParseCpuLine, BeginsWithTheFourBytesOfAllProcessors) {
  for (const char* line : {"", "c", "cp", "cpu", "cpu0 1 2 3 4 5 6 7 8", "cpu1 2 3 4 5", "cpu\t1 2 3 4", "CPU 1 2 3 4",
                           " cpu 1 2 3 4", "xcpu 1 2 3 4", "intr 1 2 3 4", "1 2 3 4", "cpus 1 2 3 4", "cpu:1 2 3 4"}) {
    EXPECT_EQ(CpuLine(line), kRefused) << line;
  }
  EXPECT_EQ(CpuLine("cpu 1 2 3 4"), Text({1, 2, 3, 4})) << "one blank is enough";
}

TEST(ParseCpuLine, EndsAtTheFirstThatIsNoNumber) {
  EXPECT_EQ(CpuLine("cpu  1 2 3 4 five 6 7 8"), Text({1, 2, 3, 4}));
  EXPECT_EQ(CpuLine("cpu  1 2 3 4.5 6 7 8"), Text({1, 2, 3, 4}));
  EXPECT_EQ(CpuLine("cpu  1 2 3 0x4 5"), Text({1, 2, 3, 0}));
  EXPECT_EQ(CpuLine("cpu  1 2 3 4 5\r"), Text({1, 2, 3, 4, 5}));
}

TEST(ParseCpuLine, AnyWhitespaceStandsBetweenCounters) {
  EXPECT_EQ(CpuLine("cpu \t1\t2\v3\f4\r5     6"), Text({1, 2, 3, 4, 5, 6}));
}

TEST(ParseCpuLine, TakesAll64Bits) {
  EXPECT_EQ(CpuLine("cpu 4294967295 4294967296 9223372036854775808 18446744073709551615"),
            Text({4294967295, 4294967296, std::uint64_t{1} << 63, kMax}));
}

TEST(ParseCpuLine, NumberThatDoesNotFitBecomesTheLargest) {
  EXPECT_EQ(CpuLine("cpu 18446744073709551616 2 99999999999999999999999 4 " + kMega), Text({kMax, 2, kMax, 4, kMax}));
}

TEST(ParseCpuLine, NegativeNumbersWrap) { EXPECT_EQ(CpuLine("cpu -1 -2 +3 4"), Text({kMax, kMax - 1, 3, 4})); }

TEST(ParseCpuLine, EndsAtANulByte) {
  EXPECT_EQ(CpuLine("cpu 1 2 3\0 4 5"s), kRefused);
  EXPECT_EQ(CpuLine("cpu 1 2 3 4\0 5 6 7 8"s), Text({1, 2, 3, 4}));
  EXPECT_EQ(CpuLine("cpu\0 1 2 3 4"s), kRefused);
  EXPECT_EQ(CpuLine("cpu \0 1 2 3 4"s), kRefused);
  EXPECT_EQ(CpuLine("\0cpu 1 2 3 4"s), kRefused);
}

TEST(ParseCpuLine, LineOfAMegabyteIsALineLikeOthers) {
  const std::string blanks(1 << 20, ' ');
  EXPECT_EQ(CpuLine("cpu " + blanks + "1 2 3 4" + blanks + "5"), Text({1, 2, 3, 4, 5}));
  EXPECT_EQ(CpuLine("cpu" + kMega), kRefused);
}

// --------------------------------------------------------------------------------------------------- shares of time

std::string Usage(const Counters& before, const Counters& now) {
  CpuUsage usage{91, 92, 93};
  if (ComputeUsage(Times(before), Times(now), usage)) {
    return Shown(usage.user, usage.system, usage.idle);
  }
  return Shown(usage.user, usage.system, usage.idle) == "91 92 93" ? kRefused : "refused, and the record changed";
}

TEST(ComputeUsage, BusyTimeIsSplit70To30WhoeverSpentIt) {
  for (const Counters& busy : {Counters{100, 0, 0, 100}, Counters{0, 100, 0, 100}, Counters{0, 0, 100, 100},
                               Counters{0, 0, 0, 100, 0, 100}, Counters{0, 0, 0, 100, 0, 0, 100},
                               Counters{0, 0, 0, 100, 0, 0, 0, 100}, Counters{10, 20, 30, 100, 0, 5, 15, 20}}) {
    EXPECT_EQ(Usage({}, busy), "35 15 50") << Text(busy);
  }
}

TEST(ComputeUsage, IdleIntervalAndBusyInterval) {
  const Counters before = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(Usage(before, {1, 2, 3, 104, 5, 6, 7, 8}), "0 0 100");
  EXPECT_EQ(Usage(before, {101, 2, 3, 4, 5, 6, 7, 8}), "70 30 0");
}

TEST(ComputeUsage, OneTickIsEnough) {
  EXPECT_EQ(Usage({}, {0, 1}), "70 30 0");
  EXPECT_EQ(Usage({}, {0, 0, 0, 1}), "0 0 100");
}

TEST(ComputeUsage, WaitingForDisksIsIdle) {
  EXPECT_EQ(Usage({}, {0, 0, 0, 0, 50}), "0 0 100");
  EXPECT_EQ(Usage({}, {50, 0, 0, 0, 50}), "35 15 50");
  EXPECT_EQ(Usage({}, {50, 0, 0, 25, 25}), "35 15 50");
}

TEST(ComputeUsage, NothingBetweenTheSamplesGivesNothing) {
  const Counters sample = {1, 2, 3, 4, 5, 6, 7, 8};
  EXPECT_EQ(Usage(sample, sample), kRefused);
  EXPECT_EQ(Usage({}, {}), kRefused);
  EXPECT_EQ(Usage({5, 0, 0, 10}, {10, 0, 0, 5}), kRefused) << "changes that cancel each other";
  EXPECT_EQ(Usage({0, 0, 0, 0, 7}, {0, 0, 7}), kRefused);
}

// The expected shares are summed up difference by difference, in other arithmetic than the library's.
TEST(ComputeUsage, SharesAreThoseOfTheSums) {
  std::mt19937_64 random(61);
  for (int round = 0; round < 2000; ++round) {
    Counters before{};
    Counters now{};
    long double busy = 0;
    long double all = 0;
    for (std::size_t i = 0; i < before.size(); ++i) {
      before[i] = random() >> 8;
      const std::uint64_t passed = random() >> (20 + random() % 43);
      now[i] = before[i] + passed;
      all += static_cast<long double>(passed);
      busy += i == 3 || i == 4 ? 0 : static_cast<long double>(passed);
    }
    CpuUsage usage{};
    ASSERT_EQ(ComputeUsage(Times(before), Times(now), usage), all != 0);
    if (all == 0) {
      continue;
    }
    const auto share = static_cast<double>(busy / all * 100);
    EXPECT_NEAR(usage.user, share * 0.7, 1e-9);
    EXPECT_NEAR(usage.system, share * 0.3, 1e-9);
    EXPECT_NEAR(usage.idle, 100 - share, 1e-9);
    EXPECT_NEAR(usage.user + usage.system + usage.idle, 100, 1e-9);
    EXPECT_NEAR(usage.user * 3, usage.system * 7, 1e-9);
  }
}

struct Odd {
  const char* what;
  Counters before;
  Counters now;
  CpuUsage expected;
};

// With differences modulo 2^64 done by hand.
const Odd kOdd[] = {
    {"a counter wraps", {kMax - 9, 0, 0, 100}, {20, 0, 0, 130}, {35, 15, 50}},
    {"the sum wraps", {kMax, 0, kMax, kMax}, {kMax, 0, kMax, kMax, 10, 0, 0, 30}, {52.5, 22.5, 25}},
    {"idle and iowait wrap together",
     {0, 0, 0, kMax, 3},
     {4, 0, 0, kMax, 5},
     {46.666666666666664, 20, 33.333333333333336}},
    {"iowait goes backwards: 10 of 5 ticks are busy", {100, 0, 0, 50, 20}, {110, 0, 0, 50, 15}, {140, 60, -100}},
    {"a processor goes away: 2^64 - 10 of 10 ticks are busy",
     {100, 0, 0, 100},
     {90, 0, 0, 120},
     {0.7 * 1.8446744073709552e20, 0.3 * 1.8446744073709552e20, -1.8446744073709552e20}},
    {"less idle than busy goes backwards: 2^64 - 100 of 2^64 - 150 ticks are busy",
     {200, 0, 0, 200},
     {100, 0, 0, 150},
     {70, 30, 0}},
    {"only idle goes backwards: none of 2^64 - 100 ticks is busy", {7, 0, 0, 200}, {7, 0, 0, 100}, {0, 0, 100}},
};

TEST(ComputeUsage, DifferencesAreModulo2To64) {
  for (const Odd& odd : kOdd) {
    CpuUsage usage{};
    EXPECT_TRUE(ComputeUsage(Times(odd.before), Times(odd.now), usage)) << odd.what;
    EXPECT_DOUBLE_EQ(usage.user, odd.expected.user) << odd.what;
    EXPECT_DOUBLE_EQ(usage.system, odd.expected.system) << odd.what;
    EXPECT_DOUBLE_EQ(usage.idle, odd.expected.idle) << odd.what;
  }
}

// -------------------------------------------------------------------------------------------------- load and uptime

TEST(ParseLoadAvg, BeginsWithExactlyThreeNumbers) {
  EXPECT_EQ(LoadLine("0.10 0.20 0.30 1/80 1234"), Shown(0.10, 0.20, 0.30));
  EXPECT_EQ(LoadLine("0.10 0.20 0.30"), Shown(0.10, 0.20, 0.30));
  EXPECT_EQ(LoadLine("1 2 3"), "1 2 3");
  EXPECT_EQ(LoadLine("1.5\t2.5 \n 3.5x"), "1.5 2.5 3.5");
  EXPECT_EQ(LoadLine(" 1e2 -3 +4.25"), "100 -3 4.25");
  EXPECT_EQ(LoadLine("1.5.25.125"), "1.5 0.25 0.125") << "blanks are not asked for";
  EXPECT_EQ(LoadLine(std::string(1 << 20, ' ') + "1 2 3" + std::string(1 << 20, 'x')), "1 2 3");
}

TEST(ParseLoadAvg, FewerNumbersAreRefused) {
  for (const std::string& line :
       {""s, " "s, "0.10"s, "0.10 0.20"s, "0.10 0.20 "s, "0.10 0.20 x 0.30"s, "x 0.1 0.2 0.3"s, "a b c"s,
        "0,10 0,20 0,30"s, "0.10 0.20\0 0.30"s, "\0000.10 0.20 0.30"s, "- - -"s}) {
    EXPECT_EQ(LoadLine(line), kRefused) << line;
  }
}

TEST(ParseUptime, IsTheNumberThatTheLineBeginsWith) {
  EXPECT_EQ(UptimeLine("12345.67 4000.00"), 12345.67);
  EXPECT_EQ(UptimeLine("12345.67"), 12345.67);
  EXPECT_EQ(UptimeLine("0.00 0.00"), 0);
  EXPECT_EQ(UptimeLine("7"), 7);
  EXPECT_EQ(UptimeLine(" \t42.5s"), 42.5);
  EXPECT_EQ(UptimeLine("-1.5 2"), -1.5);
  EXPECT_EQ(UptimeLine("4294967296.25 1"), 4294967296.25);
  EXPECT_EQ(UptimeLine("1e400"), std::numeric_limits<double>::infinity());
  EXPECT_EQ(UptimeLine("12\0003"s), 12);
  EXPECT_EQ(UptimeLine("5" + std::string(1 << 20, ' ')), 5);
}

TEST(ParseUptime, LineThatBeginsWithNoNumberIsRefused) {
  for (const std::string& line : {""s, " "s, "up 12.5"s, "."s, "-"s, ",5"s, "\00012.5"s, "s12"s}) {
    EXPECT_EQ(UptimeLine(line), kNone) << line;
  }
}

// Runs in a process of its own, for the locale is that of the whole process.
std::string GermanFigures(const std::string& folder) {
  const std::string compile = "localedef -i de_DE -f UTF-8 " + folder + "/de_DE.UTF-8 2>/dev/null";
  if (std::system(compile.c_str()) != 0 || ::setenv("LOCPATH", folder.c_str(), 1) != 0 ||
      std::setlocale(LC_ALL, "de_DE.UTF-8") == nullptr) {
    return "no locale";
  }
  return LoadLine("0.10 0.20 0.30 1/80 1234") + ' ' + std::to_string(static_cast<int>(UptimeLine("12.5 4.0"))) + ' ' +
         LoadLine("0,5 0,25 3 1/80 1234") + ' ' + (UptimeLine("12,5 4.0") == 12.5 ? "12,5" : "wrong");
}

TEST(ParseLoadAvgAndUptime, NumbersAreReadInTheProgramsLocale) {
  const test::TempFolder folder;

  const std::string figures = test::InChild([&folder] { return GermanFigures(folder.Path()); });

  if (figures == "no locale" && std::getenv("CI") == nullptr) {
    GTEST_SKIP() << "cannot compile the locale de_DE";
  }
  EXPECT_EQ(figures, "refused 12 0.5 0.25 3 12,5");
}

// ---------------------------------------------------------------------------------------------------------- memory

TEST(ParseMemInfo, ReadsTheThreeFigures) {
  EXPECT_EQ(MemoryOf("MemTotal:        1024000 kB\nMemFree:          512000 kB\nMemAvailable:     786432 kB\n"),
            (Memory{1024000, 512000, 786432}));
  EXPECT_EQ(MemoryOf("MemTotal:        1024000 kB\n"), (Memory{1024000, 0, 0}));
}

TEST(ParseMemInfo, WithoutATotalThereIsNoResultButTheRest) {
  MemInfo info{91, 92, 93};
  EXPECT_FALSE(ParseMemInfo("MemFree: 5 kB\nMemAvailable: 6 kB\n", info));
  EXPECT_EQ(Fields(info), (Memory{0, 5, 6}));
  EXPECT_FALSE(ParseMemInfo("MemTotal: 0 kB\nMemFree: 7 kB\n", info));
  EXPECT_EQ(Fields(info), (Memory{0, 7, 0}));
  for (const StringView nothing : {StringView(), StringView(""), StringView("\n"), StringView("\0\0\n\0", 4)}) {
    info = {91, 92, 93};
    EXPECT_FALSE(ParseMemInfo(nothing, info));
    EXPECT_EQ(Fields(info), Memory());
  }
}

TEST(ParseMemInfo, EveryBeginningOfALongerNameCounts) {
  EXPECT_EQ(MemoryOf("MemTotalExtra: 1\nMemFreeXY: 2\nMemAvailable2: 3\n"), (Memory{1, 2, 3}));
  EXPECT_EQ(MemoryOf("MemTotal foo: 1\nMemFree(high): 2\nMemAvailable\tx: 3\n"), (Memory{1, 2, 3}));
}

TEST(ParseMemInfo, ShorterAndOtherNamesDoNotCount) {
  EXPECT_EQ(MemoryOf("MemTota: 1\nMemFre: 2\nMemAvailabl: 3\n"), Memory());
  EXPECT_EQ(MemoryOf("memtotal: 1\nMEMFREE: 2\nXMemAvailable: 3\nMem Total: 4\nTotal: 5\nMem: 6\n: 7\n"), Memory());
  EXPECT_EQ(MemoryOf("SwapTotal: 1\nSwapFree: 2\nLowFree: 3\nHighTotal: 4\nCmaFree: 5\n"), Memory());
}

TEST(ParseMemInfo, LaterLinesWin) {
  EXPECT_EQ(MemoryOf("MemTotal: 1\nMemFree: 2\nMemAvailable: 3\nMemAvailable: 6\nMemFree: 5\nMemTotal: 4\n"),
            (Memory{4, 5, 6}));
  EXPECT_EQ(MemoryOf("MemTotal: 1\nMemTotal: none\n"), Memory());
  EXPECT_EQ(MemoryOf("MemFree: 9\nMemTotal: 8\n"), (Memory{8, 9, 0})) << "in any order";
}

TEST(ParseMemInfo, UnitIsIgnored) {
  EXPECT_EQ(MemoryOf("MemTotal: 5\nMemFree: 6 MB\nMemAvailable: 7kB and more\n"), (Memory{5, 6, 7}));
}

TEST(ParseMemInfo, LineWithoutAColonSaysNothing) {
  EXPECT_EQ(MemoryOf("MemTotal 5 kB\nMemTotal\nMemTotal=5\nMemFree: 6\n"), (Memory{0, 6, 0}));
}

TEST(ParseMemInfo, FirstColonSplits) { EXPECT_EQ(MemoryOf("MemTotal:1:2\nMemFree::3\n"), (Memory{1, 0, 0})); }

TEST(ParseMemInfo, WhitespaceAroundNamesAndAmountsIsDropped) {
  EXPECT_EQ(MemoryOf("  MemTotal : \f\r\t\v 5 kB\r\n\tMemFree\t:6\r\nMemAvailable:\0 7\0\n"s), (Memory{5, 6, 7}));
}

TEST(ParseMemInfo, AmountsAreWhatStandsBeforeTheFirstOtherByte) {
  EXPECT_EQ(MemoryOf("MemTotal: 12x3\nMemFree: x\nMemAvailable: 0x10\n"), (Memory{12, 0, 0}));
  EXPECT_EQ(MemoryOf("MemTotal: 010\nMemFree: 1.9\nMemAvailable: 2\0003\n"s), (Memory{10, 1, 2}));
  EXPECT_EQ(MemoryOf("MemTotal: \nMemFree:\nMemAvailable: kB\n"), Memory());
}

TEST(ParseMemInfo, AmountsHave64Bits) {
  EXPECT_EQ(MemoryOf("MemTotal: 4294967296\nMemFree: 18446744073709551615\nMemAvailable: 18446744073709551616\n"),
            (Memory{4294967296, kMax, kMax}));
  EXPECT_EQ(MemoryOf("MemTotal: -1\nMemFree: +2\nMemAvailable: - 3\n"), (Memory{kMax, 2, 0}));
}

TEST(ParseMemInfo, LastLineNeedsNoLineBreak) { EXPECT_EQ(MemoryOf("MemFree: 1\nMemTotal: 2"), (Memory{2, 1, 0})); }

TEST(ParseMemInfo, LineOfAMegabyteIsALineLikeOthers) {
  EXPECT_EQ(MemoryOf(kMega + "\nMemTotal" + kMega + ": 1\nMemFree: " + std::string(1 << 20, ' ') +
                     "2\nMemAvailable: " + kMega + "\n" + std::string(1 << 20, ':')),
            (Memory{1, 2, kMax}));
}

TEST(ParseMemInfo, ReadsNothingOutsideTheView) {
  const std::string text = "MemTotal: 12345";
  MemInfo info{};

  EXPECT_TRUE(ParseMemInfo(StringView(text.data(), 12), info));
  EXPECT_EQ(Fields(info), (Memory{12, 0, 0}));
}

// ---------------------------------------------------------------------------------------------------- the first line

// The first line of a file of this content; kRefused when there is none.
std::string FirstLineOf(const std::string& content) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/file";
  test::WriteFile(path, content);
  std::string line = "used";
  return ReadFirstLine(path.c_str(), line) ? line : kRefused;
}

TEST(ReadFirstLine, EndsBeforeTheFirstNewline) {
  EXPECT_EQ(FirstLineOf("first\nsecond\n"), "first");
  EXPECT_EQ(FirstLineOf("first\n"), "first");
  EXPECT_EQ(FirstLineOf("first\n\n"), "first");
}

TEST(ReadFirstLine, NeedsNoNewline) { EXPECT_EQ(FirstLineOf("first"), "first"); }

TEST(ReadFirstLine, KeepsEveryOtherByte) {
  EXPECT_EQ(FirstLineOf(" a\0b\t\r\xff \r\nsecond"s), " a\0b\t\r\xff \r"s);
  EXPECT_EQ(FirstLineOf(" \n"), " ");
  EXPECT_EQ(FirstLineOf("\0\n"s), "\0"s);
  EXPECT_EQ(FirstLineOf(kMega + "\n2"), kMega);
}

TEST(ReadFirstLine, EmptyFileAndEmptyLineAreRefused) {
  EXPECT_EQ(FirstLineOf(""), kRefused);
  EXPECT_EQ(FirstLineOf("\nsecond\n"), kRefused);
  EXPECT_EQ(FirstLineOf("\n"), kRefused);
}

TEST(ReadFirstLine, WhatIsNoReadableFileIsRefused) {
  const test::TempFolder folder;
  std::string line;
  EXPECT_FALSE(ReadFirstLine((folder.Path() + "/missing").c_str(), line));
  EXPECT_FALSE(ReadFirstLine(folder.Path().c_str(), line));
  EXPECT_FALSE(ReadFirstLine("", line));

  const std::string path = folder.Path() + "/closed";
  test::WriteFile(path, "first\n");
  ASSERT_TRUE(::chmod(folder.Path().c_str(), 0755) == 0 && ::chmod(path.c_str(), 0) == 0);
  EXPECT_EQ(test::WithoutPrivileges([&] { return ReadFirstLine(path.c_str(), line); }), 0);
}

TEST(ReadFirstLine, LeavesNothingOpen) {
  const std::size_t before = test::CountOpenFds();
  std::string line;
  EXPECT_TRUE(ReadFirstLine("/proc/self/status", line));
  EXPECT_FALSE(ReadFirstLine("/", line));

  EXPECT_EQ(test::CountOpenFds(), before);
}

}  // namespace
}  // namespace kiv::utils
