#include <fcntl.h>
#include <kiv/fs.h>
#include <sched.h>
#include <sys/mount.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <functional>
#include <sstream>
#include <string>
#include <system_error>
#include <thread>
#include <vector>

#include "tests/child.h"
#include "tests/kernel/namespace.h"
#include "tests/support.h"

namespace kiv::fs {
namespace {

using internal::UniqueFd;
using test::ReadFile;
using test::Shell;
using test::WriteFile;

class CopyKernel : public test::MountTest {};
class CreateDirectoryKernel : public test::MountTest {};
class CreateSymlinkKernel : public test::MountTest {};
class ExistsKernel : public test::MountTest {};
class GetSizeFSKernel : public test::MountTest {};
class GetSizeKernel : public test::MountTest {};
class HasEnoughSpaceKernel : public test::MountTest {};
class IsMountedKernel : public test::MountTest {};
class IsTmpfsFileKernel : public test::MountTest {};
class RemoveDirRecursivelyKernel : public test::MountTest {};

using Operation = std::function<error()>;

std::string Text(error result, int number) { return std::string(to_string(result)) + ", " + std::strerror(number); }

std::string Try(const Operation& operation) {
  errno = 0;
  const error result = operation();
  return Text(result, errno);
}

// What an operation gives in a child without capabilities, which obeys the modes of files.
std::string TryUnprivileged(const Operation& operation) {
  return test::InChild([&] { return test::DropCapabilities() ? Try(operation) : "capabilities are left"; });
}

std::int64_t SizeOf(const std::string& path) {
  std::error_code why;
  const std::uintmax_t size = std::filesystem::file_size(path, why);
  return why ? -1 : static_cast<std::int64_t>(size);
}

// A file of zeros that takes no room.
void MakeSparse(const std::string& path, std::int64_t size) {
  (void)Shell("truncate -s " + std::to_string(size) + " '" + path + "'");
}

bool MakeFolder(const std::string& path, mode_t mode = 0700) { return ::mkdir(path.c_str(), mode) == 0; }

void SetMode(const std::string& path, mode_t mode) { EXPECT_EQ(::chmod(path.c_str(), mode), 0) << path; }

void MakeReadOnly(const std::string& mountPoint) {
  EXPECT_EQ(::mount("none", mountPoint.c_str(), "none", MS_REMOUNT | MS_RDONLY, nullptr), 0) << std::strerror(errno);
}

void BindMount(const std::string& from, const std::string& to) {
  EXPECT_EQ(::mount(from.c_str(), to.c_str(), "none", MS_BIND, nullptr), 0) << std::strerror(errno);
}

void Unmount(const std::string& path) { EXPECT_EQ(::umount2(path.c_str(), 0), 0) << std::strerror(errno); }

long PageSize() { return ::sysconf(_SC_PAGESIZE); }

std::string PagesOption(long pages) { return "size=" + std::to_string(pages * PageSize()); }

bool CountsTo(const std::string& path, int bytes) {
  return HasEnoughSpace(path, bytes) && !HasEnoughSpace(path, bytes + 1);
}

TEST_F(IsMountedKernel, IsTrueUntilItIsUnmounted) {
  const std::string path = At("folder");
  ASSERT_TRUE(MakeFolder(path));
  EXPECT_FALSE(IsMounted(path));

  ASSERT_EQ(::mount("none", path.c_str(), "tmpfs", 0, nullptr), 0);
  EXPECT_TRUE(IsMounted(path));

  Unmount(path);
  EXPECT_FALSE(IsMounted(path));
}

TEST_F(IsMountedKernel, ComparesByteForByte) {
  const std::string path = Mount("tmpfs", "mount");
  ASSERT_TRUE(MakeFolder(At("mount2")));
  const test::WorkingFolder working(At("."));

  EXPECT_TRUE(IsMounted(path));
  for (const std::string& other : {path + '/', path.substr(0, path.size() - 1), At("mount2"), path + "/below",
                                   '/' + path, At("./mount"), std::string("mount"), std::string(), path + ' '}) {
    EXPECT_FALSE(IsMounted(other)) << other;
  }
}

TEST_F(IsMountedKernel, RootIsAndASlashBehindProcMakesADifference) {
  EXPECT_TRUE(IsMounted("/"));
  EXPECT_TRUE(IsMounted("/proc"));
  EXPECT_FALSE(IsMounted("/proc/"));
}

TEST_F(IsMountedKernel, OddNamesAreListedAsTheKernelEscapesThem) {
  const struct {
    const char* name;
    const char* listed;
  } rows[] = {{"a blank", "a\\040blank"},
              {"a\ttab", "a\\011tab"},
              {"a\\backslash", "a\\134backslash"},
              {"a\nnewline", "a\\012newline"},
              {" ", "\\040"}};
  for (const auto& row : rows) {
    (void)Mount("tmpfs", row.name);
    EXPECT_FALSE(IsMounted(At(row.name))) << row.listed;
    EXPECT_TRUE(IsMounted(At(row.listed))) << row.listed;
  }
}

TEST_F(IsMountedKernel, OtherBytesAreListedAsTheyAre) {
  for (const char* name : {"\xc3\xbc-\xff\x01", "a,b", "#hash", "\"quoted\"", "\r"}) {
    EXPECT_TRUE(IsMounted(Mount("tmpfs", name))) << name;
  }
}

TEST_F(IsMountedKernel, TellsOfBindMountsAndOfFilesMountedOver) {
  ASSERT_TRUE(MakeFolder(At("folder")));
  WriteFile(At("file"), "below");
  WriteFile(At("cover"), "above");
  BindMount(At("folder"), At("folder"));
  BindMount(At("cover"), At("file"));

  EXPECT_TRUE(IsMounted(At("folder")));
  EXPECT_TRUE(IsMounted(At("file")));
  EXPECT_FALSE(IsMounted(At("cover")));
}

TEST_F(IsMountedKernel, TellsOfTheCallersNamespace) {
  const std::string path = At("folder");
  ASSERT_TRUE(MakeFolder(path));

  EXPECT_TRUE(test::IsTrueInChild([&path] {
    return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", path.c_str(), "tmpfs", 0, nullptr) == 0 && IsMounted(path);
  }));
  EXPECT_FALSE(IsMounted(path));
}

TEST_F(IsMountedKernel, IsFalseWithoutATable) {
  EXPECT_TRUE(test::IsTrueInChild([] {
    return ::unshare(CLONE_NEWNS) == 0 && IsMounted("/") && ::mount("none", "/proc", "tmpfs", 0, nullptr) == 0 &&
           !IsMounted("/") && !IsMounted("/proc");
  }));
}

TEST_F(IsMountedKernel, LinesWithoutTwoBlanksAreSkipped) {
  const std::string table = "no-blank\nonly /one\n\ntmpfs /first tmpfs rw 0 0\n/cut\nx  y\n" +
                            std::string(100000, 'd') +
                            " /behind-a-long-line tmpfs\ntmpfs\t/tab tmpfs\ntmpfs /with\ttab tmpfs\nlast /unfinished x";

  EXPECT_EQ(test::InChild([&table] {
              if (::unshare(CLONE_NEWNS) != 0 || ::mount("none", "/proc", "tmpfs", 0, nullptr) != 0) {
                return std::string("cannot replace /proc");
              }
              WriteFile("/proc/mounts", table);
              return test::Untrue(
                  {{"first", IsMounted("/first")},
                   {"long", IsMounted("/behind-a-long-line")},
                   {"no newline at the end", IsMounted("/unfinished")},
                   {"empty field", IsMounted("")},
                   {"one blank", !IsMounted("/one")},
                   {"a tab is no blank", IsMounted("/with\ttab") && !IsMounted("/with") && !IsMounted("/tab")},
                   {"root", !IsMounted("/")}});
            }),
            "");
}

TEST_F(IsMountedKernel, LeavesNoDescriptorOpen) {
  const std::size_t before = test::CountOpenFds();

  EXPECT_TRUE(IsMounted("/"));
  EXPECT_FALSE(IsMounted("/missing"));

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(CreateDirectoryKernel, FilesystemWithoutInodesHasNoSpace) {
  const std::string folder = Mount("tmpfs", "full", "size=64m,nr_inodes=2") + "/";

  EXPECT_EQ(CreateDirectory(folder + "first"), success);

  EXPECT_EQ(Try([&] { return CreateDirectory(folder + "second"); }), Text(no_space, ENOSPC));
  EXPECT_FALSE(Exists(folder + "second"));
  EXPECT_EQ(CreateDirectory(folder + "first"), success);
}

TEST_F(CreateDirectoryKernel, ReadOnlyFilesystemIsMkdirFailedButForWhatExists) {
  const std::string folder = Mount("tmpfs", "disk");
  WriteFile(folder + "/file", "");
  MakeReadOnly(folder);

  EXPECT_EQ(Try([&] { return CreateDirectory(folder + "/new"); }), Text(mkdir_failed, EROFS));
  EXPECT_EQ(CreateDirectory(folder), success);
  EXPECT_EQ(CreateDirectory(folder + "/file"), success);
}

TEST_F(CreateDirectoryKernel, FolderThatMayNotBeWrittenIsPermissionDenied) {
  ASSERT_TRUE(MakeFolder(At("closed"), 0500));
  ASSERT_TRUE(MakeFolder(At("blind"), 0600));

  EXPECT_EQ(TryUnprivileged([&] { return CreateDirectory(At("closed/new")); }), Text(permission_denied, EACCES));
  EXPECT_EQ(TryUnprivileged([&] { return CreateDirectory(At("blind/new")); }), Text(permission_denied, EACCES));
}

// Nothing can be made in /proc, and the kernel says it in this way.
TEST_F(CreateDirectoryKernel, ProcHasNoSuchFolder) {
  EXPECT_EQ(Try([] { return CreateDirectory("/proc/new"); }), Text(not_found, ENOENT));
}

TEST_F(CreateDirectoryKernel, MountPointCountsAsSuccess) {
  EXPECT_EQ(CreateDirectory(Mount("tmpfs", "mount")), success);
  EXPECT_EQ(CreateDirectory("/"), success);
}

TEST_F(CreateSymlinkKernel, FilesystemWithoutInodesHasNoSpace) {
  WriteFile(At("target"), "");
  const std::string folder = Mount("tmpfs", "full", "nr_inodes=1");

  EXPECT_EQ(Try([&] { return CreateSymlink(At("target"), folder + "/link"); }), Text(no_space, ENOSPC));
}

TEST_F(CreateSymlinkKernel, ReadOnlyFilesystemIsSymlinkFailed) {
  const std::string folder = Mount("tmpfs", "disk");
  WriteFile(folder + "/target", "");
  MakeReadOnly(folder);

  EXPECT_EQ(Try([&] { return CreateSymlink(folder + "/target", folder + "/link"); }), Text(symlink_failed, EROFS));
}

TEST_F(CreateSymlinkKernel, LeadsToAnotherFilesystem) {
  const std::string folder = Mount("tmpfs", "disk");
  WriteFile(folder + "/target", "content");

  EXPECT_EQ(CreateSymlink(folder + "/target", At("link")), success);
  EXPECT_EQ(std::filesystem::read_symlink(At("link")).string(), folder + "/target");
  EXPECT_EQ(ReadFile(At("link")), "content");
}

TEST_F(CreateSymlinkKernel, FoldersWithoutTheRightArePermissionDenied) {
  WriteFile(At("target"), "");
  ASSERT_TRUE(MakeFolder(At("closed"), 0500));
  ASSERT_TRUE(MakeFolder(At("blind")));
  WriteFile(At("blind/target"), "");
  SetMode(At("blind"), 0600);

  const std::string denied = Text(permission_denied, EACCES);
  EXPECT_EQ(TryUnprivileged([&] { return CreateSymlink(At("target"), At("closed/link")); }), denied);
  EXPECT_EQ(TryUnprivileged([&] { return CreateSymlink(At("target"), At("blind/link")); }), denied);
  EXPECT_EQ(TryUnprivileged([&] { return CreateSymlink(At("blind/target"), At("link")); }), denied);
  EXPECT_FALSE(Exists(At("link")));
}

TEST_F(CreateSymlinkKernel, TargetNeedNotBeReadable) {
  WriteFile(At("target"), "");
  SetMode(At("target"), 0);

  EXPECT_EQ(TryUnprivileged([&] { return CreateSymlink(At("target"), At("link")); }).find("Success"), 0U);
  EXPECT_TRUE(std::filesystem::is_symlink(At("link")));
}

TEST_F(CreateSymlinkKernel, BlockDeviceIsNotARegularFile) {
  if (::mknod(At("device").c_str(), S_IFBLK | 0600, makedev(7, 0)) != 0) {
    GTEST_SKIP() << "this user makes no devices";
  }
  EXPECT_EQ(CreateSymlink(At("device"), At("link")), not_regular_file);
}

TEST_F(HasEnoughSpaceKernel, CountsToTheByte) {
  const std::string folder = Mount("tmpfs", "small", PagesOption(16));
  const int page = static_cast<int>(PageSize());
  EXPECT_TRUE(CountsTo(folder, 16 * page));

  WriteFile(folder + "/file", "x");

  EXPECT_TRUE(CountsTo(folder, 15 * page));
  EXPECT_TRUE(CountsTo(folder + "/file", 15 * page));
  EXPECT_FALSE(HasEnoughSpace(folder, -1));
  EXPECT_FALSE(HasEnoughSpace(folder, INT_MIN));
  EXPECT_FALSE(HasEnoughSpace(folder, INT_MAX));
}

TEST_F(HasEnoughSpaceKernel, FullFilesystemHasRoomForNothingOnly) {
  const std::string folder = Mount("tmpfs", "small", PagesOption(2));
  WriteFile(folder + "/file", std::string(static_cast<std::size_t>(2 * PageSize()), 'x'));

  EXPECT_TRUE(CountsTo(folder, 0));
  EXPECT_EQ(GetSizeFS(folder), 0);
}

TEST_F(HasEnoughSpaceKernel, AsksTheFilesystemThatALinkLeadsTo) {
  const std::string folder = Mount("tmpfs", "small", PagesOption(3));
  ASSERT_EQ(::symlink(folder.c_str(), At("link").c_str()), 0);

  EXPECT_TRUE(CountsTo(At("link"), static_cast<int>(3 * PageSize())));
}

TEST_F(HasEnoughSpaceKernel, IsFalseWhereTheFilesystemCannotBeReached) {
  ASSERT_TRUE(MakeFolder(At("blind")));
  ASSERT_TRUE(MakeFolder(At("blind/below")));
  SetMode(At("blind"), 0600);

  EXPECT_TRUE(test::IsTrueUnprivileged([&] { return !HasEnoughSpace(At("blind/below"), 0) && errno == EACCES; }));
  EXPECT_TRUE(test::IsTrueUnprivileged([&] { return GetSizeFS(At("blind/below")) == -1 && errno == EACCES; }));
  EXPECT_TRUE(test::IsTrueUnprivileged([&] { return HasEnoughSpace(At("blind"), 0); }));
}

struct Wrap {
  const char* size;
  int counted;
};

constexpr Wrap kWraps[] = {{"1g", 1073741824},         {"2147418112", 2147418112}, {"2g", INT_MIN},
                           {"3g", -1073741824},        {"4294901760", -65536},     {"4g", 0},
                           {"4295032832", 65536},      {"5g", 1073741824},         {"6g", INT_MIN},
                           {"17592190238720", 4194304}};  // Its blocks are more than 32 bits count.

// Deliberate: the device has 32-bit sizes, and every build answers as the device does.
TEST_F(HasEnoughSpaceKernel, TwoGigabytesAndMoreWrap) {
  for (const Wrap& row : kWraps) {
    const std::string folder = Mount("tmpfs", row.size, std::string("size=") + row.size);
    EXPECT_EQ(HasEnoughSpace(folder, 0), row.counted >= 0) << row.size;
    EXPECT_EQ(HasEnoughSpace(folder, 1), row.counted >= 1) << row.size;
    EXPECT_EQ(HasEnoughSpace(folder, 65537), row.counted >= 65537) << row.size;
    EXPECT_EQ(HasEnoughSpace(folder, 1073741824), row.counted >= 1073741824) << row.size;
    EXPECT_EQ(HasEnoughSpace(folder, 1073741825), row.counted >= 1073741825) << row.size;
    EXPECT_FALSE(HasEnoughSpace(folder, INT_MAX)) << row.size;
  }
}

TEST_F(GetSizeFSKernel, TwoGigabytesAndMoreWrap) {
  for (const Wrap& row : kWraps) {
    const std::string folder = Mount("tmpfs", row.size, std::string("size=") + row.size);
    EXPECT_EQ(GetSizeFS(folder), row.counted) << row.size;
  }
}

TEST_F(GetSizeFSKernel, CountsTheBlocksReservedForRootAndHasEnoughSpaceDoesNot) {
  if (!NeedLoopDevices() || !NeedFilesystem("ext4")) {
    return;
  }
  const std::string folder = MountExt4("disk", "-m 20");
  std::istringstream numbers(Shell("stat -f -c '%s %f %a' " + folder));
  int blockSize = 0;
  int free = 0;
  int available = 0;
  numbers >> blockSize >> free >> available;
  ASSERT_GT(free, available);

  EXPECT_EQ(GetSizeFS(folder), blockSize * free);
  EXPECT_TRUE(CountsTo(folder, blockSize * available));
}

TEST_F(GetSizeFSKernel, FilesystemWithoutBlocksHasNone) {
  EXPECT_EQ(GetSizeFS("/proc"), 0);
  EXPECT_TRUE(CountsTo("/proc", 0));
}

TEST_F(IsTmpfsFileKernel, WhateverLiesOnATmpfsIs) {
  WriteFile(At("file"), "");
  ASSERT_TRUE(MakeFolder(At("folder")));
  ASSERT_EQ(::mkfifo(At("fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("file", At("link").c_str()), 0);

  for (const char* name : {"", "file", "folder", "fifo", "link"}) {
    EXPECT_TRUE(IsTmpfsFile(At(name))) << name;
  }
  EXPECT_FALSE(IsTmpfsFile(At("missing")));
}

TEST_F(IsTmpfsFileKernel, OtherFilesystemsAreNotAndLinksAreFollowed) {
  ASSERT_EQ(::symlink("/proc/version", At("link").c_str()), 0);
  const std::string ramfs = Mount("ramfs", "ramfs");
  ASSERT_EQ(::symlink(At("").c_str(), (ramfs + "/back").c_str()), 0);

  for (const std::string& path : {std::string("/proc"), std::string("/sys"), At("link"), ramfs}) {
    EXPECT_FALSE(IsTmpfsFile(path)) << path;
  }
  EXPECT_TRUE(IsTmpfsFile(ramfs + "/back"));
}

TEST_F(IsTmpfsFileKernel, Ext4IsNotEvenWhereItsImageLiesOnATmpfs) {
  if (!NeedLoopDevices() || !NeedFilesystem("ext4")) {
    return;
  }
  const std::string folder = MountExt4("disk");

  EXPECT_FALSE(IsTmpfsFile(folder));
  EXPECT_FALSE(IsTmpfsFile(folder + "/lost+found"));
  EXPECT_TRUE(IsTmpfsFile(folder + ".img"));
  Unmount(folder);
  EXPECT_TRUE(IsTmpfsFile(folder));
}

TEST_F(ExistsKernel, NeedsNoRightButToSearchTheWay) {
  WriteFile(At("file"), "");
  SetMode(At("file"), 0);
  ASSERT_TRUE(MakeFolder(At("blind")));
  WriteFile(At("blind/file"), "");
  SetMode(At("blind"), 0600);

  EXPECT_TRUE(test::IsTrueUnprivileged([&] { return Exists(At("file")) && IsRegularFile(At("file")); }));
  EXPECT_TRUE(test::IsTrueUnprivileged([&] { return !Exists(At("blind/file")) && errno == EACCES; }));
  EXPECT_TRUE(test::IsTrueUnprivileged([&] { return !IsRegularFile(At("blind/file")) && errno == EACCES; }));
  EXPECT_TRUE(test::IsTrueUnprivileged([&] { return !IsDirectory(At("blind/.")) && errno == EACCES; }));
  EXPECT_TRUE(test::IsTrueUnprivileged([&] { return !IsTmpfsFile(At("blind/file")) && errno == EACCES; }));
}

// access(2) asks with the rights of the real user, stat(2) with those of the effective one.
TEST_F(ExistsKernel, AsksForTheRealUser) {
  if (!test::IsTrueInChild([] { return ::seteuid(65534) == 0; })) {
    GTEST_SKIP() << "this user cannot become another";
  }
  ASSERT_TRUE(MakeFolder(At("mine")));
  WriteFile(At("mine/file"), "");

  EXPECT_TRUE(test::IsTrueInChild(
      [&] { return ::seteuid(65534) == 0 && Exists(At("mine/file")) && !IsRegularFile(At("mine/file")); }));
}

TEST_F(ExistsKernel, ReadOnlyFilesystemIsNoHindrance) {
  const std::string folder = Mount("tmpfs", "disk");
  WriteFile(folder + "/file", "");
  MakeReadOnly(folder);

  EXPECT_TRUE(Exists(folder + "/file"));
}

// A sparse image of this size on a loop device.
class Disk {
 public:
  Disk(const std::string& image, std::int64_t size) {
    MakeSparse(image, size);
    mPath = Shell("losetup --find --show " + image);
    mPath.resize(mPath.find_last_not_of('\n') + 1);
  }
  Disk(const Disk&) = delete;
  Disk& operator=(const Disk&) = delete;
  ~Disk() { (void)Shell("losetup --detach " + mPath); }

  const std::string& Path() const { return mPath; }

 private:
  std::string mPath;
};

// Deliberate: of a size that 32 bits do not hold, the low ones are told.
TEST_F(GetSizeKernel, BlockDeviceGivesTheLow32Bits) {
  if (!NeedLoopDevices()) {
    return;
  }
  const struct {
    std::int64_t size;
    int counted;
  } rows[] = {{1048576, 1048576}, {3221225472, -1073741824}, {4294967296, 0}, {5368709120, 1073741824}};
  for (const auto& row : rows) {
    const Disk disk(At("image"), row.size);
    ASSERT_EQ(Shell("blockdev --getsize64 " + disk.Path()), std::to_string(row.size) + '\n');
    const UniqueFd fd(::open(disk.Path().c_str(), O_RDONLY | O_CLOEXEC));

    EXPECT_EQ(GetSize(disk.Path()), row.counted);
    EXPECT_EQ(GetSize(fd.Get()), row.counted);
    EXPECT_TRUE(test::IsOpen(fd.Get()));
  }
}

TEST_F(GetSizeKernel, LinkToABlockDeviceIsFollowedAndNothingStaysOpen) {
  if (!NeedLoopDevices()) {
    return;
  }
  const Disk disk(At("image"), 65536);
  ASSERT_EQ(::symlink(disk.Path().c_str(), At("link").c_str()), 0);
  const std::size_t before = test::CountOpenFds();

  EXPECT_EQ(GetSize(At("link")), 65536);

  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(GetSizeKernel, BlockDeviceWithoutADriverIsAFailure) {
  constexpr unsigned int kUnusedMajor = 511;
  if (::mknod(At("device").c_str(), S_IFBLK | 0600, makedev(kUnusedMajor, 0)) != 0) {
    GTEST_SKIP() << "this user makes no devices";
  }
  errno = 0;

  EXPECT_EQ(GetSize(At("device")), -1);
  EXPECT_EQ(errno, ENXIO);
}

TEST_F(GetSizeKernel, OtherTypesHaveNoSize) {
  const UniqueFd folder(::open(At("").c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));

  for (const std::string& path : {std::string("/dev/null"), std::string("/dev/zero"), At(""), std::string("/proc")}) {
    EXPECT_EQ(GetSize(path), -1) << path;
  }
  EXPECT_EQ(GetSize(folder.Get()), -1);
}

TEST_F(GetSizeKernel, FileOfProcHasNoneAndFileOfSysAPage) {
  EXPECT_EQ(GetSize("/proc/version"), 0);
  EXPECT_EQ(GetSize("/sys/class/net/lo/mtu"), PageSize());
}

TEST_F(GetSizeKernel, FileThatMayNotBeReadIsAFailure) {
  WriteFile(At("file"), "content");
  SetMode(At("file"), 0200);

  EXPECT_TRUE(test::IsTrueUnprivileged([&] { return GetSize(At("file")) == -1 && errno == EACCES; }));
  EXPECT_EQ(GetSize(At("file")), 7);
}

std::string Pages(long count) { return std::string(static_cast<std::size_t>(count * PageSize()), 'x'); }

TEST_F(CopyKernel, FullFilesystemIsNoSpaceBeforeTheDestinationIsCreated) {
  const std::string folder = Mount("tmpfs", "small", PagesOption(4));
  WriteFile(At("src"), Pages(3) + "x");
  WriteFile(folder + "/old", "old");

  EXPECT_EQ(Copy(At("src"), folder + "/dst", false), no_space);
  EXPECT_EQ(Copy(At("src"), folder + "/old", false), no_space);

  EXPECT_FALSE(Exists(folder + "/dst"));
  EXPECT_EQ(ReadFile(folder + "/old"), "old");
}

TEST_F(CopyKernel, FillsAFilesystemToTheLastByte) {
  const std::string folder = Mount("tmpfs", "small", PagesOption(4));
  WriteFile(At("src"), Pages(4));
  WriteFile(At("more"), Pages(4) + "x");

  EXPECT_EQ(Copy(At("more"), folder + "/dst", false), no_space);
  EXPECT_EQ(Copy(At("src"), folder + "/dst", false), success);

  EXPECT_TRUE(ReadFile(folder + "/dst") == Pages(4));
  EXPECT_EQ(GetSizeFS(folder), 0);
}

// The space is asked of the link's folder; what it leads to is smaller.
TEST_F(CopyKernel, SpaceThatRunsOutOnTheWayLeavesWhatWasWritten) {
  const std::string folder = Mount("tmpfs", "small", PagesOption(4));
  ASSERT_EQ(::symlink((folder + "/dst").c_str(), At("link").c_str()), 0);
  WriteFile(At("src"), Pages(9));

  EXPECT_EQ(Try([&] { return Copy(At("src"), At("link"), false); }), Text(no_space, ENOSPC));

  EXPECT_TRUE(ReadFile(folder + "/dst") == Pages(4));
}

TEST_F(CopyKernel, FilesystemWithoutInodesIsNoSpaceWhenTheDestinationIsOpened) {
  const std::string folder = Mount("tmpfs", "full", "size=64m,nr_inodes=2");
  WriteFile(folder + "/old", "a longer old content");
  WriteFile(At("src"), "content");

  EXPECT_EQ(Try([&] { return Copy(At("src"), folder + "/dst", false); }), Text(no_space, ENOSPC));
  EXPECT_EQ(Copy(At("src"), folder + "/old", false), success);

  EXPECT_FALSE(Exists(folder + "/dst"));
  EXPECT_EQ(ReadFile(folder + "/old"), "content");
}

TEST_F(CopyKernel, BlocksReservedForRootAreNotUsed) {
  if (!NeedLoopDevices() || !NeedFilesystem("ext4")) {
    return;
  }
  const std::string folder = MountExt4("disk", "-m 40");
  const int free = GetSizeFS(folder);
  MakeSparse(At("src"), free - 65536);
  ASSERT_FALSE(HasEnoughSpace(folder, free - 65536));

  EXPECT_EQ(Copy(At("src"), folder + "/dst", false), no_space);
  EXPECT_FALSE(Exists(folder + "/dst"));
}

TEST_F(CopyKernel, ReadOnlyFilesystemIsDstOpenFailed) {
  const std::string folder = Mount("tmpfs", "disk", "size=64m");
  WriteFile(folder + "/old", "old");
  WriteFile(At("src"), "content");
  MakeReadOnly(folder);

  for (const char* name : {"/dst", "/old"}) {
    EXPECT_EQ(Try([&] { return Copy(At("src"), folder + name, false); }), Text(dst_open_failed, EROFS)) << name;
  }
  EXPECT_EQ(Copy(folder + "/old", At("dst"), false), success);
  EXPECT_EQ(Copy(folder + "/old", folder + "/old", true), success);
}

TEST_F(CopyKernel, FoldersAndFilesWithoutTheRightArePermissionDenied) {
  ASSERT_TRUE(MakeFolder(At("closed")));
  ASSERT_TRUE(MakeFolder(At("blind")));
  for (const char* name : {"src", "secret", "fixed", "blind/file"}) {
    WriteFile(At(name), "content");
  }
  SetMode(At("secret"), 0200);
  SetMode(At("fixed"), 0400);
  SetMode(At("closed"), 0500);
  SetMode(At("blind"), 0600);
  const struct {
    const char* src;
    const char* dst;
  } rows[] = {{"secret", "dst"}, {"blind/file", "dst"}, {"src", "fixed"}, {"src", "closed/dst"}, {"src", "blind/dst"}};

  for (const auto& row : rows) {
    EXPECT_EQ(TryUnprivileged([&] { return Copy(At(row.src), At(row.dst), false); }), Text(permission_denied, EACCES))
        << row.src << ' ' << row.dst;
  }
  EXPECT_EQ(ReadFile(At("fixed")), "content");
  EXPECT_FALSE(Exists(At("dst")));
}

// Deliberate: a folder that cannot be reached cannot be asked for space, and has none then.
TEST_F(CopyKernel, FolderBehindAnUnsearchableOneIsNoSpace) {
  WriteFile(At("src"), "content");
  ASSERT_TRUE(MakeFolder(At("blind")));
  ASSERT_TRUE(MakeFolder(At("blind/below")));
  SetMode(At("blind"), 0600);

  EXPECT_EQ(TryUnprivileged([&] { return Copy(At("src"), At("blind/below/dst"), false); }), Text(no_space, EACCES));
}

TEST_F(CopyKernel, GoesFromOneFilesystemToAnother) {
  if (!NeedLoopDevices() || !NeedFilesystem("ext4")) {
    return;
  }
  const std::string folder = MountExt4("disk");
  for (const std::size_t size : {0U, 1U, 4096U, 12289U, 3U << 20}) {
    std::string content(size, '\0');
    for (std::size_t i = 0; i < size; ++i) {
      content[i] = static_cast<char>(i * 31 + i / 4096);
    }
    WriteFile(At("src"), content);

    EXPECT_EQ(Copy(At("src"), folder + "/middle", true), success) << size;
    EXPECT_EQ(Copy(folder + "/middle", At("dst"), false), success) << size;

    EXPECT_TRUE(ReadFile(At("dst")) == content) << size;
  }
}

TEST_F(CopyKernel, SameFileBehindAnotherMountIsLeftAlone) {
  WriteFile(At("src"), "content");
  ASSERT_TRUE(MakeFolder(At("again")));
  BindMount(At(""), At("again"));
  WriteFile(At("cover"), "");
  BindMount(At("src"), At("cover"));

  EXPECT_EQ(Copy(At("src"), At("again/src"), false), success);
  EXPECT_EQ(Copy(At("cover"), At("src"), false), success);

  EXPECT_EQ(ReadFile(At("src")), "content");
}

// Deliberate: the space comes before the comparison, so that even nothing to do needs room.
TEST_F(CopyKernel, OntoItselfOnAFullFilesystemIsNoSpace) {
  const std::string folder = Mount("tmpfs", "small", PagesOption(4));
  WriteFile(folder + "/file", Pages(3));

  EXPECT_EQ(Copy(folder + "/file", folder + "/file", false), no_space);

  EXPECT_TRUE(ReadFile(folder + "/file") == Pages(3));
}

TEST_F(CopyKernel, DeviceThatTakesEverythingIsASuccess) {
  ASSERT_EQ(::symlink("/dev/null", At("null").c_str()), 0);
  WriteFile(At("src"), Pages(9));

  EXPECT_EQ(Copy(At("src"), At("null"), true), success);

  EXPECT_TRUE(std::filesystem::is_character_file("/dev/null"));
}

// The kernel cannot send into it, and it cannot be cut to start over.
TEST_F(CopyKernel, DeviceThatTakesNothingIsAnIoError) {
  ASSERT_EQ(::symlink("/dev/full", At("full").c_str()), 0);
  WriteFile(At("src"), "content");
  WriteFile(At("empty"), "");

  EXPECT_EQ(Try([&] { return Copy(At("src"), At("full"), false); }), Text(io_error, EINVAL));
  EXPECT_EQ(Copy(At("empty"), At("full"), false), success);
}

TEST_F(CopyKernel, BlockDeviceIsOverwrittenFromItsStart) {
  if (!NeedLoopDevices()) {
    return;
  }
  const Disk disk(At("image"), 65536);
  ASSERT_EQ(::symlink(disk.Path().c_str(), At("device").c_str()), 0);
  WriteFile(At("src"), "content");

  EXPECT_EQ(Copy(At("src"), At("device"), true), success);
  EXPECT_EQ(Copy(At("device"), At("dst"), false), not_regular_file);

  EXPECT_TRUE(ReadFile(At("image")) == "content" + std::string(65529, '\0'));
}

// Its size is that of a page, its content shorter.
TEST_F(CopyKernel, SourceShorterThanItsSizeIsAnIoError) {
  ASSERT_EQ(SizeOf("/sys/class/net/lo/mtu"), PageSize());

  EXPECT_EQ(Copy("/sys/class/net/lo/mtu", At("dst"), false), io_error);

  EXPECT_EQ(ReadFile(At("dst")), ReadFile("/sys/class/net/lo/mtu"));
  EXPECT_GT(SizeOf(At("dst")), 0);
}

// Makes a file of one huge page, all zeros, from which nothing can be sent: it is copied by read and write.
std::string MakeHugePage(const std::string& folder) {
  MakeSparse(folder + "/file", std::stoll(Shell("stat -f -c %s " + folder)));
  return folder + "/file";
}

TEST_F(CopyKernel, SourceThatCannotBeSentIsReadAndWritten) {
  if (!NeedFilesystem("hugetlbfs")) {
    return;
  }
  const std::string src = MakeHugePage(Mount("hugetlbfs", "huge"));
  WriteFile(At("dst"), "old content");

  EXPECT_EQ(Copy(src, At("dst"), false), success);

  EXPECT_TRUE(ReadFile(At("dst")) == std::string(static_cast<std::size_t>(SizeOf(src)), '\0'));
}

TEST_F(CopyKernel, SpaceThatRunsOutWhileWritingLeavesWhatWasWritten) {
  if (!NeedFilesystem("hugetlbfs")) {
    return;
  }
  const std::string src = MakeHugePage(Mount("hugetlbfs", "huge"));
  const std::string folder = Mount("tmpfs", "small", PagesOption(4));
  ASSERT_EQ(::symlink((folder + "/dst").c_str(), At("link").c_str()), 0);

  EXPECT_EQ(Try([&] { return Copy(src, At("link"), false); }), Text(no_space, ENOSPC));

  EXPECT_EQ(SizeOf(folder + "/dst"), 4 * PageSize());
}

// Whether it is sent or written decides what a failure without a name of its own is called.
TEST_F(CopyKernel, LimitOfFileSizeIsSendfileFailedOrAnIoError) {
  if (!NeedFilesystem("hugetlbfs")) {
    return;
  }
  const std::string huge = MakeHugePage(Mount("hugetlbfs", "huge"));
  WriteFile(At("src"), std::string(65536, 'x'));
  const auto limited = [&](const std::string& src) {
    return test::InChild([&] {
      const rlimit limit{8192, 8192};
      (void)std::signal(SIGXFSZ, SIG_IGN);
      (void)::setrlimit(RLIMIT_FSIZE, &limit);
      return Try([&] { return Copy(src, At("dst"), false); });
    });
  };

  EXPECT_EQ(limited(At("src")), Text(sendfile_failed, EFBIG));
  EXPECT_EQ(limited(huge), Text(io_error, EFBIG));
  EXPECT_EQ(SizeOf(At("dst")), 8192);
}

// What this process has written so far, sent bytes included; -1 on a kernel that does not count.
std::int64_t BytesWritten() {
  std::ifstream counters("/proc/self/io");
  std::string name;
  std::int64_t value = -1;
  while (counters >> name >> value) {
    if (name == "wchar:") {
      return value;
    }
  }
  return -1;
}

// The kernel sends less than 2 GiB at once. Deliberate: 4 GiB and a byte ask for the space of one byte.
TEST_F(CopyKernel, SourceAboveFourGigabytesIsSentInPieces) {
  MakeSparse(At("src"), 4294967297);
  ASSERT_EQ(::symlink("/dev/null", At("null").c_str()), 0);
  const std::int64_t before = BytesWritten();

  EXPECT_EQ(Copy(At("src"), At("null"), false), success);

  EXPECT_TRUE(before < 0 || BytesWritten() - before >= 4294967297);
}

TEST_F(CopyKernel, LeavesNoDescriptorOpen) {
  const std::string folder = Mount("tmpfs", "small", PagesOption(1));
  WriteFile(At("src"), Pages(2));
  ASSERT_EQ(::symlink((folder + "/dst").c_str(), At("link").c_str()), 0);
  ASSERT_EQ(::symlink("/dev/full", At("full").c_str()), 0);
  const std::size_t before = test::CountOpenFds();

  for (const char* name : {"dst", "src", "missing/dst", "small/dst", "link", "full", "small"}) {
    (void)Copy(At("src"), At(name), false);
    EXPECT_EQ(test::CountOpenFds(), before) << name;
  }
}

TEST_F(RemoveDirRecursivelyKernel, ReadOnlyFilesystemIsAnIoErrorForEveryType) {
  const std::string folder = Mount("tmpfs", "disk");
  ASSERT_TRUE(MakeFolder(folder + "/empty"));
  ASSERT_TRUE(MakeFolder(folder + "/full"));
  WriteFile(folder + "/full/file", "");
  ASSERT_EQ(::symlink("full", (folder + "/link").c_str()), 0);
  MakeReadOnly(folder);

  for (const char* name : {"/empty", "/full", "/full/file", "/link"}) {
    EXPECT_EQ(Try([&] { return RemoveDirRecursively(folder + name); }), Text(io_error, EROFS)) << name;
  }
  EXPECT_EQ(RemoveDirRecursively(folder + "/missing"), not_found);
  EXPECT_TRUE(Exists(folder + "/full/file"));
}

TEST_F(RemoveDirRecursivelyKernel, UnreadableFolderIsDirOpenFailedAtTheTopAndAnIoErrorBelow) {
  ASSERT_TRUE(MakeFolder(At("top")));
  ASSERT_TRUE(MakeFolder(At("top/secret")));
  WriteFile(At("top/secret/file"), "");
  SetMode(At("top/secret"), 0300);

  EXPECT_EQ(TryUnprivileged([&] { return RemoveDirRecursively(At("top/secret")); }), Text(dir_open_failed, EACCES));
  EXPECT_EQ(TryUnprivileged([&] { return RemoveDirRecursively(At("top")); }), Text(io_error, ENOTEMPTY));
  EXPECT_TRUE(Exists(At("top/secret/file")));
}

// Deliberate: opening comes first, so that even an empty folder has to be readable.
TEST_F(RemoveDirRecursivelyKernel, UnreadableEmptyFolderIsNotRemoved) {
  ASSERT_TRUE(MakeFolder(At("secret"), 0300));

  EXPECT_EQ(TryUnprivileged([&] { return RemoveDirRecursively(At("secret")); }), Text(dir_open_failed, EACCES));
  EXPECT_TRUE(Exists(At("secret")));
}

TEST_F(RemoveDirRecursivelyKernel, UnsearchableFolderIsStatFailedForWhatIsInItAndAnIoErrorForItself) {
  ASSERT_TRUE(MakeFolder(At("blind")));
  WriteFile(At("blind/file"), "");
  SetMode(At("blind"), 0600);

  EXPECT_EQ(TryUnprivileged([&] { return RemoveDirRecursively(At("blind/file")); }), Text(stat_failed, EACCES));
  EXPECT_EQ(TryUnprivileged([&] { return RemoveDirRecursively(At("blind/missing")); }), Text(stat_failed, EACCES));
  EXPECT_EQ(TryUnprivileged([&] { return RemoveDirRecursively(At("blind")); }), Text(io_error, ENOTEMPTY));
  EXPECT_TRUE(Exists(At("blind/file")));
}

TEST_F(RemoveDirRecursivelyKernel, FolderThatMayNotBeWrittenIsPermissionDeniedForWhatIsInIt) {
  ASSERT_TRUE(MakeFolder(At("closed")));
  ASSERT_TRUE(MakeFolder(At("closed/empty")));
  WriteFile(At("closed/file"), "");
  SetMode(At("closed"), 0500);

  for (const char* name : {"closed/file", "closed/empty"}) {
    EXPECT_EQ(TryUnprivileged([&] { return RemoveDirRecursively(At(name)); }), Text(permission_denied, EACCES)) << name;
  }
  EXPECT_EQ(TryUnprivileged([&] { return RemoveDirRecursively(At("closed")); }), Text(io_error, ENOTEMPTY));
  EXPECT_TRUE(Exists(At("closed/file")));
}

TEST_F(RemoveDirRecursivelyKernel, EntriesOfOthersInAStickyFolderArePermissionDenied) {
  ASSERT_TRUE(MakeFolder(At("sticky")));
  ASSERT_TRUE(MakeFolder(At("sticky/empty"), 0777));
  WriteFile(At("sticky/file"), "");
  SetMode(At("sticky/empty"), 0777);
  SetMode(At("sticky"), 01777);
  for (const char* name : {"sticky/empty", "sticky/file", "sticky"}) {
    if (::chown(At(name).c_str(), 65534, 65534) != 0) {
      GTEST_SKIP() << "this user gives nothing away";
    }
  }

  for (const char* name : {"sticky/file", "sticky/empty"}) {
    EXPECT_EQ(TryUnprivileged([&] { return RemoveDirRecursively(At(name)); }), Text(permission_denied, EPERM)) << name;
  }
}

TEST_F(RemoveDirRecursivelyKernel, MountPointIsEmptiedAndStays) {
  ASSERT_TRUE(MakeFolder(At("top")));
  const std::string mounted = Mount("tmpfs", "top/mount");
  WriteFile(mounted + "/file", "");

  EXPECT_EQ(Try([&] { return RemoveDirRecursively(At("top")); }), Text(io_error, ENOTEMPTY));
  EXPECT_EQ(Try([&] { return RemoveDirRecursively(mounted); }), Text(io_error, EBUSY));

  EXPECT_TRUE(IsMounted(mounted));
  EXPECT_FALSE(Exists(mounted + "/file"));
  Unmount(mounted);
  EXPECT_EQ(RemoveDirRecursively(At("top")), success);
}

std::vector<std::string> NamesIn(const std::string& path) {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(path)) {
    names.push_back(entry.path().filename().string());
  }
  return names;
}

TEST_F(RemoveDirRecursivelyKernel, NothingIsRemovedBehindTheFirstFailure) {
  ASSERT_TRUE(MakeFolder(At("top")));
  for (const char* name : {"a", "b", "stop", "c", "d"}) {
    WriteFile(At("top/") + name, "");
  }
  BindMount(At("top/stop"), At("top/stop"));
  std::vector<std::string> left = NamesIn(At("top"));
  left.erase(left.begin(), std::find(left.begin(), left.end(), "stop"));
  ASSERT_GT(left.size(), 1U);

  EXPECT_EQ(RemoveDirRecursively(At("top")), io_error);

  EXPECT_EQ(NamesIn(At("top")), left);
}

TEST_F(RemoveDirRecursivelyKernel, FileMountedOverIsAnIoErrorAndStays) {
  ASSERT_TRUE(MakeFolder(At("top")));
  WriteFile(At("top/file"), "below");
  WriteFile(At("cover"), "above");
  BindMount(At("cover"), At("top/file"));

  EXPECT_EQ(Try([&] { return RemoveDirRecursively(At("top/file")); }), Text(io_error, EBUSY));
  EXPECT_EQ(Try([&] { return RemoveDirRecursively(At("top")); }), Text(io_error, ENOTEMPTY));

  EXPECT_EQ(ReadFile(At("cover")), "above");
}

TEST_F(RemoveDirRecursivelyKernel, LinksAreRemovedAndNotFollowed) {
  const std::string outside = Mount("tmpfs", "outside");
  WriteFile(outside + "/file", "content");
  ASSERT_TRUE(MakeFolder(At("top")));
  for (const char* target : {"../outside", "../outside/file", "/", ".", "..", "missing"}) {
    static int number = 0;
    ASSERT_EQ(::symlink(target, At("top/link" + std::to_string(++number)).c_str()), 0);
  }
  ASSERT_EQ(::symlink("outside", At("direct").c_str()), 0);

  EXPECT_EQ(RemoveDirRecursively(At("direct")), success);
  EXPECT_EQ(RemoveDirRecursively(At("top")), success);

  EXPECT_FALSE(Exists(At("top")));
  EXPECT_EQ(ReadFile(outside + "/file"), "content");
}

TEST_F(RemoveDirRecursivelyKernel, DevicesAreUnlinked) {
  ASSERT_TRUE(MakeFolder(At("top")));
  if (::mknod(At("top/null").c_str(), S_IFCHR | 0600, makedev(1, 3)) != 0) {
    GTEST_SKIP() << "this user makes no devices";
  }
  ASSERT_EQ(::mknod(At("top/loop").c_str(), S_IFBLK | 0600, makedev(7, 0)), 0);
  ASSERT_EQ(::mkfifo(At("top/fifo").c_str(), 0600), 0);

  EXPECT_EQ(RemoveDirRecursively(At("top/null")), success);
  EXPECT_EQ(RemoveDirRecursively(At("top")), success);
}

// The folder is changed while it is read, and is larger than one read of it.
TEST_F(RemoveDirRecursivelyKernel, LargeFoldersOfAJournallingFilesystemAreRemovedWhole) {
  if (!NeedLoopDevices() || !NeedFilesystem("ext4")) {
    return;
  }
  const std::string top = MountExt4("disk", "-N 4096") + "/top";
  ASSERT_TRUE(MakeFolder(top));
  for (int i = 0; i < 1500; ++i) {
    WriteFile(top + "/a name of some length that fills the blocks of the folder " + std::to_string(i), "");
    ASSERT_TRUE(i % 10 != 0 || MakeFolder(top + "/folder" + std::to_string(i)));
  }

  EXPECT_EQ(RemoveDirRecursively(top), success);
  EXPECT_FALSE(Exists(top));
}

TEST_F(RemoveDirRecursivelyKernel, TreeThatAnotherRemovesBesideEndsInEveryCase) {
  const std::size_t before = test::CountOpenFds();
  for (int round = 0; round < 30; ++round) {
    std::filesystem::create_directories(At("top/one"));
    std::filesystem::create_directories(At("top/two"));
    for (int i = 0; i < 20; ++i) {
      WriteFile(At((i % 2 == 0 ? "top/one/" : "top/two/") + std::to_string(i)), "");
    }
    std::atomic<bool> isGo{false};
    std::thread other([&] {
      while (!isGo) {
      }
      std::error_code ignored;
      (void)std::filesystem::remove_all(At("top"), ignored);
    });
    isGo = true;
    const error result = RemoveDirRecursively(At("top"));
    const bool isGone = !Exists(At("top"));
    other.join();

    EXPECT_TRUE(result == io_error || result == not_found || result == dir_open_failed || (result == success && isGone))
        << to_string(result);
    (void)RemoveDirRecursively(At("top"));
    EXPECT_FALSE(Exists(At("top")));
  }
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST_F(RemoveDirRecursivelyKernel, LeavesNoDescriptorOpenWhateverFails) {
  ASSERT_TRUE(MakeFolder(At("top")));
  (void)Mount("tmpfs", "top/mount");
  const std::size_t before = test::CountOpenFds();

  EXPECT_EQ(RemoveDirRecursively(At("top")), io_error);
  EXPECT_EQ(RemoveDirRecursively(At("missing")), not_found);

  EXPECT_EQ(test::CountOpenFds(), before);
}

class ImmutableKernel : public test::MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (!IsReady() || !NeedLoopDevices() || !NeedFilesystem("ext4")) {
      return;
    }
    mDisk = MountExt4("disk");
    ASSERT_TRUE(MakeFolder(mDisk + "/folder") && MakeFolder(mDisk + "/fixed"));
    WriteFile(mDisk + "/folder/file", "content");
    WriteFile(mDisk + "/fixed/file", "content");
    WriteFile(At("src"), "other");
    (void)Shell("chattr +i " + mDisk + "/folder/file " + mDisk + "/fixed");
  }

  std::string mDisk;
};

TEST_F(ImmutableKernel, IsPermissionDeniedEvenForRoot) {
  const std::string denied = Text(permission_denied, EPERM);

  EXPECT_EQ(Try([&] { return RemoveDirRecursively(mDisk + "/folder/file"); }), denied);
  EXPECT_EQ(Try([&] { return RemoveDirRecursively(mDisk + "/fixed/file"); }), denied);
  EXPECT_EQ(Try([&] { return CreateDirectory(mDisk + "/fixed/new"); }), denied);
  EXPECT_EQ(Try([&] { return CreateSymlink(At("src"), mDisk + "/fixed/new"); }), denied);
  EXPECT_EQ(Try([&] { return Copy(At("src"), mDisk + "/folder/file", false); }), denied);
  EXPECT_EQ(ReadFile(mDisk + "/folder/file"), "content");
}

TEST_F(ImmutableKernel, FolderWithSuchAFileIsAnIoError) {
  EXPECT_EQ(Try([&] { return RemoveDirRecursively(mDisk + "/folder"); }), Text(io_error, ENOTEMPTY));
  EXPECT_TRUE(Exists(mDisk + "/folder/file"));
}

TEST_F(ImmutableKernel, FolderItselfIsPermissionDenied) {
  EXPECT_EQ(Try([&] { return RemoveDirRecursively(mDisk + "/fixed"); }), Text(permission_denied, EPERM));
  EXPECT_TRUE(Exists(mDisk + "/fixed/file"));
}

}  // namespace
}  // namespace kiv::fs
