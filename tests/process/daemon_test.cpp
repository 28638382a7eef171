#include <fcntl.h>
#include <grp.h>
#include <kiv/process.h>
#include <linux/capability.h>
#include <sched.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <functional>
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
using test::ReadFile;
using test::Untrue;
using test::WriteFile;

constexpr unsigned kUser = 54321;
constexpr unsigned kGroup = 54322;

void PrepareNothing() {}
std::string ObserveNothing() { return "observed"; }

// The process that calls Daemonize.
[[noreturn]] void BecomeDaemon(const std::function<void()>& prepare, const std::function<std::string()>& observe,
                               const std::string& file) {
  (void)::alarm(60);
  prepare();
  const int result = Daemonize();
  (void)::alarm(60);
  WriteFile(file, result == 0 ? observe() : "Daemonize returned " + std::to_string(result));
  ::_exit(0);
}

// Returns the sorted exit codes of all children of this process, and waits for their ends.
std::string ExitCodes() {
  std::vector<int> codes;
  for (int status = test::Subreaper::Next(); status != -1; status = test::Subreaper::Next()) {
    codes.push_back(WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status));
  }
  std::sort(codes.begin(), codes.end());
  std::string text = "exit codes";
  for (const int code : codes) {
    text += ' ' + std::to_string(code);
  }
  return text;
}

// Runs `prepare` in a process that then becomes a daemon, whose parent becomes this function's child, and returns what
// `observe` tells of it. When the caller, the process in between and the daemon do not all end with status 0: the
// codes.
std::string InDaemon(const std::function<void()>& prepare, const std::function<std::string()>& observe) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/report";
  const std::string ends = InChild([&] {
    const test::Subreaper subreaper;
    if (::fork() == 0) {
      BecomeDaemon(prepare, observe, file);
    }
    return ExitCodes();
  });
  return ends == "exit codes 0 0 0" ? ReadFile(file) : ends;
}

// Puts those of descriptors 0, 1 and 2 whose bit is set on something that is not /dev/null, and closes the others.
void HaveStandardDescriptors(unsigned open) {
  const internal::UniqueFd other(::fcntl(test::EventFd(0).Get(), F_DUPFD, 3));
  for (const int fd : {0, 1, 2}) {
    (void)((open & (1U << fd)) != 0 ? ::dup2(other.Get(), fd) : ::close(fd));
  }
}

bool IsDevNull(int fd) {
  struct stat status {};
  return ::fstat(fd, &status) == 0 && S_ISCHR(status.st_mode) && status.st_rdev == ::makedev(1, 3);
}

bool IsReadWrite(int fd) { return (::fcntl(fd, F_GETFL) & O_ACCMODE) == O_RDWR; }

bool IsCloseOnExec(int fd) { return (::fcntl(fd, F_GETFD) & FD_CLOEXEC) != 0; }

// Returns the words of one line of /proc/self/status.
std::string Status(const std::string& key) {
  std::istringstream lines(ReadFile("/proc/self/status"));
  std::string text;
  for (std::string line; std::getline(lines, line);) {
    std::istringstream words(line);
    std::string word;
    if (words >> word && word == key + ':') {
      while (words >> word) {
        text += text.empty() ? word : ' ' + word;
      }
    }
  }
  return text;
}

std::string Same(unsigned id) {
  const std::string text = std::to_string(id);
  return text + ' ' + text + ' ' + text + ' ' + text;
}

// Real, effective, saved and file system ids, and the supplementary groups.
std::string Ids() { return "uid " + Status("Uid") + ", gid " + Status("Gid") + ", groups " + Status("Groups"); }

std::string PlainIds(unsigned uid, unsigned gid) { return "uid " + Same(uid) + ", gid " + Same(gid) + ", groups "; }

void HaveGroups() {
  constexpr gid_t kGroups[] = {7, 8, 9};
  (void)::setgroups(3, kGroups);
}

// Leaves this process, effective user 0 or not, with the right to set its groups and no other.
bool KeepOnlyRightToSetGroups() {
  __user_cap_header_struct header{_LINUX_CAPABILITY_VERSION_3, 0};
  __user_cap_data_struct rights[2] = {};
  rights[0].permitted = rights[0].effective = 1U << CAP_SETGID;
  return ::syscall(SYS_capset, &header, rights) == 0;
}

