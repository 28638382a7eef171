#include "fs/mount_table.h"

#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <mntent.h>

#include <cstdio>
#include <memory>
#include <string>
#include <vector>

#include "tests/support.h"

namespace kiv::fs {
namespace {

TEST(MountTableLine, SecondFieldIsTheMountPoint) {
  const std::string line = "/dev/vda1 /mnt ext4 rw,relatime 0 0";

  EXPECT_TRUE(HasMountPoint(line, "/mnt"));
  for (const char* other : {"/dev/vda1", "ext4", "rw,relatime", "0", "", "/", "mnt", "/mnt ext4", " /mnt", "/mnt "}) {
    EXPECT_FALSE(HasMountPoint(line, other)) << other;
  }
}

TEST(MountTableLine, BytesAndLengthHaveToBeEqual) {
  const std::string line = "tmpfs /run/user tmpfs rw 0 0";

  for (const char* other : {"/run", "/run/use", "/run/user/", "/run/users", "/run/useR", "/run//user", "/run/./user"}) {
    EXPECT_FALSE(HasMountPoint(line, other)) << other;
  }
  EXPECT_FALSE(HasMountPoint(line, std::string("/run/user\0", 10)));
  EXPECT_TRUE(HasMountPoint("x /\xff\x01 y", "/\xff\x01"));
}

TEST(MountTableLine, EscapesAreNotDecoded) {
  const std::string line = "tmpfs /mnt/a\\040b tmpfs rw 0 0";

  EXPECT_FALSE(HasMountPoint(line, "/mnt/a b"));
  EXPECT_TRUE(HasMountPoint(line, "/mnt/a\\040b"));
}

TEST(MountTableLine, WithoutTwoBlanksHasNone) {
  for (const char* line : {"", "/mnt", "tmpfs /mnt", "tmpfs\t/mnt\ttmpfs", "tmpfs\t/mnt tmpfs"}) {
    EXPECT_FALSE(HasMountPoint(line, "/mnt")) << line;
    EXPECT_FALSE(HasMountPoint(line, "")) << line;
  }
}

TEST(MountTableLine, EveryBlankEndsAField) {
  EXPECT_TRUE(HasMountPoint("a  b", ""));
  EXPECT_FALSE(HasMountPoint("a  b", "b"));
  EXPECT_TRUE(HasMountPoint(" /mnt x", "/mnt"));
  EXPECT_TRUE(HasMountPoint("tmpfs /mnt ", "/mnt"));
  EXPECT_TRUE(HasMountPoint("tmpfs /mnt\tx y", "/mnt\tx"));
}

TEST(IsMounted, RootAndProcAre) {
  EXPECT_TRUE(IsMounted("/"));
  EXPECT_TRUE(IsMounted("/proc"));
}

TEST(IsMounted, PathIsNotNormalised) {
  for (const char* path : {"/proc/", "//proc", "/./proc", "proc", "/proc/self/..", "//", ".", ""}) {
    EXPECT_FALSE(IsMounted(path)) << path;
  }
}

TEST(IsMounted, OrdinaryFolderIsNot) {
  const test::TempFolder folder;

  EXPECT_FALSE(IsMounted(folder.Path()));
  EXPECT_FALSE(IsMounted(folder.Path() + "/missing"));
}

// As the C library's reader of such tables finds them.
std::vector<std::string> MountPoints() {
  const std::unique_ptr<FILE, int (*)(FILE*)> table(::setmntent("/proc/mounts", "r"), ::endmntent);
  std::vector<std::string> points;
  while (const mntent* const entry = ::getmntent(table.get())) {
    points.emplace_back(entry->mnt_dir);
  }
  return points;
}

TEST(IsMounted, EveryMountPointIs) {
  const std::vector<std::string> points = MountPoints();
  ASSERT_FALSE(points.empty());

  for (const std::string& point : points) {
    if (point.find_first_of(" \t\n\\") == std::string::npos) {
      EXPECT_TRUE(IsMounted(point)) << point;
    }
  }
}

TEST(IsMounted, NothingIsWithoutATable) {
  ASSERT_TRUE(IsMounted("/"));
  const test::NoNewDescriptors none;

  EXPECT_FALSE(IsMounted("/"));
}

TEST(IsMounted, NothingStaysOpen) {
  const std::size_t before = test::CountOpenFds();

  (void)IsMounted("/");
  (void)IsMounted("/missing");

  EXPECT_EQ(test::CountOpenFds(), before);
}

}  // namespace
}  // namespace kiv::fs
