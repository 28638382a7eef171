#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/process.h>
#include <pthread.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <cstdlib>
#include <filesystem>
#include <functional>
#include <future>
#include <initializer_list>
#include <map>
#include <numeric>
#include <optional>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "internal/unique_fd.h"
#include "process/child.h"
#include "tests/child.h"
#include "tests/support.h"

namespace kiv::process {
namespace {

using internal::UniqueFd;
using test::Fifo;
using Strings = std::vector<std::string>;
using Report = std::map<std::string, std::string>;

constexpr int kNotStarted = 127;

// Gives a process-wide disposition back at its end.
class Disposition {
 public:
  Disposition(int signo, void (*handler)(int)) : mSigno(signo) {
    struct sigaction action = {};
    action.sa_handler = handler;  // Without SA_RESTART.
    (void)::sigaction(signo, &action, &mSaved);
  }
  Disposition(const Disposition&) = delete;
  Disposition& operator=(const Disposition&) = delete;
  ~Disposition() { (void)::sigaction(mSigno, &mSaved, nullptr); }

 private:
  int mSigno;
  struct sigaction mSaved = {};
};

// Sets a variable of the environment while it lives.
class Variable {
 public:
  Variable(const char* name, const std::string& value) : mName(name) {
    if (const char* const saved = std::getenv(name); saved != nullptr) {
      mSaved = saved;
    }
    (void)::setenv(name, value.c_str(), 1);
  }
  Variable(const Variable&) = delete;
  Variable& operator=(const Variable&) = delete;
  ~Variable() { (void)(mSaved ? ::setenv(mName, mSaved->c_str(), 1) : ::unsetenv(mName)); }

 private:
  const char* mName;
  std::optional<std::string> mSaved;
};

constexpr std::size_t kMany = 3000;  // The kernel gives the list of so many in several pieces.

// Raises the limit of descriptors for what comes after, this process's programs included.
void AllowMany() {
  rlimit limit{};
  (void)::getrlimit(RLIMIT_NOFILE, &limit);
  limit.rlim_cur = limit.rlim_max;
  (void)::setrlimit(RLIMIT_NOFILE, &limit);
}

std::vector<UniqueFd> OpenWithoutCloseOnExec(std::size_t count) {
  AllowMany();
  std::vector<UniqueFd> fds;
  while (fds.size() < count) {
    fds.emplace_back(::open("/dev/null", O_RDONLY));
  }
  return fds;
}

// The value of a line "KEY:<tab>VALUE" of /proc/PID/status.
std::string StatusValue(const std::string& status, const std::string& key) {
  const std::size_t begin = status.find("\n" + key + ":\t");
  if (begin == std::string::npos) {
    return "no " + key;
  }
  const std::size_t value = begin + key.size() + 3;
  return status.substr(value, status.find('\n', value) - value);
}

// Waits until `condition` holds. Returns false when it does not within a minute.
bool Becomes(const std::function<bool()>& condition) {
  const auto deadline = std::chrono::steady_clock::now() + std::chrono::minutes(1);
  while (!condition()) {
    if (std::chrono::steady_clock::now() > deadline) {
      return false;
    }
    std::this_thread::yield();
  }
  return true;
}

// Waits until a process or thread is in a state of ps(1): 'S' sleeps until a signal, 'T' is stopped, 'Z' has ended.
bool Reaches(const std::string& folder, char state) {
  return Becomes([&] {
    const std::string stat = test::ReadFile(folder + "/stat");
    const std::size_t name = stat.rfind(')');
    return name != std::string::npos && stat.size() > name + 2 && stat[name + 2] == state;
  });
}

pid_t ToPid(const std::string& text) { return static_cast<pid_t>(std::strtol(text.c_str(), nullptr, 10)); }

// A call on a thread of its own, which can be watched and be sent signals.
class Running {
 public:
  explicit Running(std::function<ExecResult()> call) : mCall(std::move(call)) {
    mThread = std::thread([this] {
      mId.set_value(::syscall(SYS_gettid));
      mStart.get_future().wait();
      mResult.set_value(mCall());
    });
    mFolder = "/proc/self/task/" + std::to_string(mId.get_future().get());
    // Only now: the address sanitizer's allocator must be at rest on this thread when the other one forks.
    mStart.set_value();
  }
  Running(const Running&) = delete;
  Running& operator=(const Running&) = delete;
  ~Running() { mThread.join(); }

