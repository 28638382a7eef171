#include <gtest/gtest.h>
#include <kiv/net.h>
#include <sys/time.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstdint>
#include <utility>

#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::EventFd;

void Drain(const UniqueFd& fd) {
  std::uint64_t count = 0;
  ASSERT_EQ(::read(fd.Get(), &count, sizeof count), static_cast<ssize_t>(sizeof count));
}

TEST(PollerWait, EmptySetReturnsZeroAtOnce) {
  Poller poller;
  EXPECT_EQ(poller.Wait(-1), 0);
  EXPECT_EQ(poller.Wait(3600 * 1000), 0);
}

TEST(PollerWait, EmptiedSetReturnsZeroAtOnce) {
  const UniqueFd silent = EventFd(0);
  Poller poller;
  poller.Add(silent.Get(), POLLIN);
  poller.Remove(silent.Get());
  EXPECT_EQ(poller.Wait(-1), 0);
}

TEST(PollerWait, ReturnsTheNumberOfReadyDescriptors) {
  const UniqueFd first = EventFd(1);
  const UniqueFd silent = EventFd(0);
  const UniqueFd second = EventFd(1);
  Poller poller;
  poller.Add(first.Get(), POLLIN);
  poller.Add(silent.Get(), POLLIN);
  poller.Add(second.Get(), POLLIN);
  EXPECT_EQ(poller.Wait(-1), 2);
}

TEST(PollerWait, TimeOutIsInMilliseconds) {
  const UniqueFd silent = EventFd(0);
  Poller poller;
  poller.Add(silent.Get(), POLLIN);
  const auto start = std::chrono::steady_clock::now();
  EXPECT_EQ(poller.Wait(30), 0);
  EXPECT_GE(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(30));
}

TEST(PollerWait, TimeOutZeroOnlyLooks) {
  const UniqueFd silent = EventFd(0);
  Poller poller;
  poller.Add(silent.Get(), POLLIN);
  EXPECT_EQ(poller.Wait(0), 0);
}

TEST(PollerWait, NoTimeOutWaitsUntilSomethingIsReady) {
  const UniqueFd timer(::timerfd_create(CLOCK_MONOTONIC, TFD_CLOEXEC));
  const itimerspec soon{{0, 0}, {0, 20 * 1000 * 1000}};
  ASSERT_EQ(::timerfd_settime(timer.Get(), 0, &soon, nullptr), 0);
  Poller poller;
  poller.Add(timer.Get(), POLLIN);
  EXPECT_EQ(poller.Wait(-1), 1);
}

TEST(PollerWait, OverwritesEarlierResults) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN);
  ASSERT_EQ(poller.Wait(-1), 1);
  Drain(fd);
  EXPECT_TRUE(poller.IsReady(fd.Get(), POLLIN));
  EXPECT_EQ(poller.Wait(0), 0);
  EXPECT_FALSE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerWait, ClosedDescriptorIsReportedAsInvalid) {
  UniqueFd fd = EventFd(1);
  const int number = fd.Get();
  Poller poller;
  poller.Add(number, POLLIN);
  fd.Reset();
  EXPECT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(number, POLLNVAL));
  EXPECT_FALSE(poller.IsReady(number, POLLIN));
}

TEST(PollerWait, InterruptedWaitIsNotRetried) {
  const UniqueFd silent = EventFd(0);
  Poller poller;
  poller.Add(silent.Get(), POLLIN);
  struct sigaction ignored = {};
  struct sigaction saved = {};
  ignored.sa_handler = [](int) {};
  ASSERT_EQ(::sigaction(SIGALRM, &ignored, &saved), 0);
  const itimerval everyMillisecond{{0, 1000}, {0, 1000}};
  const itimerval off{};
  (void)::setitimer(ITIMER_REAL, &everyMillisecond, nullptr);
  const int result = poller.Wait(60 * 1000);
  const int reason = errno;
  (void)::setitimer(ITIMER_REAL, &off, nullptr);
  (void)::signal(SIGALRM, SIG_IGN);  // Drops the one that valgrind may hold back.
  (void)::sigaction(SIGALRM, &saved, nullptr);
  EXPECT_EQ(result, -1);
  EXPECT_EQ(reason, EINTR);
}

