#include <fcntl.h>
#include <kiv/ipc.h>
#include <sched.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/time.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <sstream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/child.h"
#include "tests/support.h"

namespace kiv::ipc {
namespace {

using test::Exists;
using test::InChild;
using test::ModeOf;
using test::ReadFile;
using test::StatusOf;
using test::Untrue;
using test::WriteFile;

constexpr unsigned kMode = 0600;

static_assert(!std::is_copy_constructible_v<SharedMemory> && !std::is_copy_assignable_v<SharedMemory>);
static_assert(!std::is_copy_constructible_v<Semaphore> && !std::is_copy_assignable_v<Semaphore>);
static_assert(std::is_nothrow_move_constructible_v<SharedMemory> && std::is_nothrow_move_assignable_v<SharedMemory>);
static_assert(std::is_nothrow_move_constructible_v<Semaphore> && std::is_nothrow_move_assignable_v<Semaphore>);

std::string UniqueName(const std::string& suffix) { return "/kiv-" + std::to_string(::getpid()) + '-' + suffix; }

// Where the C library keeps the object of this name.
std::string MemoryFile(const std::string& name) { return "/dev/shm" + name; }
std::string SemaphoreFile(const std::string& name) { return "/dev/shm/sem." + name.substr(1); }

void Fill(const SharedMemory& memory, char value) { std::memset(memory.GetAddress(), value, memory.GetSize()); }

std::string Content(const SharedMemory& memory) {
  return memory.IsValid() ? std::string(static_cast<const char*>(memory.GetAddress()), memory.GetSize()) : "none";
}

// The line of /proc/self/maps that begins at `address`.
std::string MappingAt(const void* address) {
  std::istringstream lines(ReadFile("/proc/self/maps"));
  for (std::string line; std::getline(lines, line);) {
    if (std::stoull(line, nullptr, 16) == reinterpret_cast<std::uintptr_t>(address)) {
      return line;
    }
  }
  return {};
}

std::size_t Length(const std::string& mapping) {
  const std::size_t dash = mapping.find('-');
  return static_cast<std::size_t>(std::stoull(mapping.substr(dash + 1), nullptr, 16) -
                                  std::stoull(mapping, nullptr, 16));
}

bool IsEmpty(const SharedMemory& memory) { return !memory.IsValid() && memory.GetAddress() == MAP_FAILED; }

// Makes a semaphore in another process. Where it is opened, the list of mappings shows its name; where it is made, that
// list shows the name that it had before it was linked to its own.
void MakeElsewhere(const std::string& name, unsigned value) {
  EXPECT_TRUE(test::IsTrueInChild([&] { return Semaphore(name, value, kMode).IsValid(); }));
}

bool IsMapped(const std::string& name) {
  return ReadFile("/proc/self/maps").find(SemaphoreFile(name) + '\n') != std::string::npos;
}

// Takes what the semaphore counts. Returns how much that was.
int Drain(Semaphore& semaphore) {
  int count = 0;
  while (semaphore.TryWait()) {
    ++count;
  }
  return count;
}

// Waits until a process sleeps in a system call.
void WaitUntilAsleep(pid_t pid) {
  std::string text;
  do {
    (void)::sched_yield();
    text = ReadFile("/proc/" + std::to_string(pid) + "/stat");
  } while (text.find(") S ") == std::string::npos && text.find(") Z ") == std::string::npos && !text.empty());
}

class IpcTest : public testing::Test {
 protected:
  void TearDown() override {
    for (const std::string& name : {mName, mOther}) {
      (void)SharedMemory::Remove(name);
      (void)Semaphore::Remove(name);
    }
  }

