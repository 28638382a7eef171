#include <gtest/gtest.h>
#include <kiv/fs.h>
#include <mntent.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <fstream>
#include <map>
#include <memory>
#include <string>

#include "tests/child.h"
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

// One entry of each type in a folder, and links to two of them.
class Entries {
 public:
  explicit Entries(const std::string& parent = "/tmp") : mFolder(parent), mSocket(test::UnixSocketAt(Path("socket"))) {
    MakeFile(Path("file"));
    EXPECT_EQ(::mknod(Path("empty").c_str(), S_IFREG, 0), 0);
    EXPECT_EQ(::mkdir(Path("folder").c_str(), 0), 0);
    EXPECT_EQ(::mkfifo(Path("fifo").c_str(), 0600), 0);
    EXPECT_EQ(::symlink("file", Path("to-file").c_str()), 0);
    EXPECT_EQ(::symlink("folder", Path("to-folder").c_str()), 0);
    EXPECT_EQ(::symlink("to-folder", Path("to-link").c_str()), 0);
    EXPECT_EQ(::symlink("missing", Path("dangling").c_str()), 0);
    EXPECT_EQ(::symlink("round", Path("round").c_str()), 0);
  }

  std::string Path(const std::string& name) const { return mFolder.Path() + '/' + name; }

 private:
  test::TempFolder mFolder;
  internal::UniqueFd mSocket;
};

TEST(IsDirectory, DirectoryAndLinkToOneAre) {
  const Entries entries;

  for (const std::string& path : {entries.Path("folder"), entries.Path("folder/"), entries.Path("to-folder"),
                                  entries.Path("to-link"), entries.Path(""), std::string("/"), std::string("."),
                                  std::string("/proc/self"), std::string("/proc/self/cwd")}) {
    EXPECT_TRUE(IsDirectory(path)) << path;
  }
}

TEST(IsDirectory, NothingElseIs) {
  const Entries entries;

  for (const char* name : {"file", "empty", "fifo", "socket", "to-file", "dangling", "round", "missing", "file/"}) {
    EXPECT_FALSE(IsDirectory(entries.Path(name))) << name;
  }
  EXPECT_FALSE(IsDirectory("/dev/null"));
  EXPECT_FALSE(IsDirectory(""));
}

TEST(IsRegularFile, FileAndLinkToOneAre) {
  const Entries entries;

  for (const std::string& path : {entries.Path("file"), entries.Path("empty"), entries.Path("to-file"),
                                  std::string("/proc/version"), std::string("/proc/self/exe")}) {
    EXPECT_TRUE(IsRegularFile(path)) << path;
  }
}

TEST(IsRegularFile, NothingElseIs) {
  const Entries entries;

  for (const char* name :
       {"folder", "fifo", "socket", "to-folder", "to-link", "dangling", "round", "missing", "file/"}) {
    EXPECT_FALSE(IsRegularFile(entries.Path(name))) << name;
  }
  EXPECT_FALSE(IsRegularFile("/dev/null"));
  EXPECT_FALSE(IsRegularFile(""));
}

TEST(FileType, ReasonOfAFailureIsInErrno) {
  const Entries entries;
  const struct {
    std::string path;
    int reason;
  } rows[] = {{entries.Path("missing"), ENOENT},
              {entries.Path("dangling"), ENOENT},
              {entries.Path("file/below"), ENOTDIR},
              {entries.Path("round"), ELOOP},
              {"", ENOENT}};

  for (const auto& row : rows) {
    for (bool (*const asks)(const std::string&) : {IsDirectory, IsRegularFile, IsTmpfsFile}) {
      errno = 0;
      EXPECT_FALSE(asks(row.path)) << row.path;
      EXPECT_EQ(errno, row.reason) << row.path;
    }
  }
}

TEST(FileType, NoPermissionOnTheFileIsNeeded) {
  const test::TempFolder folder;
  const std::string file = folder.Path() + "/file";
  MakeFile(file);
  ASSERT_EQ(::chmod(file.c_str(), 0), 0);
  ASSERT_EQ(::chmod(folder.Path().c_str(), 0711), 0);

  EXPECT_EQ(test::WithoutPrivileges([&] { return IsRegularFile(file); }), 1);
  EXPECT_EQ(test::WithoutPrivileges([&] { return IsDirectory(folder.Path()); }), 1);
}

TEST(IsTmpfsFile, EntryOfAnyTypeOnTmpfsIs) {
  const Entries entries("/dev/shm");

  for (const char* name : {"file", "empty", "folder", "fifo", "socket", "to-file", "to-folder", ""}) {
    EXPECT_TRUE(IsTmpfsFile(entries.Path(name))) << name;
  }
  EXPECT_TRUE(IsTmpfsFile("/dev/shm"));
}

TEST(IsTmpfsFile, LinkCountsForWhatItLeadsTo) {
  const test::TempFolder onTmpfs("/dev/shm");
  const std::string fromTmpfs = onTmpfs.Path() + "/to-proc";
  ASSERT_EQ(::symlink("/proc/version", fromTmpfs.c_str()), 0);
  const test::TempFolder folder;
  const std::string toTmpfs = folder.Path() + "/to-tmpfs";
  ASSERT_EQ(::symlink(onTmpfs.Path().c_str(), toTmpfs.c_str()), 0);

  EXPECT_FALSE(IsTmpfsFile(fromTmpfs));
  EXPECT_TRUE(IsTmpfsFile(toTmpfs));
}

TEST(IsTmpfsFile, OtherFilesystemsAreNot) {
  const Entries entries("/dev/shm");

  for (const char* path : {"/proc", "/proc/version", "/sys"}) {
    EXPECT_FALSE(IsTmpfsFile(path)) << path;
  }
  EXPECT_FALSE(IsTmpfsFile(entries.Path("missing")));
  EXPECT_FALSE(IsTmpfsFile(entries.Path("dangling")));
}

// The type by the C library's reader of the mount table, of the mount that hides the others of its place.
TEST(IsTmpfsFile, AgreesWithTheMountTable) {
  std::map<std::string, std::string> types;
  const std::unique_ptr<FILE, int (*)(FILE*)> table(::setmntent("/proc/mounts", "r"), ::endmntent);
  while (const mntent* const entry = ::getmntent(table.get())) {
    types[entry->mnt_dir] = entry->mnt_type;
  }

  for (const char* path : {"/proc", "/sys", "/dev", "/dev/shm", "/dev/pts", "/tmp", "/run"}) {
    const auto type = types.find(path);
    if (type != types.end()) {
      EXPECT_EQ(IsTmpfsFile(path), type->second == "tmpfs" || type->second == "devtmpfs") << path;
    }
  }
}

}  // namespace
}  // namespace kiv::fs