TEST(PollerWait, FailureOfPollIsReturned) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN);
  const test::NoNewDescriptors limit;
  pollfd entry{fd.Get(), POLLIN, 0};
  if (::poll(&entry, 1, 0) != -1) {
    GTEST_SKIP() << "poll does not enforce RLIMIT_NOFILE here";
  }
  EXPECT_EQ(poller.Wait(-1), -1);
  EXPECT_EQ(errno, EINVAL);
}

TEST(PollerAdd, NewEntryIsNotReadyBeforeAWait) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN | POLLOUT);
  EXPECT_FALSE(poller.IsReady(fd.Get(), POLLIN | POLLOUT));
}

TEST(PollerAdd, OnlyTheEventsWantedAreReported) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLOUT);
  ASSERT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(fd.Get(), POLLOUT));
  EXPECT_FALSE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerAdd, TwiceLeavesTwoEntriesAndMeansTheNewer) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN);
  poller.Add(fd.Get(), POLLOUT);
  EXPECT_EQ(poller.Wait(-1), 2);
  EXPECT_TRUE(poller.IsReady(fd.Get(), POLLOUT));
  EXPECT_FALSE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerAdd, ModifyOfADescriptorAddedTwiceChangesTheNewerEntry) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), 0);
  poller.Add(fd.Get(), 0);
  poller.Modify(fd.Get(), POLLIN);
  EXPECT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerAdd, RemoveOfADescriptorAddedTwiceLeavesTheOlderEntry) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN);
  poller.Add(fd.Get(), POLLIN);
  poller.Remove(fd.Get());
  EXPECT_EQ(poller.Wait(-1), 1);
  EXPECT_FALSE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerModify, ReplacesTheEvents) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN);
  poller.Modify(fd.Get(), POLLOUT);
  ASSERT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(fd.Get(), POLLOUT));
  EXPECT_FALSE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerModify, KeepsTheResultOfTheLastWait) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN);
  ASSERT_EQ(poller.Wait(-1), 1);
  poller.Modify(fd.Get(), 0);
  EXPECT_TRUE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerModify, ChangesNoOtherEntry) {
  const std::array<UniqueFd, 3> fds{EventFd(1), EventFd(1), EventFd(1)};
  Poller poller;
  for (const UniqueFd& fd : fds) {
    poller.Add(fd.Get(), POLLIN);
  }
  poller.Modify(fds[1].Get(), 0);
  EXPECT_EQ(poller.Wait(-1), 2);
  EXPECT_TRUE(poller.IsReady(fds[0].Get(), POLLIN));
  EXPECT_FALSE(poller.IsReady(fds[1].Get(), POLLIN));
  EXPECT_TRUE(poller.IsReady(fds[2].Get(), POLLIN));
}

TEST(PollerModify, UnknownDescriptorIsNotAdded) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Modify(fd.Get(), POLLIN);
  EXPECT_EQ(poller.Wait(-1), 0);
  EXPECT_FALSE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerRemove, LastAndThenMiddleEntryKeepTheOthersReady) {
  const std::array<UniqueFd, 5> fds{EventFd(1), EventFd(0), EventFd(1), EventFd(0), EventFd(1)};
  Poller poller;
  for (const UniqueFd& fd : fds) {
    poller.Add(fd.Get(), POLLIN);
  }
  poller.Remove(fds[4].Get());
  poller.Remove(fds[1].Get());
  EXPECT_EQ(poller.Wait(-1), 2);
  EXPECT_TRUE(poller.IsReady(fds[0].Get(), POLLIN));
  EXPECT_FALSE(poller.IsReady(fds[1].Get(), POLLIN));
  EXPECT_TRUE(poller.IsReady(fds[2].Get(), POLLIN));
  EXPECT_FALSE(poller.IsReady(fds[3].Get(), POLLIN));
  EXPECT_FALSE(poller.IsReady(fds[4].Get(), POLLIN));
}

TEST(PollerRemove, OlderEntryThatMovesCanBeNamedAgain) {
  const UniqueFd first = EventFd(1);
  const UniqueFd twice = EventFd(1);
  Poller poller;
  poller.Add(first.Get(), POLLIN);
  poller.Add(twice.Get(), POLLIN);
  poller.Add(twice.Get(), POLLOUT);
  poller.Remove(twice.Get());
  poller.Remove(first.Get());
  EXPECT_EQ(poller.Wait(0), 1);
  EXPECT_TRUE(poller.IsReady(twice.Get(), POLLIN));
}

