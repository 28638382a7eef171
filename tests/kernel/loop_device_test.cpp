#include <fcntl.h>
#include <kiv/fs.h>
#include <kiv/process.h>
#include <linux/fs.h>
#include <linux/loop.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/ioctl.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstring>
#include <filesystem>
#include <functional>
#include <optional>
#include <ostream>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include "tests/child.h"
#include "tests/kernel/namespace.h"
#include "tests/support.h"

namespace kiv::fs {
namespace {

using internal::UniqueFd;
using test::BecomesTrue;
using test::ReadFile;
using test::Shell;
using test::WriteFile;

constexpr std::size_t kImageSize = 65536;

std::string WithoutNewline(std::string text) {
  text.resize(text.find_last_not_of('\n') + 1);
  return text;
}

// Returns the beginning of a file; empty when it cannot be read, as it happens while a device is being detached.
std::string Head(const std::string& path) {
  const UniqueFd fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  std::string bytes(kImageSize, '\0');
  const ssize_t size = ::read(fd.Get(), bytes.data(), bytes.size());
  bytes.resize(static_cast<std::size_t>(size > 0 ? size : 0));
  return bytes;
}

// The file that a device is attached to, as the kernel tells it; empty when there is none.
std::string BackingFile(const std::string& device) {
  return WithoutNewline(Head("/sys/block/" + Basename(device) + "/loop/backing_file"));
}

// How many devices are attached to a file whose path begins so.
long CountAttached(const std::string& prefix) {
  long count = 0;
  for (const auto& entry : std::filesystem::directory_iterator("/sys/block")) {
    count += BackingFile(entry.path().string()).rfind(prefix, 0) == 0 ? 1 : 0;
  }
  return count;
}

// Attaches, as often as another process takes the free device first. That is the only failure that passes.
LoopDevice Attach(const std::string& file, unsigned int offset = 0) {
  for (int attempt = 0; attempt < 1000; ++attempt) {
    LoopDevice device(file, offset);
    if (device.IsValid() || (errno != EBUSY && errno != EAGAIN && errno != ENXIO)) {
      return device;
    }
  }
  return {file, offset};
}

// An image whose every block of 512 bytes begins with its number and a name.
std::string Image(const std::string& name, std::size_t size = kImageSize) {
  std::string bytes(size, '.');
  for (std::size_t at = 0; at < size; at += 512) {
    const std::string mark = name + ' ' + std::to_string(at / 512) + ';';
    bytes.replace(at, mark.size(), mark);
  }
  return bytes;
}

// The descriptor of this process that is open on a file; -1 when there is none.
int FdOf(const std::string& path) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc/self/fd")) {
    std::error_code gone;
    if (std::filesystem::read_symlink(entry.path(), gone) == path) {
      return std::stoi(entry.path().filename().string());
    }
  }
  return -1;
}

bool IsEmpty(const LoopDevice& device) { return !device.IsValid() && device.GetPath().empty(); }

bool HoldsDevice(const LoopDevice& device, const std::string& image) {
  return device.IsValid() && BackingFile(device.GetPath()) == image;
}

class LoopDeviceKernel : public test::MountTest {
 protected:
  void SetUp() override {
    MountTest::SetUp();
    if (IsReady() && NeedLoopDevices()) {
      WriteFile(At("image"), Image("image"));
      WriteFile(At("other"), Image("other"));
    }
  }

  void TearDown() override {
    if (IsReady()) {
      EXPECT_TRUE(BecomesTrue([this] { return CountAttached(At("")) == 0; })) << Shell("losetup -a");
    }
    MountTest::TearDown();
  }
};

static_assert(!std::is_copy_constructible_v<LoopDevice> && !std::is_copy_assignable_v<LoopDevice>);
static_assert(std::is_nothrow_move_constructible_v<LoopDevice> && std::is_nothrow_move_assignable_v<LoopDevice>);

using LoopDeviceAttach = LoopDeviceKernel;
using LoopDeviceClose = LoopDeviceKernel;
using LoopDeviceFailure = LoopDeviceKernel;
using LoopDeviceMove = LoopDeviceKernel;
using LoopDeviceRace = LoopDeviceKernel;

