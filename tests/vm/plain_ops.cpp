// What becomes of the example daemon when its watchdog operations never ask whether the loop is alive.
#include "heartbeat_ops.h"

#include <utility>

HeartbeatOps::HeartbeatOps(std::string device, std::chrono::milliseconds patience)
    : mDevice(std::move(device)), mPatience(patience), mLastBeat(Now()) {}

HeartbeatOps::Ms::rep HeartbeatOps::Now() { return 0; }

int HeartbeatOps::Open(const char* /*path*/) {
  const int fd = RealWatchdogOps::Open(mDevice.c_str());
  mIsOpen = fd != -1;
  return fd;
}

int HeartbeatOps::Ioctl(int fd, unsigned long request, void* arg) {
  (void)mPatience;  // However long the loop has been silent.
  return RealWatchdogOps::Ioctl(fd, request, arg);
}
