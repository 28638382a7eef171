#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <poll.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <fstream>
#include <functional>
#include <limits>
#include <memory>
#include <string>
#include <thread>
#include <utility>

#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using std::chrono::nanoseconds;
using test::EventFd;

constexpr long long kWrap = 4294967296000;  // 2^32 seconds.
constexpr Milliseconds kHour{3600 * 1000};

nanoseconds ToNanoseconds(const timespec& time) {
  return std::chrono::seconds(time.tv_sec) + nanoseconds(time.tv_nsec);
}

nanoseconds Now() {
  timespec now{};
  (void)::clock_gettime(CLOCK_MONOTONIC, &now);
  return ToNanoseconds(now);
}

itimerspec SettingOf(int fd) {
  itimerspec spec{};
  EXPECT_EQ(::timerfd_gettime(fd, &spec), 0);
  return spec;
}

bool IsRunning(int fd) { return ToNanoseconds(SettingOf(fd).it_value).count() != 0; }

nanoseconds Interval(int fd) { return ToNanoseconds(SettingOf(fd).it_interval); }

// What a timer was set to a moment ago lies between what is left and what is left plus the time since.
template <typename Set>
void ExpectSets(const Set& set, int fd, nanoseconds value) {
  const nanoseconds before = Now();
  ASSERT_TRUE(set());
  const nanoseconds left = ToNanoseconds(SettingOf(fd).it_value);
  const nanoseconds elapsed = Now() - before;
  EXPECT_LE(left.count(), value.count());
  EXPECT_GE((left + elapsed).count(), value.count());
}

void WaitUntilReadable(int fd) {
  pollfd entry{fd, POLLIN, 0};
  ASSERT_EQ(::poll(&entry, 1, 60 * 1000), 1);
}

// Reads what /proc tells about a descriptor, a line that starts with `key`.
std::string FdInfo(int fd, const std::string& key) {
  std::ifstream file("/proc/self/fdinfo/" + std::to_string(fd));
  std::string line;
  while (std::getline(file, line)) {
    if (line.compare(0, key.size(), key) == 0) {
      return line;
    }
  }
  return "";
}

TEST(TimerConstruction, OpensANonBlockingCloseOnExecMonotonicTimerfd) {
  const std::size_t before = test::CountOpenFds();
  Timer timer(kHour, false, [] {});
  EXPECT_EQ(test::CountOpenFds(), before + 1);
  ASSERT_GE(timer.GetFd(), 0);
  EXPECT_EQ(::fcntl(timer.GetFd(), F_GETFD), FD_CLOEXEC);
  EXPECT_TRUE((::fcntl(timer.GetFd(), F_GETFL) & O_NONBLOCK) != 0);
  EXPECT_EQ(FdInfo(timer.GetFd(), "clockid:"), "clockid: " + std::to_string(CLOCK_MONOTONIC));
  EXPECT_EQ(timer.GetEvents(), POLLIN);
}

TEST(TimerConstruction, StartsAOneShotTimerWithoutInterval) {
  const int fd = test::NextFd();
  std::unique_ptr<Timer> timer;
  const auto create = [&] {
    timer = std::make_unique<Timer>(Milliseconds(1500), false, [] {});
    return timer->GetFd() == fd;
  };
  ExpectSets(create, fd, Milliseconds(1500));
  EXPECT_EQ(Interval(fd).count(), 0);
}

TEST(TimerConstruction, StartsAPeriodicTimerWithTheSameInterval) {
  const int fd = test::NextFd();
  std::unique_ptr<Timer> timer;
  const auto create = [&] {
    timer = std::make_unique<Timer>(Milliseconds(1500), true, [] {});
    return timer->GetFd() == fd;
  };
  ExpectSets(create, fd, Milliseconds(1500));
  EXPECT_EQ(SettingOf(fd).it_interval.tv_sec, 1);
  EXPECT_EQ(SettingOf(fd).it_interval.tv_nsec, 500000000);
}