  bool Sleeps() const { return Reaches(mFolder, 'S'); }
  void Signal(int signo) { (void)::pthread_kill(mThread.native_handle(), signo); }
  ExecResult Result() { return mResult.get_future().get(); }

 private:
  std::function<ExecResult()> mCall;
  std::promise<long> mId;
  std::promise<void> mStart;
  std::promise<ExecResult> mResult;
  std::thread mThread;
  std::string mFolder;
};

std::atomic<int> handled{0};
void CountSignal(int /*signo*/) { ++handled; }

// Interrupts a sleeping call `times` times.
bool Interrupt(Running& running, int times) {
  for (int i = 0; i < times; ++i) {
    const int before = handled;
    if (!running.Sleeps()) {
      return false;
    }
    running.Signal(SIGUSR1);
    if (!Becomes([before] { return handled != before; })) {
      return false;
    }
  }
  return true;
}

// Every case leaves neither a child nor a descriptor behind.
class RunTest : public testing::Test {
 protected:
  void TearDown() override {
    EXPECT_TRUE(test::HasNoChild());
    EXPECT_EQ(test::CountOpenFds(), mDescriptors);
  }

  std::string In(const std::string& name) const { return mFolder.Path() + "/" + name; }

  // Makes a file that a shell can run.
  std::string Script(const std::string& name, const std::string& text, mode_t mode = 0755) const {
    test::WriteFile(In(name), text);
    (void)::chmod(In(name).c_str(), mode);
    return In(name);
  }

 private:
  const std::size_t mDescriptors = test::CountOpenFds();
  const test::TempFolder mFolder;
};

enum class Way { kWait, kCapture };

// What both calls do alike. Each program is seen through what it writes to standard output.
class BothWays : public RunTest, public testing::WithParamInterface<Way> {
 protected:
  struct Outcome {
    std::string text;
    int exitCode;
  };

  Outcome Run(const std::string& path, const Strings& args) const {
    if (GetParam() == Way::kCapture) {
      const ExecResult result = ExecWaitCapture(path, args);
      return {result.output, result.exitCode};
    }
    const ExecResult result = ExecWait(path, args, In("stdout"), In("stderr"));
    EXPECT_EQ(result.output, "");
    return {test::ReadFile(In("stdout")) + test::ReadFile(In("stderr")), result.exitCode};
  }

  ExecResult Start(const std::string& path, const Strings& args) const {
    return GetParam() == Way::kCapture ? ExecWaitCapture(path, args) : ExecWait(path, args, "", "");
  }

