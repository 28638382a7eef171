#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/process.h>
#include <sys/wait.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cstddef>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "internal/unique_fd.h"
#include "tests/child.h"
#include "tests/support.h"

namespace kiv::process {
namespace {

constexpr int kThreads = 8;
constexpr std::size_t kAllocatingThreads = 2;

// The address sanitizer makes every child a dozen milliseconds dearer. Its allocator, unlike the C library's, is not
// put in order in a child: one that allocated anything would wait for ever if another thread had been in the allocator.
#if defined(__SANITIZE_ADDRESS__)
#define KIV_HAS_ADDRESS_SANITIZER
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
#define KIV_HAS_ADDRESS_SANITIZER
#endif
#endif
#ifdef KIV_HAS_ADDRESS_SANITIZER
constexpr int kMostChildren = 800;
#else
constexpr int kMostChildren = 10000;
#endif

// An emulated processor takes a hundred times as long for each.
const int kChildren = test::IsSlowMachine() ? 300 : kMostChildren;

constexpr int kExitCodes = 100;

// Keeps the allocator and its locks busy, so that children are forked in the middle of its work.
class AllocationLoad {
 public:
  AllocationLoad() {
    while (mThreads.size() < kAllocatingThreads) {
      mThreads.emplace_back([this] { Run(); });
    }
  }
  AllocationLoad(const AllocationLoad&) = delete;
  AllocationLoad& operator=(const AllocationLoad&) = delete;
  ~AllocationLoad() {
    mStop = true;
    for (std::thread& thread : mThreads) {
      thread.join();
    }
  }

 private:
  void Run() {
    std::array<std::unique_ptr<std::string>, 64> kept;
    for (std::size_t i = 1; !mStop; ++i) {
      kept.at(i % kept.size()) = std::make_unique<std::string>(i * 7919 % 70000, 'x');
    }
  }

  std::atomic<bool> mStop{false};
  std::vector<std::thread> mThreads;
};

// Runs `call` with the numbers from 0 to `count`, on all threads at once.
template <typename Call>
void OnAllThreads(int count, Call call) {
  std::atomic<int> next{0};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&] {
      for (int number = next++; number < count; number = next++) {
        call(number);
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
}

std::vector<std::string> ExitWith(int number) {
  return {"-c", "echo " + std::to_string(number) + "; exit " + std::to_string(number % kExitCodes)};
}

// Nothing but the number of a call decides what it has to give: a child that saw another one's would differ.
class Spawning : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(test::HasNoChild());
    EXPECT_EQ(test::CountOpenFds(), mDescriptors);
  }

  const test::TempFolder mFolder;
  std::atomic<int> mWrong{0};

 private:
  const std::size_t mDescriptors = test::CountOpenFds();
};

TEST_F(Spawning, FromManyThreadsEachWaitGetsItsOwnProgramsCode) {
  const AllocationLoad load;
  OnAllThreads(kChildren / 3, [this](int number) {
    const ExecResult result = ExecWait("/bin/sh", ExitWith(number), "", "");
    mWrong += result.exitCode == number % kExitCodes && result.output.empty() ? 0 : 1;
  });
  EXPECT_EQ(mWrong, 0);
}

TEST_F(Spawning, FromManyThreadsEachCaptureGetsItsOwnProgramsCodeAndOutput) {
  const AllocationLoad load;
  OnAllThreads(kChildren / 3, [this](int number) {
    const ExecResult result = ExecWaitCapture("/bin/sh", ExitWith(number));
    const bool isRight = result.exitCode == number % kExitCodes && result.output == std::to_string(number) + "\n";
    mWrong += isRight ? 0 : 1;
  });
  EXPECT_EQ(mWrong, 0);
}

TEST_F(Spawning, FromManyThreadsEveryDetachedProgramRunsOnce) {
  const test::Subreaper subreaper;
  const int kCount = kChildren / 3 / kExitCodes * kExitCodes;
  {
    const AllocationLoad load;
    OnAllThreads(kCount, [this](int number) { mWrong += StartProcessDetached("/bin/sh", ExitWith(number)) ? 0 : 1; });
  }
  std::map<int, int> seen;
  for (int status = test::Subreaper::Next(); status >= 0; status = test::Subreaper::Next()) {
    ++seen[WIFEXITED(status) ? WEXITSTATUS(status) : -1];
  }
  std::map<int, int> expected;
  for (int code = 0; code < kExitCodes; ++code) {
    expected[code] = kCount / kExitCodes;
  }
  EXPECT_EQ(seen, expected);
  EXPECT_EQ(mWrong, 0);
}

// The captures of all threads have pipes open at that time, and the tests a descriptor that is not close-on-exec.
TEST_F(Spawning, FromManyThreadsNoProgramGetsADescriptorOfAnother) {
  const internal::UniqueFd careless(::open("/dev/null", O_RDONLY));
  OnAllThreads(kChildren / 20, [this](int /*number*/) {
    const ExecResult result = ExecWaitCapture(KIV_PROBE, {"report"});
    mWrong += result.output.find("\nfds 1 2\n") != std::string::npos ? 0 : 1;
  });
  EXPECT_EQ(mWrong, 0);
}

// A capture ends when its own program does: no other program that lives on has the pipe.
TEST_F(Spawning, ALongLivedProgramOfAnotherThreadDoesNotDelayACapture) {
  const test::Fifo gate(mFolder.Path() + "/gate");
  const test::Subreaper subreaper;
  const int slow = kChildren / 40;
  OnAllThreads(2 * slow, [&](int number) {
    if (number % 2 == 0) {
      mWrong += StartProcessDetached("/bin/sh", {"-c", "read x <" + gate.Path()}) ? 0 : 1;
    } else {
      mWrong += ExecWaitCapture("/bin/sh", ExitWith(number)).output == std::to_string(number) + "\n" ? 0 : 1;
    }
  });
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), 0);  // They all still run.
  for (int i = 0; i < slow; ++i) {
    gate.Release();
  }
  int ended = 0;
  while (test::Subreaper::Next() == 0) {
    ++ended;
  }
  EXPECT_EQ(ended, slow);
  EXPECT_EQ(mWrong, 0);
}

}  // namespace
}  // namespace kiv::process
