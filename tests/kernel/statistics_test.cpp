#include <arpa/inet.h>
#include <fcntl.h>
#include <kiv/utils.h>
#include <netinet/in.h>
#include <poll.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <filesystem>
#include <functional>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"
#include "tests/child.h"
#include "tests/kernel/namespace.h"
#include "tests/records.h"
#include "tests/support.h"

namespace kiv::utils {
namespace {

using test::InChild;
using test::Shell;
using test::Text;

using CpuUsage = SystemStats::CpuUsage;
using IfaceStats = NetStats::IfaceStats;
using DeviceStats = DiskStats::DeviceStats;
using Rows = std::vector<std::string>;

const std::string kNone = "none";

std::string Shown(double first, double second, double third) {
  std::ostringstream text;
  text.precision(12);
  text << first << ' ' << second << ' ' << third;
  return text.str();
}

// Each of these returns what was read, or kNone, and tells of a record that was changed without a result.
std::string Cpu() {
  CpuUsage usage{91, 92, 93};
  const bool known = SystemStats::GetCpuUsage(usage);
  const std::string text = Shown(usage.user, usage.system, usage.idle);
  return known ? text : text == "91 92 93" ? kNone : "changed to " + text;
}

std::string Load() {
  SystemStats::LoadAvg load{91, 92, 93};
  const bool known = SystemStats::GetLoadAvg(load);
  const std::string text = Shown(load.one, load.five, load.fifteen);
  return known ? text : text == "91 92 93" ? kNone : "changed to " + text;
}

std::string Uptime() {
  double seconds = 91;
  const bool known = SystemStats::GetUptime(seconds);
  const std::string text = Shown(seconds, 92, 93);
  return known ? text.substr(0, text.find(' ')) : text == "91 92 93" ? kNone : "changed to " + text;
}

std::string Memory() {
  SystemStats::MemInfo info{91, 92, 93};
  const bool known = SystemStats::GetMemory(info);
  const std::string text =
      std::to_string(info.total) + ' ' + std::to_string(info.free) + ' ' + std::to_string(info.available);
  return known ? text : text == "91 92 93" ? kNone : "changed to " + text;
}

// All records, one a line.
template <typename Stats, typename Record>
std::string All() {
  std::vector<Record> all = {{"used", 1, 2, 3, 4}, {"used", 5, 6, 7, 8}};
  const bool known = Stats::GetAll(all);
  std::string text;
  for (const Record& record : all) {
    text += Text(record) + '\n';
  }
  return known != text.empty() ? text : known ? "success with nothing" : "failure with " + text;
}

template <typename Stats, typename Record>
std::string ByName(const std::string& name) {
  Record record{"used", 1, 2, 3, 4};
  const bool known = Stats::GetByName(name, record);
  return known ? Text(record) : Text(record) == "used 1 2 3 4" ? kNone : "changed to " + Text(record);
}

const auto Interfaces = [] { return All<NetStats, IfaceStats>(); };
const auto Interface = [](const std::string& name) { return ByName<NetStats, IfaceStats>(name); };
const auto Disks = [] { return All<DiskStats, DeviceStats>(); };
const auto Disk = [](const std::string& name) { return ByName<DiskStats, DeviceStats>(name); };

// ------------------------------------------------------------------------------------------- machines made of files

constexpr char kStat[] = "/proc/stat";
constexpr char kLoadavg[] = "/proc/loadavg";
constexpr char kUptime[] = "/proc/uptime";
constexpr char kMeminfo[] = "/proc/meminfo";
constexpr char kNetDev[] = "/proc/net/dev";
constexpr char kDiskstats[] = "/proc/diskstats";

using Files = std::vector<std::pair<std::string, std::string>>;

bool HideProcAndSys() {
  return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0 &&
         ::mount("none", "/sys", "tmpfs", 0, nullptr) == 0;
}

void WriteAll(const Files& files) {
  for (const auto& [path, content] : files) {
    std::error_code ignored;
    (void)std::filesystem::create_directories(path.substr(0, path.rfind('/')), ignored);
    test::WriteFile(path, content);
  }
}

// What `report` returns in a child of whose /proc and /sys these files are all that there is. The sample of the CPU
// time belongs to the process: nobody here takes one outside such a child.
std::string On(const Files& files, const std::function<std::string()>& report) {
  return InChild([&] {
    if (!HideProcAndSys()) {
      return std::string("no machine of files");
    }
    WriteAll(files);
    return report();
  });
}

class MachineOfFiles : public test::KernelTest {};

class GetCpuUsage : public MachineOfFiles {
 protected:
  // The results of one call for each content of /proc/stat; null for no such file.
  static std::string UsagesOf(const std::vector<const char*>& contents) {
    return On({}, [&contents] {
      std::string usages;
      for (const char* content : contents) {
        (void)::unlink(kStat);
        if (content != nullptr) {
          test::WriteFile(kStat, content);
        }
        usages += (usages.empty() ? "" : "; ") + Cpu();
      }
      return usages;
    });
  }
};

TEST_F(GetCpuUsage, FirstCallGivesNothing) { EXPECT_EQ(UsagesOf({"cpu  10 20 30 40 50 60 70 80 0 0\n"}), "none"); }

TEST_F(GetCpuUsage, SecondCallGivesTheTimeSinceTheFirst) {
  EXPECT_EQ(UsagesOf({"cpu  100 0 100 1000 0 0 0 0 0 0\ncpu0 1 2 3 4\n", "cpu  110 0 130 1060 0 0 0 0 0 0\nintr 5\n"}),
            "none; 28 12 60");
}

TEST_F(GetCpuUsage, AllEightCountersCountAndGuestsDoNot) {
  EXPECT_EQ(UsagesOf({"cpu  0 0 0 0 0 0 0 0 0 0\n", "cpu  10 10 10 20 20 10 10 10 1000 1000\n"}), "none; 42 18 40");
}

TEST_F(GetCpuUsage, IdleAndBusyIntervals) {
  EXPECT_EQ(UsagesOf({"cpu  5 5 5 5\n", "cpu  5 5 5 105\n", "cpu  105 5 5 105\n"}), "none; 0 0 100; 70 30 0");
}

TEST_F(GetCpuUsage, WithoutATickBetweenThereIsNothing) {
  EXPECT_EQ(UsagesOf({"cpu  5 0 0 5\n", "cpu  5 0 0 5\n", "cpu  5 0 0 5\n", "cpu  6 0 0 6\n"}),
            "none; none; none; 35 15 50");
}

// Ten ticks of work between the last two, and none between those before; from the first on it would be other figures.
TEST_F(GetCpuUsage, CallWithoutATickBetweenReplacesTheSample) {
  EXPECT_EQ(UsagesOf({"cpu  5 0 0 10\n", "cpu  10 0 0 5\n", "cpu  20 0 0 5\n"}), "none; none; 70 30 0");
}

TEST_F(GetCpuUsage, EveryCallReplacesTheSample) {
  EXPECT_EQ(UsagesOf({"cpu  0 0 0 0\n", "cpu  10 0 0 0\n", "cpu  10 0 0 10\n", "cpu  15 0 0 15\n"}),
            "none; 70 30 0; 0 0 100; 35 15 50");
}

TEST_F(GetCpuUsage, FailedCallLeavesTheSample) {
  const char* const a = "cpu  0 0 0 0\n";
  const char* const b = "cpu  10 0 0 30\n";
  for (const char* failing : {"", "\n", "cpu  1000 2000 3000\n", "cpu0 1000 0 0 1000\n", "cpu\n", "\ncpu  9 9 9 9\n",
                              "intr 9 9 9 9\ncpu  9 9 9 9\n", static_cast<const char*>(nullptr)}) {
    EXPECT_EQ(UsagesOf({a, failing, b}), "none; none; 17.5 7.5 75") << (failing == nullptr ? "no file" : failing);
  }
}

TEST_F(GetCpuUsage, FailedCallIsNotTheFirst) {
  EXPECT_EQ(UsagesOf({nullptr, "cpu  1 2 3\n", "cpu  0 0 0 0\n", "cpu  1 0 0 1\n"}), "none; none; none; 35 15 50");
}

TEST_F(GetCpuUsage, LineNeedsNoLineBreak) { EXPECT_EQ(UsagesOf({"cpu  0 0 0 0", "cpu  1 0 0 1"}), "none; 35 15 50"); }

TEST_F(GetCpuUsage, CountersMayComeAndGo) {
  EXPECT_EQ(UsagesOf({"cpu  0 0 0 0\n", "cpu  0 0 0 0 0 0 0 10\n", "cpu  40 0 0 0\n"}), "none; 70 30 0; 70 30 0");
}

// iowait may: see proc(5).
TEST_F(GetCpuUsage, CounterThatGoesBackwardsIsNotHidden) {
  EXPECT_EQ(UsagesOf({"cpu  100 0 0 50 20\n", "cpu  110 0 0 50 15\n"}), "none; 140 60 -100");
}

TEST_F(GetCpuUsage, TwoCallersSeeTheTimeSinceTheOthersCall) {
  const auto report = [] {
    std::string usages;
    const char* const contents[] = {"cpu  0 0 0 0\n", "cpu  100 0 0 0\n", "cpu  100 0 0 100\n", "cpu  200 0 0 100\n"};
    for (const char* content : contents) {
      test::WriteFile(kStat, content);
      std::thread([&usages] { usages += "one: " + Cpu() + "; "; }).join();
      usages += "other: " + Cpu() + '\n';
    }
    return usages;
  };

  EXPECT_EQ(On({}, report),
            "one: none; other: none\n"
            "one: 70 30 0; other: none\n"
            "one: 0 0 100; other: none\n"
            "one: 70 30 0; other: none\n");
}

TEST_F(GetCpuUsage, CallersInTurnsShareOneSample) {
  const auto report = [] {
    std::string usages[2];
    const char* const contents[] = {"cpu  0 0 0 0\n", "cpu  100 0 0 0\n", "cpu  100 0 0 100\n", "cpu  100 0 0 200\n"};
    for (std::size_t i = 0; i < 4; ++i) {
      test::WriteFile(kStat, contents[i]);
      usages[i % 2] += Cpu() + "; ";
    }
    return usages[0] + "and " + usages[1];
  };

  EXPECT_EQ(On({}, report), "none; 0 0 100; and 70 30 0; 0 0 100; ") << "and not 35 15 50 for either";
}

class GetFigures : public MachineOfFiles {
 protected:
  // All but the CPU usage, one a line.
  static std::string Figures() { return Load() + '\n' + Uptime() + '\n' + Memory() + '\n'; }

