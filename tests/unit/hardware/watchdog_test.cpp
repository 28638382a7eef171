#include <dlfcn.h>
#include <gtest/gtest.h>
#include <kiv/hardware.h>
#include <linux/watchdog.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <climits>
#include <condition_variable>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <iterator>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support.h"

namespace {

struct Sleeps {
  std::atomic<int> ofASecond{0};
  std::atomic<int> others{0};
  std::atomic<bool> areInterrupted{false};
};

Sleeps sleeps;

}  // namespace

// In place of the C library's, for the library under test: counts, and sleeps unless a signal is said to have come.
extern "C" unsigned int sleep(unsigned int seconds) {
  static const auto next = reinterpret_cast<unsigned int (*)(unsigned int)>(::dlsym(RTLD_NEXT, "sleep"));
  ++(seconds == 1 ? sleeps.ofASecond : sleeps.others);
  return sleeps.areInterrupted ? seconds : next(seconds);
}

// None of these touches a device: each watchdog has operations that note what is asked of them.
namespace kiv::hardware {
namespace {

using Clock = std::chrono::steady_clock;
using Texts = std::vector<std::string>;
using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr int kFd = 77;
constexpr int kRefusal = EOPNOTSUPP;

template <typename Object>
constexpr bool kStaysWhereItIs = !std::is_copy_constructible_v<Object> && !std::is_move_constructible_v<Object> &&
                                 !std::is_copy_assignable_v<Object> && !std::is_move_assignable_v<Object>;

static_assert(kStaysWhereItIs<Watchdog> && kStaysWhereItIs<WatchdogRaii>);
static_assert(std::is_abstract_v<WatchdogOps> && std::has_virtual_destructor_v<WatchdogOps>);
static_assert(std::is_base_of_v<WatchdogOps, RealWatchdogOps> && sizeof(RealWatchdogOps) == sizeof(WatchdogOps));
static_assert(std::is_same_v<decltype(&WatchdogOps::Close), void (WatchdogOps::*)(int)>);
static_assert(std::is_array_v<decltype(Watchdog::kWdtFile)>);

struct Call {
  std::string text;
  std::thread::id thread;
  Clock::time_point at;
  bool blocksSignal;
};

// Says in a word which request this is.
std::string NameOf(unsigned long request, const void* arg) {
  if (arg == nullptr) {
    return request == WDIOC_KEEPALIVE ? "ping" : "request without a value";
  }
  int value = 0;
  std::memcpy(&value, arg, sizeof value);
  if (request == WDIOC_SETTIMEOUT) {
    return "timeout " + std::to_string(value);
  }
  if (request == WDIOC_SETOPTIONS && (value == WDIOS_ENABLECARD || value == WDIOS_DISABLECARD)) {
    return value == WDIOS_ENABLECARD ? "arm" : "disarm";
  }
  return "another request";
}

class RecordingOps : public WatchdogOps {
 public:
  explicit RecordingOps(int fd = kFd) : mFd(fd) {}

  int Open(const char* path) override {
    Note("open " + std::string(path));
    errno = mFd == -1 ? ENODEV : errno;
    return mFd;
  }

  void Close(int fd) override { Note("close " + std::to_string(fd)); }

  int Ioctl(int fd, unsigned long request, void* arg) override {
    const std::string name = NameOf(request, arg);
    const int result = Note(fd == mFd ? name : name + " of another descriptor");
    errno = result == 0 ? errno : kRefusal;
    return result;
  }

  // What is given for this call from now on; 0 for all others.
  void Answer(const std::string& text, int result) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mAnswers[text] = result;
  }

  std::vector<Call> Calls(const std::string& text = "") const {
    const std::lock_guard<std::mutex> lock(mMutex);
    std::vector<Call> calls;
    std::copy_if(mCalls.begin(), mCalls.end(), std::back_inserter(calls),
                 [&](const Call& call) { return text.empty() || call.text == text; });
    return calls;
  }

