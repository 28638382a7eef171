#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <linux/fs.h>
#include <linux/magic.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstddef>
#include <cstdint>
#include <filesystem>
#include <functional>
#include <initializer_list>
#include <limits>
#include <optional>
#include <ostream>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "interpose.h"
#include "tests/support.h"

namespace kiv::fs {
namespace {

using test::CallLog;
using test::CallRecord;
using test::CountOpenFds;
using test::FailCall;
using test::Fault;
using test::GiveFrom;
using test::Octets;
using test::ReadFile;
using test::ReturnFrom;
using test::TempFolder;
using test::WriteFile;
using Names = std::vector<std::string>;
using Args = std::vector<long long>;

struct Meaning {
  int error;
  fs::error result;
};

// One failing call and what its operation makes of it.
struct Failure {
  const char* call;
  unsigned nth;
  int error;
  fs::error result;
};

std::ostream& operator<<(std::ostream& out, const Failure& failure) {
  return out << failure.call << " no. " << failure.nth << " with errno " << failure.error;
}

std::vector<Failure> FailuresOf(const char* call, unsigned nth, const std::vector<Meaning>& meanings) {
  std::vector<Failure> failures;
  failures.reserve(meanings.size());
  for (const Meaning& meaning : meanings) {
    failures.push_back({call, nth, meaning.error, meaning.result});
  }
  return failures;
}

std::string NameOf(const testing::TestParamInfo<Failure>& info) {
  return std::string(info.param.call) + std::to_string(info.param.nth) + "Errno" + std::to_string(info.param.error);
}

struct statfs Filesystem(std::uint64_t blockSize, std::uint64_t available, std::uint64_t free) {
  struct statfs filesystem {};
  filesystem.f_bsize = static_cast<decltype(filesystem.f_bsize)>(blockSize);
  filesystem.f_bavail = static_cast<decltype(filesystem.f_bavail)>(available);
  filesystem.f_bfree = static_cast<decltype(filesystem.f_bfree)>(free);
  return filesystem;
}

// Makes the next statfs find so many bytes free.
Fault GiveFreeBytes(std::uint64_t bytes) { return GiveFrom("statfs", Octets(Filesystem(1, bytes, 0))); }

// A source with more than one block of the fallback, and a destination with an old content.
class CopyFiles {
 public:
  CopyFiles() {
    for (int i = 0; i < 10000; ++i) {
      mContent += static_cast<char>('a' + i % 23);
    }
    WriteFile(Source(), mContent);
    WriteFile(Destination(), "old");
  }
  std::string Folder() const { return mFolder.Path(); }
  std::string Source() const { return Folder() + "/source"; }
  std::string Destination() const { return Folder() + "/destination"; }
  const std::string& Content() const { return mContent; }

  // A claim that does not print both files when it is false.
  bool AreEqual() const { return ReadFile(Destination()) == mContent; }