TEST(TimerConstruction, KeepsTheDescriptorWhenTheKernelRefusesTheDuration) {
  Timer timer(Milliseconds(-1), true, [] {});
  ASSERT_GE(timer.GetFd(), 0);
  EXPECT_FALSE(IsRunning(timer.GetFd()));
}

TEST(TimerConstruction, WithoutATimerfdThereIsNoDescriptor) {
  {
    const Timer seenBefore(Milliseconds(1), false, [] {});
  }
  const test::NoNewDescriptors limit;
  int calls = 0;
  Timer timer(Milliseconds(1), true, [&] { ++calls; });
  EXPECT_EQ(timer.GetFd(), -1);
  EXPECT_FALSE(timer.SetTimer(Milliseconds(1), false));
  EXPECT_EQ(errno, EBADF);
  timer.Cancel();
  timer.OnEvent(-1, POLLIN);
  EXPECT_EQ(calls, 0);
}

TEST(TimerDestruction, ClosesTheDescriptor) {
  const std::size_t before = test::CountOpenFds();
  {
    const Timer timer(kHour, true, [] {});
  }
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(TimerSetTimer, RestartsTheCountdownFromNow) {
  Timer timer(kHour, false, [] {});
  ExpectSets([&] { return timer.SetTimer(Milliseconds(90001), false); }, timer.GetFd(), Milliseconds(90001));
  EXPECT_EQ(Interval(timer.GetFd()).count(), 0);
  ExpectSets([&] { return timer.SetTimer(Milliseconds(90001), true); }, timer.GetFd(), Milliseconds(90001));
  EXPECT_EQ(Interval(timer.GetFd()), Milliseconds(90001));
}

TEST(TimerSetTimer, ZeroStopsTheTimer) {
  Timer timer(kHour, true, [] {});
  EXPECT_TRUE(timer.SetTimer(Milliseconds(0), true));
  EXPECT_FALSE(IsRunning(timer.GetFd()));
}

TEST(TimerSetTimer, RefusedDurationLeavesTheSchedule) {
  Timer timer(kHour, true, [] {});
  for (const long long duration : {-1LL, -1000LL, -1001LL, std::numeric_limits<long long>::min()}) {
    EXPECT_FALSE(timer.SetTimer(Milliseconds(duration), false)) << duration;
    EXPECT_EQ(errno, EINVAL) << duration;
  }
  EXPECT_TRUE(IsRunning(timer.GetFd()));
  EXPECT_EQ(Interval(timer.GetFd()), kHour);
}

TEST(TimerSetPeriodic, RepeatsAtTheDuration) {
  Timer timer(kHour, false, [] {});
  ExpectSets([&] { return timer.SetPeriodic(Milliseconds(2500)); }, timer.GetFd(), Milliseconds(2500));
  EXPECT_EQ(Interval(timer.GetFd()), Milliseconds(2500));
  EXPECT_FALSE(timer.SetPeriodic(Milliseconds(-1)));
  EXPECT_TRUE(timer.SetPeriodic(Milliseconds(0)));
  EXPECT_FALSE(IsRunning(timer.GetFd()));
}

TEST(TimerSetOneShot, FiresOnce) {
  Timer timer(kHour, true, [] {});
  ExpectSets([&] { return timer.SetOneShot(Milliseconds(2500)); }, timer.GetFd(), Milliseconds(2500));
  EXPECT_EQ(Interval(timer.GetFd()).count(), 0);
  EXPECT_FALSE(timer.SetOneShot(Milliseconds(-1)));
  EXPECT_TRUE(timer.SetOneShot(Milliseconds(0)));
  EXPECT_FALSE(IsRunning(timer.GetFd()));
}

TEST(TimerCancel, DoesNotStopARunningTimer) {
  for (const bool periodic : {false, true}) {
    Timer timer(kHour, periodic, [] {});
    timer.Cancel();
    timer.Cancel();
    EXPECT_TRUE(IsRunning(timer.GetFd()));
    EXPECT_EQ(Interval(timer.GetFd()), periodic ? kHour : Milliseconds(0));
  }
}

TEST(TimerCancel, DoesNotStopATimerArmedAfterARefusedStart) {
  Timer timer(Milliseconds(-1), false, [] {});
  ASSERT_TRUE(timer.SetPeriodic(kHour));
  timer.Cancel();
  EXPECT_TRUE(IsRunning(timer.GetFd()));
}

TEST(TimerOnEvent, CallsTheCallbackOnceForAllMissedPeriods) {
  int calls = 0;
  const auto start = std::chrono::steady_clock::now();
  Timer timer(Milliseconds(10), true, [&] { ++calls; });
  std::this_thread::sleep_until(start + Milliseconds(60));
  timer.OnEvent(timer.GetFd(), POLLIN);
  EXPECT_EQ(calls, 1);
}

TEST(TimerOnEvent, WithoutAnExpirationCallsNothing) {
  int calls = 0;
  Timer timer(kHour, true, [&] { ++calls; });
  timer.OnEvent(timer.GetFd(), POLLIN);
  EXPECT_EQ(calls, 0);
}

TEST(TimerOnEvent, OneExpirationIsReadOnce) {
  int calls = 0;
  Timer timer(Milliseconds(1), false, [&] { ++calls; });
  WaitUntilReadable(timer.GetFd());
  timer.OnEvent(timer.GetFd(), POLLIN);
  timer.OnEvent(timer.GetFd(), POLLIN);
  EXPECT_EQ(calls, 1);
}

TEST(TimerOnEvent, ReadsItsOwnDescriptorWhateverTheArgument) {
  const UniqueFd other = EventFd(1);
  int calls = 0;
  Timer idle(kHour, false, [&] { ++calls; });
  idle.OnEvent(other.Get(), POLLIN);
  EXPECT_EQ(calls, 0);
  Timer expired(Milliseconds(1), false, [&] { ++calls; });
  WaitUntilReadable(expired.GetFd());
  expired.OnEvent(other.Get(), 0);
  EXPECT_EQ(calls, 1);
  EXPECT_FALSE(test::IsReadable(expired.GetFd()));
  EXPECT_TRUE(test::IsReadable(other.Get()));
}

// Puts a pipe with the first `bytes` bytes of `count` in the place of the timerfd.
void ReplaceByPipe(Timer& timer, std::uint64_t count, std::size_t bytes) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const UniqueFd reading(ends[0]);
  const UniqueFd writing(ends[1]);
  ASSERT_EQ(::write(writing.Get(), &count, bytes), static_cast<ssize_t>(bytes));
  ASSERT_EQ(::dup2(reading.Get(), timer.GetFd()), timer.GetFd());
}