  // All calls in their order, with pings one after another as one: a busy machine may see more of them.
  Texts Sequence() const {
    Texts texts;
    for (const Call& call : Calls()) {
      if (call.text != "ping" || texts.empty() || texts.back() != "ping") {
        texts.push_back(call.text);
      }
    }
    return texts;
  }

  // False when there are not as many pings in a minute.
  bool WaitForPings(std::size_t count) {
    std::unique_lock<std::mutex> lock(mMutex);
    return mChanged.wait_until(lock, std::chrono::system_clock::now() + seconds(60), [&] {
      return std::count_if(mCalls.begin(), mCalls.end(), [](const Call& call) { return call.text == "ping"; }) >=
             static_cast<std::ptrdiff_t>(count);
    });
  }

 private:
  int Note(const std::string& text) {
    const std::lock_guard<std::mutex> lock(mMutex);
    mCalls.push_back({text, std::this_thread::get_id(), Clock::now(), test::IsBlocked(SIGUSR1)});
    mChanged.notify_all();
    const auto answer = mAnswers.find(text);
    return answer == mAnswers.end() ? 0 : answer->second;
  }

  const int mFd;
  mutable std::mutex mMutex;
  std::condition_variable mChanged;
  std::vector<Call> mCalls;
  std::map<std::string, int> mAnswers;
};

using ThreadSet = std::set<std::string>;

// The thread sanitizer adds one of its own to the first one that a program starts: here, before anybody counts.
[[maybe_unused]] const bool kIsThreaded = (std::thread([] {}).join(), true);

ThreadSet ListThreads() {
  ThreadSet threads;
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/task")) {
    threads.insert(entry.path());
  }
  return threads;
}

// A list that is read while a thread goes may lack another one, too: it counts when it is the same twice.
ThreadSet Threads() {
  ThreadSet threads = ListThreads();
  for (ThreadSet again = ListThreads(); again != threads; again = ListThreads()) {
    threads = std::move(again);
  }
  return threads;
}

// The threads that have come since.
ThreadSet ThreadsSince(const ThreadSet& before) {
  ThreadSet threads = Threads();
  for (const std::string& thread : before) {
    threads.erase(thread);
  }
  return threads;
}

// Whether a thread waits in the kernel, as the feeding one does between two pings.
bool IsAsleep(const std::string& thread) {
  const std::string status = test::ReadFile(thread + "/stat");
  const std::size_t name = status.rfind(") ");
  return name != std::string::npos && status[name + 2] == 'S';
}

// Starts, and returns when the feeding thread has seen that it is to run and sleeps: it feeds at least once from here
// on.
void StartAndAwaitSleep(Watchdog& watchdog) {
  const ThreadSet before = Threads();
  watchdog.Start();
  EXPECT_TRUE(test::BecomesTrue([&before] {
    const ThreadSet started = ThreadsSince(before);
    return started.size() == 1 && IsAsleep(*started.begin());
  }));
}

// A thread that was joined is listed for a moment yet.
bool AreGone(const ThreadSet& before) {
  return test::BecomesTrue([&before] { return ThreadsSince(before).empty(); });
}

// The place of a virtual operation in the table of its class, where the Itanium C++ ABI keeps it.
template <typename Operation>
std::size_t SlotOf(Operation operation) {
  std::uintptr_t offset = 0;
  std::memcpy(&offset, &operation, sizeof offset);
  return (offset & ~std::uintptr_t{1}) / sizeof(void*);
}

TEST(WatchdogOperations, FollowTheTwoSlotsOfTheDestructor) {
  EXPECT_EQ(SlotOf(&WatchdogOps::Open), 2U);
  EXPECT_EQ(SlotOf(&WatchdogOps::Close), 3U);
  EXPECT_EQ(SlotOf(&WatchdogOps::Ioctl), 4U);
}