TEST_F(LoopDeviceAttach, PathIsThatOfTheDeviceThatOtherProgramsSee) {
  const LoopDevice device = Attach(At("image"));

  ASSERT_TRUE(device.IsValid()) << std::strerror(errno);
  const std::string number = device.GetPath().substr(std::string("/dev/loop").size());
  EXPECT_EQ(device.GetPath(), "/dev/loop" + std::to_string(std::stoi(number)));
  EXPECT_EQ(BackingFile(device.GetPath()), At("image"));
  EXPECT_EQ(WithoutNewline(Shell("losetup --associated " + At("image") + " --output NAME --noheadings")),
            device.GetPath());
  EXPECT_NE(Shell("losetup -a").find(device.GetPath() + ": "), std::string::npos);
}

TEST_F(LoopDeviceAttach, DeviceBeginsAtTheOffset) {
  const std::string content = Image("image");
  for (const unsigned int offset : {0U, 512U, 4096U, 65024U}) {
    const LoopDevice device = Attach(At("image"), offset);

    ASSERT_TRUE(device.IsValid()) << offset;
    EXPECT_TRUE(Head(device.GetPath()) == content.substr(offset)) << offset;
    EXPECT_EQ(Shell("blockdev --getsize64 " + device.GetPath()), std::to_string(kImageSize - offset) + '\n');
    EXPECT_EQ(Shell("cat /sys/block/" + Basename(device.GetPath()) + "/loop/offset"), std::to_string(offset) + '\n');
  }
}

// There is nothing to read then; the offset reaches the kernel all the same.
TEST_F(LoopDeviceAttach, DeviceBehindTheEndIsEmpty) {
  for (const unsigned int offset : {65536U, 131072U}) {
    const LoopDevice device = Attach(At("image"), offset);

    ASSERT_TRUE(device.IsValid()) << offset;
    EXPECT_EQ(GetSize(device.GetPath()), 0) << offset;
    EXPECT_EQ(Head(device.GetPath()), "") << offset;
  }
}

// The kernel decides whether it takes it; either way nothing is half done.
TEST_F(LoopDeviceAttach, OffsetWithinABlockIsTakenOrRefused) {
  for (const unsigned int offset : {1U, 511U, 513U}) {
    const LoopDevice device = Attach(At("image"), offset);
    EXPECT_TRUE(IsEmpty(device) || HoldsDevice(device, At("image"))) << offset;
    EXPECT_EQ(CountAttached(At("image")), device.IsValid() ? 1 : 0) << offset;
  }
}

loop_info64 StatusOf(const LoopDevice& device) {
  const UniqueFd fd(::open(device.GetPath().c_str(), O_RDONLY | O_CLOEXEC));
  loop_info64 info{};
  info.lo_flags = ~0U;
  EXPECT_EQ(::ioctl(fd.Get(), LOOP_GET_STATUS64, &info), 0) << std::strerror(errno);
  return info;
}

TEST_F(LoopDeviceAttach, NothingButTheOffsetIsSet) {
  const LoopDevice device = Attach(At("image"), 1024);
  struct stat image {};
  ASSERT_EQ(::stat(At("image").c_str(), &image), 0);

  const loop_info64 info = StatusOf(device);

  EXPECT_EQ(info.lo_offset, 1024U);
  EXPECT_EQ(info.lo_flags, 0U);
  EXPECT_EQ(info.lo_sizelimit, 0U);
  EXPECT_EQ(info.lo_encrypt_key_size, 0U);
  EXPECT_EQ(info.lo_file_name[0], 0);
  EXPECT_EQ(info.lo_crypt_name[0], 0);
  EXPECT_EQ(info.lo_inode, image.st_ino);
}

TEST_F(LoopDeviceAttach, OffsetIsUnsigned) {
  for (const unsigned int offset : {0x7ffffe00U, 0x80000000U, 0xfffffe00U}) {
    const LoopDevice device = Attach(At("image"), offset);

    ASSERT_TRUE(device.IsValid()) << offset;
    EXPECT_EQ(StatusOf(device).lo_offset, offset);
  }
}

