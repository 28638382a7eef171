#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <cstdint>
#include <string>
#include <type_traits>

#include "tests/child.h"
#include "tests/support.h"

namespace kiv::fs {
namespace {

using internal::UniqueFd;
using test::WriteFile;

static_assert(std::is_same_v<decltype(GetSize(0)), std::int32_t>);
static_assert(std::is_same_v<decltype(GetSize("")), std::int32_t>);
static_assert(std::is_same_v<decltype(GetSizeFS("")), std::int32_t>);

// The size by path, with a check that nothing stays open.
int SizeOf(const std::string& path) {
  const std::size_t before = test::CountOpenFds();
  errno = 0;
  const int size = GetSize(path);
  EXPECT_EQ(test::CountOpenFds(), before);
  return size;
}

UniqueFd OpenForReading(const std::string& path) { return UniqueFd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)); }

TEST(GetSize, IsTheNumberOfBytes) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  for (const int size : {0, 1, 511, 4096, 4097, 1000000}) {
    WriteFile(file, std::string(static_cast<std::size_t>(size), 'x'));

    EXPECT_EQ(SizeOf(file), size);
    EXPECT_EQ(GetSize(OpenForReading(file).Get()), size);
  }
}

// Sparse files: no byte is written.
TEST(GetSize, LowBitsCountFromTwoGigabytes) {
  const struct {
    std::int64_t size;
    int expected;
  } rows[] = {{2147483647, INT_MAX}, {2147483648, INT_MIN}, {4294967295, -1},         {4294967296, 0},
              {4294967301, 5},       {6442450944, INT_MIN}, {8589934592 + 1000, 1000}};
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";

  for (const auto& row : rows) {
    WriteFile(file, "");
    ASSERT_EQ(::truncate(file.c_str(), row.size), 0);
    EXPECT_EQ(SizeOf(file), row.expected) << row.size;
    const UniqueFd fd(::open(file.c_str(), O_RDONLY | O_CLOEXEC));
    EXPECT_EQ(GetSize(fd.Get()), row.expected) << row.size;
  }
}

TEST(GetSize, LinkLeadsToItsFile) {
  const test::TempFolder folder;
  const std::string link = folder.Path() + "/link";
  WriteFile(folder.Path() + "/file", "content");
  ASSERT_EQ(::symlink("file", link.c_str()), 0);

  EXPECT_EQ(SizeOf(link), 7);
}

TEST(GetSize, ProcFileIsEmpty) { EXPECT_EQ(SizeOf("/proc/version"), 0); }

TEST(GetSize, AnythingElseHasNone) {
  const test::TempFolder folder;
  const std::string fifo = folder.Path() + "/fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  // Opening a fifo for reading waits for a writer.
  const UniqueFd writer(::open(fifo.c_str(), O_RDWR | O_CLOEXEC));
  WriteFile(fifo, "content");

  for (const std::string& path : {folder.Path(), fifo, std::string("/dev/null"), std::string("/")}) {
    EXPECT_EQ(SizeOf(path), -1) << path;
    EXPECT_EQ(GetSize(OpenForReading(path).Get()), -1) << path;
  }
}

TEST(GetSize, PipeAndSocketHaveNone) {
  int fds[2] = {-1, -1};
  ASSERT_EQ(::pipe2(fds, O_CLOEXEC), 0);
  const UniqueFd reading(fds[0]);
  const UniqueFd writing(fds[1]);
  const auto sockets = test::SocketPair();
  ASSERT_EQ(::write(writing.Get(), "content", 7), 7);

  for (const int fd : {reading.Get(), writing.Get(), sockets.first.Get(), test::EventFd(0).Get()}) {
    EXPECT_EQ(GetSize(fd), -1) << fd;
  }
}

TEST(GetSize, ClosedDescriptorHasNone) {
  errno = 0;
  EXPECT_EQ(GetSize(-1), -1);
  EXPECT_EQ(errno, EBADF);
  errno = 0;
  EXPECT_EQ(GetSize(test::NextFd()), -1);
  EXPECT_EQ(errno, EBADF);
}

TEST(GetSize, PathThatCannotBeOpenedHasNone) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  WriteFile(file, "content");
  const struct {
    std::string path;
    int reason;
  } rows[] = {{folder.Path() + "/missing", ENOENT},
              {"", ENOENT},
              {file + "/x", ENOTDIR},
              {"/" + std::string(256, 'x'), ENAMETOOLONG}};

  for (const auto& row : rows) {
    EXPECT_EQ(SizeOf(row.path), -1) << row.path;
    EXPECT_EQ(errno, row.reason) << row.path;
  }
  const test::NoNewDescriptors none;
  EXPECT_EQ(GetSize(file), -1);
}

TEST(GetSize, FileHasToBeReadable) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  WriteFile(file, "content");
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0755), 0);
  ASSERT_EQ(::chmod(file.c_str(), 0222), 0);

  EXPECT_EQ(test::WithoutPrivileges([&] { return GetSize(file) == -1 ? errno : 0; }), EACCES);
}

TEST(GetSize, DescriptorStaysOpenWhereItIs) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  WriteFile(file, "content");
  const UniqueFd fd = OpenForReading(file);
  ASSERT_EQ(::lseek(fd.Get(), 3, SEEK_SET), 3);

  EXPECT_EQ(GetSize(fd.Get()), 7);

  EXPECT_TRUE(test::IsOpen(fd.Get()));
  EXPECT_EQ(::lseek(fd.Get(), 0, SEEK_CUR), 3);
}