TEST(TimerOnEvent, ShortReadCallsNothing) {
  int calls = 0;
  Timer timer(kHour, false, [&] { ++calls; });
  ReplaceByPipe(timer, ~std::uint64_t{0}, 7);
  timer.OnEvent(timer.GetFd(), POLLIN);
  EXPECT_EQ(calls, 0);
}

TEST(TimerOnEvent, CountOfZeroCallsNothing) {
  int calls = 0;
  Timer timer(kHour, false, [&] { ++calls; });
  ReplaceByPipe(timer, 0, 8);
  timer.OnEvent(timer.GetFd(), POLLIN);
  EXPECT_FALSE(test::IsReadable(timer.GetFd()));
  EXPECT_EQ(calls, 0);
}

TEST(TimerOnEvent, EmptyCallbackOnlyTakesTheExpiration) {
  Timer timer(Milliseconds(1), false, std::function<void()>());
  WaitUntilReadable(timer.GetFd());
  timer.OnEvent(timer.GetFd(), POLLIN);
  EXPECT_FALSE(test::IsReadable(timer.GetFd()));
}

TEST(TimerOnEvent, CallbackKeepsItsStateFromCallToCall) {
  int last = 0;
  Timer timer(Milliseconds(1), true, [&last, calls = 0]() mutable { last = ++calls; });
  for (int expected = 1; expected <= 3; ++expected) {
    WaitUntilReadable(timer.GetFd());
    timer.OnEvent(timer.GetFd(), POLLIN);
    EXPECT_EQ(last, expected);
  }
}

