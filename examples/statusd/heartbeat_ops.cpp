#include "heartbeat_ops.h"

#include <fcntl.h>
#include <linux/watchdog.h>

#include <cerrno>
#include <utility>

HeartbeatOps::HeartbeatOps(std::string device, std::chrono::milliseconds patience)
    : mDevice(std::move(device)), mPatience(patience), mLastBeat(Now()) {}

// This clock stands still while the machine sleeps, as the device does.
HeartbeatOps::Ms::rep HeartbeatOps::Now() {
  return std::chrono::duration_cast<Ms>(std::chrono::steady_clock::now().time_since_epoch()).count();
}

int HeartbeatOps::Open(const char* /*path*/) {
  const int fd = ::open(mDevice.c_str(), O_WRONLY | O_CLOEXEC);
  mIsOpen = fd != -1;
  return fd;
}

int HeartbeatOps::Ioctl(int fd, unsigned long request, void* arg) {
  if (request != WDIOC_KEEPALIVE) {
    return RealWatchdogOps::Ioctl(fd, request, arg);
  }
  if (Ms(Now() - mLastBeat) > mPatience) {
    ++mWithheld;
    errno = ETIMEDOUT;
    return -1;
  }
  const int result = RealWatchdogOps::Ioctl(fd, request, arg);
  if (result == 0) {
    ++mAccepted;
  } else {
    ++mRefused;
  }
  return result;
}