TEST(Daemonize, GivesAProcessOfANewSessionThatItDoesNotLead) {
  pid_t caller = 0;
  pid_t session = 0;
  EXPECT_EQ(InDaemon(
                [&] {
                  caller = ::getpid();
                  session = ::getsid(0);
                },
                [&] {
                  return Untrue({{"another process", ::getpid() != caller},
                                 {"another session", ::getsid(0) != session && ::getsid(0) != caller},
                                 {"not its leader", ::getsid(0) != ::getpid()},
                                 {"in the session's first group", ::getpgrp() == ::getsid(0)}});
                }),
            "");
}

TEST(Daemonize, MakesTheReaperTheParent) {
  pid_t reaper = 0;
  EXPECT_EQ(InDaemon([&] { reaper = ::getppid(); },
                     [&] {
                       while (::getppid() == ::getsid(0)) {
                         (void)::sched_yield();
                       }
                       return Untrue({{"parent", ::getppid() == reaper}});
                     }),
            "");
}

TEST(Daemonize, WorksFromTheLeaderOfAGroupOrSession) {
  EXPECT_EQ(InDaemon([] { (void)::setpgid(0, 0); }, ObserveNothing), "observed");
  EXPECT_EQ(InDaemon([] { (void)::setsid(); }, ObserveNothing), "observed");
}

TEST(Daemonize, LeavesTheTerminalAndCannotGetOne) {
  const internal::UniqueFd master(::posix_openpt(O_RDWR | O_NOCTTY | O_CLOEXEC));
  ASSERT_EQ(::grantpt(master.Get()), 0);
  ASSERT_EQ(::unlockpt(master.Get()), 0);
  const std::string terminal = ::ptsname(master.Get());
  const auto hasTerminal = [] { return internal::UniqueFd(::open("/dev/tty", O_RDWR | O_CLOEXEC)).IsValid(); };
  const auto openTerminal = [&terminal] { return ::open(terminal.c_str(), O_RDWR | O_CLOEXEC); };

  EXPECT_EQ(InDaemon(
                [&] {
                  // The end of a session's leader is told to its processes.
                  (void)std::signal(SIGHUP, SIG_IGN);
                  (void)::setsid();
                  (void)openTerminal();
                  if (!hasTerminal()) {
                    ::_exit(99);
                  }
                },
                [&] {
                  const bool isFree = !hasTerminal();
                  return Untrue({{"no terminal", isFree}, {"opened", openTerminal() >= 0}, {"none", !hasTerminal()}});
                }),
            "");
}

TEST(Daemonize, PutsTheStandardDescriptorsOnDevNull) {
  EXPECT_EQ(InDaemon([] { HaveStandardDescriptors(7); },
                     [] {
                       return Untrue({{"null", IsDevNull(0) && IsDevNull(1) && IsDevNull(2)},
                                      {"both ways", IsReadWrite(0) && IsReadWrite(1) && IsReadWrite(2)},
                                      {"for programs", !IsCloseOnExec(0) && !IsCloseOnExec(1) && !IsCloseOnExec(2)}});
                     }),
            "");
}

TEST(Daemonize, HasNothingButDevNullWhicheverStandardDescriptorsWereClosed) {
  for (unsigned open = 0; open < 7; ++open) {
    EXPECT_EQ(InDaemon([open] { HaveStandardDescriptors(open); },
                       [] {
                         return Untrue({{"three", test::CountOpenFds() == 3},
                                        {"null", IsDevNull(0) && IsDevNull(1) && IsDevNull(2)},
                                        {"both ways", IsReadWrite(0) && IsReadWrite(1) && IsReadWrite(2)}});
                       }),
              "")
        << "open " << open;
  }
}

TEST(Daemonize, ClosesAllOtherDescriptors) {
  EXPECT_EQ(InDaemon(
                [] {
                  for (int i = 0; i < 200; ++i) {
                    (void)::fcntl(0, F_DUPFD, 10 + i / 100 * 600);
                  }
                  if (test::CountOpenFds() < 203) {
                    ::_exit(99);
                  }
                },
                [] { return std::to_string(test::CountOpenFds()); }),
            "3");
}

