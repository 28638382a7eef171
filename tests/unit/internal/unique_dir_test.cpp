#include "internal/unique_dir.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <fstream>
#include <string>
#include <type_traits>
#include <vector>

#include "tests/support.h"

namespace kiv::internal {
namespace {

using test::IsOpen;

static_assert(!std::is_copy_constructible_v<UniqueDir> && !std::is_copy_assignable_v<UniqueDir>);
static_assert(!std::is_convertible_v<const char*, UniqueDir>);

TEST(UniqueDir, MissingDirectoryIsNotValid) {
  const test::TempFolder folder;
  const std::size_t before = test::CountOpenFds();
  errno = 0;

  const UniqueDir dir((folder.Path() + "/missing").c_str());

  EXPECT_EQ(errno, ENOENT);
  EXPECT_FALSE(dir.IsValid());
  EXPECT_EQ(test::CountOpenFds(), before);
}

TEST(UniqueDir, FileIsNotValid) {
  const UniqueDir dir("/dev/null");

  EXPECT_FALSE(dir.IsValid());
}

TEST(UniqueDir, OwnsOneDescriptorClosedOnExec) {
  const test::TempFolder folder;
  const std::size_t before = test::CountOpenFds();
  const int number = test::NextFd();

  const UniqueDir dir(folder.Path().c_str());

  ASSERT_TRUE(dir.IsValid());
  EXPECT_EQ(test::CountOpenFds(), before + 1);
  EXPECT_TRUE(IsOpen(number));
  EXPECT_EQ(::fcntl(number, F_GETFD), FD_CLOEXEC);
}

TEST(UniqueDir, DestructorCloses) {
  const test::TempFolder folder;
  const int number = test::NextFd();
  {
    const UniqueDir dir(folder.Path().c_str());
    ASSERT_TRUE(IsOpen(number));
  }

  EXPECT_FALSE(IsOpen(number));
}

TEST(UniqueDirNext, GivesEveryNameOnce) {
  const test::TempFolder folder;
  for (const char* name : {"/a", "/b", "/.c"}) {
    std::ofstream(folder.Path() + name) << "content";
  }
  UniqueDir dir(folder.Path().c_str());

  std::vector<std::string> names;
  while (const char* const name = dir.Next()) {
    names.emplace_back(name);
  }

  std::sort(names.begin(), names.end());
  EXPECT_EQ(names, (std::vector<std::string>{".", "..", ".c", "a", "b"}));
  EXPECT_EQ(dir.Next(), nullptr);
}

TEST(UniqueDirClose, ClosesNow) {
  const test::TempFolder folder;
  const int number = test::NextFd();
  UniqueDir dir(folder.Path().c_str());

  ASSERT_TRUE(IsOpen(number));

  dir.Close();

  EXPECT_FALSE(dir.IsValid());
  EXPECT_FALSE(IsOpen(number));
}

TEST(UniqueDirClose, TwiceClosesOnce) {
  const test::TempFolder folder;
  const int number = test::NextFd();
  UniqueDir dir(folder.Path().c_str());
  dir.Close();
  const UniqueFd sameNumber = test::EventFd(0);
  ASSERT_EQ(sameNumber.Get(), number);

  dir.Close();

  EXPECT_TRUE(IsOpen(number));
}

TEST(UniqueDirClose, OfNothingDoesNothing) {
  UniqueDir dir("/dev/null");
  errno = EPIPE;

  dir.Close();

  EXPECT_FALSE(dir.IsValid());
  EXPECT_EQ(errno, EPIPE);
}

TEST(UniqueDirClose, FailedCloseKeepsErrno) {
  const test::TempFolder folder;
  const int number = test::NextFd();
  UniqueDir dir(folder.Path().c_str());
  ASSERT_EQ(::close(number), 0);

  errno = EPIPE;
  dir.Close();

  EXPECT_EQ(errno, EPIPE);
}

}  // namespace
}  // namespace kiv::internal