TEST(TimerOnEvent, CallbackMayDestroyTheTimerAndGoOn) {
  std::unique_ptr<Timer> timer;
  std::string seen;
  timer = std::make_unique<Timer>(Milliseconds(1), false, [&, text = std::string("captured, and long enough")] {
    timer.reset();
    seen = text;
  });
  WaitUntilReadable(timer->GetFd());
  timer->OnEvent(timer->GetFd(), POLLIN);
  EXPECT_EQ(seen, "captured, and long enough");
}

TEST(TimerOnEvent, CallbackMayStartTheTimerAgain) {
  Timer* self = nullptr;
  Timer timer(Milliseconds(1), false, [&] { EXPECT_TRUE(self->SetOneShot(kHour)); });
  self = &timer;
  WaitUntilReadable(timer.GetFd());
  timer.OnEvent(timer.GetFd(), POLLIN);
  EXPECT_TRUE(IsRunning(timer.GetFd()));
}

TEST(TimerMove, ConstructionLeavesTheSourceWithoutDescriptor) {
  int calls = 0;
  Timer source(Milliseconds(1), false, [&] { ++calls; });
  const int fd = source.GetFd();
  Timer target(std::move(source));
  EXPECT_EQ(source.GetFd(), -1);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(target.GetFd(), fd);
  WaitUntilReadable(fd);
  target.OnEvent(fd, POLLIN);
  EXPECT_EQ(calls, 1);
}

TEST(TimerMove, AssignmentClosesWhatItReplaces) {
  int calls = 0;
  Timer source(Milliseconds(1), false, [&] { ++calls; });
  Timer target(kHour, true, [&] { calls += 100; });
  const int kept = source.GetFd();
  const int replaced = target.GetFd();
  target = std::move(source);
  EXPECT_EQ(source.GetFd(), -1);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(target.GetFd(), kept);
  EXPECT_FALSE(test::IsOpen(replaced));
  WaitUntilReadable(kept);
  target.OnEvent(kept, POLLIN);
  EXPECT_EQ(calls, 1);
}

TEST(TimerMove, AssignmentToItselfKeepsTheDescriptor) {
  Timer timer(kHour, false, [] {});
  const int fd = timer.GetFd();
  Timer& self = timer;
  timer = std::move(self);
  EXPECT_EQ(timer.GetFd(), fd);
  EXPECT_TRUE(IsRunning(fd));
}

TEST(EventLoopAddTimer, IdsCountUpFromOne) {
  EventLoop loop;
  EXPECT_EQ(loop.AddTimer(kHour, [] {}), 1U);
  EXPECT_EQ(loop.AddPeriodicTimer(kHour, [] {}), 2U);
  loop.RemoveTimer(2);
  EXPECT_EQ(loop.AddTimer(kHour, [] {}), 3U);
}

TEST(EventLoopAddTimer, RefusedTimersOpenNothingAndTakeNoId) {
  EventLoop loop;
  const std::size_t before = test::CountOpenFds();
  EXPECT_EQ(loop.AddTimer(Milliseconds(-1), [] {}), 0U);
  EXPECT_EQ(loop.AddPeriodicTimer(Milliseconds(-1), [] {}), 0U);
  EXPECT_EQ(loop.AddTimer(Milliseconds(std::numeric_limits<long long>::min()), [] {}), 0U);
  EXPECT_EQ(loop.AddTimer(kHour, std::function<void()>()), 0U);
  EXPECT_EQ(loop.AddPeriodicTimer(kHour, nullptr), 0U);
  EXPECT_EQ(test::CountOpenFds(), before);
  EXPECT_EQ(loop.AddTimer(kHour, [] {}), 1U);
}

