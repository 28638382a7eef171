#ifndef STATUSD_HEARTBEAT_OPS_H
#define STATUSD_HEARTBEAT_OPS_H

#include <kiv/hardware.h>

#include <atomic>
#include <chrono>
#include <string>

/// The operations of a watchdog that resets the machine when the loop hangs. A pattern to copy, with its source:
/// kiv::hardware::Watchdog feeds from a thread of its own, and so goes on while the rest of the program stands still.
/// These operations refuse its pings when the loop has given no sign of life for some time; then the device's own
/// timeout runs out, and the machine is reset.
class HeartbeatOps : public kiv::hardware::RealWatchdogOps {
 public:
  /// `device` is opened in place of the usual one. `patience` is how long the loop may be silent; it is counted from
  /// here on, so that a loop that never starts is found out, too.
  HeartbeatOps(std::string device, std::chrono::milliseconds patience);

  /// A sign of life. To be called by a timer of the loop, several times within `patience`.
  void Beat() { mLastBeat = Now(); }

  /// Tells whether the device could be opened. A Watchdog does not: without a device it does nothing.
  bool IsOpen() const { return mIsOpen; }

  /// What became of the pings. May be called on any thread.
  unsigned long Accepted() const { return mAccepted; }
  unsigned long Refused() const { return mRefused; }
  unsigned long Withheld() const { return mWithheld; }

  int Open(const char* path) override;

  /// Called on the feeding thread, too: nothing here may wait for the loop.
  int Ioctl(int fd, unsigned long request, void* arg) override;

 private:
  using Ms = std::chrono::milliseconds;

  static Ms::rep Now();

  const std::string mDevice;
  const Ms mPatience;
  std::atomic<Ms::rep> mLastBeat;
  bool mIsOpen = false;
  std::atomic<unsigned long> mAccepted{0};
  std::atomic<unsigned long> mRefused{0};
  std::atomic<unsigned long> mWithheld{0};
};

#endif  // STATUSD_HEARTBEAT_OPS_H