TEST(Daemonize, GoesToTheRootWithoutAUmask) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/made";
  EXPECT_EQ(InDaemon(
                [&] {
                  (void)::umask(077);
                  (void)(::chdir(folder.Path().c_str()) == 0);
                },
                [&] {
                  const internal::UniqueFd made(::open(file.c_str(), O_WRONLY | O_CREAT | O_CLOEXEC, 0666));
                  struct stat status {};
                  (void)::fstat(made.Get(), &status);
                  return Untrue({{"mode", (status.st_mode & 07777) == 0666},
                                 {"umask", ::umask(0) == 0},
                                 {"folder", std::filesystem::current_path() == "/"}});
                }),
            "");
}

TEST(Daemonize, IgnoresSigpipeAndKeepsTheOtherSignalsAndTheMask) {
  std::string before[3];
  const auto signals = [](std::string(&lines)[3]) {
    lines[0] = Status("SigIgn");
    lines[1] = Status("SigCgt");
    lines[2] = Status("SigBlk");
  };
  EXPECT_EQ(InDaemon(
                [&] {
                  (void)std::signal(SIGHUP, SIG_IGN);
                  (void)std::signal(SIGUSR2, [](int) {});
                  test::Block(SIGUSR1);
                  (void)std::signal(SIGPIPE, SIG_IGN);
                  signals(before);  // As it is to be.
                  (void)std::signal(SIGPIPE, SIG_DFL);
                },
                [&] {
                  std::string after[3];
                  signals(after);
                  return Untrue({{"ignored", after[0] == before[0]},
                                 {"caught", after[1] == before[1]},
                                 {"blocked", after[2] == before[2] && test::IsBlocked(SIGUSR1)}});
                }),
            "");
}

TEST(Daemonize, SurvivesABrokenPipe) {
  EXPECT_EQ(InDaemon([] { (void)std::signal(SIGPIPE, [](int) { ::_exit(98); }); },
                     [] {
                       int ends[2] = {-1, -1};
                       (void)::pipe2(ends, O_CLOEXEC);
                       (void)::close(ends[0]);
                       return Untrue({{"EPIPE", ::write(ends[1], "x", 1) == -1 && errno == EPIPE}});
                     }),
            "");
}

TEST(Daemonize, EndsTheCallerWithoutItsExitHandlers) {
  EXPECT_EQ(InDaemon([] { (void)std::atexit([] { ::_exit(99); }); }, ObserveNothing), "observed");
}

TEST(Daemonize, EndsTheCallerWithoutFlushingItsStreams) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/stream";
  EXPECT_EQ(InDaemon(
                [&file] {
                  std::FILE* const stream = std::fopen(file.c_str(), "we");
                  (void)std::fputs("unflushed", stream);
                },
                ObserveNothing),
            "observed");
  EXPECT_EQ(ReadFile(file), "");
}

TEST(Daemonize, EndsTheCallerWhileTheDaemonLivesOn) {
  const test::TempFolder folder;
  const test::Fifo gate(folder.Path() + "/gate");
  EXPECT_EQ(InChild([&gate] {
              const test::Subreaper subreaper;
              if (::fork() == 0) {
                BecomeDaemon(
                    PrepareNothing,
                    [&gate] {
                      std::string line;
                      (void)std::getline(std::ifstream(gate.Path()), line);
                      return line;
                    },
                    "/dev/null");
              }
              const int caller = test::Subreaper::Next();
              const int between = test::Subreaper::Next();
              gate.Release();
              return Untrue({{"ends", caller == 0 && between == 0}, {"daemon", test::Subreaper::Next() == 0}});
            }),
            "");
}

