#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/process.h>
#include <sys/ioctl.h>
#include <sys/time.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "internal/unique_fd.h"
#include "tests/child.h"
#include "tests/support.h"

namespace kiv::process {
namespace {

using internal::UniqueFd;
using test::Fifo;
using test::Subreaper;
using Strings = std::vector<std::string>;
using Report = std::map<std::string, std::string>;

pid_t ToPid(const std::string& text) { return static_cast<pid_t>(std::strtol(text.c_str(), nullptr, 10)); }

Report ReadReport(const std::string& path) {
  Report report;
  std::istringstream lines(test::ReadFile(path));
  for (std::string key, value; lines >> key && std::getline(lines >> std::ws, value);) {
    report[key] = value;
  }
  return report;
}

// The tests take the place of the system's reaper: they wait for the program and learn how it ended.
class StartDetached : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(test::HasNoChild());
    EXPECT_EQ(test::CountOpenFds(), mDescriptors);
  }

  std::string In(const std::string& name) const { return mFolder.Path() + "/" + name; }

  // Starts a program and waits for its end. Returns its exit code; 128 and more is a signal's, -1 means no such child.
  static int Finish(const std::string& path, const Strings& args) {
    EXPECT_TRUE(StartProcessDetached(path, args));
    const int status = Subreaper::Next();
    if (status < 0) {
      return -1;
    }
    return WIFSIGNALED(status) ? 128 + WTERMSIG(status) : WEXITSTATUS(status);
  }

  // What the probe sees once the process between it and the caller is gone for sure: only then does it start.
  Report RunProbe() const {
    const Fifo gate(In("gate"));
    const std::string text = "read x <" + gate.Path() + "; exec \"$0\" report \"$1\"";
    EXPECT_TRUE(StartProcessDetached("/bin/sh", {"-c", text, KIV_PROBE, In("report")}));
    gate.Release();
    EXPECT_EQ(Subreaper::Next(), 0);
    (void)::unlink(gate.Path().c_str());
    return ReadReport(In("report"));
  }

 private:
  const std::size_t mDescriptors = test::CountOpenFds();
  const test::TempFolder mFolder;
  const Subreaper mSubreaper;
};

TEST_F(StartDetached, RunsTheProgramAndLeavesItsEndToTheReaper) {
  EXPECT_EQ(Finish("/bin/sh", {"-c", "exit 42"}), 42);
  EXPECT_EQ(Finish("/bin/sh", {"-c", "kill -KILL $$"}), 128 + SIGKILL);
  EXPECT_TRUE(test::HasNoChild());
}

TEST_F(StartDetached, SucceedsForAProgramThatCannotBeStarted) {
  test::WriteFile(In("plain"), "exit 3\n");
  for (const std::string& path : Strings{In("missing"), "", In(""), In("plain"), "/bin/sh/", "kiv-no-such-program"}) {
    EXPECT_EQ(Finish(path, {}), 127) << path;
  }
}

TEST_F(StartDetached, ReturnsWhileTheProgramRuns) {
  const Fifo started(In("started"));
  const Fifo gate(In("gate"));
  const std::string text = "echo $$ >" + started.Path() + "; read x <" + gate.Path() + "; exit 7";
  EXPECT_TRUE(StartProcessDetached("/bin/sh", {"-c", text}));
  const pid_t pid = ToPid(started.Receive());
  EXPECT_GT(pid, 1);
  EXPECT_EQ(::waitpid(-1, nullptr, WNOHANG), 0);
  gate.Release();
  int status = 0;
  EXPECT_EQ(::waitpid(-1, &status, 0), pid);
  EXPECT_EQ(WEXITSTATUS(status), 7);
}

TEST_F(StartDetached, LeavesNoChildOfItsOwn) {
  (void)Finish("/bin/true", {});
  EXPECT_TRUE(test::IsTrueInChild([] {  // Not its reaper: the program goes to this process's parent.
    return StartProcessDetached("/bin/true", {}) && test::HasNoChild();
  }));
  EXPECT_EQ(Subreaper::Next(), 0);
}