TEST_F(LoopDeviceAttach, DeviceMayBeginBehindTwoGigabytes) {
  const UniqueFd large(::open(At("large").c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600));
  ASSERT_EQ(::ftruncate(large.Get(), 3221225472), 0);
  ASSERT_EQ(::pwrite(large.Get(), "mark", 4, 2147483648), 4);
  const LoopDevice device = Attach(At("large"), 2147483648U);

  const UniqueFd fd(::open(device.GetPath().c_str(), O_RDONLY | O_CLOEXEC));
  char bytes[4] = {};
  EXPECT_EQ(::read(fd.Get(), bytes, sizeof bytes), 4);
  EXPECT_EQ(std::string(bytes, 4), "mark");
  EXPECT_EQ(GetSize(device.GetPath()), 1073741824);
}

TEST_F(LoopDeviceAttach, WhatIsWrittenReachesTheFileBehindTheOffset) {
  {
    const LoopDevice device = Attach(At("image"), 4096);
    const UniqueFd fd(::open(device.GetPath().c_str(), O_WRONLY | O_CLOEXEC));
    ASSERT_EQ(::pwrite(fd.Get(), "written", 7, 512), 7);
    ASSERT_EQ(::fsync(fd.Get()), 0);
  }

  EXPECT_TRUE(ReadFile(At("image")) == Image("image").replace(4608, 7, "written"));
}

TEST_F(LoopDeviceAttach, EveryObjectHasADeviceOfItsOwn) {
  const LoopDevice first = Attach(At("image"));
  const LoopDevice second = Attach(At("other"));
  const LoopDevice third = Attach(At("image"), 512);

  EXPECT_TRUE(HoldsDevice(first, At("image")) && HoldsDevice(second, At("other")) && HoldsDevice(third, At("image")));
  EXPECT_NE(first.GetPath(), second.GetPath());
  EXPECT_NE(first.GetPath(), third.GetPath());
  EXPECT_NE(second.GetPath(), third.GetPath());
  EXPECT_EQ(CountAttached(At("")), 3);
}

TEST_F(LoopDeviceAttach, FileMayBeAnotherBlockDevice) {
  const LoopDevice lower = Attach(At("image"), 512);
  const LoopDevice upper = Attach(lower.GetPath(), 1024);

  ASSERT_TRUE(upper.IsValid()) << std::strerror(errno);
  EXPECT_TRUE(Head(upper.GetPath()) == Image("image").substr(1536));
}

TEST_F(LoopDeviceAttach, RelativePathsAndLinksAreFollowed) {
  ASSERT_EQ(::symlink("image", At("link").c_str()), 0);
  const test::WorkingFolder working(At(""));

  EXPECT_TRUE(HoldsDevice(Attach("image"), At("image")));
  EXPECT_TRUE(HoldsDevice(Attach("link"), At("image")));
}

// The kernel keeps the file, so that only the device stays open here.
TEST_F(LoopDeviceAttach, OneDescriptorStaysOpenForReadingAndWriting) {
  const std::size_t before = test::CountOpenFds();
  {
    const LoopDevice device = Attach(At("image"));

    EXPECT_EQ(test::CountOpenFds(), before + 1);
    EXPECT_EQ(::fcntl(FdOf(device.GetPath()), F_GETFL) & O_ACCMODE, O_RDWR);
    EXPECT_EQ(FdOf(At("image")), -1);
    EXPECT_EQ(FdOf("/dev/loop-control"), -1);
  }
  EXPECT_EQ(test::CountOpenFds(), before);
}

// Deliberate: a program that is started by other means than those of kiv::process holds the device on.
TEST_F(LoopDeviceAttach, DescriptorIsNotCloseOnExec) {
  const LoopDevice device = Attach(At("image"));
  ASSERT_TRUE(device.IsValid());

  EXPECT_EQ(::fcntl(FdOf(device.GetPath()), F_GETFD), 0);
  EXPECT_NE(Shell("ls -l /proc/self/fd").find(device.GetPath()), std::string::npos);
}