TEST(Daemonize, Returns1InTheCallerWhichItLeavesAloneWhenItCannotFork) {
  EXPECT_EQ(InChild([] {
              constexpr rlimit kNone{0, 0};
              (void)(::geteuid() != 0 || ::setresuid(kUser, kUser, kUser) == 0);
              (void)::setrlimit(RLIMIT_NPROC, &kNone);
              (void)::umask(027);
              (void)(::chdir("/tmp") == 0);
              const pid_t caller = ::getpid();
              const pid_t session = ::getsid(0);
              const std::size_t descriptors = test::CountOpenFds();
              errno = 0;
              const int result = Daemonize();
              const int reason = errno;
              return Untrue({{"1", result == 1},
                             {"EAGAIN", reason == EAGAIN},
                             {"process", ::getpid() == caller && ::getsid(0) == session},
                             {"folder", std::filesystem::current_path() == "/tmp"},
                             {"umask", ::umask(0) == 027},
                             {"descriptors", test::CountOpenFds() == descriptors},
                             {"SIGPIPE", std::signal(SIGPIPE, SIG_IGN) == SIG_DFL}});
            }),
            "");
}

TEST(Daemonize, EndsTheChildWithStatus1WithoutADescriptorForDevNull) {
  // With a limit of 2, /dev/null opens as descriptor 0 and cannot be put on 2.
  for (const rlim_t limit : {0U, 1U, 2U}) {
    EXPECT_EQ(InDaemon(
                  [limit] {
                    (void)::close(0);
                    (void)::close(1);
                    (void)::close(2);
                    const rlimit few{limit, limit};
                    (void)::setrlimit(RLIMIT_NOFILE, &few);
                  },
                  ObserveNothing),
              "exit codes 0 0 1")
        << limit;
  }
}

class DaemonizeAsRoot : public test::RootTest {};

TEST_F(DaemonizeAsRoot, EndsTheChildWithStatus1WithoutDevNull) {
  const test::TempFolder folder;
  EXPECT_EQ(InDaemon([&folder] { (void)(::chroot(folder.Path().c_str()) == 0); }, ObserveNothing), "exit codes 0 0 1");
}

class DropRootPrivilegesAsRoot : public test::RootTest {};

TEST_F(DropRootPrivilegesAsRoot, ChangesAllIdsAndLosesAllGroups) {
  EXPECT_EQ(InChild([] {
              HaveGroups();
              const bool result = DropRootPrivileges(kUser, kGroup);
              return Untrue({{"true", result}}) + Ids();
            }),
            PlainIds(kUser, kGroup));
}

TEST_F(DropRootPrivilegesAsRoot, LeavesNoWayBack) {
  EXPECT_EQ(InChild([] {
              const bool isDropped = DropRootPrivileges(kUser, kGroup);
              constexpr gid_t kRootGroup = 0;
              const std::string report =
                  Untrue({{"true", isDropped},
                          {"setuid", ::setuid(0) == -1 && errno == EPERM},
                          {"seteuid", ::seteuid(0) == -1},
                          {"setgid", ::setgid(0) == -1},
                          {"setegid", ::setegid(0) == -1},
                          {"setgroups", ::setgroups(1, &kRootGroup) == -1},
                          {"capabilities", Status("CapEff").find_first_not_of('0') == std::string::npos},
                          {"again", !DropRootPrivileges(0, 0)}});
              return report + Ids();
            }),
            PlainIds(kUser, kGroup));
}

TEST_F(DropRootPrivilegesAsRoot, ReachesEveryThread) {
  EXPECT_EQ(InChild([] {
              auto [here, there] = test::SocketPair();
              std::string ids;
              std::thread other([&ids, fd = there.Get()] {
                char byte = 0;
                (void)(::read(fd, &byte, 1) == 1);
                const std::string self = std::filesystem::read_symlink("/proc/thread-self");
                ids = ReadFile("/proc/" + self + "/status").find("Uid:\t54321\t54321\t54321\t54321\n") !=
                              std::string::npos
                          ? "dropped"
                          : "kept";
              });
              (void)DropRootPrivileges(kUser, kGroup);
              (void)(::write(here.Get(), "x", 1) == 1);
              other.join();
              return ids;
            }),
            "dropped");
}

TEST_F(DropRootPrivilegesAsRoot, ToRootItselfDropsTheGroups) {
  EXPECT_EQ(InChild([] {
              HaveGroups();
              const bool result = DropRootPrivileges(0, 0);
              return Untrue({{"true", result}}) + Ids();
            }),
            PlainIds(0, 0));
}

