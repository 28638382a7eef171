#include <gtest/gtest.h>
#include <kiv/net.h>
#include <sys/eventfd.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <atomic>
#include <chrono>
#include <cstddef>
#include <fstream>
#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support.h"

namespace kiv::net {
namespace {

using test::RunOnePass;

using Order = std::vector<int>;

// Waits until the thread sleeps in the kernel, for ten seconds at most.
bool SleepsSoon(long tid) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (std::chrono::steady_clock::now() < limit) {
    std::ifstream file("/proc/self/task/" + std::to_string(tid) + "/stat");
    std::string stat;
    std::getline(file, stat);
    const std::size_t state = stat.rfind(") ");
    if (state != std::string::npos && stat.compare(state, 3, ") S") == 0) {
      return true;
    }
    std::this_thread::yield();
  }
  return false;
}

eventfd_t CountOf(int eventFd) {
  eventfd_t count = 0;
  return ::eventfd_read(eventFd, &count) == 0 ? count : 0;
}

TEST(EventLoopDefer, QueuesTheCallAndAddsOneToTheWakeupCounter) {
  const int wakeup = test::NextFd();
  int calls = 0;
  EventLoop loop;
  loop.Defer([&] { ++calls; });
  loop.Defer([&] { ++calls; });
  EXPECT_EQ(calls, 0);
  EXPECT_EQ(CountOf(wakeup), 2U);
  loop.ProcessDeferred();
  EXPECT_EQ(calls, 2);
}

TEST(EventLoopDefer, EmptyFunctionDoesNotWakeTheLoop) {
  const int wakeup = test::NextFd();
  EventLoop loop;
  loop.Defer(std::function<void()>());
  EXPECT_FALSE(test::IsReadable(wakeup));
  loop.ProcessDeferred();
}

TEST(EventLoopDefer, EmptyFunctionBetweenOthersIsNotQueued) {
  Order order;
  EventLoop loop;
  loop.Defer([&] { order.push_back(1); });
  loop.Defer(nullptr);
  loop.Defer([&] { order.push_back(2); });
  loop.ProcessDeferred();
  EXPECT_EQ(order, (Order{1, 2}));
}

TEST(EventLoopDefer, FullCounterStillQueuesTheCall) {
  const int wakeup = test::NextFd();
  bool ran = false;
  EventLoop loop;
  ASSERT_EQ(::eventfd_write(wakeup, 0xfffffffffffffffe), 0);
  loop.Defer([&] { ran = true; });
  RunOnePass(loop);
  EXPECT_TRUE(ran);
}

TEST(EventLoopDefer, WakesALoopWithoutHandlersFromAnotherThread) {
  const long loopThread = ::syscall(SYS_gettid);
  bool ran = false;
  bool slept = false;
  EventLoop loop;
  std::thread poster([&] {
    slept = SleepsSoon(loopThread);
    loop.Defer([&] {
      ran = true;
      loop.Stop();
    });
  });
  loop.Run();
  poster.join();
  EXPECT_TRUE(slept);
  EXPECT_TRUE(ran);
}

TEST(EventLoopProcessDeferred, RunsWhatWasQueuedInPostingOrder) {
  Order order;
  EventLoop loop;
  for (int i = 0; i < 100; ++i) {
    loop.Defer([&order, i] { order.push_back(i); });
  }
  loop.ProcessDeferred();
  ASSERT_EQ(order.size(), 100U);
  for (int i = 0; i < 100; ++i) {
    EXPECT_EQ(order[static_cast<std::size_t>(i)], i);
  }
}

TEST(EventLoopProcessDeferred, RunsEachCallOnce) {
  int calls = 0;
  EventLoop loop;
  loop.Defer([&] { ++calls; });
  loop.ProcessDeferred();
  loop.ProcessDeferred();
  EXPECT_EQ(calls, 1);
}

TEST(EventLoopProcessDeferred, LeavesCallsPostedMeanwhileForTheNextTime) {
  Order order;
  EventLoop loop;
  loop.Defer([&] {
    order.push_back(1);
    loop.Defer([&] { order.push_back(3); });
  });
  loop.Defer([&] { order.push_back(2); });
  loop.ProcessDeferred();
  EXPECT_EQ(order, (Order{1, 2}));
  loop.ProcessDeferred();
  EXPECT_EQ(order, (Order{1, 2, 3}));
}

TEST(EventLoopProcessDeferred, DestroysTheBatchAfterAllHaveRun) {
  bool aliveInTheLast = false;
  EventLoop loop;
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> state = captured;
  loop.Defer([captured = std::move(captured)] { ++*captured; });
  loop.Defer([&] { aliveInTheLast = !state.expired(); });
  loop.ProcessDeferred();
  EXPECT_TRUE(aliveInTheLast);
  EXPECT_TRUE(state.expired());
}

TEST(EventLoopProcessDeferred, HoldsNoLockWhileACallRuns) {
  int calls = 0;
  EventLoop loop;
  loop.Defer([&] { std::thread([&] { loop.Defer([&] { ++calls; }); }).join(); });
  loop.ProcessDeferred();
  loop.ProcessDeferred();
  EXPECT_EQ(calls, 1);
}

TEST(EventLoopProcessDeferred, ExceptionLosesTheRestOfTheBatch) {
  Order order;
  EventLoop loop;
  loop.Defer([&] { order.push_back(1); });
  loop.Defer([&] {
    loop.Defer([&] { order.push_back(3); });
    throw std::runtime_error("from the call");
  });
  loop.Defer([&] { order.push_back(2); });
  EXPECT_THROW(loop.Run(), std::runtime_error);
  EXPECT_EQ(order, (Order{1}));
  loop.ProcessDeferred();
  EXPECT_EQ(order, (Order{1, 3}));
}

TEST(EventLoopProcessWakeup, ResetsTheCounter) {
  const int wakeup = test::NextFd();
  EventLoop loop;
  loop.Defer([] {});
  loop.Defer([] {});
  ASSERT_TRUE(test::IsReadable(wakeup));
  loop.ProcessWakeup();
  EXPECT_FALSE(test::IsReadable(wakeup));
}

TEST(EventLoopProcessWakeup, DoesNotBlockWithoutAWakeup) {
  const int wakeup = test::NextFd();
  EventLoop loop;
  loop.ProcessWakeup();
  EXPECT_FALSE(test::IsReadable(wakeup));
}

TEST(EventLoopProcessWakeup, IsPartOfThePass) {
  const int wakeup = test::NextFd();
  EventLoop loop;
  bool readable = true;
  const unsigned timer = loop.AddTimer(Milliseconds(20), [&] {
    readable = test::IsReadable(wakeup);
    loop.Stop();
  });
  ASSERT_NE(timer, 0U);
  loop.Defer([] {});
  loop.Run();
  EXPECT_FALSE(readable);
}

TEST(EventLoopStop, BeforeRunEndsItAfterTheCallsQueuedSoFar) {
  Order order;
  EventLoop loop;
  loop.Defer([&] { order.push_back(1); });
  loop.Stop();
  loop.Defer([&] { order.push_back(2); });
  EXPECT_TRUE(order.empty());
  loop.Run();
  EXPECT_EQ(order, (Order{1, 2}));
}

TEST(EventLoopStop, BeforeRunLeavesNoTimeForAWait) {
  const int wakeup = test::NextFd();
  EventLoop loop;
  loop.Stop();
  loop.Run();
  EXPECT_EQ(CountOf(wakeup), 1U);
}

TEST(EventLoopStop, LetsCallsPostedByItsBatchRunOnceMore) {
  Order order;
  EventLoop loop;
  loop.Stop();
  loop.Defer([&] {
    order.push_back(1);
    loop.Defer([&] {
      order.push_back(2);
      loop.Defer([&] { order.push_back(3); });
    });
  });
  loop.Run();
  EXPECT_EQ(order, (Order{1, 2}));
  loop.Stop();
  loop.Run();
  EXPECT_EQ(order, (Order{1, 2, 3}));
}

TEST(EventLoopStop, DeferredByTheLastCallsOfARunEndsNoLaterRun) {
  Order order;
  EventLoop loop;
  loop.Stop();
  loop.Defer([&] { loop.Stop(); });
  loop.Run();
  loop.Defer([&] {
    order.push_back(1);
    loop.Defer([&] {
      order.push_back(2);
      loop.Stop();
    });
  });
  loop.Run();
  EXPECT_EQ(order, (Order{1, 2}));
}

TEST(EventLoopStop, EndsARunFromAnotherThread) {
  const long loopThread = ::syscall(SYS_gettid);
  const int wakeup = test::NextFd();
  bool slept = false;
  EventLoop loop;
  std::thread stopper([&] {
    slept = SleepsSoon(loopThread);
    loop.Stop();
  });
  loop.Run();
  stopper.join();
  EXPECT_TRUE(slept);
  EXPECT_FALSE(test::IsReadable(wakeup));
}

TEST(EventLoopDestruction, DropsDeferredCallsUnrun) {
  bool ran = false;
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> state = captured;
  {
    EventLoop loop;
    loop.Defer([&ran, captured = std::move(captured)] { ran = true; });
    EXPECT_FALSE(state.expired());
  }
  EXPECT_FALSE(ran);
  EXPECT_TRUE(state.expired());
}

constexpr int kThreads = 8;
constexpr int kCalls = 500;

// Starts the posting threads together; joins them.
class Posters {
 public:
  explicit Posters(const std::function<void(int thread)>& post) {
    for (int thread = 0; thread < kThreads; ++thread) {
      mThreads.at(static_cast<std::size_t>(thread)) = std::thread([this, post, thread] {
        while (!mGo) {
          std::this_thread::yield();
        }
        post(thread);
      });
    }
    mGo = true;
  }
  Posters(const Posters&) = delete;
  Posters& operator=(const Posters&) = delete;
  ~Posters() { Join(); }

