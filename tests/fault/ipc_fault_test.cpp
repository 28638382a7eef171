#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/ipc.h>
#include <sys/mman.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <cstddef>
#include <fstream>
#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "interpose.h"
#include "tests/support.h"

namespace kiv::ipc {
namespace {

using test::CallLog;
using test::CountOpenFds;
using test::FailCall;
using test::Fault;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

constexpr unsigned int kPage = 4096;
constexpr unsigned int kMode = 0600;

// A name that no other process uses; what has it is removed at the end.
class ObjectName {
 public:
  ObjectName() : mText("/kiv-fault-" + std::to_string(::getpid())) {}
  ObjectName(const ObjectName&) = delete;
  ObjectName& operator=(const ObjectName&) = delete;
  ~ObjectName() {
    (void)::shm_unlink(mText.c_str());
    (void)::sem_unlink(mText.c_str());
  }
  const std::string& Get() const { return mText; }

 private:
  std::string mText;
};

// How many mappings of this process have `name` in their file's name.
std::size_t CountMappings(const std::string& name) {
  std::ifstream maps("/proc/self/maps");
  std::size_t count = 0;
  for (std::string line; std::getline(maps, line);) {
    count += line.find(name) != std::string::npos ? 1U : 0U;
  }
  return count;
}

void ExpectEmpty(const SharedMemory& memory) {
  EXPECT_FALSE(memory.IsValid());
  EXPECT_EQ(memory.GetAddress(), MAP_FAILED);
}

TEST(SharedMemoryCreation, CreatesTruncatesSizesAndMaps) {
  const ObjectName name;
  const CallLog log;

  const SharedMemory memory(name.Get(), kPage, 0640);

  ASSERT_EQ(log.Names(), (Names{"shm_open", "ftruncate", "mmap"}));
  EXPECT_EQ(log.Of("shm_open")[0].args, (Args{O_RDWR | O_CREAT | O_TRUNC, 0640}));
  EXPECT_EQ(log.Of("shm_open")[0].data, name.Get());
  const long long fd = log.Of("ftruncate")[0].args[0];
  EXPECT_EQ(log.Of("ftruncate")[0].args, (Args{fd, kPage}));
  EXPECT_EQ(log.Of("mmap")[0].args, (Args{false, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0}));
  EXPECT_TRUE(test::IsOpen(static_cast<int>(fd)));
}

TEST(SharedMemoryOpening, AsksForTheSizeAndCreatesNothing) {
  const ObjectName name;
  const SharedMemory creator(name.Get(), kPage, kMode);
  const CallLog log;

  const SharedMemory memory(name.Get(), 0, 0640);

  ASSERT_EQ(log.Names(), (Names{"shm_open", "fstat", "mmap"}));
  EXPECT_EQ(log.Of("shm_open")[0].args, (Args{O_RDWR, 0640}));
  const long long fd = log.Of("fstat")[0].args[0];
  EXPECT_EQ(log.Of("mmap")[0].args, (Args{false, kPage, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0}));
  EXPECT_EQ(memory.GetSize(), kPage);
}

struct MemoryFailure {
  const char* call;
  int error;
  unsigned int size;
  Names calls;
};

TEST(SharedMemoryCreation, FailingStepLeavesItEmptyAndNothingBehind) {
  const ObjectName name;
  const SharedMemory existing(name.Get(), kPage, kMode);
  const std::size_t before = CountOpenFds();
  const MemoryFailure failures[] = {
      {"shm_open", EACCES, kPage, {"shm_open"}},
      {"shm_open", ENOENT, 0, {"shm_open"}},
      {"shm_open", EMFILE, 0, {"shm_open"}},
      {"ftruncate", EFBIG, kPage, {"shm_open", "ftruncate", "close"}},
      {"ftruncate", EINTR, kPage, {"shm_open", "ftruncate", "close"}},
      {"mmap", ENOMEM, kPage, {"shm_open", "ftruncate", "mmap", "close"}},
      {"mmap", EAGAIN, 0, {"shm_open", "fstat", "mmap", "close"}},
  };
  for (const MemoryFailure& failure : failures) {
    SCOPED_TRACE(std::string(failure.call) + " " + std::to_string(failure.error));
    const CallLog log;
    const Fault fault = FailCall(failure.call, failure.error);

    const SharedMemory memory(name.Get(), failure.size, kMode);

    EXPECT_EQ(errno, failure.error);
    ExpectEmpty(memory);
    EXPECT_EQ(log.Names(), failure.calls);
    EXPECT_EQ(CountOpenFds(), before);
    EXPECT_EQ(CountMappings(name.Get()), 1U);
  }
}

TEST(SharedMemoryCreation, FailingCloseHidesNoReason) {
  const ObjectName name;
  const Fault fault = FailCall("ftruncate", ENOSPC);
  const Fault close = FailCall("close", EIO);

  const SharedMemory memory(name.Get(), kPage, kMode);

  EXPECT_EQ(errno, ENOSPC);
  ExpectEmpty(memory);
}

TEST(SharedMemoryOpening, UnknownSizeStaysZeroAndCannotBeMapped) {
  const ObjectName name;
  const SharedMemory creator(name.Get(), kPage, kMode);
  const std::size_t before = CountOpenFds();
  const CallLog log;
  const Fault fault = FailCall("fstat", EIO);

  const SharedMemory memory(name.Get(), 0, kMode);

  EXPECT_EQ(errno, EINVAL);
  ExpectEmpty(memory);
  EXPECT_EQ(memory.GetSize(), 0U);
  ASSERT_EQ(log.Names(), (Names{"shm_open", "fstat", "mmap", "close"}));
  EXPECT_EQ(log.Of("mmap")[0].args[1], 0);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(SharedMemoryCreation, BadNameReachesNoCall) {
  const CallLog log;
  for (const char* const name : {"", "shm1", "shm/1"}) {
    const SharedMemory created(name, kPage, kMode);
    const SharedMemory opened(name, 0, kMode);
    ExpectEmpty(created);
    ExpectEmpty(opened);
    EXPECT_EQ(created.GetSize(), kPage);
  }

  EXPECT_EQ(log.Names(), Names{});
}

TEST(SharedMemoryClose, UnmapsTheWholeSizeThenCloses) {
  const ObjectName name;
  SharedMemory memory(name.Get(), 3 * kPage, kMode);
  const CallLog log;

  memory.Close();
  memory.Close();

  ASSERT_EQ(log.Names(), (Names{"munmap", "close"}));
  EXPECT_EQ(log.Of("munmap")[0].args, Args{3 * kPage});
  ExpectEmpty(memory);
  EXPECT_EQ(memory.GetSize(), 3 * kPage);
  EXPECT_EQ(CountMappings(name.Get()), 0U);
}

TEST(SharedMemoryClose, FailuresStillEmptyIt) {
  const ObjectName name;
  SharedMemory memory(name.Get(), kPage, kMode);
  void* const address = memory.GetAddress();
  const std::size_t before = CountOpenFds();
  {
    const Fault unmap = FailCall("munmap", EINVAL);
    const Fault close = FailCall("close", EIO);
    memory.Close();
  }

  ExpectEmpty(memory);
  EXPECT_EQ(CountOpenFds(), before - 1);
  EXPECT_EQ(::munmap(address, kPage), 0);
}

TEST(SharedMemoryDestruction, ClosesAndKeepsTheName) {
  const ObjectName name;
  const std::size_t before = CountOpenFds();
  auto memory = std::make_unique<SharedMemory>(name.Get(), kPage, kMode);
  const CallLog log;

  memory.reset();

  EXPECT_EQ(log.Names(), (Names{"munmap", "close"}));
  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_TRUE(SharedMemory::Remove(name.Get()));
}

TEST(SharedMemoryMove, TakesOverWithoutACall) {
  const ObjectName name;
  SharedMemory source(name.Get(), kPage, kMode);
  void* const address = source.GetAddress();
  const CallLog log;
  {
    const SharedMemory target(std::move(source));
    EXPECT_EQ(log.Names(), Names{});
    EXPECT_EQ(target.GetAddress(), address);
    EXPECT_EQ(target.GetSize(), kPage);
  }

  EXPECT_EQ(log.Names(), (Names{"munmap", "close"}));
  ExpectEmpty(source);
  EXPECT_EQ(source.GetSize(), 0U);
}

TEST(SharedMemoryMoveAssignment, ClosesItselfOnceAndGivesItsSizeAway) {
  const ObjectName name;
  const std::size_t before = CountOpenFds();
  const CallLog log;
  {
    SharedMemory target(name.Get(), 2 * kPage, kMode);
    SharedMemory source(name.Get(), 0, kMode);
    void* const address = source.GetAddress();
    target.Close();
    const SharedMemory other(name.Get(), kPage, kMode);
    target = std::move(source);
    EXPECT_EQ(target.GetAddress(), address);
    ExpectEmpty(source);
  }

  EXPECT_EQ(log.Of("mmap").size(), log.Of("munmap").size());
  EXPECT_EQ(CountMappings(name.Get()), 0U);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(SharedMemoryMoveAssignment, UnmapsWhatItHadBefore) {
  const ObjectName name;
  SharedMemory source(name.Get(), kPage, kMode);
  SharedMemory target(name.Get(), 2 * kPage, kMode);
  const CallLog log;

  target = std::move(source);

  ASSERT_EQ(log.Names(), (Names{"munmap", "close"}));
  EXPECT_EQ(log.Of("munmap")[0].args, Args{2 * kPage});
  EXPECT_EQ(target.GetSize(), kPage);
  ExpectEmpty(source);
  EXPECT_EQ(source.GetSize(), 2 * kPage);
}

TEST(SharedMemoryMoveAssignment, ToItselfDoesNothing) {
  const ObjectName name;
  SharedMemory memory(name.Get(), kPage, kMode);
  SharedMemory& same = memory;
  const CallLog log;

  memory = std::move(same);

  EXPECT_EQ(log.Names(), Names{});
  EXPECT_TRUE(memory.IsValid());
}

TEST(SharedMemoryRemove, AsksOnlyForNamesWithASlash) {
  const CallLog log;
  EXPECT_FALSE(SharedMemory::Remove(""));
  EXPECT_FALSE(SharedMemory::Remove("shm1"));
  EXPECT_EQ(log.Names(), Names{});

  const Fault fault = FailCall("shm_unlink", EACCES);
  EXPECT_FALSE(SharedMemory::Remove("/shm1"));
  EXPECT_EQ(errno, EACCES);
  ASSERT_EQ(log.Names(), Names{"shm_unlink"});
  EXPECT_EQ(log.Of("shm_unlink")[0].data, "/shm1");
}

TEST(SemaphoreCreation, CreatesExclusivelyWithValueAndMode) {
  const ObjectName name;
  const CallLog log;

  const Semaphore semaphore(name.Get(), 5, 0640);

  ASSERT_EQ(log.Names(), Names{"sem_open"});
  EXPECT_EQ(log.Of("sem_open")[0].args, (Args{O_CREAT | O_EXCL, 0640, 5}));
  EXPECT_EQ(log.Of("sem_open")[0].data, name.Get());
  EXPECT_TRUE(semaphore.IsValid());
}

TEST(SemaphoreCreation, OpensTheExistingOneAsItIs) {
  const ObjectName name;
  const Semaphore first(name.Get(), 1, kMode);
  const CallLog log;

  Semaphore second(name.Get(), 5, kMode);

  ASSERT_EQ(log.Of("sem_open").size(), 2U);
  EXPECT_EQ(log.Of("sem_open")[1].args, (Args{O_RDWR, 0, 0}));
  EXPECT_EQ(log.Of("sem_open")[1].data, name.Get());
  EXPECT_TRUE(second.TryWait());
  EXPECT_FALSE(second.TryWait());
  EXPECT_EQ(errno, EAGAIN);
}

TEST(SemaphoreCreation, OnlyAnExistingNameIsTriedAgain) {
  for (const int error : {EACCES, EINVAL, EMFILE, ENOENT, ENOMEM, ENOSPC, EINTR}) {
    SCOPED_TRACE(error);
    const CallLog log;
    const Fault fault = FailCall("sem_open", error);

    const Semaphore semaphore("/kiv-fault-never", 1, kMode);

    EXPECT_EQ(errno, error);
    EXPECT_FALSE(semaphore.IsValid());
    EXPECT_EQ(log.Names(), Names{"sem_open"});
  }
}

TEST(SemaphoreCreation, FailingSecondAttemptLeavesItEmpty) {
  const CallLog log;
  {
    const Fault create = FailCall("sem_open", EEXIST);
    const Fault open = FailCall("sem_open", ENOENT, 2);
    const Semaphore semaphore("/kiv-fault-never", 1, kMode);
    EXPECT_EQ(errno, ENOENT);
    EXPECT_FALSE(semaphore.IsValid());
  }

  EXPECT_EQ(log.Names(), (Names{"sem_open", "sem_open"})) << "and nothing is closed";
}

TEST(SemaphoreCreation, BadNameGivesAnEmptyOneThatReachesNoCall) {
  const CallLog log;
  for (const char* const name : {"", "sem1", "sem/1"}) {
    Semaphore semaphore(name, 1, kMode);
    EXPECT_FALSE(semaphore.IsValid());
    EXPECT_FALSE(semaphore.Wait());
    EXPECT_FALSE(semaphore.TryWait());
    EXPECT_FALSE(semaphore.Post());
  }

  EXPECT_EQ(log.Names(), Names{});
}

TEST(SemaphoreWait, InterruptionIsAFailureAndNotRetried) {
  const ObjectName name;
  Semaphore semaphore(name.Get(), 1, kMode);
  const CallLog log;
  {
    const Fault fault = FailCall("sem_wait", EINTR);
    EXPECT_FALSE(semaphore.Wait());
    EXPECT_EQ(errno, EINTR);
  }
  EXPECT_EQ(log.Names(), Names{"sem_wait"});

  EXPECT_TRUE(semaphore.Wait()) << "nothing was taken by the failure";
}

TEST(SemaphoreTryWait, FailureIsReportedOnce) {
  const ObjectName name;
  Semaphore semaphore(name.Get(), 1, kMode);
  const CallLog log;
  const Fault fault = FailCall("sem_trywait", EINTR);

  EXPECT_FALSE(semaphore.TryWait());

  EXPECT_EQ(errno, EINTR);
  EXPECT_EQ(log.Names(), Names{"sem_trywait"});
}

TEST(SemaphorePost, FailureIsReported) {
  const ObjectName name;
  Semaphore semaphore(name.Get(), 1, kMode);
  const CallLog log;
  const Fault fault = FailCall("sem_post", EOVERFLOW);

  EXPECT_FALSE(semaphore.Post());

  EXPECT_EQ(errno, EOVERFLOW);
  EXPECT_EQ(log.Names(), Names{"sem_post"});
}

TEST(SemaphoreDestruction, ClosesOnceAndKeepsTheName) {
  const ObjectName name;
  auto semaphore = std::make_unique<Semaphore>(name.Get(), 1, kMode);
  const CallLog log;

  semaphore.reset();

  EXPECT_EQ(log.Names(), Names{"sem_close"});
  EXPECT_TRUE(Semaphore::Remove(name.Get()));
}

TEST(SemaphoreMove, ClosesOnlyWhereItIs) {
  const ObjectName name;
  const CallLog log;
  {
    Semaphore source(name.Get(), 1, kMode);
    Semaphore target(std::move(source));
    EXPECT_TRUE(target.TryWait());
    EXPECT_FALSE(source.IsValid());
  }

  EXPECT_EQ(log.Of("sem_close").size(), 1U);
}

// Both uses of one name share a handle inside the C library: a close too many takes it from the one that lives.
TEST(SemaphoreMoveAssignment, NeverClosesAHandleTwice) {
  const ObjectName name;
  Semaphore alive(name.Get(), 0, kMode);
  const CallLog log;
  {
    Semaphore target(name.Get(), 0, kMode);
    Semaphore source(name.Get(), 0, kMode);
    target = std::move(source);
    EXPECT_EQ(log.Of("sem_close").size(), 1U) << "what the target had";
    EXPECT_TRUE(target.Post());
  }

  EXPECT_EQ(log.Of("sem_close").size(), 2U);
  EXPECT_TRUE(alive.TryWait());
}

TEST(SemaphoreMoveAssignment, FailingCloseStillTakesOver) {
  const ObjectName name;
  Semaphore source(name.Get(), 1, kMode);
  Semaphore target(name.Get(), 1, kMode);
  const CallLog log;
  {
    const Fault fault = FailCall("sem_close", EINVAL);
    target = std::move(source);
  }

  EXPECT_EQ(log.Names(), Names{"sem_close"});
  EXPECT_TRUE(target.TryWait());
  const Semaphore leaked(name.Get(), 0, kMode);  // Takes the use that was not closed, so that none is left.
}

TEST(SemaphoreMoveAssignment, ToAnEmptyOneClosesNothing) {
  const ObjectName name;
  Semaphore source(name.Get(), 1, kMode);
  Semaphore target("", 0, 0);
  const CallLog log;

  target = std::move(source);

  EXPECT_EQ(log.Names(), Names{});
  EXPECT_TRUE(target.TryWait());
}

TEST(SemaphoreMoveAssignment, ToItselfDoesNothing) {
  const ObjectName name;
  Semaphore semaphore(name.Get(), 1, kMode);
  Semaphore& same = semaphore;
  const CallLog log;

  semaphore = std::move(same);

  EXPECT_EQ(log.Names(), Names{});
  EXPECT_TRUE(semaphore.TryWait());
}

TEST(SemaphoreRemove, AsksOnlyForNamesWithASlash) {
  const CallLog log;
  EXPECT_FALSE(Semaphore::Remove(""));
  EXPECT_FALSE(Semaphore::Remove("sem1"));
  EXPECT_EQ(log.Names(), Names{});

  const Fault fault = FailCall("sem_unlink", EACCES);
  EXPECT_FALSE(Semaphore::Remove("/sem1"));
  EXPECT_EQ(errno, EACCES);
  ASSERT_EQ(log.Names(), Names{"sem_unlink"});
  EXPECT_EQ(log.Of("sem_unlink")[0].data, "/sem1");
}

}  // namespace
}  // namespace kiv::ipc
