#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/time.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <cerrno>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::EventFd;
using test::RunOnePass;

std::uint64_t CountOf(int eventFd) {
  eventfd_t count = 0;
  return ::eventfd_read(eventFd, &count) == 0 ? count : 0;
}

class Handler : public EventHandler {
 public:
  using Call = std::function<void(int, short)>;

  explicit Handler(int fd, Call call = {}, short events = POLLIN) : mFd(fd), mCall(std::move(call)), mEvents(events) {}
  ~Handler() override {
    if (mAtDestruction) {
      mAtDestruction();
    }
  }

  void OnEvent(int fd, short revents) override {
    const Call running = mCall;  // May destroy this handler.
    if (running) {
      running(fd, revents);
    }
  }
  int GetFd() override {
    ++mFdReads;
    return mFd;
  }
  short GetEvents() override { return mEvents; }

  void SetEvents(short events) { mEvents = events; }
  void AtDestruction(std::function<void()> call) { mAtDestruction = std::move(call); }
  int FdReads() const { return mFdReads; }

 private:
  int mFd;
  Call mCall;
  short mEvents;
  int mFdReads = 0;
  std::function<void()> mAtDestruction;
};

// A loop with handlers on readable descriptors; each notes its index when it is called.
class EventLoopPass : public testing::Test {
 protected:
  using Indexes = std::vector<std::size_t>;

  void Add(
      std::size_t index, const std::function<void()>& call = [] {}) {
    auto handler = std::make_unique<Handler>(Fd(index), [this, index, call](int, short) {
      mCalled.push_back(index);
      call();
    });
    handler->AtDestruction([this, index] { mDestroyed.push_back(index); });
    mLoop.AddHandler(std::move(handler));
  }

  int Fd(std::size_t index) const { return mFds.at(index).Get(); }

  std::array<UniqueFd, 6> mFds{EventFd(1), EventFd(1), EventFd(1), EventFd(1), EventFd(1), EventFd(1)};
  Indexes mCalled;
  Indexes mDestroyed;
  EventLoop mLoop;
};

TEST(EventHandlerGetEvents, DefaultsToInputErrorAndHangUp) {
  class Default : public EventHandler {
    void OnEvent(int, short) override {}
    int GetFd() override { return -1; }
  };
  Default handler;
  EventHandler& base = handler;
  EXPECT_EQ(base.GetEvents(), POLLIN | POLLERR | POLLHUP);
}

static_assert(!std::is_copy_constructible_v<EventLoop> && !std::is_move_constructible_v<EventLoop>);
static_assert(!std::is_copy_assignable_v<EventLoop> && !std::is_move_assignable_v<EventLoop>);
static_assert(std::has_virtual_destructor_v<EventHandler> && std::is_abstract_v<EventHandler>);
static_assert(!std::is_copy_constructible_v<Timer> && std::is_nothrow_move_constructible_v<Timer>);
static_assert(!std::is_copy_constructible_v<SignalHandler> && std::is_nothrow_move_constructible_v<SignalHandler>);
static_assert(!std::is_copy_constructible_v<SignalWatcher> && std::is_nothrow_move_constructible_v<SignalWatcher>);
static_assert(std::is_copy_constructible_v<Poller> && !std::is_polymorphic_v<HttpClient>);

TEST(EventLoopConstruction, OpensOneNonBlockingCloseOnExecEventfdAtZero) {
  const int wakeup = test::NextFd();
  const std::size_t before = test::CountOpenFds();
  const EventLoop loop;
  EXPECT_EQ(test::CountOpenFds(), before + 1);
  EXPECT_EQ(::fcntl(wakeup, F_GETFD), FD_CLOEXEC);
  EXPECT_TRUE((::fcntl(wakeup, F_GETFL) & O_NONBLOCK) != 0);
  EXPECT_FALSE(test::IsReadable(wakeup));
  EXPECT_EQ(::eventfd_write(wakeup, 1), 0);
  EXPECT_EQ(CountOf(wakeup), 1U);
}