  const std::string mName = UniqueName("a");
  const std::string mOther = UniqueName("b");
};

class SharedMemoryConstruction : public IpcTest {};
class SharedMemoryClose : public IpcTest {};
class SharedMemoryMove : public IpcTest {};
class SharedMemoryRemove : public IpcTest {};
class SemaphoreConstruction : public IpcTest {};
class SemaphoreWait : public IpcTest {};
class SemaphoreTryWait : public IpcTest {};
class SemaphorePost : public IpcTest {};
class SemaphoreMove : public IpcTest {};
class SemaphoreRemove : public IpcTest {};

TEST_F(SharedMemoryConstruction, MapsZerosToBeReadAndWritten) {
  const std::size_t page = static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
  for (const unsigned size : {1U, 4096U, 4097U, 1000000U}) {
    const SharedMemory memory(mName, size, kMode);
    ASSERT_TRUE(memory.IsValid());
    EXPECT_EQ(Content(memory), std::string(size, '\0'));

    Fill(memory, 'x');
    EXPECT_EQ(ReadFile(MemoryFile(mName)), std::string(size, 'x'));
    const std::string mapping = MappingAt(memory.GetAddress());
    EXPECT_NE(mapping.find(" rw-s "), std::string::npos) << mapping;
    EXPECT_EQ(Length(mapping), (size + page - 1) / page * page);
  }
}

TEST_F(SharedMemoryConstruction, GivesTheSameBytesToAnotherProcess) {
  const SharedMemory memory(mName, 4096, kMode);
  Fill(memory, 'p');
  EXPECT_EQ(InChild([this] {
              const SharedMemory opened(mName, 0, 0);
              const std::string content = Content(opened);
              Fill(opened, 'c');
              return content;
            }),
            std::string(4096, 'p'));
  EXPECT_EQ(Content(memory), std::string(4096, 'c'));
}

TEST_F(SharedMemoryConstruction, OfAnExistingOneTakesItsSize) {
  EXPECT_EQ(InChild([this] { return Content(SharedMemory(mName, 4097, kMode)); }), std::string(4097, '\0'));

  const SharedMemory opened(mName, 0, kMode);
  EXPECT_EQ(opened.GetSize(), 4097U);
  EXPECT_EQ(Content(opened), std::string(4097, '\0'));
}

TEST_F(SharedMemoryConstruction, WithASizeWipesAnExistingOne) {
  for (const unsigned size : {4096U, 100U, 9000U}) {
    const SharedMemory first(mName, 4096, kMode);
    Fill(first, 'x');
    const SharedMemory second(mName, size, kMode);
    EXPECT_EQ(Content(second), std::string(size, '\0'));
    EXPECT_EQ(StatusOf(MemoryFile(mName)).st_size, static_cast<off_t>(size));
    EXPECT_EQ(*static_cast<const char*>(first.GetAddress()), '\0');
  }
}

TEST_F(SharedMemoryConstruction, HoldsADescriptorThatProgramsDoNotGet) {
  const std::size_t before = test::CountOpenFds();
  const int fd = test::NextFd();
  for (const unsigned size : {4096U, 0U}) {
    const SharedMemory memory(mName, size, kMode);
    EXPECT_EQ(test::CountOpenFds(), before + 1);
    EXPECT_EQ(::fcntl(fd, F_GETFD), FD_CLOEXEC);
    EXPECT_EQ(::fcntl(fd, F_GETFL) & O_ACCMODE, O_RDWR);
  }
}

TEST_F(SharedMemoryConstruction, GivesTheModeLessTheUmaskToANewObjectAlone) {
  const test::Umask umask(027);
  const SharedMemory first(mName, 1, 0666);
  EXPECT_EQ(ModeOf(MemoryFile(mName)), 0640U);

  const SharedMemory second(mName, 1, 0600);
  EXPECT_EQ(ModeOf(MemoryFile(mName)), 0640U);
}

TEST_F(SharedMemoryConstruction, RefusesANameWithoutASlashInFront) {
  const SharedMemory existing(mName, 4096, kMode);
  for (const std::string& name : {std::string(), mName.substr(1), ' ' + mName, "x" + mName}) {
    for (const unsigned size : {0U, 77U}) {
      const SharedMemory memory(name, size, kMode);
      EXPECT_TRUE(IsEmpty(memory)) << name;
      EXPECT_EQ(memory.GetSize(), size);
    }
  }
  EXPECT_EQ(StatusOf(MemoryFile(mName)).st_size, 4096);
}

TEST_F(SharedMemoryConstruction, TakesADescriptorWithTheNumber0) {
  EXPECT_EQ(InChild([this] {
              (void)::close(STDIN_FILENO);
              SharedMemory memory(mName, 4096, kMode);
              if (!memory.IsValid() || !test::IsOpen(STDIN_FILENO)) {
                return std::string("not opened");
              }
              memory.Close();
              return Untrue({{"closed", !test::IsOpen(STDIN_FILENO)}, {"empty", IsEmpty(memory)}});
            }),
            "");
}

TEST_F(SharedMemoryConstruction, IsEmptyForANameThatTheKernelRefuses) {
  const std::size_t before = test::CountOpenFds();
  const std::vector<std::pair<std::string, int>> names = {
      {"/", EINVAL}, {mName + "/x", EINVAL}, {'/' + std::string(256, 'n'), ENAMETOOLONG}};
  for (const auto& [name, reason] : names) {
    errno = 0;
    EXPECT_TRUE(IsEmpty(SharedMemory(name, 1, kMode))) << name;
    EXPECT_EQ(errno, reason);
  }
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(SharedMemoryConstruction, WithoutASizeIsEmptyWhenThereIsNone) {
  errno = 0;
  EXPECT_TRUE(IsEmpty(SharedMemory(mName, 0, kMode)));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(Exists(MemoryFile(mName)));
}

TEST_F(SharedMemoryConstruction, WithoutASizeIsEmptyWhenTheObjectHasNoBytes) {
  WriteFile(MemoryFile(mName), "");
  const std::size_t before = test::CountOpenFds();

  const SharedMemory memory(mName, 0, kMode);
  EXPECT_TRUE(IsEmpty(memory));
  EXPECT_EQ(memory.GetSize(), 0U);
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(SharedMemoryConstruction, IsEmptyWhenTheSizeCannotBeSet) {
  EXPECT_EQ(InChild([this] {
              constexpr rlimit kSmall{4096, 4096};
              (void)std::signal(SIGXFSZ, SIG_IGN);
              (void)::setrlimit(RLIMIT_FSIZE, &kSmall);
              const std::size_t before = test::CountOpenFds();
              const SharedMemory memory(mName, 4097, kMode);
              return Untrue({{"EFBIG", errno == EFBIG},
                             {"empty", IsEmpty(memory)},
                             {"size", memory.GetSize() == 4097},
                             {"closed", test::CountOpenFds() == before}});
            }),
            "");
  EXPECT_TRUE(Exists(MemoryFile(mName)));
}

TEST_F(SharedMemoryConstruction, IsEmptyWithoutADescriptor) {
  const test::NoNewDescriptors none;
  EXPECT_TRUE(IsEmpty(SharedMemory(mName, 1, kMode)));
  EXPECT_EQ(errno, EMFILE);
}

TEST_F(SharedMemoryClose, EndsTheMappingAndKeepsTheSizeAndTheObject) {
  const std::size_t before = test::CountOpenFds();
  SharedMemory memory(mName, 5000, kMode);
  Fill(memory, 'x');
  const void* const address = memory.GetAddress();
  ASSERT_NE(MappingAt(address), "");

  memory.Close();
  EXPECT_TRUE(IsEmpty(memory));
  EXPECT_EQ(memory.GetSize(), 5000U);
  EXPECT_EQ(MappingAt(address), "");
  EXPECT_EQ(test::CountOpenFds(), before);
  EXPECT_EQ(Content(SharedMemory(mName, 0, 0)), std::string(5000, 'x'));
}

TEST_F(SharedMemoryClose, ClosesOnce) {
  std::pair<internal::UniqueFd, internal::UniqueFd> others;
  {
    SharedMemory memory(mName, 1, kMode);
    memory.Close();
    others = test::SocketPair();  // The number that was the memory's is taken.
    memory.Close();
  }
  EXPECT_TRUE(test::IsOpen(others.first.Get()));
  EXPECT_TRUE(test::IsOpen(others.second.Get()));
}

TEST_F(SharedMemoryClose, HappensAtTheEndOfTheObject) {
  const std::size_t before = test::CountOpenFds();
  const void* address = nullptr;
  {
    const SharedMemory memory(mName, 4096, kMode);
    address = memory.GetAddress();
  }
  EXPECT_EQ(MappingAt(address), "");
  EXPECT_EQ(test::CountOpenFds(), before);
  EXPECT_TRUE(Exists(MemoryFile(mName)));
}

TEST_F(SharedMemoryMove, ConstructionLeavesTheSourceEmptyWithoutASize) {
  const std::size_t before = test::CountOpenFds();
  SharedMemory source(mName, 4096, kMode);
  void* const address = source.GetAddress();
  {
    const SharedMemory target(std::move(source));
    EXPECT_TRUE(target.IsValid());
    EXPECT_EQ(target.GetAddress(), address);
    EXPECT_EQ(target.GetSize(), 4096U);
    EXPECT_TRUE(IsEmpty(source));
    EXPECT_EQ(source.GetSize(), 0U);
  }
  EXPECT_EQ(test::CountOpenFds(), before);
  source.Close();
}

TEST_F(SharedMemoryMove, AssignmentClosesTheTargetsAndGivesTheSourceItsSize) {
  const std::size_t before = test::CountOpenFds();
  SharedMemory target(mName, 4096, kMode);
  SharedMemory source(mOther, 5000, kMode);
  Fill(source, 's');
  const void* const old = target.GetAddress();

  target = std::move(source);
  EXPECT_EQ(Content(target), std::string(5000, 's'));
  EXPECT_TRUE(IsEmpty(source));
  EXPECT_EQ(source.GetSize(), 4096U);
  EXPECT_EQ(MappingAt(old), "");
  EXPECT_EQ(test::CountOpenFds(), before + 1);
}

TEST_F(SharedMemoryMove, AssignmentToItselfChangesNothing) {
  SharedMemory memory(mName, 100, kMode);
  Fill(memory, 'x');
  SharedMemory& same = memory;

  memory = std::move(same);
  EXPECT_EQ(Content(memory), std::string(100, 'x'));
  EXPECT_NE(MappingAt(memory.GetAddress()), "");
}

TEST_F(SharedMemoryMove, SwapExchangesEverything) {
  SharedMemory first(mName, 10, kMode);
  SharedMemory second(mOther, 20, kMode);
  SharedMemory none("none", 30, kMode);
  Fill(first, '1');
  Fill(second, '2');

  first.Swap(second);
  EXPECT_EQ(Content(first), std::string(20, '2'));
  EXPECT_EQ(Content(second), std::string(10, '1'));

  first.Swap(none);
  EXPECT_TRUE(IsEmpty(first));
  EXPECT_EQ(first.GetSize(), 30U);
  EXPECT_EQ(Content(none), std::string(20, '2'));
}

TEST_F(SharedMemoryRemove, TakesTheNameAndLeavesTheMapping) {
  const SharedMemory memory(mName, 10, kMode);
  EXPECT_TRUE(SharedMemory::Remove(mName));
  EXPECT_FALSE(Exists(MemoryFile(mName)));
  EXPECT_TRUE(IsEmpty(SharedMemory(mName, 0, 0)));

  Fill(memory, 'x');
  const SharedMemory another(mName, 10, kMode);
  EXPECT_EQ(Content(another), std::string(10, '\0'));
  EXPECT_EQ(Content(memory), std::string(10, 'x'));
}

TEST_F(SharedMemoryRemove, IsFalseWhenThereIsNone) {
  errno = 0;
  EXPECT_FALSE(SharedMemory::Remove(mName));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(SharedMemoryRemove, RefusesANameWithoutASlashInFront) {
  const SharedMemory memory(mName, 1, kMode);
  for (const std::string& name : {std::string(), mName.substr(1), ' ' + mName}) {
    errno = 0;
    EXPECT_FALSE(SharedMemory::Remove(name)) << name;
    EXPECT_EQ(errno, 0);
  }
  EXPECT_TRUE(Exists(MemoryFile(mName)));
}

class IpcAsRoot : public test::RootTest {
 protected:
  void TearDown() override {
    (void)SharedMemory::Remove(mName);
    (void)Semaphore::Remove(mName);
  }

  const std::string mName = UniqueName("root");
};

TEST_F(IpcAsRoot, AnotherUserIsRefusedByTheMode) {
  const test::Umask umask(0);
  for (const unsigned mode : {0600U, 0444U, 0222U}) {
    const SharedMemory memory(mName, 1, mode);
    const Semaphore semaphore(mName, 1, mode);
    EXPECT_EQ(test::WithoutPrivileges([this] { return IsEmpty(SharedMemory(mName, 0, 0)) && errno == EACCES; }), 1);
    EXPECT_EQ(test::WithoutPrivileges([this] { return !Semaphore(mName, 1, 0).IsValid() && errno == EACCES; }), 1);
    EXPECT_TRUE(SharedMemory::Remove(mName) && Semaphore::Remove(mName));
  }
}

TEST_F(IpcAsRoot, AnotherUserMayUseWhatTheModeAllowsButNotRemoveIt) {
  const test::Umask umask(0);
  const SharedMemory memory(mName, 1, 0666);
  Semaphore semaphore(mName, 0, 0666);
  EXPECT_EQ(test::WithoutPrivileges([this] {
              return SharedMemory(mName, 0, 0).IsValid() && Semaphore(mName, 0, 0).Post() &&
                     !SharedMemory::Remove(mName) && !Semaphore::Remove(mName);
            }),
            1);
  EXPECT_EQ(Drain(semaphore), 1);
}

TEST_F(SemaphoreConstruction, StartsWithTheValue) {
  for (const int value : {0, 1, 3}) {
    Semaphore semaphore(mName, static_cast<unsigned>(value), kMode);
    EXPECT_TRUE(semaphore.IsValid());
    EXPECT_EQ(Drain(semaphore), value);
    EXPECT_TRUE(Semaphore::Remove(mName));
  }
}

TEST_F(SemaphoreConstruction, OpensAnExistingOneWithTheCountAndModeThatItHas) {
  const test::Umask umask(0);
  const Semaphore first(mName, 2, 0640);

  Semaphore second(mName, 5, 0600);
  EXPECT_EQ(Drain(second), 2);
  EXPECT_EQ(ModeOf(SemaphoreFile(mName)), 0640U);
}

TEST_F(SemaphoreConstruction, FindsTheCountThatEarlierUsersLeft) {
  EXPECT_EQ(InChild([this] {
              Semaphore semaphore(mName, 4, kMode);
              return Untrue({{"wait", semaphore.Wait()}});
            }),
            "");
  EXPECT_EQ(InChild([this] {
              Semaphore semaphore(mName, 9, kMode);
              return Untrue({{"post", semaphore.Post() && semaphore.Post()}});
            }),
            "");

  Semaphore semaphore(mName, 1, kMode);
  EXPECT_EQ(Drain(semaphore), 5);
}

TEST_F(SemaphoreConstruction, GivesTheModeLessTheUmask) {
  const test::Umask umask(027);
  const Semaphore semaphore(mName, 0, 0666);
  EXPECT_EQ(ModeOf(SemaphoreFile(mName)), 0640U);
}

TEST_F(SemaphoreConstruction, LeavesNoDescriptor) {
  const std::size_t before = test::CountOpenFds();
  const Semaphore made(mName, 0, kMode);
  const Semaphore opened(mName, 0, kMode);
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(SemaphoreConstruction, RefusesANameWithoutASlashInFront) {
  const Semaphore existing(mName, 1, kMode);
  for (const std::string& name : {std::string(), mName.substr(1), ' ' + mName, "x" + mName}) {
    EXPECT_FALSE(Semaphore(name, 1, kMode).IsValid()) << name;
  }
}

TEST_F(SemaphoreConstruction, IsEmptyForWhatTheKernelRefuses) {
  errno = 0;
  EXPECT_FALSE(Semaphore(mName, SEM_VALUE_MAX + 1U, kMode).IsValid());
  EXPECT_EQ(errno, EINVAL);
  EXPECT_FALSE(Exists(SemaphoreFile(mName)));
  for (const std::string& name : {std::string("/"), mName + "/x", '/' + std::string(256, 'n')}) {
    EXPECT_FALSE(Semaphore(name, 1, kMode).IsValid()) << name;
  }
}

TEST_F(SemaphoreTryWait, IsFalseAtOnceWhenTheCountIs0) {
  Semaphore semaphore(mName, 1, kMode);
  EXPECT_TRUE(semaphore.TryWait());
  errno = 0;
  EXPECT_FALSE(semaphore.TryWait());
  EXPECT_EQ(errno, EAGAIN);
}

TEST_F(SemaphoreWait, TakesOneAtATime) {
  Semaphore semaphore(mName, 3, kMode);
  EXPECT_TRUE(semaphore.Wait());
  EXPECT_TRUE(semaphore.Wait());
  EXPECT_EQ(Drain(semaphore), 1);
}

TEST_F(SemaphoreWait, BlocksUntilAnotherProcessPosts) {
  EXPECT_EQ(InChild([this] {
              Semaphore semaphore(mName, 0, kMode);
              const pid_t waiting = ::getpid();
              if (::fork() == 0) {
                (void)::alarm(60);
                Semaphore opened(mName, 0, kMode);
                WaitUntilAsleep(waiting);
                ::_exit(opened.Post() ? 0 : 1);
              }
              const bool isTaken = semaphore.Wait();
              return Untrue({{"taken", isTaken && !semaphore.TryWait()}, {"posted", test::Subreaper::Next() == 0}});
            }),
            "");
}

// A timer that ticks on interrupts the wait whenever that begins; a wait that went on after many ticks never ends.
TEST_F(SemaphoreWait, IsFalseWhenASignalInterruptsIt) {
  EXPECT_EQ(InChild([this] {
              struct sigaction action {};
              action.sa_handler = [](int) {
                static volatile std::sig_atomic_t ticks = 0;
                ticks = ticks + 1;
                if (ticks == 300) {
                  ::_exit(99);
                }
              };
              (void)::sigaction(SIGALRM, &action, nullptr);
              constexpr itimerval kTicks{{0, 10000}, {0, 10000}};
              (void)::setitimer(ITIMER_REAL, &kTicks, nullptr);
              Semaphore semaphore(mName, 0, kMode);
              errno = 0;
              const bool isTaken = semaphore.Wait();
              const int reason = errno;
              return Untrue({{"false", !isTaken}, {"EINTR", reason == EINTR}, {"count", !semaphore.TryWait()}});
            }),
            "");
}

TEST_F(SemaphorePost, FailsAtTheGreatestCount) {
  Semaphore semaphore(mName, SEM_VALUE_MAX, kMode);
  ASSERT_TRUE(semaphore.IsValid());
  errno = 0;
  EXPECT_FALSE(semaphore.Post());
  EXPECT_EQ(errno, EOVERFLOW);

  EXPECT_TRUE(semaphore.TryWait());
  EXPECT_TRUE(semaphore.Post());
}

TEST(SemaphoreEmpty, FailsAtOnce) {
  Semaphore none("none", 1, kMode);
  EXPECT_FALSE(none.IsValid());
  EXPECT_FALSE(none.Wait());
  EXPECT_FALSE(none.TryWait());
  EXPECT_FALSE(none.Post());
}

TEST_F(SemaphoreMove, ConstructionLeavesTheSourceEmpty) {
  Semaphore source(mName, 2, kMode);
  Semaphore target(std::move(source));
  EXPECT_FALSE(source.IsValid());
  EXPECT_FALSE(source.Wait());
  EXPECT_FALSE(source.TryWait());
  EXPECT_FALSE(source.Post());
  EXPECT_EQ(Drain(target), 2);
}

// The C library shares one handle among all that have a name open in a process, and counts them: a handle closed twice
// would be gone for the third one here.
TEST_F(SemaphoreMove, AssignmentClosesTheTargetsHandleOnce) {
  Semaphore third(mName, 0, kMode);
  {
    Semaphore target(mName, 0, kMode);
    Semaphore source(mOther, 7, kMode);
    target = std::move(source);
    EXPECT_FALSE(source.IsValid());
    EXPECT_FALSE(source.Post());
    EXPECT_EQ(Drain(target), 7);
  }
  EXPECT_TRUE(third.Post());
  EXPECT_TRUE(third.TryWait());
  EXPECT_EQ(InChild([this] {
              Semaphore again(mName, 0, kMode);
              return Untrue({{"valid", again.IsValid()}});
            }),
            "");
}

TEST_F(SemaphoreMove, AssignmentClosesTheTargetsHandle) {
  MakeElsewhere(mName, 0);
  MakeElsewhere(mOther, 0);
  Semaphore target(mName, 0, kMode);
  ASSERT_TRUE(IsMapped(mName));

  target = Semaphore(mOther, 0, kMode);
  EXPECT_FALSE(IsMapped(mName));
  EXPECT_TRUE(IsMapped(mOther));
}

TEST_F(SemaphoreMove, AssignmentWorksFromAndToAnEmptyOne) {
  MakeElsewhere(mName, 3);
  Semaphore target("none", 0, kMode);
  target = Semaphore(mName, 0, kMode);
  ASSERT_TRUE(IsMapped(mName));
  EXPECT_EQ(Drain(target), 3);

  target = Semaphore("none", 0, kMode);
  EXPECT_FALSE(target.IsValid());
  EXPECT_FALSE(IsMapped(mName));
}

TEST_F(SemaphoreMove, AssignmentToItselfChangesNothing) {
  Semaphore semaphore(mName, 2, kMode);
  Semaphore& same = semaphore;
  semaphore = std::move(same);
  ASSERT_TRUE(semaphore.IsValid());
  EXPECT_EQ(Drain(semaphore), 2);
}

TEST_F(SemaphoreMove, SwapExchangesTheHandles) {
  Semaphore first(mName, 1, kMode);
  Semaphore second(mOther, 2, kMode);
  Semaphore none("none", 3, kMode);

  first.Swap(second);
  EXPECT_EQ(Drain(second), 1);
  first.Swap(none);
  EXPECT_FALSE(first.IsValid());
  EXPECT_EQ(Drain(none), 2);
}

TEST_F(SemaphoreMove, TheEndOfTheObjectClosesItAndLeavesTheName) {
  MakeElsewhere(mName, 0);
  {
    const Semaphore semaphore(mName, 0, kMode);
    ASSERT_TRUE(IsMapped(mName));
  }
  EXPECT_FALSE(IsMapped(mName));
  EXPECT_TRUE(Exists(SemaphoreFile(mName)));
}

TEST_F(SemaphoreRemove, TakesTheNameAndLeavesTheSemaphore) {
  Semaphore old(mName, 1, kMode);
  EXPECT_TRUE(Semaphore::Remove(mName));
  EXPECT_FALSE(Exists(SemaphoreFile(mName)));

  Semaphore another(mName, 3, kMode);
  EXPECT_EQ(Drain(old), 1);
  EXPECT_EQ(Drain(another), 3);
}

TEST_F(SemaphoreRemove, IsFalseWhenThereIsNone) {
  errno = 0;
  EXPECT_FALSE(Semaphore::Remove(mName));
  EXPECT_EQ(errno, ENOENT);
}

TEST_F(SemaphoreRemove, RefusesANameWithoutASlashInFront) {
  const Semaphore semaphore(mName, 1, kMode);
  for (const std::string& name : {std::string(), mName.substr(1), ' ' + mName}) {
    errno = 0;
    EXPECT_FALSE(Semaphore::Remove(name)) << name;
    EXPECT_EQ(errno, 0);
  }
  EXPECT_TRUE(Exists(SemaphoreFile(mName)));
}

}  // namespace
}  // namespace kiv::ipc
