#include <dlfcn.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <sys/prctl.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/statfs.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <filesystem>
#include <string>

#include "tests/child.h"
#include "tests/support.h"

namespace kiv::fs {
namespace {

using internal::UniqueFd;
using test::ModeOf;
using test::ReadFile;
using test::StatusOf;
using test::WriteFile;

// Makes every filesystem have this many bytes free while it lives. What the disk under /tmp has, taken in 32 bits,
// would refuse any copy as often as not.
class FreeSpace {
 public:
  explicit FreeSpace(std::uint32_t bytes) : mBytes(bytes), mOuter(current) { current = this; }
  FreeSpace(const FreeSpace&) = delete;
  FreeSpace& operator=(const FreeSpace&) = delete;
  ~FreeSpace() { current = mOuter; }

  void Answer(const char* path, struct statfs& filesystem) {
    mAsked = path;
    filesystem.f_bsize = 1;
    filesystem.f_bavail = mBytes;
  }

  // The path that was asked for last.
  const std::string& Asked() const { return mAsked; }

  static FreeSpace* current;

 private:
  std::uint32_t mBytes;
  FreeSpace* mOuter;
  std::string mAsked;
};

FreeSpace* FreeSpace::current = nullptr;

}  // namespace
}  // namespace kiv::fs

// The library's calls come here, for they are in this executable.
// NOLINTNEXTLINE(readability-inconsistent-declaration-parameter-name)
extern "C" int statfs(const char* path, struct statfs* filesystem) noexcept {
  const char* const name = sizeof(off_t) > sizeof(long) ? "statfs64" : "statfs";  // The latter has 32-bit counts there.
  static const auto next = reinterpret_cast<int (*)(const char*, struct statfs*)>(::dlsym(RTLD_NEXT, name));
  const int result = next(path, filesystem);
  if (result == 0 && kiv::fs::FreeSpace::current != nullptr) {
    kiv::fs::FreeSpace::current->Answer(path, *filesystem);
  }
  return result;
}

namespace kiv::fs {
namespace {

// A folder to copy in, with room for all that is copied.
class FsCopy : public testing::Test {
 protected:
  std::string Path(const std::string& name) const { return mFolder.Path() + '/' + name; }

  const test::TempFolder mFolder;
  FreeSpace mSpace{1 << 30};
};

// Copies, and checks that nothing stays open.
error CopyAndCount(const std::string& src, const std::string& dst, bool sync = false) {
  const std::size_t before = test::CountOpenFds();
  const error result = Copy(src, dst, sync);
  EXPECT_EQ(test::CountOpenFds(), before);
  return result;
}

// Bytes that differ from block to block.
std::string Pattern(std::size_t size) {
  std::string bytes(size, '\0');
  std::uint32_t state = 1;
  for (char& byte : bytes) {
    state = state * 1664525 + 1013904223;
    byte = static_cast<char>(state >> 24);
  }
  return bytes;
}

// Makes writing fail with EFBIG behind `size` bytes of a file while it lives.
class FileSizeLimit {
 public:
  explicit FileSizeLimit(rlim_t size) : mSavedAction(std::signal(SIGXFSZ, SIG_IGN)) {
    (void)::getrlimit(RLIMIT_FSIZE, &mSaved);
    rlimit limit = mSaved;
    limit.rlim_cur = size;
    (void)::setrlimit(RLIMIT_FSIZE, &limit);
  }
  FileSizeLimit(const FileSizeLimit&) = delete;
  FileSizeLimit& operator=(const FileSizeLimit&) = delete;
  ~FileSizeLimit() {
    (void)::setrlimit(RLIMIT_FSIZE, &mSaved);
    (void)std::signal(SIGXFSZ, mSavedAction);
  }

