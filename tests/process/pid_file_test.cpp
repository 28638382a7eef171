#include <fcntl.h>
#include <kiv/process.h>
#include <pthread.h>
#include <sys/file.h>
#include <sys/mman.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdio>
#include <new>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/child.h"
#include "tests/support.h"

namespace kiv::process {
namespace {

using test::Exists;
using test::InChild;
using test::ModeOf;
using test::OtherProcess;
using test::ReadFile;
using test::Untrue;
using test::WriteFile;

static_assert(!std::is_copy_constructible_v<PidFile> && !std::is_copy_assignable_v<PidFile>);

std::string Text(pid_t pid) { return std::to_string(pid); }

std::string OwnPid() { return Text(::getpid()); }

// The id of a process that has ended and was waited for.
std::string DeadPid() {
  OtherProcess process;
  const std::string text = Text(process.Pid());
  (void)process.End(SIGKILL);
  return text;
}

// Tells whether the lock of the file, under whatever name, can be had.
bool IsFree(const std::string& path) {
  const internal::UniqueFd fd(::open(path.c_str(), O_RDWR | O_CLOEXEC));
  return ::flock(fd.Get(), LOCK_EX | LOCK_NB) == 0;
}

// A pid file that another process locked first, if it could.
class OtherHolder {
 public:
  explicit OtherHolder(const std::string& path)
      : mProcess([&path] {
          static std::optional<PidFile> file;
          if (!file.emplace(path).Lock()) {
            ::_exit(1);
          }
        }) {}
  OtherProcess& Process() { return mProcess; }

 private:
  OtherProcess mProcess;
};

class PidFileTest : public testing::Test {
 protected:
  void SetUp() override { ASSERT_FALSE(mFolder.Path().empty()); }

  // Whether a file with this content is taken, with its content afterwards.
  std::string LockOver(const std::string& content) const {
    WriteFile(Path(), content);
    PidFile file(Path());
    const std::string result = file.Lock() ? "held, " : "refused, ";
    return result + ReadFile(Path());
  }

  std::string Path() const { return mFolder.Path() + "/pid"; }
  std::string Path(const std::string& name) const { return mFolder.Path() + '/' + name; }