TEST(EventLoopConstructionDeathTest, AbortsWithoutAnEventfd) {
  EXPECT_EXIT(
      {
        const test::NoNewDescriptors limit;
        const EventLoop loop;
      },
      testing::KilledBySignal(SIGABRT), "");
}

TEST_F(EventLoopPass, NullPointerIsIgnored) {
  mLoop.AddHandler(nullptr);
  Add(0);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0}));
}

TEST(EventLoopAddHandler, HandlerWithoutDescriptorIsDestroyed) {
  bool destroyed = false;
  EventLoop loop;
  auto handler = std::make_unique<Handler>(-1);
  handler->AtDestruction([&] { destroyed = true; });
  loop.AddHandler(std::move(handler));
  EXPECT_TRUE(destroyed);
}

TEST(EventLoopAddHandler, AsksForTheDescriptorOnce) {
  const UniqueFd fd = EventFd(1);
  EventLoop loop;
  auto handler = std::make_unique<Handler>(fd.Get());
  const Handler& added = *handler;
  loop.AddHandler(std::move(handler));
  RunOnePass(loop);
  EXPECT_EQ(added.FdReads(), 1);
}

TEST_F(EventLoopPass, HandlerForARegisteredDescriptorIsDestroyedAndTheFirstStays) {
  Add(0);
  auto second = std::make_unique<Handler>(Fd(0), [this](int, short) { mCalled.push_back(99); });
  second->AtDestruction([this] { mDestroyed.push_back(99); });
  mLoop.AddHandler(std::move(second));
  EXPECT_EQ(mDestroyed, (Indexes{99}));
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0}));
}

TEST_F(EventLoopPass, RefusedHandlerLeavesTheWatchedEvents) {
  Add(0);
  mLoop.AddHandler(std::make_unique<Handler>(Fd(0), Handler::Call(), short{0}));
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0}));
}

TEST(EventLoopAddHandler, WatchesTheEventsThatTheHandlerWants) {
  const UniqueFd fd = EventFd(1);
  std::vector<short> seen;
  EventLoop loop;
  const auto note = [&](int, short revents) { seen.push_back(revents); };
  loop.AddHandler(std::make_unique<Handler>(fd.Get(), note, static_cast<short>(POLLOUT)));
  RunOnePass(loop);
  EXPECT_EQ(seen, (std::vector<short>{POLLOUT}));
}

TEST(EventLoopUpdateHandler, WatchesTheEventsThatTheHandlerWantsNow) {
  const UniqueFd fd = EventFd(1);
  std::vector<short> seen;
  EventLoop loop;
  auto handler = std::make_unique<Handler>(fd.Get(), [&](int, short revents) { seen.push_back(revents); });
  Handler& added = *handler;
  loop.AddHandler(std::move(handler));
  added.SetEvents(POLLIN | POLLOUT);
  RunOnePass(loop);
  loop.UpdateHandler(fd.Get());
  RunOnePass(loop);
  EXPECT_EQ(seen, (std::vector<short>{POLLIN, POLLIN | POLLOUT}));
}

TEST_F(EventLoopPass, UpdatingAnUnknownDescriptorChangesNothing) {
  Add(0);
  mLoop.UpdateHandler(Fd(1));
  mLoop.UpdateHandler(-1);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0}));
}

TEST_F(EventLoopPass, UpdateLeavesTheResultsOfTheRunningPass) {
  auto later = std::make_unique<Handler>(Fd(1), [this](int, short) { mCalled.push_back(1); });
  Handler& updated = *later;
  Add(0, [&] {
    updated.SetEvents(0);
    mLoop.UpdateHandler(Fd(1));
  });
  mLoop.AddHandler(std::move(later));
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 1}));
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 1, 0}));
}

TEST_F(EventLoopPass, RemovedHandlerIsDestroyedAtOnceAndNotCalled) {
  Add(0);
  Add(1);
  mLoop.RemoveHandler(Fd(0));
  EXPECT_EQ(mDestroyed, (Indexes{0}));
  EXPECT_TRUE(test::IsOpen(Fd(0)));
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{1}));
}