  Report RunProbe() const {
    const Outcome outcome = Run(KIV_PROBE, {"report"});
    EXPECT_EQ(outcome.exitCode, 0);
    Report report;
    std::istringstream lines(outcome.text);
    for (std::string key, value; lines >> key && std::getline(lines >> std::ws, value);) {
      report[key] = value;
    }
    return report;
  }
};

INSTANTIATE_TEST_SUITE_P(Exec, BothWays, testing::Values(Way::kWait, Way::kCapture),
                         [](const auto& way) { return way.param == Way::kWait ? "Wait" : "WaitCapture"; });

std::string ArgumentLines(const Strings& args) {
  std::string lines;
  for (const std::string& arg : args) {
    lines += std::to_string(arg.size()) + " " + arg + "\n";
  }
  return lines;
}

TEST(ExecResult, BeginsAsThatOfAProgramThatWasNotStarted) {
  EXPECT_EQ(ExecResult().exitCode, 127);
  EXPECT_EQ(ExecResult().output, "");
}

TEST_P(BothWays, GiveTheExitCodeOfTheProgram) {
  for (const int code : {0, 1, 3, 126, 127, 128, 137, 255}) {
    EXPECT_EQ(Run("/bin/sh", {"-c", "exit " + std::to_string(code)}).exitCode, code);
  }
}

TEST_P(BothWays, GiveHundredTwentyEightAndTheSignalThatKilledTheProgram) {
  for (const int signo : {SIGHUP, SIGKILL, SIGSEGV, SIGTERM, SIGABRT, SIGRTMAX}) {
    EXPECT_EQ(Run(KIV_PROBE, {"kill", std::to_string(signo)}).exitCode, 128 + signo);
  }
}

TEST_P(BothWays, WaitForTheEndAndNotForAStop) {
  const Fifo started(In("started"));
  Running running([&] { return Start("/bin/sh", {"-c", "echo $$ >" + started.Path() + "; kill -STOP $$; exit 6"}); });
  const pid_t pid = ToPid(started.Receive());
  ASSERT_GT(pid, 1);
  EXPECT_TRUE(Reaches("/proc/" + std::to_string(pid), 'T'));
  EXPECT_TRUE(running.Sleeps());
  EXPECT_EQ(::kill(pid, SIGCONT), 0);
  EXPECT_EQ(running.Result().exitCode, 6);
}

TEST_P(BothWays, HandOverTheArgumentsByteForByte) {
  std::string bytes(255, '\0');
  std::iota(bytes.begin(), bytes.end(), '\1');
  const Strings args = {"args", "", "two words", " ", "line\nbreak\n", "--", "-x", "$HOME *", "\"'\\", bytes, ""};
  Strings argv = args;
  argv.insert(argv.begin(), "probe");
  EXPECT_EQ(Run(KIV_PROBE, args).text, ArgumentLines(argv));
}

TEST_P(BothWays, HandOverTenThousandArgumentsInTheirOrder) {
  Strings argv = {"probe", "args"};
  while (argv.size() < 10001) {
    argv.push_back("argument " + std::to_string(argv.size()));
  }
  EXPECT_EQ(Run(KIV_PROBE, {argv.begin() + 1, argv.end()}).text, ArgumentLines(argv));
}

TEST_P(BothWays, NameTheProgramByTheLastComponentOfItsPath) {
  std::filesystem::create_symlink(KIV_PROBE, In("an other name"));
  for (const char* const path : {"an other name", "./an other name", "/an other name", "../an other name"}) {
    const std::string folder = path[0] == '.' && path[1] == '.' ? In("folder/") : In("");
    (void)::mkdir(folder.c_str(), 0755);
    EXPECT_EQ(Run(folder + path, {"args"}).text, ArgumentLines({"an other name", "args"})) << path;
  }
  EXPECT_EQ(Run("/bin/cat", {"/proc/self/cmdline"}).text, std::string("cat\0/proc/self/cmdline\0", 23));
}

TEST_P(BothWays, GiveHundredTwentySevenAndNothingForWhatCannotBeStarted) {
  const std::string plain = Script("plain", "exit 3\n", 0644);
  const std::string program = Script("program", "exit 3\n");
  for (const std::string& path : Strings{In("missing"), "", "/", In(""), plain, program + "/", program + "/below",
                                         "kiv-no-such-program", "bin/sh", std::string(5000, 'x')}) {
    const Outcome outcome = Run(path, {"-c", "exit 3"});
    EXPECT_EQ(outcome.exitCode, kNotStarted) << path;
    EXPECT_EQ(outcome.text, "") << path;
  }
}

TEST_P(BothWays, GiveHundredTwentySevenForMoreArgumentsThanTheKernelTakes) {
  EXPECT_EQ(Run("/bin/sh", {"-c", "exit 3", std::string(4 << 20, 'x')}).exitCode, kNotStarted);
}

TEST_P(BothWays, SearchThePathForANameWithoutASlash) {
  (void)Script("kiv-tool", "echo $0\nexit 42\n");
  const Variable path("PATH", In("missing") + ":" + In(""));
  const Outcome outcome = Run("kiv-tool", {});
  EXPECT_EQ(outcome.exitCode, 42);
  EXPECT_EQ(outcome.text, In("/kiv-tool\n"));
}

TEST_P(BothWays, DoNotSearchThePathForANameWithASlash) {
  ASSERT_EQ(::mkdir(In("folder").c_str(), 0755), 0);
  (void)Script("folder/kiv-tool", "exit 42\n");
  const Variable path("PATH", In(""));
  EXPECT_EQ(Run("folder/kiv-tool", {}).exitCode, kNotStarted);
}

TEST_P(BothWays, GiveAScriptWithoutAnInterpreterLineToTheShell) {
  const Outcome outcome = Run(Script("script", "echo $#:$2\nexit 21\n"), {"a", "b c"});
  EXPECT_EQ(outcome.exitCode, 21);
  EXPECT_EQ(outcome.text, "2:b c\n");
}

TEST_P(BothWays, PassTheEnvironmentOn) {
  const Variable variable("KIV_TEST_VARIABLE", "a value\nof two lines");
  EXPECT_EQ(Run("/bin/sh", {"-c", "printf %s \"$KIV_TEST_VARIABLE\""}).text, "a value\nof two lines");
}

TEST_P(BothWays, KeepFolderUmaskSessionAndGroupOfTheCaller) {
  const test::Umask umask(0051);
  const Report report = RunProbe();
  EXPECT_EQ(report.at("cwd"), std::filesystem::current_path());
  EXPECT_EQ(report.at("umask"), "051");
  EXPECT_EQ(report.at("ppid"), std::to_string(::getpid()));
  EXPECT_EQ(report.at("pgid"), std::to_string(::getpgrp()));
  EXPECT_EQ(report.at("sid"), std::to_string(::getsid(0)));
}

TEST_P(BothWays, GiveTheProgramNoStandardInput) {
  const Report report = RunProbe();
  EXPECT_EQ(report.at("stdin"), "Bad file descriptor");
  EXPECT_EQ(report.at("fds"), "1 2");
}

TEST_P(BothWays, WorkForACallerWithoutStandardInput) {
  EXPECT_TRUE(test::IsTrueInChild([this] {
    (void)::close(STDIN_FILENO);
    const Report report = RunProbe();
    return report.at("stdin") == "Bad file descriptor" && report.at("fds") == "1 2";
  }));
}

TEST_P(BothWays, CloseEveryOtherDescriptorInTheProgramAlone) {
  for (const std::size_t count : {std::size_t{200}, kMany}) {
    const std::vector<UniqueFd> fds = OpenWithoutCloseOnExec(count);
    ASSERT_TRUE(fds.back().IsValid());
    EXPECT_EQ(RunProbe().at("fds"), "1 2") << count;
    EXPECT_EQ(::fcntl(fds.front().Get(), F_GETFD), 0);
    EXPECT_EQ(::fcntl(fds.back().Get(), F_GETFD), 0);
  }
}

TEST_P(BothWays, StartTheProgramWithNoSignalBlocked) {
  const test::SignalMaskRestorer restorer;
  sigset_t all;
  sigfillset(&all);
  ASSERT_EQ(::pthread_sigmask(SIG_SETMASK, &all, nullptr), 0);
  EXPECT_EQ(StatusValue(Run("/bin/cat", {"/proc/self/status"}).text, "SigBlk"), "0000000000000000");
  EXPECT_TRUE(test::IsBlocked(SIGTERM));
}

TEST_P(BothWays, LeaveIgnoredSignalsIgnoredAndOthersAtTheirDefault) {
  const Disposition ignored(SIGUSR1, SIG_IGN);
  const Disposition ignoredAsInADaemon(SIGPIPE, SIG_IGN);
  const Disposition caught(SIGUSR2, CountSignal);
  const std::string mine = test::ReadFile("/proc/self/status");
  const std::string status = Run("/bin/cat", {"/proc/self/status"}).text;
  EXPECT_EQ(StatusValue(status, "SigIgn"), StatusValue(mine, "SigIgn"));
  EXPECT_EQ(StatusValue(status, "SigCgt"), "0000000000000000");
  EXPECT_EQ(Run("/bin/sh", {"-c", "kill -USR1 $$; exit 3"}).exitCode, 3);
  EXPECT_EQ(Run("/bin/sh", {"-c", "kill -USR2 $$; exit 3"}).exitCode, 128 + SIGUSR2);
}

TEST_P(BothWays, GiveHundredTwentySevenWhenIgnoringSigchldLosesTheStatus) {
  const Disposition ignored(SIGCHLD, SIG_IGN);
  const Outcome outcome = Run("/bin/sh", {"-c", "echo done; exit 0"});
  EXPECT_EQ(outcome.exitCode, kNotStarted);
  EXPECT_EQ(outcome.text, "done\n");
}

TEST_P(BothWays, GoOnWaitingAfterASignal) {
  const Disposition caught(SIGUSR1, CountSignal);
  const Fifo started(In("started"));
  const Fifo gate(In("gate"));
  // Without its output, a capture waits for nothing but the end.
  const std::string text = "exec >&- 2>&-; echo up >" + started.Path() + "; read x <" + gate.Path() + "; exit 5";
  Running running([&] { return Start("/bin/sh", {"-c", text}); });
  EXPECT_EQ(started.Receive(), "up\n");
  EXPECT_TRUE(Interrupt(running, 3));
  gate.Release();
  EXPECT_EQ(running.Result().exitCode, 5);
}

using ExecWaitFiles = RunTest;

TEST_F(ExecWaitFiles, EmptyNamesMeanDevNull) {
  EXPECT_EQ(ExecWait(KIV_PROBE, {"report", In("report")}, "", "").exitCode, 0);
  const std::string report = test::ReadFile(In("report"));
  EXPECT_NE(report.find("\nfd1 w /dev/null\nfd2 w /dev/null\n"), std::string::npos) << report;
}

TEST_F(ExecWaitFiles, EachStreamGoesToItsOwn) {
  const Strings args = {"-c", "echo to the output; echo to the error >&2"};
  const ExecResult both = ExecWait("/bin/sh", args, In("out"), In("err"));
  EXPECT_EQ(both.output, "");
  EXPECT_EQ(both.exitCode, 0);
  EXPECT_EQ(test::ReadFile(In("out")), "to the output\n");
  EXPECT_EQ(test::ReadFile(In("err")), "to the error\n");
  EXPECT_EQ(ExecWait("/bin/sh", args, In("out alone"), "").exitCode, 0);
  EXPECT_EQ(test::ReadFile(In("out alone")), "to the output\n");
  EXPECT_EQ(ExecWait("/bin/sh", args, "", In("err alone")).exitCode, 0);
  EXPECT_EQ(test::ReadFile(In("err alone")), "to the error\n");
}

TEST_F(ExecWaitFiles, AreOpenForWritingOnly) {
  EXPECT_EQ(ExecWait(KIV_PROBE, {"report", In("report")}, In("out"), In("err")).exitCode, 0);
  const std::string report = test::ReadFile(In("report"));
  EXPECT_NE(report.find("\nfd1 w " + In("out") + "\nfd2 w " + In("err") + "\n"), std::string::npos) << report;
}

TEST_F(ExecWaitFiles, NewOnesHaveMode0644LessTheUmask) {
  for (const mode_t mask : {0U, 022U, 077U, 0133U, 0777U}) {
    const test::Umask umask(mask);
    const std::string name = std::to_string(mask);
    EXPECT_EQ(ExecWait("/bin/sh", {"-c", "exit 3"}, In(name + "out"), In(name + "err")).exitCode, 3);
    for (const char* const file : {"out", "err"}) {
      struct stat status = {};
      ASSERT_EQ(::stat(In(name + file).c_str(), &status), 0);
      EXPECT_EQ(status.st_mode, S_IFREG | (0644U & ~mask)) << file << " " << mask;
    }
  }
}

TEST_F(ExecWaitFiles, ExistingOnesAreEmptiedAndKeepTheirMode) {
  for (const char* const file : {"out", "err"}) {
    (void)Script(file, "an old and long content\n", 0600);
  }
  EXPECT_EQ(ExecWait("/bin/sh", {"-c", "echo new; echo bad >&2"}, In("out"), In("err")).exitCode, 0);
  EXPECT_EQ(test::ReadFile(In("out")), "new\n");
  EXPECT_EQ(test::ReadFile(In("err")), "bad\n");
  struct stat status = {};
  ASSERT_EQ(::stat(In("out").c_str(), &status), 0);
  EXPECT_EQ(status.st_mode & 07777U, 0600U);
}

TEST_F(ExecWaitFiles, AreMadeAndEmptiedForAProgramThatCannotBeStarted) {
  test::WriteFile(In("err"), "old");
  EXPECT_EQ(ExecWait(In("missing"), {}, In("out"), In("err")).exitCode, kNotStarted);
  EXPECT_TRUE(std::filesystem::exists(In("out")));
  EXPECT_EQ(test::ReadFile(In("err")), "");
}

// Both are opened before either is looked at.
TEST_F(ExecWaitFiles, OneThatCannotBeOpenedStopsTheProgramButEmptiesTheOther) {
  const Strings args = {"-c", "echo ran >" + In("trace")};
  for (const std::string& bad : {In("missing/file"), In("")}) {
    for (const bool isFirst : {true, false}) {
      test::WriteFile(In("other"), "old");
      const ExecResult result = ExecWait("/bin/sh", args, isFirst ? bad : In("other"), isFirst ? In("other") : bad);
      EXPECT_EQ(result.exitCode, kNotStarted);
      EXPECT_EQ(test::ReadFile(In("other")), "") << bad << isFirst;
    }
  }
  EXPECT_FALSE(std::filesystem::exists(In("trace")));
}

TEST_F(ExecWaitFiles, InAFolderThatCannotBeWrittenTheyStopTheProgram) {
  ASSERT_EQ(::mkdir(In("folder").c_str(), 0555), 0);
  ASSERT_EQ(::chmod(In("").c_str(), 0755), 0);
  EXPECT_EQ(test::WithoutPrivileges([this] { return ExecWait("/bin/true", {}, In("folder/out"), "").exitCode; }), 127);
  EXPECT_EQ(test::WithoutPrivileges([this] { return ExecWait("/bin/true", {}, "", In("folder/err")).exitCode; }), 127);
  EXPECT_EQ(test::WithoutPrivileges([] { return ExecWait("/bin/true", {}, "", "").exitCode; }), 0);
}

// Deliberate: two openings, two offsets.
TEST_F(ExecWaitFiles, TheSameForBothStreamsIsOverwrittenByEach) {
  EXPECT_EQ(ExecWait("/bin/sh", {"-c", "printf aaaa; printf b >&2; printf cc"}, In("file"), In("file")).exitCode, 0);
  EXPECT_EQ(test::ReadFile(In("file")), "baaacc");
}

TEST_F(ExecWaitFiles, HeldByAProgramLeftBehindDoNotDelayTheCall) {
  const test::Subreaper subreaper;
  const Fifo gate(In("gate"));
  const Strings args = {"-c", "(read x <" + gate.Path() + "; echo late) & exit 4"};
  EXPECT_EQ(ExecWait("/bin/sh", args, In("out"), "").exitCode, 4);
  EXPECT_EQ(test::ReadFile(In("out")), "");
  gate.Release();
  EXPECT_EQ(test::Subreaper::Next(), 0);
  EXPECT_EQ(test::ReadFile(In("out")), "late\n");
}

using ExecWaitCaptureOutput = RunTest;

std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  for (std::size_t i = 0; i < size; ++i) {
    bytes[i] = static_cast<char>(i % 251);
  }
  return bytes;
}

TEST_F(ExecWaitCaptureOutput, IsWholeWhateverItsSize) {
  for (const std::size_t size : {0U, 1U, 4095U, 4096U, 4097U, 8192U, 65536U, 65537U, 300000U}) {
    const ExecResult result = ExecWaitCapture(KIV_PROBE, {"fill", std::to_string(size)});
    EXPECT_EQ(result.exitCode, 0);
    EXPECT_TRUE(result.output == Pattern(size)) << result.output.size() << " of " << size;
  }
}

TEST_F(ExecWaitCaptureOutput, OfSixtyFourMebibytesIsWhole) {
  constexpr std::size_t kSize = std::size_t{64} << 20;
  const ExecResult result = ExecWaitCapture(KIV_PROBE, {"fill", std::to_string(kSize)});
  EXPECT_EQ(result.exitCode, 0);
  EXPECT_EQ(result.output.size(), kSize);
  EXPECT_TRUE(result.output == Pattern(kSize));
}

TEST_F(ExecWaitCaptureOutput, HasBothStreamsInTheOrderOfWriting) {
  std::string expected;
  for (int i = 0; i < 2000; ++i) {
    expected += "out " + std::to_string(i) + "\nerr " + std::to_string(i) + "\n";
  }
  EXPECT_EQ(ExecWaitCapture(KIV_PROBE, {"alternate", "2000"}).output, expected);
}

TEST_F(ExecWaitCaptureOutput, IsKeptWhateverTheEnd) {
  for (const auto& [end, code] : std::map<std::string, int>{{"exit 3", 3}, {"kill -KILL $$", 137}, {"exit 127", 127}}) {
    const ExecResult result = ExecWaitCapture("/bin/sh", {"-c", "echo one; echo two >&2; " + end});
    EXPECT_EQ(result.output, "one\ntwo\n") << end;
    EXPECT_EQ(result.exitCode, code) << end;
  }
}

// The program itself has ended: its own status is that of the call.
TEST_F(ExecWaitCaptureOutput, IsAwaitedFromAProgramLeftBehind) {
  const test::Subreaper subreaper;
  const Fifo started(In("started"));
  const Fifo gate(In("gate"));
  const std::string behind = "(echo $$ >" + started.Path() + "; read x <" + gate.Path() + "; echo late) & ";
  Running running([&] { return ExecWaitCapture("/bin/sh", {"-c", "echo early; " + behind + "exit 3"}); });
  const std::string shell = started.Receive();
  EXPECT_TRUE(Reaches("/proc/" + shell.substr(0, shell.find('\n')), 'Z'));
  EXPECT_TRUE(running.Sleeps());
  gate.Release();
  const ExecResult result = running.Result();
  EXPECT_EQ(result.output, "early\nlate\n");
  EXPECT_EQ(result.exitCode, 3);
}

TEST_F(ExecWaitCaptureOutput, ComesThroughOneCloseOnExecDescriptor) {
  const Fifo started(In("started"));
  const Fifo gate(In("gate"));
  const std::size_t before = test::CountOpenFds();
  const int readEnd = test::NextFd();
  Running running([&] {
    return ExecWaitCapture("/bin/sh", {"-c", "echo up >" + started.Path() + "; read x <" + gate.Path()});
  });
  EXPECT_EQ(started.Receive(), "up\n");
  EXPECT_TRUE(running.Sleeps());
  EXPECT_EQ(test::CountOpenFds(), before + 1);
  EXPECT_EQ(::fcntl(readEnd, F_GETFD), FD_CLOEXEC);
  gate.Release();
  EXPECT_EQ(running.Result().exitCode, 0);
}

// Deliberate: this lets a signal end a collection; the program then meets a closed pipe and is awaited all the same.
TEST_F(ExecWaitCaptureOutput, IsCutByASignalThatInterruptsTheReading) {
  const Disposition caught(SIGUSR1, CountSignal);
  const Fifo started(In("started"));
  const Fifo gate(In("gate"));
  const int readEnd = test::NextFd();
  const std::string text = "echo one; echo up >" + started.Path() + "; read x <" + gate.Path() + "; echo two; exit 5";
  Running running([&] { return ExecWaitCapture("/bin/sh", {"-c", text}); });
  EXPECT_EQ(started.Receive(), "up\n");
  EXPECT_TRUE(Interrupt(running, 1));
  EXPECT_TRUE(Becomes([readEnd] { return !test::IsOpen(readEnd); }));
  gate.Release();
  const ExecResult result = running.Result();
  EXPECT_EQ(result.output, "one\n");
  EXPECT_EQ(result.exitCode, 128 + SIGPIPE);
}

TEST(CloseInheritedDescriptors, ClosesAllFrom3OnAndNoOther) {
  for (const std::size_t count : {std::size_t{1}, std::size_t{50}, kMany}) {
    EXPECT_TRUE(test::IsTrueInChild([count] {
      std::vector<UniqueFd> fds = OpenWithoutCloseOnExec(count);
      const bool isFar = ::fcntl(STDIN_FILENO, F_DUPFD, 4000) >= 4000;
      fds.erase(fds.begin());
      CloseInheritedDescriptors();
      for (UniqueFd& fd : fds) {
        (void)fd.Release();
      }
      return isFar && test::CountOpenFds() == 3 && test::IsOpen(0) && test::IsOpen(1) && test::IsOpen(2);
    })) << count;
  }
}

TEST(CloseInheritedDescriptors, DoesNotNeedTheFirstThree) {
  EXPECT_TRUE(test::IsTrueInChild([] {
    const UniqueFd other(::dup(STDIN_FILENO));
    for (const int standard : {STDIN_FILENO, STDOUT_FILENO, STDERR_FILENO}) {
      (void)::close(standard);
    }
    CloseInheritedDescriptors();
    return test::CountOpenFds() == 0;
  }));
}

}  // namespace
}  // namespace kiv::process