  static std::string FiguresOf(const Files& files) { return On(files, Figures); }
};

TEST_F(GetFigures, AreThoseOfTheFiles) {
  EXPECT_EQ(FiguresOf({{kLoadavg, "0.10 0.20 0.30 1/80 1234\n"},
                       {kUptime, "12345.67 4000.00\n"},
                       {kMeminfo, "MemTotal:        1024000 kB\nMemFree:  512 kB\nMemAvailable: 768 kB\n"}}),
            "0.1 0.2 0.3\n12345.67\n1024000 512 768\n");
}

TEST_F(GetFigures, MemoryIsReadBeyondANulByte) {
  EXPECT_EQ(FiguresOf({{kMeminfo, std::string("X\0: 1\nMemTotal: 5\n", 18)}}), "none\nnone\n5 0 0\n");
}

TEST_F(GetFigures, NeedNoLastLineBreak) {
  EXPECT_EQ(FiguresOf({{kLoadavg, "1 2 3"}, {kUptime, "4"}, {kMeminfo, "MemTotal: 5"}}), "1 2 3\n4\n5 0 0\n");
}

TEST_F(GetFigures, AreThoseOfTheFirstLine) {
  EXPECT_EQ(FiguresOf({{kLoadavg, "1 2\n3\n"}, {kUptime, "\n4\n"}, {kMeminfo, "\n\nMemTotal: 5\n"}}),
            "none\nnone\n5 0 0\n");
}

TEST_F(GetFigures, FromFilesWithoutThemAreNone) {
  EXPECT_EQ(FiguresOf({{kLoadavg, "1 2 x\n"}, {kUptime, "up\n"}, {kMeminfo, "MemFree: 7 kB\n"}}),
            "none\nnone\nchanged to 0 7 0\n");
  EXPECT_EQ(FiguresOf({{kLoadavg, ""}, {kUptime, ""}, {kMeminfo, ""}}), "none\nnone\nchanged to 0 0 0\n");
}

TEST_F(GetFigures, WithoutFilesAreNone) { EXPECT_EQ(FiguresOf({}), "none\nnone\nnone\n"); }

// A folder can be opened, but not read.
TEST_F(GetFigures, FromFoldersAreNone) {
  EXPECT_EQ(
      FiguresOf(
          {{kLoadavg + std::string("/x"), ""}, {kUptime + std::string("/x"), ""}, {kMeminfo + std::string("/x"), ""}}),
      "none\nnone\nchanged to 0 0 0\n");
}

TEST_F(GetFigures, MemoryIsReadToTheEndOfALongFile) {
  std::string text;
  for (int i = 0; i < 10000; ++i) {
    text += "Name" + std::to_string(i) + ":   1 kB\n";
  }
  EXPECT_EQ(FiguresOf({{kMeminfo, text + "MemAvailable: 3\nMemFree: 2\nMemTotal: 1\n"}}), "none\nnone\n1 2 3\n");
}

const Files kWholeMachine = {{kStat, "cpu  1 2 3 4\n"},
                             {kLoadavg, "1 2 3\n"},
                             {kUptime, "4\n"},
                             {kMeminfo, "MemTotal: 5\n"},
                             {kNetDev, "\n\nlo: 1 2 3 4 5 6 7 8 9 10\n"},
                             {kDiskstats, "8 0 sda 4 5 6 7 8 9 10 11 12 13 14\n"},
                             {"/sys/block/sda/stat", ""}};

std::string Everything() {
  return Cpu() + '\n' + Load() + '\n' + Uptime() + '\n' + Memory() + '\n' + Interfaces() + Interface("lo") + '\n' +
         Disks() + Disk("sda") + '\n';
}

// The functions that do not fail, or leave another errno than `error`.
std::string NotFailingWith(int error) {
  const std::pair<const char*, std::function<bool()>> calls[] = {
      {"Cpu", [] { return Cpu() == kNone; }},
      {"Load", [] { return Load() == kNone; }},
      {"Uptime", [] { return Uptime() == kNone; }},
      {"Memory", [] { return Memory() == kNone; }},
      {"Interfaces", [] { return Interfaces().empty(); }},
      {"Interface", [] { return Interface("lo") == kNone; }},
      {"Disks", [] { return Disks().empty(); }},
      {"Disk", [] { return Disk("sda") == kNone; }},
  };
  std::string names;
  for (const auto& [name, fails] : calls) {
    errno = 0;
    const bool failed = fails();
    names += failed && errno == error ? "" : std::string(name) + ' ';
  }
  return names;
}

TEST_F(MachineOfFiles, WithoutFilesEverythingFails) {
  EXPECT_EQ(On({}, [] { return NotFailingWith(ENOENT); }), "");
}

TEST_F(MachineOfFiles, WithClosedFilesEverythingFails) {
  const auto report = [] {
    for (const auto& [path, content] : kWholeMachine) {
      (void)::chmod(path.c_str(), 0);
    }
    return test::DropCapabilities() ? NotFailingWith(EACCES) : "cannot drop capabilities";
  };

  EXPECT_EQ(On(kWholeMachine, report), "");
}

TEST_F(MachineOfFiles, WithoutDescriptorsEverythingFails) {
  const auto report = [] {
    (void)Everything();  // The undefined-behaviour sanitizer has seen all classes then.
    const test::NoNewDescriptors limit;
    return NotFailingWith(EMFILE);
  };

  EXPECT_EQ(On(kWholeMachine, report), "");
}

TEST_F(MachineOfFiles, EverythingWorksAndLeavesNothingOpen) {
  const auto report = [] {
    const int before = test::NextFd();
    const std::string text = Everything();
    return text + (test::NextFd() == before ? "" : "leaks");
  };

  EXPECT_EQ(On(kWholeMachine, report), "none\n1 2 3\n4\n5 0 0\nlo 1 9 2 10\nlo 1 9 2 10\nsda 4 8 6 10\nsda 4 8 6 10\n");
}

// ------------------------------------------------------------------------------------------------ interfaces of files

const std::string kHeadings =
    R"(Inter-|   Receive                                                |  Transmit
 face |bytes    packets errs drop fifo frame compressed multicast|bytes    packets errs drop fifo colls carrier compressed
)";
const std::string kLines =
    R"(  eth1: 1 2 3 4 5 6 7 8 9 10 11 12 13 14 15 16
    lo:     100       2    0    0    0     0          0         0      100       2    0    0    0     0       0          0
123456789012345:5 6 0 0 0 0 0 0 7 8 0 0 0 0 0 0
)";

