#include "internal/outliving_callback.h"

#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <utility>

namespace kiv::internal {
namespace {

TEST(OutlivingCallback, EmptyFunctionStaysEmpty) {
  EXPECT_FALSE(OutlivingCallback(std::function<void()>()));
  EXPECT_FALSE(OutlivingCallback(std::function<void(int)>()));
}

TEST(OutlivingCallback, PassesItsArguments) {
  int sum = 0;
  const auto callback =
      OutlivingCallback(std::function<void(int, int)>([&](int left, int right) { sum = left * 10 + right; }));

  callback(4, 2);

  EXPECT_EQ(sum, 42);
}

TEST(OutlivingCallback, StateLivesFromCallToCall) {
  int last = 0;
  const auto callback = OutlivingCallback(std::function<void()>([&last, count = 0]() mutable { last = ++count; }));

  callback();
  callback();

  EXPECT_EQ(last, 2);
}

TEST(OutlivingCallback, MayDestroyItsOwnerAndGoOnUsingItsState) {
  auto owner = std::make_unique<std::function<void()>>();
  const auto state = std::make_shared<int>(0);
  const std::weak_ptr<int> watched = state;
  *owner = OutlivingCallback(std::function<void()>([&owner, state] {
    owner.reset();
    *state = 7;
  }));

  (*owner)();

  EXPECT_EQ(owner, nullptr);
  EXPECT_EQ(*state, 7);
  EXPECT_EQ(watched.use_count(), 1) << "the callback's share is released when the call ends";
}

TEST(OutlivingCallback, ReleasesItsStateWithTheLastOwner) {
  const auto state = std::make_shared<int>(0);
  {
    const auto callback = OutlivingCallback(std::function<void()>([state] {}));
    EXPECT_EQ(state.use_count(), 2);
  }

  EXPECT_EQ(state.use_count(), 1);
}

}  // namespace
}  // namespace kiv::internal
