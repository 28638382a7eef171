#include <fcntl.h>
#include <kiv/hardware.h>
#include <linux/watchdog.h>
#include <sys/ioctl.h>
#include <unistd.h>

namespace kiv::hardware {

WatchdogOps::~WatchdogOps() = default;

// Deliberate: O_WRONLY and nothing else. Programs that the library starts close what they inherit.
int RealWatchdogOps::Open(const char* path) { return ::open(path, O_WRONLY); }

void RealWatchdogOps::Close(int fd) { (void)::close(fd); }

int RealWatchdogOps::Ioctl(int fd, unsigned long request, void* arg) { return ::ioctl(fd, request, arg); }

RealWatchdogOps Watchdog::mDefaultOps;

Watchdog::Watchdog(int timeout, WatchdogOps* ops) : mTimeout(timeout), mOps(ops == nullptr ? &mDefaultOps : ops) {
  mFd = mOps->Open(kWdtFile);
}

// Deliberate: no "magic close", and no disarming of a card that was never started. Only WDIOS_DISABLECARD disarms.
Watchdog::~Watchdog() {
  Stop();
  if (mFd != -1) {
    mOps->Close(mFd);
  }
}

bool Watchdog::SetTimeout(int seconds) { return mFd != -1 && mOps->Ioctl(mFd, WDIOC_SETTIMEOUT, &seconds) == 0; }

bool Watchdog::Enable(bool on) {
  int option = on ? WDIOS_ENABLECARD : WDIOS_DISABLECARD;
  return mFd != -1 && mOps->Ioctl(mFd, WDIOC_SETOPTIONS, &option) == 0;
}

bool Watchdog::KeepAlive() { return mFd != -1 && mOps->Ioctl(mFd, WDIOC_KEEPALIVE, nullptr) == 0; }

void Watchdog::Start() {
  if (mRunning) {
    return;
  }
  // A device that refuses one of them may still be fed: many know neither.
  (void)SetTimeout(mTimeout);
  (void)Enable(true);
  mRunning = true;
  mThread = std::thread([this] { Feed(); });
}

void Watchdog::Feed() {
  while (mRunning) {
    (void)::sleep(1);
    (void)KeepAlive();  // What cannot be fed is tried again in a second.
  }
}

void Watchdog::Stop() {
  if (!mRunning) {
    return;
  }
  mRunning = false;
  if (mThread.joinable()) {
    mThread.join();
  }
  (void)Enable(false);  // Cards that cannot be disarmed refuse, and nothing can be done about it.
}

WatchdogRaii::WatchdogRaii(int timeout, WatchdogOps* ops) : mWatchdog(std::make_unique<Watchdog>(timeout, ops)) {
  mWatchdog->Start();
}

WatchdogRaii::~WatchdogRaii() { mWatchdog->Stop(); }

}  // namespace kiv::hardware