std::string InterfacesOf(const std::string& file) { return On({{kNetDev, file}}, Interfaces); }

class NetStatsFromFile : public MachineOfFiles {};

TEST_F(NetStatsFromFile, AllOfThemInTheOrderOfTheFile) {
  EXPECT_EQ(InterfacesOf(kHeadings + kLines), "eth1 1 9 2 10\nlo 100 100 2 2\n123456789012345 5 7 6 8\n");
}

TEST_F(NetStatsFromFile, TwoHeadingsAreSkippedWhateverTheyHold) {
  EXPECT_EQ(InterfacesOf(kLines), "123456789012345 5 7 6 8\n");
  EXPECT_EQ(InterfacesOf("\n\n" + kLines), "eth1 1 9 2 10\nlo 100 100 2 2\n123456789012345 5 7 6 8\n");
}

TEST_F(NetStatsFromFile, LinesThatMakeNoSenseAreSkipped) {
  EXPECT_EQ(
      InterfacesOf(kHeadings + "\n   \neth9: 1 2 3 4 5 6 7 8 9\n: 1 2 3 4 5 6 7 8 9 10\neth8 1 2 3 4 5 6 7 8 9 10\n" +
                   "eth0:1: 1 2 3 4 5 6 7 8 9 10\n" + kLines + "eth7: 1"),
      "eth1 1 9 2 10\nlo 100 100 2 2\n123456789012345 5 7 6 8\n");
}

