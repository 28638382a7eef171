#include <gtest/gtest.h>
#include <kiv/net.h>
#include <sys/eventfd.h>
#include <sys/signalfd.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "interpose.h"
#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::CallLog;
using test::CallRecord;
using test::CountOpenFds;
using test::FailCall;
using test::Fault;
using test::GiveFromRead;
using test::IsBlocked;
using test::RunOnePass;
using test::SignalMaskRestorer;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

class Watch : public EventHandler {
 public:
  Watch(int fd, std::function<void()> onEvent) : mFd(fd), mOnEvent(std::move(onEvent)) {}
  void OnEvent(int /*fd*/, short /*revents*/) override { mOnEvent(); }
  int GetFd() override { return mFd; }

 private:
  int mFd;
  std::function<void()> mOnEvent;
};

// What a signalfd gives for one signal.
std::string RecordOf(int signo) {
  signalfd_siginfo record{};
  record.ssi_signo = static_cast<std::uint32_t>(signo);
  return {reinterpret_cast<const char*>(&record), sizeof record};
}

void WaitUntilReadable(int fd) {
  Poller poller;
  poller.Add(fd, POLLIN);
  ASSERT_EQ(poller.Wait(10000), 1);
}

TEST(EventLoopCreationDeathTest, AbortsWithoutAnEventfd) {
  const auto create = [] {
    const Fault fault = FailCall("eventfd", EMFILE);
    const EventLoop loop;
    ::_exit(0);
  };
  EXPECT_EXIT(create(), testing::KilledBySignal(SIGABRT), "");
}

TEST(EventLoopCreation, AsksForANonBlockingEventfdThatStartsAtZero) {
  const CallLog log;

  const EventLoop loop;

  ASSERT_EQ(log.Of("eventfd").size(), 1U);
  EXPECT_EQ(log.Of("eventfd")[0].args, (Args{0, EFD_NONBLOCK | EFD_CLOEXEC}));
}

