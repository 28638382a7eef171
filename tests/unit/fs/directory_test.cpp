#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <string>
#include <vector>

#include "tests/child.h"
#include "tests/support.h"

namespace kiv::fs {
namespace {

using test::ModeOf;
using test::WriteFile;

// Tells whether there is an entry, be it a dangling link.
bool IsThere(const std::string& path) {
  struct stat status {};
  return ::lstat(path.c_str(), &status) == 0;
}

// The names in a directory in the order in which the kernel gives them.
std::vector<std::string> NamesIn(const std::string& path) {
  const std::unique_ptr<DIR, int (*)(DIR*)> stream(::opendir(path.c_str()), ::closedir);
  std::vector<std::string> names;
  while (const dirent* const entry = ::readdir(stream.get())) {
    const std::string name = entry->d_name;
    if (name != "." && name != "..") {
      names.push_back(name);
    }
  }
  return names;
}

// Removes `path` and checks that nothing stays open.
error Remove(const std::string& path) {
  const std::size_t before = test::CountOpenFds();
  const error result = RemoveDirRecursively(path);
  EXPECT_EQ(test::CountOpenFds(), before);
  return result;
}

// Makes `levels` directories of this name, one in the other, in `path`.
void MakeChain(const std::string& path, const std::string& name, int levels) {
  const test::WorkingFolder working(path);
  for (int i = 0; i < levels; ++i) {
    ASSERT_EQ(::mkdirat(AT_FDCWD, name.c_str(), 0700), 0);
    ASSERT_EQ(::chdir(name.c_str()), 0);
  }
}

TEST(RemoveDirRecursively, MissingPathIsNotFound) {
  const test::TempFolder folder;

  EXPECT_EQ(Remove(folder.Path() + "/missing"), not_found);
  EXPECT_EQ(Remove(folder.Path() + "/missing/below"), not_found);
  EXPECT_EQ(Remove(""), not_found);
}

TEST(RemoveDirRecursively, PathThatCannotBeLookedAtFailsStat) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  const std::string round = folder.Path() + "/round";
  WriteFile(file, "content");
  ASSERT_EQ(::symlink("round", round.c_str()), 0);

  for (const std::string& path : {file + "/x", file + '/', round + '/', "/" + std::string(256, 'x')}) {
    EXPECT_EQ(Remove(path), stat_failed) << path;
  }
  EXPECT_TRUE(IsThere(file));
  EXPECT_TRUE(IsThere(round));
}

TEST(RemoveDirRecursively, RemovesAnEmptyDirectory) {
  const test::TempFolder folder;
  ASSERT_EQ(CreateDirectory(folder.Path() + "/empty"), success);
  ASSERT_EQ(CreateDirectory(folder.Path() + "/with-slash"), success);

  EXPECT_EQ(Remove(folder.Path() + "/empty"), success);
  EXPECT_EQ(Remove(folder.Path() + "/with-slash/"), success);

  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{});
}

TEST(RemoveDirRecursively, RemovesASingleEntryOfAnyType) {
  const test::TempFolder folder;
  const std::string path = folder.Path() + "/";
  WriteFile(path + "file", "content");
  ASSERT_EQ(::mkfifo((path + "fifo").c_str(), 0600), 0);
  ASSERT_EQ(::symlink("file", (path + "link").c_str()), 0);
  ASSERT_EQ(::symlink("missing", (path + "dangling").c_str()), 0);
  ASSERT_EQ(::symlink("round", (path + "round").c_str()), 0);
  (void)test::UnixSocketAt(path + "socket");

  for (const char* name : {"link", "dangling", "round", "fifo", "socket"}) {
    EXPECT_EQ(Remove(path + name), success) << name;
    EXPECT_FALSE(IsThere(path + name)) << name;
  }
  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{"file"});
  EXPECT_EQ(Remove(path + "file"), success);
  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{});
}

TEST(RemoveDirRecursively, LinkToADirectoryIsRemovedAlone) {
  const test::TempFolder folder;
  const test::TempFolder target;
  const std::string link = folder.Path() + "/link";
  WriteFile(target.Path() + "/file", "content");
  ASSERT_EQ(::symlink(target.Path().c_str(), link.c_str()), 0);

  EXPECT_EQ(Remove(link), success);

  EXPECT_FALSE(IsThere(link));
  EXPECT_TRUE(IsThere(target.Path() + "/file"));
}