TEST_F(NetStatsFromFile, WithoutAnInterfaceThereIsNothing) {
  for (const std::string& file : {std::string(), std::string("\n"), kHeadings, kHeadings + "lo: 1 2 3\n"}) {
    EXPECT_EQ(InterfacesOf(file), "") << file;
  }
}

TEST_F(NetStatsFromFile, ThousandsOfThem) {
  std::string file = kHeadings;
  std::string expected;
  for (int i = 0; i < 5000; ++i) {
    const std::string name = "veth" + std::to_string(i);
    file += name + ": " + std::to_string(i) + " 2 0 0 0 0 0 0 3 4 0 0 0 0 0 0\n";
    expected += name + ' ' + std::to_string(i) + " 3 2 4\n";
  }
  EXPECT_EQ(InterfacesOf(file), expected);
}

TEST_F(NetStatsFromFile, OneIsFoundByItsExactName) {
  const Files files = {{kNetDev, kHeadings + kLines + "lo: 9 9 9 9 9 9 9 9 9 9\n"}};
  const std::pair<const char*, const char*> names[] = {{"eth1", "eth1 1 9 2 10"},
                                                       {"lo", "lo 100 100 2 2"},
                                                       {"123456789012345", "123456789012345 5 7 6 8"},
                                                       {"eth", "none"},
                                                       {"eth10", "none"},
                                                       {" lo", "none"},
                                                       {"LO", "none"},
                                                       {"", "none"}};
  const auto report = [&names] {
    std::string wrong;
    for (const auto& [name, expected] : names) {
      wrong += Interface(name) == expected ? "" : name + (": " + Interface(name)) + '\n';
    }
    return wrong;
  };

  EXPECT_EQ(On(files, report), "");
}

// ------------------------------------------------------------------------------------------------------ disks of files

class DiskStatsFromFile : public MachineOfFiles {};

const Files kDisks = {
    {kDiskstats,
     R"(   8       0 sda 4 5 6 7 8 9 10 11 12 13 14
   8       1 sda1 4 5 6 7 8 9 10 11 12 13 14
   8       2 sda2 4 5 6 7

   7       0 loop0 1 0 2 0 3 0 4 0 0 0 0 0 0 0 0
   8      16 sdb 4 5 6 7 8 9 10 11 12 13
 179       0 mmcblk0 40 5 60 7 80 9 100 11 12 13 14 15 16 17 18 19 20
 179       1 mmcblk0p1 4 5 6 7 8 9 10 11 12 13 14 15 16 17 18 19 20
)"},
    {"/sys/block/loop0/stat", ""},
    {"/sys/block/mmcblk0/mmcblk0p1/stat", ""},
    {"/sys/block/sda/sda1/stat", ""},
    {"/sys/block/sda/sda2/stat", ""},
    {"/sys/block/sdb/stat", ""},
    {"/sys/block/sdc/stat", ""},
};