TEST_F(LoopDeviceAttach, ProgramsOfExecWaitDoNotHoldTheDevice) {
  const LoopDevice device = Attach(At("image"));
  ASSERT_TRUE(device.IsValid());

  const process::ExecResult result =
      process::ExecWait("ls", {"-l", "/proc/self/fd"}, At("listing"), At("listing-errors"));

  EXPECT_EQ(result.exitCode, 0) << ReadFile(At("listing-errors"));
  EXPECT_NE(ReadFile(At("listing")).find(At("listing-errors")), std::string::npos);
  EXPECT_EQ(ReadFile(At("listing")).find("/dev/loop"), std::string::npos);
}

// Makes an image with an ext4 that begins at a mebibyte and holds the file "hello".
void MakeDisk(const std::string& path) {
  (void)Shell("mkdir " + path + ".content && printf 'from the image' >" + path + ".content/hello && truncate -s 9M " +
              path + " && mkfs.ext4 -q -F -E offset=1048576 -d " + path + ".content " + path + " 8M");
}

bool MountDevice(const LoopDevice& device, const std::string& folder, const char* type = "ext4",
                 unsigned long flags = 0) {
  return (::mkdir(folder.c_str(), 0700) == 0 || errno == EEXIST) &&
         ::mount(device.GetPath().c_str(), folder.c_str(), type, flags, nullptr) == 0;
}

TEST_F(LoopDeviceAttach, FilesystemAtAnOffsetCanBeMountedAndWritten) {
  if (!NeedFilesystem("ext4")) {
    return;
  }
  MakeDisk(At("disk"));
  for (const char* content : {"from the image", "written through the mount"}) {
    const LoopDevice device = Attach(At("disk"), 1048576);
    ASSERT_TRUE(MountDevice(device, At("mnt"))) << std::strerror(errno);

    EXPECT_EQ(ReadFile(At("mnt/hello")), content);
    WriteFile(At("mnt/hello"), "written through the mount");
    EXPECT_EQ(::umount2(At("mnt").c_str(), 0), 0);
  }
}

struct Filesystem {
  const char* type;
  const char* maker;
  const char* options;
};

void PrintTo(const Filesystem& filesystem, std::ostream* out) { *out << filesystem.type; }

class LoopDeviceFilesystem : public LoopDeviceKernel, public testing::WithParamInterface<Filesystem> {};

TEST_P(LoopDeviceFilesystem, MadeThroughTheDeviceIsFoundAgainAtTheOffset) {
  constexpr unsigned int kOffset = 1048576;
  const auto [type, maker, options] = GetParam();
  if (!NeedFilesystem(type) || !NeedProgram(maker)) {
    return;
  }
  const std::string before(kOffset, 'x');
  const std::string content = Image("content", 1000000);
  WriteFile(At("disk"), before);
  ASSERT_EQ(::truncate(At("disk").c_str(), 9 * kOffset), 0);
  {
    const LoopDevice device = Attach(At("disk"), kOffset);
    (void)Shell(std::string(maker) + ' ' + options + ' ' + device.GetPath());
    ASSERT_TRUE(MountDevice(device, At("mnt"), type)) << std::strerror(errno);
    WriteFile(At("mnt/file"), content);
    ASSERT_EQ(::umount2(At("mnt").c_str(), 0), 0) << std::strerror(errno);
  }
  const LoopDevice device = Attach(At("disk"), kOffset);
  ASSERT_TRUE(MountDevice(device, At("mnt"), type)) << std::strerror(errno);

  EXPECT_TRUE(ReadFile(At("mnt/file")) == content);
  EXPECT_EQ(::umount2(At("mnt").c_str(), 0), 0);
  EXPECT_TRUE(ReadFile(At("disk")).compare(0, kOffset, before) == 0);
}