TEST(WatchdogObject, HoldsItsMembersInThisOrder) {
  struct Members {
    int timeout;
    WatchdogOps* ops;
    int fd;
    std::atomic<bool> running;
    std::thread thread;
  };
  static_assert(sizeof(Members) == sizeof(Watchdog));
  static_assert(sizeof(WatchdogRaii) == sizeof(std::unique_ptr<Watchdog>));
  RecordingOps ops;
  const Watchdog watchdog(30, &ops);
  const std::string bytes = test::Octets(watchdog);
  const auto address = reinterpret_cast<std::uintptr_t>(static_cast<WatchdogOps*>(&ops));

  EXPECT_EQ(bytes.substr(offsetof(Members, timeout), sizeof(int)), test::Octets(30));
  EXPECT_EQ(bytes.substr(offsetof(Members, ops), sizeof address), test::Octets(address));
  EXPECT_EQ(bytes.substr(offsetof(Members, fd), sizeof(int)), test::Octets(kFd));
  EXPECT_EQ(bytes[offsetof(Members, running)], '\0');
}

TEST(WatchdogConstruction, OpensTheDeviceAndNothingElse) {
  RecordingOps ops;
  const Watchdog watchdog(30, &ops);

  EXPECT_EQ(ops.Sequence(), Texts{"open /dev/watchdog"});
  EXPECT_EQ(std::string(Watchdog::kWdtFile), "/dev/watchdog");
}

TEST(WatchdogDestruction, NeverStartedIsClosedAndNotDisarmed) {
  RecordingOps ops;
  std::optional<Watchdog> watchdog;
  watchdog.emplace(30, &ops);

  watchdog.reset();

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "close 77"}));
}

TEST(WatchdogDestruction, ArmedByHandIsClosedAndNotDisarmed) {
  RecordingOps ops;
  {
    Watchdog watchdog(30, &ops);
    EXPECT_TRUE(watchdog.Enable(true));
    EXPECT_TRUE(watchdog.KeepAlive());
  }

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "arm", "ping", "close 77"}));
}

TEST(WatchdogDestruction, ClosesADescriptorWithTheNumber0) {
  RecordingOps ops(0);
  {
    Watchdog watchdog(30, &ops);
    EXPECT_TRUE(watchdog.KeepAlive());
  }

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "ping", "close 0"}));
}

// Only -1 stands for no device.
TEST(WatchdogDestruction, ClosesWhateverElseOpenGave) {
  RecordingOps ops(-2);
  { EXPECT_TRUE(Watchdog(30, &ops).KeepAlive()); }

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "ping", "close -2"}));
}

TEST(WatchdogRequests, EachAsksTheDeviceOnceOnTheCallersThread) {
  RecordingOps ops;
  Watchdog watchdog(30, &ops);

  EXPECT_TRUE(watchdog.SetTimeout(5));
  EXPECT_TRUE(watchdog.SetTimeout(0));
  EXPECT_TRUE(watchdog.SetTimeout(-1));
  EXPECT_TRUE(watchdog.SetTimeout(INT_MAX));
  EXPECT_TRUE(watchdog.Enable(false));
  EXPECT_TRUE(watchdog.Enable(true));
  EXPECT_TRUE(watchdog.KeepAlive());

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 5", "timeout 0", "timeout -1", "timeout 2147483647",
                                   "disarm", "arm", "ping"}));
  for (const Call& call : ops.Calls()) {
    EXPECT_EQ(call.thread, std::this_thread::get_id()) << call.text;
  }
}

TEST(WatchdogRequests, OnlyZeroFromTheDeviceIsSuccess) {
  RecordingOps ops;
  Watchdog watchdog(30, &ops);
  for (const int result : {-1, 1, 5, INT_MIN, INT_MAX, 0}) {
    for (const char* text : {"timeout 5", "arm", "disarm", "ping"}) {
      ops.Answer(text, result);
    }

    EXPECT_EQ(watchdog.SetTimeout(5), result == 0) << result;
    EXPECT_EQ(watchdog.Enable(true), result == 0) << result;
    EXPECT_EQ(watchdog.Enable(false), result == 0) << result;
    EXPECT_EQ(watchdog.KeepAlive(), result == 0) << result;
  }
}

