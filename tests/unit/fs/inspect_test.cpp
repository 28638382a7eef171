#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <string>

#include "tests/support.h"

namespace kiv::fs {
namespace {

void MakeFile(const std::string& path) { std::ofstream(path) << "content"; }

// The answer, with errno when it is false.
int ErrnoOf(const std::string& path) {
  errno = 0;
  return Exists(path) ? 0 : errno;
}

TEST(Exists, AnyTypeOfFileDoes) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  const std::string fifo = folder.Path() + "/fifo";
  MakeFile(file);
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);

  for (const std::string& path : {file, fifo, folder.Path(), folder.Path() + '/', std::string("/"), std::string("."),
                                  std::string("/dev/null"), std::string("/proc/self/exe")}) {
    EXPECT_TRUE(Exists(path)) << path;
  }
}

TEST(Exists, NoPermissionOnTheFileIsNeeded) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  MakeFile(file);
  ASSERT_EQ(::chmod(file.c_str(), 0), 0);

  EXPECT_TRUE(Exists(file));
}

TEST(Exists, MissingPathDoesNot) {
  const test::TempFolder folder;

  EXPECT_EQ(ErrnoOf(folder.Path() + "/missing"), ENOENT);
  EXPECT_EQ(ErrnoOf(folder.Path() + "/missing/below"), ENOENT);
  EXPECT_EQ(ErrnoOf(""), ENOENT);
}

TEST(Exists, RemovedFileDoesNotAnyMore) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  MakeFile(file);
  ASSERT_TRUE(Exists(file));
  ASSERT_EQ(::unlink(file.c_str()), 0);

  EXPECT_FALSE(Exists(file));
}

TEST(Exists, PathThroughAFileDoesNot) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  MakeFile(file);

  EXPECT_EQ(ErrnoOf(file + "/below"), ENOTDIR);
  EXPECT_EQ(ErrnoOf(file + '/'), ENOTDIR);
}

TEST(Exists, LinksAreFollowed) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  const std::string toFile = folder.Path() + "/to-file";
  const std::string toFolder = folder.Path() + "/to-folder";
  const std::string toLink = folder.Path() + "/to-link";
  MakeFile(file);
  ASSERT_EQ(::symlink("file", toFile.c_str()), 0);
  ASSERT_EQ(::symlink(folder.Path().c_str(), toFolder.c_str()), 0);
  ASSERT_EQ(::symlink("to-file", toLink.c_str()), 0);

  for (const std::string& path : {toFile, toFolder, toLink, toFolder + "/file"}) {
    EXPECT_TRUE(Exists(path)) << path;
  }
}

TEST(Exists, LinkToNothingDoesNot) {
  const test::TempFolder folder;
  const std::string dangling = folder.Path() + "/dangling";
  const std::string round = folder.Path() + "/round";
  ASSERT_EQ(::symlink("missing", dangling.c_str()), 0);
  ASSERT_EQ(::symlink("round", round.c_str()), 0);

  EXPECT_EQ(ErrnoOf(dangling), ENOENT);
  EXPECT_EQ(ErrnoOf(round), ELOOP);
}

TEST(Exists, TooLongAPathDoesNot) {
  EXPECT_EQ(ErrnoOf("/" + std::string(256, 'x')), ENAMETOOLONG);
  EXPECT_EQ(ErrnoOf(std::string(1 << 20, '/')), ENAMETOOLONG);
}

// Returns ErrnoOf(path) as a child with these real and effective users finds it.
int ErrnoFor(uid_t real, uid_t effective, const std::string& path) {
  const pid_t pid = ::fork();
  if (pid == 0) {
    ::_exit(::setresuid(real, effective, effective) == 0 ? ErrnoOf(path) : 255);
  }
  int status = -1;
  EXPECT_EQ(::waitpid(pid, &status, 0), pid);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(Exists, FolderThatMayNotBeSearchedHidesItsFiles) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root to become another user";
  }
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  MakeFile(file);
  constexpr uid_t kNobody = 65534;

  EXPECT_EQ(ErrnoFor(kNobody, kNobody, file), EACCES);
  EXPECT_EQ(ErrnoFor(kNobody, kNobody, folder.Path()), 0);
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0711), 0);
  EXPECT_EQ(ErrnoFor(kNobody, kNobody, file), 0);
}

// As access(2) does: a program that runs with the rights of another user learns what its caller may.
TEST(Exists, RealUserCounts) {
  if (::geteuid() != 0) {
    GTEST_SKIP() << "needs root to become another user";
  }
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  MakeFile(file);
  constexpr uid_t kNobody = 65534;

  EXPECT_EQ(ErrnoFor(kNobody, 0, file), EACCES);
  EXPECT_EQ(ErrnoFor(0, kNobody, file), 0);
}

}  // namespace
}  // namespace kiv::fs