TEST_F(DiskStatsFromFile, DisksAndNoPartitionsInTheOrderOfTheFile) {
  EXPECT_EQ(On(kDisks, Disks), "sda 4 8 6 10\nloop0 1 3 2 4\nmmcblk0 40 80 60 100\n");
}

TEST_F(DiskStatsFromFile, OneIsFoundByItsExactName) {
  const std::pair<const char*, const char*> names[] = {{"sda", "sda 4 8 6 10"}, {"mmcblk0", "mmcblk0 40 80 60 100"},
                                                       {"sda1", "none"},        {"sd", "none"},
                                                       {"sdb", "none"},         {"sdc", "none"},
                                                       {"sda ", "none"},        {"", "none"}};
  const auto report = [&names] {
    std::string wrong;
    for (const auto& [name, expected] : names) {
      wrong += Disk(name) == expected ? "" : name + (": " + Disk(name)) + '\n';
    }
    return wrong;
  };

  EXPECT_EQ(On(kDisks, report), "");
}

// As the kernel has them; one that leads nowhere is none.
TEST_F(DiskStatsFromFile, EntriesMayBeLinksAndFiles) {
  const auto report = [] {
    (void)::symlink("../devices/sda", "/sys/block/sda");
    (void)::symlink("../devices/gone", "/sys/block/sdb");
    return Disks();
  };

  EXPECT_EQ(On({{kDiskstats,
                 "8 0 sda 1 0 2 0 3 0 4 0 0 0 0\n8 16 sdb 5 0 6 0 7 0 8 0 0 0 0\n8 32 sdc 1 0 2 0 3 0 4 0 0 0 0\n"},
                {"/sys/devices/sda/stat", ""},
                {"/sys/block/sdc", ""}},
               report),
            "sda 1 3 2 4\nsdc 1 3 2 4\n");
}

// The kernel writes "!" for the slash in /sys/block, and nobody turns it back.
TEST_F(DiskStatsFromFile, NamesAreLookedUpAsTheyStand) {
  EXPECT_EQ(On({{kDiskstats, "104 0 cciss/c0d0 1 0 2 0 3 0 4 0 0 0 0\n"}, {"/sys/block/cciss!c0d0/stat", ""}}, Disks),
            "");
}

TEST_F(DiskStatsFromFile, WithoutADiskThereIsNothing) {
  EXPECT_EQ(On({{kDiskstats, "8 0 sda 4 5 6 7 8 9 10 11 12 13 14\n"}}, Disks), "") << "no /sys/block";
  EXPECT_EQ(On({{kDiskstats, ""}, {"/sys/block/sda/stat", ""}}, Disks), "");
  EXPECT_EQ(On({{"/sys/block/sda/stat", ""}}, Disks), "") << "no /proc/diskstats";
}

// ------------------------------------------------------------------------------------------- the machine as it stands

class Machine : public test::KernelTest {};

// Compares what is read with what another reader finds just before and just after it, once these two agree.
void ExpectEqualAtRest(const std::function<std::string()>& read, const std::function<std::string()>& reference) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    const std::string before = reference();
    const std::string text = read();
    if (reference() == before) {
      EXPECT_EQ(text, before);
      return;
    }
  }
  FAIL() << "never at rest";
}

// The numbers in a text, whatever stands between them.
std::vector<std::uint64_t> Numbers(std::string text) {
  std::replace_if(
      text.begin(), text.end(), [](char c) { return c < '0' || c > '9'; }, ' ');
  std::istringstream stream(text);
  std::vector<std::uint64_t> numbers;
  for (std::uint64_t number = 0; stream >> number;) {
    numbers.push_back(number);
  }
  return numbers;
}

// The line that begins with `beginning`, without it.
std::string RestOfLine(const std::string& text, const std::string& beginning) {
  const std::size_t at = ('\n' + text).find('\n' + beginning);
  const std::string rest = at == std::string::npos ? "" : text.substr(at + beginning.size());
  return rest.substr(0, rest.find('\n'));
}

TEST_F(Machine, MemoryIsWhatMeminfoSays) {
  ExpectEqualAtRest(Memory, [] {
    const std::string text = test::ReadFile("/proc/meminfo");
    std::string memory;
    for (const char* name : {"MemTotal:", "MemFree:", "MemAvailable:"}) {
      const std::vector<std::uint64_t> numbers = Numbers(RestOfLine(text, name));
      memory += (memory.empty() ? "" : " ") + std::to_string(numbers.empty() ? 0 : numbers[0]);
    }
    return memory;
  });
}

// While a machine is at work the others change between two looks, by less than a quarter of what there is.
TEST_F(Machine, MemoryIsWhatFreeShows) {
  if (!NeedProgram("free")) {
    return;
  }
  const std::vector<std::uint64_t> columns = Numbers(RestOfLine(Shell("LC_ALL=C free -k"), "Mem:"));
  ASSERT_GE(columns.size(), 6U);
  SystemStats::MemInfo info{};

  ASSERT_TRUE(SystemStats::GetMemory(info));

  EXPECT_EQ(info.total, columns[0]);
  EXPECT_NEAR(static_cast<double>(info.free), static_cast<double>(columns[2]), static_cast<double>(info.total) / 4);
  EXPECT_NEAR(static_cast<double>(info.available), static_cast<double>(columns[5]),
              static_cast<double>(info.total) / 4);
}