 private:
  rlimit mSaved{};
  void (*mSavedAction)(int);
};

TEST_F(FsCopy, ContentsAreTheSameAtEverySize) {
  constexpr std::size_t kMega = 1 << 20;
  const std::string pattern = Pattern(2 * kMega + 123);
  for (const std::size_t size : {std::size_t{1}, std::size_t{4095}, std::size_t{4096}, std::size_t{4097},
                                 std::size_t{65537}, kMega - 1, kMega, kMega + 1, pattern.size()}) {
    const std::string content = pattern.substr(pattern.size() - size);
    WriteFile(Path("src"), content);

    for (const bool sync : {false, true}) {
      EXPECT_EQ(CopyAndCount(Path("src"), Path("dst"), sync), success) << size;
      EXPECT_TRUE(ReadFile(Path("dst")) == content) << size;
    }
    EXPECT_TRUE(ReadFile(Path("src")) == content) << size;
  }
}

TEST_F(FsCopy, EmptySourceGivesAnEmptyDestination) {
  WriteFile(Path("src"), "");
  WriteFile(Path("old"), "old content");

  EXPECT_EQ(CopyAndCount(Path("src"), Path("new")), success);
  EXPECT_EQ(CopyAndCount(Path("src"), Path("old")), success);

  EXPECT_EQ(StatusOf(Path("new")).st_size, 0);
  EXPECT_EQ(StatusOf(Path("old")).st_size, 0);
}

// The kernel gives no size for it, so nothing is copied.
TEST_F(FsCopy, ProcFileGivesAnEmptyDestination) {
  WriteFile(Path("dst"), "old content");

  EXPECT_EQ(CopyAndCount("/proc/version", Path("dst")), success);

  EXPECT_EQ(StatusOf(Path("dst")).st_size, 0);
}

TEST_F(FsCopy, HolesAreCopiedAsZeros) {
  WriteFile(Path("src"), "front");
  ASSERT_EQ(::truncate(Path("src").c_str(), 300000), 0);

  EXPECT_EQ(CopyAndCount(Path("src"), Path("dst")), success);

  EXPECT_TRUE(ReadFile(Path("dst")) == "front" + std::string(299995, '\0'));
}

TEST_F(FsCopy, NewDestinationHasMode0644LessTheUmask) {
  const struct {
    mode_t mask;
    mode_t mode;
  } rows[] = {{0, 0644}, {022, 0644}, {027, 0640}, {077, 0600}, {0777, 0}};
  WriteFile(Path("src"), "content");
  ASSERT_EQ(::chmod(Path("src").c_str(), 0755), 0);

  for (const auto& row : rows) {
    const std::string dst = Path(std::to_string(row.mask));
    const test::Umask mask(row.mask);
    EXPECT_EQ(CopyAndCount(Path("src"), dst), success);
    EXPECT_EQ(ModeOf(dst), row.mode) << row.mask;
  }
}

TEST_F(FsCopy, ExistingDestinationKeepsItsModeAndIdentity) {
  WriteFile(Path("src"), "content");
  WriteFile(Path("dst"), "a longer old content");
  ASSERT_EQ(::chmod(Path("dst").c_str(), 0751), 0);
  ASSERT_EQ(::link(Path("dst").c_str(), Path("second-name").c_str()), 0);
  const ino_t inode = StatusOf(Path("dst")).st_ino;

  EXPECT_EQ(CopyAndCount(Path("src"), Path("dst")), success);

  EXPECT_EQ(ModeOf(Path("dst")), 0751U);
  EXPECT_EQ(StatusOf(Path("dst")).st_ino, inode);
  EXPECT_EQ(ReadFile(Path("dst")), "content");
  EXPECT_EQ(ReadFile(Path("second-name")), "content");
}

TEST_F(FsCopy, LinksAreFollowedOnBothSides) {
  WriteFile(Path("src"), "content");
  WriteFile(Path("dst"), "a longer old content");
  ASSERT_EQ(::symlink("src", Path("to-src").c_str()), 0);
  ASSERT_EQ(::symlink("dst", Path("to-dst").c_str()), 0);
  ASSERT_EQ(::symlink("made", Path("dangling").c_str()), 0);

  EXPECT_EQ(CopyAndCount(Path("to-src"), Path("to-dst")), success);
  EXPECT_EQ(CopyAndCount(Path("to-src"), Path("dangling")), success);

  EXPECT_EQ(ReadFile(Path("dst")), "content");
  EXPECT_EQ(ReadFile(Path("made")), "content");
  EXPECT_TRUE(std::filesystem::is_symlink(Path("to-dst")));
}

TEST_F(FsCopy, RelativePathsStartFromTheWorkingDirectory) {
  WriteFile(Path("src"), "content");
  const test::WorkingFolder working(mFolder.Path());

  EXPECT_EQ(CopyAndCount("src", "dst"), success);

  EXPECT_EQ(ReadFile(Path("dst")), "content");
  EXPECT_EQ(mSpace.Asked(), ".");
}

TEST_F(FsCopy, OntoItselfChangesNothing) {
  WriteFile(Path("src"), "content");
  ASSERT_EQ(::link(Path("src").c_str(), Path("hard").c_str()), 0);
  ASSERT_EQ(::symlink("src", Path("soft").c_str()), 0);
  const struct stat before = StatusOf(Path("src"));

  for (const char* name : {"src", ".//src", "hard", "soft"}) {
    EXPECT_EQ(CopyAndCount(Path("src"), Path(name), true), success) << name;
    EXPECT_EQ(CopyAndCount(Path(name), Path("src")), success) << name;
  }

  EXPECT_EQ(ReadFile(Path("src")), "content");
  const struct stat after = StatusOf(Path("src"));
  EXPECT_EQ(after.st_mtim.tv_sec, before.st_mtim.tv_sec);
  EXPECT_EQ(after.st_mtim.tv_nsec, before.st_mtim.tv_nsec);
  EXPECT_EQ(after.st_ctim.tv_nsec, before.st_ctim.tv_nsec);
}

TEST_F(FsCopy, AnotherFileIsReplacedOnAnyFilesystem) {
  const test::TempFolder other("/dev/shm");
  WriteFile(Path("src"), "content");

  for (const std::string& dst : {Path("dst"), other.Path() + "/dst"}) {
    WriteFile(dst, "a longer old content");
    EXPECT_EQ(CopyAndCount(Path("src"), dst), success) << dst;
    EXPECT_EQ(ReadFile(dst), "content") << dst;
  }
}

TEST_F(FsCopy, MissingSourceIsNotFound) {
  ASSERT_EQ(::symlink("missing", Path("dangling").c_str()), 0);
  WriteFile(Path("dst"), "old");

  for (const std::string& src : {Path("missing"), Path("missing/x"), Path("dangling"), std::string()}) {
    EXPECT_EQ(CopyAndCount(src, Path("dst")), not_found) << src;
  }
  EXPECT_EQ(ReadFile(Path("dst")), "old");
}

TEST_F(FsCopy, SourceThatIsNoRegularFileIsRefused) {
  ASSERT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
  // Opening a fifo for reading waits for a writer.
  const UniqueFd writer(::open(Path("fifo").c_str(), O_RDWR | O_CLOEXEC));
  WriteFile(Path("dst"), "old");

  for (const std::string& src : {mFolder.Path(), Path("fifo"), std::string("/dev/null"), std::string("/")}) {
    EXPECT_EQ(CopyAndCount(src, Path("dst")), not_regular_file) << src;
  }
  EXPECT_EQ(ReadFile(Path("dst")), "old");
}

TEST_F(FsCopy, AnyOtherFailureOfTheSourceIsSrcOpenFailed) {
  WriteFile(Path("src"), "content");
  ASSERT_EQ(::symlink("round", Path("round").c_str()), 0);
  const UniqueFd socket = test::UnixSocketAt(Path("socket"));

  for (const std::string& src :
       {Path("src/x"), Path("src/"), Path("round"), Path("socket"), Path(std::string(256, 'x'))}) {
    EXPECT_EQ(CopyAndCount(src, Path("dst")), src_open_failed) << src;
  }
  EXPECT_FALSE(Exists(Path("dst")));
}

TEST_F(FsCopy, SourceWithoutADescriptorIsSrcOpenFailed) {
  WriteFile(Path("src"), "content");
  const test::NoNewDescriptors none;

  EXPECT_EQ(Copy(Path("src"), Path("dst"), false), src_open_failed);
}

TEST_F(FsCopy, SourceThatMayNotBeReadIsPermissionDenied) {
  WriteFile(Path("src"), "content");
  ASSERT_EQ(::chmod(Path("src").c_str(), 0222), 0);
  ASSERT_EQ(::chmod(mFolder.Path().c_str(), 0777), 0);

  EXPECT_EQ(test::WithoutPrivileges([&] { return Copy(Path("src"), Path("dst"), false); }), permission_denied);
  EXPECT_FALSE(Exists(Path("dst")));
}

TEST_F(FsCopy, SpaceIsAskedOfTheDestinationsFolder) {
  const test::TempFolder other;
  WriteFile(Path("src"), "content");
  const std::string dsts[] = {other.Path() + "/dst", other.Path() + "//dst", "/dev/null"};
  const std::string folders[] = {other.Path(), other.Path() + '/', "/dev"};

  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(CopyAndCount(Path("src"), dsts[i]), success);
    EXPECT_EQ(mSpace.Asked(), folders[i]);
  }
}

TEST_F(FsCopy, ExactlyTheSizeOfTheSourceIsEnoughSpace) {
  WriteFile(Path("src"), std::string(1000, 'x'));
  {
    const FreeSpace space(999);
    EXPECT_EQ(CopyAndCount(Path("src"), Path("dst")), no_space);
    EXPECT_FALSE(Exists(Path("dst")));
  }
  const FreeSpace space(1000);

  EXPECT_EQ(CopyAndCount(Path("src"), Path("dst")), success);
}

TEST_F(FsCopy, WithoutSpaceTheDestinationIsLeftAlone) {
  WriteFile(Path("src"), "content");
  WriteFile(Path("dst"), "old");
  const FreeSpace space(0);

  EXPECT_EQ(CopyAndCount(Path("src"), Path("dst")), no_space);

  EXPECT_EQ(ReadFile(Path("dst")), "old");
}

TEST_F(FsCopy, EmptySourceNeedsNoSpace) {
  WriteFile(Path("src"), "");
  const FreeSpace space(0);

  EXPECT_EQ(CopyAndCount(Path("src"), Path("dst")), success);
}

// Deliberate: 3 GiB are a negative number of bytes in 32 bits, less than any size.
TEST_F(FsCopy, SpaceCountsIn32Bits) {
  WriteFile(Path("src"), "");
  const FreeSpace space(3U << 30);

  EXPECT_EQ(CopyAndCount(Path("src"), Path("dst")), no_space);
}

TEST_F(FsCopy, SourceIsLookedAtBeforeTheSpaceAndSpaceBeforeIdentity) {
  WriteFile(Path("src"), "content");
  const FreeSpace space(0);

  EXPECT_EQ(CopyAndCount(Path("missing"), Path("dst")), not_found);
  EXPECT_EQ(CopyAndCount(mFolder.Path(), Path("dst")), not_regular_file);
  EXPECT_EQ(CopyAndCount(Path("src"), Path("src")), no_space);
}

// A folder that is not there has no space.
TEST_F(FsCopy, MissingFolderIsNoSpace) {
  WriteFile(Path("src"), "content");

  EXPECT_EQ(CopyAndCount(Path("src"), Path("missing/dst")), no_space);
}

TEST_F(FsCopy, DestinationThatLeadsNowhereIsNotFound) {
  WriteFile(Path("src"), "content");
  ASSERT_EQ(::symlink("missing/file", Path("dangling").c_str()), 0);

  EXPECT_EQ(CopyAndCount(Path("src"), Path("dangling")), not_found);
  EXPECT_EQ(CopyAndCount(Path("src"), ""), not_found);
}

TEST_F(FsCopy, AnyOtherFailureOfTheDestinationIsDstOpenFailed) {
  WriteFile(Path("src"), "content");
  WriteFile(Path("file"), "old");
  ASSERT_EQ(::mkdir(Path("folder").c_str(), 0700), 0);
  ASSERT_EQ(::symlink("round", Path("round").c_str()), 0);

  for (const std::string& dst : {Path("folder"), Path("folder/"), Path("file/"), Path("file/x"), Path("new/"),
                                 Path("round"), Path(std::string(256, 'x')), std::string("/")}) {
    EXPECT_EQ(CopyAndCount(Path("src"), dst), dst_open_failed) << dst;
  }
  EXPECT_EQ(ReadFile(Path("file")), "old");
}

TEST_F(FsCopy, DestinationWithoutADescriptorIsDstOpenFailed) {
  WriteFile(Path("src"), "content");
  error result = success;
  {
    const test::DescriptorLimit limit(1);
    result = Copy(Path("src"), Path("dst"), false);
  }

  EXPECT_EQ(result, dst_open_failed);
  EXPECT_FALSE(Exists(Path("dst")));
}

TEST_F(FsCopy, DestinationThatMayNotBeWrittenIsPermissionDenied) {
  WriteFile(Path("src"), "content");
  WriteFile(Path("dst"), "old");
  ASSERT_EQ(::chmod(Path("dst").c_str(), 0444), 0);
  ASSERT_EQ(::chmod(mFolder.Path().c_str(), 0555), 0);

  EXPECT_EQ(test::WithoutPrivileges([&] { return Copy(Path("src"), Path("dst"), false); }), permission_denied);
  EXPECT_EQ(test::WithoutPrivileges([&] { return Copy(Path("src"), Path("new"), false); }), permission_denied);

  EXPECT_EQ(ReadFile(Path("dst")), "old");
  ASSERT_EQ(::chmod(mFolder.Path().c_str(), 0700), 0);
}

TEST_F(FsCopy, DestinationNeedNotBeReadable) {
  WriteFile(Path("src"), "content");
  WriteFile(Path("dst"), "old");
  ASSERT_EQ(::chmod(Path("dst").c_str(), 0222), 0);
  ASSERT_EQ(::chmod(Path("src").c_str(), 0444), 0);
  ASSERT_EQ(::chmod(mFolder.Path().c_str(), 0755), 0);

  EXPECT_EQ(test::WithoutPrivileges([&] { return Copy(Path("src"), Path("dst"), false); }), success);

  ASSERT_EQ(::chmod(Path("dst").c_str(), 0444), 0);
  EXPECT_EQ(ReadFile(Path("dst")), "content");
}

TEST_F(FsCopy, DestinationMayBeAFifoOrADevice) {
  WriteFile(Path("src"), "content");
  ASSERT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
  const UniqueFd reader(::open(Path("fifo").c_str(), O_RDWR | O_CLOEXEC | O_NONBLOCK));

  EXPECT_EQ(CopyAndCount(Path("src"), Path("fifo")), success);
  EXPECT_EQ(CopyAndCount(Path("src"), "/dev/null"), success);

  char bytes[16];
  ASSERT_EQ(::read(reader.Get(), bytes, sizeof bytes), 7);
  EXPECT_EQ(std::string(bytes, 7), "content");
}

// The kernel sends nothing into a file of /proc, so this goes by read and write.
TEST_F(FsCopy, DestinationThatTakesNoSendfileIsWritten) {
  char saved[16] = {};
  ASSERT_EQ(::prctl(PR_GET_NAME, saved), 0);
  WriteFile(Path("src"), "copied");

  EXPECT_EQ(CopyAndCount(Path("src"), "/proc/self/comm"), success);

  char name[16] = {};
  EXPECT_EQ(::prctl(PR_GET_NAME, name), 0);
  EXPECT_STREQ(name, "copied");
  EXPECT_EQ(::prctl(PR_SET_NAME, saved), 0);
}

TEST_F(FsCopy, FailedCopyLeavesWhatItHasWritten) {
  const std::string content = Pattern(100000);
  WriteFile(Path("src"), content);
  {
    const FileSizeLimit limit(10000);
    EXPECT_EQ(CopyAndCount(Path("src"), Path("dst")), sendfile_failed);
  }

  EXPECT_TRUE(ReadFile(Path("dst")) == content.substr(0, 10000));
}

// Makes an empty file of this size, which takes no room.
void MakeSparseFile(const std::string& path, std::int64_t size) {
  WriteFile(path, "");
  ASSERT_EQ(::truncate(path.c_str(), size), 0);
}

// Deliberate: the size is a negative number of bytes in 32 bits, and so the space does not count.
TEST_F(FsCopy, SourceBetweenTwoAndFourGigabytesIsNoSpace) {
  const FreeSpace space(INT_MAX);
  for (const std::int64_t size : {2147483648, 3000000000, 4294967295}) {
    MakeSparseFile(Path("src"), size);

    EXPECT_EQ(CopyAndCount(Path("src"), Path("dst")), no_space) << size;
    EXPECT_FALSE(Exists(Path("dst")));
  }
}

// Deliberate: of 4 GiB and 5 bytes, 5 bytes have to be free. All is copied then, here until the limit ends it.
TEST_F(FsCopy, LowBitsOfTheSizeDecideFromFourGigabytes) {
  MakeSparseFile(Path("src"), 4294967301);
  const FileSizeLimit limit(100000);
  const auto copyWithSpace = [&](std::uint32_t bytes) {
    const FreeSpace space(bytes);
    return CopyAndCount(Path("src"), Path("dst"));
  };

  EXPECT_EQ(copyWithSpace(4), no_space);
  EXPECT_FALSE(Exists(Path("dst")));
  EXPECT_EQ(copyWithSpace(5), sendfile_failed);
  EXPECT_EQ(StatusOf(Path("dst")).st_size, 100000);
}

}  // namespace
}  // namespace kiv::fs