TEST_F(EventLoopPass, RemovingAnUnknownDescriptorChangesNothing) {
  Add(0);
  mLoop.RemoveHandler(Fd(1));
  mLoop.RemoveHandler(-1);
  EXPECT_TRUE(mDestroyed.empty());
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0}));
}

TEST_F(EventLoopPass, RemovedDescriptorIsNoLongerPolledForTheOldEvents) {
  Add(0);
  mLoop.RemoveHandler(Fd(0));
  mLoop.AddHandler(std::make_unique<Handler>(
      Fd(0), [this](int, short) { mCalled.push_back(99); }, short{0}));
  RunOnePass(mLoop);
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(EventLoopPass, RemovedDescriptorCanBeRegisteredAgain) {
  Add(0);
  mLoop.RemoveHandler(Fd(0));
  Add(0);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0}));
}

TEST_F(EventLoopPass, HandlersAreCalledInTheOrderOfAddition) {
  Add(3);
  Add(0);
  Add(2);
  Add(1);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{3, 0, 2, 1}));
}

TEST_F(EventLoopPass, RemovalMovesTheLastHandlerIntoTheGap) {
  for (std::size_t i = 0; i < 5; ++i) {
    Add(i);
  }
  mLoop.RemoveHandler(Fd(1));
  Add(5);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 4, 2, 3, 5}));
}

TEST_F(EventLoopPass, EachReadyHandlerIsCalledOnceAndTheOthersNot) {
  (void)CountOf(Fd(1));
  Add(0);
  Add(1);
  Add(2);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 2}));
}

TEST_F(EventLoopPass, HandlerRemovedEarlierInThePassIsNotCalled) {
  Add(0, [this] { mLoop.RemoveHandler(Fd(1)); });
  Add(1);
  Add(2);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 2}));
}

TEST_F(EventLoopPass, RemovingAnEarlierHandlerKeepsTheOrderOfTheRest) {
  Add(0);
  Add(1, [this] { mLoop.RemoveHandler(Fd(0)); });
  Add(2);
  Add(3);
  Add(4);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 1, 2, 3, 4}));
}

TEST_F(EventLoopPass, RemovingALaterHandlerKeepsTheOrderOfTheRest) {
  Add(0, [this] { mLoop.RemoveHandler(Fd(2)); });
  Add(1);
  Add(2);
  Add(3);
  Add(4);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 1, 3, 4}));
}

TEST_F(EventLoopPass, HandlerThatRemovesItselfIsDestroyedBeforeRemoveHandlerReturns) {
  Indexes destroyedInside;
  Add(0, [this, &destroyedInside] {
    mLoop.RemoveHandler(Fd(0));
    destroyedInside = mDestroyed;
  });
  Add(1);
  Add(2);
  RunOnePass(mLoop);
  EXPECT_EQ(destroyedInside, (Indexes{0}));
  EXPECT_EQ(mCalled, (Indexes{0, 1, 2}));
}

TEST_F(EventLoopPass, EveryHandlerMayRemoveItself) {
  for (std::size_t i = 0; i < mFds.size(); ++i) {
    Add(i, [this, i] { mLoop.RemoveHandler(Fd(i)); });
  }
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 1, 2, 3, 4, 5}));
  EXPECT_EQ(mDestroyed, mCalled);
}

TEST_F(EventLoopPass, HandlerMayRemoveAllHandlers) {
  for (std::size_t i = 0; i < mFds.size(); ++i) {
    Add(i, [this] {
      for (const UniqueFd& fd : mFds) {
        mLoop.RemoveHandler(fd.Get());
      }
    });
  }
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0}));
  EXPECT_EQ(mDestroyed.size(), mFds.size());
}

TEST_F(EventLoopPass, HandlerAddedInThePassIsCalledFromTheNextOn) {
  Add(0, [this] { Add(1); });
  Add(2);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 2}));
  mCalled.clear();
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 2, 1}));
}