TEST_F(DropRootPrivilegesAsRoot, StopsAtAGroupThatCannotBe) {
  EXPECT_EQ(InChild([] {
              HaveGroups();
              const bool result = DropRootPrivileges(kUser, static_cast<unsigned>(-1));
              return Untrue({{"EINVAL", errno == EINVAL}, {"false", !result}}) + Ids();
            }),
            PlainIds(0, 0));
}

TEST_F(DropRootPrivilegesAsRoot, StopsAtAUserThatCannotBeWithTheGroupSet) {
  EXPECT_EQ(InChild([] {
              HaveGroups();
              const bool result = DropRootPrivileges(static_cast<unsigned>(-1), kGroup);
              return Untrue({{"EINVAL", errno == EINVAL}, {"false", !result}}) + Ids();
            }),
            PlainIds(0, kGroup));
}

TEST_F(DropRootPrivilegesAsRoot, StopsAtAnotherUserWithTheRightToSetGroupsAlone) {
  EXPECT_EQ(InChild([] {
              (void)::prctl(PR_SET_KEEPCAPS, 1);
              (void)(::setresuid(kUser, kUser, kUser) == 0 && KeepOnlyRightToSetGroups());
              const bool result = DropRootPrivileges(kUser + 1, kGroup);
              return Untrue({{"EPERM", errno == EPERM}, {"false", !result}}) + Ids();
            }),
            PlainIds(kUser, kGroup));
}

TEST_F(DropRootPrivilegesAsRoot, IsFalseWhenTheRealUserStaysAnother) {
  EXPECT_EQ(InChild([] {
              (void)::prctl(PR_SET_KEEPCAPS, 1);
              (void)(::setresuid(kUser, kUser + 1, kUser + 1) == 0 && KeepOnlyRightToSetGroups());
              // Without the right to set users, setuid(2) is content to set the effective one.
              const std::string report =
                  Untrue({{"setuid", ::setuid(kUser + 1) == 0}, {"false", !DropRootPrivileges(kUser + 1, kGroup)}});
              return report + Status("Uid");
            }),
            "54321 54322 54322 54322");
}

TEST(DropRootPrivileges, ByAnOrdinaryUserIsRefusedAndChangesNothing) {
  const std::vector<std::pair<unsigned, unsigned>> targets = {{kUser + 1, kGroup + 1}, {0, 0}, {kUser, kGroup}};
  for (const auto& [uid, gid] : targets) {
    EXPECT_EQ(InChild([uid = uid, gid = gid] {
                if (::geteuid() == 0) {
                  HaveGroups();
                  (void)(::setresgid(kGroup, kGroup, kGroup) == 0 && ::setresuid(kUser, kUser, kUser) == 0);
                }
                const std::string before = Ids();
                errno = 0;
                const bool result = DropRootPrivileges(uid, gid);
                return Untrue({{"EPERM", errno == EPERM}, {"false", !result}, {"ids", Ids() == before}});
              }),
              "")
        << uid;
  }
}

TEST(DropRootPrivileges, StopsAtTheGroupsInAUserNamespaceThatMayNotSetThem) {
  const std::string result = InChild([] {
    const std::string uid = std::to_string(::geteuid());
    const std::string gid = std::to_string(::getegid());
    if (::unshare(CLONE_NEWUSER) != 0) {
      return std::string("no namespace");
    }
    WriteFile("/proc/self/setgroups", "deny");
    WriteFile("/proc/self/uid_map", "0 " + uid + " 1");
    WriteFile("/proc/self/gid_map", "0 " + gid + " 1");
    errno = 0;
    const bool isDropped = DropRootPrivileges(0, 0);
    return Untrue({{"EPERM", errno == EPERM}, {"root there", ::geteuid() == 0}, {"false", !isDropped}});
  });
  if (result == "no namespace" && std::getenv("CI") == nullptr) {
    GTEST_SKIP() << result;
  }
  EXPECT_EQ(result, "");
}

}  // namespace
}  // namespace kiv::process