TEST(WatchdogRequests, LeaveErrnoAsTheDeviceLeftIt) {
  RecordingOps ops;
  Watchdog watchdog(30, &ops);
  for (const char* text : {"timeout 5", "arm", "ping"}) {
    ops.Answer(text, -1);
  }
  const auto errorOf = [](bool refused) { return refused ? std::exchange(errno, 0) : -1; };

  EXPECT_EQ(errorOf(!watchdog.SetTimeout(5)), kRefusal);
  EXPECT_EQ(errorOf(!watchdog.Enable(true)), kRefusal);
  EXPECT_EQ(errorOf(!watchdog.KeepAlive()), kRefusal);
}

TEST(WatchdogStop, NeverStartedAsksNothing) {
  RecordingOps ops;
  Watchdog watchdog(30, &ops);

  watchdog.Stop();
  watchdog.Stop();

  EXPECT_EQ(ops.Sequence(), Texts{"open /dev/watchdog"});
}

TEST(WatchdogStart, SetsTheTimeoutArmsFeedsAndStopDisarms) {
  RecordingOps ops;
  std::optional<Watchdog> watchdog;
  watchdog.emplace(30, &ops);

  StartAndAwaitSleep(*watchdog);
  EXPECT_EQ(ops.Calls("disarm").size(), 0U);
  watchdog->Stop();
  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 30", "arm", "ping", "disarm"}))
      << "the sleeping thread feeds once more before it ends";
  watchdog.reset();

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 30", "arm", "ping", "disarm", "close 77"}));
}

TEST(WatchdogStart, FeedsOnceASecondFromAThreadOfItsOwnWhateverTheTimeout) {
  RecordingOps ops;
  Watchdog watchdog(600, &ops);
  const Clock::time_point start = Clock::now();
  watchdog.Start();
  ASSERT_TRUE(ops.WaitForPings(3));

  const std::vector<Call> pings = ops.Calls("ping");
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_GE(pings[i].at - (i == 0 ? start : pings[i - 1].at), milliseconds(990)) << i;
    EXPECT_EQ(pings[i].thread, pings[0].thread);
  }
  EXPECT_LE(pings[2].at - start, seconds(20));
  EXPECT_NE(pings[0].thread, std::this_thread::get_id());
}

TEST(WatchdogStart, SleepsASecondBetweenPingsWhateverTheTimeout) {
  RecordingOps first;
  RecordingOps second;
  Watchdog shortOne(1, &first);
  Watchdog longOne(600, &second);
  shortOne.Start();
  longOne.Start();

  EXPECT_TRUE(first.WaitForPings(1));
  EXPECT_TRUE(second.WaitForPings(1));

  EXPECT_GE(sleeps.ofASecond, 2);
  EXPECT_EQ(sleeps.others, 0);
}

// A handler that runs on the feeding thread ends its sleep.
TEST(WatchdogStart, FeedsAtOnceWhenASignalEndsTheSleep) {
  RecordingOps ops;
  Watchdog watchdog(30, &ops);
  sleeps.areInterrupted = true;

  watchdog.Start();

  EXPECT_TRUE(ops.WaitForPings(100)) << "which takes less than a second each";
  sleeps.areInterrupted = false;
}

TEST(WatchdogStart, AsksForAnyTimeout) {
  for (const int timeout : {0, -1, INT_MIN, INT_MAX}) {
    RecordingOps ops;
    {
      sleeps.areInterrupted = true;
      const WatchdogRaii watchdog(timeout, &ops);
    }
    EXPECT_EQ(ops.Calls("timeout " + std::to_string(timeout)).size(), 1U);
    EXPECT_EQ(ops.Calls("arm").size(), 1U);
  }
  sleeps.areInterrupted = false;
}

// As a driver does that knows whole minutes only.
class RoundingOps : public RecordingOps {
 public:
  int Ioctl(int fd, unsigned long request, void* arg) override {
    const int result = RecordingOps::Ioctl(fd, request, arg);
    if (request == WDIOC_SETTIMEOUT) {
      const int rounded = 60;
      std::memcpy(arg, &rounded, sizeof rounded);
    }
    return result;
  }
};

