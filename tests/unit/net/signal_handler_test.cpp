#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/net.h>
#include <poll.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <atomic>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/support.h"

namespace kiv::net {
namespace {

using internal::UniqueFd;
using test::Block;
using test::IsBlocked;
using test::IsPending;
using test::RunOnePass;

using Signals = std::vector<int>;

class SignalTest : public testing::Test {
 protected:
  std::function<void(int)> Note() {
    return [this](int signo) { mCalled.push_back(signo); };
  }

  test::SignalMaskRestorer mRestorer;
  Signals mCalled;
};

using SignalHandlerConstruction = SignalTest;
using SignalHandlerOnEvent = SignalTest;
using SignalHandlerMove = SignalTest;
using EventLoopBlockSignals = SignalTest;
using EventLoopAddSignal = SignalTest;
using EventLoopRemoveSignal = SignalTest;

TEST_F(SignalHandlerConstruction, OpensABlockingCloseOnExecSignalfd) {
  const std::size_t before = test::CountOpenFds();
  SignalHandler handler(SIGUSR1, Note());
  EXPECT_EQ(test::CountOpenFds(), before + 1);
  ASSERT_GE(handler.GetFd(), 0);
  EXPECT_EQ(::fcntl(handler.GetFd(), F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(::fcntl(handler.GetFd(), F_GETFL) & O_NONBLOCK, 0);
  EXPECT_EQ(handler.GetEvents(), POLLIN);
}

TEST_F(SignalHandlerConstruction, WatchesItsSignalOnlyAndBlocksNothing) {
  SignalHandler handler(SIGUSR1, Note());
  EXPECT_FALSE(IsBlocked(SIGUSR1));
  Block(SIGUSR1);
  Block(SIGUSR2);
  ASSERT_EQ(::raise(SIGUSR2), 0);
  EXPECT_FALSE(test::IsReadable(handler.GetFd()));
  ASSERT_EQ(::raise(SIGUSR1), 0);
  EXPECT_TRUE(test::IsReadable(handler.GetFd()));
}

TEST_F(SignalHandlerConstruction, WithoutASignalfdThereIsNoDescriptor) {
  {
    const SignalHandler seenBefore(SIGUSR2, [](int) {});
  }
  const test::NoNewDescriptors limit;
  SignalHandler handler(SIGUSR1, Note());
  EXPECT_EQ(handler.GetFd(), -1);
  handler.OnEvent(-1, POLLIN);
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(SignalHandlerConstruction, DestructionClosesTheDescriptor) {
  const std::size_t before = test::CountOpenFds();
  { const SignalHandler handler(SIGUSR1, Note()); }
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(SignalHandlerOnEvent, CallsTheCallbackWithTheSignal) {
  Block(SIGUSR1);
  SignalHandler handler(SIGUSR1, Note());
  ASSERT_EQ(::raise(SIGUSR1), 0);
  handler.OnEvent(handler.GetFd(), POLLIN);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
  EXPECT_FALSE(IsPending(SIGUSR1));
}

TEST_F(SignalHandlerOnEvent, ReadsOneRecordAtATime) {
  Block(SIGRTMIN);
  SignalHandler handler(SIGRTMIN, Note());
  ASSERT_EQ(::raise(SIGRTMIN), 0);
  ASSERT_EQ(::raise(SIGRTMIN), 0);
  handler.OnEvent(handler.GetFd(), POLLIN);
  EXPECT_EQ(mCalled.size(), 1U);
  EXPECT_TRUE(test::IsReadable(handler.GetFd()));
  handler.OnEvent(handler.GetFd(), POLLIN);
  EXPECT_EQ(mCalled.size(), 2U);
  EXPECT_FALSE(test::IsReadable(handler.GetFd()));
}

TEST_F(SignalHandlerOnEvent, ReadsItsOwnDescriptorWhateverTheArgument) {
  const UniqueFd other = test::EventFd(1);
  Block(SIGUSR1);
  SignalHandler handler(SIGUSR1, Note());
  ASSERT_EQ(::raise(SIGUSR1), 0);
  handler.OnEvent(other.Get(), 0);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
  EXPECT_TRUE(test::IsReadable(other.Get()));
}

TEST_F(SignalHandlerOnEvent, RecordOfAnotherSignalCallsNothing) {
  Block(SIGUSR2);
  SignalHandler other(SIGUSR2, {});
  SignalHandler handler(SIGUSR1, Note());
  ASSERT_EQ(::dup2(other.GetFd(), handler.GetFd()), handler.GetFd());
  ASSERT_EQ(::raise(SIGUSR2), 0);
  handler.OnEvent(handler.GetFd(), POLLIN);
  EXPECT_FALSE(IsPending(SIGUSR2));
  EXPECT_TRUE(mCalled.empty());
}

// Writes the bytes of a signal record into a pipe that takes the place of the signalfd.
void ReplaceByPipe(SignalHandler& handler, int signo, std::size_t bytes) {
  int ends[2];
  ASSERT_EQ(::pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
  const UniqueFd reading(ends[0]);
  const UniqueFd writing(ends[1]);
  signalfd_siginfo record{};
  record.ssi_signo = static_cast<std::uint32_t>(signo);
  ASSERT_EQ(::write(writing.Get(), &record, bytes), static_cast<ssize_t>(bytes));
  ASSERT_EQ(::dup2(reading.Get(), handler.GetFd()), handler.GetFd());
}

TEST_F(SignalHandlerOnEvent, ReadsRecordsOf128Bytes) {
  static_assert(sizeof(signalfd_siginfo) == 128);
  SignalHandler handler(SIGUSR1, Note());
  ReplaceByPipe(handler, SIGUSR1, 128);
  handler.OnEvent(handler.GetFd(), POLLIN);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
}

TEST_F(SignalHandlerOnEvent, ShortRecordCallsNothing) {
  SignalHandler handler(SIGUSR1, Note());
  ReplaceByPipe(handler, SIGUSR1, 127);
  handler.OnEvent(handler.GetFd(), POLLIN);
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(SignalHandlerOnEvent, FailedReadCallsNothing) {
  const UniqueFd empty = test::EventFd(0);
  SignalHandler handler(SIGUSR1, Note());
  ASSERT_EQ(::dup2(empty.Get(), handler.GetFd()), handler.GetFd());
  handler.OnEvent(handler.GetFd(), POLLIN);
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(SignalHandlerOnEvent, EmptyCallbackOnlyTakesTheRecord) {
  Block(SIGUSR1);
  SignalHandler handler(SIGUSR1, {});
  ASSERT_EQ(::raise(SIGUSR1), 0);
  handler.OnEvent(handler.GetFd(), POLLIN);
  EXPECT_FALSE(IsPending(SIGUSR1));
}

TEST_F(SignalHandlerOnEvent, CallbackMayDestroyTheHandlerAndGoOn) {
  Block(SIGUSR1);
  std::unique_ptr<SignalHandler> handler;
  std::string seen;
  handler = std::make_unique<SignalHandler>(SIGUSR1, [&, text = std::string("captured, and long enough")](int) {
    handler.reset();
    seen = text;
  });
  ASSERT_EQ(::raise(SIGUSR1), 0);
  handler->OnEvent(handler->GetFd(), POLLIN);
  EXPECT_EQ(seen, "captured, and long enough");
}

TEST_F(SignalHandlerMove, ConstructionLeavesTheSourceWithoutDescriptor) {
  Block(SIGUSR1);
  SignalHandler source(SIGUSR1, Note());
  const int fd = source.GetFd();
  SignalHandler target(std::move(source));
  EXPECT_EQ(source.GetFd(), -1);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(target.GetFd(), fd);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  target.OnEvent(fd, POLLIN);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
}

TEST_F(SignalHandlerMove, AssignmentClosesWhatItReplaces) {
  Block(SIGUSR1);
  SignalHandler source(SIGUSR1, Note());
  SignalHandler target(SIGUSR2, {});
  const int kept = source.GetFd();
  const int replaced = target.GetFd();
  target = std::move(source);
  EXPECT_EQ(source.GetFd(), -1);  // NOLINT(bugprone-use-after-move)
  EXPECT_EQ(target.GetFd(), kept);
  EXPECT_FALSE(test::IsOpen(replaced));
  ASSERT_EQ(::raise(SIGUSR1), 0);
  target.OnEvent(kept, POLLIN);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
}

TEST_F(SignalHandlerMove, AssignmentToItselfKeepsTheDescriptor) {
  SignalHandler handler(SIGUSR1, Note());
  const int fd = handler.GetFd();
  SignalHandler& self = handler;
  handler = std::move(self);
  EXPECT_EQ(handler.GetFd(), fd);
  EXPECT_TRUE(test::IsOpen(fd));
}

TEST_F(EventLoopBlockSignals, EmptyListBlocksNothing) {
  sigset_t before;
  sigset_t after;
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &before), 0);
  EventLoop::BlockSignals({});
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, nullptr, &after), 0);
  for (int signo = 1; signo < NSIG; ++signo) {
    EXPECT_EQ(sigismember(&after, signo), sigismember(&before, signo)) << signo;
  }
}

TEST_F(EventLoopBlockSignals, NumberThatIsNoSignalIsPassedOver) {
  EventLoop::BlockSignals({0, SIGUSR1, 1000});
  EXPECT_TRUE(IsBlocked(SIGUSR1));
}

TEST_F(EventLoopAddSignal, NumberThatIsNoSignalIsRegisteredAndStaysSilent) {
  EventLoop::BlockSignals({SIGUSR1});
  const std::size_t before = test::CountOpenFds();
  EventLoop loop;
  loop.AddSignal(0, Note());
  EXPECT_EQ(test::CountOpenFds(), before + 2);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(EventLoopBlockSignals, AddsToTheMask) {
  Block(SIGHUP);
  EventLoop::BlockSignals({SIGUSR1, SIGUSR2});
  EXPECT_TRUE(IsBlocked(SIGHUP));
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  EXPECT_TRUE(IsBlocked(SIGUSR2));
  EXPECT_FALSE(IsBlocked(SIGTERM));
  EventLoop::BlockSignals({SIGUSR1, SIGTERM});
  EXPECT_TRUE(IsBlocked(SIGUSR2));
  EXPECT_TRUE(IsBlocked(SIGTERM));
}

TEST_F(EventLoopBlockSignals, ReachesThreadsStartedLaterOnly) {
  std::atomic<bool> blocked{false};
  std::atomic<bool> early{true};
  std::atomic<bool> inherited{false};
  std::thread running([&] {
    while (!blocked) {
      std::this_thread::yield();
    }
    early = IsBlocked(SIGUSR1);
  });
  EventLoop::BlockSignals({SIGUSR1});
  blocked = true;
  running.join();
  std::thread([&] { inherited = IsBlocked(SIGUSR1); }).join();
  EXPECT_FALSE(early);
  EXPECT_TRUE(inherited);
}

TEST_F(EventLoopAddSignal, SignalToTheProcessCallsTheCallbackOnce) {
  EventLoop::BlockSignals({SIGTERM});
  EventLoop loop;
  loop.AddSignal(SIGTERM, [&](int signo) {
    mCalled.push_back(signo);
    loop.Stop();
  });
  ASSERT_EQ(::kill(::getpid(), SIGTERM), 0);
  loop.Run();
  RunOnePass(loop);
  EXPECT_EQ(mCalled, (Signals{SIGTERM}));
}

TEST_F(EventLoopAddSignal, SecondCallbackIsDroppedAndTheFirstStays) {
  EventLoop::BlockSignals({SIGUSR1});
  EventLoop loop;
  loop.AddSignal(SIGUSR1, Note());
  const std::size_t before = test::CountOpenFds();
  auto captured = std::make_shared<int>(0);
  const std::weak_ptr<int> state = captured;
  loop.AddSignal(SIGUSR1, [this, captured = std::move(captured)](int) { mCalled.push_back(-1); });
  EXPECT_TRUE(state.expired());
  EXPECT_EQ(test::CountOpenFds(), before);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
}

TEST_F(EventLoopAddSignal, TwoPendingSignalsCallTheirOwnHandlersInOnePass) {
  EventLoop::BlockSignals({SIGUSR1, SIGUSR2});
  EventLoop loop;
  loop.AddSignal(SIGUSR1, Note());
  loop.AddSignal(SIGUSR2, [this](int signo) { mCalled.push_back(1000 + signo); });
  ASSERT_EQ(::raise(SIGUSR2), 0);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  RunOnePass(loop);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1, 1000 + SIGUSR2}));
}

TEST_F(EventLoopAddSignal, QueuedSignalsAreTakenOneAPass) {
  EventLoop::BlockSignals({SIGRTMIN});
  EventLoop loop;
  loop.AddSignal(SIGRTMIN, Note());
  for (std::size_t i = 0; i < 3; ++i) {
    ASSERT_EQ(::raise(SIGRTMIN), 0);
  }
  for (std::size_t pass = 1; pass <= 3; ++pass) {
    RunOnePass(loop);
    EXPECT_EQ(mCalled.size(), pass);
  }
  RunOnePass(loop);
  EXPECT_EQ(mCalled.size(), 3U);
}

std::atomic<int> gDelivered{0};

TEST_F(EventLoopAddSignal, SignalThatIsNotBlockedIsDeliveredTheOrdinaryWay) {
  struct sigaction counted = {};
  struct sigaction saved = {};
  counted.sa_handler = [](int) { ++gDelivered; };
  gDelivered = 0;
  ASSERT_EQ(::sigaction(SIGUSR1, &counted, &saved), 0);
  EventLoop loop;
  loop.AddSignal(SIGUSR1, Note());
  EXPECT_FALSE(IsBlocked(SIGUSR1));
  EXPECT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  EXPECT_EQ(::sigaction(SIGUSR1, &saved, nullptr), 0);
  EXPECT_EQ(gDelivered, 1);
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(EventLoopAddSignal, EmptyCallbackIsRegisteredAllTheSame) {
  EventLoop::BlockSignals({SIGUSR1});
  EventLoop loop;
  loop.AddSignal(SIGUSR1, {});
  loop.AddSignal(SIGUSR1, Note());
  ASSERT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  EXPECT_FALSE(IsPending(SIGUSR1));
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(EventLoopAddSignal, WithoutASignalfdNothingIsRegistered) {
  EventLoop::BlockSignals({SIGUSR1});
  {
    const SignalHandler seenBefore(SIGUSR2, [](int) {});
  }
  EventLoop loop;
  {
    const test::NoNewDescriptors limit;
    loop.AddSignal(SIGUSR1, [this](int) { mCalled.push_back(-1); });
  }
  loop.AddSignal(SIGUSR1, Note());
  ASSERT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
}

TEST_F(EventLoopRemoveSignal, ClosesTheSignalfdAndLeavesTheSignalBlockedAndPending) {
  EventLoop::BlockSignals({SIGUSR1});
  EventLoop loop;
  const int fd = test::NextFd();
  loop.AddSignal(SIGUSR1, Note());
  ASSERT_TRUE(test::IsOpen(fd));
  loop.RemoveSignal(SIGUSR1);
  EXPECT_FALSE(test::IsOpen(fd));
  EXPECT_TRUE(IsBlocked(SIGUSR1));
  ASSERT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  EXPECT_TRUE(IsPending(SIGUSR1));
  EXPECT_TRUE(mCalled.empty());
}

TEST_F(EventLoopRemoveSignal, LetsAnotherCallbackBeRegistered) {
  EventLoop::BlockSignals({SIGUSR1});
  EventLoop loop;
  loop.AddSignal(SIGUSR1, [this](int) { mCalled.push_back(-1); });
  loop.RemoveSignal(SIGUSR1);
  loop.AddSignal(SIGUSR1, Note());
  ASSERT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
}

TEST_F(EventLoopRemoveSignal, UnknownSignalChangesNothing) {
  EventLoop::BlockSignals({SIGUSR1});
  EventLoop loop;
  loop.AddSignal(SIGUSR1, Note());
  loop.RemoveSignal(SIGUSR2);
  ASSERT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  EXPECT_EQ(mCalled, (Signals{SIGUSR1}));
}

TEST_F(EventLoopRemoveSignal, LateOneRemovesWhateverHasTheDescriptorByThen) {
  EventLoop loop;
  const int number = test::NextFd();
  loop.AddSignal(SIGUSR1, Note());
  loop.RemoveHandler(number);
  const unsigned timer = loop.AddTimer(Milliseconds(3600000), [] {});
  ASSERT_TRUE(test::IsOpen(number));
  ASSERT_NE(timer, 0U);
  loop.RemoveSignal(SIGUSR1);
  EXPECT_FALSE(test::IsOpen(number));
}

TEST_F(EventLoopRemoveSignal, CallbackMayRemoveItsOwnSignalAndGoOn) {
  EventLoop::BlockSignals({SIGUSR1});
  EventLoop loop;
  const int fd = test::NextFd();
  bool open = true;
  std::string seen;
  loop.AddSignal(SIGUSR1, [&, text = std::string("captured, and long enough")](int signo) {
    loop.RemoveSignal(signo);
    open = test::IsOpen(fd);
    seen = text;
  });
  ASSERT_EQ(::raise(SIGUSR1), 0);
  RunOnePass(loop);
  EXPECT_FALSE(open);
  EXPECT_EQ(seen, "captured, and long enough");
}

TEST_F(EventLoopRemoveSignal, IsNeededAfterRemoveHandlerBeforeTheSignalCanBeAddedAgain) {
  EventLoop loop;
  const int fd = test::NextFd();
  loop.AddSignal(SIGUSR1, Note());
  loop.RemoveHandler(fd);
  EXPECT_FALSE(test::IsOpen(fd));
  loop.AddSignal(SIGUSR1, Note());
  EXPECT_FALSE(test::IsOpen(fd));
  loop.RemoveSignal(SIGUSR1);
  loop.AddSignal(SIGUSR1, Note());
  EXPECT_TRUE(test::IsOpen(fd));
}

}  // namespace
}  // namespace kiv::net