TEST(RemoveDirRecursively, LinksInTheTreeAreNotFollowed) {
  const test::TempFolder folder;
  const test::TempFolder target;
  const std::string tree = folder.Path() + "/tree";
  ASSERT_EQ(CreateDirectory(tree), success);
  WriteFile(target.Path() + "/file", "content");
  ASSERT_EQ(::symlink(target.Path().c_str(), (tree + "/to-folder").c_str()), 0);
  ASSERT_EQ(::symlink((target.Path() + "/file").c_str(), (tree + "/to-file").c_str()), 0);
  ASSERT_EQ(::symlink("..", (tree + "/up").c_str()), 0);
  ASSERT_EQ(::symlink("missing", (tree + "/dangling").c_str()), 0);

  EXPECT_EQ(Remove(tree), success);

  EXPECT_FALSE(IsThere(tree));
  EXPECT_EQ(test::ReadFile(target.Path() + "/file"), "content");
}

// lstat(2) follows a link that has a slash behind it. What it leads to is emptied, and rmdir(2) refuses the link.
TEST(RemoveDirRecursively, LinkWithASlashMeansItsDirectory) {
  const test::TempFolder folder;
  const test::TempFolder target;
  const std::string link = folder.Path() + "/link";
  WriteFile(target.Path() + "/file", "content");
  ASSERT_EQ(::symlink(target.Path().c_str(), link.c_str()), 0);

  EXPECT_EQ(Remove(link + '/'), io_error);

  EXPECT_TRUE(IsThere(link));
  EXPECT_EQ(NamesIn(target.Path()), std::vector<std::string>{});
}

TEST(RemoveDirRecursively, RemovesEveryTypeOfEntryBelow) {
  const test::TempFolder folder;
  const std::string tree = folder.Path() + "/tree";
  ASSERT_EQ(CreateDirectory(tree), success);
  ASSERT_EQ(CreateDirectory(tree + "/empty"), success);
  ASSERT_EQ(CreateDirectory(tree + "/full"), success);
  WriteFile(tree + "/full/file", "content");
  WriteFile(tree + "/read-only", "content");
  ASSERT_EQ(::chmod((tree + "/read-only").c_str(), 0), 0);
  ASSERT_EQ(::mkfifo((tree + "/full/fifo").c_str(), 0600), 0);
  (void)test::UnixSocketAt(tree + "/socket");

  EXPECT_EQ(Remove(tree), success);

  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{});
}

TEST(RemoveDirRecursively, AnyNameCanBeRemoved) {
  const test::TempFolder folder;
  const std::string tree = folder.Path() + "/tree";
  ASSERT_EQ(CreateDirectory(tree), success);
  for (const std::string& name :
       {std::string("..."), std::string("..x"), std::string(".hidden"), std::string(". "), std::string(" "),
        std::string("-rf"), std::string("*"), std::string("a\nb"), std::string("\\040"), std::string("\x01\x7f"),
        std::string("\xff\xfe"), std::string(255, 'n')}) {
    ASSERT_EQ(CreateDirectory(tree + '/' + name), success);
    WriteFile(tree + '/' + name + '/' + name, "content");
  }
  ASSERT_EQ(NamesIn(tree).size(), 12U);

  EXPECT_EQ(Remove(tree), success);

  EXPECT_FALSE(IsThere(tree));
}

TEST(RemoveDirRecursively, OnlyOneNameOfAFileIsRemoved) {
  const test::TempFolder folder;
  const std::string kept = folder.Path() + "/kept";
  const std::string tree = folder.Path() + "/tree";
  WriteFile(kept, "content");
  ASSERT_EQ(CreateDirectory(tree), success);
  ASSERT_EQ(::link(kept.c_str(), (tree + "/name").c_str()), 0);

  EXPECT_EQ(Remove(tree), success);

  EXPECT_EQ(test::ReadFile(kept), "content");
}

TEST(RemoveDirRecursively, ThousandLevelsAreRemoved) {
  const test::TempFolder folder;
  ASSERT_NO_FATAL_FAILURE(MakeChain(folder.Path(), "d", 1000));
  const test::DescriptorLimit limit(1010);

  EXPECT_EQ(Remove(folder.Path() + "/d"), success);

  EXPECT_FALSE(IsThere(folder.Path() + "/d"));
}

// On tmpfs, where this takes a second.
TEST(RemoveDirRecursively, ManyThousandEntriesAreRemoved) {
  const int count = test::IsSlowMachine() ? 20000 : 100000;
  const test::TempFolder folder("/dev/shm");
  const std::string wide = folder.Path() + "/wide";
  ASSERT_EQ(CreateDirectory(wide), success);
  for (int i = 0; i < count; ++i) {
    ASSERT_EQ(::mknod((wide + '/' + std::to_string(i)).c_str(), S_IFREG | 0600, 0), 0);
  }

  EXPECT_EQ(Remove(wide), success);

  EXPECT_FALSE(IsThere(wide));
}

