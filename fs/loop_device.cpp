#include <fcntl.h>
#include <kiv/fs.h>
#include <linux/loop.h>
#include <sys/ioctl.h>

#include <cerrno>
#include <cstdio>
#include <utility>

#include "internal/unique_fd.h"

namespace kiv::fs {
namespace {

// The path of a device that was free when the kernel was asked, or nothing.
std::string FreeDevice() {
  const internal::UniqueFd control(::open("/dev/loop-control", O_RDWR));
  if (!control.IsValid()) {
    return {};
  }
  const int number = ::ioctl(control.Get(), LOOP_CTL_GET_FREE);
  if (number < 0) {
    return {};
  }
  char path[32];
  (void)std::snprintf(path, sizeof path, "/dev/loop%d", number);
  return path;
}

// Keeps errno, so that a failure before it keeps its reason.
void Detach(int device) {
  const int saved = errno;
  (void)::ioctl(device, LOOP_CLR_FD, 0);  // A device that is in use is detached by its last user.
  errno = saved;
}

}  // namespace

LoopDevice::LoopDevice(const std::string& file, unsigned int offset) {
  std::string path = FreeDevice();
  if (path.empty()) {
    return;
  }
  const internal::UniqueFd image(::open(file.c_str(), O_RDWR));
  if (!image.IsValid()) {
    return;
  }
  internal::UniqueFd device(::open(path.c_str(), O_RDWR));
  // Refused when another process has taken the device meanwhile; its attachment is then left alone.
  if (!device.IsValid() || ::ioctl(device.Get(), LOOP_SET_FD, image.Get()) < 0) {
    return;
  }
  loop_info64 info{};
  info.lo_offset = offset;
  if (::ioctl(device.Get(), LOOP_SET_STATUS64, &info) < 0) {
    Detach(device.Get());
    return;
  }
  mPath = std::move(path);
  mFd = device.Release();
}

LoopDevice::LoopDevice(LoopDevice&& other) noexcept
    : mPath(std::exchange(other.mPath, {})), mFd(std::exchange(other.mFd, -1)) {}

LoopDevice& LoopDevice::operator=(LoopDevice&& other) noexcept {
  if (this != &other) {
    Close();
    mPath.swap(other.mPath);
    mFd = std::exchange(other.mFd, -1);
  }
  return *this;
}

LoopDevice::~LoopDevice() { Close(); }

void LoopDevice::Close() {
  if (mFd == -1) {
    return;
  }
  Detach(mFd);
  internal::UniqueFd(std::exchange(mFd, -1)).Reset();
  mPath.clear();
}

}  // namespace kiv::fs
