#include "watchdog_feed.h"

#include <cerrno>
#include <system_error>

WatchdogFeed::~WatchdogFeed() {
  if (mWatchdog && !mStarted) {
    (void)mWatchdog->Enable(false);  // One that was started does that itself; one that refuses cannot be helped.
  }
}

bool WatchdogFeed::Open(const std::string& device, std::chrono::seconds timeout, std::chrono::milliseconds patience) {
  if (device.empty()) {
    return true;
  }
  mStatus.device = device;
  mOps.emplace(device, patience);
  mWatchdog.emplace(static_cast<int>(timeout.count()), &*mOps);
  return mOps->IsOpen();
}

bool WatchdogFeed::Start() {
  try {
    if (mWatchdog) {
      mWatchdog->Start();
      mStarted = true;
    }
  } catch (const std::system_error& failure) {
    errno = failure.code().value();
    return false;
  }
  return true;
}

void WatchdogFeed::Beat() {
  if (mOps) {
    mOps->Beat();
    mStatus.pings = mOps->Accepted();
    mStatus.refused = mOps->Refused();
    mStatus.withheld = mOps->Withheld();
  }
}