 private:
  test::TempFolder mFolder;
};

class PidFileConstruction : public PidFileTest {};
class PidFileLock : public PidFileTest {};
class PidFileDestruction : public PidFileTest {};
class PidFileRace : public PidFileTest {};

TEST_F(PidFileConstruction, TouchesNoFile) {
  const std::size_t descriptors = test::CountOpenFds();
  const PidFile missing(Path());
  EXPECT_FALSE(Exists(Path()));

  WriteFile(Path("other"), "abc");
  { const PidFile existing(Path("other")); }
  EXPECT_EQ(ReadFile(Path("other")), "abc");
  EXPECT_EQ(test::CountOpenFds(), descriptors);
}

TEST_F(PidFileLock, WritesThePidAndNothingElseToANewFile) {
  PidFile file(Path());
  EXPECT_TRUE(file.Lock());
  EXPECT_EQ(ReadFile(Path()), OwnPid());
}

TEST_F(PidFileLock, MakesTheFileWithMode0644LessTheUmask) {
  const std::vector<std::pair<mode_t, mode_t>> masks = {{0, 0644}, {022, 0644}, {027, 0640}, {077, 0600}};
  for (const auto& [mask, mode] : masks) {
    const test::Umask umask(mask);
    PidFile file(Path());
    EXPECT_TRUE(file.Lock());
    EXPECT_EQ(ModeOf(Path()), mode);
  }
}

TEST_F(PidFileLock, HoldsADescriptorWithTheNumber0) {
  EXPECT_EQ(InChild([this] {
              (void)::close(STDIN_FILENO);
              {
                PidFile file(Path());
                if (!file.Lock() || !test::IsOpen(STDIN_FILENO) || IsFree(Path())) {
                  return std::string("not locked");
                }
              }
              return Untrue({{"closed", !test::IsOpen(STDIN_FILENO)}, {"removed", !Exists(Path())}});
            }),
            "");
}

TEST_F(PidFileLock, KeepsTheModeOfAnExistingFile) {
  WriteFile(Path(), "");
  ASSERT_EQ(::chmod(Path().c_str(), 0660), 0);

  PidFile file(Path());
  EXPECT_TRUE(file.Lock());
  EXPECT_EQ(ModeOf(Path()), 0660U);
}

TEST_F(PidFileLock, KeepsOneDescriptorThatProgramsDoNotGet) {
  const std::size_t before = test::CountOpenFds();
  const int fd = test::NextFd();
  PidFile file(Path());
  ASSERT_TRUE(file.Lock());

  EXPECT_EQ(test::CountOpenFds(), before + 1);
  EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
  EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
  EXPECT_FALSE(IsFree(Path()));
}

TEST_F(PidFileLock, OverwritesWhatIsNoPid) {
  const OtherProcess process;
  const std::string live = Text(process.Pid());
  char hex[16];
  (void)std::snprintf(hex, sizeof hex, "0x%x", static_cast<unsigned>(process.Pid()));
  for (const std::string& content : {std::string(),
                                     std::string("0"),
                                     std::string("-5"),
                                     std::string("4194305"),
                                     std::string("abc"),
                                     live + '\n',
                                     live + ' ',
                                     live + "\r\n",
                                     live + 'x',
                                     live + ".0",
                                     '-' + live,
                                     "+-" + live,
                                     "x" + live,
                                     live + ' ' + live,
                                     std::string(" "),
                                     std::string("\n"),
                                     std::string("+"),
                                     std::string(hex),
                                     std::string(1, '\0') + live,
                                     std::string("99999999999999999999"),
                                     std::string(31, '9'),
                                     std::string(40, '9'),
                                     std::string(31, '0'),
                                     std::string(31, ' ') + live,
                                     std::string(5000, 'z')}) {
    EXPECT_EQ(LockOver(content), "held, " + OwnPid()) << content;
  }
}

TEST_F(PidFileLock, OverwritesThePidOfADeadProcess) {
  for (const std::string& content : {DeadPid(), ' ' + DeadPid(), std::string("4194304")}) {
    EXPECT_EQ(LockOver(content), "held, " + OwnPid()) << content;
  }
}

TEST_F(PidFileLock, IsRefusedByThePidOfALiveProcess) {
  const OtherProcess process;
  const std::string live = Text(process.Pid());
  const std::size_t room = 31 - live.size();
  for (const std::string& content :
       {live, ' ' + live, "\n\t\v\f\r " + live, '+' + live, "000" + live, live + std::string(1, '\0') + "text",
        std::string(room, '0') + live, std::string(room, ' ') + live + "x, which is byte 32", OwnPid(),
        Text(::getppid()), std::string("1")}) {
    EXPECT_EQ(LockOver(content), "refused, " + content);
  }
}

TEST_F(PidFileLock, IsRefusedByAProcessThatNobodyHasWaitedFor) {
  OtherProcess zombie([] { ::_exit(0); });
  siginfo_t ended{};
  ASSERT_EQ(::waitid(P_PID, static_cast<id_t>(zombie.Pid()), &ended, WEXITED | WNOWAIT), 0);
  const std::string pid = Text(zombie.Pid());

  EXPECT_EQ(LockOver(pid), "refused, " + pid);
  (void)zombie.Wait();
  EXPECT_EQ(LockOver(pid), "held, " + OwnPid());
}

TEST_F(PidFileLock, LeavesAFileWithALiveHolderUntouched) {
  WriteFile(Path(), OwnPid());
  const timespec longAgo[2] = {{1000, 0}, {1000, 0}};
  ASSERT_EQ(::utimensat(AT_FDCWD, Path().c_str(), longAgo, 0), 0);
  struct stat before {};
  ASSERT_EQ(::stat(Path().c_str(), &before), 0);
  const std::size_t descriptors = test::CountOpenFds();
  {
    PidFile file(Path());
    errno = 0;
    EXPECT_FALSE(file.Lock());
    EXPECT_EQ(errno, 0);
    EXPECT_EQ(test::CountOpenFds(), descriptors);
    EXPECT_TRUE(IsFree(Path()));
  }
  struct stat after {};
  ASSERT_EQ(::stat(Path().c_str(), &after), 0);
  EXPECT_EQ(after.st_ino, before.st_ino);
  EXPECT_EQ(after.st_mtim.tv_sec, 1000);
  EXPECT_EQ(ReadFile(Path()), OwnPid());
}

TEST_F(PidFileLock, SaysNothing) {
  EXPECT_EQ(test::OutputOf([this] {
              (void)PidFile(Path("missing/pid")).Lock();
              WriteFile(Path("live"), OwnPid());
              (void)PidFile(Path("live")).Lock();
              PidFile held(Path());
              (void)held.Lock();
              (void)PidFile(Path()).Lock();
            }),
            "");
}

TEST_F(PidFileLock, IsRefusedByAnotherUsersProcess) {
  WriteFile(Path(), "1");
  ASSERT_EQ(::chmod(Path().c_str(), 0666), 0);
  ASSERT_EQ(::chmod(Path(".").c_str(), 0777), 0);

  EXPECT_EQ(test::WithoutPrivileges([this] {
              PidFile file(Path());
              errno = 0;
              return !file.Lock() && errno == EPERM;
            }),
            1);
  EXPECT_EQ(ReadFile(Path()), "1");
}

TEST_F(PidFileLock, FailsWhileAnotherProcessHoldsTheFile) {
  OtherHolder holder(Path());
  const std::string content = Text(holder.Process().Pid());
  ASSERT_EQ(ReadFile(Path()), content);
  const std::size_t descriptors = test::CountOpenFds();
  {
    PidFile file(Path());
    errno = 0;
    EXPECT_FALSE(file.Lock());
    EXPECT_EQ(errno, EWOULDBLOCK);
    EXPECT_EQ(test::CountOpenFds(), descriptors);
  }
  EXPECT_EQ(ReadFile(Path()), content);
}

TEST_F(PidFileLock, DoesNotLookAtALockedFile) {
  WriteFile(Path(), "stale");
  const internal::UniqueFd holder(::open(Path().c_str(), O_RDWR | O_CLOEXEC));
  ASSERT_EQ(::flock(holder.Get(), LOCK_SH), 0);

  PidFile file(Path());
  EXPECT_FALSE(file.Lock());
  EXPECT_EQ(ReadFile(Path()), "stale");
}

TEST_F(PidFileLock, FailsForASecondObjectOfTheSameProcess) {
  PidFile first(Path());
  ASSERT_TRUE(first.Lock());
  {
    PidFile second(Path());
    EXPECT_FALSE(second.Lock());
  }
  EXPECT_EQ(ReadFile(Path()), OwnPid());
  EXPECT_FALSE(IsFree(Path()));
}

TEST_F(PidFileLock, FailsTheSecondTimeAndKeepsTheFirstLock) {
  const std::size_t descriptors = test::CountOpenFds();
  {
    PidFile file(Path());
    ASSERT_TRUE(file.Lock());
    EXPECT_FALSE(file.Lock());
    EXPECT_EQ(test::CountOpenFds(), descriptors + 1);
    EXPECT_FALSE(IsFree(Path()));
  }
  EXPECT_FALSE(Exists(Path()));
  EXPECT_EQ(test::CountOpenFds(), descriptors);
}

TEST_F(PidFileLock, IsNotGuardedAgainstASecondCallOnceTheFileIsGone) {
  const internal::UniqueFd forgotten(test::NextFd());
  PidFile file(Path());
  ASSERT_TRUE(file.Lock());
  ASSERT_EQ(::unlink(Path().c_str()), 0);

  EXPECT_TRUE(file.Lock());
  EXPECT_EQ(ReadFile(Path()), OwnPid());
  EXPECT_TRUE(test::IsOpen(forgotten.Get()));
}

TEST_F(PidFileLock, MaySucceedAfterAFailure) {
  PidFile file(Path());
  {
    PidFile first(Path());
    ASSERT_TRUE(first.Lock());
    ASSERT_FALSE(file.Lock());
  }
  EXPECT_TRUE(file.Lock());
  EXPECT_EQ(ReadFile(Path()), OwnPid());
}

TEST_F(PidFileLock, TakesOverFromAHolderThatWasKilled) {
  OtherHolder holder(Path());
  const std::string before = ReadFile(Path());
  (void)holder.Process().End(SIGKILL);
  EXPECT_EQ(ReadFile(Path()), before);

  PidFile file(Path());
  EXPECT_TRUE(file.Lock());
  EXPECT_EQ(ReadFile(Path()), OwnPid());
}

// The lock belongs to the open file, not to the process: the heir keeps it until it ends.
TEST_F(PidFileLock, IsRefusedWhileAForkedChildOfAKilledHolderLives) {
  const test::Subreaper subreaper;
  auto [here, there] = test::SocketPair();
  const pid_t holder = ::fork();
  if (holder == 0) {
    PidFile file(Path());
    (void)(::alarm(60) == 0 && file.Lock());
    const OtherProcess heir([] { (void)::prctl(PR_SET_PDEATHSIG, 0); });
    const pid_t pid = heir.Pid();
    (void)(::write(there.Get(), &pid, sizeof pid) == sizeof pid);
    (void)::pause();
    ::_exit(1);
  }
  pid_t heir = -1;
  there.Reset();
  ASSERT_EQ(::read(here.Get(), &heir, sizeof heir), static_cast<ssize_t>(sizeof heir));
  ASSERT_GT(std::min(holder, heir), 0);
  (void)(::kill(holder, SIGKILL) == 0 && ::waitpid(holder, nullptr, 0) == holder);

  PidFile file(Path());
  EXPECT_FALSE(file.Lock());
  EXPECT_EQ(ReadFile(Path()), Text(holder));
  (void)(::kill(heir, SIGKILL) == 0 && ::waitpid(heir, nullptr, 0) == heir);
  EXPECT_TRUE(file.Lock());
}

TEST_F(PidFileLock, FailsWhereNoFileCanBe) {
  const std::size_t descriptors = test::CountOpenFds();
  for (const std::string& path : {std::string(), Path("missing/pid"), Path("."), Path("pid/")}) {
    PidFile file(path);
    EXPECT_FALSE(file.Lock()) << path;
    EXPECT_EQ(test::CountOpenFds(), descriptors);
  }
}

// A named pipe takes a lock and gives its content, but cannot be cut.
TEST_F(PidFileLock, FailsWhenStaleContentCannotBeRemoved) {
  const test::Fifo fifo(Path());
  fifo.Release();
  const std::size_t descriptors = test::CountOpenFds();
  {
    PidFile file(Path());
    EXPECT_FALSE(file.Lock());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(test::CountOpenFds(), descriptors);
    EXPECT_TRUE(IsFree(Path()));
  }
  EXPECT_TRUE(Exists(Path()));
}

TEST_F(PidFileLock, FailsWhenThePidCannotBeWrittenWhole) {
  for (const rlim_t room : {0U, 1U}) {
    WriteFile(Path(), "stale");
    EXPECT_EQ(
        InChild([this, room] {
          (void)std::signal(SIGXFSZ, SIG_IGN);
          const rlimit size{room, room};
          (void)::setrlimit(RLIMIT_FSIZE, &size);
          const std::size_t descriptors = test::CountOpenFds();
          PidFile file(Path());
          const bool isLocked = file.Lock();
          return Untrue(
              {{"false", !isLocked}, {"descriptors", test::CountOpenFds() == descriptors}, {"free", IsFree(Path())}});
        }),
        "");
    EXPECT_EQ(ReadFile(Path()).size(), room);
  }
}

class PidFileLockAsRoot : public test::RootTest {};

TEST_F(PidFileLockAsRoot, FailsWhenTheFileCannotBeFlushed) {
  const test::TempFolder folder;
  const std::string device = folder.Path() + "/null";
  ASSERT_EQ(::mknod(device.c_str(), S_IFCHR | 0666, ::makedev(1, 3)), 0);
  const std::size_t descriptors = test::CountOpenFds();
  {
    PidFile file(device);
    EXPECT_FALSE(file.Lock());
    EXPECT_EQ(errno, EINVAL);
    EXPECT_EQ(test::CountOpenFds(), descriptors);
  }
  EXPECT_TRUE(Exists(device));
}

TEST_F(PidFileDestruction, RemovesAndClosesALockedFile) {
  const std::size_t descriptors = test::CountOpenFds();
  {
    PidFile file(Path());
    ASSERT_TRUE(file.Lock());
  }
  EXPECT_FALSE(Exists(Path()));
  EXPECT_EQ(test::CountOpenFds(), descriptors);
}

TEST_F(PidFileDestruction, LeavesTheFileWhenItIsNotLocked) {
  WriteFile(Path(), OwnPid());
  { const PidFile neverTried(Path()); }
  {
    PidFile refused(Path());
    EXPECT_FALSE(refused.Lock());
  }
  EXPECT_EQ(ReadFile(Path()), OwnPid());
}

TEST_F(PidFileDestruction, RemovesWhateverHasTheNameByThen) {
  {
    PidFile file(Path());
    ASSERT_TRUE(file.Lock());
    WriteFile(Path("other"), "other");
    ASSERT_EQ(::rename(Path("other").c_str(), Path().c_str()), 0);
  }
  EXPECT_FALSE(Exists(Path()));
}

TEST_F(PidFileDestruction, TakesAFileThatIsGone) {
  const std::size_t descriptors = test::CountOpenFds();
  {
    PidFile file(Path());
    ASSERT_TRUE(file.Lock());
    ASSERT_EQ(::unlink(Path().c_str()), 0);
  }
  EXPECT_EQ(test::CountOpenFds(), descriptors);
}

TEST_F(PidFileDestruction, UnlocksThoughAForkedChildHasTheDescriptor) {
  std::optional<OtherProcess> heir;
  {
    PidFile file(Path());
    ASSERT_TRUE(file.Lock());
    ASSERT_EQ(::link(Path().c_str(), Path("link").c_str()), 0);
    heir.emplace();
    ASSERT_FALSE(IsFree(Path("link")));
  }
  EXPECT_TRUE(IsFree(Path("link")));
}

#if defined(__SANITIZE_ADDRESS__)
constexpr unsigned kRunners = 20;
#else
constexpr unsigned kRunners = 50;
#endif

// What the processes of a race share, in memory that they share. A round has four steps that all take together: lock,
// look at what came of it, let the file go, prepare the next one.
class Race {
 public:
  Race() {
    pthread_barrierattr_t shared;
    (void)::pthread_barrierattr_init(&shared);
    (void)::pthread_barrierattr_setpshared(&shared, PTHREAD_PROCESS_SHARED);
    (void)::pthread_barrier_init(&mStep, &shared, kRunners + 1);
    (void)::pthread_barrierattr_destroy(&shared);
  }

