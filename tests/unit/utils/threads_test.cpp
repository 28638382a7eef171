#include <gtest/gtest.h>
#include <kiv/utils.h>

#include <atomic>
#include <functional>
#include <map>
#include <string>
#include <thread>
#include <vector>

#include "tests/support.h"

namespace kiv::utils {
namespace {

using Values = std::map<std::string, std::string>;

// How often `call` was true on threads that call it at the same time, in so many rounds each.
int TrueOnThreads(const std::function<bool()>& call) {
  constexpr int kThreads = 8;
  constexpr int kRounds = 20;
  std::atomic<int> ready{0};
  std::atomic<int> count{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      ++ready;
      while (ready < kThreads) {
        std::this_thread::yield();
      }
      for (int round = 0; round < kRounds; ++round) {
        count += call() ? 1 : 0;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  return count;
}

constexpr int kAlways = 160;

// CTest gives every case a process of its own, so the threads are the first to ask what the processor can do.
TEST(ManyThreads, MayComputeChecksums) {
  const std::string text(1000, 'x');

  EXPECT_EQ(TrueOnThreads([&text] { return CalcCrc32(text) == 0x3B41C9E6; }), kAlways);
}

TEST(ManyThreads, MayReadFiguresOfTheMachine) {
  EXPECT_EQ(TrueOnThreads([] {
              SystemStats::LoadAvg load{};
              SystemStats::MemInfo memory{};
              double seconds = 0;
              return SystemStats::GetLoadAvg(load) && SystemStats::GetMemory(memory) &&
                     SystemStats::GetUptime(seconds) && seconds > 0;
            }),
            kAlways);
}

TEST(ManyThreads, MayReadCounters) {
  EXPECT_EQ(TrueOnThreads([] {
              std::vector<NetStats::IfaceStats> interfaces;
              std::vector<DiskStats::DeviceStats> disks;
              NetStats::IfaceStats lo;
              DiskStats::DeviceStats first;
              const bool hasDisks = DiskStats::GetAll(disks);
              return NetStats::GetAll(interfaces) && NetStats::GetByName("lo", lo) && lo.name == "lo" &&
                     (!hasDisks || (DiskStats::GetByName(disks[0].name, first) && first.name == disks[0].name));
            }),
            kAlways);
}

TEST(ManyThreads, MayReadSettings) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/settings";
  test::WriteFile(path, "[net]\nname = lo\n");

  EXPECT_EQ(TrueOnThreads([&path] {
              std::map<std::string, Values> sections;
              Values values;
              return ParseIniFile(path.c_str(), sections) &&
                     Parser::ReadKeyValueFile(path.c_str(), values, "=", false) &&
                     sections == std::map<std::string, Values>{{"net", {{"name", "lo"}}}} &&
                     values == Values{{"name", "lo"}};
            }),
            kAlways);
}

}  // namespace
}  // namespace kiv::utils