INSTANTIATE_TEST_SUITE_P(Kinds, LoopDeviceFilesystem,
                         testing::Values(Filesystem{"ext4", "mkfs.ext4", "-q"}, Filesystem{"ext2", "mkfs.ext2", "-q"},
                                         Filesystem{"vfat", "mkfs.vfat", ""}),
                         [](const auto& tested) { return std::string(tested.param.type); });

TEST_F(LoopDeviceAttach, ReadOnlyFilesystemAtAnOffsetCanBeMounted) {
  if (!NeedFilesystem("squashfs") || !NeedProgram("mksquashfs")) {
    return;
  }
  ASSERT_EQ(::mkdir(At("content").c_str(), 0755), 0);
  WriteFile(At("content/file"), Image("packed"));
  (void)Shell("mksquashfs " + At("content") + ' ' + At("packed") + " -quiet -no-progress");
  WriteFile(At("disk"), std::string(4096, 'x') + ReadFile(At("packed")));

  const LoopDevice device = Attach(At("disk"), 4096);

  ASSERT_TRUE(MountDevice(device, At("mnt"), "squashfs", MS_RDONLY)) << std::strerror(errno);
  EXPECT_TRUE(ReadFile(At("mnt/file")) == Image("packed"));
  EXPECT_EQ(::umount2(At("mnt").c_str(), 0), 0);
}

TEST_F(LoopDeviceAttach, FilesystemIsNotFoundAtAnotherOffset) {
  if (!NeedFilesystem("ext4")) {
    return;
  }
  MakeDisk(At("disk"));
  const LoopDevice device = Attach(At("disk"));

  EXPECT_FALSE(MountDevice(device, At("mnt")));
}

TEST_F(LoopDeviceClose, MountedDeviceIsDetachedWhenItIsUnmounted) {
  if (!NeedFilesystem("ext4")) {
    return;
  }
  MakeDisk(At("disk"));
  LoopDevice device = Attach(At("disk"), 1048576);
  const std::string path = device.GetPath();
  ASSERT_TRUE(MountDevice(device, At("mnt"))) << std::strerror(errno);

  device.Close();

  EXPECT_TRUE(IsEmpty(device));
  EXPECT_EQ(BackingFile(path), At("disk"));
  EXPECT_EQ(ReadFile(At("mnt/hello")), "from the image");
  ASSERT_EQ(::umount2(At("mnt").c_str(), 0), 0);
  EXPECT_TRUE(BecomesTrue([&] { return CountAttached(At("disk")) == 0; }));
}

// The end of the process closes the descriptor and runs no destructor.
TEST_F(LoopDeviceAttach, OutlivesAProcessThatIsKilled) {
  test::OtherProcess holder([this] {
    static const LoopDevice kept(At("image"), 0);
    WriteFile(At("path"), kept.GetPath());
  });
  (void)holder.End(SIGKILL);
  const std::string path = ReadFile(At("path"));

  EXPECT_EQ(BackingFile(path), At("image"));
  (void)Shell("losetup -d " + path);
}

TEST_F(LoopDeviceClose, DetachesAndLeavesTheObjectEmpty) {
  const std::size_t before = test::CountOpenFds();
  LoopDevice device = Attach(At("image"));
  ASSERT_EQ(CountAttached(At("image")), 1);

  device.Close();

  EXPECT_TRUE(IsEmpty(device));
  EXPECT_EQ(test::CountOpenFds(), before);
  EXPECT_TRUE(BecomesTrue([this] { return CountAttached(At("image")) == 0; }));
}

// The second one would hit a descriptor that has the same number by now.
TEST_F(LoopDeviceClose, SecondTimeDoesNothing) {
  LoopDevice device = Attach(At("image"));
  device.Close();
  const LoopDevice next = Attach(At("other"));

  device.Close();

  EXPECT_TRUE(IsEmpty(device));
  EXPECT_TRUE(HoldsDevice(next, At("other")));
  EXPECT_TRUE(test::IsOpen(FdOf(next.GetPath())));
}

TEST_F(LoopDeviceClose, DestructorDetaches) {
  {
    const LoopDevice device = Attach(At("image"));
    ASSERT_EQ(CountAttached(At("image")), 1);
  }
  EXPECT_TRUE(BecomesTrue([this] { return CountAttached(At("image")) == 0; }));
}