  // What one runner does in a round.
  void Run(unsigned runner, const std::string& path) {
    NextStep();
    {
      PidFile file(path);
      mHolders[runner] = file.Lock() ? ::getpid() : 0;
      NextStep();
      NextStep();
    }
    NextStep();
  }

  // What the referee does in a round. Returns what was wrong with it.
  std::string Judge(const std::string& path) {
    NextStep();
    NextStep();
    const auto count = std::count_if(mHolders, mHolders + kRunners, [](pid_t pid) { return pid != 0; });
    const std::string holder = Text(*std::max_element(mHolders, mHolders + kRunners));
    const std::string named = ReadFile(path);
    NextStep();
    NextStep();
    const bool isFair = count == 1 && named == holder && !Exists(path);
    return isFair ? std::string() : std::to_string(count) + " holders, one is " + holder + ", file: " + named + '\n';
  }

 private:
  void NextStep() { (void)::pthread_barrier_wait(&mStep); }

  pthread_barrier_t mStep{};
  pid_t mHolders[kRunners] = {};
};

TEST_F(PidFileRace, HasExactlyOneWinnerWhateverTheFileHeld) {
  constexpr unsigned kRounds = 25;
  const std::string contents[] = {"missing", "", "stale", DeadPid(), DeadPid() + '\n'};
  EXPECT_EQ(InChild([&] {
              void* const memory =
                  ::mmap(nullptr, sizeof(Race), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS, -1, 0);
              Race& race = *new (memory) Race;
              for (unsigned runner = 0; runner < kRunners; ++runner) {
                if (::fork() == 0) {
                  (void)::alarm(60);
                  for (unsigned round = 0; round < kRounds; ++round) {
                    race.Run(runner, Path());
                  }
                  ::_exit(0);
                }
              }
              std::string faults;
              for (unsigned round = 0; round < kRounds; ++round) {
                if (round % 5 != 0) {
                  WriteFile(Path(), contents[round % 5]);
                }
                faults += race.Judge(Path());
              }
              while (test::Subreaper::Next() != -1) {
              }
              return faults;
            }),
            "");
}

}  // namespace
}  // namespace kiv::process