TEST_F(Machine, LoadIsWhatUptimeShows) {
  if (!NeedProgram("uptime")) {
    return;
  }
  const auto shownByUptime = [] {
    const std::string line = Shell("LC_ALL=C uptime");
    const std::size_t at = line.find("load average: ");
    return at == std::string::npos ? line : line.substr(at);
  };
  const auto read = [] {
    SystemStats::LoadAvg load{};
    char text[100];
    return !SystemStats::GetLoadAvg(load) || std::snprintf(text, sizeof text, "load average: %.2f, %.2f, %.2f\n",
                                                           load.one, load.five, load.fifteen) < 0
               ? kNone
               : std::string(text);
  };

  ExpectEqualAtRest(read, shownByUptime);
}

TEST_F(Machine, UptimeIsThatOfTheSameMoment) {
  const auto shownByCat = [] { return std::strtod(Shell("cat /proc/uptime").c_str(), nullptr); };
  double first = 0;
  double second = 0;

  const double before = shownByCat();
  ASSERT_TRUE(SystemStats::GetUptime(first));
  const double between = shownByCat();
  ASSERT_TRUE(SystemStats::GetUptime(second));
  const double after = shownByCat();

  EXPECT_LE(before, first);
  EXPECT_LE(first, between);
  EXPECT_LE(between, second);
  EXPECT_LE(second, after);
}

void Work(double seconds) {
  const std::clock_t end = std::clock() + static_cast<std::clock_t>(seconds * CLOCKS_PER_SEC);
  while (std::clock() < end) {
  }
}

TEST_F(Machine, WorkShowsAsUsage) {
  const std::string untrue = InChild([] {
    CpuUsage usage{};
    const bool first = SystemStats::GetCpuUsage(usage);
    Work(0.2);
    const bool second = SystemStats::GetCpuUsage(usage);
    return test::Untrue(
        {{"first call fails", !first},
         {"second call succeeds", second},
         {"user", usage.user > 0},
         {"system", usage.system > 0},
         {"idle", usage.idle < 100},
         {"7 to 3", usage.user * 3 - usage.system * 7 < 1e-6 && usage.system * 7 - usage.user * 3 < 1e-6},
         {"sum", Shown(usage.user + usage.system + usage.idle, 0, 0) == "100 0 0"}});
  });

  EXPECT_EQ(untrue, "");
}

struct Ticks {
  double busy = 0;
  double idle = 0;
};

Ticks TicksOfVmstat() {
  const std::string idle[] = {"idle cpu ticks", "IO-wait cpu ticks"};
  const std::string busy[] = {"non-nice user cpu ticks", "nice user cpu ticks", "system cpu ticks",
                              "IRQ cpu ticks",           "softirq cpu ticks",   "stolen cpu ticks"};
  Ticks ticks;
  std::istringstream text(Shell("LC_ALL=C vmstat -s"));
  std::string name;
  for (double number = 0; text >> number && std::getline(text >> std::ws, name);) {
    ticks.idle += std::count(std::begin(idle), std::end(idle), name) != 0 ? number : 0;
    ticks.busy += std::count(std::begin(busy), std::end(busy), name) != 0 ? number : 0;
  }
  return ticks;
}

// The kernel takes the samples between two looks each of vmstat: of the time between them the innermost looks know the
// least there can be, and the outermost the most. Idle time may go back by a tick or two.
TEST_F(Machine, UsageIsThatOfTheTicksWhichVmstatShows) {
  if (!NeedProgram("vmstat")) {
    return;
  }
  const std::string untrue = InChild([] {
    CpuUsage usage{};
    const Ticks beforeFirst = TicksOfVmstat();
    (void)SystemStats::GetCpuUsage(usage);
    const Ticks afterFirst = TicksOfVmstat();
    Work(0.5);
    const Ticks beforeSecond = TicksOfVmstat();
    const bool known = SystemStats::GetCpuUsage(usage);
    const Ticks afterSecond = TicksOfVmstat();

    const Ticks least = {beforeSecond.busy - afterFirst.busy, beforeSecond.idle - afterFirst.idle};
    const Ticks most = {afterSecond.busy - beforeFirst.busy, afterSecond.idle - beforeFirst.idle};
    const double busy = usage.user + usage.system;
    return test::Untrue({{"known", known},
                         {"vmstat is understood", least.busy > 0 && beforeFirst.idle > 0},
                         {"not too little", busy >= least.busy / (least.busy + most.idle) * 100 - 5},
                         {"not too much", busy <= most.busy / (most.busy + least.idle) * 100 + 5}});
  });

  EXPECT_EQ(untrue, "");
}

// ------------------------------------------------------------------------------------------ interfaces of the machine

// Every line once, in the order of the bytes.
std::string Joined(Rows lines) {
  std::sort(lines.begin(), lines.end());
  lines.erase(std::unique(lines.begin(), lines.end()), lines.end());
  std::string text;
  for (const std::string& line : lines) {
    text += line;
  }
  return text;
}

std::string InterfacesOfIp() {
  Rows rows;
  for (const nlohmann::json& link : test::Ip("-s link show")) {
    const nlohmann::json& rx = link.at("stats64").at("rx");
    const nlohmann::json& tx = link.at("stats64").at("tx");
    rows.push_back(link.at("ifname").get<std::string>() + ' ' + rx.at("bytes").dump() + ' ' + tx.at("bytes").dump() +
                   ' ' + rx.at("packets").dump() + ' ' + tx.at("packets").dump() + '\n');
  }
  return Joined(std::move(rows));
}

