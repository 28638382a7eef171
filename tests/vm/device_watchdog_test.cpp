// The watchdog on the machine's device, whose state the kernel shows. That the machine lives is what most cases prove.
#include <gtest/gtest.h>
#include <kiv/hardware.h>

#include <chrono>
#include <fstream>
#include <string>
#include <thread>

namespace kiv::hardware {
namespace {

constexpr int kTimeout = 4;

std::string Shown(const std::string& attribute) {
  std::ifstream file("/sys/class/watchdog/watchdog0/" + attribute);
  std::string line;
  std::getline(file, line);
  return line;
}

std::string State() { return Shown("state") + ' ' + Shown("timeout"); }

void LiveWellPastTheTimeout() { std::this_thread::sleep_for(std::chrono::seconds(3 * kTimeout)); }

// A device that was opened counts. Each case begins with another time-out than its own, and leaves the device disarmed.
class WatchdogOnADevice : public testing::Test {
 protected:
  void SetUp() override {
    Watchdog other(kTimeout, nullptr);
    ASSERT_TRUE(other.SetTimeout(kOtherTimeout));
    ASSERT_TRUE(other.Enable(false));
    ASSERT_EQ(State(), kDisarmed);
  }
  void TearDown() override {
    if (Shown("state") != "inactive") {
      EXPECT_TRUE(Watchdog(kTimeout, nullptr).Enable(false));
    }
  }

  static constexpr int kOtherTimeout = 9;
  const std::string kOpened = "active 9";
  const std::string kArmed = "active 4";
  const std::string kDisarmed = "inactive 9";
  const std::string kStopped = "inactive 4";
};

TEST_F(WatchdogOnADevice, FedOutlivesItsTimeout) {
  Watchdog watchdog(kTimeout, nullptr);
  watchdog.Start();
  EXPECT_EQ(State(), kArmed);
  LiveWellPastTheTimeout();
  EXPECT_EQ(State(), kArmed);
}

TEST_F(WatchdogOnADevice, StoppedIsDisarmed) {
  Watchdog watchdog(kTimeout, nullptr);
  watchdog.Start();
  ASSERT_EQ(State(), kArmed);
  watchdog.Stop();
  EXPECT_EQ(State(), kStopped);
  LiveWellPastTheTimeout();
  EXPECT_EQ(State(), kStopped);
}

TEST_F(WatchdogOnADevice, StartedAgainIsArmedAgain) {
  Watchdog watchdog(kTimeout, nullptr);
  watchdog.Start();
  watchdog.Stop();
  ASSERT_TRUE(watchdog.SetTimeout(kOtherTimeout));
  ASSERT_EQ(State(), kDisarmed);
  watchdog.Start();
  EXPECT_EQ(State(), kArmed);
  LiveWellPastTheTimeout();
  watchdog.Stop();
  EXPECT_EQ(State(), kStopped);
}

TEST_F(WatchdogOnADevice, GuardArmsAndDisarms) {
  {
    const WatchdogRaii guard(kTimeout, nullptr);
    EXPECT_EQ(State(), kArmed);
    LiveWellPastTheTimeout();
  }
  EXPECT_EQ(State(), kStopped);
  LiveWellPastTheTimeout();
}

TEST_F(WatchdogOnADevice, OpenedAloneCountsUntilItIsDisabled) {
  Watchdog watchdog(kTimeout, nullptr);
  EXPECT_EQ(State(), kOpened);
  EXPECT_TRUE(watchdog.KeepAlive());
  EXPECT_TRUE(watchdog.Enable(false));
  EXPECT_EQ(State(), kDisarmed);
  EXPECT_TRUE(watchdog.Enable(true));
  EXPECT_EQ(State(), kOpened);
}

TEST_F(WatchdogOnADevice, TimeoutThatTheDriverRefusesChangesNothing) {
  Watchdog watchdog(kTimeout, nullptr);
  EXPECT_TRUE(watchdog.SetTimeout(7));
  EXPECT_FALSE(watchdog.SetTimeout(-1));
  EXPECT_EQ(State(), "active 7");
}

TEST_F(WatchdogOnADevice, SecondOwnerHasNone) {
  Watchdog first(kTimeout, nullptr);
  ASSERT_TRUE(first.KeepAlive());
  Watchdog second(kTimeout, nullptr);
  EXPECT_FALSE(second.SetTimeout(kTimeout));
  EXPECT_FALSE(second.Enable(true));
  EXPECT_FALSE(second.KeepAlive());
  EXPECT_TRUE(first.KeepAlive());
}

}  // namespace
}  // namespace kiv::hardware