TEST_F(LoopDeviceClose, DeviceThatAnotherHoldsOpenIsDetachedAfterIt) {
  LoopDevice device = Attach(At("image"));
  UniqueFd holder(::open(device.GetPath().c_str(), O_RDONLY | O_CLOEXEC));
  ASSERT_TRUE(holder.IsValid());

  device.Close();

  EXPECT_TRUE(IsEmpty(device));
  EXPECT_EQ(CountAttached(At("image")), 1);
  holder.Reset();
  EXPECT_TRUE(BecomesTrue([this] { return CountAttached(At("image")) == 0; }));
}

TEST_F(LoopDeviceClose, DeviceThatAnotherProgramDetachesIsClosedAllTheSame) {
  LoopDevice device = Attach(At("image"));
  (void)Shell("losetup --detach " + device.GetPath());

  device.Close();

  EXPECT_TRUE(IsEmpty(device));
  EXPECT_TRUE(BecomesTrue([this] { return CountAttached(At("image")) == 0; }));
}

TEST_F(LoopDeviceClose, DeviceCanBeAttachedAgainAtOnce) {
  for (int round = 0; round < 20; ++round) {
    LoopDevice device = Attach(At(round % 2 == 0 ? "image" : "other"));
    ASSERT_TRUE(device.IsValid()) << round;
    EXPECT_TRUE(Head(device.GetPath()) == Image(round % 2 == 0 ? "image" : "other")) << round;
    device.Close();
  }
}

TEST_F(LoopDeviceMove, ConstructionKeepsTheAttachment) {
  LoopDevice source = Attach(At("image"));
  const std::string path = source.GetPath();
  const int fd = FdOf(path);

  const LoopDevice target(std::move(source));

  EXPECT_TRUE(IsEmpty(source));  // NOLINT(bugprone-use-after-move): empty is what it has to be.
  EXPECT_EQ(target.GetPath(), path);
  EXPECT_TRUE(HoldsDevice(target, At("image")));
  EXPECT_EQ(FdOf(path), fd);
}

TEST_F(LoopDeviceMove, MovedFromObjectDetachesNothing) {
  std::optional<LoopDevice> source(Attach(At("image")));
  const LoopDevice target(std::move(*source));

  source->Close();
  source.reset();

  EXPECT_TRUE(HoldsDevice(target, At("image")));
  EXPECT_TRUE(Head(target.GetPath()) == Image("image"));
}

TEST_F(LoopDeviceMove, AssignmentDetachesItsOwnAndTakesTheOther) {
  const std::size_t before = test::CountOpenFds();
  LoopDevice source = Attach(At("image"));
  LoopDevice target = Attach(At("other"));
  const std::string path = source.GetPath();

  target = std::move(source);

  EXPECT_TRUE(IsEmpty(source));  // NOLINT(bugprone-use-after-move): empty is what it has to be.
  EXPECT_EQ(target.GetPath(), path);
  EXPECT_TRUE(HoldsDevice(target, At("image")));
  EXPECT_EQ(test::CountOpenFds(), before + 1);
  EXPECT_TRUE(BecomesTrue([this] { return CountAttached(At("other")) == 0; }));
}

TEST_F(LoopDeviceMove, AssignmentFromAnEmptyOneDetaches) {
  LoopDevice empty(At("missing"), 0);
  LoopDevice target = Attach(At("image"));

  target = std::move(empty);

  EXPECT_TRUE(IsEmpty(target));
  EXPECT_TRUE(IsEmpty(empty));  // NOLINT(bugprone-use-after-move): empty is what it has to be.
  EXPECT_TRUE(BecomesTrue([this] { return CountAttached(At("image")) == 0; }));
}

TEST_F(LoopDeviceMove, AssignmentToAnEmptyOneTakesTheAttachment) {
  LoopDevice target(At("missing"), 0);

  target = Attach(At("image"));

  EXPECT_TRUE(HoldsDevice(target, At("image")));
}

