#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/process.h>
#include <sys/file.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <iterator>
#include <memory>
#include <new>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"
#include "interpose.h"
#include "tests/child.h"
#include "tests/support.h"

namespace kiv::process {
namespace {

using internal::UniqueFd;
using test::CallLog;
using test::CallRecord;
using test::ChildCallLog;
using test::CountOpenFds;
using test::EventFd;
using test::FailCall;
using test::FailInChild;
using test::Fault;
using test::GiveFrom;
using test::HasNoChild;
using test::ReadFile;
using test::ReturnFrom;
using test::Subreaper;
using test::TempFolder;
using test::WriteFile;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

// There is none such: a child gets as far as execvp, and ends with 127.
constexpr char kNoProgram[] = "/nonexistent/program";

// A child that runs the exit handlers of its caller, in which a daemon's static objects end, ends with 99.
const pid_t kCaller = ::getpid();
const int kTrap = std::atexit([] {
  if (::getpid() != kCaller) {
    ::_exit(99);
  }
});

// The part of a child's calls that goes through the list of descriptors: from its open to its last read.
std::pair<Names::const_iterator, Names::const_iterator> ListOf(const Names& lines) {
  const auto isOpen = [](const std::string& line) { return line.find(" /proc/self/fd") != std::string::npos; };
  const auto isRead = [](const std::string& line) { return line.compare(0, 10, "getdents64") == 0; };
  const auto first = std::find_if(lines.begin(), lines.end(), isOpen);
  return {first, std::find_if(lines.rbegin(), Names::const_reverse_iterator(first), isRead).base()};
}

// The calls of a child without that part, the close behind it, and the memory that the arguments need: what differs
// from run to run.
Names WithoutInherited(const Names& lines) {
  const auto [first, last] = ListOf(lines);
  Names kept(lines.begin(), first);
  std::copy_if(
      last == first || last == lines.end() ? last : last + 1, lines.end(), std::back_inserter(kept),
      [](const std::string& line) { return line.compare(0, 5, "mmap ") != 0 && line.compare(0, 7, "munmap ") != 0; });
  return kept;
}

// The descriptors that are closed while the list of descriptors is read.
std::set<int> ClosedFromTheList(const Names& lines) {
  std::set<int> closed;
  const auto [first, last] = ListOf(lines);
  std::for_each(first, last, [&closed](const std::string& line) {
    if (line.compare(0, 6, "close ") == 0) {
      closed.insert(std::stoi(line.substr(6)));
    }
  });
  return closed;
}

std::set<int> OpenFds() {
  std::set<int> open;
  for (int fd = 0; fd < 1024; ++fd) {
    if (test::IsOpen(fd)) {
      open.insert(fd);
    }
  }
  return open;
}

bool Contains(const Names& lines, const std::string& line) {
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

std::string Line(const char* call, const std::vector<long long>& args, const std::string& data = "") {
  std::string line = call;
  for (const long long arg : args) {
    line += " " + std::to_string(arg);
  }
  return data.empty() ? line : line + " " + data;
}

// The exit codes of all children that there are, in rising order; -1 for one that a signal killed.
std::vector<int> ExitCodes() {
  std::vector<int> codes;
  for (int status = Subreaper::Next(); status != -1; status = Subreaper::Next()) {
    codes.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : -1);
  }
  std::sort(codes.begin(), codes.end());
  return codes;
}

const std::vector<std::pair<const char*, std::function<ExecResult()>>>& Runs() {
  static const std::vector<std::pair<const char*, std::function<ExecResult()>>> runs = {
      {"ExecWait", [] { return ExecWait(kNoProgram, {}, "", ""); }},
      {"ExecWaitCapture", [] { return ExecWaitCapture(kNoProgram, {}); }}};
  return runs;
}

TEST(ExecWaitFailure, WithoutAChildNothingIsAwaited) {
  const std::size_t before = CountOpenFds();
  for (const auto& [name, run] : Runs()) {
    for (const int error : {EAGAIN, ENOMEM}) {
      SCOPED_TRACE(name);
      const CallLog log;
      const Fault fault = FailCall("fork", error);

      const ExecResult result = run();

      EXPECT_EQ(errno, error);
      EXPECT_EQ(result.output, "");
      EXPECT_EQ(result.exitCode, 127);
      EXPECT_EQ(log.Of("waitpid").size(), 0U);
      EXPECT_EQ(CountOpenFds(), before);
    }
  }
}

TEST(ExecWaitFailure, InterruptedWaitIsRepeated) {
  for (const auto& [name, run] : Runs()) {
    SCOPED_TRACE(name);
    const Fault faults[] = {{"waitpid", -1, EINTR, 1}, {"waitpid", -1, EINTR, 2}, {"waitpid", -1, EINTR, 3}};
    const CallLog log;

    EXPECT_EQ(run().exitCode, 127);

    const std::vector<CallRecord> waits = log.Of("waitpid");
    ASSERT_EQ(waits.size(), 4U);
    EXPECT_GT(waits[3].args[0], 0);
    EXPECT_EQ(waits[3].args, (Args{waits[0].args[0], 0}));
    EXPECT_TRUE(HasNoChild());
  }
}

TEST(ExecWaitFailure, OtherErrorOfTheWaitEndsItWith127) {
  for (const auto& [name, run] : Runs()) {
    for (const int error : {ECHILD, EINVAL}) {
      SCOPED_TRACE(name);
      const CallLog log;
      const Fault fault = FailCall("waitpid", error);

      EXPECT_EQ(run().exitCode, 127);

      EXPECT_EQ(errno, error);
      EXPECT_EQ(log.Of("waitpid").size(), 1U);
      EXPECT_EQ(ExitCodes(), std::vector<int>{127}) << "the child is still there";
    }
  }
}

TEST(ExecWaitChild, SetsItselfUpInThisOrder) {
  const ChildCallLog log;

  EXPECT_EQ(ExecWait(kNoProgram, {"arg"}, "", "").exitCode, 127);

  constexpr int kFlags = O_WRONLY | O_CLOEXEC;
  const Names lines = WithoutInherited(log.Lines());
  ASSERT_EQ(lines.size(), 9U);
  EXPECT_EQ(lines[0], "close 0");
  EXPECT_EQ(lines[1], Line("open", {kFlags, 0}, "/dev/null"));
  EXPECT_EQ(lines[2], Line("open", {kFlags, 0}, "/dev/null"));
  EXPECT_EQ(lines[3], "dup2 0 1") << "the number of the standard input is the first that is free";
  EXPECT_EQ(lines[4].substr(lines[4].size() - 2), " 2");
  EXPECT_EQ(lines[5], "close 0");
  EXPECT_EQ(lines[6].substr(0, 6), "close ");
  EXPECT_EQ(lines[7], Line("pthread_sigmask", {SIG_SETMASK, 1}));
  EXPECT_EQ(lines[8], Line("execvp", {}, kNoProgram));
}

TEST(ExecWaitChild, CreatesOrTruncatesTheFiles) {
  const TempFolder folder;
  const std::string out = folder.Path() + "/out";
  const std::string err = folder.Path() + "/err";
  const ChildCallLog log;

  EXPECT_EQ(ExecWait(kNoProgram, {}, out, err).exitCode, 127);

  constexpr int kFlags = O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC;
  EXPECT_EQ(log.Lines()[1], Line("open", {kFlags, 0644}, out));
  EXPECT_EQ(log.Lines()[2], Line("open", {kFlags, 0644}, err));
}

// The other file is opened all the same, and closed again.
TEST(ExecWaitChild, FileThatCannotBeOpenedEndsItWith127) {
  for (const unsigned nth : {1U, 2U}) {
    SCOPED_TRACE(nth);
    const ChildCallLog log;
    const Fault fault = FailInChild("open", EACCES, nth);

    EXPECT_EQ(ExecWait("/bin/true", {}, "", "").exitCode, 127);

    const Names lines = log.Lines();
    ASSERT_EQ(lines.size(), 4U);
    EXPECT_EQ(lines[3], "close 0");
    EXPECT_TRUE(HasNoChild());
  }
}

TEST(ExecWaitChild, NoFileAtAllEndsItWith127) {
  const ChildCallLog log;
  const Fault out = FailInChild("open", ENOENT, 1);
  const Fault err = FailInChild("open", ENOENT, 2);

  EXPECT_EQ(ExecWait("/bin/true", {}, "", "").exitCode, 127);

  EXPECT_EQ(log.Lines().size(), 3U) << "nothing to close, nothing to run";
}

TEST(ExecWaitChild, FailuresWithoutASayDoNotStopIt) {
  const std::pair<const char*, unsigned> calls[] = {{"close", 1}, {"close", 2}, {"close", 3},
                                                    {"dup2", 1},  {"dup2", 2},  {"pthread_sigmask", 1}};
  for (const auto& [call, nth] : calls) {
    SCOPED_TRACE(std::string(call) + " " + std::to_string(nth));
    const ChildCallLog log;
    const Fault fault = FailInChild(call, EINTR, nth);

    EXPECT_EQ(ExecWait(kNoProgram, {}, "", "").exitCode, 127);

    EXPECT_EQ(WithoutInherited(log.Lines()).back(), Line("execvp", {}, kNoProgram));
  }
}

TEST(ExecWaitChild, FailingExecEndsItWith127) {
  for (const int error : {ENOENT, EACCES, ENOEXEC, E2BIG, ENOMEM}) {
    const Fault fault = FailInChild("execvp", error);
    EXPECT_EQ(ExecWait("/bin/true", {}, "", "").exitCode, 127) << error;
    EXPECT_TRUE(HasNoChild());
  }
}

TEST(ExecWaitCaptureFailure, WithoutAPipeNothingIsStarted) {
  const std::size_t before = CountOpenFds();
  const CallLog log;
  const Fault fault = FailCall("pipe2", EMFILE);

  const ExecResult result = ExecWaitCapture(kNoProgram, {});

  EXPECT_EQ(errno, EMFILE);
  EXPECT_EQ(result.output, "");
  EXPECT_EQ(result.exitCode, 127);
  EXPECT_EQ(log.Names(), Names{"pipe2"});
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(ExecWaitCaptureCalls, ReadsUntilTheEndThenWaits) {
  const std::size_t before = CountOpenFds();
  const CallLog log;

  EXPECT_EQ(ExecWaitCapture(kNoProgram, {}).exitCode, 127);

  ASSERT_EQ(log.Names(), (Names{"pipe2", "fork", "close", "read", "close", "waitpid"}));
  EXPECT_EQ(log.Of("pipe2")[0].args, Args{O_CLOEXEC});
  const long long readEnd = log.Of("close")[1].args[0];
  EXPECT_EQ(log.Of("read")[0].args, (Args{readEnd, 4096}));
  EXPECT_NE(log.Of("close")[0].args[0], readEnd) << "its own write end goes first";
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(ExecWaitCaptureCalls, ChildSetsItselfUpInThisOrder) {
  const ChildCallLog childLog;
  const CallLog log;

  (void)ExecWaitCapture(kNoProgram, {});

  const long long writeEnd = log.Of("close")[0].args[0];
  const long long readEnd = log.Of("close")[1].args[0];
  EXPECT_EQ(
      WithoutInherited(childLog.Lines()),
      (Names{"close 0", Line("close", {readEnd}), Line("dup2", {writeEnd, 1}), Line("dup2", {writeEnd, 2}),
             Line("close", {writeEnd}), Line("pthread_sigmask", {SIG_SETMASK, 1}), Line("execvp", {}, kNoProgram)}));
}

TEST(ExecWaitCaptureRead, AnyErrorEndsTheCollection) {
  const std::size_t before = CountOpenFds();
  for (const int error : {EINTR, EAGAIN, EIO}) {
    SCOPED_TRACE(error);
    const CallLog log;
    const Fault first = GiveFrom("read", "one ");
    const Fault second = GiveFrom("read", "two", 2);
    const Fault fault = FailCall("read", error, 3);

    const ExecResult result = ExecWaitCapture(kNoProgram, {});

    EXPECT_EQ(result.output, "one two") << "and is not repeated";
    EXPECT_EQ(result.exitCode, 127);
    EXPECT_EQ(log.Of("read").size(), 3U);
    EXPECT_TRUE(HasNoChild());
    EXPECT_EQ(CountOpenFds(), before);
  }
}

TEST(ExecWaitCaptureRead, KeepsEveryByte) {
  const std::string block(4096, '\0');
  const Fault first = GiveFrom("read", block);
  const Fault second = GiveFrom("read", "\n", 2);

  EXPECT_EQ(ExecWaitCapture(kNoProgram, {}).output, block + "\n");
}

TEST(ProcessFailure, SaysNothing) {
  const std::string output = test::OutputOf([] {
    const auto execWait = [] { (void)ExecWait(kNoProgram, {}, "", ""); };
    const auto capture = [] { (void)ExecWaitCapture(kNoProgram, {}); };
    const auto detached = [] { (void)StartProcessDetached(kNoProgram, {}); };
    const std::pair<const char*, std::function<void()>> failures[] = {
        {"fork", execWait},   {"waitpid", execWait}, {"pipe2", capture},    {"fork", capture},
        {"waitpid", capture}, {"fork", detached},    {"waitpid", detached}, {"fork", [] { (void)Daemonize(); }}};
    for (const auto& [call, run] : failures) {
      const Fault fault = FailCall(call, EAGAIN);
      run();
    }
    (void)DropRootPrivileges(1, static_cast<unsigned int>(-1));
  });

  EXPECT_EQ(output, "");
}

TEST(ExecWaitFailure, ExitHandlersAreSet) { EXPECT_EQ(kTrap, 0); }

// The program writes more than a pipe holds, and so ends only when nobody can read that any more.
TEST(ExecWaitCaptureRead, OutOfMemoryStillAwaitsTheChild) {
  const std::size_t before = CountOpenFds();
  const std::string path = "/usr/bin/head";
  const std::vector<std::string> args = {"-c", "1000000", "/dev/zero"};
  const auto capture = [&] {
    const Fault output = GiveFrom("read", std::string(100, 'x'));
    const Fault memory = FailCall("new", ENOMEM);
    (void)ExecWaitCapture(path, args);
  };

  EXPECT_THROW(capture(), std::bad_alloc);

  EXPECT_TRUE(HasNoChild());
  EXPECT_EQ(CountOpenFds(), before);
}

// Returns what `run` returns, in this process alone: a child that comes back here as well ends with 99.
int InThisProcess(const std::function<int()>& run) {
  const pid_t self = ::getpid();
  int result = -1;
  try {
    result = run();
  } catch (...) {
    result = -2;
  }
  if (::getpid() != self) {
    ::_exit(99);
  }
  return result;
}

// The child takes memory from the kernel: some for the list of arguments, and more for one of them that is long.
TEST(ExecChildMemory, LackOfItEndsTheChildWith127) {
  const std::vector<std::string> args = {std::string(100000, 'x')};
  const std::function<int()> runs[] = {[&] { return ExecWait("/bin/true", args, "", "").exitCode; },
                                       [&] { return ExecWaitCapture("/bin/true", args).exitCode; }};
  for (const std::function<int()>& run : runs) {
    for (const unsigned nth : {1U, 2U}) {
      const Fault fault = FailInChild("mmap", ENOMEM, nth);
      EXPECT_EQ(InThisProcess(run), 127) << nth;
      EXPECT_TRUE(HasNoChild());
    }
  }
}

// Another thread of the caller may hold the allocator's lock, which stays locked in the child.
TEST(ExecChildMemory, NoneIsTheAllocators) {
  const std::vector<std::string> args(20, std::string(1000, 'x'));
  EXPECT_TRUE(test::IsTrueInChild([&args] {
    (void)new Fault(FailInChild("new", ENOMEM));  // Must not come, and so must not end.
    return ExecWait("/bin/true", args, "", "").exitCode == 0;
  }));
}

TEST(ExecChildDescriptors, ClosesAllFromThreeOn) {
  const UniqueFd low = EventFd(0);
  const UniqueFd high(::fcntl(low.Get(), F_DUPFD, 200));  // Not close-on-exec.
  std::set<int> inherited = OpenFds();
  inherited.erase(inherited.begin(), inherited.lower_bound(3));
  const ChildCallLog log;

  (void)ExecWait(kNoProgram, {}, "", "");

  EXPECT_EQ(ClosedFromTheList(log.Lines()), inherited);
  EXPECT_TRUE(test::IsOpen(high.Get()));
}

TEST(ExecChildDescriptors, UnreadableListKeepsThemAll) {
  const ChildCallLog log;
  const Fault fault = FailInChild("open", ENOENT, 3);

  EXPECT_EQ(ExecWait(kNoProgram, {}, "", "").exitCode, 127);

  const Names lines = log.Lines();
  const auto [first, last] = ListOf(lines);
  ASSERT_NE(first, lines.end());
  EXPECT_EQ(first, last);
  EXPECT_EQ(std::count_if(first, lines.end(), [](const std::string& line) { return line.compare(0, 5, "close") == 0; }),
            0);
  EXPECT_EQ(WithoutInherited(lines).back(), Line("execvp", {}, kNoProgram));
}

TEST(ExecChildDescriptors, FailingReadKeepsTheRest) {
  const ChildCallLog log;
  const Fault fault = FailInChild("getdents64", EIO);

  EXPECT_EQ(ExecWait(kNoProgram, {}, "", "").exitCode, 127);

  EXPECT_EQ(ClosedFromTheList(log.Lines()), std::set<int>{});
  EXPECT_EQ(WithoutInherited(log.Lines()).back(), Line("execvp", {}, kNoProgram));
}

// An entry as the kernel gives it: linux_dirent64, see getdents(2).
std::string DirectoryEntry(const std::string& name) {
  const std::size_t size = (19 + name.size() + 1 + 7) / 8 * 8;
  std::string entry = std::string(16, '\0') + test::Octets(static_cast<std::uint16_t>(size)) + '\0' + name;
  entry.resize(size);
  return entry;
}

// With entries that the kernel never has there.
TEST(ExecChildDescriptors, OnlyWholeNumbersFromThreeOnCount) {
  const ChildCallLog log;
  std::string entries;
  for (const char* const name : {".", "..", ".5", "5a", "a5", "5 ", "-5", "0", "1", "2", "707"}) {
    entries += DirectoryEntry(name);
  }
  const std::string rest = DirectoryEntry("708");
  const Fault first("getdents64", static_cast<long long>(entries.size()), 0, 1, entries, 1);
  const Fault second("getdents64", static_cast<long long>(rest.size()), 0, 2, rest, 1);
  const Fault end("getdents64", 0, 0, 3, "", 1);

  EXPECT_EQ(ExecWait(kNoProgram, {}, "", "").exitCode, 127);

  EXPECT_EQ(ClosedFromTheList(log.Lines()), (std::set<int>{707, 708}));
}

// A case whose orphans come back to this process.
class OrphanTest : public testing::Test {
 private:
  Subreaper mReaper;
};

using StartProcessDetachedFailure = OrphanTest;
using StartProcessDetachedChild = OrphanTest;
using DaemonizeSuccess = OrphanTest;
using DaemonizeFailure = OrphanTest;

TEST(StartProcessDetached, WithoutAChildItIsFalse) {
  const CallLog log;
  const Fault fault = FailCall("fork", EAGAIN);

  EXPECT_FALSE(StartProcessDetached(kNoProgram, {}));

  EXPECT_EQ(errno, EAGAIN);
  EXPECT_EQ(log.Names(), Names{"fork"});
}

TEST_F(StartProcessDetachedFailure, InterruptedWaitIsRepeated) {
  const CallLog log;
  const Fault faults[] = {{"waitpid", -1, EINTR, 1}, {"waitpid", -1, EINTR, 2}};

  EXPECT_TRUE(StartProcessDetached(kNoProgram, {}));

  const std::vector<CallRecord> waits = log.Of("waitpid");
  ASSERT_EQ(waits.size(), 3U);
  EXPECT_GT(waits[0].args[0], 0);
  EXPECT_EQ(waits[2].args, (Args{waits[0].args[0], 0}));
  EXPECT_EQ(ExitCodes(), std::vector<int>{127}) << "the program's own process, and no other";
}

TEST_F(StartProcessDetachedFailure, OtherErrorOfTheWaitIsNotTold) {
  const Fault fault = FailCall("waitpid", ECHILD);

  EXPECT_TRUE(StartProcessDetached(kNoProgram, {}));

  EXPECT_EQ(ExitCodes(), (std::vector<int>{0, 127}));
}

TEST_F(StartProcessDetachedChild, SetsItselfUpInThisOrder) {
  const ChildCallLog log;

  EXPECT_TRUE(StartProcessDetached(kNoProgram, {}));

  EXPECT_EQ(ExitCodes(), std::vector<int>{127});
  EXPECT_EQ(log.Lines(1), (Names{"setsid", "fork"}));
  const Names lines = WithoutInherited(log.Lines(2));
  ASSERT_EQ(lines.size(), 7U);
  EXPECT_EQ(lines[0], Line("open", {O_RDWR | O_CLOEXEC, 0}, "/dev/null"));
  const std::string null = lines[4].substr(std::string("close ").size());
  EXPECT_EQ(Names(lines.begin() + 1, lines.end()),
            (Names{"dup2 " + null + " 0", "dup2 " + null + " 1", "dup2 " + null + " 2", "close " + null,
                   Line("pthread_sigmask", {SIG_SETMASK, 1}), Line("execvp", {}, kNoProgram)}));
}

TEST_F(StartProcessDetachedChild, EarlyFailureIsNotTold) {
  const std::pair<const char*, Names> steps[] = {{"setsid", {"setsid"}}, {"fork", {"setsid", "fork"}}};
  for (const auto& [call, lines] : steps) {
    SCOPED_TRACE(call);
    const ChildCallLog log;
    const Fault fault = FailInChild(call, EPERM);

    EXPECT_TRUE(StartProcessDetached(kNoProgram, {}));

    EXPECT_EQ(ExitCodes(), std::vector<int>{});
    EXPECT_EQ(log.Lines(1), lines);
    EXPECT_EQ(log.Lines(2), Names{});
  }
}

// The exit status that the caller drops.
TEST_F(StartProcessDetachedChild, EarlyFailureEndsTheChildWithOne) {
  for (const char* const call : {"setsid", "fork"}) {
    const Fault wait = FailCall("waitpid", ECHILD);
    const Fault fault = FailInChild(call, EPERM);

    EXPECT_TRUE(StartProcessDetached(kNoProgram, {}));

    EXPECT_EQ(ExitCodes(), std::vector<int>{1}) << call;
  }
}

TEST_F(StartProcessDetachedChild, WithoutANullDeviceKeepsTheStandardDescriptors) {
  const ChildCallLog log;
  const Fault fault = FailInChild("open", ENOENT, 1, 2);

  EXPECT_TRUE(StartProcessDetached(kNoProgram, {}));

  EXPECT_EQ(ExitCodes(), std::vector<int>{127});
  EXPECT_EQ(WithoutInherited(log.Lines(2)),
            (Names{Line("open", {O_RDWR | O_CLOEXEC, 0}, "/dev/null"), Line("pthread_sigmask", {SIG_SETMASK, 1}),
                   Line("execvp", {}, kNoProgram)}));
}

TEST_F(StartProcessDetachedChild, FailingDup2DoesNotStopIt) {
  for (const unsigned nth : {1U, 2U, 3U}) {
    const ChildCallLog log;
    const Fault fault = FailInChild("dup2", EBUSY, nth, 2);

    EXPECT_TRUE(StartProcessDetached(kNoProgram, {}));

    EXPECT_EQ(ExitCodes(), std::vector<int>{127});
    EXPECT_EQ(WithoutInherited(log.Lines(2)).size(), 7U) << nth;
  }
}

// The descriptor of the null device is then one of the three, and stays.
TEST_F(StartProcessDetachedChild, NullDeviceAmongTheStandardDescriptorsIsNotClosed) {
  const ChildCallLog log;
  const Fault low("open", 1, 0, 1, "", 2);

  EXPECT_TRUE(StartProcessDetached(kNoProgram, {}));

  EXPECT_EQ(ExitCodes(), std::vector<int>{127});
  const Names lines = WithoutInherited(log.Lines(2));
  EXPECT_EQ(Names(lines.begin() + 1, lines.begin() + 4), (Names{"dup2 1 0", "dup2 1 1", "dup2 1 2"}));
  EXPECT_FALSE(Contains(lines, "close 1"));
}

TEST_F(StartProcessDetachedChild, LackOfMemoryEndsItWith127) {
  const Fault fault = FailInChild("mmap", ENOMEM, 1, 2);

  EXPECT_EQ(InThisProcess([] { return StartProcessDetached("/bin/true", {}) ? 1 : 0; }), 1);

  EXPECT_EQ(ExitCodes(), std::vector<int>{127});
}

// Runs Daemonize in a child, and `onReturn` in whatever process it returns in, whose exit code that is. Returns the
// exit codes of all of them.
std::vector<int> Daemonized(const std::function<int(int)>& onReturn) {
  const pid_t child = ::fork();
  if (child == 0) {
    (void)::alarm(60);
    ::_exit(onReturn(Daemonize()));
  }
  return ExitCodes();
}

// The generations as seen from a test: the caller of Daemonize is 1.
constexpr unsigned kIntermediate = 2;
constexpr unsigned kDaemon = 3;
constexpr int kReturned = 40;

TEST_F(DaemonizeSuccess, MakesTheseCallsInThisOrder) {
  const ChildCallLog log;

  EXPECT_EQ(Daemonized([](int result) { return kReturned + result; }), (std::vector<int>{0, 0, kReturned}));

  EXPECT_EQ(log.Lines(1), Names{"fork"});
  EXPECT_EQ(log.Lines(kIntermediate), (Names{"setsid", "fork"}));
  const Names lines = WithoutInherited(log.Lines(kDaemon));
  ASSERT_EQ(lines.size(), 8U);
  const std::string null = lines[6].substr(std::string("close ").size());
  EXPECT_EQ(lines,
            (Names{"umask 0", "chdir /", Line("open", {O_RDWR | O_CLOEXEC, 0}, "/dev/null"), "dup2 " + null + " 0",
                   "dup2 " + null + " 1", "dup2 " + null + " 2", "close " + null, Line("signal", {SIGPIPE, 1})}));
}

// The list itself is open then, with a number from three on, and is not closed as one of its entries.
TEST_F(DaemonizeSuccess, ClosesWhatItInherits) {
  const UniqueFd fd(::fcntl(EventFd(0).Get(), F_DUPFD, 200));
  std::set<int> inherited = OpenFds();
  inherited.erase(inherited.begin(), inherited.lower_bound(3));
  const ChildCallLog log;

  const std::vector<int> codes = Daemonized([&](int) { return test::IsOpen(fd.Get()) ? 1 : kReturned; });

  EXPECT_EQ(codes, (std::vector<int>{0, 0, kReturned}));
  EXPECT_EQ(ClosedFromTheList(log.Lines(kDaemon)), inherited);
}

TEST(DaemonizeFirstFork, FailureReturnsOneToTheCaller) {
  const ChildCallLog log;
  const Fault fault = FailInChild("fork", EAGAIN);

  const std::vector<int> codes = Daemonized([](int result) { return errno == EAGAIN ? kReturned + result : 2; });

  EXPECT_EQ(codes, std::vector<int>{kReturned + 1});
  EXPECT_EQ(log.Lines(1), Names{"fork"}) << "nothing else has happened";
}

struct DaemonStep {
  const char* call;
  unsigned nth;
  unsigned generation;
  std::vector<int> codes;
  std::size_t calls;  // That the failing process makes, with the last one being this.
  std::string last;
};

TEST_F(DaemonizeFailure, LaterStepEndsItsProcessWithOne) {
  const DaemonStep steps[] = {
      {"setsid", 1, kIntermediate, {0, 1}, 1, "setsid"}, {"fork", 1, kIntermediate, {0, 1}, 2, "fork"},
      {"chdir", 1, kDaemon, {0, 0, 1}, 2, "chdir"},      {"open", 1, kDaemon, {0, 0, 1}, 3, "open"},
      {"dup2", 1, kDaemon, {0, 0, 1}, 5, "close"},       {"dup2", 2, kDaemon, {0, 0, 1}, 6, "close"},
      {"dup2", 3, kDaemon, {0, 0, 1}, 7, "close"}};
  for (const DaemonStep& step : steps) {
    SCOPED_TRACE(std::string(step.call) + " " + std::to_string(step.nth));
    const ChildCallLog log;
    const Fault fault = FailInChild(step.call, EPERM, step.nth, step.generation);

    EXPECT_EQ(Daemonized([](int) { return kReturned; }), step.codes);

    const Names lines = log.Lines(step.generation);
    ASSERT_EQ(lines.size(), step.calls);
    EXPECT_EQ(lines.back().compare(0, step.last.size(), step.last), 0) << lines.back();
    EXPECT_EQ(log.Lines(kDaemon + 1), Names{});
  }
}

TEST_F(DaemonizeFailure, UnreadableListKeepsTheDescriptors) {
  const UniqueFd fd(::fcntl(EventFd(0).Get(), F_DUPFD, 200));
  const Fault fault = FailInChild("open", ENOENT, 2, kDaemon);

  const std::vector<int> codes =
      Daemonized([&](int result) { return result == 0 && test::IsOpen(fd.Get()) ? kReturned : 2; });

  EXPECT_EQ(codes, (std::vector<int>{0, 0, kReturned}));
}

TEST_F(DaemonizeFailure, RestDoesNotStopIt) {
  const std::pair<const char*, unsigned> calls[] = {{"signal", 1}, {"close", 1}, {"getdents64", 1}};
  for (const auto& [call, nth] : calls) {
    const Fault fault = FailInChild(call, EIO, nth, kDaemon);

    EXPECT_EQ(Daemonized([](int result) { return kReturned + result; }), (std::vector<int>{0, 0, kReturned})) << call;
  }
}

constexpr unsigned int kUid = 0xFFFFFFFE;
constexpr unsigned int kGid = 4321;

// Answers all calls of one DropRootPrivileges; nobody's rights change. The first `succeeding` of its steps succeed, the
// next one does not.
class InventedIds {
 public:
  explicit InventedIds(std::size_t succeeding = 99, int error = EPERM) {
    const std::pair<const char*, long long> steps[] = {{"setgroups", 0}, {"setgid", 0},     {"setuid", 0},
                                                       {"getuid", kUid}, {"geteuid", kUid}, {"getgid", kGid},
                                                       {"getegid", kGid}};
    for (const auto& [call, result] : steps) {
      if (mFaults.size() == succeeding) {
        mFaults.push_back(std::make_unique<Fault>(call, result == 0 ? -1 : 0, error, 1U));
        return;
      }
      mFaults.push_back(std::make_unique<Fault>(call, result, 0, 1U));
    }
  }

 private:
  std::vector<std::unique_ptr<Fault>> mFaults;
};

TEST(DropRootPrivileges, DropsGroupsThenGroupThenUserAndLooks) {
  const InventedIds ids;
  const CallLog log;

  EXPECT_TRUE(DropRootPrivileges(kUid, kGid));

  Names names = log.Names();
  ASSERT_EQ(names.size(), 7U);
  EXPECT_EQ(Names(names.begin(), names.begin() + 3), (Names{"setgroups", "setgid", "setuid"}));
  std::sort(names.begin() + 3, names.end());
  EXPECT_EQ(Names(names.begin() + 3, names.end()), (Names{"getegid", "geteuid", "getgid", "getuid"}));
  EXPECT_EQ(log.Of("setgroups")[0].args, (Args{0, false}));
  EXPECT_EQ(log.Of("setgid")[0].args, Args{kGid});
  EXPECT_EQ(log.Of("setuid")[0].args, Args{kUid});
}

TEST(DropRootPrivileges, FirstFailureStopsIt) {
  const Names steps = {"setgroups", "setgid", "setuid"};
  for (std::size_t i = 0; i < steps.size(); ++i) {
    const InventedIds ids(i, i == 2 ? EAGAIN : EPERM);
    const CallLog log;

    EXPECT_FALSE(DropRootPrivileges(kUid, kGid));

    EXPECT_EQ(errno, i == 2 ? EAGAIN : EPERM);
    EXPECT_EQ(log.Names(), Names(steps.begin(), steps.begin() + static_cast<std::ptrdiff_t>(i) + 1));
  }
}

TEST(DropRootPrivileges, OneWrongIdAfterwardsIsAFailure) {
  const std::pair<const char*, long long> ids[] = {
      {"getuid", kUid}, {"geteuid", kUid}, {"getgid", kGid}, {"getegid", kGid}};
  for (const auto& [wrong, value] : ids) {
    (void)value;
    std::vector<std::unique_ptr<Fault>> faults;
    for (const char* const set : {"setgroups", "setgid", "setuid"}) {
      faults.push_back(std::make_unique<Fault>(set, 0, 0, 1U));
    }
    for (const auto& [call, id] : ids) {
      faults.push_back(std::make_unique<Fault>(call, std::string(call) == wrong ? 0 : id, 0, 1U));
      if (std::string(call) == wrong) {
        break;
      }
    }
    EXPECT_FALSE(DropRootPrivileges(kUid, kGid)) << wrong;
  }
}

// A pid file in a folder of its own.
class PidFilePath {
 public:
  explicit PidFilePath(const std::string& content) { WriteFile(Get(), content); }
  std::string Get() const { return mFolder.Path() + "/pid"; }
  std::string Content() const { return ReadFile(Get()); }

  // Tells whether nobody has it locked.
  bool IsFree() const {
    const UniqueFd fd(::open(Get().c_str(), O_RDWR | O_CLOEXEC));
    return fd.IsValid() && ::flock(fd.Get(), LOCK_EX | LOCK_NB) == 0;
  }

 private:
  TempFolder mFolder;
};

std::string OwnPid() { return std::to_string(::getpid()); }

TEST(PidFileLock, MakesTheseCallsOnANewFile) {
  const TempFolder folder;
  const std::string path = folder.Path() + "/pid";
  PidFile file(path);
  const CallLog log;

  ASSERT_TRUE(file.Lock());

  ASSERT_EQ(log.Names(), (Names{"open", "flock", "read", "write", "fsync"}));
  EXPECT_EQ(log.Of("open")[0].args, (Args{O_RDWR | O_CREAT | O_CLOEXEC, 0644}));
  EXPECT_EQ(log.Of("open")[0].data, path);
  const long long fd = log.Of("flock")[0].args[0];
  EXPECT_EQ(log.Of("flock")[0].args, (Args{fd, LOCK_EX | LOCK_NB}));
  EXPECT_EQ(log.Of("read")[0].args, (Args{fd, 31}));
  EXPECT_EQ(log.Of("write")[0].data, OwnPid());
  EXPECT_EQ(log.Of("fsync")[0].args, Args{fd});
}

TEST(PidFileLock, MakesTheseCallsOnAStaleFile) {
  const PidFilePath path("12345");
  PidFile file(path.Get());
  const CallLog log;
  const Fault fault = FailCall("kill", ESRCH);

  ASSERT_TRUE(file.Lock());

  ASSERT_EQ(log.Names(), (Names{"open", "flock", "read", "kill", "ftruncate", "lseek", "write", "fsync"}));
  EXPECT_EQ(log.Of("kill")[0].args, (Args{12345, 0}));
  const long long fd = log.Of("flock")[0].args[0];
  EXPECT_EQ(log.Of("ftruncate")[0].args, (Args{fd, 0}));
  EXPECT_EQ(log.Of("lseek")[0].args, (Args{fd, 0, SEEK_SET}));
  EXPECT_EQ(path.Content(), OwnPid());
}

struct LockStep {
  const char* call;
  int error;
  Names calls;
  std::string content;  // What is left in the file.
};

TEST(PidFileLock, FailingStepLeavesNothingOpenOrLocked) {
  const LockStep steps[] = {
      {"open", EACCES, {"open"}, "stale"},
      {"flock", EWOULDBLOCK, {"open", "flock", "close"}, "stale"},
      {"flock", EINTR, {"open", "flock", "close"}, "stale"},
      {"ftruncate", EIO, {"open", "flock", "read", "ftruncate", "flock", "close"}, "stale"},
      {"lseek", EINVAL, {"open", "flock", "read", "ftruncate", "lseek", "flock", "close"}, ""},
      {"write", ENOSPC, {"open", "flock", "read", "ftruncate", "lseek", "write", "flock", "close"}, ""},
      {"write", EINTR, {"open", "flock", "read", "ftruncate", "lseek", "write", "flock", "close"}, ""},
      {"fsync", EIO, {"open", "flock", "read", "ftruncate", "lseek", "write", "fsync", "flock", "close"}, OwnPid()},
  };
  for (const LockStep& step : steps) {
    SCOPED_TRACE(std::string(step.call) + " " + std::to_string(step.error));
    const PidFilePath path("stale");
    const std::size_t before = CountOpenFds();
    {
      PidFile file(path.Get());
      const CallLog log;
      const Fault fault = FailCall(step.call, step.error);

      EXPECT_FALSE(file.Lock());

      EXPECT_EQ(errno, step.error);
      EXPECT_EQ(log.Names(), step.calls);
    }
    EXPECT_EQ(CountOpenFds(), before);
    EXPECT_EQ(path.Content(), step.content) << "and the file is not removed";
    EXPECT_TRUE(path.IsFree());
  }
}

TEST(PidFileLock, ShortWriteIsAFailure) {
  for (const long long written : {0LL, 1LL}) {
    const PidFilePath path("");
    const std::size_t before = CountOpenFds();
    PidFile file(path.Get());
    const CallLog log;
    const Fault fault = ReturnFrom("write", written);

    EXPECT_FALSE(file.Lock());

    EXPECT_EQ(log.Names(), (Names{"open", "flock", "read", "write", "flock", "close"}));
    EXPECT_EQ(log.Of("flock")[1].args[1], LOCK_UN);
    EXPECT_EQ(CountOpenFds(), before);
    EXPECT_TRUE(path.IsFree());
  }
}

TEST(PidFileLock, FailingCleanUpHidesNoReason) {
  const PidFilePath path("");
  PidFile file(path.Get());
  const Fault fault = FailCall("fsync", EIO);
  const Fault unlock = FailCall("flock", EBADF, 2);
  const Fault close = FailCall("close", EDOM);

  EXPECT_FALSE(file.Lock());

  EXPECT_EQ(errno, EIO);
}

// It is not truncated, so what it holds is only written over.
TEST(PidFileLock, UnreadableFileIsOverwrittenAsItIs) {
  const std::string old(20, '9');
  for (const int error : {EIO, EINTR}) {
    const PidFilePath path(old);
    PidFile file(path.Get());
    const CallLog log;
    const Fault fault = FailCall("read", error);

    EXPECT_TRUE(file.Lock());

    EXPECT_EQ(log.Names(), (Names{"open", "flock", "read", "write", "fsync"}));
    EXPECT_EQ(path.Content(), OwnPid() + old.substr(OwnPid().size()));
  }
}

TEST(PidFileLock, LiveHolderStopsItAndIsLeftUntouched) {
  for (const int error : {0, EPERM}) {
    const PidFilePath path("12345");
    const std::size_t before = CountOpenFds();
    PidFile file(path.Get());
    const CallLog log;
    const Fault fault("kill", error == 0 ? 0 : -1, error, 1);

    EXPECT_FALSE(file.Lock());

    EXPECT_EQ(log.Names(), (Names{"open", "flock", "read", "kill", "flock", "close"}));
    EXPECT_EQ(log.Of("flock")[1].args[1], LOCK_UN);
    EXPECT_EQ(path.Content(), "12345");
    EXPECT_EQ(CountOpenFds(), before);
    EXPECT_TRUE(path.IsFree());
  }
}

// What was read is the whole text that counts.
TEST(PidFileLock, OnlyANumberInTheRangeIsAskedFor) {
  const std::string tooLong = "0000000000000000000000000000001";  // 31 bytes: the next one is not seen.
  const std::pair<std::string, int> contents[] = {{"1", 1},
                                                  {"4194304", 4194304},
                                                  {" 77", 77},
                                                  {"+77", 77},
                                                  {tooLong, 1},
                                                  {tooLong + "9", 1},
                                                  {"4194305", 0},
                                                  {"0", 0},
                                                  {"-5", 0},
                                                  {"-1", 0},
                                                  {"abc", 0},
                                                  {"12345\n", 0},
                                                  {"12345 ", 0},
                                                  {"12a", 0},
                                                  {"\n", 0},
                                                  {" ", 0},
                                                  {"99999999999999999999", 0},
                                                  {std::string("\0"
                                                               "12345",
                                                               6),
                                                   0},
                                                  {std::string("77\0x", 4), 77}};
  for (const auto& [content, pid] : contents) {
    SCOPED_TRACE(testing::PrintToString(content));
    const PidFilePath path(content);
    PidFile file(path.Get());
    const CallLog log;
    std::optional<Fault> dead;
    if (pid != 0) {
      dead.emplace("kill", -1, ESRCH, 1U);
    }

    EXPECT_TRUE(file.Lock());

    ASSERT_EQ(log.Of("kill").size(), pid == 0 ? 0U : 1U);
    if (pid != 0) {
      EXPECT_EQ(log.Of("kill")[0].args, (Args{pid, 0}));
    }
    EXPECT_EQ(path.Content(), OwnPid());
  }
}

TEST(PidFileDestruction, UnlocksThenClosesThenRemoves) {
  const TempFolder folder;
  const std::string path = folder.Path() + "/pid";
  const std::size_t before = CountOpenFds();
  auto file = std::make_unique<PidFile>(path);
  ASSERT_TRUE(file->Lock());
  EXPECT_EQ(CountOpenFds(), before + 1);
  const CallLog log;

  file.reset();

  ASSERT_EQ(log.Names(), (Names{"flock", "close", "unlink"}));
  const long long fd = log.Of("close")[0].args[0];
  EXPECT_EQ(log.Of("flock")[0].args, (Args{fd, LOCK_UN}));
  EXPECT_EQ(log.Of("unlink")[0].data, path);
  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_FALSE(std::filesystem::exists(path));
}

TEST(PidFileDestruction, GoesOnAfterAFailure) {
  for (const char* const call : {"flock", "close", "unlink"}) {
    const TempFolder folder;
    const std::size_t before = CountOpenFds();
    auto file = std::make_unique<PidFile>(folder.Path() + "/pid");
    ASSERT_TRUE(file->Lock());
    const CallLog log;
    const Fault fault = FailCall(call, EIO);

    file.reset();

    EXPECT_EQ(log.Names(), (Names{"flock", "close", "unlink"})) << call;
    EXPECT_EQ(CountOpenFds(), before);
  }
}

TEST(PidFileDestruction, UnlockedOneMakesNoCall) {
  const PidFilePath path("content");
  const CallLog log;
  { const PidFile file(path.Get()); }

  EXPECT_EQ(log.Names(), Names{});
  EXPECT_EQ(path.Content(), "content");
}

TEST(GetProcessName, ReadsFifteenBytesOfCommAndCloses) {
  const std::size_t before = CountOpenFds();
  const CallLog log;

  EXPECT_FALSE(GetProcessName(::getpid()).empty());

  ASSERT_EQ(log.Names(), (Names{"open", "read", "close"}));
  EXPECT_EQ(log.Of("open")[0].args, (Args{O_RDONLY | O_CLOEXEC, 0}));
  EXPECT_EQ(log.Of("open")[0].data, "/proc/" + OwnPid() + "/comm");
  const long long fd = log.Of("close")[0].args[0];
  EXPECT_EQ(log.Of("read")[0].args, (Args{fd, 15}));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(GetProcessName, DropsOneNewlineAtTheEnd) {
  const std::pair<std::string, std::string> names[] = {{"sh\n", "sh"},
                                                       {"sh", "sh"},
                                                       {"a\n\n", "a\n"},
                                                       {"\n", ""},
                                                       {"exactly-15-byte", "exactly-15-byte"},
                                                       {"fourteen-bytes\n", "fourteen-bytes"},
                                                       {std::string("a\0b\n", 4), std::string("a\0b", 3)}};
  for (const auto& [bytes, name] : names) {
    const Fault fault = GiveFrom("read", bytes);
    EXPECT_EQ(GetProcessName(::getpid()), name);
  }
}

TEST(GetProcessName, FailureGivesNoNameAndKeepsItsReason) {
  const std::size_t before = CountOpenFds();
  for (const int error : {ENOENT, EMFILE, EACCES}) {
    const CallLog log;
    const Fault fault = FailCall("open", error);
    EXPECT_EQ(GetProcessName(::getpid()), "");
    EXPECT_EQ(errno, error);
    EXPECT_EQ(log.Names(), Names{"open"});
  }
  for (const int error : {ESRCH, EINTR}) {
    const CallLog log;
    const Fault fault = FailCall("read", error);
    const Fault close = FailCall("close", EDOM);
    EXPECT_EQ(GetProcessName(::getpid()), "");
    EXPECT_EQ(errno, error);
    EXPECT_EQ(log.Names(), (Names{"open", "read", "close"}));
  }
  const Fault fault = ReturnFrom("read", 0);
  EXPECT_EQ(GetProcessName(::getpid()), "");
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(GetProcessName, AnyNumberHasAPath) {
  for (const int pid : {INT_MIN, -1, 0, INT_MAX}) {
    const CallLog log;
    const Fault fault = FailCall("open", ENOENT);
    EXPECT_EQ(GetProcessName(pid), "");
    EXPECT_EQ(log.Of("open")[0].data, "/proc/" + std::to_string(pid) + "/comm");
  }
}

// The entries of /proc that a scan meets. The processes among them, in their order, have these names.
class InventedProcesses {
 public:
  InventedProcesses(const Names& entries, const Names& names) {
    unsigned nth = 0;
    for (const std::string& entry : entries) {
      mFaults.push_back(std::make_unique<Fault>("readdir", 1, 0, ++nth, entry));
    }
    mFaults.push_back(std::make_unique<Fault>("readdir", 0, 0, ++nth));
    nth = 0;
    for (const std::string& name : names) {
      ++nth;
      mFaults.push_back(std::make_unique<Fault>("open", EventFd(0).Release(), 0, nth));
      mFaults.push_back(std::make_unique<Fault>("read", static_cast<long long>(name.size()), 0, nth, name));
    }
  }

 private:
  std::vector<std::unique_ptr<Fault>> mFaults;
};

TEST(ProcessScan, SkipsWhatIsNoProcess) {
  const InventedProcesses processes({".", "..", "self", "net", "1a", "a1", "-5", "+5", " 5", "0", "000", "12", "0034"},
                                    {"daemon\n", "daemon\n"});
  const CallLog log;

  EXPECT_EQ(GetPidsOf("daemon"), (std::vector<int>{12, 34}));

  ASSERT_EQ(log.Of("open").size(), 2U);
  EXPECT_EQ(log.Of("opendir")[0].data, "/proc");
  EXPECT_EQ(log.Of("open")[0].data, "/proc/12/comm");
  EXPECT_EQ(log.Of("open")[1].data, "/proc/34/comm");
  EXPECT_EQ(log.Of("closedir").size(), 1U);
}

TEST(ProcessScan, GoesOnAfterAProcessWithoutAName) {
  const InventedProcesses processes({"12", "34", "56"}, {"daemon\n", "", "daemon\n"});

  EXPECT_EQ(GetPidsOf("daemon"), (std::vector<int>{12, 56}));
}

TEST(ProcessScan, UnreadableListYieldsNothing) {
  const std::size_t before = CountOpenFds();
  const std::string own = GetProcessName(::getpid());
  {
    const CallLog log;
    const Fault first = FailCall("opendir", EMFILE);
    const Fault second = FailCall("opendir", EMFILE, 2);
    EXPECT_EQ(GetPidsOf(own), std::vector<int>{});
    EXPECT_EQ(errno, EMFILE);
    EXPECT_FALSE(KillByName({own}, 0));
    EXPECT_EQ(log.Names(), (Names{"opendir", "opendir"}));
  }
  const CallLog log;
  const Fault fault = FailCall("readdir", EIO);
  EXPECT_EQ(GetPidsOf(own), std::vector<int>{});
  EXPECT_EQ(errno, EIO) << "not what closing the list leaves";
  EXPECT_EQ(log.Names(), (Names{"opendir", "readdir", "closedir"}));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(ProcessScan, FailingReadKeepsWhatWasFound) {
  const Fault first("readdir", 1, 0, 1, "12");
  const Fault end = FailCall("readdir", EIO, 2);
  const Fault comm = ReturnFrom("open", EventFd(0).Release());
  const Fault name = GiveFrom("read", "daemon\n");
  const Fault close = FailCall("closedir", EIO);

  EXPECT_EQ(GetPidsOf("daemon"), std::vector<int>{12});
}

TEST(ProcessScan, NothingToLookForIsNotLookedFor) {
  const CallLog log;

  EXPECT_EQ(GetPidsOf(""), std::vector<int>{});
  EXPECT_TRUE(KillByName({}, SIGTERM));

  EXPECT_EQ(log.Names(), Names{});
}

TEST(KillByName, SignalsEveryMatchOnce) {
  const InventedProcesses processes({"0", "12", "34", "56", "78"}, {"one\n", "two\n", "three\n", "one\n"});
  const CallLog log;
  const Fault kills[] = {{"kill", 0, 0, 1}, {"kill", 0, 0, 2}, {"kill", 0, 0, 3}};

  EXPECT_TRUE(KillByName({"three", "one", "one"}, SIGHUP));

  const std::vector<CallRecord> sent = log.Of("kill");
  ASSERT_EQ(sent.size(), 3U);
  EXPECT_EQ(sent[0].args, (Args{12, SIGHUP}));
  EXPECT_EQ(sent[1].args, (Args{56, SIGHUP}));
  EXPECT_EQ(sent[2].args, (Args{78, SIGHUP}));
}

TEST(KillByName, OneSuccessIsEnough) {
  for (const unsigned successful : {1U, 2U}) {
    const InventedProcesses processes({"12", "34"}, {"one\n", "one\n"});
    const Fault kill("kill", 0, 0, successful);
    const Fault fault = FailCall("kill", EPERM, 3 - successful);
    EXPECT_TRUE(KillByName({"one"}, SIGHUP)) << successful;
  }
}

TEST(KillByName, FailuresAloneAreAFailure) {
  const InventedProcesses processes({"12", "34"}, {"one\n", "one\n"});
  const Fault first = FailCall("kill", ESRCH, 1);
  const Fault second = FailCall("kill", EPERM, 2);

  EXPECT_FALSE(KillByName({"one"}, SIGHUP));
}

// With -1 for one of these, kill(2) would mean every process there is.
TEST(KillByName, NumberBeyondTheRangeIsNoOtherProcess) {
  const InventedProcesses processes({"4294967295", "99999999999999999999"}, {"one\n", "one\n"});
  const CallLog log;
  const Fault kills[] = {{"kill", -1, ESRCH, 1}, {"kill", -1, ESRCH, 2}};

  EXPECT_FALSE(KillByName({"one"}, SIGHUP));

  for (const CallRecord& call : log.Of("kill")) {
    EXPECT_EQ(call.args, (Args{INT_MAX, SIGHUP}));
  }
}

TEST(IsProcessAlive, NoProcessIsNotAskedFor) {
  const CallLog log;
  for (const int pid : {0, -1, -2, INT_MIN}) {
    EXPECT_FALSE(IsProcessAlive(pid)) << pid;
  }

  EXPECT_EQ(log.Names(), Names{});
}

TEST(IsProcessAlive, SuccessAndLackOfPermissionMeanAlive) {
  const std::pair<int, bool> errors[] = {{0, true}, {EPERM, true}, {ESRCH, false}, {EINVAL, false}, {EACCES, false}};
  for (const auto& [error, isAlive] : errors) {
    const CallLog log;
    const Fault fault("kill", error == 0 ? 0 : -1, error, 1);

    EXPECT_EQ(IsProcessAlive(1), isAlive) << error;

    ASSERT_EQ(log.Names(), Names{"kill"});
    EXPECT_EQ(log.Of("kill")[0].args, (Args{1, 0}));
  }
}

}  // namespace
}  // namespace kiv::process