TEST(RemoveDirRecursively, DirectoryThatCannotBeOpenedIsKept) {
  const test::TempFolder folder;
  const std::string empty = folder.Path() + "/empty";
  ASSERT_EQ(CreateDirectory(empty), success);
  error result = success;
  {
    const test::NoNewDescriptors none;
    result = RemoveDirRecursively(empty);
  }

  EXPECT_EQ(result, dir_open_failed);
  EXPECT_TRUE(IsThere(empty));
}

// Deliberate: what went wrong further down is not told.
TEST(RemoveDirRecursively, FailedEntryShowsAsTheRmdirOfItsDirectory) {
  const test::TempFolder folder;
  const std::string tree = folder.Path() + "/tree";
  ASSERT_EQ(CreateDirectory(tree), success);
  ASSERT_EQ(CreateDirectory(tree + "/unopened"), success);
  errno = 0;
  const test::DescriptorLimit limit(1);

  EXPECT_EQ(RemoveDirRecursively(tree), io_error);

  EXPECT_EQ(errno, ENOTEMPTY);
  EXPECT_TRUE(IsThere(tree + "/unopened"));
}

TEST(RemoveDirRecursively, FailedEntryEndsTheReading) {
  const test::TempFolder folder;
  const std::string tree = folder.Path() + "/tree";
  ASSERT_EQ(CreateDirectory(tree), success);
  ASSERT_EQ(CreateDirectory(tree + "/unopened"), success);
  for (int i = 0; i < 30; ++i) {
    WriteFile(tree + "/before" + std::to_string(i), "");
  }
  const std::vector<std::string> names = NamesIn(tree);
  const auto failing = std::find(names.begin(), names.end(), "unopened");
  {
    const test::DescriptorLimit limit(1);
    EXPECT_EQ(RemoveDirRecursively(tree), io_error);
  }

  EXPECT_EQ(NamesIn(tree), std::vector<std::string>(failing, names.end()));
}

TEST(RemoveDirRecursively, FailureGoesUpThroughEveryLevel) {
  const test::TempFolder folder;
  ASSERT_NO_FATAL_FAILURE(MakeChain(folder.Path(), "d", 20));
  {
    const test::DescriptorLimit limit(10);
    EXPECT_EQ(RemoveDirRecursively(folder.Path() + "/d"), io_error);
  }
  std::string deepest = folder.Path();
  for (int i = 0; i < 20; ++i) {
    deepest += "/d";
  }

  EXPECT_TRUE(IsThere(deepest));
}

TEST(RemoveDirRecursively, TreeDeeperThanAPathIsKept) {
  const test::TempFolder folder;
  const std::string name(250, 'd');
  ASSERT_NO_FATAL_FAILURE(MakeChain(folder.Path(), name, 17));

  EXPECT_EQ(Remove(folder.Path() + '/' + name), io_error);

  std::string reachable = folder.Path();
  for (int i = 0; i < 16; ++i) {
    reachable += '/' + name;
  }
  EXPECT_TRUE(IsThere(reachable));
  const test::WorkingFolder working(reachable);
  EXPECT_EQ(Remove(name), success);
  EXPECT_EQ(Remove(folder.Path() + '/' + name), success);
}

TEST(RemoveDirRecursively, TooLongAPathFailsStat) { EXPECT_EQ(Remove(std::string(5000, '/')), stat_failed); }

// rmdir(2) takes no ".", so the directory stays; what is in it does not.
TEST(RemoveDirRecursively, WorkingDirectoryIsEmptiedAndKept) {
  const test::TempFolder folder;
  WriteFile(folder.Path() + "/file", "content");
  const test::WorkingFolder working(folder.Path());

  EXPECT_EQ(Remove("."), io_error);

  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{});
}

// Nobody may remove a file of /proc.
TEST(RemoveDirRecursively, EntryThatMayNotBeUnlinkedIsPermissionDenied) {
  errno = 0;
  EXPECT_EQ(Remove("/proc/version"), permission_denied);
  EXPECT_EQ(errno, EPERM);
}