TEST(WatchdogStart, AsksForItsOwnTimeoutAgainWhateverTheDeviceMadeOfIt) {
  RoundingOps ops;
  Watchdog watchdog(30, &ops);
  sleeps.areInterrupted = true;
  for (int i = 0; i < 2; ++i) {
    watchdog.Start();
    watchdog.Stop();
  }
  sleeps.areInterrupted = false;

  EXPECT_EQ(ops.Calls("timeout 30").size(), 2U);
  EXPECT_TRUE(ops.Calls("timeout 60").empty());
}

class ThrowingOps : public RecordingOps {
 public:
  int Ioctl(int fd, unsigned long request, void* arg) override {
    (void)RecordingOps::Ioctl(fd, request, arg);
    throw std::runtime_error("not here");
  }
};

TEST(WatchdogStart, ThatAnOperationThrowsOutOfHasStartedNothing) {
  ThrowingOps ops;
  {
    Watchdog watchdog(30, &ops);
    EXPECT_THROW(watchdog.Start(), std::runtime_error);
    watchdog.Stop();
  }

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 30", "close 77"}));
}

TEST(WatchdogStart, GivesTheThreadTheSignalMaskOfItsCaller) {
  const test::SignalMaskRestorer restorer;
  test::Block(SIGUSR1);
  RecordingOps ops;
  Watchdog watchdog(30, &ops);

  watchdog.Start();

  ASSERT_TRUE(ops.WaitForPings(1));
  EXPECT_TRUE(ops.Calls("ping")[0].blocksSignal);
}

TEST(WatchdogStart, OfARunningOneDoesNothing) {
  RecordingOps ops;
  Watchdog watchdog(30, &ops);
  const ThreadSet before = Threads();
  watchdog.Start();
  EXPECT_EQ(ThreadsSince(before).size(), 1U);

  watchdog.Start();
  watchdog.Start();

  EXPECT_EQ(ThreadsSince(before).size(), 1U);
  ASSERT_TRUE(ops.WaitForPings(1));
  watchdog.Stop();
  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 30", "arm", "ping", "disarm"}));
  EXPECT_TRUE(AreGone(before));
}

TEST(WatchdogStart, AfterStopFeedsAgainWithTheTimeoutOfTheConstructor) {
  RecordingOps ops;
  Watchdog watchdog(30, &ops);
  StartAndAwaitSleep(watchdog);
  watchdog.Stop();
  EXPECT_TRUE(watchdog.SetTimeout(5));

  StartAndAwaitSleep(watchdog);
  watchdog.Stop();

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 30", "arm", "ping", "disarm", "timeout 5",
                                   "timeout 30", "arm", "ping", "disarm"}));
}

TEST(WatchdogStop, TwiceDisarmsOnceAndNothingIsFedAfterwards) {
  RecordingOps ops;
  Watchdog watchdog(30, &ops);
  RecordingOps others;
  Watchdog other(30, &others);
  StartAndAwaitSleep(watchdog);

  watchdog.Stop();
  watchdog.Stop();
  other.Start();
  ASSERT_TRUE(others.WaitForPings(1)) << "a second goes by";

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 30", "arm", "ping", "disarm"}));
}

TEST(WatchdogStop, DisarmsOnTheOwnersThreadAndWaitsForTheFeedingOne) {
  RecordingOps ops;
  Watchdog watchdog(600, &ops);
  const ThreadSet before = Threads();
  StartAndAwaitSleep(watchdog);
  const Clock::time_point stop = Clock::now();

  watchdog.Stop();

  EXPECT_LE(Clock::now() - stop, seconds(20));
  EXPECT_EQ(ops.Calls("disarm").at(0).thread, std::this_thread::get_id());
  EXPECT_TRUE(AreGone(before));
}

