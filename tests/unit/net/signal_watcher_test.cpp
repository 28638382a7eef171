#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <array>
#include <csignal>
#include <cstddef>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::Block;
using test::IsBlocked;
using test::IsPending;

using Signals = std::vector<int>;

// A signal that is still pending when a watcher unblocks it must not end the tests.
class HarmlessSignals {
 public:
  HarmlessSignals() {
    struct sigaction nothing = {};
    nothing.sa_handler = [](int) {};
    for (std::size_t i = 0; i < mSaved.size(); ++i) {
      (void)::sigaction(mSignals.at(i), &nothing, &mSaved.at(i));
    }
  }
  HarmlessSignals(const HarmlessSignals&) = delete;
  HarmlessSignals& operator=(const HarmlessSignals&) = delete;
  ~HarmlessSignals() {
    for (std::size_t i = 0; i < mSaved.size(); ++i) {
      (void)::sigaction(mSignals.at(i), &mSaved.at(i), nullptr);
    }
  }

 private:
  const std::array<int, 3> mSignals{SIGUSR1, SIGUSR2, SIGRTMIN};
  std::array<struct sigaction, 3> mSaved{};
};

class WatcherTest : public testing::Test {
 protected:
  std::function<void(int)> Note(int offset = 0) {
    return [this, offset](int signo) { mCalled.push_back(offset + signo); };
  }

  HarmlessSignals mHarmless;
  test::SignalMaskRestorer mRestorer;
  Poller mPoller;
  Signals mCalled;
};

using SignalWatcherConstruction = WatcherTest;
using SignalWatcherDestruction = WatcherTest;
using SignalWatcherReadSignal = WatcherTest;
using SignalWatcherHandle = WatcherTest;
using SignalWatcherSwap = WatcherTest;
using SignalWatcherMove = WatcherTest;

TEST_F(SignalWatcherConstruction, OpensABlockingCloseOnExecSignalfd) {
  const int fd = test::NextFd();
  const std::size_t before = test::CountOpenFds();
  const SignalWatcher watcher(mPoller, SIGUSR1);
  EXPECT_EQ(test::CountOpenFds(), before + 1);
  EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(::fcntl(fd, F_GETFL) & O_NONBLOCK, 0);
}

TEST_F(SignalWatcherConstruction, BlocksItsSignalBesidesTheOthers) {
  Block(SIGHUP);
  const SignalWatcher watcher(mPoller, SIGUSR1);
  EXPECT_TRUE(IsBlocked(SIGHUP));
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_FALSE(IsBlocked(SIGUSR2));
}

TEST_F(SignalWatcherConstruction, WatchesItsSignalOnlyForInput) {
  const int fd = test::NextFd();
  const SignalWatcher watcher(mPoller, SIGUSR1);
  Block(SIGUSR2);
  ASSERT_EQ(::raise(SIGUSR2), 0);
  EXPECT_EQ(mPoller.Wait(0), 0);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(mPoller.Wait(-1), 1);
  EXPECT_TRUE(mPoller.IsReady(fd, POLLIN));
}

TEST_F(SignalWatcherConstruction, WithoutASignalfdTheMaskIsPutBack) {
  Block(SIGHUP);
  const test::NoNewDescriptors limit;
  const SignalWatcher watcher(mPoller, SIGUSR1, Note());
  EXPECT_FALSE(IsBlocked(SIGUSR1));
  EXPECT_TRUE(IsBlocked(SIGHUP));
}

TEST_F(SignalWatcherConstruction, WithoutASignalfdTheCallbackIsDropped) {
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> state = captured;
  const test::NoNewDescriptors limit;
  const SignalWatcher watcher(mPoller, SIGUSR1, [captured = std::move(captured)](int) { ++*captured; });
  EXPECT_TRUE(state.expired());
}