TEST(GetSize, DescriptorNeedNotBeReadable) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  WriteFile(file, "content");

  EXPECT_EQ(GetSize(UniqueFd(::open(file.c_str(), O_WRONLY | O_CLOEXEC)).Get()), 7);
}

// A product as 32-bit registers give it: modulo 2^32, the upper half negative.
std::int64_t In32Bits(std::uint64_t size, std::uint64_t count) {
  const std::uint64_t modulo = (size % 4294967296U) * (count % 4294967296U) % 4294967296U;
  return static_cast<std::int64_t>(modulo) - (modulo >= 2147483648U ? 4294967296 : 0);
}

TEST(GetSizeFS, OracleIsThe32BitProduct) {
  EXPECT_EQ(In32Bits(4096, 524287), 2147479552);
  EXPECT_EQ(In32Bits(4096, 524288), -2147483648LL);
  EXPECT_EQ(In32Bits(4096, 1048575), -4096);
  EXPECT_EQ(In32Bits(4096, 1048576 + 3), 12288);
}

struct FreeBytes {
  std::int64_t all = 0;           ///< With the blocks reserved for root.
  std::int64_t unprivileged = 0;  ///< Without them.

  bool operator==(const FreeBytes& other) const { return all == other.all && unprivileged == other.unprivileged; }
};

FreeBytes FreeOf(const std::string& path) {
  struct statfs filesystem {};
  EXPECT_EQ(::statfs(path.c_str(), &filesystem), 0) << path;
  const auto size = static_cast<std::uint64_t>(filesystem.f_bsize);
  return {In32Bits(size, filesystem.f_bfree), In32Bits(size, filesystem.f_bavail)};
}

// Other programs write meanwhile: asks until the free space was the same before and after `ask`.
template <typename Ask>
FreeBytes FreeWhile(const std::string& path, Ask ask) {
  FreeBytes before = FreeOf(path);
  for (int tries = 0; tries < 10000; ++tries) {
    ask();
    const FreeBytes after = FreeOf(path);
    if (before == after) {
      return after;
    }
    before = after;
  }
  ADD_FAILURE() << "the free space of " << path << " never rests";
  return before;
}

TEST(GetSizeFS, IsBlockSizeTimesFreeBlocksIn32Bits) {
  for (const char* path : {"/", "/tmp", "/dev/shm", "/dev", "/proc", "/sys", "/proc/version", "/dev/null"}) {
    int size = 1;
    const FreeBytes bytes = FreeWhile(path, [&] { size = GetSizeFS(path); });

    EXPECT_EQ(size, bytes.all) << path;
  }
}

TEST(GetSizeFS, MissingPathHasNone) {
  errno = 0;
  EXPECT_EQ(GetSizeFS("/missing"), -1);
  EXPECT_EQ(errno, ENOENT);
  EXPECT_EQ(GetSizeFS(""), -1);
  EXPECT_EQ(GetSizeFS("/dev/null/x"), -1);
}

TEST(HasEnoughSpace, ComparesWithTheSpaceOfTheUnprivilegedIn32Bits) {
  for (const char* path : {"/", "/tmp", "/dev/shm", "/dev", "/proc", "/sys", "/dev/null"}) {
    for (const int bytes : {0, 1, 4096, 1 << 20, 1 << 30, INT_MAX - 1, INT_MAX}) {
      bool isEnough = false;
      const FreeBytes space = FreeWhile(path, [&] { isEnough = HasEnoughSpace(path, bytes); });

      EXPECT_EQ(isEnough, space.unprivileged >= bytes) << path << ' ' << bytes << " of " << space.unprivileged;
    }
  }
}

TEST(HasEnoughSpace, ExactlyTheFreeBytesAreEnough) {
  for (const char* path : {"/", "/tmp", "/dev/shm", "/dev"}) {
    bool all = false;
    bool oneMore = true;
    const FreeBytes space = FreeWhile(path, [&] {
      const auto bytes = static_cast<int>(FreeOf(path).unprivileged);
      all = HasEnoughSpace(path, bytes);
      oneMore = bytes < INT_MAX && HasEnoughSpace(path, bytes + 1);
    });

    EXPECT_EQ(all, space.unprivileged >= 0) << path;
    // Of -1, one more is zero; neither is enough.
    EXPECT_FALSE(oneMore) << path;
  }
}

// proc(5) has no blocks: none are free, and none is negative.
TEST(HasEnoughSpace, ZeroBytesAreThereOnAFullFilesystem) {
  EXPECT_TRUE(HasEnoughSpace("/proc", 0));
  EXPECT_FALSE(HasEnoughSpace("/proc", 1));
}

TEST(HasEnoughSpace, NegativeNumberNeverIs) {
  for (const char* path : {"/", "/tmp", "/dev/shm", "/proc", "/missing"}) {
    EXPECT_FALSE(HasEnoughSpace(path, -1)) << path;
    EXPECT_FALSE(HasEnoughSpace(path, INT_MIN)) << path;
  }
}

TEST(HasEnoughSpace, MissingPathHasNone) {
  errno = 0;
  EXPECT_FALSE(HasEnoughSpace("/missing", 0));
  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(HasEnoughSpace("", 0));
  EXPECT_FALSE(HasEnoughSpace("/dev/null/x", 0));
}

}  // namespace
}  // namespace kiv::fs