TEST_F(EventLoopPass, ManyAdditionsInThePassKeepTheWalkValid) {
  std::vector<UniqueFd> added;
  Add(0, [&] {
    while (added.size() < 200) {
      added.push_back(EventFd(1));
      mLoop.AddHandler(std::make_unique<Handler>(added.back().Get(), [this](int, short) { mCalled.push_back(99); }));
    }
  });
  Add(1);
  Add(2);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 1, 2}));
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled.size(), 3U + 3U + 200U);
}

TEST_F(EventLoopPass, HandlerRegisteredAgainInThePassWaitsForTheNext) {
  Add(0, [this] {
    mLoop.RemoveHandler(Fd(0));
    mLoop.RemoveHandler(Fd(1));
    Add(0);
    Add(1);
  });
  Add(1);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0}));
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 0, 1}));
}

TEST_F(EventLoopPass, ReusedDescriptorNumberDoesNotInheritTheOldResult) {
  Add(0, [this] {
    if (!mDestroyed.empty()) {
      return;
    }
    const int number = Fd(1);
    mLoop.RemoveHandler(number);
    mFds[1].Reset();
    ASSERT_EQ(::dup2(Fd(2), number), number);
    mFds[1] = UniqueFd(number);
    Add(1);
  });
  Add(1);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0}));
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{0, 0, 1}));
}

TEST_F(EventLoopPass, DestructorsMayRemoveOtherHandlersInThePass) {
  auto handler = std::make_unique<Handler>(Fd(0), [this](int, short) { mLoop.RemoveHandler(Fd(0)); });
  handler->AtDestruction([this] { mLoop.RemoveHandler(Fd(1)); });
  mLoop.AddHandler(std::move(handler));
  Add(1);
  Add(2);
  RunOnePass(mLoop);
  EXPECT_EQ(mCalled, (Indexes{2}));
  EXPECT_EQ(mDestroyed, (Indexes{1}));
}

TEST_F(EventLoopPass, ResultsStayAfterTheDispatch) {
  Add(0);
  RunOnePass(mLoop);
  (void)CountOf(Fd(0));
  mLoop.ProcessEvents();
  EXPECT_EQ(mCalled, (Indexes{0, 0}));
}

TEST_F(EventLoopPass, NothingIsDispatchedBeforeTheFirstWait) {
  Add(0);
  mLoop.ProcessEvents();
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(EventLoopPass, StopInAHandlerLetsTheOthersOfThePassRun) {
  Add(0, [this] { mLoop.Stop(); });
  Add(1);
  mLoop.Run();
  EXPECT_EQ(mCalled, (Indexes{0, 1}));
}

TEST_F(EventLoopPass, CallPostedInADeferredCallRunsAfterTheDispatch) {
  Add(0);
  mLoop.Defer([this] {
    mCalled.push_back(10);
    mLoop.Defer([this] {
      mCalled.push_back(12);
      mLoop.Stop();
    });
  });
  mLoop.Defer([this] { mCalled.push_back(11); });
  mLoop.Run();
  EXPECT_EQ(mCalled, (Indexes{10, 11, 0, 12, 0}));
}

TEST_F(EventLoopPass, StopBeforeRunLeavesNoTimeForADispatch) {
  Add(0);
  mLoop.Stop();
  mLoop.Run();
  EXPECT_TRUE(mCalled.empty());
}

TEST(EventLoopDispatch, PassesTheDescriptorAndTheResult) {
  const UniqueFd fd = EventFd(1);
  std::vector<std::pair<int, short>> calls;
  EventLoop loop;
  const auto note = [&](int number, short revents) { calls.emplace_back(number, revents); };
  loop.AddHandler(std::make_unique<Handler>(fd.Get(), note, static_cast<short>(POLLIN | POLLOUT)));
  RunOnePass(loop);
  EXPECT_EQ(calls, (std::vector<std::pair<int, short>>{{fd.Get(), POLLIN | POLLOUT}}));
}

TEST(EventLoopDispatch, HangUpIsForTheHandlerAndRemovesNothing) {
  auto [local, peer] = test::SocketPair();
  peer.Reset();
  std::vector<short> seen;
  EventLoop loop;
  loop.AddHandler(std::make_unique<Handler>(local.Get(), [&](int, short revents) { seen.push_back(revents); }));
  RunOnePass(loop);
  RunOnePass(loop);
  EXPECT_EQ(seen, (std::vector<short>{POLLIN | POLLHUP, POLLIN | POLLHUP}));
}

TEST(EventLoopDispatch, ErrorIsForTheHandlerWithoutBeingWanted) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC), 0);
  const UniqueFd writing(ends[1]);
  UniqueFd(ends[0]).Reset();
  std::vector<short> seen;
  EventLoop loop;
  loop.AddHandler(std::make_unique<Handler>(
      writing.Get(), [&](int, short revents) { seen.push_back(revents); }, short{0}));
  RunOnePass(loop);
  EXPECT_EQ(seen, (std::vector<short>{POLLERR}));
}