TEST_F(SignalWatcherConstruction, WithoutASignalfdTheWatcherIsInert) {
  std::optional<test::NoNewDescriptors> limit(std::in_place);
  std::optional<SignalWatcher> watcher(std::in_place, mPoller, SIGUSR1, Note());
  limit.reset();
  EXPECT_EQ(watcher->ReadSignal(), -1);
  EXPECT_TRUE(watcher->Handle());
  Block(SIGUSR2);
  watcher.reset();
  EXPECT_TRUE(IsBlocked(SIGUSR2));
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(SignalWatcherDestruction, LeavesThePollerAndClosesTheSignalfd) {
  const std::size_t before = test::CountOpenFds();
  { const SignalWatcher watcher(mPoller, SIGUSR1); }
  EXPECT_EQ(mPoller.Wait(0), 0);  // A closed descriptor left in the set would be reported.
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(SignalWatcherDestruction, UnblocksTheSignal) {
  { const SignalWatcher watcher(mPoller, SIGUSR1); }
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

TEST_F(SignalWatcherDestruction, LeavesASignalBlockedThatWasBlockedBefore) {
  Block(SIGUSR1);
  { const SignalWatcher watcher(mPoller, SIGUSR1); }
  EXPECT_TRUE(IsBlocked(SIGUSR1));
}

TEST_F(SignalWatcherDestruction, RestoresTheWholeMaskNotOnlyItsSignal) {
  {
    const SignalWatcher watcher(mPoller, SIGUSR1);
    Block(SIGUSR2);
  }
  EXPECT_FALSE(IsBlocked(SIGUSR2));
}

TEST_F(SignalWatcherDestruction, InReverseOrderRestoresTheFirstMask) {
  std::optional<SignalWatcher> a(std::in_place, mPoller, SIGUSR1);
  std::optional<SignalWatcher> b(std::in_place, mPoller, SIGUSR2);
  b.reset();
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_FALSE(IsBlocked(SIGUSR2));
  a.reset();
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

TEST_F(SignalWatcherDestruction, InTheSameOrderLeavesTheMaskThatTheSecondFound) {
  std::optional<SignalWatcher> a(std::in_place, mPoller, SIGUSR1);
  std::optional<SignalWatcher> b(std::in_place, mPoller, SIGUSR2);
  a.reset();
  EXPECT_FALSE(IsBlocked(SIGUSR1));
  EXPECT_FALSE(IsBlocked(SIGUSR2));
  b.reset();
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_FALSE(IsBlocked(SIGUSR2));
}

// Runs a function when the callback that captures it is destroyed.
class AtDestruction {
 public:
  explicit AtDestruction(std::function<void()> call) : mCall(std::move(call)) {}
  AtDestruction(const AtDestruction&) = delete;
  AtDestruction& operator=(const AtDestruction&) = delete;
  ~AtDestruction() { mCall(); }

 private:
  std::function<void()> mCall;
};

TEST_F(SignalWatcherDestruction, DestroysTheCallbackAfterTheMaskAndBeforeTheDescriptor) {
  const int fd = test::NextFd();
  bool blocked = true;
  bool open = false;
  bool watched = true;
  auto captured = std::make_shared<AtDestruction>([&] {
    blocked = IsBlocked(SIGUSR1);
    open = test::IsOpen(fd);
    watched = mPoller.Wait(0) != 0 || mPoller.IsReady(fd, POLLIN);
  });
  {
    const SignalWatcher watcher(mPoller, SIGUSR1, [captured = std::move(captured)](int) { (void)captured; });
  }
  EXPECT_FALSE(blocked);
  EXPECT_TRUE(open);
  EXPECT_FALSE(watched);
}

TEST_F(SignalWatcherReadSignal, ReturnsTheSignalAndTakesIt) {
  SignalWatcher watcher(mPoller, SIGUSR1);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  ASSERT_EQ(mPoller.Wait(-1), 1);
  EXPECT_EQ(watcher.ReadSignal(), SIGUSR1);
  EXPECT_FALSE(IsPending(SIGUSR1));
  EXPECT_EQ(mPoller.Wait(0), 0);
}

TEST_F(SignalWatcherReadSignal, ReadsOneRecordAtATimeAndCallsNothing) {
  SignalWatcher watcher(mPoller, SIGRTMIN, Note());
  ASSERT_EQ(::raise(SIGRTMIN), 0);
  ASSERT_EQ(::raise(SIGRTMIN), 0);
  EXPECT_EQ(watcher.ReadSignal(), SIGRTMIN);
  EXPECT_EQ(mPoller.Wait(0), 1);
  EXPECT_EQ(watcher.ReadSignal(), SIGRTMIN);
  EXPECT_EQ(mPoller.Wait(0), 0);
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(SignalWatcherReadSignal, ShortAndFailedReadsGiveMinusOne) {
  const int fd = test::NextFd();
  SignalWatcher watcher(mPoller, SIGUSR1, Note());
  ASSERT_EQ(::dup2(test::EventFd(1).Get(), fd), fd);
  EXPECT_EQ(watcher.ReadSignal(), -1);
  EXPECT_FALSE(test::IsReadable(fd));
  EXPECT_EQ(watcher.ReadSignal(), -1);
  EXPECT_TRUE(watcher.Handle());
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(SignalWatcherReadSignal, ReturnsTheNumberOfTheRecord) {
  const int fd = test::NextFd();
  SignalWatcher watcher(mPoller, SIGUSR1);
  Block(SIGUSR2);
  sigset_t set;
  sigemptyset(&set);
  sigaddset(&set, SIGUSR2);
  const UniqueFd other(::signalfd(-1, &set, SFD_CLOEXEC));
  ASSERT_EQ(::dup2(other.Get(), fd), fd);
  ASSERT_EQ(::raise(SIGUSR2), 0);
  EXPECT_EQ(watcher.ReadSignal(), SIGUSR2);
}

TEST_F(SignalWatcherHandle, CallsTheCallbackWithASignalSentToTheProcess) {
  const int fd = test::NextFd();
  SignalWatcher watcher(mPoller, SIGUSR1, Note());
  ASSERT_EQ(::kill(::getpid(), SIGUSR1), 0);
  ASSERT_EQ(mPoller.Wait(-1), 1);
  EXPECT_TRUE(mPoller.IsReady(fd, POLLIN));
  EXPECT_TRUE(watcher.Handle());
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
  EXPECT_EQ(mPoller.Wait(0), 0);
}

TEST_F(SignalWatcherHandle, ReadsOneRecordAtATime) {
  SignalWatcher watcher(mPoller, SIGRTMIN, Note());
  ASSERT_EQ(::raise(SIGRTMIN), 0);
  ASSERT_EQ(::raise(SIGRTMIN), 0);
  EXPECT_TRUE(watcher.Handle());
  EXPECT_EQ(mCalled, (Signals{SIGRTMIN}));
  EXPECT_TRUE(watcher.Handle());
  EXPECT_EQ(mCalled, (Signals{SIGRTMIN, SIGRTMIN}));
}

TEST_F(SignalWatcherHandle, WithoutACallbackOnlyTakesTheSignal) {
  SignalWatcher plain(mPoller, SIGUSR1);
  SignalWatcher empty(mPoller, SIGUSR2, std::function<void(int)>());
  ASSERT_EQ(::raise(SIGUSR1), 0);
  ASSERT_EQ(::raise(SIGUSR2), 0);
  EXPECT_TRUE(plain.Handle());
  EXPECT_TRUE(empty.Handle());
  EXPECT_FALSE(IsPending(SIGUSR1));
  EXPECT_FALSE(IsPending(SIGUSR2));
}

TEST_F(SignalWatcherHandle, CallbackMayDestroyTheWatcherAndGoOn) {
  std::string seen;
  std::unique_ptr<SignalWatcher> watcher;
  const auto callback = [&, text = std::string("captured, and long enough")](int) {
    watcher.reset();
    seen = text;
  };
  watcher = std::make_unique<SignalWatcher>(mPoller, SIGUSR1, callback);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_TRUE(watcher->Handle());
  EXPECT_EQ(seen, "captured, and long enough");
}

TEST_F(SignalWatcherSwap, ExchangesTheSignalsButNotTheCallbacks) {
  SignalWatcher first(mPoller, SIGUSR1, Note(1000));
  SignalWatcher second(mPoller, SIGUSR2, Note(2000));
  first.Swap(second);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  ASSERT_EQ(::raise(SIGUSR2), 0);
  EXPECT_TRUE(first.Handle());
  EXPECT_TRUE(second.Handle());
  EXPECT_EQ(mCalled, (Signals{1000 + SIGUSR2, 2000 + SIGUSR1}));
}

TEST_F(SignalWatcherSwap, ExchangesThePollersAndTheSavedMasks) {
  Poller other;
  std::optional<SignalWatcher> first(std::in_place, mPoller, SIGUSR1);
  std::optional<SignalWatcher> second(std::in_place, other, SIGUSR2);
  first->Swap(*second);
  first.reset();
  EXPECT_EQ(other.Wait(0), 0);
  EXPECT_EQ(mPoller.Wait(0), 0);
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_FALSE(IsBlocked(SIGUSR2));
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(mPoller.Wait(0), 1);
  EXPECT_EQ(second->ReadSignal(), SIGUSR1);
  second.reset();
  EXPECT_EQ(mPoller.Wait(0), 0);
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

TEST_F(SignalWatcherMove, ConstructionTakesTheSignalAndLeavesTheCallback) {
  SignalWatcher source(mPoller, SIGUSR1, Note());
  SignalWatcher target(std::move(source));
  ASSERT_EQ(::raise(SIGUSR1), 0);
  ASSERT_EQ(mPoller.Wait(-1), 1);
  EXPECT_TRUE(target.Handle());
  EXPECT_FALSE(IsPending(SIGUSR1));
  EXPECT_TRUE(mCalled.empty());
  source.Swap(target);  // NOLINT(bugprone-use-after-move)
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_TRUE(source.Handle());
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
}

TEST_F(SignalWatcherMove, ConstructionLeavesAnInertSource) {
  const int fd = test::NextFd();
  std::optional<SignalWatcher> source(std::in_place, mPoller, SIGUSR1, Note());
  SignalWatcher target(std::move(*source));
  EXPECT_EQ(source->ReadSignal(), -1);
  EXPECT_TRUE(source->Handle());
  source.reset();
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_TRUE(test::IsOpen(fd));
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(mPoller.Wait(0), 1);
  EXPECT_EQ(target.ReadSignal(), SIGUSR1);
}

TEST_F(SignalWatcherMove, AssignmentLeavesThePollerAtOnce) {
  Poller other;
  SignalWatcher target(mPoller, SIGUSR1, Note());
  SignalWatcher source(other, SIGUSR2);
  target = std::move(source);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(mPoller.Wait(0), 0);
  ASSERT_EQ(::raise(SIGUSR2), 0);
  EXPECT_EQ(other.Wait(0), 1);
  EXPECT_TRUE(target.Handle());
  EXPECT_EQ(mCalled, (Signals{SIGUSR2}));
}

TEST_F(SignalWatcherMove, AssignmentLeavesTheOldStateToTheSource) {
  const int fd = test::NextFd();
  SignalWatcher target(mPoller, SIGUSR1);
  std::optional<SignalWatcher> source(std::in_place, mPoller, SIGUSR2, Note());
  target = std::move(*source);
  EXPECT_TRUE(test::IsOpen(fd));
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_TRUE(source->Handle());
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
  source.reset();
  EXPECT_FALSE(test::IsOpen(fd));
  EXPECT_FALSE(IsBlocked(SIGUSR1));
}

TEST_F(SignalWatcherMove, AssignmentToAnInertWatcherTakesTheSignal) {
  SignalWatcher first(mPoller, SIGUSR1);
  SignalWatcher second(std::move(first));
  first = std::move(second);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(mPoller.Wait(0), 1);
  EXPECT_EQ(first.ReadSignal(), SIGUSR1);
  EXPECT_EQ(second.ReadSignal(), -1);  // NOLINT(bugprone-use-after-move)
}

TEST_F(SignalWatcherMove, AssignmentToItselfChangesNothing) {
  SignalWatcher watcher(mPoller, SIGUSR1, Note());
  SignalWatcher& self = watcher;
  watcher = std::move(self);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_EQ(mPoller.Wait(0), 1);
  EXPECT_TRUE(watcher.Handle());
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
}

}  // namespace
}  // namespace kiv::net