  void Join() {
    for (std::thread& thread : mThreads) {
      if (thread.joinable()) {
        thread.join();
      }
    }
  }

 private:
  std::atomic<bool> mGo{false};
  std::array<std::thread, kThreads> mThreads;
};

using PerThread = std::array<Order, kThreads>;

void ExpectAllInOrder(const PerThread& seen) {
  for (const Order& order : seen) {
    ASSERT_EQ(order.size(), static_cast<std::size_t>(kCalls));
    for (int call = 0; call < kCalls; ++call) {
      ASSERT_EQ(order[static_cast<std::size_t>(call)], call);
    }
  }
}

TEST(EventLoopThreads, CallsOfEightThreadsAllRunOnTheLoopThreadInTheirOrder) {
  PerThread seen;
  int total = 0;
  bool elsewhere = false;
  const std::thread::id loopThread = std::this_thread::get_id();
  EventLoop loop;
  Posters posters([&](int thread) {
    for (int call = 0; call < kCalls; ++call) {
      loop.Defer([&, thread, call] {
        elsewhere = elsewhere || std::this_thread::get_id() != loopThread;
        seen.at(static_cast<std::size_t>(thread)).push_back(call);
        if (++total == kThreads * kCalls) {
          loop.Stop();
        }
      });
    }
  });
  loop.Run();
  posters.Join();
  EXPECT_FALSE(elsewhere);
  ExpectAllInOrder(seen);
}

TEST(EventLoopThreads, StopsOfEightThreadsLoseNoCall) {
  PerThread seen;
  EventLoop loop;
  Posters posters([&](int thread) {
    for (int call = 0; call < kCalls; ++call) {
      loop.Defer([&, thread, call] { seen.at(static_cast<std::size_t>(thread)).push_back(call); });
      if (call % 100 == 99) {
        loop.Stop();
      }
    }
  });
  loop.Run();
  posters.Join();
  loop.Stop();
  loop.Run();
  ExpectAllInOrder(seen);
}

TEST(EventLoopThreads, NothingRunsAfterTheDestruction) {
  std::atomic<int> calls{0};
  int before = 0;
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> state = captured;
  {
    EventLoop loop;
    Posters posters([&loop, &calls, captured](int) {
      for (int call = 0; call < kCalls; ++call) {
        loop.Defer([&calls, captured] { ++calls; });
      }
    });
    captured.reset();
    RunOnePass(loop);
    posters.Join();
    before = calls;
  }
  EXPECT_EQ(calls, before);
  EXPECT_TRUE(state.expired());
}

}  // namespace
}  // namespace kiv::net