TEST(WatchdogDestruction, RunningOneIsStoppedDisarmedAndClosed) {
  RecordingOps ops;
  {
    Watchdog watchdog(30, &ops);
    StartAndAwaitSleep(watchdog);
  }

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 30", "arm", "ping", "disarm", "close 77"}));
  EXPECT_EQ(ops.Calls("close 77").size(), 1U);
}

TEST(WatchdogWithoutADevice, EverythingIsFalseAndTheThreadRunsAllTheSame) {
  RecordingOps ops(-1);
  const ThreadSet before = Threads();
  {
    Watchdog watchdog(30, &ops);
    EXPECT_EQ(errno, ENODEV);
    StartAndAwaitSleep(watchdog);
    watchdog.Start();
    EXPECT_EQ(ThreadsSince(before).size(), 1U);

    EXPECT_FALSE(watchdog.SetTimeout(5));
    EXPECT_FALSE(watchdog.Enable(true));
    EXPECT_FALSE(watchdog.Enable(false));
    EXPECT_FALSE(watchdog.KeepAlive());

    watchdog.Stop();
    EXPECT_TRUE(AreGone(before));
  }

  EXPECT_EQ(ops.Sequence(), Texts{"open /dev/watchdog"}) << "neither a request nor a closing";
}

TEST(WatchdogWithoutADevice, IsNotOpenedAgain) {
  RecordingOps ops(-1);
  {
    Watchdog watchdog(30, &ops);
    watchdog.Start();
    watchdog.Stop();
    watchdog.Start();
  }

  EXPECT_EQ(ops.Sequence(), Texts{"open /dev/watchdog"});
}

TEST(WatchdogWithARefusingDevice, GoesOnAfterAnyRefusal) {
  for (const std::string refused : {"timeout 30", "arm", "disarm"}) {
    RecordingOps ops;
    ops.Answer(refused, -1);
    {
      Watchdog watchdog(30, &ops);
      StartAndAwaitSleep(watchdog);
    }

    EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 30", "arm", "ping", "disarm", "close 77"}))
        << refused;
  }
}

TEST(WatchdogWithARefusingDevice, IsFedAgainAfterARefusedPing) {
  RecordingOps ops;
  ops.Answer("ping", -1);
  Watchdog watchdog(30, &ops);

  watchdog.Start();

  EXPECT_TRUE(ops.WaitForPings(2));
}

TEST(WatchdogRequests, MayBeMadeWhileItIsFed) {
  RecordingOps ops;
  Watchdog watchdog(30, &ops);
  watchdog.Start();
  const auto isFedByAnother = [&ops] {
    const std::vector<Call> pings = ops.Calls("ping");
    return std::any_of(pings.begin(), pings.end(),
                       [](const Call& ping) { return ping.thread != std::this_thread::get_id(); });
  };

  bool accepted = true;
  const bool fed = test::BecomesTrue([&] {
    accepted = accepted && watchdog.KeepAlive() && watchdog.SetTimeout(9) && watchdog.Enable(true);
    return isFedByAnother();
  });

  EXPECT_TRUE(accepted);
  EXPECT_TRUE(fed);
}

TEST(WatchdogRaii, FeedsFromConstructionToDestruction) {
  RecordingOps ops;
  const ThreadSet before = Threads();
  {
    const WatchdogRaii guard(30, &ops);
    EXPECT_EQ(ThreadsSince(before).size(), 1U);
    EXPECT_TRUE(ops.WaitForPings(1));
  }

  EXPECT_EQ(ops.Sequence(), (Texts{"open /dev/watchdog", "timeout 30", "arm", "ping", "disarm", "close 77"}));
  EXPECT_TRUE(AreGone(before));
}

TEST(WatchdogRaii, WithoutADeviceStartsAndEndsAllTheSame) {
  RecordingOps ops(-1);
  const ThreadSet before = Threads();
  {
    const WatchdogRaii guard(30, &ops);
    EXPECT_EQ(ThreadsSince(before).size(), 1U);
  }

  EXPECT_EQ(ops.Sequence(), Texts{"open /dev/watchdog"});
}

}  // namespace
}  // namespace kiv::hardware