 private:
  TempFolder mFolder;
  std::string mContent;
};

// Whatever the machine has free, which may well be a number that wraps.
error CopyWithRoom(const CopyFiles& files, bool sync = false) {
  const Fault room = GiveFreeBytes(1 << 30);
  return Copy(files.Source(), files.Destination(), sync);
}

TEST(CopyCalls, ComeInThisOrder) {
  const CopyFiles files;
  const CallLog log;

  EXPECT_EQ(CopyWithRoom(files), success);

  ASSERT_EQ(log.Names(), (Names{"open", "fstat", "statfs", "stat", "open", "sendfile", "close", "close"}));
  EXPECT_EQ(log.Of("open")[0].data, files.Source());
  EXPECT_EQ(log.Of("open")[0].args, (Args{O_RDONLY, 0}));
  EXPECT_EQ(log.Of("statfs")[0].data, files.Folder());
  EXPECT_EQ(log.Of("stat")[0].data, files.Destination());
  EXPECT_EQ(log.Of("open")[1].data, files.Destination());
  const Args sent = log.Of("sendfile")[0].args;
  EXPECT_EQ(log.Of("fstat")[0].args, Args{sent[1]});
  EXPECT_EQ(sent, (Args{sent[0], sent[1], 0, 10000}));
  const std::set<long long> closed{log.Of("close")[0].args[0], log.Of("close")[1].args[0]};
  EXPECT_EQ(closed, (std::set<long long>{sent[0], sent[1]}));
  EXPECT_TRUE(files.AreEqual());
}

TEST(CopyCalls, DestinationIsOpenedWithTheseFlagsAndMode) {
  const CopyFiles files;
  for (const bool sync : {false, true}) {
    const CallLog log;

    EXPECT_EQ(CopyWithRoom(files, sync), success);

    ASSERT_EQ(log.Of("open").size(), 2U);
    EXPECT_EQ(log.Of("open")[1].args, (Args{O_WRONLY | O_CREAT | O_TRUNC | (sync ? O_SYNC : 0), 0644}));
    EXPECT_EQ(log.Of("fsync").size(), 0U);
  }
}

TEST(CopyCalls, EmptySourceIsNotSent) {
  const CopyFiles files;
  WriteFile(files.Source(), "");
  const CallLog log;

  EXPECT_EQ(CopyWithRoom(files), success);

  EXPECT_EQ(log.Of("sendfile").size(), 0U);
  EXPECT_EQ(ReadFile(files.Destination()), "");
}

TEST(CopyCalls, RelativeDestinationIsMeasuredInTheWorkingDirectory) {
  const CopyFiles files;
  const CallLog log;
  const Fault full = GiveFreeBytes(0);

  EXPECT_EQ(Copy(files.Source(), "destination", false), no_space);

  ASSERT_EQ(log.Of("statfs").size(), 1U);
  EXPECT_EQ(log.Of("statfs")[0].data, ".");
}

TEST(CopySpace, IsAskedForBeforeTheDestinationIsLookedAt) {
  const CopyFiles files;
  const std::size_t before = CountOpenFds();
  const CallLog log;
  const Fault full = GiveFreeBytes(9999);

  EXPECT_EQ(Copy(files.Source(), files.Destination(), false), no_space);

  EXPECT_EQ(log.Names(), (Names{"open", "fstat", "statfs", "close"}));
  EXPECT_EQ(ReadFile(files.Destination()), "old");
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(CopySpace, ExactlyEnoughIsEnough) {
  const CopyFiles files;
  const Fault exact = GiveFreeBytes(10000);

  EXPECT_EQ(Copy(files.Source(), files.Destination(), false), success);
}

TEST(CopySpace, IsWantedEvenForAFileOntoItself) {
  const CopyFiles files;
  const Fault full = GiveFreeBytes(0);

  EXPECT_EQ(Copy(files.Source(), files.Source(), false), no_space);

  EXPECT_TRUE(ReadFile(files.Source()) == files.Content());
}

TEST(CopySpace, UnknownSpaceIsNone) {
  const CopyFiles files;
  for (const int error : {EACCES, EIO, ENOENT, EINTR, ENOSYS}) {
    const Fault fault = FailCall("statfs", error);
    EXPECT_EQ(Copy(files.Source(), files.Destination(), false), no_space) << error;
    EXPECT_EQ(errno, error);
  }
  EXPECT_EQ(ReadFile(files.Destination()), "old");
}

// What a copy of a sparse source of this size gives when `freeBytes` are free; sending fails.
error CopyOfSize(const CopyFiles& files, std::uint64_t size, std::uint64_t freeBytes) {
  std::filesystem::resize_file(files.Source(), size);
  const Fault space = GiveFreeBytes(freeBytes);
  const Fault send = FailCall("sendfile", EIO);
  return Copy(files.Source(), files.Destination(), false);
}

TEST(CopySpace, OfFourGigabytesOnlyTheRestCounts) {
  constexpr std::uint64_t kSize = (std::uint64_t{1} << 32) + 100;
  const CopyFiles files;
  const CallLog log;

  EXPECT_EQ(CopyOfSize(files, kSize, 100), sendfile_failed);

  ASSERT_EQ(log.Of("sendfile").size(), 1U);
  constexpr auto kMost = static_cast<std::uint64_t>(std::numeric_limits<ssize_t>::max());
  EXPECT_EQ(log.Of("sendfile")[0].args[3], static_cast<long long>(std::min(kSize, kMost))) << "all of it is copied";
  const Fault full = GiveFreeBytes(99);
  EXPECT_EQ(Copy(files.Source(), files.Destination(), false), no_space);
}

TEST(CopySpace, BetweenTwoAndFourGigabytesIsNeverEnough) {
  const CopyFiles files;
  for (const std::uint64_t size : {std::uint64_t{0x80000000}, std::uint64_t{0xFFFFFFFF}}) {
    const CallLog log;
    std::filesystem::resize_file(files.Source(), size);

    EXPECT_EQ(Copy(files.Source(), files.Destination(), false), no_space);

    EXPECT_EQ(log.Names(), (Names{"open", "fstat", "close"})) << "a negative size is refused without asking";
  }
}

TEST(CopyIdentity, UnknownDestinationIsAnotherFile) {
  const CopyFiles files;
  for (const int error : {EACCES, ENOENT, EIO, ELOOP}) {
    const Fault fault = FailCall("stat", error);
    EXPECT_EQ(CopyWithRoom(files), success) << error;
  }
  EXPECT_TRUE(files.AreEqual());
}

TEST(CopyIdentity, SameFileIsNotOpenedForWriting) {
  const CopyFiles files;
  const CallLog log;
  const Fault room = GiveFreeBytes(10000);

  EXPECT_EQ(Copy(files.Source(), files.Folder() + "/./source", false), success);

  EXPECT_EQ(log.Names(), (Names{"open", "fstat", "statfs", "stat", "close"}));
  EXPECT_TRUE(ReadFile(files.Source()) == files.Content());
}

TEST(CopyIdentity, NumbersOfAnotherFilesystemDoNotCount) {
  const CopyFiles files;
  WriteFile(files.Destination(), "old");
  struct stat source = test::StatusOf(files.Source());
  const struct stat destination = test::StatusOf(files.Destination());
  for (const bool isOtherDevice : {true, false}) {
    source.st_dev = destination.st_dev + (isOtherDevice ? 1 : 0);
    source.st_ino = destination.st_ino;
    const Fault fault = GiveFrom("fstat", Octets(source));

    EXPECT_EQ(CopyWithRoom(files), success);

    EXPECT_EQ(files.AreEqual(), isOtherDevice);
    WriteFile(files.Destination(), "old");
  }
}

TEST(CopySource, OtherTypeIsClosedAndLeftAlone) {
  const CopyFiles files;
  const std::size_t before = CountOpenFds();
  const CallLog log;

  EXPECT_EQ(Copy(files.Folder(), files.Destination(), false), not_regular_file);

  EXPECT_EQ(log.Names(), (Names{"open", "fstat", "close"}));
  EXPECT_EQ(CountOpenFds(), before);
}

error CopyUntil(const Failure& failure, const CopyFiles& files) {
  const bool isBeforeTheSpace =
      failure.call == std::string("fstat") || (failure.call == std::string("open") && failure.nth == 1);
  return isBeforeTheSpace ? Copy(files.Source(), files.Destination(), true) : CopyWithRoom(files, true);
}

class CopyFailure : public testing::TestWithParam<Failure> {};

TEST_P(CopyFailure, HasItsResultAndLeavesNothingOpen) {
  const CopyFiles files;
  const std::size_t before = CountOpenFds();
  const Fault fault = FailCall(GetParam().call, GetParam().error, GetParam().nth);

  EXPECT_EQ(CopyUntil(GetParam(), files), GetParam().result);

  EXPECT_EQ(errno, GetParam().error);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST_P(CopyFailure, KeepsItsReasonWhenClosingFailsToo) {
  const CopyFiles files;
  const Fault fault = FailCall(GetParam().call, GetParam().error, GetParam().nth);
  std::optional<Fault> close;
  if (std::string(GetParam().call) != "open" || GetParam().nth != 1) {
    close.emplace("close", -1, EDOM, 1U);
  }

  EXPECT_EQ(CopyUntil(GetParam(), files), GetParam().result);

  EXPECT_EQ(errno, GetParam().error);
}

INSTANTIATE_TEST_SUITE_P(OpenSource, CopyFailure,
                         testing::ValuesIn(FailuresOf("open", 1,
                                                      {{ENOENT, not_found},
                                                       {EACCES, permission_denied},
                                                       {EPERM, permission_denied},
                                                       {ENOSPC, src_open_failed},
                                                       {EDQUOT, src_open_failed},
                                                       {EMFILE, src_open_failed},
                                                       {EINTR, src_open_failed},
                                                       {EIO, src_open_failed}})),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(StatSource, CopyFailure,
                         testing::ValuesIn(FailuresOf("fstat", 1,
                                                      {{EIO, stat_failed},
                                                       {ENOENT, stat_failed},
                                                       {EACCES, stat_failed},
                                                       {ENOSPC, stat_failed},
                                                       {EOVERFLOW, stat_failed}})),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(OpenDestination, CopyFailure,
                         testing::ValuesIn(FailuresOf("open", 2,
                                                      {{ENOSPC, no_space},
                                                       {EDQUOT, no_space},
                                                       {EACCES, permission_denied},
                                                       {EPERM, permission_denied},
                                                       {ENOENT, not_found},
                                                       {EISDIR, dst_open_failed},
                                                       {EROFS, dst_open_failed},
                                                       {ETXTBSY, dst_open_failed},
                                                       {EINTR, dst_open_failed},
                                                       {EIO, dst_open_failed}})),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Send, CopyFailure,
                         testing::ValuesIn(FailuresOf("sendfile", 1,
                                                      {{ENOSPC, no_space},
                                                       {EDQUOT, no_space},
                                                       {EACCES, permission_denied},
                                                       {EPERM, permission_denied},
                                                       {EINTR, io_error},
                                                       {EAGAIN, io_error},
                                                       {ENOENT, sendfile_failed},
                                                       {EIO, sendfile_failed},
                                                       {ENOMEM, sendfile_failed},
                                                       {EFBIG, sendfile_failed},
                                                       {ENOSYS, sendfile_failed}})),
                         NameOf);

TEST(CopySend, InterruptionIsNotRetried) {
  const CopyFiles files;
  for (const int error : {EINTR, EAGAIN}) {
    const CallLog log;
    const Fault fault = FailCall("sendfile", error);

    EXPECT_EQ(CopyWithRoom(files), io_error);

    EXPECT_EQ(log.Of("sendfile").size(), 1U);
    EXPECT_EQ(log.Of("read").size(), 0U) << "nor is it done with a buffer";
  }
}

TEST(CopySend, FailureLeavesTheDestinationTruncated) {
  const CopyFiles files;
  const Fault fault = FailCall("sendfile", EIO);

  EXPECT_EQ(CopyWithRoom(files), sendfile_failed);

  EXPECT_EQ(ReadFile(files.Destination()), "");
}

TEST(CopySend, NothingSentIsAnError) {
  const CopyFiles files;
  const std::size_t before = CountOpenFds();
  const CallLog log;
  const Fault fault = ReturnFrom("sendfile", 0);

  EXPECT_EQ(CopyWithRoom(files), io_error);

  EXPECT_EQ(log.Of("sendfile").size(), 1U);
  EXPECT_EQ(CountOpenFds(), before);
}

// The source is found larger than it is, so that the first call sends less than it was asked to.
TEST(CopySend, ShortCallIsContinuedFromItsOffset) {
  const CopyFiles files;
  struct stat status {};
  status.st_mode = S_IFREG;
  status.st_size = 10004;
  const Fault larger = GiveFrom("fstat", Octets(status));
  const CallLog log;

  EXPECT_EQ(CopyWithRoom(files), io_error) << "the rest never comes";

  const std::vector<CallRecord> sent = log.Of("sendfile");
  ASSERT_EQ(sent.size(), 2U);
  EXPECT_EQ(sent[0].args, (Args{sent[0].args[0], sent[0].args[1], 0, 10004}));
  EXPECT_EQ(sent[1].args, (Args{sent[0].args[0], sent[0].args[1], 10000, 4}));
  EXPECT_TRUE(files.AreEqual()) << "what was written stays";
}

TEST(CopySend, SecondCallMayFailInItsOwnWay) {
  const CopyFiles files;
  struct stat status {};
  status.st_mode = S_IFREG;
  status.st_size = 10004;
  const Fault larger = GiveFrom("fstat", Octets(status));
  const Fault fault = FailCall("sendfile", EDQUOT, 2);

  EXPECT_EQ(CopyWithRoom(files), no_space);
}

TEST(CopyFallback, StartsOverWithBlocksOf4096Bytes) {
  const CopyFiles files;
  const Fault fault = FailCall("sendfile", EINVAL);
  const CallLog log;

  EXPECT_EQ(CopyWithRoom(files), success);

  ASSERT_EQ(log.Names(), (Names{"open", "fstat", "statfs", "stat", "open", "sendfile", "ftruncate", "lseek", "read",
                                "write", "read", "write", "read", "write", "read", "close", "close"}));
  const long long out = log.Of("sendfile")[0].args[0];
  const long long in = log.Of("sendfile")[0].args[1];
  EXPECT_EQ(log.Of("ftruncate")[0].args, (Args{out, 0}));
  EXPECT_EQ(log.Of("lseek")[0].args, (Args{in, 0, SEEK_SET}));
  for (const CallRecord& call : log.Of("read")) {
    EXPECT_EQ(call.args, (Args{in, 4096}));
  }
  EXPECT_EQ(log.Of("write")[0].args, (Args{out, 4096}));
  EXPECT_EQ(log.Of("write")[2].args, (Args{out, 10000 - 2 * 4096}));
  EXPECT_TRUE(files.AreEqual());
}

// What the first call sent is thrown away, and its bytes are read and written again.
TEST(CopyFallback, AfterASentPartTakesTheWholeSource) {
  const CopyFiles files;
  struct stat status {};
  status.st_mode = S_IFREG;
  status.st_size = 10004;
  const Fault larger = GiveFrom("fstat", Octets(status));
  const Fault fault = FailCall("sendfile", EINVAL, 2);
  const CallLog log;

  EXPECT_EQ(CopyWithRoom(files), success) << "the end of the file ends it, whatever its size was";

  std::string written;
  for (const CallRecord& call : log.Of("write")) {
    written += call.data;
  }
  EXPECT_TRUE(written == files.Content());
  EXPECT_EQ(log.Of("ftruncate").size(), 1U);
}

class CopyFallbackFailure : public testing::TestWithParam<Failure> {};

TEST_P(CopyFallbackFailure, HasItsResultAndLeavesNothingOpen) {
  const CopyFiles files;
  const std::size_t before = CountOpenFds();
  const Fault fallback = FailCall("sendfile", EINVAL);
  const Fault fault = FailCall(GetParam().call, GetParam().error, GetParam().nth);
  const Fault close = FailCall("close", EDOM);

  EXPECT_EQ(CopyWithRoom(files), GetParam().result);

  EXPECT_EQ(errno, GetParam().error);
  EXPECT_EQ(CountOpenFds(), before);
}

const std::vector<Meaning> kAlwaysIoError = {{ENOSPC, io_error}, {EDQUOT, io_error}, {EACCES, io_error},
                                             {EPERM, io_error},  {EIO, io_error},    {ENOENT, io_error}};
const std::vector<Meaning> kWriteErrors = {{ENOSPC, no_space}, {EDQUOT, no_space},         {EACCES, permission_denied},
                                           {EIO, io_error},    {EPERM, permission_denied}, {ENOENT, io_error},
                                           {EFBIG, io_error},  {EAGAIN, io_error},         {EPIPE, io_error}};

INSTANTIATE_TEST_SUITE_P(Truncate, CopyFallbackFailure, testing::ValuesIn(FailuresOf("ftruncate", 1, kAlwaysIoError)),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(TruncateInterrupted, CopyFallbackFailure,
                         testing::ValuesIn(FailuresOf("ftruncate", 1, {{EINTR, io_error}})), NameOf);
INSTANTIATE_TEST_SUITE_P(Seek, CopyFallbackFailure, testing::ValuesIn(FailuresOf("lseek", 1, kAlwaysIoError)), NameOf);
INSTANTIATE_TEST_SUITE_P(FirstRead, CopyFallbackFailure, testing::ValuesIn(FailuresOf("read", 1, kAlwaysIoError)),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(LaterRead, CopyFallbackFailure,
                         testing::ValuesIn(FailuresOf("read", 3, {{EIO, io_error}, {EAGAIN, io_error}})), NameOf);
INSTANTIATE_TEST_SUITE_P(FirstWrite, CopyFallbackFailure, testing::ValuesIn(FailuresOf("write", 1, kWriteErrors)),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(LaterWrite, CopyFallbackFailure,
                         testing::ValuesIn(FailuresOf("write", 3, {{ENOSPC, no_space}})), NameOf);

TEST(CopyFallback, FailedTruncationDoesNotGoOn) {
  const CopyFiles files;
  const CallLog log;
  const Fault fallback = FailCall("sendfile", EINVAL);
  const Fault fault = FailCall("ftruncate", EIO);

  EXPECT_EQ(CopyWithRoom(files), io_error);

  EXPECT_EQ(log.Of("lseek").size() + log.Of("read").size() + log.Of("write").size(), 0U);
}

TEST(CopyFallback, FailedWriteEndsTheCopy) {
  const CopyFiles files;
  const CallLog log;
  const Fault fallback = FailCall("sendfile", EINVAL);
  const Fault fault = FailCall("write", ENOSPC, 2);

  EXPECT_EQ(CopyWithRoom(files), no_space);

  EXPECT_EQ(log.Of("read").size(), 2U);
  EXPECT_EQ(log.Of("write").size(), 2U);
  EXPECT_EQ(ReadFile(files.Destination()), files.Content().substr(0, 4096)) << "what was written stays";
}

TEST(CopyFallback, InterruptedReadIsRetried) {
  const CopyFiles files;
  const CallLog log;
  const Fault fallback = FailCall("sendfile", EINVAL);
  const Fault faults[] = {
      {"read", -1, EINTR, 1}, {"read", -1, EINTR, 2}, {"read", -1, EINTR, 4}, {"read", -1, EINTR, 7}};

  EXPECT_EQ(CopyWithRoom(files), success);

  EXPECT_EQ(log.Of("read").size(), 8U);
  EXPECT_TRUE(files.AreEqual());
}

TEST(CopyFallback, InterruptedWriteIsRetried) {
  const CopyFiles files;
  const CallLog log;
  const Fault fallback = FailCall("sendfile", EINVAL);
  const Fault faults[] = {{"write", -1, EINTR, 1}, {"write", -1, EINTR, 2}, {"write", -1, EINTR, 5}};

  EXPECT_EQ(CopyWithRoom(files), success);

  EXPECT_EQ(log.Of("write").size(), 6U);
  EXPECT_TRUE(files.AreEqual());
}

TEST(CopyFallback, ShortWriteIsContinued) {
  const CopyFiles files;
  const CallLog log;
  const Fault fallback = FailCall("sendfile", EINVAL);
  const Fault shortRead = GiveFrom("read", "0123456789");
  const Fault end = ReturnFrom("read", 0, 2);
  const Fault faults[] = {{"write", 4, 0, 1}, {"write", -1, EINTR, 2}, {"write", 1, 0, 3}};

  EXPECT_EQ(CopyWithRoom(files), success);

  const std::vector<CallRecord> written = log.Of("write");
  ASSERT_EQ(written.size(), 4U);
  EXPECT_EQ(written[0].data, "0123456789");
  EXPECT_EQ(written[1].data, "456789");
  EXPECT_EQ(written[2].data, "456789");
  EXPECT_EQ(written[3].data, "56789");
}

// errno is then that of an earlier call, which decides all the same.
TEST(CopyFallback, WriteOfNothingEndsWithTheCurrentErrno) {
  const CopyFiles files;
  const Meaning meanings[] = {{0, io_error},      {EINTR, io_error},           {ENOSPC, no_space},
                              {EDQUOT, no_space}, {EACCES, permission_denied}, {EPERM, permission_denied},
                              {EINVAL, io_error}};
  for (const Meaning& meaning : meanings) {
    SCOPED_TRACE(meaning.error);
    const CallLog log;
    const Fault fallback = FailCall("sendfile", EINVAL);
    const Fault fault("write", 0, meaning.error, 1);

    EXPECT_EQ(CopyWithRoom(files), meaning.result);

    EXPECT_EQ(log.Of("write").size(), 1U);
  }
}

TEST(CopyClose, FailureIsNotReported) {
  const CopyFiles files;
  const std::size_t before = CountOpenFds();
  const Fault first = FailCall("close", EIO, 1);
  const Fault second = FailCall("close", EDQUOT, 2);

  EXPECT_EQ(CopyWithRoom(files, true), success);

  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_TRUE(files.AreEqual());
}

// A folder "gone" with one file in it.
class Tree {
 public:
  Tree() {
    std::filesystem::create_directory(Root());
    WriteFile(File(), "content");
  }
  std::string Root() const { return mFolder.Path() + "/gone"; }
  std::string File() const { return Root() + "/file"; }

 private:
  TempFolder mFolder;
};

TEST(RemoveDirRecursivelyCalls, ClosesTheStreamBeforeTheDirectoryGoes) {
  const Tree tree;
  const std::size_t before = CountOpenFds();
  const CallLog log;

  EXPECT_EQ(RemoveDirRecursively(tree.Root()), success);

  ASSERT_EQ(log.Of("lstat").size(), 2U);
  EXPECT_EQ(log.Of("lstat")[0].data, tree.Root());
  EXPECT_EQ(log.Of("lstat")[1].data, tree.File());
  EXPECT_EQ(log.Of("opendir")[0].data, tree.Root());
  EXPECT_EQ(log.Of("readdir").size(), 4U) << "itself, the parent, the file, the end";
  Names names = log.Names();
  names.erase(std::remove(names.begin(), names.end(), "readdir"), names.end());
  EXPECT_EQ(names, (Names{"lstat", "opendir", "lstat", "unlink", "closedir", "rmdir"}));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(RemoveDirRecursivelyCalls, ChildPathIsThePathASlashAndTheName) {
  const Tree tree;
  const CallLog log;

  EXPECT_EQ(RemoveDirRecursively(tree.Root() + "/"), success);

  ASSERT_EQ(log.Of("unlink").size(), 1U);
  EXPECT_EQ(log.Of("unlink")[0].data, tree.Root() + "//file");
  EXPECT_EQ(log.Of("rmdir")[0].data, tree.Root() + "/");
}

class RemoveFailure : public testing::TestWithParam<Failure> {};

// The calls for a directory and for a file in it; the first lstat, opendir, unlink and rmdir are what is asked for.
TEST_P(RemoveFailure, HasItsResultAndLeavesNothingOpen) {
  const Tree tree;
  const std::string path = std::string(GetParam().call) == "unlink" ? tree.File() : tree.Root();
  const std::size_t before = CountOpenFds();
  const Fault fault = FailCall(GetParam().call, GetParam().error, GetParam().nth);

  EXPECT_EQ(RemoveDirRecursively(path), GetParam().result);

  EXPECT_EQ(errno, GetParam().error);
  EXPECT_EQ(CountOpenFds(), before);
  EXPECT_TRUE(std::filesystem::exists(path));
}

INSTANTIATE_TEST_SUITE_P(Lstat, RemoveFailure,
                         testing::ValuesIn(FailuresOf("lstat", 1,
                                                      {{ENOENT, not_found},
                                                       {EACCES, stat_failed},
                                                       {EPERM, stat_failed},
                                                       {ENOTDIR, stat_failed},
                                                       {ENOSPC, stat_failed},
                                                       {EIO, stat_failed}})),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Unlink, RemoveFailure,
                         testing::ValuesIn(FailuresOf("unlink", 1,
                                                      {{ENOENT, not_found},
                                                       {EACCES, permission_denied},
                                                       {EPERM, permission_denied},
                                                       {EBUSY, io_error},
                                                       {EISDIR, io_error},
                                                       {ENOSPC, io_error},
                                                       {EDQUOT, io_error},
                                                       {EROFS, io_error},
                                                       {EIO, io_error}})),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Opendir, RemoveFailure,
                         testing::ValuesIn(FailuresOf("opendir", 1,
                                                      {{ENOENT, dir_open_failed},
                                                       {EACCES, dir_open_failed},
                                                       {EPERM, dir_open_failed},
                                                       {ENOSPC, dir_open_failed},
                                                       {EMFILE, dir_open_failed},
                                                       {ENOMEM, dir_open_failed}})),
                         NameOf);
INSTANTIATE_TEST_SUITE_P(Rmdir, RemoveFailure,
                         testing::ValuesIn(FailuresOf("rmdir", 1,
                                                      {{EACCES, permission_denied},
                                                       {EPERM, permission_denied},
                                                       {ENOENT, io_error},
                                                       {ENOTEMPTY, io_error},
                                                       {EBUSY, io_error},
                                                       {ENOSPC, io_error},
                                                       {EDQUOT, io_error},
                                                       {EIO, io_error}})),
                         NameOf);

// The first entry that fails: no further one is read, and the directory's own rmdir decides.
TEST(RemoveDirRecursivelyChild, FailureEndsTheReading) {
  const Tree tree;
  WriteFile(tree.Root() + "/other", "");
  for (const char* const call : {"unlink", "lstat"}) {
    SCOPED_TRACE(call);
    const CallLog log;
    const Fault fault = FailCall(call, EPERM, std::string(call) == "lstat" ? 2 : 1);

    EXPECT_EQ(RemoveDirRecursively(tree.Root()), io_error) << "not the child's result";

    EXPECT_EQ(errno, ENOTEMPTY);
    const Names names = log.Names();
    ASSERT_GE(names.size(), 3U);
    EXPECT_EQ(Names(names.end() - 3, names.end()), (Names{call, "closedir", "rmdir"}));
    EXPECT_EQ(log.Of("lstat").size(), 2U);
  }
}

TEST(RemoveDirRecursivelyChild, FailureGivesWhatTheRmdirGives) {
  const Tree tree;
  {
    const Fault child = FailCall("unlink", EIO);
    const Fault own = FailCall("rmdir", EACCES);
    EXPECT_EQ(RemoveDirRecursively(tree.Root()), permission_denied);
  }
  const Fault child = FailCall("unlink", EIO);
  const Fault own = ReturnFrom("rmdir", 0);
  EXPECT_EQ(RemoveDirRecursively(tree.Root()), success);
}

TEST(RemoveDirRecursivelyChild, FolderThatCannotBeReadStaysWithItsParents) {
  const Tree tree;
  std::filesystem::create_directories(tree.Root() + "/inner");
  (void)::unlink(tree.File().c_str());
  const std::size_t before = CountOpenFds();
  const Fault fault = FailCall("opendir", EMFILE, 2);

  EXPECT_EQ(RemoveDirRecursively(tree.Root()), io_error);

  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_TRUE(std::filesystem::exists(tree.Root() + "/inner"));
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(RemoveDirRecursively, FailingReadLooksLikeTheEnd) {
  const Tree tree;
  const CallLog log;
  const Fault fault = FailCall("readdir", EIO);

  EXPECT_EQ(RemoveDirRecursively(tree.Root()), io_error);

  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_EQ(log.Names(), (Names{"lstat", "opendir", "readdir", "closedir", "rmdir"}));
}

TEST(RemoveDirRecursively, FailingCloseIsIgnored) {
  const Tree tree;
  const std::size_t before = CountOpenFds();
  const Fault fault = FailCall("closedir", EIO);

  EXPECT_EQ(RemoveDirRecursively(tree.Root()), success);

  EXPECT_EQ(CountOpenFds(), before);
}

TEST(CreateDirectory, EachErrorHasItsResult) {
  const Meaning meanings[] = {
      {EEXIST, success},      {EACCES, permission_denied},  {EPERM, permission_denied}, {ENOSPC, no_space},
      {EDQUOT, no_space},     {ENOENT, not_found},          {ENOTDIR, mkdir_failed},    {EROFS, mkdir_failed},
      {EMLINK, mkdir_failed}, {ENAMETOOLONG, mkdir_failed}, {EINTR, mkdir_failed},      {EIO, mkdir_failed}};
  for (const Meaning& meaning : meanings) {
    SCOPED_TRACE(meaning.error);
    const CallLog log;
    const Fault fault = FailCall("mkdir", meaning.error);

    EXPECT_EQ(CreateDirectory("/never/made"), meaning.result);

    EXPECT_EQ(errno, meaning.error);
    ASSERT_EQ(log.Names(), Names{"mkdir"});
    EXPECT_EQ(log.Of("mkdir")[0].args, Args{0777});
    EXPECT_EQ(log.Of("mkdir")[0].data, "/never/made");
  }
}

TEST(CreateSymlink, EachErrorOfTheTargetHasItsResult) {
  const Meaning meanings[] = {{ENOENT, not_found},    {EACCES, permission_denied}, {EPERM, permission_denied},
                              {ENOSPC, stat_failed},  {EEXIST, stat_failed},       {ELOOP, stat_failed},
                              {ENOTDIR, stat_failed}, {EIO, stat_failed}};
  for (const Meaning& meaning : meanings) {
    SCOPED_TRACE(meaning.error);
    const CallLog log;
    const Fault fault = FailCall("stat", meaning.error);

    EXPECT_EQ(CreateSymlink("/some/target", "/some/link"), meaning.result);

    EXPECT_EQ(errno, meaning.error);
    ASSERT_EQ(log.Names(), Names{"stat"});
    EXPECT_EQ(log.Of("stat")[0].data, "/some/target");
  }
}

TEST(CreateSymlink, EachErrorOfTheLinkHasItsResult) {
  const CopyFiles files;
  const Meaning meanings[] = {{EEXIST, symlink_failed},  {EACCES, permission_denied}, {EPERM, permission_denied},
                              {ENOSPC, no_space},        {EDQUOT, no_space},          {ENOENT, not_found},
                              {ENOTDIR, symlink_failed}, {EROFS, symlink_failed},     {EINTR, symlink_failed},
                              {EIO, symlink_failed}};
  for (const Meaning& meaning : meanings) {
    SCOPED_TRACE(meaning.error);
    const CallLog log;
    const Fault fault = FailCall("symlink", meaning.error);

    EXPECT_EQ(CreateSymlink(files.Source(), "/some/link"), meaning.result);

    EXPECT_EQ(errno, meaning.error);
    ASSERT_EQ(log.Names(), (Names{"stat", "symlink"}));
    EXPECT_EQ(log.Of("symlink")[0].data, files.Source() + " /some/link");
  }
}

TEST(CreateSymlink, OtherTypeIsNotLinkedTo) {
  const CopyFiles files;
  const CallLog log;

  EXPECT_EQ(CreateSymlink(files.Folder(), "/some/link"), not_regular_file);

  EXPECT_EQ(log.Names(), Names{"stat"});
}

TEST(Inspection, FailingCallIsANoAndKeepsItsReason) {
  const std::pair<const char*, std::function<bool()>> questions[] = {
      {"stat", [] { return IsDirectory("/"); }},
      {"stat", [] { return IsRegularFile("/proc/stat"); }},
      {"statfs", [] { return IsTmpfsFile("/dev/shm"); }},
      {"access", [] { return Exists("/"); }},
      {"statfs", [] { return HasEnoughSpace("/", 0); }}};
  for (const auto& [call, ask] : questions) {
    for (const int error : {ENOENT, EACCES, EINTR, EIO}) {
      SCOPED_TRACE(std::string(call) + " " + std::to_string(error));
      const CallLog log;
      const Fault fault = FailCall(call, error);

      EXPECT_FALSE(ask());

      EXPECT_EQ(errno, error);
      EXPECT_EQ(log.Names(), Names{call});
    }
  }
}

TEST(Exists, AsksForExistenceAlone) {
  const CallLog log;

  EXPECT_TRUE(Exists("/"));

  ASSERT_EQ(log.Names(), Names{"access"});
  EXPECT_EQ(log.Of("access")[0].args, Args{F_OK});
}

TEST(IsTmpfsFile, OnlyOneMagicNumberCounts) {
  const std::pair<long long, bool> types[] = {{0x01021994, true}, {0x01021995, false}, {0x858458F6, false}, {0, false}};
  for (const auto& [type, isTmpfs] : types) {
    struct statfs filesystem {};
    filesystem.f_type = static_cast<decltype(filesystem.f_type)>(type);
    const Fault fault = GiveFrom("statfs", Octets(filesystem));
    EXPECT_EQ(IsTmpfsFile("/"), isTmpfs) << type;
  }
}

TEST(IsMounted, UnreadableTableHasNoMountPoints) {
  ASSERT_TRUE(IsMounted("/"));
  {
    const Fault fault = FailCall("read", EIO);
    EXPECT_FALSE(IsMounted("/"));
  }
  const test::NoNewDescriptors none;
  EXPECT_FALSE(IsMounted("/"));
}

TEST(HasEnoughSpace, NegativeSizeIsRefusedWithoutAsking) {
  const CallLog log;

  EXPECT_FALSE(HasEnoughSpace("/", -1));
  EXPECT_FALSE(HasEnoughSpace("/", -2147483647 - 1));

  EXPECT_EQ(log.Names(), Names{});
}

TEST(GetSizeFS, FailureKeepsItsReason) {
  const CallLog log;
  const Fault fault = FailCall("statfs", EIO);

  EXPECT_EQ(GetSizeFS("/some/path"), -1);

  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(log.Of("statfs")[0].data, "/some/path");
}

struct stat OfType(mode_t type, std::int64_t size = 0) {
  struct stat status {};
  status.st_mode = type | 0600;
  status.st_size = static_cast<off_t>(size);
  return status;
}

TEST(GetSizeOfDescriptor, RegularFileIsAskedOnce) {
  const CallLog log;
  const Fault fault = GiveFrom("fstat", Octets(OfType(S_IFREG, 100)));

  EXPECT_EQ(GetSize(4711), 100);

  ASSERT_EQ(log.Names(), Names{"fstat"});
  EXPECT_EQ(log.Of("fstat")[0].args, Args{4711});
}

TEST(GetSizeOfDescriptor, BlockDeviceIsAskedForItsBytes) {
  const CallLog log;
  const Fault type = GiveFrom("fstat", Octets(OfType(S_IFBLK, 99)));
  const Fault fault = GiveFrom("ioctl", Octets(std::uint64_t{512}));

  EXPECT_EQ(GetSize(4711), 512);

  ASSERT_EQ(log.Names(), (Names{"fstat", "ioctl"}));
  EXPECT_EQ(log.Of("ioctl")[0].args, (Args{4711, static_cast<long long>(BLKGETSIZE64)}));
  EXPECT_EQ(log.Of("ioctl")[0].data, std::string(8, '\0')) << "a kernel that fills half of it leaves no rest";
}

TEST(GetSizeOfDescriptor, FailureKeepsItsReason) {
  for (const int error : {ENOTTY, EIO, ENOMEDIUM}) {
    const Fault type = GiveFrom("fstat", Octets(OfType(S_IFBLK)));
    const Fault fault = FailCall("ioctl", error);
    EXPECT_EQ(GetSize(4711), -1);
    EXPECT_EQ(errno, error);
  }
  const Fault fault = FailCall("fstat", EBADF);
  EXPECT_EQ(GetSize(4711), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(GetSizeOfDescriptor, OtherTypesAreNotAsked) {
  for (const mode_t type : std::initializer_list<mode_t>{S_IFCHR, S_IFDIR, S_IFIFO, S_IFSOCK, S_IFLNK}) {
    const CallLog log;
    const Fault fault = GiveFrom("fstat", Octets(OfType(type, 100)));
    EXPECT_EQ(GetSize(4711), -1) << type;
    EXPECT_EQ(log.Names(), Names{"fstat"});
  }
}

TEST(GetSizeOfPath, OpensForReadingAndCloses) {
  const CopyFiles files;
  const std::size_t before = CountOpenFds();
  const CallLog log;

  EXPECT_EQ(GetSize(files.Source()), 10000);

  ASSERT_EQ(log.Names(), (Names{"open", "fstat", "close"}));
  EXPECT_EQ(log.Of("open")[0].args, (Args{O_RDONLY, 0}));
  EXPECT_EQ(log.Of("open")[0].data, files.Source());
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(GetSizeOfPath, FailureKeepsItsReasonAndClosesWhatIsOpen) {
  const CopyFiles files;
  const std::size_t before = CountOpenFds();
  const Fault close = FailCall("close", EDOM);
  {
    const CallLog log;
    const Fault fault = FailCall("open", EACCES);
    EXPECT_EQ(GetSize(files.Source()), -1);
    EXPECT_EQ(errno, EACCES);
    EXPECT_EQ(log.Names(), Names{"open"});
  }
  const Fault fault = FailCall("fstat", EIO);
  EXPECT_EQ(GetSize(files.Source()), -1);
  EXPECT_EQ(errno, EIO);
  EXPECT_EQ(CountOpenFds(), before);
}

TEST(GetSizeOfPath, FailingCloseIsNoFailure) {
  const CopyFiles files;
  const Fault fault = FailCall("close", EIO);

  EXPECT_EQ(GetSize(files.Source()), 10000);
}

}  // namespace
}  // namespace kiv::fs