TEST(EventLoopAddTimer, WithoutATimerfdTakesNoId) {
  {
    const Timer seenBefore(Milliseconds(1), false, [] {});
  }
  EventLoop loop;
  {
    const test::NoNewDescriptors limit;
    EXPECT_EQ(loop.AddTimer(kHour, [] {}), 0U);
    EXPECT_EQ(loop.AddPeriodicTimer(kHour, [] {}), 0U);
  }
  EXPECT_EQ(loop.AddTimer(kHour, [] {}), 1U);
}

// Exits with the number of the first claim that does not hold.
[[noreturn]] void AddTimerWithDescriptorZeroFree() {
  EventLoop loop;
  (void)::close(STDIN_FILENO);
  if (loop.AddTimer(kHour, [] {}) != 0) {
    std::_Exit(1);
  }
  if (test::IsOpen(STDIN_FILENO)) {
    std::_Exit(2);
  }
  if (::dup2(STDERR_FILENO, STDIN_FILENO) != STDIN_FILENO || loop.AddTimer(kHour, [] {}) != 1) {
    std::_Exit(3);
  }
  std::_Exit(0);
}

TEST(EventLoopAddTimerDeathTest, DescriptorZeroIsRefusedAndClosed) {
  EXPECT_EXIT(AddTimerWithDescriptorZeroFree(), testing::ExitedWithCode(0), "");
}

TEST(EventLoopAddTimer, StartsAOneShotTimer) {
  EventLoop loop;
  const int fd = test::NextFd();
  ExpectSets([&] { return loop.AddTimer(Milliseconds(60500), [] {}) == 1; }, fd, Milliseconds(60500));
  EXPECT_EQ(Interval(fd).count(), 0);
}

TEST(EventLoopAddPeriodicTimer, StartsAPeriodicTimer) {
  EventLoop loop;
  const int fd = test::NextFd();
  ExpectSets([&] { return loop.AddPeriodicTimer(Milliseconds(1000), [] {}) == 1; }, fd, Milliseconds(1000));
  EXPECT_EQ(SettingOf(fd).it_interval.tv_sec, 1);
  EXPECT_EQ(SettingOf(fd).it_interval.tv_nsec, 0);
}

TEST(EventLoopAddTimer, DurationOfZeroGivesAnIdAndNeverFires) {
  EventLoop loop;
  const int fd = test::NextFd();
  bool fired = false;
  EXPECT_EQ(loop.AddTimer(Milliseconds(0), [&] { fired = true; }), 1U);
  EXPECT_EQ(loop.AddPeriodicTimer(Milliseconds(0), [&] { fired = true; }), 2U);
  EXPECT_FALSE(IsRunning(fd));
  loop.AddTimer(Milliseconds(10), [&] { loop.Stop(); });
  loop.Run();
  EXPECT_FALSE(fired);
}

TEST(EventLoopAddTimer, RefusedStartStillGivesAnIdAndNeverFires) {
  EventLoop loop;
  const int fd = test::NextFd();
  EXPECT_EQ(loop.AddTimer(Milliseconds(kWrap / 2), [] {}), 1U);
  ASSERT_TRUE(test::IsOpen(fd));
  EXPECT_FALSE(IsRunning(fd));
  loop.RemoveTimer(1);
  EXPECT_FALSE(test::IsOpen(fd));
}

TEST(EventLoopAddTimer, OneShotTimerFiresOnceAndStaysUntilRemoved) {
  EventLoop loop;
  const int fd = test::NextFd();
  int calls = 0;
  const auto start = std::chrono::steady_clock::now();
  const unsigned id = loop.AddTimer(Milliseconds(100), [&] {
    ++calls;
    loop.AddTimer(Milliseconds(150), [&] { loop.Stop(); });
  });
  loop.Run();
  EXPECT_GE(std::chrono::steady_clock::now() - start, Milliseconds(250));
  EXPECT_EQ(calls, 1);
  EXPECT_TRUE(test::IsOpen(fd));
  loop.RemoveTimer(id);
  EXPECT_FALSE(test::IsOpen(fd));
}