TEST_F(StartDetached, MakesASessionAndGroupOfItsOwnThatTheProgramDoesNotLead) {
  const Report report = RunProbe();
  EXPECT_NE(report.at("sid"), std::to_string(::getsid(0)));
  EXPECT_NE(report.at("sid"), report.at("pid"));
  EXPECT_EQ(report.at("pgid"), report.at("sid"));
  EXPECT_EQ(::kill(ToPid(report.at("sid")), 0), -1);  // The leader has ended and was waited for.
}

TEST_F(StartDetached, GivesTheProgramToTheReaper) { EXPECT_EQ(RunProbe().at("ppid"), std::to_string(::getpid())); }

// Makes a terminal the controlling one of a session of its own. Its other side stays open until the process ends: a
// hang-up would kill it.
bool TakeTerminal() {
  const int other = ::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC);
  if (::setsid() < 0 || ::grantpt(other) != 0 || ::unlockpt(other) != 0) {
    return false;
  }
  const UniqueFd terminal(::open(::ptsname(other), O_RDWR | O_NOCTTY | O_CLOEXEC));
  return ::ioctl(terminal.Get(), TIOCSCTTY, 0) == 0;
}

TEST_F(StartDetached, TakesTheTerminalAway) {
  EXPECT_TRUE(test::IsTrueInChild([this] {
    return TakeTerminal() && ExecWait(KIV_PROBE, {"report", In("near")}, "", "").exitCode == 0 &&
           StartProcessDetached(KIV_PROBE, {"report", In("far")});
  }));
  EXPECT_EQ(Subreaper::Next(), 0);
  EXPECT_NE(ReadReport(In("near")).at("tty"), "0");
  EXPECT_EQ(ReadReport(In("far")).at("tty"), "0");
}

// Makes `fd` the first three descriptors of this process.
void ReplaceStandardDescriptors(int fd) {
  for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
    (void)::dup2(fd, standard);
  }
}

TEST_F(StartDetached, PutsTheFirstThreeDescriptorsOnDevNull) {
  EXPECT_TRUE(test::IsTrueInChild([this] {
    ReplaceStandardDescriptors(UniqueFd(::open("/dev/zero", O_RDWR | O_CLOEXEC)).Get());
    return StartProcessDetached(KIV_PROBE, {"report", In("report")});
  }));
  EXPECT_EQ(Subreaper::Next(), 0);
  const Report report = ReadReport(In("report"));
  EXPECT_EQ(report.at("stdin"), "0");
  for (const char* const fd : {"fd0", "fd1", "fd2"}) {
    EXPECT_EQ(report.at(fd), "rw /dev/null");
  }
}

TEST_F(StartDetached, ClosesEveryOtherDescriptorInTheProgramAlone) {
  std::vector<UniqueFd> fds;
  for (int i = 0; i < 200; ++i) {
    fds.emplace_back(::open("/", O_RDONLY));
  }
  EXPECT_EQ(RunProbe().at("fds"), "0 1 2");
  EXPECT_EQ(::fcntl(fds.back().Get(), F_GETFD), 0);
}

TEST_F(StartDetached, LeavesTheCallersFirstThreeDescriptors) {
  EXPECT_TRUE(test::IsTrueInChild([this] {
    const UniqueFd file(::open(In("file").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
    ReplaceStandardDescriptors(file.Get());
    (void)StartProcessDetached("/bin/sh", {"-c", "echo lost; echo lost >&2"});
    (void)!::write(STDOUT_FILENO, "a", 1);
    (void)!::write(STDERR_FILENO, "b", 1);
    return true;
  }));
  EXPECT_EQ(Subreaper::Next(), 0);
  EXPECT_EQ(test::ReadFile(In("file")), "ab");
}

// What it opens is close-on-exec, and the number it gets is one that nothing is copied to.
TEST_F(StartDetached, WithoutStandardInputInTheCallerTheProgramHasNoneEither) {
  EXPECT_TRUE(test::IsTrueInChild([this] {
    (void)::close(STDIN_FILENO);
    return StartProcessDetached(KIV_PROBE, {"report", In("report")});
  }));
  EXPECT_EQ(Subreaper::Next(), 0);
  EXPECT_EQ(ReadReport(In("report")).at("fds"), "1 2");
  EXPECT_EQ(ReadReport(In("report")).at("fd1"), "rw /dev/null");
  EXPECT_EQ(ReadReport(In("report")).at("fd2"), "rw /dev/null");
}

TEST_F(StartDetached, StartsTheProgramWithNoSignalBlocked) {
  const test::SignalMaskRestorer restorer;
  sigset_t all;
  sigfillset(&all);
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &all, nullptr), 0);
  EXPECT_EQ(RunProbe().at("SigBlk"), "0000000000000000");
  EXPECT_TRUE(test::IsBlocked(SIGTERM));
}

