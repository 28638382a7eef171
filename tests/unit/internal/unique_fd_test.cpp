#include "internal/unique_fd.h"

#include <fcntl.h>
#include <gtest/gtest.h>

#include <cerrno>
#include <type_traits>
#include <utility>

#include "tests/support.h"

namespace kiv::internal {
namespace {

using test::IsOpen;

int OpenNull() { return ::open("/dev/null", O_RDONLY | O_CLOEXEC); }

static_assert(!std::is_copy_constructible_v<UniqueFd> && !std::is_copy_assignable_v<UniqueFd>);
static_assert(!std::is_convertible_v<int, UniqueFd> && !std::is_convertible_v<UniqueFd, int>);
static_assert(std::is_nothrow_move_constructible_v<UniqueFd> && std::is_nothrow_move_assignable_v<UniqueFd>);

TEST(UniqueFd, OwnsNothingByDefault) {
  const UniqueFd fd;

  EXPECT_EQ(fd.Get(), -1);
  EXPECT_FALSE(fd.IsValid());
}

TEST(UniqueFd, DescriptorZeroIsValid) {
  UniqueFd fd(0);

  EXPECT_TRUE(fd.IsValid());

  (void)fd.Release();
}

TEST(UniqueFd, DestructorCloses) {
  const int number = OpenNull();
  {
    const UniqueFd fd(number);
    EXPECT_EQ(fd.Get(), number);
    EXPECT_TRUE(IsOpen(number));
  }

  EXPECT_FALSE(IsOpen(number));
}

TEST(UniqueFd, MoveLeavesTheSourceEmpty) {
  const int number = OpenNull();
  UniqueFd source(number);

  const UniqueFd target(std::move(source));

  EXPECT_EQ(target.Get(), number);
  // The state after a move is the claim.
  EXPECT_EQ(source.Get(), -1);  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  EXPECT_TRUE(IsOpen(number));
}

TEST(UniqueFd, MoveAssignmentClosesWhatTheTargetHeld) {
  const int kept = OpenNull();
  const int closed = OpenNull();
  UniqueFd source(kept);
  UniqueFd target(closed);

  target = std::move(source);

  EXPECT_EQ(target.Get(), kept);
  // The state after a move is the claim.
  EXPECT_EQ(source.Get(), -1);  // NOLINT(bugprone-use-after-move,clang-analyzer-cplusplus.Move)
  EXPECT_TRUE(IsOpen(kept));
  EXPECT_FALSE(IsOpen(closed));
}

TEST(UniqueFd, SelfMoveKeepsTheDescriptorOpen) {
  const int number = OpenNull();
  UniqueFd fd(number);
  UniqueFd& same = fd;

  fd = std::move(same);

  EXPECT_EQ(fd.Get(), number);
  EXPECT_TRUE(IsOpen(number));
}

TEST(UniqueFdRelease, HandsTheOpenDescriptorOver) {
  const int number = OpenNull();
  UniqueFd fd(number);

  const UniqueFd owner(fd.Release());

  EXPECT_EQ(owner.Get(), number);
  EXPECT_FALSE(fd.IsValid());
  EXPECT_TRUE(IsOpen(number));
}

TEST(UniqueFdReset, ClosesAndTakesTheNewOne) {
  const int closed = OpenNull();
  const int taken = OpenNull();
  UniqueFd fd(closed);

  fd.Reset(taken);

  EXPECT_EQ(fd.Get(), taken);
  EXPECT_FALSE(IsOpen(closed));
  EXPECT_TRUE(IsOpen(taken));
}

TEST(UniqueFdReset, TwiceClosesOnce) {
  UniqueFd fd(OpenNull());
  fd.Reset();
  const UniqueFd sameNumber(OpenNull());

  fd.Reset();

  EXPECT_TRUE(IsOpen(sameNumber.Get()));
}

TEST(UniqueFdReset, FailedCloseKeepsErrno) {
  UniqueFd fd(OpenNull());
  ASSERT_EQ(::close(fd.Get()), 0);

  errno = EPIPE;
  fd.Reset();

  EXPECT_EQ(errno, EPIPE);
}

}  // namespace
}  // namespace kiv::internal