TEST(EventLoopDispatch, ClosedDescriptorIsForTheHandler) {
  UniqueFd fd = EventFd(1);
  std::vector<short> seen;
  EventLoop loop;
  loop.AddHandler(std::make_unique<Handler>(fd.Get(), [&](int, short revents) { seen.push_back(revents); }));
  fd.Reset();
  RunOnePass(loop);
  EXPECT_EQ(seen, (std::vector<short>{POLLNVAL}));
}

TEST(EventLoopRun, MayBeCalledAgain) {
  const UniqueFd fd = EventFd(1);
  int calls = 0;
  EventLoop loop;
  loop.AddHandler(std::make_unique<Handler>(fd.Get(), [&](int, short) {
    ++calls;
    loop.Stop();
  }));
  loop.Run();
  loop.Run();
  EXPECT_EQ(calls, 2);
}

TEST(EventLoopRun, ExceptionOfAHandlerPassesThroughAndTheLoopRunsAgain) {
  const UniqueFd throwing = EventFd(1);
  const UniqueFd next = EventFd(1);
  int calls = 0;
  EventLoop loop;
  loop.AddHandler(std::make_unique<Handler>(throwing.Get(), [&](int, short) {
    (void)CountOf(throwing.Get());
    throw std::runtime_error("from the handler");
  }));
  loop.AddHandler(std::make_unique<Handler>(next.Get(), [&](int, short) {
    ++calls;
    loop.Stop();
  }));
  EXPECT_THROW(loop.Run(), std::runtime_error);
  EXPECT_EQ(calls, 0);
  loop.Run();
  EXPECT_EQ(calls, 1);
}

TEST(EventLoopRun, FailureOfPollEndsItAfterTheLastDeferredCalls) {
  const UniqueFd fd = EventFd(1);
  std::vector<int> order;
  EventLoop loop;
  loop.AddHandler(std::make_unique<Handler>(fd.Get(), [&](int, short) { order.push_back(99); }));
  loop.Defer([&] {
    order.push_back(1);
    loop.Defer([&] { order.push_back(2); });
  });
  const test::NoNewDescriptors limit;
  pollfd entry{fd.Get(), POLLIN, 0};
  if (::poll(&entry, 1, 0) != -1) {
    GTEST_SKIP() << "poll does not enforce RLIMIT_NOFILE here";
  }
  loop.Run();
  EXPECT_EQ(order, (std::vector<int>{1, 2}));
}

std::atomic<int> gSignals{0};
std::atomic<int> gToWrite{-1};

// Wakes the descriptor only after many signals, some of which met the loop in its wait.
void CountSignal(int) {
  const int saved = errno;
  if (++gSignals == 50) {
    (void)::eventfd_write(gToWrite, 1);
  }
  errno = saved;
}