TEST_F(StartDetached, LeavesIgnoredSignalsIgnored) {
  for (const int signo : {SIGUSR1, SIGPIPE}) {
    const std::string text = "kill -" + std::to_string(signo) + " $$; exit 3";
    auto* const saved = std::signal(signo, SIG_IGN);
    const int ignoring = Finish("/bin/sh", {"-c", text});
    (void)std::signal(signo, SIG_DFL);
    const int dying = Finish("/bin/sh", {"-c", text});
    (void)std::signal(signo, saved);
    EXPECT_EQ(ignoring, 3);
    EXPECT_EQ(dying, 128 + signo);
  }
}

TEST_F(StartDetached, KeepsFolderAndUmaskOfTheCaller) {
  const test::Umask umask(0051);
  const Report report = RunProbe();
  EXPECT_EQ(report.at("cwd"), std::filesystem::current_path());
  EXPECT_EQ(report.at("umask"), "051");
}

TEST_F(StartDetached, HandsOverTheArgumentsByteForByte) {
  const std::string text = "printf '<%s>' \"$@\" >" + In("args");
  EXPECT_EQ(Finish("/bin/sh", {"-c", text, "name", "", "two words", "line\nbreak", "\x80\xff", "*"}), 0);
  EXPECT_EQ(test::ReadFile(In("args")), "<><two words><line\nbreak><\x80\xff><*>");
}

TEST_F(StartDetached, NamesTheProgramByTheLastComponentOfItsPath) {
  EXPECT_EQ(Finish("/bin/sh", {"-c", "tr '\\0' '\\n' </proc/$$/cmdline | head -n 1 >" + In("name")}), 0);
  EXPECT_EQ(test::ReadFile(In("name")), "sh\n");
}

TEST_F(StartDetached, SearchesThePathForANameWithoutASlash) {
  EXPECT_EQ(Finish("sh", {"-c", "exit 9"}), 9);
  EXPECT_EQ(Finish("bin/sh", {"-c", "exit 9"}), 127);
}

// Interrupts this thread, without SA_RESTART, every so often.
class Alarms {
 public:
  explicit Alarms(long microseconds) {
    struct sigaction action = {};
    action.sa_handler = [](int) {};
    (void)::sigaction(SIGALRM, &action, &mSaved);
    SetTimer(microseconds);
  }
  Alarms(const Alarms&) = delete;
  Alarms& operator=(const Alarms&) = delete;
  ~Alarms() {
    SetTimer(0);
    (void)::sigaction(SIGALRM, &mSaved, nullptr);
  }

 private:
  static void SetTimer(long microseconds) {
    const itimerval timer{{0, microseconds}, {0, microseconds}};
    (void)::setitimer(ITIMER_REAL, &timer, nullptr);
  }

  struct sigaction mSaved = {};
};

// Otherwise some of the processes in between would be found here, too.
TEST_F(StartDetached, WaitsForTheProcessInBetweenInSpiteOfSignals) {
  constexpr int kCount = 50;
  {
    const Alarms alarms(200);
    for (int i = 0; i < kCount; ++i) {
      EXPECT_TRUE(StartProcessDetached("/bin/true", {}));
    }
  }
  int ended = 0;
  while (Subreaper::Next() == 0) {
    ++ended;
  }
  EXPECT_EQ(ended, kCount);
}

}  // namespace
}  // namespace kiv::process
