#ifndef STATUSD_WATCHDOG_FEED_H
#define STATUSD_WATCHDOG_FEED_H

#include <kiv/hardware.h>

#include <chrono>
#include <optional>
#include <string>

#include "heartbeat_ops.h"
#include "status.h"

/// Feeds the watchdog that the settings name for as long as the loop runs. Belongs to the loop thread.
class WatchdogFeed {
 public:
  explicit WatchdogFeed(WatchdogStatus& status) : mStatus(status) {}
  WatchdogFeed(const WatchdogFeed&) = delete;
  WatchdogFeed& operator=(const WatchdogFeed&) = delete;

  /// Disarms the device, even if it was opened and not started: most arm themselves when they are opened.
  ~WatchdogFeed();

  /// Opens the device, which may need root. Returns false with errno when that fails.
  bool Open(const std::string& device, std::chrono::seconds timeout, std::chrono::milliseconds patience);

  /// Arms the device, if one is open, and starts the thread that feeds it. Returns false with errno when there can be
  /// no more threads.
  bool Start();

  /// Says that the loop runs, and writes down what became of the pings. To be called a few times a second.
  void Beat();

 private:
  WatchdogStatus& mStatus;
  std::optional<HeartbeatOps> mOps;
  std::optional<kiv::hardware::Watchdog> mWatchdog;  // Behind what it uses.
  bool mStarted = false;
};

#endif  // STATUSD_WATCHDOG_FEED_H