TEST(PollerRemove, MovedEntryKeepsItsResultAndItsEvents) {
  const UniqueFd gap = EventFd(0);
  const UniqueFd moved = EventFd(1);
  Poller poller;
  poller.Add(gap.Get(), POLLIN);
  poller.Add(moved.Get(), POLLIN);
  ASSERT_EQ(poller.Wait(-1), 1);
  poller.Remove(gap.Get());
  EXPECT_TRUE(poller.IsReady(moved.Get(), POLLIN));
  EXPECT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(moved.Get(), POLLIN));
}

TEST(PollerRemove, MovedEntryIsFoundByModifyAndRemove) {
  const std::array<UniqueFd, 3> fds{EventFd(1), EventFd(1), EventFd(1)};
  Poller poller;
  for (const UniqueFd& fd : fds) {
    poller.Add(fd.Get(), POLLIN);
  }
  poller.Remove(fds[0].Get());
  poller.Modify(fds[2].Get(), POLLOUT);
  EXPECT_EQ(poller.Wait(-1), 2);
  EXPECT_TRUE(poller.IsReady(fds[2].Get(), POLLOUT));
  poller.Remove(fds[2].Get());
  EXPECT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(fds[1].Get(), POLLIN));
}

TEST(PollerRemove, UnknownDescriptorChangesNothing) {
  const UniqueFd fd = EventFd(1);
  const UniqueFd unknown = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN);
  poller.Remove(unknown.Get());
  poller.Remove(-1);
  EXPECT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerRemove, RemovedDescriptorCanBeAddedAgain) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN);
  ASSERT_EQ(poller.Wait(-1), 1);
  poller.Remove(fd.Get());
  poller.Add(fd.Get(), POLLIN);
  EXPECT_FALSE(poller.IsReady(fd.Get(), POLLIN));
  EXPECT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(fd.Get(), POLLIN));
}

TEST(PollerIsReady, UnknownDescriptorIsNotReady) {
  const UniqueFd fd = EventFd(1);
  const UniqueFd unknown = EventFd(1);
  Poller poller;
  EXPECT_FALSE(poller.IsReady(unknown.Get(), POLLIN));
  poller.Add(fd.Get(), POLLIN);
  ASSERT_EQ(poller.Wait(-1), 1);
  EXPECT_FALSE(poller.IsReady(unknown.Get(), POLLIN));
}

TEST(PollerIsReady, AnyBitOfTheEventsIsEnough) {
  const UniqueFd fd = EventFd(1);
  Poller poller;
  poller.Add(fd.Get(), POLLIN);
  ASSERT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(fd.Get(), POLLIN | POLLOUT));
  EXPECT_FALSE(poller.IsReady(fd.Get(), POLLOUT));
  EXPECT_FALSE(poller.IsReady(fd.Get(), 0));
}

TEST(PollerIsReady, HangUpIsReportedWithoutBeingWanted) {
  auto [local, peer] = test::SocketPair();
  Poller poller;
  poller.Add(local.Get(), 0);
  peer.Reset();
  ASSERT_EQ(poller.Wait(-1), 1);
  EXPECT_TRUE(poller.IsReady(local.Get(), POLLHUP));
}

TEST(PollerCopy, IsAnIndependentSet) {
  const UniqueFd kept = EventFd(1);
  const UniqueFd removed = EventFd(1);
  Poller original;
  original.Add(kept.Get(), POLLIN);
  original.Add(removed.Get(), POLLIN);
  Poller copy = original;
  copy.Remove(removed.Get());
  EXPECT_EQ(copy.Wait(-1), 1);
  EXPECT_EQ(original.Wait(-1), 2);
  EXPECT_TRUE(original.IsReady(removed.Get(), POLLIN));
}

TEST(PollerDestruction, ClosesNothing) {
  const UniqueFd removed = EventFd(0);
  const UniqueFd kept = EventFd(0);
  {
    Poller poller;
    poller.Add(removed.Get(), POLLIN);
    poller.Add(kept.Get(), POLLIN);
    poller.Remove(removed.Get());
  }
  EXPECT_TRUE(test::IsOpen(removed.Get()));
  EXPECT_TRUE(test::IsOpen(kept.Get()));
}

}  // namespace
}  // namespace kiv::net