TEST(EventLoopRun, SignalsThatInterruptTheWaitDoNotEndIt) {
  const UniqueFd fd = EventFd(0);
  bool reached = false;
  EventLoop loop;
  loop.AddHandler(std::make_unique<Handler>(fd.Get(), [&](int, short) {
    reached = true;
    loop.Stop();
  }));
  gToWrite = fd.Get();
  gSignals = 0;
  struct sigaction counted = {};
  struct sigaction saved = {};
  counted.sa_handler = CountSignal;
  ASSERT_EQ(::sigaction(SIGALRM, &counted, &saved), 0);
  const itimerval everyMillisecond{{0, 1000}, {0, 1000}};
  const itimerval off{};
  (void)::setitimer(ITIMER_REAL, &everyMillisecond, nullptr);
  loop.Run();
  (void)::setitimer(ITIMER_REAL, &off, nullptr);
  (void)::signal(SIGALRM, SIG_IGN);  // Drops the one that valgrind may hold back.
  (void)::sigaction(SIGALRM, &saved, nullptr);
  EXPECT_TRUE(reached);
}

TEST(EventLoopDestruction, DestroysHandlersAndClosesOnlyItsOwnDescriptors) {
  const UniqueFd callers = EventFd(1);
  const std::size_t before = test::CountOpenFds();
  bool destroyed = false;
  {
    EventLoop loop;
    auto handler = std::make_unique<Handler>(callers.Get());
    handler->AtDestruction([&] { destroyed = true; });
    loop.AddHandler(std::move(handler));
    ASSERT_NE(loop.AddTimer(Milliseconds(60000), [] {}), 0U);
  }
  EXPECT_TRUE(destroyed);
  EXPECT_EQ(test::CountOpenFds(), before);
}

// Calls the loop when it is destroyed.
struct DefersAtItsEnd {
  explicit DefersAtItsEnd(EventLoop& target) : loop(target) {}
  DefersAtItsEnd(const DefersAtItsEnd&) = delete;
  DefersAtItsEnd& operator=(const DefersAtItsEnd&) = delete;
  ~DefersAtItsEnd() {
    loop.Defer([kept = std::make_shared<std::string>("captured, and long enough for the heap")] { (void)kept; });
    loop.Stop();
  }
  EventLoop& loop;
};

TEST(EventLoopDestruction, WhatDeferredCallsCapturedMayCallTheLoop) {
  bool ran = false;
  {
    EventLoop loop;
    loop.Defer([&ran, last = std::make_shared<DefersAtItsEnd>(loop)] { ran = last != nullptr; });
  }
  EXPECT_FALSE(ran);
}

TEST(EventLoopDestruction, HandlerAddedByAHandlersDestructorIsDestroyedWithTheLoop) {
  const UniqueFd first = EventFd(1);
  const UniqueFd second = EventFd(1);
  int destroyed = 0;
  {
    EventLoop loop;
    auto later = std::make_shared<std::unique_ptr<Handler>>(std::make_unique<Handler>(second.Get()));
    (*later)->AtDestruction([&] {
      ++destroyed;
      loop.Stop();
    });
    auto handler = std::make_unique<Handler>(first.Get());
    handler->AtDestruction([&loop, &destroyed, later] {
      ++destroyed;
      loop.AddHandler(std::move(*later));
    });
    loop.AddHandler(std::move(handler));
  }
  EXPECT_EQ(destroyed, 2);
}

TEST(EventLoopDestruction, DestructorsOfHandlersMayCallTheLoop) {
  const UniqueFd first = EventFd(1);
  const UniqueFd second = EventFd(1);
  bool ran = false;
  int destroyed = 0;
  {
    EventLoop loop;
    const unsigned timer = loop.AddTimer(Milliseconds(60000), [] {});
    const auto useTheLoop = [&, timer] {
      ++destroyed;
      loop.RemoveHandler(first.Get());
      loop.RemoveHandler(second.Get());
      loop.UpdateHandler(first.Get());
      loop.RemoveTimer(timer);
      loop.Defer([&] { ran = true; });
      loop.Stop();
    };
    for (const UniqueFd* fd : {&first, &second}) {
      auto handler = std::make_unique<Handler>(fd->Get());
      handler->AtDestruction(useTheLoop);
      loop.AddHandler(std::move(handler));
    }
  }
  EXPECT_EQ(destroyed, 2);
  EXPECT_FALSE(ran);
}

}  // namespace
}  // namespace kiv::net