TEST_F(LoopDeviceMove, AssignmentToItselfChangesNothing) {
  LoopDevice device = Attach(At("image"));
  const std::string path = device.GetPath();
  LoopDevice& same = device;

  device = std::move(same);

  EXPECT_EQ(device.GetPath(), path);
  EXPECT_TRUE(HoldsDevice(device, At("image")));
}

// Why attaching fails; empty when it does not. Nothing stays open or attached.
std::string Refusal(const std::string& file, const std::string& folder) {
  const std::size_t before = test::CountOpenFds();
  errno = 0;
  const LoopDevice device = Attach(file);
  const int why = errno;
  EXPECT_EQ(test::CountOpenFds(), before + (device.IsValid() ? 1 : 0));
  EXPECT_EQ(CountAttached(folder), device.IsValid() ? 1 : 0);
  return IsEmpty(device) ? std::strerror(why) : "";
}

TEST_F(LoopDeviceFailure, FileThatCannotBeOpenedForReadingAndWriting) {
  ASSERT_EQ(::mkdir(At("folder").c_str(), 0700), 0);
  const std::string disk = Mount("tmpfs", "read-only");
  WriteFile(disk + "/image", Image("image"));
  ASSERT_EQ(::mount("none", disk.c_str(), "none", MS_REMOUNT | MS_RDONLY, nullptr), 0);
  const std::pair<std::string, int> rows[] = {{At("missing"), ENOENT},
                                              {"", ENOENT},
                                              {At("image/x"), ENOTDIR},
                                              {At("folder"), EISDIR},
                                              {disk + "/image", EROFS}};
  for (const auto& [file, number] : rows) {
    EXPECT_EQ(Refusal(file, At("")), std::strerror(number)) << file;
  }
}

TEST_F(LoopDeviceFailure, FileThatMayNotBeWritten) {
  ASSERT_EQ(::chmod(At("image").c_str(), 0400), 0);
  EXPECT_EQ(test::InChild(
                [this] { return test::DropCapabilities() ? Refusal(At("image"), At("")) : "capabilities are left"; }),
            std::strerror(EACCES));
}

// They can be opened; the device does not take them.
TEST_F(LoopDeviceFailure, FileThatIsNeitherRegularNorABlockDevice) {
  const test::Fifo fifo(At("fifo"));

  for (const std::string& file : {fifo.Path(), std::string("/dev/null")}) {
    EXPECT_EQ(Refusal(file, At("")), std::strerror(EINVAL)) << file;
  }
}

// The device that a failed construction had chosen is there for the next one.
TEST_F(LoopDeviceFailure, IsNotInTheWayOfTheNext) {
  EXPECT_EQ(Refusal("/dev/null", At("")), std::strerror(EINVAL));

  EXPECT_TRUE(HoldsDevice(Attach(At("image")), At("image")));
}

TEST_F(LoopDeviceFailure, WithoutDescriptors) {
  const std::size_t before = test::CountOpenFds();
  std::optional<LoopDevice> device;
  {
    const test::NoNewDescriptors none;
    device.emplace(At("image"), 0);
    EXPECT_EQ(errno, EMFILE);
  }

  EXPECT_TRUE(IsEmpty(*device));
  EXPECT_EQ(test::CountOpenFds(), before);
  device->Close();
}

// Puts an empty folder in place of /dev, for this process alone.
bool HideDev() { return ::unshare(CLONE_NEWNS) == 0 && ::mount("none", "/dev", "tmpfs", 0, "size=64k") == 0; }

TEST_F(LoopDeviceFailure, WithoutAControlDeviceNothingElseIsOpened) {
  EXPECT_EQ(test::InChild([this] {
              const UniqueFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
              if (::inotify_add_watch(watch.Get(), At("image").c_str(), IN_OPEN) < 0 || !HideDev()) {
                return std::string("cannot hide /dev");
              }
              const std::size_t before = test::CountOpenFds();
              const LoopDevice device(At("image"), 0);
              const int why = errno;
              return test::Untrue({{"empty", IsEmpty(device)},
                                   {"errno", why == ENOENT},
                                   {"descriptors", test::CountOpenFds() == before},
                                   {"image is not opened", !test::IsReadable(watch.Get())}});
            }),
            "");
}