std::string SortedLines(const std::string& text) {
  std::istringstream stream(text);
  Rows lines;
  for (std::string line; std::getline(stream, line);) {
    lines.push_back(line + '\n');
  }
  return Joined(std::move(lines));
}

void SendDatagrams(const char* ip, int count, std::size_t size) {
  const internal::UniqueFd fd(::socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  sockaddr_in to = test::Loopback(9);
  ASSERT_EQ(::inet_pton(AF_INET, ip, &to.sin_addr), 1);
  const std::string payload(size, 'x');
  for (int i = 0; i < count; ++i) {
    EXPECT_EQ(::sendto(fd.Get(), payload.data(), size, 0, reinterpret_cast<const sockaddr*>(&to), sizeof to),
              static_cast<ssize_t>(size));
  }
}

class NetStatsLive : public test::KernelTest {
 protected:
  void SetUp() override {
    KernelTest::SetUp();
    NeedKind("veth");
  }

  // Two interfaces with a wire between them: what the first sends to 10.1.0.2, the second receives, once the kernel has
  // noticed the wire.
  static void MakeWire() {
    test::IpBatch(R"(link set lo up
link add eth0 type veth peer name usb0-longname15
addr add 10.1.0.1/24 dev eth0
link set eth0 up
link set usb0-longname15 up
neigh add 10.1.0.2 lladdr 02:00:00:00:00:02 nud permanent dev eth0
)");
    for (int milliseconds = 0; milliseconds < 10000 && PacketsOnTheWire() == 0; ++milliseconds) {
      (void)::poll(nullptr, 0, 1);
      SendDatagrams("10.1.0.2", 1, 1);
    }
    EXPECT_GT(PacketsOnTheWire(), 0U);
  }

  static std::uint64_t PacketsOnTheWire() {
    const std::string text = test::ReadFile("/sys/class/net/usb0-longname15/statistics/rx_packets");
    return Numbers(text + " 0")[0];
  }
};

TEST_F(NetStatsLive, NewNamespaceHasOneSilentInterface) {
  EXPECT_EQ(Interface("lo"), "lo 0 0 0 0");
  EXPECT_EQ(SortedLines(Interfaces()), InterfacesOfIp());
}

TEST_F(NetStatsLive, TrafficIsWhatIpShows) {
  MakeWire();
  SendDatagrams("10.1.0.2", 7, 100);
  SendDatagrams("127.0.0.1", 3, 1000);

  ExpectEqualAtRest([] { return SortedLines(Interfaces()); }, InterfacesOfIp);

  IfaceStats sender;
  IfaceStats loopback;
  ASSERT_TRUE(NetStats::GetByName("eth0", sender) && NetStats::GetByName("lo", loopback));
  EXPECT_GE(sender.txPackets, 7U);
  EXPECT_GE(sender.txBytes, 7U * (14 + 20 + 8 + 100)) << "with the headers of Ethernet, IP and UDP";
  EXPECT_EQ(loopback.rxBytes, loopback.txBytes);
  EXPECT_GE(loopback.rxPackets, 3U);
  EXPECT_EQ(Interface("usb0-longname1"), kNone);
  EXPECT_NE(Interface("usb0-longname15"), kNone);
}

TEST_F(NetStatsLive, InterfacesAreThoseOfTheMainThreadsNetwork) {
  MakeWire();
  bool moved = false;
  std::string interface;

  std::thread([&] {
    moved = ::unshare(CLONE_NEWNET) == 0;
    interface = Interface("eth0");
  }).join();

  EXPECT_TRUE(moved);
  EXPECT_NE(interface, kNone);
}

// ----------------------------------------------------------------------------------------------- disks of the machine

class DiskStatsLive : public Machine {};

std::string NamesOfDisks() {
  std::vector<DeviceStats> all;
  const bool known = DiskStats::GetAll(all);
  Rows names;
  for (const DeviceStats& stats : all) {
    names.push_back(stats.name + '\n');
  }
  return known != names.empty() ? Joined(std::move(names)) : "a result that does not agree with the records";
}

// All block devices but partitions; one that belongs to several others is shown more than once.
std::string NamesOfLsblk() {
  Rows names;
  const std::string text = Shell("lsblk -a -b -l -J -o KNAME,TYPE || true");  // It fails where there is none.
  const nlohmann::json table = nlohmann::json::parse(text.empty() ? "{}" : text);
  for (const nlohmann::json& device : table.value("blockdevices", nlohmann::json::array())) {
    if (device.at("type") != "part") {
      names.push_back(device.at("kname").get<std::string>() + '\n');
    }
  }
  return Joined(std::move(names));
}

TEST_F(DiskStatsLive, DisksAreThoseOfLsblk) {
  if (!NeedProgram("lsblk")) {
    return;
  }
  ExpectEqualAtRest(NamesOfDisks, NamesOfLsblk);
}

// The counters that the kernel shows of one disk in a file of its own, in the order of the record.
std::array<std::uint64_t, 4> CountersInSys(const std::string& name) {
  std::vector<std::uint64_t> columns = Numbers(test::ReadFile("/sys/block/" + name + "/stat"));
  columns.resize(std::max<std::size_t>(columns.size(), 11));
  return {columns[0], columns[4], columns[2], columns[6]};
}

TEST_F(DiskStatsLive, CountersAreThoseOfEveryDisksOwnFile) {
  std::vector<DeviceStats> all;
  (void)DiskStats::GetAll(all);
  for (const DeviceStats& disk : all) {
    DeviceStats stats;
    const std::array<std::uint64_t, 4> before = CountersInSys(disk.name);
    const bool isThere = DiskStats::GetByName(disk.name, stats);
    const std::array<std::uint64_t, 4> after = CountersInSys(disk.name);

    EXPECT_EQ(isThere, test::Exists("/sys/block/" + disk.name)) << disk.name;
    const std::array<std::uint64_t, 4> found = {stats.readsCompleted, stats.writesCompleted, stats.sectorsRead,
                                                stats.sectorsWritten};
    for (std::size_t i = 0; isThere && i < found.size(); ++i) {
      EXPECT_LE(before[i], found[i]) << disk.name << ' ' << i;
      EXPECT_LE(found[i], after[i]) << disk.name << ' ' << i;
    }
  }
}

// A disk of the test's own, with two partitions of a mebibyte.
class DiskStatsOfPartitions : public test::MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (!IsReady() || !NeedLoopDevices()) {
      return;
    }
    test::WriteFile(At("image"), std::string(3 * kMebibyte, 'x'));
    std::istringstream output(Shell("losetup --find --show --partscan " + At("image")));
    ASSERT_TRUE(output >> mPath);
    mName = mPath.substr(mPath.rfind('/') + 1);
    (void)Shell("addpart " + mPath + " 1 2048 2048 && addpart " + mPath + " 2 4096 2048");
  }

  void TearDown() override {
    if (!mPath.empty()) {
      (void)Shell("losetup --detach " + mPath);
    }
    MountTest::TearDown();
  }

  // A partition by the device number that the kernel gave it: nothing else need have made its file.
  std::string Partition(int number) const {
    const std::string name = mName + 'p' + std::to_string(number);
    const std::vector<std::uint64_t> ids = Numbers(test::ReadFile("/sys/block/" + mName + '/' + name + "/dev"));
    EXPECT_EQ(ids.size(), 2U) << name;
    EXPECT_EQ(::mknod(At(name).c_str(), S_IFBLK | 0600,
                      makedev(static_cast<unsigned>(ids.at(0)), static_cast<unsigned>(ids.at(1)))),
              0);
    return At(name);
  }

  static constexpr std::size_t kMebibyte = 1048576;
  std::string mPath;
  std::string mName;
};

