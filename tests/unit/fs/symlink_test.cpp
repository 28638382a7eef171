#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <climits>
#include <string>

#include "tests/child.h"
#include "tests/support.h"

namespace kiv::fs {
namespace {

using test::WriteFile;

// What a symbolic link holds; empty when there is none.
std::string TargetOf(const std::string& link) {
  char text[PATH_MAX];
  const ssize_t size = ::readlink(link.c_str(), text, sizeof text);
  return size < 0 ? "" : std::string(text, static_cast<std::size_t>(size));
}

TEST(CreateSymlink, HoldsTheTargetAsGiven) {
  const test::TempFolder folder;
  WriteFile(folder.Path() + "/file", "content");
  const std::string target = folder.Path() + "/.//file";
  const std::string link = folder.Path() + "/link";

  EXPECT_EQ(CreateSymlink(target, link), success);

  EXPECT_EQ(TargetOf(link), target);
  EXPECT_EQ(test::ReadFile(link), "content");
}

TEST(CreateSymlink, TargetMayBeALinkToAFile) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  WriteFile(file, "content");
  ASSERT_EQ(CreateSymlink(file, folder.Path() + "/first"), success);

  EXPECT_EQ(CreateSymlink(folder.Path() + "/first", folder.Path() + "/second"), success);

  EXPECT_EQ(TargetOf(folder.Path() + "/second"), folder.Path() + "/first");
}

TEST(CreateSymlink, EmptyFileAndProcFileAreRegular) {
  const test::TempFolder folder;
  WriteFile(folder.Path() + "/empty", "");

  EXPECT_EQ(CreateSymlink(folder.Path() + "/empty", folder.Path() + "/1"), success);
  EXPECT_EQ(CreateSymlink("/proc/version", folder.Path() + "/2"), success);
}

// The link holds the text, and the kernel follows that from the link's own directory.
TEST(CreateSymlink, RelativeTargetIsCheckedFromTheWorkingDirectory) {
  const test::TempFolder folder;
  const std::string below = folder.Path() + "/below";
  ASSERT_EQ(::mkdir(below.c_str(), 0700), 0);
  WriteFile(folder.Path() + "/here", "content");
  WriteFile(below + "/there", "content");
  const test::WorkingFolder working(folder.Path());

  EXPECT_EQ(CreateSymlink("here", "below/dangling"), success);
  EXPECT_EQ(TargetOf(below + "/dangling"), "here");
  EXPECT_FALSE(Exists(below + "/dangling"));
  EXPECT_EQ(CreateSymlink("there", "below/link"), not_found);
  EXPECT_EQ(TargetOf(below + "/link"), "");
}

TEST(CreateSymlink, MissingTargetIsNotFound) {
  const test::TempFolder folder;
  const std::string dangling = folder.Path() + "/dangling";
  ASSERT_EQ(::symlink("missing", dangling.c_str()), 0);

  for (const std::string& target :
       {folder.Path() + "/missing", folder.Path() + "/missing/x", dangling, std::string()}) {
    EXPECT_EQ(CreateSymlink(target, folder.Path() + "/link"), not_found) << target;
  }
  EXPECT_EQ(TargetOf(folder.Path() + "/link"), "");
}

TEST(CreateSymlink, TargetThatIsNoRegularFileIsRefused) {
  const test::TempFolder folder;
  const std::string fifo = folder.Path() + "/fifo";
  const std::string toFolder = folder.Path() + "/to-folder";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  ASSERT_EQ(::symlink("/", toFolder.c_str()), 0);

  for (const std::string& target : {folder.Path(), fifo, toFolder, std::string("/dev/null")}) {
    EXPECT_EQ(CreateSymlink(target, folder.Path() + "/link"), not_regular_file) << target;
  }
  EXPECT_EQ(TargetOf(folder.Path() + "/link"), "");
}

TEST(CreateSymlink, TargetThatCannotBeLookedAtFailsStat) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  const std::string round = folder.Path() + "/round";
  WriteFile(file, "content");
  ASSERT_EQ(::symlink("round", round.c_str()), 0);

  for (const std::string& target : {file + "/x", file + '/', round, "/" + std::string(256, 'x')}) {
    EXPECT_EQ(CreateSymlink(target, folder.Path() + "/link"), stat_failed) << target;
  }
}

TEST(CreateSymlink, ExistingEntryIsKept) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  const std::string other = folder.Path() + "/other";
  const std::string dangling = folder.Path() + "/dangling";
  WriteFile(file, "content");
  WriteFile(other, "other");
  ASSERT_EQ(::symlink("missing", dangling.c_str()), 0);

  for (const std::string& link : {other, dangling, file, folder.Path()}) {
    EXPECT_EQ(CreateSymlink(file, link), symlink_failed) << link;
  }
  EXPECT_EQ(test::ReadFile(other), "other");
  EXPECT_EQ(TargetOf(dangling), "missing");
}

TEST(CreateSymlink, LinkInAMissingFolderIsNotFound) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  WriteFile(file, "content");

  EXPECT_EQ(CreateSymlink(file, folder.Path() + "/missing/link"), not_found);
  EXPECT_EQ(CreateSymlink(file, ""), not_found);
}

TEST(CreateSymlink, LinkThatCannotBeMadeFails) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  const std::string round = folder.Path() + "/round";
  WriteFile(file, "content");
  ASSERT_EQ(::symlink("round", round.c_str()), 0);

  for (const std::string& link : {file + "/link", folder.Path() + '/' + std::string(256, 'x'), round + "/link"}) {
    EXPECT_EQ(CreateSymlink(file, link), symlink_failed) << link;
  }
}

TEST(CreateSymlink, TargetIsLookedAtFirst) {
  const test::TempFolder folder;
  WriteFile(folder.Path() + "/file", "content");

  EXPECT_EQ(CreateSymlink(folder.Path() + "/missing", folder.Path() + "/file"), not_found);
  EXPECT_EQ(CreateSymlink(folder.Path(), folder.Path() + "/file"), not_regular_file);
}

TEST(CreateSymlink, MissingRightsArePermissionDenied) {
  const test::TempFolder folder;
  const test::TempFolder hidden;
  const std::string link = folder.Path() + "/link";
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0555), 0);
  ASSERT_EQ(::chmod(hidden.Path().c_str(), 0600), 0);

  const std::string target = hidden.Path() + "/file";
  EXPECT_EQ(test::WithoutPrivileges([&] { return CreateSymlink(target, link); }), permission_denied);
  EXPECT_EQ(test::WithoutPrivileges([&] { return CreateSymlink("/proc/version", link); }), permission_denied);
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0777), 0);
  EXPECT_EQ(test::WithoutPrivileges([&] { return CreateSymlink("/proc/version", link); }), success);
}

}  // namespace
}  // namespace kiv::fs