TEST(RemoveDirRecursively, MissingRightsArePermissionDenied) {
  const test::TempFolder folder;
  ASSERT_EQ(CreateDirectory(folder.Path() + "/empty"), success);
  WriteFile(folder.Path() + "/file", "content");
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0555), 0);

  const auto removed = [&](const std::string& name) {
    return test::WithoutPrivileges([&] { return RemoveDirRecursively(folder.Path() + name); });
  };
  EXPECT_EQ(removed("/file"), permission_denied);
  EXPECT_EQ(removed("/empty"), permission_denied);
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0600), 0);
  EXPECT_EQ(removed("/file"), stat_failed);
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0700), 0);
}

TEST(RemoveDirRecursively, DirectoryThatMayNotBeReadIsKept) {
  const test::TempFolder folder;
  const std::string closed = folder.Path() + "/closed";
  ASSERT_EQ(CreateDirectory(closed), success);
  ASSERT_EQ(::chmod(closed.c_str(), 0), 0);
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0777), 0);

  EXPECT_EQ(test::WithoutPrivileges([&] { return RemoveDirRecursively(closed); }), dir_open_failed);
  EXPECT_TRUE(IsThere(closed));
}

TEST(CreateDirectory, ModeIs0777LessTheUmask) {
  const struct {
    mode_t mask;
    mode_t mode;
  } rows[] = {{0, 0777}, {022, 0755}, {027, 0750}, {077, 0700}, {0777, 0}};
  const test::TempFolder folder;

  for (const auto& row : rows) {
    const std::string path = folder.Path() + '/' + std::to_string(row.mask);
    const test::Umask mask(row.mask);
    EXPECT_EQ(CreateDirectory(path), success);
    EXPECT_TRUE(IsDirectory(path));
    EXPECT_EQ(ModeOf(path), row.mode) << row.mask;
  }
}

TEST(CreateDirectory, SlashAtTheEndDoesNotMatter) {
  const test::TempFolder folder;

  EXPECT_EQ(CreateDirectory(folder.Path() + "/new//"), success);

  EXPECT_TRUE(IsDirectory(folder.Path() + "/new"));
}

TEST(CreateDirectory, RelativePathStartsFromTheWorkingDirectory) {
  const test::TempFolder folder;
  const test::WorkingFolder working(folder.Path());

  EXPECT_EQ(CreateDirectory("new"), success);

  EXPECT_TRUE(IsDirectory(folder.Path() + "/new"));
}

TEST(CreateDirectory, ExistingDirectoryIsKeptAsItIs) {
  const test::TempFolder folder;
  WriteFile(folder.Path() + "/file", "content");
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0710), 0);

  EXPECT_EQ(CreateDirectory(folder.Path()), success);

  EXPECT_EQ(ModeOf(folder.Path()), 0710U);
  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{"file"});
  EXPECT_EQ(CreateDirectory("/"), success);
}

// Deliberate: the caller learns that the name is taken, and finds out what it is when it uses it.
TEST(CreateDirectory, ExistingEntryOfAnyTypeCounts) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  const std::string dangling = folder.Path() + "/dangling";
  WriteFile(file, "content");
  ASSERT_EQ(::symlink("missing", dangling.c_str()), 0);

  for (const std::string& path : {file, dangling, std::string("/dev/null")}) {
    EXPECT_EQ(CreateDirectory(path), success) << path;
    EXPECT_FALSE(IsDirectory(path)) << path;
  }
  EXPECT_EQ(test::ReadFile(file), "content");
  EXPECT_FALSE(IsThere(folder.Path() + "/missing"));
}

TEST(CreateDirectory, ParentsAreNotCreated) {
  const test::TempFolder folder;

  EXPECT_EQ(CreateDirectory(folder.Path() + "/missing/new"), not_found);
  EXPECT_EQ(CreateDirectory(""), not_found);

  EXPECT_EQ(NamesIn(folder.Path()), std::vector<std::string>{});
}

TEST(CreateDirectory, AnyOtherFailureIsMkdirFailed) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  const std::string round = folder.Path() + "/round";
  WriteFile(file, "content");
  ASSERT_EQ(::symlink("round", round.c_str()), 0);

  for (const std::string& path : {file + "/new", round + "/new", folder.Path() + '/' + std::string(256, 'x')}) {
    EXPECT_EQ(CreateDirectory(path), mkdir_failed) << path;
  }
}

TEST(CreateDirectory, MissingRightsArePermissionDenied) {
  const test::TempFolder folder;
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0555), 0);

  EXPECT_EQ(test::WithoutPrivileges([&] { return CreateDirectory(folder.Path() + "/new"); }), permission_denied);

  EXPECT_FALSE(IsThere(folder.Path() + "/new"));
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0755), 0);
}

}  // namespace
}  // namespace kiv::fs