TEST(EventLoopAddPeriodicTimer, FiresAgainAndAgain) {
  EventLoop loop;
  int calls = 0;
  const auto start = std::chrono::steady_clock::now();
  loop.AddPeriodicTimer(Milliseconds(20), [&] {
    if (++calls == 3) {
      loop.Stop();
    }
  });
  loop.Run();
  EXPECT_EQ(calls, 3);
  EXPECT_GE(std::chrono::steady_clock::now() - start, Milliseconds(60));
}

TEST(EventLoopAddPeriodicTimer, BlockedLoopFoldsThePeriodsIntoOneCall) {
  EventLoop loop;
  int calls = 0;
  loop.AddPeriodicTimer(Milliseconds(10), [&] {
    ++calls;
    loop.Stop();
  });
  loop.Defer([] { std::this_thread::sleep_for(Milliseconds(60)); });
  loop.Run();
  EXPECT_EQ(calls, 1);
}

TEST(EventLoopRemoveTimer, ZeroAndUnknownIdsChangeNothing) {
  EventLoop loop;
  const int fd = test::NextFd();
  ASSERT_EQ(loop.AddTimer(kHour, [] {}), 1U);
  loop.RemoveTimer(0);
  loop.RemoveTimer(2);
  EXPECT_TRUE(test::IsOpen(fd));
}

TEST(EventLoopRemoveTimer, SecondTimeDoesNotTouchTheNextTimerOnThatDescriptor) {
  EventLoop loop;
  const int fd = test::NextFd();
  const unsigned first = loop.AddTimer(kHour, [] {});
  loop.RemoveTimer(first);
  EXPECT_FALSE(test::IsOpen(fd));
  const unsigned second = loop.AddTimer(kHour, [] {});
  ASSERT_TRUE(test::IsOpen(fd));
  loop.RemoveTimer(first);
  EXPECT_TRUE(test::IsOpen(fd));
  loop.RemoveTimer(second);
  EXPECT_FALSE(test::IsOpen(fd));
}

TEST(EventLoopRemoveTimer, DestroysTheCallback) {
  EventLoop loop;
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> state = captured;
  const unsigned id = loop.AddTimer(kHour, [captured = std::move(captured)] { ++*captured; });
  EXPECT_FALSE(state.expired());
  loop.RemoveTimer(id);
  EXPECT_TRUE(state.expired());
}

TEST(EventLoopRemoveTimer, CallbackMayRemoveItsOwnTimerAndGoOn) {
  EventLoop loop;
  const int fd = test::NextFd();
  bool open = true;
  std::string seen;
  const unsigned id = loop.AddPeriodicTimer(Milliseconds(1), [&, text = std::string("captured, and long enough")] {
    loop.RemoveTimer(1);
    open = test::IsOpen(fd);
    seen = text;
    loop.Stop();
  });
  ASSERT_EQ(id, 1U);
  loop.Run();
  EXPECT_FALSE(open);
  EXPECT_EQ(seen, "captured, and long enough");
}

TEST(EventLoopRemoveHandler, ForgetsTheIdOfATimer) {
  EventLoop loop;
  const int fd = test::NextFd();
  const unsigned first = loop.AddTimer(kHour, [] {});
  loop.RemoveHandler(fd);
  EXPECT_FALSE(test::IsOpen(fd));
  const unsigned second = loop.AddTimer(kHour, [] {});
  ASSERT_TRUE(test::IsOpen(fd));
  loop.RemoveTimer(first);
  EXPECT_TRUE(test::IsOpen(fd));
  loop.RemoveTimer(second);
  EXPECT_FALSE(test::IsOpen(fd));
}

TEST(EventLoopAddHandler, DispatchesATimerThatTheProgramMade) {
  EventLoop loop;
  int calls = 0;
  auto timer = std::make_unique<Timer>(Milliseconds(1), false, [&] {
    ++calls;
    loop.Stop();
  });
  const int fd = timer->GetFd();
  loop.AddHandler(std::move(timer));
  loop.RemoveTimer(1);
  loop.Run();
  EXPECT_EQ(calls, 1);
  loop.RemoveHandler(fd);
  EXPECT_FALSE(test::IsOpen(fd));
}

}  // namespace
}  // namespace kiv::net
