#include <dirent.h>
#include <kiv/process.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <functional>
#include <list>
#include <sstream>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "tests/child.h"
#include "tests/support.h"

namespace kiv::process {
namespace {

using test::InChild;
using test::OtherProcess;
using test::ReadFile;
using test::Untrue;
using test::WriteFile;

constexpr unsigned kUser = 54321;

void SetOwnName(const std::string& name) { (void)::prctl(PR_SET_NAME, name.c_str()); }

std::function<void()> Named(const std::string& name) {
  return [name] { SetOwnName(name); };
}

std::string Text(const std::vector<int>& pids) {
  std::string text;
  for (const int pid : pids) {
    text += std::to_string(pid) + ' ';
  }
  return text;
}

// The ids in /proc whose file "comm" has `name` and a newline, in its order.
std::vector<int> PidsInProc(const std::string& name) {
  std::vector<int> pids;
  DIR* const proc = ::opendir("/proc");
  while (const dirent* const entry = ::readdir(proc)) {
    const long pid = std::strtol(entry->d_name, nullptr, 10);
    if (pid > 0 && ReadFile(std::string("/proc/") + entry->d_name + "/comm") == name + '\n') {
      pids.push_back(static_cast<int>(pid));
    }
  }
  (void)::closedir(proc);
  return pids;
}

// What a command prints; its words, each with a blank behind it.
std::string Words(const std::string& command) {
  FILE* const pipe = ::popen(command.c_str(), "r");
  char chunk[4096];
  const std::size_t size = std::fread(chunk, 1, sizeof chunk, pipe);
  (void)::pclose(pipe);
  std::istringstream output(std::string(chunk, size));
  std::string words;
  for (std::string word; output >> word;) {
    words += word + ' ';
  }
  return words;
}

bool IsRunning(pid_t pid) {
  siginfo_t ended{};
  return ::waitid(P_PID, static_cast<id_t>(pid), &ended, WEXITED | WNOHANG | WNOWAIT) == 0 && ended.si_pid == 0;
}

// Ends with its namespace.
[[noreturn]] void StartAndEndProcesses() {
  while (true) {
    const pid_t child = ::fork();
    if (child == 0) {
      ::_exit(0);
    }
    (void)::waitpid(child, nullptr, 0);
  }
}

// Only these processes can be found there, and signalled: the machine's own are out of reach.
bool EnterNamespaces() {
  constexpr int kKinds = CLONE_NEWPID | CLONE_NEWNS;
  if (::unshare(kKinds) == 0) {
    return true;
  }
  const std::string uid = std::to_string(::geteuid());
  const std::string gid = std::to_string(::getegid());
  if (::unshare(CLONE_NEWUSER | kKinds) != 0) {
    return false;
  }
  WriteFile("/proc/self/setgroups", "deny");
  WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
  WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
  return true;
}

bool MountOverProc(const char* type) {
  return ::mount("none", "/", "none", MS_REC | MS_PRIVATE, nullptr) == 0 &&
         ::mount(type, "/proc", type, 0, nullptr) == 0;
}

constexpr const char* kNoNamespace = "no namespace";

// Returns what `report` returns in the first process of a pid namespace, which cannot leave anything behind.
std::string AmongOwnProcesses(const std::function<std::string()>& report) {
  return InChild([&report] {
    return !EnterNamespaces() ? kNoNamespace : InChild([&report] {
      // No alarm ends the first process of a namespace.
      (void)::prctl(PR_SET_PDEATHSIG, SIGKILL);
      return MountOverProc("proc") ? report() : kNoNamespace;
    });
  });
}

// Every case needs namespaces: a machine that forbids them skips it, or fails it where the variable CI is set.
class NamespaceTest : public testing::Test {
 protected:
  void SetUp() override {
    if (AmongOwnProcesses([] { return "ready"; }) == "ready") {
      return;
    }
    if (std::getenv("CI") != nullptr) {
      FAIL() << kNoNamespace;
    }
    GTEST_SKIP() << kNoNamespace;
  }
};

class GetParentNameTest : public NamespaceTest {};
class GetPidsOfTest : public NamespaceTest {};
class KillByNameTest : public NamespaceTest {};
class FakeProc : public NamespaceTest {
 protected:
  // Returns what `report` returns where /proc has the folders `entries`, each with `comm` as its name.
  static std::string With(const std::vector<std::string>& entries, const std::string& comm,
                          const std::function<std::string()>& report) {
    return AmongOwnProcesses([&] {
      (void)MountOverProc("tmpfs");
      for (const std::string& entry : entries) {
        (void)::mkdir(("/proc/" + entry).c_str(), 0755);
        WriteFile("/proc/" + entry + "/comm", comm);
      }
      return report();
    });
  }
};

TEST(GetProcessName, IsWhatTheKernelKeeps) {
  const std::string bytes = "\t\x01\\\"\x7f\xc3\xbc\xff";
  for (const std::string& name :
       {std::string("a"), std::string("sh"), std::string(14, 'n'), std::string(15, 'n'), std::string("two words"),
        std::string(" x "), std::string("(a) [b]"), std::string("a\nb"), std::string("name\n"), std::string("\n\n"),
        std::string(13, 'n') + '\n', std::string(".*"), bytes}) {
    const OtherProcess process(Named(name));
    EXPECT_EQ(GetProcessName(process.Pid()), name);
  }
}

TEST(GetProcessName, HasAtMost15Bytes) {
  const OtherProcess process(Named(std::string(15, 'n') + "xyz"));
  EXPECT_EQ(GetProcessName(process.Pid()), std::string(15, 'n'));
}

TEST(GetProcessName, LosesANewlineThatIsByte15) {
  const OtherProcess process(Named(std::string(14, 'n') + '\n'));
  EXPECT_EQ(GetProcessName(process.Pid()), std::string(14, 'n'));
}

TEST(GetProcessName, MayBeEmpty) {
  const OtherProcess process(Named(""));
  EXPECT_EQ(ReadFile("/proc/" + std::to_string(process.Pid()) + "/comm"), "\n");
  EXPECT_EQ(GetProcessName(process.Pid()), "");
}

TEST(GetProcessName, IsEmptyWithoutSuchAProcess) {
  OtherProcess process;
  const pid_t ended = process.Pid();
  (void)process.End(SIGKILL);
  for (const int pid : {static_cast<int>(ended), 0, -1, -::getpid(), INT_MAX, INT_MIN}) {
    EXPECT_EQ(GetProcessName(pid), "") << pid;
  }
}

TEST(GetProcessName, MayBeAskedByManyThreadsAtOnce) {
  const OtherProcess processes[] = {OtherProcess(Named("first")), OtherProcess(Named("second"))};
  const std::string names[] = {"first", "second"};
  std::atomic<unsigned> wrong = 0;
  std::vector<std::thread> threads;
  for (unsigned i = 0; i < 4; ++i) {
    threads.emplace_back([&, &process = processes[i % 2], &name = names[i % 2]] {
      for (int n = 0; n < 3000; ++n) {
        wrong += GetProcessName(process.Pid()) == name ? 0 : 1;
      }
    });
  }
  for (std::thread& thread : threads) {
    thread.join();
  }
  EXPECT_EQ(wrong, 0U);
}

TEST(GetProcessName, LeavesNoDescriptor) {
  const std::size_t before = test::CountOpenFds();
  EXPECT_NE(GetProcessName(::getpid()), "");
  EXPECT_EQ(GetProcessName(-1), "");
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(GetParentName, IsTheNameOfTheParent) {
  EXPECT_EQ(InChild([] {
              SetOwnName("the parent");
              return InChild([] {
                SetOwnName("the child");
                return GetParentName();
              });
            }),
            "the parent");
}

TEST_F(GetParentNameTest, IsEmptyForAParentOutsideTheNamespace) {
  EXPECT_EQ(AmongOwnProcesses([] { return std::to_string(::getppid()) + GetParentName(); }), "0");
}

TEST_F(GetPidsOfTest, FindsEveryNameThatAProcessCanHave) {
  const std::vector<std::string> names = {"a",      "sh",     "Sh",  std::string(14, 'n'), std::string(15, 'n'),
                                          ".*",     "a\nb",   "^a$", "two words",          "(a) [b]",
                                          "name\n", "\\d+|a", "..",  "\xc3\xbc\xff",       "12"};
  EXPECT_EQ(AmongOwnProcesses([&names] {
              std::list<OtherProcess> processes;
              std::string wrong;
              for (const std::string& name : names) {
                processes.emplace_back(Named(name));
              }
              auto process = processes.begin();
              for (const std::string& name : names) {
                wrong += GetPidsOf(name) == std::vector<int>{process++->Pid()} ? std::string() : name + '|';
              }
              return wrong;
            }),
            "");
}

TEST_F(GetPidsOfTest, ComparesWholeNamesByteForByte) {
  const std::vector<std::string> others = {
      "Target", "targe", "target2", "arget",   " target", "target ",  "target\n",
      "t*",     ".*",    "t.rget",  "/target", "TARGET",  "[t]arget", std::string("target\0", 7)};
  EXPECT_EQ(AmongOwnProcesses([&others] {
              const OtherProcess process(Named("target"));
              std::string found;
              for (const std::string& other : others) {
                found += GetPidsOf(other).empty() ? std::string() : other + '|';
              }
              return found;
            }),
            "");
}

TEST_F(GetPidsOfTest, FindsNoNameOver15Bytes) {
  const std::string name(16, 'n');
  EXPECT_EQ(AmongOwnProcesses([&name] {
              const OtherProcess process(Named(name));
              return Untrue({{"16", GetPidsOf(name).empty()},
                             {"40", GetPidsOf(std::string(40, 'n')).empty()},
                             {"15", GetPidsOf(name.substr(0, 15)) == std::vector<int>{process.Pid()}}});
            }),
            "");
}

TEST_F(GetPidsOfTest, FindsANameWithANewlineAsByte15WithoutIt) {
  const std::string name(14, 'n');
  EXPECT_EQ(AmongOwnProcesses([&name] {
              const OtherProcess process(Named(name + '\n'));
              return Untrue({{"with", GetPidsOf(name + '\n').empty()},
                             {"without", GetPidsOf(name) == std::vector<int>{process.Pid()}}});
            }),
            "");
}

TEST_F(GetPidsOfTest, FindsNothingForAnEmptyName) {
  EXPECT_EQ(AmongOwnProcesses([] {
              const OtherProcess process(Named(""));
              return Text(GetPidsOf(""));
            }),
            "");
}

TEST_F(GetPidsOfTest, AgreesWithPgrepInTheOrderOfProc) {
  EXPECT_EQ(AmongOwnProcesses([] {
              std::list<OtherProcess> processes;
              for (int i = 0; i < 12; ++i) {
                processes.emplace_back(Named(i % 3 == 0 ? "other one" : "this one"));
              }
              const std::vector<int> pids = GetPidsOf("this one");
              return Untrue({{"eight", pids.size() == 8},
                             {"/proc", pids == PidsInProc("this one")},
                             {"pgrep", Text(pids) == Words("pgrep -x 'this one'")},
                             {"missing", GetPidsOf("no one").empty() && Words("pgrep -x 'no one'").empty()}});
            }),
            "");
}

TEST_F(GetPidsOfTest, IncludesTheCaller) {
  EXPECT_EQ(AmongOwnProcesses([] {
              SetOwnName("me");
              const OtherProcess child;
              return Untrue({{"both", GetPidsOf("me") == std::vector<int>{::getpid(), child.Pid()}}});
            }),
            "");
}

TEST_F(GetPidsOfTest, DoesNotListThreads) {
  EXPECT_EQ(AmongOwnProcesses([] {
              SetOwnName("main");
              auto [here, there] = test::SocketPair();
              std::thread thread([fd = there.Get()] {
                SetOwnName("thread");
                char byte = 'x';
                (void)(::write(fd, &byte, 1) == 1 && ::read(fd, &byte, 1) == 1);
              });
              char byte = 0;
              (void)(::read(here.Get(), &byte, 1) == 1);
              const std::vector<int> mains = GetPidsOf("main");
              const std::vector<int> threads = GetPidsOf("thread");
              (void)(::write(here.Get(), "x", 1) == 1);
              thread.join();
              return Text(mains) + "/ " + Text(threads);
            }),
            "1 / ");
}

TEST_F(GetPidsOfTest, ListsAProcessThatNobodyHasWaitedFor) {
  EXPECT_EQ(AmongOwnProcesses([] {
              OtherProcess zombie([] {
                SetOwnName("zombie");
                ::_exit(0);
              });
              siginfo_t ended{};
              (void)::waitid(P_PID, static_cast<id_t>(zombie.Pid()), &ended, WEXITED | WNOWAIT);
              const bool isListed = GetPidsOf("zombie") == std::vector<int>{zombie.Pid()};
              (void)zombie.Wait();
              return Untrue({{"before", isListed}, {"after", GetPidsOf("zombie").empty()}});
            }),
            "");
}

TEST_F(GetPidsOfTest, TakesProcessesThatEndMeanwhile) {
  EXPECT_EQ(AmongOwnProcesses([] {
              const OtherProcess first(Named("lasting"));
              if (::fork() == 0) {
                StartAndEndProcesses();
              }
              const OtherProcess last(Named("lasting"));
              for (int i = 0; i < 300; ++i) {
                if (GetPidsOf("lasting") != std::vector<int>{first.Pid(), last.Pid()}) {
                  return std::string("not both");
                }
              }
              return std::string();
            }),
            "");
}

TEST_F(GetPidsOfTest, LeavesNoDescriptor) {
  EXPECT_EQ(AmongOwnProcesses([] {
              const std::size_t before = test::CountOpenFds();
              (void)GetPidsOf("me");
              (void)GetPidsOf("");
              (void)KillByName({"nobody"}, 0);
              return Untrue({{"count", test::CountOpenFds() == before}});
            }),
            "");
}

TEST_F(KillByNameTest, SignalsEveryProcessWithOneOfTheNames) {
  EXPECT_EQ(AmongOwnProcesses([] {
              OtherProcess first(Named("one"));
              OtherProcess second(Named("two"));
              const OtherProcess spared(Named("three"));
              OtherProcess third(Named("one"));
              const bool result = KillByName({"none", "two", "one"}, SIGUSR1);
              return Untrue({{"true", result},
                             {"one", WTERMSIG(first.Wait()) == SIGUSR1 && WTERMSIG(third.Wait()) == SIGUSR1},
                             {"two", WTERMSIG(second.Wait()) == SIGUSR1},
                             {"three", IsRunning(spared.Pid())}});
            }),
            "");
}

TEST_F(KillByNameTest, SignalsAProcessOnceThoughItsNameIsGivenTwice) {
  EXPECT_EQ(
      AmongOwnProcesses([] {
        const int queued = SIGRTMIN;
        test::Block(queued);
        SetOwnName("twice");
        const bool result = KillByName({"twice", "twice"}, queued);
        sigset_t set;
        sigemptyset(&set);
        sigaddset(&set, queued);
        const timespec now{};
        const bool isFirst = ::sigtimedwait(&set, nullptr, &now) == queued;
        return Untrue({{"true", result}, {"once", isFirst}, {"twice", ::sigtimedwait(&set, nullptr, &now) == -1}});
      }),
      "");
}

TEST_F(KillByNameTest, DoesNotSpareTheCaller) {
  EXPECT_EQ(AmongOwnProcesses([] {
              OtherProcess caller([] {
                SetOwnName("caller");
                (void)KillByName({"caller"}, SIGUSR2);
                ::_exit(0);
              });
              return Untrue({{"killed", WTERMSIG(caller.Wait()) == SIGUSR2}});
            }),
            "");
}

TEST_F(KillByNameTest, DoesNotWaitForTheEnd) {
  EXPECT_EQ(AmongOwnProcesses([] {
              const OtherProcess deaf([] {
                SetOwnName("deaf");
                test::Block(SIGTERM);
              });
              return Untrue({{"true", KillByName({"deaf"}, SIGTERM)}, {"running", IsRunning(deaf.Pid())}});
            }),
            "");
}

TEST_F(KillByNameTest, WithSignal0OnlyTellsWhetherThereIsOne) {
  EXPECT_EQ(AmongOwnProcesses([] {
              const OtherProcess process(Named("there"));
              return Untrue({{"there", KillByName({"there"}, 0)},
                             {"running", IsRunning(process.Pid())},
                             {"not there", !KillByName({"not there"}, 0)}});
            }),
            "");
}

TEST_F(KillByNameTest, IsFalseWhenNothingWasSignalled) {
  EXPECT_EQ(AmongOwnProcesses([] {
              const OtherProcess nameless(Named(""));
              const OtherProcess longest(Named(std::string(15, 'n')));
              return Untrue({{"no process", !KillByName({"none"}, SIGKILL)},
                             {"empty name", !KillByName({""}, SIGKILL)},
                             {"16 bytes", !KillByName({std::string(16, 'n')}, SIGKILL)},
                             {"no signal", !KillByName({std::string(15, 'n')}, 9999)},
                             {"running", IsRunning(nameless.Pid()) && IsRunning(longest.Pid())}});
            }),
            "");
}

TEST_F(KillByNameTest, NeedsProcForNamesAlone) {
  const test::TempFolder empty;
  EXPECT_EQ(AmongOwnProcesses([&empty] {
              SetOwnName("me");
              return Untrue({{"chroot", ::chroot(empty.Path().c_str()) == 0},
                             {"no names", KillByName({}, SIGKILL)},
                             {"a name", !KillByName({"me"}, 0)},
                             {"pids", GetPidsOf("me").empty()},
                             {"name", GetProcessName(::getpid()).empty()},
                             {"alive", IsProcessAlive(::getpid())}});
            }),
            "");
}

class KillByNameAsRoot : public test::RootTest {};

TEST_F(KillByNameAsRoot, ByAnOrdinaryUserReachesHisOwnAlone) {
  EXPECT_EQ(AmongOwnProcesses([] {
              const OtherProcess foreign(Named("target"));
              const OtherProcess other(Named("other"));
              const std::string report = InChild([&] {
                (void)::setresuid(kUser, kUser, kUser);
                OtherProcess own(Named("target"));
                return Untrue({{"others", !KillByName({"other"}, SIGKILL)},
                               {"own", KillByName({"target"}, SIGKILL)},
                               {"killed", WTERMSIG(own.Wait()) == SIGKILL}});
              });
              return report + Untrue({{"running", IsRunning(foreign.Pid()) && IsRunning(other.Pid())}});
            }),
            "");
}

TEST(KillByName, IsTrueWithoutNames) {
  EXPECT_TRUE(KillByName({}, SIGTERM));
  EXPECT_TRUE(KillByName({}, -1));
}

// Each of them begins with, or is, the number of a process that can be found.
TEST_F(FakeProc, HasNoProcessInEntriesThatAreNotAllDigits) {
  const std::vector<std::string> entries = {"1",  "1a",  "a1", "1 ", " 1", "+1",        "-1",   "1.0", "0x1",
                                            "1-", "1\n", "0",  "00", "-0", "1\xd9\xa1", "self", "net", "-2"};
  EXPECT_EQ(With(entries, "target\n", [] { return Text(GetPidsOf("target")); }), "1 ");
}

TEST_F(FakeProc, HasAProcessInEveryEntryOfDigits) {
  EXPECT_EQ(With({"4194305", "2147483647"}, "target\n",
                 [] {
                   return Untrue({{"both", GetPidsOf("target").size() == 2},
                                  {"order", GetPidsOf("target") == PidsInProc("target")}});
                 }),
            "");
}

TEST_F(FakeProc, LooksForTheNameByTheDecimalNumber) {
  EXPECT_EQ(With({"010", "8"}, "target\n", [] { return Text(GetPidsOf("target")); }), "8 ");
  EXPECT_EQ(With({"010", "10"}, "target\n", [] { return Text(GetPidsOf("target")); }), "10 10 ");
}

TEST_F(FakeProc, MakesNoSmallNumberOfAHugeOne) {
  EXPECT_EQ(With({"99999999999999999999", "4294967297", "9223372036854775807", "-1", "1"}, "target\n",
                 [] { return Text(GetPidsOf("target")); }),
            "1 ");
}

TEST_F(FakeProc, SkipsEntriesWithoutAName) {
  EXPECT_EQ(With({"5"}, "target\n",
                 [] {
                   WriteFile("/proc/6", "target\n");
                   (void)::mkdir("/proc/7", 0755);
                   (void)(::mkdir("/proc/8", 0755) == 0 && ::mkdir("/proc/8/comm", 0755) == 0);
                   return Text(GetPidsOf("target"));
                 }),
            "5 ");
}

TEST_F(FakeProc, HasNamesOf15BytesAtMostAndLosesOneNewline) {
  const std::vector<std::pair<std::string, std::string>> names = {{"", ""},
                                                                  {"\n", ""},
                                                                  {"\n\n", "\n"},
                                                                  {"x", "x"},
                                                                  {"x\n", "x"},
                                                                  {"x\n\n", "x\n"},
                                                                  {"x\ny\n", "x\ny"},
                                                                  {std::string("a\0b\n", 4), std::string("a\0b", 3)},
                                                                  {"\nx", "\nx"},
                                                                  {"x\r\n", "x\r"},
                                                                  {"123456789012345\n", "123456789012345"},
                                                                  {"1234567890123456", "123456789012345"},
                                                                  {"12345678901234\n\n", "12345678901234"}};
  for (const auto& [comm, name] : names) {
    EXPECT_EQ(With({"5"}, comm, [] { return GetProcessName(5); }), name) << comm;
  }
}

TEST(IsProcessAlive, TellsWhetherThereIsAProcess) {
  OtherProcess process;
  const pid_t pid = process.Pid();
  EXPECT_TRUE(IsProcessAlive(pid));
  EXPECT_TRUE(IsProcessAlive(::getpid()));
  EXPECT_TRUE(IsProcessAlive(::getppid()));

  (void)process.End(SIGKILL);
  EXPECT_FALSE(IsProcessAlive(pid));
  EXPECT_FALSE(IsProcessAlive(INT_MAX));
}

TEST(IsProcessAlive, IsTrueUntilSomebodyHasWaited) {
  OtherProcess zombie([] { ::_exit(0); });
  siginfo_t ended{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(zombie.Pid()), &ended, WEXITED | WNOWAIT), 0);

  EXPECT_TRUE(IsProcessAlive(zombie.Pid()));
}

// kill(2) takes each of them for a group of processes.
TEST(IsProcessAlive, IsFalseForIdsBelow1) {
  for (const int pid : {0, -1, -::getpgrp(), INT_MIN}) {
    EXPECT_FALSE(IsProcessAlive(pid)) << pid;
  }
}

TEST(IsProcessAlive, IsTrueForAnotherUsersProcess) {
  EXPECT_EQ(test::WithoutPrivileges([] { return ::kill(1, 0) == -1 && errno == EPERM && IsProcessAlive(1); }), 1);
}

}  // namespace
}  // namespace kiv::process