TEST(EventLoopDestruction, ClosesTheWakeupDescriptorOnce) {
  const std::size_t before = CountOpenFds();
  auto loop = std::make_unique<EventLoop>();
  EXPECT_EQ(CountOpenFds(), before + 1);
  const CallLog log;

  loop.reset();

  EXPECT_EQ(log.Of("close").size(), 1U);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(BlockSignalsDeathTest, AbortsWhenTheMaskCannotBeChanged) {
  const auto block = [] {
    const Fault fault = FailCall("sigprocmask", EINVAL);
    EventLoop::BlockSignals({SIGUSR1});
    ::_exit(0);
  };
  EXPECT_EXIT(block(), testing::KilledBySignal(SIGABRT), "");
}

TEST(BlockSignals, AddsAllSignalsInOneCall) {
  const SignalMaskRestorer mask;
  const CallLog log;

  EventLoop::BlockSignals({SIGUSR1, SIGUSR2});

  ASSERT_EQ(log.Names(), Names{"sigprocmask"});
  EXPECT_EQ(log.Of("sigprocmask")[0].args, Args{SIG_BLOCK});
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_TRUE(IsBlocked(SIGUSR2));
}

TEST(Defer, WritesTheEightByteValueOne) {
  EventLoop loop;
  const CallLog log;

  loop.Defer([] {});

  ASSERT_EQ(log.Names(), Names{"write"});
  EXPECT_EQ(log.Of("write")[0].data.size(), 8U);
  EXPECT_EQ(test::Decode<std::uint64_t>(log.Of("write")[0].data), 1U);
}

TEST(Defer, EmptyFunctionWakesNobody) {
  EventLoop loop;
  const CallLog log;

  loop.Defer(nullptr);

  EXPECT_EQ(log.Names(), Names{});
}

TEST(Defer, FailingWakeupStillQueuesTheCall) {
  EventLoop loop;
  bool ran = false;
  {
    const Fault fault = FailCall("write", EAGAIN);
    loop.Defer([&] { ran = true; });
  }

  loop.ProcessDeferred();

  EXPECT_TRUE(ran);
}

TEST(ProcessWakeup, ReadsEightBytes) {
  EventLoop loop;
  const CallLog log;

  loop.ProcessWakeup();

  ASSERT_EQ(log.Names(), Names{"read"});
  EXPECT_EQ(log.Of("read")[0].args[1], 8);
}

TEST(Run, WaitsWithoutATimeLimit) {
  EventLoop loop;
  const CallLog log;

  RunOnePass(loop);

  ASSERT_EQ(log.Of("poll").size(), 1U);
  EXPECT_EQ(log.Of("poll")[0].args, (Args{1, -1}));
}

TEST(Run, StoppedBeforeItNeverWaits) {
  EventLoop loop;
  loop.Stop();
  const CallLog log;

  loop.Run();

  EXPECT_EQ(log.Names(), Names{});
}

TEST(Run, EndsAfterOneLastBatchWhenPollFails) {
  EventLoop loop;
  std::vector<int> ran;
  loop.Defer([&] {
    ran.push_back(1);
    loop.Defer([&] {
      ran.push_back(2);
      loop.Defer([&] { ran.push_back(3); });
    });
  });

  const Fault fault = FailCall("poll", EIO);
  loop.Run();

  EXPECT_EQ(ran, (std::vector<int>{1, 2}));
}

TEST(Run, DispatchesNothingWhenPollFails) {
  auto [ours, theirs] = test::SocketPair();
  EventLoop loop;
  int calls = 0;
  loop.AddHandler(std::make_unique<Watch>(ours.Get(), [&] { ++calls; }));
  loop.AddHandler(std::make_unique<Watch>(theirs.Get(), [] {}));
  ASSERT_EQ(::write(theirs.Get(), "x", 1), 1);
  RunOnePass(loop);
  ASSERT_EQ(calls, 1);

  const Fault fault = FailCall("poll", ENOMEM);
  loop.Run();

  EXPECT_EQ(calls, 1);
}

TEST(Run, MayBeCalledAgainAfterPollFailed) {
  EventLoop loop;
  {
    const Fault fault = FailCall("poll", EIO);
    loop.Run();
  }
  bool ran = false;

  loop.Defer([&] { ran = true; });
  RunOnePass(loop);

  EXPECT_TRUE(ran);
}

TEST(Run, DispatchesThePreviousResultsAgainAfterEintr) {
  auto [ours, theirs] = test::SocketPair();
  ASSERT_EQ(::write(theirs.Get(), "x", 1), 1);
  EventLoop loop;
  int calls = 0;
  loop.AddHandler(std::make_unique<Watch>(ours.Get(), [&, fd = ours.Get()] {
    char byte = 0;
    (void)::recv(fd, &byte, 1, MSG_DONTWAIT);
    if (++calls == 2) {
      loop.Stop();
    }
  }));
  (void)loop.AddTimer(std::chrono::seconds(10), [&] { loop.Stop(); });  // Ends a loop that lost the results.

  const Fault fault = FailCall("poll", EINTR, 2);
  const CallLog log;
  loop.Run();

  EXPECT_EQ(calls, 2);
  EXPECT_EQ(log.Of("poll").size(), 2U);
}

TEST(Run, GoesOnWhenTheWakeupCannotBeRead) {
  EventLoop loop;
  loop.Defer([&] { loop.Stop(); });

  const Fault fault = FailCall("read", EIO);
  loop.Run();

  bool ran = false;
  loop.Defer([&] { ran = true; });
  RunOnePass(loop);
  EXPECT_TRUE(ran);
}

TEST(AddTimer, FailedTimerfdReturnsZeroAndConsumesNoId) {
  EventLoop loop;
  const auto callback = std::make_shared<int>(0);
  const std::size_t before = CountOpenFds();
  {
    const Fault fault = FailCall("timerfd_create", EMFILE);
    const CallLog log;
    EXPECT_EQ(loop.AddTimer(std::chrono::seconds(1), [callback] {}), 0U);
    EXPECT_EQ(errno, EMFILE);
    EXPECT_EQ(log.Names(), Names{"timerfd_create"});
  }
  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_EQ(callback.use_count(), 1);

  EXPECT_EQ(loop.AddTimer(std::chrono::seconds(1), [] {}), 1U);
}

TEST(AddPeriodicTimer, FailedTimerfdReturnsZeroAndConsumesNoId) {
  EventLoop loop;
  {
    const Fault fault = FailCall("timerfd_create", ENFILE);
    EXPECT_EQ(loop.AddPeriodicTimer(std::chrono::seconds(1), [] {}), 0U);
    EXPECT_EQ(errno, ENFILE);
  }

  EXPECT_EQ(loop.AddPeriodicTimer(std::chrono::seconds(1), [] {}), 1U);
}

TEST(AddTimer, RefusedArgumentsMakeNoSystemCall) {
  EventLoop loop;
  const CallLog log;

  EXPECT_EQ(loop.AddTimer(std::chrono::milliseconds(-1), [] {}), 0U);
  EXPECT_EQ(loop.AddPeriodicTimer(std::chrono::seconds(1), nullptr), 0U);

  EXPECT_EQ(log.Names(), Names{});
}

TEST(AddTimer, DescriptorZeroIsRefusedAndClosed) {
  EventLoop loop;
  const UniqueFd saved(::dup(STDIN_FILENO));
  (void)::close(STDIN_FILENO);

  const unsigned id = loop.AddTimer(std::chrono::seconds(1), [] {});

  const bool open = test::IsOpen(STDIN_FILENO);
  (void)::dup2(saved.Get(), STDIN_FILENO);
  EXPECT_EQ(id, 0U);
  EXPECT_FALSE(open);
  EXPECT_EQ(loop.AddTimer(std::chrono::seconds(1), [] {}), 1U);
}

TEST(AddTimer, FailedArmingStillRegistersATimerThatNeverFires) {
  EventLoop loop;
  const std::size_t before = CountOpenFds();
  int fd = -1;
  {
    const CallLog log;
    const Fault fault = FailCall("timerfd_settime", EINVAL);
    EXPECT_EQ(loop.AddTimer(std::chrono::milliseconds(1), [] { ADD_FAILURE() << "fired"; }), 1U);
    fd = static_cast<int>(log.Of("timerfd_settime").at(0).args[0]);
  }
  itimerspec left{};
  ASSERT_EQ(::timerfd_gettime(fd, &left), 0);
  EXPECT_EQ(left.it_value.tv_sec + left.it_value.tv_nsec, 0);

  const CallLog log;
  RunOnePass(loop);
  EXPECT_EQ(log.Of("poll").at(0).args[0], 2);
  loop.RemoveTimer(1);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(TimerCreation, FailedTimerfdIsNotArmed) {
  const CallLog log;
  const Fault fault = FailCall("timerfd_create", EMFILE);

  Timer timer(std::chrono::seconds(1), false, [] {});

  EXPECT_EQ(timer.GetFd(), -1);
  EXPECT_EQ(log.Of("timerfd_settime").size(), 0U);
}

TEST(TimerCreation, AsksForAMonotonicNonBlockingTimer) {
  const CallLog log;

  const Timer timer(std::chrono::seconds(1), false, [] {});

  ASSERT_EQ(log.Names(), (Names{"timerfd_create", "timerfd_settime"}));
  EXPECT_EQ(log.Of("timerfd_create")[0].args, (Args{CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC}));
}

itimerspec SettingOf(Milliseconds duration, bool periodic) {
  const CallLog log;
  const Timer timer(duration, periodic, [] {});
  const CallRecord call = log.Of("timerfd_settime").at(0);
  EXPECT_EQ(call.args[1], 0) << "relative time";
  return test::Decode<itimerspec>(call.data);
}

TEST(SetTimer, PeriodicSettingRepeatsSecondsAndNanoseconds) {
  const itimerspec setting = SettingOf(std::chrono::milliseconds(1500), true);

  EXPECT_EQ(setting.it_value.tv_sec, 1);
  EXPECT_EQ(setting.it_value.tv_nsec, 500000000);
  EXPECT_EQ(setting.it_interval.tv_sec, 1);
  EXPECT_EQ(setting.it_interval.tv_nsec, 500000000);
}

TEST(SetTimer, OneShotSettingHasNoInterval) {
  const itimerspec setting = SettingOf(std::chrono::milliseconds(999), false);

  EXPECT_EQ(setting.it_value.tv_sec, 0);
  EXPECT_EQ(setting.it_value.tv_nsec, 999000000);
  EXPECT_EQ(setting.it_interval.tv_sec, 0);
  EXPECT_EQ(setting.it_interval.tv_nsec, 0);
}

TEST(SetTimer, SecondsCountModuloTwoToThe32) {
  const itimerspec setting = SettingOf(Milliseconds(((1LL << 32) + 7) * 1000 + 250), false);

  EXPECT_EQ(setting.it_value.tv_sec, 7);
  EXPECT_EQ(setting.it_value.tv_nsec, 250000000);
}

TEST(SetTimer, ReportsWhatTheKernelRefuses) {
  Timer timer(std::chrono::seconds(1), false, [] {});
  {
    const Fault fault = FailCall("timerfd_settime", EINVAL);
    EXPECT_FALSE(timer.SetTimer(std::chrono::seconds(1), true));
    EXPECT_EQ(errno, EINVAL);
  }
  {
    const Fault fault = FailCall("timerfd_settime", EPERM);
    EXPECT_FALSE(timer.SetPeriodic(std::chrono::seconds(1)));
  }
  {
    const Fault fault = FailCall("timerfd_settime", EPERM);
    EXPECT_FALSE(timer.SetOneShot(std::chrono::seconds(1)));
  }

  EXPECT_TRUE(timer.SetTimer(std::chrono::seconds(1), true));
}

// A failed read, a short one, and a whole one that leaves the expiration count at 0.
TEST(TimerOnEvent, CallsNothingWithoutAnExpirationCount) {
  int calls = 0;
  Timer timer(std::chrono::milliseconds(1), false, [&] { ++calls; });
  WaitUntilReadable(timer.GetFd());
  {
    const Fault failed = FailCall("read", EAGAIN);
    timer.OnEvent(timer.GetFd(), POLLIN);
  }
  {
    const Fault shortRead = GiveFromRead(std::string(7, '\1'));
    timer.OnEvent(timer.GetFd(), POLLIN);
  }
  {
    const Fault zero = GiveFromRead(std::string(8, '\0'));
    timer.OnEvent(timer.GetFd(), POLLIN);
  }
  EXPECT_EQ(calls, 0);

  timer.OnEvent(timer.GetFd(), POLLIN);

  EXPECT_EQ(calls, 1);
}

TEST(TimerOnEvent, ReadsItsOwnDescriptor) {
  Timer timer(std::chrono::seconds(10), false, [] {});
  const CallLog log;

  timer.OnEvent(-1, POLLIN);

  EXPECT_EQ(log.Of("read").at(0).args, (Args{timer.GetFd(), 8}));
}

TEST(AddSignal, FailedSignalfdLeavesRoomForALaterCall) {
  const SignalMaskRestorer mask;
  EventLoop::BlockSignals({SIGUSR1});
  EventLoop loop;
  const std::size_t before = CountOpenFds();
  const auto dropped = std::make_shared<int>(0);
  {
    const Fault fault = FailCall("signalfd", EMFILE);
    loop.AddSignal(SIGUSR1, [dropped](int) {});
    EXPECT_EQ(errno, EMFILE);
  }
  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_EQ(dropped.use_count(), 1);
  int got = 0;

  loop.AddSignal(SIGUSR1, [&](int signo) {
    got = signo;
    loop.Stop();
  });
  ASSERT_EQ(::raise(SIGUSR1), 0);
  loop.Run();

  EXPECT_EQ(got, SIGUSR1);
}

TEST(AddSignal, MakesOneBlockingDescriptorForTheOneSignal) {
  EventLoop loop;
  const CallLog log;

  loop.AddSignal(SIGUSR1, [](int) {});
  loop.AddSignal(SIGUSR1, [](int) {});

  ASSERT_EQ(log.Names(), Names{"signalfd"});
  const CallRecord call = log.Of("signalfd")[0];
  EXPECT_EQ(call.args, (Args{-1, SFD_CLOEXEC}));
  const auto set = test::Decode<sigset_t>(call.data);
  EXPECT_EQ(sigismember(&set, SIGUSR1), 1);
  EXPECT_EQ(sigismember(&set, SIGUSR2), 0);
}

TEST(RemoveSignal, LeavesTheMaskAlone) {
  EventLoop loop;
  loop.AddSignal(SIGUSR1, [](int) {});
  const CallLog log;

  loop.RemoveSignal(SIGUSR1);

  EXPECT_EQ(log.Names(), Names{"close"});
}

// A failed read, a short one, and a whole record of another signal.
TEST(SignalHandlerOnEvent, CallsNothingWithoutARecordOfItsSignal) {
  const SignalMaskRestorer mask;
  EventLoop::BlockSignals({SIGUSR1});
  int calls = 0;
  SignalHandler handler(SIGUSR1, [&](int) { ++calls; });
  ASSERT_EQ(::raise(SIGUSR1), 0);
  {
    const Fault failed = FailCall("read", EINTR);
    handler.OnEvent(handler.GetFd(), POLLIN);
  }
  {
    const Fault shortRead = GiveFromRead(RecordOf(SIGUSR1).substr(0, 127));
    handler.OnEvent(handler.GetFd(), POLLIN);
  }
  {
    const Fault other = GiveFromRead(RecordOf(SIGUSR2));
    handler.OnEvent(handler.GetFd(), POLLIN);
  }
  EXPECT_EQ(calls, 0);

  const CallLog log;
  handler.OnEvent(-1, POLLIN);

  EXPECT_EQ(calls, 1);
  EXPECT_EQ(log.Of("read").at(0).args, (Args{handler.GetFd(), 128}));
}

TEST(SignalHandlerCreation, FailedSignalfdLeavesItWithoutADescriptor) {
  const Fault fault = FailCall("signalfd", ENFILE);

  SignalHandler handler(SIGUSR1, [](int) {});

  EXPECT_EQ(handler.GetFd(), -1);
}

TEST(PollerWait, PassesOnWhatPollReports) {
  auto [ours, theirs] = test::SocketPair();
  Poller poller;
  poller.Add(ours.Get(), POLLIN);
  const CallLog log;
  for (const int error : {EINTR, ENOMEM}) {
    const Fault fault = FailCall("poll", error);
    EXPECT_EQ(poller.Wait(250), -1);
    EXPECT_EQ(errno, error);
  }

  ASSERT_EQ(log.Of("poll").size(), 2U) << "EINTR is not retried";
  EXPECT_EQ(log.Of("poll")[0].args, (Args{1, 250}));
}

TEST(PollerWait, EmptySetDoesNotCallPoll) {
  Poller poller;
  const CallLog log;

  EXPECT_EQ(poller.Wait(-1), 0);

  EXPECT_EQ(log.Names(), Names{});
}

TEST(SignalWatcherCreation, FailedMaskLeavesItInert) {
  const SignalMaskRestorer mask;
  Poller poller;
  const auto dropped = std::make_shared<int>(0);
  const std::size_t before = CountOpenFds();
  const CallLog log;
  {
    const Fault fault = FailCall("sigprocmask", EINVAL);
    SignalWatcher watcher(poller, SIGUSR1, [dropped](int) {});
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(dropped.use_count(), 1);
    EXPECT_EQ(CountOpenFds(), before);
    EXPECT_EQ(watcher.ReadSignal(), -1);
    EXPECT_TRUE(watcher.Handle());
    EXPECT_EQ(poller.Wait(0), 0);
  }

  EXPECT_EQ(log.Names(), Names{"sigprocmask"}) << "no signalfd, no poll, and no mask put back";
}

TEST(SignalWatcherCreation, FailedSignalfdPutsTheMaskBack) {
  const SignalMaskRestorer mask;
  Poller poller;
  const auto dropped = std::make_shared<int>(0);
  const std::size_t before = CountOpenFds();
  const CallLog log;
  {
    const Fault fault = FailCall("signalfd", EMFILE);
    SignalWatcher watcher(poller, SIGUSR1, [dropped](int) {});
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(IsBlocked(SIGUSR1));
    EXPECT_EQ(dropped.use_count(), 1);
    EXPECT_EQ(CountOpenFds(), before);
    EXPECT_EQ(watcher.ReadSignal(), -1);
    EXPECT_TRUE(watcher.Handle());
    EXPECT_EQ(poller.Wait(0), 0);
  }

  ASSERT_EQ(log.Names(), (Names{"sigprocmask", "signalfd", "sigprocmask"})) << "the destructor changes nothing";
  EXPECT_EQ(log.Of("sigprocmask")[0].args, Args{SIG_BLOCK});
  EXPECT_EQ(log.Of("sigprocmask")[1].args, Args{SIG_SETMASK});
}

TEST(SignalWatcherCreation, BlocksBeforeItMakesABlockingDescriptor) {
  const SignalMaskRestorer mask;
  Poller poller;
  const CallLog log;
  {
    const SignalWatcher watcher(poller, SIGUSR1);
    EXPECT_EQ(log.Names(), (Names{"sigprocmask", "signalfd"}));
  }

  EXPECT_EQ(log.Of("signalfd").at(0).args, (Args{-1, SFD_CLOEXEC}));
  EXPECT_EQ(log.Names(), (Names{"sigprocmask", "signalfd", "sigprocmask", "close"}));
}

TEST(SignalWatcherDestruction, ReleasesTheRestWhenTheMaskCannotBePutBack) {
  const SignalMaskRestorer mask;
  Poller poller;
  const std::size_t before = CountOpenFds();
  auto watcher = std::make_unique<SignalWatcher>(poller, SIGUSR1);
  EXPECT_EQ(CountOpenFds(), before + 1);

  const Fault fault = FailCall("sigprocmask", EINVAL);
  watcher.reset();

  EXPECT_EQ(CountOpenFds(), before);
  const CallLog log;
  EXPECT_EQ(poller.Wait(0), 0);
  EXPECT_EQ(log.Of("poll").size(), 0U) << "an entry stayed in the poller";
}

TEST(SignalWatcherHandle, CallsNothingWhenTheReadFailsOrIsShort) {
  const SignalMaskRestorer mask;
  Poller poller;
  int calls = 0;
  SignalWatcher watcher(poller, SIGUSR1, [&](int) { ++calls; });
  ASSERT_EQ(::raise(SIGUSR1), 0);
  {
    const Fault failed = FailCall("read", EINTR);
    EXPECT_TRUE(watcher.Handle());
  }
  {
    const Fault shortRead = GiveFromRead(RecordOf(SIGUSR1).substr(0, 127));
    EXPECT_EQ(watcher.ReadSignal(), -1);
  }
  EXPECT_EQ(calls, 0);

  EXPECT_TRUE(watcher.Handle());

  EXPECT_EQ(calls, 1);
}

}  // namespace
}  // namespace kiv::net