TEST_F(LoopDeviceFailure, WithoutTheNodeOfTheFreeDevice) {
  WriteFile(At("control"), "");
  ASSERT_EQ(::mount("/dev/loop-control", At("control").c_str(), "none", MS_BIND, nullptr), 0);
  EXPECT_EQ(test::InChild([this] {
              if (!HideDev()) {
                return std::string("cannot hide /dev");
              }
              WriteFile("/dev/loop-control", "");
              if (::mount(At("control").c_str(), "/dev/loop-control", "none", MS_BIND, nullptr) != 0) {
                return std::string("cannot show /dev/loop-control");
              }
              return Refusal(At("image"), At(""));
            }),
            std::strerror(ENOENT));
}

// A control device that offers nothing: any file will do.
TEST_F(LoopDeviceFailure, WithoutAFreeDeviceTheFileIsNotOpened) {
  EXPECT_EQ(test::InChild([this] {
              const UniqueFd watch(::inotify_init1(IN_CLOEXEC | IN_NONBLOCK));
              if (::inotify_add_watch(watch.Get(), At("image").c_str(), IN_OPEN) < 0 || !HideDev()) {
                return std::string("cannot hide /dev");
              }
              WriteFile("/dev/loop-control", "");
              const std::string why = Refusal(At("image"), At(""));
              return test::IsReadable(watch.Get()) ? "image is opened" : why;
            }),
            std::strerror(ENOTTY));
}

constexpr int kRounds = 40;

// A detaching by another process would wait for this one, but leave its trace.
bool IsToBeDetached(const std::string& device) {
  return Head("/sys/block/" + Basename(device) + "/loop/autoclear") != "0\n";
}

// Attaches again and again; what it reads while it holds a device must be its own. A failure to attach is allowed.
bool KeepsToItsOwn(const std::string& image, const std::string& content) {
  int attached = 0;
  for (int round = 0; round < kRounds || attached == 0; ++round) {
    LoopDevice device(image, 0);
    if (!device.IsValid()) {
      continue;
    }
    ++attached;
    for (int look = 0; look < 3; ++look) {
      if (BackingFile(device.GetPath()) != image || Head(device.GetPath()) != content ||
          IsToBeDetached(device.GetPath())) {
        return false;
      }
      (void)::sched_yield();
    }
  }
  return true;
}

// Runs that many processes at once and returns how many of them saw only what was theirs.
int CountUnharmed(int processes, const std::function<std::string(int)>& image) {
  int gate[2] = {-1, -1};
  EXPECT_EQ(::pipe2(gate, O_CLOEXEC), 0);
  std::vector<pid_t> children;
  for (int i = 0; i < processes; ++i) {
    const std::string content = Image("process" + std::to_string(i), 8192);
    WriteFile(image(i), content);
    children.push_back(::fork());
    if (children.back() == 0) {
      (void)::alarm(100);
      (void)::close(gate[1]);
      char none = 0;
      ::_exit(::read(gate[0], &none, 1) == 0 && KeepsToItsOwn(image(i), content) ? 0 : 1);
    }
  }
  (void)::close(gate[0]);
  (void)::close(gate[1]);
  return static_cast<int>(std::count_if(children.begin(), children.end(), [](pid_t child) {
    int status = -1;
    return ::waitpid(child, &status, 0) == child && status == 0;
  }));
}

TEST_F(LoopDeviceRace, TwoProcessesNeverHarmEachOther) {
  EXPECT_EQ(CountUnharmed(2, [this](int i) { return At("own" + std::to_string(i) + ".img"); }), 2);
}

TEST_F(LoopDeviceRace, TenProcessesNeverHarmEachOther) {
  EXPECT_EQ(CountUnharmed(10, [this](int i) { return At("own" + std::to_string(i) + ".img"); }), 10);
}

}  // namespace
}  // namespace kiv::fs