TEST_F(DiskStatsOfPartitions, DiskIsListedAndItsPartitionsAreNot) {
  const std::string table = test::ReadFile(kDiskstats);
  for (const char* const partition : {"p1", "p2"}) {
    EXPECT_NE(table.find(' ' + mName + partition + ' '), std::string::npos);
    EXPECT_EQ(Disk(mName + partition), kNone);
    EXPECT_EQ(NamesOfDisks().find(mName + partition), std::string::npos);
  }
  EXPECT_NE(Disk(mName), kNone);
  EXPECT_NE(NamesOfDisks().find(mName + '\n'), std::string::npos);
}

// Reads or writes `size` bytes, 65536 at most, without the kernel's cache.
bool TransferDirectly(const std::string& path, int direction, std::size_t size) {
  alignas(4096) static char bytes[65536];
  const internal::UniqueFd fd(::open(path.c_str(), direction | O_DIRECT | O_CLOEXEC));
  const ssize_t done = direction == O_WRONLY ? ::write(fd.Get(), bytes, size) : ::read(fd.Get(), bytes, size);
  return done == static_cast<ssize_t>(size);
}

TEST_F(DiskStatsOfPartitions, WhatIsReadAndWrittenCountsForTheDisk) {
  const struct {
    std::string path;
    int direction;
    std::size_t bytes;
  } transfers[] = {{mPath, O_RDONLY, 65536},
                   {Partition(1), O_RDONLY, 32768},
                   {mPath, O_WRONLY, 16384},
                   {Partition(2), O_WRONLY, 4096}};
  for (const auto& transfer : transfers) {
    SCOPED_TRACE(transfer.path);
    const std::uint64_t sectors = transfer.bytes / 512;
    const bool isRead = transfer.direction == O_RDONLY;
    DeviceStats before;
    ASSERT_TRUE(DiskStats::GetByName(mName, before));

    ASSERT_TRUE(TransferDirectly(transfer.path, transfer.direction, transfer.bytes)) << std::strerror(errno);

    EXPECT_TRUE(test::BecomesTrue([&] {
      DeviceStats after;
      return DiskStats::GetByName(mName, after) &&
             (isRead ? after.readsCompleted > before.readsCompleted : after.writesCompleted > before.writesCompleted) &&
             after.sectorsRead >= before.sectorsRead + (isRead ? sectors : 0) &&
             after.sectorsWritten >= before.sectorsWritten + (isRead ? 0 : sectors);
    }));
  }
  ExpectEqualAtRest([this] { return Disk(mName); },
                    [this] {
                      const auto [reads, writes, sectorsRead, sectorsWritten] = CountersInSys(mName);
                      return Text(DeviceStats{mName, reads, writes, sectorsRead, sectorsWritten});
                    });
}

TEST_F(Machine, OrdinaryUserSeesItAll) {
  EXPECT_TRUE(test::IsTrueUnprivileged([] {
    return Load() != kNone && Uptime() != kNone && Memory() != kNone && Interface("lo") != kNone && Cpu() == kNone;
  }));
}

}  // namespace
}  // namespace kiv::utils
